#include <Flagset/Flagset.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace Flagset {

namespace {
unsigned complain(std::string const& path, std::string const& reason, unsigned defaultState) {
  std::fprintf(stderr, "Flagset: %s: %s\n", path.c_str(), reason.c_str());
  return defaultState;
}
}  // namespace

unsigned getToggleState(std::string const& name, std::string const& file, unsigned defaultState) {
  char const* dir = std::getenv(kToggleDirEnv);
  std::string path = std::string(dir && *dir ? dir : kDefaultToggleDir) + "/" + file;
  std::ifstream in(path);
  if (!in) return defaultState;
  std::stringstream text;
  text << in.rdbuf();
  nlohmann::json doc = nlohmann::json::parse(text.str(), nullptr, false);
  if (doc.is_discarded()) return complain(path, "malformed JSON", defaultState);
  if (!doc.is_object()) return complain(path, "not a JSON object", defaultState);
  auto it = doc.find(name);
  if (it == doc.end()) return defaultState;
  if (it->is_boolean()) return it->get<bool>() ? 1u : 0u;
  if (it->is_number_unsigned()) return it->get<unsigned>();
  return complain(path, "toggle '" + name + "' is neither a boolean nor a non-negative integer",
                  defaultState);
}

}  // namespace Flagset
