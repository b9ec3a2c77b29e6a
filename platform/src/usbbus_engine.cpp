// The run loop of the stand-in's USB bus and its bulk and interrupt engine.
// The loop (and, with inline completion, RunPipe) is the only code that
// calls the device: each round it handles a removal, gives back the
// transfers of a slow abort that fell due, tells the device of aborts, runs
// the pipe operations and the default pipe (usbbus_control.cpp), and then
// gives every open pipe one turn, in which the head transfer of the pipe
// moves one run of packets: as many as the device takes in one
// UsbDevice::OutPackets / InPackets call (one packet for a device that
// answers packet by packet) and the link rate lets start. The device's
// handshake decides what follows: Ack moves on, Nak parks the pipe until
// EndpointReady, Stall halts it. Completed transfers are handed to FlushDone
// at the end of each round. With inline completion a thread that feeds a
// pipe steps that pipe itself (RunPipe), and other threads may step other
// pipes meanwhile; see the run loop's members in usbbus_impl.h. Also here:
// the default run of a device, which is one packet.
#include <algorithm>
#include <cstring>

#include "internal.h"
#include "usbbus_impl.h"

namespace kplat {

using namespace usbbus;

// ---------------------------------------------------------------------------
// Packet runs of a device that answers packet by packet
// ---------------------------------------------------------------------------
void UsbDevice::OutPackets(uint8_t ep, const uint8_t* data, uint32_t length, uint32_t maxPacket, UsbRun* run) {
    uint32_t n = std::min(length, maxPacket);
    run->handshake = OutPacket(ep, data, n);
    if (run->handshake == UsbHandshake::Ack) {
        run->packets = 1;
        run->bytes = n;
    }
}

void UsbDevice::InPackets(uint8_t ep, uint8_t* buffer, uint32_t length, uint32_t maxPacket, UsbRun* run) {
    (void)length;  // at least one packet
    uint32_t got = 0;
    run->handshake = InPacket(ep, buffer, maxPacket, &got);
    if (run->handshake == UsbHandshake::Ack) {
        run->packets = 1;
        run->babble = got > maxPacket;
        run->bytes = std::min(got, maxPacket);
        run->shortPacket = got < maxPacket;
    }
}

// ---------------------------------------------------------------------------
// Device port
// ---------------------------------------------------------------------------
void UsbBus::Impl::EndpointReady(uint8_t endpointAddress) {
    bool wake;
    Pipe* lane = nullptr;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mReadySeq[endpointAddress]++;
        Pipe* p = OpenPipeByAddress(endpointAddress);
        if (p) p->nakWait = false;
        if (p && mInline.load(std::memory_order_relaxed)) {
            wake = WakePipeLocked(p);
            lane = p;
        } else {
            wake = WakeRunnerLocked();
        }
    }
    if (!wake) return;
    if (lane) KickPipe(lane);
    else Kick();
}

void UsbBus::Impl::Disconnect() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mDevice || mDisconnectPending) return;
        mAttached = false;
        mDisconnectPending = true;
    }
    Schedule();
}

// ---------------------------------------------------------------------------
// Run loop
// ---------------------------------------------------------------------------
void UsbBus::Impl::DpcRoutine(PKDPC dpc, PVOID context, PVOID, PVOID) {
    Impl* bus = (Impl*)context;
    if (dpc == &bus->mTimerDpc) {
        std::lock_guard<std::mutex> lock(bus->mLock);
        bus->mTimerArmed = false;
    }
    bus->Run();
}

// Makes sure the loop goes round again: a running loop is told to (no DPC
// needed, false); otherwise true, and the caller queues the bus's DPC (or
// runs the loop itself).
bool UsbBus::Impl::WakeRunnerLocked() {
    if (!mRunning) return true;
    mRunAgain = true;
    return false;
}

void UsbBus::Impl::Schedule() {
    bool wake;
    {
        std::lock_guard<std::mutex> lock(mLock);
        wake = WakeRunnerLocked();
    }
    if (wake) KeInsertQueueDpc(&mDpc, NULL, NULL);
}

// The loop has work and no runner. Without inline completion the bus's DPC
// runs it. With it, the calling thread runs it now if it is below
// DISPATCH_LEVEL; above, as soon as its IRQL drops (as a DPC queued on the
// current processor would; the stand-in's own threads queue the DPC, which
// they run next).
void UsbBus::Impl::Kick() {
    if (!mInline.load(std::memory_order_relaxed)) {
        KeInsertQueueDpc(&mDpc, NULL, NULL);
    } else if (kplat_internal::CurrentIrql() < DISPATCH_LEVEL) {
        RunAtDispatch();
    } else if (!kplat_internal::DeferUntilIrqlDrops(RunDeferred, this)) {
        KeInsertQueueDpc(&mDpc, NULL, NULL);
    }
}

void UsbBus::Impl::RunDeferred(void* context) { static_cast<Impl*>(context)->RunAtDispatch(); }

void UsbBus::Impl::RunAtDispatch() {
    KIRQL old = KeGetCurrentIrql();
    bool raise = old < DISPATCH_LEVEL;
    if (raise) KeRaiseIrql(DISPATCH_LEVEL, &old);
    Run();
    if (raise) KeLowerIrql(old);
}

namespace {
// The buses whose loop or pipes the calling thread runs (innermost last).
thread_local const UsbBus::Impl* tInsideBus = nullptr;

class InsideBus {
public:
    explicit InsideBus(const UsbBus::Impl* bus) : mOuter(tInsideBus) { tInsideBus = bus; }
    ~InsideBus() { tInsideBus = mOuter; }
    InsideBus(const InsideBus&) = delete;
    InsideBus& operator=(const InsideBus&) = delete;

private:
    const UsbBus::Impl* mOuter;
};
}  // namespace

// True on a thread that is running this bus's loop or one of its pipes, as
// a completion routine called by the bus is.
bool UsbBus::Impl::InsideRun() const { return tInsideBus == this; }

void UsbBus::Impl::Run() {
    Lock lk(mLock);
    if (mRunning) {
        mRunAgain = true;
        return;
    }
    InsideBus inside(this);
    RunLocked(lk);
}

// One round: the bus section, when no pipe is being stepped, then one step
// of every open pipe that no other thread is stepping; again while anything
// moved or someone asked. Without inline completion this thread is the only
// one that steps pipes, and the round completes what it finished at its
// end; with it, each pipe step completes its own transfers before the pipe
// is let go, so that a pipe's transfers complete in order whichever thread
// steps it next.
void UsbBus::Impl::RunLocked(Lock& lk) {
    mRunning = true;
    const bool lanes = mInline.load(std::memory_order_relaxed);
    for (;;) {
        mRunAgain = false;
        bool progress = false;
        if (mStepping == 0) {
            mBusDeferred = false;
            mBusSection = true;
            progress = BusStep(lk);
            if (lanes) FlushDone(lk);
            mBusSection = false;
        } else {
            mBusDeferred = true;
        }
        // Only the bus section opens or closes pipes, and not while a pipe
        // is being stepped; the list is read again after every step.
        for (size_t i = 0; mDevice && i < mOpenList.size(); i++) {
            if (mDisconnectPending) {
                progress = true;
                break;
            }
            Pipe* p = mOpenList[i];
            if (p->stepping || p->queue.Empty()) continue;
            TransferList done;
            if (StepPipe(lk, p, false, lanes ? &done : &mDone)) progress = true;
        }
        FlushDone(lk);
        if (!progress && !mRunAgain && !(mBusDeferred && mStepping == 0)) break;
    }
    mRunning = false;
}

// Steps pipe p on this thread, once or until it makes no progress (or the
// bus section waits), with its completions in `done`; completes what is in
// a list of its own before it lets the pipe go. mLock held, p not stepped
// by another thread.
bool UsbBus::Impl::StepPipe(Lock& lk, Pipe* p, bool untilIdle, TransferList* done) {
    p->stepping = true;
    mStepping++;
    bool any = false;
    for (;;) {
        p->again = false;
        bool progress = mDevice && p->open && !mDisconnectPending && PipeStep(lk, p, done);
        any = any || progress;
        if (done != &mDone) FlushList(lk, *done);
        if (!untilIdle || mBusDeferred || (!progress && !p->again)) break;
    }
    p->stepping = false;
    mStepping--;
    if (p->again && mRunning) mRunAgain = true;
    return any;
}

// Inline completion: work came for pipe p. False when the thread stepping
// it takes it; true when the caller runs the pipe (KickPipe).
bool UsbBus::Impl::WakePipeLocked(Pipe* p) {
    if (!p->stepping) return true;
    p->again = true;
    return false;
}

// Runs pipe p on the calling thread: now below DISPATCH_LEVEL, else as soon
// as its IRQL drops (a stand-in thread queues the bus's DPC instead).
void UsbBus::Impl::KickPipe(Pipe* p) {
    if (kplat_internal::CurrentIrql() < DISPATCH_LEVEL) {
        RunPipeAtDispatch(p);
    } else if (!kplat_internal::DeferUntilIrqlDrops(RunPipeDeferred, p)) {
        KeInsertQueueDpc(&mDpc, NULL, NULL);
    }
}

void UsbBus::Impl::RunPipeDeferred(void* context) {
    auto* p = static_cast<Pipe*>(context);
    p->bus->RunPipeAtDispatch(p);
}

void UsbBus::Impl::RunPipeAtDispatch(Pipe* p) {
    KIRQL old = KeGetCurrentIrql();
    bool raise = old < DISPATCH_LEVEL;
    if (raise) KeRaiseIrql(DISPATCH_LEVEL, &old);
    RunPipe(p);
    if (raise) KeLowerIrql(old);
}

// Steps pipe p until it makes no progress. When another thread steps it,
// that thread goes round again instead; while the bus section runs or
// waits, the loop that runs it steps the pipe afterwards. The last pipe
// step to end while the bus section waits runs the loop.
void UsbBus::Impl::RunPipe(Pipe* p) {
    Lock lk(mLock);
    InsideBus inside(this);
    if (p->stepping) {
        p->again = true;
        return;
    }
    if (mBusSection || mBusDeferred) {
        if (mRunning) mRunAgain = true;
        return;
    }
    TransferList done;
    StepPipe(lk, p, true, &done);
    // The bus section waits, or the step left work for it (an abort notice,
    // a removal asked for by a completion routine).
    if (mStepping != 0 || (!mBusDeferred && !mDisconnectPending && mAbortNotices.empty())) return;
    if (mRunning) {
        mRunAgain = true;
        return;
    }
    RunLocked(lk);
}

bool UsbBus::Impl::BusStep(Lock& lk) {
    if (mDisconnectPending) {
        HandleDisconnect(lk);
        return true;
    }
    if (!mDevice) return false;
    bool progress = false;
    if (!mHeld.Empty() && kplat::Now() >= mHeldUntil) {
        for (Transfer *t = mHeld.Front(), *next; t; t = next) {
            next = TransferList::Next(t);
            CompleteLocked(t, USBD_STATUS_CANCELED);
        }
        progress = true;
    }
    if (!mAbortNotices.empty()) {
        NotifyAborted(lk);
        progress = true;
    }
    if (OperationStep(lk)) progress = true;
    if (mDisconnectPending) return true;
    if (ControlStep(lk)) progress = true;
    return progress;
}

void UsbBus::Impl::NotifyAborted(Lock& lk) {
    mNoticesSent.assign(mAbortNotices.begin(), mAbortNotices.end());
    mAbortNotices.clear();
    UsbDevice* device = mDevice;
    lk.unlock();
    for (uint8_t ep : mNoticesSent) device->EndpointAborted(ep);  // only the runner touches mNoticesSent
    lk.lock();
}

void UsbBus::Impl::HandleDisconnect(Lock& lk) {
    mDisconnectPending = false;
    mAttached = false;
    // Every pending transfer is on one of these (or is the active control
    // transfer); finished ones wait for their cancel routine.
    auto gone = [this](TransferList& list) {
        for (Transfer *t = list.Front(), *next; t; t = next) {
            next = TransferList::Next(t);
            if (!t->finished) CompleteLocked(t, USBD_STATUS_DEVICE_GONE);
        }
    };
    if (Transfer* t = mControlActive) {
        if (t->record) {
            t->record->transfer = nullptr;
            t->record = nullptr;
        }
        if (!t->finished) CompleteLocked(t, USBD_STATUS_DEVICE_GONE);
    }
    mControlActive = nullptr;
    gone(mControlQueue);
    gone(mOperations);
    gone(mHeld);
    for (Pipe* p : mOpenList) gone(p->queue);
    ClosePipes(true, 0);
    mConfigurationHandle = 0;
    mConfigurationValue = 0;
    mConfiguration.clear();
    mInterfaceHandles.clear();
    mAbortNotices.clear();
    UsbDevice* device = mDevice;
    FlushDone(lk);
    if (device) {
        lk.unlock();
        device->Detached();
        lk.lock();
    }
    mDevice = nullptr;
    // The device no longer touches its control transfers.
    for (auto& rec : mRecords)
        if (rec->inUse) FreeRecord(rec.get());
}

// ---------------------------------------------------------------------------
// Bulk and interrupt transfers
// ---------------------------------------------------------------------------
bool UsbBus::Impl::PipeStep(Lock& lk, Pipe* p, TransferList* done) {
    Transfer* t = p->queue.Front();
    while (t && t->finished) t = TransferList::Next(t);
    if (!t) return false;
    if (p->halted) {
        CompleteLocked(t, USBD_STATUS_STALL_PID, done);
        return true;
    }
    if (p->nakWait) return false;
    const uint32_t packet = p->PacketSize();
    const uint32_t budget = PaceBudget(packet);  // packets
    if (budget == 0) return false;

    const uint8_t ep = p->address & USB_ENDPOINT_ADDRESS_MASK;
    const uint64_t seq = mReadySeq[p->address];
    const uint32_t room = t->length - t->done;
    UsbDevice* device = mDevice;
    t->inDevice = true;
    t->started = true;
    UsbRun run;
    bool ended = false;
    USBD_STATUS result = USBD_STATUS_SUCCESS;
    if (!t->in) {
        // A run never goes past the transfer: the device sees the same
        // packets as it would one by one, and no packet merges two transfers.
        uint32_t n = (uint32_t)std::min<uint64_t>(room, (uint64_t)budget * packet);
        const uint8_t* data = t->buffer ? t->buffer + t->done : nullptr;
        lk.unlock();
        device->OutPackets(ep, data, n, packet, &run);
        lk.lock();
        run.bytes = std::min(run.bytes, n);
        t->done += run.bytes;
        mStats.packetsOut += run.packets;
        mStats.bytesOut += run.bytes;
        ended = run.packets != 0 && t->done == t->length;
    } else {
        // Whole packets go straight into the buffer; with less room than a
        // packet the packet lands in the bounce buffer and what fits is kept.
        bool bounce = room < packet;
        uint32_t n = bounce ? packet : std::min(room / packet, budget) * packet;
        uint8_t* into = bounce ? p->bounce.data() : t->buffer + t->done;
        lk.unlock();
        device->InPackets(ep, into, n, packet, &run);
        lk.lock();
        run.bytes = std::min(run.bytes, n);
        uint32_t kept = std::min(run.bytes, room);
        if (bounce && kept) memcpy(t->buffer + t->done, p->bounce.data(), kept);
        t->done += kept;
        mStats.packetsIn += run.packets;
        mStats.bytesIn += kept;
        if (run.babble || run.bytes > room) {
            ended = true;
            result = USBD_STATUS_DATA_OVERRUN;
        } else if (run.shortPacket) {
            ended = true;
            if (t->done < t->length && !t->shortOk) result = USBD_STATUS_ERROR_SHORT_TRANSFER;
        } else {
            ended = run.packets != 0 && t->done == t->length;
        }
    }
    t->inDevice = false;
    PaceCharge(run.bytes, run.packets);
    bool progress = run.packets != 0;
    switch (run.handshake) {
    case UsbHandshake::Ack:
        if (ended) CompleteLocked(t, result, done);
        progress = progress || ended;
        break;
    case UsbHandshake::Nak:
        mStats.naks++;
        if (ended) {
            CompleteLocked(t, result, done);
        } else if (mReadySeq[p->address] == seq) {
            p->nakWait = true;  // an EndpointReady during the call keeps the pipe going
        } else {
            progress = true;
        }
        break;
    case UsbHandshake::Stall:
        mStats.stalls++;
        p->halted = true;
        CompleteLocked(t, USBD_STATUS_STALL_PID, done);
        progress = true;
        break;
    }
    if (!t->finished && t->cancelRequested) {
        mAbortNotices.push_back(p->address);
        CompleteLocked(t, USBD_STATUS_CANCELED, done);
        progress = true;
    }
    return progress;
}

// ---------------------------------------------------------------------------
// Pacing
// ---------------------------------------------------------------------------

// How many packets of `packet` bytes may start now: every packet that
// starts while the bus is at most a microframe ahead of the clock. 0 when it
// is further ahead; the pacing timer then runs the loop again.
uint32_t UsbBus::Impl::PaceBudget(uint32_t packet) {
    if (!mLinkRate) return UINT32_MAX;
    uint64_t now = kplat::Now();
    uint64_t busFree = mPaceOrigin + (uint64_t)(((unsigned __int128)mPaceBits * 10000000u + mLinkRate - 1) / mLinkRate);
    if (busFree <= now + kMicroframe100ns) {
        uint64_t slack = now + kMicroframe100ns - std::max(busFree, now);
        unsigned __int128 bits = (unsigned __int128)slack * mLinkRate / 10000000u;
        uint64_t more = (uint64_t)(bits / ((uint64_t)(packet + kPacketOverheadBytes) * 8));
        return (uint32_t)std::min<uint64_t>(more + 1, UINT32_MAX);
    }
    if (!mTimerArmed) {
        mTimerArmed = true;
        LARGE_INTEGER due;
        due.QuadPart = -(LONGLONG)(busFree - kMicroframe100ns - now);
        KeSetTimer(&mTimer, due, &mTimerDpc);
    }
    return 0;
}

void UsbBus::Impl::PaceCharge(uint32_t bytes, uint32_t packets) {
    if (!mLinkRate || !packets) return;
    uint64_t now = kplat::Now();
    uint64_t busFree = mPaceOrigin + (uint64_t)(((unsigned __int128)mPaceBits * 10000000u + mLinkRate - 1) / mLinkRate);
    if (busFree < now) {
        mPaceOrigin = now;
        mPaceBits = 0;
    }
    mPaceBits += ((uint64_t)bytes + (uint64_t)packets * kPacketOverheadBytes) * 8;
}

}  // namespace kplat
