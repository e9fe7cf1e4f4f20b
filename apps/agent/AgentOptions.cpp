#include "AgentOptions.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "Qel/NboAttrLog/WireText.h"

namespace LedraAgent {

AgentOptionsError::AgentOptionsError(std::string const& why)
    : std::runtime_error(Qel::NboAttrLog::printableText(why)) {}

namespace {

Qel::U32 parseVersion(std::string const& text) {
  std::string const why = "--version needs a number from 1 to 4294967295, not '" + text + "'";
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    throw AgentOptionsError(why);
  }
  errno = 0;
  unsigned long long const v = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0 || v == 0 || v > std::numeric_limits<Qel::U32>::max()) {
    throw AgentOptionsError(why);
  }
  return static_cast<Qel::U32>(v);
}

}  // namespace

char const* agentUsage() {
  return "usage: ledra-agent --socket PATH --name NAME [--agent-string TEXT]\n"
         "                   [--fail PATH=TEXT]... [--hold PATH]... [--version N] [--show]\n"
         "Connects to the database at PATH as agent NAME, takes every mount it is sent into a\n"
         "local tree and answers it. Prints one line per event:\n"
         "  connected as NAME\n"
         "  mount SEQNO PATH flags=LETTERS type=TYPE\n"
         "  closed: REASON          (the database closed the connection; exit status 0)\n"
         "  lost connection         (exit status 1)\n"
         "On SIGTERM or SIGINT prints \"holds:\" and every path it holds, then exits with 0.\n"
         "  --agent-string TEXT  the agent string announced (default: NAME)\n"
         "  --fail PATH=TEXT     fail mounts of PATH with the exception text TEXT\n"
         "  --hold PATH          never answer mounts of PATH\n"
         "  --version N          the protocol version announced (default: 5)\n"
         "  --show               at the end, print every path it holds with its type, its flags\n"
         "                       explained and its attribute values\n";
}

AgentOptions parseAgentOptions(std::vector<std::string> const& args) {
  AgentOptions o;
  bool agentStringGiven = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string opt = args[i];
    if (opt == "--help" || opt == "-h") {
      o.help = true;
      continue;
    }
    if (opt == "--show") {
      o.show = true;
      continue;
    }
    if (opt.rfind("--", 0) != 0) throw AgentOptionsError("unexpected argument '" + opt + "'");
    std::string value;
    bool inlineValue = false;
    if (auto eq = opt.find('='); eq != std::string::npos) {
      value = opt.substr(eq + 1);
      opt = opt.substr(0, eq);
      inlineValue = true;
    }
    if (opt != "--socket" && opt != "--name" && opt != "--agent-string" && opt != "--fail" &&
        opt != "--hold" && opt != "--version") {
      throw AgentOptionsError("unknown option " + opt);
    }
    if (!inlineValue) {
      if (i + 1 >= args.size()) throw AgentOptionsError(opt + " needs a value");
      value = args[++i];
    }
    if (opt == "--socket") {
      o.socketPath = value;
    } else if (opt == "--name") {
      o.name = value;
    } else if (opt == "--agent-string") {
      o.agentString = value;
      agentStringGiven = true;
    } else if (opt == "--fail") {
      auto const eq = value.find('=');
      if (eq == std::string::npos || eq == 0 || eq + 1 == value.size()) {
        throw AgentOptionsError("--fail needs PATH=TEXT, not '" + value + "'");
      }
      o.failures[value.substr(0, eq)] = value.substr(eq + 1);
    } else if (opt == "--hold") {
      if (value.empty()) throw AgentOptionsError("--hold needs a path");
      o.holds.insert(value);
    } else {
      o.version = parseVersion(value);
    }
  }
  if (o.help) return o;
  if (o.socketPath.empty()) throw AgentOptionsError("missing --socket PATH");
  if (o.name.empty()) throw AgentOptionsError("missing --name NAME");
  if (!agentStringGiven) o.agentString = o.name;
  return o;
}

}  // namespace LedraAgent
