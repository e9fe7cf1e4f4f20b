#include "Qel/NboAttrLog/SocketTransport.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "Check/Check.h"
#include "Qel/Mount/EntityUri.h"
#include "Qel/NboAttrLog/EntityStateCache.h"
#include "Qel/NboAttrLog/WireText.h"

namespace Qel::NboAttrLog {

namespace {

// Reads per readiness event before the decoded messages are handled; the rest waits for the
// next turn (the loop is level-triggered), so one busy peer cannot starve the others.
constexpr int kReadsPerTurn = 16;
constexpr std::size_t kReadChunk = 64 * 1024;
// Unread input discarded at teardown, so that the peer sees the end of the stream rather than
// a reset after our last frame.
constexpr std::size_t kDrainLimit = 1 << 20;
// An output buffer emptied while holding more than this gives its memory back: a turn's output
// is gathered there, and an idle connection should not keep the room its busiest turn took.
constexpr std::size_t kKeptOutputCapacity = 4 * 1024;
// Output gathered in a turn is written at once when it reaches this much: larger writes save
// nothing more, and the turn need not hold all it produces.
constexpr std::size_t kGatherBytes = 64 * 1024;

String errnoText(int err) {
  return String(std::strerror(err));
}

String pathOfUri(String const& uri) {
  try {
    return EntityUri(uri).path();
  } catch (std::exception const&) {
    return uri.substr(0, uri.find('?'));
  }
}

}  // namespace

SocketTransport::Ptr SocketTransport::socketTransportNew(EventLoop* loop, int fd, Owner* owner,
                                                         String const& name) {
  return Ptr(new SocketTransport(loop, fd, owner, name));
}

SocketTransport::SocketTransport(EventLoop* loop, int fd, Owner* owner, String name)
    : loop_(loop), fd_(fd), owner_(owner), name_(std::move(name)) {
  QEL_CHECK(loop_, "loop_ && \"a socket transport needs an event loop\"");
  QEL_CHECK(fd_ >= 0, "fd_ >= 0 && \"a socket transport needs an open socket\"");
  int const flags = ::fcntl(fd_, F_GETFL);
  if (flags >= 0) ::fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
  ::fcntl(fd_, F_SETFD, FD_CLOEXEC);
  try {
    watchFor(false);
  } catch (...) {
    ::close(fd_);
    throw;
  }
}

SocketTransport::~SocketTransport() {
  if (gone_ || fd_ < 0) return;
  loop_->unwatch(fd_);
  ::close(fd_);
}

void SocketTransport::demuxerIs(Demuxer::Ptr const& d) {
  QEL_CHECK(d && d->transport().ptr() == this,
            "d && d->transport().ptr() == this && \"binding a demuxer of another transport\"");
  QEL_CHECK(!demuxer_, "!demuxer_ && \"socket transport already bound to a demuxer\"");
  demuxer_ = d;
  name_ = d->name();
}

void SocketTransport::maxFrameIs(std::size_t bytes) {
  decoder_.maxFrameIs(bytes);
}

void SocketTransport::maxOutputIs(std::size_t bytes) {
  QEL_CHECK(bytes > 0, "bytes > 0 && \"an output limit of at least one byte\"");
  maxOutput_ = bytes;
}

void SocketTransport::watchFor(bool writable) {
  watchingWritable_ = writable;
  loop_->watch(fd_, EventLoop::readable | (writable ? EventLoop::writable : 0u),
               [this](unsigned ready) { onReady(ready); });
}

void SocketTransport::onReady(unsigned ready) {
  Ptr self(this);
  if (closing_) return;
  if ((ready & EventLoop::writable) && !flush()) {
    lost("write error: " + writeError_);
    return;
  }
  if (!(ready & (EventLoop::readable | EventLoop::hangup | EventLoop::error))) return;
  bool ended = false;
  String readError;
  readInput(ended, readError);
  WireMessage m;
  while (!closing_) {
    WireDecoder::Result const r = decoder_.next(m);
    if (r == WireDecoder::Result::none) break;
    if (r == WireDecoder::Result::error) {
      protocolError(decoder_.error());
      return;
    }
    if (!handle(m)) return;
  }
  if (closing_) return;
  if (!readError.empty()) {
    lost("read error: " + readError);
    return;
  }
  if (!ended) return;
  if (decoder_.midFrame()) {
    protocolError(decoder_.truncation());
    return;
  }
  lost("end of stream");
}

void SocketTransport::readInput(bool& ended, String& readError) {
  char buf[kReadChunk];
  for (int i = 0; i < kReadsPerTurn; ++i) {
    ssize_t const n = ::read(fd_, buf, sizeof buf);
    if (n > 0) {
      decoder_.feed(std::string_view(buf, static_cast<std::size_t>(n)));
      if (static_cast<std::size_t>(n) < sizeof buf) return;
      continue;
    }
    if (n == 0) {
      ended = true;
      return;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return;
    readError = errnoText(errno);
    return;
  }
}

bool SocketTransport::handle(WireMessage& m) {
  if (auto* close = std::get_if<WireClose>(&m)) {
    String const reason = printableText(close->reason);
    lost(reason, "closed by the agent: " + reason);
    return false;
  }
  if (auto* hello = std::get_if<WireHello>(&m)) {
    if (helloSeen_) {
      protocolError("unexpected Hello");
      return false;
    }
    helloSeen_ = true;
    if (owner_) owner_->onHello(*this, *hello);
    if (closing_) return false;
    if (!demuxer_) {
      closeWith("hello not accepted");
      return false;
    }
    return true;
  }
  if (!helloSeen_) {
    protocolError(std::string("expected a Hello, got ") + wireKindName(wireKind(m)));
    return false;
  }
  if (auto* answer = std::get_if<WireMountAnswer>(&m)) {
    handleAnswer(*answer);
    return !closing_;
  }
  protocolError(std::string("unexpected ") + wireKindName(wireKind(m)) + " from the agent");
  return false;
}

void SocketTransport::handleAnswer(WireMountAnswer const& a) {
  auto it = unanswered_.find(a.seqno);
  if (it == unanswered_.end()) {
    protocolError("answer to unknown request " + std::to_string(a.seqno));
    return;
  }
  if (it->second != a.path) {
    protocolError("answer to request " + std::to_string(a.seqno) + " names " + a.path +
                  ", the request was for " + it->second);
    return;
  }
  unanswered_.erase(it);
  Demuxer::Ptr const d = demuxer_;
  if (!d || d->closed()) return;
  if (a.ok) {
    d->peer()->pathStateIs(a.path, a.pathStateValue());
    // A watcher of the path state may have closed the connection.
    if (closing_ || d->closed()) return;
  }
  d->mountAnswered(a.path, a.ok, printableText(a.exceptionText));
}

void SocketTransport::protocolError(String const& reason) {
  if (closing_) return;
  endReason_ = "protocol error: " + reason;
  closeWith(reason);
}

void SocketTransport::closeWith(String const& reason) {
  if (closing_) return;
  Ptr self(this);
  if (demuxer_ && !demuxer_->closed()) {
    // The demuxer records the reason and calls close() below.
    Demuxer::Ptr const d = demuxer_;
    d->close(reason, {.notifyPeer = true, .removeStatus = true});
    if (closing_) return;
  }
  close(reason, true);
}

void SocketTransport::close(String const& reason, bool removeStatus) {
  if (closing_) return;
  Ptr self(this);
  closing_ = true;
  discarding_ = false;
  if (endReason_.empty()) {
    endReason_ = "closed by the database: " + (reason.empty() ? String("no reason given") : reason);
  }
  if (!reason.empty()) enqueue(wireFrame(WireClose{reason}));
  if (!writeFailed_) flush();
  loop_->unwatch(fd_);
  teardownSchedule(removeStatus);
}

void SocketTransport::lost(String const& reason, String const& traced) {
  if (closing_) return;
  Ptr self(this);
  closing_ = true;
  endReason_ = traced.empty() ? String("connection lost: " + reason) : traced;
  loop_->unwatch(fd_);
  Demuxer::Ptr const d = demuxer_;
  if (d && !d->closed()) {
    d->peerClosed(traced.empty() ? endReason_ : reason);
  }
  teardownSchedule(true);
}

void SocketTransport::sendMountRequest(String const& uri, String const& typeName, U32 seqno) {
  if (closing_ || discarding_) return;
  Ptr self(this);
  String const path = pathOfUri(uri);
  // The state is shared by every connection asking for the same unchanged entity; a state longer
  // than the frame limit is left out.
  std::string_view state = entityStateCache().frame(path);
  if (!state.empty() && state.size() - WireDecoder::kHeaderBytes > maxFrame()) state = {};
  enqueueRequest(seqno, uri, typeName, state);
  unanswered_[seqno] = path;
  if (gathered_ == 0) {
    // Queued behind output the socket refused: the writable event writes it, unless the bound
    // is passed.
    if (outputBuffered() <= maxOutput_) return;
  } else if (loop_->inTurn() && gathered_ < std::min(kGatherBytes, maxOutput_)) {
    flushAtTurnEnd();
    return;
  }
  // Failures are handled on a later turn: the demuxer is in the middle of sending.
  if (!flush()) {
    loop_->post([self] { self->lost("write error: " + self->writeError_); });
    return;
  }
  checkBound();
}

void SocketTransport::flushAtTurnEnd() {
  if (flushQueued_) return;
  flushQueued_ = true;
  loop_->atTurnEnd([self = Ptr(this)] { self->flushGathered(); });
}

void SocketTransport::flushGathered() {
  flushQueued_ = false;
  if (closing_ || discarding_ || gathered_ == 0) return;
  if (!flush()) {
    lost("write error: " + writeError_);
    return;
  }
  checkBound();
}

void SocketTransport::checkBound() {
  if (outputBuffered() <= maxOutput_) return;
  discardOutputAndClose("agent does not read its connection (" + std::to_string(outputBuffered()) +
                        " bytes waiting, limit " + std::to_string(maxOutput_) + ")");
}

void SocketTransport::discardOutputAndClose(String const& reason) {
  if (closing_ || discarding_) return;
  Ptr self(this);
  discarding_ = true;
  dropOutput();
  loop_->post([self, reason] { self->closeWith(reason); });
}

void SocketTransport::enqueue(std::string_view frame) {
  if (discarding_ || frameCut_) return;
  std::size_t const before = outputBuffered();
  startQueueing();
  output_.append(frame);
  frameQueued(frame.size(), before);
  if (before != 0) outputChanged(before);
}

void SocketTransport::enqueueRequest(U32 seqno, String const& uri, String const& typeName,
                                     std::string_view state) {
  if (discarding_ || frameCut_) return;
  std::size_t const before = outputBuffered();
  startQueueing();
  std::size_t const start = output_.size();
  wireMountRequestAppend(output_, seqno, uri, typeName, !state.empty());
  frameQueued(output_.size() - start, before);
  if (!state.empty()) {
    output_.append(state);
    wireSeqnoIs(output_.data() + output_.size() - state.size(), seqno);
    frameQueued(state.size(), before);
  }
  if (before != 0) outputChanged(before);
}

void SocketTransport::startQueueing() {
  if (outputOffset_ != output_.size()) return;
  output_.clear();
  outputOffset_ = 0;
}

void SocketTransport::frameQueued(std::size_t size, std::size_t before) {
  queuedBytes_ += size;
  frameEnds_.push_back(queuedBytes_);
  // Nothing waits: the socket took all it was given, and the frame waits for the turn's write.
  if (before == 0) gathered_ += size;
}

void SocketTransport::dropOutput() {
  std::size_t const before = outputBuffered();
  std::string().swap(output_);
  outputOffset_ = 0;
  gathered_ = 0;
  // The socket took part of a frame whose rest is dropped: the stream can carry nothing more.
  if (writtenBytes_ != frameEnd_) frameCut_ = true;
  frameEnds_.clear();
  queuedBytes_ = writtenBytes_;
  frameEnd_ = writtenBytes_;
  outputChanged(before);
}

void SocketTransport::outputChanged(std::size_t before) {
  if (owner_ && before != outputBuffered()) owner_->onOutputBuffered(*this, before);
}

bool SocketTransport::flush() {
  std::size_t const before = outputBuffered();
  bool const ok = writeOutput();
  outputChanged(before);
  return ok;
}

bool SocketTransport::writeOutput() {
  // Everything is offered to the socket now: what it refuses waits.
  gathered_ = 0;
  if (writeFailed_) return false;
  while (outputOffset_ < output_.size()) {
    ++sends_;
    ssize_t const n =
        ::send(fd_, output_.data() + outputOffset_, output_.size() - outputOffset_, MSG_NOSIGNAL);
    if (n > 0) {
      outputOffset_ += static_cast<std::size_t>(n);
      writtenBytes_ += static_cast<U64>(n);
      while (!frameEnds_.empty() && frameEnds_.front() <= writtenBytes_) {
        frameEnd_ = frameEnds_.front();
        frameEnds_.pop_front();
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      // Drop what was written, so the buffer holds only what waits.
      if (outputOffset_ > output_.size() / 2) {
        output_.erase(0, outputOffset_);
        outputOffset_ = 0;
      }
      if (!closing_ && !watchingWritable_) watchFor(true);
      return true;
    }
    writeFailed_ = true;
    writeError_ = n < 0 ? errnoText(errno) : String("socket took no bytes");
    std::string().swap(output_);
    outputOffset_ = 0;
    return false;
  }
  if (output_.capacity() > kKeptOutputCapacity) {
    std::string().swap(output_);
  } else {
    output_.clear();
  }
  outputOffset_ = 0;
  if (!closing_ && watchingWritable_) watchFor(false);
  return true;
}

void SocketTransport::teardownSchedule(bool removeStatus) {
  if (teardownPosted_ || gone_) return;
  teardownPosted_ = true;
  removeStatus_ = removeStatus;
  loop_->post([self = Ptr(this)] { self->teardown(); });
}

void SocketTransport::teardownNow() {
  if (gone_) return;
  if (!closing_) {
    closing_ = true;
    if (endReason_.empty()) endReason_ = "torn down";
  }
  teardown();
}

void SocketTransport::teardown() {
  if (gone_) return;
  Ptr self(this);
  gone_ = true;
  closing_ = true;
  flush();
  loop_->unwatch(fd_);
  // Consume what the peer sent meanwhile; closing a socket with unread input resets it.
  char buf[kReadChunk];
  for (std::size_t drained = 0; drained < kDrainLimit;) {
    ssize_t const n = ::read(fd_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    drained += static_cast<std::size_t>(n);
  }
  ::close(fd_);
  fd_ = -1;
  dropOutput();
  unanswered_.clear();
  if (demuxer_ && !demuxer_->closed()) {
    Demuxer::Ptr const d = demuxer_;
    d->peerClosed("connection torn down");
  }
  if (owner_) {
    Owner* const o = owner_;
    owner_ = nullptr;
    o->onGone(*this, removeStatus_);
  }
  demuxer_ = nullptr;
}

}  // namespace Qel::NboAttrLog
