// The ringlog-decode program: prints the lines of a ring dump file, oldest first.
//
//   ringlog-decode <dump file>
//   ringlog-decode --help             what it does, on out; exit status 0
// Exit status 0 when the whole dump was decoded, 1 when it could not be read (the reason goes to
// err as "ringlog-decode: <path>: <reason>", and no line is printed), 2 for a wrong command line.
// It lives in the library so that tests run it in-process.
#pragma once

#include <cstdio>

namespace Trace {

int ringlogDecodeMain(int argc, char const* const* argv, std::FILE* out, std::FILE* err);

}  // namespace Trace
