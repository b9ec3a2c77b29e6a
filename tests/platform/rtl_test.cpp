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

}  // namespace
