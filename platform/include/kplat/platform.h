// Control of the platform stand-in: the clock, the threads that run driver
// code, pool accounting and fault injection, debugger output, the registry,
// and the checks that a real kernel would enforce with a bug check.
//
// Tests and the program use this header; the driver never does.
#pragma once

#include <ntddk.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kplat {

// ---------------------------------------------------------------------------
// Clock and threads
// ---------------------------------------------------------------------------
enum class ClockMode {
    Real,     // steady clock; timers and timed waits expire by themselves
    Virtual,  // time moves only as described at AdvanceTime
};

struct Options {
    ClockMode clock = ClockMode::Virtual;
};

// Starts the stand-in: the DPC thread, one worker thread per work queue and,
// on the real clock, the timer thread. The calling thread becomes the
// controller (the thread whose activity keeps the virtual clock still).
// On the real clock a DPC that a thread of the program (not the controller,
// not a driver thread) queues at DISPATCH_LEVEL runs on that thread when its
// IRQL drops below DISPATCH_LEVEL, as on the processor that queued it,
// unless the DPC thread gets to it first.
// Pool accounting, registry and debug sink are left as they are.
void Start(const Options& options = Options());
// Runs until idle, then stops and joins the threads. Pending timers are
// dropped (cancelled).
void Stop();
bool IsStarted();
ClockMode GetClockMode();

// Start() in the constructor, Stop() in the destructor.
class Scope {
public:
    explicit Scope(const Options& options = Options()) { Start(options); }
    ~Scope() { Stop(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
};

// Current time of the stand-in's clock in 100 ns units, counted from Start.
uint64_t Now();
inline uint64_t NowMs() { return Now() / 10000; }

// "Idle" means: no DPC and no work item queued, no stand-in thread running an
// item, and no thread woken but not yet running -- checked, then checked again
// after the queues were seen empty. Threads blocked in a wait are idle.
//
// RunUntilIdle returns once the stand-in is idle; it never moves the clock.
void RunUntilIdle();

// Virtual clock only. Runs until idle; then, while the earliest pending
// deadline (timer expiry or timed-wait time-out) lies within the next `ms`
// milliseconds, jumps to it, expires everything due at that time (timers in
// the order they were set, equal deadlines in setting order) and runs until
// idle again; finally the clock stands at start + ms. Time never goes back.
void AdvanceTime(uint64_t ms);
void AdvanceTime100ns(uint64_t units);

// Virtual clock: when the controller blocks in a platform wait and every
// other thread is idle, the clock jumps to the earliest pending deadline by
// itself (a timed wait is a request to let time pass). If nothing is pending
// at all, the wait can never end: that is reported as a check failure
// (code kDeadlock) instead of hanging.
constexpr ULONG kDeadlock = 0xE0000001;

// Registers the calling thread as one that runs driver code concurrently with
// the controller (a stress test's threads). Such threads count as busy while
// not blocked, like stand-in threads. Must be balanced with Leave.
void EnterDriverThread();
void LeaveDriverThread();

// ---------------------------------------------------------------------------
// Checks
// ---------------------------------------------------------------------------
// A check failure is what the kernel would turn into a bug check: a blocking
// wait above APC_LEVEL, a paged allocation above APC_LEVEL, an IRP completed
// twice, a spin lock released that was not held, a virtual-clock deadlock.
// The default handler prints the report to standard error and aborts. A
// handler that returns lets the failing operation return without doing the
// illegal thing (a wait returns STATUS_TIMEOUT, an allocation NULL).
struct CheckFailure {
    ULONG code;
    ULONG_PTR p1, p2, p3, p4;
    std::string text;
};
using CheckHandler = std::function<void(const CheckFailure&)>;
void SetCheckHandler(CheckHandler handler);  // nullptr restores the default
// Records check failures instead of aborting, for the scope's lifetime.
class CheckRecorder {
public:
    CheckRecorder();
    ~CheckRecorder();
    std::vector<CheckFailure> Take();
    size_t Count() const;

private:
    struct State;
    State* mState;
};

// ---------------------------------------------------------------------------
// Debugger output
// ---------------------------------------------------------------------------
// DbgPrint text goes to standard error by default.
void SetDebugSinkStderr();
bool SetDebugSinkFile(const char* path);  // false if the file cannot be opened
void SetDebugSinkCallback(std::function<void(const char* text)> sink);
// Collects all DbgPrint output in memory (thread-safe) until the capture is
// destroyed; the previous sink is restored then.
class DebugCapture {
public:
    DebugCapture();
    ~DebugCapture();
    std::string Text() const;
    std::string Take();  // returns and clears
    bool Contains(const std::string& needle) const;

private:
    struct State;
    State* mState;
};

// ---------------------------------------------------------------------------
// Pool memory
// ---------------------------------------------------------------------------
struct PoolTagStats {
    ULONG tag = 0;
    uint64_t liveCount = 0;
    uint64_t liveBytes = 0;
    uint64_t highWaterBytes = 0;
    uint64_t allocations = 0;  // successful allocations ever
    uint64_t frees = 0;
};
std::string TagToString(ULONG tag);  // 'MpAd' -> "MpAd"
constexpr ULONG MakeTag(const char (&s)[5]) {
    return (ULONG)(uint8_t)s[0] | (ULONG)(uint8_t)s[1] << 8 | (ULONG)(uint8_t)s[2] << 16 |
           (ULONG)(uint8_t)s[3] << 24;
}
std::vector<PoolTagStats> GetPoolStats();
PoolTagStats GetPoolTagStats(ULONG tag);
// Successful pool allocations of any tag since the process started
// (ExAllocatePoolWithTag, NdisAllocateMemoryWithTag, contiguous memory,
// pages for MDLs, IRPs, MDLs and work items all count).
uint64_t PoolAllocationCount();
// One line per tag that still has live blocks ("Tag MpAd: 1 blocks, 1024
// bytes live"), empty when nothing is allocated.
std::string PoolLeakReport();
// Fault injection. FailNthAllocation(1) fails the next pool allocation,
// FailNthAllocation(3) the third from now. FailTag fails the next `count`
// allocations with that tag. ClearFaults ends both.
void FailNthAllocation(uint64_t n);
void FailTag(ULONG tag, uint64_t count = UINT64_MAX);
// Makes the next MmAllocatePagesForMdl describe `bytes` bytes fewer than
// asked (a partial allocation, as the platform may return).
void ShortenNextPageAllocation(ULONG bytes);
void ClearFaults();

// Live platform objects, for leak checks in tests.
struct ObjectCounts {
    uint64_t irps = 0, mdls = 0, workItems = 0, deviceObjects = 0, keyHandles = 0;
};
ObjectCounts GetObjectCounts();

// ---------------------------------------------------------------------------
// Driver and device objects
// ---------------------------------------------------------------------------
PDRIVER_OBJECT CreateDriverObject(const char16_t* name);
void DeleteDriverObject(PDRIVER_OBJECT driver);

// ---------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------
// Text format, one item per line, as in a .reg file:
//   [\Registry\Machine\System\CurrentControlSet\Services\ethbrg]
//   "TraceMask"=dword:00000003
//   "VendorDescription"="ethbrg NCM adapter"
//   "Blob"=hex:01,02,ff
//   ; comment
// Keys are created as needed. On error, `error` says which line and why.
NTSTATUS RegistryLoadText(const std::string& text, std::string* error = nullptr);
NTSTATUS RegistryLoadFile(const char* path, std::string* error = nullptr);
void RegistryClear();
// Direct access for tests (paths as in the text format, UTF-8).
bool RegistryGetValue(const std::string& keyPath, const std::string& valueName, ULONG* type,
                      std::vector<uint8_t>* data);
bool RegistryGetDword(const std::string& keyPath, const std::string& valueName, uint32_t* value);
void RegistrySetDword(const std::string& keyPath, const std::string& valueName, uint32_t value);
void RegistrySetString(const std::string& keyPath, const std::string& valueName, const std::string& value);

}  // namespace kplat
