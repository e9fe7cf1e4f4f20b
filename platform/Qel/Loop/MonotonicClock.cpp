#include "Qel/Loop/MonotonicClock.h"

#include <time.h>

#include "Check/Check.h"

namespace Qel {

Time MonotonicClock::now() const {
  timespec ts{};
  int const rc = clock_gettime(CLOCK_MONOTONIC, &ts);
  QEL_CHECK(rc == 0, "rc == 0 && \"CLOCK_MONOTONIC is not available\"");
  return static_cast<Time>(ts.tv_sec) + static_cast<Time>(ts.tv_nsec) * 1e-9;
}

}  // namespace Qel
