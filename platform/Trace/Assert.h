// Fatal assertions for contract violations inside the trace library.
//
// The trace library sits below the Qel framework and links nothing else of the project, so it
// cannot use QEL_ASSERT. TRACE_ASSERT behaves the same way: when the condition is false it prints
// "Assertion failed: <expression text>, function <f>, file <file>, line <n>." to the standard error
// stream and aborts, in every build type. Use the idiom TRACE_ASSERT(cond && "message") so that the
// message appears verbatim. Bad input from outside the process is never asserted.
#pragma once

namespace Trace {

[[noreturn]] void assertionFailed(char const* expression, char const* file, int line,
                                  char const* function);

}  // namespace Trace

#define TRACE_ASSERT(cond)    \
  (static_cast<bool>(cond)    \
       ? static_cast<void>(0) \
       : ::Trace::assertionFailed(#cond, __FILE__, __LINE__, static_cast<char const*>(__func__)))
