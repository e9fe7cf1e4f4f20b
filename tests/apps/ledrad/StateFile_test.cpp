// The state file format: every field, every refusal with its file, line and reason, nothing
// registered or inserted for a refused file, and applying (types, tree, values).
#include "apps/ledrad/StateFile.h"

#include <gtest/gtest.h>

#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "Qel/Reflection/QelType.h"
#include "apps/ledrad/FileError.h"
#include "tests/support/LeakCheck.h"

namespace Ledrad {
namespace {

StateFile::Vars const kVars = {{"%sysname", "stateTest"}, {"%cellId", "2"}};

// "accepted", or the text of the FileError that parsing `text` raises.
std::string refusal(std::string const& text, std::string const& file = "bad.state") {
  try {
    StateFile::parse(text, file, kVars);
    return "accepted";
  } catch (FileError const& e) {
    return e.what();
  }
}

class StateFileTest : public Ledra::test::LeakCheckedTest {
 protected:
  void TearDown() override {
    Qel::globalDir()->entryDel("stateTest");
    LeakCheckedTest::TearDown();
  }
  static Qel::Entity::Ptr at(std::string const& path) { return Qel::globalDir()->entity(path); }
  static std::string text(Qel::Entity::Ptr const& e, char const* attribute) {
    auto v = e->attribute(e->attributeId(attribute));
    return v ? std::string(v->text()) : "null";
  }
};

TEST_F(StateFileTest, ParsesThenAppliesTypesTreeAndValues) {
  StateFile const sf = StateFile::parse(R"(enum ApplyTest::Mode low mid high=7
enum ApplyTest::Wide low=-9223372036854775808 next high=+9223372036854775807
type ApplyTest::Node
  attribute mode ApplyTest::Mode
  attribute label string
  attribute size U32
  collection counts string U32
type ApplyTest::Holder
  attribute node ApplyTest::Node
  attribute any Qel::Entity
entity /%sysname/holder ApplyTest::Holder
  set node /%sysname/tree/n%cellId
  set any /%sysname/empty/deep
dir /%sysname/empty/deep
entity /%sysname/tree/n%cellId ApplyTest::Node
  set mode high
  set label "two words"
  set size 42
  put counts "a key" 3
)",
                                        "apply.state", kVars);
  EXPECT_EQ(sf.enums()[0].enumerators, (std::vector<std::pair<std::string, std::int64_t>>{
                                           {"low", 0}, {"mid", 1}, {"high", 7}}));
  EXPECT_EQ(sf.enums()[1].enumerators,
            (std::vector<std::pair<std::string, std::int64_t>>{
                {"low", INT64_MIN}, {"next", INT64_MIN + 1}, {"high", INT64_MAX}}));
  EXPECT_EQ(sf.entities()[2].line, 15);
  // Nothing is registered or inserted by parsing.
  EXPECT_EQ(Qel::QelType::type("ApplyTest::Node"), nullptr);
  EXPECT_FALSE(at("/stateTest"));

  StateFile::Applied const a = sf.applyTo();
  EXPECT_EQ(a.typesDefined, 4u);
  EXPECT_EQ(a.entitiesCreated, 2u);
  EXPECT_EQ(a.directoriesCreated, 4u);  // stateTest, empty, deep, tree
  EXPECT_EQ(a.valuesWritten, 6u);
  auto const n2 = at("/stateTest/tree/n2");
  ASSERT_TRUE(n2);
  EXPECT_EQ(text(n2, "mode") + "|" + text(n2, "label") + "|" + text(n2, "size"),
            "high|two words|42");
  auto const key = Qel::QelType::builtin(Qel::Builtin::string)->valueFromText("a key");
  EXPECT_EQ(n2->attribute(n2->attributeId("counts"), key)->text(), "3");
  auto const holder = at("/stateTest/holder");
  EXPECT_EQ(text(holder, "node") + " " + text(holder, "any"),
            "/stateTest/tree/n2 /stateTest/empty/deep");
  EXPECT_TRUE(dynamic_cast<Qel::Dir*>(at("/stateTest/empty/deep").ptr()));
}

TEST_F(StateFileTest, AnEntityRightBelowTheRootStandsThere) {
  StateFile::parse("type TopTest::Leaf\n  attribute size U32\nentity /stateTest TopTest::Leaf\n",
                   "top.state", kVars)
      .applyTo();
  auto const leaf = at("/stateTest");
  ASSERT_TRUE(leaf);
  EXPECT_EQ(leaf->fwkType()->name(), "TopTest::Leaf");
  EXPECT_FALSE(Qel::globalDir()->entry(Qel::Name())) << "no directory without a name";
}

TEST_F(StateFileTest, WhatIsRegisteredOrInTheTreeMustMatchARefusedFileChangesNothing) {
  StateFile::parse(
      "enum SchemaTest::E a b\ntype SchemaTest::T\n  attribute x U32\n"
      "type OtherTest::A\ntype OtherTest::B\nentity /%sysname/x OtherTest::A\n",
      "one", kVars)
      .applyTo();
  EXPECT_EQ(refusal("enum SchemaTest::E a b c\n", "two"),
            "two:1: type 'SchemaTest::E' is already defined differently");
  EXPECT_EQ(refusal("type SchemaTest::T\n  attribute x U64\n", "two"),
            "two:1: type 'SchemaTest::T' is already defined differently");
  EXPECT_EQ(refusal("type SchemaTest::T\n  attribute x U32\n  attribute y U32\n", "two"),
            "two:1: type 'SchemaTest::T' is already defined differently");
  EXPECT_EQ(refusal("type SchemaTest::T\n  attribute x U32\n", "two"), "accepted");
  EXPECT_EQ(refusal("entity /%sysname/x OtherTest::B\n", "two"),
            "two:1: an entity of type OtherTest::A already stands at /stateTest/x");
  EXPECT_EQ(refusal("dir /%sysname/x/y\n", "two"), "two:1: '/stateTest/x' is not a directory");
  EXPECT_EQ(refusal("enum NothingTest::E a b\ntype NothingTest::T\n  attribute e NothingTest::E\n"
                    "entity /%sysname/t NothingTest::T\n  set e c\n"),
            "bad.state:5: value of 'e': cannot read \"c\" as NothingTest::E: no such enumerator");
  EXPECT_EQ(Qel::QelType::type("NothingTest::E"), nullptr);
  EXPECT_FALSE(at("/stateTest/t"));
}

struct Refusal {
  char const* text;
  int line;
  char const* reason;
};

class StateFileRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(StateFileRefusal, NamesFileLineAndReason) {
  EXPECT_EQ(refusal(GetParam().text),
            "bad.state:" + std::to_string(GetParam().line) + ": " + GetParam().reason);
}

// Every bad line is told once; the lines of a refused type or entity line, and the entities of
// a refused type, are passed over.
TEST(StateFileParse, TellsEveryProblemOnceAndPassesOverWhatARefusedLineHolds) {
  EXPECT_EQ(refusal("type Many::1Bad\n"
                    "  attribute x U32\n"
                    "entity /stateTest/m1 Many::1Bad\n"
                    "  set x 1\n"
                    "type Many::T\n"
                    "  attribute x U32\n"
                    "  attribute y Nope\n"
                    "entity /stateTest/m2 Many::T\n"
                    "  set x many\n"
                    "  set y 1\n"
                    "entity /stateTest/m3 Nope::T\n"
                    "  set x 1\n"
                    "bogus\n"
                    "entity /stateTest/m4 Many::T\n"
                    "  set p /stateTest/none\n"),
            "bad.state:1: type name 'Many::1Bad' must be identifiers (a letter or '_' followed by "
            "letters, digits or '_') joined by '::'\n"
            "bad.state:7: unknown type 'Nope'\n"
            "bad.state:9: value of 'x': cannot read \"many\" as U32: not a number\n"
            "bad.state:10: type Many::T has no attribute 'y'\n"
            "bad.state:11: unknown type 'Nope::T'\n"
            "bad.state:13: unknown keyword 'bogus'\n"
            "bad.state:15: type Many::T has no attribute 'p'");
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Lines, StateFileRefusal, ::testing::Values(
  Refusal{"dir /stateTest/d\nset x 1\n", 2, "'set' outside an entity"},
  Refusal{"enum R::E a=9223372036854775807 b\n", 1, "enumerator 'b' has no value after 9223372036854775807, the largest one; give it one"},
  Refusal{"enum R::E a=9223372036854775808\n", 1, "enumerator value in 'a=9223372036854775808' is out of range (-9223372036854775808 to 9223372036854775807)"},
  Refusal{"type R::T\n  attribute a.b U32\n", 2, "attribute name 'a.b' must be a letter or '_' followed by letters, digits or '_'"},
  Refusal{"enum R::E a a\n", 1, "enumerator 'a' is given twice"},
  Refusal{"enum R::E a\ntype R::E\n", 2, "type 'R::E' is defined twice"},
  Refusal{"type R::T\n  attribute x R::T\n", 2, "type 'R::T' cannot refer to itself"},
  Refusal{"type R::T\n  attribute name string\n", 2, "the attribute 'name' is every entity's own"},
  Refusal{"type R::T\n  attribute m Ledra::Mount\n", 2, "type 'Ledra::Mount' has no text form; use a builtin, enum or entity type"},
  Refusal{"type R::T\ntype R::U\n  collection x R::T U32\n", 3, "a collection key must be a builtin or enum type, not 'R::T'"},
  Refusal{"entity /x U32\n", 1, "type 'U32' is no entity type that can be created"},
  Refusal{"dir /\n", 1, "path '/' is the root itself"},
  Refusal{"dir /a//b\n", 1, "path '/a//b' has an empty component"},
  Refusal{"dir /%nope/b\n", 1, "unknown template key '%nope' in '/%nope/b'"},
  Refusal{"type R::T\nentity /stateTest/t R::T\nentity /stateTest/t R::T\n", 3, "'/stateTest/t' is already defined at line 2"},
  Refusal{"type R::T\n  collection x string U32\nentity /stateTest/t R::T\n  set x 1\n", 4, "'x' is a collection: use put"},
  Refusal{"type R::T\n  collection x U8 U32\nentity /stateTest/t R::T\n  put x 300 1\n", 4, "key of 'x': cannot read \"300\" as U8: out of range"},
  Refusal{"type R::T\n  attribute p Qel::Dir\nentity /stateTest/t R::T\n  set p /stateTest/nowhere\n", 4,
          "no entity at /stateTest/nowhere (neither in the database nor in this file)"},
  Refusal{"type R::T\ntype R::U\n  attribute p R::T\nentity /stateTest/u R::U\n  set p /stateTest/v\nentity /stateTest/v R::U\n", 5,
          "value of 'p': the entity at /stateTest/v is a R::U, not a R::T"}));
// clang-format on

}  // namespace
}  // namespace Ledrad
