// Duolog: text line plus ring record, the text sinks and the time stamps.
#include "Trace/Duolog.h"

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "Trace/FileSink.h"
#include "TraceTestSupport.h"

namespace {

using Trace::CaptureSink;
using Trace::Line;
using TraceTesting::TempPath;
using TraceTesting::TraceFixture;

class TraceDuologTest : public TraceFixture {
 protected:
  TraceDuologTest() { LEDRA_TRACE_FACILITY(TraceTest).levelIs(5); }
};

TEST_F(TraceDuologTest, TraceWritesTheTextLineAndTheRecord) {
  TRACE(TraceTest, 3, "hello {} at {:x}", "world", 0xbeefu);
  ASSERT_EQ(capture_.lines().size(), 1u);
  Line const& line = capture_.lines()[0];
  EXPECT_EQ(line.message, "hello world at beef");
  EXPECT_EQ(line.facility, "TraceTest");
  EXPECT_EQ(line.level, 3);
  EXPECT_EQ(line.seconds, 12.25);
  EXPECT_EQ(line.text(), "12.250000 TraceTest/3 hello world at beef");
  std::vector<Line> const lines = ring();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].message, "hello world at beef");
  EXPECT_EQ(lines[0].level, 3);
}

TEST_F(TraceDuologTest, RinglogWritesTheRecordOnly) {
  RINGLOG(TraceTest, 5, "quiet {}", 1);
  EXPECT_TRUE(capture_.lines().empty());
  EXPECT_EQ(TraceTesting::messagesOf(ring()), std::vector<std::string>{"quiet 1"});
}

TEST_F(TraceDuologTest, WithoutATextSinkOnlyTheRecordIsWritten) {
  Trace::TextSink* const previous = Trace::textSinkIs(nullptr);
  TRACE(TraceTest, 1, "unseen {}", 2);
  EXPECT_EQ(Trace::textSinkIs(previous), nullptr);
  EXPECT_TRUE(capture_.lines().empty());
  EXPECT_EQ(TraceTesting::messagesOf(ring()), std::vector<std::string>{"unseen 2"});
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
  EXPECT_EQ(capture_.messages(), std::vector<std::string>{"1"});
  EXPECT_EQ(TraceTesting::messagesOf(ring()), (std::vector<std::string>{"1", "2"}));
}

TEST_F(TraceDuologTest, ATraceIsOneStatement) {
  int taken = 0;
  if (taken == 0)
    TRACE(TraceTest, 1, "then {}", 1);
  else
    ++taken;
  for (int i = 0; i < 3; ++i)
    TRACE(TraceTest, 1, "loop {}", i);
  EXPECT_EQ(taken, 0);
  EXPECT_EQ(capture_.messages(),
            (std::vector<std::string>{"then 1", "loop 0", "loop 1", "loop 2"}));
}

template <class T>
void traceFromTemplate(T value) {
  TRACE(TraceTest, 1, "template {}", value);
}

TEST_F(TraceDuologTest, EachTemplateInstantiationIsACallSiteOfItsOwn) {
  traceFromTemplate(7);
  traceFromTemplate(std::string("seven"));
  traceFromTemplate(7.5);
  EXPECT_EQ(TraceTesting::messagesOf(ring()),
            (std::vector<std::string>{"template 7", "template seven", "template 7.5"}));
}

// A sink that traces while it writes a line, as a sink that logs its own trouble would.
class TracingSink : public Trace::TextSink {
 public:
  void lineIs(double, std::string_view, int, std::string_view message) override {
    messages.emplace_back(message);
    TRACE(TraceTest, 1, "nested trace from the sink {}", messages.size());
  }
  std::vector<std::string> messages;
};

TEST_F(TraceDuologTest, ASinkThatTracesDoesNotRecurse) {
  TracingSink sink;
  Trace::TextSink* const previous = Trace::textSinkIs(&sink);
  TRACE(TraceTest, 1, "outer {}", 1);
  TRACE(TraceTest, 1, "outer {}", 2);
  Trace::textSinkIs(previous);
  EXPECT_EQ(sink.messages, (std::vector<std::string>{"outer 1", "outer 2"}));
  EXPECT_EQ(TraceTesting::messagesOf(ring()),
            (std::vector<std::string>{"outer 1", "nested trace from the sink 1", "outer 2",
                                      "nested trace from the sink 2"}));
}

class ThrowingSink : public Trace::TextSink {
 public:
  void lineIs(double, std::string_view, int, std::string_view) override {
    throw std::runtime_error("sink failed");
  }
};

TEST_F(TraceDuologTest, ASinkThatThrowsLeavesTracingUsable) {
  ThrowingSink sink;
  Trace::TextSink* const previous = Trace::textSinkIs(&sink);
  EXPECT_THROW(TRACE(TraceTest, 1, "first"), std::runtime_error);
  Trace::textSinkIs(previous);
  TRACE(TraceTest, 1, "second");
  EXPECT_EQ(capture_.messages(), std::vector<std::string>{"second"});
  EXPECT_EQ(TraceTesting::messagesOf(ring()), (std::vector<std::string>{"first", "second"}));
}

class TraceCaptureSinkTest : public TraceDuologTest {};

TEST_F(TraceCaptureSinkTest, NestedCapturesTakeOverAndGiveBack) {
  TRACE(TraceTest, 1, "to outer {}", 1);
  {
    CaptureSink inner;
    EXPECT_EQ(Trace::textSink(), &inner);
    TRACE(TraceTest, 1, "to inner");
    EXPECT_EQ(inner.messages(), std::vector<std::string>{"to inner"});
  }
  EXPECT_EQ(Trace::textSink(), &capture_);
  TRACE(TraceTest, 1, "to outer {}", 2);
  EXPECT_EQ(capture_.messages(), (std::vector<std::string>{"to outer 1", "to outer 2"}));
}

TEST_F(TraceCaptureSinkTest, ContainsCountAndClear) {
  TRACE(TraceTest, 1, "alpha beta");
  TRACE(TraceTest, 1, "beta beta");
  TRACE(TraceTest, 1, "gamma");
  EXPECT_TRUE(capture_.contains("beta"));
  EXPECT_FALSE(capture_.contains("delta"));
  EXPECT_EQ(capture_.count("beta"), 2u);  // lines, not occurrences
  EXPECT_EQ(capture_.count("gamma"), 1u);
  EXPECT_EQ(capture_.count("TraceTest"), 0u);  // the message only, not facility or time
  capture_.clear();
  EXPECT_TRUE(capture_.lines().empty());
  EXPECT_FALSE(capture_.contains("beta"));
  TRACE(TraceTest, 1, "after clear");
  EXPECT_EQ(capture_.messages(), std::vector<std::string>{"after clear"});
}

TEST_F(TraceCaptureSinkTest, TheOriginalSinkReturnsWhenTheLastCaptureEnds) {
  Trace::TextSink* const before = Trace::textSinkIs(nullptr);
  {
    CaptureSink capture;
    EXPECT_EQ(Trace::textSink(), &capture);
  }
  EXPECT_EQ(Trace::textSink(), nullptr);
  Trace::textSinkIs(before);
}

TEST_F(TraceCaptureSinkTest, DestroyingCapturesOutOfOrderIsAContractViolation) {
  EXPECT_DEATH(
      {
        auto* const outer = new CaptureSink;
        auto* const inner = new CaptureSink;
        (void)inner;
        delete outer;
      },
      "Assertion failed: textSink\\(\\) == this && \"capture sink destroyed while another sink is "
      "installed\"");
}

class TraceFileSinkTest : public TraceDuologTest {};

TEST_F(TraceFileSinkTest, AppendsFlushedLinesInTheTextForm) {
  TempPath const file("lines.txt");
  {
    Trace::FileSink sink(file.path());
    Trace::TextSink* const previous = Trace::textSinkIs(&sink);
    TRACE(TraceTest, 2, "first {}", 1);
    TraceTesting::gSimulatedSeconds = 3601.0000005;
    TRACE(TraceTest, 4, "second {:x}", 255);
    EXPECT_EQ(TraceTesting::readFile(file.path()),
              "12.250000 TraceTest/2 first 1\n3601.000001 TraceTest/4 second ff\n");
    Trace::textSinkIs(previous);
  }
  {
    Trace::FileSink again(file.path());
    again.lineIs(-1.5, "Other", 9, "appended");
  }
  EXPECT_EQ(TraceTesting::readFile(file.path()),
            "12.250000 TraceTest/2 first 1\n3601.000001 TraceTest/4 second ff\n"
            "-1.500000 Other/9 appended\n");
}

TEST_F(TraceFileSinkTest, AnInstalledFileSinkHandsBackToStandardErrorWhenDestroyed) {
  TempPath const file("installed.txt");
  Trace::TextSink* const previous = Trace::textSink();
  {
    Trace::FileSink sink(file.path());
    Trace::textSinkIs(&sink);
  }
  EXPECT_EQ(Trace::textSink(), &Trace::StderrSink::instance());
  Trace::textSinkIs(previous);
}

TEST_F(TraceFileSinkTest, AFileThatCannotBeOpenedIsAnError) {
  try {
    Trace::FileSink sink("/nonexistent-dir/trace.txt");
    FAIL() << "opened";
  } catch (std::runtime_error const& error) {
    EXPECT_STREQ(error.what(),
                 "cannot open trace file /nonexistent-dir/trace.txt: No such file or directory");
  }
}

TEST_F(TraceDuologTest, TheStandardErrorSinkWritesOneTextLine) {
  Trace::TextSink* const previous = Trace::textSinkIs(&Trace::StderrSink::instance());
  testing::internal::CaptureStderr();
  TRACE(TraceTest, 5, "on stderr {}", true);
  std::string const text = testing::internal::GetCapturedStderr();
  Trace::textSinkIs(previous);
  EXPECT_EQ(text, "12.250000 TraceTest/5 on stderr true\n");
}

TEST(TraceLineTest, TextHasSixDecimalsFacilityLevelAndMessage) {
  EXPECT_EQ((Line{1.5, "Orn", 2, "x"}.text()), "1.500000 Orn/2 x");
  EXPECT_EQ((Line{0, "A", 0, ""}.text()), "0.000000 A/0 ");
  EXPECT_EQ((Line{123456.0000004, "B", 9, "m"}.text()), "123456.000000 B/9 m");
  EXPECT_EQ((Line{-2.25, "C", 1, "n"}.text()), "-2.250000 C/1 n");
  EXPECT_EQ((Line{1e300, "D", 1, "big"}.text()).size(),
            301u + 7u + 1u + 3u + 1u + 3u);  // not cut short
}

class TraceClockTest : public TraceFixture {};

TEST_F(TraceClockTest, TheTimeSourceCanBeReplacedAndRestored) {
  EXPECT_EQ(Trace::now(), 12.25);
  Trace::timeSourceIs(nullptr);
  EXPECT_EQ(Trace::timeSource(), &Trace::Clock::steadySeconds);
  double const first = Trace::now();
  double const second = Trace::now();
  EXPECT_GT(first, 0);
  EXPECT_LE(first, second);
}

TEST_F(TraceClockTest, CalibrationAnchorsTicksToTheTimeSource) {
  Trace::TickCalibration const calibration = Trace::Clock::calibration();
  EXPECT_EQ(calibration.anchorSeconds, 12.25);
  EXPECT_TRUE(std::isfinite(calibration.ticksPerSecond));
  EXPECT_GT(calibration.ticksPerSecond, 0);
  EXPECT_LE(calibration.anchorTicks, Trace::Clock::ticks());
  EXPECT_EQ(calibration.secondsAt(calibration.anchorTicks), 12.25);
}

TEST(TraceTickCalibrationTest, ConvertsTicksLinearlyAroundTheAnchor) {
  Trace::TickCalibration const calibration{1000.0, 5000, 10.0};
  EXPECT_EQ(calibration.secondsAt(5000), 10.0);
  EXPECT_EQ(calibration.secondsAt(4000), 9.0);
  EXPECT_EQ(calibration.secondsAt(6500), 11.5);
  EXPECT_EQ(calibration.secondsAt(0), 5.0);
  Trace::TickCalibration const nearZero{1000.0, 10, 1.0};
  EXPECT_EQ(nearZero.secondsAt(0), 0.99);
}

}  // namespace
