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

struct WaiterCtx {
    KEVENT event;
    NTSTATUS status = STATUS_PENDING;
    uint64_t atMs = 0;
    PIO_WORKITEM item;
};

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

TEST_F(Dispatcher, WaitThatCanNeverEndIsReportedNotHung) {
    kplat::CheckRecorder checks;
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL), STATUS_TIMEOUT);
    auto failures = checks.Take();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].code, kplat::kDeadlock);
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

}  // namespace
