#include "apps/ledrad/StateFile.h"

#include <charconv>
#include <limits>
#include <set>

#include "Qel/Containers/Path.h"
#include "Qel/Core/Exception.h"
#include "Qel/Entity/Dir.h"
#include "Qel/Reflection/DynamicEntity.h"
#include "Qel/Reflection/QelType.h"
#include "apps/ledrad/ConfigText.h"
#include "apps/ledrad/FileError.h"

namespace Ledrad {

namespace {

// What the parser knows of one attribute, whether its type is staged or registered.
struct AttrView {
  std::string name;
  Qel::QelAttr::Kind kind;
  std::string type;
  std::string keyType;
  bool writable;
};

enum class Shape { absent, directory, other };

constexpr char const* kDirType = "Qel::Dir";
constexpr char const* kEntityType = "Qel::Entity";

constexpr std::int64_t kEnumMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kEnumMax = std::numeric_limits<std::int64_t>::max();

// Reads a whole number of the enumerators' range; the reason it cannot, or an empty text.
std::string signedNumber(std::string const& text, std::int64_t& out) {
  char const* first = text.data();
  char const* const last = first + text.size();
  if (first != last && *first == '+') ++first;
  auto const [ptr, ec] = std::from_chars(first, last, out);
  if (ec == std::errc::result_out_of_range) {
    return "is out of range (" + std::to_string(kEnumMin) + " to " + std::to_string(kEnumMax) + ")";
  }
  if (ec != std::errc() || ptr != last || first == last) return "is not a whole number";
  return {};
}

std::vector<std::string> components(std::string const& path) {
  std::vector<std::string> out;
  // The root itself has no component; below the leading "/", empty components are kept: they are
  // what a path check refuses.
  if (path.size() <= 1) return out;
  for (std::string_view const component :
       Qel::pathComponents(std::string_view(path).substr(1), Qel::EmptyComponents::keep))
    out.emplace_back(component);
  return out;
}

}  // namespace

// Reads one state file line by line into a StateFile. A bad line is recorded in `problems` and
// reading goes on; the lines of a type or entity whose own line was refused, and the entities of
// a refused type, are passed over, since every one of them would only repeat that refusal.
class StateParser {
 public:
  StateParser(StateFile& sf, FileProblems& problems, StateFile::Vars const& vars)
      : sf_(sf), problems_(problems), vars_(vars) {}

  void line(ConfigLine const& l) {
    line_ = &l;
    std::string const& keyword = l.word(0);
    if (keyword == "enum") return enumLine();
    if (keyword == "type") return typeLine();
    if (keyword == "dir") return dirLine();
    if (keyword == "entity") return entityLine();
    bool const attribute = keyword == "attribute" || keyword == "collection";
    bool const value = keyword == "set" || keyword == "put";
    if ((attribute || value) && skippingBlock_) return;
    if (attribute) return attributeLine(keyword);
    if (value) return valueLine(keyword);
    fail("unknown keyword '" + keyword + "'");
  }

  void finish() {
    if (type_) finishType();
    // Pointer targets may be created further down the file.
    for (auto const& t : pointerTargets_) {
      std::string type;
      if (StagedEntity const* s = staged(t.path)) {
        type = s->type.empty() ? std::string(kDirType) : s->type;
      } else if (Qel::Entity::Ptr const e = Qel::globalDir()->entity(t.path)) {
        type = e->fwkType()->name();
      } else {
        problems_.add(t.line,
                      "no entity at " + t.path + " (neither in the database nor in this file)");
        continue;
      }
      if (pointerTypeAccepts(t.type, type)) continue;
      problems_.add(t.line, "value of '" + t.attribute + "': the entity at " + t.path + " is a " +
                                type + ", not a " + t.type);
    }
  }

 private:
  [[noreturn]] void fail(std::string const& reason) const {
    throw FileError(sf_.file_, line_->number, reason);
  }

  // Refuses the line with the reason a naming rule gave, if any.
  void named(std::string const& problem) const {
    if (!problem.empty()) fail(problem);
  }

  void words(std::size_t n, char const* usage) const {
    if (line_->size() != n) fail(std::string("expected: ") + usage);
  }

  // A top-level line ends the block of the type or entity before it.
  void topLevel() {
    if (type_) finishType();
    entity_ = -1;
    skippingBlock_ = false;
  }

  // ---- types

  StagedEnum const* stagedEnum(std::string const& name) const {
    for (auto const& e : sf_.enums_) {
      if (e.name == name) return &e;
    }
    return nullptr;
  }
  StagedType const* stagedType(std::string const& name) const {
    for (auto const& t : sf_.types_) {
      if (t.name == name) return &t;
    }
    return nullptr;
  }

  void nameIsFree(std::string const& name) const {
    if (stagedEnum(name) || stagedType(name)) fail("type '" + name + "' is defined twice");
  }

  // The type this line defines counts as refused until the line is accepted, unless the file
  // already defined it (then the line is a duplicate, and the first definition stands).
  void noteDefinition() {
    if (line_->size() < 2) return;
    std::string const& name = line_->word(1);
    if (!stagedEnum(name) && !stagedType(name)) refusedTypes_.insert(name);
  }

  void enumLine() {
    topLevel();
    noteDefinition();
    if (line_->size() < 3) fail("expected: enum NAME ENUMERATOR[=VALUE]...");
    StagedEnum e;
    e.name = line_->word(1);
    e.line = line_->number;
    named(typeNameProblem(e.name, "enum name"));
    nameIsFree(e.name);
    // The value of an enumerator written without one; none after the largest value.
    std::optional<std::int64_t> next = 0;
    for (std::size_t i = 2; i < line_->size(); ++i) {
      std::string const& word = line_->word(i);
      std::size_t const eq = word.find('=');
      std::string const name = word.substr(0, eq);
      if (name.empty()) fail("an enumerator of " + e.name + " has no name");
      named(identifierProblem(name, "enumerator name"));
      for (auto const& [n, v] : e.enumerators) {
        if (n == name) fail("enumerator '" + name + "' is given twice");
      }
      std::int64_t value = 0;
      if (eq != std::string::npos) {
        std::string const reason = signedNumber(word.substr(eq + 1), value);
        if (!reason.empty()) fail("enumerator value in '" + word + "' " + reason);
      } else if (next) {
        value = *next;
      } else {
        fail("enumerator '" + name + "' has no value after " + std::to_string(kEnumMax) +
             ", the largest one; give it one");
      }
      e.enumerators.emplace_back(name, value);
      next = value == kEnumMax ? std::nullopt : std::optional<std::int64_t>(value + 1);
    }
    if (Qel::QelType const* have = Qel::QelType::type(Qel::Name(e.name))) {
      bool same = have->isEnum() && have->enumerators().size() == e.enumerators.size();
      for (std::size_t i = 0; same && i < e.enumerators.size(); ++i) {
        same = have->enumerators()[i].first == e.enumerators[i].first &&
               have->enumerators()[i].second == e.enumerators[i].second;
      }
      if (!same) fail("type '" + e.name + "' is already defined differently");
      e.registered = true;
    }
    refusedTypes_.erase(e.name);
    sf_.enums_.push_back(std::move(e));
  }

  void typeLine() {
    topLevel();
    skippingBlock_ = true;
    noteDefinition();
    words(2, "type NAME");
    named(typeNameProblem(line_->word(1), "type name"));
    nameIsFree(line_->word(1));
    refusedTypes_.erase(line_->word(1));
    sf_.types_.push_back(StagedType{line_->word(1), {}, false, line_->number});
    type_ = &sf_.types_.back();
    skippingBlock_ = false;
  }

  // How a type name can be used as an attribute type: builtin, enum or entity; nullopt if unknown.
  std::optional<Qel::QelType::Kind> kindOf(std::string const& name) const {
    if (stagedEnum(name)) return Qel::QelType::Kind::enumeration;
    if (StagedType const* t = stagedType(name)) {
      if (t != type_) return Qel::QelType::Kind::entity;
      return std::nullopt;  // a type cannot refer to itself: it is not registered yet
    }
    if (Qel::QelType const* t = Qel::QelType::type(Qel::Name(name))) return t->kind();
    return std::nullopt;
  }

  void attributeLine(std::string const& keyword) {
    if (!type_) fail("'" + keyword + "' outside a type");
    StagedAttribute a;
    a.line = line_->number;
    if (keyword == "attribute") {
      words(3, "attribute NAME TYPE");
      a.name = line_->word(1);
      a.type = line_->word(2);
    } else {
      words(4, "collection NAME KEYTYPE TYPE");
      a.name = line_->word(1);
      a.keyType = line_->word(2);
      a.type = line_->word(3);
    }
    named(identifierProblem(a.name, "attribute name"));
    if (a.name == "name") fail("the attribute 'name' is every entity's own");
    if (a.type == type_->name || a.keyType == type_->name) {
      fail("type '" + type_->name + "' cannot refer to itself");
    }
    for (auto const& other : type_->attributes) {
      if (other.name == a.name) fail("attribute '" + a.name + "' is defined twice");
    }
    auto const kind = kindOf(a.type);
    if (!kind) fail("unknown type '" + a.type + "'");
    if (*kind == Qel::QelType::Kind::value) {
      fail("type '" + a.type + "' has no text form; use a builtin, enum or entity type");
    }
    if (!a.keyType.empty()) {
      auto const key = kindOf(a.keyType);
      if (!key) fail("unknown type '" + a.keyType + "'");
      if (*key != Qel::QelType::Kind::builtin && *key != Qel::QelType::Kind::enumeration) {
        fail("a collection key must be a builtin or enum type, not '" + a.keyType + "'");
      }
    }
    type_->attributes.push_back(std::move(a));
  }

  void finishType() {
    StagedType& t = *type_;
    type_ = nullptr;
    Qel::QelType const* have = Qel::QelType::type(Qel::Name(t.name));
    if (!have) return;
    bool same =
        have->kind() == Qel::QelType::Kind::entity && have->attributes() == t.attributes.size() + 1;
    for (std::size_t i = 0; same && i < t.attributes.size(); ++i) {
      Qel::QelAttr const* a = have->attribute(static_cast<Qel::AttributeId>(i + 1));
      StagedAttribute const& s = t.attributes[i];
      std::string const key = a->keyType() ? std::string(a->keyType()->name()) : std::string();
      same = a->name() == s.name && a->type()->name() == s.type && key == s.keyType;
    }
    if (!same) {
      problems_.add(t.line, "type '" + t.name + "' is already defined differently");
      return;
    }
    t.registered = true;
  }

  std::optional<std::vector<AttrView>> attributesOf(std::string const& typeName) const {
    std::vector<AttrView> out;
    if (StagedType const* t = stagedType(typeName)) {
      for (auto const& a : t->attributes) {
        auto const kind = kindOf(a.type);
        Qel::QelAttr::Kind k = !a.keyType.empty()                   ? Qel::QelAttr::Kind::collection
                               : kind == Qel::QelType::Kind::entity ? Qel::QelAttr::Kind::pointer
                               : kind == Qel::QelType::Kind::enumeration
                                   ? Qel::QelAttr::Kind::enumeration
                                   : Qel::QelAttr::Kind::value;
        out.push_back(AttrView{a.name, k, a.type, a.keyType, true});
      }
      return out;
    }
    Qel::QelType const* t = Qel::QelType::type(Qel::Name(typeName));
    if (!t) return std::nullopt;
    for (std::size_t i = 0; i < t->attributes(); ++i) {
      Qel::QelAttr const* a = t->attribute(static_cast<Qel::AttributeId>(i));
      out.push_back(AttrView{a->name(), a->kind(), a->type() ? std::string(a->type()->name()) : "",
                             a->keyType() ? std::string(a->keyType()->name()) : "",
                             !a->isConstructorAttribute() && static_cast<bool>(a->setter())});
    }
    return out;
  }

  // ---- paths

  std::string substitute(std::string const& text) const {
    std::string out;
    std::size_t pos = 0;
    while (pos < text.size()) {
      std::size_t const pct = text.find('%', pos);
      out += text.substr(pos, pct - pos);
      if (pct == std::string::npos) break;
      std::size_t end = text.find_first_of("%/-", pct + 1);
      if (end == std::string::npos) end = text.size();
      std::string const key = text.substr(pct, end - pct);
      auto it = vars_.find(key);
      if (it == vars_.end()) fail("unknown template key '" + key + "' in '" + text + "'");
      out += it->second;
      pos = end;
    }
    return out;
  }

  std::string path(std::string const& word) const {
    std::string const p = substitute(word);
    if (p.empty() || p.front() != '/') fail("path '" + word + "' does not begin with '/'");
    if (p == "/") fail("path '/' is the root itself");
    for (auto const& c : components(p)) {
      if (c.empty()) fail("path '" + p + "' has an empty component");
    }
    return p;
  }

  StagedEntity const* staged(std::string const& p) const {
    auto it = stagedByPath_.find(p);
    return it == stagedByPath_.end() ? nullptr : &sf_.entities_[it->second];
  }

  Shape shape(std::string const& p) const {
    if (StagedEntity const* s = staged(p)) return s->type.empty() ? Shape::directory : Shape::other;
    Qel::Entity::Ptr const e = Qel::globalDir()->entity(p);
    if (!e) return Shape::absent;
    return dynamic_cast<Qel::Dir const*>(e.ptr()) ? Shape::directory : Shape::other;
  }

  // Every component above `p` must be a directory or absent (it is then created).
  void parentsAreDirectories(std::string const& p) const {
    std::string prefix;
    auto const parts = components(p);
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
      prefix += "/" + parts[i];
      if (shape(prefix) == Shape::other) fail("'" + prefix + "' is not a directory");
    }
  }

  void stage(StagedEntity entity) {
    stagedByPath_.emplace(entity.path, sf_.entities_.size());
    sf_.entities_.push_back(std::move(entity));
    entity_ = static_cast<int>(sf_.entities_.size()) - 1;
  }

  void dirLine() {
    topLevel();
    words(2, "dir PATH");
    std::string const p = path(line_->word(1));
    parentsAreDirectories(p);
    Shape const s = shape(p);
    if (s == Shape::other) fail("'" + p + "' is not a directory");
    if (s == Shape::directory) return;
    stage(StagedEntity{p, {}, {}, false, line_->number});
    entity_ = -1;
  }

  void entityLine() {
    topLevel();
    skippingBlock_ = true;
    words(3, "entity PATH TYPE");
    std::string const p = path(line_->word(1));
    std::string const& typeName = line_->word(2);
    if (refusedTypes_.count(typeName)) return;
    if (StagedEntity const* s = staged(p)) {
      fail("'" + p + "' is already defined at line " + std::to_string(s->line));
    }
    auto const kind = kindOf(typeName);
    if (!kind) fail("unknown type '" + typeName + "'");
    Qel::QelType const* registered = Qel::QelType::type(Qel::Name(typeName));
    bool const creatable = stagedType(typeName) || (*kind == Qel::QelType::Kind::entity &&
                                                    registered && registered->hasFactory());
    if (!creatable) fail("type '" + typeName + "' is no entity type that can be created");
    parentsAreDirectories(p);
    StagedEntity entity{p, typeName, {}, false, line_->number};
    if (Qel::Entity::Ptr const e = Qel::globalDir()->entity(p)) {
      if (e->fwkType()->name() != typeName) {
        fail("an entity of type " + e->fwkType()->name() + " already stands at " + p);
      }
      entity.exists = true;
    }
    stage(std::move(entity));
    skippingBlock_ = false;
  }

  // ---- values

  std::string valueReason(std::string const& typeName, std::string const& text) const {
    if (StagedEnum const* e = stagedEnum(typeName)) {
      for (auto const& [n, v] : e->enumerators) {
        if (n == text) return {};
      }
      return "cannot read \"" + text + "\" as " + typeName + ": no such enumerator";
    }
    Qel::QelType const* t = Qel::QelType::type(Qel::Name(typeName));
    try {
      t->valueFromText(Qel::String(text));
      return {};
    } catch (Qel::Exception const& e) {
      return e.what();
    }
  }

  void valueLine(std::string const& keyword) {
    if (entity_ < 0) fail("'" + keyword + "' outside an entity");
    StagedEntity& e = sf_.entities_[static_cast<std::size_t>(entity_)];
    if (keyword == "set") words(3, "set ATTRIBUTE VALUE");
    if (keyword == "put") words(4, "put COLLECTION KEY VALUE");
    StagedValue v;
    v.line = line_->number;
    v.attribute = line_->word(1);
    if (keyword == "set") v.text = line_->word(2);
    if (keyword == "put") {
      v.key = line_->word(2);
      v.text = line_->word(3);
    }
    auto const attrs = attributesOf(e.type);
    AttrView const* a = nullptr;
    for (auto const& candidate : *attrs) {
      if (candidate.name == v.attribute) a = &candidate;
    }
    if (!a) fail("type " + e.type + " has no attribute '" + v.attribute + "'");
    if (!a->writable) fail("the attribute '" + v.attribute + "' of " + e.type + " is read-only");
    bool const collection = a->kind == Qel::QelAttr::Kind::collection;
    if (collection && !v.key) fail("'" + v.attribute + "' is a collection: use put");
    if (!collection && v.key) fail("'" + v.attribute + "' is no collection: use set");
    if (v.key) {
      std::string const reason = valueReason(a->keyType, *v.key);
      if (!reason.empty()) fail("key of '" + v.attribute + "': " + reason);
    }
    v.pointer = a->kind == Qel::QelAttr::Kind::pointer ||
                (collection && kindOf(a->type) == Qel::QelType::Kind::entity);
    if (v.pointer) {
      if (v.text != "null") {
        v.text = path(v.text);
        pointerTargets_.push_back(PointerTarget{v.text, a->type, v.attribute, v.line});
      }
    } else {
      std::string const reason = valueReason(a->type, v.text);
      if (!reason.empty()) fail("value of '" + v.attribute + "': " + reason);
    }
    e.values.push_back(std::move(v));
  }

  StateFile& sf_;
  FileProblems& problems_;
  StateFile::Vars const& vars_;
  // The lines of the type or entity block at hand are passed over: its own line was refused.
  bool skippingBlock_ = false;
  // Names of enum and entity types whose definition was refused.
  std::set<std::string> refusedTypes_;
  ConfigLine const* line_ = nullptr;
  StagedType* type_ = nullptr;
  int entity_ = -1;
  std::map<std::string, std::size_t> stagedByPath_;
  struct PointerTarget {
    std::string path;
    std::string type;  // the attribute's
    std::string attribute;
    int line;
  };
  std::vector<PointerTarget> pointerTargets_;
};

bool pointerTypeAccepts(std::string const& attributeType, std::string const& entityType) {
  return attributeType == entityType || attributeType == kEntityType;
}

StateFile StateFile::parse(std::string_view text, std::string const& file, Vars const& vars) {
  StateFile sf;
  sf.file_ = file;
  FileProblems problems(file);
  StateParser parser(sf, problems, vars);
  for (auto const& line : configLines(text, problems))
    problems.attempt([&] { parser.line(line); });
  parser.finish();
  problems.throwIfAny();
  return sf;
}

StateFile StateFile::load(std::string const& file, Vars const& vars) {
  return parse(readConfigFile(file), file, vars);
}

namespace {

Qel::Dir::Ptr ensureDir(std::string const& path, unsigned& created) {
  Qel::Dir::Ptr dir = Qel::globalDir();
  for (auto const& c : components(path)) {
    if (!dir->entry(Qel::Name(c))) ++created;
    dir = dir->dirIs(Qel::Name(c));
  }
  return dir;
}

std::string parentOf(std::string const& path) {
  std::size_t const slash = path.rfind('/');
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string leafOf(std::string const& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

StateFile::Applied StateFile::applyTo() const {
  Applied applied;
  for (auto const& e : enums_) {
    if (e.registered) continue;
    std::vector<std::pair<Qel::Name, std::int64_t>> enumerators;
    for (auto const& [n, v] : e.enumerators)
      enumerators.emplace_back(Qel::Name(n), v);
    Qel::defineEnum(Qel::Name(e.name), enumerators);
    ++applied.typesDefined;
  }
  for (auto const& t : types_) {
    if (t.registered) continue;
    std::vector<Qel::AttributeSchema> schema;
    for (auto const& a : t.attributes)
      schema.push_back({Qel::Name(a.name), Qel::Name(a.type), Qel::Name(a.keyType)});
    Qel::defineType(Qel::Name(t.name), schema);
    ++applied.typesDefined;
  }

  std::map<std::string, Qel::Entity::Ptr> created;
  for (auto const& e : entities_) {
    if (e.exists || e.type.empty()) continue;
    created[e.path] = Qel::QelType::type(Qel::Name(e.type))->newEntity(Qel::Name(leafOf(e.path)));
  }
  auto write = [&](Qel::Entity::Ptr const& entity, StagedValue const& v) {
    Qel::QelAttr const* a = entity->qelType()->attribute(Qel::Name(v.attribute));
    Qel::GenericIf::PtrConst key;
    if (v.key) key = a->keyType()->valueFromText(Qel::String(*v.key));
    Qel::GenericIf::PtrConst value;
    if (v.pointer && v.text != "null") {
      auto it = created.find(v.text);
      value = it != created.end() ? it->second : Qel::globalDir()->entity(v.text);
      // Else a directory of this file, which enters the tree now so that it can be pointed to.
      if (!value) value = ensureDir(v.text, applied.directoriesCreated);
    } else if (!v.pointer) {
      value = a->type()->valueFromText(Qel::String(v.text));
    }
    entity->attributeIs(Qel::Name(v.attribute), value, key);
    ++applied.valuesWritten;
  };
  for (auto const& e : entities_) {
    if (e.exists || e.type.empty()) continue;
    for (auto const& v : e.values)
      write(created[e.path], v);
  }
  for (auto const& e : entities_) {
    if (e.exists) continue;
    if (e.type.empty()) {
      ensureDir(e.path, applied.directoriesCreated);
      continue;
    }
    ensureDir(parentOf(e.path), applied.directoriesCreated)->entryIs(created[e.path]);
    ++applied.entitiesCreated;
  }
  for (auto const& e : entities_) {
    if (!e.exists) continue;
    Qel::Entity::Ptr const entity = Qel::globalDir()->entity(e.path);
    for (auto const& v : e.values)
      write(entity, v);
  }
  return applied;
}

}  // namespace Ledrad
