// Ledrad::Options: ledrad's command line, and the default places shared with ledra-ctl.
//
//   ledrad [--check] [--socket PATH] [--control-socket PATH] [--cell 1|2] [--sysname NAME]
//          [--trace LEVELS] [--profiles DIR] [--state DIR] [BOUND VALUE]... [--help]
//
// Every option also takes the form --option=VALUE. Defaults: the sockets ledrad.sock and
// ledrad-control.sock in defaultRuntimeDir(); cell 1; system name "ledra"; no trace levels beyond
// LEDRA_TRACE; the folders profiles/ and state/ of the bundled examples (examplesDir()). The
// bounds on what agents and control clients may cost (Bounds; docs/ledrad.md lists them) default
// to the listener's and the control server's own defaults. A size in bytes may end in K, M or G
// (KiB, MiB, GiB); every bound must be positive.
// parseOptions throws UsageError for anything it cannot use. Pure apart from reading the
// environment and the file system for the defaults.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "Ledra/AgentListener.h"
#include "apps/ledrad/ControlServer.h"

namespace Ledrad {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What agents and control clients may cost ledrad.
struct Bounds {
  using Listener = Ledra::AgentListener;
  std::size_t maxFrame = Qel::NboAttrLog::WireDecoder::kDefaultMaxFrame;  // --max-frame
  Qel::Time helloTimeout = Listener::kDefaultHelloTimeout;                // --hello-timeout
  std::size_t maxAgentName = Listener::kDefaultMaxAgentName;              // --max-agent-name
  std::size_t maxAgentOutput = Listener::kDefaultMaxOutput;               // --max-agent-output
  std::size_t maxTotalOutput = Listener::kDefaultMaxOutputTotal;          // --max-total-output
  std::size_t maxRememberedAgents =
      Listener::kDefaultMaxRememberedNames;  // --max-remembered-agents
  ControlServer::Limits control;             // --max-control-clients, --max-control-per-process,
                                             // --control-idle-timeout
};

struct Options {
  std::string socket;
  std::string controlSocket;
  int cell = 1;
  std::string systemName = "ledra";
  std::string trace;
  std::string profiles;
  std::string state;
  Bounds bounds;
  bool check = false;  // read the files, tell every problem, serve nothing
  bool help = false;
};

// `args` without the program name.
Options parseOptions(std::vector<std::string> const& args);
std::string usage();

// $XDG_RUNTIME_DIR when it names a folder, else /tmp/ledra-<user name>.
std::string defaultRuntimeDir();
std::string defaultAgentSocket();
std::string defaultControlSocket();
// The bundled examples: the first "examples" (or, under an installed prefix,
// "share/ledra/examples") folder holding profiles/ found going up from the running executable's
// folder, else the source tree's; empty when none exists.
std::string examplesDir();

}  // namespace Ledrad
