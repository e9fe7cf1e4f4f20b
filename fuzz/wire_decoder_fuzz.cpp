// The agent wire protocol's decoder fed an arbitrary byte stream, cut into chunks where the first
// byte says: it either fails with a reason or yields messages, and every message it yields is
// framed again into a frame that decodes to the same message.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzCheck.h"
#include "Qel/NboAttrLog/WireMessage.h"

using Qel::NboAttrLog::WireDecoder;
using Qel::NboAttrLog::WireMessage;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  std::size_t const chunk = 1 + data[0] % 64;
  std::string_view bytes(reinterpret_cast<char const*>(data + 1), size - 1);
  WireDecoder decoder(4096);
  while (!bytes.empty()) {
    std::size_t const n = bytes.size() < chunk ? bytes.size() : chunk;
    decoder.feed(bytes.substr(0, n));
    bytes.remove_prefix(n);
    WireMessage message;
    for (;;) {
      WireDecoder::Result const result = decoder.next(message);
      if (result != WireDecoder::Result::message) break;
      WireDecoder again;
      again.feed(Qel::NboAttrLog::wireFrame(message));
      WireMessage copy;
      FUZZ_CHECK(again.next(copy) == WireDecoder::Result::message);
      FUZZ_CHECK(copy == message);
      FUZZ_CHECK(again.buffered() == 0);
    }
    if (decoder.failed()) {
      FUZZ_CHECK(!decoder.error().empty());
      return 0;
    }
  }
  return 0;
}
