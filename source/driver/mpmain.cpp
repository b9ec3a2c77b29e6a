// The miniport frame: DriverEntry with the one handler table, DriverUnload,
// the Plug and Play hook that acts on a surprise removal before NDIS does,
// and the NDIS handlers that are not OID requests.
#include "mpmain.h"

#include "knnames.h"
#include "knpooltags.h"
#include "knregistrykey.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"
#include "mpadapter.h"

MpDriver* gMpDriver = NULL;

// NDIS's own Plug and Play dispatch routine, saved when the hook goes in.
static PDRIVER_DISPATCH gNdisDispatchPnP = NULL;

// The handlers' check of their context. A context that is not an adapter
// prints the assertion; the handler then returns without touching it, since
// going on could only fault.
#define MP_CHECK_CONTEXT(adapter, text)                               \
    (MpAdapter::IsValid(adapter) ? true : (KnAssertFailed(text, __FILE__, __LINE__), false))

// ---------------------------------------------------------------------------
// MpDriver
// ---------------------------------------------------------------------------
MpDriver::MpDriver() : mAdapterList(MpAdapter::ListEntryOffset()), mWrapperHandle(NULL)
{
    IRQL_EQ_PASSIVE();
    if (KnTraceLogBuffer::Instance() == NULL) {
        KnTraceLogBuffer::Create(KN_TRACE_LOG_DEFAULT_SIZE_KB);
    }
}

MpDriver::~MpDriver()
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(mAdapterList.IsEmpty());
    KnTraceLogBuffer::Delete();
}

void MpDriver::AddAdapter(MpAdapter* adapter)
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    // The smallest number, counting from 0, that no listed adapter has.
    ULONG number = 0;
    for (bool taken = true; taken; ) {
        taken = false;
        for (void* item = mAdapterList.GetHead(); item != NULL; item = mAdapterList.GetNext(item)) {
            if (static_cast<MpAdapter*>(item)->mAdapterNumber == number) {
                taken = true;
                number++;
                break;
            }
        }
    }
    adapter->mAdapterNumber = number;
    mAdapterList.InsertTail(adapter);
}

void MpDriver::RemoveAdapter(MpAdapter* adapter)
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    if (adapter->mListEntry.IsLinked()) {
        mAdapterList.Remove(adapter);
    }
}

MpAdapter* MpDriver::FindAdapter(PDEVICE_OBJECT deviceObject)
{
    IRQL_LTEQ_DISPATCH();
    NdSpinlockGuard guard(mLock);
    for (void* item = mAdapterList.GetHead(); item != NULL; item = mAdapterList.GetNext(item)) {
        MpAdapter* adapter = static_cast<MpAdapter*>(item);
        if (adapter->GetFunctionalDeviceObject() == deviceObject) {
            return adapter;
        }
    }
    return NULL;
}

// ---------------------------------------------------------------------------
// DriverEntry, DriverUnload, DispatchPnP
// ---------------------------------------------------------------------------
// Sets the trace prefix from the last component of the registry path, and
// the trace mask from its "TraceMask" value.
static NTSTATUS ReadDriverParameters(PUNICODE_STRING registryPath)
{
    ULONG chars = registryPath->Length / sizeof(WCHAR);
    KnBufferBlock pathCopy;
    PWCHAR path = pathCopy.AllocateWide(PagedPool, chars + 1, KN_POOL_TAG_REGISTRY_PATH, true);
    if (path == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DriverEntry: FATAL: alloc registry path buffer (%u bytes) failed\n",
                 (ULONG)registryPath->Length + 2);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(path, registryPath->Buffer, chars * sizeof(WCHAR));

    ULONG start = 0;
    for (ULONG i = 0; i < chars; i++) {
        if (path[i] == '\\') {
            start = i + 1;
        }
    }
    CHAR prefix[MPDRIVER_TRACE_PREFIX_MAX + 1];
    ULONG n = 0;
    for (ULONG i = start; i < chars && n < MPDRIVER_TRACE_PREFIX_MAX; i++) {
        prefix[n++] = (CHAR)(path[i] & 0xFF);
    }
    prefix[n] = 0;
    KnSetTracePrefix(prefix);

    KnRegistryKey key;
    NTSTATUS status = key.OpenKey(path, KEY_READ);
    if (NT_SUCCESS(status)) {
        ULONG mask = KnGetTraceMask();
        // Absent, the value is stored with the default, which this read-only
        // key refuses; the mask is the built-in one either way.
        key.GetDwordValue(MP_WIDE("TraceMask"), &mask, KnGetTraceMask());
        KnSetTraceMask(mask);
    } else {
        KN_TRACE(KN_TRACE_ERROR, "%P:DriverEntry: open registry path '%S' failed, stat=%N\n", path, status);
    }
    key.Close();
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    IRQL_EQ_PASSIVE();
    gMpDriver = new (NonPagedPool, KN_POOL_TAG_DRIVER) MpDriver();
    if (gMpDriver == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DriverEntry: FATAL: allocating driver object failed\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // On the failure paths below the driver object and its trace log buffer
    // are released: the system does not call DriverUnload after a failed
    // DriverEntry, so nothing else would.
    NTSTATUS status = ReadDriverParameters(RegistryPath);
    if (!NT_SUCCESS(status)) {
        delete gMpDriver;
        gMpDriver = NULL;
        return status;
    }
    KN_TRACE(KN_TRACE_WARNING, "%P: **** DriverEntry ****\n");

    NdisInitializeWrapper(&gMpDriver->mWrapperHandle, DriverObject, RegistryPath, NULL);

    NDIS51_MINIPORT_CHARACTERISTICS chars;
    RtlZeroMemory(&chars, sizeof(chars));
    NDIS30_MINIPORT_CHARACTERISTICS& c30 = chars.Ndis50Chars.Ndis40Chars.Ndis30Chars;
    c30.MajorNdisVersion = 5;
    c30.MinorNdisVersion = 1;
    c30.CheckForHangHandler = MPCheckForHang;
    c30.HaltHandler = MPHalt;
    c30.InitializeHandler = MPInitialize;
    c30.QueryInformationHandler = MPQueryInformation;
    c30.ResetHandler = MPReset;
    c30.SetInformationHandler = MPSetInformation;
    c30.TransferDataHandler = MPTransferData;
    chars.Ndis50Chars.Ndis40Chars.SendPacketsHandler = MPSendPackets;
    chars.PnPEventNotifyHandler = MPPnPEventNotify;
    chars.AdapterShutdownHandler = MPAdapterShutdown;

    NDIS_STATUS ndisStatus = NdisMRegisterMiniport(gMpDriver->mWrapperHandle,
                                                   (PNDIS_MINIPORT_CHARACTERISTICS)&chars, sizeof(chars));
    if (ndisStatus != NDIS_STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DriverEntry: NdisMRegisterMiniport failed, %D %s\n", ndisStatus,
                 NdStatusName(ndisStatus));
        NdisTerminateWrapper(gMpDriver->mWrapperHandle, NULL);
        status = NDIS_STATUS_FAILURE;
    } else {
        status = STATUS_SUCCESS;
        NdisMRegisterUnloadHandler(gMpDriver->mWrapperHandle, DriverUnload);
        if (IoIsWdmVersionAvailable(6, 0)) {
            gNdisDispatchPnP = DriverObject->MajorFunction[IRP_MJ_PNP];
            DriverObject->MajorFunction[IRP_MJ_PNP] = DispatchPnP;
        }
    }
    KN_TRACE(KN_TRACE_WARNING, "%P: ]DriverEntry %D\n", status);
    if (!NT_SUCCESS(status)) {
        delete gMpDriver;
        gMpDriver = NULL;
    }
    return status;
}

void DriverUnload(PDRIVER_OBJECT DriverObject)
{
    IRQL_EQ_PASSIVE();
    (void)DriverObject;
    KN_TRACE(KN_TRACE_WARNING, "%P: [DriverUnload\n");
    if (gMpDriver != NULL) {
        delete gMpDriver;
        gMpDriver = NULL;
    }
    gNdisDispatchPnP = NULL;
    KN_TRACE(KN_TRACE_WARNING, "%P: ]DriverUnload\n");
}

NTSTATUS DispatchPnP(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    IRQL_EQ_PASSIVE();
    if (gNdisDispatchPnP == NULL) {
        Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        Irp->IoStatus.Information = 0;
        IofCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_UNSUCCESSFUL;
    }
    if (IoGetCurrentIrpStackLocation(Irp)->MinorFunction == IRP_MN_SURPRISE_REMOVAL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:DispatchPnP: IRP_MN_SURPRISE_REMOVAL before NDIS is called\n");
        MpAdapter* adapter = gMpDriver != NULL ? gMpDriver->FindAdapter(DeviceObject) : NULL;
        if (adapter == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:DispatchPnP: no adapter for deviceObject:%p\n", DeviceObject);
        } else {
            // Link down and the transmit queue empty before NDIS sees the
            // removal; the wait lets the disconnect indication go out.
            adapter->NetworkStateChanged(false);
            adapter->mLock.Lock();
            adapter->mTxEnabled = false;
            adapter->CleanupTxQueue();
            adapter->mLock.Unlock();
            KEVENT event;
            KeInitializeEvent(&event, NotificationEvent, FALSE);
            LARGE_INTEGER timeout;
            timeout.QuadPart = -(LONGLONG)MPDRIVER_SURPRISE_REMOVAL_DELAY_MS * 10000;
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
        }
    }
    return gNdisDispatchPnP(DeviceObject, Irp);
}

// ---------------------------------------------------------------------------
// NDIS handlers
// ---------------------------------------------------------------------------
NDIS_STATUS NTAPI MPInitialize(PNDIS_STATUS OpenErrorStatus, PUINT SelectedMediumIndex, PNDIS_MEDIUM MediumArray,
                               UINT MediumArraySize, NDIS_HANDLE MiniportAdapterHandle,
                               NDIS_HANDLE WrapperConfigurationContext)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_INFO, "%P: [MPInitialize\n");
    KN_TRACE(KN_TRACE_INFO, "%P:MPInitialize: MediumArray:\n");
    for (UINT i = 0; i < MediumArraySize; i++) {
        KN_TRACE(KN_TRACE_INFO, "  %D '%s'\n", (ULONG)MediumArray[i], NdMediumName(MediumArray[i]));
    }
    UINT selected = MediumArraySize;
    for (UINT i = 0; i < MediumArraySize; i++) {
        if (MediumArray[i] == NdisMedium802_3) {
            selected = i;
            break;
        }
    }
    if (selected == MediumArraySize) {
        KN_TRACE(KN_TRACE_ERROR, "%P:MPInitialize: no match in MediumArray\n");
        NdisWriteErrorLogEntry(MiniportAdapterHandle, MPADAPTER_ERRLOG_UNSUPPORTED_MEDIA, 0);
        return NDIS_STATUS_UNSUPPORTED_MEDIA;
    }
    KN_TRACE(KN_TRACE_INFO, "%P:MPInitialize: selected MediaType: %D '%s'\n", (ULONG)MediumArray[selected],
             NdMediumName(MediumArray[selected]));
    *SelectedMediumIndex = selected;

    MpAdapter* adapter = new (NonPagedPool, KN_POOL_TAG_ADAPTER) MpAdapter(MiniportAdapterHandle);
    if (adapter == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:MPInitialize: allocating adapter object failed\n");
        NdisWriteErrorLogEntry(MiniportAdapterHandle, MPADAPTER_ERRLOG_NO_ADAPTER, 0);
        return NDIS_STATUS_RESOURCES;
    }
    NDIS_STATUS status = adapter->Initialize(WrapperConfigurationContext);
    if (status != NDIS_STATUS_SUCCESS) {
        delete adapter;
        KN_TRACE(KN_TRACE_ERROR, "%P:MPInitialize: Initialize failed\n");
        NdisWriteErrorLogEntry(MiniportAdapterHandle, MPADAPTER_ERRLOG_INITIALIZE, 1, 2);
        return status;
    }
    gMpDriver->AddAdapter(adapter);
    *OpenErrorStatus = 0;
    if (KnGetTraceMask() & KN_TRACE_INFO) {
        KnPrint("%P: Adapter %d created. MAC: ", adapter->mAdapterNumber);
        KnHexDump(adapter->GetCurrentAddress(), 6);
        KnPrint("\n");
    }
    NdisWriteErrorLogEntry(MiniportAdapterHandle, MPADAPTER_ERRLOG_CREATED, 1, adapter->mAdapterNumber);
    KN_TRACE(KN_TRACE_INFO, "%P: ]MPInitialize %D %s\n", NDIS_STATUS_SUCCESS, NdStatusName(NDIS_STATUS_SUCCESS));
    __atomic_store_n(&adapter->mInitialized, true, __ATOMIC_RELAXED);
    return NDIS_STATUS_SUCCESS;
}

void NTAPI MPHalt(NDIS_HANDLE MiniportAdapterContext)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_INFO, "%P: [MPHalt\n");
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        return;
    }
    __atomic_store_n(&adapter->mInitialized, false, __ATOMIC_RELAXED);
    adapter->Halt();
    gMpDriver->RemoveAdapter(adapter);
    if (KnGetTraceMask() & KN_TRACE_INFO) {
        KnPrint("%P: Adapter %d deleted. MAC: ", adapter->mAdapterNumber);
        KnHexDump(adapter->GetCurrentAddress(), 6);
        KnPrint("\n");
    }
    delete adapter;
    KN_TRACE(KN_TRACE_INFO, "%P: ]MPHalt\n");
}

NDIS_STATUS NTAPI MPReset(PBOOLEAN AddressingReset, NDIS_HANDLE MiniportAdapterContext)
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_INFO, "%P: [MPReset\n");
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        return NDIS_STATUS_FAILURE;
    }
    adapter->mTxHangDetected = false;
    adapter->Reset();
    *AddressingReset = FALSE;
    KN_TRACE(KN_TRACE_INFO, "%P: ]MPReset %D %s\n", NDIS_STATUS_PENDING, NdStatusName(NDIS_STATUS_PENDING));
    return NDIS_STATUS_PENDING;
}

BOOLEAN NTAPI MPCheckForHang(NDIS_HANDLE MiniportAdapterContext)
{
    IRQL_LTEQ_DISPATCH();
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        return FALSE;
    }
    return adapter->CheckForHang();
}

void NTAPI MPSendPackets(NDIS_HANDLE MiniportAdapterContext, PPNDIS_PACKET PacketArray, UINT NumberOfPackets)
{
    IRQL_LTEQ_DISPATCH();
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        return;
    }
    adapter->SendPackets(PacketArray, NumberOfPackets);
}

NDIS_STATUS NTAPI MPTransferData(PNDIS_PACKET Packet, PUINT BytesTransferred, NDIS_HANDLE MiniportAdapterContext,
                                 NDIS_HANDLE MiniportReceiveContext, UINT ByteOffset, UINT BytesToTransfer)
{
    IRQL_LTEQ_DISPATCH();
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        *BytesTransferred = 0;
        return NDIS_STATUS_FAILURE;
    }
    return adapter->TransferData(Packet, BytesTransferred, MiniportReceiveContext, ByteOffset, BytesToTransfer);
}

void NTAPI MPPnPEventNotify(NDIS_HANDLE MiniportAdapterContext, NDIS_DEVICE_PNP_EVENT PnPEvent,
                            PVOID InformationBuffer, ULONG InformationBufferLength)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_INFO, "%P: [MPPnPEventNotify\n");
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (!MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        return;
    }
    KN_TRACE(KN_TRACE_INFO, "%P: PnPEvent: %d %s\n", (ULONG)PnPEvent, NdPnPEventName(PnPEvent));
    if (PnPEvent == NdisDevicePnPEventSurpriseRemoved) {
        adapter->Halt();
    } else if (PnPEvent == NdisDevicePnPEventPowerProfileChanged) {
        if (InformationBuffer == NULL || InformationBufferLength < sizeof(ULONG)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:MPPnPEventNotify: invalid InformationBuffer\n");
        } else {
            ULONG profile = *static_cast<PULONG>(InformationBuffer);
            KN_TRACE(KN_TRACE_INFO, "%P: MPPnPEventNotify: new power profile: %d %s\n", profile,
                     NdPowerProfileName(profile));
        }
    }
    KN_TRACE(KN_TRACE_INFO, "%P: ]MPPnPEventNotify\n");
}

void NTAPI MPAdapterShutdown(PVOID MiniportAdapterContext)
{
    KN_TRACE(KN_TRACE_INFO, "%P: [MPAdapterShutdown\n");
    MpAdapter* adapter = static_cast<MpAdapter*>(MiniportAdapterContext);
    if (MP_CHECK_CONTEXT(adapter, "PTRVALID(Adp,MpAdapter)")) {
        // The device is not touched at shutdown.
    }
    KN_TRACE(KN_TRACE_INFO, "%P: ]MPAdapterShutdown\n");
}
