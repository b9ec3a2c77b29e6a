// The usbmon pcap capture of the bus's traffic.
#include "usb_fixture.h"

#include <pcap/pcap.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace usbtest {
namespace {

struct Record {
    uint64_t id;
    char type;
    uint8_t transferType, endpoint, device;
    uint16_t bus;
    char flagSetup, flagData;
    int64_t sec;
    int32_t usec, status;
    uint32_t length, lenCap;
    uint8_t setup[8];
    Bytes data;
};

// Reads a capture back with libpcap.
bool ReadCapture(const std::string& path, int* linkType, std::vector<Record>* out) {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t* p = pcap_open_offline(path.c_str(), err);
    if (!p) return false;
    *linkType = pcap_datalink(p);
    pcap_pkthdr* h;
    const u_char* bytes;
    while (pcap_next_ex(p, &h, &bytes) == 1) {
        if (h->caplen < 64) break;
        Record r;
        memcpy(&r.id, bytes, 8);
        r.type = (char)bytes[8];
        r.transferType = bytes[9];
        r.endpoint = bytes[10];
        r.device = bytes[11];
        memcpy(&r.bus, bytes + 12, 2);
        r.flagSetup = (char)bytes[14];
        r.flagData = (char)bytes[15];
        memcpy(&r.sec, bytes + 16, 8);
        memcpy(&r.usec, bytes + 24, 4);
        memcpy(&r.status, bytes + 28, 4);
        memcpy(&r.length, bytes + 32, 4);
        memcpy(&r.lenCap, bytes + 36, 4);
        memcpy(r.setup, bytes + 40, 8);
        r.data.assign(bytes + 64, bytes + h->caplen);
        out->push_back(r);
    }
    pcap_close(p);
    return true;
}

std::string TempPath(const char* name) {
    return ::testing::TempDir() + "ethbrg_usb_" + std::to_string(getpid()) + "_" + name + ".pcap";
}

class UsbCaptureTest : public BusTest {
protected:
    void TearDown() override {
        BusTest::TearDown();
        if (!path.empty()) remove(path.c_str());
    }

    // A short session: device and configuration descriptors, configuration
    // and data interface selection, an NCM class request, one bulk write and
    // one bulk read.
    void Session() {
        uint8_t dd[18];
        Request& d = DescriptorRequest(USB_DEVICE_DESCRIPTOR_TYPE, 0, dd, sizeof(dd));
        ASSERT_EQ(SendAndRun(d), STATUS_SUCCESS);
        Bytes cfg(256);
        Request& c = DescriptorRequest(USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, cfg.data(), 256);
        ASSERT_EQ(SendAndRun(c), STATUS_SUCCESS);
        ConfigureAll();
        dev.classIn[0x80] = Pattern(28);
        uint8_t params[28];
        Request& ntb = ClassRequest(0x80, 0, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, params, 28, 0);
        ASSERT_EQ(SendAndRun(ntb), STATUS_SUCCESS);
        Bytes out = Pattern(600);
        Request& w = BulkRequest(bulkOut, 0, out.data(), 600);
        ASSERT_EQ(SendAndRun(w), STATUS_SUCCESS);
        dev.QueueIn(kBulkIn, Pattern(40, 9));
        Bytes in(2048);
        Request& r = BulkRequest(bulkIn, USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK, in.data(), 2048);
        ASSERT_EQ(SendAndRun(r), STATUS_SUCCESS);
    }

    std::string path;
};

TEST_F(UsbCaptureTest, RecordsSubmissionsAndCompletionsInUsbmonFormat) {
    path = TempPath("records");
    std::string error;
    ASSERT_TRUE(bus->StartCapture(path, &error)) << error;
    Session();
    bus->StopCapture();

    int linkType = 0;
    std::vector<Record> recs;
    ASSERT_TRUE(ReadCapture(path, &linkType, &recs));
    EXPECT_EQ(linkType, 220);
    // 7 URBs that reach the wire, each submitted and completed.
    ASSERT_EQ(recs.size(), 14u);
    for (size_t i = 0; i < recs.size(); i += 2) {
        EXPECT_EQ(recs[i].type, 'S') << i;
        EXPECT_EQ(recs[i + 1].type, 'C') << i;
        EXPECT_EQ(recs[i].id, recs[i + 1].id) << i;
        EXPECT_EQ(recs[i].status, -115);  // -EINPROGRESS
        EXPECT_EQ(recs[i + 1].status, 0);
        EXPECT_EQ(recs[i].bus, bus->BusNumber());
        EXPECT_EQ(recs[i].device, bus->DeviceAddress());
    }
    // The device descriptor read: set-up packet at submission, data at
    // completion.
    const Record& s = recs[0];
    EXPECT_EQ(s.transferType, 2);
    EXPECT_EQ(s.endpoint, 0x80);
    EXPECT_EQ(s.flagSetup, 0);
    EXPECT_EQ(s.flagData, '<');
    EXPECT_EQ(Bytes(s.setup, s.setup + 8), (Bytes{0x80, 0x06, 0x00, 0x01, 0x00, 0x00, 18, 0}));
    EXPECT_EQ(s.length, 18u);
    EXPECT_EQ(s.sec, 1406160000);  // the virtual clock's origin
    const Record& c = recs[1];
    EXPECT_EQ(c.flagSetup, '-');
    EXPECT_EQ(c.length, 18u);
    EXPECT_EQ(c.data, DeviceDescriptor());
    // SET_CONFIGURATION for the selection.
    EXPECT_EQ(Bytes(recs[4].setup, recs[4].setup + 8), (Bytes{0x00, 0x09, 0x01, 0x00, 0x00, 0x00, 0, 0}));
    // The class request.
    EXPECT_EQ(recs[8].setup[0], 0xA1);
    EXPECT_EQ(recs[8].setup[1], 0x80);
    EXPECT_EQ(recs[9].data, Pattern(28));
    // Bulk OUT: data at submission, none at completion.
    EXPECT_EQ(recs[10].transferType, 3);
    EXPECT_EQ(recs[10].endpoint, kBulkOut);
    EXPECT_EQ(recs[10].data, Pattern(600));
    EXPECT_EQ(recs[11].flagData, '>');
    EXPECT_EQ(recs[11].length, 600u);
    // Bulk IN: data at completion.
    EXPECT_EQ(recs[12].endpoint, kBulkIn);
    EXPECT_EQ(recs[12].length, 2048u);
    EXPECT_TRUE(recs[12].data.empty());
    EXPECT_EQ(recs[13].length, 40u);
    EXPECT_EQ(recs[13].data, Pattern(40, 9));
}

}  // namespace
}  // namespace usbtest
