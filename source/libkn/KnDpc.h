// A DPC that can be queued on demand. It counts as initialized once its
// deferred routine is set.
#pragma once

#include <ntddk.h>

#include "kntrace.h"

class KnDpc {
public:
    // Contract: any IRQL. Zeroed, not initialized.
    KnDpc() { RtlZeroMemory(&mDpc, sizeof(mDpc)); }
    KnDpc(const KnDpc&) = delete;
    KnDpc& operator=(const KnDpc&) = delete;

    // Contract: any IRQL; the DPC must not be queued.
    void Initialize(PKDEFERRED_ROUTINE deferredRoutine, PVOID deferredContext)
    {
        KeInitializeDpc(&mDpc, deferredRoutine, deferredContext);
    }

    // Contract: IRQL <= DISPATCH_LEVEL. True when newly queued, false when it
    // was queued already (or is not initialized).
    bool InsertQueue(PVOID systemArgument1, PVOID systemArgument2)
    {
        IRQL_LTEQ_DISPATCH();
        KN_ASSERT(IsInitialized());
        if (!IsInitialized()) {
            return false;  // there is no routine to run
        }
        return KeInsertQueueDpc(&mDpc, systemArgument1, systemArgument2) != FALSE;
    }

    // Contract: any IRQL.
    bool IsInitialized() const { return mDpc.DeferredRoutine != NULL; }

    // Contract: any IRQL. The platform's DPC object.
    PKDPC GetDpc() { return &mDpc; }

private:
    KDPC mDpc;
};
