// Faults injected against a real ledrad (clients that never read or stall mid-frame, thousands of
// connections dropped, agents killed at seeded points, SIGTERM while agents are served): a good
// agent alongside is served to its end, and ledrad's descriptors and resident memory come back.
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "Qel/NboAttrLog/WireMessage.h"
#include "apps/ledrad/ControlProtocol.h"
#include "apps/ledrad/UnixSocket.h"
#include "tests/integration/ChildProcess.h"
#include "tests/integration/LedradFolder.h"

namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::kWait;
using test::startsWith;
namespace Wire = Qel::NboAttrLog;

constexpr char const* kState = R"(type Test::Box
entity /%sysname/Ledra/a/box Test::Box
entity /%sysname/Ledra/b/one Test::Box
entity /%sysname/Ledra/b/two Test::Box
)";

// Seven mounts in four groups: the root, then a, then box and node-%n, then b with its two boxes.
constexpr char const* kProfiles = R"(profile node-
  templateKey 1 %n
  group first 10
    mount /%sysname/Ledra/a Qel::Dir
  group second 20
    mount /%sysname/Ledra/a/box Test::Box
    mount /%sysname/Ledra/a/node-%n Test::Box w
  group third 30
    mount /%sysname/Ledra/b Qel::Dir
  group fourth 40
    mount /%sysname/Ledra/b/one Test::Box
    mount /%sysname/Ledra/b/two Test::Box
)";
constexpr std::size_t kNodeMounts = 7;

// Resident memory may grow by kGrowth while the faults last and must come back within
// kMemoryTolerance of the baseline taken after a warm-up. The sanitizer build keeps freed memory
// in quarantine (ledrad gets a small one there; LeakSanitizer finds leaks at its exit) and runs
// slower: it opens fewer connections and gives ledrad longer to stop.
#ifdef LEDRA_SANITIZE
constexpr long kMemoryTolerance = 96 << 10;  // KiB
constexpr int kConnectionsPerRound = 16;
constexpr double kStopWithin = 5.0;
#else
constexpr long kMemoryTolerance = 1 << 10;  // KiB
constexpr int kConnectionsPerRound = 40;
constexpr double kStopWithin = 1.5;
#endif
constexpr long kGrowth = kMemoryTolerance + 11 * 1024;

using Clock = std::chrono::steady_clock;

Clock::time_point deadlineIn(double seconds) {
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

int msLeft(Clock::time_point deadline) {
  auto const left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

// Whether ledrad has closed its end of `fd` within kWait.
bool hungUp(int fd) {
  return !test::readToEnd(fd).ends_with("<timeout>");
}

// The reason of the first Close ledrad sends before it closes `fd`, if any.
std::optional<std::string> closeReason(int fd) {
  std::string const bytes = test::readToEnd(fd);
  if (bytes.ends_with("<timeout>")) return "<not closed>";
  Wire::WireDecoder decoder;
  decoder.feed(bytes);
  Wire::WireMessage m;
  while (decoder.next(m) == Wire::WireDecoder::Result::message) {
    if (auto const* c = std::get_if<Wire::WireClose>(&m)) return c->reason;
  }
  return std::nullopt;
}

std::string helloFrame(std::string const& name) {
  return Wire::wireFrame(Wire::WireHello{5, name, name});
}

// An agent on the wire, in this process: it says hello and answers every mount request (after
// its state, when one follows), or stops after a given number of frames as if killed.
class WireAgent {
 public:
  explicit WireAgent(std::string const& socket) : fd_(Ledrad::connectUnixSocket(socket)) {}
  ~WireAgent() { drop(); }
  WireAgent(WireAgent const&) = delete;
  WireAgent& operator=(WireAgent const&) = delete;

  int fd() const { return fd_; }
  std::size_t answered() const { return answered_; }

  // Sends `bytes` whole; false when ledrad has closed.
  bool send(std::string const& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      ssize_t const n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }
  bool hello(std::string const& name) { return send(helloFrame(name)); }

  // Receives frames, answering requests, until `answers` requests are answered or `frames` frames
  // are received (the last one unanswered); false when the stream ends or the deadline passes
  // first.
  bool serve(std::size_t answers, std::size_t frames) {
    auto const deadline = deadlineIn(kWait);
    while (answered_ < answers && frames_ < frames) {
      Wire::WireMessage m;
      auto const r = decoder_.next(m);
      if (r == Wire::WireDecoder::Result::error) return false;
      if (r == Wire::WireDecoder::Result::none) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, msLeft(deadline)) <= 0) return false;
        char buf[65536];
        ssize_t const n = ::recv(fd_, buf, sizeof buf, 0);
        if (n <= 0) return false;
        decoder_.feed(std::string_view(buf, static_cast<std::size_t>(n)));
        continue;
      }
      if (++frames_ == frames) return true;
      if (std::holds_alternative<Wire::WireClose>(m)) return false;
      if (auto const* req = std::get_if<Wire::WireMountRequest>(&m)) {
        std::string const path = req->uri.substr(0, req->uri.find('?'));
        if (req->stateFollows) {
          awaitingState_[req->seqno] = path;
        } else if (!answer(req->seqno, path)) {
          return false;
        }
      }
      if (auto const* st = std::get_if<Wire::WireEntityState>(&m)) {
        auto const it = awaitingState_.find(st->seqno);
        if (it == awaitingState_.end() || !answer(st->seqno, it->second)) return false;
        awaitingState_.erase(it);
      }
    }
    return true;
  }

  static std::string answerFrame(Qel::U32 seqno, std::string const& path) {
    return Wire::wireFrame(Wire::WireMountAnswer{seqno, path, true, "", 0x0f, 0});
  }

  void drop() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  bool answer(Qel::U32 seqno, std::string const& path) {
    ++answered_;
    return send(answerFrame(seqno, path));
  }

  int fd_;
  Wire::WireDecoder decoder_;
  std::map<Qel::U32, std::string> awaitingState_;
  std::size_t frames_ = 0;
  std::size_t answered_ = 0;
};

class FaultInjection : public test::LedradFolder {
 protected:
  struct Usage {
    std::size_t fds;
    long rssKiB;
  };

  FaultInjection() : LedradFolder(kState, kProfiles) {}

#ifdef LEDRA_SANITIZE
  // Before any ledrad is started: the children take the environment as it is then.
  static void SetUpTestSuite() {
    char const* const given = ::getenv("ASAN_OPTIONS");
    std::string options = given ? given : "";
    ::setenv("ASAN_OPTIONS",
             (options + (options.empty() ? "" : ":") + "quarantine_size_mb=16").c_str(), 1);
  }
#endif

  void TearDown() override {
    clients_.clear();
    LedradFolder::TearDown();
  }

  // ledrad with `extra` options, once it has served one agent and answered a control request:
  // the baseline of its descriptors and memory.
  Usage warmLedrad(std::vector<std::string> const& extra = {}) {
    LedradFolder::startLedrad("ftest", extra);
    serveWireAgent("node-warm");
    control({"status"});
    return usage();
  }

  Usage usage() const {
    std::string const proc = "/proc/" + std::to_string(ledrad_->pid());
    Usage u{0, -1};
    for (auto const& e : fs::directory_iterator(proc + "/fd")) {
      (void)e;
      ++u.fds;
    }
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);) {
      if (startsWith(line, "VmRSS:")) u.rssKiB = std::stol(line.substr(6));
    }
    return u;
  }

  // One control exchange, in this process: `request` words in, the reply out ("ok\n..." or
  // "error\n..."). It is answered on ledrad's loop, so it also waits for a turn of it.
  std::string control(std::vector<std::string> const& request) {
    int const fd = Ledrad::connectUnixSocket(path("ctl.sock"));
    std::string const line = Ledrad::encodeRequest(request) + "\n";
    (void)::send(fd, line.data(), line.size(), MSG_NOSIGNAL);
    std::string reply = test::readToEnd(fd);
    ::close(fd);
    return reply;
  }

  // Turns of ledrad's loop (control exchanges) until its descriptors are back to `base` and its
  // memory within the tolerance of the baseline (ledrad gives free heap memory back to the system
  // once a second); then they must be.
  void expectBackTo(Usage const& base) {
    auto const deadline = deadlineIn(kWait);
    auto const back = [&](Usage const& u) {
      return u.fds == base.fds && u.rssKiB <= base.rssKiB + kMemoryTolerance;
    };
    while (!back(usage()) && msLeft(deadline) > 0)
      control({"status"});
    Usage const now = usage();
    EXPECT_EQ(now.fds, base.fds);
    EXPECT_LE(now.rssKiB, base.rssKiB + kMemoryTolerance)
        << "VmRSS " << now.rssKiB << " KiB, baseline " << base.rssKiB << " KiB";
  }

  // An agent on the wire, served to its end, then gone.
  void serveWireAgent(std::string const& name) {
    WireAgent a(path("agents.sock"));
    ASSERT_TRUE(a.hello(name));
    EXPECT_TRUE(a.serve(kNodeMounts, SIZE_MAX)) << name << ": " << a.answered() << " answered";
    EXPECT_TRUE(ledrad_->waitForLine("All mounts complete for " + name, kWait)) << name;
    a.send(Wire::wireFrame(Wire::WireClose{"done"}));
    a.drop();
    EXPECT_TRUE(ledrad_->waitForLine("agent " + name + " disconnected", kWait)) << name;
  }

  // A connection to the agent socket that has sent `bytes`; closed at the end of the test.
  WireAgent& connectAgent(std::string const& bytes) {
    clients_.push_back(std::make_unique<WireAgent>(path("agents.sock")));
    clients_.back()->send(bytes);
    return *clients_.back();
  }

  // Waits for ledrad's "agent NAME disconnected" of every name in `names`.
  void awaitDisconnected(std::set<std::string> names) {
    std::string const suffix = " disconnected";
    while (!names.empty()) {
      auto const line = ledrad_->waitForLine(
          [&](std::string const& l) {
            return startsWith(l, "agent ") && l.ends_with(suffix) &&
                   names.count(l.substr(6, l.size() - 6 - suffix.size()));
          },
          kWait);
      ASSERT_TRUE(line) << names.size() << " never disconnected, e.g. " << *names.begin();
      names.erase(line->substr(6, line->size() - 6 - suffix.size()));
    }
  }

  std::vector<std::unique_ptr<WireAgent>> clients_;
};

// (a) Clients that never read while ledrad pushes to them: ledrad holds for each what its socket
// did not take of the root's state (about 600 KB) without waiting for it. (b) Clients that stall
// in the middle of a frame: in their hello (closed at the hello timeout, with the reason), or
// after it in the middle of an answer or of a frame of 1 MB (held: an agent may be slow). An
// agent is served meanwhile; once the faulty clients go, everything they held is given back.
// (What the listener tells of a frame too long or cut short is met by its own tests.)
TEST_F(FaultInjection, ClientsThatNeverReadOrStallMidFrameAreHeldOrTimedOutAndGiveItBack) {
  std::ostringstream bulk;
  for (int i = 0; i < 1000; ++i)
    bulk << "dir /%sysname/Ledra/e" << std::string(594, 'x') << 10000 + i << "\n";
  write("state/bulk.state", bulk.str());
  Usage const base = warmLedrad({"--hello-timeout", "0.5"});
  std::string const hello = helloFrame("node-half");
  // A frame of 1,000,000 body bytes of which all but one arrive.
  std::string const big = std::string("\x00\x0f\x42\x40", 4) + std::string(999999, '\x04');
  std::string const answer = WireAgent::answerFrame(1, "/ftest/Ledra");
  for (int i = 0; i < 4; ++i)
    connectAgent(i % 2 ? hello.substr(0, hello.size() / 2) : "");
  std::set<std::string> names;
  for (int i = 0; i < 10; ++i) {
    std::string const name = (i < 6 ? "node-deaf" : "node-stall") + std::to_string(i);
    names.insert(name);
    WireAgent& c = connectAgent(helloFrame(name));
    if (i < 6) continue;
    ASSERT_TRUE(c.serve(SIZE_MAX, 2));  // the root's request and state
    ASSERT_TRUE(c.send(i % 2 ? answer.substr(0, answer.size() - 1) : big));
  }
  for (auto const& name : names)
    EXPECT_TRUE(ledrad_->printed("agent " + name + " served by profile node-", kWait)) << name;
  serveWireAgent("node-1");
  // The faulty clients are still connected, each with the root's mount request unanswered.
  auto const status = control({"status", "--json", "node-deaf5"});
  EXPECT_NE(status.find("\"outstandingRequests\": 1"), std::string::npos) << status;
  Usage const during = usage();
  EXPECT_LE(during.fds, base.fds + clients_.size());
  EXPECT_LE(during.rssKiB, base.rssKiB + kGrowth) << during.rssKiB;
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(closeReason(clients_[i]->fd()),
              std::optional<std::string>("no hello within 0.5 seconds"));
  EXPECT_TRUE(startsWith(control({"status", "node-stall6"}), "ok\n"));
  clients_.clear();
  awaitDisconnected(names);
  expectBackTo(base);
}

// (c) 2,000 connections (800 in the sanitizer build) opened and dropped in 50 rounds, held open
// together within a round: to the agent socket (nothing, a hello, half a hello, a hello and half
// an answer, or bytes that are no frame) or to the control socket (nothing, half a request, a
// whole request whose reply is not read, or a whole exchange). (d) In each round an agent killed
// at a seeded point: a wire agent that drops its connection after k frames received (now and
// then half-way through its next answer), every tenth time a ledra-agent SIGKILLed after k
// mounts. After each round ledrad has let them all go (the control status no longer knows the
// agent) and serves the next agent to its end; at the end it holds nothing of them.
TEST_F(FaultInjection, ConnectionsDroppedAndAgentsKilledAtSeededPointsLeaveNothingBehind) {
  Usage const base = warmLedrad();
  std::mt19937 rng(1114);
  // Every frame of a whole serving: a request per mount, and a state for each entity there.
  constexpr std::size_t kFrames = 2 * kNodeMounts - 1;
  long peak = 0;
  for (int round = 0; round < 50; ++round) {
    std::vector<int> fds;
    std::set<std::string> named;
    for (int i = 0; i < kConnectionsPerRound; ++i) {
      bool const agent = i % 3 != 0;
      fds.push_back(Ledrad::connectUnixSocket(path(agent ? "agents.sock" : "ctl.sock")));
      std::string const name = "node-c" + std::to_string(round * 100 + i);
      std::string const hello = helloFrame(name);
      std::string bytes = agent ? "" : "status\n";
      switch (rng() % (agent ? 5 : 4)) {
        case 0:
          bytes.clear();
          break;
        case 1:
          bytes = agent ? hello : bytes.substr(0, 3);
          if (agent) named.insert(name);
          break;
        case 2:
          if (agent) bytes = hello.substr(0, rng() % hello.size());
          break;
        case 3:
          if (!agent) {
            (void)::send(fds.back(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            hungUp(fds.back());
            continue;
          }
          bytes = hello + WireAgent::answerFrame(1, "/ftest/Ledra").substr(0, 9);
          named.insert(name);
          break;
        default:
          bytes = "GET / HTTP/1.0\r\n\r\n";
          break;
      }
      (void)::send(fds.back(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    std::string const victim = "node-k" + std::to_string(round);
    if (round % 10 == 9) {
      // ledra-agent prints "connected as" before its hello: killed then, it may never say hello.
      std::size_t const k = 1 + rng() % kNodeMounts;
      ChildProcess& a = agent(victim);
      ASSERT_TRUE(a.waitForLine("connected as " + victim, kWait)) << a.output();
      for (std::size_t i = 0; i < k; ++i)
        ASSERT_TRUE(a.waitForLine([](auto const& l) { return startsWith(l, "mount "); }, kWait));
      a.signal(SIGKILL);
      EXPECT_EQ(a.waitExit(kWait), std::optional<int>(128 + SIGKILL));
      named.insert(victim);
    } else if (std::size_t const k = rng() % (kFrames + 2); k > 0) {
      WireAgent a(path("agents.sock"));
      ASSERT_TRUE(a.hello(victim));
      // Past the last frame: served to the end, then dropped.
      EXPECT_TRUE(a.serve(k > kFrames ? kNodeMounts : SIZE_MAX, k)) << round;
      std::string const answer = a.answerFrame(static_cast<Qel::U32>(k), "/ftest/Ledra/a");
      if (rng() % 3 == 0) (void)a.send(answer.substr(0, rng() % answer.size()));
      named.insert(victim);
    }
    peak = std::max(peak, usage().rssKiB);
    for (int fd : fds)
      ::close(fd);
    awaitDisconnected(named);
    if (named.count(victim) != 0) {
      // Its engine is gone; status shows what it was left at, and why.
      std::string const shown = control({"status", victim});
      EXPECT_TRUE(shown.starts_with("ok\n") && shown.find(" departed") != std::string::npos &&
                  shown.find("  connection       closed ") != std::string::npos)
          << shown;
    }
    serveWireAgent("node-g" + std::to_string(round));
  }
  EXPECT_LE(peak, base.rssKiB + kGrowth);
  expectBackTo(base);
}

// (e) SIGTERM while agents are being served: held mid-mount, stalled mid-frame, not reading, or
// being served. ledrad closes every connection at once (the agents read "database shutting
// down"), removes both socket files and exits 0 promptly.
TEST_F(FaultInjection, SigtermWhileAgentsAreServedStopsPromptlyAndRemovesTheSockets) {
  warmLedrad();
  std::vector<ChildProcess*> agents;
  for (int i = 0; i < 2; ++i) {
    agents.push_back(&agent("node-held" + std::to_string(i), {"--hold", "/ftest/Ledra/b"}));
    EXPECT_TRUE(agents.back()->waitForLine("mount 5 /ftest/Ledra/b flags=Cnp type=", kWait))
        << agents.back()->output();
  }
  connectAgent(helloFrame("node-stalled") + std::string("\x00\x00\x01\x00\x04", 5));
  connectAgent(helloFrame("node-deaf"));
  connectAgent("");
  EXPECT_TRUE(ledrad_->printed("agent node-deaf served by profile node-", kWait));
  // Agents answering a mount as ledrad goes find their connection closed before they have read
  // the Close; they read it still, and are let go the same way.
  for (int i = 0; i < 3; ++i) {
    agents.push_back(&agent("node-busy" + std::to_string(i)));
    EXPECT_TRUE(ledrad_->printed("agent node-busy" + std::to_string(i) + " served by profile node-",
                                 kWait));
  }

  auto const start = Clock::now();
  ledrad_->signal(SIGTERM);
  auto const status = ledrad_->waitExit(kWait);
  double const took = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_EQ(status, std::optional<int>(0)) << stderrText();
  EXPECT_EQ(ledrad_->lines().back(), "ledrad: stopped");
  // Closing every connection takes one turn of the loop; ledrad would give up waiting at 2 s.
  EXPECT_LT(took, kStopWithin);
  EXPECT_FALSE(fs::exists(path("agents.sock")));
  EXPECT_FALSE(fs::exists(path("ctl.sock")));
  for (ChildProcess* a : agents) {
    EXPECT_TRUE(a->printed("closed: database shutting down", kWait)) << a->output();
    EXPECT_EQ(a->waitExit(kWait), std::optional<int>(0));
  }
  for (auto const& c : clients_)
    EXPECT_TRUE(hungUp(c->fd()));
}

}  // namespace
