// The conditional mount group state machine: the condition parser, the order in which conditions
// are evaluated (inline and later), re-entrance, the retry of missing entities on the timer wheel
// with its standard-error line, path templates, lifetimes, notification switches, the engine's
// blocking conditions and the assertions.
#include "PassiveEntityManager/ConditionalMountGroupSm.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ConditionalFixture.h"
#include "Ledra/EntityManager.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "Qel/ActivityManagerConfig.h"
#include "Qel/Exception.h"

namespace {

using ConditionalTesting::literal;
using Ledra::ConditionalMountGroupSm;
using Parts = ConditionalMountGroupSm::ConditionParts;

// --- the condition parser

struct ParseCase {
  char const* text;
  Parts parts;
};

void PrintTo(ParseCase const& c, std::ostream* os) {
  *os << '"' << c.text << '"';
}

}  // namespace

namespace Ledra {
void PrintTo(ConditionalMountGroupSm::ConditionParts const& p, std::ostream* os) {
  *os << "{" << p.constant << "|" << p.op << "|" << (p.len ? "len" : "") << "|" << p.path << "|"
      << p.attribute << "}";
}
}  // namespace Ledra

namespace {

class ConditionPartsTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(ConditionPartsTest, TokensEndAtABlankOrADot) {
  EXPECT_EQ(ConditionalMountGroupSm::conditionParts(GetParam().text), GetParam().parts);
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, ConditionPartsTest,
    ::testing::Values(ParseCase{"5 == /a/b.c", {"5", "==", false, "/a/b", "c"}},
                      ParseCase{"2 >= len( /a/b.col )", {"2", ">=", true, "/a/b", "col"}},
                      ParseCase{"k in /a.tags", {"k", "in", false, "/a", "tags"}},
                      ParseCase{"k notin len( /a.tags", {"k", "notin", true, "/a", "tags"}},
                      // Whatever follows the attribute is not read, a second dot included.
                      ParseCase{"x != /p.q.r", {"x", "!=", false, "/p", "q"}},
                      ParseCase{"x != /p.q trailing words", {"x", "!=", false, "/p", "q"}},
                      // A dot ends the constant: "1.5" is the constant 1 and the operator 5.
                      ParseCase{"1.5 == /a.b", {"1", "5", false, "==", "/a"}},
                      // Runs of blanks and tabs separate like one blank.
                      ParseCase{"  7   <\t/a.b", {"7", "<", false, "/a", "b"}},
                      // "len(" is a word of its own: glued to the path it stays in the path.
                      ParseCase{"3 == len(/a.col)", {"3", "==", false, "len(/a", "col)"}},
                      ParseCase{"NULL == /a.b", {"NULL", "==", false, "/a", "b"}},
                      ParseCase{"%cellId == /x/%cellPath.n",
                                {"%cellId", "==", false, "/x/%cellPath", "n"}},
                      ParseCase{"5 ==", {"5", "==", false, "", ""}},
                      ParseCase{"", {"", "", false, "", ""}}));

// --- evaluation order

using ConditionalMountGroupSmTest = ConditionalTesting::ConditionalTest;
using ConditionalMountGroupSmDeathTest = ConditionalTesting::ConditionalTest;

// Records every value currentPendingCondition takes.
class PendingRecorder : public ConditionalMountGroupSm::NotifieeConst {
 public:
  explicit PendingRecorder(ConditionalMountGroupSm::Ptr const& sm) { notifierIs(sm); }
  void onCurrentPendingCondition() override {
    values.push_back(notifier()->currentPendingCondition());
  }
  std::vector<std::string> values;
};

// Counts the changes of a result record and runs `hook` on each (as the engine reacts).
class OnEnabled : public Ledra::ConditionRes::NotifieeConst {
 public:
  explicit OnEnabled(Ledra::ConditionRes::Ptr const& r, std::function<void()> hook = {})
      : hook_(std::move(hook)) {
    notifierIs(r);
  }
  void onEnabled() override {
    ++count;
    if (hook_) hook_();
  }
  int count = 0;

 private:
  std::function<void()> hook_;
};

TEST_F(ConditionalMountGroupSmTest, ConditionsTrueAtStartAreEvaluatedInOrderDuringTheFactory) {
  set("a_bool", "true");
  set("a_S32", "6");
  condition("true == " + on("a_bool"));
  condition("5 < " + on("a_S32"));
  start();
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm_->conditionalReactor(), nullptr);
  EXPECT_TRUE(sm_->currentPendingCondition().empty());
  EXPECT_EQ(watched_->notifiees(), 0u) << "no reactor is left watching";
  EXPECT_EQ(messages(),
            (std::vector<std::string>{
                "ConditionalMountGroupSm::handleCondition",
                "Deq condition: true == /condTest/w.a_bool",
                "ConditionalMountGroupSm::handleCondition true == /condTest/w.a_bool",
                "handleCondition: \"true == /condTest/w.a_bool\"",
                "looking up aid for attr: a_bool /condTest/w for type: condTest::Watched",
                "bool",
                "MountGroupReactor::handleAttribute",
                "handleAttribute 0x*, condition: true == /condTest/w.a_bool is true",
                "Condition check start 0x*",
                "More Conditions found",
                "ConditionalMountGroupSm::handleCondition 5 < /condTest/w.a_S32",
                "handleCondition: \"5 < /condTest/w.a_S32\"",
                "looking up aid for attr: a_S32 /condTest/w for type: condTest::Watched",
                "S32",
                "MountGroupReactor::handleAttribute",
                "handleAttribute 0x*, condition: 5 < /condTest/w.a_S32 is true",
                "Condition check start 0x*",
                "Condition check stop: all conditions true",
                "Condition is already true",
                "Condition is already true",
            }));
}

TEST_F(ConditionalMountGroupSmTest, AFalseConditionInstallsItsReactorAndEnablesWhenItTurnsTrue) {
  condition("5 < " + on("a_S32"));
  start();
  EXPECT_FALSE(enabled());
  EXPECT_EQ(sm_->currentPendingCondition(), "5 < /condTest/w.a_S32");
  ASSERT_NE(sm_->conditionalReactor(), nullptr);
  std::vector<std::string> const atStart = messagesUpTo(2);
  ASSERT_EQ(atStart.size(), 1u);
  std::string const address = ConditionalTesting::addressIn(atStart[0]);
  ASSERT_GT(address.size(), 2u) << atStart[0];
  EXPECT_EQ(atStart[0],
            "Adding conditional reactor " + address + " for condition: 5 < /condTest/w.a_S32");
  capture_.clear();
  OnEnabled counter(res_);
  set("a_S32", "5");  // 5 < 5 is false
  EXPECT_FALSE(enabled());
  set("a_S32", "6");
  EXPECT_TRUE(enabled());
  EXPECT_EQ(messagesUpTo(2),
            std::vector<std::string>{"handleAttribute " + address +
                                     ", condition: 5 < /condTest/w.a_S32 is true"});
  // Done: the last condition stays pending and its reactor installed; reports repeat harmlessly.
  EXPECT_EQ(sm_->currentPendingCondition(), "5 < /condTest/w.a_S32");
  EXPECT_NE(sm_->conditionalReactor(), nullptr);
  set("a_S32", "7");
  EXPECT_TRUE(enabled());
  EXPECT_EQ(counter.count, 1);
}

TEST_F(ConditionalMountGroupSmTest, ALaterConditionTrueAtOnceIsSettledInsideTheEarlierReport) {
  set("a_bool", "true");
  condition("5 < " + on("a_S32"));          // false at start
  condition("true == " + on("a_bool"));     // true at once
  condition("hello == " + on("a_string"));  // false until written
  start();
  PendingRecorder pending(sm_);
  Orn::CountedNotifiee const* const first = sm_->conditionalReactor().ptr();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(sm_->conditionLocalQueues(), 2u);
  capture_.clear();

  set("a_S32", "9");
  // The second condition was created, found true and released; the third one now waits.
  EXPECT_EQ(pending.values, (std::vector<std::string>{"true == /condTest/w.a_bool",
                                                      "hello == /condTest/w.a_string"}));
  EXPECT_EQ(sm_->conditionLocalQueues(), 0u);
  EXPECT_NE(sm_->conditionalReactor().ptr(), first);
  EXPECT_EQ(watched_->notifiees(), 1u) << "only the third condition's reactor watches";
  EXPECT_FALSE(enabled());
  EXPECT_EQ(capture_.count("Adding conditional reactor"), 1u);
  EXPECT_EQ(capture_.count("More Conditions found"), 2u);

  set("a_string", "hello");
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm_->currentPendingCondition(), "hello == /condTest/w.a_string");
}

TEST_F(ConditionalMountGroupSmTest, NewConditionsOfTheGroupStartAnIdleStateMachineOnly) {
  start();
  EXPECT_EQ(messages(), std::vector<std::string>{"ConditionalMountGroupSm::handleCondition"});
  set("a_U32", "5");
  condition("4 > " + on("a_U32"));  // the group's immediate notification starts the evaluation
  EXPECT_EQ(sm_->currentPendingCondition(), "4 > /condTest/w.a_U32");
  // Busy waiting for a condition: a further change of the conditions restarts nothing, and the
  // evaluation under way ends with the list it started with.
  capture_.clear();
  condition("1 == " + on("a_U32"));
  EXPECT_EQ(messages(), std::vector<std::string>{"ConditionalMountGroupSm::handleCondition"});
  EXPECT_EQ(sm_->conditionLocalQueues(), 0u);
  set("a_U32", "3");
  EXPECT_TRUE(enabled());
}

// --- missing entities

class RetryTest : public ConditionalTesting::ConditionalTest {
 protected:
  static constexpr char const* kLate = "/condTest/late";
  std::string lateCondition() const { return std::string("3 == ") + kLate + ".a_U32"; }
  void addLate() {
    auto late = Qel::DynamicEntity::entityNew(ConditionalTesting::watchedType(), "late");
    late->attributeIs("a_U32", Qel::String("3"));
    dir_->entryIs(late);
  }
  static std::string line(char const* agent, char const* delay) {
    return std::string("Error while processing profile for agent ") + agent +
           ". Entity /condTest/late must be present for the conditional to work. retrying in " +
           delay + "\n";
  }
  // Moves the clock on to `t` in steps of one tick, as the event loop would.
  void runTo(double t) {
    while (clock_->now() + 0.0005 < t)
      clock_->advance(0.001);
  }
  std::vector<double> attempts() const {
    return timesOf("ConditionalMountGroupSm::handleCondition 3 == ");
  }
};

TEST_F(RetryTest, AnEntityCreatedLaterIsFoundOnTheSixthAttempt) {
  condition(lateCondition());
  testing::internal::CaptureStderr();
  start();
  EXPECT_EQ(sm_->retryCondition(), lateCondition());
  EXPECT_TRUE(sm_->currentPendingCondition().empty());
  runTo(0.3);
  addLate();
  runTo(0.4);
  std::string const err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm_->retryTime(), Qel::kNever);
  std::vector<double> const at = attempts();
  std::vector<double> const delays{0.01, 0.02, 0.04, 0.08, 0.16};
  ASSERT_EQ(at.size(), delays.size() + 1);
  EXPECT_EQ(at[0], 0);
  for (std::size_t i = 0; i < delays.size(); ++i) {
    EXPECT_NEAR(at[i + 1] - at[i], delays[i], 0.0011) << i;
  }
  EXPECT_EQ(err, line("<UNKNOWN>", "0.02") + line("<UNKNOWN>", "0.04") + line("<UNKNOWN>", "0.08") +
                     line("<UNKNOWN>", "0.16") + line("<UNKNOWN>", "0.32"));
  EXPECT_EQ(sm_->retryDelay(), 0.32);
}

TEST_F(RetryTest, AnEntityThatNeverComesIsRetriedEveryFiveSecondsForever) {
  condition(lateCondition());
  testing::internal::CaptureStderr();
  start();
  runTo(60);
  std::string const err = testing::internal::GetCapturedStderr();
  std::vector<double> const at = attempts();
  // Delays 0.01 .. 5.12 (ten of them), then 5.0 each.
  std::vector<double> gaps;
  for (std::size_t i = 1; i < at.size(); ++i)
    gaps.push_back(at[i] - at[i - 1]);
  std::vector<double> const doubling{0.01, 0.02, 0.04, 0.08, 0.16, 0.32, 0.64, 1.28, 2.56, 5.12};
  ASSERT_GT(gaps.size(), doubling.size() + 3);
  for (std::size_t i = 0; i < gaps.size(); ++i) {
    EXPECT_NEAR(gaps[i], i < doubling.size() ? doubling[i] : 5.0, 0.0011) << i;
  }
  std::string expected;
  for (char const* d : {"0.02", "0.04", "0.08", "0.16", "0.32", "0.64", "1.28", "2.56", "5.12"}) {
    expected += line("<UNKNOWN>", d);
  }
  for (std::size_t i = doubling.size() - 1; i < at.size(); ++i)
    expected += line("<UNKNOWN>", "5");
  EXPECT_EQ(err, expected);
  EXPECT_EQ(sm_->retryDelay(), 5.0);
  EXPECT_FALSE(enabled());
  EXPECT_NE(sm_->retryTime(), Qel::kNever);
}

TEST_F(RetryTest, TheDelayIsNotResetForALaterCondition) {
  condition(lateCondition());
  condition(std::string("3 == /condTest/later.a_U32"));
  testing::internal::CaptureStderr();
  start();
  runTo(0.02);  // two failures: the next delay is 0.04
  addLate();
  runTo(0.05);  // the first condition holds; the second waits, continuing from 0.04
  std::string const err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(sm_->retryCondition(), "3 == /condTest/later.a_U32");
  EXPECT_EQ(sm_->retryDelay(), 0.08);
  EXPECT_NE(err.find("Entity /condTest/later must be present for the conditional to work. "
                     "retrying in 0.08\n"),
            std::string::npos)
      << err;
}

TEST_F(RetryTest, AStateMachineWaitingForAnEntityIsNotRestartedByNewConditions) {
  condition(lateCondition());
  condition("1 == " + on("a_U32"));
  testing::internal::CaptureStderr();
  start();
  EXPECT_EQ(sm_->conditionLocalQueues(), 1u);
  condition("2 == " + on("a_U32"));  // busy waiting: the retry carries on with the list
  addLate();
  set("a_U32", "1");
  runTo(0.02);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(enabled());
}

TEST_F(RetryTest, TheReactorOfASatisfiedConditionStopsWhileTheNextWaitsForItsEntity) {
  condition("5 < " + on("a_S32"));
  condition(lateCondition());
  testing::internal::CaptureStderr();
  start();
  set("a_S32", "6");  // the second condition's entity is missing
  EXPECT_EQ(sm_->conditionalReactor(), nullptr);
  set("a_S32", "7");  // must not report for the missing one
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(enabled());
  EXPECT_EQ(watched_->notifiees(), 0u);
}

TEST_F(RetryTest, ASwitchedOffOrZombieStateMachineSkipsItsRetries) {
  condition(lateCondition());
  testing::internal::CaptureStderr();
  start();
  sm_->hasNotificationActiveIs(false);
  runTo(0.05);  // the wake-up is consumed without an attempt
  EXPECT_EQ(attempts().size(), 1u);
  EXPECT_EQ(sm_->retryTime(), Qel::kNever);
  sm_->hasNotificationActiveIs(true);
  sm_->handleRetryCondition();  // by hand: fails again and re-arms
  EXPECT_EQ(attempts().size(), 2u);
  sm_->qelDoZombieReactorsIs(true);
  runTo(0.2);
  EXPECT_EQ(attempts().size(), 2u);
  sm_->qelDoZombieReactorsIs(false);
  addLate();
  sm_->handleRetryCondition();
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(enabled());
}

TEST_F(RetryTest, DestructionDisarmsTheRetry) {
  condition(lateCondition());
  testing::internal::CaptureStderr();
  start();
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(wheel_->timers(), 1u);
  sm_ = nullptr;
  EXPECT_EQ(wheel_->timers(), 0u);
  runTo(0.05);
}

// --- templates

TEST_F(ConditionalMountGroupSmTest, TheConstantAndThePathGoThroughTheTemplates) {
  auto& reserved = Ledra::globalReservedTemplateKeyDict();
  Ledra::ReservedTemplateKeyDict const saved = reserved;
  reserved["%cellId"] = "2";
  reserved["%where"] = "w";
  reserved["%indirect"] = "%cellId";
  set("a_U16", "2");
  set("a_string", "2");
  condition("%cellId == /condTest/%where.a_U16");
  condition("%indirect == /condTest/%where.a_string");
  start();
  reserved = saved;
  EXPECT_TRUE(enabled());
  EXPECT_TRUE(capture_.contains("handleCondition: \"2 == /condTest/w.a_U16\""));
  EXPECT_TRUE(capture_.contains("handleCondition: \"%cellId == /condTest/w.a_string\""));
  EXPECT_TRUE(capture_.contains("Canonicalized val :2"));
}

// --- lifetimes and notification switches

TEST_F(ConditionalMountGroupSmTest, DestructionReleasesTheReactor) {
  condition("5 < " + on("a_S32"));
  start();
  EXPECT_EQ(watched_->notifiees(), 1u);
  capture_.clear();
  sm_ = nullptr;
  EXPECT_EQ(watched_->notifiees(), 0u);
  EXPECT_EQ(messages(), std::vector<std::string>{"ConditionalMountGroupSm::handleDeletion"});
  set("a_S32", "6");
  EXPECT_FALSE(enabled());
}

// The engine releases the state machine from its reaction to `enabled`, deep inside the state
// machine's own handlers.
TEST_F(ConditionalMountGroupSmTest, TheOwnerMayDropTheStateMachineWhenTheGroupIsEnabled) {
  condition("5 < " + on("a_S32"));
  condition("2 > " + on("a_S32"));
  start();
  OnEnabled dropper(res_, [this] { sm_ = nullptr; });
  set("a_S32", "6");
  EXPECT_NE(sm_, nullptr);
  EXPECT_EQ(sm_->currentPendingCondition(), "2 > /condTest/w.a_S32");
  set("a_S32", "1");
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm_, nullptr);
  EXPECT_EQ(watched_->notifiees(), 0u);
}

TEST_F(ConditionalMountGroupSmTest, TheOwnerMayDropTheStateMachineWhileItIsEnabledInline) {
  set("a_S32", "6");
  condition("5 < " + on("a_S32"));
  sm_ = ConditionalMountGroupSm::conditionalMountGroupSmNew(group_, res_, nullptr, wheel_);
  OnEnabled dropper(res_, [this] { sm_ = nullptr; });
  ConditionalMountGroupSm* const raw = sm_.ptr();
  raw->handleCondition();  // releases its last reference from inside: must survive to return
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm_, nullptr);
}

TEST_F(ConditionalMountGroupSmTest, NotificationSwitchesReachTheReactorsAndNewOnesInheritThem) {
  condition("5 < " + on("a_S32"));
  condition("hello == " + on("a_string"));
  start();
  sm_->hasNotificationActiveIs(false);
  EXPECT_FALSE(sm_->conditionalReactor()->notificationActive());
  set("a_S32", "6");
  EXPECT_EQ(sm_->currentPendingCondition(), "5 < /condTest/w.a_S32");
  sm_->hasNotificationActiveIs(true);
  sm_->qelDoZombieReactorsIs(true);
  EXPECT_TRUE(sm_->conditionalReactor()->qelZombie());
  set("a_S32", "7");
  EXPECT_EQ(sm_->currentPendingCondition(), "5 < /condTest/w.a_S32");
  sm_->qelDoZombieReactorsIs(false);
  set("a_S32", "8");
  EXPECT_EQ(sm_->currentPendingCondition(), "hello == /condTest/w.a_string");
  // Installed while switched off: the new reactor starts switched off.
  sm_->hasNotificationActiveIs(false);
  sm_->currentPendingConditionIs(Qel::String());
  sm_->handleCondition("world == " + on("a_string"));
  EXPECT_FALSE(sm_->conditionalReactor()->notificationActive());
  set("a_string", "world");
  EXPECT_FALSE(enabled());
}

// --- the engine

class WithEngineTest : public ConditionalTesting::ConditionalTest {
 protected:
  void SetUp() override {
    ConditionalTest::SetUp();
    entMgr_ = Ledra::EntityManager::entityManagerNew("entityManager");
    profile_ = Ledra::PassiveAgentProfile::agentProfileNew("agentB");
    status_ = Ledra::PassiveAgentStatus::agentStatusNew("agentB");
    engine_ =
        Ledra::passiveEntityManagerSmFactory(profile_, status_, nullptr, nullptr, entMgr_, wheel_);
  }
  void TearDown() override {
    sm_ = nullptr;
    engine_ = nullptr;
    status_ = nullptr;
    profile_ = nullptr;
    entMgr_ = nullptr;
    // The engine made the process configuration; tests leave none behind.
    Qel::ActivityManagerConfig::instanceIs(nullptr);
    ConditionalTest::TearDown();
  }
  void startWithEngine() {
    sm_ = Ledra::conditionalMountGroupSmFactory(group_, res_, engine_.ptr(), wheel_);
  }

  Ledra::EntityManager::Ptr entMgr_;
  Ledra::PassiveAgentProfile::Ptr profile_;
  Ledra::PassiveAgentStatus::Ptr status_;
  Ledra::PassiveEntityManagerSm::Ptr engine_;
};

TEST_F(WithEngineTest, ABlockingGroupRemovesItsConditionExactlyWhenTheLastConditionHolds) {
  group_->blockingConditionalIs(true);
  group_->entireConditionIs("whole condition");
  engine_->blockingConditionalsIs("whole condition", true);
  engine_->blockingConditionalsIs("another group", true);
  condition("5 < " + on("a_S32"));
  condition("hello == " + on("a_string"));
  startWithEngine();
  set("a_S32", "6");
  EXPECT_TRUE(engine_->blockingConditionals("whole condition").has_value());
  bool blockingGoneFirst = false;
  OnEnabled order(res_, [&] {
    blockingGoneFirst = !engine_->blockingConditionals("whole condition").has_value();
  });
  capture_.clear();
  set("a_string", "hello");
  EXPECT_TRUE(enabled());
  EXPECT_TRUE(blockingGoneFirst);
  EXPECT_FALSE(engine_->blockingConditionals("whole condition").has_value());
  EXPECT_TRUE(engine_->blockingConditionals("another group").has_value());
  EXPECT_EQ(messagesUpTo(2).back(),
            "MountGroupReactor::handleAttribute Removing a blocking Condition");
}

TEST_F(WithEngineTest, TheAgentsNameAndTemplateValuesComeFromTheEngine) {
  status_->templateValueDictIs("%unit", "w");
  condition("3 == /condTest/%unit/x.a_U32");
  testing::internal::CaptureStderr();
  startWithEngine();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Error while processing profile for agent agentB. Entity /condTest/w/x must be "
            "present for the conditional to work. retrying in 0.02\n");
  EXPECT_EQ(sm_->agentName(), "agentB");
  EXPECT_EQ(sm_->agentStatus(), status_);
  sm_->passiveEntityManagerSmIs(nullptr);
  EXPECT_EQ(sm_->agentName(), "<UNKNOWN>");
}

// --- assertions

TEST_F(ConditionalMountGroupSmDeathTest, StartingWithAFilledLocalQueueIsAContractViolation) {
  start();
  sm_->conditionLocalQueueEnq("stray");
  EXPECT_DEATH(condition("1 == " + on("a_U32")),
               literal("Assertion failed: !conditionLocalQueues()"));
}

TEST_F(ConditionalMountGroupSmDeathTest, AReactorThatIsNotCurrentMustNotReport) {
  condition("5 < " + on("a_S32"));
  start();
  sm_->currentPendingConditionIs("something else");
  EXPECT_DEATH(set("a_S32", "6"),
               literal("Assertion failed: conditionSm_->currentPendingCondition() == condition_"));
}

TEST_F(ConditionalMountGroupSmDeathTest, TheGroupAndTheResultRecordAreRequired) {
  EXPECT_DEATH(ConditionalMountGroupSm::conditionalMountGroupSmNew(nullptr, res_, nullptr, wheel_),
               "needs its group");
  EXPECT_DEATH(
      ConditionalMountGroupSm::conditionalMountGroupSmNew(group_, nullptr, nullptr, wheel_),
      "needs its result record");
}

}  // namespace
