#include "Ledra/AgentListener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Check/Check.h"
#include "Ledra/ConnMgrHelper.h"
#include "Ledra/TraceFacility.h"
#include "Qel/Core/Exception.h"
#include "Qel/Loop/SecondsText.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/NboAttrLog/WireText.h"

namespace Ledra {

namespace {

using Qel::NboAttrLog::printableText;
using Qel::NboAttrLog::SocketTransport;
using Qel::NboAttrLog::wireTextFault;

constexpr int kBacklog = 64;

std::string errnoText(int err) {
  return std::strerror(err);
}

[[noreturn]] void refuseToListen(std::string const& path, std::string const& reason) {
  throw Qel::Exception("cannot listen for agents on " + path + ": " + reason);
}

bool socketAddress(std::string const& path, sockaddr_un& addr) {
  addr = sockaddr_un{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.data(), path.size());
  return true;
}

// Whether a process accepts connections on the socket file at `addr`.
bool someoneListens(sockaddr_un const& addr) {
  int const probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  int const rc = ::connect(probe, reinterpret_cast<sockaddr const*>(&addr), sizeof addr);
  int const err = errno;
  ::close(probe);
  // A full backlog (EAGAIN) still means a live listener.
  return rc == 0 || err == EAGAIN || err == EINPROGRESS;
}

}  // namespace

// Closes a socket that has not said hello in time.
class AgentListener::HelloTimer : public Qel::Clock::Notifiee {
 public:
  HelloTimer(AgentListener* l, SocketTransport* t) : listener_(l), transport_(t) {}
  void onTime() override { listener_->helloExpired(transport_); }

 private:
  AgentListener* listener_;
  SocketTransport* transport_;
};

AgentListener::Ptr AgentListener::agentListenerNew(Qel::EventLoop::Ptr const& loop,
                                                   std::string const& path) {
  QEL_CHECK(loop, "loop && \"an agent listener needs an event loop\"");
  Ptr l(new AgentListener(loop, path));
  l->listen();
  return l;
}

AgentListener::AgentListener(Qel::EventLoop::Ptr loop, std::string path)
    : loop_(std::move(loop)), path_(std::move(path)) {}

AgentListener::~AgentListener() {
  acceptor_.reset();
  if (fd_ >= 0) ::close(fd_);
  struct stat st {};
  if (fileInode_ != 0 && ::lstat(path_.c_str(), &st) == 0 && st.st_dev == fileDevice_ &&
      st.st_ino == fileInode_) {
    ::unlink(path_.c_str());
  }
  while (!conns_.empty()) {
    SocketTransport::Ptr const t = conns_.begin()->second.transport;
    t->closeWith("database shutting down");
    t->teardownNow();
    conns_.erase(t.ptr());
  }
  TRACE(LedraPlatform, 3, "agent listener on {} stopped", path_);
}

void AgentListener::listen() {
  sockaddr_un addr;
  if (!socketAddress(path_, addr)) {
    refuseToListen(path_, path_.empty() ? "empty path"
                                        : "path longer than " +
                                              std::to_string(sizeof addr.sun_path - 1) + " bytes");
  }
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) refuseToListen(path_, "not a socket");
    if (someoneListens(addr)) refuseToListen(path_, "another process is listening there");
    TRACE(LedraPlatform, 3, "agent listener removes the stale socket {}", path_);
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) refuseToListen(path_, errnoText(errno));
  }
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) refuseToListen(path_, errnoText(errno));
  if (::bind(fd_, reinterpret_cast<sockaddr const*>(&addr), sizeof addr) != 0) {
    refuseToListen(path_, errnoText(errno));
  }
  if (::lstat(path_.c_str(), &st) == 0) {
    fileDevice_ = st.st_dev;
    fileInode_ = st.st_ino;
  }
  if (::listen(fd_, kBacklog) != 0) refuseToListen(path_, errnoText(errno));
  acceptor_ = std::make_unique<Qel::NboAttrLog::SocketAcceptor>(
      loop_, fd_, [this](int fd) { accepted(fd); },
      [this](int err) {
        TRACE(LedraPlatform, 1, "agent listener on {} cannot accept: {}; accepting pauses", path_,
              errnoText(err));
      });
  TRACE(LedraPlatform, 3, "agent listener on {}", path_);
}

void AgentListener::accepted(int fd) {
  SocketTransport::Ptr t = SocketTransport::socketTransportNew(
      loop_.ptr(), fd, this, "agent socket " + std::to_string(fd));
  t->maxFrameIs(std::min(maxFrame_, kMaxHelloFrame));
  t->maxOutputIs(maxOutput_);
  Connection& c = conns_[t.ptr()];
  c.transport = t;
  if (helloTimeout_ != Qel::kNever) {
    c.helloTimer = std::make_unique<HelloTimer>(this, t.ptr());
    c.helloTimer->notifierIs(loop_->clock());
    c.helloTimer->timeMinIs(loop_->clock()->now() + helloTimeout_);
  }
  TRACE(LedraPlatform, 5, "agent listener on {} accepted {}", path_, t->name());
}

void AgentListener::helloExpired(SocketTransport* t) {
  auto it = conns_.find(t);
  if (it == conns_.end() || it->second.demuxer) return;
  SocketTransport::Ptr const keep = it->second.transport;
  std::string const reason = "no hello within " + Qel::secondsText(helloTimeout_) + " seconds";
  TRACE(LedraPlatform, 3, "agent listener closes {}: {}", keep->name(), reason);
  keep->closeWith(reason);
}

std::string AgentListener::admit(Qel::NboAttrLog::WireHello const& hello) {
  if (hello.agentName.empty()) return "hello without an agent name";
  if (hello.agentName.size() > maxAgentName_) {
    return "agent name of " + std::to_string(hello.agentName.size()) +
           " bytes is longer than the limit of " + std::to_string(maxAgentName_) + " bytes";
  }
  if (std::string const fault = wireTextFault(hello.agentName); !fault.empty()) {
    return "agent name " + printableText(hello.agentName) + " " + fault;
  }
  if (std::string const fault = wireTextFault(hello.agentString); !fault.empty()) {
    return "agent string " + printableText(hello.agentString) + " " + fault;
  }
  if (hello.agentName.find('/') != std::string::npos) {
    return "agent name " + hello.agentName + " contains '/'";
  }
  if (hello.protocolVersion == 0 || hello.protocolVersion > Qel::MountTable::kProtocolVersion) {
    return "unsupported protocol version " + std::to_string(hello.protocolVersion);
  }
  Qel::Name const& name = hello.agentName;
  // A connection of ours under this name that is closed but not yet torn down goes now.
  SocketTransport::Ptr old;
  for (auto const& [t, c] : conns_) {
    if (c.demuxer && c.demuxer->name() == name) old = c.transport;
  }
  if (old && (old->closing() || !old->demuxer() || old->demuxer()->closed())) {
    old->teardownNow();
    old = nullptr;
  }
  std::string const inUse = "agent " + name + " is already connected";
  if (old || Qel::NboAttrLog::demuxerMgr()->demuxer(name)) return inUse;
  auto const& dir = ConnMgrHelper::connectionStatusDir();
  auto const record = dir->passiveConnectionStatus(name);
  if (!record) return {};
  if (record->connected()) return inUse;
  // A record left by an earlier close that kept it.
  dir->passiveConnectionStatusDel(name);
  return {};
}

void AgentListener::onHello(SocketTransport& t, Qel::NboAttrLog::WireHello const& hello) {
  auto it = conns_.find(&t);
  QEL_CHECK(it != conns_.end(),
            "it != conns_.end() && \"hello on a connection the listener does not hold\"");
  it->second.helloTimer.reset();
  std::string const why = admit(hello);
  if (!why.empty()) {
    TRACE(LedraPlatform, 3, "agent listener refuses {}: {}", t.name(), why);
    t.closeWith(why);
    return;
  }
  t.maxFrameIs(maxFrame_);
  Qel::Name const name = hello.agentName;
  Connection& c = it->second;
  auto const table = Qel::MountTable::mountTableNew(name);
  table->currentVersionIs(hello.protocolVersion);
  Qel::U32 const epoch = nextEpoch(name);
  c.demuxer =
      Qel::NboAttrLog::Demuxer::demuxerNew(name, table, Qel::NboAttrLog::Transport::Ptr(&t), epoch);
  t.demuxerIs(c.demuxer);
  Qel::NboAttrLog::demuxerMgr()->demuxerIs(c.demuxer);

  c.status = PassiveConnectionStatus::passiveConnectionStatusNew(name);
  c.status->agentNameIs(name);
  c.status->agentStringIs(hello.agentString);
  c.status->whiteListIs(false);
  c.status->stateIs(PassiveConnectionStatus::kStateConnecting);
  TRACE(LedraPlatform, 3, "agent {} connects: epoch {} version {} agent string '{}'", name, epoch,
        hello.protocolVersion, hello.agentString);
  ConnMgrHelper::connectionStatusDir()->passiveConnectionStatusIs(c.status);
  // Hold the record: a watcher may close the connection while it is being announced.
  PassiveConnectionStatus::Ptr const status = c.status;
  status->establishedIs(true);
  status->stateIs(PassiveConnectionStatus::kStateConnected);
  status->connectedIs(true);
}

void AgentListener::onGone(SocketTransport& t, bool removeStatus) {
  auto it = conns_.find(&t);
  if (it == conns_.end()) return;
  Connection c = std::move(it->second);
  conns_.erase(it);
  // A descriptor was freed: accepting may go on if it paused.
  if (acceptor_) acceptor_->resume();
  if (!c.demuxer) {
    TRACE(LedraPlatform, 5, "agent listener: {} gone without connecting: {}", t.name(),
          t.endReason());
    return;
  }
  Qel::Name const name = c.demuxer->name();
  TRACE(LedraPlatform, 3, "agent {} connection gone: {}", name, t.endReason());
  if (c.status) {
    // State first: a watcher of onConnected() must not find a closed connection established.
    c.status->stateIs(PassiveConnectionStatus::kStateClosed);
    c.status->establishedIs(false);
    c.status->connectedIs(false);
    auto const& dir = ConnMgrHelper::connectionStatusDir();
    if (removeStatus && dir->passiveConnectionStatus(name) == c.status) {
      dir->passiveConnectionStatusDel(name);
    }
  }
  auto const& mgr = Qel::NboAttrLog::demuxerMgr();
  if (mgr->demuxer(name) == c.demuxer) mgr->demuxerDel(name);
}

void AgentListener::onOutputBuffered(SocketTransport& t, std::size_t before) {
  outputTotal_ = outputTotal_ - before + t.outputBuffered();
  if (outputTotal_ > maxOutputTotal_ && !shedding_) shedOutput();
}

void AgentListener::shedOutput() {
  shedding_ = true;
  while (outputTotal_ > maxOutputTotal_) {
    SocketTransport* largest = nullptr;
    for (auto const& [t, c] : conns_) {
      if (t->closing() || t->discarding() || t->outputBuffered() == 0) continue;
      if (!largest || t->outputBuffered() > largest->outputBuffered()) largest = t;
    }
    // What is left waits on connections already closing: it goes at their teardown.
    if (!largest) break;
    std::string const reason = "output to all agents exceeds " + std::to_string(maxOutputTotal_) +
                               " bytes; this agent has the most waiting (" +
                               std::to_string(largest->outputBuffered()) + " bytes)";
    TRACE(LedraPlatform, 1, "agent listener closes {}: {}", largest->name(), reason);
    largest->discardOutputAndClose(reason);
  }
  shedding_ = false;
}

Qel::U32 AgentListener::nextEpoch(Qel::Name const& name) {
  auto it = epochs_.find(name);
  if (it == epochs_.end()) {
    it = epochs_.emplace(name, Remembered{forgottenEpoch_, 0}).first;
  } else {
    namesByAge_.erase(it->second.given);
  }
  Remembered& r = it->second;
  ++r.epoch;
  r.given = ++epochsGiven_;
  namesByAge_.emplace(r.given, name);
  forgetOldNames();
  return r.epoch;
}

void AgentListener::forgetOldNames() {
  while (epochs_.size() > maxRememberedNames_) {
    auto const oldest = namesByAge_.begin();
    auto const it = epochs_.find(oldest->second);
    forgottenEpoch_ = std::max(forgottenEpoch_, it->second.epoch);
    epochs_.erase(it);
    namesByAge_.erase(oldest);
  }
}

std::size_t AgentListener::connections() const {
  std::size_t n = 0;
  for (auto const& [t, c] : conns_) {
    if (c.demuxer && !c.demuxer->closed() && !t->closing()) ++n;
  }
  return n;
}

std::size_t AgentListener::pendingConnections() const {
  std::size_t n = 0;
  for (auto const& [t, c] : conns_) {
    if (!c.demuxer && !t->closing()) ++n;
  }
  return n;
}

Qel::U32 AgentListener::epoch(Qel::Name const& agentName) const {
  auto it = epochs_.find(agentName);
  return it == epochs_.end() ? 0 : it->second.epoch;
}

SocketTransport::Ptr AgentListener::transport(Qel::Name const& agentName) const {
  for (auto const& [t, c] : conns_) {
    if (c.demuxer && c.demuxer->name() == agentName) return c.transport;
  }
  return nullptr;
}

void AgentListener::maxFrameIs(std::size_t bytes) {
  QEL_CHECK(bytes >= 1, "bytes >= 1 && \"a frame limit of at least one byte\"");
  maxFrame_ = bytes;
  for (auto const& [t, c] : conns_)
    c.transport->maxFrameIs(c.demuxer ? bytes : std::min(bytes, kMaxHelloFrame));
}

void AgentListener::helloTimeoutIs(Qel::Time seconds) {
  QEL_CHECK(seconds > 0, "seconds > 0 && \"a hello timeout must be positive\"");
  helloTimeout_ = seconds;
}

void AgentListener::maxAgentNameIs(std::size_t bytes) {
  QEL_CHECK(bytes >= 1, "bytes >= 1 && \"an agent name limit of at least one byte\"");
  maxAgentName_ = bytes;
}

void AgentListener::maxOutputIs(std::size_t bytes) {
  QEL_CHECK(bytes >= 1, "bytes >= 1 && \"an output limit of at least one byte\"");
  maxOutput_ = bytes;
  for (auto const& [t, c] : conns_)
    c.transport->maxOutputIs(bytes);
}

void AgentListener::maxOutputTotalIs(std::size_t bytes) {
  QEL_CHECK(bytes >= 1, "bytes >= 1 && \"an output limit of at least one byte\"");
  maxOutputTotal_ = bytes;
  if (outputTotal_ > maxOutputTotal_) shedOutput();
}

void AgentListener::maxRememberedNamesIs(std::size_t names) {
  QEL_CHECK(names >= 1, "names >= 1 && \"remembering at least one agent name\"");
  maxRememberedNames_ = names;
  forgetOldNames();
}

}  // namespace Ledra
