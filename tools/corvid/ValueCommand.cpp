#include "ValueCommand.h"

#include <Brio/Exception.h>

#include <cstdio>
#include <ostream>

#include "Command.h"

namespace CorvidTool {

void ValueReport::line(std::string const& name, std::string const& value) {
  out_ << "  " << name << ": " << value << "\n";
}

void ValueReport::hash(std::string const& name, unsigned long value) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%08lx", value);
  line(name, buf);
}

std::vector<ValueType> const& valueTypes() {
  static std::vector<ValueType> const types = [] {
    std::vector<ValueType> t;
    addIpValueTypes(t);
    addLabelValueTypes(t);
    return t;
  }();
  return types;
}

int valueCommand(Args const& args, std::ostream& out, std::ostream& err) {
  if (args.empty()) {
    std::string names;
    for (auto const& t : valueTypes()) names += std::string(names.empty() ? "" : " ") + t.name;
    throw UsageError("missing TYPE (one of: " + names + ")");
  }
  ValueType const* type = nullptr;
  for (auto const& t : valueTypes()) {
    if (args[0] == t.name) type = &t;
  }
  if (!type) throw UsageError("unknown TYPE '" + args[0] + "'");
  if (args.size() < 2) throw UsageError("missing TEXT");
  int status = 0;
  for (std::size_t i = 1; i < args.size(); ++i) {
    out << args[i] << "\n";
    try {
      ValueReport report(out);
      type->show(args[i], report);
    } catch (Brio::Exception const& e) {
      out << "  error: " << e.what() << "\n";
      err << "corvid value: " << args[i] << ": " << e.what() << "\n";
      status = 1;
    }
  }
  return status;
}

}  // namespace CorvidTool
