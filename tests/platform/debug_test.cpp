// Debugger output of the stand-in: DbgPrint, its sinks and captures.
#include <gtest/gtest.h>
#include <kplat/platform.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(DebugCapture, CollectsFormattedText) {
    kplat::DebugCapture capture;
    DbgPrint("%s:%u 0x%08X\n", "ethbrg", 7u, 0xBEEFu);
    DbgPrint("second\n");
    EXPECT_EQ("ethbrg:7 0x0000BEEF\nsecond\n", capture.Text());
    EXPECT_TRUE(capture.Contains("0x0000BEEF"));
    EXPECT_FALSE(capture.Contains("third"));
    EXPECT_EQ("ethbrg:7 0x0000BEEF\nsecond\n", capture.Take());
    EXPECT_EQ("", capture.Text());
}

}  // namespace
