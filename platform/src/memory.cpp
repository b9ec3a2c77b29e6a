// Pool memory, NDIS memory, MDLs, pages and contiguous memory.
//
// Every pool block is a host heap block with a header in front of it (magic,
// tag, pool type, size). The header lets a free find the block's tag; the set
// of live blocks lets a free of a pointer that is not ours be told apart
// without reading memory that may not exist. Pages for MDLs and contiguous
// memory are page-aligned host blocks, kept in their own table.
//
// All of it is accounted per tag: IRPs, MDLs, work items and device objects
// are allocated here too (with the stand-in's own tags), so that one counter,
// PoolAllocationCount, sees every allocation the driver causes.
#include <kplat/platform.h>
#include <ndis.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "internal.h"

using namespace kplat_internal;

namespace {

constexpr uint64_t kLiveMagic = 0x4C4F4F50544C5045ull;  // "EPLTPOOL"
constexpr uint64_t kFreedMagic = 0x4545524644454546ull;
constexpr UCHAR kNewFill = 0xCD;   // fresh pool: not zeroed, as on the platform
constexpr UCHAR kFreedFill = 0xDD;  // freed pool, so that a late use reads garbage

// BAD_POOL_CALLER first parameters.
constexpr ULONG_PTR kPoolBadIrqlAllocate = 0x08;
constexpr ULONG_PTR kPoolBadIrqlFree = 0x09;
constexpr ULONG_PTR kPoolWrongTag = 0x0A;
constexpr ULONG_PTR kPoolHeaderCorrupt = 0x01;
constexpr ULONG_PTR kPoolInvalidAddress = 0x46;

// SYSTEM_PTE_MISUSE (not declared in ntddk.h): a mapping used wrongly.
constexpr ULONG kSystemPteMisuse = 0x000000DA;

constexpr ULONG kTagPages = kplat::MakeTag("Page");
constexpr ULONG kTagContiguous = kplat::MakeTag("Cont");
constexpr ULONG kTagMdl = kplat::MakeTag("Mdl ");

struct alignas(16) PoolHeader {
    uint64_t magic;
    ULONG tag;
    ULONG poolType;
    uint64_t size;
    uint64_t reserved;
};
static_assert(sizeof(PoolHeader) == 32, "pool blocks stay 16-byte aligned");

struct PageBlock {
    ULONG tag;
    uint64_t size;
};

struct PoolState {
    std::mutex lock;
    std::map<ULONG, kplat::PoolTagStats> tags;
    std::unordered_set<void*> liveBlocks;               // user addresses of pool blocks
    std::unordered_map<void*, PageBlock> pageBlocks;    // pages and contiguous memory
    uint64_t failCountdown = 0;                         // 0: no nth-allocation fault
    std::map<ULONG, uint64_t> failTags;
    ULONG shortenNextPages = 0;
};

// Never destroyed: driver code may free memory from static destructors.
PoolState& State() {
    static PoolState* state = new PoolState;
    return *state;
}

std::atomic<uint64_t> gAllocationCount{0};

// Depth of StandInAllocationScope on this thread.
thread_local int tStandInAllocations = 0;

// Decides whether this allocation is one that fault injection fails. Every
// allocation of the driver moves the nth-allocation countdown, whatever its
// tag; the stand-in's own allocations are left out.
bool InjectFault(PoolState& s, ULONG tag) {
    if (tStandInAllocations > 0) return false;
    bool fail = false;
    if (s.failCountdown != 0 && --s.failCountdown == 0) fail = true;
    auto it = s.failTags.find(tag);
    if (!fail && it != s.failTags.end() && it->second != 0) {
        if (it->second != UINT64_MAX) it->second--;
        fail = true;
    }
    return fail;
}

void RecordAllocation(PoolState& s, ULONG tag, uint64_t size) {
    kplat::PoolTagStats& t = s.tags[tag];
    t.tag = tag;
    t.liveCount++;
    t.liveBytes += size;
    if (t.liveBytes > t.highWaterBytes) t.highWaterBytes = t.liveBytes;
    t.allocations++;
    gAllocationCount.fetch_add(1, std::memory_order_relaxed);
}

void RecordFree(PoolState& s, ULONG tag, uint64_t size) {
    kplat::PoolTagStats& t = s.tags[tag];
    t.liveCount--;
    t.liveBytes -= size;
    t.frees++;
}

bool CheckAllocateIrql(POOL_TYPE type, SIZE_T size, const char* what) {
    KIRQL irql = CurrentIrql();
    KIRQL limit = type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL;
    if (irql <= limit) return true;
    char text[160];
    snprintf(text, sizeof text, "%s: %s allocation at IRQL %u (at most %u)", what,
             type == PagedPool ? "paged" : "non-paged", irql, limit);
    CheckFailed(BAD_POOL_CALLER, kPoolBadIrqlAllocate, irql, (ULONG_PTR)type, size, text);
    return false;
}

bool CheckIrqlAtMost(KIRQL limit, const char* what) {
    KIRQL irql = CurrentIrql();
    if (irql <= limit) return true;
    char text[160];
    snprintf(text, sizeof text, "%s at IRQL %u (at most %u)", what, irql, limit);
    CheckFailed(IRQL_NOT_LESS_OR_EQUAL, 0, irql, limit, 0, text);
    return false;
}

// Allocates a page-aligned block of whole pages with the given accounting
// tag; fills it with `fill`. NULL on an injected fault.
void* AllocatePageBlock(uint64_t bytes, ULONG tag, UCHAR fill) {
    uint64_t rounded = (bytes + PAGE_SIZE - 1) & ~(uint64_t)(PAGE_SIZE - 1);
    PoolState& s = State();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (InjectFault(s, tag)) return nullptr;
    }
    void* p = std::aligned_alloc(PAGE_SIZE, rounded);
    if (p == nullptr) return nullptr;
    memset(p, fill, rounded);
    std::lock_guard<std::mutex> guard(s.lock);
    s.pageBlocks[p] = PageBlock{tag, rounded};
    RecordAllocation(s, tag, rounded);
    return p;
}

// Frees a block of AllocatePageBlock; false if `p` is not a live block with
// that tag.
bool FreePageBlock(void* p, ULONG tag) {
    PoolState& s = State();
    uint64_t size;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto it = s.pageBlocks.find(p);
        if (it == s.pageBlocks.end() || it->second.tag != tag) return false;
        size = it->second.size;
        s.pageBlocks.erase(it);
        RecordFree(s, tag, size);
    }
    memset(p, kFreedFill, size);
    std::free(p);
    return true;
}

}  // namespace

kplat_internal::StandInAllocationScope::StandInAllocationScope() { tStandInAllocations++; }
kplat_internal::StandInAllocationScope::~StandInAllocationScope() { tStandInAllocations--; }

// ---------------------------------------------------------------------------
// Pool
// ---------------------------------------------------------------------------
PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    if (!CheckAllocateIrql(PoolType, NumberOfBytes, "ExAllocatePoolWithTag")) return nullptr;
    PoolState& s = State();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (InjectFault(s, Tag)) return nullptr;
    }
    auto* header = (PoolHeader*)std::malloc(sizeof(PoolHeader) + NumberOfBytes);
    if (header == nullptr) return nullptr;
    header->magic = kLiveMagic;
    header->tag = Tag;
    header->poolType = (ULONG)PoolType;
    header->size = NumberOfBytes;
    header->reserved = 0;
    void* p = header + 1;
    memset(p, kNewFill, NumberOfBytes);
    std::lock_guard<std::mutex> guard(s.lock);
    s.liveBlocks.insert(p);
    RecordAllocation(s, Tag, NumberOfBytes);
    return p;
}

void ExFreePoolWithTag(PVOID P, ULONG Tag) {
    PoolState& s = State();
    PoolHeader* header = (PoolHeader*)((uintptr_t)P - sizeof(PoolHeader));  // read only once P is known
    KIRQL irql = CurrentIrql();
    char text[200];
    uint64_t size;
    {
        std::unique_lock<std::mutex> guard(s.lock);
        if (P == nullptr || s.liveBlocks.count(P) == 0) {
            // Never allocated here, or already freed: its memory is not read.
            guard.unlock();
            snprintf(text, sizeof text, "ExFreePoolWithTag(%p, '%s'): not a live pool block", P,
                     kplat::TagToString(Tag).c_str());
            CheckFailed(BAD_POOL_CALLER, kPoolInvalidAddress, (ULONG_PTR)P, 0, Tag, text);
            return;
        }
        if (header->magic != kLiveMagic) {
            guard.unlock();
            snprintf(text, sizeof text, "ExFreePoolWithTag(%p): pool header overwritten", P);
            CheckFailed(BAD_POOL_CALLER, kPoolHeaderCorrupt, (ULONG_PTR)P, (ULONG_PTR)header->magic, 0, text);
            return;
        }
        KIRQL limit = header->poolType == PagedPool ? APC_LEVEL : DISPATCH_LEVEL;
        if (irql > limit) {
            ULONG type = header->poolType;
            guard.unlock();
            snprintf(text, sizeof text, "ExFreePoolWithTag(%p): %s free at IRQL %u (at most %u)", P,
                     type == PagedPool ? "paged" : "non-paged", irql, limit);
            CheckFailed(BAD_POOL_CALLER, kPoolBadIrqlFree, irql, type, (ULONG_PTR)P, text);
            return;
        }
        if (Tag != 0 && Tag != header->tag) {
            ULONG owner = header->tag;
            guard.unlock();
            snprintf(text, sizeof text, "ExFreePoolWithTag(%p, '%s'): the block has tag '%s'", P,
                     kplat::TagToString(Tag).c_str(), kplat::TagToString(owner).c_str());
            CheckFailed(BAD_POOL_CALLER, kPoolWrongTag, (ULONG_PTR)P, owner, Tag, text);
            return;
        }
        s.liveBlocks.erase(P);
        size = header->size;
        RecordFree(s, header->tag, size);
    }
    header->magic = kFreedMagic;
    memset(P, kFreedFill, size);
    std::free(header);
}

void ExFreePool(PVOID P) { ExFreePoolWithTag(P, 0); }

// ---------------------------------------------------------------------------
// NDIS memory: non-paged pool with the caller's tag.
// ---------------------------------------------------------------------------
NDIS_STATUS NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag) {
    *VirtualAddress = ExAllocatePoolWithTag(NonPagedPool, Length, Tag);
    return *VirtualAddress != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_FAILURE;
}

// Length and MemoryFlags are not checked against the allocation.
void NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags) {
    (void)Length;
    (void)MemoryFlags;
    ExFreePoolWithTag(VirtualAddress, 0);
}

// ---------------------------------------------------------------------------
// MDLs
// ---------------------------------------------------------------------------
namespace {

PMDL AllocateMdl(PVOID VirtualAddress, ULONG Length) {
    ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(VirtualAddress, Length);
    SIZE_T size = sizeof(MDL) + (SIZE_T)pages * sizeof(PFN_NUMBER);
    auto mdl = (PMDL)ExAllocatePoolWithTag(NonPagedPool, size, kTagMdl);
    if (mdl == nullptr) return nullptr;
    mdl->Next = nullptr;
    mdl->Size = (CSHORT)size;
    mdl->MdlFlags = 0;
    mdl->Process = nullptr;
    mdl->MappedSystemVa = nullptr;
    mdl->StartVa = PAGE_ALIGN(VirtualAddress);
    mdl->ByteCount = Length;
    mdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
    CountObject(ObjectKind::Mdl, +1);
    return mdl;
}

ULONG MdlPageCount(PMDL mdl) { return ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(mdl), mdl->ByteCount); }

}  // namespace

// The page frame numbers are left unset until the MDL is built. The MDL is
// charged to no quota.
PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp) {
    (void)ChargeQuota;
    if (!CheckIrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl")) return nullptr;
    PMDL mdl = AllocateMdl(VirtualAddress, Length);
    if (mdl == nullptr || Irp == nullptr) return mdl;
    if (!SecondaryBuffer) {
        Irp->MdlAddress = mdl;
    } else {
        PMDL* link = &Irp->MdlAddress;
        while (*link != nullptr) link = &(*link)->Next;
        *link = mdl;
    }
    return mdl;
}

void IoFreeMdl(PMDL Mdl) {
    if (!CheckIrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl")) return;
    CountObject(ObjectKind::Mdl, -1);
    ExFreePoolWithTag(Mdl, kTagMdl);
}

void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
    PMDL mdl = MemoryDescriptorList;
    PPFN_NUMBER pfn = MmGetMdlPfnArray(mdl);
    ULONG pages = MdlPageCount(mdl);
    for (ULONG i = 0; i < pages; i++) pfn[i] = ((ULONG_PTR)mdl->StartVa >> PAGE_SHIFT) + i;
    mdl->Process = nullptr;
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

// The pages are zero-filled, as the platform's are.
PMDL MmAllocatePagesForMdl(PHYSICAL_ADDRESS LowAddress, PHYSICAL_ADDRESS HighAddress, PHYSICAL_ADDRESS SkipBytes,
                           SIZE_T TotalBytes) {
    (void)LowAddress;
    (void)HighAddress;
    (void)SkipBytes;
    if (!CheckIrqlAtMost(APC_LEVEL, "MmAllocatePagesForMdl")) return nullptr;
    PoolState& s = State();
    uint64_t bytes = TotalBytes;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        bytes = s.shortenNextPages >= bytes ? 0 : bytes - s.shortenNextPages;
        s.shortenNextPages = 0;
    }
    if (bytes == 0 || bytes > 0xFFFFF000u) return nullptr;
    void* pages = AllocatePageBlock(bytes, kTagPages, 0);
    if (pages == nullptr) return nullptr;
    PMDL mdl = AllocateMdl(pages, (ULONG)bytes);
    if (mdl == nullptr) {
        FreePageBlock(pages, kTagPages);
        return nullptr;
    }
    // Described, locked, not mapped: the MDL of a page allocation has no
    // virtual address of its own.
    PPFN_NUMBER pfn = MmGetMdlPfnArray(mdl);
    for (ULONG i = 0; i < MdlPageCount(mdl); i++) pfn[i] = ((ULONG_PTR)pages >> PAGE_SHIFT) + i;
    mdl->StartVa = nullptr;
    mdl->ByteOffset = 0;
    mdl->MdlFlags = MDL_PAGES_LOCKED;
    return mdl;
}

// Frees the pages, not the MDL (the caller frees that, as on the platform).
void MmFreePagesFromMdl(PMDL MemoryDescriptorList) {
    if (!CheckIrqlAtMost(DISPATCH_LEVEL, "MmFreePagesFromMdl")) return;
    PMDL mdl = MemoryDescriptorList;
    bool described = mdl->ByteCount != 0 && (mdl->MdlFlags & MDL_PAGES_LOCKED);
    void* pages = described ? (void*)(MmGetMdlPfnArray(mdl)[0] << PAGE_SHIFT) : nullptr;
    if (!described || !FreePageBlock(pages, kTagPages)) {
        CheckFailed(BAD_POOL_CALLER, kPoolInvalidAddress, (ULONG_PTR)mdl, (ULONG_PTR)pages, 0,
                    "MmFreePagesFromMdl: the MDL does not describe pages of MmAllocatePagesForMdl");
        return;
    }
    mdl->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA);
    mdl->MappedSystemVa = nullptr;
    mdl->ByteCount = 0;
}

// The pages of an MDL are consecutive host memory, so the "mapping" is the
// address of its first page: mapping costs nothing and never fails. Not
// modelled: user-mode mappings (NULL is returned), cache types.
PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE CacheType,
                                   PVOID RequestedAddress, ULONG BugCheckOnFailure, ULONG Priority) {
    (void)CacheType;
    (void)RequestedAddress;
    (void)BugCheckOnFailure;
    (void)Priority;
    PMDL mdl = MemoryDescriptorList;
    if (!CheckIrqlAtMost(DISPATCH_LEVEL, "MmMapLockedPagesSpecifyCache")) return nullptr;
    if (AccessMode != KernelMode) return nullptr;
    if (mdl->MdlFlags & (MDL_SOURCE_IS_NONPAGED_POOL | MDL_MAPPED_TO_SYSTEM_VA)) return mdl->MappedSystemVa;
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED)) {
        CheckFailed(kSystemPteMisuse, (ULONG_PTR)mdl, 0, 0, 0,
                    "MmMapLockedPagesSpecifyCache: the MDL's pages are not locked");
        return nullptr;
    }
    mdl->MappedSystemVa = (PCHAR)(MmGetMdlPfnArray(mdl)[0] << PAGE_SHIFT) + mdl->ByteOffset;
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}

void MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList) {
    PMDL mdl = MemoryDescriptorList;
    if (!(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) || BaseAddress != mdl->MappedSystemVa) {
        CheckFailed(kSystemPteMisuse, (ULONG_PTR)mdl, (ULONG_PTR)BaseAddress, 0, 0,
                    "MmUnmapLockedPages: not a mapping made by MmMapLockedPagesSpecifyCache");
        return;
    }
    mdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = nullptr;
}

// ---------------------------------------------------------------------------
// Contiguous memory: page aligned, whole pages, not zeroed. The highest
// acceptable address is not enforced.
// ---------------------------------------------------------------------------
PVOID MmAllocateContiguousMemory(SIZE_T NumberOfBytes, PHYSICAL_ADDRESS HighestAcceptableAddress) {
    (void)HighestAcceptableAddress;
    if (!CheckIrqlAtMost(DISPATCH_LEVEL, "MmAllocateContiguousMemory")) return nullptr;
    if (NumberOfBytes == 0) return nullptr;
    return AllocatePageBlock(NumberOfBytes, kTagContiguous, kNewFill);
}

void MmFreeContiguousMemory(PVOID BaseAddress) {
    if (!CheckIrqlAtMost(DISPATCH_LEVEL, "MmFreeContiguousMemory")) return;
    if (!FreePageBlock(BaseAddress, kTagContiguous)) {
        CheckFailed(BAD_POOL_CALLER, kPoolInvalidAddress, (ULONG_PTR)BaseAddress, 0, 0,
                    "MmFreeContiguousMemory: not a block of MmAllocateContiguousMemory");
    }
}

// ---------------------------------------------------------------------------
// Accounting and fault injection
// ---------------------------------------------------------------------------
namespace kplat {

std::string TagToString(ULONG tag) {
    std::string s;
    for (int i = 0; i < 4; i++) {
        char c = (char)((tag >> (8 * i)) & 0xFF);
        s += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return s;
}

std::vector<PoolTagStats> GetPoolStats() {
    PoolState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    std::vector<PoolTagStats> out;
    for (const auto& entry : s.tags) out.push_back(entry.second);
    return out;
}

PoolTagStats GetPoolTagStats(ULONG tag) {
    PoolState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.tags.find(tag);
    if (it != s.tags.end()) return it->second;
    PoolTagStats none;
    none.tag = tag;
    return none;
}

uint64_t PoolAllocationCount() { return gAllocationCount.load(std::memory_order_relaxed); }

std::string PoolLeakReport() {
    std::string report;
    for (const PoolTagStats& t : GetPoolStats()) {
        if (t.liveCount == 0) continue;
        char line[120];
        snprintf(line, sizeof line, "Tag %s: %llu blocks, %llu bytes live\n", TagToString(t.tag).c_str(),
                 (unsigned long long)t.liveCount, (unsigned long long)t.liveBytes);
        report += line;
    }
    return report;
}

void FailNthAllocation(uint64_t n) {
    PoolState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.failCountdown = n;
}

void FailTag(ULONG tag, uint64_t count) {
    PoolState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.failTags[tag] = count;
}

void ShortenNextPageAllocation(ULONG bytes) {
    PoolState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.shortenNextPages = bytes;
}

void ClearFaults() {
    PoolState& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.failCountdown = 0;
    s.failTags.clear();
    s.shortenNextPages = 0;
}

}  // namespace kplat
