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
#include <vector>

namespace Corvid {
namespace {

std::string scriptPath() {
  char const* root = std::getenv("CORVID_TEST_SOURCE_DIR");
  std::string dir = std::string(root ? root : CORVID_SOURCE_DIR) + "/tests/Corvid";
  return dir + "/scapy_frames.py";
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

std::string fromHex(std::string const& hex) {
  std::string out(hex.size() / 2, '\0');
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
  return out;
}

std::string toHex(std::string const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += {digits[c >> 4], digits[c & 15]};
  return out;
}

Brio::Ptr<Pkt> exactPkt(std::string const& bytes) {
  Brio::Ptr<Pkt> pkt = Brio::makePtr<Pkt>();
  pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(static_cast<U32>(bytes.size())));
  pkt->stringValueIs(Brio::String(bytes));
  return pkt;
}

class ScapyTest : public testing::Test {
 protected:
  void SetUp() override {
    python_ = scapyPython();
    if (python_.empty()) {
      GTEST_SKIP() << "python3 with scapy is not installed (Debian package python3-scapy, see scripts/install-deps)";
    }
  }
  std::string run(std::string const& args) const { return python_ + " " + scriptPath() + " " + args + " 2>&1"; }

  std::string python_;
};

// --- scapy builds, the wrappers read ------------------------------------------------

using Fields = std::map<std::string, std::string>;

std::string num(U64 v) { return std::to_string(v); }
template <class A>
std::string text(A const& a) {
  return a.stringValue().str();
}
// A field of the wrapper `w` under its accessor's name: a number, an address.
#define N(f) {#f, num(w->f())}
#define T(f) {#f, text(w->f())}
#define LAYER(label, factory, ...)  \
  if (name == label) {              \
    auto w = factory(pkt, off);     \
    return Fields{__VA_ARGS__};     \
  }

// What the IP header around an upper layer says: addresses and where its payload ends.
struct IpContext {
  bool v6 = false;
  IpAddr src4, dst4;
  Ip6Addr src6, dst6;
  U32 end = 0;
  Ip6Hdr* ip6 = nullptr;
};

struct Reader {
  Brio::Ptr<Pkt> pkt;
  IpContext ip;
  std::vector<std::string> problems;

  U16 frameEthType() const { return static_cast<U16>(pkt->rawByte(12) << 8 | pkt->rawByte(13)); }

  // The transport checksum under the pseudo header the IP context gives, with scapy's verdict key added.
  template <class W, class F>
  Fields summed(Brio::Ptr<W> const& w, U32 offset, F fields) {
    if constexpr (std::is_base_of_v<PseudoHdrFields<Ip6Addr>, W>) {
      w->pseudoHdrIs(ip.src6, ip.dst6, ip.end - offset);
    } else {
      w->pseudoHdrIs(ip.src4, ip.dst4, ip.end - offset);
    }
    Fields f = fields(w);
    f["checksumOk"] = num(checksumValid(*w));
    return f;
  }
  template <class W4, class W6, class F>
  Fields transport(U32 off, F fields) {
    if (ip.v6) return summed(hdrWrapperFactory<W6>(pkt, off), off, fields);
    return summed(hdrWrapperFactory<W4>(pkt, off), off, fields);
  }

  Fields ip4(U32 off) {
    auto w = ipHdrWrapperFactory(pkt, off);
    Fields f = {N(version), N(headerLength), N(tos), N(totalLength), N(identification), N(dontFragment),
                N(moreFragments), N(fragmentOffset), N(ttl), N(protocol), N(checksum), T(src), T(dst)};
    U16 const wire = w->checksum();
    bool const ok = checksumValid(*w);
    if (off == 14 && frameEthType() == ethTypeIp) {
      EthHdr* eth = nullptr;
      IpHdr* hdr = nullptr;
      PktErrors const code = checkEthIpHdr(pkt, eth, hdr);
      if (code != (ok ? noError : badIpHdrChecksum)) problems.push_back("checkEthIpHdr gave " + num(-code));
      w->checksumIs(wire);  // a mismatch leaves the field zeroed
    }
    f["checksumOk"] = num(ok);
    ip = {false, w->src(), w->dst(), {}, {}, off + w->totalLength(), nullptr};
    return f;
  }

  Fields ip6(U32 off) {
    auto w = ip6HdrWrapperFactory(pkt, off);
    if (off == 14 && frameEthType() == ethTypeIp6) {
      EthHdr* eth = nullptr;
      Ip6Hdr* hdr = nullptr;
      if (checkEthIp6Hdr(pkt, eth, hdr) != noError) problems.push_back("checkEthIp6Hdr refused the frame");
    }
    ip = {true, {}, {}, w->src(), w->dst(), off + 40 + w->payloadLength(), w->header()};
    return {N(version), N(trafficClass), N(flowLabel), N(payloadLength), N(nextHeader), N(hopLimit), T(src), T(dst)};
  }

  Fields icmp6(U32 off) {
    auto w = icmp6HdrWrapperFactory(pkt, off);
    w->pseudoHdrIs(ip.src6, ip.dst6, ip.end - off);
    U16 const wire = w->checksum();
    bool const ok = checksumValid(*w);
    if (off == 54 && ip.ip6 && ip.end == pkt->bytes()) {
      // The library's own check, which leaves the field zero: put it back.
      Icmp6Hdr* hdr = nullptr;
      PktErrors const code = checkIcmp6CheckSum(ip.ip6, hdr);
      if (code != (ok ? noError : badIcmp6Checksum)) problems.push_back("checkIcmp6CheckSum gave " + num(-code));
      w->checksumIs(wire);
    }
    return {N(type), N(code), {"checksum", num(wire)}, {"checksumOk", num(ok)}};
  }

  // Where getIcmp6Opt finds the source link-layer address option, as a frame offset.
  std::string srcLinkLayerAddrOptionAt() {
    Icmp6OptionCommonHdr* opt = nullptr;
    auto* icmp6 = reinterpret_cast<Icmp6Hdr*>(pkt->frontData() + 54);
    PktErrors const code = getIcmp6Opt(ip.ip6, icmp6, opt, icmp6OptSrcLinkLayerAddr);
    if (code != noError) problems.push_back("getIcmp6Opt gave " + num(-code));
    return opt ? num(reinterpret_cast<U8*>(opt) - pkt->frontData()) : "-1";
  }

  Fields layer(std::string const& name, U32 off) {
    U16 const upper = static_cast<U16>(ip.end - off);  // the bytes from here to the IP payload's end
    std::string const slla = name == "ns" || name == "na" || name == "rs" ? srcLinkLayerAddrOptionAt() : "";
    if (name == "ip") return ip4(off);
    if (name == "ip6") return ip6(off);
    if (name == "icmp6") return icmp6(off);
    if (name == "tcp") {
      return transport<TcpHdrWrapper, TcpHdrWrapperIpv6>(off, [](auto const& w) {
        return Fields{N(srcPort), N(dstPort),  N(seqNum),   N(ackNum),       N(dataOffset),
                      N(flags),   N(window),   N(checksum), N(urgentPointer)};
      });
    }
    if (name == "udp") {
      return transport<UdpHdrWrapper, UdpHdrWrapperIpv6>(
          off, [](auto const& w) { return Fields{N(srcPort), N(dstPort), N(length), N(checksum)}; });
    }
    if (name == "dnsServer") {
      auto w = icmp6HdrDnsServerInfoOptionWrapperFactory(pkt, off);
      Fields f = {N(type), N(length), N(lifetime), N(addresses)};
      for (U32 i = 0; i < w->addresses(); ++i) f["address" + num(i)] = text(w->address(i));
      return f;
    }
    if (name == "dnsSuffix") {
      auto w = icmp6HdrDnsSuffixInfoOptionWrapperFactory(pkt, off);
      std::string names;
      for (auto const& n : w->domainNames()) names += (names.empty() ? "" : "|") + n.str();
      return {N(type), N(length), N(lifetime), {"names", names}};
    }
    LAYER("eth", ethHdrWrapperFactory, T(dst), T(src), {"ethType", num(w->header()->ethType.value())})
    LAYER("vlan", eth8021QHdrWrapperFactory, N(priority), N(cfi), N(vlanId),
          {"ethType", num(w->header()->ethType.value())})
    LAYER("icmp", icmpHdrWrapperFactory, N(type), N(code), N(checksum), N(identifier), N(sequence),
          {"checksumOk", num(checksumValid(*w, upper))})
    LAYER("igmp", igmpV12HdrWrapperFactory, N(type), N(maxRespTime), N(checksum), T(group),
          {"checksumOk", num(checksumValid(*w, upper))})
    LAYER("arp", ethArpIpHdrWrapperFactory, N(hardwareType), N(protocolType), N(hardwareAddrLen), N(protocolAddrLen),
          N(opcode), T(senderHardwareAddr), T(senderProtocolAddr), T(targetHardwareAddr), T(targetProtocolAddr))
    LAYER("mpls", mplsHdrWrapperFactory, N(label), N(trafficClass), N(bottomOfStack), N(ttl))
    LAYER("gre", greHdrWrapperFactory, N(checksumPresent), N(keyPresent), N(sequencePresent), N(version),
          N(protocol), N(checksum), N(key), N(sequence),
          {"checksumOk", num(!w->checksumPresent() || checksumValid(*w, upper))})
    LAYER("vxlan", vxlanHdrWrapperFactory, N(vniValid), N(vni))
    LAYER("sctp", sctpHdrWrapperFactory, N(srcPort), N(dstPort), N(verificationTag), N(checksum))
    LAYER("routerAlert", ip6HdrRouterAlertOptionWrapperFactory, N(type), N(length), N(value))
    LAYER("ns", icmp6NeighborSolicitationHdrWrapperFactory, T(target), {"srcLinkLayerAddrOptionAt", slla})
    LAYER("na", icmp6NeighborAdvertisementHdrWrapperFactory, N(router), N(solicited), N(override), T(target),
          {"srcLinkLayerAddrOptionAt", slla})
    LAYER("rs", icmp6RouterSolicitationHdrWrapperFactory, N(reserved), {"srcLinkLayerAddrOptionAt", slla})
    LAYER("ra", icmp6RouterAdvertisementHdrWrapperFactory, N(curHopLimit), N(managed), N(other), N(routerPreference),
          N(routerLifetime), N(reachableTime), N(retransTimer))
    LAYER("echo", icmp6EchoRequestHdrWrapperFactory, N(identifier), N(sequence))
    LAYER("packetTooBig", icmp6PacketTooBigHdrWrapperFactory, N(mtu))
    LAYER("slla", icmp6HdrSrcLinkLayerAddrOptionWrapperFactory, N(type), N(length), T(linkLayerAddr))
    LAYER("tlla", icmp6HdrTgtLinkLayerAddrOptionWrapperFactory, N(type), N(length), T(linkLayerAddr))
    LAYER("mtuOption", icmp6HdrMtuOptionWrapperFactory, N(type), N(length), N(mtu))
    LAYER("prefixInfo", icmp6HdrPrefixInfoOptionWrapperFactory, N(type), N(length), N(prefixLength), N(onLink),
          N(autonomous), N(validLifetime), N(preferredLifetime), T(prefix))
    LAYER("routeInfo", icmp6HdrRouteInformationOptionWrapperFactory, N(type), N(length), N(prefixLength),
          N(routePreference), N(routeLifetime), T(prefix))
    LAYER("networkBoot", icmp6HdrNetworkBootOptionWrapperFactory, N(type), N(length), N(lifetime),
          {"bootUrl", w->bootUrl().str()})
    problems.push_back("no wrapper for layer " + name);
    return {};
  }
};

// --- and write it back the same ------------------------------------------------------

// Each layer of a scapy frame is zeroed in a copy of the frame and written
// back through the wrapper's setters from what its getters read in the
// original: the copy must come out as scapy built it, byte for byte. Bytes
// no wrapper owns (IPv4 and TCP options, extension headers, payloads) are
// copied as they are. Checksums are written back as read; their values are
// held against scapy's verdict above.
#define SET(f) c->f##Is(o->f());
#define REWRITE(label, factory, bytes, ...)                   \
  if (name == label) {                                        \
    auto o = factory(orig, off);                              \
    std::memset(copy->frontData() + off, 0, (bytes));         \
    auto c = factory(copy, off);                              \
    __VA_ARGS__                                               \
    return true;                                              \
  }

bool rewrite(Brio::Ptr<Pkt> const& orig, Brio::Ptr<Pkt> const& copy, std::string const& name, U32 off) {
  auto ethType = [](auto const& w) { return static_cast<EthType>(w->header()->ethType.value()); };
  REWRITE("eth", ethHdrWrapperFactory, 14, SET(dst) SET(src) c->ethTypeIs(ethType(o));)
  REWRITE("vlan", eth8021QHdrWrapperFactory, 4, SET(priority) SET(cfi) SET(vlanId) c->ethTypeIs(ethType(o));)
  REWRITE("ip", ipHdrWrapperFactory, 20, SET(version) SET(headerLength) SET(dscp) SET(ecn) SET(totalLength)
          SET(identification) SET(dontFragment) SET(moreFragments) SET(fragmentOffset) SET(ttl) SET(protocol)
          SET(checksum) SET(src) SET(dst))
  REWRITE("ip6", ip6HdrWrapperFactory, 40, SET(version) SET(trafficClass) SET(flowLabel) SET(payloadLength)
          SET(nextHeader) SET(hopLimit) SET(src) SET(dst))
  REWRITE("tcp", tcpHdrWrapperFactory, 20, SET(srcPort) SET(dstPort) SET(seqNum) SET(ackNum) SET(dataOffset)
          SET(flags) SET(window) SET(checksum) SET(urgentPointer))
  REWRITE("udp", udpHdrWrapperFactory, 8, SET(srcPort) SET(dstPort) SET(length) SET(checksum))
  REWRITE("icmp", icmpHdrWrapperFactory, 8, SET(type) SET(code) SET(checksum) SET(identifier) SET(sequence))
  REWRITE("igmp", igmpV12HdrWrapperFactory, 8, SET(type) SET(maxRespTime) SET(checksum) SET(group))
  REWRITE("arp", ethArpIpHdrWrapperFactory, 28, SET(hardwareType) SET(protocolType) SET(hardwareAddrLen)
          SET(protocolAddrLen) SET(opcode) SET(senderHardwareAddr) SET(senderProtocolAddr) SET(targetHardwareAddr)
          SET(targetProtocolAddr))
  REWRITE("mpls", mplsHdrWrapperFactory, 4, SET(label) SET(trafficClass) SET(bottomOfStack) SET(ttl))
  // GRE's key and sequence have no setters (the library only reads them): the
  // fixed four bytes are rewritten, the checksum in place.
  REWRITE("gre", greHdrWrapperFactory, 4, SET(checksumPresent) SET(keyPresent) SET(sequencePresent) SET(protocol)
          SET(checksum))
  REWRITE("vxlan", vxlanHdrWrapperFactory, 8, SET(vniValid) SET(vni))
  REWRITE("sctp", sctpHdrWrapperFactory, 12, SET(srcPort) SET(dstPort) SET(verificationTag) SET(checksum))
  REWRITE("routerAlert", ip6HdrRouterAlertOptionWrapperFactory, 4, SET(type) SET(length) SET(value))
  REWRITE("icmp6", icmp6HdrWrapperFactory, 4, SET(type) SET(code) SET(checksum))
  REWRITE("ns", icmp6NeighborSolicitationHdrWrapperFactory, 20, SET(target))
  REWRITE("na", icmp6NeighborAdvertisementHdrWrapperFactory, 20, SET(router) SET(solicited) SET(override) SET(target))
  REWRITE("rs", icmp6RouterSolicitationHdrWrapperFactory, 4, SET(reserved))
  REWRITE("ra", icmp6RouterAdvertisementHdrWrapperFactory, 12, SET(curHopLimit) SET(managed) SET(other)
          SET(routerPreference) SET(routerLifetime) SET(reachableTime) SET(retransTimer))
  REWRITE("echo", icmp6EchoRequestHdrWrapperFactory, 4, SET(identifier) SET(sequence))
  REWRITE("packetTooBig", icmp6PacketTooBigHdrWrapperFactory, 4, SET(mtu))
  REWRITE("slla", icmp6HdrSrcLinkLayerAddrOptionWrapperFactory, 8, SET(type) SET(length) SET(linkLayerAddr))
  REWRITE("tlla", icmp6HdrTgtLinkLayerAddrOptionWrapperFactory, 8, SET(type) SET(length) SET(linkLayerAddr))
  REWRITE("mtuOption", icmp6HdrMtuOptionWrapperFactory, 8, SET(type) SET(length) SET(mtu))
  REWRITE("prefixInfo", icmp6HdrPrefixInfoOptionWrapperFactory, 32, SET(type) SET(length) SET(prefixLength)
          SET(onLink) SET(autonomous) SET(validLifetime) SET(preferredLifetime) SET(prefix))
  REWRITE("routeInfo", icmp6HdrRouteInformationOptionWrapperFactory, o->length() * 8u, SET(type) SET(length)
          SET(prefixLength) SET(routePreference) SET(routeLifetime) SET(prefix))
  REWRITE("dnsServer", icmp6HdrDnsServerInfoOptionWrapperFactory, o->length() * 8u, SET(type) SET(length)
          SET(lifetime) for (U32 i = 0; i < o->addresses(); ++i) c->addressIs(i, o->address(i));)
  REWRITE("dnsSuffix", icmp6HdrDnsSuffixInfoOptionWrapperFactory, o->length() * 8u, SET(type) SET(length)
          SET(lifetime) SET(domainNames)
          EXPECT_EQ(Icmp6HdrDnsSuffixInfoOptionWrapper::lengthFor(o->domainNames()), o->length());)
  REWRITE("networkBoot", icmp6HdrNetworkBootOptionWrapperFactory, o->length() * 8u, SET(type) SET(length)
          SET(lifetime) SET(bootUrl) EXPECT_EQ(Icmp6HdrNetworkBootOptionWrapper::lengthFor(o->bootUrl()), o->length());)
  return false;
}

TEST_F(ScapyTest, FramesScapyBuildsReadTheSameThroughTheWrappers) {
  std::vector<std::string> const lines = runLines(run("build"));
  ASSERT_GE(lines.size(), 25u) << (lines.empty() ? "no output" : lines.front());
  std::size_t layers = 0;
  for (auto const& line : lines) {
    std::istringstream in(line);
    std::string name, hex, token;
    in >> name >> hex;
    std::string const bytes = fromHex(hex);
    Reader reader;
    reader.pkt = exactPkt(bytes);
    while (in >> token) {
      std::size_t const at = token.find('@'), colon = token.find(':');
      std::string const layerName = token.substr(0, at);
      U32 const offset = static_cast<U32>(std::stoul(token.substr(at + 1, colon - at - 1)));
      Fields const actual = reader.layer(layerName, offset);
      ++layers;
      std::istringstream fields(token.substr(colon + 1));
      for (std::string kv; std::getline(fields, kv, ',');) {
        std::string const key = kv.substr(0, kv.find('=')), want = kv.substr(kv.find('=') + 1);
        auto const found = actual.find(key);
        EXPECT_EQ(found == actual.end() ? "(no such field)" : found->second, want)
            << name << ": " << layerName << "@" << offset << "." << key;
      }
    }
    for (auto const& p : reader.problems) ADD_FAILURE() << name << ": " << p;
    EXPECT_EQ(reader.pkt->stringValue().str(), bytes) << name << ": reading changed the frame";
    Brio::Ptr<Pkt> copy = exactPkt(bytes);
    std::istringstream again(line);
    again >> name >> hex;
    while (again >> token) {
      std::string const layerName = token.substr(0, token.find('@'));
      U32 const offset = static_cast<U32>(std::stoul(token.substr(token.find('@') + 1)));
      EXPECT_TRUE(rewrite(reader.pkt, copy, layerName, offset)) << name << ": no setters for " << layerName;
    }
    EXPECT_EQ(toHex(copy->stringValue().str()), hex) << name << ": written back through the setters";
  }
  EXPECT_GE(layers, 100u);
}

}  // namespace
}  // namespace Corvid
