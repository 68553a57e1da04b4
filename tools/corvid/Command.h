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
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::vector<Command> const& commands();

}  // namespace CorvidTool
