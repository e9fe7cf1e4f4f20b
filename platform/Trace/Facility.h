// A trace facility: a named switch with a level from 0 (off) to 9 (everything).
//
// A trace at level L (1..9) of a facility is written when L <= the facility's level. Declare each
// facility once, in a header, with TRACE_FACILITY(Name): it defines an inline variable that every
// translation unit shares and that TRACE(Name, ...) and RINGLOG(Name, ...) refer to. The variable
// has a mangled name so that a facility may share its name with a namespace, and is exported so
// that every shared library of the process refers to the same object.
//
// A facility registers itself with Facilities on construction, which gives it the level the
// settings in force assign to its name (LEDRA_TRACE or levelsAre()), and unregisters on
// destruction. The level is a single byte read inline by the trace macros.
//
// Threading: one thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Trace {

class Facility {
 public:
  static constexpr int kMaxLevel = 9;

  explicit Facility(std::string_view name);
  ~Facility();
  Facility(Facility const&) = delete;
  Facility& operator=(Facility const&) = delete;

  std::string const& name() const { return name_; }
  int level() const { return level_; }
  void levelIs(int level);  // 0..9, asserted

 private:
  std::uint8_t level_ = 0;
  std::string name_;
};

namespace detail {

// The only test a disabled trace pays for: one byte load and one predictable branch.
template <int Level>
inline bool enabled(Facility const& facility) {
  static_assert(Level >= 1 && Level <= Facility::kMaxLevel,
                "a trace level is 1..9 (level 0 switches a facility off)");
  return facility.level() >= Level;
}

}  // namespace detail

}  // namespace Trace

#define LEDRA_TRACE_FACILITY(name) ledraTraceFacility_##name
// Default visibility keeps one facility object per process even when a library that uses it is
// built with hidden visibility.
#define TRACE_FACILITY(name) \
  [[gnu::visibility("default")]] inline ::Trace::Facility LEDRA_TRACE_FACILITY(name)(#name)
