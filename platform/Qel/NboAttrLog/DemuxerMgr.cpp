#include "Qel/NboAttrLog/DemuxerMgr.h"

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel::NboAttrLog {

void DemuxerMgr::demuxerIs(Demuxer::Ptr const& d) {
  QEL_CHECK(d, "d && \"null demuxer\"");
  if (Demuxer::Ptr existing = demuxer(d->name())) {
    if (existing == d) return;
    throw NameInUseException("Reinstantiating the demuxer with name " + d->name() + " not allowed");
  }
  demuxer_.insert(d);
  notifyKey(kDemuxer, d->name());
}

void DemuxerMgr::demuxerDel(Name const& name) {
  Demuxer::Ptr gone = demuxer_.erase(name);
  if (!gone) return;
  notifyKey(kDemuxer, name);
}

QelType const* DemuxerMgr::staticType() {
  using M = DemuxerMgr;
  static QelType const* t =
      TypeBuilder<M>("Qel::NboAttrLog::DemuxerMgr")
          .collection<Name, Demuxer::Ptr>(
              "demuxer", [](M const& m, Name const& n) { return m.demuxer(n); },
              [](M const& m) { return m.demuxers(); })
          .done();
  return t;
}

DemuxerMgr::Ptr const& demuxerMgr() {
  static DemuxerMgr::Ptr const mgr = DemuxerMgr::demuxerMgrNew("demuxerMgr");
  return mgr;
}

namespace {
// Created when the library loads, so that it exists before anything counts live objects.
[[maybe_unused]] DemuxerMgr const* const kInstance = demuxerMgr().ptr();
}  // namespace

}  // namespace Qel::NboAttrLog
