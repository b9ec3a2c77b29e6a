// A one-shot relative timer with its DPC.
#pragma once

#include <ntddk.h>

#include "KnDpc.h"
#include "kntrace.h"

class KnTimerDpc {
public:
    // Contract: any IRQL. The timer is idle; the DPC is not initialized.
    KnTimerDpc() { KeInitializeTimer(&mTimer); }
    KnTimerDpc(const KnTimerDpc&) = delete;
    KnTimerDpc& operator=(const KnTimerDpc&) = delete;

    // Contract: any IRQL; the timer must not be pending.
    void InitializeDpc(PKDEFERRED_ROUTINE deferredRoutine, PVOID deferredContext)
    {
        mDpc.Initialize(deferredRoutine, deferredContext);
    }

    // Contract: IRQL <= DISPATCH_LEVEL. The DPC runs once, delayMs
    // milliseconds from now; a pending expiry is replaced. Without an
    // initialized DPC nothing is set.
    void SetTimer(ULONG delayMs)
    {
        IRQL_LTEQ_DISPATCH();
        KN_ASSERT(IsInitialized());
        if (!IsInitialized()) {
            return;  // an expiry would call no routine
        }
        LARGE_INTEGER dueTime;
        dueTime.QuadPart = -(LONGLONG)delayMs * 10000;
        KeSetTimer(&mTimer, dueTime, mDpc.GetDpc());
    }

    // Contract: IRQL <= DISPATCH_LEVEL. A DPC already queued still runs.
    void CancelTimer()
    {
        IRQL_LTEQ_DISPATCH();
        KeCancelTimer(&mTimer);
    }

    // Contract: any IRQL.
    bool IsInitialized() const { return mDpc.IsInitialized(); }

private:
    KTIMER mTimer;
    KnDpc mDpc;
};
