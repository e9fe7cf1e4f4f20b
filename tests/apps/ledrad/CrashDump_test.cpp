// A ledrad that dies of a failed check or of an exception nobody caught leaves its trace ring.
#include "apps/ledrad/CrashDump.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "Check/Check.h"
#include "PassiveEntityManager/TraceFacility.h"
#include "Trace/RingDump.h"

namespace Ledrad {
namespace {

namespace fs = std::filesystem;

class CrashDumpDeathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir_);
    fs::remove(path_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Dies the way `fail` does, after the ring holds a line only this test writes.
  template <class Fail>
  static void dieAfterLastWords(std::string const& path, Fail fail) {
    dumpTraceRingOnFatalError(path);
    LEDRA_TRACE_FACILITY(PassiveEntityManager).levelIs(9);
    RINGLOG(PassiveEntityManager, 2, "last words {}", 42);
    fail();
  }
  // Whether the dump the dead child left holds its last words.
  bool dumpHoldsLastWords() const {
    for (auto const& line : Trace::RingDump::read(path_))
      if (line.text().ends_with("last words 42")) return true;
    return false;
  }

  fs::path const dir_ = fs::temp_directory_path() / ("crash-dump-" + std::to_string(::getpid()));
  std::string const path_ = (dir_ / "ledrad.ringlog").string();
};

TEST_F(CrashDumpDeathTest, AFailedCheckOrAnExceptionNobodyCaughtLeavesTheRing) {
  EXPECT_DEATH(dieAfterLastWords(path_, [] { QEL_CHECK(false, "dying"); }),
               "Assertion failed: dying, (.|\n)*ledrad: trace ring written to " + path_ +
                   " \\(read it with ringlog-decode\\)");
  EXPECT_TRUE(dumpHoldsLastWords());
  // Never over a file that stands.
  EXPECT_DEATH(dieAfterLastWords(path_, [] { QEL_CHECK(false, "dying"); }),
               "ledrad: trace ring not written: " + path_ + " exists");
  fs::remove(path_);
  // Out of a function that may not throw, as from the event loop's callbacks.
  static auto const thrower = [] { throw std::runtime_error("boom"); };
  EXPECT_DEATH(dieAfterLastWords(path_, []() noexcept { thrower(); }),
               "ledrad: terminated by an exception nobody caught: boom\nledrad: trace ring "
               "written to " +
                   path_);
  EXPECT_TRUE(dumpHoldsLastWords());
}

}  // namespace
}  // namespace Ledrad
