// Text forms of the engine's state and ready-queue key: exact texts, round trips, the reader's
// token and blank rules, and every error text with its column. (The key's comparisons are the
// defaulted ones; the ready queue's order is checked where the engine schedules.)
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "EngineHarness.h"
#include "Qel/Exception.h"

namespace Ledra::test {
namespace {

using State = PassiveEntityManagerSm::State;
using Index = PassiveEntityManagerSm::ReadyMountGroupCompoundIndex;
using Cases = std::vector<std::pair<std::string, std::string>>;

// What reading the whole of `text` as a T gives: the value's text form, or the error's kind and
// text.
template <class T>
std::string read(std::string const& text) {
  try {
    return valueToStrep(strepToValue<T>(text));
  } catch (Qel::RangeException const& e) {
    return std::string("range: ") + e.what();
  } catch (Qel::ParseException const& e) {
    return std::string("parse: ") + e.what();
  }
}

template <class T>
std::string streamed(T const& value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

// ---- State

TEST(StateText, EveryStateHasItsNameInEveryFormAndBothInstancesAgree) {
  char const* const names[] = {"init", "readyMountGroupPending", "conditionalMountGroupPending",
                               "mountComplete"};
  for (unsigned n = 0; n < 4; ++n) {
    State const state = static_cast<State>(n);
    std::string const name = names[n];
    EXPECT_EQ(stringValue(state), name);
    EXPECT_EQ(valueToStrep(state), "'" + name + "'");
    EXPECT_EQ(streamed(state), name);
    EXPECT_EQ(StateInstance(n), state);
    EXPECT_EQ(StateInstance(Qel::String8(name)), state);
    EXPECT_EQ(read<State>(valueToStrep(state)), valueToStrep(state));
  }
  // Values without a name print their number.
  for (int n : {4, 7, 12, -1}) {
    std::string const text = "PassiveEntityManagerSm::State(" + std::to_string(n) + ")";
    EXPECT_EQ(stringValue(static_cast<State>(n)), text);
    EXPECT_EQ(valueToStrep(static_cast<State>(n)), "'" + text + "'");
    EXPECT_EQ(streamed(static_cast<State>(n)), text);
  }
}

TEST(StateText, UnknownNumbersAndNamesAreRangeErrors) {
  for (unsigned n : {4u, 7u, std::numeric_limits<unsigned>::max()})
    EXPECT_EQ(errorOf<Qel::RangeException>([n] { StateInstance(n); }),
              "PassiveEntityManagerSm::State")
        << n;
  for (char const* name : {"", "Init", "INIT", "init ", " init", "mount", "mountCompleted", "3"})
    EXPECT_EQ(errorOf<Qel::RangeException>([name] { StateInstance(Qel::String8(name)); }), "State")
        << name;
}

TEST(StateText, ReadingFollowsTheTokenRulesAndNamesEveryError) {
  Cases const cases = {
      {"readyMountGroupPending", "'readyMountGroupPending'"},
      {"\"conditionalMountGroupPending\"", "'conditionalMountGroupPending'"},
      {" \t\n'mountComplete'  \r\n", "'mountComplete'"},
      // A backslash takes the next character as it is.
      {"'in\\it'", "'init'"},
      {"'init\\n'", "range: State"},
      // A bare word is cut short by a delimiter.
      {"(init)", "range: State"},
      {"'init' x", "parse: junk at column 7 deserializing 'init' x"},
      {"init,", "parse: junk at column 4 deserializing init,"},
      {"  'init''init'", "parse: junk at column 8 deserializing   'init''init'"},
      {"", "parse: premature end of value type State"},
      {"   ", "parse: premature end of value type State"},
      {"'init", "parse: premature end of value type State"},
      {"\"mountComplete", "parse: premature end of value type State"},
      {"'init\\'", "parse: premature end of value type State"},
  };
  for (auto const& [text, result] : cases)
    EXPECT_EQ(read<State>(text), result) << text;
}

TEST(StateText, SequenceReadingStopsRightAfterTheValue) {
  std::string const text = " 'readyMountGroupPending', mountComplete)";
  char const* it = text.data();
  char const* const end = text.data() + text.size();
  EXPECT_EQ(sequenceToValue<State>(it, end), PassiveEntityManagerSm::readyMountGroupPending);
  EXPECT_EQ(it - text.data(), 25);
  ++it;  // the comma
  EXPECT_EQ(sequenceToValue<State>(it, end), PassiveEntityManagerSm::mountComplete);
  EXPECT_EQ(std::string(it, end), ")");
}

// ---- ReadyMountGroupCompoundIndex

constexpr char kHead[] = "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** ";

std::string canonical(Qel::U32 index0, Qel::U32 index1) {
  return kHead +
         ("{'index0': " + std::to_string(index0) + ", 'index1': " + std::to_string(index1) + "})");
}

TEST(IndexText, CanonicalFormStreamAndRoundTrips) {
  EXPECT_EQ(valueToStrep(Index(5, 12)),
            "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
            "{'index0': 5, 'index1': 12})");
  EXPECT_EQ(streamed(Index(0, 4294967295u)), canonical(0, 4294967295u));
  for (Index const index :
       {Index(5, 12), Index(0, 0), Index(1, 0), Index(99, 7), Index(4294967295u, 4294967295u)}) {
    std::string const text = valueToStrep(index);
    EXPECT_EQ(strepToValue<Index>(text), index) << text;
    char const* it = text.data();
    EXPECT_EQ(Index(it, text.data() + text.size()), index);
    EXPECT_EQ(it, text.data() + text.size());
  }
}

TEST(IndexText, ReadingAcceptsBlanksQuotesAndMissingFieldsAndNamesEveryError) {
  std::string const head = kHead;
  std::string const junk = canonical(5, 12) + "  x";
  auto const expected = [](char const* what, int column) {
    return "parse: expected " + std::string(what) + " at column " + std::to_string(column) +
           " in value type ReadyMountGroupCompoundIndex";
  };
  Cases const cases = {
      {" \n Value ( \"Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex\" , * * { "
       "\"index1\" : 3 ,\t'index0' :\n 9 } ) \n",
       canonical(9, 3)},
      // A field left out is zero; a repeated one keeps its last value.
      {head + "{})", canonical(0, 0)},
      {head + "{'index1': 4})", canonical(0, 4)},
      {head + "{'index0': 4, 'index0': 6})", canonical(6, 0)},
      {head + "{'index0': 1, 'priority': 2})",
       "parse: ReadyMountGroupCompoundIndex has no such attribute: priority"},
      {head + "{'': 2})", "parse: ReadyMountGroupCompoundIndex has no such attribute: "},
      {"Val('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {})",
       expected("Value", 0)},
      {"Value['Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {})",
       expected("'('", 5)},
      {"Value('Ledra::ReadyMountGroupCompoundIndex', ** {})",
       expected("'Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex'", 6)},
      {"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex' ** {})",
       expected("','", 68)},
      {"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', * {})",
       expected("'*'", 71)},
      {head + "{'index0' 5})", expected("':'", 82)},
      {head + "{'index0': -5})", expected("a number", 83)},
      {head + "{'index0': 5 'index1': 6})", expected("','", 85)},
      {head + "{'index0': 5}]", expected("')'", 85)},
      {head + "{'index0': 4294967296})",
       "parse: cannot read \"4294967296\" as U32 for ReadyMountGroupCompoundIndex::index0: out of "
       "range"},
      {head + "{'index1': 123456789012345678901234567890})",
       "parse: cannot read \"123456789012345678901234567890\" as U32 for "
       "ReadyMountGroupCompoundIndex::index1: out of range"},
      {junk, "parse: junk at column " + std::to_string(junk.size() - 1) + " deserializing " + junk},
      {canonical(5, 12) + " \n", canonical(5, 12)},
      {" ", "parse: premature end of value type ReadyMountGroupCompoundIndex"},
  };
  for (auto const& [text, result] : cases)
    EXPECT_EQ(read<Index>(text), result) << text;
  // Every truncation after the leading word ends prematurely.
  std::string const text = canonical(5, 12);
  for (std::size_t n = 5; n < text.size(); ++n)
    EXPECT_EQ(read<Index>(text.substr(0, n)),
              "parse: premature end of value type ReadyMountGroupCompoundIndex")
        << n;
}

}  // namespace
}  // namespace Ledra::test
