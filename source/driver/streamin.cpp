// Receive stream: reads kept pending on an IN pipe.
#include "streamin.h"

#include "kntrace.h"

// Contract: any IRQL.
StreamIn::StreamIn() : Stream(true), mReadSize(0)
{
    mDirectionText = "IN";
}

// Contract: PASSIVE_LEVEL; not from the restart work item.
StreamIn::~StreamIn()
{
    Shutdown();
}

// Contract: PASSIVE_LEVEL; takes mMutex.
NTSTATUS StreamIn::Configure(KnPnPLowerDeviceUsb* lowerDevice, KnUsbConfiguration* configuration,
                             UCHAR endpointAddress, PDEVICE_OBJECT deviceObject, StreamInClient* client,
                             ULONG bufferCount, ULONG bufferSize)
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mMutex);
    mClient.mIn = client;
    __atomic_store_n(&mReadSize, bufferSize, __ATOMIC_RELEASE);
    return ConfigureBase("StreamIn", lowerDevice, configuration, endpointAddress, deviceObject, bufferCount,
                         bufferSize);
}

// Contract: PASSIVE_LEVEL; takes mMutex, then mLock.
NTSTATUS StreamIn::Start(bool resetPipe)
{
    IRQL_EQ_PASSIVE();
    KN_ASSERT(!mEnabled);
    KN_TRACE(KN_TRACE_START, "%P:[StreamIn%02x::Start\n", mEndpointAddress);
    KnMutexGuard guard(mMutex);

    // Refused only for a pipe that is not connected; the reset below and
    // the submissions then fail and say so.
    (void)EnablePipe();
    NTSTATUS status = STATUS_SUCCESS;
    if (resetPipe) {
        status = ResetPipe(STREAM_RESET_TIMEOUT_MS, NULL);
    }
    if (NT_SUCCESS(status)) {
        SetEnabled(true);
        ResubmitReadBuffers();
    } else {
        KN_TRACE(KN_TRACE_ERROR, "%P StreamIn%02x::Start, fatal: ResetPipe failed, adapter is still disabled\n",
                 mEndpointAddress);
        // Stopped as after Stop: the next Start enables the pipe again.
        DisablePipe();
    }

    guard.Unlock();
    KN_TRACE(KN_TRACE_START, "%P:]StreamIn%02x::Start (%N)\n", mEndpointAddress, status);
    return status;
}

// Contract: IRQL <= DISPATCH_LEVEL; mLock held.
void StreamIn::SubmitReadBuffers()
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(mLock.IsLocked());
    for (;;) {
        if (!IsStreamEnabled() || IsDeviceRemoved()) {
            return;
        }
        UsbBuf* buf = mBufPool.GetBuffer();
        if (buf == NULL) {
            return;
        }
        const ULONG readSize = GetReadSize();
        buf->ZeroUrb();
        UsbBuildInterruptOrBulkTransferRequest(buf->Urb(), STREAM_URB_SIZE, GetPipeHandle(), NULL, buf->Mdl(), readSize,
                                               USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, NULL);
        KN_TRACE(KN_TRACE_RX_PATH, "%P:StreamIn%02x::SubmitReadBuffers: size:%u\n", mEndpointAddress, readSize);
        if (!SubmitBuffer(buf)) {
            // The pipe is disabled; the buffer is back in the pool.
            KN_TRACE(KN_TRACE_RX_PATH, "%P:StreamIn%02x::SubmitReadBuffers SubmitBuffer failed\n", mEndpointAddress);
            return;
        }
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; mLock not held.
void StreamIn::ResubmitReadBuffers()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(mLock);
    SubmitReadBuffers();
}

// Contract: DISPATCH_LEVEL from the data pipe engine; no lock held. Takes
// mLock; calls BufferReceived without it and IndicateError with it.
void StreamIn::OnBufferCompletion(KnUsbBufferBase* completed)
{
    IRQL_EQ_DISPATCH();
    UsbBuf* buf = static_cast<UsbBuf*>(completed);
    KnSpinLockGuard guard(mLock);
    KN_TRACE(KN_TRACE_RX_PATH, "%P:StreamIn%02x::OnBufferCompletion\n", mEndpointAddress);

    const ULONG length = buf->UpdateDataLength();
    const NTSTATUS status = buf->GetCompletionStatus();
    if (status == STATUS_DEVICE_NOT_CONNECTED) {
        SetDeviceRemoved();
    }

    if (NT_SUCCESS(status)) {
        if (length > 0) {
            guard.Unlock();
            if (KnGetTraceMask() & KN_TRACE_RX_TRANSFER) {
                KnPrint("%P:StreamIn%02x::OnBufferCompletion\n", mEndpointAddress);
                KnHexDump(buf->Buffer(), length);
            }
            mClient.mIn->BufferReceived(buf);
            return;
        }
        // Nothing received: straight back on the pipe, the client hears nothing.
        buf->ReturnToPool();
        SubmitReadBuffers();
        return;
    }

    const bool removed = IsDeviceRemoved();
    mClient.mIn->IndicateError(status, removed);
    KN_TRACE(KN_TRACE_ERROR, "%P:StreamIn%02x::OnBufferCompletion error %N URB:%08x mPendingCount:%d\n",
             mEndpointAddress, buf->IrpStatus(), buf->UrbStatus(), GetPendingCount());
    buf->ReturnToPool();
    if (!removed) {
        ScheduleRestart();
    }
}

// Contract: any IRQL.
void StreamIn::LimitReadSize(ULONG maxReadSize)
{
    ULONG current = GetReadSize();
    while (current > maxReadSize) {
        if (__atomic_compare_exchange_n(&mReadSize, &current, maxReadSize, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
            return;
        }
    }
}
