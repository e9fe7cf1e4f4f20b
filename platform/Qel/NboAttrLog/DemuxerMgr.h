// Qel::NboAttrLog::DemuxerMgr: the process-wide registry of agent connections (Demuxers) by
// connection name; demuxerMgr() is the process's one instance, created when the library loads.
//
// demuxerIs(d) registers a demuxer under its name (registering the same one again does nothing;
// another demuxer under a name in use throws NameInUseException), demuxerDel(name) removes it.
// Each registration and removal notifies onDemuxer(name). Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include "Qel/Entity/AttrList.h"
#include "Qel/NboAttrLog/Demuxer.h"

namespace Qel::NboAttrLog {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define QEL_DEMUXER_MGR_ATTRIBUTES(X) X(children, key, Demuxer, demuxer, Demuxer, demuxers)

class QEL_API DemuxerMgr : public Entity {
 public:
  using Ptr = Qel::Ptr<DemuxerMgr>;
  using PtrConst = Qel::Ptr<DemuxerMgr const>;
  using DemuxerCol = EntityMap<Demuxer>::Map;
  QEL_ATTR_IDS(QEL_DEMUXER_MGR_ATTRIBUTES);

  template <class N>
  class NotifieeT : public BasicNotifiee<N> {
   public:
    using BasicNotifiee<N>::BasicNotifiee;
    QEL_ATTR_NOTIFIEE(QEL_DEMUXER_MGR_ATTRIBUTES)
  };
  using Notifiee = NotifieeT<DemuxerMgr>;
  using NotifieeConst = NotifieeT<DemuxerMgr const>;

  static Ptr demuxerMgrNew(Name const& name) { return Ptr(new DemuxerMgr(name)); }

  QEL_ATTR_ACCESSORS(QEL_DEMUXER_MGR_ATTRIBUTES)
  void demuxerIs(Demuxer::Ptr const& d);

  Entity::Ptr child(Name const& name) const override { return demuxer(name); }
  QelType const* fwkType() const override { return staticType(); }
  static QelType const* staticType();

 protected:
  explicit DemuxerMgr(Name name) : Entity(std::move(name)) {}
  ~DemuxerMgr() override = default;

 private:
  QEL_ATTR_STORAGE(QEL_DEMUXER_MGR_ATTRIBUTES)
};

// The process's demuxer manager.
QEL_API DemuxerMgr::Ptr const& demuxerMgr();

}  // namespace Qel::NboAttrLog
