// The USB form of the lower device: builds the URBs of class and vendor
// requests, descriptor reads and unconfiguration, and submits URBs to the
// USB bus driver, synchronously with a time-out or with a completion
// routine.
//
// A synchronous request lives within one call: URB and event on the calling
// thread's stack, IRP allocated and freed in the call. All time-outs are in
// milliseconds.
#pragma once

#include <ntddk.h>
#include <usbdi.h>

#include "knpnplowerdevice.h"

// URB status preset before every submission, so that a status the bus
// driver never wrote can be told apart.
#define KN_URB_STATUS_NOT_SET ((USBD_STATUS)0xFFFFFFFF)

class KnPnPLowerDeviceUsb : public KnPnPLowerDevice {
public:
    // Contract: any IRQL.
    KnPnPLowerDeviceUsb();
    // Contract: PASSIVE_LEVEL. Both device objects set back to NULL.
    ~KnPnPLowerDeviceUsb() override;

    // Contract: PASSIVE_LEVEL; no lock held. Sends the URB in an IRP of its
    // own and waits for it (see KnTargetDevice::CallDriverAndWait).
    NTSTATUS SubmitUrbAndWait(PURB urb, ULONG timeoutMs);

    // Contract: IRQL <= DISPATCH_LEVEL; the caller owns the IRP, which has
    // the stack size of the device. Sends the URB; completionRoutine is
    // called with context for every outcome (success, error, cancel).
    NTSTATUS SubmitUrb(PURB urb, PIRP irp, PIO_COMPLETION_ROUTINE completionRoutine, PVOID completionContext);

    // Contract: PASSIVE_LEVEL. A class or vendor request (urbFunction, e.g.
    // URB_FUNCTION_CLASS_INTERFACE) with a data stage of `length` bytes in
    // buffer or mdl. bytesTransferred (optional) gets the bytes moved of a
    // successful request, urbStatus (optional) the URB status. timeoutMs 0
    // is refused with STATUS_INVALID_PARAMETER.
    NTSTATUS ControlVendorOrClassRequest(USHORT urbFunction, UCHAR request, USHORT value, USHORT index,
                                         ULONG transferFlags, PVOID buffer, PMDL mdl, ULONG length,
                                         ULONG* bytesTransferred, ULONG timeoutMs, USBD_STATUS* urbStatus);

    // Contract: PASSIVE_LEVEL. Reads a descriptor of the device into buffer;
    // bytesReturned (optional) gets the length of a successful read.
    NTSTATUS GetDescriptor(UCHAR descriptorType, UCHAR index, USHORT languageId, PVOID buffer, ULONG length,
                           ULONG* bytesReturned, ULONG timeoutMs);
    // Contract: PASSIVE_LEVEL. GetDescriptor of a configuration descriptor.
    NTSTATUS GetConfigurationDescriptor(UCHAR index, PVOID buffer, ULONG length, ULONG* bytesReturned,
                                        ULONG timeoutMs);
    // Contract: PASSIVE_LEVEL. GetDescriptor of a string descriptor.
    NTSTATUS GetStringDescriptor(UCHAR index, USHORT languageId, PVOID buffer, ULONG length, ULONG* bytesReturned,
                                 ULONG timeoutMs);

    // Contract: PASSIVE_LEVEL. The device's language IDs (string descriptor
    // 0), at most maxIds of them; a longer list is truncated with a trace.
    NTSTATUS GetLanguageIdList(USHORT* idBuffer, ULONG maxIds, ULONG* idsReturned, ULONG timeoutMs);

    // Contract: PASSIVE_LEVEL. The text of string descriptor index as a
    // terminated UTF-16 string of at most maxChars - 1 characters (maxChars
    // at least 2); a longer text is truncated with a trace.
    NTSTATUS GetStringDescriptorString(UCHAR index, USHORT languageId, PWCHAR stringBuffer, ULONG maxChars,
                                       ULONG timeoutMs);

    // Contract: PASSIVE_LEVEL. Returns the device to the unconfigured state;
    // urbStatus (optional) gets the URB status.
    NTSTATUS UnconfigureDevice(ULONG timeoutMs, USBD_STATUS* urbStatus);

private:
    // Contract: any IRQL; the caller owns the IRP. Points the IRP's next
    // stack location at the bus driver's URB control code.
    static void PrepareUrbStackLocation(PIRP irp, PURB urb);
};
