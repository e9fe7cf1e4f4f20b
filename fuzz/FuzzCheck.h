// What the harnesses share: a property check (a failed check aborts, which libFuzzer reports as
// a crash with the input that caused it), and a command line made from the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#define FUZZ_CHECK(cond)                                                                 \
  do {                                                                                   \
    if (!(cond)) {                                                                       \
      std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

// The input split at NUL bytes into at most 64 arguments.
inline std::vector<std::string> fuzzArguments(std::uint8_t const* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<char const*>(data), size);
  std::vector<std::string> args;
  while (!rest.empty() && args.size() < 64) {
    std::size_t const end = rest.find('\0');
    args.emplace_back(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return args;
}
