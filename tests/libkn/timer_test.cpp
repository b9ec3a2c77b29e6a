// Tests of the timers: KnTimedWorkItemEx (delayed run at PASSIVE_LEVEL),
// KnTimerDpc (one-shot relative timer) and KnDpc, on the virtual clock.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <kplat/platform.h>

#include "KnDpc.h"
#include "KnTimerDpc.h"
#include "kntimedworkitemex.h"
#include "kntrace.h"
#include "workqueue_helpers.h"

namespace {

using kntest::CountOf;
using kntest::EventTimer;
using kntest::QueueBlocker;

using kntest::CallbackA;
using kntest::CallbackB;
using kntest::Record;

class TimerTest : public kntest::WorkQueueTest {
protected:
    // Lets the clock run to `ms` from now and returns once every timer due
    // then has run its DPC, without waiting for the work those DPCs queue (a
    // run queued behind a QueueBlocker keeps the stand-in from being idle,
    // so AdvanceTime could not return, and the clock cannot move any more
    // until the blocker is released). Works through a second timer with
    // the same deadline, set after the timers under test: equal deadlines
    // expire in setting order and DPCs run in queueing order.
    void WaitForExpiryAfter(LONGLONG ms)
    {
        KEVENT expired;
        KeInitializeEvent(&expired, NotificationEvent, FALSE);
        EventTimer marker(&expired, ms);
        KeWaitForSingleObject(&expired, Executive, KernelMode, FALSE, NULL);
    }
};

class KnTimedWorkItemExTest : public TimerTest {};
class KnTimerDpcTest : public TimerTest {};
class KnDpcTest : public TimerTest {};

// ---------------------------------------------------------------------------
// KnTimedWorkItemEx
// ---------------------------------------------------------------------------
TEST_F(KnTimedWorkItemExTest, RunsOnceAfterTheDelayAtPassive)
{
    KnTimedWorkItemEx item;
    item.Schedule(250, &mDevice, CallbackA, (PVOID)0x11, (PVOID)0x22, DelayedWorkQueue);
    kplat::AdvanceTime(249);
    EXPECT_TRUE(mRuns.empty());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    kplat::AdvanceTime(1);
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 1);
    EXPECT_EQ(mRuns[0].atMs, 250u);
    EXPECT_EQ(mRuns[0].device, &mDevice);
    EXPECT_EQ(mRuns[0].context, (PVOID)0x11);
    EXPECT_EQ(mRuns[0].argument, (PVOID)0x22);
    EXPECT_EQ(mRuns[0].irql, PASSIVE_LEVEL);
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    kplat::AdvanceTime(10000);
    EXPECT_EQ(mRuns.size(), 1u) << "one-shot";
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnTimedWorkItemExTest, SecondScheduleReplacesTheFirst)
{
    KnTimedWorkItemEx item;
    item.Schedule(100, &mDevice, CallbackA, (PVOID)1, NULL, DelayedWorkQueue);
    item.Schedule(5000, &mDevice, CallbackB, (PVOID)2, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(4999);
    EXPECT_TRUE(mRuns.empty()) << "nothing at 100 ms nor before 5000 ms";
    kplat::AdvanceTime(1);
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 2);
    EXPECT_EQ(mRuns[0].context, (PVOID)2);
    EXPECT_EQ(mRuns[0].atMs, 5000u);
    kplat::AdvanceTime(60000);
    EXPECT_EQ(mRuns.size(), 1u);
}

TEST_F(KnTimedWorkItemExTest, ScheduleAgainAfterTheRunGivesAnotherRun)
{
    KnTimedWorkItemEx item;
    item.Schedule(10, &mDevice, CallbackA, NULL, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(10);
    item.Schedule(20, &mDevice, CallbackB, NULL, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(20);
    ASSERT_EQ(mRuns.size(), 2u);
    EXPECT_EQ(mRuns[0].atMs, 10u);
    EXPECT_EQ(mRuns[1].which, 2);
    EXPECT_EQ(mRuns[1].atMs, 30u);
}

TEST_F(KnTimedWorkItemExTest, CancelBeforeTheTimerFiresGivesNoRun)
{
    KnTimedWorkItemEx item;
    item.Schedule(100, &mDevice, CallbackA, NULL, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(50);
    item.CancelTimedWorkItem();
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(mRuns.empty());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
}

TEST_F(KnTimedWorkItemExTest, CancelAfterTheTimerFiredButBeforeTheRunCallsNothing)
{
    KnTimedWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    item.Schedule(100, &mDevice, CallbackA, NULL, NULL, DelayedWorkQueue);
    WaitForExpiryAfter(100);
    EXPECT_EQ(kplat::NowMs(), 100u);
    EXPECT_EQ(item.GetQueuedCount(), 1u) << "the timer fired and queued the run";
    item.CancelTimedWorkItem();
    blocker.Release();
    EXPECT_TRUE(mRuns.empty());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnTimedWorkItemExTest, ScheduleWhileARunIsQueuedClearsItUntilTheTimerFires)
{
    KnTimedWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    item.Schedule(100, &mDevice, CallbackA, NULL, NULL, DelayedWorkQueue);
    WaitForExpiryAfter(100);
    item.Schedule(5000, &mDevice, CallbackB, NULL, NULL, DelayedWorkQueue);
    blocker.Release();  // the queued run starts before the new expiry
    EXPECT_TRUE(mRuns.empty());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    kplat::AdvanceTime(4999);
    EXPECT_TRUE(mRuns.empty());
    kplat::AdvanceTime(1);
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 2);
    EXPECT_EQ(mRuns[0].atMs, 5100u);
}

TEST_F(KnTimedWorkItemExTest, QueueTypeIsHonoured)
{
    KnTimedWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    item.Schedule(10, &mDevice, CallbackA, NULL, NULL, CriticalWorkQueue);
    kplat::AdvanceTime(10);
    EXPECT_EQ(mRuns.size(), 1u);
}

TEST_F(KnTimedWorkItemExTest, AllocationFailureDropsTheRunButKeepsTheSchedule)
{
    KnTimedWorkItemEx item;
    kplat::FailTag(kplat::MakeTag("IoWk"), 1);
    item.Schedule(10, &mDevice, CallbackA, NULL, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(10);
    EXPECT_EQ(mCapture.Take(), "ethbrg:KnTimedWorkItemEx::InternalTimerDpc:FATAL: IoAllocateWorkItem failed\n");
    EXPECT_TRUE(mRuns.empty());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    // A later Schedule tries again.
    item.Schedule(10, &mDevice, CallbackB, NULL, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(10);
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 2);
}

void BlockingCallback(PDEVICE_OBJECT device, PVOID context, PVOID argument)
{
    Record(3, device, context, argument);
    KeWaitForSingleObject(static_cast<PKEVENT>(context), Executive, KernelMode, FALSE, NULL);
}

TEST_F(KnTimedWorkItemExTest, CancelAndWaitWaitsForARunningCallback)
{
    KnTimedWorkItemEx item;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    item.Schedule(10, &mDevice, BlockingCallback, &done, NULL, DelayedWorkQueue);
    kplat::AdvanceTime(10);
    ASSERT_EQ(mRuns.size(), 1u);
    EventTimer timer(&done, 2500);
    uint64_t start = kplat::NowMs();
    item.CancelTimedWorkItemAndWait();
    EXPECT_EQ(kplat::NowMs() - start, 2500u);
    char expected[128];
    snprintf(expected, sizeof(expected),
             "ethbrg:KnTimedWorkItemEx::CancelTimedWorkItemAndWait: FATAL: wait timed out. this=0x%016llx\n",
             (unsigned long long)(ULONG_PTR)&item);
    EXPECT_EQ(CountOf(mCapture.Text(), expected), 1u) << mCapture.Text();
    EXPECT_EQ(item.GetQueuedCount(), 0u);
}

// ---------------------------------------------------------------------------
// KnTimerDpc
// ---------------------------------------------------------------------------
struct DpcRecord {
    std::vector<uint64_t> atMs;
    std::vector<KIRQL> irql;
};

void RecordDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    auto* r = static_cast<DpcRecord*>(context);
    r->atMs.push_back(kplat::NowMs());
    r->irql.push_back(KeGetCurrentIrql());
}

TEST_F(KnTimerDpcTest, FiresOnceAfterTheDelayAtDispatch)
{
    DpcRecord record;
    KnTimerDpc timer;
    EXPECT_FALSE(timer.IsInitialized());
    timer.InitializeDpc(RecordDpc, &record);
    EXPECT_TRUE(timer.IsInitialized());
    timer.SetTimer(100);
    kplat::AdvanceTime(99);
    EXPECT_TRUE(record.atMs.empty());
    kplat::AdvanceTime(1);
    ASSERT_EQ(record.atMs.size(), 1u);
    EXPECT_EQ(record.atMs[0], 100u);
    EXPECT_EQ(record.irql[0], DISPATCH_LEVEL);
    kplat::AdvanceTime(1000);
    EXPECT_EQ(record.atMs.size(), 1u);
}

TEST_F(KnTimerDpcTest, SetTimerReplacesAPendingExpiry)
{
    DpcRecord record;
    KnTimerDpc timer;
    timer.InitializeDpc(RecordDpc, &record);
    timer.SetTimer(100);
    kplat::AdvanceTime(50);
    timer.SetTimer(300);
    kplat::AdvanceTime(1000);
    ASSERT_EQ(record.atMs.size(), 1u);
    EXPECT_EQ(record.atMs[0], 350u);
}

TEST_F(KnTimerDpcTest, CancelTimerStopsAPendingExpiry)
{
    DpcRecord record;
    KnTimerDpc timer;
    timer.InitializeDpc(RecordDpc, &record);
    timer.SetTimer(100);
    timer.CancelTimer();
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(record.atMs.empty());
    timer.CancelTimer();  // harmless on an idle timer
    timer.SetTimer(5);
    kplat::AdvanceTime(5);
    EXPECT_EQ(record.atMs.size(), 1u);
}

// ---------------------------------------------------------------------------
// KnDpc
// ---------------------------------------------------------------------------
std::atomic<bool> gHoldDpcThread{false};

void HoldingDpc(PKDPC, PVOID, PVOID, PVOID)
{
    while (gHoldDpcThread.load()) std::this_thread::yield();
}

struct ArgRecord {
    std::vector<PVOID> first;
    std::vector<PVOID> second;
};

void RecordArgsDpc(PKDPC, PVOID context, PVOID a1, PVOID a2)
{
    auto* r = static_cast<ArgRecord*>(context);
    r->first.push_back(a1);
    r->second.push_back(a2);
}

TEST_F(KnDpcTest, InsertQueueQueuesOnceUntilItRan)
{
    // Hold the DPC thread in another DPC, so that ours stays queued.
    KDPC holder;
    KeInitializeDpc(&holder, HoldingDpc, NULL);
    gHoldDpcThread = true;
    KeInsertQueueDpc(&holder, NULL, NULL);

    ArgRecord record;
    KnDpc dpc;
    EXPECT_FALSE(dpc.IsInitialized());
    dpc.Initialize(RecordArgsDpc, &record);
    EXPECT_TRUE(dpc.IsInitialized());
    EXPECT_TRUE(dpc.InsertQueue((PVOID)1, (PVOID)2));
    EXPECT_FALSE(dpc.InsertQueue((PVOID)3, (PVOID)4));
    gHoldDpcThread = false;
    kplat::RunUntilIdle();
    EXPECT_EQ(record.first, (std::vector<PVOID>{(PVOID)1}));
    EXPECT_EQ(record.second, (std::vector<PVOID>{(PVOID)2}));
    EXPECT_TRUE(dpc.InsertQueue((PVOID)5, NULL));
    kplat::RunUntilIdle();
    EXPECT_EQ(record.first, (std::vector<PVOID>{(PVOID)1, (PVOID)5}));
    EXPECT_EQ(mCapture.Text(), "");
}

}  // namespace
