#include "Qel/Mount/MountTable.h"

#include "Check/Check.h"
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

void MountTable::confIs(Conf const& c) {
  QEL_CHECK(!c.path().empty(), "!c.path().empty() && \"mount configuration without a path\"");
  // The notification may drop the last outside reference to this table.
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  if (!qelRecords_.set<QEL_ATTR_RECORD_ARGS(ConfField, Conf)>(*this, c.internedPath(), c)) return;
  if (connection_) connection_->mountRequest(c);
}

ConnectDesc MountTable::firstIncompleteStatus() const {
  InternedText const* first = nullptr;
  if (incomplete_ == 0) return ConnectDesc();
  qelRecords_.forEach<StatField::kIndex>([&first](InternedText const& path, Stat const& s) {
    if (s.status() == complete_) return;
    if (!first || path < *first) first = &path;
  });
  return first ? ConnectDesc(*first) : ConnectDesc();
}

void MountTable::statusIs(ConnectDesc const& cd, Stat const& s) {
  // Counted before the notification: a notifiee reads the count.
  qelRecords_.set<QEL_ATTR_RECORD_ARGS(StatField, Status)>(
      *this, cd, s, [this, &s](Stat const* old) {
        incomplete_ -= old && old->status() != complete_;
        incomplete_ += s.status() != complete_;
      });
}

void MountTable::statusDel(ConnectDesc const& cd) {
  qelRecords_.del<QEL_ATTR_RECORD_ARGS(StatField, Status)>(
      *this, cd, [this](Stat const& old) { incomplete_ -= old.status() != complete_; });
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
  static QelType const* t =
      TypeBuilder<MountTable>("Qel::MountTable") QEL_ATTR_REFLECTION(QEL_MOUNT_TABLE_ATTRIBUTES)
          .factory([](Name const& n) { return Entity::Ptr(mountTableNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = MountTable::staticType();
}

}  // namespace Qel
