// Notifications on the interrupt IN endpoint, in the formats the host
// driver decodes.
#include "sim_harness.h"

using namespace simtest;
using ethsim::DeviceProfile;
namespace cdc = ethsim::cdc;

namespace {

struct Notification {
    uint8_t requestType;
    uint8_t code;
    uint16_t value;
    uint16_t index;
    uint16_t length;
    Bytes data;
};

Notification Parse(const Bytes& b)
{
    EXPECT_GE(b.size(), 8u);
    Notification n{b[0], b[1], ethsim::Get16(&b[2]), ethsim::Get16(&b[4]), ethsim::Get16(&b[6]),
                   Bytes(b.begin() + 8, b.end())};
    EXPECT_EQ(n.length, n.data.size());
    return n;
}

}  // namespace

TEST(Notifications, DataInterfaceStartReportsSpeedThenConnection)
{
    DeviceProfile p;
    p.downlinkBitRate = 100000000;
    p.uplinkBitRate = 50000000;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_FALSE(h.ReadNotify().has_value());  // nothing before setting 1
    ASSERT_TRUE(h.SetInterface(1, 1));
    auto first = h.ReadNotify();
    ASSERT_TRUE(first.has_value());
    ASSERT_EQ(first->size(), 16u);
    Notification speed = Parse(*first);
    EXPECT_EQ(speed.requestType, 0xA1);
    EXPECT_EQ(speed.code, cdc::kNotifyConnectionSpeedChange);
    EXPECT_EQ(speed.index, p.communicationInterface);
    EXPECT_EQ(ethsim::Get32(&speed.data[0]), 100000000u);  // DLBitRate
    EXPECT_EQ(ethsim::Get32(&speed.data[4]), 50000000u);   // ULBitRate
    Notification conn = Parse(*h.ReadNotify());
    EXPECT_EQ(conn.code, cdc::kNotifyNetworkConnection);
    EXPECT_EQ(conn.value, 1);
    EXPECT_EQ(conn.length, 0);
    EXPECT_FALSE(h.ReadNotify().has_value());
    EXPECT_EQ(h.dev.Traffic().notifications, 2u);
}

TEST(Notifications, LinkChanges)
{
    Harness h;
    h.Start();
    h.dev.SetLink(false);
    Notification down = Parse(*h.ReadNotify());
    EXPECT_EQ(down.code, cdc::kNotifyNetworkConnection);
    EXPECT_EQ(down.value, 0);
    EXPECT_FALSE(h.ReadNotify().has_value());
    h.dev.SetLink(false);  // no change, no notification
    EXPECT_FALSE(h.ReadNotify().has_value());
    h.dev.SetLinkSpeed(10000000, 20000000);  // down: nothing sent
    EXPECT_FALSE(h.ReadNotify().has_value());
    h.dev.SetLink(true);
    Notification speed = Parse(*h.ReadNotify());
    EXPECT_EQ(ethsim::Get32(&speed.data[0]), 10000000u);
    EXPECT_EQ(Parse(*h.ReadNotify()).value, 1);
    h.dev.SetLinkSpeed(30000000, 40000000);
    Notification again = Parse(*h.ReadNotify());
    EXPECT_EQ(again.code, cdc::kNotifyConnectionSpeedChange);
    EXPECT_EQ(ethsim::Get32(&again.data[4]), 40000000u);
    auto s = h.dev.GetState();
    EXPECT_TRUE(s.linkUp);
    EXPECT_EQ(s.uplinkBitRate, 40000000u);
}

TEST(Notifications, OnCommand)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    h.dev.NotifyNetworkConnection(2);
    h.dev.NotifyResponseAvailable();
    h.dev.NotifySpeedChange(1, 2);
    EXPECT_EQ(Parse(*h.ReadNotify()).value, 2);
    EXPECT_EQ(Parse(*h.ReadNotify()).code, cdc::kNotifyResponseAvailable);
    Notification s = Parse(*h.ReadNotify());
    EXPECT_EQ(ethsim::Get32(&s.data[0]), 1u);
    EXPECT_EQ(ethsim::Get32(&s.data[4]), 2u);
}

TEST(Notifications, SplitAcrossSmallPackets)
{
    DeviceProfile p;
    p.notifyMaxPacket = 8;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    h.dev.NotifySpeedChange(0x11111111, 0x22222222);
    // 16 bytes with 8-byte packets: two packets, the host reads them as two
    // transfers; no ZLP follows.
    auto a = h.ReadNotify();
    auto b = h.ReadNotify();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->size(), 8u);
    EXPECT_EQ((*a)[1], cdc::kNotifyConnectionSpeedChange);
    EXPECT_EQ(ethsim::Get32(b->data()), 0x11111111u);
    EXPECT_FALSE(h.ReadNotify().has_value());
}

TEST(Notifications, EndpointReadyWhenQueuedAfterNak)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_FALSE(h.ReadNotify().has_value());
    h.dev.SetLink(false);  // not active: nothing
    EXPECT_TRUE(h.port.ready.empty());
    h.dev.NotifyResponseAvailable();
    EXPECT_EQ(h.port.ready, std::vector<uint8_t>{0x81});
}
