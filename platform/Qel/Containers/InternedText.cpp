#include "Qel/Containers/InternedText.h"

#include <unordered_set>

namespace Qel {

// The nodes of every interned text, found by text. Never destroyed, so that an InternedText held
// by a static object can still let go of its node at exit.
struct InternTable {
  using Node = InternedText::Node;
  struct NodeHash {
    using is_transparent = void;
    std::size_t operator()(Node const* n) const { return n->hash; }
    std::size_t operator()(std::string_view text) const { return InternedText::hashOf(text); }
  };
  struct NodeEqual {
    using is_transparent = void;
    bool operator()(Node const* a, Node const* b) const { return a == b; }
    bool operator()(Node const* a, std::string_view b) const { return a->text == b; }
    bool operator()(std::string_view a, Node const* b) const { return b->text == a; }
  };
  using Set = std::unordered_set<Node*, NodeHash, NodeEqual>;

  static Set& nodes() {
    static Set* const set = new Set();
    return *set;
  }
};

InternedText::InternedText(std::string_view text) {
  if (text.empty()) return;
  InternTable::Set& nodes = InternTable::nodes();
  if (auto const it = nodes.find(text); it != nodes.end()) {
    node_ = *it;
    ++node_->holders;
    return;
  }
  node_ = new Node{String(text), hashOf(text), 1};
  nodes.insert(node_);
}

void InternedText::release(Node* node) {
  InternTable::nodes().erase(node);
  delete node;
}

std::size_t InternedText::interned() {
  return InternTable::nodes().size();
}

String const& InternedText::emptyText() {
  static String const* const empty = new String();
  return *empty;
}

}  // namespace Qel
