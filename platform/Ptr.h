#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "platform/Fatal.h"

namespace Zef {

// The counted pointer. Ptr<T const> is the form handed to whoever may read an object but not
// write it. Reading through a null Ptr is a programming fault and ends the process.
template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) { acquire(); }
  Ptr(const Ptr& other) noexcept : p_(other.p_) { acquire(); }
  Ptr(Ptr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : p_(other.ptr()) { acquire(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : p_(other.release()) {}

  ~Ptr() { releaseRef(); }

  Ptr& operator=(const Ptr& other) noexcept {
    // Take the new reference before dropping the old one: the old object may own the new one.
    Ptr keep(other);
    swap(keep);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr keep(std::move(other));
    swap(keep);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    Ptr keep;
    swap(keep);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept {
    if (__builtin_expect(p_ == nullptr, 0)) ::Zef::fatal("read through a null Zef::Ptr");
    return p_;
  }
  T& operator*() const noexcept { return *operator->(); }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void swap(Ptr& other) noexcept { std::swap(p_, other.p_); }

  // Gives up ownership without dropping the reference; for the converting move only.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  bool operator==(const Ptr<U>& other) const noexcept {
    return p_ == other.ptr();
  }
  bool operator==(const T* other) const noexcept { return p_ == other; }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
  template <class U>
  std::strong_ordering operator<=>(const Ptr<U>& other) const noexcept {
    return std::compare_three_way()(static_cast<const void*>(p_), static_cast<const void*>(other.ptr()));
  }

 private:
  void acquire() const noexcept {
    if (p_) p_->newRef();
  }
  void releaseRef() noexcept {
    if (p_) std::exchange(p_, nullptr)->delRef();
  }

  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> staticPtrCast(const Ptr<U>& p) {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}

template <class T, class U>
Ptr<T> constPtrCast(const Ptr<U>& p) {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

}  // namespace Zef

template <class T>
struct std::hash<Zef::Ptr<T>> {
  size_t operator()(const Zef::Ptr<T>& p) const noexcept { return std::hash<const void*>()(p.ptr()); }
};
