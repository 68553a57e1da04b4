#include <routing/Isis.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>

namespace Routing::Isis {

namespace {

constexpr char trailingMessage[] = "Unexpected trailing characters";

// Reads the identifier texts; never looks at or past end.
class Reader {
 public:
  Reader(Brio::StringIter& pos, Brio::StringIter const& end) : pos_(pos), end_(end) {}

  bool atHexDigit() const { return pos_ != end_ && Corvid::hexDigitValue(*pos_) >= 0; }
  bool at(char c) const { return pos_ != end_ && *pos_ == c; }

  void need(char c) {
    if (!at(c)) Brio::throwRangeException(c == '.' ? "'.' expected" : "'-' expected");
    ++pos_;
  }

  U8 hexByte() {
    unsigned v = 0;
    for (unsigned got = 0; got < 2; ++got) {
      if (pos_ == end_) throwTooFew(got);
      int const d = Corvid::hexDigitValue(*pos_);
      if (d < 0) {
        if (got == 0) {
          char buf[40];
          std::snprintf(buf, sizeof buf, "Hex digit expected, but got: '%c'", *pos_);
          Brio::throwRangeException(buf);
        }
        throwTooFew(got);
      }
      v = v * 16 + static_cast<unsigned>(d);
      ++pos_;
    }
    return static_cast<U8>(v);
  }

  SystemId systemId() {
    std::array<U8, SystemId::bytes> b;
    for (unsigned i = 0; i < SystemId::bytes; ++i) {
      if (i == 2 || i == 4) need('.');
      b[i] = hexByte();
    }
    return SystemId(b);
  }

 private:
  [[noreturn]] static void throwTooFew(unsigned got) {
    Brio::throwRangeException("Two hex digits expected, but got only " + std::to_string(got));
  }

  Brio::StringIter& pos_;
  Brio::StringIter const& end_;
};

void appendHexByte(std::string& out, U8 b) {
  out += Corvid::lowerHexDigits[b >> 4];
  out += Corvid::lowerHexDigits[b & 0xf];
}

void appendSystemId(std::string& out, SystemId const& v) {
  for (unsigned i = 0; i < SystemId::bytes; ++i) {
    if (i == 2 || i == 4) out += '.';
    appendHexByte(out, v.byteArray()[i]);
  }
}

// Parses the whole text with the type's reader, then assigns.
template <class T>
void assignWhole(T& target, Brio::String const& text) {
  Brio::StringIter pos = text.begin();
  T v = sequenceToValue(pos, text.end(), static_cast<T*>(nullptr));
  if (pos != text.end()) Brio::throwRangeException(trailingMessage);
  target = v;
}

constexpr Level allLevels[] = {Level::levelNone, Level::level1, Level::level2, Level::level1_2};

}  // namespace

// --- Level -------------------------------------------------------------------

char const* toString(Level level) {
  switch (level) {
    case Level::levelNone: return "levelNone";
    case Level::level1: return "level1";
    case Level::level2: return "level2";
    case Level::level1_2: return "level1_2";
  }
  return "unknown";
}

Brio::String valueToStrep(Level level) { return toString(level); }

Level sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Level*) {
  return Corvid::readEnumWord(pos, end, allLevels, "Invalid Level");
}

std::ostream& operator<<(std::ostream& os, Level level) { return os << toString(level); }

// --- SystemId ----------------------------------------------------------------

SystemId::SystemId(Brio::String const& text) : SystemId() { stringValueIs(text); }

Brio::String SystemId::stringValue() const {
  std::string out;
  appendSystemId(out, *this);
  return Brio::String(std::move(out));
}

void SystemId::stringValueIs(Brio::String const& text) { assignWhole(*this, text); }

U32 SystemId::hash(U32 seed) const { return Brio::Hash(seed).mixBytes(bytes_.data(), bytes).result(); }

Brio::String valueToStrep(SystemId const& v) { return v.stringValue(); }

SystemId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, SystemId*) {
  return Reader(pos, end).systemId();
}

std::ostream& operator<<(std::ostream& os, SystemId const& v) { return os << v.stringValue().view(); }

void attrLogWrite(Brio::NboAttrLog& log, SystemId const& v) { Corvid::attrLogWriteBytes(log, v.byteArray()); }

SystemId attrLogRead(Brio::NboAttrLog& log, SystemId*) {
  return SystemId(Corvid::attrLogReadBytes<SystemId::bytes>(log));
}

// --- LspId -------------------------------------------------------------------

LspId::LspId(Brio::String const& text) : LspId() { stringValueIs(text); }

U8 LspId::byte(LspIdIdx i) const {
  if (i.value() < SystemId::bytes) return systemId_.byte(SystemIdU8Index(i.value()));
  return i.value() == SystemId::bytes ? pseudonodeId_ : lspFragmentId_;
}

void LspId::byteIs(LspIdIdx i, U8 v) {
  if (i.value() < SystemId::bytes) {
    systemId_.byteIs(SystemIdU8Index(i.value()), v);
  } else if (i.value() == SystemId::bytes) {
    pseudonodeId_ = v;
  } else {
    lspFragmentId_ = v;
  }
}

Brio::String LspId::stringValue() const {
  std::string out;
  appendSystemId(out, systemId_);
  out += '.';
  appendHexByte(out, pseudonodeId_);
  out += '-';
  appendHexByte(out, lspFragmentId_);
  return Brio::String(std::move(out));
}

void LspId::stringValueIs(Brio::String const& text) { assignWhole(*this, text); }

U32 LspId::hash(U32 seed) const {
  return Brio::Hash(seed).mix(systemId_.hash()).mix(pseudonodeId_).mix(lspFragmentId_).result();
}

Brio::String valueToStrep(LspId const& v) { return v.stringValue(); }

LspId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, LspId*) {
  Reader r(pos, end);
  SystemId const id = r.systemId();
  r.need('.');
  U8 const pseudonode = r.hexByte();
  r.need('-');
  U8 const fragment = r.hexByte();
  return LspId(id, pseudonode, fragment);
}

std::ostream& operator<<(std::ostream& os, LspId const& v) { return os << v.stringValue().view(); }

void attrLogWrite(Brio::NboAttrLog& log, LspId const& v) {
  attrLogWrite(log, v.systemId());
  log.writeU8(v.pseudonodeId());
  log.writeU8(v.lspFragmentId());
}

LspId attrLogRead(Brio::NboAttrLog& log, LspId*) {
  SystemId const id = attrLogRead(log, static_cast<SystemId*>(nullptr));
  U8 const pseudonode = log.readU8();
  return LspId(id, pseudonode, log.readU8());
}

// --- AreaId ------------------------------------------------------------------

AreaId::AreaId(AreaIdLengthRange length, U8 const* b) : length_(length.value()), bytes_{} {
  std::memcpy(bytes_, b, length_);
}

AreaId::AreaId(Brio::String const& text) : AreaId() { stringValueIs(text); }

void AreaId::lengthIs(AreaIdLengthRange n) {
  for (unsigned i = n.value(); i < length_; ++i) bytes_[i] = 0;
  length_ = n.value();
}

U8 AreaId::byte(AreaIdU8Index i) const {
  if (i.value() >= length_) Brio::throwRangeException("AreaIdU8Index::value >= AreaId::length not allowed");
  return bytes_[i.value()];
}

void AreaId::byteIs(AreaIdU8Index i, U8 v) {
  if (i.value() >= length_) Brio::throwRangeException("AreaIdU8Index::value >= AreaId::length not allowed");
  bytes_[i.value()] = v;
}

Brio::String AreaId::stringValue() const {
  std::string out;
  appendHexByte(out, bytes_[0]);
  for (unsigned i = 1; i < length_; ++i) {
    if (i % 2) out += '.';
    appendHexByte(out, bytes_[i]);
  }
  return Brio::String(std::move(out));
}

void AreaId::stringValueIs(Brio::String const& text) { assignWhole(*this, text); }

U32 AreaId::hash(U32 seed) const { return Brio::Hash(seed).mixBytes(bytes_, length_).result(); }

bool operator==(AreaId const& a, AreaId const& b) {
  return a.length_ == b.length_ && std::memcmp(a.bytes_, b.bytes_, a.length_) == 0;
}

std::strong_ordering operator<=>(AreaId const& a, AreaId const& b) {
  return std::lexicographical_compare_three_way(a.bytes_, a.bytes_ + a.length_, b.bytes_, b.bytes_ + b.length_);
}

Brio::String valueToStrep(AreaId const& v) { return v.stringValue(); }

AreaId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, AreaId*) {
  Reader r(pos, end);
  U8 b[AreaId::maxBytes + 1];
  unsigned n = 0;
  auto add = [&](U8 v) {
    if (n == AreaId::maxBytes) AreaIdLengthRange(static_cast<U8>(n + 1));  // raises the length message
    b[n++] = v;
  };
  add(r.hexByte());
  // Groups of two bytes; a group of one byte ends the area.
  while (r.at('.')) {
    r.need('.');
    add(r.hexByte());
    if (!r.atHexDigit()) break;
    add(r.hexByte());
  }
  return AreaId(AreaIdLengthRange(static_cast<U8>(n)), b);
}

std::ostream& operator<<(std::ostream& os, AreaId const& v) { return os << v.stringValue().view(); }

void attrLogWrite(Brio::NboAttrLog& log, AreaId const& v) {
  log.writeU8(v.length().value());
  for (U8 i = 0; i < v.length().value(); ++i) log.writeU8(v.byte(AreaIdU8Index(i)));
}

AreaId attrLogRead(Brio::NboAttrLog& log, AreaId*) {
  AreaIdLengthRange const length(log.readU8());
  U8 b[AreaId::maxBytes];
  for (U8 i = 0; i < length.value(); ++i) b[i] = log.readU8();
  return AreaId(length, b);
}

}  // namespace Routing::Isis
