// Work item that runs a callback at PASSIVE_LEVEL.
#include "knworkitemex.h"

#include "kntrace.h"

// Interval of the waits of CancelCallbackAndWait, in milliseconds.
static const ULONG KN_WORKITEM_WAIT_INTERVAL_MS = 2000;

// Contract: any IRQL.
KnWorkItemEx::KnWorkItemEx()
    : mLock(), mWorkItem(NULL), mDeviceObject(NULL), mCallback(NULL), mContext(NULL), mArgument(NULL), mQueuedCounter()
{
}

// Contract: PASSIVE_LEVEL.
KnWorkItemEx::~KnWorkItemEx()
{
    CancelCallbackAndWait();
    KN_ASSERT(mWorkItem==NULL);
    KN_ASSERT(mDeviceObject==NULL);
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock (nests inside callers' locks).
bool KnWorkItemEx::ScheduleCallback(PDEVICE_OBJECT DeviceObject, PKN_WORKITEM_CALLBACK CallbackRoutine, PVOID Context,
                                    PVOID Argument, WORK_QUEUE_TYPE QueueType)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(DeviceObject!=NULL);
    KN_ASSERT(CallbackRoutine!=NULL);

    KnSpinLockGuard guard(&mLock);
    mCallback = CallbackRoutine;
    mContext = Context;
    mArgument = Argument;

    if (mWorkItem != NULL) {
        // A run is queued and has not taken its callback yet: it calls the new one.
        KN_ASSERT(mDeviceObject!=NULL);
        return true;
    }

    KN_ASSERT(mDeviceObject==NULL);
    PIO_WORKITEM workItem = IoAllocateWorkItem(DeviceObject);
    if (workItem == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnWorkItemEx::ScheduleCallback: IoAllocateWorkItem failed\n");
        mCallback = NULL;
        mContext = NULL;
        mArgument = NULL;
        return false;
    }
    mQueuedCounter.Increment();
    mWorkItem = workItem;
    mDeviceObject = DeviceObject;
    IoQueueWorkItem(workItem, KnWorkItemEx_InternalWorkItemRoutine, QueueType, this);
    return true;
}

// Contract: PASSIVE_LEVEL (system worker thread); takes This->mLock, calls
// the callback without it.
void KnWorkItemEx_InternalWorkItemRoutine(PDEVICE_OBJECT DeviceObject, PVOID Context)
{
    IRQL_EQ_PASSIVE();
    KnWorkItemEx* This = static_cast<KnWorkItemEx*>(Context);
    KN_ASSERT(This!=NULL);
    if (This == NULL) {
        return;
    }

    KnRunWorkItem(DeviceObject, &This->mLock, &This->mQueuedCounter, [This, DeviceObject]() {
        KnWorkRun run = {This->mCallback, This->mContext, This->mArgument};
        This->mCallback = NULL;
        if (This->mWorkItem != NULL) {
            KN_ASSERT(This->mDeviceObject==DeviceObject);
            IoFreeWorkItem(This->mWorkItem);
            This->mWorkItem = NULL;
            This->mDeviceObject = NULL;
        } else {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnWorkItemEx_InternalWorkItemRoutine: FATAL: no work item\n");
        }
        return run;
    });
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
void KnWorkItemEx::CancelCallback()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(&mLock);
    mCallback = NULL;
}

// Contract: PASSIVE_LEVEL; no lock held; not from the callback itself.
void KnWorkItemEx::CancelCallbackAndWait()
{
    IRQL_EQ_PASSIVE();
    CancelCallback();
    while (mQueuedCounter.Wait(KN_WORKITEM_WAIT_INTERVAL_MS) != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnWorkItemEx::CancelCallbackAndWait: FATAL: wait timed out. this=0x%p\n", this);
    }
}
