// Test harness for the simulated NCM function: a fake bus port, control and
// bulk helpers that talk to the device through kplat::UsbDevice directly,
// and a tiny, slow NTB encoder and decoder written separately from the
// device's own.
#pragma once

#include <ethsim/bytes.h>
#include <ethsim/ncm.h>
#include <ethsim/ncm_device.h>

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace simtest {

using ethsim::Bytes;
using kplat::UsbHandshake;

class FakePort : public kplat::UsbDevicePort {
public:
    struct Completion {
        kplat::UsbControlTransfer* transfer;
        bool stall;
    };
    void FailControl(kplat::UsbControlTransfer*, uint32_t) override {}
    void CompleteControl(kplat::UsbControlTransfer* transfer, bool stall) override
    {
        completions.push_back({transfer, stall});
    }
    void EndpointReady(uint8_t endpointAddress) override
    {
        ready.push_back(endpointAddress);
        if (inBusCall) {
            readyInsideBusCall = true;
        }
    }
    void Disconnect() override
    {
        ++disconnects;
        if (inBusCall) {
            disconnectInsideBusCall = true;
        }
    }
    uint64_t Now() const override { return now; }

    uint64_t now = 0;
    bool inBusCall = false;  // set by the harness around the device's bus calls
    std::vector<Completion> completions;
    std::vector<uint8_t> ready;
    bool readyInsideBusCall = false;
    bool disconnectInsideBusCall = false;
    int disconnects = 0;
};

struct ControlResult {
    bool completed = false;
    bool stalled = false;
    Bytes data;  // IN: the bytes returned
};

// A control transfer owned by the test (for held and delayed ones).
struct PendingControl {
    kplat::UsbControlTransfer transfer{};
    Bytes buffer;
};

class Harness {
public:
    explicit Harness(const ethsim::DeviceProfile& profile = ethsim::DeviceProfile()) : dev(profile), profile(profile)
    {
        dev.Attached(&port);
    }
    ~Harness() { dev.Detached(); }

    ControlResult Control(uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                          uint16_t wLength, const Bytes& out = Bytes())
    {
        PendingControl p;
        Submit(&p, bmRequestType, bRequest, wValue, wIndex, wLength, out);
        ControlResult r;
        for (const auto& c : port.completions) {
            if (c.transfer == &p.transfer) {
                r.completed = true;
                r.stalled = c.stall;
            }
        }
        port.completions.clear();
        if (r.completed && !r.stalled && (bmRequestType & 0x80) != 0) {
            r.data.assign(p.buffer.begin(), p.buffer.begin() + p.transfer.actual);
        }
        return r;
    }

    // Hands the transfer to the device and leaves its completion to the test.
    void Submit(PendingControl* p, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                uint16_t wLength, const Bytes& out = Bytes())
    {
        p->buffer.assign(std::max<size_t>(wLength, 1), 0xEE);
        std::copy(out.begin(), out.end(), p->buffer.begin());
        p->transfer.setup = {bmRequestType, bRequest, wValue, wIndex, wLength};
        p->transfer.data = p->buffer.data();
        p->transfer.actual = 0;
        port.inBusCall = true;
        dev.ControlTransfer(&p->transfer);
        port.inBusCall = false;
    }

    ControlResult GetDescriptor(uint8_t type, uint8_t index, uint16_t wLength, uint16_t lang = 0)
    {
        return Control(0x80, ethsim::usb::kGetDescriptor, static_cast<uint16_t>(type << 8 | index), lang, wLength);
    }
    ControlResult ClassOut(uint8_t request, uint16_t value, const Bytes& data = Bytes())
    {
        return Control(0x21, request, value, profile.communicationInterface, static_cast<uint16_t>(data.size()),
                       data);
    }
    ControlResult ClassIn(uint8_t request, uint16_t value, uint16_t wLength)
    {
        return Control(0xA1, request, value, profile.communicationInterface, wLength);
    }
    bool SetConfiguration(uint8_t value)
    {
        ControlResult r = Control(0x00, ethsim::usb::kSetConfiguration, value, 0, 0);
        return r.completed && !r.stalled;
    }
    bool SetInterface(uint8_t interface, uint8_t alternate)
    {
        ControlResult r = Control(0x01, ethsim::usb::kSetInterface, alternate, interface, 0);
        return r.completed && !r.stalled;
    }

    // What the host driver does at start: configuration, data interface at
    // setting 0, input size, format, then setting 1. Drains the link
    // notifications that setting 1 queues.
    void Start(bool ntb32 = false, uint32_t inputSize = 0)
    {
        ASSERT_TRUE(SetConfiguration(profile.bConfigurationValue));
        ASSERT_TRUE(SetInterface(profile.dataInterface, 0));
        if (inputSize != 0) {
            Bytes b;
            ethsim::Append32(b, inputSize);
            ASSERT_FALSE(ClassOut(ethsim::cdc::kSetNtbInputSize, 0, b).stalled);
        }
        ASSERT_FALSE(ClassOut(ethsim::cdc::kSetNtbFormat, ntb32 ? 1 : 0).stalled);
        ASSERT_TRUE(SetInterface(profile.dataInterface, 1));
        while (ReadNotify()) {
        }
    }

    uint32_t BulkPacket() const { return profile.BulkMaxPacket(); }

    UsbHandshake OutPacket(const uint8_t* data, uint32_t length)
    {
        port.inBusCall = true;
        UsbHandshake h = dev.OutPacket(profile.bulkOutEndpoint & 0x0F, data, length);
        port.inBusCall = false;
        return h;
    }

    // Sends one transfer packet by packet, with a ZLP after a last full
    // packet when `zlp` says so. Returns the first handshake that was not Ack
    // (or Ack).
    UsbHandshake SendOut(const Bytes& transfer, bool zlp = true)
    {
        const uint32_t mps = BulkPacket();
        size_t off = 0;
        do {
            const uint32_t n = static_cast<uint32_t>(std::min<size_t>(mps, transfer.size() - off));
            UsbHandshake h = OutPacket(transfer.data() + off, n);
            if (h != UsbHandshake::Ack) {
                return h;
            }
            off += n;
            if (n < mps) {
                return UsbHandshake::Ack;
            }
        } while (off < transfer.size());
        if (zlp) {
            return OutPacket(nullptr, 0);
        }
        return UsbHandshake::Ack;
    }

    UsbHandshake InPacket(uint8_t ep, Bytes* packet, uint32_t maxLength)
    {
        packet->assign(maxLength, 0);
        uint32_t length = 0;
        port.inBusCall = true;
        UsbHandshake h = dev.InPacket(ep & 0x0F, packet->data(), maxLength, &length);
        port.inBusCall = false;
        packet->resize(h == UsbHandshake::Ack ? length : 0);
        return h;
    }

    // Reads one bulk IN transfer into a buffer of `bufferSize` bytes (0:
    // unlimited), packet by packet, as the bus would: it ends at a short
    // packet or when the buffer is full. nullopt when the first packet is
    // refused; packet sizes in `packets`.
    std::optional<Bytes> ReadIn(size_t bufferSize = 0, std::vector<uint32_t>* packets = nullptr,
                                UsbHandshake* refusal = nullptr)
    {
        const uint32_t mps = BulkPacket();
        Bytes all;
        while (true) {
            Bytes p;
            UsbHandshake h = InPacket(profile.bulkInEndpoint, &p, mps);
            if (h != UsbHandshake::Ack) {
                if (refusal != nullptr) {
                    *refusal = h;
                }
                if (all.empty()) {
                    return std::nullopt;
                }
                ADD_FAILURE() << "IN transfer refused in the middle";
                return all;
            }
            if (packets != nullptr) {
                packets->push_back(static_cast<uint32_t>(p.size()));
            }
            all.insert(all.end(), p.begin(), p.end());
            if (p.size() < mps || (bufferSize != 0 && all.size() >= bufferSize)) {
                return all;
            }
        }
    }

    // One notification transfer read with packets of the endpoint's size
    // until a short packet; nullopt on Nak.
    std::optional<Bytes> ReadNotify()
    {
        const uint32_t mps = profile.notifyMaxPacket;
        Bytes p;
        if (InPacket(profile.notifyEndpoint, &p, mps) != UsbHandshake::Ack) {
            return std::nullopt;
        }
        return p;
    }

    ethsim::NcmDevice dev;
    ethsim::DeviceProfile profile;
    FakePort port;
};

// ---- frames ----
inline Bytes MakeFrame(size_t length, uint8_t seed, const ethsim::MacAddress& dst = {0x02, 0, 0, 0, 0, 0x10})
{
    Bytes f(length);
    for (size_t i = 0; i < length; ++i) {
        f[i] = static_cast<uint8_t>(seed + i * 3);
    }
    std::copy(dst.begin(), dst.end(), f.begin());
    f[6] = 0x02;  // unicast source
    f[12] = 0x08;
    f[13] = 0x00;
    return f;
}

// ---- a tiny NTB encoder: everything placed by hand ----
struct Entry {
    uint32_t index;
    uint32_t length;
};

inline void PutNth16(Bytes& b, uint16_t sequence, uint16_t blockLength, uint16_t ndpIndex,
                     uint32_t signature = ethsim::ntb::kNth16Signature, uint16_t headerLength = 12)
{
    ethsim::Put32(&b[0], signature);
    ethsim::Put16(&b[4], headerLength);
    ethsim::Put16(&b[6], sequence);
    ethsim::Put16(&b[8], blockLength);
    ethsim::Put16(&b[10], ndpIndex);
}

inline void PutNth32(Bytes& b, uint16_t sequence, uint32_t blockLength, uint32_t ndpIndex,
                     uint32_t signature = ethsim::ntb::kNth32Signature, uint16_t headerLength = 16)
{
    ethsim::Put32(&b[0], signature);
    ethsim::Put16(&b[4], headerLength);
    ethsim::Put16(&b[6], sequence);
    ethsim::Put32(&b[8], blockLength);
    ethsim::Put32(&b[12], ndpIndex);
}

// NDP16 at `at` with the entries and, if `terminate`, a zero entry; wLength
// covers exactly that unless `length` is given.
inline void PutNdp16(Bytes& b, size_t at, const std::vector<Entry>& entries, uint16_t next = 0,
                     uint32_t signature = ethsim::ntb::kNdp16NoCrc, bool terminate = true, int length = -1)
{
    const size_t count = entries.size() + (terminate ? 1 : 0);
    ethsim::Put32(&b[at], signature);
    ethsim::Put16(&b[at + 4], static_cast<uint16_t>(length >= 0 ? length : 8 + 4 * count));
    ethsim::Put16(&b[at + 6], next);
    for (size_t i = 0; i < entries.size(); ++i) {
        ethsim::Put16(&b[at + 8 + 4 * i], static_cast<uint16_t>(entries[i].index));
        ethsim::Put16(&b[at + 10 + 4 * i], static_cast<uint16_t>(entries[i].length));
    }
    if (terminate) {
        ethsim::Put32(&b[at + 8 + 4 * entries.size()], 0);
    }
}

inline void PutNdp32(Bytes& b, size_t at, const std::vector<Entry>& entries, uint32_t next = 0,
                     uint32_t signature = ethsim::ntb::kNdp32NoCrc, bool terminate = true, int length = -1)
{
    const size_t count = entries.size() + (terminate ? 1 : 0);
    ethsim::Put32(&b[at], signature);
    ethsim::Put16(&b[at + 4], static_cast<uint16_t>(length >= 0 ? length : 16 + 8 * count));
    ethsim::Put16(&b[at + 6], 0);
    ethsim::Put32(&b[at + 8], next);
    ethsim::Put32(&b[at + 12], 0);
    for (size_t i = 0; i < entries.size(); ++i) {
        ethsim::Put32(&b[at + 16 + 8 * i], entries[i].index);
        ethsim::Put32(&b[at + 20 + 8 * i], entries[i].length);
    }
    if (terminate) {
        ethsim::Put32(&b[at + 16 + 8 * entries.size()], 0);
        ethsim::Put32(&b[at + 20 + 8 * entries.size()], 0);
    }
}

inline void PutFrame(Bytes& b, size_t at, const Bytes& frame) { std::copy(frame.begin(), frame.end(), b.begin() + at); }

inline size_t Up(size_t x, size_t m) { return (x + m - 1) / m * m; }

// A conforming NTB the way the host driver lays it out: payloads (byte 14
// of each frame) at `remainder` modulo `divisor`, one NDP behind the
// datagrams at a multiple of `alignment`.
inline Bytes GoodNtb(const std::vector<Bytes>& frames, bool ntb32, uint16_t sequence, size_t divisor = 4,
                     size_t remainder = 0, size_t alignment = 4)
{
    size_t off = ntb32 ? 16 : 12;
    std::vector<Entry> entries;
    for (const Bytes& f : frames) {
        const size_t d = Up(off + 14, divisor) + remainder - 14;
        entries.push_back({static_cast<uint32_t>(d), static_cast<uint32_t>(f.size())});
        off = d + f.size();
    }
    const size_t ndp = Up(off, alignment);
    const size_t total = ndp + (ntb32 ? 16 + 8 * (frames.size() + 1) : 8 + 4 * (frames.size() + 1));
    Bytes b(total, 0);
    for (size_t i = 0; i < frames.size(); ++i) {
        PutFrame(b, entries[i].index, frames[i]);
    }
    if (ntb32) {
        PutNth32(b, sequence, static_cast<uint32_t>(total), static_cast<uint32_t>(ndp));
        PutNdp32(b, ndp, entries);
    } else {
        PutNth16(b, sequence, static_cast<uint16_t>(total), static_cast<uint16_t>(ndp));
        PutNdp16(b, ndp, entries);
    }
    return b;
}

// ---- a tiny NTB decoder, independent of the device's checker ----
struct Decoded {
    bool ok = false;
    uint16_t sequence = 0;
    uint32_t blockLength = 0;
    std::vector<uint32_t> ndpOffsets;
    std::vector<uint32_t> ndpSignatures;
    std::vector<Entry> entries;
    std::vector<Bytes> frames;  // as the entries give them (CRC included)
};

inline Decoded Decode(const Bytes& b, bool ntb32)
{
    Decoded d;
    const size_t nth = ntb32 ? 16 : 12;
    if (b.size() < nth || ethsim::Get32(b.data()) != (ntb32 ? ethsim::ntb::kNth32Signature
                                                             : ethsim::ntb::kNth16Signature)) {
        return d;
    }
    d.sequence = ethsim::Get16(&b[6]);
    d.blockLength = ntb32 ? ethsim::Get32(&b[8]) : ethsim::Get16(&b[8]);
    uint32_t ndp = ntb32 ? ethsim::Get32(&b[12]) : ethsim::Get16(&b[10]);
    for (int guard = 0; ndp != 0 && guard < 64; ++guard) {
        if (ndp + (ntb32 ? 16u : 8u) > b.size()) {
            return d;
        }
        d.ndpOffsets.push_back(ndp);
        d.ndpSignatures.push_back(ethsim::Get32(&b[ndp]));
        const uint32_t len = ethsim::Get16(&b[ndp + 4]);
        const uint32_t es = ntb32 ? 8 : 4;
        for (uint32_t e = ndp + (ntb32 ? 16 : 8); e + es <= ndp + len && e + es <= b.size(); e += es) {
            const uint32_t di = ntb32 ? ethsim::Get32(&b[e]) : ethsim::Get16(&b[e]);
            const uint32_t dl = ntb32 ? ethsim::Get32(&b[e + 4]) : ethsim::Get16(&b[e + 2]);
            if (di == 0 && dl == 0) {
                break;
            }
            if (di + dl > b.size()) {
                return d;
            }
            d.entries.push_back({di, dl});
            d.frames.emplace_back(b.begin() + di, b.begin() + di + dl);
        }
        ndp = ntb32 ? ethsim::Get32(&b[ndp + 8]) : ethsim::Get16(&b[ndp + 6]);
    }
    d.ok = true;
    return d;
}

}  // namespace simtest
