#include <Brio/TextForm.h>

#include <charconv>
#include <cmath>
#include <limits>

namespace Brio {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

template <class T>
String intText(T v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  return String(buf, static_cast<std::size_t>(r.ptr - buf));
}

template <class T>
T readUnsigned(StringIter& pos, StringIter const& end, char const* typeName) {
  if (pos == end || !isDigit(*pos)) throwRangeException(std::string("invalid ") + typeName);
  U64 v = 0;
  bool overflow = false;
  while (pos != end && isDigit(*pos)) {
    unsigned d = static_cast<unsigned>(*pos - '0');
    if (v > (std::numeric_limits<U64>::max() - d) / 10) overflow = true;
    v = v * 10 + d;
    ++pos;
  }
  if (overflow || v > std::numeric_limits<T>::max()) {
    throwRangeException(std::string("value out of range for ") + typeName);
  }
  return static_cast<T>(v);
}

template <class T>
T readSigned(StringIter& pos, StringIter const& end, char const* typeName) {
  bool negative = pos != end && *pos == '-';
  if (negative) ++pos;
  U64 magnitude = readUnsigned<U64>(pos, end, typeName);
  U64 limit = negative ? U64(std::numeric_limits<T>::max()) + 1 : U64(std::numeric_limits<T>::max());
  if (magnitude > limit) throwRangeException(std::string("value out of range for ") + typeName);
  return negative ? static_cast<T>(0 - magnitude) : static_cast<T>(magnitude);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

String quoted(std::string_view s) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(s.size() + 2);
  out += '\'';
  for (char c : s) {
    auto u = static_cast<unsigned char>(c);
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (u < 0x20 || u >= 0x7f) {
          out += "\\x";
          out += digits[u >> 4];
          out += digits[u & 0xf];
        } else {
          out += c;
        }
    }
  }
  out += '\'';
  return String(std::move(out));
}

std::string unquoted(StringIter& pos, StringIter const& end) {
  needString(pos, end, "'");
  std::string out;
  for (;;) {
    if (pos == end) throwRangeException("unterminated string");
    char c = *pos++;
    if (c == '\'') return out;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (pos == end) throwRangeException("unterminated string");
    char e = *pos++;
    switch (e) {
      case '\\': out += '\\'; break;
      case '\'': out += '\''; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'x': {
        int hi = pos != end ? hexValue(*pos) : -1;
        if (hi < 0) throwRangeException("invalid string escape");
        ++pos;
        int lo = pos != end ? hexValue(*pos) : -1;
        if (lo < 0) throwRangeException("invalid string escape");
        ++pos;
        out += static_cast<char>(hi * 16 + lo);
        break;
      }
      default: throwRangeException("invalid string escape");
    }
  }
}

}  // namespace

S64 dectol(StringIter& pos, StringIter const& end) {
  U64 v = 0;
  while (pos != end && isDigit(*pos)) {
    v = v * 10 + static_cast<unsigned>(*pos - '0');
    ++pos;
  }
  return static_cast<S64>(v);
}

void needString(StringIter& pos, StringIter const& end, std::string_view literal) {
  StringIter p = pos;
  for (char c : literal) {
    if (p == end || *p != c) throwRangeException("expected '" + std::string(literal) + "'");
    ++p;
  }
  pos = p;
}

void strepToValueEnd(String const& text, StringIter const& pos) {
  if (pos != text.end()) throwRangeException("unexpected text after value");
}

String valueToStrep(bool v) { return v ? "True" : "False"; }
String valueToStrep(U8 v) { return intText(v); }
String valueToStrep(U16 v) { return intText(v); }
String valueToStrep(U32 v) { return intText(v); }
String valueToStrep(U64 v) { return intText(v); }
String valueToStrep(S8 v) { return intText(v); }
String valueToStrep(S16 v) { return intText(v); }
String valueToStrep(S32 v) { return intText(v); }
String valueToStrep(S64 v) { return intText(v); }

String valueToStrep(F64 v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  return String(buf, static_cast<std::size_t>(r.ptr - buf));
}

String valueToStrep(String const& v) { return quoted(v.view()); }
String valueToStrep(Bytes const& v) { return quoted(v.view()); }

bool sequenceToValue(StringIter& pos, StringIter const& end, bool*) {
  if (pos != end && *pos == 'T') {
    needString(pos, end, "True");
    return true;
  }
  if (pos != end && *pos == 'F') {
    needString(pos, end, "False");
    return false;
  }
  throwRangeException("invalid bool");
}

U8 sequenceToValue(StringIter& pos, StringIter const& end, U8*) { return readUnsigned<U8>(pos, end, "U8"); }
U16 sequenceToValue(StringIter& pos, StringIter const& end, U16*) { return readUnsigned<U16>(pos, end, "U16"); }
U32 sequenceToValue(StringIter& pos, StringIter const& end, U32*) { return readUnsigned<U32>(pos, end, "U32"); }
U64 sequenceToValue(StringIter& pos, StringIter const& end, U64*) { return readUnsigned<U64>(pos, end, "U64"); }
S8 sequenceToValue(StringIter& pos, StringIter const& end, S8*) { return readSigned<S8>(pos, end, "S8"); }
S16 sequenceToValue(StringIter& pos, StringIter const& end, S16*) { return readSigned<S16>(pos, end, "S16"); }
S32 sequenceToValue(StringIter& pos, StringIter const& end, S32*) { return readSigned<S32>(pos, end, "S32"); }
S64 sequenceToValue(StringIter& pos, StringIter const& end, S64*) { return readSigned<S64>(pos, end, "S64"); }

F64 sequenceToValue(StringIter& pos, StringIter const& end, F64*) {
  // from_chars needs contiguous memory; String iterators are contiguous.
  char const* first = pos == end ? nullptr : &*pos;
  if (!first) throwRangeException("invalid F64");
  char const* last = first + (end - pos);
  F64 v = 0;
  auto r = std::from_chars(first, last, v);
  if (r.ec != std::errc()) throwRangeException("invalid F64");
  pos += r.ptr - first;
  return v;
}

String sequenceToValue(StringIter& pos, StringIter const& end, String*) { return String(unquoted(pos, end)); }
Bytes sequenceToValue(StringIter& pos, StringIter const& end, Bytes*) { return Bytes(unquoted(pos, end)); }

}  // namespace Brio
