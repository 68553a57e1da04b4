#include "Command.h"

namespace CorvidTool {

std::vector<Command> const& commands() {
  static std::vector<Command> const table = {
  };
  return table;
}

}  // namespace CorvidTool
