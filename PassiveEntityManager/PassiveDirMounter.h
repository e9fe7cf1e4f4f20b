// Ledra::PassiveDirMounter: mounts a directory for an agent entry by entry (a mount profile with
// the flag 'D'). The engine starts one when the directory does not stand yet. The platform base
// (Ledra::DirMounter) finds and watches the directory and queues the entries; this class mounts
// each through the engine's doNestedPassiveMount:
//   - entries present when the directory appears: as read-only directories ("Qel::Dir", "r");
//   - entries that appear afterwards, and entries requested before they exist: with the profile's
//     flags less 'D' and 'B'. An entry that is not a directory yet is retried every 1.0 second on
//     the mounter's clock; nothing is dropped.
// The mounter completes once nothing is queued and the directory has had no new entry for one
// retry period (1.0 second), so a directory that is still being filled is followed to the end.
// A blocking mounter ('B') keeps its mount in the engine's pendingMountProfile, so its group stays
// in progress, until then; on completion it removes itself from the engine's
// passiveDirMounterCol, which releases it.
//
// The engine owns the mounter (passiveDirMounterCol); managerSm is a plain back pointer that the
// engine clears when it drops the mounter. Single-threaded.
#pragma once

#include "Ledra/DirMounter.h"
#include "Ledra/EntityManager.h"
#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/Mount.h"
#include "PassiveEntityManager/UserFlags.h"

namespace Ledra {

class PassiveEntityManagerSm;

// The attributes, in id order after the base's (see Qel/Entity/AttrList.h).
#define LEDRA_PASSIVE_DIR_MOUNTER_ATTRIBUTES(X) \
  X(getter, none, Mount, mount, Mount)          \
  X(getter, none, bool, blocking, Blocking)     \
  X(getter, none, bool, initialized, Initialized)

class LEDRA_PEM_EXPORT PassiveDirMounter : public DirMounter {
 public:
  using Ptr = Qel::Ptr<PassiveDirMounter>;
  using PtrConst = Qel::Ptr<PassiveDirMounter const>;
  QEL_ATTR_IDS_AFTER(DirMounter, LEDRA_PASSIVE_DIR_MOUNTER_ATTRIBUTES);
  static constexpr Qel::Time kRetryDelay = 1.0;

  static Ptr passiveDirMounterNew(Qel::String const& agentName, Qel::String const& path,
                                  UserFlags const& mountFlags, Qel::String const& entityType,
                                  EntityManager::PtrConst const& entityManager,
                                  Qel::Clock::PtrConst const& clock, Mount const& mount,
                                  PassiveEntityManagerSm* managerSm);

  Qel::String const& agentName() const { return agentName_; }
  Mount const& mount() const { return mount_; }
  EntityManager::PtrConst const& entityManager() const { return entityManager_; }
  PassiveEntityManagerSm* managerSm() const { return managerSm_; }
  void managerSmIs(PassiveEntityManagerSm* e) { managerSm_ = e; }
  bool blocking() const { return blocking_; }
  bool initialized() const { return initialized_; }

  void handleInit() override;
  void handleExistingDirEntry(Qel::Entity::Ptr const& entity, Qel::String path) override;
  void handleMountRequest() override;
  void handleComplete(Qel::Entity::Ptr const& entity) override;

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType();

 protected:
  PassiveDirMounter(Qel::String agentName, Qel::String const& path, UserFlags const& mountFlags,
                    Qel::String const& entityType, EntityManager::PtrConst entityManager,
                    Qel::Clock::PtrConst const& clock, Mount mount,
                    PassiveEntityManagerSm* managerSm);
  ~PassiveDirMounter() override = default;

 private:
  Qel::String const agentName_;
  Mount const mount_;
  EntityManager::PtrConst const entityManager_;
  PassiveEntityManagerSm* managerSm_;
  bool blocking_ = false;
  bool initialized_ = false;
};

// Creates a directory mounter (not started) for the engine `managerSm`: the directory `path`,
// mounted with the profile's flag letters `mountFlags` and the entity type name `entityType`.
LEDRA_PEM_EXPORT PassiveDirMounter::Ptr passiveDirMounterFactory(
    Qel::String const& agentName, Qel::String const& path, UserFlags const& mountFlags,
    Qel::String const& entityType, EntityManager::PtrConst const& entityManager,
    Qel::Clock::PtrConst const& clock, Mount const& mount, PassiveEntityManagerSm* managerSm);

}  // namespace Ledra
