// Fuzz target: the OID handlers of the whole miniport on the simulated NCM
// function (testbed.h, virtual clock): arbitrary OID codes, lengths and
// contents, queried and set between sends, frames from the network, link
// notifications, power cycles, resets and the passing of time, then a halt
// or a surprise removal.
//
// Input (at most kMaxInputSize bytes; ops past kMaxOps are ignored):
//   byte 0     configuration: bits 0-1 the device's multicast filters (32,
//              0, 1, 3); bit 2 VLAN 5 on; bit 3 the device keeps no
//              statistics; bit 4 statistics polled every 100 ms; bit 5
//              every OID trace on (else errors only); bit 6 the end is a
//              surprise removal (else a halt); bit 7 a 1 s transmit watchdog
//   then ops   one byte each: bits 0-2 the op, bits 3-7 its argument a
//     0 query  [oid] [length]                 a & 1 with length 0: null buffer
//     1 set    [oid] [length] [content]       the same; content is `length`
//                                             bytes (zeros past the input)
//     2 send   [size]   a + 1 frames of max(14, 6 * size) bytes
//     3 link   a % 4: 0 down, 1 up, 2 [down rate u32][up rate u32] speed
//              change, 3 NETWORK_CONNECTION with value a / 4
//     4 frames [size]   a + 1 frames from the network, sized as for send
//     5 time   50 * a ms pass
//     6 power  a power cycle: D3, 100 ms, D0, 100 ms
//     7 reset  MPReset, as after a hang
//   [oid]      one byte: below the table's size an index into the OIDs the
//              adapter lists as supported (in its order), then kUnlisted;
//              else a u32 OID follows
//   [length]   one byte; 255: a u16 length follows
// u16 and u32 values are little-endian; a value cut off by the input's end
// reads as zeros. Between ops the stand-in runs until idle without moving
// the clock, so a power request stays pending until time passes.
//
// Checks: every request's status and counts are within what NDIS allows
// (the information buffer is exactly `length` bytes, so AddressSanitizer
// sees any access past it); no assertion or lock-balance failure is traced;
// the stand-in's verifier finds nothing (every pended set and reset
// completes, once, and in time); after the end every packet is completed,
// the device saw only valid NTBs, and once the driver is unloaded no pool
// block of the driver is left.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

#include "testbed.h"

namespace {

#define CHECK(cond)                                                              \
    do {                                                                         \
        if (!(cond)) {                                                           \
            fprintf(stderr, "oid_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
            abort();                                                             \
        }                                                                        \
    } while (0)

constexpr size_t kMaxInputSize = 4096;
constexpr int kMaxOps = 64;

// OIDs the adapter does not list as supported, which an index names after
// those it lists: the wake-up pattern OIDs and two codes nobody defines.
const NDIS_OID kUnlisted[] = {
    OID_PNP_ADD_WAKE_UP_PATTERN, OID_PNP_REMOVE_WAKE_UP_PATTERN, OID_PNP_WAKE_UP_PATTERN_LIST,
    OID_PNP_WAKE_UP_OK,          OID_PNP_WAKE_UP_ERROR,          0xFC010209,
    0xFC01020A,
};

// The input, read front to back; past its end every byte is 0.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
    // The OIDs an [oid] byte indexes.
    void SetOids(std::vector<NDIS_OID> oids) { mOids = std::move(oids); }
    bool More() const { return mAt < mSize; }
    uint8_t U8() { return mAt < mSize ? mData[mAt++] : 0; }
    uint32_t U16()
    {
        uint32_t low = U8();
        return low | (uint32_t)U8() << 8;
    }
    uint32_t U32()
    {
        uint32_t low = U16();
        return low | U16() << 16;
    }
    NDIS_OID Oid()
    {
        uint8_t b = U8();
        return b < mOids.size() ? mOids[b] : U32();
    }
    ULONG Length()
    {
        uint8_t b = U8();
        return b == 255 ? U16() : b;
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mAt = 0;
    std::vector<NDIS_OID> mOids;
};

// The adapter's supported list, in its order, then kUnlisted.
std::vector<NDIS_OID> OidTable(kplat::NdisAdapter& a)
{
    NDIS_OID listed[128];
    ULONG written = 0, needed = 0;
    CHECK(a.Query(OID_GEN_SUPPORTED_LIST, listed, sizeof(listed), &written, &needed) == NDIS_STATUS_SUCCESS);
    std::vector<NDIS_OID> table(listed, listed + written / sizeof(NDIS_OID));
    table.insert(table.end(), std::begin(kUnlisted), std::end(kUnlisted));
    return table;
}

size_t FrameSize(uint8_t size) { return size * 6u < 14 ? 14 : size * 6u; }

void Query(kplat::NdisAdapter& a, Reader& in, bool null)
{
    NDIS_OID oid = in.Oid();
    ULONG length = in.Length();
    std::vector<uint8_t> buffer(length);
    ULONG written = ~0u, needed = ~0u;
    NDIS_STATUS s = a.Query(oid, null && length == 0 ? nullptr : buffer.data(), length, &written, &needed);
    CHECK(s == NDIS_STATUS_SUCCESS || s == NDIS_STATUS_INVALID_LENGTH || s == NDIS_STATUS_NOT_SUPPORTED);
    if (s == NDIS_STATUS_SUCCESS) CHECK(written <= length && needed == ~0u);
    if (s == NDIS_STATUS_INVALID_LENGTH) CHECK(needed > length && written == ~0u);
    if (s == NDIS_STATUS_NOT_SUPPORTED) CHECK(written == ~0u && needed == ~0u);
}

void Set(kplat::NdisAdapter& a, Reader& in, bool null)
{
    NDIS_OID oid = in.Oid();
    ULONG length = in.Length();
    std::vector<uint8_t> buffer(length);
    for (uint8_t& b : buffer) b = in.U8();
    const std::vector<uint8_t> before = buffer;
    ULONG read = ~0u, needed = ~0u;
    const bool pendingBefore = a.SetPending();
    NDIS_STATUS s = a.Set(oid, null && length == 0 ? nullptr : buffer.data(), length, &read, &needed);
    CHECK(buffer == before);
    if (pendingBefore) {
        // NDIS holds a request back while one is pending.
        CHECK(s == NDIS_STATUS_FAILURE);
        return;
    }
    CHECK(s != NDIS_STATUS_PENDING || oid == OID_PNP_SET_POWER);
    if (s == NDIS_STATUS_SUCCESS) CHECK(read <= length && needed == ~0u);
    if (s != NDIS_STATUS_SUCCESS && s != NDIS_STATUS_PENDING) CHECK(read == ~0u && needed != ~0u);
}

void PowerCycle(testbed::Bed& bed)
{
    for (ULONG state : {NdisDeviceStateD3, NdisDeviceStateD0}) {
        ULONG read, needed;
        bed.Adapter().Set(OID_PNP_SET_POWER, &state, sizeof(state), &read, &needed);
        bed.Settle(100);
    }
}

void Run(const uint8_t* data, size_t size)
{
    Reader in(data, size);
    const uint8_t config = in.U8();
    testbed::Traits traits;
    const uint16_t filters[] = {32, 0, 1, 3};
    traits.profile.wNumberMCFilters = filters[config & 3];
    if (config & 0x04) {
        traits.params["VlanEnabled"] = 1;
        traits.params["VlanID"] = 5;
    }
    if (config & 0x08) traits.profile.bmEthernetStatistics = 0;
    if (config & 0x10) traits.params["StatisticsUpdateInterval"] = 100;
    traits.traceMask = config & 0x20 ? 0x1F : KN_TRACE_ERROR;
    if (config & 0x80) traits.params["TxTimeout"] = 1000;
    testbed::Bed bed(traits);
    CHECK(bed.Adapter().InitializeStatus() == NDIS_STATUS_SUCCESS);
    kplat::NdisAdapter& a = bed.Adapter();
    in.SetOids(OidTable(a));

    for (int op = 0; op < kMaxOps && in.More(); op++) {
        const uint8_t b = in.U8();
        const unsigned arg = b >> 3;
        switch (b & 7) {
        case 0: Query(a, in, arg & 1); break;
        case 1: Set(a, in, arg & 1); break;
        case 2: {
            testbed::Bytes f = testbed::Frame(FrameSize(in.U8()), op);
            for (unsigned i = 0; i <= arg; i++) a.SendFrame(f.data(), f.size());
            break;
        }
        case 3:
            switch (arg % 4) {
            case 0: bed.Device().SetLink(false); break;
            case 1: bed.Device().SetLink(true); break;
            case 2: {
                uint32_t down = in.U32();
                bed.Device().NotifySpeedChange(down, in.U32());
                break;
            }
            case 3: bed.Device().NotifyNetworkConnection((uint16_t)(arg / 4)); break;
            }
            break;
        case 4: {
            testbed::Bytes f = testbed::Frame(FrameSize(in.U8()), op);
            for (unsigned i = 0; i <= arg; i++) bed.Device().OnFrame(f.data(), f.size());
            break;
        }
        case 5: bed.Settle(50 * arg); break;
        case 6: PowerCycle(bed); break;
        case 7: a.Reset(); break;
        }
        kplat::RunUntilIdle();
    }

    // What is pending completes (the verifier reports what does not within
    // its 12 s), then the adapter ends.
    if (a.SetPending() || a.ResetPending()) bed.Settle(13000);
    CHECK(!a.SetPending() && !a.ResetPending());
    if (config & 0x40) {
        a.SurpriseRemove();
    } else {
        a.Halt();
    }
    CHECK(a.PacketsOutstanding() == 0);
    CHECK(a.PacketsCompleted() == a.PacketsSent());
    CHECK(bed.Device().TotalViolations() == 0);
    bed.Unplug();
    bed.Driver().Unload();
    CHECK(testbed::Bed::DriverLedger() == "");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // A failed assertion or an unbalanced lock is only traced by the
    // driver; here it is a finding.
    kplat::SetDebugSinkCallback([](const char* text) {
        if (strstr(text, "ASSERTION FAILED") != nullptr || strstr(text, "FATAL") != nullptr) {
            fprintf(stderr, "oid_fuzz: driver trace: %s\n", text);
            abort();
        }
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size > kMaxInputSize) {
        return 0;
    }
    Run(data, size);
    return 0;
}
