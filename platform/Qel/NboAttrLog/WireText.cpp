#include "Qel/NboAttrLog/WireText.h"

#include <cstdio>

namespace Qel::NboAttrLog {

namespace {

std::string hex(char const* format, unsigned value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, format, value);
  return buf;
}

}  // namespace

Utf8Sequence utf8SequenceAt(std::string_view text, std::size_t pos) {
  auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(text[pos + i]); };
  unsigned char const lead = byte(0);
  if (lead < 0x80) return {lead, 1};
  std::size_t length;
  char32_t cp;
  char32_t min;
  if ((lead & 0xe0) == 0xc0) {
    length = 2;
    cp = lead & 0x1f;
    min = 0x80;
  } else if ((lead & 0xf0) == 0xe0) {
    length = 3;
    cp = lead & 0x0f;
    min = 0x800;
  } else if ((lead & 0xf8) == 0xf0) {
    length = 4;
    cp = lead & 0x07;
    min = 0x10000;
  } else {
    return {};
  }
  if (text.size() - pos < length) return {};
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return {};
    cp = (cp << 6) | (byte(i) & 0x3f);
  }
  if (cp < min || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return {};
  return {cp, length};
}

bool isControlCharacter(char32_t c) {
  return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x200e || c == 0x200f || c == 0x2028 ||
         c == 0x2029 || (c >= 0x202a && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

std::string wireTextFault(std::string_view text) {
  for (std::size_t pos = 0; pos < text.size();) {
    Utf8Sequence const s = utf8SequenceAt(text, pos);
    if (s.length == 0) {
      return "is not valid UTF-8 at byte " + std::to_string(pos) + " (" +
             hex("0x%02x", static_cast<unsigned char>(text[pos])) + ")";
    }
    if (isControlCharacter(s.codePoint)) {
      return "holds control character " + hex("U+%04X", static_cast<unsigned>(s.codePoint)) +
             " at byte " + std::to_string(pos);
    }
    pos += s.length;
  }
  return {};
}

std::string printableText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t pos = 0; pos < text.size();) {
    Utf8Sequence const s = utf8SequenceAt(text, pos);
    if (s.length == 0) {
      out += hex("\\x%02x", static_cast<unsigned char>(text[pos]));
      ++pos;
      continue;
    }
    if (!isControlCharacter(s.codePoint)) {
      out.append(text.substr(pos, s.length));
    } else if (s.codePoint < 0x80) {
      out += hex("\\x%02x", static_cast<unsigned>(s.codePoint));
    } else {
      out += hex("\\u%04x", static_cast<unsigned>(s.codePoint));
    }
    pos += s.length;
  }
  return out;
}

std::size_t textWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t pos = 0; pos < text.size(); ++width) {
    std::size_t const length = utf8SequenceAt(text, pos).length;
    pos += length == 0 ? 1 : length;
  }
  return width;
}

}  // namespace Qel::NboAttrLog
