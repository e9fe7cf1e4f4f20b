#include "Qel/Containers/InternedText.h"

#include <unordered_set>

namespace Qel {

// The nodes of every interned text, found by text: each node lives in the set itself (one
// allocation per text besides the text's own), and its holder count, which neither the hash nor
// the equality reads, is changed in place. Never destroyed, so that an InternedText held by a
// static object can still let go of its node at exit.
struct InternTable {
  using Node = InternedText::Node;
  // A node is found by its text, or by its address when it is let go.
  struct NodeHash {
    using is_transparent = void;
    std::size_t operator()(Node const& n) const noexcept { return n.hash; }
    std::size_t operator()(Node const* n) const noexcept { return n->hash; }
    std::size_t operator()(std::string_view text) const noexcept {
      return InternedText::hashOf(text);
    }
  };
  struct NodeEqual {
    using is_transparent = void;
    bool operator()(Node const& a, Node const& b) const { return &a == &b; }
    bool operator()(Node const& a, Node const* b) const { return &a == b; }
    bool operator()(Node const* a, Node const& b) const { return a == &b; }
    bool operator()(Node const& a, std::string_view b) const { return a.text == b; }
    bool operator()(std::string_view a, Node const& b) const { return b.text == a; }
  };
  using Set = std::unordered_set<Node, NodeHash, NodeEqual>;

  static Set& nodes() {
    static Set* const set = new Set();
    return *set;
  }
};

InternedText::InternedText(std::string_view text) {
  if (text.empty()) return;
  InternTable::Set& nodes = InternTable::nodes();
  auto it = nodes.find(text);
  if (it == nodes.end()) {
    it = nodes.insert(Node{String(text), hashOf(text), 0}).first;
  }
  node_ = const_cast<Node*>(&*it);
  ++node_->holders;
}

void InternedText::release(Node* node) {
  InternTable::Set& nodes = InternTable::nodes();
  nodes.erase(nodes.find(static_cast<Node const*>(node)));
}

std::size_t InternedText::interned() {
  return InternTable::nodes().size();
}

String const& InternedText::emptyText() {
  static String const* const empty = new String();
  return *empty;
}

}  // namespace Qel
