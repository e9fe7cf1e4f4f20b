#include "LocalTree.h"

#include "Qel/Containers/Path.h"

namespace LedraAgent {

std::string LocalTree::normalised(std::string const& path) {
  std::string out;
  for (std::string_view const component : Qel::pathComponents(path)) {
    out += '/';
    out += component;
  }
  return out.empty() ? "/" : out;
}

LocalTree::Node& LocalTree::make(std::string const& path) {
  auto it = nodes_.find(path);
  if (it != nodes_.end()) return it->second;
  if (path != "/") {
    std::size_t const slash = path.rfind('/');
    std::string const parent = slash == 0 ? "/" : path.substr(0, slash);
    make(parent).entries.insert(path.substr(slash + 1));
  }
  return nodes_[path];
}

LocalTree::Node& LocalTree::mount(std::string const& path, std::string const& typeName,
                                  std::string const& flags,
                                  Qel::NboAttrLog::WireEntityState const* state) {
  std::string const key = normalised(path);
  Node& n = make(key);
  n.held = true;
  ++n.mounts;
  n.typeName = typeName;
  n.flags = flags;
  if (!state) return n;
  if (typeName.empty()) n.typeName = state->typeName;
  n.attributes.assign(state->attributes.begin(), state->attributes.end());
  n.entries.insert(state->entries.begin(), state->entries.end());
  return n;
}

LocalTree::Node const* LocalTree::node(std::string const& path) const {
  auto it = nodes_.find(normalised(path));
  return it == nodes_.end() ? nullptr : &it->second;
}

std::vector<std::string> LocalTree::held() const {
  std::vector<std::string> out;
  for (auto const& [path, n] : nodes_) {
    if (n.held) out.push_back(path);
  }
  return out;
}

}  // namespace LedraAgent
