// Ledrad::ConfigText: the lexical layer shared by the profile and state file formats.
//
// A file is split into lines (LF or CRLF). Blank lines and lines whose first non-blank character
// is "#" are dropped; every other line becomes a ConfigLine with its 1-based number and its words.
// Words are separated by blanks and tabs. A word that begins with a double quote runs to the next
// unescaped double quote and may hold blanks; inside it \" stands for a quote, \\ for a backslash,
// \t for a tab and \n for a newline. A quoted word must be followed by a blank or the end of the
// line. rest(i) gives the raw text of the line from word i to its end (trailing blanks removed),
// for keywords whose argument is free text (conditions).
//
// Errors are FileError with the line number: "unterminated quoted text", "text after a closing
// quote", "unknown escape \x in quoted text". Pure functions; no state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Ledrad {

class FileProblems;

struct ConfigWord {
  std::string text;       // unquoted and unescaped
  std::size_t begin = 0;  // offset of the word's first character in the line
  bool quoted = false;
};

struct ConfigLine {
  int number = 0;
  std::string text;
  std::vector<ConfigWord> words;

  std::size_t size() const { return words.size(); }
  std::string const& word(std::size_t i) const { return words.at(i).text; }
  // The raw text from word i to the end of the line; empty when there is no word i.
  std::string rest(std::size_t i) const;
};

// Splits `text` (the contents of the file `problems` is about) into its meaningful lines. A line
// that cannot be split is left out and its problem added to `problems`.
std::vector<ConfigLine> configLines(std::string_view text, FileProblems& problems);

// Reads the whole file; FileError "<file>: cannot read: <system error>" when it cannot.
std::string readConfigFile(std::string const& file);

// Parses a boolean word: "true" or "false"; anything else is an error reason.
bool parseBool(std::string const& word, bool& out);

// The naming rules of both formats. Each returns the reason a name is refused, naming it as
// `what` ("profile name", ...), or an empty text for a good name. No name may be empty.
//
// A word name (profiles, groups) holds no blank and no control character.
std::string wordNameProblem(std::string const& name, char const* what);
// An identifier (enumerators, attributes) is a letter or '_' followed by letters, digits or '_'.
std::string identifierProblem(std::string const& name, char const* what);
// A type name (enum and entity types) is identifiers joined by "::", as in Demo::Chassis.
std::string typeNameProblem(std::string const& name, char const* what);

}  // namespace Ledrad
