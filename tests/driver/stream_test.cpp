// What both streams share: configuration, stop, restart scheduling and
// destruction.
#include "stream_fixture.h"

namespace streamtest {
namespace {

class StreamBaseTest : public StreamTest {
protected:
    void SetUp() override { SelectDataInterface(); }
};

// ---------------------------------------------------------------------------
// Configure
// ---------------------------------------------------------------------------

TEST_F(StreamBaseTest, ConfigureConnectsThePipeAndMakesTheBuffers)
{
    ConfigureIn(4, 2048);
    EXPECT_TRUE(mInStream->IsConnected());
    EXPECT_EQ(kBulkInEp, mInStream->GetEndpointAddress());
    EXPECT_FALSE(mInStream->IsCompleteAtPassiveLevel());
    EXPECT_EQ(4u, mInStream->GetBufPool()->GetTotalCount());
    EXPECT_EQ(2048u, mInStream->GetBufPool()->GetBufferSize());

    ConfigureOut(3, 8192);
    EXPECT_EQ(3u, mOutStream->GetBufPool()->GetTotalCount());
    EXPECT_EQ(8192u, mOutStream->GetBufPool()->GetBufferSize());
    EXPECT_EQ(4u, mOutStream->GetZlpPool()->GetTotalCount()) << "one more zero-length packet buffer";
    EXPECT_EQ(1u, mOutStream->GetZlpPool()->GetBufferSize());
}

TEST_F(StreamBaseTest, ConfigureOnAnUnknownEndpointReturnsTheConnectFailure)
{
    const NTSTATUS status = mInStream->Configure(&mDevice, &mConfig, 0x85, mBus.Pdo(), &mIn, 2, 512);
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_TRUE(Traced("ethbrg StreamIn::Configure, failed for EP:133 "));
    EXPECT_EQ(0u, mInStream->GetBufPool()->GetTotalCount());

    const NTSTATUS outStatus = mOutStream->Configure(&mDevice, &mConfig, 0x05, mBus.Pdo(), &mOut, 2, 512);
    EXPECT_FALSE(NT_SUCCESS(outStatus));
    EXPECT_TRUE(Traced("ethbrg StreamOut::Configure, failed for EP:5 "));
}

TEST_F(StreamBaseTest, ConfigureWithoutMemoryReturnsNoMemoryAndKeepsNoBuffer)
{
    kplat::FailTag(KN_POOL_TAG_URB, 1);
    EXPECT_EQ(STATUS_NO_MEMORY, mInStream->Configure(&mDevice, &mConfig, kBulkInEp, mBus.Pdo(), &mIn, 2, 512));
    EXPECT_TRUE(Traced("ethbrg StreamIn::Configure, allocate failed for EP:130 0xC0000017 (STATUS_NO_MEMORY)\n"));
    EXPECT_EQ(0u, mInStream->GetBufPool()->GetTotalCount());
}

TEST_F(StreamBaseTest, OutConfigureWhoseZeroLengthPacketPoolFailsGivesUpTheDataBuffersToo)
{
    uint64_t per;
    {
        UsbBufPool dry;
        const uint64_t before = kplat::PoolAllocationCount();
        ASSERT_EQ(STATUS_SUCCESS, dry.Allocate(1, 512, mDevice.GetStackSize()));
        per = kplat::PoolAllocationCount() - before;
        dry.FreeAll();
    }
    // Two data buffers, then the first zero-length packet buffer's object.
    kplat::FailNthAllocation(2 * per + 1);
    EXPECT_EQ(STATUS_NO_MEMORY, mOutStream->Configure(&mDevice, &mConfig, kBulkOutEp, mBus.Pdo(), &mOut, 2, 512));
    kplat::ClearFaults();
    EXPECT_TRUE(Traced("ethbrg:UsbBufPool::Allocate new KnUsbBulkIntBuffer failed\n"));
    EXPECT_TRUE(Traced("ethbrg StreamOut::Configure, allocate failed for EP:2 0xC0000017 (STATUS_NO_MEMORY)\n"));
    EXPECT_EQ(0u, mOutStream->GetBufPool()->GetTotalCount());
    EXPECT_EQ(0u, mOutStream->GetZlpPool()->GetTotalCount());
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount);
}

// ---------------------------------------------------------------------------
// Stop
// ---------------------------------------------------------------------------

TEST_F(StreamBaseTest, StopTracesAndReturnsEveryBuffer)
{
    KnSetTraceMask(KN_TRACE_MASK_DEFAULT | KN_TRACE_INFO);
    ConfigureIn(3);
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    ASSERT_EQ(3u, PendingOnBus());

    mInStream->Stop();
    EXPECT_FALSE(mInStream->IsStreamEnabled());
    EXPECT_FALSE(mInStream->IsEnabled());
    EXPECT_EQ(0u, PendingOnBus());
    EXPECT_EQ(3u, mInStream->GetBufPool()->GetCurrentCount());
    EXPECT_TRUE(Traced("ethbrg:Stream::StopIN82 enter\n"));
    EXPECT_TRUE(Traced("ethbrg:Stream::StopIN82 leave, st:0x00000000 (STATUS_SUCCESS)\n"));
    EXPECT_TRUE(mIn.Events().empty()) << "aborted reads are not reported";
    EXPECT_EQ(0u, Count("::Restart\n"));
}

TEST_F(StreamBaseTest, StopOfAStreamNeverConfiguredOnlyTraces)
{
    TestStreamIn lone;
    lone.Stop();
    EXPECT_TRUE(Traced("ethbrg:KnUsbDataPipeBase::AbortAndWaitForOutstandingBuffers(in ): FATAL: pipe is not connected\n"));
    EXPECT_FALSE(lone.IsStreamEnabled());
}

// ---------------------------------------------------------------------------
// ScheduleRestart and Restart
// ---------------------------------------------------------------------------

TEST_F(StreamBaseTest, ScheduleRestartOnAStoppedStreamOnlyTraces)
{
    KnSetTraceMask(KN_TRACE_MASK_DEFAULT | KN_TRACE_INFO);
    ConfigureIn();
    mInStream->ScheduleRestart();
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:[StreamIN82::ScheduleRestart\n"));
    EXPECT_TRUE(Traced("ethbrg:]StreamIN82::ScheduleRestart\n"));
    EXPECT_FALSE(Traced("ScheduleRestart call ScheduleWorkItem"));
    EXPECT_FALSE(mInStream->IsRestartPending());
    EXPECT_FALSE(mInStream->IsStreamEnabled());
    EXPECT_EQ(0u, Count("::Restart\n"));
    EXPECT_EQ(0u, PendingOnBus());
}

TEST_F(StreamBaseTest, ManyScheduleRestartsBeforeItRunsRestartOnce)
{
    KnSetTraceMask(KN_TRACE_MASK_DEFAULT | KN_TRACE_INFO);
    ConfigureOut();
    ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(false));
    {
        MutexHold<TestStreamOut> hold(mOutStream.get());
        mOutStream->ScheduleRestart();
        mOutStream->ScheduleRestart();
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        mOutStream->ScheduleRestart();
        KeLowerIrql(oldIrql);
        EXPECT_EQ(1u, Count("ethbrg:StreamOUT02::ScheduleRestart call ScheduleWorkItem\n"));
        EXPECT_EQ(3u, Count("ethbrg:[StreamOUT02::ScheduleRestart\n"));
        EXPECT_EQ(1u, mOutStream->GetRestartQueuedCount());
    }
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, Count("ethbrg:[StreamOUT02::Restart\n"));
    EXPECT_EQ(1u, Count("ethbrg:]StreamOUT02::Restart\n"));
    EXPECT_EQ(1u, ClearHalts(kBulkOutEp));
    EXPECT_TRUE(mOutStream->IsStreamEnabled());
    EXPECT_FALSE(mOutStream->IsRestartPending());
}

TEST_F(StreamBaseTest, RestartThatCannotBeQueuedLeavesTheStreamStoppedButRestartable)
{
    ConfigureOut();
    ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(false));
    kplat::FailNthAllocation(1);  // the work item
    mOutStream->ScheduleRestart();
    kplat::ClearFaults();
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:StreamOUT02::ScheduleRestart ScheduleCallback failed, stream stays disabled\n"));
    EXPECT_FALSE(mOutStream->IsStreamEnabled());
    EXPECT_FALSE(mOutStream->IsRestartPending());
    EXPECT_EQ(nullptr, mOutStream->GetBuffer());

    // The owner's stop and start bring it back.
    mOutStream->Stop();
    ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(false));
    UsbBuf* buffer = mOutStream->GetBuffer();
    EXPECT_NE(nullptr, buffer);
    if (buffer != nullptr) buffer->ReturnToPool();
}

// ---------------------------------------------------------------------------
// Destruction
// ---------------------------------------------------------------------------

TEST_F(StreamBaseTest, DestroyingRunningStreamsStopsThemAndFreesEverything)
{
    ConfigureIn(3);
    ConfigureOut(2);
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(false));
    kplat::RunUntilIdle();
    ASSERT_EQ(3u, PendingOnBus());

    mInStream.reset();
    mOutStream.reset();
    kplat::RunUntilIdle();
    EXPECT_EQ(0u, PendingOnBus());
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount);
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_URB).liveCount);
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
    EXPECT_FALSE(Traced("FATAL"));
}

TEST_F(StreamBaseTest, ARestartQueuedBeforeStopNeverStartsTheStreamAgain)
{
    ConfigureIn(2);
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    {
        MutexHold<TestStreamIn> hold(mInStream.get());
        mInStream->ScheduleRestart();
        kplat::RunUntilIdle();
        ASSERT_EQ(1u, mInStream->GetRestartQueuedCount());
        // The owner stops the stream while the restart waits for the mutex.
        mInStream->Stop();
        EXPECT_FALSE(mInStream->IsRestartPending());
    }
    kplat::RunUntilIdle();
    EXPECT_EQ(0u, Count("ethbrg:[StreamIN82::Restart\n"));
    EXPECT_FALSE(mInStream->IsStreamEnabled());
    EXPECT_EQ(0u, PendingOnBus());
    // The owner's next start is the one that runs the stream.
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    EXPECT_EQ(2u, PendingOnBus());
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

}  // namespace
}  // namespace streamtest
