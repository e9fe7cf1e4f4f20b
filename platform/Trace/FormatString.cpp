#include "Trace/FormatString.h"

#include "Check/Check.h"

namespace Trace {

char const* formatErrorText(FormatError error) {
  switch (error) {
    case FormatError::None:
      return "well formed";
    case FormatError::UnmatchedOpen:
      return "unmatched '{'";
    case FormatError::UnmatchedClose:
      return "unmatched '}'";
    case FormatError::BadSpec:
      return "placeholder other than {} or {:x}";
    case FormatError::TooManyFields:
      return "more than 16 placeholders";
  }
  return "unknown format error";
}

void formatMessage(std::string& out, std::string_view format, std::span<ArgValue const> args) {
  std::size_t next = 0;
  FormatError const error = walkFormat(
      format, [&out](std::string_view text) { out += text; },
      [&](bool hex) {
        QEL_CHECK(next < args.size(),
                  "next < args.size() && \"trace format has more placeholders than arguments\"");
        args[next].appendTo(out, hex);
        ++next;
      });
  QEL_CHECK(error == FormatError::None, "error == FormatError::None && \"malformed trace format\"");
  QEL_CHECK(next == args.size(),
            "next == args.size() && \"trace format has fewer placeholders than arguments\"");
}

}  // namespace Trace
