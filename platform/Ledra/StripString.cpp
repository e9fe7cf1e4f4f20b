#include "Ledra/StripString.h"

namespace Ledra {

Qel::String stripString(Qel::String const& text, Qel::String const& chars) {
  Qel::String out;
  out.reserve(text.size());
  for (char c : text) {
    if (chars.find(c) == std::string::npos) out += c;
  }
  return out;
}

}  // namespace Ledra
