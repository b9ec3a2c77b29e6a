// Counted strings of the stand-in: initialisation, conversion to ANSI and to
// an integer.
#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <string>

namespace {

UNICODE_STRING U(const char16_t* s) {
    UNICODE_STRING u;
    RtlInitUnicodeString(&u, s);
    return u;
}

TEST(RtlAnsi, AllocatedConversionIsTerminatedAndReplacesWideCharacters) {
    const ULONG tag = kplat::MakeTag("RtlS");
    uint64_t live = kplat::GetPoolTagStats(tag).liveCount;
    UNICODE_STRING u = U(u"Caf\u00e9 \u20ac1");
    ANSI_STRING a;
    ASSERT_EQ(STATUS_SUCCESS, RtlUnicodeStringToAnsiString(&a, &u, TRUE));
    EXPECT_EQ(std::string("Caf? ?1"), std::string(a.Buffer));
    EXPECT_EQ(7, a.Length);
    EXPECT_EQ(8, a.MaximumLength);
    EXPECT_EQ(live + 1, kplat::GetPoolTagStats(tag).liveCount);
    RtlFreeAnsiString(&a);
    EXPECT_EQ(nullptr, a.Buffer);
    EXPECT_EQ(live, kplat::GetPoolTagStats(tag).liveCount);
}

TEST(RtlAnsi, CallersBufferTooSmallOverflowsWithWhatFits) {
    UNICODE_STRING u = U(u"abcdef");
    char buffer[8];
    memset(buffer, 'x', sizeof buffer);
    ANSI_STRING a = {0, 4, buffer};
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, RtlUnicodeStringToAnsiString(&a, &u, FALSE));
    EXPECT_EQ(3, a.Length);
    EXPECT_STREQ("abc", buffer);
    EXPECT_EQ('x', buffer[4]);  // nothing beyond MaximumLength

    a.MaximumLength = 7;  // exactly the characters and the terminator
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToAnsiString(&a, &u, FALSE));
    EXPECT_EQ(6, a.Length);
    EXPECT_STREQ("abcdef", buffer);

    a.MaximumLength = 6;  // no room for the terminator
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, RtlUnicodeStringToAnsiString(&a, &u, FALSE));
    EXPECT_STREQ("abcde", buffer);
}

struct IntCase {
    const char16_t* text;
    ULONG base;
    NTSTATUS status;
    ULONG value;
};

TEST(RtlInteger, PlatformConversionRules) {
    const IntCase cases[] = {
        {u"123", 10, STATUS_SUCCESS, 123},
        {u"123", 0, STATUS_SUCCESS, 123},
        {u"   42", 0, STATUS_SUCCESS, 42},
        {u"\t\r\n 7", 10, STATUS_SUCCESS, 7},
        {u"-5", 10, STATUS_SUCCESS, 0xFFFFFFFBu},
        {u"+9", 0, STATUS_SUCCESS, 9},
        {u"  -0x10", 0, STATUS_SUCCESS, 0xFFFFFFF0u},
        {u"0x1F", 0, STATUS_SUCCESS, 31},
        {u"0o17", 0, STATUS_SUCCESS, 15},
        {u"0b101", 0, STATUS_SUCCESS, 5},
        {u"0X1F", 0, STATUS_SUCCESS, 0},  // prefixes are lower case only
        {u"08", 0, STATUS_SUCCESS, 8},
        {u"0", 0, STATUS_SUCCESS, 0},
        {u"0x", 0, STATUS_SUCCESS, 0},
        {u"1F", 16, STATUS_SUCCESS, 31},
        {u"fF", 16, STATUS_SUCCESS, 255},
        {u"0x1F", 16, STATUS_SUCCESS, 0},  // no prefix with an explicit base
        {u"19", 8, STATUS_SUCCESS, 1},     // stops at the first invalid digit
        {u"1012", 2, STATUS_SUCCESS, 5},
        {u"12abc", 10, STATUS_SUCCESS, 12},
        {u"abc", 10, STATUS_SUCCESS, 0},
        {u"", 10, STATUS_SUCCESS, 0},
        {u"   ", 0, STATUS_SUCCESS, 0},
        {u"-", 0, STATUS_SUCCESS, 0},
        {u"4294967295", 10, STATUS_SUCCESS, 0xFFFFFFFFu},
        {u"4294967296", 10, STATUS_SUCCESS, 0},  // wraps around
        {u"12", 3, STATUS_INVALID_PARAMETER, 0xDEAD},
        {u"12", 1, STATUS_INVALID_PARAMETER, 0xDEAD},
        {u"12", 36, STATUS_INVALID_PARAMETER, 0xDEAD},
    };
    for (const IntCase& c : cases) {
        UNICODE_STRING u = U(c.text);
        ULONG value = 0xDEAD;
        EXPECT_EQ(c.status, RtlUnicodeStringToInteger(&u, c.base, &value))
            << std::string(c.text, c.text + u.Length / 2) << " base " << c.base;
        EXPECT_EQ(c.value, value) << std::string(c.text, c.text + u.Length / 2) << " base " << c.base;
    }
}

TEST(RtlInteger, ReadsOnlyTheCountedCharacters) {
    UNICODE_STRING u = U(u"12345");
    u.Length = 3 * sizeof(WCHAR);
    ULONG value = 0;
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToInteger(&u, 10, &value));
    EXPECT_EQ(123u, value);

    const char16_t withNul[] = {u'4', u'\0', u'5'};
    UNICODE_STRING n = {sizeof withNul, sizeof withNul, (PWSTR)withNul};
    EXPECT_EQ(STATUS_SUCCESS, RtlUnicodeStringToInteger(&n, 10, &value));
    EXPECT_EQ(4u, value);
}

}  // namespace
