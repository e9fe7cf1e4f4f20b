// Duolog: text line plus ring record, the text sinks and the time stamps.
#include "Trace/Duolog.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "Trace/FileSink.h"
#include "TraceTestSupport.h"
#include "tests/support/ExactText.h"

namespace {

using Strings = std::vector<std::string>;
using TraceTesting::TempPath;

class TraceDuologTest : public TraceTesting::TraceFixture {
 protected:
  TraceDuologTest() { LEDRA_TRACE_FACILITY(TraceTest).levelIs(5); }
};

template <class T>
void traceFromTemplate(T value) {
  TRACE(TraceTest, 1, "template {}", value);
}

// Arguments are evaluated once when the level is on and never when it is off; each template
// instance is a call site of its own.
TEST_F(TraceDuologTest, TraceWritesTheTextLineAndTheRecordRinglogTheRecordOnly) {
  int evaluations = 0;
  auto const next = [&evaluations] { return ++evaluations; };
  TRACE(TraceTest, 6, "{}", next());
  TRACE(TraceOther, 1, "{}", next());
  TRACE(TraceTest, 3, "hello {} at {:x}", next(), 0xbeefu);
  RINGLOG(TraceTest, 5, "quiet {}", next());
  RINGLOG(TraceTest, 9, "{}", next());
  traceFromTemplate(std::string("seven"));
  traceFromTemplate(7.5);
  EXPECT_EQ(evaluations, 2);
  ASSERT_EQ(capture_.lines().size(), 3u);
  EXPECT_EQ(capture_.lines()[0].text(), "12.250000 TraceTest/3 hello 1 at beef");
  EXPECT_EQ(ringMessages(),
            (Strings{"hello 1 at beef", "quiet 2", "template seven", "template 7.5"}));
  EXPECT_EQ(ring()[0].level, 3);
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
  sink.throws = true;
  EXPECT_THROW(TRACE(TraceTest, 1, "thrown"), std::runtime_error);
  Trace::textSinkIs(previous);
  TRACE(TraceTest, 1, "after");
  EXPECT_EQ(sink.messages, (Strings{"outer 1", "thrown"}));
  EXPECT_EQ(capture_.messages(), Strings{"after"});
  EXPECT_EQ(ringMessages(), (Strings{"outer 1", "nested trace from the sink 1", "thrown",
                                     "nested trace from the sink 2", "after"}));
}

TEST_F(TraceDuologTest, DestroyingCapturesOutOfOrderIsAContractViolation) {
  EXPECT_DEATH(
      {
        auto* const outer = new Trace::CaptureSink;
        new Trace::CaptureSink;
        delete outer;
      },
      "\"capture sink destroyed while another sink is installed\"");
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
  Trace::textSinkIs(previous);
  EXPECT_THROW_TEXT(Trace::FileSink("/nonexistent-dir/trace.txt"), std::runtime_error,
                    "cannot open trace file /nonexistent-dir/trace.txt: No such file or directory");
}

}  // namespace
