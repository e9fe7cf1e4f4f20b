// Delivery of notifications: once per change, none for equal stores, and safe against
// notifiees and notifiers coming and going during delivery.
#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "Qel/Entity.h"
#include "Qel/Exception.h"
#include "Qel/GenericValue.h"
#include "Qel/TypeBuilder.h"
#include "support/LeakCheck.h"

namespace {

// A compiled entity type with one plain attribute and one keyed collection.
class Gauge : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Gauge>;
  static constexpr Qel::AttributeId kLevel = 1;
  static constexpr Qel::AttributeId kReading = 2;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    using Qel::BasicNotifiee<N>::BasicNotifiee;
    virtual void onLevel() {}
    virtual void onReading(Qel::String const& key) {}
    void qelDispatch(Qel::AttributeId aid, Qel::NotifyKey const& key) override {
      if (aid == kLevel) onLevel();
      if (aid == kReading) onReading(*static_cast<Qel::String const*>(key.native));
    }
  };
  using NotifieeConst = NotifieeT<Gauge const>;

  static Ptr gaugeNew(Qel::Name const& name) { return Ptr(new Gauge(name)); }

  Qel::U32 level() const { return level_; }
  void levelIs(Qel::U32 v) {
    if (v == level_) return;
    level_ = v;
    notify(kLevel);
  }
  std::optional<double> reading(Qel::String const& k) const {
    auto it = readings_.find(k);
    if (it == readings_.end()) return std::nullopt;
    return it->second;
  }
  void readingIs(Qel::String const& k, double v) {
    auto [it, inserted] = readings_.try_emplace(k, v);
    if (!inserted && it->second == v) return;
    it->second = v;
    notifyKey(kReading, k);
  }
  std::size_t readings() const { return readings_.size(); }

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType() {
    static Qel::QelType const* t =
        Qel::TypeBuilder<Gauge>("test::Gauge")
            .value<Qel::U32>(
                "level", [](Gauge const& g) { return g.level(); },
                [](Gauge& g, Qel::U32 v) { g.levelIs(v); })
            .collection<Qel::String, double>(
                "reading", [](Gauge const& g, Qel::String const& k) { return g.reading(k); },
                [](Gauge const& g) { return g.readings(); })
            .done();
    return t;
  }

 private:
  explicit Gauge(Qel::Name name) : Entity(std::move(name)) {}
  Qel::U32 level_ = 0;
  std::map<Qel::String, double> readings_;
};

class Counter : public Gauge::NotifieeConst {
 public:
  int levels = 0;
  std::vector<Qel::String> keys;
  std::function<void()> onLevelDo;
  void onLevel() override {
    ++levels;
    if (onLevelDo) onLevelDo();
  }
  void onReading(Qel::String const& key) override { keys.push_back(key); }
};

class GenericCounter : public Qel::GenericIf::NotifieeConst {
 public:
  using Qel::GenericIf::NotifieeConst::NotifieeConst;
  std::vector<std::pair<Qel::AttributeId, Qel::String>> seen;
  int deleted = 0;
  void onAttribute(Qel::AttributeId aid, Qel::GenericIf::PtrConst& key) override {
    seen.emplace_back(aid, key ? key->text() : Qel::String("-"));
  }
  void onNotifierDeleted() override {
    ++deleted;
    NotifieeConst::onNotifierDeleted();
  }
};

using NotificationTest = Ledra::test::LeakCheckedTest;

TEST_F(NotificationTest, ChangeNotifiesOnceAndEqualStoreNotAtAll) {
  auto g = Gauge::gaugeNew("g");
  Counter c;
  c.notifierIs(g);
  g->levelIs(3);
  g->levelIs(3);
  EXPECT_EQ(c.levels, 1);
  g->readingIs("t", 1.5);
  g->readingIs("t", 1.5);
  g->readingIs("t", 2.5);
  EXPECT_EQ(c.keys, (std::vector<Qel::String>{"t", "t"}));
}

TEST_F(NotificationTest, TypedAndGenericNotifieesSeeTheSameChanges) {
  auto g = Gauge::gaugeNew("g");
  Counter typed;
  GenericCounter generic;
  typed.notifierIs(g);
  generic.notifierIs(g);
  g->levelIs(7);
  g->readingIs("k", 1.0);
  EXPECT_EQ(typed.levels, 1);
  ASSERT_EQ(generic.seen.size(), 2u);
  EXPECT_EQ(generic.seen[0], std::make_pair(Gauge::kLevel, Qel::String("-")));
  EXPECT_EQ(generic.seen[1], std::make_pair(Gauge::kReading, Qel::String("k")));
}

TEST_F(NotificationTest, SwitchedOffAndZombieNotifieesReceiveNothing) {
  auto g = Gauge::gaugeNew("g");
  Counter c;
  c.notifierIs(g);
  c.hasNotificationActiveIs(false);
  g->levelIs(1);
  c.hasNotificationActiveIs(true);
  c.qelDoZombieReactorsIs(true);
  g->levelIs(2);
  EXPECT_EQ(c.levels, 0);
  c.qelDoZombieReactorsIs(false);
  g->levelIs(3);
  EXPECT_EQ(c.levels, 1);
}

TEST_F(NotificationTest, NotifieeRemovedDuringNotificationIsNotCalledAfterwards) {
  auto g = Gauge::gaugeNew("g");
  Counter first, second, third;
  first.notifierIs(g);
  second.notifierIs(g);
  third.notifierIs(g);
  first.onLevelDo = [&] { second.notifierIs(nullptr); };
  g->levelIs(1);
  EXPECT_EQ(first.levels, 1);
  EXPECT_EQ(second.levels, 0);
  EXPECT_EQ(third.levels, 1);
  EXPECT_EQ(g->notifiees(), 2u);
}

TEST_F(NotificationTest, NotifieeRemovingItselfAndDyingDuringNotification) {
  auto g = Gauge::gaugeNew("g");
  auto doomed = std::make_unique<Counter>();
  Counter after;
  doomed->notifierIs(g);
  after.notifierIs(g);
  doomed->onLevelDo = [&] { doomed.reset(); };
  g->levelIs(1);
  EXPECT_FALSE(doomed);
  EXPECT_EQ(after.levels, 1);
  EXPECT_EQ(g->notifiees(), 1u);
}

TEST_F(NotificationTest, NotifieeAddedDuringNotificationWaitsForTheNextChange) {
  auto g = Gauge::gaugeNew("g");
  Counter first, late;
  first.notifierIs(g);
  first.onLevelDo = [&] { late.notifierIs(g); };
  g->levelIs(1);
  EXPECT_EQ(late.levels, 0);
  first.onLevelDo = nullptr;
  g->levelIs(2);
  EXPECT_EQ(late.levels, 1);
}

TEST_F(NotificationTest, NestedNotificationOfTheSameEntity) {
  auto g = Gauge::gaugeNew("g");
  Counter first, second;
  first.notifierIs(g);
  second.notifierIs(g);
  first.onLevelDo = [&] {
    if (g->level() < 3) g->levelIs(g->level() + 1);
  };
  g->levelIs(1);
  EXPECT_EQ(g->level(), 3u);
  EXPECT_EQ(first.levels, 3);
  EXPECT_EQ(second.levels, 3);
}

TEST_F(NotificationTest, StrongNotifieeKeepsItsNotifierAlive) {
  Counter c;
  {
    auto g = Gauge::gaugeNew("g");
    c.notifierIs(g);
    EXPECT_EQ(g->refCount(), 2u);
  }
  ASSERT_TRUE(c.notifier());
  EXPECT_EQ(c.notifier()->name(), "g");
  c.notifierIs(nullptr);  // the last reference goes: the gauge dies here
}

TEST_F(NotificationTest, NotifierDyingFirstDetachesWeakNotifiees) {
  GenericCounter weak(Qel::NotifieeBase::Reference::weak);
  auto g = Gauge::gaugeNew("g");
  weak.notifierIs(g);
  EXPECT_EQ(g->refCount(), 1u);
  g.reset();
  EXPECT_EQ(weak.deleted, 1);
  EXPECT_FALSE(weak.notifier());
  EXPECT_EQ(weak.notifierBase(), nullptr);
}

TEST_F(NotificationTest, NotifieeDyingFirstUnregisters) {
  auto g = Gauge::gaugeNew("g");
  {
    Counter c;
    c.notifierIs(g);
    EXPECT_EQ(g->notifiees(), 1u);
  }
  EXPECT_EQ(g->notifiees(), 0u);
  EXPECT_EQ(g->refCount(), 1u);
  g->levelIs(1);  // nobody left to call
}

TEST_F(NotificationTest, NotifieeDroppingTheLastReferenceDuringDelivery) {
  auto* g = Gauge::gaugeNew("g").release();  // owned by the notifiee below only
  Counter owner;
  owner.notifierIs(Qel::Ptr<Gauge const>(g));
  g->deleteRef();
  Counter other;
  other.notifierIs(Qel::Ptr<Gauge const>(g));
  owner.onLevelDo = [&] {
    owner.notifierIs(nullptr);
    other.notifierIs(nullptr);
  };
  g->levelIs(1);  // must not touch the gauge after its last notifiee let go
  EXPECT_EQ(owner.levels, 1);
}

TEST_F(NotificationTest, RebindingMovesTheRegistration) {
  auto a = Gauge::gaugeNew("a");
  auto b = Gauge::gaugeNew("b");
  Counter c;
  c.notifierIs(a);
  c.notifierIs(b);
  a->levelIs(1);
  b->levelIs(1);
  EXPECT_EQ(c.levels, 1);
  EXPECT_EQ(a->notifiees(), 0u);
  EXPECT_EQ(a->refCount(), 1u);
}

TEST_F(NotificationTest, CompiledTypeThroughTheGenericView) {
  auto g = Gauge::gaugeNew("g");
  g->attributeIs("level", Qel::String("42"));
  EXPECT_EQ(g->level(), 42u);
  g->attributeIs("level", Qel::ValueTraits<Qel::U32>::box(5));
  EXPECT_EQ(g->attribute(Gauge::kLevel)->valueAs<Qel::U32>(), 5u);
  g->readingIs("x", 2.5);
  auto key = Qel::ValueTraits<Qel::String>::box("x");
  EXPECT_DOUBLE_EQ(g->attribute(Gauge::kReading, key)->valueAs<double>(), 2.5);
  EXPECT_TRUE(g->isMember(Gauge::kReading, key)->valueAs<bool>());
  EXPECT_FALSE(
      g->isMember(Gauge::kReading, Qel::ValueTraits<Qel::String>::box("y"))->valueAs<bool>());
  EXPECT_EQ(g->colLength(Gauge::kReading)->valueAs<Qel::U32>(), 1u);
  EXPECT_EQ(g->attributeName(Gauge::kReading), "reading");
  EXPECT_EQ(g->attributeName(99), "unknown");
  EXPECT_THROW(g->attributeIs("name", Qel::String("other")), Qel::TypeException);
  Qel::Ptr<Gauge const> view = g;
  try {
    view->attributeIs("level", Qel::String("1"));
    FAIL() << "a const instance accepted a write";
  } catch (Qel::ConstInstanceException const& e) {
    EXPECT_STREQ(e.what(), "attempting to modify a const instance");
  }
  EXPECT_EQ(g->level(), 5u);
}

}  // namespace
