// Entity types defined at run time: every builtin type, enums, pointers and collections, read and
// written through the generic view, with the same notification rules as compiled types.
#include "Qel/Reflection/DynamicEntity.h"

#include <gtest/gtest.h>

#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/GenericValue.h"
#include "Qel/Reflection/ValueTraits.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeakCheck.h"

namespace {

using Qel::AttributeId;
using Qel::GenericIf;

// One attribute of every builtin type, then an enum, a pointer and three collections.
Qel::QelType const* everythingType() {
  static Qel::QelType const* t = [] {
    Qel::defineEnum("test::Colour", {{"red", 0}, {"green", 1}, {"blue", 7}});
    std::vector<Qel::AttributeSchema> attrs;
    for (char const* b :
         {"bool", "U8", "S8", "U16", "S16", "U32", "S32", "U64", "S64", "F32", "F64", "char",
          "char*", "const char*", "long", "double", "string", "name"}) {
      attrs.push_back({Qel::Name(std::string("a_") + b), b});
    }
    attrs.push_back({"colour", "test::Colour"});
    attrs.push_back({"peer", "Qel::Entity"});
    attrs.push_back({"tags", "bool", "string"});
    attrs.push_back({"byColour", "U32", "test::Colour"});
    attrs.push_back({"children", "Qel::Entity", "name"});
    return Qel::defineType("test::Everything", attrs);
  }();
  return t;
}

class DynamicEntityTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    entity_ = Qel::DynamicEntity::entityNew(everythingType(), "e");
  }
  void TearDown() override {
    entity_.reset();
    LeakCheckedTest::TearDown();
  }
  AttributeId aid(char const* name) const { return entity_->attributeId(name); }
  GenericIf::PtrConst read(char const* name) const { return entity_->attribute(aid(name)); }

  Qel::DynamicEntity::Ptr entity_;
};

// Each type says why a text does not read as one of its values.
TEST_F(DynamicEntityTest, BadTextIsRefusedWithItsReasonAndChangesNothing) {
  entity_->attributeIs("a_U8", Qel::String("7"));
  struct Bad {
    char const* attr;
    char const* text;
    char const* why;
  };
  for (auto [attr, text, why] :
       {Bad{"a_U8", "256", "cannot read \"256\" as U8: out of range"},
        Bad{"a_U8", "-1", "cannot read \"-1\" as U8: out of range"},
        Bad{"a_U32", "-", "cannot read \"-\" as U32: not a number"},
        Bad{"a_S32", "12x", "cannot read \"12x\" as S32: not a number"},
        Bad{"a_F64", "", "cannot read \"\" as F64: not a number"},
        Bad{"a_bool", "yes", "cannot read \"yes\" as bool: expected true or false"},
        Bad{"a_char", "ab", "cannot read \"ab\" as char: expected one character"},
        Bad{"a_char*", "0x1",
            "cannot read \"0x1\" as char*: only a null pointer can be written as text"},
        Bad{"colour", "purple", "cannot read \"purple\" as test::Colour: no such enumerator"}}) {
    EXPECT_THROW_TEXT(entity_->attributeIs(attr, Qel::String(text)), Qel::ParseException, why);
  }
  EXPECT_EQ(read("a_U8")->valueAs<Qel::U8>(), 7);
  // Zero is zero whatever its sign.
  entity_->attributeIs("a_U8", Qel::String("-0"));
  EXPECT_EQ(read("a_U8")->valueAs<Qel::U8>(), 0);
  EXPECT_THROW(entity_->attributeIs("nosuch", Qel::String("1")), Qel::TypeException);
}

TEST_F(DynamicEntityTest, TypesAreCreatedByNameAndABadSchemaRegistersNothing) {
  auto made = Qel::QelType::typeOrThrow("test::Everything").newEntity("byname");
  EXPECT_EQ(made->fwkType(), everythingType());

  EXPECT_THROW(Qel::defineType("test::Bad", {{"x", "U32"}, {"y", "NoSuchType"}}),
               Qel::TypeException);
  EXPECT_EQ(Qel::QelType::type("test::Bad"), nullptr);
  EXPECT_THROW(Qel::defineType("test::Bad", {{"x", "U32"}, {"x", "S32"}}), Qel::NameInUseException);
  EXPECT_EQ(Qel::QelType::type("test::Bad"), nullptr);
  EXPECT_THROW(Qel::defineType("test::Bad", {{"x", "U32", "Qel::Dir"}}), Qel::TypeException);
  EXPECT_THROW(Qel::defineType("test::Everything", {}), Qel::NameInUseException);
  // Names registered for the life of the process are never empty.
  EXPECT_THROW(Qel::defineType("", {}), Qel::RangeException);
  EXPECT_THROW(Qel::defineEnum("", {{"a", 0}}), Qel::RangeException);
  EXPECT_THROW(Qel::defineType("test::Bad", {{"", "U32"}}), Qel::RangeException);
  EXPECT_THROW(Qel::defineEnum("test::Bad", {{"a", 0}, {"", 1}}), Qel::RangeException);
  EXPECT_EQ(Qel::QelType::type("test::Bad"), nullptr);
}

}  // namespace
