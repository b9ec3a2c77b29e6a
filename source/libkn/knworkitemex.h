// Runs a callback once at PASSIVE_LEVEL on a system worker thread.
// Scheduling again while a run is queued only replaces the callback; cancel
// and wait serve tear-down.
#pragma once

#include <ntddk.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "knworkrun.h"

// Callback of the work item classes: the device object the work item was
// allocated for, and the context and argument given when scheduling.

class KnWorkItemEx {
public:
    // Contract: any IRQL. Idle.
    KnWorkItemEx();
    // Contract: PASSIVE_LEVEL. Cancels and waits for a queued or running run.
    ~KnWorkItemEx();
    KnWorkItemEx(const KnWorkItemEx&) = delete;
    KnWorkItemEx& operator=(const KnWorkItemEx&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL; callers may hold their own locks.
    // Stores the callback, context and argument; queues a run on queueType
    // unless one is queued already (that run then calls the new callback).
    // False only when no work item could be allocated (the callback is dropped).
    bool ScheduleCallback(PDEVICE_OBJECT DeviceObject, PKN_WORKITEM_CALLBACK CallbackRoutine, PVOID Context,
                          PVOID Argument, WORK_QUEUE_TYPE QueueType);
    // Contract: IRQL <= DISPATCH_LEVEL. A queued run then calls nothing; a
    // callback already running is not affected.
    void CancelCallback();
    // Contract: PASSIVE_LEVEL; not called from the callback itself. Cancels,
    // then waits until no run is queued or running.
    void CancelCallbackAndWait();

    // Contract: any IRQL. 1 from queueing until the run has finished, else 0.
    ULONG GetQueuedCount() const { return mQueuedCounter.GetCount(); }

private:
    friend void KnWorkItemEx_InternalWorkItemRoutine(PDEVICE_OBJECT DeviceObject, PVOID Context);

    // mLock guards every field below but mQueuedCounter.
    KnSpinLock mLock;
    PIO_WORKITEM mWorkItem;         // allocated while a run is queued or running
    PDEVICE_OBJECT mDeviceObject;   // the one mWorkItem was allocated for
    PKN_WORKITEM_CALLBACK mCallback;  // what the next run calls; NULL = nothing
    PVOID mContext;
    PVOID mArgument;
    KnCounterEvent mQueuedCounter;  // lock-free: 1 while a run is queued or running
};

// The routine of the platform's work item; Context is the KnWorkItemEx.
void KnWorkItemEx_InternalWorkItemRoutine(PDEVICE_OBJECT DeviceObject, PVOID Context);
