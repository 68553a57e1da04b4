// A binary min-heap of pointers whose elements know their own position, so
// that an element can be removed or re-keyed in O(log n) without a search.
// Used for the activity loop's clocks and for Quay's timer entries.
//
// T carries a `std::size_t` member (named by the Index template argument)
// that the heap owns: npos while the element is not in the heap.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace Brio {

template <class T, std::size_t T::*Index, class Less>
class IndexedHeap {
 public:
  static constexpr std::size_t npos = static_cast<std::size_t>(-1);

  bool empty() const { return v_.empty(); }
  std::size_t size() const { return v_.size(); }
  T* top() const { return v_.empty() ? nullptr : v_.front(); }
  static bool contains(T const* t) { return t->*Index != npos; }

  void push(T* t) {
    t->*Index = v_.size();
    v_.push_back(t);
    up(v_.size() - 1);
  }

  void erase(T* t) {
    std::size_t i = t->*Index;
    if (i == npos) return;
    t->*Index = npos;
    T* last = v_.back();
    v_.pop_back();
    if (i == v_.size()) return;
    v_[i] = last;
    last->*Index = i;
    if (!up(i)) down(i);
  }

  // Restores the order after t's key changed.
  void update(T* t) {
    if (!up(t->*Index)) down(t->*Index);
  }

  T* pop() {
    T* t = top();
    if (t) erase(t);
    return t;
  }

 private:
  bool up(std::size_t i) {
    bool moved = false;
    while (i > 0) {
      std::size_t parent = (i - 1) / 2;
      if (!less_(*v_[i], *v_[parent])) break;
      swapAt(i, parent);
      i = parent;
      moved = true;
    }
    return moved;
  }

  void down(std::size_t i) {
    for (;;) {
      std::size_t l = 2 * i + 1;
      if (l >= v_.size()) return;
      std::size_t best = l;
      if (l + 1 < v_.size() && less_(*v_[l + 1], *v_[l])) best = l + 1;
      if (!less_(*v_[best], *v_[i])) return;
      swapAt(i, best);
      i = best;
    }
  }

  void swapAt(std::size_t a, std::size_t b) {
    std::swap(v_[a], v_[b]);
    v_[a]->*Index = a;
    v_[b]->*Index = b;
  }

  std::vector<T*> v_;
  Less less_;
};

}  // namespace Brio
