#include <Glimmer/Glimmer.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace Glimmer {

namespace {

struct Rule {
  std::string name;  // "*" matches every facility
  U16 mask;
};

struct State {
  std::mutex mutex;
  std::map<std::string, std::unique_ptr<Facility>> facilities;
  std::vector<Rule> rules;
  FILE* sink = stderr;
  int captures = 0;
  std::string captured;
};

bool parseLevels(std::string const& text, U16* mask) {
  auto number = [](std::string const& s, int* out) {
    if (s.empty() || s.size() > 1 || s[0] < '0' || s[0] > '9') return false;
    *out = s[0] - '0';
    return true;
  };
  auto dash = text.find('-');
  int lo = 0;
  int hi = 0;
  if (dash == std::string::npos) {
    if (!number(text, &hi)) return false;
  } else if (!number(text.substr(0, dash), &lo) || !number(text.substr(dash + 1), &hi) || lo > hi) {
    return false;
  }
  *mask = 0;
  for (int l = lo; l <= hi; ++l) *mask = static_cast<U16>(*mask | (1u << l));
  return true;
}

bool parseRules(std::string const& text, std::vector<Rule>* rules) {
  std::size_t start = 0;
  while (start <= text.size()) {
    auto comma = text.find(',', start);
    std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (!item.empty()) {
      auto eq = item.find('=');
      if (eq == std::string::npos || eq == 0) return false;
      Rule r{item.substr(0, eq), 0};
      if (!parseLevels(item.substr(eq + 1), &r.mask)) return false;
      rules->push_back(r);
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

void applyRules(Facility& f, std::vector<Rule> const& rules) {
  for (auto const& r : rules) {
    if (r.name == "*" || r.name == f.name()) f.levelsIs(r.mask);
  }
}

State& state() {
  static State* s = [] {
    auto* st = new State;  // never destroyed: facilities outlive static destructors
    if (char const* env = std::getenv("GLIMMER_TRACE")) {
      if (!parseRules(env, &st->rules)) std::fprintf(stderr, "Glimmer: malformed GLIMMER_TRACE '%s'\n", env);
    }
    if (char const* file = std::getenv("GLIMMER_TRACE_FILE"); file && *file) {
      if (FILE* f = std::fopen(file, "a")) st->sink = f;
    }
    return st;
  }();
  return *s;
}

}  // namespace

Facility& facility(std::string const& name) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  auto& slot = s.facilities[name];
  if (!slot) {
    slot = std::make_unique<Facility>(name);
    applyRules(*slot, s.rules);
  }
  return *slot;
}

bool enable(std::string const& text) {
  std::vector<Rule> rules;
  if (!parseRules(text, &rules)) return false;
  State& s = state();
  std::lock_guard lock(s.mutex);
  for (auto& [name, f] : s.facilities) applyRules(*f, rules);
  s.rules.insert(s.rules.end(), rules.begin(), rules.end());
  return true;
}

void enable(std::string const& name, int maxLevel) {
  U16 mask = 0;
  for (int l = 0; l <= maxLevel && l <= 9; ++l) mask = static_cast<U16>(mask | (1u << l));
  facility(name).levelsIs(mask);
}

bool sinkFileIs(std::string const& path) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  FILE* f = stderr;
  if (!path.empty()) {
    f = std::fopen(path.c_str(), "a");
    if (!f) return false;
  }
  if (s.sink != stderr) std::fclose(s.sink);
  s.sink = f;
  return true;
}

Capture::Capture() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (s.captures++ == 0) s.captured.clear();
}

Capture::~Capture() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  --s.captures;
}

std::string Capture::text() const {
  State& s = state();
  std::lock_guard lock(s.mutex);
  return s.captured;
}

void Capture::clear() {
  State& s = state();
  std::lock_guard lock(s.mutex);
  s.captured.clear();
}

Line::~Line() {
  std::string line = facility_.name() + "[" + std::to_string(level_) + "] " + text_.str() + "\n";
  State& s = state();
  std::lock_guard lock(s.mutex);
  std::fwrite(line.data(), 1, line.size(), s.sink);
  std::fflush(s.sink);
  if (s.captures) s.captured += line;
}

}  // namespace Glimmer
