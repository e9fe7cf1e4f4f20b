#include "Trace/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Trace {

void assertionFailed(char const* expression, char const* file, int line, char const* function) {
  std::fprintf(stderr, "Assertion failed: %s, function %s, file %s, line %d.\n", expression,
               function, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Trace
