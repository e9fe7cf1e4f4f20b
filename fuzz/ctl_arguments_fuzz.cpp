// ledra-ctl's command line, as arbitrary arguments (the input split at NUL bytes): it is refused
// with a reason that prints as one line, or it yields a request the control protocol carries
// unchanged (encoded and decoded back to the same words), a socket and a usable timeout.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledra-ctl/CtlArguments.h"
#include "apps/ledrad/ControlProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::vector<std::string> const args = fuzzArguments(data, size);
  LedraCtl::CtlArguments options;
  try {
    options = LedraCtl::parseCtlArguments(args);
  } catch (LedraCtl::CtlArgumentsError const& e) {
    std::string_view const reason = e.what();
    FUZZ_CHECK(!reason.empty());
    FUZZ_CHECK(Qel::NboAttrLog::printableText(reason) == reason);
    return 0;
  }
  if (options.help) return 0;
  FUZZ_CHECK(!options.socket.empty());
  FUZZ_CHECK(std::isfinite(options.timeout) && options.timeout > 0);
  // The exchange waits about as long as asked: never less than a millisecond short of it, never
  // longer than the larger of the time asked and one millisecond.
  double const asked = options.timeout * 1000;
  double const millis = options.timeoutMillis();
  FUZZ_CHECK(millis >= 1);
  FUZZ_CHECK(millis > std::min(asked, 2147483647.0) - 1);
  FUZZ_CHECK(millis <= std::max(asked, 1.0));
  FUZZ_CHECK(!options.words.empty());
  // The words are the arguments from the command on; only file names change.
  FUZZ_CHECK(options.words.size() <= args.size());
  std::size_t const first = args.size() - options.words.size();
  bool const files = options.words[0] == "load-profiles" || options.words[0] == "load-state";
  for (std::size_t w = 0; w < options.words.size(); ++w) {
    if (files && w > 0 && !args[first + w].empty()) {
      FUZZ_CHECK(options.words[w].front() == '/');
      continue;
    }
    FUZZ_CHECK(options.words[w] == args[first + w]);
  }
  std::string const line = Ledrad::encodeRequest(options.words);
  FUZZ_CHECK(!line.empty() && line.back() == '\n');
  auto const again = Ledrad::decodeRequest(std::string_view(line).substr(0, line.size() - 1));
  // One empty word is the empty line, which ledrad answers as an empty request.
  if (options.words == std::vector<std::string>{""}) {
    FUZZ_CHECK(again.empty());
    return 0;
  }
  FUZZ_CHECK(again == options.words);
  return 0;
}
