// Tests of the intrusive doubly linked list.
#include <gtest/gtest.h>

#include <vector>

#include <kplat/platform.h>

#include "QbDlList.h"
#include "kntrace.h"

namespace {

struct Item {
    explicit Item(int v) : value(v) {}
    int value;
    QbDlListEntry link;
};

// An item type with virtual functions and a base before the link, so that
// the link does not sit at offset 0 and offsetof is only conditionally
// supported.
struct Header {
    ULONG_PTR words[3] = {};
};
class PolyItem : public Header {
public:
    explicit PolyItem(int v) : value(v) {}
    virtual ~PolyItem() {}
    int value;
    QbDlListEntry link;
};

// Derived class whose PolyItem part does not start at the object's address.
struct Unrelated {
    ULONG_PTR pad[2] = {};
    virtual ~Unrelated() {}
};
class DerivedItem : public Unrelated, public PolyItem {
public:
    explicit DerivedItem(int v) : PolyItem(v) {}
};

class QbDlListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        mSavedMask = KnGetTraceMask();
        KnSetTraceMask(KN_TRACE_MASK_DEFAULT);
        KnSetTracePrefix("ethbrg");
    }
    void TearDown() override
    {
        KnSetTraceMask(mSavedMask);
        KnSetTracePrefix(NULL);
    }

    static std::vector<int> Values(const QbDlList& list)
    {
        std::vector<int> out;
        for (void* p = list.GetHead(); p != NULL; p = list.GetNext(p)) {
            out.push_back(static_cast<Item*>(p)->value);
        }
        return out;
    }

    kplat::DebugCapture mCapture;
    QbDlList mList{offsetof(Item, link)};
    ULONG mSavedMask = 0;
};


TEST_F(QbDlListTest, EmptyList)
{
    EXPECT_TRUE(mList.IsEmpty());
    EXPECT_EQ(mList.GetHead(), nullptr);
    EXPECT_EQ(mList.GetNext(NULL), nullptr);
    EXPECT_EQ(mList.RemoveHead(), nullptr);
    EXPECT_EQ(mList.GetEntryOffset(), offsetof(Item, link));
    QbDlListEntry entry;
    EXPECT_FALSE(entry.IsLinked());
    // Removing an unlinked item changes nothing.
    Item a(1), b(2);
    mList.InsertTail(&a);
    mList.Remove(&b);
    EXPECT_FALSE(b.link.IsLinked());
    EXPECT_EQ(Values(mList), (std::vector<int>{1}));
    mList.Remove(&a);
}

TEST_F(QbDlListTest, InsertTailKeepsOrder)
{
    Item a(1), b(2), c(3);
    mList.InsertTail(&a);
    mList.InsertTail(&b);
    mList.InsertTail(&c);
    EXPECT_FALSE(mList.IsEmpty());
    EXPECT_EQ(mList.GetHead(), &a);
    EXPECT_EQ(mList.GetHead(), &a) << "GetHead does not remove";
    EXPECT_EQ(Values(mList), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(mList.GetNext(NULL), &a);
    EXPECT_EQ(mList.GetNext(&a), &b);
    EXPECT_EQ(mList.GetNext(&c), nullptr);
    EXPECT_TRUE(a.link.IsLinked());
    EXPECT_EQ(mList.RemoveHead(), &a);
    EXPECT_FALSE(a.link.IsLinked());
    EXPECT_EQ(mList.RemoveHead(), &b);
    EXPECT_EQ(mList.RemoveHead(), &c);
    EXPECT_EQ(mList.RemoveHead(), nullptr);
    EXPECT_TRUE(mList.IsEmpty());
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(QbDlListTest, RemoveFromMiddleFrontAndBack)
{
    Item a(1), b(2), c(3), d(4);
    for (Item* i : {&a, &b, &c, &d}) mList.InsertTail(i);
    mList.Remove(&b);
    EXPECT_FALSE(b.link.IsLinked());
    EXPECT_EQ(Values(mList), (std::vector<int>{1, 3, 4}));
    mList.Remove(&a);
    EXPECT_EQ(Values(mList), (std::vector<int>{3, 4}));
    mList.Remove(&d);
    EXPECT_EQ(Values(mList), (std::vector<int>{3}));
    mList.Remove(&c);
    EXPECT_TRUE(mList.IsEmpty());
    // A removed item can go back in, at the tail.
    mList.InsertTail(&b);
    mList.InsertTail(&a);
    EXPECT_EQ(Values(mList), (std::vector<int>{2, 1}));
    EXPECT_EQ(mCapture.Text(), "");
}

TEST_F(QbDlListTest, MoveAllFromPutsOtherItemsInFrontInOrder)
{
    Item a(1), b(2), c(3), d(4), e(5);
    QbDlList other(offsetof(Item, link));
    mList.InsertTail(&d);
    mList.InsertTail(&e);
    other.InsertTail(&a);
    other.InsertTail(&b);
    other.InsertTail(&c);
    mList.MoveAllFrom(&other);
    EXPECT_TRUE(other.IsEmpty());
    EXPECT_EQ(other.GetHead(), nullptr);
    EXPECT_EQ(Values(mList), (std::vector<int>{1, 2, 3, 4, 5}));
    // The ring is intact in both directions: remove from the back.
    mList.Remove(&e);
    mList.Remove(&c);
    EXPECT_EQ(Values(mList), (std::vector<int>{1, 2, 4}));
    // The emptied list is usable again.
    other.InsertTail(&e);
    EXPECT_EQ(other.GetHead(), &e);
    // Moving from an empty list, and into an empty list.
    QbDlList empty(offsetof(Item, link));
    mList.MoveAllFrom(&empty);
    EXPECT_EQ(Values(mList), (std::vector<int>{1, 2, 4}));
    empty.MoveAllFrom(&other);
    EXPECT_EQ(Values(empty), (std::vector<int>{5}));
    EXPECT_TRUE(other.IsEmpty());
}

TEST_F(QbDlListTest, InsertTailOfNullOrOfALinkedItemAsserts)
{
    mList.InsertTail(NULL);
    EXPECT_TRUE(mList.IsEmpty());
    EXPECT_TRUE(mCapture.Contains("\nethbrg:ASSERTION FAILED: (newItem!=NULL)\n  source/libqb/QbDlList.cpp("));
    Item a(1);
    QbDlList other(offsetof(Item, link));
    other.InsertTail(&a);
    mCapture.Take();
    mList.InsertTail(&a);
    std::string text = mCapture.Text();
    EXPECT_NE(text.find("\nethbrg:ASSERTION FAILED: (!ne->IsLinked())\n  source/libqb/QbDlList.cpp("), std::string::npos)
        << text;
    // Execution goes on: the item is appended (and `other` is now stale).
    EXPECT_EQ(mList.GetHead(), &a);
}

class QbDlListOfTest : public QbDlListTest {};

TEST_F(QbDlListOfTest, TypedListConvertsDerivedItemsToTheLinkedBase)
{
    QbDlListOf<PolyItem> list(QB_DLLIST_ENTRY_OFFSET(PolyItem, link));
    DerivedItem d1(1), d2(2);
    PolyItem p3(3);
    ASSERT_NE((void*)static_cast<PolyItem*>(&d1), (void*)&d1) << "the test needs a base at an offset";
    list.InsertTail(&d1);
    list.InsertTail(&p3);
    list.InsertTail(&d2);
    EXPECT_TRUE(d1.link.IsLinked());
    EXPECT_EQ(list.GetHead(), static_cast<PolyItem*>(&d1));
    EXPECT_EQ(list.GetNext(list.GetHead()), &p3);
    list.Remove(&p3);
    EXPECT_FALSE(p3.link.IsLinked());
    std::vector<int> values;
    for (PolyItem* p = list.GetHead(); p != NULL; p = list.GetNext(p)) values.push_back(p->value);
    EXPECT_EQ(values, (std::vector<int>{1, 2}));

    QbDlListOf<PolyItem> front(QB_DLLIST_ENTRY_OFFSET(PolyItem, link));
    front.InsertTail(&p3);
    list.MoveAllFrom(&front);
    EXPECT_EQ(list.RemoveHead()->value, 3);
    EXPECT_EQ(list.RemoveHead()->value, 1);
    EXPECT_EQ(list.RemoveHead()->value, 2);
    EXPECT_EQ(list.RemoveHead(), nullptr);
}

}  // namespace
