// test::JsonValue: a strict reader of one JSON document, for tests that inspect a few fields of
// what a program printed instead of comparing whole renderings.
//
// parse() reads the whole text (objects, arrays, strings with every escape, \u including
// surrogate pairs, numbers, true, false, null) and throws std::runtime_error with the offset at
// the first thing that is not JSON, or at anything after the document. Looking up a member that
// is not there, or an element past the end, or reading a value as another kind, throws too, so a
// test never reads a default by mistake. A plain value; single-threaded.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

class JsonValue {
 public:
  enum class Kind { null, boolean, number, string, array, object };

  static JsonValue parse(std::string const& text) {
    Reader r{text};
    JsonValue v = r.value();
    r.blanks();
    if (r.pos != text.size()) r.fail("text after the document");
    return v;
  }

  Kind kind() const { return kind_; }
  bool isNull() const { return kind_ == Kind::null; }

  std::string const& str() const { return expect(Kind::string).text_; }
  bool boolean() const { return expect(Kind::boolean).flag_; }
  double number() const { return expect(Kind::number).number_; }
  std::size_t size() const {
    return kind_ == Kind::object ? expect(Kind::object).members_.size()
                                 : expect(Kind::array).elements_.size();
  }
  bool has(std::string const& key) const { return expect(Kind::object).members_.count(key) != 0; }
  JsonValue const& operator[](std::string const& key) const {
    auto const& members = expect(Kind::object).members_;
    auto it = members.find(key);
    if (it == members.end()) throw std::runtime_error("no member \"" + key + "\"");
    return it->second;
  }
  JsonValue const& operator[](std::size_t i) const {
    auto const& elements = expect(Kind::array).elements_;
    if (i >= elements.size()) throw std::runtime_error("no element " + std::to_string(i));
    return elements[i];
  }
  std::vector<JsonValue> const& elements() const { return expect(Kind::array).elements_; }

 private:
  struct Reader {
    std::string const& text;
    std::size_t pos = 0;

    [[noreturn]] void fail(std::string const& what) const {
      throw std::runtime_error("JSON: " + what + " at offset " + std::to_string(pos));
    }
    void blanks() {
      while (pos < text.size() &&
             (text[pos] == ' ' || text[pos] == '\n' || text[pos] == '\t' || text[pos] == '\r'))
        ++pos;
    }
    bool take(char c) {
      blanks();
      if (pos < text.size() && text[pos] == c) {
        ++pos;
        return true;
      }
      return false;
    }
    void word(char const* w, JsonValue& v, Kind k, bool flag) {
      std::string const s(w);
      if (text.compare(pos, s.size(), s) != 0) fail("unknown word");
      pos += s.size();
      v.kind_ = k;
      v.flag_ = flag;
    }
    unsigned hex4() {
      if (pos + 4 > text.size()) fail("short \\u escape");
      unsigned u = 0;
      for (int i = 0; i < 4; ++i) {
        char const c = text[pos++];
        u <<= 4;
        if (c >= '0' && c <= '9')
          u |= static_cast<unsigned>(c - '0');
        else if (c >= 'a' && c <= 'f')
          u |= static_cast<unsigned>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
          u |= static_cast<unsigned>(c - 'A' + 10);
        else
          fail("bad \\u escape");
      }
      return u;
    }
    static void utf8(std::string& out, unsigned cp) {
      if (cp < 0x80) {
        out += static_cast<char>(cp);
      } else if (cp < 0x800) {
        out += static_cast<char>(0xc0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3f));
      } else if (cp < 0x10000) {
        out += static_cast<char>(0xe0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
      } else {
        out += static_cast<char>(0xf0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
      }
    }
    std::string string() {
      if (!take('"')) fail("expected a string");
      std::string out;
      while (true) {
        if (pos >= text.size()) fail("unterminated string");
        char const c = text[pos++];
        if (c == '"') return out;
        if (static_cast<unsigned char>(c) < 0x20) fail("control character in a string");
        if (c != '\\') {
          out += c;
          continue;
        }
        if (pos >= text.size()) fail("unterminated escape");
        char const e = text[pos++];
        switch (e) {
          case '"':
          case '\\':
          case '/':
            out += e;
            break;
          case 'b':
            out += '\b';
            break;
          case 'f':
            out += '\f';
            break;
          case 'n':
            out += '\n';
            break;
          case 'r':
            out += '\r';
            break;
          case 't':
            out += '\t';
            break;
          case 'u': {
            unsigned cp = hex4();
            if (cp >= 0xd800 && cp < 0xdc00) {
              if (text.compare(pos, 2, "\\u") != 0) fail("lone surrogate");
              pos += 2;
              unsigned const low = hex4();
              if (low < 0xdc00 || low >= 0xe000) fail("bad low surrogate");
              cp = 0x10000 + ((cp - 0xd800) << 10) + (low - 0xdc00);
            } else if (cp >= 0xdc00 && cp < 0xe000) {
              fail("lone surrogate");
            }
            utf8(out, cp);
            break;
          }
          default:
            fail("unknown escape");
        }
      }
    }
    JsonValue value() {
      blanks();
      if (pos >= text.size()) fail("expected a value");
      JsonValue v;
      char const c = text[pos];
      if (c == '{') {
        ++pos;
        v.kind_ = Kind::object;
        if (take('}')) return v;
        do {
          std::string key = string();
          if (!take(':')) fail("expected ':'");
          if (!v.members_.emplace(std::move(key), value()).second) fail("member given twice");
        } while (take(','));
        if (!take('}')) fail("expected '}'");
        return v;
      }
      if (c == '[') {
        ++pos;
        v.kind_ = Kind::array;
        if (take(']')) return v;
        do {
          v.elements_.push_back(value());
        } while (take(','));
        if (!take(']')) fail("expected ']'");
        return v;
      }
      if (c == '"') {
        v.kind_ = Kind::string;
        v.text_ = string();
        return v;
      }
      if (c == 't') return word("true", v, Kind::boolean, true), v;
      if (c == 'f') return word("false", v, Kind::boolean, false), v;
      if (c == 'n') return word("null", v, Kind::null, false), v;
      char const* start = text.c_str() + pos;
      char* end = nullptr;
      v.number_ = std::strtod(start, &end);
      if (end == start || (c != '-' && (c < '0' || c > '9'))) fail("expected a value");
      pos += static_cast<std::size_t>(end - start);
      v.kind_ = Kind::number;
      return v;
    }
  };

  JsonValue const& expect(Kind k) const {
    if (kind_ != k) throw std::runtime_error("JSON value of another kind");
    return *this;
  }

  Kind kind_ = Kind::null;
  bool flag_ = false;
  double number_ = 0;
  std::string text_;
  std::vector<JsonValue> elements_;
  std::map<std::string, JsonValue> members_;
};

}  // namespace test
