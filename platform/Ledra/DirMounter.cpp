#include "Ledra/DirMounter.h"

#include <algorithm>
#include <vector>

#include "Check/Check.h"
#include "Ledra/TraceFacility.h"
#include "Qel/Containers/Path.h"

namespace Ledra {

namespace {

std::vector<Qel::Name> components(Qel::String const& path) {
  std::vector<Qel::Name> out;
  for (std::string_view const component : Qel::pathComponents(path))
    out.emplace_back(component);
  return out;
}

Qel::String childPath(Qel::String const& dir, Qel::Name const& name) {
  if (!dir.empty() && dir.back() == '/') return Qel::String(dir + name);
  return Qel::String(dir + "/" + name);
}

// Sets a flag for a scope and restores its earlier value on every way out, so that scopes nest
// (a directory found again from inside a running round).
struct FlagScope {
  bool& flag;
  bool const before;
  explicit FlagScope(bool& f) : flag(f), before(f) { flag = true; }
  ~FlagScope() { flag = before; }
};

}  // namespace

Qel::Name DirMounter::EntryMount::entryName() const {
  std::size_t const slash = path_.rfind('/');
  if (slash == std::string::npos) return Qel::Name(path_);
  return Qel::Name(path_.substr(slash + 1));
}

Qel::String DirMounter::EntryMount::text() const {
  return Qel::String(path_ + " (" + type_ + ") " + flags_);
}

Qel::QelType const* DirMounter::EntryMount::staticType() {
  using Boxed = Qel::BoxedValue<EntryMount>;
  static Qel::QelType const* t = [] {
    Qel::TypeBuilder<Boxed> b("Ledra::DirMounter::EntryMount", Qel::QelType::Kind::value);
    b.value<Qel::String>("path", [](Boxed const& m) { return m.value().path(); })
        .value<Qel::String>("type", [](Boxed const& m) { return m.value().type(); })
        .value<Qel::String>("flags", [](Boxed const& m) { return m.value().flags(); });
    b.type().boxerIs([](void const* native) {
      return Qel::GenericIf::PtrConst(Boxed::make(*static_cast<EntryMount const*>(native)));
    });
    return b.done();
  }();
  return t;
}

DirMounter::DirMounter(Qel::Name name)
    : Entity(std::move(name)), reactor_(this), retry_(this), settle_(this) {}

DirMounter::~DirMounter() = default;

void DirMounter::timeMinIs(Qel::Time t) {
  QEL_CHECK(retry_.notifier(), "retry_.notifier() && \"DirMounter retry without a clock\"");
  retry_.timeMinIs(t);
}

void DirMounter::settleDelayIs(Qel::Time d) {
  QEL_CHECK(d >= 0, "d >= 0 && \"DirMounter settle delay is negative\"");
  settleDelay_ = d;
}

void DirMounter::dirEntryMounterIs(Qel::Name const& name, EntryMount const& m) {
  hasDirEntryMounter_ = true;
  dirEntryName_ = name;
  dirEntryMount_ = m;
}

void DirMounter::dirEntryMounterDel() {
  hasDirEntryMounter_ = false;
  dirEntryName_.clear();
  dirEntryMount_ = EntryMount();
}

DirMounter::EntryMount DirMounter::deferredMountFront() const {
  return deferredMount_.empty() ? EntryMount() : deferredMount().begin()->second;
}

Qel::U32 DirMounter::deferredMountEnq(EntryMount const& m) {
  Qel::U32 const index = nextIndex_;
  deferredMountIs(index, m);
  mountRoundRequest();
  return index;
}

DirMounter::EntryMount DirMounter::deferredMountDeq() {
  if (deferredMount_.empty()) return EntryMount();
  auto const [index, m] = *deferredMount().begin();
  deferredMountDel(index);
  return m;
}

void DirMounter::deferredMountIs(Qel::U32 index, EntryMount const& m) {
  EntryMount const* const present = deferredMount(index);
  if (present && *present == m) return;
  Qel::String const replaced = present ? present->path() : Qel::String();
  if (index >= nextIndex_) nextIndex_ = index + 1;
  deferredMount_.set(*this, index, m);
  if (!replaced.empty() && replaced != m.path()) deferredMountPathRelease(replaced);
  deferredMountPathsIs(m.path(), true);
}

void DirMounter::deferredMountDel(Qel::U32 index) {
  EntryMount const* const present = deferredMount(index);
  if (!present) return;
  Qel::String const path = present->path();
  deferredMount_.del(*this, index);
  deferredMountPathRelease(path);
}

void DirMounter::deferredMountPathRelease(Qel::String const& path) {
  for (auto const& [index, m] : deferredMount()) {
    if (m.path() == path) return;
  }
  deferredMountPathsDel(path);
}

void DirMounter::dirPathReactorIs(Qel::Dir::PtrConst const& dir, Qel::String const& dirPath,
                                  Qel::Name const& awaited) {
  watchedPath_ = dirPath;
  awaited_ = awaited;
  reactor_.notifierIs(dir);
}

void DirMounter::dirPathReactorDel() {
  reactor_.notifierIs(nullptr);
  watchedPath_.clear();
  awaited_.clear();
}

void DirMounter::start() {
  QEL_CHECK(!started_, "!started_ && \"DirMounter started twice\"");
  QEL_CHECK(!mountPath().empty(), "!mountPath_.empty() && \"DirMounter without a mount path\"");
  QEL_CHECK(settleDelay_ == 0 || clock(),
            "(settleDelay_ == 0 || clock()) && \"DirMounter settle delay without a clock\"");
  started_ = true;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  TRACE(LedraPlatform, 5, "DirMounter {} starts on {}", name(), mountPath());
  handleInit();
  components_ = components(mountPath());
  Qel::Dir::PtrConst from = parentDir_ ? Qel::Dir::PtrConst(parentDir_) : Qel::globalDir();
  std::size_t index = 0;
  if (parentDir_) {
    std::vector<Qel::Name> const prefix = components(parentDir_->fullName());
    bool const ancestor = prefix.size() <= components_.size() &&
                          std::equal(prefix.begin(), prefix.end(), components_.begin());
    QEL_CHECK(ancestor,
              "ancestor && \"DirMounter parent dir is not an ancestor of the mount path\"");
    index = prefix.size();
  }
  search(from, index);
}

void DirMounter::search(Qel::Dir::PtrConst dir, std::size_t index) {
  while (index < components_.size()) {
    Qel::Entity::Ptr e = dir->entry(components_[index]);
    auto const* next = dynamic_cast<Qel::Dir const*>(e.ptr());
    if (!next) {
      posIs(static_cast<Qel::U32>(index));
      TRACE(LedraPlatform, 6, "DirMounter {} waits for {} in {}", name(), components_[index],
            dir->fullName());
      dirPathReactorIs(dir, dir->fullName(), components_[index]);
      return;
    }
    // Watched on the way: should this component go, the directories below are cut off.
    auto link = std::make_unique<PathLink>(this, index);
    link->notifierIs(dir);
    pathLinks_.push_back(std::move(link));
    dir = Qel::Dir::PtrConst(next);
    ++index;
  }
  posIs(static_cast<Qel::U32>(index));
  dirFoundIs(dir);
}

void DirMounter::onPathLinkEntry(PathLink const& link, Qel::Name const& entryName) {
  std::size_t const level = link.level();
  if (complete_ || entryName != components_[level]) return;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  Qel::Dir::PtrConst const dir = link.notifier();
  // The directory the path went on to: the next link's, or the deepest one watched.
  auto it = std::find_if(pathLinks_.begin(), pathLinks_.end(),
                         [level](auto const& l) { return l->level() > level; });
  Qel::Dir::PtrConst const below = it != pathLinks_.end() ? (*it)->notifier() : reactor_.notifier();
  if (dir->entry(entryName).ptr() == below.ptr()) return;
  TRACE(LedraPlatform, 6, "DirMounter {} lost {} in {}, searching again", name(), entryName,
        dir->fullName());
  pathLinksDel(level);
  dirPathReactorDel();
  dirFound_ = false;
  search(dir, level);
}

void DirMounter::pathLinksDel(std::size_t fromLevel) {
  while (!pathLinks_.empty() && pathLinks_.back()->level() >= fromLevel) {
    pathLinks_.back()->notifierIs(nullptr);
    pathLinks_.pop_back();
  }
}

void DirMounter::dirFoundIs(Qel::Dir::PtrConst const& dir) {
  dirFound_ = true;
  quietPeriodRestart();
  dirPathReactorIs(dir, mountPath(), {});
  std::vector<std::pair<Qel::Name, Qel::Entity::Ptr>> const present(dir->entryMap().begin(),
                                                                    dir->entryMap().end());
  {
    // Rounds started by the handlers wait until every present entry has been seen.
    FlagScope scanning(inRound_);
    for (auto const& [entryName, entity] : present) {
      if (complete_) return;
      // A handler cut the directory off the path: the search that followed has taken over.
      if (reactor_.notifier() != dir) return;
      if (dir->entry(entryName) != entity) continue;  // removed by an earlier handler
      // Seen in a directory of this path before it was replaced: handled once only.
      if (queuedEntries_.count(entryName) != 0) continue;
      if (queueExistingEntries_) {
        entryQueue(entryName);
      } else {
        queuedEntries_.insert(entryName);
      }
      handleExistingDirEntry(entity, childPath(mountPath(), entryName));
    }
  }
  doMountRequests();
}

void DirMounter::onDirEntry(Qel::Name const& name) {
  if (complete_ || !started_) return;
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  Qel::Dir::PtrConst dir = reactor_.notifier();
  if (!awaited_.empty()) {
    if (name != awaited_) return;
    search(dir, pos());
    return;
  }
  if (!dir->entry(name)) return;  // a removal
  quietPeriodRestart();
  entryQueue(name);
  // Nothing queued (an entry seen before): the quiet period may end.
  completeIfDone();
}

bool DirMounter::entryQueue(Qel::Name const& name) {
  if (!queuedEntries_.insert(name).second) return false;
  Qel::String const path = childPath(mountPath(), name);
  if (deferredMountPaths(path).value_or(false)) return false;
  deferredMountEnq(EntryMount(path, entityType(), mountFlags()));
  return true;
}

void DirMounter::mountRoundRequest() {
  // While a retry is pending a new request waits for it, behind the entry that is waiting.
  if (retry_.timeMin() != Qel::kNever) return;
  doMountRequests();
}

void DirMounter::quietPeriodRestart() {
  if (settleDelay_ > 0) quietSince_ = clock()->now();
}

void DirMounter::doMountRequests() {
  if (!dirFound_ || complete_) return;
  if (inRound_) {
    roundAgain_ = true;
    return;
  }
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  {
    FlagScope round(inRound_);
    do {
      roundAgain_ = false;
      // Each queued entry at most once per pass, even if the derived class requeues it.
      std::size_t budget = deferredMount_.size();
      while (budget-- > 0 && !deferredMount_.empty() && !complete_) {
        auto const [index, mount] = *deferredMount().begin();
        entryNameIs(mount.entryName());
        dirEntryMounterIs(mount.entryName(), mount);
        handleMountRequest();
        if (!deferredMount_.empty() && deferredMount().begin()->first == index) break;
      }
    } while (roundAgain_ && !complete_);
    dirEntryMounterDel();
  }
  headWaitsCount();
  completeIfDone();
}

void DirMounter::headWaitsCount() {
  std::optional<Qel::U32> head;
  if (!deferredMount_.empty() && !complete_) head = deferredMount().begin()->first;
  Qel::U32 const waits = !head ? 0 : head == waitingHead_ ? headWaits() + 1 : 1;
  waitingHead_ = head;
  headWaitsIs(waits);
}

void DirMounter::completeIfDone() {
  if (!dirFound_ || complete_ || inRound_ || !deferredMount_.empty()) return;
  if (settleDelay_ > 0) {
    Qel::Time const quietEnd = quietSince_ + settleDelay_;
    if (clock()->now() < quietEnd) {
      settle_.timeMinIs(quietEnd);
      return;
    }
  }
  PtrConst keepAlive(refCount() > 0 ? this : nullptr);
  complete_ = true;
  Qel::Dir::PtrConst dir = reactor_.notifier();
  dirPathReactorDel();
  pathLinksDel(0);
  retry_.timeMinIs(Qel::kNever);
  settle_.timeMinIs(Qel::kNever);
  TRACE(LedraPlatform, 5, "DirMounter {} complete on {}", name(), mountPath());
  notify(kComplete);
  handleComplete(Qel::Entity::Ptr(const_cast<Qel::Dir*>(dir.ptr())));
}

Qel::QelType const* DirMounter::staticType() {
  static Qel::QelType const* t = [] {
    Qel::TypeBuilder<DirMounter> b("Ledra::DirMounter");
    qelAttributes(b);
    return b.done();
  }();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = DirMounter::staticType();
}

}  // namespace Ledra
