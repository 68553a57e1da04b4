// Hostile netlink datagrams: the bounded message walk, the attribute walk
// and the typed decoding must end cleanly on any bytes, never read past the
// datagram (AddressSanitizer watches) and never loop.
#include <Corvid/NetlinkDecode.h>
#include <Corvid/NetlinkUtils.h>

#include <sys/socket.h>

#include <cstring>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // A private copy ending exactly where its heap block ends (an overread is
  // a heap overflow under AddressSanitizer) and aligned as the kernel's
  // datagrams are.
  auto* exact = new uint8_t[size ? size : 1];
  std::memcpy(exact, data, size);

  Corvid::NetlinkMsgWalk walk(exact, size);
  std::size_t messages = 0;
  while (nlmsghdr const* m = walk.next()) {
    if (++messages > size) __builtin_trap();  // the walk must always advance
    Corvid::RtnlMessage const decoded = Corvid::decodeRtnl(m);
    std::ostringstream sink;
    sink << decoded;
    Corvid::RtAttrWalk attrs(m, 0);
    while (rtattr const* a = attrs.next()) {
      Corvid::IpGenAddr addr;
      Corvid::getGenAddr(a, AF_INET6, &addr);
      Corvid::getCacheInfo(a);
    }
  }
  delete[] exact;
  return 0;
}
