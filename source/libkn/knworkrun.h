// The run both work item classes make on a system worker thread, written
// once: under the item's lock the caller's `take` picks the callback the run
// is to call (clearing it, so that a later cancel finds nothing) and frees
// the IO work item; then the callback is called without the lock; last the
// run is counted done, the last touch of the item, after which a waiter of
// CancelAndWait may destroy it.
#pragma once

#include <ntddk.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "kntrace.h"

typedef void (*PKN_WORKITEM_CALLBACK)(PDEVICE_OBJECT DeviceObject, PVOID Context, PVOID Argument);

// What one run calls.
struct KnWorkRun {
    PKN_WORKITEM_CALLBACK callback;
    PVOID context;
    PVOID argument;
};

// Contract: PASSIVE_LEVEL (system worker thread); takes *lock for `take`
// (which returns the KnWorkRun), calls the callback without it.
template <typename Take>
inline void KnRunWorkItem(PDEVICE_OBJECT deviceObject, KnSpinLock* lock, KnCounterEvent* queued, Take take)
{
    KnSpinLockGuard guard(lock);
    const KnWorkRun run = take();
    guard.Unlock();
    if (run.callback != NULL) {
        IRQL_EQ_PASSIVE();
        run.callback(deviceObject, run.context, run.argument);
    }
    queued->Decrement();
}
