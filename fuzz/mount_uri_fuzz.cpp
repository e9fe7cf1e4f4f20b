// Entity URIs and mount flag letters, as a mount request carries them: a text is refused with a
// ParseException or RangeException, or it parses, and its canonical form parses to the same URI
// and the same flags.
#include <cstddef>
#include <cstdint>

#include "FuzzCheck.h"
#include "Qel/Core/Exception.h"
#include "Qel/Mount/EntityUri.h"
#include "Qel/Mount/MountFlags.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Qel::String const text(reinterpret_cast<char const*>(data), size);
  try {
    Qel::MountFlags const flags = Qel::parseMountFlags(text);
    FUZZ_CHECK(Qel::parseMountFlags("flags=" + flags.text()) == flags);
  } catch (Qel::ParseException const&) {
  } catch (Qel::RangeException const&) {
  }
  try {
    Qel::EntityUri const uri(text);
    Qel::EntityUri const again(uri.text());
    FUZZ_CHECK(again == uri);
    Qel::MountFlags const flags = uri.flags();
    FUZZ_CHECK(Qel::MountFlags::fromLetters(flags.text()) == flags);
  } catch (Qel::ParseException const&) {
  } catch (Qel::RangeException const&) {
  }
  return 0;
}
