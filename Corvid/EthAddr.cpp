#include <Corvid/EthAddr.h>

#include <cstring>
#include <ostream>

namespace Corvid {

namespace {

char* writeHexByte(char* p, U8 b) {
  *p++ = lowerHexDigits[b >> 4];
  *p++ = lowerHexDigits[b & 0xf];
  return p;
}

// "xx:xx:..." for n bytes into buf (3n - 1 characters).
unsigned formatColonBytes(U8 const* bytes, unsigned n, char* buf) {
  char* p = buf;
  for (unsigned i = 0; i < n; ++i) {
    if (i) *p++ = ':';
    p = writeHexByte(p, bytes[i]);
  }
  return static_cast<unsigned>(p - buf);
}

template <class T>
void assignWhole(T& target, Brio::String const& text, char const* message) {
  Brio::StringIter pos = text.begin();
  T v = sequenceToValue(pos, text.end(), static_cast<T*>(nullptr));
  if (pos != text.end()) Brio::throwRangeException(message);
  target = v;
}

}  // namespace

void readHexGroups(Brio::StringIter& pos, Brio::StringIter const& end, U8* out, unsigned count,
                   char const* message) {
  auto fail = [message] { Brio::throwRangeException(message); };
  auto group = [&](U32 limit) {
    if (pos == end || hexDigitValue(*pos) < 0) fail();
    U32 v = 0;
    for (int d; pos != end && (d = hexDigitValue(*pos)) >= 0; ++pos) {
      v = v * 16 + static_cast<U32>(d);
      if (v > limit) fail();
    }
    return v;
  };
  U32 first = group(0xffff);
  if (pos == end) fail();
  char const sep = *pos;
  if (sep != ':' && sep != '-' && sep != '.') fail();
  bool const words = sep == '.';
  U32 const limit = words ? 0xffff : 0xff;
  if (first > limit) fail();
  unsigned filled = 0;
  U32 v = first;
  for (;;) {
    if (words) {
      out[filled++] = static_cast<U8>(v >> 8);
      out[filled++] = static_cast<U8>(v);
    } else {
      out[filled++] = static_cast<U8>(v);
    }
    if (filled >= count) break;
    if (pos == end || *pos != sep) fail();
    ++pos;
    v = group(limit);
  }
}

// --- EthAddr ---------------------------------------------------------------

EthAddr::EthAddr(U8 const* wire) { std::memcpy(words_, wire, sizeof words_); }

EthAddr::EthAddr(Brio::String const& text) : EthAddr() { stringValueIs(text); }

U16 EthAddr::word(unsigned i) const {
  if (i >= 3) Brio::throwRangeException("EthAddr::word: index out of range");
  return hostWord(i);
}

U8 EthAddr::byte(unsigned i) const {
  if (i >= 6) Brio::throwRangeException("EthAddr::byte: index out of range");
  return wireBytes()[i];
}

void EthAddr::wordIs(unsigned i, U16 value) {
  if (i >= 3) Brio::throwRangeException("EthAddr::wordIs: index out of range");
  words_[i] = toNet(value);
}

void EthAddr::byteIs(unsigned i, U8 value) {
  if (i >= 6) Brio::throwRangeException("EthAddr::byteIs: index out of range");
  reinterpret_cast<U8*>(words_)[i] = value;
}

void EthAddr::copyToBuffer(U8* out) const { std::memcpy(out, words_, sizeof words_); }

bool EthAddr::isIEEELinkConstrained() const {
  if (hostWord(0) == 0x0180 && hostWord(1) == 0xc200 && hostWord(2) < 16) return true;
  return *this == EthAddr(0x0100, 0x0ccc, 0xcccd);
}

U32 EthAddr::hash(U32 seed) const {
  return Brio::Hash(seed).mix(words_[0]).mix(words_[1]).mix(words_[2]).result();
}

std::strong_ordering operator<=>(EthAddr const& a, EthAddr const& b) {
  // Bytes in wire order compare like the host-order words w0, w1, w2.
  int c = std::memcmp(a.words_, b.words_, sizeof a.words_);
  return c <=> 0;
}

Brio::String EthAddr::stringValue() const {
  char buf[17];
  return Brio::String(buf, formatColonBytes(wireBytes(), 6, buf));
}

void EthAddr::stringValueIs(Brio::String const& text) { assignWhole(*this, text, "Invalid EthAddr"); }

Brio::String EthAddr::displayString() const {
  char buf[14];
  char* p = buf;
  for (unsigned i = 0; i < 6; ++i) {
    if (i == 2 || i == 4) *p++ = '.';
    p = writeHexByte(p, wireBytes()[i]);
  }
  return Brio::String(buf, sizeof buf);
}

unsigned EthAddr::printToBuffer(char* buf, unsigned size) const {
  char text[17];
  return printTextToBuffer(std::string_view(text, formatColonBytes(wireBytes(), 6, text)), buf, size);
}

Eui64 EthAddr::eui64() const {
  U8 const* b = wireBytes();
  U64 v = U64(b[0] ^ 0x02) << 56 | U64(b[1]) << 48 | U64(b[2]) << 40 | U64(0xfffe) << 24 |
          U64(b[3]) << 16 | U64(b[4]) << 8 | b[5];
  return Eui64(v);
}

Brio::String valueToStrep(EthAddr const& v) { return v.stringValue(); }

EthAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, EthAddr*) {
  U8 bytes[6];
  readHexGroups(pos, end, bytes, 6, "Invalid EthAddr");
  return EthAddr(bytes);
}

std::ostream& operator<<(std::ostream& os, EthAddr const& v) {
  char text[17];
  return os.write(text, formatColonBytes(v.wireBytes(), 6, text));
}

void attrLogWrite(Brio::NboAttrLog& log, EthAddr const& v) {
  for (unsigned i = 0; i < 3; ++i) log.writeU16(v.word(i));
}

EthAddr attrLogRead(Brio::NboAttrLog& log, EthAddr*) {
  U16 w0 = log.readU16();
  U16 w1 = log.readU16();
  U16 w2 = log.readU16();
  return EthAddr(w0, w1, w2);
}

// --- Eui64 -----------------------------------------------------------------

Eui64::Eui64(U64 value) {
  for (int i = 7; i >= 0; --i, value >>= 8) bytes_[i] = static_cast<U8>(value);
}

Eui64::Eui64(Brio::String const& text) : Eui64() { stringValueIs(text); }

void Eui64::byteDelAll() { std::memset(bytes_, 0, sizeof bytes_); }

U16 Eui64::word(unsigned i) const {
  if (i >= 4) Brio::throwRangeException("Eui64::word: index out of range");
  return U16(bytes_[2 * i] << 8 | bytes_[2 * i + 1]);
}

void Eui64::wordIs(unsigned i, U16 value) {
  if (i >= 4) Brio::throwRangeException("Eui64::wordIs: index out of range");
  bytes_[2 * i] = static_cast<U8>(value >> 8);
  bytes_[2 * i + 1] = static_cast<U8>(value);
}

U64 Eui64::value() const {
  U64 v = 0;
  for (U8 b : bytes_) v = v << 8 | b;
  return v;
}

U32 Eui64::hash() const {
  U64 v = value();
  return wangHash32(static_cast<U32>(v >> 32) ^ wangHash32(static_cast<U32>(v)));
}

U32 Eui64::hash(U32 seed) const { return Brio::Hash(seed).mix(value()).result(); }

bool operator==(Eui64 const& a, Eui64 const& b) { return std::memcmp(a.bytes_, b.bytes_, 8) == 0; }

std::strong_ordering operator<=>(Eui64 const& a, Eui64 const& b) {
  return std::memcmp(a.bytes_, b.bytes_, 8) <=> 0;
}

Brio::String Eui64::stringValue() const {
  char buf[23];
  return Brio::String(buf, formatColonBytes(bytes_, 8, buf));
}

void Eui64::stringValueIs(Brio::String const& text) { assignWhole(*this, text, "Invalid Eui64"); }

unsigned Eui64::printToBuffer(char* buf, unsigned size) const {
  char text[23];
  return printTextToBuffer(std::string_view(text, formatColonBytes(bytes_, 8, text)), buf, size);
}

Brio::String valueToStrep(Eui64 const& v) { return v.stringValue(); }

Eui64 sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Eui64*) {
  U8 bytes[8];
  readHexGroups(pos, end, bytes, 8, "Invalid Eui64");
  U64 v = 0;
  for (U8 b : bytes) v = v << 8 | b;
  return Eui64(v);
}

std::ostream& operator<<(std::ostream& os, Eui64 const& v) { return os << v.stringValue().view(); }

void attrLogWrite(Brio::NboAttrLog& log, Eui64 const& v) { log.writeU64(v.value()); }

Eui64 attrLogRead(Brio::NboAttrLog& log, Eui64*) { return Eui64(log.readU64()); }

// --- EthAddrWithMask -------------------------------------------------------

U32 EthAddrWithMask::hash(U32 seed) const { return Brio::Hash(seed).mix(mac_.hash()).mix(mask_.hash()).result(); }

void attrLogWrite(Brio::NboAttrLog& log, EthAddrWithMask const& v) {
  attrLogWrite(log, v.mac());
  attrLogWrite(log, v.mask());
}

EthAddrWithMask attrLogRead(Brio::NboAttrLog& log, EthAddrWithMask*) {
  EthAddr mac = attrLogRead(log, static_cast<EthAddr*>(nullptr));
  EthAddr mask = attrLogRead(log, static_cast<EthAddr*>(nullptr));
  return EthAddrWithMask(mac, mask);
}

}  // namespace Corvid
