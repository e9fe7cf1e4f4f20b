#include "apps/ledra-ctl/CtlArguments.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledra-ctl/WatchCommand.h"
#include "apps/ledrad/ControlCommands.h"
#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/Options.h"

namespace LedraCtl {

CtlArgumentsError::CtlArgumentsError(std::string const& why)
    : std::runtime_error(Qel::NboAttrLog::printableText(why)) {}

int CtlArguments::timeoutMillis() const {
  double const ms = timeout * 1000;
  if (ms >= static_cast<double>(std::numeric_limits<int>::max())) {
    return std::numeric_limits<int>::max();
  }
  // A timeout below one millisecond still waits: a wait of 0 would not wait at all.
  return std::max(1, static_cast<int>(ms));
}

std::string ctlUsage() {
  return "usage: ledra-ctl [--control-socket PATH] [--timeout SECONDS] COMMAND [ARGUMENT...]\n"
         "  (default control socket " +
         Ledrad::defaultControlSocket() + ")\n" + Ledrad::ControlCommands::usage() + watchUsage();
}

CtlArguments parseCtlArguments(std::vector<std::string> const& args) {
  CtlArguments o;
  o.socket = Ledrad::defaultControlSocket();
  std::size_t i = 0;
  for (; i < args.size(); ++i) {
    std::string a = args[i];
    if (a == "--help" || a == "-h") {
      o.help = true;
      return o;
    }
    std::string value;
    bool const inlineValue = a.rfind("--", 0) == 0 && a.find('=') != std::string::npos;
    if (inlineValue) {
      value = a.substr(a.find('=') + 1);
      a.resize(a.find('='));
    }
    if (a != "--control-socket" && a != "--timeout") {
      if (inlineValue || a.rfind("--", 0) == 0) throw CtlArgumentsError("unknown option " + a);
      break;
    }
    if (!inlineValue) {
      if (i + 1 >= args.size()) throw CtlArgumentsError("option needs a value");
      value = args[++i];
    }
    if (a == "--control-socket") {
      if (value.empty()) throw CtlArgumentsError("--control-socket needs a path");
      o.socket = value;
      continue;
    }
    char* end = nullptr;
    o.timeout = std::strtod(value.c_str(), &end);
    if (value.empty() || *end || !std::isfinite(o.timeout) || o.timeout <= 0) {
      throw CtlArgumentsError("--timeout takes a positive number");
    }
  }
  o.words.assign(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  if (o.words.empty()) throw CtlArgumentsError("no command given");
  std::string const& command = o.words.front();
  bool const files = command == "load-profiles" || command == "load-state";
  bool const dump = command == "trace" && o.words.size() == 3 && o.words[1] == "dump";
  if (files || dump) {
    // File names are made absolute here, where the client stands; an empty name is sent as it
    // is, for ledrad to refuse.
    for (std::size_t w = dump ? 2 : 1; w < o.words.size(); ++w) {
      if (!o.words[w].empty())
        o.words[w] = std::filesystem::absolute(o.words[w]).lexically_normal().string();
    }
  }
  // What the protocol cannot carry is refused here, before ledrad is asked.
  try {
    Ledrad::encodeRequest(o.words);
  } catch (std::invalid_argument const& e) {
    throw CtlArgumentsError(e.what());
  }
  return o;
}

}  // namespace LedraCtl
