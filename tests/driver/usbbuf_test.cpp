// The stream buffer and its pool: creation, the data view, and what a failed
// allocation leaves behind.
#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <vector>

#include "knpooltags.h"
#include "kntrace.h"
#include "stream.h"
#include "usbbuf.h"

namespace streamtest {
namespace {

constexpr ULONG kPageTag = kplat::MakeTag("Page");

class UsbBufPoolTest : public ::testing::Test {
protected:
    UsbBufPoolTest()
    {
        KnSetTracePrefix("ethbrg");
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
    }
    ~UsbBufPoolTest() override
    {
        kplat::ClearFaults();
        EXPECT_EQ(0u, Live(KN_POOL_TAG_USB_BUFFER));
        EXPECT_EQ(0u, Live(KN_POOL_TAG_URB));
        EXPECT_EQ(0u, Live(kPageTag));
    }

    static uint64_t Live(ULONG tag) { return kplat::GetPoolTagStats(tag).liveCount; }

    // Pool allocations that one buffer of the pool costs.
    static uint64_t AllocationsPerBuffer()
    {
        UsbBufPool pool;
        const uint64_t before = kplat::PoolAllocationCount();
        EXPECT_EQ(STATUS_SUCCESS, pool.Allocate(1, 2048, 2));
        const uint64_t per = kplat::PoolAllocationCount() - before;
        pool.FreeAll();
        return per;
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
};

TEST_F(UsbBufPoolTest, AllocateCreatesBuffersInIndexOrderWithUrbIrpAndPageMemory)
{
    UsbBufPool pool;
    EXPECT_EQ(0u, pool.GetBufferSize());
    ASSERT_EQ(STATUS_SUCCESS, pool.Allocate(3, 1500, 2));
    EXPECT_EQ(1500u, pool.GetBufferSize());
    EXPECT_EQ(3u, pool.GetTotalCount());
    EXPECT_EQ(3u, pool.GetCurrentCount());
    EXPECT_EQ(3u, Live(KN_POOL_TAG_USB_BUFFER));
    EXPECT_EQ(3u, Live(kPageTag)) << "the data memory comes from the page path";

    std::vector<UsbBuf*> taken;
    for (ULONG i = 0; i < 3; i++) {
        UsbBuf* buf = pool.GetBuffer();
        ASSERT_NE(nullptr, buf);
        EXPECT_EQ(i, buf->GetIndex());
        EXPECT_EQ(&pool, buf->GetPool());
        EXPECT_EQ(1500u, buf->BufferSize());
        EXPECT_EQ((ULONG)STREAM_URB_SIZE, buf->UrbSize());
        ASSERT_NE(nullptr, buf->Irp());
        EXPECT_EQ(2, buf->Irp()->StackCount);
        EXPECT_NE(nullptr, buf->Mdl());
        taken.push_back(buf);
    }
    EXPECT_EQ(nullptr, pool.GetBuffer()) << "all three are out";
    for (UsbBuf* buf : taken) buf->ReturnToPool();
    pool.FreeAll();
    EXPECT_EQ(0u, pool.GetTotalCount());
}

TEST_F(UsbBufPoolTest, ThirdOfFourBuffersWithoutMemoryFailsWithNoMemoryAndLeavesNothingIdle)
{
    const uint64_t per = AllocationsPerBuffer();
    ASSERT_GE(per, 2u);
    const uint64_t pagesBefore = kplat::GetPoolTagStats(kPageTag).allocations;

    UsbBufPool pool;
    // Object, then its data memory: the memory of the third buffer.
    kplat::FailNthAllocation(2 * per + 2);
    EXPECT_EQ(STATUS_NO_MEMORY, pool.Allocate(4, 2048, 2));
    kplat::ClearFaults();

    EXPECT_EQ(2u, kplat::GetPoolTagStats(kPageTag).allocations - pagesBefore) << "the third page allocation failed";
    EXPECT_TRUE(mCapture.Contains("ethbrg:UsbBufPool::Allocate Allocate 2048 failed\n"));
    EXPECT_FALSE(mCapture.Contains("new KnUsbBulkIntBuffer failed"));
    EXPECT_EQ(0u, pool.GetTotalCount());
    EXPECT_EQ(0u, pool.GetCurrentCount());
    EXPECT_EQ(nullptr, pool.GetBuffer());
    EXPECT_EQ(0u, Live(KN_POOL_TAG_USB_BUFFER)) << "the two finished buffers and the broken one are gone";
}

TEST_F(UsbBufPoolTest, UrbFailureIsReportedAsNoMemory)
{
    UsbBufPool pool;
    kplat::FailTag(KN_POOL_TAG_URB, 1);
    EXPECT_EQ(STATUS_NO_MEMORY, pool.Allocate(2, 4096, 2));
    EXPECT_EQ(0u, pool.GetTotalCount());
    EXPECT_TRUE(mCapture.Contains("ethbrg:UsbBufPool::Allocate Allocate 4096 failed\n"));
}

TEST_F(UsbBufPoolTest, ObjectFailureIsTracedAndFreesTheBuffersMadeBefore)
{
    UsbBufPool pool;
    const uint64_t per = AllocationsPerBuffer();
    kplat::FailNthAllocation(per + 1);  // the second buffer object
    EXPECT_EQ(STATUS_NO_MEMORY, pool.Allocate(3, 256, 1));
    EXPECT_TRUE(mCapture.Contains("ethbrg:UsbBufPool::Allocate new KnUsbBulkIntBuffer failed\n"));
    EXPECT_EQ(0u, pool.GetTotalCount());
    EXPECT_EQ(0u, Live(KN_POOL_TAG_USB_BUFFER));
}

TEST_F(UsbBufPoolTest, ANewBufferHasAnEmptyViewAndInitViewCoversTheBuffer)
{
    UsbBufPool pool;
    ASSERT_EQ(STATUS_SUCCESS, pool.Allocate(1, 600, 1));
    UsbBuf* buf = pool.GetBuffer();
    ASSERT_NE(nullptr, buf);
    EXPECT_EQ(nullptr, buf->mStart);
    EXPECT_EQ(nullptr, buf->mEnd);
    EXPECT_EQ(nullptr, buf->mCurrentBuffer);
    EXPECT_EQ(0u, buf->mSize);
    EXPECT_EQ(0u, buf->mLength);
    EXPECT_FALSE(buf->mQueueEntry.IsLinked());

    buf->SetDataLength(123);
    buf->InitView();
    EXPECT_EQ(buf->Buffer(), buf->mStart);
    EXPECT_EQ(600u, buf->mSize);
    EXPECT_EQ(static_cast<PUCHAR>(buf->Buffer()) + 600, buf->mEnd);
    EXPECT_EQ(123u, buf->mLength);
    EXPECT_EQ(buf->mStart, buf->mCurrentBuffer);
    buf->ReturnToPool();
}

}  // namespace
}  // namespace streamtest
