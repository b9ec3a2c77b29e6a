// The receive stream against the simulated NCM function on the stand-in's
// bus: reads kept pending, delivery in submission order, empty reads,
// errors, restarts and a device that goes away.
#include "stream_fixture.h"

namespace streamtest {
namespace {

Bytes Pattern(size_t length, uint8_t seed)
{
    Bytes b(length);
    for (size_t i = 0; i < length; i++) b[i] = (uint8_t)(seed + i);
    return b;
}

class StreamInTest : public StreamTest {
protected:
    void SetUp() override { SelectDataInterface(); }

    // Starts the bulk IN stream with `count` buffers and lets the reads reach the bus.
    void StartIn(ULONG count = 2, ULONG size = 2048)
    {
        ConfigureIn(count, size);
        ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
        kplat::RunUntilIdle();
    }
};

// ---------------------------------------------------------------------------
// Running
// ---------------------------------------------------------------------------

TEST_F(StreamInTest, StartPutsEveryBufferOnThePipeWithTheReadSize)
{
    KnSetTraceMask(KN_TRACE_MASK_DEFAULT | KN_TRACE_START);
    ConfigureIn(3, 2048);
    EXPECT_FALSE(mInStream->IsStreamEnabled());
    EXPECT_EQ(0u, PendingOnBus());
    EXPECT_EQ(2048u, mInStream->GetReadSize());

    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    EXPECT_TRUE(mInStream->IsStreamEnabled());
    EXPECT_EQ(3u, PendingOnBus());
    EXPECT_EQ(3u, mInStream->GetPendingCount());
    EXPECT_EQ(0u, mInStream->GetBufPool()->GetCurrentCount());
    EXPECT_EQ(0u, ClearHalts(kBulkInEp)) << "no reset without resetPipe";
    EXPECT_TRUE(Traced("ethbrg:[StreamIn82::Start\n"));
    EXPECT_TRUE(Traced("ethbrg:]StreamIn82::Start (0x00000000 (STATUS_SUCCESS))\n"));
}

TEST_F(StreamInTest, ReceivedDataReachesTheClientAtDispatchWithoutTheStreamLock)
{
    StartIn();
    const Bytes data = Pattern(700, 3);
    mDev.InjectInTransfer(data);
    kplat::RunUntilIdle();

    std::vector<InEvent> got = mIn.Received();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(data, got[0].data);
    EXPECT_EQ(DISPATCH_LEVEL, got[0].irql);
    EXPECT_FALSE(got[0].streamLocked);
    EXPECT_TRUE(mIn.Errors().empty());
    EXPECT_EQ(2u, PendingOnBus()) << "the client's resubmission put the buffer back";
}

TEST_F(StreamInTest, EmptyReadIsResubmittedWithoutCallingTheClient)
{
    StartIn();
    const uint64_t before = Submitted();
    mDev.InjectInTransfer(Bytes());
    kplat::RunUntilIdle();

    EXPECT_TRUE(mIn.Events().empty()) << "the client hears nothing of an empty read";
    EXPECT_EQ(before + 1, Submitted()) << "the buffer went straight back on the pipe";
    EXPECT_EQ(2u, PendingOnBus());
    EXPECT_FALSE(mInStream->IsRestartPending());

    mDev.InjectInTransfer(Pattern(10, 1));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mIn.Received().size());
}

TEST_F(StreamInTest, OutOfOrderCompletionsAreDeliveredInSubmissionOrder)
{
    InsertFilter();
    StartIn(3);
    ASSERT_EQ(3u, PendingOnBus());

    // The first read's completion stays in the filter; the second one
    // reaches the data pipe first.
    mFilter->HoldNextReads(1);
    const Bytes first = Pattern(100, 0x10);
    const Bytes second = Pattern(200, 0x20);
    mDev.InjectInTransfer(first);
    kplat::RunUntilIdle();
    ASSERT_EQ(1u, mFilter->Held());
    mDev.InjectInTransfer(second);
    kplat::RunUntilIdle();
    EXPECT_TRUE(mIn.Events().empty()) << "the second read waits for the first";

    mFilter->ReleaseAll();
    kplat::RunUntilIdle();
    std::vector<InEvent> got = mIn.Received();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(first, got[0].data);
    EXPECT_EQ(second, got[1].data);
    EXPECT_EQ(0u, got[0].index);
    EXPECT_EQ(1u, got[1].index);
}

TEST_F(StreamInTest, BuffersHeldByTheClientAreNotSubmitted)
{
    mIn.SetKeep(true);
    StartIn(2);
    mDev.InjectInTransfer(Pattern(64, 1));
    mDev.InjectInTransfer(Pattern(64, 2));
    kplat::RunUntilIdle();
    ASSERT_EQ(2u, mIn.Received().size());
    EXPECT_EQ(0u, PendingOnBus());

    const uint64_t before = Submitted();
    mInStream->ResubmitReadBuffers();
    kplat::RunUntilIdle();
    EXPECT_EQ(before, Submitted()) << "nothing idle, nothing submitted";
    EXPECT_EQ(0u, PendingOnBus());

    ASSERT_TRUE(mIn.ReturnOneKept());
    mInStream->ResubmitReadBuffers();
    kplat::RunUntilIdle();
    EXPECT_EQ(before + 1, Submitted());
    EXPECT_EQ(1u, PendingOnBus());
}

TEST_F(StreamInTest, LimitReadSizeShortensTheFollowingReads)
{
    StartIn(2, 2048);
    mInStream->LimitReadSize(8192);
    EXPECT_EQ(2048u, mInStream->GetReadSize()) << "never raised";
    mInStream->LimitReadSize(1024);
    EXPECT_EQ(1024u, mInStream->GetReadSize());

    // The two reads on the pipe still ask for 2048 bytes; the restart
    // submits reads of 1024.
    mInStream->ScheduleRestart();
    kplat::RunUntilIdle();
    ASSERT_TRUE(mInStream->IsStreamEnabled());
    mDev.InjectInTransfer(Pattern(1500, 5), ethsim::NcmDevice::Zlp::Never);
    kplat::RunUntilIdle();
    std::vector<InEvent> got = mIn.Received();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(1024u, got[0].data.size());
    EXPECT_EQ(476u, got[1].data.size());
}

TEST_F(StreamInTest, NotificationStreamReadsTheInterruptEndpointByThePacket)
{
    // Selecting the data interface made the function queue its link state.
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Configure(&mDevice, &mConfig, kNotifyEp, mBus.Pdo(), &mIn, 1, 16));
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();

    std::vector<InEvent> got = mIn.Received();
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(16u, got[0].data.size());
    EXPECT_EQ(0x2A, got[0].data[1]) << "CONNECTION_SPEED_CHANGE first";
    EXPECT_EQ(8u, got[1].data.size());
    EXPECT_EQ(0x00, got[1].data[1]) << "then NETWORK_CONNECTION";
    EXPECT_EQ(1, got[1].data[2]);
    EXPECT_EQ(1u, PendingOnBus()) << "the one buffer is back on the pipe";
}

// ---------------------------------------------------------------------------
// Errors and restart
// ---------------------------------------------------------------------------

TEST_F(StreamInTest, CancelledReadIndicatesErrorUnderTheLockAndRestartsOnce)
{
    ConfigureIn(2);
    // The reads go out in pool order: learn which buffer is read first.
    UsbBuf* first = mInStream->GetBufPool()->GetBuffer();
    UsbBuf* second = mInStream->GetBufPool()->GetBuffer();
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    first->ReturnToPool();
    second->ReturnToPool();
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    ASSERT_EQ(2u, PendingOnBus());
    const size_t resetsBefore = ClearHalts(kBulkInEp);

    IoCancelIrp(first->Irp());
    kplat::RunUntilIdle();

    std::vector<InEvent> errors = mIn.Errors();
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(STATUS_CANCELLED, errors[0].status);
    EXPECT_FALSE(errors[0].removed);
    EXPECT_EQ(DISPATCH_LEVEL, errors[0].irql);
    EXPECT_TRUE(errors[0].streamLocked) << "IndicateError runs under the stream's lock";
    EXPECT_EQ(1u, Count("ethbrg:[StreamIN82::Restart\n"));
    EXPECT_EQ(1u, Count("ethbrg:]StreamIN82::Restart\n"));
    EXPECT_EQ(resetsBefore + 1, ClearHalts(kBulkInEp)) << "the restart resets the pipe";
    EXPECT_TRUE(Traced("ethbrg:StreamIn82::OnBufferCompletion error 0xC0000120 (STATUS_CANCELLED)"));
    EXPECT_TRUE(mInStream->IsStreamEnabled());
    EXPECT_FALSE(mInStream->IsRestartPending());
    EXPECT_EQ(2u, PendingOnBus()) << "both reads are back after the restart";

    mDev.InjectInTransfer(Pattern(30, 9));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mIn.Received().size());
}

TEST_F(StreamInTest, TwoFailedReadsBeforeTheRestartRestartOnce)
{
    StartIn(2);
    // The next packet request stalls: the endpoint halts and both reads fail.
    mDev.FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
    const Bytes data = Pattern(80, 4);
    mDev.InjectInTransfer(data);
    kplat::RunUntilIdle();

    std::vector<InEvent> errors = mIn.Errors();
    ASSERT_EQ(2u, errors.size());
    for (const InEvent& e : errors) {
        EXPECT_EQ(STATUS_UNSUCCESSFUL, e.status);
        EXPECT_FALSE(e.removed);
    }
    EXPECT_EQ(1u, Count("ethbrg:[StreamIN82::Restart\n"));
    EXPECT_FALSE(mBus.IsEndpointHalted(kBulkInEp)) << "the restart cleared the halt";
    EXPECT_TRUE(mInStream->IsStreamEnabled());

    // The injected transfer was not sent; it comes now.
    std::vector<InEvent> got = mIn.Received();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(data, got[0].data);
}

TEST_F(StreamInTest, RestartWithAFailingResetLeavesTheStreamDisabled)
{
    StartIn(2);
    mDev.StallNextControl(1, kUsbClearFeature);
    mDev.FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
    mDev.InjectInTransfer(Pattern(8, 1));
    kplat::RunUntilIdle();

    EXPECT_EQ(1u, Count("ethbrg:[StreamIN82::Restart\n"));
    EXPECT_TRUE(Traced("ethbrg StreamIn82::Start, fatal: ResetPipe failed, adapter is still disabled\n"));
    EXPECT_FALSE(mInStream->IsStreamEnabled());
    EXPECT_FALSE(mInStream->IsRestartPending());
    EXPECT_EQ(0u, PendingOnBus());

    // The owner's next start brings it back.
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(true));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mIn.Received().size());
}

TEST_F(StreamInTest, StartWhoseResetFailsReturnsItsStatusAndSubmitsNothing)
{
    ConfigureIn(2);
    mDev.StallNextControl(1, kUsbClearFeature);
    const uint64_t before = Submitted();
    const NTSTATUS status = mInStream->Start(true);
    kplat::RunUntilIdle();

    EXPECT_EQ(STATUS_UNSUCCESSFUL, status);
    EXPECT_FALSE(mInStream->IsStreamEnabled());
    EXPECT_EQ(before + 1, Submitted()) << "only the reset went to the bus";
    EXPECT_EQ(0u, PendingOnBus());
    EXPECT_EQ(2u, mInStream->GetBufPool()->GetCurrentCount());
    EXPECT_TRUE(Traced("ethbrg StreamIn82::Start, fatal: ResetPipe failed, adapter is still disabled\n"));

    // Stopped as after Stop: a second start works.
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(true));
    kplat::RunUntilIdle();
    EXPECT_EQ(2u, PendingOnBus());
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

// ---------------------------------------------------------------------------
// Removal
// ---------------------------------------------------------------------------

TEST_F(StreamInTest, DeviceGoneIndicatesRemovedAndSubmitsNothingMore)
{
    StartIn(2);
    mBus.Unplug();
    kplat::RunUntilIdle();

    std::vector<InEvent> errors = mIn.Errors();
    ASSERT_EQ(2u, errors.size());
    for (const InEvent& e : errors) {
        EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, e.status);
        EXPECT_TRUE(e.removed);
    }
    EXPECT_TRUE(mInStream->IsDeviceRemoved());
    EXPECT_FALSE(mInStream->IsRestartPending());
    EXPECT_EQ(0u, mInStream->GetRestartQueuedCount());
    EXPECT_EQ(0u, Count("ScheduleRestart call ScheduleWorkItem"));
    EXPECT_EQ(0u, Count("::Restart\n"));

    const uint64_t before = Submitted();
    mInStream->ResubmitReadBuffers();
    kplat::RunUntilIdle();
    EXPECT_EQ(before, Submitted());
    EXPECT_EQ(2u, mInStream->GetBufPool()->GetCurrentCount());

    // Start sets the stream going but submits nothing on a removed device.
    mInStream->Stop();
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    EXPECT_EQ(before, Submitted());
}

TEST_F(StreamInTest, QueuedRestartReturnsAtOnceOnceTheDeviceIsGone)
{
    ConfigureIn(2);
    UsbBuf* a = mInStream->GetBufPool()->GetBuffer();
    UsbBuf* b = mInStream->GetBufPool()->GetBuffer();
    ASSERT_NE(nullptr, a);
    ASSERT_NE(nullptr, b);
    a->ReturnToPool();
    b->ReturnToPool();
    ASSERT_EQ(STATUS_SUCCESS, mInStream->Start(false));
    kplat::RunUntilIdle();
    KnSetTraceMask(KN_TRACE_MASK_DEFAULT | KN_TRACE_INFO);

    DelayedQueueBlocker blocker(mBus.Pdo());
    IoCancelIrp(a->Irp());
    mBus.Unplug();
    // The deliveries come in order: once the removal is reported, the
    // cancelled read has scheduled its restart, which waits in the queue.
    mIn.WaitForRemovedError();
    ASSERT_TRUE(mInStream->IsDeviceRemoved());
    ASSERT_TRUE(mInStream->IsRestartPending());
    EXPECT_EQ(1u, mInStream->GetRestartQueuedCount());
    std::vector<InEvent> errors = mIn.Errors();
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ(STATUS_CANCELLED, errors[0].status);
    EXPECT_FALSE(errors[0].removed);
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, errors[1].status);
    EXPECT_TRUE(errors[1].removed);

    mCapture.Take();
    blocker.Release();
    EXPECT_EQ(0u, mInStream->GetRestartQueuedCount());
    EXPECT_EQ(0u, Count("::Restart\n")) << "the restart returned at once";
    EXPECT_EQ(0u, Count("Stream::StopIN82 enter")) << "and did not stop the stream";
    EXPECT_TRUE(mInStream->IsRestartPending());
}

}  // namespace
}  // namespace streamtest
