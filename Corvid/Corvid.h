// Umbrella header: every public header of the library and its platform.
#pragma once

#include <Brio/Brio.h>
#include <Corvid/CorvidUtils.h>
