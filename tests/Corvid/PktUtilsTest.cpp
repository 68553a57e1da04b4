#include <Corvid/PktUtils.h>

#include <Glimmer/Glimmer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/PktCases.h"
#include "support/ValueCases.h"

namespace Corvid {
namespace {

using namespace CorvidTest;

std::string const ethIp4 = fromHex("00112233445566778899aabb0800");
std::string const ethIp6 = fromHex("333300000001020000000001" "86dd");
// RFC 1071's favourite: 20 bytes, total length 0x73, checksum b861.
std::string const ip4Header = fromHex("450000730000400040 11b861c0a80001c0a800c7");

std::string ip4Frame() { return ethIp4 + ip4Header + std::string(0x73 - 20, 'p'); }

// Wrappers come from per-thread caches, one per size with four sizes cached:
// six wrapper types made and dropped in a shuffled order, some held across
// rounds, must always be distinct objects bound where they were asked to be.
TEST(HdrWrapper, CachedWrapperMemoryIsNeverHandedOutTwice) {
  Brio::Ptr<Pkt> pkt = exactPkt(std::string(128, '\0'));
  std::vector<Brio::Ptr<Brio::PtrInterface>> held;
  std::vector<std::pair<void const*, U8 const*>> live;  // wrapper, header it was bound to
  auto keep = [&](auto w, U32 offset) {
    EXPECT_EQ(reinterpret_cast<U8 const*>(w->header()), reinterpret_cast<U8 const*>(pkt->frontData()) + offset);
    for (auto const& [other, header] : live) EXPECT_NE(other, static_cast<void const*>(w.ptr()));
    live.emplace_back(w.ptr(), reinterpret_cast<U8 const*>(w->header()));
    held.push_back(w);
  };
  for (U32 round = 0; round < 200; ++round) {
    U32 const offset = round % 40;
    switch (round % 6) {
      case 0: keep(ethHdrWrapperFactory(pkt, offset), offset); break;
      case 1: keep(ipHdrWrapperFactory(pkt, offset), offset); break;
      case 2: keep(udpHdrWrapperFactory(pkt, offset), offset); break;
      case 3: keep(ip6HdrWrapperFactory(pkt, offset), offset); break;
      case 4: keep(tcpHdrWrapperFactory(pkt, offset), offset); break;
      default: keep(mplsHdrWrapperFactory(pkt, offset), offset); break;
    }
    if (round % 7 == 6) {  // drop all but the newest two, in order of making
      held.erase(held.begin(), held.end() - 2);
      live.erase(live.begin(), live.end() - 2);
    }
  }
}

TEST(HdrWrapper, BitFieldSettersLeaveNeighbouringBitsAlone) {
  Brio::Ptr<Pkt> pkt = exactPkt(std::string(40, '\xff'));
  auto ip6 = ip6HdrWrapperFactory(pkt, 0);
  ip6->trafficClassIs(0x12);
  EXPECT_EQ(ip6->version(), 15);
  EXPECT_EQ(ip6->flowLabel(), 0xfffffu);
  ip6->versionIs(6);
  ip6->flowLabelIs(0xabcde);
  EXPECT_EQ(pkt->stringValue().str().substr(0, 4), fromHex("612abcde"));

  auto mpls = mplsHdrWrapperFactory(pkt, 0);
  mpls->labelIs(16);
  mpls->trafficClassIs(5);
  mpls->bottomOfStackIs(false);
  mpls->ttlIs(64);
  EXPECT_EQ(pkt->stringValue().str().substr(0, 4), fromHex("00010a40"));
  EXPECT_EQ(mpls->label(), 16u);
  EXPECT_EQ(mpls->trafficClass(), 5);

  auto tcp = tcpHdrWrapperFactory(pkt, 0);
  tcp->dataOffsetIs(5);
  tcp->flagsIs(0x012);  // SYN ACK
  EXPECT_EQ(pkt->stringValue().str().substr(12, 2), fromHex("5e12"));  // reserved bits kept
  auto vxlan = vxlanHdrWrapperFactory(pkt, 0);
  vxlan->flagsIs(0);
  vxlan->vniValidIs(true);
  vxlan->vniIs(0x123456);
  EXPECT_EQ(pkt->stringValue().str().substr(0, 8), fromHex("08010a40 123456ff"));

  auto ip = ipHdrWrapperFactory(exactPkt(std::string(20, '\xff')), 0);
  ip->dscpIs(46);
  ip->moreFragmentsIs(false);
  ip->fragmentOffsetIs(0x0123);
  EXPECT_EQ(ip->pkt()->stringValue().str().substr(0, 8), fromHex("ffbbffff ffffc123"));  // ECN and DF kept
}

// The EtherTypes of scapy's frames (IPv4, IPv6, ARP, both tags, MPLS) are
// read there; here the other known ones and some the system does not know.
TEST(HdrWrapper, EthTypeReadsOnlyTheEtherTypesTheSystemKnows) {
  struct Case {
    U16 wire;
    EthType expected;
  } const cases[] = {{0x88F7, ethTypePtp},   {0x8902, ethTypeCfm},   {0x9100, ethTypeQinQ9100},
                     {0x88CC, ethTypeNone},  {0x8848, ethTypeNone},  {0x0000, ethTypeNone}};
  for (auto const& c : cases) {
    std::string frame = ethIp4;
    frame[12] = static_cast<char>(c.wire >> 8);
    frame[13] = static_cast<char>(c.wire);
    EXPECT_EQ(ethHdrWrapperFactory(exactPkt(frame), 0)->ethType(), c.expected) << std::hex << c.wire;
  }
}

TEST(HdrWrapper, IpHdrOffsetSkipsTheTagsTheFrontPieceHolds) {
  struct Case {
    std::string frame;
    U32 expected;
  } const cases[] = {
      {ethIp4 + ip4Header, 14},
      {fromHex("00112233445566778899aabb" "81000064" "0800") + ip4Header, 18},
      {fromHex("00112233445566778899aabb" "88a80064" "81000065" "86dd") + std::string(40, 0), 22},
      {fromHex("00112233445566778899aabb" "8100"), 14},        // tag announced, not present
      {fromHex("00112233445566778899aabb" "810000"), 14},      // tag cut short
  };
  for (auto const& c : cases) {
    EXPECT_EQ(ethHdrWrapperFactory(exactPkt(c.frame), 0)->ipHdrOffset(), c.expected);
  }
}

TEST(HdrWrapper, BindingBeyondTheFrontPieceIsAnAssertionNamingTheHeader) {
  Brio::Ptr<Pkt> pkt = exactPkt(ip4Frame());
  EXPECT_DEATH(ipHdrWrapperFactory(pkt, pkt->frontBytes() - 19), assertion("( offset_ + sizeof( IpHdr ) ) <= pkt_->frontBytes()"));
  EXPECT_DEATH(ethHdrWrapperFactory(exactPkt(std::string(13, 'e')), 0),
               assertion("( offset_ + sizeof( EthHdr ) ) <= pkt_->frontBytes()"));
  EXPECT_DEATH(icmp6NeighborSolicitationHdrWrapperFactory(pkt, 0xffffffffu),
               assertion("( offset_ + sizeof( Icmp6NeighborSolicitationHdr ) ) <= pkt_->frontBytes()"));
  // Headers live in the front piece only: the shared data behind private bytes is out of reach.
  pkt->newPrivateHeadData(4);
  EXPECT_DEATH(udpHdrWrapperFactory(pkt, 0), assertion("( offset_ + sizeof( UdpHdr ) ) <= pkt_->frontBytes()"));
  ip6HdrPad1WrapperFactory(pkt, 3);  // the last private byte still binds

  auto ip = ipHdrWrapperFactory(exactPkt(ip4Frame()), 14);
  ip->headerIs(nullptr);
  EXPECT_EQ(ip->totalLength(), 0);
  EXPECT_EQ(ip->src(), IpAddr());
  EXPECT_DEATH(ip->ttlIs(1), assertion("header_"));
}

// Option values are held against scapy; here the lengths that lie.
TEST(HdrWrapper, VariableLengthOptionsStopAtTheirLengthAndThePacketEnd) {
  // RDNSS announcing two addresses of which the packet holds one.
  std::string const rdnss = fromHex("1905" "0000" "00000258") + fromHex("20010db8000000000000000000000053");
  auto rd = icmp6HdrDnsServerInfoOptionWrapperFactory(exactPkt(rdnss), 0);
  EXPECT_EQ(rd->addresses(), 2u);
  EXPECT_EQ(rd->address(0), Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 0x53));
  EXPECT_EQ(rd->address(1), Ip6Addr());  // announced, but past the packet's end
  EXPECT_EQ(rd->address(2), Ip6Addr());
  // A label running past the option ends the list; so does a label over 63 bytes.
  std::string const badLabel = fromHex("1f02" "0000" "00000258") + std::string("\x03" "abc" "\x00" "\x09" "xy", 8);
  EXPECT_THAT(icmp6HdrDnsSuffixInfoOptionWrapperFactory(exactPkt(badLabel), 0)->domainNames(),
              testing::ElementsAre("abc"));
  std::string const longLabel = fromHex("1f02" "0000" "00000258") + std::string("\x40" "abcdefg", 8);
  EXPECT_TRUE(icmp6HdrDnsSuffixInfoOptionWrapperFactory(exactPkt(longLabel), 0)->domainNames().empty());
  // A zero-length route information option carries no prefix bytes.
  EXPECT_EQ(icmp6HdrRouteInformationOptionWrapperFactory(exactPkt(fromHex("1800" "00000000000000000000")), 0)->prefix(),
            Ip6Addr());
}

// Field values are held against scapy; here only a header cut short.
TEST(HdrWrapper, GreOptionalFieldsCutShortReadAsZero) {
  auto cut = greHdrWrapperFactory(exactPkt(fromHex("3000" "0800" "0000")), 0);  // key announced, cut short
  EXPECT_EQ(cut->headerBytes(), 12u);
  EXPECT_EQ(cut->key(), 0u);
  EXPECT_EQ(cut->checksum(), 0);
}

// --- sanity checks ---------------------------------------------------------------

struct CheckResult {
  PktErrors code;
  std::string trace;
};

template <class F>
CheckResult traced(F&& check) {
  Glimmer::enable("Corvid", pktErrorTraceLevel);
  Glimmer::sinkFileIs("/dev/null");
  Glimmer::Capture capture;
  PktErrors code = check();
  Glimmer::enable("Corvid", -1);
  Glimmer::sinkFileIs("");
  return {code, capture.text()};
}

// The code and, on a failure, the part of the trace that says why; a pass traces nothing.
void expectResult(CheckResult const& r, PktErrors code, std::string const& trace, std::string const& where = "") {
  EXPECT_EQ(r.code, code) << where;
  if (code == noError) {
    EXPECT_EQ(r.trace, "") << where;
  } else {
    EXPECT_THAT(r.trace, testing::HasSubstr(trace)) << where;
  }
}

// One of the frame checks on a packet holding exactly `frame`.
template <class IpHeader>
CheckResult checkFrame(PktErrors (*check)(Brio::Ptr<Pkt> const&, EthHdr*&, IpHeader*&), std::string const& frame) {
  Brio::Ptr<Pkt> pkt = exactPkt(frame);
  EthHdr* eth = nullptr;
  IpHeader* ip = nullptr;
  return traced([&] { return check(pkt, eth, ip); });
}
CheckResult checkIp4(std::string const& frame) { return checkFrame(checkEthIpHdr, frame); }
CheckResult checkIp6(std::string const& frame) { return checkFrame(checkEthIp6Hdr, frame); }

// `frame` with the bytes at `at` overwritten.
std::string patched(std::string frame, std::size_t at, std::string const& bytes) {
  return frame.replace(at, bytes.size(), bytes);
}

// A frame, the code a check gives it and a part of the trace that says why.
struct FrameCase {
  char const* name;
  std::string frame;
  PktErrors code;
  char const* trace;
};

// The cases, and every prefix of the good frame shorter than `needed` bytes.
void expectFrameCases(std::vector<FrameCase> const& cases, std::size_t needed,
                      CheckResult (*check)(std::string const&)) {
  for (auto const& c : cases) expectResult(check(c.frame), c.code, c.trace, c.name);
  for (std::size_t n = 0; n < needed; ++n) {
    std::string const trace = "Packet has " + std::to_string(n) + " bytes which is less than needed";
    expectResult(check(cases.front().frame.substr(0, n)), pktTooShort, trace, std::to_string(n));
  }
}

std::string withIp4(std::string header, std::size_t payload) {
  IpHdr* ip = reinterpret_cast<IpHdr*>(header.data());
  ip->checksum = IpChecksum(0);
  ip->checksum = ip->computedChecksum();
  return ethIp4 + header + std::string(payload, 'p');
}

// Where the check points and what it leaves in the checksum field are held
// against scapy's frames; here the codes and traces.
TEST(CheckEthIpHdr, CodesAndTracesFollowTheFirstFailedCheckAndEveryTruncationIsTooShort) {
  std::string const ihl15 = fromHex("4f00 0014 0000 4000 4011 0000 c0a80001 c0a800c7");
  expectFrameCases(
      {
          {"good", ip4Frame(), noError, ""},
          {"zero payload, 34 bytes", withIp4(fromHex("4500 0014 0000 4000 4011 0000 c0a80001 c0a800c7"), 0), noError,
           ""},
          {"EtherType", patched(ip4Frame(), 12, "\x86\xdd"), nonIpEthType, "Type: 0x86dd"},
          {"version", patched(ip4Frame(), 14, "\x65"), nonIpHdr, "Ip hdr is not IPv4"},
          {"total length past the frame", ip4Frame().substr(0, 14 + 0x72), badIpPayloadLen,
           "IPv4 payload length is larger than the actual packet size 115 vs. 114"},
          {"header longer than total length", ethIp4 + ihl15 + std::string(60, 'p'), badIpPayloadLen,
           "IPv4 payload length is larger than the actual packet size"},
          {"checksum", patched(ip4Frame(), 24, std::string(1, '\0')), badIpHdrChecksum,
           "IPv4 header checksum is invalid"},
      },
      34, checkIp4);
  Brio::Ptr<Pkt> none = Brio::makePtr<Pkt>();  // no data at all
  EthHdr* eth = nullptr;
  IpHdr* ip = nullptr;
  EXPECT_EQ(checkEthIpHdr(none, eth, ip), pktTooShort);
}

// An NS for 2001:db8::1 with a source link-layer address option.
std::string ip6Frame(std::string const& icmp6, U16 payloadLength) {
  std::string ip6 = fromHex("6000000000003aff" "fe800000000000000000000000000001" "ff0200000000000000000001ff000001");
  ip6[4] = static_cast<char>(payloadLength >> 8);
  ip6[5] = static_cast<char>(payloadLength);
  return ethIp6 + ip6 + icmp6;
}

std::string const nsMessage = fromHex("87000000" "00000000" "20010db8000000000000000000000001" "0101020000000001");

std::string signedIp6Frame(std::string const& icmp6) {
  std::string frame = ip6Frame(icmp6, static_cast<U16>(icmp6.size()));
  auto* ip6 = reinterpret_cast<Ip6Hdr*>(frame.data() + 14);
  setIcmp6CheckSum(ip6, reinterpret_cast<Icmp6Hdr*>(frame.data() + 54));
  return frame;
}

TEST(CheckEthIp6Hdr, CodesAndTracesFollowTheFirstFailedCheckAndEveryTruncationIsTooShort) {
  std::string const frame = signedIp6Frame(nsMessage);
  expectFrameCases(
      {
          {"good", frame, noError, ""},
          {"no payload", ip6Frame("", 0), noError, ""},
          {"EtherType", patched(frame, 12, std::string("\x08\x00", 2)), nonIpEthType, "Type: 0x800"},
          {"version", patched(frame, 14, "\x40"), nonIp6Hdr, "Ip hdr is not IPv6"},
          {"payload past the frame", frame.substr(0, frame.size() - 1), badIp6PayloadLen,
           "IPv6 payload length is larger than the actual packet size. 32 vs. 31"},
      },
      54, checkIp6);
}

// Where the check points, the field it leaves zero and setIcmp6CheckSum's
// sum are held on every ICMPv6 frame scapy builds; here codes and traces.
TEST(CheckIcmp6CheckSum, CodesAndTracesFollowTheFirstFailedCheck) {
  std::string frame = signedIp6Frame(nsMessage);
  auto* ip6 = reinterpret_cast<Ip6Hdr*>(frame.data() + 14);
  Icmp6Hdr* icmp6 = nullptr;
  auto const check = [&] { return traced([&] { return checkIcmp6CheckSum(ip6, icmp6); }); };
  expectResult(check(), noError, "");
  frame[60] ^= 1;  // reserved bits: the sum no longer matches
  expectResult(check(), badIcmp6Checksum, "Icmp6 checksum is invalid");
  ip6->payloadLength.valueIs(3);
  expectResult(check(), badIp6PayloadLen, "IP6 payload is too small to contain Icmp6");
  ip6->nextHeader = ipProtoUdp;
  expectResult(check(), nextHdrIsNotIcmp6, "Next header is not Icmp6");
  EXPECT_EQ(setIcmp6CheckSum(ip6, icmp6), nextHdrIsNotIcmp6);
}

// The sum itself is held against scapy; here a length the packet lacks.
TEST(CheckIcmp6CheckSum, WrapperChecksumOverAClaimedLengthPastThePacketDoesNotOverread) {
  Brio::Ptr<Pkt> pkt = exactPkt(signedIp6Frame(nsMessage));
  auto icmp6 = icmp6HdrWrapperFactory(pkt, 54);
  auto ip6 = ip6HdrWrapperFactory(pkt, 14);
  icmp6->pseudoHdrIs(ip6->src(), ip6->dst(), ip6->payloadLength() + 100u);
  U16 const onWire = icmp6->checksum();
  icmp6->checksumIs(0);
  EXPECT_NE(icmp6->computedChecksum(), onWire);
}

// getIcmp6Opt over an NS whose option area is `options`, looking for type 1.
struct OptResult {
  PktErrors code;
  int foundAt;  // option offset in the area, -1 when untouched
};

// Options start 8 bytes into a router solicitation, 24 into the others.
OptResult optionWalk(std::string const& options, U8 icmp6Type = icmp6NeighborSolicitation) {
  std::size_t const start = icmp6Type == icmp6RouterSolicitation ? 8 : 24;
  std::string message = nsMessage.substr(0, start) + options;
  message[0] = static_cast<char>(icmp6Type);
  std::string frame = ip6Frame(message, static_cast<U16>(message.size()));
  auto* ip6 = reinterpret_cast<Ip6Hdr*>(frame.data() + 14);
  auto* icmp6 = reinterpret_cast<Icmp6Hdr*>(frame.data() + 54);
  Icmp6OptionCommonHdr* opt = nullptr;
  PktErrors code = getIcmp6Opt(ip6, icmp6, opt, icmp6OptSrcLinkLayerAddr);
  int const at = opt ? static_cast<int>(reinterpret_cast<char*>(opt) - frame.data() - 54 - start) : -1;
  return {code, at};
}

std::string option(U8 type, U8 length) {
  std::string o(std::max<std::size_t>(length * 8u, 2), '\0');
  o[0] = static_cast<char>(type);
  o[1] = static_cast<char>(length);
  return o;
}

TEST(GetIcmp6Opt, WalksOptionsWithTheCodesForEveryLengthShape) {
  char const* const zero = "Option length cannot be zero.";
  char const* const exceeds = "Option length exceeds pkt length.";
  struct Case {
    char const* name;
    std::string options;
    PktErrors code;
    char const* trace;
    int foundAt;
  } const cases[] = {
      {"no options", "", noError, "", -1},
      {"one stray byte", "\x01", noError, "", -1},
      {"found", option(1, 1), noError, "", 0},
      {"last match wins", option(1, 1) + option(3, 4) + option(1, 2), noError, "", 40},
      {"other types only", option(2, 1) + option(5, 1), noError, "", -1},
      {"zero length", option(2, 1) + option(1, 0) + std::string(6, '\0'), icmp6OptLenZero, zero, -1},
      {"longer than the payload", option(1, 1) + option(3, 4).substr(0, 16), icmp6OptLenExceedPayloadLen, exceeds, 0},
      {"two bytes left: looked at once more", option(1, 1) + std::string(2, '\x01'), icmp6OptLenExceedPayloadLen,
       exceeds, 0},
      {"one byte left", option(1, 1) + std::string(1, '\x01'), noError, "", 0},
      {"three bytes left", option(1, 1) + std::string("\x01\x01\x01", 3), icmp6OptLenExceedPayloadLen, exceeds, 0},
  };
  for (auto const& c : cases) {
    OptResult r;
    expectResult(traced([&] { return (r = optionWalk(c.options)).code; }), c.code, c.trace, c.name);
    EXPECT_EQ(r.foundAt, c.foundAt) << c.name;
  }
}

TEST(GetIcmp6Opt, OnlySolicitationsAndAdvertisementsOfNeighboursAndRoutersSolicitationsHaveOptions) {
  for (int type = 0; type < 256; ++type) {
    OptResult r = optionWalk(option(1, 1), static_cast<U8>(type));
    bool const supported = type == 133 || type == 135 || type == 136;
    EXPECT_EQ(r.code, supported ? noError : icmp6TypeNotSupported) << type;
    EXPECT_EQ(r.foundAt, supported ? 0 : -1) << type;
  }
}

TEST(PseudoHdr, LaysOutTheSummedBytesAndPrintsAsARecord) {
  Ip6Addr const src(0xfe80, 0, 0, 0, 0, 0, 0, 1);
  Ip6Addr const dst(0xff02, 0, 0, 0, 0, 1, 0xff00, 1);
  Icmp6PseudoHdr const pseudo(src, dst, 32);
  std::string const bytes(reinterpret_cast<char const*>(&pseudo), sizeof(pseudo));
  EXPECT_EQ(bytes, fromHex("fe800000000000000000000000000001" "ff0200000000000000000001ff000001" "00000020" "0000" "00" "3a"));
  EXPECT_EQ(expectStrepRoundTrip(pseudo),
            "Value('Corvid::Icmp6PseudoHdr', ** {'src': fe80::1, 'dst': ff02::1:ff00:1, 'icmp6Len': 32, "
            "'zeros16': 0, 'zeros8': 0, 'nextHeader': 58})");
  expectAscending(std::vector<Icmp6PseudoHdr>{Icmp6PseudoHdr(src, dst, 31), pseudo, Icmp6PseudoHdr(dst, src, 0)});
  EXPECT_NE(std::hash<Icmp6PseudoHdr>()(pseudo), std::hash<Icmp6PseudoHdr>()(Icmp6PseudoHdr(src, dst, 31)));

  TcpPseudoHdr const tcp(IpAddr(10, 0, 0, 1), IpAddr(10, 0, 0, 2), 0, ipProtoTcp, 20);
  EXPECT_EQ(std::string(reinterpret_cast<char const*>(&tcp), sizeof(tcp)), fromHex("0a0000010a0000020006" "0014"));
  expectStrepRoundTrip(tcp);
}

}  // namespace
}  // namespace Corvid
