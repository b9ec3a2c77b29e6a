// One configuration descriptor of a USB device with every descriptor that
// follows it (interfaces, endpoints, class-specific ones), read into a block
// of its own, and safe walks over it: every descriptor a walk returns lies
// wholly inside the block.
#pragma once

#include <ntddk.h>
#include <usbdi.h>

class KnPnPLowerDeviceUsb;

class KnUsbConfigDescriptor {
public:
    // Contract: any IRQL. Empty.
    KnUsbConfigDescriptor();
    // Contract: IRQL <= DISPATCH_LEVEL (frees the block).
    ~KnUsbConfigDescriptor();
    KnUsbConfigDescriptor(const KnUsbConfigDescriptor&) = delete;
    KnUsbConfigDescriptor& operator=(const KnUsbConfigDescriptor&) = delete;

    // Contract: PASSIVE_LEVEL; nobody walks the object meanwhile. Reads
    // configuration descriptor configIndex in two steps (the 9-byte header,
    // then wTotalLength bytes) into a new block of poolType. A full read
    // that returns fewer bytes is accepted with the shorter length. Every
    // failure leaves the object empty.
    NTSTATUS Load(KnPnPLowerDeviceUsb* device, UCHAR configIndex, POOL_TYPE poolType, ULONG timeoutMs);
    // Contract: IRQL <= DISPATCH_LEVEL; nobody walks the object meanwhile.
    void Free();

    // Contract for the operations below: any IRQL; no Load or Free at the
    // same time. Pointers returned point into the block and are valid until
    // the next Load or Free.

    bool IsValid() const { return mConfigDesc != NULL; }
    // Start of the block (the configuration descriptor), NULL when empty.
    PUSB_CONFIGURATION_DESCRIPTOR GetConfigDesc() const { return (PUSB_CONFIGURATION_DESCRIPTOR)mConfigDesc; }
    // Number of valid bytes in the block.
    ULONG GetConfigDescLength() const { return mConfigDescLength; }

    // The first interface descriptor at or behind start (NULL: the start of
    // the block) that matches every criterion; a negative criterion matches
    // anything. NULL when none.
    PUSB_INTERFACE_DESCRIPTOR FindInterfaceDescriptor(PVOID start, LONG interfaceNumber, LONG alternateSetting,
                                                      LONG interfaceClass, LONG interfaceSubClass,
                                                      LONG interfaceProtocol) const;
    // The first descriptor of descriptorType at or behind start (NULL: the
    // start of the block). NULL when none.
    PUSB_COMMON_DESCRIPTOR FindDescriptor(PVOID start, UCHAR descriptorType) const;
    // The descriptor behind desc, NULL at the end of the block or when the
    // next one is malformed.
    PUSB_COMMON_DESCRIPTOR NextDescriptor(PVOID desc) const;
    // True when a whole descriptor of at least 2 bytes starts at position.
    bool IsDescriptorValid(PVOID position) const;

private:
    // Size of the configuration descriptor itself, read first.
    static constexpr ULONG kBaseLength = sizeof(USB_CONFIGURATION_DESCRIPTOR);
    // Largest wTotalLength accepted.
    static constexpr ULONG kMaxTotalLength = 4096;

    // ---- descriptor block ----
    PUCHAR mConfigDesc;       // owned block, NULL when empty
    ULONG mConfigDescLength;  // valid bytes in the block
};
