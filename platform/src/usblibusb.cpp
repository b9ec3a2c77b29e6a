// A real USB device through libusb-1.0 (see kplat/usblibusb.h for how the
// bus's packets become libusb transfers).
//
// One file on purpose: the control worker, the OUT gatherer, the IN
// read-ahead and the event thread share the endpoint table and its lock.
#include <kplat/usblibusb.h>

#include <libusb-1.0/libusb.h>
#include <usb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace kplat {

namespace {

constexpr int kOutInFlight = 4;       // gathered OUT transfers in flight per endpoint
constexpr int kBulkInFlight = 4;      // bulk IN read-ahead transfers per endpoint
constexpr size_t kInQueued = 16;      // completed IN transfers held before reading pauses
constexpr uint32_t kDefaultInSize = 16384;
constexpr uint32_t kDefaultOutSize = 65536;
constexpr unsigned kControlTimeoutMs = 5000;

// CDC NCM class requests whose data give the transfer lengths.
constexpr uint8_t kGetNtbParameters = 0x80;
constexpr uint8_t kSetNtbInputSize = 0x86;

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | (uint32_t)p[3] << 24; }

struct Selector {
    bool byAddress = false;
    uint16_t vid = 0, pid = 0;
    uint8_t bus = 0, address = 0;
};

bool ParseField(const std::string& s, int base, size_t maxDigits, unsigned long max, unsigned long* out)
{
    if (s.empty() || s.size() > maxDigits) return false;
    for (char c : s) {
        if (base == 16 ? !isxdigit((unsigned char)c) : !isdigit((unsigned char)c)) return false;
    }
    *out = strtoul(s.c_str(), nullptr, base);
    return *out <= max;
}

bool ParseSelector(const std::string& text, Selector* sel)
{
    size_t colon = text.find(':');
    if (colon == std::string::npos) return false;
    std::string a = text.substr(0, colon), b = text.substr(colon + 1);
    unsigned long x = 0, y = 0;
    if (a.size() == 4 && b.size() == 4) {
        if (!ParseField(a, 16, 4, 0xFFFF, &x) || !ParseField(b, 16, 4, 0xFFFF, &y)) return false;
        sel->vid = (uint16_t)x;
        sel->pid = (uint16_t)y;
        return true;
    }
    if (!ParseField(a, 10, 3, 255, &x) || !ParseField(b, 10, 3, 127, &y) || x == 0 || y == 0) return false;
    sel->byAddress = true;
    sel->bus = (uint8_t)x;
    sel->address = (uint8_t)y;
    return true;
}

bool Matches(libusb_device* dev, const Selector& sel)
{
    if (sel.byAddress) return libusb_get_bus_number(dev) == sel.bus && libusb_get_device_address(dev) == sel.address;
    libusb_device_descriptor d;
    return libusb_get_device_descriptor(dev, &d) == 0 && d.idVendor == sel.vid && d.idProduct == sel.pid;
}

std::string Where(libusb_device* dev)
{
    return std::to_string(libusb_get_bus_number(dev)) + ":" + std::to_string(libusb_get_device_address(dev));
}

std::string IdText(libusb_device* dev)
{
    libusb_device_descriptor d{};
    libusb_get_device_descriptor(dev, &d);
    char b[16];
    snprintf(b, sizeof(b), "%04x:%04x", d.idVendor, d.idProduct);
    return b;
}

}  // namespace

// One endpoint's state on the host side of the libusb seam.
struct Endpoint {
    uint8_t address = 0;
    uint8_t type = LIBUSB_TRANSFER_TYPE_BULK;
    uint32_t maxPacket = 512;
    // OUT: packets gathered for the next transfer.
    std::vector<uint8_t> gathered;
    // IN: completed transfers not yet handed to the bus, and the read
    // position in the first.
    struct InData {
        std::vector<uint8_t> bytes;
        bool zeroLengthEnd = false;  // the transfer ended with a zero-length packet
        bool stall = false;          // the transfer failed: the endpoint is halted
    };
    std::deque<InData> ready;
    size_t readOffset = 0;
    bool reading = false;  // IN read-ahead is running
    bool halted = false;   // a transfer stalled; cleared by CLEAR_FEATURE(ENDPOINT_HALT)
    bool nakked = false;   // the bus waits for EndpointReady
    std::set<libusb_transfer*> inFlight;
};

struct LibusbDevice::Impl {
    libusb_context* mContext = nullptr;
    libusb_device_handle* mHandle = nullptr;
    UsbSpeed mSpeed = UsbSpeed::High;
    std::string mDescription;

    std::thread mEventThread;
    std::thread mControlThread;
    std::atomic<bool> mStopEvents{false};
    std::atomic<bool> mGone{false};

    // Guards every field below, the endpoints and the transfers in flight.
    // The bus's port may be called with it held (the bus never holds its own
    // lock while calling the device).
    mutable std::mutex mLock;
    std::condition_variable mControlWake;
    UsbDevicePort* mPort = nullptr;
    std::deque<UsbControlTransfer*> mControlQueue;
    bool mStopControl = false;
    bool mDisconnectDue = false;  // gone, and the bus not yet told
    std::map<uint8_t, Endpoint> mEndpoints;
    std::set<int> mClaimed;  // interface numbers
    uint32_t mInSize = kDefaultInSize;
    uint32_t mOutSize = kDefaultOutSize;
    LibusbDeviceStats mStats;

    ~Impl();
    void EventLoop();
    void ControlLoop();
    void RunControl(UsbControlTransfer* t);
    int SetConfiguration(int value);
    void LearnEndpoints();
    void SnoopControl(const UsbControlTransfer* t);
    // Called with mLock held.
    void MarkGone();
    bool SubmitOut(Endpoint& ep, bool zeroLengthEnd);
    void ReadAhead(Endpoint& ep);
    void CancelAll(Endpoint& ep);
    void Ready(Endpoint& ep);
    static void LIBUSB_CALL OnTransfer(libusb_transfer* t);
    void Done(libusb_transfer* t);
};

LibusbDevice::Impl::~Impl()
{
    {
        std::lock_guard<std::mutex> lock(mLock);
        mStopControl = true;
        mPort = nullptr;
        for (auto& kv : mEndpoints) CancelAll(kv.second);
    }
    mControlWake.notify_all();
    if (mControlThread.joinable()) mControlThread.join();
    // Cancelled transfers still come back through the event thread.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;) {
        size_t left = 0;
        {
            std::lock_guard<std::mutex> lock(mLock);
            for (auto& kv : mEndpoints) left += kv.second.inFlight.size();
        }
        if (left == 0 || std::chrono::steady_clock::now() > deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    mStopEvents = true;
    if (mHandle) {
        for (int i : mClaimed) libusb_release_interface(mHandle, i);
    }
    if (mEventThread.joinable()) {
        // libusb_close wakes the event thread; the loop then sees the flag.
        if (mHandle) libusb_close(mHandle);
        mHandle = nullptr;
        mEventThread.join();
    }
    if (mHandle) libusb_close(mHandle);
    if (mContext) libusb_exit(mContext);
}

// Besides completing transfers, the loop tells the bus that the device went
// away: the port's Disconnect may not be called from inside a bus call,
// where a submission can be the first to notice.
void LibusbDevice::Impl::EventLoop()
{
    while (!mStopEvents.load()) {
        timeval tv{0, 20000};
        libusb_handle_events_timeout_completed(mContext, &tv, nullptr);
        std::lock_guard<std::mutex> lock(mLock);
        if (mDisconnectDue && mPort) {
            mDisconnectDue = false;
            mPort->Disconnect();
        }
    }
}

void LibusbDevice::Impl::MarkGone()
{
    if (mGone.exchange(true)) return;
    mDisconnectDue = true;
}

void LibusbDevice::Impl::Ready(Endpoint& ep)
{
    if (ep.nakked && mPort) {
        ep.nakked = false;
        mPort->EndpointReady(ep.address);
    }
}

void LibusbDevice::Impl::CancelAll(Endpoint& ep)
{
    for (libusb_transfer* t : ep.inFlight) libusb_cancel_transfer(t);
    ep.gathered.clear();
    ep.ready.clear();
    ep.readOffset = 0;
    ep.reading = false;
}

bool LibusbDevice::Impl::SubmitOut(Endpoint& ep, bool zeroLengthEnd)
{
    libusb_transfer* t = libusb_alloc_transfer(0);
    if (!t) return false;
    const int length = (int)ep.gathered.size();
    uint8_t* buffer = (uint8_t*)malloc(length ? length : 1);
    if (!buffer) {
        libusb_free_transfer(t);
        return false;
    }
    memcpy(buffer, ep.gathered.data(), length);
    ep.gathered.clear();
    libusb_fill_bulk_transfer(t, mHandle, ep.address, buffer, length, OnTransfer, this, 0);
    t->type = ep.type;
    t->flags = LIBUSB_TRANSFER_FREE_BUFFER;
    if (zeroLengthEnd && length > 0) t->flags |= LIBUSB_TRANSFER_ADD_ZERO_PACKET;
    int rc = libusb_submit_transfer(t);
    if (rc != 0) {
        libusb_free_transfer(t);
        if (rc == LIBUSB_ERROR_NO_DEVICE) MarkGone();
        return false;
    }
    ep.inFlight.insert(t);
    return true;
}

void LibusbDevice::Impl::ReadAhead(Endpoint& ep)
{
    const bool interrupt = ep.type == LIBUSB_TRANSFER_TYPE_INTERRUPT;
    const int want = interrupt ? 1 : kBulkInFlight;
    while (ep.reading && !mGone.load() && (int)ep.inFlight.size() < want &&
           ep.ready.size() + ep.inFlight.size() < kInQueued) {
        const uint32_t length = interrupt ? ep.maxPacket : std::max(mInSize, ep.maxPacket);
        libusb_transfer* t = libusb_alloc_transfer(0);
        uint8_t* buffer = t ? (uint8_t*)malloc(length) : nullptr;
        if (!buffer) {
            if (t) libusb_free_transfer(t);
            return;
        }
        libusb_fill_bulk_transfer(t, mHandle, ep.address, buffer, (int)length, OnTransfer, this, 0);
        t->type = ep.type;
        t->flags = LIBUSB_TRANSFER_FREE_BUFFER;
        int rc = libusb_submit_transfer(t);
        if (rc != 0) {
            libusb_free_transfer(t);
            if (rc == LIBUSB_ERROR_NO_DEVICE) MarkGone();
            return;
        }
        ep.inFlight.insert(t);
    }
}

void LIBUSB_CALL LibusbDevice::Impl::OnTransfer(libusb_transfer* t) { ((Impl*)t->user_data)->Done(t); }

void LibusbDevice::Impl::Done(libusb_transfer* t)
{
    std::lock_guard<std::mutex> lock(mLock);
    Endpoint& ep = mEndpoints[t->endpoint];
    ep.inFlight.erase(t);
    const bool in = (t->endpoint & 0x80) != 0;
    switch (t->status) {
    case LIBUSB_TRANSFER_CANCELLED:
        break;
    case LIBUSB_TRANSFER_NO_DEVICE:
        MarkGone();
        break;
    case LIBUSB_TRANSFER_COMPLETED:
        if (!in) {
            mStats.outTransfers++;
            mStats.outBytes += (uint64_t)t->actual_length;
        } else if (ep.reading) {
            if (ep.type == LIBUSB_TRANSFER_TYPE_INTERRUPT) {
                mStats.interruptPackets++;
            } else {
                mStats.inTransfers++;
                mStats.inBytes += (uint64_t)t->actual_length;
            }
            Endpoint::InData d;
            d.bytes.assign(t->buffer, t->buffer + t->actual_length);
            // A transfer that ended short on a packet boundary (or empty)
            // ended with a zero-length packet; one that filled its buffer
            // did not.
            d.zeroLengthEnd = t->actual_length < t->length && t->actual_length % ep.maxPacket == 0;
            ep.ready.push_back(std::move(d));
            ReadAhead(ep);
        }
        break;
    default:
        // Stall, babble, transaction error: the endpoint is halted until the
        // host clears it.
        mStats.stalls++;
        ep.halted = true;
        if (in && ep.reading) {
            Endpoint::InData d;
            d.stall = true;
            ep.ready.push_back(std::move(d));
            ep.reading = false;
        }
        break;
    }
    libusb_free_transfer(t);
    Ready(ep);
}

void LibusbDevice::Impl::LearnEndpoints()
{
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_active_config_descriptor(libusb_get_device(mHandle), &config) != 0 || !config) return;
    std::lock_guard<std::mutex> lock(mLock);
    for (int i = 0; i < config->bNumInterfaces; i++) {
        const libusb_interface& itf = config->interface[i];
        for (int a = 0; a < itf.num_altsetting; a++) {
            const libusb_interface_descriptor& alt = itf.altsetting[a];
            for (int e = 0; e < alt.bNumEndpoints; e++) {
                const libusb_endpoint_descriptor& d = alt.endpoint[e];
                Endpoint& ep = mEndpoints[d.bEndpointAddress];
                ep.address = d.bEndpointAddress;
                ep.type = d.bmAttributes & 3;
                ep.maxPacket = std::max<uint32_t>(1, d.wMaxPacketSize & 0x7FF);
            }
        }
    }
    libusb_free_config_descriptor(config);
}

// Interfaces are released for the change and those of the new configuration
// claimed after it: the kernel refuses to change the configuration of a
// device whose interfaces are claimed.
int LibusbDevice::Impl::SetConfiguration(int value)
{
    for (int i : mClaimed) libusb_release_interface(mHandle, i);
    mClaimed.clear();
    int rc = libusb_set_configuration(mHandle, value == 0 ? -1 : value);
    if (rc != 0 || value == 0) return rc;
    libusb_config_descriptor* config = nullptr;
    if ((rc = libusb_get_active_config_descriptor(libusb_get_device(mHandle), &config)) != 0) return rc;
    for (int i = 0; i < config->bNumInterfaces && rc == 0; i++) {
        int number = config->interface[i].altsetting[0].bInterfaceNumber;
        rc = libusb_claim_interface(mHandle, number);
        if (rc == 0) mClaimed.insert(number);
    }
    libusb_free_config_descriptor(config);
    LearnEndpoints();
    return rc;
}

void LibusbDevice::Impl::SnoopControl(const UsbControlTransfer* t)
{
    const UsbSetupPacket& s = t->setup;
    if ((s.bmRequestType & 0x7F) != 0x21) return;  // class, interface
    if (s.bRequest == kGetNtbParameters && (s.bmRequestType & 0x80) && t->actual >= 20) {
        mInSize = Le32(t->data + 4);
        mOutSize = Le32(t->data + 16);
    } else if (s.bRequest == kSetNtbInputSize && !(s.bmRequestType & 0x80) && s.wLength >= 4) {
        mInSize = Le32(t->data);
    }
    if (mInSize < 64 || mInSize > (1u << 24)) mInSize = kDefaultInSize;
    if (mOutSize < 64 || mOutSize > (1u << 24)) mOutSize = kDefaultOutSize;
    mStats.ntbInSize = mInSize;
    mStats.ntbOutSize = mOutSize;
}

void LibusbDevice::Impl::RunControl(UsbControlTransfer* t)
{
    const UsbSetupPacket& s = t->setup;
    const uint8_t type = s.bmRequestType & 0x60, recipient = s.bmRequestType & 0x1F;
    int rc;
    if (type == 0 && recipient == 0 && s.bRequest == 9) {
        rc = SetConfiguration(s.wValue & 0xFF);
    } else if (type == 0 && recipient == 1 && s.bRequest == 11) {
        rc = libusb_set_interface_alt_setting(mHandle, s.wIndex & 0xFF, s.wValue & 0xFF);
    } else if (type == 0 && recipient == 2 && s.bRequest == 1 && s.wValue == 0) {
        rc = libusb_clear_halt(mHandle, (unsigned char)s.wIndex);
        if (rc == 0) {
            std::lock_guard<std::mutex> lock(mLock);
            mEndpoints[(uint8_t)s.wIndex].halted = false;
        }
    } else {
        rc = libusb_control_transfer(mHandle, s.bmRequestType, s.bRequest, s.wValue, s.wIndex, t->data, s.wLength,
                                     kControlTimeoutMs);
    }
    std::lock_guard<std::mutex> lock(mLock);
    mStats.controlTransfers++;
    if (rc == LIBUSB_ERROR_NO_DEVICE) {
        // Not answered: the disconnect completes it with DEVICE_GONE.
        MarkGone();
        return;
    }
    t->actual = rc >= 0 ? (uint32_t)rc : 0;
    if (rc >= 0 && !(s.bmRequestType & 0x80)) t->actual = s.wLength;
    if (rc >= 0) SnoopControl(t);
    // A stall is the device's answer; any other failure (time-out, I/O
    // error) is a transaction error on the wire.
    if (rc == LIBUSB_ERROR_PIPE) mStats.stalls++;
    if (!mPort) return;
    if (rc < 0 && rc != LIBUSB_ERROR_PIPE) {
        mPort->FailControl(t, rc == LIBUSB_ERROR_TIMEOUT ? USBD_STATUS_DEV_NOT_RESPONDING : USBD_STATUS_XACT_ERROR);
    } else {
        mPort->CompleteControl(t, rc < 0);
    }
}

void LibusbDevice::Impl::ControlLoop()
{
    for (;;) {
        UsbControlTransfer* t = nullptr;
        {
            std::unique_lock<std::mutex> lock(mLock);
            mControlWake.wait(lock, [&] { return mStopControl || !mControlQueue.empty(); });
            if (mStopControl) return;
            t = mControlQueue.front();
            mControlQueue.pop_front();
        }
        RunControl(t);
    }
}

// ---------------------------------------------------------------------------

LibusbDevice::LibusbDevice(Impl* impl) : mImpl(impl) {}

LibusbDevice::~LibusbDevice() { delete mImpl; }

bool LibusbDevice::Present(const std::string& selector)
{
    Selector sel;
    libusb_context* ctx = nullptr;
    if (!ParseSelector(selector, &sel) || libusb_init(&ctx) != 0) return false;
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(ctx, &list);
    bool found = false;
    for (ssize_t i = 0; i < n; i++) found = found || Matches(list[i], sel);
    if (n >= 0) libusb_free_device_list(list, 1);
    libusb_exit(ctx);
    return found;
}

std::unique_ptr<LibusbDevice> LibusbDevice::Open(const std::string& selector, std::string* error)
{
    std::string ignored;
    if (!error) error = &ignored;
    Selector sel;
    if (!ParseSelector(selector, &sel)) {
        *error = "--usb " + selector + ": expected VID:PID (four hex digits each, e.g. 0525:a4a1) or BUS:ADDR "
                 "(decimal, e.g. 1:2)";
        return nullptr;
    }
    std::unique_ptr<Impl> impl(new Impl());
    int rc = libusb_init(&impl->mContext);
    if (rc != 0) {
        impl->mContext = nullptr;
        *error = "--usb " + selector + ": libusb cannot start: " + libusb_strerror(rc);
        return nullptr;
    }
    libusb_device** list = nullptr;
    ssize_t n = libusb_get_device_list(impl->mContext, &list);
    std::vector<libusb_device*> found;
    for (ssize_t i = 0; i < n; i++) {
        if (Matches(list[i], sel)) found.push_back(list[i]);
    }
    if (found.size() != 1) {
        if (found.empty()) {
            *error = "--usb " + selector + ": no such USB device is present (lsusb lists them)";
        } else {
            std::string where;
            for (libusb_device* d : found) where += (where.empty() ? "" : ", ") + Where(d);
            *error = "--usb " + selector + ": " + std::to_string(found.size()) + " devices match (at " + where +
                     "): choose one with --usb BUS:ADDR";
        }
        if (n >= 0) libusb_free_device_list(list, 1);
        return nullptr;
    }
    libusb_device* dev = found[0];
    const std::string name = "--usb " + selector + " (" + IdText(dev) + " at " + Where(dev) + ")";
    rc = libusb_open(dev, &impl->mHandle);
    if (rc != 0) {
        impl->mHandle = nullptr;
        char node[64];
        snprintf(node, sizeof(node), "/dev/bus/usb/%03u/%03u", libusb_get_bus_number(dev),
                 libusb_get_device_address(dev));
        *error = name + (rc == LIBUSB_ERROR_ACCESS ? std::string(": not permitted (needs read and write access to ") +
                                                         node + ")"
                         : rc == LIBUSB_ERROR_NO_DEVICE ? ": the device went away"
                                                        : std::string(": cannot be opened: ") + libusb_strerror(rc));
        libusb_free_device_list(list, 1);
        return nullptr;
    }
    libusb_free_device_list(list, 1);

    switch (libusb_get_device_speed(dev)) {
    case LIBUSB_SPEED_SUPER:
    case LIBUSB_SPEED_SUPER_PLUS: impl->mSpeed = UsbSpeed::Super; break;
    case LIBUSB_SPEED_HIGH: impl->mSpeed = UsbSpeed::High; break;
    default: impl->mSpeed = UsbSpeed::Full; break;
    }
    // Busy: an interface of the current configuration held by a kernel
    // driver, or claimed by another program.
    libusb_config_descriptor* config = nullptr;
    if (libusb_get_active_config_descriptor(dev, &config) == 0 && config) {
        for (int i = 0; i < config->bNumInterfaces; i++) {
            const int number = config->interface[i].altsetting[0].bInterfaceNumber;
            if (libusb_kernel_driver_active(impl->mHandle, number) == 1) {
                *error = name + ": busy: a kernel driver holds interface " + std::to_string(number) +
                         " (unbind it first)";
            } else if ((rc = libusb_claim_interface(impl->mHandle, number)) != 0) {
                *error = name + (rc == LIBUSB_ERROR_BUSY ? ": busy: another program holds interface "
                                                         : ": interface cannot be claimed: ") +
                         (rc == LIBUSB_ERROR_BUSY ? std::to_string(number) : std::string(libusb_strerror(rc)));
            } else {
                impl->mClaimed.insert(number);
            }
            if (!error->empty()) break;
        }
        libusb_free_config_descriptor(config);
        if (!error->empty()) return nullptr;
    }
    libusb_device_descriptor d{};
    libusb_get_device_descriptor(dev, &d);
    unsigned char product[128] = {0}, maker[128] = {0};
    if (d.iManufacturer) libusb_get_string_descriptor_ascii(impl->mHandle, d.iManufacturer, maker, sizeof(maker));
    if (d.iProduct) libusb_get_string_descriptor_ascii(impl->mHandle, d.iProduct, product, sizeof(product));
    impl->mDescription = IdText(dev) + " at " + Where(dev) + ", " +
                         (impl->mSpeed == UsbSpeed::Super ? "super" : impl->mSpeed == UsbSpeed::High ? "high" : "full") +
                         " speed, " + (char*)maker + (maker[0] ? " " : "") + (char*)product;
    impl->LearnEndpoints();
    Impl* p = impl.get();
    impl->mEventThread = std::thread([p] { p->EventLoop(); });
    impl->mControlThread = std::thread([p] { p->ControlLoop(); });
    return std::unique_ptr<LibusbDevice>(new LibusbDevice(impl.release()));
}

void LibusbDevice::Attached(UsbDevicePort* port)
{
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mPort = port;
    if (mImpl->mGone.load()) mImpl->mDisconnectDue = true;
}

void LibusbDevice::Detached()
{
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mPort = nullptr;
    mImpl->mControlQueue.clear();
    for (auto& kv : mImpl->mEndpoints) mImpl->CancelAll(kv.second);
}

UsbSpeed LibusbDevice::Speed() const { return mImpl->mSpeed; }

void LibusbDevice::ControlTransfer(UsbControlTransfer* transfer)
{
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        mImpl->mControlQueue.push_back(transfer);
    }
    mImpl->mControlWake.notify_one();
}

UsbHandshake LibusbDevice::OutPacket(uint8_t epNumber, const uint8_t* data, uint32_t length)
{
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    auto it = mImpl->mEndpoints.find(epNumber);
    if (it == mImpl->mEndpoints.end()) return UsbHandshake::Stall;
    Endpoint& ep = it->second;
    if (ep.halted) {
        ep.gathered.clear();
        return UsbHandshake::Stall;
    }
    if (mImpl->mGone.load()) {
        ep.nakked = true;
        return UsbHandshake::Nak;
    }
    const bool ends = length < ep.maxPacket || ep.gathered.size() + length >= mImpl->mOutSize;
    if (ends && (int)ep.inFlight.size() >= kOutInFlight) {
        ep.nakked = true;
        return UsbHandshake::Nak;
    }
    ep.gathered.insert(ep.gathered.end(), data, data + length);
    if (ends && !mImpl->SubmitOut(ep, length == 0)) {
        // Out of memory, or the device went away: the disconnect ends it.
        ep.nakked = true;
        return mImpl->mGone.load() ? UsbHandshake::Nak : UsbHandshake::Stall;
    }
    return UsbHandshake::Ack;
}

UsbHandshake LibusbDevice::InPacket(uint8_t epNumber, uint8_t* buffer, uint32_t maxLength, uint32_t* length)
{
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    auto it = mImpl->mEndpoints.find(epNumber | 0x80);
    if (it == mImpl->mEndpoints.end()) return UsbHandshake::Stall;
    Endpoint& ep = it->second;
    if (!ep.ready.empty()) {
        Endpoint::InData& d = ep.ready.front();
        if (d.stall) {
            ep.ready.pop_front();
            return UsbHandshake::Stall;
        }
        const size_t left = d.bytes.size() - ep.readOffset;
        const uint32_t n = (uint32_t)std::min<size_t>({left, maxLength, ep.maxPacket});
        memcpy(buffer, d.bytes.data() + ep.readOffset, n);
        ep.readOffset += n;
        *length = n;
        // The transfer is used up after its short packet, or after its last
        // full one when no zero-length packet followed it on the wire.
        if (n < ep.maxPacket || (ep.readOffset == d.bytes.size() && !d.zeroLengthEnd)) {
            ep.ready.pop_front();
            ep.readOffset = 0;
            mImpl->ReadAhead(ep);
        }
        return UsbHandshake::Ack;
    }
    if (ep.halted) return UsbHandshake::Stall;
    ep.reading = true;
    ep.nakked = true;
    mImpl->ReadAhead(ep);
    return UsbHandshake::Nak;
}

void LibusbDevice::EndpointAborted(uint8_t endpointAddress)
{
    if (endpointAddress == 0) return;  // the worker's answer is ignored by the bus
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    auto it = mImpl->mEndpoints.find(endpointAddress);
    if (it != mImpl->mEndpoints.end()) mImpl->CancelAll(it->second);
}

bool LibusbDevice::Gone() const { return mImpl->mGone.load(); }

std::string LibusbDevice::Description() const { return mImpl->mDescription; }

LibusbDeviceStats LibusbDevice::Stats() const
{
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mStats;
}

}  // namespace kplat
