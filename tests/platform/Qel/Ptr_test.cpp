#include "Qel/Ptr.h"

#include <gtest/gtest.h>

namespace {

class Probe : public Qel::RefCounted {
 public:
  explicit Probe(int* destroyed) : destroyed_(destroyed) {}
  // Takes and drops references to itself while it is being destroyed.
  bool selfReferenceInDestructor = false;

 protected:
  ~Probe() override {
    if (selfReferenceInDestructor) Qel::Ptr<Probe> self(this);
    ++*destroyed_;
  }

 private:
  int* destroyed_;
};

class DerivedProbe : public Probe {
 public:
  using Probe::Probe;
};

TEST(PtrTest, LastReferenceDestroysExactlyOnce) {
  int destroyed = 0;
  long const live = Qel::RefCounted::liveInstances();
  {
    Qel::Ptr<Probe> a(new Probe(&destroyed));
    EXPECT_EQ(a->refCount(), 1u);
    Qel::Ptr<Probe> b = a;
    EXPECT_EQ(a->refCount(), 2u);
    Qel::Ptr<Probe const> view = b;
    EXPECT_EQ(a->refCount(), 3u);
    EXPECT_EQ(Qel::RefCounted::liveInstances(), live + 1);
    a.reset();
    b.reset();
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live);
}

TEST(PtrTest, MoveTransfersWithoutCounting) {
  int destroyed = 0;
  Qel::Ptr<DerivedProbe> d(new DerivedProbe(&destroyed));
  Qel::Ptr<Probe> base(std::move(d));
  EXPECT_FALSE(d);
  EXPECT_EQ(base->refCount(), 1u);
  Qel::Ptr<Probe> other;
  other = std::move(base);
  EXPECT_EQ(other->refCount(), 1u);
  other = other;  // self-assignment keeps the object
  EXPECT_EQ(destroyed, 0);
  other = nullptr;
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, ReferencesTakenInTheDestructorDoNotDestroyAgain) {
  int destroyed = 0;
  {
    Qel::Ptr<Probe> p(new Probe(&destroyed));
    p->selfReferenceInDestructor = true;
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, CastsAndComparisons) {
  int destroyed = 0;
  Qel::Ptr<Probe> p(new DerivedProbe(&destroyed));
  Qel::Ptr<DerivedProbe> d = Qel::ptrCast<DerivedProbe>(p);
  ASSERT_TRUE(d);
  EXPECT_TRUE(p == d);
  Qel::Ptr<Probe const> view = p;
  Qel::Ptr<Probe> writable = Qel::ptrConstCast<Probe>(view);
  EXPECT_TRUE(writable == p);
  EXPECT_FALSE(Qel::Ptr<Probe>() == p);
  EXPECT_TRUE(Qel::Ptr<Probe>() == nullptr);
}

}  // namespace
