// Cost of the trace call: a disabled message (one mask test) and an enabled
// one formatted into a sink that discards the text.
#include <benchmark/benchmark.h>

#include <kplat/platform.h>

#include "knnames.h"
#include "kntrace.h"

namespace {

// Keeps the arguments opaque to the optimizer so that the disabled case
// would show their cost if they were evaluated.
int OpaqueInt(int value)
{
    benchmark::DoNotOptimize(value);
    return value;
}

void BM_TraceDisabled(benchmark::State& state)
{
    ULONG savedMask = KnGetTraceMask();
    KnSetTraceMask(KN_TRACE_ERROR);
    int length = 60;
    const char* name = "MpAdapter";
    for (auto _ : state) {
        KN_TRACE(KN_TRACE_TX, "%P:%s::SendPackets length %d status %N\n", name, OpaqueInt(length),
                 STATUS_UNSUCCESSFUL);
        benchmark::ClobberMemory();
    }
    KnSetTraceMask(savedMask);
}
BENCHMARK(BM_TraceDisabled);

void BM_TraceEnabledToNull(benchmark::State& state)
{
    kplat::Scope scope;
    kplat::SetDebugSinkCallback([](const char* text) { benchmark::DoNotOptimize(text); });
    ULONG savedMask = KnGetTraceMask();
    KnSetTraceMask(KN_TRACE_ERROR | KN_TRACE_TX);
    KnSetTracePrefix("ethbrg");
    int length = 60;
    const char* name = "MpAdapter";
    for (auto _ : state) {
        KN_TRACE(KN_TRACE_TX, "%P:%s::SendPackets length %d status %N\n", name, OpaqueInt(length),
                 STATUS_UNSUCCESSFUL);
    }
    KnSetTraceMask(savedMask);
    kplat::SetDebugSinkStderr();
}
BENCHMARK(BM_TraceEnabledToNull);

// The formatter alone, without the sink.
void BM_KnFormat(benchmark::State& state)
{
    char buffer[KN_TRACE_MESSAGE_SIZE];
    KnSetTracePrefix("ethbrg");
    for (auto _ : state) {
        KnFormat(buffer, sizeof(buffer), "%P:%s::SendPackets length %d status %N\n", "MpAdapter", OpaqueInt(60),
                 STATUS_UNSUCCESSFUL);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_KnFormat);

void BM_NtStatusName(benchmark::State& state)
{
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    for (auto _ : state) {
        benchmark::DoNotOptimize(status);
        benchmark::DoNotOptimize(KnNtStatusName(status));
    }
}
BENCHMARK(BM_NtStatusName);

void BM_OidNameLinear(benchmark::State& state)
{
    ULONG oid = 0x01020207u;  // the last entry tested
    for (auto _ : state) {
        benchmark::DoNotOptimize(oid);
        benchmark::DoNotOptimize(NdOidName(oid));
    }
}
BENCHMARK(BM_OidNameLinear);

}  // namespace
