// The engine in the generic view: a ready group read by a key given as text, a conditional group's
// record read by name, and handlers invoked by name with their arguments by name.
#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"

namespace Ledra::test {
namespace {

using E = PassiveEntityManagerSm;
using Qel::GenericIf;

GenericIf::PtrConst text(char const* t) {
  return Qel::ValueTraits<Qel::String>::box(t);
}

TEST_F(EngineHarness, GenericViewReadsCollectionsByKeyAndInvokesHandlersByName) {
  profile->templateKeyIs(1, "%slot");
  status->agentStringIs("agentA-3");
  agent->holdAnswersIs(true);
  startEngine();
  engine->readyMountGroupEnq(PassiveMountGroup::mountGroupNew("g1", 1));
  auto const g7 = PassiveMountGroup::mountGroupNew("g7", 7);
  auto const key = engine->readyMountGroupEnq(g7);
  Qel::QelType const* keyType = E::staticType()->attribute(E::kReadyMountGroup)->keyType();
  EXPECT_EQ(engine->attribute(E::kReadyMountGroup, keyType->valueFromText(valueToStrep(key))), g7);
  auto const cond = PassiveMountGroup::mountGroupNew("cond", 3);
  cond->conditionColEnq("true == /ledra/Ledra/flag.enabled");
  stderrOf([&] { engine->conditionalMountGroupIs(cond); });  // waits for the missing flag
  GenericIf::PtrConst const record =
      engine->attribute(E::kConditionalMountGroup, Qel::ValueTraits<Qel::Name>::box("cond"));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->attribute(record->attributeId("mountGroup")), cond);
  for (auto const& [condition, result] : {std::pair{"%slot == 3", true}, {"%slot == 4", false}}) {
    GenericIf::PtrConst const r =
        engine->invoke("evaluateTemplateCondition", {{"cond", text(condition)}});
    ASSERT_TRUE(r) << condition;
    EXPECT_EQ(r->valueAs<bool>(), result) << condition;
  }
}

}  // namespace
}  // namespace Ledra::test
