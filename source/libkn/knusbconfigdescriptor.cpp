// Configuration descriptor block and its walks.
#include "knusbconfigdescriptor.h"

#include "knmemory.h"
#include "knpooltags.h"
#include "kntrace.h"
#include "knusbpnplowerdevice.h"

// Contract: any IRQL.
KnUsbConfigDescriptor::KnUsbConfigDescriptor() : mConfigDesc(NULL), mConfigDescLength(0) {}

// Contract: IRQL <= DISPATCH_LEVEL.
KnUsbConfigDescriptor::~KnUsbConfigDescriptor()
{
    Free();
}

// Contract: IRQL <= DISPATCH_LEVEL; no walk running on this object.
void KnUsbConfigDescriptor::Free()
{
    IRQL_LTEQ_DISPATCH();
    if (mConfigDesc != NULL) {
        KnFreeMemory(mConfigDesc);
    }
    mConfigDesc = NULL;
    mConfigDescLength = 0;
}

// Contract: PASSIVE_LEVEL; no lock held (waits for the device); no walk
// running on this object.
NTSTATUS KnUsbConfigDescriptor::Load(KnPnPLowerDeviceUsb* device, UCHAR configIndex, POOL_TYPE poolType,
                                     ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    Free();

    UCHAR base[kBaseLength];
    RtlZeroMemory(base, sizeof(base));
    ULONG got = 0;
    NTSTATUS st = device->GetConfigurationDescriptor(configIndex, base, kBaseLength, &got, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(base) failed, st=%N\n", st);
        return st;
    }
    if (got != kBaseLength) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(base) size mismatch, EXP %u GOT %u\n",
                 kBaseLength, got);
        return STATUS_INVALID_BLOCK_LENGTH;
    }

    ULONG totalLength = ((PUSB_CONFIGURATION_DESCRIPTOR)base)->wTotalLength;
    if (totalLength < kBaseLength || totalLength > kMaxTotalLength) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::Load: invalid wTotalLength %u\n", totalLength);
        return STATUS_INVALID_PARAMETER;
    }

    PUCHAR block = static_cast<PUCHAR>(KnAllocateMemory(poolType, totalLength, KN_POOL_TAG_USB_CONFIG, true));
    if (block == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::Load: KnAllocateMemory(%u bytes) failed\n", totalLength);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    mConfigDesc = block;
    mConfigDescLength = totalLength;

    got = 0;
    st = device->GetConfigurationDescriptor(configIndex, mConfigDesc, totalLength, &got, timeoutMs);
    if (st != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(full) failed, st = %N\n",
                 st);
        Free();
        return st;
    }
    if (got != totalLength) {
        KN_TRACE(KN_TRACE_ERROR,
                 "%P:KnUsbConfigDescriptor::Load: GetConfigurationDescriptor(full) size mismatch, wTotalLength=%u, "
                 "GOT %u\n",
                 totalLength, got);
        if (KnGetTraceMask() & KN_TRACE_ERROR) {
            KnHexDump(mConfigDesc, totalLength);
        }
        // A short descriptor is used as far as it goes; more than asked for
        // cannot have been written.
        mConfigDescLength = (got < totalLength) ? got : totalLength;
    }
    return STATUS_SUCCESS;
}

// Contract: any IRQL; no Load or Free at the same time.
bool KnUsbConfigDescriptor::IsDescriptorValid(PVOID position) const
{
    if (mConfigDesc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::IsDescriptorValid: FATAL: no descriptor loaded\n");
        return false;
    }
    const UCHAR* desc_ptr = static_cast<const UCHAR*>(position);
    const ULONG_PTR begin = (ULONG_PTR)mConfigDesc;
    const ULONG_PTR end = begin + mConfigDescLength;
    const ULONG_PTR p = (ULONG_PTR)desc_ptr;
    if (p == end) {
        // The normal end of a walk.
        return false;
    }
    KN_ASSERT(desc_ptr>=((UCHAR*)mConfigDesc));
    if (p < begin || p > end || end - p < sizeof(USB_COMMON_DESCRIPTOR)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::IsDescriptorValid: no COMMON_DESC at currentDesc\n");
        return false;
    }
    const ULONG bLength = ((const USB_COMMON_DESCRIPTOR*)desc_ptr)->bLength;
    if (bLength < sizeof(USB_COMMON_DESCRIPTOR)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::IsDescriptorValid: currentDesc->bLength = %u, min. is %u\n",
                 bLength, (ULONG)sizeof(USB_COMMON_DESCRIPTOR));
        return false;
    }
    if (bLength > end - p) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::IsDescriptorValid: incomplete desc\n");
        return false;
    }
    return true;
}

// Contract: any IRQL; no Load or Free at the same time; desc was returned by
// a walk of this block.
PUSB_COMMON_DESCRIPTOR KnUsbConfigDescriptor::NextDescriptor(PVOID desc) const
{
    if (mConfigDesc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::NextDescriptor: FATAL: no descriptor loaded\n");
        return NULL;
    }
    PUCHAR desc_ptr = static_cast<PUCHAR>(desc);
    KN_ASSERT(desc_ptr>=((UCHAR*)mConfigDesc));
    if (desc_ptr == NULL || (ULONG_PTR)desc_ptr < (ULONG_PTR)mConfigDesc ||
        (ULONG_PTR)desc_ptr >= (ULONG_PTR)mConfigDesc + mConfigDescLength) {
        // Not inside the block: there is nothing behind it to look at.
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::NextDescriptor: desc 0x%p not inside the block\n", desc);
        return NULL;
    }
    // desc_ptr lies inside the block, so its bLength byte can be read; the
    // position behind it is checked before anything there is read.
    PVOID next = (PVOID)((ULONG_PTR)desc_ptr + ((PUSB_COMMON_DESCRIPTOR)desc_ptr)->bLength);
    if (IsDescriptorValid(next)) {
        return (PUSB_COMMON_DESCRIPTOR)next;
    }
    return NULL;
}

// Contract: any IRQL; no Load or Free at the same time.
PUSB_COMMON_DESCRIPTOR KnUsbConfigDescriptor::FindDescriptor(PVOID start, UCHAR descriptorType) const
{
    if (mConfigDesc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::FindDescriptor: FATAL: no descriptor loaded\n");
        return NULL;
    }
    PVOID startDesc = (start != NULL) ? start : (PVOID)mConfigDesc;
    KN_ASSERT(((UCHAR*)startDesc)>=(UCHAR*)mConfigDesc);
    if (!IsDescriptorValid(startDesc)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::FindDescriptor: startDesc not valid\n");
        return NULL;
    }
    PUSB_COMMON_DESCRIPTOR d = (PUSB_COMMON_DESCRIPTOR)startDesc;
    while (d != NULL) {
        if (d->bDescriptorType == descriptorType) {
            return d;
        }
        d = NextDescriptor(d);
    }
    return NULL;
}

// Contract: any IRQL; no Load or Free at the same time.
PUSB_INTERFACE_DESCRIPTOR KnUsbConfigDescriptor::FindInterfaceDescriptor(PVOID start, LONG interfaceNumber,
                                                                         LONG alternateSetting, LONG interfaceClass,
                                                                         LONG interfaceSubClass,
                                                                         LONG interfaceProtocol) const
{
    if (mConfigDesc == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::FindInterfaceDescriptor: FATAL: no descriptor loaded\n");
        return NULL;
    }
    PVOID startDesc = (start != NULL) ? start : (PVOID)mConfigDesc;
    KN_ASSERT(((UCHAR*)startDesc)>=(UCHAR*)mConfigDesc);
    if (!IsDescriptorValid(startDesc)) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbConfigDescriptor::FindInterfaceDescriptor: startDesc not valid\n");
        return NULL;
    }
    PUSB_COMMON_DESCRIPTOR d = (PUSB_COMMON_DESCRIPTOR)startDesc;
    while (d != NULL) {
        // An interface descriptor is only looked into when all of it is there.
        if (d->bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE && d->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            PUSB_INTERFACE_DESCRIPTOR ifd = (PUSB_INTERFACE_DESCRIPTOR)d;
            if ((interfaceNumber < 0 || interfaceNumber == ifd->bInterfaceNumber) &&
                (alternateSetting < 0 || alternateSetting == ifd->bAlternateSetting) &&
                (interfaceClass < 0 || interfaceClass == ifd->bInterfaceClass) &&
                (interfaceSubClass < 0 || interfaceSubClass == ifd->bInterfaceSubClass) &&
                (interfaceProtocol < 0 || interfaceProtocol == ifd->bInterfaceProtocol)) {
                return ifd;
            }
        }
        d = NextDescriptor(d);
    }
    return NULL;
}
