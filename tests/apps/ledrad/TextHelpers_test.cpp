// The lexical layer of the file formats, the condition readers and the JSON writer.
#include <gtest/gtest.h>

#include "apps/ledrad/ConditionText.h"
#include "apps/ledrad/ConfigText.h"
#include "apps/ledrad/FileError.h"
#include "apps/ledrad/JsonWriter.h"

namespace Ledrad {
namespace {

TEST(ConfigText, NumbersMeaningfulLinesAndSplitsWords) {
  auto const lines = configLines(
      "# comment\n\n  a b\t c  \n   # indented comment\nq \"x y\" \"\"\n"
      "e \"\\\"\\\\\\t\\n\"",
      "f");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].number, 3);
  ASSERT_EQ(lines[0].size(), 3u);
  EXPECT_EQ(lines[0].word(2), "c");
  EXPECT_EQ(lines[0].rest(1), "b\t c");
  EXPECT_EQ(lines[0].rest(3), "");
  EXPECT_EQ(lines[1].number, 5);
  EXPECT_EQ(lines[1].word(1), "x y");
  EXPECT_TRUE(lines[1].words[1].quoted);
  EXPECT_EQ(lines[1].word(2), "");
  EXPECT_EQ(lines[2].number, 6);
  EXPECT_EQ(lines[2].word(1), "\"\\\t\n");
}

TEST(ConfigText, ParsesBooleansOnly) {
  bool v = false;
  EXPECT_TRUE(parseBool("true", v));
  EXPECT_TRUE(v);
  EXPECT_TRUE(parseBool("false", v));
  EXPECT_FALSE(v);
  EXPECT_FALSE(parseBool("True", v));
  EXPECT_FALSE(parseBool("1", v));
}

TEST(FileErrorText, WithAndWithoutLine) {
  EXPECT_STREQ(FileError("a.profile", 3, "why").what(), "a.profile:3: why");
  EXPECT_STREQ(FileError("a.profile", 0, "why").what(), "a.profile: why");
}

struct ConditionCase {
  char const* text;
  char const* parts;  // "constant|op|len|path|attribute", or the reason
};

class ConditionTextCase : public ::testing::TestWithParam<ConditionCase> {};

TEST_P(ConditionTextCase, SplitsAtBlanksAndDots) {
  std::string reason;
  auto c = ConditionText::parse(GetParam().text, reason);
  std::string const got = c ? c->constant + "|" + c->op + "|" + (c->len ? "len" : "") + "|" +
                                  c->path + "|" + c->attribute
                            : reason;
  EXPECT_EQ(got, GetParam().parts);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Texts, ConditionTextCase, ::testing::Values(
  ConditionCase{"1 == /a/b.c", "1|==||/a/b|c"},
  ConditionCase{"on notin /a.c", "on|notin||/a|c"},
  ConditionCase{"2 >= len( /a/b.col )", "2|>=|len|/a/b|col"},
  ConditionCase{"x  in   /a.b  trailing", "x|in||/a|b"},
  ConditionCase{"1 == /a.b.c", "1|==||/a|b"},
  ConditionCase{"1.5 == /a.b", "the constant '1.5' holds a dot, which ends a token"},
  ConditionCase{"1 ~ /a.b", "unknown operator '~' (one of == != <= >= < > in notin)"},
  ConditionCase{"1", "condition '1' is incomplete (expected CONSTANT OPERATOR [len(] PATH.ATTRIBUTE)"},
  ConditionCase{"1 == a.b", "the entity path 'a' does not begin with '/'"}));
// clang-format on

TEST(TemplateConditionText, ThreeWordsAndEqualityOnly) {
  std::string reason;
  auto t = TemplateConditionText::parse("%a != NULL", reason);
  ASSERT_TRUE(t);
  EXPECT_EQ(t->templ, "%a");
  EXPECT_EQ(t->op, "!=");
  EXPECT_EQ(t->value, "NULL");
  EXPECT_TRUE(TemplateConditionText::parse("%a in x", reason));
  EXPECT_FALSE(TemplateConditionText::parse("%a >= x", reason));
  EXPECT_EQ(reason, "template condition operator '>=' is not one of == != in notin");
  EXPECT_FALSE(TemplateConditionText::parse("%a == x y", reason));
}

TEST(JsonWriter, NestsAndEscapes) {
  JsonWriter j;
  j.beginObject();
  j.key("text").value("a\"b\\c\nd\te\x01");
  j.key("list").beginArray().value(1).value(false).valueNull().beginObject().endObject().endArray();
  j.key("empty").beginArray().endArray();
  j.key("big").value(18446744073709551615ull);
  j.key("neg").value(-5);
  j.endObject();
  EXPECT_EQ(j.text(), R"({
  "text": "a\"b\\c\nd\te\u0001",
  "list": [
    1,
    false,
    null,
    {}
  ],
  "empty": [],
  "big": 18446744073709551615,
  "neg": -5
}
)");
  JsonWriter scalar;
  scalar.value("x");
  EXPECT_EQ(scalar.text(), "\"x\"\n");
}

TEST(JsonWriterDeathTest, MisuseIsAContractViolation) {
  EXPECT_DEATH(
      {
        JsonWriter j;
        j.beginObject().value(1);
      },
      "a member of a JSON object needs a key");
  EXPECT_DEATH(
      {
        JsonWriter j;
        j.beginArray().endObject();
      },
      "unbalanced JSON structure");
  EXPECT_DEATH(
      {
        JsonWriter j;
        j.beginArray().key("k");
      },
      "a JSON key belongs in an object");
  EXPECT_DEATH(
      {
        JsonWriter j;
        j.value(1).value(2);
      },
      "a JSON document holds one value");
}

}  // namespace
}  // namespace Ledrad
