// Shared checks of the label and identifier fuzz targets.
//
// Each target hands the input text to every reader of a family. A reader
// may refuse it only with Brio::RangeException carrying one of the
// messages its type documents (or the framework's own text-form messages);
// whatever it accepts must print and read back to an equal value. Any
// other outcome traps, so libFuzzer reports it with the input.
#pragma once

#include <Brio/Exception.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>

namespace LabelsFuzz {

[[noreturn]] inline void fail(char const* what, std::string const& detail) {
  std::fprintf(stderr, "%s: %s\n", what, detail.c_str());
  std::abort();
}

// The framework's own messages from record and whole-text readers; those
// ending in a quote are prefixes.
inline bool frameworkMessage(std::string_view m) {
  for (std::string_view prefix : {"expected '", "missing value for field '", "invalid ", "value out of range for ",
                                  "unterminated string", "unexpected text after value"}) {
    if (m.starts_with(prefix)) return true;
  }
  return false;
}

// An allowed message ending in '*' matches as a prefix.
inline void checkMessage(std::exception const& e, std::initializer_list<std::string_view> allowed) {
  std::string_view const m = e.what();
  for (auto a : allowed) {
    if (m == a || (a.ends_with('*') && m.starts_with(a.substr(0, a.size() - 1)))) return;
  }
  if (frameworkMessage(m)) return;
  fail("unexpected message", std::string(m));
}

// Runs read(text) and, when it yields a value, checks that the value prints
// with print() and reads back equal through read().
template <class Read, class Print>
void roundTrip(Brio::String const& text, std::initializer_list<std::string_view> allowed, Read read, Print print) {
  try {
    auto const v = read(text);
    Brio::String const printed = print(v);
    decltype(v) back = read(printed);
    if (!(back == v)) fail("round trip differs", printed.str());
    if (print(back) != printed) fail("second print differs", printed.str());
  } catch (Brio::RangeException const& e) {
    checkMessage(e, allowed);
  }
}

// The usual trio for a value type T: strepToValue with the strep, and
// stringValueIs with stringValue when T has them.
template <class T>
void allTextForms(Brio::String const& text, std::initializer_list<std::string_view> allowed) {
  roundTrip(
      text, allowed, [](Brio::String const& s) { return Brio::strepToValue<T>(s); },
      [](T const& v) { return Brio::strep(v); });
  if constexpr (requires(T t) { t.stringValueIs(text); }) {
    roundTrip(
        text, allowed,
        [](Brio::String const& s) {
          T v;
          v.stringValueIs(s);
          return v;
        },
        [](T const& v) { return Brio::String(v.stringValue()); });
  }
}

}  // namespace LabelsFuzz
