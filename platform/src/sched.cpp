// The dispatcher of the stand-in: clock, waits on events, mutexes and timers,
// the DPC queue, the two work queues and the timer queue, and the idle
// detection that lets a virtual clock jump from deadline to deadline.
//
// One mutex (the dispatcher lock, Scheduler::mutex) guards all of it, as the
// kernel's dispatcher lock does. Spin locks do not go through it.
//
// Busy accounting: `busy` counts the threads that may still produce work --
// stand-in threads while they run an item, the controller while it is not
// blocked in a wait nor inside RunUntilIdle/AdvanceTime, driver threads while
// not blocked. Whoever wakes a waiter adds one to `busy` on the waiter's
// behalf in the same critical section, so there is no moment at which a woken
// thread looks idle. Idle = no DPC or work item queued and busy == 0; every
// transition is made under the dispatcher lock, so one check is exact.
//
// One file on purpose: everything here runs under the one dispatcher lock
// and its idle rule reads all the queues together; split, the lock's
// invariants would be spread over files that must be read together anyway.
#include <kplat/platform.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "internal.h"
#include "thread_state.h"

using namespace kplat_internal;

// Work item of the I/O manager.
struct _IO_WORKITEM {
    LIST_ENTRY link;  // in a work queue while queued
    PDEVICE_OBJECT deviceObject;
    PIO_WORKITEM_ROUTINE routine;
    PVOID context;
    bool queued;
};

namespace {

constexpr UCHAR kEventNotificationObject = 0;
constexpr UCHAR kEventSynchronizationObject = 1;
constexpr UCHAR kMutantObject = 2;
constexpr UCHAR kTimerNotificationObject = 8;
constexpr UCHAR kDpcObject = 19;

// 2014-07-24 00:00:00 UTC in 100 ns units since 1601-01-01.
constexpr uint64_t kVirtualEpoch = 130506336000000000ULL;
// Seconds between 1601-01-01 and 1970-01-01.
constexpr uint64_t kUnixEpochIn1601 = 11644473600ULL;

struct Scheduler {
    Scheduler() {
        InitializeListHead(&dpcQueue);
        InitializeListHead(&workQueue[0]);
        InitializeListHead(&workQueue[1]);
        InitializeListHead(&timers);
        InitializeListHead(&timedWaits);
    }

    kplat_internal::SpinningMutex mutex;  // the dispatcher lock: guards every field below but the atomics

    std::atomic<bool> started{false};
    std::atomic<kplat::ClockMode> mode{kplat::ClockMode::Virtual};
    std::atomic<uint64_t> virtualNow{0};  // written under mutex, read anywhere
    std::chrono::steady_clock::time_point realStart;
    uint64_t realSystemTimeBase = 0;  // system time at clock 0, real mode
    bool stopping = false;

    LIST_ENTRY dpcQueue;      // KDPC::DpcListEntry, in queueing order
    LIST_ENTRY workQueue[2];  // _IO_WORKITEM::link, per WORK_QUEUE_TYPE
    LIST_ENTRY timers;        // KTIMER::TimerListEntry, by (DueTime, Sequence)
    LIST_ENTRY timedWaits;    // WaitBlock::timedLink, by (deadline, sequence)
    uint64_t sequence = 0;

    int busy = 0;
    bool dpcRunning = false;
    int dpcsRunningElsewhere = 0;  // DPCs a thread runs as its IRQL drops (RunOwnDpc)
    ThreadState* controller = nullptr;
    bool controllerBlocked = false;

    std::condition_variable dpcCv;
    std::condition_variable workCv[2];
    std::condition_variable idleCv;
    std::condition_variable timerCv;  // real clock: wakes the timer thread
    // Real clock: when the timer thread wakes up by itself (UINT64_MAX: not
    // before it is notified; 0: it is not waiting). A new deadline wakes it
    // only when it is earlier: a timer set again and again (a watchdog)
    // costs no wake-up.
    uint64_t timerWakeAt = 0;
    std::vector<std::thread> threads;
    std::vector<ThreadState*> standInThreads;
};

Scheduler& S() {
    static Scheduler s;
    return s;
}

using Lock = std::unique_lock<std::mutex>;

uint64_t RealNow(const Scheduler& s) {
    return (uint64_t)std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() -
                                                                          s.realStart)
               .count() /
           100;
}

uint64_t ClockNow() {
    Scheduler& s = S();
    if (s.mode.load(std::memory_order_relaxed) == kplat::ClockMode::Real && s.started.load()) return RealNow(s);
    return s.virtualNow.load(std::memory_order_acquire);
}

uint64_t SystemTimeBase(const Scheduler& s) {
    return s.mode.load() == kplat::ClockMode::Real && s.started.load() ? s.realSystemTimeBase : kVirtualEpoch;
}

// Converts a kernel due time (negative: relative, positive: absolute system
// time) into clock units, given the clock's reading now.
uint64_t DeadlineFromDueTime(LONGLONG due, uint64_t now) {
    if (due < 0) return now + (uint64_t)(-due);
    uint64_t base = SystemTimeBase(S());
    uint64_t abs = (uint64_t)due;
    return abs <= base ? 0 : std::max(now, abs - base);
}

bool IsIdleLocked(Scheduler& s) {
    return IsListEmpty(&s.dpcQueue) && IsListEmpty(&s.workQueue[0]) && IsListEmpty(&s.workQueue[1]) && s.busy == 0;
}

void RunOwnDpc(void* context);
void NotifyIfIdleLocked(Scheduler& s);

// A DPC goes to the DPC thread, except on the real clock when a thread of
// the program (not one of the stand-in's, nor the controller or a driver
// thread) queues it at DISPATCH_LEVEL: then, as on the processor that
// queued it, it runs on that thread when its IRQL drops (unless the DPC
// thread got to it first), and nobody has to wake the DPC thread. Either
// way it stays in the queue until it runs, for KeRemoveQueueDpc,
// KeFlushQueuedDpcs and idle detection.
bool QueueDpcLocked(Scheduler& s, PRKDPC dpc, PVOID a1, PVOID a2) {
    if (dpc->DpcData != NULL) return false;
    dpc->SystemArgument1 = a1;
    dpc->SystemArgument2 = a2;
    dpc->DpcData = (PVOID)&s.dpcQueue;
    InsertTailList(&s.dpcQueue, &dpc->DpcListEntry);
    if (s.mode.load(std::memory_order_relaxed) == kplat::ClockMode::Real && Self().kind == ThreadKind::External &&
        DeferUntilIrqlDrops(RunOwnDpc, dpc))
        return true;
    s.dpcCv.notify_one();
    return true;
}

// The DPC a thread queued at DISPATCH_LEVEL, now that its IRQL dropped.
void RunOwnDpc(void* context) {
    Scheduler& s = S();
    auto dpc = (PKDPC)context;
    Lock lk(s.mutex);
    if (dpc->DpcData == NULL) return;  // ran on the DPC thread, or removed
    RemoveEntryList(&dpc->DpcListEntry);
    dpc->DpcData = NULL;
    PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
    PVOID deferredContext = dpc->DeferredContext, a1 = dpc->SystemArgument1, a2 = dpc->SystemArgument2;
    s.busy++;
    s.dpcsRunningElsewhere++;
    lk.unlock();
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    routine(dpc, deferredContext, a1, a2);
    if (CurrentIrql() != DISPATCH_LEVEL)
        CheckFailed(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)routine, CurrentIrql(), DISPATCH_LEVEL, 0,
                    "a DPC routine returned at another IRQL than DISPATCH_LEVEL");
    KeLowerIrql(old);
    lk.lock();
    s.busy--;
    s.dpcsRunningElsewhere--;
    if (IsListEmpty(&s.dpcQueue)) s.idleCv.notify_all();  // KeFlushQueuedDpcs
    NotifyIfIdleLocked(s);
}

void WakeLocked(Scheduler& s, WaitBlock* wb, NTSTATUS status, ThreadState* owner) {
    RemoveEntryList(&wb->objectLink);
    if (wb->timed) RemoveEntryList(&wb->timedLink);
    wb->satisfied = true;
    wb->status = status;
    if (wb->counted) s.busy++;
    if (owner == s.controller) s.controllerBlocked = false;
    wb->cv.notify_one();
}

ThreadState* OwnerOf(WaitBlock* wb) {
    return (ThreadState*)((char*)wb - offsetof(ThreadState, wait));
}

// Hands the object's signal to its waiters, as far as it goes.
void SignalWaitersLocked(Scheduler& s, DISPATCHER_HEADER* h) {
    while (!IsListEmpty(&h->WaitListHead) && h->SignalState > 0) {
        WaitBlock* wb = CONTAINING_RECORD(h->WaitListHead.Flink, WaitBlock, objectLink);
        ThreadState* owner = OwnerOf(wb);
        if (h->Type == kEventSynchronizationObject) {
            h->SignalState = 0;
        } else if (h->Type == kMutantObject) {
            h->SignalState--;
            ((KMUTEX*)h)->OwnerThread = (PVOID)owner->id;
        }
        WakeLocked(s, wb, STATUS_SUCCESS, owner);
    }
}

// Takes the object for `self` if it is signalled.
bool TrySatisfyLocked(DISPATCHER_HEADER* h, ThreadState& self) {
    switch (h->Type) {
    case kMutantObject: {
        KMUTEX* m = (KMUTEX*)h;
        if (h->SignalState > 0 || m->OwnerThread == (PVOID)self.id) {
            h->SignalState--;
            m->OwnerThread = (PVOID)self.id;
            return true;
        }
        return false;
    }
    case kEventSynchronizationObject:
        if (h->SignalState > 0) {
            h->SignalState = 0;
            return true;
        }
        return false;
    default:
        return h->SignalState > 0;
    }
}

void ExpireTimerLocked(Scheduler& s, PKTIMER timer) {
    RemoveEntryList(&timer->TimerListEntry);
    timer->Header.Inserted = 0;
    timer->Header.SignalState = 1;
    SignalWaitersLocked(s, &timer->Header);
    if (timer->Dpc) QueueDpcLocked(s, timer->Dpc, (PVOID)(ULONG_PTR)timer->DueTime, NULL);
}

bool EarliestDeadlineLocked(Scheduler& s, uint64_t* deadline) {
    bool any = false;
    if (!IsListEmpty(&s.timers)) {
        *deadline = CONTAINING_RECORD(s.timers.Flink, KTIMER, TimerListEntry)->DueTime;
        any = true;
    }
    if (!IsListEmpty(&s.timedWaits)) {
        uint64_t d = CONTAINING_RECORD(s.timedWaits.Flink, WaitBlock, timedLink)->deadline;
        if (!any || d < *deadline) *deadline = d;
        any = true;
    }
    return any;
}

// Expires every timer and timed wait that is due at `now`, earliest first,
// equal deadlines in the order they were set.
void ExpireDueLocked(Scheduler& s, uint64_t now) {
    for (;;) {
        PKTIMER t = IsListEmpty(&s.timers) ? nullptr : CONTAINING_RECORD(s.timers.Flink, KTIMER, TimerListEntry);
        WaitBlock* w = IsListEmpty(&s.timedWaits) ? nullptr : CONTAINING_RECORD(s.timedWaits.Flink, WaitBlock, timedLink);
        if (t && t->DueTime > now) t = nullptr;
        if (w && w->deadline > now) w = nullptr;
        if (!t && !w) return;
        bool timerFirst = t && (!w || t->DueTime < w->deadline ||
                                (t->DueTime == w->deadline && t->Sequence < w->sequence));
        if (timerFirst)
            ExpireTimerLocked(s, t);
        else
            WakeLocked(s, w, STATUS_TIMEOUT, OwnerOf(w));
    }
}

// Virtual clock: when the controller waits and nothing else can run, time
// jumps to the next deadline.
void MaybeAutoAdvanceLocked(Scheduler& s) {
    if (s.mode.load() != kplat::ClockMode::Virtual || !s.controllerBlocked || s.stopping || !IsIdleLocked(s))
        return;
    uint64_t next;
    if (EarliestDeadlineLocked(s, &next)) {
        if (next > s.virtualNow.load()) s.virtualNow.store(next, std::memory_order_release);
        ExpireDueLocked(s, s.virtualNow.load());
        return;
    }
    CheckFailed(kplat::kDeadlock, 0, 0, 0, 0,
                "virtual clock: the controller waits, every other thread is idle and no timer or timed wait "
                "is pending, so the wait can never end");
    WaitBlock* wb = &s.controller->wait;
    if (!wb->satisfied && wb->object) WakeLocked(s, wb, STATUS_TIMEOUT, s.controller);
}

void NotifyIfIdleLocked(Scheduler& s) {
    if (!IsIdleLocked(s)) return;
    s.idleCv.notify_all();
    MaybeAutoAdvanceLocked(s);
}

void InsertSortedTimerLocked(Scheduler& s, PKTIMER timer) {
    PLIST_ENTRY e = s.timers.Blink;
    while (e != &s.timers) {
        PKTIMER t = CONTAINING_RECORD(e, KTIMER, TimerListEntry);
        if (t->DueTime <= timer->DueTime) break;  // equal due times keep setting order
        e = e->Blink;
    }
    // insert after e
    timer->TimerListEntry.Flink = e->Flink;
    timer->TimerListEntry.Blink = e;
    e->Flink->Blink = &timer->TimerListEntry;
    e->Flink = &timer->TimerListEntry;
}

void InsertSortedWaitLocked(Scheduler& s, WaitBlock* wb) {
    PLIST_ENTRY e = s.timedWaits.Blink;
    while (e != &s.timedWaits) {
        if (CONTAINING_RECORD(e, WaitBlock, timedLink)->deadline <= wb->deadline) break;
        e = e->Blink;
    }
    wb->timedLink.Flink = e->Flink;
    wb->timedLink.Blink = e;
    e->Flink->Blink = &wb->timedLink;
    e->Flink = &wb->timedLink;
}

// ---------------------------------------------------------------------------
// Stand-in threads
// ---------------------------------------------------------------------------
void RegisterStandIn(Scheduler& s, ThreadState& self) {
    self.kind = ThreadKind::StandIn;
    std::lock_guard<std::mutex> lock(s.mutex);
    s.standInThreads.push_back(&self);
}

void DpcThread() {
    Scheduler& s = S();
    ThreadState& self = Self();
    RegisterStandIn(s, self);
    Lock lk(s.mutex);
    for (;;) {
        s.dpcCv.wait(lk, [&] { return !IsListEmpty(&s.dpcQueue) || s.stopping; });
        if (IsListEmpty(&s.dpcQueue)) break;  // stopping
        PKDPC dpc = CONTAINING_RECORD(RemoveHeadList(&s.dpcQueue), KDPC, DpcListEntry);
        dpc->DpcData = NULL;
        PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
        PVOID context = dpc->DeferredContext, a1 = dpc->SystemArgument1, a2 = dpc->SystemArgument2;
        s.busy++;
        s.dpcRunning = true;
        lk.unlock();
        self.irql = DISPATCH_LEVEL;
        routine(dpc, context, a1, a2);
        if (self.irql != DISPATCH_LEVEL)
            CheckFailed(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)routine, self.irql, DISPATCH_LEVEL, 0,
                        "a DPC routine returned at another IRQL than DISPATCH_LEVEL");
        self.irql = PASSIVE_LEVEL;
        lk.lock();
        s.busy--;
        s.dpcRunning = false;
        if (IsListEmpty(&s.dpcQueue)) s.idleCv.notify_all();  // KeFlushQueuedDpcs
        NotifyIfIdleLocked(s);
    }
}

void WorkerThread(int queue) {
    Scheduler& s = S();
    ThreadState& self = Self();
    RegisterStandIn(s, self);
    Lock lk(s.mutex);
    for (;;) {
        s.workCv[queue].wait(lk, [&] { return !IsListEmpty(&s.workQueue[queue]) || s.stopping; });
        if (IsListEmpty(&s.workQueue[queue])) break;  // stopping
        PIO_WORKITEM item = CONTAINING_RECORD(RemoveHeadList(&s.workQueue[queue]), IO_WORKITEM, link);
        item->queued = false;
        PIO_WORKITEM_ROUTINE routine = item->routine;
        PDEVICE_OBJECT device = item->deviceObject;
        PVOID context = item->context;
        s.busy++;
        lk.unlock();
        // The routine may free or queue the work item again: it is not touched after this.
        routine(device, context);
        if (self.irql != PASSIVE_LEVEL) {
            CheckFailed(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)routine, self.irql, 0, 0,
                        "a work item routine returned at a raised IRQL");
            self.irql = PASSIVE_LEVEL;
        }
        lk.lock();
        s.busy--;
        NotifyIfIdleLocked(s);
    }
}

// Real clock only: expires timers and timed waits when they fall due.
void TimerThread() {
    Scheduler& s = S();
    ThreadState& self = Self();
    RegisterStandIn(s, self);
    Lock lk(s.mutex);
    while (!s.stopping) {
        ExpireDueLocked(s, RealNow(s));
        uint64_t next;
        if (EarliestDeadlineLocked(s, &next)) {
            s.timerWakeAt = next;
            s.timerCv.wait_until(lk, s.realStart + std::chrono::nanoseconds(next * 100));
        } else {
            s.timerWakeAt = UINT64_MAX;
            s.timerCv.wait(lk);
        }
        s.timerWakeAt = 0;
    }
}

// Real clock: a new deadline for the timer thread (dispatcher lock held).
void WakeTimerThreadLocked(Scheduler& s, uint64_t deadline) {
    if (s.mode.load() != kplat::ClockMode::Real || deadline >= s.timerWakeAt) return;
    s.timerWakeAt = deadline;  // one notification is enough until it waits again
    s.timerCv.notify_one();
}

}  // namespace

// ---------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------
LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
    if (PerformanceFrequency) PerformanceFrequency->QuadPart = 10000000;
    LARGE_INTEGER v;
    v.QuadPart = (LONGLONG)ClockNow();
    return v;
}

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
    CurrentTime->QuadPart = (LONGLONG)(SystemTimeBase(S()) + ClockNow());
}

// ---------------------------------------------------------------------------
// Events, mutexes, waits
// ---------------------------------------------------------------------------
void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    memset(Event, 0, sizeof(*Event));
    Event->Header.Type = Type == SynchronizationEvent ? kEventSynchronizationObject : kEventNotificationObject;
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    (void)Increment;
    (void)Wait;
    Scheduler& s = S();
    Lock lk(s.mutex);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    SignalWaitersLocked(s, &Event->Header);
    return previous;
}

void KeClearEvent(PRKEVENT Event) {
    Lock lk(S().mutex);
    Event->Header.SignalState = 0;
}

LONG KeResetEvent(PRKEVENT Event) {
    Lock lk(S().mutex);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

LONG KeReadStateEvent(PRKEVENT Event) {
    Lock lk(S().mutex);
    return Event->Header.SignalState;
}

void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level) {
    (void)Level;
    memset(Mutex, 0, sizeof(*Mutex));
    Mutex->Header.Type = kMutantObject;
    Mutex->Header.SignalState = 1;
    InitializeListHead(&Mutex->Header.WaitListHead);
    InitializeListHead(&Mutex->MutantListEntry);
}

LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait) {
    (void)Wait;
    Scheduler& s = S();
    Lock lk(s.mutex);
    if (Mutex->OwnerThread != (PVOID)Self().id) {
        lk.unlock();
        CheckFailed(0x000000C0 /* STATUS_MUTANT_NOT_OWNED as a stop */, (ULONG_PTR)Mutex,
                    (ULONG_PTR)Mutex->OwnerThread, Self().id, 0, "KeReleaseMutex by a thread that does not own it");
        return 0;
    }
    LONG previous = Mutex->Header.SignalState;
    if (++Mutex->Header.SignalState == 1) {
        Mutex->OwnerThread = NULL;
        SignalWaitersLocked(s, &Mutex->Header);
    }
    return previous;
}

LONG KeReadStateMutex(PRKMUTEX Mutex) {
    Lock lk(S().mutex);
    return Mutex->Header.SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout) {
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    Scheduler& s = S();
    ThreadState& self = Self();
    DISPATCHER_HEADER* h = (DISPATCHER_HEADER*)Object;
    const bool poll = Timeout != NULL && Timeout->QuadPart == 0;
    if (self.irql > (poll ? DISPATCH_LEVEL : APC_LEVEL)) {
        CheckFailed(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)Object, self.irql, poll, 0,
                    poll ? "KeWaitForSingleObject above DISPATCH_LEVEL"
                         : "blocking KeWaitForSingleObject above APC_LEVEL");
        return STATUS_TIMEOUT;
    }
    Lock lk(s.mutex);
    if (TrySatisfyLocked(h, self)) return STATUS_SUCCESS;
    if (poll) return STATUS_TIMEOUT;
    if (!s.started.load()) {
        lk.unlock();
        CheckFailed(kplat::kDeadlock, (ULONG_PTR)Object, 0, 0, 0,
                    "blocking wait while the platform stand-in is not started (kplat::Start)");
        return STATUS_TIMEOUT;
    }
    WaitBlock& wb = self.wait;
    wb.object = Object;
    wb.satisfied = false;
    wb.status = STATUS_SUCCESS;
    wb.timed = Timeout != NULL;
    wb.counted = self.kind != ThreadKind::External;
    InsertTailList(&h->WaitListHead, &wb.objectLink);
    if (wb.timed) {
        wb.deadline = DeadlineFromDueTime(Timeout->QuadPart, ClockNow());
        wb.sequence = ++s.sequence;
        InsertSortedWaitLocked(s, &wb);
        WakeTimerThreadLocked(s, wb.deadline);
    }
    if (wb.counted) s.busy--;
    if (&self == s.controller) s.controllerBlocked = true;
    NotifyIfIdleLocked(s);
    wb.cv.wait(lk, [&] { return wb.satisfied; });
    wb.object = nullptr;
    return wb.status;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    NTSTATUS st = KeWaitForSingleObject(&never, Executive, WaitMode, Alertable, Interval);
    return st == STATUS_TIMEOUT ? STATUS_SUCCESS : st;
}

// ---------------------------------------------------------------------------
// DPCs and timers
// ---------------------------------------------------------------------------
void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    memset(Dpc, 0, sizeof(*Dpc));
    Dpc->Type = kDpcObject;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    Scheduler& s = S();
    Lock lk(s.mutex);
    return QueueDpcLocked(s, Dpc, SystemArgument1, SystemArgument2);
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc) {
    Scheduler& s = S();
    Lock lk(s.mutex);
    if (Dpc->DpcData == NULL) return FALSE;
    RemoveEntryList(&Dpc->DpcListEntry);
    Dpc->DpcData = NULL;
    NotifyIfIdleLocked(s);
    return TRUE;
}

void KeFlushQueuedDpcs(void) {
    Scheduler& s = S();
    if (Self().irql != PASSIVE_LEVEL) {
        CheckFailed(IRQL_NOT_LESS_OR_EQUAL, Self().irql, 0, 0, 0, "KeFlushQueuedDpcs above PASSIVE_LEVEL");
        return;
    }
    Lock lk(s.mutex);
    s.idleCv.wait(lk, [&] {
        return (IsListEmpty(&s.dpcQueue) && !s.dpcRunning && s.dpcsRunningElsewhere == 0) || !s.started.load();
    });
}

void KeInitializeTimer(PKTIMER Timer) {
    memset(Timer, 0, sizeof(*Timer));
    Timer->Header.Type = kTimerNotificationObject;
    InitializeListHead(&Timer->Header.WaitListHead);
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) {
    Scheduler& s = S();
    Lock lk(s.mutex);
    BOOLEAN wasPending = Timer->Header.Inserted != 0;
    if (wasPending) RemoveEntryList(&Timer->TimerListEntry);
    const uint64_t now = ClockNow();  // one reading for both uses
    Timer->DueTime = DeadlineFromDueTime(DueTime.QuadPart, now);
    Timer->Sequence = ++s.sequence;
    Timer->Dpc = Dpc;
    Timer->Period = 0;
    Timer->Header.SignalState = 0;
    Timer->Header.Inserted = 1;
    InsertSortedTimerLocked(s, Timer);
    if (Timer->DueTime <= now) {
        // Due already (a zero or past due time): expires now, not at the next
        // move of the clock.
        ExpireTimerLocked(s, Timer);
    } else {
        WakeTimerThreadLocked(s, Timer->DueTime);
    }
    return wasPending;
}

BOOLEAN KeCancelTimer(PKTIMER Timer) {
    Scheduler& s = S();
    Lock lk(s.mutex);
    if (!Timer->Header.Inserted) return FALSE;
    RemoveEntryList(&Timer->TimerListEntry);
    Timer->Header.Inserted = 0;
    return TRUE;
}

BOOLEAN KeReadStateTimer(PKTIMER Timer) {
    Lock lk(S().mutex);
    return Timer->Header.SignalState != 0;
}

// ---------------------------------------------------------------------------
// Work items
// ---------------------------------------------------------------------------
PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
    auto* item = (PIO_WORKITEM)ExAllocatePoolWithTag(NonPagedPool, sizeof(IO_WORKITEM), kplat::MakeTag("IoWk"));
    if (!item) return NULL;
    memset(item, 0, sizeof(*item));
    item->deviceObject = DeviceObject;
    CountObject(ObjectKind::WorkItem, +1);
    return item;
}

void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context) {
    Scheduler& s = S();
    Lock lk(s.mutex);
    if (IoWorkItem->queued) {
        lk.unlock();
        CheckFailed(0x000000E4 /* WORKER_INVALID */, (ULONG_PTR)IoWorkItem, 0, 0, 0,
                    "IoQueueWorkItem of a work item that is already queued");
        return;
    }
    int q = QueueType == CriticalWorkQueue ? 0 : 1;
    IoWorkItem->routine = WorkerRoutine;
    IoWorkItem->context = Context;
    IoWorkItem->queued = true;
    InsertTailList(&s.workQueue[q], &IoWorkItem->link);
    s.workCv[q].notify_one();
}

void IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
    {
        Lock lk(S().mutex);
        if (IoWorkItem->queued) {
            lk.unlock();
            CheckFailed(0x000000E4 /* WORKER_INVALID */, (ULONG_PTR)IoWorkItem, 1, 0, 0,
                        "IoFreeWorkItem of a work item that is still queued");
            return;
        }
    }
    CountObject(ObjectKind::WorkItem, -1);
    ExFreePoolWithTag(IoWorkItem, kplat::MakeTag("IoWk"));
}

// ---------------------------------------------------------------------------
// Control
// ---------------------------------------------------------------------------
namespace kplat {

void Start(const Options& options) {
    Scheduler& s = S();
    ThreadState& self = Self();
    {
        Lock lk(s.mutex);
        if (s.started.load()) {
            lk.unlock();
            CheckFailed(kDeadlock, 0, 0, 0, 0, "kplat::Start while already started");
            return;
        }
        s.mode.store(options.clock);
        s.virtualNow.store(0);
        s.realStart = std::chrono::steady_clock::now();
        auto wall = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
        s.realSystemTimeBase = kUnixEpochIn1601 * 10000000ULL + (uint64_t)wall / 100;
        s.stopping = false;
        s.busy = 1;  // the controller
        s.controller = &self;
        s.controllerBlocked = false;
        self.kind = ThreadKind::Controller;
        s.started.store(true);
    }
    s.threads.emplace_back(DpcThread);
    s.threads.emplace_back(WorkerThread, 0);
    s.threads.emplace_back(WorkerThread, 1);
    if (options.clock == ClockMode::Real) s.threads.emplace_back(TimerThread);
}

void Stop() {
    Scheduler& s = S();
    if (!s.started.load()) return;
    RunUntilIdle();
    {
        Lock lk(s.mutex);
        s.stopping = true;
        while (!IsListEmpty(&s.timers)) {
            PKTIMER t = CONTAINING_RECORD(RemoveHeadList(&s.timers), KTIMER, TimerListEntry);
            t->Header.Inserted = 0;
        }
        for (ThreadState* t : s.standInThreads) {
            if (t->wait.object && !t->wait.satisfied) {
                lk.unlock();
                CheckFailed(kDeadlock, (ULONG_PTR)t->wait.object, t->id, 0, 0,
                            "kplat::Stop while a DPC or work item still waits; its wait is ended");
                lk.lock();
                if (t->wait.object && !t->wait.satisfied) WakeLocked(s, &t->wait, STATUS_UNSUCCESSFUL, t);
            }
        }
        s.dpcCv.notify_all();
        s.workCv[0].notify_all();
        s.workCv[1].notify_all();
        s.timerCv.notify_all();
    }
    for (std::thread& t : s.threads) t.join();
    s.threads.clear();
    Lock lk(s.mutex);
    s.standInThreads.clear();
    if (s.controller) s.controller->kind = ThreadKind::External;
    s.controller = nullptr;
    s.busy = 0;
    s.started.store(false);
    s.stopping = false;
    s.idleCv.notify_all();
}

bool IsStarted() { return S().started.load(); }

ClockMode GetClockMode() { return S().mode.load(); }

uint64_t Now() { return ClockNow(); }

void RunUntilIdle() {
    Scheduler& s = S();
    ThreadState& self = Self();
    if (!s.started.load()) return;
    Lock lk(s.mutex);
    bool counted = self.kind == ThreadKind::Controller || self.kind == ThreadKind::Driver;
    if (counted) s.busy--;
    NotifyIfIdleLocked(s);
    s.idleCv.wait(lk, [&] { return IsIdleLocked(s); });
    if (counted) s.busy++;
}

void AdvanceTime100ns(uint64_t units) {
    Scheduler& s = S();
    ThreadState& self = Self();
    if (!s.started.load() || s.mode.load() != ClockMode::Virtual || &self != s.controller) {
        CheckFailed(kDeadlock, units, 0, 0, 0,
                    "kplat::AdvanceTime needs a started virtual clock and is for the controller thread");
        return;
    }
    Lock lk(s.mutex);
    s.busy--;
    const uint64_t target = s.virtualNow.load() + units;
    for (;;) {
        NotifyIfIdleLocked(s);
        s.idleCv.wait(lk, [&] { return IsIdleLocked(s); });
        uint64_t next;
        if (!EarliestDeadlineLocked(s, &next) || next > target) break;
        if (next > s.virtualNow.load()) s.virtualNow.store(next, std::memory_order_release);
        ExpireDueLocked(s, s.virtualNow.load());
    }
    s.virtualNow.store(target, std::memory_order_release);
    s.busy++;
}

void AdvanceTime(uint64_t ms) { AdvanceTime100ns(ms * 10000); }

void EnterDriverThread() {
    Scheduler& s = S();
    ThreadState& self = Self();
    Lock lk(s.mutex);
    self.kind = ThreadKind::Driver;
    s.busy++;
}

void LeaveDriverThread() {
    Scheduler& s = S();
    ThreadState& self = Self();
    Lock lk(s.mutex);
    self.kind = ThreadKind::External;
    s.busy--;
    NotifyIfIdleLocked(s);
}

}  // namespace kplat
