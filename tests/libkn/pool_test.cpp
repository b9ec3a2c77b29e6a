// Tests of the pool of reusable items: hand-out order and rotation, counts,
// the counter of items out, FreeAllItems and the FATAL traces.
#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include <kplat/platform.h>

#include "knpoolbase.h"
#include "knpoolitembase.h"
#include "knpooltags.h"
#include "kntrace.h"

namespace {

// A pool item that counts its destruction.
class TestItem : public KnPoolItemBase {
public:
    explicit TestItem(std::vector<ULONG>* destroyed) : mDestroyed(destroyed) {}
    ~TestItem() override
    {
        if (mDestroyed != NULL) mDestroyed->push_back(mIndex);
    }

private:
    std::vector<ULONG>* mDestroyed;
};

// A pool that records the items passed to DeleteItem before destroying them.
class RecordingPool : public KnPoolBase {
public:
    void DeleteItem(KnPoolItemBase* item) override
    {
        mDeleted.push_back(item->GetIndex());
        KnPoolBase::DeleteItem(item);
    }
    std::vector<ULONG> mDeleted;
};

class PoolTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
        mLiveBefore = kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount;
    }
    void TearDown() override
    {
        EXPECT_EQ(kplat::GetPoolTagStats(KN_POOL_TAG_USB_BUFFER).liveCount, mLiveBefore) << "items leaked";
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    TestItem* NewItem() { return new (NonPagedPool, KN_POOL_TAG_USB_BUFFER) TestItem(&mDestroyed); }

    void Fill(KnPoolBase* pool, int count)
    {
        for (int i = 0; i < count; i++) {
            TestItem* item = NewItem();
            ASSERT_NE(item, nullptr);
            pool->AddItem(item);
        }
    }

    kplat::Scope mScope;
    kplat::DebugCapture mCapture;
    std::vector<ULONG> mDestroyed;
    ULONG mSavedMask = 0;
    uint64_t mLiveBefore = 0;
};

class KnPoolBaseTest : public PoolTest {};
class KnPoolItemBaseTest : public PoolTest {};

TEST_F(KnPoolItemBaseTest, NewItemIsUnlinkedWithoutPool)
{
    TestItem* item = NewItem();
    ASSERT_NE(item, nullptr);
    EXPECT_FALSE(item->mListEntry.IsLinked());
    EXPECT_EQ(item->GetIndex(), 0u);
    EXPECT_EQ(item->GetPool(), nullptr);
    delete item;
    EXPECT_EQ(mDestroyed.size(), 1u);
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(KnPoolItemBaseTest, DestroyingALinkedItemAsserts)
{
    alignas(TestItem) unsigned char storage[sizeof(TestItem)];
    TestItem* item = ::new (storage) TestItem(NULL);
    QbDlList list(QB_DLLIST_ENTRY_OFFSET(KnPoolItemBase, mListEntry));
    list.InsertTail(static_cast<KnPoolItemBase*>(item));
    item->~TestItem();
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (!mListEntry.IsLinked())\n  source/libkn/knpoolitembase.cpp("));
}

TEST_F(KnPoolBaseTest, ThreeGetsReturnIndicesInOrderThenNull)
{
    KnPoolBase pool;
    Fill(&pool, 3);
    EXPECT_EQ(pool.GetTotalCount(), 3u);
    EXPECT_EQ(pool.GetCurrentCount(), 3u);
    KnPoolItemBase* items[3];
    for (ULONG i = 0; i < 3; i++) {
        items[i] = pool.GetItem();
        ASSERT_NE(items[i], nullptr);
        EXPECT_EQ(items[i]->GetIndex(), i);
        EXPECT_EQ(items[i]->GetPool(), &pool);
        EXPECT_FALSE(items[i]->mListEntry.IsLinked());
    }
    EXPECT_EQ(pool.GetItem(), nullptr);
    EXPECT_EQ(mCapture.Text(), "") << "an exhausted pool is not an error";
    EXPECT_EQ(pool.GetItemsOut(), 3u);
    EXPECT_EQ(pool.GetCurrentCount(), 0u);
    EXPECT_EQ(pool.GetTotalCount(), 3u);
    for (KnPoolItemBase* item : items) item->ReturnToPool();
    EXPECT_EQ(pool.GetItemsOut(), 0u);
    EXPECT_EQ(pool.GetCurrentCount(), 3u);
    pool.FreeAllItems();
}

TEST_F(KnPoolBaseTest, ItemsRotateInTheOrderTheyCameBack)
{
    KnPoolBase pool;
    Fill(&pool, 3);
    KnPoolItemBase* items[3];
    for (KnPoolItemBase*& item : items) item = pool.GetItem();
    items[2]->ReturnToPool();
    items[0]->ReturnToPool();
    items[1]->ReturnToPool();
    std::vector<ULONG> order;
    for (int i = 0; i < 3; i++) {
        KnPoolItemBase* item = pool.GetItem();
        ASSERT_NE(item, nullptr);
        order.push_back(item->GetIndex());
        items[i] = item;
    }
    EXPECT_EQ(order, (std::vector<ULONG>{2, 0, 1}));
    for (KnPoolItemBase* item : items) pool.PutItem(item);
    pool.FreeAllItems();
}

TEST_F(KnPoolBaseTest, ItemsOutCounterSignalsWhenAllAreBack)
{
    KnPoolBase pool;
    Fill(&pool, 2);
    KnCounterEvent* out = pool.GetItemsOutCounter();
    EXPECT_EQ(out->Wait(0), STATUS_SUCCESS);
    KnPoolItemBase* a = pool.GetItem();
    KnPoolItemBase* b = pool.GetItem();
    EXPECT_EQ(out->Wait(0), STATUS_TIMEOUT);
    a->ReturnToPool();
    EXPECT_EQ(out->Wait(0), STATUS_TIMEOUT);
    b->ReturnToPool();
    EXPECT_EQ(out->Wait(0), STATUS_SUCCESS);
    EXPECT_EQ(out->GetCount(), 0u);
    pool.FreeAllItems();
}

TEST_F(KnPoolBaseTest, FreeAllItemsWithOneOutTracesAndForgetsIt)
{
    RecordingPool pool;
    Fill(&pool, 3);
    KnPoolItemBase* out = pool.GetItem();
    ASSERT_EQ(out->GetIndex(), 0u);
    pool.FreeAllItems();
    EXPECT_EQ(mCapture.Take(),
              "ethbrg:KnPoolBase::FreeAllItems(): FATAL: There are outstanding objects, current/total count: 2/3\n");
    EXPECT_EQ(pool.mDeleted, (std::vector<ULONG>{1, 2}));
    EXPECT_EQ(mDestroyed, (std::vector<ULONG>{1, 2}));
    EXPECT_EQ(pool.GetTotalCount(), 0u);
    EXPECT_EQ(pool.GetCurrentCount(), 0u);

    // When the forgotten item comes back it is idle again, and the count
    // excess is reported.
    out->ReturnToPool();
    EXPECT_EQ(mCapture.Take(), "ethbrg:KnPoolBase::PutItem(): FATAL: current/total count: 1/0\n");
    EXPECT_EQ(pool.GetCurrentCount(), 1u);
    EXPECT_EQ(pool.GetItemsOut(), 0u);
    pool.FreeAllItems();
    EXPECT_EQ(mCapture.Take(),
              "ethbrg:KnPoolBase::FreeAllItems(): FATAL: There are outstanding objects, current/total count: 1/0\n");
    EXPECT_EQ(mDestroyed, (std::vector<ULONG>{1, 2, 0}));
}

TEST_F(KnPoolBaseTest, FreeAllItemsDeletesIdleItemsInIdleOrder)
{
    RecordingPool pool;
    Fill(&pool, 3);
    KnPoolItemBase* items[3];
    for (KnPoolItemBase*& item : items) item = pool.GetItem();
    items[2]->ReturnToPool();
    items[0]->ReturnToPool();
    items[1]->ReturnToPool();
    pool.FreeAllItems();
    EXPECT_EQ(pool.mDeleted, (std::vector<ULONG>{2, 0, 1}));
    EXPECT_EQ(mCapture.Text(), "");
    EXPECT_EQ(pool.GetItem(), nullptr);
    EXPECT_EQ(mCapture.Take(), "ethbrg:KnPoolBase::GetItem(): FATAL: total count: 0\n");
    EXPECT_EQ(pool.GetItemsOut(), 0u);
}

TEST_F(KnPoolBaseTest, IndicesStartAgainAfterFreeAllItems)
{
    KnPoolBase pool;
    Fill(&pool, 2);
    pool.FreeAllItems();
    Fill(&pool, 1);
    KnPoolItemBase* item = pool.GetItem();
    EXPECT_EQ(item->GetIndex(), 0u);
    item->ReturnToPool();
    pool.FreeAllItems();
}

TEST_F(KnPoolBaseTest, DestroyingAPoolWithItemsAsserts)
{
    alignas(KnPoolBase) unsigned char storage[sizeof(KnPoolBase)];
    KnPoolBase* pool = ::new (storage) KnPoolBase();
    TestItem item(NULL);
    pool->AddItem(&item);
    pool->~KnPoolBase();
    std::string text = mCapture.Take();
    EXPECT_NE(text.find("ASSERTION FAILED: (mItemList.IsEmpty())\n  source/libkn/knpoolbase.cpp("), std::string::npos)
        << text;
    EXPECT_NE(text.find("ASSERTION FAILED: (0==mTotalCount)\n  source/libkn/knpoolbase.cpp("), std::string::npos) << text;
    // The item is still linked into the dead pool's list; its destructor says so.
}

TEST_F(KnPoolBaseTest, PutItemOfNullAsserts)
{
    KnPoolBase pool;
    pool.PutItem(NULL);
    EXPECT_TRUE(mCapture.Contains("ASSERTION FAILED: (item!=NULL)\n  source/libkn/knpoolbase.cpp("));
    EXPECT_EQ(pool.GetItemsOut(), 0u);
}

}  // namespace
