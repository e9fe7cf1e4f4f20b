// The common ground of the integration tests: a temporary folder holding profiles/ and state/ (and
// ledrad's sockets), a ledrad serving it, ledra-agent processes, ledra-ctl and other programs run
// to their end, and the folder removed after the test.
#pragma once

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <chrono>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/integration/ChildProcess.h"

namespace test {

inline constexpr double kWait = 30.0;

inline bool startsWith(std::string const& s, std::string const& prefix) {
  return s.rfind(prefix, 0) == 0;
}
inline bool contains(std::string const& s, std::string const& part) {
  return s.find(part) != std::string::npos;
}

// What the peer writes on `fd` until it closes it; "<timeout>" appended when kWait passes first.
inline std::string readToEnd(int fd) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(int(kWait));
  std::string out;
  char buf[65536];
  while (true) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return out + "<timeout>";
    ssize_t const n = ::recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return out;
    out.append(buf, static_cast<std::size_t>(n));
  }
}

class LedradFolder : public ::testing::Test {
 protected:
  struct Result {
    int status;
    std::string output;
  };

  // `state` and `profiles` become state/test.state and profiles/test.profile (none when empty).
  LedradFolder(char const* state, char const* profiles) : state_(state), profiles_(profiles) {}

  void SetUp() override {
    char tmpl[] = "/tmp/ledra-it-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    std::filesystem::create_directories(dir_ / "profiles");
    std::filesystem::create_directories(dir_ / "state");
    if (*state_) write("state/test.state", state_);
    if (*profiles_) write("profiles/test.profile", profiles_);
  }

  // A ledrad still running is stopped and must exit 0 with its last line; then the agents and the
  // folder go.
  void TearDown() override {
    if (ledrad_ && ledrad_->running()) {
      ledrad_->signal(SIGTERM);
      EXPECT_EQ(ledrad_->waitExit(kWait), std::optional<int>(0));
      EXPECT_EQ(ledrad_->lines().back(), "ledrad: stopped");
    }
    if (HasFailure() && ledrad_) std::cerr << "ledrad:\n" << ledrad_->output() << stderrText();
    agents_.clear();
    ledrad_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  void write(std::string const& name, std::string const& text) {
    std::ofstream(dir_ / name) << text;
  }
  std::string path(char const* name) const { return (dir_ / name).string(); }
  // What the processes started with path("stderr.txt") wrote to their standard error.
  std::string stderrText() const {
    std::ifstream in(dir_ / "stderr.txt");
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  // ledrad serving the folder as system `sysname`, with `extra` options.
  std::vector<std::string> ledradArgs(char const* sysname,
                                      std::vector<std::string> const& extra = {}) const {
    std::vector<std::string> argv = {
        LEDRAD_PATH,  "--socket", path("agents.sock"), "--control-socket", path("ctl.sock"),
        "--sysname",  sysname,    "--profiles",        path("profiles"),   "--state",
        path("state")};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
  }

  // Starts ledradArgs(sysname, extra) and waits until it is ready. Its standard error (the
  // traces) joins its output when `mergeStderr`, else goes to stderr.txt.
  void startLedrad(char const* sysname, std::vector<std::string> const& extra = {},
                   bool mergeStderr = false) {
    ledrad_ =
        std::make_unique<ChildProcess>(ledradArgs(sysname, extra), path("stderr.txt"), mergeStderr);
    ASSERT_TRUE(
        ledrad_->waitForLine([](auto const& l) { return startsWith(l, "ledrad: ready"); }, kWait))
        << ledrad_->output() << stderrText();
  }

  // A ledra-agent named `name` with `extra` options, connected to ledrad.
  ChildProcess& agent(std::string const& name, std::vector<std::string> const& extra = {}) {
    std::vector<std::string> argv = {LEDRA_AGENT_PATH, "--socket", path("agents.sock"), "--name",
                                     name};
    argv.insert(argv.end(), extra.begin(), extra.end());
    agents_.push_back(std::make_unique<ChildProcess>(argv, path("stderr.txt")));
    return *agents_.back();
  }

  // Runs `argv` to its end (standard error joined to its output).
  Result run(std::vector<std::string> const& argv) {
    ChildProcess p(argv, "", true);
    auto const status = p.waitExit(kWait);
    return {status.value_or(-1), p.output()};
  }
  Result ctl(std::vector<std::string> args) {
    args.insert(args.begin(), {LEDRA_CTL_PATH, "--control-socket", path("ctl.sock")});
    return run(args);
  }

  std::filesystem::path dir_;
  std::unique_ptr<ChildProcess> ledrad_;
  std::vector<std::unique_ptr<ChildProcess>> agents_;

 private:
  char const* state_;
  char const* profiles_;
};

}  // namespace test
