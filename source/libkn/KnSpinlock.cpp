// Kernel spin lock with holder counting.
#include "KnSpinlock.h"

#include "kntrace.h"

// Contract: any IRQL. The lock is released.
KnSpinLock::KnSpinLock() : mSpinLock(0), mLockCounter(0), mLockedAtDpcLevel(0), mOwnerThread(KN_SPINLOCK_NO_OWNER)
{
    KeInitializeSpinLock(&mSpinLock);
}

// Contract: IRQL <= DISPATCH_LEVEL; returns at DISPATCH_LEVEL holding the lock.
KIRQL KnSpinLock::Lock()
{
    IRQL_LTEQ_DISPATCH();
    KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&mSpinLock);
    LONG counter = __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED);
    if (counter != 0) {
        KN_TRACE(KN_TRACE_ERROR, "KnSpinLock::Lock:FATAL: mLockCounter=%d\n", counter);
    }
    __atomic_store_n(&mLockCounter, counter + 1, __ATOMIC_RELAXED);
    __atomic_store_n(&mOwnerThread, PsGetCurrentThreadId(), __ATOMIC_RELAXED);
    return oldIrql;
}

// Contract: DISPATCH_LEVEL, lock held through Lock; returns at oldIrql.
void KnSpinLock::Unlock(KIRQL oldIrql)
{
    IRQL_EQ_DISPATCH();
    KN_ASSERT(!mLockedAtDpcLevel);
    LONG counter = __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED);
    if (counter != 1) {
        KN_TRACE(KN_TRACE_ERROR, "KnSpinLock::Unlock:FATAL: mLockCounter=%d\n", counter);
    }
    __atomic_store_n(&mLockCounter, counter - 1, __ATOMIC_RELAXED);
    __atomic_store_n(&mOwnerThread, KN_SPINLOCK_NO_OWNER, __ATOMIC_RELAXED);
    KeReleaseSpinLock(&mSpinLock, oldIrql);
}

// Contract: DISPATCH_LEVEL; the IRQL is not changed.
void KnSpinLock::LockAtDpcLevel()
{
    IRQL_EQ_DISPATCH();
    KeAcquireSpinLockAtDpcLevel(&mSpinLock);
    LONG counter = __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED);
    if (counter != 0) {
        KN_TRACE(KN_TRACE_ERROR, "KnSpinLock::LockAtDpcLevel:FATAL: mLockCounter=%d", counter);
    }
    __atomic_store_n(&mLockCounter, counter + 1, __ATOMIC_RELAXED);
    __atomic_store_n(&mLockedAtDpcLevel, 1u, __ATOMIC_RELAXED);
}

// Contract: DISPATCH_LEVEL, lock held through LockAtDpcLevel.
void KnSpinLock::UnlockFromDpcLevel()
{
    IRQL_EQ_DISPATCH();
    KN_ASSERT(mLockedAtDpcLevel!=0);
    LONG counter = __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED);
    if (counter != 1) {
        KN_TRACE(KN_TRACE_ERROR, "KnSpinLock::UnlockFromDpcLevel:FATAL: mLockCounter=%d", counter);
    }
    __atomic_store_n(&mLockCounter, counter - 1, __ATOMIC_RELAXED);
    __atomic_store_n(&mLockedAtDpcLevel, 0u, __ATOMIC_RELAXED);
    KeReleaseSpinLockFromDpcLevel(&mSpinLock);
}

// Contract: DISPATCH_LEVEL; the lock not held by this thread.
KnSpinLockDpcGuard::KnSpinLockDpcGuard(KnSpinLock* lock) : mLock(lock)
{
    IRQL_EQ_DISPATCH();
    mLock->LockAtDpcLevel();
}
