// The driver's allocator on NDIS's memory functions, the tagged new and
// delete, and KnObject's class-scope operators.
#include <ndis.h>

#include "knmemory.h"
#include "kntrace.h"

// Contract: IRQL <= DISPATCH_LEVEL. Non-paged memory; NULL on failure,
// without a trace (the caller traces).
PVOID NdAllocateMemory(ULONG NumberOfBytes, ULONG tag, bool zero)
{
    KN_ASSERT(NumberOfBytes>0);
    IRQL_LTEQ_DISPATCH();
    PVOID memory = NULL;
    NDIS_STATUS status = NdisAllocateMemoryWithTag(&memory, NumberOfBytes, tag);
    if (status != NDIS_STATUS_SUCCESS) {
        return NULL;
    }
    if (memory != NULL && zero) {
        RtlZeroMemory(memory, NumberOfBytes);
    }
    return memory;
}

// Contract: IRQL <= DISPATCH_LEVEL.
void NdFreeMemory(PVOID Memory)
{
    KN_ASSERT(Memory!=NULL);
    if (Memory == NULL) {
        return;
    }
    NdisFreeMemory(Memory, 0, 0);
}

namespace {

// Contract: IRQL <= DISPATCH_LEVEL. Zero-filled, non-paged.
void* KnTaggedNew(size_t size, POOL_TYPE poolType, ULONG tag)
{
    KN_ASSERT(size>0);
    KN_ASSERT(NonPagedPool==poolType);
    return NdAllocateMemory((ULONG)size, tag, true);
}

// Contract: IRQL <= DISPATCH_LEVEL. Deleting NULL does nothing.
void KnTaggedDelete(void* p)
{
    if (p != NULL) {
        NdFreeMemory(p);
    }
}

}  // namespace

// Contract: IRQL <= DISPATCH_LEVEL.
void* operator new(size_t size, POOL_TYPE poolType, ULONG tag) noexcept
{
    return KnTaggedNew(size, poolType, tag);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void* operator new[](size_t size, POOL_TYPE poolType, ULONG tag) noexcept
{
    return KnTaggedNew(size, poolType, tag);
}

// Contract: IRQL <= DISPATCH_LEVEL. Pairs with the tagged new when a
// constructor does not complete.
void operator delete(void* p, POOL_TYPE, ULONG) noexcept
{
    KnTaggedDelete(p);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void operator delete[](void* p, POOL_TYPE, ULONG) noexcept
{
    KnTaggedDelete(p);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void* KnObject::operator new(size_t size, POOL_TYPE poolType, ULONG tag) noexcept
{
    return KnTaggedNew(size, poolType, tag);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void* KnObject::operator new[](size_t size, POOL_TYPE poolType, ULONG tag) noexcept
{
    return KnTaggedNew(size, poolType, tag);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void KnObject::operator delete(void* p) noexcept
{
    KnTaggedDelete(p);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void KnObject::operator delete[](void* p) noexcept
{
    KnTaggedDelete(p);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void KnObject::operator delete(void* p, POOL_TYPE, ULONG) noexcept
{
    KnTaggedDelete(p);
}

// Contract: IRQL <= DISPATCH_LEVEL.
void KnObject::operator delete[](void* p, POOL_TYPE, ULONG) noexcept
{
    KnTaggedDelete(p);
}
