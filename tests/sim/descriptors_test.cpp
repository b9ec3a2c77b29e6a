// The descriptors the simulated function shows: parsed the way a host parses
// them, checked against the profile.
#include "sim_harness.h"

#include <ethsim/descriptors.h>

#include <map>

using namespace simtest;
using ethsim::DeviceProfile;
namespace usb = ethsim::usb;
namespace cdc = ethsim::cdc;

namespace {

struct Parsed {
    Bytes config;
    std::vector<Bytes> all;  // every descriptor in order
    bool wellFormed = true;
};

Parsed Walk(const Bytes& config)
{
    Parsed p;
    p.config = config;
    size_t off = 0;
    while (off < config.size()) {
        const uint8_t len = config[off];
        if (len < 2 || off + len > config.size()) {
            p.wellFormed = false;
            break;
        }
        p.all.emplace_back(config.begin() + off, config.begin() + off + len);
        off += len;
    }
    return p;
}

// Descriptors of `type` (and, for 0x24, of `subtype`).
std::vector<Bytes> Find(const Parsed& p, uint8_t type, int subtype = -1)
{
    std::vector<Bytes> out;
    for (const Bytes& d : p.all) {
        if (d[1] == type && (subtype < 0 || (d.size() > 2 && d[2] == subtype))) {
            out.push_back(d);
        }
    }
    return out;
}

Bytes FullConfig(Harness& h)
{
    ControlResult head = h.GetDescriptor(usb::kDescConfiguration, 0, 9);
    EXPECT_EQ(head.data.size(), 9u);
    const uint16_t total = ethsim::Get16(&head.data[2]);
    ControlResult all = h.GetDescriptor(usb::kDescConfiguration, 0, total);
    EXPECT_EQ(all.data.size(), total);
    return all.data;
}

std::string StringText(const Bytes& d)
{
    std::string s;
    for (size_t i = 2; i + 1 < d.size(); i += 2) {
        s.push_back(static_cast<char>(d[i]));
    }
    return s;
}

}  // namespace

TEST(Descriptors, DeviceDescriptorCarriesProfile)
{
    DeviceProfile p;
    p.idVendor = 0x1234;
    p.idProduct = 0xABCD;
    p.bcdDevice = 0x0321;
    Harness h(p);
    ControlResult r = h.GetDescriptor(usb::kDescDevice, 0, 64);
    ASSERT_TRUE(r.completed);
    ASSERT_FALSE(r.stalled);
    ASSERT_EQ(r.data.size(), 18u);  // at most what the device has
    EXPECT_EQ(r.data[0], 18);
    EXPECT_EQ(r.data[1], usb::kDescDevice);
    EXPECT_EQ(ethsim::Get16(&r.data[2]), 0x0200);
    EXPECT_EQ(r.data[4], 0x02);
    EXPECT_EQ(r.data[7], 64);
    EXPECT_EQ(ethsim::Get16(&r.data[8]), 0x1234);
    EXPECT_EQ(ethsim::Get16(&r.data[10]), 0xABCD);
    EXPECT_EQ(ethsim::Get16(&r.data[12]), 0x0321);
    EXPECT_EQ(r.data[17], 1);  // one configuration
}

TEST(Descriptors, ConfigurationHonoursWLength)
{
    Harness h;
    ControlResult r = h.GetDescriptor(usb::kDescConfiguration, 0, 9);
    ASSERT_EQ(r.data.size(), 9u);
    const uint16_t total = ethsim::Get16(&r.data[2]);
    EXPECT_GT(total, 9);
    EXPECT_EQ(h.GetDescriptor(usb::kDescConfiguration, 0, 20).data.size(), 20u);
    EXPECT_EQ(h.GetDescriptor(usb::kDescConfiguration, 0, 4096).data.size(), total);
    EXPECT_TRUE(h.GetDescriptor(usb::kDescConfiguration, 1, 9).stalled);  // only index 0
}

TEST(Descriptors, NcmFunctionLayout)
{
    DeviceProfile p;
    p.iMACAddress = 7;
    p.bmEthernetStatistics = 0x0000001F;
    p.wMaxSegmentSize = 1518;
    p.wNumberMCFilters = 0x8010;
    p.bmNetworkCapabilities = 0x31;
    Harness h(p);
    Parsed c = Walk(FullConfig(h));
    ASSERT_TRUE(c.wellFormed);
    ASSERT_GE(c.all.size(), 10u);
    EXPECT_EQ(c.all[0][1], usb::kDescConfiguration);
    EXPECT_EQ(c.all[0][4], 2);  // two interfaces
    EXPECT_EQ(c.all[0][5], p.bConfigurationValue);

    // The first interface is the communication interface, class 2 subclass
    // 0x0D, with one interrupt endpoint.
    const Bytes& comm = c.all[1];
    EXPECT_EQ(comm[1], usb::kDescInterface);
    EXPECT_EQ(comm[2], p.communicationInterface);
    EXPECT_EQ(comm[4], 1);
    EXPECT_EQ(comm[5], cdc::kClassCommunications);
    EXPECT_EQ(comm[6], cdc::kSubclassNcm);

    // Functional descriptors in CDC order: Header, Union, Ethernet, NCM.
    EXPECT_EQ(c.all[2][2], cdc::kSubtypeHeader);
    EXPECT_EQ(ethsim::Get16(&c.all[2][3]), 0x0120);
    EXPECT_EQ(c.all[3][2], cdc::kSubtypeUnion);
    EXPECT_EQ(c.all[3][3], p.communicationInterface);
    EXPECT_EQ(c.all[3][4], p.dataInterface);
    const Bytes& eth = c.all[4];
    ASSERT_EQ(eth.size(), 13u);
    EXPECT_EQ(eth[2], cdc::kSubtypeEthernet);
    EXPECT_EQ(eth[3], 7);
    EXPECT_EQ(ethsim::Get32(&eth[4]), 0x1Fu);
    EXPECT_EQ(ethsim::Get16(&eth[8]), 1518);
    EXPECT_EQ(ethsim::Get16(&eth[10]), 0x8010);
    const Bytes& ncm = c.all[5];
    ASSERT_EQ(ncm.size(), 6u);
    EXPECT_EQ(ncm[1], cdc::kCsInterface);
    EXPECT_EQ(ncm[2], cdc::kSubtypeNcm);
    EXPECT_EQ(ethsim::Get16(&ncm[3]), 0x0100);
    EXPECT_EQ(ncm[5], 0x31);

    const Bytes& notify = c.all[6];
    EXPECT_EQ(notify[1], usb::kDescEndpoint);
    EXPECT_EQ(notify[2], 0x81);
    EXPECT_EQ(notify[3], 0x03);
    EXPECT_EQ(ethsim::Get16(&notify[4]), 16);

    // Data interface: alt 0 without endpoints, alt 1 with bulk IN and OUT.
    auto ifaces = Find(c, usb::kDescInterface);
    ASSERT_EQ(ifaces.size(), 3u);
    EXPECT_EQ(ifaces[1][2], p.dataInterface);
    EXPECT_EQ(ifaces[1][3], 0);
    EXPECT_EQ(ifaces[1][4], 0);
    EXPECT_EQ(ifaces[1][5], cdc::kClassData);
    EXPECT_EQ(ifaces[1][7], cdc::kDataProtocolNtb);
    EXPECT_EQ(ifaces[2][3], 1);
    EXPECT_EQ(ifaces[2][4], 2);
    auto eps = Find(c, usb::kDescEndpoint);
    ASSERT_EQ(eps.size(), 3u);
    EXPECT_EQ(eps[1][2], 0x82);
    EXPECT_EQ(eps[1][3], 0x02);
    EXPECT_EQ(eps[2][2], 0x02);
    EXPECT_EQ(ethsim::Get16(&eps[1][4]), 512);
    EXPECT_EQ(ethsim::Get16(&eps[2][4]), 512);
    EXPECT_TRUE(Find(c, usb::kDescSsEndpointCompanion).empty());
}

TEST(Descriptors, MaxPacketSizesFollowSpeed)
{
    const std::map<kplat::UsbSpeed, uint16_t> expected = {
        {kplat::UsbSpeed::Full, 64}, {kplat::UsbSpeed::High, 512}, {kplat::UsbSpeed::Super, 1024}};
    for (const auto& [speed, mps] : expected) {
        DeviceProfile p;
        p.speed = speed;
        Harness h(p);
        EXPECT_EQ(h.dev.Speed(), speed);
        Parsed c = Walk(FullConfig(h));
        ASSERT_TRUE(c.wellFormed);
        auto eps = Find(c, usb::kDescEndpoint);
        ASSERT_EQ(eps.size(), 3u);
        EXPECT_EQ(ethsim::Get16(&eps[1][4]), mps);
        EXPECT_EQ(ethsim::Get16(&eps[2][4]), mps);
        ControlResult dev = h.GetDescriptor(usb::kDescDevice, 0, 18);
        if (speed == kplat::UsbSpeed::Super) {
            EXPECT_EQ(ethsim::Get16(&dev.data[2]), 0x0320);
            EXPECT_EQ(dev.data[7], 9);  // 2^9
            EXPECT_EQ(Find(c, usb::kDescSsEndpointCompanion).size(), 3u);
            EXPECT_TRUE(h.GetDescriptor(usb::kDescDeviceQualifier, 0, 10).stalled);
            ControlResult bos = h.GetDescriptor(usb::kDescBos, 0, 5);
            ASSERT_EQ(bos.data.size(), 5u);
            EXPECT_EQ(h.GetDescriptor(usb::kDescBos, 0, 255).data.size(), ethsim::Get16(&bos.data[2]));
        } else {
            EXPECT_EQ(dev.data[7], 64);
            EXPECT_TRUE(Find(c, usb::kDescSsEndpointCompanion).empty());
            EXPECT_EQ(h.GetDescriptor(usb::kDescDeviceQualifier, 0, 10).data.size(), 10u);
            EXPECT_TRUE(h.GetDescriptor(usb::kDescBos, 0, 5).stalled);
            // Other speed: the packet sizes of the other speed, type 7.
            Parsed other = Walk(h.GetDescriptor(usb::kDescOtherSpeedConfiguration, 0, 1024).data);
            ASSERT_TRUE(other.wellFormed);
            EXPECT_EQ(other.all[0][1], usb::kDescOtherSpeedConfiguration);
            EXPECT_EQ(ethsim::Get16(&Find(other, usb::kDescEndpoint)[1][4]), mps == 64 ? 512 : 64);
        }
    }
}

TEST(Descriptors, StringsAndMacAddress)
{
    DeviceProfile p;
    p.macAddress = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC};
    p.languages = {0x0409, 0x0407};
    p.serialNumber = "XY-17";
    Harness h(p);
    ControlResult langs = h.GetDescriptor(usb::kDescString, 0, 255);
    ASSERT_EQ(langs.data.size(), 6u);
    EXPECT_EQ(langs.data[0], 6);
    EXPECT_EQ(ethsim::Get16(&langs.data[2]), 0x0409);
    EXPECT_EQ(ethsim::Get16(&langs.data[4]), 0x0407);

    ControlResult mac = h.GetDescriptor(usb::kDescString, p.iMACAddress, 255, 0x0409);
    ASSERT_FALSE(mac.stalled);
    EXPECT_EQ(mac.data[0], 2 + 24);
    EXPECT_EQ(StringText(mac.data), "001122AABBCC");
    // The language ID does not matter, language 0 included.
    EXPECT_EQ(h.GetDescriptor(usb::kDescString, p.iMACAddress, 255, 0).data, mac.data);
    // wLength cuts the string.
    EXPECT_EQ(h.GetDescriptor(usb::kDescString, p.iMACAddress, 2, 0x0409).data.size(), 2u);
    EXPECT_EQ(StringText(h.GetDescriptor(usb::kDescString, ethsim::kStringSerial, 255).data), "XY-17");
    EXPECT_TRUE(h.GetDescriptor(usb::kDescString, 99, 255).stalled);
}
