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

std::vector<std::string> runLines(std::string const& command) {
  std::vector<std::string> lines;
  FILE* out = ::popen(command.c_str(), "r");
  if (!out) return lines;
  std::string text;
  char chunk[65536];
  for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, out)) > 0;) text.append(chunk, n);
  ::pclose(out);
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.push_back(line);
  }
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

  template <class W>
  void pseudoHdrIs(W& w, U32 offset) {
    if constexpr (std::is_base_of_v<PseudoHdrFields<Ip6Addr>, W>) {
      w.pseudoHdrIs(ip.src6, ip.dst6, ip.end - offset);
    } else {
      w.pseudoHdrIs(ip.src4, ip.dst4, ip.end - offset);
    }
  }

  Fields ip4(U32 off) {
    auto w = ipHdrWrapperFactory(pkt, off);
    Fields f = {{"version", num(w->version())}, {"headerLength", num(w->headerLength())}, {"tos", num(w->tos())},
                {"totalLength", num(w->totalLength())}, {"identification", num(w->identification())},
                {"dontFragment", num(w->dontFragment())}, {"moreFragments", num(w->moreFragments())},
                {"fragmentOffset", num(w->fragmentOffset())}, {"ttl", num(w->ttl())}, {"protocol", num(w->protocol())},
                {"checksum", num(w->checksum())}, {"src", w->src().stringValue().str()},
                {"dst", w->dst().stringValue().str()}};
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
    return {{"version", num(w->version())}, {"trafficClass", num(w->trafficClass())},
            {"flowLabel", num(w->flowLabel())}, {"payloadLength", num(w->payloadLength())},
            {"nextHeader", num(w->nextHeader())}, {"hopLimit", num(w->hopLimit())},
            {"src", w->src().stringValue().str()}, {"dst", w->dst().stringValue().str()}};
  }

  Fields icmp6(U32 off) {
    auto w = icmp6HdrWrapperFactory(pkt, off);
    pseudoHdrIs(*w, off);
    U16 const wire = w->checksum();
    bool const ok = checksumValid(*w);
    if (off == 54 && ip.ip6 && ip.end == pkt->bytes()) {
      // The library's own check, which leaves the field zero: put it back.
      Icmp6Hdr* hdr = nullptr;
      PktErrors const code = checkIcmp6CheckSum(ip.ip6, hdr);
      if (code != (ok ? noError : badIcmp6Checksum)) problems.push_back("checkIcmp6CheckSum gave " + num(-code));
      w->checksumIs(wire);
    }
    return {{"type", num(w->type())}, {"code", num(w->code())}, {"checksum", num(wire)}, {"checksumOk", num(ok)}};
  }

  // Where getIcmp6Opt finds the source link-layer address option, as a frame offset.
  std::string srcLinkLayerAddrOptionAt() {
    Icmp6OptionCommonHdr* opt = nullptr;
    auto* icmp6 = reinterpret_cast<Icmp6Hdr*>(pkt->frontData() + 54);
    PktErrors const code = getIcmp6Opt(ip.ip6, icmp6, opt, icmp6OptSrcLinkLayerAddr);
    if (code != noError) problems.push_back("getIcmp6Opt gave " + num(-code));
    return opt ? num(reinterpret_cast<U8*>(opt) - pkt->frontData()) : "-1";
  }

  template <class W4, class W6>
  Fields transport(U32 off, std::function<Fields(HdrWrapper<typename W4::Header>&)> fields) {
    Fields f;
    if (ip.v6) {
      auto w = hdrWrapperFactory<W6>(pkt, off);
      pseudoHdrIs(*w, off);
      f = fields(*w);
      f["checksumOk"] = num(checksumValid(*w));
    } else {
      auto w = hdrWrapperFactory<W4>(pkt, off);
      pseudoHdrIs(*w, off);
      f = fields(*w);
      f["checksumOk"] = num(checksumValid(*w));
    }
    return f;
  }

  Fields layer(std::string const& name, U32 off) {
    if (name == "eth") {
      auto w = ethHdrWrapperFactory(pkt, off);
      return {{"dst", w->dst().stringValue().str()}, {"src", w->src().stringValue().str()},
              {"ethType", num(w->header()->ethType.value())}};
    }
    if (name == "vlan") {
      auto w = eth8021QHdrWrapperFactory(pkt, off);
      return {{"priority", num(w->priority())}, {"cfi", num(w->cfi())}, {"vlanId", num(w->vlanId())},
              {"ethType", num(w->header()->ethType.value())}};
    }
    if (name == "ip") return ip4(off);
    if (name == "ip6") return ip6(off);
    if (name == "tcp") {
      return transport<TcpHdrWrapper, TcpHdrWrapperIpv6>(off, [](HdrWrapper<TcpHdr>& base) {
        auto& w = static_cast<TcpHdrFieldsWrapper&>(base);
        return Fields{{"srcPort", num(w.srcPort())}, {"dstPort", num(w.dstPort())}, {"seqNum", num(w.seqNum())},
                      {"ackNum", num(w.ackNum())}, {"dataOffset", num(w.dataOffset())}, {"flags", num(w.flags())},
                      {"window", num(w.window())}, {"checksum", num(w.checksum())},
                      {"urgentPointer", num(w.urgentPointer())}};
      });
    }
    if (name == "udp") {
      return transport<UdpHdrWrapper, UdpHdrWrapperIpv6>(off, [](HdrWrapper<UdpHdr>& base) {
        auto& w = static_cast<UdpHdrFieldsWrapper&>(base);
        return Fields{{"srcPort", num(w.srcPort())}, {"dstPort", num(w.dstPort())}, {"length", num(w.length())},
                      {"checksum", num(w.checksum())}};
      });
    }
    if (name == "icmp") {
      auto w = icmpHdrWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"code", num(w->code())}, {"checksum", num(w->checksum())},
              {"identifier", num(w->identifier())}, {"sequence", num(w->sequence())},
              {"checksumOk", num(checksumValid(*w, static_cast<U16>(ip.end - off)))}};
    }
    if (name == "igmp") {
      auto w = igmpV12HdrWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"maxRespTime", num(w->maxRespTime())}, {"checksum", num(w->checksum())},
              {"group", w->group().stringValue().str()},
              {"checksumOk", num(checksumValid(*w, static_cast<U16>(ip.end - off)))}};
    }
    if (name == "arp") {
      auto w = ethArpIpHdrWrapperFactory(pkt, off);
      return {{"hardwareType", num(w->hardwareType())}, {"protocolType", num(w->protocolType())},
              {"hardwareAddrLen", num(w->hardwareAddrLen())}, {"protocolAddrLen", num(w->protocolAddrLen())},
              {"opcode", num(w->opcode())}, {"senderHardwareAddr", w->senderHardwareAddr().stringValue().str()},
              {"senderProtocolAddr", w->senderProtocolAddr().stringValue().str()},
              {"targetHardwareAddr", w->targetHardwareAddr().stringValue().str()},
              {"targetProtocolAddr", w->targetProtocolAddr().stringValue().str()}};
    }
    if (name == "mpls") {
      auto w = mplsHdrWrapperFactory(pkt, off);
      return {{"label", num(w->label())}, {"trafficClass", num(w->trafficClass())},
              {"bottomOfStack", num(w->bottomOfStack())}, {"ttl", num(w->ttl())}};
    }
    if (name == "gre") {
      auto w = greHdrWrapperFactory(pkt, off);
      Fields f = {{"checksumPresent", num(w->checksumPresent())}, {"keyPresent", num(w->keyPresent())},
                  {"sequencePresent", num(w->sequencePresent())}, {"version", num(w->version())},
                  {"protocol", num(w->protocol())}, {"checksum", num(w->checksum())}, {"key", num(w->key())},
                  {"sequence", num(w->sequence())}};
      f["checksumOk"] = num(!w->checksumPresent() || checksumValid(*w, static_cast<U16>(ip.end - off)));
      return f;
    }
    if (name == "vxlan") {
      auto w = vxlanHdrWrapperFactory(pkt, off);
      return {{"vniValid", num(w->vniValid())}, {"vni", num(w->vni())}};
    }
    if (name == "sctp") {
      auto w = sctpHdrWrapperFactory(pkt, off);
      return {{"srcPort", num(w->srcPort())}, {"dstPort", num(w->dstPort())},
              {"verificationTag", num(w->verificationTag())}, {"checksum", num(w->checksum())}};
    }
    if (name == "routerAlert") {
      auto w = ip6HdrRouterAlertOptionWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"length", num(w->length())}, {"value", num(w->value())}};
    }
    if (name == "icmp6") return icmp6(off);
    if (name == "ns") {
      auto w = icmp6NeighborSolicitationHdrWrapperFactory(pkt, off);
      return {{"target", w->target().stringValue().str()}, {"srcLinkLayerAddrOptionAt", srcLinkLayerAddrOptionAt()}};
    }
    if (name == "na") {
      auto w = icmp6NeighborAdvertisementHdrWrapperFactory(pkt, off);
      return {{"router", num(w->router())}, {"solicited", num(w->solicited())}, {"override", num(w->override())},
              {"target", w->target().stringValue().str()}, {"srcLinkLayerAddrOptionAt", srcLinkLayerAddrOptionAt()}};
    }
    if (name == "rs") {
      auto w = icmp6RouterSolicitationHdrWrapperFactory(pkt, off);
      return {{"reserved", num(w->reserved())}, {"srcLinkLayerAddrOptionAt", srcLinkLayerAddrOptionAt()}};
    }
    if (name == "ra") {
      auto w = icmp6RouterAdvertisementHdrWrapperFactory(pkt, off);
      return {{"curHopLimit", num(w->curHopLimit())}, {"managed", num(w->managed())}, {"other", num(w->other())},
              {"routerPreference", num(w->routerPreference())}, {"routerLifetime", num(w->routerLifetime())},
              {"reachableTime", num(w->reachableTime())}, {"retransTimer", num(w->retransTimer())}};
    }
    if (name == "echo") {
      auto w = icmp6EchoRequestHdrWrapperFactory(pkt, off);
      return {{"identifier", num(w->identifier())}, {"sequence", num(w->sequence())}};
    }
    if (name == "packetTooBig") return {{"mtu", num(icmp6PacketTooBigHdrWrapperFactory(pkt, off)->mtu())}};
    if (name == "slla" || name == "tlla") {
      Brio::Ptr<Icmp6HdrLinkLayerAddrOptionWrapper> w;
      if (name == "slla") w = icmp6HdrSrcLinkLayerAddrOptionWrapperFactory(pkt, off);
      else w = icmp6HdrTgtLinkLayerAddrOptionWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"length", num(w->length())},
              {"linkLayerAddr", w->linkLayerAddr().stringValue().str()}};
    }
    if (name == "mtuOption") {
      auto w = icmp6HdrMtuOptionWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"length", num(w->length())}, {"mtu", num(w->mtu())}};
    }
    if (name == "prefixInfo") {
      auto w = icmp6HdrPrefixInfoOptionWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"length", num(w->length())}, {"prefixLength", num(w->prefixLength())},
              {"onLink", num(w->onLink())}, {"autonomous", num(w->autonomous())},
              {"validLifetime", num(w->validLifetime())}, {"preferredLifetime", num(w->preferredLifetime())},
              {"prefix", w->prefix().stringValue().str()}};
    }
    if (name == "routeInfo") {
      auto w = icmp6HdrRouteInformationOptionWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"length", num(w->length())}, {"prefixLength", num(w->prefixLength())},
              {"routePreference", num(w->routePreference())}, {"routeLifetime", num(w->routeLifetime())},
              {"prefix", w->prefix().stringValue().str()}};
    }
    if (name == "dnsServer") {
      auto w = icmp6HdrDnsServerInfoOptionWrapperFactory(pkt, off);
      Fields f = {{"type", num(w->type())}, {"length", num(w->length())}, {"lifetime", num(w->lifetime())},
                  {"addresses", num(w->addresses())}};
      for (U32 i = 0; i < w->addresses(); ++i) f["address" + num(i)] = w->address(i).stringValue().str();
      return f;
    }
    if (name == "dnsSuffix") {
      auto w = icmp6HdrDnsSuffixInfoOptionWrapperFactory(pkt, off);
      std::string names;
      for (auto const& n : w->domainNames()) names += (names.empty() ? "" : "|") + n.str();
      return {{"type", num(w->type())}, {"length", num(w->length())}, {"lifetime", num(w->lifetime())},
              {"names", names}};
    }
    if (name == "networkBoot") {
      auto w = icmp6HdrNetworkBootOptionWrapperFactory(pkt, off);
      return {{"type", num(w->type())}, {"length", num(w->length())}, {"lifetime", num(w->lifetime())},
              {"bootUrl", w->bootUrl().str()}};
    }
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
        if (found == actual.end()) {
          ADD_FAILURE() << name << ": " << layerName << " has no field " << key;
        } else {
          EXPECT_EQ(found->second, want) << name << ": " << layerName << "@" << offset << "." << key;
        }
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

  // The transport checksum at `offset` under the IP header at 14.
  template <class W>
  void transportChecksumIs(U32 offset) {
    auto w = hdrWrapperFactory<W>(pkt_, offset);
    if constexpr (std::is_base_of_v<PseudoHdrFields<Ip6Addr>, W>) {
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

std::string str(IpAddr a) { return a.stringValue().str(); }
std::string str(Ip6Addr const& a) { return a.stringValue().str(); }
std::string str(EthAddr const& a) { return a.stringValue().str(); }

std::vector<Built> transportFrames() {
  std::vector<Built> out;
  std::string const ip4Words = "Ether.src=" + str(macA) + " Ether.dst=" + str(macB) + " IP.src=" + str(v4A) +
                               " IP.dst=" + str(v4B) + " IP.ttl=63 IP.tos=40 IP.flags=2";
  std::string const ip6Words = "IPv6.src=" + str(v6A) + " IPv6.dst=" + str(v6B) + " IPv6.tc=184 IPv6.fl=74565 IPv6.hlim=255";
  // 65507 and 65527 fill the IPv4 total length and the IPv6 payload length.
  for (std::size_t n : {0, 1, 17, 1472, 65507}) {
    Frame f(pattern(n, 1));
    U16 const port = static_cast<U16>(4000 + n % 1000);
    f.udpIs(port, 9);
    f.ip4Is(ipProtoUdp, static_cast<U16>(n));
    f.ethIs(ethTypeIp);
    f.transportChecksumIs<UdpHdrWrapper>(34);
    std::string words = ip4Words + " IP.len=" + num(28 + n) + " UDP.sport=" + num(port) + " UDP.dport=9 UDP.len=" + num(8 + n);
    if (n > 0 && n < 100) words += " Raw.load=" + toHex(pattern(n, 1));
    out.push_back({"udp4_" + num(n), f.pkt(), words});
  }
  for (std::size_t n : {0, 1, 999}) {
    Frame f(pattern(n, 2));
    f.tcpIs(179, static_cast<U16>(30000 + n), static_cast<U32>(0x80000000u + n), 0x018);
    f.ip4Is(ipProtoTcp, 7);
    f.ethIs(ethTypeIp);
    f.transportChecksumIs<TcpHdrWrapper>(34);
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
    f.transportChecksumIs<UdpHdrWrapperIpv6>(54);
    out.push_back({"udp6_" + num(n), f.pkt(),
                   ip6Words + " IPv6.plen=" + num(8 + n) + " UDP.dport=" + num(port) + " UDP.len=" + num(8 + n)});
  }
  for (std::size_t n : {0, 5, 1001}) {
    Frame f(pattern(n, 4));
    f.tcpIs(443, 50000, 1, 0x002);
    f.ip6Is(ipProtoTcp, v6A, v6B);
    f.ethIs(ethTypeIp6);
    f.transportChecksumIs<TcpHdrWrapperIpv6>(54);
    out.push_back({"tcp6_" + num(n), f.pkt(), ip6Words + " TCP.sport=443 TCP.dport=50000 TCP.flags=2 TCP.ack=4294967294"});
  }
  return out;
}

// Neighbour discovery: the options, the message body, the ICMPv6 header,
// then IPv6 and Ethernet; the checksum last.
template <class Body>
Frame ndFrame(U8 type, Ip6Addr const& src, Ip6Addr const& dst, std::string const& options,
              std::function<void(Body&)> fill, bool librarySum) {
  Frame f(options);
  fill(*f.prepend<Body>(sizeof(typename Body::Header)));
  auto icmp6 = f.prepend<Icmp6HdrWrapper>(4);
  icmp6->typeIs(type);
  f.ip6Is(ipProtoIcmp6, src, dst);
  f.ethIs(ethTypeIp6);
  auto* ip6 = reinterpret_cast<Ip6Hdr*>(f.pkt()->frontData() + 14);
  auto* hdr = reinterpret_cast<Icmp6Hdr*>(f.pkt()->frontData() + 54);
  if (librarySum) {
    EXPECT_EQ(setIcmp6CheckSum(ip6, hdr), noError);
  } else {
    auto w = icmp6HdrWrapperFactory(f.pkt(), 54);
    w->pseudoHdrIs(src, dst, f.bytes() - 54);
    w->checksumIs(w->computedChecksum());
  }
  return f;
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

std::vector<Built> ndFrames() {
  std::vector<Built> out;
  Ip6Addr const solicited = v6A.solicitedNodeMulticastAddr();
  out.push_back({"ns_slla",
                 ndFrame<Icmp6NeighborSolicitationHdrWrapper>(
                     icmp6NeighborSolicitation, llA, solicited, linkLayerOption(icmp6OptSrcLinkLayerAddr, macA),
                     [&](auto& ns) { ns.targetIs(v6A); }, true)
                     .pkt(),
                 "IPv6.dst=" + str(solicited) + " ICMPv6ND_NS.tgt=" + str(v6A) + " ICMPv6NDOptSrcLLAddr.lladdr=" + str(macA)});
  out.push_back({"na_tlla",
                 ndFrame<Icmp6NeighborAdvertisementHdrWrapper>(
                     icmp6NeighborAdvertisement, v6A, llA, linkLayerOption(icmp6OptTgtLinkLayerAddr, macB),
                     [&](auto& na) {
                       na.routerIs(true);
                       na.solicitedIs(true);
                       na.overrideIs(true);
                       na.targetIs(v6A);
                     },
                     false)
                     .pkt(),
                 "ICMPv6ND_NA.R=1 ICMPv6ND_NA.S=1 ICMPv6ND_NA.O=1 ICMPv6ND_NA.tgt=" + str(v6A) +
                     " ICMPv6NDOptDstLLAddr.lladdr=" + str(macB)});
  out.push_back({"rs_slla",
                 ndFrame<Icmp6RouterSolicitationHdrWrapper>(icmp6RouterSolicitation, llA, ip6AddrAllRouters,
                                                           linkLayerOption(icmp6OptSrcLinkLayerAddr, macA),
                                                           [](auto&) {}, true)
                     .pkt(),
                 "ICMPv6ND_RS.res=0 ICMPv6NDOptSrcLLAddr.lladdr=" + str(macA)});

  std::vector<Brio::String> const names = {"example.com", "lab.corp", "a"};
  Brio::String const url = "http://boot.example/image-odd";
  std::string options = linkLayerOption(icmp6OptSrcLinkLayerAddr, macA);
  options += optionBytes<Icmp6HdrMtuOptionWrapper>(1, [](auto& o) {
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
  options += boot;
  out.push_back({"ra_every_option",
                 ndFrame<Icmp6RouterAdvertisementHdrWrapper>(icmp6RouterAdvertisement, llA, ip6AddrAllNodes, options,
                                                            [](auto& ra) {
                                                              ra.curHopLimitIs(64);
                                                              ra.managedIs(true);
                                                              ra.otherIs(true);
                                                              ra.routerPreferenceIs(3);
                                                              ra.routerLifetimeIs(9000);
                                                              ra.reachableTimeIs(30000);
                                                              ra.retransTimerIs(1000);
                                                            },
                                                            false)
                     .pkt(),
                 "ICMPv6ND_RA.chlim=64 ICMPv6ND_RA.M=1 ICMPv6ND_RA.O=1 ICMPv6ND_RA.prf=3 ICMPv6ND_RA.routerlifetime=9000 "
                 "ICMPv6ND_RA.reachabletime=30000 ICMPv6ND_RA.retranstimer=1000 ICMPv6NDOptSrcLLAddr.lladdr=" +
                     str(macA) +
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

  Frame echo(pattern(21, 9));
  auto body = echo.prepend<Icmp6EchoRequestHdrWrapper>(4);
  body->identifierIs(0xbeef);
  body->sequenceIs(65535);
  echo.prepend<Icmp6HdrWrapper>(4)->typeIs(icmp6EchoRequest);
  echo.ip6Is(ipProtoIcmp6, v6A, v6B);
  echo.ethIs(ethTypeIp6);
  EXPECT_EQ(setIcmp6CheckSum(reinterpret_cast<Ip6Hdr*>(echo.pkt()->frontData() + 14),
                             reinterpret_cast<Icmp6Hdr*>(echo.pkt()->frontData() + 54)),
            noError);
  out.push_back({"echo_odd", echo.pkt(), "ICMPv6EchoRequest.id=48879 ICMPv6EchoRequest.seq=65535 ICMPv6EchoRequest.data=" +
                                             toHex(pattern(21, 9))});
  return out;
}

TEST_F(ScapyTest, FramesTheWrappersBuildDecodeWithValidChecksumsAndTheIntendedFields) {
  std::vector<Built> frames = transportFrames();
  for (auto& f : ndFrames()) frames.push_back(std::move(f));
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
  std::size_t ok = 0;
  for (auto const& line : lines) {
    if (line.rfind("ok ", 0) == 0) {
      ++ok;
    } else {
      ADD_FAILURE() << line;
    }
  }
  EXPECT_EQ(ok, frames.size());
}

}  // namespace
}  // namespace Corvid
