// A data pipe that runs any number of transfer buffers on one endpoint at
// the same time and delivers them to its owner strictly in submission
// order, one at a time, through OnBufferCompletion: at DISPATCH_LEVEL
// (inside the bus driver's completion or from a DPC) or at PASSIVE_LEVEL
// (from a work item). A buffer whose request completes before its
// SubmitBuffer call has returned is never delivered from inside that call.
// Stopping drains the pipe with abort, cancel and bounded waits.
//
// Calling order: construct; SetBufferCompletionMode and Connect (either
// order); EnablePipe; SubmitBuffer any number of times;
// AbortAndWaitForOutstandingBuffers (disables); again EnablePipe ...;
// finally Disconnect and destruction.
#pragma once

#include <ntddk.h>
#include <usbdi.h>

#include "KnDpc.h"
#include "KnMutex.h"
#include "KnSpinlock.h"
#include "QbDlList.h"
#include "knusbbufferbase.h"
#include "knusbpipe.h"
#include "knworkitemex.h"

class KnUsbDataPipeBase : public KnUsbPipe {
public:
    // Contract: any IRQL. Not connected, disabled, DISPATCH completion mode.
    explicit KnUsbDataPipeBase(bool isIn);
    // Contract: PASSIVE_LEVEL. Disabled and drained (pending list empty);
    // waits for a running completion work item.
    ~KnUsbDataPipeBase() override;

    // Contract: DISPATCH_LEVEL, or PASSIVE_LEVEL in passive completion
    // mode; mPipeLock not held; never entered twice at a time for one pipe.
    // Receives one completed buffer, which it then owns. The default gives
    // the buffer back to its pool.
    virtual void OnBufferCompletion(KnUsbBufferBase* buf);

    // Contract: IRQL <= DISPATCH_LEVEL; the pipe is disabled. Selects the
    // delivery mode; passive mode needs the device object for the work item.
    NTSTATUS SetBufferCompletionMode(bool completeAtPassiveLevel, PDEVICE_OBJECT deviceObject);
    // Contract: IRQL <= DISPATCH_LEVEL; connected and disabled.
    NTSTATUS EnablePipe();
    // Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held. From here on
    // nothing is delivered: completing buffers go back to their pools.
    void DisablePipe();
    // Contract: any IRQL. A snapshot.
    bool IsEnabled() const { return __atomic_load_n(&mPipeEnabled, __ATOMIC_ACQUIRE) != 0; }

    // Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held; the caller has
    // filled the buffer's URB completely. True: submitted; false: the pipe
    // is disabled and the buffer is back in its pool already.
    bool SubmitBuffer(KnUsbBufferBase* buf);

    // Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held. Cancels the
    // IRP of every submitted buffer that has not completed yet.
    void CancelPendingRequests();
    // Contract: PASSIVE_LEVEL; no lock held. Disables the pipe and waits
    // until every submitted buffer has completed (abort, then cancel), in
    // steps of stepMs up to timeoutMs each phase. STATUS_IO_TIMEOUT when a
    // request does not complete: its buffer then stays linked and the pipe
    // and the buffer's pool must not be destroyed.
    NTSTATUS AbortAndWaitForOutstandingBuffers(ULONG timeoutMs, ULONG stepMs);
    // Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held. Gives every
    // buffer still in the pending list back to its pool.
    void CleanupPendingBufferList();

    // Contract: any IRQL.
    const char* GetName() const { return mName; }
    bool IsIn() const { return mIsIn != 0; }
    // Contract: IRQL <= DISPATCH_LEVEL; mPipeLock not held. Snapshots for
    // diagnostics and tests.
    ULONG GetNumberOfBuffersOutstanding();
    bool IsPendingListEmpty();
    bool IsCompleteAtPassiveLevel();
    // Contract: any IRQL.
    ULONG GetOutstandingCallbackCount() const { return mOutStandingCallbackCounter.GetCount(); }

private:
    // IRP completion routine of every submitted buffer (context: the buffer).
    static NTSTATUS BufferCompletionRoutine(PDEVICE_OBJECT deviceObject, PIRP irp, PVOID context);
    // Deferred routine of mCompletionDpc (context: the pipe).
    static void CompletionDpcRoutine(PKDPC dpc, PVOID context, PVOID systemArgument1, PVOID systemArgument2);
    // Routine of mCompletionWorkItem (context: the pipe).
    static void CompletionWorkItemRoutine(PDEVICE_OBJECT deviceObject, PVOID context, PVOID argument);

    // Contract: IRQL <= DISPATCH_LEVEL; mPipeLock held.
    void BufferCompleted(KnUsbBufferBase* buf, KIRQL* oldIrql);
    // Contract: DISPATCH_LEVEL; mPipeLock not held.
    void CompletionDpc();
    // Contract: PASSIVE_LEVEL; mPipeLock not held.
    void CompletionWorkItem();
    // Contract: mPipeLock held (taken with Lock; *oldIrql is the IRQL to
    // release it to). The delivery loop; releases and retakes mPipeLock
    // around every OnBufferCompletion.
    void ProcessCompletedBuffers(KIRQL* oldIrql);
    // Contract: mPipeLock held; passive completion mode.
    void ScheduleWorkItem();

    // ---- identity ----
    char mName[8];  // "in " or "out", printed by every trace of the class
    UCHAR mIsIn;    // direction given to the constructor

    // ---- state (guarded by mPipeLock; mPipeEnabled is also read without it) ----
    UCHAR mPipeEnabled;             // buffers are accepted and delivered only while set
    UCHAR mCompleteAtPassiveLevel;  // 0: deliver at DISPATCH_LEVEL, 1: at PASSIVE_LEVEL
    UCHAR mInCompletionLoop;        // a delivery loop is running

    // mPipeLock guards mPipeEnabled, mCompleteAtPassiveLevel,
    // mInCompletionLoop, mPendingBufferList, mNumberOfBuffersOutstanding,
    // mDeviceObjectForWorkItem and the engine flags of every buffer in
    // mPendingBufferList (mSubmitReturned, mCompleted). Lock order: a
    // stream's locks, then mPipeLock, then pool and work item locks.
    KnSpinLock mPipeLock;
    QbDlListOf<KnUsbBufferBase> mPendingBufferList;  // submitted, not yet delivered or released
    ULONG mNumberOfBuffersOutstanding;               // submitted, completion routine not yet run

    // ---- callbacks ----
    // Lock-free: +1 per submitted buffer until its completion routine has
    // finished, +1 per queued completion DPC until it has finished, +1 per
    // SubmitBuffer call from linking the buffer until the call is done.
    KnCounterEvent mOutStandingCallbackCounter;
    KnDpc mCompletionDpc;                     // DISPATCH mode: delivery of inline completions
    KnWorkItemEx mCompletionWorkItem;         // PASSIVE mode: the delivery loop
    PDEVICE_OBJECT mDeviceObjectForWorkItem;  // NULL until SetBufferCompletionMode
};
