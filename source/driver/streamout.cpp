// Transmit stream: writes of the client on a bulk OUT pipe, with
// zero-length packets after transfers that end on a packet boundary.
#include "streamout.h"

#include "kntrace.h"

// Contract: any IRQL.
StreamOut::StreamOut() : Stream(false)
{
    mDirectionText = "OUT";
}

// Contract: PASSIVE_LEVEL; not from the restart work item.
StreamOut::~StreamOut()
{
    Shutdown();
    mZlpPool.FreeAll();
}

// Contract: PASSIVE_LEVEL; takes mMutex.
NTSTATUS StreamOut::Configure(KnPnPLowerDeviceUsb* lowerDevice, KnUsbConfiguration* configuration,
                              UCHAR endpointAddress, PDEVICE_OBJECT deviceObject, StreamOutClient* client,
                              ULONG bufferCount, ULONG bufferSize)
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mMutex);
    mClient.mOut = client;
    NTSTATUS status = ConfigureBase("StreamOut", lowerDevice, configuration, endpointAddress, deviceObject,
                                    bufferCount, bufferSize);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    mZlpPool.FreeAll();  // after ConfigureBase: none of them is with the bus any more
    // One zero-length packet buffer more than data buffers: each data
    // buffer may need one, and one may still be on its way back.
    status = mZlpPool.Allocate(bufferCount + 1, 1, lowerDevice->GetStackSize());
    if (!NT_SUCCESS(status)) {
        mBufPool.FreeAll();
        KN_TRACE(KN_TRACE_ERROR, "%P StreamOut::Configure, allocate failed for EP:%d %N\n", endpointAddress, status);
        return status;
    }
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL; takes mMutex; calls BufferSent with it held.
NTSTATUS StreamOut::Start(bool resetPipe)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(!mEnabled);
    KN_TRACE(KN_TRACE_START, "%P:[StreamOut%02x::Start\n", mEndpointAddress);
    KnMutexGuard guard(mMutex);

    if (IsDeviceRemoved()) {
        KN_TRACE(KN_TRACE_START, "%P:[StreamOut%02x::Start cannot start, device is removed\n", mEndpointAddress);
        return STATUS_UNSUCCESSFUL;
    }

    // Refused only for a pipe that is not connected; the reset below and
    // the submissions then fail and say so.
    (void)EnablePipe();
    NTSTATUS status = STATUS_SUCCESS;
    if (resetPipe) {
        status = ResetPipe(STREAM_RESET_TIMEOUT_MS, NULL);
    }
    if (NT_SUCCESS(status)) {
        SetEnabled(true);
        // Whatever queued up while the stream was stopped goes out now.
        mClient.mOut->BufferSent(STATUS_SUCCESS, IsDeviceRemoved());
    } else {
        KN_TRACE(KN_TRACE_ERROR, "%P:StreamOut%02x::Start, fatal: ResetPipe failed, adapter is still disabled\n",
                 mEndpointAddress);
        // Stopped as after Stop: the next Start enables the pipe again.
        DisablePipe();
    }

    guard.Unlock();
    KN_TRACE(KN_TRACE_START, "%P:]StreamOut%02x::Start (%N)\n", mEndpointAddress, status);
    return status;
}

// Contract: IRQL <= DISPATCH_LEVEL; takes no stream lock.
UsbBuf* StreamOut::GetBuffer()
{
    IRQL_LTEQ_DISPATCH();
    if (IsRestartPending() || !IsStreamEnabled() || IsDeviceRemoved()) {
        return NULL;
    }
    return mBufPool.GetBuffer();
}

// Contract: IRQL <= DISPATCH_LEVEL; mLock held; the caller holds buf.
void StreamOut::FillWriteUrb(UsbBuf* buf, PMDL mdl)
{
    KN_ASSERT(mLock.IsLocked());
    buf->ZeroUrb();
    UsbBuildInterruptOrBulkTransferRequest(buf->Urb(), STREAM_URB_SIZE, GetPipeHandle(), NULL, mdl, buf->DataLength(),
                                           0, NULL);
}

// Contract: IRQL <= DISPATCH_LEVEL; mLock not held (taken across both
// submissions, so that nothing comes between a transfer and its
// zero-length packet).
void StreamOut::SubmitWriteBuffer(UsbBuf* writeBuffer)
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(mLock);
    const ULONG length = writeBuffer->DataLength();
    KN_TRACE(KN_TRACE_TX_SUBMIT, "%P:StreamOut%02x::SubmitWriteBuffer len:%d\n", mEndpointAddress, length);

    // A bulk endpoint always has a maximum packet size; without one there
    // is no packet boundary and so no zero-length packet.
    const ULONG maxPacketSize = GetMaximumPacketSize();
    const bool zeroLengthPacket = (maxPacketSize != 0) && (length % maxPacketSize) == 0;

    FillWriteUrb(writeBuffer, writeBuffer->Mdl());
    if (!SubmitBuffer(writeBuffer)) {
        // The pipe is disabled; the buffer is back in its pool.
        KN_TRACE(KN_TRACE_TX_SUBMIT, "%P:StreamOut%02x::SubmitWriteBuffer SubmitBuffer failed\n", mEndpointAddress);
        return;
    }
    if (!zeroLengthPacket) {
        return;
    }

    UsbBuf* buffer = mZlpPool.GetBuffer();
    KN_ASSERT(buffer != NULL);
    if (buffer == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:StreamOut%02x::SubmitWriteBuffer no buffer for the zero-length packet\n",
                 mEndpointAddress);
        return;
    }
    buffer->SetDataLength(0);
    FillWriteUrb(buffer, NULL);
    (void)SubmitBuffer(buffer);
}

// Contract: DISPATCH_LEVEL from the data pipe engine; no lock held. Takes
// mLock; calls BufferSent without it.
void StreamOut::OnBufferCompletion(KnUsbBufferBase* completed)
{
    IRQL_EQ_DISPATCH();
    UsbBuf* buf = static_cast<UsbBuf*>(completed);
    KnSpinLockGuard guard(mLock);
    KN_TRACE(KN_TRACE_RX_PATH, "%P:StreamOut%02x::OnBufferCompletion\n", mEndpointAddress);

    const NTSTATUS status = buf->GetCompletionStatus();
    if (status == STATUS_DEVICE_NOT_CONNECTED) {
        SetDeviceRemoved();
    }

    if (NT_SUCCESS(status)) {
        buf->ReturnToPool();
        guard.Unlock();
        mClient.mOut->BufferSent(status, IsDeviceRemoved());
        return;
    }

    // The data of this buffer is lost; the client hears from Start after
    // the restart.
    KN_TRACE(KN_TRACE_ERROR, "%P:StreamOut%02x::OnBufferCompletion error %N URB:%08x mPendingCount:%d\n",
             mEndpointAddress, buf->IrpStatus(), buf->UrbStatus(), GetPendingCount());
    buf->ReturnToPool();
    if (!IsDeviceRemoved()) {
        ScheduleRestart();
    }
}
