#include "apps/ledrad/ControlProtocol.h"

#include <stdexcept>

namespace Ledrad {

std::string encodeRequest(std::vector<std::string> const& words) {
  if (words.empty()) throw std::invalid_argument("empty request");
  std::string line;
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::string const& w = words[i];
    if (w.find_first_of("\t\n") != std::string::npos) {
      throw std::invalid_argument("argument '" + w + "' holds a tab or a newline");
    }
    // Every word after the first gets its tab, so that empty words, leading ones included,
    // arrive as given.
    if (i > 0) line += '\t';
    line += w;
  }
  line += '\n';
  if (line.size() > kMaxRequest) throw std::invalid_argument("request too long");
  return line;
}

std::vector<std::string> decodeRequest(std::string_view line) {
  std::vector<std::string> words;
  if (line.empty()) return words;
  std::size_t pos = 0;
  while (true) {
    std::size_t const tab = line.find('\t', pos);
    words.emplace_back(line.substr(pos, tab == std::string_view::npos ? line.npos : tab - pos));
    if (tab == std::string_view::npos) break;
    pos = tab + 1;
  }
  return words;
}

std::string encodeReply(ControlReply const& reply) {
  return (reply.ok ? "ok\n" : "error\n") + reply.text;
}

ControlReply decodeReply(std::string_view text) {
  if (text.empty()) throw std::runtime_error("ledrad closed the connection without a reply");
  std::size_t const nl = text.find('\n');
  std::string_view const head = text.substr(0, nl);
  ControlReply r;
  if (head == "ok") {
    r.ok = true;
  } else if (head != "error") {
    throw std::runtime_error("malformed reply from ledrad");
  }
  if (nl != std::string_view::npos) r.text = std::string(text.substr(nl + 1));
  return r;
}

}  // namespace Ledrad
