// Kernel spin lock that counts its holders, knows whether it was taken at
// DISPATCH_LEVEL and remembers the thread that took it; unbalanced use is
// reported with a "FATAL" trace and then carried out anyway.
#pragma once

#include <ntddk.h>

// Owner thread value while a lock is released.
#define KN_SPINLOCK_NO_OWNER ((HANDLE)(ULONG_PTR)0xFFFFFFFF)

class KnSpinLock {
public:
    KnSpinLock();
    KnSpinLock(const KnSpinLock&) = delete;
    KnSpinLock& operator=(const KnSpinLock&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL. Returns at DISPATCH_LEVEL with the
    // lock held; the result is the IRQL to hand back to Unlock.
    KIRQL Lock();
    // Contract: DISPATCH_LEVEL, lock held through Lock. Returns at oldIrql.
    void Unlock(KIRQL oldIrql);
    // Contract: DISPATCH_LEVEL. The IRQL is not changed.
    void LockAtDpcLevel();
    // Contract: DISPATCH_LEVEL, lock held through LockAtDpcLevel.
    void UnlockFromDpcLevel();

    // Contract: any IRQL. True while the lock is held (the holder count is
    // not 0). Meant for assertions of the holder.
    bool IsLocked() const { return GetLockCounter() != 0; }

    // Contract: any IRQL. Diagnostic views of the counters.
    LONG GetLockCounter() const { return __atomic_load_n(&mLockCounter, __ATOMIC_RELAXED); }
    ULONG GetLockedAtDpcLevel() const { return __atomic_load_n(&mLockedAtDpcLevel, __ATOMIC_RELAXED); }
    HANDLE GetOwnerThread() const { return __atomic_load_n(&mOwnerThread, __ATOMIC_RELAXED); }

private:
    // The counters below are read and changed only while mSpinLock is held;
    // they are accessed atomically only so that IsLocked may look from any
    // thread.
    KSPIN_LOCK mSpinLock;
    LONG mLockCounter;        // current holders: 0 or 1 in correct use
    ULONG mLockedAtDpcLevel;  // 1 while held through LockAtDpcLevel
    HANDLE mOwnerThread;      // taker through Lock; KN_SPINLOCK_NO_OWNER when released
};

// Holds a KnSpinLock (taken with Lock) from construction to destruction.
// Unlock releases it early; the destructor then does nothing.
class KnSpinLockGuard {
public:
    // Contract: IRQL <= DISPATCH_LEVEL; the lock not held by this thread.
    explicit KnSpinLockGuard(KnSpinLock* lock) : mLock(lock), mOldIrql(lock->Lock()) {}
    explicit KnSpinLockGuard(KnSpinLock& lock) : KnSpinLockGuard(&lock) {}
    // Contract: DISPATCH_LEVEL while the lock is still held.
    ~KnSpinLockGuard() { Unlock(); }
    KnSpinLockGuard(const KnSpinLockGuard&) = delete;
    KnSpinLockGuard& operator=(const KnSpinLockGuard&) = delete;

    // Contract: DISPATCH_LEVEL while the lock is still held; returns at the
    // IRQL of construction.
    void Unlock()
    {
        if (mLock != NULL) {
            KnSpinLock* lock = mLock;
            mLock = NULL;
            lock->Unlock(mOldIrql);
        }
    }

private:
    KnSpinLock* mLock;
    KIRQL mOldIrql;
};

// Holds a KnSpinLock taken at DISPATCH_LEVEL (LockAtDpcLevel).
class KnSpinLockDpcGuard {
public:
    // Contract: DISPATCH_LEVEL; the lock not held by this thread.
    explicit KnSpinLockDpcGuard(KnSpinLock* lock);
    explicit KnSpinLockDpcGuard(KnSpinLock& lock) : KnSpinLockDpcGuard(&lock) {}
    // Contract: DISPATCH_LEVEL.
    ~KnSpinLockDpcGuard() { Unlock(); }
    KnSpinLockDpcGuard(const KnSpinLockDpcGuard&) = delete;
    KnSpinLockDpcGuard& operator=(const KnSpinLockDpcGuard&) = delete;

    // Contract: DISPATCH_LEVEL. Releases early; the destructor then does nothing.
    void Unlock()
    {
        if (mLock != NULL) {
            KnSpinLock* lock = mLock;
            mLock = NULL;
            lock->UnlockFromDpcLevel();
        }
    }

private:
    KnSpinLock* mLock;
};
