#include "apps/ledrad/ControlServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Check/Check.h"
#include "Ledra/TraceFacility.h"
#include "Qel/Loop/SecondsText.h"
#include "apps/ledrad/UnixSocket.h"

namespace Ledrad {

namespace {

pid_t peerProcess(int fd) {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return 0;
  return cred.pid;
}

// Consumes what the client has sent and nobody will read (at most one request's worth) and
// closes the socket: closing over unread input would reset the connection, and the client could
// lose the reply before reading it.
void drainAndClose(int fd) {
  char buf[4096];
  for (std::size_t drained = 0; drained <= kMaxRequest;) {
    ssize_t const n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    drained += static_cast<std::size_t>(n);
  }
  ::close(fd);
}

// Answers a new connection at once with an error reply (its socket takes a short reply whole).
void refuseAndClose(int fd, std::string const& reason) {
  std::string const reply = encodeReply(ControlReply{false, reason + "\n"});
  while (::send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
         errno == EINTR) {
  }
  drainAndClose(fd);
}

}  // namespace

// Closes the clients whose time is up.
class ControlServer::IdleTimer : public Qel::Clock::Notifiee {
 public:
  explicit IdleTimer(ControlServer* s) : server_(s) {}
  void onTime() override { server_->expire(); }

 private:
  ControlServer* server_;
};

ControlServer::ControlServer(Qel::EventLoop::Ptr loop, std::string path, Handler handler,
                             Limits limits)
    : loop_(std::move(loop)),
      path_(std::move(path)),
      handler_(std::move(handler)),
      limits_(limits),
      timer_(std::make_unique<IdleTimer>(this)) {
  QEL_CHECK(limits_.maxClients >= 1 && limits_.maxClientsPerProcess >= 1 && limits_.idleTimeout > 0,
            "limits_.maxClients >= 1 && limits_.maxClientsPerProcess >= 1 && limits_.idleTimeout > "
            "0 && \"control server limits must be positive\"");
  timer_->notifierIs(loop_->clock());
  fd_ = listenUnixSocket(path_);
  acceptor_ = std::make_unique<Qel::NboAttrLog::SocketAcceptor>(
      loop_, fd_, [this](int fd) { accepted(fd); },
      [this](int err) {
        TRACE(LedraPlatform, 1, "control socket {} cannot accept: {}; accepting pauses", path_,
              std::string(std::strerror(err)));
      });
}

ControlServer::~ControlServer() {
  acceptor_.reset();
  while (!clients_.empty())
    drop(clients_.begin()->first);
  ::close(fd_);
  ::unlink(path_.c_str());
}

std::string ControlServer::refusal(pid_t pid) const {
  if (clients_.size() >= limits_.maxClients) {
    return "ledrad serves at most " + std::to_string(limits_.maxClients) +
           " control connections at once; try again later";
  }
  auto const it = perProcess_.find(pid);
  if (it != perProcess_.end() && it->second >= limits_.maxClientsPerProcess) {
    return "ledrad serves at most " + std::to_string(limits_.maxClientsPerProcess) +
           " control connections of one process at once (process " + std::to_string(pid) + ")";
  }
  return {};
}

void ControlServer::accepted(int fd) {
  pid_t const pid = peerProcess(fd);
  if (std::string const why = refusal(pid); !why.empty()) {
    ++refused_;
    refuseAndClose(fd, why);
    return;
  }
  Client& c = clients_[fd];
  c.pid = pid;
  c.deadline = loop_->clock()->now() + limits_.idleTimeout;
  ++perProcess_[pid];
  loop_->watch(fd, Qel::EventLoop::readable,
               [this, fd](unsigned ready) { clientReady(fd, ready); });
  armTimer();
}

void ControlServer::clientReady(int fd, unsigned ready) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& c = it->second;
  if (c.watcher) {
    if (ready & ~unsigned{Qel::EventLoop::writable}) readWatcher(fd);
    it = clients_.find(fd);
    if (it != clients_.end() && (ready & Qel::EventLoop::writable)) writeRecords(fd, it->second);
    return;
  }
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
      bool const empty = request.empty() || (request.size() == 1 && request.front().empty());
      ControlReply const reply = empty ? ControlReply{false, "empty request\n"} : handler_(request);
      if (reply.ok && reply.subscription) {
        subscribe(fd, c, reply);
        return;
      }
      answer(fd, c, reply);
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
  c.deadline = loop_->clock()->now() + limits_.idleTimeout;
  loop_->watch(fd, Qel::EventLoop::writable,
               [this, fd](unsigned ready) { clientReady(fd, ready); });
  writeReply(fd, c);
  armTimer();
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

void ControlServer::subscribe(int fd, Client& c, ControlReply const& reply) {
  c.in.clear();
  c.watcher = true;
  ++watchers_;
  c.keys = *reply.subscription;
  std::sort(c.keys.begin(), c.keys.end());
  c.out = encodeReply(reply);
  c.sent = 0;
  c.deadline = Qel::kNever;
  writeRecords(fd, c);
}

void ControlServer::publish(std::string const& key, std::string const& record) {
  if (watchers_ == 0) return;
  std::vector<int> idle;  // watchers whose socket took everything so far
  for (auto& [fd, c] : clients_) {
    if (!c.watcher) continue;
    if (!c.keys.empty() && !std::binary_search(c.keys.begin(), c.keys.end(), key)) continue;
    c.pending[key] = record;
    if (!c.writing) idle.push_back(fd);
  }
  for (int const fd : idle) {
    auto it = clients_.find(fd);
    if (it != clients_.end()) writeRecords(fd, it->second);
  }
}

// A watcher sends nothing that counts: its input is read and dropped, its end of stream ends it.
// A few reads per turn, so that a client that writes without pause cannot hold the loop.
void ControlServer::readWatcher(int fd) {
  char buf[4096];
  for (int reads = 0; reads < 16; ++reads) {
    ssize_t const n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) {
      drop(fd);
      return;
    }
  }
}

// Sends the batch under way, then the pending records as the next batch, until the socket is
// full or nothing is left.
void ControlServer::writeRecords(int fd, Client& c) {
  while (true) {
    if (c.sent == c.out.size()) {
      c.out.clear();
      c.sent = 0;
      for (auto const& [key, record] : c.pending)
        c.out += record;
      c.pending.clear();
      if (c.out.empty()) break;
    }
    ssize_t const n =
        ::send(fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      // The socket is full: from now on the watcher has idleTimeout to take something.
      if (c.deadline == Qel::kNever) {
        c.deadline = loop_->clock()->now() + limits_.idleTimeout;
        if (c.deadline < timer_->timeMin()) timer_->timeMinIs(c.deadline);
      }
      writingIs(fd, c, true);
      return;
    }
    if (n < 0) {
      drop(fd);  // the watcher is gone
      return;
    }
    c.sent += static_cast<std::size_t>(n);
    c.deadline = Qel::kNever;
  }
  c.deadline = Qel::kNever;
  writingIs(fd, c, false);
}

void ControlServer::writingIs(int fd, Client& c, bool writing) {
  if (c.writing == writing) return;
  c.writing = writing;
  loop_->watch(
      fd, writing ? Qel::EventLoop::readable | Qel::EventLoop::writable : Qel::EventLoop::readable,
      [this, fd](unsigned ready) { clientReady(fd, ready); });
}

void ControlServer::drop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  if (it->second.watcher) --watchers_;
  auto const p = perProcess_.find(it->second.pid);
  if (p != perProcess_.end() && --p->second == 0) perProcess_.erase(p);
  clients_.erase(it);
  loop_->unwatch(fd);
  drainAndClose(fd);
  // A descriptor is free again: accepting may go on if it paused.
  if (acceptor_) acceptor_->resume();
}

void ControlServer::expire() {
  Qel::Time const now = loop_->clock()->now();
  std::vector<int> due;
  for (auto const& [fd, c] : clients_) {
    if (c.deadline <= now) due.push_back(fd);
  }
  for (int const fd : due) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) continue;
    ++timedOut_;
    Client& c = it->second;
    if (c.watcher || !c.out.empty()) {
      drop(fd);  // it does not take its reply, or its records
      continue;
    }
    answer(fd, c,
           ControlReply{
               false, "no request within " + Qel::secondsText(limits_.idleTimeout) + " seconds\n"});
  }
  armTimer();
}

void ControlServer::armTimer() {
  Qel::Time next = Qel::kNever;
  for (auto const& [fd, c] : clients_)
    next = std::min(next, c.deadline);
  if (next != timer_->timeMin()) timer_->timeMinIs(next);
}

}  // namespace Ledrad
