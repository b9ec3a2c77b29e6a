// Tests of the trace output: the formatter and its directives, the number
// formatter, the output bound, the print entry and output sink, the trace
// call, assertions and IRQL checks, the hex dump.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <string>
#include <vector>

#include <kplat/platform.h>

#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

std::string Format(const char* format, ...)
{
    char buffer[KN_TRACE_MESSAGE_SIZE];
    memset(buffer, 0x55, sizeof(buffer));
    va_list args;
    va_start(args, format);
    ULONG length = KnVFormat(buffer, sizeof(buffer), format, args);
    va_end(args);
    EXPECT_EQ(length, strlen(buffer)) << "returned length and terminator disagree";
    return std::string(buffer);
}

// Starts the platform and leaves mask and prefix as they were.
class TraceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        KnTraceLogBuffer::Delete();
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    kplat::Scope mScope;
    ULONG mSavedMask = 0;
};

class KnFormatTest : public TraceTest {};
class KnFormatNumberTest : public TraceTest {};
class KnPrintTest : public TraceTest {};
class KnTraceCallTest : public TraceTest {};
class KnAssertTest : public TraceTest {};
class KnHexDumpTest : public TraceTest {};

// ---------------------------------------------------------------------------
// Formatter vectors: every directive with flags, width, precision and size
// ---------------------------------------------------------------------------
TEST_F(KnFormatTest, Vectors)
{
    const struct {
        std::string got;
        const char* want;
    } cases[] = {
        {Format("no directives here\n"), "no directives here\n"},
        {Format(""), ""},
        // Integers.
        {Format("%d", INT_MIN), "-2147483648"},
        {Format("%i", -42), "-42"},
        {Format("%u", -1), "4294967295"},
        {Format("%x", 0xDEADBEEFu), "deadbeef"},
        {Format("%X", 0xDEADBEEFu), "DEADBEEF"},
        {Format("%o", 8u), "10"},
        // Flags: left-justify, zero pad after the sign, blank and plus.
        {Format("%-5d|", 42), "42   |"},
        {Format("%05d", -42), "-0042"},
        {Format("%+05d", 42), "+0042"},
        {Format("% 05d", 42), " 0042"},
        {Format("%0-5d|", -4), "-4   |"},
        {Format("%5d", -42), "  -42"},
        {Format("% d", -42), "-42"},
        {Format("%+ d", 1), "+1"},
        {Format("%+u", 5u), "5"},
        {Format("% x", 5u), "5"},
        {Format("%#x", 255u), "0xff"},
        {Format("%#X", 255u), "0XFF"},
        {Format("%#o", 8u), "010"},
        {Format("%#06x", 255u), "0x00ff"},
        {Format("%#-6x|", 255u), "0xff  |"},
        {Format("%#6o", 8u), "   010"},
        {Format("%#u", 8u), "8"},
        // Precision is the minimum digit count; star arguments.
        {Format("%8.5d", -42), "  -00042"},
        {Format("%-8.5x|", 0xabu), "000ab   |"},
        {Format("%.0d", 0), "0"},
        {Format("%.d", 7), "7"},
        {Format("%08.3d", 5), "00000005"},
        {Format("%*d|", -5, 42), "42   |"},
        {Format("%.*d", -3, 42), "42"},
        {Format("%.*s|", -1, "abc"), "|"},
        {Format("%*.*d|%d", 6, 3, 7, 9), "   007|9"},
        // Sizes: 16 bits, 32 bits by default and with l/L, 64 bits keeping
        // later arguments aligned.
        {Format("%hd", 0x18000), "-32768"},
        {Format("%hx", 0xFFFFFFFFu), "ffff"},
        {Format("%x %x", 0x11u, 0x22u), "11 22"},
        {Format("%lx %lu", 0xFFu, 7u), "ff 7"},
        {Format("%Lx", 0xABCu), "abc"},
        {Format("%llu", ULLONG_MAX), "18446744073709551615"},
        {Format("%Id", LLONG_MIN), "-9223372036854775808"},
        {Format("%llo", 01777777777777777777777ull), "1777777777777777777777"},
        {Format("%d %llx %d", 1, 0xFFFFFFFF00000000ull, 2), "1 ffffffff00000000 2"},
        {Format("%Q %u", 0x1ull, 3u), "0000000000000001 3"},
        {Format("%p %u", (void*)0x10, 4u), "0000000000000010 4"},
        // Pointer and fixed-width hexadecimal.
        {Format("%p", (void*)0xFFFF800012345678ull), "ffff800012345678"},
        {Format("%8p", (void*)NULL), "       0"},
        {Format("%-6p|", (void*)0xab), "ab    |"},
        {Format("%#p", (void*)0xab), "0x000000000000ab"},
        {Format("%-12D|", 0x1Fu), "0000001F|"},
        {Format("%#.2D", 0xDEADBEEFu), "DEADBEEF"},
        {Format("%W", 0xABu), "00AB"},
        {Format("%W", 0x12345u), "12345"},
        {Format("%-9B|", 7u), "07|"},
        {Format("%B", 0x1ABu), "1AB"},
        {Format("%Q", 0xFEDCBA9876543210ull), "FEDCBA9876543210"},
        {Format("%3Q", 0ull), "0000000000000000"},
        // Status with name.
        {Format("%N", STATUS_SUCCESS), "0x00000000 (STATUS_SUCCESS)"},
        {Format("%N", STATUS_UNSUCCESSFUL), "0xC0000001 (STATUS_UNSUCCESSFUL)"},
        {Format("%N", 0xDEAD0001u), "0xDEAD0001 (unknown)"},
        {Format("%20N|", 0x4u), "0x00000004 (unknown)|"},
        // Characters and strings.
        {Format("%-3c|", 'A'), "A  |"},
        {Format("%c", 0x141), "A"},
        {Format("%03c", 'z'), "  z"},
        {Format("%C", 0x0142), "B"},
        {Format("%2C|", (int)u'x'), " x|"},
        {Format("%5.2s|", "abcdef"), "   ab|"},
        {Format("%.10s", "ab"), "ab"},
        {Format("%.0s|", "ab"), "|"},
        {Format("%05s", "ab"), "   ab"},
        {Format("%-5s|", "ab"), "ab   |"},
        {Format("%S", u"\u0141\u0142"), "AB"},
        {Format("%-6.1S|", u"ab"), "a     |"},
        {Format("%6S|", u"ab"), "    ab|"},
        // Null strings.
        {Format("%s", (const char*)NULL), "<NULL>"},
        {Format("%U", (const UNICODE_STRING*)NULL), "<NULL>"},
        {Format("%8s|", (const char*)NULL), "  <NULL>|"},
        {Format("%-8S|", (const WCHAR*)NULL), "<NULL>  |"},
        // Unknown conversions print themselves; a lone percent at the end.
        {Format("%q"), "%q"},
        {Format("100%%"), "100%"},
        {Format("%5q|"), "%q|"},
        {Format("%n"), "%n"},
        {Format("%I64d"), "%6" "4d"},
        {Format("abc%-5"), "abc%"},
        {Format("%"), "%"},
        {Format("%s=%d %c%S %p", "a", -1, 'x', u"y", (void*)0xF), "a=-1 xy 000000000000000f"},
    };
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); i++) EXPECT_EQ(cases[i].got, cases[i].want) << "case " << i;
}

TEST_F(KnFormatTest, CountedStringUsesLengthInBytes)
{
    WCHAR text[] = u"abcdef";
    UNICODE_STRING s;
    s.Buffer = text;
    s.Length = 8;
    s.MaximumLength = sizeof(text);
    EXPECT_EQ(Format("%U", &s), "abcd");
    EXPECT_EQ(Format("%10U|", &s), "abcd|");  // no padding
    s.Length = 5;                              // an odd length rounds down
    EXPECT_EQ(Format("[%U]", &s), "[ab]");
    s.Length = 0;
    EXPECT_EQ(Format("[%U]", &s), "[]");
    WCHAR unterminated[3] = {u'x', u'y', u'z'};
    s.Buffer = unterminated;
    s.Length = sizeof(unterminated);
    EXPECT_EQ(Format("%U.", &s), "xyz.");
    s.Length = 0;
    s.Buffer = NULL;
    EXPECT_EQ(Format("[%U]", &s), "[]");  // empty, buffer never read
}

// ---------------------------------------------------------------------------
// Prefix, time stamp, fallbacks
// ---------------------------------------------------------------------------
TEST_F(KnFormatTest, PrefixDirective)
{
    EXPECT_EQ(Format("%P:Op\n"), "ethbrg:Op\n");
    KnSetTracePrefix("");
    EXPECT_EQ(Format("%P:Op"), ":Op");
    KnSetTracePrefix(NULL);
    EXPECT_EQ(Format("[%P]"), "[]");
    KnSetTracePrefix("0123456789012345678901234567890123456789");
    EXPECT_EQ(Format("%P"), "0123456789012345678901234567890") << "at most 31 characters";
}

TEST_F(KnFormatTest, TimeStampInMicrosecondsByDefault)
{
    LARGE_INTEGER frequency;
    LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
    ASSERT_NE(frequency.QuadPart, 0);
    ULONG micro = (ULONG)((unsigned __int128)counter.QuadPart * 1000000u / frequency.QuadPart);
    ULONG milli = (ULONG)((unsigned __int128)counter.QuadPart * 1000u / frequency.QuadPart);
    EXPECT_EQ(Format("%T", 0), std::to_string(micro));  // takes no argument
    EXPECT_EQ(Format("%.1000T"), std::to_string(milli));
    char expected[64];
    snprintf(expected, sizeof(expected), "%012u", micro);
    EXPECT_EQ(Format("%012T"), expected);
    kplat::AdvanceTime(5);
    EXPECT_EQ((ULONG)std::stoul(Format("%T")) - micro, 5000u) << "follows the clock";
}

// ---------------------------------------------------------------------------
// Output bound
// ---------------------------------------------------------------------------
TEST_F(KnFormatTest, MessageKeepsFirst255Characters)
{
    std::string text(300, 'a');
    for (size_t i = 0; i < text.size(); i++) text[i] = (char)('a' + i % 26);
    char buffer[KN_TRACE_MESSAGE_SIZE + 16];
    memset(buffer, 0x55, sizeof(buffer));
    ULONG length = KnFormat(buffer, KN_TRACE_MESSAGE_SIZE, "%s", text.c_str());
    EXPECT_EQ(length, 255u);
    EXPECT_EQ(std::string(buffer), text.substr(0, 255));
    EXPECT_EQ(buffer[255], 0);
    EXPECT_EQ((UCHAR)buffer[256], 0x55) << "wrote past the buffer";
}

TEST_F(KnFormatTest, BoundAppliesInsideNumbersAndPadding)
{
    std::string lead(250, '.');
    EXPECT_EQ(Format("%s%d", lead.c_str(), 1234567890), lead + "12345");
    EXPECT_EQ(Format("%s%20d", lead.c_str(), 1), lead + "     ");
    EXPECT_EQ(Format("%s%N", lead.c_str(), STATUS_SUCCESS), lead + "0x000");
    EXPECT_EQ(Format("%s%-20s|", lead.c_str(), "x"), lead + "x    ");
    EXPECT_EQ(Format("%100000d", 1).size(), 255u);
    EXPECT_EQ(Format("%*d", INT_MIN, 1).substr(0, 2), "1 ");
}

TEST_F(KnFormatTest, TinyBuffers)
{
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(KnFormat(buffer, 0, "abc"), 0u);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(KnFormat(buffer, 1, "abc%d", 5), 0u);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(buffer[1], 'x');
    EXPECT_EQ(KnFormat(buffer, 3, "%d", 12345), 2u);
    EXPECT_STREQ(buffer, "12");
}

// ---------------------------------------------------------------------------
// Number formatter
// ---------------------------------------------------------------------------
std::string Number(ULONGLONG value, int radix, int width, int precision, ULONG flags, size_t size = 80)
{
    std::vector<char> buffer(size + 1, '#');
    char* end = buffer.data() + size - 1;
    char* pos = KnFormatNumber(buffer.data(), end, value, radix, width, precision, flags);
    EXPECT_GE(pos, buffer.data());
    EXPECT_LE(pos, end);
    EXPECT_EQ(buffer[size], '#') << "wrote past the buffer";
    return std::string(buffer.data(), pos);
}

TEST_F(KnFormatNumberTest, AllRadixes)
{
    EXPECT_EQ(Number(10, 1, -1, -1, 0), "");
    EXPECT_EQ(Number(10, 37, -1, -1, 0), "");
    EXPECT_EQ(Number(10, 0, 8, -1, 0), "");
    EXPECT_EQ(Number(5, 2, -1, -1, 0), "101");
    EXPECT_EQ(Number(35, 36, -1, -1, KN_FMT_UPPER), "Z");
    EXPECT_EQ(Number(~0ull, 2, -1, -1, 0), std::string(64, '1'));
    EXPECT_EQ(Number((ULONGLONG)LLONG_MIN, 10, -1, -1, KN_FMT_SIGNED), "-9223372036854775808");
    EXPECT_EQ(Number(1, 10, 10, -1, KN_FMT_LEFT, 4), "1  ");  // stops before the end
}

TEST_F(KnFormatNumberTest, NoRoomForCharacterAndTerminator)
{
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(KnFormatNumber(buffer, buffer, 7, 10, -1, -1, 0), buffer);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(KnFormatNumber(buffer + 2, buffer + 1, 7, 10, -1, -1, 0), buffer + 2);
    EXPECT_EQ(KnFormatNumber(buffer, buffer + 1, 7, 10, 3, -1, 0), buffer + 1);
    EXPECT_EQ(buffer[0], ' ');
    EXPECT_EQ(buffer[1], 'x');
}

TEST_F(KnFormatNumberTest, OrderOfPaddingSignPrefixZerosDigits)
{
    // Blanks first without zero padding and left-justify.
    EXPECT_EQ(Number(0xAB, 16, 10, 4, KN_FMT_ALTERNATE | KN_FMT_SIGNED | KN_FMT_PLUS), "   +0x00ab");
    // Zero padding goes between sign/prefix and the precision zeros.
    EXPECT_EQ(Number(0xAB, 16, 10, 4, KN_FMT_ALTERNATE | KN_FMT_SIGNED | KN_FMT_PLUS | KN_FMT_ZEROPAD),
              "+0x00000ab");
    // Left-justify: trailing blanks.
    EXPECT_EQ(Number(0xAB, 16, 10, 4, KN_FMT_ALTERNATE | KN_FMT_SIGNED | KN_FMT_BLANK | KN_FMT_LEFT),
              " 0x00ab   ");
    EXPECT_EQ(Number(8, 8, 5, -1, KN_FMT_ALTERNATE | KN_FMT_UPPER), "  010");
    EXPECT_EQ(Number(10, 16, -1, -1, KN_FMT_ALTERNATE | KN_FMT_UPPER), "0XA");
}

// ---------------------------------------------------------------------------
// Print entry and output sink
// ---------------------------------------------------------------------------
TEST_F(KnPrintTest, PrintGoesToDebuggerOutput)
{
    kplat::DebugCapture capture;
    KnPrint("%P:MpAdapter::Initialize status %N\n", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(capture.Text(), "ethbrg:MpAdapter::Initialize status 0xC000009A (STATUS_INSUFFICIENT_RESOURCES)\n");
}

TEST_F(KnPrintTest, LongMessageIsOutputAsFirst255Characters)
{
    std::string text(300, 'x');
    for (size_t i = 0; i < text.size(); i++) text[i] = (char)('A' + i % 26);
    kplat::DebugCapture capture;
    KnPrint("%s", text.c_str());
    EXPECT_EQ(capture.Text(), text.substr(0, 255));
}

std::string RingText(const KnTraceLogBuffer* logBuffer)
{
    const KnTraceLogControlBlock* cb = logBuffer->ControlBlock();
    return std::string((const char*)logBuffer->Memory() + cb->mRingStart,
                       (const char*)logBuffer->Memory() + cb->mLastEnd);
}

std::string TimePrefix()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    char prefix[32];
    snprintf(prefix, sizeof(prefix), "%8u  ", (unsigned)(ULONG)((ULONGLONG)now.QuadPart / 10000u));
    return prefix;
}

TEST_F(KnPrintTest, OutputGoesIntoLogBufferWithTimePrefix)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    kplat::DebugCapture capture;
    KnPrint("%P:Op %d\n", 7);
    EXPECT_EQ(capture.Text(), "ethbrg:Op 7\n");
    EXPECT_EQ(RingText(KnTraceLogBuffer::Instance()), TimePrefix() + "ethbrg:Op 7\n" + KN_TRACE_LOG_END_MARKER);
}

TEST_F(KnPrintTest, TimePrefixIsLow32BitsOfSystemTimeInMilliseconds)
{
    // The virtual clock starts at 2014-07-24 00:00:00 UTC: 13050633600000 ms
    // since 1601. Plus 1234 ms, the low 32 bits are 2522955986 (more than
    // eight digits, so no leading blanks).
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    kplat::AdvanceTime(1234);
    kplat::DebugCapture capture;
    KnOutput("a\n");
    EXPECT_EQ(RingText(KnTraceLogBuffer::Instance()), std::string("2522955986  a\n") + KN_TRACE_LOG_END_MARKER);
}

TEST_F(KnPrintTest, OutputAboveDispatchLevelSkipsLogBuffer)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    kplat::DebugCapture capture;
    KIRQL old;
    KeRaiseIrql(HIGH_LEVEL, &old);
    KnOutput("at high level\n");
    KeLowerIrql(old);
    EXPECT_EQ(capture.Text(), "at high level\n");
    const KnTraceLogControlBlock* cb = KnTraceLogBuffer::Instance()->ControlBlock();
    EXPECT_EQ(cb->mWritePosition, 256u);
    EXPECT_EQ(cb->mLastEnd, 256u);
}

// ---------------------------------------------------------------------------
// Trace call
// ---------------------------------------------------------------------------
int gEvaluations = 0;
int Evaluate(int value)
{
    gEvaluations++;
    return value;
}

TEST_F(KnTraceCallTest, ArgumentsAreEvaluatedOnlyWhenEnabled)
{
    KnSetTraceMask(KN_TRACE_ERROR);
    gEvaluations = 0;
    kplat::DebugCapture capture;
    KN_TRACE(KN_TRACE_TX, "%P:Tx %d %d\n", Evaluate(1), Evaluate(2));
    EXPECT_EQ(gEvaluations, 0);
    EXPECT_EQ(capture.Text(), "");
    KnSetTraceMask(KN_TRACE_ERROR | KN_TRACE_TX);
    KN_TRACE(KN_TRACE_TX, "%P:Tx %d %d\n", Evaluate(1), Evaluate(2));
    EXPECT_EQ(gEvaluations, 2);
    EXPECT_EQ(capture.Text(), "ethbrg:Tx 1 2\n");
}

TEST_F(KnTraceCallTest, EachBitSelectsItsMessages)
{
    const ULONG bits[] = {KN_TRACE_ERROR,   KN_TRACE_WARNING, KN_TRACE_INFO,        KN_TRACE_START,
                          KN_TRACE_OID,     KN_TRACE_VLAN,    KN_TRACE_TX,          KN_TRACE_RX_DUMP,
                          KN_TRACE_RX_TRANSFER, KN_TRACE_RX_PATH, KN_TRACE_TX_SUBMIT};
    for (ULONG enabled : bits) {
        KnSetTraceMask(enabled);
        kplat::DebugCapture capture;
        for (ULONG bit : bits) KN_TRACE(bit, "%x;", bit);
        char expected[32];
        snprintf(expected, sizeof(expected), "%x;", enabled);
        EXPECT_EQ(capture.Text(), expected);
    }
}

// ---------------------------------------------------------------------------
// Assertions and IRQL checks
// ---------------------------------------------------------------------------
TEST_F(KnAssertTest, FailedAssertionPrintsAndGoesOn)
{
    kplat::DebugCapture capture;
    int x = 1;
    bool reached = false;
    // clang-format off
    KN_ASSERT(x==2); const unsigned line = __LINE__;
    // clang-format on
    reached = true;
    EXPECT_TRUE(reached);
    EXPECT_EQ(capture.Text(), "\nethbrg:ASSERTION FAILED: (x==2)\n  " + std::string(__FILE__) + "(" +
                                  std::to_string(line) + ")\n");
}

TEST_F(KnAssertTest, AssertionNeedsErrorBit)
{
    KnSetTraceMask(~(ULONG)KN_TRACE_ERROR);
    kplat::DebugCapture capture;
    KN_ASSERT(1==0);
    KnAssertFailed("expr", "file.cpp", 1);
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(KnAssertTest, IrqlChecks)
{
    kplat::DebugCapture capture;
    IRQL_EQ_PASSIVE();
    IRQL_LTEQ_DISPATCH();
    EXPECT_EQ(capture.Text(), "");
    IRQL_EQ_DISPATCH();
    EXPECT_NE(capture.Take().find("ASSERTION FAILED: (IRQL_EQ_DISPATCH())\n"), std::string::npos);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    IRQL_EQ_DISPATCH();
    IRQL_LTEQ_DISPATCH();
    std::string quiet = capture.Take();
    IRQL_EQ_PASSIVE();
    KeRaiseIrql(HIGH_LEVEL, &old);
    IRQL_LTEQ_DISPATCH();
    KeLowerIrql(PASSIVE_LEVEL);
    EXPECT_EQ(quiet, "");
    EXPECT_TRUE(capture.Contains("ASSERTION FAILED: (IRQL_EQ_PASSIVE())\n"));
    EXPECT_TRUE(capture.Contains("ASSERTION FAILED: (IRQL_LTEQ_DISPATCH())\n"));
}

// ---------------------------------------------------------------------------
// Hex dump
// ---------------------------------------------------------------------------
std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size() - 1;
        lines.push_back(text.substr(start, end - start + 1));
        start = end + 1;
    }
    return lines;
}

TEST_F(KnHexDumpTest, TwentyBytesGiveTwoLinesWithCharactersAtColumn59)
{
    UCHAR data[20];
    for (int i = 0; i < 20; i++) data[i] = (UCHAR)('a' + i);
    kplat::DebugCapture capture;
    KnHexDump(data, sizeof(data));
    std::vector<std::string> lines = Lines(capture.Text());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "0000: 61 62 63 64  65 66 67 68  69 6A 6B 6C  6D 6E 6F 70   abcdefghijklmnop\n");
    EXPECT_EQ(lines[1], "0010: 71 72 73 74" + std::string(59 - 17, ' ') + "qrst\n");
    EXPECT_EQ(lines[1].size(), 64u);
    EXPECT_EQ(lines[1].substr(59), "qrst\n");
}

TEST_F(KnHexDumpTest, NonPrintableBytesShowAsDots)
{
    const UCHAR data[] = {0x00, 0x1F, 0x20, 0x41, 0x7E, 0x7F, 0x80, 0xFF};
    kplat::DebugCapture capture;
    KnHexDump(data, sizeof(data));
    std::string line = capture.Text();
    EXPECT_EQ(line.substr(0, 6 + 2 * 13), "0000: 00 1F 20 41  7E 7F 80 FF  ");
    EXPECT_EQ(line.substr(59), std::string(".. A~\x7f..") + "\n");
}

TEST_F(KnHexDumpTest, IndexWrapsAfterFFFF)
{
    std::vector<UCHAR> data(0x10020, 0x33);
    kplat::DebugCapture capture;
    KnHexDump(data.data(), (ULONG)data.size());
    std::vector<std::string> lines = Lines(capture.Text());
    ASSERT_EQ(lines.size(), 0x1002u);
    EXPECT_EQ(lines[0x0FFF].substr(0, 6), "FFF0: ");
    EXPECT_EQ(lines[0x1000].substr(0, 6), "0000: ");
    EXPECT_EQ(lines[0x1001].substr(0, 6), "0010: ");
    EXPECT_EQ(lines[0x00AB].substr(0, 6), "0AB0: ");
}

TEST_F(KnHexDumpTest, EmptyDumpAndNoMaskBit)
{
    KnSetTraceMask(0);  // the dump does not test the mask
    kplat::DebugCapture capture;
    UCHAR b = 'Z';
    KnHexDump(&b, 0);
    EXPECT_EQ(capture.Take(), "<<NULL>>\n");
    KnHexDump(&b, 1);
    EXPECT_EQ(capture.Text().substr(59), "Z\n");
}

TEST_F(KnHexDumpTest, DumpLinesGoIntoLogBuffer)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    UCHAR data[17] = {};
    kplat::DebugCapture capture;
    KnHexDump(data, sizeof(data));
    std::string ring = RingText(KnTraceLogBuffer::Instance());
    std::string prefix = TimePrefix();
    ASSERT_EQ(ring.substr(0, prefix.size() + 6), prefix + "0000: ");
    // Two lines, each with its own prefix; the marker only after the last.
    EXPECT_NE(ring.find(prefix + "0010: 00"), std::string::npos);
    EXPECT_EQ(ring.find(KN_TRACE_LOG_END_MARKER), ring.size() - strlen(KN_TRACE_LOG_END_MARKER));
}

}  // namespace
