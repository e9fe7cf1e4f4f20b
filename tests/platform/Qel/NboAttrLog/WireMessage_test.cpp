// The frame codec of agent connections: exact byte layout, every split of a stream, and the
// refusals with their texts; the checks and printable forms of texts that came over the wire.
#include "Qel/NboAttrLog/WireMessage.h"

#include <gtest/gtest.h>

#include "Qel/NboAttrLog/WireText.h"

#include <cctype>
#include <string>
#include <vector>

#include "tests/support/ExactText.h"

namespace Qel::NboAttrLog {
// Failure messages show the messages as text.
void PrintTo(WireMessage const& m, std::ostream* os) {
  *os << wireText(m);
}
}  // namespace Qel::NboAttrLog

namespace {

using namespace Qel::NboAttrLog;
using Result = WireDecoder::Result;
using Messages = std::vector<WireMessage>;

std::string u32(Qel::U32 v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}
// A text field, and equally a frame around a hand-made body: the length, then the bytes.
std::string text(std::string const& s) {
  return u32(static_cast<Qel::U32>(s.size())) + s;
}
std::string byte(unsigned v) {
  return std::string(1, static_cast<char>(v));
}
std::string kind(WireKind k) {
  return byte(static_cast<unsigned>(k));
}

// What a decoder yields: the messages, then the error text when it refused.
struct Decoded {
  Messages messages;
  std::string error;
};
// Appends to `out` what `d` yields from the bytes it holds.
Decoded& drain(WireDecoder& d, Decoded& out) {
  WireMessage m;
  for (Result r; out.error.empty() && (r = d.next(m)) != Result::none;) {
    if (r == Result::error) out.error = d.error();
    if (r == Result::message) out.messages.push_back(m);
  }
  return out;
}
Decoded decodeAll(WireDecoder& d) {
  Decoded out;
  return drain(d, out);
}

// One message of every kind, with boundary values; [0], [2] and [5] have their bytes spelled out
// below.
Messages samples() {
  return {
      WireHello{5, "a", "bc"},
      WireHello{0, "", ""},
      WireMountRequest{258, "/p?flags=w", "T", true},
      WireEntityState{7,
                      "/ledra/Ledra/config",
                      "Qel::Dir",
                      true,
                      {{"mode", "active"}, {"empty", ""}},
                      {"a", "b c", std::string("nul\0byte", 8)}},
      WireMountAnswer{4, "/a/c", false, "no such entity", 0, 0},
      WireMountAnswer{0xfffffffe, "/x", true, "",
                      WireMountAnswer::kMounted | WireMountAnswer::kMonitoring,
                      0x0123456789abcdefULL},
      WireClose{"bye"},
  };
}

TEST(WireMessageTest, FramesCarryABigEndianLengthThenTheKindAndFields) {
  Messages const m = samples();
  EXPECT_EQ(wireFrame(m[6]), std::string("\0\0\0\x08\x05\0\0\0\x03"
                                         "bye",
                                         12));
  EXPECT_EQ(wireFrame(m[0]), text(kind(WireKind::hello) + u32(5) + text("a") + text("bc")));
  EXPECT_EQ(wireFrame(m[2]), text(kind(WireKind::mountRequest) + u32(258) + text("/p?flags=w") +
                                  text("T") + byte(1)));
  EXPECT_EQ(wireFrame(m[5]),
            text(kind(WireKind::mountAnswer) + u32(0xfffffffe) + text("/x") + byte(1) + text("") +
                 byte(0x11) + std::string("\x01\x23\x45\x67\x89\xab\xcd\xef", 8)));
  EXPECT_EQ(wireText(m[4]), "MountAnswer 4 /a/c failed: no such entity");
}

// A stream of one message of every kind, split at every position (and not at all), yields the same
// messages in the same order.
TEST(WireMessageSplitTest, EverySplitOfAStreamYieldsTheSameMessages) {
  Messages const ms = samples();
  std::string bytes;
  for (auto const& m : ms)
    bytes += wireFrame(m);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    WireDecoder d;
    Decoded got;
    d.feed(bytes.substr(0, cut));
    drain(d, got);
    d.feed(bytes.substr(cut));
    ASSERT_EQ(drain(d, got).error, "") << "cut at " << cut;
    ASSERT_EQ(got.messages, ms) << "cut at " << cut;
    EXPECT_EQ(d.buffered(), 0u);
  }
}

TEST(WireMessageSplitTest, ATruncatedStreamSaysWhatIsMissing) {
  std::string const bytes = wireFrame(WireClose{"bye"});  // 8-byte body
  WireDecoder d;
  d.feed(bytes.substr(0, 2));
  EXPECT_EQ(decodeAll(d).messages.size(), 0u);
  EXPECT_EQ(d.truncation(), "truncated frame: 2 of 4 length bytes received");
  d.feed(bytes.substr(2, 5));
  EXPECT_EQ(d.truncation(), "truncated frame: 3 of 8 body bytes received");
}

// The limit applies to the body length and is enforced as soon as the length is known.
TEST(WireFrameLimitTest, AFrameUpToTheLimitPassesOneByteMoreIsRefusedBeforeItsBody) {
  std::string const bye = wireFrame(WireClose{"bye"});  // 8-byte body
  struct {
    std::size_t limit;
    std::string bytes;
    std::string error;
  } const cases[] = {
      {WireDecoder::kDefaultMaxFrame, u32(1048576), ""},
      {WireDecoder::kDefaultMaxFrame, u32(0xffffffff),
       "frame of 4294967295 bytes exceeds the limit of 1048576 bytes"},
      {8, bye, ""},
      {7, bye, "frame of 8 bytes exceeds the limit of 7 bytes"},
  };
  for (auto const& c : cases) {
    WireDecoder d(c.limit);
    d.feed(c.bytes);
    EXPECT_EQ(decodeAll(d).error, c.error) << c.limit;
  }
  WireDecoder d;
  d.maxFrameIs(7);
  d.feed(bye);
  EXPECT_NE(decodeAll(d).error, "");
}

// Bodies that do not parse exactly, with the reason each gives.
struct BadBody {
  char const* what;
  std::string body;
  std::string error;
};

class WireBadBodyTest : public ::testing::TestWithParam<BadBody> {};

TEST_P(WireBadBodyTest, IsRefusedWithItsReasonAndStopsTheStream) {
  BadBody const& b = GetParam();
  WireMessage m;
  Qel::String error;
  EXPECT_FALSE(WireDecoder::decodeBody(b.body, m, error));
  EXPECT_EQ(error, b.error);
  // A good frame before it still comes out; nothing after it does, nor anything fed later.
  std::string const good = wireFrame(WireClose{"first"});
  WireDecoder d;
  d.feed(good + text(b.body) + good);
  Decoded const got = decodeAll(d);
  EXPECT_EQ(got.messages.size(), 1u);
  EXPECT_EQ(got.error, b.error);
  d.feed(good);
  EXPECT_EQ(d.buffered(), 0u);
  EXPECT_EQ(d.next(m), Result::error);
  EXPECT_EQ(d.error(), b.error);
}

std::string const kHello = kind(WireKind::hello);
std::string const kRequest = kind(WireKind::mountRequest);
std::string const kState = kind(WireKind::entityState) + u32(1) + text("/a") + text("T");
std::string const kAnswer = kind(WireKind::mountAnswer) + u32(1) + text("/a");
std::string const kClose = kind(WireKind::close);
std::string const kEid(8, '\0');

INSTANTIATE_TEST_SUITE_P(
    Bodies, WireBadBodyTest,
    ::testing::Values(
        BadBody{"empty", "", "empty frame"},
        BadBody{"kind six", byte(6) + "abc", "unknown message kind 6"},
        BadBody{"short integer", kHello + byte(0) + byte(0),
                "malformed Hello: protocolVersion runs past the end of the frame (2 bytes left, "
                "4 needed)"},
        BadBody{"text longer than the frame", kHello + u32(5) + u32(100) + "abc",
                "malformed Hello: agentName of 100 bytes runs past the end of the frame (3 bytes "
                "left)"},
        BadBody{"trailing bytes", kClose + text("bye") + "xy",
                "malformed Close: 2 bytes after the last field"},
        BadBody{"flag out of range", kRequest + u32(1) + text("/a") + text("") + byte(2),
                "malformed MountRequest: stateFollows must be 0 or 1, not 2"},
        BadBody{"ok out of range", kAnswer + byte(0x80) + text("") + byte(0) + kEid,
                "malformed MountAnswer: ok must be 0 or 1, not 128"},
        BadBody{"unknown path state bits", kAnswer + byte(1) + text("") + byte(0x25) + kEid,
                "malformed MountAnswer: unknown pathState bits 0x20"},
        BadBody{"attribute count too large", kState + byte(0) + u32(0xffffffff) + u32(0),
                "malformed EntityState: 4294967295 attributes cannot fit in the 4 bytes left"},
        BadBody{"entries of a non-directory", kState + byte(0) + u32(0) + u32(1) + text("e"),
                "malformed EntityState: entries on an entity that is not a directory"}),
    [](::testing::TestParamInfo<BadBody> const& info) {
      std::string name;
      for (char c : std::string(info.param.what))
        name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
      return name;
    });

TEST(WireTextTest, FaultsPrintableFormsAndWidths) {
  struct Case {
    std::string text;
    std::string fault;
    std::string printable;
    std::size_t width;
  };
  // clang-format off
  Case const cases[] = {
      {"fan-1 \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "", "fan-1 \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", 9},
      {"a\nb", "holds control character U+000A at byte 1", "a\\x0ab", 6},
      {"\xc2\x9f", "holds control character U+009F at byte 0", "\\u009f", 6},
      {"\xc2\xa0", "", "\xc2\xa0", 1},  // no-break space: shown
      {"x\xe2\x80\xa9", "holds control character U+2029 at byte 1", "x\\u2029", 7},
      {"\xe2\x81\xa6", "holds control character U+2066 at byte 0", "\\u2066", 6},
      {"ab\x80", "is not valid UTF-8 at byte 2 (0x80)", "ab\\x80", 6},
      {"\xed\xa0\x80", "is not valid UTF-8 at byte 0 (0xed)", "\\xed\\xa0\\x80", 12},  // surrogate
      {"\xed\xbf\xbf", "is not valid UTF-8 at byte 0 (0xed)", "\\xed\\xbf\\xbf", 12},  // the last one
      {"\xee\x80\x80", "", "\xee\x80\x80", 1},  // U+E000, right after them
      {"\xe2\x82", "is not valid UTF-8 at byte 0 (0xe2)", "\\xe2\\x82", 8},            // cut off
  };
  // clang-format on
  for (auto const& c : cases) {
    EXPECT_EQ(wireTextFault(c.text), c.fault) << c.printable;
    EXPECT_EQ(printableText(c.text), c.printable);
    EXPECT_EQ(textWidth(printableText(c.text)), c.width) << c.printable;
    // The printable form is always fit to be shown.
    EXPECT_EQ(wireTextFault(printableText(c.text)), "") << c.printable;
  }
}

TEST(WireDecoderDeathTest, AFrameLimitOfZeroIsAContractViolation) {
  EXPECT_DEATH(WireDecoder(0),
               Ledra::test::literal("maxFrame >= 1 && \"a frame limit of at least one byte\""));
  WireDecoder d;
  EXPECT_DEATH(d.maxFrameIs(0),
               Ledra::test::literal("bytes >= 1 && \"a frame limit of at least one byte\""));
}

}  // namespace
