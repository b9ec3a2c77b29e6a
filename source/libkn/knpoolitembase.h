// Item of a KnPoolBase: knows its pool and its index, so whoever holds it can
// give it back without knowing the pool.
#pragma once

#include <ntddk.h>

#include "QbDlList.h"
#include "knmemory.h"

class KnPoolBase;

class KnPoolItemBase : public KnObject {
public:
    // Contract: any IRQL. Unlinked, index 0, no pool.
    KnPoolItemBase();
    // Contract: IRQL <= DISPATCH_LEVEL. The item must be in no list.
    virtual ~KnPoolItemBase();
    KnPoolItemBase(const KnPoolItemBase&) = delete;
    KnPoolItemBase& operator=(const KnPoolItemBase&) = delete;

    // Contract: IRQL <= DISPATCH_LEVEL; no lock of this Part held. Gives the
    // item back to its pool (PutItem).
    void ReturnToPool();

    // Contract: any IRQL.
    ULONG GetIndex() const { return mIndex; }
    KnPoolBase* GetPool() const { return mPool; }

    // Link used by the pool's idle list and by the data pipe's pending list;
    // in at most one list at a time, guarded by the lock of that list's owner.
    QbDlListEntry mListEntry;
    // Position in the pool (0, 1, 2 ...), set by AddItem.
    ULONG mIndex;
    // The pool the item belongs to, set by AddItem.
    KnPoolBase* mPool;
};
