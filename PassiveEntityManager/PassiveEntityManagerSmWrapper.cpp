#include "PassiveEntityManager/PassiveEntityManagerSmWrapper.h"

#include <cstdint>
#include <cstdio>
#include <new>
#include <string>

#include "Qel/Core/Exception.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

namespace {

std::string pointerText(Qel::Entity const* p) {
  if (!p) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(p)));
  return p->fullName() + "@" + buf;
}

void requireSame(char const* attribute, Qel::Entity const* requested, Qel::Entity const* current) {
  if (requested == current) return;
  throw Qel::NameInUseException(
      std::string("Reinstantiating the pointer interface where constructor parameter attribute ") +
      attribute + " has a different value of " + pointerText(requested) +
      " than the current value of " + pointerText(current) + " not allowed");
}

}  // namespace

PassiveEntityManagerSmWrapper::~PassiveEntityManagerSmWrapper() {
  if (root_) root_->qelParentIs(nullptr);
}

PassiveEntityManagerRootSm::Ptr PassiveEntityManagerSmWrapper::passiveEntityManagerRootSmIs(
    PassiveAgentProfileDir::Ptr const& agentProfileDir,
    PassiveAgentStatusDir::Ptr const& agentStatusDir, EntityManager::PtrConst const& entMgr) {
  if (root_) {
    requireSame("_agentProfileDir", agentProfileDir.ptr(), root_->agentProfileDir().ptr());
    requireSame("_agentStatusDir", agentStatusDir.ptr(), root_->agentStatusDir().ptr());
    requireSame("_entMgr", entMgr.ptr(), root_->entMgr().ptr());
    return root_;
  }
  root_ = PassiveEntityManagerRootSm::passiveEntityManagerRootSmNew(agentProfileDir, agentStatusDir,
                                                                    entMgr);
  root_->qelParentIs(this);
  notify(kPassiveEntityManagerRootSm);
  return root_;
}

void PassiveEntityManagerSmWrapper::passiveEntityManagerRootSmDel() {
  if (!root_) return;
  PassiveEntityManagerRootSm::Ptr const root = std::move(root_);
  root->qelParentIs(nullptr);
  notify(kPassiveEntityManagerRootSm);
}

Qel::Entity::Ptr PassiveEntityManagerSmWrapper::child(Qel::Name const& name) const {
  if (root_ && root_->name() == name) return root_;
  return nullptr;
}

Qel::QelType const* PassiveEntityManagerSmWrapper::staticType() {
  using W = PassiveEntityManagerSmWrapper;
  static Qel::QelType const* t =
      Qel::TypeBuilder<W>("Ledra::PassiveEntityManagerSmWrapper")
          QEL_ATTR_REFLECTION(LEDRA_PASSIVE_ENTITY_MANAGER_SM_WRAPPER_ATTRIBUTES)
              .factory([](Qel::Name const& n) {
                return Qel::Entity::Ptr(passiveEntityManagerSmWrapperFactory(n));
              })
              .done();
  return t;
}

PassiveEntityManagerSmWrapper::Ptr passiveEntityManagerSmWrapperFactory(Qel::Name const& name) {
  PassiveEntityManagerSmWrapper::Ptr wrapper;
  try {
    wrapper = PassiveEntityManagerSmWrapper::passiveEntityManagerSmWrapperNew(name);
  } catch (std::bad_alloc const&) {
  }
  if (!wrapper) throw Qel::RangeException(Qel::kNullValidPtr);
  return wrapper;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered =
    PassiveEntityManagerSmWrapper::staticType();
}

}  // namespace Ledra
