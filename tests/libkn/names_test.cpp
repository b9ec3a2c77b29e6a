// Tests of the name tables and the packet filter dump.
#include <gtest/gtest.h>

#include <string>

#include <kplat/platform.h>
#include <ndis.h>

#include "knnames.h"
#include "kntrace.h"

namespace {

class KnNtStatusNameTest : public ::testing::Test {};
class NdStatusNameTest : public ::testing::Test {};
class NdOidNameTest : public ::testing::Test {};
class NdEnumNameTest : public ::testing::Test {};
class KnUsbdStatusNameTest : public ::testing::Test {};

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

// ---------------------------------------------------------------------------
// NTSTATUS
// ---------------------------------------------------------------------------
TEST_F(KnNtStatusNameTest, KnownValues)
{
    EXPECT_STREQ(KnNtStatusName(STATUS_SUCCESS), "STATUS_SUCCESS");
    EXPECT_STREQ(KnNtStatusName(STATUS_UNSUCCESSFUL), "STATUS_UNSUCCESSFUL");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0xC0000001), "STATUS_UNSUCCESSFUL");
    EXPECT_STREQ(KnNtStatusName(STATUS_PENDING), "STATUS_PENDING");
    EXPECT_STREQ(KnNtStatusName(STATUS_TIMEOUT), "STATUS_TIMEOUT");
    EXPECT_STREQ(KnNtStatusName(STATUS_BUFFER_OVERFLOW), "STATUS_BUFFER_OVERFLOW");
    EXPECT_STREQ(KnNtStatusName(STATUS_INSUFFICIENT_RESOURCES), "STATUS_INSUFFICIENT_RESOURCES");
    EXPECT_STREQ(KnNtStatusName(STATUS_NOT_SUPPORTED), "STATUS_NOT_SUPPORTED");
    EXPECT_STREQ(KnNtStatusName(STATUS_INVALID_PARAMETER), "STATUS_INVALID_PARAMETER");
    EXPECT_STREQ(KnNtStatusName(STATUS_CANCELLED), "STATUS_CANCELLED");
    EXPECT_STREQ(KnNtStatusName(STATUS_DEVICE_NOT_CONNECTED), "STATUS_DEVICE_NOT_CONNECTED");
}

TEST_F(KnNtStatusNameTest, OtherFamilies)
{
    EXPECT_STREQ(KnNtStatusName(DBG_CONTINUE), "DBG_CONTINUE");
    EXPECT_STREQ(KnNtStatusName(RPC_NT_INVALID_BINDING), "RPC_NT_INVALID_BINDING");
    EXPECT_STREQ(KnNtStatusName(EPT_NT_NOT_REGISTERED), "EPT_NT_NOT_REGISTERED");
}

TEST_F(KnNtStatusNameTest, EndsOfTheTable)
{
    // Lowest value and the highest named value: the binary search reaches both.
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0x00000000), "STATUS_SUCCESS");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0xC03A0019), "STATUS_VHD_DIFFERENCING_CHAIN_ERROR_IN_PARENT");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0xC03A001A), "unknown");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0xFFFFFFFF), "unknown");
}

TEST_F(KnNtStatusNameTest, GapsAreUnknown)
{
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0x00000004), "unknown");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0x0000003E), "unknown");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0xDEAD0001), "unknown");
    EXPECT_STREQ(KnNtStatusName((NTSTATUS)0x80000000), "unknown");
}

TEST_F(KnNtStatusNameTest, ValueWithSeveralNamesKeepsTheFirstPublishedOne)
{
    // STATUS_WAIT_0 has the value of STATUS_SUCCESS.
    EXPECT_STREQ(KnNtStatusName(STATUS_WAIT_0), "STATUS_SUCCESS");
    // STATUS_ABANDONED_WAIT_0 has the value of STATUS_ABANDONED.
    EXPECT_STREQ(KnNtStatusName(STATUS_ABANDONED_WAIT_0), "STATUS_ABANDONED");
}

// ---------------------------------------------------------------------------
// NDIS status
// ---------------------------------------------------------------------------
TEST_F(NdStatusNameTest, Edges)
{
    EXPECT_STREQ(NdStatusName(0x103), "NDIS_STATUS_PENDING");
    EXPECT_STREQ(NdStatusName(0xC0011000u), "NDIS_STATUS_TOKEN_RING_OPEN_ERROR");
    EXPECT_STREQ(NdStatusName(0xC0010001u), "NDIS_STATUS_unknown");
}

TEST_F(NdStatusNameTest, ValuesSharedWithKernelStatus)
{
    EXPECT_STREQ(NdStatusName(NDIS_STATUS_SUCCESS), "NDIS_STATUS_SUCCESS");
    EXPECT_STREQ(NdStatusName(NDIS_STATUS_PENDING), "NDIS_STATUS_PENDING");
    EXPECT_STREQ(NdStatusName(NDIS_STATUS_FAILURE), "NDIS_STATUS_FAILURE");
    EXPECT_STREQ(NdStatusName(NDIS_STATUS_RESOURCES), "NDIS_STATUS_RESOURCES");
    EXPECT_STREQ(NdStatusName(0x80000005u), "NDIS_STATUS_BUFFER_OVERFLOW");
    EXPECT_STREQ(NdStatusName(0xC00000BBu), "NDIS_STATUS_NOT_SUPPORTED");
}

TEST_F(NdStatusNameTest, PublishedValues)
{
    EXPECT_STREQ(NdStatusName(0x00010001u), "NDIS_STATUS_NOT_RECOGNIZED");
    EXPECT_STREQ(NdStatusName(0x00010007u), "NDIS_STATUS_CALL_ACTIVE");
    EXPECT_STREQ(NdStatusName(0x4001000Bu), "NDIS_STATUS_MEDIA_CONNECT");
    EXPECT_STREQ(NdStatusName(0x4001000Cu), "NDIS_STATUS_MEDIA_DISCONNECT");
    EXPECT_STREQ(NdStatusName(0x40010012u), "NDIS_STATUS_WW_INDICATION");
    EXPECT_STREQ(NdStatusName(0x80010004u), "NDIS_STATUS_HARD_ERRORS");
    EXPECT_STREQ(NdStatusName(0xC0010017u), "NDIS_STATUS_INVALID_OID");
    EXPECT_STREQ(NdStatusName(0xC0010019u), "NDIS_STATUS_UNSUPPORTED_MEDIA");
    EXPECT_STREQ(NdStatusName(0xC0010027u), "NDIS_STATUS_INCOMPATABLE_QOS");
    EXPECT_STREQ(NdStatusName(0xC0010029u), "NDIS_STATUS_NO_ROUTE_TO_DESTINATION");
}

TEST_F(NdStatusNameTest, UnlistedValuesAreUnknown)
{
    EXPECT_STREQ(NdStatusName(0x40010013u), "NDIS_STATUS_unknown");  // link speed change: not listed
    EXPECT_STREQ(NdStatusName(0x80010002u), "NDIS_STATUS_unknown");
    EXPECT_STREQ(NdStatusName(0xC0010003u), "NDIS_STATUS_unknown");
    EXPECT_STREQ(NdStatusName(0xFFFFFFFFu), "NDIS_STATUS_unknown");
}

// ---------------------------------------------------------------------------
// OIDs
// ---------------------------------------------------------------------------
TEST_F(NdOidNameTest, GeneralOids)
{
    EXPECT_STREQ(NdOidName(0x00010101u), "OID_GEN_SUPPORTED_LIST");
    EXPECT_STREQ(NdOidName(0x0001010Eu), "OID_GEN_CURRENT_PACKET_FILTER");
    EXPECT_STREQ(NdOidName(0x00010114u), "OID_GEN_MEDIA_CONNECT_STATUS");
    EXPECT_STREQ(NdOidName(0x00010117u), "OID_GEN_SUPPORTED_GUIDS");
    EXPECT_STREQ(NdOidName(0x00010202u), "OID_GEN_PHYSICAL_MEDIUM");
    EXPECT_STREQ(NdOidName(0x0001021Cu), "OID_GEN_VLAN_ID");
    EXPECT_STREQ(NdOidName(0x0002020Eu), "OID_GEN_TRANSMIT_QUEUE_LENGTH");
}

TEST_F(NdOidNameTest, PowerAndOtherFamilies)
{
    EXPECT_STREQ(NdOidName(0xFD010100u), "OID_PNP_CAPABILITIES");
    EXPECT_STREQ(NdOidName(0xFD010101u), "OID_PNP_SET_POWER");
    EXPECT_STREQ(NdOidName(0xFD020201u), "OID_PNP_WAKE_UP_ERROR");
    EXPECT_STREQ(NdOidName(0xFC020211u), "OID_FFP_ADAPTER_STATS");
    EXPECT_STREQ(NdOidName(0x0D01011Cu), "OID_802_11_RELOAD_DEFAULTS");
    EXPECT_STREQ(NdOidName(0xFC010204u), "OID_TCP_SAN_SUPPORT");
}

TEST_F(NdOidNameTest, EthernetOids)
{
    EXPECT_STREQ(NdOidName(0x01010101u), "OID_802_3_PERMANENT_ADDRESS");
    EXPECT_STREQ(NdOidName(0x01010103u), "OID_802_3_MULTICAST_LIST");
    EXPECT_STREQ(NdOidName(0x01020207u), "OID_802_3_XMIT_LATE_COLLISIONS");
}

TEST_F(NdOidNameTest, UnknownOids)
{
    EXPECT_STREQ(NdOidName(0), "OID_unknown");
    EXPECT_STREQ(NdOidName(0x00010203u), "OID_unknown");  // a later NDIS OID, not listed
    EXPECT_STREQ(NdOidName(0x01010106u), "OID_unknown");
    EXPECT_STREQ(NdOidName(0xFFFFFFFFu), "OID_unknown");
}

// ---------------------------------------------------------------------------
// Medium, PnP event, power profile
// ---------------------------------------------------------------------------
TEST_F(NdEnumNameTest, Medium)
{
    EXPECT_STREQ(NdMediumName(0), "NdisMedium802_3");
    EXPECT_STREQ(NdMediumName(7), "NdisMediumArcnet878_2");
    EXPECT_STREQ(NdMediumName(13), "NdisMedium1394");
    EXPECT_STREQ(NdMediumName(14), "unknown");
    EXPECT_STREQ(NdMediumName(0xFFFFFFFFu), "unknown");
}

TEST_F(NdEnumNameTest, PnPEvent)
{
    EXPECT_STREQ(NdPnPEventName(0), "NdisDevicePnPEventQueryRemoved");
    EXPECT_STREQ(NdPnPEventName(2), "NdisDevicePnPEventSurpriseRemoved");
    EXPECT_STREQ(NdPnPEventName(5), "NdisDevicePnPEventPowerProfileChanged");
    EXPECT_STREQ(NdPnPEventName(6), "NdisDevicePnPEventMaximum");
    EXPECT_STREQ(NdPnPEventName(7), "unknown");
}

TEST_F(NdEnumNameTest, PowerProfile)
{
    EXPECT_STREQ(NdPowerProfileName(0), "NdisPowerProfileBattery");
    EXPECT_STREQ(NdPowerProfileName(1), "NdisPowerProfileAcOnLine");
    EXPECT_STREQ(NdPowerProfileName(2), "unknown");
    EXPECT_STREQ(NdPowerProfileName(0x80000000u), "unknown");
}

// ---------------------------------------------------------------------------
// USB status
// ---------------------------------------------------------------------------
TEST_F(KnUsbdStatusNameTest, PublishedMisspellings)
{
    EXPECT_STREQ(KnUsbdStatusName(0xC0000F00u), "USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR");
    EXPECT_STREQ(KnUsbdStatusName(0xC0005000u), "USBD_STATUS_INAVLID_PIPE_FLAGS");
}

TEST_F(KnUsbdStatusNameTest, KnownValues)
{
    EXPECT_STREQ(KnUsbdStatusName(0), "USBD_STATUS_SUCCESS");
    EXPECT_STREQ(KnUsbdStatusName(0x40000000u), "USBD_STATUS_PENDING");
    EXPECT_STREQ(KnUsbdStatusName(0xC0000004u), "USBD_STATUS_STALL_PID");
    EXPECT_STREQ(KnUsbdStatusName(0xC0000030u), "USBD_STATUS_ENDPOINT_HALTED");
    EXPECT_STREQ(KnUsbdStatusName(0x80000900u), "USBD_STATUS_ERROR_SHORT_TRANSFER");
    EXPECT_STREQ(KnUsbdStatusName(0xC0006000u), "USBD_STATUS_TIMEOUT");
    EXPECT_STREQ(KnUsbdStatusName(0xC0007000u), "USBD_STATUS_DEVICE_GONE");
    EXPECT_STREQ(KnUsbdStatusName(0xC0010000u), "USBD_STATUS_CANCELED");
    EXPECT_STREQ(KnUsbdStatusName(0xC0100009u), "USBD_STATUS_BAD_ENDPOINT_ADDRESS");
}

TEST_F(KnUsbdStatusNameTest, UnlistedValuesAreUnknown)
{
    EXPECT_STREQ(KnUsbdStatusName(0xC000000Eu), "unknown");  // a gap in the published values
    EXPECT_STREQ(KnUsbdStatusName(0xC0000014u), "unknown");  // published later, not listed
    EXPECT_STREQ(KnUsbdStatusName(0x80000500u), "unknown");
    EXPECT_STREQ(KnUsbdStatusName(0xC010000Au), "unknown");
}

// ---------------------------------------------------------------------------
// Packet filter dump
// ---------------------------------------------------------------------------
TEST_F(NdPacketFilterDumpTest, DirectedMulticastBroadcast)
{
    kplat::DebugCapture capture;
    NdDumpPacketFilter(0x0B);
    EXPECT_EQ(capture.Text(),
              "  PacketFilter 0x0000000B\n"
              "    NDIS_PACKET_TYPE_DIRECTED\n"
              "    NDIS_PACKET_TYPE_MULTICAST\n"
              "    NDIS_PACKET_TYPE_BROADCAST\n");
}

TEST_F(NdPacketFilterDumpTest, EmptyFilterPrintsOnlyTheFilterLine)
{
    kplat::DebugCapture capture;
    NdDumpPacketFilter(0);
    EXPECT_EQ(capture.Text(), "  PacketFilter 0x00000000\n");
}

TEST_F(NdPacketFilterDumpTest, AllBitsInTheirOrder)
{
    kplat::DebugCapture capture;
    NdDumpPacketFilter(0xFFFFFFFFu);
    EXPECT_EQ(capture.Text(),
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
              "    NDIS_PACKET_TYPE_GROUP\n");
}

TEST_F(NdPacketFilterDumpTest, OtherBitsPrintNothing)
{
    kplat::DebugCapture capture;
    NdDumpPacketFilter(0x0F00u | 0xFFFF0000u);
    EXPECT_EQ(capture.Text(), "  PacketFilter 0xFFFF0F00\n");
}

TEST_F(NdPacketFilterDumpTest, DumpTestsNoMaskBit)
{
    KnSetTraceMask(0);
    kplat::DebugCapture capture;
    NdDumpPacketFilter(0x20);
    EXPECT_EQ(capture.Text(), "  PacketFilter 0x00000020\n    NDIS_PACKET_TYPE_PROMISCUOUS\n");
}

}  // namespace
