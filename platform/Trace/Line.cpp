#include "Trace/Line.h"

#include <algorithm>
#include <cstdio>

namespace Trace {

std::string Line::textOf(double seconds, std::string_view facility, int level,
                         std::string_view message) {
  // Wide enough for any double in fixed notation ("%.6f" of 1e308 is about 320 characters).
  char stamp[400];
  int const n = std::snprintf(stamp, sizeof stamp, "%.6f ", seconds);
  std::string text(stamp, n > 0 ? std::min(static_cast<std::size_t>(n), sizeof stamp - 1) : 0);
  text += facility;
  text += '/';
  text += std::to_string(level);
  text += ' ';
  text += message;
  return text;
}

}  // namespace Trace
