// The network side: responder (ARP, ICMP echo), loopback and the counting
// generator, on their own and behind the device.
#include <ethsim/network.h>
#include <gtest/gtest.h>

#include <cstring>

#include "testbed.h"

using ethsim::MacAddress;
using testbed::Bed;
using testbed::Bytes;
using testbed::Layer;
using testbed::Traits;

namespace {

const MacAddress kHostMac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
const MacAddress kPeerMac = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE};
const ethsim::Ipv4Address kHostIp = {192, 0, 2, 1};
const ethsim::Ipv4Address kPeerIp = {192, 0, 2, 2};

void Be16(Bytes& b, size_t at, uint16_t v)
{
    b[at] = static_cast<uint8_t>(v >> 8);
    b[at + 1] = static_cast<uint8_t>(v);
}

Bytes ArpRequest(const ethsim::Ipv4Address& target, bool vlan = false)
{
    const size_t o = vlan ? 4 : 0;
    Bytes f(42 + o, 0);
    std::memset(f.data(), 0xFF, 6);
    std::memcpy(&f[6], kHostMac.data(), 6);
    if (vlan) {
        Be16(f, 12, 0x8100);
        Be16(f, 14, 0x0005);
    }
    Be16(f, 12 + o, 0x0806);
    Be16(f, 14 + o, 1);
    Be16(f, 16 + o, 0x0800);
    f[18 + o] = 6;
    f[19 + o] = 4;
    Be16(f, 20 + o, 1);
    std::memcpy(&f[22 + o], kHostMac.data(), 6);
    std::memcpy(&f[28 + o], kHostIp.data(), 4);
    std::memcpy(&f[38 + o], target.data(), 4);
    return f;
}

Bytes EchoRequest(const ethsim::Ipv4Address& to, uint16_t sequence, size_t payload = 32)
{
    const size_t total = 20 + 8 + payload;
    Bytes f(14 + total, 0);
    std::memcpy(f.data(), kPeerMac.data(), 6);
    std::memcpy(&f[6], kHostMac.data(), 6);
    Be16(f, 12, 0x0800);
    uint8_t* ip = &f[14];
    ip[0] = 0x45;
    ip[2] = static_cast<uint8_t>(total >> 8);
    ip[3] = static_cast<uint8_t>(total);
    ip[8] = 128;
    ip[9] = 1;
    std::memcpy(ip + 12, kHostIp.data(), 4);
    std::memcpy(ip + 16, to.data(), 4);
    const uint16_t hc = ethsim::InternetChecksum(ip, 20);
    ip[10] = static_cast<uint8_t>(hc >> 8);
    ip[11] = static_cast<uint8_t>(hc);
    uint8_t* icmp = ip + 20;
    icmp[0] = 8;
    icmp[4] = 0x12;
    icmp[5] = 0x34;
    icmp[6] = static_cast<uint8_t>(sequence >> 8);
    icmp[7] = static_cast<uint8_t>(sequence);
    for (size_t i = 0; i < payload; ++i) {
        icmp[8 + i] = static_cast<uint8_t>('a' + i % 26);
    }
    const uint16_t cc = ethsim::InternetChecksum(icmp, 8 + payload);
    icmp[2] = static_cast<uint8_t>(cc >> 8);
    icmp[3] = static_cast<uint8_t>(cc);
    return f;
}

}  // namespace

TEST(Responder, AnswersArpForItsAddressOnly)
{
    ethsim::Responder r(kPeerMac, kPeerIp);
    ethsim::FrameCapture out;
    r.Connect(&out);
    const Bytes req = ArpRequest(kPeerIp);
    r.OnFrame(req.data(), req.size());
    ASSERT_EQ(out.Count(), 1u);
    const Bytes a = out.Frames()[0];
    ASSERT_GE(a.size(), 60u);
    EXPECT_EQ(Bytes(a.begin(), a.begin() + 6), Bytes(kHostMac.begin(), kHostMac.end()));
    EXPECT_EQ(Bytes(a.begin() + 6, a.begin() + 12), Bytes(kPeerMac.begin(), kPeerMac.end()));
    EXPECT_EQ(a[21], 2);  // reply
    EXPECT_EQ(Bytes(a.begin() + 22, a.begin() + 28), Bytes(kPeerMac.begin(), kPeerMac.end()));
    EXPECT_EQ(Bytes(a.begin() + 28, a.begin() + 32), Bytes(kPeerIp.begin(), kPeerIp.end()));
    EXPECT_EQ(Bytes(a.begin() + 32, a.begin() + 38), Bytes(kHostMac.begin(), kHostMac.end()));
    EXPECT_EQ(Bytes(a.begin() + 38, a.begin() + 42), Bytes(kHostIp.begin(), kHostIp.end()));

    const Bytes other = ArpRequest({192, 0, 2, 99});
    r.OnFrame(other.data(), other.size());
    EXPECT_EQ(out.Count(), 1u);
    EXPECT_EQ(r.GetCounters().arpRequests, 1u);
    EXPECT_EQ(r.GetCounters().ignored, 1u);
}

TEST(Responder, PingThroughTheDevice)
{
    // Host -> NTB -> device -> responder -> device -> NTB -> host.
    Traits t;
    t.layer = Layer::Control;
    Bed bed(t);
    ethsim::Responder peer(kPeerMac, kPeerIp);
    bed.Device().Connect(&peer);
    peer.Connect(&bed.Device());
    bed.Send({ArpRequest(kPeerIp), EchoRequest(kPeerIp, 1)});
    std::vector<Bytes> back = bed.Received();
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0][21], 2);       // ARP reply
    EXPECT_EQ(back[1][14 + 20], 0);  // echo reply
    EXPECT_EQ(peer.GetCounters().replies, 2u);
    EXPECT_EQ(bed.Device().TotalViolations(), 0u);
}

TEST(CountingGenerator, ThroughTheDeviceBothWays)
{
    Traits t;
    t.layer = Layer::Control;
    Bed bed(t);
    ethsim::CountingGenerator net(kPeerMac, t.profile.macAddress);
    bed.Device().Connect(&net);
    net.Connect(&bed.Device());
    EXPECT_EQ(net.Generate(10, 300), 10u);
    bed.Settle(50);
    EXPECT_EQ(bed.Received().size(), 10u);
    std::vector<Bytes> out;
    for (uint64_t i = 0; i < 4; ++i) out.push_back(ethsim::CountingGenerator::MakeFrame(t.profile.macAddress, kPeerMac, i, 200));
    bed.Send(out);
    EXPECT_EQ(net.Received(), 4u);
    EXPECT_EQ(net.OutOfOrder(), 0u);
    EXPECT_EQ(net.Corrupt(), 0u);
}
