// NDIS 5.1 miniport interface of the platform, as the driver sees it.
//
// So far: status values, the NDIS spin lock record and memory allocation.
// The rest of the miniport interface is added with the adapter.
#pragma once

#include <ntddk.h>

typedef int NDIS_STATUS, *PNDIS_STATUS;
typedef PVOID NDIS_HANDLE, *PNDIS_HANDLE;

#define NDIS_STATUS_SUCCESS ((NDIS_STATUS)STATUS_SUCCESS)
#define NDIS_STATUS_PENDING ((NDIS_STATUS)STATUS_PENDING)
#define NDIS_STATUS_FAILURE ((NDIS_STATUS)STATUS_UNSUCCESSFUL)
#define NDIS_STATUS_RESOURCES ((NDIS_STATUS)STATUS_INSUFFICIENT_RESOURCES)

// The NDIS spin lock record: the kernel spin lock and the IRQL saved by the
// acquire.
typedef struct _NDIS_SPIN_LOCK {
    KSPIN_LOCK SpinLock;
    KIRQL OldIrql;
} NDIS_SPIN_LOCK, *PNDIS_SPIN_LOCK;

// Non-paged pool with the tag; accounted like ExAllocatePoolWithTag.
NDIS_STATUS NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag);
void NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags);
