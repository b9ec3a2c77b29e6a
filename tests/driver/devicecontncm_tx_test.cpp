// DeviceContNcm, transmit: NTBs built from the test adapter's packets, sent
// through the bulk OUT stream to the simulated function, whose checker must
// find nothing wrong with any of them; placement against the reference
// encoder; when an NTB leaves (idle pipe, gathering, timer mode, limits);
// sequence numbers, termination and zero-length packets.
#include <atomic>
#include <thread>

#include "devicecontncm_fixture.h"

namespace ncmtest {
namespace {

class NcmTxTest : public NcmTest {
protected:
    std::vector<ParsedNtb> Parsed()
    {
        std::vector<ParsedNtb> out;
        for (const Bytes& b : mRecorder->Ntbs()) out.push_back(ParseBuiltNtb(b, Peer::Use32BitHeaders(*mCont)));
        return out;
    }
    std::vector<size_t> DatagramCounts()
    {
        std::vector<size_t> out;
        for (const ParsedNtb& p : Parsed()) out.push_back(p.entries.size());
        return out;
    }
    std::vector<Bytes> Frames(size_t count, size_t length, uint32_t seed)
    {
        std::vector<Bytes> out;
        for (size_t i = 0; i < count; i++) out.push_back(MakeFrame(length, seed + (uint32_t)i));
        return out;
    }
};

// In immediate mode (false) and in timer mode (true) alike.
class NcmTxIdleTest : public NcmTxTest, public ::testing::WithParamInterface<bool> {};

TEST_P(NcmTxIdleTest, OnePacketOnAnIdlePipeLeavesAtOnce)
{
    if (GetParam()) mConfig.NcmTxPeriod = 8;
    CreateAndStart();
    Peer::SetSendTimerBased(*mCont, GetParam());
    Bytes frame = MakeFrame(60, 1);
    Send(frame);
    kplat::RunUntilIdle();
    ASSERT_EQ(std::vector<size_t>{1}, DatagramCounts());
    ASSERT_EQ(1u, mNetwork.Count());
    EXPECT_EQ(frame, mNetwork.Frames()[0]);
    EXPECT_EQ(std::vector<ULONG>(mAdapter.maxLengths.size(), 1514), mAdapter.maxLengths);
    ExpectConformingNtbs();
}
INSTANTIATE_TEST_SUITE_P(Modes, NcmTxIdleTest, ::testing::Bool());

TEST_F(NcmTxTest, PacketsArrivingWhileAnNtbIsInFlightGatherAndLeaveWhenItCompletes)
{
    mConfig.NcmTxPeriod = 8;  // immediate mode with a transmit timer configured
    CreateAndStart();
    mRecorder->HoldOut();
    Send(MakeFrame(60, 3));
    kplat::RunUntilIdle();
    std::vector<Bytes> five = Frames(5, 200, 10);
    for (const Bytes& f : five) {
        Send(f);  // one request each, as packets trickle in
        kplat::RunUntilIdle();
    }
    EXPECT_TRUE(mRecorder->Ntbs().empty());
    EXPECT_EQ(2u, Peer::OutStream(*mCont).GetPendingCount()) << "one in flight, one gathering";
    EXPECT_EQ(5u, Peer::TxDatagramCount(*mCont));
    EXPECT_FALSE(mCont->IsTxPathIdle());
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<size_t>{1, 5}), DatagramCounts());
    std::vector<Bytes> net = mNetwork.Frames();
    ASSERT_EQ(6u, net.size());
    EXPECT_EQ(five, std::vector<Bytes>(net.begin() + 1, net.end()));
    EXPECT_TRUE(mCont->IsTxPathIdle());
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, WithoutTransmitTimerEachRunSendsItsNtbUntilTheBuffersRunOut)
{
    ASSERT_EQ(0u, mConfig.NcmTxPeriod);
    CreateAndStart();
    mRecorder->HoldOut();
    std::vector<Bytes> frames = Frames(7, 300, 20);
    for (const Bytes& f : frames) {
        Send(f);
        kplat::RunUntilIdle();
    }
    EXPECT_EQ(mConfig.TxBuffers, Peer::OutStream(*mCont).GetPendingCount()) << "every OUT buffer in flight";
    EXPECT_EQ(3u, mAdapter.QueuedTx()) << "the rest waits in the adapter's queue";
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<size_t>{1, 1, 1, 1, 3}), DatagramCounts());
    EXPECT_EQ(frames, mNetwork.Frames());
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, InTimerModeAStartedNtbWaitsForTheTimerNotForTheCompletion)
{
    mConfig.NcmTxPeriod = 8;
    CreateAndStart();
    Peer::SetSendTimerBased(*mCont, true);
    mRecorder->HoldOut();
    Send(MakeFrame(60, 30));
    kplat::RunUntilIdle();
    Send(MakeFrame(61, 31));  // first datagram of the next NTB: the timer starts
    kplat::RunUntilIdle();
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ(std::vector<size_t>{1}, DatagramCounts()) << "BufferSent does not send it in timer mode";
    Send(MakeFrame(62, 32));  // joins the waiting NTB
    kplat::AdvanceTime(7);
    EXPECT_EQ(std::vector<size_t>{1}, DatagramCounts());
    kplat::AdvanceTime(1);
    EXPECT_EQ((std::vector<size_t>{1, 2}), DatagramCounts()) << "sent 8 ms after its first datagram";
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, InImmediateModeTheTimerSendsOnlyWhenNothingIsInFlight)
{
    mConfig.NcmTxPeriod = 8;
    CreateAndStart();
    mRecorder->HoldOut();
    Send(MakeFrame(60, 33));
    kplat::RunUntilIdle();
    Send(MakeFrame(61, 34));
    kplat::RunUntilIdle();
    Peer::ProcessTxBuffers(*mCont, true);  // as the timer DPC: mSendTimerBased is clear
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, Peer::TxDatagramCount(*mCont)) << "kept: another NTB is in flight";
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<size_t>{1, 1}), DatagramCounts());
}

TEST_F(NcmTxTest, AtMost169DatagramsGoIntoOneNtb)
{
    for (bool ntb32 : {false, true}) {
        SCOPED_TRACE(ntb32 ? "NTB32" : "NTB16");
        Destroy();
        ethsim::DeviceProfile p = ntb32 ? ethsim::DeviceProfile() : Ntb16Profile();
        p.ntb.dwNtbOutMaxSize = 65536;
        CreateAndStart(p);
        std::vector<Bytes> frames = Frames(400, 60, 40);
        Send(frames);
        kplat::RunUntilIdle();
        // The first leaves alone on the idle pipe; the run then fills NTBs
        // of 169 and sends the rest when the queue is empty.
        EXPECT_EQ((std::vector<size_t>{1, 169, 169, 61}), DatagramCounts());
        EXPECT_EQ(frames, mNetwork.Frames());
        ExpectConformingNtbs();
        mNetwork.Clear();
    }
}

TEST_F(NcmTxTest, TheDevicesDatagramLimitIsKept)
{
    ethsim::DeviceProfile p;
    p.ntb.wNtbOutMaxDatagrams = 16;
    CreateAndStart(p);
    EXPECT_EQ(16u, Peer::MaxTxDatagrams(*mCont));
    Send(Frames(40, 60, 50));
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<size_t>{1, 16, 16, 7}), DatagramCounts());
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, AFullNtbLeavesBeforeTheQueueIsEmpty)
{
    ethsim::DeviceProfile p = Ntb16Profile();
    p.ntb.dwNtbOutMaxSize = 8192;
    CreateAndStart(p);
    Send(Frames(12, 1514, 60));
    kplat::RunUntilIdle();
    // 8192 bytes take five 1514-byte frames (the fifth at 6078, then room
    // for a sixth is missing).
    std::vector<size_t> counts = DatagramCounts();
    EXPECT_EQ((std::vector<size_t>{1, 5, 5, 1}), counts);
    for (const Bytes& b : mRecorder->Ntbs()) EXPECT_LE(b.size(), 8192u);
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, SequenceNumbersCountUpAndWrapAfter65535)
{
    CreateAndStart();
    Peer::SetTxSequence(*mCont, 65534);
    for (int i = 0; i < 3; i++) {
        Send(MakeFrame(60, 70 + i));
        kplat::RunUntilIdle();
    }
    std::vector<ParsedNtb> ntbs = Parsed();
    ASSERT_EQ(3u, ntbs.size());
    EXPECT_EQ(65534, ntbs[0].sequence);
    EXPECT_EQ(65535, ntbs[1].sequence);
    EXPECT_EQ(0, ntbs[2].sequence);
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, PlacementWithDivisor4AndRemainder0)
{
    ethsim::DeviceProfile p = Ntb16Profile();
    p.ntb.wNdpOutDivisor = 4;
    p.ntb.wNdpOutPayloadRemainder = 0;
    p.ntb.wNdpOutAlignment = 4;
    CreateAndStart(p);
    mRecorder->HoldOut();
    Send(MakeFrame(60, 80));
    kplat::RunUntilIdle();
    Send({MakeFrame(60, 81), MakeFrame(61, 82)});
    kplat::RunUntilIdle();
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    std::vector<ParsedNtb> ntbs = Parsed();
    ASSERT_EQ(2u, ntbs.size());
    // First datagram at 14 (payload at 28); after a 60-byte frame (end 74)
    // the next at RoundUp(88, 4) - 14 = 74; end 135, NDP at 136.
    ASSERT_EQ(2u, ntbs[1].entries.size());
    EXPECT_EQ(14u, ntbs[1].entries[0].index);
    EXPECT_EQ(74u, ntbs[1].entries[1].index);
    EXPECT_EQ(136u, ntbs[1].ndpIndex);
    EXPECT_EQ(136u + 4 * 2 + 12, ntbs[1].blockLength);
    EXPECT_EQ(0x304D434Eu, ntbs[1].signature);
    EXPECT_EQ(0u, ntbs[1].next);
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, PlacementWithDivisor4AndRemainder2AndAlignment6)
{
    ethsim::DeviceProfile p = Ntb16Profile();
    p.ntb.wNdpOutDivisor = 4;
    p.ntb.wNdpOutPayloadRemainder = 2;
    p.ntb.wNdpOutAlignment = 8;  // the checker wants a multiple of 4 as well
    CreateAndStart(p);
    Send(MakeFrame(61, 90));
    kplat::RunUntilIdle();
    std::vector<ParsedNtb> ntbs = Parsed();
    ASSERT_EQ(1u, ntbs.size());
    EXPECT_EQ(16u, ntbs[0].entries[0].index) << "payload at 30";
    EXPECT_EQ(80u, ntbs[0].ndpIndex) << "RoundUp(77, 8)";
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, OneByteTerminationAndZeroLengthPackets)
{
    // NTB16, divisor 4: one 482-byte frame at 14 ends at 496; the NDP of 16
    // bytes makes a block of exactly 512 bytes.
    for (ULONG oneByte : {0u, 1u}) {
        SCOPED_TRACE(oneByte);
        Destroy();
        mConfig.OneByteTermination = oneByte;
        CreateAndStart(Ntb16Profile());
        Send(MakeFrame(482, 100));
        kplat::RunUntilIdle();
        std::vector<OutTransfer> t = mRecorder->Transfers();
        ASSERT_EQ(1u, t.size());
        if (oneByte) {
            EXPECT_EQ(513u, t[0].bytes.size());
            EXPECT_EQ(513u, ParseBuiltNtb(t[0].bytes, false).blockLength);
            EXPECT_EQ(0, t[0].bytes[512]);
            EXPECT_FALSE(t[0].zlp);
        } else {
            EXPECT_EQ(512u, t[0].bytes.size());
            EXPECT_EQ(512u, ParseBuiltNtb(t[0].bytes, false).blockLength);
            EXPECT_TRUE(t[0].zlp) << "a zero-length packet ends the transfer";
        }
        ExpectConformingNtbs();
        mRecorder->ClearTransfers();
    }
}

TEST_F(NcmTxTest, EveryNtbThatEndsOnAPacketBoundaryIsFollowedByAZeroLengthPacket)
{
    CreateAndStart();
    for (size_t length = 400; length < 1400; length += 7) {
        Send(MakeFrame(length, (uint32_t)length));
        kplat::RunUntilIdle();
    }
    std::vector<OutTransfer> t = mRecorder->Transfers();
    size_t zlps = 0;
    for (const OutTransfer& x : t) {
        ASSERT_FALSE(x.bytes.empty()) << "no zero-length packet on its own";
        EXPECT_EQ(x.bytes.size() % 512 == 0, x.zlp) << x.bytes.size();
        zlps += x.zlp;
    }
    EXPECT_GT(zlps, 0u);
    ExpectConformingNtbs();
}

// The builder and the reference encoder agree byte for byte on every NTB
// (gap bytes aside) over a table of device parameters.
TEST_F(NcmTxTest, BuiltNtbsMatchTheReferenceEncoder)
{
    struct Case {
        bool ntb32;
        uint16_t divisor, remainder, alignment, maxDatagrams;
        uint32_t outMax;
        ULONG oneByte;
        std::vector<size_t> lengths;
    };
    std::vector<Case> cases = {
        {false, 4, 0, 4, 0, 16384, 0, {60, 61, 62, 63, 64, 1514, 1000}},
        {true, 4, 0, 4, 0, 16384, 0, {60, 61, 62, 63, 64, 1514, 1000}},
        {false, 4, 2, 8, 0, 16384, 1, {482, 100, 1514, 14, 15}},
        {true, 8, 6, 16, 0, 32768, 1, {1514, 1514, 1514, 60, 1514, 999, 1514, 1514}},
        {false, 1, 0, 4, 5, 4096, 0, {60, 60, 60, 60, 60, 60, 60, 60, 60, 60, 60}},
        {true, 64, 10, 4, 0, 8192, 0, {1000, 1001, 1002, 1003, 1004, 1005, 1006, 1007}},
        {false, 0, 3, 2, 0, 16384, 0, {70, 71, 72}},           // repaired: divisor 1, alignment 4
        {false, 4, 9, 0, 200, 65535, 1, std::vector<size_t>(300, 64)},  // remainder 9 % 4
        {true, 2, 1, 12, 0, 200000, 0, std::vector<size_t>(200, 1514)},
    };
    for (size_t c = 0; c < cases.size(); c++) {
        const Case& k = cases[c];
        SCOPED_TRACE(testing::Message() << "case " << c);
        Destroy();
        ethsim::DeviceProfile p = k.ntb32 ? ethsim::DeviceProfile() : Ntb16Profile();
        p.ntb.wNdpOutDivisor = k.divisor;
        p.ntb.wNdpOutPayloadRemainder = k.remainder;
        p.ntb.wNdpOutAlignment = k.alignment;
        p.ntb.wNtbOutMaxDatagrams = k.maxDatagrams;
        p.ntb.dwNtbOutMaxSize = k.outMax;
        mConfig.OneByteTermination = k.oneByte;
        CreateAndStart(p);
        mRecorder->ClearTransfers();
        // A first NTB in flight, so that the queue is taken in one run.
        mRecorder->HoldOut();
        Send(MakeFrame(60, 7));
        kplat::RunUntilIdle();
        std::vector<Bytes> frames;
        for (size_t i = 0; i < k.lengths.size(); i++) frames.push_back(MakeFrame(k.lengths[i], (uint32_t)(c * 1000 + i)));
        Send(frames);
        mRecorder->ReleaseOut();
        kplat::RunUntilIdle();

        ntbref::EncodeParams params;
        params.form = k.ntb32 ? ntbref::Form::Ntb32 : ntbref::Form::Ntb16;
        params.divisor = k.divisor;
        params.remainder = k.remainder;
        params.alignment = k.alignment;
        params.maxDatagrams = k.maxDatagrams;
        params.oneByteTermination = k.oneByte != 0;
        params.maxPacket = p.BulkMaxPacket();
        params.bufferSize = Peer::OutputBufferSize(*mCont);
        params.maxSegmentSize = 1514;
        params.sequence = 1;
        std::vector<ntbref::EncodedNtb> ref = ntbref::EncodeAll(frames, params);
        std::vector<Bytes> ntbs = mRecorder->Ntbs();
        ASSERT_EQ(ref.size() + 1, ntbs.size());
        for (size_t i = 0; i < ref.size(); i++) {
            const Bytes& got = ntbs[i + 1];
            ASSERT_EQ(ref[i].bytes.size(), got.size()) << "NTB " << i;
            for (size_t b = 0; b < got.size(); b++) {
                if (ref[i].written[b]) {
                    ASSERT_EQ(ref[i].bytes[b], got[b]) << "NTB " << i << " byte " << b;
                }
            }
        }
        std::vector<Bytes> net = mNetwork.Frames();
        ASSERT_EQ(frames.size() + 1, net.size());
        EXPECT_EQ(frames, std::vector<Bytes>(net.begin() + 1, net.end()));
        ExpectConformingNtbs();
        mNetwork.Clear();
    }
}

TEST_F(NcmTxTest, TxPathIdleFollowsTheOutBuffers)
{
    mConfig.NcmTxPeriod = 8;
    CreateAndStart();
    EXPECT_TRUE(mCont->IsTxPathIdle());
    mRecorder->HoldOut();
    Send(MakeFrame(60, 110));
    kplat::RunUntilIdle();
    EXPECT_FALSE(mCont->IsTxPathIdle()) << "one NTB in flight";
    Send(MakeFrame(60, 111));
    kplat::RunUntilIdle();
    EXPECT_FALSE(mCont->IsTxPathIdle()) << "one in flight, one gathering";
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();
    EXPECT_TRUE(mCont->IsTxPathIdle());
    // The adapter asked on every empty queue; the last answer was "idle".
    ASSERT_FALSE(mAdapter.idleAnswers.empty());
    EXPECT_TRUE(mAdapter.idleAnswers.back());
}

TEST_F(NcmTxTest, ARequestDuringAPassLeavesOneMorePassAndNoSecondBuilder)
{
    CreateAndStart();
    int nested = 0;
    bool busySeen = false, rerunSeen = false;
    mAdapter.onSubmit = [&] {
        if (nested++ == 0) {
            busySeen = Peer::TxBusy(*mCont);
            mAdapter.Queue(MakeFrame(90, 121));
            mCont->ProcessTxPackets();  // another processor asking meanwhile
            rerunSeen = Peer::TxRerun(*mCont);
        }
    };
    Send(MakeFrame(60, 120));
    kplat::RunUntilIdle();
    mAdapter.onSubmit = nullptr;  // only while idle: the completion's pass calls it too
    EXPECT_TRUE(busySeen);
    EXPECT_TRUE(rerunSeen);
    EXPECT_FALSE(Peer::TxBusy(*mCont));
    EXPECT_FALSE(Peer::TxRerun(*mCont));
    EXPECT_EQ(2u, mNetwork.Count()) << "the frame queued meanwhile went out in the extra pass";
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, ConcurrentSendersLoseNoPacket)
{
    mConfig.TxBuffers = 2;
    CreateAndStart();
    constexpr int kPerThread = 300;
    auto sender = [&](uint32_t base) {
        kplat::EnterDriverThread();
        for (int i = 0; i < kPerThread; i++) {
            Bytes f = MakeFrame(60 + i % 100, base + i);
            f[14] = (uint8_t)(base >> 16);
            f[15] = (uint8_t)i;
            f[16] = (uint8_t)(i >> 8);
            Send(f);
        }
        kplat::LeaveDriverThread();
    };
    std::thread a(sender, 0x10000), b(sender, 0x20000);
    a.join();
    b.join();
    kplat::RunUntilIdle();
    std::vector<Bytes> net = mNetwork.Frames();
    ASSERT_EQ(2u * kPerThread, net.size());
    // Each sender's frames arrive in its own order.
    int next[3] = {0, 0, 0};
    for (const Bytes& f : net) {
        int who = f[14];
        ASSERT_TRUE(who == 1 || who == 2);
        EXPECT_EQ(next[who], f[15] | f[16] << 8);
        next[who]++;
    }
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, StopGivesAStartedNtbBackWithoutSendingIt)
{
    mConfig.NcmTxPeriod = 8;
    CreateAndStart();
    Peer::SetSendTimerBased(*mCont, true);
    mRecorder->HoldOut();
    Send(MakeFrame(60, 130));
    kplat::RunUntilIdle();
    Send(MakeFrame(60, 131));
    kplat::RunUntilIdle();
    ASSERT_NE(nullptr, Peer::CurrentTxBuffer(*mCont));
    mRecorder->ReleaseOut();
    kplat::RunUntilIdle();  // the first completes; the second waits for the timer
    mCont->Stop();
    EXPECT_EQ(nullptr, Peer::CurrentTxBuffer(*mCont));
    EXPECT_EQ(0u, Peer::OutStream(*mCont).GetPendingCount());
    kplat::AdvanceTime(20);  // a timer that was set does not send it later
    EXPECT_EQ(1u, mNetwork.Count());
    EXPECT_FALSE(Peer::TxBusy(*mCont));
    // Started again, the sequence goes on and sending works.
    ASSERT_EQ(STATUS_SUCCESS, mCont->Start());
    kplat::RunUntilIdle();
    Send(MakeFrame(60, 132));
    kplat::RunUntilIdle();
    EXPECT_EQ(2u, mNetwork.Count());
    EXPECT_EQ(2, Peer::TxSequence(*mCont));
}

TEST_F(NcmTxTest, StopWaitsUntilTheRunningPassHasEnded)
{
    CreateAndStart();
    std::atomic<bool> inPass{false};
    std::atomic<bool> sawStopWaiting{false};
    mAdapter.onSubmit = [&] {
        if (!inPass.exchange(true)) {
            // Hold this pass until Stop waits for it.
            while (!Peer::TxStopWaiting(*mCont)) std::this_thread::yield();
            sawStopWaiting = true;
        }
    };
    mAdapter.Queue(MakeFrame(60, 140));
    std::thread builder([&] {
        kplat::EnterDriverThread();
        mCont->ProcessTxPackets();
        kplat::LeaveDriverThread();
    });
    while (!inPass) std::this_thread::yield();
    mCont->Stop();  // returns only after the pass has ended
    EXPECT_TRUE(sawStopWaiting);
    builder.join();
    mAdapter.onSubmit = nullptr;
    EXPECT_FALSE(Peer::TxBusy(*mCont));
    EXPECT_EQ(nullptr, Peer::CurrentTxBuffer(*mCont));
    EXPECT_EQ(0u, Peer::OutStream(*mCont).GetPendingCount());
    kplat::RunUntilIdle();
    mCont->Exit();
    delete mCont;
    mCont = nullptr;
}

TEST_F(NcmTxTest, AFailedWriteRestartsTheStreamAndSendingGoesOn)
{
    CreateAndStart();
    mDevice->FailNextTransfers(kBulkOutEp, 1, kplat::UsbHandshake::Stall);
    Send(MakeFrame(60, 150));
    kplat::RunUntilIdle();
    EXPECT_EQ(0u, mNetwork.Count());
    // After the restart (pipe reset, BufferSent from Start) sending works.
    Send(MakeFrame(60, 151));
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mNetwork.Count());
    ExpectConformingNtbs();
}

TEST_F(NcmTxTest, NothingLeavesAfterTheDeviceIsGone)
{
    CreateAndStart();
    mDevice->Unplug();
    kplat::RunUntilIdle();
    // The first NTB finds out that the device is gone (and the run already
    // holds the next buffer) ...
    Send(MakeFrame(60, 160));
    kplat::RunUntilIdle();
    EXPECT_TRUE(Peer::OutStream(*mCont).IsDeviceRemoved());
    Send(MakeFrame(60, 161));
    kplat::RunUntilIdle();
    // ... after that no OUT buffer is handed out: packets stay queued.
    Send(MakeFrame(60, 162));
    kplat::RunUntilIdle();
    EXPECT_EQ(0u, mNetwork.Count());
    EXPECT_EQ(1u, mAdapter.QueuedTx());
    EXPECT_EQ(nullptr, Peer::CurrentTxBuffer(*mCont));
}

}  // namespace
}  // namespace ncmtest
