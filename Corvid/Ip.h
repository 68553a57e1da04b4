// IPv4, IPv6 and either-family addresses, masks and prefixes.
//
// Small trivially copyable values with no owned memory (the prefix set and
// its configuration entities at the end excepted). Addresses keep their
// bytes in network order, so packets, socket addresses and netlink take them
// without conversion; order, masks and range tests use host-order words.
// Each type has its text forms, order, hash and attribute-log form beside
// it. printToBuffer and the readers at an iterator never allocate; malformed
// text raises Brio::RangeException with the reader's fixed message.
#pragma once

#include <Brio/Entity.h>
#include <Brio/Exception.h>
#include <Brio/Hash.h>
#include <Brio/NboAttrLog.h>
#include <Brio/Ptr.h>
#include <Brio/Record.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>
#include <Brio/Types.h>
#include <Corvid/EthAddr.h>
#include <Corvid/ValueSupport.h>

#include <array>
#include <bit>
#include <compare>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string_view>
#include <type_traits>

struct rtattr;

namespace Corvid {

class IpAddr;
class Ip6Addr;

// ---------------------------------------------------------------------------
// Plumbing shared by the types of this module.
namespace ipDetail {

// Converts a 32-bit word between host and network order (the same swap both
// ways on a little-endian host).
constexpr U32 swapNet32(U32 v) {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(v);
  return v;
}

constexpr bool isDecimalDigit(char c) { return static_cast<unsigned>(c - '0') <= 9; }

// Every reader failure of this module, one message each (textErrorMessage).
enum class TextError : U8 {
  none,
  invalidIpAddr,
  prematurePrefix,
  prefixNonZero,
  invalidIpv4Prefix,
  invalidIpv4PrefixLength,
  ip6TooManyColons,
  ip6HexDigitExpected,
  ip6HexValueTooLarge,
  ip6ColonExpected,
  ip6OnlyOneDoubleColon,
  ip6LeadingHexDigitExpected,
  ip6TooManyHexDigits,
  ip6Incomplete,
  ip6Trailing,
  ip6NotExpanded,
  ip6PrefixSizeExpected,
  ip6PrefixTooLong,
  ip6MaskExpected,
  invalidIpGenAddr,
  invalidAddressFamily,
};

char const* textErrorMessage(TextError e);
[[noreturn]] void throwTextError(TextError e);

// Reads a dotted quad at p: four decimal octets separated by '.', each
// starting with a digit. An octet keeps the low 32 bits of its digit run
// (0004294967296 is 0), so leading zeros and absurd runs behave exactly like
// the framework's dectol. Returns the position after the fourth octet and
// the address in network order, or nullptr on any fault. Never reads at e.
inline char const* readIpv4(char const* p, char const* e, U32* nbo) {
  U32 host = 0;
  for (int i = 0;; ++i) {
    // Up to three digits unrolled (the common octet), then any further
    // digits of a long run in a loop.
    if (p == e) return nullptr;
    U32 octet = static_cast<U32>(static_cast<unsigned char>(*p)) - '0';
    if (octet > 9) return nullptr;
    ++p;
    U32 d;
    if (p != e && (d = static_cast<U32>(static_cast<unsigned char>(*p)) - '0') <= 9) {
      octet = octet * 10 + d;
      ++p;
      if (p != e && (d = static_cast<U32>(static_cast<unsigned char>(*p)) - '0') <= 9) {
        octet = octet * 10 + d;
        ++p;
        for (; p != e && (d = static_cast<U32>(static_cast<unsigned char>(*p)) - '0') <= 9; ++p) {
          octet = octet * 10 + d;
        }
      }
    }
    if (octet > 255) return nullptr;
    host = host << 8 | octet;
    if (i == 3) break;
    if (p == e || *p != '.') return nullptr;
    ++p;
  }
  *nbo = swapNet32(host);
  return p;
}

// Contiguous character range of a (pos, end) iterator pair, for the readers.
inline char const* at(Brio::StringIter it) { return std::to_address(it); }

// Decimal text of v at out (no NUL); returns its length (1 to 10).
unsigned writeDecimal(char* out, U32 v);

// Text forms from a type's writeText(char*), which fills a buffer of
// T::textBufferBytes and returns the text length. writeText may store
// scratch bytes past the text, so the caller's buffer only ever gets the
// copy, exactly as snprintf would leave it.
template <class T>
unsigned printToBufferOf(T const& v, char* buf, unsigned size) {
  char text[T::textBufferBytes];
  return printTextToBuffer(std::string_view(text, v.writeText(text)), buf, size);
}

// Attribute-log form of a value made of two fields: one, then the other;
// read back through T(first, second).
template <class A, class B>
void attrLogWriteFields(Brio::NboAttrLog& log, A const& a, B const& b) {
  attrLogWrite(log, a);
  attrLogWrite(log, b);
}
template <class T, class A, class B>
T attrLogReadFields(Brio::NboAttrLog& log) {
  A const a = attrLogRead(log, static_cast<A*>(nullptr));
  B const b = attrLogRead(log, static_cast<B*>(nullptr));
  return T(a, b);
}

template <class T>
Brio::String textOf(T const& v) {
  char text[T::textBufferBytes];
  return Brio::String(text, v.writeText(text));
}

template <class T>
std::ostream& streamOf(std::ostream& os, T const& v) {
  char text[T::textBufferBytes];
  return os.write(text, v.writeText(text));
}

}  // namespace ipDetail

// ===========================================================================
// IPv4
// ===========================================================================

// An IPv4 address: one 32-bit word in network order. The default is 0.0.0.0.
class IpAddr {
 public:
  // Bytes of buffer writeText needs (15 characters plus slack for its
  // four-byte octet stores).
  static constexpr unsigned textBufferBytes = 16;

  constexpr IpAddr() = default;
  constexpr IpAddr(U8 a, U8 b, U8 c, U8 d)
      : nbo_(ipDetail::swapNet32(U32(a) << 24 | U32(b) << 16 | U32(c) << 8 | d)) {}
  static constexpr IpAddr fromHostOrder(U32 h) { return fromNetworkOrder(ipDetail::swapNet32(h)); }
  static constexpr IpAddr fromNetworkOrder(U32 n) {
    IpAddr a;
    a.nbo_ = n;
    return a;
  }

  constexpr U32 networkOrder() const { return nbo_; }
  constexpr U32 hostOrder() const { return ipDetail::swapNet32(nbo_); }
  U8 octet(unsigned i) const { return static_cast<U8>(hostOrder() >> (24 - 8 * (i & 3))); }

  bool isZero() const { return nbo_ == 0; }
  bool isAny() const { return nbo_ == 0; }
  // RFC 5771: 224.0.0.0/4.
  bool isMulticast() const { return (hostOrder() >> 28) == 0xe; }
  // 0.0.0.0 and 240.0.0.0/4 count as unicast: only group and limited
  // broadcast addresses are excluded.
  bool isUnicast() const { return !isMulticast() && !isBroadcast(); }
  // RFC 5771 local network control block 224.0.0.0/24.
  bool isReservedMulticast() const { return (hostOrder() >> 8) == 0xe00000; }
  bool isPimRouters() const { return hostOrder() == 0xe000000d; }
  bool isLoopback() const { return (hostOrder() >> 24) == 127; }
  bool isLoopbackBase() const { return hostOrder() == 0x7f000000; }
  bool isThisNetwork() const { return (hostOrder() >> 24) == 0; }
  bool isBroadcast() const { return nbo_ == 0xffffffff; }
  // RFC 3927: 169.254.0.0/16.
  bool isLinkLocal() const { return (hostOrder() >> 16) == 0xa9fe; }
  bool isLinkLocalUnicast() const { return isLinkLocal(); }
  // A bit-subset test of the RFC 1918 network numbers, not a prefix match:
  // 11.0.0.0 and 255.255.255.255 pass too. Callers depend on exactly this
  // test, so it is kept.
  bool isPrivate() const {
    U32 h = hostOrder();
    return (h & 0x0a000000) == 0x0a000000 || (h & 0xac100000) == 0xac100000 ||
           (h & 0xc0a80000) == 0xc0a80000;
  }
  // 240.0.0.0/4 other than 255.255.255.255, unless the toggle
  // Ipv4Routable240ClassE (Corvid.json, read once per process) is on and the
  // caller allows class E.
  bool isReserved(bool allowClassE) const;

  // Thomas Wang's hash32shift of the network-order word read natively.
  U32 hash() const { return wangHash32(nbo_); }
  // Leading bits on which the two addresses agree, 0 to 32.
  U32 longestCommonPrefix(IpAddr other) const {
    U32 x = hostOrder() ^ other.hostOrder();
    return x ? static_cast<U32>(std::countl_zero(x)) : 32;
  }
  void copyToBuffer(unsigned char* out) const { std::memcpy(out, &nbo_, 4); }
  // RFC 1112 section 6.4: 01:00:5e and the low 23 bits of the group.
  EthAddr mcastEtherAddress() const {
    U32 h = hostOrder();
    return EthAddr(0x01, 0x00, 0x5e, static_cast<U8>(h >> 16 & 0x7f), static_cast<U8>(h >> 8),
                   static_cast<U8>(h));
  }

  // Dotted quad without leading zeros, 7 to 15 characters.
  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  // Reads the whole text; on failure raises "Invalid IpAddr" and keeps the
  // old value.
  void stringValueIs(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  // Writes the text (no NUL) into out, which holds textBufferBytes.
  unsigned writeText(char* out) const;

  friend constexpr bool operator==(IpAddr a, IpAddr b) { return a.nbo_ == b.nbo_; }
  friend constexpr std::strong_ordering operator<=>(IpAddr a, IpAddr b) {
    return a.hostOrder() <=> b.hostOrder();
  }

 private:
  U32 nbo_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpAddr> && sizeof(IpAddr) == 4);

// An IPv4 route prefix. Holds either a clean prefix (length 0 to 32, no host
// bits) or the all-ones length, a sentinel some callers store on purpose;
// the constructor refuses anything else. The default is 0.0.0.0/0.
class Prefix {
 public:
  static constexpr U32 sentinelLen = 0xffffffff;
  static constexpr unsigned textBufferBytes = 28;

  constexpr Prefix() = default;
  // Raises "Prefix::validAsPrefix != true not allowed" for an invalid pair.
  Prefix(IpAddr address, U32 len);

  IpAddr address() const { return address_; }
  U32 len() const { return len_; }
  bool validAsPrefix() const {
    if (len_ == 32 || len_ == sentinelLen) return true;
    return len_ < 32 && (address_.hostOrder() & (0xffffffffu >> len_)) == 0;
  }
  bool isHost() const { return len_ == 32; }
  bool isUnicast() const { return address_.isUnicast(); }
  // The prefix's address OR host; raises "Host address too long" when host
  // has bits inside the first len bits (length 1 to 32 only).
  IpAddr subnetHost(IpAddr host) const;
  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(address_.hash()).mix(len_).result(); }

  friend bool operator==(Prefix const&, Prefix const&) = default;
  // Nested prefixes sort most specific first, otherwise by address; 0.0.0.0/0
  // after everything.
  friend bool operator<(Prefix const& a, Prefix const& b);

  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  // Reads the whole text; on failure raises the reader's message (text left
  // over: "Invalid Prefix - non-zero after prefixlen") and keeps the old value.
  void stringValueIs(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  unsigned writeText(char* out) const;

 private:
  IpAddr address_;
  U32 len_ = 0;
};

static_assert(std::is_trivially_copyable_v<Prefix>);

// An interface address: an IPv4 address with a length that need not be a
// clean prefix (10.1.2.3/8) and is not range checked.
class IpAddrWithMask {
 public:
  static constexpr unsigned textBufferBytes = Prefix::textBufferBytes;

  constexpr IpAddrWithMask() = default;
  constexpr IpAddrWithMask(IpAddr address, U32 len) : address_(address), len_(len) {}

  IpAddr address() const { return address_; }
  void addressIs(IpAddr v) { address_ = v; }
  U32 len() const { return len_; }
  void lenIs(U32 v) { len_ = v; }

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(address_.hash()).mix(len_).result(); }
  friend bool operator==(IpAddrWithMask const&, IpAddrWithMask const&) = default;
  // Address first, then the shorter length: deliberately the reverse of the
  // Prefix tie rule.
  friend bool operator<(IpAddrWithMask const& a, IpAddrWithMask const& b) {
    if (a.address_ != b.address_) return a.address_ < b.address_;
    return a.len_ < b.len_;
  }

  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  unsigned writeText(char* out) const;

 private:
  IpAddr address_;
  U32 len_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpAddrWithMask>);

// An IPv4 address with a 32-bit mask number (host order, unlike the
// address). Which callers treat the number as bits and which as a count is
// theirs to say; this type stores and orders it only.
class IpAddrWithFullMask {
 public:
  constexpr IpAddrWithFullMask() = default;
  constexpr IpAddrWithFullMask(IpAddr address, U32 mask) : address_(address), mask_(mask) {}

  IpAddr address() const { return address_; }
  void addressIs(IpAddr v) { address_ = v; }
  U32 mask() const { return mask_; }
  void maskIs(U32 v) { mask_ = v; }

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(address_.hash()).mix(mask_).result(); }
  friend bool operator==(IpAddrWithFullMask const&, IpAddrWithFullMask const&) = default;
  friend bool operator<(IpAddrWithFullMask const& a, IpAddrWithFullMask const& b) {
    if (a.address_ != b.address_) return a.address_ < b.address_;
    return a.mask_ < b.mask_;
  }

 private:
  IpAddr address_;
  U32 mask_ = 0;
};

static_assert(std::is_trivially_copyable_v<IpAddrWithFullMask>);

// IPv4 mask rules, shared with the either-family full-mask type.
// Reads "/<len>" ending the text at pos and returns the mask word of that
// length in network order. Only the low eight bits of the number count (264
// reads as 8; kept for old configuration files).
U32 sequenceToPrefixFullMask(Brio::StringIter& pos, Brio::StringIter const& end);
// Raise "Invalid IPv4 prefix length" and "premature end of Prefix type".
[[noreturn]] void throwPrefixToFullMask();
[[noreturn]] void throwPrefixLen();

// Text forms: the natural text for the address, prefix and address with
// length, the record form for IpAddrWithFullMask.
inline Brio::String valueToStrep(IpAddr const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(Prefix const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(IpAddrWithMask const& v) { return ipDetail::textOf(v); }
inline std::ostream& operator<<(std::ostream& os, IpAddr const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, Prefix const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, IpAddrWithMask const& v) { return ipDetail::streamOf(os, v); }

inline IpAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpAddr*) {
  char const* p = ipDetail::at(pos);
  U32 nbo;
  char const* q = ipDetail::readIpv4(p, ipDetail::at(end), &nbo);
  if (!q) ipDetail::throwTextError(ipDetail::TextError::invalidIpAddr);
  pos += q - p;
  return IpAddr::fromNetworkOrder(nbo);
}
Prefix sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Prefix*);
IpAddrWithMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpAddrWithMask*);

inline constexpr auto ipAddrWithFullMaskRecord = Brio::record<IpAddrWithFullMask>(
    "Corvid::IpAddrWithFullMask", Brio::field("address", &IpAddrWithFullMask::address),
    Brio::field("mask", &IpAddrWithFullMask::mask));
BRIO_RECORD_TEXT_FORMS(IpAddrWithFullMask, ipAddrWithFullMaskRecord)

// Attribute-log forms: the address as one U32 of its host-order value (the
// log puts it on the wire in network order), then the length or mask.
void attrLogWrite(Brio::NboAttrLog& log, IpAddr const& v);
IpAddr attrLogRead(Brio::NboAttrLog& log, IpAddr*);
void attrLogWrite(Brio::NboAttrLog& log, Prefix const& v);
Prefix attrLogRead(Brio::NboAttrLog& log, Prefix*);
void attrLogWrite(Brio::NboAttrLog& log, IpAddrWithMask const& v);
IpAddrWithMask attrLogRead(Brio::NboAttrLog& log, IpAddrWithMask*);
void attrLogWrite(Brio::NboAttrLog& log, IpAddrWithFullMask const& v);
IpAddrWithFullMask attrLogRead(Brio::NboAttrLog& log, IpAddrWithFullMask*);

// The Ethernet group address of an IPv4 multicast address.
inline EthAddr ipMcastMacAddr(IpAddr const& a) { return a.mcastEtherAddress(); }

// ===========================================================================
// IPv6
// ===========================================================================

// An IPv6 address: sixteen bytes in network order, held as four 32-bit
// words. The default is ::.
class Ip6Addr {
 public:
  // 45 characters at most plus slack for the group stores.
  static constexpr unsigned textBufferBytes = 48;
  static constexpr unsigned expandedTextBytes = 39;

  constexpr Ip6Addr() = default;
  // The eight 16-bit groups in text order: Ip6Addr(0xfe80, 0, 0, 0, 0, 0, 0, 1).
  constexpr Ip6Addr(U16 g0, U16 g1, U16 g2, U16 g3, U16 g4, U16 g5, U16 g6, U16 g7)
      : words_{ipDetail::swapNet32(U32(g0) << 16 | g1), ipDetail::swapNet32(U32(g2) << 16 | g3),
               ipDetail::swapNet32(U32(g4) << 16 | g5), ipDetail::swapNet32(U32(g6) << 16 | g7)} {}
  static constexpr Ip6Addr fromHostWords(U32 w0, U32 w1, U32 w2, U32 w3) {
    Ip6Addr a;
    a.words_[0] = ipDetail::swapNet32(w0);
    a.words_[1] = ipDetail::swapNet32(w1);
    a.words_[2] = ipDetail::swapNet32(w2);
    a.words_[3] = ipDetail::swapNet32(w3);
    return a;
  }
  // The mask of len leading one bits; len above 128 is a programming error
  // (assertion "len <= 128").
  static Ip6Addr maskOfLength(U32 len);

  // Pieces by index as host-order numbers; an index past the address raises
  // "Ip6Addr::<call>: index out of range". The Del forms set the piece to
  // zero and report a bad index like the setter.
  U8 u8(unsigned i) const;
  U16 u16(unsigned i) const;
  U32 u32(unsigned i) const;
  U64 u64(unsigned i) const;
  void u8Is(unsigned i, U8 v);
  void u16Is(unsigned i, U16 v);
  void u32Is(unsigned i, U32 v);
  void u64Is(unsigned i, U64 v);
  void u8Del(unsigned i) { u8Is(i, 0); }
  void u16Del(unsigned i) { u16Is(i, 0); }
  void u32Del(unsigned i) { u32Is(i, 0); }
  void u64Del(unsigned i) { u64Is(i, 0); }

  U8 const* bytes() const { return reinterpret_cast<U8 const*>(words_); }
  // Word i (0 to 3) as stored, in network order; no range check.
  constexpr U32 networkWord(unsigned i) const { return words_[i]; }
  constexpr U32 hostWord(unsigned i) const { return ipDetail::swapNet32(words_[i]); }
  void copyToBuffer(unsigned char* out) const { std::memcpy(out, words_, 16); }
  void copyFromBuffer(unsigned char const* in) { std::memcpy(words_, in, 16); }

  bool isZero() const { return (words_[0] | words_[1] | words_[2] | words_[3]) == 0; }
  bool isUnspecified() const { return isZero(); }
  bool isLoopback() const { return (words_[0] | words_[1] | words_[2]) == 0 && hostWord(3) == 1; }
  // Always false: IPv6 has a single loopback address and no loopback net.
  bool isLoopbackBase() const { return false; }
  // RFC 4291 section 2.7.
  bool isMulticast() const { return (hostWord(0) >> 24) == 0xff; }
  bool isUnicast() const { return !isMulticast(); }
  // The subnet RFC 4291 section 2.5.6 actually assigns: fe80:0:0:0/64.
  bool isLinkLocalUnicast() const { return hostWord(0) == 0xfe800000 && words_[1] == 0; }
  // The whole reserved fe80::/10 block.
  bool isLinkLocalUnicast2() const { return (hostWord(0) & 0xffc00000) == 0xfe800000; }
  bool isLinkLocal() const { return isLinkLocalUnicast() || (isMulticast() && multicastScope() == 2); }
  bool isGlobalUnicast() const { return !isMulticast() && !isZero() && !isLoopback() && !isLinkLocalUnicast2(); }
  bool isPimRouters() const;
  // Scope 4 (admin-local) or wider, RFC 7346.
  bool isRoutableMulticast() const { return isMulticast() && (multicastScope() & 0xc) != 0; }
  // RFC 3879 deprecated site-local fec0::/10.
  bool isSiteLocal() const { return (hostWord(0) & 0xffc00000) == 0xfec00000; }
  // RFC 4193 fc00::/7.
  bool isUniqueLocal() const { return (hostWord(0) & 0xfe000000) == 0xfc000000; }
  // RFC 4291 section 2.5.5.2: ::ffff:a.b.c.d.
  bool isV4MappedV6() const { return (words_[0] | words_[1]) == 0 && hostWord(2) == 0xffff; }
  // A link-local unicast address a host can use as a source: inside fe80::/64
  // and not the subnet-router anycast fe80:: (RFC 4291 section 2.6.1), i.e.
  // with a non-zero interface identifier.
  bool validLlUnicastAddress() const { return isLinkLocalUnicast() && (words_[2] | words_[3]) != 0; }
  // RFC 4291 section 2.7.1 scope nibble of a multicast address.
  unsigned multicastScope() const { return (hostWord(0) >> 16) & 0xf; }

  // RFC 4291 section 2.7.1: ff02::1:ff00:0 with the address's low 24 bits.
  Ip6Addr solicitedNodeMulticastAddr() const {
    return fromHostWords(0xff020000, 0, 1, 0xff000000 | (hostWord(3) & 0xffffff));
  }
  // RFC 2464 section 7: 33:33 and the last four bytes.
  EthAddr mcastEtherAddress() const {
    U8 const* b = bytes();
    return EthAddr(0x33, 0x33, b[12], b[13], b[14], b[15]);
  }
  U32 longestCommonPrefix(Ip6Addr const& other) const;
  // The address with every bit after len cleared (assertion "len <= 128").
  Ip6Addr ip6AddrMaskedByLength(U32 len) const;
  Ip6Addr operator&(Ip6Addr const& m) const {
    return fromNetworkWords(words_[0] & m.words_[0], words_[1] & m.words_[1], words_[2] & m.words_[2],
                            words_[3] & m.words_[3]);
  }
  Ip6Addr operator|(Ip6Addr const& m) const {
    return fromNetworkWords(words_[0] | m.words_[0], words_[1] | m.words_[1], words_[2] | m.words_[2],
                            words_[3] | m.words_[3]);
  }

  // Wang's hash chained over the four host-order words.
  U32 hash() const {
    U32 h = 0;
    for (U32 w : words_) h = wangHash32(ipDetail::swapNet32(w) ^ h);
    return h;
  }

  friend constexpr bool operator==(Ip6Addr const& a, Ip6Addr const& b) {
    return a.words_[0] == b.words_[0] && a.words_[1] == b.words_[1] && a.words_[2] == b.words_[2] &&
           a.words_[3] == b.words_[3];
  }
  friend constexpr std::strong_ordering operator<=>(Ip6Addr const& a, Ip6Addr const& b) {
    for (unsigned i = 0; i < 4; ++i) {
      if (a.words_[i] != b.words_[i]) return a.hostWord(i) <=> b.hostWord(i);
    }
    return std::strong_ordering::equal;
  }

  // RFC 5952 text: lower-case groups without leading zeros, the first of the
  // longest runs of two or more zero groups as "::", and ::ffff:a.b.c.d for
  // mapped IPv4 addresses.
  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  // Reads the whole text; on failure raises the reader's message (text left
  // over: "Ip6Addr: unexpected trailing characters") and keeps the old value.
  void stringValueIs(Brio::String const& text);
  // All eight groups as four hex digits each.
  Brio::String stringValueExpanded() const;
  // Reads the expanded form (or "0:0:0:0:0:0:0:0"); "Ip6Addr: address is not
  // expanded" otherwise.
  void stringValueExpandedIs(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  unsigned writeText(char* out) const;

 private:
  static constexpr Ip6Addr fromNetworkWords(U32 w0, U32 w1, U32 w2, U32 w3) {
    Ip6Addr a;
    a.words_[0] = w0;
    a.words_[1] = w1;
    a.words_[2] = w2;
    a.words_[3] = w3;
    return a;
  }

  U32 words_[4] = {0, 0, 0, 0};  // network order
};

static_assert(std::is_trivially_copyable_v<Ip6Addr> && sizeof(Ip6Addr) == 16);

inline constexpr Ip6Addr ip6AddrZero{};
inline constexpr Ip6Addr ip6AddrAllNodes{0xff02, 0, 0, 0, 0, 0, 0, 1};
inline constexpr Ip6Addr ip6AddrAllRouters{0xff02, 0, 0, 0, 0, 0, 0, 2};
inline constexpr Ip6Addr ip6AddrAllHosts{0xff02, 0, 0, 0, 0, 0, 0, 3};
inline constexpr Ip6Addr ip6AddrVrrp{0xff02, 0, 0, 0, 0, 0, 0, 0x12};
inline constexpr Ip6Addr ip6AddrLoopback{0, 0, 0, 0, 0, 0, 0, 1};
// Deliberately the link-scope multicast base ff02::, not fe80::: callers
// build link-scope groups from it.
inline constexpr Ip6Addr ip6AddrLinkLocalBase{0xff02, 0, 0, 0, 0, 0, 0, 0};
inline constexpr Ip6Addr ip6AddrPimRouters{0xff02, 0, 0, 0, 0, 0, 0, 0xd};
inline constexpr Ip6Addr ip6AddrMld{0xff02, 0, 0, 0, 0, 0, 0, 0x16};
inline constexpr Ip6Addr ip6AddrV4MappedLoopback{0, 0, 0, 0, 0, 0xffff, 0x7f00, 1};
inline constexpr Ip6Addr ip6AddrV4MappedLoopbackBase{0, 0, 0, 0, 0, 0xffff, 0x7f00, 0};

inline bool Ip6Addr::isPimRouters() const { return *this == ip6AddrPimRouters; }

namespace ipDetail {

// Address and length of the IPv6 pairs: containment, the prefix order and
// the text are the same for a route prefix and an interface address.
class Ip6AddrAndLen {
 public:
  static constexpr unsigned textBufferBytes = 56;

  Ip6Addr address() const { return address_; }
  U32 len() const { return len_; }
  // Validity as a prefix: no bit set after len (vacuously true for a len of
  // 128 or more, which takes in the null prefix's all-ones length).
  bool validAsPrefix() const;
  // The first len bits of a equal those of the address; false above 128.
  bool contains(Ip6Addr const& a) const;
  // wang(address hash XOR len); hash(seed) mixes the two with Brio::Hash.
  U32 hash() const { return wangHash32(address_.hash() ^ len_); }
  U32 hash(U32 seed) const { return Brio::Hash(seed).mix(address_.hash()).mix(len_).result(); }
  unsigned writeText(char* out) const;

  friend bool operator==(Ip6AddrAndLen const&, Ip6AddrAndLen const&) = default;
  // Lengths compare as signed numbers (the null prefix is -1): equal lengths
  // go by address; otherwise a prefix that the other contains comes first
  // (most specific first); unrelated prefixes go by address.
  friend bool operator<(Ip6AddrAndLen const& x, Ip6AddrAndLen const& y);

 protected:
  constexpr Ip6AddrAndLen() = default;
  constexpr Ip6AddrAndLen(Ip6Addr address, U32 len) : address_(address), len_(len) {}

  Ip6Addr address_;
  U32 len_ = 0;
};

}  // namespace ipDetail

// An IPv6 route prefix. Any length is stored as given; the all-ones length
// is the null prefix ("no prefix"), which counts as valid. The default is ::/0.
class Ip6Prefix : public ipDetail::Ip6AddrAndLen {
 public:
  static constexpr U32 nullLen = 0xffffffff;

  constexpr Ip6Prefix() = default;
  constexpr Ip6Prefix(Ip6Addr address, U32 len) : Ip6AddrAndLen(address, len) {}

  bool isNullPrefix() const { return len_ == nullLen; }
  bool isDefaultRoutePrefix() const { return len_ == 0 && address_.isZero(); }
  bool isHostRoutePrefix() const { return len_ == 128; }
  bool overlaps(Ip6Prefix const& other) const { return contains(other.address_) || other.contains(address_); }
  // The address OR host; raises "Host address is too long" when host has
  // bits inside the first len bits (a length above 128 skips the test).
  Ip6Addr subnetHost(Ip6Addr const& host) const;

  friend bool operator==(Ip6Prefix const&, Ip6Prefix const&) = default;
  friend bool operator<(Ip6Prefix const& x, Ip6Prefix const& y) {
    return static_cast<Ip6AddrAndLen const&>(x) < static_cast<Ip6AddrAndLen const&>(y);
  }
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
};

static_assert(std::is_trivially_copyable_v<Ip6Prefix>);

inline constexpr Ip6Prefix ip6LinkLocalPrefix{Ip6Addr(0xfe80, 0, 0, 0, 0, 0, 0, 0), 10};
inline constexpr Ip6Prefix ip6SiteLocalPrefix{Ip6Addr(0xfec0, 0, 0, 0, 0, 0, 0, 0), 10};
inline constexpr Ip6Prefix ip6UniqueLocalPrefix{Ip6Addr(0xfc00, 0, 0, 0, 0, 0, 0, 0), 7};

// An IPv6 interface address: address and length with host bits allowed.
// Unlike IPv4 it sorts in the prefix order.
class Ip6AddrWithMask : public ipDetail::Ip6AddrAndLen {
 public:
  constexpr Ip6AddrWithMask() = default;
  constexpr Ip6AddrWithMask(Ip6Addr address, U32 len) : Ip6AddrAndLen(address, len) {}

  bool overlaps(Ip6AddrWithMask const& other) const {
    return contains(other.address_) || other.contains(address_);
  }
  // The subnet: the address masked by its length (assertion "len <= 128").
  Ip6Prefix subnet() const { return Ip6Prefix(address_.ip6AddrMaskedByLength(len_), len_); }

  friend bool operator==(Ip6AddrWithMask const&, Ip6AddrWithMask const&) = default;
  friend bool operator<(Ip6AddrWithMask const& x, Ip6AddrWithMask const& y) {
    return static_cast<Ip6AddrAndLen const&>(x) < static_cast<Ip6AddrAndLen const&>(y);
  }
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
};

static_assert(std::is_trivially_copyable_v<Ip6AddrWithMask>);

// An IPv6 address with a 128-bit mask of any bit pattern.
class Ip6AddrWithFullMask {
 public:
  static constexpr unsigned textBufferBytes = 88;

  constexpr Ip6AddrWithFullMask() = default;
  constexpr Ip6AddrWithFullMask(Ip6Addr address, Ip6Addr mask) : address_(address), mask_(mask) {}

  Ip6Addr address() const { return address_; }
  void addressIs(Ip6Addr const& v) { address_ = v; }
  Ip6Addr mask() const { return mask_; }
  void maskIs(Ip6Addr const& v) { mask_ = v; }
  // The mask is a run of leading ones (maskLength() 0 to 128).
  bool hasPrefixRepr() const { return maskLength() <= 128; }
  // The length of a contiguous mask, or 129 when the mask has holes.
  U32 maskLength() const;

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(address_.hash()).mix(mask_.hash()).result(); }
  friend bool operator==(Ip6AddrWithFullMask const&, Ip6AddrWithFullMask const&) = default;
  friend bool operator<(Ip6AddrWithFullMask const& a, Ip6AddrWithFullMask const& b) {
    if (a.address_ != b.address_) return a.address_ < b.address_;
    return a.mask_ < b.mask_;
  }

  // "address/len" for a contiguous mask, "address/mask" otherwise.
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  unsigned writeText(char* out) const;

 private:
  Ip6Addr address_;
  Ip6Addr mask_;
};

static_assert(std::is_trivially_copyable_v<Ip6AddrWithFullMask>);

inline Brio::String valueToStrep(Ip6Addr const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(Ip6Prefix const& v) { return ipDetail::textOf(v); }
inline Brio::String valueToStrep(Ip6AddrWithMask const& v) { return ipDetail::textOf(v); }
inline Brio::String valueToStrep(Ip6AddrWithFullMask const& v) { return ipDetail::textOf(v); }
inline std::ostream& operator<<(std::ostream& os, Ip6Addr const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, Ip6Prefix const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, Ip6AddrWithMask const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, Ip6AddrWithFullMask const& v) {
  return ipDetail::streamOf(os, v);
}

// Readers. An address is groups of hex digits separated by ':', at most one
// "::" and optionally a dotted quad as the last two groups; it ends after
// the eighth group, after a closing "::", or where the next character can
// not continue it. A prefix or address with length reads a bare address as
// length 128; the full-mask reader takes "/len" or "/mask".
namespace ipDetail {
TextError readIp6(char const*& p, char const* e, Ip6Addr* out);
TextError readIp6AndLen(char const*& p, char const* e, Ip6Addr* address, U32* len);
}  // namespace ipDetail
Ip6Addr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6Addr*);
Ip6Prefix sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6Prefix*);
Ip6AddrWithMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6AddrWithMask*);
Ip6AddrWithFullMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6AddrWithFullMask*);

// Attribute-log forms: an address as its four host-order words (on the wire,
// the sixteen bytes in order), then the length or the mask address.
void attrLogWrite(Brio::NboAttrLog& log, Ip6Addr const& v);
Ip6Addr attrLogRead(Brio::NboAttrLog& log, Ip6Addr*);
void attrLogWrite(Brio::NboAttrLog& log, Ip6Prefix const& v);
Ip6Prefix attrLogRead(Brio::NboAttrLog& log, Ip6Prefix*);
void attrLogWrite(Brio::NboAttrLog& log, Ip6AddrWithMask const& v);
Ip6AddrWithMask attrLogRead(Brio::NboAttrLog& log, Ip6AddrWithMask*);
void attrLogWrite(Brio::NboAttrLog& log, Ip6AddrWithFullMask const& v);
Ip6AddrWithFullMask attrLogRead(Brio::NboAttrLog& log, Ip6AddrWithFullMask*);

// ===========================================================================
// Either family
// ===========================================================================

enum class AddressFamily : U32 { ipunknown = 0, ipv4 = 1, ipv6 = 2 };

// "ipunknown", "ipv4", "ipv6"; anything else reads as "Invalid AddressFamily".
Brio::String valueToStrep(AddressFamily af);
AddressFamily sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, AddressFamily*);
std::ostream& operator<<(std::ostream& os, AddressFamily af);

// An IPv4 or IPv6 address behind a family tag: sixteen bytes, the IpAddr in
// the first four for "ipv4" (the rest zero), all zero for "ipunknown". The
// default is the "ipunknown" address.
class IpGenAddr {
 public:
  static constexpr unsigned textBufferBytes = Ip6Addr::textBufferBytes;

  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(IpAddr a) : af_(AddressFamily::ipv4), addr_(Ip6Addr::fromHostWords(a.hostOrder(), 0, 0, 0)) {}
  constexpr IpGenAddr(Ip6Addr const& a) : af_(AddressFamily::ipv6), addr_(a) {}
  // The family's zero address.
  constexpr explicit IpGenAddr(AddressFamily af) : af_(af) {}
  // As handleInitialized: empty text is the "ipunknown" address.
  explicit IpGenAddr(Brio::String const& text);

  AddressFamily af() const { return af_; }
  bool isV4() const { return af_ == AddressFamily::ipv4; }
  bool isV6() const { return af_ == AddressFamily::ipv6; }
  // The address of that family, or its zero address for another tag.
  IpAddr v4Addr() const { return isV4() ? IpAddr::fromNetworkOrder(addr_.networkWord(0)) : IpAddr(); }
  Ip6Addr v6Addr() const { return isV6() ? addr_ : Ip6Addr(); }
  // The sixteen bytes whatever the tag, for hashing and family-blind copies.
  Ip6Addr const& rawAddr() const { return addr_; }
  U32 size() const { return isV4() ? 4 : 16; }
  U8 const* bytes() const { return addr_.bytes(); }
  void copyToBuffer(unsigned char* out) const { std::memcpy(out, addr_.bytes(), size()); }
  // 0 across families.
  U32 longestCommonPrefix(IpGenAddr const& other) const;
  EthAddr mcastEtherAddress() const { return isV4() ? v4Addr().mcastEtherAddress() : addr_.mcastEtherAddress(); }

  // ::ffff:a.b.c.d becomes "ipv4" a.b.c.d; anything else "ipunknown".
  static IpGenAddr getMappedV4Addr(IpGenAddr const& a);
  // "ipv4" a.b.c.d becomes "ipv6" ::ffff:a.b.c.d; anything else "ipunknown".
  static IpGenAddr getV4MappedV6Addr(IpGenAddr const& a);

  // Each predicate asks the family's own test; a test the family lacks,
  // and every test of "ipunknown" but isUnicast, is false.
  bool isUnicast() const { return isV4() ? v4Addr().isUnicast() : addr_.isUnicast(); }
  bool isAny() const { return isV4() && v4Addr().isAny(); }
  bool isReserved(bool allowClassE) const { return isV4() && v4Addr().isReserved(allowClassE); }
  bool isV4LinkLocal() const { return isV4() && v4Addr().isLinkLocal(); }
  bool isV6LinkLocal() const { return isV6() && addr_.isLinkLocal(); }
  bool isLinkLocalMulticast() const {
    return isV4() ? v4Addr().isReservedMulticast() : isV6() && addr_.isLinkLocal() && addr_.isMulticast();
  }
  bool isMulticast() const { return isV4() ? v4Addr().isMulticast() : isV6() && addr_.isMulticast(); }
  bool isLoopback() const { return isV4() ? v4Addr().isLoopback() : isV6() && addr_.isLoopback(); }
  bool isLoopbackBase() const { return isV4() ? v4Addr().isLoopbackBase() : isV6() && addr_.isLoopbackBase(); }
  bool isLinkLocal() const { return isV4() ? v4Addr().isLinkLocal() : isV6() && addr_.isLinkLocal(); }
  bool isLinkLocalUnicast() const {
    return isV4() ? v4Addr().isLinkLocalUnicast() : isV6() && addr_.isLinkLocalUnicast();
  }
  bool isThisNetwork() const { return isV4() && v4Addr().isThisNetwork(); }
  bool isBroadcast() const { return isV4() && v4Addr().isBroadcast(); }
  bool isUnspecified() const { return isV6() && addr_.isUnspecified(); }
  bool isPimRouters() const { return isV4() ? v4Addr().isPimRouters() : isV6() && addr_.isPimRouters(); }
  bool isRoutableMulticast() const { return isV6() && addr_.isRoutableMulticast(); }

  // Brio::Hash(seed) over the tag and the sixteen bytes' Ip6Addr::hash().
  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(static_cast<U32>(af_)).mix(addr_.hash()).result(); }
  friend bool operator==(IpGenAddr const&, IpGenAddr const&) = default;
  // Tag first ("ipunknown", "ipv4", "ipv6"), then the bytes numerically.
  friend std::strong_ordering operator<=>(IpGenAddr const& a, IpGenAddr const& b) {
    if (a.af_ != b.af_) return static_cast<U32>(a.af_) <=> static_cast<U32>(b.af_);
    return a.addr_ <=> b.addr_;
  }

  // The dotted quad for "ipv4", the IPv6 text of the bytes otherwise (so the
  // "ipunknown" address prints as "::", which reads back as "ipv6").
  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  // The framework's stringValue setter: empty text is "ipunknown", anything
  // else is read whole by the family's reader. Keeps the old value on failure.
  void handleInitialized(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  unsigned writeText(char* out) const { return isV4() ? v4Addr().writeText(out) : addr_.writeText(out); }

 private:
  AddressFamily af_ = AddressFamily::ipunknown;
  Ip6Addr addr_;
};

static_assert(std::is_trivially_copyable_v<IpGenAddr>);

namespace ipDetail {

// The family of the text at p, from the first ':' (ipv6) or '.' (ipv4)
// before any '/'; ipunknown when there is none.
AddressFamily familyOfText(char const* p, char const* e);

// Tag, address and length: the storage, hash and text shared by the
// either-family prefix and address with length.
class IpGenAddrAndLen {
 public:
  static constexpr unsigned textBufferBytes = Ip6AddrAndLen::textBufferBytes;

  AddressFamily af() const { return af_; }
  IpGenAddr address() const;
  U32 len() const { return len_; }
  U32 hash(U32 seed = 0) const {
    return Brio::Hash(seed).mix(static_cast<U32>(af_)).mix(addr_.hash()).mix(len_).result();
  }
  // "address/len" in the family's text ("::/len" for "ipunknown").
  unsigned writeText(char* out) const;
  friend bool operator==(IpGenAddrAndLen const&, IpGenAddrAndLen const&) = default;

 protected:
  constexpr IpGenAddrAndLen() = default;
  IpGenAddrAndLen(AddressFamily af, Ip6Addr const& addr, U32 len) : af_(af), addr_(addr), len_(len) {}
  IpAddr v4() const { return IpAddr::fromNetworkOrder(addr_.networkWord(0)); }

  AddressFamily af_ = AddressFamily::ipunknown;
  Ip6Addr addr_;  // as in IpGenAddr
  U32 len_ = 0;
};

}  // namespace ipDetail

// The base the either-family prefix is built on: its tag, address and length.
using IpGenPrefixBase = ipDetail::IpGenAddrAndLen;

// An IPv4 Prefix or an Ip6Prefix behind a family tag. The IPv4 pair is
// validated as Prefix validates it. The default is the "ipunknown" prefix
// (zero address, length 0).
class IpGenPrefix : public IpGenPrefixBase {
 public:
  constexpr IpGenPrefix() = default;
  IpGenPrefix(Prefix const& p);           // NOLINT: a family value converts
  IpGenPrefix(Ip6Prefix const& p);        // NOLINT
  IpGenPrefix(IpAddr address, U32 len) : IpGenPrefix(Prefix(address, len)) {}
  IpGenPrefix(Ip6Addr const& address, U32 len) : IpGenPrefix(Ip6Prefix(address, len)) {}
  IpGenPrefix(IpGenAddr const& address, U32 len);
  // The host prefix of the address (/32 or /128).
  explicit IpGenPrefix(IpGenAddr const& address);
  // words are the address's network-order words (only the first for ipv4).
  IpGenPrefix(AddressFamily af, U32 len, std::array<U32, 4> const& words);
  // As handleInitialized: empty text is the "ipunknown" prefix.
  explicit IpGenPrefix(Brio::String const& text);

  // The family's prefix, or its default for another tag.
  Prefix v4Prefix() const { return af_ == AddressFamily::ipv4 ? Prefix(v4(), len_) : Prefix(); }
  Ip6Prefix v6Prefix() const { return af_ == AddressFamily::ipv6 ? Ip6Prefix(addr_, len_) : Ip6Prefix(); }
  explicit operator Prefix() const { return v4Prefix(); }
  explicit operator Ip6Prefix() const { return v6Prefix(); }

  // Same family only. An IPv4 length of 0 or above 32 contains every IPv4
  // address (unlike Ip6Prefix, which refuses lengths above 128).
  bool contains(IpGenAddr const& a) const;
  // Same family only; IPv4 prefixes overlap unless both lengths lie in 1 to
  // 32 and the addresses differ within the shorter.
  bool overlaps(IpGenPrefix const& other) const;

  friend bool operator==(IpGenPrefix const&, IpGenPrefix const&) = default;
  // Tag first, then the family's prefix order.
  friend bool operator<(IpGenPrefix const& a, IpGenPrefix const& b);

  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  // Empty text is "ipunknown"; otherwise the whole text is read by the
  // family's reader. Keeps the old value on failure.
  void handleInitialized(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
};

static_assert(std::is_trivially_copyable_v<IpGenPrefix>);

// An IpAddrWithMask or an Ip6AddrWithMask behind a family tag: an interface
// address of either family. No invariant. The default is "ipunknown".
class IpGenAddrWithMask : public ipDetail::IpGenAddrAndLen {
 public:
  constexpr IpGenAddrWithMask() = default;
  IpGenAddrWithMask(IpAddrWithMask const& v);   // NOLINT
  IpGenAddrWithMask(Ip6AddrWithMask const& v);  // NOLINT
  IpGenAddrWithMask(IpGenAddr const& address, U32 len);
  explicit IpGenAddrWithMask(Brio::String const& text);

  IpAddrWithMask v4AddrWithMask() const {
    return af_ == AddressFamily::ipv4 ? IpAddrWithMask(v4(), len_) : IpAddrWithMask();
  }
  Ip6AddrWithMask v6AddrWithMask() const {
    return af_ == AddressFamily::ipv6 ? Ip6AddrWithMask(addr_, len_) : Ip6AddrWithMask();
  }
  // The subnet of the address: its address masked by the length, as a
  // prefix. An IPv4 length above 32 is refused as Prefix refuses it.
  IpGenPrefix subnet() const;
  // The address lies in this address's subnet.
  bool contains(IpGenAddr const& a) const;

  friend bool operator==(IpGenAddrWithMask const&, IpGenAddrWithMask const&) = default;
  // Tag first, then the family's order (IPv4 by address then length, IPv6
  // in the prefix order).
  friend bool operator<(IpGenAddrWithMask const& a, IpGenAddrWithMask const& b);

  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  void handleInitialized(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
};

static_assert(std::is_trivially_copyable_v<IpGenAddrWithMask>);

// An address with a mask of either family, the mask kept as an IpGenAddr
// (any bit pattern). Its strep is the record form, which reads back any
// value; its stringValue is the shorter "address/len" whenever the mask is a
// contiguous mask of the address's family.
class IpGenAddrWithFullMask {
 public:
  IpGenAddrWithFullMask() = default;
  IpGenAddrWithFullMask(IpGenAddr const& address, IpGenAddr const& mask) : address_(address), mask_(mask) {}
  // The mask of len leading ones in the address's family: an IPv4 length
  // above 32 raises "Invalid IPv4 prefix length"; IPv6 asserts len <= 128.
  IpGenAddrWithFullMask(IpGenAddr const& address, U32 len);
  IpGenAddrWithFullMask(IpAddrWithFullMask const& v);  // NOLINT: the number is the mask bits
  IpGenAddrWithFullMask(Ip6AddrWithFullMask const& v);  // NOLINT
  explicit IpGenAddrWithFullMask(Brio::String const& text);

  IpGenAddr address() const { return address_; }
  void addressIs(IpGenAddr const& v) { address_ = v; }
  IpGenAddr mask() const { return mask_; }
  void maskIs(IpGenAddr const& v) { mask_ = v; }
  // The mask is contiguous and of the address's family.
  bool hasPrefixRepr() const;
  // The length of such a mask, or 4294967295 when there is none.
  U32 maskLength() const;

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(address_.hash(seed)).mix(mask_.hash(seed)).result(); }
  friend bool operator==(IpGenAddrWithFullMask const&, IpGenAddrWithFullMask const&) = default;
  friend bool operator<(IpGenAddrWithFullMask const& a, IpGenAddrWithFullMask const& b) {
    if (a.address_ != b.address_) return a.address_ < b.address_;
    return a.mask_ < b.mask_;
  }

  // "address/len" when hasPrefixRepr(), the strep otherwise.
  Brio::String stringValue() const;
  // Empty text clears both; "Value('..." is read as the strep; otherwise
  // "address/len" (IPv4 with sequenceToPrefixFullMask, IPv6 also
  // "address/mask"). Keeps the old value on failure.
  void handleInitialized(Brio::String const& text);

 private:
  IpGenAddr address_;
  IpGenAddr mask_;
};

static_assert(std::is_trivially_copyable_v<IpGenAddrWithFullMask>);

// A configured address that may also be left unset or set to "no address":
// "unset" (nothing configured, the owner's default applies), "none" (set,
// explicitly without an address) or the address. The default is unset.
class TristateIpGenAddr {
 public:
  static constexpr unsigned textBufferBytes = IpGenAddr::textBufferBytes;

  constexpr TristateIpGenAddr() = default;
  // Set to a; an "ipunknown" address is "none".
  explicit TristateIpGenAddr(IpGenAddr const& a) : value_(a), isSet_(true) {}

  bool isSet() const { return isSet_; }
  bool isNone() const { return isSet_ && value_.af() == AddressFamily::ipunknown; }
  bool hasAddress() const { return isSet_ && value_.af() != AddressFamily::ipunknown; }
  // The address, "ipunknown" when unset or none.
  IpGenAddr value() const { return value_; }
  void valueIs(IpGenAddr const& a) {
    value_ = a;
    isSet_ = true;
  }
  void valueDel() {
    value_ = IpGenAddr();
    isSet_ = false;
  }
  IpGenAddr valueOr(IpGenAddr const& fallback) const { return isSet_ ? value_ : fallback; }

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(isSet_ ? 1u : 0u).mix(value_.hash(seed)).result(); }
  friend bool operator==(TristateIpGenAddr const&, TristateIpGenAddr const&) = default;
  // unset, then none, then the addresses in IpGenAddr order.
  friend bool operator<(TristateIpGenAddr const& a, TristateIpGenAddr const& b) {
    if (a.isSet_ != b.isSet_) return b.isSet_;
    return a.value_ < b.value_;
  }

  Brio::String stringValue() const { return ipDetail::textOf(*this); }
  void handleInitialized(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const { return ipDetail::printToBufferOf(*this, buf, size); }
  unsigned writeText(char* out) const;

 private:
  IpGenAddr value_;
  bool isSet_ = false;
};

static_assert(std::is_trivially_copyable_v<TristateIpGenAddr>);

// A set of either-family prefixes, as configured for filters and
// prefix lists: membership, containment of an address and the longest
// match. Prefixes are kept as given (no masking) in a total key order (tag,
// address, length), which is not the prefix order: non-canonical IPv6
// prefixes do not sort consistently in that one. Text: "{p, p, ...}".
class IpGenPrefixSet {
 public:
  struct KeyLess {
    bool operator()(IpGenPrefix const& a, IpGenPrefix const& b) const {
      if (a.af() != b.af()) return a.af() < b.af();
      if (a.address() != b.address()) return a.address() < b.address();
      return a.len() < b.len();
    }
  };
  using Prefixes = std::set<IpGenPrefix, KeyLess>;

  IpGenPrefixSet() = default;
  IpGenPrefixSet(std::initializer_list<IpGenPrefix> prefixes) : prefixes_(prefixes) {}

  Prefixes const& prefixes() const { return prefixes_; }
  U32 size() const { return static_cast<U32>(prefixes_.size()); }
  bool empty() const { return prefixes_.empty(); }
  bool prefix(IpGenPrefix const& p) const { return prefixes_.count(p) != 0; }
  // Return whether the set changed.
  bool prefixIs(IpGenPrefix const& p) { return prefixes_.insert(p).second; }
  bool prefixDel(IpGenPrefix const& p) { return prefixes_.erase(p) != 0; }
  void prefixDelAll() { prefixes_.clear(); }

  // Some prefix of the set contains a.
  bool contains(IpGenAddr const& a) const;
  // The longest prefix containing a, or the "ipunknown" prefix when none does.
  IpGenPrefix longestMatch(IpGenAddr const& a) const;

  U32 hash(U32 seed = 0) const;
  friend bool operator==(IpGenPrefixSet const& a, IpGenPrefixSet const& b) { return a.prefixes_ == b.prefixes_; }
  friend bool operator<(IpGenPrefixSet const& a, IpGenPrefixSet const& b);

  Brio::String stringValue() const;
  void stringValueIs(Brio::String const& text);

 private:
  Prefixes prefixes_;
};

// A named prefix set in configuration: the set as an entity whose notifiees
// hear handlePrefix(p) for every prefix added or removed.
class IpGenPrefixSetConfig : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<IpGenPrefixSetConfig> {
   public:
    virtual void handlePrefix(IpGenPrefix const& /*prefix*/) {}
  };

  explicit IpGenPrefixSetConfig(Brio::String name) : Entity(std::move(name)) {}

  IpGenPrefixSet const& prefixSet() const { return prefixSet_; }
  bool prefix(IpGenPrefix const& p) const { return prefixSet_.prefix(p); }
  void prefixIs(IpGenPrefix const& p);
  void prefixDel(IpGenPrefix const& p);
  void prefixDelAll();
  // Replaces the whole set, notifying each prefix that comes or goes.
  void prefixSetIs(IpGenPrefixSet const& s);

 protected:
  ~IpGenPrefixSetConfig() override = default;

 private:
  IpGenPrefixSet prefixSet_;
};

Brio::Ptr<IpGenPrefixSetConfig> ipGenPrefixSetConfigFactory(Brio::String const& name);

// The directory of named prefix sets; notifiees hear handleConfig(name) when
// a set is made or removed.
class IpGenPrefixSetConfigDir : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<IpGenPrefixSetConfigDir> {
   public:
    virtual void handleConfig(Brio::String const& /*name*/) {}
  };

  explicit IpGenPrefixSetConfigDir(Brio::String name) : Entity(std::move(name)) {}

  // The set of that name, or null.
  Brio::Ptr<IpGenPrefixSetConfig> config(Brio::String const& name) const;
  // The set of that name, made empty on first use.
  Brio::Ptr<IpGenPrefixSetConfig> configIs(Brio::String const& name);
  void configDel(Brio::String const& name);
  void configDelAll();
  U32 configs() const { return static_cast<U32>(configs_.size()); }

 protected:
  ~IpGenPrefixSetConfigDir() override = default;

 private:
  std::map<Brio::String, Brio::Ptr<IpGenPrefixSetConfig>> configs_;
};

Brio::Ptr<IpGenPrefixSetConfigDir> ipGenPrefixSetConfigDirFactory(Brio::String const& name);

// Text forms of the either-family values. Readers pick the family from the
// first ':' or '.' before any '/' and raise "Invalid IpGenAddr" when there
// is none; everything else is the chosen family's reader.
inline Brio::String valueToStrep(IpGenAddr const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(IpGenPrefix const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(IpGenAddrWithMask const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(TristateIpGenAddr const& v) { return v.stringValue(); }
inline Brio::String valueToStrep(IpGenPrefixSet const& v) { return v.stringValue(); }
inline std::ostream& operator<<(std::ostream& os, IpGenAddr const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, IpGenPrefix const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, IpGenAddrWithMask const& v) { return ipDetail::streamOf(os, v); }
inline std::ostream& operator<<(std::ostream& os, TristateIpGenAddr const& v) { return ipDetail::streamOf(os, v); }
std::ostream& operator<<(std::ostream& os, IpGenPrefixSet const& v);
IpGenAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenAddr*);
IpGenPrefix sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenPrefix*);
IpGenAddrWithMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenAddrWithMask*);
TristateIpGenAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TristateIpGenAddr*);
IpGenPrefixSet sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenPrefixSet*);

inline constexpr auto ipGenAddrWithFullMaskRecord = Brio::record<IpGenAddrWithFullMask>(
    "Corvid::IpGenAddrWithFullMask", Brio::field("address", &IpGenAddrWithFullMask::address),
    Brio::field("mask", &IpGenAddrWithFullMask::mask));
BRIO_RECORD_TEXT_FORMS(IpGenAddrWithFullMask, ipGenAddrWithFullMaskRecord)

// Attribute-log forms: the tag as a U32, then the family's address form
// (nothing for "ipunknown") and the length; the full mask as two addresses;
// the tristate as a bool and the address; the set as a count and prefixes.
// A tag outside the enumeration reads as "Invalid AddressFamily".
void attrLogWrite(Brio::NboAttrLog& log, AddressFamily af);
AddressFamily attrLogRead(Brio::NboAttrLog& log, AddressFamily*);
void attrLogWrite(Brio::NboAttrLog& log, IpGenAddr const& v);
IpGenAddr attrLogRead(Brio::NboAttrLog& log, IpGenAddr*);
void attrLogWrite(Brio::NboAttrLog& log, IpGenPrefix const& v);
IpGenPrefix attrLogRead(Brio::NboAttrLog& log, IpGenPrefix*);
void attrLogWrite(Brio::NboAttrLog& log, IpGenAddrWithMask const& v);
IpGenAddrWithMask attrLogRead(Brio::NboAttrLog& log, IpGenAddrWithMask*);
void attrLogWrite(Brio::NboAttrLog& log, IpGenAddrWithFullMask const& v);
IpGenAddrWithFullMask attrLogRead(Brio::NboAttrLog& log, IpGenAddrWithFullMask*);
void attrLogWrite(Brio::NboAttrLog& log, TristateIpGenAddr const& v);
TristateIpGenAddr attrLogRead(Brio::NboAttrLog& log, TristateIpGenAddr*);
void attrLogWrite(Brio::NboAttrLog& log, IpGenPrefixSet const& v);
IpGenPrefixSet attrLogRead(Brio::NboAttrLog& log, IpGenPrefixSet*);

// Netlink route attributes: copy the payload after the four-byte rtattr
// header unchanged (network order). An attribute too short for the address
// leaves it untouched and returns false.
bool getRtaAddr(rtattr const* rta, IpAddr* out);
bool getRtaAddr(rtattr const* rta, Ip6Addr* out);
bool getRtaAddr(rtattr const* rta, EthAddr* out);

}  // namespace Corvid

CORVID_STD_HASH(Corvid::IpAddr);
CORVID_STD_HASH(Corvid::Prefix);
CORVID_STD_HASH(Corvid::IpAddrWithMask);
CORVID_STD_HASH(Corvid::IpAddrWithFullMask);
CORVID_STD_HASH(Corvid::Ip6Addr);
CORVID_STD_HASH(Corvid::Ip6Prefix);
CORVID_STD_HASH(Corvid::Ip6AddrWithMask);
CORVID_STD_HASH(Corvid::Ip6AddrWithFullMask);
CORVID_STD_HASH(Corvid::IpGenAddr);
CORVID_STD_HASH(Corvid::IpGenPrefix);
CORVID_STD_HASH(Corvid::IpGenAddrWithMask);
CORVID_STD_HASH(Corvid::IpGenAddrWithFullMask);
CORVID_STD_HASH(Corvid::TristateIpGenAddr);
