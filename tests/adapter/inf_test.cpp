// ethbrg.inf against the driver: every parameter the driver reads from the
// adapter's key is declared there with the driver's default and range, the
// file declares nothing else, and the service key's TraceMask is the
// built-in mask.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>

#include "knpooltags.h"
#include "mpadapter.h"
#include "testbed.h"

using testbed::Bed;
using testbed::Traits;

namespace {

// One parameter of the file's Ndi\params.
struct InfParam {
    std::string type;  // int, dword, enum, edit
    std::string defaultValue;
    uint32_t min = 0;
    uint32_t max = UINT32_MAX;
    std::vector<uint32_t> values;  // enum values
    size_t limitText = 0;          // edit: characters
};

struct Inf {
    std::map<std::string, InfParam> params;
    std::string traceMask;
};

Inf ReadInf()
{
    std::ifstream file(ETHBRG_INF);
    EXPECT_TRUE(file.good()) << ETHBRG_INF;
    // HKR, <subkey>, <value name>, <flags>, <data>   ; comment
    const std::regex line(R"(^\s*HKR\s*,\s*([^,]*?)\s*,\s*([^,]*?)\s*,\s*[^,]*?\s*,\s*("[^"]*"|[^;\s]*))");
    const std::regex param(R"(^Ndi\\params\\([^\\]+)(\\enum)?$)");
    Inf inf;
    std::string text;
    std::smatch m, p;
    while (std::getline(file, text)) {
        if (!std::regex_search(text, m, line)) continue;
        std::string key = m[1], name = m[2], data = m[3];
        if (data.size() >= 2 && data.front() == '"') data = data.substr(1, data.size() - 2);
        if (name.size() >= 2 && name.front() == '"') name = name.substr(1, name.size() - 2);
        if (key.empty() && name == "TraceMask") inf.traceMask = data;
        if (!std::regex_match(key, p, param)) continue;
        InfParam& q = inf.params[p[1]];
        if (p[2].matched) {
            q.values.push_back((uint32_t)std::stoul(name));
        } else if (name == "type") {
            q.type = data;
        } else if (name == "default") {
            q.defaultValue = data;
        } else if (name == "min") {
            q.min = (uint32_t)std::stoul(data);
        } else if (name == "max") {
            q.max = (uint32_t)std::stoul(data);
        } else if (name == "LimitText") {
            q.limitText = std::stoul(data);
        }
    }
    return inf;
}

// A second miniport on the stand-in with the driver's handlers, except that
// its initialize handler keeps what the driver's adapter read from the
// registry (the bring-up after it fails: the bus has no device) and fails.
const NDIS51_MINIPORT_CHARACTERISTICS* gDriverHandlers;
AdapterConfig gRead;
std::string gVendorDescription;

NDIS_STATUS NTAPI ProbeInitialize(PNDIS_STATUS, PUINT selected, PNDIS_MEDIUM, UINT, NDIS_HANDLE adapterHandle,
                                  NDIS_HANDLE wrapperConfigurationContext)
{
    *selected = 0;
    MpAdapter* adapter = new (NonPagedPool, KN_POOL_TAG_ADAPTER) MpAdapter(adapterHandle);
    adapter->Initialize(wrapperConfigurationContext);
    gRead = adapter->GetConfig();
    gVendorDescription = gMpVendorDescription;
    delete adapter;
    return NDIS_STATUS_FAILURE;
}

NTSTATUS ProbeEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    NDIS_HANDLE wrapper;
    NdisInitializeWrapper(&wrapper, driverObject, registryPath, NULL);
    NDIS51_MINIPORT_CHARACTERISTICS chars = *gDriverHandlers;
    chars.Ndis50Chars.Ndis40Chars.Ndis30Chars.InitializeHandler = ProbeInitialize;
    return NdisMRegisterMiniport(wrapper, &chars, sizeof(chars));
}

// Lets an adapter read `registry` (text for the adapter's key) and returns
// what it read.
AdapterConfig Read(Bed& bed, kplat::NdisDriver& probe, const std::string& registry)
{
    kplat::RegistryClear();
    kplat::RegistryLoadText("[" + Bed::AdapterKey() + "]\n" + registry);
    kplat::AdapterOptions options;
    options.parametersKey = Bed::AdapterKey();
    kplat::NdisAdapter adapter(probe, bed.Bus(), options);
    return gRead;
}

std::string Dword(const std::string& name, uint32_t value)
{
    return "\"" + name + "\"=dword:" + Bed::Hex(value) + "\n";
}

}  // namespace

TEST(Inf, DeclaresWhatTheDriverReadsWithItsDefaultsAndRanges)
{
    const Inf inf = ReadInf();
    ASSERT_FALSE(inf.traceMask.empty());
    EXPECT_EQ(std::stoul(inf.traceMask, nullptr, 0), (unsigned long)KN_TRACE_MASK_DEFAULT);

    Traits t;
    t.attach = false;
    t.plug = false;
    t.traceMask = KN_TRACE_INFO;
    Bed bed(t);
    gDriverHandlers = &bed.Driver().Characteristics();
    kplat::NdisDriver probe(ProbeEntry, "ethbrgprobe");
    ASSERT_TRUE(probe.IsRegistered());

    // The names: each read of an absent value is traced; the network address
    // is NetworkAddress, read by NdisReadNetworkAddress.
    std::set<std::string> read = {"NetworkAddress"};
    {
        kplat::DebugCapture capture;
        Read(bed, probe, "");
        const std::string text = capture.Text();
        const std::regex absent("Config parameter '([^']*)' does not exist");
        for (std::sregex_iterator i(text.begin(), text.end(), absent), end; i != end; ++i) read.insert((*i)[1]);
    }
    std::set<std::string> declared;
    for (const auto& p : inf.params) declared.insert(p.first);
    EXPECT_EQ(declared, read);
    KnSetTraceMask(0);

    // The values: the default is what the driver holds when the value is
    // absent; values in the range are kept, values beyond it are held to it.
    // RxMeasurementPeriod counts only with a transmit period.
    const struct {
        const char* name;
        ULONG AdapterConfig::*member;
        const char* with;
    } rows[] = {
        {"RxBuffers", &AdapterConfig::RxBuffers, ""},
        {"TxBuffers", &AdapterConfig::TxBuffers, ""},
        {"OneByteTermination", &AdapterConfig::OneByteTermination, ""},
        {"ConfigurationIndex", &AdapterConfig::ConfigurationIndex, ""},
        {"SendClearEpHaltOnStart", &AdapterConfig::SendClearEpHaltOnStart, ""},
        {"StatisticsUpdateInterval", &AdapterConfig::StatisticsUpdateInterval, ""},
        {"TxTimeout", &AdapterConfig::TxTimeout, ""},
        {"*WakeOnMagicPacket", &AdapterConfig::WakeOnMagicPacket, ""},
        {"PnPCapabilities", &AdapterConfig::PnPCapabilities, ""},
        {"DefaultLinkSpeed", &AdapterConfig::DefaultLinkSpeed, ""},
        {"VlanID", &AdapterConfig::VlanID, ""},
        {"VlanEnabled", &AdapterConfig::VlanEnabled, ""},
        {"NcmTxPeriod", &AdapterConfig::NcmTxPeriod, ""},
        {"TputThreshold", &AdapterConfig::TputThreshold, ""},
        {"TputHysteresis", &AdapterConfig::TputHysteresis, ""},
        {"RxMeasurementPeriod", &AdapterConfig::RxMeasurementPeriod, "\"NcmTxPeriod\"=dword:00000001\n"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        ASSERT_TRUE(inf.params.count(r.name));
        const InfParam& q = inf.params.at(r.name);
        EXPECT_EQ(q.defaultValue, std::to_string(Read(bed, probe, r.with).*r.member));
        std::vector<std::pair<uint32_t, uint32_t>> probes;  // value written, value held
        if (q.type == "enum") {
            for (uint32_t v : q.values) probes.push_back({v, v});
        } else {
            probes = {{q.min, q.min}, {q.max, q.max}};
            if (q.min > 0) probes.push_back({q.min - 1, q.min});
            if (q.max < UINT32_MAX) probes.push_back({q.max + 1, q.max});
        }
        for (const auto& v : probes) {
            EXPECT_EQ(Read(bed, probe, r.with + Dword(r.name, v.first)).*r.member, v.second) << v.first;
        }
    }

    // The vendor description: the default is the driver's until a value is
    // read; LimitText characters are kept, no more.
    ASSERT_TRUE(inf.params.count("VendorDescription"));
    const InfParam& vendor = inf.params.at("VendorDescription");
    EXPECT_EQ(vendor.defaultValue, gMpVendorDescription);
    for (size_t length : {vendor.limitText, vendor.limitText + 1}) {
        Read(bed, probe, "\"VendorDescription\"=\"" + std::string(length, 'v') + "\"\n");
        EXPECT_EQ(gVendorDescription, std::string(vendor.limitText, 'v')) << length;
    }
}
