// Data pipe engine: concurrent transfers, in-order delivery, draining.
#include "knusbdatapipebase.h"

#include "knpoolbase.h"
#include "kntrace.h"
#include "knusbpnplowerdevice.h"

namespace {

// Time allowed to each abort request of the drain.
constexpr ULONG kAbortPipeTimeoutMs = 500;

}  // namespace

// Contract: any IRQL.
KnUsbDataPipeBase::KnUsbDataPipeBase(bool isIn)
    : mIsIn(isIn ? 1 : 0),
      mPipeEnabled(0),
      mCompleteAtPassiveLevel(0),
      mInCompletionLoop(0),
      mPendingBufferList(QB_DLLIST_ENTRY_OFFSET(KnUsbBufferBase, mListEntry)),
      mNumberOfBuffersOutstanding(0),
      mDeviceObjectForWorkItem(NULL)
{
    RtlZeroMemory(mName, sizeof(mName));
    const char* name = isIn ? "in " : "out";
    for (ULONG i = 0; name[i] != 0 && i < sizeof(mName) - 1; i++) {
        mName[i] = name[i];
    }
    mCompletionDpc.Initialize(CompletionDpcRoutine, this);
}

// Contract: PASSIVE_LEVEL; disabled and drained.
KnUsbDataPipeBase::~KnUsbDataPipeBase()
{
    KN_ASSERT(!IsEnabled());
    KN_ASSERT(mPendingBufferList.IsEmpty());
    mCompletionWorkItem.CancelCallbackAndWait();
}

// Contract: DISPATCH_LEVEL, or PASSIVE_LEVEL in passive mode; mPipeLock not held.
void KnUsbDataPipeBase::OnBufferCompletion(KnUsbBufferBase* buf)
{
    buf->ReturnToPool();
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
NTSTATUS KnUsbDataPipeBase::SetBufferCompletionMode(bool completeAtPassiveLevel, PDEVICE_OBJECT deviceObject)
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(mPipeLock);
    if (completeAtPassiveLevel && deviceObject == NULL) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbDataPipeBase::SetBufferCompletionMode(%s): FATAL: no valid device object for work item\n",
                 mName);
        return STATUS_INVALID_PARAMETER;
    }
    if (mPipeEnabled) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::SetBufferCompletionMode(%s): FATAL: pipe is enabled\n", mName);
        return STATUS_UNSUCCESSFUL;
    }
    mCompleteAtPassiveLevel = completeAtPassiveLevel ? 1 : 0;
    mDeviceObjectForWorkItem = deviceObject;
    return STATUS_SUCCESS;
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
NTSTATUS KnUsbDataPipeBase::EnablePipe()
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(!IsEnabled());
    KnSpinLockGuard guard(mPipeLock);
    if (!IsConnected()) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::EnablePipe(%s): FATAL: pipe is not connected\n", mName);
        return STATUS_UNSUCCESSFUL;
    }
    __atomic_store_n(&mPipeEnabled, (UCHAR)1, __ATOMIC_RELEASE);
    return STATUS_SUCCESS;
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
void KnUsbDataPipeBase::DisablePipe()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(mPipeLock);
    __atomic_store_n(&mPipeEnabled, (UCHAR)0, __ATOMIC_RELEASE);
    // A run scheduled but not started calls nothing now; the work item's
    // lock nests inside mPipeLock.
    mCompletionWorkItem.CancelCallback();
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held (taken here and
// released across the submission).
bool KnUsbDataPipeBase::SubmitBuffer(KnUsbBufferBase* buf)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(buf!=NULL);
    if (buf == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::SubmitBuffer(%s): no buffer\n", mName);
        return false;
    }
    if (buf->Urb() == NULL || buf->Irp() == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::SubmitBuffer(%s): FATAL: buffer 0x%p has no URB or IRP\n",
                 mName, buf);
        buf->ReturnToPool();
        return false;
    }
    KN_ASSERT(buf->Urb()->UrbHeader.Length!=0);

    buf->mOwnerPipe = this;
    PIRP irp = buf->Irp();
    KN_ASSERT(irp!=NULL);
    IoReuseIrp(irp, STATUS_UNSUCCESSFUL);

    KIRQL oldIrql = mPipeLock.Lock();
    if (!mPipeEnabled) {
        buf->ReturnToPool();
        mPipeLock.Unlock(oldIrql);
        return false;
    }
    buf->mSubmitReturned = 0;
    buf->mCompleted = 0;
    mNumberOfBuffersOutstanding++;
    KN_ASSERT(!buf->mListEntry.IsLinked());
    mPendingBufferList.InsertTail(buf);
    mOutStandingCallbackCounter.Increment();
    // This call counts as a callback of its own until it is done with the
    // buffer and the pipe, so that a drain cannot finish under it.
    mOutStandingCallbackCounter.Increment();
    mPipeLock.Unlock(oldIrql);

    // The completion routine runs for this request whatever SubmitUrb says.
    NTSTATUS st = SubmitUrb(buf->Urb(), irp, BufferCompletionRoutine, buf);
    if (!NT_SUCCESS(st)) {
        KN_TRACE(KN_TRACE_WARNING, "%P:KnUsbDataPipeBase::SubmitBuffer(%s): SubmitUrb returned %N\n", mName, st);
    }

    oldIrql = mPipeLock.Lock();
    // The buffer is still linked: until mSubmitReturned is set neither the
    // completion routine nor the delivery loop takes it out of the list.
    buf->mSubmitReturned = 1;
    if (buf->mCompleted) {
        // Completed during SubmitUrb: nobody has started its delivery, and
        // it must not run inside this call.
        if (!mPipeEnabled) {
            mPendingBufferList.Remove(buf);
            buf->ReturnToPool();
        } else if (mCompleteAtPassiveLevel) {
            ScheduleWorkItem();
        } else {
            KN_ASSERT(mPipeLock.IsLocked());
            if (mCompletionDpc.InsertQueue(NULL, NULL)) {
                mOutStandingCallbackCounter.Increment();
            }
        }
    }
    mPipeLock.Unlock(oldIrql);
    mOutStandingCallbackCounter.Decrement();
    return true;
}

// Contract: IRQL <= DISPATCH_LEVEL (the bus driver's completion context).
NTSTATUS KnUsbDataPipeBase::BufferCompletionRoutine(PDEVICE_OBJECT deviceObject, PIRP irp, PVOID context)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(irp);
    IRQL_LTEQ_DISPATCH();
    KnUsbBufferBase* buf = static_cast<KnUsbBufferBase*>(context);
    KN_ASSERT(buf!=NULL);
    if (buf == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::BufferCompletionRoutine: FATAL: no buffer\n");
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    KnUsbDataPipeBase* This = buf->mOwnerPipe;
    KN_ASSERT(This!=NULL);
    if (This == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::BufferCompletionRoutine: FATAL: buffer 0x%p has no pipe\n", buf);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    KIRQL oldIrql = This->mPipeLock.Lock();
    This->BufferCompleted(buf, &oldIrql);
    This->mPipeLock.Unlock(oldIrql);
    // Last touch of the pipe by this routine: a waiter that sees the count
    // reach 0 knows no completion routine is still inside.
    This->mOutStandingCallbackCounter.Decrement();
    // The IRP stays with the buffer for its next submission.
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock held (*oldIrql: its saved IRQL).
void KnUsbDataPipeBase::BufferCompleted(KnUsbBufferBase* buf, KIRQL* oldIrql)
{
    KN_ASSERT(buf->mListEntry.IsLinked());
    buf->mCompleted = 1;
    mNumberOfBuffersOutstanding--;

    if (!buf->mSubmitReturned) {
        // The submitting call has not returned yet: it releases or delivers
        // the buffer itself.
        return;
    }
    if (!mPipeEnabled) {
        mPendingBufferList.Remove(buf);
        buf->ReturnToPool();
    } else if (mCompleteAtPassiveLevel) {
        ScheduleWorkItem();
    } else {
        ProcessCompletedBuffers(oldIrql);
    }
}

// Contract: mPipeLock held, taken with Lock; *oldIrql is the IRQL it is to
// be released to. Releases and retakes the lock around each delivery.
void KnUsbDataPipeBase::ProcessCompletedBuffers(KIRQL* oldIrql)
{
    KN_ASSERT(mPipeLock.IsLocked());
    if (mInCompletionLoop) {
        // The running loop finds the new buffer.
        return;
    }
    mInCompletionLoop = 1;
    for (;;) {
        KnUsbBufferBase* head = mPendingBufferList.GetHead();
        if (head == NULL || !head->mCompleted || !head->mSubmitReturned) {
            break;
        }
        mPendingBufferList.Remove(head);
        if (mPipeEnabled) {
            if (mCompleteAtPassiveLevel) {
                // From the work item: deliver at its PASSIVE_LEVEL.
                mPipeLock.Unlock(*oldIrql);
                OnBufferCompletion(head);
                *oldIrql = mPipeLock.Lock();
            } else {
                // DISPATCH mode delivers at DISPATCH_LEVEL even when the bus
                // driver completed at a lower level; the caller's IRQL is
                // restored by its own final release.
                mPipeLock.Unlock(DISPATCH_LEVEL);
                OnBufferCompletion(head);
                (void)mPipeLock.Lock();
            }
        } else {
            head->ReturnToPool();
        }
    }
    mInCompletionLoop = 0;
}

// Contract: DISPATCH_LEVEL (the DPC).
void KnUsbDataPipeBase::CompletionDpcRoutine(PKDPC dpc, PVOID context, PVOID systemArgument1, PVOID systemArgument2)
{
    UNREFERENCED_PARAMETER(dpc);
    UNREFERENCED_PARAMETER(systemArgument1);
    UNREFERENCED_PARAMETER(systemArgument2);
    static_cast<KnUsbDataPipeBase*>(context)->CompletionDpc();
}

// Contract: DISPATCH_LEVEL; mPipeLock not held.
void KnUsbDataPipeBase::CompletionDpc()
{
    IRQL_EQ_DISPATCH();
    KIRQL oldIrql = mPipeLock.Lock();
    KN_ASSERT(!mCompleteAtPassiveLevel);
    ProcessCompletedBuffers(&oldIrql);
    mPipeLock.Unlock(oldIrql);
    mOutStandingCallbackCounter.Decrement();
}

// Contract: mPipeLock held; passive completion mode.
void KnUsbDataPipeBase::ScheduleWorkItem()
{
    KN_ASSERT(mCompleteAtPassiveLevel);
    KN_ASSERT(mDeviceObjectForWorkItem!=NULL);
    if (!mCompletionWorkItem.ScheduleCallback(mDeviceObjectForWorkItem, CompletionWorkItemRoutine, this, NULL,
                                              CriticalWorkQueue)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::ScheduleWorkItem(%s): FATAL: failed to schedule work item\n",
                 mName);
    }
}

// Contract: PASSIVE_LEVEL (a system worker thread).
void KnUsbDataPipeBase::CompletionWorkItemRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    static_cast<KnUsbDataPipeBase*>(context)->CompletionWorkItem();
}

// Contract: PASSIVE_LEVEL; mPipeLock not held.
void KnUsbDataPipeBase::CompletionWorkItem()
{
    IRQL_EQ_PASSIVE();
    KIRQL oldIrql = mPipeLock.Lock();
    KN_ASSERT(mCompleteAtPassiveLevel);
    ProcessCompletedBuffers(&oldIrql);
    mPipeLock.Unlock(oldIrql);
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held (released around
// every IoCancelIrp).
void KnUsbDataPipeBase::CancelPendingRequests()
{
    IRQL_LTEQ_DISPATCH();
    KIRQL oldIrql = mPipeLock.Lock();
    for (;;) {
        KnUsbBufferBase* victim = NULL;
        for (KnUsbBufferBase* buf = mPendingBufferList.GetHead(); buf != NULL; buf = mPendingBufferList.GetNext(buf)) {
            if (!buf->mCompleted && !buf->Irp()->Cancel) {
                victim = buf;
                break;
            }
        }
        if (victim == NULL) {
            break;
        }
        mPipeLock.Unlock(oldIrql);
        IoCancelIrp(victim->Irp());
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbDataPipeBase::CancelPendingRequests(%s): try to cancel an IRP that was not aborted\n",
                 mName);
        oldIrql = mPipeLock.Lock();
    }
    mPipeLock.Unlock(oldIrql);
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
ULONG KnUsbDataPipeBase::GetNumberOfBuffersOutstanding()
{
    KnSpinLockGuard guard(mPipeLock);
    return mNumberOfBuffersOutstanding;
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
bool KnUsbDataPipeBase::IsPendingListEmpty()
{
    KnSpinLockGuard guard(mPipeLock);
    return mPendingBufferList.IsEmpty();
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
bool KnUsbDataPipeBase::IsCompleteAtPassiveLevel()
{
    KnSpinLockGuard guard(mPipeLock);
    return mCompleteAtPassiveLevel != 0;
}

// Contract: PASSIVE_LEVEL; no lock held (waits).
NTSTATUS KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(ULONG timeoutMs, ULONG stepMs)
{
    IRQL_EQ_PASSIVE();
    if (!IsConnected()) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(%s): FATAL: pipe is not connected\n", mName);
        return STATUS_UNSUCCESSFUL;
    }

    // From here every completing buffer goes straight back to its pool.
    DisablePipe();

    // A step of 0 would never advance the elapsed time.
    const ULONG step = (stepMs != 0) ? stepMs : 1;
    ULONG elapsed = 0;
    for (;;) {
        const ULONG outstanding = GetNumberOfBuffersOutstanding();
        if (outstanding == 0) {
            break;
        }
        if (elapsed >= timeoutMs) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(%s): Abort FAILED after %u ms, "
                     "NumberOfBuffersOutstanding = %u try Cancel\n",
                     mName, elapsed, outstanding);
            CancelPendingRequests();
            if (mOutStandingCallbackCounter.Wait(timeoutMs) != STATUS_SUCCESS) {
                KN_TRACE(KN_TRACE_ERROR,
                         "%P:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(%s): Cancel FAILED after %u ms, "
                         "NumberOfBuffersOutstanding = %u try Cancel\n",
                         mName, elapsed, GetNumberOfBuffersOutstanding());
                return STATUS_IO_TIMEOUT;
            }
            break;
        }
        NTSTATUS st = AbortPipe(kAbortPipeTimeoutMs, NULL);
        if (st != STATUS_SUCCESS) {
            KN_TRACE(KN_TRACE_WARNING, "%P:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(%s): AbortPipe failed, st=%N\n",
                     mName, st);
        }
        (void)mOutStandingCallbackCounter.Wait(step);
        elapsed += step;
    }

    if (mOutStandingCallbackCounter.Wait(timeoutMs) != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(%s): FATAL: wait for outstanding callbacks "
                 "timed out after %u ms, OutStandingCallbackCounter = %d\n",
                 mName, timeoutMs, (LONG)mOutStandingCallbackCounter.GetCount());
        return STATUS_IO_TIMEOUT;
    }
    const ULONG callbacks = mOutStandingCallbackCounter.GetCount();
    if (callbacks != 0) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(%s): FATAL: OutStandingCallbackCounter = %d\n",
                 mName, (LONG)callbacks);
    }
    CleanupPendingBufferList();
    return STATUS_SUCCESS;
}

// Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held.
void KnUsbDataPipeBase::CleanupPendingBufferList()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(mPipeLock);
    KnUsbBufferBase* buf;
    while ((buf = mPendingBufferList.RemoveHead()) != NULL) {
        if (!buf->mCompleted) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbDataPipeBase::CleanupPendingBufferList(%s): FATAL: Buffer 0x%p (index=%u) not completed by "
                     "bus driver\n",
                     mName, buf, buf->mIndex);
        }
        buf->ReturnToPool();
    }
}
