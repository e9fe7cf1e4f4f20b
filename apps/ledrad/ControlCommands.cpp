#include "apps/ledrad/ControlCommands.h"

#include <exception>
#include <filesystem>

#include "Qel/NboAttrLog/WireText.h"
#include "Trace/Ringlog.h"
#include "apps/ledrad/Daemon.h"
#include "apps/ledrad/ExplainFormat.h"
#include "apps/ledrad/FileError.h"
#include "apps/ledrad/StatusFormat.h"
#include "apps/ledrad/WatchFeed.h"

namespace Ledrad {

namespace {

std::string lines(std::vector<std::string> const& items) {
  std::string out;
  for (auto const& i : items)
    out += i + "\n";
  return out;
}

}  // namespace

std::string ControlCommands::usage() {
  return "commands:\n"
         "  status [--json] [AGENT...]\n"
         "  explain [--json] AGENT\n"
         "  get PATH [ATTRIBUTE | ATTRIBUTE[KEY]]\n"
         "  ls PATH\n"
         "  metrics\n"
         "  set PATH ATTRIBUTE VALUE\n"
         "  trace dump FILE\n"
         "  load-profiles FILE|DIR...\n"
         "  load-state FILE|DIR...\n"
         "  watch [AGENT...]\n";
}

// A control client's words (paths, values, file names) reach the event line: shown on one line.
void ControlCommands::event(std::string const& line) const {
  if (events_) events_(Qel::NboAttrLog::printableText(line));
}

ControlReply ControlCommands::execute(std::vector<std::string> const& request) {
  if (request.empty()) return {false, "empty request\n"};
  std::string const& command = request.front();
  std::vector<std::string> const args(request.begin() + 1, request.end());
  try {
    if (command == "status") return status(args);
    if (command == "explain") return explain(args);
    if (command == "set") return set(args);
    if (command == "get") {
      if (args.empty() || args.size() > 2) return {false, "usage: get PATH [ATTRIBUTE]\n"};
      return {true, db_.get(args[0], args.size() == 2 ? args[1] : std::string())};
    }
    if (command == "metrics") {
      if (!args.empty()) return {false, "usage: metrics\n"};
      if (!metrics_) return {false, "metrics: not counted by this database\n"};
      return {true, metrics_->text()};
    }
    if (command == "ls") {
      if (args.size() != 1) return {false, "usage: ls PATH\n"};
      return {true, db_.ls(args[0])};
    }
    if (command == "trace") return trace(args);
    if (command == "watch") {
      if (!watchFeed_) return {false, "watch: not served by this database\n"};
      return watchFeed_->subscribe(args);
    }
    if (command == "load-profiles") return load(args, true);
    if (command == "load-state") return load(args, false);
    return {false, "unknown command '" + command + "'\n" + usage()};
  } catch (std::exception const& e) {
    return {false, std::string(e.what()) + "\n"};
  }
}

ControlReply ControlCommands::status(std::vector<std::string> const& args) {
  bool json = false;
  std::vector<std::string> only;
  for (auto const& a : args) {
    if (a == "--json") {
      json = true;
      continue;
    }
    if (!a.empty() && a.front() == '-') return {false, "status: unknown option '" + a + "'\n"};
    only.push_back(a);
  }
  StatusReport const report = db_.status(only);
  for (auto const& name : only) {
    bool found = false;
    for (auto const& agent : report.agents)
      found = found || agent.name == name;
    if (!found) return {false, "status: no agent '" + name + "'\n"};
  }
  return {true, json ? statusJson(report) : statusTable(report)};
}

ControlReply ControlCommands::explain(std::vector<std::string> const& args) {
  bool json = false;
  std::vector<std::string> names;
  for (auto const& a : args) {
    if (a == "--json") {
      json = true;
      continue;
    }
    if (!a.empty() && a.front() == '-') return {false, "explain: unknown option '" + a + "'\n"};
    names.push_back(a);
  }
  if (names.size() != 1) {
    return {false, "explain: one agent name expected, " + std::to_string(names.size()) +
                       " given\nusage: explain [--json] AGENT\n"};
  }
  if (names.front().empty()) return {false, "explain: the agent name is empty\n"};
  Explanation const e = Explanation::build(db_, names.front());
  return {true, json ? explainJson(e) : explainTable(e)};
}

ControlReply ControlCommands::set(std::vector<std::string> const& args) {
  if (args.size() != 3) return {false, "usage: set PATH ATTRIBUTE VALUE\n"};
  std::string const done = db_.set(args[0], args[1], args[2]);
  event("set " + done);
  return {true, done + "\n"};
}

ControlReply ControlCommands::trace(std::vector<std::string> const& args) {
  if (args.size() != 2 || args[0] != "dump") return {false, "usage: trace dump FILE\n"};
  std::string const& file = args[1];
  if (file.empty() || file.front() != '/') {
    return {false, "trace dump: '" + file + "' is no absolute path\n"};
  }
  // Never over a file that stands: the dump is written with ledrad's rights.
  std::error_code ec;
  if (std::filesystem::exists(file, ec)) return {false, "trace dump: " + file + " exists\n"};
  Trace::Ringlog::global().dumpTo(file);
  event("trace ring dumped to " + file);
  return {true, "trace ring dumped to " + file + " (read it with ringlog-decode)\n"};
}

ControlReply ControlCommands::load(std::vector<std::string> const& args, bool profiles) {
  char const* what = profiles ? "load-profiles" : "load-state";
  if (args.empty()) return {false, std::string("usage: ") + what + " FILE|DIR...\n"};
  // A folder stands for its files as a start picks them: those named *.profile (or *.state), in
  // name order.
  std::vector<std::string> files;
  std::vector<std::string> done;
  for (auto const& arg : args) {
    std::error_code ec;
    if (!std::filesystem::is_directory(arg, ec)) {
      files.push_back(arg);
      continue;
    }
    try {
      auto const inFolder = configFilesIn(arg, profiles ? ".profile" : ".state");
      if (inFolder.empty())
        done.push_back(arg + ": no " + (profiles ? "*.profile" : "*.state") + " file");
      files.insert(files.end(), inFolder.begin(), inFolder.end());
    } catch (std::exception const& e) {
      event(std::string("refused ") + e.what());
      done.push_back(std::string("refused ") + e.what());
      return {false, lines(done)};
    }
  }
  for (auto const& file : files) {
    try {
      auto const summary = profiles ? db_.loadProfiles({file}) : db_.loadState({file});
      for (auto const& line : summary) {
        event(std::string(profiles ? "loaded profiles " : "loaded state ") + line);
        done.push_back("loaded " + line);
      }
      if (!profiles) continue;
      for (auto const& warning : db_.loadWarnings()) {
        event(warning);
        done.push_back(warning);
      }
    } catch (FileError const& e) {
      for (auto const& text : e.texts()) {
        event("refused " + text);
        done.push_back("refused " + text);
      }
      done.back() += " (nothing of it applied)";
      return {false, lines(done)};
    }
  }
  return {true, lines(done)};
}

}  // namespace Ledrad
