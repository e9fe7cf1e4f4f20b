#include "Qel/NboAttrLog/SocketAcceptor.h"

#include <sys/socket.h>

#include <cerrno>

#include "Check/Check.h"

namespace Qel::NboAttrLog {

class SocketAcceptor::RetryTimer : public Clock::Notifiee {
 public:
  explicit RetryTimer(SocketAcceptor* a) : acceptor_(a) {}
  void onTime() override { acceptor_->resume(); }

 private:
  SocketAcceptor* acceptor_;
};

SocketAcceptor::SocketAcceptor(EventLoop::Ptr loop, int listenFd, OnAccept onAccept,
                               OnPause onPause)
    : loop_(std::move(loop)),
      fd_(listenFd),
      onAccept_(std::move(onAccept)),
      onPause_(std::move(onPause)),
      retry_(std::make_unique<RetryTimer>(this)) {
  QEL_CHECK(
      loop_ && fd_ >= 0 && onAccept_,
      "loop_ && fd_ >= 0 && onAccept_ && \"an acceptor needs a loop, a socket and a handler\"");
  retry_->notifierIs(loop_->clock());
  resume();
}

SocketAcceptor::~SocketAcceptor() {
  if (accepting_) loop_->unwatch(fd_);
}

void SocketAcceptor::resume() {
  if (accepting_) return;
  retry_->timeMinIs(kNever);
  accepting_ = true;
  loop_->watch(fd_, EventLoop::readable, [this](unsigned) { acceptReady(); });
}

void SocketAcceptor::pause(int err) {
  if (!accepting_) return;
  accepting_ = false;
  loop_->unwatch(fd_);
  retry_->timeMinIs(loop_->clock()->now() + kRetryDelay);
  // Told once per run of failures, not at every retry.
  if (!onPause_ || pauseReported_) return;
  pauseReported_ = true;
  onPause_(err);
}

void SocketAcceptor::acceptReady() {
  for (int i = 0; i < kAcceptsPerTurn && accepting_; ++i) {
    int const fd = ::accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      pauseReported_ = false;
      onAccept_(fd);
      continue;
    }
    int const err = errno;
    // The connection left the backlog before it was taken: there may be others.
    if (err == EINTR || err == ECONNABORTED || err == EPROTO) continue;
    if (err == EAGAIN || err == EWOULDBLOCK) return;
    pause(err);
    return;
  }
}

}  // namespace Qel::NboAttrLog
