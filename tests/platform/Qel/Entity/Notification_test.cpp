// Delivery of notifications, on the activity-manager configuration as a plain compiled entity:
// safe against notifiees and notifiers coming and going during delivery, and re-entrant.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Qel/Core/ObserverList.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "tests/support/LeakCheck.h"

namespace {

using Config = Qel::ActivityManagerConfig;

class Counter : public Config::NotifieeConst {
 public:
  int calls = 0;
  std::function<void()> action;
  void onSystemName() override {
    ++calls;
    if (action) action();
  }
};

class WeakWatcher : public Qel::GenericIf::NotifieeConst {
 public:
  WeakWatcher() : NotifieeConst(Reference::weak) {}
  int deleted = 0;
  void onNotifierDeleted() override {
    ++deleted;
    NotifieeConst::onNotifierDeleted();
  }
};

class NotificationTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    g = Config::activityManagerConfigNew("g");
  }
  void TearDown() override {
    g = nullptr;
    LeakCheckedTest::TearDown();
  }
  Config::Ptr g;
};

// Only real changes are told, and not to switched-off or zombie notifiees; the generic view
// writes too.
TEST_F(NotificationTest, OnlyRealChangesReachActiveNotifiees) {
  Counter c;
  c.notifierIs(g);
  g->systemNameIs("ledra");  // unchanged
  c.hasNotificationActiveIs(false);
  g->systemNameIs("a");
  c.hasNotificationActiveIs(true);
  c.qelDoZombieReactorsIs(true);
  g->systemNameIs("b");
  EXPECT_EQ(c.calls, 0);
  c.qelDoZombieReactorsIs(false);
  g->attributeIs("systemName", Qel::String("c"));
  g->systemNameIs("c");
  EXPECT_EQ(c.calls, 1);
}

// A notifiee that throws ends the delivery: the exception reaches the writer, the notifiees after
// it miss this change, and the next change reaches everyone again (including a removal made
// before the throw).
TEST_F(NotificationTest, ANotifieeThatThrowsEndsOnlyThatDelivery) {
  Counter first, thrower, after, removed;
  first.notifierIs(g);
  thrower.notifierIs(g);
  removed.notifierIs(g);
  after.notifierIs(g);
  bool fail = true;
  thrower.action = [&] {
    removed.notifierIs(nullptr);
    if (fail) throw std::runtime_error("notifiee failed");
  };
  EXPECT_THROW(g->systemNameIs("a"), std::runtime_error);
  EXPECT_EQ(first.calls + thrower.calls + after.calls + removed.calls, 2);
  fail = false;
  g->systemNameIs("b");
  EXPECT_EQ(first.calls, 2);
  EXPECT_EQ(thrower.calls, 2);
  EXPECT_EQ(after.calls, 1);
  EXPECT_EQ(removed.calls, 0);
}

// During one delivery: `first` removes `second` before its turn and adds `late`; `doomed` destroys
// itself; `third` after them is still called, and `late` waits for the next change.
TEST_F(NotificationTest, NotifieesComingAndGoingDuringDelivery) {
  Counter first, second, third, late;
  auto doomed = std::make_unique<Counter>();
  first.notifierIs(g);
  second.notifierIs(g);
  doomed->notifierIs(g);
  third.notifierIs(g);
  first.action = [&] {
    second.notifierIs(nullptr);
    late.notifierIs(g);
  };
  doomed->action = [&] { doomed.reset(); };
  g->systemNameIs("a");
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 0);
  EXPECT_FALSE(doomed);
  EXPECT_EQ(third.calls, 1);
  EXPECT_EQ(late.calls, 0);
  first.action = nullptr;
  g->systemNameIs("b");
  EXPECT_EQ(late.calls, 1);
}

TEST_F(NotificationTest, NestedNotificationOfTheSameEntity) {
  Counter first, second;
  first.notifierIs(g);
  second.notifierIs(g);
  first.action = [&] {
    if (g->systemName().size() < 3) g->systemNameIs(g->systemName() + "x");
  };
  g->systemNameIs("x");
  EXPECT_EQ(g->systemName(), "xxx");
  EXPECT_EQ(first.calls, 3);
  EXPECT_EQ(second.calls, 3);
}

TEST_F(NotificationTest, AStrongNotifieeHoldsItsNotifierUntilItRebindsOrDies) {
  auto c = std::make_unique<Counter>();
  c->notifierIs(g);
  EXPECT_EQ(g->refCount(), 2u);
  auto b = Config::activityManagerConfigNew("b");
  c->notifierIs(b);
  EXPECT_EQ(g->refCount(), 1u);
  g->systemNameIs("a");
  b->systemNameIs("a");
  EXPECT_EQ(c->calls, 1);
  b = nullptr;
  c.reset();  // the last reference to b goes here; the leak check sees it die
}

TEST_F(NotificationTest, NotifierDyingFirstDetachesWeakNotifiees) {
  WeakWatcher weak;
  weak.notifierIs(g);
  EXPECT_EQ(g->refCount(), 1u);
  g = nullptr;
  EXPECT_EQ(weak.deleted, 1);
  EXPECT_EQ(weak.notifierBase(), nullptr);
}

TEST_F(NotificationTest, NotifieeDroppingTheLastReferenceDuringDelivery) {
  auto* raw = g.release();  // owned by the notifiees below only
  Counter owner, other;
  owner.notifierIs(Config::PtrConst(raw));
  other.notifierIs(Config::PtrConst(raw));
  raw->deleteRef();
  owner.action = [&] {
    owner.notifierIs(nullptr);
    other.notifierIs(nullptr);
  };
  raw->systemNameIs("a");  // must not touch the entity after its last notifiee let go
  EXPECT_EQ(owner.calls, 1);
}

using NotificationDeathTest = NotificationTest;

TEST_F(NotificationDeathTest, AnObserverIsAddedOnceAndNeverNullNorADirectoryEntry) {
  Qel::ObserverList<Counter> list;
  Counter c;
  list.add(&c);
  EXPECT_DEATH(list.add(&c), "\"observer added twice\"");
  EXPECT_DEATH(list.add(nullptr), "\"null observer\"");
  EXPECT_DEATH(Qel::globalDir()->entryIs(nullptr), "\"null entry\"");
}

TEST_F(NotificationDeathTest, TheActivityManagerNeedsAClock) {
  EXPECT_DEATH(g->clockIs(nullptr), "\"the activity manager needs a clock\"");
}

}  // namespace

// A change told in several calls (as a collection's is) stops at the call that destroyed the
// notifiee: nothing reaches the dead object. Nested dispatches hand the news outwards.
class InTurn : public Config::NotifieeConst {
 public:
  explicit InTurn(std::vector<int>& calls) : calls_(calls) {}
  bool deleteAtFirst = false;
  bool nestAtFirst = false;
  void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
    dispatchInTurn(
        [&] {
          calls_.push_back(1);
          if (nestAtFirst) {
            nestAtFirst = false;
            return qelDispatch(aid, key);
          }
          if (deleteAtFirst) delete this;
        },
        [&] { calls_.push_back(2); }, [&] { calls_.push_back(3); });
  }

 private:
  std::vector<int>& calls_;
};

TEST_F(NotificationTest, ACallThatDestroysTheNotifieeEndsItsDispatch) {
  std::vector<int> calls;
  auto* n = new InTurn(calls);
  n->notifierIs(g);
  g->systemNameIs("a");
  EXPECT_EQ(calls, (std::vector<int>{1, 2, 3}));
  calls.clear();
  n->nestAtFirst = true;
  n->deleteAtFirst = true;
  g->systemNameIs("b");
  // The nested dispatch deleted it at its first call; the outer one stops as well.
  EXPECT_EQ(calls, (std::vector<int>{1, 1}));
}
