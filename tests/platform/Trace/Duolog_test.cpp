// Duolog: text line plus ring record, the text sinks and the time stamps.
#include "Trace/Duolog.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "Trace/FileSink.h"
#include "TraceTestSupport.h"

namespace {

using Trace::CaptureSink;
using Trace::Line;
using Strings = std::vector<std::string>;
using TraceTesting::TempPath;

class TraceDuologTest : public TraceTesting::TraceFixture {
 protected:
  TraceDuologTest() { LEDRA_TRACE_FACILITY(TraceTest).levelIs(5); }
};

TEST_F(TraceDuologTest, TraceWritesTheTextLineAndTheRecordRinglogTheRecordOnly) {
  TRACE(TraceTest, 3, "hello {} at {:x}", "world", 0xbeefu);
  RINGLOG(TraceTest, 5, "quiet {}", 1);
  ASSERT_EQ(capture_.lines().size(), 1u);
  Line const& line = capture_.lines()[0];
  EXPECT_EQ(line.text(), "12.250000 TraceTest/3 hello world at beef");
  EXPECT_EQ(line.seconds, 12.25);
  std::vector<Line> const lines = ring();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "hello world at beef");
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[1].message, "quiet 1");
  // Without a text sink only the record is written.
  Trace::TextSink* const previous = Trace::textSinkIs(nullptr);
  TRACE(TraceTest, 1, "unseen {}", 2);
  EXPECT_EQ(Trace::textSinkIs(previous), nullptr);
  EXPECT_EQ(capture_.lines().size(), 1u);
  EXPECT_EQ(ring().back().message, "unseen 2");
}

TEST_F(TraceDuologTest, ArgumentsAreEvaluatedOnceWhenEnabledAndNeverWhenDisabled) {
  int evaluations = 0;
  auto const next = [&evaluations] { return ++evaluations; };
  TRACE(TraceTest, 6, "{}", next());
  RINGLOG(TraceTest, 9, "{}", next());
  TRACE(TraceOther, 1, "{}", next());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(ring().empty());
  TRACE(TraceTest, 5, "{}", next());
  RINGLOG(TraceTest, 1, "{}", next());
  EXPECT_EQ(evaluations, 2);
  EXPECT_EQ(capture_.messages(), Strings{"1"});
  EXPECT_EQ(ringMessages(), (Strings{"1", "2"}));
}

template <class T>
void traceFromTemplate(T value) {
  TRACE(TraceTest, 1, "template {}", value);
}

TEST_F(TraceDuologTest, ATraceIsOneStatementAndEachTemplateInstanceACallSite) {
  int taken = 0;
  if (taken == 0)
    TRACE(TraceTest, 1, "then {}", 1);
  else
    ++taken;
  for (int i = 0; i < 2; ++i)
    TRACE(TraceTest, 1, "loop {}", i);
  EXPECT_EQ(taken, 0);
  traceFromTemplate(7);
  traceFromTemplate(std::string("seven"));
  traceFromTemplate(7.5);
  EXPECT_EQ(ringMessages(), (Strings{"then 1", "loop 0", "loop 1", "template 7", "template seven",
                                     "template 7.5"}));
}

// A sink that traces while it writes a line, as a sink that logs its own trouble would, then
// throws if told to.
class TracingSink : public Trace::TextSink {
 public:
  void lineIs(double, std::string_view, int, std::string_view message) override {
    messages.emplace_back(message);
    TRACE(TraceTest, 1, "nested trace from the sink {}", messages.size());
    if (throws) throw std::runtime_error("sink failed");
  }
  Strings messages;
  bool throws = false;
};

TEST_F(TraceDuologTest, ASinkThatTracesDoesNotRecurseOneThatThrowsLeavesTracingUsable) {
  TracingSink sink;
  Trace::TextSink* const previous = Trace::textSinkIs(&sink);
  TRACE(TraceTest, 1, "outer {}", 1);
  TRACE(TraceTest, 1, "outer {}", 2);
  Trace::textSinkIs(previous);
  EXPECT_EQ(sink.messages, (Strings{"outer 1", "outer 2"}));
  EXPECT_EQ(ringMessages(), (Strings{"outer 1", "nested trace from the sink 1", "outer 2",
                                     "nested trace from the sink 2"}));
  sink.throws = true;
  Trace::textSinkIs(&sink);
  EXPECT_THROW(TRACE(TraceTest, 1, "thrown"), std::runtime_error);
  Trace::textSinkIs(previous);
  TRACE(TraceTest, 1, "after");
  EXPECT_EQ(capture_.messages(), Strings{"after"});
  Strings const ring = ringMessages();  // the record is written before the sink throws
  EXPECT_EQ(Strings(ring.end() - 3, ring.end()),
            (Strings{"thrown", "nested trace from the sink 3", "after"}));
}

TEST_F(TraceDuologTest, CapturesNestCountAndClear) {
  TRACE(TraceTest, 1, "to outer {}", 1);
  {
    CaptureSink inner;
    EXPECT_EQ(Trace::textSink(), &inner);
    TRACE(TraceTest, 1, "to inner");
    EXPECT_EQ(inner.messages(), Strings{"to inner"});
  }
  EXPECT_EQ(Trace::textSink(), &capture_);
  TRACE(TraceTest, 1, "to outer {}", 2);
  EXPECT_EQ(capture_.messages(), (Strings{"to outer 1", "to outer 2"}));
  Trace::TextSink* const before = Trace::textSinkIs(nullptr);
  { CaptureSink capture; }
  EXPECT_EQ(Trace::textSinkIs(before), nullptr);
  capture_.clear();
  TRACE(TraceTest, 1, "alpha beta");
  TRACE(TraceTest, 1, "beta beta");
  EXPECT_TRUE(capture_.contains("alpha"));
  EXPECT_FALSE(capture_.contains("delta"));
  EXPECT_EQ(capture_.count("beta"), 2u);       // lines, not occurrences
  EXPECT_EQ(capture_.count("TraceTest"), 0u);  // the message only, not facility or time
  capture_.clear();
  EXPECT_FALSE(capture_.contains("beta"));
  TRACE(TraceTest, 1, "after clear");
  EXPECT_EQ(capture_.messages(), Strings{"after clear"});
}

TEST_F(TraceDuologTest, DestroyingCapturesOutOfOrderIsAContractViolation) {
  EXPECT_DEATH(
      {
        auto* const outer = new CaptureSink;
        new CaptureSink;
        delete outer;
      },
      "Assertion failed: textSink\\(\\) == this && \"capture sink destroyed while another sink is "
      "installed\"");
}

TEST_F(TraceDuologTest, FileSinkAppendsFlushedLinesAndHandsBackToTheStandardErrorSink) {
  TempPath const file("lines.txt");
  Trace::TextSink* const previous = Trace::textSink();
  {
    Trace::FileSink sink(file.path);
    Trace::textSinkIs(&sink);
    TRACE(TraceTest, 2, "first {}", 1);
    TraceTesting::gSimulatedSeconds = 3601.0000005;
    TRACE(TraceTest, 4, "second {:x}", 255);
    EXPECT_EQ(TraceTesting::readFile(file.path),
              "12.250000 TraceTest/2 first 1\n3601.000001 TraceTest/4 second ff\n");
  }
  EXPECT_EQ(Trace::textSink(), &Trace::StderrSink::instance());
  testing::internal::CaptureStderr();
  TRACE(TraceTest, 5, "on stderr {}", true);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "3601.000001 TraceTest/5 on stderr true\n");
  Trace::textSinkIs(previous);
  Trace::FileSink(file.path).lineIs(-1.5, "Other", 9, "appended");
  EXPECT_EQ(TraceTesting::readFile(file.path),
            "12.250000 TraceTest/2 first 1\n3601.000001 TraceTest/4 second ff\n"
            "-1.500000 Other/9 appended\n");
  try {
    Trace::FileSink sink("/nonexistent-dir/trace.txt");
    FAIL() << "opened";
  } catch (std::runtime_error const& error) {
    EXPECT_STREQ(error.what(),
                 "cannot open trace file /nonexistent-dir/trace.txt: No such file or directory");
  }
}

TEST(TraceLineTest, TextHasSixDecimalsFacilityLevelAndMessage) {
  EXPECT_EQ((Line{0, "A", 0, ""}.text()), "0.000000 A/0 ");
  EXPECT_EQ((Line{123456.0000004, "B", 9, "m"}.text()), "123456.000000 B/9 m");
  EXPECT_EQ((Line{-2.25, "C", 1, "n"}.text()), "-2.250000 C/1 n");
  EXPECT_EQ((Line{1e300, "D", 1, "big"}.text()).size(), 301u + 7u + 1u + 3u + 1u + 3u);
}

}  // namespace
