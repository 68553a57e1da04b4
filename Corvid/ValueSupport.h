// Building blocks shared by the library's small value types.
//
// BoundedInteger is the one shape behind every "integer with a range and a
// fixed refusal message" type (MPLS labels, stack indices, VNIs, IS-IS
// indices, ...): a derived class names its range, its default and its two
// messages, and gets construction checks, order, hash, decimal text forms
// and the attribute-log form from here. BoundedString does the same for
// names with a byte limit (namespace and VRF names). BoundedInteger is
// inline, allocation free and exactly as large as its representation.
#pragma once

#include <Brio/Exception.h>
#include <Brio/Hash.h>
#include <Brio/NboAttrLog.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>
#include <Brio/Types.h>

#include <array>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <limits>
#include <ostream>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Corvid {

// Thomas Wang's 32-bit integer hash (hash32shift). The unseeded hashes of
// the address types are defined as this function, so it may never change.
constexpr U32 wangHash32(U32 h) {
  h = h * 32767U - 1U;
  h ^= h >> 12;
  h *= 5U;
  h ^= h >> 4;
  h *= 2057U;
  h ^= h >> 16;
  return h;
}

// Copies text into a caller buffer the way snprintf does: as much as fits,
// always NUL-terminated when size is at least 1, and returns the length of
// the whole text so a caller can detect the cut.
inline unsigned printTextToBuffer(std::string_view text, char* buf, unsigned size) {
  if (size) {
    std::size_t n = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
  }
  return static_cast<unsigned>(text.size());
}

constexpr int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline constexpr char lowerHexDigits[] = "0123456789abcdef";

// Reads a run of decimal digits at pos, saturating at `limit + 1` so that an
// absurdly long run can still be refused as out of range. Requires at least
// one digit; otherwise returns false and leaves pos alone.
inline bool readDecimalSaturating(Brio::StringIter& pos, Brio::StringIter const& end, U64 limit, U64* out) {
  if (pos == end || *pos < '0' || *pos > '9') return false;
  U64 v = 0;
  while (pos != end && *pos >= '0' && *pos <= '9') {
    v = v * 10 + static_cast<unsigned>(*pos - '0');
    if (v > limit) v = limit + 1;
    ++pos;
  }
  *out = v;
  return true;
}

// Reads the word (letters, digits, '_') at pos as one of `all`, named by
// toString; anything else raises `message`. For enumerations whose text is
// the member name.
template <class E, std::size_t N>
E readEnumWord(Brio::StringIter& pos, Brio::StringIter const& end, E const (&all)[N], char const* message) {
  Brio::StringIter wordEnd = pos;
  auto wordChar = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  };
  while (wordEnd != end && wordChar(*wordEnd)) ++wordEnd;
  std::string_view const word(pos, wordEnd);
  for (E e : all) {
    if (word == toString(e)) {
      pos = wordEnd;
      return e;
    }
  }
  Brio::throwRangeException(message);
}

// Text forms of an enumeration whose words are its member names (without
// a trailing underscore), values numbered from 0 and listed in `values` in
// the same order as their names. CORVID_ENUM_TEXT declares toString,
// valueToStrep, sequenceToValue and operator<< from such a names object.
template <class E, std::size_t N>
struct EnumNames {
  char const* const (&names)[N];
  E const (&values)[N];
  char const* message;
  char const* text(E e) const {
    auto i = static_cast<std::size_t>(e);
    return i < N ? names[i] : "unknown";
  }
};

#define CORVID_ENUM_TEXT(Type, namesObject)                                                        \
  inline char const* toString(Type e) { return (namesObject).text(e); }                           \
  inline ::Brio::String valueToStrep(Type e) { return (namesObject).text(e); }                    \
  inline Type sequenceToValue(::Brio::StringIter& pos, ::Brio::StringIter const& end, Type*) {    \
    return ::Corvid::readEnumWord(pos, end, (namesObject).values, (namesObject).message);          \
  }                                                                                                \
  inline std::ostream& operator<<(std::ostream& os, Type e) { return os << (namesObject).text(e); }

// Byte arrays in the attribute log: each byte as a U8, in order.
template <std::size_t N>
void attrLogWriteBytes(Brio::NboAttrLog& log, std::array<U8, N> const& bytes) {
  for (U8 b : bytes) log.writeU8(b);
}

template <std::size_t N>
std::array<U8, N> attrLogReadBytes(Brio::NboAttrLog& log) {
  std::array<U8, N> bytes;
  for (auto& b : bytes) b = log.readU8();
  return bytes;
}

// An integer value type with a checked range. Derived supplies
//   static constexpr char rangeMessage[]  raised for a value outside [Min, Max]
//   static constexpr char textMessage[]   raised for text that is no number
// and may add named constants and predicates of its own.
template <class Derived, std::unsigned_integral Rep, Rep Min, Rep Max, Rep Default = Min>
class BoundedInteger {
 public:
  using ValueType = Rep;
  static constexpr bool isBoundedInteger = true;
  static constexpr Rep min = Min;
  static constexpr Rep max = Max;

  constexpr BoundedInteger() : value_(Default) {}
  constexpr explicit BoundedInteger(Rep v) : value_(checked(v)) {}

  constexpr Rep value() const { return value_; }
  void valueIs(Rep v) { value_ = checked(v); }

  static constexpr bool inRange(U64 v) { return v >= U64(Min) && v <= U64(Max); }

  U32 hash() const { return wangHash32(static_cast<U32>(value_)); }
  U32 hash(U32 seed) const { return Brio::Hash(seed).mix(value_).result(); }

  friend constexpr bool operator==(Derived const& a, Derived const& b) { return a.value_ == b.value_; }
  friend constexpr std::strong_ordering operator<=>(Derived const& a, Derived const& b) {
    return a.value_ <=> b.value_;
  }

 protected:
  static constexpr Rep checked(Rep v) {
    if (!inRange(v)) Brio::throwRangeException(Derived::rangeMessage);
    return v;
  }
  // For derived constructors that have validated (or deliberately widened)
  // the value themselves.
  struct Unchecked {};
  constexpr BoundedInteger(Rep v, Unchecked) : value_(v) {}

 private:
  Rep value_;
};

// Decimal text forms shared by every BoundedInteger; found by
// argument-dependent lookup through the base class's namespace.
template <class T>
  requires T::isBoundedInteger
Brio::String valueToStrep(T const& v) {
  char buf[24];
  char* p = buf + sizeof buf;
  U64 n = v.value();
  do {
    *--p = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n);
  return Brio::String(p, static_cast<std::size_t>(buf + sizeof buf - p));
}

template <class T>
  requires T::isBoundedInteger
T sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, T*) {
  U64 v = 0;
  if (!readDecimalSaturating(pos, end, std::numeric_limits<typename T::ValueType>::max(), &v)) {
    Brio::throwRangeException(T::textMessage);
  }
  if (!T::inRange(v)) Brio::throwRangeException(T::rangeMessage);
  return T(static_cast<typename T::ValueType>(v));
}

// The attribute-log form is the plain number at the representation's width;
// a value read back from outside is range checked like any other.
template <class T>
  requires T::isBoundedInteger
void attrLogWrite(Brio::NboAttrLog& log, T const& v) {
  Brio::attrLogWrite(log, v.value());
}

template <class T>
  requires T::isBoundedInteger
T attrLogRead(Brio::NboAttrLog& log, T*) {
  return T(Brio::attrLogRead(log, static_cast<typename T::ValueType*>(nullptr)));
}

// A name with a byte limit. Derived supplies
//   static constexpr char lengthMessage[]  raised for a name over MaxBytes
// The strep is the framework's quoted string ('ns-blue'), so any bytes
// round-trip inside records; stringValue is the bare name.
template <class Derived, U32 MaxBytes>
class BoundedString {
 public:
  static constexpr bool isBoundedString = true;
  static constexpr U32 maxLength = MaxBytes;

  BoundedString() = default;
  explicit BoundedString(Brio::String v) : value_(checked(std::move(v))) {}

  Brio::String const& value() const { return value_; }
  void valueIs(Brio::String v) { value_ = checked(std::move(v)); }
  Brio::String const& stringValue() const { return value_; }
  // Assigns only when the name fits.
  void stringValueIs(Brio::String const& v) { valueIs(v); }

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mixBytes(value_.data(), value_.bytes()).result(); }
  friend bool operator==(Derived const& a, Derived const& b) { return a.value_ == b.value_; }
  friend std::strong_ordering operator<=>(Derived const& a, Derived const& b) { return a.value_ <=> b.value_; }

 private:
  static Brio::String checked(Brio::String v) {
    if (v.bytes() > MaxBytes) Brio::throwRangeException(Derived::lengthMessage);
    return v;
  }
  Brio::String value_;
};

template <class T>
  requires T::isBoundedString
Brio::String valueToStrep(T const& v) {
  return Brio::valueToStrep(v.value());
}

template <class T>
  requires T::isBoundedString
T sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, T*) {
  return T(Brio::sequenceToValue(pos, end, static_cast<Brio::String*>(nullptr)));
}

template <class T>
  requires T::isBoundedString
void attrLogWrite(Brio::NboAttrLog& log, T const& v) {
  log.writeString(v.value());
}

template <class T>
  requires T::isBoundedString
T attrLogRead(Brio::NboAttrLog& log, T*) {
  return T(log.readString());
}

// Both families stream as their strep.
template <class T>
  requires T::isBoundedInteger || T::isBoundedString
std::ostream& operator<<(std::ostream& os, T const& v) {
  return os << valueToStrep(v).view();
}

// std::hash for a value type with hash(): CORVID_STD_HASH(Corvid::EthAddr)
// at global scope.
#define CORVID_STD_HASH(Type)                                                           \
  template <>                                                                           \
  struct std::hash<Type> {                                                              \
    std::size_t operator()(Type const& v) const noexcept { return v.hash(); }           \
  }

}  // namespace Corvid
