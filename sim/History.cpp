#include "sim/History.h"

namespace Sim {

void History::add(unsigned step, double time, std::string text) {
  char stamp[48];
  std::snprintf(stamp, sizeof stamp, "%6u %10.4f  ", step, time);
  lines_[next_] = stamp + std::move(text);
  next_ = (next_ + 1) % kCapacity;
  if (size_ < kCapacity) ++size_;
}

void History::print(std::FILE* out) const {
  std::fprintf(out, "history (last %zu events; step, simulated seconds):\n", size_);
  std::size_t const first = (next_ + kCapacity - size_) % kCapacity;
  for (std::size_t i = 0; i < size_; ++i)
    std::fprintf(out, "  %s\n", lines_[(first + i) % kCapacity].c_str());
}

void History::clear() {
  next_ = 0;
  size_ = 0;
}

}  // namespace Sim
