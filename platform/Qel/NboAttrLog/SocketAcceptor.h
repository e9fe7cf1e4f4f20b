// Qel::NboAttrLog::SocketAcceptor: accepts the connections of a listening stream socket on the
// event loop, for every server of the process (agents, control clients).
//
// While accepting, the listening descriptor is watched for readability; each readiness accepts
// up to kAcceptsPerTurn connections (non-blocking, close-on-exec) and hands each new descriptor
// to `onAccept`, which owns it from then on. A connection that went away before it was accepted
// is skipped.
//
// Out of descriptors or memory (EMFILE, ENFILE, ENOBUFS, ENOMEM): the listening socket stays
// ready while the connection waits in its backlog, so on a level-triggered loop accepting again
// at once would spin. The acceptor instead stops watching (paused()) and tries again
// kRetryDelay seconds later on the loop's clock, or at once when the owner reports a freed
// descriptor (resume()); `onPause` hears the error of the first pause of each run of failures
// (until a connection is accepted again), not of every retry. The waiting connections stay in the
// backlog meanwhile. Any other accept error is passed to `onPause` as well and handled the same
// way.
//
// The acceptor neither owns nor closes the listening descriptor; the descriptor must outlive it,
// and so must the loop. `onAccept` must not destroy the acceptor. Single-threaded, on the loop's
// thread.
#pragma once

#include "Qel/Core/Api.h"

#include <functional>
#include <memory>

#include "Qel/Loop/EventLoop.h"

namespace Qel::NboAttrLog {

class QEL_API SocketAcceptor {
 public:
  using OnAccept = std::function<void(int fd)>;
  // Called with the errno of the accept that made the acceptor pause.
  using OnPause = std::function<void(int err)>;
  static constexpr int kAcceptsPerTurn = 64;
  static constexpr Time kRetryDelay = 0.1;

  // Starts accepting on `listenFd` at once.
  SocketAcceptor(EventLoop::Ptr loop, int listenFd, OnAccept onAccept, OnPause onPause = {});
  ~SocketAcceptor();
  SocketAcceptor(SocketAcceptor const&) = delete;
  SocketAcceptor& operator=(SocketAcceptor const&) = delete;

  bool paused() const { return !accepting_; }
  // A descriptor was freed: a paused acceptor tries again now (pausing anew if it still fails).
  void resume();

 private:
  class RetryTimer;

  void acceptReady();
  void pause(int err);

  EventLoop::Ptr const loop_;
  int const fd_;
  OnAccept const onAccept_;
  OnPause const onPause_;
  std::unique_ptr<RetryTimer> retry_;
  bool accepting_ = false;
  bool pauseReported_ = false;
};

}  // namespace Qel::NboAttrLog
