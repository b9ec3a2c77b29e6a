// Shared between the stand-in's own source files; not for the driver or tests.
#pragma once

#include <ntddk.h>

#include <pthread.h>

#include <cstdint>
#include <mutex>

namespace kplat_internal {

// Live platform objects, for kplat::GetObjectCounts.
enum class ObjectKind { Irp, Mdl, WorkItem, DeviceObject, KeyHandle, Count };
void CountObject(ObjectKind kind, int delta);
uint64_t LiveObjects(ObjectKind kind);

// Reports a check failure through the installed handler (the default prints
// and aborts). Returns when the handler returns; the caller then refuses the
// illegal operation.
void CheckFailed(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4, const char* text);

// The calling thread's IRQL, without the checks of the public operations.
KIRQL CurrentIrql();

// Spin locks the calling thread holds now (acquired through the Ke* spin
// lock operations and not yet released).
int SpinLocksHeld();

// Work for "this processor's" DPC: on a thread that is not one of the
// stand-in's own (the DPC and worker threads), at DISPATCH_LEVEL or above,
// `routine(context)` is kept and called on this thread as soon as its IRQL
// drops below DISPATCH_LEVEL (at PASSIVE_LEVEL), as a DPC queued on the
// current processor runs when the IRQL drops. A routine already kept with
// the same context is not kept twice. False (nothing kept) on a stand-in
// thread or below DISPATCH_LEVEL: the caller queues a DPC or runs the work.
bool DeferUntilIrqlDrops(void (*routine)(void*), void* context);

// A std::mutex that spins briefly before it sleeps (glibc's adaptive kind),
// for locks that threads of the data path take for a moment per packet:
// a thread that finds it held usually gets it without a futex sleep and
// the holder needs no wake-up call.
class SpinningMutex : public std::mutex {
public:
    SpinningMutex() {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(native_handle(), &attr);
        pthread_mutexattr_destroy(&attr);
    }
};

// While one exists on a thread, that thread's pool allocations are the
// stand-in's own (device objects and IRPs that NDIS makes): they are
// accounted as usual but fault injection passes them by, so that injected
// faults hit the driver's allocations only.
class StandInAllocationScope {
public:
    StandInAllocationScope();
    ~StandInAllocationScope();
    StandInAllocationScope(const StandInAllocationScope&) = delete;
    StandInAllocationScope& operator=(const StandInAllocationScope&) = delete;
};

}  // namespace kplat_internal
