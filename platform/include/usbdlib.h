// Helper routines of the USB bus driver library: building URBs and parsing
// configuration descriptors.
#pragma once

#include <usb.h>

typedef struct _USBD_INTERFACE_LIST_ENTRY {
    PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;  // NULL ends the list
    PUSBD_INTERFACE_INFORMATION Interface;          // set by USBD_CreateConfigurationRequestEx
} USBD_INTERFACE_LIST_ENTRY, *PUSBD_INTERFACE_LIST_ENTRY;

static_assert(sizeof(USBD_INTERFACE_LIST_ENTRY) == 16, "USBD_INTERFACE_LIST_ENTRY layout");

// Sizes of the variable-length records.
#define GET_USBD_INTERFACE_SIZE(numEndpoints) \
    ((ULONG)(sizeof(USBD_INTERFACE_INFORMATION) + sizeof(USBD_PIPE_INFORMATION) * (numEndpoints) - \
             sizeof(USBD_PIPE_INFORMATION)))
#define GET_SELECT_CONFIGURATION_REQUEST_SIZE(totalInterfaces, totalPipes)                    \
    ((ULONG)(sizeof(struct _URB_SELECT_CONFIGURATION) +                                       \
             ((totalInterfaces) - 1) * sizeof(USBD_INTERFACE_INFORMATION) +                   \
             ((totalPipes) - (totalInterfaces)) * sizeof(USBD_PIPE_INFORMATION)))
#define GET_SELECT_INTERFACE_REQUEST_SIZE(totalPipes) \
    ((ULONG)(sizeof(struct _URB_SELECT_INTERFACE) + ((totalPipes) - 1) * sizeof(USBD_PIPE_INFORMATION)))

// URB builders. The URB is expected to be zero-filled before.
#define UsbBuildInterruptOrBulkTransferRequest(urb, length, pipeHandle, transferBuffer, transferBufferMDL,   \
                                               transferBufferLength, transferFlags, link)                    \
    do {                                                                                                       \
        (urb)->UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;                                   \
        (urb)->UrbHeader.Length = (length);                                                                    \
        (urb)->UrbBulkOrInterruptTransfer.PipeHandle = (pipeHandle);                                           \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferLength = (transferBufferLength);                       \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferMDL = (transferBufferMDL);                             \
        (urb)->UrbBulkOrInterruptTransfer.TransferBuffer = (transferBuffer);                                   \
        (urb)->UrbBulkOrInterruptTransfer.TransferFlags = (transferFlags);                                     \
        (urb)->UrbBulkOrInterruptTransfer.UrbLink = (link);                                                    \
    } while (0)

#define UsbBuildGetDescriptorRequest(urb, length, descriptorType, descriptorIndex, languageId, transferBuffer, \
                                     transferBufferMDL, transferBufferLength, link)                            \
    do {                                                                                                        \
        (urb)->UrbHeader.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;                                    \
        (urb)->UrbHeader.Length = (length);                                                                     \
        (urb)->UrbControlDescriptorRequest.TransferBufferLength = (transferBufferLength);                       \
        (urb)->UrbControlDescriptorRequest.TransferBufferMDL = (transferBufferMDL);                             \
        (urb)->UrbControlDescriptorRequest.TransferBuffer = (transferBuffer);                                   \
        (urb)->UrbControlDescriptorRequest.DescriptorType = (descriptorType);                                   \
        (urb)->UrbControlDescriptorRequest.Index = (descriptorIndex);                                           \
        (urb)->UrbControlDescriptorRequest.LanguageId = (languageId);                                           \
        (urb)->UrbControlDescriptorRequest.UrbLink = (link);                                                    \
    } while (0)

#define UsbBuildFeatureRequest(urb, op, featureSelector, index, link)                   \
    do {                                                                               \
        (urb)->UrbHeader.Function = (op);                                              \
        (urb)->UrbHeader.Length = sizeof(struct _URB_CONTROL_FEATURE_REQUEST);         \
        (urb)->UrbControlFeatureRequest.FeatureSelector = (featureSelector);           \
        (urb)->UrbControlFeatureRequest.Index = (index);                               \
        (urb)->UrbControlFeatureRequest.UrbLink = (link);                              \
    } while (0)

#define UsbBuildSelectConfigurationRequest(urb, length, configurationDescriptor)         \
    do {                                                                               \
        (urb)->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;                 \
        (urb)->UrbHeader.Length = (length);                                            \
        (urb)->UrbSelectConfiguration.ConfigurationDescriptor = (configurationDescriptor); \
    } while (0)

#define UsbBuildSelectInterfaceRequest(urb, length, configurationHandle, interfaceNumber, alternateSetting)      \
    do {                                                                                                          \
        (urb)->UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;                                                \
        (urb)->UrbHeader.Length = (length);                                                                       \
        (urb)->UrbSelectInterface.Interface.AlternateSetting = (alternateSetting);                                \
        (urb)->UrbSelectInterface.Interface.InterfaceNumber = (interfaceNumber);                                  \
        (urb)->UrbSelectInterface.Interface.Length =                                                              \
            (USHORT)((length) - sizeof(struct _URB_HEADER) - sizeof(USBD_CONFIGURATION_HANDLE));                 \
        (urb)->UrbSelectInterface.ConfigurationHandle = (configurationHandle);                                    \
    } while (0)

#define UsbBuildVendorRequest(urb, cmd, length, transferFlags, reservedbits, request, value, index, transferBuffer, \
                              transferBufferMDL, transferBufferLength, link)                                      \
    do {                                                                                                           \
        (urb)->UrbHeader.Function = (cmd);                                                                         \
        (urb)->UrbHeader.Length = (length);                                                                        \
        (urb)->UrbControlVendorClassRequest.TransferBufferLength = (transferBufferLength);                         \
        (urb)->UrbControlVendorClassRequest.TransferBufferMDL = (transferBufferMDL);                               \
        (urb)->UrbControlVendorClassRequest.TransferBuffer = (transferBuffer);                                     \
        (urb)->UrbControlVendorClassRequest.RequestTypeReservedBits = (reservedbits);                              \
        (urb)->UrbControlVendorClassRequest.Request = (request);                                                   \
        (urb)->UrbControlVendorClassRequest.Value = (value);                                                       \
        (urb)->UrbControlVendorClassRequest.Index = (index);                                                       \
        (urb)->UrbControlVendorClassRequest.TransferFlags = (transferFlags);                                       \
        (urb)->UrbControlVendorClassRequest.UrbLink = (link);                                                      \
    } while (0)

// Pool tag of the URBs that USBD_CreateConfigurationRequestEx allocates.
#define USBD_POOL_TAG ((ULONG)0x44425355)  // "USBD" in a pool dump

// Builds a select-configuration URB from non-paged pool for the interfaces of
// the list (ended by an entry whose InterfaceDescriptor is NULL): the URB is
// zero-filled, then Hdr.Length, Hdr.Function and ConfigurationDescriptor are
// set, and per list entry one interface information record follows with
// Length, InterfaceNumber, AlternateSetting and NumberOfPipes from the
// descriptor, and per pipe MaximumTransferSize =
// USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE. Each entry's Interface points to its
// record inside the URB. The caller frees the URB with ExFreePool (or
// ExFreePoolWithTag with tag 0). NULL when the allocation fails or the list
// is empty.
PURB USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                       PUSBD_INTERFACE_LIST_ENTRY InterfaceList);

// The first descriptor of DescriptorType at or after StartPosition within
// the TotalLength bytes at DescriptorBuffer; NULL if none. Stops at a
// descriptor whose bLength is 0 or runs past the end.
PUSB_COMMON_DESCRIPTOR USBD_ParseDescriptors(PVOID DescriptorBuffer, ULONG TotalLength, PVOID StartPosition,
                                             LONG DescriptorType);

// The first interface descriptor at or after StartPosition that matches the
// criteria; -1 matches anything.
PUSB_INTERFACE_DESCRIPTOR USBD_ParseConfigurationDescriptorEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                                              PVOID StartPosition, LONG InterfaceNumber,
                                                              LONG AlternateSetting, LONG InterfaceClass,
                                                              LONG InterfaceSubClass, LONG InterfaceProtocol);

void USBD_GetUSBDIVersion(PUSBD_VERSION_INFORMATION VersionInformation);
