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

TEST(Faults, FailNextTransfersWithNak)
{
    Harness h;
    h.Start();
    h.dev.FailNextTransfers(0x81, 1, UsbHandshake::Nak);
    h.dev.NotifyResponseAvailable();
    h.port.ready.clear();  // the endpoint was waiting: signalled by the notification
    Bytes p;
    EXPECT_EQ(h.InPacket(0x81, &p, 16), UsbHandshake::Nak);
    // The endpoint is signalled ready again (no service function: at once).
    EXPECT_EQ(h.port.ready, std::vector<uint8_t>{0x81});
    EXPECT_EQ(h.InPacket(0x81, &p, 16), UsbHandshake::Ack);
}

TEST(Faults, NakForAPeriodOfPortTime)
{
    Harness h;
    std::vector<uint64_t> requests;
    h.dev.SetServiceRequest([&requests](uint64_t due) { requests.push_back(due); });
    h.Start();
    h.dev.OnFrame(MakeFrame(60, 1).data(), 60);
    h.dev.NakEndpointFor(0x82, 5);
    UsbHandshake refusal = UsbHandshake::Ack;
    EXPECT_FALSE(h.ReadIn(0, nullptr, &refusal).has_value());
    EXPECT_EQ(refusal, UsbHandshake::Nak);
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests.back(), 5u * 10000);
    h.port.now = 49999;
    h.dev.Service();
    EXPECT_TRUE(h.port.ready.empty());
    h.port.now = 50000;
    h.dev.Service();
    EXPECT_EQ(h.port.ready, std::vector<uint8_t>{0x82});
    EXPECT_TRUE(h.ReadIn().has_value());
}

TEST(Faults, StallNextControlWithoutEffect)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    h.dev.StallNextControl(1, cdc::kSetNtbFormat);
    EXPECT_FALSE(h.ClassIn(cdc::kGetNtbParameters, 0, 28).stalled);  // other requests pass
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbFormat, 1).stalled);
    EXPECT_FALSE(h.dev.GetState().ntb32);
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbFormat, 1).stalled);
    h.dev.StallNextControl(2);
    EXPECT_TRUE(h.GetDescriptor(usb::kDescDevice, 0, 18).stalled);
    EXPECT_TRUE(h.GetDescriptor(usb::kDescDevice, 0, 18).stalled);
    EXPECT_FALSE(h.GetDescriptor(usb::kDescDevice, 0, 18).stalled);
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

TEST(Faults, HeldControlForgottenOnAbort)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    h.dev.HoldNextControl(1);
    PendingControl p;
    h.Submit(&p, 0x21, cdc::kSetNtbFormat, 1, 0, 0);
    // The host times out and cancels; the device must never complete it.
    h.dev.EndpointAborted(0x00);
    h.dev.ReleaseHeldControl();
    EXPECT_TRUE(h.port.completions.empty());
    EXPECT_TRUE(h.dev.GetState().ntb32);  // the request took effect when it arrived
}

TEST(Faults, DelayedControlCompletion)
{
    Harness h;
    std::vector<uint64_t> requests;
    h.dev.SetServiceRequest([&requests](uint64_t due) { requests.push_back(due); });
    ASSERT_TRUE(h.SetConfiguration(1));
    h.port.now = 1000;
    h.dev.DelayNextControl(1, 3);
    PendingControl p;
    h.Submit(&p, 0xA1, cdc::kGetNtbFormat, 0, 0, 2);
    EXPECT_TRUE(h.port.completions.empty());
    ASSERT_EQ(requests, std::vector<uint64_t>{1000 + 30000});
    EXPECT_EQ(h.dev.NextDeadline(), std::optional<uint64_t>(31000));
    h.port.now = 30999;
    h.dev.Service();
    EXPECT_TRUE(h.port.completions.empty());
    h.port.now = 31000;
    h.dev.Service();
    ASSERT_EQ(h.port.completions.size(), 1u);
    EXPECT_EQ(p.transfer.actual, 2u);
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
