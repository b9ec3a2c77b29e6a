// Transfer buffer of bulk and interrupt transfers.
#include "KnUsbBulkIntBuffer.h"

#include "kntrace.h"

// Contract: any IRQL.
KnUsbBulkIntBuffer::KnUsbBulkIntBuffer() {}

// Contract: as Free; in no list.
KnUsbBulkIntBuffer::~KnUsbBulkIntBuffer()
{
    KnUsbBulkIntBuffer::Free();
}

// Contract: PASSIVE_LEVEL with pagesPath, else IRQL <= DISPATCH_LEVEL.
NTSTATUS KnUsbBulkIntBuffer::Allocate(UCHAR irpStackSize, ULONG urbSize, ULONG bufferSize, bool pagesPath)
{
    return KnUsbBufferBase::Allocate(irpStackSize, urbSize, bufferSize, pagesPath);
}

// Contract: as KnUsbBufferBase::Free.
void KnUsbBulkIntBuffer::Free()
{
    KnUsbBufferBase::Free();
}

// Contract: any IRQL; the request has completed.
ULONG KnUsbBulkIntBuffer::UpdateDataLength()
{
    PURB urb = mUrb;
    KN_ASSERT(urb!=NULL);
    if (urb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbBulkIntBuffer::UpdateDataLength: no URB\n");
        return 0;
    }
    mDataLength = urb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    return mDataLength;
}
