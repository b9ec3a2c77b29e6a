// Runs a callback at PASSIVE_LEVEL after a delay: a one-shot timer whose DPC
// queues a work item. Cancel and wait serve tear-down.
#pragma once

#include <ntddk.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "KnTimerDpc.h"
#include "knworkitemex.h"

class KnTimedWorkItemEx {
public:
    // Contract: any IRQL. Idle; the run goes to the delayed work queue.
    KnTimedWorkItemEx();
    // Contract: IRQL <= DISPATCH_LEVEL. Cancels the timer; the owner has
    // called CancelTimedWorkItemAndWait before.
    ~KnTimedWorkItemEx();
    KnTimedWorkItemEx(const KnTimedWorkItemEx&) = delete;
    KnTimedWorkItemEx& operator=(const KnTimedWorkItemEx&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL. Arms the timer to fire once after
    // delayMs (replacing an earlier setting); when it fires, a run of
    // CallbackRoutine is queued on QueueType. A run that is queued but has
    // not started calls nothing.
    void Schedule(ULONG delayMs, PDEVICE_OBJECT DeviceObject, PKN_WORKITEM_CALLBACK CallbackRoutine, PVOID Context,
                  PVOID Argument, WORK_QUEUE_TYPE QueueType);
    // Contract: IRQL <= DISPATCH_LEVEL. Cancels the timer and forgets the
    // callbacks; a queued run then calls nothing.
    void CancelTimedWorkItem();
    // Contract: PASSIVE_LEVEL; not from the callback itself. Cancels, then
    // waits until no run is queued or running.
    void CancelTimedWorkItemAndWait();

    // Contract: any IRQL. 1 from queueing until the run has finished, else 0.
    ULONG GetQueuedCount() const { return mQueuedCounter.GetCount(); }

private:
    // DPC of mTimer; DeferredContext is this object. DISPATCH_LEVEL.
    static void InternalTimerDpc(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2);
    // Routine of the queued work item; Context is this object. PASSIVE_LEVEL.
    static void InternalWorkItemRoutine(PDEVICE_OBJECT DeviceObject, PVOID Context);

    KnTimerDpc mTimer;
    // mLock guards every field below but mQueuedCounter.
    KnSpinLock mLock;
    PIO_WORKITEM mWorkItem;        // allocated while a run is queued or running
    PDEVICE_OBJECT mDeviceObject;  // given to Schedule; NULL after cancel
    ULONG mQueueType;              // work queue of the run
    PKN_WORKITEM_CALLBACK mScheduledCallback;  // set by Schedule
    PVOID mScheduledContext;
    PVOID mScheduledArgument;
    PKN_WORKITEM_CALLBACK mRunCallback;  // copied by the timer DPC; what the run calls
    PVOID mRunContext;
    PVOID mRunArgument;
    KnCounterEvent mQueuedCounter;  // lock-free: 1 while a run is queued or running
};
