// Per-thread state of the stand-in.
#pragma once

#include <ntddk.h>

#include <condition_variable>

// Not a published code: a spin lock acquired twice by its holder.
#define SPIN_LOCK_ALREADY_OWNED_CODE 0x0000000F

namespace kplat_internal {

// How a thread takes part in idle detection.
enum class ThreadKind {
    External,    // not known to the stand-in: never counted as busy
    Controller,  // started the stand-in; busy unless blocked or in RunUntilIdle/AdvanceTime
    StandIn,     // DPC, worker and timer threads; busy while running an item
    Driver,      // registered with EnterDriverThread; busy unless blocked
};

// A thread's wait on one dispatcher object. Lives in the thread's state;
// linked into the object's WaitListHead (and the timed-wait list) while the
// thread waits. Guarded by the dispatcher lock.
struct WaitBlock {
    LIST_ENTRY objectLink;  // in DISPATCHER_HEADER::WaitListHead
    LIST_ENTRY timedLink;   // in the scheduler's timed-wait list, if timed
    void* object = nullptr;
    bool timed = false;
    bool counted = false;     // the thread counts as busy when not blocked
    bool satisfied = false;   // set by the waker, read by the waiter
    NTSTATUS status = STATUS_SUCCESS;
    uint64_t deadline = 0;    // clock units (100 ns), when timed
    uint64_t sequence = 0;    // orders equal deadlines
    std::condition_variable cv;
};

// Work kept for the moment the thread's IRQL drops (DeferUntilIrqlDrops).
struct DeferredCall {
    void (*routine)(void*);
    void* context;
};

struct ThreadState {
    KIRQL irql = PASSIVE_LEVEL;
    static constexpr int kMaxDeferred = 8;
    DeferredCall deferred[kMaxDeferred] = {};
    int deferredCount = 0;
    bool runningDeferred = false;
    ULONG_PTR id = 0;
    ThreadKind kind = ThreadKind::External;
    int spinLocksHeld = 0;  // spin locks this thread acquired and has not released
    WaitBlock wait;
};

// The calling thread's state. The pointer is a plain thread-local (no
// initialisation guard), so the common path is one load; the first call
// of a thread makes the state (SelfSlow).
ThreadState& SelfSlow();
inline thread_local ThreadState* tSelf = nullptr;
inline ThreadState& Self() {
    ThreadState* self = tSelf;
    return __builtin_expect(self != nullptr, 1) ? *self : SelfSlow();
}

}  // namespace kplat_internal
