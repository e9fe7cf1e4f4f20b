// Basic types of the Qel entity framework.
//
// String (also spelled String8) is the framework's text type and Name the type of entity names and
// collection keys. They are distinct C++ types, so that the reflection and overloads can tell them
// apart, but both are std::string underneath and convert into each other implicitly.
#pragma once

#include "Qel/Core/Api.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>

namespace Qel {

using U8 = unsigned char;
using S8 = signed char;
using U16 = unsigned short;
using S16 = short;
using U32 = unsigned int;
using S32 = int;
using U64 = unsigned long long;
using S64 = long long;
using F32 = float;
using F64 = double;

// Identifies an attribute of an entity type: its position in the type's declaration order.
using AttributeId = unsigned int;
inline constexpr AttributeId kNoAttribute = std::numeric_limits<AttributeId>::max();

// Seconds on a Clock.
using Time = double;
inline constexpr Time kNever = std::numeric_limits<Time>::infinity();

class QEL_API String : public std::string {
 public:
  using std::string::string;
  String() = default;
  String(std::string const& s) : std::string(s) {}
  String(std::string&& s) : std::string(std::move(s)) {}
  String(std::string_view s) : std::string(s) {}
};
using String8 = String;

class QEL_API Name : public std::string {
 public:
  using std::string::string;
  Name() = default;
  Name(std::string const& s) : std::string(s) {}
  Name(std::string&& s) : std::string(std::move(s)) {}
  Name(std::string_view s) : std::string(s) {}
};

}  // namespace Qel

template <>
struct std::hash<Qel::String> {
  std::size_t operator()(Qel::String const& s) const noexcept {
    return std::hash<std::string_view>()(s);
  }
};
template <>
struct std::hash<Qel::Name> {
  std::size_t operator()(Qel::Name const& s) const noexcept {
    return std::hash<std::string_view>()(s);
  }
};
