// DeviceContBase streams: StartBase and StopBase (order, pipe resets,
// failures that stop what was started), and the asynchronous start and
// stop on the shared work item.
#include "devicecontbase_fixture.h"

namespace dcbtest {
namespace {

using ethsim::DeviceProfile;

class DcbStreamsTest : public DeviceContTest {
protected:
    // The endpoints that got CLEAR_FEATURE(ENDPOINT_HALT), in order.
    std::vector<int> ClearedEndpoints()
    {
        std::vector<int> out;
        for (const kplat::UsbSetupPacket& s : mWrapper->Requests(kClearFeature)) {
            out.push_back(s.wIndex);
        }
        return out;
    }
    void StallClearFeature(uint16_t endpoint)
    {
        mWrapper->StallIf([endpoint](const kplat::UsbSetupPacket& s) {
            return s.bRequest == kClearFeature && s.bmRequestType == 0x02 && s.wIndex == endpoint;
        });
    }
    bool AnyStreamEnabled()
    {
        return mCont->mOutStream.IsStreamEnabled() || mCont->mInStream.IsStreamEnabled() ||
               mCont->mNotificationStream.IsStreamEnabled();
    }
};

// ---------------------------------------------------------------------------
// StartBase / StopBase
// ---------------------------------------------------------------------------
TEST_F(DcbStreamsTest, StartRunsTheThreeStreams)
{
    CreateAndStart();
    EXPECT_TRUE(mCont->IsStarted());
    EXPECT_TRUE(mCont->mOutStream.IsStreamEnabled());
    EXPECT_TRUE(mCont->mInStream.IsStreamEnabled());
    EXPECT_TRUE(mCont->mNotificationStream.IsStreamEnabled());
    EXPECT_EQ(0x1FFFFFFFu, mCont->mStatisticsSupported);
    EXPECT_EQ(0x1FFFFFFFu, mCont->mStatisticsRequested);
    // Reads are pending on both IN pipes (the notification read waits for
    // the next notification after the link ones).
    EXPECT_GE(mBus->PendingRequests(), 3u);
    EXPECT_TRUE(ClearedEndpoints().empty());
}

TEST_F(DcbStreamsTest, PipesAreResetInStartOrderWhenConfigured)
{
    mConfig.SendClearEpHaltOnStart = 1;
    CreateAndStart();
    EXPECT_EQ((std::vector<int>{0x02, 0x82, 0x81}), ClearedEndpoints());
    EXPECT_TRUE(mCont->IsStarted());
}

TEST_F(DcbStreamsTest, OutStreamFailingStartsNothing)
{
    mConfig.SendClearEpHaltOnStart = 1;
    ASSERT_EQ(STATUS_SUCCESS, Create());
    StallClearFeature(0x02);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mCont->Start());
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::StartBase: mOutStream.Start() failed 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
    EXPECT_FALSE(mCont->IsStarted());
    EXPECT_FALSE(AnyStreamEnabled());
    EXPECT_EQ((std::vector<int>{0x02}), ClearedEndpoints());
    EXPECT_EQ(0u, mBus->PendingRequests());
}

TEST_F(DcbStreamsTest, InStreamFailingStopsTheOutStream)
{
    mConfig.SendClearEpHaltOnStart = 1;
    mConfig.StatisticsUpdateInterval = 100;
    ASSERT_EQ(STATUS_SUCCESS, Create());
    StallClearFeature(0x82);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mCont->Start());
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::StartBase: mInStream.Start() failed 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
    EXPECT_FALSE(mCont->IsStarted());
    EXPECT_FALSE(AnyStreamEnabled());
    // The notification stream was never started.
    EXPECT_EQ((std::vector<int>{0x02, 0x82}), ClearedEndpoints());
    EXPECT_EQ(0u, mBus->PendingRequests());
    // No statistics poll either.
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(mWrapper->Requests(CDC_GET_ETHERNET_STATISTIC).empty());
    // Nothing decodes: a notification finds no read on the pipe.
    mDevice->NotifyNetworkConnection(1);
    kplat::RunUntilIdle();
    EXPECT_TRUE(mNotify.States().empty());
}

TEST_F(DcbStreamsTest, NotificationStreamFailingStopsBothOthers)
{
    mConfig.SendClearEpHaltOnStart = 1;
    ASSERT_EQ(STATUS_SUCCESS, Create());
    StallClearFeature(0x81);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mCont->Start());
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::StartBase: mEcmNotification.Start() failed 0xC0000001 "
                       "(STATUS_UNSUCCESSFUL)\n"));
    EXPECT_FALSE(mCont->IsStarted());
    EXPECT_FALSE(AnyStreamEnabled());
    EXPECT_EQ(0u, mBus->PendingRequests());
}

TEST_F(DcbStreamsTest, StartAfterAFailedStartSucceeds)
{
    mConfig.SendClearEpHaltOnStart = 1;
    ASSERT_EQ(STATUS_SUCCESS, Create());
    StallClearFeature(0x82);
    EXPECT_EQ(STATUS_UNSUCCESSFUL, mCont->Start());
    mWrapper->StallIf(nullptr);
    EXPECT_EQ(STATUS_SUCCESS, mCont->Start());
    kplat::RunUntilIdle();
    EXPECT_TRUE(mCont->IsStarted());
    mDevice->NotifyNetworkConnection(1);
    kplat::RunUntilIdle();
    ASSERT_FALSE(mNotify.States().empty());
    EXPECT_TRUE(mNotify.States().back());
}

TEST_F(DcbStreamsTest, StopStopsStreamsAndPolling)
{
    mConfig.StatisticsUpdateInterval = 100;
    CreateAndStart();
    mCont->Stop();
    EXPECT_FALSE(mCont->IsStarted());
    EXPECT_FALSE(AnyStreamEnabled());
    EXPECT_EQ(0u, mBus->PendingRequests());
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(mWrapper->Requests(CDC_GET_ETHERNET_STATISTIC).empty());
    // The packet filter is kept, not sent.
    EXPECT_FALSE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    EXPECT_TRUE(mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).empty());
}

TEST_F(DcbStreamsTest, StopAndStartAgain)
{
    CreateAndStart();
    mCont->Stop();
    ASSERT_EQ(STATUS_SUCCESS, mCont->Start());
    kplat::RunUntilIdle();
    EXPECT_TRUE(mCont->IsStarted());
    mDevice->NotifyNetworkConnection(0);
    kplat::RunUntilIdle();
    ASSERT_FALSE(mNotify.States().empty());
    EXPECT_FALSE(mNotify.States().back());
}

// ---------------------------------------------------------------------------
// StartAsync / StopAsync
// ---------------------------------------------------------------------------
class DcbAsyncTest : public DcbStreamsTest {};

TEST_F(DcbAsyncTest, StopThenStartCompleteInTurn)
{
    CreateAndStart();
    EXPECT_TRUE(mCont->StopAsync());
    kplat::RunUntilIdle();
    EXPECT_EQ(1, mCont->StopCalls());
    EXPECT_EQ(1, mNotify.StopCompletions());
    EXPECT_FALSE(mCont->IsStarted());
    EXPECT_EQ(0u, mBus->PendingRequests());

    EXPECT_TRUE(mCont->StartAsync());
    kplat::RunUntilIdle();
    EXPECT_EQ(2, mCont->StartCalls());
    EXPECT_EQ((std::vector<NTSTATUS>{STATUS_SUCCESS}), mNotify.StartCompletions());
    EXPECT_TRUE(mCont->IsStarted());
}

TEST_F(DcbAsyncTest, StartBeforeTheStopRanReplacesIt)
{
    CreateAndStart();
    mCont->Stop();
    {
        DelayedQueueBlocker blocker(mFdo);
        EXPECT_TRUE(mCont->StopAsync());
        EXPECT_TRUE(mCont->StartAsync());
        blocker.Release();
    }
    EXPECT_EQ(1, mCont->StopCalls());  // the synchronous one only
    EXPECT_EQ(0, mNotify.StopCompletions());
    EXPECT_EQ(2, mCont->StartCalls());
    EXPECT_EQ((std::vector<NTSTATUS>{STATUS_SUCCESS}), mNotify.StartCompletions());
    EXPECT_TRUE(mCont->IsStarted());
}

TEST_F(DcbAsyncTest, StopBeforeTheStartRanReplacesIt)
{
    CreateAndStart();
    {
        DelayedQueueBlocker blocker(mFdo);
        EXPECT_TRUE(mCont->StartAsync());
        EXPECT_TRUE(mCont->StopAsync());
        blocker.Release();
    }
    EXPECT_EQ(1, mCont->StartCalls());
    EXPECT_TRUE(mNotify.StartCompletions().empty());
    EXPECT_EQ(1, mNotify.StopCompletions());
    EXPECT_FALSE(mCont->IsStarted());
}

TEST_F(DcbAsyncTest, StartFailureReachesTheAdapter)
{
    CreateAndStart();
    mCont->Stop();
    mWrapper->StallIf([](const kplat::UsbSetupPacket& s) { return s.bRequest == kSetInterface; });
    EXPECT_TRUE(mCont->StartAsync());
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<NTSTATUS>{STATUS_UNSUCCESSFUL}), mNotify.StartCompletions());
    EXPECT_FALSE(mCont->IsStarted());
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::StartAsync: Start failed 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
}

TEST_F(DcbAsyncTest, NoWorkItemMeansNoCompletion)
{
    CreateAndStart();
    kplat::FailNthAllocation(1);
    EXPECT_FALSE(mCont->StopAsync());
    kplat::ClearFaults();
    kplat::RunUntilIdle();
    EXPECT_EQ(0, mNotify.StopCompletions());
    EXPECT_EQ(0, mCont->StopCalls());
    EXPECT_TRUE(mCont->IsStarted());
}

TEST_F(DcbAsyncTest, CanBeAskedForAtDispatchLevel)
{
    CreateAndStart();
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    bool scheduled = mCont->StopAsync();
    KeLowerIrql(old);
    EXPECT_TRUE(scheduled);
    kplat::RunUntilIdle();
    EXPECT_EQ(1, mNotify.StopCompletions());
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

}  // namespace
}  // namespace dcbtest
