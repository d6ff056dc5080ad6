#include <orva/refCntObject.h>

#include <gtest/gtest.h>

namespace {

struct Counted : ORVA_RefCntObject {
    Counted() { ++alive; }
    Counted(const Counted& other) : ORVA_RefCntObject(other), value(other.value) {
        if (refusesCopy) throw refusesCopy;
        ++alive;
    }
    ~Counted() override { --alive; }
    int value = 0;
    static inline int alive = 0;
    static inline const char* refusesCopy = nullptr;
};
using Holder = RefCountPtr<Counted>;

class RefCounted : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(Counted::alive, 0); }
};

TEST_F(RefCounted, SharedOnlyWithASecondHolder) {
    auto* object = new Counted;
    EXPECT_EQ(object->IsShared(), 0);
    EXPECT_EQ(object->IsShareable(), 1U);
    const Holder first(object);
    EXPECT_EQ(object->IsShared(), 0);
    {
        const Holder second(first);
        EXPECT_EQ(object->IsShared(), 1);
        EXPECT_EQ(first == second, 1);
        EXPECT_EQ(first != second, 0);
        EXPECT_EQ(first == object, 1);
        EXPECT_EQ(first != object, 0);
    }
    EXPECT_EQ(object->IsShared(), 0);
}

TEST_F(RefCounted, EmptyHolder) {
    const Holder empty;
    EXPECT_EQ(empty.IsValid(), 0);
    EXPECT_EQ(Holder(nullptr) == empty, 1);
}

TEST_F(RefCounted, AssignmentReleasesThenJoins) {
    Holder holder(new Counted);
    holder = holder.get();
    EXPECT_EQ(Counted::alive, 1) << "the pointer it has already";
    EXPECT_EQ(holder->IsShared(), 0);
    const Holder other(new Counted);
    holder = other;
    EXPECT_EQ(Counted::alive, 1) << "the old object is gone";
    EXPECT_EQ(other->IsShared(), 1);
    holder = nullptr;
    EXPECT_EQ(holder.IsValid(), 0);
    EXPECT_EQ(other->IsShared(), 0);
}

TEST_F(RefCounted, UnshareableObjectGivesEachNewHolderACopy) {
    Holder first(new Counted);
    first->value = 7;
    first->MarkUnshareable();
    Holder second(first);
    Holder third;
    third = first;
    EXPECT_EQ(Counted::alive, 3);
    EXPECT_EQ(first->IsShared(), 0);
    EXPECT_EQ(second->value, 7);
    EXPECT_EQ(second->IsShareable(), 1U) << "a copy takes no flag";
    EXPECT_EQ(third->IsShared(), 0);
}

TEST_F(RefCounted, UnsharedCopiesOnlyASharedObject) {
    Holder first(new Counted);
    Counted* object = first.get();
    EXPECT_EQ(first.Unshared(), object);
    Holder second(first);
    Counted* own = second.Unshared();
    EXPECT_NE(own, object);
    EXPECT_EQ(second.get(), own);
    EXPECT_EQ(object->IsShared(), 0);
    EXPECT_EQ(own->IsShared(), 0);
}

TEST_F(RefCounted, FailedCopyLeavesCountsRight) {
    Holder first(new Counted);
    Holder second(first);
    Holder third(new Counted);
    Counted::refusesCopy = "no";
    EXPECT_THROW(second.Unshared(), const char*);
    EXPECT_EQ(first == second, 1);
    EXPECT_EQ(first->IsShared(), 1);
    first->MarkUnshareable();
    EXPECT_THROW(third = first, const char*);
    Counted::refusesCopy = nullptr;
    EXPECT_EQ(third.IsValid(), 0);
}

TEST_F(RefCounted, CopyOfAHeldObjectHasNoHolders) {
    const Holder first(new Counted);
    const Holder second(first);
    const Holder copy(new Counted(*first));
    EXPECT_EQ(copy->IsShared(), 0);
}

}  // namespace
