// Kernel mutex and counter event.
#include "KnMutex.h"

#include "kntrace.h"

// Contract: any IRQL. The mutex is free.
KnMutex::KnMutex()
{
    KeInitializeMutex(&mMutex, 0);
}

// Contract: PASSIVE_LEVEL. Returns holding the mutex.
void KnMutex::Lock()
{
    IRQL_EQ_PASSIVE();
    KeWaitForSingleObject(&mMutex, Executive, KernelMode, FALSE, NULL);
}

// Contract: IRQL <= DISPATCH_LEVEL; mutex held by this thread.
void KnMutex::Unlock()
{
    IRQL_LTEQ_DISPATCH();
    KeReleaseMutex(&mMutex, FALSE);
}

// Contract: any IRQL.
KnCounterEvent::KnCounterEvent() : mCount(0)
{
    KeInitializeEvent(&mEvent, NotificationEvent, TRUE);
}

// Guards the step from a count to its event's state in every counter, so
// that a decrement to 0 and an increment from 0 on two processors cannot
// cross (which would leave the event signalled over a count of 1, or clear
// over a count of 0). It is not in the objects: a waiter that sees the count
// reach 0 may destroy its counter while the last decrement still releases
// the lock. Zero is the free state.
static KSPIN_LOCK gKnCounterEventLock;

// Contract: IRQL <= DISPATCH_LEVEL; takes gKnCounterEventLock.
ULONG KnCounterEvent::Increment()
{
    IRQL_LTEQ_DISPATCH();
    KIRQL irql;
    KeAcquireSpinLock(&gKnCounterEventLock, &irql);
    ULONG count = __atomic_add_fetch(&mCount, 1u, __ATOMIC_SEQ_CST);
    if (count == 1) {
        KeClearEvent(&mEvent);
    }
    KeReleaseSpinLock(&gKnCounterEventLock, irql);
    return count;
}

// Contract: IRQL <= DISPATCH_LEVEL; takes gKnCounterEventLock.
ULONG KnCounterEvent::Decrement()
{
    IRQL_LTEQ_DISPATCH();
    KIRQL irql;
    KeAcquireSpinLock(&gKnCounterEventLock, &irql);
    ULONG count = __atomic_sub_fetch(&mCount, 1u, __ATOMIC_SEQ_CST);
    if (count == 0) {
        KeSetEvent(&mEvent, 0, FALSE);
    }
    KeReleaseSpinLock(&gKnCounterEventLock, irql);
    return count;
}

// Contract: PASSIVE_LEVEL.
NTSTATUS KnCounterEvent::Wait(ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    LARGE_INTEGER timeout;
    timeout.QuadPart = -(LONGLONG)timeoutMs * 10000;
    return KeWaitForSingleObject(&mEvent, Executive, KernelMode, FALSE, &timeout);
}
