// What an entity written as an attribute list promises: each mutator stores only on a change and
// tells the typed notifiee once, in the order of its style; a notifiee gone during a notification
// is told nothing more; removed children and map values live until every notifiee was told; the
// reflection reads and writes by name as the kinds say.
#include "Qel/Entity/AttrList.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "Qel/Reflection/GenericValue.h"
#include "Qel/Reflection/TypeBuilder.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeafEntity.h"
#include "tests/support/LeakCheck.h"

namespace {

using Log = std::vector<std::string>;

using Ledra::test::Leaf;

#define PROBE_ATTRIBUTES(X)                                   \
  X(map, keyImmediateWhole, LabelMap, label, Label, labels)   \
  X(children, keyWhole, Leaf, leaf, Leaf, leaves)             \
  X(queue, keyImmediateWhole, Qel::String, line, Line, lines) \
  X(mapOwnWrites, key, HeldMap, held, Held, helds)            \
  X(map, key, TagMap, tag, Tag, tags)                         \
  X(recordField, key, NoteField, note, Note, notes)           \
  X(recordField, key, MarkField, mark, Mark, marks)

class Probe : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Probe>;
  using LabelMap = std::map<Qel::String, Qel::String>;
  using HeldMap = std::map<Qel::String, Leaf::Ptr>;
  using TagMap = std::unordered_map<Qel::InternedText, Qel::String, Qel::InternedText::Hash,
                                    Qel::InternedText::Equal>;
  // Two collections sharing their keys.
  using Records = Qel::NotifyingRecordMap<Qel::InternedText, Qel::String, Qel::String>;
  using NoteField = Qel::RecordField<Records, 0, Qel::String>;
  using MarkField = Qel::RecordField<Records, 1, Qel::String>;
  QEL_ATTR_IDS(PROBE_ATTRIBUTES);
  template <class N>
  class NotifieeT;

  static Ptr probeNew(Qel::Name const& name) { return Ptr(new Probe(name)); }
  QEL_ATTR_ACCESSORS(PROBE_ATTRIBUTES)
  Leaf::Ptr leafIs(Qel::Name const& name) {
    if (Leaf::Ptr existing = leaf(name)) return existing;
    Leaf::Ptr created = Leaf::leafNew(name);
    leaf_.insert(*this, created);
    return created;
  }
  // Storing null removes; each removal is counted after it was told.
  void heldIs(Qel::String const& k, Leaf::Ptr const& v) {
    if (!v) return heldDel(k);
    held_.set(*this, k, v);
  }
  void heldDel(Qel::String const& k) {
    if (held_.del(*this, k)) ++removals;
  }
  int removals = 0;

  Qel::Entity::Ptr child(Qel::Name const& name) const override { return leaf(name); }
  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType() {
    static Qel::QelType const* const t =
        Qel::TypeBuilder<Probe>("test::AttrProbe") QEL_ATTR_REFLECTION(PROBE_ATTRIBUTES)
            .factory([](Qel::Name const& n) { return Qel::Entity::Ptr(probeNew(n)); })
            .done();
    return t;
  }

 protected:
  explicit Probe(Qel::Name name) : Entity(std::move(name)) {}

 private:
  QEL_ATTR_STORAGE(PROBE_ATTRIBUTES)
  QEL_ATTR_RECORDS(Records)
};

template <class N>
class Probe::NotifieeT : public Qel::BasicNotifiee<N> {
 public:
  using Qel::BasicNotifiee<N>::BasicNotifiee;
  QEL_ATTR_NOTIFIEE(PROBE_ATTRIBUTES)
};

[[maybe_unused]] Qel::QelType const* const kRegistered[] = {Leaf::staticType(),
                                                            Probe::staticType()};

// Logs every callback; `then` runs after each entry is logged.
class Watch : public Probe::NotifieeT<Probe const> {
 public:
  explicit Watch(Log* l) : log(l) {}
  Log* log;
  std::function<void(std::string const&)> then;

  void onLabel(Qel::String const& k) override { add("label " + k); }
  void onLabelqelImmediate() override { add("label immediate"); }
  void onLabel() override { add("label"); }
  void onLeaf(Qel::Name const& n) override { add("leaf " + n); }
  void onLeaf() override { add("leaf"); }
  void onLine(Qel::U32 i) override { add("line " + std::to_string(i)); }
  void onLineqelImmediate() override { add("line immediate"); }
  void onLine() override { add("line"); }
  void onHeld(Qel::String const& k) override { add("held " + k); }
  void onTag(Qel::String const& k) override { add("tag " + k); }
  void onNote(Qel::String const& k) override { add("note " + k); }
  void onMark(Qel::String const& k) override { add("mark " + k); }

 private:
  void add(std::string const& entry) {
    log->push_back(entry);
    if (then) then(entry);
  }
};

class AttrTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    probe = Probe::probeNew("probe");
    watch = std::make_unique<Watch>(&log);
    watch->notifierIs(probe);
  }
  void TearDown() override {
    watch.reset();
    probe = nullptr;
    LeakCheckedTest::TearDown();
  }
  Probe::Ptr probe;
  Log log;
  std::unique_ptr<Watch> watch;
};

struct Row {
  char const* what;
  std::function<void(Probe&)> prepare;  // runs before the notifiee watches
  std::function<void(Probe&)> act;
  Log told;
};

// clang-format off
Row const kRows[] = {
    {"map key, immediate, whole; only on a change", {},
     [](Probe& p) { p.labelIs("k", "1"); p.labelIs("k", "1"); p.labelIs("k", "2"); },
     {"label k", "label immediate", "label", "label k", "label immediate", "label"}},
    {"map delete of an absent key tells nobody", [](Probe& p) { p.labelIs("k", "1"); },
     [](Probe& p) { p.labelDel("x"); p.labelDel("k"); p.labelDel("k"); },
     {"label k", "label immediate", "label"}},
    {"map delAll tells each key in turn", [](Probe& p) { p.labelIs("b", ""); p.labelIs("a", ""); },
     [](Probe& p) { p.labelDelAll(); p.labelDelAll(); },
     {"label a", "label immediate", "label", "label b", "label immediate", "label"}},
    {"children: create once, delete, delete again", {},
     [](Probe& p) { p.leafIs("x"); p.leafIs("x"); p.leafDel("x"); p.leafDel("x"); },
     {"leaf x", "leaf", "leaf x", "leaf"}},
    {"queue: enqueue, set, delete, dequeue by index",
     [](Probe& p) { p.lineEnq("zero"); },
     [](Probe& p) { p.lineEnq("one"); p.lineIs(1, "one"); p.lineIs(1, "uno"); p.lineDel(7);
                    p.lineDel(0); p.lineEnq("two"); p.lineDelAll(); p.lineDeq(); },
     {"line 1", "line immediate", "line", "line 1", "line immediate", "line",
      "line 0", "line immediate", "line", "line 2", "line immediate", "line",
      "line 1", "line immediate", "line", "line 2", "line immediate", "line"}},
    {"own writes on the generated storage: same pointer tells nobody, null removes once", {},
     [](Probe& p) { Leaf::Ptr const l = Leaf::leafNew("l"); p.heldIs("k", l); p.heldIs("k", l);
                    p.heldIs("k", Leaf::leafNew("m")); p.heldIs("k", nullptr); p.heldDel("k"); },
     {"held k", "held k", "held k"}},
    {"record fields: each tells of its own key only on a change; a delete keeps the other", {},
     [](Probe& p) { p.noteIs("k", "1"); p.noteIs("k", "1"); p.markIs("k", "m"); p.noteDel("k");
                    p.noteDel("k"); p.markIs("k", "m"); p.markDelAll(); p.markDel("k"); },
     {"note k", "mark k", "note k", "mark k"}},
};
// clang-format on

TEST_F(AttrTest, EachMutatorTellsOnceInItsStyleOrder) {
  for (Row const& row : kRows) {
    SCOPED_TRACE(row.what);
    Probe::Ptr fresh = Probe::probeNew("fresh");
    if (row.prepare) row.prepare(*fresh);
    Log told;
    Watch w(&told);
    w.notifierIs(fresh);
    row.act(*fresh);
    EXPECT_EQ(told, row.told);
  }
}

TEST_F(AttrTest, ANotifieeGoneDuringNotificationIsToldNothingMore) {
  Log second;
  Log third;
  auto secondWatch = std::make_unique<Watch>(&second);
  Watch thirdWatch(&third);
  secondWatch->notifierIs(probe);
  thirdWatch.notifierIs(probe);
  // The first destroys itself and the second on hearing the key.
  watch->then = [&](std::string const&) {
    secondWatch.reset();
    watch.reset();
  };
  probe->labelIs("k", "v");
  EXPECT_EQ(log, (Log{"label k"}));
  EXPECT_TRUE(second.empty());
  EXPECT_EQ(third, (Log{"label k", "label immediate", "label"}));
  EXPECT_EQ(probe->notifiees(), 1u);
}

// A deleted child and a removed map value live until every notifiee was told.
TEST_F(AttrTest, RemovedChildrenAndMapValuesLiveUntilEveryNotifieeWasTold) {
  Leaf* const x = probe->leafIs("x").ptr();
  EXPECT_EQ(x->parent(), probe.ptr());
  probe->heldIs("k", Leaf::leafNew("l"));
  long liveWhenTold = 0;
  watch->then = [&](std::string const& entry) {
    if (entry != "leaf x" && entry != "held k") return;
    liveWhenTold = Qel::RefCounted::liveInstances();
    EXPECT_EQ(probe->removals, 0);
    if (entry == "held k") {
      EXPECT_FALSE(probe->held("k"));
      return;
    }
    EXPECT_FALSE(probe->leaf("x"));
    EXPECT_EQ(x->parent(), nullptr);
  };
  long const live = Qel::RefCounted::liveInstances();
  probe->leafDel("x");
  EXPECT_EQ(liveWhenTold, live);
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live - 1);
  probe->heldDel("k");
  EXPECT_EQ(liveWhenTold, live - 1);
  EXPECT_EQ(Qel::RefCounted::liveInstances(), live - 2);
  EXPECT_EQ(probe->removals, 1);
}

// A map keyed by interned texts tells its keys as the text they hold, to the typed and to the
// generic view, and the reflection reads it with a plain string key.
TEST_F(AttrTest, InternedKeysAreToldAndReadAsTheirText) {
  struct Generic : Qel::GenericIf::NotifieeConst {
    Log keys;
    void onAttribute(Qel::AttributeId, Qel::GenericIf::PtrConst& key) override {
      keys.push_back(key ? key->valueAs<Qel::String>() : "-");
    }
  } generic;
  generic.notifierIs(probe);
  probe->tagIs(Qel::InternedText("/a/b"), "x");
  probe->tagDel(Qel::InternedText("/a/b"));
  EXPECT_EQ(log, (Log{"tag /a/b", "tag /a/b"}));
  EXPECT_EQ(generic.keys, (Log{"/a/b", "/a/b"}));
  probe->tagIs(Qel::InternedText("/c"), "y");
  EXPECT_EQ(*probe->tag(std::string("/c")), "y");
  auto const key = Qel::ValueTraits<Qel::String>::box(Qel::String("/c"));
  EXPECT_EQ(probe->attribute(Probe::kTag, key)->valueAs<Qel::String>(), "y");
}

// Record fields keep one record per key while any of them holds it: a field's element is gone
// before its notifiees are told, a notifiee may remove the record's last element, the listing is
// ordered by key and the reflection reads each field by its plain text key.
TEST_F(AttrTest, RecordFieldsShareOneRecordWhileAnyHoldsTheKey) {
  probe->noteIs(Qel::String("/b"), "1");
  probe->noteIs(Qel::String("/a"), "2");
  probe->markIs(Qel::String("/a"), "x");
  EXPECT_EQ(probe->notes(), 2u);
  EXPECT_EQ(probe->marks(), 1u);
  auto const notes = probe->note();
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].first.str(), "/a");
  EXPECT_EQ(notes[1].first.str(), "/b");
  EXPECT_EQ(notes[1].second, "1");

  watch->then = [&](std::string const& entry) {
    if (entry != "note /a") return;
    EXPECT_EQ(probe->noteOf("/a"), nullptr);
    ASSERT_NE(probe->markOf("/a"), nullptr);
    probe->markDel(Qel::String("/a"));  // the record's last element, while it is being told
  };
  log.clear();
  probe->noteDel(Qel::String("/a"));
  EXPECT_EQ(log, (Log{"note /a", "mark /a"}));
  EXPECT_EQ(probe->marks(), 0u);
  EXPECT_EQ(probe->notes(), 1u);

  auto const key = [](char const* k) { return Qel::ValueTraits<Qel::String>::box(Qel::String(k)); };
  EXPECT_EQ(probe->attribute(Probe::kNote, key("/b"))->valueAs<Qel::String>(), "1");
  EXPECT_FALSE(probe->attribute(Probe::kMark, key("/b")));
  EXPECT_FALSE(probe->attribute(Probe::kNote, key("/a")));
}

}  // namespace
