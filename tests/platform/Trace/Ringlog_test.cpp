// The ring: wrapping, decoding, string cutting and dump files.
#include "Trace/Ringlog.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Trace/RingDump.h"
#include "TraceTestSupport.h"
#include "tests/support/ExactText.h"

namespace {

using Trace::Line;
using Trace::Ringlog;
using Strings = std::vector<std::string>;

// A two-site table and a calibration of its own, so offsets in a dump are known.
std::span<Trace::Site const> sites() {
  static constexpr std::array<Trace::ArgKind, 2> kFirst{Trace::ArgKind::I32,
                                                        Trace::ArgKind::String};
  static constexpr std::array<Trace::ArgKind, 1> kSecond{Trace::ArgKind::U32};
  static std::vector<Trace::Site> const table{{"Ext", 1, "a {} {}", kFirst},
                                              {"Ext", 2, "b {:x}", kSecond}};
  return table;
}

// The DumpError decoding `bytes` raises, or "no error".
std::string errorOf(std::string const& bytes) {
  try {
    Trace::RingDump::linesOf(bytes);
  } catch (Trace::DumpError const& error) {
    return error.what();
  }
  return "no error";
}

// A decoded line without its time.
std::string body(Line const& line) {
  return line.facility + "/" + std::to_string(line.level) + " " + line.message;
}

class TraceRingTest : public TraceTesting::TraceFixture {
 protected:
  TraceRingTest() : TraceFixture(Ringlog::kMinCapacity) {
    LEDRA_TRACE_FACILITY(TraceTest).levelIs(9);
    LEDRA_TRACE_FACILITY(TraceOther).levelIs(9);
  }
  static Ringlog& global() { return Ringlog::global(); }
};

TEST_F(TraceRingTest, RecordsDecodeOldestFirstClearEmptiesTheRingAndDumps) {
  RINGLOG(TraceTest, 2, "first {}", 1);
  TRACE(TraceOther, 9, "second {}", "x");
  std::vector<Line> const lines = ring();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(body(lines[0]), "TraceTest/2 first 1");
  EXPECT_EQ(body(lines[1]), "TraceOther/9 second x");
  // Decoded times follow the simulated clock at 12.25 s: written a moment of real time before.
  EXPECT_LE(lines[0].seconds, lines[1].seconds);
  EXPECT_LE(lines[1].seconds, 12.25);
  EXPECT_GT(lines[0].seconds, 11.25);
  global().clear();
  EXPECT_TRUE(ring().empty());
  EXPECT_THROW_TEXT(global().dumpTo("/nonexistent-dir/dump.bin"), Trace::DumpError,
                    "cannot write /nonexistent-dir/dump.bin: No such file or directory");
}

// The ring holds exactly the newest records (the tail of what the capture sink received), and
// dropping frees at most a sixteenth of it beyond one record.
TEST_F(TraceRingTest, WrapsManyTimesKeepsExactlyTheNewestRecords) {
  std::mt19937 random(7);
  std::string const letters = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::size_t largest = 0;
  for (int i = 0; i < 30000; ++i) {
    std::string const text = letters.substr(0, random() % letters.size());
    largest = std::max(largest, Ringlog::kHeaderBytes + 4 + 1 + text.size() + 8);
    TRACE(TraceTest, 9, "record {} [{}] {:x}", i, text, std::uint64_t{0x1234} * i);
    if (i % 997 != 0 && i <= 29980) continue;
    std::vector<Line> const decoded = ring();
    std::vector<Line> const& captured = capture_.lines();
    ASSERT_EQ(decoded.size(), global().records());
    ASSERT_LE(decoded.size(), captured.size());
    for (std::size_t k = 0; k < decoded.size(); ++k)
      ASSERT_EQ(body(decoded[k]), body(captured[captured.size() - decoded.size() + k])) << i;
  }
  EXPECT_GE(global().laps(), 20u);
  std::size_t bytes = 0;
  global().forEachRecord([&bytes](std::span<std::uint8_t const> r) { bytes += r.size(); });
  EXPECT_GE(bytes, global().capacity() * 15 / 16 - 3 * largest);
  EXPECT_LE(bytes, global().capacity());
}

// The text line keeps a string whole; the ring keeps up to 255 bytes, else 252 and an ellipsis,
// never splitting a UTF-8 sequence, for a C string and a std::string alike.
TEST_F(TraceRingTest, LongStringsAreCutInTheRecordOnly) {
  std::string const e = "\xc3\xa9", clef = "\xf0\x9d\x84\x9e";
  std::string const tail(100, 'z');
  auto const a = [](std::size_t n) { return std::string(n, 'a'); };
  std::pair<std::string, std::string> const cases[] = {
      {a(255), a(255)},
      {a(256), a(252) + "..."},
      {a(250) + e + tail, a(250) + e + "..."},  // a sequence ending at byte 252 is kept
      {a(251) + e + tail, a(251) + "..."},      // one straddling it is dropped whole
      {a(249) + clef + tail, a(249) + "..."},
      {a(248) + clef + tail, a(248) + clef + "..."},
      {std::string(300, '\x80'), std::string(252, '\x80') + "..."},  // not UTF-8: a fixed cut
  };
  for (auto const& [text, expected] : cases) {
    capture_.clear();
    global().clear();
    TRACE(TraceTest, 1, "{}", text.c_str());
    TRACE(TraceTest, 1, "{}", text);
    EXPECT_EQ(capture_.messages(), Strings(2, text));
    EXPECT_EQ(ringMessages(), Strings(2, expected)) << text.size();
  }
}

// Every cut of a dump is refused, never read past; damaged headers and records say what is wrong.
TEST_F(TraceRingTest, DamagedDumpsAreRefusedWithFixedTexts) {
  RINGLOG(TraceTest, 1, "a {} {}", 1, "text");
  Trace::TickCalibration const calibration{1e9, 0, 0};
  std::string const dump =
      Trace::RingDump::bytesOf(global(), Trace::SiteTable::instance().sites(), calibration);
  ASSERT_EQ(Trace::RingDump::linesOf(dump).size(), 1u);
  for (std::size_t length = 0; length < dump.size(); ++length)
    EXPECT_NE(errorOf(dump.substr(0, length)), "no error") << "length " << length;
  // The header of a dump with the two-site table, damaged at a known offset.
  auto const damaged = [&](std::size_t at, std::string const& bytes) {
    return errorOf(
        Trace::RingDump::bytesOf(global(), sites(), calibration).replace(at, bytes.size(), bytes));
  };
  double const zero = 0;
  EXPECT_EQ(errorOf(dump.substr(0, 10)), "dump is truncated in the version");
  EXPECT_EQ(errorOf(dump + "x"), "dump has bytes after its records");
  EXPECT_EQ(damaged(0, "X"), "not a ringlog dump (bad magic)");
  EXPECT_EQ(damaged(8, "\x02"), "unsupported ringlog dump version 2");
  EXPECT_EQ(damaged(12, std::string(reinterpret_cast<char const*>(&zero), 8)),
            "dump has an invalid time calibration");
  // The first kind byte of the first site: magic, version, calibration, count, level, facility,
  // format, argument count.
  std::size_t const at = 8 + 4 + 24 + 4 + 1 + 2 + 3 + 4 + 7 + 1;
  EXPECT_EQ(damaged(at, "\x63"), "call site 0 has an unknown argument kind 99");

  // Hand-made records after an empty ring's header with the given site table.
  auto const dumpWith = [&](std::span<Trace::Site const> table, std::string const& records) {
    Ringlog empty(Ringlog::kMinCapacity);
    std::string bytes = Trace::RingDump::bytesOf(empty, table, calibration);
    bytes.resize(bytes.size() - 8);
    auto const size = static_cast<std::uint64_t>(records.size());
    return bytes.append(reinterpret_cast<char const*>(&size), 8) + records;
  };
  auto const record = [](std::uint16_t size, std::uint32_t site, std::string const& args) {
    std::string r(reinterpret_cast<char const*>(&size), 2);
    r.append(reinterpret_cast<char const*>(&site), 4);
    return r.append(8, '\0') + args;
  };
  std::string const one("\x01\0\0\0", 4);
  static constexpr std::array<Trace::ArgKind, 1> kFloat{Trace::ArgKind::F64};
  std::vector<Trace::Site> const badHex{{"Ext", 1, "{:x}", kFloat}};
  std::vector<Trace::Site> const tooFew{{"Ext", 1, "none", kFloat}};
  std::vector<Trace::Site> const badFormat{{"Ext", 1, "{", kFloat}};
  // clang-format off
  std::pair<std::string, char const*> const rows[] = {
      {dumpWith(sites(), record(30, 0, one)), "dump is truncated in a record"},
      {dumpWith(sites(), record(19, 0, one + "\x05")), "record of 19 bytes ends inside argument 2 of call site 0"},
      {dumpWith(sites(), record(21, 0, one + "\x01xy")), "record of 21 bytes has 1 bytes after its arguments"},
      {dumpWith(sites(), record(14, 7, "")), "record names call site 7 of a table of 2"},
      {dumpWith(sites(), record(3, 0, "x")), "record of 3 bytes is shorter than its header"},
      {dumpWith(sites(), std::string("\x01\x00", 2)), "dump holds a record of 1 bytes"},
      {dumpWith(badHex, record(22, 0, std::string(8, '\0'))), "call site 0 asks for hex of an argument that has none"},
      {dumpWith(tooFew, record(22, 0, std::string(8, '\0'))), "call site 0 has 0 placeholders for 1 arguments"},
      {dumpWith(badFormat, record(22, 0, std::string(8, '\0'))), "call site 0 has a malformed format: unmatched '{'"}};
  // clang-format on
  for (auto const& [bytes, error] : rows)
    EXPECT_EQ(errorOf(bytes), error);
  std::vector<Line> const lines =
      Trace::RingDump::linesOf(dumpWith(sites(), record(20, 0, one + "\x01z")));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text(), "0.000000 Ext/1 a 1 z");
}

TEST(TraceRingDeathTest, CapacityOutsideTheLimitsIsAContractViolation) {
  EXPECT_DEATH(Ringlog::global().capacityIs(Ringlog::kMinCapacity - 1),
               "\"ring capacity outside 16440 bytes \\.\\. 1 GiB\"");
  EXPECT_DEATH(Ringlog(Ringlog::kMaxCapacity + 1), "ring capacity outside 16440 bytes");
}

}  // namespace
