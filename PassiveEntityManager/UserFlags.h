// Ledra::UserFlags: the flag letters of a mount profile as the profile writes them ("rD", "wDB").
// A directory mounter is built from these letters and an entity type name, both texts; with the
// letters in their own type a call that swaps the two does not compile. Converted explicitly from
// text; the letters are kept as written (interned: a profile has few distinct sets of letters),
// for traces and text forms, and are all the value holds: one word, so that a mount profile, of
// which every agent keeps one per path, stays small. Asking for a letter reads the letters, a few
// characters. A plain value, compared by its letters.
#pragma once

#include <string_view>

#include "Qel/Containers/InternedText.h"
#include "Qel/Core/Types.h"

namespace Ledra {

class UserFlags {
 public:
  UserFlags() = default;
  explicit UserFlags(std::string_view letters) : letters_(letters) {}

  Qel::String const& letters() const { return letters_.str(); }
  // Whether `c` is among them; only characters from 'A' to 'z' count as flags, so any other
  // character is never among them.
  bool has(char c) const {
    if (c < kFirst || c > kLast) return false;
    for (char const l : letters())
      if (l == c) return true;
    return false;
  }

  friend bool operator==(UserFlags const& a, UserFlags const& b) {
    return a.letters_ == b.letters_;
  }

 private:
  static constexpr char kFirst = 'A';
  static constexpr char kLast = 'z';

  Qel::InternedText letters_;
};

}  // namespace Ledra
