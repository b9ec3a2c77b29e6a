// Capture of the stand-in's USB traffic as a Linux usbmon pcap file
// (LINKTYPE_USB_LINUX_MMAPPED, 64-byte header per record), written through
// libpcap.
#include <kplat/usbbus.h>

#include <pcap/pcap.h>

#include <cstring>
#include <mutex>
#include <vector>

namespace kplat {

namespace {

// Link type 220: usbmon records with the 64-byte header of the memory-mapped
// interface.
constexpr int kLinkTypeUsbLinuxMmapped = 220;

// The record header, in the byte order of the writing machine (pcap readers
// follow the file's byte order).
struct UsbmonHeader {
    uint64_t id;
    uint8_t type;          // 'S', 'C', 'E'
    uint8_t transferType;  // 0 iso, 1 interrupt, 2 control, 3 bulk
    uint8_t endpoint;      // bit 7: IN
    uint8_t device;
    uint16_t bus;
    char flagSetup;  // 0: setup[] holds the set-up packet; '-' otherwise
    char flagData;   // 0: data follows; '<' / '>' / '=' when none
    int64_t tsSec;
    int32_t tsUsec;
    int32_t status;
    uint32_t length;   // URB length (requested at S, actual at C)
    uint32_t lenCap;   // bytes of data following the header
    uint8_t setup[8];
    int32_t interval;
    int32_t startFrame;
    uint32_t transferFlags;
    uint32_t ndesc;
};
static_assert(sizeof(UsbmonHeader) == 64, "usbmon mmapped header is 64 bytes");
static_assert(offsetof(UsbmonHeader, tsSec) == 16, "usbmon header layout");
static_assert(offsetof(UsbmonHeader, setup) == 40, "usbmon header layout");

// The virtual clock's system time starts at 2014-07-24 00:00:00 UTC.
constexpr int64_t kClockOriginUnix = 1406160000;

}  // namespace

struct UsbCapture::State {
    std::mutex lock;
    pcap_t* pcap = nullptr;
    pcap_dumper_t* dumper = nullptr;
    std::string path;
    uint64_t records = 0;
    std::vector<uint8_t> scratch;
};

std::unique_ptr<UsbCapture> UsbCapture::Open(const std::string& path, std::string* error) {
    pcap_t* pcap = pcap_open_dead(kLinkTypeUsbLinuxMmapped, (int)(sizeof(UsbmonHeader) + kMaxData));
    if (!pcap) {
        if (error) *error = "pcap_open_dead failed";
        return nullptr;
    }
    pcap_dumper_t* dumper = pcap_dump_open(pcap, path.c_str());
    if (!dumper) {
        if (error) *error = std::string("cannot create ") + path + ": " + pcap_geterr(pcap);
        pcap_close(pcap);
        return nullptr;
    }
    std::unique_ptr<UsbCapture> capture(new UsbCapture());
    capture->mState = new State();
    capture->mState->pcap = pcap;
    capture->mState->dumper = dumper;
    capture->mState->path = path;
    return capture;
}

UsbCapture::~UsbCapture() {
    if (!mState) return;
    pcap_dump_close(mState->dumper);
    pcap_close(mState->pcap);
    delete mState;
}

void UsbCapture::Record(const UsbCaptureEvent& e) {
    UsbmonHeader h;
    memset(&h, 0, sizeof(h));
    h.id = e.id;
    h.type = (uint8_t)e.type;
    h.transferType = e.transferType;
    h.endpoint = e.endpoint;
    h.device = e.device;
    h.bus = e.bus;
    h.status = e.status;
    h.length = e.length;
    h.interval = e.interval;
    h.transferFlags = e.transferFlags;
    h.tsSec = kClockOriginUnix + (int64_t)(e.time100ns / 10000000);
    h.tsUsec = (int32_t)(e.time100ns % 10000000 / 10);
    if (e.hasSetup) {
        h.flagSetup = 0;
        h.setup[0] = e.setup.bmRequestType;
        h.setup[1] = e.setup.bRequest;
        h.setup[2] = (uint8_t)e.setup.wValue;
        h.setup[3] = (uint8_t)(e.setup.wValue >> 8);
        h.setup[4] = (uint8_t)e.setup.wIndex;
        h.setup[5] = (uint8_t)(e.setup.wIndex >> 8);
        h.setup[6] = (uint8_t)e.setup.wLength;
        h.setup[7] = (uint8_t)(e.setup.wLength >> 8);
    } else {
        h.flagSetup = '-';
    }
    uint32_t captured = e.data ? (e.dataLength < kMaxData ? e.dataLength : kMaxData) : 0;
    h.lenCap = captured;
    if (captured) {
        h.flagData = 0;
    } else {
        // As usbmon marks records without data: '<' an IN submission, '>' an
        // OUT completion, '=' nothing to show.
        bool in = (e.endpoint & 0x80) != 0;
        h.flagData = (e.type == 'S' && in) ? '<' : (e.type == 'C' && !in) ? '>' : '=';
    }

    std::lock_guard<std::mutex> lock(mState->lock);
    mState->scratch.resize(sizeof(h) + captured);
    memcpy(mState->scratch.data(), &h, sizeof(h));
    if (captured) memcpy(mState->scratch.data() + sizeof(h), e.data, captured);
    pcap_pkthdr ph;
    memset(&ph, 0, sizeof(ph));
    ph.ts.tv_sec = (time_t)h.tsSec;
    ph.ts.tv_usec = h.tsUsec;
    ph.caplen = (bpf_u_int32)mState->scratch.size();
    ph.len = ph.caplen;
    pcap_dump((u_char*)mState->dumper, &ph, mState->scratch.data());
    mState->records++;
}

void UsbCapture::Flush() {
    std::lock_guard<std::mutex> lock(mState->lock);
    pcap_dump_flush(mState->dumper);
}

uint64_t UsbCapture::Records() const {
    std::lock_guard<std::mutex> lock(mState->lock);
    return mState->records;
}

const std::string& UsbCapture::Path() const { return mState->path; }

int32_t UsbCapture::LinuxStatus(USBD_STATUS status) {
    switch (status) {
    case USBD_STATUS_SUCCESS: return 0;
    case USBD_STATUS_PENDING: return kInProgress;
    case USBD_STATUS_CANCELED: return -2;           // -ENOENT: unlinked
    case USBD_STATUS_STALL_PID: return -32;         // -EPIPE
    case USBD_STATUS_DEVICE_GONE: return -108;      // -ESHUTDOWN
    case USBD_STATUS_ERROR_SHORT_TRANSFER: return -121;  // -EREMOTEIO
    case USBD_STATUS_DATA_OVERRUN:
    case USBD_STATUS_BUFFER_OVERRUN:
    case USBD_STATUS_BABBLE_DETECTED: return -75;   // -EOVERFLOW
    case USBD_STATUS_NOT_SUPPORTED: return -95;     // -EOPNOTSUPP
    case USBD_STATUS_INSUFFICIENT_RESOURCES: return -12;  // -ENOMEM
    case USBD_STATUS_TIMEOUT: return -110;          // -ETIMEDOUT
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_BUFFER_TOO_SMALL:
    case USBD_STATUS_INTERFACE_NOT_FOUND:
    case USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR: return -22;  // -EINVAL
    default: return -71;                            // -EPROTO
    }
}

}  // namespace kplat
