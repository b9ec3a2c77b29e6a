// The inside of the stand-in's USB bus, shared by its files: the records a
// URB becomes (Transfer, ControlRecord), the pipes they queue on, and
// UsbBus::Impl with every routine of the bus. Behaviour is described in
// kplat/usbbus.h; how the files divide the work is said at the top of
// usbbus.cpp.
#pragma once

#include <kplat/platform.h>
#include <kplat/usbbus.h>
#include <usbioctl.h>

#include "internal.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kplat {
namespace usbbus {

constexpr uint64_t kMicroframe100ns = 1250;  // 125 us: how far pacing may run ahead
constexpr uint32_t kPacketOverheadBytes = 8;
constexpr uint32_t kMaxPacket = 2048;  // wMaxPacketSize bits 0-10
constexpr size_t kPoolGrowth = 64;     // transfers made at a time when the pool is empty

enum class Kind { Bulk, Control, Abort, ResetHost, FrameNumber };
enum class Post { None, SetConfiguration, Unconfigure, SetInterface, ClearHalt };

struct Pipe;
struct Transfer;
class TransferList;

// One interface record of a selection, checked at submission.
struct PlanEndpoint {
    uint8_t address;
    uint8_t attributes;
    uint16_t maxPacket;
    uint8_t interval;
};
struct PlanInterface {
    PUSBD_INTERFACE_INFORMATION info;  // in the caller's URB
    uint8_t number, alternate, cls, subClass, protocol;
    std::vector<PlanEndpoint> endpoints;
};

// A control transfer handed to the device. Owned by the bus (kept in a pool
// and reused); in use until the device answers it (or is detached), also
// when its URB was cancelled.
struct ControlRecord {
    UsbControlTransfer xfer;  // what the device sees; xfer.busContext is this record
    std::vector<uint8_t> data;
    Transfer* transfer = nullptr;  // NULL once orphaned (its URB completed without the answer)
    bool inUse = false;
    bool answered = false;
    bool stalled = false;
    uint32_t error = 0;  // USBD status of a transaction error (FailControl), 0 if none
};

// What one accepted (or refused) URB becomes. Transfers come from the bus's
// pool and go back to it once their IRP is completed; all fields are under
// Impl::mLock except where said.
struct Transfer {
    PIRP irp = nullptr;
    PURB urb = nullptr;
    Kind kind = Kind::Bulk;
    USHORT function = 0;
    Pipe* pipe = nullptr;  // bulk, abort, resets
    uint8_t* buffer = nullptr;
    uint32_t length = 0;
    uint32_t done = 0;
    bool in = false;
    bool shortOk = false;
    bool writesLength = true;  // the URB has a TransferBufferLength to report

    // Control.
    UsbSetupPacket setup = {};
    Post post = Post::None;
    ControlRecord* record = nullptr;
    std::vector<PlanInterface> plan;
    std::vector<uint8_t> configuration;  // copy of the selected descriptor
    uint8_t configurationValue = 0;

    // Where it is queued: a pipe's queue, the control queue, the operations,
    // the held transfers of a slow abort, the completed ones, or the pool.
    TransferList* list = nullptr;
    Transfer* prev = nullptr;
    Transfer* next = nullptr;

    // State.
    bool accepted = false;         // counted among the bus's pending requests
    bool armed = false;            // the cancel routine is set, or called and not yet in OnCancel
    bool refused = false;          // failed its checks at submission
    bool inDevice = false;         // the run loop is in a device call for it
    bool cancelRequested = false;  // the cancel routine ran during that call (or while held)
    bool started = false;          // the device has seen part of it
    bool finished = false;         // has its final status
    USBD_STATUS status = USBD_STATUS_PENDING;

    // Capture.
    bool captured = false;
    uint8_t device = 0;  // the device's address when submitted
    uint8_t captureType = 2;
    uint8_t captureEndpoint = 0;
    int32_t captureInterval = 0;
    std::shared_ptr<UsbCapture> capture;  // set when it completes while a capture runs
};

// A list threaded through the transfers themselves: queuing and dequeuing
// allocate nothing. A transfer is on at most one list (Transfer::list).
class TransferList {
public:
    TransferList() = default;
    TransferList(const TransferList&) = delete;
    TransferList& operator=(const TransferList&) = delete;

    bool Empty() const { return mHead == nullptr; }
    Transfer* Front() const { return mHead; }
    static Transfer* Next(const Transfer* t) { return t->next; }
    void PushBack(Transfer* t) {
        t->list = this;
        t->prev = mTail;
        t->next = nullptr;
        if (mTail) mTail->next = t;
        else mHead = t;
        mTail = t;
    }
    void Remove(Transfer* t) {
        if (t->prev) t->prev->next = t->next;
        else mHead = t->next;
        if (t->next) t->next->prev = t->prev;
        else mTail = t->prev;
        t->list = nullptr;
        t->prev = t->next = nullptr;
    }
    Transfer* PopFront() {
        Transfer* t = mHead;
        if (t) Remove(t);
        return t;
    }
    // Moves every transfer of `from` to the end of this list.
    void TakeAll(TransferList& from) {
        while (Transfer* t = from.PopFront()) PushBack(t);
    }

private:
    Transfer* mHead = nullptr;
    Transfer* mTail = nullptr;
};

struct Pipe {
    uintptr_t handle = 0;
    uint8_t address = 0;
    USBD_PIPE_TYPE type = UsbdPipeTypeBulk;
    uint16_t maxPacket = 0;  // wMaxPacketSize as in the descriptor
    uint8_t interval = 0;
    uint8_t interfaceNumber = 0;
    bool open = true;
    bool halted = false;
    bool nakWait = false;
    TransferList queue;
    UsbBus::Impl* bus = nullptr;
    // A thread is stepping the pipe (at most one at a time); work that comes
    // for it meanwhile sets `again` and that thread goes round once more.
    // Both under the bus's mLock, as every field of a pipe that changes.
    bool stepping = false;
    bool again = false;
    std::vector<uint8_t> bounce;  // an IN packet for less room than a packet (IN pipes)

    uint32_t PacketSize() const { return maxPacket & 0x7FF; }
    bool IsIn() const { return (address & USB_ENDPOINT_DIRECTION_MASK) != 0; }
};

NTSTATUS IrpStatusFor(USBD_STATUS st);

}  // namespace usbbus

struct UsbBus::Impl final : public UsbDevicePort {
    using Transfer = usbbus::Transfer;
    using ControlRecord = usbbus::ControlRecord;
    using Pipe = usbbus::Pipe;
    using TransferList = usbbus::TransferList;
    using Lock = std::unique_lock<std::mutex>;

    Impl();
    ~Impl() override;

    // UsbDevicePort (usbbus_control.cpp, usbbus_engine.cpp)
    void CompleteControl(UsbControlTransfer* transfer, bool stall) override;
    void FailControl(UsbControlTransfer* transfer, uint32_t usbdStatus) override;
    void AnswerControl(UsbControlTransfer* transfer, bool stall, uint32_t error);
    void EndpointReady(uint8_t endpointAddress) override;
    void Disconnect() override;
    uint64_t Now() const override { return kplat::Now(); }

    // PDO dispatch, submission and cancel (usbbus.cpp).
    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);
    static void CancelRoutine(PDEVICE_OBJECT device, PIRP irp);
    NTSTATUS Submit(PIRP irp, PURB urb);
    void OnCancel(PIRP irp);
    void Enqueue(Transfer* t);
    void Unlink(Transfer* t);

    // Completion (usbbus.cpp). Every URB the bus took ends in Finish: the
    // run loop's through CompleteLocked and FlushDone, a refused or cancelled
    // one directly.
    bool Settle(Transfer* t, USBD_STATUS st);
    void CompleteLocked(Transfer* t, USBD_STATUS st, TransferList* done = nullptr);
    void FlushDone(Lock& lk);
    void FlushList(Lock& lk, TransferList& done);
    void Finish(Transfer* t);
    void FinishNow(Lock& lk, Transfer* t);
    Transfer* NewTransfer();
    void FreeTransfer(Transfer* t);

    // URB checks (usbbus_urb.cpp).
    USBD_STATUS Build(PURB urb, Transfer* t);
    USBD_STATUS BuildControl(PURB urb, Transfer* t);
    USBD_STATUS BuildSelectConfiguration(PURB urb, Transfer* t);
    USBD_STATUS BuildSelectInterface(PURB urb, Transfer* t);
    Pipe* OpenPipe(USBD_PIPE_HANDLE handle);
    Pipe* OpenPipeByAddress(uint8_t address);

    // Control transfers, pipe operations and selections (usbbus_control.cpp).
    bool ControlStep(Lock& lk);
    bool OperationStep(Lock& lk);
    void FinishControlLocked(Transfer* t);
    void ApplySelection(Transfer* t);
    void ClosePipes(bool all, uint8_t interfaceNumber);
    ControlRecord* NewRecord();
    void FreeRecord(ControlRecord* rec);

    // The run loop and the bulk and interrupt engine (usbbus_engine.cpp).
    static void DpcRoutine(PKDPC dpc, PVOID context, PVOID a1, PVOID a2);
    void Schedule();
    bool WakeRunnerLocked();
    void Kick();
    static void RunDeferred(void* context);
    void RunAtDispatch();
    void Run();
    void RunLocked(Lock& lk);
    bool BusStep(Lock& lk);
    bool PipeStep(Lock& lk, Pipe* p, TransferList* done);
    bool StepPipe(Lock& lk, Pipe* p, bool untilIdle, TransferList* done);
    bool WakePipeLocked(Pipe* p);
    void KickPipe(Pipe* p);
    static void RunPipeDeferred(void* context);
    void RunPipeAtDispatch(Pipe* p);
    void RunPipe(Pipe* p);
    bool InsideRun() const;
    void NotifyAborted(Lock& lk);
    void HandleDisconnect(Lock& lk);
    uint32_t PaceBudget(uint32_t packet);
    void PaceCharge(uint32_t bytes, uint32_t packets);

    // Capture (usbbus_capture.cpp).
    void Record(UsbCapture* capture, const Transfer* t, char type) const;
    void OpenCaptureFromEnvironment();

    // Handles look like kernel addresses, are unique per bus and never reused.
    uintptr_t NewHandle() {
        return (uintptr_t)0xFFFFB00000000000ull + ((uintptr_t)mBusNumber << 32) + (++mHandleSeq << 4);
    }

    // mLock guards everything below that changes after construction; it is
    // never held while the bus calls the device or completes an IRP.
    mutable kplat_internal::SpinningMutex mLock;
    PDRIVER_OBJECT mDriver = nullptr;
    PDEVICE_OBJECT mPdo = nullptr;
    KDPC mDpc;
    KDPC mTimerDpc;
    KTIMER mTimer;
    KDPC mHoldDpc;  // runs the loop when held transfers fall due
    KTIMER mHoldTimer;
    uint16_t mBusNumber = 0;
    uint8_t mAddress = 1;

    UsbDevice* mDevice = nullptr;  // attached device, until the run loop detaches it
    bool mAttached = false;        // accepts URBs
    bool mDisconnectPending = false;
    std::atomic<bool> mInline{false};  // read without the lock
    uint64_t mLinkRate = 0;

    // The run loop: one thread at a time runs it (mRunning); whoever finds
    // it running sets mRunAgain instead, and the runner goes round once more.
    bool mRunning = false;
    bool mRunAgain = false;
    // With inline completion, a thread that makes work for a pipe steps that
    // pipe itself (RunPipe) while other threads step other pipes: a
    // transfer's completion runs on the thread that fed its pipe. The bus
    // section of the loop (removal, aborts, pipe operations, the default
    // pipe) runs only while no pipe is being stepped: mStepping counts the
    // pipes being stepped, mBusSection is set while the section (and the
    // completion of what it finished) runs, and mBusDeferred while it waits
    // for the steppers, which stop at their next turn; the last to stop
    // runs the loop.
    unsigned mStepping = 0;
    bool mBusSection = false;
    bool mBusDeferred = false;

    std::vector<std::unique_ptr<Pipe>> mPipes;  // every pipe ever opened
    std::unordered_map<uintptr_t, Pipe*> mOpenPipes;
    std::vector<Pipe*> mOpenList;  // the open pipes in the order they were opened
    uint64_t mReadySeq[256] = {};
    TransferList mControlQueue;
    Transfer* mControlActive = nullptr;
    TransferList mOperations;
    // Slow abort: the endpoint whose next abort holds its transfers, for how
    // long, and the transfers held until mHeldUntil.
    int mHoldAbortEndpoint = -1;
    uint64_t mHoldAbortMs = 0;
    TransferList mHeld;
    uint64_t mHeldUntil = 0;
    std::vector<uint8_t> mAbortNotices;
    std::vector<uint8_t> mNoticesSent;  // NotifyAborted's copy (both keep their capacity)
    size_t mPending = 0;  // accepted transfers not yet completed
    TransferList mDone;   // completed by the run loop, waiting for FlushDone

    // Pools: transfers and control records are made in blocks and reused.
    std::vector<std::unique_ptr<Transfer[]>> mTransferBlocks;
    TransferList mFreeTransfers;
    std::vector<std::unique_ptr<ControlRecord>> mRecords;  // every record made
    std::vector<ControlRecord*> mFreeRecords;

    uintptr_t mHandleSeq = 0;
    uintptr_t mConfigurationHandle = 0;
    uint8_t mConfigurationValue = 0;
    std::vector<uint8_t> mConfiguration;
    std::unordered_map<uint8_t, uintptr_t> mInterfaceHandles;

    bool mTimerArmed = false;
    uint64_t mPaceOrigin = 0;
    uint64_t mPaceBits = 0;

    std::shared_ptr<UsbCapture> mCapture;
    UsbBusStats mStats;
};

}  // namespace kplat
