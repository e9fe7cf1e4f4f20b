// ledrad_load: what ledrad costs to serve agent processes over its Unix socket, against a raw
// baseline that moves the same messages through plain socket writes, in the same run.
//
//   ledrad_load [--agents N] [--paths P] [--groups G] [--repetitions R] [--ledrad PATH]
//               [--agent PATH] [--timeout SECONDS] [--keep]
//
// Files. A temporary folder gets one state file and one profile file: a family profile "load-"
// of G groups (priorities 1..G) adding up to P mounts per agent. The lower half of the groups
// mounts entities every agent shares (/ledra/Ledra/load/shared/gI/pJ), the upper half entities
// of the agent's own (/ledra/Ledra/load/agent/%id/gI/pJ, %id cut from the agent's name load-ID).
// The state file creates all of them: Load::Item entities with a number and a short label.
//
// One run. The real ledrad starts on those folders; once it prints "ledrad: ready" its VmRSS is
// read, the clock starts and N ledra-agent processes (load-0 .. load-N-1) start and connect. The
// run ends when ledrad has printed "All mounts complete for " for every agent. Measured: ledrad's
// CPU (utime + stime of /proc/PID/stat, both at 1/CLK_TCK resolution), the wall time, ledrad's
// context switches, its RSS growth per mounted path (N x P paths) and, after ledrad stops and the
// agents leave, the agents' CPU together (their whole lives).
//
// Baseline of the same run. Each agent prints every request it gets; from those lines and from
// the files written, the messages of every connection are rebuilt at their exact sizes: the
// hello, each mount request, the entity state that follows it and the agent's answer (a
// directory's state lists the entries the files made; the database root's other entries are not
// counted). Two processes then move them over N socket pairs: the "database" side writes its
// messages with one send per message, pipelined without waiting for answers, and reads the
// answers; the "agent" side reads, and answers each request once its state is in, one send per
// answer. The baseline's CPU is the database side's (its rusage), its wall the time until both
// sides are done.
//
// Printed: each run's figures and the ratios ledrad / baseline (CPU, wall); with
// --repetitions R the medians of the R runs follow. The exit status is 0, or 1 when a run fails
// (ledrad does not start, an agent is not served within --timeout seconds).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Qel/Mount/MountTable.h"
#include "Qel/NboAttrLog/WireMessage.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
namespace Wire = Qel::NboAttrLog;
using Clock = std::chrono::steady_clock;

struct Options {
  unsigned agents = 100;
  unsigned paths = 1000;
  unsigned groups = 10;
  unsigned repetitions = 1;
  std::string ledrad = LEDRAD_PATH;
  std::string agent = LEDRA_AGENT_PATH;
  double timeout = 600;
  bool keep = false;
};

char const* const kUsage =
    "usage: ledrad_load [--agents N] [--paths P] [--groups G] [--repetitions R]\n"
    "                   [--ledrad PATH] [--agent PATH] [--timeout SECONDS] [--keep]\n"
    "Serves N ledra-agent processes P paths each (G groups, half shared, half per agent) from\n"
    "ledrad and reports ledrad's CPU, wall time and RSS per path against a baseline that moves\n"
    "the same messages through plain Unix socket writes. Defaults: 100 agents, 1000 paths, 10\n"
    "groups, 1 repetition, the ledrad and ledra-agent of this build, a 600 s timeout.\n";

class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

unsigned positive(std::string const& option, std::string const& text) {
  std::size_t used = 0;
  unsigned long value = 0;
  try {
    value = std::stoul(text, &used);
  } catch (std::exception const&) {
    used = 0;
  }
  if (used != text.size() || value == 0 || value > 1000000) {
    throw Failure(option + " takes a whole number from 1 to 1000000, not '" + text + "'");
  }
  return static_cast<unsigned>(value);
}

Options parseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--help") {
      std::cout << kUsage;
      std::exit(0);
    }
    if (arg == "--keep") {
      o.keep = true;
      continue;
    }
    if (i + 1 >= argc) throw Failure("unknown option or missing value: " + arg);
    std::string const value = argv[++i];
    if (arg == "--agents") {
      o.agents = positive(arg, value);
    } else if (arg == "--paths") {
      o.paths = positive(arg, value);
    } else if (arg == "--groups") {
      o.groups = positive(arg, value);
    } else if (arg == "--repetitions") {
      o.repetitions = positive(arg, value);
    } else if (arg == "--timeout") {
      o.timeout = positive(arg, value);
    } else if (arg == "--ledrad") {
      o.ledrad = value;
    } else if (arg == "--agent") {
      o.agent = value;
    } else {
      throw Failure("unknown option " + arg);
    }
  }
  if (o.groups > o.paths) throw Failure("--groups may not exceed --paths");
  return o;
}

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// ---------------------------------------------------------------------------------------------
// The files, and the entities they create as the agents receive them.

constexpr char const* kRoot = "/ledra/Ledra";
constexpr char const* kItemType = "Load::Item";

// What stands at a path the files make: an item with its attribute values, or a directory.
struct Made {
  bool directory = false;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::set<std::string> entries;
};

class Workload {
 public:
  explicit Workload(Options const& o) : o_(o) {
    made_[kRoot].directory = true;
    for (unsigned g = 0; g < o.groups; ++g) {
      for (unsigned p = 0; p < pathsOf(g); ++p) {
        if (shared(g)) {
          item(itemPath("shared", g, p), g, p);
          continue;
        }
        for (unsigned a = 0; a < o.agents; ++a)
          item(itemPath("agent/" + std::to_string(a), g, p), g, p);
      }
    }
  }

  // Writes state/load.state and profiles/load.profile under `dir`.
  void write(fs::path const& dir) const {
    fs::create_directories(dir / "state");
    fs::create_directories(dir / "profiles");
    std::ofstream state(dir / "state" / "load.state");
    state << "# Generated by ledrad_load.\n\ntype " << kItemType
          << "\n  attribute value U32\n  attribute label string\n\n";
    for (auto const& [path, made] : made_) {
      if (made.directory) continue;
      state << "entity /%sysname" << path.substr(std::strlen("/ledra")) << ' ' << kItemType
            << "\n  set value " << made.attributes[0].second << "\n  set label \""
            << made.attributes[1].second << "\"\n";
    }
    std::ofstream profile(dir / "profiles" / "load.profile");
    profile << "# Generated by ledrad_load.\n\nprofile load-\n  templateKey 1 %id\n";
    for (unsigned g = 0; g < o_.groups; ++g) {
      profile << "\n  group g" << g << ' ' << (g % 99) + 1 << '\n';
      for (unsigned p = 0; p < pathsOf(g); ++p) {
        std::string const path = itemPath(shared(g) ? "shared" : "agent/%id", g, p);
        profile << "    mount /%sysname" << path.substr(std::strlen("/ledra")) << ' ' << kItemType
                << '\n';
      }
    }
    if (!state || !profile) throw Failure("cannot write the files in " + dir.string());
  }

  // The entity state frame's size for `path` (as sent with request `seqno`); 0 when the files
  // made nothing there.
  std::size_t stateFrameBytes(std::string const& path, Qel::U32 seqno) const {
    auto const it = made_.find(path);
    if (it == made_.end()) return 0;
    Wire::WireEntityState s;
    s.seqno = seqno;
    s.path = path;
    s.typeName = it->second.directory ? "Qel::Dir" : kItemType;
    s.directory = it->second.directory;
    s.attributes.assign(it->second.attributes.begin(), it->second.attributes.end());
    s.entries.assign(it->second.entries.begin(), it->second.entries.end());
    return Wire::wireFrame(s).size();
  }

 private:
  bool shared(unsigned g) const { return g < o_.groups / 2; }
  unsigned pathsOf(unsigned g) const {
    return o_.paths / o_.groups + (g < o_.paths % o_.groups ? 1u : 0u);
  }
  static std::string itemPath(std::string const& owner, unsigned g, unsigned p) {
    return std::string(kRoot) + "/load/" + owner + "/g" + std::to_string(g) + "/p" +
           std::to_string(p);
  }
  void item(std::string const& path, unsigned g, unsigned p) {
    Made& m = made_[path];
    m.attributes = {{"value", std::to_string(p)},
                    {"label", "item " + std::to_string(g) + "." + std::to_string(p)}};
    // The directories above it, each listing its entry.
    std::string child = path;
    while (child != kRoot) {
      std::size_t const slash = child.rfind('/');
      std::string const parent = child.substr(0, slash);
      Made& dir = made_[parent];
      dir.directory = true;
      dir.entries.insert(child.substr(slash + 1));
      child = parent;
    }
  }

  Options const& o_;
  std::map<std::string, Made> made_;
};

// ---------------------------------------------------------------------------------------------
// Processes.

pid_t spawn(std::vector<std::string> const& args, posix_spawn_file_actions_t const* actions) {
  std::vector<char*> argv;
  for (auto const& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int const rc = ::posix_spawn(&pid, argv[0], actions, nullptr, argv.data(), environ);
  if (rc != 0) throw Failure("cannot start " + args[0] + ": " + std::strerror(rc));
  return pid;
}

// CPU time of a live process in seconds (utime + stime).
double processCpu(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t const close = text.rfind(')');
  if (close == std::string::npos) throw Failure("cannot read /proc/" + std::to_string(pid));
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  unsigned long utime = 0;
  unsigned long stime = 0;
  // Fields from the third (state) on: utime is the 14th, stime the 15th.
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoul(field);
    if (i == 15) stime = std::stoul(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// A "Name: value" line of /proc/PID/status, as a number (VmRSS in kB).
unsigned long statusValue(pid_t pid, std::string const& name) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(name + ":", 0) == 0) return std::stoul(line.substr(name.size() + 1));
  }
  throw Failure("no " + name + " in /proc/" + std::to_string(pid) + "/status");
}

double rusageCpu(rusage const& u) {
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// ledrad's standard output, read line by line.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  // The next line; false at the end of the stream or once `deadline` passes.
  bool next(std::string& line, Clock::time_point deadline) {
    for (;;) {
      std::size_t const nl = buffer_.find('\n');
      if (nl != std::string::npos) {
        line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return true;
      }
      auto const left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return false;
      pollfd p{fd_, POLLIN, 0};
      int const rc = ::poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 1000)));
      if (rc < 0 && errno == EINTR) continue;
      if (rc <= 0) continue;
      char buf[4096];
      ssize_t const n = ::read(fd_, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      buffer_.append(buf, static_cast<std::size_t>(n));
    }
  }

 private:
  int fd_;
  std::string buffer_;
};

// ---------------------------------------------------------------------------------------------
// The baseline.

// The messages of one connection, as frame sizes in the order they are written.
struct Connection {
  std::vector<std::uint32_t> out;      // the database's
  std::vector<std::uint32_t> in;       // the agent's
  std::vector<std::uint64_t> inAfter;  // in[i] is written once this many bytes of out are in
  std::uint64_t outBytes = 0;
  std::uint64_t inBytes = 0;
};

// The messages of agent `name` from what it printed: "mount SEQNO PATH flags=LETTERS type=TYPE".
Connection rebuild(std::string const& name, fs::path const& output, Workload const& w,
                   std::size_t& unknownPaths) {
  Connection c;
  auto addIn = [&c](std::string const& frame) {
    c.in.push_back(static_cast<std::uint32_t>(frame.size()));
    c.inAfter.push_back(c.outBytes);
    c.inBytes += frame.size();
  };
  auto addOut = [&c](std::size_t bytes) {
    c.out.push_back(static_cast<std::uint32_t>(bytes));
    c.outBytes += bytes;
  };
  addIn(Wire::wireFrame(Wire::WireHello{Qel::MountTable::kProtocolVersion, name, name}));
  std::ifstream in(output);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("mount ", 0) != 0) continue;
    std::istringstream words(line.substr(6));
    std::string seqno;
    std::string path;
    std::string flags;
    std::string type;
    words >> seqno >> path >> flags >> type;
    if (flags.rfind("flags=", 0) != 0 || type.rfind("type=", 0) != 0) {
      throw Failure(output.string() + ": cannot read '" + line + "'");
    }
    auto const n = static_cast<Qel::U32>(std::stoul(seqno));
    std::size_t const state = w.stateFrameBytes(path, n);
    if (state == 0) ++unknownPaths;
    addOut(
        Wire::wireFrame(Wire::WireMountRequest{n, path + "?" + flags, type.substr(5), state != 0})
            .size());
    if (state != 0) addOut(state);
    addIn(Wire::wireFrame(
        Wire::WireMountAnswer{n, path, true, {}, Wire::WireMountAnswer::kDefaultPathState, 0}));
  }
  return c;
}

void nonBlocking(int fd) {
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
}

// One side of the baseline: writes `mine` (frame sizes, each with one send, the i-th once
// `after[i]` bytes of the other side's messages are in) and reads `theirs` bytes, on every
// connection; returns when all is written and read.
struct Side {
  struct Conn {
    int fd;
    std::vector<std::uint32_t> const* mine;
    std::vector<std::uint64_t> const* after;  // null: write at once
    std::uint64_t theirs;
    std::size_t next = 0;
    std::uint32_t offset = 0;  // of mine[next] written
    std::uint64_t got = 0;
    bool watchingOut = false;
  };

  std::vector<Conn> conns;

  void run() {
    std::uint32_t largest = 1;
    for (auto const& c : conns) {
      for (std::uint32_t s : *c.mine)
        largest = std::max(largest, s);
    }
    std::vector<char> const zeros(largest);
    int const ep = ::epoll_create1(EPOLL_CLOEXEC);
    std::size_t open = conns.size();
    for (std::size_t i = 0; i < conns.size(); ++i) {
      nonBlocking(conns[i].fd);
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = i;
      ::epoll_ctl(ep, EPOLL_CTL_ADD, conns[i].fd, &ev);
      write(ep, i, zeros);
      if (done(conns[i])) --open;
    }
    char buf[64 * 1024];
    epoll_event events[64];
    while (open > 0) {
      int const n = ::epoll_wait(ep, events, 64, -1);
      for (int e = 0; e < n; ++e) {
        std::size_t const i = events[e].data.u64;
        Conn& c = conns[i];
        bool const wasDone = done(c);
        if (events[e].events & EPOLLIN) {
          for (;;) {
            ssize_t const r = ::read(c.fd, buf, sizeof buf);
            if (r <= 0) break;
            c.got += static_cast<std::uint64_t>(r);
          }
        }
        write(ep, i, zeros);
        if (!wasDone && done(c)) --open;
      }
    }
    ::close(ep);
  }

  static bool done(Conn const& c) { return c.next == c.mine->size() && c.got == c.theirs; }

  void write(int ep, std::size_t i, std::vector<char> const& zeros) {
    Conn& c = conns[i];
    while (c.next < c.mine->size() && (!c.after || (*c.after)[c.next] <= c.got)) {
      std::uint32_t const size = (*c.mine)[c.next];
      ssize_t const n = ::send(c.fd, zeros.data(), size - c.offset, MSG_NOSIGNAL);
      if (n < 0) break;  // the socket is full: wait until it is writable
      c.offset += static_cast<std::uint32_t>(n);
      if (c.offset < size) break;
      c.offset = 0;
      ++c.next;
    }
    // Part of a message written, or the next one due and refused: wait for room.
    bool const wantOut =
        c.next < c.mine->size() && (c.offset > 0 || !c.after || (*c.after)[c.next] <= c.got);
    if (wantOut == c.watchingOut) return;
    c.watchingOut = wantOut;
    epoll_event ev{};
    ev.events = EPOLLIN | (wantOut ? EPOLLOUT : 0u);
    ev.data.u64 = i;
    ::epoll_ctl(ep, EPOLL_CTL_MOD, c.fd, &ev);
  }
};

struct BaselineFigures {
  double cpu = 0;
  double agentCpu = 0;
  double wall = 0;
};

BaselineFigures baseline(std::vector<Connection> const& conns) {
  std::vector<int> dbEnds;
  std::vector<int> agentEnds;
  for (std::size_t i = 0; i < conns.size(); ++i) {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
      throw Failure(std::string("socketpair: ") + std::strerror(errno));
    }
    dbEnds.push_back(sv[0]);
    agentEnds.push_back(sv[1]);
  }
  int go[2];
  if (::pipe(go) != 0) throw Failure(std::string("pipe: ") + std::strerror(errno));
  auto start = [&](bool database) {
    pid_t const pid = ::fork();
    if (pid != 0) return pid;
    ::close(go[1]);
    char byte;
    while (::read(go[0], &byte, 1) < 0 && errno == EINTR) {
    }
    Side side;
    for (std::size_t i = 0; i < conns.size(); ++i) {
      Connection const& c = conns[i];
      if (database) {
        side.conns.push_back({dbEnds[i], &c.out, nullptr, c.inBytes});
      } else {
        side.conns.push_back({agentEnds[i], &c.in, &c.inAfter, c.outBytes});
      }
    }
    side.run();
    ::_exit(0);
  };
  pid_t const db = start(true);
  pid_t const agents = start(false);
  for (std::size_t i = 0; i < conns.size(); ++i) {
    ::close(dbEnds[i]);
    ::close(agentEnds[i]);
  }
  ::close(go[0]);
  auto const t0 = Clock::now();
  ::close(go[1]);
  BaselineFigures f;
  for (pid_t pid : {db, agents}) {
    int status = 0;
    rusage u{};
    while (::wait4(pid, &status, 0, &u) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw Failure("the baseline failed");
    (pid == db ? f.cpu : f.agentCpu) = rusageCpu(u);
  }
  f.wall = seconds(Clock::now() - t0);
  return f;
}

// ---------------------------------------------------------------------------------------------
// One run.

struct Figures {
  double cpu = 0;
  double wall = 0;
  double rssPerPath = 0;
  double switches = 0;
  double agentCpu = 0;
  double baseCpu = 0;
  double baseWall = 0;
  double cpuRatio = 0;
  double wallRatio = 0;
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
};

class Run {
 public:
  Run(Options const& o, Workload const& w, fs::path const& dir) : o_(o), w_(w), dir_(dir) {}
  ~Run() { stop(); }

  Figures measure() {
    startLedrad();
    unsigned long const rssBefore = statusValue(ledrad_, "VmRSS");
    double const cpuBefore = processCpu(ledrad_);
    double const switchesBefore = switches();
    auto const t0 = Clock::now();
    startAgents();
    waitForCompletion(t0 + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(o_.timeout)));
    Figures f;
    f.wall = seconds(Clock::now() - t0);
    f.cpu = processCpu(ledrad_) - cpuBefore;
    f.switches = switches() - switchesBefore;
    unsigned long const rssAfter = statusValue(ledrad_, "VmRSS");
    f.rssPerPath = (static_cast<double>(rssAfter) - static_cast<double>(rssBefore)) * 1024.0 /
                   (static_cast<double>(o_.agents) * o_.paths);
    f.agentCpu = stop();

    std::vector<Connection> conns;
    std::size_t unknown = 0;
    for (unsigned a = 0; a < o_.agents; ++a) {
      std::string const name = "load-" + std::to_string(a);
      conns.push_back(rebuild(name, dir_ / "agents" / (name + ".out"), w_, unknown));
      f.messages += conns.back().out.size() + conns.back().in.size();
      f.bytes += conns.back().outBytes + conns.back().inBytes;
    }
    if (unknown > o_.agents) {
      std::cerr << "ledrad_load: " << unknown << " requests name paths the files did not make\n";
    }
    BaselineFigures const b = baseline(conns);
    f.baseCpu = b.cpu;
    f.baseWall = b.wall;
    f.cpuRatio = b.cpu > 0 ? f.cpu / b.cpu : 0;
    f.wallRatio = b.wall > 0 ? f.wall / b.wall : 0;
    return f;
  }

 private:
  void startLedrad() {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw Failure(std::string("pipe: ") + std::strerror(errno));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string const err = (dir_ / "ledrad.err").string();
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    ledrad_ = spawn({o_.ledrad, "--socket", (dir_ / "agents.sock").string(), "--control-socket",
                     (dir_ / "control.sock").string(), "--profiles", (dir_ / "profiles").string(),
                     "--state", (dir_ / "state").string()},
                    &actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    out_ = out[0];
    reader_ = std::make_unique<LineReader>(out_);
    std::string line;
    auto const deadline = Clock::now() + std::chrono::seconds(120);
    while (reader_->next(line, deadline)) {
      if (line.rfind("ledrad: ready", 0) == 0) return;
    }
    throw Failure("ledrad did not get ready (see " + err + ")");
  }

  void startAgents() {
    fs::create_directories(dir_ / "agents");
    std::string const socket = (dir_ / "agents.sock").string();
    for (unsigned a = 0; a < o_.agents; ++a) {
      std::string const name = "load-" + std::to_string(a);
      std::string const output = (dir_ / "agents" / (name + ".out")).string();
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0644);
      posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
      agents_.push_back(spawn({o_.agent, "--socket", socket, "--name", name}, &actions));
      posix_spawn_file_actions_destroy(&actions);
    }
  }

  void waitForCompletion(Clock::time_point deadline) {
    std::set<std::string> complete;
    std::string const prefix = "All mounts complete for ";
    std::string line;
    while (complete.size() < o_.agents) {
      if (!reader_->next(line, deadline)) {
        throw Failure("only " + std::to_string(complete.size()) + " of " +
                      std::to_string(o_.agents) + " agents were served in time");
      }
      if (line.rfind(prefix, 0) == 0) complete.insert(line.substr(prefix.size()));
    }
  }

  double switches() const {
    return static_cast<double>(statusValue(ledrad_, "voluntary_ctxt_switches") +
                               statusValue(ledrad_, "nonvoluntary_ctxt_switches"));
  }

  // Stops ledrad (its agents are told and leave); returns the agents' CPU.
  double stop() {
    double agentCpu = 0;
    if (ledrad_ > 0) {
      ::kill(ledrad_, SIGTERM);
      // Its output ends when it exits; one that does not within 30 s is killed.
      std::string line;
      auto const deadline = Clock::now() + std::chrono::seconds(30);
      while (reader_->next(line, deadline)) {
      }
      if (::waitpid(ledrad_, nullptr, WNOHANG) == 0) {
        ::kill(ledrad_, SIGKILL);
        ::waitpid(ledrad_, nullptr, 0);
      }
      ledrad_ = -1;
    }
    for (pid_t pid : agents_) {
      rusage u{};
      if (::wait4(pid, nullptr, WNOHANG, &u) == 0) {
        ::kill(pid, SIGTERM);
        ::wait4(pid, nullptr, 0, &u);
      }
      agentCpu += rusageCpu(u);
    }
    agents_.clear();
    if (out_ >= 0) ::close(out_);
    out_ = -1;
    return agentCpu;
  }

  Options const& o_;
  Workload const& w_;
  fs::path const dir_;
  pid_t ledrad_ = -1;
  int out_ = -1;
  std::unique_ptr<LineReader> reader_;
  std::vector<pid_t> agents_;
};

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  std::size_t const n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

void print(std::string const& label, Figures const& f) {
  std::printf(
      "%-8s ledrad cpu %6.3f s  wall %6.3f s  rss %6.0f B/path  ctxsw %7.0f  agents cpu %6.3f s"
      "  | baseline cpu %6.3f s  wall %6.3f s  | cpu %5.2fx  wall %5.2fx\n",
      label.c_str(), f.cpu, f.wall, f.rssPerPath, f.switches, f.agentCpu, f.baseCpu, f.baseWall,
      f.cpuRatio, f.wallRatio);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  Options o;
  try {
    o = parseOptions(argc, argv);
  } catch (Failure const& e) {
    std::cerr << "ledrad_load: " << e.what() << '\n' << kUsage;
    return 2;
  }
  char tmpl[] = "/tmp/ledrad-load-XXXXXX";
  if (!::mkdtemp(tmpl)) {
    std::cerr << "ledrad_load: cannot make a temporary folder: " << std::strerror(errno) << '\n';
    return 1;
  }
  fs::path const dir = tmpl;
  int status = 0;
  try {
    Workload const w(o);
    w.write(dir);
    std::printf("ledrad_load: %u agents x %u paths (%u groups, half shared), %s\n", o.agents,
                o.paths, o.groups, o.ledrad.c_str());
    std::vector<Figures> runs;
    for (unsigned r = 0; r < o.repetitions; ++r) {
      Run run(o, w, dir);
      runs.push_back(run.measure());
      if (r == 0) {
        std::printf("messages: %llu (%llu bytes), the same in the baseline\n",
                    static_cast<unsigned long long>(runs[0].messages),
                    static_cast<unsigned long long>(runs[0].bytes));
      }
      print("run " + std::to_string(r + 1), runs.back());
    }
    if (runs.size() > 1) {
      auto med = [&runs](double Figures::*field) {
        std::vector<double> v;
        for (auto const& f : runs)
          v.push_back(f.*field);
        return median(v);
      };
      Figures m;
      for (double Figures::*field : {&Figures::cpu, &Figures::wall, &Figures::rssPerPath,
                                     &Figures::switches, &Figures::agentCpu, &Figures::baseCpu,
                                     &Figures::baseWall, &Figures::cpuRatio, &Figures::wallRatio})
        m.*field = med(field);
      print("median", m);
    }
  } catch (std::exception const& e) {
    std::cerr << "ledrad_load: " << e.what() << '\n';
    status = 1;
  }
  if (o.keep) {
    std::printf("files kept in %s\n", dir.c_str());
  } else {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  return status;
}
