// Qel::pathComponents(path): the components of a "/"-separated path, front to back, as views into
// the path's text (which must outlive them); nothing is allocated.
//
// By default empty components, those that a leading, trailing or repeated "/" makes, are skipped:
// "/a//b/" has the components a and b, and "" and "/" have none. With EmptyComponents::keep every
// "/" separates two components: "a//b/" has a, "", b and "", and "" has one empty component.
// "." and ".." are names like any other.
#pragma once

#include <cstddef>
#include <iterator>
#include <string_view>

namespace Qel {

enum class EmptyComponents { skip, keep };

// A forward range by its begin() and end(); it does not derive from std::ranges::view_interface,
// which clang 14 cannot instantiate with libstdc++ 12.
class PathComponents {
 public:
  class iterator {
   public:
    using iterator_concept = std::forward_iterator_tag;
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::string_view;
    using difference_type = std::ptrdiff_t;

    iterator() = default;
    std::string_view operator*() const { return path_.substr(begin_, end_ - begin_); }
    iterator& operator++() {
      if (end_ == path_.size()) {
        begin_ = kDone;
        return *this;
      }
      begin_ = end_ + 1;
      settle();
      return *this;
    }
    iterator operator++(int) {
      iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(iterator const& o) const { return begin_ == o.begin_; }

   private:
    friend class PathComponents;
    static constexpr std::size_t kDone = std::string_view::npos;

    iterator(std::string_view path, EmptyComponents empty, std::size_t begin)
        : path_(path), empty_(empty), begin_(begin) {
      if (begin_ != kDone) settle();
    }
    // Finds the end of the component starting at begin_, moving past empty ones when skipped.
    void settle() {
      for (;;) {
        std::size_t const slash = path_.find('/', begin_);
        end_ = slash == std::string_view::npos ? path_.size() : slash;
        if (end_ > begin_ || empty_ == EmptyComponents::keep) return;
        if (end_ == path_.size()) {
          begin_ = kDone;
          return;
        }
        begin_ = end_ + 1;
      }
    }

    std::string_view path_;
    EmptyComponents empty_ = EmptyComponents::skip;
    std::size_t begin_ = kDone;
    std::size_t end_ = kDone;
  };

  PathComponents() = default;
  explicit PathComponents(std::string_view path, EmptyComponents empty = EmptyComponents::skip)
      : path_(path), empty_(empty) {}

  iterator begin() const { return iterator(path_, empty_, 0); }
  iterator end() const { return iterator(path_, empty_, iterator::kDone); }
  bool empty() const { return begin() == end(); }

 private:
  std::string_view path_;
  EmptyComponents empty_ = EmptyComponents::skip;
};

inline PathComponents pathComponents(std::string_view path,
                                     EmptyComponents empty = EmptyComponents::skip) {
  return PathComponents(path, empty);
}

}  // namespace Qel
