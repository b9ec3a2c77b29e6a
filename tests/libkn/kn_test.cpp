// The kernel support library and the utility library on the stand-in: lists
// and strings, pools, work items and timed work items on the virtual clock,
// locks and counter events, memory with pool tags, registry keys, trace
// formatting and the name tables.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "KnTimerDpc.h"
#include "QbDlList.h"
#include "knmemory.h"
#include "knnames.h"
#include "knpoolbase.h"
#include "knpoolitembase.h"
#include "knregistrykey.h"
#include "kntimedworkitemex.h"
#include "knworkitemex.h"
#include "qbstringutils.h"
#include "testbed.h"

using testbed::Bed;
using testbed::Layer;
using testbed::Traits;

namespace {

Traits Platform(ULONG traceMask = KN_TRACE_MASK_DEFAULT)
{
    Traits t;
    t.layer = Layer::Platform;
    t.traceMask = traceMask;
    return t;
}

struct Item {
    int value;
    QbDlListEntry entry;
};

TEST(Utilities, ListKeepsOrderAndStringsAreCutToTheirBuffer)
{
    QbDlListOf<Item> list(offsetof(Item, entry)), other(offsetof(Item, entry));
    Item items[4] = {{1, {}}, {2, {}}, {3, {}}, {4, {}}};
    for (Item& i : items) list.InsertTail(&i);
    list.Remove(&items[1]);
    other.InsertTail(&items[1]);
    other.MoveAllFrom(&list);
    std::vector<int> order;
    for (Item* i = other.GetHead(); i != nullptr; i = other.GetNext(i)) order.push_back(i->value);
    EXPECT_EQ(order, (std::vector<int>{1, 3, 4, 2}));
    EXPECT_TRUE(list.IsEmpty());
    while (other.RemoveHead() != nullptr) {
    }

    char small[4];
    EXPECT_EQ(QbStringCopy(small, "ethbrg", 4), 3u);
    EXPECT_STREQ(small, "eth");
    const WCHAR wide[] = {'a', 'b', 'c', 0};
    EXPECT_EQ(QbStringLength(wide), 3u);
    EXPECT_EQ(QbStringCopy(small, wide, 4), 3u);
    EXPECT_STREQ(small, "abc");
}

class Counted : public KnPoolItemBase {};

class CountedPool : public KnPoolBase {
public:
    void DeleteItem(KnPoolItemBase* item) override
    {
        deleted++;
        delete static_cast<Counted*>(item);
    }
    int deleted = 0;
};

TEST(Pool, CountsWhatItHoldsAndWhatIsOut)
{
    Bed bed(Platform());
    CountedPool pool;
    for (int i = 0; i < 3; i++) pool.AddItem(new (NonPagedPool, 0x74736554) Counted());
    EXPECT_EQ(pool.GetTotalCount(), 3u);
    KnPoolItemBase* a = pool.GetItem();
    KnPoolItemBase* b = pool.GetItem();
    EXPECT_EQ(pool.GetCurrentCount(), 1u);
    EXPECT_EQ(pool.GetItemsOut(), 2u);
    a->ReturnToPool();
    EXPECT_EQ(pool.GetCurrentCount(), 2u);
    EXPECT_EQ(pool.GetItemsOut(), 1u);
    pool.PutItem(b);
    EXPECT_EQ(pool.GetItemsOut(), 0u);
    std::vector<KnPoolItemBase*> out;
    for (int i = 0; i < 3; i++) out.push_back(pool.GetItem());
    EXPECT_NE(out[2], nullptr);
    EXPECT_EQ(pool.GetItem(), nullptr) << "empty";
    EXPECT_FALSE(bed.Traced("FATAL"));
    pool.FreeAllItems();
    EXPECT_TRUE(bed.Traced("FATAL: There are outstanding objects, current/total count: 0/3"));
    EXPECT_EQ(pool.deleted, 0) << "the items out are not the pool's to delete";
    for (KnPoolItemBase* i : out) delete static_cast<Counted*>(i);
}

struct Runs {
    std::vector<std::pair<PVOID, KIRQL>> runs;
    static void Callback(PDEVICE_OBJECT, PVOID context, PVOID argument)
    {
        static_cast<Runs*>(context)->runs.push_back({argument, KeGetCurrentIrql()});
    }
};

TEST(WorkItem, RunsOnceAtPassiveFoldsSchedulesAndCancels)
{
    Bed bed(Platform());
    PDEVICE_OBJECT device = bed.Fdo();
    Runs r;
    {
        KnWorkItemEx item;
        EXPECT_TRUE(item.ScheduleCallback(device, Runs::Callback, &r, (PVOID)1, DelayedWorkQueue));
        kplat::RunUntilIdle();
        ASSERT_EQ(r.runs.size(), 1u);
        EXPECT_EQ(r.runs[0].second, PASSIVE_LEVEL);
        {
            testbed::QueueBlocker blocker(device);
            EXPECT_TRUE(item.ScheduleCallback(device, Runs::Callback, &r, (PVOID)2, DelayedWorkQueue));
            EXPECT_TRUE(item.ScheduleCallback(device, Runs::Callback, &r, (PVOID)3, DelayedWorkQueue));
            EXPECT_EQ(item.GetQueuedCount(), 1u) << "one queued run";
        }
        ASSERT_EQ(r.runs.size(), 2u);
        EXPECT_EQ(r.runs[1].first, (PVOID)3) << "the later schedule's callback";
        {
            testbed::QueueBlocker blocker(device);
            EXPECT_TRUE(item.ScheduleCallback(device, Runs::Callback, &r, (PVOID)4, DelayedWorkQueue));
            item.CancelCallback();
        }
        EXPECT_EQ(r.runs.size(), 2u) << "a cancelled callback does not run";
        EXPECT_EQ(item.GetQueuedCount(), 0u);
        kplat::FailNthAllocation(1);
        EXPECT_FALSE(item.ScheduleCallback(device, Runs::Callback, &r, (PVOID)5, DelayedWorkQueue));
        kplat::ClearFaults();
        item.CancelCallbackAndWait();
    }
}

TEST(TimedWorkItem, RunsWhenDueAndCancelOrRescheduleReplace)
{
    Bed bed(Platform());
    PDEVICE_OBJECT device = bed.Fdo();
    Runs r;
    {
        KnTimedWorkItemEx item;
        item.Schedule(100, device, Runs::Callback, &r, (PVOID)1, DelayedWorkQueue);
        kplat::AdvanceTime(99);
        EXPECT_TRUE(r.runs.empty());
        kplat::AdvanceTime(1);
        ASSERT_EQ(r.runs.size(), 1u);
        EXPECT_EQ(r.runs[0].second, PASSIVE_LEVEL);
        item.Schedule(100, device, Runs::Callback, &r, (PVOID)2, DelayedWorkQueue);
        kplat::AdvanceTime(50);
        item.Schedule(100, device, Runs::Callback, &r, (PVOID)3, DelayedWorkQueue);
        kplat::AdvanceTime(60);
        EXPECT_EQ(r.runs.size(), 1u) << "the timer started again";
        kplat::AdvanceTime(40);
        ASSERT_EQ(r.runs.size(), 2u);
        EXPECT_EQ(r.runs[1].first, (PVOID)3);
        item.Schedule(10, device, Runs::Callback, &r, (PVOID)4, DelayedWorkQueue);
        item.CancelTimedWorkItem();
        kplat::AdvanceTime(100);
        EXPECT_EQ(r.runs.size(), 2u);
        item.CancelTimedWorkItemAndWait();
    }
}

struct Fired {
    int count = 0;
    static void Dpc(PKDPC, PVOID context, PVOID, PVOID) { static_cast<Fired*>(context)->count++; }
};

TEST(Timer, FiresAfterItsDelayInMillisecondsAndCanBeCancelled)
{
    Bed bed(Platform());
    Fired f;
    KnTimerDpc timer;
    timer.InitializeDpc(Fired::Dpc, &f);
    timer.SetTimer(20);
    kplat::AdvanceTime(19);
    EXPECT_EQ(f.count, 0);
    kplat::AdvanceTime(1);
    EXPECT_EQ(f.count, 1);
    timer.SetTimer(5);
    timer.CancelTimer();
    kplat::AdvanceTime(10);
    EXPECT_EQ(f.count, 1);
}

TEST(Locks, SpinLockCountsItsHolderAndCounterEventSignalsAtZero)
{
    Bed bed(Platform());
    KnSpinLock lock;
    KIRQL old = lock.Lock();
    EXPECT_TRUE(lock.IsLocked());
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_EQ(lock.GetOwnerThread(), PsGetCurrentThreadId());
    lock.Unlock(old);
    EXPECT_FALSE(lock.IsLocked());
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    lock.LockAtDpcLevel();
    EXPECT_TRUE(lock.IsLocked());
    lock.UnlockFromDpcLevel();
    EXPECT_FALSE(lock.IsLocked());
    KeLowerIrql(old);
    EXPECT_FALSE(bed.Traced("FATAL"));

    KnCounterEvent counter;
    EXPECT_EQ(counter.Wait(0), STATUS_SUCCESS);
    EXPECT_EQ(counter.Increment(), 1u);
    EXPECT_EQ(counter.Wait(10), STATUS_TIMEOUT);
    EXPECT_EQ(counter.Increment(), 2u);
    EXPECT_EQ(counter.Wait(10), STATUS_TIMEOUT);
    EXPECT_EQ(counter.Decrement(), 1u);
    EXPECT_EQ(counter.Wait(10), STATUS_TIMEOUT);
    EXPECT_EQ(counter.Decrement(), 0u);
    EXPECT_EQ(counter.Wait(0), STATUS_SUCCESS);

    KnMutex mutex;
    {
        KnMutexGuard guard(&mutex);
        EXPECT_EQ(mutex.ReadState(), 0);
        std::thread other([&] { EXPECT_EQ(mutex.ReadState(), 0); });
        other.join();
    }
    EXPECT_EQ(mutex.ReadState(), 1);
}

TEST(Memory, AllocationsCarryTheirTagAndAssertionsAreTraced)
{
    Bed bed(Platform());
    const ULONG tag = 0x74736554;  // "Test"
    const uint64_t before = kplat::GetPoolTagStats(tag).liveCount;
    void* p = KnAllocateMemory(NonPagedPool, 100, tag, true);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(static_cast<uint8_t*>(p)[99], 0);
    EXPECT_EQ(kplat::GetPoolTagStats(tag).liveCount, before + 1);
    KnFreeMemory(p);
    EXPECT_EQ(kplat::GetPoolTagStats(tag).liveCount, before);
    kplat::FailNthAllocation(1);
    EXPECT_EQ(NdAllocateMemory(10, tag, false), nullptr);
    kplat::ClearFaults();
    KnFreeMemory(nullptr);
    EXPECT_TRUE(bed.Traced("ASSERTION FAILED: "));
    EXPECT_TRUE(bed.Traced("  source/libkn/knmemory.cpp("));
}

TEST(RegistryKey, DwordsWithDefaults)
{
    Traits t = Platform();
    t.registryText = "[%ADAPTER%]\n\"Present\"=dword:0000002a\n\"Text\"=\"x\"\n";
    Bed bed(t);
    std::string key = Bed::AdapterKey();
    std::u16string wide(key.begin(), key.end());
    KnRegistryKey k;
    ASSERT_EQ(k.OpenKey((PCWSTR)wide.c_str(), KEY_READ | KEY_WRITE), STATUS_SUCCESS);
    ULONG v = 0;
    EXPECT_EQ(k.QueryDword(u"Present", &v), STATUS_SUCCESS);
    EXPECT_EQ(v, 42u);
    EXPECT_NE(k.QueryDword(u"Text", &v), STATUS_SUCCESS) << "not a DWORD";
    EXPECT_EQ(k.GetDwordValue(u"Missing", &v, 7), STATUS_SUCCESS);
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(k.SetDword(u"Missing", 9), STATUS_SUCCESS);
    EXPECT_EQ(k.GetDwordValue(u"Missing", &v, 7), STATUS_SUCCESS);
    EXPECT_EQ(v, 9u);
    EXPECT_EQ(k.Close(), STATUS_SUCCESS);
}

TEST(Trace, FormatsAndNames)
{
    Bed bed(Platform());
    struct Row {
        const char* format;
        ULONGLONG value;
        const char* text;
    };
    const Row rows[] = {
        {"%u", 4294967295u, "4294967295"},
        {"%d", (ULONGLONG)(LONG)-5, "-5"},
        {"%08x", 0xBEEF, "0000beef"},
        {"%X", 0xBEEF, "BEEF"},
        {"%N", 0xC0000001, "0xC0000001 (STATUS_UNSUCCESSFUL)"},
        {"%N", 0x12345678, "0x12345678 (unknown)"},
        {"%5u|", 42, "   42|"},
    };
    for (const Row& r : rows) {
        char buffer[64];
        KnFormat(buffer, sizeof(buffer), r.format, (ULONG)r.value);
        EXPECT_STREQ(buffer, r.text) << r.format;
    }
    char tiny[6];
    EXPECT_EQ(KnFormat(tiny, sizeof(tiny), "%s", "truncated"), 5u);
    EXPECT_STREQ(tiny, "trunc");
    EXPECT_STREQ(KnNtStatusName(STATUS_PENDING), "STATUS_PENDING");
    EXPECT_STREQ(NdOidName(OID_GEN_LINK_SPEED), "OID_GEN_LINK_SPEED");
    KnSetTracePrefix("ethbrg");
    KnSetTraceMask(KN_TRACE_ERROR);
    KN_TRACE(KN_TRACE_ERROR, "%P:shown %u\n", 1u);
    KN_TRACE(KN_TRACE_INFO, "%P:hidden\n");
    EXPECT_EQ(bed.TakeTrace(), "ethbrg:shown 1\n");
}

}  // namespace
