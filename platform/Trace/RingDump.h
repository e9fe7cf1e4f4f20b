// The ring dump file: everything needed to turn a ring's records into text in another process.
//
// Layout (native byte order; the magic tells a dump from anything else):
//   "LEDRARNG"  u32 version (1)
//   f64 ticks per second   u64 anchor ticks   f64 anchor seconds       (the TickCalibration)
//   u32 call-site count, then per call site:
//       u8 level  u16 facility length, facility  u32 format length, format  u8 argument count,
//       one ArgKind byte per argument
//   u64 record bytes, then the ring's records oldest first, back to back (no lap-end marks)
// A dump is outside input to the reader: anything that does not add up raises DumpError with a
// fixed description, and no line is returned.
//
// Threading: one thread.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Trace/Clock.h"
#include "Trace/Line.h"
#include "Trace/RecordDecoder.h"
#include "Trace/SiteTable.h"

namespace Trace {

class Ringlog;

class RingDump {
 public:
  static constexpr std::string_view kMagic = "LEDRARNG";
  static constexpr std::uint32_t kVersion = 1;

  static std::string bytesOf(Ringlog const& ring, std::span<Site const> sites,
                             TickCalibration const& calibration);
  static std::vector<Line> linesOf(std::string_view bytes);

  // File access; both throw DumpError naming the path and the system's reason on failure.
  static void write(std::string const& path, std::string_view bytes);
  static std::vector<Line> read(std::string const& path);
};

}  // namespace Trace
