// Turns ring records back into text lines.
//
// Works on records of the live ring and on records read from a dump file, which come from outside
// the process: every size, call-site index, argument length and format is checked, and a record
// that does not add up raises DumpError with a fixed description instead of being read past its
// end. Formatting goes through the same code as the text lines of Duolog.
//
// Threading: one thread.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

#include "Trace/ArgValue.h"
#include "Trace/Clock.h"
#include "Trace/Line.h"
#include "Trace/SiteTable.h"

namespace Trace {

// A ring dump or record that cannot be read; what() says why.
class DumpError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class RecordDecoder {
 public:
  RecordDecoder(std::span<Site const> sites, TickCalibration const& calibration);

  // One whole record, starting with its size field.
  Line decode(std::span<std::uint8_t const> record) const;

 private:
  std::span<Site const> sites_;
  TickCalibration calibration_;
};

}  // namespace Trace
