// A property check for the harnesses: a failed check aborts, which libFuzzer reports as a crash
// with the input that caused it.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(cond)                                                                 \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)
