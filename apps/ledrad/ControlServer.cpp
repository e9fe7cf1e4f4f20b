#include "apps/ledrad/ControlServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "apps/ledrad/UnixSocket.h"

namespace Ledrad {

ControlServer::ControlServer(Qel::EventLoop::Ptr loop, std::string path, Handler handler)
    : loop_(std::move(loop)), path_(std::move(path)), handler_(std::move(handler)) {
  fd_ = listenUnixSocket(path_);
  loop_->watch(fd_, Qel::EventLoop::readable, [this](unsigned) { acceptReady(); });
}

ControlServer::~ControlServer() {
  while (!clients_.empty())
    drop(clients_.begin()->first);
  loop_->unwatch(fd_);
  ::close(fd_);
  ::unlink(path_.c_str());
}

void ControlServer::acceptReady() {
  while (true) {
    int const fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      return;  // EAGAIN: nothing more to accept; other errors: the client is gone
    }
    if (clients_.size() >= kMaxClients) {
      ::close(fd);
      continue;
    }
    clients_.emplace(fd, Client{});
    loop_->watch(fd, Qel::EventLoop::readable,
                 [this, fd](unsigned ready) { clientReady(fd, ready); });
  }
}

void ControlServer::clientReady(int fd, unsigned ready) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& c = it->second;
  if (!c.out.empty()) {
    writeReply(fd, c);
    return;
  }
  readRequest(fd, c);
}

void ControlServer::readRequest(int fd, Client& c) {
  char buf[4096];
  while (true) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
      drop(fd);  // the client left before its request was complete
      return;
    }
    c.in.append(buf, static_cast<std::size_t>(n));
    std::size_t const nl = c.in.find('\n');
    if (nl != std::string::npos) {
      std::vector<std::string> const request = decodeRequest(std::string_view(c.in).substr(0, nl));
      ++requests_;
      bool const empty = request.empty() || request.front().empty();
      answer(fd, c, empty ? ControlReply{false, "empty request\n"} : handler_(request));
      return;
    }
    if (c.in.size() > kMaxRequest) {
      answer(
          fd, c,
          ControlReply{false, "request longer than " + std::to_string(kMaxRequest) + " bytes\n"});
      return;
    }
  }
}

void ControlServer::answer(int fd, Client& c, ControlReply const& reply) {
  c.in.clear();
  c.out = encodeReply(reply);
  c.sent = 0;
  loop_->watch(fd, Qel::EventLoop::writable,
               [this, fd](unsigned ready) { clientReady(fd, ready); });
  writeReply(fd, c);
}

void ControlServer::writeReply(int fd, Client& c) {
  while (c.sent < c.out.size()) {
    ssize_t const n = ::send(fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n < 0) break;  // the client is gone: nothing more to tell it
    c.sent += static_cast<std::size_t>(n);
  }
  drop(fd);
}

void ControlServer::drop(int fd) {
  loop_->unwatch(fd);
  ::close(fd);
  clients_.erase(fd);
}

}  // namespace Ledrad
