// A TAP interface of the Linux network stack, read and written through
// io_uring: a fixed number of reads stay posted, each completion hands one
// frame to the port's receiver and posts the read again; frames to write are
// copied into buffers of a fixed pool from any thread and submitted in
// batches by the port's own thread, which an eventfd wakes. Nothing is
// allocated per frame. Offloads are switched off explicitly (no virtio-net
// header, no checksum or segmentation offload), so every frame read is a
// plain Ethernet frame of at most the MTU.
#pragma once

#include <liburing.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ethbrg {

class TapPort {
public:
    using Receiver = std::function<void(const uint8_t* frame, size_t length)>;
    // Called with true before the first frame of a batch of reads that
    // completed together, and with false after its last.
    using BatchHook = std::function<void(bool begin)>;

    // Creates (or attaches to) the TAP interface NAME. Throws UsageError with
    // the reason (for a missing permission: that it needs CAP_NET_ADMIN).
    explicit TapPort(const std::string& name);
    ~TapPort();
    TapPort(const TapPort&) = delete;
    TapPort& operator=(const TapPort&) = delete;

    // Interface settings, through the interface's name (in the network
    // namespace the port was created in). Throw UsageError on failure.
    void SetMac(const uint8_t mac[6]);
    void SetMtu(unsigned mtu);
    void SetUp();
    // Carrier through the file descriptor, so it works after the interface
    // was moved to another namespace.
    void SetCarrier(bool on);

    // Starts the port's thread; frames read go to receiver (on that thread),
    // framed by the batch hook when one is given.
    void Start(Receiver receiver, BatchHook batch = nullptr);
    // Stops reading and writing and joins the thread; frames still queued
    // are dropped (and counted).
    void Stop();

    // Queues one frame for the interface; false (counted as dropped) when
    // every write buffer is in use or the frame is too long. Any thread.
    bool Write(const uint8_t* frame, size_t length);
    // Queues several frames at once; returns how many were queued (the
    // others are counted as dropped). Any thread.
    size_t WriteMany(const uint8_t* const* frames, const size_t* lengths, size_t count);

    // While one exists on a thread, the writes that thread makes wake the
    // ports' threads only when it ends (once per port), not per frame: for
    // a burst of writes.
    class HeldWakes {
    public:
        HeldWakes();
        ~HeldWakes();
        HeldWakes(const HeldWakes&) = delete;
        HeldWakes& operator=(const HeldWakes&) = delete;
    };

    const std::string& Name() const { return mName; }
    uint64_t FramesRead() const { return mFramesRead.load(std::memory_order_relaxed); }
    uint64_t BytesRead() const { return mBytesRead.load(std::memory_order_relaxed); }
    uint64_t FramesWritten() const { return mFramesWritten.load(std::memory_order_relaxed); }
    uint64_t BytesWritten() const { return mBytesWritten.load(std::memory_order_relaxed); }
    uint64_t WritesDropped() const { return mWritesDropped.load(std::memory_order_relaxed); }

private:
    static constexpr size_t kBufferSize = 2048;  // a frame of MTU 1500 with a VLAN tag fits
    static constexpr unsigned kReads = 64;       // reads kept posted
    static constexpr unsigned kWrites = 2048;    // write buffers
    static constexpr unsigned kRingEntries = 4096;
    static constexpr size_t kWriteBatch = 64;    // frames WriteMany takes under one lock

    struct Op {
        enum Kind : uint8_t { Read, Write, Wake } kind;
        uint16_t length = 0;
        uint8_t* buffer = nullptr;
    };

    void Run();
    void Wake();
    void WakeOrHold();  // Wake, or later when the thread holds its wakes
    void PostRead(Op* op);
    void PostWake();
    void SubmitWrites();
    io_uring_sqe* Sqe();

    std::string mName;
    int mFd = -1;
    int mWakeFd = -1;
    io_uring mRing{};
    std::thread mThread;
    Receiver mReceiver;
    BatchHook mBatch;
    std::atomic<bool> mStopping{false};
    uint64_t mWakeValue = 0;

    std::vector<uint8_t> mMemory;  // kReads + kWrites buffers
    std::vector<Op> mOps;
    Op mWakeOp{Op::Wake};

    // Write buffers: free ones and those queued for submission. Guards
    // mFreeWrites and mQueuedWrites; held only to move an Op between them.
    std::mutex mWriteMutex;
    std::vector<Op*> mFreeWrites;
    std::vector<Op*> mQueuedWrites;
    std::vector<Op*> mTaking;  // the port thread's batch, outside the lock

    std::atomic<uint64_t> mFramesRead{0}, mBytesRead{0}, mFramesWritten{0}, mBytesWritten{0}, mWritesDropped{0};
};

}  // namespace ethbrg
