// The entity manager: role switching notified as onLocal(), the write-mount grant, the generic
// view of the role enum.
#include "Ledra/EntityManager.h"

#include <gtest/gtest.h>

#include "Qel/Exception.h"
#include "support/LeakCheck.h"

namespace {

using Ledra::EntityManager;
using Role = EntityManager::Role;

class Watch : public EntityManager::NotifieeConst {
 public:
  int locals = 0;
  int grants = 0;
  bool activeAtLocal = false;
  void onLocal() override {
    ++locals;
    activeAtLocal = notifier()->active();
  }
  void onWriteMountsGranted() override { ++grants; }
};

using EntityManagerTest = Ledra::test::LeakCheckedTest;

TEST_F(EntityManagerTest, EachChangeOfRoleOrGrantNotifiesOnce) {
  auto em = EntityManager::entityManagerNew("entMgr", Role::backup);
  Watch w;
  w.notifierIs(em);
  em->localIs(Role::backup);
  em->localIs(Role::active);
  em->localIs(Role::active);
  EXPECT_EQ(w.locals, 1);
  EXPECT_TRUE(w.activeAtLocal);
  em->writeMountsGrantedIs(true);
  em->writeMountsGrantedIs(true);
  em->writeMountsGrantedIs(false);
  EXPECT_EQ(w.grants, 2);
  EXPECT_TRUE(EntityManager::entityManagerNew("other")->active());
}

TEST_F(EntityManagerTest, RoleIsAnEnumInTheGenericView) {
  auto em = EntityManager::entityManagerNew("entMgr", Role::backup);
  Qel::GenericIf::PtrConst g(em.ptr());
  EXPECT_EQ(g->attribute(g->attributeId("local"))->text(), "backup");
  em->attributeIs("local", Qel::String("active"));
  EXPECT_TRUE(em->active());
  EXPECT_THROW(em->attributeIs("local", Qel::String("primary")), Qel::ParseException);
}

}  // namespace
