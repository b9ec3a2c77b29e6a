// Helpers of the work item and timer tests: a blocker that holds a work
// queue, a timer that sets an event at a virtual time, substring counting.
#pragma once

#include <string>

#include <kplat/platform.h>

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

inline size_t CountOf(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + 1)) n++;
    return n;
}

}  // namespace kntest
