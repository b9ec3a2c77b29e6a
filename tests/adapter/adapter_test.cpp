// The whole miniport on the simulated NCM function, seen from the stack:
// bring-up, frames both ways, VLAN, link and speed, hang and reset, halt,
// surprise removal, configuration limits and adapter numbering.
#include <gtest/gtest.h>

#include "kntrace.h"
#include "testbed.h"

using testbed::Bed;
using testbed::Bytes;
using testbed::Frame;
using testbed::Traits;

namespace {

size_t CountStatus(kplat::NdisAdapter& a, NDIS_STATUS s)
{
    size_t n = 0;
    for (NDIS_STATUS x : a.StatusIndications()) n += x == s;
    return n;
}

bool Logged(ULONG code, std::vector<ULONG> values)
{
    for (const auto& e : kplat::ErrorLog())
        if (e.code == code && e.values == values) return true;
    return false;
}

}  // namespace

TEST(Adapter, BringUpConnectsAndFramesOfEverySizeCrossBothWays)
{
    Bed bed;
    ASSERT_EQ(bed.Adapter().InitializeStatus(), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(bed.Adapter().AttributeFlags(), 0xA0u);
    EXPECT_EQ(bed.Adapter().HangCheckSeconds(), 2u);
    EXPECT_TRUE(Logged(0x60070100, {0}));
    EXPECT_EQ(CountStatus(bed.Adapter(), NDIS_STATUS_MEDIA_CONNECT), 1u);
    EXPECT_EQ(bed.QueryUlong(OID_GEN_MEDIA_CONNECT_STATUS), 0u);

    const ULONG maxFrame = bed.QueryUlong(OID_GEN_MAXIMUM_TOTAL_SIZE);
    ASSERT_EQ(maxFrame, 1514u);
    std::vector<Bytes> sent;
    for (size_t len = 14; len <= maxFrame; len++) sent.push_back(Frame(len, (uint32_t)len));
    for (size_t i = 0; i < sent.size(); i += 64) {
        bed.Send(std::vector<Bytes>(sent.begin() + i, sent.begin() + std::min(sent.size(), i + 64)));
    }
    EXPECT_EQ(bed.Adapter().PacketsCompletedWith(NDIS_STATUS_SUCCESS), sent.size());
    // Frames of 18 bytes or less come back as receive errors; the rest as sent.
    std::vector<Bytes> back = bed.Received();
    ASSERT_EQ(back.size(), sent.size() - 5);
    for (size_t i = 0; i < back.size(); i++) ASSERT_EQ(back[i], sent[i + 5]) << "frame " << i + 19;
    EXPECT_EQ(bed.Device().TotalViolations(), 0u) << bed.Device().ViolationReport();
}

TEST(Adapter, VlanTaggingFilteringAndStripping)
{
    struct Row {
        uint32_t enabled, id;
        bool sendTagged;       // the frame carries a tag with tagVid
        uint16_t tagVid;
        bool expectBack;       // indicated
        bool expectUntagged;   // indicated without a tag
        bool fromDevice;       // the device sends the frame instead of the stack
    };
    const Row rows[] = {
        {0, 0, false, 0, true, true, false},   // off: untouched
        {0, 5, true, 6, true, false, false},   // off: a tagged frame passes with its tag
        {1, 0, true, 9, true, true, false},    // on, no ID: every tag removed
        {1, 5, false, 0, true, true, false},   // on: tagged on the wire, taken back, removed
        {1, 5, true, 5, true, true, true},     // priority bits are ignored
        {1, 5, true, 6, false, false, true},   // another VLAN: dropped
    };
    for (const Row& r : rows) {
        Traits t;
        t.params = {{"VlanEnabled", r.enabled}, {"VlanID", r.id}};
        Bed bed(t);
        Bytes f = Frame(100, 7);
        if (r.sendTagged) {
            const uint8_t tag[4] = {0x81, 0x00, (uint8_t)(0x70 | r.tagVid >> 8), (uint8_t)r.tagVid};
            f.insert(f.begin() + 12, tag, tag + 4);
        }
        if (r.fromDevice) {
            bed.Device().OnFrame(f.data(), f.size());
            bed.Settle(50);
        } else {
            bed.Send({f});
        }
        std::vector<Bytes> back = bed.Received();
        SCOPED_TRACE(testing::Message() << "enabled " << r.enabled << " id " << r.id << " vid " << r.tagVid);
        ASSERT_EQ(back.size(), r.expectBack ? 1u : 0u);
        if (r.expectBack) {
            Bytes plain = f;
            if (r.expectUntagged && r.sendTagged) plain.erase(plain.begin() + 12, plain.begin() + 16);
            EXPECT_EQ(back[0], plain);
        }
    }
}

TEST(Adapter, LinkDownUpAndSpeedChangesAreIndicatedOnceAfter100ms)
{
    Bed bed;
    kplat::NdisAdapter& a = bed.Adapter();
    bed.Device().NotifySpeedChange(1000000000, 100000000);
    bed.Settle(99);
    EXPECT_EQ(CountStatus(a, NDIS_STATUS_MEDIA_CONNECT), 1u);
    bed.Settle(2);
    EXPECT_EQ(CountStatus(a, NDIS_STATUS_MEDIA_CONNECT), 2u);
    EXPECT_EQ(bed.QueryUlong(OID_GEN_LINK_SPEED), 10000000u);

    // Down and up within 100 ms: one indication with the final state.
    bed.Device().SetLink(false);
    bed.Device().SetLink(true);
    bed.Settle(200);
    EXPECT_EQ(CountStatus(a, NDIS_STATUS_MEDIA_DISCONNECT), 0u);
    bed.Device().SetLink(false);
    bed.Settle(200);
    EXPECT_EQ(CountStatus(a, NDIS_STATUS_MEDIA_DISCONNECT), 1u);
    EXPECT_EQ(bed.QueryUlong(OID_GEN_MEDIA_CONNECT_STATUS), 1u);
}

TEST(Adapter, StuckTransmitIsAHangAndTheResetBringsTrafficBack)
{
    Traits t;
    t.params = {{"TxTimeout", 1000}};
    Bed bed(t);
    bed.Device().NakEndpointFor(0x02, 60000);
    // Each frame takes one of the four transfer buffers; the fifth finds
    // none, waits in the queue and arms the watchdog anew.
    for (uint32_t i = 1; i <= 4; i++) bed.Send({Frame(200, i)}, 0);
    bed.Settle(500);
    bed.Send({Frame(200, 5)}, 999);
    EXPECT_FALSE(Logged(0xE0070304, {1}));
    bed.Settle(2);
    EXPECT_TRUE(Logged(0xE0070304, {1}));
    bed.Settle(2000);  // the hang check sees it and NDIS resets the adapter
    EXPECT_GE(bed.Adapter().Resets(), 1u);
    bed.Settle(60000);
    EXPECT_FALSE(bed.Adapter().ResetPending());
    EXPECT_EQ(bed.Adapter().LastResetStatus(), NDIS_STATUS_SUCCESS);
    EXPECT_EQ(bed.Adapter().PacketsOutstanding(), 0u);
    bed.Received();
    bed.Send({Frame(300, 4)});
    EXPECT_EQ(bed.Received().size(), 1u);
}

TEST(Adapter, AResetWhoseRestartFailsReportsAHardError)
{
    const struct {
        uint32_t stalls;  // control requests refused from the reset on
        NDIS_STATUS status;
    } rows[] = {{0, NDIS_STATUS_SUCCESS}, {100, NDIS_STATUS_HARD_ERRORS}};
    for (const auto& r : rows) {
        Bed bed;
        if (r.stalls != 0) bed.Device().StallNextControl(r.stalls);
        EXPECT_EQ(bed.Adapter().Reset(), NDIS_STATUS_PENDING);
        bed.Settle(5000);
        EXPECT_FALSE(bed.Adapter().ResetPending());
        EXPECT_EQ(bed.Adapter().LastResetStatus(), r.status) << r.stalls << " stalls";
    }
}

TEST(Adapter, HaltAndSurpriseRemovalCompleteEveryPacket)
{
    for (bool surprise : {false, true}) {
        Bed bed;
        bed.Device().NakEndpointFor(0x02, 60000);
        for (uint32_t i = 0; i < 40; i++) bed.Adapter().SendFrame(Frame(600, i).data(), 600);
        bed.Settle(10);
        if (surprise) {
            bed.Adapter().SurpriseRemove();
            EXPECT_EQ(CountStatus(bed.Adapter(), NDIS_STATUS_MEDIA_DISCONNECT), 1u);
        } else {
            bed.Adapter().Halt();
        }
        EXPECT_EQ(bed.Adapter().PacketsOutstanding(), 0u);
        EXPECT_EQ(bed.Adapter().PacketsCompleted(), 40u);
        bed.Unplug();
        bed.Driver().Unload();
        EXPECT_EQ(Bed::DriverLedger(), "") << (surprise ? "surprise removal" : "halt");
    }
}

TEST(Adapter, ConfigurationLimitsShowInTheAnswers)
{
    struct Row {
        const char* name;
        uint32_t value;
        NDIS_OID oid;
        ULONG expected;
    };
    const Row rows[] = {
        {"TxBuffers", 1, OID_GEN_MAXIMUM_SEND_PACKETS, 2},   {"TxBuffers", 200, OID_GEN_MAXIMUM_SEND_PACKETS, 128},
        {"TxBuffers", 7, OID_GEN_MAXIMUM_SEND_PACKETS, 7},   {"RxBuffers", 0, OID_GEN_RECEIVE_BUFFER_SPACE, 3000},
        {"RxBuffers", 300, OID_GEN_RECEIVE_BUFFER_SPACE, 192000},
        {"VlanID", 4095, OID_GEN_VLAN_ID, 4094},             {"VlanID", 4093, OID_GEN_VLAN_ID, 4093},
        {"VlanID", 5000, OID_GEN_VLAN_ID, 4094},             {"DefaultLinkSpeed", 12345, OID_GEN_LINK_SPEED, 12345},
        {"VlanEnabled", 1, OID_GEN_MAXIMUM_FRAME_SIZE, 1496}, {"VlanEnabled", 0, OID_GEN_MAXIMUM_FRAME_SIZE, 1500},
    };
    for (const Row& r : rows) {
        Traits t;
        t.params = {{r.name, r.value}};
        t.connect = false;
        Bed bed(t);
        EXPECT_EQ(bed.QueryUlong(r.oid), r.expected) << r.name << "=" << r.value;
    }
}

TEST(Adapter, TransferDataStaysInsideTheLargestFrame)
{
    struct Row {
        UINT offset, count;
        NDIS_STATUS status;
    };
    // The received frame carries 1500 bytes after its header, as many as the MTU.
    const Row rows[] = {{0, 1500, NDIS_STATUS_SUCCESS}, {1499, 1, NDIS_STATUS_SUCCESS},
                        {0, 1501, NDIS_STATUS_FAILURE}, {1, 1500, NDIS_STATUS_FAILURE},
                        {0xFFFFFFFFu, 2, NDIS_STATUS_FAILURE}};
    Bed bed;
    const Bytes frame = Frame(1514, 3);
    for (const Row& r : rows) {
        std::vector<uint8_t> room(r.count > 1500 ? 1 : r.count);
        PNDIS_PACKET packet = bed.Adapter().AllocatePacket(room.data(), room.size());
        NDIS_STATUS status = NDIS_STATUS_PENDING;
        UINT done = ~0u;
        bed.Adapter().OnReceive([&](NDIS_HANDLE context, const uint8_t*, UINT, const uint8_t*, UINT, UINT) {
            status = bed.Adapter().TransferData(context, r.offset, r.count, packet, &done);
        });
        bed.Device().OnFrame(frame.data(), frame.size());
        bed.Settle(50);
        SCOPED_TRACE(testing::Message() << "offset " << r.offset << " count " << r.count);
        EXPECT_EQ(status, r.status);
        if (r.status == NDIS_STATUS_SUCCESS) {
            EXPECT_EQ(done, r.count);
            EXPECT_EQ(kplat::NdisAdapter::PacketBytes(packet), Bytes(frame.begin() + 14 + r.offset,
                                                                      frame.begin() + 14 + r.offset + r.count));
        } else {
            EXPECT_EQ(done, 0u);
        }
        bed.Adapter().FreePacket(packet);
    }
}

TEST(Adapter, NetworkAddressFromTheRegistryIsTakenOnlyWhenUnicast)
{
    struct Row {
        const char* text;
        bool taken;
    };
    const Row rows[] = {{"02-11-22-33-44-55", true}, {"011122334455", false}, {"FFFFFFFFFFFF", false}};
    for (const Row& r : rows) {
        Traits t;
        t.registryText = std::string("[%ADAPTER%]\n\"NetworkAddress\"=\"") + r.text + "\"\n";
        t.connect = false;
        Bed bed(t);
        UCHAR current[6] = {}, permanent[6] = {};
        ULONG w, n;
        ASSERT_EQ(bed.Adapter().Query(OID_802_3_CURRENT_ADDRESS, current, 6, &w, &n), NDIS_STATUS_SUCCESS);
        ASSERT_EQ(bed.Adapter().Query(OID_802_3_PERMANENT_ADDRESS, permanent, 6, &w, &n), NDIS_STATUS_SUCCESS);
        EXPECT_EQ(current[0] == 0x02 && current[5] == 0x55, r.taken) << r.text;
        EXPECT_EQ(memcmp(current, permanent, 6) == 0, !r.taken) << r.text;
    }
}

TEST(Adapter, NumbersAreTheSmallestFreeAcrossAdapters)
{
    kplat::Scope scope;
    kplat::RegistryClear();
    kplat::ClearErrorLog();
    KnSetTraceMask(0);
    struct Slot {
        std::unique_ptr<ethsim::NcmDevice> device;
        std::unique_ptr<kplat::UsbBus> bus;
        std::unique_ptr<ethsim::ServiceTimer> service;
        std::unique_ptr<kplat::NdisAdapter> adapter;
    };
    kplat::NdisDriver driver(DriverEntry, testbed::kService);
    std::vector<Slot> slots(4);
    auto plug = [&](size_t i) {
        slots[i].device.reset(new ethsim::NcmDevice());
        slots[i].bus.reset(new kplat::UsbBus());
        slots[i].bus->Attach(slots[i].device.get());
        slots[i].service.reset(new ethsim::ServiceTimer(*slots[i].device));
        kplat::AdapterOptions o;
        o.parametersKey = kplat::AdapterKeyPath((unsigned)i);
        slots[i].adapter.reset(new kplat::NdisAdapter(driver, *slots[i].bus, o));
        ASSERT_TRUE(slots[i].adapter->IsInitialized());
    };
    plug(0), plug(1), plug(2);
    slots[1].adapter.reset();
    kplat::ClearErrorLog();
    plug(3);
    EXPECT_TRUE(Logged(0x60070100, {1}));
    for (Slot& s : slots) {
        s.adapter.reset();
        s.service.reset();
        s.bus.reset();
    }
}

TEST(Adapter, MediumArrayWithout802_3IsRefused)
{
    Traits t;
    t.plug = false;
    Bed bed(t);
    kplat::AdapterOptions o;
    o.parametersKey = Bed::AdapterKey();
    o.media = {NdisMediumFddi, NdisMediumWan};
    kplat::NdisAdapter a(bed.Driver(), bed.Bus(), o);
    EXPECT_EQ(a.InitializeStatus(), NDIS_STATUS_UNSUPPORTED_MEDIA);
    EXPECT_TRUE(Logged(0xC0010019, {}));
}
