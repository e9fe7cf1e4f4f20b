// Qel::InternedText: a text (a path, a type or connection name) stored once per process and shared
// by every holder.
//
// Making one from a text finds the node of an equal text in the process-wide intern table, or
// makes it; copies share the node (a pointer and a reference count), and the last holder to let
// go removes the node from the table. Equal texts therefore always share one node, so equality
// is a pointer comparison and the text is hashed once, when its node is made. The hash is the
// text's std::hash<std::string_view>, so a map keyed by InternedText can be searched with a plain
// text (InternedText::Hash and InternedText::Equal, or std::less<>) without interning it.
// Ordering is the text's.
//
// The default, and one made from the empty text, holds no node and reads as the empty text.
// Single-threaded like the rest of Qel: the intern table is not locked.
#pragma once

#include "Qel/Core/Api.h"

#include <compare>
#include <cstddef>
#include <string_view>
#include <utility>

#include "Qel/Core/Types.h"

namespace Qel {

class QEL_API InternedText {
 public:
  InternedText() = default;
  explicit InternedText(std::string_view text);
  InternedText(InternedText const& other) noexcept : node_(other.node_) {
    if (node_) ++node_->holders;
  }
  InternedText(InternedText&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  InternedText& operator=(InternedText other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~InternedText() {
    if (node_ && --node_->holders == 0) release(node_);
  }

  String const& str() const { return node_ ? node_->text : emptyText(); }
  operator String const&() const { return str(); }
  operator std::string_view() const { return str(); }
  bool empty() const { return node_ == nullptr; }
  std::size_t hash() const noexcept { return node_ ? node_->hash : hashOf({}); }

  friend bool operator==(InternedText const& a, InternedText const& b) {
    return a.node_ == b.node_;
  }
  friend bool operator==(InternedText const& a, std::string_view b) {
    return std::string_view(a.str()) == b;
  }
  friend std::strong_ordering operator<=>(InternedText const& a, InternedText const& b) {
    if (a.node_ == b.node_) return std::strong_ordering::equal;
    return std::string_view(a.str()).compare(b.str()) <=> 0;
  }
  friend std::strong_ordering operator<=>(InternedText const& a, std::string_view b) {
    return std::string_view(a.str()).compare(b) <=> 0;
  }

  // The hash of a text as InternedText keeps it.
  static std::size_t hashOf(std::string_view text) noexcept {
    return std::hash<std::string_view>()(text);
  }
  // The number of distinct texts held now.
  static std::size_t interned();

  // Hash and equality for unordered containers, searchable with a plain text. The hash of a held
  // text is read from its node, so (being noexcept) containers do not keep a copy of it.
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(InternedText const& p) const noexcept { return p.hash(); }
    std::size_t operator()(std::string_view text) const noexcept { return hashOf(text); }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(InternedText const& a, InternedText const& b) const { return a == b; }
    bool operator()(InternedText const& a, std::string_view b) const { return a == b; }
    bool operator()(std::string_view a, InternedText const& b) const { return b == a; }
  };

 private:
  struct Node {
    String text;
    std::size_t hash;
    std::size_t holders;
  };
  friend struct InternTable;

  static String const& emptyText();
  static void release(Node* node);

  Node* node_ = nullptr;
};

}  // namespace Qel

template <>
struct std::hash<Qel::InternedText> {
  std::size_t operator()(Qel::InternedText const& p) const noexcept { return p.hash(); }
};
