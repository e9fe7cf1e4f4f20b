#include "Qel/NboAttrLog/Demuxer.h"

#include "Qel/Entity/KeyedStore.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel::NboAttrLog {

Demuxer::Ptr Demuxer::demuxerNew(Name const& name, MountTable::Ptr peer, Transport::Ptr transport,
                                 U32 epoch) {
  if (!peer) peer = MountTable::mountTableNew(name);
  return Ptr(new Demuxer(name, std::move(peer), std::move(transport), epoch));
}

Demuxer::Demuxer(Name name, MountTable::Ptr peer, Transport::Ptr transport, U32 epoch)
    : Entity(std::move(name)),
      peer_(std::move(peer)),
      epoch_(epoch),
      transport_(std::move(transport)) {
  QEL_CHECK(!peer_->connection(),
            "!peer_->connection() && \"mount table already bound to a connection\"");
  peer_->connectionIs(this);
}

Demuxer::~Demuxer() {
  if (peer_->connection() == this) peer_->connectionIs(nullptr);
}

U32 Demuxer::flowOutMountRequests(String const& path) const {
  auto it = outstanding_.find(path);
  return it == outstanding_.end() ? 0 : it->second;
}

void Demuxer::lowMountPrioIs(bool v) {
  ++lowMountPrioSets_;
  if (v == lowMountPrio_) return;
  lowMountPrio_ = v;
  notify(kLowMountPrio);
}

bool Demuxer::pathServed(String const& path) const {
  auto it = pathServed_.find(path);
  return it != pathServed_.end() && it->second;
}

void Demuxer::pathServedIs(String const& path, bool served) {
  if (!storeIfChanged(pathServed_, path, served)) return;
  if (transport_) transport_->pathServed(path, served);
  notifyKey(kPathServed, path);
}

void Demuxer::mountRequest(MountTable::Conf const& conf) {
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  ConnectDesc const cd(conf.internedPath());
  if (closed_ || closing_) {
    peer_->statusIs(cd,
                    MountTable::Stat(MountTable::failed_, "connection closed: " + closeReason_));
    return;
  }
  peer_->statusIs(cd, MountTable::Stat(MountTable::inProgress_));
  ++seqno_;
  U32 const seqno = seqno_;
  notify(kSeqno);
  ++outstanding_[conf.internedPath()];
  ++flowOutMountRequests_;
  notify(kFlowOutMountRequests);
  // A handler of the notifications above may have closed the connection.
  if (!transport_ || closed_) return;
  transport_->sendMountRequest(conf.path() + "?flags=" + conf.flags().text(), conf.type(), seqno);
}

bool Demuxer::mountAnswered(String const& path, bool ok, String const& exceptionText) {
  if (closed_) return false;
  auto it = outstanding_.find(path);
  if (it == outstanding_.end()) return false;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  ConnectDesc const cd(it->first);
  if (--it->second == 0) outstanding_.erase(it);
  peer_->statusIs(cd, ok ? MountTable::Stat(MountTable::complete_)
                         : MountTable::Stat(MountTable::failed_, exceptionText));
  --flowOutMountRequests_;
  notify(kFlowOutMountRequests);
  if (closing_ && flowOutMountRequests_ == 0 && !closed_) closeNow();
  return true;
}

void Demuxer::close(String const& reason, CloseOptions options) {
  if (closed_) return;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  if (!closing_) {
    closeNotifiesPeer_ = options.notifyPeer;
    closeRemovesStatus_ = options.removeStatus;
    if (reason != closeReason_) {
      closeReason_ = reason;
      notify(kCloseReason);
    }
    if (closed_) return;
  }
  if (options.deferred && flowOutMountRequests_ > 0) {
    closing_ = true;
    return;
  }
  closeNow();
}

void Demuxer::closeNow() {
  closing_ = false;
  closed_ = true;
  Transport::Ptr t = std::move(transport_);
  if (t) t->close(closeNotifiesPeer_ ? closeReason_ : String(), closeRemovesStatus_);
  notify(kClosed);
}

void Demuxer::peerClosed(String const& reason) {
  if (closed_) return;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  closing_ = false;
  closed_ = true;
  transport_ = nullptr;
  if (reason != closeReason_) {
    closeReason_ = reason;
    notify(kCloseReason);
  }
  notify(kClosed);
}

QelType const* Demuxer::staticType() {
  using D = Demuxer;
  static QelType const* t =
      TypeBuilder<D>("Qel::NboAttrLog::Demuxer")
          .value<MountTable::Ptr>("peer", [](D const& d) { return d.peer(); })
          .constructor()
          .value<U32>("epoch", [](D const& d) { return d.epoch(); })
          .constructor()
          .value<U32>("flowOutMountRequests", [](D const& d) { return d.flowOutMountRequests(); })
          .value<bool>(
              "lowMountPrio", [](D const& d) { return d.lowMountPrio(); },
              [](D& d, bool v) { d.lowMountPrioIs(v); })
          .value<U32>("seqno", [](D const& d) { return d.seqno(); })
          .value<bool>("closed", [](D const& d) { return d.closed(); })
          .value<String>("closeReason", [](D const& d) { return d.closeReason(); })
          .collection<String, bool>(
              "pathServed",
              [](D const& d, String const& p) -> std::optional<bool> {
                auto it = d.pathServed().find(p);
                if (it == d.pathServed().end()) return std::nullopt;
                return it->second;
              },
              [](D const& d) { return d.pathServed().size(); },
              [](D& d, String const& p, GenericIf::PtrConst const& v) {
                d.pathServedIs(p, v && v->valueAs<bool>());
              })
          .done();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = Demuxer::staticType();
}

}  // namespace Qel::NboAttrLog
