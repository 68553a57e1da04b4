// One JSON object per output line for the --json forms of the commands.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace CorvidTool {

// Text from outside (a word on the command line, a DNS name in a captured
// frame) need not be UTF-8: bad bytes print as U+FFFD rather than stopping
// the tool with an exception.
inline std::string jsonLine(nlohmann::json const& object) {
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace CorvidTool
