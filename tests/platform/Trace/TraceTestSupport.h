// Shared pieces of the trace tests: two facilities, a simulated clock and a fixture that leaves
// the process-wide trace state as it found it.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Trace/CaptureSink.h"
#include "Trace/Clock.h"
#include "Trace/Facilities.h"
#include "Trace/Trace.h"

TRACE_FACILITY(TraceTest);
TRACE_FACILITY(TraceOther);

namespace TraceTesting {

// The simulated time source: tests set it, nothing advances it behind their back.
inline double gSimulatedSeconds = 0;
inline double simulatedNow() {
  return gSimulatedSeconds;
}

// Collects what is written to a FILE* in memory.
class MemoryFile {
 public:
  MemoryFile() : file_(open_memstream(&data_, &size_)) {}
  ~MemoryFile() {
    std::fclose(file_);
    std::free(data_);
  }
  MemoryFile(MemoryFile const&) = delete;
  MemoryFile& operator=(MemoryFile const&) = delete;
  std::FILE* file() { return file_; }
  std::string text() {
    std::fflush(file_);
    return std::string(data_, size_);
  }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* file_;
};

// A path under the test temporary folder, removed again on destruction.
struct TempPath {
  explicit TempPath(std::string const& name)
      : path(testing::TempDir() + "trace_test_" + std::to_string(::getpid()) + "_" + name) {
    std::remove(path.c_str());
  }
  ~TempPath() { std::remove(path.c_str()); }
  std::string const path;
};

inline std::string readFile(std::string const& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

inline std::vector<std::string> messagesOf(std::vector<Trace::Line> const& lines) {
  std::vector<std::string> messages;
  for (Trace::Line const& line : lines)
    messages.push_back(line.message);
  return messages;
}

// Every facility off, an empty ring of the given size, the simulated clock at 12.25 s and a
// capture sink installed; all of it undone afterwards.
class TraceFixture : public testing::Test {
 protected:
  explicit TraceFixture(std::size_t ringCapacity = Trace::Ringlog::kDefaultCapacity) {
    Trace::Facilities::instance().reset();
    Trace::Ringlog::global().capacityIs(ringCapacity);
    gSimulatedSeconds = 12.25;
    Trace::timeSourceIs(&simulatedNow);
  }
  ~TraceFixture() override {
    Trace::timeSourceIs(nullptr);
    Trace::Ringlog::global().capacityIs(Trace::Ringlog::kDefaultCapacity);
    Trace::Facilities::instance().reset();
  }

  static std::vector<Trace::Line> ring() { return Trace::Ringlog::global().decode(); }
  static std::vector<std::string> ringMessages() { return messagesOf(ring()); }

  Trace::CaptureSink capture_;
};

}  // namespace TraceTesting
