// Helpers of the work item and timer tests: the common fixture with its
// callback recorder, a blocker that holds a work queue, a timer that sets an
// event at a virtual time, substring counting.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <kplat/platform.h>

#include "kntrace.h"

namespace kntest {

// Keeps a work queue busy: a work item that waits for Release. Work items of
// a queue run in queueing order, so everything queued after the blocker waits
// behind it, which makes "before the worker thread runs" deterministic.
// While something is queued behind the blocker the stand-in is not idle:
// RunUntilIdle and AdvanceTime would not return before Release.
class QueueBlocker {
public:
    QueueBlocker(PDEVICE_OBJECT device, WORK_QUEUE_TYPE queue)
    {
        KeInitializeEvent(&mRelease, NotificationEvent, FALSE);
        mItem = IoAllocateWorkItem(device);
        IoQueueWorkItem(mItem, Routine, queue, this);
    }
    ~QueueBlocker() { Release(); }
    // Lets the blocker finish and runs everything queued behind it.
    void Release()
    {
        if (mItem == NULL) return;
        KeSetEvent(&mRelease, 0, FALSE);
        kplat::RunUntilIdle();
        IoFreeWorkItem(mItem);
        mItem = NULL;
    }
    PKEVENT ReleaseEvent() { return &mRelease; }

private:
    static void Routine(PDEVICE_OBJECT, PVOID context)
    {
        auto* self = static_cast<QueueBlocker*>(context);
        KeWaitForSingleObject(&self->mRelease, Executive, KernelMode, FALSE, NULL);
    }
    KEVENT mRelease;
    PIO_WORKITEM mItem;
};

// A one-shot timer that sets an event: lets a blocked worker go on at a
// given virtual time.
class EventTimer {
public:
    EventTimer(PKEVENT event, LONGLONG ms) : mEvent(event)
    {
        KeInitializeDpc(&mDpc, Dpc, this);
        KeInitializeTimer(&mTimer);
        LARGE_INTEGER due;
        due.QuadPart = -ms * 10000;
        KeSetTimer(&mTimer, due, &mDpc);
    }
    ~EventTimer() { KeCancelTimer(&mTimer); }

private:
    static void Dpc(PKDPC, PVOID context, PVOID, PVOID) { KeSetEvent(static_cast<EventTimer*>(context)->mEvent, 0, FALSE); }
    PKEVENT mEvent;
    KDPC mDpc;
    KTIMER mTimer;
};

// What the callbacks saw.
struct CallbackRun {
    int which;
    PDEVICE_OBJECT device;
    PVOID context;
    PVOID argument;
    KIRQL irql;
    HANDLE thread;
    uint64_t atMs;
};

inline std::vector<CallbackRun>* gRuns = nullptr;

inline void Record(int which, PDEVICE_OBJECT device, PVOID context, PVOID argument)
{
    gRuns->push_back({which, device, context, argument, KeGetCurrentIrql(), PsGetCurrentThreadId(), kplat::NowMs()});
}
inline void CallbackA(PDEVICE_OBJECT device, PVOID context, PVOID argument) { Record(1, device, context, argument); }
inline void CallbackB(PDEVICE_OBJECT device, PVOID context, PVOID argument) { Record(2, device, context, argument); }

// Starts the platform, records callback runs in mRuns and checks that no
// work item leaks.
class WorkQueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
        memset(&mDevice, 0, sizeof(mDevice));
        gRuns = &mRuns;
        mWorkItemsBefore = kplat::GetObjectCounts().workItems;
    }
    void TearDown() override
    {
        kplat::RunUntilIdle();
        EXPECT_EQ(kplat::GetObjectCounts().workItems, mWorkItemsBefore) << "work items leaked";
        kplat::ClearFaults();
        gRuns = nullptr;
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    DEVICE_OBJECT mDevice;
    std::vector<CallbackRun> mRuns;
    ULONG mSavedMask = 0;
    uint64_t mWorkItemsBefore = 0;
};

inline size_t CountOf(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) n++;
    return n;
}

}  // namespace kntest
