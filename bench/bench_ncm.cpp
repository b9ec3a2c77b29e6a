// Throughput of the NCM data path of DeviceContNcm.
//
// BM_TxBuild/<frame>/<form>/<ntb size>: frames from the adapter's
//   SubmitTxPackets copied into NTBs by ProcessTxBuffers and submitted on
//   the real OUT stream to a minimal device on the stand-in's USB bus that
//   takes every packet at once (super speed, 1024-byte packets). One
//   iteration is a batch of frames; the run ends when the last NTB is back.
// BM_RxParse/<frame>/<form>/<ntb size>: NTBs full of datagrams walked by
//   BufferReceived/ProcessRxBuffers and handed over one by one, each given
//   back at once with ReturnRxBuffer (no device: the receive harness).
// BM_Memcpy/<frame>: the one copy per frame that transmit needs anyway,
//   frames copied one after another into a 64 KiB block: the baseline.
//
// Forms: 16 = NTB16, 32 = NTB32. Counters: frames_per_s, gbit_per_s (frame
// bytes), allocs_per_frame (pool allocations of the stand-in during the
// timed loop, per frame), heap_allocs_per_frame (operator new calls).
#include <benchmark/benchmark.h>

#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <cstring>
#include <vector>

#include "bench_heap.h"
#include "devicecontncm.h"
#include "devicecontncm_ackdevice.h"
#include "devicecontncm_harness.h"
#include "devicecontncm_peer.h"
#include "knpooltags.h"
#include "kntrace.h"

namespace {

// The stand-in for one benchmark, unless something else started it.
class Platform {
public:
    Platform() : mOwned(!kplat::IsStarted())
    {
        if (mOwned) {
            kplat::Start();
        }
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_ERROR);
    }
    ~Platform()
    {
        if (mOwned) kplat::Stop();
    }

private:
    bool mOwned;
};

void SetCounters(benchmark::State& state, uint64_t frames, uint64_t frameBytes, uint64_t allocations,
                 uint64_t heapAllocations)
{
    state.SetItemsProcessed((int64_t)frames);
    state.SetBytesProcessed((int64_t)frameBytes);
    state.counters["frames_per_s"] = benchmark::Counter((double)frames, benchmark::Counter::kIsRate);
    state.counters["gbit_per_s"] = benchmark::Counter((double)frameBytes * 8 / 1e9, benchmark::Counter::kIsRate);
    state.counters["allocs_per_frame"] = frames == 0 ? 0.0 : (double)allocations / (double)frames;
    state.counters["heap_allocs_per_frame"] = frames == 0 ? 0.0 : (double)heapAllocations / (double)frames;
}

// ---------------------------------------------------------------------------
// Transmit
// ---------------------------------------------------------------------------

// The adapter side: an endless supply of one frame, counted down per batch.
// (The adapter would also take its lock per packet; that cost is measured
// by bench_sync.)
class FrameSupply : public DeviceNotify {
public:
    explicit FrameSupply(size_t frameLength) : mFrame(frameLength)
    {
        for (size_t i = 0; i < frameLength; i++) mFrame[i] = (UCHAR)(i * 7);
    }
    void NetworkStateChanged(bool) override {}
    void ConnectionSpeedChanged(ULONG, ULONG) override {}
    ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) override
    {
        if (__atomic_load_n(&mRemaining, __ATOMIC_ACQUIRE) == 0) {
            return 0;
        }
        __atomic_sub_fetch(&mRemaining, 1, __ATOMIC_ACQ_REL);  // one builder at a time takes frames
        ULONG n = (ULONG)mFrame.size() < maxLength ? (ULONG)mFrame.size() : maxLength;
        std::memcpy(destination, mFrame.data(), n);
        return n;
    }
    void ProcessReceivedData(UsbBuf*) override {}
    void StartCompleted(NTSTATUS) override {}
    void StopCompleted() override {}
    ULONG GetMulticastList(ULONG, UCHAR*) override { return 0; }

    // Release: pairs with the acquire of SubmitTxPackets on the builder's thread.
    void Supply(uint64_t frames) { __atomic_store_n(&mRemaining, frames, __ATOMIC_RELEASE); }
    uint64_t Remaining() const { return __atomic_load_n(&mRemaining, __ATOMIC_ACQUIRE); }

private:
    std::vector<UCHAR> mFrame;
    uint64_t mRemaining = 0;
};

void BM_TxBuild(benchmark::State& state)
{
    const size_t frameLength = (size_t)state.range(0);
    const bool ntb32 = state.range(1) == 32;
    const uint32_t ntbSize = (uint32_t)state.range(2);
    Platform platform;

    PDRIVER_OBJECT driver = kplat::CreateDriverObject(u"\\Driver\\ethbrg");
    PDEVICE_OBJECT fdo = NULL;
    IoCreateDevice(driver, 0, NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &fdo);
    kplat::UsbBus* bus = new kplat::UsbBus();
    AckNcmDevice* device = new AckNcmDevice(
        AckNcmDevice::NcmConfiguration(1024),
        AckNcmDevice::NtbParameters(ntb32 ? 0x0003 : 0x0001, 16384, ntbSize, 4, 0, 4, 0), kplat::UsbSpeed::Super,
        false);
    device->SetMaxPacket(1024);
    bus->Attach(device);
    NdSpinlock lock;
    FrameSupply supply(frameLength);
    AdapterConfig config;
    config.TxBuffers = 8;
    DeviceContNcm* cont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();
    NTSTATUS status = cont->Init(fdo, bus->Pdo(), bus->Pdo(), &supply, &config, &lock);
    if (NT_SUCCESS(status)) status = cont->Start();
    kplat::RunUntilIdle();
    if (!NT_SUCCESS(status)) {
        state.SkipWithError("Init or Start failed");
    }

    const uint64_t batch = 20000;
    uint64_t frames = 0;
    const uint64_t allocationsBefore = kplat::PoolAllocationCount();
    const uint64_t heapBefore = HeapAllocations();
    for (auto _ : state) {
        supply.Supply(batch);
        cont->ProcessTxPackets();
        kplat::RunUntilIdle();
        frames += batch - supply.Remaining();
    }
    const uint64_t allocations = kplat::PoolAllocationCount() - allocationsBefore;
    SetCounters(state, frames, frames * frameLength, allocations, HeapAllocations() - heapBefore);
    state.counters["ntbs"] = (double)device->transfers;

    cont->Stop();
    cont->Exit();
    kplat::RunUntilIdle();
    delete cont;
    delete bus;
    delete device;
    IoDeleteDevice(fdo);
    kplat::DeleteDriverObject(driver);
}

// ---------------------------------------------------------------------------
// Receive
// ---------------------------------------------------------------------------

// An NTB of `ntbSize` bytes at most, holding as many datagrams of
// frameLength bytes as fit, 4-aligned, with one NDP at the end.
std::vector<UCHAR> BuildRxNtb(bool ntb32, size_t frameLength, uint32_t ntbSize, ULONG* datagrams)
{
    const uint32_t header = ntb32 ? 16 : 12, ndpHeader = ntb32 ? 16 : 8, entry = ntb32 ? 8 : 4;
    std::vector<uint32_t> offsets;
    uint32_t end = header;
    for (;;) {
        uint32_t at = (end + 3) / 4 * 4;
        uint32_t ndp = (at + (uint32_t)frameLength + 3) / 4 * 4;
        if (ndp + ndpHeader + entry * ((uint32_t)offsets.size() + 2) > ntbSize) break;
        offsets.push_back(at);
        end = at + (uint32_t)frameLength;
    }
    const uint32_t ndp = (end + 3) / 4 * 4;
    const uint32_t length = ndp + ndpHeader + entry * ((uint32_t)offsets.size() + 1);
    std::vector<UCHAR> b(length, 0);
    for (uint32_t at : offsets) {
        for (size_t i = 0; i < frameLength; i++) b[at + i] = (UCHAR)(i * 3);
    }
    if (ntb32) {
        NtbStore32(&b[0], NTH32_SIGNATURE);
        NtbStore16(&b[4], 16);
        NtbStore32(&b[8], length);
        NtbStore32(&b[12], ndp);
        NtbStore32(&b[ndp], NDP32_SIGNATURE_NO_CRC);
        NtbStore16(&b[ndp + 4], (USHORT)(length - ndp));
        for (size_t i = 0; i < offsets.size(); i++) {
            NtbStore32(&b[ndp + 16 + 8 * i], offsets[i]);
            NtbStore32(&b[ndp + 20 + 8 * i], (ULONG)frameLength);
        }
    } else {
        NtbStore32(&b[0], NTH16_SIGNATURE);
        NtbStore16(&b[4], 12);
        NtbStore16(&b[8], (USHORT)length);
        NtbStore16(&b[10], (USHORT)ndp);
        NtbStore32(&b[ndp], NDP16_SIGNATURE_NO_CRC);
        NtbStore16(&b[ndp + 4], (USHORT)(length - ndp));
        for (size_t i = 0; i < offsets.size(); i++) {
            NtbStore16(&b[ndp + 8 + 4 * i], (USHORT)offsets[i]);
            NtbStore16(&b[ndp + 10 + 4 * i], (USHORT)frameLength);
        }
    }
    *datagrams = (ULONG)offsets.size();
    return b;
}

void BM_RxParse(benchmark::State& state)
{
    const size_t frameLength = (size_t)state.range(0);
    const bool ntb32 = state.range(1) == 32;
    const uint32_t ntbSize = (uint32_t)state.range(2);
    Platform platform;
    constexpr ULONG kBuffers = 4;
    NcmRxHarness h(ntb32, ntbSize, kBuffers, false);
    ULONG perNtb = 0;
    std::vector<UCHAR> ntb = BuildRxNtb(ntb32, frameLength, ntbSize, &perNtb);
    // Every buffer of the pool holds the NTB; they rotate.
    UsbBuf* buffers[kBuffers];
    for (ULONG i = 0; i < kBuffers; i++) {
        buffers[i] = h.Pool().GetBuffer();
        std::memcpy(buffers[i]->Buffer(), ntb.data(), ntb.size());
    }
    for (ULONG i = 0; i < kBuffers; i++) buffers[i]->ReturnToPool();

    const uint64_t allocationsBefore = kplat::PoolAllocationCount();
    const uint64_t heapBefore = HeapAllocations();
    const ULONGLONG before = h.datagramCount;
    for (auto _ : state) {
        h.FeedBuffer(h.Pool().GetBuffer(), (ULONG)ntb.size());
    }
    const uint64_t frames = h.datagramCount - before;
    const uint64_t allocations = kplat::PoolAllocationCount() - allocationsBefore;
    if (frames != (uint64_t)state.iterations() * perNtb) {
        state.SkipWithError("datagrams lost");
    }
    SetCounters(state, frames, frames * frameLength, allocations, HeapAllocations() - heapBefore);
    state.counters["datagrams_per_ntb"] = perNtb;
}

// ---------------------------------------------------------------------------
// Baseline
// ---------------------------------------------------------------------------

void BM_Memcpy(benchmark::State& state)
{
    const size_t frameLength = (size_t)state.range(0);
    std::vector<UCHAR> frame(frameLength, 0x5A);
    std::vector<UCHAR> block(65536);
    size_t at = 0;
    uint64_t frames = 0;
    for (auto _ : state) {
        if (at + frameLength > block.size()) at = 0;
        std::memcpy(block.data() + at, frame.data(), frameLength);
        benchmark::ClobberMemory();
        at = (at + frameLength + 3) & ~(size_t)3;
        frames++;
    }
    SetCounters(state, frames, frames * frameLength, 0, 0);
}

void NtbArgs(benchmark::internal::Benchmark* b)
{
    for (int64_t frame : {64, 1514}) {
        for (int64_t form : {16, 32}) {
            for (int64_t size : {16384, 65536}) {
                b->Args({frame, form, form == 16 && size == 65536 ? 65535 : size});
            }
        }
    }
    b->ArgNames({"frame", "form", "ntb"});
}

}  // namespace

BENCHMARK(BM_TxBuild)->Apply(NtbArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RxParse)->Apply(NtbArgs)->UseRealTime();
BENCHMARK(BM_Memcpy)->Arg(64)->Arg(1514)->ArgName("frame");
