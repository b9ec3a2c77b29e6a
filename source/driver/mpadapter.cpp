// The adapter's lifecycle (construction, bring-up, halt, reset and its
// completions), its configuration from the registry and its media state.
// The data path is in mpdatapath.cpp, the OID requests in mprequest.cpp.
#include "mpadapter.h"

#include "devicecontncm.h"
#include "knnames.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "knusbconfigdescriptor.h"
#include "mpmain.h"
#include "usbbuf.h"

CHAR gMpVendorDescription[MPADAPTER_VENDOR_DESCRIPTION_SIZE] = "NDIS Adapter";

#define MPADAPTER_DESCRIPTOR_TIMEOUT_MS 500
#define MPADAPTER_CDC_CLASS 2
#define MPADAPTER_NCM_SUBCLASS 13

// Failed step of MpAdapter::Initialize, the first value of its error log entry.
enum MpInitStep : ULONG {
    kInitNoDeviceControl = 1,
    kInitAdapter = 2,
    kInitDescriptor = 3,
    kInitDeviceObjects = 4,
    kInitDeviceInit = 5,
    kInitSegmentSize = 6,
    kInitMulticastTable = 7,
    kInitDeviceStart = 13,
};

// ---------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------
MpAdapter::MpAdapter(NDIS_HANDLE adapterHandle)
    : mConfigurationContext(NULL),
      mInitialized(false),
      mAdapterNumber(0),
      mFunctionalDeviceObject(NULL),
      mAdapterHandle(adapterHandle),
      mHardwareStatus(NdisHardwareStatusInitializing),
      mMediaState(NdisMediaStateDisconnected),
      mTransmitBufferSpace(0),
      mReceiveBufferSpace(0),
      mPermanentAddress MPADAPTER_DEFAULT_ADDRESS,
      mLinkSpeed(1000000),
      mSpeedKnown(false),
      mMtu(1500),
      mMaxFrameSize(1514),
      mPacketFilter(0),
      mMulticastTable(NULL),
      mMulticastFilterCount(0),
      mMulticastAddressCount(0),
      mWakeUpMagicPacket(NdisDeviceStateUnspecified),
      mWakeUpPatternMatch(NdisDeviceStateUnspecified),
      mWakeUpLinkChange(NdisDeviceStateUnspecified),
      mWakeUpFlags(0),
      mTxEnabled(false),
      mTxQueuedCount(0),
      mTxHangDetected(false),
      mRxEnabled(false),
      mRxBufferQueue(QB_DLLIST_ENTRY_OFFSET(UsbBuf, mQueueEntry)),
      mTxFramesOk(0),
      mTxErrors(0),
      mRxFramesOk(0),
      mRxFrameErrors(0),
      mRxNoBuffer(0),
      mDeviceCont(NULL),
      mStartStopPending(false),
      mResetPending(false),
      mSignature{'M', 'p', 'A', 'd'},
      mSetCompletionDue(false),
      mSetCompletionStatus(NDIS_STATUS_SUCCESS),
      mResetFailed(false),
      mResetStopped(false)
{
    IRQL_EQ_PASSIVE();
    InitializeListHead(&mTxPacketQueue);
    NdisMInitializeTimer(&mRxTimer, mAdapterHandle, RxTimerFunction, this);
    NdisMInitializeTimer(&mTxWatchdogTimer, mAdapterHandle, TxTimerFunction, this);
    NdisMInitializeTimer(&mStatusTimer, mAdapterHandle, StatusTimerFunction, this);
    NdisMInitializeTimer(&mStartStopTimer, mAdapterHandle, CompleteStartStop_Callback, this);
}

MpAdapter::~MpAdapter()
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(IsTxQueueEmpty());
    KN_ASSERT(mRxBufferQueue.IsEmpty());
    if (mDeviceCont != NULL) {
        delete mDeviceCont;
        mDeviceCont = NULL;
    }
    if (mMulticastTable != NULL) {
        KnDeleteArray(mMulticastTable);
        mMulticastTable = NULL;
    }
    mSignature[0] = 0;
}

bool MpAdapter::IsValid(const MpAdapter* adapter)
{
    return adapter != NULL && adapter->mSignature[0] == 'M' && adapter->mSignature[1] == 'p' &&
           adapter->mSignature[2] == 'A' && adapter->mSignature[3] == 'd';
}

void MpAdapter::WriteErrorLog(ULONG code, ULONG count, ULONG value1, ULONG value2)
{
    NdisWriteErrorLogEntry(mAdapterHandle, code, count, value1, value2);
}

// ---------------------------------------------------------------------------
// Bring-up
// ---------------------------------------------------------------------------
NDIS_STATUS MpAdapter::Initialize(NDIS_HANDLE wrapperConfigurationContext)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_INFO, "%P:MpAdapter::Initialize: ---***---\n");
    mConfigurationContext = wrapperConfigurationContext;

    NDIS_STATUS status = ReadConfiguration(wrapperConfigurationContext);
    if (status != NDIS_STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: ReadConfiguration failed %D %s\n", status,
                 NdStatusName(status));
        WriteErrorLog(MPADAPTER_ERRLOG_CONFIGURATION, 0);
        return status;
    }
    NdisMSetAttributesEx(mAdapterHandle, this, MPADAPTER_HANG_CHECK_SECONDS,
                         NDIS_ATTRIBUTE_DESERIALIZE | NDIS_ATTRIBUTE_SURPRISE_REMOVE_OK, NdisInterfaceInternal);

    PDEVICE_OBJECT pdo = NULL, fdo = NULL, next = NULL;
    NdisMGetDeviceProperty(mAdapterHandle, &pdo, &fdo, &next, NULL, NULL);
    if (pdo == NULL || fdo == NULL || next == NULL) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:MpAdapter::Initialize: NextDeviceObject=%p PhysicalDeviceObject=%p DeviceObject=%p\n", next, pdo,
                 fdo);
        WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 1, kInitDeviceObjects);
        return NDIS_STATUS_FAILURE;
    }
    mLowerDevice.SetDeviceObject(next);
    mLowerDevice.SetPhysicalDeviceObject(pdo);
    mFunctionalDeviceObject = fdo;

    KnUsbConfigDescriptor descriptor;
    do {
        status = descriptor.Load(&mLowerDevice, (UCHAR)(mConfig.ConfigurationIndex & 0xFF), NonPagedPool,
                                 MPADAPTER_DESCRIPTOR_TIMEOUT_MS);
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: Load Configuration descriptor failed %N\n", status);
            WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 1, kInitDescriptor);
            break;
        }
        if (mDeviceCont == NULL) {
            if (descriptor.FindInterfaceDescriptor(descriptor.GetConfigDesc(), -1, -1, MPADAPTER_CDC_CLASS,
                                                   MPADAPTER_NCM_SUBCLASS, -1) == NULL) {
                KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: Cannot find NCM interface descriptor\n");
            } else {
                mDeviceCont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();
            }
        }
        if (mDeviceCont == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: no valid descriptor set\n");
            WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 1, kInitNoDeviceControl);
            status = NDIS_STATUS_FAILURE;
            break;
        }
        status = mDeviceCont->Init(fdo, pdo, next, this, &mConfig, &mLock);
        if (!NT_SUCCESS(status)) {
            WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 1, kInitDeviceInit);
            KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: Init failed: %N\n", status);
            break;
        }
        SetMediaState(NdisMediaStateDisconnected);

        mMaxFrameSize = mDeviceCont->GetMaxSegmentSize();
        if (mMaxFrameSize <= MPADAPTER_ETH_HEADER_SIZE) {
            KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: GetMaxSegmentSiz returned: %d\n", mMaxFrameSize);
            WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 2, kInitSegmentSize, mMaxFrameSize);
            status = NDIS_STATUS_FAILURE;
            break;
        }
        mMtu = mMaxFrameSize - MPADAPTER_ETH_HEADER_SIZE;

        mMulticastFilterCount = mDeviceCont->GetNumberMCFilters();
        if (mMulticastFilterCount != 0) {
            mMulticastTable = new (NonPagedPool, KN_POOL_TAG_NCM) UCHAR[mMulticastFilterCount * 6];
            if (mMulticastTable == NULL) {
                WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 2, kInitMulticastTable, mMulticastFilterCount);
                status = NDIS_STATUS_FAILURE;
                break;
            }
        }
        mTransmitBufferSpace = mConfig.TxBuffers * mMtu;
        mReceiveBufferSpace = mConfig.RxBuffers * mMtu;

        status = mDeviceCont->Start();
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Initialize: Init failed: %N\n", status);
            WriteErrorLog(MPADAPTER_ERRLOG_INITIALIZE, 2, kInitDeviceStart, (ULONG)status);
            break;
        }

        if (!mDeviceCont->GetMacAddress(mPermanentAddress)) {
            if (KnGetTraceMask() & KN_TRACE_ERROR) {
                KnPrint("%P:MpAdapter::Initialize: device has no MAC address, using default\n");
                KnHexDump(mPermanentAddress, 6);
                KnPrint("\n");
            }
        } else if (KnGetTraceMask() & KN_TRACE_INFO) {
            KnPrint("%P:MpAdapter::Initialize: device has reported MAC address:\n");
            KnHexDump(mPermanentAddress, 6);
            KnPrint("\n");
        }
        // The notification stream runs already: the link fields are written
        // as it writes them, without the lock.
        __atomic_store_n(&mLinkSpeed, mConfig.DefaultLinkSpeed, __ATOMIC_RELAXED);
        __atomic_store_n(&mSpeedKnown, false, __ATOMIC_RELAXED);
        KN_TRACE(KN_TRACE_INFO, "%P:MpAdapter::Initialize: Link speed = %u Mbps\n", mConfig.DefaultLinkSpeed / 10000);
        ULONG wakeState = mConfig.WakeOnMagicPacket != 0 ? NdisDeviceStateD3 : NdisDeviceStateUnspecified;
        mWakeUpMagicPacket = mWakeUpPatternMatch = mWakeUpLinkChange = wakeState;
        if (!mConfig.AddressFromRegistry) {
            RtlCopyMemory(mConfig.CurrentAddress, mPermanentAddress, 6);
        }
        mHardwareStatus = NdisHardwareStatusReady;
        mLock.Lock();
        mTxEnabled = true;
        mRxEnabled = true;
        mLock.Unlock();
        descriptor.Free();
        return NDIS_STATUS_SUCCESS;
    } while (false);

    // A device control that was created stays attached and is deleted with
    // the adapter; its destructor releases what Init took.
    mLowerDevice.SetDeviceObject(NULL);
    mLowerDevice.SetPhysicalDeviceObject(NULL);
    KN_TRACE(KN_TRACE_ERROR, "%PMpAdapter::Initialize failed %N\n", status);
    descriptor.Free();
    return status;
}

// ---------------------------------------------------------------------------
// Halt, reset and their completions
// ---------------------------------------------------------------------------
void MpAdapter::Halt()
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_INFO, "%P: [MpAdapter::Halt\n");
    mHardwareStatus = NdisHardwareStatusNotReady;
    CancelTimer(&mStatusTimer);
    CancelTimer(&mStartStopTimer);
    if (mDeviceCont != NULL) {
        mDeviceCont->Stop();
    }
    mLock.Lock();
    mRxEnabled = false;
    CancelTimer(&mRxTimer);
    mTxEnabled = false;
    CancelTimer(&mTxWatchdogTimer);
    CleanupTxQueue();
    for (UsbBuf* datagram = mRxBufferQueue.RemoveHead(); datagram != NULL; datagram = mRxBufferQueue.RemoveHead()) {
        mDeviceCont->ReturnRxBuffer(datagram);
    }
    mLock.Unlock();
    // Until the streams stopped, a notification could arm the status timer
    // again (it read the initialized flag before MPHalt cleared it), and the
    // completions of the queue's clean-up may have armed the watchdog: with
    // nothing left to arm them, both go for good now.
    CancelTimer(&mStatusTimer);
    CancelTimer(&mTxWatchdogTimer);
    // A timer function that was already running when its timer was
    // cancelled finishes before the adapter can go away.
    KeFlushQueuedDpcs();
    if (mDeviceCont != NULL) {
        mDeviceCont->Exit();
    }
    mLowerDevice.SetDeviceObject(NULL);
    mLowerDevice.SetPhysicalDeviceObject(NULL);
    KN_TRACE(KN_TRACE_INFO, "%P: ]MpAdapter::Halt\n");
}

void MpAdapter::Reset()
{
    IRQL_LTEQ_DISPATCH();
    mLock.Lock();
    CleanupTxQueue();
    mResetPending = true;
    mResetStopped = false;
    mLock.Unlock();
    if (!mDeviceCont->StopAsync()) {
        // No work item: nothing would complete the reset. It ends at once,
        // from the completion timer, as a failed reset.
        KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::Reset: StopAsync could not be scheduled\n");
        mLock.Lock();
        mResetFailed = true;
        mLock.Unlock();
        ArmTimer(&mStartStopTimer, 0);
    }
}

BOOLEAN MpAdapter::CheckForHang()
{
    IRQL_LTEQ_DISPATCH();
    return mTxHangDetected ? TRUE : FALSE;
}

void MpAdapter::CompleteSetLater(NDIS_STATUS status)
{
    KN_ASSERT(mLock.IsLocked());
    mStartStopPending = false;
    mSetCompletionDue = true;
    mSetCompletionStatus = status;
    ArmTimer(&mStartStopTimer, 0);
}

void MpAdapter::StopCompleted()
{
    IRQL_EQ_PASSIVE();
    mLock.Lock();
    if (mStartStopPending) {
        CompleteSetLater(NDIS_STATUS_SUCCESS);
    }
    bool resetPending = mResetPending;
    mResetStopped = mResetPending;
    mLock.Unlock();
    if (resetPending && !mDeviceCont->StartAsync()) {
        // The restart cannot be scheduled: the reset ends now, failed.
        KN_TRACE(KN_TRACE_ERROR, "%P:MpAdapter::StopCompleted: StartAsync could not be scheduled\n");
        StartCompleted(STATUS_INSUFFICIENT_RESOURCES);
    }
}

void MpAdapter::StartCompleted(NTSTATUS status)
{
    IRQL_LTEQ_DISPATCH();
    mLock.Lock();
    if (mStartStopPending) {
        CompleteSetLater(NDIS_STATUS_SUCCESS);
    }
    // A reset completes only once its own stop and start have both run.
    bool completeReset = mResetPending && mResetStopped;
    if (completeReset) {
        mResetPending = false;
        mResetStopped = false;
    }
    mLock.Unlock();
    if (completeReset) {
        NdisMResetComplete(mAdapterHandle, status >= 0 ? NDIS_STATUS_SUCCESS : NDIS_STATUS_HARD_ERRORS, FALSE);
    }
}

void NTAPI MpAdapter::CompleteStartStop_Callback(PVOID, PVOID context, PVOID, PVOID)
{
    static_cast<MpAdapter*>(context)->CompleteStartStop();
}

void MpAdapter::CompleteStartStop()
{
    IRQL_EQ_DISPATCH();
    mLock.Lock();
    bool completeSet = mSetCompletionDue;
    NDIS_STATUS setStatus = mSetCompletionStatus;
    mSetCompletionDue = false;
    bool failReset = mResetFailed && mResetPending;
    if (failReset) {
        mResetFailed = false;
        mResetPending = false;
    }
    mLock.Unlock();
    if (completeSet) {
        KN_TRACE(KN_TRACE_INFO, "%P:MpAdapter::CompleteStartStop_Callback: call NdisMSetInformationComplete\n");
        NdisMSetInformationComplete(mAdapterHandle, setStatus);
    }
    if (failReset) {
        NdisMResetComplete(mAdapterHandle, NDIS_STATUS_HARD_ERRORS, FALSE);
    }
}

ULONG MpAdapter::GetMulticastList(ULONG maxCount, UCHAR* destination)
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    ULONG n = maxCount < mMulticastAddressCount ? maxCount : mMulticastAddressCount;
    if (n != 0) {
        RtlCopyMemory(destination, mMulticastTable, n * 6);
    }
    return n;
}

// ---------------------------------------------------------------------------
// Media state
// ---------------------------------------------------------------------------
ULONG MpAdapter::SetMediaState(ULONG state)
{
    if (state == NdisMediaStateConnected) {
        KN_TRACE(KN_TRACE_INFO, "%P:MpAdapter::SetMediaState: new state = CONNECTED\n");
    } else {
        KN_TRACE(KN_TRACE_INFO, "%P:MpAdapter::SetMediaState: new state = DISCONNECTED\n");
    }
    __atomic_store_n(&mMediaState, state, __ATOMIC_RELAXED);
    return state;
}

void MpAdapter::NetworkStateChanged(bool connected)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_INFO, "%P: MpAdapter::NetworkStateChanged:%s\n", connected ? "connected" : "disconnected");
    ULONG oldState = __atomic_load_n(&mMediaState, __ATOMIC_RELAXED);
    ULONG newState;
    if (connected) {
        newState = SetMediaState(NdisMediaStateConnected);
    } else {
        newState = SetMediaState(NdisMediaStateDisconnected);
        __atomic_store_n(&mSpeedKnown, false, __ATOMIC_RELAXED);
    }
    if (__atomic_load_n(&mInitialized, __ATOMIC_RELAXED) && newState != oldState &&
        (__atomic_load_n(&mSpeedKnown, __ATOMIC_RELAXED) || newState == NdisMediaStateDisconnected)) {
        ArmTimer(&mStatusTimer, MPADAPTER_STATUS_DELAY_MS);
    }
    if (newState == NdisMediaStateConnected) {
        NdSpinlockGuard guard(mLock);
        if (mRxEnabled) {
            ArmTimer(&mRxTimer, 0);
        }
    }
}

void MpAdapter::ConnectionSpeedChanged(ULONG upstreamBitRate, ULONG downstreamBitRate)
{
    IRQL_LTEQ_DISPATCH();
    ULONG rate = upstreamBitRate > downstreamBitRate ? upstreamBitRate : downstreamBitRate;
    __atomic_store_n(&mLinkSpeed, rate / 100, __ATOMIC_RELAXED);
    __atomic_store_n(&mSpeedKnown, true, __ATOMIC_RELAXED);
    if (__atomic_load_n(&mMediaState, __ATOMIC_RELAXED) == NdisMediaStateConnected &&
        __atomic_load_n(&mInitialized, __ATOMIC_RELAXED)) {
        ArmTimer(&mStatusTimer, MPADAPTER_STATUS_DELAY_MS);
    }
}

void NTAPI MpAdapter::StatusTimerFunction(PVOID, PVOID context, PVOID, PVOID)
{
    static_cast<MpAdapter*>(context)->IndicateMediaStatus();
}

void MpAdapter::IndicateMediaStatus()
{
    IRQL_EQ_DISPATCH();
    if (!__atomic_load_n(&mInitialized, __ATOMIC_RELAXED)) {
        return;
    }
    if (__atomic_load_n(&mMediaState, __ATOMIC_RELAXED) == NdisMediaStateConnected) {
        KN_TRACE(KN_TRACE_INFO, "%P: Indicate status: CONNECT\n");
        NdisMIndicateStatus(mAdapterHandle, NDIS_STATUS_MEDIA_CONNECT, NULL, 0);
    } else {
        KN_TRACE(KN_TRACE_INFO, "%P: Indicate status: DISCONNECT\n");
        NdisMIndicateStatus(mAdapterHandle, NDIS_STATUS_MEDIA_DISCONNECT, NULL, 0);
    }
    NdisMIndicateStatusComplete(mAdapterHandle);
}
