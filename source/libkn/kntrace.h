// Trace output: the driver-wide trace mask and prefix, the trace call, the
// print entry with the system's own format directives, the hex dump, and the
// assertion and IRQL checks.
//
// A trace call evaluates nothing when its mask bit is clear. Messages start
// with "%P" (the prefix), then ":" and the qualified operation name, and end
// in "\n". Assertions print and execution goes on: nothing here stops.
#pragma once

#include <ntddk.h>
#include <stdarg.h>

// Trace mask bits.
#define KN_TRACE_ERROR 0x00000001       // errors, failed requests, assertions, hang reports
#define KN_TRACE_WARNING 0x00000002     // entry/unload, rejected frames, library warnings
#define KN_TRACE_INFO 0x00000004        // lifecycle, configuration, media state, PnP, streams
#define KN_TRACE_START 0x00000008       // stream start, USB configuration and interface selection
#define KN_TRACE_OID 0x00000010         // OID requests and their completion
#define KN_TRACE_VLAN 0x00000080        // frames indicated or dropped for their VLAN ID
#define KN_TRACE_TX 0x00000100          // transmit path
#define KN_TRACE_RX_DUMP 0x00000200     // hex dumps of received frames
#define KN_TRACE_RX_TRANSFER 0x00001000 // receive transfer completion with hex dump
#define KN_TRACE_RX_PATH 0x00010000     // receive path entry/exit, per-buffer stream traces
#define KN_TRACE_TX_SUBMIT 0x00020000   // submission of transmit transfers

#define KN_TRACE_MASK_DEFAULT 0x3

// The driver-wide trace mask, read and written as a whole without a lock.
// Reads and writes are single relaxed atomic accesses (a plain load on x64),
// so a mask change on one processor while another traces is well defined.
extern ULONG gKnTraceMask;
inline ULONG KnGetTraceMask() { return __atomic_load_n(&gKnTraceMask, __ATOMIC_RELAXED); }
inline void KnSetTraceMask(ULONG mask) { __atomic_store_n(&gKnTraceMask, mask, __ATOMIC_RELAXED); }

// Sets the prefix printed by %P: copies up to and including the terminator
// but at most 31 characters, then fills the rest of the 32-byte field with
// zeros. NULL clears the prefix.
void KnSetTracePrefix(const char* name);
const char* KnGetTracePrefix();

// The identification text carried by the image (never printed).
extern const char gKnImageIdentification[];

// Size of the print entry's message buffer: a message keeps at most
// KN_TRACE_MESSAGE_SIZE - 1 characters.
#define KN_TRACE_MESSAGE_SIZE 256

// The print entry: formats into a 256-byte stack buffer (255 characters at
// most) and hands the text to the output sink. Returns DbgPrint's result.
//
// Directives: %[flags][width][.precision][size]conversion
//   flags     ' ' '#' '+' '-' '0'     width, precision: digits or '*'
//   size      h (16 bit)  l (32 bit)  ll, I (64 bit)  L (ignored); default 32 bit
//   d i u x X o c s   as usual;  C  char16_t character;  S  char16_t string
//   U   PCUNICODE_STRING          p   64-bit pointer, 16 digits without width
//   D W B Q   8/4/2/16 upper-case hexadecimal digits (minimum), zero padded
//   N   NTSTATUS as 0xXXXXXXXX (NAME)
//   P   the trace prefix          T   performance counter in microseconds
//                                     (the precision is the units per second)
// Anything else prints "%" and the character. Not printf-compatible, so the
// compiler's format checking is not used.
ULONG KnPrint(const char* format, ...);
ULONG KnVPrint(const char* format, va_list args);
// Formats without output into buffer[size] (size - 1 characters at most,
// always terminated when size > 0); returns the number of characters
// written, the terminator not counted.
ULONG KnFormat(char* buffer, ULONG size, const char* format, ...);
ULONG KnVFormat(char* buffer, ULONG size, const char* format, va_list args);

// The output sink: into the trace log buffer (at <= DISPATCH_LEVEL, when it
// exists) with a time prefix, then DbgPrint("%s", text). Returns DbgPrint's
// result.
ULONG KnOutput(const char* text);

// Number formatter flags.
#define KN_FMT_ZEROPAD 0x01
#define KN_FMT_SIGNED 0x02
#define KN_FMT_PLUS 0x04
#define KN_FMT_BLANK 0x08
#define KN_FMT_LEFT 0x10
#define KN_FMT_ALTERNATE 0x20
#define KN_FMT_UPPER 0x40
// Writes `value` in `radix` (2..36) at `pos` and returns the new position.
// `end` is the last byte of the output buffer, the one kept for the
// terminator: characters are stored only before it, and nothing is written
// when pos >= end. Writes no terminator. Width and precision -1 mean none.
// With KN_FMT_SIGNED the value is taken as a signed 64-bit number.
char* KnFormatNumber(char* pos, char* end, ULONGLONG value, int radix, int width, int precision, ULONG flags);

// Prints `length` bytes, 16 a line, through the output sink: the index of
// the line's first byte (4 hexadecimal digits, wrapping after 0xFFFF), the
// bytes in hexadecimal in groups of four, and the bytes as characters from
// column 59 on. Length 0 (or no address) prints "<<NULL>>\n". Tests no mask
// bit (callers do).
void KnHexDump(const void* address, ULONG length);

// Prints "\n%P:ASSERTION FAILED: (%s)\n  %s(%u)\n" when mask bit 0x1 is set.
void KnAssertFailed(const char* expression, const char* file, unsigned line);

// The trace call: one test of the mask; the arguments are evaluated only when
// the bit is set.
#define KN_TRACE(bit, ...)                                   \
    do {                                                     \
        if (KnGetTraceMask() & (bit)) KnPrint(__VA_ARGS__);  \
    } while (0)

// The expression text is printed as written: write assertions without blanks
// where the message should have none ("mDataLength<=BufferSize()").
#define KN_ASSERT(expr)                                                  \
    do {                                                                 \
        if (!(expr)) KnAssertFailed(#expr, __FILE__, __LINE__);          \
    } while (0)

#define IRQL_EQ_PASSIVE()                                                                   \
    do {                                                                                    \
        if (KeGetCurrentIrql() != PASSIVE_LEVEL) KnAssertFailed("IRQL_EQ_PASSIVE()", __FILE__, __LINE__); \
    } while (0)
#define IRQL_LTEQ_DISPATCH()                                                                  \
    do {                                                                                      \
        if (KeGetCurrentIrql() > DISPATCH_LEVEL) KnAssertFailed("IRQL_LTEQ_DISPATCH()", __FILE__, __LINE__); \
    } while (0)
#define IRQL_EQ_DISPATCH()                                                                  \
    do {                                                                                    \
        if (KeGetCurrentIrql() != DISPATCH_LEVEL) KnAssertFailed("IRQL_EQ_DISPATCH()", __FILE__, __LINE__); \
    } while (0)
