// Building a frame the way a sender does: the payload first, then each
// header prepended into the packet's headroom (no copies) and filled
// through its wrapper; then the receive-path check reads it back.
// Run it: packets   (the printed hex decodes with `corvid packet HEX`)
#include <Corvid/Pkt.h>
#include <Corvid/PktUtils.h>

#include <cstdio>
#include <cstring>
#include <iostream>

using namespace Corvid;

int main() {
  IpAddr const src(192, 0, 2, 1), dst(192, 0, 2, 2);
  Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();  // empty, all headroom
  pkt->stringValueIs("hello, corvid");

  // Headroom bytes are not cleared: zero each header before filling it.
  pkt->newSharedHeadData(sizeof(UdpHdr));
  std::memset(pkt->frontData(), 0, sizeof(UdpHdr));
  auto udp = udpHdrWrapperFactory(pkt, 0);
  udp->srcPortIs(4000);
  udp->dstPortIs(7);
  udp->lengthIs(static_cast<U16>(pkt->bytes()));
  udp->pseudoHdrIs(src, dst, pkt->bytes());  // the checksum covers these too
  udp->checksumIs(expectedChecksum(*udp));

  pkt->newSharedHeadData(sizeof(IpHdr));
  std::memset(pkt->frontData(), 0, sizeof(IpHdr));
  auto ip = ipHdrWrapperFactory(pkt, 0);
  ip->versionIs(4);
  ip->headerLengthIs(5);
  ip->totalLengthIs(static_cast<U16>(pkt->bytes()));
  ip->ttlIs(64);
  ip->protocolIs(ipProtoUdp);
  ip->srcIs(src);
  ip->dstIs(dst);
  ip->checksumIs(ip->computedChecksum());

  pkt->newSharedHeadData(sizeof(EthHdr));
  auto eth = ethHdrWrapperFactory(pkt, 0);
  eth->dstIs(EthAddr(0x02, 0, 0, 0, 0, 0x02));
  eth->srcIs(EthAddr(0x02, 0, 0, 0, 0, 0x01));
  eth->ethTypeIs(ethTypeIp);

  std::cout << "frame " << pkt->bytes() << " bytes:";
  for (U32 i = 0; i < pkt->bytes(); ++i) std::printf("%s%02x", i ? "" : " ", pkt->rawByte(i));
  std::cout << "\n";

  // The receiver's view: length, EtherType, version, lengths, checksum.
  EthHdr* ethHdr = nullptr;
  IpHdr* ipHdr = nullptr;
  PktErrors const check = checkEthIpHdr(pkt, ethHdr, ipHdr);
  std::cout << "checkEthIpHdr: " << (check == noError ? "ok" : "error " + std::to_string(check)) << "\n";
  if (check != noError) return 1;
  auto rxUdp = udpHdrWrapperFactory(pkt, 14 + ipHdr->headerBytes());
  rxUdp->pseudoHdrIs(ipHdr->src.value(), ipHdr->dst.value(), ipHdr->payloadLength());
  std::cout << "eth " << ethHdr->src.value() << " -> " << ethHdr->dst.value() << " type 0x" << std::hex
            << ethHdr->ethType.value() << std::dec << "\nipv4 " << ipHdr->src.value() << " -> "
            << ipHdr->dst.value() << " ttl " << int(ipHdr->ttl) << " protocol " << int(ipHdr->protocol)
            << " length " << ipHdr->totalLength.value() << "\nudp " << rxUdp->srcPort() << " -> "
            << rxUdp->dstPort() << " length " << rxUdp->length() << " checksum "
            << (checksumValid(*rxUdp) ? "valid" : "wrong") << "\n";
  return 0;
}
