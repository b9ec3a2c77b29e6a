// The device control's data path on the simulated function, whose checker
// holds every NTB the host sends against the NCM rules: frames leave in
// order and byte for byte under every kind of NTB parameters, frames from
// the device arrive however it packs them, and the adaptive transmit timing
// switches at the edges of its band.
#include <gtest/gtest.h>

#include "testbed.h"

using ethsim::DeviceProfile;
using testbed::Bed;
using testbed::Bytes;
using testbed::Frame;
using testbed::Layer;
using testbed::Traits;
using Peer = DeviceContNcmPeer;

namespace {

std::vector<Bytes> Frames(size_t n, uint32_t seed)
{
    std::vector<Bytes> f;
    for (size_t i = 0; i < n; i++) f.push_back(Frame(60 + (i * 397 + seed) % 1455, (uint32_t)(seed + i)));
    return f;
}

TEST(Transmit, EveryParameterSetGivesConformingNtbsAndEveryFrameOnce)
{
    struct Row {
        bool ntb32;
        uint16_t divisor, remainder, alignment, maxDatagrams;
        uint32_t outMax;
        bool fullSpeed;
        uint32_t oneByte, txBuffers;
    };
    const Row rows[] = {
        {true, 4, 0, 4, 0, 16384, false, 0, 4},
        {false, 4, 2, 8, 0, 16384, false, 0, 4},
        {false, 4, 6, 4, 0, 16384, false, 0, 4},     // remainder repaired to 2
        {true, 8, 6, 16, 0, 16384, true, 1, 2},
        {false, 0, 0, 2, 0, 16384, false, 0, 4},     // divisor and alignment repaired
        {true, 4, 0, 4, 5, 16384, false, 0, 4},      // the device's datagram limit
        {false, 1, 0, 4, 0, 65535, false, 1, 8},
        {true, 64, 62, 64, 0, 4000, true, 0, 3},
        {false, 4, 0, 4, 0, 1549, false, 0, 2},      // one datagram an NTB
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(::testing::Message() << "NTB" << (r.ntb32 ? 32 : 16) << " divisor " << r.divisor << " remainder "
                                          << r.remainder << " alignment " << r.alignment << " max " << r.maxDatagrams
                                          << " out " << r.outMax);
        Traits t;
        t.layer = Layer::Control;
        t.capture = true;
        t.profile.ntb.bmNtbFormatsSupported = r.ntb32 ? 3 : 1;
        t.profile.ntb.wNdpOutDivisor = r.divisor;
        t.profile.ntb.wNdpOutPayloadRemainder = r.remainder;
        t.profile.ntb.wNdpOutAlignment = r.alignment;
        t.profile.ntb.wNtbOutMaxDatagrams = r.maxDatagrams;
        t.profile.ntb.dwNtbOutMaxSize = r.outMax;
        t.profile.checker.sequenceStartsAtZero = true;
        if (r.fullSpeed) t.profile.speed = kplat::UsbSpeed::Full;
        t.params = {{"OneByteTermination", r.oneByte}, {"TxBuffers", r.txBuffers}};
        Bed bed(t);
        std::vector<Bytes> sent = Frames(300, r.divisor + r.alignment);
        bed.Send(sent, 2000);
        EXPECT_EQ(bed.Network().Frames(), sent);
        EXPECT_EQ(bed.Device().TotalViolations(), 0u) << bed.Device().ViolationReport();
        ethsim::TrafficCounters c = bed.Device().Traffic();
        EXPECT_LT(c.outNtbs, r.outMax < 3100 ? 301u : 150u) << "frames share NTBs";
        EXPECT_EQ(Peer::TxSequence(bed.Cont()), (USHORT)c.outNtbs);
    }
}

TEST(Transmit, AFullNtbOfTheDriversLimitAndTheSequenceWrap)
{
    Traits t;
    t.layer = Layer::Control;
    t.capture = true;
    t.profile.ntb.dwNtbOutMaxSize = 65536;
    Bed bed(t);
    Peer::SetTxSequence(bed.Cont(), 0xFFFF);
    bed.Device().ResetViolations();
    std::vector<Bytes> sent;
    for (uint32_t i = 0; i < 400; i++) sent.push_back(Frame(60, i));
    bed.Send(sent, 2000);
    EXPECT_EQ(bed.Network().Frames(), sent);
    // The first NTB leaves alone on the idle pipe; then at most 169 a block.
    EXPECT_EQ(bed.Device().Traffic().outNtbs, 4u);
    EXPECT_EQ(bed.Device().TotalViolations(), 0u) << bed.Device().ViolationReport();
    EXPECT_EQ(Peer::TxSequence(bed.Cont()), 3u) << "0xFFFF, 0, 1, 2";
}

TEST(Transmit, TransfersOfWholePacketsEndWithAZeroLengthPacket)
{
    // Frame lengths whose NTB16 (12-byte NTH, payload at 14 + 14, NDP of one
    // entry aligned to 4) ends exactly on 512 bytes.
    for (uint32_t oneByte : {0u, 1u}) {
        Traits t;
        t.layer = Layer::Control;
        t.capture = true;
        t.profile.ntb.bmNtbFormatsSupported = 1;
        t.params = {{"OneByteTermination", oneByte}};
        Bed bed(t);
        std::vector<Bytes> sent;
        for (size_t len = 400; len < 520; len++) sent.push_back(Frame(len, (uint32_t)len));
        for (const Bytes& f : sent) bed.Send({f}, 20);
        EXPECT_EQ(bed.Network().Frames(), sent);
        EXPECT_EQ(bed.Device().TotalViolations(), 0u) << bed.Device().ViolationReport();
    }
}

TEST(Receive, FramesArriveInOrderHoweverTheDevicePacksThem)
{
    struct Row {
        bool ntb32;
        uint8_t ndpCount;
        ethsim::NdpPosition position;
        uint16_t maxDatagrams;
        uint32_t rxBuffers;
    };
    const Row rows[] = {
        {true, 1, ethsim::NdpPosition::AfterDatagrams, 32, 4},
        {false, 1, ethsim::NdpPosition::BeforeDatagrams, 32, 4},
        {false, 3, ethsim::NdpPosition::AfterDatagrams, 2, 2},
        {true, 3, ethsim::NdpPosition::BeforeDatagrams, 7, 1},
        {false, 2, ethsim::NdpPosition::AfterDatagrams, 1, 8},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(::testing::Message() << "NTB" << (r.ntb32 ? 32 : 16) << " NDPs " << (int)r.ndpCount);
        Traits t;
        t.layer = Layer::Control;
        t.profile.ntb.bmNtbFormatsSupported = r.ntb32 ? 3 : 1;
        t.profile.in.ndpCount = r.ndpCount;
        t.profile.in.ndpPosition = r.position;
        t.profile.in.maxDatagrams = r.maxDatagrams;
        t.params = {{"RxBuffers", r.rxBuffers}};
        Bed bed(t);
        std::vector<Bytes> sent = Frames(200, r.ndpCount);
        for (const Bytes& f : sent) bed.Device().OnFrame(f.data(), f.size());
        bed.Settle(100);
        EXPECT_EQ(bed.Received(), sent);
    }
}

TEST(Receive, RejectedTransfersRestartNothingAndLoseOnlyThemselves)
{
    Traits t;
    t.layer = Layer::Control;
    t.traceMask = KN_TRACE_ERROR;
    Bed bed(t);
    const Bytes bad[] = {Bytes(23, 0), Bytes{'N', 'C', 'M', 'H', 12, 0, 0, 0, 40, 0, 0, 0}, Bytes()};
    for (const Bytes& b : bad) bed.Device().InjectInTransfer(b);
    bed.Device().OnFrame(Frame(100, 1).data(), 100);
    bed.Settle(50);
    EXPECT_EQ(bed.Received(), std::vector<Bytes>{Frame(100, 1)});
    EXPECT_EQ(Peer::RxErrorCount(bed.Cont()), 0u);
}

TEST(Timing, TheSendModeSwitchesAtTheBandEdges)
{
    Traits t;
    t.layer = Layer::Control;
    t.params = {{"NcmTxPeriod", 8}, {"RxMeasurementPeriod", 100}};
    Bed bed(t);
    DeviceContNcm& c = bed.Cont();
    auto tick = [&](ULONG bytes) {
        Peer::AddRxBytes(c, bytes);
        kplat::AdvanceTime(100);
        return Peer::SendTimerBased(c);
    };
    const std::pair<ULONG, bool> steps[] = {
        {625000, true},   // 50 Mbit/s: on
        {524999, true},   // 41: unchanged
        {475000, false},  // 38: off
        {525000, false},  // 42: not above 42
        {537500, true},   // 43: on
        {487500, true},   // 39: unchanged
        {0, false},
    };
    for (auto [bytes, on] : steps) EXPECT_EQ(tick(bytes), on) << bytes;
    // In timer mode frames still all leave, gathered by the period.
    Peer::SetSendTimerBased(c, true);
    bed.Send(Frames(50, 3), 100);
    EXPECT_EQ(bed.Device().TotalViolations(), 0u);
}

}  // namespace
