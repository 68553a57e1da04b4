// corvid: the command-line face of the library. `corvid --help` lists the
// subcommands; each prints exact library text forms so an operator can
// compare them with what agents log.
#include <Corvid/CorvidUtils.h>

#include <cstring>
#include <iostream>

#include "Command.h"

namespace {

void printHelp(std::ostream& out) {
  out << "usage: corvid [--help] [--version] COMMAND [ARGS...]\n\n"
         "Corvid networking library tool.\n\ncommands:\n";
  for (auto const& c : CorvidTool::commands()) {
    out << "  " << c.synopsis << "\n      " << c.summary << "\n";
  }
  out << "\nRun 'corvid COMMAND --help' for one command's usage.\n";
}

int usage(std::string const& message) {
  std::cerr << "corvid: " << message << "\n"
            << "usage: corvid [--help] [--version] COMMAND [ARGS...]\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage("missing command");
  std::string first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    printHelp(std::cout);
    return 0;
  }
  if (first == "--version") {
    std::cout << "corvid " << Corvid::version() << "\n";
    return 0;
  }
  if (!first.empty() && first[0] == '-') return usage("unknown option '" + first + "'");
  for (auto const& c : CorvidTool::commands()) {
    if (first != c.name) continue;
    CorvidTool::Args args(argv + 2, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
      std::cout << "usage: corvid " << c.synopsis << "\n" << c.summary << "\n";
      if (c.help) c.help(std::cout);
      return 0;
    }
    try {
      return c.run(args, std::cout, std::cerr);
    } catch (CorvidTool::UsageError const& e) {
      std::cerr << "corvid " << c.name << ": " << e.what() << "\n"
                << "usage: corvid " << c.synopsis << "\n";
      return 2;
    }
  }
  return usage("unknown command '" + first + "'");
}
