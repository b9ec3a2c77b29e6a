// Kernel mutex for PASSIVE_LEVEL serialization, its scoped holder, and the
// counter event used to wait until outstanding callbacks have finished.
#pragma once

#include <ntddk.h>

// A kernel mutex initialized with level 0. Recursive: the owning thread may
// take it again and must release it as often.
class KnMutex {
public:
    KnMutex();
    KnMutex(const KnMutex&) = delete;
    KnMutex& operator=(const KnMutex&) = delete;

    // Contract: PASSIVE_LEVEL. Waits without time-out.
    void Lock();
    // Contract: IRQL <= DISPATCH_LEVEL; held by this thread.
    void Unlock();

    // Contract: any IRQL. The platform's mutex state (1 = free).
    LONG ReadState() { return KeReadStateMutex(&mMutex); }

private:
    KMUTEX mMutex;
};

// Holds a KnMutex from construction to destruction; Unlock releases it early
// and the destructor then does nothing.
class KnMutexGuard {
public:
    // Contract: PASSIVE_LEVEL.
    explicit KnMutexGuard(KnMutex* mutex) : mMutex(mutex) { mMutex->Lock(); }
    explicit KnMutexGuard(KnMutex& mutex) : KnMutexGuard(&mutex) {}
    // Contract: IRQL <= DISPATCH_LEVEL.
    ~KnMutexGuard() { Unlock(); }
    KnMutexGuard(const KnMutexGuard&) = delete;
    KnMutexGuard& operator=(const KnMutexGuard&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL while the mutex is still held.
    void Unlock()
    {
        if (mMutex != NULL) {
            KnMutex* mutex = mMutex;
            mMutex = NULL;
            mutex->Unlock();
        }
    }

private:
    KnMutex* mMutex;
};

// A count whose notification event is signalled while the count is 0. A
// rise from 0 and a fall to 0 may race on two processors (a submission and
// a completion while a pipe runs): each change of the count and of the event
// is one step under a lock shared by all counters, so the event never stays
// out of step with the count, also after such a race.
class KnCounterEvent {
public:
    // Contract: any IRQL. Count 0, event signalled.
    KnCounterEvent();
    KnCounterEvent(const KnCounterEvent&) = delete;
    KnCounterEvent& operator=(const KnCounterEvent&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL; takes the shared lock (a leaf lock).
    // Returns the new count.
    ULONG Increment();
    // Contract: as Increment. Returns the new count.
    ULONG Decrement();
    // Contract: any IRQL.
    ULONG GetCount() const { return __atomic_load_n(&mCount, __ATOMIC_SEQ_CST); }
    // Contract: PASSIVE_LEVEL. STATUS_SUCCESS once the event is signalled,
    // STATUS_TIMEOUT after timeoutMs milliseconds (0 polls).
    NTSTATUS Wait(ULONG timeoutMs);

private:
    ULONG mCount;   // changed under the shared lock, read without it
    KEVENT mEvent;  // notification event, signalled while mCount is 0
};
