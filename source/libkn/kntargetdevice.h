// A device object to which IRPs are passed down, synchronously with a
// time-out or asynchronously.
#pragma once

#include <ntddk.h>

#include "kndeviceobjectbase.h"

class KnTargetDevice : public KnDeviceObjectBase {
public:
    // Contract: any IRQL.
    KnTargetDevice();
    // Contract: any IRQL. The device object must have been set back to NULL.
    ~KnTargetDevice() override;

    // Contract: IRQL <= DISPATCH_LEVEL; a device object is set. Passes the
    // IRP down; the result is the lower driver's. Without a device object
    // the IRP fails with STATUS_NO_SUCH_DEVICE (see FailRequest).
    NTSTATUS CallDriver(PIRP irp);

    // Contract: IRQL <= DISPATCH_LEVEL; the caller owns the IRP, has filled
    // its next stack location (with the completion routine) and has not
    // passed it down. Completes it with `status` as a lower driver that
    // failed it would, so that the completion routine runs as for any other
    // outcome. Returns status.
    static NTSTATUS FailRequest(PIRP irp, NTSTATUS status);

    // Contract: PASSIVE_LEVEL; a device object is set; the caller owns the
    // IRP and frees it afterwards. Passes the IRP down and waits until it
    // is complete, at most timeoutMs milliseconds (0: without limit). On
    // time-out the IRP is cancelled, its completion awaited without limit,
    // and STATUS_IO_TIMEOUT returned; otherwise the IRP's final status.
    NTSTATUS CallDriverAndWait(PIRP irp, ULONG timeoutMs);

private:
    // Completion routine of CallDriverAndWait: signals the event given as
    // context and keeps the IRP with the caller.
    static NTSTATUS CallDriverAndWaitCompletion(PDEVICE_OBJECT deviceObject, PIRP irp, PVOID context);
};
