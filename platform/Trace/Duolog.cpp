#include "Trace/Duolog.h"

#include <string>

#include "Trace/Clock.h"
#include "Trace/Facilities.h"
#include "Trace/FormatString.h"

namespace Trace {

namespace {

bool gWritingText = false;
bool gStartupReported = false;

// Marks the text sink busy for the life of one line, even if the sink throws.
class BusyScope {
 public:
  BusyScope() { gWritingText = true; }
  ~BusyScope() { gWritingText = false; }
  BusyScope(BusyScope const&) = delete;
  BusyScope& operator=(BusyScope const&) = delete;
};

}  // namespace

void Duolog::writeText(std::string_view facility, int level, std::string_view format,
                       std::span<ArgValue const> args) {
  TextSink* const sink = textSink();
  if (sink == nullptr || gWritingText) return;
  BusyScope const busy;
  if (!gStartupReported) {
    gStartupReported = true;
    Facilities::instance().reportStartupProblems();
  }
  std::string message;
  formatMessage(message, format, args);
  sink->lineIs(now(), facility, level, message);
}

}  // namespace Trace
