// Concurrency stress on the real clock: sends, frames from the network, OID
// queries and sets (power changes among them), a reset, link changes and
// the adapter's end (a halt, or for every 25th seed a surprise removal),
// each from its own thread at random points. 200 seeds of a few
// milliseconds each. Whatever the interleaving: no check failure of the
// stand-in (verifier, IRQL, locks), no assertion or unbalanced lock traced,
// every packet and every pended set completed exactly once, no reset left
// pending, and no pool block of the driver left after its unload. Meant for
// the ThreadSanitizer build, where any data race is a report.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "testbed.h"

using testbed::Bed;
using testbed::Bytes;
using testbed::Frame;

namespace {

// A few yields, so that the threads meet at different points each run.
void Gap(std::mt19937& rng, unsigned most)
{
    for (unsigned n = rng() % most; n > 0; n--) std::this_thread::yield();
}

// A thread that runs driver code beside the controller.
std::thread DriverThread(std::function<void()> body)
{
    return std::thread([body] {
        kplat::EnterDriverThread();
        body();
        kplat::LeaveDriverThread();
    });
}

const NDIS_OID kQueries[] = {
    OID_GEN_SUPPORTED_LIST, OID_GEN_MEDIA_CONNECT_STATUS, OID_GEN_LINK_SPEED,       OID_GEN_XMIT_OK,
    OID_GEN_RCV_OK,         OID_GEN_RCV_ERROR,            OID_802_3_MULTICAST_LIST, OID_GEN_CURRENT_PACKET_FILTER,
    OID_PNP_CAPABILITIES,   OID_GEN_VENDOR_DESCRIPTION,   OID_802_3_XMIT_ONE_COLLISION,
};

// The OID requests, one at a time as NDIS makes them, and a reset among
// them. Returns the number of sets that pended.
uint64_t Requests(kplat::NdisAdapter& a, uint32_t seed)
{
    std::mt19937 rng(seed);
    const int resetAt = (int)(rng() % 20);
    uint64_t pended = 0;
    for (int i = 0; i < 20; i++) {
        if (i == resetAt) {
            NDIS_STATUS s = a.Reset();
            EXPECT_TRUE(s == NDIS_STATUS_PENDING || s == NDIS_STATUS_SUCCESS || s == NDIS_STATUS_ADAPTER_NOT_FOUND ||
                        s == NDIS_STATUS_FAILURE)
                << std::hex << s;
            // NDIS makes no request while a reset is in progress. (The bound
            // only keeps a reset that never completes from hanging the test.)
            const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (a.ResetPending() && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
            EXPECT_FALSE(a.ResetPending()) << "the reset does not complete";
        }
        UCHAR buffer[256] = {};
        ULONG done = 0, needed = 0, value = rng();
        NDIS_OID oid;
        ULONG length = sizeof(ULONG);
        switch (rng() % 5) {
        case 0: {
            oid = kQueries[rng() % (sizeof(kQueries) / sizeof(kQueries[0]))];
            NDIS_STATUS s = a.Query(oid, buffer, sizeof(buffer), &done, &needed);
            EXPECT_TRUE(s == NDIS_STATUS_SUCCESS || s == NDIS_STATUS_ADAPTER_NOT_FOUND) << std::hex << s;
            Gap(rng, 64);
            continue;
        }
        case 1: oid = OID_GEN_CURRENT_PACKET_FILTER; break;
        case 2:
            oid = OID_802_3_MULTICAST_LIST;
            length = 6 * (rng() % 5);
            for (ULONG k = 0; k < length; k++) buffer[k] = (UCHAR)(k % 6 == 0 ? 0x01 : rng());
            break;
        case 3:
            oid = OID_PNP_SET_POWER;
            value = rng() % 2 ? NdisDeviceStateD3 : NdisDeviceStateD0;
            break;
        default: oid = rng() % 2 ? OID_PNP_ENABLE_WAKE_UP : OID_GEN_CURRENT_LOOKAHEAD; break;
        }
        if (oid != OID_802_3_MULTICAST_LIST) memcpy(buffer, &value, sizeof(value));
        NDIS_STATUS s = a.Set(oid, buffer, length, &done, &needed);
        // FAILURE: NDIS held the set back behind a pending one.
        EXPECT_TRUE(s == NDIS_STATUS_SUCCESS || s == NDIS_STATUS_PENDING || s == NDIS_STATUS_FAILURE ||
                    s == NDIS_STATUS_ADAPTER_NOT_FOUND)
            << std::hex << s;
        pended += s == NDIS_STATUS_PENDING;
        Gap(rng, 64);
    }
    return pended;
}

void RunSeed(uint32_t seed)
{
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    kplat::CheckRecorder checks;
    kplat::DebugCapture trace;
    testbed::Traits traits;
    traits.clock = kplat::ClockMode::Real;
    traits.traceMask = KN_TRACE_ERROR;  // assertions and unbalanced locks are traced
    Bed bed(traits);
    kplat::NdisAdapter& a = bed.Adapter();
    ASSERT_TRUE(a.IsInitialized());

    uint64_t pended = 0;
    std::vector<std::thread> threads;
    threads.push_back(DriverThread([&] { pended = Requests(a, seed); }));
    threads.push_back(DriverThread([&] {
        std::mt19937 rng(seed + 1000);
        for (int i = 0; i < 30; i++) {
            Bytes f = Frame(60 + rng() % 1455, i);
            a.SendFrame(f.data(), f.size());
            Gap(rng, 32);
        }
    }));
    threads.push_back(DriverThread([&] {
        std::mt19937 rng(seed + 2000);
        for (int i = 0; i < 30; i++) {
            Bytes f = Frame(60 + rng() % 1455, i);
            bed.Device().OnFrame(f.data(), f.size());
            Gap(rng, 32);
        }
    }));
    threads.push_back(DriverThread([&] {
        std::mt19937 rng(seed + 3000);
        for (int i = 0; i < 8; i++) {
            if (rng() % 3 == 0) {
                bed.Device().SetLinkSpeed(rng() % 1000000000 + 1, rng() % 1000000000 + 1);
            } else {
                bed.Device().SetLink(rng() % 2 == 0);
            }
            Gap(rng, 128);
        }
    }));
    std::mt19937 rng(seed + 4000);
    Gap(rng, 2000);
    if (seed % 25 == 0) {
        a.SurpriseRemove();
    } else {
        a.Halt();
    }
    for (std::thread& t : threads) t.join();
    kplat::RunUntilIdle();

    EXPECT_EQ(a.PacketsOutstanding(), 0u);
    EXPECT_EQ(a.PacketsCompleted(), a.PacketsSent());
    EXPECT_EQ(a.SetCompletions(), pended);
    EXPECT_FALSE(a.SetPending());
    EXPECT_FALSE(a.ResetPending());
    bed.Unplug();
    bed.Driver().Unload();
    EXPECT_EQ(Bed::DriverLedger(), "");
    for (const kplat::CheckFailure& f : checks.Take()) ADD_FAILURE() << f.text;
    EXPECT_FALSE(trace.Contains("ASSERTION FAILED")) << trace.Text();
    EXPECT_FALSE(trace.Contains("FATAL")) << trace.Text();
}

}  // namespace

TEST(OidStress, RequestsTrafficLinkResetAndRemovalAtRandomPoints)
{
    for (uint32_t seed = 0; seed < 200; seed++) {
        RunSeed(seed);
        if (HasFailure()) return;
    }
}
