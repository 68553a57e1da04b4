// libFuzzer target for the receive-path sanity checks and the option readers:
// checkEthIpHdr, checkEthIp6Hdr, checkIcmp6CheckSum, getIcmp6Opt (every
// option type), setIcmp6CheckSum, and the variable-length option wrappers.
//
// The first input byte picks how the rest becomes a frame: as it is, or
// behind a forced Ethernet and IPv6 (or IPv4) header whose length field the
// input still controls, so that most inputs reach the ICMPv6 option walk.
// The frame's bytes end exactly where its heap block ends: a read past the
// packet is a heap overflow under AddressSanitizer. Seeds: fuzz/corpus/PktFuzz.
#include <Corvid/PktUtils.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

using namespace Corvid;

namespace {

Brio::Ptr<Pkt> exactPkt(std::string const& frame) {
  Brio::Ptr<Pkt> pkt = Brio::makePtr<Pkt>();
  pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(static_cast<U32>(frame.size())));
  pkt->bytesValueIs(Brio::Bytes(frame.data(), frame.size()));
  return pkt;
}

void mustLieInPacket(Brio::Ptr<Pkt> const& pkt, void const* p, std::size_t bytes) {
  auto const* b = static_cast<U8 const*>(p);
  if (b < pkt->frontData() || b + bytes > pkt->frontData() + pkt->frontBytes()) __builtin_trap();
}

// The neighbour discovery options after `start`, read through their wrappers.
void readOptions(Brio::Ptr<Pkt> const& pkt, U32 start, U32 end) {
  for (U32 off = start; off + 8 <= end;) {
    U8 const type = pkt->frontData()[off];
    U32 const len = pkt->frontData()[off + 1] * 8u;
    if (len == 0) return;
    switch (type) {
      case icmp6OptRouteInformation:
        static_cast<void>(icmp6HdrRouteInformationOptionWrapperFactory(pkt, off)->prefix());
        break;
      case icmp6OptDnsServerInfo: {
        auto w = icmp6HdrDnsServerInfoOptionWrapperFactory(pkt, off);
        for (U32 i = 0; i <= w->addresses(); ++i) static_cast<void>(w->address(i));
        break;
      }
      case icmp6OptDnsSuffixInfo:
        static_cast<void>(icmp6HdrDnsSuffixInfoOptionWrapperFactory(pkt, off)->domainNames());
        break;
      case icmp6OptNetworkBoot:
        static_cast<void>(icmp6HdrNetworkBootOptionWrapperFactory(pkt, off)->bootUrl());
        break;
      default:
        break;
    }
    off += len;
  }
}

void checkIp6(std::string const& frame) {
  Brio::Ptr<Pkt> pkt = exactPkt(frame);
  EthHdr* eth = nullptr;
  Ip6Hdr* ip6 = nullptr;
  if (checkEthIp6Hdr(pkt, eth, ip6) != noError) return;
  mustLieInPacket(pkt, ip6, sizeof(Ip6Hdr) + ip6->payloadLength.value());
  Icmp6Hdr* icmp6 = nullptr;
  checkIcmp6CheckSum(ip6, icmp6);
  if (!icmp6) return;
  for (int type = 0; type < 256; ++type) {
    Icmp6OptionCommonHdr* opt = nullptr;
    if (getIcmp6Opt(ip6, icmp6, opt, static_cast<Icmp6OptionTypeNumber>(type)) == icmp6TypeNotSupported) break;
    if (opt) mustLieInPacket(pkt, opt, opt->length * 8u);
  }
  setIcmp6CheckSum(ip6, icmp6);
  Icmp6Hdr* again = nullptr;
  if (checkIcmp6CheckSum(ip6, again) != noError) __builtin_trap();  // a checksum just set must verify
  U32 const icmp6Off = sizeof(EthHdr) + sizeof(Ip6Hdr);
  readOptions(pkt, icmp6Off + 4, icmp6Off + ip6->payloadLength.value());
}

void checkIp4(std::string const& frame) {
  Brio::Ptr<Pkt> pkt = exactPkt(frame);
  EthHdr* eth = nullptr;
  IpHdr* ip = nullptr;
  if (checkEthIpHdr(pkt, eth, ip) == noError) mustLieInPacket(pkt, ip, ip->totalLength.value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size) {
  if (size < 1 || size > 70000) return 0;
  std::string const body(reinterpret_cast<char const*>(data) + 1, size - 1);
  switch (data[0] % 3) {
    case 0:  // the bytes as a frame
      checkIp4(body);
      checkIp6(body);
      break;
    case 1: {  // IPv6 and ICMPv6; the body's first two bytes are the payload length
      if (body.size() < 2) return 0;
      std::string frame = std::string("\x33\x33\x00\x00\x00\x01\x02\x00\x00\x00\x00\x01\x86\xdd", 14);
      frame += std::string("\x60\x00\x00\x00", 4) + body.substr(0, 2) + std::string("\x3a\xff", 2);
      frame += std::string("\xfe\x80", 2) + std::string(14, '\x01') + std::string("\xff\x02", 2) + std::string(14, '\x02');
      frame += body.substr(2);
      checkIp6(frame);
      break;
    }
    default: {  // IPv4: the body follows a version nibble of 4
      std::string frame = std::string("\x01\x00\x5e\x00\x00\x01\x02\x00\x00\x00\x00\x01\x08\x00", 14) + body;
      if (frame.size() > 14) frame[14] = static_cast<char>(0x40 | (frame[14] & 0x0f));
      checkIp4(frame);
    }
  }
  return 0;
}
