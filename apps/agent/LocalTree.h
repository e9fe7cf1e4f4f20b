// LedraAgent::LocalTree: the agent's own copy of what the database mounted into it.
//
// A tree of nodes addressed by path ("/", "/a", "/a/b"). mount(path, ...) makes the node at the
// path (and every missing ancestor, as an unheld node) and marks it held; with the entity's
// state it takes the state's type name (unless the request named one), attributes and entry
// names. A node's entries are the names of its children in the tree plus the entries the
// database reported. Paths are normalised: repeated and trailing '/' do not matter. held() lists
// the held paths in byte order. A plain value; single-threaded.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Qel/NboAttrLog/WireMessage.h"

namespace LedraAgent {

class LocalTree {
 public:
  struct Node {
    std::string typeName;
    std::vector<std::pair<std::string, std::string>> attributes;
    std::set<std::string> entries;
    std::string flags;  // the letters of the last mount applied here
    bool held = false;
    unsigned mounts = 0;  // how many mounts were applied here
  };

  // "/a//b/" -> "/a/b"; "" and "/" -> "/".
  static std::string normalised(std::string const& path);

  Node& mount(std::string const& path, std::string const& typeName, std::string const& flags,
              Qel::NboAttrLog::WireEntityState const* state);

  Node const* node(std::string const& path) const;
  std::size_t nodes() const { return nodes_.size(); }
  std::map<std::string, Node> const& all() const { return nodes_; }
  std::vector<std::string> held() const;

 private:
  Node& make(std::string const& path);

  std::map<std::string, Node> nodes_;
};

}  // namespace LedraAgent
