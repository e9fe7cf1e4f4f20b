// The frame codec of agent connections: exact byte layout, round trips of every message kind,
// every split of a stream, and the refusals (truncated, oversized, unknown kind, bad fields).
#include "Qel/NboAttrLog/WireMessage.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

namespace Qel::NboAttrLog {
// Failure messages show the messages as text.
void PrintTo(WireMessage const& m, std::ostream* os) {
  *os << wireText(m);
}
}  // namespace Qel::NboAttrLog

namespace {

using namespace Qel::NboAttrLog;
using Result = WireDecoder::Result;

std::string regexLiteral(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string u32(Qel::U32 v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}
std::string text(std::string const& s) {
  return u32(static_cast<Qel::U32>(s.size())) + s;
}
// A frame around a hand-made body.
std::string frame(std::string const& body) {
  return u32(static_cast<Qel::U32>(body.size())) + body;
}
std::string kind(WireKind k) {
  return std::string(1, static_cast<char>(k));
}
std::string byte(unsigned v) {
  return std::string(1, static_cast<char>(v));
}

// Everything the decoder yields for `bytes` fed in one piece: the messages, then the error text
// when it refused.
struct Decoded {
  std::vector<WireMessage> messages;
  std::string error;
};
Decoded decodeAll(WireDecoder& d) {
  Decoded out;
  WireMessage m;
  for (;;) {
    Result const r = d.next(m);
    if (r == Result::none) return out;
    if (r == Result::error) {
      out.error = d.error();
      return out;
    }
    out.messages.push_back(m);
  }
}
Decoded decode(std::string const& bytes, std::size_t maxFrame = WireDecoder::kDefaultMaxFrame) {
  WireDecoder d(maxFrame);
  d.feed(bytes);
  return decodeAll(d);
}

WireEntityState directoryState() {
  WireEntityState s;
  s.seqno = 7;
  s.path = "/ledra/Ledra/config";
  s.typeName = "Qel::Dir";
  s.directory = true;
  s.attributes = {{"mode", "active"}, {"empty", ""}};
  s.entries = {"a", "b c", std::string("nul\0byte", 8)};
  return s;
}

WireMountAnswer monitoringAnswer() {
  WireMountAnswer a;
  a.seqno = 0xfffffffe;
  a.path = "/x";
  a.pathState = WireMountAnswer::kMounted | WireMountAnswer::kMonitoring;
  a.monitoringEid = 0x0123456789abcdefULL;
  return a;
}

// One message of every kind, with boundary values.
std::vector<WireMessage> samples() {
  return {
      WireHello{5, "agent-1", "agent-1-slot-3"},
      WireHello{0, "", ""},
      WireMountRequest{1, "/a/b?flags=Cnp", "Ledra::Thing", true},
      WireMountRequest{0xffffffff, "/", "", false},
      directoryState(),
      WireEntityState{2, "/leaf", "T", false, {{"x", "1"}}, {}},
      WireMountAnswer{3, "/a/b", true, "", WireMountAnswer::kDefaultPathState, 0},
      WireMountAnswer{4, "/a/c", false, "no such entity", 0, 0},
      monitoringAnswer(),
      WireClose{"no agent profile"},
      WireClose{""},
  };
}

std::string stream(std::vector<WireMessage> const& ms) {
  std::string s;
  for (auto const& m : ms)
    s += wireFrame(m);
  return s;
}

TEST(WireMessageTest, FramesCarryABigEndianLengthThenTheKindAndFields) {
  EXPECT_EQ(wireFrame(WireClose{"bye"}), std::string("\0\0\0\x08\x05\0\0\0\x03"
                                                     "bye",
                                                     12));
  EXPECT_EQ(wireFrame(WireHello{5, "a", "bc"}),
            frame(kind(WireKind::hello) + u32(5) + text("a") + text("bc")));
  EXPECT_EQ(wireFrame(WireMountRequest{258, "/p?flags=w", "T", true}),
            frame(kind(WireKind::mountRequest) + u32(258) + text("/p?flags=w") + text("T") +
                  std::string(1, '\1')));
  EXPECT_EQ(wireFrame(monitoringAnswer()),
            frame(kind(WireKind::mountAnswer) + u32(0xfffffffe) + text("/x") +
                  std::string(1, '\1') + text("") + std::string(1, '\x11') +
                  std::string("\x01\x23\x45\x67\x89\xab\xcd\xef", 8)));
}

TEST(WireMessageTest, EveryKindRoundTrips) {
  for (WireMessage const& m : samples()) {
    Decoded const d = decode(wireFrame(m));
    ASSERT_EQ(d.error, "") << wireText(m);
    ASSERT_EQ(d.messages.size(), 1u) << wireText(m);
    EXPECT_EQ(d.messages[0], m) << wireText(m);
    EXPECT_EQ(wireKind(d.messages[0]), wireKind(m));
  }
}

TEST(WireMessageTest, KindsHaveTheirNames) {
  EXPECT_STREQ(wireKindName(WireKind::hello), "Hello");
  EXPECT_STREQ(wireKindName(WireKind::mountRequest), "MountRequest");
  EXPECT_STREQ(wireKindName(WireKind::entityState), "EntityState");
  EXPECT_STREQ(wireKindName(WireKind::mountAnswer), "MountAnswer");
  EXPECT_STREQ(wireKindName(WireKind::close), "Close");
  EXPECT_EQ(wireText(WireMountAnswer{3, "/a", false, "boom", 0, 0}),
            "MountAnswer 3 /a failed: boom");
}

TEST(WireMessageTest, PathStateBitsMapOntoThePeerTableState) {
  Qel::MountTable::PathState s;
  s.mountedIs(true).synchronisedIs(true).monitoringIs(true).monitoringEidIs(42);
  WireMountAnswer a;
  a.pathState = WireMountAnswer::pathStateBits(s);
  a.monitoringEid = 42;
  EXPECT_EQ(a.pathState, WireMountAnswer::kMounted | WireMountAnswer::kSynchronised |
                             WireMountAnswer::kMonitoring);
  EXPECT_EQ(a.pathStateValue(), s);
  EXPECT_EQ(WireMountAnswer().pathStateValue().text(), "mounted complete synchronised mountPoint");
}

// A stream of several frames split at every position, and fed byte by byte, yields the same
// messages in the same order.
TEST(WireMessageSplitTest, EverySplitOfAStreamYieldsTheSameMessages) {
  std::vector<WireMessage> const ms = samples();
  std::string const bytes = stream(ms);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    WireDecoder d;
    d.feed(bytes.substr(0, cut));
    Decoded first = decodeAll(d);
    d.feed(bytes.substr(cut));
    Decoded second = decodeAll(d);
    ASSERT_EQ(first.error + second.error, "") << "cut at " << cut;
    first.messages.insert(first.messages.end(), second.messages.begin(), second.messages.end());
    ASSERT_EQ(first.messages, ms) << "cut at " << cut;
    EXPECT_EQ(d.buffered(), 0u);
  }
  WireDecoder d;
  std::vector<WireMessage> got;
  for (char c : bytes) {
    d.feed(std::string_view(&c, 1));
    Decoded part = decodeAll(d);
    ASSERT_EQ(part.error, "");
    got.insert(got.end(), part.messages.begin(), part.messages.end());
  }
  EXPECT_EQ(got, ms);
}

TEST(WireMessageSplitTest, AMessageAppearsOnlyWithItsLastByte) {
  std::string const bytes = wireFrame(directoryState());
  WireDecoder d;
  WireMessage m;
  for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
    d.feed(bytes.substr(i, 1));
    ASSERT_EQ(d.next(m), Result::none) << "after " << i + 1 << " bytes";
    EXPECT_TRUE(d.midFrame());
  }
  d.feed(bytes.substr(bytes.size() - 1));
  ASSERT_EQ(d.next(m), Result::message);
  EXPECT_EQ(m, WireMessage(directoryState()));
  EXPECT_FALSE(d.midFrame());
  EXPECT_EQ(d.truncation(), "");
}

TEST(WireMessageSplitTest, ATruncatedStreamSaysWhatIsMissing) {
  std::string const bytes = wireFrame(WireClose{"bye"});  // 8-byte body
  WireDecoder d;
  d.feed(bytes.substr(0, 2));
  EXPECT_EQ(decodeAll(d).messages.size(), 0u);
  EXPECT_EQ(d.truncation(), "truncated frame: 2 of 4 length bytes received");
  d.feed(bytes.substr(2, 5));
  EXPECT_EQ(d.truncation(), "truncated frame: 3 of 8 body bytes received");
  EXPECT_FALSE(d.failed());
}

// The limit applies to the body length and is enforced as soon as the length is known.
class WireFrameLimitTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(WireFrameLimitTest, AFrameUpToTheLimitPassesOneByteMoreIsRefusedBeforeItsBody) {
  std::size_t const limit = GetParam();
  WireDecoder d(limit);
  d.feed(u32(static_cast<Qel::U32>(limit)));
  EXPECT_EQ(decodeAll(d).error, "");
  WireDecoder over(limit);
  over.feed(u32(static_cast<Qel::U32>(limit + 1)));
  EXPECT_EQ(decodeAll(over).error, "frame of " + std::to_string(limit + 1) +
                                       " bytes exceeds the limit of " + std::to_string(limit) +
                                       " bytes");
  EXPECT_TRUE(over.failed());
}

INSTANTIATE_TEST_SUITE_P(Limits, WireFrameLimitTest,
                         ::testing::Values(std::size_t(1), std::size_t(13),
                                           WireDecoder::kDefaultMaxFrame));

TEST(WireFrameLimitTest, AWholeMessageExactlyAtTheLimitDecodes) {
  std::string const bytes = wireFrame(WireClose{"bye"});
  EXPECT_EQ(decode(bytes, 8).messages.size(), 1u);
  EXPECT_EQ(decode(bytes, 7).error, "frame of 8 bytes exceeds the limit of 7 bytes");
  WireDecoder d;
  d.maxFrameIs(7);
  d.feed(bytes);
  EXPECT_EQ(decodeAll(d).error, "frame of 8 bytes exceeds the limit of 7 bytes");
}

TEST(WireFrameLimitTest, ALengthOfFourGigabytesIsRefusedWithoutWaiting) {
  EXPECT_EQ(decode(u32(0xffffffff)).error,
            "frame of 4294967295 bytes exceeds the limit of 1048576 bytes");
}

// Bodies that do not parse exactly, with the reason each gives.
struct BadBody {
  char const* what;
  std::string body;
  std::string error;
};

class WireBadBodyTest : public ::testing::TestWithParam<BadBody> {};

TEST_P(WireBadBodyTest, IsRefusedWithItsReason) {
  BadBody const& b = GetParam();
  EXPECT_EQ(decode(frame(b.body)).error, b.error);
  // A good frame before it still comes out; nothing after it does.
  std::string const good = wireFrame(WireClose{"first"});
  WireDecoder d;
  d.feed(good + frame(b.body) + good);
  Decoded const got = decodeAll(d);
  EXPECT_EQ(got.messages.size(), 1u);
  EXPECT_EQ(got.error, b.error);
  WireMessage m;
  d.feed(good);
  EXPECT_EQ(d.next(m), Result::error);
  EXPECT_EQ(d.buffered(), 0u);
}

std::string const kHello = kind(WireKind::hello);
std::string const kRequest = kind(WireKind::mountRequest);
std::string const kState = kind(WireKind::entityState);
std::string const kAnswer = kind(WireKind::mountAnswer);
std::string const kClose = kind(WireKind::close);
std::string const kEid(8, '\0');

INSTANTIATE_TEST_SUITE_P(
    Bodies, WireBadBodyTest,
    ::testing::Values(
        BadBody{"kind zero", std::string(1, '\0'), "unknown message kind 0"},
        BadBody{"kind six", std::string(1, '\6') + "abc", "unknown message kind 6"},
        BadBody{"kind 255", std::string(1, '\xff'), "unknown message kind 255"},
        BadBody{"short integer", kHello + byte(0) + byte(0),
                "malformed Hello: protocolVersion runs past the end of the frame (2 bytes left, "
                "4 needed)"},
        BadBody{"text longer than the frame", kHello + u32(5) + u32(100) + "abc",
                "malformed Hello: agentName of 100 bytes runs past the end of the frame (3 bytes "
                "left)"},
        BadBody{"missing field", kHello + u32(5) + text("a"),
                "malformed Hello: agentString runs past the end of the frame (0 bytes left, 4 "
                "needed)"},
        BadBody{"trailing bytes", kClose + text("bye") + "xy",
                "malformed Close: 2 bytes after the last field"},
        BadBody{"flag out of range", kRequest + u32(1) + text("/a") + text("") + byte(2),
                "malformed MountRequest: stateFollows must be 0 or 1, not 2"},
        BadBody{"ok out of range",
                kAnswer + u32(1) + text("/a") + byte(0x80) + text("") + byte(0) + kEid,
                "malformed MountAnswer: ok must be 0 or 1, not 128"},
        BadBody{"unknown path state bits",
                kAnswer + u32(1) + text("/a") + byte(1) + text("") + byte(0x25) + kEid,
                "malformed MountAnswer: unknown pathState bits 0x20"},
        BadBody{"short eid",
                kAnswer + u32(1) + text("/a") + byte(1) + text("") + byte(1) + std::string(3, '\0'),
                "malformed MountAnswer: monitoringEid runs past the end of the frame (3 bytes "
                "left, 4 needed)"},
        BadBody{"attribute count too large",
                kState + u32(1) + text("/a") + text("T") + byte(0) + u32(0xffffffff) + u32(0),
                "malformed EntityState: 4294967295 attributes cannot fit in the 4 bytes left"},
        BadBody{"entry count too large",
                kState + u32(1) + text("/a") + text("T") + byte(1) + u32(0) + u32(2) + text("e"),
                "malformed EntityState: 2 entries cannot fit in the 5 bytes left"},
        BadBody{"entries of a non-directory",
                kState + u32(1) + text("/a") + text("T") + byte(0) + u32(0) + u32(1) + text("e"),
                "malformed EntityState: entries on an entity that is not a directory"},
        BadBody{"attribute value cut",
                kState + u32(1) + text("/a") + text("T") + byte(0) + u32(1) + text("x") + u32(9),
                "malformed EntityState: attribute value of 9 bytes runs past the end of the frame "
                "(0 bytes left)"}),
    [](::testing::TestParamInfo<BadBody> const& info) {
      std::string name;
      for (char c : std::string(info.param.what))
        name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
      return name;
    });

TEST(WireDecoderTest, AnEmptyFrameIsRefused) {
  EXPECT_EQ(decode(u32(0)).error, "empty frame");
  WireMessage m;
  Qel::String error;
  EXPECT_FALSE(WireDecoder::decodeBody("", m, error));
  EXPECT_EQ(error, "empty frame");
}

TEST(WireDecoderTest, AFailedDecoderTakesNoMoreBytes) {
  WireDecoder d;
  d.feed(u32(0));
  WireMessage m;
  EXPECT_EQ(d.next(m), Result::error);
  d.feed(wireFrame(WireClose{"x"}));
  EXPECT_EQ(d.buffered(), 0u);
  EXPECT_EQ(d.next(m), Result::error);
  EXPECT_EQ(d.error(), "empty frame");
}

TEST(WireDecoderTest, ALongStreamKeepsItsBufferSmall) {
  // Many small frames fed in large chunks: consumed bytes are dropped as decoding proceeds.
  std::string const one = wireFrame(WireMountAnswer{1, "/a/b/c", true, "", 0x0f, 0});
  std::string chunk;
  for (int i = 0; i < 1000; ++i)
    chunk += one;
  WireDecoder d;
  std::size_t total = 0;
  for (int round = 0; round < 20; ++round) {
    d.feed(chunk.substr(0, chunk.size() - 3));
    total += decodeAll(d).messages.size();
    d.feed(chunk.substr(chunk.size() - 3));
    total += decodeAll(d).messages.size();
    EXPECT_EQ(d.buffered(), 0u);
  }
  EXPECT_EQ(total, 20000u);
}

TEST(WireDecoderDeathTest, AFrameLimitOfZeroIsAContractViolation) {
  EXPECT_DEATH(WireDecoder(0),
               regexLiteral("maxFrame >= 1 && \"a frame limit of at least one byte\""));
  WireDecoder d;
  EXPECT_DEATH(d.maxFrameIs(0),
               regexLiteral("bytes >= 1 && \"a frame limit of at least one byte\""));
}

}  // namespace
