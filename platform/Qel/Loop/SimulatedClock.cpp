#include "Qel/Loop/SimulatedClock.h"

#include <cmath>

#include "Check/Check.h"

namespace Qel {

SimulatedClock::SimulatedClock(Time start) : now_(start) {
  QEL_CHECK(std::isfinite(start), "std::isfinite(start) && \"simulated time must be finite\"");
}

void SimulatedClock::nowIs(Time t) {
  QEL_CHECK(std::isfinite(t), "std::isfinite(t) && \"simulated time must be finite\"");
  QEL_CHECK(t >= now_, "t >= now_ && \"simulated time moved backwards\"");
  QEL_CHECK(!moving_, "!moving_ && \"simulated time moved from inside one of its timers\"");
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
