#include <Brio/String.h>

#include <ostream>

namespace Brio {

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

std::ostream& operator<<(std::ostream& os, Bytes const& b) {
  static constexpr char digits[] = "0123456789abcdef";
  for (char c : b) {
    auto u = static_cast<unsigned char>(c);
    os << digits[u >> 4] << digits[u & 0xf];
  }
  return os;
}

}  // namespace Brio
