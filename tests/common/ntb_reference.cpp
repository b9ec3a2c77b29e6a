// A slow, plain reference for NCM 1.0 transfer blocks. See ntb_reference.h.
#include "ntb_reference.h"

#include <cstdio>
#include <stdexcept>

namespace ntbref {

namespace {

// Deliberately repeated here rather than taken from the driver's header.
constexpr uint32_t kNth16Signature = 0x484D434E;   // "NCMH"
constexpr uint32_t kNth32Signature = 0x686D636E;   // "ncmh"
constexpr uint32_t kNdp16NoCrc = 0x304D434E;       // "NCM0"
constexpr uint32_t kNdp16Crc = 0x314D434E;         // "NCM1"
constexpr uint32_t kNdp32NoCrc = 0x306D636E;       // "ncm0"
constexpr uint32_t kNdp32Crc = 0x316D636E;         // "ncm1"
constexpr uint32_t kEthernetHeader = 14;
constexpr uint32_t kDatagramLimit = 169;

// The sizes of one form, in one place.
struct Layout {
    uint32_t nthLength;        // 12 / 16
    uint32_t ndpHeader;        // 8 / 16
    uint32_t entrySize;        // 4 / 8
    uint32_t minTransfer;      // 24 / 40
    uint32_t nthSignature;
    uint32_t ndpNoCrc;
    uint32_t ndpCrc;
    const char* ndpName;       // "NDP16" / "NDP32" in the reason texts
    const char* lowerName;     // "ndp16" / "ndp32"
    const char* ntpName;       // "NTP16" / "NTP32"
};

const Layout& LayoutOf(Form form)
{
    static const Layout ntb16 = {12, 8, 4, 24, kNth16Signature, kNdp16NoCrc, kNdp16Crc, "NDP16", "ndp16", "NTP16"};
    static const Layout ntb32 = {16, 16, 8, 40, kNth32Signature, kNdp32NoCrc, kNdp32Crc, "NDP32", "ndp32", "NTP32"};
    return form == Form::Ntb16 ? ntb16 : ntb32;
}

// Header, entries and terminator.
uint64_t NdpLength(const Layout& layout, uint64_t entries)
{
    return layout.ndpHeader + layout.entrySize * (entries + 1);
}

// ((x + m - 1) / m) * m, written the long way.
uint64_t RoundUpTo(uint64_t x, uint64_t m)
{
    uint64_t rest = x % m;
    return rest == 0 ? x : x + (m - rest);
}

std::string Format(const char* format, uint64_t a, uint64_t b = 0)
{
    char text[160];
    snprintf(text, sizeof(text), format, (unsigned long long)a, (unsigned long long)b);
    return text;
}

uint32_t Get16At(const uint8_t* p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8; }
uint32_t Get32At(const uint8_t* p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

}  // namespace

const char* FormName(Form form) { return form == Form::Ntb16 ? "NTB16" : "NTB32"; }

const char* ReasonName(Reason reason)
{
    switch (reason) {
    case Reason::None: return "None";
    case Reason::InvalidLength: return "InvalidLength";
    case Reason::InvalidNthSignature: return "InvalidNthSignature";
    case Reason::NdpNotInBuffer: return "NdpNotInBuffer";
    case Reason::InvalidTableLength: return "InvalidTableLength";
    case Reason::NdpNotComplete: return "NdpNotComplete";
    case Reason::EmptyNdp: return "EmptyNdp";
    case Reason::NoZeroTermination: return "NoZeroTermination";
    case Reason::InvalidContent: return "InvalidContent";
    case Reason::DatagramNotInBuffer: return "DatagramNotInBuffer";
    case Reason::ChainBound: return "ChainBound";
    }
    return "?";
}

const char* OutcomeName(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Accepted: return "Accepted";
    case Outcome::Rejected: return "Rejected";
    case Outcome::ChainCut: return "ChainCut";
    }
    return "?";
}

// ---------------------------------------------------------------------------
// Byte access
// ---------------------------------------------------------------------------

void Put16(std::vector<uint8_t>& bytes, size_t offset, uint32_t value)
{
    if (bytes.size() < offset + 2) {
        bytes.resize(offset + 2, 0);
    }
    bytes[offset] = (uint8_t)(value & 0xFF);
    bytes[offset + 1] = (uint8_t)((value >> 8) & 0xFF);
}

void Put32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value)
{
    Put16(bytes, offset, value & 0xFFFF);
    Put16(bytes, offset + 2, (value >> 16) & 0xFFFF);
}

uint32_t Get16(const std::vector<uint8_t>& bytes, size_t offset)
{
    if (offset + 2 > bytes.size()) {
        throw std::out_of_range("Get16 beyond the bytes");
    }
    return Get16At(bytes.data() + offset);
}

uint32_t Get32(const std::vector<uint8_t>& bytes, size_t offset)
{
    if (offset + 4 > bytes.size()) {
        throw std::out_of_range("Get32 beyond the bytes");
    }
    return Get32At(bytes.data() + offset);
}

void PutNth(std::vector<uint8_t>& bytes, Form form, uint32_t blockLength, uint32_t ndpIndex, uint16_t sequence)
{
    const Layout& layout = LayoutOf(form);
    Put32(bytes, 0, layout.nthSignature);
    Put16(bytes, 4, layout.nthLength);
    Put16(bytes, 6, sequence);
    if (form == Form::Ntb16) {
        Put16(bytes, 8, blockLength);
        Put16(bytes, 10, ndpIndex);
    } else {
        Put32(bytes, 8, blockLength);
        Put32(bytes, 12, ndpIndex);
    }
}

void PutNdp(std::vector<uint8_t>& bytes, Form form, size_t offset, const std::vector<Entry>& entries,
            uint32_t nextNdpIndex, bool crc, uint32_t wLength)
{
    const Layout& layout = LayoutOf(form);
    if (wLength == 0) {
        wLength = (uint32_t)NdpLength(layout, entries.size());
    }
    Put32(bytes, offset, crc ? layout.ndpCrc : layout.ndpNoCrc);
    Put16(bytes, offset + 4, wLength);
    size_t at = offset + layout.ndpHeader;
    if (form == Form::Ntb16) {
        Put16(bytes, offset + 6, nextNdpIndex);
        for (const Entry& entry : entries) {
            Put16(bytes, at, entry.index);
            Put16(bytes, at + 2, entry.length);
            at += 4;
        }
        Put32(bytes, at, 0);
    } else {
        Put16(bytes, offset + 6, 0);
        Put32(bytes, offset + 8, nextNdpIndex);
        Put32(bytes, offset + 12, 0);
        for (const Entry& entry : entries) {
            Put32(bytes, at, entry.index);
            Put32(bytes, at + 4, entry.length);
            at += 8;
        }
        Put32(bytes, at, 0);
        Put32(bytes, at + 4, 0);
    }
}

// ---------------------------------------------------------------------------
// Encoding
// ---------------------------------------------------------------------------

EncodeParams Corrected(const EncodeParams& params)
{
    EncodeParams result = params;
    if (result.alignment < 4) {
        result.alignment = 4;
    }
    if (result.divisor == 0) {
        result.divisor = 1;
    }
    if (result.remainder >= result.divisor) {
        result.remainder = result.remainder % result.divisor;
    }
    if (result.maxDatagrams == 0 || result.maxDatagrams >= kDatagramLimit) {
        result.maxDatagrams = kDatagramLimit;
    }
    return result;
}

EncodedNtb Encode(const std::vector<std::vector<uint8_t>>& frames, const EncodeParams& rawParams)
{
    const EncodeParams params = Corrected(rawParams);
    const Layout& layout = LayoutOf(params.form);
    if (params.maxPacket == 0) {
        throw std::invalid_argument("maxPacket must be at least 1");
    }
    if (params.bufferSize > 256000 || (params.form == Form::Ntb16 && params.bufferSize > 65535)) {
        throw std::invalid_argument("buffer size above the limit of the form");
    }

    // The buffer as the builder sees it: untouched bytes keep gapFill.
    std::vector<uint8_t> buffer(params.bufferSize, params.gapFill);
    std::vector<bool> written(params.bufferSize, false);

    EncodedNtb ntb;
    ntb.sequence = params.sequence;

    // Rule 1: the first datagram may start right after the transfer header.
    uint64_t end = layout.nthLength;
    for (const std::vector<uint8_t>& frame : frames) {
        // Rule 6: the datagram limit.
        if (ntb.entries.size() >= params.maxDatagrams) {
            break;
        }
        // Rule 2: the payload (after the Ethernet header) on remainder modulo divisor.
        uint64_t offset = RoundUpTo(end + kEthernetHeader, params.divisor) + params.remainder - kEthernetHeader;
        // Full: one more datagram of the maximum segment size, the NDP with one
        // more entry and the NDP's alignment must fit.
        uint64_t needed = offset + params.maxSegmentSize + NdpLength(layout, ntb.entries.size() + 1) +
                          params.alignment + 1;
        if (needed > params.bufferSize) {
            break;
        }
        // An empty frame is the empty queue.
        if (frame.empty()) {
            break;
        }
        uint64_t length = frame.size() < params.maxSegmentSize ? frame.size() : params.maxSegmentSize;
        for (uint64_t i = 0; i < length; i++) {
            buffer[offset + i] = frame[i];
            written[offset + i] = true;
        }
        ntb.entries.push_back(Entry{(uint32_t)offset, (uint32_t)length});
        ntb.framesUsed++;
        end = offset + length;
    }
    if (ntb.entries.empty()) {
        return ntb;
    }

    // Rule 3: one NDP after the last datagram, aligned.
    uint64_t ndpOffset = RoundUpTo(end, params.alignment);
    uint64_t ndpLength = NdpLength(layout, ntb.entries.size());
    // Rule 4: the block length.
    uint64_t blockLength = ndpOffset + ndpLength;
    // Rule 5: one-byte termination, when there is room for the byte.
    bool terminate = params.oneByteTermination && blockLength % params.maxPacket == 0 &&
                     blockLength < params.bufferSize;
    if (terminate) {
        buffer[blockLength] = 0;
        written[blockLength] = true;
        blockLength += 1;
    }

    // Rule 7 (sequence) and the header.
    std::vector<uint8_t> header;
    PutNth(header, params.form, (uint32_t)blockLength, (uint32_t)ndpOffset, params.sequence);
    std::vector<uint8_t> ndp;
    PutNdp(ndp, params.form, 0, ntb.entries, 0, false);
    if (ndp.size() != ndpLength || header.size() != layout.nthLength) {
        throw std::logic_error("reference NDP or header of unexpected size");
    }
    for (size_t i = 0; i < header.size(); i++) {
        buffer[i] = header[i];
        written[i] = true;
    }
    for (size_t i = 0; i < ndp.size(); i++) {
        buffer[ndpOffset + i] = ndp[i];
        written[ndpOffset + i] = true;
    }

    buffer.resize(blockLength);
    written.resize(blockLength);
    ntb.bytes = buffer;
    ntb.written = written;
    ntb.ndpOffset = (uint32_t)ndpOffset;
    ntb.ndpLength = (uint32_t)ndpLength;
    ntb.blockLength = (uint32_t)blockLength;
    ntb.terminationByte = terminate;
    return ntb;
}

std::vector<EncodedNtb> EncodeAll(const std::vector<std::vector<uint8_t>>& frames, const EncodeParams& params)
{
    std::vector<EncodedNtb> result;
    std::vector<std::vector<uint8_t>> rest = frames;
    EncodeParams next = params;
    while (!rest.empty()) {
        EncodedNtb ntb = Encode(rest, next);
        if (ntb.framesUsed == 0) {
            break;
        }
        rest.erase(rest.begin(), rest.begin() + (std::ptrdiff_t)ntb.framesUsed);
        result.push_back(ntb);
        next.sequence = (uint16_t)((next.sequence + 1) & 0xFFFF);
    }
    return result;
}

// ---------------------------------------------------------------------------
// Decoding
// ---------------------------------------------------------------------------

namespace {

struct NdpCheck {
    Reason reason = Reason::None;
    std::string text;
};

// The eight checks of one NDP at offset ndp of a transfer of length size, in
// their order; the first that fails decides.
NdpCheck CheckNdp(const uint8_t* data, uint64_t size, Form form, uint64_t ndp)
{
    const Layout& layout = LayoutOf(form);
    const uint64_t minNdp = NdpLength(layout, 0);   // 12 / 24
    NdpCheck check;

    // 1: a null NDP pointer cannot arise from an offset into a real buffer.
    // 2: the NDP must lie after the start and its smallest form before the end.
    if (ndp == 0 || ndp >= size - minNdp) {
        check.reason = Reason::NdpNotInBuffer;
        check.text = std::string(layout.lowerName) + " not in buffer";
        return check;
    }
    const uint64_t wLength = Get16At(data + ndp + 4);
    // 3
    if (wLength < minNdp) {
        check.reason = Reason::InvalidTableLength;
        check.text = Format("invalid table len: 0x%llx", wLength);
        return check;
    }
    // 4
    if (wLength > size || ndp + wLength > size) {
        check.reason = Reason::NdpNotComplete;
        check.text = Format((std::string(layout.ndpName) + " not complete in buffer: ndp.wLength:%llu, bufferSize:%llu")
                                .c_str(),
                            wLength, size);
        return check;
    }
    // 5
    const uint64_t n = (wLength - minNdp) / layout.entrySize;
    if (n == 0) {
        check.reason = Reason::EmptyNdp;
        check.text = std::string("empty ") + layout.ntpName;
        return check;
    }
    auto entryAt = [&](uint64_t i, uint64_t* index, uint64_t* length) {
        const uint8_t* p = data + ndp + layout.ndpHeader + layout.entrySize * i;
        if (form == Form::Ntb16) {
            *index = Get16At(p);
            *length = Get16At(p + 2);
        } else {
            *index = Get32At(p);
            *length = Get32At(p + 4);
        }
    };
    // 6: the terminator is entry n.
    uint64_t index = 0;
    uint64_t length = 0;
    entryAt(n, &index, &length);
    if (index != 0 || length != 0) {
        check.reason = Reason::NoZeroTermination;
        check.text = std::string(layout.ndpName) + " no zero termination";
        return check;
    }
    // 7 and 8, entry by entry; the sum in 64 bits cannot wrap.
    for (uint64_t i = 0; i < n; i++) {
        entryAt(i, &index, &length);
        if (index == 0 || length == 0) {
            check.reason = Reason::InvalidContent;
            check.text = Format((std::string(layout.ndpName) + " invalid content (entry %llu)").c_str(), i);
            return check;
        }
        if (index + length > size) {
            check.reason = Reason::DatagramNotInBuffer;
            check.text = Format((std::string(layout.ndpName) + " datagram not in buffer (entry %llu)").c_str(), i);
            return check;
        }
    }
    return check;
}

}  // namespace

DecodeResult Decode(const std::vector<uint8_t>& transfer, Form form, const DecodeOptions& options)
{
    return Decode(transfer.data(), transfer.size(), form, options);
}

DecodeResult Decode(const uint8_t* data, size_t size, Form form, const DecodeOptions& options)
{
    const Layout& layout = LayoutOf(form);
    DecodeResult result;

    // The transfer header: length, then signature. Everything else in it is
    // ignored apart from the first NDP index.
    if (size < layout.minTransfer) {
        result.outcome = Outcome::Rejected;
        result.reason = Reason::InvalidLength;
        result.reasonText = Format("invalid length: 0x%llx", size);
        return result;
    }
    const uint32_t signature = Get32At(data);
    if (signature != layout.nthSignature) {
        result.outcome = Outcome::Rejected;
        result.reason = Reason::InvalidNthSignature;
        result.reasonText = Format("invalid NTH signature: 0x%llx", signature);
        return result;
    }
    uint64_t ndp = form == Form::Ntb16 ? Get16At(data + 10) : Get32At(data + 12);
    NdpCheck check = CheckNdp(data, size, form, ndp);
    if (check.reason != Reason::None) {
        result.outcome = Outcome::Rejected;
        result.reason = check.reason;
        result.reasonText = check.text;
        result.failedNdpOffset = (uint32_t)ndp;
        return result;
    }

    // The walk. Every NDP reaching this loop has passed its checks.
    for (;;) {
        result.ndpOffsets.push_back((uint32_t)ndp);
        const uint64_t wLength = Get16At(data + ndp + 4);
        const uint64_t n = (wLength - NdpLength(layout, 0)) / layout.entrySize;
        const bool crc = Get32At(data + ndp) == layout.ndpCrc;
        for (uint64_t i = 0; i < n; i++) {
            const uint8_t* p = data + ndp + layout.ndpHeader + layout.entrySize * i;
            Datagram datagram;
            datagram.ndpOffset = (uint32_t)ndp;
            datagram.index = form == Form::Ntb16 ? Get16At(p) : Get32At(p);
            datagram.length = form == Form::Ntb16 ? Get16At(p + 2) : Get32At(p + 4);
            datagram.crcSignature = crc;
            // The CRC rule: a with-CRC NDP loses the last four bytes of each
            // datagram of 5 bytes or more.
            datagram.payloadLength = crc && datagram.length >= 5 ? datagram.length - 4 : datagram.length;
            datagram.payload.assign(data + datagram.index, data + datagram.index + datagram.payloadLength);
            result.datagrams.push_back(datagram);
        }

        const uint64_t next = form == Form::Ntb16 ? Get16At(data + ndp + 6) : Get32At(data + ndp + 8);
        if (next == 0) {
            result.outcome = Outcome::Accepted;
            return result;
        }
        bool bounded = options.chainRule == ChainRule::ForwardOnly ? next <= ndp
                                                                   : result.ndpOffsets.size() >= options.maxNdps;
        if (bounded) {
            result.outcome = Outcome::ChainCut;
            result.reason = Reason::ChainBound;
            result.reasonText = Format(options.chainRule == ChainRule::ForwardOnly
                                           ? "chain not followed: next NDP at 0x%llx is not after 0x%llx"
                                           : "chain not followed: next NDP at 0x%llx after %llu NDPs",
                                       next, options.chainRule == ChainRule::ForwardOnly ? ndp
                                                                                          : result.ndpOffsets.size());
            result.failedNdpOffset = (uint32_t)next;
            return result;
        }
        check = CheckNdp(data, size, form, next);
        if (check.reason != Reason::None) {
            result.outcome = Outcome::ChainCut;
            result.reason = check.reason;
            result.reasonText = check.text;
            result.failedNdpOffset = (uint32_t)next;
            return result;
        }
        ndp = next;
    }
}

}  // namespace ntbref
