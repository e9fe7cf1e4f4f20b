// A state file with arbitrary content: it is refused with a FileError whose every problem names a
// line of the file, or it parses. Parsing checks against the types and the tree as they stand and
// changes neither, so inputs do not affect each other. (Applying is left to the tests: it registers
// types for the life of the process.)
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzCheck.h"
#include "apps/ledrad/FileError.h"
#include "apps/ledrad/StateFile.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  int const lines = 1 + static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  Ledrad::StateFile::Vars const vars{{"%sysname", "sys"}, {"%cellId", "1"}};
  try {
    (void)Ledrad::StateFile::parse(text, "fuzz.state", vars);
  } catch (Ledrad::FileError const& e) {
    FUZZ_CHECK(e.file() == "fuzz.state");
    FUZZ_CHECK(!e.problems().empty() &&
               e.problems().size() <= Ledrad::FileProblems::kMaxProblems + 1);
    for (auto const& p : e.problems()) {
      FUZZ_CHECK(p.line >= 0 && p.line <= lines);
      FUZZ_CHECK(!p.reason.empty());
    }
  }
  return 0;
}
