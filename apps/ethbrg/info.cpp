// `ethbrg info`: brings the adapter up on the simulated device and prints
// every OID the miniport supports with its decoded value, as a network tool
// would show them; `--params` lists the adapter parameters instead.
#include "info.h"

#include "packets.h"
#include "summary.h"

#include <knnames.h>

#include <cstdio>
#include <cstring>

namespace ethbrg {

namespace {

// OID_PNP_ENABLE_WAKE_UP flags (the driver itself only answers them).
constexpr uint32_t kWakeMagicPacket = 0x1;
constexpr uint32_t kWakePatternMatch = 0x2;
constexpr uint32_t kWakeLinkChange = 0x4;

uint32_t U32(const std::vector<uint8_t>& b)
{
    uint32_t v = 0;
    memcpy(&v, b.data(), std::min<size_t>(4, b.size()));
    return v;
}

std::string Flags(uint32_t value, const std::vector<std::pair<uint32_t, const char*>>& names)
{
    std::string s;
    for (const auto& [bit, name] : names) {
        if (value & bit) {
            s += (s.empty() ? "" : "|") + std::string(name);
            value &= ~bit;
        }
    }
    if (value) {
        char b[16];
        snprintf(b, sizeof(b), "0x%x", value);
        s += (s.empty() ? "" : "|") + std::string(b);
    }
    return s.empty() ? "none" : s;
}

const char* DeviceState(uint32_t s)
{
    static const char* names[] = {"unspecified", "D0", "D1", "D2", "D3"};
    return s < 5 ? names[s] : "?";
}

std::string Decode(NDIS_OID oid, const std::vector<uint8_t>& b)
{
    char t[128];
    const uint32_t v = U32(b);
    switch (oid) {
    case OID_802_3_PERMANENT_ADDRESS:
    case OID_802_3_CURRENT_ADDRESS:
        return b.size() == 6 ? MacText(b.data()) : "?";
    case OID_802_3_MULTICAST_LIST: {
        std::string s;
        for (size_t i = 0; i + 6 <= b.size(); i += 6) s += (s.empty() ? "" : " ") + MacText(&b[i]);
        return s.empty() ? "(empty)" : s;
    }
    case OID_GEN_VENDOR_DESCRIPTION:
        return "\"" + std::string(b.begin(), std::find(b.begin(), b.end(), 0)) + "\"";
    case OID_GEN_VENDOR_ID:
        snprintf(t, sizeof(t), "OUI %02X-%02X-%02X, NIC %u", b.size() > 0 ? b[0] : 0, b.size() > 1 ? b[1] : 0,
                 b.size() > 2 ? b[2] : 0, b.size() > 3 ? b[3] : 0);
        return t;
    case OID_GEN_DRIVER_VERSION:
        snprintf(t, sizeof(t), "NDIS %u.%u", (v >> 8) & 0xFF, v & 0xFF);
        return t;
    case OID_GEN_VENDOR_DRIVER_VERSION:
        snprintf(t, sizeof(t), "%u.%u", v >> 16, v & 0xFFFF);
        return t;
    case OID_GEN_LINK_SPEED:
        return FormatBitRate((uint64_t)v * 100);
    case OID_GEN_MEDIA_CONNECT_STATUS:
        return v == NdisMediaStateConnected ? "connected" : "disconnected";
    case OID_GEN_HARDWARE_STATUS: {
        static const char* names[] = {"ready", "initializing", "reset", "closing", "not ready"};
        return v < 5 ? names[v] : "?";
    }
    case OID_GEN_MEDIA_SUPPORTED:
    case OID_GEN_MEDIA_IN_USE:
        return NdMediumName(v);
    case OID_GEN_CURRENT_PACKET_FILTER:
        return Flags(v, {{NDIS_PACKET_TYPE_DIRECTED, "DIRECTED"},
                         {NDIS_PACKET_TYPE_MULTICAST, "MULTICAST"},
                         {NDIS_PACKET_TYPE_ALL_MULTICAST, "ALL_MULTICAST"},
                         {NDIS_PACKET_TYPE_BROADCAST, "BROADCAST"},
                         {NDIS_PACKET_TYPE_PROMISCUOUS, "PROMISCUOUS"}});
    case OID_GEN_MAC_OPTIONS:
        return Flags(v, {{NDIS_MAC_OPTION_COPY_LOOKAHEAD_DATA, "COPY_LOOKAHEAD_DATA"},
                         {NDIS_MAC_OPTION_RECEIVE_SERIALIZED, "RECEIVE_SERIALIZED"},
                         {NDIS_MAC_OPTION_TRANSFERS_NOT_PEND, "TRANSFERS_NOT_PEND"},
                         {NDIS_MAC_OPTION_NO_LOOPBACK, "NO_LOOPBACK"}});
    case OID_PNP_CAPABILITIES:
        if (b.size() < 16) return "?";
        snprintf(t, sizeof(t), "wake-up flags 0x%x, magic packet %s, pattern %s, link change %s", U32(b),
                 DeviceState(U32({b.begin() + 4, b.end()})), DeviceState(U32({b.begin() + 8, b.end()})),
                 DeviceState(U32({b.begin() + 12, b.end()})));
        return t;
    case OID_PNP_ENABLE_WAKE_UP:
        return Flags(v, {{kWakeMagicPacket, "MAGIC_PACKET"},
                         {kWakePatternMatch, "PATTERN_MATCH"},
                         {kWakeLinkChange, "LINK_CHANGE"}});
    case OID_PNP_QUERY_POWER:
        return "accepted";
    default:
        if (b.size() == 8) {
            uint64_t w;
            memcpy(&w, b.data(), 8);
            return std::to_string(w);
        }
        return b.size() == 4 ? std::to_string(v) : "(" + std::to_string(b.size()) + " bytes)";
    }
}

}  // namespace

int RunInfo(const InfoOptions& options)
{
    if (options.params) {
        printf("%-26s %10s  %-22s %s\n", "parameter", "default", "range", "meaning");
        for (const ParameterSpec& p : Parameters()) {
            std::string range = std::to_string(p.min) + ".." + std::to_string(p.max);
            printf("%-26s %10u  %-22s %s\n", p.name, p.defaultValue, range.c_str(), p.meaning);
        }
        printf("%-26s %10s  %-22s %s\n", "NetworkAddress", "(device)", "12 hex digits", "station address (unicast)");
        printf("%-26s %10s  %-22s %s\n", "VendorDescription", "\"NDIS Adapter\"", "127 characters",
               "vendor description answered to the stack");
        return 0;
    }
    Host host(options.common);
    NDIS_STATUS status = host.Plug();
    if (status != NDIS_STATUS_SUCCESS) {
        fprintf(stderr, "ethbrg: the adapter did not initialize: 0x%08lX %s\n", (unsigned long)status,
                NdisStatusText(status).c_str());
        return 1;
    }
    host.WaitFor([&] { return host.MediaConnected(); }, 2000);
    if (host.RealDevice()) {
        const kplat::LibusbDeviceStats t = host.Usb()->Stats();
        printf("device %s; NTB in/out %u/%u bytes\n", host.Usb()->Description().c_str(), t.ntbInSize, t.ntbOutSize);
    }
    std::vector<uint8_t> list;
    if (!host.QueryBytes(OID_GEN_SUPPORTED_LIST, &list)) {
        fprintf(stderr, "ethbrg: OID_GEN_SUPPORTED_LIST failed\n");
        return 1;
    }
    printf("%u supported OIDs\n", (unsigned)(list.size() / 4));
    for (size_t i = 0; i + 4 <= list.size(); i += 4) {
        NDIS_OID oid;
        memcpy(&oid, &list[i], 4);
        std::vector<uint8_t> value;
        std::string text;
        if (oid == OID_PNP_SET_POWER) {
            text = "(set only)";
        } else if (oid == OID_GEN_SUPPORTED_LIST) {
            text = std::to_string(list.size() / 4) + " OIDs";
        } else if (host.QueryBytes(oid, &value)) {
            text = Decode(oid, value);
        } else {
            text = "query refused";
        }
        printf("  %-32s 0x%08X  %s\n", NdOidName(oid), oid, text.c_str());
    }
    host.Shutdown();
    if (!host.Ledger().empty()) {
        fprintf(stderr, "ethbrg: pool blocks left after unload:\n%s", host.Ledger().c_str());
        return 1;
    }
    return 0;
}

}  // namespace ethbrg
