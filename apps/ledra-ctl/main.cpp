// ledra-ctl: talks to a running ledrad through its control socket.
//
//   ledra-ctl [--control-socket PATH] [--timeout SECONDS] COMMAND [ARGUMENT...]
//
// The commands are those of ledrad (status, explain, get, ls, set, load-profiles, load-state: see
// ControlCommands); the command line is read by CtlArguments. The reply goes to standard output,
// an error reply to standard error. Exit status: 0 done, 1 ledrad refused, 2 bad command line,
// 3 ledrad not reachable. `watch` shows ledrad's agents live until it ends (WatchCommand).
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Qel/NboAttrLog/WireText.h"
#include "apps/ledra-ctl/CtlArguments.h"
#include "apps/ledra-ctl/WatchCommand.h"
#include "apps/ledrad/ControlClient.h"

int main(int argc, char** argv) {
  LedraCtl::CtlArguments options;
  try {
    options = LedraCtl::parseCtlArguments(std::vector<std::string>(argv + 1, argv + argc));
  } catch (LedraCtl::CtlArgumentsError const& e) {
    std::fprintf(stderr, "ledra-ctl: %s\n%s", e.what(), LedraCtl::ctlUsage().c_str());
    return 2;
  }
  if (options.help) {
    std::fputs(LedraCtl::ctlUsage().c_str(), stdout);
    return 0;
  }
  if (options.words.front() == "watch") return LedraCtl::runWatch(options);
  try {
    Ledrad::ControlReply const reply =
        Ledrad::controlRequest(options.socket, options.words, options.timeoutMillis());
    std::fputs(reply.text.c_str(), reply.ok ? stdout : stderr);
    return reply.ok ? 0 : 1;
  } catch (std::exception const& e) {
    // The reason may quote the socket path as given: it is shown on one line.
    std::fprintf(stderr, "ledra-ctl: %s\n", Qel::NboAttrLog::printableText(e.what()).c_str());
    return 3;
  }
}
