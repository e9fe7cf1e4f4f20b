// Qel::ConnectDesc: the connect descriptor of a mount, the key under which a mount table keeps
// the status of the mount of one path. Built from the mounted path (without query); ordered and
// hashed by it, printed as it. The path is interned: a descriptor is one shared pointer. A plain
// value, registered with the reflection as "Qel::ConnectDesc".
#pragma once

#include "Qel/Core/Api.h"

#include <compare>
#include <functional>

#include "Qel/Containers/InternedText.h"
#include "Qel/Core/Types.h"
#include "Qel/Reflection/BoxedValue.h"

namespace Qel {

class QEL_API ConnectDesc {
 public:
  static constexpr bool kQelValueType = true;

  ConnectDesc() = default;
  explicit ConnectDesc(std::string_view path) : path_(path) {}
  explicit ConnectDesc(InternedText path) : path_(std::move(path)) {}

  String const& path() const { return path_; }
  InternedText const& internedPath() const { return path_; }
  String text() const { return path_; }

  friend bool operator==(ConnectDesc const&, ConnectDesc const&) = default;
  friend std::strong_ordering operator<=>(ConnectDesc const& a, ConnectDesc const& b) {
    return a.path_ <=> b.path_;
  }

  static QelType const* staticType();

 private:
  InternedText path_;
};

// A record map keyed by path finds a descriptor's record by its interned path.
inline InternedText const& qelRecordKey(ConnectDesc const& cd) {
  return cd.internedPath();
}

}  // namespace Qel

template <>
struct std::hash<Qel::ConnectDesc> {
  std::size_t operator()(Qel::ConnectDesc const& cd) const noexcept {
    return cd.internedPath().hash();
  }
};
