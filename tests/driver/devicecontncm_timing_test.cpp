// DeviceContNcm, adaptive transmit timing: the bandwidth tick on the virtual
// clock, the switching band, and what the switch does to the transmit path.
#include "devicecontncm_fixture.h"

namespace ncmtest {
namespace {

class NcmTimingTest : public NcmTest {
protected:
    NcmTimingTest()
    {
        mConfig.NcmTxPeriod = 8;
        mConfig.RxMeasurementPeriod = 100;
    }
    // One measurement period with `bytes` handed over; returns the mode after it.
    bool Tick(ULONG bytes)
    {
        Peer::AddRxBytes(*mCont, bytes);
        kplat::AdvanceTime(mConfig.RxMeasurementPeriod);
        return Peer::SendTimerBased(*mCont);
    }
    uint64_t SubmitCalls()
    {
        NdSpinlockGuard guard(mAdapterLock);
        return mAdapter.submitCalls;
    }
};

TEST_F(NcmTimingTest, TheModeSwitchesAtTheBandEdges)
{
    CreateAndStart();
    EXPECT_FALSE(Peer::SendTimerBased(*mCont));
    EXPECT_TRUE(Tick(625000));  // 6250 bytes/ms -> 50 Mbit/s
    EXPECT_EQ(50u, Peer::RxBandwidth(*mCont));
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::RxBandwithTimer mRxBandwidth:50 Mbps, SendTimerBased:yes\n"));
    EXPECT_TRUE(Tick(524999));  // 5249 * 8 / 1000 = 41: unchanged
    EXPECT_EQ(41u, Peer::RxBandwidth(*mCont));
    EXPECT_FALSE(Tick(475000));  // 38: off
    EXPECT_EQ(38u, Peer::RxBandwidth(*mCont));
    EXPECT_TRUE(Traced("ethbrg:DeviceContNcm::RxBandwithTimer mRxBandwidth:38 Mbps, SendTimerBased:no\n"));
    EXPECT_FALSE(Tick(524999));  // 41: unchanged
    EXPECT_FALSE(Tick(525000));  // 42: not above 42
    EXPECT_EQ(42u, Peer::RxBandwidth(*mCont));
    EXPECT_TRUE(Tick(537500));  // 43: on
    EXPECT_EQ(43u, Peer::RxBandwidth(*mCont));
    EXPECT_TRUE(Tick(487500));  // 39: unchanged
    EXPECT_FALSE(Tick(0));
    EXPECT_EQ(0u, Peer::RxByteCount(*mCont)) << "each tick takes and clears the count";
}

TEST_F(NcmTimingTest, AWideHysteresisSwitchesOnAbove90AndOffOnlyAtZero)
{
    mConfig.TputHysteresis = 50;
    CreateAndStart();
    EXPECT_FALSE(Tick(1125000));  // 90
    EXPECT_TRUE(Tick(1137500));   // 91
    EXPECT_TRUE(Tick(12500));     // 1
    EXPECT_FALSE(Tick(12499));    // 0
}

TEST_F(NcmTimingTest, TheTickRunsEveryPeriodWhileStartedAndNotAfterStop)
{
    CreateAndStart();
    const std::string tick = "ethbrg:DeviceContNcm::RxBandwithTimer\n";
    EXPECT_EQ(0u, TraceCount(tick));
    kplat::AdvanceTime(99);
    EXPECT_EQ(0u, TraceCount(tick));
    kplat::AdvanceTime(1);
    EXPECT_EQ(1u, TraceCount(tick));
    kplat::AdvanceTime(1000);
    EXPECT_EQ(11u, TraceCount(tick));
    mCont->Stop();
    kplat::AdvanceTime(1000);
    EXPECT_EQ(11u, TraceCount(tick));
}

TEST_F(NcmTimingTest, TheTickRunsAlsoWhenStartingTheStreamsTakesLongerThanAPeriod)
{
    mConfig.SendClearEpHaltOnStart = 1;
    ASSERT_EQ(STATUS_SUCCESS, Create());
    // Every request of the start answered 40 ms late: the three pipe resets
    // alone take 120 ms.
    mDevice->DelayNextControl(10, 40);
    ASSERT_EQ(STATUS_SUCCESS, Start());
    const size_t before = TraceCount("ethbrg:DeviceContNcm::RxBandwithTimer\n");
    kplat::AdvanceTime(1000);
    EXPECT_EQ(before + 10, TraceCount("ethbrg:DeviceContNcm::RxBandwithTimer\n"));
}

TEST_F(NcmTimingTest, WithoutAMeasurementPeriodThereIsNoTick)
{
    // NcmTxPeriod 0 makes the configuration clear RxMeasurementPeriod.
    mConfig.NcmTxPeriod = 0;
    mConfig.RxMeasurementPeriod = 0;
    CreateAndStart();
    Peer::AddRxBytes(*mCont, 10000000);
    kplat::AdvanceTime(10000);
    EXPECT_EQ(0u, TraceCount("ethbrg:DeviceContNcm::RxBandwithTimer"));
    EXPECT_FALSE(Peer::SendTimerBased(*mCont));
}

TEST_F(NcmTimingTest, TheSwitchIntoTimerModeStartsTheTransmitTimerOnce)
{
    CreateAndStart();
    uint64_t s0 = SubmitCalls();
    EXPECT_TRUE(Tick(625000));  // t = 100: on; the transmit timer is set for t = 200
    EXPECT_EQ(s0, SubmitCalls());
    EXPECT_TRUE(Tick(625000));  // t = 200: the timer pass ran; this tick starts no timer
    uint64_t s1 = SubmitCalls();
    EXPECT_EQ(s0 + 1, s1) << "one pass of the transmit timer";
    EXPECT_FALSE(Tick(0));      // t = 300
    EXPECT_EQ(s1, SubmitCalls()) << "the second tick above the band started no timer";
}

TEST_F(NcmTimingTest, TheSwitchFlushesAnNtbLeftWaitingInImmediateMode)
{
    CreateAndStart();
    mRecorder->HoldOut();
    Send(MakeFrame(60, 1));
    kplat::RunUntilIdle();
    Send(MakeFrame(60, 2));  // gathers behind the NTB in flight
    kplat::RunUntilIdle();
    ASSERT_EQ(1u, Peer::TxDatagramCount(*mCont));
    EXPECT_TRUE(Tick(625000));   // t = 100
    ASSERT_NE(nullptr, Peer::CurrentTxBuffer(*mCont));
    kplat::AdvanceTime(100);     // t = 200: the timer expires in timer mode
    EXPECT_EQ(0u, Peer::TxDatagramCount(*mCont)) << "submitted although one NTB is in flight";
    EXPECT_GE(Peer::OutStream(*mCont).GetPendingCount(), 2u);
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ(2u, mNetwork.Count());
    ExpectConformingNtbs();
}

TEST_F(NcmTimingTest, ATimerExpiryDuringASendPassSendsTheStartedNtb)
{
    CreateAndStart();
    Peer::SetSendTimerBased(*mCont, true);
    mRecorder->HoldOut();
    Send(MakeFrame(60, 1));  // idle pipe: at once, and in flight from now on
    Send(MakeFrame(60, 2));  // starts an NTB and the transmit timer
    kplat::RunUntilIdle();
    bool fired = false;
    mAdapter.onSubmit = [&] {
        if (!fired) {
            fired = true;
            kplat::AdvanceTime(mConfig.NcmTxPeriod);  // expires while this pass runs
        }
    };
    Send(MakeFrame(60, 3));
    mAdapter.onSubmit = nullptr;
    EXPECT_EQ(0u, Peer::TxDatagramCount(*mCont)) << "the expiry's pass sent it, one NTB still in flight";
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ(3u, mNetwork.Count());
    ExpectConformingNtbs();
}

TEST_F(NcmTimingTest, InTimerModeTheTransmitPeriodGathersPacketsBehindAnNtbInFlight)
{
    CreateAndStart();
    EXPECT_TRUE(Tick(625000));
    mRecorder->HoldOut();
    Send(MakeFrame(60, 1));  // idle pipe: at once
    kplat::RunUntilIdle();
    for (int i = 0; i < 4; i++) {
        Send(MakeFrame(100, 10 + i));
        kplat::AdvanceTime(1);
    }
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mNetwork.Count()) << "BufferSent does not send in timer mode";
    kplat::AdvanceTime(4);  // NcmTxPeriod 8 after the first of the four
    EXPECT_EQ(5u, mNetwork.Count());
    EXPECT_EQ(2u, mRecorder->Ntbs().size());
    ExpectConformingNtbs();
}

}  // namespace
}  // namespace ncmtest
