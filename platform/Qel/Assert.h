// Fatal assertions for contract violations.
//
// QEL_ASSERT(cond) checks a programming contract in every build type. When the condition is
// false it prints "Assertion failed: <expression text>" with the source location and a backtrace
// to the standard error stream, then aborts. The expression text is printed exactly as written,
// so the idiom QEL_ASSERT(false && "mount profile being deleted") reports its message verbatim.
// Bad input from outside the process is never asserted; it is an error or an exception instead.
#pragma once

namespace Qel {

[[noreturn]] void assertionFailed(char const* expression, char const* file, int line,
                                  char const* function);

}  // namespace Qel

#define QEL_ASSERT(cond)      \
  (static_cast<bool>(cond)    \
       ? static_cast<void>(0) \
       : ::Qel::assertionFailed(#cond, __FILE__, __LINE__, static_cast<char const*>(__func__)))
