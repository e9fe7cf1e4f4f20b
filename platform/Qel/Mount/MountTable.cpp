#include "Qel/Mount/MountTable.h"

#include "Check/Check.h"
#include "Qel/Entity/KeyedStore.h"
#include "Qel/NboAttrLog/Demuxer.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

namespace {

char const* statusName(MountTable::Status s) {
  switch (s) {
    case MountTable::inProgress_:
      return "inProgress_";
    case MountTable::complete_:
      return "complete_";
    case MountTable::failed_:
      return "failed_";
    case MountTable::none_:
      return "none_";
  }
  return "?";
}

// Registers a value type with the given attributes; `add` fills in the attributes.
template <class T, class Add>
QelType const* registerValueType(char const* name, Add add) {
  using Boxed = BoxedValue<T>;
  TypeBuilder<Boxed> b(name, QelType::Kind::value);
  add(b);
  b.type().boxerIs([](void const* native) {
    return GenericIf::PtrConst(Boxed::make(*static_cast<T const*>(native)));
  });
  return b.done();
}

}  // namespace

String MountTable::Conf::text() const {
  return String(path_.str() + " (" + type_.str() + ") " + flags_.text() + " @" + connection_.str());
}

QelType const* MountTable::Conf::staticType() {
  using Boxed = BoxedValue<Conf>;
  static QelType const* t = registerValueType<Conf>("Qel::MountTable::Conf", [](auto& b) {
    b.template value<String>("path", [](Boxed const& c) { return c.value().path(); })
        .template value<String>("type", [](Boxed const& c) { return c.value().type(); })
        .template value<String>("flags", [](Boxed const& c) { return c.value().flags().text(); })
        .template value<Name>("connection", [](Boxed const& c) { return c.value().connection(); });
  });
  return t;
}

String MountTable::Stat::text() const {
  if (exceptionDesc_.empty()) return String(statusName(status_));
  return String(std::string(statusName(status_)) + ": " + exceptionDesc_.str());
}

QelType const* MountTable::Stat::staticType() {
  using Boxed = BoxedValue<Stat>;
  static QelType const* t = registerValueType<Stat>("Qel::MountTable::Stat", [](auto& b) {
    b.template value<Status>("status", [](Boxed const& s) {
       return s.value().status();
     }).template value<String>("exceptionDesc", [](Boxed const& s) {
      return s.value().exceptionDesc();
    });
  });
  return t;
}

String MountTable::PathState::text() const {
  String out;
  auto add = [&out](bool on, char const* word) {
    if (!on) return;
    if (!out.empty()) out += ' ';
    out += word;
  };
  add(mounted_, "mounted");
  add(complete_, "complete");
  add(synchronised_, "synchronised");
  add(mountPoint_, "mountPoint");
  if (monitoring_) add(true, ("monitoring eid=" + std::to_string(monitoringEid_)).c_str());
  return out;
}

QelType const* MountTable::PathState::staticType() {
  using Boxed = BoxedValue<PathState>;
  static QelType const* t = registerValueType<PathState>("Qel::MountTable::PathState", [](auto& b) {
    b.template value<bool>("mounted", [](Boxed const& s) { return s.value().mounted(); })
        .template value<bool>("complete", [](Boxed const& s) { return s.value().complete(); })
        .template value<bool>("synchronised",
                              [](Boxed const& s) { return s.value().synchronised(); })
        .template value<bool>("mountPoint", [](Boxed const& s) { return s.value().mountPoint(); })
        .template value<bool>("monitoring", [](Boxed const& s) { return s.value().monitoring(); })
        .template value<U64>("monitoringEid",
                             [](Boxed const& s) { return s.value().monitoringEid(); });
  });
  return t;
}

void MountTable::currentVersionIs(U32 v) {
  if (v == currentVersion_) return;
  currentVersion_ = v;
  notify(kCurrentVersion);
}

MountTable::Conf MountTable::conf(String const& path) const {
  auto it = conf_.find(path);
  return it == conf_.end() ? Conf() : it->second;
}

void MountTable::confIs(Conf const& c) {
  QEL_CHECK(!c.path().empty(), "!c.path().empty() && \"mount configuration without a path\"");
  if (!storeIfChanged(conf_, c.internedPath(), c)) return;
  // The notification may drop the last outside reference to this table.
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  InternedText const path = c.internedPath();
  notifyKey(kConf, path.str());
  if (connection_) connection_->mountRequest(c);
}

void MountTable::confDel(String const& path) {
  if (!eraseIfPresent(conf_, path)) return;
  notifyKey(kConf, path);
}

MountTable::Stat MountTable::stat(ConnectDesc const& cd) const {
  auto it = status_.find(cd);
  return it == status_.end() ? Stat() : it->second;
}

void MountTable::statusIs(ConnectDesc const& cd, Stat const& s) {
  auto const [it, inserted] = status_.try_emplace(cd, s);
  if (!inserted) {
    if (it->second == s) return;
    incomplete_ -= it->second.status() != complete_;
    it->second = s;
  }
  incomplete_ += s.status() != complete_;
  notifyKey(kStatus, cd);
}

void MountTable::statusDel(ConnectDesc const& cd) {
  auto const it = status_.find(cd);
  if (it == status_.end()) return;
  incomplete_ -= it->second.status() != complete_;
  status_.erase(it);
  notifyKey(kStatus, cd);
}

MountTable::PathState MountTable::pathState(String const& path) const {
  auto it = pathState_.find(path);
  return it == pathState_.end() ? PathState() : it->second;
}

void MountTable::pathStateIs(String const& path, PathState const& s) {
  auto const it = pathState_.find(path);
  if (it == pathState_.end()) {
    pathState_.emplace(InternedText(path), s);
  } else {
    if (it->second == s) return;
    it->second = s;
  }
  notifyKey(kPathState, path);
}

void MountTable::pathStateDel(String const& path) {
  if (!eraseIfPresent(pathState_, path)) return;
  notifyKey(kPathState, path);
}

QelType const* MountTable::statusType() {
  static QelType const* t = [] {
    QelType& e = QelType::typeNew("Qel::MountTable::Status", QelType::Kind::enumeration);
    for (Status s : {inProgress_, complete_, failed_, none_})
      e.enumeratorIs(statusName(s), s);
    return &e;
  }();
  return t;
}

QelType const* MountTable::staticType() {
  using M = MountTable;
  static QelType const* t =
      TypeBuilder<M>("Qel::MountTable")
          .value<U32>(
              "currentVersion", [](M const& m) { return m.currentVersion(); },
              [](M& m, U32 v) { m.currentVersionIs(v); })
          .collection<String, Conf>(
              "conf",
              [](M const& m, String const& p) -> std::optional<Conf> {
                auto it = m.conf().find(p);
                if (it == m.conf().end()) return std::nullopt;
                return it->second;
              },
              [](M const& m) { return m.confs(); })
          .collection<ConnectDesc, Stat>(
              "status",
              [](M const& m, ConnectDesc const& cd) -> std::optional<Stat> {
                auto it = m.status().find(cd);
                if (it == m.status().end()) return std::nullopt;
                return it->second;
              },
              [](M const& m) { return m.statuses(); })
          .collection<String, PathState>(
              "pathState",
              [](M const& m, String const& p) -> std::optional<PathState> {
                auto it = m.pathState().find(p);
                if (it == m.pathState().end()) return std::nullopt;
                return it->second;
              },
              [](M const& m) { return m.pathStates(); })
          .factory([](Name const& n) { return Entity::Ptr(mountTableNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = MountTable::staticType();
}

}  // namespace Qel
