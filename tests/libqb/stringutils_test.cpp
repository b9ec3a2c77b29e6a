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

// Copies into an 8-byte buffer of 'x': the result, what the buffer holds up
// to the first untouched byte, the count.
TEST_F(QbStringCopyTest, EightBitCopiesAtMostMaxCharsMinusOne)
{
    const struct {
        const char* source;
        ULONG maxChars;
        ULONG count;
        std::string buffer;  // up to and including the first byte left alone
    } cases[] = {
        {"abcdef", 3, 2, std::string("ab\0x", 4)},
        {"abcdef", 8, 6, std::string("abcdef\0x", 8)},
        {"abcdefgh", 8, 7, std::string("abcdefg\0", 8)},
        {"abc", 1, 0, std::string("\0x", 2)},
        {"", 4, 0, std::string("\0x", 2)},
    };
    for (const auto& c : cases) {
        char dest[8];
        memset(dest, 'x', sizeof(dest));
        EXPECT_EQ(QbStringCopy(dest, c.source, c.maxChars), c.count) << c.source << " " << c.maxChars;
        EXPECT_EQ(std::string(dest, c.buffer.size()), c.buffer) << c.source << " " << c.maxChars;
    }
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

TEST_F(QbStringCopyTest, LengthCountsCodeUnitsBeforeTheTerminator)
{
    EXPECT_EQ(QbStringLength(u""), 0u);
    EXPECT_EQ(QbStringLength(u"0050B6A1B2C3"), 12u);
    EXPECT_EQ(QbStringLength(u"a\u20ACb"), 3u);
    const WCHAR embedded[] = {u'a', u'b', 0, u'c', 0};
    EXPECT_EQ(QbStringLength(embedded), 2u);
}

}  // namespace
