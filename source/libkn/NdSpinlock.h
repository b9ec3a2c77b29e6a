// Spin lock of the NDIS side: laid out like the platform's NDIS spin lock
// record (the kernel spin lock and the IRQL saved by the acquire), followed
// by the same holder counting as KnSpinLock.
#pragma once

#include <ndis.h>

#include "KnSpinlock.h"

class NdSpinlock {
public:
    NdSpinlock();
    NdSpinlock(const NdSpinlock&) = delete;
    NdSpinlock& operator=(const NdSpinlock&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL. Returns at DISPATCH_LEVEL with the
    // lock held; the previous IRQL is kept in mOldIrql.
    void Lock();
    // Contract: DISPATCH_LEVEL, lock held. Returns at the IRQL saved by Lock.
    void Unlock();

    // Contract: any IRQL. True while the lock is held.
    bool IsLocked() const { return GetLockCounter() != 0; }

    // Contract: any IRQL. Diagnostic views of the counters.
    LONG GetLockCounter() const { return __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED); }
    ULONG GetLockedAtDpcLevel() const { return __atomic_load_n(&mLockedAtDpcLevel, __ATOMIC_RELAXED); }
    HANDLE GetOwnerThread() const { return __atomic_load_n(&mOwnerThread, __ATOMIC_RELAXED); }

    // Contract: any IRQL. The record in the platform's NDIS spin lock layout.
    PNDIS_SPIN_LOCK GetNdisSpinLock() { return reinterpret_cast<PNDIS_SPIN_LOCK>(this); }

private:
    // mSpinLock and mOldIrql form the NDIS spin lock record. The fields after
    // them are read and changed only while mSpinLock is held (atomically, so
    // that IsLocked may look from any thread).
    KSPIN_LOCK mSpinLock;
    KIRQL mOldIrql;  // IRQL saved by Lock
    // Aligned so that the counters start after the whole NDIS record.
    alignas(sizeof(NDIS_SPIN_LOCK)) LONG mLockCounter;  // current holders: 0 or 1 in correct use
    ULONG mLockedAtDpcLevel;  // never set: this lock is not taken at DPC level
    HANDLE mOwnerThread;      // taker; KN_SPINLOCK_NO_OWNER when released
};

// Holds an NdSpinlock from construction to destruction; Unlock releases it
// early and the destructor then does nothing.
class NdSpinlockGuard {
public:
    // Contract: IRQL <= DISPATCH_LEVEL; the lock not held by this thread.
    explicit NdSpinlockGuard(NdSpinlock* lock) : mLock(lock) { mLock->Lock(); }
    explicit NdSpinlockGuard(NdSpinlock& lock) : NdSpinlockGuard(&lock) {}
    // Contract: DISPATCH_LEVEL while the lock is still held.
    ~NdSpinlockGuard() { Unlock(); }
    NdSpinlockGuard(const NdSpinlockGuard&) = delete;
    NdSpinlockGuard& operator=(const NdSpinlockGuard&) = delete;

    // Contract: DISPATCH_LEVEL while the lock is still held.
    void Unlock()
    {
        if (mLock != NULL) {
            NdSpinlock* lock = mLock;
            mLock = NULL;
            lock->Unlock();
        }
    }

private:
    NdSpinlock* mLock;
};
