// Text forms of the engine's state and ready-queue key: exact texts, round trips, the reader's
// token and blank rules, and every error text with its column.
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Qel/Exception.h"

namespace Ledra {
namespace {

using State = PassiveEntityManagerSm::State;
using Index = PassiveEntityManagerSm::ReadyMountGroupCompoundIndex;

// Runs `f`, which must throw E, and returns the exception's text.
template <class E, class F>
std::string errorOf(F f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  }
  ADD_FAILURE() << "no exception thrown";
  return {};
}

std::string canonical(Qel::U32 index0, Qel::U32 index1) {
  return "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {'index0': " +
         std::to_string(index0) + ", 'index1': " + std::to_string(index1) + "})";
}

// ---- State ----

struct NamedState {
  State state;
  char const* name;
};

class StateTextTest : public ::testing::TestWithParam<NamedState> {};

TEST_P(StateTextTest, NameQuotedFormStreamAndBothInstancesAgree) {
  auto const [state, name] = GetParam();
  EXPECT_EQ(stringValue(state), name);
  EXPECT_EQ(valueToStrep(state), std::string("'") + name + "'");
  std::ostringstream os;
  os << state;
  EXPECT_EQ(os.str(), name);
  EXPECT_EQ(StateInstance(static_cast<unsigned>(state)), state);
  EXPECT_EQ(StateInstance(Qel::String8(name)), state);
}

TEST_P(StateTextTest, ReadsBackFromEveryTokenForm) {
  auto const [state, name] = GetParam();
  EXPECT_EQ(strepToValue<State>(valueToStrep(state)), state);
  EXPECT_EQ(strepToValue<State>(name), state);
  EXPECT_EQ(strepToValue<State>(std::string("\"") + name + "\""), state);
  EXPECT_EQ(strepToValue<State>(std::string(" \t\n'") + name + "'  \r\n"), state);
}

INSTANTIATE_TEST_SUITE_P(
    AllStates, StateTextTest,
    ::testing::Values(NamedState{PassiveEntityManagerSm::init, "init"},
                      NamedState{PassiveEntityManagerSm::readyMountGroupPending,
                                 "readyMountGroupPending"},
                      NamedState{PassiveEntityManagerSm::conditionalMountGroupPending,
                                 "conditionalMountGroupPending"},
                      NamedState{PassiveEntityManagerSm::mountComplete, "mountComplete"}),
    [](auto const& info) { return std::string(info.param.name); });

TEST(StateText, UnnamedValuesPrintTheirNumber) {
  EXPECT_EQ(stringValue(static_cast<State>(7)), "PassiveEntityManagerSm::State(7)");
  EXPECT_EQ(stringValue(static_cast<State>(4)), "PassiveEntityManagerSm::State(4)");
  EXPECT_EQ(stringValue(static_cast<State>(-1)), "PassiveEntityManagerSm::State(-1)");
  EXPECT_EQ(valueToStrep(static_cast<State>(7)), "'PassiveEntityManagerSm::State(7)'");
  std::ostringstream os;
  os << static_cast<State>(12);
  EXPECT_EQ(os.str(), "PassiveEntityManagerSm::State(12)");
}

class StateNumberOutOfRange : public ::testing::TestWithParam<unsigned> {};

TEST_P(StateNumberOutOfRange, IsARangeErrorNamingTheEnum) {
  EXPECT_EQ(errorOf<Qel::RangeException>([] { StateInstance(GetParam()); }),
            "PassiveEntityManagerSm::State");
}

INSTANTIATE_TEST_SUITE_P(Numbers, StateNumberOutOfRange,
                         ::testing::Values(4u, 7u, std::numeric_limits<unsigned>::max()));

class StateNameUnknown : public ::testing::TestWithParam<char const*> {};

TEST_P(StateNameUnknown, IsARangeErrorNamingState) {
  EXPECT_EQ(errorOf<Qel::RangeException>([] { StateInstance(Qel::String8(GetParam())); }), "State");
}

INSTANTIATE_TEST_SUITE_P(Names, StateNameUnknown,
                         ::testing::Values("", "Init", "INIT", "init ", " init", "mount",
                                           "mountCompleted", "3"));

TEST(StateText, LeftOverTextIsJunkAtTheColumnOfItsFirstCharacter) {
  EXPECT_EQ(errorOf<Qel::ParseException>([] { strepToValue<State>("'init' x"); }),
            "junk at column 7 deserializing 'init' x");
  EXPECT_EQ(errorOf<Qel::ParseException>([] { strepToValue<State>("init,"); }),
            "junk at column 4 deserializing init,");
  EXPECT_EQ(errorOf<Qel::ParseException>([] { strepToValue<State>("  'init''init'"); }),
            "junk at column 8 deserializing   'init''init'");
}

TEST(StateText, EmptyOrUnterminatedTextEndsPrematurely) {
  for (char const* text : {"", "   ", "'init", "\"mountComplete", "'init\\'"}) {
    EXPECT_EQ(errorOf<Qel::ParseException>([text] { strepToValue<State>(text); }),
              "premature end of value type State")
        << text;
  }
}

TEST(StateText, AWordCutShortByADelimiterIsAnUnknownName) {
  EXPECT_EQ(errorOf<Qel::RangeException>([] { strepToValue<State>("(init)"); }), "State");
}

TEST(StateText, BackslashTakesTheNextCharacterAsItIs) {
  EXPECT_EQ(strepToValue<State>("'in\\it'"), PassiveEntityManagerSm::init);
  EXPECT_EQ(errorOf<Qel::RangeException>([] { strepToValue<State>("'init\\n'"); }), "State");
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

// ---- ReadyMountGroupCompoundIndex ----

TEST(IndexText, CanonicalFormAndStream) {
  EXPECT_EQ(valueToStrep(Index(5, 12)),
            "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
            "{'index0': 5, 'index1': 12})");
  std::ostringstream os;
  os << Index(0, 4294967295u);
  EXPECT_EQ(os.str(), canonical(0, 4294967295u));
}

class IndexRoundTrip : public ::testing::TestWithParam<Index> {};

TEST_P(IndexRoundTrip, ReadsBackEqual) {
  Index const index = GetParam();
  EXPECT_EQ(strepToValue<Index>(valueToStrep(index)), index);
  std::string const text = valueToStrep(index);
  char const* it = text.data();
  EXPECT_EQ(Index(it, text.data() + text.size()), index);
  EXPECT_EQ(it, text.data() + text.size());
}

INSTANTIATE_TEST_SUITE_P(Values, IndexRoundTrip,
                         ::testing::Values(Index(5, 12), Index(0, 0), Index(1, 0), Index(99, 7),
                                           Index(4294967295u, 4294967295u)));

TEST(IndexText, BlanksBeforeEveryTokenAndEitherQuoteAreAccepted) {
  EXPECT_EQ(strepToValue<Index>(
                " \n Value ( \"Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex\" , * "
                "* { \"index1\" : 3 ,\t'index0' :\n 9 } ) \n"),
            Index(9, 3));
}

TEST(IndexText, AFieldLeftOutIsZeroAndARepeatedOneKeepsItsLastValue) {
  char const* const head =
      "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** ";
  EXPECT_EQ(strepToValue<Index>(std::string(head) + "{})"), Index(0, 0));
  EXPECT_EQ(strepToValue<Index>(std::string(head) + "{'index1': 4})"), Index(0, 4));
  EXPECT_EQ(strepToValue<Index>(std::string(head) + "{'index0': 4, 'index0': 6})"), Index(6, 0));
}

TEST(IndexText, EveryTruncationAfterTheLeadingWordEndsPrematurely) {
  std::string const text = canonical(5, 12);
  for (std::size_t n = 5; n < text.size(); ++n) {
    std::string const cut = text.substr(0, n);
    EXPECT_EQ(errorOf<Qel::ParseException>([&cut] { strepToValue<Index>(cut); }),
              "premature end of value type ReadyMountGroupCompoundIndex")
        << cut;
  }
  EXPECT_EQ(errorOf<Qel::ParseException>([] { strepToValue<Index>(" "); }),
            "premature end of value type ReadyMountGroupCompoundIndex");
}

TEST(IndexText, AnUnknownKeyIsNamed) {
  std::string const text =
      "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {'index0': 1, "
      "'priority': 2})";
  EXPECT_EQ(errorOf<Qel::ParseException>([&text] { strepToValue<Index>(text); }),
            "ReadyMountGroupCompoundIndex has no such attribute: priority");
  EXPECT_EQ(errorOf<Qel::ParseException>([] {
              strepToValue<Index>(
                  "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {'': "
                  "2})");
            }),
            "ReadyMountGroupCompoundIndex has no such attribute: ");
}

struct Malformed {
  char const* text;
  char const* error;
};

class IndexMalformed : public ::testing::TestWithParam<Malformed> {};

TEST_P(IndexMalformed, NamesWhatWasExpectedAndWhere) {
  EXPECT_EQ(errorOf<Qel::ParseException>([] { strepToValue<Index>(GetParam().text); }),
            GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, IndexMalformed,
    ::testing::Values(
        Malformed{"Val('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {})",
                  "expected Value at column 0 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value['Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** {})",
                  "expected '(' at column 5 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::ReadyMountGroupCompoundIndex', ** {})",
                  "expected 'Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex' at "
                  "column 6 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex' ** {})",
                  "expected ',' at column 68 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', * {})",
                  "expected '*' at column 71 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
                  "{'index0' 5})",
                  "expected ':' at column 82 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
                  "{'index0': -5})",
                  "expected a number at column 83 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
                  "{'index0': 5 'index1': 6})",
                  "expected ',' at column 85 in value type ReadyMountGroupCompoundIndex"},
        Malformed{"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
                  "{'index0': 5}]",
                  "expected ')' at column 85 in value type ReadyMountGroupCompoundIndex"}));

TEST(IndexText, NumbersBeyondThirtyTwoBitsAreRefused) {
  EXPECT_EQ(errorOf<Qel::ParseException>([] {
              strepToValue<Index>(
                  "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
                  "{'index0': 4294967296})");
            }),
            "cannot read \"4294967296\" as U32 for ReadyMountGroupCompoundIndex::index0: out of "
            "range");
  EXPECT_EQ(errorOf<Qel::ParseException>([] {
              strepToValue<Index>(
                  "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** "
                  "{'index1': 123456789012345678901234567890})");
            }),
            "cannot read \"123456789012345678901234567890\" as U32 for "
            "ReadyMountGroupCompoundIndex::index1: out of range");
}

TEST(IndexText, LeftOverTextIsJunk) {
  std::string const text = canonical(5, 12) + "  x";
  EXPECT_EQ(errorOf<Qel::ParseException>([&text] { strepToValue<Index>(text); }),
            "junk at column " + std::to_string(text.size() - 1) + " deserializing " + text);
  EXPECT_EQ(strepToValue<Index>(canonical(5, 12) + " \n"), Index(5, 12));
}

TEST(IndexText, ComparisonsOrderByIndex0ThenIndex1) {
  std::vector<Index> const ordered = {Index(0, 0),           Index(0, 9), Index(1, 0),
                                      Index(1, 4294967295u), Index(2, 3), Index(4294967295u, 0)};
  for (std::size_t i = 0; i < ordered.size(); ++i) {
    for (std::size_t j = 0; j < ordered.size(); ++j) {
      Index const& a = ordered[i];
      Index const& b = ordered[j];
      EXPECT_EQ(a == b, i == j) << i << " " << j;
      EXPECT_EQ(a != b, i != j) << i << " " << j;
      EXPECT_EQ(a < b, i < j) << i << " " << j;
      EXPECT_EQ(a <= b, i <= j) << i << " " << j;
      EXPECT_EQ(a > b, i > j) << i << " " << j;
      EXPECT_EQ(a >= b, i >= j) << i << " " << j;
    }
  }
}

}  // namespace
}  // namespace Ledra
