#include "sim/History.h"

namespace Sim {

void History::add(unsigned step, double time, std::string text) {
  char stamp[48];
  std::snprintf(stamp, sizeof stamp, "%6u %10.4f  ", step, time);
  lines_[next_] = stamp + std::move(text);
  next_ = (next_ + 1) % lines_.size();
  if (size_ < lines_.size()) ++size_;
}

void History::print(std::FILE* out) const {
  std::fprintf(out, "history (last %zu events; step, simulated seconds):\n", size_);
  std::size_t const first = (next_ + lines_.size() - size_) % lines_.size();
  for (std::size_t i = 0; i < size_; ++i)
    std::fprintf(out, "  %s\n", lines_[(first + i) % lines_.size()].c_str());
}

void History::clear() {
  next_ = 0;
  size_ = 0;
}

}  // namespace Sim
