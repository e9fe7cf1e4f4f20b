// Ledrad::dumpTraceRingOnFatalError: when ledrad dies of a failed check or an exception nobody
// caught, the trace ring holds the story of its last moments; this leaves it behind.
//
// After the call, a failed QEL_CHECK (through Check's failure hook) or std::terminate writes the
// global trace ring to `path` (never over a file that stands: a later crash of the same pid is
// not expected) and tells "ledrad: trace ring written to PATH (read it with ringlog-decode)" on
// the standard error stream before the process aborts. A dump that cannot be written is told too.
// Call it once, on the main thread, before serving; the path is kept in static storage.
#pragma once

#include <string>

namespace Ledrad {

void dumpTraceRingOnFatalError(std::string const& path);

}  // namespace Ledrad
