// The OUT checker: every rule on its own with NTBs built by hand, good NTBs
// of both forms, and the transfer-level rules (ZLP, sequence) through the
// device.
#include "sim_harness.h"

#include <functional>
#include <set>

using namespace simtest;
using ethsim::CheckNtb;
using ethsim::CheckResult;
using ethsim::OutRules;
using ethsim::Violation;
namespace ntb = ethsim::ntb;

namespace {

std::multiset<Violation> Kinds(const CheckResult& r)
{
    std::multiset<Violation> s;
    for (const auto& f : r.findings) {
        s.insert(f.kind);
    }
    return s;
}

CheckResult Check(const Bytes& b, const OutRules& rules = OutRules()) { return CheckNtb(b.data(), b.size(), rules); }

OutRules Rules32()
{
    OutRules r;
    r.ntb32 = true;
    return r;
}

// Sets the block length after the NTB was padded or cut.
void Resize(Bytes& b, size_t size, bool ntb32 = false)
{
    b.resize(size, 0);
    if (ntb32) {
        ethsim::Put32(&b[8], static_cast<uint32_t>(size));
    } else {
        ethsim::Put16(&b[8], static_cast<uint16_t>(size));
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Good NTBs
// ---------------------------------------------------------------------------
TEST(CheckerAccepts, Ntb16WithSeveralDatagrams)
{
    const std::vector<Bytes> frames = {MakeFrame(60, 1), MakeFrame(1514, 2), MakeFrame(99, 3)};
    Bytes b = GoodNtb(frames, false, 7);
    CheckResult r = Check(b);
    EXPECT_TRUE(r.findings.empty()) << r.findings[0].detail;
    ASSERT_EQ(r.good.size(), 3u);
    EXPECT_EQ(r.sequence, 7);
    EXPECT_EQ(r.good[0].offset, 14u);  // payload at 28
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Bytes(b.begin() + r.good[i].offset, b.begin() + r.good[i].offset + r.good[i].length), frames[i]);
    }
}

TEST(CheckerAccepts, Ntb32WithSeveralDatagrams)
{
    const std::vector<Bytes> frames = {MakeFrame(64, 1), MakeFrame(65, 2), MakeFrame(66, 3), MakeFrame(67, 4)};
    Bytes b = GoodNtb(frames, true, 0xFFFF);
    CheckResult r = Check(b, Rules32());
    EXPECT_TRUE(r.findings.empty());
    ASSERT_EQ(r.good.size(), 4u);
    EXPECT_EQ(r.good[3].length, 67u);
}

TEST(CheckerAccepts, ChainedNdpsBeforeAndAfterDatagrams)
{
    // NTH, NDP A (one datagram, next -> B), datagram 1, datagram 2, NDP B.
    const Bytes f1 = MakeFrame(60, 1), f2 = MakeFrame(61, 2);
    Bytes b(256, 0);
    PutNth16(b, 0, 256, 12);
    PutNdp16(b, 12, {{30, 60}}, 160);  // 12..28
    PutFrame(b, 30, f1);               // payload 44 = 0 mod 4
    PutFrame(b, 98, f2);               // payload 112
    PutNdp16(b, 160, {{98, 61}});
    CheckResult r = Check(b);
    EXPECT_TRUE(r.findings.empty()) << r.findings[0].detail;
    ASSERT_EQ(r.good.size(), 2u);
    EXPECT_EQ(r.good[1].offset, 98u);
}

TEST(CheckerAccepts, PlacementWithDivisorAndRemainder)
{
    OutRules rules;
    rules.divisor = 8;
    rules.remainder = 2;
    rules.alignment = 8;
    Bytes b = GoodNtb({MakeFrame(60, 1), MakeFrame(75, 2)}, false, 0, 8, 2, 8);
    EXPECT_TRUE(Check(b, rules).findings.empty());
    EXPECT_EQ(Check(b, rules).good.size(), 2u);
    // The same NTB against divisor 8, remainder 0 misplaces both datagrams.
    rules.remainder = 0;
    EXPECT_EQ(Kinds(Check(b, rules)).count(Violation::DatagramPlacement), 2u);
}

// ---------------------------------------------------------------------------
// Each rule broken on its own: one row per violation (and per way of
// breaking it), with the datagrams that still pass.
// ---------------------------------------------------------------------------
namespace {

using Kindset = std::multiset<Violation>;
constexpr int kAny = -1;

struct RejectCase {
    const char* name;
    std::function<Bytes()> build;
    std::function<void(OutRules&)> rules;
    Kindset kinds;
    int good;  // datagrams still accepted, or kAny
};

Bytes Good16(int frames = 1)
{
    std::vector<Bytes> f;
    for (int i = 0; i < frames; ++i) {
        f.push_back(MakeFrame(60, static_cast<uint8_t>(i + 1)));
    }
    return GoodNtb(f, false, 0);
}

template <typename F>
Bytes Edit(Bytes b, F f)
{
    f(b);
    return b;
}

Bytes CrcNtb(bool correct, uint32_t signature)
{
    const Bytes f = MakeFrame(60, 1);
    Bytes b(100, 0);
    PutNth16(b, 0, 100, 80);
    PutFrame(b, 14, f);
    ethsim::Put32(&b[74], ethsim::EthernetCrc(f.data(), f.size()) ^ (correct ? 0u : 1u));
    PutNdp16(b, 80, {{14, 64}}, 0, signature);
    return b;
}

const RejectCase kRejects[] = {
    {"transfer shorter than NTH", [] { return Bytes(10, 0); }, nullptr, {Violation::TransferTooShort}, 0},
    {"NTH32 in NTB16 mode", [] { return GoodNtb({MakeFrame(60, 1)}, true, 0); }, nullptr,
     {Violation::NthSignature}, 0},
    {"NTH16 in NTB32 mode", [] { return Good16(); }, [](OutRules& r) { r.ntb32 = true; },
     {Violation::NthSignature}, 0},
    {"garbled NTH signature", [] { return Edit(Good16(), [](Bytes& b) { b[0] = 'X'; }); }, nullptr,
     {Violation::NthSignature}, 0},
    {"NTH header length", [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[4], 16); }); }, nullptr,
     {Violation::NthHeaderLength}, 1},
    {"block length beyond transfer",
     [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[8], static_cast<uint16_t>(b.size() + 4)); }); },
     nullptr, {Violation::BlockLength}, kAny},
    {"bytes beyond the block", [] { return Edit(Good16(), [](Bytes& b) { b.resize(b.size() + 8, 0); }); }, nullptr,
     {Violation::BlockLength}, kAny},
    {"zero NTH32 block length",
     [] { return Edit(GoodNtb({MakeFrame(60, 1)}, true, 0), [](Bytes& b) { ethsim::Put32(&b[8], 0); }); },
     [](OutRules& r) { r.ntb32 = true; }, {Violation::BlockLength}, kAny},
    {"block over dwNtbOutMaxSize", [] { return Good16(2); }, [](OutRules& r) { r.maxSize = 100; },
     {Violation::BlockTooLarge}, kAny},
    {"NDP index inside NTH", [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[10], 0); }); }, nullptr,
     {Violation::NdpIndex}, 0},
    {"NDP index past the block",
     [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[10], static_cast<uint16_t>(b.size() - 4)); }); },
     nullptr, {Violation::NdpIndex}, 0},
    {"NDP not 4-aligned",
     [] {
         Bytes b(110, 0);
         PutNth16(b, 0, 110, 86);
         PutFrame(b, 14, MakeFrame(60, 1));
         PutNdp16(b, 86, {{14, 60}});
         return b;
     },
     nullptr, {Violation::NdpAlignment}, 1},
    {"NDP not at wNdpOutAlignment", [] { return Good16(); }, [](OutRules& r) { r.alignment = 8; },
     {Violation::NdpAlignment}, kAny},
    {"NDP32 signature in NTB16",
     [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put32(&b[76], ntb::kNdp32NoCrc); }); }, nullptr,
     {Violation::NdpSignature}, 0},
    {"CRC NDP with CRC mode off", [] { return CrcNtb(true, ntb::kNdp16Crc); }, nullptr, {Violation::CrcMode}, 1},
    {"plain NDP with CRC mode on", [] { return Good16(); }, [](OutRules& r) { r.crcMode = true; },
     {Violation::CrcMode}, kAny},
    {"wrong datagram CRC", [] { return CrcNtb(false, ntb::kNdp16Crc); }, [](OutRules& r) { r.crcMode = true; },
     {Violation::DatagramCrc}, 0},
    {"NDP length not a multiple of 4",
     [] {
         return Edit(Good16(), [](Bytes& b) {
             ethsim::Put16(&b[80], 18);
             b.resize(b.size() + 4, 0);
             ethsim::Put16(&b[8], static_cast<uint16_t>(b.size()));
         });
     },
     nullptr, {Violation::NdpLength}, kAny},
    {"NDP length past the block", [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[80], 64); }); },
     nullptr, {Violation::NdpLength}, 0},
    {"NDP of header and terminator only",
     [] {
         Bytes b(96, 0);
         PutNth16(b, 0, 96, 80);
         PutNdp16(b, 80, {});
         return b;
     },
     nullptr, {Violation::NdpLength, Violation::NdpEmpty}, 0},
    {"NDP32 reserved fields",
     [] {
         return Edit(GoodNtb({MakeFrame(60, 1)}, true, 0),
                     [](Bytes& b) { ethsim::Put16(&b[ethsim::Get32(&b[12]) + 6], 1); });
     },
     [](OutRules& r) { r.ntb32 = true; }, {Violation::NdpReserved}, kAny},
    {"missing terminator",
     [] {
         Bytes b(100, 0);
         PutNth16(b, 0, 100, 76);
         PutFrame(b, 14, MakeFrame(60, 1));
         PutNdp16(b, 76, {{14, 60}, {14, 60}}, 0, ntb::kNdp16NoCrc, false);
         return b;
     },
     nullptr, {Violation::NdpTerminator}, 0},
    {"empty NDP",
     [] {
         Bytes b(96, 0);
         PutNth16(b, 0, 96, 76);
         PutNdp16(b, 76, {}, 0, ntb::kNdp16NoCrc, true, 16);
         return b;
     },
     nullptr, {Violation::NdpEmpty}, 0},
    {"NDP overlapping an NDP",
     [] {
         Bytes b(128, 0);
         PutNth16(b, 0, 128, 76);
         PutFrame(b, 14, MakeFrame(60, 1));
         PutNdp16(b, 76, {{14, 60}}, 96, ntb::kNdp16NoCrc, true, 24);
         PutNdp16(b, 96, {{14, 60}});
         return b;
     },
     nullptr, {Violation::NdpOverlap, Violation::DatagramsOverlap}, kAny},  // both name the same datagram
    {"NDP chain loop",  // both NDPs also name the same bytes
     [] {
         Bytes b(160, 0);
         PutNth16(b, 0, 160, 76);
         PutFrame(b, 14, MakeFrame(60, 1));
         PutNdp16(b, 76, {{14, 60}}, 96);
         PutNdp16(b, 96, {{14, 60}}, 76);
         return b;
     },
     nullptr, {Violation::NdpChain, Violation::DatagramsOverlap}, kAny},
    {"entries with zero index or length",
     [] {
         Bytes b(120, 0);
         PutNth16(b, 0, 120, 76);
         PutFrame(b, 14, MakeFrame(60, 1));
         PutNdp16(b, 76, {{0, 60}, {14, 0}, {14, 60}});
         return b;
     },
     nullptr, {Violation::DatagramEntry, Violation::DatagramEntry}, 1},
    {"datagram outside the block", [] { return Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[86], 200); }); },
     nullptr, {Violation::DatagramOutOfBlock}, 0},
    {"datagrams over NDP and NTH",
     [] {
         Bytes b(160, 0);
         PutNth16(b, 0, 160, 76);
         PutNdp16(b, 76, {{54, 60}, {2, 60}});
         return b;
     },
     [](OutRules& r) { r.divisor = 0; }, {Violation::DatagramOverlapsHeaders, Violation::DatagramOverlapsHeaders},
     0},
    {"overlapping datagrams",
     [] {
         Bytes b(200, 0);
         PutNth16(b, 0, 200, 160);
         PutFrame(b, 14, MakeFrame(100, 1));
         PutNdp16(b, 160, {{14, 100}, {74, 60}});
         return b;
     },
     nullptr, {Violation::DatagramsOverlap}, 1},
    {"misplaced datagram",  // payload at 30, 2 modulo 4
     [] {
         Bytes b(100, 0);
         PutNth16(b, 0, 100, 76);
         PutFrame(b, 16, MakeFrame(60, 1));
         PutNdp16(b, 76, {{16, 60}});
         return b;
     },
     nullptr, {Violation::DatagramPlacement}, 0},
    {"datagram too short and too long",
     [] {
         Bytes b(1700, 0);
         PutNth16(b, 0, 1700, 1600);
         PutNdp16(b, 1600, {{14, 10}, {42, 1515}});
         return b;
     },
     nullptr, {Violation::DatagramTooShort, Violation::DatagramTooLong}, kAny},
    {"more datagrams than allowed", [] { return Good16(3); }, [](OutRules& r) { r.maxDatagrams = 2; },
     {Violation::TooManyDatagrams}, 2},
};

}  // namespace

TEST(CheckerRejects, EachRuleOnItsOwn)
{
    for (const RejectCase& c : kRejects) {
        SCOPED_TRACE(c.name);
        OutRules rules;
        if (c.rules) {
            c.rules(rules);
        }
        const CheckResult r = Check(c.build(), rules);
        EXPECT_EQ(Kinds(r), c.kinds);
        if (c.good != kAny) {
            EXPECT_EQ(r.good.size(), static_cast<size_t>(c.good));
        }
    }
}

// Rules that depend on the host's settings: the same NTB passes once the
// setting allows it.
TEST(CheckerRejects, SettingsDecide)
{
    const Bytes crc = CrcNtb(true, ntb::kNdp16Crc);
    OutRules on;
    on.crcMode = true;
    EXPECT_TRUE(Check(crc, on).findings.empty());
    OutRules relaxed;
    relaxed.crcFollowsMode = false;
    EXPECT_TRUE(Check(crc, relaxed).findings.empty());
    EXPECT_EQ(Check(crc).good[0].length, 60u);  // the CRC is not part of the frame
    Bytes at16(100, 0);
    PutNth16(at16, 0, 100, 76);
    PutFrame(at16, 16, MakeFrame(60, 1));
    PutNdp16(at16, 76, {{16, 60}});
    OutRules index;
    index.payloadOffset = 0;  // the rule applied to the datagram index itself
    EXPECT_TRUE(Check(at16, index).findings.empty());
    OutRules big;
    big.maxDatagramLength = 1518;
    Bytes lengths(1700, 0);
    PutNth16(lengths, 0, 1700, 1600);
    PutNdp16(lengths, 1600, {{14, 10}, {42, 1515}});
    EXPECT_EQ(Kinds(Check(lengths, big)), Kindset{Violation::DatagramTooShort});
    // A zero NTH16 block length means the transfer (not so for NTH32, above).
    EXPECT_TRUE(Check(Edit(Good16(), [](Bytes& b) { ethsim::Put16(&b[8], 0); })).findings.empty());
}

// ---------------------------------------------------------------------------
// Transfer rules, through the device
// ---------------------------------------------------------------------------
TEST(DeviceChecker, GoodDatagramsReachTheNetwork)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start(true);
    const std::vector<Bytes> frames = {MakeFrame(60, 1), MakeFrame(600, 2), MakeFrame(1514, 3)};
    ASSERT_EQ(h.SendOut(GoodNtb(frames, true, 0)), UsbHandshake::Ack);
    EXPECT_EQ(net.Frames(), frames);
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
    EXPECT_EQ(h.dev.Traffic().outDatagrams, 3u);
}

TEST(DeviceChecker, BadDatagramsDoNotReachTheNetwork)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    Bytes b(100, 0);
    PutNth16(b, 0, 100, 76);
    PutFrame(b, 16, MakeFrame(60, 1));
    PutNdp16(b, 76, {{16, 60}});
    ASSERT_EQ(h.SendOut(b), UsbHandshake::Ack);
    EXPECT_EQ(net.Count(), 0u);
    EXPECT_EQ(h.dev.ViolationCount(Violation::DatagramPlacement), 1u);
    EXPECT_EQ(h.dev.Statistic(ethsim::cdc::kXmitError), 1u);
    auto log = h.dev.ViolationLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].transfer, 1u);
    EXPECT_NE(h.dev.ViolationReport().find("DatagramPlacement: 1"), std::string::npos);
    h.dev.ResetViolations();
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
    EXPECT_TRUE(h.dev.ViolationReport().empty());
}

TEST(DeviceChecker, TransferAcrossPacketsWithZlp)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    // Exactly two packets: the ZLP ends it.
    Bytes b = GoodNtb({MakeFrame(400, 1), MakeFrame(400, 2)}, false, 0);
    Resize(b, 1024);
    ASSERT_EQ(h.SendOut(b, true), UsbHandshake::Ack);
    EXPECT_EQ(net.Count(), 2u);
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
}

TEST(DeviceChecker, ZlpAfterShortPacketIsUnexpected)
{
    Harness h;
    h.Start();
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 0)), UsbHandshake::Ack);
    EXPECT_EQ(h.OutPacket(nullptr, 0), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::UnexpectedZlp), 1u);
    EXPECT_EQ(h.dev.TotalViolations(), 1u);
}

TEST(DeviceChecker, MissingZlpMergesTwoNtbs)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    Bytes first = GoodNtb({MakeFrame(300, 1)}, false, 0);
    Resize(first, 512);
    Bytes second = GoodNtb({MakeFrame(100, 2)}, false, 1);
    // The host forgets the ZLP after the first: the device sees one transfer.
    ASSERT_EQ(h.SendOut(first, false), UsbHandshake::Ack);
    ASSERT_EQ(h.SendOut(second), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::MissingZlp), 1u);
    EXPECT_EQ(h.dev.TotalViolations(), 1u);
    EXPECT_EQ(net.Count(), 2u);  // both NTBs still delivered
    EXPECT_EQ(h.dev.Traffic().outTransfers, 1u);
    EXPECT_EQ(h.dev.Traffic().outNtbs, 2u);
}

TEST(DeviceChecker, TransferOfMaxSizeEndsWithoutZlp)
{
    ethsim::DeviceProfile p;
    p.ntb.dwNtbOutMaxSize = 1024;
    Harness h(p);
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    Bytes b = GoodNtb({MakeFrame(500, 1)}, false, 0);
    Resize(b, 1024);
    ASSERT_EQ(h.SendOut(b, false), UsbHandshake::Ack);
    EXPECT_EQ(net.Count(), 1u);
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
    // A ZLP after it ends no transfer.
    EXPECT_EQ(h.OutPacket(nullptr, 0), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::UnexpectedZlp), 1u);
    EXPECT_NE(h.dev.ViolationLog()[0].detail.find("dwNtbOutMaxSize"), std::string::npos);
}

TEST(DeviceChecker, SequenceNumbers)
{
    Harness h;
    h.Start();
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 65534)), UsbHandshake::Ack);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 65535)), UsbHandshake::Ack);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 0)), UsbHandshake::Ack);  // wraps
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 2)), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::Sequence), 1u);
    // A function reset (setting 0, then 1) lets the count start anywhere.
    ASSERT_TRUE(h.SetInterface(1, 0));
    ASSERT_TRUE(h.SetInterface(1, 1));
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 77)), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::Sequence), 1u);
}

TEST(DeviceChecker, SequenceMustStartAtZeroWhenAsked)
{
    ethsim::DeviceProfile p;
    p.checker.sequenceStartsAtZero = true;
    Harness h(p);
    h.Start();
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 5)), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::SequenceStart), 1u);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 6)), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.TotalViolations(), 1u);
}

TEST(DeviceChecker, DataAtSettingZeroStalls)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    uint8_t byte = 0;
    EXPECT_EQ(h.OutPacket(&byte, 1), UsbHandshake::Stall);
    EXPECT_EQ(h.dev.ViolationCount(Violation::InactiveInterface), 1u);
}

TEST(DeviceChecker, LinkDownDropsDatagrams)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    h.dev.SetLink(false);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 0)), UsbHandshake::Ack);
    EXPECT_EQ(net.Count(), 0u);
    EXPECT_EQ(h.dev.Traffic().outDroppedLinkDown, 1u);
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
}
