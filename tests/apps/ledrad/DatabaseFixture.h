// A Database of its own for each test, on a simulated clock, with loopback agents as peers and a
// temporary folder for the files the test writes. Everything made is released at the end, and
// the leak check proves it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "Ledra/Cell.h"
#include "Ledra/ConnMgrHelper.h"
#include "Ledra/LoopbackAgent.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/Loop/ActivityManagerConfig.h"
#include "Qel/Loop/EventLoop.h"
#include "Qel/Loop/SimulatedClock.h"
#include "apps/ledrad/Database.h"
#include "tests/support/LeakCheck.h"

namespace Ledrad::test {

// A box whose power is off, and the profile gate: group base, then group gated, which waits for the
// box to be powered on.
inline constexpr char const* kBoxState = R"(enum BoxTest::Power off on
type BoxTest::Box
  attribute power BoxTest::Power
entity /%sysname/Ledra/box BoxTest::Box
  set power off
)";
inline constexpr char const* kGateProfile = R"(profile gate
  group base 10
    mount /dbTest/Ledra/a Qel::Dir
  group gated 30
    condition on == /%sysname/Ledra/box.power
    mount /dbTest/Ledra/box BoxTest::Box
)";

// What a database process sets for the whole process (its configuration, cell and reserved
// template keys, the connection configuration made for each profile) is put back after each test;
// the leak check proves nothing else stayed.
class DatabaseFixture : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    savedDict_ = Ledra::globalReservedTemplateKeyDict();
    LeakCheckedTest::SetUp();
    char tmpl[] = "/tmp/ledrad-test-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    clock = Qel::SimulatedClock::simulatedClockNew();
    Qel::ActivityManagerConfig::instance()->clockIs(clock);
    loop = Qel::EventLoop::eventLoopNew(clock);
    db = std::make_unique<Database>(Database::Config{"dbTest", 2});
  }

  void TearDown() override {
    agents.clear();
    loop->runFor(0.01);  // connection teardown
    db.reset();
    loop = nullptr;
    clock = nullptr;
    Ledra::ConnMgrHelper::connectionConfigDir()->passiveConnectionConfigDelAll();
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    Cell::cellIdIs(1);
    Ledra::globalReservedTemplateKeyDict() = savedDict_;
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    LeakCheckedTest::TearDown();
  }

  // Writes `text` to a file of the test's folder; returns its path.
  std::string file(std::string const& name, std::string const& text) const {
    std::string const path = (dir_ / name).string();
    std::ofstream(path) << text;
    return path;
  }

  Ledra::LoopbackAgent::Ptr agent(char const* name) {
    agents.push_back(Ledra::LoopbackAgent::loopbackAgentNew(loop, name, name));
    return agents.back();
  }

  void run(Qel::Time seconds = 0.1) { loop->runFor(seconds); }

  std::filesystem::path dir_;
  Qel::SimulatedClock::Ptr clock;
  Qel::EventLoop::Ptr loop;
  std::unique_ptr<Database> db;
  std::vector<Ledra::LoopbackAgent::Ptr> agents;

 private:
  Ledra::ReservedTemplateKeyDict savedDict_;
};

}  // namespace Ledrad::test
