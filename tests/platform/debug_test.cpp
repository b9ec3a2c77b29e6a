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

TEST(DebugCapture, LongMessagesAreCutAt512BytesEndingInALineBreak) {
    kplat::DebugCapture capture;
    std::string exact(512, 'e');
    DbgPrint("%s", exact.c_str());
    EXPECT_EQ(exact, capture.Take());

    std::string longer(600, 'x');
    DbgPrint("%s tail\n", longer.c_str());
    std::string text = capture.Take();
    ASSERT_EQ(512u, text.size());
    EXPECT_EQ(std::string(511, 'x') + "\n", text);
}

TEST(DebugCapture, CollectsWholeMessagesFromSeveralThreads) {
    kplat::DebugCapture capture;
    const int kThreads = 4, kMessages = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            KIRQL old;
            if (t % 2) KeRaiseIrql(DISPATCH_LEVEL, &old);  // any IRQL will do
            for (int i = 0; i < kMessages; i++) DbgPrint("thread %d message %d end\n", t, i);
            if (t % 2) KeLowerIrql(old);
        });
    }
    for (std::thread& th : threads) th.join();

    std::istringstream lines(capture.Text());
    std::string line;
    std::map<int, int> next;  // per thread, the message expected next
    int count = 0;
    while (std::getline(lines, line)) {
        int t = -1, i = -1;
        char end[4] = {};
        ASSERT_EQ(3, sscanf(line.c_str(), "thread %d message %d %3s", &t, &i, end)) << line;
        ASSERT_STREQ("end", end) << line;
        EXPECT_EQ(next[t], i) << "thread " << t;  // each thread's messages in its order
        next[t] = i + 1;
        count++;
    }
    EXPECT_EQ(kThreads * kMessages, count);
}

}  // namespace
