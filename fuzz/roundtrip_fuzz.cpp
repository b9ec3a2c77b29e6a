// Fuzz target: the transmit builder of DeviceContNcm under arbitrary NTB
// parameters of the device. A minimal NCM function (AckNcmDevice) on the
// stand-in's USB bus answers Init and Start with the fuzzed parameters and
// takes every bulk OUT packet; the frames of the input go through
// ProcessTxBuffers, FillTxBuffer and FinishTxBuffer, the real OUT stream and
// the bus, and every NTB that crossed the wire is parsed back.
//
// Input:
//   byte 0      bit 0 NTB32 supported; bit 1 OneByteTermination; bit 2 full
//               speed (64-byte packets, else 512); bits 3-4 TxBuffers - 2
//   bytes 1-12  wNdpOutDivisor, wNdpOutPayloadRemainder, wNdpOutAlignment,
//               wNtbOutMaxDatagrams (2 bytes each), dwNtbOutMaxSize (4),
//               little-endian, as the device reports them
//   then        frames, 3 bytes each: length (1 + u16 % 1514), pattern seed
//
// Checks: Init refuses the device exactly when its output size cannot hold
// one frame of the largest size; every frame leaves, once, in order, byte
// for byte (parsed back by the reference decoder and by the driver's own
// receive parser); every NTB keeps its size (block length = transfer
// length, at most the output size, a zero-length packet exactly after a
// full last packet), its datagram count (at most the limit), the divisor
// and remainder of each datagram, the NDP alignment and the sequence; the
// first NTB (idle pipe) carries one datagram and, with that one held in
// flight while the rest is queued, every later one equals the reference
// encoder's.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <vector>

#include <kplat/platform.h>
#include <kplat/usbbus.h>

#include "devicecontncm_ackdevice.h"
#include "devicecontncm_harness.h"
#include "devicecontncm_peer.h"
#include "knpooltags.h"
#include "fuzz_setup.h"
#include "kntrace.h"
#include "ntb_reference.h"

namespace {

#define CHECK(cond)                                                                    \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            fprintf(stderr, "roundtrip_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
            abort();                                                                   \
        }                                                                              \
    } while (0)

constexpr size_t kMaxFrames = 600;
constexpr ULONG kMaxSegmentSize = 1514;

using Bytes = std::vector<uint8_t>;

// The adapter's transmit queue.
class TxAdapter : public DeviceNotify {
public:
    explicit TxAdapter(NdSpinlock* lock) : mLock(lock) {}
    void NetworkStateChanged(bool) override {}
    void ConnectionSpeedChanged(ULONG, ULONG) override {}
    ULONG SubmitTxPackets(UCHAR* destination, ULONG maxLength) override
    {
        NdSpinlockGuard guard(mLock);
        if (queue.empty()) {
            return 0;
        }
        const Bytes& f = queue.front();
        ULONG n = (ULONG)std::min<size_t>(maxLength, f.size());
        std::memcpy(destination, f.data(), n);
        queue.pop_front();
        return n;
    }
    void ProcessReceivedData(UsbBuf*) override {}
    void StartCompleted(NTSTATUS) override {}
    void StopCompleted() override {}
    ULONG GetMulticastList(ULONG, UCHAR*) override { return 0; }

    std::deque<Bytes> queue;  // guarded by *mLock

private:
    NdSpinlock* mLock;
};

uint32_t Le16(const uint8_t* p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8; }
uint32_t Le32(const uint8_t* p) { return Le16(p) | Le16(p + 2) << 16; }

PDEVICE_OBJECT gFdo;
NcmRxHarness* gParser[2];

// At exit: the parsers go while the stand-in still runs.
void Shutdown()
{
    delete gParser[0];
    delete gParser[1];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    gFdo = fuzzsetup::Start(KN_TRACE_ERROR, Shutdown, true);
    gParser[0] = new NcmRxHarness(false, 65535, 2);
    gParser[1] = new NcmRxHarness(true, 256000, 2);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 13 || size > 13 + 3 * kMaxFrames) {
        return 0;
    }
    const uint8_t flags = data[0];
    const bool ntb32 = (flags & 0x01) != 0;
    const bool oneByte = (flags & 0x02) != 0;
    const bool fullSpeed = (flags & 0x04) != 0;
    const uint16_t maxPacket = fullSpeed ? 64 : 512;
    const uint32_t divisor = Le16(data + 1), remainder = Le16(data + 3), alignment = Le16(data + 5);
    const uint32_t maxDatagrams = Le16(data + 7), outMax = Le32(data + 9);

    std::vector<Bytes> frames;
    for (size_t at = 13; at + 3 <= size; at += 3) {
        Bytes f(1 + Le16(data + at) % kMaxSegmentSize);
        for (size_t i = 0; i < f.size(); i++) f[i] = (uint8_t)(data[at + 2] + i * 13 + (i >> 7));
        frames.push_back(std::move(f));
    }

    // What Init must make of the parameters.
    ntbref::EncodeParams params;
    params.form = ntb32 ? ntbref::Form::Ntb32 : ntbref::Form::Ntb16;
    params.divisor = divisor;
    params.remainder = remainder;
    params.alignment = alignment;
    params.maxDatagrams = maxDatagrams;
    params.oneByteTermination = oneByte;
    params.maxPacket = maxPacket;
    params.bufferSize = std::min<uint32_t>(outMax, ntb32 ? 256000 : 65535);
    params.maxSegmentSize = kMaxSegmentSize;
    const ntbref::EncodeParams fixed = ntbref::Corrected(params);
    const uint64_t firstOffset = (fixed.form == ntbref::Form::Ntb32 ? 16 : 12) + 14;
    const uint64_t oneFrame = (firstOffset + fixed.divisor - 1) / fixed.divisor * fixed.divisor + fixed.remainder -
                              14 + kMaxSegmentSize + (ntb32 ? 32 : 16) + fixed.alignment + 1;
    const bool fits = params.bufferSize >= 24 && oneFrame <= params.bufferSize;

    kplat::UsbBus* bus = new kplat::UsbBus();
    AckNcmDevice* device =
        new AckNcmDevice(AckNcmDevice::NcmConfiguration(maxPacket),
                         AckNcmDevice::NtbParameters(ntb32 ? 0x0003 : 0x0001, 16384, outMax, (uint16_t)divisor,
                                                     (uint16_t)remainder, (uint16_t)alignment, (uint16_t)maxDatagrams),
                         fullSpeed ? kplat::UsbSpeed::Full : kplat::UsbSpeed::High);
    device->SetMaxPacket(maxPacket);
    bus->Attach(device);
    NdSpinlock lock;
    TxAdapter adapter(&lock);
    AdapterConfig config;
    config.OneByteTermination = oneByte ? 1 : 0;
    config.TxBuffers = 2 + ((flags >> 3) & 3);
    DeviceContNcm* cont = new (NonPagedPool, KN_POOL_TAG_NCM) DeviceContNcm();

    NTSTATUS status = cont->Init(gFdo, bus->Pdo(), bus->Pdo(), &adapter, &config, &lock);
    CHECK(NT_SUCCESS(status) == fits);
    if (NT_SUCCESS(status)) {
        CHECK(DeviceContNcmPeer::OutputBufferSize(*cont) == params.bufferSize);
        CHECK(DeviceContNcmPeer::MaxTxDatagrams(*cont) == fixed.maxDatagrams);
        CHECK(NT_SUCCESS(cont->Start()));
        kplat::RunUntilIdle();
        // The first frame leaves alone on the idle pipe and stays in flight
        // while the rest is queued, so that every later NTB is packed full
        // (a run that found the pipe idle again would send at once).
        device->HoldOut();
        for (size_t i = 0; i < frames.size(); i++) {
            {
                NdSpinlockGuard guard(&lock);
                adapter.queue.push_back(frames[i]);
            }
            if (i == 0 || i + 1 == frames.size()) {
                cont->ProcessTxPackets();
                kplat::RunUntilIdle();
            }
        }
        device->ReleaseOut();
        kplat::RunUntilIdle();
        {
            NdSpinlockGuard guard(&lock);
            CHECK(adapter.queue.empty());
        }
        CHECK(cont->IsTxPathIdle());
        cont->Stop();
    }
    cont->Exit();
    kplat::RunUntilIdle();
    delete cont;
    std::vector<AckNcmDevice::Transfer> transfers = device->Transfers();
    delete bus;
    delete device;
    if (!NT_SUCCESS(status)) {
        CHECK(transfers.empty());
        return 0;
    }

    // Every NTB on its own, then all of them against the frames.
    NcmRxHarness& parser = *gParser[ntb32 ? 1 : 0];
    std::vector<Bytes> delivered;
    std::vector<Bytes> ntbs;
    for (size_t t = 0; t < transfers.size(); t++) {
        const Bytes& b = transfers[t].bytes;
        CHECK(!b.empty());
        CHECK(transfers[t].zlp == (b.size() % maxPacket == 0));
        CHECK(b.size() <= params.bufferSize);
        const uint32_t block = ntb32 ? Le32(&b[8]) : Le16(&b[8]);
        const uint32_t ndp = ntb32 ? Le32(&b[12]) : Le16(&b[10]);
        CHECK(block == b.size());
        CHECK(Le16(&b[6]) == (uint16_t)t);
        CHECK(ndp % fixed.alignment == 0);

        ntbref::DecodeResult ref = ntbref::Decode(b, params.form);
        CHECK(ref.outcome == ntbref::Outcome::Accepted);
        CHECK(ref.ndpOffsets.size() == 1 && ref.ndpOffsets[0] == ndp);
        CHECK(!ref.datagrams.empty() && ref.datagrams.size() <= fixed.maxDatagrams);
        CHECK(t != 0 || ref.datagrams.size() == 1);
        for (const ntbref::Datagram& d : ref.datagrams) {
            CHECK((d.index + 14) % fixed.divisor == fixed.remainder);
            delivered.push_back(d.payload);
        }
        parser.datagrams.clear();
        CHECK(parser.Feed(b.data(), (ULONG)b.size()));
        CHECK(parser.datagrams.size() == ref.datagrams.size());
        for (size_t i = 0; i < ref.datagrams.size(); i++) {
            CHECK(Bytes(parser.datagrams[i].payload.begin(), parser.datagrams[i].payload.end()) ==
                  ref.datagrams[i].payload);
        }
        ntbs.push_back(b);
    }
    CHECK(delivered == frames);

    // After the first NTB, the reference encoder packs the same NTBs.
    if (!frames.empty()) {
        params.sequence = 1;
        std::vector<Bytes> rest(frames.begin() + 1, frames.end());
        std::vector<ntbref::EncodedNtb> ref = ntbref::EncodeAll(rest, params);
        CHECK(ref.size() + 1 == ntbs.size());
        for (size_t i = 0; i < ref.size(); i++) {
            const Bytes& got = ntbs[i + 1];
            CHECK(ref[i].bytes.size() == got.size());
            for (size_t k = 0; k < got.size(); k++) {
                CHECK(!ref[i].written[k] || ref[i].bytes[k] == got[k]);
            }
        }
    }
    return 0;
}
