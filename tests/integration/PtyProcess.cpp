#include "integration/PtyProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace test {

namespace {

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

PtyProcess::PtyProcess(std::vector<std::string> const& argv, unsigned short columns,
                       unsigned short rows) {
  std::vector<char*> args;
  for (auto const& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  winsize size{};
  size.ws_col = columns;
  size.ws_row = rows;
  pid_ = ::forkpty(&fd_, nullptr, nullptr, &size);
  if (pid_ < 0) throw std::runtime_error("forkpty: " + std::string(std::strerror(errno)));
  if (pid_ == 0) {
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  // Programs the test starts later do not hold the terminal open.
  ::fcntl(fd_, F_SETFD, FD_CLOEXEC);
}

PtyProcess::~PtyProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (fd_ >= 0) ::close(fd_);
}

bool PtyProcess::readSome(long long deadlineMs) {
  if (fd_ < 0) return false;
  long long const left = deadlineMs - nowMs();
  if (left <= 0) return true;
  pollfd p{fd_, POLLIN, 0};
  if (::poll(&p, 1, static_cast<int>(left)) <= 0) return true;  // the caller checks the time
  char buf[4096];
  ssize_t const n = ::read(fd_, buf, sizeof buf);
  if (n < 0 && errno == EINTR) return true;
  // Once the program and its children have closed the terminal, reading it fails with EIO.
  if (n <= 0) {
    ::close(fd_);
    fd_ = -1;
    return false;
  }
  output_.append(buf, static_cast<std::size_t>(n));
  return true;
}

bool PtyProcess::waitFor(std::function<bool(std::string const&)> const& done, double seconds) {
  long long const deadline = nowMs() + static_cast<long long>(seconds * 1000);
  while (!done(output_)) {
    if (nowMs() >= deadline || !readSome(deadline)) return done(output_);
  }
  return true;
}

void PtyProcess::type(std::string const& keys) {
  if (fd_ >= 0 && ::write(fd_, keys.data(), keys.size()) < 0)
    throw std::runtime_error("cannot type on the terminal: " + std::string(std::strerror(errno)));
}

std::optional<int> PtyProcess::waitExit(double seconds) {
  long long const deadline = nowMs() + static_cast<long long>(seconds * 1000);
  while (fd_ >= 0) {
    if (nowMs() >= deadline) return std::nullopt;
    readSome(deadline);
  }
  if (pid_ <= 0) return status_;
  int st = 0;
  while (::waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return status_;
}

}  // namespace test
