#include "Check/Check.h"

#include <cstdio>
#include <cstdlib>

#include "Check/Backtrace.h"

namespace Check {

void failed(char const* text, char const* file, int line, char const* function) {
  std::fprintf(stderr, "Assertion failed: %s, function %s, file %s, line %d.\n", text, function,
               file, line);
  std::fputs(Backtrace().text().c_str(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Check
