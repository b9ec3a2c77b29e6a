// OID requests at every information buffer length, from 0 to the answer's
// size + 8 (and a null buffer for length 0): the status, bytes written or
// read and bytes needed, no byte touched outside the given length, and a
// refused set leaves the adapter as it was. The buffer sits between guard
// bytes, which AddressSanitizer builds also poison, so that a read past the
// given length is reported too.
#include <gtest/gtest.h>
#include <sanitizer/asan_interface.h>

#include <map>

#include "testbed.h"

using testbed::Bed;
using testbed::Bytes;

namespace {

enum class Op { Query, Set };
// How the length is judged.
enum class Check {
    AtLeast,      // shorter than size: INVALID_LENGTH, bytes needed = size
    Exactly,      // other than size: INVALID_DATA, bytes needed 0
    AddressList,  // not a multiple of 6: INVALID_DATA; more than size / 6 addresses: MULTICAST_FULL
    Unsupported,  // NOT_SUPPORTED whatever the length
};

struct Row {
    NDIS_OID oid;
    Op op;
    ULONG size;     // answer size (query), bytes the set uses (set)
    Bytes content;  // query: the answer (empty: not checked); set: valid input
    Check check;
    bool echo;      // set: a query of the OID answers what the set read
};

Bytes U32(std::initializer_list<ULONG> values)
{
    Bytes b;
    for (ULONG v : values) {
        for (int i = 0; i < 4; i++) b.push_back((uint8_t)(v >> (8 * i)));
    }
    return b;
}

const Bytes kAddress = {0x02, 0x45, 0x54, 0x48, 0x00, 0x01};  // the simulated function's

Bytes Addresses(unsigned count)
{
    Bytes b;
    for (unsigned i = 0; i < count; i++) b.insert(b.end(), {0x01, 0x00, 0x5E, 0x00, 0x01, (uint8_t)i});
    return b;
}

std::vector<Row> Rows()
{
    const Bytes supported = U32({
        OID_GEN_SUPPORTED_LIST, OID_GEN_HARDWARE_STATUS, OID_GEN_MEDIA_SUPPORTED, OID_GEN_MEDIA_IN_USE,
        OID_GEN_MAXIMUM_LOOKAHEAD, OID_GEN_MAXIMUM_FRAME_SIZE, OID_GEN_LINK_SPEED, OID_GEN_TRANSMIT_BUFFER_SPACE,
        OID_GEN_RECEIVE_BUFFER_SPACE, OID_GEN_TRANSMIT_BLOCK_SIZE, OID_GEN_RECEIVE_BLOCK_SIZE, OID_GEN_VENDOR_ID,
        OID_GEN_VENDOR_DESCRIPTION, OID_GEN_CURRENT_PACKET_FILTER, OID_GEN_CURRENT_LOOKAHEAD,
        OID_GEN_DRIVER_VERSION, OID_GEN_MAXIMUM_TOTAL_SIZE, OID_GEN_PROTOCOL_OPTIONS, OID_GEN_MAC_OPTIONS,
        OID_GEN_MEDIA_CONNECT_STATUS, OID_GEN_MAXIMUM_SEND_PACKETS, OID_GEN_VENDOR_DRIVER_VERSION, OID_GEN_VLAN_ID,
        OID_GEN_XMIT_OK, OID_GEN_RCV_OK, OID_GEN_XMIT_ERROR, OID_GEN_RCV_ERROR, OID_GEN_RCV_NO_BUFFER,
        OID_802_3_PERMANENT_ADDRESS, OID_802_3_CURRENT_ADDRESS, OID_802_3_MULTICAST_LIST,
        OID_802_3_MAXIMUM_LIST_SIZE, OID_802_3_MAC_OPTIONS, OID_802_3_RCV_ERROR_ALIGNMENT,
        OID_802_3_XMIT_ONE_COLLISION, OID_802_3_XMIT_MORE_COLLISIONS, OID_PNP_CAPABILITIES, OID_PNP_SET_POWER,
        OID_PNP_QUERY_POWER, OID_PNP_ENABLE_WAKE_UP,
    });
    const Bytes description = {'N', 'D', 'I', 'S', ' ', 'A', 'd', 'a', 'p', 't', 'e', 'r'};
    const Op Q = Op::Query, S = Op::Set;
    const Check L = Check::AtLeast, X = Check::Exactly, N = Check::Unsupported;
    // In order: the queries see the adapter as brought up (with two
    // multicast addresses set); the sets come after them.
    return {
        {OID_GEN_SUPPORTED_LIST, Q, 160, supported, L, false},
        {OID_GEN_HARDWARE_STATUS, Q, 4, U32({NdisHardwareStatusReady}), L, false},
        {OID_GEN_MEDIA_SUPPORTED, Q, 4, U32({NdisMedium802_3}), L, false},
        {OID_GEN_MEDIA_IN_USE, Q, 4, U32({NdisMedium802_3}), L, false},
        {OID_GEN_MAXIMUM_LOOKAHEAD, Q, 4, U32({1500}), L, false},
        {OID_GEN_MAXIMUM_FRAME_SIZE, Q, 4, U32({1500}), L, false},
        {OID_GEN_LINK_SPEED, Q, 4, U32({10000000}), L, false},
        {OID_GEN_TRANSMIT_BUFFER_SPACE, Q, 4, U32({4 * 1500}), L, false},
        {OID_GEN_RECEIVE_BUFFER_SPACE, Q, 4, U32({4 * 1500}), L, false},
        {OID_GEN_TRANSMIT_BLOCK_SIZE, Q, 4, U32({1514}), L, false},
        {OID_GEN_RECEIVE_BLOCK_SIZE, Q, 4, U32({1514}), L, false},
        {OID_GEN_VENDOR_ID, Q, 4, {0x02, 0x45, 0x54, 0x00}, L, false},
        {OID_GEN_VENDOR_DESCRIPTION, Q, 12, description, L, false},
        {OID_GEN_CURRENT_PACKET_FILTER, Q, 4, U32({0}), L, false},
        {OID_GEN_CURRENT_LOOKAHEAD, Q, 4, U32({1500}), L, false},
        {OID_GEN_DRIVER_VERSION, Q, 2, {0x01, 0x05}, L, false},
        {OID_GEN_MAXIMUM_TOTAL_SIZE, Q, 4, U32({1514}), L, false},
        {OID_GEN_MAC_OPTIONS, Q, 4, U32({0x0F}), L, false},
        {OID_GEN_MEDIA_CONNECT_STATUS, Q, 4, U32({NdisMediaStateConnected}), L, false},
        {OID_GEN_MAXIMUM_SEND_PACKETS, Q, 4, U32({4}), L, false},
        {OID_GEN_VENDOR_DRIVER_VERSION, Q, 4, U32({0x00010032}), L, false},
        {OID_GEN_VLAN_ID, Q, 4, U32({0}), L, false},
        {OID_GEN_XMIT_OK, Q, 4, {}, L, false},
        {OID_GEN_RCV_OK, Q, 4, {}, L, false},
        {OID_GEN_XMIT_ERROR, Q, 4, {}, L, false},
        {OID_GEN_RCV_ERROR, Q, 4, {}, L, false},
        {OID_GEN_RCV_NO_BUFFER, Q, 4, {}, L, false},
        {OID_802_3_PERMANENT_ADDRESS, Q, 6, kAddress, L, false},
        {OID_802_3_CURRENT_ADDRESS, Q, 6, kAddress, L, false},
        {OID_802_3_MULTICAST_LIST, Q, 12, Addresses(2), L, false},
        {OID_802_3_MAXIMUM_LIST_SIZE, Q, 4, U32({32}), L, false},
        {OID_802_3_MAC_OPTIONS, Q, 4, U32({0}), L, false},
        {OID_802_3_RCV_ERROR_ALIGNMENT, Q, 4, {}, L, false},
        {OID_802_3_XMIT_ONE_COLLISION, Q, 4, {}, L, false},
        {OID_802_3_XMIT_MORE_COLLISIONS, Q, 4, {}, L, false},
        {OID_PNP_CAPABILITIES, Q, 12, U32({NdisDeviceStateD3, NdisDeviceStateD3, NdisDeviceStateD3}), L, false},
        {OID_PNP_QUERY_POWER, Q, 0, {}, L, false},
        {OID_PNP_ENABLE_WAKE_UP, Q, 4, U32({0}), L, false},
        // Unsupported for query, some of them although listed.
        {OID_GEN_PROTOCOL_OPTIONS, Q, 4, {}, N, false},
        {OID_PNP_SET_POWER, Q, 4, {}, N, false},
        {OID_PNP_ADD_WAKE_UP_PATTERN, Q, 4, {}, N, false},
        {OID_PNP_REMOVE_WAKE_UP_PATTERN, Q, 4, {}, N, false},
        {OID_PNP_WAKE_UP_PATTERN_LIST, Q, 4, {}, N, false},
        {OID_PNP_WAKE_UP_OK, Q, 4, {}, N, false},
        {OID_PNP_WAKE_UP_ERROR, Q, 4, {}, N, false},
        {0xFC010209, Q, 4, {}, N, false},
        {0xFC01020A, Q, 4, {}, N, false},
        {0x00000000, Q, 4, {}, N, false},
        {0xFFFFFFFF, Q, 4, {}, N, false},
        // Sets.
        {OID_GEN_CURRENT_PACKET_FILTER, S, 4, U32({0x0B}), L, true},
        {OID_GEN_CURRENT_LOOKAHEAD, S, 4, U32({1000}), L, false},
        {OID_GEN_PROTOCOL_OPTIONS, S, 4, U32({0x07}), L, false},
        {OID_802_3_MULTICAST_LIST, S, 32 * 6, Addresses(32), Check::AddressList, true},
        {OID_PNP_ENABLE_WAKE_UP, S, 4, U32({0x01}), X, true},
        {OID_PNP_SET_POWER, S, 4, U32({NdisDeviceStateD3}), X, false},
        {OID_PNP_SET_POWER, S, 4, U32({NdisDeviceStateD0}), X, false},
        {OID_GEN_SUPPORTED_LIST, S, 4, U32({0}), N, false},
        {OID_802_3_CURRENT_ADDRESS, S, 6, kAddress, N, false},
        {OID_802_3_MAXIMUM_LIST_SIZE, S, 4, U32({64}), N, false},
        {OID_PNP_QUERY_POWER, S, 4, U32({NdisDeviceStateD3}), N, false},
        {OID_PNP_ADD_WAKE_UP_PATTERN, S, 4, U32({0}), N, false},
        {0xFC010209, S, 4, U32({0}), N, false},
        {0x00000000, S, 4, U32({0}), N, false},
        {0xFFFFFFFF, S, 4, U32({0}), N, false},
    };
}

// The information buffer of `length` bytes between two guards of 16
// (poisoned while the request runs in AddressSanitizer builds).
class Guarded {
public:
    static constexpr size_t kGuard = 16;
    static constexpr uint8_t kFill = 0xA5;

    Guarded(ULONG length, const Bytes& content) : mBytes(kGuard + length + kGuard, kFill)
    {
        for (size_t i = 0; i < length && i < content.size(); i++) mBytes[kGuard + i] = content[i];
        mBefore = mBytes;
        ASAN_POISON_MEMORY_REGION(mBytes.data(), kGuard);
        ASAN_POISON_MEMORY_REGION(mBytes.data() + kGuard + length, kGuard);
    }
    ~Guarded() { Unpoison(); }
    void Unpoison() { ASAN_UNPOISON_MEMORY_REGION(mBytes.data(), mBytes.size()); }
    uint8_t* Data() { return mBytes.data() + kGuard; }
    // The offsets (from the buffer's start; negative in the leading guard)
    // of the bytes outside [allowedBegin, allowedEnd) that the request
    // changed, separated by blanks.
    std::string ChangedOutside(size_t allowedBegin, size_t allowedEnd)
    {
        Unpoison();
        std::string out;
        for (size_t i = 0; i < mBytes.size(); i++) {
            size_t at = i - kGuard;  // wraps for the leading guard: outside anyway
            if (at >= allowedBegin && at < allowedEnd) continue;
            if (mBytes[i] != mBefore[i]) out += std::to_string((long)i - (long)kGuard) + " ";
        }
        return out;
    }
    Bytes Written(ULONG count) { return Bytes(Data(), Data() + count); }

private:
    Bytes mBytes, mBefore;
};

// What a refused set must leave alone: the answers of the OIDs that sets
// write, the device's filters and the power requests completed.
struct Snapshot {
    std::map<NDIS_OID, Bytes> answers;
    uint16_t devicePacketFilter = 0;
    std::vector<ethsim::MacAddress> deviceMulticast;
    uint64_t setCompletions = 0;
    bool operator==(const Snapshot& o) const
    {
        return answers == o.answers && devicePacketFilter == o.devicePacketFilter &&
               deviceMulticast == o.deviceMulticast && setCompletions == o.setCompletions;
    }
};

Snapshot Take(Bed& bed)
{
    bed.Settle();  // the filters reach the device
    Snapshot s;
    for (NDIS_OID oid : std::initializer_list<NDIS_OID>{OID_GEN_CURRENT_PACKET_FILTER, OID_GEN_CURRENT_LOOKAHEAD, OID_802_3_MULTICAST_LIST,
                         OID_PNP_ENABLE_WAKE_UP, OID_GEN_HARDWARE_STATUS, OID_GEN_MEDIA_CONNECT_STATUS}) {
        Bytes b(256);
        ULONG written = 0, needed = 0;
        EXPECT_EQ(bed.Adapter().Query(oid, b.data(), (ULONG)b.size(), &written, &needed), NDIS_STATUS_SUCCESS);
        b.resize(written);
        s.answers[oid] = b;
    }
    ethsim::NcmDevice::State d = bed.Device().GetState();
    s.devicePacketFilter = d.packetFilter;
    s.deviceMulticast = d.multicastFilters;
    s.setCompletions = bed.Adapter().SetCompletions();
    return s;
}

struct Expected {
    NDIS_STATUS status;
    ULONG count;  // bytes written or read on success, bytes needed otherwise
};

Expected Expect(const Row& r, ULONG length)
{
    switch (r.check) {
    case Check::AtLeast:
        return {length < r.size ? NDIS_STATUS_INVALID_LENGTH : NDIS_STATUS_SUCCESS, r.size};
    case Check::Exactly:
        if (length != r.size) return {NDIS_STATUS_INVALID_DATA, 0};
        return {r.oid == OID_PNP_SET_POWER ? NDIS_STATUS_PENDING : NDIS_STATUS_SUCCESS, r.size};
    case Check::AddressList:
        if (length % 6 != 0) return {NDIS_STATUS_INVALID_DATA, 0};
        if (length > r.size) return {NDIS_STATUS_MULTICAST_FULL, 0};
        return {NDIS_STATUS_SUCCESS, length};
    case Check::Unsupported: break;
    }
    return {NDIS_STATUS_NOT_SUPPORTED, 0};
}

constexpr ULONG kUntouched = 0xDEADBEEF;

// One request; failures name the row, the length and whether the buffer
// was null.
void RunOne(Bed& bed, const Row& r, ULONG length, bool null, Bytes& firstAnswer)
{
    SCOPED_TRACE(testing::Message() << (r.op == Op::Query ? "query" : "set") << " of 0x" << std::hex << r.oid
                                    << std::dec << " with " << length << " bytes" << (null ? " (null)" : ""));
    kplat::NdisAdapter& a = bed.Adapter();
    const Expected e = Expect(r, length);
    Guarded buffer(length, r.op == Op::Set ? r.content : Bytes());
    ULONG done = kUntouched, needed = kUntouched;
    PVOID data = null ? nullptr : buffer.Data();

    if (r.op == Op::Query) {
        NDIS_STATUS status = a.Query(r.oid, data, length, &done, &needed);
        std::string outside = buffer.ChangedOutside(0, status == NDIS_STATUS_SUCCESS ? r.size : 0);
        EXPECT_EQ(outside, "") << "bytes changed at these offsets";
        ASSERT_EQ(status, e.status);
        EXPECT_EQ(status == NDIS_STATUS_SUCCESS ? done : needed, r.check == Check::Unsupported ? kUntouched : e.count);
        EXPECT_EQ(status == NDIS_STATUS_SUCCESS ? needed : done, kUntouched);
        if (status == NDIS_STATUS_SUCCESS) {
            Bytes answer = buffer.Written(r.size);
            if (!r.content.empty()) {
                EXPECT_EQ(answer, r.content);
            }
            if (firstAnswer.empty()) firstAnswer = answer;
            EXPECT_EQ(answer, firstAnswer) << "the same answer at every length";
        }
        return;
    }

    const Snapshot before = Take(bed);
    NDIS_STATUS status = a.Set(r.oid, data, length, &done, &needed);
    EXPECT_EQ(buffer.ChangedOutside(0, 0), "") << "bytes changed at these offsets";
    ASSERT_EQ(status, e.status);
    if (status == NDIS_STATUS_PENDING) {
        EXPECT_EQ(done, kUntouched);
        EXPECT_EQ(needed, kUntouched);
        EXPECT_TRUE(a.SetPending());
        bed.Settle(100);
        EXPECT_FALSE(a.SetPending());
        EXPECT_EQ(a.SetCompletions(), before.setCompletions + 1);
        EXPECT_EQ(a.LastSetCompletionStatus(), NDIS_STATUS_SUCCESS);
        return;
    }
    EXPECT_EQ(status == NDIS_STATUS_SUCCESS ? done : needed, e.count);
    EXPECT_EQ(status == NDIS_STATUS_SUCCESS ? needed : done, kUntouched);
    Snapshot after = Take(bed);
    if (status != NDIS_STATUS_SUCCESS) {
        EXPECT_TRUE(after == before) << "a refused set changed the adapter";
    } else if (r.echo) {
        Snapshot expected = before;
        expected.answers[r.oid] = Bytes(r.content.begin(), r.content.begin() + done);
        EXPECT_EQ(after.answers, expected.answers);
    } else {
        EXPECT_EQ(after.answers, before.answers);
    }
}

}  // namespace

TEST(OidConformance, EveryOidAtEveryLength)
{
    Bed bed;
    // The speed the function reports as its data interface starts may come
    // before the bring-up sets the default speed, which then replaces it: a
    // fresh report makes the answer known.
    bed.Device().NotifySpeedChange(1000000000, 1000000000);
    bed.Settle(200);
    Bytes two = Addresses(2);
    ULONG read, needed;
    ASSERT_EQ(bed.Adapter().Set(OID_802_3_MULTICAST_LIST, two.data(), 12, &read, &needed), NDIS_STATUS_SUCCESS);
    int requests = 0;
    for (const Row& r : Rows()) {
        Bytes firstAnswer;
        RunOne(bed, r, 0, true, firstAnswer);
        for (ULONG length = 0; length <= r.size + 8; length++, requests++) RunOne(bed, r, length, false, firstAnswer);
        if (HasFatalFailure()) return;
    }
    RecordProperty("requests", requests);
    EXPECT_EQ(bed.Device().TotalViolations(), 0u) << bed.Device().ViolationReport();
}

// Power requests meeting each other and a reset on the start/stop work item
// they share: every request completes once, with success, and the adapter
// passes traffic afterwards.
TEST(OidConformance, PowerRequestsMeetingEachOtherAndAReset)
{
    enum Step { D0, D3, Reset, Hold, Release };
    struct Row {
        const char* name;
        std::vector<Step> steps;
    };
    const Row rows[] = {
        {"D0 while in D0", {D0}},
        {"D3 twice, then D0", {D3, D3, D0}},
        // The start of the power-up waits in its first control request when
        // the reset comes: the reset's own stop and start follow it.
        {"a reset during the start of a power-up", {D3, Hold, D0, Reset, Release}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        kplat::DebugCapture trace;
        testbed::Traits traits;
        traits.traceMask = KN_TRACE_ERROR;
        Bed bed(traits);
        kplat::NdisAdapter& a = bed.Adapter();
        uint64_t sets = 0, resets = 0;
        for (Step s : r.steps) {
            ULONG state = s == D0 ? NdisDeviceStateD0 : NdisDeviceStateD3, read, needed;
            switch (s) {
            case D0:
            case D3:
                EXPECT_EQ(a.Set(OID_PNP_SET_POWER, &state, sizeof(state), &read, &needed), NDIS_STATUS_PENDING);
                sets++;
                break;
            case Reset:
                EXPECT_EQ(a.Reset(), NDIS_STATUS_PENDING);
                resets++;
                break;
            case Hold: bed.Device().HoldNextControl(1); break;
            case Release:
                EXPECT_EQ(bed.Device().GetState().heldControl, 1u);
                bed.Device().ReleaseHeldControl();
                break;
            }
            // A power request's work runs until it completes or waits; a
            // reset's stop is queued behind it.
            if (s == D0 || s == D3) kplat::RunUntilIdle();
            if (s == D3) bed.Settle(100);
        }
        bed.Settle(1000);
        EXPECT_EQ(a.SetCompletions(), sets);
        EXPECT_EQ(a.LastSetCompletionStatus(), NDIS_STATUS_SUCCESS);
        EXPECT_FALSE(a.ResetPending());
        EXPECT_EQ(a.Resets(), resets);
        EXPECT_EQ(a.LastResetStatus(), NDIS_STATUS_SUCCESS);
        bed.Received();
        bed.Send({testbed::Frame(300, 1)});
        EXPECT_EQ(bed.Received().size(), 1u) << "traffic after the requests";
        EXPECT_FALSE(trace.Contains("FATAL") || trace.Contains("ASSERTION FAILED")) << trace.Text();
    }
}
