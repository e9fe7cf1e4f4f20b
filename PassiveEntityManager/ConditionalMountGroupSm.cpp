#include "PassiveEntityManager/ConditionalMountGroupSm.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <type_traits>
#include <utility>

#include "Check/Check.h"
#include "PassiveEntityManager/MountGroupReactor.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "PassiveEntityManager/TraceFacility.h"
#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

namespace {

constexpr int kTraceSignature = 8;
constexpr int kTraceReport = 2;

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

// The next token of `text` from `pos` on: blanks before it are skipped, it ends at a blank or a
// dot, and `pos` moves past that separator.
Qel::String nextToken(Qel::String const& text, std::size_t& pos) {
  while (pos < text.size() && isBlank(text[pos]))
    ++pos;
  std::size_t const start = pos;
  while (pos < text.size() && !isBlank(text[pos]) && text[pos] != '.')
    ++pos;
  Qel::String token(text.substr(start, pos - start));
  if (pos < text.size()) ++pos;
  return token;
}

// Whether `text` spells the null pointer as a pointer constant.
bool isNullPointerText(Qel::String const& text) {
  return text.empty() || text == "NULL" || text == "0";
}

}  // namespace

// Watches the group's condition collection: a change may start an evaluation.
class ConditionalMountGroupSm::QelMountGroup : public PassiveMountGroup::NotifieeConst {
 public:
  QelMountGroup(ConditionalMountGroupSm* owner, PassiveMountGroup::PtrConst const& group)
      : owner_(owner) {
    notifierIs(group);
  }
  void onConditionColqelImmediate() override { owner_->handleCondition(); }

 private:
  ConditionalMountGroupSm* const owner_;
};

// The retry timer. A zombie ignores its wake-ups.
class ConditionalMountGroupSm::QelTimerWheel : public Orn::TimerWheel::Notifiee {
 public:
  QelTimerWheel(ConditionalMountGroupSm* owner, Orn::TimerWheel::PtrConst const& wheel)
      : owner_(owner) {
    notifierIs(wheel);
  }
  void zombieIs(bool zombie) { zombie_ = zombie; }
  void onTime() override {
    if (zombie_) return;
    owner_->handleRetryCondition();
  }

 private:
  ConditionalMountGroupSm* const owner_;
  bool zombie_ = false;
};

namespace {

// A new reactor, and its address as it traces itself.
using NewReactorParts = std::pair<Orn::CountedNotifiee::Ptr, void const*>;

template <class T, class Constant>
NewReactorParts mountGroupReactorNew(ConditionalMountGroupSm* sm, Qel::String const& condition,
                                     Qel::Entity::Ptr const& entity, Constant constant,
                                     Orn::LogicalOp op, bool len, Qel::AttributeId aid) {
  // Adopted only once constructed: the constructor may already have reported the condition.
  typename MountGroupReactor<T>::Ptr const r(
      new MountGroupReactor<T>(sm, condition, entity, std::move(constant), op, len, aid));
  return {r, r.ptr()};
}

}  // namespace

struct ConditionalMountGroupSm::NewReactor {
  NewReactor() = default;
  NewReactor(NewReactorParts parts) : reactor(std::move(parts.first)), address(parts.second) {}

  Orn::CountedNotifiee::Ptr reactor;
  void const* address = nullptr;
};

ConditionalMountGroupSm::ConditionParts ConditionalMountGroupSm::conditionParts(
    Qel::String const& condition) {
  ConditionParts parts;
  std::size_t pos = 0;
  parts.constant = nextToken(condition, pos);
  parts.op = nextToken(condition, pos);
  parts.path = nextToken(condition, pos);
  if (parts.path == "len(") {
    parts.len = true;
    parts.path = nextToken(condition, pos);
  }
  parts.attribute = nextToken(condition, pos);
  // "len( /p.tags)": the parenthesis closing "len(" may follow the attribute without a blank.
  if (parts.len && !parts.attribute.empty() && parts.attribute.back() == ')')
    parts.attribute.pop_back();
  return parts;
}

ConditionalMountGroupSm::Ptr ConditionalMountGroupSm::conditionalMountGroupSmNew(
    PassiveMountGroup::PtrConst const& mountGroup, ConditionRes::Ptr const& conditionRes,
    PassiveEntityManagerSm* passiveEntityManagerSm, Orn::TimerWheel::PtrConst const& timerWheel) {
  QEL_CHECK(mountGroup,
            "mountGroup && \"a conditional mount group state machine needs its group\"");
  QEL_CHECK(conditionRes,
            "conditionRes && \"a conditional mount group state machine needs its result record\"");
  return Ptr(
      new ConditionalMountGroupSm(mountGroup, conditionRes, passiveEntityManagerSm, timerWheel));
}

ConditionalMountGroupSm::ConditionalMountGroupSm(PassiveMountGroup::PtrConst const& mountGroup,
                                                 ConditionRes::Ptr const& conditionRes,
                                                 PassiveEntityManagerSm* passiveEntityManagerSm,
                                                 Orn::TimerWheel::PtrConst const& timerWheel)
    : Entity(mountGroup->name()),
      qelMountGroup_(std::make_unique<QelMountGroup>(this, mountGroup)),
      conditionRes_(conditionRes),
      passiveEntityManagerSm_(passiveEntityManagerSm),
      qelTimerWheel_(std::make_unique<QelTimerWheel>(this, timerWheel)),
      retryDelay_(kInitialRetryDelay),
      maxDelay_(kInitialMaxDelay) {}

ConditionalMountGroupSm::~ConditionalMountGroupSm() {
  // Nothing may reach a state machine that is being destroyed.
  qelDoZombieReactorsIs(true);
  handleDeletion();
}

PassiveMountGroup::PtrConst ConditionalMountGroupSm::mountGroup() const {
  return qelMountGroup_->notifier();
}

PassiveAgentStatus::Ptr ConditionalMountGroupSm::agentStatus() const {
  if (!passiveEntityManagerSm_) return nullptr;
  return passiveEntityManagerSm_->agentStatus();
}

Qel::String ConditionalMountGroupSm::agentName() const {
  PassiveAgentStatus::Ptr const status = agentStatus();
  if (!status) return "<UNKNOWN>";
  return Qel::String(status->name());
}

void ConditionalMountGroupSm::conditionalReactorIs(Orn::CountedNotifiee::Ptr const& reactor) {
  if (reactor == conditionalReactor_) return;
  if (reactor) {
    reactor->hasNotificationActiveIs(notificationActive_);
    reactor->qelDoZombieReactorsIs(zombie_);
  }
  // The old reactor dies after the new one is in place: its destruction may notify.
  Orn::CountedNotifiee::Ptr const old = std::exchange(conditionalReactor_, reactor);
}

Orn::TimerWheel::PtrConst ConditionalMountGroupSm::timerWheel() const {
  return qelTimerWheel_->notifier();
}

Qel::Time ConditionalMountGroupSm::retryTime() const {
  return qelTimerWheel_->timeMin();
}

void ConditionalMountGroupSm::handleCondition() {
  TRACE(PassiveEntityManager, kTraceSignature, "ConditionalMountGroupSm::handleCondition");
  PassiveMountGroup::PtrConst const group = mountGroup();
  if (!group || group->conditionCols() == 0 || !currentPendingCondition().empty()) return;
  Ptr const self(this);
  // Nothing is waited for by a reactor: an evaluation waiting for an entity, or one left by a
  // condition without reactor, is dropped and the whole list evaluated again, so that a condition
  // added meanwhile is waited for too.
  qelTimerWheel_->timeMinIs(Qel::kNever);
  conditionLocalQueueDelAll();
  for (auto const& entry : group->conditionCol())
    conditionLocalQueueEnq(entry.value);
  Qel::String const head = conditionLocalQueueDeq();
  TRACE(PassiveEntityManager, kTraceDecision, "Deq condition: {}", head);
  handleCondition(head);
}

void ConditionalMountGroupSm::handleCondition(Qel::String const& condition) {
  TRACE(PassiveEntityManager, kTraceSignature, "ConditionalMountGroupSm::handleCondition {}",
        condition);
  if (condition.empty()) return;
  // The group may be enabled from in here, and the engine then releases this state machine.
  Ptr const self(this);
  ConditionParts const parts = conditionParts(condition);
  PassiveAgentStatus::Ptr const status = agentStatus();
  Qel::String constant = canonicalizePath(parts.constant, status);
  Qel::String const path = canonicalizePath(parts.path, status);
  TRACE(PassiveEntityManager, kTraceDecision, "handleCondition: \"{} {} {}.{}\"", constant,
        parts.op, path, parts.attribute);
  if (constant.find('%') != Qel::String::npos) {
    constant = canonicalizePath(constant, status);
    TRACE(PassiveEntityManager, kTraceDecision, "Canonicalized val :{}", constant);
  }
  Orn::LogicalOp const op = Orn::strToLogicalOp(parts.op);
  Qel::Entity::Ptr const entity = Qel::globalDir()->entity(path);
  if (!entity) {
    waitForEntity(condition, path);
    return;
  }
  Qel::QelType const* const type = entity->fwkType();
  TRACE(PassiveEntityManager, kTraceDecision, "looking up aid for attr: {} {} for type: {}",
        parts.attribute, entity->fullName(), type->fullName());
  Qel::QelAttr const* const attr = type->attribute(Qel::Name(parts.attribute));
  currentPendingConditionIs(condition);
  if (!attr) throw Qel::TypeException("Unknown type");
  // A reactor that finds its condition true while it is made takes the next condition from the
  // queue at once: the queue is then shorter when it returns.
  std::size_t const queued = conditionLocalQueues();
  NewReactor const created = reactorNew(condition, entity, constant, op, parts.len, *attr);
  if (!created.reactor) {
    TRACE(PassiveEntityManager, kTraceDecision, "Conditional Reactor Not created");
    currentPendingConditionIs(Qel::String());
    // The reactor of an earlier, satisfied condition must not report again: nothing is pending
    // that it could report for.
    conditionalReactorIs(nullptr);
    return;
  }
  if (conditionRes_->enabled()) {
    TRACE(PassiveEntityManager, kTraceDecision, "Condition is already true");
    currentPendingConditionIs(Qel::String());
    // The group is done: the reactor of an earlier condition, whose report led here, goes too
    // (its report holds a reference until it returns). No reactor is left to report again.
    conditionalReactorIs(nullptr);
    return;
  }
  // Otherwise the condition was true at once and a later condition has taken over: with a
  // reactor of its own, or waiting for its entity while the pending condition is still this one.
  // Either way this reactor must not report again, or the group would be enabled without the
  // later condition.
  if (currentPendingCondition() != condition || conditionLocalQueues() < queued) return;
  TRACE(PassiveEntityManager, kTraceReport, "Adding conditional reactor 0x{:x} for condition: {}",
        created.address, condition);
  conditionalReactorIs(created.reactor);
}

void ConditionalMountGroupSm::waitForEntity(Qel::String const& condition, Qel::String const& path) {
  // The reactor of an earlier, satisfied condition must not report for this one.
  conditionalReactorIs(nullptr);
  retryConditionIs(condition);
  if (Orn::TimerWheel::PtrConst const wheel = timerWheel()) {
    qelTimerWheel_->timeMinIs(wheel->clock()->now() + retryDelay());
  }
  retryDelayIs(maxDelay() <= retryDelay() ? maxDelay() : retryDelay() * 2);
  // One write, formatted with the stream's defaults whatever the state of std::cerr.
  std::ostringstream line;
  line << "Error while processing profile for agent " << agentName() << ". Entity " << path
       << " must be present for the conditional to work."
       << " retrying in " << retryDelay() << '\n';
  std::cerr << line.str() << std::flush;
}

void ConditionalMountGroupSm::handleRetryCondition() {
  TRACE(PassiveEntityManager, kTraceSignature, "ConditionalMountGroupSm::handleRetryCondition {}",
        retryCondition());
  handleCondition(Qel::String(retryCondition()));
}

void ConditionalMountGroupSm::handleDeletion() {
  TRACE(PassiveEntityManager, kTraceSignature, "ConditionalMountGroupSm::handleDeletion");
  conditionalReactorIs(nullptr);
}

void ConditionalMountGroupSm::hasNotificationActiveIs(bool on) {
  notificationActive_ = on;
  qelMountGroup_->hasNotificationActiveIs(on);
  qelTimerWheel_->hasNotificationActiveIs(on);
  if (conditionalReactor_) conditionalReactor_->hasNotificationActiveIs(on);
}

void ConditionalMountGroupSm::qelDoZombieReactorsIs(bool zombie) {
  zombie_ = zombie;
  qelMountGroup_->qelDoZombieReactorsIs(zombie);
  qelTimerWheel_->zombieIs(zombie);
  if (conditionalReactor_) conditionalReactor_->qelDoZombieReactorsIs(zombie);
}

ConditionalMountGroupSm::NewReactor ConditionalMountGroupSm::reactorNew(
    Qel::String const& condition, Qel::Entity::Ptr const& entity, Qel::String const& constant,
    Orn::LogicalOp op, bool len, Qel::QelAttr const& attr) {
  using Qel::Builtin;
  // A membership condition names a key: the key type decides.
  Qel::QelType const* const type = attr.isCollection() ? attr.keyType() : attr.type();
  Builtin const builtin = type->builtinKind();
  Qel::AttributeId const aid = attr.id();
  Qel::String text = constant;
  bool const textual = builtin == Builtin::char_ || builtin == Builtin::charPtr ||
                       builtin == Builtin::constCharPtr || builtin == Builtin::string ||
                       builtin == Builtin::name;
  if (textual && text == "NULL") text.clear();
  char const* const chars = text.c_str();

  // One row of the table: the constant's C++ type is the reactor's T.
  auto row = [&](char const* trace, auto const& value, bool withLen = false) {
    using T = std::decay_t<decltype(value)>;
    TRACE(PassiveEntityManager, kTraceDecision, "{}", trace);
    return NewReactor(mountGroupReactorNew<T>(this, condition, entity, value, op, withLen, aid));
  };
  // The character pointer rows: the reactor keeps the characters (none for an empty text).
  auto charsRow = [&]<class T>(std::type_identity<T>, char const* trace) {
    TRACE(PassiveEntityManager, kTraceDecision, "{}", trace);
    PointerConstant pointee(text.empty() ? std::nullopt : std::optional<Qel::String>(text));
    return NewReactor(
        mountGroupReactorNew<T>(this, condition, entity, std::move(pointee), op, len, aid));
  };

  if (attr.kind() == Qel::QelAttr::Kind::pointer) {
    TRACE(PassiveEntityManager, kTraceDecision, "isPtr");
    Qel::Entity::PtrConst target;
    if (!isNullPointerText(text)) {
      target = Qel::globalDir()->entity(text);
      if (!target) return {};
    }
    return NewReactor(mountGroupReactorNew<Qel::Entity const*>(
        this, condition, entity, PointerConstant(std::move(target)), op, len, aid));
  }
  if (len) return row("len()", static_cast<unsigned int>(std::strtol(chars, nullptr, 10)), true);
  switch (builtin) {
    case Builtin::bool_:
      return row("bool", text == "true");
    case Builtin::f64:
      return row("F64", std::strtod(chars, nullptr));
    case Builtin::f32:
      return row("F32", static_cast<float>(std::strtod(chars, nullptr)));
    case Builtin::u64:
      return row("U64", static_cast<unsigned long long>(std::strtoll(chars, nullptr, 10)));
    case Builtin::s64:
      return row("S64", std::strtoll(chars, nullptr, 10));
    case Builtin::u32:
      return row("U32", static_cast<unsigned int>(std::strtol(chars, nullptr, 10)));
    case Builtin::s32:
      return row("S32", static_cast<int>(std::strtol(chars, nullptr, 10)));
    case Builtin::u16:
      return row("U16", static_cast<unsigned short>(std::strtol(chars, nullptr, 10)));
    case Builtin::s16:
      return row("S16", static_cast<short>(std::strtol(chars, nullptr, 10)));
    case Builtin::u8:
      return row("U8", static_cast<unsigned char>(text[0]));
    case Builtin::s8:
      return row("S8", static_cast<signed char>(text[0]));
    case Builtin::long_:
      return row("long", std::strtol(chars, nullptr, 10));
    case Builtin::double_:
      return row("double", std::strtod(chars, nullptr));
    case Builtin::char_:
      return row("char", text[0]);
    case Builtin::charPtr:
      return charsRow(std::type_identity<char*>(), "charptr");
    case Builtin::constCharPtr:
      return charsRow(std::type_identity<char const*>(), "charptrconst");
    case Builtin::string:
      return row("string", text);
    case Builtin::name:
      return row("name", Qel::Name(text));
    case Builtin::none:
      break;
  }
  if (type->isEnum()) {
    TRACE(PassiveEntityManager, kTraceDecision, "isEnumType");
    std::optional<std::int64_t> const attribute = type->enumeratorValue(Qel::Name(text));
    QEL_CHECK(attribute, "attribute && \"Invalid enum value\"");
    return NewReactor(mountGroupReactorNew<unsigned int>(
        this, condition, entity, static_cast<unsigned int>(*attribute), op, len, aid));
  }
  throw Qel::TypeException("Unknown builtin type");
}

ConditionalMountGroupSm::Ptr conditionalMountGroupSmFactory(
    PassiveMountGroup::PtrConst const& mountGroup, ConditionRes::Ptr const& conditionRes,
    PassiveEntityManagerSm* passiveEntityManagerSm, Orn::TimerWheel::PtrConst const& timerWheel) {
  ConditionalMountGroupSm::Ptr sm = ConditionalMountGroupSm::conditionalMountGroupSmNew(
      mountGroup, conditionRes, passiveEntityManagerSm, timerWheel);
  sm->handleCondition();
  return sm;
}

Qel::QelType const* ConditionalMountGroupSm::staticType() {
  using S = ConditionalMountGroupSm;
  static Qel::QelType const* t =
      Qel::TypeBuilder<S>("Ledra::ConditionalMountGroupSm")
          QEL_ATTR_REFLECTION(LEDRA_CONDITIONAL_MOUNT_GROUP_SM_ATTRIBUTES)
              .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = ConditionalMountGroupSm::staticType();
}

}  // namespace Ledra
