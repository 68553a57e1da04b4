// IPv6 values: element access, masks, the RFC 5952 printer and the reader.
#include <Corvid/Ip.h>

#include <Fennel/Fennel.h>

#include <array>
#include <bit>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Corvid {

namespace {

using ipDetail::TextError;

// Digit values by character, -1 for a non-digit: one load per character in
// the reader instead of three range tests.
constexpr std::array<S8, 256> makeHexTable() {
  std::array<S8, 256> t{};
  for (unsigned c = 0; c < 256; ++c) t[c] = static_cast<S8>(hexDigitValue(static_cast<char>(c)));
  return t;
}
constexpr std::array<S8, 256> hexTable = makeHexTable();

inline int hexValue(char c) { return hexTable[static_cast<unsigned char>(c)]; }

// Group text without leading zeros.
char* writeHex16(char* p, U32 v) {
  unsigned const digits = (35 - static_cast<unsigned>(std::countl_zero(v | 1))) >> 2;
  for (unsigned i = digits; i-- > 0; v >>= 4) p[i] = lowerHexDigits[v & 0xf];
  return p + digits;
}

[[noreturn]] void indexOutOfRange(char const* call) {
  Brio::throwRangeException(std::string("Ip6Addr::") + call + ": index out of range");
}

// A length after '/' at p: decimal digits, saturating so that a long run
// is still refused as too long rather than wrapping.
TextError readLength(char const*& p, char const* e, U32* len) {
  if (p == e || !ipDetail::isDecimalDigit(*p)) return TextError::ip6PrefixSizeExpected;
  U32 v = 0;
  for (; p != e && ipDetail::isDecimalDigit(*p); ++p) {
    if (v <= 128) v = v * 10 + static_cast<U32>(*p - '0');
  }
  if (v > 128) return TextError::ip6PrefixTooLong;
  *len = v;
  return TextError::none;
}

TextError readFullMask(char const*& p, char const* e, Ip6AddrWithFullMask* out) {
  Ip6Addr address;
  TextError err = ipDetail::readIp6(p, e, &address);
  if (err != TextError::none) return err;
  if (p == e || *p != '/') return TextError::ip6MaskExpected;
  ++p;
  // The writer gives "/len" for contiguous masks: a decimal run that does
  // not go on as an address is a length.
  char const* r = p;
  bool decimal = true;
  for (; r != e && hexValue(*r) >= 0; ++r) decimal = decimal && ipDetail::isDecimalDigit(*r);
  Ip6Addr mask;
  if (r != p && decimal && (r == e || (*r != ':' && *r != '.'))) {
    U32 len;
    err = readLength(p, e, &len);
    if (err != TextError::none) return err;
    mask = Ip6Addr::maskOfLength(len);
  } else {
    err = ipDetail::readIp6(p, e, &mask);
    if (err != TextError::none) return err;
  }
  *out = Ip6AddrWithFullMask(address, mask);
  return TextError::none;
}

template <class T, class Reader>
T readAt(Brio::StringIter& pos, Brio::StringIter const& end, Reader read) {
  char const* const start = ipDetail::at(pos);
  char const* p = start;
  T v;
  TextError err = read(p, ipDetail::at(end), &v);
  if (err != TextError::none) ipDetail::throwTextError(err);
  pos += p - start;
  return v;
}

template <class T>
TextError readAddrAndLen(char const*& p, char const* e, T* out) {
  Ip6Addr address;
  U32 len;
  TextError err = ipDetail::readIp6AndLen(p, e, &address, &len);
  if (err == TextError::none) *out = T(address, len);
  return err;
}

}  // namespace

// ---------------------------------------------------------------------------
// Element access and masks

U8 Ip6Addr::u8(unsigned i) const {
  if (i >= 16) indexOutOfRange("u8");
  return bytes()[i];
}
U16 Ip6Addr::u16(unsigned i) const {
  if (i >= 8) indexOutOfRange("u16");
  return static_cast<U16>(hostWord(i / 2) >> (i % 2 ? 0 : 16));
}
U32 Ip6Addr::u32(unsigned i) const {
  if (i >= 4) indexOutOfRange("u32");
  return hostWord(i);
}
U64 Ip6Addr::u64(unsigned i) const {
  if (i >= 2) indexOutOfRange("u64");
  return U64(hostWord(2 * i)) << 32 | hostWord(2 * i + 1);
}
void Ip6Addr::u8Is(unsigned i, U8 v) {
  if (i >= 16) indexOutOfRange("u8Is");
  reinterpret_cast<U8*>(words_)[i] = v;
}
void Ip6Addr::u16Is(unsigned i, U16 v) {
  if (i >= 8) indexOutOfRange("u16Is");
  U32 const shift = i % 2 ? 0 : 16;
  U32 const h = hostWord(i / 2);
  words_[i / 2] = ipDetail::swapNet32((h & ~(0xffffu << shift)) | U32(v) << shift);
}
void Ip6Addr::u32Is(unsigned i, U32 v) {
  if (i >= 4) indexOutOfRange("u32Is");
  words_[i] = ipDetail::swapNet32(v);
}
void Ip6Addr::u64Is(unsigned i, U64 v) {
  if (i >= 2) indexOutOfRange("u64Is");
  words_[2 * i] = ipDetail::swapNet32(static_cast<U32>(v >> 32));
  words_[2 * i + 1] = ipDetail::swapNet32(static_cast<U32>(v));
}

Ip6Addr Ip6Addr::maskOfLength(U32 len) {
  FENNEL_ASSERT(len <= 128);
  U32 w[4];
  for (unsigned i = 0; i < 4; ++i) {
    U32 const bits = len > 32 * i ? len - 32 * i : 0;
    w[i] = bits >= 32 ? 0xffffffffu : bits == 0 ? 0 : 0xffffffffu << (32 - bits);
  }
  return fromHostWords(w[0], w[1], w[2], w[3]);
}

Ip6Addr Ip6Addr::ip6AddrMaskedByLength(U32 len) const {
  FENNEL_ASSERT(len <= 128);
  return *this & maskOfLength(len);
}

U32 Ip6Addr::longestCommonPrefix(Ip6Addr const& other) const {
  U32 n = 0;
  for (unsigned i = 0; i < 4; ++i) {
    U32 const x = hostWord(i) ^ other.hostWord(i);
    if (x) return n + static_cast<U32>(std::countl_zero(x));
    n += 32;
  }
  return n;
}

// ---------------------------------------------------------------------------
// Text

unsigned Ip6Addr::writeText(char* out) const {
  char* p = out;
  if (isV4MappedV6()) {
    std::memcpy(p, "::ffff:", 7);
    p += 7;
    p += IpAddr::fromNetworkOrder(words_[3]).writeText(p);
    return static_cast<unsigned>(p - out);
  }
  U32 g[8];
  for (unsigned i = 0; i < 4; ++i) {
    U32 const h = hostWord(i);
    g[2 * i] = h >> 16;
    g[2 * i + 1] = h & 0xffff;
  }
  // The first of the longest runs of two or more zero groups is compressed
  // (RFC 5952 section 4.2).
  int bestStart = -1, bestLen = 1, runStart = -1;
  for (int i = 0; i <= 8; ++i) {
    if (i < 8 && g[i] == 0) {
      if (runStart < 0) runStart = i;
    } else if (runStart >= 0) {
      if (i - runStart > bestLen) {
        bestStart = runStart;
        bestLen = i - runStart;
      }
      runStart = -1;
    }
  }
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      *p++ = ':';
      *p++ = ':';
      i += bestLen - 1;
      continue;
    }
    if (i > 0 && i != bestStart + bestLen) *p++ = ':';
    p = writeHex16(p, g[i]);
  }
  return static_cast<unsigned>(p - out);
}

Brio::String Ip6Addr::stringValueExpanded() const {
  char text[expandedTextBytes];
  char* p = text;
  for (unsigned i = 0; i < 8; ++i) {
    if (i) *p++ = ':';
    U32 const v = u16(i);
    for (int shift = 12; shift >= 0; shift -= 4) *p++ = lowerHexDigits[(v >> shift) & 0xf];
  }
  return Brio::String(text, sizeof text);
}

void Ip6Addr::stringValueIs(Brio::String const& text) {
  char const* p = text.data();
  char const* const e = p + text.bytes();
  Ip6Addr v;
  TextError err = ipDetail::readIp6(p, e, &v);
  if (err == TextError::none && p != e) err = TextError::ip6Trailing;
  if (err != TextError::none) ipDetail::throwTextError(err);
  *this = v;
}

void Ip6Addr::stringValueExpandedIs(Brio::String const& text) {
  char const* const p = text.data();
  char const* const e = p + text.bytes();
  Ip6Addr v;
  char const* q = p;
  bool expanded = e - p >= static_cast<long>(expandedTextBytes);
  for (unsigned i = 0; expanded && i < 8; ++i) {
    U32 group = 0;
    for (unsigned k = 0; k < 4 && expanded; ++k, ++q) {
      int const d = hexValue(*q);
      expanded = d >= 0;
      group = group << 4 | static_cast<U32>(d);
    }
    if (!expanded) break;
    v.u16Is(i, static_cast<U16>(group));
    if (i < 7) expanded = *q++ == ':';
  }
  if (!expanded) {
    static constexpr std::string_view zeroGroups = "0:0:0:0:0:0:0:0";
    if (static_cast<std::size_t>(e - p) < zeroGroups.size() || std::string_view(p, zeroGroups.size()) != zeroGroups) {
      ipDetail::throwTextError(TextError::ip6NotExpanded);
    }
    v = Ip6Addr();
    q = p + zeroGroups.size();
  }
  if (q != e) ipDetail::throwTextError(TextError::ip6Trailing);
  *this = v;
}

namespace ipDetail {

namespace {

// Groups into an address, the "::" (at group index gap, -1 for none)
// standing for the missing groups.
Ip6Addr fromGroups(U32 const* g, int n, int gap) {
  U32 full[8];
  if (gap < 0) {
    std::memcpy(full, g, sizeof full);
  } else {
    int const zeros = 8 - n;
    for (int i = 0; i < gap; ++i) full[i] = g[i];
    for (int i = 0; i < zeros; ++i) full[gap + i] = 0;
    for (int i = gap; i < n; ++i) full[zeros + i] = g[i];
  }
  return Ip6Addr::fromHostWords(full[0] << 16 | full[1], full[2] << 16 | full[3], full[4] << 16 | full[5],
                                full[6] << 16 | full[7]);
}


// The grammar, and which message each fault gets:
//   empty text                                  incomplete ipv6 address
//   ':' not doubled at the start (":1::")       ':' expected
//   anything else not a hex digit at the start  leading hex digit expected
//   ":::" anywhere                              too many colons
//   a second "::"                               only one '::' allowed
//   no hex digit after a single ':' ("1:", "1:x") hex digit expected
//   a group above ffff                          hex value too large
//   a group of five or more digits (00001)      too many consecutive hex digits
//   more groups than fit, or ':' after the last too many colons
//   fewer than eight groups and no "::"         incomplete ipv6 address
//   a group followed by neither ':' nor the end ':' expected
// A run of digits followed by '.' is a dotted quad (read by the IPv4 reader,
// "Invalid IpAddr" if malformed) standing for the last two groups; the
// address ends after it. Without a "::" the address ends after the eighth
// group; with one, where the next character cannot continue it.
TextError readIp6Checked(char const*& pos, char const* e, Ip6Addr* out) {
  char const* p = pos;
  U32 g[8];
  int n = 0;
  int gap = -1;
  if (p == e) return TextError::ip6Incomplete;
  if (*p == ':') {
    if (p + 1 == e || p[1] != ':') return TextError::ip6ColonExpected;
    p += 2;
    gap = 0;
    if (p != e && *p == ':') return TextError::ip6TooManyColons;
    if (p == e || hexValue(*p) < 0) goto done;
  } else if (hexValue(*p) < 0) {
    return TextError::ip6LeadingHexDigitExpected;
  }
  for (;;) {
    char const* const start = p;
    U32 v = 0;
    for (int d; p != e && (d = hexValue(*p)) >= 0; ++p) {
      if (v <= 0xffff) v = v << 4 | static_cast<U32>(d);
    }
    if (p != e && *p == '.') {
      if (gap < 0 && n < 6) return TextError::ip6Incomplete;
      if (n > (gap < 0 ? 6 : 5)) return TextError::ip6TooManyColons;
      U32 nbo;
      char const* q = readIpv4(start, e, &nbo);
      if (!q) return TextError::invalidIpAddr;
      U32 const h = swapNet32(nbo);
      g[n++] = h >> 16;
      g[n++] = h & 0xffff;
      p = q;
      break;
    }
    if (v > 0xffff) return TextError::ip6HexValueTooLarge;
    if (p - start > 4) return TextError::ip6TooManyHexDigits;
    g[n++] = v;
    if (n >= (gap < 0 ? 8 : 7)) {
      if (p != e && *p == ':') return TextError::ip6TooManyColons;
      break;
    }
    if (p == e || *p != ':') {
      if (gap >= 0) break;
      return p == e ? TextError::ip6Incomplete : TextError::ip6ColonExpected;
    }
    ++p;
    if (p != e && *p == ':') {
      if (gap >= 0) return TextError::ip6OnlyOneDoubleColon;
      ++p;
      gap = n;
      if (p != e && *p == ':') return TextError::ip6TooManyColons;
      if (p == e || hexValue(*p) < 0) break;
      // Seven groups and a "::" already make eight.
      if (n == 7) return TextError::ip6TooManyColons;
      continue;
    }
    if (p == e || hexValue(*p) < 0) return TextError::ip6HexDigitExpected;
  }
done:
  *out = fromGroups(g, n, gap);
  pos = p;
  return TextError::none;
}

#if defined(__SSE2__)

// The reader above spends most of its time deciding, character by
// character, what each one is. The common well-formed address is read here
// instead: the first 48 characters (more than the longest address without a
// dotted quad) are classified sixteen at a time into bit masks of hex digits
// and colons, and for every character the value of the group that would
// end there (up to four digits back, stopping at a non-digit) is computed
// in the same vector steps; each group is then one load. Anything this
// path does not accept (any error, a group of five digits, ":::") goes to
// the checked reader, so the messages and the accepted language are that
// reader's.
constexpr int scanBytes = 48;

struct Scan {
  U64 hex;    // bit i: character i is a hex digit
  U64 colon;  // bit i: character i is ':'
  alignas(16) U16 group[scanBytes];  // the value of the digit run ending at i (its last four digits)
};

inline U64 load64(char const* p) {
  U64 v;
  std::memcpy(&v, p, 8);
  return v;
}

inline U32 load32(char const* p) {
  U32 v;
  std::memcpy(&v, p, 4);
  return v;
}

// The k < 16 characters at p as a vector, NUL after them. Built in
// registers from loads inside the text: copying the tail to a buffer first
// costs a failed store-to-load forward on every address.
inline __m128i loadPartial(char const* p, std::size_t k) {
  U64 lo = 0, hi = 0;
  if (k >= 8) {
    lo = load64(p);
    if (k > 8) hi = load64(p + k - 8) >> (8 * (16 - k));
  } else if (k >= 4) {
    lo = load32(p) | U64(load32(p + k - 4)) << (8 * (k - 4));
  } else if (k > 0) {
    lo = U8(p[0]) | U64(U8(p[k / 2])) << (8 * (k / 2)) | U64(U8(p[k - 1])) << (8 * (k - 1));
  }
  return _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo));
}

// x moved up by N bytes, the bytes of the vector before it coming in below.
template <int N>
inline __m128i shiftIn(__m128i x, __m128i before) {
  return _mm_or_si128(_mm_slli_si128(x, N), _mm_srli_si128(before, 16 - N));
}

// Classifies the first 48 characters of text[0, len), NUL past its end.
inline void scan(char const* text, std::size_t len, Scan* s) {
  __m128i const zeroDigit = _mm_set1_epi8('0'), nine = _mm_set1_epi8(9);
  __m128i const lowerA = _mm_set1_epi8('a'), five = _mm_set1_epi8(5), caseBit = _mm_set1_epi8(0x20);
  __m128i const colon = _mm_set1_epi8(':'), low = _mm_set1_epi8(0x0f);
  __m128i prevHex = _mm_setzero_si128(), prevValue = _mm_setzero_si128(), prevPair = _mm_setzero_si128();
  U64 hex = 0, colons = 0;
  for (std::size_t c = 0; c < scanBytes && c <= len; c += 16) {
    __m128i const x = len - c >= 16 ? _mm_loadu_si128(reinterpret_cast<__m128i const*>(text + c))
                                    : loadPartial(text + c, len - c);
    __m128i const d = _mm_sub_epi8(x, zeroDigit);
    __m128i const isDigit = _mm_cmpeq_epi8(_mm_min_epu8(d, nine), d);
    __m128i const a = _mm_sub_epi8(_mm_or_si128(x, caseBit), lowerA);
    __m128i const isLetter = _mm_cmpeq_epi8(_mm_min_epu8(a, five), a);
    __m128i const isHex = _mm_or_si128(isDigit, isLetter);
    // '0'..'9' -> 0..9 by the low nibble, 'a'..'f' and 'A'..'F' -> 1..6 + 9.
    __m128i const value =
        _mm_and_si128(isHex, _mm_add_epi8(_mm_and_si128(x, low), _mm_and_si128(isLetter, nine)));
    // The last two digits of the run ending at each character, then the
    // two before them: both stop at the first non-digit going back.
    __m128i const hex1 = shiftIn<1>(isHex, prevHex);
    __m128i const pair = _mm_or_si128(value, _mm_slli_epi16(_mm_and_si128(hex1, shiftIn<1>(value, prevValue)), 4));
    __m128i const upper = _mm_and_si128(_mm_and_si128(hex1, shiftIn<2>(isHex, prevHex)), shiftIn<2>(pair, prevPair));
    _mm_store_si128(reinterpret_cast<__m128i*>(s->group + c), _mm_unpacklo_epi8(pair, upper));
    _mm_store_si128(reinterpret_cast<__m128i*>(s->group + c + 8), _mm_unpackhi_epi8(pair, upper));
    prevHex = isHex;
    prevValue = value;
    prevPair = pair;
    hex |= U64(static_cast<U16>(_mm_movemask_epi8(isHex))) << c;
    colons |= U64(static_cast<U16>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, colon)))) << c;
  }
  s->hex = hex;
  s->colon = colons;
}

// Reads text[0, len) into out and returns the characters taken, or 0 when
// the checked reader must decide.
//
// An address the checked reader accepts is the whole run of hex digits and
// colons at the start (ended by a dotted quad, or by any other character),
// so the run is judged at once from the masks: no group of five digits, no
// ":::", at most one "::", no single colon at either edge, and eight groups
// (six before a quad) without "::", fewer with it. Each group's value is
// then the scan's entry at its last digit: no per-group decisions, which a
// character walk mispredicts on real mixes of addresses.
int readIp6Fast(char const* text, char const* e, std::size_t len, Ip6Addr* out) {
  Scan s;
  scan(text, len, &s);
  int const run = std::countr_zero(~(s.hex | s.colon));
  if (run < 2 || run >= scanBytes) return 0;
  bool const quad = static_cast<std::size_t>(run) < len && text[run] == '.';
  // Without a quad the groups fill the run; with one they end at its last
  // colon and the quad's first number is the rest.
  int const end = quad ? std::bit_width(s.colon & ((U64(1) << run) - 1)) : run;
  if (end < 2) return 0;
  U64 const inside = (U64(1) << end) - 1;
  U64 const hex = s.hex & inside, colon = s.colon & inside;
  U64 const doubled = colon & (colon >> 1);  // bit i: "::" at i
  U64 const lasts = hex & ~(hex >> 1);
  bool const bad = (hex & (hex >> 1) & (hex >> 2) & (hex >> 3) & (hex >> 4)) ||  // five digits
                   (doubled & (doubled >> 1)) || (doubled & (doubled - 1)) ||   // ":::", a second "::"
                   ((colon & 1) && !(doubled & 1)) ||                           // ":1"
                   (!quad && ((colon >> (end - 1)) & 1) && !((doubled >> (end - 2)) & 1));  // "1:"
  if (bad) return 0;
  // The groups before "::" (all of them without one) and those after it,
  // each counted as it is read: the x86-64 baseline has no popcount.
  unsigned __int128 head = 0, tail = 0;
  int before = 0, after = 0;
  for (U64 l = lasts & (doubled - 1); l; l &= l - 1, ++before) head = head << 16 | s.group[std::countr_zero(l)];
  for (U64 l = lasts & ~(doubled - 1); l; l &= l - 1, ++after) tail = tail << 16 | s.group[std::countr_zero(l)];
  int const groups = before + after, wanted = quad ? 6 : 8;
  if (doubled ? groups >= wanted : groups != wanted) return 0;
  int taken = end;
  if (quad) {
    U32 nbo;
    char const* q = ipDetail::readIpv4(text + end, e, &nbo);
    if (!q) return 0;
    tail = tail << 32 | ipDetail::swapNet32(nbo);
    taken = static_cast<int>(q - text);
  }
  // The groups before "::" move to the top (head is 0 when there are none).
  unsigned __int128 const acc = head << ((16 * (8 - before)) & 127) | tail;
  // Two eight-byte stores: the caller reads the address back in two halves.
  U64 const halves[2] = {__builtin_bswap64(static_cast<U64>(acc >> 64)), __builtin_bswap64(static_cast<U64>(acc))};
  static_assert(sizeof(Ip6Addr) == sizeof halves && std::is_trivially_copyable_v<Ip6Addr>);
  std::memcpy(static_cast<void*>(out), halves, sizeof halves);
  return taken;
}

#endif

}  // namespace

TextError readIp6(char const*& pos, char const* e, Ip6Addr* out) {
#if defined(__SSE2__)
  if (int const taken = readIp6Fast(pos, e, static_cast<std::size_t>(e - pos), out)) {
    pos += taken;
    return TextError::none;
  }
#endif
  return readIp6Checked(pos, e, out);
}

TextError readIp6AndLen(char const*& p, char const* e, Ip6Addr* address, U32* len) {
  TextError err = readIp6(p, e, address);
  if (err != TextError::none) return err;
  if (p == e || *p != '/') {
    // A bare address is a host prefix: configuration written before lengths
    // were required still reads.
    *len = 128;
    return TextError::none;
  }
  ++p;
  return readLength(p, e, len);
}

// ---------------------------------------------------------------------------
// Address and length

bool Ip6AddrAndLen::validAsPrefix() const {
  if (len_ >= 128) return true;
  return address_.ip6AddrMaskedByLength(len_) == address_;
}

bool Ip6AddrAndLen::contains(Ip6Addr const& a) const {
  if (len_ > 128) return false;
  Ip6Addr const m = Ip6Addr::maskOfLength(len_);
  return (a & m) == (address_ & m);
}

bool operator<(Ip6AddrAndLen const& x, Ip6AddrAndLen const& y) {
  S32 const xl = static_cast<S32>(x.len_);
  S32 const yl = static_cast<S32>(y.len_);
  if (xl >= yl) {
    if (xl == yl) return x.address_ < y.address_;
    if (y.contains(x.address_)) return true;
  } else if (x.contains(y.address_)) {
    return xl > yl;
  }
  return x.address_ < y.address_;
}

unsigned Ip6AddrAndLen::writeText(char* out) const {
  unsigned n = address_.writeText(out);
  out[n++] = '/';
  return n + writeDecimal(out + n, len_);
}

}  // namespace ipDetail

Ip6Addr Ip6Prefix::subnetHost(Ip6Addr const& host) const {
  if (len_ <= 128 && !(host & Ip6Addr::maskOfLength(len_)).isZero()) {
    Brio::throwRangeException("Host address is too long");
  }
  return address_ | host;
}

U32 Ip6AddrWithFullMask::maskLength() const {
  U32 n = 0;
  unsigned i = 0;
  for (; i < 4; ++i) {
    U32 const w = mask_.hostWord(i);
    if (w == 0xffffffffu) {
      n += 32;
      continue;
    }
    unsigned const ones = static_cast<unsigned>(std::countl_one(w));
    if (w << ones) return 129;
    n += ones;
    ++i;
    break;
  }
  for (; i < 4; ++i) {
    if (mask_.networkWord(i)) return 129;
  }
  return n;
}

unsigned Ip6AddrWithFullMask::writeText(char* out) const {
  unsigned n = address_.writeText(out);
  out[n++] = '/';
  U32 const len = maskLength();
  return n + (len <= 128 ? ipDetail::writeDecimal(out + n, len) : mask_.writeText(out + n));
}

Ip6Addr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6Addr*) {
#if defined(__SSE2__)
  char const* const start = ipDetail::at(pos);
  Ip6Addr v;
  if (int const taken = ipDetail::readIp6Fast(start, ipDetail::at(end), static_cast<std::size_t>(end - pos), &v)) {
    pos += taken;
    return v;
  }
#endif
  return readAt<Ip6Addr>(pos, end, ipDetail::readIp6);
}
Ip6Prefix sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6Prefix*) {
  return readAt<Ip6Prefix>(pos, end, readAddrAndLen<Ip6Prefix>);
}
Ip6AddrWithMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6AddrWithMask*) {
  return readAt<Ip6AddrWithMask>(pos, end, readAddrAndLen<Ip6AddrWithMask>);
}
Ip6AddrWithFullMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Ip6AddrWithFullMask*) {
  return readAt<Ip6AddrWithFullMask>(pos, end, readFullMask);
}

// ---------------------------------------------------------------------------
// Attribute log

void attrLogWrite(Brio::NboAttrLog& log, Ip6Addr const& v) {
  for (unsigned i = 0; i < 4; ++i) log.writeU32(v.hostWord(i));
}
Ip6Addr attrLogRead(Brio::NboAttrLog& log, Ip6Addr*) {
  U32 w[4];
  for (U32& x : w) x = log.readU32();
  return Ip6Addr::fromHostWords(w[0], w[1], w[2], w[3]);
}

void attrLogWrite(Brio::NboAttrLog& log, Ip6Prefix const& v) { ipDetail::attrLogWriteFields(log, v.address(), v.len()); }
Ip6Prefix attrLogRead(Brio::NboAttrLog& log, Ip6Prefix*) {
  return ipDetail::attrLogReadFields<Ip6Prefix, Ip6Addr, U32>(log);
}
void attrLogWrite(Brio::NboAttrLog& log, Ip6AddrWithMask const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.len());
}
Ip6AddrWithMask attrLogRead(Brio::NboAttrLog& log, Ip6AddrWithMask*) {
  return ipDetail::attrLogReadFields<Ip6AddrWithMask, Ip6Addr, U32>(log);
}
void attrLogWrite(Brio::NboAttrLog& log, Ip6AddrWithFullMask const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.mask());
}
Ip6AddrWithFullMask attrLogRead(Brio::NboAttrLog& log, Ip6AddrWithFullMask*) {
  return ipDetail::attrLogReadFields<Ip6AddrWithFullMask, Ip6Addr, Ip6Addr>(log);
}

}  // namespace Corvid
