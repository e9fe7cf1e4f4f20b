#include "apps/ledrad/Options.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>

namespace Ledrad {

namespace fs = std::filesystem;

namespace {

bool isFolder(fs::path const& p) {
  std::error_code ec;
  return fs::is_directory(p, ec);
}

std::string userName() {
  if (passwd const* pw = ::getpwuid(::geteuid()); pw && pw->pw_name && *pw->pw_name) {
    return pw->pw_name;
  }
  if (char const* u = std::getenv("USER"); u && *u) return u;
  return std::to_string(::geteuid());
}

// A positive whole number, times `unit` for a size suffix when `sizes` allows them.
std::size_t positiveCount(std::string const& name, std::string const& v, bool sizes) {
  std::string const expected = sizes ? " takes a positive number of bytes (K, M or G for KiB, "
                                       "MiB, GiB), not '"
                                     : " takes a positive whole number, not '";
  auto refuse = [&]() -> std::size_t { throw UsageError(name + expected + v + "'"); };
  if (v.empty() || v[0] < '0' || v[0] > '9') refuse();
  char* end = nullptr;
  errno = 0;
  unsigned long long n = std::strtoull(v.c_str(), &end, 10);
  if (errno == ERANGE || n == 0) refuse();
  unsigned shift = 0;
  if (sizes && *end != 0 && end[1] == 0) {
    switch (*end) {
      case 'K':
        shift = 10;
        break;
      case 'M':
        shift = 20;
        break;
      case 'G':
        shift = 30;
        break;
      default:
        refuse();
    }
    ++end;
  }
  if (*end != 0) refuse();
  if (n > (std::numeric_limits<std::size_t>::max() >> shift)) refuse();
  return static_cast<std::size_t>(n) << shift;
}

double positiveSeconds(std::string const& name, std::string const& v) {
  char* end = nullptr;
  double const t = std::strtod(v.c_str(), &end);
  if (v.empty() || *end != 0 || !std::isfinite(t) || t <= 0) {
    throw UsageError(name + " takes a positive number of seconds, not '" + v + "'");
  }
  return t;
}

}  // namespace

std::string usage() {
  return "usage: ledrad [--check] [--socket PATH] [--control-socket PATH] [--cell 1|2]\n"
         "              [--sysname NAME] [--trace LEVELS] [--profiles DIR] [--state DIR]\n"
         "              [BOUND VALUE]... [--help]\n"
         "  --check                read the state and profile files as a start would, tell every\n"
         "                         problem as FILE:LINE: REASON, serve nothing (exit 0 or 1)\n"
         "  --socket PATH          where agents connect (default " +
         defaultAgentSocket() +
         ")\n"
         "  --control-socket PATH  where ledra-ctl connects (default " +
         defaultControlSocket() +
         ")\n"
         "  --cell 1|2             the cell this database runs on (default 1)\n"
         "  --sysname NAME         the system name; the database root is /NAME/Ledra "
         "(default ledra)\n"
         "  --trace LEVELS           trace levels, e.g. \"*=2,PassiveEntityManager=6\"\n"
         "  --profiles DIR         the folder of *.profile files (default: the bundled "
         "examples)\n"
         "  --state DIR            the folder of *.state files (default: the bundled examples)\n"
         "bounds (sizes in bytes, or with K, M, G; see docs/ledrad.md):\n"
         "  --max-frame BYTES               largest frame from or to an agent (default 1M)\n"
         "  --hello-timeout SECONDS         time for an agent's hello (default 10)\n"
         "  --max-agent-name BYTES          longest agent name (default 255)\n"
         "  --max-agent-output BYTES        output waiting for one agent (default 16M)\n"
         "  --max-total-output BYTES        output waiting for all agents (default 64M)\n"
         "  --max-remembered-agents N       agent names whose epoch is kept (default 4096)\n"
         "  --max-control-clients N         control connections at once (default 64)\n"
         "  --max-control-per-process N     control connections of one process (default 8)\n"
         "  --control-idle-timeout SECONDS  time for a control request, and for its reply "
         "(default 10)\n";
}

std::string defaultRuntimeDir() {
  if (char const* xdg = std::getenv("XDG_RUNTIME_DIR"); xdg && *xdg == '/' && isFolder(xdg)) {
    return xdg;
  }
  return "/tmp/ledra-" + userName();
}

std::string defaultAgentSocket() {
  return defaultRuntimeDir() + "/ledrad.sock";
}
std::string defaultControlSocket() {
  return defaultRuntimeDir() + "/ledrad-control.sock";
}

std::string examplesDir() {
  std::error_code ec;
  fs::path const exe = fs::read_symlink("/proc/self/exe", ec);
  if (!ec) {
    for (fs::path dir = exe.parent_path(); !dir.empty(); dir = dir.parent_path()) {
      // A build tree or source tree has examples/; an installed prefix share/ledra/examples/.
      for (fs::path const& examples : {dir / "examples", dir / "share" / "ledra" / "examples"}) {
        if (isFolder(examples / "profiles")) return examples.string();
      }
      if (dir == dir.root_path()) break;
    }
  }
#ifdef LEDRA_SOURCE_DIR
  fs::path const source = fs::path(LEDRA_SOURCE_DIR) / "examples";
  if (isFolder(source / "profiles")) return source.string();
#endif
  return {};
}

Options parseOptions(std::vector<std::string> const& args) {
  Options o;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::string value;
    bool inlineValue = false;
    if (std::size_t eq = name.find('='); name.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
      inlineValue = true;
    }
    if (name == "--help" || name == "-h") {
      o.help = true;
      continue;
    }
    if (name == "--check" && !inlineValue) {
      o.check = true;
      continue;
    }
    auto next = [&]() -> std::string {
      if (!inlineValue && i + 1 >= args.size())
        throw UsageError("option " + name + " needs a value");
      std::string v = inlineValue ? value : args[++i];
      if (v.empty()) throw UsageError("option " + name + " needs a non-empty value");
      return v;
    };
    if (name == "--socket") {
      o.socket = next();
    } else if (name == "--control-socket") {
      o.controlSocket = next();
    } else if (name == "--cell") {
      std::string const v = next();
      if (v != "1" && v != "2") throw UsageError("--cell takes 1 or 2, not '" + v + "'");
      o.cell = v[0] - '0';
    } else if (name == "--sysname") {
      o.systemName = next();
      if (o.systemName.find('/') != std::string::npos) {
        throw UsageError("--sysname takes a name without '/', not '" + o.systemName + "'");
      }
    } else if (name == "--trace") {
      o.trace = next();
    } else if (name == "--profiles") {
      o.profiles = next();
    } else if (name == "--state") {
      o.state = next();
    } else if (name == "--max-frame") {
      o.bounds.maxFrame = positiveCount(name, next(), true);
    } else if (name == "--hello-timeout") {
      o.bounds.helloTimeout = positiveSeconds(name, next());
    } else if (name == "--max-agent-name") {
      o.bounds.maxAgentName = positiveCount(name, next(), true);
    } else if (name == "--max-agent-output") {
      o.bounds.maxAgentOutput = positiveCount(name, next(), true);
    } else if (name == "--max-total-output") {
      o.bounds.maxTotalOutput = positiveCount(name, next(), true);
    } else if (name == "--max-remembered-agents") {
      o.bounds.maxRememberedAgents = positiveCount(name, next(), false);
    } else if (name == "--max-control-clients") {
      o.bounds.control.maxClients = positiveCount(name, next(), false);
    } else if (name == "--max-control-per-process") {
      o.bounds.control.maxClientsPerProcess = positiveCount(name, next(), false);
    } else if (name == "--control-idle-timeout") {
      o.bounds.control.idleTimeout = positiveSeconds(name, next());
    } else {
      throw UsageError("unknown argument '" + args[i] + "'");
    }
  }
  if (o.socket.empty()) o.socket = defaultAgentSocket();
  if (o.controlSocket.empty()) o.controlSocket = defaultControlSocket();
  if (o.socket == o.controlSocket) throw UsageError("the agent and control sockets are the same");
  // One mount request and the entity state behind it must fit, or an agent that reads would be
  // closed as one that does not.
  std::size_t const oneMount = 2 * (o.bounds.maxFrame + Qel::NboAttrLog::WireDecoder::kHeaderBytes);
  if (o.bounds.maxAgentOutput < oneMount) {
    throw UsageError("--max-agent-output (" + std::to_string(o.bounds.maxAgentOutput) +
                     " bytes) cannot hold one mount request and its state (" +
                     std::to_string(oneMount) + " bytes with --max-frame " +
                     std::to_string(o.bounds.maxFrame) + ")");
  }
  if (o.bounds.maxTotalOutput < o.bounds.maxAgentOutput) {
    throw UsageError("--max-total-output (" + std::to_string(o.bounds.maxTotalOutput) +
                     " bytes) is below --max-agent-output (" +
                     std::to_string(o.bounds.maxAgentOutput) + " bytes)");
  }
  if (!o.profiles.empty() && !o.state.empty()) return o;
  std::string const examples = examplesDir();
  if (examples.empty()) return o;
  if (o.profiles.empty()) o.profiles = examples + "/profiles";
  if (o.state.empty()) o.state = examples + "/state";
  return o;
}

}  // namespace Ledrad
