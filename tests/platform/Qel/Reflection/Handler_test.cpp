// Handlers in the reflection: invoked by name with arguments by name, and every kind of bad
// invocation refused with its text before the handler runs.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/TypeBuilder.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeakCheck.h"

namespace {

using Qel::GenericIf;
using Qel::U32;

// A counter that adds, resets and follows another entity.
class Counter : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Counter>;
  static Ptr counterNew() { return Ptr(new Counter); }

  U32 total = 0;
  Qel::Entity::PtrConst peer;

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType() {
    using C = Counter;
    static Qel::QelType const* t =
        Qel::TypeBuilder<C>("test::Counter")
            .value<U32>("total", [](C const& c) { return c.total; })
            .handler("add", {"amount", "times"},
                     [](C& c, U32 amount, U32 times) { return c.total += amount * times; })
            .handler("reset", [](C& c) { c.total = 0; })
            .handler("follow", {"peer"}, [](C& c, Qel::Entity::PtrConst const& p) { c.peer = p; })
            .done();
    return t;
  }

 private:
  Counter() : Entity("counter") {}
  ~Counter() override = default;
};

GenericIf::PtrConst u32(U32 v) {
  return Qel::ValueTraits<U32>::box(v);
}

class HandlerTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    counter = Counter::counterNew();
  }
  void TearDown() override {
    counter = nullptr;
    LeakCheckedTest::TearDown();
  }
  Counter::Ptr counter;
};

TEST_F(HandlerTest, InvokedByNameWithArgumentsByName) {
  GenericIf::PtrConst r = counter->invoke("add", {{"times", u32(3)}, {"amount", u32(2)}});
  ASSERT_TRUE(r);
  EXPECT_EQ(r->valueAs<U32>(), 6u);
  EXPECT_FALSE(counter->invoke("reset", {}));
  // An entity of a derived type fits a pointer parameter, and so does a null pointer.
  auto dir = Qel::Dir::dirNew("d");
  counter->invoke("follow", {{"peer", dir}});
  EXPECT_EQ(counter->peer, dir);
  counter->invoke("follow", {{"peer", nullptr}});
  EXPECT_FALSE(counter->peer);
}

TEST_F(HandlerTest, BadInvocationsAreRefusedBeforeTheHandlerRuns) {
  auto const s32 = Qel::ValueTraits<Qel::S32>::box(1);
  auto const text = Qel::ValueTraits<Qel::String>::box("/d");
  struct Case {
    std::function<void()> invoke;
    char const* error;
  };
  std::vector<Case> const cases{
      // clang-format off
      {[&] { counter->invoke("add", {{"amount", u32(1)}}); },
       "handler add of test::Counter is missing argument times"},
      {[&] { counter->invoke("add", {{"amount", u32(1)}, {"times", u32(1)}, {"by", u32(1)}}); },
       "handler add of test::Counter has no parameter by"},
      {[&] { counter->invoke("add", {{"amount", s32}, {"times", u32(1)}}); },
       "argument amount of handler add of test::Counter must be U32, not S32"},
      {[&] { counter->invoke("add", {{"amount", nullptr}, {"times", u32(1)}}); },
       "argument amount of handler add of test::Counter must be U32, not null"},
      {[&] { counter->invoke("follow", {{"peer", text}}); },
       "argument peer of handler follow of test::Counter must be Qel::Entity, not string"},
      {[&] { counter->invoke("total", {}); }, "attribute total of test::Counter is no handler"},
      {[&] { counter->invoke("nosuch", {}); }, "type test::Counter has no attribute nosuch"},
      {[&] { counter->attributeIs("reset", Qel::String("1")); },
       "attribute reset of test::Counter is a handler"},
      // clang-format on
  };
  counter->total = 5;
  for (Case const& c : cases)
    EXPECT_EQ(Ledra::test::errorOf<Qel::Exception>(c.invoke), c.error);
  EXPECT_EQ(counter->total, 5u);
}

}  // namespace
