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

// Contract: IRQL <= DISPATCH_LEVEL.
ULONG KnCounterEvent::Increment()
{
    IRQL_LTEQ_DISPATCH();
    ULONG count = __atomic_add_fetch(&mCount, 1u, __ATOMIC_SEQ_CST);
    if (count == 1) {
        KeClearEvent(&mEvent);
    }
    return count;
}

// Contract: IRQL <= DISPATCH_LEVEL.
ULONG KnCounterEvent::Decrement()
{
    IRQL_LTEQ_DISPATCH();
    ULONG count = __atomic_sub_fetch(&mCount, 1u, __ATOMIC_SEQ_CST);
    if (count == 0) {
        KeSetEvent(&mEvent, 0, FALSE);
    }
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
