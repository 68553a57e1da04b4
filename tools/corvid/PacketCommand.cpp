// corvid packet HEX: decodes an Ethernet frame through the library's header
// wrappers, one line per header, verifies every checksum it meets and runs
// the receive-path sanity checks (checkEthIpHdr, checkEthIp6Hdr,
// checkIcmp6CheckSum, getIcmp6Opt) on the frame. Exit status 0 when every
// checksum and check passes, 1 when one fails or the text is not hex.
//
// Hostile frames are the point: each header is bound only once the frame is
// known to hold it, so a truncated or lying frame ends the walk with a
// "truncated" line instead of an assertion.
#include <Corvid/PktUtils.h>

#include <cctype>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

#include "Command.h"
#include "JsonLine.h"
#include "PacketDecode.h"

namespace CorvidTool {

using namespace Corvid;

namespace {

std::string hex16(U32 v) {
  std::ostringstream s;
  s << "0x" << std::hex << std::setw(4) << std::setfill('0') << v;
  return s.str();
}

char const* pktErrorsName(PktErrors e) {
  switch (e) {
    case noError: return "noError";
    case pktTooShort: return "pktTooShort";
    case nonIpEthType: return "nonIpEthType";
    case badIpHdrChecksum: return "badIpHdrChecksum";
    case badIpPayloadLen: return "badIpPayloadLen";
    case nonIpHdr: return "nonIpHdr";
    case nonIp6Hdr: return "nonIp6Hdr";
    case badIp6PayloadLen: return "badIp6PayloadLen";
    case nextHdrIsNotIcmp6: return "nextHdrIsNotIcmp6";
    case badIcmp6Checksum: return "badIcmp6Checksum";
    case icmp6OptLenExceedPayloadLen: return "icmp6OptLenExceedPayloadLen";
    case icmp6OptLenZero: return "icmp6OptLenZero";
    case icmp6TypeNotSupported: return "icmp6TypeNotSupported";
    default: return "other";
  }
}

// The addresses and end of the IP header an upper layer sits in.
struct IpScope {
  bool v6 = false;
  IpAddr src4, dst4;
  Ip6Addr src6, dst6;
  U32 end = 0;  // one past the IP payload, within the frame
};

// Where the decoder writes. As text every piece goes straight to the stream.
// As JSON the pieces are taken apart as they arrive, so the decoder has one
// description of each header for both forms: line() opens a header object, a
// piece ending in "name=" names the value streamed next (numbers and
// booleans keep their type), other text joins the object's "detail", and
// "\n" closes it. Lines not opened by line() (truncation, payload, notes)
// become {"note": text}.
class DecodeOut {
 public:
  DecodeOut(std::ostream& out, nlohmann::json* lines) : out_(out), lines_(lines) {}
  bool json() const { return lines_ != nullptr; }

  DecodeOut& open(char const* name, U32 off) {
    if (!lines_) {
      out_ << name << " @" << off << ":";
      return *this;
    }
    std::string_view n(name);
    n.remove_prefix(std::min(n.find_first_not_of(' '), n.size()));
    object_ = {{"header", n}, {"offset", off}};
    return *this;
  }

  template <class T>
  DecodeOut& operator<<(T const& v) {
    if (!lines_) {
      out_ << v;
    } else if constexpr (std::is_convertible_v<T const&, std::string_view>) {
      pieces(std::string_view(v));
    } else if constexpr (std::is_arithmetic_v<T>) {
      std::ostringstream text;
      text << v;
      value(nlohmann::json(v), text.str());
    } else {
      std::ostringstream text;
      text << v;
      value(text.str(), text.str());
    }
    return *this;
  }

 private:
  void pieces(std::string_view s) {
    for (;;) {
      std::size_t const nl = s.find('\n');
      piece(s.substr(0, nl));
      if (nl == std::string_view::npos) return;
      close();
      s.remove_prefix(nl + 1);
    }
  }
  void piece(std::string_view s) {
    if (s.empty()) return;
    if (!key_.empty() && object_.is_object()) return value(std::string(s), std::string(s));
    if (s.back() == '=' && object_.is_object()) {
      std::size_t const start = s.find_last_of(" (") + 1;
      detail_ += s.substr(0, start);
      key_ = s.substr(start, s.size() - 1 - start);
      return;
    }
    detail_ += s;
  }
  void value(nlohmann::json v, std::string const& text) {
    if (key_.empty() || !object_.is_object()) {
      detail_ += text;
      return;
    }
    object_[key_] = std::move(v);
    key_.clear();
  }
  void close() {
    std::string d;
    for (char c : detail_) {
      if (c == '(' || c == ')' || (c == ' ' && (d.empty() || d.back() == ' '))) continue;
      d += c;
    }
    while (!d.empty() && (d.back() == ' ' || d.back() == ':' || d.back() == ',')) d.pop_back();
    if (object_.is_object()) {
      if (!d.empty()) object_["detail"] = d;
      lines_->push_back(std::move(object_));
    } else {
      lines_->push_back({{"note", d}});
    }
    object_ = nullptr;
    detail_.clear();
    key_.clear();
  }

  std::ostream& out_;
  nlohmann::json* lines_;
  nlohmann::json object_;
  std::string key_;
  std::string detail_;
};

class Decoder {
 public:
  Decoder(Brio::Ptr<Pkt> const& pkt, DecodeOut& out) : pkt_(pkt), out_(out), bytes_(pkt->frontBytes()) {}

  bool allValid() const { return valid_; }

  void ethernet(U32 off, int depth = 0) {
    if (!fits(off, sizeof(EthHdr), "ethernet") || depth > 4) return;
    auto eth = ethHdrWrapperFactory(pkt_, off);
    U16 type = eth->header()->ethType.value();
    line("ethernet", off) << " dst=" << eth->dst() << " src=" << eth->src() << " ethType=" << hex16(type) << "\n";
    off += sizeof(EthHdr);
    while (type == ethTypeVlan || type == ethTypeQinQ || type == ethTypeQinQ9100) {
      if (!fits(off, sizeof(Eth8021QHdr), "vlan")) return;
      auto tag = eth8021QHdrWrapperFactory(pkt_, off);
      type = tag->header()->ethType.value();
      line("vlan", off) << " priority=" << int(tag->priority()) << " cfi=" << tag->cfi()
                        << " vlanId=" << tag->vlanId() << " ethType=" << hex16(type) << "\n";
      off += sizeof(Eth8021QHdr);
    }
    etherPayload(type, off, bytes_, depth);
  }

 private:
  DecodeOut& line(char const* name, U32 off) { return out_.open(name, off); }

  bool fits(U32 off, U32 need, char const* name) {
    if (U64(off) + need <= bytes_) return true;
    out_ << "truncated: " << name << " needs " << need << " bytes at @" << off << ", "
         << (off < bytes_ ? bytes_ - off : 0) << " left\n";
    valid_ = false;
    return false;
  }

  void rest(U32 off, U32 end, char const* what) {
    if (off < end) out_ << "payload @" << off << ": " << end - off << " bytes (" << what << ")\n";
  }

  void verdict(U16 wire, U16 computed) {
    out_ << " checksum=" << hex16(wire);
    if (out_.json()) {
      out_ << " checksumValid=" << (wire == computed);
      if (wire != computed) out_ << " checksumComputed=" << hex16(computed);
      valid_ = valid_ && wire == computed;
    } else if (wire == computed) {
      out_ << " (valid)";
    } else {
      out_ << " (invalid, computed " << hex16(computed) << ")";
      valid_ = false;
    }
  }

  template <class W, class... Len>
  void checksum(W& w, Len... len) {
    verdict(w.checksum(), expectedChecksum(w, len...));
  }

  template <class W>
  void pseudo(W& w, IpScope const& ip, U32 off) {
    if constexpr (std::is_base_of_v<PseudoHdrFields<Ip6Addr>, W>) {
      w.pseudoHdrIs(ip.src6, ip.dst6, span(off, ip.end));
    } else {
      w.pseudoHdrIs(ip.src4, ip.dst4, span(off, ip.end));
    }
  }

  void etherPayload(U16 type, U32 off, U32 end, int depth) {
    switch (type) {
      case ethTypeIp: return ip4(off, depth);
      case ethTypeIp6: return ip6(off, depth);
      case ethTypeArp: return arp(off);
      case ethTypeMpls: return mpls(off, depth);
      default: rest(off, end, ("ethType " + hex16(type) + " not decoded").c_str());
    }
  }

  void ip4(U32 off, int depth) {
    if (!fits(off, sizeof(IpHdr), "ipv4")) return;
    auto ip = ipHdrWrapperFactory(pkt_, off);
    line("ipv4", off) << " version=" << int(ip->version()) << " headerLength=" << int(ip->headerLength())
                      << " tos=" << int(ip->tos()) << " totalLength=" << ip->totalLength()
                      << " identification=" << ip->identification() << " df=" << ip->dontFragment()
                      << " mf=" << ip->moreFragments() << " fragmentOffset=" << ip->fragmentOffset()
                      << " ttl=" << int(ip->ttl()) << " protocol=" << int(ip->protocol()) << " src=" << ip->src()
                      << " dst=" << ip->dst();
    U32 const headerBytes = ip->headerLength() * 4u;
    if (headerBytes < sizeof(IpHdr) || !fitsQuiet(off, headerBytes)) {
      out_ << " (bad header length)\n";
      valid_ = false;
      return;
    }
    checksum(*ip);
    out_ << "\n";
    IpScope scope{false, ip->src(), ip->dst(), {}, {}, std::min<U32>(off + ip->totalLength(), bytes_)};
    if (off + ip->totalLength() > bytes_) out_ << "note: total length runs past the frame\n";
    if (ip->fragmentOffset() != 0) return rest(off + headerBytes, scope.end, "fragment");
    upper(ip->protocol(), off + headerBytes, scope, depth);
  }

  bool fitsQuiet(U32 off, U32 need) const { return U64(off) + need <= bytes_; }

  // Bytes from off to end, for the length-taking checksums.
  static U16 span(U32 off, U32 end) { return off < end ? static_cast<U16>(std::min<U32>(end - off, 0xffff)) : 0; }

  void ip6(U32 off, int depth) {
    if (!fits(off, sizeof(Ip6Hdr), "ipv6")) return;
    auto ip6 = ip6HdrWrapperFactory(pkt_, off);
    line("ipv6", off) << " version=" << int(ip6->version()) << " trafficClass=" << int(ip6->trafficClass())
                      << " flowLabel=" << ip6->flowLabel() << " payloadLength=" << ip6->payloadLength()
                      << " nextHeader=" << int(ip6->nextHeader()) << " hopLimit=" << int(ip6->hopLimit())
                      << " src=" << ip6->src() << " dst=" << ip6->dst() << "\n";
    IpScope scope{true, {}, {}, ip6->src(), ip6->dst(), std::min<U32>(off + 40 + ip6->payloadLength(), bytes_)};
    if (off + 40 + ip6->payloadLength() > bytes_) out_ << "note: payload length runs past the frame\n";
    U8 next = ip6->nextHeader();
    off += sizeof(Ip6Hdr);
    // Hop-by-hop (0) and destination options (60), RFC 8200 section 4.
    while (next == 0 || next == 60) {
      if (!fits(off, 2, "extension header")) return;
      U8 const* ext = pkt_->frontData() + off;
      U32 const len = (ext[1] + 1u) * 8;
      if (!fits(off, len, "extension header")) return;
      line(next == 0 ? "hop-by-hop" : "destination-options", off) << " nextHeader=" << int(ext[0])
                                                                   << " length=" << len << "\n";
      ip6Options(off + 2, off + len);
      next = ext[0];
      off += len;
    }
    upper(next, off, scope, depth);
  }

  void ip6Options(U32 off, U32 end) {
    while (off < end) {
      auto opt = ip6HdrPad1WrapperFactory(pkt_, off);
      if (opt->type() == 0) {
        line("  option", off) << " pad1\n";
        ++off;
        continue;
      }
      if (off + 2 > end) return;
      auto common = ip6HdrOptionCommonWrapperFactory(pkt_, off);
      U32 const len = 2u + common->length();
      if (common->type() == 5 && common->length() == 2 && off + 4 <= end) {
        line("  option", off) << " routerAlert value=" << ip6HdrRouterAlertOptionWrapperFactory(pkt_, off)->value()
                              << "\n";
      } else {
        line("  option", off) << " type=" << int(common->type()) << " length=" << int(common->length()) << "\n";
      }
      off += len;
    }
  }

  void upper(U8 protocol, U32 off, IpScope const& ip, int depth) {
    switch (protocol) {
      case ipProtoTcp: return ip.v6 ? tcp<TcpHdrWrapperIpv6>(off, ip) : tcp<TcpHdrWrapper>(off, ip);
      case ipProtoUdp: return ip.v6 ? udp<UdpHdrWrapperIpv6>(off, ip, depth) : udp<UdpHdrWrapper>(off, ip, depth);
      case ipProtoIcmp6: return icmp6(off, ip);
      case ipProtoIcmp: return icmp(off, ip);
      case ipProtoIgmp: return igmp(off, ip);
      case ipProtoGre: return gre(off, ip, depth);
      case ipProtoPim: return pim(off, ip);
      case ipProtoSctp: return sctp(off, ip);
      default: rest(off, ip.end, ("protocol " + std::to_string(protocol) + " not decoded").c_str());
    }
  }

  template <class W>
  void tcp(U32 off, IpScope const& ip) {
    if (!fits(off, sizeof(TcpHdr), "tcp")) return;
    auto tcp = hdrWrapperFactory<W>(pkt_, off);
    static char const* const names[] = {"fin", "syn", "rst", "psh", "ack", "urg", "ece", "cwr", "ns"};
    std::string flags;
    for (int i = 0; i < 9; ++i) {
      if (tcp->flags() & (1 << i)) flags += std::string(flags.empty() ? "" : ",") + names[i];
    }
    line("tcp", off) << " srcPort=" << tcp->srcPort() << " dstPort=" << tcp->dstPort() << " seqNum=" << tcp->seqNum()
                     << " ackNum=" << tcp->ackNum() << " dataOffset=" << int(tcp->dataOffset())
                     << " flags=" << (flags.empty() ? "none" : flags) << " window=" << tcp->window()
                     << " urgentPointer=" << tcp->urgentPointer();
    pseudo(*tcp, ip, off);
    checksum(*tcp);
    out_ << "\n";
    rest(off + std::max<U32>(tcp->dataOffset() * 4u, sizeof(TcpHdr)), ip.end, "tcp data");
  }

  template <class W>
  void udp(U32 off, IpScope const& ip, int depth) {
    if (!fits(off, sizeof(UdpHdr), "udp")) return;
    auto udp = hdrWrapperFactory<W>(pkt_, off);
    line("udp", off) << " srcPort=" << udp->srcPort() << " dstPort=" << udp->dstPort() << " length=" << udp->length();
    pseudo(*udp, ip, off);
    if (!ip.v6 && udp->checksum() == 0) {
      out_ << " checksum=none";  // RFC 768: zero means the sender computed none
    } else {
      checksum(*udp);
    }
    out_ << "\n";
    off += sizeof(UdpHdr);
    if ((udp->dstPort() == 4789 || udp->srcPort() == 4789) && fitsQuiet(off, sizeof(VxlanHdr))) {
      auto vxlan = vxlanHdrWrapperFactory(pkt_, off);
      line("vxlan", off) << " flags=" << hex16(vxlan->flags()) << " vniValid=" << vxlan->vniValid()
                         << " vni=" << vxlan->vni() << "\n";
      return ethernet(off + sizeof(VxlanHdr), depth + 1);
    }
    rest(off, ip.end, "udp data");
  }

  void icmp(U32 off, IpScope const& ip) {
    if (!fits(off, sizeof(IcmpHdr), "icmp")) return;
    auto icmp = icmpHdrWrapperFactory(pkt_, off);
    line("icmp", off) << " type=" << int(icmp->type()) << " code=" << int(icmp->code())
                      << " identifier=" << icmp->identifier() << " sequence=" << icmp->sequence();
    checksum(*icmp, span(off, ip.end));
    out_ << "\n";
  }

  void igmp(U32 off, IpScope const& ip) {
    if (!fits(off, 8, "igmp")) return;
    U16 const len = span(off, ip.end);
    U8 const type = pkt_->frontData()[off];
    if (type == 0x11 && len >= sizeof(IgmpV3QueryHdr)) {
      auto q = igmpV3QueryHdrWrapperFactory(pkt_, off);
      line("igmpv3-query", off) << " maxRespCode=" << int(q->maxRespCode()) << " group=" << q->group()
                                << " s=" << q->suppressRouterProcessing() << " qrv=" << int(q->robustness())
                                << " qqic=" << int(q->qqic()) << " sources=" << q->numberOfSources();
      for (U32 i = 0; i < std::min<U32>(q->numberOfSources(), 8); ++i) out_ << " " << q->source(i);
      checksum(*q, len);
    } else if (type == 0x22) {
      auto r = igmpV3ReportHdrWrapperFactory(pkt_, off);
      line("igmpv3-report", off) << " groupRecords=" << r->numberOfGroupRecords();
      checksum(*r, len);
    } else if (type == 0x13) {
      auto d = dvmrpHdrWrapperFactory(pkt_, off);
      line("dvmrp", off) << " code=" << int(d->code()) << " capabilities=" << int(d->capabilities())
                         << " version=" << std::to_string(d->majorVersion()) + "." + std::to_string(d->minorVersion());
      checksum(*d, len);
    } else if (type == 0x30) {
      auto m = igmpMrdHdrWrapperFactory(pkt_, off);
      line("mrd-advertisement", off) << " interval=" << int(m->advertisementInterval())
                                     << " queryInterval=" << m->queryInterval()
                                     << " robustness=" << m->robustnessVariable();
      checksum(*m, len);
    } else {
      auto g = igmpV12HdrWrapperFactory(pkt_, off);
      line("igmp", off) << " type=" << hex16(g->type()) << " maxRespTime=" << int(g->maxRespTime())
                        << " group=" << g->group();
      checksum(*g, len);
    }
    out_ << "\n";
  }

  void gre(U32 off, IpScope const& ip, int depth) {
    if (!fits(off, sizeof(GreHdr), "gre")) return;
    auto gre = greHdrWrapperFactory(pkt_, off);
    if (!fits(off, gre->headerBytes(), "gre options")) return;
    line("gre", off) << " version=" << int(gre->version()) << " protocol=" << hex16(gre->protocol());
    if (gre->keyPresent()) out_ << " key=" << gre->key();
    if (gre->sequencePresent()) out_ << " sequence=" << gre->sequence();
    if (gre->checksumPresent()) checksum(*gre, span(off, ip.end));
    out_ << "\n";
    U32 const inner = off + gre->headerBytes();
    if (gre->protocol() == 0x6558) return ethernet(inner, depth + 1);  // transparent Ethernet bridging
    if (depth < 4 && (gre->protocol() == ethTypeIp || gre->protocol() == ethTypeIp6)) {
      return etherPayload(gre->protocol(), inner, ip.end, depth + 1);
    }
    rest(inner, ip.end, "gre payload");
  }

  void pim(U32 off, IpScope const& ip) {
    if (!fits(off, sizeof(PimCommonHdr), "pim")) return;
    auto pim = pimCommonHdrWrapperFactory(pkt_, off);
    line("pim", off) << " version=" << int(pim->version()) << " type=" << int(pim->type());
    U16 const len = span(off, ip.end);
    U16 const wire = pim->checksum();
    pim->checksumIs(0);
    U16 const computed = ip.v6 ? pim->header()->computedChecksumIpv6(PimPseudoHdrIpv6(ip.src6, ip.dst6, len, 0, 0, ipProtoPim)).value()
                               : pim->header()->computedChecksumU16(len);
    pim->checksumIs(wire);
    verdict(wire, computed);
    out_ << "\n";
  }

  void sctp(U32 off, IpScope const&) {
    if (!fits(off, sizeof(SctpHdr), "sctp")) return;
    auto sctp = sctpHdrWrapperFactory(pkt_, off);
    line("sctp", off) << " srcPort=" << sctp->srcPort() << " dstPort=" << sctp->dstPort()
                      << " verificationTag=" << sctp->verificationTag() << " crc32c=" << sctp->checksum() << "\n";
  }

  void arp(U32 off) {
    if (!fits(off, sizeof(EthArpIpHdr), "arp")) return;
    auto arp = ethArpIpHdrWrapperFactory(pkt_, off);
    line("arp", off) << " hardwareType=" << arp->hardwareType() << " protocolType=" << hex16(arp->protocolType())
                     << " opcode=" << arp->opcode() << " senderHardwareAddr=" << arp->senderHardwareAddr()
                     << " senderProtocolAddr=" << arp->senderProtocolAddr()
                     << " targetHardwareAddr=" << arp->targetHardwareAddr()
                     << " targetProtocolAddr=" << arp->targetProtocolAddr() << "\n";
  }

  void mpls(U32 off, int depth) {
    for (;;) {
      if (!fits(off, sizeof(MplsHdr), "mpls")) return;
      auto label = mplsHdrWrapperFactory(pkt_, off);
      line("mpls", off) << " label=" << label->label() << " trafficClass=" << int(label->trafficClass())
                        << " bottomOfStack=" << label->bottomOfStack() << " ttl=" << int(label->ttl()) << "\n";
      off += sizeof(MplsHdr);
      if (label->bottomOfStack()) break;
    }
    if (!fitsQuiet(off, 1)) return;
    U8 const nibble = pkt_->frontData()[off] >> 4;
    if (nibble == 4) return ip4(off, depth);
    if (nibble == 6) return ip6(off, depth);
    if (nibble == 1 && fitsQuiet(off, sizeof(PwAchHdr))) {
      auto ach = pwAchHdrWrapperFactory(pkt_, off);
      line("pw-ach", off) << " version=" << int(ach->version()) << " channelType=" << hex16(ach->channelType()) << "\n";
      off += sizeof(PwAchHdr);
    }
    rest(off, bytes_, "mpls payload");
  }

  void icmp6(U32 off, IpScope const& ip) {
    if (!fits(off, sizeof(Icmp6Hdr), "icmp6")) return;
    auto icmp6 = icmp6HdrWrapperFactory(pkt_, off);
    line("icmp6", off) << " type=" << int(icmp6->type()) << " code=" << int(icmp6->code());
    pseudo(*icmp6, ip, off);
    checksum(*icmp6);
    out_ << "\n";
    U32 const body = off + sizeof(Icmp6Hdr);
    U32 options = 0;
    switch (icmp6->type()) {
      case icmp6RouterSolicitation:
        if (!fits(body, sizeof(Icmp6RouterSolicitationHdr), "router solicitation")) return;
        line("router-solicitation", body) << "\n";
        options = body + sizeof(Icmp6RouterSolicitationHdr);
        break;
      case icmp6RouterAdvertisement: {
        if (!fits(body, sizeof(Icmp6RouterAdvertisementHdr), "router advertisement")) return;
        auto ra = icmp6RouterAdvertisementHdrWrapperFactory(pkt_, body);
        line("router-advertisement", body) << " curHopLimit=" << int(ra->curHopLimit()) << " managed=" << ra->managed()
                                           << " other=" << ra->other() << " preference=" << int(ra->routerPreference())
                                           << " routerLifetime=" << ra->routerLifetime()
                                           << " reachableTime=" << ra->reachableTime()
                                           << " retransTimer=" << ra->retransTimer() << "\n";
        options = body + sizeof(Icmp6RouterAdvertisementHdr);
        break;
      }
      case icmp6NeighborSolicitation: {
        if (!fits(body, sizeof(Icmp6NeighborSolicitationHdr), "neighbor solicitation")) return;
        line("neighbor-solicitation", body) << " target="
                                            << icmp6NeighborSolicitationHdrWrapperFactory(pkt_, body)->target() << "\n";
        options = body + sizeof(Icmp6NeighborSolicitationHdr);
        break;
      }
      case icmp6NeighborAdvertisement: {
        if (!fits(body, sizeof(Icmp6NeighborAdvertisementHdr), "neighbor advertisement")) return;
        auto na = icmp6NeighborAdvertisementHdrWrapperFactory(pkt_, body);
        line("neighbor-advertisement", body) << " router=" << na->router() << " solicited=" << na->solicited()
                                             << " override=" << na->override() << " target=" << na->target() << "\n";
        options = body + sizeof(Icmp6NeighborAdvertisementHdr);
        break;
      }
      case icmp6PacketTooBig:
        if (!fits(body, sizeof(Icmp6PacketTooBigHdr), "packet too big")) return;
        line("packet-too-big", body) << " mtu=" << icmp6PacketTooBigHdrWrapperFactory(pkt_, body)->mtu() << "\n";
        return;
      case icmp6EchoRequest:
      case icmp6EchoReply: {
        if (!fits(body, sizeof(Icmp6EchoRequestHdr), "echo")) return;
        auto echo = icmp6EchoRequestHdrWrapperFactory(pkt_, body);
        line(icmp6->type() == icmp6EchoRequest ? "echo-request" : "echo-reply", body)
            << " identifier=" << echo->identifier() << " sequence=" << echo->sequence() << "\n";
        return rest(body + sizeof(Icmp6EchoRequestHdr), ip.end, "echo data");
      }
      default:
        return rest(body, ip.end, "icmp6 body");
    }
    ndOptions(options, ip.end);
  }

  void ndOptions(U32 off, U32 end) {
    while (off + 2 <= end) {
      auto opt = ip6HdrOptionCommonWrapperFactory(pkt_, off);  // the same type and length bytes
      U32 const len = opt->length() * 8u;
      if (len == 0) {
        line("  option", off) << " type=" << int(opt->type()) << " length=0: stop\n";
        valid_ = false;
        return;
      }
      if (off + len > end) {
        line("  option", off) << " type=" << int(opt->type()) << " runs " << off + len - end << " bytes past the end\n";
        valid_ = false;
        return;
      }
      ndOption(opt->type(), off, len);
      off += len;
    }
  }

  void ndOption(U8 type, U32 off, U32 len) {
    DecodeOut& o = line("  option", off);
    switch (type) {
      case icmp6OptSrcLinkLayerAddr:
      case icmp6OptTgtLinkLayerAddr:
        o << (type == icmp6OptSrcLinkLayerAddr ? " source" : " target") << "-link-layer-address "
          << icmp6HdrSrcLinkLayerAddrOptionWrapperFactory(pkt_, off)->linkLayerAddr();
        break;
      case icmp6OptMtu:
        o << " mtu " << icmp6HdrMtuOptionWrapperFactory(pkt_, off)->mtu();
        break;
      case icmp6OptPrefixInfo:
        if (len < sizeof(Icmp6HdrPrefixInfoOption)) break;
        {
          auto p = icmp6HdrPrefixInfoOptionWrapperFactory(pkt_, off);
          o << " prefix-information " << p->prefix() << "/" << int(p->prefixLength()) << " onLink=" << p->onLink()
            << " autonomous=" << p->autonomous() << " valid=" << p->validLifetime()
            << " preferred=" << p->preferredLifetime();
        }
        break;
      case icmp6OptRouteInformation: {
        auto r = icmp6HdrRouteInformationOptionWrapperFactory(pkt_, off);
        o << " route-information " << r->prefix() << "/" << int(r->prefixLength())
          << " preference=" << int(r->routePreference()) << " lifetime=" << r->routeLifetime();
        break;
      }
      case icmp6OptDnsServerInfo: {
        auto r = icmp6HdrDnsServerInfoOptionWrapperFactory(pkt_, off);
        o << " dns-servers lifetime=" << r->lifetime();
        for (U32 i = 0; i < r->addresses(); ++i) o << " " << r->address(i);
        break;
      }
      case icmp6OptDnsSuffixInfo: {
        auto s = icmp6HdrDnsSuffixInfoOptionWrapperFactory(pkt_, off);
        o << " dns-search-list lifetime=" << s->lifetime();
        for (auto const& name : s->domainNames()) o << " " << name;
        break;
      }
      case icmp6OptNetworkBoot: {
        auto b = icmp6HdrNetworkBootOptionWrapperFactory(pkt_, off);
        o << " network-boot lifetime=" << b->lifetime() << " url=" << b->bootUrl();
        break;
      }
      default:
        break;
    }
    o << " (type=" << int(type) << " length=" << len << ")\n";
  }

  Brio::Ptr<Pkt> pkt_;
  DecodeOut& out_;
  U32 bytes_;
  bool valid_ = true;
};

// The receive-path checks, each on its own copy: they may zero checksum fields.
bool sanityChecks(std::string const& frame, std::ostream& out, nlohmann::json* json) {
  auto copy = [&] {
    Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(Brio::String(frame));
    return pkt;
  };
  auto report = [&](char const* name, PktErrors e) {
    if (json) {
      (*json)["checks"][name] = pktErrorsName(e);
    } else {
      out << "  " << name << ": " << int(e) << " (" << pktErrorsName(e) << ")\n";
    }
    return e == noError;
  };
  U16 const type = frame.size() >= 14 ? static_cast<U16>(U8(frame[12]) << 8 | U8(frame[13])) : 0;
  if (json) {
    (*json)["checks"] = nlohmann::json::object();
  } else {
    out << "checks:\n";
  }
  EthHdr* eth = nullptr;
  if (type == ethTypeIp) {
    IpHdr* ip = nullptr;
    return report("checkEthIpHdr", checkEthIpHdr(copy(), eth, ip));
  }
  if (type != ethTypeIp6) {
    if (!json) out << "  none apply: the checks read untagged IPv4 and IPv6 frames\n";
    return true;
  }
  Brio::Ptr<Pkt> pkt = copy();
  Ip6Hdr* ip6 = nullptr;
  bool const ip6Ok = report("checkEthIp6Hdr", checkEthIp6Hdr(pkt, eth, ip6));
  if (!ip6Ok || ip6->nextHeader != ipProtoIcmp6) return ip6Ok;
  Icmp6Hdr* icmp6 = nullptr;
  bool ok = report("checkIcmp6CheckSum", checkIcmp6CheckSum(ip6, icmp6));
  if (!icmp6) return ok;
  for (auto [type, name] : {std::pair{icmp6OptSrcLinkLayerAddr, "source link-layer address"},
                            std::pair{icmp6OptTgtLinkLayerAddr, "target link-layer address"}}) {
    Icmp6OptionCommonHdr* opt = nullptr;
    PktErrors const e = getIcmp6Opt(ip6, icmp6, opt, type);
    if (e == icmp6TypeNotSupported) break;
    std::string const check = std::string("getIcmp6Opt(") + name + ")";
    ok = report(check.c_str(), e) && ok;
    long const at = opt ? reinterpret_cast<U8*>(opt) - pkt->frontData() : -1;
    if (opt && json) (*json)["checks"][check + " offset"] = at;
    if (opt && !json) out << "    found @" << at << "\n";
  }
  return ok;
}

}  // namespace

std::string parseHex(std::vector<std::string> const& args) {
  std::string digits;
  for (auto const& arg : args) {
    std::string word = arg;
    if (word.rfind("0x", 0) == 0 || word.rfind("0X", 0) == 0) word = word.substr(2);
    for (char c : word) {
      if (std::isxdigit(static_cast<unsigned char>(c))) {
        digits += c;
      } else if (!std::isspace(static_cast<unsigned char>(c)) && c != ':' && c != '-' && c != '.') {
        throw std::invalid_argument(std::string("not a hex digit: '") + c + "'");
      }
    }
  }
  if (digits.size() % 2) throw std::invalid_argument("odd number of hex digits");
  std::string bytes(digits.size() / 2, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
  return bytes;
}

bool describeFrame(std::string const& frame, std::ostream& out, nlohmann::json* json) {
  Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
  pkt->stringValueIs(Brio::String(frame));
  nlohmann::json headers = nlohmann::json::array();
  if (json) {
    (*json)["bytes"] = frame.size();
  } else {
    out << "frame: " << frame.size() << " bytes\n";
  }
  DecodeOut sink(out, json ? &headers : nullptr);
  Decoder decoder(pkt, sink);
  decoder.ethernet(0);
  if (json) (*json)["headers"] = std::move(headers);
  bool const checks = sanityChecks(frame, out, json);
  if (json) (*json)["valid"] = decoder.allValid() && checks;
  return decoder.allValid() && checks;
}

void packetHelp(std::ostream& out) {
  out << "\n  HEX     the frame's bytes as hex digits; \"0x\" prefixes, ':', '-', '.' and blanks\n"
         "          between them are allowed, and the frame may be split over several words\n"
         "  --json  one JSON object for the frame: bytes, headers (each with its offset and\n"
         "          fields), checks and valid\n";
}

int packetCommand(Args const& argsGiven, std::ostream& out, std::ostream& err) {
  Args args = argsGiven;
  bool const json = jsonFlagTake(args);
  if (args.empty()) throw UsageError("missing HEX");
  std::string frame;
  try {
    frame = parseHex(args);
  } catch (std::invalid_argument const& e) {
    err << "corvid packet: " << e.what() << "\n";
    return 1;
  }
  if (frame.size() > 65535 + 14 + 8) {
    err << "corvid packet: frame of " << frame.size() << " bytes is too long\n";
    return 1;
  }
  if (!json) return describeFrame(frame, out) ? 0 : 1;
  nlohmann::json object;
  bool const ok = describeFrame(frame, out, &object);
  out << jsonLine(object) << "\n";
  return ok ? 0 : 1;
}

}  // namespace CorvidTool
