// The device profile: its wire records and derived values, and reading it
// from JSON with every field checked (ParseProfile, LoadProfile). Writing it
// back as JSON is in profile_json.cpp.
#include "ethsim/profile.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

namespace ethsim {

using Json = nlohmann::json;

Bytes NtbParameters::Serialize() const
{
    Bytes b;
    Append16(b, wLength);
    Append16(b, bmNtbFormatsSupported);
    Append32(b, dwNtbInMaxSize);
    Append16(b, wNdpInDivisor);
    Append16(b, wNdpInPayloadRemainder);
    Append16(b, wNdpInAlignment);
    Append16(b, wReserved);
    Append32(b, dwNtbOutMaxSize);
    Append16(b, wNdpOutDivisor);
    Append16(b, wNdpOutPayloadRemainder);
    Append16(b, wNdpOutAlignment);
    Append16(b, wNtbOutMaxDatagrams);
    return b;
}

uint16_t DeviceProfile::BulkMaxPacket() const
{
    return bulkMaxPacket != 0 ? bulkMaxPacket : static_cast<uint16_t>(kplat::BulkMaxPacket(speed));
}

uint16_t DeviceProfile::UsbVersion() const
{
    if (bcdUSB != 0) {
        return bcdUSB;
    }
    return speed == kplat::UsbSpeed::Super ? 0x0320 : 0x0200;
}

uint8_t DeviceProfile::ControlMaxPacketField() const
{
    if (bMaxPacketSize0 != 0) {
        return bMaxPacketSize0;
    }
    // USB 3.2, 9.6.1: at super speed the field is an exponent (2^9 = 512).
    return speed == kplat::UsbSpeed::Super ? 9 : 64;
}

uint8_t DeviceProfile::NotifyIntervalField() const
{
    if (notifyInterval != 0) {
        return notifyInterval;
    }
    // 32 ms: in frames at full speed, 2^(bInterval-1) micro-frames above.
    return speed == kplat::UsbSpeed::Full ? 32 : 9;
}

std::string DeviceProfile::MacString() const
{
    if (macString) {
        return *macString;
    }
    std::string hex = ToHex(macAddress.data(), macAddress.size());
    std::string s;
    for (char c : hex) {
        if (c != ' ') {
            s.push_back(c);
        }
    }
    return s;
}

namespace {

std::string Describe(const Json& j)
{
    std::string s = j.dump();
    if (s.size() > 40) {
        s = s.substr(0, 37) + "...";
    }
    return s;
}

// One JSON object of the profile: reads its fields by name, remembers which
// were read, and reports fields that nobody asked for.
class Obj {
public:
    Obj(const std::string& origin, const Json& j, std::string path) : mOrigin(origin), mJson(j), mPath(std::move(path))
    {
        if (!j.is_object()) {
            Fail(mPath, "expected an object, got " + Describe(j));
        }
    }

    [[noreturn]] void Fail(const std::string& path, const std::string& what) const
    {
        throw ProfileError(mOrigin + ": " + (path.empty() ? std::string("(top level)") : path) + ": " + what);
    }

    std::string Path(const char* key) const { return mPath.empty() ? key : mPath + "." + key; }

    const Json* Get(const char* key)
    {
        mUsed.insert(key);
        auto it = mJson.find(key);
        return it == mJson.end() ? nullptr : &*it;
    }

    template <typename T>
    void Uint(const char* key, T* out)
    {
        const Json* j = Get(key);
        if (j != nullptr) {
            *out = ToUint<T>(*j, Path(key));
        }
    }

    template <typename T>
    T ToUint(const Json& j, const std::string& path) const
    {
        constexpr uint64_t max = std::numeric_limits<T>::max();
        const std::string expected =
            "expected an unsigned integer of at most " + std::to_string(sizeof(T) * 8) + " bits";
        uint64_t v = 0;
        if (j.is_number_unsigned()) {
            v = j.get<uint64_t>();
        } else if (j.is_number_integer()) {
            Fail(path, expected + ", got " + Describe(j));
        } else if (j.is_string()) {
            // Hex ("0x1D6B") or decimal text, for the fields that read
            // better in hex.
            const std::string s = j.get<std::string>();
            size_t used = 0;
            try {
                v = std::stoull(s, &used, 0);
            } catch (const std::exception&) {
                used = 0;
            }
            if (s.empty() || used != s.size() || s[0] == '-') {
                Fail(path, expected + ", got " + Describe(j));
            }
        } else {
            Fail(path, expected + ", got " + Describe(j));
        }
        if (v > max) {
            Fail(path, expected + ", got " + Describe(j));
        }
        return static_cast<T>(v);
    }

    void Bool(const char* key, bool* out)
    {
        const Json* j = Get(key);
        if (j != nullptr) {
            if (!j->is_boolean()) {
                Fail(Path(key), "expected true or false, got " + Describe(*j));
            }
            *out = j->get<bool>();
        }
    }

    void String(const char* key, std::string* out)
    {
        const Json* j = Get(key);
        if (j != nullptr) {
            if (!j->is_string()) {
                Fail(Path(key), "expected a string, got " + Describe(*j));
            }
            *out = j->get<std::string>();
        }
    }

    // Raw bytes as hex text; null removes the override.
    void OptionalHex(const char* key, std::optional<Bytes>* out)
    {
        const Json* j = Get(key);
        if (j == nullptr) {
            return;
        }
        if (j->is_null()) {
            out->reset();
            return;
        }
        *out = Hex(*j, Path(key));
    }

    Bytes Hex(const Json& j, const std::string& path) const
    {
        Bytes b;
        if (!j.is_string() || !ParseHex(j.get<std::string>(), &b)) {
            Fail(path, "expected hex bytes such as \"12 01 00 02\", got " + Describe(j));
        }
        return b;
    }

    std::optional<Obj> Sub(const char* key)
    {
        const Json* j = Get(key);
        if (j == nullptr) {
            return std::nullopt;
        }
        return Obj(mOrigin, *j, Path(key));
    }

    // Every field of the object must have been read.
    void Done() const
    {
        for (auto it = mJson.begin(); it != mJson.end(); ++it) {
            if (mUsed.count(it.key()) == 0) {
                Fail(Path(it.key().c_str()), "unknown field");
            }
        }
    }

    const Json& json() const { return mJson; }
    const std::string& origin() const { return mOrigin; }

private:
    const std::string& mOrigin;
    const Json& mJson;
    std::string mPath;
    std::set<std::string> mUsed;
};

uint8_t StringIndex(const Obj& o, const std::string& key, const std::string& path)
{
    size_t used = 0;
    unsigned long v = 0;
    try {
        v = std::stoul(key, &used, 0);
    } catch (const std::exception&) {
        used = 0;
    }
    if (key.empty() || used != key.size() || v == 0 || v > 255) {
        o.Fail(path, "expected a string index from 1 to 255 as the key");
    }
    return static_cast<uint8_t>(v);
}

void ReadSpeed(Obj& top, DeviceProfile* p)
{
    const Json* j = top.Get("speed");
    if (j == nullptr) {
        return;
    }
    std::string s = j->is_string() ? j->get<std::string>() : std::string();
    if (s == "full") {
        p->speed = kplat::UsbSpeed::Full;
    } else if (s == "high") {
        p->speed = kplat::UsbSpeed::High;
    } else if (s == "super") {
        p->speed = kplat::UsbSpeed::Super;
    } else {
        top.Fail("speed", "expected \"full\", \"high\" or \"super\", got " + Describe(*j));
    }
}

void ReadMac(Obj& o, DeviceProfile* p)
{
    const Json* j = o.Get("macAddress");
    if (j != nullptr) {
        Bytes b;
        if (!j->is_string() || !ParseHex(j->get<std::string>(), &b) || b.size() != 6) {
            o.Fail(o.Path("macAddress"), "expected six bytes such as \"02:45:54:48:00:01\", got " + Describe(*j));
        }
        std::copy(b.begin(), b.end(), p->macAddress.begin());
    }
    j = o.Get("macString");
    if (j != nullptr) {
        if (j->is_null()) {
            p->macString.reset();
        } else if (j->is_string()) {
            p->macString = j->get<std::string>();
        } else {
            o.Fail(o.Path("macString"), "expected a string or null, got " + Describe(*j));
        }
    }
}

void Apply(const Json& root, const std::string& origin, DeviceProfile* p)
{
    Obj top(origin, root, "");
    ReadSpeed(top, p);

    if (auto o = top.Sub("device")) {
        o->Uint("bcdUSB", &p->bcdUSB);
        o->Uint("bDeviceClass", &p->bDeviceClass);
        o->Uint("bDeviceSubClass", &p->bDeviceSubClass);
        o->Uint("bDeviceProtocol", &p->bDeviceProtocol);
        o->Uint("bMaxPacketSize0", &p->bMaxPacketSize0);
        o->Uint("idVendor", &p->idVendor);
        o->Uint("idProduct", &p->idProduct);
        o->Uint("bcdDevice", &p->bcdDevice);
        o->String("manufacturer", &p->manufacturer);
        o->String("product", &p->product);
        o->String("serialNumber", &p->serialNumber);
        o->Done();
    }
    if (auto o = top.Sub("configuration")) {
        o->Uint("bConfigurationValue", &p->bConfigurationValue);
        o->Bool("selfPowered", &p->selfPowered);
        o->Bool("remoteWakeup", &p->remoteWakeup);
        o->Uint("bMaxPower", &p->bMaxPower);
        o->Bool("interfaceAssociation", &p->interfaceAssociation);
        o->Done();
    }
    if (auto o = top.Sub("interfaces")) {
        o->Uint("communication", &p->communicationInterface);
        o->Uint("data", &p->dataInterface);
        o->Uint("communicationProtocol", &p->communicationProtocol);
        o->Uint("dataProtocol", &p->dataProtocol);
        o->Done();
        if (p->communicationInterface == p->dataInterface) {
            top.Fail("interfaces", "the communication and data interfaces need different numbers");
        }
    }
    if (auto o = top.Sub("endpoints")) {
        o->Uint("notify", &p->notifyEndpoint);
        o->Uint("bulkIn", &p->bulkInEndpoint);
        o->Uint("bulkOut", &p->bulkOutEndpoint);
        o->Uint("notifyMaxPacket", &p->notifyMaxPacket);
        o->Uint("notifyInterval", &p->notifyInterval);
        o->Uint("bulkMaxPacket", &p->bulkMaxPacket);
        o->Uint("bulkMaxBurst", &p->bulkMaxBurst);
        o->Done();
        const bool okNotify = (p->notifyEndpoint & 0x80) != 0 && (p->notifyEndpoint & 0x0F) != 0;
        const bool okIn = (p->bulkInEndpoint & 0x80) != 0 && (p->bulkInEndpoint & 0x0F) != 0;
        const bool okOut = (p->bulkOutEndpoint & 0x80) == 0 && (p->bulkOutEndpoint & 0x0F) != 0;
        if (!okNotify || !okIn || !okOut || (p->notifyEndpoint & 0x0F) == (p->bulkInEndpoint & 0x0F) ||
            (p->notifyEndpoint & 0x70) != 0 || (p->bulkInEndpoint & 0x70) != 0 || (p->bulkOutEndpoint & 0x70) != 0) {
            top.Fail("endpoints",
                     "notify and bulkIn need distinct IN addresses (0x81-0x8F), bulkOut an OUT address (0x01-0x0F)");
        }
        if (p->notifyMaxPacket == 0) {
            top.Fail("endpoints.notifyMaxPacket", "must not be 0");
        }
    }
    if (auto o = top.Sub("cdc")) {
        o->Uint("bcdCDC", &p->bcdCDC);
        o->Done();
    }
    if (auto o = top.Sub("ethernet")) {
        ReadMac(*o, p);
        o->Uint("iMACAddress", &p->iMACAddress);
        o->Uint("bmEthernetStatistics", &p->bmEthernetStatistics);
        o->Uint("wMaxSegmentSize", &p->wMaxSegmentSize);
        o->Uint("wNumberMCFilters", &p->wNumberMCFilters);
        o->Uint("bNumberPowerFilters", &p->bNumberPowerFilters);
        o->Done();
    }
    if (auto o = top.Sub("ncm")) {
        o->Uint("bcdNcmVersion", &p->bcdNcmVersion);
        o->Uint("bmNetworkCapabilities", &p->bmNetworkCapabilities);
        o->Uint("descriptorType", &p->ncmDescriptorType);
        o->Done();
    }
    if (auto o = top.Sub("ntbParameters")) {
        NtbParameters& n = p->ntb;
        o->Uint("wLength", &n.wLength);
        o->Uint("bmNtbFormatsSupported", &n.bmNtbFormatsSupported);
        o->Uint("dwNtbInMaxSize", &n.dwNtbInMaxSize);
        o->Uint("wNdpInDivisor", &n.wNdpInDivisor);
        o->Uint("wNdpInPayloadRemainder", &n.wNdpInPayloadRemainder);
        o->Uint("wNdpInAlignment", &n.wNdpInAlignment);
        o->Uint("wReserved", &n.wReserved);
        o->Uint("dwNtbOutMaxSize", &n.dwNtbOutMaxSize);
        o->Uint("wNdpOutDivisor", &n.wNdpOutDivisor);
        o->Uint("wNdpOutPayloadRemainder", &n.wNdpOutPayloadRemainder);
        o->Uint("wNdpOutAlignment", &n.wNdpOutAlignment);
        o->Uint("wNtbOutMaxDatagrams", &n.wNtbOutMaxDatagrams);
        o->Uint("answerLength", &p->ntbParametersAnswerLength);
        o->Done();
    }
    if (auto o = top.Sub("in")) {
        o->Uint("maxDatagrams", &p->in.maxDatagrams);
        o->Uint("ndpCount", &p->in.ndpCount);
        if (const Json* j = o->Get("ndpPosition")) {
            const std::string s = j->is_string() ? j->get<std::string>() : std::string();
            if (s == "after") {
                p->in.ndpPosition = NdpPosition::AfterDatagrams;
            } else if (s == "before") {
                p->in.ndpPosition = NdpPosition::BeforeDatagrams;
            } else {
                o->Fail(o->Path("ndpPosition"), "expected \"after\" or \"before\", got " + Describe(*j));
            }
        }
        o->Bool("zlp", &p->in.zlp);
        o->Uint("queueLimit", &p->in.queueLimit);
        o->Uint("payloadOffset", &p->in.payloadOffset);
        o->Bool("sequenceAlwaysZero", &p->in.sequenceAlwaysZero);
        o->Done();
        if (p->in.maxDatagrams == 0 || p->in.ndpCount == 0) {
            top.Fail("in", "maxDatagrams and ndpCount must be at least 1");
        }
    }
    if (auto o = top.Sub("checker")) {
        o->Uint("payloadOffset", &p->checker.payloadOffset);
        o->Bool("sequenceStartsAtZero", &p->checker.sequenceStartsAtZero);
        o->Bool("crcSignatureFollowsMode", &p->checker.crcSignatureFollowsMode);
        o->Done();
    }
    if (auto o = top.Sub("control")) {
        o->Bool("formatRequestsOnlyInAlt0", &p->formatRequestsOnlyInAlt0);
        o->Uint("minNtbInputSize", &p->minNtbInputSize);
        o->Done();
    }
    if (auto o = top.Sub("link")) {
        o->Bool("connected", &p->linkUp);
        o->Uint("downlinkBitRate", &p->downlinkBitRate);
        o->Uint("uplinkBitRate", &p->uplinkBitRate);
        o->Bool("speedBeforeConnection", &p->speedBeforeConnection);
        o->Done();
    }
    if (auto o = top.Sub("packetFilter")) {
        o->Bool("apply", &p->applyPacketFilter);
        o->Uint("initial", &p->initialPacketFilter);
        o->Done();
    }
    if (auto o = top.Sub("strings")) {
        if (const Json* j = o->Get("languages")) {
            if (!j->is_array()) {
                o->Fail(o->Path("languages"), "expected an array of language IDs, got " + Describe(*j));
            }
            std::vector<uint16_t> ids;
            for (size_t i = 0; i < j->size(); ++i) {
                ids.push_back(o->ToUint<uint16_t>((*j)[i], o->Path("languages") + "[" + std::to_string(i) + "]"));
            }
            p->languages = ids;
        }
        if (auto extra = o->Sub("extra")) {
            for (auto it = extra->json().begin(); it != extra->json().end(); ++it) {
                const std::string path = extra->Path(it.key().c_str());
                const uint8_t index = StringIndex(*extra, it.key(), path);
                if (!it->is_string()) {
                    extra->Fail(path, "expected a string, got " + Describe(*it));
                }
                p->extraStrings[index] = it->get<std::string>();
            }
        }
        o->Done();
    }
    if (auto o = top.Sub("raw")) {
        o->OptionalHex("device", &p->rawDevice);
        o->OptionalHex("configuration", &p->rawConfiguration);
        o->OptionalHex("deviceQualifier", &p->rawDeviceQualifier);
        o->OptionalHex("bos", &p->rawBos);
        if (auto strings = o->Sub("strings")) {
            for (auto it = strings->json().begin(); it != strings->json().end(); ++it) {
                const std::string path = strings->Path(it.key().c_str());
                // String 0, the language list, may be replaced too.
                if (it.key() == "0") {
                    p->rawStrings[0] = strings->Hex(*it, path);
                    continue;
                }
                p->rawStrings[StringIndex(*strings, it.key(), path)] = strings->Hex(*it, path);
            }
        }
        o->Done();
    }
    top.Done();
}

}  // namespace

DeviceProfile ParseProfile(const std::string& json, const std::string& origin, const DeviceProfile& base)
{
    Json root;
    try {
        root = Json::parse(json);
    } catch (const Json::parse_error& e) {
        // The library's message carries the line and column.
        throw ProfileError(origin + ": not valid JSON: " + e.what());
    }
    DeviceProfile p = base;
    Apply(root, origin, &p);
    return p;
}

DeviceProfile LoadProfile(const std::string& path, const DeviceProfile& base)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw ProfileError(path + ": cannot be opened");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseProfile(text.str(), path, base);
}

}  // namespace ethsim
