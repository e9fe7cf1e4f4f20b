// The reactor a condition gets, chosen by the watched attribute's declared type, with constants at
// the types' bounds (the simulation's constants are small); the exception for an unusable
// attribute and the assertions for unusable conditions.
#include "PassiveEntityManager/MountGroupReactor.h"

#include <gtest/gtest.h>

#include <string>

#include "ConditionalFixture.h"
#include "Qel/Core/Exception.h"

namespace {

using ConditionalTesting::literal;
using Ledra::ConditionalMountGroupSm;

class MountGroupReactorTest : public ConditionalTesting::ConditionalTest {
 protected:
  // Starts over with a fresh group holding `text` and a result record that is not enabled.
  void restartWith(std::string const& text) {
    sm = nullptr;
    res->enabledIs(false);
    group = Ledra::PassiveMountGroup::mountGroupNew("g", 10);
    condition(text);
  }
};

TEST_F(MountGroupReactorTest, TheAttributesTypeChoosesTheReactorAndReadsTheConstant) {
  // "<constant> == <attr>" holds once the attribute is written as `yes` and not while it reads
  // `no`: the constant is read as the attribute's type, at the type's bounds.
  struct {
    char const* attr;
    char const* constant;
    char const* no;
    char const* yes;
  } const rows[] = {
      {"a_F64", "-4", "4", "-4"},
      {"a_U64", "9223372036854775807", "1", "9223372036854775807"},
      {"a_S64", "-9000000000", "9000000000", "-9000000000"},
      {"a_U32", "4000000000", "1", "4000000000"},
      {"a_U16", "65535", "1", "65535"},
      // U8 and S8 take the code of the first character: "1" is 49.
      {"a_U8", "1", "1", "49"},
      {"a_S8", "Ab", "66", "65"},
      {"a_char", "xyz", "y", "x"},
      // "NULL" is the empty text for the textual types.
      {"a_name", "NULL", "x", ""},
      {"colour", "blue", "red", "blue"},
      // Constants that are no number read as 0.
      {"a_S32", "seven", "7", "0"},
  };
  for (auto const& r : rows) {
    SCOPED_TRACE(std::string(r.attr) + " with " + r.constant);
    restartWith(std::string(r.constant) + " == " + on(r.attr));
    set(r.attr, r.no);
    start();
    EXPECT_FALSE(enabled());
    set(r.attr, r.yes);
    EXPECT_TRUE(enabled());
  }
}

// --- unusable attributes and conditions

TEST_F(MountGroupReactorTest, UnusableAttributeThrowsAndLeavesTheConditionPendingWithoutAReactor) {
  std::pair<char const*, char const*> const cases[] = {
      {"1 == /condTest/w.nothing", "Unknown type"},
      {"x == /condTest/w.mount", "Unknown builtin type"}};
  for (auto const& [text, error] : cases) {
    restartWith(text);
    EXPECT_THROW(start(), Qel::TypeException) << "the factory passes it on";
    EXPECT_EQ(sm, nullptr);
    condition("1 == " + on("a_U32"));
    sm = ConditionalMountGroupSm::conditionalMountGroupSmNew(group, res, nullptr, wheel);
    EXPECT_EQ(Ledra::test::errorOf<Qel::TypeException>([this] { sm->handleCondition(); }), error);
    EXPECT_EQ(sm->currentPendingCondition(), text);
    EXPECT_EQ(sm->conditionalReactor(), nullptr);
    EXPECT_EQ(sm->conditionLocalQueues(), 1u);
  }
}

// The reactor of a satisfied condition must not report again once the next condition takes over,
// be it true at once or without a reactor (its pointer constant names no entity).
TEST_F(MountGroupReactorTest, TheSatisfiedConditionsReactorGoesWhenTheNextTakesOver) {
  set("a_bool", "true");
  for (char const* next : {"true == /condTest/w.a_bool", "/condTest/nowhere == /condTest/w.peer"}) {
    restartWith("5 == " + on("a_U32"));
    condition(next);
    set("a_U32", "0");
    start();
    set("a_U32", "5");
    EXPECT_EQ(sm->conditionalReactor(), nullptr) << next;
    EXPECT_EQ(watched->notifiees(), 0u) << next;
  }
}

using MountGroupReactorDeathTest = MountGroupReactorTest;

TEST_F(MountGroupReactorDeathTest, UnusableConditionEndsTheProcess) {
  std::pair<char const*, char const*> const cases[] = {
      {"purple == /condTest/w.colour", "Assertion failed: attribute && \"Invalid enum value\""},
      {"1 =< /condTest/w.a_S32", "Unknown logical op"},
      // A dot ends the constant, and "5" is no operator.
      {"1.5 == /condTest/w.a_F64", "Unknown logical op"},
      {"NULL < /condTest/w.peer", "Only EQ and NEQ are supported for pointer types"},
      {"k < /condTest/w.tags", "Collection only supports EQ/NEQ logical ops or len()"}};
  for (auto const& [text, assertion] : cases) {
    restartWith(text);
    EXPECT_DEATH(start(), literal(assertion)) << text;
  }
}

}  // namespace
