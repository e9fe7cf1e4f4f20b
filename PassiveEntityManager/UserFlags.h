// Ledra::UserFlags: the flag letters of a mount profile as the profile writes them ("rD", "wDB"),
// read once into a set, so that asking for a letter is one bit test. A directory mounter is built
// from these letters and an entity type name, both texts; with the letters in their own type a
// call that swaps the two does not compile. Converted explicitly from text; the letters are kept
// as written (interned: a profile has few distinct sets of letters), for traces and text forms.
// A plain value, compared by its letters.
#pragma once

#include <cstdint>
#include <utility>

#include "Qel/Containers/InternedText.h"
#include "Qel/Core/Types.h"

namespace Ledra {

class UserFlags {
 public:
  UserFlags() = default;
  explicit UserFlags(std::string_view letters) : letters_(letters) {
    for (char const c : letters) {
      if (c >= kFirst && c <= kLast) set_ |= bit(c);
    }
  }

  Qel::String const& letters() const { return letters_.str(); }
  // Whether `c` is among them; only characters from 'A' to 'z' are kept in the set, so any
  // other character is never among them.
  bool has(char c) const { return c >= kFirst && c <= kLast && (set_ & bit(c)) != 0; }

  friend bool operator==(UserFlags const& a, UserFlags const& b) {
    return a.letters_ == b.letters_;
  }

 private:
  static constexpr char kFirst = 'A';
  static constexpr char kLast = 'z';
  static_assert(kLast - kFirst < 64, "one bit per letter");
  static constexpr std::uint64_t bit(char c) { return std::uint64_t{1} << (c - kFirst); }

  Qel::InternedText letters_;
  std::uint64_t set_ = 0;
};

}  // namespace Ledra
