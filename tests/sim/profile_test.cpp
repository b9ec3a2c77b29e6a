// The device profile: defaults, JSON overrides, and the error messages for
// profiles that cannot be used.
#include <gtest/gtest.h>

#include <ethsim/profile.h>

#include <cstdio>
#include <fstream>

using ethsim::DeviceProfile;
using ethsim::ParseProfile;
using ethsim::ProfileError;

namespace {

// The message of the ProfileError that parsing `json` raises, or "".
std::string ErrorOf(const std::string& json)
{
    try {
        ParseProfile(json, "test.json");
    } catch (const ProfileError& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(Profile, DefaultIsAConformingHighSpeedDevice)
{
    DeviceProfile p;
    EXPECT_EQ(p.speed, kplat::UsbSpeed::High);
    EXPECT_EQ(p.BulkMaxPacket(), 512);
    EXPECT_EQ(p.UsbVersion(), 0x0200);
    EXPECT_EQ(p.MacString(), "024554480001");
    EXPECT_GE(p.ntb.dwNtbInMaxSize, 2048u);
    EXPECT_GE(p.ntb.wNdpOutAlignment, 4);
    EXPECT_EQ(p.ntb.Serialize().size(), 28u);
}

TEST(Profile, OverridesKeepTheRest)
{
    DeviceProfile p = ParseProfile(R"({
        "speed": "super",
        "device": {"idVendor": "0x1D6B", "product": "Test"},
        "ethernet": {"macAddress": "02:00:00:00:00:07", "wMaxSegmentSize": 1518},
        "ntbParameters": {"bmNtbFormatsSupported": 1, "dwNtbInMaxSize": 65536, "wNtbOutMaxDatagrams": 16,
                          "answerLength": 26},
        "in": {"maxDatagrams": 8, "ndpCount": 2, "ndpPosition": "before", "zlp": false},
        "checker": {"payloadOffset": 0, "sequenceStartsAtZero": true},
        "link": {"connected": false, "downlinkBitRate": 480000000},
        "strings": {"languages": [1033, "0x0407"], "extra": {"9": "nine"}},
        "raw": {"configuration": "09 02 09 00 00 01 00 80 32", "strings": {"0": "04 03 09 04"}}
    })");
    EXPECT_EQ(p.speed, kplat::UsbSpeed::Super);
    EXPECT_EQ(p.BulkMaxPacket(), 1024);
    EXPECT_EQ(p.idVendor, 0x1D6B);
    EXPECT_EQ(p.idProduct, DeviceProfile().idProduct);
    EXPECT_EQ(p.product, "Test");
    EXPECT_EQ(p.macAddress[5], 7);
    EXPECT_EQ(p.MacString(), "020000000007");
    EXPECT_EQ(p.wMaxSegmentSize, 1518);
    EXPECT_EQ(p.ntb.bmNtbFormatsSupported, 1);
    EXPECT_EQ(p.ntb.dwNtbInMaxSize, 65536u);
    EXPECT_EQ(p.ntb.dwNtbOutMaxSize, DeviceProfile().ntb.dwNtbOutMaxSize);
    EXPECT_EQ(p.ntb.wNtbOutMaxDatagrams, 16);
    EXPECT_EQ(p.ntbParametersAnswerLength, 26);
    EXPECT_EQ(p.in.maxDatagrams, 8);
    EXPECT_EQ(p.in.ndpPosition, ethsim::NdpPosition::BeforeDatagrams);
    EXPECT_FALSE(p.in.zlp);
    EXPECT_EQ(p.checker.payloadOffset, 0);
    EXPECT_TRUE(p.checker.sequenceStartsAtZero);
    EXPECT_FALSE(p.linkUp);
    EXPECT_EQ(p.downlinkBitRate, 480000000u);
    EXPECT_EQ(p.languages, (std::vector<uint16_t>{0x0409, 0x0407}));
    EXPECT_EQ(p.extraStrings.at(9), "nine");
    ASSERT_TRUE(p.rawConfiguration.has_value());
    EXPECT_EQ(p.rawConfiguration->size(), 9u);
    EXPECT_EQ(p.rawStrings.at(0), (ethsim::Bytes{4, 3, 9, 4}));
}

TEST(Profile, RoundTripsThroughJson)
{
    DeviceProfile p;
    p.speed = kplat::UsbSpeed::Full;
    p.macString = "001122334455";
    p.ntb.wNdpOutDivisor = 8;
    p.ntb.wNdpOutPayloadRemainder = 2;
    p.in.ndpPosition = ethsim::NdpPosition::BeforeDatagrams;
    p.rawDevice = ethsim::Bytes{18, 1};
    p.rawStrings[4] = ethsim::Bytes{4, 3, 'A', 0};
    p.extraStrings[7] = "seven";
    const std::string json = ethsim::ProfileToJson(p);
    DeviceProfile q = ParseProfile(json, "roundtrip");
    EXPECT_EQ(ethsim::ProfileToJson(q), json);
    EXPECT_EQ(q.speed, kplat::UsbSpeed::Full);
    EXPECT_EQ(q.macString, p.macString);
    EXPECT_EQ(q.ntb.wNdpOutPayloadRemainder, 2);
    EXPECT_EQ(q.rawDevice, p.rawDevice);
    EXPECT_EQ(q.rawStrings, p.rawStrings);
}

TEST(Profile, ErrorsNameFileFieldAndProblem)
{
    EXPECT_EQ(ErrorOf(R"({"ntbParameters": {"dwNtbInMaxSize": "big"}})"),
              "test.json: ntbParameters.dwNtbInMaxSize: expected an unsigned integer of at most 32 bits, got \"big\"");
    EXPECT_EQ(ErrorOf(R"({"ntbParameters": {"wNdpOutDivisor": 70000}})"),
              "test.json: ntbParameters.wNdpOutDivisor: expected an unsigned integer of at most 16 bits, got 70000");
    EXPECT_EQ(ErrorOf(R"({"ethernet": {"wMaxSegmentSize": -1}})"),
              "test.json: ethernet.wMaxSegmentSize: expected an unsigned integer of at most 16 bits, got -1");
    EXPECT_EQ(ErrorOf(R"({"ncm": {"bmNetworkCapabilties": 1}})"), "test.json: ncm.bmNetworkCapabilties: unknown field");
    EXPECT_EQ(ErrorOf(R"({"sped": "high"})"), "test.json: sped: unknown field");
    EXPECT_EQ(ErrorOf(R"({"speed": "warp"})"),
              "test.json: speed: expected \"full\", \"high\" or \"super\", got \"warp\"");
    EXPECT_EQ(ErrorOf(R"({"configuration": {"selfPowered": 1}})"),
              "test.json: configuration.selfPowered: expected true or false, got 1");
    EXPECT_EQ(ErrorOf(R"({"ethernet": {"macAddress": "02:00:00"}})"),
              "test.json: ethernet.macAddress: expected six bytes such as \"02:45:54:48:00:01\", got \"02:00:00\"");
    EXPECT_EQ(ErrorOf(R"({"raw": {"device": "12 0"}})"),
              "test.json: raw.device: expected hex bytes such as \"12 01 00 02\", got \"12 0\"");
    EXPECT_EQ(ErrorOf(R"({"strings": {"extra": {"0": "x"}}})"),
              "test.json: strings.extra.0: expected a string index from 1 to 255 as the key");
    EXPECT_EQ(ErrorOf(R"({"device": []})"), "test.json: device: expected an object, got []");
    EXPECT_EQ(ErrorOf(R"([1])"), "test.json: (top level): expected an object, got [1]");
    EXPECT_EQ(ErrorOf(R"({"endpoints": {"bulkOut": "0x81"}})"),
              "test.json: endpoints: notify and bulkIn need distinct IN addresses (0x81-0x8F), bulkOut an OUT "
              "address (0x01-0x0F)");
    EXPECT_EQ(ErrorOf(R"({"in": {"ndpCount": 0}})"), "test.json: in: maxDatagrams and ndpCount must be at least 1");
    const std::string syntax = ErrorOf("{\"speed\": \"high\",\n}");
    EXPECT_EQ(syntax.rfind("test.json: not valid JSON: ", 0), 0u) << syntax;
    EXPECT_NE(syntax.find("line 2"), std::string::npos) << syntax;
}
