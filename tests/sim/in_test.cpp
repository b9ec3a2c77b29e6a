// Bulk IN: how the device packs frames from the network into NTBs and sends
// them packet by packet.
#include "sim_harness.h"

using namespace simtest;
using ethsim::DeviceProfile;
namespace cdc = ethsim::cdc;
namespace ntb = ethsim::ntb;

namespace {

void Push(Harness& h, const Bytes& frame) { h.dev.OnFrame(frame.data(), frame.size()); }

Bytes Le32(uint32_t v)
{
    Bytes b;
    ethsim::Append32(b, v);
    return b;
}

// The device's own output must pass the device's checker under the IN rules.
void ExpectConforming(const Bytes& b, bool ntb32, const DeviceProfile& p, bool crc = false)
{
    ethsim::OutRules rules;
    rules.ntb32 = ntb32;
    rules.maxSize = p.ntb.dwNtbInMaxSize;
    rules.divisor = p.ntb.wNdpInDivisor;
    rules.remainder = p.ntb.wNdpInPayloadRemainder;
    rules.alignment = p.ntb.wNdpInAlignment;
    rules.crcMode = crc;
    ethsim::CheckResult r = ethsim::CheckNtb(b.data(), b.size(), rules);
    for (const auto& f : r.findings) {
        ADD_FAILURE() << ethsim::ViolationName(f.kind) << ": " << f.detail;
    }
}

}  // namespace

TEST(BulkIn, OneFrameOneNtb16)
{
    Harness h;
    h.Start();
    const Bytes f = MakeFrame(60, 1);
    Push(h, f);
    auto t = h.ReadIn();
    ASSERT_TRUE(t.has_value());
    Decoded d = Decode(*t, false);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.blockLength, t->size());
    EXPECT_EQ(d.sequence, 0);
    ASSERT_EQ(d.frames.size(), 1u);
    EXPECT_EQ(d.frames[0], f);
    EXPECT_EQ((d.entries[0].index + 14) % 4, 0u);  // payload placement
    EXPECT_EQ(d.ndpSignatures[0], ntb::kNdp16NoCrc);
    EXPECT_GT(d.ndpOffsets[0], d.entries[0].index);  // NDP behind the datagram
    EXPECT_EQ(d.ndpOffsets[0] % 4, 0u);
    ExpectConforming(*t, false, h.profile);
    // Nothing more: Nak.
    UsbHandshake refusal = UsbHandshake::Ack;
    EXPECT_FALSE(h.ReadIn(0, nullptr, &refusal).has_value());
    EXPECT_EQ(refusal, UsbHandshake::Nak);
    // The next NTB has the next sequence number.
    Push(h, f);
    EXPECT_EQ(Decode(*h.ReadIn(), false).sequence, 1);
}

TEST(BulkIn, SeveralDatagramsPerNtbUpToTheMaximum)
{
    DeviceProfile p;
    p.in.maxDatagrams = 3;
    Harness h(p);
    h.Start();
    std::vector<Bytes> frames;
    for (int i = 0; i < 5; ++i) {
        frames.push_back(MakeFrame(100 + i, static_cast<uint8_t>(i)));
        Push(h, frames.back());
    }
    Decoded a = Decode(*h.ReadIn(), false);
    Decoded b = Decode(*h.ReadIn(), false);
    ASSERT_EQ(a.frames.size(), 3u);
    ASSERT_EQ(b.frames.size(), 2u);
    EXPECT_EQ(a.frames[2], frames[2]);
    EXPECT_EQ(b.frames[1], frames[4]);
    EXPECT_EQ(h.dev.Traffic().inNtbs, 2u);
    EXPECT_EQ(h.dev.Traffic().inDatagrams, 5u);
}

TEST(BulkIn, RespectsTheHostsInputSize)
{
    Harness h;
    h.Start(false, 2048);
    for (int i = 0; i < 4; ++i) {
        Push(h, MakeFrame(1100, static_cast<uint8_t>(i)));
    }
    for (int i = 0; i < 4; ++i) {
        auto t = h.ReadIn(2048);
        ASSERT_TRUE(t.has_value());
        EXPECT_LE(t->size(), 2048u);
        EXPECT_EQ(Decode(*t, false).frames.size(), 1u);  // two would need more than 2048
    }
    // A frame that does not fit even alone is dropped as an error.
    h.dev.UpdateProfile([](DeviceProfile& p) { p.minNtbInputSize = 64; });
    ASSERT_FALSE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(512)).stalled);
    Push(h, MakeFrame(600, 9));
    EXPECT_FALSE(h.ReadIn().has_value());
    EXPECT_EQ(h.dev.Traffic().inTooLong, 1u);
    EXPECT_EQ(h.dev.Statistic(cdc::kRcvError), 1u);
}

TEST(BulkIn, EightByteInputSizeLimitsDatagrams)
{
    DeviceProfile p;
    p.bmNetworkCapabilities |= cdc::kCapNtbInputSize8;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    Bytes eight = Le32(16384);
    ethsim::Append16(eight, 2);
    ethsim::Append16(eight, 0);
    ASSERT_FALSE(h.ClassOut(cdc::kSetNtbInputSize, 0, eight).stalled);
    ASSERT_TRUE(h.SetInterface(1, 1));
    for (int i = 0; i < 3; ++i) {
        Push(h, MakeFrame(60, static_cast<uint8_t>(i)));
    }
    EXPECT_EQ(Decode(*h.ReadIn(), false).frames.size(), 2u);
}

TEST(BulkIn, ZlpAfterNtbEndingOnPacketBoundary)
{
    Harness h;
    h.Start();
    // NTH 12, datagram at 14 of 994 bytes (ends 1008), NDP 16: 1024 bytes.
    Push(h, MakeFrame(994, 1));
    std::vector<uint32_t> packets;
    auto t = h.ReadIn(0, &packets);
    ASSERT_TRUE(t.has_value());
    EXPECT_EQ(t->size(), 1024u);
    EXPECT_EQ(packets, (std::vector<uint32_t>{512, 512, 0}));
}

TEST(BulkIn, ZlpCanBeSuppressed)
{
    DeviceProfile p;
    p.in.zlp = false;
    Harness h(p);
    h.Start();
    Push(h, MakeFrame(994, 1));
    Push(h, MakeFrame(60, 2));
    // Without the ZLP the host's read runs on into the next NTB.
    std::vector<uint32_t> packets;
    auto t = h.ReadIn(0, &packets);
    ASSERT_TRUE(t.has_value());
    EXPECT_EQ(packets[0], 512u);
    EXPECT_EQ(packets[1], 512u);
    EXPECT_GT(t->size(), 1024u);
}

TEST(BulkIn, NoZlpWhenNtbFillsTheInputSize)
{
    DeviceProfile p;
    p.minNtbInputSize = 512;
    Harness h(p);
    h.Start(false, 1024);
    Push(h, MakeFrame(994, 1));
    std::vector<uint32_t> packets;
    auto t = h.ReadIn(1024, &packets);
    ASSERT_TRUE(t.has_value());
    EXPECT_EQ(packets, (std::vector<uint32_t>{512, 512}));
    EXPECT_FALSE(h.ReadIn().has_value());  // and no ZLP waiting
}

TEST(BulkIn, Ntb32WhenChosen)
{
    Harness h;
    h.Start(true);
    const Bytes f1 = MakeFrame(60, 1), f2 = MakeFrame(1514, 2);
    Push(h, f1);
    Push(h, f2);
    auto t = h.ReadIn();
    ASSERT_TRUE(t.has_value());
    EXPECT_EQ(ethsim::Get32(t->data()), ntb::kNth32Signature);
    Decoded d = Decode(*t, true);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.blockLength, t->size());
    EXPECT_EQ(d.ndpSignatures[0], ntb::kNdp32NoCrc);
    EXPECT_EQ(d.frames, (std::vector<Bytes>{f1, f2}));
    ExpectConforming(*t, true, h.profile);
}

TEST(BulkIn, ChainedNdps)
{
    DeviceProfile p;
    p.in.ndpCount = 2;
    Harness h(p);
    h.Start();
    std::vector<Bytes> frames = {MakeFrame(60, 1), MakeFrame(70, 2), MakeFrame(80, 3)};
    for (const Bytes& f : frames) {
        Push(h, f);
    }
    auto t = h.ReadIn();
    Decoded d = Decode(*t, false);
    ASSERT_EQ(d.ndpOffsets.size(), 2u);
    EXPECT_EQ(d.frames, frames);
    ExpectConforming(*t, false, h.profile);
}

TEST(BulkIn, PayloadPlacementAndAlignmentFromParameters)
{
    DeviceProfile p;
    p.ntb.wNdpInDivisor = 16;
    p.ntb.wNdpInPayloadRemainder = 2;
    p.ntb.wNdpInAlignment = 32;
    Harness h(p);
    h.Start();
    Push(h, MakeFrame(61, 1));
    Push(h, MakeFrame(77, 2));
    auto t = h.ReadIn();
    Decoded d = Decode(*t, false);
    ASSERT_EQ(d.entries.size(), 2u);
    for (const Entry& e : d.entries) {
        EXPECT_EQ((e.index + 14) % 16, 2u);
    }
    EXPECT_EQ(d.ndpOffsets[0] % 32, 0u);
    ExpectConforming(*t, false, h.profile);
}

TEST(BulkIn, CrcAppendedInCrcMode)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    ASSERT_FALSE(h.ClassOut(cdc::kSetCrcMode, 1).stalled);
    ASSERT_TRUE(h.SetInterface(1, 1));
    const Bytes f = MakeFrame(60, 1);
    Push(h, f);
    auto t = h.ReadIn();
    Decoded d = Decode(*t, false);
    ASSERT_EQ(d.frames.size(), 1u);
    EXPECT_EQ(d.ndpSignatures[0], ntb::kNdp16Crc);
    ASSERT_EQ(d.frames[0].size(), 64u);
    EXPECT_EQ(Bytes(d.frames[0].begin(), d.frames[0].begin() + 60), f);
    EXPECT_EQ(ethsim::Get32(&d.frames[0][60]), ethsim::EthernetCrc(f.data(), f.size()));
    ExpectConforming(*t, false, h.profile, true);
}

TEST(BulkIn, InjectedTransferGoesFirstAndAsIs)
{
    Harness h;
    h.Start();
    Push(h, MakeFrame(60, 1));
    const Bytes raw = {'N', 'C', 'M', 'H', 1, 2, 3};
    h.dev.InjectInTransfer(raw);
    EXPECT_EQ(*h.ReadIn(), raw);
    EXPECT_EQ(Decode(*h.ReadIn(), false).frames.size(), 1u);
    EXPECT_EQ(h.dev.Traffic().inInjected, 1u);
}

TEST(BulkIn, NakThenEndpointReadyWhenDataArrives)
{
    Harness h;
    h.Start();
    EXPECT_FALSE(h.ReadIn().has_value());
    EXPECT_TRUE(h.port.ready.empty());
    Push(h, MakeFrame(60, 1));  // from a network thread, not in a bus call
    ASSERT_EQ(h.port.ready, std::vector<uint8_t>{0x82});
    EXPECT_FALSE(h.port.readyInsideBusCall);
    // No second signal while the data waits.
    Push(h, MakeFrame(60, 2));
    EXPECT_EQ(h.port.ready.size(), 1u);
    EXPECT_EQ(Decode(*h.ReadIn(), false).frames.size(), 2u);
}

TEST(BulkIn, ReadySignalFromInsideABusCallIsDeferred)
{
    Harness h;
    std::vector<uint64_t> requests;
    h.dev.SetServiceRequest([&requests](uint64_t due) { requests.push_back(due); });
    ethsim::Loopback loop;
    h.dev.Connect(&loop);
    loop.Connect(&h.dev);
    h.Start();
    EXPECT_FALSE(h.ReadIn().has_value());  // the IN endpoint waits
    h.port.now = 1234;
    const Bytes f = MakeFrame(60, 7);
    ASSERT_EQ(h.SendOut(GoodNtb({f}, false, 0)), UsbHandshake::Ack);
    // The looped-back frame is queued, but the port is not called from
    // inside OutPacket.
    EXPECT_TRUE(h.port.ready.empty());
    ASSERT_EQ(requests, std::vector<uint64_t>{1234});
    EXPECT_EQ(h.dev.NextDeadline(), std::optional<uint64_t>(1234));
    h.dev.Service();
    EXPECT_EQ(h.port.ready, std::vector<uint8_t>{0x82});
    EXPECT_FALSE(h.port.readyInsideBusCall);
    EXPECT_FALSE(h.dev.NextDeadline().has_value());
    EXPECT_EQ(Decode(*h.ReadIn(), false).frames, std::vector<Bytes>{f});
}

TEST(BulkIn, FramesDroppedWhenInactiveOrLinkDownOrQueueFull)
{
    DeviceProfile p;
    p.in.queueLimit = 2;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    Push(h, MakeFrame(60, 1));  // setting 0
    EXPECT_EQ(h.dev.Traffic().inDroppedInactive, 1u);
    ASSERT_TRUE(h.SetInterface(1, 1));
    for (int i = 0; i < 3; ++i) {
        Push(h, MakeFrame(60, static_cast<uint8_t>(i)));
    }
    EXPECT_EQ(h.dev.Traffic().inQueueFull, 1u);
    EXPECT_EQ(h.dev.Statistic(cdc::kRcvNoBuffer), 1u);
    h.dev.SetLink(false);  // drops what waits
    EXPECT_EQ(h.dev.GetState().framesQueued, 0u);
    Push(h, MakeFrame(60, 4));
    EXPECT_EQ(h.dev.Traffic().inDroppedLinkDown, 3u);
    Push(h, MakeFrame(2000, 5));
    EXPECT_FALSE(h.ReadIn().has_value());
}

TEST(BulkIn, PacketFilterWhenApplied)
{
    DeviceProfile p;
    p.applyPacketFilter = true;
    p.macAddress = {0x02, 0, 0, 0, 0, 0x10};
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    ASSERT_FALSE(h.ClassOut(cdc::kSetEthernetPacketFilter, cdc::kFilterDirected | cdc::kFilterMulticast).stalled);
    ASSERT_FALSE(h.ClassOut(cdc::kSetEthernetMulticastFilters, 1, Bytes{0x01, 0, 0x5E, 0, 0, 1}).stalled);
    ASSERT_TRUE(h.SetInterface(1, 1));
    Push(h, MakeFrame(60, 1, {0x02, 0, 0, 0, 0, 0x10}));     // to us
    Push(h, MakeFrame(60, 2, {0x02, 0, 0, 0, 0, 0x11}));     // to another host
    Push(h, MakeFrame(60, 3, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));  // broadcast not wanted
    Push(h, MakeFrame(60, 4, {0x01, 0, 0x5E, 0, 0, 1}));     // listed group
    Push(h, MakeFrame(60, 5, {0x01, 0, 0x5E, 0, 0, 2}));     // other group
    EXPECT_EQ(h.dev.Traffic().inFiltered, 3u);
    EXPECT_EQ(Decode(*h.ReadIn(), false).frames.size(), 2u);
}
