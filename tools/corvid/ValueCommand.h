// `corvid value TYPE TEXT...`: the value types seen from the command line.
//
// Each parseable type contributes one row: its TYPE word and a function that
// reads one text (raising Brio::RangeException with the type's own message
// when it is malformed) and prints the value's facts as "  name: value"
// lines through a ValueReport. Modules add their rows in their own file
// (ValueIp.cpp, ValueLabels.cpp, ...), listed in valueTypes(); row<T, Facts>
// below is the show function of every row, so reading and the two text
// lines are the same for all types and a module writes only its facts.
#pragma once

#include <Brio/String.h>
#include <Brio/TextForm.h>

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace CorvidTool {

// Where a row's facts go: "  name: value" lines, or, given a JSON object,
// its "text" and "strep" members and its "facts" object (flags as booleans,
// hashes as numbers).
class ValueReport {
 public:
  explicit ValueReport(std::ostream& out, nlohmann::json* json = nullptr) : out_(out), json_(json) {}
  void line(std::string const& name, std::string const& value);
  void flag(std::string const& name, bool value);
  void hash(std::string const& name, unsigned long value);

 private:
  nlohmann::json& member(std::string const& name);

  std::ostream& out_;
  nlohmann::json* json_;
};

struct ValueType {
  char const* name;     // the TYPE word, e.g. "ipv4"
  char const* summary;  // one line for `corvid value --help`
  void (*show)(std::string const& text, ValueReport& report);
};

// What operator<< writes for v.
template <class T>
std::string streamed(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

// Reads the whole text the way configuration does: the type's own setter
// where it has one (so trailing text gets the type's message), else the strep.
template <class T>
T readWhole(std::string const& text) {
  Brio::String const s(text);
  if constexpr (requires(T t) { t.stringValueIs(s); }) {
    T v;
    v.stringValueIs(s);
    return v;
  } else if constexpr (requires(T t) { t.handleInitialized(s); }) {
    T v;
    v.handleInitialized(s);
    return v;
  } else {
    return Brio::strepToValue<T>(s);
  }
}

// The lines every row starts with: canonical text and strep.
template <class T>
void showTexts(T const& v, ValueReport& r) {
  if constexpr (requires { v.stringValue(); }) {
    r.line("text", v.stringValue().str());
  } else {
    r.line("text", streamed(v));
  }
  r.line("strep", Brio::strep(v).str());
}

// A row's show function: the value read from the whole text, its two text
// lines, then the type's own facts.
template <class T, void (*Facts)(T const&, ValueReport&)>
void row(std::string const& text, ValueReport& r) {
  T const v = readWhole<T>(text);
  showTexts(v, r);
  Facts(v, r);
}

void addIpValueTypes(std::vector<ValueType>& types);
void addLabelValueTypes(std::vector<ValueType>& types);

std::vector<ValueType> const& valueTypes();

}  // namespace CorvidTool
