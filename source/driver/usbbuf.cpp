// Stream transfer buffer with its data view, and the buffer pool.
#include "usbbuf.h"

#include "knpooltags.h"
#include "kntrace.h"
#include "stream.h"

// ---------------------------------------------------------------------------
// UsbBuf
// ---------------------------------------------------------------------------

// Contract: any IRQL.
UsbBuf::UsbBuf() : mStart(NULL), mEnd(NULL), mSize(0), mLength(0), mCurrentBuffer(NULL) {}

// Contract: as KnUsbBufferBase::~KnUsbBufferBase; in no list.
UsbBuf::~UsbBuf()
{
    KN_ASSERT(!mQueueEntry.IsLinked());
    UsbBuf::Free();
}

// Contract: as KnUsbBufferBase::Allocate.
NTSTATUS UsbBuf::Allocate(UCHAR irpStackSize, ULONG urbSize, ULONG bufferSize, bool pagesPath)
{
    return KnUsbBulkIntBuffer::Allocate(irpStackSize, urbSize, bufferSize, pagesPath);
}

// Contract: as KnUsbBufferBase::Free.
void UsbBuf::Free()
{
    KnUsbBulkIntBuffer::Free();
}

// Contract: any IRQL; the caller holds the buffer.
void UsbBuf::InitView()
{
    mStart = static_cast<PUCHAR>(Buffer());
    mSize = BufferSize();
    mEnd = mStart + mSize;
    mLength = DataLength();
    mCurrentBuffer = mStart;
}

// ---------------------------------------------------------------------------
// UsbBufPool
// ---------------------------------------------------------------------------

// Contract: any IRQL.
UsbBufPool::UsbBufPool() : mBufferSize(0) {}

// Contract: PASSIVE_LEVEL; no buffer out.
UsbBufPool::~UsbBufPool()
{
    FreeAll();
}

// Contract: IRQL <= DISPATCH_LEVEL (PASSIVE_LEVEL for page memory).
void UsbBufPool::DeleteItem(KnPoolItemBase* item)
{
    KnPoolBase::DeleteItem(item);
}

// Contract: PASSIVE_LEVEL; no lock held.
NTSTATUS UsbBufPool::Allocate(ULONG count, ULONG bufferSize, UCHAR irpStackSize)
{
    IRQL_EQ_PASSIVE();
    mBufferSize = bufferSize;
    for (ULONG i = 0; i < count; i++) {
        UsbBuf* buf = new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) UsbBuf();
        if (buf == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:UsbBufPool::Allocate new KnUsbBulkIntBuffer failed\n");
            FreeAll();
            return STATUS_NO_MEMORY;
        }
        NTSTATUS status = buf->Allocate(irpStackSize, STREAM_URB_SIZE, bufferSize, true);
        if (!NT_SUCCESS(status)) {
            KN_TRACE(KN_TRACE_ERROR, "%P:UsbBufPool::Allocate Allocate %u failed\n", bufferSize);
            delete buf;
            FreeAll();
            return STATUS_NO_MEMORY;
        }
        AddItem(buf);
    }
    return STATUS_SUCCESS;
}
