// Qel::MountTable: the mount table of one side of an agent connection.
//
// One table per connection holds everything the database knows about the mounts made for the
// agent:
//   - currentVersion: the mount protocol version the peer speaks (kProtocolVersion = 5 is the
//     present one). 0 until the connection reports it.
//   - conf: the mount configuration per path (path, entity type, flags, connection name).
//     confIs(conf) installs one; on a table bound to a connection (a Demuxer, which binds itself
//     to its peer table) a changed configuration also sends a mount request to the peer. Storing
//     an equal configuration changes nothing, notifies nobody and sends nothing.
//   - status: per connect descriptor (the mounted path) a Stat record: the state of the latest
//     mount request (inProgress_, complete_, failed_) and, for a failure, the peer's exception
//     text. The connection writes it: in progress when a request goes out, complete or failed
//     when the peer answers.
//   - pathState: per path, what the peer reports of its copy of the entity: mounted, complete
//     (its initial transfer is done), synchronised (the peer holds the entity's state), mount
//     point (the path is the point at which a mount was made, not just inside one), and whether
//     it still monitors an entity (monitoringEid names it). The peer writes it.
//
// The three collections share their keys: one hashed record per path (its interned text, shared
// with every other table that holds it) holds the path's configuration, status and state, and
// lives while any of them is present. Lookups take the path as text, as interned text or as
// connect descriptor. conf(), status() and pathState() list a collection ordered by path (a
// copy, for reports and checks, not for the data path).
//
// Lookups of absent keys give empty values: conf(path) an empty Conf, status(cd) none_, stat(cd)
// a record with status none_ and no exception text, pathState(path) a PathState with everything
// false (hasPathState tells whether the peer reported one at all); confOf, statusOf and
// pathStateOf give null instead.
//
// Every change notifies once (onCurrentVersion, onConf(path), onStatus(cd), onPathState(path));
// storing an equal value notifies nobody. Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include <utility>
#include <vector>

#include "Qel/Containers/InternedText.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Mount/ConnectDesc.h"
#include "Qel/Mount/MountFlags.h"
#include "Qel/Reflection/BoxedValue.h"
#include "Qel/Reflection/GenericValue.h"

namespace Qel {

namespace NboAttrLog {
class Demuxer;
}

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define QEL_MOUNT_TABLE_ATTRIBUTES(X)                                           \
  X(value, plain, U32, currentVersion, CurrentVersion)                          \
  X(recordFieldOwnIs, key, MountTable::ConfField, conf, Conf, confs)            \
  X(recordFieldOwnWrites, key, MountTable::StatField, status, Status, statuses) \
  X(recordField, key, MountTable::PathStateField, pathState, PathState, pathStates)

class QEL_API MountTable : public Entity {
 public:
  using Ptr = Qel::Ptr<MountTable>;
  using PtrConst = Qel::Ptr<MountTable const>;
  static constexpr U32 kProtocolVersion = 5;

  enum Status { inProgress_, complete_, failed_, none_ };

  // One mount configuration. Compared by all four fields.
  class QEL_API Conf {
   public:
    static constexpr bool kQelValueType = true;
    Conf() = default;
    Conf(InternedText path, std::string_view type, MountFlags flags, std::string_view connection)
        : path_(std::move(path)), type_(type), flags_(flags), connection_(connection) {}
    Conf(std::string_view path, std::string_view type, MountFlags flags,
         std::string_view connection)
        : Conf(InternedText(path), type, flags, connection) {}
    Conf(InternedText path, InternedText type, MountFlags flags, InternedText connection)
        : path_(std::move(path)),
          type_(std::move(type)),
          flags_(flags),
          connection_(std::move(connection)) {}

    String const& path() const { return path_; }
    InternedText const& internedPath() const { return path_; }
    String const& type() const { return type_; }
    MountFlags flags() const { return flags_; }
    // The name of the connection (Demuxer) the mount is made for.
    Name connection() const { return Name(connection_.str()); }
    bool empty() const { return path_.empty(); }

    friend bool operator==(Conf const&, Conf const&) = default;
    // "path (type) flags @connection"
    String text() const;
    static QelType const* staticType();

   private:
    // All three texts are interned: the type and the connection name are the same for many
    // configurations, the path for every table that mounts it.
    InternedText path_;
    InternedText type_;
    MountFlags flags_;
    InternedText connection_;
  };

  // The status record of one connect descriptor.
  class QEL_API Stat {
   public:
    static constexpr bool kQelValueType = true;
    Stat() = default;
    explicit Stat(Status status, std::string_view exceptionDesc = {})
        : status_(status), exceptionDesc_(exceptionDesc) {}

    Status status() const { return status_; }
    // The peer's exception text for a failed mount; empty when none.
    String const& exceptionDesc() const { return exceptionDesc_.str(); }

    friend bool operator==(Stat const&, Stat const&) = default;
    String text() const;
    static QelType const* staticType();

   private:
    Status status_ = none_;
    InternedText exceptionDesc_;  // empty, and then no node, unless the mount failed
  };

  // The peer's state of one path.
  class QEL_API PathState {
   public:
    static constexpr bool kQelValueType = true;
    PathState() = default;

    bool mounted() const { return mounted_; }
    bool complete() const { return complete_; }
    bool synchronised() const { return synchronised_; }
    bool mountPoint() const { return mountPoint_; }
    bool monitoring() const { return monitoring_; }
    U64 monitoringEid() const { return monitoringEid_; }

    PathState& mountedIs(bool v) { return set(mounted_, v); }
    PathState& completeIs(bool v) { return set(complete_, v); }
    PathState& synchronisedIs(bool v) { return set(synchronised_, v); }
    PathState& mountPointIs(bool v) { return set(mountPoint_, v); }
    PathState& monitoringIs(bool v) { return set(monitoring_, v); }
    PathState& monitoringEidIs(U64 v) {
      monitoringEid_ = v;
      return *this;
    }

    friend bool operator==(PathState const&, PathState const&) = default;
    // The set flags by name, e.g. "mounted complete synchronised mountPoint".
    String text() const;
    static QelType const* staticType();

   private:
    PathState& set(bool& field, bool v) {
      field = v;
      return *this;
    }
    bool mounted_ = false;
    bool complete_ = false;
    bool synchronised_ = false;
    bool mountPoint_ = false;
    bool monitoring_ = false;
    U64 monitoringEid_ = 0;
  };

  // One record per path: its configuration, status and state.
  using Records = NotifyingRecordMap<InternedText, Conf, Stat, PathState>;
  using ConfField = RecordField<Records, 0, String>;
  using StatField = RecordField<Records, 1, ConnectDesc>;
  using PathStateField = RecordField<Records, 2, String>;
  QEL_ATTR_IDS(QEL_MOUNT_TABLE_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<MountTable>;
  using NotifieeConst = NotifieeT<MountTable const>;

  static Ptr mountTableNew(Name const& name) { return Ptr(new MountTable(name)); }

  // currentVersion(Is); conf(), confOf(path), confs(), confDel(path); status(), statusOf(cd),
  // statuses(); pathState(), pathStateOf(path), pathStates(), pathStateIs(path, s),
  // pathStateDel(path).
  QEL_ATTR_ACCESSORS(QEL_MOUNT_TABLE_ATTRIBUTES)

  template <class K>
  Conf conf(K const& path) const {
    Conf const* c = confOf(path);
    return c ? *c : Conf();
  }
  // Installs `c` (its path must not be empty); see the header comment.
  void confIs(Conf const& c);

  Status status(ConnectDesc const& cd) const { return stat(cd).status(); }
  Stat stat(ConnectDesc const& cd) const {
    Stat const* s = statusOf(cd);
    return s ? *s : Stat();
  }
  // The number of status records not complete_: a caller waiting for every mount to complete
  // asks this instead of walking the records.
  std::size_t incompleteStatuses() const { return incomplete_; }
  // The connect descriptor of the record not complete_ that comes first by path; empty when
  // every record is complete_.
  ConnectDesc firstIncompleteStatus() const;
  void statusIs(ConnectDesc const& cd, Stat const& s);
  void statusDel(ConnectDesc const& cd);

  template <class K>
  PathState pathState(K const& path) const {
    PathState const* s = pathStateOf(path);
    return s ? *s : PathState();
  }
  template <class K>
  bool hasPathState(K const& path) const {
    return pathStateOf(path) != nullptr;
  }

  // The connection that sends this table's configurations to the peer; null when unbound.
  // Bound and unbound by the Demuxer itself.
  NboAttrLog::Demuxer* connection() const { return connection_; }
  void connectionIs(NboAttrLog::Demuxer* d) { connection_ = d; }

  QelType const* fwkType() const override { return staticType(); }
  static QelType const* staticType();
  static QelType const* statusType();

 protected:
  explicit MountTable(Name name) : Entity(std::move(name)) {}
  ~MountTable() override = default;

 private:
  QEL_ATTR_STORAGE(QEL_MOUNT_TABLE_ATTRIBUTES)
  QEL_ATTR_RECORDS(Records)
  std::size_t incomplete_ = 0;  // status records whose status is not complete_
  NboAttrLog::Demuxer* connection_ = nullptr;
};

template <class N>
class MountTable::NotifieeT : public BasicNotifiee<N> {
 public:
  using BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(QEL_MOUNT_TABLE_ATTRIBUTES)
};

// The status enum in the reflection ("Qel::MountTable::Status").
template <>
struct ValueTraits<MountTable::Status> {
  static QelType const* type() { return MountTable::statusType(); }
  static GenericIf::PtrConst box(MountTable::Status s) {
    return GenericValue::make(type(), Value(static_cast<std::int64_t>(s)));
  }
  static MountTable::Status unbox(GenericIf::PtrConst const& g) {
    return g ? static_cast<MountTable::Status>(g->valueAs<std::int64_t>()) : MountTable::none_;
  }
};

}  // namespace Qel
