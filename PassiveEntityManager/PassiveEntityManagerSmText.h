// Text forms of the engine's scheduling state (PassiveEntityManagerSm::State) and of its ready
// queue key (PassiveEntityManagerSm::ReadyMountGroupCompoundIndex): what traces print, and how a
// value is read back from text.
//
// State
//   stringValue(s)      the enumerator's name ("init", ...); a value without a name prints as
//                       "PassiveEntityManagerSm::State(<number>)".
//   valueToStrep(s)     the name between single quotes: 'init'.
//   operator<<          the name, unquoted.
//   StateInstance(n)    0..3 give the state; any other number throws Qel::RangeException
//                       "PassiveEntityManagerSm::State".
//   StateInstance(txt)  the exact, case-sensitive name; anything else throws Qel::RangeException
//                       "State".
//
// ReadyMountGroupCompoundIndex
//   valueToStrep(i)     Value('Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex',
//                       ** {'index0': 5, 'index1': 12})   (on one line)
//   operator<<          the same text.
//   comparisons         index0 first, then index1 (defined with the type).
//
// Reading (sequenceToValue<T>(it, end), strepToValue<T>(text)):
//   - Blanks (space, tab, carriage return, newline) are allowed before every token.
//   - A string token is either quoted, with ' or " (a backslash takes the next character as it
//     is, except \n and \t), or a bare word running up to a blank or one of , : ( ) { } [ ] ' ".
//   - A State is one string token holding its name.
//   - A ReadyMountGroupCompoundIndex is the form above: the word Value, "(", the quoted type name,
//     ",", "**", "{", entries 'index0': n and 'index1': n separated by ",", "}" and ")". Keys may
//     come in any order; a key given twice keeps its last value; a key left out keeps 0. The
//     numbers are unsigned decimal and must fit in 32 bits (otherwise Qel::ParseException
//     "cannot read "<digits>" as U32 for ReadyMountGroupCompoundIndex::index0: out of range").
//   - Text that ends before the value is complete throws Qel::ParseException "premature end of
//     value type <State|ReadyMountGroupCompoundIndex>"; an unknown key throws
//     "ReadyMountGroupCompoundIndex has no such attribute: <key>"; any other mismatch throws a
//     Qel::ParseException naming what was expected and the column.
//   - sequenceToValue leaves `it` just past the value. strepToValue reads one value from the
//     whole text and, after skipping blanks, requires the end of the text: otherwise it throws
//     Qel::ParseException "junk at column <c> deserializing <text>", where c is the 0-based
//     offset of the first left-over character.
//
// Pure functions; safe to call from any thread.
#pragma once

#include <iosfwd>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "Qel/Core/Types.h"

namespace Ledra {

LEDRA_PEM_EXPORT Qel::String stringValue(PassiveEntityManagerSm::State s);
LEDRA_PEM_EXPORT Qel::String valueToStrep(PassiveEntityManagerSm::State s);
LEDRA_PEM_EXPORT std::ostream& operator<<(std::ostream& os, PassiveEntityManagerSm::State s);
LEDRA_PEM_EXPORT PassiveEntityManagerSm::State StateInstance(unsigned value);
LEDRA_PEM_EXPORT PassiveEntityManagerSm::State StateInstance(Qel::String8 const& name);

LEDRA_PEM_EXPORT Qel::String valueToStrep(
    PassiveEntityManagerSm::ReadyMountGroupCompoundIndex const& index);
LEDRA_PEM_EXPORT std::ostream& operator<<(
    std::ostream& os, PassiveEntityManagerSm::ReadyMountGroupCompoundIndex const& index);

// Reads one value of T from [it, end), advancing `it` past it.
template <class T>
T sequenceToValue(char const*& it, char const* end);

template <>
LEDRA_PEM_EXPORT PassiveEntityManagerSm::State sequenceToValue<PassiveEntityManagerSm::State>(
    char const*& it, char const* end);
template <>
LEDRA_PEM_EXPORT PassiveEntityManagerSm::ReadyMountGroupCompoundIndex
sequenceToValue<PassiveEntityManagerSm::ReadyMountGroupCompoundIndex>(char const*& it,
                                                                      char const* end);

namespace detail {
// Throws the junk error unless only blanks follow `it` in `text`.
LEDRA_PEM_EXPORT void requireEndOfText(Qel::String const& text, char const* it);
}  // namespace detail

// Reads one value of T from the whole of `text`.
template <class T>
T strepToValue(Qel::String const& text) {
  char const* it = text.data();
  T value = sequenceToValue<T>(it, text.data() + text.size());
  detail::requireEndOfText(text, it);
  return value;
}

}  // namespace Ledra
