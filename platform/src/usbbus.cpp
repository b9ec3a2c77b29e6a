// The stand-in's USB bus: the PDO that takes URBs and carries them to a
// kplat::UsbDevice. Behaviour is described in kplat/usbbus.h. This file
// holds the PDO's dispatch routine, submission, cancel, the one completion
// path every URB ends in, the pool of transfers and the public face.
//
// Structure. Submission checks a URB (usbbus_urb.cpp) and turns it into a
// Transfer, queued on a pipe (bulk and interrupt), on the control queue
// (everything that goes over the default pipe) or on the operation queue
// (abort, host-side reset, frame number). The "run loop" (usbbus_engine.cpp)
// does the work: it is entered by the bus's DPC, by its timers' DPCs, or by
// the submitting thread when inline completion is on; only one thread runs
// it at a time (mRunning), and it is the only code that calls the device
// (besides Attached, which Attach calls); with inline completion, threads
// that feed different pipes may step them at the same time (RunPipe in
// usbbus_engine.cpp). Control transfers, pipe operations
// and selections are in usbbus_control.cpp, the capture records in
// usbbus_capture.cpp. Nothing holds mLock while calling the device or
// completing an IRP.
//
// Cost. A bulk transfer costs the same few lock round trips however many
// packets it has when the device takes runs of packets (UsbDevice::
// OutPackets / InPackets); transfers and control records come from pools
// filled at set-up, and every queue is threaded through the transfers, so a
// URB allocates nothing in steady state.
//
// IRP ownership. Every queued IRP carries CancelRoutine (Transfer::armed).
// Whoever wants to complete a Transfer first clears the cancel routine; if
// that fails, the cancel routine has been called (or is about to be) and
// completes it instead. While the run loop has a Transfer in a device call
// (inDevice), the cancel routine only marks it (cancelRequested) and the run
// loop completes it afterwards. So every IRP is completed exactly once.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "usbbus_impl.h"

namespace kplat {

using namespace usbbus;

namespace {
std::atomic<uint16_t> gBusCount{0};
}  // namespace

NTSTATUS usbbus::IrpStatusFor(USBD_STATUS st) {
    switch (st) {
    case USBD_STATUS_SUCCESS: return STATUS_SUCCESS;
    case USBD_STATUS_CANCELED: return STATUS_CANCELLED;
    case USBD_STATUS_DEVICE_GONE: return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_INSUFFICIENT_RESOURCES: return STATUS_INSUFFICIENT_RESOURCES;
    case USBD_STATUS_NOT_SUPPORTED: return STATUS_NOT_SUPPORTED;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PARAMETER:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_BUFFER_TOO_SMALL:
    case USBD_STATUS_INTERFACE_NOT_FOUND:
    case USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR: return STATUS_INVALID_PARAMETER;
    default: return USBD_SUCCESS(st) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
    }
}

UsbBus::Impl::Impl() {
    mBusNumber = ++gBusCount;
    mDriver = CreateDriverObject(u"\\Driver\\usbbus");
    for (int i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; i++) mDriver->MajorFunction[i] = Dispatch;
    NTSTATUS st = IoCreateDevice(mDriver, sizeof(Impl*), NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &mPdo);
    if (!NT_SUCCESS(st) || !mPdo) {
        fprintf(stderr, "kplat::UsbBus: IoCreateDevice failed (0x%08X)\n", (unsigned)st);
        abort();
    }
    *(Impl**)mPdo->DeviceExtension = this;
    mPdo->Flags &= ~DO_DEVICE_INITIALIZING;
    KeInitializeDpc(&mDpc, DpcRoutine, this);
    KeInitializeDpc(&mTimerDpc, DpcRoutine, this);
    KeInitializeTimer(&mTimer);
    KeInitializeDpc(&mHoldDpc, DpcRoutine, this);
    KeInitializeTimer(&mHoldTimer);
    {
        std::lock_guard<std::mutex> lock(mLock);
        FreeTransfer(NewTransfer());  // fills the pool
        mAbortNotices.reserve(16);
        mNoticesSent.reserve(16);
    }
    OpenCaptureFromEnvironment();
}

UsbBus::Impl::~Impl() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDevice) {
            mAttached = false;
            mDisconnectPending = true;
        }
    }
    RunAtDispatch();
    KeCancelTimer(&mTimer);
    KeCancelTimer(&mHoldTimer);
    if (IsStarted() && KeGetCurrentIrql() == PASSIVE_LEVEL) KeFlushQueuedDpcs();
    KeRemoveQueueDpc(&mDpc);
    KeRemoveQueueDpc(&mTimerDpc);
    KeRemoveQueueDpc(&mHoldDpc);
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mPending) fprintf(stderr, "kplat::UsbBus: destroyed with %zu requests still held\n", mPending);
    }
    IoDeleteDevice(mPdo);
    DeleteDriverObject(mDriver);
}

// ---------------------------------------------------------------------------
// Dispatch
// ---------------------------------------------------------------------------
NTSTATUS UsbBus::Impl::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    Impl* bus = *(Impl**)device->DeviceExtension;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    NTSTATUS st;
    irp->IoStatus.Information = 0;
    switch (stack->MajorFunction) {
    case IRP_MJ_INTERNAL_DEVICE_CONTROL: {
        ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
        if (code == IOCTL_INTERNAL_USB_SUBMIT_URB) return bus->Submit(irp, (PURB)stack->Parameters.Others.Argument1);
        if (code == IOCTL_INTERNAL_USB_GET_PORT_STATUS && stack->Parameters.Others.Argument1) {
            std::lock_guard<std::mutex> lock(bus->mLock);
            *(PULONG)stack->Parameters.Others.Argument1 =
                bus->mAttached ? (USBD_PORT_ENABLED | USBD_PORT_CONNECTED) : 0;
            st = STATUS_SUCCESS;
        } else {
            st = STATUS_INVALID_DEVICE_REQUEST;
        }
        break;
    }
    case IRP_MJ_PNP:
        switch (stack->MinorFunction) {
        case IRP_MN_START_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_REMOVE_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL: st = STATUS_SUCCESS; break;
        default: st = irp->IoStatus.Status; break;  // a PDO leaves what it does not handle
        }
        break;
    case IRP_MJ_POWER:
    case IRP_MJ_CREATE:
    case IRP_MJ_CLOSE: st = STATUS_SUCCESS; break;
    case IRP_MJ_SYSTEM_CONTROL: st = irp->IoStatus.Status; break;
    default: st = STATUS_INVALID_DEVICE_REQUEST; break;
    }
    irp->IoStatus.Status = st;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return st;
}

NTSTATUS UsbBus::Impl::Submit(PIRP irp, PURB urb) {
    if (!urb) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mStats.urbsSubmitted++;
            mStats.urbsRefused++;
            mStats.urbsCompleted++;
        }
        irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return STATUS_INVALID_PARAMETER;
    }
    Lock lk(mLock);
    Transfer* t = NewTransfer();
    t->irp = irp;
    t->urb = urb;
    t->function = urb->UrbHeader.Function;
    t->device = mAddress;
    mStats.urbsSubmitted++;
    USBD_STATUS st = mAttached ? Build(urb, t) : USBD_STATUS_DEVICE_GONE;
    if (st != USBD_STATUS_SUCCESS) {
        mStats.urbsRefused++;
        t->refused = true;
        Settle(t, st);
        FinishNow(lk, t);
        return IrpStatusFor(st);
    }

    urb->UrbHeader.Status = USBD_STATUS_PENDING;
    IoMarkIrpPending(irp);
    if (t->captured && mCapture) Record(mCapture.get(), t, 'S');  // before the completion can be recorded
    Enqueue(t);
    t->accepted = true;
    mPending++;
    irp->Tail.Overlay.DriverContext[0] = t;
    t->armed = true;
    IoSetCancelRoutine(irp, CancelRoutine);
    if (irp->Cancel && IoSetCancelRoutine(irp, NULL) != NULL) {
        // Cancelled before it got here; the cancel routine was never called
        // and the IRP is ours to complete. Only this one: the list of done
        // transfers is the run loop's to complete, in order.
        t->armed = false;
        Settle(t, USBD_STATUS_CANCELED);
        FinishNow(lk, t);
        return STATUS_PENDING;
    }
    if (t->kind == Kind::Bulk && mInline.load(std::memory_order_relaxed)) {
        Pipe* p = t->pipe;
        if (!WakePipeLocked(p)) return STATUS_PENDING;  // the thread stepping the pipe takes it
        lk.unlock();
        KickPipe(p);
        return STATUS_PENDING;
    }
    if (!WakeRunnerLocked()) return STATUS_PENDING;  // the loop is running and takes it
    lk.unlock();
    Kick();
    return STATUS_PENDING;
}

void UsbBus::Impl::Enqueue(Transfer* t) {
    switch (t->kind) {
    case Kind::Bulk: t->pipe->queue.PushBack(t); break;
    case Kind::Control: mControlQueue.PushBack(t); break;
    default: mOperations.PushBack(t); break;
    }
}

void UsbBus::Impl::Unlink(Transfer* t) {
    if (t == mControlActive) mControlActive = nullptr;
    if (t->list) t->list->Remove(t);
}

// ---------------------------------------------------------------------------
// Cancel
// ---------------------------------------------------------------------------
void UsbBus::Impl::CancelRoutine(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    (*(Impl**)device->DeviceExtension)->OnCancel(irp);
}

void UsbBus::Impl::OnCancel(PIRP irp) {
    Lock lk(mLock);
    // The cancel routine is called only while it is set, that is while the
    // bus holds the IRP: the transfer is the one the IRP points to.
    auto* t = (Transfer*)irp->Tail.Overlay.DriverContext[0];
    if (!t || t->irp != irp || !t->armed) return;
    t->armed = false;  // the IRP is ours again, to complete now or after the device call
    if (!t->finished && (t->inDevice || t->list == &mHeld)) {
        t->cancelRequested = true;  // the run loop completes it after the device call / the hold
        return;
    }
    if (!t->finished) {
        if (t == mControlActive && t->record) {
            ControlRecord* rec = t->record;
            t->record = nullptr;
            if (rec->answered) FreeRecord(rec);
            else rec->transfer = nullptr;  // the device's answer, if it comes, is dropped
            mAbortNotices.push_back(0x00);
        } else if (t->kind == Kind::Bulk && t->started) {
            mAbortNotices.push_back(t->pipe->address);
        }
    }
    Settle(t, USBD_STATUS_CANCELED);
    FinishNow(lk, t);
    bool wake = WakeRunnerLocked();  // the next control transfer, the device's abort notice
    lk.unlock();
    if (wake) KeInsertQueueDpc(&mDpc, NULL, NULL);
}

// ---------------------------------------------------------------------------
// Completion
// ---------------------------------------------------------------------------

// Gives a transfer its final status (kept if it has one) and, when the bus
// holds the IRP, takes it off every list and counts it: true, and the caller
// completes it with Finish. False when the cancel routine has the IRP: it
// completes the transfer itself (OnCancel), with this status.
bool UsbBus::Impl::Settle(Transfer* t, USBD_STATUS st) {
    if (!t->finished) {
        t->status = st;
        t->finished = true;
    }
    if (t->armed) {
        if (IoSetCancelRoutine(t->irp, NULL) == NULL) return false;  // OnCancel is on its way
        t->armed = false;
    }
    Unlink(t);
    if (t->accepted) {
        t->accepted = false;
        mPending--;
    }
    mStats.urbsCompleted++;
    if (t->status == USBD_STATUS_CANCELED) mStats.urbsCancelled++;
    if (t->captured && mCapture) t->capture = mCapture;
    return true;
}

// Into `done` (a pipe step's own list) or the loop's list.
void UsbBus::Impl::CompleteLocked(Transfer* t, USBD_STATUS st, TransferList* done) {
    if (t->finished) return;
    if (Settle(t, st)) (done ? done : &mDone)->PushBack(t);
}

void UsbBus::Impl::FlushDone(Lock& lk) {
    while (!mDone.Empty()) {
        TransferList done;
        done.TakeAll(mDone);
        lk.unlock();
        for (Transfer* t = done.Front(); t; t = TransferList::Next(t)) Finish(t);
        lk.lock();
        while (Transfer* t = done.PopFront()) FreeTransfer(t);
    }
}

void UsbBus::Impl::FlushList(Lock& lk, TransferList& done) {
    if (done.Empty()) return;
    lk.unlock();
    for (Transfer* t = done.Front(); t; t = TransferList::Next(t)) Finish(t);
    lk.lock();
    while (Transfer* t = done.PopFront()) FreeTransfer(t);
}

// Completes one settled transfer from the calling thread (a refusal, a
// cancel): lk is dropped meanwhile.
void UsbBus::Impl::FinishNow(Lock& lk, Transfer* t) {
    lk.unlock();
    Finish(t);
    lk.lock();
    FreeTransfer(t);
}

// Reports a settled transfer in its URB and the capture and completes its
// IRP. Called without mLock; the transfer stays the caller's.
void UsbBus::Impl::Finish(Transfer* t) {
    USBD_STATUS st = t->status;
    PURB urb = t->urb;
    PIRP irp = t->irp;
    if (t->writesLength && !t->refused) urb->UrbBulkOrInterruptTransfer.TransferBufferLength = t->done;
    urb->UrbHeader.Status = st;
    if (t->capture) {
        Record(t->capture.get(), t, t->refused ? 'E' : 'C');
        t->capture.reset();  // the file closes when the last one using it is done
    }
    irp->IoStatus.Status = IrpStatusFor(st);
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
}

// A transfer from the pool, which grows by a block when it is empty.
UsbBus::Impl::Transfer* UsbBus::Impl::NewTransfer() {
    if (mFreeTransfers.Empty()) {
        mTransferBlocks.emplace_back(new Transfer[kPoolGrowth]);
        for (size_t i = 0; i < kPoolGrowth; i++) mFreeTransfers.PushBack(&mTransferBlocks.back()[i]);
    }
    return mFreeTransfers.PopFront();
}

void UsbBus::Impl::FreeTransfer(Transfer* t) {
    *t = Transfer();
    mFreeTransfers.PushBack(t);
}

// ---------------------------------------------------------------------------
// Public face
// ---------------------------------------------------------------------------
UsbBus::UsbBus() : mImpl(new Impl()) {}

UsbBus::~UsbBus() { delete mImpl; }

PDEVICE_OBJECT UsbBus::Pdo() const { return mImpl->mPdo; }

uint16_t UsbBus::BusNumber() const { return mImpl->mBusNumber; }

uint8_t UsbBus::DeviceAddress() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mAddress;
}

bool UsbBus::Attach(UsbDevice* device) {
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        if (mImpl->mDevice || !device) return false;
        mImpl->mDevice = device;
        mImpl->mAttached = true;
        mImpl->mAddress++;
        for (uint64_t& s : mImpl->mReadySeq) s = 0;
    }
    device->Attached(mImpl);
    return true;
}

void UsbBus::Unplug() {
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        if (!mImpl->mDevice || mImpl->mDisconnectPending) return;
        mImpl->mAttached = false;
        mImpl->mDisconnectPending = true;
        // Called from inside the bus (a completion routine): the run loop
        // picks it up when the call returns.
        if (mImpl->InsideRun()) return;
    }
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        mImpl->RunAtDispatch();
        if (IsStarted()) KeFlushQueuedDpcs();
    } else {
        mImpl->Schedule();
    }
}

bool UsbBus::IsAttached() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mAttached;
}

void UsbBus::SetInlineCompletion(bool on) {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mInline = on;
}

void UsbBus::HoldAbortedTransfers(uint8_t endpointAddress, uint32_t ms) {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    mImpl->mHoldAbortEndpoint = endpointAddress;
    mImpl->mHoldAbortMs = ms;
}

void UsbBus::SetLinkRate(uint64_t bitsPerSecond) {
    {
        std::lock_guard<std::mutex> lock(mImpl->mLock);
        mImpl->mLinkRate = bitsPerSecond;
        mImpl->mPaceOrigin = kplat::Now();
        mImpl->mPaceBits = 0;
    }
    mImpl->Schedule();
}

uint64_t UsbBus::LinkRate(UsbSpeed speed) {
    switch (speed) {
    case UsbSpeed::Full: return 12000000ull;
    case UsbSpeed::High: return 480000000ull;
    case UsbSpeed::Super: return 5000000000ull;
    }
    return 0;
}

UsbBusStats UsbBus::Stats() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mStats;
}

size_t UsbBus::PendingRequests() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mPending;
}

uint8_t UsbBus::ConfigurationValue() const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    return mImpl->mConfigurationValue;
}

bool UsbBus::IsEndpointHalted(uint8_t endpointAddress) const {
    std::lock_guard<std::mutex> lock(mImpl->mLock);
    Pipe* p = mImpl->OpenPipeByAddress(endpointAddress);
    return p && p->halted;
}

}  // namespace kplat
