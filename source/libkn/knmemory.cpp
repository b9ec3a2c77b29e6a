// Pool allocation of the kernel library and the owned memory block.
#include "knmemory.h"

#include "kntrace.h"

// Contract: IRQL <= DISPATCH_LEVEL; PagedPool only at or below APC_LEVEL.
// Returns NULL on failure, without a trace (the caller traces).
PVOID KnAllocateMemory(POOL_TYPE PoolType, ULONGLONG NumberOfBytes, ULONG tag, bool zero)
{
    KN_ASSERT(NumberOfBytes>0);
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(!(PoolType==PagedPool && KeGetCurrentIrql()>APC_LEVEL));
    PVOID memory = ExAllocatePoolWithTag(PoolType, (SIZE_T)NumberOfBytes, tag);
    if (memory != NULL && zero) {
        RtlZeroMemory(memory, (SIZE_T)NumberOfBytes);
    }
    return memory;
}

// Contract: IRQL <= DISPATCH_LEVEL (paged memory at or below APC_LEVEL).
void KnFreeMemory(PVOID Memory)
{
    KN_ASSERT(Memory!=NULL);
    if (Memory == NULL) {
        return;
    }
    ExFreePoolWithTag(Memory, 0);
}

// Contract: IRQL <= DISPATCH_LEVEL; PagedPool only at or below APC_LEVEL.
PVOID KnBufferBlock::Allocate(POOL_TYPE poolType, ULONGLONG numberOfBytes, ULONG tag, bool zero)
{
    KN_ASSERT(!(PagedPool==poolType && KeGetCurrentIrql()>APC_LEVEL));
    KN_ASSERT(numberOfBytes>0);
    Free();
    PVOID block = KnAllocateMemory(poolType, numberOfBytes, tag, zero);
    if (block != NULL) {
        mBuffer = block;
        mSize = numberOfBytes;
    }
    return block;
}

// Contract: as Allocate.
PWCHAR KnBufferBlock::AllocateWide(POOL_TYPE poolType, ULONGLONG count, ULONG tag, bool zero)
{
    return static_cast<PWCHAR>(Allocate(poolType, count * sizeof(WCHAR), tag, zero));
}

// Contract: IRQL <= DISPATCH_LEVEL (a paged block at or below APC_LEVEL).
void KnBufferBlock::Free()
{
    if (mBuffer != NULL) {
        KnFreeMemory(mBuffer);
        mBuffer = NULL;
        mSize = 0;
    }
}
