// Tests of KnWorkItemEx: runs at PASSIVE_LEVEL on a worker thread, folding
// of schedules into one queued run, cancel, cancel-and-wait, allocation
// failure.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include <kplat/platform.h>

#include "knworkitemex.h"
#include "kntrace.h"
#include "workqueue_helpers.h"

namespace {

using kntest::CountOf;
using kntest::EventTimer;
using kntest::QueueBlocker;

using kntest::CallbackA;
using kntest::CallbackB;
using kntest::Record;

class KnWorkItemExTest : public kntest::WorkQueueTest {};

TEST_F(KnWorkItemExTest, RunsTheCallbackOnceAtPassiveOnAWorker)
{
    KnWorkItemEx item;
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, CallbackA, (PVOID)0x11, (PVOID)0x22, DelayedWorkQueue));
    kplat::RunUntilIdle();
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 1);
    EXPECT_EQ(mRuns[0].device, &mDevice);
    EXPECT_EQ(mRuns[0].context, (PVOID)0x11);
    EXPECT_EQ(mRuns[0].argument, (PVOID)0x22);
    EXPECT_EQ(mRuns[0].irql, PASSIVE_LEVEL);
    EXPECT_NE(mRuns[0].thread, PsGetCurrentThreadId());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnWorkItemExTest, TwoSchedulesBeforeTheRunGiveOneRunOfTheSecond)
{
    KnWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, CallbackA, (PVOID)1, (PVOID)2, DelayedWorkQueue));
    EXPECT_EQ(item.GetQueuedCount(), 1u);
    uint64_t allocated = kplat::GetObjectCounts().workItems;
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, CallbackB, (PVOID)3, (PVOID)4, DelayedWorkQueue));
    EXPECT_EQ(item.GetQueuedCount(), 1u);
    EXPECT_EQ(kplat::GetObjectCounts().workItems, allocated) << "no second work item";
    blocker.Release();
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 2);
    EXPECT_EQ(mRuns[0].context, (PVOID)3);
    EXPECT_EQ(mRuns[0].argument, (PVOID)4);
    EXPECT_EQ(item.GetQueuedCount(), 0u);
}

TEST_F(KnWorkItemExTest, CancelBeforeTheRunCallsNothing)
{
    KnWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, CallbackA, NULL, NULL, DelayedWorkQueue));
    item.CancelCallback();
    EXPECT_EQ(item.GetQueuedCount(), 1u) << "the run is still queued";
    blocker.Release();
    EXPECT_TRUE(mRuns.empty());
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    uint64_t now = kplat::NowMs();
    item.CancelCallbackAndWait();
    EXPECT_EQ(kplat::NowMs(), now);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnWorkItemExTest, ScheduleAfterCancelRunsTheNewCallback)
{
    KnWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    item.ScheduleCallback(&mDevice, CallbackA, NULL, NULL, DelayedWorkQueue);
    item.CancelCallback();
    item.ScheduleCallback(&mDevice, CallbackB, NULL, NULL, DelayedWorkQueue);
    blocker.Release();
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 2);
}

TEST_F(KnWorkItemExTest, QueueTypeIsHonoured)
{
    KnWorkItemEx item;
    QueueBlocker blocker(&mDevice, DelayedWorkQueue);
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, CallbackA, NULL, NULL, CriticalWorkQueue));
    kplat::RunUntilIdle();
    EXPECT_EQ(mRuns.size(), 1u) << "the critical queue is not behind the blocked delayed one";
}

struct Rescheduler {
    KnWorkItemEx* item;
    PDEVICE_OBJECT device;
    int runs;
};

void RescheduleOnce(PDEVICE_OBJECT device, PVOID context, PVOID argument)
{
    auto* r = static_cast<Rescheduler*>(context);
    Record(3, device, context, argument);
    if (++r->runs == 1) {
        EXPECT_TRUE(r->item->ScheduleCallback(r->device, RescheduleOnce, r, (PVOID)2, DelayedWorkQueue));
        EXPECT_EQ(r->item->GetQueuedCount(), 2u) << "the running run and the newly queued one";
    }
}

TEST_F(KnWorkItemExTest, ScheduleFromTheCallbackQueuesANewRun)
{
    KnWorkItemEx item;
    Rescheduler r{&item, &mDevice, 0};
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, RescheduleOnce, &r, (PVOID)1, DelayedWorkQueue));
    kplat::RunUntilIdle();
    ASSERT_EQ(mRuns.size(), 2u);
    EXPECT_EQ(mRuns[0].argument, (PVOID)1);
    EXPECT_EQ(mRuns[1].argument, (PVOID)2);
    EXPECT_EQ(item.GetQueuedCount(), 0u);
}

TEST_F(KnWorkItemExTest, AllocationFailureDropsTheCallback)
{
    KnWorkItemEx item;
    kplat::FailTag(kplat::MakeTag("IoWk"), 1);
    EXPECT_FALSE(item.ScheduleCallback(&mDevice, CallbackA, NULL, NULL, DelayedWorkQueue));
    EXPECT_EQ(mCapture.Take(), "ethbrg:KnWorkItemEx::ScheduleCallback: IoAllocateWorkItem failed\n");
    EXPECT_EQ(item.GetQueuedCount(), 0u);
    kplat::RunUntilIdle();
    EXPECT_TRUE(mRuns.empty());
    // The next schedule works again.
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, CallbackB, NULL, NULL, DelayedWorkQueue));
    kplat::RunUntilIdle();
    ASSERT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mRuns[0].which, 2);
}

// A callback that blocks until an event is set.
void BlockingCallback(PDEVICE_OBJECT device, PVOID context, PVOID argument)
{
    Record(4, device, context, argument);
    KeWaitForSingleObject(static_cast<PKEVENT>(context), Executive, KernelMode, FALSE, NULL);
}

TEST_F(KnWorkItemExTest, CancelCallbackAndWaitWaitsForARunningCallbackAndTracesEveryTwoSeconds)
{
    KnWorkItemEx item;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    EXPECT_TRUE(item.ScheduleCallback(&mDevice, BlockingCallback, &done, NULL, DelayedWorkQueue));
    kplat::RunUntilIdle();  // the callback runs and blocks
    ASSERT_EQ(mRuns.size(), 1u);
    EventTimer timer(&done, 4500);
    uint64_t start = kplat::NowMs();
    item.CancelCallbackAndWait();  // times out at 2000 and 4000, ends at 4500
    EXPECT_EQ(kplat::NowMs() - start, 4500u);
    std::string text = mCapture.Text();
    char expected[128];
    snprintf(expected, sizeof(expected),
             "ethbrg:KnWorkItemEx::CancelCallbackAndWait: FATAL: wait timed out. this=0x%016llx\n",
             (unsigned long long)(ULONG_PTR)&item);
    EXPECT_EQ(CountOf(text, expected), 2u) << text;
    EXPECT_EQ(item.GetQueuedCount(), 0u);
}

TEST_F(KnWorkItemExTest, DestructorWaitsForARunningCallback)
{
    auto* item = new KnWorkItemEx();
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    EXPECT_TRUE(item->ScheduleCallback(&mDevice, BlockingCallback, &done, NULL, DelayedWorkQueue));
    kplat::RunUntilIdle();  // the callback runs and blocks
    EventTimer timer(&done, 700);
    uint64_t start = kplat::NowMs();
    delete item;
    EXPECT_EQ(kplat::NowMs() - start, 700u);
    EXPECT_EQ(mRuns.size(), 1u);
    EXPECT_EQ(mCapture.Text(), "") << "no assertion, no time-out";
}

}  // namespace
