#include "PassiveEntityManager/PassiveDirMounter.h"

#include "Ledra/StripString.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/TraceFacility.h"

namespace Ledra {

PassiveDirMounter::Ptr PassiveDirMounter::passiveDirMounterNew(
    Qel::String const& agentName, Qel::String const& path, UserFlags const& mountFlags,
    Qel::String const& entityType, EntityManager::PtrConst const& entityManager,
    Qel::Clock::PtrConst const& clock, Mount const& mount, PassiveEntityManagerSm* managerSm) {
  return Ptr(new PassiveDirMounter(agentName, path, mountFlags, entityType, entityManager, clock,
                                   mount, managerSm));
}

PassiveDirMounter::Ptr passiveDirMounterFactory(
    Qel::String const& agentName, Qel::String const& path, UserFlags const& mountFlags,
    Qel::String const& entityType, EntityManager::PtrConst const& entityManager,
    Qel::Clock::PtrConst const& clock, Mount const& mount, PassiveEntityManagerSm* managerSm) {
  return PassiveDirMounter::passiveDirMounterNew(agentName, path, mountFlags, entityType,
                                                 entityManager, clock, mount, managerSm);
}

PassiveDirMounter::PassiveDirMounter(Qel::String agentName, Qel::String const& path,
                                     UserFlags const& mountFlags, Qel::String const& entityType,
                                     EntityManager::PtrConst entityManager,
                                     Qel::Clock::PtrConst const& clock, Mount mount,
                                     PassiveEntityManagerSm* managerSm)
    : DirMounter(Qel::Name(path)),
      agentName_(std::move(agentName)),
      mount_(std::move(mount)),
      entityManager_(std::move(entityManager)),
      managerSm_(managerSm) {
  mountPathIs(path);
  entityTypeIs(entityType);
  mountFlagsIs(mountFlags.letters());
  clockIs(clock);
  // A directory that has just appeared is still being filled: its entries are awaited until it
  // has been quiet for one retry period.
  if (clock) settleDelayIs(kRetryDelay);
  // Present entries are mounted by handleExistingDirEntry, not queued a second time.
  queueExistingEntriesIs(false);
}

void PassiveDirMounter::handleInit() {
  if (mountFlags().find('B') != std::string::npos) {
    blocking_ = true;
    TRACE(PassiveEntityManager, kTraceDecision, "{} Enabling a blocking DirMounter", mountPath());
  }
  mountFlagsIs(stripString(mountFlags(), "DB"));
  initialized_ = true;
}

void PassiveDirMounter::handleExistingDirEntry(Qel::Entity::Ptr const& entity, Qel::String path) {
  TRACE(PassiveEntityManager, kTraceDecision, "handleExistingDirEntry entityPtr: 0x{:x} path: {}",
        static_cast<void const*>(entity.ptr()), path);
  if (managerSm_) managerSm_->doNestedPassiveMount(Mount(path, "Qel::Dir", "r"));
}

void PassiveDirMounter::handleMountRequest() {
  TRACE(PassiveEntityManager, kTraceDecision, "PassiveDirMounter Started Mounting");
  EntryMount const entry = deferredMountFront();
  if (entry.empty()) {
    TRACE(PassiveEntityManager, kTraceDecision, "PassiveDirMounter Finished Mounting");
    return;
  }
  Qel::String const path = mountPath() + "/" + entry.entryName();
  Qel::Entity::Ptr const entity = Qel::globalDir()->entity(path);
  if (!entity || !dynamic_cast<Qel::Dir const*>(entity.ptr())) {
    TRACE(PassiveEntityManager, kTraceDecision, "{} not present ..delaying mount ", path);
    timeMinIs(clock()->now() + kRetryDelay);
    return;
  }
  TRACE(PassiveEntityManager, kTraceDecision, "Mounting {}", path);
  deferredMountDeq();
  if (managerSm_) managerSm_->doNestedPassiveMount(Mount(path, entry.type(), entry.flags()));
  if (deferredMounts() == 0)
    TRACE(PassiveEntityManager, kTraceDecision, "PassiveDirMounter Finished Mounting");
}

void PassiveDirMounter::handleComplete(Qel::Entity::Ptr const&) {
  TRACE(PassiveEntityManager, kTraceDecision, "PassiveDirMounter::handleComplete: {}", mountPath());
  PassiveEntityManagerSm* const engine = managerSm_;
  if (!engine) return;
  if (blocking_) {
    engine->pendingMountProfileDel(mount_.path());
    TRACE(PassiveEntityManager, kTraceDecision, "{} Removing a blocking DirMounter", mountPath());
    Qel::String const prefix = mountPath() + "/";
    for (auto const& [pending, m] : engine->pendingMountProfile()) {
      if (pending.rfind(prefix, 0) != 0) continue;
      TRACE(PassiveEntityManager, kTraceDecision, "waiting for other entries for path prefix {}",
            prefix);
      break;
    }
  }
  engine->passiveDirMounterColDel(mountPath());
}

Qel::QelType const* PassiveDirMounter::staticType() {
  static Qel::QelType const* t = [] {
    Qel::TypeBuilder<PassiveDirMounter> b("Ledra::PassiveDirMounter");
    DirMounter::qelAttributes(b);
    b QEL_ATTR_REFLECTION(LEDRA_PASSIVE_DIR_MOUNTER_ATTRIBUTES)
        .factory([](Qel::Name const&) -> Qel::Entity::Ptr {
          throw Qel::TypeException("a directory mounter is created by its engine");
        });
    return b.done();
  }();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveDirMounter::staticType();
}

}  // namespace Ledra
