#include "apps/ledrad/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "apps/ledrad/UnixSocket.h"

namespace Ledrad {

namespace {

// Closes the descriptor when the exchange ends, however it ends.
struct Fd {
  int fd;
  ~Fd() { ::close(fd); }
};

void await(int fd, short events, int timeoutMs, std::string const& path) {
  pollfd p{fd, events, 0};
  int rc;
  do {
    rc = ::poll(&p, 1, timeoutMs);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0) throw std::runtime_error("ledrad at " + path + " did not answer in time");
  if (rc < 0) throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
}

}  // namespace

ControlReply controlRequest(std::string const& socketPath, std::vector<std::string> const& words,
                            int timeoutMs) {
  std::string const request = encodeRequest(words);
  Fd const conn{connectUnixSocket(socketPath)};
  std::size_t sent = 0;
  while (sent < request.size()) {
    await(conn.fd, POLLOUT, timeoutMs, socketPath);
    ssize_t const n =
        ::send(conn.fd, request.data() + sent, request.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    // ledrad closed the connection early: it refused the client, and its reason waits to be read.
    if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) break;
    if (n < 0)
      throw std::runtime_error("cannot send to " + socketPath + ": " + std::strerror(errno));
    sent += static_cast<std::size_t>(n);
  }
  std::string reply;
  char buf[4096];
  while (true) {
    await(conn.fd, POLLIN, timeoutMs, socketPath);
    ssize_t const n = ::recv(conn.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    // A reset after the reply (ledrad closed before taking all of the request) ends it too.
    if (n < 0 && errno == ECONNRESET && !reply.empty()) break;
    if (n < 0) {
      throw std::runtime_error("cannot read from " + socketPath + ": " + std::strerror(errno));
    }
    if (n == 0) break;
    reply.append(buf, static_cast<std::size_t>(n));
  }
  return decodeReply(reply);
}

}  // namespace Ledrad
