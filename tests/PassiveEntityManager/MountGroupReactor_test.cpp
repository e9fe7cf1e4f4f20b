// The reactor a condition gets, chosen by the watched attribute's declared type, for the types the
// simulation's conditions do not use (it covers characters, pointers, memberships, counts and
// texts); the exception for an unusable attribute and the assertions for unusable conditions.
#include "PassiveEntityManager/MountGroupReactor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ConditionalFixture.h"
#include "Qel/Exception.h"

namespace {

using ConditionalTesting::literal;
using Ledra::ConditionalMountGroupSm;
using Strings = std::vector<std::string>;

class MountGroupReactorTest : public ConditionalTesting::ConditionalTest {
 protected:
  // Starts over with a fresh group holding `text` and a result record that is not enabled.
  void restartWith(std::string const& text) {
    sm = nullptr;
    capture.clear();
    res->enabledIs(false);
    group = Ledra::PassiveMountGroup::mountGroupNew("g", 10);
    condition(text);
  }
};

TEST_F(MountGroupReactorTest, TheAttributesTypeChoosesTheReactorAndReadsTheConstant) {
  // "<constant> == <attr>" holds once the attribute is written as `yes` and not while it reads
  // `no`; `row` is the type name traced right after the attribute's look-up.
  struct {
    char const* attr;
    char const* constant;
    char const* row;
    char const* no;
    char const* yes;
  } const rows[] = {
      {"a_F64", "-4", "F64", "4", "-4"},
      {"a_F32", "3", "F32", "2.5", "3"},
      {"a_U64", "9223372036854775807", "U64", "1", "9223372036854775807"},
      {"a_S64", "-9000000000", "S64", "9000000000", "-9000000000"},
      {"a_U32", "4000000000", "U32", "1", "4000000000"},
      {"a_S32", "-7", "S32", "7", "-7"},
      {"a_U16", "65535", "U16", "1", "65535"},
      {"a_S16", "-2", "S16", "2", "-2"},
      // U8 and S8 take the code of the first character: "1" is 49.
      {"a_U8", "1", "U8", "1", "49"},
      {"a_S8", "Ab", "S8", "66", "65"},
      {"a_long", "-12", "long", "12", "-12"},
      {"a_double", "1e3", "double", "999", "1000"},
      {"a_char", "xyz", "char", "y", "x"},
      {"a_name", "node", "name", "nod", "node"},
      // "NULL" is the empty text for the textual types.
      {"a_name", "NULL", "name", "x", ""},
      {"colour", "blue", "isEnumType", "red", "blue"},
      // Constants that are no number read as 0.
      {"a_S32", "seven", "S32", "7", "0"},
  };
  for (auto const& r : rows) {
    SCOPED_TRACE(std::string(r.attr) + " with " + r.constant);
    restartWith(std::string(r.constant) + " == " + on(r.attr));
    set(r.attr, r.no);
    start();
    EXPECT_FALSE(enabled());
    Strings const all = messages();
    Strings const lookup{std::string("looking up aid for attr: ") + r.attr +
                             " /condTest/w for type: condTest::Watched",
                         r.row};
    EXPECT_NE(std::search(all.begin(), all.end(), lookup.begin(), lookup.end()), all.end());
    EXPECT_EQ(countOf(r.row), 1u);
    EXPECT_EQ(capture.count("Adding conditional reactor"), 1u);
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
