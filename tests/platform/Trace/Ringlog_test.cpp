// The ring: wrapping, decoding, string cutting and dump files.
#include "Trace/Ringlog.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "Trace/RingDump.h"
#include "TraceTestSupport.h"

namespace {

using Trace::Line;
using Trace::Ringlog;
using TraceTesting::TempPath;
using TraceTesting::TraceFixture;

class TraceRingTest : public TraceFixture {
 protected:
  TraceRingTest() : TraceFixture(Ringlog::kMinCapacity) {
    LEDRA_TRACE_FACILITY(TraceTest).levelIs(9);
    LEDRA_TRACE_FACILITY(TraceOther).levelIs(9);
  }

  static Ringlog& global() { return Ringlog::global(); }

  // The ring holds exactly the newest records: its lines equal the tail of what the capture sink
  // received, facility, level and message alike.
  void expectRingMatchesNewestCaptured() {
    std::vector<Line> const decoded = ring();
    std::vector<Line> const& captured = capture_.lines();
    ASSERT_EQ(decoded.size(), global().records());
    ASSERT_LE(decoded.size(), captured.size());
    std::size_t const first = captured.size() - decoded.size();
    for (std::size_t i = 0; i < decoded.size(); ++i) {
      ASSERT_EQ(decoded[i].message, captured[first + i].message) << "line " << i;
      ASSERT_EQ(decoded[i].facility, captured[first + i].facility);
      ASSERT_EQ(decoded[i].level, captured[first + i].level);
    }
  }

  // Bytes the records of the ring occupy.
  static std::size_t recordBytes() {
    std::size_t bytes = 0;
    global().forEachRecord([&bytes](std::span<std::uint8_t const> r) { bytes += r.size(); });
    return bytes;
  }
};

TEST_F(TraceRingTest, AnEmptyRingDecodesToNothing) {
  EXPECT_TRUE(ring().empty());
  EXPECT_EQ(global().records(), 0u);
  RINGLOG(TraceTest, 1, "one");
  global().clear();
  EXPECT_TRUE(ring().empty());
  EXPECT_EQ(global().written(), 0u);
}

TEST_F(TraceRingTest, RecordsDecodeOldestFirstWithFacilityAndLevel) {
  RINGLOG(TraceTest, 2, "first {}", 1);
  RINGLOG(TraceTest, 7, "second {}", 2.5);
  TRACE(TraceTest, 9, "third {}", "x");
  std::vector<Line> const lines = ring();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].message, "first 1");
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[1].message, "second 2.5");
  EXPECT_EQ(lines[1].level, 7);
  EXPECT_EQ(lines[2].message, "third x");
  EXPECT_EQ(lines[2].facility, "TraceTest");
  EXPECT_LE(lines[0].seconds, lines[1].seconds);
  EXPECT_LE(lines[1].seconds, lines[2].seconds);
  // Decoded times follow the time source: the simulated clock stands at 12.25 s, and the records
  // were written a moment of real time before the decoder anchored to it.
  EXPECT_LE(lines[2].seconds, 12.25);
  EXPECT_GT(lines[0].seconds, 11.25);
  EXPECT_EQ(capture_.messages(), std::vector<std::string>{"third x"});
}

TEST_F(TraceRingTest, WrapsManyTimesAndKeepsExactlyTheNewestRecords) {
  std::mt19937 random(7);
  std::string const letters = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::size_t largest = 0;
  for (int i = 0; i < 30000; ++i) {
    std::string const text = letters.substr(0, random() % letters.size());
    largest = std::max(largest, Ringlog::kHeaderBytes + 4 + 1 + text.size() + 8);
    std::uint64_t const product = std::uint64_t{0x1234} * static_cast<std::uint64_t>(i);
    if (i % 3 == 0) TRACE(TraceTest, 1, "record {} [{}] {:x}", i, text, product);
    if (i % 3 == 1) TRACE(TraceOther, 5, "other {} [{}] {:x}", i, text, product);
    if (i % 3 == 2) TRACE(TraceTest, 9, "nine {} [{}] {:x}", i, text, product);
    if (i % 997 == 0 || i > 29980) {
      ASSERT_NO_FATAL_FAILURE(expectRingMatchesNewestCaptured());
    }
  }
  EXPECT_GE(global().laps(), 20u);
  EXPECT_EQ(global().written(), 30000u);
  EXPECT_EQ(global().written() - global().overwritten(), global().records());
  // Dropping frees at most a sixteenth of the ring beyond one record, and a lap end wastes less
  // than one record.
  EXPECT_GE(recordBytes(), global().capacity() * 15 / 16 - 3 * largest);
  EXPECT_LE(recordBytes(), global().capacity());
}

// Records of one fixed size walk through every alignment against the end of the buffer.
class TraceFixedSizeRecordTest : public TraceRingTest,
                                 public testing::WithParamInterface<std::size_t> {};

TEST_P(TraceFixedSizeRecordTest, SequenceStaysContiguousAcrossLaps) {
  std::string const text(GetParam(), 'r');
  std::string const kept = text.size() <= 255 ? text : text.substr(0, 252) + "...";
  std::uint32_t sequence = 0;
  while (global().laps() < 4) {
    RINGLOG(TraceTest, 1, "{} {}", sequence, text);
    ++sequence;
    std::size_t counted = 0;
    global().forEachRecord([&counted](std::span<std::uint8_t const>) { ++counted; });
    ASSERT_EQ(counted, global().records());
    if (sequence % 61 != 0 && global().laps() < 4) continue;
    std::vector<Line> const lines = ring();
    ASSERT_FALSE(lines.empty());
    std::uint32_t const oldest = sequence - static_cast<std::uint32_t>(lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
      ASSERT_EQ(lines[i].message, std::to_string(oldest + i) + " " + kept) << "line " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(StringLengths, TraceFixedSizeRecordTest,
                         testing::Values(0u, 1u, 2u, 3u, 7u, 100u, 254u, 255u, 256u, 1000u));

TEST_F(TraceRingTest, CapacityChangeDropsRecordsAndCounters) {
  for (int i = 0; i < 2000; ++i)
    RINGLOG(TraceTest, 1, "fill {}", i);
  EXPECT_GT(global().laps(), 0u);
  global().capacityIs(2 * Ringlog::kMinCapacity);
  EXPECT_EQ(global().capacity(), 2 * Ringlog::kMinCapacity);
  EXPECT_TRUE(ring().empty());
  EXPECT_EQ(global().written(), 0u);
  EXPECT_EQ(global().laps(), 0u);
  RINGLOG(TraceTest, 1, "after {}", 1);
  EXPECT_EQ(TraceTesting::messagesOf(ring()), std::vector<std::string>{"after 1"});
}

TEST_F(TraceRingTest, ASeparateRingWorksLikeTheGlobalOne) {
  struct CallSite {
    static constexpr std::string_view facility() { return "Manual"; }
    static constexpr int level() { return 4; }
    static constexpr std::string_view format() { return "manual {} {}"; }
  };
  Ringlog local(Ringlog::kMinCapacity);
  for (int i = 0; i < 5000; ++i)
    local.write<CallSite>(i, std::string(i % 50, 'm'));
  std::vector<Line> const lines = local.decode();
  ASSERT_EQ(lines.size(), local.records());
  EXPECT_EQ(lines.back().message, "manual 4999 " + std::string(4999 % 50, 'm'));
  EXPECT_EQ(lines.back().facility, "Manual");
  EXPECT_EQ(lines.back().level, 4);
  EXPECT_TRUE(ring().empty());
}

class TraceStringCutTest : public TraceRingTest {
 protected:
  // Writes text as a C string, a std::string and a view; the text line keeps all of it, the ring
  // keeps expected.
  void expectCut(std::string const& text, std::string const& expected) {
    capture_.clear();
    global().clear();
    TRACE(TraceTest, 1, "{}", text.c_str());
    TRACE(TraceTest, 1, "{}", text);
    TRACE(TraceTest, 1, "{}", std::string_view(text));
    EXPECT_EQ(capture_.messages(), std::vector<std::string>(3, text));
    EXPECT_EQ(TraceTesting::messagesOf(ring()), std::vector<std::string>(3, expected));
  }
};

TEST_F(TraceStringCutTest, StringsUpTo255BytesAreKeptWhole) {
  expectCut(std::string(254, 'a'), std::string(254, 'a'));
  expectCut(std::string(255, 'a'), std::string(255, 'a'));
}

TEST_F(TraceStringCutTest, LongerStringsKeep252BytesAndAnEllipsis) {
  expectCut(std::string(256, 'a'), std::string(252, 'a') + "...");
  expectCut(std::string(5000, 'b'), std::string(252, 'b') + "...");
}

TEST_F(TraceStringCutTest, TheCutNeverSplitsAUtf8Sequence) {
  std::string const e = "\xc3\xa9";             // two bytes
  std::string const euro = "\xe2\x82\xac";      // three bytes
  std::string const clef = "\xf0\x9d\x84\x9e";  // four bytes
  std::string const tail(100, 'z');
  // Sequences that end exactly at byte 252 are kept; ones that straddle it are dropped whole.
  expectCut(std::string(250, 'a') + e + tail, std::string(250, 'a') + e + "...");
  expectCut(std::string(251, 'a') + e + tail, std::string(251, 'a') + "...");
  expectCut(std::string(250, 'a') + euro + tail, std::string(250, 'a') + "...");
  expectCut(std::string(249, 'a') + clef + tail, std::string(249, 'a') + "...");
  expectCut(std::string(248, 'a') + clef + tail, std::string(248, 'a') + clef + "...");
  // Bytes that are not UTF-8 at all are cut at the fixed length.
  expectCut(std::string(300, '\x80'), std::string(252, '\x80') + "...");
}

TEST_F(TraceRingTest, SiteTableHoldsEachCallSiteOnce) {
  auto const count = [](std::string_view format) {
    auto const sites = Trace::SiteTable::instance().sites();
    return std::count_if(sites.begin(), sites.end(),
                         [format](Trace::Site const& s) { return s.format == format; });
  };
  for (int i = 0; i < 5; ++i)
    RINGLOG(TraceTest, 3, "site table check {}", i);
  EXPECT_EQ(count("site table check {}"), 1);
  // A call site that never runs is registered all the same, before main.
  if (global().capacity() == 0) RINGLOG(TraceTest, 3, "site that never runs {}", 1.0);
  EXPECT_EQ(count("site that never runs {}"), 1);
}

class TraceDumpTest : public TraceRingTest {};

TEST_F(TraceDumpTest, ADumpDecodesToTheSameLinesAsTheRing) {
  for (int i = 0; i < 3000; ++i) {
    if (i % 2 == 0)
      TRACE(TraceTest, 2, "dump {} {} {:x} {}", i, std::string(i % 40, 'd'), i * 3, i * 0.5);
    if (i % 2 == 1) RINGLOG(TraceOther, 8, "ring only {} {}", i, i % 7 == 0);
  }
  ASSERT_GT(global().laps(), 1u);
  TempPath const file("dump.bin");
  global().dumpTo(file.path());
  std::vector<Line> const fromDump = Trace::RingDump::read(file.path());
  std::vector<Line> const fromRing = ring();
  ASSERT_EQ(fromDump.size(), fromRing.size());
  for (std::size_t i = 0; i < fromDump.size(); ++i) {
    ASSERT_EQ(fromDump[i].message, fromRing[i].message);
    ASSERT_EQ(fromDump[i].facility, fromRing[i].facility);
    ASSERT_EQ(fromDump[i].level, fromRing[i].level);
    ASSERT_NEAR(fromDump[i].seconds, fromRing[i].seconds, 0.1);
  }
}

TEST_F(TraceDumpTest, AnEmptyRingDumpsToNoLines) {
  TempPath const file("empty.bin");
  global().dumpTo(file.path());
  EXPECT_TRUE(Trace::RingDump::read(file.path()).empty());
}

TEST_F(TraceDumpTest, FileErrorsNameThePathAndTheReason) {
  try {
    global().dumpTo("/nonexistent-dir/dump.bin");
    FAIL() << "no error";
  } catch (Trace::DumpError const& error) {
    EXPECT_STREQ(error.what(), "cannot write /nonexistent-dir/dump.bin: No such file or directory");
  }
  try {
    Trace::RingDump::read("/nonexistent-dir/dump.bin");
    FAIL() << "no error";
  } catch (Trace::DumpError const& error) {
    EXPECT_STREQ(error.what(), "cannot read /nonexistent-dir/dump.bin: No such file or directory");
  }
}

class TraceDumpCorruptionTest : public TraceRingTest {
 protected:
  TraceDumpCorruptionTest() {
    RINGLOG(TraceTest, 1, "a {} {}", 1, "text");
    RINGLOG(TraceTest, 2, "b {:x}", 0xabcu);
    dump_ = Trace::RingDump::bytesOf(global(), sites(), calibration());
  }

  // A two-site table and a calibration of its own, so offsets in the dump are known.
  static std::span<Trace::Site const> sites() {
    static constexpr std::array<Trace::ArgKind, 2> kFirst{Trace::ArgKind::I32,
                                                          Trace::ArgKind::String};
    static constexpr std::array<Trace::ArgKind, 1> kSecond{Trace::ArgKind::U32};
    static std::vector<Trace::Site> const table{{"Ext", 1, "a {} {}", kFirst},
                                                {"Ext", 2, "b {:x}", kSecond}};
    return table;
  }
  static Trace::TickCalibration calibration() { return {1e9, 0, 0}; }

  static std::string errorOf(std::string const& bytes) {
    try {
      Trace::RingDump::linesOf(bytes);
    } catch (Trace::DumpError const& error) {
      return error.what();
    }
    return "no error";
  }

  std::string dump_;
};

TEST_F(TraceDumpCorruptionTest, EveryTruncationIsReportedNeverReadPast) {
  global().clear();
  struct First {
    static constexpr std::string_view facility() { return "Ext"; }
    static constexpr int level() { return 1; }
    static constexpr std::string_view format() { return "a {} {}"; }
  };
  Ringlog local(Ringlog::kMinCapacity);
  local.write<First>(1, "text");
  std::string const dump =
      Trace::RingDump::bytesOf(local, Trace::SiteTable::instance().sites(), calibration());
  ASSERT_EQ(Trace::RingDump::linesOf(dump).size(), 1u);
  for (std::size_t length = 0; length < dump.size(); ++length) {
    std::string const error = errorOf(dump.substr(0, length));
    EXPECT_NE(error, "no error") << "length " << length;
  }
  EXPECT_EQ(errorOf(dump.substr(0, 3)), "not a ringlog dump (bad magic)");
  EXPECT_EQ(errorOf(dump.substr(0, 10)), "dump is truncated in the version");
  EXPECT_EQ(errorOf(dump + "x"), "dump has bytes after its records");
}

TEST_F(TraceDumpCorruptionTest, HeaderErrorsHaveFixedTexts) {
  std::string bad = dump_;
  bad[0] = 'X';
  EXPECT_EQ(errorOf(bad), "not a ringlog dump (bad magic)");
  bad = dump_;
  bad[8] = 2;
  EXPECT_EQ(errorOf(bad), "unsupported ringlog dump version 2");
  bad = dump_;
  double const zero = 0;
  bad.replace(12, 8, reinterpret_cast<char const*>(&zero), 8);
  EXPECT_EQ(errorOf(bad), "dump has an invalid time calibration");
}

TEST_F(TraceDumpCorruptionTest, RecordErrorsHaveFixedTexts) {
  // A hand-made dump: an empty table header, then the given records.
  auto const dumpWith = [](std::span<Trace::Site const> table, std::string const& records) {
    Ringlog empty(Ringlog::kMinCapacity);
    std::string bytes = Trace::RingDump::bytesOf(empty, table, calibration());
    bytes.resize(bytes.size() - 8);
    auto const size = static_cast<std::uint64_t>(records.size());
    bytes.append(reinterpret_cast<char const*>(&size), 8);
    return bytes + records;
  };
  auto const record = [](std::uint16_t size, std::uint32_t site, std::string const& args) {
    std::string r(reinterpret_cast<char const*>(&size), 2);
    r.append(reinterpret_cast<char const*>(&site), 4);
    r.append(8, '\0');
    return r + args;
  };
  std::int32_t const one = 1;
  std::string const intArg(reinterpret_cast<char const*>(&one), 4);

  EXPECT_EQ(errorOf(dumpWith(sites(), record(30, 0, intArg))), "dump is truncated in a record");
  EXPECT_EQ(errorOf(dumpWith(sites(), record(19, 0, intArg + std::string("\x05", 1)))),
            "record of 19 bytes ends inside argument 2 of call site 0");
  EXPECT_EQ(errorOf(dumpWith(sites(), record(21, 0, intArg + std::string("\x01xy", 3)))),
            "record of 21 bytes has 1 bytes after its arguments");
  EXPECT_EQ(errorOf(dumpWith(sites(), record(14, 7, ""))),
            "record names call site 7 of a table of 2");
  EXPECT_EQ(errorOf(dumpWith(sites(), record(3, 0, "x"))),
            "record of 3 bytes is shorter than its header");
  EXPECT_EQ(errorOf(dumpWith(sites(), std::string("\x01\x00", 2))),
            "dump holds a record of 1 bytes");
  std::vector<Line> const lines =
      Trace::RingDump::linesOf(dumpWith(sites(), record(20, 0, intArg + std::string("\x01z", 2))));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text(), "0.000000 Ext/1 a 1 z");

  static constexpr std::array<Trace::ArgKind, 1> kFloat{Trace::ArgKind::F64};
  std::vector<Trace::Site> const badHex{{"Ext", 1, "{:x}", kFloat}};
  EXPECT_EQ(errorOf(dumpWith(badHex, record(22, 0, std::string(8, '\0')))),
            "call site 0 asks for hex of an argument that has none");
  std::vector<Trace::Site> const badFormat{{"Ext", 1, "{", kFloat}};
  EXPECT_EQ(errorOf(dumpWith(badFormat, record(22, 0, std::string(8, '\0')))),
            "call site 0 has a malformed format: unmatched '{'");
  std::vector<Trace::Site> const tooFew{{"Ext", 1, "none", kFloat}};
  EXPECT_EQ(errorOf(dumpWith(tooFew, record(22, 0, std::string(8, '\0')))),
            "call site 0 has 0 placeholders for 1 arguments");
}

TEST_F(TraceDumpCorruptionTest, UnknownArgumentKindsAreRejected) {
  std::string bad = Trace::RingDump::bytesOf(global(), sites(), calibration());
  // The first kind byte of the first site: magic, version, calibration, count, level, facility,
  // format, argument count.
  std::size_t const at = 8 + 4 + 24 + 4 + 1 + 2 + 3 + 4 + 7 + 1;
  ASSERT_EQ(bad[at], static_cast<char>(Trace::ArgKind::I32));
  bad[at] = 99;
  EXPECT_EQ(errorOf(bad), "call site 0 has an unknown argument kind 99");
}

TEST_F(TraceDumpCorruptionTest, RandomDamageIsAnErrorOrAValidDecodeNeverACrash) {
  global().clear();
  for (int i = 0; i < 50; ++i)
    RINGLOG(TraceTest, 1, "damage {} {} {}", i, "str", 1.5);
  std::string const dump =
      Trace::RingDump::bytesOf(global(), Trace::SiteTable::instance().sites(), calibration());
  std::mt19937 random(11);
  int errors = 0;
  for (int round = 0; round < 2000; ++round) {
    std::string damaged = dump;
    for (int k = 0; k < 3; ++k)
      damaged[random() % damaged.size()] = static_cast<char>(random());
    if (errorOf(damaged) != "no error") ++errors;
  }
  EXPECT_GT(errors, 0);
}

class TraceRingDeathTest : public TraceRingTest {};

TEST_F(TraceRingDeathTest, CapacityOutsideTheLimitsIsAContractViolation) {
  EXPECT_DEATH(global().capacityIs(Ringlog::kMinCapacity - 1),
               "Assertion failed: capacity >= kMinCapacity && capacity <= kMaxCapacity && \"ring "
               "capacity outside 16440 bytes \\.\\. 1 GiB\"");
  EXPECT_DEATH(Ringlog(Ringlog::kMaxCapacity + 1), "ring capacity outside 16440 bytes");
}

}  // namespace
