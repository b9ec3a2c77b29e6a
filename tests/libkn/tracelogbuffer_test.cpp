// Tests of the trace log buffer: block sizes and control block, message
// layout, wrapping, the single end marker, deletion and allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <kplat/platform.h>

#include "knmemory.h"
#include "kntrace.h"
#include "kntracelogbuffer.h"

namespace {

const std::string kMarker = KN_TRACE_LOG_END_MARKER;

class KnTraceLogBufferTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KnTraceLogBuffer::Instance(), nullptr); }
    void TearDown() override
    {
        KnTraceLogBuffer::Delete();
        KnTraceLogBufferSetFreeRoutine(NULL);
        kplat::ClearFaults();
    }

    static KnTraceLogBuffer* Buffer() { return KnTraceLogBuffer::Instance(); }
    static const KnTraceLogControlBlock* Cb() { return Buffer()->ControlBlock(); }
    static std::string Bytes(ULONG offset, ULONG length)
    {
        return std::string((const char*)Buffer()->Memory() + offset, length);
    }
    // The ring read from the write position on, once round.
    static std::string RingFromWritePosition()
    {
        const KnTraceLogControlBlock* cb = Cb();
        std::string ring = Bytes(cb->mRingStart, cb->mRingEnd - cb->mRingStart);
        ULONG split = cb->mWritePosition - cb->mRingStart;
        return ring.substr(split) + ring.substr(0, split);
    }
    static size_t CountMarkersInRing()
    {
        // Searched circularly: the ring read twice over finds a marker that
        // wraps; count only those that start in the first round.
        const KnTraceLogControlBlock* cb = Cb();
        std::string ring = Bytes(cb->mRingStart, cb->mRingEnd - cb->mRingStart);
        std::string twice = ring + ring;
        size_t count = 0;
        for (size_t at = twice.find(kMarker); at != std::string::npos && at < ring.size();
             at = twice.find(kMarker, at + 1)) {
            count++;
        }
        return count;
    }

    kplat::Scope mScope;
};

// ---------------------------------------------------------------------------
// Creation and sizes
// ---------------------------------------------------------------------------
TEST_F(KnTraceLogBufferTest, NoBufferBeforeCreateAndAfterDelete)
{
    {
        EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
        EXPECT_EQ(KnTraceLogBuffer::SizeKb(), 0u);
        KnTraceLogBuffer::Delete();  // nothing to delete
        EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
        KnTraceLogBuffer::Delete();
    }
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(4));
        KnTraceLogBuffer::Delete();
        KnTraceLogBuffer::Delete();
        EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
        KnTraceLogBuffer::Delete();
    }
}

TEST_F(KnTraceLogBufferTest, SizeIsWholePages)
{
    const struct {
        ULONG kb;
        ULONG size;
    } cases[] = {{0, 4096}, {1, 4096}, {5, 8192}, {8, 8192}, {KN_TRACE_LOG_DEFAULT_SIZE_KB, 131072}};
    for (const auto& c : cases) {
        ASSERT_TRUE(KnTraceLogBuffer::Create(c.kb));
        EXPECT_EQ(Buffer()->Size(), c.size) << c.kb;
        EXPECT_EQ(KnTraceLogBuffer::SizeKb(), c.size / 1024) << c.kb;
        EXPECT_EQ(Cb()->mRingEnd - Cb()->mRingStart, c.size - 256) << c.kb;
    }
}

TEST_F(KnTraceLogBufferTest, ControlBlockLayout)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    const UCHAR* m = Buffer()->Memory();
    EXPECT_EQ((const void*)Cb(), (const void*)m);
    EXPECT_EQ(std::string((const char*)m, 32), "MORVALEN-*TRCLOGBUFFER*-MORVALEN");
    auto u32 = [m](int offset) { return (ULONG)m[offset] | (ULONG)m[offset + 1] << 8 |
                                        (ULONG)m[offset + 2] << 16 | (ULONG)m[offset + 3] << 24; };
    EXPECT_EQ(u32(32), 256u);   // control block size
    EXPECT_EQ(u32(36), 1u);     // version
    EXPECT_EQ(u32(40), 256u);   // ring start
    EXPECT_EQ(u32(44), 4096u);  // ring end
    EXPECT_EQ(u32(48), 256u);   // write position
    EXPECT_EQ(u32(52), 256u);   // last end
    for (int i = 56; i < 4096; i++) ASSERT_EQ(m[i], 0) << "byte " << i;  // reserved and ring zeroed
}

TEST_F(KnTraceLogBufferTest, CreateAgainSetsUpANewBlock)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    KnTraceLogBuffer* first = Buffer();
    first->AddMessage("old\n", NULL);
    ASSERT_TRUE(KnTraceLogBuffer::Create(8));
    EXPECT_EQ(Buffer(), first);
    EXPECT_EQ(KnTraceLogBuffer::SizeKb(), 8u);
    EXPECT_EQ(Cb()->mWritePosition, 256u);
    EXPECT_EQ(Cb()->mLastEnd, 256u);
    EXPECT_EQ(Bytes(256, 4), std::string(4, '\0'));
}

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------
TEST_F(KnTraceLogBufferTest, ObjectAllocationFailureLeavesNoBufferButTracing)
{
    {
        kplat::FailTag(KN_TAG("KnTl"), 1);
        EXPECT_FALSE(KnTraceLogBuffer::Create(4));
        EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
        EXPECT_EQ(KnTraceLogBuffer::SizeKb(), 0u);
        KnTraceLogBuffer::Delete();
    }
    {
        kplat::FailTag(KN_TAG("KnTl"), 1);
        ASSERT_FALSE(KnTraceLogBuffer::Create(4));
        kplat::DebugCapture capture;
        KnPrint("still traced\n");
        EXPECT_EQ(capture.Text(), "still traced\n");
        KnTraceLogBuffer::Delete();
    }
}

TEST_F(KnTraceLogBufferTest, BlockAllocationFailureDeletesObject)
{
    const ULONG tag = KN_TAG("KnTl");
    uint64_t before = kplat::GetPoolTagStats(tag).liveCount;
    uint64_t allocationsBefore = kplat::GetPoolTagStats(tag).allocations;
    kplat::FailNthAllocation(2);  // the object first, then the block
    EXPECT_FALSE(KnTraceLogBuffer::Create(4));
    EXPECT_EQ(kplat::GetPoolTagStats(tag).allocations, allocationsBefore + 1) << "object was not allocated";
    EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
    EXPECT_EQ(kplat::GetPoolTagStats(tag).liveCount, before);
}

TEST_F(KnTraceLogBufferTest, FailedSetUpOfExistingBufferDeletesIt)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(4));
    kplat::FailNthAllocation(1);
    EXPECT_FALSE(KnTraceLogBuffer::Create(8));
    EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
}

// ---------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------
TEST_F(KnTraceLogBufferTest, MessageIsPrefixTextAndOneMarker)
{
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(4));
        Buffer()->AddMessage("hello\n", "      12  ");
        EXPECT_EQ(Bytes(256, 10 + 6 + 17), "      12  hello\n" + kMarker);
        EXPECT_EQ(Cb()->mWritePosition, 256u + 16u);
        EXPECT_EQ(Cb()->mLastEnd, 256u + 16u + 17u);
        KnTraceLogBuffer::Delete();
    }
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(4));
        Buffer()->AddMessage("one\n", NULL);
        Buffer()->AddMessage("two\n", "p ");
        EXPECT_EQ(Bytes(256, 4 + 2 + 4 + 17), "one\np two\n" + kMarker);
        EXPECT_EQ(Cb()->mWritePosition, 256u + 10u);
        EXPECT_EQ(Cb()->mLastEnd, 256u + 10u + 17u);
        EXPECT_EQ(CountMarkersInRing(), 1u);
        KnTraceLogBuffer::Delete();
    }
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(4));
        Buffer()->AddMessage("", "prefix");
        Buffer()->AddMessage(NULL, "prefix");
        EXPECT_EQ(Cb()->mWritePosition, 256u);
        EXPECT_EQ(Cb()->mLastEnd, 256u);
        EXPECT_EQ(Bytes(256, 1), std::string(1, '\0'));
        KnTraceLogBuffer::Delete();
    }
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(1));
        const char text[] = "abc\0def";
        Buffer()->AddMessage(text, NULL);
        EXPECT_EQ(Bytes(256, 3 + 17), "abc" + kMarker);
        KnTraceLogBuffer::Delete();
    }
}

TEST_F(KnTraceLogBufferTest, MessageReachingPastRingEndContinuesAtRingStart)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(1));
    // Fill up to 10 bytes before the ring end.
    std::string filler(3840 - 10, 'f');
    Buffer()->AddMessage(filler.c_str(), NULL);
    EXPECT_EQ(Cb()->mWritePosition, 4096u - 10u);
    std::string text = "0123456789ABCDEFGHIJ";  // 20 bytes: 10 at the end, 10 at the start
    Buffer()->AddMessage(text.c_str(), NULL);
    EXPECT_EQ(Bytes(4096 - 10, 10), "0123456789");
    EXPECT_EQ(Bytes(256, 10), "ABCDEFGHIJ");
    EXPECT_EQ(Cb()->mWritePosition, 266u);
    EXPECT_EQ(Bytes(266, 17), kMarker);
    EXPECT_EQ(Cb()->mLastEnd, 283u);
    // After the marker comes the oldest text.
    EXPECT_EQ(Bytes(283, 5), "fffff");
    EXPECT_EQ(CountMarkersInRing(), 1u);
}

TEST_F(KnTraceLogBufferTest, MessageOrMarkerEndingAtRingEndWraps)
{
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(1));
        std::string filler(3840, 'g');
        Buffer()->AddMessage(filler.c_str(), NULL);
        EXPECT_EQ(Cb()->mWritePosition, 256u);
        EXPECT_EQ(Bytes(256, 17), kMarker);
        EXPECT_EQ(Bytes(273, 3), "ggg");
        KnTraceLogBuffer::Delete();
    }
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(1));
        std::string filler(3840 - 5, 'h');
        Buffer()->AddMessage(filler.c_str(), NULL);
        EXPECT_EQ(Bytes(4096 - 5, 5), kMarker.substr(0, 5));
        EXPECT_EQ(Bytes(256, 12), kMarker.substr(5));
        EXPECT_EQ(Cb()->mWritePosition, 4096u - 5u);
        EXPECT_EQ(Cb()->mLastEnd, 256u + 12u);
        EXPECT_EQ(RingFromWritePosition().substr(0, 17), kMarker);
        EXPECT_EQ(CountMarkersInRing(), 1u);
        KnTraceLogBuffer::Delete();
    }
}

TEST_F(KnTraceLogBufferTest, MessageLongerThanTheRing)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(1));
    std::string text(3840 * 2 + 100, 'x');
    for (size_t i = 0; i < text.size(); i++) text[i] = (char)('a' + i % 23);
    Buffer()->AddMessage(text.c_str(), NULL);
    EXPECT_EQ(Cb()->mWritePosition, 256u + 100u);
    EXPECT_EQ(RingFromWritePosition().substr(0, 17), kMarker);
    // The ring holds the last 3823 characters of the text after the marker.
    std::string ring = RingFromWritePosition();
    EXPECT_EQ(ring.substr(17), text.substr(text.size() - (3840 - 17)));
    EXPECT_EQ(CountMarkersInRing(), 1u);
}

TEST_F(KnTraceLogBufferTest, SingleMarkerRightAtWritePositionAfterAnySequence)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(1));
    unsigned seed = 12345;
    std::string expectedTail;  // the newest text, for a content check
    for (int i = 0; i < 2000; i++) {
        seed = seed * 1103515245u + 12345u;
        size_t length = 1 + (seed >> 16) % 300;
        std::string text(length, (char)('a' + i % 26));
        text.back() = '\n';
        std::string prefix = (i % 3 == 0) ? "" : std::to_string(i) + "  ";
        Buffer()->AddMessage(text.c_str(), prefix.empty() ? NULL : prefix.c_str());
        ASSERT_EQ(RingFromWritePosition().substr(0, 17), kMarker) << "message " << i;
        ASSERT_EQ(CountMarkersInRing(), 1u) << "message " << i;
        ASSERT_EQ((Cb()->mLastEnd - Cb()->mRingStart + 3840 - (Cb()->mWritePosition - Cb()->mRingStart)) % 3840, 17u);
        std::string ring = RingFromWritePosition();
        ASSERT_EQ(ring.substr(ring.size() - text.size()), text) << "message " << i;
    }
}

// ---------------------------------------------------------------------------
// Deletion
// ---------------------------------------------------------------------------
std::vector<UCHAR> gFreedHead;
int gFreeCalls = 0;

void RecordAndFree(PVOID block)
{
    gFreeCalls++;
    gFreedHead.assign((const UCHAR*)block, (const UCHAR*)block + 512);
    MmFreeContiguousMemory(block);
}

TEST_F(KnTraceLogBufferTest, DeletionAndSetUpAgainZeroTheControlBlockBeforeFreeing)
{
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(4));
        Buffer()->AddMessage("ring text stays\n", NULL);
        gFreeCalls = 0;
        gFreedHead.clear();
        KnTraceLogBufferSetFreeRoutine(RecordAndFree);
        KnTraceLogBuffer::Delete();
        ASSERT_EQ(gFreeCalls, 1);
        for (int i = 0; i < 256; i++) ASSERT_EQ(gFreedHead[i], 0) << "byte " << i;
        // Only the control block is cleared.
        EXPECT_EQ(std::string((const char*)&gFreedHead[256], 16), "ring text stays\n");
        EXPECT_EQ(KnTraceLogBuffer::Instance(), nullptr);
        EXPECT_EQ(KnTraceLogBuffer::SizeKb(), 0u);
        KnTraceLogBuffer::Delete();
    }
    {
        ASSERT_TRUE(KnTraceLogBuffer::Create(4));
        gFreeCalls = 0;
        gFreedHead.clear();
        KnTraceLogBufferSetFreeRoutine(RecordAndFree);
        ASSERT_TRUE(KnTraceLogBuffer::Create(8));
        ASSERT_EQ(gFreeCalls, 1);
        for (int i = 0; i < 256; i++) ASSERT_EQ(gFreedHead[i], 0) << "byte " << i;
        KnTraceLogBuffer::Delete();
    }
}

// ---------------------------------------------------------------------------
// Writers on several threads
// ---------------------------------------------------------------------------
TEST_F(KnTraceLogBufferTest, MessagesFromDpcsAndCallerAreNotInterleaved)
{
    ASSERT_TRUE(KnTraceLogBuffer::Create(64));
    kplat::DebugCapture capture;
    struct Context {
        int mIndex;
    };
    static KDPC dpcs[8];
    static Context contexts[8];
    for (int i = 0; i < 8; i++) {
        contexts[i].mIndex = i;
        KeInitializeDpc(
            &dpcs[i],
            [](PKDPC, PVOID context, PVOID, PVOID) {
                int index = static_cast<Context*>(context)->mIndex;
                for (int n = 0; n < 20; n++) KnPrint("dpc %d message %d........................\n", index, n);
            },
            &contexts[i]);
        KeInsertQueueDpc(&dpcs[i], NULL, NULL);
        for (int n = 0; n < 5; n++) KnPrint("caller %d message %d.....................\n", i, n);
    }
    kplat::RunUntilIdle();
    const KnTraceLogControlBlock* cb = Cb();
    std::string ring = Bytes(cb->mRingStart, cb->mLastEnd - cb->mRingStart);
    EXPECT_EQ(CountMarkersInRing(), 1u);
    // Every line is a whole message: prefix, one text.
    size_t lines = 0;
    for (size_t at = 0; at < ring.size();) {
        size_t end = ring.find('\n', at);
        ASSERT_NE(end, std::string::npos);
        std::string line = ring.substr(at, end - at);
        if (line != "################") {
            EXPECT_TRUE(line.find("  dpc ") != std::string::npos || line.find("  caller ") != std::string::npos)
                << line;
            EXPECT_EQ(line.find("dpc", line.find("dpc") + 1), std::string::npos) << line;
            lines++;
        }
        at = end + 1;
    }
    EXPECT_EQ(lines, 8u * 20u + 8u * 5u);
}

}  // namespace
