// Text forms: the readers and writers every value type's strep is built from.
//
// A value's strep is the canonical text it can be rebuilt from. Readers work
// on a (pos, end) iterator pair over a Brio::String: they consume what they
// recognise, advance pos, and leave the rest to the caller; they never read
// at or past end. Failures raise Brio::RangeException.
//
// Value types provide, in their own namespace (found by argument-dependent
// lookup): valueToStrep(T const&), sequenceToValue(pos, end, T*), and
// operator<<. The pointer argument only selects the overload. The built-in
// types below follow the same shape:
//   unsigned integers  decimal                       42
//   signed integers    decimal with optional '-'     -7
//   bool               True / False
//   double             shortest text that reads back 0.25
//   String             single-quoted, with \\ \' \n \t \xHH escapes
#pragma once

#include <Brio/Exception.h>
#include <Brio/String.h>
#include <Brio/Types.h>

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

namespace Brio {

// Reads the run of decimal digits at pos into a signed 64-bit number
// (arithmetic wraps modulo 2^64 on absurdly long runs) and advances past it.
// Reads nothing, and returns 0, when pos is not at a digit.
S64 dectol(StringIter& pos, StringIter const& end);

// Requires `literal` at pos and consumes it; otherwise raises
// RangeException "expected '<literal>'".
void needString(StringIter& pos, StringIter const& end, std::string_view literal);

// Raises RangeException "unexpected text after value" unless pos is at the
// end of `text`.
void strepToValueEnd(String const& text, StringIter const& pos);

// Built-in strep writers.
String valueToStrep(bool v);
String valueToStrep(U8 v);
String valueToStrep(U16 v);
String valueToStrep(U32 v);
String valueToStrep(U64 v);
String valueToStrep(S8 v);
String valueToStrep(S16 v);
String valueToStrep(S32 v);
String valueToStrep(S64 v);
String valueToStrep(F64 v);
String valueToStrep(String const& v);
String valueToStrep(Bytes const& v);

// Built-in strep readers. Integers refuse values outside their type with
// "value out of range for <type>".
bool sequenceToValue(StringIter& pos, StringIter const& end, bool*);
U8 sequenceToValue(StringIter& pos, StringIter const& end, U8*);
U16 sequenceToValue(StringIter& pos, StringIter const& end, U16*);
U32 sequenceToValue(StringIter& pos, StringIter const& end, U32*);
U64 sequenceToValue(StringIter& pos, StringIter const& end, U64*);
S8 sequenceToValue(StringIter& pos, StringIter const& end, S8*);
S16 sequenceToValue(StringIter& pos, StringIter const& end, S16*);
S32 sequenceToValue(StringIter& pos, StringIter const& end, S32*);
S64 sequenceToValue(StringIter& pos, StringIter const& end, S64*);
F64 sequenceToValue(StringIter& pos, StringIter const& end, F64*);
String sequenceToValue(StringIter& pos, StringIter const& end, String*);
Bytes sequenceToValue(StringIter& pos, StringIter const& end, Bytes*);

// Reads one record field value of type T at pos (the field's quoted name
// and colon are fixed pieces read by the caller with needString).
// `fieldName` names the field in the error raised when the value is missing.
template <class T>
T deserializeAttr(StringIter& pos, StringIter const& end, char const* fieldName) {
  using Brio::sequenceToValue;
  if (pos == end) throwRangeException(std::string("missing value for field '") + fieldName + "'");
  return sequenceToValue(pos, end, static_cast<T*>(nullptr));
}

// Reads a whole string as a T: sequenceToValue from the start, then nothing
// may be left over.
template <class T>
T strepToValue(String const& text, T* selector = nullptr) {
  using Brio::sequenceToValue;
  StringIter pos = text.begin();
  StringIter const end = text.end();
  T value = sequenceToValue(pos, end, selector);
  strepToValueEnd(text, pos);
  return value;
}

// Writes the strep of any value with a valueToStrep overload.
template <class T>
String strep(T const& v) {
  using Brio::valueToStrep;
  return valueToStrep(v);
}

}  // namespace Brio
