// I/O and wait helpers: request completion, waits with and without time-out,
// event initialization and the IRP stack location accessors.
#pragma once

#include <ntddk.h>

// Contract: IRQL <= DISPATCH_LEVEL; the caller owns the IRP. Stores status
// and information in the IRP's I/O status, completes it and returns status.
// status must not be STATUS_PENDING.
NTSTATUS KnCompleteRequest(PIRP Irp, NTSTATUS status, ULONG_PTR information, CCHAR priorityBoost);

// Contract: PASSIVE_LEVEL (IRQL <= DISPATCH_LEVEL when timeoutMs is 0).
// Waits at most timeoutMs milliseconds, not alertable, kernel mode; returns
// the wait status (STATUS_TIMEOUT on time-out).
NTSTATUS KnWaitWithTimeout(PVOID object, ULONG timeoutMs);
// Contract: PASSIVE_LEVEL. Waits without limit.
NTSTATUS KnWait(PVOID object);

// Contract: any IRQL. A notification event, signalled or not.
void KnInitializeEvent(PKEVENT event, bool signalled);

// Contract: any IRQL; the caller owns the IRP.
PIO_STACK_LOCATION KnGetCurrentIrpStackLocation(PIRP Irp);
PIO_STACK_LOCATION KnGetNextIrpStackLocation(PIRP Irp);
