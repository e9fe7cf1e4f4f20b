// The trace facility: the header call sites include.
//
//   TRACE_FACILITY(Orn);                          // once, in a header: declares facility Orn
//   TRACE(Orn, 2, "timer {} armed at {:x}", id, address);   // Duolog: text line + ring record
//   RINGLOG(Orn, 8, "tick {}", n);                           // ring record only
//   if (TRACE_ENABLED(Orn, 5)) { ... }                       // work done only for a trace
//
// A trace at level L (a constant 1..9) is written when L <= the facility's level (0..9, 0 = off;
// see Facilities for LEDRA_TRACE). The level is tested inline before anything else: a disabled
// trace costs one byte load and one predictable branch, and evaluates none of its arguments.
// Formats use {} and {:x} placeholders (FormatString); the format and the argument types are
// checked at compile time (ArgKind). Each call site defines a local class describing itself and
// registers one entry in the SiteTable before main runs.
//
// Threading: the whole process traces from one thread (its event loop); nothing is locked.
#pragma once

#include <string_view>

#include "Trace/Duolog.h"
#include "Trace/Facility.h"
#include "Trace/Ringlog.h"

#define LEDRA_TRACE_CALL_SITE(facility_, level_, format_)               \
  struct LedraTraceCallSite {                                           \
    static constexpr std::string_view facility() { return #facility_; } \
    static constexpr int level() { return level_; }                     \
    static constexpr std::string_view format() { return format_; }      \
  }

// Whether a trace of `facility_` at `level_` would be written now: for a call site whose
// arguments take work shared by several of them (computed once, before the TRACE).
#define TRACE_ENABLED(facility_, level_) \
  (::Trace::detail::enabled<(level_)>(LEDRA_TRACE_FACILITY(facility_)))

#define TRACE(facility_, level_, format_, ...)                                              \
  do {                                                                                      \
    if (::Trace::detail::enabled<(level_)>(LEDRA_TRACE_FACILITY(facility_))) [[unlikely]] { \
      LEDRA_TRACE_CALL_SITE(facility_, level_, format_);                                    \
      ::Trace::Duolog::write<LedraTraceCallSite>(__VA_ARGS__);                              \
    }                                                                                       \
  } while (false)

#define RINGLOG(facility_, level_, format_, ...)                                            \
  do {                                                                                      \
    if (::Trace::detail::enabled<(level_)>(LEDRA_TRACE_FACILITY(facility_))) [[unlikely]] { \
      LEDRA_TRACE_CALL_SITE(facility_, level_, format_);                                    \
      ::Trace::Ringlog::global().write<LedraTraceCallSite>(__VA_ARGS__);                    \
    }                                                                                       \
  } while (false)
