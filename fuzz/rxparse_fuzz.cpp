// Fuzz target: the receive path of DeviceContNcm (BufferReceived,
// ProcessRxBuffers, the NDP16/NDP32 checks and the chained walk) fed
// arbitrary received transfers, without a device: NcmRxHarness copies the
// transfer into a receive buffer of its own pool, hands it to
// BufferReceived and gives every datagram back as it comes.
//
// Input (the layout of the ntbref corpus, whose decoding seeds are reused):
// byte 0 holds the configuration, the rest is one received transfer.
//   bit 0   NTB32 (set) or NTB16: the form the parser is set up for
//   bit 6   feed the transfer a second time (into the next buffer of the pool)
// Other bits are ignored.
//
// Checks: the walk ends; every datagram handed over lies inside the
// transfer and is consistent (payload length at most the datagram length,
// view fields agreeing); never two datagrams outstanding; every buffer is
// back in its pool afterwards and the parser idle; the datagrams are exactly
// those of the reference decoder (forward-only chain rule).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kplat/platform.h>

#include "devicecontncm_harness.h"
#include "devicecontncm_peer.h"
#include "fuzz_setup.h"
#include "kntrace.h"
#include "ntb_reference.h"

namespace {

constexpr size_t kBufferSize = 65535;  // the NTB16 limit; NTB32 uses the same buffers

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "rxparse_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
            abort();                                                                 \
        }                                                                            \
    } while (0)

NcmRxHarness* gHarness[2];

void CheckOne(NcmRxHarness& h, const uint8_t* data, size_t size, ntbref::Form form)
{
    h.datagrams.clear();
    CHECK(h.Feed(data, (ULONG)size));
    CHECK(h.outsideTransfer == 0);
    CHECK(h.secondWhileOutstanding == 0);
    CHECK(h.Pool().GetItemsOut() == 0);
    CHECK(!DeviceContNcmPeer::DatagramPending(h.Cont()));
    CHECK(DeviceContNcmPeer::CurrentRxBuffer(h.Cont()) == nullptr);
    CHECK(DeviceContNcmPeer::RxListEmpty(h.Cont()));

    ntbref::DecodeResult ref = ntbref::Decode(data, size, form);
    CHECK(ref.datagrams.size() == h.datagrams.size());
    for (size_t i = 0; i < ref.datagrams.size(); i++) {
        const ntbref::Datagram& r = ref.datagrams[i];
        const NcmRxHarness::Datagram& d = h.datagrams[i];
        CHECK(d.viewConsistent);
        CHECK(d.length <= d.size);
        CHECK(r.index == d.offset);
        CHECK(r.length == d.size);
        CHECK(r.payloadLength == d.length);
        CHECK(r.payload.size() == d.payload.size());
        CHECK(r.payload == std::vector<uint8_t>(d.payload.begin(), d.payload.end()));
    }
}

// At exit: the harnesses go while the stand-in still runs.
void Shutdown()
{
    delete gHarness[0];
    delete gHarness[1];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzsetup::Start(KN_TRACE_ERROR, Shutdown);  // the traces and their hex dumps run too
    gHarness[0] = new NcmRxHarness(false, kBufferSize);
    gHarness[1] = new NcmRxHarness(true, kBufferSize);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > kBufferSize + 1) {
        return 0;
    }
    const uint8_t config = data[0];
    const bool ntb32 = (config & 0x01) != 0;
    NcmRxHarness& h = *gHarness[ntb32 ? 1 : 0];
    const ntbref::Form form = ntb32 ? ntbref::Form::Ntb32 : ntbref::Form::Ntb16;
    CheckOne(h, data + 1, size - 1, form);
    if (config & 0x40) {
        CheckOne(h, data + 1, size - 1, form);
    }
    return 0;
}
