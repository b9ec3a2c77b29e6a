// One endpoint of the selected interface.
#include "knusbpipe.h"

#include "kntrace.h"
#include "knusbconfiguration.h"
#include "knusbpnplowerdevice.h"

// Contract: any IRQL.
KnUsbPipe::KnUsbPipe() : mLowerDevice(NULL)
{
    RtlZeroMemory(&mPipeInfo, sizeof(mPipeInfo));
}

// Contract: any IRQL; disconnected by the owner.
KnUsbPipe::~KnUsbPipe()
{
    KN_ASSERT(NULL==mLowerDevice);
    if (mLowerDevice != NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbPipe::~KnUsbPipe: FATAL: pipe 0x%B not disconnected\n",
                 (ULONG)mPipeInfo.EndpointAddress);
    }
}

// Contract: PASSIVE_LEVEL; the configuration is not changing meanwhile.
NTSTATUS KnUsbPipe::Connect(KnPnPLowerDeviceUsb* lowerDevice, KnUsbConfiguration* configuration,
                            UCHAR endpointAddress)
{
    IRQL_EQ_PASSIVE();
    PUSBD_PIPE_INFORMATION pipeInfo = configuration->LookupPipeInfoByAddress(endpointAddress);
    if (pipeInfo == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbPipe::Connect: FATAL: endpoint 0x%B not found\n", (ULONG)endpointAddress);
        return STATUS_UNSUCCESSFUL;
    }
    mPipeInfo = *pipeInfo;
    mLowerDevice = lowerDevice;
    return STATUS_SUCCESS;
}

// Contract: any IRQL; no request of the pipe outstanding.
void KnUsbPipe::Disconnect()
{
    mLowerDevice = NULL;
    RtlZeroMemory(&mPipeInfo, sizeof(mPipeInfo));
}

// Contract: PASSIVE_LEVEL; connected; no lock held.
NTSTATUS KnUsbPipe::SubmitPipeRequest(USHORT urbFunction, ULONG timeoutMs, USBD_STATUS* urbStatus)
{
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    urb.UrbPipeRequest.Hdr.Length = (USHORT)sizeof(struct _URB_PIPE_REQUEST);
    urb.UrbPipeRequest.Hdr.Function = urbFunction;
    urb.UrbPipeRequest.Hdr.Status = KN_URB_STATUS_NOT_SET;
    urb.UrbPipeRequest.PipeHandle = mPipeInfo.PipeHandle;

    NTSTATUS st = mLowerDevice->SubmitUrbAndWait(&urb, timeoutMs);
    if (st != STATUS_SUCCESS) {
        if (urbFunction == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbPipe::ResetPipe: SubmitUrbAndWait failed, st=%N, UrbStatus=0x%D\n", st,
                     urb.UrbHeader.Status);
        } else {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnUsbPipe::AbortPipe: SubmitUrbAndWait failed, PipeHandle:%p st=%N, UrbStatus=0x%D\n",
                     mPipeInfo.PipeHandle, st, urb.UrbHeader.Status);
        }
    }
    if (urbStatus != NULL) {
        *urbStatus = urb.UrbHeader.Status;
    }
    return st;
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbPipe::ResetPipe(ULONG timeoutMs, USBD_STATUS* urbStatus)
{
    IRQL_EQ_PASSIVE();
    if (!IsConnected()) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbPipe::ResetPipe: FATAL: pipe instance is not connected\n");
        return STATUS_INTERNAL_ERROR;
    }
    return SubmitPipeRequest(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, timeoutMs, urbStatus);
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS KnUsbPipe::AbortPipe(ULONG timeoutMs, USBD_STATUS* urbStatus)
{
    IRQL_EQ_PASSIVE();
    if (!IsConnected()) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbPipe::AbortPipe: FATAL: pipe instance is not connected\n");
        return STATUS_INTERNAL_ERROR;
    }
    return SubmitPipeRequest(URB_FUNCTION_ABORT_PIPE, timeoutMs, urbStatus);
}

// Contract: IRQL <= DISPATCH_LEVEL; connected; no spin lock held.
NTSTATUS KnUsbPipe::SubmitUrb(PURB urb, PIRP irp, PIO_COMPLETION_ROUTINE completionRoutine, PVOID completionContext)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(IsConnected());
    if (!IsConnected()) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbPipe::SubmitUrb: FATAL: pipe instance is not connected\n");
        // The completion routine runs for every outcome, this one included.
        IoSetCompletionRoutine(irp, completionRoutine, completionContext, TRUE, TRUE, TRUE);
        return KnTargetDevice::FailRequest(irp, STATUS_INTERNAL_ERROR);
    }
    return mLowerDevice->SubmitUrb(urb, irp, completionRoutine, completionContext);
}
