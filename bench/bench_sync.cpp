// Costs of the synchronization primitives and the pool on the uncontended
// path: what every packet pays for the adapter lock, a stream lock and a
// buffer hand-out.
#include <benchmark/benchmark.h>

#include <kplat/platform.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "NdSpinlock.h"
#include "knpoolbase.h"
#include "knpooltags.h"

namespace {

// Starts the stand-in on the real clock for one benchmark unless something
// else has started it already.
class RealClockPlatform {
public:
    RealClockPlatform() : mOwned(!kplat::IsStarted())
    {
        if (mOwned) {
            kplat::Options options;
            options.clock = kplat::ClockMode::Real;
            kplat::Start(options);
        }
    }
    ~RealClockPlatform()
    {
        if (mOwned) kplat::Stop();
    }

private:
    bool mOwned;
};

class BenchItem : public KnPoolItemBase {};

void BM_NdSpinlockUncontended(benchmark::State& state)
{
    RealClockPlatform platform;
    NdSpinlock lock;
    for (auto _ : state) {
        lock.Lock();
        lock.Unlock();
    }
    benchmark::DoNotOptimize(lock.IsLocked());
}
BENCHMARK(BM_NdSpinlockUncontended);

void BM_KnSpinLockUncontended(benchmark::State& state)
{
    RealClockPlatform platform;
    KnSpinLock lock;
    for (auto _ : state) {
        KIRQL old = lock.Lock();
        lock.Unlock(old);
    }
    benchmark::DoNotOptimize(lock.IsLocked());
}
BENCHMARK(BM_KnSpinLockUncontended);

void BM_KnSpinLockAtDpcLevel(benchmark::State& state)
{
    RealClockPlatform platform;
    KnSpinLock lock;
    KIRQL entry;
    KeRaiseIrql(DISPATCH_LEVEL, &entry);
    for (auto _ : state) {
        lock.LockAtDpcLevel();
        lock.UnlockFromDpcLevel();
    }
    KeLowerIrql(entry);
    benchmark::DoNotOptimize(lock.IsLocked());
}
BENCHMARK(BM_KnSpinLockAtDpcLevel);

void BM_KnPoolGetPut(benchmark::State& state)
{
    RealClockPlatform platform;
    KnPoolBase pool;
    const int items = (int)state.range(0);
    for (int i = 0; i < items; i++) {
        BenchItem* item = new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) BenchItem();
        if (item == NULL) {
            state.SkipWithError("allocation failed");
            pool.FreeAllItems();
            return;
        }
        pool.AddItem(item);
    }
    for (auto _ : state) {
        KnPoolItemBase* item = pool.GetItem();
        benchmark::DoNotOptimize(item);
        item->ReturnToPool();
    }
    pool.FreeAllItems();
}
BENCHMARK(BM_KnPoolGetPut)->Arg(16);

void BM_KnCounterEventIncrementDecrement(benchmark::State& state)
{
    RealClockPlatform platform;
    KnCounterEvent counter;
    counter.Increment();  // keep the count above 0: the event is not touched
    for (auto _ : state) {
        counter.Increment();
        counter.Decrement();
    }
    counter.Decrement();
    benchmark::DoNotOptimize(counter.GetCount());
}
BENCHMARK(BM_KnCounterEventIncrementDecrement);

}  // namespace
