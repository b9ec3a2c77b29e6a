// Faults on command: halts, failed transfers, NAK periods, held and delayed
// control transfers, aborts and unplugging.
#include "sim_harness.h"

using namespace simtest;
namespace usb = ethsim::usb;
namespace cdc = ethsim::cdc;

TEST(Faults, HaltEndpointUntilCleared)
{
    Harness h;
    h.Start();
    h.dev.HaltEndpoint(0x82);
    h.dev.OnFrame(MakeFrame(60, 1).data(), 60);
    UsbHandshake refusal = UsbHandshake::Ack;
    EXPECT_FALSE(h.ReadIn(0, nullptr, &refusal).has_value());
    EXPECT_EQ(refusal, UsbHandshake::Stall);
    EXPECT_EQ(h.Control(0x82, usb::kGetStatus, 0, 0x82, 2).data, (Bytes{1, 0}));
    ASSERT_FALSE(h.Control(0x02, usb::kClearFeature, usb::kFeatureEndpointHalt, 0x82, 0).stalled);
    EXPECT_TRUE(h.ReadIn().has_value());  // the queued frame survives
}

TEST(Faults, FailNextTransfersWithStall)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    h.dev.FailNextTransfers(0x02, 2, UsbHandshake::Stall);
    const Bytes ntb = GoodNtb({MakeFrame(60, 1)}, false, 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(h.SendOut(ntb), UsbHandshake::Stall);
        EXPECT_TRUE(h.dev.GetState().bulkOutHalted);
        ASSERT_FALSE(h.Control(0x02, usb::kClearFeature, usb::kFeatureEndpointHalt, 0x02, 0).stalled);
    }
    EXPECT_EQ(h.SendOut(ntb), UsbHandshake::Ack);
    EXPECT_EQ(net.Count(), 1u);
}

TEST(Faults, HeldControlTransfer)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    h.dev.HoldNextControl(1);
    PendingControl p;
    h.Submit(&p, 0xA1, cdc::kGetNtbParameters, 0, 0, 28);
    EXPECT_TRUE(h.port.completions.empty());
    EXPECT_EQ(h.dev.GetState().heldControl, 1u);
    // Others go on.
    EXPECT_FALSE(h.ClassIn(cdc::kGetNtbFormat, 0, 2).stalled);
    h.dev.ReleaseHeldControl();
    ASSERT_EQ(h.port.completions.size(), 1u);
    EXPECT_EQ(h.port.completions[0].transfer, &p.transfer);
    EXPECT_FALSE(h.port.completions[0].stall);
    EXPECT_EQ(p.transfer.actual, 28u);
}

TEST(Faults, UnplugDisconnects)
{
    Harness h;
    h.Start();
    h.dev.Unplug();
    EXPECT_EQ(h.port.disconnects, 1);
    EXPECT_TRUE(h.dev.GetState().unplugged);
    Bytes p;
    EXPECT_EQ(h.InPacket(0x82, &p, 512), UsbHandshake::Stall);
    h.dev.Unplug();
    EXPECT_EQ(h.port.disconnects, 1);
}

TEST(Faults, UnplugFromInsideABusCallIsDeferred)
{
    // A network peer that pulls the plug when it sees a frame: the device is
    // then inside OutPacket.
    struct Puller : ethsim::FrameSink {
        ethsim::NcmDevice* dev = nullptr;
        void OnFrame(const uint8_t*, size_t) override { dev->Unplug(); }
    } puller;
    Harness h;
    std::vector<uint64_t> requests;
    h.dev.SetServiceRequest([&requests](uint64_t due) { requests.push_back(due); });
    puller.dev = &h.dev;
    h.dev.Connect(&puller);
    h.Start();
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1)}, false, 0)), UsbHandshake::Ack);
    EXPECT_EQ(h.port.disconnects, 0);
    EXPECT_EQ(requests.size(), 1u);
    h.dev.Service();
    EXPECT_EQ(h.port.disconnects, 1);
    EXPECT_FALSE(h.port.disconnectInsideBusCall);
}

TEST(Faults, AbortDropsPartialTransfers)
{
    Harness h;
    ethsim::FrameCapture net;
    h.dev.Connect(&net);
    h.Start();
    // Half an OUT transfer, then an abort: the next transfer starts clean.
    Bytes big = GoodNtb({MakeFrame(1000, 1)}, false, 0);
    ASSERT_EQ(h.OutPacket(big.data(), 512), UsbHandshake::Ack);
    h.dev.EndpointAborted(0x02);
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 2)}, false, 1)), UsbHandshake::Ack);
    EXPECT_EQ(net.Count(), 1u);
    EXPECT_EQ(h.dev.TotalViolations(), 0u);
    // Half an IN transfer, then an abort: the rest is gone.
    h.dev.OnFrame(MakeFrame(1000, 3).data(), 1000);
    Bytes p;
    ASSERT_EQ(h.InPacket(0x82, &p, 512), UsbHandshake::Ack);
    h.dev.EndpointAborted(0x82);
    EXPECT_EQ(h.dev.Traffic().inAborted, 1u);
    EXPECT_EQ(h.InPacket(0x82, &p, 512), UsbHandshake::Nak);
}
