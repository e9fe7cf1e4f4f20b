// One trace line: when, which facility and level, and the message.
//
// The text form is "<seconds with 6 decimals> <facility>/<level> <message>", e.g.
// "12.000250 Orn/2 timer armed". The capture sink and the ring decoder both hand out Lines, so
// tests compare the message, facility and level exactly and the time separately.
#pragma once

#include <string>
#include <string_view>

namespace Trace {

struct Line {
  double seconds = 0;
  std::string facility;
  int level = 0;
  std::string message;

  std::string text() const { return textOf(seconds, facility, level, message); }

  static std::string textOf(double seconds, std::string_view facility, int level,
                            std::string_view message);
};

}  // namespace Trace
