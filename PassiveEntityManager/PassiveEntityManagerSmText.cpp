#include "PassiveEntityManager/PassiveEntityManagerSmText.h"

#include <charconv>
#include <cstdio>
#include <limits>
#include <ostream>
#include <string_view>

#include "Qel/Core/Exception.h"

namespace Ledra {

namespace {

using Index = PassiveEntityManagerSm::ReadyMountGroupCompoundIndex;

constexpr std::string_view kIndexTypeName =
    "Ledra::PassiveEntityManagerSm::ReadyMountGroupCompoundIndex";

constexpr std::string_view kStateNames[] = {
    "init",
    "readyMountGroupPending",
    "conditionalMountGroupPending",
    "mountComplete",
};

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool endsBareWord(char c) {
  return isBlank(c) || std::string_view(",:(){}[]'\"").find(c) != std::string_view::npos;
}

// Reads the tokens of one value from [it, end). Every error names `typeName`, the short name of
// the value type being read; columns count from where reading started.
class TokenReader {
 public:
  TokenReader(char const*& it, char const* end, std::string_view typeName)
      : it_(it), start_(it), end_(end), typeName_(typeName) {}

  void skipBlanks() {
    while (it_ != end_ && isBlank(*it_))
      ++it_;
  }

  // The next non-blank character, which must exist.
  char peek() {
    skipBlanks();
    if (it_ == end_) prematureEnd();
    return *it_;
  }

  void expect(char c) {
    if (peek() != c) unexpected(std::string("'") + c + "'");
    ++it_;
  }

  void expectWord(std::string_view word) {
    peek();
    char const* const at = it_;
    if (stringToken() == word) return;
    it_ = at;
    unexpected(std::string(word));
  }

  // One quoted or bare string token (see the header).
  Qel::String stringToken() {
    char const quote = peek();
    if (quote != '\'' && quote != '"') return bareWord();
    ++it_;
    Qel::String out;
    while (it_ != end_ && *it_ != quote) {
      char c = *it_++;
      if (c == '\\') {
        if (it_ == end_) break;
        c = *it_++;
        if (c == 'n') c = '\n';
        if (c == 't') c = '\t';
      }
      out += c;
    }
    if (it_ == end_) prematureEnd();
    ++it_;
    return out;
  }

  // An unsigned decimal number that fits in 32 bits; `field` names it in the error.
  Qel::U32 u32(std::string_view field) {
    peek();
    char const* const first = it_;
    while (it_ != end_ && *it_ >= '0' && *it_ <= '9')
      ++it_;
    if (it_ == first) unexpected("a number");
    Qel::U64 value = 0;
    auto const [ptr, ec] = std::from_chars(first, it_, value);
    if (ec == std::errc::result_out_of_range || value > std::numeric_limits<Qel::U32>::max()) {
      throw Qel::ParseException("cannot read \"" + std::string(first, it_) + "\" as U32 for " +
                                std::string(typeName_) + "::" + std::string(field) +
                                ": out of range");
    }
    return static_cast<Qel::U32>(value);
  }

  [[noreturn]] void prematureEnd() const {
    throw Qel::ParseException("premature end of value type " + std::string(typeName_));
  }

  [[noreturn]] void unexpected(std::string const& what) const {
    throw Qel::ParseException("expected " + what + " at column " + std::to_string(it_ - start_) +
                              " in value type " + std::string(typeName_));
  }

 private:
  Qel::String bareWord() {
    char const* const first = it_;
    while (it_ != end_ && !endsBareWord(*it_))
      ++it_;
    return Qel::String(std::string_view(first, static_cast<std::size_t>(it_ - first)));
  }

  char const*& it_;
  char const* const start_;
  char const* const end_;
  std::string_view const typeName_;
};

}  // namespace

Qel::String stringValue(PassiveEntityManagerSm::State s) {
  auto const n = static_cast<Qel::S32>(s);
  if (n >= 0 && n < static_cast<Qel::S32>(std::size(kStateNames)))
    return Qel::String(kStateNames[n]);
  char buf[64];
  std::snprintf(buf, sizeof buf, "PassiveEntityManagerSm::State(%d)", n);
  return Qel::String(buf);
}

Qel::String valueToStrep(PassiveEntityManagerSm::State s) {
  return Qel::String("'" + stringValue(s) + "'");
}

std::ostream& operator<<(std::ostream& os, PassiveEntityManagerSm::State s) {
  return os << stringValue(s);
}

PassiveEntityManagerSm::State StateInstance(unsigned value) {
  if (value >= std::size(kStateNames)) throw Qel::RangeException("PassiveEntityManagerSm::State");
  return static_cast<PassiveEntityManagerSm::State>(value);
}

PassiveEntityManagerSm::State StateInstance(Qel::String8 const& name) {
  for (std::size_t i = 0; i < std::size(kStateNames); ++i) {
    if (name == kStateNames[i]) return static_cast<PassiveEntityManagerSm::State>(i);
  }
  throw Qel::RangeException("State");
}

Qel::String valueToStrep(Index const& index) {
  return Qel::String("Value('" + std::string(kIndexTypeName) +
                     "', ** {'index0': " + std::to_string(index.index0) +
                     ", 'index1': " + std::to_string(index.index1) + "})");
}

std::ostream& operator<<(std::ostream& os, Index const& index) {
  return os << valueToStrep(index);
}

PassiveEntityManagerSm::ReadyMountGroupCompoundIndex::ReadyMountGroupCompoundIndex(
    char const*& it, char const* end) {
  TokenReader r(it, end, "ReadyMountGroupCompoundIndex");
  r.expectWord("Value");
  r.expect('(');
  r.peek();
  char const* const typeAt = it;
  if (r.stringToken() != kIndexTypeName) {
    it = typeAt;
    r.unexpected("'" + std::string(kIndexTypeName) + "'");
  }
  r.expect(',');
  r.expect('*');
  r.expect('*');
  r.expect('{');
  bool first = true;
  while (r.peek() != '}') {
    if (!first) r.expect(',');
    first = false;
    Qel::String const key = r.stringToken();
    if (key != "index0" && key != "index1") {
      throw Qel::ParseException("ReadyMountGroupCompoundIndex has no such attribute: " + key);
    }
    r.expect(':');
    Qel::U32 const value = r.u32(key);
    (key == "index0" ? index0 : index1) = value;
  }
  r.expect('}');
  r.expect(')');
}

template <>
PassiveEntityManagerSm::State sequenceToValue<PassiveEntityManagerSm::State>(char const*& it,
                                                                             char const* end) {
  TokenReader r(it, end, "State");
  return StateInstance(r.stringToken());
}

template <>
Index sequenceToValue<Index>(char const*& it, char const* end) {
  return Index(it, end);
}

namespace detail {

void requireEndOfText(Qel::String const& text, char const* it) {
  char const* const end = text.data() + text.size();
  while (it != end && isBlank(*it))
    ++it;
  if (it == end) return;
  char buf[64];
  std::snprintf(buf, sizeof buf, "junk at column %lld deserializing ",
                static_cast<long long>(it - text.data()));
  throw Qel::ParseException(buf + text);
}

}  // namespace detail

}  // namespace Ledra
