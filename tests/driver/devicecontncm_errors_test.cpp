// DeviceContNcm, receive errors: every failed read restarts the receive
// stream; three within a minute of each other shrink the receive transfers
// to 8192 bytes and tell the device so; a removed device goes quiet.
#include "devicecontncm_fixture.h"

#include <thread>

namespace ncmtest {
namespace {

class NcmErrorTest : public NcmTest {
protected:
    // One read on the pipe: a stall halts the pipe and fails every read
    // pending on it, so one read makes one stall one error.
    NcmErrorTest() { mConfig.RxBuffers = 1; }

    // One failed read: the device stalls the next bulk IN transfer, which a
    // frame from the network provokes; the stream restarts (pipe reset) and
    // the frame then arrives.
    void FailOneRead(uint32_t seed)
    {
        size_t before = mAdapter.Received().size();
        mDevice->FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
        FromNetwork(MakeFrame(60, seed));
        kplat::RunUntilIdle();
        ASSERT_EQ(before + 1, mAdapter.Received().size()) << "the stream restarted and read again";
    }
    size_t Errors() { return TraceCount("ethbrg:DeviceContNcm::IndicateError: 0xC0000001"); }
};

TEST_F(NcmErrorTest, EachReadErrorRestartsTheStream)
{
    CreateAndStart();
    FailOneRead(1);
    EXPECT_EQ(1u, Errors());
    EXPECT_TRUE(Traced("removed:false\n"));
    EXPECT_EQ(1u, Peer::RxErrorCount(*mCont));
    EXPECT_EQ(16384u, Peer::InStream(*mCont).GetReadSize());
    EXPECT_EQ(mConfig.RxBuffers, Peer::InStream(*mCont).GetPendingCount());
}

TEST_F(NcmErrorTest, ThreeErrorsWithinAMinuteShrinkTheReceiveSize)
{
    CreateAndStart();
    ASSERT_EQ(16384u, mDevice->GetState().ntbInputSize);
    FailOneRead(1);            // 0 s
    kplat::AdvanceTime(10000);
    FailOneRead(2);            // 10 s
    EXPECT_EQ(16384u, Peer::InStream(*mCont).GetReadSize());
    kplat::AdvanceTime(10000);
    FailOneRead(3);            // 20 s: the third
    EXPECT_EQ(3u, Peer::RxErrorCount(*mCont));
    EXPECT_EQ(8192u, Peer::InStream(*mCont).GetReadSize());
    EXPECT_EQ(8192u, mDevice->GetState().ntbInputSize) << "told to the device from the work item";
    EXPECT_EQ(16384u, Peer::InputBufferSize(*mCont)) << "a later Start announces the full size again";
    EXPECT_EQ(2u, mRecorder->CountRequests(0x86));
    // Frames still arrive, in the smaller transfers.
    std::vector<Bytes> frames;
    for (int i = 0; i < 20; i++) frames.push_back(MakeFrame(1000, 10 + i));
    mAdapter.ClearReceived();
    for (const Bytes& f : frames) FromNetwork(f);
    kplat::RunUntilIdle();
    EXPECT_EQ(frames, mAdapter.ReceivedData());

    // A fourth in the same burst counts 4 and only restarts the stream.
    kplat::AdvanceTime(10000);
    FailOneRead(4);
    EXPECT_EQ(4u, Peer::RxErrorCount(*mCont));
    EXPECT_EQ(2u, mRecorder->CountRequests(0x86));

    // Stop and Start: the full size is announced again.
    mCont->Stop();
    ASSERT_EQ(STATUS_SUCCESS, Start());
    kplat::RunUntilIdle();
    EXPECT_EQ(16384u, mDevice->GetState().ntbInputSize);
    EXPECT_EQ(4u, Peer::RxErrorCount(*mCont)) << "the count survives Stop and Start";
}

// Errors further apart than a minute start the count again; exactly a
// minute apart counts as a new burst, 59.999 s does not.
TEST_F(NcmErrorTest, ErrorsAMinuteApartStartTheCountAgain)
{
    CreateAndStart();
    FailOneRead(1);            // 0 s
    kplat::AdvanceTime(59999);
    FailOneRead(2);            // 59.999 s: 2
    EXPECT_EQ(2u, Peer::RxErrorCount(*mCont));
    kplat::AdvanceTime(60000);
    FailOneRead(3);            // a minute later: 1
    EXPECT_EQ(1u, Peer::RxErrorCount(*mCont));
    kplat::AdvanceTime(70000);
    FailOneRead(4);            // 70 s later: 1
    EXPECT_EQ(1u, Peer::RxErrorCount(*mCont));
    kplat::AdvanceTime(10000);
    FailOneRead(5);            // 10 s later: 2
    EXPECT_EQ(2u, Peer::RxErrorCount(*mCont));
    EXPECT_EQ(16384u, Peer::InStream(*mCont).GetReadSize());
    EXPECT_EQ(16384u, mDevice->GetState().ntbInputSize);
    EXPECT_EQ(1u, mRecorder->CountRequests(0x86));
}

TEST_F(NcmErrorTest, AfterRemovalTheStreamGoesQuiet)
{
    CreateAndStart();
    mDevice->Unplug();
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::IndicateError: 0xC000009D"));
    EXPECT_TRUE(Traced("removed:true\n"));
    EXPECT_EQ(1u, TraceCount("ethbrg:DeviceContNcm::IndicateError:")) << "one report, no restart, no more reads";
    EXPECT_EQ(0u, Peer::RxErrorCount(*mCont)) << "a removal is not counted";
    StreamIn& in = Peer::InStream(*mCont);
    EXPECT_TRUE(in.IsDeviceRemoved());
    EXPECT_EQ(0u, in.GetPendingCount());
    EXPECT_EQ(0u, in.GetRestartQueuedCount());
    kplat::AdvanceTime(1000);
    EXPECT_EQ(1u, TraceCount("ethbrg:DeviceContNcm::IndicateError:"));
    // Stop and Exit still work on the gone device.
    Destroy();
}

// A read and a write fail; their restarts are queued but have not run when
// the device control is stopped (and, with the parameter, exited).
class NcmQueuedRestartTest : public NcmErrorTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NcmQueuedRestartTest, DoesNothingAfterTheStop)
{
    CreateAndStart();
    StreamIn& in = Peer::InStream(*mCont);
    StreamOut& out = Peer::OutStream(*mCont);
    {
        drvtest::DelayedQueueBlocker blocker(mFdo);
        mDevice->FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
        mDevice->FailNextTransfers(kBulkOutEp, 1, kplat::UsbHandshake::Stall);
        FromNetwork(MakeFrame(60, 1));
        Send(MakeFrame(60, 2));
        while (!in.IsRestartPending() || !out.IsRestartPending()) std::this_thread::yield();
        mCont->Stop();
        if (GetParam()) {
            mCont->Exit();
        }
        mRecorder->ClearSetups();
        NdSpinlockGuard guard(mAdapterLock);
        mAdapter.submitCalls = 0;
    }
    EXPECT_FALSE(Traced("::Restart\n")) << "no restart ran";
    EXPECT_TRUE(mRecorder->Setups().empty()) << "no pipe reset";
    EXPECT_EQ(0u, mBus->PendingRequests()) << "no read";
    EXPECT_EQ(0u, mAdapter.submitCalls) << "no BufferSent";
    EXPECT_FALSE(in.IsStreamEnabled() || out.IsStreamEnabled());
    if (!GetParam()) {
        ASSERT_EQ(STATUS_SUCCESS, Start());
        kplat::RunUntilIdle();
        FromNetwork(MakeFrame(60, 3));
        kplat::RunUntilIdle();
        EXPECT_FALSE(mAdapter.Received().empty());
    }
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

INSTANTIATE_TEST_SUITE_P(StopOrExit, NcmQueuedRestartTest, ::testing::Bool());

// The pipe resets of the restarts after a failed read and a failed write
// stall GetParam() times each.
class NcmFailedRestartTest : public NcmErrorTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(NcmFailedRestartTest, IsRetriedUntilTrafficFlowsBothWays)
{
    CreateAndStart();
    mDevice->StallNextControl(2 * GetParam(), 0x01);  // CLEAR_FEATURE(ENDPOINT_HALT)
    mDevice->FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
    mDevice->FailNextTransfers(kBulkOutEp, 1, kplat::UsbHandshake::Stall);
    FromNetwork(MakeFrame(60, 1));
    Send(MakeFrame(60, 2));  // lost with its write
    kplat::AdvanceTime(4000);
    EXPECT_EQ(2 * GetParam(), TraceCount("::Restart failed 0xC0000001 (STATUS_UNSUCCESSFUL), retry in 1000 ms\n"));
    Send(MakeFrame(60, 3));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mAdapter.Received().size());
    EXPECT_EQ(1u, mNetwork.Count());
}

INSTANTIATE_TEST_SUITE_P(Stalls, NcmFailedRestartTest, ::testing::Values(1u, 2u));

TEST_F(NcmErrorTest, AFailedRestartOfARemovedDeviceIsNotRetried)
{
    CreateAndStart();
    {
        drvtest::DelayedQueueBlocker blocker(mFdo);
        mDevice->FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
        FromNetwork(MakeFrame(60, 1));
        while (!Peer::InStream(*mCont).IsRestartPending()) std::this_thread::yield();
        mBus->Unplug();
    }
    kplat::AdvanceTime(10000);
    EXPECT_EQ(1u, TraceCount("ethbrg:StreamIN82::Restart failed 0xC000009D (STATUS_DEVICE_NOT_CONNECTED), device "
                             "removed\n"));
    EXPECT_EQ(1u, TraceCount("::Restart failed"));
    EXPECT_EQ(0u, Peer::InStream(*mCont).GetRestartQueuedCount());
}

TEST_F(NcmErrorTest, AReadTheBusHoldsPastTheDrainIsFreedOnlyOnceBack)
{
    CreateAndStart();
    // Longer than the drains of Stop and of the destruction (10 s each).
    mBus->HoldAbortedTransfers(kBulkInEp, 25000);
    Destroy();
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount) << kplat::PoolLeakReport();
    EXPECT_EQ(1u, TraceCount("ethbrg:StreamIN82::Stop: drain timed out, buffers stay with the bus\n"));
}

TEST_F(NcmErrorTest, AThirdErrorWhileStoppedQueuesNoWork)
{
    // The work item is queued only while started: with the device control
    // stopped (a restart of the stream still running it), a burst only
    // shrinks the read size.
    CreateAndStart();
    FailOneRead(1);
    FailOneRead(2);
    mCont->Stop();
    // The stream is started again by hand, as a stray restart would.
    StreamIn& in = Peer::InStream(*mCont);
    ASSERT_EQ(STATUS_SUCCESS, in.Start(true));
    kplat::RunUntilIdle();
    mDevice->FailNextTransfers(kBulkInEp, 1, kplat::UsbHandshake::Stall);
    FromNetwork(MakeFrame(60, 3));
    kplat::RunUntilIdle();
    EXPECT_EQ(3u, Peer::RxErrorCount(*mCont));
    EXPECT_EQ(8192u, in.GetReadSize());
    EXPECT_EQ(1u, mRecorder->CountRequests(0x86)) << "no SET_NTB_INPUT_SIZE from a work item";
    in.Stop();
    kplat::RunUntilIdle();
}

}  // namespace
}  // namespace ncmtest
