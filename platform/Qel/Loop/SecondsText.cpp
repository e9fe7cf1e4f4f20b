#include "Qel/Loop/SecondsText.h"

#include <cmath>

namespace Qel {

std::string secondsText(Time seconds) {
  if (seconds == std::floor(seconds) && seconds < 1e15) {
    return std::to_string(static_cast<long long>(seconds));
  }
  std::string s = std::to_string(seconds);
  while (!s.empty() && s.back() == '0')
    s.pop_back();
  return s;
}

}  // namespace Qel
