// The benchmarks' main, and a count of the heap allocations made through
// operator new (HeapAllocations), for the allocs counters of the data path.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "bench_heap.h"

namespace {
std::atomic<uint64_t> gHeapAllocations{0};
}  // namespace

uint64_t HeapAllocations() { return gHeapAllocations.load(std::memory_order_relaxed); }

void* operator new(size_t size)
{
    gHeapAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size != 0 ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

BENCHMARK_MAIN();
