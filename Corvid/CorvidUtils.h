// Small helpers shared by the library's modules.
#pragma once

#include <Brio/String.h>

namespace Corvid {

// The library's version, "major.minor.patch".
Brio::String version();

}  // namespace Corvid
