// A pool of pre-made reusable items. Idle items rotate: GetItem always takes
// the item that has been idle longest.
#pragma once

#include <ntddk.h>

#include "KnMutex.h"
#include "KnSpinlock.h"
#include "QbDlList.h"
#include "knpoolitembase.h"

class KnPoolBase {
public:
    // Contract: any IRQL. Empty pool.
    KnPoolBase();
    // Contract: IRQL <= DISPATCH_LEVEL. The owner calls FreeAllItems first.
    virtual ~KnPoolBase();
    KnPoolBase(const KnPoolBase&) = delete;
    KnPoolBase& operator=(const KnPoolBase&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL; item not NULL. Destroys one item.
    virtual void DeleteItem(KnPoolItemBase* item);

    // Contract for the operations below: IRQL <= DISPATCH_LEVEL. The pool
    // lock is innermost: callers may hold their own locks.

    // A new item joins the pool, idle; it gets the next index.
    void AddItem(KnPoolItemBase* item);
    // The item idle longest, or NULL when none is idle.
    KnPoolItemBase* GetItem();
    // The item is idle again (at the tail of the idle list).
    void PutItem(KnPoolItemBase* item);
    // Destroys every idle item (DeleteItem, outside the lock) and empties the
    // pool; items that are out are not destroyed and not counted any more.
    void FreeAllItems();

    // Contract: IRQL <= DISPATCH_LEVEL (takes mLock). Snapshots for
    // diagnostics and tests.
    ULONG GetTotalCount();
    ULONG GetCurrentCount();
    // Contract: any IRQL. Items handed out and not yet returned.
    ULONG GetItemsOut() const { return mItemsOut.GetCount(); }
    // The counter of items out; its event is signalled while none is out.
    KnCounterEvent* GetItemsOutCounter() { return &mItemsOut; }

private:
    char mName[8];  // printed by the traces; never set, so empty
    // mLock guards mItemList (declared right after it), mTotalCount and
    // mCurrentCount.
    KnSpinLock mLock;
    QbDlListOf<KnPoolItemBase> mItemList;  // idle items, oldest returned first
    KnCounterEvent mItemsOut;              // items handed out and not yet returned
    ULONG mTotalCount;                     // items that belong to the pool
    ULONG mCurrentCount;                   // items idle in mItemList
};
