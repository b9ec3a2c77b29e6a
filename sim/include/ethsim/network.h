// The network side of the simulated device: frame sinks and sources, and the
// small peers that sit on the device's Ethernet port: a loopback, a
// responder that answers ARP and ICMP echo for its own IPv4 address, a
// counting generator for benchmarks, and a capture for tests.
//
// Wiring: a source hands each frame to the sink it is connected to. The
// device is a sink for frames going to the host and a source of frames the
// host sent; a peer is both, so `device.Connect(&peer); peer.Connect(&device)`
// closes the loop. Frames are whole Ethernet frames (header included, no
// FCS). Sinks may be called from any thread and must not keep the pointer.
#pragma once

#include "ethsim/bytes.h"
#include "ethsim/profile.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace ethsim {

// Frames handed on together: their bytes back to back in one buffer that
// keeps its capacity from one batch to the next, so that collecting frames
// allocates nothing once it has grown.
class FrameBatch {
public:
    // Adds a copy of the frame.
    void Add(const uint8_t* frame, size_t length)
    {
        mFrames.push_back(Span{nullptr, mBytes.size(), length});
        mBytes.insert(mBytes.end(), frame, frame + length);
    }
    // Adds the frame without a copy: its bytes must stay as they are until
    // the batch is cleared or Own() has run.
    void Refer(const uint8_t* frame, size_t length) { mFrames.push_back(Span{frame, 0, length}); }
    // Copies every referred frame into the batch.
    void Own()
    {
        for (Span& f : mFrames) {
            if (f.at != nullptr) {
                const uint8_t* at = f.at;
                f.at = nullptr;
                f.offset = mBytes.size();
                mBytes.insert(mBytes.end(), at, at + f.length);
            }
        }
    }
    void Clear()
    {
        mBytes.clear();
        mFrames.clear();
    }
    size_t Count() const { return mFrames.size(); }
    const uint8_t* Frame(size_t i) const
    {
        return mFrames[i].at != nullptr ? mFrames[i].at : mBytes.data() + mFrames[i].offset;
    }
    size_t Length(size_t i) const { return mFrames[i].length; }

private:
    struct Span {
        const uint8_t* at;  // a referred frame, or NULL for a copy at offset
        size_t offset;
        size_t length;
    };
    Bytes mBytes;
    std::vector<Span> mFrames;
};

class FrameSink {
public:
    virtual ~FrameSink() = default;
    virtual void OnFrame(const uint8_t* frame, size_t length) = 0;
    // Several frames at once, in order; by default one OnFrame each.
    virtual void OnFrames(const FrameBatch& batch)
    {
        for (size_t i = 0; i < batch.Count(); ++i) {
            OnFrame(batch.Frame(i), batch.Length(i));
        }
    }
};

class FrameSource {
public:
    virtual ~FrameSource() = default;
    // Sets the sink (nullptr: frames are dropped). Meant for set-up, but safe
    // against concurrent Emit.
    void Connect(FrameSink* sink) { mSink.store(sink); }
    FrameSink* Sink() const { return mSink.load(); }

protected:
    // False when no sink is connected.
    bool Emit(const uint8_t* frame, size_t length)
    {
        FrameSink* sink = mSink.load();
        if (sink == nullptr) {
            return false;
        }
        sink->OnFrame(frame, length);
        return true;
    }

    bool Emit(const FrameBatch& batch)
    {
        FrameSink* sink = mSink.load();
        if (sink == nullptr) {
            return false;
        }
        if (batch.Count() != 0) {
            sink->OnFrames(batch);
        }
        return true;
    }

private:
    std::atomic<FrameSink*> mSink{nullptr};
};

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeArp = 0x0806;
constexpr uint16_t kEtherTypeVlan = 0x8100;
constexpr uint16_t kEtherTypeCounting = 0x88B5;  // IEEE local experimental

using Ipv4Address = std::array<uint8_t, 4>;

// Sends every frame straight back; optionally with source and destination
// addresses swapped, so that the host sees a reply from the address it sent
// to.
class Loopback : public FrameSink, public FrameSource {
public:
    explicit Loopback(bool swapAddresses = false) : mSwap(swapAddresses) {}
    void OnFrame(const uint8_t* frame, size_t length) override;
    uint64_t Frames() const { return mFrames.load(); }

private:
    const bool mSwap;
    std::atomic<uint64_t> mFrames{0};
};

// A host on the network with one MAC and one IPv4 address. Answers ARP
// requests for its address and ICMP echo requests sent to it, so that a ping
// from the host's stack works; one 802.1Q tag is kept in the answer.
// Everything else is counted and ignored.
class Responder : public FrameSink, public FrameSource {
public:
    Responder(const MacAddress& mac, const Ipv4Address& ip) : mMac(mac), mIp(ip) {}
    void OnFrame(const uint8_t* frame, size_t length) override;

    struct Counters {
        uint64_t arpRequests = 0;  // for our address
        uint64_t echoRequests = 0;
        uint64_t replies = 0;
        uint64_t ignored = 0;
        uint64_t malformed = 0;  // bad IPv4 or ICMP checksum, truncated
    };
    Counters GetCounters() const;
    const MacAddress& Mac() const { return mMac; }
    const Ipv4Address& Ip() const { return mIp; }

private:
    bool HandleArp(const uint8_t* frame, size_t offset, size_t length, Bytes* reply);
    bool HandleIpv4(const uint8_t* frame, size_t offset, size_t length, Bytes* reply, bool* malformed);

    const MacAddress mMac;
    const Ipv4Address mIp;
    mutable std::mutex mMutex;
    Counters mCounters;
};

// The RFC 1071 Internet checksum of `length` bytes.
uint16_t InternetChecksum(const uint8_t* data, size_t length);

// Generates numbered frames (EtherType 0x88B5: a 64-bit sequence number and
// a byte pattern derived from it) and counts the numbered frames it receives,
// checking order and content. For throughput measurements in either
// direction.
class CountingGenerator : public FrameSink, public FrameSource {
public:
    CountingGenerator(const MacAddress& source, const MacAddress& destination)
        : mSource(source), mDestination(destination)
    {
    }
    // Emits `count` frames of `length` bytes (at least 14 + 8); returns how
    // many reached a sink.
    uint64_t Generate(uint64_t count, size_t length);
    void OnFrame(const uint8_t* frame, size_t length) override;

    // The frame with sequence number `sequence`.
    static Bytes MakeFrame(const MacAddress& source, const MacAddress& destination, uint64_t sequence,
                           size_t length);

    uint64_t Sent() const { return mSent.load(); }
    uint64_t Received() const { return mReceived.load(); }
    uint64_t ReceivedBytes() const { return mReceivedBytes.load(); }
    uint64_t OutOfOrder() const { return mOutOfOrder.load(); }  // sequence not the expected one
    uint64_t Corrupt() const { return mCorrupt.load(); }        // pattern does not match its number
    uint64_t Foreign() const { return mForeign.load(); }        // not a numbered frame

private:
    const MacAddress mSource;
    const MacAddress mDestination;
    std::atomic<uint64_t> mNextSequence{0};
    std::atomic<uint64_t> mSent{0};
    std::mutex mReceiveMutex;
    uint64_t mExpected = 0;
    std::atomic<uint64_t> mReceived{0};
    std::atomic<uint64_t> mReceivedBytes{0};
    std::atomic<uint64_t> mOutOfOrder{0};
    std::atomic<uint64_t> mCorrupt{0};
    std::atomic<uint64_t> mForeign{0};
};

// Keeps every frame it gets; for tests.
class FrameCapture : public FrameSink {
public:
    void OnFrame(const uint8_t* frame, size_t length) override;
    std::vector<Bytes> Frames() const;
    size_t Count() const;
    void Clear();

private:
    mutable std::mutex mMutex;
    std::vector<Bytes> mFrames;
};

}  // namespace ethsim
