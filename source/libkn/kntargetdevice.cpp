// A device object to which IRPs are passed down.
#include "kntargetdevice.h"

#include "knio.h"
#include "kntrace.h"

// Contract: any IRQL.
KnTargetDevice::KnTargetDevice() {}

// Contract: any IRQL; mDeviceObject already set back to NULL by the owner.
KnTargetDevice::~KnTargetDevice()
{
    KN_ASSERT(NULL==mDeviceObject);
}

// Contract: IRQL <= DISPATCH_LEVEL; the caller owns the IRP and has not
// passed it down.
NTSTATUS KnTargetDevice::FailRequest(PIRP irp, NTSTATUS status)
{
    IRQL_LTEQ_DISPATCH();
    if (irp->CurrentLocation <= 1) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnTargetDevice::FailRequest: FATAL: IRP 0x%p has no stack location\n", irp);
        return status;
    }
    // Step onto the location prepared for the lower driver and complete from
    // there: the completion routine set in it runs.
    IoSetNextIrpStackLocation(irp);
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// Contract: IRQL <= DISPATCH_LEVEL; no spin lock of the caller held (the
// lower driver may complete the IRP inline).
NTSTATUS KnTargetDevice::CallDriver(PIRP irp)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(mDeviceObject!=NULL);
    if (mDeviceObject == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnTargetDevice::CallDriver: no device object, IRP 0x%p failed\n", irp);
        return FailRequest(irp, STATUS_NO_SUCH_DEVICE);
    }
    return IofCallDriver(mDeviceObject, irp);
}

// Contract: IRQL <= DISPATCH_LEVEL (the IRP's completion context); context
// is the caller's event.
NTSTATUS KnTargetDevice::CallDriverAndWaitCompletion(PDEVICE_OBJECT deviceObject, PIRP irp, PVOID context)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(irp);
    PKEVENT evt = static_cast<PKEVENT>(context);
    KN_ASSERT(evt!=NULL);
    if (evt != NULL) {
        KeSetEvent(evt, IO_NO_INCREMENT, FALSE);
    }
    // The IRP stays with the caller, who reads its status and frees it.
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Contract: PASSIVE_LEVEL; no lock held (the routine blocks).
NTSTATUS KnTargetDevice::CallDriverAndWait(PIRP irp, ULONG timeoutMs)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(mDeviceObject!=NULL);

    KEVENT event;
    KnInitializeEvent(&event, false);
    IoSetCompletionRoutine(irp, CallDriverAndWaitCompletion, &event, TRUE, TRUE, TRUE);

    // Without a device object CallDriver fails the IRP at once; the wait
    // below then finds the event signalled.
    CallDriver(irp);

    NTSTATUS stat;
    if (timeoutMs == 0) {
        KnWait(&event);
        stat = irp->IoStatus.Status;
        KN_ASSERT(stat!=STATUS_PENDING);
        return stat;
    }

    NTSTATUS waitStatus = KnWaitWithTimeout(&event, timeoutMs);
    if (waitStatus != STATUS_SUCCESS) {
        KN_TRACE(KN_TRACE_WARNING, "%P:KnTargetDevice::CallDriverAndWait: TIMEOUT after %u ms, canceling IRP\n",
                 timeoutMs);
        IoCancelIrp(irp);
        // The lower driver still owns the IRP (and the caller's URB): wait
        // until it has really let go of it.
        KnWait(&event);
        KN_TRACE(KN_TRACE_WARNING, "%P:KnTargetDevice::CallDriverAndWait: IRP completed after cancel\n");
        return STATUS_IO_TIMEOUT;
    }

    stat = irp->IoStatus.Status;
    KN_ASSERT(stat!=STATUS_PENDING);
    return stat;
}
