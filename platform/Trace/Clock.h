// Time for traces: the seconds printed on text lines, and the tick count stored in ring records.
//
// Text lines carry the seconds of a process-wide time source. By default it reads the monotonic
// steady clock; the framework installs its own clock with timeSourceIs() (tests install a simulated
// one). Reading the steady clock costs about 20 ns, twice the budget of a whole ring record, so a
// ring record stores the raw processor time-stamp counter instead (rdtsc, about 8 ns and
// nanosecond resolution; the coarse kernel clock would be cheaper but only ticks every few
// milliseconds). The decoder turns ticks back into seconds with a TickCalibration: the counter
// frequency, measured over the whole life of the process against the steady clock, and one anchor
// pair (ticks, time-source seconds) taken when the ring is decoded or dumped. Decoded times
// therefore follow the time source installed at decode time; with a simulated source they are
// offsets from its current value by real elapsed time.
//
// Threading: one thread; the time source is a plain global.
#pragma once

#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace Trace {

using TimeSource = double (*)();

// Installs the time source of text lines and decoded records; nullptr restores the default.
void timeSourceIs(TimeSource source);
TimeSource timeSource();

// Seconds according to the installed time source.
double now();

// Maps ticks of the counter to seconds of the time source.
struct TickCalibration {
  double ticksPerSecond = 1e9;
  std::uint64_t anchorTicks = 0;
  double anchorSeconds = 0;

  double secondsAt(std::uint64_t ticks) const {
    auto const delta = static_cast<std::int64_t>(ticks - anchorTicks);
    return anchorSeconds + static_cast<double>(delta) / ticksPerSecond;
  }
};

class Clock {
 public:
  // The raw counter stored in ring records.
  static std::uint64_t ticks() {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return steadyNanoseconds();
#endif
  }

  // Seconds of the steady clock: the default time source.
  static double steadySeconds();
  static std::uint64_t steadyNanoseconds();

  // Counter frequency measured from process start up to now.
  static double ticksPerSecond();

  // The frequency plus an anchor taken now against the installed time source.
  static TickCalibration calibration();
};

}  // namespace Trace
