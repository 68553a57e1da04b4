// `corvid value TYPE TEXT...`: the value types seen from the command line.
//
// Each parseable type contributes one row: its TYPE word and a function that
// reads one text (raising Brio::RangeException with the type's own message
// when it is malformed) and prints the value's facts as "  name: value"
// lines through a ValueReport. Modules add their rows in their own file
// (ValueIp.cpp, ValueLabels.cpp, ...), listed in valueTypes().
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace CorvidTool {

class ValueReport {
 public:
  explicit ValueReport(std::ostream& out) : out_(out) {}
  void line(std::string const& name, std::string const& value);
  void flag(std::string const& name, bool value) { line(name, value ? "true" : "false"); }
  void hash(std::string const& name, unsigned long value);

 private:
  std::ostream& out_;
};

struct ValueType {
  char const* name;     // the TYPE word, e.g. "ipv4"
  char const* summary;  // one line for `corvid value --help`
  void (*show)(std::string const& text, ValueReport& report);
};

void addIpValueTypes(std::vector<ValueType>& types);
void addLabelValueTypes(std::vector<ValueType>& types);

std::vector<ValueType> const& valueTypes();

}  // namespace CorvidTool
