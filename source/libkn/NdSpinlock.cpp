// Spin lock of the NDIS side with holder counting.
#include "NdSpinlock.h"

#include "kntrace.h"

// Contract: any IRQL. The lock is released.
NdSpinlock::NdSpinlock()
    : mSpinLock(0), mOldIrql(PASSIVE_LEVEL), mLockCounter(0), mLockedAtDpcLevel(0), mOwnerThread(KN_SPINLOCK_NO_OWNER)
{
    // The lock and the saved IRQL sit where the platform's NDIS spin lock
    // record keeps them, so the object can be handed on as that record.
    static_assert(offsetof(NdSpinlock, mSpinLock) == offsetof(NDIS_SPIN_LOCK, SpinLock),
                  "NdSpinlock: spin lock not where NDIS_SPIN_LOCK has it");
    static_assert(offsetof(NdSpinlock, mOldIrql) == offsetof(NDIS_SPIN_LOCK, OldIrql),
                  "NdSpinlock: saved IRQL not where NDIS_SPIN_LOCK has it");
    static_assert(sizeof(((NdSpinlock*)0)->mSpinLock) == sizeof(((NDIS_SPIN_LOCK*)0)->SpinLock),
                  "NdSpinlock: spin lock size differs");
    static_assert(sizeof(((NdSpinlock*)0)->mOldIrql) == sizeof(((NDIS_SPIN_LOCK*)0)->OldIrql),
                  "NdSpinlock: saved IRQL size differs");
    static_assert(offsetof(NdSpinlock, mLockCounter) >= sizeof(NDIS_SPIN_LOCK),
                  "NdSpinlock: counters must follow the NDIS record");
    static_assert(offsetof(NdSpinlock, mLockCounter) < offsetof(NdSpinlock, mLockedAtDpcLevel) &&
                      offsetof(NdSpinlock, mLockedAtDpcLevel) < offsetof(NdSpinlock, mOwnerThread),
                  "NdSpinlock: counter order");
    KeInitializeSpinLock(&mSpinLock);
}

// Contract: IRQL <= DISPATCH_LEVEL; returns at DISPATCH_LEVEL holding the lock.
void NdSpinlock::Lock()
{
    IRQL_LTEQ_DISPATCH();
    mOldIrql = KeAcquireSpinLockRaiseToDpc(&mSpinLock);
    LONG counter = __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED);
    if (counter != 0) {
        KN_TRACE(KN_TRACE_ERROR, "NdSpinlock::Lock:FATAL: mLockCounter=%d", counter);
    }
    __atomic_store_n(&mOwnerThread, PsGetCurrentThreadId(), __ATOMIC_RELAXED);
    __atomic_store_n(&mLockCounter, counter + 1, __ATOMIC_RELAXED);
}

// Contract: DISPATCH_LEVEL, lock held; returns at the IRQL saved by Lock.
void NdSpinlock::Unlock()
{
    IRQL_EQ_DISPATCH();
    KN_ASSERT(!mLockedAtDpcLevel);
    LONG counter = __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED);
    if (counter != 1) {
        KN_TRACE(KN_TRACE_ERROR, "NdSpinlock::Unlock:FATAL: mLockCounter=%d", counter);
    }
    __atomic_store_n(&mOwnerThread, KN_SPINLOCK_NO_OWNER, __ATOMIC_RELAXED);
    __atomic_store_n(&mLockCounter, counter - 1, __ATOMIC_RELAXED);
    KIRQL oldIrql = mOldIrql;
    KeReleaseSpinLock(&mSpinLock, oldIrql);
}
