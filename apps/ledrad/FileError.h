// Ledrad::FileError: a configuration file that cannot be used, with every place and reason found.
//
// Each problem reads "<file>:<line>: <reason>", or "<file>: <reason>" when it concerns the whole
// file (line 0); what() holds them one per line in the order they were found. Loaders read on
// after a bad line so that one pass reports everything (FileProblems collects), and build a
// complete staging result before changing anything, so a FileError always means that nothing of
// the file was applied.
//
// FileProblems keeps at most kMaxProblems problems of one file; any further ones are counted and
// reported as one last whole-file problem, so a hostile file cannot grow the report without bound.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Ledrad {

class FileError : public std::runtime_error {
 public:
  struct Problem {
    int line = 0;
    std::string reason;
  };

  FileError(std::string file, int line, std::string reason)
      : FileError(std::move(file), std::vector<Problem>{{line, std::move(reason)}}) {}
  // `problems` is not empty.
  FileError(std::string file, std::vector<Problem> problems)
      : std::runtime_error(joined(file, problems)),
        file_(std::move(file)),
        problems_(std::move(problems)) {}

  std::string const& file() const { return file_; }
  std::vector<Problem> const& problems() const { return problems_; }
  // The first problem's place and reason.
  int line() const { return problems_.front().line; }
  std::string const& reason() const { return problems_.front().reason; }
  // Each problem as "<file>:<line>: <reason>".
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (auto const& p : problems_)
      out.push_back(format(file_, p.line, p.reason));
    return out;
  }

  static std::string format(std::string const& file, int line, std::string const& reason) {
    if (line <= 0) return file + ": " + reason;
    return file + ":" + std::to_string(line) + ": " + reason;
  }

 private:
  static std::string joined(std::string const& file, std::vector<Problem> const& problems) {
    std::string out;
    for (auto const& p : problems)
      out += (out.empty() ? "" : "\n") + format(file, p.line, p.reason);
    return out;
  }

  std::string file_;
  std::vector<Problem> problems_;
};

// The problems found so far in one file, for a reader that goes on after a bad line.
class FileProblems {
 public:
  static constexpr std::size_t kMaxProblems = 100;

  explicit FileProblems(std::string file) : file_(std::move(file)) {}

  // Runs `f`; a FileError it throws is recorded, and the result is false.
  template <class F>
  bool attempt(F&& f) {
    try {
      f();
      return true;
    } catch (FileError const& e) {
      for (auto const& p : e.problems())
        add(p.line, p.reason);
      return false;
    }
  }

  void add(int line, std::string reason) {
    if (problems_.size() == kMaxProblems) {
      ++untold_;
      return;
    }
    problems_.push_back({line, std::move(reason)});
  }

  std::string const& file() const { return file_; }
  bool empty() const { return problems_.empty(); }

  // Throws a FileError holding every problem recorded, if there is any.
  void throwIfAny() const {
    if (problems_.empty()) return;
    std::vector<FileError::Problem> all = problems_;
    if (untold_ != 0) all.push_back({0, std::to_string(untold_) + " more problems not shown"});
    throw FileError(file_, std::move(all));
  }

 private:
  std::string file_;
  std::vector<FileError::Problem> problems_;
  std::size_t untold_ = 0;
};

}  // namespace Ledrad
