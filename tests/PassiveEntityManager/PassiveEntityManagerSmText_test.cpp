// Text forms of the engine's state and ready-queue key, a few key cells of each: a value without a
// name, the reader's quoting and junk rules, and the errors that carry a column or a range.
#include "PassiveEntityManager/PassiveEntityManagerSmText.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "EngineHarness.h"
#include "Qel/Core/Exception.h"

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

TEST(StateText, NamesRoundTripAndTheReaderNamesEveryError) {
  EXPECT_EQ(valueToStrep(static_cast<State>(4)), "'PassiveEntityManagerSm::State(4)'");
  EXPECT_EQ(errorOf<Qel::RangeException>([] { StateInstance(4u); }),
            "PassiveEntityManagerSm::State");
  Cases const cases = {
      {" \t\n\"mountComplete\"  \r\n", "'mountComplete'"},
      // A backslash takes the next character as it is.
      {"'in\\it'", "'init'"},
      {"'init", "parse: premature end of value type State"},
      {"Init", "range: State"},
      {"init,", "parse: junk at column 4 deserializing init,"},
  };
  for (auto const& [text, result] : cases)
    EXPECT_EQ(read<State>(text), result) << text;
}

constexpr char kHead[] = "Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex', ** ";

TEST(IndexText, CanonicalFormRoundTripsAndTheReaderNamesEveryError) {
  std::string const head = kHead;
  std::string const text = head + "{'index0': 5, 'index1': 4294967295})";
  EXPECT_EQ(valueToStrep(Index(5, 4294967295u)), text);
  EXPECT_EQ(strepToValue<Index>(text), Index(5, 4294967295u));
  Cases const cases = {
      // A field left out is zero.
      {head + "{'index1': 4})", head + "{'index0': 0, 'index1': 4})"},
      {head + "{'priority': 2})",
       "parse: ReadyMountGroupCompoundIndex has no such attribute: priority"},
      {head + "{'index0' 5})",
       "parse: expected ':' at column 82 in value type ReadyMountGroupCompoundIndex"},
      {"Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex' ** {})",
       "parse: expected ',' at column 68 in value type ReadyMountGroupCompoundIndex"},
      {head + "{'index0': 4294967296})",
       "parse: cannot read \"4294967296\" as U32 for ReadyMountGroupCompoundIndex::index0: out of "
       "range"},
  };
  for (auto const& [in, result] : cases)
    EXPECT_EQ(read<Index>(in), result) << in;
}

}  // namespace
}  // namespace Ledra::test
