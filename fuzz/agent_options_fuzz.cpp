// ledra-agent's command line, as arbitrary arguments (the input split at NUL bytes): it is
// refused with AgentOptionsError and a one-line reason, or it yields options with a socket and a
// name.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "apps/agent/AgentOptions.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::vector<std::string> const args = fuzzArguments(data, size);
  try {
    LedraAgent::AgentOptions const options = LedraAgent::parseAgentOptions(args);
    FUZZ_CHECK(options.help || (!options.socketPath.empty() && !options.name.empty()));
  } catch (LedraAgent::AgentOptionsError const& e) {
    std::string_view const reason = e.what();
    FUZZ_CHECK(!reason.empty() && reason.find('\n') == std::string_view::npos);
  }
  return 0;
}
