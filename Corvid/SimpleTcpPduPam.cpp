#include <Corvid/SimpleTcpPduPam.h>

namespace Corvid {

U16 SimpleTcpPduPam::getPduSize() {
  Brio::Ptr<Pkt> const& pkt = rxPktHolderShadow();
  if (!pkt || pkt->sharedBuffer()->dataBytes() < headerLength) return headerLength;
  U8 const* header = pkt->sharedBuffer()->data();
  return static_cast<U16>(header[2] << 8 | header[3]);
}

Brio::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
    Brio::Ptr<TcpFileDescriptor const> const& fd,
    Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdFactory) {
  return Brio::Ptr<SimpleTcpPduPam>(new SimpleTcpPduPam(fd, fdFactory));
}

}  // namespace Corvid
