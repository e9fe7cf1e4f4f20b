// Ledrad::FileError: a configuration file that cannot be used, with the place and the reason.
//
// text() reads "<file>:<line>: <reason>", or "<file>: <reason>" when the error concerns the
// whole file (line 0). Loaders build a complete staging result before changing anything, so a
// FileError always means that nothing of the file was applied.
#pragma once

#include <stdexcept>
#include <string>

namespace Ledrad {

class FileError : public std::runtime_error {
 public:
  FileError(std::string file, int line, std::string reason)
      : std::runtime_error(format(file, line, reason)),
        file_(std::move(file)),
        line_(line),
        reason_(std::move(reason)) {}

  std::string const& file() const { return file_; }
  int line() const { return line_; }
  std::string const& reason() const { return reason_; }

  static std::string format(std::string const& file, int line, std::string const& reason) {
    if (line <= 0) return file + ": " + reason;
    return file + ":" + std::to_string(line) + ": " + reason;
  }

 private:
  std::string file_;
  int line_;
  std::string reason_;
};

}  // namespace Ledrad
