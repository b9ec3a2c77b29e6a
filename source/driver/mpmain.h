// The miniport frame: the driver-wide object, DriverEntry, DriverUnload, the
// Plug and Play hook and the NDIS 5.1 handler set.
#pragma once

#include <ndis.h>

#include "NdSpinlock.h"
#include "QbDlList.h"
#include "knmemory.h"

class MpAdapter;

// A wide string literal in the platform's WCHAR.
#ifdef _WIN32
#define MP_WIDE(s) L##s
#else
#define MP_WIDE(s) u##s
#endif

#define MPDRIVER_TRACE_PREFIX_MAX 39
#define MPDRIVER_SURPRISE_REMOVAL_DELAY_MS 200

// The one driver-wide object, from DriverEntry to DriverUnload.
class MpDriver : public KnObject {
public:
    // Contract: PASSIVE_LEVEL. Creates the trace log buffer unless one exists.
    MpDriver();
    // Contract: PASSIVE_LEVEL; no adapter left. Deletes the trace log buffer.
    ~MpDriver();
    MpDriver(const MpDriver&) = delete;
    MpDriver& operator=(const MpDriver&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held. Gives the adapter the
    // smallest number no listed adapter has and appends it to the list.
    void AddAdapter(MpAdapter* adapter);
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held.
    void RemoveAdapter(MpAdapter* adapter);
    // Contract: IRQL <= DISPATCH_LEVEL; mLock not held. The adapter whose FDO
    // is deviceObject, or NULL. The adapter stays valid only while NDIS
    // cannot halt it (inside a PnP IRP for its device).
    MpAdapter* FindAdapter(PDEVICE_OBJECT deviceObject);

    // Guards mAdapterList and the adapters' numbers.
    NdSpinlock mLock;
    QbDlList mAdapterList;
    NDIS_HANDLE mWrapperHandle;
};

// NULL before DriverEntry and after DriverUnload.
extern MpDriver* gMpDriver;

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
void DriverUnload(PDRIVER_OBJECT DriverObject);
NTSTATUS DispatchPnP(PDEVICE_OBJECT DeviceObject, PIRP Irp);

NDIS_STATUS NTAPI MPInitialize(PNDIS_STATUS OpenErrorStatus, PUINT SelectedMediumIndex, PNDIS_MEDIUM MediumArray,
                               UINT MediumArraySize, NDIS_HANDLE MiniportAdapterHandle,
                               NDIS_HANDLE WrapperConfigurationContext);
void NTAPI MPHalt(NDIS_HANDLE MiniportAdapterContext);
NDIS_STATUS NTAPI MPReset(PBOOLEAN AddressingReset, NDIS_HANDLE MiniportAdapterContext);
BOOLEAN NTAPI MPCheckForHang(NDIS_HANDLE MiniportAdapterContext);
NDIS_STATUS NTAPI MPQueryInformation(NDIS_HANDLE MiniportAdapterContext, NDIS_OID Oid, PVOID InformationBuffer,
                                     ULONG InformationBufferLength, PULONG BytesWritten, PULONG BytesNeeded);
NDIS_STATUS NTAPI MPSetInformation(NDIS_HANDLE MiniportAdapterContext, NDIS_OID Oid, PVOID InformationBuffer,
                                   ULONG InformationBufferLength, PULONG BytesRead, PULONG BytesNeeded);
void NTAPI MPSendPackets(NDIS_HANDLE MiniportAdapterContext, PPNDIS_PACKET PacketArray, UINT NumberOfPackets);
NDIS_STATUS NTAPI MPTransferData(PNDIS_PACKET Packet, PUINT BytesTransferred, NDIS_HANDLE MiniportAdapterContext,
                                 NDIS_HANDLE MiniportReceiveContext, UINT ByteOffset, UINT BytesToTransfer);
void NTAPI MPPnPEventNotify(NDIS_HANDLE MiniportAdapterContext, NDIS_DEVICE_PNP_EVENT PnPEvent,
                            PVOID InformationBuffer, ULONG InformationBufferLength);
void NTAPI MPAdapterShutdown(PVOID MiniportAdapterContext);
