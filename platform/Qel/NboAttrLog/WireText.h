// Qel::NboAttrLog wire texts: checking, and showing on one line, texts that came from an agent.
//
// A text field of the wire carries any bytes. Names the database keeps (an agent's name and agent
// string) must be valid UTF-8 without control characters (wireTextFault says what is wrong), and
// anything an agent wrote that reaches an output line goes through printableText first, so that
// no peer can end a line, forge another, move the cursor or leave bytes a strict reader refuses.
//
// Control characters here are the C0 set (U+0000..U+001F), DEL (U+007F), the C1 set
// (U+0080..U+009F), and the format characters that reorder or break a line when shown: the line
// and paragraph separators U+2028 and U+2029, the marks U+200E and U+200F, and the bidirectional
// embeddings, overrides and isolates U+202A..U+202E and U+2066..U+2069.
//
// Pure functions; thread-safe.
#pragma once

#include "Qel/Core/Api.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Qel::NboAttrLog {

// One UTF-8 sequence: its code point and its length in bytes (0: no valid sequence starts here).
struct Utf8Sequence {
  char32_t codePoint = 0;
  std::size_t length = 0;
};

// Decodes the sequence at `pos` (< text.size()): shortest form only, no surrogates, at most
// U+10FFFF.
QEL_API Utf8Sequence utf8SequenceAt(std::string_view text, std::size_t pos);

QEL_API bool isControlCharacter(char32_t codePoint);

// Empty when `text` is valid UTF-8 without control characters; otherwise the first fault, e.g.
// "holds control character U+000A at byte 5" or "is not valid UTF-8 at byte 3 (0xff)".
QEL_API std::string wireTextFault(std::string_view text);

// `text` for one line of output: a control character below U+0080 and every byte that does not
// belong to a valid UTF-8 sequence are written \xNN, other control characters \uNNNN; everything
// else stays as it is.
QEL_API std::string printableText(std::string_view text);

// The number of code points `text` shows as (each invalid byte counting as one): the width of a
// column of printable texts.
QEL_API std::size_t textWidth(std::string_view text);

}  // namespace Qel::NboAttrLog
