#include <Brio/Hash.h>

#include <cstring>

namespace Brio {

Hash& Hash::mixBytes(void const* data, std::size_t n) {
  auto const* p = static_cast<unsigned char const*>(data);
  while (n >= 4) {
    U32 w;
    std::memcpy(&w, p, 4);
    mixWord(w);
    p += 4;
    n -= 4;
  }
  if (n) {
    U32 w = 0;
    std::memcpy(&w, p, n);
    mixWord(w);
    length_ -= static_cast<U32>(4 - n);
  }
  return *this;
}

}  // namespace Brio
