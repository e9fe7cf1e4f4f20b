#include "apps/ledrad/UnixSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace Ledrad {

namespace {

sockaddr_un address(std::string const& path, char const* what) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    throw std::runtime_error(std::string(what) + path +
                             ": the path is empty or too long for a socket address");
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return addr;
}

[[noreturn]] void fail(char const* what, std::string const& path, int err) {
  throw std::runtime_error(std::string(what) + path + ": " + std::strerror(err));
}

// Whether a process accepts connections on the socket file at `path`.
bool socketIsLive(sockaddr_un const& addr) {
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool const live = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return live;
}

}  // namespace

int listenUnixSocket(std::string const& path) {
  char const* what = "cannot listen on ";
  sockaddr_un const addr = address(path, what);
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      throw std::runtime_error(what + path + ": a file that is not a socket is in the way");
    }
    if (socketIsLive(addr))
      throw std::runtime_error(what + path + ": another process listens there");
    ::unlink(path.c_str());
  }
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) fail(what, path, errno);
  if (::bind(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 64) != 0) {
    int const err = errno;
    ::close(fd);
    fail(what, path, err);
  }
  return fd;
}

int connectUnixSocket(std::string const& path) {
  char const* what = "cannot connect to ";
  sockaddr_un const addr = address(path, what);
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) fail(what, path, errno);
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    int const err = errno;
    ::close(fd);
    fail(what, path, err);
  }
  return fd;
}

}  // namespace Ledrad
