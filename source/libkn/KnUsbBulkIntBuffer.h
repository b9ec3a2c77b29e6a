// The transfer buffer of bulk and interrupt transfers: its URB is the
// platform's bulk-or-interrupt transfer URB, filled by the owner before
// every submission.
#pragma once

#include <ntddk.h>

#include "knusbbufferbase.h"

class KnUsbBulkIntBuffer : public KnUsbBufferBase {
public:
    // Contract: any IRQL. Empty.
    KnUsbBulkIntBuffer();
    // Contract: as KnUsbBufferBase::Free; in no list.
    ~KnUsbBulkIntBuffer() override;

    // Contract: as KnUsbBufferBase.
    NTSTATUS Allocate(UCHAR irpStackSize, ULONG urbSize, ULONG bufferSize, bool pagesPath) override;
    void Free() override;

    // Contract: any IRQL; the request has completed. Takes the bytes the
    // bus driver reports as transferred into DataLength and returns them.
    ULONG UpdateDataLength();
};
