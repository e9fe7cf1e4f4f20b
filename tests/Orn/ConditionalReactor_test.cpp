// Reactors over run-time entities, for what the simulation's conditions do not use: every
// operator on every builtin (signedness, NaN), enums and their keyed collections, the assertions,
// and lifetimes under re-entrance.
#include "Orn/ConditionalReactor.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>

#include "Qel/Core/Exception.h"
#include "ReactorFixture.h"

namespace {

using Orn::LogicalOp;
using OrnTesting::CountingReactor;
using OrnTesting::fired;
using OrnTesting::literal;
using OrnTesting::tagged;

using ReactorTest = OrnTesting::ReactorTest;
using ReactorDeathTest = OrnTesting::ReactorTest;

// One builtin attribute and two constants with low < high in the type's own order, chosen so that
// the other signedness (or a comparison of text lengths) would order them the other way round.
// High never equals the attribute's default, so the first write always notifies.
template <class T, char const* Attr>
struct Builtin {
  using Type = T;
  static char const* attr() { return Attr; }
};
#define ORN_BUILTIN_CASE(Name, T, LOW, HIGH) \
  constexpr char k##Name[] = "a_" #Name;     \
  struct Name##Case : Builtin<T, k##Name> {  \
    static T low() { return LOW; }           \
    static T high() { return HIGH; }         \
  };
ORN_BUILTIN_CASE(bool, bool, false, true)
ORN_BUILTIN_CASE(U8, unsigned char, 5, 200)
ORN_BUILTIN_CASE(S8, signed char, -3, 5)
ORN_BUILTIN_CASE(U16, unsigned short, 5, 0x8000)
ORN_BUILTIN_CASE(S16, short, -3, 5)
ORN_BUILTIN_CASE(U32, unsigned int, 5, 0x80000000u)
ORN_BUILTIN_CASE(S32, int, -3, 5)
ORN_BUILTIN_CASE(U64, unsigned long long, 5, 1ull << 63)
ORN_BUILTIN_CASE(S64, long long, -3, 5)
ORN_BUILTIN_CASE(F32, float, -1.5f, 2.25f)
ORN_BUILTIN_CASE(F64, double, -1e300, 0.5)
ORN_BUILTIN_CASE(char, char, '\xfd', 'a')
ORN_BUILTIN_CASE(long, long, -4, 4)
ORN_BUILTIN_CASE(double, double, -0.25, 0.125)
ORN_BUILTIN_CASE(string, Qel::String, "abd", "b")
ORN_BUILTIN_CASE(name, Qel::Name, "Zz", "a")
#undef ORN_BUILTIN_CASE

template <class Case>
class EveryBuiltinTest : public ReactorTest {};
using Cases =
    ::testing::Types<boolCase, U8Case, S8Case, U16Case, S16Case, U32Case, S32Case, U64Case, S64Case,
                     F32Case, F64Case, charCase, longCase, doubleCase, stringCase, nameCase>;
TYPED_TEST_SUITE(EveryBuiltinTest, Cases);

// Six reactors with the constant low; the attribute moves to high, then back to low.
TYPED_TEST(EveryBuiltinTest, EveryOperatorWithTheConstantOnTheLeft) {
  using T = typename TypeParam::Type;
  constexpr std::array<LogicalOp, 6> ops{Orn::EQ, Orn::NEQ, Orn::LE, Orn::GE, Orn::LT, Orn::GT};
  std::array<typename CountingReactor<T>::Ptr, 6> r;
  for (std::size_t i = 0; i < ops.size(); ++i)
    r[i] = this->watch(TypeParam::attr(), TypeParam::low(), ops[i]);
  // Writes v; returns the reports it added, in the order == != <= >= < >.
  auto const write = [&](T const& v) {
    std::array<int, 6> before;
    for (std::size_t i = 0; i < ops.size(); ++i)
      before[i] = r[i]->fired();
    this->set(TypeParam::attr(), v);
    std::string added;
    for (std::size_t i = 0; i < ops.size(); ++i)
      added += std::to_string(r[i]->fired() - before[i]);
    return added;
  };
  EXPECT_EQ(write(TypeParam::high()), "011010");  // low OP high
  EXPECT_EQ(write(TypeParam::low()), "101100");   // low OP low
}

TEST_F(ReactorTest, IntLessThanFiresAboveTheConstantOnEveryChange) {
  auto r = watch("a_S32", 5, Orn::LT);
  set("a_S32", 6);
  EXPECT_EQ(r->fired(), 1);
  EXPECT_EQ(messages().back(), tagged("attrCompare evaluating \"5 < 6\""));
  set("a_S32", 4);
  EXPECT_EQ(r->fired(), 1);
  // Reported again on every later change that leaves it true; an equal store changes nothing.
  set("a_S32", 9);
  set("a_S32", 9);
  set("a_S32", 10);
  EXPECT_EQ(r->fired(), 3);
  // Other attributes are ignored without a trace.
  capture_.clear();
  set("a_S64", 100LL);
  put("tags", "k", "true");
  set("colour", std::int64_t{7});
  EXPECT_EQ(r->fired(), 3);
  EXPECT_TRUE(messages().empty());
  // True at creation: reported before the constructor returns.
  EXPECT_EQ(fired(watch("a_S32", 10, Orn::EQ), watch("a_S32", 10, Orn::NEQ)), "1 0");
}

TEST_F(ReactorTest, NanIsUnequalToEverything) {
  double const nan = std::numeric_limits<double>::quiet_NaN();
  set("a_F64", nan);
  set("a_F32", static_cast<float>(nan));
  EXPECT_EQ(fired(watch("a_F64", nan, Orn::NEQ), watch("a_F32", 1.0f, Orn::NEQ)), "1 1");
  for (LogicalOp op : {Orn::EQ, Orn::LE, Orn::GE, Orn::LT, Orn::GT}) {
    EXPECT_EQ(fired(watch("a_F64", 1.0, op), watch("a_F64", nan, op), watch("a_F32", 1.0f, op)),
              "0 0 0")
        << Orn::logicalOpToStr(op);
  }
}

TEST_F(ReactorTest, EnumsCompareTheirUnderlyingInteger) {
  auto blue = watch("colour", 7u, Orn::EQ);
  auto aboveGreen = watch("colour", 1u, Orn::LT);
  EXPECT_EQ(fired(blue, aboveGreen), "0 0");
  entity_->attributeIs("colour", Qel::String("blue"));
  EXPECT_EQ(fired(blue, aboveGreen), "1 1");
  // An enum-keyed collection takes the constant as an enumerator.
  auto green = watch("byColour", 1u, Orn::EQ);
  auto notGreen = watch("byColour", static_cast<unsigned char>(1), Orn::NEQ);
  EXPECT_EQ(fired(green, notGreen), "0 1");
  put("byColour", "blue", "3");
  put("byColour", "green", "4");
  EXPECT_EQ(fired(green, notGreen), "1 1");
  drop("byColour", "green");
  EXPECT_EQ(fired(green, notGreen), "2 2");
}

TEST_F(ReactorDeathTest, MisuseEndsTheProcessWithItsMessage) {
  EXPECT_DEATH(OrnTesting::CountingReactor<int>::make(nullptr, 1, Orn::EQ, false, aid("a_S32")),
               literal("\"a condition reactor watches an entity\""));
  EXPECT_DEATH(watch("tags", Qel::String("k"), Orn::LT),
               literal("\"Collection only supports EQ/NEQ logical ops or len()\""));
  EXPECT_DEATH(watch("byColour", 1.0, Orn::EQ),
               literal("\"enums cannot be used with non integral types\""));
  EXPECT_DEATH(watch("peer", static_cast<Qel::Entity const*>(nullptr), Orn::LE),
               literal("\"Only EQ and NEQ are supported for pointer types\""));
}

TEST_F(ReactorTest, ReactorKeepsItsEntityAliveAndLetsGoWhenReleased) {
  auto r = watch("a_S32", 5, Orn::LT);
  Qel::GenericIf const* const watched = entity_.ptr();
  long const live = Qel::RefCounted::liveInstances();
  entity_.reset();
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live) << "the reactor holds the entity";
  EXPECT_EQ(r->notifier(), watched);
  EXPECT_EQ(watched->notifiees(), 1u);
  r.reset();  // releases the entity as well; the leak check proves both are gone
  // A reactor on an unknown attribute id is refused, and nothing stays registered.
  entity_ = Qel::DynamicEntity::entityNew(OrnTesting::watchedType(), "watched");
  EXPECT_THROW(CountingReactor<int>::make(entity_, 1, Orn::EQ, false, 999), Qel::TypeException);
  EXPECT_EQ(entity_->notifiees(), 0u);
}

TEST_F(ReactorTest, HookMayReleaseItsOwnReactorOrAnotherOne) {
  auto first = watch("a_S32", 5, Orn::LT);
  auto second = watch("a_S32", 5, Orn::LT);
  first->onFire = [&] {
    second.reset();  // notified after this one: must not be reached any more
    first.reset();   // the reactor whose hook is running
  };
  set("a_S32", 6);
  EXPECT_FALSE(first);
  EXPECT_FALSE(second);
  EXPECT_EQ(entity_->notifiees(), 0u);
}

TEST_F(ReactorTest, HookMayInstallAReactorThatIsTrueAtOnce) {
  // The pattern of a condition list: the first condition's report installs the next one, which
  // reports during its own construction and is not handed the change that is being delivered.
  auto first = watch("a_S32", 5, Orn::LT);
  CountingReactor<int>::Ptr next;
  first->onFire = [&] {
    if (!next) next = watch("a_S32", 0, Orn::NEQ);
  };
  set("a_S32", 6);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->fired(), 1);
  set("a_S32", 7);
  EXPECT_EQ(fired(first, next), "2 2");
}

}  // namespace
