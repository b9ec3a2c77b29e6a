// The dispatcher of the stand-in: DPCs, timers, work items, events, mutexes,
// waits and the virtual clock.
#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

LARGE_INTEGER RelativeMs(LONGLONG ms) {
    LARGE_INTEGER t;
    t.QuadPart = -ms * 10000;
    return t;
}

class Dispatcher : public ::testing::Test {
protected:
    kplat::Scope mScope;  // virtual clock
};

// Records the order in which routines ran and the IRQL they ran at.
struct Trace {
    std::vector<int> order;
    std::vector<KIRQL> irql;
    std::vector<uint64_t> atMs;
};

void RecordDpc(PKDPC, PVOID ctx, PVOID a1, PVOID) {
    auto* t = (Trace*)ctx;
    t->order.push_back((int)(intptr_t)a1);
    t->irql.push_back(KeGetCurrentIrql());
    t->atMs.push_back(kplat::NowMs());
}

// Occupies the DPC thread until opened, so that DPCs queued meanwhile stay
// queued whatever the thread timing.
struct DpcGate {
    std::atomic<bool> open{false};
    std::atomic<bool> entered{false};
    KDPC dpc;
    DpcGate() {
        KeInitializeDpc(&dpc, [](PKDPC, PVOID ctx, PVOID, PVOID) {
            auto* g = (DpcGate*)ctx;
            g->entered.store(true);
            while (!g->open.load()) std::this_thread::yield();
        }, this);
        KeInsertQueueDpc(&dpc, NULL, NULL);
        while (!entered.load()) std::this_thread::yield();
    }
    void Open() { open.store(true); }
};

TEST_F(Dispatcher, DpcQueuedTwiceRunsOnceAtDispatchLevel) {
    Trace trace;
    KDPC dpc;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    DpcGate gate;
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, (PVOID)1, NULL));
    EXPECT_FALSE(KeInsertQueueDpc(&dpc, (PVOID)2, NULL));
    gate.Open();
    kplat::RunUntilIdle();
    ASSERT_EQ(trace.order.size(), 1u);
    EXPECT_EQ(trace.irql[0], DISPATCH_LEVEL);
    // Once run, it can be queued again.
    EXPECT_TRUE(KeInsertQueueDpc(&dpc, (PVOID)3, NULL));
    kplat::RunUntilIdle();
    EXPECT_EQ(trace.order, (std::vector<int>{1, 3}));
}

TEST_F(Dispatcher, RemoveQueueDpcTakesItOut) {
    Trace trace;
    KDPC dpc;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    DpcGate gate;
    KeInsertQueueDpc(&dpc, NULL, NULL);
    EXPECT_TRUE(KeRemoveQueueDpc(&dpc));
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
    gate.Open();
    kplat::RunUntilIdle();
    EXPECT_TRUE(trace.order.empty());
}

TEST_F(Dispatcher, TimerFiresExactlyAtItsDeadline) {
    Trace trace;
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    KeInitializeTimer(&timer);
    EXPECT_FALSE(KeSetTimer(&timer, RelativeMs(100), &dpc));
    kplat::AdvanceTime(99);
    EXPECT_TRUE(trace.order.empty());
    EXPECT_FALSE(KeReadStateTimer(&timer));
    kplat::AdvanceTime(1);
    ASSERT_EQ(trace.atMs, (std::vector<uint64_t>{100}));
    EXPECT_TRUE(KeReadStateTimer(&timer));
    EXPECT_FALSE(KeCancelTimer(&timer));  // no longer pending
}

TEST_F(Dispatcher, NewSettingReplacesPendingTimer) {
    Trace trace;
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, RelativeMs(100), &dpc);
    EXPECT_TRUE(KeSetTimer(&timer, RelativeMs(5000), &dpc));
    kplat::AdvanceTime(4999);
    EXPECT_TRUE(trace.order.empty());
    kplat::AdvanceTime(10000);
    EXPECT_EQ(trace.atMs, (std::vector<uint64_t>{5000}));
}

TEST_F(Dispatcher, CancelBeforeDeadlineWinsOverFire) {
    Trace trace;
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, RelativeMs(500), &dpc);
    kplat::AdvanceTime(499);
    EXPECT_TRUE(KeCancelTimer(&timer));
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(trace.order.empty());
}

TEST_F(Dispatcher, EqualDeadlinesExpireInSettingOrder) {
    Trace trace;
    KDPC dpc[4];
    KTIMER timer[4];
    const int setOrder[4] = {2, 0, 3, 1};
    for (int i = 0; i < 4; ++i) {
        KeInitializeDpc(&dpc[i], [](PKDPC d, PVOID ctx, PVOID, PVOID) {
            auto* t = (Trace*)ctx;
            t->order.push_back((int)(intptr_t)d->Importance);
        }, &trace);
        dpc[i].Importance = (UCHAR)i;
        KeInitializeTimer(&timer[i]);
    }
    for (int i : setOrder) KeSetTimer(&timer[i], RelativeMs(20), &dpc[i]);
    kplat::AdvanceTime(20);
    EXPECT_EQ(trace.order, (std::vector<int>{2, 0, 3, 1}));
}

TEST_F(Dispatcher, TimerWithZeroDelayExpiresWithoutTheClockMoving) {
    Trace trace;
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, RelativeMs(0), &dpc);
    kplat::RunUntilIdle();
    EXPECT_EQ(trace.atMs, (std::vector<uint64_t>{0}));
    EXPECT_FALSE(KeCancelTimer(&timer));
}

TEST_F(Dispatcher, AbsoluteDueTimeCountsFromSystemTime) {
    Trace trace;
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, RecordDpc, &trace);
    KeInitializeTimer(&timer);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    LARGE_INTEGER due;
    due.QuadPart = now.QuadPart + 300 * 10000;
    KeSetTimer(&timer, due, &dpc);
    kplat::AdvanceTime(1000);
    EXPECT_EQ(trace.atMs, (std::vector<uint64_t>{300}));
}

struct WorkLog {
    std::vector<int> order;
    std::vector<KIRQL> irql;
    std::vector<HANDLE> threads;
};

struct WorkCtx {
    WorkLog* log;
    int id;
    PIO_WORKITEM item;
};

void RecordWork(PDEVICE_OBJECT, PVOID ctx) {
    auto* c = (WorkCtx*)ctx;
    c->log->order.push_back(c->id);
    c->log->irql.push_back(KeGetCurrentIrql());
    c->log->threads.push_back(PsGetCurrentThreadId());
}

TEST_F(Dispatcher, WorkItemsRunInQueueingOrderAtPassiveOnWorkerThreads) {
    WorkLog log;
    std::vector<WorkCtx> ctx(6);
    DEVICE_OBJECT device{};
    for (int i = 0; i < 6; ++i) {
        ctx[i] = {&log, i, IoAllocateWorkItem(&device)};
        ASSERT_NE(ctx[i].item, nullptr);
    }
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);  // work items may be queued from DPC level
    for (int i = 0; i < 6; ++i) IoQueueWorkItem(ctx[i].item, RecordWork, DelayedWorkQueue, &ctx[i]);
    KeLowerIrql(old);
    kplat::RunUntilIdle();
    EXPECT_EQ(log.order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    for (KIRQL irql : log.irql) EXPECT_EQ(irql, PASSIVE_LEVEL);
    EXPECT_NE(log.threads[0], PsGetCurrentThreadId());
    for (auto& c : ctx) IoFreeWorkItem(c.item);
    EXPECT_EQ(kplat::GetObjectCounts().workItems, 0u);
}

TEST_F(Dispatcher, TimedWaitTimesOutOnVirtualTimeExactly) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER timeout = RelativeMs(5000);
    auto wallStart = std::chrono::steady_clock::now();
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_TIMEOUT);
    EXPECT_EQ(kplat::Now(), 5000u * 10000);
    // A 5 s time-out costs no 5 s of wall time (generous bound: sanitizers).
    EXPECT_LT(std::chrono::steady_clock::now() - wallStart, std::chrono::seconds(2));
}

TEST_F(Dispatcher, TimerDpcWakesWaiterBeforeItsTimeOut) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, [](PKDPC, PVOID ctx, PVOID, PVOID) { KeSetEvent((PKEVENT)ctx, 0, FALSE); }, &event);
    KeInitializeTimer(&timer);
    KeSetTimer(&timer, RelativeMs(100), &dpc);
    LARGE_INTEGER timeout = RelativeMs(5000);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout), STATUS_SUCCESS);
    EXPECT_EQ(kplat::NowMs(), 100u);
    // Notification events stay signalled until cleared.
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    KeClearEvent(&event);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
}

struct WaiterCtx {
    KEVENT event;
    NTSTATUS status = STATUS_PENDING;
    uint64_t atMs = 0;
    PIO_WORKITEM item;
};

TEST_F(Dispatcher, WorkerWaitTimesOutWhenTheControllerAdvances) {
    WaiterCtx w;
    DEVICE_OBJECT device{};
    KeInitializeEvent(&w.event, SynchronizationEvent, FALSE);
    w.item = IoAllocateWorkItem(&device);
    IoQueueWorkItem(w.item, [](PDEVICE_OBJECT, PVOID ctx) {
        auto* w = (WaiterCtx*)ctx;
        LARGE_INTEGER t = RelativeMs(2000);
        w->status = KeWaitForSingleObject(&w->event, Executive, KernelMode, FALSE, &t);
        w->atMs = kplat::NowMs();
    }, CriticalWorkQueue, &w);
    kplat::RunUntilIdle();  // the worker now blocks; the clock stays
    EXPECT_EQ(kplat::NowMs(), 0u);
    kplat::AdvanceTime(1999);
    EXPECT_EQ(w.status, STATUS_PENDING);
    kplat::AdvanceTime(1);
    EXPECT_EQ(w.status, STATUS_TIMEOUT);
    EXPECT_EQ(w.atMs, 2000u);
    IoFreeWorkItem(w.item);
}

TEST_F(Dispatcher, SynchronizationEventReleasesOneWaiterPerSet) {
    WaiterCtx a, b;
    DEVICE_OBJECT device{};
    KEVENT shared;
    KeInitializeEvent(&shared, SynchronizationEvent, FALSE);
    struct Ctx {
        PKEVENT ev;
        std::atomic<int>* done;
    };
    std::atomic<int> done{0};
    Ctx ctx{&shared, &done};
    auto waiter = [](PDEVICE_OBJECT, PVOID c) {
        auto* x = (Ctx*)c;
        KeWaitForSingleObject(x->ev, Executive, KernelMode, FALSE, NULL);
        x->done->fetch_add(1);
    };
    a.item = IoAllocateWorkItem(&device);
    b.item = IoAllocateWorkItem(&device);
    IoQueueWorkItem(a.item, waiter, CriticalWorkQueue, &ctx);
    IoQueueWorkItem(b.item, waiter, DelayedWorkQueue, &ctx);
    kplat::RunUntilIdle();
    EXPECT_EQ(done.load(), 0);
    KeSetEvent(&shared, 0, FALSE);
    kplat::RunUntilIdle();
    EXPECT_EQ(done.load(), 1);
    EXPECT_EQ(KeReadStateEvent(&shared), 0);  // consumed by the waiter
    KeSetEvent(&shared, 0, FALSE);
    kplat::RunUntilIdle();
    EXPECT_EQ(done.load(), 2);
    IoFreeWorkItem(a.item);
    IoFreeWorkItem(b.item);
}

TEST_F(Dispatcher, MutexIsRecursiveForItsOwner) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, NULL), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(KeReadStateMutex(&mutex), 0);  // still held once
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

TEST_F(Dispatcher, MutexWaiterGetsOwnershipOnRelease) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, NULL);
    struct Ctx {
        PKMUTEX m;
        HANDLE owner = 0;
        PIO_WORKITEM item;
    } ctx{&mutex, 0, nullptr};
    DEVICE_OBJECT device{};
    ctx.item = IoAllocateWorkItem(&device);
    IoQueueWorkItem(ctx.item, [](PDEVICE_OBJECT, PVOID c) {
        auto* x = (Ctx*)c;
        KeWaitForSingleObject(x->m, Executive, KernelMode, FALSE, NULL);
        x->owner = PsGetCurrentThreadId();
        KeReleaseMutex(x->m, FALSE);
    }, DelayedWorkQueue, &ctx);
    kplat::RunUntilIdle();
    EXPECT_EQ(ctx.owner, (HANDLE)0);
    KeReleaseMutex(&mutex, FALSE);
    kplat::RunUntilIdle();
    EXPECT_NE(ctx.owner, (HANDLE)0);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    IoFreeWorkItem(ctx.item);
}

TEST_F(Dispatcher, KeDelayExecutionThreadTakesVirtualTime) {
    LARGE_INTEGER t = RelativeMs(200);
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &t), STATUS_SUCCESS);
    EXPECT_EQ(kplat::NowMs(), 200u);
}

TEST_F(Dispatcher, PerformanceCounterAndSystemTimeFollowTheClock) {
    LARGE_INTEGER f, t0, t1;
    LARGE_INTEGER c0 = KeQueryPerformanceCounter(&f);
    KeQuerySystemTime(&t0);
    kplat::AdvanceTime(1500);
    LARGE_INTEGER c1 = KeQueryPerformanceCounter(nullptr);
    KeQuerySystemTime(&t1);
    EXPECT_EQ(f.QuadPart, 10000000);
    EXPECT_EQ(c1.QuadPart - c0.QuadPart, 15000000);
    EXPECT_EQ(t1.QuadPart - t0.QuadPart, 15000000);
}

// ---------------------------------------------------------------------------
// Checks
// ---------------------------------------------------------------------------
TEST_F(Dispatcher, BlockingWaitAtDispatchLevelIsCaught) {
    kplat::CheckRecorder checks;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    LARGE_INTEGER t = RelativeMs(10);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &t), STATUS_TIMEOUT);
    // A poll is allowed at DISPATCH_LEVEL.
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
    KeLowerIrql(old);
    auto failures = checks.Take();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].code, (ULONG)IRQL_NOT_LESS_OR_EQUAL);
    EXPECT_EQ(kplat::NowMs(), 0u);
}

TEST_F(Dispatcher, IrqlRulesAreChecked) {
    kplat::CheckRecorder checks;
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(old, PASSIVE_LEVEL);
    KIRQL ignored;
    KeRaiseIrql(APC_LEVEL, &ignored);  // raising to a lower level
    KeLowerIrql(old);
    KeLowerIrql(DISPATCH_LEVEL);  // lowering to a higher level
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    auto failures = checks.Take();
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].code, (ULONG)IRQL_NOT_GREATER_OR_EQUAL);
    EXPECT_EQ(failures[1].code, (ULONG)IRQL_NOT_LESS_OR_EQUAL);
}

TEST_F(Dispatcher, SpinLockRaisesAndRestoresIrqlAndCatchesRecursion) {
    kplat::CheckRecorder checks;
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeAcquireSpinLockAtDpcLevel(&lock);  // would spin forever on a real machine
    EXPECT_EQ(checks.Count(), 1u);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(lock, 0u);
}

TEST_F(Dispatcher, WaitThatCanNeverEndIsReportedNotHung) {
    kplat::CheckRecorder checks;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL), STATUS_TIMEOUT);
    auto failures = checks.Take();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].code, kplat::kDeadlock);
}

TEST_F(Dispatcher, MutexReleasedByNonOwnerIsCaught) {
    kplat::CheckRecorder checks;
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(checks.Count(), 1u);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

// ---------------------------------------------------------------------------
// Determinism and concurrency
// ---------------------------------------------------------------------------
TEST(VirtualClock, FiveSecondTimeOutIsDeterministicAndFast) {
    auto wallStart = std::chrono::steady_clock::now();
    for (int run = 0; run < 100; ++run) {
        kplat::Scope scope;
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        LARGE_INTEGER t = RelativeMs(5000);
        ASSERT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &t), STATUS_TIMEOUT);
        ASSERT_EQ(kplat::Now(), 50000000u);
    }
    auto wall = std::chrono::steady_clock::now() - wallStart;
    RecordProperty("wall_ms_for_100_runs",
                   (int)std::chrono::duration_cast<std::chrono::milliseconds>(wall).count());
}

// Driver threads, DPCs and workers hammer one spin lock, a counter and an
// event, on the real clock. TSan checks the pairing of the lock's acquire and
// release.
TEST(Concurrency, SpinLockEventsAndDpcsAcrossThreads) {
    kplat::Scope scope(kplat::Options{kplat::ClockMode::Real});
    struct Shared {
        KSPIN_LOCK lock;
        uint64_t counter = 0;  // guarded by lock
        KDPC dpc;
        KEVENT done;
        std::atomic<int> dpcRuns{0};
    } shared;
    KeInitializeSpinLock(&shared.lock);
    KeInitializeEvent(&shared.done, NotificationEvent, FALSE);
    KeInitializeDpc(&shared.dpc, [](PKDPC, PVOID ctx, PVOID, PVOID) {
        auto* s = (Shared*)ctx;
        KeAcquireSpinLockAtDpcLevel(&s->lock);
        s->counter++;
        KeReleaseSpinLockFromDpcLevel(&s->lock);
        s->dpcRuns.fetch_add(1);
    }, &shared);
    constexpr int kThreads = 3, kIterations = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            kplat::EnterDriverThread();
            for (int i = 0; i < kIterations; ++i) {
                KIRQL old = KeAcquireSpinLockRaiseToDpc(&shared.lock);
                shared.counter++;
                KeReleaseSpinLock(&shared.lock, old);
                if ((i & 255) == 0) KeInsertQueueDpc(&shared.dpc, NULL, NULL);
            }
            kplat::LeaveDriverThread();
        });
    }
    for (auto& t : threads) t.join();
    kplat::RunUntilIdle();
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&shared.lock);
    uint64_t total = shared.counter;
    KeReleaseSpinLock(&shared.lock, old);
    EXPECT_EQ(total, (uint64_t)kThreads * kIterations + (uint64_t)shared.dpcRuns.load());
    EXPECT_GE(shared.dpcRuns.load(), 1);
}

}  // namespace
