// Work item that runs a callback at PASSIVE_LEVEL after a delay.
#include "kntimedworkitemex.h"

#include "kntrace.h"

// Interval of the waits of CancelTimedWorkItemAndWait, in milliseconds.
static const ULONG KN_TIMEDWORKITEM_WAIT_INTERVAL_MS = 2000;

// Contract: any IRQL.
KnTimedWorkItemEx::KnTimedWorkItemEx()
    : mTimer(),
      mLock(),
      mWorkItem(NULL),
      mDeviceObject(NULL),
      mQueueType(DelayedWorkQueue),
      mScheduledCallback(NULL),
      mScheduledContext(NULL),
      mScheduledArgument(NULL),
      mRunCallback(NULL),
      mRunContext(NULL),
      mRunArgument(NULL),
      mQueuedCounter()
{
    mTimer.InitializeDpc(InternalTimerDpc, this);
}

// Contract: IRQL <= DISPATCH_LEVEL.
KnTimedWorkItemEx::~KnTimedWorkItemEx()
{
    mTimer.CancelTimer();
    KN_ASSERT(mWorkItem==NULL);
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
void KnTimedWorkItemEx::Schedule(ULONG delayMs, PDEVICE_OBJECT DeviceObject, PKN_WORKITEM_CALLBACK CallbackRoutine,
                                 PVOID Context, PVOID Argument, WORK_QUEUE_TYPE QueueType)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(DeviceObject!=NULL);
    KN_ASSERT(CallbackRoutine!=NULL);

    KnSpinLockGuard guard(&mLock);
    mDeviceObject = DeviceObject;
    mQueueType = QueueType;
    mScheduledCallback = CallbackRoutine;
    mScheduledContext = Context;
    mScheduledArgument = Argument;
    mRunCallback = NULL;
    mRunContext = NULL;
    mRunArgument = NULL;
    mTimer.SetTimer(delayMs);
}

// Contract: DISPATCH_LEVEL (the DPC of mTimer); takes This->mLock at DPC level.
void KnTimedWorkItemEx::InternalTimerDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                         PVOID SystemArgument2)
{
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    IRQL_EQ_DISPATCH();
    KnTimedWorkItemEx* This = static_cast<KnTimedWorkItemEx*>(DeferredContext);
    KN_ASSERT(This!=NULL);
    if (This == NULL) {
        return;
    }

    KnSpinLockDpcGuard guard(&This->mLock);
    if (This->mScheduledCallback == NULL) {
        return;
    }
    KN_ASSERT(This->mDeviceObject!=NULL);
    This->mRunCallback = This->mScheduledCallback;
    This->mRunContext = This->mScheduledContext;
    This->mRunArgument = This->mScheduledArgument;
    if (This->mWorkItem != NULL) {
        // A run is queued and has not started: it calls the refreshed fields.
        return;
    }
    PIO_WORKITEM workItem = IoAllocateWorkItem(This->mDeviceObject);
    if (workItem == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnTimedWorkItemEx::InternalTimerDpc:FATAL: IoAllocateWorkItem failed\n");
        This->mRunCallback = NULL;
        This->mRunContext = NULL;
        This->mRunArgument = NULL;
        return;
    }
    This->mQueuedCounter.Increment();
    This->mWorkItem = workItem;
    IoQueueWorkItem(workItem, InternalWorkItemRoutine, (WORK_QUEUE_TYPE)This->mQueueType, This);
}

// Contract: PASSIVE_LEVEL (system worker thread); takes This->mLock, calls
// the callback without it.
void KnTimedWorkItemEx::InternalWorkItemRoutine(PDEVICE_OBJECT DeviceObject, PVOID Context)
{
    IRQL_EQ_PASSIVE();
    KnTimedWorkItemEx* This = static_cast<KnTimedWorkItemEx*>(Context);
    KN_ASSERT(This!=NULL);
    if (This == NULL) {
        return;
    }

    KnRunWorkItem(DeviceObject, &This->mLock, &This->mQueuedCounter, [This]() {
        KnWorkRun run = {This->mRunCallback, This->mRunContext, This->mRunArgument};
        This->mRunCallback = NULL;
        if (This->mWorkItem != NULL) {
            IoFreeWorkItem(This->mWorkItem);
            This->mWorkItem = NULL;
        } else {
            KN_ASSERT(0);
        }
        return run;
    });
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
void KnTimedWorkItemEx::CancelTimedWorkItem()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(&mLock);
    mTimer.CancelTimer();
    mDeviceObject = NULL;
    mScheduledCallback = NULL;
    mScheduledContext = NULL;
    mScheduledArgument = NULL;
    mRunCallback = NULL;
    mRunContext = NULL;
    mRunArgument = NULL;
}

// Contract: PASSIVE_LEVEL; no lock held; not from the callback itself.
void KnTimedWorkItemEx::CancelTimedWorkItemAndWait()
{
    IRQL_EQ_PASSIVE();
    CancelTimedWorkItem();
    // A timer DPC that was already queued finds nothing scheduled; let it
    // finish before the caller may destroy this object.
    KeFlushQueuedDpcs();
    while (mQueuedCounter.Wait(KN_TIMEDWORKITEM_WAIT_INTERVAL_MS) != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnTimedWorkItemEx::CancelTimedWorkItemAndWait: FATAL: wait timed out. this=0x%p\n", this);
    }
}
