// Ledrad::ControlServer: ledrad's control socket, served on the event loop (ControlProtocol).
//
// It listens on a Unix socket (listenUnixSocket: a stale socket file is replaced) and accepts
// clients on the loop. Each client sends one request line; the handler runs on the loop's thread
// with the request's words and its reply is written back without blocking the loop (a slow
// reader is served as its socket drains), after which the connection is closed. A request line
// longer than kMaxRequest, or a client that ends its stream before a full line, gets no command
// run: the first is answered with an error, the second simply dropped. At most kMaxClients
// clients are served at once; further connections are closed at once.
//
// Destroying the server closes every client and removes its socket file. The loop must outlive
// the server. Single-threaded, on the loop's thread; the handler must not destroy the server.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Qel/EventLoop.h"
#include "apps/ledrad/ControlProtocol.h"

namespace Ledrad {

class ControlServer {
 public:
  using Handler = std::function<ControlReply(std::vector<std::string> const& request)>;
  static constexpr std::size_t kMaxClients = 64;

  // Throws std::runtime_error when the socket cannot be made.
  ControlServer(Qel::EventLoop::Ptr loop, std::string path, Handler handler);
  ~ControlServer();
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

  std::string const& socketPath() const { return path_; }
  std::size_t clients() const { return clients_.size(); }
  // Requests answered so far.
  std::size_t requests() const { return requests_; }

 private:
  struct Client {
    std::string in;
    std::string out;
    std::size_t sent = 0;
  };

  void acceptReady();
  void clientReady(int fd, unsigned ready);
  void readRequest(int fd, Client& c);
  void answer(int fd, Client& c, ControlReply const& reply);
  void writeReply(int fd, Client& c);
  void drop(int fd);

  Qel::EventLoop::Ptr const loop_;
  std::string const path_;
  Handler const handler_;
  int fd_ = -1;
  std::map<int, Client> clients_;
  std::size_t requests_ = 0;
};

}  // namespace Ledrad
