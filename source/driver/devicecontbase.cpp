// The shared part of the CDC Ethernet device control: its streams, start and
// stop (also deferred to work items), exit, and the functional descriptors.
// The class requests and notifications are in devicecontbase_requests.cpp.
#include "devicecontbase.h"

#include "knpooltags.h"
#include "kntrace.h"
#include "macstring.h"
#include "qbstringutils.h"

// Largest frame when the device names none.
#define DEVICECONT_DEFAULT_MAX_SEGMENT_SIZE 1514

// ===========================================================================
// NotificationBase
// ===========================================================================

// Contract: any IRQL.
NotificationBase::NotificationBase() : mParent(NULL) {}

// Contract: IRQL <= DISPATCH_LEVEL; no stream lock held.
void NotificationBase::BufferReceived(UsbBuf* buffer)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(mParent != NULL);
    if (mParent == NULL) {
        return;
    }
    buffer->InitView();
    mParent->OnProcessNotification(buffer);
}

// Contract: IRQL <= DISPATCH_LEVEL; the notification stream's mLock held:
// only traces and schedules.
void NotificationBase::IndicateError(NTSTATUS status, bool removed)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(mParent != NULL);
    KN_TRACE(KN_TRACE_ERROR, "%P:NotificationBase::IndicateError: %N, removed:%s\n", status,
             removed ? "true" : "false");
    if (mParent == NULL || removed) {
        return;
    }
    mParent->mNotificationStream.ScheduleRestart();
}

// ===========================================================================
// DeviceContBase: construction and destruction
// ===========================================================================

// Contract: PASSIVE_LEVEL.
DeviceContBase::DeviceContBase()
    : DeviceCont(),
      StreamOutClient(),
      StreamInClient(),
      mLock(NULL),
      mRequestMutex(),
      mStateLock(),
      mUsbDevice(),
      mDescriptors(),
      mMacAddress(),
      mMacAddressValid(false),
      mStarted(false),
      mConfiguration(),
      mControlInterface(0),
      mDataInterface(0),
      mInStream(),
      mOutStream(),
      mNotificationStream(),
      mDeviceNotify(NULL),
      mFunctionalDeviceObject(NULL),
      mNotificationHandler(),
      mEthernetDescriptor(NULL),
      mStartStopWorkItem(),
      mPacketFilterWorkItem(),
      mCdcPacketFilter(0),
      mParameters(NULL),
      mStatistics(),
      mStatisticsSupported(0),
      mStatisticsRequested(0),
      mStatisticsWorkItem()
{
    mNotificationHandler.mParent = this;
}

// Contract: PASSIVE_LEVEL; Exit has run. The members go in reverse
// declaration order: work items, streams, configuration, descriptor, device.
DeviceContBase::~DeviceContBase()
{
    // The lower device must not point at device objects when it goes.
    mUsbDevice.SetDeviceObject(NULL);
    mUsbDevice.SetPhysicalDeviceObject(NULL);
}

// ===========================================================================
// DeviceContBase: life
// ===========================================================================

// Contract: PASSIVE_LEVEL; the streams are stopped; no lock held.
NTSTATUS DeviceContBase::Exit()
{
    IRQL_EQ_PASSIVE();
    // No work of this object may run once the device control is gone: a
    // filter queued by a request that raced with Stop is cancelled too.
    mStartStopWorkItem.CancelCallbackAndWait();
    mPacketFilterWorkItem.CancelCallbackAndWait();
    mStatisticsWorkItem.CancelTimedWorkItemAndWait();

    if (!mConfiguration.IsConfigured()) {
        return STATUS_SUCCESS;
    }

    // Alternate setting 0 of the data interface has no endpoints: the device
    // stops its data transfers. A failure here does not keep the
    // configuration from being given up.
    NTSTATUS status = mConfiguration.PrepareSelectInterface(&mUsbDevice, mDataInterface, 0,
                                                            DEVICECONT_DEFAULT_MAX_TRANSFER_SIZE);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::Exit: PrepareSelectInterface failed: %N\n", status);
    } else {
        status = mConfiguration.SelectInterface(&mUsbDevice, DEVICECONT_REQUEST_TIMEOUT_MS);
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::Exit: SelectInterface failed: %N\n", status);
        }
    }

    status = mConfiguration.Unconfigure(&mUsbDevice, true, DEVICECONT_REQUEST_TIMEOUT_MS);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::Exit: Unconfigure failed: %N\n", status);
    }
    return status;
}

// Contract: IRQL <= DISPATCH_LEVEL; only schedules.
bool DeviceContBase::StartAsync()
{
    IRQL_LTEQ_DISPATCH();
    return mStartStopWorkItem.ScheduleCallback(mFunctionalDeviceObject, StartAsyncRoutine, this, NULL,
                                               DelayedWorkQueue);
}

// Contract: IRQL <= DISPATCH_LEVEL; only schedules.
bool DeviceContBase::StopAsync()
{
    IRQL_LTEQ_DISPATCH();
    return mStartStopWorkItem.ScheduleCallback(mFunctionalDeviceObject, StopAsyncRoutine, this, NULL,
                                               DelayedWorkQueue);
}

// Contract: PASSIVE_LEVEL (mStartStopWorkItem); no lock held.
void DeviceContBase::StartAsyncRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    IRQL_EQ_PASSIVE();
    DeviceContBase* This = static_cast<DeviceContBase*>(context);
    // Start and Stop run only here or with no work item queued, so the flag
    // cannot change under this check. A start of a running device control
    // (a power-up to D0 while in D0, or after a reset restarted it) has
    // nothing to do: Start would configure the running streams again.
    NTSTATUS status = STATUS_SUCCESS;
    if (This->IsStarted()) {
        KN_TRACE(KN_TRACE_INFO, "%P:DeviceContBase::StartAsync: started already\n");
    } else {
        KN_TRACE(KN_TRACE_INFO, "%P:DeviceContBase::StartAsync: starting\n");
        status = This->Start();
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::StartAsync: Start failed %N\n", status);
        }
    }
    This->mDeviceNotify->StartCompleted(status);
}

// Contract: PASSIVE_LEVEL (mStartStopWorkItem); no lock held.
void DeviceContBase::StopAsyncRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    IRQL_EQ_PASSIVE();
    DeviceContBase* This = static_cast<DeviceContBase*>(context);
    KN_TRACE(KN_TRACE_INFO, "%P:DeviceContBase::StopAsync: stopping\n");
    This->Stop();
    This->mDeviceNotify->StopCompleted();
}

// ===========================================================================
// DeviceContBase: streams
// ===========================================================================

// Contract: PASSIVE_LEVEL; the streams are configured and stopped; no lock
// held.
NTSTATUS DeviceContBase::StartBase()
{
    IRQL_EQ_PASSIVE();
    if (mEthernetDescriptor != NULL) {
        __atomic_store_n(&mStatisticsSupported,
                         GetEthernetDescriptorField(CDC_ETH_DESC_BMETHERNETSTATISTICS, 4), __ATOMIC_RELAXED);
    }
    bool resetPipe = mParameters->SendClearEpHaltOnStart != 0;

    NTSTATUS status = mOutStream.Start(resetPipe);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::StartBase: mOutStream.Start() failed %N\n", status);
        return status;
    }
    status = mInStream.Start(resetPipe);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::StartBase: mInStream.Start() failed %N\n", status);
        mOutStream.Stop();
        return status;
    }
    status = mNotificationStream.Start(resetPipe);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContBase::StartBase: mEcmNotification.Start() failed %N\n", status);
        mOutStream.Stop();
        mInStream.Stop();
        return status;
    }

    KnSpinLockGuard guard(mStateLock);
    SetStarted(true);

    // Every supported statistic is read once shortly after the start.
    ULONG supported = __atomic_load_n(&mStatisticsSupported, __ATOMIC_RELAXED);
    if (supported != 0) {
        __atomic_store_n(&mStatisticsRequested, supported, __ATOMIC_RELAXED);
        mStatisticsWorkItem.Schedule(mParameters->StatisticsUpdateInterval, mFunctionalDeviceObject,
                                     ReadEthernetStatisticsRoutine, this, NULL, DelayedWorkQueue);
    }
    return status;
}

// Contract: IRQL <= DISPATCH_LEVEL; mStateLock not held.
void DeviceContBase::ClearStarted()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(mStateLock);
    SetStarted(false);
}

// Contract: PASSIVE_LEVEL; not on mPacketFilterWorkItem or
// mStatisticsWorkItem; no lock held.
void DeviceContBase::StopBase()
{
    IRQL_EQ_PASSIVE();
    ClearStarted();
    mOutStream.Stop();
    mInStream.Stop();
    mNotificationStream.Stop();
    // mStartStopWorkItem stays: StopBase runs on it when reached through
    // StopAsync.
    mPacketFilterWorkItem.CancelCallbackAndWait();
    mStatisticsWorkItem.CancelTimedWorkItemAndWait();
}

// ===========================================================================
// DeviceContBase: send
// ===========================================================================

// Contract: IRQL <= DISPATCH_LEVEL; mLock not held.
void DeviceContBase::ProcessTxPackets()
{
    IRQL_LTEQ_DISPATCH();
    DoProcessTxPackets();
}

// ===========================================================================
// DeviceContBase: configuration
// ===========================================================================

// Contract: any IRQL.
ULONG DeviceContBase::GetEthernetDescriptorField(ULONG offset, ULONG size) const
{
    if (mEthernetDescriptor == NULL || offset + size > mEthernetDescriptor[0]) {
        return 0;
    }
    const UCHAR* p = mEthernetDescriptor + offset;
    ULONG value = 0;
    for (ULONG i = size; i > 0; i--) {
        value = value << 8 | p[i - 1];
    }
    return value;
}

// Contract: any IRQL.
bool DeviceContBase::GetMacAddress(UCHAR* macAddress)
{
    if (mMacAddressValid) {
        RtlCopyMemory(macAddress, mMacAddress, sizeof(mMacAddress));
    }
    return mMacAddressValid;
}

// Contract: any IRQL.
ULONG DeviceContBase::GetMaxSegmentSize()
{
    if (mEthernetDescriptor == NULL) {
        return DEVICECONT_DEFAULT_MAX_SEGMENT_SIZE;
    }
    return GetEthernetDescriptorField(CDC_ETH_DESC_WMAXSEGMENTSIZE, 2);
}

// Contract: any IRQL.
ULONG DeviceContBase::GetNumberMCFilters()
{
    // Bit 15 flags imperfect filtering; the count is in the low bits.
    return GetEthernetDescriptorField(CDC_ETH_DESC_WNUMBERMCFILTERS, 2) & 0x7FFF;
}

// Contract: any IRQL; mDescriptors not changed meanwhile.
PUCHAR DeviceContBase::FindFunctionalDescriptor(PVOID start, UCHAR descriptorType, UCHAR subtype)
{
    PVOID position = start;
    for (;;) {
        PUSB_COMMON_DESCRIPTOR descriptor = mDescriptors.FindDescriptor(position, descriptorType);
        if (descriptor == NULL || descriptor->bLength < 3) {
            return NULL;
        }
        PUCHAR bytes = reinterpret_cast<PUCHAR>(descriptor);
        if (bytes[2] == subtype) {
            return bytes;
        }
        position = mDescriptors.NextDescriptor(descriptor);
        if (position == NULL) {
            return NULL;
        }
    }
}
