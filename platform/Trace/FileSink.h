// A text sink that appends trace lines to a file, one "<seconds> <facility>/<level> <message>"
// line each, flushed at once so that nothing is lost when the process dies.
//
// Creating a FileSink opens the file but does not install it; install it with textSinkIs().
// Destroying a FileSink that is still installed puts the standard error sink back.
//
// Threading: one thread.
#pragma once

#include <cstdio>
#include <string>

#include "Trace/TextSink.h"

namespace Trace {

class FileSink : public TextSink {
 public:
  // Throws std::runtime_error "cannot open trace file <path>: <reason>" when it cannot.
  explicit FileSink(std::string const& path);
  ~FileSink() override;
  FileSink(FileSink const&) = delete;
  FileSink& operator=(FileSink const&) = delete;

  std::string const& path() const { return path_; }

  void lineIs(double seconds, std::string_view facility, int level,
              std::string_view message) override;

 private:
  std::string path_;
  std::FILE* file_;
};

}  // namespace Trace
