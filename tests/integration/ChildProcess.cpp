#include "tests/integration/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace test {

namespace {

std::vector<char*> cArgs(std::vector<std::string> const& argv) {
  std::vector<char*> args;
  for (auto const& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  return args;
}

long long nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> const& argv, std::string const& stderrFile,
                           bool mergeStderr) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe: " + std::string(std::strerror(errno)));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  if (mergeStderr) {
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  } else {
    posix_spawn_file_actions_addopen(&actions, 2, stderrFile.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0644);
  }
  std::vector<char*> args = cArgs(argv);
  int const rc = ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  fd_ = fds[0];
  if (rc != 0) {
    ::close(fd_);
    pid_ = -1;
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  }
}

ChildProcess::ChildProcess(std::vector<std::string> const& argv, Terminal terminal) {
  std::vector<char*> args = cArgs(argv);
  winsize size{};
  size.ws_col = terminal.columns;
  size.ws_row = terminal.rows;
  pid_ = ::forkpty(&fd_, nullptr, nullptr, &size);
  if (pid_ < 0) throw std::runtime_error("forkpty: " + std::string(std::strerror(errno)));
  if (pid_ == 0) {
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  // Programs the test starts later do not hold the terminal open.
  ::fcntl(fd_, F_SETFD, FD_CLOEXEC);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (fd_ >= 0) ::close(fd_);
}

std::string ChildProcess::output() const {
  std::string out;
  for (auto const& l : lines_)
    out += l + "\n";
  if (unterminated_) out.pop_back();
  return out + partial_;
}

bool ChildProcess::readSome(long long deadlineMs) {
  if (fd_ < 0) return false;
  long long const left = deadlineMs - nowMs();
  if (left <= 0) return true;
  pollfd p{fd_, POLLIN, 0};
  int const rc = ::poll(&p, 1, static_cast<int>(left));
  if (rc <= 0) return true;  // deadline (or EINTR): the caller checks the time
  char buf[4096];
  ssize_t const n = ::read(fd_, buf, sizeof buf);
  if (n < 0 && errno == EINTR) return true;
  // At the end of its output a pipe reads 0 bytes, a terminal fails with EIO.
  if (n <= 0) {
    ::close(fd_);
    fd_ = -1;
    // A last line without its newline still counts as a line.
    unterminated_ = !partial_.empty();
    if (unterminated_) lines_.push_back(std::move(partial_));
    partial_.clear();
    return false;
  }
  partial_.append(buf, static_cast<std::size_t>(n));
  std::size_t nl;
  while ((nl = partial_.find('\n')) != std::string::npos) {
    lines_.push_back(partial_.substr(0, nl));
    partial_.erase(0, nl + 1);
  }
  return true;
}

bool ChildProcess::waitUntil(std::function<bool()> const& done, double seconds) {
  long long const deadline = nowMs() + static_cast<long long>(seconds * 1000);
  while (!done()) {
    if (nowMs() >= deadline || !readSome(deadline)) return done();
  }
  return true;
}

std::optional<std::string> ChildProcess::waitForLine(
    std::function<bool(std::string const&)> const& match, double seconds) {
  std::optional<std::string> found;
  waitUntil(
      [&] {
        for (; consumed_ < lines_.size() && !found; ++consumed_) {
          if (match(lines_[consumed_])) found = lines_[consumed_];
        }
        return found.has_value();
      },
      seconds);
  return found;
}

std::optional<std::string> ChildProcess::waitForLine(std::string const& exact, double seconds) {
  return waitForLine([&exact](std::string const& l) { return l == exact; }, seconds);
}

bool ChildProcess::printed(std::string const& exact, double seconds) {
  return waitUntil([&] { return std::find(lines_.begin(), lines_.end(), exact) != lines_.end(); },
                   seconds);
}

void ChildProcess::signal(int sig) {
  if (pid_ > 0) ::kill(pid_, sig);
}

bool ChildProcess::waitForOutput(std::function<bool(std::string const&)> const& done,
                                 double seconds) {
  return waitUntil([&] { return done(output()); }, seconds);
}

void ChildProcess::type(std::string const& keys) {
  if (fd_ >= 0 && ::write(fd_, keys.data(), keys.size()) < 0)
    throw std::runtime_error("cannot type on the terminal: " + std::string(std::strerror(errno)));
}

std::optional<int> ChildProcess::waitExit(double seconds) {
  if (!waitUntil([this] { return fd_ < 0; }, seconds)) return std::nullopt;
  if (pid_ <= 0) return status_;
  // The output has ended: the child is exiting.
  int st = 0;
  while (::waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return status_;
}

}  // namespace test
