// Duolog: one trace call, two outputs — a text line to the installed text sink and a record in
// the process-wide ring.
//
// The record is written first and always; the text line only while a text sink is installed. A
// trace written while the sink is busy with a line (a sink that traces, directly or not) keeps
// its record but gets no text line, so a sink can never recurse into itself. The text is
// formatted by the same code that decodes ring records, so both forms of a message are equal
// unless a string argument was cut in the record.
//
// Threading: one thread.
#pragma once

#include <array>
#include <span>
#include <string_view>

#include "Trace/ArgValue.h"
#include "Trace/Ringlog.h"
#include "Trace/TextSink.h"

namespace Trace {

class Duolog {
 public:
  template <class CallSite, class... Args>
  static void write(Args const&... args) {
    Ringlog::global().write<CallSite>(args...);
    if (textSink() == nullptr) return;
    std::array<ArgValue, sizeof...(Args)> const values{ArgValue::of(args)...};
    writeText(CallSite::facility(), CallSite::level(), CallSite::format(), values);
  }

  // Formats one line and hands it to the text sink (the format is checked by the caller).
  static void writeText(std::string_view facility, int level, std::string_view format,
                        std::span<ArgValue const> args);
};

}  // namespace Trace
