// Read before every source of the kernel image (the compiler's -include), so
// that the driver builds against mingw-w64's DDK headers unchanged. It exists
// only for four faults of those headers that a C++ build trips over; each
// entry names the fault. Nothing here adds to or changes the platform's
// interface.
#pragma once

#ifndef __cplusplus
#error "ddkcompat.h is for the C++ sources of the kernel image"
#endif

// wdm.h defines InterlockedBitTestAndSet/Reset for GCC although intrin.h,
// which it includes first, already has them: take wdm.h's.
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

// ndis.h declares NdisMWanIndicateReceiveComplete with a comma missing
// between its parameters; the macro turns that declaration into a valid one
// of an unused name (the driver does no WAN).
#define NdisMWanIndicateReceiveComplete(x) NdisMWanIndicateReceiveComplete_unused(void)

#include <ntddk.h>

// ntddndis.h and ndis.h (which includes it) both define the enum
// _NDIS_REQUEST_TYPE. Read ntddndis.h first with that enum under other
// names; ndis.h then finds ntddndis.h done and defines the enum itself.
#define _NDIS_REQUEST_TYPE ntddndis_NDIS_REQUEST_TYPE
#define NDIS_REQUEST_TYPE ntddndis_REQUEST_TYPE
#define PNDIS_REQUEST_TYPE ntddndis_PREQUEST_TYPE
#define NdisRequestQueryInformation ntddndis_QueryInformation
#define NdisRequestSetInformation ntddndis_SetInformation
#define NdisRequestQueryStatistics ntddndis_QueryStatistics
#define NdisRequestOpen ntddndis_Open
#define NdisRequestClose ntddndis_Close
#define NdisRequestSend ntddndis_Send
#define NdisRequestTransferData ntddndis_TransferData
#define NdisRequestReset ntddndis_Reset
#define NdisRequestGeneric1 ntddndis_Generic1
#define NdisRequestGeneric2 ntddndis_Generic2
#define NdisRequestGeneric3 ntddndis_Generic3
#define NdisRequestGeneric4 ntddndis_Generic4
#include <ntddndis.h>
#undef _NDIS_REQUEST_TYPE
#undef NDIS_REQUEST_TYPE
#undef PNDIS_REQUEST_TYPE
#undef NdisRequestQueryInformation
#undef NdisRequestSetInformation
#undef NdisRequestQueryStatistics
#undef NdisRequestOpen
#undef NdisRequestClose
#undef NdisRequestSend
#undef NdisRequestTransferData
#undef NdisRequestReset
#undef NdisRequestGeneric1
#undef NdisRequestGeneric2
#undef NdisRequestGeneric3
#undef NdisRequestGeneric4

// usbdlib.h declares usbd.sys's routines without C linkage.
#include <usbdi.h>
extern "C" {
#include <usbdlib.h>
}
