#include "ethsim/ntb.h"

#include "ethsim/ncm.h"

#include <algorithm>
#include <cstdio>

namespace ethsim {

const char* ViolationName(Violation v)
{
    switch (v) {
    case Violation::TransferTooShort: return "TransferTooShort";
    case Violation::NthSignature: return "NthSignature";
    case Violation::NthHeaderLength: return "NthHeaderLength";
    case Violation::BlockLength: return "BlockLength";
    case Violation::BlockTooLarge: return "BlockTooLarge";
    case Violation::NdpIndex: return "NdpIndex";
    case Violation::NdpAlignment: return "NdpAlignment";
    case Violation::NdpSignature: return "NdpSignature";
    case Violation::CrcMode: return "CrcMode";
    case Violation::NdpLength: return "NdpLength";
    case Violation::NdpReserved: return "NdpReserved";
    case Violation::NdpTerminator: return "NdpTerminator";
    case Violation::NdpEmpty: return "NdpEmpty";
    case Violation::NdpOverlap: return "NdpOverlap";
    case Violation::NdpChain: return "NdpChain";
    case Violation::DatagramEntry: return "DatagramEntry";
    case Violation::DatagramOutOfBlock: return "DatagramOutOfBlock";
    case Violation::DatagramOverlapsHeaders: return "DatagramOverlapsHeaders";
    case Violation::DatagramsOverlap: return "DatagramsOverlap";
    case Violation::DatagramPlacement: return "DatagramPlacement";
    case Violation::DatagramTooShort: return "DatagramTooShort";
    case Violation::DatagramTooLong: return "DatagramTooLong";
    case Violation::DatagramCrc: return "DatagramCrc";
    case Violation::TooManyDatagrams: return "TooManyDatagrams";
    case Violation::Sequence: return "Sequence";
    case Violation::SequenceStart: return "SequenceStart";
    case Violation::UnexpectedZlp: return "UnexpectedZlp";
    case Violation::MissingZlp: return "MissingZlp";
    case Violation::InactiveInterface: return "InactiveInterface";
    case Violation::kCount: break;
    }
    return "?";
}

namespace {

std::string Format(const char* fmt, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0)
{
    char buf[200];
    std::snprintf(buf, sizeof buf, fmt, static_cast<unsigned long long>(a), static_cast<unsigned long long>(b),
                  static_cast<unsigned long long>(c));
    return buf;
}

struct Range {
    uint64_t begin;
    uint64_t end;
};

bool Overlaps(const Range& x, const Range& y) { return x.begin < y.end && y.begin < x.end; }

struct Candidate {
    uint32_t index;
    uint32_t length;
    bool crc;
};

// Working lists of one check, kept per thread so that a check allocates
// nothing once they have grown.
struct Scratch {
    std::vector<Range> structures;
    std::vector<Candidate> candidates;
    std::vector<uint64_t> seen;
    std::vector<Candidate> mine;
    std::vector<Range> taken;
};
thread_local Scratch tScratch;

}  // namespace

// The rules below are those of NCM 1.0 for the NTH16/NTH32 and NDP16/NDP32
// structures and for the parameters the function announces with
// GET_NTB_PARAMETERS; each check names the rule it enforces.
CheckResult CheckNtb(const uint8_t* data, size_t length, const OutRules& rules)
{
    CheckResult r;
    CheckNtb(data, length, rules, &r);
    return r;
}

void CheckNtb(const uint8_t* data, size_t length, const OutRules& rules, CheckResult* result)
{
    CheckResult& r = *result;
    r.headerValid = false;
    r.sequence = 0;
    r.blockLength = 0;
    r.datagramEntries = 0;
    r.good.clear();
    r.rejected = 0;
    r.findings.clear();
    auto report = [&r](Violation v, std::string detail) { r.findings.push_back({v, std::move(detail)}); };

    const uint32_t nthLength = rules.ntb32 ? ntb::kNth32Length : ntb::kNth16Length;
    const uint32_t ndpHeader = rules.ntb32 ? ntb::kNdp32HeaderLength : ntb::kNdp16HeaderLength;
    const uint32_t entryLength = rules.ntb32 ? ntb::kNdp32EntryLength : ntb::kNdp16EntryLength;

    if (length < nthLength) {
        report(Violation::TransferTooShort, Format("transfer of %llu bytes, the header alone is %llu", length, nthLength));
        return;
    }
    // NTH dwSignature: "NCMH" for NTH16, "ncmh" for NTH32; the form is the
    // one the host chose with SET_NTB_FORMAT.
    const uint32_t signature = Get32(data);
    const uint32_t expected = rules.ntb32 ? ntb::kNth32Signature : ntb::kNth16Signature;
    if (signature != expected) {
        const uint32_t other = rules.ntb32 ? ntb::kNth16Signature : ntb::kNth32Signature;
        report(Violation::NthSignature,
               signature == other ? Format(rules.ntb32 ? "NTH16 signature while NTB32 is selected"
                                                       : "NTH32 signature while NTB16 is selected")
                                  : Format("signature 0x%08llx", signature));
        return;
    }
    r.headerValid = true;
    // wHeaderLength: the size of the NTH, 12 or 16.
    const uint16_t headerLength = Get16(data + 4);
    if (headerLength != nthLength) {
        report(Violation::NthHeaderLength, Format("wHeaderLength %llu, expected %llu", headerLength, nthLength));
    }
    r.sequence = Get16(data + 6);
    uint32_t blockLength = rules.ntb32 ? Get32(data + 8) : Get16(data + 8);
    const uint32_t firstNdp = rules.ntb32 ? Get32(data + 12) : Get16(data + 10);
    r.blockLength = blockLength;

    // Block length: the size of the NTB, which is the transfer. In an NTH16
    // the value 0 says that the block ends with the transfer (short packet).
    uint64_t end = length;
    if (!rules.ntb32 && blockLength == 0) {
        end = length;
    } else if (blockLength != length) {
        report(Violation::BlockLength,
               Format("block length %llu, transfer length %llu", blockLength, length));
        // Parse what is there of the block; a zero length says nothing.
        end = blockLength == 0 ? length : std::min<uint64_t>(blockLength, length);
    }
    // The NTB may not exceed dwNtbOutMaxSize.
    const uint64_t size = std::max<uint64_t>(length, blockLength);
    if (size > rules.maxSize) {
        report(Violation::BlockTooLarge, Format("%llu bytes, dwNtbOutMaxSize %llu", size, rules.maxSize));
    }

    // Walk the chain of NDPs.
    Scratch& scratch = tScratch;
    std::vector<Range>& structures = scratch.structures;
    structures.assign(1, Range{0, nthLength});
    std::vector<Candidate>& candidates = scratch.candidates;
    candidates.clear();
    std::vector<uint64_t>& seen = scratch.seen;  // NDP offsets visited (a chain has few)
    seen.clear();
    uint64_t ndp = firstNdp;
    bool firstInChain = true;
    while (true) {
        const char* which = firstInChain ? "first NDP" : "next NDP";
        // The NDP index is at least the header length and the NDP lies in
        // the block.
        if (ndp < nthLength || ndp + ndpHeader > end) {
            report(Violation::NdpIndex, Format(firstInChain ? "first NDP at %llu, block of %llu"
                                                            : "next NDP at %llu, block of %llu",
                                               ndp, end));
            break;
        }
        if (std::find(seen.begin(), seen.end(), ndp) != seen.end()) {
            report(Violation::NdpChain, Format("next NDP index %llu was already visited", ndp));
            break;
        }
        seen.push_back(ndp);
        // The NDP index is a multiple of 4 (NTH16 wNdpIndex, NDP
        // wNextNdpIndex) and of wNdpOutAlignment.
        const uint64_t alignment = std::max<uint16_t>(rules.alignment, 1);
        if (ndp % 4 != 0 || ndp % alignment != 0) {
            report(Violation::NdpAlignment,
                   std::string(which) + Format(" at %llu, wNdpOutAlignment %llu", ndp, rules.alignment));
        }
        const uint8_t* p = data + ndp;
        const uint32_t ndpSignature = Get32(p);
        const uint32_t noCrc = rules.ntb32 ? ntb::kNdp32NoCrc : ntb::kNdp16NoCrc;
        const uint32_t withCrc = rules.ntb32 ? ntb::kNdp32Crc : ntb::kNdp16Crc;
        if (ndpSignature != noCrc && ndpSignature != withCrc) {
            report(Violation::NdpSignature, Format("NDP at %llu has signature 0x%08llx", ndp, ndpSignature));
            break;
        }
        const bool crc = ndpSignature == withCrc;
        if (rules.crcFollowsMode && crc != rules.crcMode) {
            report(Violation::CrcMode, Format(crc ? "NDP at %llu says with CRC, CRC mode is off"
                                                  : "NDP at %llu says without CRC, CRC mode is on",
                                              ndp));
        }
        // wLength: a multiple of 4 and at least 16 (NDP16), a multiple of 8
        // and at least 32 (NDP32): the header, one entry and the terminator.
        const uint32_t ndpLength = Get16(p + 4);
        const uint32_t minimum = ndpHeader + 2 * entryLength;
        if (ndpLength < ndpHeader + entryLength || ndp + ndpLength > end) {
            report(Violation::NdpLength, Format("NDP at %llu: wLength %llu, block of %llu", ndp, ndpLength, end));
            break;
        }
        if (ndpLength % entryLength != 0 || ndpLength < minimum) {
            report(Violation::NdpLength, Format("NDP at %llu: wLength %llu", ndp, ndpLength));
        }
        uint64_t next;
        if (rules.ntb32) {
            // wReserved6 and dwReserved12 are zero.
            if (Get16(p + 6) != 0 || Get32(p + 12) != 0) {
                report(Violation::NdpReserved, Format("NDP at %llu", ndp));
            }
            next = Get32(p + 8);
        } else {
            next = Get16(p + 6);
        }
        const Range self = {ndp, ndp + ndpLength};
        for (const Range& other : structures) {
            if (Overlaps(self, other)) {
                report(Violation::NdpOverlap, Format("NDP at %llu..%llu overlaps bytes %llu..", self.begin,
                                                     self.end, other.begin));
                break;
            }
        }
        structures.push_back(self);

        // The datagram pointers end at the first entry whose index and
        // length are both zero; it must lie inside wLength.
        std::vector<Candidate>& mine = scratch.mine;
        mine.clear();
        bool terminated = false;
        uint32_t entries = 0;
        for (uint64_t e = ndp + ndpHeader; e + entryLength <= ndp + ndpLength; e += entryLength) {
            const uint32_t di = rules.ntb32 ? Get32(data + e) : Get16(data + e);
            const uint32_t dl = rules.ntb32 ? Get32(data + e + 4) : Get16(data + e + 2);
            if (di == 0 && dl == 0) {
                terminated = true;
                break;
            }
            ++entries;
            if (di == 0 || dl == 0) {
                report(Violation::DatagramEntry, Format("entry at %llu: index %llu, length %llu", e, di, dl));
                ++r.rejected;
                continue;
            }
            mine.push_back({di, dl, crc});
        }
        r.datagramEntries += entries;
        if (!terminated) {
            report(Violation::NdpTerminator, Format("NDP at %llu, wLength %llu", ndp, ndpLength));
            r.rejected += static_cast<uint32_t>(mine.size());
            break;
        }
        if (entries == 0) {
            report(Violation::NdpEmpty, Format("NDP at %llu", ndp));
        }
        candidates.insert(candidates.end(), mine.begin(), mine.end());
        if (next == 0) {
            break;
        }
        ndp = next;
        firstInChain = false;
    }

    // At most wNtbOutMaxDatagrams datagrams per NTB (0: no limit).
    if (rules.maxDatagrams != 0 && r.datagramEntries > rules.maxDatagrams) {
        report(Violation::TooManyDatagrams,
               Format("%llu datagrams, wNtbOutMaxDatagrams %llu", r.datagramEntries, rules.maxDatagrams));
    }

    // Datagram checks. Overlaps with earlier good datagrams are found on a
    // list kept sorted by offset.
    std::vector<Range>& taken = scratch.taken;
    taken.clear();
    const uint16_t divisor = rules.divisor;
    size_t ordinal = 0;
    for (const Candidate& c : candidates) {
        ++ordinal;
        if (rules.maxDatagrams != 0 && ordinal > rules.maxDatagrams) {
            ++r.rejected;
            continue;
        }
        const Range range = {c.index, static_cast<uint64_t>(c.index) + c.length};
        // Every datagram lies inside the block.
        if (range.end > end) {
            report(Violation::DatagramOutOfBlock,
                   Format("datagram at %llu, length %llu, block of %llu", c.index, c.length, end));
            ++r.rejected;
            continue;
        }
        // Datagrams do not overlap the NTH or an NDP ...
        bool bad = false;
        for (const Range& s : structures) {
            if (Overlaps(range, s)) {
                report(Violation::DatagramOverlapsHeaders,
                       Format("datagram %llu..%llu overlaps the structure at %llu", range.begin, range.end, s.begin));
                bad = true;
                break;
            }
        }
        if (bad) {
            ++r.rejected;
            continue;
        }
        // ... nor each other.
        auto it = std::lower_bound(taken.begin(), taken.end(), range,
                                   [](const Range& a, const Range& b) { return a.begin < b.begin; });
        if ((it != taken.end() && Overlaps(*it, range)) || (it != taken.begin() && Overlaps(*(it - 1), range))) {
            report(Violation::DatagramsOverlap, Format("datagram %llu..%llu", range.begin, range.end));
            ++r.rejected;
            continue;
        }
        // Placement: the payload offset is congruent to
        // wNdpOutPayloadRemainder modulo wNdpOutDivisor.
        if (divisor != 0 && (c.index + rules.payloadOffset) % divisor != rules.remainder % divisor) {
            report(Violation::DatagramPlacement,
                   Format("datagram at %llu: (index + %llu) mod %llu", c.index, rules.payloadOffset, divisor) +
                       Format(" = %llu, wNdpOutPayloadRemainder %llu", (c.index + rules.payloadOffset) % divisor,
                              rules.remainder));
            ++r.rejected;
            continue;
        }
        const uint32_t crcLength = c.crc ? ntb::kCrcLength : 0;
        if (c.length < ntb::kEthernetHeaderLength + crcLength) {
            report(Violation::DatagramTooShort, Format("datagram at %llu, length %llu", c.index, c.length));
            ++r.rejected;
            continue;
        }
        const uint32_t frameLength = c.length - crcLength;
        if (frameLength > rules.maxDatagramLength) {
            report(Violation::DatagramTooLong,
                   Format("datagram at %llu: frame of %llu bytes, at most %llu", c.index, frameLength,
                          rules.maxDatagramLength));
            ++r.rejected;
            continue;
        }
        if (c.crc) {
            const uint32_t want = EthernetCrc(data + c.index, frameLength);
            const uint32_t got = Get32(data + c.index + frameLength);
            if (want != got) {
                report(Violation::DatagramCrc,
                       Format("datagram at %llu: CRC 0x%08llx, expected 0x%08llx", c.index, got, want));
                ++r.rejected;
                continue;
            }
        }
        taken.insert(it, range);
        r.good.push_back({c.index, frameLength});
    }
}

namespace {

struct Layout {
    uint64_t total = 0;
    std::vector<uint64_t> datagramOffsets;
    std::vector<uint64_t> ndpOffsets;
    std::vector<uint32_t> ndpEntries;  // datagrams per NDP
};

uint64_t AlignNdp(uint64_t offset, uint16_t alignment)
{
    // NDPs sit at multiples of 4 and of wNdpInAlignment.
    const uint64_t a = std::max<uint16_t>(alignment, 1);
    uint64_t p = RoundUp(offset, 4);
    while (p % a != 0) {
        p += 4;
    }
    return p;
}

// Into *out, whose vectors keep their capacity.
void MakeLayout(const std::vector<uint32_t>& lengths, const InRules& rules, Layout* out)
{
    Layout& l = *out;
    l.total = 0;
    l.datagramOffsets.clear();
    l.ndpOffsets.clear();
    l.ndpEntries.clear();
    const uint64_t n = lengths.size();
    const uint32_t nth = rules.ntb32 ? ntb::kNth32Length : ntb::kNth16Length;
    const uint32_t ndpHeader = rules.ntb32 ? ntb::kNdp32HeaderLength : ntb::kNdp16HeaderLength;
    const uint32_t entry = rules.ntb32 ? ntb::kNdp32EntryLength : ntb::kNdp16EntryLength;
    const uint64_t ndps = std::max<uint64_t>(1, std::min<uint64_t>(rules.ndpCount, n));
    for (uint64_t i = 0; i < ndps; ++i) {
        // Spread evenly, the earlier NDPs taking the odd ones.
        l.ndpEntries.push_back(static_cast<uint32_t>(n / ndps + (i < n % ndps ? 1 : 0)));
    }
    const uint64_t divisor = std::max<uint16_t>(rules.divisor, 1);
    const uint64_t remainder = rules.remainder % divisor;
    auto placeDatagrams = [&](uint64_t offset) {
        for (uint32_t len : lengths) {
            const uint64_t d = RoundUp(offset + rules.payloadOffset, divisor) + remainder - rules.payloadOffset;
            l.datagramOffsets.push_back(d);
            offset = d + len + (rules.crc ? ntb::kCrcLength : 0);
        }
        return offset;
    };
    auto placeNdps = [&](uint64_t offset) {
        for (uint32_t count : l.ndpEntries) {
            const uint64_t p = AlignNdp(offset, rules.alignment);
            l.ndpOffsets.push_back(p);
            offset = p + ndpHeader + entry * (count + 1);
        }
        return offset;
    };
    if (rules.position == NdpPosition::AfterDatagrams) {
        l.total = placeNdps(placeDatagrams(nth));
    } else {
        l.total = placeDatagrams(placeNdps(nth));
    }
}

// Working lists of PackNtb, kept per thread (no allocation once grown).
struct PackScratch {
    std::vector<uint32_t> lengths;
    Layout layout, trial;
};
thread_local PackScratch tPack;

}  // namespace

uint64_t PackedLength(const std::vector<uint32_t>& frameLengths, const InRules& rules)
{
    Layout l;
    MakeLayout(frameLengths, rules, &l);
    return l.total;
}

size_t PackNtb(const std::deque<Bytes>& frames, const InRules& rules, uint16_t sequence, Bytes* out)
{
    const uint64_t limit = std::min<uint64_t>(rules.maxSize, rules.ntb32 ? 0xFFFFFFFFu : 0xFFFFu);
    std::vector<uint32_t>& lengths = tPack.lengths;
    lengths.clear();
    Layout& layout = tPack.layout;
    Layout& trial = tPack.trial;
    const size_t most = std::min<size_t>(frames.size(), std::max<uint16_t>(rules.maxDatagrams, 1));
    for (size_t i = 0; i < most; ++i) {
        lengths.push_back(static_cast<uint32_t>(frames[i].size()));
        MakeLayout(lengths, rules, &trial);
        if (trial.total > limit) {
            lengths.pop_back();
            break;
        }
        std::swap(layout, trial);
    }
    if (lengths.empty()) {
        return 0;
    }
    out->assign(layout.total, 0);
    uint8_t* b = out->data();
    const uint32_t total = static_cast<uint32_t>(layout.total);
    if (rules.ntb32) {
        Put32(b, ntb::kNth32Signature);
        Put16(b + 4, ntb::kNth32Length);
        Put16(b + 6, sequence);
        Put32(b + 8, total);
        Put32(b + 12, static_cast<uint32_t>(layout.ndpOffsets[0]));
    } else {
        Put32(b, ntb::kNth16Signature);
        Put16(b + 4, ntb::kNth16Length);
        Put16(b + 6, sequence);
        Put16(b + 8, static_cast<uint16_t>(total));
        Put16(b + 10, static_cast<uint16_t>(layout.ndpOffsets[0]));
    }
    size_t frame = 0;
    for (size_t k = 0; k < layout.ndpOffsets.size(); ++k) {
        uint8_t* p = b + layout.ndpOffsets[k];
        const uint32_t count = layout.ndpEntries[k];
        const uint32_t next = k + 1 < layout.ndpOffsets.size() ? static_cast<uint32_t>(layout.ndpOffsets[k + 1]) : 0;
        uint8_t* e;
        if (rules.ntb32) {
            Put32(p, rules.crc ? ntb::kNdp32Crc : ntb::kNdp32NoCrc);
            Put16(p + 4, static_cast<uint16_t>(ntb::kNdp32HeaderLength + ntb::kNdp32EntryLength * (count + 1)));
            Put32(p + 8, next);
            e = p + ntb::kNdp32HeaderLength;
        } else {
            Put32(p, rules.crc ? ntb::kNdp16Crc : ntb::kNdp16NoCrc);
            Put16(p + 4, static_cast<uint16_t>(ntb::kNdp16HeaderLength + ntb::kNdp16EntryLength * (count + 1)));
            Put16(p + 6, static_cast<uint16_t>(next));
            e = p + ntb::kNdp16HeaderLength;
        }
        for (uint32_t i = 0; i < count; ++i, ++frame) {
            const Bytes& f = frames[frame];
            const uint64_t d = layout.datagramOffsets[frame];
            std::copy(f.begin(), f.end(), b + d);
            uint32_t len = static_cast<uint32_t>(f.size());
            if (rules.crc) {
                Put32(b + d + len, EthernetCrc(f.data(), f.size()));
                len += ntb::kCrcLength;
            }
            if (rules.ntb32) {
                Put32(e, static_cast<uint32_t>(d));
                Put32(e + 4, len);
                e += ntb::kNdp32EntryLength;
            } else {
                Put16(e, static_cast<uint16_t>(d));
                Put16(e + 2, static_cast<uint16_t>(len));
                e += ntb::kNdp16EntryLength;
            }
        }
    }
    return lengths.size();
}

}  // namespace ethsim
