// Ledra::DirMounter: the base of a directory mounter, which mounts the entries of a directory one
// by one, including entries that appear while it works. A derived class does the mounting; the
// base finds the directory, watches it, queues the entry mounts and calls the derived class's four
// handlers in a fixed order.
//
// Configuration (before start()): mountPath (the directory), entityType and mountFlags (given to
// each entry mount), parentDir (where the search for the directory starts: an ancestor of the
// mount path, the global root by default), clock (the clock of the retry timer).
//
// start(), once:
//   1. handleInit().
//   2. The search: from parentDir, descend the mount path component by component. When a
//      component is missing (or is not a Qel::Dir yet) the base watches the deepest directory
//      found for it (dirPathReactorIs(dir, dirPath, component); pos() = the number of
//      components found) and goes on when it appears.
//      The base follows the path, not the directory objects it found on the way: it also
//      watches each directory it descended through for the component below. When one of those
//      components is removed or replaced before the mounter completes (a directory on the path
//      deleted, and perhaps created again), the directories below it are cut off from the tree:
//      the base drops their watches and searches again from the directory that still holds the
//      path (pos() goes back), so a directory created again is found again. Entries of the new
//      directory are handled as in 3, except those seen before (see 5).
//   3. Directory found: the base watches it for entries (dirPathReactorIs(dir, mountPath, "")),
//      and for each entry present, in name order, queues an entry mount
//      (EntryMount(entryPath, entityType, mountFlags)) and calls
//      handleExistingDirEntry(entry, entryPath). Then a mount round runs. A derived class that
//      mounts the present entries itself in handleExistingDirEntry turns the queueing of present
//      entries off (queueExistingEntriesIs(false)), so that each is mounted once.
//   4. A mount round: while entries are queued, the base names the oldest (entryNameIs, and
//      dirEntryMounterIs(name, mount)) and calls handleMountRequest(). The derived class mounts
//      the entry and removes it with deferredMountDeq(), or leaves it queued to retry later and
//      arms the retry timer (timeMinIs(now + delay)); an entry left at the head ends the round.
//   5. A mount request, deferredMountEnq(), starts a round once the directory is found, unless a
//      retry is pending (then it waits for the retry, behind the entry that waits). The base
//      makes one for each entry that appears in the directory, and anyone may make one for an
//      entry that is not there yet. Each entry is queued by the base once for the life of the
//      mounter (its name is remembered): an entry removed and added again is not queued again,
//      and a queued entry that turns up again (a waiting entry created at last) is mounted by the
//      next retry, not at once.
//   6. The retry timer firing starts a round. headWaits() counts the rounds in a row that ended
//      with the same entry left at the head of the queue (0 once the head moves on), so that a
//      watcher can tell an entry that keeps waiting.
//   7. Done: the directory was found, no entry mount is queued, and the directory has been quiet
//      (no entry added) for settleDelay since it was found or since its last new entry. With a
//      settle delay of 0 (the default) that is as soon as the queue is empty; otherwise the base
//      waits on the clock for the quiet period to end, and entries that appear meanwhile are
//      mounted and start it again. Then the base stops watching, disarms its timers and calls
//      handleComplete(dir) once. Entries that appear afterwards are not mounted.
// A handler may add entries to the directory (re-entrance): they are queued and handled in the
// running round. handleComplete may drop the last reference to the mounter: the base keeps it
// alive until its own call returns.
//
// The deferred mount queue (deferredMount, keyed by a running index, oldest first) and the set of
// queued paths (deferredMountPaths) are the base's attributes and notify each change; the derived
// class may also edit them. Single-threaded, on the event loop's thread.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "Qel/Core/Api.h"
#include "Qel/Entity/AttrList.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Entity/Entity.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Loop/Clock.h"
#include "Qel/Reflection/BoxedValue.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

// The attributes, in id order (see Qel/Entity/AttrList.h).
#define LEDRA_DIR_MOUNTER_ATTRIBUTES(X)                                                \
  X(value, plain, Qel::String, mountPath, MountPath)                                   \
  X(value, plain, Qel::String, entityType, EntityType)                                 \
  X(value, plain, Qel::String, mountFlags, MountFlags)                                 \
  X(value, plain, Qel::String, entryName, EntryName)                                   \
  X(value, plain, Qel::U32, pos, Pos)                                                  \
  X(mapOwnWrites, key, DeferredMountMap, deferredMount, DeferredMount, deferredMounts) \
  X(mapRo, key, DeferredMountPathMap, deferredMountPaths, DeferredMountPaths)          \
  X(getter, plain, bool, complete, Complete)                                           \
  X(valueRo, plain, Qel::U32, headWaits, HeadWaits)

class QEL_API DirMounter : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<DirMounter>;
  using PtrConst = Qel::Ptr<DirMounter const>;

  // The mount of one entry: its path, entity type and flags. Compared by value.
  class QEL_API EntryMount {
   public:
    static constexpr bool kQelValueType = true;
    EntryMount() = default;
    EntryMount(Qel::String path, Qel::String type, Qel::String flags)
        : path_(std::move(path)), type_(std::move(type)), flags_(std::move(flags)) {}

    Qel::String const& path() const { return path_; }
    Qel::String const& type() const { return type_; }
    Qel::String const& flags() const { return flags_; }
    bool empty() const { return path_.empty(); }
    // The last component of the path.
    Qel::Name entryName() const;

    friend bool operator==(EntryMount const&, EntryMount const&) = default;
    // "path (type) flags"
    Qel::String text() const;
    static Qel::QelType const* staticType();

   private:
    Qel::String path_;
    Qel::String type_;
    Qel::String flags_;
  };

  using DeferredMountMap = std::map<Qel::U32, EntryMount>;
  using DeferredMountPathMap = std::map<Qel::String, bool>;
  QEL_ATTR_IDS(LEDRA_DIR_MOUNTER_ATTRIBUTES);

  template <class N>
  class NotifieeT;
  using Notifiee = NotifieeT<DirMounter>;
  using NotifieeConst = NotifieeT<DirMounter const>;

  // Configuration: mountPath, entityType and mountFlags (see the list), and the following.
  // entryName is the entry of the present mount request; pos the number of components of the
  // mount path found so far; deferredMount the queue of entry mounts, oldest first, and
  // deferredMountPaths the paths it holds (kept by the queue's mutators below); headWaits the
  // rounds in a row that ended with the same entry waiting at the head of the queue.
  QEL_ATTR_ACCESSORS(LEDRA_DIR_MOUNTER_ATTRIBUTES)
  Qel::Dir::Ptr const& parentDir() const { return parentDir_; }
  void parentDirIs(Qel::Dir::Ptr const& d) { parentDir_ = d; }
  // Whether the entries present when the directory is found are queued (true at creation).
  bool queueExistingEntries() const { return queueExistingEntries_; }
  void queueExistingEntriesIs(bool v) { queueExistingEntries_ = v; }
  Qel::Clock::PtrConst const& clock() const { return retry_.notifier(); }
  void clockIs(Qel::Clock::PtrConst const& c) {
    retry_.notifierIs(c);
    settle_.notifierIs(c);
  }
  // How long the directory must stay without new entries before the mounter completes; 0 (the
  // default) completes as soon as nothing is queued. A positive delay needs a clock.
  Qel::Time settleDelay() const { return settleDelay_; }
  void settleDelayIs(Qel::Time d);
  // When the directory's present quiet period began (found, or its last new entry).
  Qel::Time quietSince() const { return quietSince_; }

  // The retry timer: a round starts when the clock reaches `t` (kNever disarms).
  void timeMinIs(Qel::Time t);
  Qel::Time timeMin() const { return retry_.timeMin(); }

  bool hasDirEntryMounter() const { return hasDirEntryMounter_; }
  Qel::Name const& dirEntryMounterName() const { return dirEntryName_; }
  EntryMount const& dirEntryMounter() const { return dirEntryMount_; }
  void dirEntryMounterIs(Qel::Name const& name, EntryMount const& m);
  void dirEntryMounterDel();

  // The oldest queued mount; empty when none.
  EntryMount deferredMountFront() const;
  // Appends `m`, a mount request, and starts a round when one may run; returns its index.
  Qel::U32 deferredMountEnq(EntryMount const& m);
  // Removes and returns the oldest; empty when none.
  EntryMount deferredMountDeq();
  void deferredMountIs(Qel::U32 index, EntryMount const& m);
  void deferredMountDel(Qel::U32 index);

  // The watch: on `dir` (at `dirPath`) for the entry `awaited` to appear, or, with an empty
  // `awaited`, for the entries of the mounted directory itself.
  void dirPathReactorIs(Qel::Dir::PtrConst const& dir, Qel::String const& dirPath,
                        Qel::Name const& awaited);
  void dirPathReactorDel();
  Qel::Dir::PtrConst watchedDir() const { return reactor_.notifier(); }
  Qel::String const& watchedPath() const { return watchedPath_; }
  Qel::Name const& awaitedEntry() const { return awaited_; }

  void start();
  bool started() const { return started_; }
  bool dirFound() const { return dirFound_; }
  bool complete() const { return complete_; }

  // The derived class's part; see the header comment.
  virtual void handleInit() {}
  virtual void handleExistingDirEntry(Qel::Entity::Ptr const& /*entity*/, Qel::String /*path*/) {}
  virtual void handleMountRequest() = 0;
  virtual void handleComplete(Qel::Entity::Ptr const& /*entity*/) {}

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();
  // Adds the base's attributes to the reflection of a derived type D, right after "name", so that
  // they keep the ids of the list.
  template <class D>
  static void qelAttributes(Qel::TypeBuilder<D>& b);

 protected:
  explicit DirMounter(Qel::Name name);
  ~DirMounter() override;

 private:
  class DirPathReactor : public Qel::Dir::NotifieeConst {
   public:
    explicit DirPathReactor(DirMounter* owner) : owner_(owner) {}
    void onEntry(Qel::Name const& name) override { owner_->onDirEntry(name); }

   private:
    DirMounter* owner_;
  };
  // A timer of the mounter's clock that calls `kOnTime` on the mounter.
  template <void (DirMounter::*kOnTime)()>
  class Timer : public Qel::Clock::Notifiee {
   public:
    explicit Timer(DirMounter* owner) : owner_(owner) {}
    void onTime() override { (owner_->*kOnTime)(); }

   private:
    DirMounter* owner_;
  };

  // Watches a directory on the way to the mount path for the component below it (`level`).
  class PathLink : public Qel::Dir::NotifieeConst {
   public:
    PathLink(DirMounter* owner, std::size_t level) : owner_(owner), level_(level) {}
    std::size_t level() const { return level_; }
    void onEntry(Qel::Name const& name) override { owner_->onPathLinkEntry(*this, name); }

   private:
    DirMounter* owner_;
    std::size_t level_;
  };

  void search(Qel::Dir::PtrConst dir, std::size_t index);
  void onPathLinkEntry(PathLink const& link, Qel::Name const& name);
  void pathLinksDel(std::size_t fromLevel);
  void dirFoundIs(Qel::Dir::PtrConst const& dir);
  void onDirEntry(Qel::Name const& name);
  // Queues the entry's mount; false when it was queued before.
  bool entryQueue(Qel::Name const& name);
  // Runs a round for a new request, unless the directory is not found yet or a retry is pending.
  void mountRoundRequest();
  void doMountRequests();
  // Counts the round just ended in headWaits_.
  void headWaitsCount();
  void completeIfDone();
  void quietPeriodRestart();
  void deferredMountPathRelease(Qel::String const& path);

  QEL_ATTR_STORAGE(LEDRA_DIR_MOUNTER_ATTRIBUTES)
  Qel::Dir::Ptr parentDir_;
  bool hasDirEntryMounter_ = false;
  Qel::Name dirEntryName_;
  EntryMount dirEntryMount_;
  Qel::U32 nextIndex_ = 0;
  std::vector<Qel::Name> components_;
  // The directories descended through, from the search's start, each watched for the next
  // component (ascending level; the deepest directory is watched by reactor_).
  std::vector<std::unique_ptr<PathLink>> pathLinks_;
  std::set<Qel::Name> queuedEntries_;
  Qel::String watchedPath_;
  Qel::Name awaited_;
  bool queueExistingEntries_ = true;
  Qel::Time settleDelay_ = 0;
  Qel::Time quietSince_ = 0;
  bool started_ = false;
  bool dirFound_ = false;
  // Set before the completion's work, notified after it.
  bool complete_ = false;
  std::optional<Qel::U32> waitingHead_;  // the index of the entry headWaits_ counts
  bool inRound_ = false;
  bool roundAgain_ = false;
  DirPathReactor reactor_;
  Timer<&DirMounter::doMountRequests> retry_;
  Timer<&DirMounter::completeIfDone> settle_;
};

template <class N>
class DirMounter::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(LEDRA_DIR_MOUNTER_ATTRIBUTES)
};

template <class D>
void DirMounter::qelAttributes(Qel::TypeBuilder<D>& b) {
  b QEL_ATTR_REFLECTION(LEDRA_DIR_MOUNTER_ATTRIBUTES);
}

}  // namespace Ledra
