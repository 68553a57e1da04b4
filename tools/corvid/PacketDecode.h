// The frame decoder behind `corvid packet`, shared with `corvid capture`.
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace CorvidTool {

// Prints every header of an Ethernet frame, runs the receive-path sanity
// checks and reports checksum validity. Returns false when anything in the
// frame is malformed or a check fails. Given a JSON object, fills it (bytes,
// headers, checks, valid) instead of printing.
bool describeFrame(std::string const& frame, std::ostream& out, nlohmann::json* json = nullptr);

// Bytes from hex words ("0x" prefixes and ':', '-', '.' separators allowed);
// raises std::invalid_argument on anything else.
std::string parseHex(std::vector<std::string> const& words);

}  // namespace CorvidTool
