#include "Ledra/LoopbackAgent.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <string_view>

#include "Check/Check.h"
#include "Ledra/ConnMgrHelper.h"
#include "Ledra/TraceFacility.h"
#include "Qel/Core/Exception.h"
#include "Qel/Mount/EntityUri.h"
#include "Qel/Mount/MountFlags.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"

namespace Ledra {

namespace {

Qel::MountTable::PathState defaultStateOnAnswer() {
  Qel::MountTable::PathState s;
  s.mountedIs(true).completeIs(true).mountPointIs(true).synchronisedIs(true);
  return s;
}

}  // namespace

// One connection of the agent: the transport under its demuxer. Lives while the demuxer holds it
// or a task or timer of the loop refers to it; torn down once, on a loop turn.
class LoopbackAgent::Connection final : public Qel::NboAttrLog::Transport {
 public:
  using Ptr = Qel::Ptr<Connection>;

  Connection(LoopbackAgent* agent, Qel::Name name, Qel::U32 epoch)
      : agent_(agent), loop_(agent->loop_.ptr()), name_(std::move(name)), epoch_(epoch) {}

  // Builds the connection's objects and announces it; see the header comment.
  void open();

  void sendMountRequest(Qel::String const& uri, Qel::String const& typeName,
                        Qel::U32 seqno) override;
  void close(Qel::String const& reason, bool removeStatus) override;
  void pathServed(Qel::String const& path, bool served) override {
    if (agent_ && agent_->recording_) agent_->servedPaths_.emplace_back(path, served);
  }

  // The agent drops the connection.
  void drop(Qel::String const& reason);
  void teardownSchedule(bool removeStatus);
  void teardown();
  bool gone() const { return gone_; }
  bool live() const { return !gone_ && demuxer_ && !demuxer_->closed(); }
  void agentGone() { agent_ = nullptr; }

  std::vector<Qel::String> heldAnswers() const;
  bool answerRelease(Qel::String const& path);
  std::size_t answersRelease();
  std::size_t answersScheduled() const { return answers_.size() - held(); }

  Qel::NboAttrLog::Demuxer::Ptr const& demuxer() const { return demuxer_; }
  Qel::MountTable::Ptr const& table() const { return table_; }
  PassiveConnectionStatus::Ptr const& status() const { return status_; }

 private:
  // Interned texts: the path is the one the demuxer's table holds already, and a parse error is
  // rare; an answer waiting in the queue stays four words.
  struct Answer {
    std::uint64_t id;
    Qel::InternedText path;
    Qel::InternedText parseError;  // the request's URI did not parse
    bool held;
  };
  // Posts the answer `id` to the loop when the agent's answer delay has passed.
  class DelayTimer : public Qel::Clock::Notifiee {
   public:
    DelayTimer(Connection* c, std::uint64_t id) : conn_(c), id_(id) {}
    void onTime() override { conn_->answerPost(id_, 1); }

   private:
    Connection* conn_;
    std::uint64_t id_;
  };

  ~Connection() override = default;

  std::size_t held() const;
  void answerPost(std::uint64_t id, unsigned turns);
  void answerGive(std::uint64_t id);

  LoopbackAgent* agent_;
  // The agent's loop. Not counted: tasks posted to the loop hold the connection, and the agent,
  // which holds the loop, tears the connection down before it lets go of the loop.
  Qel::EventLoop* const loop_;
  Qel::Name const name_;
  Qel::U32 const epoch_;
  Qel::NboAttrLog::Demuxer::Ptr demuxer_;
  Qel::MountTable::Ptr table_;
  PassiveConnectionStatus::Ptr status_;
  std::deque<Answer> answers_;
  std::map<std::uint64_t, std::unique_ptr<DelayTimer>> timers_;
  std::uint64_t nextAnswer_ = 1;
  bool teardownPosted_ = false;
  bool removeStatus_ = true;
  bool gone_ = false;
};

void LoopbackAgent::Connection::open() {
  table_ = Qel::MountTable::mountTableNew(name_);
  table_->currentVersionIs(agent_->currentVersion_);
  demuxer_ = Qel::NboAttrLog::Demuxer::demuxerNew(name_, table_, Transport::Ptr(this), epoch_);
  Qel::NboAttrLog::demuxerMgr()->demuxerIs(demuxer_);

  status_ = PassiveConnectionStatus::passiveConnectionStatusNew(name_);
  status_->agentNameIs(agent_->agentName_);
  status_->agentStringIs(agent_->agentString_);
  status_->whiteListIs(agent_->whiteList_);
  status_->stateIs(PassiveConnectionStatus::kStateConnecting);
  auto const& dir = ConnMgrHelper::connectionStatusDir();
  // A record left by an earlier close that kept it; a live one makes the insertion below refuse.
  if (auto stale = dir->passiveConnectionStatus(name_); stale && !stale->connected()) {
    dir->passiveConnectionStatusDel(name_);
  }
  TRACE(LedraPlatform, 5, "loopback agent {} connects as {} epoch {}", agent_->agentName_, name_,
        epoch_);
  dir->passiveConnectionStatusIs(status_);
  status_->establishedIs(true);
  status_->stateIs(PassiveConnectionStatus::kStateConnected);
  status_->connectedIs(true);
}

void LoopbackAgent::Connection::sendMountRequest(Qel::String const& uri,
                                                 Qel::String const& typeName, Qel::U32 seqno) {
  Answer a{nextAnswer_++, {}, {}, false};
  std::size_t const query = uri.find('?');
  if (!uri.empty() && uri.front() == '/') {
    // An absolute path has no scheme: the path runs to the first '?', as the URI parser reads it.
    a.path = Qel::InternedText(std::string_view(uri).substr(0, query));
  } else {
    try {
      a.path = Qel::InternedText(Qel::EntityUri(uri).path());
    } catch (Qel::Exception const& e) {
      a.path = Qel::InternedText(std::string_view(uri).substr(0, query));
      a.parseError = Qel::InternedText(e.what());
    }
  }
  TRACE(LedraPlatform, 6, "loopback agent {} mount request {} type {} seqno {}", name_, uri,
        typeName, seqno);
  if (agent_) {
    ++agent_->mountRequestCount_;
    if (agent_->recording_) {
      // The letters as written; a request the parser refused records none.
      Qel::String letters;
      if (a.parseError.empty() && query != std::string::npos) {
        auto const given = Qel::mountFlagsLetters(std::string_view(uri).substr(query + 1));
        if (!given.empty()) letters = Qel::String(given.front());
      }
      agent_->mountRequests_.push_back(
          MountRequest{a.path.str(), letters, typeName, seqno, epoch_});
    }
  }
  a.held = agent_ && agent_->holdAnswers_;
  std::uint64_t const id = a.id;
  bool const held = a.held;
  answers_.push_back(std::move(a));
  if (held) return;
  if (agent_ && agent_->answerDelay_ > 0) {
    auto timer = std::make_unique<DelayTimer>(this, id);
    timer->notifierIs(loop_->clock());
    timer->timeMinIs(loop_->clock()->now() + agent_->answerDelay_);
    timers_.emplace(id, std::move(timer));
    return;
  }
  answerPost(id, agent_ ? agent_->answerTurns_ : 1);
}

void LoopbackAgent::Connection::answerPost(std::uint64_t id, unsigned turns) {
  if (gone_) return;
  loop_->post([self = Ptr(this), id, turns] {
    if (turns > 1) return self->answerPost(id, turns - 1);
    self->answerGive(id);
  });
}

void LoopbackAgent::Connection::answerGive(std::uint64_t id) {
  timers_.erase(id);
  auto it =
      std::find_if(answers_.begin(), answers_.end(), [id](Answer const& a) { return a.id == id; });
  if (it == answers_.end()) return;
  Answer const a = std::move(*it);
  answers_.erase(it);
  if (!live()) return;
  Ptr keepAlive(this);
  Qel::String failure = a.parseError;
  if (failure.empty() && agent_) {
    auto f = agent_->mountFailure_.find(a.path);
    if (f != agent_->mountFailure_.end()) failure = f->second;
  }
  TRACE(LedraPlatform, 6, "loopback agent {} answers {}: {}", name_, a.path.str(),
        failure.empty() ? Qel::String("ok") : failure);
  if (!failure.empty()) {
    demuxer_->mountAnswered(a.path, false, failure);
    return;
  }
  Qel::MountTable::PathState const state =
      agent_ ? agent_->pathStateOnAnswer(a.path) : defaultStateOnAnswer();
  table_->pathStateIs(a.path, state);
  // A watcher of the path state may have closed the connection meanwhile.
  if (!live()) return;
  demuxer_->mountAnswered(a.path, true, {});
}

std::size_t LoopbackAgent::Connection::held() const {
  return static_cast<std::size_t>(
      std::count_if(answers_.begin(), answers_.end(), [](Answer const& a) { return a.held; }));
}

std::vector<Qel::String> LoopbackAgent::Connection::heldAnswers() const {
  std::vector<Qel::String> paths;
  for (Answer const& a : answers_) {
    if (a.held) paths.push_back(a.path);
  }
  return paths;
}

bool LoopbackAgent::Connection::answerRelease(Qel::String const& path) {
  auto it = std::find_if(answers_.begin(), answers_.end(),
                         [&](Answer const& a) { return a.held && a.path == path; });
  if (it == answers_.end()) return false;
  answerGive(it->id);
  return true;
}

std::size_t LoopbackAgent::Connection::answersRelease() {
  std::vector<std::uint64_t> ids;
  for (Answer const& a : answers_) {
    if (a.held) ids.push_back(a.id);
  }
  for (std::uint64_t id : ids)
    answerGive(id);
  return ids.size();
}

void LoopbackAgent::Connection::close(Qel::String const& reason, bool removeStatus) {
  TRACE(LedraPlatform, 5, "loopback agent {} closed by the database: {}", name_, reason);
  if (agent_) agent_->closeReasons_.push_back(reason);
  teardownSchedule(removeStatus);
}

void LoopbackAgent::Connection::drop(Qel::String const& reason) {
  if (gone_ || teardownPosted_) return;
  TRACE(LedraPlatform, 5, "loopback agent {} disconnects: {}", name_, reason);
  Ptr keepAlive(this);
  demuxer_->peerClosed(reason);
  teardownSchedule(true);
}

void LoopbackAgent::Connection::teardownSchedule(bool removeStatus) {
  if (teardownPosted_ || gone_) return;
  teardownPosted_ = true;
  removeStatus_ = removeStatus;
  loop_->post([self = Ptr(this)] { self->teardown(); });
}

void LoopbackAgent::Connection::teardown() {
  if (gone_) return;
  gone_ = true;
  Ptr keepAlive(this);
  timers_.clear();
  answers_.clear();
  TRACE(LedraPlatform, 5, "loopback agent {} connection gone", name_);
  if (demuxer_ && !demuxer_->closed()) demuxer_->peerClosed("connection torn down");
  if (status_) {
    // State first: a watcher of onConnected() must not find a closed connection established.
    status_->stateIs(PassiveConnectionStatus::kStateClosed);
    status_->establishedIs(false);
    status_->connectedIs(false);
    auto const& dir = ConnMgrHelper::connectionStatusDir();
    if (removeStatus_ && dir->passiveConnectionStatus(name_) == status_) {
      dir->passiveConnectionStatusDel(name_);
    }
  }
  auto const& mgr = Qel::NboAttrLog::demuxerMgr();
  if (demuxer_ && mgr->demuxer(name_) == demuxer_) mgr->demuxerDel(name_);
  demuxer_ = nullptr;
  table_ = nullptr;
  status_ = nullptr;
  if (agent_ && agent_->conn_ == this) agent_->conn_ = nullptr;
  agent_ = nullptr;
}

LoopbackAgent::Ptr LoopbackAgent::loopbackAgentNew(Qel::EventLoop::Ptr const& loop,
                                                   Qel::Name const& agentName,
                                                   Qel::String const& agentString) {
  return Ptr(new LoopbackAgent(loop, agentName, agentString));
}

LoopbackAgent::LoopbackAgent(Qel::EventLoop::Ptr loop, Qel::Name agentName, Qel::String agentString)
    : loop_(std::move(loop)),
      agentName_(std::move(agentName)),
      agentString_(std::move(agentString)),
      connectionName_(agentName_) {
  QEL_CHECK(loop_, "loop_ && \"a loopback agent needs an event loop\"");
  QEL_CHECK(!agentName_.empty(), "!agentName_.empty() && \"a loopback agent needs a name\"");
}

LoopbackAgent::~LoopbackAgent() {
  if (!conn_) return;
  Connection::Ptr conn = std::move(conn_);
  conn->agentGone();
  conn->teardown();
}

void LoopbackAgent::currentVersionIs(Qel::U32 v) {
  currentVersion_ = v;
  if (conn_ && conn_->live()) conn_->table()->currentVersionIs(v);
}

void LoopbackAgent::answerTurnsIs(unsigned turns) {
  QEL_CHECK(turns >= 1, "turns >= 1 && \"answers come on a later loop turn\"");
  answerTurns_ = turns;
}

void LoopbackAgent::answerDelayIs(Qel::Time seconds) {
  QEL_CHECK(
      seconds >= 0 && std::isfinite(seconds),
      "seconds >= 0 && std::isfinite(seconds) && \"answer delay must be finite, not negative\"");
  answerDelay_ = seconds;
}

void LoopbackAgent::mountFailureIs(Qel::String const& path, Qel::String const& exceptionText) {
  if (exceptionText.empty()) {
    mountFailure_.erase(path);
    return;
  }
  mountFailure_[path] = exceptionText;
}

void LoopbackAgent::pathStateOnAnswerIs(Qel::String const& path,
                                        Qel::MountTable::PathState const& s) {
  pathStateOnAnswer_[path] = s;
}

void LoopbackAgent::pathStateOnAnswerDel(Qel::String const& path) {
  pathStateOnAnswer_.erase(path);
}

Qel::MountTable::PathState LoopbackAgent::pathStateOnAnswer(Qel::String const& path) const {
  auto it = pathStateOnAnswer_.find(path);
  return it == pathStateOnAnswer_.end() ? defaultStateOnAnswer() : it->second;
}

void LoopbackAgent::pathStateIs(Qel::String const& path, Qel::MountTable::PathState const& s) {
  QEL_CHECK(conn_ && conn_->live(),
            "conn_ && conn_->live() && \"path state of an agent that is not connected\"");
  conn_->table()->pathStateIs(path, s);
}

std::vector<Qel::String> LoopbackAgent::heldAnswers() const {
  return conn_ ? conn_->heldAnswers() : std::vector<Qel::String>();
}

bool LoopbackAgent::answerRelease(Qel::String const& path) {
  if (!conn_) return false;
  Connection::Ptr conn = conn_;
  return conn->answerRelease(path);
}

std::size_t LoopbackAgent::answersRelease() {
  if (!conn_) return 0;
  Connection::Ptr conn = conn_;
  return conn->answersRelease();
}

std::size_t LoopbackAgent::answersScheduled() const {
  return conn_ ? conn_->answersScheduled() : 0;
}

Qel::NboAttrLog::Demuxer::Ptr LoopbackAgent::connect() {
  if (conn_ && conn_->live()) return conn_->demuxer();
  if (conn_) {
    // Closed but not yet gone: finish it before the name is used again.
    Connection::Ptr old = std::move(conn_);
    old->agentGone();
    old->teardown();
  }
  ++epoch_;
  conn_ = Connection::Ptr(new Connection(this, connectionName_, epoch_));
  Connection::Ptr conn = conn_;
  try {
    conn->open();
  } catch (...) {
    // The name is taken by a live connection: undo what was built.
    conn_ = nullptr;
    conn->agentGone();
    conn->teardown();
    throw;
  }
  return conn->demuxer();
}

void LoopbackAgent::disconnect(Qel::String const& reason) {
  if (!conn_) return;
  Connection::Ptr conn = conn_;
  conn->drop(reason);
}

bool LoopbackAgent::connected() const {
  return conn_ && conn_->live();
}

Qel::NboAttrLog::Demuxer::Ptr LoopbackAgent::demuxer() const {
  return conn_ ? conn_->demuxer() : nullptr;
}

Qel::MountTable::Ptr LoopbackAgent::peerMountTable() const {
  return conn_ ? conn_->table() : nullptr;
}

PassiveConnectionStatus::Ptr LoopbackAgent::connectionStatus() const {
  return conn_ ? conn_->status() : nullptr;
}

}  // namespace Ledra
