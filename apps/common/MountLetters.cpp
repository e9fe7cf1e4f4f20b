#include "apps/common/MountLetters.h"

#include <vector>

namespace LedraApps {

std::string explainedMountLetters(std::string const& letters) {
  std::vector<std::string> parts;
  if (letters.find('w') != std::string::npos) parts.push_back("w: writable");
  if (letters.find('C') != std::string::npos) {
    parts.push_back("C: read-only now, made writable once writing is granted");
  }
  if (letters.find('i') != std::string::npos) parts.push_back("i: from the profile");
  if (letters.find('S') != std::string::npos) parts.push_back("S: from the profile");
  if (letters.ends_with("np")) {
    parts.push_back("np: the suffix of a profile whose root flags lack N");
  } else if (letters.ends_with('p')) {
    parts.push_back("p: the suffix of a profile whose root flags hold N");
  }
  std::string out;
  for (auto const& p : parts)
    out += (out.empty() ? "" : "; ") + p;
  return out.empty() ? "none" : out;
}

}  // namespace LedraApps
