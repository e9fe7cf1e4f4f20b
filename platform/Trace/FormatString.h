// Trace format strings: literal text with {} and {:x} placeholders.
//
// "{}" takes the next argument in its natural form, "{:x}" in hex (integers, char and pointers
// only); "{{" and "}}" stand for literal braces. Nothing else may appear between braces. The same
// parser runs at compile time, where TRACE and RINGLOG reject a malformed format or a placeholder
// count that differs from the argument count, and at run time, where the decoder checks formats
// read from a dump file before using them.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "Trace/ArgKind.h"
#include "Trace/ArgValue.h"

namespace Trace {

enum class FormatError : std::uint8_t {
  None,
  UnmatchedOpen,   // a '{' without its '}'
  UnmatchedClose,  // a '}' that closes nothing
  BadSpec,         // something other than nothing or ":x" between braces
  TooManyFields,   // more than kMaxArgs placeholders
};

// The placeholders of a format: how many, and which of them ask for hex.
struct FormatShape {
  FormatError error = FormatError::None;
  std::size_t fields = 0;
  std::array<bool, kMaxArgs> hex{};
};

// Walks format, calling onText(std::string_view) for each run of literal text (possibly empty, with
// doubled braces already reduced to one) and onField(bool hex) for each placeholder, in order.
// Stops at the first error and returns it.
template <class OnText, class OnField>
constexpr FormatError walkFormat(std::string_view format, OnText&& onText, OnField&& onField) {
  std::size_t start = 0;
  std::size_t i = 0;
  while (i < format.size()) {
    char const c = format[i];
    if (c != '{' && c != '}') {
      ++i;
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == c) {
      onText(format.substr(start, i + 1 - start));
      i += 2;
      start = i;
      continue;
    }
    if (c == '}') return FormatError::UnmatchedClose;
    std::size_t const close = format.find('}', i);
    if (close == std::string_view::npos) return FormatError::UnmatchedOpen;
    std::string_view const option = format.substr(i + 1, close - i - 1);
    if (!option.empty() && option != ":x") return FormatError::BadSpec;
    onText(format.substr(start, i - start));
    onField(!option.empty());
    i = close + 1;
    start = i;
  }
  onText(format.substr(start));
  return FormatError::None;
}

constexpr FormatShape shapeOf(std::string_view format) {
  FormatShape shape;
  FormatError const error = walkFormat(
      format, [](std::string_view) {},
      [&shape](bool hex) {
        if (shape.fields < kMaxArgs) shape.hex[shape.fields] = hex;
        ++shape.fields;
      });
  shape.error = error;
  if (error == FormatError::None && shape.fields > kMaxArgs) {
    shape.error = FormatError::TooManyFields;
  }
  return shape;
}

// A fixed description of a format error, e.g. "unmatched '{'".
char const* formatErrorText(FormatError error);

// Appends the message that format and args make to out. The format must be well formed with
// exactly args.size() placeholders, and every {:x} must meet an argument that accepts hex.
void formatMessage(std::string& out, std::string_view format, std::span<ArgValue const> args);

}  // namespace Trace
