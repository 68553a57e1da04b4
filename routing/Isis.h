// IS-IS identifiers (ISO 10589, RFC 1195) as value types.
//
// SystemId is the 6-byte system identifier ("1921.6800.1001"), LspId names
// one LSP fragment: system id, pseudonode id and fragment number
// ("1921.6800.1001.00-0a"), and AreaId is a variable-length area address
// of 1 to 13 bytes ("49.0001"). The small bounded integers index their
// bytes and lengths. Every type here is trivially copyable and allocation
// free except for the String its printers return.
//
// Text rules shared by all three: hexadecimal digits of either case on
// input, lower case on output, every byte exactly two digits. Readers
// report, in order of detection, "'.' expected", "'-' expected",
// "Hex digit expected, but got: '<c>'", "Two hex digits expected, but got
// only <n>" and, from stringValueIs, "Unexpected trailing characters".
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <array>
#include <compare>
#include <iosfwd>
#include <type_traits>

namespace Routing::Isis {

class SystemIdU8Index : public Corvid::BoundedInteger<SystemIdU8Index, U8, 0, 5> {
 public:
  static constexpr char rangeMessage[] =
      "SystemIdU8Index::value < SystemIdU8Index::min or > SystemIdU8Index::max not allowed";
  static constexpr char textMessage[] = "Invalid SystemIdU8Index";
  using BoundedInteger::BoundedInteger;
};

class AreaIdU8Index : public Corvid::BoundedInteger<AreaIdU8Index, U8, 0, 12> {
 public:
  static constexpr char rangeMessage[] =
      "AreaIdU8Index::value < AreaIdU8Index::min or > AreaIdU8Index::max not allowed";
  static constexpr char textMessage[] = "Invalid AreaIdU8Index";
  using BoundedInteger::BoundedInteger;
};

// An area address carries 1 to 13 bytes (ISO 10589 section 9.3).
class AreaIdLengthRange : public Corvid::BoundedInteger<AreaIdLengthRange, U8, 1, 13> {
 public:
  static constexpr char rangeMessage[] =
      "AreaIdLengthRange::value < AreaIdLengthRange::min or > AreaIdLengthRange::max not allowed";
  static constexpr char textMessage[] = "Invalid AreaIdLengthRange";
  using BoundedInteger::BoundedInteger;
};

// Slot of an IS-IS instance in an agent's instance table; an agent runs
// at most 64 instances.
class InstanceNameIndex : public Corvid::BoundedInteger<InstanceNameIndex, U8, 0, 63> {
 public:
  static constexpr char rangeMessage[] =
      "InstanceNameIndex::value < InstanceNameIndex::min or > InstanceNameIndex::max not allowed";
  static constexpr char textMessage[] = "Invalid InstanceNameIndex";
  using BoundedInteger::BoundedInteger;
};

// Byte of an LspId: 0-5 the system id, 6 the pseudonode id, 7 the fragment.
class LspIdIdx : public Corvid::BoundedInteger<LspIdIdx, U8, 0, 7> {
 public:
  static constexpr char rangeMessage[] = "LspIdIdx::value < 0 or > 7 not allowed";
  static constexpr char textMessage[] = "Invalid LspIdIdx";
  using BoundedInteger::BoundedInteger;
};

// Circuit and router levels; level1_2 is both bits.
enum class Level : U8 { levelNone = 0, level1 = 1, level2 = 2, level1_2 = 3 };

char const* toString(Level level);
Brio::String valueToStrep(Level level);
// Raises "Invalid Level" for any other word.
Level sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Level*);
std::ostream& operator<<(std::ostream& os, Level level);

class SystemId {
 public:
  static constexpr unsigned bytes = 6;
  constexpr SystemId() : bytes_{} {}
  constexpr explicit SystemId(std::array<U8, bytes> const& b) : bytes_(b) {}
  // Parses the whole text like stringValueIs.
  explicit SystemId(Brio::String const& text);

  U8 byte(SystemIdU8Index i) const { return bytes_[i.value()]; }
  void byteIs(SystemIdU8Index i, U8 v) { bytes_[i.value()] = v; }
  std::array<U8, bytes> const& byteArray() const { return bytes_; }
  bool isZero() const { return *this == SystemId(); }

  // "1921.6800.1001"
  Brio::String stringValue() const;
  // On failure raises Brio::RangeException and keeps the old value.
  void stringValueIs(Brio::String const& text);

  U32 hash(U32 seed = 0) const;
  friend bool operator==(SystemId const&, SystemId const&) = default;
  friend std::strong_ordering operator<=>(SystemId const&, SystemId const&) = default;

 private:
  std::array<U8, bytes> bytes_;
};

class LspId {
 public:
  constexpr LspId() : pseudonodeId_(0), lspFragmentId_(0) {}
  constexpr LspId(SystemId systemId, U8 pseudonodeId, U8 lspFragmentId)
      : systemId_(systemId), pseudonodeId_(pseudonodeId), lspFragmentId_(lspFragmentId) {}
  explicit LspId(Brio::String const& text);

  SystemId systemId() const { return systemId_; }
  void systemIdIs(SystemId v) { systemId_ = v; }
  U8 pseudonodeId() const { return pseudonodeId_; }
  void pseudonodeIdIs(U8 v) { pseudonodeId_ = v; }
  U8 lspFragmentId() const { return lspFragmentId_; }
  void lspFragmentIdIs(U8 v) { lspFragmentId_ = v; }
  U8 byte(LspIdIdx i) const;
  void byteIs(LspIdIdx i, U8 v);
  // The pseudonode's own LSPs (RFC 1195 section 3.3) have a non-zero id.
  bool isPseudonode() const { return pseudonodeId_ != 0; }

  // "1921.6800.1001.00-0a"
  Brio::String stringValue() const;
  void stringValueIs(Brio::String const& text);

  U32 hash(U32 seed = 0) const;
  // System id, then pseudonode id, then fragment: the order of an LSP
  // database walk.
  friend bool operator==(LspId const&, LspId const&) = default;
  friend std::strong_ordering operator<=>(LspId const&, LspId const&) = default;

 private:
  SystemId systemId_;
  U8 pseudonodeId_;
  U8 lspFragmentId_;
};

class AreaId {
 public:
  static constexpr unsigned maxBytes = 13;
  // The one-byte area 00, a placeholder like the zero system id.
  constexpr AreaId() : length_(1), bytes_{} {}
  // The first `length` bytes of `b`.
  AreaId(AreaIdLengthRange length, U8 const* b);
  explicit AreaId(Brio::String const& text);

  AreaIdLengthRange length() const { return AreaIdLengthRange(length_); }
  // Growing adds zero bytes; shrinking drops bytes from the end.
  void lengthIs(AreaIdLengthRange n);
  // An index at or beyond the length raises
  // "AreaIdU8Index::value >= AreaId::length not allowed".
  U8 byte(AreaIdU8Index i) const;
  void byteIs(AreaIdU8Index i, U8 v);

  // "49.0001": the first byte, then dot-separated groups of two bytes, the
  // last group a single byte when the length is even.
  Brio::String stringValue() const;
  void stringValueIs(Brio::String const& text);

  U32 hash(U32 seed = 0) const;
  friend bool operator==(AreaId const& a, AreaId const& b);
  // Byte-wise, a shorter area before every longer area it begins.
  friend std::strong_ordering operator<=>(AreaId const& a, AreaId const& b);

 private:
  U8 length_;
  U8 bytes_[maxBytes];
};

static_assert(std::is_trivially_copyable_v<SystemId> && sizeof(SystemId) == 6);
static_assert(std::is_trivially_copyable_v<LspId> && sizeof(LspId) == 8);
static_assert(std::is_trivially_copyable_v<AreaId> && sizeof(AreaId) == 14);

Brio::String valueToStrep(SystemId const& v);
SystemId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, SystemId*);
std::ostream& operator<<(std::ostream& os, SystemId const& v);
Brio::String valueToStrep(LspId const& v);
LspId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, LspId*);
std::ostream& operator<<(std::ostream& os, LspId const& v);
Brio::String valueToStrep(AreaId const& v);
AreaId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, AreaId*);
std::ostream& operator<<(std::ostream& os, AreaId const& v);

// Attribute-log forms: the bytes in order as U8s; AreaId leads with its
// length (checked on reading).
void attrLogWrite(Brio::NboAttrLog& log, SystemId const& v);
SystemId attrLogRead(Brio::NboAttrLog& log, SystemId*);
void attrLogWrite(Brio::NboAttrLog& log, LspId const& v);
LspId attrLogRead(Brio::NboAttrLog& log, LspId*);
void attrLogWrite(Brio::NboAttrLog& log, AreaId const& v);
AreaId attrLogRead(Brio::NboAttrLog& log, AreaId*);

}  // namespace Routing::Isis

CORVID_STD_HASH(Routing::Isis::SystemId);
CORVID_STD_HASH(Routing::Isis::LspId);
CORVID_STD_HASH(Routing::Isis::AreaId);
