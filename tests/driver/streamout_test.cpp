// The transmit stream against the simulated NCM function on the stand-in's
// bus: zero-length packets, BufferSent, buffer hand-out, failed writes and a
// device that goes away.
#include "stream_fixture.h"

namespace streamtest {
namespace {

class StreamOutTest : public StreamTest {
protected:
    void SetUp() override { SelectDataInterface(); }

    void StartOut(ULONG count = 2, ULONG size = 4096)
    {
        ConfigureOut(count, size);
        ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(false));
        kplat::RunUntilIdle();
    }
    uint64_t Violations() const { return mDev.TotalViolations(); }
    std::string Report() const { return mDev.ViolationReport(); }
};

// ---------------------------------------------------------------------------
// Zero-length packets
// ---------------------------------------------------------------------------

// A write ending on a packet boundary (1024 = 512 + 512) is followed by a
// zero-length packet and a second BufferSent; one ending short (1000 =
// 512 + 488) is not. Without the zero-length packet the next block would
// run into this one.
TEST_F(StreamOutTest, ZeroLengthPacketOnlyAfterAWriteEndingOnAPacketBoundary)
{
    struct Case {
        uint32_t length;
        size_t sent;
        uint64_t packets;
    };
    StartOut();
    ASSERT_EQ(kBulkMaxPacket, mOutStream->GetMaximumPacketSize());
    uint16_t sequence = 0;
    for (const Case& c : {Case{1024, 2, 3}, Case{1000, 1, 2}}) {
        SCOPED_TRACE(c.length);
        const Bytes ntb = MakeNtb(c.length, sequence++);
        ASSERT_EQ(c.length, ntb.size());
        const size_t sentBefore = mOut.Count();
        const uint64_t packetsBefore = mBus.Stats().packetsOut;
        const uint64_t ntbsBefore = mDev.Traffic().outNtbs;

        Write(ntb);
        EXPECT_EQ(sentBefore + c.sent, mOut.Count());
        EXPECT_EQ(packetsBefore + c.packets, mBus.Stats().packetsOut);
        EXPECT_EQ(ntbsBefore + 1, mDev.Traffic().outNtbs);
        EXPECT_EQ(0u, Violations()) << Report();
        EXPECT_EQ(2u, mOutStream->GetBufPool()->GetCurrentCount());
        EXPECT_EQ(3u, mOutStream->GetZlpPool()->GetCurrentCount());
        for (const SentEvent& e : mOut.Events()) {
            EXPECT_EQ(STATUS_SUCCESS, e.status);
            EXPECT_FALSE(e.removed);
        }

        Write(MakeNtb(1000, sequence++));
        EXPECT_EQ(ntbsBefore + 2, mDev.Traffic().outNtbs);
        EXPECT_EQ(0u, Violations()) << Report();
    }
}

TEST_F(StreamOutTest, WriteOfNothingIsFollowedByAZeroLengthPacketToo)
{
    StartOut();
    const size_t sentBefore = mOut.Count();
    const uint64_t transfersBefore = mDev.Traffic().outTransfers;
    Write(Bytes());
    EXPECT_EQ(sentBefore + 2, mOut.Count());
    EXPECT_EQ(transfersBefore + 2, mDev.Traffic().outTransfers) << "two zero-length transfers";
}

TEST_F(StreamOutTest, BufferSentComesWithoutTheLockAndMayFeedTheNextWrites)
{
    StartOut(2);
    // Five blocks through two buffers, each next one sent from inside
    // BufferSent, some of them with a zero-length packet.
    const uint32_t lengths[] = {1024, 700, 1536, 512 + 100, 512};
    for (uint16_t i = 0; i < 5; i++) {
        Bytes ntb = MakeNtb(lengths[i], i);
        ASSERT_EQ(lengths[i], ntb.size());
        mOut.Queue(ntb);
    }
    mOut.SendQueued();
    kplat::RunUntilIdle();

    EXPECT_EQ(0u, mOut.Queued());
    EXPECT_EQ(5u, mDev.Traffic().outNtbs);
    EXPECT_EQ(5u, mDev.Traffic().outDatagrams);
    EXPECT_EQ(0u, Violations()) << Report();
    for (const SentEvent& e : mOut.Events()) {
        EXPECT_FALSE(e.streamLocked);
        EXPECT_EQ(STATUS_SUCCESS, e.status);
    }
    EXPECT_EQ(2u, mOutStream->GetBufPool()->GetCurrentCount());
    EXPECT_EQ(3u, mOutStream->GetZlpPool()->GetCurrentCount());
}

// ---------------------------------------------------------------------------
// Start and buffer hand-out
// ---------------------------------------------------------------------------

TEST_F(StreamOutTest, StartCallsBufferSentOnceAtPassiveLevel)
{
    ConfigureOut();
    EXPECT_EQ(0u, mOut.Count());
    ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(true));
    std::vector<SentEvent> events = mOut.Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(STATUS_SUCCESS, events[0].status);
    EXPECT_FALSE(events[0].removed);
    EXPECT_EQ(PASSIVE_LEVEL, events[0].irql);
    EXPECT_EQ(1u, ClearHalts(kBulkOutEp));
}

TEST_F(StreamOutTest, GetBufferIsNullBeforeStartAfterStopAndWhenAllAreOut)
{
    ConfigureOut(2);
    EXPECT_EQ(nullptr, mOutStream->GetBuffer()) << "before Start";
    ASSERT_EQ(STATUS_SUCCESS, mOutStream->Start(false));
    UsbBuf* a = mOutStream->GetBuffer();
    UsbBuf* b = mOutStream->GetBuffer();
    EXPECT_NE(nullptr, a);
    EXPECT_NE(nullptr, b);
    EXPECT_EQ(nullptr, mOutStream->GetBuffer()) << "all out";
    EXPECT_EQ(2u, mOutStream->GetPendingCount());
    a->ReturnToPool();
    b->ReturnToPool();
    mOutStream->Stop();
    EXPECT_EQ(nullptr, mOutStream->GetBuffer()) << "after Stop";
}

TEST_F(StreamOutTest, GetBufferIsNullWhileARestartIsPending)
{
    StartOut();
    MutexHold<TestStreamOut> hold(mOutStream.get());
    mOutStream->ScheduleRestart();
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mOutStream->GetRestartQueuedCount()) << "the restart has begun and waits for the mutex";
    EXPECT_TRUE(mOutStream->IsRestartPending());
    EXPECT_FALSE(mOutStream->IsStreamEnabled());
    EXPECT_EQ(nullptr, mOutStream->GetBuffer());
    hold.Release();
    EXPECT_FALSE(mOutStream->IsRestartPending());
    UsbBuf* buffer = mOutStream->GetBuffer();
    EXPECT_NE(nullptr, buffer);
    if (buffer != nullptr) buffer->ReturnToPool();
}

TEST_F(StreamOutTest, SubmissionOnAStoppedPipeReturnsTheBufferSilently)
{
    StartOut();
    UsbBuf* buffer = mOutStream->GetBuffer();
    ASSERT_NE(nullptr, buffer);
    mOutStream->Stop();
    const size_t sentBefore = mOut.Count();
    buffer->SetDataLength(1024);
    mOutStream->SubmitWriteBuffer(buffer);
    kplat::RunUntilIdle();
    EXPECT_EQ(sentBefore, mOut.Count());
    EXPECT_EQ(2u, mOutStream->GetBufPool()->GetCurrentCount());
    EXPECT_EQ(3u, mOutStream->GetZlpPool()->GetCurrentCount()) << "no zero-length packet for it";
}

// ---------------------------------------------------------------------------
// Failed writes and removal
// ---------------------------------------------------------------------------

TEST_F(StreamOutTest, FailedWriteRestartsInsteadOfBufferSentAndStartReportsAfterwards)
{
    StartOut();
    const size_t sentBefore = mOut.Count();
    mDev.FailNextTransfers(kBulkOutEp, 1, kplat::UsbHandshake::Stall);

    MutexHold<TestStreamOut> hold(mOutStream.get());
    Write(MakeNtb(1000, 0));
    EXPECT_EQ(sentBefore, mOut.Count()) << "no BufferSent for a failed write";
    EXPECT_TRUE(mOutStream->IsRestartPending());
    EXPECT_EQ(nullptr, mOutStream->GetBuffer());
    EXPECT_TRUE(Traced("ethbrg:StreamOut02::OnBufferCompletion error 0xC0000001 (STATUS_UNSUCCESSFUL) URB:"));

    hold.Release();
    EXPECT_EQ(1u, Count("ethbrg:[StreamOUT02::Restart\n"));
    std::vector<SentEvent> events = mOut.Events();
    ASSERT_EQ(sentBefore + 1, events.size());
    EXPECT_EQ(STATUS_SUCCESS, events.back().status);
    EXPECT_FALSE(events.back().removed);
    EXPECT_EQ(PASSIVE_LEVEL, events.back().irql) << "from Start";
    EXPECT_FALSE(mBus.IsEndpointHalted(kBulkOutEp));

    Write(MakeNtb(1000, 1));
    EXPECT_EQ(1u, mDev.Traffic().outNtbs);
    EXPECT_EQ(0u, Violations()) << Report();
}

TEST_F(StreamOutTest, FailedWriteWithItsZeroLengthPacketRestartsOnce)
{
    StartOut();
    mDev.FailNextTransfers(kBulkOutEp, 1, kplat::UsbHandshake::Stall);
    const size_t sentBefore = mOut.Count();
    Write(MakeNtb(1024, 0));
    // Data and zero-length packet both failed on the halted pipe.
    EXPECT_EQ(1u, Count("ethbrg:[StreamOUT02::Restart\n"));
    EXPECT_EQ(2u, Count("ethbrg:StreamOut02::OnBufferCompletion error"));
    EXPECT_EQ(sentBefore + 1, mOut.Count()) << "only the BufferSent of the restart's Start";
    EXPECT_EQ(3u, mOutStream->GetZlpPool()->GetCurrentCount());
}

TEST_F(StreamOutTest, DeviceGoneStopsHandingOutBuffersAndRefusesToStart)
{
    StartOut();
    mBus.Unplug();
    kplat::RunUntilIdle();
    const size_t sentBefore = mOut.Count();
    Write(MakeNtb(1000, 0));
    EXPECT_TRUE(mOutStream->IsDeviceRemoved());
    EXPECT_EQ(sentBefore, mOut.Count());
    EXPECT_FALSE(mOutStream->IsRestartPending());
    EXPECT_EQ(0u, Count("::Restart\n"));
    EXPECT_EQ(nullptr, mOutStream->GetBuffer()) << "device gone";

    mOutStream->Stop();
    KnSetTraceMask(KN_TRACE_MASK_DEFAULT | KN_TRACE_START);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mOutStream->Start(false));
    EXPECT_TRUE(Traced("ethbrg:[StreamOut02::Start cannot start, device is removed\n"));
    EXPECT_EQ(sentBefore, mOut.Count()) << "no BufferSent from a refused Start";
    EXPECT_FALSE(mOutStream->IsEnabled()) << "the pipe was not enabled";
    EXPECT_FALSE(mOutStream->IsStreamEnabled());
}

}  // namespace
}  // namespace streamtest
