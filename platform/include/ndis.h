// NDIS 5.1 miniport interface of the platform, as the driver sees it: the
// names, records, values and argument orders of the platform's own ndis.h
// (mingw-w64's ddk/ndis.h and ntddndis.h), reduced to what the miniport
// calls. Where the platform defines an operation as a macro over the
// miniport block, the stand-in has a function of the same name and
// arguments. Tests and the program reach the other side (the network stack)
// through kplat/ndis.h.
#pragma once

#include <ntddk.h>

typedef int NDIS_STATUS, *PNDIS_STATUS;
typedef PVOID NDIS_HANDLE, *PNDIS_HANDLE;
typedef ULONG NDIS_OID, *PNDIS_OID;
typedef ULONG NDIS_ERROR_CODE, *PNDIS_ERROR_CODE;
typedef UNICODE_STRING NDIS_STRING, *PNDIS_STRING;

// ---------------------------------------------------------------------------
// Status values
// ---------------------------------------------------------------------------
#define NDIS_STATUS_SUCCESS ((NDIS_STATUS)STATUS_SUCCESS)
#define NDIS_STATUS_PENDING ((NDIS_STATUS)STATUS_PENDING)
#define NDIS_STATUS_FAILURE ((NDIS_STATUS)STATUS_UNSUCCESSFUL)
#define NDIS_STATUS_RESOURCES ((NDIS_STATUS)STATUS_INSUFFICIENT_RESOURCES)
#define NDIS_STATUS_NOT_SUPPORTED ((NDIS_STATUS)STATUS_NOT_SUPPORTED)
#define NDIS_STATUS_MEDIA_CONNECT ((NDIS_STATUS)0x4001000BL)
#define NDIS_STATUS_MEDIA_DISCONNECT ((NDIS_STATUS)0x4001000CL)
#define NDIS_STATUS_HARD_ERRORS ((NDIS_STATUS)0x80010004L)
#define NDIS_STATUS_BAD_VERSION ((NDIS_STATUS)0xC0010004L)
#define NDIS_STATUS_BAD_CHARACTERISTICS ((NDIS_STATUS)0xC0010005L)
#define NDIS_STATUS_ADAPTER_NOT_FOUND ((NDIS_STATUS)0xC0010006L)
#define NDIS_STATUS_MULTICAST_FULL ((NDIS_STATUS)0xC0010009L)
#define NDIS_STATUS_INVALID_LENGTH ((NDIS_STATUS)0xC0010014L)
#define NDIS_STATUS_INVALID_DATA ((NDIS_STATUS)0xC0010015L)
#define NDIS_STATUS_UNSUPPORTED_MEDIA ((NDIS_STATUS)0xC0010019L)

// ---------------------------------------------------------------------------
// Enumerations
// ---------------------------------------------------------------------------
typedef enum _NDIS_MEDIUM {
    NdisMedium802_3,
    NdisMedium802_5,
    NdisMediumFddi,
    NdisMediumWan,
    NdisMediumLocalTalk,
    NdisMediumDix,
    NdisMediumArcnetRaw,
    NdisMediumArcnet878_2,
    NdisMediumAtm,
    NdisMediumWirelessWan,
    NdisMediumIrda,
    NdisMediumBpc,
    NdisMediumCoWan,
    NdisMedium1394,
    NdisMediumInfiniBand,
    NdisMediumMax
} NDIS_MEDIUM, *PNDIS_MEDIUM;

typedef enum _NDIS_PARAMETER_TYPE {
    NdisParameterInteger,
    NdisParameterHexInteger,
    NdisParameterString,
    NdisParameterMultiString,
    NdisParameterBinary
} NDIS_PARAMETER_TYPE, *PNDIS_PARAMETER_TYPE;

typedef enum _NDIS_DEVICE_PNP_EVENT {
    NdisDevicePnPEventQueryRemoved,
    NdisDevicePnPEventRemoved,
    NdisDevicePnPEventSurpriseRemoved,
    NdisDevicePnPEventQueryStopped,
    NdisDevicePnPEventStopped,
    NdisDevicePnPEventPowerProfileChanged,
    NdisDevicePnPEventMaximum
} NDIS_DEVICE_PNP_EVENT, *PNDIS_DEVICE_PNP_EVENT;

typedef enum _NDIS_DEVICE_POWER_STATE {
    NdisDeviceStateUnspecified = 0,
    NdisDeviceStateD0,
    NdisDeviceStateD1,
    NdisDeviceStateD2,
    NdisDeviceStateD3,
    NdisDeviceStateMaximum
} NDIS_DEVICE_POWER_STATE, *PNDIS_DEVICE_POWER_STATE;

typedef enum _NDIS_HARDWARE_STATUS {
    NdisHardwareStatusReady,
    NdisHardwareStatusInitializing,
    NdisHardwareStatusReset,
    NdisHardwareStatusClosing,
    NdisHardwareStatusNotReady
} NDIS_HARDWARE_STATUS, *PNDIS_HARDWARE_STATUS;

typedef enum _NDIS_MEDIA_STATE { NdisMediaStateConnected, NdisMediaStateDisconnected } NDIS_MEDIA_STATE;

typedef enum _NDIS_POWER_PROFILE { NdisPowerProfileBattery, NdisPowerProfileAcOnLine } NDIS_POWER_PROFILE;

typedef enum _NDIS_INTERFACE_TYPE { NdisInterfaceInternal = 0 } NDIS_INTERFACE_TYPE;

#define NDIS_ATTRIBUTE_DESERIALIZE 0x00000020
#define NDIS_ATTRIBUTE_SURPRISE_REMOVE_OK 0x00000080

// ---------------------------------------------------------------------------
// OIDs, packet types and options the miniport answers
// ---------------------------------------------------------------------------
#define OID_GEN_SUPPORTED_LIST 0x00010101
#define OID_GEN_HARDWARE_STATUS 0x00010102
#define OID_GEN_MEDIA_SUPPORTED 0x00010103
#define OID_GEN_MEDIA_IN_USE 0x00010104
#define OID_GEN_MAXIMUM_LOOKAHEAD 0x00010105
#define OID_GEN_MAXIMUM_FRAME_SIZE 0x00010106
#define OID_GEN_LINK_SPEED 0x00010107
#define OID_GEN_TRANSMIT_BUFFER_SPACE 0x00010108
#define OID_GEN_RECEIVE_BUFFER_SPACE 0x00010109
#define OID_GEN_TRANSMIT_BLOCK_SIZE 0x0001010A
#define OID_GEN_RECEIVE_BLOCK_SIZE 0x0001010B
#define OID_GEN_VENDOR_ID 0x0001010C
#define OID_GEN_VENDOR_DESCRIPTION 0x0001010D
#define OID_GEN_CURRENT_PACKET_FILTER 0x0001010E
#define OID_GEN_CURRENT_LOOKAHEAD 0x0001010F
#define OID_GEN_DRIVER_VERSION 0x00010110
#define OID_GEN_MAXIMUM_TOTAL_SIZE 0x00010111
#define OID_GEN_PROTOCOL_OPTIONS 0x00010112
#define OID_GEN_MAC_OPTIONS 0x00010113
#define OID_GEN_MEDIA_CONNECT_STATUS 0x00010114
#define OID_GEN_MAXIMUM_SEND_PACKETS 0x00010115
#define OID_GEN_VENDOR_DRIVER_VERSION 0x00010116
#define OID_GEN_VLAN_ID 0x0001021C
#define OID_GEN_XMIT_OK 0x00020101
#define OID_GEN_RCV_OK 0x00020102
#define OID_GEN_XMIT_ERROR 0x00020103
#define OID_GEN_RCV_ERROR 0x00020104
#define OID_GEN_RCV_NO_BUFFER 0x00020105
#define OID_802_3_PERMANENT_ADDRESS 0x01010101
#define OID_802_3_CURRENT_ADDRESS 0x01010102
#define OID_802_3_MULTICAST_LIST 0x01010103
#define OID_802_3_MAXIMUM_LIST_SIZE 0x01010104
#define OID_802_3_MAC_OPTIONS 0x01010105
#define OID_802_3_RCV_ERROR_ALIGNMENT 0x01020101
#define OID_802_3_XMIT_ONE_COLLISION 0x01020102
#define OID_802_3_XMIT_MORE_COLLISIONS 0x01020103
#define OID_PNP_CAPABILITIES 0xFD010100
#define OID_PNP_SET_POWER 0xFD010101
#define OID_PNP_QUERY_POWER 0xFD010102
#define OID_PNP_ADD_WAKE_UP_PATTERN 0xFD010103
#define OID_PNP_REMOVE_WAKE_UP_PATTERN 0xFD010104
#define OID_PNP_WAKE_UP_PATTERN_LIST 0xFD010105
#define OID_PNP_ENABLE_WAKE_UP 0xFD010106
#define OID_PNP_WAKE_UP_OK 0xFD020200
#define OID_PNP_WAKE_UP_ERROR 0xFD020201

#define NDIS_PACKET_TYPE_DIRECTED 0x00000001
#define NDIS_PACKET_TYPE_MULTICAST 0x00000002
#define NDIS_PACKET_TYPE_ALL_MULTICAST 0x00000004
#define NDIS_PACKET_TYPE_BROADCAST 0x00000008
#define NDIS_PACKET_TYPE_PROMISCUOUS 0x00000020

#define NDIS_MAC_OPTION_COPY_LOOKAHEAD_DATA 0x00000001
#define NDIS_MAC_OPTION_RECEIVE_SERIALIZED 0x00000002
#define NDIS_MAC_OPTION_TRANSFERS_NOT_PEND 0x00000004
#define NDIS_MAC_OPTION_NO_LOOPBACK 0x00000008
#define NDIS_MAC_OPTION_8021Q_VLAN 0x00000200

// ---------------------------------------------------------------------------
// Configuration
// ---------------------------------------------------------------------------
typedef struct _BINARY_DATA {
    USHORT Length;
    PVOID Buffer;
} BINARY_DATA;

typedef struct _NDIS_CONFIGURATION_PARAMETER {
    NDIS_PARAMETER_TYPE ParameterType;
    union {
        ULONG IntegerData;
        NDIS_STRING StringData;
        BINARY_DATA BinaryData;
    } ParameterData;
} NDIS_CONFIGURATION_PARAMETER, *PNDIS_CONFIGURATION_PARAMETER;

// ---------------------------------------------------------------------------
// Packets and buffers
// ---------------------------------------------------------------------------
typedef MDL NDIS_BUFFER, *PNDIS_BUFFER;
typedef NDIS_HANDLE PNDIS_PACKET_POOL;

typedef struct _NDIS_PACKET_PRIVATE {
    UINT PhysicalCount;
    UINT TotalLength;
    PNDIS_BUFFER Head;
    PNDIS_BUFFER Tail;
    PNDIS_PACKET_POOL Pool;
    UINT Count;
    ULONG Flags;
    BOOLEAN ValidCounts;
    UCHAR NdisPacketFlags;
    USHORT NdisPacketOobOffset;
} NDIS_PACKET_PRIVATE, *PNDIS_PACKET_PRIVATE;

typedef struct _NDIS_PACKET {
    NDIS_PACKET_PRIVATE Private;
    union {
        struct {
            UCHAR MiniportReserved[2 * sizeof(PVOID)];
            UCHAR WrapperReserved[2 * sizeof(PVOID)];
        };
        struct {
            UCHAR MiniportReservedEx[3 * sizeof(PVOID)];
            UCHAR WrapperReservedEx[sizeof(PVOID)];
        };
        struct {
            UCHAR MacReserved[4 * sizeof(PVOID)];
        };
    };
    ULONG_PTR Reserved[2];
    UCHAR ProtocolReserved[1];
} NDIS_PACKET, *PNDIS_PACKET, **PPNDIS_PACKET;

// The packet's buffer chain and total length. The counts are recomputed
// from the chain unless the packet holds valid ones (then they are cached).
inline void NdisQueryPacket(PNDIS_PACKET Packet, PUINT PhysicalBufferCount, PUINT BufferCount,
                            PNDIS_BUFFER* FirstBuffer, PUINT TotalPacketLength)
{
    if (FirstBuffer != NULL) {
        *FirstBuffer = Packet->Private.Head;
    }
    if (TotalPacketLength != NULL || BufferCount != NULL || PhysicalBufferCount != NULL) {
        if (!Packet->Private.ValidCounts) {
            UINT total = 0, count = 0;
            for (PNDIS_BUFFER b = Packet->Private.Head; b != NULL; b = b->Next) {
                total += MmGetMdlByteCount(b);
                count++;
            }
            Packet->Private.TotalLength = total;
            Packet->Private.Count = count;
            Packet->Private.PhysicalCount = count;
            Packet->Private.ValidCounts = TRUE;
        }
        if (PhysicalBufferCount != NULL) *PhysicalBufferCount = Packet->Private.PhysicalCount;
        if (BufferCount != NULL) *BufferCount = Packet->Private.Count;
        if (TotalPacketLength != NULL) *TotalPacketLength = Packet->Private.TotalLength;
    }
}

// System address (mapping the buffer if it is not mapped yet; NULL if that
// fails) and byte count of one buffer.
inline void NdisQueryBufferSafe(PNDIS_BUFFER Buffer, PVOID* VirtualAddress, PUINT Length, ULONG Priority)
{
    if (VirtualAddress != NULL) {
        *VirtualAddress = MmGetSystemAddressForMdlSafe(Buffer, Priority);
    }
    *Length = MmGetMdlByteCount(Buffer);
}

inline void NdisGetNextBuffer(PNDIS_BUFFER CurrentBuffer, PNDIS_BUFFER* NextBuffer)
{
    *NextBuffer = CurrentBuffer->Next;
}

// ---------------------------------------------------------------------------
// Timers
// ---------------------------------------------------------------------------
typedef void(NTAPI* PNDIS_TIMER_FUNCTION)(PVOID SystemSpecific1, PVOID FunctionContext, PVOID SystemSpecific2,
                                          PVOID SystemSpecific3);

typedef struct _NDIS_TIMER {
    KTIMER Timer;
    KDPC Dpc;
} NDIS_TIMER, *PNDIS_TIMER;

typedef struct _NDIS_MINIPORT_BLOCK NDIS_MINIPORT_BLOCK, *PNDIS_MINIPORT_BLOCK;

// A miniport timer starts with the record of an NDIS timer, so NdisSetTimer
// takes either.
typedef struct _NDIS_MINIPORT_TIMER {
    KTIMER Timer;
    KDPC Dpc;
    PNDIS_TIMER_FUNCTION MiniportTimerFunction;
    PVOID MiniportTimerContext;
    PNDIS_MINIPORT_BLOCK Miniport;
    struct _NDIS_MINIPORT_TIMER* NextDeferredTimer;
} NDIS_MINIPORT_TIMER, *PNDIS_MINIPORT_TIMER;

// ---------------------------------------------------------------------------
// Miniport characteristics
// ---------------------------------------------------------------------------
typedef BOOLEAN(NTAPI* W_CHECK_FOR_HANG_HANDLER)(NDIS_HANDLE MiniportAdapterContext);
typedef void(NTAPI* W_DISABLE_INTERRUPT_HANDLER)(NDIS_HANDLE MiniportAdapterContext);
typedef void(NTAPI* W_ENABLE_INTERRUPT_HANDLER)(NDIS_HANDLE MiniportAdapterContext);
typedef void(NTAPI* W_HALT_HANDLER)(NDIS_HANDLE MiniportAdapterContext);
typedef void(NTAPI* W_HANDLE_INTERRUPT_HANDLER)(NDIS_HANDLE MiniportAdapterContext);
typedef NDIS_STATUS(NTAPI* W_INITIALIZE_HANDLER)(PNDIS_STATUS OpenErrorStatus, PUINT SelectedMediumIndex,
                                                 PNDIS_MEDIUM MediumArray, UINT MediumArraySize,
                                                 NDIS_HANDLE MiniportAdapterContext,
                                                 NDIS_HANDLE WrapperConfigurationContext);
typedef void(NTAPI* W_ISR_HANDLER)(PBOOLEAN InterruptRecognized, PBOOLEAN QueueMiniportHandleInterrupt,
                                   NDIS_HANDLE MiniportAdapterContext);
typedef NDIS_STATUS(NTAPI* W_QUERY_INFORMATION_HANDLER)(NDIS_HANDLE MiniportAdapterContext, NDIS_OID Oid,
                                                        PVOID InformationBuffer, ULONG InformationBufferLength,
                                                        PULONG BytesWritten, PULONG BytesNeeded);
typedef NDIS_STATUS(NTAPI* W_RECONFIGURE_HANDLER)(PNDIS_STATUS OpenErrorStatus, NDIS_HANDLE MiniportAdapterContext,
                                                  NDIS_HANDLE WrapperConfigurationContext);
typedef NDIS_STATUS(NTAPI* W_RESET_HANDLER)(PBOOLEAN AddressingReset, NDIS_HANDLE MiniportAdapterContext);
typedef NDIS_STATUS(NTAPI* W_SEND_HANDLER)(NDIS_HANDLE MiniportAdapterContext, PNDIS_PACKET Packet, UINT Flags);
typedef NDIS_STATUS(NTAPI* W_SET_INFORMATION_HANDLER)(NDIS_HANDLE MiniportAdapterContext, NDIS_OID Oid,
                                                      PVOID InformationBuffer, ULONG InformationBufferLength,
                                                      PULONG BytesRead, PULONG BytesNeeded);
typedef NDIS_STATUS(NTAPI* W_TRANSFER_DATA_HANDLER)(PNDIS_PACKET Packet, PUINT BytesTransferred,
                                                    NDIS_HANDLE MiniportAdapterContext,
                                                    NDIS_HANDLE MiniportReceiveContext, UINT ByteOffset,
                                                    UINT BytesToTransfer);
typedef void(NTAPI* W_RETURN_PACKET_HANDLER)(NDIS_HANDLE MiniportAdapterContext, PNDIS_PACKET Packet);
typedef void(NTAPI* W_SEND_PACKETS_HANDLER)(NDIS_HANDLE MiniportAdapterContext, PPNDIS_PACKET PacketArray,
                                            UINT NumberOfPackets);
typedef void(NTAPI* W_ALLOCATE_COMPLETE_HANDLER)(NDIS_HANDLE MiniportAdapterContext, PVOID VirtualAddress,
                                                 PVOID PhysicalAddress, ULONG Length, PVOID Context);
typedef void(NTAPI* W_CANCEL_SEND_PACKETS_HANDLER)(NDIS_HANDLE MiniportAdapterContext, PVOID CancelId);
typedef void(NTAPI* W_PNP_EVENT_NOTIFY_HANDLER)(NDIS_HANDLE MiniportAdapterContext, NDIS_DEVICE_PNP_EVENT PnPEvent,
                                                PVOID InformationBuffer, ULONG InformationBufferLength);
typedef void(NTAPI* W_MINIPORT_SHUTDOWN_HANDLER)(PVOID ShutdownContext);

typedef struct _NDIS30_MINIPORT_CHARACTERISTICS {
    UCHAR MajorNdisVersion;
    UCHAR MinorNdisVersion;
    UINT Reserved;
    W_CHECK_FOR_HANG_HANDLER CheckForHangHandler;
    W_DISABLE_INTERRUPT_HANDLER DisableInterruptHandler;
    W_ENABLE_INTERRUPT_HANDLER EnableInterruptHandler;
    W_HALT_HANDLER HaltHandler;
    W_HANDLE_INTERRUPT_HANDLER HandleInterruptHandler;
    W_INITIALIZE_HANDLER InitializeHandler;
    W_ISR_HANDLER ISRHandler;
    W_QUERY_INFORMATION_HANDLER QueryInformationHandler;
    W_RECONFIGURE_HANDLER ReconfigureHandler;
    W_RESET_HANDLER ResetHandler;
    W_SEND_HANDLER SendHandler;
    W_SET_INFORMATION_HANDLER SetInformationHandler;
    W_TRANSFER_DATA_HANDLER TransferDataHandler;
} NDIS30_MINIPORT_CHARACTERISTICS;

typedef struct _NDIS40_MINIPORT_CHARACTERISTICS {
    NDIS30_MINIPORT_CHARACTERISTICS Ndis30Chars;
    W_RETURN_PACKET_HANDLER ReturnPacketHandler;
    W_SEND_PACKETS_HANDLER SendPacketsHandler;
    W_ALLOCATE_COMPLETE_HANDLER AllocateCompleteHandler;
} NDIS40_MINIPORT_CHARACTERISTICS;

typedef struct _NDIS50_MINIPORT_CHARACTERISTICS {
    NDIS40_MINIPORT_CHARACTERISTICS Ndis40Chars;
    PVOID CoCreateVcHandler;
    PVOID CoDeleteVcHandler;
    PVOID CoActivateVcHandler;
    PVOID CoDeactivateVcHandler;
    PVOID CoSendPacketsHandler;
    PVOID CoRequestHandler;
} NDIS50_MINIPORT_CHARACTERISTICS;

typedef struct _NDIS51_MINIPORT_CHARACTERISTICS {
    NDIS50_MINIPORT_CHARACTERISTICS Ndis50Chars;
    W_CANCEL_SEND_PACKETS_HANDLER CancelSendPacketsHandler;
    W_PNP_EVENT_NOTIFY_HANDLER PnPEventNotifyHandler;
    W_MINIPORT_SHUTDOWN_HANDLER AdapterShutdownHandler;
    PVOID Reserved1;
    PVOID Reserved2;
    PVOID Reserved3;
    PVOID Reserved4;
} NDIS51_MINIPORT_CHARACTERISTICS, *PNDIS51_MINIPORT_CHARACTERISTICS;
typedef NDIS51_MINIPORT_CHARACTERISTICS NDIS_MINIPORT_CHARACTERISTICS, *PNDIS_MINIPORT_CHARACTERISTICS;
static_assert(sizeof(NDIS51_MINIPORT_CHARACTERISTICS) == 240, "NDIS 5.1 characteristics are 240 bytes on x64");

// ---------------------------------------------------------------------------
// The NDIS spin lock record: the kernel spin lock and the IRQL saved by the
// acquire.
// ---------------------------------------------------------------------------
typedef struct _NDIS_SPIN_LOCK {
    KSPIN_LOCK SpinLock;
    KIRQL OldIrql;
} NDIS_SPIN_LOCK, *PNDIS_SPIN_LOCK;

typedef struct _CM_RESOURCE_LIST CM_RESOURCE_LIST, *PCM_RESOURCE_LIST;

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------
// Registration (DriverEntry, PASSIVE_LEVEL).
void NdisInitializeWrapper(PNDIS_HANDLE NdisWrapperHandle, PVOID SystemSpecific1, PVOID SystemSpecific2,
                           PVOID SystemSpecific3);
NDIS_STATUS NdisMRegisterMiniport(NDIS_HANDLE NdisWrapperHandle, PNDIS_MINIPORT_CHARACTERISTICS MiniportCharacteristics,
                                  UINT CharacteristicsLength);
void NdisTerminateWrapper(NDIS_HANDLE NdisWrapperHandle, PVOID SystemSpecific);
void NdisMRegisterUnloadHandler(NDIS_HANDLE NdisWrapperHandle, PDRIVER_UNLOAD UnloadHandler);

// Adapter attributes and device objects (MiniportInitialize, PASSIVE_LEVEL).
void NdisMSetAttributesEx(NDIS_HANDLE MiniportAdapterHandle, NDIS_HANDLE MiniportAdapterContext,
                          UINT CheckForHangTimeInSeconds, ULONG AttributeFlags, NDIS_INTERFACE_TYPE AdapterType);
void NdisMGetDeviceProperty(NDIS_HANDLE MiniportAdapterHandle, PDEVICE_OBJECT* PhysicalDeviceObject,
                            PDEVICE_OBJECT* FunctionalDeviceObject, PDEVICE_OBJECT* NextDeviceObject,
                            PCM_RESOURCE_LIST* AllocatedResources, PCM_RESOURCE_LIST* AllocatedResourcesTranslated);

// Configuration (PASSIVE_LEVEL). A parameter read stays valid until the
// configuration is closed.
void NdisOpenConfiguration(PNDIS_STATUS Status, PNDIS_HANDLE ConfigurationHandle,
                           NDIS_HANDLE WrapperConfigurationContext);
void NdisReadConfiguration(PNDIS_STATUS Status, PNDIS_CONFIGURATION_PARAMETER* ParameterValue,
                           NDIS_HANDLE ConfigurationHandle, PNDIS_STRING Keyword, NDIS_PARAMETER_TYPE ParameterType);
void NdisReadNetworkAddress(PNDIS_STATUS Status, PVOID* NetworkAddress, PUINT NetworkAddressLength,
                            NDIS_HANDLE ConfigurationHandle);
void NdisCloseConfiguration(NDIS_HANDLE ConfigurationHandle);

// One-shot timers whose function runs at DISPATCH_LEVEL. Setting a pending
// timer restarts it; cancelling an idle one is harmless.
void NdisMInitializeTimer(PNDIS_MINIPORT_TIMER Timer, NDIS_HANDLE MiniportAdapterHandle,
                          PNDIS_TIMER_FUNCTION TimerFunction, PVOID FunctionContext);
void NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay);
void NdisMCancelTimer(PNDIS_MINIPORT_TIMER Timer, PBOOLEAN TimerCancelled);

// Indications and completions (<= DISPATCH_LEVEL; never with a lock held).
void NdisMIndicateStatus(NDIS_HANDLE MiniportAdapterHandle, NDIS_STATUS GeneralStatus, PVOID StatusBuffer,
                         UINT StatusBufferSize);
void NdisMIndicateStatusComplete(NDIS_HANDLE MiniportAdapterHandle);
// HeaderBuffer is a PCHAR as in the DDK, whose NdisMEthIndicateReceive is a
// macro that hands it to the Ethernet filter's receive handler unconverted.
void NdisMEthIndicateReceive(NDIS_HANDLE MiniportAdapterHandle, NDIS_HANDLE MiniportReceiveContext,
                             PCHAR HeaderBuffer, UINT HeaderBufferSize, PVOID LookaheadBuffer,
                             UINT LookaheadBufferSize, UINT PacketSize);
void NdisMEthIndicateReceiveComplete(NDIS_HANDLE MiniportAdapterHandle);
void NdisMSendComplete(NDIS_HANDLE MiniportAdapterHandle, PNDIS_PACKET Packet, NDIS_STATUS Status);
void NdisMResetComplete(NDIS_HANDLE MiniportAdapterHandle, NDIS_STATUS Status, BOOLEAN AddressingReset);
void NdisMSetInformationComplete(NDIS_HANDLE MiniportAdapterHandle, NDIS_STATUS Status);

// Event log entry with NumberOfErrorValues ULONG values.
void NdisWriteErrorLogEntry(NDIS_HANDLE NdisAdapterHandle, NDIS_ERROR_CODE ErrorCode, ULONG NumberOfErrorValues,
                            ...);

// Non-paged pool with the tag; accounted like ExAllocatePoolWithTag.
NDIS_STATUS NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag);
void NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags);
