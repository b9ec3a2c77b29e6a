// A slow, plain reference for NCM 1.0 transfer blocks, for the tests and
// fuzzers that check the driver's receive parser and transmit builder.
//
// Written for obviousness, not speed: std::vector, byte-by-byte little-endian
// access, 64-bit arithmetic for every offset sum, and no code shared with the
// driver (its own constants, its own rounding), so that a mistake in the
// driver's NTB definitions does not repeat itself here.
//
// encode() places frames exactly as the transmit builder does (transfer
// header at 0, payload placement by divisor and remainder, one NDP after the
// last datagram at the NDP alignment, block length, one-byte termination,
// datagram limit, "full" decided with the maximum segment size). It does not
// model when the builder decides to send: it packs as many frames as fit.
//
// decode() validates and walks a received transfer exactly as the receive
// parser does (length, NTH signature, then every NDP with the eight checks in
// their order, the chained walk, the CRC rule) and reports the datagrams it
// would hand over and, for a rejection, the reason.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace ntbref {

enum class Form { Ntb16, Ntb32 };

const char* FormName(Form form);

// ---------------------------------------------------------------------------
// Encoding
// ---------------------------------------------------------------------------

// Transmit parameters. divisor, remainder, alignment and maxDatagrams are the
// raw values of the device's NTB parameters (wNdpOutDivisor,
// wNdpOutPayloadRemainder, wNdpOutAlignment, wNtbOutMaxDatagrams); encode()
// applies the corrections of initialization itself (see Corrected()).
struct EncodeParams {
    Form form = Form::Ntb16;
    uint32_t divisor = 1;
    uint32_t remainder = 0;
    uint32_t alignment = 4;
    uint32_t maxDatagrams = 0;        // 0: no device limit (169)
    bool oneByteTermination = false;
    uint32_t maxPacket = 512;         // bulk OUT wMaxPacketSize, >= 1
    uint32_t bufferSize = 16384;      // transmit buffer size (NTB16: <= 65535)
    uint32_t maxSegmentSize = 1514;   // largest frame; also the "full" test
    uint16_t sequence = 0;            // wSequence of the first NTB
    uint8_t gapFill = 0;              // value of the bytes the builder leaves untouched
};

// The parameters after the corrections of initialization: alignment below 4
// becomes 4; divisor 0 becomes 1; a remainder not below the divisor is taken
// modulo the divisor; maxDatagrams becomes 169 unless it is non-zero and
// below 169.
EncodeParams Corrected(const EncodeParams& params);

struct Entry {
    uint32_t index = 0;
    uint32_t length = 0;
    bool operator==(const Entry& other) const { return index == other.index && length == other.length; }
};

struct EncodedNtb {
    std::vector<uint8_t> bytes;   // the whole NTB; its size is the block length (data length sent)
    std::vector<bool> written;    // per byte: written by the builder (false: gap byte, gapFill here)
    std::vector<Entry> entries;   // datagram table, in order
    size_t framesUsed = 0;        // frames of the input taken into this NTB
    uint32_t ndpOffset = 0;
    uint32_t ndpLength = 0;
    uint32_t blockLength = 0;     // as in the header (including a termination byte)
    bool terminationByte = false; // the one-byte termination was appended
    uint16_t sequence = 0;
};

// Builds one NTB from the front of frames. A frame longer than the maximum
// segment size contributes only its first maxSegmentSize bytes (the adapter
// copies at most that much); an empty frame counts as the end of the queue.
// When not even the first frame fits (the buffer cannot take a datagram of
// maxSegmentSize bytes), the result holds no entries and no bytes.
// Invalid parameters (maxPacket 0, NTB16 buffer above 65535, buffer above
// 256000) throw std::invalid_argument.
EncodedNtb Encode(const std::vector<std::vector<uint8_t>>& frames, const EncodeParams& params);

// Builds consecutive NTBs until every frame is placed (sequence numbers go up
// by one, wrapping after 65535). Stops early, leaving frames unplaced, when
// an empty NTB cannot take a frame.
std::vector<EncodedNtb> EncodeAll(const std::vector<std::vector<uint8_t>>& frames, const EncodeParams& params);

// ---------------------------------------------------------------------------
// Decoding
// ---------------------------------------------------------------------------

// How the walk of chained NDPs is bounded (a chain may lead back to an NDP of
// the same NTB). Either rule cuts the walk off like a failed NDP check: the
// datagrams of the NDPs before are delivered.
enum class ChainRule {
    ForwardOnly,   // a next NDP is followed only when its offset is above the current NDP's
    CountLimit,    // at most maxNdps NDPs per NTB are walked
};

struct DecodeOptions {
    ChainRule chainRule = ChainRule::ForwardOnly;
    uint32_t maxNdps = 64;   // CountLimit only; >= 1
};

enum class Outcome {
    Accepted,   // the whole chain was walked; every datagram delivered
    Rejected,   // the NTB is dropped whole; nothing delivered
    ChainCut,   // a chained NDP failed (or the walk was bounded); earlier datagrams delivered
};

enum class Reason {
    None,
    InvalidLength,          // transfer below 24 (NTB16) / 40 (NTB32) bytes
    InvalidNthSignature,
    NdpNotInBuffer,         // check 2
    InvalidTableLength,     // check 3
    NdpNotComplete,         // check 4
    EmptyNdp,               // check 5
    NoZeroTermination,      // check 6
    InvalidContent,         // check 7
    DatagramNotInBuffer,    // check 8
    ChainBound,             // the walk was cut off by the chain rule
};

const char* ReasonName(Reason reason);
const char* OutcomeName(Outcome outcome);
// For test failure messages.
inline void PrintTo(Reason reason, std::ostream* os) { *os << ReasonName(reason); }
inline void PrintTo(Outcome outcome, std::ostream* os) { *os << OutcomeName(outcome); }

struct Datagram {
    uint32_t ndpOffset = 0;       // the NDP that lists it
    uint32_t index = 0;           // offset in the NTB
    uint32_t length = 0;          // datagram length from the NDP
    uint32_t payloadLength = 0;   // length handed over: length - 4 under the CRC rule
    bool crcSignature = false;    // the NDP carries the with-CRC signature
    std::vector<uint8_t> payload; // bytes [index, index + payloadLength)
};

struct DecodeResult {
    Outcome outcome = Outcome::Rejected;
    Reason reason = Reason::None;
    std::string reasonText;             // human-readable; empty when accepted
    uint32_t failedNdpOffset = 0;       // NDP that failed its check (Rejected / ChainCut)
    std::vector<uint32_t> ndpOffsets;   // NDPs walked, in order
    std::vector<Datagram> datagrams;    // in delivery order
};

// Validates and walks one received transfer under the given form. For NTB16
// the transfer is at most 65535 bytes (the receive buffer limit).
DecodeResult Decode(const std::vector<uint8_t>& transfer, Form form, const DecodeOptions& options = {});
DecodeResult Decode(const uint8_t* data, size_t size, Form form, const DecodeOptions& options = {});

// ---------------------------------------------------------------------------
// Hand building of (possibly malformed) NTBs for tests and seeds
// ---------------------------------------------------------------------------

void Put16(std::vector<uint8_t>& bytes, size_t offset, uint32_t value);   // grows bytes as needed
void Put32(std::vector<uint8_t>& bytes, size_t offset, uint32_t value);
uint32_t Get16(const std::vector<uint8_t>& bytes, size_t offset);
uint32_t Get32(const std::vector<uint8_t>& bytes, size_t offset);

// Writes a transfer header at offset 0 (signature, header length, sequence,
// block length, first NDP index).
void PutNth(std::vector<uint8_t>& bytes, Form form, uint32_t blockLength, uint32_t ndpIndex, uint16_t sequence = 0);
// Writes an NDP at offset: signature (with or without CRC), wLength (0: the
// length for the given entries), next-NDP index, the entries and a zero
// terminator.
void PutNdp(std::vector<uint8_t>& bytes, Form form, size_t offset, const std::vector<Entry>& entries,
            uint32_t nextNdpIndex = 0, bool crc = false, uint32_t wLength = 0);

}  // namespace ntbref
