// Tests of the MAC address string conversion.
#include <gtest/gtest.h>

#include <cstring>

#include "macstring.h"

namespace {

struct Converted {
    bool ok;
    UCHAR mac[6];
};

Converted Convert(const char16_t* text)
{
    Converted result;
    memset(result.mac, 0xA5, sizeof(result.mac));
    result.ok = ConvertMacAddressString(text, result.mac);
    return result;
}

void ExpectMac(const Converted& c, std::initializer_list<UCHAR> expected)
{
    ASSERT_EQ(expected.size(), 6u);
    size_t i = 0;
    for (UCHAR b : expected) {
        EXPECT_EQ(c.mac[i], b) << "byte " << i;
        i++;
    }
}

TEST(MacString, ValidStrings)
{
    // Either case; the group bit is left as given.
    Converted c = Convert(u"001122AABBCC");
    EXPECT_TRUE(c.ok);
    ExpectMac(c, {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC});
    c = Convert(u"aabbccddee03");
    EXPECT_TRUE(c.ok);
    ExpectMac(c, {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x03});
}

TEST(MacString, WrongLengthIsRefusedAndLeavesTheAddress)
{
    for (const char16_t* text : {u"00112233445", u"0011223344556", u"", u"0011223344556677889900112"}) {
        Converted c = Convert(text);
        EXPECT_FALSE(c.ok);
        ExpectMac(c, {0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5});
    }
}

TEST(MacString, AnythingButHexadecimalDigitsIsRefusedAndLeavesTheAddress)
{
    for (const char16_t* text : {u"zz112233445G", u" 1-1+2334455", u"00112233445G", u"0x1122334455"}) {
        Converted c = Convert(text);
        EXPECT_FALSE(c.ok);
        ExpectMac(c, {0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0xA5});
    }
}

}  // namespace
