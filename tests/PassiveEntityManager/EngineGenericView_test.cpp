// The engine in the generic view: one id for every attribute, collection and handler, in
// declaration order; the timer wheel, the queue metadata and the collections of directory
// mounters, ready groups and conditional groups read by name and key; handlers invoked by name
// with their arguments by name, and refused on a const instance or with a wrong argument.
#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "PassiveEntityManager/PassiveDirMounter.h"
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"
#include "Qel/BoxedPtr.h"
#include "Qel/Exception.h"

namespace Ledra::test {
namespace {

using E = PassiveEntityManagerSm;
using Qel::GenericIf;
using Kind = Qel::QelAttr::Kind;
using Strings = std::vector<std::string>;

GenericIf::PtrConst text(char const* t) {
  return Qel::ValueTraits<Qel::String>::box(t);
}

class EngineGenericViewTest : public EngineHarness {
 protected:
  GenericIf::PtrConst read(Qel::AttributeId aid, GenericIf::PtrConst const& key = {}) const {
    return engine->attribute(aid, key);
  }
  Qel::U32 count(Qel::AttributeId aid) const { return engine->colLength(aid)->valueAs<Qel::U32>(); }
};

TEST_F(EngineGenericViewTest, EveryAttributeAndHandlerHasItsIdInDeclarationOrder) {
  struct Row {
    Qel::AttributeId id;
    char const* name;
    Kind kind;
  };
  std::vector<Row> const rows{
      {E::kAgentProfile, "agentProfile", Kind::pointer},
      {E::kAgentStatus, "agentStatus", Kind::pointer},
      {E::kDemuxer, "demuxer", Kind::pointer},
      {E::kPeerMountTable, "peerMountTable", Kind::pointer},
      {E::kEntMgr, "entMgr", Kind::pointer},
      {E::kTimerWheel, "timerWheel", Kind::pointer},
      {E::kLedraRoot, "ledraRoot", Kind::pointer},
      {E::kInitialized, "initialized", Kind::value},
      {E::kDeletion, "deletion", Kind::value},
      {E::kState, "state", Kind::enumeration},
      {E::kMountsInProgress, "mountsInProgress", Kind::value},
      {E::kConvertableMountsMetadata, "convertableMountsMetadata", Kind::value},
      {E::kPendingMountProfile, "pendingMountProfile", Kind::collection},
      {E::kConvertableMounts, "convertableMounts", Kind::collection},
      {E::kPassiveDirMounterCol, "passiveDirMounterCol", Kind::collection},
      {E::kReadyMountGroup, "readyMountGroup", Kind::collection},
      {E::kConditionalMountGroup, "conditionalMountGroup", Kind::collection},
      {E::kBlockingConditionals, "blockingConditionals", Kind::collection},
      {E::kTemplateCache, "templateCache", Kind::collection},
      {E::kAllMountPaths, "allMountPaths", Kind::collection},
      {E::kHandleInitialized, "handleInitialized", Kind::handler},
      {E::kHandleInputProtocolVersion, "handleInputProtocolVersion", Kind::handler},
      {E::kDoSetDemuxerProperty, "doSetDemuxerProperty", Kind::handler},
      {E::kDoRootMount, "doRootMount", Kind::handler},
      {E::kDoInitiateMounts, "doInitiateMounts", Kind::handler},
      {E::kHandleClose, "handleClose", Kind::handler},
      {E::kHandleDeletion, "handleDeletion", Kind::handler},
      {E::kDoCleanup, "doCleanup", Kind::handler},
      {E::kHandleMountProfile, "handleMountProfile", Kind::handler},
      {E::kDoPendingMounts, "doPendingMounts", Kind::handler},
      {E::kEvaluateTemplateCondition, "evaluateTemplateCondition", Kind::handler},
      {E::kDoPassiveMount, "doPassiveMount", Kind::handler},
      {E::kDoNestedPassiveMount, "doNestedPassiveMount", Kind::handler},
      {E::kDoPopulateMountPaths, "doPopulateMountPaths", Kind::handler},
      {E::kDoInitTemplateDict, "doInitTemplateDict", Kind::handler},
  };
  Qel::QelType const* t = E::staticType();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].id, i + 1) << rows[i].name;
    ASSERT_TRUE(t->attribute(rows[i].id)) << rows[i].name;
    EXPECT_EQ(t->attribute(rows[i].id)->name(), rows[i].name);
    EXPECT_EQ(t->attribute(rows[i].id)->kind(), rows[i].kind) << rows[i].name;
  }
  EXPECT_EQ(t->attributes(), rows.size() + 1);
  EXPECT_EQ(t->attribute(E::kTimerWheel)->type()->name(), "Orn::TimerWheel");
  EXPECT_TRUE(t->attribute(E::kTimerWheel)->isConstructorAttribute());
  EXPECT_EQ(t->attribute(E::kReadyMountGroup)->keyType()->name(),
            "Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex");
  EXPECT_EQ(t->attribute(E::kEvaluateTemplateCondition)->type()->name(), "bool");
}

TEST_F(EngineGenericViewTest, WheelMetadataAndCollectionsAreReadByNameAndKey) {
  dir("d");
  profile->mountGroupIs("dirs", 1)->addProfile("/ledra/Ledra/d/e", "Qel::Dir", "rD");
  startEngine();
  run();  // the directory mounter waits for /ledra/Ledra/d/e

  GenericIf::PtrConst const w = read(E::kTimerWheel);
  ASSERT_TRUE(w);
  EXPECT_EQ(Qel::ValueTraits<Orn::TimerWheel::PtrConst>::unbox(w), wheel);

  engine->convertableMountsEnq(Mount("/ledra/Ledra/a", "", "w"));
  engine->convertableMountsEnq(Mount("/ledra/Ledra/b", "", "w"));
  engine->convertableMountsDeq();
  EXPECT_EQ(read(E::kConvertableMountsMetadata)->text(), "head 1 next 2");

  EXPECT_EQ(count(E::kPassiveDirMounterCol), 1u);
  EXPECT_EQ(read(E::kPassiveDirMounterCol, text("/ledra/Ledra/d/e")),
            engine->passiveDirMounterCol("/ledra/Ledra/d/e"));
  EXPECT_FALSE(engine->isMember(E::kPassiveDirMounterCol, text("/ledra/Ledra/d"))->valueAs<bool>());

  auto const g1 = PassiveMountGroup::mountGroupNew("g1", 1);
  auto const g7 = PassiveMountGroup::mountGroupNew("g7", 7);
  engine->readyMountGroupEnq(g1);
  auto const key = engine->readyMountGroupEnq(g7);
  EXPECT_EQ(count(E::kReadyMountGroup), 2u);
  // A key given as text is read in the index's text form.
  Qel::QelType const* keyType = E::staticType()->attribute(E::kReadyMountGroup)->keyType();
  EXPECT_EQ(read(E::kReadyMountGroup, keyType->valueFromText(valueToStrep(key))), g7);
  E::ReadyMountGroupCompoundIndex const absent{7, key.index1 + 1};
  EXPECT_FALSE(
      read(E::kReadyMountGroup, Qel::ValueTraits<E::ReadyMountGroupCompoundIndex>::box(absent)));

  auto const cond = PassiveMountGroup::mountGroupNew("cond", 3);
  cond->conditionColEnq("true == /ledra/Ledra/flag.enabled");
  stderrOf([&] { engine->conditionalMountGroupIs(cond); });  // waits for the missing flag
  EXPECT_EQ(count(E::kConditionalMountGroup), 1u);
  GenericIf::PtrConst const record =
      read(E::kConditionalMountGroup, Qel::ValueTraits<Qel::Name>::box("cond"));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->text(), "cond");
  EXPECT_EQ(record->attribute(record->attributeId("mountGroup")), cond);
  EXPECT_EQ(record->attribute(record->attributeId("conditionRes")),
            engine->conditionalMountGroup("cond")->conditionRes());
  EXPECT_EQ(record->attribute(record->attributeId("initialized"))->text(), "true");
}

TEST_F(EngineGenericViewTest, HandlersAreInvokedByNameWithArgumentsByName) {
  profile->templateKeyIs(1, "%slot");
  status->agentStringIs("agentA-3");
  dir("x");
  agent->holdAnswersIs(true);
  startEngine();
  // The root counts as mounted and synchronised: a nested mount below it goes out at once.
  Qel::MountTable::PathState synced;
  synced.mountedIs(true).completeIs(true).mountPointIs(true).synchronisedIs(true);
  agent->pathStateIs("/ledra/Ledra", synced);
  EXPECT_FALSE(engine->invoke(
      "doPassiveMount",
      {{"path", text("/ledra/Ledra/x")}, {"flags", text("r")}, {"typeName", text("Qel::Dir")}}));
  EXPECT_EQ(requests().back(), "/ledra/Ledra/x?flags=Cnp");
  for (auto const& [cond, result] : {std::pair{"%slot == 3", true}, {"%slot == 4", false}}) {
    GenericIf::PtrConst const r =
        engine->invoke("evaluateTemplateCondition", {{"cond", text(cond)}});
    ASSERT_TRUE(r) << cond;
    EXPECT_EQ(r->valueAs<bool>(), result) << cond;
  }
}

TEST_F(EngineGenericViewTest, ConstInstanceAndWrongArgumentNameAreRefused) {
  startEngine();
  GenericIf::PtrConst const view(engine.ptr());
  EXPECT_THROW_TEXT(view->invoke("handleClose", {{"reason", text("why")}}),
                    Qel::ConstInstanceException, "attempting to modify a const instance");
  EXPECT_THROW_TEXT(engine->invoke("handleClose", {{"cause", text("why")}}), Qel::TypeException,
                    "handler handleClose of Ledra::PassiveEntityManagerSm has no parameter cause");
  EXPECT_THROW_TEXT(
      engine->invoke("handleMountProfile", {{"group", profile}}), Qel::TypeException,
      "argument group of handler handleMountProfile of Ledra::PassiveEntityManagerSm must be "
      "Ledra::PassiveMountGroup, not Ledra::PassiveAgentProfile");
  EXPECT_TRUE(engine->initialized());
  run();
  EXPECT_TRUE(agent->closeReasons().empty());
}

}  // namespace
}  // namespace Ledra::test
