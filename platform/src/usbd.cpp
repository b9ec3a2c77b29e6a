// The USB bus driver library routines of usbdlib.h.
#include <usbdlib.h>

namespace {

// True when [p, p + n) lies within [base, base + total).
bool Within(const UCHAR* base, ULONG total, const UCHAR* p, ULONG n) {
    return p >= base && (ULONG_PTR)(p - base) <= total && n <= total - (ULONG)(p - base);
}

}  // namespace

PUSB_COMMON_DESCRIPTOR USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength, PVOID StartPosition,
                                             LONG DescriptorType) {
    if (!DescriptorBuffer || !StartPosition) return NULL;
    const UCHAR* base = (const UCHAR*)DescriptorBuffer;
    const UCHAR* p = (const UCHAR*)StartPosition;
    while (Within(base, TotalLength, p, sizeof(USB_COMMON_DESCRIPTOR))) {
        const USB_COMMON_DESCRIPTOR* d = (const USB_COMMON_DESCRIPTOR*)p;
        if (d->bLength < sizeof(USB_COMMON_DESCRIPTOR) || !Within(base, TotalLength, p, d->bLength)) return NULL;
        if (d->bDescriptorType == DescriptorType) return (PUSB_COMMON_DESCRIPTOR)p;
        p += d->bLength;
    }
    return NULL;
}

PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                              PVOID StartPosition, LONG InterfaceNumber,
                                                              LONG AlternateSetting, LONG InterfaceClass,
                                                              LONG InterfaceSubClass, LONG InterfaceProtocol) {
    if (!ConfigurationDescriptor) return NULL;
    ULONG total = ConfigurationDescriptor->wTotalLength;
    UCHAR* base = (UCHAR*)ConfigurationDescriptor;
    UCHAR* p = StartPosition ? (UCHAR*)StartPosition : base;
    for (;;) {
        auto* d = (PUSB_INTERFACE_DESCRIPTOR)USBD_ParseDescriptors(base, total, p, USB_INTERFACE_DESCRIPTOR_TYPE);
        if (!d) return NULL;
        if (d->bLength >= sizeof(USB_INTERFACE_DESCRIPTOR) &&
            (InterfaceNumber == -1 || d->bInterfaceNumber == InterfaceNumber) &&
            (AlternateSetting == -1 || d->bAlternateSetting == AlternateSetting) &&
            (InterfaceClass == -1 || d->bInterfaceClass == InterfaceClass) &&
            (InterfaceSubClass == -1 || d->bInterfaceSubClass == InterfaceSubClass) &&
            (InterfaceProtocol == -1 || d->bInterfaceProtocol == InterfaceProtocol))
            return d;
        p = (UCHAR*)d + d->bLength;
    }
}

PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList) {
    if (!ConfigurationDescriptor || !InterfaceList) return NULL;
    ULONG interfaces = 0, size = FIELD_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface);
    for (PUSBD_INTERFACE_LIST_ENTRY e = InterfaceList; e->InterfaceDescriptor; e++) {
        interfaces++;
        size += GET_USBD_INTERFACE_SIZE(e->InterfaceDescriptor->bNumEndpoints);
    }
    if (interfaces == 0 || size > 0xFFFF) return NULL;
    // Never smaller than the record itself, so that every named field exists.
    ULONG allocation = size;
    if (allocation < sizeof(struct _URB_SELECT_CONFIGURATION)) allocation = sizeof(struct _URB_SELECT_CONFIGURATION);
    PURB urb = (PURB)ExAllocatePoolWithTag(NonPagedPool, allocation, USBD_POOL_TAG);
    if (!urb) return NULL;
    RtlZeroMemory(urb, allocation);
    urb->UrbHeader.Length = (USHORT)size;
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    urb->UrbSelectConfiguration.ConfigurationDescriptor = ConfigurationDescriptor;
    UCHAR* next = (UCHAR*)&urb->UrbSelectConfiguration.Interface;
    for (PUSBD_INTERFACE_LIST_ENTRY e = InterfaceList; e->InterfaceDescriptor; e++) {
        auto* info = (PUSBD_INTERFACE_INFORMATION)next;
        const USB_INTERFACE_DESCRIPTOR* d = e->InterfaceDescriptor;
        info->Length = (USHORT)GET_USBD_INTERFACE_SIZE(d->bNumEndpoints);
        info->InterfaceNumber = d->bInterfaceNumber;
        info->AlternateSetting = d->bAlternateSetting;
        info->NumberOfPipes = d->bNumEndpoints;
        PUSBD_PIPE_INFORMATION pipes = info->Pipes;  // NumberOfPipes records follow
        for (ULONG i = 0; i < d->bNumEndpoints; i++) pipes[i].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;
        e->Interface = info;
        next += info->Length;
    }
    return urb;
}

void USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation) {
    if (!VersionInformation) return;
    VersionInformation->USBDI_Version = 0x00000500;         // the interface of this platform release
    VersionInformation->Supported_USB_Version = 0x00000200;  // USB 2.0
}
