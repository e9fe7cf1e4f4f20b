#include "Qel/Core/Ptr.h"

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

TEST(PtrTest, CopiesCountMovesDoNotAndTheLastReferenceDestroysOnce) {
  int destroyed = 0;
  long const live = Qel::RefCounted::liveInstances();
  Qel::Ptr<DerivedProbe> d(new DerivedProbe(&destroyed));
  {
    Qel::Ptr<Probe> copy = d;
    Qel::Ptr<Probe const> view = copy;
    EXPECT_EQ(d->refCount(), 3u);
    EXPECT_EQ(Qel::RefCounted::liveInstances(), live + 1);
  }
  EXPECT_EQ(d->refCount(), 1u);
  Qel::Ptr<Probe> base(std::move(d));
  EXPECT_FALSE(d);  // NOLINT(bugprone-use-after-move)
  Qel::Ptr<Probe> other;
  other = std::move(base);
  EXPECT_EQ(other->refCount(), 1u);
  Qel::Ptr<Probe>& alias = other;
  other = alias;  // self-assignment keeps the object

  other = nullptr;
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live);

  // References taken and dropped inside the destructor do not destroy again.
  Qel::Ptr<Probe> p(new Probe(&destroyed));
  p->selfReferenceInDestructor = true;
  p.reset();
  EXPECT_EQ(destroyed, 2);
}

}  // namespace
