// The device control on the simulated function: what Init takes from the
// descriptors and the NTB parameters (and what it repairs or refuses), the
// requests of Start, notifications, packet filter and statistics, and the
// streams' answers to errors, stops and removal.
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include <ethsim/descriptors.h>

#include "testbed.h"

using ethsim::DeviceProfile;
using testbed::Bed;
using testbed::Frame;
using testbed::Layer;
using testbed::Traits;
using Peer = DeviceContNcmPeer;

namespace {

Traits Control(std::function<void(DeviceProfile&)> change = nullptr, bool plug = true)
{
    Traits t;
    t.layer = Layer::Control;
    t.plug = plug;
    t.traceMask = KN_TRACE_ERROR | KN_TRACE_WARNING | KN_TRACE_INFO;
    if (change) change(t.profile);
    return t;
}

constexpr uint8_t kBulkIn = 0x82, kBulkOut = 0x02;

TEST(Init, TakesRepairsOrRefusesWhatTheDeviceReports)
{
    struct Row {
        const char* what;
        std::function<void(DeviceProfile&)> change;
        NTSTATUS status;
        bool ntb32;
        ULONG in, out, alignment, divisor, remainder, maxTx;
    };
    const NTSTATUS kFail = STATUS_UNSUCCESSFUL;
    const Row rows[] = {
        {"default", nullptr, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 0, 169},
        {"NTB16 only", [](DeviceProfile& p) { p.ntb.bmNtbFormatsSupported = 1; }, STATUS_SUCCESS, false, 16384, 16384, 4, 4, 0, 169},
        {"alignment 2, divisor 0", [](DeviceProfile& p) { p.ntb.wNdpOutAlignment = 2; p.ntb.wNdpOutDivisor = 0; },
         STATUS_SUCCESS, true, 16384, 16384, 4, 1, 0, 169},
        {"remainder 6 of 4", [](DeviceProfile& p) { p.ntb.wNdpOutPayloadRemainder = 6; }, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 2, 169},
        {"remainder 4 of 4", [](DeviceProfile& p) { p.ntb.wNdpOutPayloadRemainder = 4; }, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 0, 169},
        {"sizes clamped, NTB32", [](DeviceProfile& p) { p.ntb.dwNtbInMaxSize = p.ntb.dwNtbOutMaxSize = 300000; },
         STATUS_SUCCESS, true, 256000, 256000, 4, 4, 0, 169},
        {"sizes clamped, NTB16", [](DeviceProfile& p) { p.ntb.bmNtbFormatsSupported = 1; p.ntb.dwNtbInMaxSize = p.ntb.dwNtbOutMaxSize = 100000; },
         STATUS_SUCCESS, false, 65535, 65535, 4, 4, 0, 169},
        {"5 datagrams", [](DeviceProfile& p) { p.ntb.wNtbOutMaxDatagrams = 5; }, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 0, 5},
        {"200 datagrams", [](DeviceProfile& p) { p.ntb.wNtbOutMaxDatagrams = 200; }, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 0, 169},
        {"out just fits", [](DeviceProfile& p) { p.ntb.bmNtbFormatsSupported = 1; p.ntb.dwNtbOutMaxSize = 1549; },
         STATUS_SUCCESS, false, 16384, 1549, 4, 4, 0, 169},
        {"out too small", [](DeviceProfile& p) { p.ntb.bmNtbFormatsSupported = 1; p.ntb.dwNtbOutMaxSize = 1548; }, kFail, false, 0, 0, 0, 0, 0, 0},
        {"in below 24", [](DeviceProfile& p) { p.ntb.dwNtbInMaxSize = 23; }, kFail, false, 0, 0, 0, 0, 0, 0},
        {"segment 63", [](DeviceProfile& p) { p.wMaxSegmentSize = 63; }, kFail, false, 0, 0, 0, 0, 0, 0},
        {"segment 64", [](DeviceProfile& p) { p.wMaxSegmentSize = 64; }, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 0, 169},
        {"26 bytes of parameters", [](DeviceProfile& p) { p.ntbParametersAnswerLength = 26; }, kFail, false, 0, 0, 0, 0, 0, 0},
        {"NCM descriptor of type 0x22", [](DeviceProfile& p) { p.ncmDescriptorType = 0x22; }, STATUS_SUCCESS, true, 16384, 16384, 4, 4, 0, 169},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        Bed bed(Control(r.change, false));
        ASSERT_EQ(bed.Init(), r.status);
        if (r.status != STATUS_SUCCESS) {
            EXPECT_EQ(bed.Bus().ConfigurationValue(), 0) << "the configuration is given up";
            continue;
        }
        DeviceContNcm& c = bed.Cont();
        EXPECT_EQ(Peer::Use32BitHeaders(c), r.ntb32);
        EXPECT_EQ(Peer::InputBufferSize(c), r.in);
        EXPECT_EQ(Peer::OutputBufferSize(c), r.out);
        EXPECT_EQ(Peer::Parameters(c).wNdpOutAlignment, r.alignment);
        EXPECT_EQ(Peer::Parameters(c).wNdpOutDivisor, r.divisor);
        EXPECT_EQ(Peer::Parameters(c).wNdpOutPayloadRemainder, r.remainder);
        EXPECT_EQ(Peer::MaxTxDatagrams(c), r.maxTx);
        EXPECT_EQ(bed.Cont().Start(), STATUS_SUCCESS);
        bed.Settle(10);
        ethsim::NcmDevice::State s = bed.Device().GetState();
        EXPECT_EQ(s.ntb32, r.ntb32) << "SET_NTB_FORMAT names the format in use";
        EXPECT_EQ(s.ntbInputSize, r.in);
        EXPECT_EQ(s.dataAlternate, 1);
        bed.Cont().Stop();
    }
}

TEST(Init, ExitGivesTheConfigurationUp)
{
    Bed bed(Control());
    ASSERT_EQ(bed.BringUpStatus(), STATUS_SUCCESS);
    UCHAR mac[6];
    ASSERT_TRUE(bed.Cont().GetMacAddress(mac));
    EXPECT_EQ(0, memcmp(mac, DeviceProfile().macAddress.data(), 6));
    EXPECT_EQ(bed.Cont().GetMaxSegmentSize(), 1514u);
    EXPECT_EQ(bed.Bus().ConfigurationValue(), 1);
    bed.DestroyCont();
    EXPECT_EQ(bed.Bus().ConfigurationValue(), 0);
    EXPECT_EQ(Bed::DriverLedger(), "");
}

// The default configuration descriptor, cut into its descriptors, edited and
// joined again (wTotalLength follows).
DeviceProfile WithDescriptors(std::function<void(std::vector<testbed::Bytes>&)> edit)
{
    DeviceProfile p;
    testbed::Bytes all = ethsim::BuildConfigurationDescriptor(p, p.speed);
    std::vector<testbed::Bytes> parts;
    for (size_t at = 0; at < all.size(); at += all[at]) parts.emplace_back(all.begin() + at, all.begin() + at + all[at]);
    edit(parts);
    testbed::Bytes joined;
    for (const testbed::Bytes& d : parts) joined.insert(joined.end(), d.begin(), d.end());
    joined[2] = (uint8_t)joined.size();
    joined[3] = (uint8_t)(joined.size() >> 8);
    p.rawConfiguration = joined;
    return p;
}

size_t EthernetAt(const std::vector<testbed::Bytes>& parts)
{
    for (size_t i = 0; i < parts.size(); i++)
        if (parts[i][1] == 0x24 && parts[i][2] == 0x0F) return i;
    return 0;
}

TEST(Init, ShortFunctionalDescriptorsAreReadOnlyAsFarAsTheyGo)
{
    // An Ethernet descriptor of 10 bytes has no wNumberMCFilters: it reads 0.
    Traits t = Control();
    t.profile = WithDescriptors([](std::vector<testbed::Bytes>& d) {
        testbed::Bytes& e = d[EthernetAt(d)];
        e.resize(10);
        e[0] = 10;
    });
    Bed shortEthernet(t);
    ASSERT_EQ(shortEthernet.BringUpStatus(), STATUS_SUCCESS);
    EXPECT_EQ(shortEthernet.Cont().GetMaxSegmentSize(), 1514u);
    EXPECT_EQ(shortEthernet.Cont().GetNumberMCFilters(), 0u);
}

TEST(Init, AFunctionalDescriptorShorterThanThreeBytesEndsTheSearch)
{
    // Behind it a descriptor whose length byte looks like the Ethernet subtype.
    Traits t = Control(nullptr, false);
    t.profile = WithDescriptors([](std::vector<testbed::Bytes>& d) {
        testbed::Bytes filler(15, 0);
        filler[0] = 15;
        filler[1] = 0x24;
        filler[2] = 0x77;
        d.insert(d.begin() + EthernetAt(d), {testbed::Bytes{2, 0x24}, filler});
    });
    Bed bed(t);
    EXPECT_EQ(bed.Init(), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(bed.Traced("cannot find the Ethernet functional descriptor"));
}

TEST(Start, RefusedRequestsAndTheCrcCapability)
{
    struct Row {
        const char* what;
        uint8_t formats, capabilities;
        int stall;  // class request that stalls, -1 none
        NTSTATUS status;
        size_t crcRequests;
    };
    const Row rows[] = {
        {"CRC capable", 3, 0x1B, -1, STATUS_SUCCESS, 1},
        {"no CRC capability", 3, 0x0B, -1, STATUS_SUCCESS, 0},
        {"format refused under NTB16", 1, 0x1B, 0x84, STATUS_SUCCESS, 1},
        {"format refused under NTB32", 3, 0x1B, 0x84, STATUS_UNSUCCESSFUL, 0},
        {"input size refused", 3, 0x1B, 0x86, STATUS_UNSUCCESSFUL, 0},
        {"CRC mode refused", 3, 0x1B, 0x8A, STATUS_UNSUCCESSFUL, 1},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        Bed bed(Control([&](DeviceProfile& p) {
            p.ntb.bmNtbFormatsSupported = r.formats;
            p.bmNetworkCapabilities = r.capabilities;
        }, false));
        ASSERT_EQ(bed.Init(), STATUS_SUCCESS);
        if (r.stall >= 0) bed.Device().StallNextControl(1, r.stall);
        NTSTATUS status = bed.Cont().Start();
        EXPECT_EQ(status, r.status);
        EXPECT_EQ(bed.Requests(0x8A, 0), r.crcRequests);
        if (NT_SUCCESS(status)) bed.Cont().Stop();
    }
}

TEST(Notifications, AreDecodedIntoLinkAndSpeed)
{
    auto note = [](uint8_t code, uint16_t value, std::vector<uint8_t> data, int length = -1) {
        std::vector<uint8_t> b = {0xA1, code, (uint8_t)value, (uint8_t)(value >> 8), 0, 0,
                                  (uint8_t)data.size(), 0};
        b.insert(b.end(), data.begin(), data.end());
        if (length >= 0) b.resize(length);
        return b;
    };
    const std::vector<uint8_t> rates = {0x10, 0x27, 0, 0, 0x20, 0x4E, 0, 0};  // 10000 up, 20000 down
    struct Row {
        const char* what;
        std::vector<uint8_t> raw;
        std::vector<bool> links;
        std::vector<std::pair<ULONG, ULONG>> speeds;
    };
    const Row rows[] = {
        {"connected", note(0x00, 1, {}), {true}, {}},
        {"disconnected", note(0x00, 0, {}), {false}, {}},
        {"value 2 is not connected", note(0x00, 2, {}), {false}, {}},
        {"speed change", note(0x2A, 0, rates), {}, {{10000, 20000}}},
        {"speed change of 24 bytes", note(0x2A, 0, {0x10, 0x27, 0, 0, 0x20, 0x4E, 0, 0, 9, 9, 9, 9, 9, 9, 9, 9}, 24), {}, {{10000, 20000}}},
        {"speed change of 15 bytes", note(0x2A, 0, rates, 15), {}, {}},
        {"speed change of 12 bytes", note(0x2A, 0, rates, 12), {}, {}},
        {"response available", note(0x01, 0, {}), {}, {}},
        {"unknown code", note(0x77, 1, {}), {}, {}},
        {"short header", {0xA1, 0x00, 1, 0, 0, 0, 0}, {}, {}},
        {"zero length", {}, {}, {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        Bed bed(Control());
        testbed::Host& host = bed.HostSide();
        host.Locked([&] { host.links.clear(); host.speeds.clear(); });
        bed.Device().InjectNotification(r.raw);
        bed.Settle(10);
        host.Locked([&] {
            EXPECT_EQ(host.links, r.links);
            EXPECT_EQ(host.speeds, r.speeds);
        });
    }
}

TEST(PacketFilter, NdisBitsMapToCdcBitsAndTheListFollows)
{
    struct Row {
        ULONG ndis;
        uint16_t cdc;
    };
    const Row rows[] = {{0x01, 0x04}, {0x02, 0x10}, {0x04, 0x02}, {0x08, 0x08}, {0x20, 0x01}, {0x2F, 0x1F}, {0, 0}};
    Bed bed(Control([](DeviceProfile& p) { p.wNumberMCFilters = 2; }));
    bed.HostSide().multicast = {{1, 0, 0x5E, 0, 0, 1}, {1, 0, 0x5E, 0, 0, 2}, {1, 0, 0x5E, 0, 0, 3}};
    for (const Row& r : rows) {
        EXPECT_TRUE(bed.Cont().SetPacketFilter(r.ndis));
        bed.Settle(10);
        EXPECT_EQ(bed.Device().GetState().packetFilter, r.cdc) << std::hex << r.ndis;
    }
    EXPECT_EQ(bed.Device().GetState().multicastFilters.size(), 2u) << "no more than the device filters";
    bed.Cont().Stop();
    EXPECT_FALSE(bed.Cont().SetPacketFilter(1)) << "nothing sent while stopped";
    bed.Cont().Start();
}

TEST(Statistics, SupportedSelectorsArePolledAndOthersRefused)
{
    Bed bed(Control([](DeviceProfile& p) { p.bmEthernetStatistics = 0x3; }));
    bed.Device().SetStatistic(1, 1234);
    bed.Device().SetStatistic(2, 77);
    bed.Settle(6000);
    ULONG v = 0;
    EXPECT_TRUE(bed.Cont().GetEthernetStatistic(1, &v));
    EXPECT_EQ(v, 1234u);
    EXPECT_TRUE(bed.Cont().GetEthernetStatistic(2, &v));
    EXPECT_EQ(v, 77u);
    EXPECT_FALSE(bed.Cont().GetEthernetStatistic(3, &v)) << "not in bmEthernetStatistics";
    EXPECT_FALSE(bed.Cont().GetEthernetStatistic(0, &v));
    EXPECT_FALSE(bed.Cont().GetEthernetStatistic(30, &v));
}

// ---------------------------------------------------------------------------
// Streams: errors, restarts, stops and removal
// ---------------------------------------------------------------------------

// One failed read: the device stalls the next bulk IN transfer, which a
// frame from the network provokes; the stream restarts and the frame arrives.
void FailOneRead(Bed& bed, uint32_t seed)
{
    bed.Device().FailNextTransfers(kBulkIn, 1, kplat::UsbHandshake::Stall);
    bed.Device().OnFrame(Frame(60, seed).data(), 60);
    kplat::RunUntilIdle();
    ASSERT_EQ(bed.Received().size(), 1u) << "the stream restarted and read again";
}

Traits OneRead()
{
    Traits t = Control();
    t.params = {{"RxBuffers", 1}};
    return t;
}

TEST(Streams, ReadErrorsRestartAndABurstShrinksTheReads)
{
    Bed bed(OneRead());
    StreamIn& in = Peer::InStream(bed.Cont());
    // Errors a minute apart start the count again; 59.999 s is within.
    const std::pair<uint64_t, ULONG> steps[] = {{0, 1}, {59999, 2}, {60000, 1}, {10000, 2}};
    uint32_t seed = 1;
    for (auto [wait, count] : steps) {
        kplat::AdvanceTime(wait);
        FailOneRead(bed, seed++);
        EXPECT_EQ(Peer::RxErrorCount(bed.Cont()), count);
        EXPECT_EQ(in.GetReadSize(), 16384u);
    }
    kplat::AdvanceTime(10000);
    FailOneRead(bed, seed++);  // the third within a minute
    EXPECT_EQ(in.GetReadSize(), 8192u);
    EXPECT_EQ(bed.Device().GetState().ntbInputSize, 8192u) << "told to the device from the work item";
    for (int i = 0; i < 10; i++) bed.Device().OnFrame(Frame(1000, i).data(), 1000);
    bed.Settle(50);
    EXPECT_EQ(bed.Received().size(), 10u);
    bed.Cont().Stop();
    ASSERT_EQ(bed.Cont().Start(), STATUS_SUCCESS);
    kplat::RunUntilIdle();
    EXPECT_EQ(bed.Device().GetState().ntbInputSize, 16384u) << "a new Start announces the full size";
}

TEST(Streams, RemovalEndsReadingWithoutRestart)
{
    Bed bed(OneRead());
    EXPECT_EQ(Peer::InStream(bed.Cont()).GetNumberOfBuffersOutstanding(), 1u);
    bed.Device().Unplug();
    kplat::AdvanceTime(1000);
    StreamIn& in = Peer::InStream(bed.Cont());
    EXPECT_TRUE(in.IsDeviceRemoved());
    EXPECT_EQ(in.GetPendingCount(), 0u);
    EXPECT_EQ(in.GetNumberOfBuffersOutstanding(), 0u);
    EXPECT_EQ(in.GetRestartQueuedCount(), 0u);
    EXPECT_EQ(Peer::RxErrorCount(bed.Cont()), 0u) << "a removal is not a receive error";
    EXPECT_EQ(bed.TraceCount(":DeviceContNcm::IndicateError:"), 1u);
}

TEST(Streams, RestartsQueuedBeforeAStopDoNothing)
{
    for (bool exitToo : {false, true}) {
        Bed bed(OneRead());
        StreamIn& in = Peer::InStream(bed.Cont());
        StreamOut& out = Peer::OutStream(bed.Cont());
        {
            testbed::QueueBlocker blocker(bed.Fdo());
            bed.Device().FailNextTransfers(kBulkOut, 1, kplat::UsbHandshake::Stall);
            bed.Queue(Frame(60, 2));
            bed.Cont().ProcessTxPackets();
            while (!out.IsRestartPending()) std::this_thread::yield();
            bed.Device().FailNextTransfers(kBulkIn, 1, kplat::UsbHandshake::Stall);
            bed.Device().OnFrame(Frame(60, 1).data(), 60);
            while (!in.IsRestartPending()) std::this_thread::yield();
            bed.Cont().Stop();
            if (exitToo) bed.Cont().Exit();
            bed.Device().ClearRequestLog();
        }
        EXPECT_FALSE(bed.Traced("::Restart\n")) << "no restart ran";
        EXPECT_TRUE(bed.Device().RequestLog().empty()) << "no pipe reset";
        EXPECT_EQ(bed.Bus().PendingRequests(), 0u) << "no read";
        EXPECT_FALSE(in.IsStreamEnabled() || out.IsStreamEnabled());
        if (!exitToo) {
            ASSERT_EQ(bed.Cont().Start(), STATUS_SUCCESS);
            kplat::RunUntilIdle();
            bed.Received();
            bed.Device().OnFrame(Frame(60, 3).data(), 60);
            kplat::RunUntilIdle();
            EXPECT_EQ(bed.Received().size(), 1u);
        }
    }
}

// The stream's mutex, for a test that holds it as a running Stop would.
struct StreamMutex : StreamIn {
    static KnMutex& Of(StreamIn& s)
    {
        KnMutex Stream::*mutex = &StreamMutex::mMutex;
        return s.*mutex;
    }
};

TEST(Streams, ARestartWaitingForTheMutexWhenTheOwnerStopsDoesNothing)
{
    Bed bed(OneRead());
    StreamIn& in = Peer::InStream(bed.Cont());
    KnMutex& mutex = StreamMutex::Of(in);
    mutex.Lock();
    in.ScheduleRestart();
    kplat::RunUntilIdle();
    ASSERT_EQ(in.GetRestartQueuedCount(), 1u) << "the restart runs and waits for the mutex";
    in.Stop();
    mutex.Unlock();
    kplat::RunUntilIdle();
    EXPECT_FALSE(bed.Traced("[StreamIN82::Restart\n"));
    EXPECT_FALSE(in.IsStreamEnabled());
    EXPECT_EQ(in.GetPendingCount(), 0u);
    ASSERT_EQ(in.Start(false), STATUS_SUCCESS);
    kplat::RunUntilIdle();
    EXPECT_EQ(in.GetPendingCount(), 1u) << "the owner's next start runs the stream";
}

TEST(Streams, FailedRestartsAreRetriedUntilTrafficFlows)
{
    for (uint32_t stalls : {1u, 2u}) {
        Traits t = Control();
        t.capture = true;
        Bed bed(t);
        bed.Device().StallNextControl(2 * stalls, 0x01);  // CLEAR_FEATURE(ENDPOINT_HALT)
        bed.Device().FailNextTransfers(kBulkIn, 1, kplat::UsbHandshake::Stall);
        bed.Device().FailNextTransfers(kBulkOut, 1, kplat::UsbHandshake::Stall);
        bed.Device().OnFrame(Frame(60, 1).data(), 60);
        bed.Send({Frame(60, 2)});  // lost with its write
        kplat::AdvanceTime(4000);
        EXPECT_EQ(bed.TraceCount("::Restart failed 0xC0000001 (STATUS_UNSUCCESSFUL), retry in 1000 ms\n"), 2 * stalls);
        bed.Send({Frame(60, 3)});
        EXPECT_EQ(bed.Received().size(), 1u);
        EXPECT_EQ(bed.Network().Count(), 1u);
    }
}

TEST(Streams, AFailedRestartOfARemovedDeviceIsNotRetried)
{
    Bed bed(OneRead());
    {
        testbed::QueueBlocker blocker(bed.Fdo());
        bed.Device().FailNextTransfers(kBulkIn, 1, kplat::UsbHandshake::Stall);
        bed.Device().OnFrame(Frame(60, 1).data(), 60);
        while (!Peer::InStream(bed.Cont()).IsRestartPending()) std::this_thread::yield();
        bed.Bus().Unplug();
    }
    kplat::AdvanceTime(10000);
    EXPECT_EQ(bed.TraceCount("StreamIN82::Restart failed 0xC000009D (STATUS_DEVICE_NOT_CONNECTED), device removed\n"), 1u);
    EXPECT_EQ(bed.TraceCount("::Restart failed"), 1u);
}

TEST(Streams, AReadTheBusHoldsPastTheDrainIsFreedOnlyOnceBack)
{
    Bed bed(Control());
    bed.Bus().HoldAbortedTransfers(kBulkIn, 25000);  // longer than both drains
    const uint64_t start = kplat::Now();
    bed.Cont().Stop();
    EXPECT_LT((kplat::Now() - start) / 10000, 11000u) << "the drain gives up after its 10 s";
    bed.DestroyCont();
    EXPECT_EQ(kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount, 0u) << kplat::PoolLeakReport();
    EXPECT_EQ(bed.TraceCount("StreamIN82::Stop: drain timed out, buffers stay with the bus\n"), 1u);
}

}  // namespace
