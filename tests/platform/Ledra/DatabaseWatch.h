// The database side as an agent connection sees it, for the connection tests: watches the status
// directory and each record in it, and logs "+name" when a record appears, "-name" when it leaves
// and, when a record reports connected, every field it holds. With holdDemuxers it holds each
// connection's demuxer and table while the record is listed, dropping them from inside the
// departure notification; with closeWith set it closes each connection from inside onConnected.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Ledra/ConnMgrHelper.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"

namespace Ledra::test {

class DatabaseWatch : public ConnectionStatusDir::NotifieeConst {
 public:
  class RecordWatch : public PassiveConnectionStatus::NotifieeConst {
   public:
    RecordWatch(DatabaseWatch* db, Qel::Name name) : db_(db), name_(std::move(name)) {}
    void onConnected() override { db_->connected(name_, *notifier()); }

   private:
    DatabaseWatch* db_;
    Qel::Name name_;
  };
  struct Held {
    std::unique_ptr<RecordWatch> watch;
    Qel::NboAttrLog::Demuxer::Ptr demuxer;
    Qel::MountTable::Ptr table;
  };

  DatabaseWatch() { notifierIs(ConnMgrHelper::connectionStatusDir()); }

  std::vector<std::string> events;
  std::map<Qel::Name, Held> held;
  Qel::String closeWith;  // non-empty: close each connection as soon as it reports connected
  bool holdDemuxers = false;

  void onPassiveConnectionStatus(Qel::Name const& name) override {
    auto record = notifier()->passiveConnectionStatus(name);
    if (!record) {
      events.push_back("-" + name);
      held.erase(name);  // may release the last references to the demuxer and its table
      return;
    }
    events.push_back("+" + name);
    Held& h = held[name];
    h.watch = std::make_unique<RecordWatch>(this, name);
    h.watch->notifierIs(record);
  }

  void connected(Qel::Name const& name, PassiveConnectionStatus const& s) {
    events.push_back(std::string(s.connected() ? "connected " : "disconnected ") + name +
                     (s.established() ? " established" : "") + " state " +
                     std::to_string(s.state()) + " agent " + s.agentName() + " '" +
                     s.agentString() + "'" + (s.whiteList() ? " whiteList" : ""));
    if (!s.connected()) return;
    auto const demuxer = Qel::NboAttrLog::demuxerMgr()->demuxer(name);
    if (holdDemuxers) {
      held[name].demuxer = demuxer;
      held[name].table = demuxer->peer();
    }
    if (!closeWith.empty()) demuxer->close(closeWith, {.notifyPeer = true, .removeStatus = true});
  }
};

}  // namespace Ledra::test
