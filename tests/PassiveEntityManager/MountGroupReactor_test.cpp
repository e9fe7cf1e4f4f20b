// The reactor a condition gets: chosen by the watched attribute's declared type (every row of the
// type table, one instantiation of MountGroupReactor per constant type), how each row reads its
// constant, membership and element counts of collections, enums, pointers, the exceptions for
// unusable attributes and the assertions for unusable conditions.
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

using MountGroupReactorTest = ConditionalTesting::ConditionalTest;

// --- one row of the type table per attribute type

// The condition "<constant> == /condTest/w.<attr>" holds once the attribute is written as `yes`
// and not while it reads `no`; `row` is the type name the state machine traces.
struct Row {
  char const* attr;
  char const* constant;
  char const* row;
  char const* no;
  char const* yes;
};

void PrintTo(Row const& r, std::ostream* os) {
  *os << r.attr << " with " << r.constant;
}

class TypeRowTest : public ConditionalTesting::ConditionalTest,
                    public ::testing::WithParamInterface<Row> {};

TEST_P(TypeRowTest, TheAttributesTypeChoosesTheReactorAndReadsTheConstant) {
  Row const& r = GetParam();
  set(r.attr, r.no);
  condition(std::string(r.constant) + " == " + on(r.attr));
  start();
  EXPECT_FALSE(enabled());
  EXPECT_EQ(countOf(r.row), 1u) << r.row;
  std::vector<std::string> const all = messages();
  auto const looked = std::find(all.begin(), all.end(),
                                std::string("looking up aid for attr: ") + r.attr +
                                    " /condTest/w for type: condTest::Watched");
  ASSERT_NE(looked, all.end());
  ASSERT_NE(looked + 1, all.end());
  EXPECT_EQ(*(looked + 1), r.row);
  EXPECT_EQ(capture_.count("Adding conditional reactor"), 1u);
  set(r.attr, r.yes);
  EXPECT_TRUE(enabled());
}

INSTANTIATE_TEST_SUITE_P(
    Builtins, TypeRowTest,
    ::testing::Values(
        Row{"a_bool", "true", "bool", "false", "true"}, Row{"a_F64", "-4", "F64", "4", "-4"},
        Row{"a_F32", "3", "F32", "2.5", "3"},
        Row{"a_U64", "9223372036854775807", "U64", "1", "9223372036854775807"},
        Row{"a_S64", "-9000000000", "S64", "9000000000", "-9000000000"},
        Row{"a_U32", "4000000000", "U32", "1", "4000000000"}, Row{"a_S32", "-7", "S32", "7", "-7"},
        Row{"a_U16", "65535", "U16", "1", "65535"}, Row{"a_S16", "-2", "S16", "2", "-2"},
        // U8 and S8 take the code of the first character: "1" is 49.
        Row{"a_U8", "1", "U8", "1", "49"}, Row{"a_S8", "Ab", "S8", "66", "65"},
        Row{"a_long", "-12", "long", "12", "-12"}, Row{"a_double", "1e3", "double", "999", "1000"},
        Row{"a_char", "xyz", "char", "y", "x"}, Row{"a_string", "hello", "string", "hell", "hello"},
        Row{"a_name", "node", "name", "nod", "node"},
        // "NULL" is the empty text for the textual types.
        Row{"a_string", "NULL", "string", "NULL", ""}, Row{"a_name", "NULL", "name", "x", ""},
        Row{"colour", "blue", "isEnumType", "red", "blue"},
        // Constants that are no number read as 0.
        Row{"a_S32", "seven", "S32", "7", "0"}));

TEST_F(MountGroupReactorTest, ACharacterConstantOfNullIsTheNulCharacter) {
  setValue("a_char", 'n');
  condition("NULL == " + on("a_char"));
  start();
  EXPECT_FALSE(enabled());
  setValue("a_char", '\0');
  EXPECT_TRUE(enabled());
}

// --- collections

TEST_F(MountGroupReactorTest, InAndNotinTestTheConstantAsAKey) {
  condition("k in " + on("tags"));
  condition("k notin " + on("tags"));
  start();
  set("tags", "true", "other");
  EXPECT_EQ(sm_->currentPendingCondition(), "k in /condTest/w.tags");
  set("tags", "false", "k");
  EXPECT_EQ(sm_->currentPendingCondition(), "k notin /condTest/w.tags");
  EXPECT_EQ(countOf("string"), 2u) << "the key type decides the row";
  set("tags", "", "k");
  EXPECT_TRUE(enabled());
}

TEST_F(MountGroupReactorTest, KeysOfEnumAndNumberTypes) {
  set("byColour", "4", "green");
  condition("green in " + on("byColour"));
  condition("12 in " + on("byNumber"));
  start();
  EXPECT_EQ(sm_->currentPendingCondition(), "12 in /condTest/w.byNumber");
  EXPECT_EQ(countOf("isEnumType"), 1u);
  EXPECT_EQ(countOf("U32"), 1u);
  set("byNumber", "twelve", "12");
  EXPECT_TRUE(enabled());
}

// "len(" compares the constant with the element count under any operator; "in" and "notin" are
// equality and inequality there.
struct LenCase {
  char const* condition;
  std::vector<bool> holdsWith;  // 0, 1, 2 and 3 elements
};

void PrintTo(LenCase const& c, std::ostream* os) {
  *os << c.condition;
}

class LenTest : public ConditionalTesting::ConditionalTest,
                public ::testing::WithParamInterface<LenCase> {};

TEST_P(LenTest, TheElementCountIsComparedAtCreation) {
  condition(std::string(GetParam().condition) + " len( " + on("tags") + " )");
  std::vector<bool> holds;
  for (char const* key : {"a", "b", "c", ""}) {
    res_->enabledIs(false);
    start();
    holds.push_back(enabled());
    sm_ = nullptr;
    if (*key) set("tags", "true", key);
  }
  EXPECT_EQ(holds, GetParam().holdsWith);
  EXPECT_EQ(countOf("len()"), 4u);
}

INSTANTIATE_TEST_SUITE_P(Counts, LenTest,
                         ::testing::Values(LenCase{"2 in", {false, false, true, false}},
                                           LenCase{"2 ==", {false, false, true, false}},
                                           LenCase{"2 notin", {true, true, false, true}},
                                           LenCase{"2 >=", {true, true, true, false}},
                                           LenCase{"1 <", {false, false, true, true}}));

// --- pointers

TEST_F(MountGroupReactorTest, APointerConditionComparesWithTheEntityNamedByTheConstant) {
  auto target = Qel::DynamicEntity::entityNew(ConditionalTesting::watchedType(), "target");
  dir_->entryIs(target);
  auto other = Qel::DynamicEntity::entityNew(ConditionalTesting::watchedType(), "other");
  dir_->entryIs(other);
  condition("NULL == " + on("peer"));
  condition("/condTest/target == " + on("peer"));
  condition("/condTest/target != " + on("peer"));
  start();
  EXPECT_EQ(sm_->currentPendingCondition(), "/condTest/target == /condTest/w.peer");
  EXPECT_EQ(countOf("isPtr"), 2u);
  set("peer", "/condTest/other");
  EXPECT_FALSE(enabled());
  set("peer", "/condTest/target");
  EXPECT_EQ(sm_->currentPendingCondition(), "/condTest/target != /condTest/w.peer");
  set("peer", "");
  EXPECT_TRUE(enabled());
}

TEST_F(MountGroupReactorTest, APointerConstantKeepsItsEntityForTheReactorsLife) {
  auto target = Qel::DynamicEntity::entityNew(ConditionalTesting::watchedType(), "target");
  dir_->entryIs(target);
  Qel::DynamicEntity* const raw = target.ptr();
  condition("/condTest/target == " + on("peer"));
  start();
  dir_->entryDel("target");
  target = nullptr;
  EXPECT_EQ(raw->refCount(), 1u) << "held by the reactor";
  sm_ = nullptr;
}

TEST_F(MountGroupReactorTest, APointerConstantNamingNoEntityCreatesNoReactor) {
  condition("/condTest/nowhere == " + on("peer"));
  condition("NULL == " + on("peer"));
  start();
  EXPECT_TRUE(capture_.contains("Conditional Reactor Not created"));
  EXPECT_TRUE(sm_->currentPendingCondition().empty());
  EXPECT_EQ(sm_->conditionalReactor(), nullptr);
  EXPECT_EQ(sm_->conditionLocalQueues(), 1u) << "the rest of the list is left as it was";
  EXPECT_FALSE(enabled());
}

TEST_F(MountGroupReactorTest, CharacterPointerConstantsAreOwnedCharactersOrNull) {
  static char const text[] = "abc";
  condition("NULL == " + on("a_charptr"));
  condition("NULL != " + on("a_constcharptr"));
  start();
  EXPECT_EQ(countOf("charptr"), 1u);
  EXPECT_EQ(countOf("charptrconst"), 1u);
  EXPECT_EQ(sm_->currentPendingCondition(), "NULL != /condTest/w.a_constcharptr");
  setValue("a_constcharptr", static_cast<char const*>(text));
  EXPECT_TRUE(enabled());
}

// --- unusable attributes and conditions

// A condition and the text it fails with: an exception for an attribute without a reactor, an
// assertion for a condition that cannot be evaluated.
struct Unusable {
  char const* condition;
  char const* text;
};

void PrintTo(Unusable const& u, std::ostream* os) {
  *os << u.condition;
}

class UnusableAttributeTest : public ConditionalTesting::ConditionalTest,
                              public ::testing::WithParamInterface<Unusable> {};

TEST_P(UnusableAttributeTest, ThrowsAndLeavesTheConditionPendingWithoutAReactor) {
  condition(GetParam().condition);
  EXPECT_THROW(start(), Qel::TypeException) << "the factory passes it on";
  EXPECT_EQ(sm_, nullptr);
  condition("1 == " + on("a_U32"));
  sm_ = ConditionalMountGroupSm::conditionalMountGroupSmNew(group_, res_, nullptr, wheel_);
  try {
    sm_->handleCondition();
    ADD_FAILURE() << "no exception";
  } catch (Qel::TypeException const& e) {
    EXPECT_STREQ(e.what(), GetParam().text);
  }
  EXPECT_EQ(sm_->currentPendingCondition(), GetParam().condition);
  EXPECT_EQ(sm_->conditionalReactor(), nullptr);
  EXPECT_EQ(sm_->conditionLocalQueues(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Attributes, UnusableAttributeTest,
                         ::testing::Values(Unusable{"1 == /condTest/w.nothing", "Unknown type"},
                                           Unusable{"x == /condTest/w.mount",
                                                    "Unknown builtin type"}));

using UnusableConditionDeathTest = UnusableAttributeTest;

TEST_P(UnusableConditionDeathTest, EndsTheProcess) {
  condition(GetParam().condition);
  EXPECT_DEATH(start(), literal(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, UnusableConditionDeathTest,
    ::testing::Values(
        Unusable{"purple == /condTest/w.colour",
                 "Assertion failed: attribute && \"Invalid enum value\""},
        Unusable{"1 =< /condTest/w.a_S32", "Unknown logical op"},
        // A dot ends the constant, and "5" is no operator.
        Unusable{"1.5 == /condTest/w.a_F64", "Unknown logical op"},
        Unusable{"NULL < /condTest/w.peer", "Only EQ and NEQ are supported for pointer types"},
        Unusable{"k < /condTest/w.tags", "Collection only supports EQ/NEQ logical ops or len()"}));

}  // namespace
