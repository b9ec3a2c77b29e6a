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
#include "knusbdatapipebase.h"
#include "knworkitemex.h"
#include "usbbuf.h"

// Time-outs of the streams, ms.
#define STREAM_DRAIN_TIMEOUT_MS 5000   // Stop: abort and drain the pipe
#define STREAM_RESET_TIMEOUT_MS 500    // Start: reset the pipe and clear its stall
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
    // callbacks. Disables the stream and the pipe and waits until every
    // submitted buffer has come back (the drain status is only traced).
    void Stop();

    // Contract: IRQL <= DISPATCH_LEVEL; takes no lock (callers may hold
    // mLock). While the stream runs, no restart is pending and the device is
    // present: disables the stream and queues Restart. Otherwise only traces.
    void ScheduleRestart();

    // Contract: PASSIVE_LEVEL, the delayed work queue (work item callback;
    // context is the stream). Stop, then Start with a pipe reset; nothing
    // when the device is gone.
    static void Restart(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);

    // ---- snapshots (any IRQL; for the owner's decisions, diagnostics and tests) ----
    bool IsStreamEnabled() const { return __atomic_load_n(&mEnabled, __ATOMIC_ACQUIRE) != 0; }
    bool IsDeviceRemoved() const { return __atomic_load_n(&mDeviceRemoved, __ATOMIC_ACQUIRE) != 0; }
    bool IsRestartPending() const { return __atomic_load_n(&mRestartPending, __ATOMIC_ACQUIRE) != 0; }
    // Buffers of mBufPool handed out and not yet back (the traces' mPendingCount).
    ULONG GetPendingCount() const { return mBufPool.GetItemsOut(); }
    // The stream's data buffers.
    UsbBufPool* GetBufPool() { return &mBufPool; }
    // 1 while a restart is queued or running.
    ULONG GetRestartQueuedCount() const { return mRestartWorkItem.GetQueuedCount(); }

protected:
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
    KnWorkItemEx mRestartWorkItem;  // runs Restart
    UCHAR mRestartPending;          // a restart is queued and has not begun its start step

    // ---- buffers ----
    UsbBufPool mBufPool;  // the stream's data buffers

    // ---- identity (written by the constructors and Configure under mMutex) ----
    const char* mDirectionText;  // "IN", "OUT"; "" in the base
    UCHAR mEndpointAddress;      // the pipe's endpoint address
    StreamClient mClient;        // who receives the results; set by Configure
};
