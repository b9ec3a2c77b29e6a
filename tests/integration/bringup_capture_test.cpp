// An NCM bring-up against the simulated device on the bus, recorded as a
// usbmon capture and read back by tshark: what a firmware developer would
// open in Wireshark.
#include <gtest/gtest.h>
#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include <cstdio>
#include <string>

#include "ethsim/ncm_device.h"
#include "ethsim/service_timer.h"
#include "knusbconfiguration.h"
#include "knusbpnplowerdevice.h"
#include "usb.h"

namespace {

std::string RunCommand(const std::string& command) {
    std::string out;
    FILE* f = popen(command.c_str(), "r");
    if (!f) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    pclose(f);
    return out;
}

struct BringUp {
    ethsim::NcmDevice device;
    kplat::UsbBus bus;
    KnPnPLowerDeviceUsb lower;
    KnUsbConfiguration configuration;

    explicit BringUp(ethsim::DeviceProfile profile) : device(std::move(profile)) {}
    ~BringUp() {
        if (configuration.IsConfigured()) configuration.Unconfigure(&lower, false, 500);
        lower.SetDeviceObject(NULL);
    }
};

TEST(BringUpCapture, TsharkShowsGetNtbParametersWithTheDevicesValues) {
    if (RunCommand("command -v tshark").empty()) GTEST_SKIP() << "tshark is not installed";
    kplat::Scope scope;
    ethsim::DeviceProfile profile;
    profile.ntb.dwNtbInMaxSize = 0x5A5A0;
    profile.ntb.wNdpOutDivisor = 4;
    profile.ntb.wNdpOutAlignment = 8;
    std::string path = ::testing::TempDir() + "ethbrg_bringup.pcap";
    {
        BringUp b(profile);
        ASSERT_TRUE(b.bus.StartCapture(path));
        ASSERT_TRUE(b.bus.Attach(&b.device));
        ethsim::ServiceTimer service(b.device);
        b.lower.SetDeviceObject(b.bus.Pdo());

        ASSERT_EQ(b.configuration.PrepareAndSelectConfiguration(&b.lower, 0, 5000, 4096), STATUS_SUCCESS);
        UCHAR params[28] = {};
        ULONG got = 0;
        USBD_STATUS urbStatus = 0;
        ASSERT_EQ(b.lower.ControlVendorOrClassRequest(URB_FUNCTION_CLASS_INTERFACE, 0x80 /* GET_NTB_PARAMETERS */, 0,
                                                      0, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK,
                                                      params, NULL, sizeof params, &got, 500, &urbStatus),
                  STATUS_SUCCESS);
        EXPECT_EQ(got, 28u);
        ULONG inMax;
        memcpy(&inMax, params + 4, 4);
        EXPECT_EQ(inMax, 0x5A5A0u);
        b.bus.StopCapture();
        b.bus.Unplug();
    }
    std::string text = RunCommand("tshark -r '" + path + "' -V 2>&1");
    EXPECT_NE(text.find("GET NTB PARAMETERS"), std::string::npos) << text;
    EXPECT_NE(text.find("bRequest: SET CONFIGURATION (9)"), std::string::npos);
    EXPECT_EQ(text.find("Malformed"), std::string::npos) << text;
    // The device's answer, decoded field by field.
    EXPECT_NE(text.find("NTB IN Max Size: 370080"), std::string::npos) << text;
    EXPECT_NE(text.find("NDP OUT Divisor: 4"), std::string::npos);
    EXPECT_NE(text.find("NDP OUT Alignment: 8"), std::string::npos);
    std::remove(path.c_str());
}

}  // namespace
