// Ethernet (MAC) addresses and EUI-64 interface identifiers.
//
// EthAddr holds the 48-bit address as three 16-bit words in network order,
// so its six bytes lie in memory exactly as on the wire: header wrappers and
// netlink readers copy it without conversion, while accessors and order work
// on host-order values. Eui64 is the 64-bit identifier of the same family,
// eight bytes in wire order. EthAddrWithMask pairs an address with a mask.
// All three are trivially copyable values with no owned memory; parsing
// and printing allocate only the final String.
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/Record.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <bit>
#include <compare>
#include <iosfwd>
#include <type_traits>

namespace Corvid {

class Eui64;

class EthAddr {
 public:
  constexpr EthAddr() : words_{0, 0, 0} {}
  // Host-order words, w0 first (0x001c, 0x730a, 0x0b0c is 00:1c:73:0a:0b:0c).
  constexpr EthAddr(U16 w0, U16 w1, U16 w2) : words_{toNet(w0), toNet(w1), toNet(w2)} {}
  constexpr EthAddr(U8 b0, U8 b1, U8 b2, U8 b3, U8 b4, U8 b5)
      : EthAddr(U16(b0 << 8 | b1), U16(b2 << 8 | b3), U16(b4 << 8 | b5)) {}
  // Reads six bytes in wire order from `wire`.
  explicit EthAddr(U8 const* wire);
  // Parses the whole text like stringValueIs.
  explicit EthAddr(Brio::String const& text);

  static constexpr EthAddr broadcast() { return EthAddr(0xffff, 0xffff, 0xffff); }

  // Host-order parts; an index out of range raises Brio::RangeException.
  // wordDel/byteDel set the part to zero and report a bad index like the
  // matching setter.
  U16 word(unsigned i) const;
  U8 byte(unsigned i) const;
  void wordIs(unsigned i, U16 value);
  void byteIs(unsigned i, U8 value);
  void wordDel(unsigned i) { wordIs(i, 0); }
  void byteDel(unsigned i) { byteIs(i, 0); }

  void copyToBuffer(U8* out) const;
  U8 const* wireBytes() const { return reinterpret_cast<U8 const*>(words_); }

  // IEEE 802: the group bit is the lowest bit of the first byte.
  bool isUnicast() const { return (wireBytes()[0] & 1) == 0; }
  bool isBroadcast() const { return words_[0] == 0xffff && words_[1] == 0xffff && words_[2] == 0xffff; }
  // Deliberately excludes broadcast: callers treat flooding and group
  // delivery separately.
  bool isMulticast() const { return !isUnicast() && !isBroadcast(); }
  // RFC 2464 section 7: 33:33 followed by the low 32 bits of the group.
  bool isIp6Multicast() const { return hostWord(0) == 0x3333; }
  // RFC 1112 mapping of 224.0.0.0/24, the link-local IPv4 groups.
  bool isIp4LinkLocalMulticast() const {
    return hostWord(0) == 0x0100 && hostWord(1) == 0x5e00 && hostWord(2) < 0x0100;
  }
  // IEEE 802.1Q reserved addresses 01:80:c2:00:00:00-0f never cross a
  // bridge; 01:00:0c:cc:cc:cd is kept with them because spanning-tree
  // traffic per VLAN uses it the same way.
  bool isIEEELinkConstrained() const;

  U32 oui() const { return U32(byte(0)) << 16 | U32(byte(1)) << 8 | byte(2); }
  U32 station() const { return U32(byte(3)) << 16 | U32(byte(4)) << 8 | byte(5); }

  U32 hash() const {
    return wangHash32(U32(hostWord(0) ^ hostWord(1)) << 16 | hostWord(2));
  }
  U32 hash(U32 seed) const;

  friend bool operator==(EthAddr const& a, EthAddr const& b) {
    return a.words_[0] == b.words_[0] && a.words_[1] == b.words_[1] && a.words_[2] == b.words_[2];
  }
  friend std::strong_ordering operator<=>(EthAddr const& a, EthAddr const& b);

  // "00:1c:73:0a:0b:0c": the strep, the stream form and the stringValue.
  Brio::String stringValue() const;
  // Parses the whole text; on failure raises "Invalid EthAddr" and keeps
  // the old value.
  void stringValueIs(Brio::String const& text);
  // "001c.730a.0b0c"
  Brio::String displayString() const;
  unsigned printToBuffer(char* buf, unsigned size) const;

  // The modified EUI-64 of RFC 4291 appendix A: ff:fe in the middle and
  // the universal/local bit inverted, as IPv6 interface identifiers use it.
  Eui64 eui64() const;

 private:
  static constexpr U16 toNet(U16 v) {
    if constexpr (std::endian::native == std::endian::little) return U16(v >> 8 | v << 8);
    return v;
  }
  U16 hostWord(unsigned i) const { return toNet(words_[i]); }

  U16 words_[3];  // network order
};

static_assert(std::is_trivially_copyable_v<EthAddr> && sizeof(EthAddr) == 6);

// Index of an Eui64 byte, 0 (first on the wire) to 7.
class Eui64U8Key : public BoundedInteger<Eui64U8Key, U8, 0, 7> {
 public:
  using BoundedInteger::BoundedInteger;
  static constexpr char rangeMessage[] = "Eui64U8Key::value < 0 or > 7 not allowed";
  static constexpr char textMessage[] = "Invalid Eui64U8Key";
};

class Eui64 {
 public:
  constexpr Eui64() : bytes_{} {}
  // The eight bytes as one host-order number, first byte most significant.
  explicit Eui64(U64 value);
  explicit Eui64(Brio::String const& text);

  U8 byte(Eui64U8Key key) const { return bytes_[key.value()]; }
  void byteIs(Eui64U8Key key, U8 value) { bytes_[key.value()] = value; }
  void byteDel(Eui64U8Key key) { bytes_[key.value()] = 0; }
  void byteDelAll();
  U16 word(unsigned i) const;
  void wordIs(unsigned i, U16 value);
  U64 value() const;

  U32 hash() const;
  U32 hash(U32 seed) const;
  friend bool operator==(Eui64 const& a, Eui64 const& b);
  friend std::strong_ordering operator<=>(Eui64 const& a, Eui64 const& b);

  // "02:1c:73:ff:fe:0a:0b:0c"
  Brio::String stringValue() const;
  // On failure raises "Invalid Eui64" and keeps the old value.
  void stringValueIs(Brio::String const& text);
  unsigned printToBuffer(char* buf, unsigned size) const;

 private:
  U8 bytes_[8];  // wire order
};

static_assert(std::is_trivially_copyable_v<Eui64> && sizeof(Eui64) == 8);

class EthAddrWithMask {
 public:
  EthAddrWithMask() = default;
  EthAddrWithMask(EthAddr mac, EthAddr mask) : mac_(mac), mask_(mask) {}

  EthAddr mac() const { return mac_; }
  void macIs(EthAddr v) { mac_ = v; }
  EthAddr mask() const { return mask_; }
  void maskIs(EthAddr v) { mask_ = v; }

  U32 hash(U32 seed = 0) const;
  friend bool operator==(EthAddrWithMask const&, EthAddrWithMask const&) = default;
  friend std::strong_ordering operator<=>(EthAddrWithMask const&, EthAddrWithMask const&) = default;

 private:
  EthAddr mac_;
  EthAddr mask_;
};

static_assert(std::is_trivially_copyable_v<EthAddrWithMask>);

// Reads `count` bytes of hexadecimal group text into out, the rules of every
// address of this family: the separator after the first group decides the
// group width for the whole text (':' or '-' one byte, '.' a 16-bit word);
// groups need not be padded; reading stops right after the last group.
// Raises `message` on any fault and never looks at or past end.
void readHexGroups(Brio::StringIter& pos, Brio::StringIter const& end, U8* out, unsigned count,
                   char const* message);

// Text forms (see stringValue above); readers accept colon, hyphen and
// dotted-word text and stop right after the last group.
Brio::String valueToStrep(EthAddr const& v);
EthAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, EthAddr*);
std::ostream& operator<<(std::ostream& os, EthAddr const& v);
Brio::String valueToStrep(Eui64 const& v);
Eui64 sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Eui64*);
std::ostream& operator<<(std::ostream& os, Eui64 const& v);

inline constexpr auto ethAddrWithMaskRecord = Brio::record<EthAddrWithMask>(
    "Corvid::EthAddrWithMask", Brio::field("mac", &EthAddrWithMask::mac),
    Brio::field("mask", &EthAddrWithMask::mask));
BRIO_RECORD_TEXT_FORMS(EthAddrWithMask, ethAddrWithMaskRecord)

// Attribute-log forms: EthAddr as its three host-order words (on the wire
// that is the six address bytes in order), Eui64 as one U64, the pair as
// mac then mask.
void attrLogWrite(Brio::NboAttrLog& log, EthAddr const& v);
EthAddr attrLogRead(Brio::NboAttrLog& log, EthAddr*);
void attrLogWrite(Brio::NboAttrLog& log, Eui64 const& v);
Eui64 attrLogRead(Brio::NboAttrLog& log, Eui64*);
void attrLogWrite(Brio::NboAttrLog& log, EthAddrWithMask const& v);
EthAddrWithMask attrLogRead(Brio::NboAttrLog& log, EthAddrWithMask*);

}  // namespace Corvid

CORVID_STD_HASH(Corvid::EthAddr);
CORVID_STD_HASH(Corvid::Eui64);
CORVID_STD_HASH(Corvid::EthAddrWithMask);
