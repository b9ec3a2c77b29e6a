// NCM 1.0 transfer blocks (NTBs): the records of the 16-bit and 32-bit forms,
// the NTB parameters record of GET_NTB_PARAMETERS, the rounding rule of the
// transmit placement, and little-endian access to all of them.
//
// Every offset inside an NTB (NDP index, next-NDP index, datagram index)
// counts bytes from the first byte of the transfer header. All multi-byte
// fields are little-endian; signatures are compared and written as 32-bit
// little-endian values, so the four bytes on the wire spell the text in the
// comment next to each constant.
//
// The records are declared with their exact wire layout (packed, checked
// below), but NTB memory is never accessed through a record pointer: received
// blocks are untrusted and need not be aligned. Use NtbLoad / NtbStore (whole
// records) or NtbLoad16 / NtbLoad32 / NtbStore16 / NtbStore32 (single fields,
// with offsetof), all memcpy based. The host is little-endian x86-64, so a
// record copied from the wire has its fields in host order.
#pragma once

#include <ntddk.h>

#include <stddef.h>
#include <string.h>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "NTB records are read and written in host byte order");

// ---------------------------------------------------------------------------
// Signatures
// ---------------------------------------------------------------------------
constexpr ULONG NTH16_SIGNATURE = 0x484D434E;           // "NCMH"
constexpr ULONG NTH32_SIGNATURE = 0x686D636E;           // "ncmh"
constexpr ULONG NDP16_SIGNATURE_NO_CRC = 0x304D434E;    // "NCM0": datagrams without CRC
constexpr ULONG NDP16_SIGNATURE_CRC = 0x314D434E;       // "NCM1": each datagram ends in a 4-byte CRC
constexpr ULONG NDP32_SIGNATURE_NO_CRC = 0x306D636E;    // "ncm0"
constexpr ULONG NDP32_SIGNATURE_CRC = 0x316D636E;       // "ncm1"

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------
#pragma pack(push, 1)

// Transfer header of an NTB16, at offset 0.
struct Nth16 {
    ULONG dwSignature;      // NTH16_SIGNATURE
    USHORT wHeaderLength;   // 12
    USHORT wSequence;
    USHORT wBlockLength;    // length of the NTB in bytes
    USHORT wNdpIndex;       // offset of the first NDP16
};

// Transfer header of an NTB32, at offset 0.
struct Nth32 {
    ULONG dwSignature;      // NTH32_SIGNATURE
    USHORT wHeaderLength;   // 16
    USHORT wSequence;
    ULONG dwBlockLength;
    ULONG dwNdpIndex;       // offset of the first NDP32
};

// NDP16: this header, n entries and one all-zero terminator entry.
struct Ndp16Header {
    ULONG dwSignature;      // NDP16_SIGNATURE_NO_CRC or NDP16_SIGNATURE_CRC
    USHORT wLength;         // 12 + 4 * n
    USHORT wNextNdpIndex;   // 0 ends the chain
};

struct Ndp16Entry {
    USHORT wDatagramIndex;
    USHORT wDatagramLength;
};

// NDP32: this header, n entries and one all-zero terminator entry.
struct Ndp32Header {
    ULONG dwSignature;      // NDP32_SIGNATURE_NO_CRC or NDP32_SIGNATURE_CRC
    USHORT wLength;         // 24 + 8 * n
    USHORT wReserved6;      // 0
    ULONG dwNextNdpIndex;   // 0 ends the chain
    ULONG dwReserved12;     // 0
};

struct Ndp32Entry {
    ULONG dwDatagramIndex;
    ULONG dwDatagramLength;
};

// The device's answer to GET_NTB_PARAMETERS. The output fields are corrected
// once at initialization (alignment below 4 -> 4, divisor 0 -> 1, remainder
// taken modulo the divisor); the input divisor, remainder and alignment are
// not used.
struct NtbParameters {
    USHORT wLength;
    USHORT bmNtbFormatsSupported;       // NTB_FORMAT_NTB32_SUPPORTED
    ULONG dwNtbInMaxSize;
    USHORT wNdpInDivisor;
    USHORT wNdpInPayloadRemainder;
    USHORT wNdpInAlignment;
    USHORT wReserved;
    ULONG dwNtbOutMaxSize;
    USHORT wNdpOutDivisor;
    USHORT wNdpOutPayloadRemainder;
    USHORT wNdpOutAlignment;
    USHORT wNtbOutMaxDatagrams;         // 0: no limit from the device
};

#pragma pack(pop)

static_assert(sizeof(Nth16) == 12, "NTH16 layout");
static_assert(offsetof(Nth16, dwSignature) == 0, "NTH16 layout");
static_assert(offsetof(Nth16, wHeaderLength) == 4, "NTH16 layout");
static_assert(offsetof(Nth16, wSequence) == 6, "NTH16 layout");
static_assert(offsetof(Nth16, wBlockLength) == 8, "NTH16 layout");
static_assert(offsetof(Nth16, wNdpIndex) == 10, "NTH16 layout");

static_assert(sizeof(Nth32) == 16, "NTH32 layout");
static_assert(offsetof(Nth32, dwSignature) == 0, "NTH32 layout");
static_assert(offsetof(Nth32, wHeaderLength) == 4, "NTH32 layout");
static_assert(offsetof(Nth32, wSequence) == 6, "NTH32 layout");
static_assert(offsetof(Nth32, dwBlockLength) == 8, "NTH32 layout");
static_assert(offsetof(Nth32, dwNdpIndex) == 12, "NTH32 layout");

static_assert(sizeof(Ndp16Header) == 8, "NDP16 layout");
static_assert(offsetof(Ndp16Header, dwSignature) == 0, "NDP16 layout");
static_assert(offsetof(Ndp16Header, wLength) == 4, "NDP16 layout");
static_assert(offsetof(Ndp16Header, wNextNdpIndex) == 6, "NDP16 layout");
static_assert(sizeof(Ndp16Entry) == 4, "NDP16 entry layout");
static_assert(offsetof(Ndp16Entry, wDatagramIndex) == 0, "NDP16 entry layout");
static_assert(offsetof(Ndp16Entry, wDatagramLength) == 2, "NDP16 entry layout");

static_assert(sizeof(Ndp32Header) == 16, "NDP32 layout");
static_assert(offsetof(Ndp32Header, dwSignature) == 0, "NDP32 layout");
static_assert(offsetof(Ndp32Header, wLength) == 4, "NDP32 layout");
static_assert(offsetof(Ndp32Header, wReserved6) == 6, "NDP32 layout");
static_assert(offsetof(Ndp32Header, dwNextNdpIndex) == 8, "NDP32 layout");
static_assert(offsetof(Ndp32Header, dwReserved12) == 12, "NDP32 layout");
static_assert(sizeof(Ndp32Entry) == 8, "NDP32 entry layout");
static_assert(offsetof(Ndp32Entry, dwDatagramIndex) == 0, "NDP32 entry layout");
static_assert(offsetof(Ndp32Entry, dwDatagramLength) == 4, "NDP32 entry layout");

static_assert(sizeof(NtbParameters) == 28, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wLength) == 0, "NtbParameters layout");
static_assert(offsetof(NtbParameters, bmNtbFormatsSupported) == 2, "NtbParameters layout");
static_assert(offsetof(NtbParameters, dwNtbInMaxSize) == 4, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNdpInDivisor) == 8, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNdpInPayloadRemainder) == 10, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNdpInAlignment) == 12, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wReserved) == 14, "NtbParameters layout");
static_assert(offsetof(NtbParameters, dwNtbOutMaxSize) == 16, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNdpOutDivisor) == 20, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNdpOutPayloadRemainder) == 22, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNdpOutAlignment) == 24, "NtbParameters layout");
static_assert(offsetof(NtbParameters, wNtbOutMaxDatagrams) == 26, "NtbParameters layout");

// ---------------------------------------------------------------------------
// Sizes and limits
// ---------------------------------------------------------------------------
constexpr ULONG NTH16_LENGTH = sizeof(Nth16);                 // 12
constexpr ULONG NTH32_LENGTH = sizeof(Nth32);                 // 16
constexpr ULONG NDP16_HEADER_LENGTH = sizeof(Ndp16Header);    // 8
constexpr ULONG NDP16_ENTRY_LENGTH = sizeof(Ndp16Entry);      // 4
constexpr ULONG NDP32_HEADER_LENGTH = sizeof(Ndp32Header);    // 16
constexpr ULONG NDP32_ENTRY_LENGTH = sizeof(Ndp32Entry);      // 8

// Smallest NDP: header plus terminator, no entries (rejected on receive).
constexpr ULONG NDP16_MIN_LENGTH = NDP16_HEADER_LENGTH + NDP16_ENTRY_LENGTH;   // 12
constexpr ULONG NDP32_MIN_LENGTH = NDP32_HEADER_LENGTH + NDP32_ENTRY_LENGTH;   // 24
// Smallest transfer accepted on receive: transfer header plus smallest NDP.
constexpr ULONG NTB16_MIN_TRANSFER_LENGTH = NTH16_LENGTH + NDP16_MIN_LENGTH;   // 24
constexpr ULONG NTB32_MIN_TRANSFER_LENGTH = NTH32_LENGTH + NDP32_MIN_LENGTH;   // 40

// Length of an NDP with n entries (header, entries, terminator).
constexpr ULONG Ndp16Length(ULONG n) { return NDP16_MIN_LENGTH + NDP16_ENTRY_LENGTH * n; }
constexpr ULONG Ndp32Length(ULONG n) { return NDP32_MIN_LENGTH + NDP32_ENTRY_LENGTH * n; }
// Number of entries of a received NDP, from its wLength (at least the
// minimum length); surplus bytes at the end are ignored.
constexpr ULONG Ndp16EntryCount(ULONG wLength) { return (wLength - NDP16_MIN_LENGTH) / NDP16_ENTRY_LENGTH; }
constexpr ULONG Ndp32EntryCount(ULONG wLength) { return (wLength - NDP32_MIN_LENGTH) / NDP32_ENTRY_LENGTH; }

// Datagrams per transmitted NTB, unless the device reports a smaller non-zero
// wNtbOutMaxDatagrams.
constexpr ULONG NTB_MAX_TX_DATAGRAMS = 169;
// Entries of the transmit NDP scratch area (NDP32 header plus this many
// 8-byte entries; the NDP16 form uses the same area).
constexpr ULONG NTB_TX_NDP_ENTRIES = 171;
constexpr ULONG NTB_TX_NDP_SCRATCH_LENGTH = NDP32_HEADER_LENGTH + NDP32_ENTRY_LENGTH * NTB_TX_NDP_ENTRIES;

// bmNtbFormatsSupported: bit 1 set means NTB32 is supported (and used).
constexpr USHORT NTB_FORMAT_NTB32_SUPPORTED = 0x0002;
// Buffer size limits derived from dwNtbInMaxSize / dwNtbOutMaxSize.
constexpr ULONG NTB_MAX_BUFFER_SIZE = 256000;
constexpr ULONG NTB16_MAX_BUFFER_SIZE = 65535;

// Datagram layout.
constexpr ULONG NTB_ETHERNET_HEADER_LENGTH = 14;   // payload placement is relative to the byte after it
constexpr ULONG NTB_DATAGRAM_CRC_LENGTH = 4;       // dropped from datagrams of a with-CRC NDP (if longer)

// ---------------------------------------------------------------------------
// Placement
// ---------------------------------------------------------------------------

// ((x + m - 1) / m) * m in unsigned 32-bit arithmetic; m >= 1, not
// necessarily a power of two. Wraps like the 32-bit arithmetic it is: callers
// keep x small enough (buffer offsets below NTB_MAX_BUFFER_SIZE).
constexpr ULONG RoundUp(ULONG x, ULONG m) { return (ULONG)(x + m - 1) / m * m; }

// Offset of a datagram placed after running end offset 'end' so that its
// payload (after the Ethernet header) lands on remainder modulo divisor.
// divisor >= 1 and remainder < divisor, as corrected at initialization.
constexpr ULONG NtbDatagramOffset(ULONG end, ULONG divisor, ULONG remainder)
{
    return RoundUp(end + NTB_ETHERNET_HEADER_LENGTH, divisor) + remainder - NTB_ETHERNET_HEADER_LENGTH;
}

static_assert(RoundUp(26, 4) == 28, "RoundUp");
static_assert(RoundUp(28, 4) == 28, "RoundUp");
static_assert(RoundUp(7, 6) == 12, "RoundUp");
static_assert(NtbDatagramOffset(NTH16_LENGTH, 4, 2) == 16, "payload of the first datagram at 30");
static_assert(NtbDatagramOffset(NTH16_LENGTH, 4, 0) == 14, "payload of the first datagram at 28");
static_assert(NtbDatagramOffset(74, 4, 0) == 74, "after a 60-byte frame");

// ---------------------------------------------------------------------------
// Little-endian access (unaligned, memcpy based)
// ---------------------------------------------------------------------------
template <typename T>
inline T NtbLoad(const void* p)
{
    T value;
    memcpy(&value, p, sizeof(value));
    return value;
}

template <typename T>
inline void NtbStore(void* p, const T& value)
{
    memcpy(p, &value, sizeof(value));
}

inline USHORT NtbLoad16(const void* p) { return NtbLoad<USHORT>(p); }
inline ULONG NtbLoad32(const void* p) { return NtbLoad<ULONG>(p); }
inline void NtbStore16(void* p, USHORT value) { NtbStore(p, value); }
inline void NtbStore32(void* p, ULONG value) { NtbStore(p, value); }
