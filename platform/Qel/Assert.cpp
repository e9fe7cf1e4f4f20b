#include "Qel/Assert.h"

#include <cstdio>
#include <cstdlib>

#include "Qel/Backtrace.h"

namespace Qel {

void assertionFailed(char const* expression, char const* file, int line, char const* function) {
  std::fprintf(stderr, "Assertion failed: %s, function %s, file %s, line %d.\n", expression,
               function, file, line);
  std::fputs(Backtrace().text().c_str(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Qel
