// Intrusive reference counting.
//
// RefCounted is the base of every entity and of the framework's other shared objects. The count
// is not atomic: all of them live on the single thread of the process's event loop. An object is
// created with count 0 and destroyed when the last Ptr to it lets go; factories hand out a Ptr,
// so a fresh object is returned with count 1. Destructors of RefCounted types are protected, so
// nothing but the last reference can destroy one. Ptr<T const> is the read-only view of an
// object: it keeps the object alive but offers only its const members.
//
// RefCounted counts the live instances of all its subclasses (liveInstances()); tests compare the
// count before and after to prove that nothing leaked.
#pragma once

#include "Qel/Core/Api.h"

#include <cassert>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Qel {

class QEL_API RefCounted {
 public:
  RefCounted(RefCounted const&) = delete;
  RefCounted& operator=(RefCounted const&) = delete;

  void newRef() const noexcept { ++refCount_; }
  void deleteRef() const noexcept {
    assert(refCount_ > 0 && "deleteRef on an object without references");
    // Not `if (--refCount_ != 0) return;`: where that is inlined into the cleanup of a frame an
    // exception leaves, g++ 12 (-O1 and above) drops the store of the decremented count, and the
    // reference leaks.
    if (refCount_ > 1) {
      --refCount_;
      return;
    }
    // References taken and dropped while the destructor runs must not destroy it again.
    refCount_ = kDestroying;
    delete this;
  }
  unsigned refCount() const noexcept { return refCount_ >= kDestroying ? 0 : refCount_; }

  // Number of RefCounted objects alive in the process.
  static long liveInstances() noexcept { return liveInstances_; }

 protected:
  RefCounted() noexcept { ++liveInstances_; }
  virtual ~RefCounted() { --liveInstances_; }

 private:
  static constexpr unsigned kDestroying = 1u << 30;
  static long liveInstances_;
  mutable unsigned refCount_ = 0;
};

template <class T>
class QEL_API Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) { retain(); }
  Ptr(Ptr const& o) noexcept : p_(o.p_) { retain(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : p_(o.ptr()) {
    retain();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() { reset(); }

  Ptr& operator=(Ptr const& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* get() const noexcept { return p_; }
  T* operator->() const noexcept {
    assert(p_ && "dereferencing a null Ptr");
    return p_;
  }
  T& operator*() const noexcept {
    assert(p_ && "dereferencing a null Ptr");
    return *p_;
  }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void reset() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->deleteRef();
  }
  // Gives up ownership without dropping the reference.
  [[nodiscard]] T* release() noexcept { return std::exchange(p_, nullptr); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

 private:
  void retain() noexcept {
    if (p_) p_->newRef();
  }
  T* p_ = nullptr;
};

template <class T, class U>
bool operator==(Ptr<T> const& a, Ptr<U> const& b) noexcept {
  return a.ptr() == b.ptr();
}
template <class T>
bool operator==(Ptr<T> const& a, std::nullptr_t) noexcept {
  return !a;
}
template <class T, class U>
bool operator==(Ptr<T> const& a, U const* b) noexcept {
  return a.ptr() == b;
}

template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> ptrConstCast(Ptr<U> const& p) noexcept {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

}  // namespace Qel

template <class T>
struct std::hash<Qel::Ptr<T>> {
  std::size_t operator()(Qel::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
