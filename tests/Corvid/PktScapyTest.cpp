// The header wrappers, checksums and sanity checks held against scapy, an
// independent packet library: frames scapy builds are read through the
// wrappers' getters and checks, then written again through their setters,
// which must reproduce scapy's bytes. tests/Corvid/scapy_frames.py is the
// scapy side; it prints one hex line per frame with the fields it decoded.
#include <Corvid/PktUtils.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/PktCases.h"

namespace Corvid {
namespace {

std::string scriptPath() {
  char const* root = std::getenv("CORVID_TEST_SOURCE_DIR");
  return std::string(root ? root : CORVID_SOURCE_DIR) + "/tests/Corvid/scapy_frames.py";
}

// The first interpreter that can import scapy (Debian's python3-scapy lives
// beside /usr/bin/python3, which another python3 on PATH may shadow).
std::string scapyPython() {
  for (char const* python : {"/usr/bin/python3", "python3"}) {
    std::string const probe = std::string(python) + " -c 'import scapy.all' >/dev/null 2>&1";
    if (std::system(probe.c_str()) == 0) return python;
  }
  return "";
}

// The non-empty lines a command prints.
std::vector<std::string> runLines(std::string const& command) {
  std::vector<std::string> lines(1);
  if (FILE* out = ::popen(command.c_str(), "r")) {
    for (int c; (c = std::fgetc(out)) != EOF;) {
      if (c != '\n') lines.back() += static_cast<char>(c);
      else if (!lines.back().empty()) lines.emplace_back();
    }
    ::pclose(out);
  }
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

using namespace CorvidTest;

// --- scapy builds; the wrappers read it and write it back ----------------------------

using Fields = std::map<std::string, std::string>;

std::string num(U64 v) { return std::to_string(v); }

// A getter's value as the script prints it: numbers in decimal, values in
// their text, lists joined by '|'.
template <class V>
std::string show(V const& v) {
  if constexpr (std::is_arithmetic_v<V> || std::is_enum_v<V>) {
    return num(static_cast<U64>(v));
  } else if constexpr (std::is_same_v<V, Brio::String>) {
    return v.str();
  } else if constexpr (std::is_same_v<V, std::vector<Brio::String>>) {
    std::string out;
    for (auto const& e : v) out += (out.empty() ? "" : "|") + e.str();
    return out;
  } else {
    return v.stringValue().str();
  }
}

// The layer `name` at `off` of the frame `orig`, through its wrapper `o`.
// Reading (no copy), each field goes into `fields` under its accessor's
// name. Writing back, the layer is zeroed in `copy` and each F field is set
// through the copy's wrapper `c` from what `o` reads: the copy must come out
// as scapy built it, byte for byte. R fields and X values are only read, W
// statements only run when writing. Bytes no wrapper owns (IPv4 and TCP
// options, extension headers, payloads) stay as they are. Checksums are
// written back as read; their values are held against scapy's verdict.
// `upper` is the number of bytes from `off` to the IP payload's end.
#define F(f) R(f) W(c->f##Is(o->f()))
#define R(f) X(#f, o->f())
#define X(key, value) if (!copy) fields[key] = show(value);
#define W(statement) if (copy) { statement; }
#define LAYER(label, factory, bytes, ...)                        \
  if (name == label) {                                           \
    auto o = factory(orig, off);                                 \
    if (copy) std::memset(copy->frontData() + off, 0, (bytes));  \
    auto c = factory(copy ? copy : orig, off);                   \
    __VA_ARGS__                                                  \
    return true;                                                 \
  }

bool throughWrapper(std::string const& name, U32 off, U16 upper, Brio::Ptr<Pkt> const& orig,
                    Brio::Ptr<Pkt> const& copy, Fields& fields) {
  LAYER("eth", ethHdrWrapperFactory, 14, F(dst) F(src) F(ethType))
  LAYER("vlan", eth8021QHdrWrapperFactory, 4, F(priority) F(cfi) F(vlanId) F(ethType))
  LAYER("ip", ipHdrWrapperFactory, 20, F(version) F(headerLength) R(tos) F(dscp) F(ecn) F(totalLength)
        F(identification) F(dontFragment) F(moreFragments) F(fragmentOffset) F(ttl) F(protocol) F(checksum) F(src)
        F(dst))
  LAYER("ip6", ip6HdrWrapperFactory, 40, F(version) F(trafficClass) F(flowLabel) F(payloadLength) F(nextHeader)
        F(hopLimit) F(src) F(dst))
  LAYER("tcp", tcpHdrWrapperFactory, 20, F(srcPort) F(dstPort) F(seqNum) F(ackNum) F(dataOffset) F(flags) F(window)
        F(checksum) F(urgentPointer))
  LAYER("udp", udpHdrWrapperFactory, 8, F(srcPort) F(dstPort) F(length) F(checksum))
  LAYER("icmp", icmpHdrWrapperFactory, 8, F(type) F(code) F(checksum) F(identifier) F(sequence)
        X("checksumOk", checksumValid(*o, upper)))
  LAYER("igmp", igmpV12HdrWrapperFactory, 8, F(type) F(maxRespTime) F(checksum) F(group)
        X("checksumOk", checksumValid(*o, upper)))
  LAYER("arp", ethArpIpHdrWrapperFactory, 28, F(hardwareType) F(protocolType) F(hardwareAddrLen) F(protocolAddrLen)
        F(opcode) F(senderHardwareAddr) F(senderProtocolAddr) F(targetHardwareAddr) F(targetProtocolAddr))
  LAYER("mpls", mplsHdrWrapperFactory, 4, F(label) F(trafficClass) F(bottomOfStack) F(ttl))
  // Key and sequence have no setters (the library only reads them): the
  // fixed four bytes are written back, the checksum in place.
  LAYER("gre", greHdrWrapperFactory, 4, F(checksumPresent) F(keyPresent) F(sequencePresent) R(version) F(protocol)
        F(checksum) R(key) R(sequence) X("checksumOk", !o->checksumPresent() || checksumValid(*o, upper)))
  LAYER("vxlan", vxlanHdrWrapperFactory, 8, F(vniValid) F(vni))
  LAYER("sctp", sctpHdrWrapperFactory, 12, F(srcPort) F(dstPort) F(verificationTag) F(checksum))
  LAYER("routerAlert", ip6HdrRouterAlertOptionWrapperFactory, 4, F(type) F(length) F(value))
  LAYER("icmp6", icmp6HdrWrapperFactory, 4, F(type) F(code) F(checksum))
  LAYER("ns", icmp6NeighborSolicitationHdrWrapperFactory, 20, F(target))
  LAYER("na", icmp6NeighborAdvertisementHdrWrapperFactory, 20, F(router) F(solicited) F(override) F(target))
  LAYER("rs", icmp6RouterSolicitationHdrWrapperFactory, 4, F(reserved))
  LAYER("ra", icmp6RouterAdvertisementHdrWrapperFactory, 12, F(curHopLimit) F(managed) F(other) F(routerPreference)
        F(routerLifetime) F(reachableTime) F(retransTimer))
  LAYER("echo", icmp6EchoRequestHdrWrapperFactory, 4, F(identifier) F(sequence))
  LAYER("packetTooBig", icmp6PacketTooBigHdrWrapperFactory, 4, F(mtu))
  LAYER("slla", icmp6HdrSrcLinkLayerAddrOptionWrapperFactory, 8, F(type) F(length) F(linkLayerAddr))
  LAYER("tlla", icmp6HdrTgtLinkLayerAddrOptionWrapperFactory, 8, F(type) F(length) F(linkLayerAddr))
  LAYER("mtuOption", icmp6HdrMtuOptionWrapperFactory, 8, F(type) F(length) F(mtu))
  LAYER("prefixInfo", icmp6HdrPrefixInfoOptionWrapperFactory, 32, F(type) F(length) F(prefixLength) F(onLink)
        F(autonomous) F(validLifetime) F(preferredLifetime) F(prefix))
  LAYER("routeInfo", icmp6HdrRouteInformationOptionWrapperFactory, o->length() * 8u, F(type) F(length)
        F(prefixLength) F(routePreference) F(routeLifetime) F(prefix))
  LAYER("dnsServer", icmp6HdrDnsServerInfoOptionWrapperFactory, o->length() * 8u, F(type) F(length) F(lifetime)
        R(addresses) for (U32 i = 0; i < o->addresses(); ++i) {
          X("address" + num(i), o->address(i)) W(c->addressIs(i, o->address(i)))
        })
  LAYER("dnsSuffix", icmp6HdrDnsSuffixInfoOptionWrapperFactory, o->length() * 8u, F(type) F(length) F(lifetime)
        F(domainNames) W(EXPECT_EQ(Icmp6HdrDnsSuffixInfoOptionWrapper::lengthFor(o->domainNames()), o->length())))
  LAYER("networkBoot", icmp6HdrNetworkBootOptionWrapperFactory, o->length() * 8u, F(type) F(length) F(lifetime)
        F(bootUrl) W(EXPECT_EQ(Icmp6HdrNetworkBootOptionWrapper::lengthFor(o->bootUrl()), o->length())))
  return false;
}

// The library's own verdicts on a frame, layer by layer, with what the IP
// header around an upper layer says: addresses and where its payload ends.
struct Verdicts {
  explicit Verdicts(Brio::Ptr<Pkt> frame) : pkt(std::move(frame)) {}
  Brio::Ptr<Pkt> pkt;
  bool v6 = false;
  IpAddr src4, dst4;
  Ip6Addr src6, dst6;
  U32 end = 0;
  Ip6Hdr* ip6 = nullptr;
  std::vector<std::string> problems;

  U16 frameEthType() const { return static_cast<U16>(pkt->rawByte(12) << 8 | pkt->rawByte(13)); }

  // The transport checksum under the pseudo header the IP context gives.
  template <class W4, class W6>
  Fields transport(U32 off) {
    auto ok = [&](auto w, auto src, auto dst) {
      w->pseudoHdrIs(src, dst, end - off);
      return Fields{{"checksumOk", num(checksumValid(*w))}};
    };
    return v6 ? ok(hdrWrapperFactory<W6>(pkt, off), src6, dst6) : ok(hdrWrapperFactory<W4>(pkt, off), src4, dst4);
  }

  Fields ip4(U32 off) {
    auto w = ipHdrWrapperFactory(pkt, off);
    U16 const wire = w->checksum();
    bool const ok = checksumValid(*w);
    if (off == 14 && frameEthType() == ethTypeIp) {
      EthHdr* eth = nullptr;
      IpHdr* hdr = nullptr;
      PktErrors const code = checkEthIpHdr(pkt, eth, hdr);
      if (code != (ok ? noError : badIpHdrChecksum)) problems.push_back("checkEthIpHdr gave " + num(-code));
      if (reinterpret_cast<U8*>(eth) != pkt->frontData() || reinterpret_cast<U8*>(hdr) != pkt->frontData() + 14) {
        problems.push_back("checkEthIpHdr pointed elsewhere");
      }
      // A match leaves the field as it was, a mismatch zeroes it.
      if (w->checksum() != (ok ? wire : 0)) problems.push_back("checkEthIpHdr left checksum " + num(w->checksum()));
      w->checksumIs(wire);
    }
    v6 = false;
    src4 = w->src();
    dst4 = w->dst();
    end = off + w->totalLength();
    return {{"checksumOk", num(ok)}};
  }

  Fields ip6Header(U32 off) {
    auto w = ip6HdrWrapperFactory(pkt, off);
    if (off == 14 && frameEthType() == ethTypeIp6) {
      EthHdr* eth = nullptr;
      Ip6Hdr* hdr = nullptr;
      if (checkEthIp6Hdr(pkt, eth, hdr) != noError) problems.push_back("checkEthIp6Hdr refused the frame");
    }
    v6 = true;
    src6 = w->src();
    dst6 = w->dst();
    end = off + 40 + w->payloadLength();
    ip6 = w->header();
    return {};
  }

  Fields icmp6(U32 off) {
    auto w = icmp6HdrWrapperFactory(pkt, off);
    w->pseudoHdrIs(src6, dst6, end - off);
    U16 const wire = w->checksum();
    bool const ok = checksumValid(*w);
    if (off == 54 && ip6 && end == pkt->bytes()) {
      // The library's own check, which leaves the field zero, and its signer,
      // which must sign over whatever the field holds as scapy does.
      Icmp6Hdr* hdr = nullptr;
      PktErrors const code = checkIcmp6CheckSum(ip6, hdr);
      if (code != (ok ? noError : badIcmp6Checksum)) problems.push_back("checkIcmp6CheckSum gave " + num(-code));
      if (reinterpret_cast<U8*>(hdr) != pkt->frontData() + off || w->checksum() != 0) {
        problems.push_back("checkIcmp6CheckSum pointed elsewhere or left the field");
      }
      w->checksumIs(wire);
      if (setIcmp6CheckSum(ip6, hdr) != noError || (ok && w->checksum() != wire)) problems.push_back("setIcmp6CheckSum");
      w->checksumIs(wire);
    }
    return {{"checksumOk", num(ok)}};
  }

  // Where getIcmp6Opt finds the source link-layer address option, as a frame offset.
  Fields srcLinkLayerAddrOption() {
    Icmp6OptionCommonHdr* opt = nullptr;
    auto* icmp6 = reinterpret_cast<Icmp6Hdr*>(pkt->frontData() + 54);
    PktErrors const code = getIcmp6Opt(ip6, icmp6, opt, icmp6OptSrcLinkLayerAddr);
    if (code != noError) problems.push_back("getIcmp6Opt gave " + num(-code));
    return {{"srcLinkLayerAddrOptionAt", opt ? num(reinterpret_cast<U8*>(opt) - pkt->frontData()) : "-1"}};
  }

  Fields of(std::string const& name, U32 off) {
    if (name == "ip") return ip4(off);
    if (name == "ip6") return ip6Header(off);
    if (name == "icmp6") return icmp6(off);
    if (name == "tcp") return transport<TcpHdrWrapper, TcpHdrWrapperIpv6>(off);
    if (name == "udp") return transport<UdpHdrWrapper, UdpHdrWrapperIpv6>(off);
    if (name == "ns" || name == "na" || name == "rs") return srcLinkLayerAddrOption();
    return {};
  }
};

TEST(PktScapy, FramesScapyBuildsReadAndWriteBackTheSameThroughTheWrappers) {
  std::string const python = scapyPython();
  if (python.empty()) GTEST_SKIP() << "python3 with scapy is not installed (Debian package python3-scapy)";
  std::vector<std::string> const lines = runLines(python + " " + scriptPath() + " build 2>&1");
  ASSERT_GE(lines.size(), 25u) << (lines.empty() ? "no output" : lines.front());
  std::size_t layers = 0;
  for (auto const& line : lines) {
    std::istringstream in(line);
    std::string name, hex, token;
    in >> name >> hex;
    std::string const bytes = fromHex(hex);
    Verdicts verdicts(exactPkt(bytes));
    Brio::Ptr<Pkt> copy = exactPkt(bytes);
    while (in >> token) {
      std::size_t const at = token.find('@'), colon = token.find(':');
      std::string const layerName = token.substr(0, at);
      U32 const offset = static_cast<U32>(std::stoul(token.substr(at + 1, colon - at - 1)));
      Fields actual = verdicts.of(layerName, offset);
      U16 const upper = static_cast<U16>(verdicts.end - offset);
      EXPECT_TRUE(throughWrapper(layerName, offset, upper, verdicts.pkt, nullptr, actual) &&
                  throughWrapper(layerName, offset, upper, verdicts.pkt, copy, actual))
          << name << ": no wrapper for layer " << layerName;
      ++layers;
      std::istringstream fields(token.substr(colon + 1));
      for (std::string kv; std::getline(fields, kv, ',');) {
        std::string const key = kv.substr(0, kv.find('=')), want = kv.substr(kv.find('=') + 1);
        auto const found = actual.find(key);
        EXPECT_EQ(found == actual.end() ? "(no such field)" : found->second, want)
            << name << ": " << layerName << "@" << offset << "." << key;
      }
    }
    for (auto const& p : verdicts.problems) ADD_FAILURE() << name << ": " << p;
    EXPECT_EQ(verdicts.pkt->stringValue().str(), bytes) << name << ": reading changed the frame";
    EXPECT_EQ(toHex(copy->stringValue().str()), hex) << name << ": written back through the setters";
  }
  EXPECT_GE(layers, 100u);
}

}  // namespace
}  // namespace Corvid
