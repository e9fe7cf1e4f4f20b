// The agent listener served by the real event loop (simulated clock) in one process, with up to
// four agents on real sockets writing what the input says. The first byte sets the number of
// agents and the listener's limits; then each step is one byte (low two bits: which agent) and
// what it takes:
//   write N raw bytes, shut the agent's writing side, close it and connect again, let the hello
//   timeout pass, mount a path on the agent's connection (one of them a directory whose state
//   is large, so that an agent that stops reading makes output wait), send a well-formed Hello,
//   an answer to a mount request received or a Close, or stop (or resume) reading.
// After every step the loop runs until it is idle, and then:
//   - the listener speaks only well-formed frames, and a Close is the last thing it sends;
//   - an agent whose connection the listener ended without the agent ending it (by a Close or
//     the end of its stream) was sent a Close with a reason that prints as one line, unless the
//     agent stopped reading (its socket may not take the Close);
//   - the listener holds exactly the connections whose agents have not seen the end of the
//     stream (of those not reading, at most all), and the database has a demuxer and a status
//     record for each admitted one;
//   - no connection holds more output than its limit, nor all together more than theirs;
//   - a new connection of a name gets a higher epoch than the connections of it before, and the
//     listener remembers no more names than its limit.
// At the end every agent goes: the listener holds nothing, nothing waits for output, and once
// the listener and the loop are destroyed the socket file is gone and no reference-counted object
// or descriptor is left behind.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "Ledra/AgentListener.h"
#include "Ledra/ConnMgrHelper.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Loop/SimulatedClock.h"
#include "Qel/Mount/MountFlags.h"
#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Qel/NboAttrLog/WireMessage.h"
#include "Qel/NboAttrLog/WireText.h"

namespace {

using Ledra::AgentListener;
using Qel::NboAttrLog::WireClose;
using Qel::NboAttrLog::WireDecoder;
using Qel::NboAttrLog::WireHello;
using Qel::NboAttrLog::WireMessage;
using Qel::NboAttrLog::WireMountAnswer;
using Qel::NboAttrLog::WireMountRequest;

constexpr std::size_t kMaxAgents = 4;
constexpr int kMaxSteps = 256;

std::string gDir;
std::string gPath;

// One agent process as the listener sees it: a socket, what it wrote as the listener decodes it,
// and what it was sent.
struct Agent {
  int fd = -1;
  // It ended the connection itself: sent a Close or shut its writing side.
  bool endedItself = false;
  bool eof = false;
  bool reads = true;
  bool stalled = false;  // stopped reading at some time
  std::string name;      // of its first message, when that was a Hello
  bool firstSeen = false;
  WireDecoder sent;
  WireDecoder received{std::size_t(1) << 24};
  bool closeReceived = false;
  std::string closeReason;
  std::map<Qel::U32, std::string> requests;  // seqno -> path, not yet answered
};

class Run {
 public:
  explicit Run(std::uint8_t config) {
    clock_ = Qel::SimulatedClock::simulatedClockNew();
    loop_ = Qel::EventLoop::eventLoopNew(clock_);
    listener_ = AgentListener::agentListenerNew(loop_, gPath);
    agents_ = 1 + (config & 3u);
    if (config & 4u) {
      listener_->maxFrameIs(64);
      listener_->maxAgentNameIs(4);
    }
    if (config & 8u) listener_->maxRememberedNamesIs(1);
    if (config & 16u) listener_->maxOutputIs(96 * 1024);
    if (config & 32u) listener_->maxOutputTotalIs(64 * 1024);
    for (std::size_t i = 0; i < agents_; ++i)
      connect(agent_[i]);
    settle();
  }

  ~Run() {
    for (std::size_t i = 0; i < agents_; ++i)
      shut(agent_[i]);
    settle();
    FUZZ_CHECK(listener_->connections() == 0);
    FUZZ_CHECK(listener_->pendingConnections() == 0);
    FUZZ_CHECK(listener_->outputTotal() == 0);
    FUZZ_CHECK(Qel::NboAttrLog::demuxerMgr()->demuxers() == 0);
    FUZZ_CHECK(Ledra::ConnMgrHelper::connectionStatusDir()->passiveConnectionStatuses() == 0);
    listener_ = nullptr;
    FUZZ_CHECK(::access(gPath.c_str(), F_OK) != 0 && errno == ENOENT);
    loop_ = nullptr;
    clock_ = nullptr;
  }

  void step(std::uint8_t op, std::string_view& input) {
    Agent& a = agent_[(op & 3u) % agents_];
    unsigned const kind = op >> 2;
    if (kind < 40) {
      std::size_t const n = std::min<std::size_t>(take(input), input.size());
      write(a, input.substr(0, n));
      input.remove_prefix(n);
    } else if (kind < 44) {
      if (a.fd >= 0 && !a.endedItself) {
        ::shutdown(a.fd, SHUT_WR);
        a.endedItself = true;
      }
    } else if (kind < 48) {
      shut(a);
      settle();
      connect(a);
    } else if (kind < 50) {
      loop_->runFor(listener_->helloTimeout() + 1);
    } else if (kind < 54) {
      mount(a, take(input));
    } else if (kind < 58) {
      std::uint8_t const b = take(input);
      write(a, Qel::NboAttrLog::wireFrame(
                   WireHello{Qel::U32(b >> 2) % 7, "agent" + std::to_string(b & 3u), "fuzz"}));
    } else if (kind < 62) {
      answer(a, take(input));
    } else if (kind < 63) {
      write(a, Qel::NboAttrLog::wireFrame(WireClose{"bye"}));
    } else {
      a.reads = !a.reads;
      a.stalled = true;
    }
    settle();
    check();
  }

 private:
  static std::uint8_t take(std::string_view& input) {
    if (input.empty()) return 0;
    auto const b = static_cast<std::uint8_t>(input.front());
    input.remove_prefix(1);
    return b;
  }

  void connect(Agent& a) {
    a = Agent();
    a.sent.maxFrameIs(listener_->maxFrame());
    a.fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(a.fd >= 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, gPath.data(), gPath.size());
    FUZZ_CHECK(::connect(a.fd, reinterpret_cast<sockaddr const*>(&addr), sizeof addr) == 0);
  }

  void shut(Agent& a) {
    if (a.fd < 0) return;
    ::close(a.fd);
    a.fd = -1;
  }

  void write(Agent& a, std::string_view bytes) {
    if (a.fd < 0 || a.endedItself || bytes.empty()) return;
    ssize_t const n = ::send(a.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    // The listener may have closed already; what it never reads does not count.
    if (n <= 0) return;
    a.sent.feed(bytes.substr(0, static_cast<std::size_t>(n)));
    WireMessage m;
    while (a.sent.next(m) == WireDecoder::Result::message) {
      if (!a.firstSeen) {
        a.firstSeen = true;
        if (auto const* h = std::get_if<WireHello>(&m)) a.name = h->agentName;
      }
      if (std::holds_alternative<WireClose>(m)) a.endedItself = true;
    }
  }

  // The database mounts one of a few paths on the connection of `a`'s agent.
  void mount(Agent& a, std::uint8_t b) {
    if (a.name.empty()) return;
    auto const d = Qel::NboAttrLog::demuxerMgr()->demuxer(a.name);
    if (!d) return;
    static char const* const paths[] = {"/fz/m0", "/fz/m1", "/fz/big0", "/fz/big1", "/fz/big2"};
    std::string const path = paths[b % 5];
    d->peer()->confIs(Qel::MountTable::Conf(
        path, {}, Qel::MountFlags::fromLetters(b & 8u ? "Cnp" : "C"), a.name));
  }

  // Answers a mount request `a` received (or, with none, one it never received).
  void answer(Agent& a, std::uint8_t b) {
    WireMountAnswer w;
    w.seqno = 1;
    w.path = "/fz/m0";
    if (!a.requests.empty()) {
      auto it = a.requests.begin();
      std::advance(it, b % a.requests.size());
      w.seqno = it->first;
      w.path = it->second;
      a.requests.erase(it);
    }
    w.ok = (b & 0x80u) == 0;
    w.exceptionText = w.ok ? "" : "no such entity\n";
    w.pathState = (b >> 2) & WireMountAnswer::kAllBits;
    write(a, Qel::NboAttrLog::wireFrame(w));
  }

  // Turns until nothing is left to do now.
  void settle() {
    int quiet = 0;
    for (int turns = 0; quiet < 3; ++turns) {
      FUZZ_CHECK(turns < 100000);
      loop_->runOnce();
      quiet = loop_->tasks() == 0 ? quiet + 1 : 0;
    }
    for (std::size_t i = 0; i < agents_; ++i)
      receive(agent_[i]);
  }

  void receive(Agent& a) {
    if (a.fd < 0 || a.eof || !a.reads) return;
    char buf[65536];
    for (;;) {
      ssize_t const n = ::recv(a.fd, buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) {
        a.received.feed(std::string_view(buf, static_cast<std::size_t>(n)));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
      a.eof = true;
      break;
    }
    WireMessage m;
    for (;;) {
      WireDecoder::Result const r = a.received.next(m);
      FUZZ_CHECK(r != WireDecoder::Result::error);
      if (r == WireDecoder::Result::none) break;
      FUZZ_CHECK(!a.closeReceived);
      if (auto const* c = std::get_if<WireClose>(&m)) {
        a.closeReceived = true;
        a.closeReason = c->reason;
      } else if (auto const* q = std::get_if<WireMountRequest>(&m)) {
        a.requests[q->seqno] = q->uri.substr(0, q->uri.find('?'));
      }
    }
    // Only a connection given up for not reading may end in the middle of a frame.
    if (a.eof && !a.stalled) FUZZ_CHECK(!a.received.midFrame());
  }

  void check() {
    std::size_t live = 0;
    std::size_t unread = 0;
    for (std::size_t i = 0; i < agents_; ++i) {
      Agent const& a = agent_[i];
      if (a.fd < 0) continue;
      if (!a.reads) {
        ++unread;
        continue;
      }
      if (!a.eof) {
        ++live;
        continue;
      }
      if (a.endedItself || a.stalled) continue;
      FUZZ_CHECK(a.closeReceived);
      FUZZ_CHECK(!a.closeReason.empty());
      FUZZ_CHECK(Qel::NboAttrLog::printableText(a.closeReason) == a.closeReason);
    }
    FUZZ_CHECK(listener_->rememberedNames() <= listener_->maxRememberedNames());
    std::size_t const connections = listener_->connections();
    std::size_t const held = connections + listener_->pendingConnections();
    FUZZ_CHECK(held >= live && held <= live + unread);
    FUZZ_CHECK(listener_->outputTotal() <= listener_->maxOutputTotal());
    FUZZ_CHECK(Qel::NboAttrLog::demuxerMgr()->demuxers() == connections);
    FUZZ_CHECK(Ledra::ConnMgrHelper::connectionStatusDir()->passiveConnectionStatuses() ==
               connections);
    for (std::size_t i = 0; i < agents_; ++i) {
      Agent const& a = agent_[i];
      if (a.name.empty()) continue;
      auto const d = Qel::NboAttrLog::demuxerMgr()->demuxer(a.name);
      if (!d) continue;
      auto const t = listener_->transport(a.name);
      FUZZ_CHECK(t && t->outputBuffered() <= listener_->maxOutput());
      // A name the listener no longer remembers answers 0.
      Qel::U32 const remembered = listener_->epoch(a.name);
      FUZZ_CHECK(remembered == 0 || remembered == d->epoch());
      Seen& s = seen_[a.name];
      if (s.demuxer != d.ptr()) {
        FUZZ_CHECK(d->epoch() > s.epoch);
        s = Seen{d.ptr(), d->epoch()};
      }
    }
  }

  struct Seen {
    void const* demuxer = nullptr;
    Qel::U32 epoch = 0;
  };

  Qel::SimulatedClock::Ptr clock_;
  Qel::EventLoop::Ptr loop_;
  AgentListener::Ptr listener_;
  std::size_t agents_ = 1;
  Agent agent_[kMaxAgents];
  std::map<std::string, Seen> seen_;
};

// The lowest free descriptor.
int lowestFreeFd() {
  int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  ::close(fd);
  return fd;
}

void removeDir() {
  ::unlink(gPath.c_str());
  ::rmdir(gDir.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char tmpl[] = "/tmp/ledra-listener-fuzz-XXXXXX";
  FUZZ_CHECK(::mkdtemp(tmpl) != nullptr);
  gDir = tmpl;
  gPath = gDir + "/agents.sock";
  std::atexit(removeDir);
  // The process-wide objects exist before the first count, and so do directories whose state
  // (their entry names) takes more than half a socket's buffer.
  auto const fz = Qel::globalDir()->dirIs("fz");
  for (char const* name : {"big0", "big1", "big2"}) {
    auto const big = fz->dirIs(name);
    for (int i = 0; i < 64; ++i)
      big->dirIs(std::to_string(i) + std::string(2000, 'x'));
  }
  Qel::NboAttrLog::demuxerMgr();
  Ledra::ConnMgrHelper::connectionStatusDir();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  long const live = Qel::RefCounted::liveInstances();
  int const fd = lowestFreeFd();
  {
    std::string_view input(reinterpret_cast<char const*>(data + 1), size - 1);
    Run run(data[0]);
    for (int steps = 0; !input.empty() && steps < kMaxSteps; ++steps) {
      auto const op = static_cast<std::uint8_t>(input.front());
      input.remove_prefix(1);
      run.step(op, input);
    }
  }
  FUZZ_CHECK(Qel::RefCounted::liveInstances() == live);
  FUZZ_CHECK(lowestFreeFd() == fd);
  return 0;
}
