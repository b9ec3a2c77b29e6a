// The device control's Ethernet class requests and what the device tells it:
// the net address and the MAC address string, the packet filter with the
// multicast list, the statistics poll, and the decoding of the notifications
// of the interrupt IN endpoint.
#include "devicecontbase.h"

#include "knpooltags.h"
#include "kntrace.h"
#include "macstring.h"
#include "qbstringutils.h"

// NDIS packet filter bits that have a CDC counterpart.
#define DEVICECONT_NDIS_DIRECTED 0x00000001
#define DEVICECONT_NDIS_MULTICAST 0x00000002
#define DEVICECONT_NDIS_ALL_MULTICAST 0x00000004
#define DEVICECONT_NDIS_BROADCAST 0x00000008
#define DEVICECONT_NDIS_PROMISCUOUS 0x00000020

// Size of a notification header, and of a CONNECTION_SPEED_CHANGE with its
// two bit rates.
#define DEVICECONT_NOTIFICATION_HEADER_LENGTH 8
#define DEVICECONT_SPEED_CHANGE_LENGTH 16

// Transfer flags of a device-to-host class request.
#define DEVICECONT_IN_TRANSFER_FLAGS (USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK)

// Contract: any IRQL. Little-endian reads from a byte stream.
static inline ULONG ReadLe32(const UCHAR* p)
{
    return (ULONG)p[0] | (ULONG)p[1] << 8 | (ULONG)p[2] << 16 | (ULONG)p[3] << 24;
}
static inline USHORT ReadLe16(const UCHAR* p) { return (USHORT)(p[0] | p[1] << 8); }

// Contract: PASSIVE_LEVEL; mRequestMutex held.
NTSTATUS DeviceContBase::SendClassRequest(UCHAR request, USHORT value, bool in, PVOID buffer, ULONG length,
                                          ULONG* bytesTransferred)
{
    IRQL_EQ_PASSIVE();
    return mUsbDevice.ControlVendorOrClassRequest(URB_FUNCTION_CLASS_INTERFACE, request, value, mControlInterface,
                                                  in ? DEVICECONT_IN_TRANSFER_FLAGS : 0, length != 0 ? buffer : NULL,
                                                  NULL, length, bytesTransferred, DEVICECONT_REQUEST_TIMEOUT_MS,
                                                  NULL);
}

// Contract: PASSIVE_LEVEL; no spin lock held; takes mRequestMutex.
NTSTATUS DeviceContBase::SetNetAddress(const UCHAR* address)
{
    IRQL_EQ_PASSIVE();
    UCHAR data[6];
    RtlCopyMemory(data, address, sizeof(data));

    KnMutexGuard guard(mRequestMutex);
    NTSTATUS status = SendClassRequest(CDC_SET_NET_ADDRESS, 0, false, data, sizeof(data), NULL);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::SetNetAddress failed %N\n", status);
    }
    return status;
}

// Contract: PASSIVE_LEVEL; no lock held; mEthernetDescriptor present; a
// freshly constructed object.
void DeviceContBase::ReadMacAddress()
{
    IRQL_EQ_PASSIVE();
    UCHAR index = (UCHAR)GetEthernetDescriptorField(CDC_ETH_DESC_IMACADDRESS, 1);
    if (index == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::ReadMacAddress: device does not report a MAC address\n");
    } else {
        USHORT languageIds[DEVICECONT_MAX_LANGUAGE_IDS];
        ULONG languageCount = 0;
        languageIds[0] = 0;
        NTSTATUS status = mUsbDevice.GetLanguageIdList(languageIds, DEVICECONT_MAX_LANGUAGE_IDS, &languageCount,
                                                       DEVICECONT_REQUEST_TIMEOUT_MS);
        if (!NT_SUCCESS(status) || languageCount == 0) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::ReadMacAddress: GetLanguageIdList FAILED %N\n", status);
        }
        // Language 0 when no list was read.
        USHORT language = languageIds[0];

        WCHAR text[DEVICECONT_MAC_STRING_CHARS];
        RtlZeroMemory(text, sizeof(text));
        status = mUsbDevice.GetStringDescriptorString(index, language, text, DEVICECONT_MAC_STRING_CHARS,
                                                      DEVICECONT_REQUEST_TIMEOUT_MS);
        // The buffer is zeroed and one unit longer than any text, so the
        // length stops inside it whatever came back.
        text[DEVICECONT_MAC_STRING_CHARS - 1] = 0;
        ULONG length = QbStringLength(text);
        if (!NT_SUCCESS(status) || length != MAC_ADDRESS_STRING_LENGTH) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::ReadMacAddress: GetStringDescriptor[%u,%04x] failed %N\n",
                     index, language, status);
        } else {
            // Pairs converted before a failing one stay in mMacAddress but
            // are not valid.
            mMacAddressValid = ConvertMacAddressString(text, mMacAddress);
            if (!mMacAddressValid) {
                KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::ReadMacAddress: Conversion of MAC address fails: %S\n",
                         text);
            }
        }
    }

    if (mMacAddressValid && (mMacAddress[0] & 0x01) != 0) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContBase::ReadMacAddress: Device reports a multi-cast MAC address, correct it!\n");
        mMacAddress[0] &= 0xFE;
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; mStateLock not held (mLock may be);
// mCdcPacketFilter is written atomically.
bool DeviceContBase::SetPacketFilter(ULONG ndisPacketFilter)
{
    IRQL_LTEQ_DISPATCH();
    USHORT cdcFilter = 0;
    if (ndisPacketFilter & DEVICECONT_NDIS_PROMISCUOUS) cdcFilter |= CDC_PACKET_TYPE_PROMISCUOUS;
    if (ndisPacketFilter & DEVICECONT_NDIS_ALL_MULTICAST) cdcFilter |= CDC_PACKET_TYPE_ALL_MULTICAST;
    if (ndisPacketFilter & DEVICECONT_NDIS_DIRECTED) cdcFilter |= CDC_PACKET_TYPE_DIRECTED;
    if (ndisPacketFilter & DEVICECONT_NDIS_BROADCAST) cdcFilter |= CDC_PACKET_TYPE_BROADCAST;
    if (ndisPacketFilter & DEVICECONT_NDIS_MULTICAST) cdcFilter |= CDC_PACKET_TYPE_MULTICAST;
    __atomic_store_n(&mCdcPacketFilter, cdcFilter, __ATOMIC_RELAXED);

    // Decided and queued under the lock Stop clears mStarted under: a
    // request that saw the device control started is queued before Stop
    // cancels the work, never after it.
    KnSpinLockGuard guard(mStateLock);
    if (!IsStarted()) {
        // Kept; it goes out with the next change after the start.
        return false;
    }
    return mPacketFilterWorkItem.ScheduleCallback(mFunctionalDeviceObject, SendPacketFilterRoutine, this, NULL,
                                                  DelayedWorkQueue);
}

// Contract: PASSIVE_LEVEL (mPacketFilterWorkItem).
void DeviceContBase::SendPacketFilterRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    static_cast<DeviceContBase*>(context)->SendPacketFilter();
}

// Contract: PASSIVE_LEVEL; no lock held; takes mRequestMutex and calls
// GetMulticastList under it (the adapter takes only its spin lock there).
void DeviceContBase::SendPacketFilter()
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mRequestMutex);
    // Looked at again here: nothing reaches the device or the adapter from
    // deferred work once the device control is stopped.
    if (!IsStarted()) {
        KN_TRACE(KN_TRACE_INFO, "%P:DeviceContBase::SendPacketFilter: stopped, nothing sent\n");
        return;
    }

    USHORT cdcFilter = __atomic_load_n(&mCdcPacketFilter, __ATOMIC_RELAXED);
    KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::SendPacketFilter: SET_ETHERNET_PACKET_FILTER %08x\n", cdcFilter);
    NTSTATUS status = SendClassRequest(CDC_SET_ETHERNET_PACKET_FILTER, cdcFilter, false, NULL, 0, NULL);
    if (!NT_SUCCESS(status)) {
        // The multicast list still goes out.
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::SendPacketFilter set PF failed %N\n", status);
    }

    if (mEthernetDescriptor == NULL) {
        return;
    }
    ULONG maxCount = GetNumberMCFilters();
    if (maxCount > DEVICECONT_MAX_MULTICAST_FILTERS) {
        maxCount = DEVICECONT_MAX_MULTICAST_FILTERS;
    }
    if (maxCount == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::SendPacketFilter device does not support MultiCast lists\n");
        return;
    }
    UCHAR* list = new (NonPagedPool, KN_POOL_TAG_MULTICAST_LIST) UCHAR[maxCount * 6];
    if (list == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::SendPacketFilter new (%u) failed\n", maxCount);
        return;
    }
    ULONG count = mDeviceNotify->GetMulticastList(maxCount, list);
    KN_ASSERT(count<=maxCount);
    if (count > maxCount) {
        count = maxCount;
    }
    status = SendClassRequest(CDC_SET_ETHERNET_MULTICAST_FILTERS, (USHORT)count, false, list, count * 6, NULL);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::SendPacketFilter set MF failed %N\n", status);
    }
    KnDeleteArray(list);
}

// Contract: IRQL <= DISPATCH_LEVEL; no lock needed (atomic accesses).
bool DeviceContBase::GetEthernetStatistic(UCHAR selector, ULONG* value)
{
    IRQL_LTEQ_DISPATCH();
    if (selector == 0 || selector > DEVICECONT_STATISTICS_COUNT) {
        return false;
    }
    ULONG bit = 1u << (selector - 1);
    if ((__atomic_load_n(&mStatisticsSupported, __ATOMIC_RELAXED) & bit) == 0) {
        return false;
    }
    // Read again at the next poll.
    __atomic_fetch_or(&mStatisticsRequested, bit, __ATOMIC_RELAXED);
    *value = __atomic_load_n(&mStatistics[selector - 1], __ATOMIC_RELAXED);
    return true;
}

// Contract: PASSIVE_LEVEL (mStatisticsWorkItem).
void DeviceContBase::ReadEthernetStatisticsRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    static_cast<DeviceContBase*>(context)->ReadEthernetStatistics();
}

// Contract: PASSIVE_LEVEL; no lock held; takes mRequestMutex.
void DeviceContBase::ReadEthernetStatistics()
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mRequestMutex);

    ULONG requested = __atomic_load_n(&mStatisticsRequested, __ATOMIC_RELAXED);
    for (ULONG i = 0; i < DEVICECONT_STATISTICS_COUNT; i++) {
        if ((requested & (1u << i)) == 0) {
            continue;
        }
        if (!IsStarted()) {
            break;
        }
        UCHAR answer[sizeof(ULONG)] = {};
        ULONG received = 0;
        NTSTATUS status = SendClassRequest(CDC_GET_ETHERNET_STATISTIC, (USHORT)(i + 1), true, answer,
                                           sizeof(answer), &received);
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::ReadEthernetStatistics get statistics for %u failed %N\n", i,
                     status);
            break;
        }
        // A short answer is a smaller counter, zero-extended: stale high
        // bytes of the cache would fake a huge count. No answer keeps the cache.
        if (received == 0) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::ReadEthernetStatistics no data for %u\n", i);
            continue;
        }
        __atomic_store_n(&mStatistics[i], ReadLe32(answer), __ATOMIC_RELAXED);
    }
    // Also the selectors not reached: they are asked for again by the OID
    // query when somebody needs them.
    __atomic_store_n(&mStatisticsRequested, 0, __ATOMIC_RELAXED);

    // Re-armed under the lock Stop clears mStarted under: never after Stop
    // has cancelled the poll.
    KnSpinLockGuard stateGuard(mStateLock);
    if (IsStarted()) {
        mStatisticsWorkItem.Schedule(mParameters->StatisticsUpdateInterval, mFunctionalDeviceObject,
                                     ReadEthernetStatisticsRoutine, this, NULL, DelayedWorkQueue);
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; no lock held. The buffer comes back to
// its pool on every path.
void DeviceContBase::OnProcessNotification(UsbBuf* buffer)
{
    IRQL_LTEQ_DISPATCH();
    buffer->InitView();
    ULONG length = buffer->mLength;
    const UCHAR* data = buffer->mStart;

    if (length == 0) {
        // Nothing to decode; read again.
    } else if (length < DEVICECONT_NOTIFICATION_HEADER_LENGTH) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContBase::OnProcessNotification: get a notification with unexpected length %u\n", length);
        if (KnGetTraceMask() & KN_TRACE_ERROR) {
            KnHexDump(data, length);
        }
    } else {
        UCHAR code = data[1];
        USHORT value = ReadLe16(data + 2);
        switch (code) {
        case CDC_NOTIFICATION_NETWORK_CONNECTION:
            KN_TRACE(KN_TRACE_INFO, "%P:DeviceContBase::OnProcessNotification: adapter reports %s\n",
                     value != 0 ? "connected" : "disconnected");
            mDeviceNotify->NetworkStateChanged(value == 1);
            break;
        case CDC_NOTIFICATION_RESPONSE_AVAILABLE:
            KN_TRACE(KN_TRACE_INFO, "%P:DeviceContBase::OnProcessNotification: adapter reports RESPONSE_AVAILABLE\n");
            break;
        case CDC_NOTIFICATION_CONNECTION_SPEED_CHANGE:
            if (length < DEVICECONT_SPEED_CHANGE_LENGTH) {
                KN_TRACE(KN_TRACE_ERROR,
                         "%P:DeviceContBase::OnProcessNotification: get CONNECTION_SPEED_CHANGE notification with "
                         "unexpected length %u\n",
                         length);
                if (KnGetTraceMask() & KN_TRACE_ERROR) {
                    KnHexDump(data, length);
                }
            } else {
                ULONG upstream = ReadLe32(data + 8);
                ULONG downstream = ReadLe32(data + 12);
                KN_TRACE(KN_TRACE_INFO,
                         "%P:DeviceContBase::OnProcessNotification: adapter reports CONNECTION_SPEED_CHANGE "
                         "upstream:%u downstream:%u\n",
                         upstream, downstream);
                mDeviceNotify->ConnectionSpeedChanged(upstream, downstream);
            }
            break;
        default:
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::OnProcessNotification: unexpected notification code %u\n",
                     code);
            break;
        }
    }

    buffer->ReturnToPool();
    mNotificationStream.ResubmitReadBuffers();
}
