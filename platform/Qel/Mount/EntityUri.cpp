#include "Qel/Mount/EntityUri.h"

#include <cctype>

#include "Qel/Core/Exception.h"

namespace Qel {

namespace {

// The length of the scheme at the start of `text` (without the ':'), or 0 when it has none.
std::size_t schemeLength(String const& text) {
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text[0]))) return 0;
  for (std::size_t i = 1; i < text.size(); ++i) {
    char const c = text[i];
    if (c == ':') return i;
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return 0;
  }
  return 0;
}

}  // namespace

EntityUri::EntityUri(String const& text) {
  std::size_t start = 0;
  if (std::size_t const n = schemeLength(text); n != 0) {
    if (text.compare(0, n, kScheme) != 0) throw ParseException("not an entity URI: " + text);
    start = n + 1;
  }
  std::size_t const q = text.find('?', start);
  path_ = text.substr(start, q == std::string::npos ? std::string::npos : q - start);
  if (q != std::string::npos) query_ = text.substr(q + 1);
  if (path_.empty()) throw ParseException("not an entity URI: " + text);
}

EntityUri::EntityUri(String path, String query) : path_(std::move(path)), query_(std::move(query)) {
  if (path_.empty()) throw ParseException("not an entity URI: ?" + query_);
}

String EntityUri::text() const {
  // A path that reads as a scheme of its own keeps the prefix, so that the text parses back.
  String out = schemeLength(path_) != 0 ? String(String(kScheme) + ":" + path_) : path_;
  if (!query_.empty()) out += "?" + query_;
  return out;
}

}  // namespace Qel
