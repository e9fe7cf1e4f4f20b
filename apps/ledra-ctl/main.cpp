// ledra-ctl: talks to a running ledrad through its control socket.
//
//   ledra-ctl [--control-socket PATH] [--timeout SECONDS] COMMAND [ARGUMENT...]
//
// The commands are those of ledrad (status [--json] [AGENT...], set PATH ATTRIBUTE VALUE,
// load-profiles FILE..., load-state FILE...); file names are made absolute before they are sent,
// since ledrad runs elsewhere. The reply goes to standard output, an error reply to standard
// error. Exit status: 0 done, 1 ledrad refused, 2 bad command line, 3 ledrad not reachable.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "apps/ledrad/ControlClient.h"
#include "apps/ledrad/ControlCommands.h"
#include "apps/ledrad/Options.h"

namespace {

void usage(std::FILE* f) {
  std::fprintf(f,
               "usage: ledra-ctl [--control-socket PATH] [--timeout SECONDS] COMMAND "
               "[ARGUMENT...]\n"
               "  (default control socket %s)\n%s",
               Ledrad::defaultControlSocket().c_str(), Ledrad::ControlCommands::usage().c_str());
}

int bad(char const* text) {
  std::fprintf(stderr, "ledra-ctl: %s\n", text);
  usage(stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string socket = Ledrad::defaultControlSocket();
  double timeout = 30.0;
  std::vector<std::string> words;
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      usage(stdout);
      return 0;
    }
    std::string value;
    bool const inlineValue = a.rfind("--", 0) == 0 && a.find('=') != std::string::npos;
    if (inlineValue) {
      value = a.substr(a.find('=') + 1);
      a.resize(a.find('='));
    }
    if (a != "--control-socket" && a != "--timeout") {
      if (inlineValue || a.rfind("--", 0) == 0) return bad(("unknown option " + a).c_str());
      break;
    }
    if (!inlineValue) {
      if (i + 1 >= argc) return bad("option needs a value");
      value = argv[++i];
    }
    if (a == "--control-socket") {
      if (value.empty()) return bad("--control-socket needs a path");
      socket = value;
      continue;
    }
    char* end = nullptr;
    timeout = std::strtod(value.c_str(), &end);
    if (value.empty() || *end || timeout <= 0) return bad("--timeout takes a positive number");
  }
  for (; i < argc; ++i)
    words.emplace_back(argv[i]);
  if (words.empty()) return bad("no command given");
  std::string const& command = words.front();
  if (command == "load-profiles" || command == "load-state") {
    // An empty name is sent as it is, for ledrad to refuse.
    for (std::size_t w = 1; w < words.size(); ++w) {
      if (!words[w].empty())
        words[w] = std::filesystem::absolute(words[w]).lexically_normal().string();
    }
  }
  try {
    Ledrad::ControlReply const reply =
        Ledrad::controlRequest(socket, words, static_cast<int>(timeout * 1000));
    std::fputs(reply.text.c_str(), reply.ok ? stdout : stderr);
    return reply.ok ? 0 : 1;
  } catch (std::invalid_argument const& e) {
    return bad(e.what());
  } catch (std::exception const& e) {
    std::fprintf(stderr, "ledra-ctl: %s\n", e.what());
    return 3;
  }
}
