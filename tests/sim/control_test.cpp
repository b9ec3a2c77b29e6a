// Standard and class requests of the simulated function, and what it
// remembers of them.
#include "sim_harness.h"

using namespace simtest;
using ethsim::DeviceProfile;
namespace usb = ethsim::usb;
namespace cdc = ethsim::cdc;

namespace {

Bytes Le32(uint32_t v)
{
    Bytes b;
    ethsim::Append32(b, v);
    return b;
}

}  // namespace

// ---------------------------------------------------------------------------
// Standard requests
// ---------------------------------------------------------------------------
TEST(StandardRequests, ConfigurationSelection)
{
    Harness h;
    EXPECT_EQ(h.Control(0x80, usb::kGetConfiguration, 0, 0, 1).data, Bytes{0});
    EXPECT_FALSE(h.SetConfiguration(2));  // no such configuration
    EXPECT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.Control(0x80, usb::kGetConfiguration, 0, 0, 1).data, Bytes{1});
    EXPECT_EQ(h.dev.GetState().configuration, 1);
    EXPECT_TRUE(h.SetConfiguration(0));
    EXPECT_EQ(h.dev.GetState().configuration, 0);
    EXPECT_TRUE(h.Control(0x00, usb::kSetAddress, 5, 0, 0).completed);
}

TEST(StandardRequests, InterfaceSelectionNeedsConfiguration)
{
    Harness h;
    EXPECT_FALSE(h.SetInterface(1, 1));
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.Control(0x81, usb::kGetInterface, 0, 1, 1).data, Bytes{0});
    EXPECT_TRUE(h.SetInterface(1, 1));
    EXPECT_EQ(h.Control(0x81, usb::kGetInterface, 0, 1, 1).data, Bytes{1});
    EXPECT_EQ(h.dev.GetState().dataAlternate, 1);
    EXPECT_FALSE(h.SetInterface(1, 2));
    EXPECT_FALSE(h.SetInterface(0, 1));  // the communication interface has only setting 0
    EXPECT_TRUE(h.SetInterface(0, 0));
    EXPECT_FALSE(h.SetInterface(5, 0));
    // SET_CONFIGURATION puts the data interface back to setting 0.
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.dev.GetState().dataAlternate, 0);
}

TEST(NcmRequests, ClassRequestsNeedConfigurationAndTheCommunicationInterface)
{
    Harness h;
    EXPECT_TRUE(h.ClassIn(cdc::kGetNtbParameters, 0, 28).stalled);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_TRUE(h.Control(0xA1, cdc::kGetNtbParameters, 0, 1, 28).stalled);  // data interface
    EXPECT_TRUE(h.Control(0xA0, cdc::kGetNtbParameters, 0, 0, 28).stalled);  // to the device
    EXPECT_TRUE(h.ClassOut(cdc::kGetNtbParameters, 0).stalled);             // wrong direction
    EXPECT_TRUE(h.ClassIn(0x7F, 0, 4).stalled);
    EXPECT_TRUE(h.ClassOut(cdc::kSetEthernetPmPatternFilter, 0).stalled);
}

TEST(NcmRequests, NtbFormat)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.ClassIn(cdc::kGetNtbFormat, 0, 2).data, (Bytes{0, 0}));
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbFormat, 1).stalled);
    EXPECT_TRUE(h.dev.GetState().ntb32);
    EXPECT_EQ(h.ClassIn(cdc::kGetNtbFormat, 0, 2).data, (Bytes{1, 0}));
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbFormat, 2).stalled);
    // Not while the data interface is at setting 1.
    ASSERT_TRUE(h.SetInterface(1, 1));
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbFormat, 0).stalled);
    EXPECT_TRUE(h.dev.GetState().ntb32);
    // Setting 0 resets the function: NTB16 again.
    ASSERT_TRUE(h.SetInterface(1, 0));
    EXPECT_FALSE(h.dev.GetState().ntb32);
}

TEST(NcmRequests, Ntb32RefusedWhenNotSupported)
{
    DeviceProfile p;
    p.ntb.bmNtbFormatsSupported = cdc::kFormatNtb16;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbFormat, 1).stalled);
    EXPECT_FALSE(h.dev.GetState().ntb32);
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbFormat, 0).stalled);
}

TEST(NcmRequests, NtbInputSizeFourAndEightBytes)
{
    DeviceProfile p;
    p.ntb.dwNtbInMaxSize = 32768;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.dev.GetState().ntbInputSize, 32768u);
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(8192)).stalled);
    EXPECT_EQ(h.dev.GetState().ntbInputSize, 8192u);
    EXPECT_EQ(h.ClassIn(cdc::kGetNtbInputSize, 0, 4).data, Le32(8192));
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(32769)).stalled);  // above dwNtbInMaxSize
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(100)).stalled);    // below the floor
    // The 8-byte form needs its capability bit.
    Bytes eight = Le32(4096);
    ethsim::Append16(eight, 3);
    ethsim::Append16(eight, 0);
    EXPECT_TRUE(h.ClassOut(cdc::kSetNtbInputSize, 0, eight).stalled);
    EXPECT_EQ(h.dev.GetState().ntbInputSize, 8192u);
    // Allowed while the data interface runs (the host shrinks it on errors).
    ASSERT_TRUE(h.SetInterface(1, 1));
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(4096)).stalled);
    EXPECT_EQ(h.dev.GetState().ntbInputSize, 4096u);
}

TEST(NcmRequests, CrcMode)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_FALSE(h.ClassOut(cdc::kSetCrcMode, 1).stalled);
    EXPECT_TRUE(h.dev.GetState().crcMode);
    EXPECT_EQ(h.ClassIn(cdc::kGetCrcMode, 0, 2).data, (Bytes{1, 0}));
    EXPECT_TRUE(h.ClassOut(cdc::kSetCrcMode, 2).stalled);
    EXPECT_FALSE(h.ClassOut(cdc::kSetCrcMode, 0).stalled);
    EXPECT_FALSE(h.dev.GetState().crcMode);

    DeviceProfile p;
    p.bmNetworkCapabilities &= static_cast<uint8_t>(~cdc::kCapCrcMode);
    Harness without(p);
    ASSERT_TRUE(without.SetConfiguration(1));
    EXPECT_TRUE(without.ClassOut(cdc::kSetCrcMode, 0).stalled);
}

TEST(NcmRequests, NetAddress)
{
    DeviceProfile p;
    p.macAddress = {0x02, 1, 2, 3, 4, 5};
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.ClassIn(cdc::kGetNetAddress, 0, 6).data, (Bytes{0x02, 1, 2, 3, 4, 5}));
    const Bytes next = {0x02, 9, 9, 9, 9, 9};
    EXPECT_FALSE(h.ClassOut(cdc::kSetNetAddress, 0, next).stalled);
    EXPECT_EQ(h.ClassIn(cdc::kGetNetAddress, 0, 6).data, next);
    EXPECT_EQ(h.dev.GetState().netAddress[1], 9);
    EXPECT_TRUE(h.ClassOut(cdc::kSetNetAddress, 0, Bytes{0x01, 0, 0, 0, 0, 1}).stalled);  // group address
    EXPECT_TRUE(h.ClassOut(cdc::kSetNetAddress, 0, Bytes{0x02, 0, 0}).stalled);
    ASSERT_TRUE(h.SetInterface(1, 1));
    EXPECT_TRUE(h.ClassOut(cdc::kSetNetAddress, 0, Bytes{0x02, 7, 7, 7, 7, 7}).stalled);  // only at setting 0
}

TEST(NcmRequests, MaxDatagramSize)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.ClassIn(cdc::kGetMaxDatagramSize, 0, 2).data, (Bytes{0xEA, 0x05}));  // 1514
    EXPECT_FALSE(h.ClassOut(cdc::kSetMaxDatagramSize, 0, Bytes{0x00, 0x04}).stalled);
    EXPECT_EQ(h.dev.GetState().maxDatagramSize, 1024);
    EXPECT_TRUE(h.ClassOut(cdc::kSetMaxDatagramSize, 0, Bytes{0x00, 0x08}).stalled);
}

// ---------------------------------------------------------------------------
// Ethernet requests
// ---------------------------------------------------------------------------
TEST(EthernetRequests, PacketFilter)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_FALSE(h.ClassOut(cdc::kSetEthernetPacketFilter, 0x000C).stalled);
    EXPECT_EQ(h.dev.GetState().packetFilter, 0x000C);
    EXPECT_TRUE(h.ClassOut(cdc::kSetEthernetPacketFilter, 0x000C, Bytes{1, 2}).stalled);  // no data stage

    DeviceProfile p;
    p.bmNetworkCapabilities = 0;
    Harness without(p);
    ASSERT_TRUE(without.SetConfiguration(1));
    EXPECT_TRUE(without.ClassOut(cdc::kSetEthernetPacketFilter, 0x0C).stalled);
}

TEST(EthernetRequests, MulticastFilters)
{
    DeviceProfile p;
    p.wNumberMCFilters = 0x8002;  // imperfect filtering, two filters
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    const Bytes two = {0x01, 0, 0x5E, 0, 0, 1, 0x01, 0, 0x5E, 0, 0, 2};
    EXPECT_FALSE(h.ClassOut(cdc::kSetEthernetMulticastFilters, 2, two).stalled);
    auto list = h.dev.GetState().multicastFilters;
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1][5], 2);
    Bytes three = two;
    three.insert(three.end(), {0x01, 0, 0x5E, 0, 0, 3});
    EXPECT_TRUE(h.ClassOut(cdc::kSetEthernetMulticastFilters, 3, three).stalled);
    EXPECT_TRUE(h.ClassOut(cdc::kSetEthernetMulticastFilters, 2, Bytes(6, 1)).stalled);  // length mismatch
    EXPECT_FALSE(h.ClassOut(cdc::kSetEthernetMulticastFilters, 0).stalled);
    EXPECT_TRUE(h.dev.GetState().multicastFilters.empty());
}

TEST(EthernetRequests, StatisticsCountRealTraffic)
{
    DeviceProfile p;
    p.bmEthernetStatistics = 0x3;  // XMIT_OK, RCV_OK
    Harness h(p);
    h.Start();
    ASSERT_EQ(h.SendOut(GoodNtb({MakeFrame(60, 1), MakeFrame(70, 2)}, false, 0)), UsbHandshake::Ack);
    EXPECT_EQ(h.ClassIn(cdc::kGetEthernetStatistic, cdc::kXmitOk, 4).data, Le32(2));
    const Bytes frame = MakeFrame(80, 3);
    h.dev.OnFrame(frame.data(), frame.size());
    ASSERT_TRUE(h.ReadIn().has_value());
    EXPECT_EQ(h.ClassIn(cdc::kGetEthernetStatistic, cdc::kRcvOk, 4).data, Le32(1));
    EXPECT_EQ(h.dev.Statistic(cdc::kDirectedFramesRcv), 1u);
    EXPECT_EQ(h.dev.Statistic(cdc::kDirectedBytesRcv), 80u);
    EXPECT_EQ(h.dev.Statistic(cdc::kDirectedFramesXmit), 2u);
    // Not announced, out of range: stall.
    EXPECT_TRUE(h.ClassIn(cdc::kGetEthernetStatistic, cdc::kXmitError, 4).stalled);
    EXPECT_TRUE(h.ClassIn(cdc::kGetEthernetStatistic, 0, 4).stalled);
    EXPECT_TRUE(h.ClassIn(cdc::kGetEthernetStatistic, 33, 4).stalled);
    h.dev.SetStatistic(cdc::kXmitOk, 0xFFFFFFFF);
    EXPECT_EQ(h.ClassIn(cdc::kGetEthernetStatistic, cdc::kXmitOk, 4).data, Le32(0xFFFFFFFF));
}

TEST(EthernetRequests, EncapsulatedCommandEchoes)
{
    DeviceProfile p;
    p.bmNetworkCapabilities |= cdc::kCapEncapsulated;
    Harness h(p);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_FALSE(h.ClassOut(cdc::kSendEncapsulatedCommand, 0, Bytes{'h', 'i'}).stalled);
    auto n = h.ReadNotify();
    ASSERT_TRUE(n.has_value());
    EXPECT_EQ((*n)[1], cdc::kNotifyResponseAvailable);
    EXPECT_EQ(h.ClassIn(cdc::kGetEncapsulatedResponse, 0, 64).data, (Bytes{'h', 'i'}));
    EXPECT_TRUE(h.ClassIn(cdc::kGetEncapsulatedResponse, 0, 64).data.empty());
}

// ---------------------------------------------------------------------------
// The request log
// ---------------------------------------------------------------------------
TEST(FunctionReset, AlternateSettingZeroRestoresDefaults)
{
    Harness h;
    ASSERT_TRUE(h.SetConfiguration(1));
    h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(4096));
    h.ClassOut(cdc::kSetNtbFormat, 1);
    h.ClassOut(cdc::kSetCrcMode, 1);
    h.ClassOut(cdc::kSetEthernetPacketFilter, 0x04);
    ASSERT_TRUE(h.SetInterface(1, 1));
    auto s = h.dev.GetState();
    EXPECT_TRUE(s.ntb32);
    EXPECT_TRUE(s.crcMode);
    EXPECT_EQ(s.ntbInputSize, 4096u);
    ASSERT_TRUE(h.SetInterface(1, 0));
    s = h.dev.GetState();
    EXPECT_FALSE(s.ntb32);
    EXPECT_FALSE(s.crcMode);
    EXPECT_EQ(s.ntbInputSize, h.profile.ntb.dwNtbInMaxSize);
    EXPECT_EQ(s.packetFilter, 0x04);  // filters are not part of the reset
}

// The requests of the host driver's initialisation, start and exit, in its
// order: every one is answered and leaves the state the driver expects.
TEST(DriverSequence, InitStartExit)
{
    Harness h;
    // Init: descriptors, MAC string (before the configuration), configuration,
    // NTB parameters.
    const Bytes head = h.GetDescriptor(usb::kDescConfiguration, 0, 9).data;
    ASSERT_EQ(head.size(), 9u);
    ASSERT_EQ(h.GetDescriptor(usb::kDescConfiguration, 0, ethsim::Get16(&head[2])).data.size(),
              ethsim::Get16(&head[2]));
    const Bytes langs = h.GetDescriptor(usb::kDescString, 0, 256).data;
    ASSERT_GE(langs.size(), 4u);
    const Bytes mac = h.GetDescriptor(usb::kDescString, h.profile.iMACAddress, 54, ethsim::Get16(&langs[2])).data;
    EXPECT_EQ(mac.size(), 26u);
    ASSERT_TRUE(h.SetConfiguration(1));
    EXPECT_EQ(h.ClassIn(cdc::kGetNtbParameters, 0, 28).data.size(), 28u);
    // Start.
    ASSERT_TRUE(h.SetInterface(1, 0));
    EXPECT_FALSE(h.ClassOut(cdc::kSetNetAddress, 0, Bytes{0x02, 0x12, 0x34, 0x56, 0x78, 0x9A}).stalled);
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(16384)).stalled);
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbFormat, 1).stalled);
    EXPECT_FALSE(h.ClassOut(cdc::kSetCrcMode, 0).stalled);
    ASSERT_TRUE(h.SetInterface(1, 1));
    EXPECT_FALSE(h.Control(0x02, usb::kClearFeature, usb::kFeatureEndpointHalt, 0x82, 0).stalled);
    EXPECT_FALSE(h.Control(0x02, usb::kClearFeature, usb::kFeatureEndpointHalt, 0x02, 0).stalled);
    EXPECT_FALSE(h.Control(0x02, usb::kClearFeature, usb::kFeatureEndpointHalt, 0x81, 0).stalled);
    EXPECT_TRUE(h.ReadNotify().has_value());
    // Running: filters and statistics.
    EXPECT_FALSE(h.ClassOut(cdc::kSetEthernetPacketFilter, 0x1F).stalled);
    EXPECT_FALSE(h.ClassOut(cdc::kSetEthernetMulticastFilters, 0).stalled);
    for (uint8_t s : {1, 2, 3, 4, 5, 20, 21, 22}) {
        EXPECT_EQ(h.ClassIn(cdc::kGetEthernetStatistic, s, 4).data.size(), 4u) << int(s);
    }
    EXPECT_FALSE(h.ClassOut(cdc::kSetNtbInputSize, 0, Le32(8192)).stalled);  // after receive errors
    auto s = h.dev.GetState();
    EXPECT_TRUE(s.ntb32);
    EXPECT_EQ(s.ntbInputSize, 8192u);
    EXPECT_EQ(s.netAddress[5], 0x9A);
    // Exit.
    ASSERT_TRUE(h.SetInterface(1, 0));
    ASSERT_TRUE(h.SetConfiguration(0));
    for (const auto& r : h.dev.RequestLog()) {
        EXPECT_FALSE(r.stalled) << "request 0x" << std::hex << int(r.setup.bRequest);
    }
}
