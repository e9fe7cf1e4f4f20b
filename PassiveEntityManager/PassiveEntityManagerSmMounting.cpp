// Mount execution: the mount of one path with its flags (doPassiveMount), the mount of one profile
// entry after its parent (doNestedPassiveMount), and the table of every mount path of the profile
// (doPopulateMountPaths, maybeAddParentMountProfile).
//
// Flags. A mount request carries "w" (writable), or "C" (mounted now, to be mounted again with
// "w" once write mounts are granted), then "i" and "S" when the profile asks for them, then the
// suffix "p" (the root flags hold 'N') or "np".
#include <algorithm>
#include <iostream>

#include "PassiveEntityManager/PassiveDirMounter.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/TraceFacility.h"
#include "Qel/Containers/Path.h"
#include "Qel/Core/Exception.h"
#include "Qel/Mount/EntityUri.h"

namespace Ledra {

namespace {

// The path up to its last "/" ("/a/b" -> "/a"), a view into `path`.
std::string_view parentOf(Qel::String const& path) {
  std::size_t const slash = path.rfind('/');
  if (slash == std::string::npos) return {};
  return std::string_view(path).substr(0, slash);
}

// A looked-up mount profile, or an empty Mount when there is none.
Mount orEmpty(Mount const* m) {
  return m ? *m : Mount();
}

// The components of a "/"-separated path, empty ones skipped.
std::vector<Qel::Name> componentsOf(Qel::String const& path) {
  std::vector<Qel::Name> out;
  for (std::string_view const component : Qel::pathComponents(path))
    out.emplace_back(component);
  return out;
}

constexpr char const* kDirType = "Qel::Dir";
Qel::String const kNoFlags;

// The flags of the mount request for `path`, as the entity URI "path?flags=letters" reads them
// for the `requested` flags' letters. A plain absolute path without a query reads as those
// letters alone; anything else goes through the URI parser, which refuses what no URI may hold.
Qel::MountFlags requestFlags(Qel::String const& path, Qel::MountFlags requested) {
  if (!path.empty() && path.front() == '/' && path.find('?') == std::string::npos) return requested;
  return Qel::parseMountFlags(Qel::EntityUri(path + "?flags=" + requested.text()).query());
}

}  // namespace

Qel::InternedText PassiveEntityManagerSm::canonicalPath(Qel::InternedText const& path) {
  Qel::InternedText real = canonicalizePath(path, agentStatus_);
  if (real != path) templateCacheIs(path, real);
  return real;
}

bool PassiveEntityManagerSm::isMountComplete(Qel::InternedText const& path) const {
  if (!agentStatus_) return false;
  PassiveAgentStatus::MountRecord const* const ref = agentStatus_->mountRecord(path);
  if (!ref) return false;
  switch (ref->completion()) {
    case PassiveMountReference::Completion::complete:
      return true;
    case PassiveMountReference::Completion::orphaned: {
      // A mount found unchanged completes its reference even when no entity stands at the path.
      Qel::Entity::PtrConst const entity = ref->entity();
      TRACE(PassiveEntityManager, kTraceDecision, "mount reference holding orphaned entity: {}",
            entity ? entity->fullName() : Qel::String());
      return false;
    }
    case PassiveMountReference::Completion::incomplete:
      return false;
  }
  return false;
}

void PassiveEntityManagerSm::doPassiveMount(Qel::String const& mountPath,
                                            Qel::String const& userFlags,
                                            Qel::String const& typeName) {
  doPassiveMount(Qel::InternedText(mountPath), UserFlags(userFlags), Qel::InternedText(typeName));
}

void PassiveEntityManagerSm::doPassiveMount(Qel::InternedText const& path, UserFlags const& letters,
                                            Qel::InternedText const& internedType) {
  Qel::String const& mountPath = path.str();
  Qel::String const& typeName = internedType.str();
  Qel::String const& userFlags = letters.letters();
  TRACE(PassiveEntityManager, kTraceDecision, "mountPath: {} userFlags: {} typeName: {}", mountPath,
        userFlags, typeName);
  bool const granted = entMgr_ && entMgr_->writeMountsGranted();
  // A writable mount asked for before writing is granted (and not forced) goes out read-only
  // and is converted later.
  if (!granted && letters.has('w') && !letters.has('f')) {
    TRACE(PassiveEntityManager, kTraceDecision, "convertable mount Enqueuing {} {} {}", mountPath,
          userFlags, typeName);
    convertableMountsEnq(Mount(path, internedType, letters));
  }
  Qel::String const& rootFlags = agentProfile_ ? agentProfile_->rootFlags() : kNoFlags;
  Qel::MountFlags const requested =
      mountRequestFlags(letters, rootFlags.find('N') != std::string::npos, granted);
  TRACE(PassiveEntityManager, kTraceDecision, "Final flags: {}", requested.text());

  auto const table = peerMountTable();
  if (!table || !agentStatus_) return;
  auto const d = demuxer();
  // A reference for the path, if any: the mount has been attempted before.
  bool const firstAttempt = !agentStatus_->mountRecord(path);
  try {
    Qel::MountFlags const flags = requestFlags(mountPath, requested);
    Qel::Entity::Ptr entity = Qel::globalDir()->entity(mountPath);
    TRACE(PassiveEntityManager, kTraceDecision,
          "mounting: {} typeName: {} epoch: {} seqno: {} flags: {} entPtr: 0x{:x}", mountPath,
          typeName, d ? d->epoch() : 0u, d ? d->seqno() : 0u, flags.text(),
          static_cast<void const*>(entity.ptr()));

    // Looked up in place: compared before anything below can notify and change the table.
    Qel::MountTable::Conf const* const current = table->confOf(path);
    Qel::MountFlags const currentFlags = current ? current->flags() : Qel::MountFlags();
    Qel::InternedText const type = letters.has('c') ? internedType : Qel::InternedText();
    Qel::MountTable::Conf const next(path, type, flags,
                                     d ? d->internedName() : Qel::InternedText());
    bool const unchanged =
        (current && next == *current) ||
        (currentFlags.has(Qel::MountFlags::kConvertible) && !flags.has(Qel::MountFlags::kWrite));
    // Written by path, through the status: a notifiee may replace or drop the record meanwhile.
    PassiveAgentStatus::Ptr const status = agentStatus_;
    status->mountRecordIs(path);
    if (unchanged) {
      if (d) d->pathServedIs(mountPath, true);
      status->mountCompleteIs(path, true);
      status->mountEntityIs(path, entity);
      return;
    }
    if (firstAttempt) {
      table->confIs(next);
      if (!entity) entity = Qel::globalDir()->entity(mountPath);
      status->mountEntityIs(path, entity);
      Qel::MountTable::Stat const stat = table->stat(Qel::ConnectDesc(path));
      if (!stat.exceptionDesc().empty())
        std::cerr << mountPath << " Error: Hit QEL Exception: " << stat.exceptionDesc()
                  << " agent: " << agentName() << std::endl;
      return;
    }
    if (agentProfile_ && agentProfile_->hybridMount()) {
      Qel::MountFlags const diff = flags ^ currentFlags;
      if (diff.empty()) {
        TRACE(PassiveEntityManager, kTraceDecision,
              "Hybrid mount already mount entity for {} with the same flag 0x{:x} Just set entity.",
              mountPath, flags.value());
        status->mountEntityIs(path, entity);
        status->mountCompleteIs(path, true);
        return;
      }
      TRACE(PassiveEntityManager, kTraceDecision,
            "Already mounted entity for {} 0x{:x} hybrid {} current flag {} previous flag {} Hence "
            "remounting.",
            mountPath, static_cast<void const*>(entity.ptr()), true, flags.text(),
            currentFlags.text());
      table->confIs(next);
      status->mountEntityIs(path, entity);
      status->mountCompleteIs(path, true);
      Qel::MountTable::Stat const stat = table->stat(Qel::ConnectDesc(path));
      if (!stat.exceptionDesc().empty())
        std::cerr << mountPath << " Error: Hit QEL Exception: " << stat.exceptionDesc()
                  << " upon remount, agent: " << agentName() << std::endl;
      return;
    }
    PassiveAgentStatus::MountRecord const* const ref = status->mountRecord(path);
    if (ref && ref->entity()) {
      TRACE(PassiveEntityManager, kTraceDecision, "Mount path {} already mounted by agent {}",
            mountPath, agentName());
    } else {
      TRACE(PassiveEntityManager, kTraceDecision,
            "Mount path {}not mounted likely due to QEL Exception by agent {}", mountPath,
            agentName());
    }
  } catch (Qel::Exception const& e) {
    std::cerr << mountPath << " Error: Hit QEL Exception: " << e.what() << " agent: " << agentName()
              << std::endl;
    return;
  }
  handleClose(Qel::String(agentName()));
}

void PassiveEntityManagerSm::doNestedPassiveMount(Mount const& profileMount) {
  Mount const mount(canonicalPath(profileMount.internedPath()), profileMount.internedType(),
                    profileMount.userFlags());
  Qel::String const& path = mount.path();
  Qel::String const& flags = mount.userFlags().letters();
  if (isMountComplete(mount.internedPath())) {
    TRACE(PassiveEntityManager, kTraceDecision, "mount already complete for {}", path);
    return;
  }
  std::string_view const parent = parentOf(path);
  if (mount.userFlags().has('D')) {
    // A blocking directory mount keeps its group in progress until its mounter has finished.
    if (mount.userFlags().has('B')) pendingMountProfileIs(mount);
    if (passiveDirMounterCol(path)) {
      TRACE(PassiveEntityManager, kTraceDecision, "A passive dirMounter for {} is already present",
            path);
      return;
    }
    if (Qel::globalDir()->entity(path)) {
      TRACE(PassiveEntityManager, kTraceDecision,
            "{} already is present. Skipping passive dir mounter", path);
      if (mount.userFlags().has('B')) pendingMountProfileDel(path);
    } else if (!Qel::globalDir()->entity(Qel::String(parent))) {
      TRACE(PassiveEntityManager, kTraceDecision,
            "parent dir doesn't exist, will dir mount it later");
      pendingMountProfileIs(mount);
      return;
    } else {
      TRACE(PassiveEntityManager, kTraceDecision, "Starting passive dirMounter for {}", path);
      auto const clock = timerWheel() ? timerWheel()->clock() : Qel::Clock::Ptr();
      auto const mounter = passiveDirMounterFactory(agentName(), path, mount.userFlags(),
                                                    mount.type(), entMgr_, clock, mount, this);
      // Held before it starts: a mounter that finishes at once removes itself.
      passiveDirMounterColIs(path, mounter);
      mounter->start();
      return;
    }
  }
  TRACE(PassiveEntityManager, kTraceDecision, "mounting {} with flags {} Type: {}", path, flags,
        mount.type());
  TRACE(PassiveEntityManager, kTraceDecision, "parentDir: {}", parent);
  switch (parentSaState(parent)) {
    case ParentSaState::synchronised:
      return doPassiveMount(mount.internedPath(), mount.userFlags(), mount.internedType());
    case ParentSaState::waiting:
      return pendingMountProfileIs(mount);
    case ParentSaState::absent:
      return autoMountParent(mount, Qel::String(parent));
  }
}

PassiveEntityManagerSm::ParentSaState PassiveEntityManagerSm::parentSaState(
    std::string_view parent) {
  auto const table = peerMountTable();
  Qel::MountTable::PathState const* const state = table ? table->pathStateOf(parent) : nullptr;
  if (!state) return ParentSaState::absent;
  Qel::MountTable::PathState const sa = *state;
  if (sa.mounted() && sa.complete() && !sa.synchronised()) {
    TRACE(PassiveEntityManager, kTraceDecision, "mount for {} is complete but not synced", parent);
    return ParentSaState::waiting;
  }
  if (!sa.mountPoint() && !sa.synchronised()) {
    TRACE(PassiveEntityManager, kTraceDecision, "parent sa {} not a mountpoint and  unsynchronized",
          parent);
    return ParentSaState::waiting;
  }
  if (sa.synchronised() && sa.monitoring()) {
    TRACE(PassiveEntityManager, kTraceDecision, "parent sa {} synced but is monitoring eid={}",
          parent, sa.monitoringEid());
    return ParentSaState::waiting;
  }
  if (!sa.synchronised()) {
    TRACE(PassiveEntityManager, kTraceDecision, "parent sa {} not synced yet ", parent);
    return ParentSaState::waiting;
  }
  return ParentSaState::synchronised;
}

void PassiveEntityManagerSm::autoMountParent(Mount const& mount, Qel::String const& parent) {
  TRACE(PassiveEntityManager, kTraceDecision, "no sa for {} auto mounting", parent);
  Mount const parentMount = orEmpty(allMountPaths(parent));
  if (parentMount.empty()) return mountWholePath(mount);
  TRACE(PassiveEntityManager, kTraceDecision, "no sa for parent, mount profile found ");
  QEL_CHECK(parentMount.type() == "Qel::Dir", "parentMount.type() == \"Qel::Dir\"");
  // The child waits first, so that the parent's own pending state cannot hide it.
  pendingMountProfileIs(mount);
  doNestedPassiveMount(parentMount);
}

void PassiveEntityManagerSm::mountWholePath(Mount const& mount) {
  TRACE(PassiveEntityManager, kTraceDecision, "mounting the entire path with instantiating flag");
  auto const table = peerMountTable();
  Qel::PathComponents const components = Qel::pathComponents(mount.path());
  if (components.begin() == components.end()) return pendingMountProfileIs(mount);
  // Prefixes are mounted below the deepest one already mounted: those that stand already are
  // mounted as the child needs its parent ("r", or "wc" for a creating child), the missing ones
  // with the instantiating flags "fwc". The prefixes share one string,
  // `prefixes` ("/a/b/c" for "/a/b/c/d"), each running from its start to where `ends` says.
  Qel::String const standing = mount.userFlags().has('c') ? "wc" : "r";
  Qel::String prefixes;
  prefixes.reserve(mount.path().size() + 1);
  std::vector<std::size_t> ends;
  ends.reserve(static_cast<std::size_t>(std::count(mount.path().begin(), mount.path().end(), '/')));
  std::size_t firstUnmounted = 0;
  // The walk down the tree only names the first missing component in the trace.
  bool const traced = TRACE_ENABLED(PassiveEntityManager, kTraceDecision);
  Qel::Entity::Ptr dir = traced ? Qel::Entity::Ptr(Qel::globalDir()) : nullptr;
  std::string_view last;
  for (std::string_view const name : components) {
    if (!last.empty()) {
      // `last` is a prefix's final component: every component but the path's own last one.
      Qel::Entity::Ptr const next = dir ? dir->child(Qel::Name(last)) : nullptr;
      if (!next && dir)
        TRACE(PassiveEntityManager, kTraceDecision, "Component {} not found in {}", Qel::Name(last),
              dir->fullName());
      prefixes += '/';
      prefixes += last;
      ends.push_back(prefixes.size());
      if (table) {
        Qel::MountTable::PathState const* const state =
            table->pathStateOf(std::string_view(prefixes));
        if (state && state->mounted()) {
          TRACE(PassiveEntityManager, kTraceDecision, "{} already mounted ", prefixes);
          firstUnmounted = ends.size();
        }
      }
      dir = next;
    }
    last = name;
  }
  TRACE(PassiveEntityManager, kTraceDecision, "final component name is {}", Qel::Name(last));
  pendingMountProfileIs(mount);
  for (std::size_t i = firstUnmounted; i < ends.size() && initialized(); ++i) {
    std::string_view const p(prefixes.data(), ends[i]);
    if (table && table->hasPathState(p)) continue;
    Qel::String const path(p);
    TRACE(PassiveEntityManager, kTraceDecision, "mounting prefix {}", path);
    doPassiveMount(path, Qel::globalDir()->entity(path) ? standing : Qel::String("fwc"), kDirType);
  }
}

void PassiveEntityManagerSm::doPopulateMountPaths() {
  TRACE(PassiveEntityManager, kTraceEntry,
        "PassiveEntityManagerSm::doPopulateMountPaths():  agentName: {}", agentName());
  if (!agentProfile_) return;
  // Room for every path of the profile at once: the table grows again only for parents added on
  // a path's behalf.
  std::size_t paths = allMountPaths_.size();
  for (auto const& [name, group] : agentProfile_->mountGroup())
    paths += group ? group->mountProfile().size() : 0;
  allMountPaths_.reserve(paths);
  for (auto const& [name, group] : agentProfile_->mountGroup()) {
    TRACE(PassiveEntityManager, kTraceDecision, "mount group {}",
          group ? Qel::String(name) : Qel::String("<unknown>"));
    if (!group) continue;
    for (auto const& [rawPath, profileMount] : group->mountProfile()) {
      Mount const mount(canonicalPath(profileMount.internedPath()), profileMount.internedType(),
                        profileMount.userFlags());
      Mount const existing = orEmpty(allMountPaths(mount.path()));
      if (existing.empty()) {
        TRACE(PassiveEntityManager, kTraceDecision, "Adding path  {} to allMountPaths ",
              mount.path());
        allMountPathsIs(mount);
      } else if (existing.flags() != mount.flags()) {
        TRACE(PassiveEntityManager, kTraceDecision, "not upgrading flags for {} from {} to {}",
              mount.path(), existing.flags(), mount.flags());
      }
      maybeAddParentMountProfile(mount);
    }
  }
}

void PassiveEntityManagerSm::maybeAddParentMountProfile(Mount const& mount) {
  if (!mount.userFlags().has('c')) return;
  std::vector<Qel::Name> const components = componentsOf(mount.path());
  Qel::Entity::Ptr dir = Qel::globalDir();
  Qel::String deepest;
  // The mount's own last component is what it creates: only its ancestors are walked.
  for (std::size_t i = 0; i + 1 < components.size(); ++i) {
    Qel::Entity::Ptr const next = dir->child(components[i]);
    if (!next || !dynamic_cast<Qel::Dir const*>(next.ptr())) {
      TRACE(PassiveEntityManager, kTraceDecision, "{} not found in {}", components[i],
            dir->fullName());
      break;
    }
    deepest += "/" + components[i];
    dir = next;
  }
  if (deepest.empty()) return;
  Mount const existing = orEmpty(allMountPaths(deepest));
  if (existing.empty()) {
    TRACE(PassiveEntityManager, kTraceDecision, "Adding path  {} to allMountPaths ", deepest);
    allMountPathsIs(Mount(deepest, kDirType, "w"));
    return;
  }
  if (existing.userFlags().has('w')) return;
  Qel::String const upgraded = existing.flags() + "w";
  TRACE(PassiveEntityManager, kTraceDecision, "upgrading flags for {} from {} to {}", deepest,
        existing.flags(), upgraded);
  allMountPathsIs(Mount(deepest, existing.type(), upgraded));
}

}  // namespace Ledra
