// LedraAgent::AgentOptions: the command line of ledra-agent.
//
//   ledra-agent --socket PATH --name NAME [--agent-string TEXT] [--fail PATH=TEXT]...
//               [--hold PATH]... [--version N] [--show]
//
// Each option takes its value as the next argument or after '=' ("--name=a"). --socket and
// --name are required; the agent string defaults to the name; --version (the protocol version
// announced in the hello) defaults to the present one, 5. --fail PATH=TEXT fails every mount of
// PATH with TEXT (split at the first '='); --hold PATH receives mounts of PATH but never answers
// them. --show (no value) prints what the agent holds at the end. A later --fail of the same path
// replaces an earlier one. parseAgentOptions throws
// AgentOptionsError with a one-line reason for anything else; --help is reported through `help`.
// A plain value.
#pragma once

#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Qel/Core/Types.h"

namespace LedraAgent {

class AgentOptionsError : public std::runtime_error {
 public:
  // The reason on one line: the arguments it quotes are shown in printable form.
  explicit AgentOptionsError(std::string const& why);
};

struct AgentOptions {
  std::string socketPath;
  std::string name;
  std::string agentString;
  std::map<std::string, std::string> failures;  // path -> exception text
  std::set<std::string> holds;
  Qel::U32 version = 5;
  bool show = false;
  bool help = false;
};

AgentOptions parseAgentOptions(std::vector<std::string> const& args);
// The usage text printed by --help and after a bad command line.
char const* agentUsage();

}  // namespace LedraAgent
