// Frames through the whole miniport on the simulated NCM function: the
// stack's send, the NTB builder, the bus, the function's loopback, the
// receive parser and the indication back to the stack. Pool allocations are
// counted per frame (the data path makes none), and heap allocations (the
// simulated function's); compare frames/s with
// BM_TxBuild at the same size for the cost of everything around the builder.
#include <benchmark/benchmark.h>

#include <atomic>

#include "bench_heap.h"
#include "testbed.h"

static void BM_Miniport(benchmark::State& state)
{
    const size_t length = (size_t)state.range(0);
    constexpr UINT kBatch = 64;
    testbed::Traits traits;
    traits.params = {{"TxBuffers", 8}, {"RxBuffers", 8}};
    testbed::Bed bed(traits);
    kplat::NdisAdapter& adapter = bed.Adapter();
    std::atomic<uint64_t> received{0};
    adapter.OnReceive([&](NDIS_HANDLE, const uint8_t*, UINT, const uint8_t*, UINT, UINT) { received++; });
    testbed::Bytes frame = testbed::Frame(length, 1);
    std::vector<PNDIS_PACKET> packets;
    for (UINT i = 0; i < kBatch; i++) packets.push_back(adapter.AllocatePacket(frame.data(), frame.size()));

    uint64_t frames = 0;
    const uint64_t allocationsBefore = kplat::PoolAllocationCount();
    const uint64_t heapBefore = HeapAllocations();
    for (auto _ : state) {
        adapter.Send(packets.data(), kBatch);
        kplat::RunUntilIdle();
        frames += kBatch;
    }
    const uint64_t allocations = kplat::PoolAllocationCount() - allocationsBefore;
    const uint64_t heap = HeapAllocations() - heapBefore;
    if (received.load() != frames || adapter.PacketsOutstanding() != 0) {
        state.SkipWithError("frames lost on the way");
    }
    for (PNDIS_PACKET p : packets) adapter.FreePacket(p);
    state.counters["frames_per_s"] = benchmark::Counter((double)frames, benchmark::Counter::kIsRate);
    state.counters["allocs_per_frame"] = frames == 0 ? 0.0 : (double)allocations / (double)frames;
    state.counters["heap_allocs_per_frame"] = frames == 0 ? 0.0 : (double)heap / (double)frames;
    state.SetBytesProcessed((int64_t)(frames * length));
}
BENCHMARK(BM_Miniport)->Arg(64)->Arg(1514)->ArgName("frame")->UseRealTime();
