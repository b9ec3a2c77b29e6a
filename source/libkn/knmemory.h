// Pool allocation of the kernel library, the driver's tagged new and delete,
// and an owned memory block.
//
// The process's global operator new and delete belong to the host (standard
// library, test framework), so the driver's tagged operators cannot replace
// them. Instead:
//  - objects:  classes that are created with `new (NonPagedPool, tag) T(...)`
//    derive from KnObject, whose class-scope operators allocate through
//    NdAllocateMemory and whose `delete` frees through NdFreeMemory;
//  - arrays of plain bytes: `new (NonPagedPool, tag) UCHAR[n]` uses the
//    global placement form below and is freed with KnDeleteArray.
#pragma once

#include <ntddk.h>

// Library allocator on the kernel pool functions.
PVOID KnAllocateMemory(POOL_TYPE poolType, ULONGLONG numberOfBytes, ULONG tag, bool zero);
void KnFreeMemory(PVOID memory);

// Driver allocator on NDIS's memory functions (non-paged).
PVOID NdAllocateMemory(ULONG numberOfBytes, ULONG tag, bool zero);
void NdFreeMemory(PVOID memory);

// Tagged new: zero-filled, non-paged only (asserts "NonPagedPool==poolType").
void* operator new(size_t size, POOL_TYPE poolType, ULONG tag) noexcept;
void* operator new[](size_t size, POOL_TYPE poolType, ULONG tag) noexcept;
void operator delete(void* p, POOL_TYPE poolType, ULONG tag) noexcept;
void operator delete[](void* p, POOL_TYPE poolType, ULONG tag) noexcept;

class KnObject {
public:
    static void* operator new(size_t size, POOL_TYPE poolType, ULONG tag) noexcept;
    static void* operator new[](size_t size, POOL_TYPE poolType, ULONG tag) noexcept;
    static void operator delete(void* p) noexcept;  // delete of NULL does nothing
    static void operator delete[](void* p) noexcept;
    static void operator delete(void* p, POOL_TYPE poolType, ULONG tag) noexcept;
    static void operator delete[](void* p, POOL_TYPE poolType, ULONG tag) noexcept;
};

// Frees an array of plain values made with the global tagged new[].
template <typename T>
inline void KnDeleteArray(T* p) {
    if (p != NULL) NdFreeMemory(p);
}

// An owned block of pool memory: the pointer (NULL when empty) and its size
// in bytes. The destructor frees the block.
class KnBufferBlock {
public:
    // Contract: any IRQL. Empty.
    KnBufferBlock() : mBuffer(NULL), mSize(0) {}
    // Contract: IRQL <= DISPATCH_LEVEL (the block's pool allows freeing there).
    ~KnBufferBlock() { Free(); }
    KnBufferBlock(const KnBufferBlock&) = delete;
    KnBufferBlock& operator=(const KnBufferBlock&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL, PagedPool only at or below
    // APC_LEVEL. Frees the current block, then allocates numberOfBytes;
    // returns the new block, NULL on failure (the object is then empty).
    PVOID Allocate(POOL_TYPE poolType, ULONGLONG numberOfBytes, ULONG tag, bool zero);
    // As Allocate, for `count` UTF-16 characters (count * 2 bytes).
    PWCHAR AllocateWide(POOL_TYPE poolType, ULONGLONG count, ULONG tag, bool zero);
    // Contract: IRQL <= DISPATCH_LEVEL. Frees the block if there is one.
    void Free();

    // Contract: any IRQL.
    PVOID GetBuffer() const { return mBuffer; }
    PWCHAR GetWideBuffer() const { return static_cast<PWCHAR>(mBuffer); }
    ULONGLONG GetSize() const { return mSize; }

private:
    PVOID mBuffer;      // the block, NULL when empty
    ULONGLONG mSize;    // its size in bytes, 0 when empty
};

// A four-character pool tag as a little-endian u32: KN_TAG("MpAd") == 0x6441704D.
#define KN_TAG(s) ((ULONG)(UCHAR)(s)[0] | (ULONG)(UCHAR)(s)[1] << 8 | (ULONG)(UCHAR)(s)[2] << 16 | (ULONG)(UCHAR)(s)[3] << 24)
