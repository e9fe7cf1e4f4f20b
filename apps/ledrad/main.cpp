// ledrad: the reference database process. See docs/ledrad.md and Daemon.h.
#include <cstdio>
#include <string>
#include <vector>

#include "apps/ledrad/Daemon.h"
#include "apps/ledrad/Options.h"

int main(int argc, char** argv) {
  Ledrad::Options options;
  try {
    options = Ledrad::parseOptions(std::vector<std::string>(argv + 1, argv + argc));
  } catch (Ledrad::UsageError const& e) {
    std::fprintf(stderr, "ledrad: %s\n%s", e.what(), Ledrad::usage().c_str());
    return 2;
  }
  if (options.help) {
    std::fputs(Ledrad::usage().c_str(), stdout);
    return 0;
  }
  return Ledrad::runDaemon(options, stdout, stderr);
}
