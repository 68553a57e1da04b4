#include <Brio/Ptr.h>

namespace Brio {

namespace detail {
bool threadSafePointers = false;
}

void threadSafePointersIs(bool on) { detail::threadSafePointers = on; }

}  // namespace Brio
