// Shared pieces of the condition reactor tests: a run-time entity type with an attribute of every
// builtin, an enum, a pointer and keyed collections; a reactor that counts its reports; and a
// fixture that captures the Orn trace at level 2 and checks that nothing leaks.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Orn/GenericConditionalReactor.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "Trace/CaptureSink.h"
#include "Trace/Facilities.h"
#include "tests/support/ExactText.h"
#include "tests/support/LeakCheck.h"

namespace OrnTesting {

// "ornTest::Watched": a_<builtin> for each of the eighteen builtins, then
//   colour    ornTest::Colour (red 0, green 1, blue 7)
//   peer      pointer to an entity
//   tags      bool keyed by string        byColour  U32 keyed by ornTest::Colour
inline Qel::QelType const* watchedType() {
  static Qel::QelType const* t = [] {
    Qel::QelType const* colour =
        Qel::defineEnum("ornTest::Colour", {{"red", 0}, {"green", 1}, {"blue", 7}});
    std::vector<Qel::AttributeSchema> attrs;
    for (char const* b :
         {"bool", "U8", "S8", "U16", "S16", "U32", "S32", "U64", "S64", "F32", "F64", "char",
          "char*", "const char*", "long", "double", "string", "name"}) {
      attrs.push_back({Qel::Name(std::string("a_") + b), b});
    }
    attrs.push_back({"colour", colour->name()});
    attrs.push_back({"peer", "Qel::Entity"});
    attrs.push_back({"tags", "bool", "string"});
    attrs.push_back({"byColour", "U32", colour->name()});
    return Qel::defineType("ornTest::Watched", attrs);
  }();
  return t;
}

// Counts handleAttribute(); `onFire`, when set, runs after each count (and may release the
// reactor: it runs from a copy).
template <class T>
class CountingReactor : public Orn::ConditionalReactor<T> {
 public:
  using Ptr = Qel::Ptr<CountingReactor>;

  static Ptr make(Qel::GenericIf::PtrConst const& entity, T const& value, Orn::LogicalOp op,
                  bool len, Qel::AttributeId aid) {
    return Ptr(new CountingReactor(entity, value, op, len, aid));
  }

  int fired() const { return fired_; }
  std::function<void()> onFire;

  void handleAttribute() override {
    ++fired_;
    if (!onFire) return;
    auto const hook = onFire;
    hook();
  }

 private:
  CountingReactor(Qel::GenericIf::PtrConst const& entity, T const& value, Orn::LogicalOp op,
                  bool len, Qel::AttributeId aid)
      : Orn::ConditionalReactor<T>(entity, value, op, len, aid) {
    this->handleCreation();
  }
  ~CountingReactor() override = default;

  int fired_ = 0;
};

// The reports of each reactor so far, as "1 0 2".
template <class... R>
std::string fired(R const&... reactors) {
  std::string out;
  ((out += (out.empty() ? "" : " ") + std::to_string(reactors->fired())), ...);
  return out;
}

using Ledra::test::literal;

inline std::string tagged(std::string const& message) {
  return "Orn/GenericConditionalReactor: " + message;
}

class ReactorTest : public Ledra::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    Trace::Facilities::instance().levelsAre("Orn=2");
    entity_ = Qel::DynamicEntity::entityNew(watchedType(), "watched");
  }
  void TearDown() override {
    entity_.reset();
    Trace::Facilities::instance().reset();
    LeakCheckedTest::TearDown();
  }

  Qel::AttributeId aid(char const* name) const {
    Qel::AttributeId const id = entity_->attributeId(name);
    EXPECT_NE(id, Qel::kNoAttribute) << name;
    return id;
  }
  // Writes `v` into plain attribute `name`, as a value of the attribute's own type.
  template <class T>
  void set(char const* name, T const& v) {
    entity_->valueIs(aid(name),
                     watchedType()->attribute(aid(name))->type()->newValue(Qel::toValue(v)));
  }
  // Inserts (or updates) key `k` of collection `name`; the element is given as text.
  void put(char const* name, Qel::String const& k, Qel::String const& element) {
    entity_->attributeIs(name, element, k);
  }
  void drop(char const* name, Qel::String const& k) { entity_->attributeIs(name, "", k); }

  template <class T>
  typename CountingReactor<T>::Ptr watch(char const* name, T const& value, Orn::LogicalOp op,
                                         bool len = false) {
    return CountingReactor<T>::make(entity_, value, op, len, aid(name));
  }

  std::vector<std::string> messages() const { return capture_.messages(); }

  Trace::CaptureSink capture_;
  Qel::DynamicEntity::Ptr entity_;
};

}  // namespace OrnTesting
