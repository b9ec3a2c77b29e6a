// Intrusive doubly linked list.
#include "QbDlList.h"

#include <kntrace.h>

// Contract: any IRQL.
QbDlList::QbDlList(ULONG_PTR entryOffset) : mHead(), mEntryOffset(entryOffset) {}

// Contract: any IRQL; owner's lock held.
void QbDlList::InsertTail(void* newItem)
{
    KN_ASSERT(newItem!=NULL);
    if (newItem == NULL) {
        return;
    }
    QbDlListEntry* ne = EntryOf(newItem);
    KN_ASSERT(!ne->IsLinked());

    QbDlListEntry* last = mHead.mPrev;
    ne->mNext = &mHead;
    ne->mPrev = last;
    last->mNext = ne;
    mHead.mPrev = ne;
}

// Contract: any IRQL; owner's lock held.
void* QbDlList::GetHead() const
{
    if (!mHead.IsLinked()) {
        return NULL;
    }
    return ItemOf(mHead.mNext);
}

// Contract: any IRQL; owner's lock held.
void* QbDlList::GetNext(void* item) const
{
    if (item == NULL) {
        return GetHead();
    }
    QbDlListEntry* next = EntryOf(item)->mNext;
    if (next == &mHead) {
        return NULL;
    }
    return ItemOf(next);
}

// Contract: any IRQL; owner's lock held.
void* QbDlList::RemoveHead()
{
    if (!mHead.IsLinked()) {
        return NULL;
    }
    void* item = ItemOf(mHead.mNext);
    Remove(item);
    return item;
}

// Contract: any IRQL; owner's lock held.
void QbDlList::Remove(void* item)
{
    if (item == NULL) {
        return;
    }
    QbDlListEntry* entry = EntryOf(item);
    QbDlListEntry* next = entry->mNext;
    QbDlListEntry* prev = entry->mPrev;
    prev->mNext = next;
    next->mPrev = prev;
    entry->mNext = entry;
    entry->mPrev = entry;
}

// Contract: any IRQL; the locks of both lists' owners held.
void QbDlList::MoveAllFrom(QbDlList* other)
{
    if (other == NULL || other == this || other->IsEmpty()) {
        return;
    }
    QbDlListEntry* first = other->mHead.mNext;
    QbDlListEntry* last = other->mHead.mPrev;

    // Splice [first..last] between the head and the current first item.
    QbDlListEntry* oldFirst = mHead.mNext;
    last->mNext = oldFirst;
    oldFirst->mPrev = last;
    mHead.mNext = first;
    first->mPrev = &mHead;

    other->mHead.mNext = &other->mHead;
    other->mHead.mPrev = &other->mHead;
}
