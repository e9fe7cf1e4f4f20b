// The entity manager: role switching notified as onLocal(), the write-mount grant.
#include "Ledra/EntityManager.h"

#include <gtest/gtest.h>

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

}  // namespace
