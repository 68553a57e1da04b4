// The corvid tool's subcommands.
//
// Each subcommand is a function over its arguments (the words after its
// name) that writes to the given streams and returns the exit status:
// 0 success, 1 the command ran and failed (a value did not parse, a socket
// call failed), 2 the command line itself is wrong. A command reports a bad
// command line by throwing UsageError; main prints it with the command's
// usage and exits 2. New subcommands are added to the table in Commands.cpp.
#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

namespace CorvidTool {

using Args = std::vector<std::string>;

struct Command {
  char const* name;
  char const* synopsis;  // "value TYPE TEXT..."
  char const* summary;   // one line for the help listing
  int (*run)(Args const& args, std::ostream& out, std::ostream& err);
  // What `corvid NAME --help` lists after the usage: options, argument
  // forms, for `value` the TYPE words. Optional.
  void (*help)(std::ostream& out) = nullptr;
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::vector<Command> const& commands();

// Removes every `--json` word from args; true when there was one. Commands
// that print values or events then print one JSON object per line instead.
bool jsonFlagTake(Args& args);

}  // namespace CorvidTool
