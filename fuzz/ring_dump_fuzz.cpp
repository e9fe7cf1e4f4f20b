// The trace ring dump reader (ringlog-decode's input) fed arbitrary bytes: it either raises
// DumpError with a description or returns lines; nothing is read past the input.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzCheck.h"
#include "Trace/RecordDecoder.h"
#include "Trace/RingDump.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const bytes(reinterpret_cast<char const*>(data), size);
  try {
    for (Trace::Line const& line : Trace::RingDump::linesOf(bytes))
      (void)line;
  } catch (Trace::DumpError const& e) {
    FUZZ_CHECK(*e.what() != '\0');
  }
  return 0;
}
