#include <Corvid/Checksum.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace Corvid {
namespace {

// The definition, word by word.
U32 naiveChunk(U8 const* p, U32 len, U32 sum) {
  for (U32 i = 0; i + 1 < len; i += 2) sum += static_cast<U32>(p[i] << 8 | p[i + 1]);
  return sum;
}

U16 naiveCalc(U8 const* p, U32 len, U32 sum) {
  sum = naiveChunk(p, len & ~1u, sum);
  if (len & 1) sum += static_cast<U32>(p[len - 1]) << 8;
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<U16>(~sum);
}

char const* chars(std::vector<U8> const& v, std::size_t offset = 0) {
  return reinterpret_cast<char const*>(v.data() + offset);
}

TEST(Checksum, KnownVectorsGiveTheirPublishedValues) {
  struct Case {
    std::vector<U8> bytes;
    U32 chunk;  // unfolded sum, from 0
    U16 checksum;
  } const cases[] = {
      // An IPv4 header with its checksum field zeroed.
      {{0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11, 0x00, 0x00, 0xC0, 0xA8, 0x00, 0x01, 0xC0,
        0xA8, 0x00, 0xC7},
       0x2479C, 0xB861},
      // RFC 1071 section 3's example: 0x2ddf0 folds to 0xddf2.
      {{0x00, 0x01, 0xF2, 0x03, 0xF4, 0xF5, 0xF6, 0xF7}, 0x2DDF0, 0x220D},
      {{}, 0, 0xFFFF},
      {{0xFF, 0xFF}, 0xFFFF, 0x0000},
  };
  for (auto const& c : cases) {
    U16 const len = static_cast<U16>(c.bytes.size());
    EXPECT_EQ(ipChecksumChunk(chars(c.bytes), len, 0), c.chunk);
    EXPECT_EQ(ipChecksumCalc(chars(c.bytes), len, 0).value(), c.checksum);
  }
}

TEST(Checksum, ChunkOfAnOddLengthIsAnAssertion) {
  std::vector<U8> const bytes(4, 1);
  EXPECT_DEATH(ipChecksumChunk(chars(bytes), 3, 0), testing::HasSubstr("Assertion failed: (len % 2) == 0\n"));
}

TEST(Checksum, InitialSumAddsAndWrapsAtThirtyTwoBitsLikeTheWordLoop) {
  std::vector<U8> const ones(65534, 0xFF);
  U32 const big = 0xFFFFFFF0u;
  EXPECT_EQ(ipChecksumChunk(chars(ones), 65534, big), naiveChunk(ones.data(), 65534, big));
  EXPECT_EQ(ipChecksumCalc(chars(ones), 65534, big).value(), naiveCalc(ones.data(), 65534, big));
  std::vector<U8> const maxOdd(65535, 0xFF);
  EXPECT_EQ(ipChecksumCalc(chars(maxOdd), 65535, big).value(), naiveCalc(maxOdd.data(), 65535, big));
}

// Every length from 0 to 2000 at every alignment of the first byte within a
// 64-byte line, random contents and initial sums (some close to wrapping).
TEST(Checksum, RandomBuffersOfEveryLengthAndAlignmentMatchTheDefinition) {
  std::mt19937 rng(20240611);
  std::vector<U8> buffer(2000 + 64);
  for (U32 len = 0; len <= 2000; ++len) {
    for (auto& b : buffer) b = static_cast<U8>(rng());
    U32 const offset = rng() % 64;
    U32 const sum = (len % 5 == 0) ? 0xFFFFFFFFu - (rng() % 0x10000) : rng() % 0x40000;
    U8 const* p = buffer.data() + offset;
    ASSERT_EQ(ipChecksumCalc(chars(buffer, offset), static_cast<U16>(len), sum).value(), naiveCalc(p, len, sum))
        << "len " << len << " offset " << offset;
    U32 const even = len & ~1u;
    ASSERT_EQ(ipChecksumChunk(chars(buffer, offset), static_cast<U16>(even), sum), naiveChunk(p, even, sum))
        << "len " << even << " offset " << offset;
  }
}

// Each kernel, whichever the CPU would pick, against the word sum: every
// length up to 700 at every offset within a 64-byte line, so each wide
// kernel's masked last vector (or the vector ending at the buffer's end,
// with the bytes already summed masked off) ends everywhere, odd lengths too
// where a kernel leaves the trailing byte to its caller; then sizes that
// cross the lane widening (256 iterations; 128 vectors for the VNNI
// kernel's blocks), with random bytes and with all-0xFF bytes that fill every
// lane.
TEST(Checksum, EveryKernelGivesTheExactWordSumAtEveryLengthAndOffset) {
  std::mt19937 rng(1071);
  std::vector<U8> random(65536 + 64);
  for (auto& b : random) b = static_cast<U8>(rng());
  std::vector<U8> ones(65536 + 64, 0xFF);
  struct Kernel {
    char const* name;
    U64 (*sum)(U8 const*, std::size_t);
    std::size_t maxLen;
    bool oddLengths;
  };
  std::vector<Kernel> kernels = {{"short", ChecksumKernels::wordSumShort, 2048, false},
                                 {"long", ChecksumKernels::wordSumLong, 65536, true}};
  for (auto const& [name, sum] : ChecksumKernels::wordSumKernels()) {
    kernels.push_back({name, sum, 65536, std::string_view(name) != "scalar"});
  }
  auto check = [&](std::vector<U8> const& data, std::size_t offset, std::size_t len, U64 expected) {
    for (auto const& k : kernels) {
      if (len > k.maxLen || (len % 2 && !k.oddLengths)) continue;
      ASSERT_EQ(k.sum(data.data() + offset, len), expected) << k.name << " len " << len << " offset " << offset;
    }
  };
  for (std::size_t offset = 0; offset < 64; ++offset) {
    U64 expected = 0;  // the word sum of random[offset, offset + len)
    for (std::size_t len = 0; len <= 700; ++len) {
      if (len >= 2 && len % 2 == 0) expected += static_cast<U64>(random[offset + len - 2] << 8 | random[offset + len - 1]);
      ASSERT_NO_FATAL_FAILURE(check(random, offset, len, expected));
    }
  }
  for (std::size_t len : {0, 2, 62, 64, 126, 128, 254, 256, 258, 2046, 2048, 2050, 4094, 4096, 4098, 8190, 8192, 8194,
                          16382, 16384, 16386, 32768, 32770, 65534, 65536}) {
    for (auto const* data : {&random, &ones}) {
      U64 expected = 0;
      for (std::size_t i = 0; i < len; i += 2) expected += static_cast<U64>((*data)[i + 3] << 8 | (*data)[i + 4]);
      ASSERT_NO_FATAL_FAILURE(check(*data, 3, len, expected));
    }
  }
}

// Network-order storage is held by every header test that reads or writes
// wire bytes; here the order, which follows the value: compared as stored
// words read in host order, 0x00ff would sort after 0x0100.
TEST(NetInteger, CompareByValue) {
  EXPECT_LT(NetU16(0x00FF), NetU16(0x0100));
  EXPECT_LT(NetU32(0x000000FF), NetU32(0x00000100));
}

}  // namespace
}  // namespace Corvid
