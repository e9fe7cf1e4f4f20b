// A profile file with arbitrary content: it is refused with a FileError whose every problem names a
// line of the file, or it parses and applies to an empty profile directory, and applying it a
// second time changes nothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzCheck.h"
#include "PassiveEntityManager/ModelFactories.h"
#include "apps/ledrad/FileError.h"
#include "apps/ledrad/ProfileFile.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  int const lines = 1 + static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  try {
    Ledrad::ProfileFile const file = Ledrad::ProfileFile::parse(text, "fuzz.profile");
    auto dir = Ledra::passiveAgentProfileDirFactory(Qel::Name("profiles"));
    file.applyTo(*dir);
    auto const again = file.applyTo(*dir);
    FUZZ_CHECK(again.profilesCreated == 0 && again.profilesUpdated == 0);
  } catch (Ledrad::FileError const& e) {
    FUZZ_CHECK(e.file() == "fuzz.profile");
    FUZZ_CHECK(!e.problems().empty() &&
               e.problems().size() <= Ledrad::FileProblems::kMaxProblems + 1);
    for (auto const& p : e.problems()) {
      FUZZ_CHECK(p.line >= 0 && p.line <= lines);
      FUZZ_CHECK(!p.reason.empty());
    }
  }
  return 0;
}
