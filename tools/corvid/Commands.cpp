#include "Command.h"

namespace CorvidTool {

int demoCommand(Args const& args, std::ostream& out, std::ostream& err);
int valueCommand(Args const& args, std::ostream& out, std::ostream& err);

std::vector<Command> const& commands() {
  static std::vector<Command> const table = {
      {"demo", "demo", "a short tour of the library: values, packets, endpoints", demoCommand},
      {"value", "value TYPE TEXT...",
       "parse each TEXT as a TYPE and print its canonical text, strep, predicates and hash", valueCommand},
  };
  return table;
}

}  // namespace CorvidTool
