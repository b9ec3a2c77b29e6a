// DeviceContNcm: construction, Init (the NCM function in the descriptors,
// the configuration, the NTB parameters), Start (data interface, NCM class
// requests, streams) and Stop. The receive path is in devicecontncm_rx.cpp,
// the transmit path in devicecontncm_tx.cpp, the receive-error recovery and
// the adaptive transmit timing in devicecontncm_errors.cpp.
#include "devicecontncm.h"

#include "knio.h"
#include "kntrace.h"

// ===========================================================================
// construction
// ===========================================================================

// Contract: PASSIVE_LEVEL.
DeviceContNcm::DeviceContNcm()
    : DeviceContBase(),
      mNcmDescriptor(NULL),
      mNtbParameters(),
      mUse32BitHeaders(false),
      mInputBufferSize(0),
      mOutputBufferSize(0),
      mMaxTxDatagrams(NTB_MAX_TX_DATAGRAMS),
      mRxBufferList(QB_DLLIST_ENTRY_OFFSET(UsbBuf, mQueueEntry)),
      mCurrentRxBuffer(NULL),
      mNdpEnumerator(),
      mDatagramPending(false),
      mRxDatagram(),
      mRxByteCount(0),
      mCurrentTxBuffer(NULL),
      mTxOffset(0),
      mTxDatagramCount(0),
      mTxSequence(0),
      mTxNdpEntry(NULL),
      mTxNdp(),
      mTxBusy(false),
      mTxRerun(false),
      mTxRerunTimer(false),
      mTxStopWaiting(false),
      mTxTimer(),
      mRxBandwidth(0),
      mSendTimerBased(false),
      mRxBandwidthTimer(),
      mRxErrorWorkItem(),
      mRxErrorCount(0),
      mLastRxErrorTime(SystemTimeMs())
{
    KnInitializeEvent(&mTxIdleEvent, false);
}

// Contract: PASSIVE_LEVEL; Stop (if started) and Exit have run.
DeviceContNcm::~DeviceContNcm()
{
    mRxErrorWorkItem.CancelCallbackAndWait();
    // Neither timer may call into a destroyed object.
    mTxTimer.CancelTimer();
    mRxBandwidthTimer.CancelTimer();
    KeFlushQueuedDpcs();
    KN_ASSERT(mCurrentRxBuffer==NULL);
    KN_ASSERT(mRxBufferList.IsEmpty());
    KN_ASSERT(mCurrentTxBuffer==NULL);
}

// Contract: any IRQL.
static inline ULONG MinUlong(ULONG a, ULONG b) { return a < b ? a : b; }

// Contract: any IRQL.
ULONGLONG DeviceContNcm::SystemTimeMs()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return (ULONGLONG)now.QuadPart / 10000;
}

// ===========================================================================
// configuration: Init
// ===========================================================================

// Contract: PASSIVE_LEVEL; no lock held; once per object.
NTSTATUS DeviceContNcm::Init(PDEVICE_OBJECT functionalDeviceObject, PDEVICE_OBJECT physicalDeviceObject,
                             PDEVICE_OBJECT lowerDeviceObject, DeviceNotify* deviceNotify, AdapterConfig* parameters,
                             NdSpinlock* adapterLock)
{
    IRQL_EQ_PASSIVE();
    mFunctionalDeviceObject = functionalDeviceObject;
    mDeviceNotify = deviceNotify;
    mParameters = parameters;
    mLock = adapterLock;
    mUsbDevice.SetDeviceObject(lowerDeviceObject);
    mUsbDevice.SetPhysicalDeviceObject(physicalDeviceObject);

    UCHAR configIndex = (UCHAR)mParameters->ConfigurationIndex;
    NTSTATUS status = mDescriptors.Load(&mUsbDevice, configIndex, NonPagedPool, DEVICECONT_REQUEST_TIMEOUT_MS);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: Load Configuration descriptor failed %N\n", status);
        return status;
    }

    // The communication interface must come first.
    PUSB_INTERFACE_DESCRIPTOR controlInterface = mDescriptors.FindInterfaceDescriptor(NULL, -1, -1, -1, -1, -1);
    if (controlInterface == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: Cannot get first interface descriptor\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (controlInterface->bInterfaceClass != NCM_INTERFACE_CLASS_COMMUNICATIONS ||
        controlInterface->bInterfaceSubClass != NCM_INTERFACE_SUBCLASS_NCM) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContNcm::Init: this is not a NCM interface class:%02x, subclass:%02x, Prot:%02x \n",
                 controlInterface->bInterfaceClass, controlInterface->bInterfaceSubClass,
                 controlInterface->bInterfaceProtocol);
        return STATUS_UNSUCCESSFUL;
    }
    KN_TRACE(KN_TRACE_INFO, "%P:DeviceContNcm::Init: NCM Interface found\n");
    mControlInterface = controlInterface->bInterfaceNumber;

    mEthernetDescriptor =
        FindFunctionalDescriptor(controlInterface, CDC_CS_INTERFACE, CDC_ETHERNET_NETWORKING_FUNC_DESC);
    if (mEthernetDescriptor == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: cannot find the Ethernet functional descriptor\n");
        return STATUS_UNSUCCESSFUL;
    }
    ULONG maxSegmentSize = GetMaxSegmentSize();
    if (maxSegmentSize < NCM_MIN_MAX_SEGMENT_SIZE) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: device reports frame size that is too small: %u\n",
                 maxSegmentSize);
        return STATUS_UNSUCCESSFUL;
    }
    mNcmDescriptor = FindFunctionalDescriptor(controlInterface, CDC_CS_INTERFACE, CDC_NCM_FUNC_DESC);
    if (mNcmDescriptor == NULL) {
        mNcmDescriptor = FindFunctionalDescriptor(controlInterface, NCM_CS_INTERFACE_ALTERNATE, CDC_NCM_FUNC_DESC);
    }
    if (mNcmDescriptor == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: cannot find the NCM functional descriptor\n");
        return STATUS_UNSUCCESSFUL;
    }

    // Without a MAC address the adapter uses its own; Init goes on.
    ReadMacAddress();

    status = mConfiguration.PrepareAndSelectConfiguration(&mUsbDevice, configIndex,
                                                          NCM_SELECT_CONFIGURATION_TIMEOUT_MS,
                                                          DEVICECONT_DEFAULT_MAX_TRANSFER_SIZE);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: PrepareAndSelectConfiguration failed: %N\n", status);
        return status;
    }

    status = InitNtbParameters();
    if (!NT_SUCCESS(status) && mConfiguration.IsConfigured()) {
        // Leave the device unconfigured (Unconfigure traces its own failure).
        mConfiguration.Unconfigure(&mUsbDevice, true, DEVICECONT_REQUEST_TIMEOUT_MS);
    }
    return status;
}

// Contract: PASSIVE_LEVEL; no lock held; the configuration is selected.
NTSTATUS DeviceContNcm::InitNtbParameters()
{
    IRQL_EQ_PASSIVE();
    PUSBD_INTERFACE_INFORMATION dataInterface =
        mConfiguration.LookupInterfaceInfo(-1, -1, NCM_INTERFACE_CLASS_DATA, -1, -1);
    if (dataInterface == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: LookupInterfaceInfo for data interface failed: \n");
        return STATUS_UNSUCCESSFUL;
    }
    mDataInterface = dataInterface->InterfaceNumber;

    NTSTATUS status = GetNtbParameters();
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: GetNtbParameters failed: %N\n", status);
        return status;
    }

    // Output parameters that make no sense are repaired, in this order.
    if (mNtbParameters.wNdpOutAlignment < 4) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: invalid NtbParameters.wNdpOutAlignment\n");
        mNtbParameters.wNdpOutAlignment = 4;
    }
    if (mNtbParameters.wNdpOutDivisor == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: invalid NtbParameters.wNdpOutDivisor == 0\n");
        mNtbParameters.wNdpOutDivisor = 1;
    }
    if (mNtbParameters.wNdpOutPayloadRemainder >= mNtbParameters.wNdpOutDivisor) {
        mNtbParameters.wNdpOutPayloadRemainder =
            (USHORT)(mNtbParameters.wNdpOutPayloadRemainder % mNtbParameters.wNdpOutDivisor);
    }

    if (mNtbParameters.bmNtbFormatsSupported & NTB_FORMAT_NTB32_SUPPORTED) {
        KN_TRACE(KN_TRACE_INFO, "%P:DeviceContNcm::Init: Use 32 bit headers\n");
        mUse32BitHeaders = true;
    } else {
        KN_TRACE(KN_TRACE_INFO, "%P:DeviceContNcm::Init: Use 16 bit headers\n");
        mUse32BitHeaders = false;
    }

    mInputBufferSize = MinUlong(mNtbParameters.dwNtbInMaxSize, NTB_MAX_BUFFER_SIZE);
    mOutputBufferSize = MinUlong(mNtbParameters.dwNtbOutMaxSize, NTB_MAX_BUFFER_SIZE);
    if (!mUse32BitHeaders) {
        mInputBufferSize = MinUlong(mInputBufferSize, NTB16_MAX_BUFFER_SIZE);
        mOutputBufferSize = MinUlong(mOutputBufferSize, NTB16_MAX_BUFFER_SIZE);
    }
    if (mInputBufferSize < NTB16_MIN_TRANSFER_LENGTH || mOutputBufferSize < NTB16_MIN_TRANSFER_LENGTH) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Init: invalid NtbParameters, buffer size\n");
        return STATUS_UNSUCCESSFUL;
    }
    // An output size that cannot take one datagram of the largest size
    // (header, payload placement, one-entry NDP and its alignment) would
    // leave every packet queued for ever: such a device is refused.
    ULONG firstOffset = NtbDatagramOffset(mUse32BitHeaders ? NTH32_LENGTH : NTH16_LENGTH,
                                          mNtbParameters.wNdpOutDivisor, mNtbParameters.wNdpOutPayloadRemainder);
    ULONG oneDatagram = firstOffset + GetMaxSegmentSize() + (mUse32BitHeaders ? Ndp32Length(1) : Ndp16Length(1)) +
                        mNtbParameters.wNdpOutAlignment + 1;
    if (oneDatagram > mOutputBufferSize) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContNcm::Init: OutputBufferSize %u cannot hold a datagram of %u bytes (needs %u)\n",
                 mOutputBufferSize, GetMaxSegmentSize(), oneDatagram);
        return STATUS_UNSUCCESSFUL;
    }

    KN_TRACE(KN_TRACE_INFO, "%PDeviceContNcm::Init InputBufferSize :%u InputBufferCount :%u\n", mInputBufferSize,
             mParameters->RxBuffers);
    KN_TRACE(KN_TRACE_INFO, "%PDeviceContNcm::Init OutputBufferSize:%u OutputBufferCount:%u\n", mOutputBufferSize,
             mParameters->TxBuffers);
    KN_TRACE(KN_TRACE_INFO, "%PDeviceContNcm::Init wNdpOutDivisor:%u wNdpOutReminder:%u\n",
             mNtbParameters.wNdpOutDivisor, mNtbParameters.wNdpOutPayloadRemainder);
    KN_TRACE(KN_TRACE_INFO, "%PDeviceContNcm::Init wNdpOutAlignment:%u\n", mNtbParameters.wNdpOutAlignment);

    mMaxTxDatagrams = NTB_MAX_TX_DATAGRAMS;
    if (mNtbParameters.wNtbOutMaxDatagrams != 0 && mNtbParameters.wNtbOutMaxDatagrams < NTB_MAX_TX_DATAGRAMS) {
        mMaxTxDatagrams = mNtbParameters.wNtbOutMaxDatagrams;
    }
    mTxTimer.InitializeDpc(NcmTxTimer, this);
    mRxBandwidthTimer.InitializeDpc(RxBandwithTimer, this);
    return status;
}

// ===========================================================================
// configuration: NCM class requests
// ===========================================================================

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS DeviceContNcm::GetNtbParameters()
{
    IRQL_EQ_PASSIVE();
    UCHAR data[sizeof(NtbParameters)];
    ULONG received = 0;
    NTSTATUS status;
    {
        KnMutexGuard guard(mRequestMutex);
        status = SendClassRequest(NCM_GET_NTB_PARAMETERS, 0, true, data, sizeof(data), &received);
    }
    if (!NT_SUCCESS(status)) {
        return status;  // Init traces it
    }
    if (received < sizeof(data)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::GetNtbParameters device reports invalid NTB parameters\n");
        return STATUS_UNSUCCESSFUL;
    }
    mNtbParameters = NtbLoad<NtbParameters>(data);
    return status;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS DeviceContNcm::SetNtbInputSize(ULONG size)
{
    IRQL_EQ_PASSIVE();
    UCHAR data[4];
    NtbStore32(data, size);
    KnMutexGuard guard(mRequestMutex);
    return SendClassRequest(NCM_SET_NTB_INPUT_SIZE, 0, false, data, sizeof(data), NULL);
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS DeviceContNcm::SetNtbFormat(bool ntb32)
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mRequestMutex);
    return SendClassRequest(NCM_SET_NTB_FORMAT, ntb32 ? 1 : 0, false, NULL, 0, NULL);
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS DeviceContNcm::SetCrcMode(bool withCrc)
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mRequestMutex);
    return SendClassRequest(NCM_SET_CRC_MODE, withCrc ? 1 : 0, false, NULL, 0, NULL);
}

// ===========================================================================
// configuration: Start and Stop
// ===========================================================================

// Contract: PASSIVE_LEVEL; no lock held; after a successful Init, stopped.
NTSTATUS DeviceContNcm::Start()
{
    IRQL_EQ_PASSIVE();
    NTSTATUS status = SelectDataInterface(0);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (mParameters->AddressFromRegistry) {
        SetNetAddress(mParameters->CurrentAddress);  // traces its failure; Start goes on
    }
    status = SetNtbInputSize(mInputBufferSize);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: SetNtbInputSize failed: %N\n", status);
        return status;
    }
    status = SetNtbFormat(mUse32BitHeaders);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: SetNtbFormat failed: %N\n", status);
        if (mUse32BitHeaders) {
            return status;
        }
        // NTB16 is the form a device starts in: go on.
    }
    UCHAR capabilities = mNcmDescriptor[0] > NCM_DESC_BMNETWORKCAPABILITIES
                             ? mNcmDescriptor[NCM_DESC_BMNETWORKCAPABILITIES]
                             : 0;
    if (capabilities & NCM_CAP_CRC_MODE) {
        status = SetCrcMode(false);
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: SetCrcMode(false) failed: %N\n", status);
            return status;
        }
    }
    status = SelectDataInterface(1);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ConfigureStreams();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = StartBase();
    // Armed only once the device control counts as started: a tick that came
    // earlier would find it stopped and end the measurement for good.
    if (NT_SUCCESS(status) && mParameters->RxMeasurementPeriod != 0) {
        mRxBandwidthTimer.SetTimer(mParameters->RxMeasurementPeriod);
    }
    return status;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS DeviceContNcm::SelectDataInterface(UCHAR alternateSetting)
{
    IRQL_EQ_PASSIVE();
    NTSTATUS status = mConfiguration.PrepareSelectInterface(&mUsbDevice, mDataInterface, alternateSetting,
                                                            DEVICECONT_DEFAULT_MAX_TRANSFER_SIZE);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: PrepareSelectInterface failed: %N\n", status);
        return status;
    }
    status = mConfiguration.SelectInterface(&mUsbDevice, DEVICECONT_REQUEST_TIMEOUT_MS);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: SelectInterface failed: %N\n", status);
    }
    return status;
}

// Contract: PASSIVE_LEVEL; no lock held; the data interface at setting 1.
NTSTATUS DeviceContNcm::ConfigureStreams()
{
    IRQL_EQ_PASSIVE();
    PUSBD_PIPE_INFORMATION pipe = mConfiguration.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeInterrupt, true, -1, -1);
    if (pipe == NULL) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContNcm::Start: LookupPipeInfoByTypeAndDirection for interrupt IN pipe failed\n");
        return STATUS_UNSUCCESSFUL;
    }
    NTSTATUS status = mNotificationStream.Configure(&mUsbDevice, &mConfiguration, pipe->EndpointAddress,
                                                    mFunctionalDeviceObject, &mNotificationHandler, 1,
                                                    pipe->MaximumPacketSize);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: mNotificationStream.Configure failed %N\n", status);
        return STATUS_UNSUCCESSFUL;
    }

    pipe = mConfiguration.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, true, -1, -1);
    if (pipe == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: LookupPipeInfoByTypeAndDirection for bulk IN pipe failed\n");
        return STATUS_UNSUCCESSFUL;
    }
    status = mInStream.Configure(&mUsbDevice, &mConfiguration, pipe->EndpointAddress, mFunctionalDeviceObject,
                                 static_cast<StreamInClient*>(this), mParameters->RxBuffers, mInputBufferSize);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DeviceContNcm::Start: mInStream.Configure failed %N\n", status);
        return STATUS_UNSUCCESSFUL;
    }

    pipe = mConfiguration.LookupPipeInfoByTypeAndDirection(UsbdPipeTypeBulk, false, -1, -1);
    if (pipe == NULL) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:DeviceContNcm::Start: LookupPipeInfoByTypeAndDirection for bulk OUT pipe failed\n");
        return STATUS_UNSUCCESSFUL;
    }
    status = mOutStream.Configure(&mUsbDevice, &mConfiguration, pipe->EndpointAddress, mFunctionalDeviceObject,
                                  static_cast<StreamOutClient*>(this), mParameters->TxBuffers, mOutputBufferSize);
    if (!NT_SUCCESS(status)) {
        return STATUS_UNSUCCESSFUL;  // StreamOut::Configure traces its failure
    }
    return status;
}

// Contract: PASSIVE_LEVEL; no lock held; not from a stream callback.
void DeviceContNcm::Stop()
{
    IRQL_EQ_PASSIVE();
    {
        NdSpinlockGuard guard(mLock);
        ClearStarted();  // release: pairs with the acquire of IsStarted in IndicateError and the tick
    }
    mTxTimer.CancelTimer();
    mRxBandwidthTimer.CancelTimer();

    // No builder pass runs from here to the end of Stop: a late BufferSent,
    // a queued mTxTimer DPC or a transmit request only leaves a request.
    AcquireTxPath();
    if (mCurrentTxBuffer != NULL) {
        UsbBuf* buffer = mCurrentTxBuffer;
        SetCurrentTxBuffer(NULL);
        buffer->ReturnToPool();
    }
    mTxTimer.CancelTimer();  // a pass that just ended may have set it

    mRxErrorWorkItem.CancelCallbackAndWait();

    {
        NdSpinlockGuard guard(mLock);
        if (mCurrentRxBuffer != NULL) {
            mCurrentRxBuffer->ReturnToPool();
            mCurrentRxBuffer = NULL;
        }
        for (UsbBuf* buffer = mRxBufferList.RemoveHead(); buffer != NULL; buffer = mRxBufferList.RemoveHead()) {
            buffer->ReturnToPool();
        }
    }

    StopBase();

    // The receive stream is stopped now, so IndicateError cannot queue the
    // work item any more; one queued since the first cancel found mStarted
    // clear and did nothing, or is cancelled here.
    mRxErrorWorkItem.CancelCallbackAndWait();
    // Timer DPCs that were already queued have run (and found the path held).
    KeFlushQueuedDpcs();
    ReleaseTxPath();
}

// ===========================================================================
// receive errors
// ===========================================================================
