// Kernel services of the platform, as a kernel-mode driver sees them.
//
// This is our own user-space implementation of the kernel operations the
// driver calls. Names, argument orders, record names and status values are the
// platform's published ones; integer widths are those of the x64 kernel
// (ULONG and LONG are 32 bits). What each operation does not model is written
// next to its declaration.
//
// One header on purpose, as the platform's own ntddk.h is: the driver
// includes it and nothing else for kernel services.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

// ---------------------------------------------------------------------------
// Basic types
// ---------------------------------------------------------------------------
#define IN
#define OUT
#define OPTIONAL
#define NTAPI
#define VOID void
#define FORCEINLINE inline

typedef char CHAR, *PCHAR, *PSTR;
typedef const char* PCSTR;
typedef unsigned char UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN, BYTE;
typedef int16_t SHORT, CSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD;
typedef int32_t LONG, *PLONG, INT;
typedef uint32_t ULONG, *PULONG, UINT, *PUINT, DWORD;
typedef int64_t LONGLONG, LONG64;
typedef uint64_t ULONGLONG, ULONG64, DWORD64;
typedef intptr_t LONG_PTR;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T;
typedef void* PVOID;
typedef void** PPVOID;
typedef void* HANDLE;
typedef HANDLE* PHANDLE;
typedef char16_t WCHAR, *PWCH, *PWCHAR, *PWSTR;
typedef const char16_t* PCWSTR;
typedef LONG NTSTATUS;
typedef UCHAR KIRQL, *PKIRQL;
typedef CHAR CCHAR, KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG ACCESS_MASK;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER, PHYSICAL_ADDRESS;

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) \
    ((type*)((PCHAR)(address) - (ULONG_PTR)offsetof(type, field)))
#define UNREFERENCED_PARAMETER(P) ((void)(P))

#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12
#define BYTE_OFFSET(Va) ((ULONG)((ULONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(ULONG_PTR)(PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)((((ULONG_PTR)(Va) & (PAGE_SIZE - 1)) + (Size) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))

#define RtlCopyMemory(d, s, n) memcpy((d), (s), (n))
#define RtlMoveMemory(d, s, n) memmove((d), (s), (n))
#define RtlFillMemory(d, n, f) memset((d), (f), (n))
#define RtlZeroMemory(d, n) memset((d), 0, (n))
#define RtlEqualMemory(a, b, n) (memcmp((a), (b), (n)) == 0)

#include "ntstatus.h"

// ---------------------------------------------------------------------------
// Lists and strings
// ---------------------------------------------------------------------------
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

inline void InitializeListHead(PLIST_ENTRY h) { h->Flink = h->Blink = h; }
inline BOOLEAN IsListEmpty(const LIST_ENTRY* h) { return h->Flink == h; }
inline void InsertTailList(PLIST_ENTRY h, PLIST_ENTRY e) {
    e->Flink = h;
    e->Blink = h->Blink;
    h->Blink->Flink = e;
    h->Blink = e;
}
inline BOOLEAN RemoveEntryList(PLIST_ENTRY e) {
    PLIST_ENTRY f = e->Flink, b = e->Blink;
    b->Flink = f;
    f->Blink = b;
    return f == b;
}
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY h) {
    PLIST_ENTRY e = h->Flink;
    RemoveEntryList(e);
    return e;
}

typedef struct _UNICODE_STRING {
    USHORT Length;         // bytes, without a terminator
    USHORT MaximumLength;  // bytes
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, ANSI_STRING, *PANSI_STRING;
typedef const STRING* PCANSI_STRING;

void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
void RtlInitAnsiString(PANSI_STRING DestinationString, PCSTR SourceString);
// Characters above 0x7F become '?' (no code pages are modelled).
NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString);
void RtlFreeAnsiString(PANSI_STRING AnsiString);
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);

// ---------------------------------------------------------------------------
// IRQL
// ---------------------------------------------------------------------------
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

// The IRQL is a property of the calling thread. Raising and lowering only
// change that number: nothing is masked, but the checks of the operations
// below (blocking waits, paged allocations) read it.
KIRQL KeGetCurrentIrql(void);
void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
void KeLowerIrql(KIRQL NewIrql);
KIRQL KeRaiseIrqlToDpcLevel(void);

// ---------------------------------------------------------------------------
// Spin locks
// ---------------------------------------------------------------------------
// A KSPIN_LOCK is a word that is 0 when free. Acquire is one atomic exchange
// when uncontended (no system call); a contended acquire spins, yielding the
// processor now and then, since threads here can be preempted while holding
// a lock. Not modelled: queued spin locks, interrupt spin locks.
void KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

// ---------------------------------------------------------------------------
// Dispatcher objects and waits
// ---------------------------------------------------------------------------
typedef enum _EVENT_TYPE { NotificationEvent = 0, SynchronizationEvent = 1 } EVENT_TYPE;
typedef enum _KWAIT_REASON { Executive = 0 } KWAIT_REASON;
enum { KernelMode = 0, UserMode = 1 };

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;  // object kind (event type, mutex, timer)
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;  // waiting threads, oldest first
} DISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;  // SignalState 1 = free, 1 - n = held n times
    LIST_ENTRY MutantListEntry;
    PVOID OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
void KeClearEvent(PRKEVENT Event);
LONG KeResetEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);

// Level is recorded but not used: no mutex level checks.
void KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
LONG KeReadStateMutex(PRKMUTEX Mutex);

// Waits on an event, mutex or timer. Timeout NULL waits forever; a negative
// value is relative in 100 ns units; a positive one is an absolute system
// time; zero polls. A blocking wait above APC_LEVEL is a platform check
// failure (see kplat::SetCheckHandler). Alertable and WaitMode are accepted
// and ignored: there are no APCs.
NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                               BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

// ---------------------------------------------------------------------------
// DPCs and timers
// ---------------------------------------------------------------------------
struct _KDPC;
typedef void (*PKDEFERRED_ROUTINE)(struct _KDPC* Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                   PVOID SystemArgument2);

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;  // link in the DPC queue while queued
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;  // non-NULL while queued
} KDPC, *PKDPC, *PRKDPC;

// DPCs run at DISPATCH_LEVEL on the stand-in's DPC thread, in the order they
// were queued. Not modelled: importance, target processors, threaded DPCs.
void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc);
void KeFlushQueuedDpcs(void);

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;  // SignalState 1 after expiry, until set again
    ULONGLONG DueTime;         // virtual or steady-clock time in 100 ns units
    LIST_ENTRY TimerListEntry; // link in the timer queue while pending
    PKDPC Dpc;
    LONG Period;               // always 0: periodic timers are not modelled
    ULONGLONG Sequence;        // equal due times expire in setting order
} KTIMER, *PKTIMER, *PRKTIMER;

void KeInitializeTimer(PKTIMER Timer);
// Negative DueTime is relative (100 ns units), positive is absolute system
// time. Returns TRUE when the timer was pending (the new setting replaces it).
BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN KeCancelTimer(PKTIMER Timer);
BOOLEAN KeReadStateTimer(PKTIMER Timer);

// ---------------------------------------------------------------------------
// Time and threads
// ---------------------------------------------------------------------------
// The counter runs at 10 MHz on both clocks.
LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);
// 100 ns units since 1601-01-01. On the virtual clock it starts at a fixed
// date (2014-07-24 00:00:00 UTC) so that traces are repeatable.
void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
HANDLE PsGetCurrentThreadId(void);

// ---------------------------------------------------------------------------
// Interlocked operations (full barriers, as on the platform)
// ---------------------------------------------------------------------------
inline LONG InterlockedIncrement(LONG volatile* a) { return __atomic_add_fetch(a, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedDecrement(LONG volatile* a) { return __atomic_sub_fetch(a, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchange(LONG volatile* a, LONG v) { return __atomic_exchange_n(a, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchangeAdd(LONG volatile* a, LONG v) { return __atomic_fetch_add(a, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedOr(LONG volatile* a, LONG v) { return __atomic_fetch_or(a, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedAnd(LONG volatile* a, LONG v) { return __atomic_fetch_and(a, v, __ATOMIC_SEQ_CST); }
inline LONG InterlockedCompareExchange(LONG volatile* a, LONG exchange, LONG comparand) {
    __atomic_compare_exchange_n(a, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
inline LONG64 InterlockedIncrement64(LONG64 volatile* a) { return __atomic_add_fetch(a, 1, __ATOMIC_SEQ_CST); }
inline LONG64 InterlockedExchangeAdd64(LONG64 volatile* a, LONG64 v) {
    return __atomic_fetch_add(a, v, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedExchangePointer(PVOID volatile* a, PVOID v) {
    return __atomic_exchange_n(a, v, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedCompareExchangePointer(PVOID volatile* a, PVOID exchange, PVOID comparand) {
    __atomic_compare_exchange_n(a, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}

// ---------------------------------------------------------------------------
// Pool memory
// ---------------------------------------------------------------------------
typedef enum _POOL_TYPE { NonPagedPool = 0, PagedPool = 1 } POOL_TYPE;

// Every block carries its tag; live count, bytes and high-water mark are
// kept per tag (kplat::GetPoolTagStats). Memory is not zeroed, as on the
// platform. PagedPool above APC_LEVEL is a check failure. Not modelled: the
// pool quota, lookaside lists, special pool.
PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
void ExFreePoolWithTag(PVOID P, ULONG Tag);  // Tag 0 frees any tag
void ExFreePool(PVOID P);

// ---------------------------------------------------------------------------
// Memory descriptor lists and pages
// ---------------------------------------------------------------------------
typedef enum _MEMORY_CACHING_TYPE { MmNonCached = 0, MmCached = 1, MmWriteCombined = 2 } MEMORY_CACHING_TYPE;
typedef enum _MM_PAGE_PRIORITY { LowPagePriority = 0, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;

typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PVOID Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
    // followed by the page frame numbers; here a "page frame number" is the
    // page's address shifted right by PAGE_SHIFT.
} MDL, *PMDL;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_PARTIAL_HAS_BEEN_MAPPED 0x0020
#define MDL_IO_SPACE 0x0800

#define MmGetMdlPfnArray(Mdl) ((PPFN_NUMBER)((Mdl) + 1))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                   struct _IRP* Irp);
void IoFreeMdl(PMDL Mdl);
void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
// Pages come from one page-aligned host block; the address limits are
// accepted and not enforced (there is no physical memory here).
PMDL MmAllocatePagesForMdl(PHYSICAL_ADDRESS LowAddress, PHYSICAL_ADDRESS HighAddress,
                           PHYSICAL_ADDRESS SkipBytes, SIZE_T TotalBytes);
void MmFreePagesFromMdl(PMDL MemoryDescriptorList);
PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                   ULONG BugCheckOnFailure, ULONG Priority);
void MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);
inline PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority) {
    if (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) return Mdl->MappedSystemVa;
    return MmMapLockedPagesSpecifyCache(Mdl, KernelMode, MmCached, NULL, FALSE, Priority);
}

PVOID MmAllocateContiguousMemory(SIZE_T NumberOfBytes, PHYSICAL_ADDRESS HighestAcceptableAddress);
void MmFreeContiguousMemory(PVOID BaseAddress);

// ---------------------------------------------------------------------------
// I/O manager
// ---------------------------------------------------------------------------
struct _IRP;
struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef NTSTATUS (*PIO_COMPLETION_ROUTINE)(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp, PVOID Context);
typedef NTSTATUS (*PDRIVER_DISPATCH)(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
typedef void (*PDRIVER_CANCEL)(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
typedef void (*PDRIVER_UNLOAD)(struct _DRIVER_OBJECT* DriverObject);
typedef NTSTATUS (*PDRIVER_ADD_DEVICE)(struct _DRIVER_OBJECT* DriverObject, struct _DEVICE_OBJECT* Pdo);

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

#define IRP_MN_START_DEVICE 0x00
#define IRP_MN_QUERY_REMOVE_DEVICE 0x01
#define IRP_MN_REMOVE_DEVICE 0x02
#define IRP_MN_STOP_DEVICE 0x04
#define IRP_MN_SURPRISE_REMOVAL 0x17

#define SL_PENDING_RETURNED 0x01
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

#define IO_NO_INCREMENT 0

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            ULONG OutputBufferLength;
            ULONG POINTER_ALIGNMENT_PAD0_;
            ULONG InputBufferLength;
            ULONG POINTER_ALIGNMENT_PAD1_;
            ULONG IoControlCode;
            ULONG POINTER_ALIGNMENT_PAD2_;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    struct _DEVICE_OBJECT* DeviceObject;
    PVOID FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;  // StackCount + 1 before the first IoCallDriver
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    PDRIVER_CANCEL volatile CancelRoutine;
    PVOID UserBuffer;
    struct {
        struct {
            PVOID DriverContext[4];
            PVOID Thread;
            PCHAR AuxiliaryBuffer;
            LIST_ENTRY ListEntry;
            PIO_STACK_LOCATION CurrentStackLocation;
            PVOID OriginalFileObject;
        } Overlay;
    } Tail;
    // followed by StackCount IO_STACK_LOCATIONs
} IRP, *PIRP;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    struct _DEVICE_OBJECT* DeviceObject;
    ULONG Flags;
    PVOID DriverExtension;
    UNICODE_STRING DriverName;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;

typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    struct _DRIVER_OBJECT* DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    ULONG Flags;
    ULONG Characteristics;
    PVOID DeviceExtension;
    ULONG DeviceType;
    CCHAR StackSize;
} DEVICE_OBJECT, *PDEVICE_OBJECT;

#define DO_DEVICE_INITIALIZING 0x00000080
#define FILE_DEVICE_UNKNOWN 0x00000022

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        ULONG DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT* DeviceObject);
void IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
// Attaches SourceDevice on top of the stack whose top is TargetDevice;
// returns the device it was attached to (the next lower device).
PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
void IoDetachDevice(PDEVICE_OBJECT TargetDevice);

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
void IoFreeIrp(PIRP Irp);
void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver(a, b) IofCallDriver(a, b)
#define IoCompleteRequest(a, b) IofCompleteRequest(a, b)
BOOLEAN IoCancelIrp(PIRP Irp);
void IoAcquireCancelSpinLock(PKIRQL Irql);
void IoReleaseCancelSpinLock(KIRQL Irql);
BOOLEAN IoIsWdmVersionAvailable(UCHAR MajorVersion, UCHAR MinorVersion);

inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) { return Irp->Tail.Overlay.CurrentStackLocation; }
inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) { return Irp->Tail.Overlay.CurrentStackLocation - 1; }
inline void IoSetNextIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation--;
    Irp->Tail.Overlay.CurrentStackLocation--;
}
inline void IoSkipCurrentIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}
inline void IoCopyCurrentIrpStackLocationToNext(PIRP Irp) {
    PIO_STACK_LOCATION cur = IoGetCurrentIrpStackLocation(Irp), next = IoGetNextIrpStackLocation(Irp);
    memcpy(next, cur, offsetof(IO_STACK_LOCATION, CompletionRoutine));
    next->Control = 0;
}
inline void IoMarkIrpPending(PIRP Irp) { IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED; }
inline void IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                   BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel) {
    PIO_STACK_LOCATION s = IoGetNextIrpStackLocation(Irp);
    s->CompletionRoutine = CompletionRoutine;
    s->Context = Context;
    s->Control = 0;
    if (InvokeOnSuccess) s->Control |= SL_INVOKE_ON_SUCCESS;
    if (InvokeOnError) s->Control |= SL_INVOKE_ON_ERROR;
    if (InvokeOnCancel) s->Control |= SL_INVOKE_ON_CANCEL;
}
inline PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine) {
    return (PDRIVER_CANCEL)InterlockedExchangePointer((PVOID volatile*)&Irp->CancelRoutine, (PVOID)CancelRoutine);
}

// Work items: two queues, critical and delayed, each with one worker thread
// that runs its items at PASSIVE_LEVEL in queueing order.
typedef enum _WORK_QUEUE_TYPE { CriticalWorkQueue = 0, DelayedWorkQueue = 1 } WORK_QUEUE_TYPE;
typedef struct _IO_WORKITEM IO_WORKITEM, *PIO_WORKITEM;
typedef void (*PIO_WORKITEM_ROUTINE)(PDEVICE_OBJECT DeviceObject, PVOID Context);
PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject);
void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context);
void IoFreeWorkItem(PIO_WORKITEM IoWorkItem);

// ---------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------
typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_CASE_INSENSITIVE 0x00000040
#define OBJ_KERNEL_HANDLE 0x00000200
#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                           \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);   \
        (p)->RootDirectory = (r);                  \
        (p)->Attributes = (a);                     \
        (p)->ObjectName = (n);                     \
        (p)->SecurityDescriptor = (s);             \
        (p)->SecurityQualityOfService = NULL;      \
    } while (0)

#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_CREATE_SUB_KEY 0x0004
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define KEY_ALL_ACCESS 0xF003F

#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_MULTI_SZ 7

#define REG_OPTION_NON_VOLATILE 0
#define REG_CREATED_NEW_KEY 1
#define REG_OPENED_EXISTING_KEY 2

// Keys are named by absolute paths ("\Registry\Machine\..."), compared
// without regard to case. Not modelled: security descriptors, symbolic
// links, volatile keys, value enumeration.
NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes);
NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition);
NTSTATUS ZwClose(HANDLE Handle);
NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize);

typedef NTSTATUS (*PRTL_QUERY_REGISTRY_ROUTINE)(PWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                                ULONG ValueLength, PVOID Context, PVOID EntryContext);
typedef struct _RTL_QUERY_REGISTRY_TABLE {
    PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
    ULONG Flags;
    PWSTR Name;
    PVOID EntryContext;
    ULONG DefaultType;
    PVOID DefaultData;
    ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

#define RTL_REGISTRY_ABSOLUTE 0
#define RTL_REGISTRY_SERVICES 1
#define RTL_REGISTRY_HANDLE 0x40000000
#define RTL_QUERY_REGISTRY_SUBKEY 0x00000001
#define RTL_QUERY_REGISTRY_TOPKEY 0x00000002
#define RTL_QUERY_REGISTRY_REQUIRED 0x00000004
#define RTL_QUERY_REGISTRY_NOVALUE 0x00000008
#define RTL_QUERY_REGISTRY_NOEXPAND 0x00000010
#define RTL_QUERY_REGISTRY_DIRECT 0x00000020

// Supported: RTL_REGISTRY_ABSOLUTE, RTL_REGISTRY_SERVICES and
// RTL_REGISTRY_HANDLE; table entries with a QueryRoutine and a Name, or
// RTL_QUERY_REGISTRY_DIRECT for REG_DWORD values. A missing value with
// RTL_QUERY_REGISTRY_REQUIRED fails with STATUS_OBJECT_NAME_NOT_FOUND.
NTSTATUS RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                PVOID Context, PVOID Environment);

// ---------------------------------------------------------------------------
// Debugger output and checks
// ---------------------------------------------------------------------------
// printf-style; the text goes to the debug sink (kplat::SetDebugSink).
ULONG DbgPrint(PCSTR Format, ...) __attribute__((format(printf, 1, 2)));
// Reports a fatal platform check; see kplat::SetCheckHandler.
void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4);

#define IRQL_NOT_LESS_OR_EQUAL 0x0000000A
#define IRQL_NOT_GREATER_OR_EQUAL 0x00000009
#define BAD_POOL_CALLER 0x000000C2
#define DRIVER_IRQL_NOT_LESS_OR_EQUAL 0x000000D1
#define MULTIPLE_IRP_COMPLETE_REQUESTS 0x00000044
#define NO_MORE_IRP_STACK_LOCATIONS 0x00000035
#define SPIN_LOCK_NOT_OWNED 0x00000010
#define MUTEX_LEVEL_NUMBER_VIOLATION 0x0000000D
