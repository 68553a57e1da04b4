// IPv4 values, the module's message table and its shared text helpers.
#include <Corvid/Ip.h>

#include <Flagset/Flagset.h>
#include <linux/rtnetlink.h>

#include <array>

namespace Corvid {

namespace ipDetail {

char const* textErrorMessage(TextError e) {
  switch (e) {
    case TextError::none: return "";
    case TextError::invalidIpAddr: return "Invalid IpAddr";
    case TextError::prematurePrefix: return "premature end of Prefix type";
    case TextError::prefixNonZero: return "Invalid Prefix - non-zero after prefixlen";
    case TextError::invalidIpv4Prefix: return "Invalid IPv4 prefix";
    case TextError::invalidIpv4PrefixLength: return "Invalid IPv4 prefix length";
    case TextError::ip6TooManyColons: return "Ip6Addr: too many colons";
    case TextError::ip6HexDigitExpected: return "Ip6Addr: hex digit expected";
    case TextError::ip6HexValueTooLarge: return "Ip6Addr: hex value too large";
    case TextError::ip6ColonExpected: return "Ip6Addr: ':' expected";
    case TextError::ip6OnlyOneDoubleColon: return "Ip6Addr: only one '::' allowed";
    case TextError::ip6LeadingHexDigitExpected: return "Ip6Addr: leading hex digit expected";
    case TextError::ip6TooManyHexDigits: return "Ip6Addr: too many consecutive hex digits";
    case TextError::ip6Incomplete: return "Ip6Addr: incomplete ipv6 address";
    case TextError::ip6Trailing: return "Ip6Addr: unexpected trailing characters";
    case TextError::ip6NotExpanded: return "Ip6Addr: address is not expanded";
    case TextError::ip6PrefixSizeExpected: return "Ip6AddrWithMask: prefix size expected";
    case TextError::ip6PrefixTooLong: return "Ip6AddrWithMask: prefix too long";
    case TextError::ip6MaskExpected: return "Ip6AddrWithFullMask: mask expected";
    case TextError::invalidIpGenAddr: return "Invalid IpGenAddr";
    case TextError::invalidAddressFamily: return "Invalid AddressFamily";
  }
  return "";
}

void throwTextError(TextError e) { Brio::throwRangeException(textErrorMessage(e)); }

unsigned writeDecimal(char* out, U32 v) {
  char digits[10];
  unsigned n = 0;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  for (unsigned i = 0; i < n; ++i) out[i] = digits[n - 1 - i];
  return n;
}

}  // namespace ipDetail

namespace {

using ipDetail::TextError;

// The text of every octet, stored so that one four-byte copy writes it: the
// digits, then their count in the fourth byte (overwritten by what follows).
// Against the C library's formatted printing this is what makes the printer
// cheap; see bench/IpBench.cpp.
struct OctetText {
  char text[3];
  U8 len;
};

constexpr std::array<OctetText, 256> makeOctetTexts() {
  std::array<OctetText, 256> t{};
  for (unsigned v = 0; v < 256; ++v) {
    OctetText& o = t[v];
    if (v >= 100) {
      o = {{char('0' + v / 100), char('0' + v / 10 % 10), char('0' + v % 10)}, 3};
    } else if (v >= 10) {
      o = {{char('0' + v / 10), char('0' + v % 10), 0}, 2};
    } else {
      o = {{char('0' + v), 0, 0}, 1};
    }
  }
  return t;
}

constexpr std::array<OctetText, 256> octetTexts = makeOctetTexts();
static_assert(sizeof(OctetText) == 4);

unsigned writeAddressAndLen(char* out, IpAddr address, U32 len) {
  unsigned n = address.writeText(out);
  out[n++] = '/';
  return n + ipDetail::writeDecimal(out + n, len);
}

// "a.b.c.d/len" at p: the shared reader of Prefix and IpAddrWithMask. The
// length keeps the low 32 bits of its digits, like dectol.
TextError readAddressAndLen(char const*& p, char const* e, IpAddr* address, U32* len) {
  U32 nbo;
  char const* q = ipDetail::readIpv4(p, e, &nbo);
  if (!q) return TextError::invalidIpAddr;
  if (e - q < 2 || q[0] != '/' || !ipDetail::isDecimalDigit(q[1])) return TextError::prematurePrefix;
  ++q;
  U32 v = 0;
  while (q != e && ipDetail::isDecimalDigit(*q)) v = v * 10 + static_cast<U32>(*q++ - '0');
  *address = IpAddr::fromNetworkOrder(nbo);
  *len = v;
  p = q;
  return TextError::none;
}

// The prefix reader's validity rule: unlike the constructor it has no
// sentinel, so any length above 32 is refused.
bool readableAsPrefix(IpAddr address, U32 len) {
  return len == 32 || (len < 32 && (address.hostOrder() & (0xffffffffu >> len)) == 0);
}

TextError readPrefix(char const*& p, char const* e, Prefix* out) {
  IpAddr address;
  U32 len;
  TextError err = readAddressAndLen(p, e, &address, &len);
  if (err != TextError::none) return err;
  if (!readableAsPrefix(address, len)) return TextError::prefixNonZero;
  *out = Prefix(address, len);
  return TextError::none;
}

template <std::size_t N>
bool copyRtaPayload(rtattr const* rta, void* out) {
  if (rta->rta_len < RTA_LENGTH(N)) return false;
  std::memcpy(out, reinterpret_cast<unsigned char const*>(rta) + RTA_LENGTH(0), N);
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// IpAddr

bool IpAddr::isReserved(bool allowClassE) const {
  // Read once per process: agents are restarted to pick up a changed toggle.
  static unsigned const routable240 =
      Flagset::getToggleState("Ipv4Routable240ClassE", "Corvid.json", true) & 1u;
  if (routable240 && allowClassE) return false;
  U32 h = hostOrder();
  return (h >> 28) == 0xf && h != 0xffffffff;
}

unsigned IpAddr::writeText(char* out) const {
  U32 const h = hostOrder();
  char* p = out;
  for (int shift = 24;; shift -= 8) {
    OctetText const& o = octetTexts[(h >> shift) & 0xff];
    std::memcpy(p, &o, sizeof o);
    p += o.len;
    if (shift == 0) break;
    *p++ = '.';
  }
  return static_cast<unsigned>(p - out);
}

void IpAddr::stringValueIs(Brio::String const& text) {
  char const* p = text.data();
  char const* const e = p + text.bytes();
  U32 nbo;
  char const* q = ipDetail::readIpv4(p, e, &nbo);
  if (!q || q != e) ipDetail::throwTextError(TextError::invalidIpAddr);
  nbo_ = nbo;
}

// ---------------------------------------------------------------------------
// Prefix, IpAddrWithMask

Prefix::Prefix(IpAddr address, U32 len) : address_(address), len_(len) {
  if (!validAsPrefix()) Brio::throwRangeException("Prefix::validAsPrefix != true not allowed");
}

IpAddr Prefix::subnetHost(IpAddr host) const {
  if (len_ >= 1 && len_ <= 32 && (host.hostOrder() & (0xffffffffu << (32 - len_))) != 0) {
    Brio::throwRangeException("Host address too long");
  }
  return IpAddr::fromNetworkOrder(address_.networkOrder() | host.networkOrder());
}

bool operator<(Prefix const& a, Prefix const& b) {
  U32 const m = a.len_ < b.len_ ? a.len_ : b.len_;
  if (m == 0 || m > 32) return a.len_ > b.len_;
  U32 const x = a.address_.hostOrder();
  U32 const y = b.address_.hostOrder();
  if ((x ^ y) >> (32 - m)) return x < y;
  return a.len_ > b.len_;
}

void Prefix::stringValueIs(Brio::String const& text) {
  char const* p = text.data();
  char const* const e = p + text.bytes();
  Prefix v;
  TextError err = readPrefix(p, e, &v);
  if (err == TextError::none && p != e) err = TextError::prefixNonZero;
  if (err != TextError::none) ipDetail::throwTextError(err);
  *this = v;
}

unsigned Prefix::writeText(char* out) const { return writeAddressAndLen(out, address_, len_); }
unsigned IpAddrWithMask::writeText(char* out) const { return writeAddressAndLen(out, address_, len_); }

Prefix sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Prefix*) {
  char const* const start = ipDetail::at(pos);
  char const* p = start;
  Prefix v;
  TextError err = readPrefix(p, ipDetail::at(end), &v);
  if (err != TextError::none) ipDetail::throwTextError(err);
  pos += p - start;
  return v;
}

IpAddrWithMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpAddrWithMask*) {
  char const* const start = ipDetail::at(pos);
  char const* p = start;
  IpAddr address;
  U32 len;
  TextError err = readAddressAndLen(p, ipDetail::at(end), &address, &len);
  if (err != TextError::none) ipDetail::throwTextError(err);
  pos += p - start;
  return IpAddrWithMask(address, len);
}

// ---------------------------------------------------------------------------
// Mask functions

void throwPrefixToFullMask() { ipDetail::throwTextError(TextError::invalidIpv4PrefixLength); }
void throwPrefixLen() { ipDetail::throwTextError(TextError::prematurePrefix); }

U32 sequenceToPrefixFullMask(Brio::StringIter& pos, Brio::StringIter const& end) {
  if (end - pos < 2 || pos[0] != '/' || !ipDetail::isDecimalDigit(pos[1])) throwPrefixLen();
  ++pos;
  S64 const number = Brio::dectol(pos, end);
  if (pos != end) ipDetail::throwTextError(TextError::invalidIpv4Prefix);
  U32 const len = static_cast<U32>(number) & 0xff;
  if (len > 32) throwPrefixToFullMask();
  if (len == 0) return 0;
  return ipDetail::swapNet32(0xffffffffu << (32 - len));
}

// ---------------------------------------------------------------------------
// Attribute log and netlink

void attrLogWrite(Brio::NboAttrLog& log, IpAddr const& v) { log.writeU32(v.hostOrder()); }
IpAddr attrLogRead(Brio::NboAttrLog& log, IpAddr*) { return IpAddr::fromHostOrder(log.readU32()); }

void attrLogWrite(Brio::NboAttrLog& log, Prefix const& v) { ipDetail::attrLogWriteFields(log, v.address(), v.len()); }
Prefix attrLogRead(Brio::NboAttrLog& log, Prefix*) { return ipDetail::attrLogReadFields<Prefix, IpAddr, U32>(log); }
void attrLogWrite(Brio::NboAttrLog& log, IpAddrWithMask const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.len());
}
IpAddrWithMask attrLogRead(Brio::NboAttrLog& log, IpAddrWithMask*) {
  return ipDetail::attrLogReadFields<IpAddrWithMask, IpAddr, U32>(log);
}
void attrLogWrite(Brio::NboAttrLog& log, IpAddrWithFullMask const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.mask());
}
IpAddrWithFullMask attrLogRead(Brio::NboAttrLog& log, IpAddrWithFullMask*) {
  return ipDetail::attrLogReadFields<IpAddrWithFullMask, IpAddr, U32>(log);
}

bool getRtaAddr(rtattr const* rta, IpAddr* out) {
  U32 nbo;
  if (!copyRtaPayload<4>(rta, &nbo)) return false;
  *out = IpAddr::fromNetworkOrder(nbo);
  return true;
}

bool getRtaAddr(rtattr const* rta, Ip6Addr* out) {
  unsigned char bytes[16];
  if (!copyRtaPayload<16>(rta, bytes)) return false;
  out->copyFromBuffer(bytes);
  return true;
}

bool getRtaAddr(rtattr const* rta, EthAddr* out) {
  U8 bytes[6];
  if (!copyRtaPayload<6>(rta, bytes)) return false;
  *out = EthAddr(bytes);
  return true;
}

}  // namespace Corvid
