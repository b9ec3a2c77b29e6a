// IRQL per thread, spin locks, thread ids, checks and object counts.
#include <kplat/platform.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "internal.h"
#include "thread_state.h"

namespace kplat_internal {

namespace {
std::atomic<uint64_t> gLiveObjects[(int)ObjectKind::Count];
std::atomic<uintptr_t> gNextThreadId{4};

// Guards gCheckHandler. Held while the handler runs, so handlers run one at
// a time.
std::mutex gCheckMutex;
kplat::CheckHandler gCheckHandler;
}  // namespace

ThreadState& SelfSlow() {
    thread_local ThreadState state;
    if (state.id == 0) state.id = gNextThreadId.fetch_add(4, std::memory_order_relaxed);
    tSelf = &state;
    return state;
}

void CountObject(ObjectKind kind, int delta) {
    gLiveObjects[(int)kind].fetch_add((uint64_t)(int64_t)delta, std::memory_order_relaxed);
}

uint64_t LiveObjects(ObjectKind kind) { return gLiveObjects[(int)kind].load(std::memory_order_relaxed); }

void CheckFailed(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4, const char* text) {
    kplat::CheckFailure failure{code, p1, p2, p3, p4, text ? text : ""};
    std::lock_guard<std::mutex> lock(gCheckMutex);
    if (gCheckHandler) {
        gCheckHandler(failure);
        return;
    }
    fprintf(stderr,
            "\n*** STOP: 0x%08X (0x%016llX,0x%016llX,0x%016llX,0x%016llX)\n*** %s\n"
            "*** The platform stand-in stops here as the kernel would.\n",
            code, (unsigned long long)p1, (unsigned long long)p2, (unsigned long long)p3,
            (unsigned long long)p4, failure.text.c_str());
    fflush(stderr);
    abort();
}

KIRQL CurrentIrql() { return Self().irql; }

int SpinLocksHeld() { return Self().spinLocksHeld; }

bool DeferUntilIrqlDrops(void (*routine)(void*), void* context) {
    ThreadState& self = Self();
    if (self.kind == ThreadKind::StandIn || self.irql < DISPATCH_LEVEL) return false;
    for (int i = 0; i < self.deferredCount; i++)
        if (self.deferred[i].routine == routine && self.deferred[i].context == context) return true;
    if (self.deferredCount == ThreadState::kMaxDeferred) return false;
    self.deferred[self.deferredCount++] = DeferredCall{routine, context};
    return true;
}

namespace {

// The IRQL dropped below DISPATCH_LEVEL: the kept routines run now, in the
// order they were kept (and those they keep in turn).
void RunDeferred(ThreadState& self) {
    if (self.runningDeferred) return;
    self.runningDeferred = true;
    while (self.deferredCount != 0) {
        DeferredCall call = self.deferred[0];
        for (int i = 1; i < self.deferredCount; i++) self.deferred[i - 1] = self.deferred[i];
        self.deferredCount--;
        call.routine(call.context);
    }
    self.runningDeferred = false;
}

}  // namespace

}  // namespace kplat_internal

using namespace kplat_internal;

// ---------------------------------------------------------------------------
// IRQL
// ---------------------------------------------------------------------------
KIRQL KeGetCurrentIrql(void) { return Self().irql; }

void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
    ThreadState& self = Self();
    if (NewIrql < self.irql) {
        CheckFailed(IRQL_NOT_GREATER_OR_EQUAL, self.irql, NewIrql, 0, 0, "KeRaiseIrql to a lower IRQL");
        *OldIrql = self.irql;
        return;
    }
    *OldIrql = self.irql;
    self.irql = NewIrql;
}

void KeLowerIrql(KIRQL NewIrql) {
    ThreadState& self = Self();
    if (NewIrql > self.irql) {
        CheckFailed(IRQL_NOT_LESS_OR_EQUAL, self.irql, NewIrql, 0, 0, "KeLowerIrql to a higher IRQL");
        return;
    }
    self.irql = NewIrql;
    if (NewIrql < DISPATCH_LEVEL && self.deferredCount != 0) RunDeferred(self);
}

KIRQL KeRaiseIrqlToDpcLevel(void) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return old;
}

HANDLE PsGetCurrentThreadId(void) { return (HANDLE)Self().id; }

void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4) {
    CheckFailed(BugCheckCode, P1, P2, P3, P4, "KeBugCheckEx");
}

// ---------------------------------------------------------------------------
// Spin locks
// ---------------------------------------------------------------------------
// The lock word holds the owner's thread id while held, 0 when free. The
// owner id lets a recursive acquire (a certain deadlock) be reported instead
// of spinning forever. Releasing follows the free build: the word is cleared
// without checking who held it. Each thread counts the locks it holds (for
// the NDIS verifier's check that no lock is held across an indication).
namespace {

void AcquireWord(PKSPIN_LOCK lock) {
    ThreadState& self = Self();
    const ULONG_PTR me = self.id;
    ULONG_PTR expected = 0;
    // acquire: pairs with the release store in ReleaseWord.
    if (__atomic_compare_exchange_n(lock, &expected, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
        self.spinLocksHeld++;
        return;
    }
    if (expected == me) {
        CheckFailed(SPIN_LOCK_ALREADY_OWNED_CODE, (ULONG_PTR)lock, me, 0, 0,
                    "spin lock acquired again by the thread that holds it");
        return;
    }
    for (unsigned spins = 0;; ++spins) {
        expected = 0;
        if (__atomic_load_n(lock, __ATOMIC_RELAXED) == 0 &&
            __atomic_compare_exchange_n(lock, &expected, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            self.spinLocksHeld++;
            return;
        }
        // The holder may be a preempted thread on this small machine: give
        // the processor away now and then instead of burning it.
        if ((spins & 63) == 63)
            sched_yield();
        else
            __builtin_ia32_pause();
    }
}

void ReleaseWord(PKSPIN_LOCK lock) {
    ThreadState& self = Self();
    if (self.spinLocksHeld > 0) self.spinLocksHeld--;
    // release: pairs with the acquire exchange in AcquireWord.
    __atomic_store_n(lock, (ULONG_PTR)0, __ATOMIC_RELEASE);
}

}  // namespace

void KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { __atomic_store_n(SpinLock, (ULONG_PTR)0, __ATOMIC_RELAXED); }

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    ThreadState& self = Self();
    KIRQL old = self.irql;
    if (old > DISPATCH_LEVEL) {
        CheckFailed(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)SpinLock, old, 0, 0,
                    "KeAcquireSpinLockRaiseToDpc above DISPATCH_LEVEL");
        return old;
    }
    self.irql = DISPATCH_LEVEL;
    AcquireWord(SpinLock);
    return old;
}

void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    ReleaseWord(SpinLock);
    KeLowerIrql(NewIrql);
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    if (Self().irql < DISPATCH_LEVEL) {
        CheckFailed(IRQL_NOT_GREATER_OR_EQUAL, (ULONG_PTR)SpinLock, Self().irql, 0, 0,
                    "KeAcquireSpinLockAtDpcLevel below DISPATCH_LEVEL");
        return;
    }
    AcquireWord(SpinLock);
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) { ReleaseWord(SpinLock); }

// ---------------------------------------------------------------------------
// Check handler control
// ---------------------------------------------------------------------------
namespace kplat {

void SetCheckHandler(CheckHandler handler) {
    std::lock_guard<std::mutex> lock(kplat_internal::gCheckMutex);
    kplat_internal::gCheckHandler = std::move(handler);
}

struct CheckRecorder::State {
    mutable std::mutex mutex;  // guards failures
    std::vector<CheckFailure> failures;
};

CheckRecorder::CheckRecorder() : mState(new State) {
    State* state = mState;
    SetCheckHandler([state](const CheckFailure& f) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->failures.push_back(f);
    });
}

CheckRecorder::~CheckRecorder() {
    SetCheckHandler(nullptr);
    delete mState;
}

std::vector<CheckFailure> CheckRecorder::Take() {
    std::lock_guard<std::mutex> lock(mState->mutex);
    std::vector<CheckFailure> out;
    out.swap(mState->failures);
    return out;
}

size_t CheckRecorder::Count() const {
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->failures.size();
}

}  // namespace kplat
