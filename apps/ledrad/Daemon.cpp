#include "apps/ledrad/Daemon.h"

#include <malloc.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>

#include "Ledra/AgentListener.h"
#include "Qel/Core/Exception.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/NboAttrLog/DemuxerMgr.h"
#include "Trace/Facilities.h"
#include "apps/ledrad/AgentEvents.h"
#include "apps/ledrad/ControlCommands.h"
#include "apps/ledrad/ControlServer.h"
#include "apps/ledrad/CrashDump.h"
#include "apps/ledrad/Database.h"
#include "apps/ledrad/FileError.h"
#include "apps/ledrad/WatchFeed.h"

namespace Ledrad {

namespace fs = std::filesystem;

namespace {

void say(std::FILE* f, std::string const& line) {
  std::fputs((line + "\n").c_str(), f);
  std::fflush(f);
}

// The folder of a default socket path under /tmp is made private to the user.
void makeSocketFolder(std::string const& socketPath) {
  fs::path const dir = fs::path(socketPath).parent_path();
  if (dir.empty()) return;
  std::error_code ec;
  if (fs::is_directory(dir, ec)) return;
  fs::create_directories(dir, ec);
  ::chmod(dir.c_str(), 0700);
}

// SIGTERM and SIGINT arrive as readable data on a descriptor the loop watches.
class SignalWatch {
 public:
  SignalWatch(Qel::EventLoop::Ptr loop, std::FILE* out) : loop_(std::move(loop)) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    fd_ = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    loop_->watch(fd_, Qel::EventLoop::readable, [this, out](unsigned) {
      signalfd_siginfo info{};
      while (::read(fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        say(out, std::string("ledrad: stopping on ") +
                     (info.ssi_signo == SIGINT ? "SIGINT" : "SIGTERM"));
        loop_->stop();
      }
    });
  }
  ~SignalWatch() {
    loop_->unwatch(fd_);
    ::close(fd_);
  }

 private:
  Qel::EventLoop::Ptr loop_;
  int fd_ = -1;
};

// Memory freed in the middle of malloc's heap stays resident: after agents with large frames or
// much unread output have gone, ledrad would keep megabytes for good. Once a second, when the
// heap holds at least kFreeToTrim free bytes, they go back to the system (glibc's malloc_trim
// releases free pages inside the heap too, not only at its top).
class HeapTrim : public Qel::Clock::Notifiee {
 public:
  static constexpr Qel::Time kInterval = 1.0;
  static constexpr std::size_t kFreeToTrim = std::size_t(1) << 20;

  explicit HeapTrim(Qel::Clock::Ptr const& clock) {
    notifierIs(clock);
    timeMinIs(clock->now() + kInterval);
  }
  void onTime() override {
    if (::mallinfo2().fordblks >= kFreeToTrim) ::malloc_trim(0);
    timeMinIs(notifier()->now() + kInterval);
  }
};

// What loading the folders found.
struct LoadResult {
  std::size_t files = 0;
  std::size_t refusedFiles = 0;
  std::size_t problems = 0;
};

// Loads every *.state file and then every *.profile file, in name order, as a start does. Both
// folders are listed before anything is loaded. Each file is applied only when it is wholly
// valid, and a refused file does not stop the others, so one pass tells every problem: each as
// "<file>:<line>: <reason>" on `err`, each loaded file on `out`.
LoadResult loadFolders(Database& db, Options const& o, std::FILE* out, std::FILE* err) {
  LoadResult result;
  std::vector<std::string> state;
  std::vector<std::string> profiles;
  try {
    state = configFilesIn(o.state, ".state");
    profiles = configFilesIn(o.profiles, ".profile");
  } catch (std::exception const& e) {
    say(err, std::string("ledrad: ") + e.what());
    result.problems = 1;
    return result;
  }
  auto load = [&](std::string const& file, bool isProfile) {
    ++result.files;
    try {
      for (auto const& line : isProfile ? db.loadProfiles({file}) : db.loadState({file}))
        say(out, std::string("ledrad: loaded ") + (isProfile ? "profiles " : "state ") + line);
      if (isProfile) {
        for (auto const& warning : db.loadWarnings())
          say(err, warning);
      }
      return;
    } catch (FileError const& e) {
      for (auto const& text : e.texts())
        say(err, text);
      result.problems += e.problems().size();
    } catch (std::exception const& e) {
      say(err, file + ": " + e.what());
      ++result.problems;
    }
    ++result.refusedFiles;
  };
  for (auto const& file : state)
    load(file, false);
  for (auto const& file : profiles)
    load(file, true);
  return result;
}

}  // namespace

std::vector<std::string> configFilesIn(std::string const& dir, std::string const& suffix) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) throw std::runtime_error("no folder " + dir);
  std::vector<std::string> files;
  for (auto const& entry : fs::directory_iterator(dir, ec)) {
    std::string const name = entry.path().filename().string();
    if (name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
      continue;
    if (!entry.is_regular_file(ec)) continue;
    files.push_back(entry.path().string());
  }
  if (ec) throw std::runtime_error("cannot read folder " + dir + ": " + ec.message());
  std::sort(files.begin(), files.end());
  return files;
}

int runDaemon(Options const& o, std::FILE* out, std::FILE* err) {
  if (!o.trace.empty()) {
    auto const result = Trace::Facilities::instance().levelsAre(o.trace);
    for (auto const& e : result.errors)
      say(err, "ledrad: --trace: " + e);
    for (auto const& name : result.unknownNames)
      say(err, "ledrad: --trace: no facility " + name);
  }
  if (o.profiles.empty() || o.state.empty()) {
    say(err, "ledrad: the bundled examples were not found; give --profiles DIR and --state DIR");
    return 1;
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<Database> db;
  LoadResult loaded;
  try {
    db = std::make_unique<Database>(Database::Config{o.systemName, o.cell});
    loaded = loadFolders(*db, o, out, err);
  } catch (std::exception const& e) {
    say(err, std::string("ledrad: ") + e.what());
    loaded.problems = 1;
  }
  if (o.check) {
    if (loaded.problems == 0) {
      say(out, "ledrad: check passed: " + plural(loaded.files, "file") + " without a problem");
      return 0;
    }
    std::string const where = loaded.files == 0 ? std::string()
                                                : " in " + std::to_string(loaded.refusedFiles) +
                                                      " of " + plural(loaded.files, "file");
    say(err, "ledrad: check failed: " + plural(loaded.problems, "problem") + where);
    return 1;
  }
  if (loaded.problems != 0) {
    say(err, "ledrad: not started");
    return 1;
  }

  Qel::EventLoop::Ptr const loop = Qel::EventLoop::eventLoopNew();
  auto print = [out](std::string const& line) { say(out, line); };
  Metrics metrics;
  auto events = std::make_unique<AgentEvents>(
      db->root(), print, &metrics, [&db](std::string const& agent, std::string const& reason) {
        db->agentClosed(agent, reason);
      });
  ControlCommands commands(
      *db, [out](std::string const& line) { say(out, "ledrad: " + line); }, &metrics);
  Ledra::AgentListener::Ptr listener;
  std::unique_ptr<ControlServer> control;
  try {
    makeSocketFolder(o.socket);
    makeSocketFolder(o.controlSocket);
    listener = Ledra::AgentListener::agentListenerNew(loop, o.socket);
    listener->maxFrameIs(o.bounds.maxFrame);
    listener->helloTimeoutIs(o.bounds.helloTimeout);
    listener->maxAgentNameIs(o.bounds.maxAgentName);
    listener->maxOutputIs(o.bounds.maxAgentOutput);
    listener->maxOutputTotalIs(o.bounds.maxTotalOutput);
    listener->maxRememberedNamesIs(o.bounds.maxRememberedAgents);
    control = std::make_unique<ControlServer>(
        loop, o.controlSocket,
        [&commands](std::vector<std::string> const& request) { return commands.execute(request); },
        o.bounds.control);
  } catch (std::exception const& e) {
    say(err, std::string("ledrad: ") + e.what());
    return 1;
  }
  dumpTraceRingOnFatalError((fs::path(o.controlSocket).parent_path() /
                             ("ledrad-" + std::to_string(::getpid()) + ".ringlog"))
                                .string());
  // The records of `watch` subscriptions go to the control socket's watchers.
  auto feed = std::make_unique<WatchFeed>(
      loop, *db,
      [&control](std::string const& agent, std::string const& line) {
        control->publish(agent, line);
      },
      [&control] { return control->watchers() > 0; });
  commands.watchFeedIs(feed.get());
  auto signals = std::make_unique<SignalWatch>(loop, out);
  HeapTrim const trim(loop->clock());
  say(out, "ledrad: ready: system " + o.systemName + ", cell " + std::to_string(o.cell) +
               ", root /" + o.systemName + "/Ledra, agents on " + o.socket + ", control on " +
               o.controlSocket);
  loop->run();

  commands.watchFeedIs(nullptr);
  feed.reset();
  control.reset();
  listener.reset();
  // The closed connections go away on later turns of the loop.
  loop->runUntil([] { return Qel::NboAttrLog::demuxerMgr()->demuxers() == 0; },
                 loop->clock()->now() + 2.0);
  signals.reset();
  events.reset();
  db.reset();
  say(out, "ledrad: stopped");
  return 0;
}

}  // namespace Ledrad
