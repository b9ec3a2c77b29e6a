// NCM Transfer Blocks on the device side: the strict checker for the NTBs
// the host sends (bulk OUT) and the packer for the NTBs the device sends
// (bulk IN).
#pragma once

#include "ethsim/bytes.h"
#include "ethsim/profile.h"

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace ethsim {

// Every way an OUT transfer can break the rules of NCM 1.0 (or the device's
// own announced parameters). The checker counts each by kind.
enum class Violation : uint8_t {
    TransferTooShort,         // shorter than the transfer header
    NthSignature,             // not "NCMH" (NTB16) / "ncmh" (NTB32) for the selected format
    NthHeaderLength,          // wHeaderLength not 12 / 16
    BlockLength,              // w/dwBlockLength differs from the transfer length
    BlockTooLarge,            // larger than dwNtbOutMaxSize
    NdpIndex,                 // NDP index inside the header or NDP not inside the block
    NdpAlignment,             // NDP index not a multiple of 4 and of wNdpOutAlignment
    NdpSignature,             // not "NCM0"/"NCM1" (NTB16) or "ncm0"/"ncm1" (NTB32)
    CrcMode,                  // with-CRC signature without SET_CRC_MODE(1), or the reverse
    NdpLength,                // wLength not a multiple of 4 / 8, below 16 / 32, or past the block
    NdpReserved,              // NDP32 reserved fields not zero
    NdpTerminator,            // no all-zero entry inside wLength
    NdpEmpty,                 // the first entry is already the terminator
    NdpOverlap,               // an NDP overlaps the header or another NDP
    NdpChain,                 // the next-NDP index leads back to an NDP already seen
    DatagramEntry,            // an entry with index 0 or length 0 (but not both)
    DatagramOutOfBlock,       // index + length beyond the block
    DatagramOverlapsHeaders,  // a datagram overlaps the NTH or an NDP
    DatagramsOverlap,         // two datagrams share bytes
    DatagramPlacement,        // payload not at wNdpOutPayloadRemainder modulo wNdpOutDivisor
    DatagramTooShort,         // shorter than an Ethernet header (plus CRC)
    DatagramTooLong,          // longer than the maximum datagram size
    DatagramCrc,              // the CRC appended to the datagram is wrong
    TooManyDatagrams,         // more than wNtbOutMaxDatagrams datagrams
    Sequence,                 // wSequence is not the previous one plus one
    SequenceStart,            // first NTB after a function reset without wSequence 0 (optional rule)
    UnexpectedZlp,            // a zero-length packet that ends no transfer
    MissingZlp,               // two NTBs in one transfer for want of a ZLP
    InactiveInterface,        // data while the data interface is at alternate setting 0
    kCount
};
constexpr size_t kViolationKinds = static_cast<size_t>(Violation::kCount);

// Stable printable name ("NdpAlignment").
const char* ViolationName(Violation v);

struct Finding {
    Violation kind;
    std::string detail;  // what was found, with offsets and values
};

// The rules for received NTBs: the device's parameters and the host's
// selections.
struct OutRules {
    bool ntb32 = false;
    uint32_t maxSize = 16384;        // dwNtbOutMaxSize
    uint16_t divisor = 4;            // wNdpOutDivisor (0: placement not checked)
    uint16_t remainder = 0;          // wNdpOutPayloadRemainder
    uint16_t alignment = 4;          // wNdpOutAlignment
    uint16_t maxDatagrams = 0;       // wNtbOutMaxDatagrams, 0 = no limit
    uint16_t payloadOffset = 14;     // see DeviceProfile::Checker
    uint32_t maxDatagramLength = 1514;  // frame length without CRC
    bool crcMode = false;            // SET_CRC_MODE
    bool crcFollowsMode = true;
};

struct Datagram {
    uint32_t offset;  // in the NTB
    uint32_t length;  // the Ethernet frame, without a CRC
};

struct CheckResult {
    bool headerValid = false;  // the NTH could be read
    uint16_t sequence = 0;
    uint32_t blockLength = 0;       // from the header
    uint32_t datagramEntries = 0;   // entries seen in all NDPs
    std::vector<Datagram> good;     // the datagrams without fault, in NDP order
    uint32_t rejected = 0;          // entries dropped for a fault
    std::vector<Finding> findings;  // in the order found
};

// Checks one NTB as received in one transfer of `length` bytes. Header
// faults reject the NTB, NDP faults the NDP (and the rest of the chain),
// datagram faults the datagram; everything else is only reported.
CheckResult CheckNtb(const uint8_t* data, size_t length, const OutRules& rules);
// The same into *result, whose vectors keep their capacity (no allocation
// once they have grown).
void CheckNtb(const uint8_t* data, size_t length, const OutRules& rules, CheckResult* result);

// The rules for NTBs the device builds.
struct InRules {
    bool ntb32 = false;
    uint32_t maxSize = 16384;     // the host's SET_NTB_INPUT_SIZE
    uint16_t maxDatagrams = 32;
    uint16_t divisor = 4;         // wNdpInDivisor
    uint16_t remainder = 0;       // wNdpInPayloadRemainder
    uint16_t alignment = 4;       // wNdpInAlignment
    uint16_t payloadOffset = 14;
    uint8_t ndpCount = 1;
    NdpPosition position = NdpPosition::AfterDatagrams;
    bool crc = false;             // append the Ethernet CRC, "NCM1"/"ncm1" signatures
};

// Packs as many frames from the front of `frames` as fit into one NTB (at
// least one, if that one fits at all) and returns how many it took; 0 when
// the first frame does not fit even alone.
size_t PackNtb(const std::deque<Bytes>& frames, const InRules& rules, uint16_t sequence, Bytes* out);

// Bytes an NTB of frames of these lengths occupies under `rules`.
uint64_t PackedLength(const std::vector<uint32_t>& frameLengths, const InRules& rules);

}  // namespace ethsim
