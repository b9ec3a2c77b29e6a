// The USB device access library against the stand-in's bus and the
// simulated function: the configuration descriptor as read and walked, with
// descriptors malformed in each way the walk must survive, and requests to
// the device that fail or never come back.
#include <gtest/gtest.h>

#include "knusbconfigdescriptor.h"
#include "testbed.h"

using testbed::Bed;
using testbed::Bytes;
using testbed::Layer;
using testbed::Traits;

namespace {

Bytes Config(std::vector<Bytes> parts, int totalLength = -1)
{
    Bytes d;
    for (const Bytes& p : parts) d.insert(d.end(), p.begin(), p.end());
    uint16_t total = totalLength < 0 ? (uint16_t)d.size() : (uint16_t)totalLength;
    d[2] = (uint8_t)total;
    d[3] = (uint8_t)(total >> 8);
    return d;
}

const Bytes kHeader = {9, 2, 0, 0, 1, 1, 0, 0x80, 50};
Bytes Interface(uint8_t number, uint8_t alternate, uint8_t cls) { return {9, 4, number, alternate, 0, cls, 0, 0, 0}; }
const Bytes kEndpoint = {7, 5, 0x81, 3, 16, 0, 8};

TEST(ConfigDescriptor, WalksStopAtEveryMalformedDescriptor)
{
    struct Row {
        const char* what;
        Bytes raw;
        NTSTATUS load;
        bool second;    // interface 1 is found
        bool endpoint;  // an endpoint descriptor is found
    };
    const Row rows[] = {
        {"well formed", Config({kHeader, Interface(0, 0, 2), kEndpoint, Interface(1, 0, 10)}), STATUS_SUCCESS, true, true},
        {"zero bLength", Config({kHeader, Interface(0, 0, 2), {0, 0x24, 0, 0}, kEndpoint, Interface(1, 0, 10)}),
         STATUS_SUCCESS, false, false},
        {"past the end", Config({kHeader, Interface(0, 0, 2), {9, 0x24, 0, 0}}), STATUS_SUCCESS, false, false},
        {"ends exactly at the end", Config({kHeader, Interface(0, 0, 2), Interface(1, 0, 10), kEndpoint}),
         STATUS_SUCCESS, true, true},
        {"short interface", Config({kHeader, Interface(0, 0, 2), {5, 4, 1, 0, 0}, kEndpoint}), STATUS_SUCCESS, false, true},
        {"one byte past the end", Config({kHeader, Interface(0, 0, 2), {5, 5, 0x81, 3}}), STATUS_SUCCESS, false, false},
        {"wTotalLength 8", Config({kHeader}, 8), STATUS_INVALID_PARAMETER, false, false},
        {"wTotalLength 4097", Config({kHeader}, 4097), STATUS_INVALID_PARAMETER, false, false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        Traits t;
        t.layer = Layer::Bus;
        t.traceMask = KN_TRACE_ERROR;
        t.profile.rawConfiguration = r.raw;
        Bed bed(t);
        KnUsbConfigDescriptor d;
        ASSERT_EQ(d.Load(&bed.Lower(), 0, NonPagedPool, 500), r.load);
        if (r.load != STATUS_SUCCESS) {
            EXPECT_FALSE(d.IsValid());
            EXPECT_EQ(kplat::GetPoolTagStats(KN_POOL_TAG_USB_CONFIG).liveCount, 0u);
            continue;
        }
        EXPECT_EQ(d.GetConfigDescLength(), r.raw.size());
        EXPECT_NE(d.FindInterfaceDescriptor(nullptr, 0, -1, 2, -1, -1), nullptr);
        EXPECT_EQ(d.FindInterfaceDescriptor(nullptr, 1, 0, -1, -1, -1) != nullptr, r.second);
        PUSB_COMMON_DESCRIPTOR e = d.FindDescriptor(nullptr, USB_ENDPOINT_DESCRIPTOR_TYPE);
        EXPECT_EQ(e != nullptr, r.endpoint);
        if (e != nullptr) {
            EXPECT_LE((PUCHAR)e + e->bLength, (PUCHAR)d.GetConfigDesc() + d.GetConfigDescLength());
        }
        EXPECT_EQ(d.FindInterfaceDescriptor(nullptr, 0, -1, 3, -1, -1), nullptr) << "no such class";
        d.Free();
    }
}

TEST(LowerDevice, RequestsThatFailOrNeverEnd)
{
    Traits t;
    t.layer = Layer::Bus;
    t.traceMask = KN_TRACE_ERROR;
    Bed bed(t);
    USHORT languages[4];
    ULONG n = 0;
    ASSERT_EQ(bed.Lower().GetLanguageIdList(languages, 4, &n, 500), STATUS_SUCCESS);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(languages[0], 0x0409);
    bed.Device().HoldNextControl(1);
    const uint64_t start = kplat::Now();
    EXPECT_NE(bed.Lower().GetLanguageIdList(languages, 4, &n, 500), STATUS_SUCCESS);
    EXPECT_EQ((kplat::Now() - start) / 10000, 500u) << "gives up after its time-out";
    bed.Device().StallNextControl(1);
    EXPECT_NE(bed.Lower().GetLanguageIdList(languages, 4, &n, 500), STATUS_SUCCESS);
    EXPECT_EQ(bed.Lower().GetLanguageIdList(languages, 4, &n, 500), STATUS_SUCCESS) << "and then works again";
}

}  // namespace
