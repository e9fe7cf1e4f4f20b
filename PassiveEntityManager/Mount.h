// Ledra::Mount: one mount profile: a database path (which may hold template keys), the type name
// of the entity found there, and the mount flags (as text, and read once into UserFlags). A plain
// value, compared by all three fields; registered with the reflection as "Ledra::Mount". The path
// and the type name are interned: the mounts of many agents share them.
//
// mountRequestLetters() gives the flag letters of the request that mounts it on an agent.
#pragma once

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/UserFlags.h"
#include "Qel/Containers/InternedText.h"
#include "Qel/Core/Types.h"
#include "Qel/Mount/MountFlags.h"
#include "Qel/Reflection/BoxedValue.h"

namespace Ledra {

class LEDRA_PEM_EXPORT Mount {
 public:
  static constexpr bool kQelValueType = true;

  Mount() = default;
  Mount(std::string_view path, std::string_view type, Qel::String flags)
      : path_(path), type_(type), flags_(std::move(flags)) {}
  Mount(std::string_view path, std::string_view type, UserFlags flags)
      : path_(path), type_(type), flags_(std::move(flags)) {}
  Mount(Qel::InternedText path, Qel::InternedText type, UserFlags flags)
      : path_(std::move(path)), type_(std::move(type)), flags_(std::move(flags)) {}

  Qel::String const& path() const { return path_; }
  Qel::String const& type() const { return type_; }
  Qel::InternedText const& internedPath() const { return path_; }
  Qel::InternedText const& internedType() const { return type_; }
  Qel::String flags() const { return flags_.letters(); }
  UserFlags const& userFlags() const { return flags_; }
  bool empty() const { return path_.empty() && type_.empty() && flags_.letters().empty(); }

  friend bool operator==(Mount const&, Mount const&) = default;
  // A collection of mounts is keyed by path; what refuses a mount stored under another key.
  friend Qel::InternedText const& qelKey(Mount const& m) { return m.path_; }
  friend char const* qelKeyMismatch(Mount const&) { return "mount profile keyed by another path"; }

  // "path (type) flags"
  Qel::String text() const;
  static Qel::QelType const* staticType();

 private:
  Qel::InternedText path_;
  Qel::InternedText type_;
  UserFlags flags_;
};

// The letters of the mount request for a mount with the profile letters `userFlags`, for an agent
// whose profile has the root flags `rootFlags`: "w" (writable) for a writable mount once write
// mounts are granted, or for one forced ("f") before; else "C" (read-only now; a writable mount
// is mounted again with "w" once write mounts are granted); then "i" and "S" when the profile asks
// for them; then the suffix "p" when the root flags hold "N", else "np".
LEDRA_PEM_EXPORT Qel::String mountRequestLetters(UserFlags const& userFlags,
                                                 UserFlags const& rootFlags,
                                                 bool writeMountsGranted);
// The same request as flags, `rootFlagN` telling whether the root flags hold "N"; its text() is
// mountRequestLetters().
LEDRA_PEM_EXPORT Qel::MountFlags mountRequestFlags(UserFlags const& userFlags, bool rootFlagN,
                                                   bool writeMountsGranted);

}  // namespace Ledra
