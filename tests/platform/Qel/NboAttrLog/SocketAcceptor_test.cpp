// The acceptor out of descriptors: it must stop watching the listening socket, or a
// level-triggered loop spins on the connection waiting in the backlog.
#include "Qel/NboAttrLog/SocketAcceptor.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Qel/Loop/SimulatedClock.h"

namespace {

using Qel::NboAttrLog::SocketAcceptor;

class SocketAcceptorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved_), 0);
    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    address_.sun_family = AF_UNIX;
    // An abstract address: nothing to remove afterwards.
    std::snprintf(address_.sun_path + 1, sizeof address_.sun_path - 1, "ledra-acceptor-%d",
                  ::getpid());
    ASSERT_EQ(::bind(listenFd_, reinterpret_cast<sockaddr const*>(&address_), sizeof address_), 0)
        << std::strerror(errno);
    ASSERT_EQ(::listen(listenFd_, 8), 0);
  }
  void TearDown() override {
    for (int fd : spare_)
      ::close(fd);
    for (int fd : accepted_)
      ::close(fd);
    ::close(client_);
    ::close(listenFd_);
    ::setrlimit(RLIMIT_NOFILE, &saved_);
  }
  // A client waits in the backlog, and every descriptor the process may have is taken.
  void clientWaitsWithNoDescriptorLeft() {
    client_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(client_, reinterpret_cast<sockaddr const*>(&address_), sizeof address_), 0);
    rlimit low = saved_;
    low.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    for (int fd; (fd = ::dup(listenFd_)) >= 0;)
      spare_.push_back(fd);
    ASSERT_EQ(errno, EMFILE);
  }

  rlimit saved_{};
  sockaddr_un address_{};
  int listenFd_ = -1;
  int client_ = -1;
  std::vector<int> spare_;
  std::vector<int> accepted_;
};

TEST_F(SocketAcceptorTest, OutOfDescriptorsItStopsWatchingUntilOneIsFree) {
#ifdef LEDRA_SANITIZE
  GTEST_SKIP() << "the sanitizers need descriptors of their own";
#endif
  auto const clock = Qel::SimulatedClock::simulatedClockNew();
  auto const loop = Qel::EventLoop::eventLoopNew(clock);
  std::vector<int> pauses;
  SocketAcceptor acceptor(
      loop, listenFd_, [&](int fd) { accepted_.push_back(fd); },
      [&](int err) { pauses.push_back(err); });
  clientWaitsWithNoDescriptorLeft();
  loop->runOnce();
  EXPECT_TRUE(acceptor.paused());
  // (Still watched, the loop would never let the simulated time move on.)
  ASSERT_FALSE(loop->watching(listenFd_));
  // The retry finds the process still full: paused again, and told only once.
  loop->runFor(SocketAcceptor::kRetryDelay * 2.5);
  EXPECT_FALSE(loop->watching(listenFd_));
  EXPECT_EQ(pauses, std::vector<int>{EMFILE});
  EXPECT_TRUE(accepted_.empty());
  // Descriptors freed and reported: the waiting client is taken at once. (Had only one been
  // freed, the client would take it and the next accept would pause again.)
  for (int i = 0; i < 2; ++i) {
    ::close(spare_.back());
    spare_.pop_back();
  }
  acceptor.resume();
  loop->runOnce();
  EXPECT_EQ(accepted_.size(), 1u);
  EXPECT_FALSE(acceptor.paused());
  EXPECT_TRUE(loop->watching(listenFd_));
}

using SocketAcceptorDeathTest = SocketAcceptorTest;

TEST_F(SocketAcceptorDeathTest, ContractViolations) {
  auto const loop = Qel::EventLoop::eventLoopNew(Qel::SimulatedClock::simulatedClockNew());
  char const* const text = "\"an acceptor needs a loop, a socket and a handler\"";
  EXPECT_DEATH(SocketAcceptor(nullptr, listenFd_, [](int) {}), text);
  EXPECT_DEATH(SocketAcceptor(loop, -1, [](int) {}), text);
  EXPECT_DEATH(SocketAcceptor(loop, listenFd_, {}), text);
}

}  // namespace
