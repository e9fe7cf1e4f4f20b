#include "apps/ledrad/ProfileFile.h"

#include <algorithm>
#include <set>

#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/QelType.h"
#include "apps/ledrad/ConditionText.h"
#include "apps/ledrad/ConfigText.h"
#include "apps/ledrad/FileError.h"

namespace Ledrad {

namespace {

constexpr char const* kMountFlagLetters = "wfciSDB";
constexpr char const* kRootFlagLetters = "wfciSN";

// Reads one profile file line by line into `profiles`. A bad line is recorded in `problems` and
// reading goes on; the lines that belong to a profile or group whose own line was refused are
// passed over, since every one of them would only repeat that refusal.
class Parser {
 public:
  Parser(FileProblems& problems, std::vector<StagedProfile>& profiles)
      : problems_(problems), file_(problems.file()), profiles_(profiles) {}

  void line(ConfigLine const& l) {
    line_ = &l;
    std::string const& keyword = l.word(0);
    if (keyword == "profile") return profileLine();
    if (skipping_ == Skipping::profile) return;
    if (keyword == "group") return groupLine();
    if (isProfileSetting(keyword)) return profileSetting(keyword);
    if (isGroupSetting(keyword)) {
      if (skipping_ == Skipping::group) return;
      return groupSetting(keyword);
    }
    fail("unknown keyword '" + keyword + "'");
  }

  void finish() {
    if (profile_) finishProfile();
  }

 private:
  static bool isProfileSetting(std::string const& k) {
    return k == "rootFlags" || k == "noDefaultMountGroup" || k == "hybridMount" ||
           k == "lowMountPrio" || k == "templateKey" || k == "aliasKey";
  }
  static bool isGroupSetting(std::string const& k) {
    return k == "blocking" || k == "condition" || k == "entireCondition" ||
           k == "templateCondition" || k == "mount";
  }

  [[noreturn]] void fail(std::string const& reason) const {
    throw FileError(file_, line_->number, reason);
  }

  // Refuses the line with the reason a naming rule gave, if any.
  void named(std::string const& problem) const {
    if (!problem.empty()) fail(problem);
  }

  // The line must have between min and max words (keyword included).
  void words(std::size_t min, std::size_t max, char const* usage) const {
    if (line_->size() < min || line_->size() > max) fail(std::string("expected: ") + usage);
  }

  // Settings may be given once per profile or group.
  void once(std::set<std::string>& seen, std::string const& what) const {
    if (!seen.insert(line_->word(0)).second) fail(line_->word(0) + " is set twice in " + what);
  }

  bool boolean(std::size_t i) const {
    bool v = false;
    if (!parseBool(line_->word(i), v)) {
      fail("'" + line_->word(i) + "' is not a boolean (true or false)");
    }
    return v;
  }

  void letters(std::string const& flags, char const* allowed, char const* what) const {
    for (char c : flags) {
      if (std::string_view(allowed).find(c) != std::string_view::npos) continue;
      std::string shown;
      for (char const* a = allowed; *a; ++a) {
        if (!shown.empty()) shown += ' ';
        shown += *a;
      }
      fail(std::string("unknown ") + what + " letter '" + c + "' in '" + flags +
           "' (letters: " + shown + ")");
    }
  }

  static bool number(std::string const& text, unsigned long long limit, unsigned& out) {
    if (text.empty() || text.size() > 10) return false;
    unsigned long long v = 0;
    for (char c : text) {
      if (c < '0' || c > '9') return false;
      v = v * 10 + static_cast<unsigned>(c - '0');
    }
    if (v > limit) return false;
    out = static_cast<unsigned>(v);
    return true;
  }

  void templateKeyText(std::string const& key, char const* what) const {
    if (key.size() < 2 || key.front() != '%') {
      fail(std::string(what) + " '" + key + "' must begin with '%' and name a key");
    }
    if (key.find('/') != std::string::npos || key.find('-') != std::string::npos ||
        key.find('%', 1) != std::string::npos) {
      fail(std::string(what) + " '" + key + "' may not hold '/', '-' or a second '%'");
    }
  }

  void profileLine() {
    if (profile_) finishProfile();
    skipping_ = Skipping::profile;
    words(2, 2, "profile NAME");
    std::string const& name = line_->word(1);
    named(wordNameProblem(name, "profile name"));
    if (name.find('/') != std::string::npos) fail("profile name '" + name + "' may not hold '/'");
    for (auto const& p : profiles_) {
      if (p.name == name) {
        fail("profile '" + name + "' is defined twice (first at line " + std::to_string(p.line) +
             ")");
      }
    }
    profiles_.push_back(StagedProfile{});
    profile_ = &profiles_.back();
    profile_->name = name;
    profile_->line = line_->number;
    group_ = nullptr;
    profileSeen_.clear();
    skipping_ = Skipping::nothing;
  }

  void profileSetting(std::string const& keyword) {
    if (!profile_) fail("'" + keyword + "' outside a profile");
    if (group_ || skipping_ == Skipping::group) {
      fail("profile setting '" + keyword + "' must come before the first group of profile '" +
           profile_->name + "'");
    }
    std::string const where = "profile '" + profile_->name + "'";
    if (keyword == "rootFlags") {
      words(1, 2, "rootFlags [LETTERS]");
      once(profileSeen_, where);
      profile_->rootFlags = line_->size() == 2 ? line_->word(1) : std::string();
      letters(profile_->rootFlags, kRootFlagLetters, "root flag");
      return;
    }
    if (keyword == "templateKey") return templateKey();
    if (keyword == "aliasKey") return aliasKey();
    words(2, 2, (keyword + " true|false").c_str());
    once(profileSeen_, where);
    bool const v = boolean(1);
    if (keyword == "noDefaultMountGroup") profile_->noDefaultMountGroup = v;
    if (keyword == "hybridMount") profile_->hybridMount = v;
    if (keyword == "lowMountPrio") profile_->lowMountPrio = v;
  }

  void templateKey() {
    words(3, 3, "templateKey POSITION KEY");
    unsigned position = 0;
    if (!number(line_->word(1), 0xffffffffull, position)) {
      fail("template key position must be a whole number, not '" + line_->word(1) + "'");
    }
    std::string key = line_->word(2);
    std::string const bare = key.back() == '$' ? key.substr(0, key.size() - 1) : key;
    templateKeyText(bare, "template key");
    if (profile_->templateKeys.count(position)) {
      fail("template key position " + std::to_string(position) + " is used twice");
    }
    for (auto const& [pos, k] : profile_->templateKeys) {
      std::string const other = k.back() == '$' ? k.substr(0, k.size() - 1) : k;
      if (other == bare) fail("template key '" + bare + "' is given twice");
    }
    profile_->templateKeys.emplace(position, std::move(key));
  }

  void aliasKey() {
    words(3, 3, "aliasKey ALIAS KEY");
    std::string const& alias = line_->word(1);
    std::string const& key = line_->word(2);
    templateKeyText(alias, "alias");
    templateKeyText(key, "alias target");
    if (profile_->aliasKeys.count(alias)) fail("alias '" + alias + "' is given twice");
    profile_->aliasKeys.emplace(alias, key);
  }

  void groupLine() {
    if (!profile_) fail("'group' outside a profile");
    if (group_) finishGroup();
    group_ = nullptr;
    skipping_ = Skipping::group;
    words(3, 3, "group NAME PRIORITY");
    std::string const& name = line_->word(1);
    named(wordNameProblem(name, "group name"));
    unsigned priority = 0;
    if (!number(line_->word(2), 99, priority) || priority < 1) {
      fail("priority must be a whole number from 1 to 99, not '" + line_->word(2) + "'");
    }
    for (auto const& g : profile_->groups) {
      if (g.name == name) {
        fail("group '" + name + "' is defined twice in profile '" + profile_->name +
             "' (first at line " + std::to_string(g.line) + ")");
      }
    }
    profile_->groups.push_back(StagedGroup{});
    group_ = &profile_->groups.back();
    group_->name = name;
    group_->priority = priority;
    group_->line = line_->number;
    groupSeen_.clear();
    skipping_ = Skipping::nothing;
  }

  void groupSetting(std::string const& keyword) {
    if (!group_) fail("'" + keyword + "' outside a group");
    std::string const where = "group '" + group_->name + "'";
    std::string reason;
    if (keyword == "blocking") {
      words(2, 2, "blocking true|false");
      once(groupSeen_, where);
      group_->blocking = boolean(1);
      return;
    }
    if (keyword == "condition") {
      words(2, SIZE_MAX, "condition CONSTANT OPERATOR [len(] PATH.ATTRIBUTE");
      std::string const text = line_->rest(1);
      if (!ConditionText::parse(text, reason)) fail("condition: " + reason);
      group_->conditions.push_back(text);
      group_->conditionLines.push_back(line_->number);
      return;
    }
    if (keyword == "entireCondition") {
      words(2, SIZE_MAX, "entireCondition TEXT");
      once(groupSeen_, where);
      group_->entireCondition = line_->rest(1);
      return;
    }
    if (keyword == "templateCondition") {
      words(2, SIZE_MAX, "templateCondition TEMPLATE OPERATOR VALUE");
      std::string const text = line_->rest(1);
      if (!TemplateConditionText::parse(text, reason)) fail(reason);
      if (!group_->templateConditions.emplace(text, true).second) {
        fail("template condition '" + text + "' is given twice");
      }
      return;
    }
    mount();
  }

  void mount() {
    words(3, 4, "mount PATH TYPE [FLAGS]");
    StagedMount m{line_->word(1), line_->word(2), line_->size() == 4 ? line_->word(3) : "",
                  line_->number};
    if (m.path.empty() || m.path.front() != '/') {
      fail("mount path '" + m.path + "' does not begin with '/'");
    }
    if (m.path.size() > 1 && m.path.back() == '/') {
      fail("mount path '" + m.path + "' ends with '/'");
    }
    named(typeNameProblem(m.type, "mount type"));
    letters(m.flags, kMountFlagLetters, "flag");
    for (auto const& other : group_->mounts) {
      if (other.path == m.path) {
        fail("mount path '" + m.path + "' is listed twice in group '" + group_->name +
             "' (first at line " + std::to_string(other.line) + ")");
      }
    }
    group_->mounts.push_back(std::move(m));
  }

  void finishGroup() {
    if (!group_->entireCondition.empty() || group_->conditions.empty()) return;
    for (auto const& c : group_->conditions) {
      if (!group_->entireCondition.empty()) group_->entireCondition += " && ";
      group_->entireCondition += c;
    }
  }

  void finishProfile() {
    if (group_) finishGroup();
    // A profile whose every group line was refused has had its problems told.
    if (profile_->groups.empty() && skipping_ != Skipping::group) {
      problems_.add(profile_->line, "profile '" + profile_->name + "' has no mount group");
    }
    checkParentTypes();
    profile_ = nullptr;
    group_ = nullptr;
  }

  // A mount whose path is the parent of another mount of the profile must be a directory: the
  // engine mounts it on the child's behalf as one.
  void checkParentTypes() const {
    std::map<std::string, StagedMount const*> byPath;
    for (auto const& g : profile_->groups) {
      for (auto const& m : g.mounts)
        byPath.emplace(m.path, &m);
    }
    for (auto const& [path, m] : byPath) {
      std::size_t const slash = path.rfind('/');
      if (slash == 0 || slash == std::string::npos) continue;
      auto parent = byPath.find(path.substr(0, slash));
      if (parent == byPath.end() || parent->second->type == "Qel::Dir") continue;
      problems_.add(parent->second->line, "mount '" + parent->first + "' of type '" +
                                              parent->second->type + "' holds the mount '" + path +
                                              "' (line " + std::to_string(m->line) +
                                              "); a parent mount must be of type Qel::Dir");
    }
  }

  // What the lines after a refused "profile" or "group" line belong to.
  enum class Skipping { nothing, profile, group };

  FileProblems& problems_;
  std::string const& file_;
  std::vector<StagedProfile>& profiles_;
  Skipping skipping_ = Skipping::nothing;
  ConfigLine const* line_ = nullptr;
  StagedProfile* profile_ = nullptr;
  StagedGroup* group_ = nullptr;
  std::set<std::string> profileSeen_;
  std::set<std::string> groupSeen_;
};

// `path` with the process's reserved template keys substituted; false when it holds another key.
bool reservedPath(std::string const& path, std::string& out) {
  auto const& reserved = Ledra::globalReservedTemplateKeyDict();
  std::size_t pos = 0;
  while ((pos = path.find('%', pos)) != std::string::npos) {
    std::size_t end = path.find_first_of("%/-", pos + 1);
    if (end == std::string::npos) end = path.size();
    if (!reserved.count(path.substr(pos, end - pos))) return false;
    pos = end;
  }
  out = Ledra::canonicalizePath(path, nullptr);
  return true;
}

// Why a condition cannot hold against the entity it names as the database has it now, or ""
// when it can (or when the entity is not there yet: it is waited for at run time).
std::string conditionProblem(std::string const& text) {
  std::string reason;
  auto c = ConditionText::parse(text, reason);
  std::string path;
  if (!c || !reservedPath(c->path, path)) return {};
  Qel::Entity::Ptr const e = Qel::globalDir()->entity(path);
  if (!e) return {};
  Qel::QelType const* t = e->fwkType();
  Qel::QelAttr const* a = t->attribute(Qel::Name(c->attribute));
  if (!a) return "the " + t->name() + " at " + path + " has no attribute '" + c->attribute + "'";
  bool const ordering = ConditionText::isOrdering(c->op);
  if (c->len) {
    if (a->isCollection()) return {};
    return "len( needs a collection, and '" + c->attribute + "' is none";
  }
  if (a->kind() == Qel::QelAttr::Kind::pointer && ordering)
    return "the pointer attribute '" + c->attribute + "' compares only with == and !=";
  if (a->isCollection()) {
    if (!ordering) return {};
    return "the collection '" + c->attribute + "' compares only with == != in notin or len(";
  }
  if (a->kind() == Qel::QelAttr::Kind::enumeration &&
      !a->type()->enumeratorValue(Qel::Name(c->constant))) {
    return "'" + c->constant + "' is not an enumerator of " + a->type()->name();
  }
  if (a->kind() == Qel::QelAttr::Kind::value && !a->type()->isBuiltin()) {
    return "the attribute '" + c->attribute + "' of type " + a->type()->name() +
           " cannot be compared with a constant";
  }
  return {};
}

bool sameGroup(Ledra::PassiveMountGroup const& g, StagedGroup const& s) {
  if (g.priority() != s.priority || g.blockingConditional() != s.blocking) return false;
  if (g.entireCondition() != s.entireCondition) return false;
  if (g.conditionCols() != s.conditions.size()) return false;
  std::size_t i = 0;
  for (auto const& c : g.conditionCol()) {
    if (c.value != s.conditions[i++]) return false;
  }
  if (g.templateConditionCol().size() != s.templateConditions.size()) return false;
  for (auto const& [text, flag] : s.templateConditions) {
    auto v = g.templateConditionCol(text);
    if (!v || *v != flag) return false;
  }
  if (g.mountProfiles() != s.mounts.size()) return false;
  for (auto const& m : s.mounts) {
    Ledra::Mount const* have = g.mountProfile(m.path);
    if (!have || *have != Ledra::Mount(m.path, m.type, m.flags)) return false;
  }
  return true;
}

void fillGroup(Ledra::PassiveMountGroup& g, StagedGroup const& s) {
  g.blockingConditionalIs(s.blocking);
  g.entireConditionIs(s.entireCondition);
  for (auto const& c : s.conditions)
    g.conditionColEnq(c);
  for (auto const& [text, flag] : s.templateConditions)
    g.templateConditionColIs(text, flag);
  for (auto const& m : s.mounts)
    g.addProfile(m.path, m.type, m.flags);
}

// Brings `p` to the staged content; returns whether anything changed.
bool applyProfile(Ledra::PassiveAgentProfile& p, StagedProfile const& s) {
  bool changed = false;
  auto flag = [&](bool have, bool want, auto setter) {
    if (have == want) return;
    (p.*setter)(want);
    changed = true;
  };
  if (p.rootFlags() != s.rootFlags) {
    p.rootFlagsIs(s.rootFlags);
    changed = true;
  }
  flag(p.noDefaultMountGroup(), s.noDefaultMountGroup,
       &Ledra::PassiveAgentProfile::noDefaultMountGroupIs);
  flag(p.hybridMount(), s.hybridMount, &Ledra::PassiveAgentProfile::hybridMountIs);
  flag(p.lowMountPrio(), s.lowMountPrio, &Ledra::PassiveAgentProfile::lowMountPrioIs);

  if (p.templateKey() !=
      Ledra::PassiveAgentProfile::TemplateKeyCol(s.templateKeys.begin(), s.templateKeys.end())) {
    p.templateKeyDelAll();
    for (auto const& [pos, key] : s.templateKeys)
      p.templateKeyIs(pos, key);
    changed = true;
  }
  Ledra::PassiveAgentProfile::AliasKeyCol const aliases(s.aliasKeys.begin(), s.aliasKeys.end());
  if (p.aliasKey() != aliases) {
    p.aliasKeyDelAll();
    for (auto const& [alias, key] : s.aliasKeys)
      p.aliasKeyIs(alias, key);
    changed = true;
  }

  std::vector<Qel::Name> stale;
  for (auto const& entry : p.mountGroup()) {
    // A named variable rather than a structured binding: clang 14 cannot capture the latter.
    Qel::Name const& name = entry.first;
    bool const wanted = std::any_of(s.groups.begin(), s.groups.end(),
                                    [&](StagedGroup const& gs) { return gs.name == name; });
    if (!wanted) stale.push_back(name);
  }
  for (auto const& name : stale) {
    p.mountGroupDel(name);
    changed = true;
  }
  for (auto const& gs : s.groups) {
    if (auto g = p.mountGroup(gs.name)) {
      if (sameGroup(*g, gs)) continue;
      p.mountGroupDel(gs.name);
    }
    fillGroup(*p.mountGroupIs(gs.name, gs.priority), gs);
    changed = true;
  }
  return changed;
}

}  // namespace

ProfileFile ProfileFile::parse(std::string_view text, FileProblems& problems) {
  ProfileFile pf;
  pf.file_ = problems.file();
  Parser parser(problems, pf.profiles_);
  for (auto const& line : configLines(text, problems))
    problems.attempt([&] { parser.line(line); });
  parser.finish();
  return pf;
}

ProfileFile ProfileFile::parse(std::string_view text, std::string const& file) {
  FileProblems problems(file);
  ProfileFile pf = parse(text, problems);
  problems.throwIfAny();
  return pf;
}

ProfileFile ProfileFile::load(std::string const& file) {
  return parse(readConfigFile(file), file);
}

StagedProfile const* ProfileFile::profile(std::string const& name) const {
  for (auto const& p : profiles_) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

void ProfileFile::checkConditions() const {
  FileProblems problems(file_);
  checkConditions(problems);
  problems.throwIfAny();
}

void ProfileFile::checkConditions(FileProblems& problems) const {
  for (auto const& p : profiles_) {
    for (auto const& g : p.groups) {
      for (std::size_t i = 0; i < g.conditions.size(); ++i) {
        std::string const why = conditionProblem(g.conditions[i]);
        if (!why.empty()) problems.add(g.conditionLines[i], "condition: " + why);
      }
    }
  }
}

std::vector<std::string> ProfileFile::unknownTypes() const {
  std::vector<std::string> warnings;
  for (auto const& p : profiles_) {
    for (auto const& g : p.groups) {
      for (auto const& m : g.mounts) {
        if (Qel::QelType::type(Qel::Name(m.type))) continue;
        warnings.push_back(file_ + ":" + std::to_string(m.line) + ": warning: mount type '" +
                           m.type +
                           "' is not known: no built-in type and no state loaded so far "
                           "defines it");
      }
    }
  }
  return warnings;
}

ProfileFile::Applied ProfileFile::applyTo(Ledra::PassiveAgentProfileDir& dir) const {
  Applied applied;
  for (auto const& s : profiles_) {
    bool const existed = static_cast<bool>(dir.agentProfile(s.name));
    auto p = dir.agentProfileIs(s.name);
    bool const changed = applyProfile(*p, s);
    if (!existed) {
      ++applied.profilesCreated;
      continue;
    }
    if (changed) {
      ++applied.profilesUpdated;
      continue;
    }
    ++applied.profilesUnchanged;
  }
  return applied;
}

}  // namespace Ledrad
