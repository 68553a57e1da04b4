// Command-line options of the corvid subcommands: "--name value" options,
// "--name" flags, and the remaining words in order.
#pragma once

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Command.h"

namespace CorvidTool {

struct Options {
  // `known` options take a value; `flags` take none.
  Options(Args const& args, std::vector<std::string> const& known, std::vector<std::string> const& flagNames = {}) {
    for (std::size_t i = 0; i < args.size(); ++i) {
      std::string const& a = args[i];
      if (a.rfind("--", 0) != 0) {
        rest.push_back(a);
        continue;
      }
      bool isFlag = false, isOption = false;
      for (auto const& f : flagNames) isFlag = isFlag || a == f;
      for (auto const& k : known) isOption = isOption || a == k;
      if (isFlag) {
        flags.insert(a);
        continue;
      }
      if (!isOption) throw UsageError("unknown option '" + a + "'");
      if (i + 1 >= args.size()) throw UsageError("option '" + a + "' needs a value");
      values[a] = args[++i];
    }
  }
  bool has(std::string const& k) const { return values.count(k) != 0 || flags.count(k) != 0; }
  std::string get(std::string const& k) const { return values.count(k) ? values.at(k) : ""; }
  unsigned long number(std::string const& k, unsigned long fallback) const {
    if (!values.count(k)) return fallback;
    std::string const& v = values.at(k);
    char* end = nullptr;
    unsigned long n = std::strtoul(v.c_str(), &end, 10);
    if (v.empty() || *end) throw UsageError("option '" + k + "' takes a number, not '" + v + "'");
    return n;
  }
  double seconds(std::string const& k, double fallback) const {
    if (!values.count(k)) return fallback;
    std::string const& v = values.at(k);
    char* end = nullptr;
    double s = std::strtod(v.c_str(), &end);
    if (v.empty() || *end || s < 0) throw UsageError("option '" + k + "' takes seconds, not '" + v + "'");
    return s;
  }
  std::map<std::string, std::string> values;
  std::set<std::string> flags;
  std::vector<std::string> rest;
};

}  // namespace CorvidTool
