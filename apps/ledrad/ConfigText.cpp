#include "apps/ledrad/ConfigText.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "apps/ledrad/FileError.h"

namespace Ledrad {

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

bool isIdentifierStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool isIdentifier(std::string_view s) {
  if (s.empty() || !isIdentifierStart(s.front())) return false;
  for (char c : s) {
    if (!isIdentifierStart(c) && !(c >= '0' && c <= '9')) return false;
  }
  return true;
}

std::string emptyName(char const* what) {
  return std::string(what) + " must not be empty";
}

std::string quoted(std::string const& name, char const* what) {
  return std::string(what) + " '" + name + "'";
}

// Reads the quoted word that starts at line[i] (the opening quote); returns the offset after the
// closing quote.
std::size_t quotedWord(std::string const& line, std::size_t i, std::string& out,
                       std::string const& file, int number) {
  for (++i; i < line.size(); ++i) {
    char const c = line[i];
    if (c == '"') return i + 1;
    if (c != '\\') {
      out.push_back(c);
      continue;
    }
    if (++i == line.size()) break;
    switch (line[i]) {
      case '"':
        out.push_back('"');
        break;
      case '\\':
        out.push_back('\\');
        break;
      case 't':
        out.push_back('\t');
        break;
      case 'n':
        out.push_back('\n');
        break;
      default:
        throw FileError(file, number,
                        std::string("unknown escape \\") + line[i] + " in quoted text");
    }
  }
  throw FileError(file, number, "unterminated quoted text");
}

ConfigLine splitLine(std::string text, int number, std::string const& file) {
  ConfigLine line;
  line.number = number;
  line.text = std::move(text);
  std::string const& s = line.text;
  std::size_t i = 0;
  while (i < s.size()) {
    if (isBlank(s[i])) {
      ++i;
      continue;
    }
    ConfigWord w;
    w.begin = i;
    if (s[i] == '"') {
      w.quoted = true;
      i = quotedWord(s, i, w.text, file, number);
      if (i < s.size() && !isBlank(s[i]))
        throw FileError(file, number, "text after a closing quote");
    } else {
      while (i < s.size() && !isBlank(s[i]))
        w.text.push_back(s[i++]);
    }
    line.words.push_back(std::move(w));
  }
  return line;
}

}  // namespace

std::string ConfigLine::rest(std::size_t i) const {
  if (i >= words.size()) return {};
  std::string r = text.substr(words[i].begin);
  while (!r.empty() && isBlank(r.back()))
    r.pop_back();
  return r;
}

std::vector<ConfigLine> configLines(std::string_view text, FileProblems& problems) {
  std::string const& file = problems.file();
  std::vector<ConfigLine> lines;
  int number = 0;
  std::size_t pos = 0;
  while (pos <= text.size()) {
    std::size_t const nl = text.find('\n', pos);
    std::size_t const end = nl == std::string_view::npos ? text.size() : nl;
    std::string raw(text.substr(pos, end - pos));
    ++number;
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();
    std::size_t const first = raw.find_first_not_of(" \t");
    if (first != std::string::npos && raw[first] != '#') {
      problems.attempt([&] { lines.push_back(splitLine(std::move(raw), number, file)); });
    }
    if (nl == std::string_view::npos) break;
    pos = nl + 1;
  }
  return lines;
}

std::string readConfigFile(std::string const& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw FileError(file, 0, std::string("cannot read: ") + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) throw FileError(file, 0, std::string("cannot read: ") + std::strerror(errno));
  return content.str();
}

bool parseBool(std::string const& word, bool& out) {
  if (word == "true") {
    out = true;
    return true;
  }
  if (word == "false") {
    out = false;
    return true;
  }
  return false;
}

std::string wordNameProblem(std::string const& name, char const* what) {
  if (name.empty()) return emptyName(what);
  for (char c : name) {
    auto const u = static_cast<unsigned char>(c);
    if (u <= ' ' || u == 0x7f)
      return quoted(name, what) + " may not hold blanks or control characters";
  }
  return {};
}

std::string identifierProblem(std::string const& name, char const* what) {
  if (name.empty()) return emptyName(what);
  if (isIdentifier(name)) return {};
  return quoted(name, what) + " must be a letter or '_' followed by letters, digits or '_'";
}

std::string typeNameProblem(std::string const& name, char const* what) {
  if (name.empty()) return emptyName(what);
  std::string_view rest(name);
  while (true) {
    std::size_t const sep = rest.find("::");
    if (!isIdentifier(rest.substr(0, sep))) {
      return quoted(name, what) +
             " must be identifiers (a letter or '_' followed by letters, digits or '_') joined "
             "by '::'";
    }
    if (sep == std::string_view::npos) return {};
    rest.remove_prefix(sep + 2);
  }
}

}  // namespace Ledrad
