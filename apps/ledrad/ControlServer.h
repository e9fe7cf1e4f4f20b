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

#include "Qel/EventLoop.h"
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

 private:
  class IdleTimer;
  struct Client {
    pid_t pid = 0;
    Qel::Time deadline = 0;
    std::string in;
    std::string out;
    std::size_t sent = 0;
  };

  void accepted(int fd);
  // The reason to refuse a new client of process `pid`; empty when it is served.
  std::string refusal(pid_t pid) const;
  void clientReady(int fd, unsigned ready);
  void readRequest(int fd, Client& c);
  void answer(int fd, Client& c, ControlReply const& reply);
  void writeReply(int fd, Client& c);
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
};

}  // namespace Ledrad
