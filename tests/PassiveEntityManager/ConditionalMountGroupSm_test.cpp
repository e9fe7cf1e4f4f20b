// The conditional mount group state machine: the condition parser, the order in which conditions
// are evaluated (inline and later), re-entrance, the retry of missing entities on the timer wheel
// with its standard-error line, path templates, lifetimes, notification switches and the
// assertions. The simulation checks that a blocking group holds its engine's queue back until its
// last condition holds.
#include "PassiveEntityManager/ConditionalMountGroupSm.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "ConditionalFixture.h"
#include "PassiveEntityManager/PathTemplates.h"

namespace {

using ConditionalTesting::literal;
using Ledra::ConditionalMountGroupSm;
using Strings = std::vector<std::string>;

// The parts of a condition as "constant|op|len|path|attribute".
std::string partsOf(char const* text) {
  auto const p = ConditionalMountGroupSm::conditionParts(text);
  return p.constant + "|" + p.op + "|" + (p.len ? "len" : "") + "|" + p.path + "|" + p.attribute;
}

TEST(ConditionPartsTest, TokensEndAtABlankOrADot) {
  struct {
    char const* text;
    char const* parts;
  } const cases[] = {
      // The parenthesis that closes "len(" may follow the attribute directly.
      {"2 >= len( /a/b.col)", "2|>=|len|/a/b|col"},
      // Whatever follows the attribute is not read, a second dot included.
      {"x != /p.q.r", "x|!=||/p|q"},
      // A dot ends the constant: "1.5" is the constant 1 and the operator 5.
      {"1.5 == /a.b", "1|5||==|/a"},
      // Runs of blanks and tabs separate like one blank.
      {"  7   <\t/a.b", "7|<||/a|b"},
      // "len(" is a word of its own: glued to the path it stays in the path.
      {"3 == len(/a.col)", "3|==||len(/a|col)"},
      {"5 ==", "5|==|||"},
      {"", "||||"},
  };
  for (auto const& c : cases)
    EXPECT_EQ(partsOf(c.text), c.parts) << '"' << c.text << '"';
}

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
  Strings values;
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

TEST_F(ConditionalMountGroupSmTest, ALaterConditionTrueAtOnceIsSettledInsideTheEarlierReport) {
  set("a_bool", "true");
  condition("5 < " + on("a_S32"));          // false at start
  condition("true == " + on("a_bool"));     // true at once
  condition("hello == " + on("a_string"));  // false until written
  start();
  PendingRecorder pending(sm);
  Orn::CountedNotifiee const* const first = sm->conditionalReactor().ptr();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(sm->conditionLocalQueues(), 2u);
  capture.clear();

  set("a_S32", "9");
  // The second condition was created, found true and released; the third one now waits.
  EXPECT_EQ(pending.values,
            (Strings{"true == /condTest/w.a_bool", "hello == /condTest/w.a_string"}));
  EXPECT_EQ(sm->conditionLocalQueues(), 0u);
  EXPECT_NE(sm->conditionalReactor().ptr(), first);
  EXPECT_EQ(watched->notifiees(), 1u) << "only the third condition's reactor watches";
  EXPECT_FALSE(enabled());
  set("a_string", "hello");
  EXPECT_TRUE(enabled());
}

// --- missing entities

class RetryTest : public ConditionalTesting::ConditionalTest {
 protected:
  void SetUp() override {
    ConditionalTest::SetUp();
    testing::internal::CaptureStderr();
  }
  void TearDown() override {
    if (capturing_) testing::internal::GetCapturedStderr();
    ConditionalTest::TearDown();
  }
  static std::string lateCondition() { return "3 == /condTest/late.a_U32"; }
  void addLate() { another("late")->attributeIs("a_U32", Qel::String("3")); }
  static std::string line(char const* delay) {
    return std::string(
               "Error while processing profile for agent <UNKNOWN>. Entity "
               "/condTest/late must be present for the conditional to work. retrying in ") +
           delay + "\n";
  }
  void runTo(double t) { loop->runFor(t - clock->now()); }
  std::string stderrText() {
    capturing_ = false;
    return testing::internal::GetCapturedStderr();
  }
  std::vector<double> attempts() const {
    return timesOf("ConditionalMountGroupSm::handleCondition 3 == ");
  }
  // The gaps between attempts, each checked against `delays` (the last one repeating).
  void expectGaps(std::vector<double> const& delays) const {
    std::vector<double> const at = attempts();
    ASSERT_GE(at.size(), delays.size() + 1);
    EXPECT_EQ(at[0], 0);
    for (std::size_t i = 1; i < at.size(); ++i)
      EXPECT_NEAR(at[i] - at[i - 1], delays[std::min(i, delays.size()) - 1], 0.0011) << i;
  }

  bool capturing_ = true;
};

TEST_F(RetryTest, AnEntityThatNeverComesIsRetriedEveryFiveSecondsForeverUntilDestroyed) {
  condition(lateCondition());
  start();
  runTo(60);
  std::size_t const n = attempts().size();
  EXPECT_GT(n, 14u);
  expectGaps({0.01, 0.02, 0.04, 0.08, 0.16, 0.32, 0.64, 1.28, 2.56, 5.12, 5.0});
  std::string expected;
  for (char const* d : {"0.02", "0.04", "0.08", "0.16", "0.32", "0.64", "1.28", "2.56", "5.12"})
    expected += line(d);
  for (std::size_t i = 9; i < n; ++i)
    expected += line("5");
  EXPECT_EQ(stderrText(), expected);
  EXPECT_EQ(sm->retryDelay(), 5.0);
  EXPECT_FALSE(enabled());
  EXPECT_EQ(wheel->timers(), 1u);
  sm = nullptr;
  EXPECT_EQ(wheel->timers(), 0u);
  runTo(70);
  EXPECT_EQ(attempts().size(), n);
}

TEST_F(RetryTest, AConditionAddedWhileWaitingForAnEntityRestartsTheListAndIsWaitedFor) {
  condition(lateCondition());
  condition("1 == " + on("a_U32"));
  start();    // the first condition waits for its entity
  addLate();  // a_U32 = 3: the first condition holds once its entity is looked up again
  condition("5 == /condTest/late.a_U32");
  // Evaluated again from the head: the second condition waits, the new one queues behind it.
  EXPECT_EQ(sm->currentPendingCondition(), "1 == /condTest/w.a_U32");
  runTo(0.1);  // the retry armed before the restart is gone and skips nothing
  EXPECT_EQ(attempts().size(), 2u);
  set("a_U32", "1");
  EXPECT_EQ(sm->currentPendingCondition(), "5 == /condTest/late.a_U32");
  Qel::globalDir()->entity("/condTest/late")->attributeIs("a_U32", Qel::String("5"));
  EXPECT_TRUE(enabled());
}

TEST_F(RetryTest, ASwitchedOffOrZombieStateMachineSkipsItsRetries) {
  condition(lateCondition());
  start();
  sm->hasNotificationActiveIs(false);
  runTo(0.05);  // the wake-up is consumed without an attempt
  EXPECT_EQ(attempts().size(), 1u);
  EXPECT_EQ(sm->retryTime(), Qel::kNever);
  sm->hasNotificationActiveIs(true);
  sm->handleRetryCondition();  // by hand: fails again and re-arms
  EXPECT_EQ(attempts().size(), 2u);
  sm->qelDoZombieReactorsIs(true);
  runTo(0.2);
  EXPECT_EQ(attempts().size(), 2u);
  sm->qelDoZombieReactorsIs(false);
  addLate();
  sm->handleRetryCondition();
  EXPECT_TRUE(enabled());
}

// --- lifetimes and notification switches

// The engine releases the state machine from its reaction to `enabled`, deep inside the state
// machine's own handlers: from a reactor's report, and from the evaluation of a condition true
// at once.
TEST_F(ConditionalMountGroupSmTest, TheOwnerMayDropTheStateMachineWhenTheGroupIsEnabled) {
  condition("5 < " + on("a_S32"));
  condition("2 > " + on("a_S32"));
  start();
  OnEnabled dropper(res, [this] { sm = nullptr; });
  set("a_S32", "6");
  EXPECT_EQ(sm->currentPendingCondition(), "2 > /condTest/w.a_S32");
  set("a_S32", "1");
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm, nullptr);
  EXPECT_EQ(watched->notifiees(), 0u);
}

TEST_F(ConditionalMountGroupSmTest, TheOwnerMayDropTheStateMachineWhileItIsEnabledInline) {
  set("a_S32", "6");
  condition("5 < " + on("a_S32"));
  sm = ConditionalMountGroupSm::conditionalMountGroupSmNew(group, res, nullptr, wheel);
  OnEnabled dropper(res, [this] { sm = nullptr; });
  ConditionalMountGroupSm* const raw = sm.ptr();
  raw->handleCondition();  // releases its last reference from inside: must survive to return
  EXPECT_TRUE(enabled());
  EXPECT_EQ(sm, nullptr);
}

TEST_F(ConditionalMountGroupSmTest, NotificationSwitchesReachTheReactorsAndNewOnesInheritThem) {
  condition("5 < " + on("a_S32"));
  condition("hello == " + on("a_string"));
  start();
  sm->qelDoZombieReactorsIs(true);
  EXPECT_TRUE(sm->conditionalReactor()->qelZombie());
  set("a_S32", "7");
  EXPECT_EQ(sm->currentPendingCondition(), "5 < /condTest/w.a_S32");
  sm->qelDoZombieReactorsIs(false);
  set("a_S32", "8");
  EXPECT_EQ(sm->currentPendingCondition(), "hello == /condTest/w.a_string");
  // Installed while switched off: the new reactor starts switched off.
  sm->hasNotificationActiveIs(false);
  sm->currentPendingConditionIs(Qel::String());
  sm->handleCondition("world == " + on("a_string"));
  EXPECT_FALSE(sm->conditionalReactor()->notificationActive());
  set("a_string", "world");
  EXPECT_FALSE(enabled());
}

// --- assertions

TEST_F(ConditionalMountGroupSmDeathTest, AReactorThatIsNotCurrentMustNotReport) {
  condition("5 < " + on("a_S32"));
  start();
  sm->currentPendingConditionIs("something else");
  EXPECT_DEATH(set("a_S32", "6"),
               literal("Assertion failed: conditionSm_->currentPendingCondition() == condition_"));
}

TEST_F(ConditionalMountGroupSmDeathTest, TheGroupAndTheResultRecordAreRequired) {
  EXPECT_DEATH(ConditionalMountGroupSm::conditionalMountGroupSmNew(nullptr, res, nullptr, wheel),
               "needs its group");
  EXPECT_DEATH(ConditionalMountGroupSm::conditionalMountGroupSmNew(group, nullptr, nullptr, wheel),
               "needs its result record");
}

}  // namespace
