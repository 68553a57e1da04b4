// Flagset: feature toggles read from small JSON files.
//
// getToggleState(name, file, default) reads <dir>/<file>, where <dir> is the
// environment variable FLAGSET_DIR, or /etc/corvid/toggles when it is unset.
// The file is one JSON object mapping toggle names to true/false or to a
// non-negative integer; the answer is 1/0 for booleans and the integer
// itself otherwise. A missing file or key gives `defaultState` silently; a
// malformed file, or a value of another type, prints one line to stderr
// ("Flagset: <path>: <reason>") and gives `defaultState`. Files are read on
// every call: callers that need the value often cache it themselves.
#pragma once

#include <string>

namespace Flagset {

constexpr char const* kToggleDirEnv = "FLAGSET_DIR";
constexpr char const* kDefaultToggleDir = "/etc/corvid/toggles";

unsigned getToggleState(std::string const& name, std::string const& file, unsigned defaultState);

}  // namespace Flagset
