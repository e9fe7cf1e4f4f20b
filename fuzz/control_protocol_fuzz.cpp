// The control socket's protocol: a request line as a client may send it decodes into words that
// encode back to the same line (when they can be sent at all), a reply text either is refused
// or decodes into a reply that encodes and decodes to itself, and a line of a watch stream either
// is refused or decodes into a record that encodes and decodes to itself.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/WatchRecord.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  auto const words = Ledrad::decodeRequest(text);
  try {
    std::string const line = Ledrad::encodeRequest(words);
    auto const again = Ledrad::decodeRequest(std::string_view(line).substr(0, line.size() - 1));
    FUZZ_CHECK(again == words);
  } catch (std::invalid_argument const&) {
  }
  try {
    Ledrad::ControlReply const reply = Ledrad::decodeReply(text);
    Ledrad::ControlReply const again = Ledrad::decodeReply(Ledrad::encodeReply(reply));
    FUZZ_CHECK(again.ok == reply.ok && again.text == reply.text);
  } catch (std::runtime_error const&) {
  }
  try {
    Ledrad::WatchLine const line = Ledrad::decodeWatchLine(text);
    if (line.kind == Ledrad::WatchLine::agent) {
      std::string const encoded = Ledrad::watchLine(line.record);
      auto const again =
          Ledrad::decodeWatchLine(std::string_view(encoded).substr(0, encoded.size() - 1));
      FUZZ_CHECK(again.kind == line.kind && again.record == line.record);
    }
  } catch (std::runtime_error const&) {
  }
  return 0;
}
