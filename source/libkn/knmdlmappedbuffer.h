// The data memory of a transfer buffer, always described by an MDL: either
// whole physical pages below 4 GiB mapped cached into system space (page
// path) or a non-paged pool block (pool path).
#pragma once

#include <ntddk.h>

class KnMdlMappedBuffer {
public:
    // Contract: any IRQL. Empty.
    KnMdlMappedBuffer();
    // Contract: PASSIVE_LEVEL for a page-path buffer, else IRQL <=
    // DISPATCH_LEVEL. Frees what is left.
    ~KnMdlMappedBuffer();
    KnMdlMappedBuffer(const KnMdlMappedBuffer&) = delete;
    KnMdlMappedBuffer& operator=(const KnMdlMappedBuffer&) = delete;

    // Contract: PASSIVE_LEVEL with pagesPath, else IRQL <= DISPATCH_LEVEL;
    // the object is empty. Allocates `size` zero-filled bytes and their
    // MDL. Partial page allocations are refused. A failure leaves the object
    // empty and returns STATUS_INSUFFICIENT_RESOURCES.
    NTSTATUS Allocate(ULONG size, bool pagesPath);
    // Contract: as the destructor. Safe on an empty object.
    void Free();

    // Contract: any IRQL.
    bool IsValid() const { return mSystemAddress != NULL; }
    PVOID GetSystemAddress() const { return mSystemAddress; }
    ULONG GetByteCount() const { return mByteCount; }
    PMDL GetMdl() const { return mMdl; }
    bool ArePagesAllocated() const { return mPagesAllocated != 0; }

private:
    // ---- memory (owned; the user of the object serializes) ----
    PVOID mSystemAddress;   // not NULL exactly when valid
    ULONG mByteCount;       // requested size in bytes
    PMDL mMdl;              // describes the data pages
    UCHAR mPagesAllocated;  // 1: page path, 0: pool path; set by every Allocate
};
