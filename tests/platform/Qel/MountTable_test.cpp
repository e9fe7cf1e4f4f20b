// The mount table on its own: versions, configurations, statuses and path states, each notified
// once per change and never for an equal store; lookups of absent keys; the generic view.
#include "Qel/MountTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Qel/Exception.h"
#include "support/ExactText.h"
#include "support/LeakCheck.h"

namespace {

using Qel::ConnectDesc;
using Qel::MountFlags;
using Qel::MountTable;
using Strings = std::vector<std::string>;

class Recorder : public MountTable::NotifieeConst {
 public:
  Strings seen;
  void onCurrentVersion() override { seen.push_back("version"); }
  void onConf(Qel::String const& p) override { seen.push_back("conf " + p); }
  void onStatus(ConnectDesc const& cd) override { seen.push_back("status " + cd.path()); }
  void onPathState(Qel::String const& p) override { seen.push_back("path " + p); }
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
  static MountTable::Stat failed(char const* why) {
    return MountTable::Stat(MountTable::failed_, why);
  }

  MountTable::Ptr table;
  std::unique_ptr<Recorder> rec;
};

TEST_F(MountTableTest, VersionAndConfsNotifyOncePerChange) {
  table->currentVersionIs(4);
  table->currentVersionIs(4);
  table->confIs(conf("/a", "Cnp"));
  table->confIs(conf("/a", "Cnp"));
  table->confIs(conf("/a", "wnp"));
  table->confIs(conf("/a", "wnp", "Qel::Dir"));
  EXPECT_EQ(table->conf("/a").text(), "/a (Qel::Dir) wnp @agentA");
  EXPECT_EQ(table->statuses(), 0u) << "an unbound table only stores: no request, no status";
  table->confDel("/a");
  table->confDel("/a");
  EXPECT_EQ(rec->seen, (Strings{"version", "conf /a", "conf /a", "conf /a", "conf /a"}));
}

TEST_F(MountTableTest, StatusesIterateInConnectDescriptorOrder) {
  table->statusIs(ConnectDesc("/b"), MountTable::Stat(MountTable::inProgress_));
  table->statusIs(ConnectDesc("/a/c"), failed("no such type"));
  table->statusIs(ConnectDesc("/a"), MountTable::Stat(MountTable::complete_));
  table->statusIs(ConnectDesc("/a"), MountTable::Stat(MountTable::complete_));
  table->statusIs(ConnectDesc("/a/c"), failed("other"));  // another text is a change
  std::string order;
  for (auto const& [cd, st] : table->status())
    order += cd.path() + "=" + st.text() + " ";
  EXPECT_EQ(order, "/a=complete_ /a/c=failed_: other /b=inProgress_ ");
  EXPECT_EQ(table->incompleteStatuses(), 2u);
  table->statusDel(ConnectDesc("/b"));
  EXPECT_EQ(rec->seen,
            (Strings{"status /b", "status /a/c", "status /a", "status /a/c", "status /b"}));
  // The count follows every overwrite and removal, complete or not.
  table->statusIs(ConnectDesc("/a"), MountTable::Stat(MountTable::inProgress_));
  table->statusIs(ConnectDesc("/a/c"), MountTable::Stat(MountTable::complete_));
  EXPECT_EQ(table->incompleteStatuses(), 1u);
  table->statusDel(ConnectDesc("/a/c"));
  table->statusDel(ConnectDesc("/a/c"));
  EXPECT_EQ(table->incompleteStatuses(), 1u);
  table->statusIs(ConnectDesc("/a"), MountTable::Stat(MountTable::complete_));
  EXPECT_EQ(table->incompleteStatuses(), 0u);
}

TEST_F(MountTableTest, PathStatesAreNotifiedPerPath) {
  MountTable::PathState s;
  s.mountedIs(true).completeIs(true).mountPointIs(true);
  table->pathStateIs("/a", s);
  table->pathStateIs("/a", s);
  EXPECT_EQ(table->pathState("/a").text(), "mounted complete mountPoint");
  s.synchronisedIs(true).monitoringIs(true).monitoringEidIs(42);
  table->pathStateIs("/a", s);
  EXPECT_EQ(table->pathState("/a").text(),
            "mounted complete synchronised mountPoint monitoring eid=42");
  s.monitoringEidIs(43);  // only the monitored entity changes: still a change
  table->pathStateIs("/a", s);
  table->pathStateDel("/a");
  EXPECT_FALSE(table->hasPathState("/a"));
  EXPECT_EQ(rec->seen, (Strings{"path /a", "path /a", "path /a", "path /a"}));
}

class GenericRecorder : public Qel::GenericIf::NotifieeConst {
 public:
  Strings seen;
  void onAttribute(Qel::AttributeId aid, Qel::GenericIf::PtrConst& key) override {
    seen.push_back(notifierBase()->attributeName(aid) + " " + (key ? key->text() : "-"));
  }
};

TEST_F(MountTableTest, GenericViewReadsAndNotifiesWithBoxedKeys) {
  GenericRecorder g;
  g.notifierIs(Qel::GenericIf::PtrConst(table.ptr()));
  table->attributeIs("currentVersion", Qel::String("5"));
  EXPECT_EQ(table->currentVersion(), 5u);
  table->confIs(conf("/x", "wp"));
  table->statusIs(ConnectDesc("/x"), failed("boom"));
  table->pathStateIs("/x", MountTable::PathState().mountedIs(true));
  EXPECT_EQ(g.seen, (Strings{"currentVersion -", "conf /x", "status /x", "pathState /x"}));

  Qel::AttributeId const statusId = table->attributeId("status");
  auto cd = [](char const* p) { return Qel::ValueTraits<ConnectDesc>::box(ConnectDesc(p)); };
  EXPECT_EQ(table->attribute(statusId, cd("/x"))->text(), "failed_: boom");
  EXPECT_FALSE(table->attribute(statusId, cd("/y")));
  auto path = Qel::ValueTraits<Qel::String>::box(Qel::String("/x"));
  EXPECT_EQ(table->attribute(table->attributeId("conf"), path)->text(), "/x () wp @agentA");
}

using MountTableDeathTest = MountTableTest;

TEST_F(MountTableDeathTest, ConfWithoutPathIsAContractViolation) {
  EXPECT_DEATH(table->confIs(MountTable::Conf()),
               Ledra::test::literal("Assertion failed: !c.path().empty() && \"mount configuration "
                                    "without a path\""));
}

}  // namespace
