// Ledrad::JsonWriter: writes one JSON document, indented by two blanks per level.
//
// Calls follow the document's structure: beginObject/endObject, beginArray/endArray, key() before
// each member of an object, and value() for scalars; commas and line breaks are placed by the
// writer. Texts are escaped (quote, backslash, and every control character of
// Qel::NboAttrLog::isControlCharacter as \uXXXX or \n, \t, \r); valid UTF-8 passes unchanged,
// and a byte that is not part of valid UTF-8 is written \ufffd (the replacement character), so
// the document is strict JSON whatever bytes the texts held. Misuse (a value without a key inside
// an object, an unbalanced end) is a programming error, asserted. Not thread-safe; one writer per
// document.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Ledrad {

class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(std::string_view k);
  JsonWriter& value(std::string_view v);
  JsonWriter& value(char const* v) { return value(std::string_view(v)); }
  JsonWriter& value(bool v);
  JsonWriter& value(long long v);
  JsonWriter& value(unsigned long long v);
  JsonWriter& value(int v) { return value(static_cast<long long>(v)); }
  JsonWriter& value(unsigned v) { return value(static_cast<unsigned long long>(v)); }
  JsonWriter& valueNull();

  // The document written so far, ending in a newline once the outermost value is complete.
  std::string const& text() const { return out_; }

  static std::string quote(std::string_view text);

 private:
  struct Level {
    bool object;
    bool empty = true;
  };

  void beforeValue();
  void raw(std::string_view text);
  void close(bool object, char c);

  std::string out_;
  std::vector<Level> levels_;
  bool keyPending_ = false;
};

}  // namespace Ledrad
