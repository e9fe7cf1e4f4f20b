// Shared pieces of the conditional mount group tests: a run-time entity type with an attribute of
// every builtin, an enum, a pointer, keyed collections and a value type; a fixture on simulated
// time with a timer wheel, a watched entity at /condTest/w, a mount group and its result record,
// and the trace lines stamped with the simulated time.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EngineHarness.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/Mount.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "Trace/Clock.h"

namespace ConditionalTesting {

using Ledra::test::literal;

// "condTest::Watched": a_<builtin> for each builtin, then
//   colour    condTest::Colour (red 0, green 1, blue 7)
//   peer      pointer to an entity
//   tags      bool keyed by string        mount     Ledra::Mount (a value type: no reactor)
inline Qel::QelType const* watchedType() {
  static Qel::QelType const* t = [] {
    Qel::QelType const* colour =
        Qel::defineEnum("condTest::Colour", {{"red", 0}, {"green", 1}, {"blue", 7}});
    std::vector<Qel::AttributeSchema> attrs;
    for (char const* b : {"bool", "U8", "S8", "U16", "S16", "U32", "S32", "U64", "S64", "F32",
                          "F64", "char", "long", "double", "string", "name"}) {
      attrs.push_back({Qel::Name(std::string("a_") + b), b});
    }
    attrs.push_back({"colour", colour->name()});
    attrs.push_back({"peer", "Qel::Entity"});
    attrs.push_back({"tags", "bool", "string"});
    attrs.push_back({"mount", Ledra::Mount::staticType()->name()});
    return Qel::defineType("condTest::Watched", attrs);
  }();
  return t;
}

// Trace lines carry the time of the test's simulated clock.
inline Qel::SimulatedClock* traceClock = nullptr;
inline double traceSeconds() {
  return traceClock ? traceClock->now() : 0;
}

class ConditionalTest : public Ledra::test::SimulatedDatabaseTest {
 protected:
  static constexpr char const* kPath = "/condTest/w";

  void SetUp() override {
    SimulatedDatabaseTest::SetUp();
    traceClock = clock.ptr();
    Trace::timeSourceIs(&traceSeconds);
    wheel = Orn::TimerWheel::timerWheelNew(clock);
    dir_ = Qel::globalDir()->dirIs("condTest");
    watched = Qel::DynamicEntity::entityNew(watchedType(), "w");
    dir_->entryIs(watched);
    group = Ledra::PassiveMountGroup::mountGroupNew("g", 10);
    res = Ledra::ConditionRes::conditionResNew("g");
  }
  void TearDown() override {
    sm = nullptr;
    res = nullptr;
    group = nullptr;
    watched = nullptr;
    dir_ = nullptr;
    Qel::globalDir()->entryDel("condTest");
    wheel = nullptr;
    Trace::timeSourceIs(nullptr);
    traceClock = nullptr;
    SimulatedDatabaseTest::TearDown();
  }

  // Adds the condition "<constant> <op> [len( ]/condTest/w.<attr>" to the group.
  void condition(std::string const& text) { group->conditionColEnq(text); }
  static std::string on(std::string const& attr) { return std::string(kPath) + "." + attr; }

  // Creates and starts the state machine without an engine.
  Ledra::ConditionalMountGroupSm::Ptr const& start() {
    sm = Ledra::conditionalMountGroupSmFactory(group, res, nullptr, wheel);
    return sm;
  }
  // A further entity of the watched type at /condTest/<name>.
  Qel::DynamicEntity::Ptr another(char const* name) {
    auto e = Qel::DynamicEntity::entityNew(watchedType(), name);
    dir_->entryIs(e);
    return e;
  }

  // Writes a plain attribute (or the element at `key` of a collection; "" deletes it) as text.
  void set(char const* attr, Qel::String const& text, Qel::String const& key = {}) {
    watched->attributeIs(attr, text, key);
  }

  bool enabled() const { return res->enabled(); }

  // The times of the lines whose message begins with `prefix`.
  std::vector<double> timesOf(std::string const& prefix) const {
    std::vector<double> out;
    for (auto const& line : capture.lines()) {
      if (line.message.rfind(prefix, 0) == 0) out.push_back(line.seconds);
    }
    return out;
  }

  Orn::TimerWheel::Ptr wheel;
  Qel::Dir::Ptr dir_;
  Qel::DynamicEntity::Ptr watched;
  Ledra::PassiveMountGroup::Ptr group;
  Ledra::ConditionRes::Ptr res;
  Ledra::ConditionalMountGroupSm::Ptr sm;
};

}  // namespace ConditionalTesting
