// Ledra::UserFlags: the flag letters of a mount profile as the profile writes them ("rD", "wDB"),
// in a type of their own. A directory mounter is built from these letters and an entity type
// name, both texts; with the letters in their own type a call that swaps the two does not
// compile. Converted explicitly in both directions. A plain value.
#pragma once

#include <utility>

#include "Qel/Types.h"

namespace Ledra {

class UserFlags {
 public:
  UserFlags() = default;
  explicit UserFlags(Qel::String letters) : letters_(std::move(letters)) {}

  Qel::String const& letters() const { return letters_; }

  friend bool operator==(UserFlags const&, UserFlags const&) = default;

 private:
  Qel::String letters_;
};

}  // namespace Ledra
