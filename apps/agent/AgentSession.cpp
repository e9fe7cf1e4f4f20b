#include "AgentSession.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <limits>

#include "Qel/Mount/EntityUri.h"
#include "Qel/NboAttrLog/WireText.h"
#include "apps/common/MountLetters.h"

namespace LedraAgent {

namespace {

using namespace Qel::NboAttrLog;

constexpr std::size_t kReadChunk = 64 * 1024;
constexpr int kReadsPerTurn = 16;

}  // namespace

AgentSession::AgentSession(Qel::EventLoop::Ptr loop, int fd, AgentOptions options,
                           std::ostream& out)
    : loop_(std::move(loop)), fd_(fd), options_(std::move(options)), out_(out) {}

AgentSession::~AgentSession() {
  if (fd_ < 0) return;
  loop_->unwatch(fd_);
  ::close(fd_);
}

void AgentSession::line(std::string const& text) {
  out_ << text << std::endl;
}

void AgentSession::start() {
  watchFor(false);
  line("connected as " + options_.name);
  if (!send(WireHello{options_.version, options_.name, options_.agentString})) connectionLost();
}

void AgentSession::stop() {
  if (ended_) return;
  line("holds:");
  for (std::string const& path : tree_.held())
    line(path);
  // The database learns why; if the socket does not take it, it sees the end of the stream.
  send(WireClose{"agent stopped"});
  finish({}, 0);
}

void AgentSession::watchFor(bool writable) {
  watchingWritable_ = writable;
  loop_->watch(fd_, Qel::EventLoop::readable | (writable ? Qel::EventLoop::writable : 0u),
               [this](unsigned ready) { onReady(ready); });
}

void AgentSession::onReady(unsigned ready) {
  if (ended_) return;
  if ((ready & Qel::EventLoop::writable) && !flush()) {
    connectionLost();
    return;
  }
  bool const endOfStream = read(kReadsPerTurn);
  if (!handleDecoded()) return;
  if (endOfStream) finish("lost connection", 1);
}

bool AgentSession::read(int chunks) {
  char buf[kReadChunk];
  for (int i = 0; i < chunks; ++i) {
    ssize_t const n = ::read(fd_, buf, sizeof buf);
    if (n > 0) {
      decoder_.feed(std::string_view(buf, static_cast<std::size_t>(n)));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
    return true;  // the end, or a read error: either way nothing more comes
  }
  return false;
}

bool AgentSession::handleDecoded() {
  WireMessage m;
  for (;;) {
    WireDecoder::Result const r = decoder_.next(m);
    if (r == WireDecoder::Result::none) return true;
    if (r == WireDecoder::Result::error) {
      protocolError(decoder_.error());
      return false;
    }
    if (!handle(m)) return false;
  }
}

void AgentSession::connectionLost() {
  if (ended_ || draining_) return;
  draining_ = true;
  // The database may have closed the connection right after saying why: what it wrote before is
  // handled first, so that its Close is reported rather than a lost connection.
  read(std::numeric_limits<int>::max());
  if (handleDecoded()) finish("lost connection", 1);
}

bool AgentSession::handle(WireMessage const& m) {
  if (awaitingState_) {
    auto const* state = std::get_if<WireEntityState>(&m);
    if (!state || state->seqno != awaitingState_->seqno) {
      protocolError("expected the state of request " + std::to_string(awaitingState_->seqno) +
                    ", got " + wireText(m));
      return false;
    }
    WireMountRequest const r = *awaitingState_;
    awaitingState_.reset();
    request(r, state);
    return !ended_;
  }
  if (auto const* close = std::get_if<WireClose>(&m)) {
    finish("closed: " + close->reason, 0);
    return false;
  }
  auto const* r = std::get_if<WireMountRequest>(&m);
  if (!r) {
    protocolError(std::string("unexpected ") + wireKindName(wireKind(m)) + " from the database");
    return false;
  }
  if (r->stateFollows) {
    awaitingState_ = *r;
    return true;
  }
  request(*r, nullptr);
  return !ended_;
}

void AgentSession::request(WireMountRequest const& r, WireEntityState const* state) {
  std::string path = r.uri.substr(0, r.uri.find('?'));
  std::string letters;
  std::string failure;
  try {
    Qel::EntityUri const uri(r.uri);
    path = uri.path();
    auto const given = Qel::mountFlagsLetters(uri.query());
    if (!given.empty()) letters = given.front();
    uri.flags();  // refuses unknown letters, and a second "flags" parameter
  } catch (std::exception const& e) {
    failure = e.what();
  }
  line("mount " + std::to_string(r.seqno) + " " + path + " flags=" + letters +
       " type=" + r.typeName);
  if (failure.empty()) {
    if (auto it = options_.failures.find(path); it != options_.failures.end()) {
      failure = it->second;
    }
  }
  WireMountAnswer answer;
  answer.seqno = r.seqno;
  answer.path = path;
  if (!failure.empty()) {
    answer.ok = false;
    answer.exceptionText = failure;
    answer.pathState = 0;
    if (!send(answer)) connectionLost();
    return;
  }
  if (options_.holds.count(path) != 0) {
    unanswered_[r.seqno] = path;
    return;
  }
  tree_.mount(path, r.typeName, letters, state);
  if (!send(answer)) connectionLost();
}

bool AgentSession::send(WireMessage const& m) {
  if (fd_ < 0) return false;
  output_ += wireFrame(m);
  return flush();
}

bool AgentSession::flush() {
  std::size_t done = 0;
  while (done < output_.size()) {
    ssize_t const n = ::send(fd_, output_.data() + done, output_.size() - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    output_.clear();
    return false;
  }
  output_.erase(0, done);
  bool const waiting = !output_.empty();
  if (waiting != watchingWritable_ && !ended_) watchFor(waiting);
  return true;
}

void AgentSession::protocolError(std::string const& reason) {
  send(WireClose{reason});
  finish("protocol error: " + reason, 1);
}

void AgentSession::show() {
  line("received:");
  for (auto const& [path, n] : tree_.all()) {
    if (!n.held) continue;
    line(printableText(path) + " " + (n.typeName.empty() ? "-" : printableText(n.typeName)) +
         " flags=" + n.flags + " (" + LedraApps::explainedMountLetters(n.flags) + ")");
    for (auto const& [attribute, value] : n.attributes)
      line("  " + printableText(attribute) + " = " + printableText(value));
  }
}

void AgentSession::finish(std::string const& text, int status) {
  if (ended_) return;
  if (options_.show) show();
  ended_ = true;
  exitStatus_ = status;
  if (!text.empty()) line(text);
  loop_->unwatch(fd_);
  ::close(fd_);
  fd_ = -1;
  loop_->stop();
}

}  // namespace LedraAgent
