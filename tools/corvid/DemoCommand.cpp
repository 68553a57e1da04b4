// `corvid demo`: a short tour of what the library does on this machine, the
// README's main job. Each capability adds a step here as it lands.
#include <Corvid/CorvidUtils.h>

#include <ostream>

#include "Command.h"

namespace CorvidTool {

namespace {

struct Step {
  char const* title;
  Args command;  // a corvid command line, run through the same table
};

int runCommandLine(Args const& line, std::ostream& out, std::ostream& err) {
  for (auto const& c : commands()) {
    if (line[0] == c.name) return c.run(Args(line.begin() + 1, line.end()), out, err);
  }
  err << "corvid demo: no command '" << line[0] << "'\n";
  return 1;
}

}  // namespace

int demoCommand(Args const& args, std::ostream& out, std::ostream& err) {
  if (!args.empty()) throw UsageError("demo takes no arguments");
  out << "corvid " << Corvid::version() << ": a tour of the library\n";
  static std::vector<Step> const steps = {
      {"IPv4 and IPv6 addresses: canonical text, predicates, hash",
       {"value", "ip", "10.1.2.3", "fe80::1:0:0:5", "::ffff:192.0.2.1"}},
      {"Prefixes sort most specific first", {"value", "ipv4-prefix", "10.0.0.0/8", "10.1.0.0/16"}},
      {"A malformed address gets the library's exact message", {"value", "ipv4", "1.2.3.256"}},
  };
  int failures = 0;
  for (auto const& s : steps) {
    out << "\n== " << s.title << "\n$ corvid";
    for (auto const& w : s.command) out << " " << w;
    out << "\n";
    bool known = false;
    for (auto const& c : commands()) known = known || s.command[0] == c.name;
    if (!known) {
      out << "(not available in this build)\n";
      continue;
    }
    try {
      runCommandLine(s.command, out, out);
    } catch (UsageError const& e) {
      out << "(usage: " << e.what() << ")\n";
      ++failures;
    }
  }
  return failures ? 1 : 0;
}

}  // namespace CorvidTool
