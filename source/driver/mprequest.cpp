// OID requests: one switch for the queries, one for the sets. Both run under
// the adapter lock and answer from the adapter's state; a power set is the
// only request left pending (it completes from the start/stop completion
// timer once the device control has stopped or started).
#include "devicecontncm.h"
#include "knnames.h"
#include "kntrace.h"
#include "mpadapter.h"
#include "mpmain.h"

#define MPREQUEST_DRIVER_VERSION 0x0501
#define MPREQUEST_VENDOR_DRIVER_VERSION 0x00010032
#define MPREQUEST_MAC_OPTIONS                                                                      \
    (NDIS_MAC_OPTION_COPY_LOOKAHEAD_DATA | NDIS_MAC_OPTION_RECEIVE_SERIALIZED |                    \
     NDIS_MAC_OPTION_TRANSFERS_NOT_PEND | NDIS_MAC_OPTION_NO_LOOPBACK)

static const ULONG kSupportedOids[] = {
    OID_GEN_SUPPORTED_LIST,        OID_GEN_HARDWARE_STATUS,       OID_GEN_MEDIA_SUPPORTED,
    OID_GEN_MEDIA_IN_USE,          OID_GEN_MAXIMUM_LOOKAHEAD,     OID_GEN_MAXIMUM_FRAME_SIZE,
    OID_GEN_LINK_SPEED,            OID_GEN_TRANSMIT_BUFFER_SPACE, OID_GEN_RECEIVE_BUFFER_SPACE,
    OID_GEN_TRANSMIT_BLOCK_SIZE,   OID_GEN_RECEIVE_BLOCK_SIZE,    OID_GEN_VENDOR_ID,
    OID_GEN_VENDOR_DESCRIPTION,    OID_GEN_CURRENT_PACKET_FILTER, OID_GEN_CURRENT_LOOKAHEAD,
    OID_GEN_DRIVER_VERSION,        OID_GEN_MAXIMUM_TOTAL_SIZE,    OID_GEN_PROTOCOL_OPTIONS,
    OID_GEN_MAC_OPTIONS,           OID_GEN_MEDIA_CONNECT_STATUS,  OID_GEN_MAXIMUM_SEND_PACKETS,
    OID_GEN_VENDOR_DRIVER_VERSION, OID_GEN_VLAN_ID,               OID_GEN_XMIT_OK,
    OID_GEN_RCV_OK,                OID_GEN_XMIT_ERROR,            OID_GEN_RCV_ERROR,
    OID_GEN_RCV_NO_BUFFER,         OID_802_3_PERMANENT_ADDRESS,   OID_802_3_CURRENT_ADDRESS,
    OID_802_3_MULTICAST_LIST,      OID_802_3_MAXIMUM_LIST_SIZE,   OID_802_3_MAC_OPTIONS,
    OID_802_3_RCV_ERROR_ALIGNMENT, OID_802_3_XMIT_ONE_COLLISION,  OID_802_3_XMIT_MORE_COLLISIONS,
    OID_PNP_CAPABILITIES,          OID_PNP_SET_POWER,             OID_PNP_QUERY_POWER,
    OID_PNP_ENABLE_WAKE_UP,
};
static_assert(sizeof(kSupportedOids) == 160, "40 supported OIDs");

// Selectors of the device's Ethernet statistics.
enum : UCHAR {
    kStatXmitOk = 1,
    kStatRcvOk = 2,
    kStatXmitError = 3,
    kStatRcvError = 4,
    kStatRcvNoBuffer = 5,
    kStatRcvErrorAlignment = 0x14,
    kStatXmitOneCollision = 0x15,
    kStatXmitMoreCollisions = 0x16,
};

NDIS_STATUS NTAPI MPQueryInformation(NDIS_HANDLE MiniportAdapterContext, NDIS_OID Oid, PVOID InformationBuffer,
                                     ULONG InformationBufferLength, PULONG BytesWritten, PULONG BytesNeeded)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_OID, "%P: [MPQueryInformation OID:%D %s\n", Oid, NdOidName(Oid));
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MpAdapter::IsValid(adapter)) {
        KnAssertFailed("PTRVALID(Adp,MpAdapter)", __FILE__, __LINE__);
        return NDIS_STATUS_FAILURE;
    }
    return adapter->QueryInformation(Oid, InformationBuffer, InformationBufferLength, BytesWritten, BytesNeeded);
}

NDIS_STATUS NTAPI MPSetInformation(NDIS_HANDLE MiniportAdapterContext, NDIS_OID Oid, PVOID InformationBuffer,
                                   ULONG InformationBufferLength, PULONG BytesRead, PULONG BytesNeeded)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_OID, "%P: [MPSetInformation OID:%D %s\n", Oid, NdOidName(Oid));
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MpAdapter::IsValid(adapter)) {
        KnAssertFailed("PTRVALID(Adp,MpAdapter)", __FILE__, __LINE__);
        return NDIS_STATUS_FAILURE;
    }
    return adapter->SetInformation(Oid, InformationBuffer, InformationBufferLength, BytesRead, BytesNeeded);
}

// Prints a list of 6-byte addresses, each as two blanks, a hex dump and a
// line end.
static void DumpAddresses(const UCHAR* table, ULONG count)
{
    for (ULONG i = 0; i < count; i++) {
        KnPrint("  ");
        KnHexDump(table + i * 6, 6);
        KnPrint("\n");
    }
}

NDIS_STATUS MpAdapter::QueryInformation(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesWritten,
                                        PULONG bytesNeeded)
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    NDIS_STATUS status = NDIS_STATUS_SUCCESS;
    ULONG value = 0;
    const void* answer = &value;
    ULONG answerLength = sizeof(ULONG);
    USHORT shortValue = 0;
    UCHAR vendorId[4] = {0, 0, 0, 0};
    ULONG vlanCut = mConfig.VlanEnabled != 0 ? MPADAPTER_VLAN_TAG_SIZE : 0;
    ULONG pnp[3];

    // The device's statistic `selector`, or `fallback` when it has none.
    auto statistic = [this](UCHAR selector, ULONG fallback) {
        ULONG v;
        return mDeviceCont != NULL && mDeviceCont->GetEthernetStatistic(selector, &v) ? v : fallback;
    };

    switch (oid) {
    case OID_GEN_SUPPORTED_LIST:
        answer = kSupportedOids;
        answerLength = sizeof(kSupportedOids);
        break;
    case OID_GEN_HARDWARE_STATUS: value = mHardwareStatus; break;
    case OID_GEN_MEDIA_SUPPORTED:
    case OID_GEN_MEDIA_IN_USE: value = NdisMedium802_3; break;
    case OID_GEN_MAXIMUM_LOOKAHEAD:
    case OID_GEN_MAXIMUM_FRAME_SIZE: value = mMtu - vlanCut; break;
    case OID_GEN_LINK_SPEED: value = __atomic_load_n(&mLinkSpeed, __ATOMIC_RELAXED); break;
    case OID_GEN_TRANSMIT_BUFFER_SPACE: value = mTransmitBufferSpace; break;
    case OID_GEN_RECEIVE_BUFFER_SPACE: value = mReceiveBufferSpace; break;
    case OID_GEN_TRANSMIT_BLOCK_SIZE: value = mMaxFrameSize - vlanCut; break;
    case OID_GEN_RECEIVE_BLOCK_SIZE: value = mMaxFrameSize; break;
    case OID_GEN_VENDOR_ID:
        RtlCopyMemory(vendorId, mPermanentAddress, 3);
        answer = vendorId;
        break;
    case OID_GEN_VENDOR_DESCRIPTION: {
        ULONG n = 0;
        while (n < sizeof(gMpVendorDescription) && gMpVendorDescription[n] != 0) n++;
        answer = gMpVendorDescription;
        answerLength = n;
        KN_TRACE(KN_TRACE_INFO, "%PMPQueryInformation: VendorDescription(%u): %s", n, gMpVendorDescription);
        break;
    }
    case OID_GEN_CURRENT_PACKET_FILTER:
        value = mPacketFilter;
        if (KnGetTraceMask() & KN_TRACE_OID) {
            KnPrint("%P: Query OID_GEN_CURRENT_PACKET_FILTER:\n");
            NdDumpPacketFilter(value);
        }
        break;
    case OID_GEN_CURRENT_LOOKAHEAD: value = mMtu; break;
    case OID_GEN_DRIVER_VERSION:
        shortValue = MPREQUEST_DRIVER_VERSION;
        answer = &shortValue;
        answerLength = sizeof(USHORT);
        break;
    case OID_GEN_MAXIMUM_TOTAL_SIZE: value = mMaxFrameSize; break;
    case OID_GEN_MAC_OPTIONS:
        value = MPREQUEST_MAC_OPTIONS;
        if (mConfig.VlanID != 0 && mConfig.VlanEnabled != 0) {
            value |= NDIS_MAC_OPTION_8021Q_VLAN;
        }
        break;
    case OID_GEN_MEDIA_CONNECT_STATUS: value = __atomic_load_n(&mMediaState, __ATOMIC_RELAXED); break;
    case OID_GEN_MAXIMUM_SEND_PACKETS: value = mConfig.TxBuffers; break;
    case OID_GEN_VENDOR_DRIVER_VERSION: value = MPREQUEST_VENDOR_DRIVER_VERSION; break;
    case OID_GEN_VLAN_ID: value = mConfig.VlanID; break;
    case OID_GEN_XMIT_OK: value = statistic(kStatXmitOk, __atomic_load_n(&mTxFramesOk, __ATOMIC_RELAXED)); break;
    case OID_GEN_RCV_OK: value = statistic(kStatRcvOk, mRxFramesOk); break;
    case OID_GEN_XMIT_ERROR: value = statistic(kStatXmitError, mTxErrors); break;
    case OID_GEN_RCV_ERROR: value = statistic(kStatRcvError, mRxFrameErrors); break;
    case OID_GEN_RCV_NO_BUFFER: value = statistic(kStatRcvNoBuffer, mRxNoBuffer); break;
    case OID_802_3_PERMANENT_ADDRESS:
        answer = mPermanentAddress;
        answerLength = 6;
        if (KnGetTraceMask() & KN_TRACE_OID) {
            KnPrint("%P: OID_802_3_PERMANENT_ADDRESS: returning address: ");
            KnHexDump(mPermanentAddress, 6);
            KnPrint("\n");
        }
        break;
    case OID_802_3_CURRENT_ADDRESS:
        answer = mConfig.CurrentAddress;
        answerLength = 6;
        if (KnGetTraceMask() & KN_TRACE_OID) {
            KnPrint("%P: OID_802_3_CURRENT_ADDRESS: returning address: ");
            KnHexDump(mConfig.CurrentAddress, 6);
            KnPrint("\n");
        }
        break;
    case OID_802_3_MULTICAST_LIST:
        answer = mMulticastTable;
        answerLength = mMulticastAddressCount * 6;
        if (KnGetTraceMask() & KN_TRACE_OID) {
            KnPrint("%P: returning MC address list: % entries\n", mMulticastAddressCount);
            DumpAddresses(mMulticastTable, mMulticastAddressCount);
        }
        break;
    case OID_802_3_MAXIMUM_LIST_SIZE: value = mMulticastFilterCount; break;
    case OID_802_3_MAC_OPTIONS: value = 0; break;
    case OID_802_3_RCV_ERROR_ALIGNMENT: value = statistic(kStatRcvErrorAlignment, 0); break;
    case OID_802_3_XMIT_ONE_COLLISION: value = statistic(kStatXmitOneCollision, 0); break;
    case OID_802_3_XMIT_MORE_COLLISIONS: value = statistic(kStatXmitMoreCollisions, 0); break;
    case OID_PNP_CAPABILITIES:
        // The three minimum wake-up device states only (magic packet,
        // pattern match, link change), 12 bytes, without the Flags word of
        // the platform's NDIS_PNP_CAPABILITIES record.
        pnp[0] = mWakeUpMagicPacket;
        pnp[1] = mWakeUpPatternMatch;
        pnp[2] = mWakeUpLinkChange;
        answer = pnp;
        answerLength = sizeof(pnp);
        break;
    case OID_PNP_QUERY_POWER: answerLength = 0; break;
    case OID_PNP_ENABLE_WAKE_UP: value = mWakeUpFlags; break;
    case 0xFC010209:
    case 0xFC01020A: status = NDIS_STATUS_NOT_SUPPORTED; break;
    default:
        KN_TRACE(KN_TRACE_INFO, "%P: MPQueryInformation: unsupported OID:%D %s\n", oid, NdOidName(oid));
        status = NDIS_STATUS_NOT_SUPPORTED;
        break;
    }

    if (status == NDIS_STATUS_SUCCESS) {
        if (answerLength > length) {
            status = NDIS_STATUS_INVALID_LENGTH;
            *bytesNeeded = answerLength;
        } else {
            if (answerLength != 0) {
                RtlCopyMemory(buffer, answer, answerLength);
            }
            *bytesWritten = answerLength;
        }
    }
    KN_TRACE(KN_TRACE_OID, "%P: ]MPQueryInformation %D %s\n", status, NdStatusName(status));
    return status;
}

NDIS_STATUS MpAdapter::SetInformation(NDIS_OID oid, PVOID buffer, ULONG length, PULONG bytesRead,
                                      PULONG bytesNeeded)
{
    IRQL_LTEQ_DISPATCH();
    mLock.Lock();
    NDIS_STATUS status = NDIS_STATUS_SUCCESS;
    ULONG read = length;
    ULONG needed = 0;
    const UCHAR* in = static_cast<const UCHAR*>(buffer);
    ULONG value = 0;
    if (length >= sizeof(ULONG)) {
        RtlCopyMemory(&value, in, sizeof(ULONG));
    }

    switch (oid) {
    case OID_GEN_CURRENT_PACKET_FILTER:
        if (length < sizeof(ULONG)) {
            status = NDIS_STATUS_INVALID_LENGTH;
            needed = sizeof(ULONG);
            break;
        }
        mPacketFilter = value;
        if (KnGetTraceMask() & KN_TRACE_OID) {
            KnPrint("%P: Set OID_GEN_CURRENT_PACKET_FILTER:\n");
            NdDumpPacketFilter(value);
        }
        mDeviceCont->SetPacketFilter(value);
        read = sizeof(ULONG);
        break;
    case OID_GEN_CURRENT_LOOKAHEAD:
        if (length < sizeof(ULONG)) {
            status = NDIS_STATUS_INVALID_LENGTH;
            needed = sizeof(ULONG);
            break;
        }
        KN_TRACE(KN_TRACE_OID, "%P: Set OID_GEN_CURRENT_LOOKAHEAD: %u\n", value);
        read = sizeof(ULONG);
        break;
    case OID_GEN_PROTOCOL_OPTIONS:
        if (length < sizeof(ULONG)) {
            status = NDIS_STATUS_INVALID_LENGTH;
            needed = sizeof(ULONG);
            break;
        }
        KN_TRACE(KN_TRACE_OID, "%P: Set OID_GEN_PROTOCOL_OPTIONS: %D\n", value);
        read = sizeof(ULONG);
        break;
    case OID_802_3_MULTICAST_LIST: {
        if (length % 6 != 0) {
            KN_TRACE(KN_TRACE_WARNING, "%P: Set OID_802_3_MULTICAST_LIST: invalid length %D\n", length);
            status = NDIS_STATUS_INVALID_DATA;
            break;
        }
        ULONG n = length / 6;
        if (n > mMulticastFilterCount) {
            KN_TRACE(KN_TRACE_WARNING, "%P: Set OID_802_3_MULTICAST_LIST: number of addresses %u exceeds max %u\n",
                     n, mMulticastFilterCount);
            status = NDIS_STATUS_MULTICAST_FULL;
            break;
        }
        if (n != 0) {
            RtlCopyMemory(mMulticastTable, in, n * 6);
        }
        mMulticastAddressCount = n;
        if (KnGetTraceMask() & KN_TRACE_OID) {
            KnPrint("%P: MC address list set: %d entries\n", n);
            DumpAddresses(mMulticastTable, n);
        }
        mDeviceCont->SetPacketFilter(mPacketFilter);
        read = n * 6;
        break;
    }
    case OID_PNP_SET_POWER:
        if (length != sizeof(ULONG)) {
            KN_TRACE(KN_TRACE_WARNING, "%P: Set OID_PNP_SET_POWER: unexpected size %u\n", length);
            status = NDIS_STATUS_INVALID_DATA;
            break;
        }
        KN_TRACE(KN_TRACE_INFO, "%P:MPSetInformation: OID_PNP_SET_POWER to D%x, IRQL:%u\n", value - 1,
                 (ULONG)KeGetCurrentIrql());
        {
            bool scheduled;
            if (value == NdisDeviceStateD0) {
                mStartStopPending = true;
                scheduled = mDeviceCont->StartAsync();
            } else {
                CancelTimer(&mTxWatchdogTimer);
                mStartStopPending = true;
                scheduled = mDeviceCont->StopAsync();
            }
            if (!scheduled) {
                // Without its work item the request would stay pending for
                // ever: it completes as failed, from the completion timer.
                KN_TRACE(KN_TRACE_ERROR, "%P:MPSetInformation: OID_PNP_SET_POWER could not be scheduled\n");
                CompleteSetLater(NDIS_STATUS_RESOURCES);
            }
        }
        mLock.Unlock();
        return NDIS_STATUS_PENDING;
    case OID_PNP_ENABLE_WAKE_UP:
        if (length != sizeof(ULONG)) {
            KN_TRACE(KN_TRACE_WARNING, "%P: Set OID_PNP_ENABLE_WAKE_UP: unexpected size %u\n", length);
            status = NDIS_STATUS_INVALID_DATA;
            break;
        }
        mWakeUpFlags = value;
        KN_TRACE(KN_TRACE_WARNING, "%P: OID_PNP_ENABLE_WAKE_UP 0x%08x\n", value);
        read = sizeof(ULONG);
        break;
    default:
        KN_TRACE(KN_TRACE_INFO, "%P: MPSetInformation: unsupported OID:%D %s\n", oid, NdOidName(oid));
        status = NDIS_STATUS_NOT_SUPPORTED;
        break;
    }

    if (status == NDIS_STATUS_SUCCESS) {
        *bytesRead = read;
    } else {
        *bytesNeeded = needed;
    }
    KN_TRACE(KN_TRACE_OID, "%P: ]MPSetInformation %D %s\n", status, NdStatusName(status));
    mLock.Unlock();
    return status;
}
