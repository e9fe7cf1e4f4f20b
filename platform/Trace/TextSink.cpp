#include "Trace/TextSink.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Trace/Line.h"

namespace Trace {

namespace {
constinit StderrSink gStderrSink;
}  // namespace

namespace detail {
constinit TextSink* gTextSink = &gStderrSink;
}  // namespace detail

namespace {
// LEDRA_TRACE_TEXT=off starts the process without text output: traces still go to the ring. The
// library is loaded before anything that traces, so this runs before the first trace.
[[maybe_unused]] bool const gTextFromEnvironment = [] {
  char const* const value = std::getenv(kTextEnvironmentVariable);
  if (value != nullptr && std::string_view(value) == "off") detail::gTextSink = nullptr;
  return true;
}();
}  // namespace

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
