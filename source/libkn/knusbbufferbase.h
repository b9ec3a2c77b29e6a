// A transfer buffer: one reusable USB request made of an IRP, a URB and a
// block of data memory with its MDL, allocated once and then submitted
// again and again on a data pipe. Buffers live in pools and know their pool.
#pragma once

#include <ntddk.h>
#include <usbdi.h>

#include "knmdlmappedbuffer.h"
#include "knpoolitembase.h"

class KnUsbDataPipeBase;

class KnUsbBufferBase : public KnPoolItemBase {
public:
    // Contract: any IRQL. Empty.
    KnUsbBufferBase();
    // Contract: PASSIVE_LEVEL for page-path memory, else IRQL <=
    // DISPATCH_LEVEL; the buffer is in no list. Frees everything.
    ~KnUsbBufferBase() override;

    // Contract: PASSIVE_LEVEL with pagesPath, else IRQL <= DISPATCH_LEVEL;
    // the buffer holds nothing yet. Allocates data memory of bufferSize
    // bytes, a zero-filled URB of urbSize bytes and an IRP with
    // irpStackSize stack locations; a size of 0 skips that part. A failure
    // frees everything.
    virtual NTSTATUS Allocate(UCHAR irpStackSize, ULONG urbSize, ULONG bufferSize, bool pagesPath);
    // Contract: as the destructor. Frees each part that is present.
    virtual void Free();

    // Contract for the accessors: any IRQL; the holder of the buffer (its
    // pool, the pipe while submitted, or the owner) serializes.
    PURB Urb() const { return mUrb; }
    ULONG UrbSize() const { return mUrbSize; }
    PIRP Irp() const { return mIrp; }
    PMDL Mdl() const { return mMdlMappedBuffer.GetMdl(); }
    PVOID Buffer() const { return mMdlMappedBuffer.GetSystemAddress(); }
    ULONG BufferSize() const { return mMdlMappedBuffer.GetByteCount(); }
    ULONG DataLength() const { return mDataLength; }
    // The status of the last GetCompletionStatus.
    NTSTATUS Status() const { return mStatus; }
    // The pipe of the last submission.
    KnUsbDataPipeBase* OwnerPipe() const { return mOwnerPipe; }

    // Contract: any IRQL; length at most BufferSize().
    void SetDataLength(ULONG length);
    // Contract: any IRQL; a URB is allocated. Zero-fills the whole URB.
    void ZeroUrb();
    // Contract: any IRQL; an IRP is allocated. The IRP's I/O status.
    NTSTATUS IrpStatus() const;
    // Contract: any IRQL; a URB is allocated. The URB header's status.
    USBD_STATUS UrbStatus() const;

    // Contract: IRQL <= DISPATCH_LEVEL; the request has completed. Maps the
    // IRP and URB status to one status (STATUS_DEVICE_NOT_CONNECTED for a
    // removed device), stores it and returns it.
    NTSTATUS GetCompletionStatus();

protected:
    friend class KnUsbDataPipeBase;

    // ---- engine state (guarded by the owner pipe's mPipeLock while submitted) ----
    KnUsbDataPipeBase* mOwnerPipe;  // pipe of the last submission
    UCHAR mSubmitReturned;          // the submitting call has returned from the bus driver
    UCHAR mCompleted;               // the bus driver has completed the request

    // ---- result ----
    NTSTATUS mStatus;     // result of the last GetCompletionStatus
    ULONG mDataLength;    // bytes of data: to send, or received

    // ---- request and memory ----
    PURB mUrb;                           // zero-filled non-paged pool, tag "UrbB"
    ULONG mUrbSize;                      // size of mUrb in bytes
    PIRP mIrp;                           // reused for every submission
    KnMdlMappedBuffer mMdlMappedBuffer;  // data memory
};
