// The state file format: every field, every refusal with its file, line and reason, nothing
// registered or inserted for a refused file, and applying (types, tree, values, watchers told).
#include "apps/ledrad/StateFile.h"

#include <gtest/gtest.h>

#include "Qel/Dir.h"
#include "Qel/DynamicEntity.h"
#include "Qel/QelType.h"
#include "apps/ledrad/FileError.h"
#include "support/LeakCheck.h"

namespace Ledrad {
namespace {

StateFile::Vars const kVars = {{"%sysname", "stateTest"}, {"%cellId", "2"}};

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

TEST_F(StateFileTest, ParsesEveryField) {
  StateFile const sf = StateFile::parse(R"(enum ParseTest::Mode low=1 mid high=7
type ParseTest::Node
  attribute mode ParseTest::Mode
  attribute label string
  collection counts string U32
type ParseTest::Holder
  attribute node ParseTest::Node
dir /%sysname/tree
entity /%sysname/tree/n%cellId ParseTest::Node
  set mode high
  set label "two words"
  put counts "a key" 3
entity /%sysname/holder ParseTest::Holder
  set node /%sysname/tree/n2
)",
                                        "every.state", kVars);
  ASSERT_EQ(sf.enums().size(), 1u);
  EXPECT_EQ(sf.enums()[0].enumerators, (std::vector<std::pair<std::string, std::int64_t>>{
                                           {"low", 1}, {"mid", 2}, {"high", 7}}));
  ASSERT_EQ(sf.types().size(), 2u);
  auto const& node = sf.types()[0];
  EXPECT_EQ(node.name, "ParseTest::Node");
  ASSERT_EQ(node.attributes.size(), 3u);
  EXPECT_EQ(node.attributes[2].name, "counts");
  EXPECT_EQ(node.attributes[2].keyType, "string");
  EXPECT_EQ(node.attributes[2].type, "U32");
  ASSERT_EQ(sf.entities().size(), 3u);
  EXPECT_EQ(sf.entities()[0].path, "/stateTest/tree");
  EXPECT_EQ(sf.entities()[0].type, "");
  auto const& n = sf.entities()[1];
  EXPECT_EQ(n.path, "/stateTest/tree/n2");
  EXPECT_EQ(n.line, 9);
  ASSERT_EQ(n.values.size(), 3u);
  EXPECT_EQ(n.values[1].text, "two words");
  EXPECT_EQ(n.values[2].key, std::optional<std::string>("a key"));
  EXPECT_TRUE(sf.entities()[2].values[0].pointer);
  EXPECT_EQ(sf.entities()[2].values[0].text, "/stateTest/tree/n2");
  // Nothing is registered or inserted by parsing.
  EXPECT_EQ(Qel::QelType::type("ParseTest::Node"), nullptr);
  EXPECT_FALSE(at("/stateTest"));
}

TEST_F(StateFileTest, AppliesTypesTreeAndValues) {
  StateFile const sf = StateFile::parse(R"(enum ApplyTest::Mode low mid high
type ApplyTest::Node
  attribute mode ApplyTest::Mode
  attribute label string
  attribute size U32
  collection counts string U32
type ApplyTest::Holder
  attribute node ApplyTest::Node
entity /%sysname/holder ApplyTest::Holder
  set node /%sysname/tree/n1
dir /%sysname/empty/deep
entity /%sysname/tree/n1 ApplyTest::Node
  set mode mid
  set label ""
  set size 42
  put counts left 3
)",
                                        "apply.state", kVars);
  StateFile::Applied const a = sf.applyTo();
  EXPECT_EQ(a.typesDefined, 3u);
  EXPECT_EQ(a.entitiesCreated, 2u);
  EXPECT_EQ(a.directoriesCreated, 4u);  // stateTest, empty, deep, tree
  EXPECT_EQ(a.valuesWritten, 5u);
  auto const n1 = at("/stateTest/tree/n1");
  ASSERT_TRUE(n1);
  EXPECT_EQ(n1->fwkType()->name(), "ApplyTest::Node");
  EXPECT_EQ(text(n1, "mode"), "mid");
  EXPECT_EQ(text(n1, "label"), "");
  EXPECT_EQ(text(n1, "size"), "42");
  auto const key = Qel::QelType::builtin(Qel::Builtin::string)->valueFromText("left");
  EXPECT_EQ(n1->attribute(n1->attributeId("counts"), key)->text(), "3");
  EXPECT_EQ(text(at("/stateTest/holder"), "node"), "/stateTest/tree/n1");
  EXPECT_TRUE(dynamic_cast<Qel::Dir*>(at("/stateTest/empty/deep").ptr()));
}

class ValueWatcher : public Qel::GenericIf::NotifieeConst {
 public:
  std::vector<std::string> seen;
  void onAttribute(Qel::AttributeId aid, Qel::GenericIf::PtrConst& key) override {
    seen.push_back(std::string(notifier()->attributeName(aid)) +
                   (key ? "[" + key->text() + "]" : ""));
  }
};

TEST_F(StateFileTest, LoadingAgainUpdatesExistingEntitiesAndTellsTheirWatchers) {
  char const* first = R"(type AgainTest::Box
  attribute level U32
  collection tags string bool
entity /%sysname/box AgainTest::Box
  set level 1
)";
  StateFile::parse(first, "first.state", kVars).applyTo();
  auto const box = at("/stateTest/box");
  ValueWatcher watcher;
  watcher.notifierIs(box);
  // The same type again is accepted; the entity is updated in place.
  StateFile const again = StateFile::parse(
      std::string(first) + "  set level 5\n  put tags x true\n", "again.state", kVars);
  EXPECT_TRUE(again.types()[0].registered);
  EXPECT_TRUE(again.entities()[0].exists);
  StateFile::Applied const a = again.applyTo();
  EXPECT_EQ(a.typesDefined, 0u);
  EXPECT_EQ(a.entitiesCreated, 0u);
  EXPECT_EQ(at("/stateTest/box"), box);
  EXPECT_EQ(text(box, "level"), "5");
  // level 1 is stored again (no change, nobody told), then 5, then the tag.
  EXPECT_EQ(watcher.seen, (std::vector<std::string>{"level", "tags[x]"}));
}

TEST_F(StateFileTest, RefusedFileRegistersAndInsertsNothing) {
  try {
    StateFile::parse(R"(enum NothingTest::E a b
type NothingTest::T
  attribute e NothingTest::E
entity /%sysname/t NothingTest::T
  set e c
)",
                     "bad.state", kVars);
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_STREQ(e.what(),
                 "bad.state:5: value of 'e': cannot read \"c\" as NothingTest::E: no such "
                 "enumerator");
  }
  EXPECT_EQ(Qel::QelType::type("NothingTest::E"), nullptr);
  EXPECT_EQ(Qel::QelType::type("NothingTest::T"), nullptr);
  EXPECT_FALSE(at("/stateTest"));
}

TEST_F(StateFileTest, RegisteredTypeWithAnotherSchemaIsRefused) {
  StateFile::parse("enum SchemaTest::E a b\ntype SchemaTest::T\n  attribute x U32\n", "one", kVars)
      .applyTo();
  auto refusal = [](char const* text) {
    try {
      StateFile::parse(text, "two", kVars);
      return std::string("accepted");
    } catch (FileError const& e) {
      return std::string(e.what());
    }
  };
  EXPECT_EQ(refusal("enum SchemaTest::E a b c\n"),
            "two:1: type 'SchemaTest::E' is already defined differently");
  EXPECT_EQ(refusal("type SchemaTest::T\n  attribute x U64\n"),
            "two:1: type 'SchemaTest::T' is already defined differently");
  EXPECT_EQ(refusal("type SchemaTest::T\n  attribute x U32\n  attribute y U32\n"),
            "two:1: type 'SchemaTest::T' is already defined differently");
  EXPECT_EQ(refusal("type SchemaTest::T\n  attribute x U32\n"), "accepted");
}

TEST_F(StateFileTest, ExistingEntityOfAnotherTypeIsRefused) {
  StateFile::parse("type OtherTest::A\ntype OtherTest::B\nentity /%sysname/x OtherTest::A\n", "one",
                   kVars)
      .applyTo();
  try {
    StateFile::parse("entity /%sysname/x OtherTest::B\n", "two", kVars);
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_STREQ(e.what(), "two:1: an entity of type OtherTest::A already stands at /stateTest/x");
  }
  try {
    StateFile::parse("dir /%sysname/x/y\n", "three", kVars);
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_STREQ(e.what(), "three:1: '/stateTest/x' is not a directory");
  }
}

struct Refusal {
  char const* text;
  char const* error;
};

class StateFileRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(StateFileRefusal, NamesFileLineAndReason) {
  try {
    StateFile::parse(GetParam().text, "bad.state", kVars);
    FAIL() << "accepted";
  } catch (FileError const& e) {
    EXPECT_STREQ(e.what(), GetParam().error);
  }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Lines, StateFileRefusal, ::testing::Values(
  Refusal{"enity /a U32\n", "bad.state:1: unknown keyword 'enity'"},
  Refusal{"attribute x U32\n", "bad.state:1: 'attribute' outside a type"},
  Refusal{"set x 1\n", "bad.state:1: 'set' outside an entity"},
  Refusal{"dir /stateTest/d\nset x 1\n", "bad.state:2: 'set' outside an entity"},
  Refusal{"enum R::E\n", "bad.state:1: expected: enum NAME ENUMERATOR[=VALUE]..."},
  Refusal{"enum R::E a=x\n", "bad.state:1: enumerator value in 'a=x' is not a whole number"},
  Refusal{"enum R::E a =1\n", "bad.state:1: an enumerator of R::E has no name"},
  Refusal{"enum R::E a a\n", "bad.state:1: enumerator 'a' is given twice"},
  Refusal{"enum R::E a\nenum R::E b\n", "bad.state:2: type 'R::E' is defined twice"},
  Refusal{"type R::T\ntype R::T\n", "bad.state:2: type 'R::T' is defined twice"},
  Refusal{"type R::T x\n", "bad.state:1: expected: type NAME"},
  Refusal{"type R::T\n  attribute x\n", "bad.state:2: expected: attribute NAME TYPE"},
  Refusal{"type R::T\n  collection x U32\n", "bad.state:2: expected: collection NAME KEYTYPE TYPE"},
  Refusal{"type R::T\n  attribute x R::Nope\n", "bad.state:2: unknown type 'R::Nope'"},
  Refusal{"type R::T\n  attribute x R::T\n", "bad.state:2: type 'R::T' cannot refer to itself"},
  Refusal{"type R::T\n  attribute name string\n", "bad.state:2: the attribute 'name' is every entity's own"},
  Refusal{"type R::T\n  attribute x U32\n  attribute x U32\n", "bad.state:3: attribute 'x' is defined twice"},
  Refusal{"type R::T\n  attribute m Ledra::Mount\n",
          "bad.state:2: type 'Ledra::Mount' has no text form; use a builtin, enum or entity type"},
  Refusal{"type R::T\ntype R::U\n  collection x R::T U32\n",
          "bad.state:3: a collection key must be a builtin or enum type, not 'R::T'"},
  Refusal{"entity /x R::Nope\n", "bad.state:1: unknown type 'R::Nope'"},
  Refusal{"entity /x U32\n", "bad.state:1: type 'U32' is no entity type that can be created"},
  Refusal{"entity x Qel::Dir\n", "bad.state:1: path 'x' does not begin with '/'"},
  Refusal{"dir /\n", "bad.state:1: path '/' is the root itself"},
  Refusal{"dir /a//b\n", "bad.state:1: path '/a//b' has an empty component"},
  Refusal{"dir /%nope/b\n", "bad.state:1: unknown template key '%nope' in '/%nope/b'"},
  Refusal{"dir /a\ndir /a/b c\n", "bad.state:2: expected: dir PATH"},
  Refusal{"type R::T\nentity /stateTest/t R::T\nentity /stateTest/t R::T\n",
          "bad.state:3: '/stateTest/t' is already defined at line 2"},
  Refusal{"type R::T\nentity /stateTest/t R::T\ndir /stateTest/t/u\n",
          "bad.state:3: '/stateTest/t' is not a directory"},
  Refusal{"type R::T\nentity /stateTest/t R::T\n  set x 1\n", "bad.state:3: type R::T has no attribute 'x'"},
  Refusal{"type R::T\n  attribute x U32\nentity /stateTest/t R::T\n  set x\n",
          "bad.state:4: expected: set ATTRIBUTE VALUE"},
  Refusal{"type R::T\n  attribute x U32\nentity /stateTest/t R::T\n  set x -1\n",
          "bad.state:4: value of 'x': cannot read \"-1\" as U32: not a number"},
  Refusal{"type R::T\n  attribute x bool\nentity /stateTest/t R::T\n  set x yes\n",
          "bad.state:4: value of 'x': cannot read \"yes\" as bool: expected true or false"},
  Refusal{"type R::T\n  collection x string U32\nentity /stateTest/t R::T\n  set x 1\n",
          "bad.state:4: 'x' is a collection: use put"},
  Refusal{"type R::T\n  attribute x U32\nentity /stateTest/t R::T\n  put x k 1\n",
          "bad.state:4: 'x' is no collection: use set"},
  Refusal{"type R::T\n  collection x U8 U32\nentity /stateTest/t R::T\n  put x 300 1\n",
          "bad.state:4: key of 'x': cannot read \"300\" as U8: out of range"},
  Refusal{"type R::T\n  attribute p Qel::Dir\nentity /stateTest/t R::T\n  set p /stateTest/nowhere\n",
          "bad.state:4: no entity at /stateTest/nowhere (neither in the database nor in this file)"}));
// clang-format on

}  // namespace
}  // namespace Ledrad
