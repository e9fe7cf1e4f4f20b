#include "apps/ledrad/CrashDump.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "Check/Check.h"
#include "Trace/Ringlog.h"

namespace Ledrad {

namespace {

// Made before any failure, so that dumping allocates as little as it can.
std::string& dumpPath() {
  static std::string path;
  return path;
}

void dumpRing() {
  std::string const& path = dumpPath();
  if (path.empty()) return;
  std::error_code ec;
  if (std::filesystem::exists(path, ec)) {
    std::fprintf(stderr, "ledrad: trace ring not written: %s exists\n", path.c_str());
    return;
  }
  try {
    Trace::Ringlog::global().dumpTo(path);
    std::fprintf(stderr, "ledrad: trace ring written to %s (read it with ringlog-decode)\n",
                 path.c_str());
  } catch (std::exception const& e) {
    std::fprintf(stderr, "ledrad: trace ring not written: %s\n", e.what());
  }
  std::fflush(stderr);
}

[[noreturn]] void terminated() {
  std::string what = "an exception nobody caught";
  try {
    if (auto const e = std::current_exception()) std::rethrow_exception(e);
  } catch (std::exception const& e) {
    what += ": " + std::string(e.what());
  } catch (...) {
  }
  std::fprintf(stderr, "ledrad: terminated by %s\n", what.c_str());
  dumpRing();
  std::abort();
}

}  // namespace

void dumpTraceRingOnFatalError(std::string const& path) {
  dumpPath() = path;
  Check::failureHookIs(dumpRing);
  std::set_terminate(terminated);
}

}  // namespace Ledrad
