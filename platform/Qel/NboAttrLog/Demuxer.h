// Qel::NboAttrLog::Demuxer: one agent connection of the database (its attribute-log
// demultiplexer), named after the connection.
//
// Mount requests. The demuxer owns the connection's peer MountTable (peer(); outMount() is the
// same table, so that one table holds configurations, statuses and path states) and binds itself
// to it: installing a changed configuration on the table (MountTable::confIs) sends a mount
// request. For each request, in this order: the table's status for the path becomes
// inProgress_, seqno() rises by one, flowOutMountRequests() (the count of requests not yet
// answered) rises by one, and the transport gets the URI "path?flags=<letters>", the type name and
// the sequence number. The answer (mountAnswered) first sets the status (complete_, or failed_
// with the peer's exception text), then lowers the count; each change notifies.
//
// Closing. close(reason, {.notifyPeer, .deferred, .removeStatus}), each option false unless set:
//   - notifyPeer: the peer is told the reason (the transport closes with it); otherwise the
//     connection simply drops.
//   - deferred: the close waits until every outgoing mount request has been answered (the
//     demuxer is closing(): it sends no new request meanwhile); otherwise it closes at once and
//     unanswered requests stay unanswered.
//   - removeStatus: the connection's status record leaves the connection status directory when
//     the connection has gone (the normal case: whoever watches the directory then tears down
//     what it holds for the connection); otherwise the record stays, marked not connected, until
//     the connection name connects again.
// The first close wins (a later one only turns a pending deferred close into an immediate one).
// The transport tears the connection down on a later turn of the event loop, never from inside
// close(), so a handler may close the connection that is notifying it. peerClosed(reason) records
// a close that came from the peer. After the close no request is sent: a configuration installed
// then is stored with status failed_ and the text "connection closed: <reason>"; answers are
// ignored.
//
// epoch() numbers the incarnations of a connection name (a reconnect gets a higher one); both it
// and the peer are fixed at creation. lowMountPrio marks a connection whose mounts are served at
// low priority; lowMountPrioSets() counts every call of lowMountPrioIs (tests check that it is set
// exactly once). pathServed records the database's report that a path is served by a mount already
// in place; it is passed on to the transport.
//
// Single-threaded, on the event loop's thread.
#pragma once

#include "Qel/Core/Api.h"

#include <map>
#include <unordered_map>

#include "Qel/Containers/InternedText.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/Transport.h"

namespace Qel::NboAttrLog {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define QEL_DEMUXER_ATTRIBUTES(X)                                           \
  X(ctor, none, MountTable::Ptr, peer, Peer)                                \
  X(ctor, none, U32, epoch, Epoch)                                          \
  X(valueOwnWrites, plain, U32, flowOutMountRequests, FlowOutMountRequests) \
  X(valueOwnWritesRw, plain, bool, lowMountPrio, LowMountPrio)              \
  X(valueOwnWrites, plain, U32, seqno, Seqno)                               \
  X(getter, plain, bool, closed, Closed)                                    \
  X(valueOwnWrites, plain, String, closeReason, CloseReason)                \
  X(custom, key, String, pathServed, PathServed)

class QEL_API Demuxer : public Entity {
 public:
  using Ptr = Qel::Ptr<Demuxer>;
  using PtrConst = Qel::Ptr<Demuxer const>;
  using PathServedMap = std::map<String, bool>;
  QEL_ATTR_IDS(QEL_DEMUXER_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<Demuxer>;
  using NotifieeConst = NotifieeT<Demuxer const>;

  // A connection named `name` over `transport` (may be null: nothing is sent), with `peer` as
  // its peer table (null: a new table of the same name).
  static Ptr demuxerNew(Name const& name, MountTable::Ptr peer, Transport::Ptr transport,
                        U32 epoch = 1);

  MountTable::Ptr const& peer() const { return peer_; }
  MountTable::Ptr const& outMount() const { return peer_; }
  // The name, interned once for the mount configurations made for this connection.
  InternedText const& internedName() const { return internedName_; }
  U32 epoch() const { return epoch_; }
  // flowOutMountRequests, lowMountPrio, seqno (the sequence number of the latest mount request;
  // 0 before the first) and closeReason.
  QEL_ATTR_ACCESSORS(QEL_DEMUXER_ATTRIBUTES)
  // Unanswered requests for one path.
  U32 flowOutMountRequests(String const& path) const;

  void lowMountPrioIs(bool v);
  U32 lowMountPrioSets() const { return lowMountPrioSets_; }

  PathServedMap const& pathServed() const { return pathServed_; }
  bool pathServed(String const& path) const;
  void pathServedIs(String const& path, bool served);

  Transport::Ptr const& transport() const { return transport_; }

  // How close() ends the connection; see the header comment.
  struct CloseOptions {
    bool notifyPeer = false;
    bool deferred = false;
    bool removeStatus = false;
  };
  void close(String const& reason, CloseOptions options);
  // The peer closed the connection (or it was lost).
  void peerClosed(String const& reason);
  bool closed() const { return closed_; }
  // A deferred close is waiting for the outstanding answers.
  bool closing() const { return closing_; }

  // Sends the mount request for `conf` (called by the peer table's confIs).
  void mountRequest(MountTable::Conf const& conf);
  // The peer's answer to the oldest unanswered request for `path`. False (and nothing changes)
  // when no request for the path is outstanding or the connection is closed.
  bool mountAnswered(String const& path, bool ok, String const& exceptionText);
  // The same for a path already interned (found by its node, its text not hashed again).
  bool mountAnswered(InternedText const& path, bool ok, String const& exceptionText);

  QelType const* fwkType() const override { return staticType(); }
  static QelType const* staticType();

 protected:
  Demuxer(Name name, MountTable::Ptr peer, Transport::Ptr transport, U32 epoch);
  ~Demuxer() override;

 private:
  void closeNow();
  template <class K>
  bool answered(K const& path, bool ok, String const& exceptionText);
  static void qelReflectPathServed(TypeBuilder<Demuxer>& b);

  MountTable::Ptr const peer_;
  U32 const epoch_;
  InternedText const internedName_;
  QEL_ATTR_STORAGE(QEL_DEMUXER_ATTRIBUTES)
  Transport::Ptr transport_;
  // Unanswered requests per path; emptied (buckets and all) whenever the last one is answered.
  std::unordered_map<InternedText, U32, InternedText::Hash, InternedText::Equal> outstanding_;
  U32 lowMountPrioSets_ = 0;
  PathServedMap pathServed_;
  // Set before the close's work, notified after it.
  bool closed_ = false;
  bool closing_ = false;
  bool closeNotifiesPeer_ = false;
  bool closeRemovesStatus_ = true;
};

template <class N>
class Demuxer::NotifieeT : public BasicNotifiee<N> {
 public:
  using BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(QEL_DEMUXER_ATTRIBUTES)
};

}  // namespace Qel::NboAttrLog
