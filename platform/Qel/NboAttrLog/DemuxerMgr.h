// Qel::NboAttrLog::DemuxerMgr: the process-wide registry of agent connections (Demuxers) by
// connection name; demuxerMgr() is the process's one instance, created when the library loads.
//
// demuxerIs(d) registers a demuxer under its name (registering the same one again does nothing;
// another demuxer under a name in use throws NameInUseException), demuxerDel(name) removes it.
// Each registration and removal notifies onDemuxer(name). Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include "Qel/Entity/EntityMap.h"
#include "Qel/NboAttrLog/Demuxer.h"

namespace Qel::NboAttrLog {

class QEL_API DemuxerMgr : public Entity {
 public:
  using Ptr = Qel::Ptr<DemuxerMgr>;
  using PtrConst = Qel::Ptr<DemuxerMgr const>;
  using DemuxerCol = EntityMap<Demuxer>::Map;
  static constexpr AttributeId kDemuxer = 1;

  template <class N>
  class NotifieeT : public BasicNotifiee<N> {
   public:
    using BasicNotifiee<N>::BasicNotifiee;
    virtual void onDemuxer(Name const& name) {}
    void qelDispatch(AttributeId aid, NotifyKey const& key) override {
      if (aid == kDemuxer) onDemuxer(*static_cast<Name const*>(key.native));
    }
  };
  using Notifiee = NotifieeT<DemuxerMgr>;
  using NotifieeConst = NotifieeT<DemuxerMgr const>;

  static Ptr demuxerMgrNew(Name const& name) { return Ptr(new DemuxerMgr(name)); }

  DemuxerCol const& demuxer() const { return demuxer_.map(); }
  Demuxer::Ptr demuxer(Name const& name) const { return demuxer_.find(name); }
  std::size_t demuxers() const { return demuxer_.size(); }
  void demuxerIs(Demuxer::Ptr const& d);
  void demuxerDel(Name const& name);

  Entity::Ptr child(Name const& name) const override { return demuxer(name); }
  QelType const* fwkType() const override { return staticType(); }
  static QelType const* staticType();

 protected:
  explicit DemuxerMgr(Name name) : Entity(std::move(name)), demuxer_(this) {}
  ~DemuxerMgr() override = default;

 private:
  EntityMap<Demuxer> demuxer_;
};

// The process's demuxer manager.
QEL_API DemuxerMgr::Ptr const& demuxerMgr();

}  // namespace Qel::NboAttrLog
