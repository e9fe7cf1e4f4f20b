// One wake-up of a timer notifiee as the timer tests record it: who fired, and when.
#pragma once

#include <ostream>

#include "Qel/Core/Types.h"

namespace Ledra::test {

struct Firing {
  int id;
  Qel::Time at;
  bool operator==(Firing const&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, Firing const& f) {
  return os << "{" << f.id << " at " << f.at << "}";
}

}  // namespace Ledra::test
