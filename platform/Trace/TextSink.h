// Where the text lines of TRACE go.
//
// One text sink is installed at a time; by default the standard error sink, which writes
// "<seconds> <facility>/<level> <message>" lines to stderr. textSinkIs(nullptr) switches text
// output off, leaving the ring records only; so does the environment variable LEDRA_TRACE_TEXT=off
// at start-up (a run at high trace levels without megabytes of text). Sinks are not owned: whoever
// installs one keeps it alive while it is installed (CaptureSink and FileSink take care of this
// themselves).
//
// Threading: one thread.
#pragma once

#include <string_view>

namespace Trace {

inline constexpr char const* kTextEnvironmentVariable = "LEDRA_TRACE_TEXT";

class TextSink {
 public:
  virtual ~TextSink() = default;
  virtual void lineIs(double seconds, std::string_view facility, int level,
                      std::string_view message) = 0;
};

// Writes each line to the standard error stream.
class StderrSink : public TextSink {
 public:
  constexpr StderrSink() = default;
  static StderrSink& instance();
  void lineIs(double seconds, std::string_view facility, int level,
              std::string_view message) override;
};

namespace detail {
extern TextSink* gTextSink;
}  // namespace detail

inline TextSink* textSink() {
  return detail::gTextSink;
}

// Installs sink (nullptr: no text output) and returns the one it replaces.
TextSink* textSinkIs(TextSink* sink);

}  // namespace Trace
