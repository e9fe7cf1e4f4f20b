// Qel::NboAttrLog::Transport: the wire under one agent connection, as its Demuxer sees it.
//
// The Demuxer holds its transport and calls it to send mount requests and to close the
// connection; the transport reports the peer's answers back through Demuxer::mountAnswered and a
// loss of the connection through Demuxer::peerClosed. Implementations: the in-process loopback
// peer (Ledra::LoopbackAgent) and, for agent processes, a socket peer.
//
// Contract: sendMountRequest must not answer from inside the call (answers arrive on a later turn
// of the event loop); close() is called at most once, after which the demuxer drops the
// transport. Single-threaded.
#pragma once

#include "Qel/Core/Api.h"

#include "Qel/Core/Ptr.h"
#include "Qel/Core/Types.h"

namespace Qel::NboAttrLog {

class QEL_API Transport : public RefCounted {
 public:
  using Ptr = Qel::Ptr<Transport>;

  // Sends one mount request: the entity URI ("path?flags=letters"), the entity type name (empty:
  // mount what stands there) and the request's sequence number on the connection.
  virtual void sendMountRequest(String const& uri, String const& typeName, U32 seqno) = 0;

  // Closes the connection. `reason` is the text to give the peer (empty: the peer is not told
  // why). With `removeStatus` the connection's status record leaves the connection status
  // directory when the connection has gone; without, it stays, marked not connected.
  virtual void close(String const& reason, bool removeStatus) = 0;

  // The database's report that `path` is served by a mount already in place (or no longer).
  virtual void pathServed(String const& /*path*/, bool /*served*/) {}

 protected:
  Transport() = default;
  ~Transport() override = default;
};

}  // namespace Qel::NboAttrLog
