// Ledrad::ControlServer: ledrad's control socket, served on the event loop (ControlProtocol).
//
// It listens on a Unix socket (listenUnixSocket: a stale socket file is replaced) and accepts
// clients on the loop. Each client sends one request line; the handler runs on the loop's thread
// with the request's words and its reply is written back without blocking the loop (a slow
// reader is served as its socket drains), after which the connection is closed. A request line
// longer than kMaxRequest, or a client that ends its stream before a full line, gets no command
// run: the first is answered with an error, the second simply dropped.
//
// Bounds (Limits), so that no client can lock the others out:
//   - at most maxClients connections at once, and at most maxClientsPerProcess of one client
//     process (the peer's pid, from SO_PEERCRED; every client normally runs as ledrad's own user,
//     since the socket's folder is private to it, so a limit per user would be the overall limit
//     again). A connection beyond either is answered at once with an error reply naming the
//     limit and closed.
//   - idleTimeout seconds of the loop's clock for a client to send its whole request (then it is
//     answered "no request within <n> seconds" and closed), and as long again for it to take its
//     whole reply once it is ready (then it is dropped).
//
// Subscriptions (watchers). A handler's ok reply with a subscription (ControlReply) turns the
// client into a watcher: after the reply's text, publish(key, record) sends it every record
// published under a key it subscribed to, until it closes its end (what it sends is read and
// dropped) or the server is destroyed. Watchers count against both connection limits. A watcher
// is never timed out while it keeps up; its bound is this:
//   - records are coalesced per key: while its socket is full, only the latest record of each key
//     waits, in place of any earlier one not yet sent. So a watcher holds at most two records per
//     key (one in the batch being sent, the latest pending) however fast records come.
//   - once its socket has taken nothing for idleTimeout seconds while records wait, it is dropped.
// Sending never blocks the loop.
//
// Accepting pauses while the process is out of descriptors (Qel::NboAttrLog::SocketAcceptor) and
// resumes after a short delay or as soon as a client's descriptor is closed.
//
// Destroying the server closes every client and removes its socket file. The loop must outlive
// the server. Single-threaded, on the loop's thread; the handler must not destroy the server.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Qel/Loop/EventLoop.h"
#include "Qel/NboAttrLog/SocketAcceptor.h"
#include "apps/ledrad/ControlProtocol.h"

namespace Ledrad {

class ControlServer {
 public:
  using Handler = std::function<ControlReply(std::vector<std::string> const& request)>;
  struct Limits {
    std::size_t maxClients = 64;
    std::size_t maxClientsPerProcess = 8;
    Qel::Time idleTimeout = 10.0;
  };

  // Throws std::runtime_error when the socket cannot be made.
  ControlServer(Qel::EventLoop::Ptr loop, std::string path, Handler handler, Limits limits);
  ControlServer(Qel::EventLoop::Ptr loop, std::string path, Handler handler)
      : ControlServer(std::move(loop), std::move(path), std::move(handler), Limits{}) {}
  ~ControlServer();
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

  std::string const& socketPath() const { return path_; }
  Limits const& limits() const { return limits_; }
  std::size_t clients() const { return clients_.size(); }
  // Requests answered so far.
  std::size_t requests() const { return requests_; }
  // Connections refused at a limit, and clients that ran out of time, so far.
  std::size_t refused() const { return refused_; }
  std::size_t timedOut() const { return timedOut_; }
  // Whether accepting is paused for want of descriptors.
  bool acceptPaused() const { return acceptor_->paused(); }
  // Clients that are watchers now.
  std::size_t watchers() const { return watchers_; }

  // Sends `record` (whole lines) to every watcher subscribed to `key`, coalesced as above.
  void publish(std::string const& key, std::string const& record);

 private:
  class IdleTimer;
  struct Client {
    pid_t pid = 0;
    Qel::Time deadline = 0;
    std::string in;
    std::string out;
    std::size_t sent = 0;
    // A watcher: the keys it takes (sorted; empty for all) and the latest record of each key
    // that waits behind `out`.
    bool watcher = false;
    bool writing = false;  // the loop watches its socket for writing
    std::vector<std::string> keys;
    std::map<std::string, std::string> pending;
  };

  void accepted(int fd);
  // The reason to refuse a new client of process `pid`; empty when it is served.
  std::string refusal(pid_t pid) const;
  void clientReady(int fd, unsigned ready);
  void readRequest(int fd, Client& c);
  void answer(int fd, Client& c, ControlReply const& reply);
  void writeReply(int fd, Client& c);
  void subscribe(int fd, Client& c, ControlReply const& reply);
  void readWatcher(int fd);
  void writeRecords(int fd, Client& c);
  void writingIs(int fd, Client& c, bool writing);
  void drop(int fd);
  void expire();
  void armTimer();

  Qel::EventLoop::Ptr const loop_;
  std::string const path_;
  Handler const handler_;
  Limits const limits_;
  int fd_ = -1;
  std::map<int, Client> clients_;
  std::map<pid_t, std::size_t> perProcess_;
  std::unique_ptr<IdleTimer> timer_;
  std::unique_ptr<Qel::NboAttrLog::SocketAcceptor> acceptor_;
  std::size_t requests_ = 0;
  std::size_t refused_ = 0;
  std::size_t timedOut_ = 0;
  std::size_t watchers_ = 0;
};

}  // namespace Ledrad
