// test::PtyProcess: a program started by a test on a pseudo-terminal of a given size, as it runs
// in an operator's terminal: its standard input, output and error are the terminal, and it leads
// its own session with that terminal as its controlling one, so typing Ctrl-C signals it.
//
// waitFor reads what the program writes until the whole output read so far satisfies a predicate
// or the deadline passes, waiting in poll() on the terminal, never sleeping. waitExit reads to the
// end of the output and returns the exit status (128 + N for a death by signal N). Destroying a
// program that still runs kills it (SIGKILL) and reaps it. Single-threaded.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test {

class PtyProcess {
 public:
  PtyProcess(std::vector<std::string> const& argv, unsigned short columns, unsigned short rows);
  ~PtyProcess();
  PtyProcess(PtyProcess const&) = delete;
  PtyProcess& operator=(PtyProcess const&) = delete;

  // Everything written to the terminal so far, escape sequences included.
  std::string const& output() const { return output_; }
  // Whether `done(output())` holds before the deadline (or the end of the output).
  bool waitFor(std::function<bool(std::string const&)> const& done, double seconds);
  // Writes `keys` as typed on the terminal ("\x03" is Ctrl-C).
  void type(std::string const& keys);
  std::optional<int> waitExit(double seconds);

 private:
  // Reads what the terminal holds within `deadlineMs` of the steady clock; false at its end.
  bool readSome(long long deadlineMs);

  pid_t pid_ = -1;
  int fd_ = -1;
  std::string output_;
  int status_ = -1;
};

}  // namespace test
