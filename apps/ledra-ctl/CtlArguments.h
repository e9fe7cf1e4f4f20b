// LedraCtl::CtlArguments: the command line of ledra-ctl.
//
//   ledra-ctl [--control-socket PATH] [--timeout SECONDS] COMMAND [ARGUMENT...]
//
// Options come first; each takes its value as the next argument or after '=' ("--timeout=5").
// The first argument that does not start with "--" is the command: it and every argument after
// it are the request's words, sent as given, except that the file names of load-profiles and
// load-state are made absolute (since ledrad runs elsewhere; an empty name is sent as it is, for
// ledrad to refuse). --help or -h before the command asks for the usage and ends the parsing.
// parseCtlArguments throws CtlArgumentsError with a one-line reason for a command line it
// refuses: an unknown option, an option without its value, an empty socket path, a timeout that
// is not a positive finite number, no command, or a word the control protocol cannot carry.
// A plain value.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace LedraCtl {

class CtlArgumentsError : public std::runtime_error {
 public:
  // The reason on one line: the arguments it quotes are shown in printable form.
  explicit CtlArgumentsError(std::string const& why);
};

struct CtlArguments {
  bool help = false;
  std::string socket;
  double timeout = 30.0;  // seconds for each read or write of the exchange
  std::vector<std::string> words;

  // The timeout as the exchange takes it: whole milliseconds, at least 1, at most INT_MAX.
  int timeoutMillis() const;
};

// `args` without the program name.
CtlArguments parseCtlArguments(std::vector<std::string> const& args);
// The usage text printed by --help and after a bad command line.
std::string ctlUsage();

}  // namespace LedraCtl
