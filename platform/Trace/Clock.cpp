#include "Trace/Clock.h"

#include <chrono>

namespace Trace {

namespace {

TimeSource gTimeSource = &Clock::steadySeconds;

struct Reference {
  std::uint64_t ticks;
  std::uint64_t nanoseconds;
};

// The first pair of readings; the longer the process runs, the more exact the frequency derived
// from it. Taken during static initialisation, or at first use if that comes earlier.
Reference const& startReference() {
  static Reference const reference{Clock::ticks(), Clock::steadyNanoseconds()};
  return reference;
}

[[maybe_unused]] Reference const& gStartReference = startReference();

}  // namespace

void timeSourceIs(TimeSource source) {
  gTimeSource = source != nullptr ? source : &Clock::steadySeconds;
}

TimeSource timeSource() {
  return gTimeSource;
}

double now() {
  return gTimeSource();
}

std::uint64_t Clock::steadyNanoseconds() {
  auto const since = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(since).count());
}

double Clock::steadySeconds() {
  return static_cast<double>(steadyNanoseconds()) * 1e-9;
}

double Clock::ticksPerSecond() {
#if defined(__x86_64__) || defined(__i386__)
  Reference const& start = startReference();
  std::uint64_t const ticksNow = ticks();
  std::uint64_t const nanosecondsNow = steadyNanoseconds();
  if (ticksNow <= start.ticks || nanosecondsNow <= start.nanoseconds) return 1e9;
  return static_cast<double>(ticksNow - start.ticks) * 1e9 /
         static_cast<double>(nanosecondsNow - start.nanoseconds);
#else
  return 1e9;
#endif
}

TickCalibration Clock::calibration() {
  TickCalibration calibration;
  calibration.ticksPerSecond = ticksPerSecond();
  calibration.anchorTicks = ticks();
  calibration.anchorSeconds = now();
  return calibration;
}

}  // namespace Trace
