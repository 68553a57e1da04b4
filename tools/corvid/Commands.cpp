#include "Command.h"

namespace CorvidTool {

int valueCommand(Args const& args, std::ostream& out, std::ostream& err);

std::vector<Command> const& commands() {
  static std::vector<Command> const table = {
      {"value", "value TYPE TEXT...",
       "parse each TEXT as a TYPE and print its canonical text, strep, predicates and hash", valueCommand},
  };
  return table;
}

}  // namespace CorvidTool
