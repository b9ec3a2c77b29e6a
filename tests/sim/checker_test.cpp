// The OUT checker: every rule on its own with NTBs built by hand, good NTBs
// of both forms, and the transfer-level rules (ZLP, sequence) through the
// device.
#include "sim_harness.h"

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

TEST(CheckerAccepts, ZeroBlockLengthInNth16MeansTheTransfer)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&b[8], 0);
    EXPECT_TRUE(Check(b).findings.empty());
    // Not so for NTH32.
    Bytes c = GoodNtb({MakeFrame(60, 1)}, true, 0);
    ethsim::Put32(&c[8], 0);
    EXPECT_EQ(Kinds(Check(c, Rules32())), std::multiset<Violation>{Violation::BlockLength});
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
// Header rules
// ---------------------------------------------------------------------------
TEST(CheckerRejects, TransferShorterThanHeader)
{
    Bytes b(10, 0);
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::TransferTooShort});
    EXPECT_FALSE(r.headerValid);
}

TEST(CheckerRejects, WrongNthSignatureForTheFormat)
{
    Bytes b32 = GoodNtb({MakeFrame(60, 1)}, true, 0);
    CheckResult r = Check(b32);  // NTB16 selected
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NthSignature});
    EXPECT_NE(r.findings[0].detail.find("NTH32 signature"), std::string::npos);
    EXPECT_TRUE(r.good.empty());
    Bytes b16 = GoodNtb({MakeFrame(60, 1)}, false, 0);
    EXPECT_EQ(Kinds(Check(b16, Rules32())), std::multiset<Violation>{Violation::NthSignature});
    b16[0] = 'X';
    EXPECT_EQ(Kinds(Check(b16)), std::multiset<Violation>{Violation::NthSignature});
}

TEST(CheckerRejects, HeaderLength)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&b[4], 16);
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NthHeaderLength});
    EXPECT_EQ(r.good.size(), 1u);  // reported, not fatal
}

TEST(CheckerRejects, BlockLengthDiffersFromTransfer)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&b[8], static_cast<uint16_t>(b.size() + 4));
    EXPECT_EQ(Kinds(Check(b)), std::multiset<Violation>{Violation::BlockLength});
    Bytes padded = GoodNtb({MakeFrame(60, 1)}, false, 0);
    padded.resize(padded.size() + 8, 0);  // trailing bytes beyond the block
    EXPECT_EQ(Kinds(Check(padded)), std::multiset<Violation>{Violation::BlockLength});
}

TEST(CheckerRejects, BlockLargerThanDwNtbOutMaxSize)
{
    OutRules rules;
    rules.maxSize = 100;
    Bytes b = GoodNtb({MakeFrame(60, 1), MakeFrame(60, 2)}, false, 0);
    CheckResult r = Check(b, rules);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::BlockTooLarge});
}

// ---------------------------------------------------------------------------
// NDP rules
// ---------------------------------------------------------------------------
TEST(CheckerRejects, NdpIndexInsideHeaderOrOutsideBlock)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&b[10], 0);
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NdpIndex});
    EXPECT_TRUE(r.good.empty());
    ethsim::Put16(&b[10], static_cast<uint16_t>(b.size() - 4));
    EXPECT_EQ(Kinds(Check(b)), std::multiset<Violation>{Violation::NdpIndex});
}

TEST(CheckerRejects, NdpAlignment)
{
    // NDP at 86: not a multiple of 4.
    Bytes b(110, 0);
    PutNth16(b, 0, 110, 86);
    PutFrame(b, 14, MakeFrame(60, 1));
    PutNdp16(b, 86, {{14, 60}});
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NdpAlignment});
    EXPECT_EQ(r.good.size(), 1u);
    // NDP at 76 is fine for alignment 4 but not for wNdpOutAlignment 8.
    Bytes c = GoodNtb({MakeFrame(60, 1)}, false, 0);  // NDP at 76
    ASSERT_EQ(ethsim::Get16(&c[10]), 76);
    OutRules rules;
    rules.alignment = 8;
    EXPECT_EQ(Kinds(Check(c, rules)), std::multiset<Violation>{Violation::NdpAlignment});
}

TEST(CheckerRejects, NdpSignature)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put32(&b[76], ntb::kNdp32NoCrc);  // an NDP32 signature in an NTB16
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NdpSignature});
    EXPECT_TRUE(r.good.empty());
}

TEST(CheckerRejects, CrcSignatureAgainstCrcMode)
{
    // "NCM1" with a correct CRC while CRC mode is off.
    const Bytes f = MakeFrame(60, 1);
    Bytes b(100, 0);
    PutNth16(b, 0, 100, 80);
    PutFrame(b, 14, f);
    ethsim::Put32(&b[74], ethsim::EthernetCrc(f.data(), f.size()));
    PutNdp16(b, 80, {{14, 64}}, 0, ntb::kNdp16Crc);
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::CrcMode});
    ASSERT_EQ(r.good.size(), 1u);
    EXPECT_EQ(r.good[0].length, 60u);  // the CRC is not part of the frame
    OutRules crc;
    crc.crcMode = true;
    EXPECT_TRUE(Check(b, crc).findings.empty());
    // "NCM0" while CRC mode is on.
    EXPECT_EQ(Kinds(Check(GoodNtb({f}, false, 0), crc)), std::multiset<Violation>{Violation::CrcMode});
    // The rule can be switched off.
    OutRules relaxed;
    relaxed.crcFollowsMode = false;
    EXPECT_TRUE(Check(b, relaxed).findings.empty());
}

TEST(CheckerRejects, WrongDatagramCrc)
{
    const Bytes f = MakeFrame(60, 1);
    Bytes b(100, 0);
    PutNth16(b, 0, 100, 80);
    PutFrame(b, 14, f);
    ethsim::Put32(&b[74], ethsim::EthernetCrc(f.data(), f.size()) ^ 1);
    PutNdp16(b, 80, {{14, 64}}, 0, ntb::kNdp16Crc);
    OutRules crc;
    crc.crcMode = true;
    CheckResult r = Check(b, crc);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::DatagramCrc});
    EXPECT_TRUE(r.good.empty());
    EXPECT_EQ(r.rejected, 1u);
}

TEST(CheckerRejects, NdpLength)
{
    // wLength 18: not a multiple of 4.
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&b[80], 18);
    b.resize(b.size() + 4, 0);
    ethsim::Put16(&b[8], static_cast<uint16_t>(b.size()));
    EXPECT_EQ(Kinds(Check(b)), std::multiset<Violation>{Violation::NdpLength});
    // wLength past the end of the block: the NDP is dropped.
    Bytes c = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&c[80], 64);
    CheckResult r = Check(c);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NdpLength});
    EXPECT_TRUE(r.good.empty());
    // wLength 12 (header and terminator only): below 16, and empty.
    Bytes d(96, 0);
    PutNth16(d, 0, 96, 80);
    PutNdp16(d, 80, {});
    EXPECT_EQ(Kinds(Check(d)), (std::multiset<Violation>{Violation::NdpLength, Violation::NdpEmpty}));
}

TEST(CheckerRejects, Ndp32ReservedFields)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, true, 0);
    const uint32_t ndp = ethsim::Get32(&b[12]);
    ethsim::Put16(&b[ndp + 6], 1);
    EXPECT_EQ(Kinds(Check(b, Rules32())), std::multiset<Violation>{Violation::NdpReserved});
}

TEST(CheckerRejects, MissingTerminator)
{
    Bytes b(100, 0);
    PutNth16(b, 0, 100, 76);
    PutFrame(b, 14, MakeFrame(60, 1));
    PutNdp16(b, 76, {{14, 60}, {14, 60}}, 0, ntb::kNdp16NoCrc, false);  // wLength 16, no zero entry
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::NdpTerminator});
    EXPECT_TRUE(r.good.empty());
}

TEST(CheckerRejects, EmptyNdp)
{
    Bytes b(96, 0);
    PutNth16(b, 0, 96, 76);
    PutNdp16(b, 76, {}, 0, ntb::kNdp16NoCrc, true, 16);  // two zero entries
    EXPECT_EQ(Kinds(Check(b)), std::multiset<Violation>{Violation::NdpEmpty});
}

TEST(CheckerRejects, NdpOverlapsAnotherNdp)
{
    Bytes b(128, 0);
    PutNth16(b, 0, 128, 76);
    PutFrame(b, 14, MakeFrame(60, 1));
    PutNdp16(b, 76, {{14, 60}}, 96, ntb::kNdp16NoCrc, true, 24);  // 76..100, zero padded
    PutNdp16(b, 96, {{14, 60}});                                  // 96..112 overlaps it
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r).count(Violation::NdpOverlap), 1u);
}

TEST(CheckerRejects, NdpChainLoop)
{
    Bytes b(160, 0);
    PutNth16(b, 0, 160, 76);
    PutFrame(b, 14, MakeFrame(60, 1));
    PutNdp16(b, 76, {{14, 60}}, 96);
    PutNdp16(b, 96, {{14, 60}}, 76);  // back to the first
    CheckResult r = Check(b);
    std::multiset<Violation> k = Kinds(r);
    EXPECT_EQ(k.count(Violation::NdpChain), 1u);
    EXPECT_EQ(k.count(Violation::DatagramsOverlap), 1u);  // both NDPs name the same bytes
}

// ---------------------------------------------------------------------------
// Datagram rules
// ---------------------------------------------------------------------------
TEST(CheckerRejects, EntryWithZeroIndexOrLength)
{
    Bytes b(120, 0);
    PutNth16(b, 0, 120, 76);
    PutFrame(b, 14, MakeFrame(60, 1));
    PutNdp16(b, 76, {{0, 60}, {14, 0}, {14, 60}});
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r).count(Violation::DatagramEntry), 2u);
    EXPECT_EQ(r.good.size(), 1u);
    EXPECT_EQ(r.rejected, 2u);
}

TEST(CheckerRejects, DatagramOutsideBlock)
{
    Bytes b = GoodNtb({MakeFrame(60, 1)}, false, 0);
    ethsim::Put16(&b[76 + 10], 200);
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::DatagramOutOfBlock});
    EXPECT_TRUE(r.good.empty());
}

TEST(CheckerRejects, DatagramOverHeaders)
{
    // A datagram that covers the NDP, and one that starts in the NTH.
    Bytes b(160, 0);
    PutNth16(b, 0, 160, 76);
    PutNdp16(b, 76, {{54, 60}, {2, 60}});
    OutRules rules;
    rules.divisor = 0;  // placement is not the point here
    CheckResult r = Check(b, rules);
    EXPECT_EQ(Kinds(r).count(Violation::DatagramOverlapsHeaders), 2u);
    EXPECT_TRUE(r.good.empty());
}

TEST(CheckerRejects, OverlappingDatagrams)
{
    Bytes b(200, 0);
    PutNth16(b, 0, 200, 160);
    PutFrame(b, 14, MakeFrame(100, 1));
    PutNdp16(b, 160, {{14, 100}, {74, 60}});  // 74 is inside the first
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::DatagramsOverlap});
    EXPECT_EQ(r.good.size(), 1u);
}

TEST(CheckerRejects, MisplacedDatagram)
{
    // Datagram at 16: its payload at 30, 2 modulo 4.
    Bytes b(100, 0);
    PutNth16(b, 0, 100, 76);
    PutFrame(b, 16, MakeFrame(60, 1));
    PutNdp16(b, 76, {{16, 60}});
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::DatagramPlacement});
    EXPECT_TRUE(r.good.empty());
    // With the rule applied to the datagram index itself, 16 is right.
    OutRules rules;
    rules.payloadOffset = 0;
    EXPECT_TRUE(Check(b, rules).findings.empty());
}

TEST(CheckerRejects, DatagramLengthLimits)
{
    Bytes b(1700, 0);
    PutNth16(b, 0, 1700, 1600);
    PutNdp16(b, 1600, {{14, 10}, {42, 1515}});
    CheckResult r = Check(b);
    EXPECT_EQ(Kinds(r), (std::multiset<Violation>{Violation::DatagramTooShort, Violation::DatagramTooLong}));
    OutRules big;
    big.maxDatagramLength = 1518;
    EXPECT_EQ(Kinds(Check(b, big)), std::multiset<Violation>{Violation::DatagramTooShort});
}

TEST(CheckerRejects, MoreDatagramsThanAllowed)
{
    OutRules rules;
    rules.maxDatagrams = 2;
    Bytes b = GoodNtb({MakeFrame(60, 1), MakeFrame(60, 2), MakeFrame(60, 3)}, false, 0);
    CheckResult r = Check(b, rules);
    EXPECT_EQ(Kinds(r), std::multiset<Violation>{Violation::TooManyDatagrams});
    EXPECT_EQ(r.good.size(), 2u);
    EXPECT_EQ(r.rejected, 1u);
}

TEST(CheckerNames, EveryKindHasItsOwnName)
{
    std::set<std::string> names;
    for (size_t k = 0; k < ethsim::kViolationKinds; ++k) {
        const std::string n = ethsim::ViolationName(static_cast<Violation>(k));
        EXPECT_NE(n, "?");
        EXPECT_TRUE(names.insert(n).second) << n;
    }
    EXPECT_STREQ(ethsim::ViolationName(Violation::MissingZlp), "MissingZlp");
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

TEST(DeviceChecker, NtbFormatSelectionApplies)
{
    Harness h;
    h.Start(false);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, true, 0)), UsbHandshake::Ack);
    EXPECT_EQ(h.dev.ViolationCount(Violation::NthSignature), 1u);
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
