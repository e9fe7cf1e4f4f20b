// QEL_CHECK(cond, "text"): fatal checks of the project's own contracts.
//
// When `cond` is false the check writes
//   Assertion failed: <text>, function <function>, file <file>, line <line>.
// and then the call stack (Backtrace, one frame per line) to the standard error stream, and
// aborts the process. `text` must be a string literal; it is printed exactly as written, with no
// formatting applied. `cond` is evaluated exactly once. A check is an expression of type void.
// Checks are active in every build type: NDEBUG does not remove them.
//
// A check states a contract of the project's own code. Anything another process, a file or a
// user can cause is refused or handled where it enters, never checked here.
//
// A process may name one failure hook (failureHookIs): it runs once, after the message and the
// call stack are written and before the abort, so that the process can leave what it knows (a
// trace ring, for example) behind. A check that fails inside the hook aborts at once.
//
// This library sits below every other one of the project (the trace library and the entity
// framework both use it) and depends on the standard library only. failed() may be called from
// any thread.
#pragma once

namespace Check {

using FailureHook = void (*)();

// Names the failure hook (null: none); returns the one named before. Any thread.
__attribute__((visibility("default"))) FailureHook failureHookIs(FailureHook hook);

[[noreturn]] __attribute__((visibility("default"))) void failed(char const* text, char const* file,
                                                                int line, char const* function);

}  // namespace Check

// The empty literal in front of `text` makes anything but a string literal a compile error.
#define QEL_CHECK(cond, text) \
  (static_cast<bool>(cond)    \
       ? static_cast<void>(0) \
       : ::Check::failed("" text, __FILE__, __LINE__, static_cast<char const*>(__func__)))
