// Tests of the string helpers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <kplat/platform.h>

#include "kntrace.h"
#include "qbstringutils.h"

namespace {

class QbStringTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    kplat::DebugCapture mCapture;
    ULONG mSavedMask = 0;
};

class QbStringCopyTest : public QbStringTest {};
class QbStringLengthTest : public QbStringTest {};

TEST_F(QbStringCopyTest, EightBitCopiesAtMostMaxCharsMinusOne)
{
    char dest[8];
    memset(dest, 'x', sizeof(dest));
    EXPECT_EQ(QbStringCopy(dest, "abcdef", 3), 2u);
    EXPECT_STREQ(dest, "ab");
    EXPECT_EQ(dest[3], 'x') << "nothing written past the terminator";

    memset(dest, 'x', sizeof(dest));
    EXPECT_EQ(QbStringCopy(dest, "abcdef", 8), 6u);
    EXPECT_STREQ(dest, "abcdef");
    EXPECT_EQ(dest[7], 'x');

    EXPECT_EQ(QbStringCopy(dest, "abcdefgh", 8), 7u);
    EXPECT_STREQ(dest, "abcdefg");
}

TEST_F(QbStringCopyTest, MaxCharsOneWritesOnlyTheTerminator)
{
    char dest[2] = {'x', 'x'};
    EXPECT_EQ(QbStringCopy(dest, "abc", 1), 0u);
    EXPECT_EQ(dest[0], 0);
    EXPECT_EQ(dest[1], 'x');
}

TEST_F(QbStringCopyTest, EmptySource)
{
    char dest[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(QbStringCopy(dest, "", 4), 0u);
    EXPECT_EQ(dest[0], 0);
    EXPECT_EQ(dest[1], 'x');
}

TEST_F(QbStringCopyTest, MaxCharsZeroAssertsAndWritesNothing)
{
    char dest[2] = {'x', 'x'};
    EXPECT_EQ(QbStringCopy(dest, "abc", 0), 0u);
    EXPECT_EQ(dest[0], 'x');
    std::string text = mCapture.Text();
    EXPECT_NE(text.find("\nethbrg:ASSERTION FAILED: (maxChars>0)\n  source/libqb/qbstringutils.cpp("),
              std::string::npos)
        << text;

    WCHAR wide[2] = {u'x', u'x'};
    mCapture.Take();
    EXPECT_EQ(QbStringCopy(wide, u"abc", 0), 0u);
    EXPECT_EQ(wide[0], u'x');
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (maxChars>0)"));
}

TEST_F(QbStringCopyTest, Utf16ToUtf16)
{
    WCHAR dest[6];
    for (WCHAR& c : dest) c = u'x';
    EXPECT_EQ(QbStringCopy(dest, u"0A1B\u20AC9", 6), 5u);
    EXPECT_EQ(std::u16string(dest), u"0A1B\u20AC");
    EXPECT_EQ(QbStringCopy(dest, u"ab", 6), 2u);
    EXPECT_EQ(std::u16string(dest), u"ab");
    EXPECT_EQ(dest[3], u'B') << "the rest is left as it was";
}

TEST_F(QbStringCopyTest, Utf16ToEightBitKeepsTheLowByte)
{
    char dest[8];
    memset(dest, 'x', sizeof(dest));
    // U+0141 has low byte 0x41 ('A'); U+20AC has low byte 0xAC.
    EXPECT_EQ(QbStringCopy(dest, u"e\u0141b\u20AC", 8), 4u);
    EXPECT_EQ(dest[0], 'e');
    EXPECT_EQ(dest[1], 'A');
    EXPECT_EQ(dest[2], 'b');
    EXPECT_EQ((UCHAR)dest[3], 0xAC);
    EXPECT_EQ(dest[4], 0);
    EXPECT_EQ(dest[5], 'x');
}

TEST_F(QbStringCopyTest, PairsOfAMacAddressString)
{
    const WCHAR* text = u"0050B6A1B2C3";
    WCHAR pair[3];
    std::u16string pairs;
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(QbStringCopy(pair, text + 2 * i, 3), 2u);
        pairs += pair;
        pairs += u'-';
    }
    EXPECT_EQ(pairs, u"00-50-B6-A1-B2-C3-");
    // The last character alone, when the string is odd.
    EXPECT_EQ(QbStringCopy(pair, u"F", 3), 1u);
    EXPECT_EQ(std::u16string(pair), u"F");
}

TEST_F(QbStringLengthTest, CountsCodeUnitsBeforeTheTerminator)
{
    EXPECT_EQ(QbStringLength(u""), 0u);
    EXPECT_EQ(QbStringLength(u"0050B6A1B2C3"), 12u);
    EXPECT_EQ(QbStringLength(u"a\u20ACb"), 3u);
    const WCHAR embedded[] = {u'a', u'b', 0, u'c', 0};
    EXPECT_EQ(QbStringLength(embedded), 2u);
}

}  // namespace
