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
      internedName_(this->name()),
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
  lowMountPrio_.set(*this, v);
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
                    MountTable::Stat(MountTable::failed_, "connection closed: " + closeReason()));
    return;
  }
  peer_->statusIs(cd, MountTable::Stat(MountTable::inProgress_));
  U32 const seqno = seqno_.get() + 1;
  seqno_.set(*this, seqno);
  ++outstanding_[conf.internedPath()];
  flowOutMountRequests_.set(*this, flowOutMountRequests() + 1);
  // A handler of the notifications above may have closed the connection.
  if (!transport_ || closed_) return;
  // "path?flags=letters", written into the buffer the thread's last request left. Taken out
  // while the transport reads it: a request sent from inside the transport starts its own.
  thread_local String uriBuffer;
  String uri = std::move(uriBuffer);
  uri.assign(conf.path()).append("?flags=").append(conf.flags().text());
  transport_->sendMountRequest(uri, conf.type(), seqno);
  uriBuffer = std::move(uri);
}

template <class K>
bool Demuxer::answered(K const& path, bool ok, String const& exceptionText) {
  if (closed_) return false;
  auto it = outstanding_.find(path);
  if (it == outstanding_.end()) return false;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  ConnectDesc const cd(it->first);
  if (--it->second == 0) outstanding_.erase(it);
  if (outstanding_.empty()) outstanding_ = decltype(outstanding_)();
  peer_->statusIs(cd, ok ? MountTable::Stat(MountTable::complete_)
                         : MountTable::Stat(MountTable::failed_, exceptionText));
  flowOutMountRequests_.set(*this, flowOutMountRequests() - 1);
  if (closing_ && flowOutMountRequests() == 0 && !closed_) closeNow();
  return true;
}

bool Demuxer::mountAnswered(String const& path, bool ok, String const& exceptionText) {
  return answered(path, ok, exceptionText);
}

bool Demuxer::mountAnswered(InternedText const& path, bool ok, String const& exceptionText) {
  return answered(path, ok, exceptionText);
}

void Demuxer::close(String const& reason, CloseOptions options) {
  if (closed_) return;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  if (!closing_) {
    closeNotifiesPeer_ = options.notifyPeer;
    closeRemovesStatus_ = options.removeStatus;
    closeReason_.set(*this, reason);
    if (closed_) return;
  }
  if (options.deferred && flowOutMountRequests() > 0) {
    closing_ = true;
    return;
  }
  closeNow();
}

void Demuxer::closeNow() {
  closing_ = false;
  closed_ = true;
  Transport::Ptr t = std::move(transport_);
  if (t) t->close(closeNotifiesPeer_ ? closeReason() : String(), closeRemovesStatus_);
  notify(kClosed);
}

void Demuxer::peerClosed(String const& reason) {
  if (closed_) return;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  closing_ = false;
  closed_ = true;
  transport_ = nullptr;
  closeReason_.set(*this, reason);
  notify(kClosed);
}

void Demuxer::qelReflectPathServed(TypeBuilder<Demuxer>& b) {
  // A path not reported reads as absent; writing null reports it not served.
  b.collection<String, bool>(
      "pathServed",
      [](Demuxer const& d, String const& p) -> std::optional<bool> {
        auto it = d.pathServed().find(p);
        if (it == d.pathServed().end()) return std::nullopt;
        return it->second;
      },
      [](Demuxer const& d) { return d.pathServed().size(); },
      [](Demuxer& d, String const& p, GenericIf::PtrConst const& v) {
        d.pathServedIs(p, v && v->valueAs<bool>());
      });
}

QelType const* Demuxer::staticType() {
  static QelType const* t = TypeBuilder<Demuxer>("Qel::NboAttrLog::Demuxer")
                                QEL_ATTR_REFLECTION(QEL_DEMUXER_ATTRIBUTES)
                                    .done();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = Demuxer::staticType();
}

}  // namespace Qel::NboAttrLog
