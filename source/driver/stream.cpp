// Stream base: stop, restart scheduling and the restart itself.
#include "stream.h"

#include "knpnplowerdevice.h"
#include "kntrace.h"
#include "knusbpnplowerdevice.h"

// Contract: any IRQL.
Stream::Stream(bool isIn)
    : KnUsbDataPipeBase(isIn),
      mEnabled(0),
      mDeviceRemoved(0),
      mRestartPending(0),
      mStopGeneration(0),
      mBuffersWithBus(0),
      mDirectionText(""),
      mEndpointAddress(0)
{
    mClient.mIn = NULL;
}

// Contract: PASSIVE_LEVEL; stopped, no restart queued or running.
Stream::~Stream()
{
    KN_ASSERT(!IsStreamEnabled());
    mBufPool.FreeAll();
    Disconnect();
    mDirectionText = NULL;
    mEndpointAddress = 0;
}

// Contract: DISPATCH_LEVEL from the data pipe engine; mPipeLock not held.
void Stream::OnBufferCompletion(KnUsbBufferBase* buf)
{
    IRQL_LTEQ_DISPATCH();
    buf->ReturnToPool();
}

// Contract: PASSIVE_LEVEL; no spin lock held; takes mMutex.
void Stream::Stop()
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mMutex);
    // A restart queued before its owner stopped the stream must not start it
    // again behind the owner's back: a new generation voids it, and its flag goes.
    SetEnabled(false);
    __atomic_add_fetch(&mStopGeneration, 1, __ATOMIC_ACQ_REL);
    mRestartWorkItem.CancelCallback();
    mRetryWorkItem.CancelTimedWorkItem();
    ClearRestartPending();
    Drain();
}

// Contract: PASSIVE_LEVEL; mMutex held.
void Stream::Drain()
{
    IRQL_EQ_PASSIVE();
    KN_TRACE(KN_TRACE_INFO, "%P:Stream::Stop%s%02x enter\n", mDirectionText, mEndpointAddress);
    SetEnabled(false);
    NTSTATUS status = AbortAndWaitForOutstandingBuffers(STREAM_DRAIN_TIMEOUT_MS, STREAM_DRAIN_TIMEOUT_MS);
    // A buffer the bus has not given back is still the bus's: it stays with
    // the pipe, and the pools are freed only once it is back (ReclaimBuffers).
    if (status == STATUS_IO_TIMEOUT) {
        if (!mBuffersWithBus) {
            KN_TRACE(KN_TRACE_ERROR, "%P:Stream%s%02x::Stop: drain timed out, buffers stay with the bus\n",
                     mDirectionText, mEndpointAddress);
        }
        mBuffersWithBus = 1;
    } else {
        mBuffersWithBus = 0;
    }
    KN_TRACE(KN_TRACE_INFO, "%P:Stream::Stop%s%02x leave, st:%N\n", mDirectionText, mEndpointAddress, status);
}

// Contract: PASSIVE_LEVEL; no spin lock held; takes mMutex (also when held).
void Stream::ReclaimBuffers()
{
    IRQL_EQ_PASSIVE();
    KnMutexGuard guard(mMutex);
    // The bus gives back every request of an aborted pipe in the end.
    while (mBuffersWithBus) {
        Drain();
    }
}

// Contract: PASSIVE_LEVEL; mMutex held.
NTSTATUS Stream::ConfigureBase(const char* className, KnPnPLowerDeviceUsb* lowerDevice,
                               KnUsbConfiguration* configuration, UCHAR endpointAddress, PDEVICE_OBJECT deviceObject,
                               ULONG bufferCount, ULONG bufferSize)
{
    IRQL_EQ_PASSIVE();
    // The buffers a timed-out drain left with the bus (on the pipe as it was
    // connected) are freed below only once they are back.
    ReclaimBuffers();
    mEndpointAddress = endpointAddress;

    // Refused while the pipe is enabled; the mode then stays as it was.
    (void)SetBufferCompletionMode(false, deviceObject);

    NTSTATUS status = Connect(lowerDevice, configuration, endpointAddress);
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P %s::Configure, failed for EP:%d %N\n", className, endpointAddress, status);
        return status;
    }

    mBufPool.FreeAll();
    status = mBufPool.Allocate(bufferCount, bufferSize, lowerDevice->GetStackSize());
    if (!NT_SUCCESS(status)) {
        KN_TRACE(KN_TRACE_ERROR, "%P %s::Configure, allocate failed for EP:%d %N\n", className, endpointAddress,
                 status);
    }
    return status;
}

// Contract: PASSIVE_LEVEL; not from the restart work items.
void Stream::Shutdown()
{
    IRQL_EQ_PASSIVE();
    Stop();
    mRestartWorkItem.CancelCallbackAndWait();
    mRetryWorkItem.CancelTimedWorkItemAndWait();
    ReclaimBuffers();
}

// Contract: IRQL <= DISPATCH_LEVEL; takes no lock of its own (callers may
// hold mLock; the work item's lock is taken inside).
void Stream::ScheduleRestart()
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_INFO, "%P:[Stream%s%02x::ScheduleRestart\n", mDirectionText, mEndpointAddress);
    // Read before mEnabled: a Stop that disabled the stream first has also
    // moved the generation on, so a restart scheduled now finds it voided.
    const ULONG generation = StopGeneration();
    // The pending flag is taken with one atomic step, so that callers that
    // do not hold mLock cannot schedule a second restart either.
    if (IsStreamEnabled() && !IsDeviceRemoved() && TrySetRestartPending()) {
        KN_TRACE(KN_TRACE_INFO, "%P:Stream%s%02x::ScheduleRestart call ScheduleWorkItem\n", mDirectionText,
                 mEndpointAddress);
        SetEnabled(false);
        KnPnPLowerDeviceUsb* lowerDevice = GetLowerDevice();
        PDEVICE_OBJECT deviceObject = (lowerDevice != NULL) ? lowerDevice->GetDeviceObject() : NULL;
        if (deviceObject == NULL || !mRestartWorkItem.ScheduleCallback(deviceObject, Restart, this, (PVOID)(ULONG_PTR)generation,
                                                                     DelayedWorkQueue)) {
            // No restart will clear the flag: clear it here, so that the
            // owner's next Stop and Start bring the stream back.
            KN_TRACE(KN_TRACE_ERROR, "%P:Stream%s%02x::ScheduleRestart ScheduleCallback failed, stream stays disabled\n",
                     mDirectionText, mEndpointAddress);
            ClearRestartPending();
        }
    }
    KN_TRACE(KN_TRACE_INFO, "%P:]Stream%s%02x::ScheduleRestart\n", mDirectionText, mEndpointAddress);
}

// Contract: PASSIVE_LEVEL on the delayed work queue; no lock held; context
// is the stream, argument the stop generation it was scheduled in.
void Stream::Restart(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    IRQL_EQ_PASSIVE();
    Stream* This = static_cast<Stream*>(context);
    KN_ASSERT(This!=NULL);
    if (This == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:Stream::Restart: no stream\n");
        return;
    }
    // Held from the check to the end of the start step: the owner's Stop
    // waits for a running restart, and one that comes later sees it.
    KnMutexGuard guard(This->mMutex);
    if (This->IsDeviceRemoved()) {
        return;
    }
    if ((ULONG)(ULONG_PTR)argument != This->StopGeneration()) {
        KN_TRACE(KN_TRACE_INFO, "%P:Stream%s%02x::Restart: stopped since, nothing to do\n", This->mDirectionText,
                 This->mEndpointAddress);
        This->ClearRestartPending();
        return;
    }
    KN_TRACE(KN_TRACE_ERROR, "%P:[Stream%s%02x::Restart\n", This->mDirectionText, This->mEndpointAddress);
    This->Drain();
    This->ClearRestartPending();
    NTSTATUS status = This->Start(true);
    if (!NT_SUCCESS(status)) {
        This->RestartFailed(status, argument);
    }
    KN_TRACE(KN_TRACE_ERROR, "%P:]Stream%s%02x::Restart\n", This->mDirectionText, This->mEndpointAddress);
}

// Contract: PASSIVE_LEVEL; mMutex held.
void Stream::RestartFailed(NTSTATUS status, PVOID generation)
{
    IRQL_EQ_PASSIVE();
    if (status == STATUS_DEVICE_NOT_CONNECTED) {
        SetDeviceRemoved();
    }
    if (IsDeviceRemoved()) {
        KN_TRACE(KN_TRACE_ERROR, "%P:Stream%s%02x::Restart failed %N, device removed\n", mDirectionText,
                 mEndpointAddress, status);
        return;
    }
    // A stream of a present device never stays dead: its failed restart is
    // retried on a timer here rather than left to the adapter's hang check.
    KN_TRACE(KN_TRACE_ERROR, "%P:Stream%s%02x::Restart failed %N, retry in %u ms\n", mDirectionText,
             mEndpointAddress, status, STREAM_RESTART_RETRY_MS);
    KnPnPLowerDeviceUsb* lowerDevice = GetLowerDevice();
    PDEVICE_OBJECT deviceObject = (lowerDevice != NULL) ? lowerDevice->GetDeviceObject() : NULL;
    if (deviceObject != NULL) {
        mRetryWorkItem.Schedule(STREAM_RESTART_RETRY_MS, deviceObject, Restart, this, generation, DelayedWorkQueue);
    }
}
