// Checks of exact texts shared by the tests: the message of an expected exception, and a text to
// be found literally in a death test's output.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

// Like EXPECT_THROW, and the exception's what() must be exactly `text`.
#define EXPECT_THROW_TEXT(statement, Exception, text)                 \
  do {                                                                \
    try {                                                             \
      statement;                                                      \
      ADD_FAILURE() << "no " #Exception " from: " #statement;         \
    } catch (Exception const& qelTestError) {                         \
      EXPECT_EQ(std::string(qelTestError.what()), std::string(text)); \
    }                                                                 \
  } while (false)

namespace Ledra::test {

// A regular expression that matches `text` literally, for EXPECT_DEATH.
inline std::string literal(std::string const& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

// Runs `f`, which must throw E, and returns the exception's text.
template <class E, class F>
std::string errorOf(F f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  }
  ADD_FAILURE() << "no exception thrown";
  return {};
}

}  // namespace Ledra::test
