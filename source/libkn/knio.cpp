// I/O and wait helpers.
#include "knio.h"

#include "kntrace.h"

// Contract: IRQL <= DISPATCH_LEVEL; the caller owns the IRP.
NTSTATUS KnCompleteRequest(PIRP Irp, NTSTATUS status, ULONG_PTR information, CCHAR priorityBoost)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(status!=STATUS_PENDING);
    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = information;
    IofCompleteRequest(Irp, priorityBoost);
    return status;
}

// Contract: PASSIVE_LEVEL, or IRQL <= DISPATCH_LEVEL for a poll (timeoutMs 0).
NTSTATUS KnWaitWithTimeout(PVOID object, ULONG timeoutMs)
{
    if (timeoutMs == 0) {
        IRQL_LTEQ_DISPATCH();
    } else {
        IRQL_EQ_PASSIVE();
    }
    LARGE_INTEGER timeout;
    timeout.QuadPart = -(LONGLONG)timeoutMs * 10000;
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &timeout);
}

// Contract: PASSIVE_LEVEL.
NTSTATUS KnWait(PVOID object)
{
    IRQL_EQ_PASSIVE();
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, NULL);
}

// Contract: any IRQL.
void KnInitializeEvent(PKEVENT event, bool signalled)
{
    KeInitializeEvent(event, NotificationEvent, signalled ? TRUE : FALSE);
}

// Contract: any IRQL.
PIO_STACK_LOCATION KnGetCurrentIrpStackLocation(PIRP Irp)
{
    KN_ASSERT(Irp->CurrentLocation <= Irp->StackCount + 1);
    return Irp->Tail.Overlay.CurrentStackLocation;
}

// Contract: any IRQL.
PIO_STACK_LOCATION KnGetNextIrpStackLocation(PIRP Irp)
{
    KN_ASSERT(Irp->CurrentLocation > 0);
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}
