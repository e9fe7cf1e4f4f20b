#include "sim/Expectation.h"

#include <algorithm>

namespace Sim {

namespace {

constexpr char const* kDirType = "Qel::Dir";

bool has(std::string const& flags, char letter) {
  return flags.find(letter) != std::string::npos;
}

// `text` without any of the characters of `chars`.
std::string without(std::string const& text, std::string const& chars) {
  std::string out;
  for (char c : text) {
    if (chars.find(c) == std::string::npos) out += c;
  }
  return out;
}

std::vector<std::string> split(std::string const& text, char sep) {
  std::vector<std::string> out;
  std::size_t pos = 0;
  while (true) {
    std::size_t const at = text.find(sep, pos);
    out.push_back(text.substr(pos, at == std::string::npos ? std::string::npos : at - pos));
    if (at == std::string::npos) return out;
    pos = at + 1;
  }
}

std::vector<std::string> words(std::string const& text) {
  std::vector<std::string> out;
  for (auto const& w : split(without(text, "\t"), ' ')) {
    if (!w.empty()) out.push_back(w);
  }
  return out;
}

std::string parentOf(std::string const& path) {
  auto const slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// A path strictly below the root.
bool belowRoot(std::string const& path) {
  std::string const prefix = std::string(kRoot) + "/";
  return path.size() > prefix.size() && path.starts_with(prefix);
}

// A group's mounts as the group holds them: one per path as written, the last given for a path
// replacing an earlier one.
std::vector<MountPlan> mountsOf(GroupPlan const& group) {
  std::map<std::string, MountPlan> byPath;
  for (auto const& m : group.mounts)
    byPath[m.path] = m;
  std::vector<MountPlan> out;
  for (auto const& [path, m] : byPath)
    out.push_back(m);
  return out;
}

std::string describe(Expectation::Source const& s, bool granted, std::string const& rootFlags) {
  std::string const type = has(s.flags, 'c') ? s.type : "";
  return Expectation::letters(s.flags, granted, rootFlags) + (type.empty() ? "" : " type " + type) +
         " (flags '" + s.flags + "': " + s.why + ")";
}

}  // namespace

std::string Expectation::profileFor(std::string const& agent,
                                    std::map<std::string, ProfilePlan> const& plans) {
  if (plans.count(agent)) return agent;
  std::string family;
  for (auto const& [name, plan] : plans) {
    if (name.empty() || name.back() != '-' || !agent.starts_with(name)) continue;
    if (name.size() > family.size()) family = name;
  }
  return family;
}

std::string Expectation::letters(std::string const& userFlags, bool granted,
                                 std::string const& rootFlags) {
  std::string out;
  if (has(userFlags, 'f') && !granted) {
    out = "w";
  } else if (!has(userFlags, 'w')) {
    out = "C";
  } else {
    out = granted ? "w" : "C";
  }
  if (has(userFlags, 'i')) out += "i";
  if (has(userFlags, 'S')) out += "S";
  return out + (has(rootFlags, 'N') ? "p" : "np");
}

Expectation::Expectation(std::string agent, ProfilePlan const* plan, int cellId, IsDir const& isDir)
    : agent_(std::move(agent)), cellId_(cellId) {
  if (!plan) {
    closeReason_ = "no agent profile";
    return;
  }
  profile_ = plan->name;
  templateValues(*plan);
  if (!closeReason_.empty()) return;
  versions_.push_back(*plan);
  mountPaths(*plan, isDir);
  derive();
}

void Expectation::peerReadyDropped() {
  if (peerReadyDropped_ || !closeReason_.empty()) return;
  peerReadyDropped_ = true;
  derive();
}

void Expectation::versionSeen(ProfilePlan const& plan) {
  if (!closeReason_.empty() || plan.name != profile_ || plan == versions_.back()) return;
  versions_.push_back(plan);
  derive();
}

// The fields of the agent's name after the first "-" belong to the template keys in the order of
// their positions; a key ending in "$" takes the rest of the name. A name without any "-" has
// nothing to give, and the connection is closed. Aliases are set only beside template keys.
void Expectation::templateValues(ProfilePlan const& plan) {
  if (!agent_.empty()) values_["%agentString"] = agent_;
  if (plan.templateKeys.empty()) return;
  std::vector<std::string> const fields = split(agent_, '-');
  std::size_t field = 1;
  for (auto const& [position, text] : plan.templateKeys) {
    std::string key = text;
    bool const tillEnd = !key.empty() && key.back() == '$';
    if (tillEnd) key.pop_back();
    if (fields.size() <= 1) {
      closeReason_ = "Processed an invalid mount profile. No template value found for " + key;
      return;
    }
    std::string v;
    if (field < fields.size()) {
      v = fields[field];
      for (std::size_t i = field + 1; tillEnd && i < fields.size(); ++i)
        v += "-" + fields[i];
    }
    ++field;
    values_[key] = v;
  }
  for (auto const& [alias, target] : plan.aliases)
    values_[without(alias, " \t")] = value(without(target, " \t"));
}

std::string Expectation::value(std::string const& key) const {
  if (auto it = values_.find(key); it != values_.end()) return it->second;
  std::string const cell = std::to_string(cellId_);
  std::string const peer = std::to_string(3 - cellId_);
  if (key == "%cellId") return cell;
  if (key == "%cellPath") return "cell/" + cell;
  if (key == "%peerCellId") return peer;
  if (key == "%peerCellPath") return "cell/" + peer;
  if (key == "%sysname") return "ledra";
  return "";
}

std::string Expectation::substituted(std::string const& path,
                                     std::function<std::string(std::string const&)> const& value) {
  std::string out;
  std::string key;
  bool inKey = false;
  for (char c : path) {
    if (c == '%') {
      if (inKey) out += value(key);
      key = "%";
      inKey = true;
    } else if (inKey && (c == '-' || c == '/')) {
      out += value(key);
      out += c;
      inKey = false;
    } else if (inKey) {
      key += c;
    } else {
      out += c;
    }
  }
  if (inKey) out += value(key);
  return out;
}

std::string Expectation::canonical(std::string const& path) const {
  return substituted(path, [this](std::string const& key) { return value(key); });
}

// "<template> <op> <value>": the template and the value substituted, "NULL" the empty text.
bool Expectation::kept(GroupPlan const& group) const {
  for (auto const& condition : group.templateConditions) {
    std::vector<std::string> w = words(condition);
    w.resize(3);
    std::string const templ = canonical(w[0]);
    std::string const v = w[2] == "NULL" ? std::string() : canonical(w[2]);
    bool const holds = w[1] == "==" ? templ == v : w[1] == "!=" && templ != v;
    if (!holds) return false;
  }
  return true;
}

// The engine's table of mount paths, from every group (kept or not): one entry per path, the
// first group's in an order the model does not know, so any of them. A creating mount adds its
// deepest standing ancestor directory with "w", or makes that ancestor's entry writable.
void Expectation::mountPaths(ProfilePlan const& plan, IsDir const& isDir) {
  std::set<std::string> writableParents;
  for (auto const& g : plan.groups) {
    for (auto const& m : mountsOf(g)) {
      std::string const path = canonical(m.path);
      mountPaths_[path].insert({m.flags, m.type, "listed in " + g.name});
      if (!has(m.flags, 'c')) continue;
      std::vector<std::string> const parts = split(path, '/');
      std::string walked;
      std::string deepest;
      // parts[0] is the empty text before the leading "/"; the last part is what is created.
      for (std::size_t i = 1; i + 1 < parts.size(); ++i) {
        if (parts[i].empty()) continue;
        walked += "/" + parts[i];
        if (!isDir(walked)) break;
        deepest = walked;
      }
      if (!deepest.empty()) writableParents.insert(deepest);
    }
  }
  for (auto const& p : writableParents) {
    Sources& s = mountPaths_[p];
    Sources upgraded;
    for (auto const& entry : s) {
      if (!has(entry.flags, 'w'))
        upgraded.insert({entry.flags + "w", entry.type, entry.why + ", made writable"});
    }
    s.insert(upgraded.begin(), upgraded.end());
    s.insert({"w", kDirType, "parent of a creating mount"});
  }
}

void Expectation::derive() {
  nested_.clear();
  prefixes_.clear();
  directories_.clear();
  required_.clear();
  for (auto const& version : versions_) {
    for (auto const& g : version.groups) {
      if (!kept(g)) continue;
      for (auto const& m : mountsOf(g)) {
        std::string const path = canonical(m.path);
        nested_[path].insert({m.flags, m.type, "group " + g.name});
      }
    }
  }
  // The engine queues the groups of the version of its first pass, V (any of them), and serves
  // each with the entries it has then, those of V or of a later version that still has it (a
  // group dropped from the profile keeps its last entries). A path is required when, whichever
  // V, some group of V has it in each of those.
  for (std::size_t v = 0; v < versions_.size(); ++v) {
    std::map<std::string, std::string> required;
    for (auto const& g : versions_[v].groups) {
      if (!kept(g) || (peerReadyDropped_ && g.name == "peerReady")) continue;
      std::map<std::string, std::string> served;
      bool first = true;
      for (std::size_t w = v; w < versions_.size(); ++w) {
        auto const later = std::find_if(versions_[w].groups.begin(), versions_[w].groups.end(),
                                        [&](GroupPlan const& h) { return h.name == g.name; });
        if (later == versions_[w].groups.end()) continue;
        std::map<std::string, std::string> paths;
        for (auto const& m : mountsOf(*later)) {
          if (!has(m.flags, 'D')) paths.emplace(canonical(m.path), "group " + g.name);
        }
        if (first) served = paths;
        std::erase_if(served, [&](auto const& r) { return !paths.count(r.first); });
        first = false;
      }
      required.merge(served);
    }
    if (v == 0) required_ = required;
    std::erase_if(required_, [&](auto const& r) { return !required.count(r.first); });
  }
  required_[kRoot] = "the root";

  // A path whose parent is listed in the table mounts that parent first, with the listed flags;
  // so does an entry of a directory mount (written "<directory>/*").
  std::vector<std::string> work;
  for (auto const& [path, sources] : nested_)
    work.push_back(path);
  std::set<std::string> listedParents;
  std::set<std::string> withEntries;
  while (!work.empty()) {
    while (!work.empty()) {
      std::string const child = work.back();
      work.pop_back();
      std::string const parent = parentOf(child);
      auto const listed = mountPaths_.find(parent);
      if (!belowRoot(parent) || listed == mountPaths_.end()) continue;
      if (!listedParents.insert(parent).second) continue;
      for (auto const& s : listed->second)
        nested_[parent].insert({s.flags, s.type, s.why + ", as parent of " + child});
      work.push_back(parent);
    }
    for (auto const& [path, sources] : nested_) {
      bool const directory = std::any_of(sources.begin(), sources.end(),
                                         [](Source const& s) { return has(s.flags, 'D'); });
      if (directory && withEntries.insert(path).second) work.push_back(path + "/*");
    }
  }

  // A directory mount mounts its entries: those standing when its mounter starts read-only, the
  // others with the directory's own flags.
  for (auto const& [path, sources] : nested_) {
    for (auto const& s : sources) {
      if (!has(s.flags, 'D')) continue;
      directories_[path].insert({"r", kDirType, "entry standing when " + path + " was mounted"});
      directories_[path].insert({without(s.flags, "DB"), s.type, "entry of " + path});
    }
  }

  // A path whose parent is not listed mounts every prefix below the root that is not mounted yet:
  // a standing directory as the child needs it, a missing one with "fwc" (added when checked).
  auto prefixesOf = [this](std::string const& child, Sources const& sources) {
    std::string const parent = parentOf(child);
    if (!belowRoot(parent) || mountPaths_.count(parent)) return;
    for (std::string p = parent; belowRoot(p); p = parentOf(p)) {
      for (auto const& s : sources)
        prefixes_[p].insert({has(s.flags, 'c') ? "wc" : "r", kDirType, "prefix of " + child});
    }
  };
  for (auto const& [path, sources] : nested_)
    prefixesOf(path, sources);
  for (auto const& [path, sources] : directories_)
    prefixesOf(path + "/*", sources);

  // The occasions on which each path may be mounted: once per kept entry, once per child
  // mounted below it, without bound for a directory mount's entries.
  std::map<std::string, int> occasions;
  for (auto const& version : versions_) {
    for (auto const& g : version.groups) {
      if (!kept(g)) continue;
      for (auto const& m : mountsOf(g))
        ++occasions[canonical(m.path)];
    }
  }
  for (auto const& [path, sources] : nested_) {
    for (std::string p = parentOf(path); belowRoot(p); p = parentOf(p))
      ++occasions[p];
  }
  for (auto const& [path, sources] : directories_)
    occasions[path] += 2;
  conflictPossible_ = std::any_of(occasions.begin(), occasions.end(), [this](auto const& o) {
    if (o.second < 2) return false;
    if (prefixes_.count(o.first)) return true;
    auto const it = nested_.find(o.first);
    if (it == nested_.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [](Source const& s) { return has(s.flags, 'w') || has(s.flags, 'f'); });
  });
}

Expectation::Sources Expectation::candidates(std::string const& path, bool exists) const {
  Sources out;
  if (auto it = nested_.find(path); it != nested_.end()) out = it->second;
  if (auto it = prefixes_.find(path); it != prefixes_.end()) {
    out.insert(it->second.begin(), it->second.end());
    if (!exists) out.insert({"fwc", kDirType, "missing prefix"});
  }
  if (auto it = directories_.find(parentOf(path)); it != directories_.end())
    out.insert(it->second.begin(), it->second.end());
  return out;
}

bool Expectation::allowed(std::string const& path) const {
  return closeReason_.empty() && (path == kRoot || !candidates(path, false).empty());
}

std::string Expectation::request(std::string const& path, std::string const& sent,
                                 std::string const& type, bool granted,
                                 std::string const& rootFlags, bool exists) const {
  if (!closeReason_.empty()) return "nothing, the connection is closed with '" + closeReason_ + "'";
  if (path == kRoot) {
    std::string const expected = letters(rootFlags, granted, rootFlags);
    if (sent == expected && type.empty()) return "";
    return expected + " (the root, flags '" + rootFlags + "')";
  }
  Sources const sources = candidates(path, exists);
  for (auto const& s : sources) {
    if (letters(s.flags, granted, rootFlags) == sent && (has(s.flags, 'c') ? s.type : "") == type)
      return "";
  }
  // The groups of each version, those the template conditions skip marked.
  std::string groups;
  for (auto const& v : versions_) {
    for (auto const& g : v.groups)
      groups += std::string(groups.empty() ? "" : ",") + g.name + (kept(g) ? "" : "(skipped)");
    groups += ";";
  }
  if (sources.empty()) return "no such path in profile " + profile_ + " (groups " + groups + ")";
  std::string expected;
  for (auto const& s : sources)
    expected += (expected.empty() ? "" : " or ") + describe(s, granted, rootFlags);
  return expected + " (profile " + profile_ + ", groups " + groups + ")";
}

bool Expectation::queuesConversion(std::string const& path, std::string const& sent,
                                   std::string const& type, bool granted,
                                   std::string const& rootFlags, bool exists) const {
  if (sent.empty() || sent[0] != 'C' || path == kRoot) return false;
  bool matched = false;
  for (auto const& s : candidates(path, exists)) {
    if (letters(s.flags, granted, rootFlags) != sent || (has(s.flags, 'c') ? s.type : "") != type)
      continue;
    if (!has(s.flags, 'w')) return false;
    matched = true;
  }
  return matched;
}

}  // namespace Sim
