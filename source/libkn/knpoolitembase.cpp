// Item of a KnPoolBase.
#include "knpoolitembase.h"

#include "knpoolbase.h"
#include "kntrace.h"

// Contract: any IRQL.
KnPoolItemBase::KnPoolItemBase() : mListEntry(), mIndex(0), mPool(NULL) {}

// Contract: IRQL <= DISPATCH_LEVEL.
KnPoolItemBase::~KnPoolItemBase()
{
    KN_ASSERT(!mListEntry.IsLinked());
}

// Contract: IRQL <= DISPATCH_LEVEL; no pool lock held.
void KnPoolItemBase::ReturnToPool()
{
    IRQL_LTEQ_DISPATCH();
    KN_ASSERT(mPool!=NULL);
    if (mPool != NULL) {
        mPool->PutItem(this);
    }
}
