// Pool memory of the stand-in: accounting by tag, fault injection, the
// checks of pool misuse, MDLs, pages and contiguous memory.
#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <ndis.h>

#include <thread>
#include <vector>

namespace {

using kplat::MakeTag;

// Raises the calling thread's IRQL for the scope.
class AtIrql {
public:
    explicit AtIrql(KIRQL irql) { KeRaiseIrql(irql, &mOld); }
    ~AtIrql() { KeLowerIrql(mOld); }

private:
    KIRQL mOld;
};

class Pool : public ::testing::Test {
protected:
    void TearDown() override { kplat::ClearFaults(); }
};

// ---------------------------------------------------------------------------
// Accounting
// ---------------------------------------------------------------------------
TEST_F(Pool, TagStatsFollowLiveBlocksAndKeepTheHighWaterMark) {
    const ULONG tag = MakeTag("TsA1");
    const kplat::PoolTagStats before = kplat::GetPoolTagStats(tag);  // totals survive --gtest_repeat
    PVOID a = ExAllocatePoolWithTag(NonPagedPool, 100, tag);
    PVOID b = ExAllocatePoolWithTag(NonPagedPool, 200, tag);
    PVOID c = ExAllocatePoolWithTag(PagedPool, 300, tag);
    ASSERT_TRUE(a && b && c);
    kplat::PoolTagStats s = kplat::GetPoolTagStats(tag);
    EXPECT_EQ(tag, s.tag);
    EXPECT_EQ(3u, s.liveCount);
    EXPECT_EQ(600u, s.liveBytes);
    EXPECT_EQ(600u, s.highWaterBytes);

    ExFreePoolWithTag(b, tag);
    PVOID d = ExAllocatePoolWithTag(NonPagedPool, 50, tag);
    s = kplat::GetPoolTagStats(tag);
    EXPECT_EQ(3u, s.liveCount);
    EXPECT_EQ(450u, s.liveBytes);
    EXPECT_EQ(600u, s.highWaterBytes);
    EXPECT_EQ(before.allocations + 4, s.allocations);
    EXPECT_EQ(before.frees + 1, s.frees);

    ExFreePool(a);
    ExFreePoolWithTag(c, 0);
    NdisFreeMemory(d, 0, 0);
    s = kplat::GetPoolTagStats(tag);
    EXPECT_EQ(0u, s.liveCount);
    EXPECT_EQ(0u, s.liveBytes);
    EXPECT_EQ(600u, s.highWaterBytes);
    EXPECT_EQ(before.frees + 4, s.frees);
}

TEST_F(Pool, LeakReportNamesTheTagThatStillHoldsBlocks) {
    const ULONG leaky = MakeTag("LkB1");
    const ULONG clean = MakeTag("LkC1");
    PVOID kept1 = ExAllocatePoolWithTag(NonPagedPool, 1000, leaky);
    PVOID kept2 = ExAllocatePoolWithTag(NonPagedPool, 24, leaky);
    ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 8, clean), clean);

    std::string report = kplat::PoolLeakReport();
    EXPECT_NE(std::string::npos, report.find("Tag LkB1: 2 blocks, 1024 bytes live\n")) << report;
    EXPECT_EQ(std::string::npos, report.find("LkC1")) << report;

    ExFreePoolWithTag(kept1, leaky);
    ExFreePoolWithTag(kept2, leaky);
    EXPECT_EQ(std::string::npos, kplat::PoolLeakReport().find("LkB1"));
}

// ---------------------------------------------------------------------------
// Fault injection
// ---------------------------------------------------------------------------
TEST_F(Pool, FailNthAllocationHitsExactlyThatOne) {
    const ULONG a = MakeTag("FnA1"), b = MakeTag("FnB1");
    uint64_t count = kplat::PoolAllocationCount();
    const uint64_t aBefore = kplat::GetPoolTagStats(a).allocations;
    kplat::FailNthAllocation(3);
    PVOID p1 = ExAllocatePoolWithTag(NonPagedPool, 8, a);
    PVOID p2 = ExAllocatePoolWithTag(NonPagedPool, 8, b);
    PVOID p3 = ExAllocatePoolWithTag(NonPagedPool, 8, a);
    PVOID p4 = ExAllocatePoolWithTag(NonPagedPool, 8, b);
    PVOID p5 = ExAllocatePoolWithTag(NonPagedPool, 8, a);
    EXPECT_NE(nullptr, p1);
    EXPECT_NE(nullptr, p2);
    EXPECT_EQ(nullptr, p3);
    EXPECT_NE(nullptr, p4);
    EXPECT_NE(nullptr, p5);
    EXPECT_EQ(count + 4, kplat::PoolAllocationCount());  // the failed one counts nothing
    EXPECT_EQ(aBefore + 2, kplat::GetPoolTagStats(a).allocations);
    for (PVOID p : {p1, p2, p4, p5}) ExFreePool(p);
}

TEST_F(Pool, FailTagFailsOnlyThatTagAndOnlyAsOftenAsAsked) {
    const ULONG victim = MakeTag("FtV1"), other = MakeTag("FtO1");
    const uint64_t victimBefore = kplat::GetPoolTagStats(victim).allocations;
    kplat::FailTag(victim, 2);
    PVOID o = ExAllocatePoolWithTag(NonPagedPool, 8, other);
    EXPECT_NE(nullptr, o);
    EXPECT_EQ(nullptr, ExAllocatePoolWithTag(NonPagedPool, 8, victim));
    EXPECT_EQ(nullptr, ExAllocatePoolWithTag(NonPagedPool, 8, victim));
    PVOID v = ExAllocatePoolWithTag(NonPagedPool, 8, victim);
    EXPECT_NE(nullptr, v);
    EXPECT_EQ(victimBefore + 1, kplat::GetPoolTagStats(victim).allocations);
    ExFreePool(o);
    ExFreePool(v);

    kplat::FailTag(victim);  // until cleared
    for (int i = 0; i < 5; i++) EXPECT_EQ(nullptr, ExAllocatePoolWithTag(NonPagedPool, 8, victim));
    kplat::ClearFaults();
    v = ExAllocatePoolWithTag(NonPagedPool, 8, victim);
    EXPECT_NE(nullptr, v);
    ExFreePool(v);
}

// ---------------------------------------------------------------------------
// Checks of pool misuse
// ---------------------------------------------------------------------------
TEST_F(Pool, PagedAllocationAtDispatchLevelIsACheckFailure) {
    const ULONG tag = MakeTag("PgD1");
    kplat::CheckRecorder recorder;
    PVOID p;
    {
        AtIrql dispatch(DISPATCH_LEVEL);
        p = ExAllocatePoolWithTag(PagedPool, 32, tag);
    }
    EXPECT_EQ(nullptr, p);
    std::vector<kplat::CheckFailure> failures = recorder.Take();
    ASSERT_EQ(1u, failures.size());
    EXPECT_EQ((ULONG)BAD_POOL_CALLER, failures[0].code);
    EXPECT_EQ(0x08u, failures[0].p1);
    EXPECT_EQ((ULONG_PTR)DISPATCH_LEVEL, failures[0].p2);
    EXPECT_EQ((ULONG_PTR)PagedPool, failures[0].p3);
    EXPECT_EQ(0u, kplat::GetPoolTagStats(tag).allocations);
}

TEST_F(Pool, FreeingWithAnotherTagIsACheckFailureAndKeepsTheBlock) {
    const ULONG tag = MakeTag("WtA1");
    PVOID p = ExAllocatePoolWithTag(NonPagedPool, 8, tag);
    {
        kplat::CheckRecorder recorder;
        ExFreePoolWithTag(p, MakeTag("WtB1"));
        std::vector<kplat::CheckFailure> failures = recorder.Take();
        ASSERT_EQ(1u, failures.size());
        EXPECT_EQ((ULONG)BAD_POOL_CALLER, failures[0].code);
        EXPECT_EQ(0x0Au, failures[0].p1);
        EXPECT_EQ((ULONG_PTR)p, failures[0].p2);
        EXPECT_EQ(tag, failures[0].p3);
        EXPECT_NE(std::string::npos, failures[0].text.find("WtA1")) << failures[0].text;
    }
    EXPECT_EQ(1u, kplat::GetPoolTagStats(tag).liveCount);
    ExFreePoolWithTag(p, tag);
}

TEST_F(Pool, FreeingWhatIsNotALiveBlockIsACheckFailure) {
    kplat::CheckRecorder recorder;
    char onStack[64];
    ExFreePool(onStack + 32);
    PVOID p = ExAllocatePoolWithTag(NonPagedPool, 8, MakeTag("DbF1"));
    ExFreePool(p);
    ExFreePool(p);  // twice
    ExFreePool(nullptr);
    std::vector<kplat::CheckFailure> failures = recorder.Take();
    ASSERT_EQ(3u, failures.size());
    for (const kplat::CheckFailure& f : failures) {
        EXPECT_EQ((ULONG)BAD_POOL_CALLER, f.code);
        EXPECT_EQ(0x46u, f.p1);
    }
    EXPECT_EQ(0u, kplat::GetPoolTagStats(MakeTag("DbF1")).liveCount);
}

TEST_F(Pool, OverwrittenHeaderIsCaughtAtFree) {
    auto* p = (uint64_t*)ExAllocatePoolWithTag(NonPagedPool, 16, MakeTag("Hdr1"));
    uint64_t saved = p[-4];  // the block's magic
    p[-4] = 0;               // an underrun by the block's user
    {
        kplat::CheckRecorder recorder;
        ExFreePool(p);
        std::vector<kplat::CheckFailure> failures = recorder.Take();
        ASSERT_EQ(1u, failures.size());
        EXPECT_EQ((ULONG)BAD_POOL_CALLER, failures[0].code);
    }
    p[-4] = saved;
    ExFreePool(p);
}

// ---------------------------------------------------------------------------
// MDLs, pages, contiguous memory
// ---------------------------------------------------------------------------
TEST_F(Pool, MdlForNonPagedPoolDescribesTheBlock) {
    uint64_t mdlsBefore = kplat::GetObjectCounts().mdls;
    auto* block = (PUCHAR)ExAllocatePoolWithTag(NonPagedPool, 3 * PAGE_SIZE, MakeTag("MdB1"));
    PUCHAR va = block + 100;
    const ULONG length = 2 * PAGE_SIZE + 10;
    PMDL mdl = IoAllocateMdl(va, length, FALSE, FALSE, nullptr);
    ASSERT_NE(nullptr, mdl);
    EXPECT_EQ(mdlsBefore + 1, kplat::GetObjectCounts().mdls);
    ULONG pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(va, length);
    EXPECT_EQ(sizeof(MDL) + pages * sizeof(PFN_NUMBER), (size_t)mdl->Size);
    EXPECT_EQ(length, MmGetMdlByteCount(mdl));
    EXPECT_EQ(BYTE_OFFSET(va), MmGetMdlByteOffset(mdl));

    MmBuildMdlForNonPagedPool(mdl);
    EXPECT_TRUE(mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL);
    EXPECT_EQ(va, MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority));
    PPFN_NUMBER pfn = MmGetMdlPfnArray(mdl);
    for (ULONG i = 0; i < pages; i++) EXPECT_EQ(((ULONG_PTR)PAGE_ALIGN(va) >> PAGE_SHIFT) + i, pfn[i]);

    IoFreeMdl(mdl);
    EXPECT_EQ(mdlsBefore, kplat::GetObjectCounts().mdls);
    ExFreePool(block);
}

PHYSICAL_ADDRESS Phys(LONGLONG v) {
    PHYSICAL_ADDRESS a;
    a.QuadPart = v;
    return a;
}

TEST_F(Pool, PagesForMdlAreZeroedLockedAndMapOnDemand) {
    kplat::PoolTagStats pagesBefore = kplat::GetPoolTagStats(MakeTag("Page"));
    const SIZE_T size = 3 * PAGE_SIZE + 10;
    PMDL mdl = MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), size);
    ASSERT_NE(nullptr, mdl);
    EXPECT_EQ(size, MmGetMdlByteCount(mdl));
    EXPECT_TRUE(mdl->MdlFlags & MDL_PAGES_LOCKED);
    EXPECT_FALSE(mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL));
    EXPECT_EQ(pagesBefore.liveBytes + 4 * PAGE_SIZE, kplat::GetPoolTagStats(MakeTag("Page")).liveBytes);

    auto* va = (PUCHAR)MmGetSystemAddressForMdlSafe(mdl, LowPagePriority);
    ASSERT_NE(nullptr, va);
    EXPECT_EQ(0u, BYTE_OFFSET(va));
    EXPECT_TRUE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    EXPECT_EQ(va, MmGetSystemAddressForMdlSafe(mdl, LowPagePriority));  // the same mapping again
    for (SIZE_T i = 0; i < size; i++) ASSERT_EQ(0, va[i]) << i;
    memset(va, 0xA5, size);
    PPFN_NUMBER pfn = MmGetMdlPfnArray(mdl);
    for (ULONG i = 0; i < 4; i++) EXPECT_EQ(((ULONG_PTR)va >> PAGE_SHIFT) + i, pfn[i]);

    MmUnmapLockedPages(va, mdl);
    EXPECT_FALSE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
    MmFreePagesFromMdl(mdl);
    EXPECT_EQ(pagesBefore.liveBytes, kplat::GetPoolTagStats(MakeTag("Page")).liveBytes);
    IoFreeMdl(mdl);
}

TEST_F(Pool, ShortenedPageAllocationDescribesFewerBytesOnce) {
    kplat::ShortenNextPageAllocation(PAGE_SIZE);
    PMDL shortMdl = MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), 4 * PAGE_SIZE);
    ASSERT_NE(nullptr, shortMdl);
    EXPECT_EQ(3u * PAGE_SIZE, MmGetMdlByteCount(shortMdl));
    PMDL full = MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), 4 * PAGE_SIZE);
    EXPECT_EQ(4u * PAGE_SIZE, MmGetMdlByteCount(full));

    kplat::ShortenNextPageAllocation(PAGE_SIZE);
    EXPECT_EQ(nullptr, MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), PAGE_SIZE));

    for (PMDL m : {shortMdl, full}) {
        MmFreePagesFromMdl(m);
        IoFreeMdl(m);
    }
}

TEST_F(Pool, FailedPageAllocationLeavesNothingBehind) {
    uint64_t live = kplat::GetObjectCounts().mdls;
    kplat::PoolTagStats pages = kplat::GetPoolTagStats(MakeTag("Page"));
    kplat::FailTag(MakeTag("Mdl "), 1);  // the pages succeed, their MDL fails
    EXPECT_EQ(nullptr, MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), PAGE_SIZE));
    kplat::FailTag(MakeTag("Page"), 1);
    EXPECT_EQ(nullptr, MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), PAGE_SIZE));
    EXPECT_EQ(live, kplat::GetObjectCounts().mdls);
    EXPECT_EQ(pages.liveCount, kplat::GetPoolTagStats(MakeTag("Page")).liveCount);
}

TEST_F(Pool, PageAndMappingMisuseIsCaught) {
    char buffer[64];
    PMDL mdl = IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr);
    kplat::CheckRecorder recorder;
    EXPECT_EQ(nullptr, MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE,
                                                    NormalPagePriority));  // not built, not locked
    MmBuildMdlForNonPagedPool(mdl);
    MmFreePagesFromMdl(mdl);                  // not pages of MmAllocatePagesForMdl
    MmUnmapLockedPages(buffer, mdl);          // never mapped
    EXPECT_EQ(3u, recorder.Take().size());
    IoFreeMdl(mdl);
    {
        AtIrql dispatch(DISPATCH_LEVEL);
        EXPECT_EQ(nullptr, MmAllocatePagesForMdl(Phys(0), Phys(0xFFFFF000), Phys(0), PAGE_SIZE));
    }
    EXPECT_EQ(1u, recorder.Count());
}

TEST_F(Pool, ConcurrentAllocationsKeepExactCounts) {
    static const ULONG tag = MakeTag("Thr1");
    kplat::PoolTagStats before = kplat::GetPoolTagStats(tag);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([] {
            std::vector<PVOID> blocks;
            for (int i = 0; i < 500; i++) blocks.push_back(ExAllocatePoolWithTag(NonPagedPool, 8, tag));
            for (PVOID p : blocks) ExFreePoolWithTag(p, tag);
        });
    }
    for (std::thread& t : threads) t.join();
    kplat::PoolTagStats after = kplat::GetPoolTagStats(tag);
    EXPECT_EQ(before.allocations + 2000, after.allocations);
    EXPECT_EQ(before.frees + 2000, after.frees);
    EXPECT_EQ(0u, after.liveCount);
}

}  // namespace
