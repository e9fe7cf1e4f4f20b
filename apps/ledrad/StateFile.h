// Ledrad::StateFile: database state read from a line-oriented text file (the format is described
// in docs/state-format.md): enum and entity types defined at run time, directories, and entities
// of those types with their attribute values. Staged completely before anything is applied.
//
// parse() reads every line and checks it against the types and the tree as they stand (without
// changing either): type names and schemas (a type already registered must have exactly the
// staged schema: loading the same file twice is harmless), paths (every existing component on the
// way must be a directory; an existing entity at an entity's path must be of its type), attribute
// names, value texts by the attribute's type, collection keys, and pointer targets (an entity in
// the tree or one the file creates, of the attribute's type). Names follow the rules of
// ConfigText: enum and entity type names are identifiers joined by "::", enumerator and
// attribute names identifiers; an enumerator without a value takes the previous one's plus one,
// and one that would pass the largest 64-bit value is refused. Template keys in paths (such as
// %sysname) are replaced from `vars`; any other key is an error. Problems throw FileError
// "<file>:<line>: <reason>".
//
// applyTo() then, in this order: registers the new types; creates the new entities off the tree
// and sets their values; inserts new directories and entities into the tree in file order; sets
// the values of entities that existed before, in file order. A new directory that a pointer
// points to enters the tree when the pointer is written. Every write goes through the generic
// view, so the entities' watchers are told (a conditional mount group waiting on a value reacts).
// Exceptions thrown by such a watcher reach the caller.
//
// Single-threaded (the event loop's thread).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ledrad {

struct StagedEnum {
  std::string name;
  std::vector<std::pair<std::string, std::int64_t>> enumerators;
  bool registered = false;  // already registered with this exact definition
  int line = 0;
};

struct StagedAttribute {
  std::string name;
  std::string type;
  std::string keyType;  // non-empty: a collection keyed by this type
  int line = 0;
};

struct StagedType {
  std::string name;
  std::vector<StagedAttribute> attributes;
  bool registered = false;
  int line = 0;
};

struct StagedValue {
  std::string attribute;
  std::optional<std::string> key;  // a collection element
  std::string text;
  bool pointer = false;  // text is the path of an entity
  int line = 0;
};

struct StagedEntity {
  std::string path;  // after template substitution
  std::string type;  // empty for a directory
  std::vector<StagedValue> values;
  bool exists = false;  // already in the tree: only its values are set
  int line = 0;
};

// Whether a pointer attribute of type `attributeType` may point to an entity of `entityType`: an
// entity of exactly its type, or any entity when the attribute's type is Qel::Entity (run-time
// types have no other derivation).
bool pointerTypeAccepts(std::string const& attributeType, std::string const& entityType);

class StateFile {
 public:
  using Vars = std::map<std::string, std::string>;

  struct Applied {
    unsigned typesDefined = 0;
    unsigned directoriesCreated = 0;
    unsigned entitiesCreated = 0;
    unsigned valuesWritten = 0;
  };

  static StateFile parse(std::string_view text, std::string const& file, Vars const& vars);
  static StateFile load(std::string const& file, Vars const& vars);

  std::string const& file() const { return file_; }
  std::vector<StagedEnum> const& enums() const { return enums_; }
  std::vector<StagedType> const& types() const { return types_; }
  std::vector<StagedEntity> const& entities() const { return entities_; }

  Applied applyTo() const;

 private:
  friend class StateParser;
  StateFile() = default;

  std::string file_;
  std::vector<StagedEnum> enums_;
  std::vector<StagedType> types_;
  std::vector<StagedEntity> entities_;  // directories and entities, in file order
};

}  // namespace Ledrad
