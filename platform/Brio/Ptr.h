// Intrusive reference counting: Brio::PtrInterface is the counted base,
// Brio::Ptr<T> the holder.
//
// The count lives in the object, so a Ptr is one pointer wide and taking a
// reference from a raw `this` is always safe. Counts are plain increments
// unless the process switched on thread-safe pointers once at start-up
// (threadSafePointersIs(true)); then they are atomic. Agents run one
// activity thread each, so the plain mode is the common, cheaper one. The
// mode must not change while counted objects are shared between threads.
#pragma once

#include <Brio/Types.h>

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Brio {

namespace detail {
extern bool threadSafePointers;
}

// Switches every reference count in the process to atomic operations.
void threadSafePointersIs(bool on);
inline bool threadSafePointers() { return detail::threadSafePointers; }

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) : refs_(0) {}
  PtrInterface& operator=(PtrInterface const&) { return *this; }

  U32 references() const {
    return threadSafePointers() ? __atomic_load_n(&refs_, __ATOMIC_ACQUIRE) : refs_;
  }

  void newRef() const {
    if (threadSafePointers()) {
      __atomic_add_fetch(&refs_, 1, __ATOMIC_RELAXED);
    } else {
      ++refs_;
    }
  }

  void deleteRef() const {
    U32 left = threadSafePointers() ? __atomic_sub_fetch(&refs_, 1, __ATOMIC_ACQ_REL) : --refs_;
    if (left == 0) const_cast<PtrInterface*>(this)->zeroReferencesIs();
  }

 protected:
  virtual ~PtrInterface() = default;
  // Called when the last holder goes; the default deletes the object.
  virtual void zeroReferencesIs() { delete this; }

 private:
  mutable U32 refs_ = 0;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() = default;
  Ptr(std::nullptr_t) {}  // NOLINT
  Ptr(T* p) : p_(p) {     // NOLINT: raw pointers convert, as in the framework
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) : p_(o.p_) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
    requires std::is_convertible_v<U*, T*>
  Ptr(Ptr<U> const& o) : Ptr(o.ptr()) {}  // NOLINT
  template <class U>
    requires std::is_convertible_v<U*, T*>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}  // NOLINT
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  Ptr& operator=(Ptr const& o) {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) {
    Ptr(p).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Ptr().swap(*this);
    return *this;
  }

  T* ptr() const { return p_; }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up the reference without dropping it; the caller now owns it.
  T* release() { return std::exchange(p_, nullptr); }

  template <class U>
  friend bool operator==(Ptr const& a, Ptr<U> const& b) {
    return a.ptr() == b.ptr();
  }
  friend bool operator==(Ptr const& a, std::nullptr_t) { return a.p_ == nullptr; }
  friend bool operator==(Ptr const& a, T const* b) { return a.p_ == b; }
  friend bool operator<(Ptr const& a, Ptr const& b) { return std::less<T*>()(a.p_, b.p_); }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

template <class T, class... A>
Ptr<T> makePtr(A&&... a) {
  return Ptr<T>(new T(std::forward<A>(a)...));
}

}  // namespace Brio

template <class T>
struct std::hash<Brio::Ptr<T>> {
  std::size_t operator()(Brio::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
