// Sim::History: the last events of a run, printed when an invariant fails.
//
// A ring of the most recent lines (kCapacity unless told otherwise), each stamped with the step and
// the simulated time at which it was added. print() writes them oldest first. Single-threaded;
// print() may also be called from the handler of a fatal signal (it only reads the ring).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace Sim {

class History {
 public:
  static constexpr std::size_t kCapacity = 200;

  explicit History(std::size_t capacity = kCapacity) : lines_(capacity) {}

  void add(unsigned step, double time, std::string text);
  void print(std::FILE* out) const;
  void clear();

 private:
  std::vector<std::string> lines_;
  std::size_t next_ = 0;
  std::size_t size_ = 0;
};

}  // namespace Sim
