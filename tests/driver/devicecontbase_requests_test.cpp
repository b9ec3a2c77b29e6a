// DeviceContBase Ethernet class requests: the packet filter and the
// multicast list sent from the work item, and the statistics cache with its
// poll on the virtual clock.
#include "devicecontbase_fixture.h"

namespace dcbtest {
namespace {

using ethsim::DeviceProfile;
using ethsim::MacAddress;

const MacAddress kGroupA = {0x01, 0x00, 0x5E, 0x00, 0x00, 0x01};
const MacAddress kGroupB = {0x01, 0x00, 0x5E, 0x00, 0x00, 0x02};
const MacAddress kGroupC = {0x33, 0x33, 0x00, 0x00, 0x00, 0x01};

// ---------------------------------------------------------------------------
// Packet filter
// ---------------------------------------------------------------------------
class DcbPacketFilterTest : public DeviceContTest {};

struct FilterCase {
    ULONG ndis;
    USHORT cdc;
};

class DcbFilterMappingTest : public DeviceContTest, public ::testing::WithParamInterface<FilterCase> {};

TEST_P(DcbFilterMappingTest, MapsNdisBitsToCdcBits)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    EXPECT_FALSE(mCont->SetPacketFilter(GetParam().ndis));
    EXPECT_EQ(GetParam().cdc, mCont->mCdcPacketFilter);
}

INSTANTIATE_TEST_SUITE_P(Bits, DcbFilterMappingTest,
                         ::testing::Values(FilterCase{0x2F, 0x1F}, FilterCase{0, 0}, FilterCase{0x01, 0x04},
                                           FilterCase{0x02, 0x10}, FilterCase{0x04, 0x02}, FilterCase{0x08, 0x08},
                                           FilterCase{0x20, 0x01}, FilterCase{0xFFFFFFD0, 0},
                                           FilterCase{0xFFFFFFFF, 0x1F}));

TEST_F(DcbPacketFilterTest, RebuiltFromZeroEachTime)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    mCont->SetPacketFilter(0x2F);
    mCont->SetPacketFilter(0x08);
    EXPECT_EQ(0x08, mCont->mCdcPacketFilter);
}

TEST_F(DcbPacketFilterTest, BeforeStartNothingIsSent)
{
    ASSERT_EQ(STATUS_SUCCESS, Create());
    EXPECT_FALSE(mCont->SetPacketFilter(0x0B));
    kplat::RunUntilIdle();
    EXPECT_TRUE(mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).empty());

    ASSERT_EQ(STATUS_SUCCESS, mCont->Start());
    kplat::RunUntilIdle();
    // Starting does not send it by itself ...
    EXPECT_TRUE(mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).empty());
    // ... the next call does, with its own bitmap.
    EXPECT_TRUE(mCont->SetPacketFilter(0x09));
    kplat::RunUntilIdle();
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(0x21, sent[0].bmRequestType);
    EXPECT_EQ(0x0C, sent[0].wValue);
    EXPECT_EQ(mCont->mControlInterface, sent[0].wIndex);
    EXPECT_EQ(0, sent[0].wLength);
    EXPECT_EQ(0x0C, mDevice->GetState().packetFilter);
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::SendPacketFilter: SET_ETHERNET_PACKET_FILTER 0000000c\n"));
}

TEST_F(DcbPacketFilterTest, FilterThenListInOneRun)
{
    CreateAndStart();
    uint64_t allocations = kplat::GetPoolTagStats(KN_POOL_TAG_MULTICAST_LIST).allocations;
    mNotify.SetMulticast({kGroupA, kGroupB});
    mWrapper->ClearSetups();
    EXPECT_TRUE(mCont->SetPacketFilter(0x0F));
    kplat::RunUntilIdle();
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Setups();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(CDC_SET_ETHERNET_PACKET_FILTER, sent[0].bRequest);
    EXPECT_EQ(0x1E, sent[0].wValue);
    EXPECT_EQ(CDC_SET_ETHERNET_MULTICAST_FILTERS, sent[1].bRequest);
    EXPECT_EQ(0x21, sent[1].bmRequestType);
    EXPECT_EQ(2, sent[1].wValue);
    EXPECT_EQ(12, sent[1].wLength);
    EXPECT_EQ((std::vector<MacAddress>{kGroupA, kGroupB}), mDevice->GetState().multicastFilters);
    EXPECT_EQ((std::vector<ULONG>{32}), mNotify.MulticastMaxAsked());
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_MULTICAST_LIST).liveCount);
    EXPECT_EQ(allocations + 1, kplat::GetPoolTagStats(KN_POOL_TAG_MULTICAST_LIST).allocations);
}

TEST_F(DcbPacketFilterTest, ListLimitedByTheDevice)
{
    DeviceProfile p;
    p.wNumberMCFilters = 2;
    CreateAndStart(p);
    mNotify.SetMulticast({kGroupA, kGroupB, kGroupC});
    EXPECT_TRUE(mCont->SetPacketFilter(0x02));
    kplat::RunUntilIdle();
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(2, sent[0].wValue);
    EXPECT_EQ(12, sent[0].wLength);
    EXPECT_EQ((std::vector<ULONG>{2}), mNotify.MulticastMaxAsked());
    EXPECT_EQ((std::vector<MacAddress>{kGroupA, kGroupB}), mDevice->GetState().multicastFilters);
}

TEST_F(DcbPacketFilterTest, ImperfectFilteringBitIsNotPartOfTheLimit)
{
    DeviceProfile p;
    p.wNumberMCFilters = 0x8002;
    CreateAndStart(p);
    mNotify.SetMulticast({kGroupA, kGroupB, kGroupC});
    EXPECT_TRUE(mCont->SetPacketFilter(0x02));
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<ULONG>{2}), mNotify.MulticastMaxAsked());
}

TEST_F(DcbPacketFilterTest, EmptyListSendsZeroAddresses)
{
    CreateAndStart();
    mNotify.SetMulticast({});
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(0, sent[0].wValue);
    EXPECT_EQ(0, sent[0].wLength);
    EXPECT_TRUE(mDevice->GetState().multicastFilters.empty());
}

TEST_F(DcbPacketFilterTest, DeviceWithoutFiltersGetsOnlyThePacketFilter)
{
    DeviceProfile p;
    p.wNumberMCFilters = 0;
    CreateAndStart(p);
    mNotify.SetMulticast({kGroupA});
    mWrapper->ClearSetups();
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Setups();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(CDC_SET_ETHERNET_PACKET_FILTER, sent[0].bRequest);
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::SendPacketFilter device does not support MultiCast lists\n"));
    EXPECT_TRUE(mNotify.MulticastMaxAsked().empty());
}

TEST_F(DcbPacketFilterTest, HugeFilterCountAsksForAtMost10922)
{
    DeviceProfile p;
    p.wNumberMCFilters = 0x7FFF;
    CreateAndStart(p);
    mNotify.SetMulticast({kGroupA, kGroupB, kGroupC});
    EXPECT_TRUE(mCont->SetPacketFilter(0x02));
    kplat::RunUntilIdle();
    EXPECT_EQ((std::vector<ULONG>{10922}), mNotify.MulticastMaxAsked());
    EXPECT_EQ(10922u * 6, kplat::GetPoolTagStats(KN_POOL_TAG_MULTICAST_LIST).highWaterBytes);
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(3, sent[0].wValue);
    EXPECT_EQ(18, sent[0].wLength);
}

TEST_F(DcbPacketFilterTest, FailedPacketFilterStillSendsTheList)
{
    CreateAndStart();
    mNotify.SetMulticast({kGroupA});
    mWrapper->StallIf([](const kplat::UsbSetupPacket& s) { return s.bRequest == CDC_SET_ETHERNET_PACKET_FILTER; });
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::SendPacketFilter set PF failed 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
    EXPECT_EQ(1u, mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS).size());
    EXPECT_EQ((std::vector<MacAddress>{kGroupA}), mDevice->GetState().multicastFilters);
}

TEST_F(DcbPacketFilterTest, FailedListIsTracedAndFreed)
{
    CreateAndStart();
    mNotify.SetMulticast({kGroupA});
    mWrapper->StallIf(
        [](const kplat::UsbSetupPacket& s) { return s.bRequest == CDC_SET_ETHERNET_MULTICAST_FILTERS; });
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::SendPacketFilter set MF failed 0xC0000001 (STATUS_UNSUCCESSFUL)\n"));
    EXPECT_EQ(0u, kplat::GetPoolTagStats(KN_POOL_TAG_MULTICAST_LIST).liveCount);
    // The mutex is free again: the next request goes out.
    mWrapper->StallIf(nullptr);
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    EXPECT_EQ(2u, mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).size());
}

TEST_F(DcbPacketFilterTest, ListWithoutMemoryIsSkipped)
{
    CreateAndStart();
    mNotify.SetMulticast({kGroupA});
    kplat::FailTag(KN_POOL_TAG_MULTICAST_LIST, 1);
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::SendPacketFilter new (32) failed\n"));
    EXPECT_EQ(1u, mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).size());
    EXPECT_TRUE(mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS).empty());
    EXPECT_TRUE(mNotify.MulticastMaxAsked().empty());
}

TEST_F(DcbPacketFilterTest, RequestsWhileQueuedAreMerged)
{
    CreateAndStart();
    mNotify.SetMulticast({kGroupA});
    {
        DelayedQueueBlocker blocker(mFdo);
        EXPECT_TRUE(mCont->SetPacketFilter(0x01));
        mNotify.SetMulticast({kGroupA, kGroupB});
        EXPECT_TRUE(mCont->SetPacketFilter(0x09));
        blocker.Release();
    }
    std::vector<kplat::UsbSetupPacket> sent = mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(0x0C, sent[0].wValue);
    std::vector<kplat::UsbSetupPacket> lists = mWrapper->Requests(CDC_SET_ETHERNET_MULTICAST_FILTERS);
    ASSERT_EQ(1u, lists.size());
    EXPECT_EQ(2, lists[0].wValue);
}

TEST_F(DcbPacketFilterTest, AsyncStopAndStartDoNotResendTheFilter)
{
    CreateAndStart();
    EXPECT_TRUE(mCont->SetPacketFilter(0x01));
    kplat::RunUntilIdle();
    ASSERT_EQ(1u, mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).size());
    EXPECT_TRUE(mCont->StopAsync());
    kplat::RunUntilIdle();
    EXPECT_TRUE(mCont->StartAsync());
    kplat::RunUntilIdle();
    EXPECT_TRUE(mCont->IsStarted());
    EXPECT_EQ(1u, mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).size());
    EXPECT_EQ(0x04, mCont->mCdcPacketFilter);
}

TEST_F(DcbPacketFilterTest, NothingReachesTheDeviceOrTheAdapterAfterStopOrExit)
{
    CreateAndStart();
    mCont->Stop();
    // Queued as by a SetPacketFilter that saw the device control started
    // just before Stop cleared it.
    auto queueLate = [&] {
        return mCont->mPacketFilterWorkItem.ScheduleCallback(mFdo, TestDeviceCont::SendPacketFilterRoutine, mCont,
                                                             NULL, DelayedWorkQueue);
    };
    ASSERT_TRUE(queueLate());
    kplat::RunUntilIdle();
    ASSERT_TRUE(queueLate());
    mCont->Exit();
    EXPECT_EQ(0u, mCont->mPacketFilterWorkItem.GetQueuedCount()) << "Exit waited for it";
    kplat::RunUntilIdle();
    EXPECT_TRUE(mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).empty());
    EXPECT_TRUE(mNotify.MulticastMaxAsked().empty());
}

TEST_F(DcbPacketFilterTest, CanBeSetAtDispatchLevel)
{
    CreateAndStart();
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    bool scheduled = mCont->SetPacketFilter(0x01);
    KeLowerIrql(old);
    EXPECT_TRUE(scheduled);
    kplat::RunUntilIdle();
    EXPECT_EQ(1u, mWrapper->Requests(CDC_SET_ETHERNET_PACKET_FILTER).size());
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

// ---------------------------------------------------------------------------
// Statistics
// ---------------------------------------------------------------------------
class DcbStatisticsTest : public DeviceContTest {
protected:
    // The selectors of the GET_ETHERNET_STATISTIC requests sent, in order.
    std::vector<int> Polled()
    {
        std::vector<int> out;
        for (const kplat::UsbSetupPacket& s : mWrapper->Requests(CDC_GET_ETHERNET_STATISTIC)) {
            EXPECT_EQ(0xA1, s.bmRequestType);
            EXPECT_EQ(mCont->mControlInterface, s.wIndex);
            EXPECT_EQ(4, s.wLength);
            out.push_back(s.wValue);
        }
        return out;
    }
    // A device announcing selectors 1, 3 and 5 with the values 11, 33, 55.
    void StartWithOneThreeFive(ULONG interval = 1000)
    {
        DeviceProfile p;
        p.bmEthernetStatistics = 0x15;
        mConfig.StatisticsUpdateInterval = interval;
        CreateAndStart(p);
        mDevice->SetStatistic(1, 11);
        mDevice->SetStatistic(3, 33);
        mDevice->SetStatistic(5, 55);
    }
    ULONG Get(UCHAR selector)
    {
        ULONG value = 0xDEADBEEF;
        EXPECT_TRUE(mCont->GetEthernetStatistic(selector, &value)) << (int)selector;
        return value;
    }
};

TEST_F(DcbStatisticsTest, FirstPollReadsEverySupportedSelectorAfterTheInterval)
{
    StartWithOneThreeFive(1000);
    EXPECT_EQ(0x15u, mCont->mStatisticsSupported);
    EXPECT_EQ(0u, Get(3)) << "zero before the first poll";
    kplat::AdvanceTime(999);
    EXPECT_TRUE(Polled().empty());
    kplat::AdvanceTime(1);
    EXPECT_EQ((std::vector<int>{1, 3, 5}), Polled());
    EXPECT_EQ(0u, mCont->mStatisticsRequested);
    EXPECT_EQ(11u, Get(1));
    EXPECT_EQ(33u, Get(3));
    EXPECT_EQ(55u, Get(5));
}

TEST_F(DcbStatisticsTest, LaterPollsReadOnlyWhatWasAskedFor)
{
    StartWithOneThreeFive(1000);
    kplat::AdvanceTime(1000);
    mWrapper->ClearSetups();
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(Polled().empty()) << "nobody asked";

    mDevice->SetStatistic(5, 77);
    EXPECT_EQ(55u, Get(5));  // the cached value; asks for the next poll
    EXPECT_EQ(0x10u, mCont->mStatisticsRequested);
    kplat::AdvanceTime(1000);
    EXPECT_EQ((std::vector<int>{5}), Polled());
    EXPECT_EQ(77u, Get(5));
}

TEST_F(DcbStatisticsTest, PollKeepsItsInterval)
{
    StartWithOneThreeFive(250);
    kplat::AdvanceTime(250);
    for (int i = 0; i < 4; i++) {
        mWrapper->ClearSetups();
        Get(1);
        kplat::AdvanceTime(249);
        EXPECT_TRUE(Polled().empty()) << i;
        kplat::AdvanceTime(1);
        EXPECT_EQ((std::vector<int>{1}), Polled()) << i;
    }
}

TEST_F(DcbStatisticsTest, DefaultIntervalIsFiveSeconds)
{
    DeviceProfile p;
    CreateAndStart(p);
    kplat::AdvanceTime(4999);
    EXPECT_TRUE(Polled().empty());
    kplat::AdvanceTime(1);
    EXPECT_EQ(29u, Polled().size());
}

TEST_F(DcbStatisticsTest, UnsupportedSelectorsAreRefused)
{
    StartWithOneThreeFive();
    kplat::AdvanceTime(1000);
    ULONG value = 0xDEADBEEF;
    for (UCHAR selector : {0, 2, 4, 6, 21, 32, 33, 255}) {
        EXPECT_FALSE(mCont->GetEthernetStatistic(selector, &value)) << (int)selector;
    }
    EXPECT_EQ(0xDEADBEEFu, value);
    EXPECT_EQ(0u, mCont->mStatisticsRequested);
    mWrapper->ClearSetups();
    kplat::AdvanceTime(1000);
    EXPECT_TRUE(Polled().empty());
}

TEST_F(DcbStatisticsTest, SelectorTwentyOne)
{
    DeviceProfile p;
    p.bmEthernetStatistics = 1u << 20;
    mConfig.StatisticsUpdateInterval = 1000;
    CreateAndStart(p);
    mDevice->SetStatistic(21, 2121);
    kplat::AdvanceTime(1000);
    EXPECT_EQ((std::vector<int>{21}), Polled());
    EXPECT_EQ(2121u, Get(21));
    mWrapper->ClearSetups();
    kplat::AdvanceTime(1000);
    EXPECT_EQ((std::vector<int>{21}), Polled());
}

TEST_F(DcbStatisticsTest, FailureAtSelectorThreeEndsThePoll)
{
    StartWithOneThreeFive(1000);
    mWrapper->StallIf([](const kplat::UsbSetupPacket& s) {
        return s.bRequest == CDC_GET_ETHERNET_STATISTIC && s.wValue == 3;
    });
    kplat::AdvanceTime(1000);
    EXPECT_EQ((std::vector<int>{1, 3}), Polled());
    EXPECT_TRUE(Traced("ethbrg:DeviceContBase::ReadEthernetStatistics get statistics for 2 failed 0xC0000001 "
                       "(STATUS_UNSUCCESSFUL)\n"));
    EXPECT_EQ(0u, mCont->mStatisticsRequested);
    EXPECT_EQ(11u, Get(1));
    EXPECT_EQ(0u, Get(3));
    EXPECT_EQ(0u, Get(5));

    // The poll goes on, with what was asked for since.
    mWrapper->StallIf(nullptr);
    mWrapper->ClearSetups();
    kplat::AdvanceTime(1000);
    EXPECT_EQ((std::vector<int>{1, 3, 5}), Polled());
    EXPECT_EQ(55u, Get(5));
}

TEST_F(DcbStatisticsTest, ShortAnswerIsZeroExtendedAndNoAnswerKeepsTheCache)
{
    StartWithOneThreeFive(1000);
    mDevice->SetStatistic(3, 0xAABBCCDD);
    kplat::AdvanceTime(1000);
    ASSERT_EQ(0xAABBCCDDu, Get(3));
    // Rows: the answer, and the cached value after it.
    for (const auto& row : {std::make_pair(Bytes{0x11, 0x22}, 0x2211u), std::make_pair(Bytes{}, 0x2211u)}) {
        mWrapper->AnswerIf(
            [](const kplat::UsbSetupPacket& s) { return s.bRequest == CDC_GET_ETHERNET_STATISTIC && s.wValue == 3; },
            row.first);
        kplat::AdvanceTime(1000);
        EXPECT_EQ(row.second, Get(3)) << row.first.size();
    }
    EXPECT_EQ(1u, TraceCount("ethbrg:DeviceContBase::ReadEthernetStatistics no data for 2\n"));
}

TEST_F(DcbStatisticsTest, NoRequestWhileStopped)
{
    StartWithOneThreeFive(1000);
    mCont->Stop();
    Get(1);
    mCont->ReadEthernetStatistics();
    EXPECT_TRUE(Polled().empty());
    EXPECT_EQ(0u, mCont->mStatisticsRequested);
    kplat::AdvanceTime(5000);
    EXPECT_TRUE(Polled().empty()) << "not re-armed";
}

TEST_F(DcbStatisticsTest, RestartPollsEverythingAgain)
{
    StartWithOneThreeFive(1000);
    kplat::AdvanceTime(1000);
    mCont->Stop();
    mWrapper->ClearSetups();
    ASSERT_EQ(STATUS_SUCCESS, mCont->Start());
    kplat::AdvanceTime(1000);
    EXPECT_EQ((std::vector<int>{1, 3, 5}), Polled());
}

TEST_F(DcbStatisticsTest, CanBeReadAtDispatchLevel)
{
    StartWithOneThreeFive(1000);
    kplat::AdvanceTime(1000);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    ULONG value = 0;
    bool ok = mCont->GetEthernetStatistic(5, &value);
    KeLowerIrql(old);
    EXPECT_TRUE(ok);
    EXPECT_EQ(55u, value);
    EXPECT_FALSE(Traced("ASSERTION FAILED"));
}

}  // namespace
}  // namespace dcbtest
