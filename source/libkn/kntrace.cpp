// Trace output: print entry, formatter, output sink, hex dump and assertion.
//
// Everything here runs on stack buffers and read-only tables: no allocation,
// no locks (the trace log buffer has its own), callable at any IRQL at which
// DbgPrint may be called.
#include "kntrace.h"

#include "knnames.h"
#include "kntracelogbuffer.h"

ULONG gKnTraceMask = KN_TRACE_MASK_DEFAULT;

// The trace prefix name: at most 31 characters and a terminator.
static char gKnTracePrefix[32];

// Image name, version, build flavour, processor, build date and time. Kept in
// the image although no code refers to it.
__attribute__((used)) const char gKnImageIdentification[] =
    "MORVALEN-VERSION-MORVALEN ethbrg_x64.sys v1.50.0 chk x64 Jul 24 2014 09:15:15";

void KnSetTracePrefix(const char* name)
{
    ULONG i = 0;
    if (name != NULL) {
        for (; i < sizeof(gKnTracePrefix) - 1; i++) {
            gKnTracePrefix[i] = name[i];
            if (name[i] == 0) break;
        }
    }
    for (; i < sizeof(gKnTracePrefix); i++) gKnTracePrefix[i] = 0;
}

const char* KnGetTracePrefix() { return gKnTracePrefix; }

namespace {

const char kDigitsLower[] = "0123456789abcdefghijklmnopqrstuvwxyz";
const char kDigitsUpper[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
const char kNullText[] = "<NULL>";

// Output position with its bound. `mEnd` is the byte kept for the
// terminator: characters go only before it, so a message keeps its first
// (size - 1) characters and the rest is lost.
struct KnOutputCursor {
    char* mPos;
    char* mEnd;

    void Put(char c)
    {
        if (mPos < mEnd) *mPos++ = c;
    }
    // `count` copies of c; nothing for count <= 0.
    void Repeat(char c, LONGLONG count)
    {
        while (count > 0 && mPos < mEnd) {
            *mPos++ = c;
            count--;
        }
    }
    void PutText(const char* text)
    {
        while (*text != 0 && mPos < mEnd) *mPos++ = *text++;
    }
};

// Reads a decimal number at *format and advances past it. Values are capped
// far beyond any buffer so that long digit strings cannot overflow.
int ReadDecimal(const char** format)
{
    int value = 0;
    while (**format >= '0' && **format <= '9') {
        if (value < 100000000) value = value * 10 + (**format - '0');
        (*format)++;
    }
    return value;
}

// Writes `length` characters of a string, padded with blanks to `width`.
// `wide` selects char16_t characters, of which the low byte is printed.
void PutPadded(KnOutputCursor& out, const void* text, bool wide, int precision, int width, ULONG flags)
{
    LONGLONG length = 0;
    if (wide) {
        const WCHAR* w = static_cast<const WCHAR*>(text);
        while ((precision < 0 || length < precision) && w[length] != 0) length++;
    } else {
        const char* s = static_cast<const char*>(text);
        while ((precision < 0 || length < precision) && s[length] != 0) length++;
    }
    if (!(flags & KN_FMT_LEFT)) out.Repeat(' ', (LONGLONG)width - length);
    for (LONGLONG i = 0; i < length && out.mPos < out.mEnd; i++) {
        out.Put(wide ? (char)(UCHAR)static_cast<const WCHAR*>(text)[i] : static_cast<const char*>(text)[i]);
    }
    if (flags & KN_FMT_LEFT) out.Repeat(' ', (LONGLONG)width - length);
}

// One character, padded with blanks to `width`.
void PutCharPadded(KnOutputCursor& out, char c, int width, ULONG flags)
{
    if (!(flags & KN_FMT_LEFT)) out.Repeat(' ', (LONGLONG)width - 1);
    out.Put(c);
    if (flags & KN_FMT_LEFT) out.Repeat(' ', (LONGLONG)width - 1);
}

// Microseconds (or 1/precision seconds) of the performance counter.
ULONG TimeStamp(int precision)
{
    LARGE_INTEGER frequency;
    frequency.QuadPart = 0;
    LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
    if (frequency.QuadPart == 0) return 0;
    ULONGLONG units = precision < 0 ? 1000000u : (ULONGLONG)precision;
    unsigned __int128 product = (unsigned __int128)(ULONGLONG)counter.QuadPart * units;
    return (ULONG)(product / (ULONGLONG)frequency.QuadPart);
}

}  // namespace

char* KnFormatNumber(char* pos, char* end, ULONGLONG value, int radix, int width, int precision, ULONG flags)
{
    if (pos == NULL || end == NULL || pos >= end) return pos;
    if (radix < 2 || radix > 36) return pos;

    const char* digits = (flags & KN_FMT_UPPER) ? kDigitsUpper : kDigitsLower;
    if (flags & KN_FMT_LEFT) flags &= ~(ULONG)KN_FMT_ZEROPAD;
    const char pad = (flags & KN_FMT_ZEROPAD) ? '0' : ' ';

    LONGLONG size = width;
    char sign = 0;
    if (flags & KN_FMT_SIGNED) {
        if ((LONGLONG)value < 0) {
            sign = '-';
            value = 0 - value;
            size--;
        } else if (flags & KN_FMT_PLUS) {
            sign = '+';
            size--;
        } else if (flags & KN_FMT_BLANK) {
            sign = ' ';
            size--;
        }
    }
    if (flags & KN_FMT_ALTERNATE) {
        if (radix == 16) {
            size -= 2;
        } else if (radix == 8) {
            size -= 1;
        }
    }

    // Least significant first; 64 binary digits at most.
    char temp[64];
    int count = 0;
    if (value == 0) {
        temp[count++] = '0';
    } else {
        while (value != 0) {
            temp[count++] = digits[value % (ULONG)radix];
            value /= (ULONG)radix;
        }
    }
    LONGLONG digitsWanted = precision;
    if (count > digitsWanted) digitsWanted = count;
    size -= digitsWanted;

    KnOutputCursor out = {pos, end};
    if (!(flags & (KN_FMT_ZEROPAD | KN_FMT_LEFT)) && size > 0) {
        out.Repeat(' ', size);
        size = 0;
    }
    if (sign != 0) out.Put(sign);
    if (flags & KN_FMT_ALTERNATE) {
        if (radix == 8) {
            out.Put('0');
        } else if (radix == 16) {
            out.Put('0');
            out.Put(digits[33]);  // 'x' or 'X'
        }
    }
    if (!(flags & KN_FMT_LEFT) && size > 0) {
        out.Repeat(pad, size);
        size = 0;
    }
    out.Repeat('0', digitsWanted - count);
    while (count > 0) out.Put(temp[--count]);
    if (size > 0) out.Repeat(' ', size);
    return out.mPos;
}

ULONG KnVFormat(char* buffer, ULONG size, const char* format, va_list args)
{
    if (buffer == NULL || size == 0) return 0;
    KnOutputCursor out = {buffer, buffer + size - 1};
    if (format == NULL) format = "";

    for (; *format != 0; format++) {
        if (*format != '%') {
            out.Put(*format);
            continue;
        }

        // Flags, any number in any order.
        ULONG flags = 0;
        for (;;) {
            format++;
            if (*format == '-') {
                flags |= KN_FMT_LEFT;
            } else if (*format == '+') {
                flags |= KN_FMT_PLUS;
            } else if (*format == ' ') {
                flags |= KN_FMT_BLANK;
            } else if (*format == '#') {
                flags |= KN_FMT_ALTERNATE;
            } else if (*format == '0') {
                flags |= KN_FMT_ZEROPAD;
            } else {
                break;
            }
        }

        int width = -1;
        if (*format >= '0' && *format <= '9') {
            width = ReadDecimal(&format);
        } else if (*format == '*') {
            format++;
            width = va_arg(args, int);
            if (width < 0) {
                flags |= KN_FMT_LEFT;
                width = (width < -100000000) ? 100000000 : -width;
            }
        }

        int precision = -1;
        if (*format == '.') {
            format++;
            if (*format >= '0' && *format <= '9') {
                precision = ReadDecimal(&format);
            } else if (*format == '*') {
                format++;
                precision = va_arg(args, int);
            }
            if (precision < 0) precision = 0;
        }

        // Size: 'h' 16 bit, 'l' 32 bit, "ll" and 'I' 64 bit, 'L' none.
        int bits = 32;
        if (*format == 'h') {
            bits = 16;
            format++;
        } else if (*format == 'l') {
            format++;
            if (*format == 'l') {
                bits = 64;
                format++;
            }
        } else if (*format == 'I') {
            bits = 64;
            format++;
        } else if (*format == 'L') {
            format++;
        }

        int radix = 10;
        switch (*format) {
        case 'c':
            PutCharPadded(out, (char)(UCHAR)va_arg(args, int), width, flags);
            continue;

        case 'C':
            PutCharPadded(out, (char)(UCHAR)(WCHAR)va_arg(args, int), width, flags);
            continue;

        case 's': {
            const char* s = va_arg(args, const char*);
            PutPadded(out, s != NULL ? s : kNullText, false, precision, width, flags);
            continue;
        }

        case 'S': {
            const WCHAR* s = va_arg(args, const WCHAR*);
            if (s != NULL) {
                PutPadded(out, s, true, precision, width, flags);
            } else {
                PutPadded(out, kNullText, false, precision, width, flags);
            }
            continue;
        }

        case 'U': {
            const UNICODE_STRING* u = va_arg(args, const UNICODE_STRING*);
            if (u == NULL || (u->Buffer == NULL && u->Length != 0)) {
                out.PutText(kNullText);
            } else {
                for (ULONG i = 0; i < u->Length / 2u && out.mPos < out.mEnd; i++) out.Put((char)(UCHAR)u->Buffer[i]);
            }
            continue;
        }

        case 'P':
            out.PutText(gKnTracePrefix);
            continue;

        case 'T':
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, TimeStamp(precision), 10, width, -1, flags);
            continue;

        case 'p': {
            const void* p = va_arg(args, const void*);
            if (width == -1) {
                width = 16;
                flags |= KN_FMT_ZEROPAD;
            }
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, (ULONGLONG)(ULONG_PTR)p, 16, width, precision, flags);
            continue;
        }

        case 'D':
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, va_arg(args, unsigned int), 16, 8, -1,
                                      KN_FMT_ZEROPAD | KN_FMT_UPPER);
            continue;

        case 'W':
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, va_arg(args, unsigned int), 16, 4, -1,
                                      KN_FMT_ZEROPAD | KN_FMT_UPPER);
            continue;

        case 'B':
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, va_arg(args, unsigned int), 16, 2, -1,
                                      KN_FMT_ZEROPAD | KN_FMT_UPPER);
            continue;

        case 'Q':
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, va_arg(args, unsigned long long), 16, 16, -1,
                                      KN_FMT_ZEROPAD | KN_FMT_UPPER);
            continue;

        case 'N': {
            ULONG status = va_arg(args, unsigned int);
            out.PutText("0x");
            out.mPos = KnFormatNumber(out.mPos, out.mEnd, status, 16, 8, -1, KN_FMT_ZEROPAD | KN_FMT_UPPER);
            out.PutText(" (");
            out.PutText(KnNtStatusName((NTSTATUS)status));
            out.Put(')');
            continue;
        }

        case 'o':
            radix = 8;
            break;

        case 'X':
            flags |= KN_FMT_UPPER;
            radix = 16;
            break;

        case 'x':
            radix = 16;
            break;

        case 'd':
        case 'i':
            flags |= KN_FMT_SIGNED;
            break;

        case 'u':
            break;

        case '%':
            out.Put('%');
            continue;

        default:
            // Unknown conversion: "%" and the character; a '%' at the very
            // end prints itself alone.
            out.Put('%');
            if (*format != 0) {
                out.Put(*format);
            } else {
                format--;
            }
            continue;
        }

        // Integer conversions: read the argument in its size and extend it.
        ULONGLONG value;
        if (bits == 64) {
            value = va_arg(args, unsigned long long);
        } else if (flags & KN_FMT_SIGNED) {
            int v = va_arg(args, int);
            value = (bits == 16) ? (ULONGLONG)(LONGLONG)(SHORT)v : (ULONGLONG)(LONGLONG)v;
        } else {
            unsigned int v = va_arg(args, unsigned int);
            value = (bits == 16) ? (ULONGLONG)(USHORT)v : (ULONGLONG)v;
        }
        out.mPos = KnFormatNumber(out.mPos, out.mEnd, value, radix, width, precision, flags);
    }

    *out.mPos = 0;
    return (ULONG)(out.mPos - buffer);
}

ULONG KnFormat(char* buffer, ULONG size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    ULONG length = KnVFormat(buffer, size, format, args);
    va_end(args);
    return length;
}

ULONG KnOutput(const char* text)
{
    KnTraceLogBuffer* logBuffer = KnTraceLogBuffer::Instance();
    if (logBuffer != NULL && KeGetCurrentIrql() <= DISPATCH_LEVEL) {
        // System time in milliseconds, low 32 bits, right-aligned in 8
        // columns, then two blanks.
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        char prefix[16];
        char* pos = KnFormatNumber(prefix, prefix + sizeof(prefix) - 1,
                                   (ULONG)((ULONGLONG)now.QuadPart / 10000u), 10, 8, -1, 0);
        *pos++ = ' ';
        *pos++ = ' ';
        *pos = 0;
        logBuffer->AddMessage(text, prefix);
    }
    return DbgPrint("%s", text);
}

ULONG KnVPrint(const char* format, va_list args)
{
    char text[KN_TRACE_MESSAGE_SIZE];
    KnVFormat(text, sizeof(text), format, args);
    return KnOutput(text);
}

ULONG KnPrint(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    ULONG result = KnVPrint(format, args);
    va_end(args);
    return result;
}

void KnHexDump(const void* address, ULONG length)
{
    if (length == 0 || address == NULL) {
        KnOutput("<<NULL>>\n");
        return;
    }

    const UCHAR* bytes = static_cast<const UCHAR*>(address);
    USHORT index = 0;  // wraps after 0xFFFF
    for (ULONG offset = 0; offset < length; offset += 16, index = (USHORT)(index + 16)) {
        char line[128];
        RtlFillMemory(line, 80, ' ');
        ULONG count = length - offset < 16 ? length - offset : 16;

        for (int i = 0; i < 4; i++) line[i] = kDigitsUpper[(index >> (12 - 4 * i)) & 0xF];
        line[4] = ':';
        ULONG column = 6;
        for (ULONG i = 0; i < count; i++) {
            UCHAR b = bytes[offset + i];
            line[column] = kDigitsUpper[b >> 4];
            line[column + 1] = kDigitsUpper[b & 0xF];
            column += 3;
            if ((i & 3) == 3) column++;
        }
        column = 59;
        for (ULONG i = 0; i < count; i++) {
            UCHAR b = bytes[offset + i];
            line[column++] = (b >= 32 && b <= 127) ? (char)b : '.';
        }
        line[column++] = '\n';
        line[column] = 0;
        KnOutput(line);
    }
}

void KnAssertFailed(const char* expression, const char* file, unsigned line)
{
    if (KnGetTraceMask() & KN_TRACE_ERROR) {
        KnPrint("\n%P:ASSERTION FAILED: (%s)\n  %s(%u)\n", expression, file, line);
    }
}
