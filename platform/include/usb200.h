// USB 2.0 additions to the standard descriptors.
#pragma once

#include <usb100.h>

#pragma pack(push, 1)

typedef struct _USB_DEVICE_QUALIFIER_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    USHORT bcdUSB;
    UCHAR bDeviceClass;
    UCHAR bDeviceSubClass;
    UCHAR bDeviceProtocol;
    UCHAR bMaxPacketSize0;
    UCHAR bNumConfigurations;
    UCHAR bReserved;
} USB_DEVICE_QUALIFIER_DESCRIPTOR, *PUSB_DEVICE_QUALIFIER_DESCRIPTOR;

#pragma pack(pop)

static_assert(sizeof(USB_DEVICE_QUALIFIER_DESCRIPTOR) == 10, "USB_DEVICE_QUALIFIER_DESCRIPTOR layout");

typedef enum _USB_DEVICE_SPEED { UsbLowSpeed = 0, UsbFullSpeed, UsbHighSpeed, UsbSuperSpeed } USB_DEVICE_SPEED;
