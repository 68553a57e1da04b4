#include <Corvid/Checksum.h>

#include <algorithm>
#include <ostream>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Corvid {

std::ostream& operator<<(std::ostream& os, NetU16 v) { return os << v.value(); }
std::ostream& operator<<(std::ostream& os, NetU32 v) { return os << v.value(); }

namespace ChecksumKernels {

U64 wordSumScalar(U8 const* p, std::size_t len) {
  constexpr std::size_t block = 2048;  // the most wordSumShort's lanes take
  U64 sum = 0;
  for (; len > block; p += block, len -= block) sum += wordSumShort(p, block);
  return sum + wordSumShort(p, len);
}

#if defined(__x86_64__)

// The vector loops keep two 16-bit lane sums per accumulator: s, of the
// little-endian words as loaded (wrapping at 16 bits), and o, of their high
// bytes (the bytes at odd offsets). Over at most 256 iterations o cannot
// wrap, and neither can the low-byte sum e; since s = e + 256 o modulo 2^16,
// e = s - 256 o exactly. That is three instructions per vector (add, shift,
// add) where summing both byte classes directly takes four.
namespace {

constexpr std::size_t maxIterations = 256;

// A block ends with four (s, o) pairs. Per pair e = s - 256 o exactly; every
// e and o is then widened to 32-bit lanes by one signed multiply-add with
// ones, after flipping the sign bit so the multiply-add sees x - 32768 (each
// word's 32768 is added back at the end). Exact: 32-bit lanes hold at most
// eight words of 16 bits.
constexpr S64 flipBias(int wordsPerVector) { return S64(4) * wordsPerVector * 32768; }

inline S64 laneTotal128(__m128i v) {
  v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0x4e));
  v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0xb1));
  return _mm_cvtsi128_si32(v);
}

// sums: s0..s3, then o0..o3.
inline U64 blockSum128(__m128i const* sums) {
  __m128i const flip = _mm_set1_epi16(static_cast<short>(0x8000));
  __m128i const ones = _mm_set1_epi16(1);
  __m128i e32 = _mm_setzero_si128(), o32 = e32;
  for (int i = 0; i < 4; ++i) {
    __m128i const e = _mm_sub_epi16(sums[i], _mm_slli_epi16(sums[i + 4], 8));
    e32 = _mm_add_epi32(e32, _mm_madd_epi16(_mm_xor_si128(e, flip), ones));
    o32 = _mm_add_epi32(o32, _mm_madd_epi16(_mm_xor_si128(sums[i + 4], flip), ones));
  }
  return static_cast<U64>(((laneTotal128(e32) + flipBias(8)) << 8) + laneTotal128(o32) + flipBias(8));
}

}  // namespace

namespace {

// Vectors of 16-bit lanes in the compilers' generic vector types: + and >>
// work lane-wise (the SSE2 kernel's block loop below).
using Lanes16 = U16 __attribute__((vector_size(16)));

template <class Lanes>
__attribute__((always_inline)) inline void sumStep(Lanes& s, Lanes& o, U8 const* p) {
  Lanes v;
  std::memcpy(&v, p, sizeof v);
  s += v;
  o += v >> 8;
}

// One block of at most maxIterations iterations of four vectors into four
// independent accumulator pairs, left in sums[0..8) as s0..s3, o0..o3. Each
// kernel has its own out-of-line copy compiled for its target, with the sums
// leaving through memory: otherwise GCC shuffles every accumulator through a
// spare register on each iteration.
template <class Lanes>
__attribute__((always_inline)) inline void sumBlock(U8 const* p, U8 const* end, Lanes* sums) {
  constexpr std::size_t width = sizeof(Lanes);
  Lanes s0{}, s1{}, s2{}, s3{}, o0{}, o1{}, o2{}, o3{};
  for (; p != end; p += 4 * width) {
    sumStep(s0, o0, p);
    sumStep(s1, o1, p + width);
    sumStep(s2, o2, p + 2 * width);
    sumStep(s3, o3, p + 3 * width);
  }
  sums[0] = s0, sums[1] = s1, sums[2] = s2, sums[3] = s3;
  sums[4] = o0, sums[5] = o1, sums[6] = o2, sums[7] = o3;
}

__attribute__((noinline)) void sse2Block(U8 const* p, U8 const* end, Lanes16* sums) { sumBlock(p, end, sums); }

// Whole blocks through one kernel's block loop and reduction, the rest
// through the next narrower kernel.
template <class Lanes, void (*block)(U8 const*, U8 const*, Lanes*), U64 (*reduce)(Lanes const*),
          U64 (*rest)(U8 const*, std::size_t)>
U64 wordSumBlocks(U8 const* p, std::size_t len) {
  constexpr std::size_t iterationBytes = 4 * sizeof(Lanes);
  U64 sum = 0;
  while (len >= iterationBytes) {
    std::size_t const bytes = std::min(len / iterationBytes, maxIterations) * iterationBytes;
    Lanes sums[8];
    block(p, p + bytes, sums);
    sum += reduce(sums);
    p += bytes;
    len -= bytes;
  }
  return sum + rest(p, len);
}

U64 blockSum128(Lanes16 const* sums) { return blockSum128(reinterpret_cast<__m128i const*>(sums)); }

}  // namespace

U64 wordSumSse2(U8 const* p, std::size_t len) {
  return wordSumBlocks<Lanes16, sse2Block, blockSum128, wordSumShort>(p, len);
}

// The AVX2 and AVX-512 kernels keep one (s, o) pair for the whole buffer in
// blocks of at most 256 vectors plus one: three vector instructions per
// vector leave enough slack for a single dependency chain, and one pair
// makes the block's reduction short, which matters at packet sizes. The last
// partial vector is read masked (AVX-512) or as the vector ending at the
// buffer's end with the bytes already summed masked off (AVX2), so no
// narrower kernel runs after the wide one.
namespace {

// A block's (s, o) as the exact word sum: e = s - 256 o per lane, then e and
// o widened to 32-bit lanes by a multiply-add with ones after flipping the
// sign bit (each word's 32768 is added back at the end), 256 e + o summed.
// Exact: per lane e, o < 2^16, so every 32-bit lane stays below 2^25.
constexpr S64 flippedWordsBias(int wordsPerVector) { return S64(wordsPerVector) * 32768 * 257; }

__attribute__((target("avx2"))) inline U64 reduce256(__m256i s, __m256i o) {
  __m256i const flip = _mm256_set1_epi16(static_cast<short>(0x8000));
  __m256i const ones = _mm256_set1_epi16(1);
  __m256i const e = _mm256_sub_epi16(s, _mm256_slli_epi16(o, 8));
  __m256i const e32 = _mm256_madd_epi16(_mm256_xor_si256(e, flip), _mm256_set1_epi16(256));  // 256 e, widened
  __m256i const o32 = _mm256_madd_epi16(_mm256_xor_si256(o, flip), ones);
  __m256i const t = _mm256_add_epi32(e32, o32);
  S64 const total = laneTotal128(_mm_add_epi32(_mm256_castsi256_si128(t), _mm256_extracti128_si256(t, 1)));
  return static_cast<U64>(total + flippedWordsBias(16));
}

__attribute__((target("avx2"), always_inline)) inline void step256(__m256i& s, __m256i& o, __m256i v) {
  // One load per vector: left alone, GCC folds a second load of the same
  // bytes into the shift, and on unaligned packet data both are split loads
  // (this alone took the kernel from 62 to about 95 GB/s).
  asm("" : "+v"(v));
  s = _mm256_add_epi16(s, v);
  o = _mm256_add_epi16(o, _mm256_srli_epi16(v, 8));
}

// tailMask + r: a vector whose last r bytes are ones.
alignas(64) constexpr U8 tailMask[64] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                         0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                         0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                         0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                         0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                         0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

}  // namespace

__attribute__((target("avx2"))) U64 wordSumAvx2(U8 const* p, std::size_t len) {
  constexpr std::size_t width = 32;
  len &= ~std::size_t(1);  // a trailing odd byte is the caller's, as in wordSumShort
  U8 const* const start = p;
  U64 total = 0;
  for (;;) {
    __m256i s = _mm256_setzero_si256(), o = s;
    std::size_t const bytes = std::min(len, maxIterations * width) & ~(width - 1);
    U8 const* const end = p + bytes;
    for (; end - p >= static_cast<std::ptrdiff_t>(4 * width); p += 4 * width) {
      step256(s, o, _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p)));
      step256(s, o, _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + width)));
      step256(s, o, _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + 2 * width)));
      step256(s, o, _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + 3 * width)));
    }
    for (; p != end; p += width) step256(s, o, _mm256_loadu_si256(reinterpret_cast<__m256i const*>(p)));
    len -= bytes;
    if (len >= width) {
      total += reduce256(s, o);
      continue;
    }
    if (len > 0) {
      if (static_cast<std::size_t>(p - start) + len >= width) {
        // The vector ending at the end, the bytes before p masked off: the
        // 257th vector of this pair at most, still exact.
        step256(s, o, _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<__m256i const*>(p + len - width)),
                                       _mm256_loadu_si256(reinterpret_cast<__m256i const*>(tailMask + len))));
      } else {
        total += wordSumShort(p, len);
      }
    }
    return total + reduce256(s, o);
  }
}

// GCC 12's AVX-512 headers initialise their "undefined" vectors from
// themselves, which -Wuninitialized reports in every caller.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace {

__attribute__((target("avx512bw"), always_inline)) inline void step512(__m512i& s, __m512i& o, __m512i v) {
  asm("" : "+v"(v));  // one load per vector (see step256)
  s = _mm512_add_epi16(s, v);
  o = _mm512_add_epi16(o, _mm512_srli_epi16(v, 8));
}

__attribute__((target("avx512bw"))) inline U64 reduce512(__m512i s, __m512i o) {
  __m512i const flip = _mm512_set1_epi16(static_cast<short>(0x8000));
  __m512i const ones = _mm512_set1_epi16(1);
  __m512i const e = _mm512_sub_epi16(s, _mm512_slli_epi16(o, 8));
  __m512i const e32 = _mm512_madd_epi16(_mm512_xor_si512(e, flip), _mm512_set1_epi16(256));  // 256 e, widened
  __m512i const o32 = _mm512_madd_epi16(_mm512_xor_si512(o, flip), ones);
  __m512i const t = _mm512_add_epi32(e32, o32);
  __m256i const half = _mm256_add_epi32(_mm512_castsi512_si256(t), _mm512_extracti64x4_epi64(t, 1));
  S64 const total = laneTotal128(_mm_add_epi32(_mm256_castsi256_si128(half), _mm256_extracti128_si256(half, 1)));
  return static_cast<U64>(total + flippedWordsBias(32));
}

}  // namespace

__attribute__((target("avx512bw"))) U64 wordSumAvx512(U8 const* p, std::size_t len) {
  constexpr std::size_t width = 64;
  len &= ~std::size_t(1);  // a trailing odd byte is the caller's, as in wordSumShort
  U64 total = 0;
  for (;;) {
    __m512i s = _mm512_setzero_si512(), o = s;
    std::size_t const bytes = std::min(len, maxIterations * width) & ~(width - 1);
    U8 const* const end = p + bytes;
    for (; end - p >= static_cast<std::ptrdiff_t>(4 * width); p += 4 * width) {
      step512(s, o, _mm512_loadu_si512(p));
      step512(s, o, _mm512_loadu_si512(p + width));
      step512(s, o, _mm512_loadu_si512(p + 2 * width));
      step512(s, o, _mm512_loadu_si512(p + 3 * width));
    }
    for (; p != end; p += width) step512(s, o, _mm512_loadu_si512(p));
    len -= bytes;
    if (len >= width) {
      total += reduce512(s, o);
      continue;
    }
    // The rest masked (a masked load touches no byte outside the mask): the
    // 257th vector of this pair at most, still exact.
    if (len > 0) step512(s, o, _mm512_maskz_loadu_epi8((U64(1) << len) - 1, p));
    return total + reduce512(s, o);
  }
}

// With VNNI the odd bytes' sum is one instruction per vector: a multiply-add
// of the bytes as unsigned with weights 0, 1 into 32-bit lanes, exact. The
// words' 16-bit wrapping sum s is kept as before, so a vector costs two
// instructions (one on each of the two 512-bit ports) instead of three. Per
// 32-bit lane (two words) the even bytes' sum is then (s_a + s_b - 256 o)
// modulo 2^16, exact while it stays below 2^16: at most 128 vectors of two
// words of 255 per block.
namespace {

constexpr std::size_t vnniBlockVectors = 128;

__attribute__((target("avx512bw,avx512vnni"), always_inline)) inline void vnniStep(__m512i& s, __m512i& o,
                                                                                    __m512i v) {
  asm("" : "+v"(v));  // one load per vector (see step256)
  s = _mm512_add_epi16(s, v);
  o = _mm512_dpbusd_epi32(o, v, _mm512_set1_epi16(0x0100));
}

}  // namespace

__attribute__((target("avx512bw,avx512vnni"))) U64 wordSumAvx512Vnni(U8 const* p, std::size_t len) {
  constexpr std::size_t width = 64;
  len &= ~std::size_t(1);  // a trailing odd byte is the caller's, as in wordSumShort
  U64 total = 0;
  while (len > 0) {
    // Eight odd-byte sums: the multiply-add's latency is five cycles, so a
    // 1500-byte buffer must not queue more than three on one of them.
    __m512i const zero = _mm512_setzero_si512();
    __m512i s0 = zero, s1 = zero, o0 = zero, o1 = zero, o2 = zero, o3 = zero, o4 = zero, o5 = zero, o6 = zero,
            o7 = zero;
    std::size_t bytes = std::min(len, vnniBlockVectors * width);
    len -= bytes;
    for (; bytes >= 8 * width; p += 8 * width, bytes -= 8 * width) {
      vnniStep(s0, o0, _mm512_loadu_si512(p));
      vnniStep(s1, o1, _mm512_loadu_si512(p + width));
      vnniStep(s0, o2, _mm512_loadu_si512(p + 2 * width));
      vnniStep(s1, o3, _mm512_loadu_si512(p + 3 * width));
      vnniStep(s0, o4, _mm512_loadu_si512(p + 4 * width));
      vnniStep(s1, o5, _mm512_loadu_si512(p + 5 * width));
      vnniStep(s0, o6, _mm512_loadu_si512(p + 6 * width));
      vnniStep(s1, o7, _mm512_loadu_si512(p + 7 * width));
    }
    // The last whole vectors (at most seven), then the rest masked: within
    // the block's 128 vectors, since the block holds at most that many whole
    // ones.
    if (bytes >= 4 * width) {
      vnniStep(s0, o0, _mm512_loadu_si512(p));
      vnniStep(s1, o1, _mm512_loadu_si512(p + width));
      vnniStep(s0, o2, _mm512_loadu_si512(p + 2 * width));
      vnniStep(s1, o3, _mm512_loadu_si512(p + 3 * width));
      p += 4 * width, bytes -= 4 * width;
    }
    if (bytes >= 2 * width) {
      vnniStep(s0, o4, _mm512_loadu_si512(p));
      vnniStep(s1, o5, _mm512_loadu_si512(p + width));
      p += 2 * width, bytes -= 2 * width;
    }
    if (bytes >= width) {
      vnniStep(s0, o6, _mm512_loadu_si512(p));
      p += width, bytes -= width;
    }
    // A part vector only ends the last block (the others are whole).
    if (bytes > 0) vnniStep(s1, o7, _mm512_maskz_loadu_epi8((U64(1) << bytes) - 1, p));
    // Per 32-bit lane: e = (s_a + s_b - 256 o) mod 2^16, then 256 e + o
    // (below 2^25), the lanes summed.
    __m512i const pairs = _mm512_add_epi16(s0, s1);
    __m512i const odds = _mm512_add_epi32(_mm512_add_epi32(_mm512_add_epi32(o0, o1), _mm512_add_epi32(o2, o3)),
                                          _mm512_add_epi32(_mm512_add_epi32(o4, o5), _mm512_add_epi32(o6, o7)));
    __m512i const low = _mm512_set1_epi32(0xffff);
    __m512i const even = _mm512_and_si512(
        _mm512_sub_epi32(_mm512_add_epi32(_mm512_and_si512(pairs, low), _mm512_srli_epi32(pairs, 16)),
                         _mm512_slli_epi32(odds, 8)),
        low);
    total += static_cast<U32>(_mm512_reduce_add_epi32(_mm512_add_epi32(_mm512_slli_epi32(even, 8), odds)));
  }
  return total;
}

#pragma GCC diagnostic pop

bool avx2Available() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
}

bool avx512Available() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512bw");
}

bool avx512VnniAvailable() { return avx512Available() && __builtin_cpu_supports("avx512vnni"); }

// Narrowest first: the last is the one wordSumLong uses.
std::vector<std::pair<char const*, WordSumFn>> wordSumKernels() {
  std::vector<std::pair<char const*, WordSumFn>> kernels = {{"scalar", wordSumScalar}, {"sse2", wordSumSse2}};
  if (avx2Available()) kernels.emplace_back("avx2", wordSumAvx2);
  if (avx512Available()) kernels.emplace_back("avx512", wordSumAvx512);
  if (avx512VnniAvailable()) kernels.emplace_back("avx512-vnni", wordSumAvx512Vnni);
  return kernels;
}

namespace {

U64 wordSumFirstCall(U8 const* p, std::size_t len);

// Points at the chooser until the first long buffer (a constant initialiser,
// so it is valid even for statics of other files that run first), then at
// the chosen kernel.
WordSumFn wordSumChosen = wordSumFirstCall;

U64 wordSumFirstCall(U8 const* p, std::size_t len) {
  WordSumFn const chosen = wordSumKernels().back().second;  // the widest
  __atomic_store_n(&wordSumChosen, chosen, __ATOMIC_RELAXED);
  return chosen(p, len);
}

}  // namespace

U64 wordSumLong(U8 const* p, std::size_t len) { return __atomic_load_n(&wordSumChosen, __ATOMIC_RELAXED)(p, len); }

char const* wordSumLongKernel() { return wordSumKernels().back().first; }

#else

U64 wordSumSse2(U8 const* p, std::size_t len) { return wordSumScalar(p, len); }
U64 wordSumAvx2(U8 const* p, std::size_t len) { return wordSumScalar(p, len); }
U64 wordSumAvx512(U8 const* p, std::size_t len) { return wordSumScalar(p, len); }
U64 wordSumAvx512Vnni(U8 const* p, std::size_t len) { return wordSumScalar(p, len); }
bool avx2Available() { return false; }
bool avx512Available() { return false; }
bool avx512VnniAvailable() { return false; }
std::vector<std::pair<char const*, WordSumFn>> wordSumKernels() { return {{"scalar", wordSumScalar}}; }
U64 wordSumLong(U8 const* p, std::size_t len) { return wordSumScalar(p, len); }
char const* wordSumLongKernel() { return "scalar"; }

#endif

}  // namespace ChecksumKernels

}  // namespace Corvid
