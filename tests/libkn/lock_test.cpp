// Tests of the locks: KnSpinLock and its holders, NdSpinlock, KnMutex and
// KnCounterEvent, with a small multi-threaded stress.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <kplat/platform.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "NdSpinlock.h"
#include "kntrace.h"

namespace {

const HANDLE kNoOwner = (HANDLE)(ULONG_PTR)0xFFFFFFFF;

class LockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        if (KeGetCurrentIrql() != PASSIVE_LEVEL) KeLowerIrql(PASSIVE_LEVEL);
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    ULONG mSavedMask = 0;
};

class KnSpinLockTest : public LockTest {};
class KnSpinLockGuardTest : public LockTest {};
class NdSpinlockTest : public LockTest {};
class KnMutexTest : public LockTest {};
class KnCounterEventTest : public LockTest {};
class LockStressTest : public LockTest {};

// ---------------------------------------------------------------------------
// KnSpinLock
// ---------------------------------------------------------------------------
TEST_F(KnSpinLockTest, LockUnlockFromPassiveCountsOwnerAndRestoresIrql)
{
    KnSpinLock lock;
    EXPECT_EQ(lock.GetOwnerThread(), kNoOwner);
    KIRQL old = lock.Lock();
    EXPECT_EQ(old, PASSIVE_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_TRUE(lock.IsLocked());
    EXPECT_EQ(lock.GetLockCounter(), 1);
    EXPECT_EQ(lock.GetOwnerThread(), PsGetCurrentThreadId());
    EXPECT_EQ(lock.GetLockedAtDpcLevel(), 0u);
    lock.Unlock(old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(lock.GetLockCounter(), 0);
    EXPECT_EQ(lock.GetOwnerThread(), kNoOwner);
    // From DISPATCH_LEVEL the lock stays there.
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    old = lock.Lock();
    EXPECT_EQ(old, DISPATCH_LEVEL);
    lock.Unlock(old);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(entry);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnSpinLockTest, LockAtDpcLevelKeepsIrqlAndOwner)
{
    KnSpinLock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    lock.LockAtDpcLevel();
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_TRUE(lock.IsLocked());
    EXPECT_EQ(lock.GetLockCounter(), 1);
    EXPECT_EQ(lock.GetLockedAtDpcLevel(), 1u);
    EXPECT_EQ(lock.GetOwnerThread(), kNoOwner) << "LockAtDpcLevel does not record the owner";
    lock.UnlockFromDpcLevel();
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(lock.GetLockCounter(), 0);
    EXPECT_EQ(lock.GetLockedAtDpcLevel(), 0u);
    EXPECT_EQ(lock.GetOwnerThread(), kNoOwner);
    KeLowerIrql(entry);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnSpinLockTest, UnbalancedUnlockIsReportedAndCarriedOut)
{
    kplat::CheckRecorder checks;  // releasing a free lock may be a platform check
    KnSpinLock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    lock.Unlock(DISPATCH_LEVEL);
    EXPECT_EQ(mCapture.Take(), "KnSpinLock::Unlock:FATAL: mLockCounter=0\n");
    EXPECT_EQ(lock.GetLockCounter(), -1);
    EXPECT_EQ(lock.GetOwnerThread(), kNoOwner);
    // The next acquisition reports the negative count, then brings it to 0.
    KIRQL old = lock.Lock();
    EXPECT_EQ(mCapture.Take(), "KnSpinLock::Lock:FATAL: mLockCounter=-1\n");
    EXPECT_EQ(lock.GetLockCounter(), 0);
    EXPECT_FALSE(lock.IsLocked()) << "the counter says free although the lock is held";
    lock.Unlock(old);
    EXPECT_EQ(mCapture.Take(), "KnSpinLock::Unlock:FATAL: mLockCounter=0\n");
    EXPECT_EQ(lock.GetLockCounter(), -1);
    KeLowerIrql(entry);
}

TEST_F(KnSpinLockTest, RecursiveLockIsReportedAndCarriedOut)
{
    kplat::CheckRecorder checks;  // the platform reports the recursive acquire
    KnSpinLock lock;
    KIRQL first = lock.Lock();
    KIRQL second = lock.Lock();
    EXPECT_EQ(mCapture.Take(), "KnSpinLock::Lock:FATAL: mLockCounter=1\n");
    EXPECT_EQ(lock.GetLockCounter(), 2);
    EXPECT_EQ(second, DISPATCH_LEVEL);
    lock.Unlock(second);
    EXPECT_EQ(mCapture.Take(), "KnSpinLock::Unlock:FATAL: mLockCounter=2\n");
    lock.Unlock(first);
    EXPECT_EQ(mCapture.Take(), "");
    EXPECT_EQ(lock.GetLockCounter(), 0);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_GE(checks.Count(), 1u);
}

TEST_F(KnSpinLockTest, UnbalancedDpcLevelUseIsReportedWithoutNewline)
{
    KnSpinLock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    lock.LockAtDpcLevel();
    lock.UnlockFromDpcLevel();
    lock.UnlockFromDpcLevel();
    std::string text = mCapture.Take();
    EXPECT_NE(text.find("ASSERTION FAILED: (mLockedAtDpcLevel!=0)"), std::string::npos) << text;
    EXPECT_NE(text.find("KnSpinLock::UnlockFromDpcLevel:FATAL: mLockCounter=0"), std::string::npos) << text;
    EXPECT_EQ(text.find("mLockCounter=0\n"), std::string::npos) << "this message has no line end";
    EXPECT_EQ(lock.GetLockCounter(), -1);
    lock.LockAtDpcLevel();
    EXPECT_EQ(mCapture.Take(), "KnSpinLock::LockAtDpcLevel:FATAL: mLockCounter=-1");
    EXPECT_EQ(lock.GetLockCounter(), 0);
    EXPECT_EQ(lock.GetLockedAtDpcLevel(), 1u);
    lock.UnlockFromDpcLevel();
    KeLowerIrql(entry);
}

TEST_F(KnSpinLockTest, FatalTracesNeedMaskBitOne)
{
    KnSetTraceMask(KN_TRACE_WARNING);
    KnSpinLock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    lock.Unlock(DISPATCH_LEVEL);
    EXPECT_EQ(lock.GetLockCounter(), -1);
    EXPECT_EQ(mCapture.Text(), "");
    KeLowerIrql(entry);
}

// ---------------------------------------------------------------------------
// Holders
// ---------------------------------------------------------------------------
TEST_F(KnSpinLockGuardTest, HoldsForTheScopeAndRestoresIrql)
{
    KnSpinLock lock;
    {
        KnSpinLockGuard guard(&lock);
        EXPECT_TRUE(lock.IsLocked());
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        EXPECT_EQ(lock.GetOwnerThread(), PsGetCurrentThreadId());
    }
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    {
        KnSpinLockGuard guard(lock);
        EXPECT_TRUE(lock.IsLocked());
        guard.Unlock();
        EXPECT_FALSE(lock.IsLocked());
        guard.Unlock();
    }
    EXPECT_EQ(lock.GetLockCounter(), 0);
    EXPECT_EQ(mCapture.Text(), "") << "no unbalanced release";
}

TEST_F(KnSpinLockGuardTest, DpcGuardAtDispatch)
{
    KnSpinLock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    {
        KnSpinLockDpcGuard guard(&lock);
        EXPECT_TRUE(lock.IsLocked());
        EXPECT_EQ(lock.GetLockedAtDpcLevel(), 1u);
    }
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(lock.GetLockedAtDpcLevel(), 0u);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    {
        KnSpinLockDpcGuard guard(lock);
        guard.Unlock();
        EXPECT_FALSE(lock.IsLocked());
    }
    KeLowerIrql(entry);
    EXPECT_EQ(mCapture.Text(), "");
}

// ---------------------------------------------------------------------------
// NdSpinlock
// ---------------------------------------------------------------------------
TEST_F(NdSpinlockTest, LockKeepsThePreviousIrqlInTheNdisRecord)
{
    NdSpinlock lock;
    PNDIS_SPIN_LOCK record = lock.GetNdisSpinLock();
    EXPECT_EQ((void*)record, (void*)&lock);
    EXPECT_EQ(record->SpinLock, 0u);
    lock.Lock();
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_TRUE(lock.IsLocked());
    EXPECT_EQ(lock.GetLockCounter(), 1);
    EXPECT_EQ(lock.GetOwnerThread(), PsGetCurrentThreadId());
    EXPECT_EQ(record->OldIrql, PASSIVE_LEVEL);
    EXPECT_NE(record->SpinLock, 0u) << "the platform's lock word is where the record has it";
    lock.Unlock();
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(lock.GetOwnerThread(), kNoOwner);
    EXPECT_EQ(record->SpinLock, 0u);

    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    lock.Lock();
    EXPECT_EQ(record->OldIrql, DISPATCH_LEVEL);
    lock.Unlock();
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(entry);
    {
        NdSpinlockGuard guard(lock);
        EXPECT_TRUE(lock.IsLocked());
        guard.Unlock();  // released once, not again by the destructor
        EXPECT_FALSE(lock.IsLocked());
    }
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(NdSpinlockTest, UnbalancedUseIsReportedAndCarriedOut)
{
    kplat::CheckRecorder checks;
    NdSpinlock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    lock.Lock();  // saves DISPATCH_LEVEL
    lock.Unlock();
    lock.Unlock();
    EXPECT_EQ(mCapture.Take(), "NdSpinlock::Unlock:FATAL: mLockCounter=0");
    EXPECT_EQ(lock.GetLockCounter(), -1);
    lock.Lock();
    EXPECT_EQ(mCapture.Take(), "NdSpinlock::Lock:FATAL: mLockCounter=-1");
    EXPECT_EQ(lock.GetLockCounter(), 0);
    lock.Unlock();
    KeLowerIrql(entry);
}

// ---------------------------------------------------------------------------
// KnMutex
// ---------------------------------------------------------------------------
TEST_F(KnMutexTest, RecursiveLockByTheOwner)
{
    KnMutex mutex;
    EXPECT_EQ(mutex.ReadState(), 1);
    mutex.Lock();
    mutex.Lock();
    EXPECT_EQ(mutex.ReadState(), -1);
    mutex.Unlock();
    EXPECT_EQ(mutex.ReadState(), 0);
    mutex.Unlock();
    EXPECT_EQ(mutex.ReadState(), 1);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnMutexTest, GuardBlocksAnotherThreadUntilReleased)
{
    KnMutex mutex;
    std::atomic<bool> entered{false};
    std::atomic<bool> acquired{false};
    KnMutexGuard guard(&mutex);
    std::thread other([&] {
        kplat::EnterDriverThread();
        entered = true;
        {
            KnMutexGuard inner(mutex);
            acquired = true;
        }
        kplat::LeaveDriverThread();
    });
    while (!entered) std::this_thread::yield();
    kplat::RunUntilIdle();  // returns once the other thread blocks on the mutex
    EXPECT_FALSE(acquired);
    guard.Unlock();
    other.join();
    EXPECT_TRUE(acquired);
    EXPECT_EQ(mutex.ReadState(), 1);
}

// ---------------------------------------------------------------------------
// KnCounterEvent
// ---------------------------------------------------------------------------
TEST_F(KnCounterEventTest, WaitZeroFollowsTheCount)
{
    KnCounterEvent counter;
    EXPECT_EQ(counter.GetCount(), 0u);
    EXPECT_EQ(counter.Wait(0), STATUS_SUCCESS);
    EXPECT_EQ(counter.Increment(), 1u);
    EXPECT_EQ(counter.Wait(0), STATUS_TIMEOUT);
    EXPECT_EQ(counter.Increment(), 2u);
    EXPECT_EQ(counter.Decrement(), 1u);
    EXPECT_EQ(counter.Wait(0), STATUS_TIMEOUT);
    EXPECT_EQ(counter.Decrement(), 0u);
    EXPECT_EQ(counter.GetCount(), 0u);
    EXPECT_EQ(counter.Wait(0), STATUS_SUCCESS);
}

void DecrementDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    static_cast<KnCounterEvent*>(context)->Decrement();
}

TEST_F(KnCounterEventTest, WaitTimesOutOrEndsWhenTheCountFallsToZero)
{
    KnCounterEvent counter;
    counter.Increment();
    uint64_t start = kplat::NowMs();
    EXPECT_EQ(counter.Wait(2000), STATUS_TIMEOUT);
    EXPECT_EQ(kplat::NowMs() - start, 2000u);
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, DecrementDpc, &counter);
    KeInitializeTimer(&timer);
    LARGE_INTEGER due;
    due.QuadPart = -50 * 10000;
    KeSetTimer(&timer, due, &dpc);
    start = kplat::NowMs();
    EXPECT_EQ(counter.Wait(1000), STATUS_SUCCESS);
    EXPECT_EQ(kplat::NowMs() - start, 50u);
    EXPECT_EQ(counter.GetCount(), 0u);
}

// ---------------------------------------------------------------------------
// Stress: several threads on one lock and one counter
// ---------------------------------------------------------------------------
constexpr int kStressThreads = 3;
constexpr int kStressRounds = 20000;

TEST_F(LockStressTest, LocksSerializeThreadsAndCounterEndsSignalled)
{
    KnSpinLock lock;
    NdSpinlock ndLock;
    KnCounterEvent counter;
    long shared = 0;    // guarded by lock
    long ndShared = 0;  // guarded by ndLock
    std::atomic<int> overlaps{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kStressThreads; t++) {
        threads.emplace_back([&] {
            kplat::EnterDriverThread();
            for (int i = 0; i < kStressRounds; i++) {
                counter.Increment();
                if (i % 2 == 0) {
                    KnSpinLockGuard guard(&lock);
                    if (lock.GetLockCounter() != 1 || lock.GetOwnerThread() != PsGetCurrentThreadId()) overlaps++;
                    shared++;
                } else {
                    KIRQL old;
                    KeRaiseIrql(DISPATCH_LEVEL, &old);
                    {
                        KnSpinLockDpcGuard guard(&lock);
                        if (lock.GetLockCounter() != 1) overlaps++;
                        shared++;
                    }
                    KeLowerIrql(old);
                }
                {
                    NdSpinlockGuard guard(&ndLock);
                    ndShared++;
                }
                counter.Decrement();
            }
            kplat::LeaveDriverThread();
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(shared, (long)kStressThreads * kStressRounds);
    EXPECT_EQ(ndShared, (long)kStressThreads * kStressRounds);
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(counter.GetCount(), 0u);
    EXPECT_EQ(counter.Wait(0), STATUS_SUCCESS);
    EXPECT_EQ(mCapture.Text(), "") << "no FATAL trace under correct use";
}

}  // namespace
