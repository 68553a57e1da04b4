// The record text form of compound value types, written once.
//
// A record strep is
//   Value('<Ns::Type>', ** {'<field>': <field strep>, '<field>': ...})
// with the fields in declaration order. A type describes itself with a field
// list and gets writer and reader from here, so no record type hand-writes
// its own printer or parser:
//
//   inline constexpr auto fooRecord = Brio::record<Foo>(
//       "Corvid::Foo", Brio::field("address", &Foo::address),
//       Brio::field("mask", &Foo::mask));
//   BRIO_RECORD_TEXT_FORMS(Foo, fooRecord)   // in Foo's namespace
//
// A field's getter is anything std::invoke can call on a `T const&`; its
// decayed result type is the field type, written with valueToStrep and read
// with Brio::deserializeAttr. Reading builds the value with T(field...) in
// declaration order unless the caller passes its own maker.
//
// The same field list gives the record's hash (each field's hash mixed in
// order with Brio::Hash; see hash()) and its attribute-log form (the fields
// in order), so a record stored in a shared table costs no hand-written
// serialiser either. BRIO_VALUE_FIELD declares one field of a record type:
// its storage, getter and Is setter.
#pragma once

#include <Brio/Hash.h>
#include <Brio/NboAttrLog.h>
#include <Brio/TextForm.h>

#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Brio {

template <class Get>
struct RecordField {
  char const* name;
  Get get;
};

template <class Get>
constexpr RecordField<Get> field(char const* name, Get get) {
  return {name, get};
}

template <class T, class... Fields>
class Record {
 public:
  constexpr Record(char const* typeName, Fields... fields) : typeName_(typeName), fields_(fields...) {}

  char const* typeName() const { return typeName_; }

  String strep(T const& v) const {
    std::string out = "Value('";
    out += typeName_;
    out += "', ** {";
    writeFields(out, v, std::index_sequence_for<Fields...>());
    out += "})";
    return String(std::move(out));
  }

  // Reads one record at pos and builds it with maker(field values...).
  template <class Maker>
  T read(StringIter& pos, StringIter const& end, Maker&& maker) const {
    needString(pos, end, "Value('");
    needString(pos, end, typeName_);
    needString(pos, end, "', ** {");
    Values values;
    readFields(pos, end, values, std::index_sequence_for<Fields...>());
    needString(pos, end, "})");
    return std::apply(std::forward<Maker>(maker), std::move(values));
  }

  T read(StringIter& pos, StringIter const& end) const {
    return read(pos, end, [](auto&&... a) { return T(std::forward<decltype(a)>(a)...); });
  }

  // Brio::Hash(seed) over the fields in order: integers and enumerations
  // as themselves, every other field by its own hash().
  U32 hash(T const& v, U32 seed = 0) const {
    Hash h(seed);
    std::apply([&](auto const&... f) { (mixField(h, std::invoke(f.get, v)), ...); }, fields_);
    return h.result();
  }

  // The attribute-log form: each field's, in order.
  void attrLogWrite(NboAttrLog& log, T const& v) const {
    std::apply(
        [&](auto const&... f) {
          using Brio::attrLogWrite;
          (attrLogWrite(log, std::invoke(f.get, v)), ...);
        },
        fields_);
  }
  T attrLogRead(NboAttrLog& log) const {
    Values values;
    std::apply(
        [&](auto&... value) {
          using Brio::attrLogRead;
          ((value = attrLogRead(log, static_cast<std::decay_t<decltype(value)>*>(nullptr))), ...);
        },
        values);
    return std::make_from_tuple<T>(std::move(values));
  }

 private:
  template <class F>
  using FieldType = std::decay_t<std::invoke_result_t<decltype(F::get), T const&>>;
  using Values = std::tuple<FieldType<Fields>...>;

  template <class V>
  static void mixField(Hash& h, V const& v) {
    if constexpr (std::is_enum_v<V>) {
      h.mix(static_cast<std::underlying_type_t<V>>(v));
    } else if constexpr (std::is_integral_v<V>) {
      h.mix(v);
    } else {
      h.mix(v.hash());
    }
  }

  template <std::size_t... I>
  void writeFields(std::string& out, T const& v, std::index_sequence<I...>) const {
    auto one = [&](auto const& f, std::size_t i) {
      if (i) out += ", ";
      out += '\'';
      out += f.name;
      out += "': ";
      out += Brio::strep(std::invoke(f.get, v)).view();
    };
    (one(std::get<I>(fields_), I), ...);
  }

  template <std::size_t... I>
  void readFields(StringIter& pos, StringIter const& end, Values& values, std::index_sequence<I...>) const {
    auto one = [&](auto const& f, auto& value, std::size_t i) {
      if (i) needString(pos, end, ", ");
      needString(pos, end, "'");
      needString(pos, end, f.name);
      needString(pos, end, "': ");
      value = deserializeAttr<std::decay_t<decltype(value)>>(pos, end, f.name);
    };
    (one(std::get<I>(fields_), std::get<I>(values), I), ...);
  }

  char const* typeName_;
  std::tuple<Fields...> fields_;
};

template <class T, class... Fields>
constexpr Record<T, Fields...> record(char const* typeName, Fields... fields) {
  return Record<T, Fields...>(typeName, fields...);
}

}  // namespace Brio

// One field of a record type: storage `name_` (value-initialised, or from
// the optional initialiser), getter `name()` and setter `nameIs(v)`.
// Leaves the class in public access.
#define BRIO_VALUE_FIELD(Type, name, ...)          \
 public:                                           \
  Type const& name() const { return name##_; }      \
  void name##Is(Type v) { name##_ = std::move(v); } \
                                                   \
 private:                                          \
  Type name##_{__VA_ARGS__};                        \
                                                   \
 public:

// Declares valueToStrep, sequenceToValue and operator<< for a record type in
// the current namespace, all driven by `recordObject`.
#define BRIO_RECORD_TEXT_FORMS(Type, recordObject)                                           \
  inline ::Brio::String valueToStrep(Type const& v) { return (recordObject).strep(v); }      \
  inline Type sequenceToValue(::Brio::StringIter& pos, ::Brio::StringIter const& end, Type*) { \
    return (recordObject).read(pos, end);                                                     \
  }                                                                                           \
  inline std::ostream& operator<<(std::ostream& os, Type const& v) { return os << valueToStrep(v); }

// Declares attrLogWrite and attrLogRead for a record type in the current
// namespace, from `recordObject`'s field list.
#define BRIO_RECORD_ATTR_LOG(Type, recordObject)                                              \
  inline void attrLogWrite(::Brio::NboAttrLog& log, Type const& v) { (recordObject).attrLogWrite(log, v); } \
  inline Type attrLogRead(::Brio::NboAttrLog& log, Type*) { return (recordObject).attrLogRead(log); }
