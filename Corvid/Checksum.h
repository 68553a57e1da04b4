// The Internet checksum (RFC 1071), the network-order integers that header
// fields are made of, and the pseudo headers of the upper-layer checksums.
//
// ipChecksumChunk adds the big-endian 16-bit words of a buffer to a running
// sum without folding; ipChecksumCalc finishes a sum into the one's
// complement checksum. Both return exactly what the word-by-word definition
// gives (including the unfolded, 32-bit wrapping sum of a chunk) but never
// add one word at a time: the high and low bytes of the words are summed in
// separate lanes and combined once at the end, so no carry is lost and no
// fold is needed in the loop. Short buffers (an IPv4 header) take an inline
// path of 64-bit steps; long ones a vector kernel chosen once for the CPU,
// 64 bytes in three instructions with AVX-512BW (32 with AVX2). Measured against the word loop
// and a plain memory read in bench/ChecksumBench.
//
// NetU16/NetU32 hold a value in network byte order with alignment 1, so
// header structures can be laid over packet bytes at any offset.
#pragma once

#include <Brio/Hash.h>
#include <Brio/Record.h>
#include <Brio/Types.h>
#include <Corvid/Ip.h>
#include <Fennel/Fennel.h>

#include <bit>
#include <compare>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <type_traits>
#include <utility>
#include <vector>

namespace Corvid {

// A 16-bit field in network byte order; value() and valueIs() convert.
class NetU16 {
 public:
  NetU16() = default;
  constexpr explicit NetU16(U16 host) : b_{static_cast<U8>(host >> 8), static_cast<U8>(host)} {}

  constexpr U16 value() const { return static_cast<U16>((b_[0] << 8) | b_[1]); }
  constexpr void valueIs(U16 host) {
    b_[0] = static_cast<U8>(host >> 8);
    b_[1] = static_cast<U8>(host);
  }

  friend constexpr bool operator==(NetU16 a, NetU16 b) { return a.value() == b.value(); }
  friend constexpr auto operator<=>(NetU16 a, NetU16 b) { return a.value() <=> b.value(); }

 private:
  U8 b_[2];
};

// A 32-bit field in network byte order; value() and valueIs() convert.
class NetU32 {
 public:
  NetU32() = default;
  constexpr explicit NetU32(U32 host)
      : b_{static_cast<U8>(host >> 24), static_cast<U8>(host >> 16), static_cast<U8>(host >> 8),
           static_cast<U8>(host)} {}

  constexpr U32 value() const {
    return (U32(b_[0]) << 24) | (U32(b_[1]) << 16) | (U32(b_[2]) << 8) | U32(b_[3]);
  }
  constexpr void valueIs(U32 host) { *this = NetU32(host); }

  friend constexpr bool operator==(NetU32 a, NetU32 b) { return a.value() == b.value(); }
  friend constexpr auto operator<=>(NetU32 a, NetU32 b) { return a.value() <=> b.value(); }

 private:
  U8 b_[4];
};

static_assert(sizeof(NetU16) == 2 && alignof(NetU16) == 1 && std::is_trivially_copyable_v<NetU16>);
static_assert(sizeof(NetU32) == 4 && alignof(NetU32) == 1 && std::is_trivially_copyable_v<NetU32>);

std::ostream& operator<<(std::ostream& os, NetU16 v);
std::ostream& operator<<(std::ostream& os, NetU32 v);

// A checksum as it lies in a header: network order.
using IpChecksum = NetU16;

// The word-sum kernels behind the two functions below, each giving the exact
// sum of the big-endian 16-bit words of p[0, len) for an even len. Exposed so
// that tests hold every one of them to the definition, whichever the CPU
// picks, and benchmarks can compare them; callers use the two functions.
namespace ChecksumKernels {

// The sum is 256 * (bytes at even offsets) + (bytes at odd offsets): each
// class is summed in 16-bit lanes of a 64-bit word, which take 257
// additions of 255 before they could carry into each other.
inline U64 laneSum(U64 lanes) {
  lanes = (lanes & 0x0000FFFF0000FFFFull) + ((lanes >> 16) & 0x0000FFFF0000FFFFull);
  return (lanes & 0xFFFFFFFFull) + (lanes >> 32);
}

// Any even length up to 2048 bytes, 8 bytes a step.
inline U64 wordSumShort(U8 const* p, std::size_t len) {
  constexpr U64 lowBytes = 0x00FF00FF00FF00FFull;
  U64 first = 0;   // the bytes a little-endian load puts in the low half of a lane
  U64 second = 0;  // and those it puts in the high half
  for (; len >= 8; p += 8, len -= 8) {
    U64 x;
    std::memcpy(&x, p, 8);
    first += x & lowBytes;
    second += (x >> 8) & lowBytes;
  }
  if (len >= 4) {
    U32 x;
    std::memcpy(&x, p, 4);
    first += x & 0x00FF00FFu;
    second += (x >> 8) & 0x00FF00FFu;
    p += 4;
    len -= 4;
  }
  bool constexpr little = std::endian::native == std::endian::little;
  U64 even = laneSum(little ? first : second);
  U64 odd = laneSum(little ? second : first);
  if (len >= 2) {
    even += p[0];
    odd += p[1];
  }
  return (even << 8) + odd;
}

U64 wordSumScalar(U8 const* p, std::size_t len);
U64 wordSumSse2(U8 const* p, std::size_t len);
// Only where avx2Available().
U64 wordSumAvx2(U8 const* p, std::size_t len);
bool avx2Available();
// Only where avx512Available() (AVX-512BW).
U64 wordSumAvx512(U8 const* p, std::size_t len);
bool avx512Available();
// Only where avx512VnniAvailable() (AVX-512BW and AVX-512 VNNI).
U64 wordSumAvx512Vnni(U8 const* p, std::size_t len);
bool avx512VnniAvailable();
// Every kernel this CPU can run, by name, narrowest first (for tests and
// benchmarks that hold them against each other).
using WordSumFn = U64 (*)(U8 const*, std::size_t);
std::vector<std::pair<char const*, WordSumFn>> wordSumKernels();
// The widest kernel the CPU has; for buffers where set-up pays off.
U64 wordSumLong(U8 const* p, std::size_t len);
// The kernel wordSumLong uses on this machine: "avx512-vnni", "avx512",
// "avx2", "sse2" or "scalar".
char const* wordSumLongKernel();

// Below this the vector set-up costs more than it saves.
inline constexpr std::size_t longThreshold = 128;

inline U64 wordSum(U8 const* p, std::size_t len) {
  return len < longThreshold ? wordSumShort(p, len) : wordSumLong(p, len);
}

}  // namespace ChecksumKernels

// Adds the big-endian 16-bit words of data[0, len) to sum, without folding.
// len must be even. At most 32767 words of 0xFFFF: the exact total fits in
// 31 bits, and adding it in 32 bits wraps exactly as the word loop does.
inline U32 ipChecksumChunk(char const* data, U16 len, U32 sum) {
  FENNEL_ASSERT((len % 2) == 0);
  return sum + static_cast<U32>(ChecksumKernels::wordSum(reinterpret_cast<U8 const*>(data), len));
}

// The checksum of data[0, len) on top of sum: an odd last byte counts as the
// high byte of a zero-padded word; carries are folded and the one's
// complement returned in network order.
inline IpChecksum ipChecksumCalc(char const* data, U16 len, U32 sum) {
  U32 total = ipChecksumChunk(data, static_cast<U16>(len & ~1u), sum);
  if (len & 1) total += static_cast<U32>(static_cast<U8>(data[len - 1])) << 8;
  while (total >> 16) total = (total & 0xFFFF) + (total >> 16);
  return IpChecksum(static_cast<U16>(~total));
}

// --- pseudo headers ------------------------------------------------------------
// The fields an upper-layer checksum covers besides the message itself (RFC
// 793, RFC 768, RFC 8200 section 8.1), laid out exactly as summed: every
// field is in network order and there is no padding. Values compared field
// by field; the protocol or next-header byte of the TCP and PIM forms is set
// by whoever builds one, to the protocol of the message being summed.

// RFC 4443 section 2.3: 40 bytes, next header 58.
struct Icmp6PseudoHdr {
  Ip6Addr src;
  Ip6Addr dst;
  NetU32 icmp6Len{0};
  NetU16 zeros16{0};
  U8 zeros8 = 0;
  U8 nextHeader = 58;

  Icmp6PseudoHdr() = default;
  Icmp6PseudoHdr(Ip6Addr const& s, Ip6Addr const& d, U32 len, U16 z16 = 0, U8 z8 = 0, U8 nh = 58)
      : src(s), dst(d), icmp6Len(len), zeros16(z16), zeros8(z8), nextHeader(nh) {}
  friend bool operator==(Icmp6PseudoHdr const&, Icmp6PseudoHdr const&) = default;
  friend auto operator<=>(Icmp6PseudoHdr const&, Icmp6PseudoHdr const&) = default;
};

// TCP or UDP over IPv6: the same 40-byte layout.
struct TcpPseudoHdrIpv6 {
  Ip6Addr src;
  Ip6Addr dst;
  NetU32 tcpLen{0};
  NetU16 zeros{0};
  U8 zero = 0;
  U8 protocol = 0;

  TcpPseudoHdrIpv6() = default;
  TcpPseudoHdrIpv6(Ip6Addr const& s, Ip6Addr const& d, U32 len, U16 z16 = 0, U8 z8 = 0, U8 proto = 0)
      : src(s), dst(d), tcpLen(len), zeros(z16), zero(z8), protocol(proto) {}
  friend bool operator==(TcpPseudoHdrIpv6 const&, TcpPseudoHdrIpv6 const&) = default;
  friend auto operator<=>(TcpPseudoHdrIpv6 const&, TcpPseudoHdrIpv6 const&) = default;
};

// PIM over IPv6 (RFC 7761 section 4.9).
struct PimPseudoHdrIpv6 {
  Ip6Addr src;
  Ip6Addr dst;
  NetU32 pimLen{0};
  NetU16 zeros{0};
  U8 zero = 0;
  U8 nhdr = 0;

  PimPseudoHdrIpv6() = default;
  PimPseudoHdrIpv6(Ip6Addr const& s, Ip6Addr const& d, U32 len, U16 z16 = 0, U8 z8 = 0, U8 nh = 0)
      : src(s), dst(d), pimLen(len), zeros(z16), zero(z8), nhdr(nh) {}
  friend bool operator==(PimPseudoHdrIpv6 const&, PimPseudoHdrIpv6 const&) = default;
  friend auto operator<=>(PimPseudoHdrIpv6 const&, PimPseudoHdrIpv6 const&) = default;
};

// TCP or UDP over IPv4: 12 bytes.
struct TcpPseudoHdr {
  IpAddr src;
  IpAddr dst;
  U8 zero = 0;
  U8 protocol = 0;
  NetU16 tcpLen{0};

  TcpPseudoHdr() = default;
  TcpPseudoHdr(IpAddr s, IpAddr d, U8 z, U8 proto, U16 len) : src(s), dst(d), zero(z), protocol(proto), tcpLen(len) {}
  friend bool operator==(TcpPseudoHdr const&, TcpPseudoHdr const&) = default;
  friend auto operator<=>(TcpPseudoHdr const&, TcpPseudoHdr const&) = default;
};

static_assert(sizeof(Icmp6PseudoHdr) == 40 && std::is_trivially_copyable_v<Icmp6PseudoHdr>);
static_assert(sizeof(TcpPseudoHdrIpv6) == 40 && std::is_trivially_copyable_v<TcpPseudoHdrIpv6>);
static_assert(sizeof(PimPseudoHdrIpv6) == 40 && std::is_trivially_copyable_v<PimPseudoHdrIpv6>);
static_assert(sizeof(TcpPseudoHdr) == 12 && std::is_trivially_copyable_v<TcpPseudoHdr>);

template <class Pseudo>
concept PseudoHdr = std::is_same_v<Pseudo, Icmp6PseudoHdr> || std::is_same_v<Pseudo, TcpPseudoHdrIpv6> ||
                    std::is_same_v<Pseudo, PimPseudoHdrIpv6> || std::is_same_v<Pseudo, TcpPseudoHdr>;

// The checksum of a message of `len` bytes under its pseudo header: the
// pseudo header's unfolded sum is the initial sum of the message's.
template <PseudoHdr Pseudo>
IpChecksum pseudoHdrChecksum(Pseudo const& pseudo, void const* message, U16 len) {
  U32 const sum = ipChecksumChunk(reinterpret_cast<char const*>(&pseudo), sizeof(Pseudo), 0);
  return ipChecksumCalc(static_cast<char const*>(message), len, sum);
}

// Pseudo headers hash their bytes: they are exactly their fields.
template <PseudoHdr Pseudo>
U32 pseudoHdrHash(Pseudo const& pseudo) {
  return Brio::Hash(0).mixBytes(&pseudo, sizeof(Pseudo)).result();
}

inline constexpr auto icmp6PseudoHdrRecord = Brio::record<Icmp6PseudoHdr>(
    "Corvid::Icmp6PseudoHdr", Brio::field("src", &Icmp6PseudoHdr::src), Brio::field("dst", &Icmp6PseudoHdr::dst),
    Brio::field("icmp6Len", [](Icmp6PseudoHdr const& h) { return h.icmp6Len.value(); }),
    Brio::field("zeros16", [](Icmp6PseudoHdr const& h) { return h.zeros16.value(); }),
    Brio::field("zeros8", &Icmp6PseudoHdr::zeros8), Brio::field("nextHeader", &Icmp6PseudoHdr::nextHeader));
BRIO_RECORD_TEXT_FORMS(Icmp6PseudoHdr, icmp6PseudoHdrRecord)

inline constexpr auto tcpPseudoHdrIpv6Record = Brio::record<TcpPseudoHdrIpv6>(
    "Corvid::TcpPseudoHdrIpv6", Brio::field("src", &TcpPseudoHdrIpv6::src),
    Brio::field("dst", &TcpPseudoHdrIpv6::dst),
    Brio::field("tcpLen", [](TcpPseudoHdrIpv6 const& h) { return h.tcpLen.value(); }),
    Brio::field("zeros", [](TcpPseudoHdrIpv6 const& h) { return h.zeros.value(); }),
    Brio::field("zero", &TcpPseudoHdrIpv6::zero), Brio::field("protocol", &TcpPseudoHdrIpv6::protocol));
BRIO_RECORD_TEXT_FORMS(TcpPseudoHdrIpv6, tcpPseudoHdrIpv6Record)

inline constexpr auto pimPseudoHdrIpv6Record = Brio::record<PimPseudoHdrIpv6>(
    "Corvid::PimPseudoHdrIpv6", Brio::field("src", &PimPseudoHdrIpv6::src),
    Brio::field("dst", &PimPseudoHdrIpv6::dst),
    Brio::field("pimLen", [](PimPseudoHdrIpv6 const& h) { return h.pimLen.value(); }),
    Brio::field("zeros", [](PimPseudoHdrIpv6 const& h) { return h.zeros.value(); }),
    Brio::field("zero", &PimPseudoHdrIpv6::zero), Brio::field("nhdr", &PimPseudoHdrIpv6::nhdr));
BRIO_RECORD_TEXT_FORMS(PimPseudoHdrIpv6, pimPseudoHdrIpv6Record)

inline constexpr auto tcpPseudoHdrRecord = Brio::record<TcpPseudoHdr>(
    "Corvid::TcpPseudoHdr", Brio::field("src", &TcpPseudoHdr::src), Brio::field("dst", &TcpPseudoHdr::dst),
    Brio::field("zero", &TcpPseudoHdr::zero), Brio::field("protocol", &TcpPseudoHdr::protocol),
    Brio::field("tcpLen", [](TcpPseudoHdr const& h) { return h.tcpLen.value(); }));
BRIO_RECORD_TEXT_FORMS(TcpPseudoHdr, tcpPseudoHdrRecord)

}  // namespace Corvid

template <>
struct std::hash<Corvid::NetU16> {
  std::size_t operator()(Corvid::NetU16 v) const noexcept { return std::hash<U16>()(v.value()); }
};
template <>
struct std::hash<Corvid::NetU32> {
  std::size_t operator()(Corvid::NetU32 v) const noexcept { return std::hash<U32>()(v.value()); }
};
template <Corvid::PseudoHdr Pseudo>
struct std::hash<Pseudo> {
  std::size_t operator()(Pseudo const& p) const noexcept { return Corvid::pseudoHdrHash(p); }
};
