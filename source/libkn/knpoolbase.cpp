// Pool of pre-made reusable items.
#include "knpoolbase.h"

#include "kntrace.h"

// Contract: any IRQL.
KnPoolBase::KnPoolBase()
    : mLock(),
      mItemList(QB_DLLIST_ENTRY_OFFSET(KnPoolItemBase, mListEntry)),
      mItemsOut(),
      mTotalCount(0),
      mCurrentCount(0)
{
    RtlZeroMemory(mName, sizeof(mName));
}

// Contract: IRQL <= DISPATCH_LEVEL.
KnPoolBase::~KnPoolBase()
{
    KN_ASSERT(mItemList.IsEmpty());
    KN_ASSERT(0==mTotalCount);
}

// Contract: IRQL <= DISPATCH_LEVEL; no lock of the pool held.
void KnPoolBase::DeleteItem(KnPoolItemBase* item)
{
    if (item != NULL) {
        delete item;
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
void KnPoolBase::AddItem(KnPoolItemBase* item)
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(&mLock);
    KN_ASSERT(!item->mListEntry.IsLinked());
    item->mIndex = mTotalCount;
    item->mPool = this;
    mItemList.InsertTail(item);
    mTotalCount++;
    mCurrentCount++;
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
KnPoolItemBase* KnPoolBase::GetItem()
{
    IRQL_LTEQ_DISPATCH();
    KnSpinLockGuard guard(&mLock);
    if (mTotalCount == 0) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPoolBase::GetItem(%s): FATAL: total count: %u\n", mName, mTotalCount);
    }
    KnPoolItemBase* item = mItemList.RemoveHead();
    if (item != NULL) {
        mCurrentCount--;
        mItemsOut.Increment();
    }
    return item;
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
void KnPoolBase::PutItem(KnPoolItemBase* item)
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(item!=NULL);
    if (item == NULL) {
        return;
    }
    KnSpinLockGuard guard(&mLock);
    KN_ASSERT(!item->mListEntry.IsLinked());
    mItemList.InsertTail(item);
    mCurrentCount++;
    mItemsOut.Decrement();
    if (mCurrentCount > mTotalCount) {
        KN_TRACE(KN_TRACE_ERROR, "%P:KnPoolBase::PutItem(%s): FATAL: current/total count: %u/%u\n", mName,
                 mCurrentCount, mTotalCount);
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock, calls DeleteItem without it.
void KnPoolBase::FreeAllItems()
{
    IRQL_LTEQ_DISPATCH();
    QbDlListOf<KnPoolItemBase> items(mItemList.GetEntryOffset());
    {
        KnSpinLockGuard guard(&mLock);
        if (mCurrentCount != mTotalCount) {
            KN_TRACE(KN_TRACE_ERROR,
                     "%P:KnPoolBase::FreeAllItems(%s): FATAL: There are outstanding objects, current/total count: %u/%u\n",
                     mName, mCurrentCount, mTotalCount);
        }
        items.MoveAllFrom(&mItemList);
        KN_ASSERT(mItemList.IsEmpty());
        mTotalCount = 0;
        mCurrentCount = 0;
    }
    KnPoolItemBase* item;
    while ((item = items.RemoveHead()) != NULL) {
        DeleteItem(item);
    }
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
ULONG KnPoolBase::GetTotalCount()
{
    KnSpinLockGuard guard(&mLock);
    return mTotalCount;
}

// Contract: IRQL <= DISPATCH_LEVEL; takes mLock.
ULONG KnPoolBase::GetCurrentCount()
{
    KnSpinLockGuard guard(&mLock);
    return mCurrentCount;
}
