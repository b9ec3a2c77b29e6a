// Configuration and interface selection: the select URBs prepared from the
// configuration descriptor, sent, and their answers kept as interface
// records. Finding records and pipes among them is in
// knusbconfiguration_lookup.cpp.
#include "knusbconfiguration.h"

#include <new>

#include "knmemory.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "knusbpnplowerdevice.h"

namespace {

// Size of an interface information record without pipes, and per pipe.
constexpr ULONG kInterfaceInformationHeaderSize = FIELD_OFFSET(USBD_INTERFACE_INFORMATION, Pipes);
constexpr ULONG kPipeInformationSize = sizeof(USBD_PIPE_INFORMATION);

// Bytes of an interface information record with `pipes` pipes.
ULONG InterfaceInformationSize(ULONG pipes)
{
    return kInterfaceInformationHeaderSize + kPipeInformationSize * pipes;
}

// Size of a select-interface URB for an interface with `pipes` endpoints.
ULONG SelectInterfaceUrbSize(ULONG pipes)
{
    return FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + InterfaceInformationSize(pipes);
}

const char* PipeTypeName(ULONG pipeType)
{
    switch (pipeType) {
    case UsbdPipeTypeControl:
        return "UsbdPipeTypeControl";
    case UsbdPipeTypeIsochronous:
        return "UsbdPipeTypeIsochronous";
    case UsbdPipeTypeBulk:
        return "UsbdPipeTypeBulk";
    case UsbdPipeTypeInterrupt:
        return "UsbdPipeTypeInterrupt";
    default:
        return "unknown";
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// InterfaceInfo
// ---------------------------------------------------------------------------

// Contract: IRQL <= DISPATCH_LEVEL.
InterfaceInfo* InterfaceInfo::Create(ULONG informationLength, ULONG* allocationSize)
{
    ULONG size = (ULONG)sizeof(InterfaceInfo) + informationLength;
    *allocationSize = size;
    PVOID memory = KnAllocateMemory(NonPagedPool, size, KN_POOL_TAG_USB_CONFIG, true);
    if (memory == NULL) {
        return NULL;
    }
    InterfaceInfo* info = new (memory) InterfaceInfo();
    info->mInterfaceInformation = (PUSBD_INTERFACE_INFORMATION)((PUCHAR)memory + sizeof(InterfaceInfo));
    return info;
}

// Contract: IRQL <= DISPATCH_LEVEL; the record is in no list.
void InterfaceInfo::Destroy(InterfaceInfo* info)
{
    if (info == NULL) {
        return;
    }
    KN_ASSERT(!info->mListEntry.IsLinked());
    info->~InterfaceInfo();
    KnFreeMemory(info);
}

static_assert(sizeof(InterfaceInfo) % 8 == 0, "the copy behind the record must stay 8-byte aligned");

// ---------------------------------------------------------------------------
// KnUsbConfiguration
// ---------------------------------------------------------------------------

// Contract: any IRQL.
KnUsbConfiguration::KnUsbConfiguration()
    : mUsbdInterfaceList(NULL),
      mUsbdInterfaceListLimit(NULL),
      mSelectConfigurationUrb(NULL),
      mSelectInterfaceUrb(NULL),
      mInterfaceInfoList(QB_DLLIST_ENTRY_OFFSET(InterfaceInfo, mListEntry)),
      mIsConfigured(false),
      mConfigurationHandle(NULL),
      mConfigurationValue(0)
{
}

// Contract: PASSIVE_LEVEL; not configured.
KnUsbConfiguration::~KnUsbConfiguration()
{
    Release();
}

// Contract: any IRQL; trace mask bit 0x8 tested by the caller.
void KnUsbConfiguration::DumpInterfaceInformation(const USBD_INTERFACE_INFORMATION* info)
{
    KnPrint(" Interface %u:  (struct length=%u)\n", (ULONG)info->InterfaceNumber, (ULONG)info->Length);
    KnPrint("   InterfaceNumber 0x%B\n", (ULONG)info->InterfaceNumber);
    KnPrint("   AlternateSetting 0x%B\n", (ULONG)info->AlternateSetting);
    KnPrint("   Class 0x%B\n", (ULONG)info->Class);
    KnPrint("   SubClass 0x%B\n", (ULONG)info->SubClass);
    KnPrint("   Protocol 0x%B\n", (ULONG)info->Protocol);
    KnPrint("   InterfaceHandle 0x%p\n", info->InterfaceHandle);
    KnPrint("   NumberOfPipes %u\n", info->NumberOfPipes);
    for (ULONG i = 0; i < info->NumberOfPipes; i++) {
        const USBD_PIPE_INFORMATION* pipe = &info->Pipes[i];
        KnPrint("  Pipe %u:\n", i);
        KnPrint("    EndpointAddress 0x%B\n", (ULONG)pipe->EndpointAddress);
        KnPrint("    PipeType %d (%s)\n", (LONG)pipe->PipeType, PipeTypeName((ULONG)pipe->PipeType));
        KnPrint("    MaximumPacketSize %u\n", (ULONG)pipe->MaximumPacketSize);
        KnPrint("    Interval %u\n", (ULONG)pipe->Interval);
        KnPrint("    PipeHandle 0x%p\n", pipe->PipeHandle);
        KnPrint("    MaximumTransferSize 0x%D\n", pipe->MaximumTransferSize);
        KnPrint("    PipeFlags 0x%D\n", pipe->PipeFlags);
    }
}

// Contract: IRQL <= DISPATCH_LEVEL.
void KnUsbConfiguration::FreeSelectInterfaceUrb(PURB* urb)
{
    if (*urb != NULL) {
        KnFreeMemory(*urb);
        *urb = NULL;
    }
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbConfiguration::PrepareAndSelectConfiguration(KnPnPLowerDeviceUsb* device, UCHAR configIndex,
                                                           ULONG timeoutMs, ULONG defaultMaxTransferSize)
{
    IRQL_EQ_PASSIVE();
    NTSTATUS st = PrepareSelectConfiguration(device, configIndex, timeoutMs, defaultMaxTransferSize);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbConfiguration::PrepareAndSelectConfiguration: PrepareSelectConfiguration failed, st=%N\n", st);
        return st;
    }
    st = SelectConfiguration(device, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbConfiguration::PrepareAndSelectConfiguration: SelectConfiguration failed, st=%N\n", st);
    }
    return st;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbConfiguration::PrepareSelectConfiguration(KnPnPLowerDeviceUsb* device, UCHAR configIndex,
                                                        ULONG timeoutMs, ULONG defaultMaxTransferSize)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_START, "%P:KnUsbConfiguration::PrepareSelectConfiguration: called\n");
    Release();

    NTSTATUS st = mConfigDescriptor.Load(device, configIndex, NonPagedPool, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectConfiguration: mConfigDescriptor.Load(%u) failed, st=%N\n",
                 (ULONG)configIndex, st);
        return st;
    }

    PUSB_CONFIGURATION_DESCRIPTOR configDesc = mConfigDescriptor.GetConfigDesc();
    const ULONG numInterfaces = configDesc->bNumInterfaces;
    const ULONG listSize = (numInterfaces + 1) * (ULONG)sizeof(USBD_INTERFACE_LIST_ENTRY);
    mUsbdInterfaceList = static_cast<PUSBD_INTERFACE_LIST_ENTRY>(
        KnAllocateMemory(NonPagedPool, listSize, KN_POOL_TAG_USB_CONFIG, true));
    if (mUsbdInterfaceList == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectConfiguration: KnAllocateMemory(%u bytes) failed\n",
                 listSize);
        Release();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    mUsbdInterfaceListLimit = mUsbdInterfaceList + numInterfaces;

    // Alternate setting 0 of every interface, in descriptor order.
    PUSBD_INTERFACE_LIST_ENTRY if_list_entry = mUsbdInterfaceList;
    PUSB_INTERFACE_DESCRIPTOR ifDesc = mConfigDescriptor.FindInterfaceDescriptor(NULL, -1, 0, -1, -1, -1);
    while (ifDesc != NULL) {
        if (if_list_entry >= mUsbdInterfaceListLimit) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectConfiguration: Too many interfaces\n");
            Release();
            return STATUS_BAD_DESCRIPTOR_FORMAT;
        }
        if_list_entry->InterfaceDescriptor = ifDesc;
        if_list_entry++;
        PUSB_COMMON_DESCRIPTOR next = mConfigDescriptor.NextDescriptor(ifDesc);
        if (next == NULL) {
            break;
        }
        ifDesc = mConfigDescriptor.FindInterfaceDescriptor(next, -1, 0, -1, -1, -1);
    }
    if (if_list_entry < mUsbdInterfaceListLimit) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectConfiguration: Invalid configuration descriptor\n");
        Release();
        return STATUS_BAD_DESCRIPTOR_FORMAT;
    }

    mSelectConfigurationUrb = USBD_CreateConfigurationRequestEx(configDesc, mUsbdInterfaceList);
    if (mSelectConfigurationUrb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectConfiguration: USBD_CreateConfigurationRequestEx failed\n");
        Release();
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    for (if_list_entry = mUsbdInterfaceList; if_list_entry < mUsbdInterfaceListLimit; if_list_entry++) {
        if (if_list_entry->InterfaceDescriptor == NULL || if_list_entry->Interface == NULL) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbConfiguration::PrepareSelectConfiguration: FATAL: if_list_entry->Interface == NULL\n");
            Release();
            return STATUS_UNSUCCESSFUL;
        }
        if (!AddInterfaceInfo(if_list_entry->Interface, if_list_entry->InterfaceDescriptor, defaultMaxTransferSize)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectConfiguration: AddInterfaceInfo failed\n");
            Release();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; the owner serializes.
bool KnUsbConfiguration::AddInterfaceInfo(PUSBD_INTERFACE_INFORMATION ifInfo, PUSB_INTERFACE_DESCRIPTOR ifDesc,
                                          ULONG defaultMaxTransferSize)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(NULL!=ifInfo);
    KN_ASSERT(NULL!=ifDesc);
    if (ifInfo == NULL || ifDesc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::AddInterfaceInfo: no interface information or descriptor\n");
        return false;
    }
    const ULONG length = ifInfo->Length;
    const ULONG numberOfPipes = ifInfo->NumberOfPipes;
    if (length < kInterfaceInformationHeaderSize || numberOfPipes > (length - kInterfaceInformationHeaderSize) / kPipeInformationSize) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::AddInterfaceInfo: FATAL: Length %u too small for %u pipes\n",
                 length, numberOfPipes);
        return false;
    }

    ULONG allocationSize = 0;
    InterfaceInfo* ii = InterfaceInfo::Create(length, &allocationSize);
    if (ii == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::AddInterfaceInfo: KnAllocateMemory(%u) failed\n",
                 allocationSize);
        return false;
    }
    RtlCopyMemory(ii->mInterfaceInformation, ifInfo, length);
    ii->mInterfaceDescriptor = ifDesc;

    // Endpoints in descriptor order from the interface descriptor on; the
    // walk does not stop at the next interface descriptor.
    PVOID start = ifDesc;
    ULONG pipe = 0;
    for (; pipe < numberOfPipes && start != NULL; pipe++) {
        PUSB_COMMON_DESCRIPTOR found = mConfigDescriptor.FindDescriptor(start, USB_ENDPOINT_DESCRIPTOR_TYPE);
        if (found == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::AddInterfaceInfo: FATAL: no EP desc for pipe %u\n", pipe + 1);
            InterfaceInfo::Destroy(ii);
            return false;
        }
        // A descriptor of the endpoint type shorter than an endpoint
        // descriptor would be read past its end (and past the block when it
        // is the last one): refuse it like a missing one.
        if (found->bLength < sizeof(USB_ENDPOINT_DESCRIPTOR)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::AddInterfaceInfo: FATAL: EP desc for pipe %u too short (%u)\n",
                     pipe + 1, (ULONG)found->bLength);
            InterfaceInfo::Destroy(ii);
            return false;
        }
        PUSB_ENDPOINT_DESCRIPTOR ep = (PUSB_ENDPOINT_DESCRIPTOR)found;
        PUSBD_PIPE_INFORMATION pi = &ii->mInterfaceInformation->Pipes[pipe];
        pi->EndpointAddress = ep->bEndpointAddress;
        pi->MaximumPacketSize = ep->wMaxPacketSize;
        pi->Interval = ep->bInterval;
        pi->PipeType = (USBD_PIPE_TYPE)(ep->bmAttributes & USB_ENDPOINT_TYPE_MASK);
        pi->MaximumTransferSize = defaultMaxTransferSize;
        start = mConfigDescriptor.NextDescriptor(found);
    }
    if (pipe < numberOfPipes) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::AddInterfaceInfo: FATAL: missing EP desc\n");
        InterfaceInfo::Destroy(ii);
        return false;
    }

    if (KnGetTraceMask() & KN_TRACE_START) {
        KnPrint("%P:KnUsbConfiguration::AddInterfaceInfo: local USBD_INTERFACE_INFORMATION\n");
        DumpInterfaceInformation(ii->mInterfaceInformation);
    }
    mInterfaceInfoList.InsertTail(ii);
    return true;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbConfiguration::SelectConfiguration(KnPnPLowerDeviceUsb* device, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_START, "%P:KnUsbConfiguration::SelectConfiguration: called\n");
    if (mSelectConfigurationUrb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectConfiguration: not prepared\n");
        return STATUS_UNSUCCESSFUL;
    }
    KN_ASSERT(mConfigDescriptor.IsValid());
    KN_ASSERT(NULL!=mUsbdInterfaceList);
    KN_ASSERT(NULL!=mUsbdInterfaceListLimit);

    // Limits and flags of the records go into the request.
    PUSBD_INTERFACE_LIST_ENTRY if_list_entry = mUsbdInterfaceList;
    for (InterfaceInfo* ii = mInterfaceInfoList.GetHead(); ii != NULL; ii = mInterfaceInfoList.GetNext(ii)) {
        if (if_list_entry >= mUsbdInterfaceListLimit) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectConfiguration: FATAL: if_list_entry exceeds limit\n");
            return STATUS_UNSUCCESSFUL;
        }
        PUSBD_INTERFACE_INFORMATION urbInfo = if_list_entry->Interface;
        if (urbInfo == NULL) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbConfiguration::SelectConfiguration: FATAL: if_list_entry->Interface == NULL\n");
            return STATUS_UNSUCCESSFUL;
        }
        if (ii->mInterfaceInformation->Length != urbInfo->Length) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectConfiguration: FATAL: length mismatch\n");
            return STATUS_UNSUCCESSFUL;
        }
        for (ULONG i = 0; i < ii->mInterfaceInformation->NumberOfPipes; i++) {
            urbInfo->Pipes[i].MaximumTransferSize = ii->mInterfaceInformation->Pipes[i].MaximumTransferSize;
            urbInfo->Pipes[i].PipeFlags = ii->mInterfaceInformation->Pipes[i].PipeFlags;
        }
        if (KnGetTraceMask() & KN_TRACE_START) {
            KnPrint("%P:KnUsbConfiguration::SelectConfiguration: USBD_INTERFACE_INFORMATION before\n");
            DumpInterfaceInformation(urbInfo);
        }
        if_list_entry++;
    }

    NTSTATUS st = device->SubmitUrbAndWait(mSelectConfigurationUrb, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectConfiguration: SubmitUrbAndWait failed, st=%N\n", st);
        return st;
    }

    // The bus driver's answer (handles, limits) goes back into the records.
    if_list_entry = mUsbdInterfaceList;
    for (InterfaceInfo* ii = mInterfaceInfoList.GetHead(); ii != NULL; ii = mInterfaceInfoList.GetNext(ii)) {
        if (if_list_entry >= mUsbdInterfaceListLimit) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbConfiguration::SelectConfiguration: FATAL: if_list_entry exceeds limit (2)\n");
            return STATUS_UNSUCCESSFUL;
        }
        PUSBD_INTERFACE_INFORMATION urbInfo = if_list_entry->Interface;
        if (urbInfo == NULL) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbConfiguration::SelectConfiguration: FATAL: if_list_entry->Interface == NULL (2)\n");
            return STATUS_UNSUCCESSFUL;
        }
        if (ii->mInterfaceInformation->Length != urbInfo->Length) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectConfiguration: FATAL: length mismatch (2)\n");
            return STATUS_UNSUCCESSFUL;
        }
        if (KnGetTraceMask() & KN_TRACE_START) {
            KnPrint("%P:KnUsbConfiguration::SelectConfiguration: USBD_INTERFACE_INFORMATION after\n");
            DumpInterfaceInformation(urbInfo);
        }
        RtlCopyMemory(ii->mInterfaceInformation, urbInfo, urbInfo->Length);
        if_list_entry++;
    }
    KN_ASSERT(if_list_entry==mUsbdInterfaceListLimit);

    mIsConfigured = true;
    mConfigurationHandle = mSelectConfigurationUrb->UrbSelectConfiguration.ConfigurationHandle;
    PUSB_CONFIGURATION_DESCRIPTOR config_desc = mConfigDescriptor.GetConfigDesc();
    KN_ASSERT(config_desc!=NULL);
    mConfigurationValue = (config_desc != NULL) ? config_desc->bConfigurationValue : 0;

    ExFreePoolWithTag(mSelectConfigurationUrb, 0);
    mSelectConfigurationUrb = NULL;
    KnFreeMemory(mUsbdInterfaceList);
    mUsbdInterfaceList = NULL;
    mUsbdInterfaceListLimit = NULL;
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbConfiguration::PrepareSelectInterface(KnPnPLowerDeviceUsb* device, UCHAR interfaceNumber,
                                                    UCHAR alternateSetting, ULONG defaultMaxTransferSize)
{
    IRQL_EQ_PASSIVE();
    UNREFERENCED_PARAMETER(device);
    KN_TRACE(KN_TRACE_START,
             "%P:KnUsbConfiguration::PrepareSelectInterface: interfaceNumber=0x%B alternateSetting=0x%B "
             "defaultMaxTransferSize=%u\n",
             (ULONG)interfaceNumber, (ULONG)alternateSetting, defaultMaxTransferSize);
    if (!mIsConfigured) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectInterface: not in configured state\n");
        return STATUS_INVALID_DEVICE_STATE;
    }
    FreeSelectInterfaceUrb(&mSelectInterfaceUrb);

    PUSB_INTERFACE_DESCRIPTOR ifDesc =
        mConfigDescriptor.FindInterfaceDescriptor(NULL, interfaceNumber, alternateSetting, -1, -1, -1);
    if (ifDesc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectInterface: no interface descriptor for 0x%B/0x%B\n",
                 (ULONG)interfaceNumber, (ULONG)alternateSetting);
        return STATUS_NO_SUCH_MEMBER;
    }

    const ULONG numberOfPipes = ifDesc->bNumEndpoints;
    const ULONG urbSize = SelectInterfaceUrbSize(numberOfPipes);
    PURB urb = static_cast<PURB>(KnAllocateMemory(NonPagedPool, urbSize, KN_POOL_TAG_USB_CONFIG, true));
    if (urb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectInterface: KnAllocateMemory(%u) failed\n", urbSize);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    urb->UrbSelectInterface.Hdr.Length = (USHORT)urbSize;
    urb->UrbSelectInterface.Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
    urb->UrbSelectInterface.ConfigurationHandle = mConfigurationHandle;
    urb->UrbSelectInterface.Interface.Length = (USHORT)InterfaceInformationSize(numberOfPipes);
    urb->UrbSelectInterface.Interface.InterfaceNumber = interfaceNumber;
    urb->UrbSelectInterface.Interface.AlternateSetting = alternateSetting;
    urb->UrbSelectInterface.Interface.NumberOfPipes = numberOfPipes;

    if (!RemoveInterfaceInfo(interfaceNumber)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectInterface: no old InterfaceInfo for number %B\n",
                 (ULONG)interfaceNumber);
    }
    if (!AddInterfaceInfo(&urb->UrbSelectInterface.Interface, ifDesc, defaultMaxTransferSize)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::PrepareSelectInterface: AddInterfaceInfo failed\n");
        KnFreeMemory(urb);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    mSelectInterfaceUrb = urb;
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbConfiguration::SelectInterface(KnPnPLowerDeviceUsb* device, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_START, "%P:KnUsbConfiguration::SelectInterface: called\n");
    if (!mIsConfigured) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectInterface: not in configured state\n");
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (mSelectInterfaceUrb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectInterface: not prepared\n");
        return STATUS_UNSUCCESSFUL;
    }
    PUSBD_INTERFACE_INFORMATION urbInfo = &mSelectInterfaceUrb->UrbSelectInterface.Interface;

    InterfaceInfo* ii = FindInterfaceInfo(urbInfo->InterfaceNumber);
    if (ii != NULL) {
        if (ii->mInterfaceInformation->Length != urbInfo->Length) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectInterface: FATAL: length mismatch\n");
            return STATUS_UNSUCCESSFUL;
        }
        for (ULONG i = 0; i < ii->mInterfaceInformation->NumberOfPipes; i++) {
            urbInfo->Pipes[i].MaximumTransferSize = ii->mInterfaceInformation->Pipes[i].MaximumTransferSize;
            urbInfo->Pipes[i].PipeFlags = ii->mInterfaceInformation->Pipes[i].PipeFlags;
        }
    }
    if (KnGetTraceMask() & KN_TRACE_START) {
        KnPrint("%P:KnUsbConfiguration::SelectInterface: USBD_INTERFACE_INFORMATION before\n");
        DumpInterfaceInformation(urbInfo);
    }

    NTSTATUS st = device->SubmitUrbAndWait(mSelectInterfaceUrb, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectInterface: SubmitUrbAndWait failed, st=%N\n", st);
        return st;
    }

    ii = FindInterfaceInfo(urbInfo->InterfaceNumber);
    if (ii != NULL) {
        if (ii->mInterfaceInformation->Length != urbInfo->Length) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::SelectInterface: FATAL: length mismatch\n");
            return STATUS_UNSUCCESSFUL;
        }
        RtlCopyMemory(ii->mInterfaceInformation, urbInfo, urbInfo->Length);
    }
    KN_ASSERT(ii!=NULL);
    if (KnGetTraceMask() & KN_TRACE_START) {
        KnPrint("%P:KnUsbConfiguration::SelectInterface: USBD_INTERFACE_INFORMATION after\n");
        DumpInterfaceInformation(urbInfo);
    }
    FreeSelectInterfaceUrb(&mSelectInterfaceUrb);
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbConfiguration::Unconfigure(KnPnPLowerDeviceUsb* device, bool sendRequest, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    if (!mIsConfigured) {
        KN_TRACE(KN_TRACE_INFO, "%P:KnUsbConfiguration::Unconfigure: no current configuration selected\n");
        return STATUS_SUCCESS;
    }
    NTSTATUS st = STATUS_SUCCESS;
    if (sendRequest) {
        st = device->UnconfigureDevice(timeoutMs, NULL);
        if (st != STATUS_SUCCESS) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfiguration::Unconfigure: UnconfigureDevice failed, st=%N\n", st);
        }
    }
    FreeInterfaceInfos();
    mIsConfigured = false;
    mConfigurationHandle = NULL;
    mConfigurationValue = 0;
    return st;
}

// Contract: PASSIVE_LEVEL; not configured.
void KnUsbConfiguration::Release()
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(!mIsConfigured);
    FreeInterfaceInfos();
    FreeSelectInterfaceUrb(&mSelectInterfaceUrb);
    if (mSelectConfigurationUrb != NULL) {
        ExFreePoolWithTag(mSelectConfigurationUrb, 0);
        mSelectConfigurationUrb = NULL;
    }
    if (mUsbdInterfaceList != NULL) {
        KnFreeMemory(mUsbdInterfaceList);
        mUsbdInterfaceList = NULL;
    }
    mUsbdInterfaceListLimit = NULL;
    mConfigDescriptor.Free();
}
