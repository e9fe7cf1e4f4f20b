// The mount table on its own: versions, configurations, statuses and path states, each notified
// once per change and never for an equal store; lookups of absent keys; the generic view.
#include "Qel/MountTable.h"

#include <gtest/gtest.h>

#include <regex>
#include <vector>

#include "Qel/Exception.h"
#include "support/LeakCheck.h"

namespace {

using Qel::ConnectDesc;
using Qel::MountFlags;
using Qel::MountTable;

class Recorder : public MountTable::NotifieeConst {
 public:
  int versions = 0;
  std::vector<Qel::String> confs, paths;
  std::vector<ConnectDesc> statuses;
  void onCurrentVersion() override { ++versions; }
  void onConf(Qel::String const& p) override { confs.push_back(p); }
  void onStatus(ConnectDesc const& cd) override { statuses.push_back(cd); }
  void onPathState(Qel::String const& p) override { paths.push_back(p); }
};

class MountTableTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    table = MountTable::mountTableNew("peer");
    rec = std::make_unique<Recorder>();
    rec->notifierIs(table);
  }
  void TearDown() override {
    rec.reset();
    table = nullptr;
    LeakCheckedTest::TearDown();
  }
  static MountTable::Conf conf(char const* path, char const* flags, char const* type = "") {
    return MountTable::Conf(path, type, MountFlags::fromLetters(flags), "agentA");
  }

  MountTable::Ptr table;
  std::unique_ptr<Recorder> rec;
};

TEST_F(MountTableTest, CurrentVersionNotifiesOncePerChange) {
  EXPECT_EQ(table->currentVersion(), 0u);
  table->currentVersionIs(4);
  table->currentVersionIs(4);
  table->currentVersionIs(MountTable::kProtocolVersion);
  EXPECT_EQ(table->currentVersion(), 5u);
  EXPECT_EQ(rec->versions, 2);
}

TEST_F(MountTableTest, AbsentKeysGiveEmptyValues) {
  EXPECT_TRUE(table->conf("/nowhere").empty());
  EXPECT_EQ(table->status(ConnectDesc("/nowhere")), MountTable::none_);
  EXPECT_EQ(table->stat(ConnectDesc("/nowhere")).exceptionDesc(), "");
  EXPECT_FALSE(table->hasPathState("/nowhere"));
  EXPECT_EQ(table->pathState("/nowhere"), MountTable::PathState());
  EXPECT_FALSE(table->pathState("/nowhere").synchronised());
}

TEST_F(MountTableTest, ConfIsStoresAndNotifiesOnlyOnChange) {
  table->confIs(conf("/a", "Cnp"));
  table->confIs(conf("/a", "Cnp"));
  EXPECT_EQ(table->conf("/a"), conf("/a", "Cnp"));
  table->confIs(conf("/a", "wnp"));
  table->confIs(conf("/a", "wnp", "Qel::Dir"));
  EXPECT_EQ(rec->confs, (std::vector<Qel::String>{"/a", "/a", "/a"}));
  EXPECT_EQ(table->conf("/a").type(), "Qel::Dir");
  EXPECT_EQ(table->conf("/a").text(), "/a (Qel::Dir) wnp @agentA");
  // An unbound table only stores: no request, so no status appears.
  EXPECT_EQ(table->statuses(), 0u);
  table->confDel("/a");
  table->confDel("/a");
  EXPECT_TRUE(table->conf("/a").empty());
  EXPECT_EQ(rec->confs.size(), 4u);
}

TEST_F(MountTableTest, ConfsDifferingInAnyFieldAreDifferent) {
  MountTable::Conf const base = conf("/a", "Cnp", "T");
  EXPECT_NE(base, conf("/b", "Cnp", "T"));
  EXPECT_NE(base, conf("/a", "Cp", "T"));
  EXPECT_NE(base, conf("/a", "Cnp", "U"));
  EXPECT_NE(base, MountTable::Conf("/a", "T", MountFlags::fromLetters("Cnp"), "agentB"));
  EXPECT_EQ(base, conf("/a", "pnC", "T"));
}

TEST_F(MountTableTest, StatusesIterateInConnectDescriptorOrder) {
  table->statusIs(ConnectDesc("/b"), MountTable::Stat(MountTable::inProgress_));
  table->statusIs(ConnectDesc("/a/c"), MountTable::Stat(MountTable::failed_, "no such type"));
  table->statusIs(ConnectDesc("/a"), MountTable::Stat(MountTable::complete_));
  table->statusIs(ConnectDesc("/a"), MountTable::Stat(MountTable::complete_));
  std::vector<Qel::String> order;
  for (auto const& [cd, st] : table->status())
    order.push_back(cd.path());
  EXPECT_EQ(order, (std::vector<Qel::String>{"/a", "/a/c", "/b"}));
  EXPECT_EQ(rec->statuses.size(), 3u);
  EXPECT_EQ(table->status(ConnectDesc("/a")), MountTable::complete_);
  EXPECT_EQ(table->stat(ConnectDesc("/a/c")).exceptionDesc(), "no such type");
  EXPECT_EQ(table->stat(ConnectDesc("/a/c")).text(), "failed_: no such type");
  // The same status with another exception text is a change.
  table->statusIs(ConnectDesc("/a/c"), MountTable::Stat(MountTable::failed_, "other"));
  EXPECT_EQ(rec->statuses.size(), 4u);
  table->statusDel(ConnectDesc("/b"));
  EXPECT_EQ(table->statuses(), 2u);
}

TEST_F(MountTableTest, PathStatesAreNotifiedPerPath) {
  MountTable::PathState s;
  s.mountedIs(true).completeIs(true).mountPointIs(true);
  table->pathStateIs("/a", s);
  table->pathStateIs("/a", s);
  EXPECT_TRUE(table->hasPathState("/a"));
  EXPECT_FALSE(table->pathState("/a").synchronised());
  EXPECT_EQ(table->pathState("/a").text(), "mounted complete mountPoint");
  s.synchronisedIs(true).monitoringIs(true).monitoringEidIs(42);
  table->pathStateIs("/a", s);
  EXPECT_EQ(table->pathState("/a").monitoringEid(), 42u);
  EXPECT_EQ(table->pathState("/a").text(),
            "mounted complete synchronised mountPoint monitoring eid=42");
  // Only the monitored entity changes: still a change.
  s.monitoringEidIs(43);
  table->pathStateIs("/a", s);
  table->pathStateDel("/a");
  EXPECT_FALSE(table->hasPathState("/a"));
  EXPECT_EQ(rec->paths, (std::vector<Qel::String>{"/a", "/a", "/a", "/a"}));
}

class GenericRecorder : public Qel::GenericIf::NotifieeConst {
 public:
  std::vector<std::pair<Qel::String, Qel::String>> seen;
  void onAttribute(Qel::AttributeId aid, Qel::GenericIf::PtrConst& key) override {
    seen.emplace_back(notifierBase()->attributeName(aid), key ? key->text() : Qel::String("-"));
  }
};

TEST_F(MountTableTest, GenericViewReadsAndNotifiesWithBoxedKeys) {
  GenericRecorder g;
  g.notifierIs(Qel::GenericIf::PtrConst(table.ptr()));
  table->attributeIs("currentVersion", Qel::String("5"));
  EXPECT_EQ(table->currentVersion(), 5u);
  table->confIs(conf("/x", "wp"));
  table->statusIs(ConnectDesc("/x"), MountTable::Stat(MountTable::failed_, "boom"));
  table->pathStateIs("/x", MountTable::PathState().mountedIs(true));
  EXPECT_EQ(g.seen,
            (std::vector<std::pair<Qel::String, Qel::String>>{
                {"currentVersion", "-"}, {"conf", "/x"}, {"status", "/x"}, {"pathState", "/x"}}));

  Qel::AttributeId const statusId = table->attributeId("status");
  auto key = Qel::ValueTraits<ConnectDesc>::box(ConnectDesc("/x"));
  EXPECT_EQ(table->attribute(statusId, key)->text(), "failed_: boom");
  auto st = table->attribute(statusId, key);
  EXPECT_EQ(st->attribute(st->attributeId("status"))->text(), "failed_");
  EXPECT_EQ(table->colLength(statusId)->valueAs<Qel::U32>(), 1u);
  EXPECT_FALSE(table->isMember(statusId, Qel::ValueTraits<ConnectDesc>::box(ConnectDesc("/y")))
                   ->valueAs<bool>());
  EXPECT_EQ(table
                ->attribute(table->attributeId("conf"),
                            Qel::ValueTraits<Qel::String>::box(Qel::String("/x")))
                ->text(),
            "/x () wp @agentA");

  MountTable::PtrConst readOnly = table;
  Qel::GenericIf::PtrConst view(readOnly.ptr());
  try {
    view->attributeIs("currentVersion", Qel::String("4"));
    FAIL();
  } catch (Qel::ConstInstanceException const& e) {
    EXPECT_STREQ(e.what(), "attempting to modify a const instance");
  }
}

std::string literal(std::string const& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

using MountTableDeathTest = MountTableTest;

TEST_F(MountTableDeathTest, ConfWithoutPathIsAContractViolation) {
  EXPECT_DEATH(
      table->confIs(MountTable::Conf()),
      literal("Assertion failed: !c.path().empty() && \"mount configuration without a path\""));
}

}  // namespace
