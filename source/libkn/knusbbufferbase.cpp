// Transfer buffer: IRP, URB and data memory.
#include "knusbbufferbase.h"

#include "knmemory.h"
#include "knpooltags.h"
#include "kntrace.h"

// Contract: any IRQL.
KnUsbBufferBase::KnUsbBufferBase()
    : mOwnerPipe(NULL),
      mSubmitReturned(0),
      mCompleted(0),
      mStatus(STATUS_UNSUCCESSFUL),
      mDataLength(0),
      mUrb(NULL),
      mUrbSize(0),
      mIrp(NULL)
{
}

// Contract: as Free; in no list.
KnUsbBufferBase::~KnUsbBufferBase()
{
    KN_ASSERT(!mListEntry.IsLinked());
    KnUsbBufferBase::Free();
}

// Contract: PASSIVE_LEVEL with pagesPath, else IRQL <= DISPATCH_LEVEL.
NTSTATUS KnUsbBufferBase::Allocate(UCHAR irpStackSize, ULONG urbSize, ULONG bufferSize, bool pagesPath)
{
    if (bufferSize != 0) {
        KN_ASSERT(!mMdlMappedBuffer.IsValid());
        NTSTATUS st = mMdlMappedBuffer.Allocate(bufferSize, pagesPath);
        if (st != STATUS_SUCCESS) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbBufferBase::Allocate: MdlMappedBuffer Allocate failed (%N)\n", st);
            Free();
            return st;
        }
    }
    if (urbSize != 0) {
        KN_ASSERT(NULL==mUrb);
        mUrb = static_cast<PURB>(KnAllocateMemory(NonPagedPool, urbSize, KN_POOL_TAG_URB, true));
        if (mUrb == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbBufferBase::Allocate: alloc URB (%u bytes) failed\n", urbSize);
            Free();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        mUrbSize = urbSize;
    }
    if (irpStackSize != 0) {
        KN_ASSERT(NULL==mIrp);
        mIrp = IoAllocateIrp((CCHAR)irpStackSize, FALSE);
        if (mIrp == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbBufferBase::Allocate: alloc IRP failed\n");
            Free();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL for page-path memory, else IRQL <= DISPATCH_LEVEL;
// the buffer is not submitted.
void KnUsbBufferBase::Free()
{
    if (mIrp != NULL) {
        IoFreeIrp(mIrp);
        mIrp = NULL;
    }
    if (mUrb != NULL) {
        KnFreeMemory(mUrb);
        mUrb = NULL;
    }
    mUrbSize = 0;
    mMdlMappedBuffer.Free();
}

// Contract: any IRQL.
void KnUsbBufferBase::SetDataLength(ULONG length)
{
    mDataLength = length;
    KN_ASSERT(mDataLength<=BufferSize());
}

// Contract: any IRQL.
void KnUsbBufferBase::ZeroUrb()
{
    KN_ASSERT(mUrb!=NULL);
    if (mUrb != NULL) {
        RtlZeroMemory(mUrb, mUrbSize);
    }
}

// Contract: any IRQL.
NTSTATUS KnUsbBufferBase::IrpStatus() const
{
    KN_ASSERT(mIrp!=NULL);
    return (mIrp != NULL) ? mIrp->IoStatus.Status : STATUS_UNSUCCESSFUL;
}

// Contract: any IRQL.
USBD_STATUS KnUsbBufferBase::UrbStatus() const
{
    KN_ASSERT(mUrb!=NULL);
    return (mUrb != NULL) ? mUrb->UrbHeader.Status : USBD_STATUS_INVALID_PARAMETER;
}

// Contract: IRQL <= DISPATCH_LEVEL; the request has completed.
NTSTATUS KnUsbBufferBase::GetCompletionStatus()
{
    PIRP irp = mIrp;
    PURB urb = mUrb;
    if (irp != NULL && urb != NULL && NT_SUCCESS(irp->IoStatus.Status) && USBD_SUCCESS(urb->UrbHeader.Status)) {
        mStatus = STATUS_SUCCESS;
        return mStatus;
    }
    KN_ASSERT(irp!=NULL);
    KN_ASSERT(urb!=NULL);
    if (irp == NULL || urb == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnUsbBufferBase::GetCompletionStatus: no IRP or URB\n");
        mStatus = STATUS_UNSUCCESSFUL;
        return mStatus;
    }
    const NTSTATUS irpStatus = irp->IoStatus.Status;
    if (NT_SUCCESS(irpStatus)) {
        // The request went through the bus driver, the transfer failed.
        mStatus = (urb->UrbHeader.Status == USBD_STATUS_DEVICE_GONE) ? STATUS_DEVICE_NOT_CONNECTED
                                                                     : STATUS_UNSUCCESSFUL;
    } else if (irpStatus == STATUS_DEVICE_NOT_CONNECTED || irpStatus == STATUS_NO_SUCH_DEVICE) {
        mStatus = STATUS_DEVICE_NOT_CONNECTED;
    } else {
        // A cancelled or aborted request reports STATUS_CANCELLED this way.
        mStatus = irpStatus;
    }
    return mStatus;
}
