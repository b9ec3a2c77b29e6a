// Tests of the allocators: KnAllocateMemory, NdAllocateMemory, the tagged
// new and delete of KnObject and of byte arrays, KnBufferBlock, pool tags.
#include <gtest/gtest.h>

#include <string>

#include <kplat/platform.h>

#include "knmemory.h"
#include "knpooltags.h"
#include "kntrace.h"

namespace {

bool AllZero(const void* p, size_t n)
{
    const UCHAR* b = static_cast<const UCHAR*>(p);
    for (size_t i = 0; i < n; i++) {
        if (b[i] != 0) return false;
    }
    return true;
}

constexpr ULONG kTestTag = KN_TAG("TsMm");

class MemoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        kplat::ClearFaults();
        if (KeGetCurrentIrql() != PASSIVE_LEVEL) KeLowerIrql(PASSIVE_LEVEL);
        EXPECT_EQ(kplat::GetPoolTagStats(kTestTag).liveCount, 0u) << "test blocks leaked";
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    static uint64_t Live(ULONG tag) { return kplat::GetPoolTagStats(tag).liveCount; }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    ULONG mSavedMask = 0;
};

class KnAllocateMemoryTest : public MemoryTest {};
class NdAllocateMemoryTest : public MemoryTest {};
class KnObjectTest : public MemoryTest {};
class KnBufferBlockTest : public MemoryTest {};
class KnPoolTagTest : public MemoryTest {};

// ---------------------------------------------------------------------------
// KnAllocateMemory / KnFreeMemory
// ---------------------------------------------------------------------------
TEST_F(KnAllocateMemoryTest, ZeroFilledAndTagged)
{
    const size_t size = 3000;
    // Dirty a block of the same size first, so that reuse would show.
    PVOID dirty = KnAllocateMemory(NonPagedPool, size, kTestTag, false);
    ASSERT_NE(dirty, nullptr);
    memset(dirty, 0xA5, size);
    KnFreeMemory(dirty);

    PVOID p = KnAllocateMemory(NonPagedPool, size, kTestTag, true);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(AllZero(p, size));
    kplat::PoolTagStats stats = kplat::GetPoolTagStats(kTestTag);
    EXPECT_EQ(stats.liveCount, 1u);
    EXPECT_EQ(stats.liveBytes, size);
    KnFreeMemory(p);
    EXPECT_EQ(Live(kTestTag), 0u);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnAllocateMemoryTest, FailureReturnsNullWithoutTrace)
{
    kplat::FailTag(kTestTag, 1);
    EXPECT_EQ(KnAllocateMemory(NonPagedPool, 64, kTestTag, true), nullptr);
    EXPECT_EQ(mCapture.Text(), "");
    EXPECT_EQ(Live(kTestTag), 0u);
    PVOID p = KnAllocateMemory(NonPagedPool, 64, kTestTag, true);
    EXPECT_NE(p, nullptr) << "only one failure was asked for";
    KnFreeMemory(p);
}

TEST_F(KnAllocateMemoryTest, PagedAboveApcLevelAsserts)
{
    kplat::CheckRecorder checks;  // the platform refuses the paged allocation
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    PVOID p = KnAllocateMemory(PagedPool, 64, kTestTag, true);
    KeLowerIrql(old);
    EXPECT_EQ(p, nullptr);
    EXPECT_TRUE(mCapture.Contains(
        "ASSERTION FAILED: (!(PoolType==PagedPool && KeGetCurrentIrql()>APC_LEVEL))\n  source/libkn/knmemory.cpp("))
        << mCapture.Text();
    EXPECT_GE(checks.Count(), 1u);
}

TEST_F(KnAllocateMemoryTest, ZeroBytesAndFreeOfNullAssert)
{
    PVOID p = KnAllocateMemory(NonPagedPool, 0, kTestTag, true);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (NumberOfBytes>0)\n  source/libkn/knmemory.cpp("));
    if (p != NULL) KnFreeMemory(p);
    KnFreeMemory(NULL);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (Memory!=NULL)\n  source/libkn/knmemory.cpp("));
}

// ---------------------------------------------------------------------------
// NdAllocateMemory / NdFreeMemory
// ---------------------------------------------------------------------------
TEST_F(NdAllocateMemoryTest, ZeroFilledAndTagged)
{
    PVOID dirty = NdAllocateMemory(500, kTestTag, false);
    ASSERT_NE(dirty, nullptr);
    memset(dirty, 0x5A, 500);
    NdFreeMemory(dirty);
    PVOID p = NdAllocateMemory(500, kTestTag, true);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(AllZero(p, 500));
    EXPECT_EQ(kplat::GetPoolTagStats(kTestTag).liveBytes, 500u);
    NdFreeMemory(p);
    EXPECT_EQ(Live(kTestTag), 0u);
    kplat::FailTag(kTestTag, 1);
    EXPECT_EQ(NdAllocateMemory(16, kTestTag, true), nullptr);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(NdAllocateMemoryTest, AssertionsOfSizeAndFree)
{
    PVOID p = NdAllocateMemory(0, kTestTag, true);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (NumberOfBytes>0)\n  source/libkn/ndmemory.cpp("));
    if (p != NULL) NdFreeMemory(p);
    NdFreeMemory(NULL);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (Memory!=NULL)\n  source/libkn/ndmemory.cpp("));
}

// ---------------------------------------------------------------------------
// Tagged new and delete
// ---------------------------------------------------------------------------
int gConstructed = 0;
int gDestroyed = 0;

class TestObject : public KnObject {
public:
    TestObject() { gConstructed++; }
    virtual ~TestObject() { gDestroyed++; }
    ULONG Word(int i) const { return mWords[i]; }
    UCHAR Byte(int i) const { return mBytes[i]; }

private:
    ULONG mWords[16];  // left to the allocator: zero
    UCHAR mBytes[37];
};

TEST_F(KnObjectTest, NewIsZeroFilledAndTagged)
{
    gConstructed = gDestroyed = 0;
    // Dirty a block of the same size under the same tag first.
    void* dirty = NdAllocateMemory(sizeof(TestObject), KN_POOL_TAG_ADAPTER, false);
    ASSERT_NE(dirty, nullptr);
    memset(dirty, 0xEE, sizeof(TestObject));
    NdFreeMemory(dirty);

    uint64_t before = Live(KN_POOL_TAG_ADAPTER);
    TestObject* object = new (NonPagedPool, KN_POOL_TAG_ADAPTER) TestObject();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(gConstructed, 1);
    EXPECT_EQ(Live(KN_POOL_TAG_ADAPTER), before + 1);
    for (int i = 0; i < 16; i++) EXPECT_EQ(object->Word(i), 0u);
    for (int i = 0; i < 37; i++) EXPECT_EQ(object->Byte(i), 0u);
    delete object;
    EXPECT_EQ(gDestroyed, 1);
    EXPECT_EQ(Live(KN_POOL_TAG_ADAPTER), before);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnObjectTest, FailedNewReturnsNullWithoutConstructing)
{
    gConstructed = 0;
    kplat::FailTag(KN_POOL_TAG_NCM, 1);
    TestObject* object = new (NonPagedPool, KN_POOL_TAG_NCM) TestObject();
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(gConstructed, 0);
    EXPECT_EQ(mCapture.Text(), "") << "the caller traces, not the allocator";
}

TEST_F(KnObjectTest, PagedPoolAssertsAndStillAllocatesNonPaged)
{
    TestObject* object = new (PagedPool, kTestTag) TestObject();
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (NonPagedPool==poolType)\n  source/libkn/ndmemory.cpp("));
    ASSERT_NE(object, nullptr);
    delete object;
}

TEST_F(KnObjectTest, ArrayOfObjects)
{
    gConstructed = gDestroyed = 0;
    TestObject* objects = new (NonPagedPool, kTestTag) TestObject[3];
    ASSERT_NE(objects, nullptr);
    EXPECT_EQ(gConstructed, 3);
    EXPECT_EQ(Live(kTestTag), 1u);
    delete[] objects;
    EXPECT_EQ(gDestroyed, 3);
}

TEST_F(KnObjectTest, ByteArraysThroughTheGlobalTaggedNew)
{
    const ULONG count = 6 * 32;  // a multicast list of 32 addresses
    uint64_t before = Live(KN_POOL_TAG_MULTICAST_LIST);
    UCHAR* list = new (NonPagedPool, KN_POOL_TAG_MULTICAST_LIST) UCHAR[count];
    ASSERT_NE(list, nullptr);
    EXPECT_TRUE(AllZero(list, count));
    EXPECT_EQ(Live(KN_POOL_TAG_MULTICAST_LIST), before + 1);
    KnDeleteArray(list);
    EXPECT_EQ(Live(KN_POOL_TAG_MULTICAST_LIST), before);
    KnDeleteArray<UCHAR>(NULL);
    EXPECT_EQ(mCapture.Text(), "");

    kplat::FailTag(KN_POOL_TAG_MULTICAST_LIST, 1);
    EXPECT_EQ(new (NonPagedPool, KN_POOL_TAG_MULTICAST_LIST) UCHAR[count], nullptr);
}

// ---------------------------------------------------------------------------
// KnBufferBlock
// ---------------------------------------------------------------------------
TEST_F(KnBufferBlockTest, AllocateZeroFilledAndFreedByTheDestructor)
{
    {
        KnBufferBlock block;
        PVOID p = block.Allocate(NonPagedPool, 256, KN_POOL_TAG_DEFAULT, true);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(block.GetBuffer(), p);
        EXPECT_EQ(block.GetSize(), 256u);
        EXPECT_TRUE(AllZero(p, 256));
        EXPECT_EQ(kplat::GetPoolTagStats(KN_POOL_TAG_DEFAULT).liveBytes, 256u);
    }
    EXPECT_EQ(Live(KN_POOL_TAG_DEFAULT), 0u);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnBufferBlockTest, AllocateAgainReplacesTheBlock)
{
    KnBufferBlock block;
    EXPECT_EQ(block.GetBuffer(), nullptr);
    EXPECT_EQ(block.GetSize(), 0u);
    ASSERT_NE(block.Allocate(NonPagedPool, 100, kTestTag, true), nullptr);
    ASSERT_NE(block.Allocate(NonPagedPool, 200, kTestTag, true), nullptr);
    EXPECT_EQ(block.GetSize(), 200u);
    EXPECT_EQ(Live(kTestTag), 1u);
    EXPECT_EQ(kplat::GetPoolTagStats(kTestTag).liveBytes, 200u);
    block.Free();
    EXPECT_EQ(block.GetBuffer(), nullptr);
    EXPECT_EQ(block.GetSize(), 0u);
    EXPECT_EQ(Live(kTestTag), 0u);
    block.Free();  // nothing to free
}

TEST_F(KnBufferBlockTest, WideFormCountsUtf16Units)
{
    KnBufferBlock block;
    // The registry path copy: a path of 40 characters and its terminator, paged.
    PWCHAR path = block.AllocateWide(PagedPool, 41, KN_POOL_TAG_REGISTRY_PATH, true);
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(block.GetSize(), 82u);
    EXPECT_EQ(block.GetWideBuffer(), path);
    EXPECT_TRUE(AllZero(path, 82));
    EXPECT_EQ(kplat::GetPoolTagStats(KN_POOL_TAG_REGISTRY_PATH).liveBytes, 82u);
    block.Free();
    EXPECT_EQ(Live(KN_POOL_TAG_REGISTRY_PATH), 0u);
}

TEST_F(KnBufferBlockTest, FailureLeavesTheBlockEmpty)
{
    KnBufferBlock block;
    ASSERT_NE(block.Allocate(NonPagedPool, 100, kTestTag, true), nullptr);
    kplat::FailTag(kTestTag, 1);
    EXPECT_EQ(block.Allocate(NonPagedPool, 100, kTestTag, true), nullptr);
    EXPECT_EQ(block.GetBuffer(), nullptr);
    EXPECT_EQ(block.GetSize(), 0u);
    EXPECT_EQ(Live(kTestTag), 0u) << "the old block was freed";
    EXPECT_EQ(mCapture.Text(), "");
}

}  // namespace
