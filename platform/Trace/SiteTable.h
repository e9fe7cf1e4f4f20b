// The process-wide table of trace call sites: the format table of the ring.
//
// Every TRACE and RINGLOG call site owns one entry (facility name, level, format string and the
// kinds of its arguments); a ring record names its entry by index. Entries are added during static
// initialisation, one per call site (per instantiation when the call site is in a template), and
// never removed, so an index stays valid for the life of the process. The strings are views of the
// string literals of the call sites, so a library with call sites must stay loaded once loaded.
//
// Threading: one thread; static initialisation is single-threaded too.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Trace/ArgKind.h"
#include "Trace/FormatString.h"

namespace Trace {

struct Site {
  std::string_view facility;
  int level = 0;
  std::string_view format;
  std::span<ArgKind const> kinds;
};

class SiteTable {
 public:
  static SiteTable& instance();

  std::uint32_t add(Site const& site);  // returns the new entry's index
  std::span<Site const> sites() const { return sites_; }

 private:
  SiteTable() = default;
  std::vector<Site> sites_;
};

namespace detail {

template <class... Args>
inline constexpr std::array<ArgKind, sizeof...(Args)> kArgKinds{argKindOf<Args>()...};

template <std::size_t N>
constexpr bool hexFitsKinds(FormatShape const& shape, std::array<ArgKind, N> const& kinds) {
  for (std::size_t i = 0; i < N; ++i) {
    if (shape.hex[i] && !acceptsHex(kinds[i])) return false;
  }
  return true;
}

// Compile-time checks of a call site's format against its arguments.
template <class CallSite, class... Args>
constexpr bool checkCallSite() {
  constexpr FormatShape shape = shapeOf(CallSite::format());
  static_assert(shape.error != FormatError::UnmatchedOpen, "trace format: unmatched '{'");
  static_assert(shape.error != FormatError::UnmatchedClose,
                "trace format: unmatched '}' (write }} for a literal brace)");
  static_assert(shape.error != FormatError::BadSpec,
                "trace format: only {} and {:x} placeholders are supported");
  static_assert(shape.error != FormatError::TooManyFields && sizeof...(Args) <= kMaxArgs,
                "trace call: at most 16 arguments");
  static_assert(shape.fields == sizeof...(Args),
                "trace format: the number of placeholders differs from the number of arguments");
  static_assert(hexFitsKinds(shape, kArgKinds<Args...>),
                "trace format: {:x} applies only to integer, char and pointer arguments");
  return true;
}

// The entry of one call site, registered before main runs. CallSite is a local class the trace
// macros define at each call site; it supplies facility(), level() and format().
template <class CallSite, class... Args>
inline std::uint32_t const kSiteId = SiteTable::instance().add(Site{
    CallSite::facility(), CallSite::level(), CallSite::format(), kArgKinds<Args...>});

}  // namespace detail

}  // namespace Trace
