// Data memory of a transfer buffer with its MDL.
#include "knmdlmappedbuffer.h"

#include "knmemory.h"
#include "knpooltags.h"
#include "kntrace.h"

// Contract: any IRQL.
KnMdlMappedBuffer::KnMdlMappedBuffer()
    : mSystemAddress(NULL), mByteCount(0), mMdl(NULL), mPagesAllocated(0)
{
}

// Contract: as Free.
KnMdlMappedBuffer::~KnMdlMappedBuffer()
{
    Free();
}

// Contract: PASSIVE_LEVEL with pagesPath, else IRQL <= DISPATCH_LEVEL; the
// object is empty.
NTSTATUS KnMdlMappedBuffer::Allocate(ULONG size, bool pagesPath)
{
    KN_ASSERT(!IsValid());
    mByteCount = size;
    mPagesAllocated = pagesPath ? 1 : 0;

    if (pagesPath) {
        IRQL_EQ_PASSIVE();
        PHYSICAL_ADDRESS low;
        PHYSICAL_ADDRESS high;
        PHYSICAL_ADDRESS skip;
        low.QuadPart = 0;
        high.QuadPart = 0xFFFFF000;  // pages below 4 GiB
        skip.QuadPart = 0;
        mMdl = MmAllocatePagesForMdl(low, high, skip, size);
        if (mMdl == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnMdlMappedBuffer::Allocate: MmAllocatePagesForMdl(%u) failed\n", size);
            Free();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        if (MmGetMdlByteCount(mMdl) < size) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnMdlMappedBuffer::Allocate: buffer too small, req:%u got:%u\n", size,
                     MmGetMdlByteCount(mMdl));
            Free();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        // As MmGetSystemAddressForMdlSafe: an existing system mapping is
        // used as it is; otherwise the pages are mapped here.
        if (mMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
            mSystemAddress = mMdl->MappedSystemVa;
        } else {
            mSystemAddress = MmMapLockedPagesSpecifyCache(mMdl, KernelMode, MmCached, NULL, FALSE, LowPagePriority);
        }
        if (mSystemAddress == NULL) {
            KN_TRACE(KN_TRACE_ERROR, "%P:KnMdlMappedBuffer::Allocate: MmGetSystemAddressForMdlSafe(%u) failed\n", size);
            Free();
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        RtlZeroMemory(mSystemAddress, mByteCount);
        return STATUS_SUCCESS;
    }

    IRQL_LTEQ_DISPATCH();
    mSystemAddress = KnAllocateMemory(NonPagedPool, mByteCount, KN_POOL_TAG_MDL_BUFFER, true);
    if (mSystemAddress == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnMdlMappedBuffer::Allocate: alloc buffer (%u bytes) failed\n", size);
        Free();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    mMdl = IoAllocateMdl(mSystemAddress, mByteCount, FALSE, FALSE, NULL);
    if (mMdl == NULL) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnMdlMappedBuffer::Allocate: alloc MDL failed\n");
        Free();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    MmBuildMdlForNonPagedPool(mMdl);
    return STATUS_SUCCESS;
}

// Contract: PASSIVE_LEVEL for a page-path buffer, else IRQL <= DISPATCH_LEVEL.
void KnMdlMappedBuffer::Free()
{
    if (mPagesAllocated) {
        IRQL_EQ_PASSIVE();
        if (mMdl != NULL) {
            // Pages of MmAllocatePagesForMdl come without a system mapping,
            // so a mapping on the MDL is the one Allocate made.
            if ((mMdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) && !(mMdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL)) {
                MmUnmapLockedPages(mMdl->MappedSystemVa, mMdl);
            }
            MmFreePagesFromMdl(mMdl);
            IoFreeMdl(mMdl);
        }
        mMdl = NULL;
        mSystemAddress = NULL;
    } else {
        IRQL_LTEQ_DISPATCH();
        if (mMdl != NULL) {
            IoFreeMdl(mMdl);
            mMdl = NULL;
        }
        if (mSystemAddress != NULL) {
            KnFreeMemory(mSystemAddress);
            mSystemAddress = NULL;
        }
    }
    mByteCount = 0;
}
