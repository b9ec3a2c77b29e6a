// Intrusive doubly linked list.
//
// The link (QbDlListEntry) lives inside the item; the list knows at which
// byte offset, so it takes and hands out items, not links. An unlinked link
// points to itself, which lets every link tell whether it is in a list.
//
// The list has no lock of its own: the object that owns a list serializes
// every access to it with its own lock.
#pragma once

#include <ntddk.h>

class QbDlList;

// One link of an intrusive list, embedded in the item.
class QbDlListEntry {
public:
    // Contract: any IRQL. A new link is unlinked.
    QbDlListEntry() : mNext(this), mPrev(this) {}
    QbDlListEntry(const QbDlListEntry&) = delete;
    QbDlListEntry& operator=(const QbDlListEntry&) = delete;

    // Contract: any IRQL; the owner's lock held while the link may be in a
    // list. True while the link is in a list.
    bool IsLinked() const { return mNext != this; }

private:
    friend class QbDlList;

    QbDlListEntry* mNext;
    QbDlListEntry* mPrev;
};

// Byte offset of a QbDlListEntry member inside an item type, also for item
// types with virtual functions (where offsetof is only conditionally
// supported: the compilers used here lay such classes out predictably).
#define QB_DLLIST_ENTRY_OFFSET(type, member)                                  \
    ([]() -> ULONG_PTR {                                                      \
        _Pragma("GCC diagnostic push")                                        \
        _Pragma("GCC diagnostic ignored \"-Winvalid-offsetof\"")              \
        return (ULONG_PTR)offsetof(type, member);                             \
        _Pragma("GCC diagnostic pop")                                         \
    }())

// The list: a head link closing the ring and the offset of the link inside
// the item type. Items are passed as untyped pointers to the item itself
// (see QbDlListOf for a typed form that gets base-class adjustments right).
class QbDlList {
public:
    // Contract: any IRQL. The list is empty.
    explicit QbDlList(ULONG_PTR entryOffset);
    QbDlList(const QbDlList&) = delete;
    QbDlList& operator=(const QbDlList&) = delete;

    // Contract for all operations below: any IRQL; the caller holds the lock
    // of the list's owner.

    bool IsEmpty() const { return !mHead.IsLinked(); }
    // Appends the item at the tail; its link must not be in a list.
    void InsertTail(void* newItem);
    // First item or NULL; the item stays in the list.
    void* GetHead() const;
    // The item after `item`, the first item for NULL, NULL after the last.
    void* GetNext(void* item) const;
    // Unlinks and returns the first item, NULL when empty.
    void* RemoveHead();
    // Unlinks the item from the list it is in; its link points to itself after.
    void Remove(void* item);
    // Moves every item of `other`, in order, to the front of this list;
    // `other` is empty afterwards. Both lists must use the same offset.
    void MoveAllFrom(QbDlList* other);

    ULONG_PTR GetEntryOffset() const { return mEntryOffset; }

private:
    QbDlListEntry* EntryOf(void* item) const { return (QbDlListEntry*)((PUCHAR)item + mEntryOffset); }
    void* ItemOf(QbDlListEntry* entry) const { return (PUCHAR)entry - mEntryOffset; }

    QbDlListEntry mHead;
    ULONG_PTR mEntryOffset;
};

// Typed form of QbDlList for items of type T (or classes derived from T):
// the same operations, taking and returning T pointers, so that an item of a
// derived class is converted to T before its link is located.
template <typename T>
class QbDlListOf : public QbDlList {
public:
    explicit QbDlListOf(ULONG_PTR entryOffset) : QbDlList(entryOffset) {}

    void InsertTail(T* newItem) { QbDlList::InsertTail(newItem); }
    T* GetHead() const { return static_cast<T*>(QbDlList::GetHead()); }
    T* GetNext(T* item) const { return static_cast<T*>(QbDlList::GetNext(item)); }
    T* RemoveHead() { return static_cast<T*>(QbDlList::RemoveHead()); }
    void Remove(T* item) { QbDlList::Remove(item); }
    void MoveAllFrom(QbDlListOf<T>* other) { QbDlList::MoveAllFrom(other); }
};
