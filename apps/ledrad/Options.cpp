#include "apps/ledrad/Options.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

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

}  // namespace

std::string usage() {
  return "usage: ledrad [--socket PATH] [--control-socket PATH] [--cell 1|2] [--sysname NAME]\n"
         "              [--trace LEVELS] [--profiles DIR] [--state DIR] [--help]\n"
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
         "  --state DIR            the folder of *.state files (default: the bundled examples)\n";
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
      if (isFolder(dir / "examples" / "profiles")) return (dir / "examples").string();
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
    } else {
      throw UsageError("unknown argument '" + args[i] + "'");
    }
  }
  if (o.socket.empty()) o.socket = defaultAgentSocket();
  if (o.controlSocket.empty()) o.controlSocket = defaultControlSocket();
  if (o.socket == o.controlSocket) throw UsageError("the agent and control sockets are the same");
  if (!o.profiles.empty() && !o.state.empty()) return o;
  std::string const examples = examplesDir();
  if (examples.empty()) return o;
  if (o.profiles.empty()) o.profiles = examples + "/profiles";
  if (o.state.empty()) o.state = examples + "/state";
  return o;
}

}  // namespace Ledrad
