#include "Trace/FileSink.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Trace/Line.h"

namespace Trace {

FileSink::FileSink(std::string const& path) : path_(path), file_(std::fopen(path.c_str(), "a")) {
  if (file_ == nullptr) {
    throw std::runtime_error("cannot open trace file " + path + ": " + std::strerror(errno));
  }
}

FileSink::~FileSink() {
  if (textSink() == this) textSinkIs(&StderrSink::instance());
  std::fclose(file_);
}

void FileSink::lineIs(double seconds, std::string_view facility, int level,
                      std::string_view message) {
  std::string text = Line::textOf(seconds, facility, level, message);
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), file_);
  std::fflush(file_);
}

}  // namespace Trace
