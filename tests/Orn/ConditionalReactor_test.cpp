// Reactors over run-time entities: plain attributes of every builtin, membership and element
// counts of collections, enums, pointers, the assertions, and lifetimes under re-entrance.
#include "Orn/ConditionalReactor.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

#include "Qel/Dir.h"
#include "Qel/Exception.h"
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

TEST_F(ReactorTest, IntLessThanFiresAboveTheConstantAndTracesTheExpression) {
  auto r = watch("a_S32", 5, Orn::LT);
  EXPECT_EQ(messages(),
            (std::vector<std::string>{
                tagged("ConditionalReactor::handleCreation checking initial state of "
                       "ornTest::Watched::a_S32( aid 7) for 5"),
                tagged("ConditionalReactor::onAttribute Received update on attr a_S32(aid 7) of "
                       "ornTest::Watched index is 0x0"),
                tagged("attrCompare evaluating \"5 < 0\"")}));
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
  EXPECT_EQ(watch("a_F64", 1.0, Orn::NEQ)->fired(), 1);
  EXPECT_EQ(messages().back(), tagged("attrCompare evaluating \"1 != nan\""));
  EXPECT_EQ(fired(watch("a_F64", nan, Orn::NEQ), watch("a_F32", 1.0f, Orn::NEQ)), "1 1");
  for (LogicalOp op : {Orn::EQ, Orn::LE, Orn::GE, Orn::LT, Orn::GT}) {
    EXPECT_EQ(fired(watch("a_F64", 1.0, op), watch("a_F64", nan, op), watch("a_F32", 1.0f, op)),
              "0 0 0")
        << Orn::logicalOpToStr(op);
  }
}

TEST_F(ReactorTest, EqualMembershipFiresForItsKeyAddedUpdatedOrRemoved) {
  put("tags", "k", "true");
  auto absent = watch("tags", Qel::String("j"), Orn::EQ);
  auto r = watch("tags", Qel::String("k"), Orn::strToLogicalOp("in"));
  EXPECT_EQ(fired(r, absent), "1 0");
  put("tags", "other", "true");
  put("tags", "k", "false");
  EXPECT_EQ(fired(r, absent), "2 0");
  drop("tags", "k");  // the notification names the key: it fires although the key is gone
  EXPECT_EQ(messages().back(), tagged("attrCompare evaluating \"k == k\""));
  drop("tags", "other");
  put("tags", "j", "true");
  EXPECT_EQ(fired(r, absent), "3 1");
}

TEST_F(ReactorTest, UnequalMembershipFiresWhenItsKeyIsFoundGone) {
  auto r = watch("tags", Qel::String("k"), Orn::strToLogicalOp("notin"));
  EXPECT_EQ(r->fired(), 1);
  put("tags", "other", "true");
  EXPECT_EQ(messages().back(),
            tagged("ConditionalReactor::onAttribute ignored the uninteresting key update"));
  put("tags", "k", "true");
  EXPECT_EQ(messages().back(),
            tagged("ConditionalReactor::onAttribute key k is still part of the collection tags"));
  put("tags", "k", "false");
  drop("tags", "other");
  EXPECT_EQ(r->fired(), 1);
  drop("tags", "k");
  EXPECT_EQ(r->fired(), 2);
  put("tags", "k", "true");
  EXPECT_EQ(watch("tags", Qel::String("k"), Orn::NEQ)->fired(), 0);
}

TEST_F(ReactorTest, MembershipKeyTakesTheCollectionsKeyType) {
  // A name-keyed collection watched with a string constant, a U32-keyed one with an int.
  put("names", "n", "true");
  put("byNumber", "12", "x");
  EXPECT_EQ(fired(watch("names", Qel::String("n"), Orn::EQ), watch("byNumber", 12, Orn::EQ),
                  watch("byNumber", 13, Orn::NEQ)),
            "1 1 1");
}

TEST_F(ReactorTest, LengthComparesTheElementCountOnEveryChange) {
  auto le = watch("tags", 2u, Orn::LE, true);
  auto ge = watch("tags", 2u, Orn::GE, true);
  EXPECT_EQ(fired(le, ge), "0 1");
  put("tags", "a", "true");
  EXPECT_EQ(fired(le, ge), "0 2");
  put("tags", "b", "true");
  EXPECT_EQ(fired(le, ge), "1 3");
  EXPECT_EQ(messages().back(), tagged("attrCompare evaluating \"2 >= 2\""));
  put("tags", "c", "true");
  put("tags", "c", "false");  // an update recounts too
  EXPECT_EQ(fired(le, ge), "3 3");
  auto equal = watch("tags", 3u, Orn::strToLogicalOp("in"), true);
  auto unequal = watch("tags", 3u, Orn::strToLogicalOp("notin"), true);
  EXPECT_EQ(fired(equal, unequal), "1 0");
  drop("tags", "a");
  EXPECT_EQ(fired(le, ge, equal, unequal), "4 4 1 1");
  drop("tags", "b");
  EXPECT_EQ(fired(le, ge), "4 5");
}

TEST_F(ReactorTest, EnumsCompareTheirUnderlyingInteger) {
  auto blue = watch("colour", 7u, Orn::EQ);
  auto aboveGreen = watch("colour", 1u, Orn::LT);
  EXPECT_EQ(fired(blue, aboveGreen), "0 0");
  entity_->attributeIs("colour", Qel::String("blue"));
  EXPECT_EQ(fired(blue, aboveGreen), "1 1");
  EXPECT_EQ(messages().back(), tagged("attrCompare evaluating \"1 < 7\""));
  // An enum-keyed collection takes the constant as an enumerator.
  auto green = watch("byColour", 1u, Orn::EQ);
  auto notGreen = watch("byColour", static_cast<unsigned char>(1), Orn::NEQ);
  EXPECT_EQ(fired(green, notGreen), "0 1");
  put("byColour", "blue", "3");
  put("byColour", "green", "4");
  EXPECT_EQ(fired(green, notGreen), "1 1");
  EXPECT_EQ(messages().back(),
            tagged("ConditionalReactor::onAttribute key 1 is still part of the collection "
                   "byColour"));
  drop("byColour", "green");
  EXPECT_EQ(fired(green, notGreen), "2 2");
}

TEST_F(ReactorTest, PointersCompareIdentityNotText) {
  auto target = Qel::globalDir()->dirIs("ornTarget");
  Qel::globalDir()->dirIs("ornOther");
  Qel::Entity const* const address = target.ptr();
  auto isNull = watch("peer", static_cast<Qel::Entity const*>(nullptr), Orn::EQ);
  auto isTarget = watch("peer", address, Orn::EQ);
  auto notTarget = watch("peer", address, Orn::NEQ);
  EXPECT_EQ(fired(isNull, isTarget, notTarget), "1 0 1");
  entity_->attributeIs("peer", Qel::String("/ornTarget"));
  EXPECT_EQ(fired(isNull, isTarget, notTarget), "1 1 1");
  entity_->attributeIs("peer", Qel::String("/ornOther"));
  EXPECT_EQ(fired(isNull, isTarget, notTarget), "1 1 2");
  Qel::globalDir()->entryDel("ornTarget");
  Qel::globalDir()->entryDel("ornOther");
  static char held[] = "abc";
  static char sameText[] = "abc";
  auto r = watch("a_char*", static_cast<char*>(sameText), Orn::EQ);
  auto c = watch("a_const char*", static_cast<char const*>(held), Orn::EQ);
  set("a_char*", static_cast<char*>(held));
  set("a_const char*", static_cast<char const*>(held));
  EXPECT_EQ(fired(r, c), "0 1");
  set("a_char*", static_cast<char*>(sameText));
  EXPECT_EQ(fired(r, c), "1 1");
}

TEST_F(ReactorDeathTest, MisuseEndsTheProcessWithItsMessage) {
  EXPECT_DEATH(watch("tags", Qel::String("k"), Orn::LT),
               literal("\"Collection only supports EQ/NEQ logical ops or len()\""));
  EXPECT_DEATH(watch("byColour", 1.0, Orn::EQ),
               literal("\"enums cannot be used with non integral types\""));
  EXPECT_DEATH(watch("byColour", Qel::Name("green"), Orn::NEQ),
               literal("\"enums cannot be used with non integral types\""));
  EXPECT_DEATH(watch("peer", static_cast<Qel::Entity const*>(nullptr), Orn::LE),
               literal("\"Only EQ and NEQ are supported for pointer types\""));
  EXPECT_DEATH(watch("a_char*", static_cast<char*>(nullptr), Orn::GT),
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
