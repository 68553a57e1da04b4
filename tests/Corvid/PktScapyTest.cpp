// The header wrappers, checksums and sanity checks held against scapy, an
// independent packet library: frames scapy builds are read through the
// wrappers, and frames the wrappers build are decoded and verified by scapy.
// tests/Corvid/scapy_frames.py is the scapy side; the two exchange hex lines.
#include <Corvid/PktUtils.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <unistd.h>
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
    reader.pkt = Brio::makePtr<Pkt>();
    reader.pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(static_cast<U32>(bytes.size())));
    reader.pkt->stringValueIs(Brio::String(bytes));
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
  }
  EXPECT_GE(layers, 100u);
}

// --- the wrappers build, scapy reads --------------------------------------------------

EthAddr const macA(0x02, 0, 0, 0, 0, 0x0a), macB(0x02, 0, 0, 0, 0, 0x0b);
IpAddr const v4A(192, 0, 2, 1), v4B(198, 51, 100, 7);
Ip6Addr const v6A(0x2001, 0xdb8, 0, 0, 0, 0, 0, 1), v6B(0x2001, 0xdb8, 0, 1, 0, 0, 0, 2);
Ip6Addr const llA(0xfe80, 0, 0, 0, 0x200, 0xff, 0xfe00, 0xa);

std::string pattern(std::size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + seed) & 0xff);
  return s;
}

// A frame built the way senders build one: the payload, then each header
// prepended into the headroom and filled through its wrapper at offset 0.
class Frame {
 public:
  explicit Frame(std::string const& payload) : pkt_(pktFactory()) { pkt_->stringValueIs(Brio::String(payload)); }

  template <class W>
  Brio::Ptr<W> prepend(U32 bytes) {
    pkt_->newSharedHeadData(bytes);
    std::memset(pkt_->frontData(), 0, bytes);
    return hdrWrapperFactory<W>(pkt_, 0);
  }
  U32 bytes() const { return pkt_->bytes(); }
  Brio::Ptr<Pkt> const& pkt() const { return pkt_; }

  void udpIs(U16 src, U16 dst) {
    auto udp = prepend<UdpHdrFieldsWrapper>(8);
    udp->srcPortIs(src);
    udp->dstPortIs(dst);
    udp->lengthIs(static_cast<U16>(bytes()));
  }
  void tcpIs(U16 src, U16 dst, U32 seq, U16 flags) {
    auto tcp = prepend<TcpHdrFieldsWrapper>(20);
    tcp->srcPortIs(src);
    tcp->dstPortIs(dst);
    tcp->seqNumIs(seq);
    tcp->ackNumIs(~seq);
    tcp->dataOffsetIs(5);
    tcp->flagsIs(flags);
    tcp->windowIs(29200);
  }
  void ip4Is(U8 protocol, U16 id) {
    auto ip = prepend<IpHdrWrapper>(20);
    ip->versionIs(4);
    ip->headerLengthIs(5);
    ip->dscpIs(10);
    ip->totalLengthIs(static_cast<U16>(bytes()));
    ip->identificationIs(id);
    ip->dontFragmentIs(true);
    ip->ttlIs(63);
    ip->protocolIs(protocol);
    ip->srcIs(v4A);
    ip->dstIs(v4B);
    ip->checksumIs(ip->computedChecksum());
  }
  void ip6Is(U8 nextHeader, Ip6Addr const& src, Ip6Addr const& dst) {
    U16 const payload = static_cast<U16>(bytes());
    auto ip6 = prepend<Ip6HdrWrapper>(40);
    ip6->versionIs(6);
    ip6->trafficClassIs(0xb8);
    ip6->flowLabelIs(0x12345);
    ip6->payloadLengthIs(payload);
    ip6->nextHeaderIs(nextHeader);
    ip6->hopLimitIs(255);
    ip6->srcIs(src);
    ip6->dstIs(dst);
  }
  void ethIs(EthType type) {
    auto eth = prepend<EthHdrWrapper>(14);
    eth->dstIs(macB);
    eth->srcIs(macA);
    eth->ethTypeIs(type);
  }

  // The transport checksum at 34 or 54, under the IP header at 14.
  template <class W>
  void transportChecksumIs() {
    bool constexpr v6 = std::is_base_of_v<PseudoHdrFields<Ip6Addr>, W>;
    U32 const offset = v6 ? 54 : 34;
    auto w = hdrWrapperFactory<W>(pkt_, offset);
    if constexpr (v6) {
      auto ip6 = ip6HdrWrapperFactory(pkt_, 14);
      w->pseudoHdrIs(ip6->src(), ip6->dst(), bytes() - offset);
    } else {
      auto ip = ipHdrWrapperFactory(pkt_, 14);
      w->pseudoHdrIs(ip->src(), ip->dst(), bytes() - offset);
    }
    w->checksumIs(w->computedChecksum());
  }

 private:
  Brio::Ptr<Pkt> pkt_;
};

struct Built {
  std::string name;
  Brio::Ptr<Pkt> pkt;
  std::string expect;  // Class.field=value words for scapy
};

// Sizes 65507 and 65527 fill the IPv4 total length and the IPv6 payload length.
std::vector<Built> transportFrames() {
  std::vector<Built> out;
  std::string const ip4Words = "Ether.src=" + text(macA) + " Ether.dst=" + text(macB) + " IP.src=" + text(v4A) +
                               " IP.dst=" + text(v4B) + " IP.ttl=63 IP.tos=40 IP.flags=2";
  std::string const ip6Words =
      "IPv6.src=" + text(v6A) + " IPv6.dst=" + text(v6B) + " IPv6.tc=184 IPv6.fl=74565 IPv6.hlim=255";
  for (std::size_t n : {0, 1, 17, 1472, 65507}) {
    Frame f(pattern(n, 1));
    U16 const port = static_cast<U16>(4000 + n % 1000);
    f.udpIs(port, 9);
    f.ip4Is(ipProtoUdp, static_cast<U16>(n));
    f.ethIs(ethTypeIp);
    f.transportChecksumIs<UdpHdrWrapper>();
    std::string words = ip4Words + " IP.len=" + num(28 + n) + " UDP.sport=" + num(port) + " UDP.dport=9 UDP.len=" + num(8 + n);
    if (n > 0 && n < 100) words += " Raw.load=" + toHex(pattern(n, 1));
    out.push_back({"udp4_" + num(n), f.pkt(), words});
  }
  for (std::size_t n : {0, 1, 999}) {
    Frame f(pattern(n, 2));
    f.tcpIs(179, static_cast<U16>(30000 + n), static_cast<U32>(0x80000000u + n), 0x018);
    f.ip4Is(ipProtoTcp, 7);
    f.ethIs(ethTypeIp);
    f.transportChecksumIs<TcpHdrWrapper>();
    out.push_back({"tcp4_" + num(n), f.pkt(),
                   ip4Words + " TCP.sport=179 TCP.dport=" + num(30000 + n) + " TCP.seq=" + num(0x80000000u + n) +
                       " TCP.ack=" + num(~U32(0x80000000u + n)) + " TCP.flags=24 TCP.window=29200 TCP.dataofs=5"});
  }
  for (std::size_t n : {0, 3, 1452, 65527}) {
    Frame f(pattern(n, 3));
    U16 const port = static_cast<U16>(6000 + n % 1000);
    f.udpIs(5000, port);
    f.ip6Is(ipProtoUdp, v6A, v6B);
    f.ethIs(ethTypeIp6);
    f.transportChecksumIs<UdpHdrWrapperIpv6>();
    out.push_back({"udp6_" + num(n), f.pkt(),
                   ip6Words + " IPv6.plen=" + num(8 + n) + " UDP.dport=" + num(port) + " UDP.len=" + num(8 + n)});
  }
  for (std::size_t n : {0, 5, 1001}) {
    Frame f(pattern(n, 4));
    f.tcpIs(443, 50000, 1, 0x002);
    f.ip6Is(ipProtoTcp, v6A, v6B);
    f.ethIs(ethTypeIp6);
    f.transportChecksumIs<TcpHdrWrapperIpv6>();
    out.push_back({"tcp6_" + num(n), f.pkt(), ip6Words + " TCP.sport=443 TCP.dport=50000 TCP.flags=2 TCP.ack=4294967294"});
  }
  return out;
}

// An ICMPv6 message: the options (or data), the message body, the ICMPv6
// header, then IPv6 and Ethernet; the checksum last, by the library's
// setIcmp6CheckSum or by the wrapper.
template <class Body>
Brio::Ptr<Pkt> icmp6Frame(U8 type, Ip6Addr const& src, Ip6Addr const& dst, std::string const& options,
                          std::function<void(Body&)> fill, bool librarySum) {
  Frame f(options);
  fill(*f.prepend<Body>(sizeof(typename Body::Header)));
  f.prepend<Icmp6HdrWrapper>(4)->typeIs(type);
  f.ip6Is(ipProtoIcmp6, src, dst);
  f.ethIs(ethTypeIp6);
  if (librarySum) {
    EXPECT_EQ(setIcmp6CheckSum(reinterpret_cast<Ip6Hdr*>(f.pkt()->frontData() + 14),
                               reinterpret_cast<Icmp6Hdr*>(f.pkt()->frontData() + 54)),
              noError);
  } else {
    auto w = icmp6HdrWrapperFactory(f.pkt(), 54);
    w->pseudoHdrIs(src, dst, f.bytes() - 54);
    w->checksumIs(w->computedChecksum());
  }
  return f.pkt();
}

// Option bytes built through their wrappers in a scratch packet.
template <class W>
std::string optionBytes(U8 length, std::function<void(W&)> fill) {
  Brio::Ptr<Pkt> scratch = pktFactory();
  scratch->stringValueIs(Brio::String(std::string(length * 8u, '\0')));
  auto w = hdrWrapperFactory<W>(scratch, 0);
  w->lengthIs(length);
  fill(*w);
  return scratch->stringValue().str();
}

std::string linkLayerOption(U8 type, EthAddr const& mac) {
  return optionBytes<Icmp6HdrLinkLayerAddrOptionWrapper>(1, [&](auto& o) {
    o.typeIs(type);
    o.linkLayerAddrIs(mac);
  });
}

std::vector<Built> icmp6Frames() {
  std::vector<Built> out;
  Ip6Addr const solicited = v6A.solicitedNodeMulticastAddr();
  std::string const sllaA = linkLayerOption(icmp6OptSrcLinkLayerAddr, macA);
  out.push_back({"ns_slla",
                 icmp6Frame<Icmp6NeighborSolicitationHdrWrapper>(
                     icmp6NeighborSolicitation, llA, solicited, sllaA, [&](auto& ns) { ns.targetIs(v6A); }, true),
                 "IPv6.dst=" + text(solicited) + " ICMPv6ND_NS.tgt=" + text(v6A) +
                     " ICMPv6NDOptSrcLLAddr.lladdr=" + text(macA)});
  out.push_back({"na_tlla",
                 icmp6Frame<Icmp6NeighborAdvertisementHdrWrapper>(
                     icmp6NeighborAdvertisement, v6A, llA, linkLayerOption(icmp6OptTgtLinkLayerAddr, macB),
                     [&](auto& na) {
                       na.routerIs(true);
                       na.solicitedIs(true);
                       na.overrideIs(true);
                       na.targetIs(v6A);
                     },
                     false),
                 "ICMPv6ND_NA.R=1 ICMPv6ND_NA.S=1 ICMPv6ND_NA.O=1 ICMPv6ND_NA.tgt=" + text(v6A) +
                     " ICMPv6NDOptDstLLAddr.lladdr=" + text(macB)});
  out.push_back({"rs_slla",
                 icmp6Frame<Icmp6RouterSolicitationHdrWrapper>(icmp6RouterSolicitation, llA, ip6AddrAllRouters, sllaA,
                                                              [](auto&) {}, true),
                 "ICMPv6ND_RS.res=0 ICMPv6NDOptSrcLLAddr.lladdr=" + text(macA)});
  out.push_back({"echo_odd",
                 icmp6Frame<Icmp6EchoRequestHdrWrapper>(icmp6EchoRequest, v6A, v6B, pattern(21, 9),
                                                       [](auto& echo) {
                                                         echo.identifierIs(0xbeef);
                                                         echo.sequenceIs(65535);
                                                       },
                                                       true),
                 "ICMPv6EchoRequest.id=48879 ICMPv6EchoRequest.seq=65535 ICMPv6EchoRequest.data=" +
                     toHex(pattern(21, 9))});

  // A router advertisement with every option kind, route information in all three lengths.
  std::vector<Brio::String> const names = {"example.com", "lab.corp", "a"};
  Brio::String const url = "http://boot.example/image-odd";
  std::string options = sllaA + optionBytes<Icmp6HdrMtuOptionWrapper>(1, [](auto& o) {
                          o.typeIs(icmp6OptMtu);
                          o.mtuIs(9216);
                        });
  options += optionBytes<Icmp6HdrPrefixInfoOptionWrapper>(4, [](auto& o) {
    o.typeIs(icmp6OptPrefixInfo);
    o.prefixLengthIs(64);
    o.onLinkIs(true);
    o.autonomousIs(true);
    o.validLifetimeIs(2592000);
    o.preferredLifetimeIs(604800);
    o.prefixIs(Ip6Addr(0x2001, 0xdb8, 0x5, 0x6, 0, 0, 0, 0));
  });
  for (U8 len = 1; len <= 3; ++len) {
    options += optionBytes<Icmp6HdrRouteInformationOptionWrapper>(len, [len](auto& o) {
      o.typeIs(icmp6OptRouteInformation);
      o.prefixLengthIs(static_cast<U8>(len == 1 ? 0 : len == 2 ? 56 : 120));
      o.routePreferenceIs(len);
      o.routeLifetimeIs(100u * len);
      o.prefixIs(Ip6Addr(0x2001, 0xdb8, 0xaa, len, 0, 0, 0, len == 3 ? 0xff00 : 0));
    });
  }
  options += optionBytes<Icmp6HdrDnsServerInfoOptionWrapper>(5, [](auto& o) {
    o.typeIs(icmp6OptDnsServerInfo);
    o.lifetimeIs(1200);
    o.addressIs(0, Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 0x53));
    o.addressIs(1, Ip6Addr(0x2001, 0xdb8, 0, 0, 0, 0, 0, 0x5353));
  });
  options += optionBytes<Icmp6HdrDnsSuffixInfoOptionWrapper>(Icmp6HdrDnsSuffixInfoOptionWrapper::lengthFor(names),
                                                             [&](auto& o) {
                                                               o.typeIs(icmp6OptDnsSuffixInfo);
                                                               o.lifetimeIs(1300);
                                                               o.domainNamesIs(names);
                                                             });
  std::string const boot = optionBytes<Icmp6HdrNetworkBootOptionWrapper>(
      Icmp6HdrNetworkBootOptionWrapper::lengthFor(url), [&](auto& o) {
        o.typeIs(icmp6OptNetworkBoot);
        o.lifetimeIs(77);
        o.bootUrlIs(url);
      });
  out.push_back({"ra_every_option",
                 icmp6Frame<Icmp6RouterAdvertisementHdrWrapper>(icmp6RouterAdvertisement, llA, ip6AddrAllNodes,
                                                               options + boot,
                                                               [](auto& ra) {
                                                                 ra.curHopLimitIs(64);
                                                                 ra.managedIs(true);
                                                                 ra.otherIs(true);
                                                                 ra.routerPreferenceIs(3);
                                                                 ra.routerLifetimeIs(9000);
                                                                 ra.reachableTimeIs(30000);
                                                                 ra.retransTimerIs(1000);
                                                               },
                                                               false),
                 "ICMPv6ND_RA.chlim=64 ICMPv6ND_RA.M=1 ICMPv6ND_RA.O=1 ICMPv6ND_RA.prf=3 ICMPv6ND_RA.routerlifetime=9000 "
                 "ICMPv6ND_RA.reachabletime=30000 ICMPv6ND_RA.retranstimer=1000 ICMPv6NDOptSrcLLAddr.lladdr=" +
                     text(macA) +
                     " ICMPv6NDOptMTU.mtu=9216 ICMPv6NDOptPrefixInfo.prefixlen=64 ICMPv6NDOptPrefixInfo.L=1 "
                     "ICMPv6NDOptPrefixInfo.A=1 ICMPv6NDOptPrefixInfo.validlifetime=2592000 "
                     "ICMPv6NDOptPrefixInfo.preferredlifetime=604800 ICMPv6NDOptPrefixInfo.prefix=2001:db8:5:6:: "
                     "ICMPv6NDOptRouteInfo[1].len=1 ICMPv6NDOptRouteInfo[1].plen=0 ICMPv6NDOptRouteInfo[1].prf=1 "
                     "ICMPv6NDOptRouteInfo[2].len=2 ICMPv6NDOptRouteInfo[2].plen=56 ICMPv6NDOptRouteInfo[2].prefix=2001:db8:aa:2:: "
                     "ICMPv6NDOptRouteInfo[3].len=3 ICMPv6NDOptRouteInfo[3].rtlifetime=300 "
                     "ICMPv6NDOptRouteInfo[3].prefix=2001:db8:aa:3::ff00 ICMPv6NDOptRDNSS.lifetime=1200 "
                     "ICMPv6NDOptRDNSS.dns=2001:db8::53|2001:db8::5353 ICMPv6NDOptDNSSL.lifetime=1300 "
                     "ICMPv6NDOptDNSSL.searchlist=example.com|lab.corp|a Raw.load=" +
                     toHex(boot)});
  return out;
}

TEST_F(ScapyTest, FramesTheWrappersBuildDecodeWithValidChecksumsAndTheIntendedFields) {
  std::vector<Built> frames = transportFrames();
  for (auto& f : icmp6Frames()) frames.push_back(std::move(f));
  char path[] = "/tmp/corvid-scapy-XXXXXX";
  int const fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  {
    std::ofstream out(path);
    for (auto const& f : frames) out << f.name << " " << toHex(f.pkt->stringValue().str()) << " " << f.expect << "\n";
  }
  std::vector<std::string> const lines = runLines(run(std::string("check ") + path));
  std::remove(path);
  for (auto const& line : lines) EXPECT_EQ(line.rfind("ok ", 0), 0u) << line;
  EXPECT_EQ(lines.size(), frames.size());
}

}  // namespace
}  // namespace Corvid
