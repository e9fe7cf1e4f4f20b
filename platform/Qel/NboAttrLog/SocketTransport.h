// Qel::NboAttrLog::SocketTransport: the Transport of one agent connection over a connected
// stream socket, driven by the EventLoop. It speaks the framed messages of WireMessage.h.
//
// Phases. A new transport watches its socket for the agent's first message. That must be a Hello:
// it goes to the owner (Owner::onHello), which either binds the connection's Demuxer (demuxerIs)
// or refuses the agent (closeWith). Anything else first (except a Close, which simply ends the
// connection), or a malformed frame, closes the connection with a reason. Once bound:
//   - sendMountRequest sends a MountRequest and, when an entity stands at the path in
//     Qel::globalDir(), an EntityState of the same sequence number right after it (its type name,
//     its plain attributes read through the reflection as text, a Dir's entry names), taken from
//     the process's EntityStateCache. A state frame longer than the frame limit is left out (the
//     request says no state follows).
//   - a MountAnswer must name a request sent and not yet answered (same seqno and path). A
//     successful answer first sets the peer table's path state from the answer's bits, then
//     answers the demuxer (Demuxer::mountAnswered); a failed one answers with its exception text.
//   - a Close from the agent, the end of the stream, or a read or write error: the demuxer learns
//     of it through Demuxer::peerClosed.
//   - a malformed, truncated or oversized frame, an answer to no request, or any message the agent
//     must not send closes the connection through Demuxer::close with a reason that the agent is
//     sent (when its socket still takes it). The process never aborts on what the peer sends.
// close() (from the demuxer) sends a Close with the reason when there is one, stops reading, and
// tears the connection down on a later loop turn: the socket is flushed once more (what it does not
// take is dropped), unwatched and closed, and the owner hears Owner::onGone.
//
// Output. What one loop turn produces for the connection is gathered and written with one send at
// the end of the turn (EventLoop::atTurnEnd), so that a group of requests costs one system call
// and wakes the agent once; gathered output that reaches 64 KiB (or maxOutput(), if less), and
// what is sent between turns, is written at once instead. Writes never block: what the socket does
// not take waits in the output buffer, written as the socket becomes writable, and frames queued
// behind it wait with it. The bound: bytes waiting (outputBuffered(): offered to the socket and not
// taken, or queued behind such bytes; not what is gathered and not yet offered) may not exceed
// maxOutput(). As soon as more waits (after offering it to the socket once more), the agent is
// taken for one that does not read and closed ("agent does not read its connection (N bytes
// waiting, limit M)"): what waits is discarded at once and the close follows on a later turn
// (discardOutputAndClose); when the socket has taken part of a frame by then, nothing more is sent
// on the connection, not even the Close: written after that part, it would read as the rest of the
// frame, and the agent sees its stream end inside the frame instead. A connection thus holds at
// most maxOutput() bytes plus one turn's gathering (at most 64 KiB and one frame). Every change of
// the bytes waiting is reported to the owner (Owner::onOutputBuffered), which may bound the output
// of all its connections together. Texts the agent writes for people (a Close's reason, a failed
// answer's exception text) are taken in their printable form (printableText), so that they cannot
// break an output line.
//
// Lifetimes: the transport owns its socket descriptor. The loop must outlive the connection (the
// owner tears every connection down before the loop goes: teardownNow()). Loop tasks hold the
// transport; the transport holds its demuxer from demuxerIs until the teardown. No callback
// destroys an object whose handler is running. Single-threaded, on the loop's thread.
#pragma once

#include "Qel/Core/Api.h"

#include <deque>
#include <map>
#include <string>
#include <string_view>

#include "Qel/Loop/EventLoop.h"
#include "Qel/NboAttrLog/Demuxer.h"
#include "Qel/NboAttrLog/Transport.h"
#include "Qel/NboAttrLog/WireMessage.h"

namespace Qel::NboAttrLog {

class QEL_API SocketTransport final : public Transport {
 public:
  using Ptr = Qel::Ptr<SocketTransport>;
  static constexpr std::size_t kDefaultMaxOutput = std::size_t(16) << 20;

  // What the transport tells the one who accepted its socket.
  class Owner {
   public:
    // The agent's hello. The owner binds a demuxer (demuxerIs) or refuses (closeWith); a hello
    // left without either is refused with "hello not accepted".
    virtual void onHello(SocketTransport& t, WireHello const& hello) = 0;
    // The connection has been torn down (socket closed). `removeStatus` is the close's wish
    // (Transport::close), true when the peer ended the connection. Called once, on a loop turn.
    virtual void onGone(SocketTransport& t, bool removeStatus) = 0;
    // The bytes waiting for the socket changed from `before` to t.outputBuffered(): output was
    // queued, written, or discarded. Must not close or destroy any connection from inside the
    // call (a mount request may be on its way out); discardOutputAndClose is allowed.
    virtual void onOutputBuffered(SocketTransport& t, std::size_t before) = 0;

   protected:
    ~Owner() = default;
  };

  // A transport over the connected socket `fd` (it becomes non-blocking and is owned from now
  // on), reporting to `owner` (may be null: a hello is then refused). `name` names it in reasons
  // and texts until a demuxer is bound. Starts watching at once.
  static Ptr socketTransportNew(EventLoop* loop, int fd, Owner* owner, String const& name = {});

  int fd() const { return fd_; }
  String const& name() const { return name_; }
  Demuxer::Ptr const& demuxer() const { return demuxer_; }
  // Binds the connection's demuxer (its transport must be this one). During onHello only.
  void demuxerIs(Demuxer::Ptr const& d);

  std::size_t maxFrame() const { return decoder_.maxFrame(); }
  // The largest frame body accepted from, and sent to, the peer.
  void maxFrameIs(std::size_t bytes);
  std::size_t maxOutput() const { return maxOutput_; }
  void maxOutputIs(std::size_t bytes);
  // Bytes waiting for the socket (see Output in the header comment).
  std::size_t outputBuffered() const { return output_.size() - outputOffset_ - gathered_; }
  // Bytes gathered in the present turn and not yet offered to the socket.
  std::size_t outputGathered() const { return gathered_; }
  // send() calls made on the socket so far.
  U64 sends() const { return sends_; }

  // The connection is ending or has ended (either side); endReason() says why, as traced, e.g.
  // "closed by the agent: bye", "closed by the database: no agent profile",
  // "protocol error: unknown message kind 9", "connection lost: end of stream".
  bool closing() const { return closing_; }
  bool gone() const { return gone_; }
  String const& endReason() const { return endReason_; }
  // Requests sent and not yet answered: seqno -> path.
  std::map<U32, String> const& unanswered() const { return unanswered_; }

  // Closes the connection of a peer not (or no longer) bound to a demuxer: sends it the reason
  // (when not empty) and tears down on a later turn. With a demuxer bound, closes through it.
  void closeWith(String const& reason);
  // Gives up on a peer that does not read: what waits for it is freed now, nothing more is
  // queued, and the connection closes with `reason` on a later turn (closeWith). Safe from
  // anywhere, including while the demuxer sends and inside Owner::onOutputBuffered.
  void discardOutputAndClose(String const& reason);
  bool discarding() const { return discarding_; }
  // Tears the connection down now (the owner's own teardown); the owner still hears onGone.
  void teardownNow();
  // The owner lets go: no callback reaches it any more.
  void ownerGone() { owner_ = nullptr; }

  // Transport.
  void sendMountRequest(String const& uri, String const& typeName, U32 seqno) override;
  void close(String const& reason, bool removeStatus) override;

 private:
  SocketTransport(EventLoop* loop, int fd, Owner* owner, String name);
  ~SocketTransport() override;

  void onReady(unsigned ready);
  void readInput(bool& ended, String& readError);
  // Handles one message; false when the connection is closing afterwards.
  bool handle(WireMessage& m);
  void handleAnswer(WireMountAnswer const& a);
  // The peer broke the protocol: close with `reason`, telling the peer.
  void protocolError(String const& reason);
  // The peer closed (`traced`: how, e.g. "closed by the agent: bye"; `reason` is the agent's
  // text) or the connection failed (`traced` empty: "connection lost: <reason>").
  void lost(String const& reason, String const& traced = {});
  // Queues a frame: gathered when nothing waits, else behind what waits.
  void enqueue(std::string_view frame);
  // Queues a MountRequest and, when `state` is not empty, that EntityState frame after it with
  // the request's sequence number; the owner hears of the change once, after both.
  void enqueueRequest(U32 seqno, String const& uri, String const& typeName, std::string_view state);
  // Empties the output buffer when all it held was written.
  void startQueueing();
  // Counts a frame of `size` bytes appended to the output; `before`: the bytes waiting before.
  void frameQueued(std::size_t size, std::size_t before);
  // Writes what was gathered at the end of the turn, once however often it is asked.
  void flushAtTurnEnd();
  void flushGathered();
  // Gives the agent up when more than maxOutput() bytes wait.
  void checkBound();
  // Writes what the socket takes; false on a write error (reported on a later turn).
  bool flush();
  bool writeOutput();
  void dropOutput();
  // Tells the owner that the bytes waiting were `before`.
  void outputChanged(std::size_t before);
  void watchFor(bool writable);
  void teardownSchedule(bool removeStatus);
  void teardown();

  EventLoop* const loop_;
  int fd_;
  Owner* owner_;
  String name_;
  Demuxer::Ptr demuxer_;
  WireDecoder decoder_;
  std::string output_;
  std::size_t outputOffset_ = 0;
  // The bytes at the end of output_ gathered in this turn and not yet offered to the socket; only
  // ever non-zero while nothing waits before them.
  std::size_t gathered_ = 0;
  bool flushQueued_ = false;
  U64 sends_ = 0;
  // Bytes ever queued and ever written, the ends (in queued bytes) of the frames not yet written
  // whole, the end of the last frame written whole, and whether a frame was cut short.
  U64 queuedBytes_ = 0;
  U64 writtenBytes_ = 0;
  std::deque<U64> frameEnds_;
  U64 frameEnd_ = 0;
  bool frameCut_ = false;
  std::size_t maxOutput_ = kDefaultMaxOutput;
  std::map<U32, String> unanswered_;
  bool helloSeen_ = false;
  bool watchingWritable_ = false;
  bool writeFailed_ = false;
  String writeError_;
  bool closing_ = false;
  bool discarding_ = false;
  bool teardownPosted_ = false;
  bool removeStatus_ = true;
  bool gone_ = false;
  String endReason_;
};

}  // namespace Qel::NboAttrLog
