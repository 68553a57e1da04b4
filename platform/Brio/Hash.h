// Brio::Hash: the framework's seeded incremental hasher.
//
//   Brio::Hash h(seed); h.mix(a); h.mix(b); U32 v = h.result();
//
// Each mixed value is folded in as whole 32-bit words with the MurmurHash3
// (x86, 32-bit) block step, and result() applies its finaliser over the
// number of bytes mixed. The function is fixed for good: hashes key shared
// memory tables that processes of different builds read, so changing it is a
// format change. Cost: a handful of multiplies per word, no allocation.
#pragma once

#include <Brio/Types.h>

#include <concepts>
#include <cstddef>

namespace Brio {

class Hash {
 public:
  explicit constexpr Hash(U32 seed = 0) : h_(seed) {}

  template <std::integral I>
  constexpr Hash& mix(I value) {
    if constexpr (sizeof(I) <= 4) {
      mixWord(static_cast<U32>(value));
    } else {
      mixWord(static_cast<U32>(static_cast<U64>(value)));
      mixWord(static_cast<U32>(static_cast<U64>(value) >> 32));
    }
    return *this;
  }

  // Mixes n bytes; a trailing partial word is zero-padded (its length is
  // still counted, so "a" and "a\0" differ).
  Hash& mixBytes(void const* data, std::size_t n);

  constexpr U32 result() const {
    U32 h = h_ ^ length_;
    h ^= h >> 16;
    h *= 0x85ebca6bU;
    h ^= h >> 13;
    h *= 0xc2b2ae35U;
    h ^= h >> 16;
    return h;
  }

 private:
  static constexpr U32 rotl(U32 x, int r) { return (x << r) | (x >> (32 - r)); }

  constexpr void mixWord(U32 k) {
    k *= 0xcc9e2d51U;
    k = rotl(k, 15);
    k *= 0x1b873593U;
    h_ ^= k;
    h_ = rotl(h_, 13);
    h_ = h_ * 5 + 0xe6546b64U;
    length_ += 4;
  }

  U32 h_;
  U32 length_ = 0;
};

}  // namespace Brio
