// The common part of the USB streams: a data pipe that runs for the whole
// time the adapter is started, its pool of transfer buffers, and the restart
// after a transfer error (stop, then start with a pipe reset, from a work
// item at PASSIVE_LEVEL). StreamIn keeps reads pending on an IN pipe;
// StreamOut sends what its client hands it on an OUT pipe.
//
// States: unconfigured (construction) -> configured and stopped (Configure,
// Stop, a failed Start) -> running (mEnabled, a successful Start) -> restart
// pending (mRestartPending, ScheduleRestart) -> running again (Restart). A
// completion with STATUS_DEVICE_NOT_CONNECTED sets mDeviceRemoved for the
// life of the object: no restart is scheduled or run from then on.
//
// Locks, in this order: mMutex (Configure, Start, Stop) -> mLock (buffer
// hand-out and submission against completion handling) -> the pipe's
// mPipeLock -> the pool locks. The flags are single bytes read and written
// atomically; see the accessors below.
#pragma once

#include <ntddk.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "deviceinterfaces.h"
#include "kntimedworkitemex.h"
#include "knusbdatapipebase.h"
#include "knworkitemex.h"
#include "usbbuf.h"

// Time-outs of the streams, ms.
#define STREAM_DRAIN_TIMEOUT_MS 5000   // Stop: abort and drain the pipe
#define STREAM_RESET_TIMEOUT_MS 500    // Start: reset the pipe and clear its stall
#define STREAM_RESTART_RETRY_MS 1000   // Restart: delay before a failed start is tried again
// URB size of every stream buffer, bytes.
#define STREAM_URB_SIZE 128

// The client of a stream: a StreamIn reports to a StreamInClient, a
// StreamOut to a StreamOutClient.
union StreamClient {
    StreamInClient* mIn;
    StreamOutClient* mOut;
};

class Stream : public KnUsbDataPipeBase {
public:
    // Contract: any IRQL. Builds an IN (isIn) or OUT data pipe, the mutex,
    // the lock, the work item and the pool; flags clear, mDirectionText "".
    explicit Stream(bool isIn);
    // Contract: PASSIVE_LEVEL; stopped, no restart queued or running (the
    // subclasses' destructors see to it). Frees the idle buffers and
    // disconnects the pipe.
    ~Stream() override;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Contract: DISPATCH_LEVEL from the data pipe engine; mPipeLock not held.
    // Gives the buffer back to its pool.
    void OnBufferCompletion(KnUsbBufferBase* buf) override;

    // Contract: PASSIVE_LEVEL; mMutex not held; stopped. Enables the pipe
    // (with a reset when resetPipe) and lets the stream run.
    virtual NTSTATUS Start(bool resetPipe) = 0;

    // Contract: PASSIVE_LEVEL; no spin lock held; not from the client's
    // callbacks. The owner's stop: a restart queued or retried before it
    // never starts the stream again, one running is waited for (mMutex).
    // Disables the stream and the pipe and waits until every submitted
    // buffer has come back; after a time-out the buffers stay with the pipe
    // (ReclaimBuffers).
    void Stop();
    // Contract: PASSIVE_LEVEL; no spin lock held. Returns once the bus has
    // given back every buffer an earlier drain left with it, so that the
    // pools may be freed; waits as long as that takes.
    void ReclaimBuffers();

    // Contract: IRQL <= DISPATCH_LEVEL; takes no lock (callers may hold
    // mLock). While the stream runs, no restart is pending and the device is
    // present: disables the stream and queues Restart. Otherwise only traces.
    void ScheduleRestart();

    // Contract: PASSIVE_LEVEL, the delayed work queue (work item callback;
    // context is the stream, argument the stop generation it was scheduled
    // in). Drain, then Start with a pipe reset, retried on a timer while it
    // fails; nothing when the device is gone or the owner stopped the stream
    // since.
    static void Restart(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);

    // ---- snapshots (any IRQL; for the owner's decisions, diagnostics and tests) ----
    bool IsStreamEnabled() const { return __atomic_load_n(&mEnabled, __ATOMIC_ACQUIRE) != 0; }
    bool IsDeviceRemoved() const { return __atomic_load_n(&mDeviceRemoved, __ATOMIC_ACQUIRE) != 0; }
    bool IsRestartPending() const { return __atomic_load_n(&mRestartPending, __ATOMIC_ACQUIRE) != 0; }
    // Buffers of mBufPool handed out and not yet back (the traces' mPendingCount).
    ULONG GetPendingCount() const { return mBufPool.GetItemsOut(); }
    // The stream's data buffers.
    UsbBufPool* GetBufPool() { return &mBufPool; }
    // 1 while a restart is queued or running (a retry included).
    ULONG GetRestartQueuedCount() const { return mRestartWorkItem.GetQueuedCount() + mRetryWorkItem.GetQueuedCount(); }

protected:
    // Contract: PASSIVE_LEVEL; not from the restart work items. The
    // subclasses' destructors: stops the stream, waits for the restart work
    // and for the buffers still with the bus.
    void Shutdown();

    // Contract: PASSIVE_LEVEL; mMutex held. What Configure does in both
    // directions: reclaims the buffers a timed-out drain left with the bus,
    // sets the completion mode, connects the pipe to the endpoint and fills
    // mBufPool with bufferCount buffers of bufferSize bytes. Failures are
    // traced under className ("StreamIn", "StreamOut").
    NTSTATUS ConfigureBase(const char* className, KnPnPLowerDeviceUsb* lowerDevice,
                           KnUsbConfiguration* configuration, UCHAR endpointAddress, PDEVICE_OBJECT deviceObject,
                           ULONG bufferCount, ULONG bufferSize);

    // Contract: any IRQL. Single atomic accesses to the flags.
    void SetEnabled(bool enabled) { __atomic_store_n(&mEnabled, (UCHAR)(enabled ? 1 : 0), __ATOMIC_RELEASE); }
    void SetDeviceRemoved() { __atomic_store_n(&mDeviceRemoved, (UCHAR)1, __ATOMIC_RELEASE); }
    void ClearRestartPending() { __atomic_store_n(&mRestartPending, (UCHAR)0, __ATOMIC_RELEASE); }
    // Sets mRestartPending; false when it was set already.
    bool TrySetRestartPending()
    {
        UCHAR expected = 0;
        return __atomic_compare_exchange_n(&mRestartPending, &expected, (UCHAR)1, false, __ATOMIC_ACQ_REL,
                                           __ATOMIC_ACQUIRE);
    }

    // ---- state (atomic single-byte flags, see above) ----
    UCHAR mEnabled;        // the stream runs: set by Start, cleared by Stop and ScheduleRestart
    UCHAR mDeviceRemoved;  // a completion reported the device gone; never cleared

    // ---- locks ----
    KnMutex mMutex;      // serializes Configure, Start and Stop (and so Restart)
    KnSpinLock mLock;    // guards buffer hand-out and submission against completion handling

    // ---- restart ----
    KnWorkItemEx mRestartWorkItem;     // runs Restart
    KnTimedWorkItemEx mRetryWorkItem;  // runs Restart again after a failed start
    UCHAR mRestartPending;             // a restart is queued and has not begun its start step
    ULONG mStopGeneration;             // owner Stops so far; atomic access only
    UCHAR mBuffersWithBus;             // a drain timed out: buffers still with the bus (under mMutex)

    // ---- buffers ----
    UsbBufPool mBufPool;  // the stream's data buffers

private:
    // Contract: PASSIVE_LEVEL; mMutex held. Disables the stream, drains the
    // pipe and keeps track of buffers a timed-out drain left with the bus.
    void Drain();
    // Contract: PASSIVE_LEVEL; mMutex held. A restart's start failed.
    void RestartFailed(NTSTATUS status, PVOID generation);
    ULONG StopGeneration() const { return __atomic_load_n(&mStopGeneration, __ATOMIC_ACQUIRE); }

protected:
    // ---- identity (written by the constructors and Configure under mMutex) ----
    const char* mDirectionText;  // "IN", "OUT"; "" in the base
    UCHAR mEndpointAddress;      // the pipe's endpoint address
    StreamClient mClient;        // who receives the results; set by Configure
};
