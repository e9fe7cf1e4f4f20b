// The ringlog-decode program, run in-process on dump files.
#include "Trace/DecodeTool.h"

#include <string>
#include <vector>

#include "Trace/RingDump.h"
#include "TraceTestSupport.h"

namespace {

using TraceTesting::MemoryFile;
using TraceTesting::TempPath;

class TraceDecodeToolTest : public TraceTesting::TraceFixture {
 protected:
  TraceDecodeToolTest() : TraceFixture(Trace::Ringlog::kMinCapacity) {
    LEDRA_TRACE_FACILITY(TraceTest).levelIs(9);
  }
  int run(std::vector<char const*> const& args) {
    return Trace::ringlogDecodeMain(static_cast<int>(args.size()), args.data(), out_.file(),
                                    err_.file());
  }
  MemoryFile out_;
  MemoryFile err_;
};

TEST_F(TraceDecodeToolTest, PrintsTheTextLinesOfAWrappedDump) {
  for (int i = 0; i < 1500; ++i)
    TRACE(TraceTest, 4, "tool line {} of {}", i, "many");
  TempPath const file("tool.bin");
  Trace::Ringlog::global().dumpTo(file.path);
  ASSERT_EQ(run({"ringlog-decode", file.path.c_str()}), 0);
  std::string expected;
  for (Trace::Line const& line : Trace::RingDump::read(file.path))
    expected += line.text() + "\n";
  EXPECT_EQ(out_.text(), expected);
  EXPECT_TRUE(out_.text().ends_with("TraceTest/4 tool line 1499 of many\n"));
  EXPECT_EQ(err_.text(), "");
}

TEST_F(TraceDecodeToolTest, UsageUnreadableAndDamagedDumpsAreReportedAndPrintNothing) {
  EXPECT_EQ(run({"ringlog-decode", "a", "b"}), 2);
  EXPECT_EQ(run({"ringlog-decode", "/nonexistent-dir/x.bin"}), 1);
  TempPath const file("damaged.bin");
  TRACE(TraceTest, 1, "some {}", 1);
  Trace::Ringlog::global().dumpTo(file.path);
  std::string bytes = TraceTesting::readFile(file.path);
  bytes.pop_back();
  Trace::RingDump::write(file.path, bytes);
  EXPECT_EQ(run({"x", file.path.c_str()}), 1);
  EXPECT_EQ(err_.text(),
            "usage: ringlog-decode <dump file>\n"
            "ringlog-decode: /nonexistent-dir/x.bin: cannot read "
            "/nonexistent-dir/x.bin: No such file or directory\n"
            "ringlog-decode: " +
                file.path + ": dump is truncated in the records\n");
  EXPECT_EQ(out_.text(), "");
  EXPECT_EQ(run({"ringlog-decode", "--help"}), 0);
  EXPECT_TRUE(out_.text().starts_with("usage: ringlog-decode <dump file>\nPrints the trace lines"));
}

}  // namespace
