// ledra-agent: see AgentSession.h for what it prints and AgentOptions.h for its command line.
// Exit status: 0 when the database closed the connection or a signal stopped the agent, 1 when
// the connection was lost (or could not be made), 2 for a bad command line.
#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "AgentOptions.h"
#include "AgentSession.h"
#include "Qel/Loop/EventLoop.h"

namespace {

// A connected, non-blocking socket to the database at `path`; -1 with `error` set on failure.
int connectTo(std::string const& path, std::string& error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    error = "path longer than " + std::to_string(sizeof addr.sun_path - 1) + " bytes";
    return -1;
  }
  std::memcpy(addr.sun_path, path.data(), path.size());
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::strerror(errno);
    return -1;
  }
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    error = std::strerror(errno);
    ::close(fd);
    return -1;
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  LedraAgent::AgentOptions options;
  try {
    options = LedraAgent::parseAgentOptions(std::vector<std::string>(argv + 1, argv + argc));
  } catch (LedraAgent::AgentOptionsError const& e) {
    std::cerr << "ledra-agent: " << e.what() << "\n" << LedraAgent::agentUsage();
    return 2;
  }
  if (options.help) {
    std::cout << LedraAgent::agentUsage();
    return 0;
  }

  std::signal(SIGPIPE, SIG_IGN);
  // SIGTERM and SIGINT arrive on a descriptor the loop watches.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
  int const signalFd = ::signalfd(-1, &stopSignals, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd < 0) {
    std::cerr << "ledra-agent: cannot watch signals: " << std::strerror(errno) << "\n";
    return 1;
  }

  std::string error;
  int const fd = connectTo(options.socketPath, error);
  if (fd < 0) {
    std::cerr << "ledra-agent: cannot connect to " << options.socketPath << ": " << error << "\n";
    return 1;
  }

  Qel::EventLoop::Ptr const loop = Qel::EventLoop::eventLoopNew();
  int status = 0;
  {
    LedraAgent::AgentSession session(loop, fd, options, std::cout);
    loop->watch(signalFd, Qel::EventLoop::readable, [&session, signalFd](unsigned) {
      signalfd_siginfo info;
      while (::read(signalFd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      }
      session.stop();
    });
    session.start();
    while (!session.ended())
      loop->run();
    loop->unwatch(signalFd);
    status = session.exitStatus();
  }
  ::close(signalFd);
  return status;
}
