// The text forms of the engine's State and ReadyMountGroupCompoundIndex read from arbitrary text:
// a text is refused with ParseException or RangeException, or the value read prints to a text
// that reads back to the same value.
#include <cstddef>
#include <cstdint>

#include "FuzzCheck.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "Qel/Core/Exception.h"

namespace {

using Engine = Ledra::PassiveEntityManagerSm;

template <class T>
void roundTrip(Qel::String const& text) {
  try {
    T const value = Ledra::strepToValue<T>(text);
    FUZZ_CHECK(Ledra::strepToValue<T>(Ledra::valueToStrep(value)) == value);
  } catch (Qel::ParseException const&) {
  } catch (Qel::RangeException const&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  Qel::String const text(reinterpret_cast<char const*>(data), size);
  roundTrip<Engine::State>(text);
  roundTrip<Engine::ReadyMountGroupCompoundIndex>(text);
  return 0;
}
