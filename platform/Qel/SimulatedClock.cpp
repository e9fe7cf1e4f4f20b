#include "Qel/SimulatedClock.h"

#include <cmath>

#include "Qel/Assert.h"

namespace Qel {

SimulatedClock::SimulatedClock(Time start) : now_(start) {
  QEL_ASSERT(std::isfinite(start) && "simulated time must be finite");
}

void SimulatedClock::nowIs(Time t) {
  QEL_ASSERT(std::isfinite(t) && "simulated time must be finite");
  QEL_ASSERT(t >= now_ && "simulated time moved backwards");
  QEL_ASSERT(!moving_ && "simulated time moved from inside one of its timers");
  moving_ = true;
  struct Reset {
    bool& flag;
    ~Reset() { flag = false; }
  } reset{moving_};
  fireUpTo(t);
  now_ = t;
}

void SimulatedClock::firingTimeIs(Time t) {
  if (t > now_) now_ = t;
}

}  // namespace Qel
