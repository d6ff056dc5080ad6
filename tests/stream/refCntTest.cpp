#include <orva/refCntObject.h>

#include <gtest/gtest.h>

namespace {

struct Counted : ORVA_RefCntObject {
    Counted() { ++alive; }
    Counted(const Counted& other) : ORVA_RefCntObject(other) {
        if (other.refusesCopies) throw "no";
        ++alive;
    }
    ~Counted() override { --alive; }
    bool refusesCopies = false;
    static inline int alive = 0;
};
using Holder = RefCountPtr<Counted>;

TEST(RefCounted, HoldersShareAndTheLastOneDeletes) {
    Holder first(new Counted);
    first = first.get();
    EXPECT_EQ(Counted::alive, 1) << "the pointer it has already";
    Holder second(first);
    EXPECT_TRUE(first->IsShared() == 1 && first == second && first == second.get() && !(first != second) &&
                !(first != second.get()));
    second = new Counted;
    second = first;
    EXPECT_EQ(Counted::alive, 1) << "the old object is gone";
    first = nullptr;
    EXPECT_TRUE(first.IsValid() == 0 && second->IsShared() == 0);
    second = Holder();
    EXPECT_EQ(Counted::alive, 0);
}

TEST(RefCounted, HoldersOfAnUnshareableOrUnsharedObjectGetFreshCopies) {
    Holder first(new Counted), second(first), third(new Counted);
    Counted* object = first.get();
    object->refusesCopies = true;
    EXPECT_THROW(second.Unshared(), const char*);
    EXPECT_TRUE(second == object && object->IsShared() == 1) << "as before";
    object->refusesCopies = false;
    Counted* own = second.Unshared();
    EXPECT_TRUE(own != object && second.Unshared() == own && object->IsShared() == 0 && own->IsShared() == 0);
    object->MarkUnshareable();
    second = first;
    EXPECT_TRUE(second != object && second->IsShareable() == 1U && second->IsShared() == 0);
    object->refusesCopies = true;
    EXPECT_THROW(third = first, const char*);
    EXPECT_EQ(third.IsValid(), 0);
}

}  // namespace
