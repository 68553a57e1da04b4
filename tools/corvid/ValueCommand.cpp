#include "ValueCommand.h"

#include <Brio/Exception.h>

#include <cstdio>
#include <ostream>

#include "Command.h"
#include "JsonLine.h"

namespace CorvidTool {

// The two texts sit beside type and input; the facts have an object of
// their own, since a type may well have a fact called "type".
nlohmann::json& ValueReport::member(std::string const& name) {
  return name == "text" || name == "strep" ? (*json_)[name] : (*json_)["facts"][name];
}

void ValueReport::line(std::string const& name, std::string const& value) {
  if (json_) {
    member(name) = value;
  } else {
    out_ << "  " << name << ": " << value << "\n";
  }
}

void ValueReport::flag(std::string const& name, bool value) {
  if (json_) {
    member(name) = value;
  } else {
    line(name, value ? "true" : "false");
  }
}

void ValueReport::hash(std::string const& name, unsigned long value) {
  if (json_) {
    member(name) = value;
    return;
  }
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

void valueHelp(std::ostream& out) {
  out << "\n  --json  one JSON object per TEXT: type, input, then text, strep and facts\n"
         "          (an object of the type's predicates, hashes and parts), or error\n\nTYPE words:\n";
  for (auto const& t : valueTypes()) {
    std::string const name = t.name;
    out << "  " << name << std::string(name.size() < 18 ? 18 - name.size() : 1, ' ') << t.summary << "\n";
  }
}

int valueCommand(Args const& argsGiven, std::ostream& out, std::ostream& err) {
  Args args = argsGiven;
  bool const json = jsonFlagTake(args);
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
    nlohmann::json object = {{"type", type->name}, {"input", args[i]}};
    if (!json) out << args[i] << "\n";
    try {
      ValueReport report(out, json ? &object : nullptr);
      type->show(args[i], report);
    } catch (Brio::Exception const& e) {
      object = {{"type", type->name}, {"input", args[i]}, {"error", e.what()}};
      if (!json) out << "  error: " << e.what() << "\n";
      err << "corvid value: " << args[i] << ": " << e.what() << "\n";
      status = 1;
    }
    if (json) out << jsonLine(object) << "\n";
  }
  return status;
}

}  // namespace CorvidTool
