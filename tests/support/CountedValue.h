// Values for container tests: Counted counts its live instances and its copies; CopyThrows fails
// every copy, to show that a failed insertion leaves a container as it was.
#pragma once

#include <stdexcept>

namespace Ledra::test {

// A value that counts its live instances and its copies.
struct Counted {
  static inline int live = 0;
  static inline int copies = 0;
  static void reset() { live = copies = 0; }

  explicit Counted(int x) : v(x) { ++live; }
  Counted(Counted const& o) : v(o.v) {
    ++live;
    ++copies;
  }
  Counted(Counted&& o) noexcept : v(o.v) { ++live; }
  Counted& operator=(Counted const& o) {
    v = o.v;
    ++copies;
    return *this;
  }
  Counted& operator=(Counted&& o) noexcept {
    v = o.v;
    return *this;
  }
  ~Counted() { --live; }
  bool operator==(Counted const& o) const { return v == o.v; }

  int v;
};

// A value whose copy fails.
struct CopyThrows {
  explicit CopyThrows(int x) : v(x) {}
  CopyThrows(CopyThrows const&) { throw std::runtime_error("copy failed"); }
  CopyThrows(CopyThrows&&) noexcept = default;
  CopyThrows& operator=(CopyThrows&&) noexcept = default;
  int v;
};

}  // namespace Ledra::test
