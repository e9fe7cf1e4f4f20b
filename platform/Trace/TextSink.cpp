#include "Trace/TextSink.h"

#include <cstdio>

#include "Trace/Line.h"

namespace Trace {

namespace {
constinit StderrSink gStderrSink;
}  // namespace

namespace detail {
constinit TextSink* gTextSink = &gStderrSink;
}  // namespace detail

StderrSink& StderrSink::instance() {
  return gStderrSink;
}

void StderrSink::lineIs(double seconds, std::string_view facility, int level,
                        std::string_view message) {
  std::string text = Line::textOf(seconds, facility, level, message);
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stderr);
}

TextSink* textSinkIs(TextSink* sink) {
  TextSink* const previous = detail::gTextSink;
  detail::gTextSink = sink;
  return previous;
}

}  // namespace Trace
