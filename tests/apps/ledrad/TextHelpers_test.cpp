// The lexical layer of the file formats, the condition readers, the control protocol's framing
// and the JSON writer.
#include <gtest/gtest.h>

#include "apps/ledrad/ConditionText.h"
#include "apps/ledrad/ConfigText.h"
#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/FileError.h"
#include "apps/ledrad/Json.h"

namespace Ledrad {
namespace {

TEST(ConfigText, NumbersMeaningfulLinesSplitsWordsAndLeavesOutBadLines) {
  FileProblems problems("f");
  auto const lines = configLines(
      "# comment\n\n  a b\t c  \r\n   # indented comment\nq \"x y\" \"\"\n"
      "e \"\\\"\\\\\\t\\n\"\nbad \"open\n\"x\"y",
      problems);
  EXPECT_THROW(
      try { problems.throwIfAny(); } catch (FileError const& e) {
        EXPECT_STREQ(e.what(), "f:7: unterminated quoted text\nf:8: text after a closing quote");
        throw;
      },
      FileError);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].number, 3);
  ASSERT_EQ(lines[0].size(), 3u);
  EXPECT_EQ(lines[0].rest(1), "b\t c");
  EXPECT_EQ(lines[1].number, 5);
  EXPECT_EQ(lines[1].word(1), "x y");
  EXPECT_EQ(lines[1].word(2), "");
  EXPECT_EQ(lines[2].word(1), "\"\\\t\n");
  // A file with more problems than are kept says how many more there were.
  FileProblems many("m");
  for (int line = 1; line <= int(FileProblems::kMaxProblems) + 2; ++line)
    many.add(line, "bad");
  try {
    many.throwIfAny();
    ADD_FAILURE() << "no FileError";
  } catch (FileError const& e) {
    ASSERT_EQ(e.problems().size(), FileProblems::kMaxProblems + 1);
    EXPECT_EQ(e.texts()[FileProblems::kMaxProblems - 1], "m:100: bad");
    EXPECT_EQ(e.texts().back(), "m: 2 more problems not shown");
  }
}

TEST(ConditionText, SplitsAtBlanksAndDotsOrSaysWhy) {
  std::string const incomplete =
      "' is incomplete (expected CONSTANT OPERATOR [len(] PATH.ATTRIBUTE)";
  // clang-format off
  std::pair<char const*, std::string> const cases[] = {  // "constant|op|len|path|attribute"
      {"2 >= len( /a/b.col)", "2|>=|len|/a/b|col"},
      {"1 == /a.b.c", "1|==||/a|b"},
      {"1.5 == /a.b", "the constant '1.5' holds a dot, which ends a token"},
      {"1 == /a", "condition '1 == /a" + incomplete},
      {"1 == a.b", "the entity path 'a' does not begin with '/'"}};
  // clang-format on
  std::string reason;
  for (auto const& [text, expected] : cases) {
    auto c = ConditionText::parse(text, reason);
    EXPECT_EQ(c ? c->constant + "|" + c->op + "|" + (c->len ? "len" : "") + "|" + c->path + "|" +
                      c->attribute
                : reason,
              expected);
  }
  // Words are separated as the engine separates them: a form feed is no separator.
  EXPECT_FALSE(TemplateConditionText::parse("%a ==\f x", reason));
  EXPECT_EQ(reason, "template condition operator '==\f' is not one of == != in notin");
}

TEST(ControlProtocol, EveryWordArrivesAsGivenAndAReplyReadsBack) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(encodeRequest({"set", "/a", "x y", ""}), "set\t/a\tx y\t\n");
  for (Words const& words : {Words{"", "status"}, Words{"set", "", "", "x"}, Words{"", ""}}) {
    std::string const line = encodeRequest(words);
    EXPECT_EQ(decodeRequest(std::string_view(line).substr(0, line.size() - 1)), words) << line;
  }
  EXPECT_NO_THROW(encodeRequest({std::string(kMaxRequest - 1, 'x')}));
  EXPECT_THROW(encodeRequest({std::string(kMaxRequest, 'x')}), std::invalid_argument);
  EXPECT_THROW(decodeReply("maybe\n"), std::runtime_error);
}

// Whatever bytes an agent put in a name, the document is strict ASCII JSON.
TEST(JsonText, EscapesControlsAndEveryNonAsciiCharacterAndReplacesStrayBytes) {
  Json const doc = {{"text", "a\"b\\c\nd\te\x01"},
                    // C1, a line separator, UTF-8, a stray byte and a cut-off sequence.
                    {"bytes", "\xc2\x9b\xe2\x80\xa8\xc3\xa9\xff\xe2\x82"},
                    {"list", {1, false, nullptr, Json::object()}}};
  EXPECT_EQ(jsonText(doc), R"({
  "text": "a\"b\\c\nd\te\u0001",
  "bytes": "\u009b\u2028\u00e9\ufffd\ufffd",
  "list": [
    1,
    false,
    null,
    {}
  ]
}
)");
}

}  // namespace
}  // namespace Ledrad
