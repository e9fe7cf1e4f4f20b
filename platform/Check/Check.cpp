#include "Check/Check.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "Check/Backtrace.h"

namespace Check {

namespace {
std::atomic<FailureHook> failureHook{nullptr};
}  // namespace

FailureHook failureHookIs(FailureHook hook) {
  return failureHook.exchange(hook);
}

void failed(char const* text, char const* file, int line, char const* function) {
  std::fprintf(stderr, "Assertion failed: %s, function %s, file %s, line %d.\n", text, function,
               file, line);
  std::fputs(Backtrace().text().c_str(), stderr);
  std::fflush(stderr);
  // Taken, so that a check failing inside the hook aborts without running it again.
  if (FailureHook const hook = failureHook.exchange(nullptr)) hook();
  std::abort();
}

}  // namespace Check
