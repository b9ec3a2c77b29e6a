// The device profile written as JSON (ProfileToJson), in the form
// ParseProfile reads, so that a profile round-trips through a file.
#include "ethsim/profile.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>

namespace ethsim {

using Json = nlohmann::json;

std::string ProfileToJson(const DeviceProfile& p)
{
    auto hex = [](uint32_t v, int digits) {
        char buf[16];
        std::snprintf(buf, sizeof buf, "0x%0*X", digits, v);
        return std::string(buf);
    };
    auto hex8 = [&hex](uint32_t v) { return hex(v, 2); };
    auto hex16 = [&hex](uint32_t v) { return hex(v, 4); };
    std::string mac;
    for (uint8_t b : p.macAddress) {
        char buf[4];
        std::snprintf(buf, sizeof buf, "%02X", b);
        mac += (mac.empty() ? "" : ":") + std::string(buf);
    }
    Json j;
    j["speed"] = p.speed == kplat::UsbSpeed::Full ? "full" : p.speed == kplat::UsbSpeed::High ? "high" : "super";
    j["device"] = {{"bcdUSB", hex16(p.bcdUSB)},
                   {"bDeviceClass", p.bDeviceClass},
                   {"bDeviceSubClass", p.bDeviceSubClass},
                   {"bDeviceProtocol", p.bDeviceProtocol},
                   {"bMaxPacketSize0", p.bMaxPacketSize0},
                   {"idVendor", hex16(p.idVendor)},
                   {"idProduct", hex16(p.idProduct)},
                   {"bcdDevice", hex16(p.bcdDevice)},
                   {"manufacturer", p.manufacturer},
                   {"product", p.product},
                   {"serialNumber", p.serialNumber}};
    j["configuration"] = {{"bConfigurationValue", p.bConfigurationValue},
                          {"selfPowered", p.selfPowered},
                          {"remoteWakeup", p.remoteWakeup},
                          {"bMaxPower", p.bMaxPower},
                          {"interfaceAssociation", p.interfaceAssociation}};
    j["interfaces"] = {{"communication", p.communicationInterface},
                       {"data", p.dataInterface},
                       {"communicationProtocol", p.communicationProtocol},
                       {"dataProtocol", p.dataProtocol}};
    j["endpoints"] = {{"notify", hex8(p.notifyEndpoint)},   {"bulkIn", hex8(p.bulkInEndpoint)},
                      {"bulkOut", hex8(p.bulkOutEndpoint)}, {"notifyMaxPacket", p.notifyMaxPacket},
                      {"notifyInterval", p.notifyInterval},  {"bulkMaxPacket", p.bulkMaxPacket},
                      {"bulkMaxBurst", p.bulkMaxBurst}};
    j["cdc"] = {{"bcdCDC", hex16(p.bcdCDC)}};
    j["ethernet"] = {{"macAddress", mac},
                     {"macString", p.macString ? Json(*p.macString) : Json(nullptr)},
                     {"iMACAddress", p.iMACAddress},
                     {"bmEthernetStatistics", hex(p.bmEthernetStatistics, 8)},
                     {"wMaxSegmentSize", p.wMaxSegmentSize},
                     {"wNumberMCFilters", p.wNumberMCFilters},
                     {"bNumberPowerFilters", p.bNumberPowerFilters}};
    j["ncm"] = {{"bcdNcmVersion", hex16(p.bcdNcmVersion)},
                {"bmNetworkCapabilities", hex8(p.bmNetworkCapabilities)},
                {"descriptorType", hex8(p.ncmDescriptorType)}};
    const NtbParameters& n = p.ntb;
    j["ntbParameters"] = {{"wLength", n.wLength},
                          {"bmNtbFormatsSupported", hex16(n.bmNtbFormatsSupported)},
                          {"dwNtbInMaxSize", n.dwNtbInMaxSize},
                          {"wNdpInDivisor", n.wNdpInDivisor},
                          {"wNdpInPayloadRemainder", n.wNdpInPayloadRemainder},
                          {"wNdpInAlignment", n.wNdpInAlignment},
                          {"wReserved", n.wReserved},
                          {"dwNtbOutMaxSize", n.dwNtbOutMaxSize},
                          {"wNdpOutDivisor", n.wNdpOutDivisor},
                          {"wNdpOutPayloadRemainder", n.wNdpOutPayloadRemainder},
                          {"wNdpOutAlignment", n.wNdpOutAlignment},
                          {"wNtbOutMaxDatagrams", n.wNtbOutMaxDatagrams},
                          {"answerLength", p.ntbParametersAnswerLength}};
    j["in"] = {{"maxDatagrams", p.in.maxDatagrams},
               {"ndpCount", p.in.ndpCount},
               {"ndpPosition", p.in.ndpPosition == NdpPosition::AfterDatagrams ? "after" : "before"},
               {"zlp", p.in.zlp},
               {"queueLimit", p.in.queueLimit},
               {"payloadOffset", p.in.payloadOffset},
               {"sequenceAlwaysZero", p.in.sequenceAlwaysZero}};
    j["checker"] = {{"payloadOffset", p.checker.payloadOffset},
                    {"sequenceStartsAtZero", p.checker.sequenceStartsAtZero},
                    {"crcSignatureFollowsMode", p.checker.crcSignatureFollowsMode}};
    j["control"] = {{"formatRequestsOnlyInAlt0", p.formatRequestsOnlyInAlt0}, {"minNtbInputSize", p.minNtbInputSize}};
    j["link"] = {{"connected", p.linkUp},
                 {"downlinkBitRate", p.downlinkBitRate},
                 {"uplinkBitRate", p.uplinkBitRate},
                 {"speedBeforeConnection", p.speedBeforeConnection}};
    j["packetFilter"] = {{"apply", p.applyPacketFilter}, {"initial", hex16(p.initialPacketFilter)}};
    Json extra = Json::object();
    for (const auto& [index, text] : p.extraStrings) {
        extra[std::to_string(index)] = text;
    }
    j["strings"] = {{"languages", p.languages}, {"extra", extra}};
    Json raw = Json::object();
    auto optHex = [](const std::optional<Bytes>& b) { return b ? Json(ToHex(*b)) : Json(nullptr); };
    raw["device"] = optHex(p.rawDevice);
    raw["configuration"] = optHex(p.rawConfiguration);
    raw["deviceQualifier"] = optHex(p.rawDeviceQualifier);
    raw["bos"] = optHex(p.rawBos);
    Json rawStrings = Json::object();
    for (const auto& [index, bytes] : p.rawStrings) {
        rawStrings[std::to_string(index)] = ToHex(bytes);
    }
    raw["strings"] = rawStrings;
    j["raw"] = raw;
    return j.dump(2) + "\n";
}

}  // namespace ethsim
