#include "apps/common/MountLetters.h"

#include <vector>

namespace LedraApps {

std::string explainedMountLetters(std::string const& letters) {
  std::vector<std::string> meanings;
  if (letters.find('w') != std::string::npos) meanings.push_back("w: writable");
  if (letters.find('C') != std::string::npos) {
    meanings.push_back("C: read-only now, made writable once writing is granted");
  }
  if (letters.find('i') != std::string::npos) meanings.push_back("i: from the profile");
  if (letters.find('S') != std::string::npos) meanings.push_back("S: from the profile");
  if (letters.ends_with("np")) {
    meanings.push_back("np: the suffix of a profile whose root flags lack N");
  } else if (letters.ends_with('p')) {
    meanings.push_back("p: the suffix of a profile whose root flags hold N");
  }
  std::string out;
  for (auto const& p : meanings)
    out += (out.empty() ? "" : "; ") + p;
  return out.empty() ? "none" : out;
}

}  // namespace LedraApps
