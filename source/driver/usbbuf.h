// The transfer buffer of the USB streams and the pool that owns a stream's
// buffers. A UsbBuf adds to the bulk/interrupt transfer buffer a second list
// link, free for the client, and a view of the data (start, end, size, valid
// length and a cursor) that the receive parser, the transmit builder and the
// notification decoder work on.
#pragma once

#include <ntddk.h>

#include "KnUsbBulkIntBuffer.h"
#include "QbDlList.h"
#include "knpoolbase.h"

class UsbBuf : public KnUsbBulkIntBuffer {
public:
    // Contract: any IRQL. No memory; the view is empty (all zero) and
    // mQueueEntry is unlinked. Created with tag "UBUF".
    UsbBuf();
    // Contract: as KnUsbBufferBase::~KnUsbBufferBase; in no list, and
    // mQueueEntry unlinked.
    ~UsbBuf() override;

    // Contract: as KnUsbBufferBase::Allocate.
    NTSTATUS Allocate(UCHAR irpStackSize, ULONG urbSize, ULONG bufferSize, bool pagesPath) override;
    // Contract: as KnUsbBufferBase::Free.
    void Free() override;

    // Contract: any IRQL; the caller holds the buffer. Points the view at the
    // whole buffer memory, with the received (or set) data length as mLength
    // and the cursor at the start.
    void InitView();

    // ---- client link ----
    // Free for the holder of the buffer: the receive path queues received
    // buffers through it. Guarded by the lock of the list it is in.
    QbDlListEntry mQueueEntry;

    // ---- view (owned by the holder of the buffer; set by InitView or by hand) ----
    PUCHAR mStart;           // start of the viewed data
    PUCHAR mEnd;             // end of the viewed memory
    ULONG mSize;             // size of the viewed memory
    ULONG mLength;           // number of valid bytes
    PUCHAR mCurrentBuffer;   // current position of the parser or builder
};

class UsbBufPool : public KnPoolBase {
public:
    // Contract: any IRQL. Empty, mBufferSize 0.
    UsbBufPool();
    // Contract: PASSIVE_LEVEL (the buffers' memory is page memory); no
    // buffer of the pool is out. FreeAll, then the pool's destructor.
    ~UsbBufPool() override;
    UsbBufPool(const UsbBufPool&) = delete;
    UsbBufPool& operator=(const UsbBufPool&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL (PASSIVE_LEVEL for page memory);
    // item not NULL and idle. Destroys one buffer.
    void DeleteItem(KnPoolItemBase* item) override;

    // Contract: PASSIVE_LEVEL; no lock held. Creates count buffers of
    // bufferSize bytes (page memory, a URB of 128 bytes, an IRP with
    // irpStackSize locations) and adds them to the pool, indices in creation
    // order. Buffers already in the pool stay. Any failure frees every idle
    // buffer and returns STATUS_NO_MEMORY.
    NTSTATUS Allocate(ULONG count, ULONG bufferSize, UCHAR irpStackSize);
    // Contract: IRQL <= DISPATCH_LEVEL; callers may hold their own locks.
    // The idle buffer that waited longest, or NULL when none is idle.
    UsbBuf* GetBuffer() { return static_cast<UsbBuf*>(GetItem()); }
    // Contract: PASSIVE_LEVEL; no lock held. Destroys every idle buffer;
    // buffers that are out are forgotten by the pool.
    void FreeAll() { FreeAllItems(); }

    // Contract: any IRQL. The data size of every buffer; 0 until Allocate.
    ULONG GetBufferSize() const { return mBufferSize; }

private:
    // ---- configuration (written by Allocate at PASSIVE_LEVEL, under the owner's mutex) ----
    ULONG mBufferSize;  // data size of every buffer of the pool
};
