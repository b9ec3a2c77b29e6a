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

}  // namespace
