// Fuzz target: the reference NTB decoder and encoder (tests/common), which the
// driver's receive parser and transmit builder are checked against.
//
// Input: byte 0 holds the configuration, the rest is the payload.
//   bit 0      NTB32 (set) or NTB16: the form of the round trip, and the
//              form a decoding seed is written for (decoding runs under both)
//   bit 1      chain rule: count limit (set) or forward only
//   bits 2..5  count limit - 1 (1..16 NDPs)
//   bit 7      encode round trip (set) instead of decoding the payload
//
// Decoding: the payload is one received transfer. Checks: the walk ends
// within the chain rule's bound; every datagram handed over lies inside the
// transfer, has a non-zero index and length, and its payload is the bytes
// there, shortened by exactly the CRC rule; every walked NDP lies inside the
// transfer; the outcome and the reason agree; a transfer is never accepted
// under both forms.
//
// Round trip: the payload gives raw transmit parameters and frames; every NTB
// built from them follows the placement rules and decodes to the frames.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "ntb_reference.h"

using namespace ntbref;

namespace {

constexpr size_t kMaxInputSize = 8192;

#define CHECK(cond)                                                          \
    do {                                                                     \
        if (!(cond)) {                                                       \
            fprintf(stderr, "ntbref_fuzz:%d: check failed: %s\n", __LINE__, #cond); \
            abort();                                                         \
        }                                                                    \
    } while (0)

void CheckDecode(const uint8_t* data, size_t size, Form form, const DecodeOptions& options, DecodeResult* out)
{
    DecodeResult result = Decode(data, size, form, options);
    const uint64_t minNdp = form == Form::Ntb16 ? 12 : 24;

    switch (result.outcome) {
    case Outcome::Accepted:
        CHECK(result.reason == Reason::None && result.reasonText.empty());
        CHECK(!result.ndpOffsets.empty() && !result.datagrams.empty());
        break;
    case Outcome::Rejected:
        CHECK(result.reason != Reason::None && result.reason != Reason::ChainBound);
        CHECK(!result.reasonText.empty());
        CHECK(result.ndpOffsets.empty() && result.datagrams.empty());
        break;
    case Outcome::ChainCut:
        CHECK(result.reason != Reason::None && result.reason != Reason::InvalidLength &&
              result.reason != Reason::InvalidNthSignature);
        CHECK(!result.ndpOffsets.empty() && !result.datagrams.empty());
        break;
    }

    // The walk is bounded.
    if (options.chainRule == ChainRule::ForwardOnly) {
        for (size_t i = 1; i < result.ndpOffsets.size(); i++) {
            CHECK(result.ndpOffsets[i] > result.ndpOffsets[i - 1]);
        }
    } else {
        CHECK(result.ndpOffsets.size() <= options.maxNdps);
    }
    for (uint32_t ndp : result.ndpOffsets) {
        CHECK(ndp > 0 && ndp + minNdp < size);
    }
    for (const Datagram& d : result.datagrams) {
        CHECK(d.index > 0 && d.length > 0);
        CHECK((uint64_t)d.index + d.length <= size);
        const uint32_t expected = d.crcSignature && d.length >= 5 ? d.length - 4 : d.length;
        CHECK(d.payloadLength == expected);
        CHECK(d.payload.size() == d.payloadLength);
        for (size_t i = 0; i < d.payload.size(); i++) {
            CHECK(d.payload[i] == data[d.index + i]);
        }
    }
    *out = result;
}

bool HeaderRejected(const DecodeResult& result)
{
    return result.reason == Reason::InvalidLength || result.reason == Reason::InvalidNthSignature;
}

uint32_t Take16(const uint8_t*& p, size_t& size)
{
    uint32_t value = 0;
    if (size >= 2) {
        value = (uint32_t)p[0] | (uint32_t)p[1] << 8;
        p += 2;
        size -= 2;
    }
    return value;
}

uint32_t Take8(const uint8_t*& p, size_t& size)
{
    uint32_t value = 0;
    if (size >= 1) {
        value = p[0];
        p++;
        size--;
    }
    return value;
}

void RoundTrip(const uint8_t* p, size_t size, Form form)
{
    EncodeParams params;
    params.form = form;
    params.divisor = Take8(p, size);
    params.remainder = Take8(p, size);
    params.alignment = Take8(p, size);
    params.maxDatagrams = Take8(p, size);
    params.oneByteTermination = (Take8(p, size) & 0x01) != 0;
    params.maxPacket = 1 + Take16(p, size) % 1024;
    params.bufferSize = 24 + Take16(p, size);
    if (form == Form::Ntb16 && params.bufferSize > 65535) {
        params.bufferSize = 65535;
    }
    params.maxSegmentSize = 1 + Take16(p, size) % 2048;
    params.sequence = (uint16_t)Take16(p, size);
    params.gapFill = 0xEE;

    std::vector<std::vector<uint8_t>> frames;
    while (size > 0) {
        size_t length = Take8(p, size);
        if (length > size) {
            length = size;
        }
        frames.emplace_back(p, p + length);
        p += length;
        size -= length;
    }

    const EncodeParams fixed = Corrected(params);
    CHECK(fixed.alignment >= 4 && fixed.divisor >= 1 && fixed.remainder < fixed.divisor);
    CHECK(fixed.maxDatagrams >= 1 && fixed.maxDatagrams <= 169);
    const uint32_t nth = form == Form::Ntb16 ? 12 : 16;
    const uint32_t entrySize = form == Form::Ntb16 ? 4 : 8;
    const uint32_t minNdp = form == Form::Ntb16 ? 12 : 24;

    std::vector<EncodedNtb> ntbs = EncodeAll(frames, params);
    size_t frame = 0;
    uint16_t sequence = params.sequence;
    for (const EncodedNtb& ntb : ntbs) {
        CHECK(ntb.framesUsed == ntb.entries.size() && !ntb.entries.empty());
        CHECK(ntb.entries.size() <= fixed.maxDatagrams);
        CHECK(ntb.sequence == sequence);
        sequence = (uint16_t)((sequence + 1) & 0xFFFF);
        CHECK(ntb.bytes.size() == ntb.blockLength && ntb.written.size() == ntb.blockLength);
        CHECK(ntb.blockLength <= fixed.bufferSize);
        CHECK(ntb.ndpOffset % fixed.alignment == 0);
        CHECK(ntb.ndpLength == minNdp + entrySize * ntb.entries.size());
        CHECK(ntb.blockLength == ntb.ndpOffset + ntb.ndpLength + (ntb.terminationByte ? 1 : 0));
        if (ntb.terminationByte) {
            CHECK(fixed.oneByteTermination && (ntb.blockLength - 1) % fixed.maxPacket == 0);
            CHECK(ntb.bytes[ntb.blockLength - 1] == 0);
        } else if (fixed.oneByteTermination) {
            CHECK(ntb.blockLength % fixed.maxPacket != 0 || ntb.blockLength >= fixed.bufferSize);
        }
        uint32_t end = nth;
        for (const Entry& e : ntb.entries) {
            CHECK(e.index >= end && (e.index + 14) % fixed.divisor == fixed.remainder);
            CHECK(e.index <= end + fixed.divisor - 1 + fixed.remainder);
            end = e.index + e.length;
        }
        CHECK(ntb.ndpOffset >= end && ntb.ndpOffset < end + fixed.alignment);

        DecodeResult decoded = Decode(ntb.bytes, form);
        CHECK(decoded.outcome == Outcome::Accepted);
        CHECK(decoded.ndpOffsets.size() == 1 && decoded.ndpOffsets[0] == ntb.ndpOffset);
        CHECK(decoded.datagrams.size() == ntb.entries.size());
        for (size_t i = 0; i < decoded.datagrams.size(); i++, frame++) {
            const Datagram& d = decoded.datagrams[i];
            CHECK(d.index == ntb.entries[i].index && d.length == ntb.entries[i].length && !d.crcSignature);
            CHECK(frame < frames.size());
            const std::vector<uint8_t>& f = frames[frame];
            const size_t expected = f.size() < fixed.maxSegmentSize ? f.size() : fixed.maxSegmentSize;
            CHECK(d.payload.size() == expected);
            for (size_t j = 0; j < expected; j++) {
                CHECK(d.payload[j] == f[j]);
            }
        }
    }
    // Frames left over: the queue "ended" at an empty frame, or not even an
    // empty NTB takes a datagram of the maximum segment size.
    if (frame < frames.size()) {
        const uint64_t first = (uint64_t)(nth + 14 + fixed.divisor - 1) / fixed.divisor * fixed.divisor +
                               fixed.remainder - 14;
        CHECK(frames[frame].empty() ||
              first + fixed.maxSegmentSize + minNdp + entrySize + fixed.alignment + 1 > fixed.bufferSize);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > kMaxInputSize) {
        return 0;
    }
    const uint8_t config = data[0];
    data++;
    size--;

    if ((config & 0x80) != 0) {
        RoundTrip(data, size, (config & 0x01) != 0 ? Form::Ntb32 : Form::Ntb16);
        return 0;
    }

    DecodeOptions options;
    options.chainRule = (config & 0x02) != 0 ? ChainRule::CountLimit : ChainRule::ForwardOnly;
    options.maxNdps = 1 + ((config >> 2) & 0x0F);

    DecodeResult ntb16;
    DecodeResult ntb32;
    CheckDecode(data, size, Form::Ntb16, options, &ntb16);
    CheckDecode(data, size, Form::Ntb32, options, &ntb32);
    // The two transfer header signatures differ.
    CHECK(HeaderRejected(ntb16) || HeaderRejected(ntb32));
    return 0;
}
