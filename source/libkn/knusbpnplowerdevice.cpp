// The USB form of the lower device: URBs to the USB bus driver.
#include "knusbpnplowerdevice.h"

#include "knio.h"
#include "knmemory.h"
#include "knnames.h"
#include "knpooltags.h"
#include "kntrace.h"

namespace {

// Size of the buffers that string descriptors are read into: the largest
// descriptor a one-byte bLength can describe, rounded up.
constexpr ULONG kStringDescriptorBufferSize = 256;

// Header of a string descriptor: bLength and bDescriptorType.
constexpr ULONG kStringDescriptorHeaderSize = 2;

// True when the bus driver wrote a failure into the URB (a preset status
// that was never overwritten is no failure of the device).
bool UrbStatusIsFailure(USBD_STATUS urbStatus)
{
    return urbStatus != KN_URB_STATUS_NOT_SET && !USBD_SUCCESS(urbStatus);
}

}  // namespace

// Contract: any IRQL.
KnPnPLowerDeviceUsb::KnPnPLowerDeviceUsb() {}

// Contract: PASSIVE_LEVEL.
KnPnPLowerDeviceUsb::~KnPnPLowerDeviceUsb() {}

// Contract: any IRQL; the caller owns the IRP and has not passed it down.
void KnPnPLowerDeviceUsb::PrepareUrbStackLocation(PIRP irp, PURB urb)
{
    PIO_STACK_LOCATION next = KnGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    next->Parameters.Others.Argument1 = urb;
}

// Contract: PASSIVE_LEVEL; no lock held (blocks until the request is done).
NTSTATUS KnPnPLowerDeviceUsb::SubmitUrbAndWait(PURB urb, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(NULL!=urb);
    if (urb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::SubmitUrbAndWait: no URB\n");
        return STATUS_INVALID_PARAMETER;
    }
    urb->UrbHeader.Status = KN_URB_STATUS_NOT_SET;

    const UCHAR stackSize = GetStackSize();
    if (stackSize == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::SubmitUrbAndWait: no device object\n");
        return STATUS_NO_SUCH_DEVICE;
    }
    PIRP irp = IoAllocateIrp((CCHAR)stackSize, FALSE);
    if (irp == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::SubmitUrbAndWait: IoAllocateIrp failed.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    PrepareUrbStackLocation(irp, urb);
    NTSTATUS st = CallDriverAndWait(irp, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnPnPLowerDeviceUsb::SubmitUrbAndWait: CallDriverAndWait failed, st=%N, UrbStatus=0x%D (%s)\n",
                 st, urb->UrbHeader.Status, KnUsbdStatusName((ULONG)urb->UrbHeader.Status));
    }

    IoFreeIrp(irp);
    return st;
}

// Contract: IRQL <= DISPATCH_LEVEL; no spin lock of the caller held (the
// bus driver may complete the request inline).
NTSTATUS KnPnPLowerDeviceUsb::SubmitUrb(PURB urb, PIRP irp, PIO_COMPLETION_ROUTINE completionRoutine,
                                        PVOID completionContext)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(NULL!=urb);
    KN_ASSERT(NULL!=irp);
    KN_ASSERT(NULL!=completionRoutine);
    if (urb == NULL || irp == NULL || completionRoutine == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::SubmitUrb: invalid request, URB 0x%p IRP 0x%p\n", urb, irp);
        return STATUS_INVALID_PARAMETER;
    }
    urb->UrbHeader.Status = KN_URB_STATUS_NOT_SET;

    PrepareUrbStackLocation(irp, urb);
    IoSetCompletionRoutine(irp, completionRoutine, completionContext, TRUE, TRUE, TRUE);
    return CallDriver(irp);
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::ControlVendorOrClassRequest(USHORT urbFunction, UCHAR request, USHORT value,
                                                          USHORT index, ULONG transferFlags, PVOID buffer, PMDL mdl,
                                                          ULONG length, ULONG* bytesTransferred, ULONG timeoutMs,
                                                          USBD_STATUS* urbStatus)
{
    IRQL_EQ_PASSIVE();
    if (bytesTransferred != NULL) {
        *bytesTransferred = 0;
    }
    if (timeoutMs == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::ControlVendorOrClassRequest: timeout=0 not allowed\n");
        return STATUS_INVALID_PARAMETER;
    }

    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST* req = &urb.UrbControlVendorClassRequest;
    req->Hdr.Function = urbFunction;
    req->Hdr.Length = (USHORT)sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST);
    req->Hdr.Status = KN_URB_STATUS_NOT_SET;
    req->Request = request;
    req->Value = value;
    req->Index = index;
    req->TransferFlags = transferFlags;
    req->TransferBufferLength = length;
    req->TransferBuffer = buffer;
    req->TransferBufferMDL = mdl;

    NTSTATUS st = SubmitUrbAndWait(&urb, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnPnPLowerDeviceUsb::ControlVendorOrClassRequest: SubmitUrbAndWait failed, st=%N, "
                 "UrbStatus=0x%D (%s)\n",
                 st, req->Hdr.Status, KnUsbdStatusName((ULONG)req->Hdr.Status));
    } else if (bytesTransferred != NULL) {
        *bytesTransferred = req->TransferBufferLength;
    }

    if (UrbStatusIsFailure(req->Hdr.Status)) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnPnPLowerDeviceUsb::ControlVendorOrClassRequest: Request failed, IRP Status=%N UrbStatus=0x%D "
                 "(%s)\n",
                 st, req->Hdr.Status, KnUsbdStatusName((ULONG)req->Hdr.Status));
    }
    if (urbStatus != NULL) {
        *urbStatus = req->Hdr.Status;
    }
    return st;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::GetDescriptor(UCHAR descriptorType, UCHAR index, USHORT languageId, PVOID buffer,
                                            ULONG length, ULONG* bytesReturned, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    if (bytesReturned != NULL) {
        *bytesReturned = 0;
    }

    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    struct _URB_CONTROL_DESCRIPTOR_REQUEST* req = &urb.UrbControlDescriptorRequest;
    req->Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    req->Hdr.Length = (USHORT)sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
    req->TransferBufferLength = length;
    req->TransferBuffer = buffer;
    req->TransferBufferMDL = NULL;
    req->UrbLink = NULL;
    req->DescriptorType = descriptorType;
    req->Index = index;
    req->LanguageId = languageId;

    NTSTATUS st = SubmitUrbAndWait(&urb, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetDescriptor: SubmitUrbAndWait failed, st=%N, UrbStatus=0x%D\n",
                 st, req->Hdr.Status);
    } else if (bytesReturned != NULL) {
        *bytesReturned = req->TransferBufferLength;
    }
    return st;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::GetConfigurationDescriptor(UCHAR index, PVOID buffer, ULONG length,
                                                         ULONG* bytesReturned, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    NTSTATUS st =
        GetDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, index, 0, buffer, length, bytesReturned, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetConfigurationDescriptor: GetDescriptor failed, st=%N\n",
                 st);
    }
    return st;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::GetStringDescriptor(UCHAR index, USHORT languageId, PVOID buffer, ULONG length,
                                                  ULONG* bytesReturned, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    NTSTATUS st =
        GetDescriptor(USB_STRING_DESCRIPTOR_TYPE, index, languageId, buffer, length, bytesReturned, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetStringDescriptor: GetDescriptor failed, st=%N\n", st);
    }
    return st;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::GetLanguageIdList(USHORT* idBuffer, ULONG maxIds, ULONG* idsReturned, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(NULL!=idBuffer);
    KN_ASSERT(0!=maxIds);
    KN_ASSERT(NULL!=idsReturned);
    if (idBuffer == NULL || maxIds == 0 || idsReturned == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetLanguageIdList: invalid parameter\n");
        return STATUS_INVALID_PARAMETER;
    }
    *idsReturned = 0;

    UCHAR desc[kStringDescriptorBufferSize];
    RtlZeroMemory(desc, sizeof(desc));
    ULONG n = 0;
    NTSTATUS st = GetStringDescriptor(0, 0, desc, sizeof(desc), &n, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetLanguageIdList: GetStringDescriptor failed, st=%N\n", st);
        return st;
    }

    if (n >= 4) {
        // The count comes from the transfer length, not from bLength.
        ULONG count = (n - kStringDescriptorHeaderSize) / 2;
        if (count > maxIds) {
            KN_TRACE(KN_TRACE_WARNING, "%P:KnPnPLowerDeviceUsb::GetLanguageIdList: buffer too small, numIDs=%u\n",
                     count);
            count = maxIds;
        }
        for (ULONG i = 0; i < count; i++) {
            const UCHAR* id = &desc[kStringDescriptorHeaderSize + 2 * i];
            idBuffer[i] = (USHORT)(id[0] | (USHORT)id[1] << 8);
        }
        *idsReturned = count;
    }
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::GetStringDescriptorString(UCHAR index, USHORT languageId, PWCHAR stringBuffer,
                                                        ULONG maxChars, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(NULL!=stringBuffer);
    if (stringBuffer == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetStringDescriptorString: no string buffer\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (maxChars < 2) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetStringDescriptorString: maxChars=%u not supported\n",
                 maxChars);
        return STATUS_INVALID_PARAMETER;
    }
    stringBuffer[0] = 0;

    KnBufferBlock descBlock;
    PUCHAR desc = static_cast<PUCHAR>(
        descBlock.Allocate(NonPagedPool, kStringDescriptorBufferSize, KN_POOL_TAG_DEFAULT, true));
    if (desc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetStringDescriptorString: failed to allocate desc buffer\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    ULONG n = 0;
    NTSTATUS st = GetStringDescriptor(index, languageId, desc, kStringDescriptorBufferSize, &n, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::GetStringDescriptorString: GetStringDescriptor failed, st=%N\n",
                 st);
        descBlock.Free();
        return st;
    }

    if (n >= 4) {
        ULONG chars = (n - kStringDescriptorHeaderSize) / 2;
        if (chars > maxChars - 1) {
            KN_TRACE(KN_TRACE_WARNING,
                     "%P:KnPnPLowerDeviceUsb::GetStringDescriptorString: buffer too small, string truncated, "
                     "numchars=%u\n",
                     chars);
            chars = maxChars - 1;
        }
        for (ULONG i = 0; i < chars; i++) {
            const UCHAR* c = &desc[kStringDescriptorHeaderSize + 2 * i];
            stringBuffer[i] = (WCHAR)(c[0] | (WCHAR)c[1] << 8);
        }
        stringBuffer[chars] = 0;
    }

    descBlock.Free();
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnPnPLowerDeviceUsb::UnconfigureDevice(ULONG timeoutMs, USBD_STATUS* urbStatus)
{
    IRQL_EQ_PASSIVE();
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    urb.UrbSelectConfiguration.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    urb.UrbSelectConfiguration.Hdr.Length = (USHORT)sizeof(struct _URB_SELECT_CONFIGURATION);
    // No configuration descriptor: back to the unconfigured state.
    urb.UrbSelectConfiguration.ConfigurationDescriptor = NULL;

    NTSTATUS st = SubmitUrbAndWait(&urb, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPnPLowerDeviceUsb::UnconfigureDevice: SubmitUrbAndWait failed, st=%N\n", st);
    }
    if (urbStatus != NULL) {
        *urbStatus = urb.UrbHeader.Status;
    }
    return st;
}
