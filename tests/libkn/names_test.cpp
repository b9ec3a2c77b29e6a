// Tests of the name tables and the packet filter dump.
#include <gtest/gtest.h>

#include <string>

#include <kplat/platform.h>
#include <ndis.h>

#include "knnames.h"
#include "kntrace.h"

namespace {

// One table for every name lookup: the lookup, the value, the expected name.
TEST(KnNameLookupTest, Table)
{
    struct Case {
        const char* (*lookup)(ULONG);
        ULONG value;
        const char* name;
    };
    auto nt = [](ULONG v) { return KnNtStatusName((NTSTATUS)v); };
    auto nd = [](ULONG v) { return NdStatusName(v); };
    auto oid = [](ULONG v) { return NdOidName(v); };
    auto medium = [](ULONG v) { return NdMediumName(v); };
    auto pnp = [](ULONG v) { return NdPnPEventName(v); };
    auto power = [](ULONG v) { return NdPowerProfileName(v); };
    auto usbd = [](ULONG v) { return KnUsbdStatusName(v); };
    const Case cases[] = {
        // Kernel status: ends of the table (binary search), other families,
        // gaps, a value with several names keeps the first published one.
        {nt, 0x00000000u, "STATUS_SUCCESS"},
        {nt, (ULONG)STATUS_UNSUCCESSFUL, "STATUS_UNSUCCESSFUL"},
        {nt, (ULONG)STATUS_PENDING, "STATUS_PENDING"},
        {nt, (ULONG)STATUS_INSUFFICIENT_RESOURCES, "STATUS_INSUFFICIENT_RESOURCES"},
        {nt, (ULONG)STATUS_DEVICE_NOT_CONNECTED, "STATUS_DEVICE_NOT_CONNECTED"},
        {nt, (ULONG)DBG_CONTINUE, "DBG_CONTINUE"},
        {nt, (ULONG)RPC_NT_INVALID_BINDING, "RPC_NT_INVALID_BINDING"},
        {nt, (ULONG)EPT_NT_NOT_REGISTERED, "EPT_NT_NOT_REGISTERED"},
        {nt, 0xC03A0019u, "STATUS_VHD_DIFFERENCING_CHAIN_ERROR_IN_PARENT"},
        {nt, 0xC03A001Au, "unknown"},
        {nt, 0xFFFFFFFFu, "unknown"},
        {nt, 0x00000004u, "unknown"},
        {nt, 0x80000000u, "unknown"},
        {nt, (ULONG)STATUS_ABANDONED_WAIT_0, "STATUS_ABANDONED"},
        // NDIS status: values shared with kernel status, edges, unlisted.
        {nd, (ULONG)NDIS_STATUS_SUCCESS, "NDIS_STATUS_SUCCESS"},
        {nd, (ULONG)NDIS_STATUS_PENDING, "NDIS_STATUS_PENDING"},
        {nd, (ULONG)NDIS_STATUS_RESOURCES, "NDIS_STATUS_RESOURCES"},
        {nd, 0x80000005u, "NDIS_STATUS_BUFFER_OVERFLOW"},
        {nd, 0x00010001u, "NDIS_STATUS_NOT_RECOGNIZED"},
        {nd, 0x4001000Bu, "NDIS_STATUS_MEDIA_CONNECT"},
        {nd, 0xC0010017u, "NDIS_STATUS_INVALID_OID"},
        {nd, 0xC0010027u, "NDIS_STATUS_INCOMPATABLE_QOS"},
        {nd, 0xC0011000u, "NDIS_STATUS_TOKEN_RING_OPEN_ERROR"},
        {nd, 0xC0010001u, "NDIS_STATUS_unknown"},
        {nd, 0x40010013u, "NDIS_STATUS_unknown"},
        {nd, 0xFFFFFFFFu, "NDIS_STATUS_unknown"},
        // OIDs.
        {oid, 0x00010101u, "OID_GEN_SUPPORTED_LIST"},
        {oid, 0x0001010Eu, "OID_GEN_CURRENT_PACKET_FILTER"},
        {oid, 0x0002020Eu, "OID_GEN_TRANSMIT_QUEUE_LENGTH"},
        {oid, 0xFD010101u, "OID_PNP_SET_POWER"},
        {oid, 0xFC020211u, "OID_FFP_ADAPTER_STATS"},
        {oid, 0x0D01011Cu, "OID_802_11_RELOAD_DEFAULTS"},
        {oid, 0xFC010204u, "OID_TCP_SAN_SUPPORT"},
        {oid, 0x01010103u, "OID_802_3_MULTICAST_LIST"},
        {oid, 0x01020207u, "OID_802_3_XMIT_LATE_COLLISIONS"},
        {oid, 0u, "OID_unknown"},
        {oid, 0x00010203u, "OID_unknown"},
        {oid, 0xFFFFFFFFu, "OID_unknown"},
        // Enumerations: first, last, one past the last.
        {medium, 0, "NdisMedium802_3"},
        {medium, 13, "NdisMedium1394"},
        {medium, 14, "unknown"},
        {medium, 0xFFFFFFFFu, "unknown"},
        {pnp, 0, "NdisDevicePnPEventQueryRemoved"},
        {pnp, 6, "NdisDevicePnPEventMaximum"},
        {pnp, 7, "unknown"},
        {power, 0, "NdisPowerProfileBattery"},
        {power, 1, "NdisPowerProfileAcOnLine"},
        {power, 2, "unknown"},
        // USB status, with the published misspellings.
        {usbd, 0xC0000F00u, "USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR"},
        {usbd, 0xC0005000u, "USBD_STATUS_INAVLID_PIPE_FLAGS"},
        {usbd, 0u, "USBD_STATUS_SUCCESS"},
        {usbd, 0x80000900u, "USBD_STATUS_ERROR_SHORT_TRANSFER"},
        {usbd, 0xC0010000u, "USBD_STATUS_CANCELED"},
        {usbd, 0xC0100009u, "USBD_STATUS_BAD_ENDPOINT_ADDRESS"},
        {usbd, 0xC000000Eu, "unknown"},
        {usbd, 0xC0000014u, "unknown"},
        {usbd, 0xC010000Au, "unknown"},
    };
    for (const Case& c : cases) EXPECT_STREQ(c.lookup(c.value), c.name) << std::hex << "value 0x" << c.value;
}

class NdPacketFilterDumpTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }
    kplat::Scope mScope;
    ULONG mSavedMask = 0;
};

TEST_F(NdPacketFilterDumpTest, Table)
{
    KnSetTraceMask(0);  // the dump does not test the mask
    const struct {
        ULONG filter;
        const char* text;
    } cases[] = {
        {0, "  PacketFilter 0x00000000\n"},
        {0x0F00u | 0xFFFF0000u, "  PacketFilter 0xFFFF0F00\n"},
        {0x0B,
         "  PacketFilter 0x0000000B\n"
         "    NDIS_PACKET_TYPE_DIRECTED\n"
         "    NDIS_PACKET_TYPE_MULTICAST\n"
         "    NDIS_PACKET_TYPE_BROADCAST\n"},
        {0xFFFFFFFFu,
         "  PacketFilter 0xFFFFFFFF\n"
         "    NDIS_PACKET_TYPE_DIRECTED\n"
         "    NDIS_PACKET_TYPE_MULTICAST\n"
         "    NDIS_PACKET_TYPE_ALL_MULTICAST\n"
         "    NDIS_PACKET_TYPE_BROADCAST\n"
         "    NDIS_PACKET_TYPE_SOURCE_ROUTING\n"
         "    NDIS_PACKET_TYPE_PROMISCUOUS\n"
         "    NDIS_PACKET_TYPE_SMT\n"
         "    NDIS_PACKET_TYPE_ALL_LOCAL\n"
         "    NDIS_PACKET_TYPE_MAC_FRAME\n"
         "    NDIS_PACKET_TYPE_FUNCTIONAL\n"
         "    NDIS_PACKET_TYPE_ALL_FUNCTIONAL\n"
         "    NDIS_PACKET_TYPE_GROUP\n"},
    };
    for (const auto& c : cases) {
        kplat::DebugCapture capture;
        NdDumpPacketFilter(c.filter);
        EXPECT_EQ(capture.Text(), c.text);
    }
}

}  // namespace
