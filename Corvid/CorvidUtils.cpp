#include <Corvid/CorvidUtils.h>

namespace Corvid {

Brio::String version() { return CORVID_VERSION; }

}  // namespace Corvid
