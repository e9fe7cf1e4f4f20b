#include "apps/ledrad/JsonWriter.h"

#include <cstdio>

#include "Check/Check.h"
#include "Qel/NboAttrLog/WireText.h"

namespace Ledrad {

std::string JsonWriter::quote(std::string_view text) {
  std::string out = "\"";
  for (std::size_t pos = 0; pos < text.size();) {
    Qel::NboAttrLog::Utf8Sequence const s = Qel::NboAttrLog::utf8SequenceAt(text, pos);
    if (s.length == 0) {
      out += "\\ufffd";  // a byte that is no UTF-8 is never written as it is
      ++pos;
      continue;
    }
    pos += s.length;
    switch (s.codePoint) {
      case '"':
        out += "\\\"";
        continue;
      case '\\':
        out += "\\\\";
        continue;
      case '\n':
        out += "\\n";
        continue;
      case '\t':
        out += "\\t";
        continue;
      case '\r':
        out += "\\r";
        continue;
      default:
        break;
    }
    if (Qel::NboAttrLog::isControlCharacter(s.codePoint)) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(s.codePoint));
      out += buf;
      continue;
    }
    out.append(text.substr(pos - s.length, s.length));
  }
  out += '"';
  return out;
}

void JsonWriter::beforeValue() {
  if (levels_.empty()) {
    QEL_CHECK(out_.empty(), "out_.empty() && \"a JSON document holds one value\"");
    return;
  }
  Level& l = levels_.back();
  if (l.object) {
    QEL_CHECK(keyPending_, "keyPending_ && \"a member of a JSON object needs a key\"");
    keyPending_ = false;
    return;
  }
  out_ += l.empty ? "\n" : ",\n";
  l.empty = false;
  out_.append(levels_.size() * 2, ' ');
}

void JsonWriter::raw(std::string_view text) {
  beforeValue();
  out_ += text;
  if (levels_.empty()) out_ += '\n';
}

JsonWriter& JsonWriter::beginObject() {
  beforeValue();
  out_ += '{';
  levels_.push_back(Level{true});
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  beforeValue();
  out_ += '[';
  levels_.push_back(Level{false});
  return *this;
}

void JsonWriter::close(bool object, char c) {
  QEL_CHECK(!levels_.empty() && levels_.back().object == object && !keyPending_,
            "!levels_.empty() && levels_.back().object == object && !keyPending_ && \"unbalanced "
            "JSON structure\"");
  bool const empty = levels_.back().empty;
  levels_.pop_back();
  if (!empty) {
    out_ += '\n';
    out_.append(levels_.size() * 2, ' ');
  }
  out_ += c;
  if (levels_.empty()) out_ += '\n';
}

JsonWriter& JsonWriter::endObject() {
  close(true, '}');
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  close(false, ']');
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view k) {
  QEL_CHECK(!levels_.empty() && levels_.back().object && !keyPending_,
            "!levels_.empty() && levels_.back().object && !keyPending_ && \"a JSON key belongs in "
            "an object\"");
  Level& l = levels_.back();
  out_ += l.empty ? "\n" : ",\n";
  l.empty = false;
  out_.append(levels_.size() * 2, ' ');
  out_ += quote(k);
  out_ += ": ";
  keyPending_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view v) {
  raw(quote(v));
  return *this;
}

JsonWriter& JsonWriter::value(bool v) {
  raw(v ? "true" : "false");
  return *this;
}

JsonWriter& JsonWriter::value(long long v) {
  raw(std::to_string(v));
  return *this;
}

JsonWriter& JsonWriter::value(unsigned long long v) {
  raw(std::to_string(v));
  return *this;
}

JsonWriter& JsonWriter::valueNull() {
  raw("null");
  return *this;
}

}  // namespace Ledrad
