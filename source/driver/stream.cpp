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
    KN_TRACE(KN_TRACE_INFO, "%P:Stream::Stop%s%02x enter\n", mDirectionText, mEndpointAddress);
    SetEnabled(false);
    NTSTATUS status = AbortAndWaitForOutstandingBuffers(STREAM_DRAIN_TIMEOUT_MS, STREAM_DRAIN_TIMEOUT_MS);
    KN_TRACE(KN_TRACE_INFO, "%P:Stream::Stop%s%02x leave, st:%N\n", mDirectionText, mEndpointAddress, status);
}

// Contract: IRQL <= DISPATCH_LEVEL; takes no lock of its own (callers may
// hold mLock; the work item's lock is taken inside).
void Stream::ScheduleRestart()
{
    IRQL_LTEQ_DISPATCH();
    KN_TRACE(KN_TRACE_INFO, "%P:[Stream%s%02x::ScheduleRestart\n", mDirectionText, mEndpointAddress);
    // The pending flag is taken with one atomic step, so that callers that
    // do not hold mLock cannot schedule a second restart either.
    if (IsStreamEnabled() && !IsDeviceRemoved() && TrySetRestartPending()) {
        KN_TRACE(KN_TRACE_INFO, "%P:Stream%s%02x::ScheduleRestart call ScheduleWorkItem\n", mDirectionText,
                 mEndpointAddress);
        SetEnabled(false);
        KnPnPLowerDeviceUsb* lowerDevice = GetLowerDevice();
        PDEVICE_OBJECT deviceObject = (lowerDevice != NULL) ? lowerDevice->GetDeviceObject() : NULL;
        if (deviceObject == NULL || !mRestartWorkItem.ScheduleCallback(deviceObject, Restart, this, NULL, DelayedWorkQueue)) {
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
// is the stream.
void Stream::Restart(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument)
{
    UNREFERENCED_PARAMETER(deviceObject);
    UNREFERENCED_PARAMETER(argument);
    IRQL_EQ_PASSIVE();
    Stream* This = static_cast<Stream*>(context);
    KN_ASSERT(This!=NULL);
    if (This == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:Stream::Restart: no stream\n");
        return;
    }
    if (This->IsDeviceRemoved()) {
        return;
    }
    KN_TRACE(KN_TRACE_ERROR, "%P:[Stream%s%02x::Restart\n", This->mDirectionText, This->mEndpointAddress);
    This->Stop();
    This->ClearRestartPending();
    // A failed start leaves the stream disabled; Start traces it.
    (void)This->Start(true);
    KN_TRACE(KN_TRACE_ERROR, "%P:]Stream%s%02x::Restart\n", This->mDirectionText, This->mEndpointAddress);
}
