// test::ChildProcess: a program started by a test, whose standard output the test reads line by
// line with a deadline.
//
// The child's standard output goes to a pipe; its standard error is appended to a file (or, with
// mergeStderr, to the same pipe). waitForLine reads until a line matches or the deadline passes,
// waiting in poll() on the pipe, never sleeping; every line read is kept (lines()). waitExit
// reads to the end of the output and returns the exit status (128 + N for a death by signal N).
// Destroying a child that still runs kills it (SIGKILL) and reaps it. Single-threaded.
//
// Started on a Terminal, the child runs as in an operator's terminal: a pseudo-terminal of that
// size is its standard input, output and error, and it leads its own session with it as its
// controlling terminal, so typing Ctrl-C (type("\x03")) signals it. Its output then holds the
// escape sequences it writes.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test {

class ChildProcess {
 public:
  struct Terminal {
    unsigned short columns = 80;
    unsigned short rows = 24;
  };

  ChildProcess(std::vector<std::string> const& argv, std::string const& stderrFile,
               bool mergeStderr = false);
  ChildProcess(std::vector<std::string> const& argv, Terminal terminal);
  ~ChildProcess();
  ChildProcess(ChildProcess const&) = delete;
  ChildProcess& operator=(ChildProcess const&) = delete;

  pid_t pid() const { return pid_; }
  std::vector<std::string> const& lines() const { return lines_; }
  // Everything read so far, byte for byte.
  std::string output() const;

  // The first line read from now on (or already read and not yet returned by a wait) for which
  // `match` holds; nullopt when the deadline passes or the output ends first.
  std::optional<std::string> waitForLine(std::function<bool(std::string const&)> const& match,
                                         double seconds);
  std::optional<std::string> waitForLine(std::string const& exact, double seconds);
  // Whether the child prints (or has printed, at any time) the line `exact` before the deadline:
  // for events whose order does not matter.
  bool printed(std::string const& exact, double seconds);
  // Whether `done(output())` holds before the deadline (or the end of the output).
  bool waitForOutput(std::function<bool(std::string const&)> const& done, double seconds);
  // Writes `keys` as typed on the child's terminal (a child started on a Terminal only).
  void type(std::string const& keys);

  void signal(int sig);
  std::optional<int> waitExit(double seconds);
  bool running() const { return pid_ > 0; }

 private:
  // Reads until `done` holds, the deadline passes or the output ends; whether `done` holds.
  bool waitUntil(std::function<bool()> const& done, double seconds);
  // Reads what the pipe holds within `deadlineMs` of the steady clock; false at the end of output.
  bool readSome(long long deadlineMs);

  pid_t pid_ = -1;
  int fd_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
  std::size_t consumed_ = 0;
  bool unterminated_ = false;  // the output ended without a newline
  int status_ = -1;
};

}  // namespace test
