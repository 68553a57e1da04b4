// Protocol headers over packet bytes, the wrappers that bind them into a
// Pkt, and the sanity checks endpoints run on received frames.
//
// A header structure (EthHdr, IpHdr, Icmp6Hdr, ...) is a plain layout of the
// header as it lies on the wire: alignment 1, no padding, multi-byte fields
// in network order behind NetU16/NetU32 and the Net*Addr wire forms, so it
// can be laid over packet bytes at any offset. Sub-byte fields get accessor
// pairs on the structure.
//
// A header wrapper binds one structure to a position in a packet's front
// piece (the first iovec): the whole fixed header must lie inside it, or the
// constructor aborts with an assertion naming the header. The wrapper holds
// the packet (a reference) and exposes the fields by their protocol names;
// a getter of an unbound wrapper returns 0. Accessors that read past the
// fixed header (option bodies, optional fields) stop at the end of the front
// piece and yield zero values beyond it. A wrapper costs one small
// allocation; its accessors are inline loads and stores.
//
// The sanity checks return a PktErrors code (0 when the frame passes) and
// trace the reason at pktErrorTraceLevel of the "Corvid" facility. They read
// only the packet's front piece, where a received frame lies contiguously.
#pragma once

#include <Brio/Ptr.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/Checksum.h>
#include <Corvid/EthAddr.h>
#include <Corvid/Ip.h>
#include <Corvid/Pkt.h>
#include <Fennel/Fennel.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

namespace Corvid {

// ===========================================================================
// Wire forms and numbers
// ===========================================================================

// A 24-bit field in network order (OUIs, VXLAN and I-SID numbers).
class NetU24 {
 public:
  NetU24() = default;
  constexpr explicit NetU24(U32 host)
      : b_{static_cast<U8>(host >> 16), static_cast<U8>(host >> 8), static_cast<U8>(host)} {}
  constexpr U32 value() const { return (U32(b_[0]) << 16) | (U32(b_[1]) << 8) | U32(b_[2]); }
  constexpr void valueIs(U32 host) { *this = NetU24(host); }

 private:
  U8 b_[3];
};

// Addresses as they lie in headers; value() gives the library's value type.
class NetIpAddr {
 public:
  IpAddr value() const {
    U32 n;
    std::memcpy(&n, b_, 4);
    return IpAddr::fromNetworkOrder(n);
  }
  void valueIs(IpAddr a) { a.copyToBuffer(b_); }

 private:
  U8 b_[4];
};

class NetIp6Addr {
 public:
  Ip6Addr value() const {
    Ip6Addr a;
    a.copyFromBuffer(b_);
    return a;
  }
  void valueIs(Ip6Addr const& a) { a.copyToBuffer(b_); }

 private:
  U8 b_[16];
};

class NetEthAddr {
 public:
  EthAddr value() const { return EthAddr(b_); }
  void valueIs(EthAddr const& a) { a.copyToBuffer(b_); }

 private:
  U8 b_[6];
};

// The EtherTypes the system knows; EthHdrWrapper::ethType() reads any other
// value as ethTypeNone.
enum EthType : U16 {
  ethTypeNone = 0,
  ethTypeIp = 0x0800,
  ethTypeArp = 0x0806,
  ethTypeVlan = 0x8100,
  ethTypeIp6 = 0x86DD,
  ethTypeMpls = 0x8847,
  ethTypeQinQ = 0x88A8,
  ethTypePtp = 0x88F7,
  ethTypeCfm = 0x8902,
  ethTypeQinQ9100 = 0x9100,
};
// The value itself when known, else ethTypeNone.
EthType knownEthType(U16 value);

enum IpProtocol : U8 {
  ipProtoHopByHop = 0,
  ipProtoIcmp = 1,
  ipProtoIgmp = 2,
  ipProtoTcp = 6,
  ipProtoUdp = 17,
  ipProtoGre = 47,
  ipProtoIcmp6 = 58,
  ipProtoPim = 103,
  ipProtoSctp = 132,
};

enum Icmp6Type : U8 {
  icmp6DestinationUnreachable = 1,
  icmp6PacketTooBig = 2,
  icmp6TimeExceeded = 3,
  icmp6ParameterProblem = 4,
  icmp6EchoRequest = 128,
  icmp6EchoReply = 129,
  icmp6RouterSolicitation = 133,
  icmp6RouterAdvertisement = 134,
  icmp6NeighborSolicitation = 135,
  icmp6NeighborAdvertisement = 136,
  icmp6Redirect = 137,
};

// Neighbour discovery option types (RFC 4861, 4191, 8106). The network boot
// option travels in the RFC 4727 experimental type 253.
enum Icmp6OptionTypeNumber : U8 {
  icmp6OptSrcLinkLayerAddr = 1,
  icmp6OptTgtLinkLayerAddr = 2,
  icmp6OptPrefixInfo = 3,
  icmp6OptRedirectedHeader = 4,
  icmp6OptMtu = 5,
  icmp6OptRouteInformation = 24,
  icmp6OptDnsServerInfo = 25,
  icmp6OptDnsSuffixInfo = 31,
  icmp6OptNetworkBoot = 253,
};

// ===========================================================================
// Header structures
// ===========================================================================

// Messages whose checksum covers the message alone (ICMP, IGMP, ICMP
// extensions, PIM over IPv4): ipChecksumCalc over len bytes from the header.
template <class Self>
struct ChecksummedMessage {
  IpChecksum computedChecksum(U16 len) const { return ipChecksumCalc(reinterpret_cast<char const*>(this), len, 0); }
  U16 computedChecksumU16(U16 len) const { return computedChecksum(len).value(); }
};

struct EthHdr {
  NetEthAddr dst;
  NetEthAddr src;
  NetU16 ethType;
};

// IEEE 802.1Q tag as it follows a TPID: TCI, then the inner EtherType.
struct Eth8021QHdr {
  NetU16 tci;
  NetU16 ethType;
  U8 priority() const { return static_cast<U8>(tci.value() >> 13); }
  void priorityIs(U8 v) { tci.valueIs(static_cast<U16>((tci.value() & 0x1fff) | ((v & 7) << 13))); }
  bool cfi() const { return (tci.value() & 0x1000) != 0; }
  void cfiIs(bool v) { tci.valueIs(static_cast<U16>((tci.value() & ~0x1000) | (v ? 0x1000 : 0))); }
  U16 vlanId() const { return static_cast<U16>(tci.value() & 0x0fff); }
  void vlanIdIs(U16 v) { tci.valueIs(static_cast<U16>((tci.value() & 0xf000) | (v & 0x0fff))); }
};

struct Eth8022LlcHdr {
  U8 dsap;
  U8 ssap;
  U8 control;
};

struct Eth8022SnapHdr {
  NetU24 oui;
  NetU16 protocolId;
};

// RFC 826 for IPv4 over Ethernet.
struct EthArpIpHdr {
  NetU16 hardwareType;
  NetU16 protocolType;
  U8 hardwareAddrLen;
  U8 protocolAddrLen;
  NetU16 opcode;
  NetEthAddr senderHardwareAddr;
  NetIpAddr senderProtocolAddr;
  NetEthAddr targetHardwareAddr;
  NetIpAddr targetProtocolAddr;
};

// IEEE 802.1ah I-TAG: TPID, then priority, DEI, UCA and the 24-bit I-SID.
struct MimHdr {
  NetU16 ethType;
  U8 flags;
  NetU24 isid;
  U8 priority() const { return static_cast<U8>(flags >> 5); }
  void priorityIs(U8 v) { flags = static_cast<U8>((flags & 0x1f) | ((v & 7) << 5)); }
  bool dei() const { return (flags & 0x10) != 0; }
  void deiIs(bool v) { flags = static_cast<U8>((flags & ~0x10) | (v ? 0x10 : 0)); }
  bool uca() const { return (flags & 0x08) != 0; }
  void ucaIs(bool v) { flags = static_cast<U8>((flags & ~0x08) | (v ? 0x08 : 0)); }
};

// RFC 3032 label stack entry.
struct MplsHdr {
  NetU32 entry;
  U32 label() const { return entry.value() >> 12; }
  void labelIs(U32 v) { entry.valueIs((entry.value() & 0xfff) | ((v & 0xfffff) << 12)); }
  U8 trafficClass() const { return static_cast<U8>((entry.value() >> 9) & 7); }
  void trafficClassIs(U8 v) { entry.valueIs((entry.value() & ~0xe00u) | (U32(v & 7) << 9)); }
  bool bottomOfStack() const { return (entry.value() & 0x100) != 0; }
  void bottomOfStackIs(bool v) { entry.valueIs((entry.value() & ~0x100u) | (v ? 0x100 : 0)); }
  U8 ttl() const { return static_cast<U8>(entry.value()); }
  void ttlIs(U8 v) { entry.valueIs((entry.value() & ~0xffu) | v); }
};

// RFC 4385 associated channel header: 0001, version, reserved, channel type.
struct PwAchHdr {
  U8 nibbleVersion;
  U8 reserved;
  NetU16 channelType;
  U8 firstNibble() const { return static_cast<U8>(nibbleVersion >> 4); }
  void firstNibbleIs(U8 v) { nibbleVersion = static_cast<U8>((nibbleVersion & 0x0f) | (v << 4)); }
  U8 version() const { return static_cast<U8>(nibbleVersion & 0x0f); }
  void versionIs(U8 v) { nibbleVersion = static_cast<U8>((nibbleVersion & 0xf0) | (v & 0x0f)); }
};

struct IpHdr {
  U8 versionIhl;
  U8 tos;
  NetU16 totalLength;
  NetU16 identification;
  NetU16 flagsFragmentOffset;
  U8 ttl;
  U8 protocol;
  IpChecksum checksum;
  NetIpAddr src;
  NetIpAddr dst;

  U8 version() const { return static_cast<U8>(versionIhl >> 4); }
  void versionIs(U8 v) { versionIhl = static_cast<U8>((versionIhl & 0x0f) | (v << 4)); }
  // In 32-bit words, as on the wire.
  U8 headerLength() const { return static_cast<U8>(versionIhl & 0x0f); }
  void headerLengthIs(U8 v) { versionIhl = static_cast<U8>((versionIhl & 0xf0) | (v & 0x0f)); }
  U16 headerBytes() const { return static_cast<U16>(headerLength() * 4); }
  // Total length less the header, modulo 2^16 when the header claims more.
  U16 payloadLength() const { return static_cast<U16>(totalLength.value() - headerBytes()); }
  U8 dscp() const { return static_cast<U8>(tos >> 2); }
  void dscpIs(U8 v) { tos = static_cast<U8>((tos & 3) | (v << 2)); }
  U8 ecn() const { return static_cast<U8>(tos & 3); }
  void ecnIs(U8 v) { tos = static_cast<U8>((tos & 0xfc) | (v & 3)); }
  bool dontFragment() const { return (flagsFragmentOffset.value() & 0x4000) != 0; }
  void dontFragmentIs(bool v) { flagBitIs(0x4000, v); }
  bool moreFragments() const { return (flagsFragmentOffset.value() & 0x2000) != 0; }
  void moreFragmentsIs(bool v) { flagBitIs(0x2000, v); }
  // In units of 8 bytes, as on the wire.
  U16 fragmentOffset() const { return static_cast<U16>(flagsFragmentOffset.value() & 0x1fff); }
  void fragmentOffsetIs(U16 v) {
    flagsFragmentOffset.valueIs(static_cast<U16>((flagsFragmentOffset.value() & 0xe000) | (v & 0x1fff)));
  }
  // The header checksum over headerBytes() from 0; zero the field first to verify.
  IpChecksum computedChecksum() const {
    FENNEL_ASSERT((headerBytes() % 2) == 0);
    return ipChecksumCalc(reinterpret_cast<char const*>(this), headerBytes(), 0);
  }

 private:
  void flagBitIs(U16 bit, bool v) {
    flagsFragmentOffset.valueIs(static_cast<U16>((flagsFragmentOffset.value() & ~bit) | (v ? bit : 0)));
  }
};

// The type byte every IPv4 option starts with (RFC 791).
struct IpHdrOptionCommon {
  U8 type;
  bool copied() const { return (type & 0x80) != 0; }
  U8 optionClass() const { return static_cast<U8>((type >> 5) & 3); }
  U8 number() const { return static_cast<U8>(type & 0x1f); }
};

struct Ip6Hdr {
  NetU32 versionClassFlow;
  NetU16 payloadLength;
  U8 nextHeader;
  U8 hopLimit;
  NetIp6Addr src;
  NetIp6Addr dst;

  U8 version() const { return static_cast<U8>(versionClassFlow.value() >> 28); }
  void versionIs(U8 v) { versionClassFlow.valueIs((versionClassFlow.value() & 0x0fffffff) | (U32(v & 0xf) << 28)); }
  U8 trafficClass() const { return static_cast<U8>(versionClassFlow.value() >> 20); }
  void trafficClassIs(U8 v) { versionClassFlow.valueIs((versionClassFlow.value() & 0xf00fffff) | (U32(v) << 20)); }
  U32 flowLabel() const { return versionClassFlow.value() & 0xfffff; }
  void flowLabelIs(U32 v) { versionClassFlow.valueIs((versionClassFlow.value() & 0xfff00000) | (v & 0xfffff)); }
};

// Options of the hop-by-hop and destination headers (RFC 8200 section 4.2).
struct Ip6HdrOptionCommon {
  U8 type;
  U8 length;
};
struct Ip6HdrPad1 {
  U8 type;
};
struct Ip6HdrPadN {
  U8 type;
  U8 length;
};
// RFC 2711: type 5, length 2, value.
struct Ip6HdrRouterAlertOption {
  U8 type;
  U8 length;
  NetU16 value;
};

struct IcmpHdr : ChecksummedMessage<IcmpHdr> {
  U8 type;
  U8 code;
  IpChecksum checksum;
  NetU16 identifier;
  NetU16 sequence;
};

// RFC 4884 extension structure header.
struct IcmpExtnHdr : ChecksummedMessage<IcmpExtnHdr> {
  U8 versionReserved;
  U8 reserved;
  IpChecksum checksum;
  U8 version() const { return static_cast<U8>(versionReserved >> 4); }
};

// Type, the per-version second byte and the checksum of every IGMP message.
struct IgmpCommonHdr : ChecksummedMessage<IgmpCommonHdr> {
  U8 type;
  U8 code;
  IpChecksum checksum;
};
struct IgmpV12Hdr : IgmpCommonHdr {
  NetIpAddr group;
};
// RFC 3376 section 4.1.
struct IgmpV3QueryHdr : IgmpCommonHdr {
  NetIpAddr group;
  U8 flags;
  U8 qqic;
  NetU16 numberOfSources;
  bool suppressRouterProcessing() const { return (flags & 0x08) != 0; }
  void suppressRouterProcessingIs(bool v) { flags = static_cast<U8>((flags & ~0x08) | (v ? 0x08 : 0)); }
  U8 robustness() const { return static_cast<U8>(flags & 7); }
  void robustnessIs(U8 v) { flags = static_cast<U8>((flags & ~7) | (v & 7)); }
};
// RFC 3376 section 4.2.
struct IgmpV3ReportHdr : IgmpCommonHdr {
  NetU16 reserved;
  NetU16 numberOfGroupRecords;
};
struct DvmrpHdr : IgmpCommonHdr {
  U8 reserved;
  U8 capabilities;
  U8 minorVersion;
  U8 majorVersion;
};
// RFC 4286 multicast router advertisement.
struct IgmpMrdHdr : IgmpCommonHdr {
  NetU16 queryInterval;
  NetU16 robustnessVariable;
};

struct Icmp6Hdr {
  U8 type;
  U8 code;
  IpChecksum checksum;
  // The checksum under the pseudo header, over its icmp6Len (low 16 bits)
  // bytes from this header; zero the field first to verify.
  IpChecksum computedChecksum(Icmp6PseudoHdr const& pseudo) const {
    return pseudoHdrChecksum(pseudo, this, static_cast<U16>(pseudo.icmp6Len.value()));
  }
};

// The message bodies that follow the four bytes of Icmp6Hdr.
struct Icmp6RouterSolicitationHdr {
  NetU32 reserved;
};
struct Icmp6RouterAdvertisementHdr {
  U8 curHopLimit;
  U8 flags;
  NetU16 routerLifetime;
  NetU32 reachableTime;
  NetU32 retransTimer;
  bool managed() const { return (flags & 0x80) != 0; }
  void managedIs(bool v) { flags = static_cast<U8>((flags & ~0x80) | (v ? 0x80 : 0)); }
  bool other() const { return (flags & 0x40) != 0; }
  void otherIs(bool v) { flags = static_cast<U8>((flags & ~0x40) | (v ? 0x40 : 0)); }
  // RFC 4191 default router preference, two bits.
  U8 routerPreference() const { return static_cast<U8>((flags >> 3) & 3); }
  void routerPreferenceIs(U8 v) { flags = static_cast<U8>((flags & ~0x18) | ((v & 3) << 3)); }
};
struct Icmp6NeighborSolicitationHdr {
  NetU32 reserved;
  NetIp6Addr target;
};
struct Icmp6NeighborAdvertisementHdr {
  NetU32 flagsReserved;
  NetIp6Addr target;
  bool router() const { return (flagsReserved.value() & 0x80000000u) != 0; }
  void routerIs(bool v) { flagIs(0x80000000u, v); }
  bool solicited() const { return (flagsReserved.value() & 0x40000000u) != 0; }
  void solicitedIs(bool v) { flagIs(0x40000000u, v); }
  bool override() const { return (flagsReserved.value() & 0x20000000u) != 0; }
  void overrideIs(bool v) { flagIs(0x20000000u, v); }

 private:
  void flagIs(U32 bit, bool v) { flagsReserved.valueIs((flagsReserved.value() & ~bit) | (v ? bit : 0)); }
};
struct Icmp6PacketTooBigHdr {
  NetU32 mtu;
};
struct Icmp6EchoRequestHdr {
  NetU16 identifier;
  NetU16 sequence;
};

// Every neighbour discovery option: type, then the length in units of 8 bytes.
struct Icmp6OptionCommonHdr {
  U8 type;
  U8 length;
};
struct Icmp6HdrSrcTgtLinkLayerAddrOption : Icmp6OptionCommonHdr {
  NetEthAddr linkLayerAddr;
};
struct Icmp6HdrPrefixInfoOption : Icmp6OptionCommonHdr {
  U8 prefixLength;
  U8 flags;
  NetU32 validLifetime;
  NetU32 preferredLifetime;
  NetU32 reserved2;
  NetIp6Addr prefix;
  bool onLink() const { return (flags & 0x80) != 0; }
  void onLinkIs(bool v) { flags = static_cast<U8>((flags & ~0x80) | (v ? 0x80 : 0)); }
  bool autonomous() const { return (flags & 0x40) != 0; }
  void autonomousIs(bool v) { flags = static_cast<U8>((flags & ~0x40) | (v ? 0x40 : 0)); }
};
struct Icmp6HdrMtuOption : Icmp6OptionCommonHdr {
  NetU16 reserved;
  NetU32 mtu;
};
// RFC 4191: the prefix (0, 8 or 16 bytes) follows these 8.
struct Icmp6HdrRouteInformationOption : Icmp6OptionCommonHdr {
  U8 prefixLength;
  U8 flags;
  NetU32 routeLifetime;
  U8 routePreference() const { return static_cast<U8>((flags >> 3) & 3); }
  void routePreferenceIs(U8 v) { flags = static_cast<U8>((flags & ~0x18) | ((v & 3) << 3)); }
};
// RFC 8106: the addresses (RDNSS) or the encoded domain names (DNSSL)
// follow these 8 bytes; the network boot option carries a NUL-padded URL.
struct Icmp6HdrLifetimeOption : Icmp6OptionCommonHdr {
  NetU16 reserved;
  NetU32 lifetime;
};
struct Icmp6HdrDnsServerInfoOption : Icmp6HdrLifetimeOption {};
struct Icmp6HdrDnsSuffixInfoOption : Icmp6HdrLifetimeOption {};
struct Icmp6HdrNetworkBootOption : Icmp6HdrLifetimeOption {};

// RFC 2784/2890: flags and version, protocol; checksum, key and sequence
// number follow when their bits are set.
struct GreHdr {
  NetU16 flagsVersion;
  NetU16 protocol;
  bool checksumPresent() const { return (flagsVersion.value() & 0x8000) != 0; }
  void checksumPresentIs(bool v) { flagIs(0x8000, v); }
  bool keyPresent() const { return (flagsVersion.value() & 0x2000) != 0; }
  void keyPresentIs(bool v) { flagIs(0x2000, v); }
  bool sequencePresent() const { return (flagsVersion.value() & 0x1000) != 0; }
  void sequencePresentIs(bool v) { flagIs(0x1000, v); }
  U8 version() const { return static_cast<U8>(flagsVersion.value() & 7); }
  // The fixed four bytes and the optional fields the flags announce.
  U32 headerBytes() const {
    return 4 + (checksumPresent() ? 4 : 0) + (keyPresent() ? 4 : 0) + (sequencePresent() ? 4 : 0);
  }

 private:
  void flagIs(U16 bit, bool v) {
    flagsVersion.valueIs(static_cast<U16>((flagsVersion.value() & ~bit) | (v ? bit : 0)));
  }
};

struct PimCommonHdr : ChecksummedMessage<PimCommonHdr> {
  U8 versionType;
  U8 reserved;
  IpChecksum checksum;
  U8 version() const { return static_cast<U8>(versionType >> 4); }
  void versionIs(U8 v) { versionType = static_cast<U8>((versionType & 0x0f) | (v << 4)); }
  U8 type() const { return static_cast<U8>(versionType & 0x0f); }
  void typeIs(U8 v) { versionType = static_cast<U8>((versionType & 0xf0) | (v & 0x0f)); }
  IpChecksum computedChecksumIpv6(PimPseudoHdrIpv6 const& pseudo) const {
    return pseudoHdrChecksum(pseudo, this, static_cast<U16>(pseudo.pimLen.value()));
  }
};

struct TcpHdr {
  NetU16 srcPort;
  NetU16 dstPort;
  NetU32 seqNum;
  NetU32 ackNum;
  NetU16 offsetFlags;
  NetU16 window;
  IpChecksum checksum;
  NetU16 urgentPointer;

  // In 32-bit words, as on the wire.
  U8 dataOffset() const { return static_cast<U8>(offsetFlags.value() >> 12); }
  void dataOffsetIs(U8 v) { offsetFlags.valueIs(static_cast<U16>((offsetFlags.value() & 0x0fff) | ((v & 0xf) << 12))); }
  U16 headerBytes() const { return static_cast<U16>(dataOffset() * 4); }
  // NS through FIN (RFC 3540 and RFC 793 bits), nine bits.
  U16 flags() const { return static_cast<U16>(offsetFlags.value() & 0x01ff); }
  void flagsIs(U16 v) { offsetFlags.valueIs(static_cast<U16>((offsetFlags.value() & 0xfe00) | (v & 0x01ff))); }
};

struct UdpHdr {
  NetU16 srcPort;
  NetU16 dstPort;
  NetU16 length;
  IpChecksum checksum;
};

struct SctpHdr {
  NetU16 srcPort;
  NetU16 dstPort;
  NetU32 verificationTag;
  NetU32 checksum;  // CRC32c (RFC 9260), not the Internet checksum
};

// RFC 7348.
struct VxlanHdr {
  U8 flags;
  NetU24 reserved1;
  NetU24 vni;
  U8 reserved2;
  bool vniValid() const { return (flags & 0x08) != 0; }
  void vniValidIs(bool v) { flags = static_cast<U8>((flags & ~0x08) | (v ? 0x08 : 0)); }
};

// ===========================================================================
// The wrapper pattern
// ===========================================================================

// Header wrappers are made and dropped several times per packet; their
// memory comes from small per-thread caches next to the packets' own
// (Pkt.cpp), not from malloc.
namespace pktDetail {
void* wrapperAllocate(std::size_t bytes);
void wrapperRelease(void* p, std::size_t bytes);
}  // namespace pktDetail

template <class Hdr>
class HdrWrapper : public Brio::PtrInterface {
 public:
  using Header = Hdr;

  static void* operator new(std::size_t bytes) { return pktDetail::wrapperAllocate(bytes); }
  static void operator delete(void* p, std::size_t bytes) { pktDetail::wrapperRelease(p, bytes); }

  HdrWrapper(Brio::Ptr<Pkt> const& pkt, U32 offset) : pkt_(pkt), offset_(offset), header_(nullptr) {
    handleHeader();
  }

  // Binds header_ at offset_ in the packet's front piece; the whole header
  // must lie inside it. Specialised per header below, so that the
  // assertion names the header.
  void handleHeader();

  Brio::Ptr<Pkt> const& pkt() const { return pkt_; }
  U32 offset() const { return offset_; }
  Hdr* header() { return header_; }
  Hdr const* header() const { return header_; }
  void headerIs(Hdr* header) { header_ = header; }

 protected:
  ~HdrWrapper() override = default;

  // A field (data member or const accessor of the header) by its member
  // pointer, as a host value; zero when unbound.
  template <class M>
  auto get(M member) const {
    using Result = decltype(read(std::declval<Hdr const&>(), member));
    return header_ ? read(*header_, member) : Result{};
  }
  template <class M, class V>
  void set(M member, V const& value) {
    FENNEL_ASSERT(header_);
    if constexpr (std::is_member_function_pointer_v<M>) {
      (header_->*member)(value);
    } else if constexpr (std::is_same_v<std::remove_cvref_t<decltype(header_->*member)>, U8>) {
      header_->*member = static_cast<U8>(value);
    } else {
      (header_->*member).valueIs(value);
    }
  }

  // The n bytes `at` bytes past the header start, or null when the front
  // piece ends first.
  U8* bytesAt(U32 at, U32 n) const {
    U64 const end = U64(offset_) + at + n;
    return header_ && end <= pkt_->frontBytes() ? reinterpret_cast<U8*>(header_) + at : nullptr;
  }

  Brio::Ptr<Pkt> pkt_;
  U32 offset_;
  Hdr* header_;

 private:
  template <class M>
  static auto read(Hdr const& h, M member) {
    if constexpr (std::is_member_function_pointer_v<M>) {
      return (h.*member)();
    } else if constexpr (std::is_same_v<std::remove_cvref_t<decltype(h.*member)>, U8>) {
      return h.*member;
    } else {
      return (h.*member).value();
    }
  }
};

#define CORVID_HDR_BINDING(Hdr)                                         \
  template <>                                                           \
  inline void HdrWrapper<Hdr>::handleHeader() {                         \
    FENNEL_ASSERT(( offset_ + sizeof( Hdr ) ) <= pkt_->frontBytes());   \
    header_ = reinterpret_cast<Hdr*>(pkt_->frontData() + offset_);      \
  }                                                                     \
  static_assert(alignof(Hdr) == 1 && std::is_trivially_copyable_v<Hdr>)

CORVID_HDR_BINDING(EthHdr);
CORVID_HDR_BINDING(Eth8021QHdr);
CORVID_HDR_BINDING(Eth8022LlcHdr);
CORVID_HDR_BINDING(Eth8022SnapHdr);
CORVID_HDR_BINDING(EthArpIpHdr);
CORVID_HDR_BINDING(MimHdr);
CORVID_HDR_BINDING(MplsHdr);
CORVID_HDR_BINDING(PwAchHdr);
CORVID_HDR_BINDING(IpHdr);
CORVID_HDR_BINDING(IpHdrOptionCommon);
CORVID_HDR_BINDING(Ip6Hdr);
CORVID_HDR_BINDING(Ip6HdrOptionCommon);
CORVID_HDR_BINDING(Ip6HdrPad1);
CORVID_HDR_BINDING(Ip6HdrPadN);
CORVID_HDR_BINDING(Ip6HdrRouterAlertOption);
CORVID_HDR_BINDING(IcmpHdr);
CORVID_HDR_BINDING(Icmp6Hdr);
CORVID_HDR_BINDING(Icmp6RouterSolicitationHdr);
CORVID_HDR_BINDING(Icmp6RouterAdvertisementHdr);
CORVID_HDR_BINDING(Icmp6NeighborSolicitationHdr);
CORVID_HDR_BINDING(Icmp6NeighborAdvertisementHdr);
CORVID_HDR_BINDING(Icmp6PacketTooBigHdr);
CORVID_HDR_BINDING(Icmp6EchoRequestHdr);
CORVID_HDR_BINDING(Icmp6HdrSrcTgtLinkLayerAddrOption);
CORVID_HDR_BINDING(Icmp6HdrPrefixInfoOption);
CORVID_HDR_BINDING(Icmp6HdrMtuOption);
CORVID_HDR_BINDING(Icmp6HdrRouteInformationOption);
CORVID_HDR_BINDING(Icmp6HdrDnsServerInfoOption);
CORVID_HDR_BINDING(Icmp6HdrDnsSuffixInfoOption);
CORVID_HDR_BINDING(Icmp6HdrNetworkBootOption);
CORVID_HDR_BINDING(IgmpV12Hdr);
CORVID_HDR_BINDING(IgmpV3QueryHdr);
CORVID_HDR_BINDING(IgmpV3ReportHdr);
CORVID_HDR_BINDING(DvmrpHdr);
CORVID_HDR_BINDING(IgmpMrdHdr);
CORVID_HDR_BINDING(GreHdr);
CORVID_HDR_BINDING(PimCommonHdr);
CORVID_HDR_BINDING(TcpHdr);
CORVID_HDR_BINDING(UdpHdr);
CORVID_HDR_BINDING(SctpHdr);
CORVID_HDR_BINDING(VxlanHdr);

#undef CORVID_HDR_BINDING

// The addresses and upper-layer length that a transport or ICMPv6 checksum
// covers besides the message; the wrapper cannot see the IP header itself.
template <class Addr>
class PseudoHdrFields {
 public:
  Addr const& srcAddr() const { return srcAddr_; }
  void srcAddrIs(Addr const& a) { srcAddr_ = a; }
  Addr const& dstAddr() const { return dstAddr_; }
  void dstAddrIs(Addr const& a) { dstAddr_ = a; }
  U32 upperLayerLen() const { return upperLayerLen_; }
  void upperLayerLenIs(U32 len) { upperLayerLen_ = len; }
  // All three at once, as read from the IP header around the message.
  void pseudoHdrIs(Addr const& src, Addr const& dst, U32 len) {
    srcAddr_ = src;
    dstAddr_ = dst;
    upperLayerLen_ = len;
  }

 protected:
  Addr srcAddr_{};
  Addr dstAddr_{};
  U32 upperLayerLen_ = 0;
};

// ===========================================================================
// Wrappers
// ===========================================================================

class EthHdrWrapper : public HdrWrapper<EthHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  EthAddr dst() const { return get(&EthHdr::dst); }
  void dstIs(EthAddr const& v) { set(&EthHdr::dst, v); }
  EthAddr src() const { return get(&EthHdr::src); }
  void srcIs(EthAddr const& v) { set(&EthHdr::src, v); }
  // The EtherType when the system knows it (see EthType), else 0.
  EthType ethType() const { return knownEthType(get(&EthHdr::ethType)); }
  void ethTypeIs(EthType v) { set(&EthHdr::ethType, static_cast<U16>(v)); }
  // Offset of the IP header behind this one: past the 14 bytes and any
  // 802.1Q/802.1ad tags the front piece holds.
  U32 ipHdrOffset() const;
};

class Eth8021QHdrWrapper : public HdrWrapper<Eth8021QHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 tci() const { return get(&Eth8021QHdr::tci); }
  void tciIs(U16 v) { set(&Eth8021QHdr::tci, v); }
  U8 priority() const { return get(&Eth8021QHdr::priority); }
  void priorityIs(U8 v) { set(&Eth8021QHdr::priorityIs, v); }
  bool cfi() const { return get(&Eth8021QHdr::cfi); }
  void cfiIs(bool v) { set(&Eth8021QHdr::cfiIs, v); }
  U16 vlanId() const { return get(&Eth8021QHdr::vlanId); }
  void vlanIdIs(U16 v) { set(&Eth8021QHdr::vlanIdIs, v); }
  // The inner EtherType when known, else 0.
  EthType ethType() const { return knownEthType(get(&Eth8021QHdr::ethType)); }
  void ethTypeIs(EthType v) { set(&Eth8021QHdr::ethType, static_cast<U16>(v)); }
};

class Eth8022LlcHdrWrapper : public HdrWrapper<Eth8022LlcHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 dsap() const { return get(&Eth8022LlcHdr::dsap); }
  void dsapIs(U8 v) { set(&Eth8022LlcHdr::dsap, v); }
  U8 ssap() const { return get(&Eth8022LlcHdr::ssap); }
  void ssapIs(U8 v) { set(&Eth8022LlcHdr::ssap, v); }
  U8 control() const { return get(&Eth8022LlcHdr::control); }
  void controlIs(U8 v) { set(&Eth8022LlcHdr::control, v); }
};

class Eth8022SnapHdrWrapper : public HdrWrapper<Eth8022SnapHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U32 oui() const { return get(&Eth8022SnapHdr::oui); }
  void ouiIs(U32 v) { set(&Eth8022SnapHdr::oui, v); }
  U16 protocolId() const { return get(&Eth8022SnapHdr::protocolId); }
  void protocolIdIs(U16 v) { set(&Eth8022SnapHdr::protocolId, v); }
};

class EthArpIpHdrWrapper : public HdrWrapper<EthArpIpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 hardwareType() const { return get(&EthArpIpHdr::hardwareType); }
  void hardwareTypeIs(U16 v) { set(&EthArpIpHdr::hardwareType, v); }
  U16 protocolType() const { return get(&EthArpIpHdr::protocolType); }
  void protocolTypeIs(U16 v) { set(&EthArpIpHdr::protocolType, v); }
  U8 hardwareAddrLen() const { return get(&EthArpIpHdr::hardwareAddrLen); }
  void hardwareAddrLenIs(U8 v) { set(&EthArpIpHdr::hardwareAddrLen, v); }
  U8 protocolAddrLen() const { return get(&EthArpIpHdr::protocolAddrLen); }
  void protocolAddrLenIs(U8 v) { set(&EthArpIpHdr::protocolAddrLen, v); }
  U16 opcode() const { return get(&EthArpIpHdr::opcode); }
  void opcodeIs(U16 v) { set(&EthArpIpHdr::opcode, v); }
  EthAddr senderHardwareAddr() const { return get(&EthArpIpHdr::senderHardwareAddr); }
  void senderHardwareAddrIs(EthAddr const& v) { set(&EthArpIpHdr::senderHardwareAddr, v); }
  IpAddr senderProtocolAddr() const { return get(&EthArpIpHdr::senderProtocolAddr); }
  void senderProtocolAddrIs(IpAddr v) { set(&EthArpIpHdr::senderProtocolAddr, v); }
  EthAddr targetHardwareAddr() const { return get(&EthArpIpHdr::targetHardwareAddr); }
  void targetHardwareAddrIs(EthAddr const& v) { set(&EthArpIpHdr::targetHardwareAddr, v); }
  IpAddr targetProtocolAddr() const { return get(&EthArpIpHdr::targetProtocolAddr); }
  void targetProtocolAddrIs(IpAddr v) { set(&EthArpIpHdr::targetProtocolAddr, v); }
};

class MimHdrWrapper : public HdrWrapper<MimHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 ethType() const { return get(&MimHdr::ethType); }
  void ethTypeIs(U16 v) { set(&MimHdr::ethType, v); }
  U8 priority() const { return get(&MimHdr::priority); }
  void priorityIs(U8 v) { set(&MimHdr::priorityIs, v); }
  bool dei() const { return get(&MimHdr::dei); }
  void deiIs(bool v) { set(&MimHdr::deiIs, v); }
  bool uca() const { return get(&MimHdr::uca); }
  void ucaIs(bool v) { set(&MimHdr::ucaIs, v); }
  U32 isid() const { return get(&MimHdr::isid); }
  void isidIs(U32 v) { set(&MimHdr::isid, v); }
};

class MplsHdrWrapper : public HdrWrapper<MplsHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U32 label() const { return get(&MplsHdr::label); }
  void labelIs(U32 v) { set(&MplsHdr::labelIs, v); }
  U8 trafficClass() const { return get(&MplsHdr::trafficClass); }
  void trafficClassIs(U8 v) { set(&MplsHdr::trafficClassIs, v); }
  bool bottomOfStack() const { return get(&MplsHdr::bottomOfStack); }
  void bottomOfStackIs(bool v) { set(&MplsHdr::bottomOfStackIs, v); }
  U8 ttl() const { return get(&MplsHdr::ttl); }
  void ttlIs(U8 v) { set(&MplsHdr::ttlIs, v); }
};

class PwAchHdrWrapper : public HdrWrapper<PwAchHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 firstNibble() const { return get(&PwAchHdr::firstNibble); }
  void firstNibbleIs(U8 v) { set(&PwAchHdr::firstNibbleIs, v); }
  U8 version() const { return get(&PwAchHdr::version); }
  void versionIs(U8 v) { set(&PwAchHdr::versionIs, v); }
  U8 reserved() const { return get(&PwAchHdr::reserved); }
  void reservedIs(U8 v) { set(&PwAchHdr::reserved, v); }
  U16 channelType() const { return get(&PwAchHdr::channelType); }
  void channelTypeIs(U16 v) { set(&PwAchHdr::channelType, v); }
};

class IpHdrWrapper : public HdrWrapper<IpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 version() const { return get(&IpHdr::version); }
  void versionIs(U8 v) { set(&IpHdr::versionIs, v); }
  U8 headerLength() const { return get(&IpHdr::headerLength); }
  void headerLengthIs(U8 v) { set(&IpHdr::headerLengthIs, v); }
  U8 tos() const { return get(&IpHdr::tos); }
  void tosIs(U8 v) { set(&IpHdr::tos, v); }
  U8 dscp() const { return get(&IpHdr::dscp); }
  void dscpIs(U8 v) { set(&IpHdr::dscpIs, v); }
  U8 ecn() const { return get(&IpHdr::ecn); }
  void ecnIs(U8 v) { set(&IpHdr::ecnIs, v); }
  U16 totalLength() const { return get(&IpHdr::totalLength); }
  void totalLengthIs(U16 v) { set(&IpHdr::totalLength, v); }
  U16 identification() const { return get(&IpHdr::identification); }
  void identificationIs(U16 v) { set(&IpHdr::identification, v); }
  bool dontFragment() const { return get(&IpHdr::dontFragment); }
  void dontFragmentIs(bool v) { set(&IpHdr::dontFragmentIs, v); }
  bool moreFragments() const { return get(&IpHdr::moreFragments); }
  void moreFragmentsIs(bool v) { set(&IpHdr::moreFragmentsIs, v); }
  U16 fragmentOffset() const { return get(&IpHdr::fragmentOffset); }
  void fragmentOffsetIs(U16 v) { set(&IpHdr::fragmentOffsetIs, v); }
  U8 ttl() const { return get(&IpHdr::ttl); }
  void ttlIs(U8 v) { set(&IpHdr::ttl, v); }
  U8 protocol() const { return get(&IpHdr::protocol); }
  void protocolIs(U8 v) { set(&IpHdr::protocol, v); }
  U16 checksum() const { return get(&IpHdr::checksum); }
  void checksumIs(U16 v) { set(&IpHdr::checksum, v); }
  IpAddr src() const { return get(&IpHdr::src); }
  void srcIs(IpAddr v) { set(&IpHdr::src, v); }
  IpAddr dst() const { return get(&IpHdr::dst); }
  void dstIs(IpAddr v) { set(&IpHdr::dst, v); }
  // The header checksum over the current bytes, host order.
  U16 computedChecksum() const { return header_ ? header_->computedChecksum().value() : 0; }
};

class IpHdrOptionCommonWrapper : public HdrWrapper<IpHdrOptionCommon> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&IpHdrOptionCommon::type); }
  void typeIs(U8 v) { set(&IpHdrOptionCommon::type, v); }
  bool copied() const { return get(&IpHdrOptionCommon::copied); }
  U8 optionClass() const { return get(&IpHdrOptionCommon::optionClass); }
  U8 number() const { return get(&IpHdrOptionCommon::number); }
};

class Ip6HdrWrapper : public HdrWrapper<Ip6Hdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 version() const { return get(&Ip6Hdr::version); }
  void versionIs(U8 v) { set(&Ip6Hdr::versionIs, v); }
  U8 trafficClass() const { return get(&Ip6Hdr::trafficClass); }
  void trafficClassIs(U8 v) { set(&Ip6Hdr::trafficClassIs, v); }
  U32 flowLabel() const { return get(&Ip6Hdr::flowLabel); }
  void flowLabelIs(U32 v) { set(&Ip6Hdr::flowLabelIs, v); }
  U16 payloadLength() const { return get(&Ip6Hdr::payloadLength); }
  void payloadLengthIs(U16 v) { set(&Ip6Hdr::payloadLength, v); }
  U8 nextHeader() const { return get(&Ip6Hdr::nextHeader); }
  void nextHeaderIs(U8 v) { set(&Ip6Hdr::nextHeader, v); }
  U8 hopLimit() const { return get(&Ip6Hdr::hopLimit); }
  void hopLimitIs(U8 v) { set(&Ip6Hdr::hopLimit, v); }
  Ip6Addr src() const { return get(&Ip6Hdr::src); }
  void srcIs(Ip6Addr const& v) { set(&Ip6Hdr::src, v); }
  Ip6Addr dst() const { return get(&Ip6Hdr::dst); }
  void dstIs(Ip6Addr const& v) { set(&Ip6Hdr::dst, v); }
};

class Ip6HdrOptionCommonWrapper : public HdrWrapper<Ip6HdrOptionCommon> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&Ip6HdrOptionCommon::type); }
  void typeIs(U8 v) { set(&Ip6HdrOptionCommon::type, v); }
  U8 length() const { return get(&Ip6HdrOptionCommon::length); }
  void lengthIs(U8 v) { set(&Ip6HdrOptionCommon::length, v); }
};

class Ip6HdrPad1Wrapper : public HdrWrapper<Ip6HdrPad1> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&Ip6HdrPad1::type); }
  void typeIs(U8 v) { set(&Ip6HdrPad1::type, v); }
};

class Ip6HdrPadNWrapper : public HdrWrapper<Ip6HdrPadN> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&Ip6HdrPadN::type); }
  void typeIs(U8 v) { set(&Ip6HdrPadN::type, v); }
  U8 length() const { return get(&Ip6HdrPadN::length); }
  void lengthIs(U8 v) { set(&Ip6HdrPadN::length, v); }
};

class Ip6HdrRouterAlertOptionWrapper : public HdrWrapper<Ip6HdrRouterAlertOption> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&Ip6HdrRouterAlertOption::type); }
  void typeIs(U8 v) { set(&Ip6HdrRouterAlertOption::type, v); }
  U8 length() const { return get(&Ip6HdrRouterAlertOption::length); }
  void lengthIs(U8 v) { set(&Ip6HdrRouterAlertOption::length, v); }
  U16 value() const { return get(&Ip6HdrRouterAlertOption::value); }
  void valueIs(U16 v) { set(&Ip6HdrRouterAlertOption::value, v); }
};

class IcmpHdrWrapper : public HdrWrapper<IcmpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&IcmpHdr::type); }
  void typeIs(U8 v) { set(&IcmpHdr::type, v); }
  U8 code() const { return get(&IcmpHdr::code); }
  void codeIs(U8 v) { set(&IcmpHdr::code, v); }
  U16 checksum() const { return get(&IcmpHdr::checksum); }
  void checksumIs(U16 v) { set(&IcmpHdr::checksum, v); }
  U16 identifier() const { return get(&IcmpHdr::identifier); }
  void identifierIs(U16 v) { set(&IcmpHdr::identifier, v); }
  U16 sequence() const { return get(&IcmpHdr::sequence); }
  void sequenceIs(U16 v) { set(&IcmpHdr::sequence, v); }
  // Over the len bytes of the message (bounded by the front piece), host order.
  U16 computedChecksum(U16 len) const;
};

// Carries the IPv6 addresses and ICMPv6 length of its pseudo header.
class Icmp6HdrWrapper : public HdrWrapper<Icmp6Hdr>, public PseudoHdrFields<Ip6Addr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 type() const { return get(&Icmp6Hdr::type); }
  void typeIs(U8 v) { set(&Icmp6Hdr::type, v); }
  U8 code() const { return get(&Icmp6Hdr::code); }
  void codeIs(U8 v) { set(&Icmp6Hdr::code, v); }
  U16 checksum() const { return get(&Icmp6Hdr::checksum); }
  void checksumIs(U16 v) { set(&Icmp6Hdr::checksum, v); }
  // Under the pseudo header of srcAddr(), dstAddr() and upperLayerLen(),
  // host order. Bytes the length claims beyond the front piece count as
  // absent, so a short packet fails to verify instead of being overread.
  U16 computedChecksum() const;
};

class Icmp6RouterSolicitationHdrWrapper : public HdrWrapper<Icmp6RouterSolicitationHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U32 reserved() const { return get(&Icmp6RouterSolicitationHdr::reserved); }
  void reservedIs(U32 v) { set(&Icmp6RouterSolicitationHdr::reserved, v); }
};

class Icmp6RouterAdvertisementHdrWrapper : public HdrWrapper<Icmp6RouterAdvertisementHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 curHopLimit() const { return get(&Icmp6RouterAdvertisementHdr::curHopLimit); }
  void curHopLimitIs(U8 v) { set(&Icmp6RouterAdvertisementHdr::curHopLimit, v); }
  bool managed() const { return get(&Icmp6RouterAdvertisementHdr::managed); }
  void managedIs(bool v) { set(&Icmp6RouterAdvertisementHdr::managedIs, v); }
  bool other() const { return get(&Icmp6RouterAdvertisementHdr::other); }
  void otherIs(bool v) { set(&Icmp6RouterAdvertisementHdr::otherIs, v); }
  U8 routerPreference() const { return get(&Icmp6RouterAdvertisementHdr::routerPreference); }
  void routerPreferenceIs(U8 v) { set(&Icmp6RouterAdvertisementHdr::routerPreferenceIs, v); }
  U16 routerLifetime() const { return get(&Icmp6RouterAdvertisementHdr::routerLifetime); }
  void routerLifetimeIs(U16 v) { set(&Icmp6RouterAdvertisementHdr::routerLifetime, v); }
  U32 reachableTime() const { return get(&Icmp6RouterAdvertisementHdr::reachableTime); }
  void reachableTimeIs(U32 v) { set(&Icmp6RouterAdvertisementHdr::reachableTime, v); }
  U32 retransTimer() const { return get(&Icmp6RouterAdvertisementHdr::retransTimer); }
  void retransTimerIs(U32 v) { set(&Icmp6RouterAdvertisementHdr::retransTimer, v); }
};

class Icmp6NeighborSolicitationHdrWrapper : public HdrWrapper<Icmp6NeighborSolicitationHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U32 reserved() const { return get(&Icmp6NeighborSolicitationHdr::reserved); }
  void reservedIs(U32 v) { set(&Icmp6NeighborSolicitationHdr::reserved, v); }
  Ip6Addr target() const { return get(&Icmp6NeighborSolicitationHdr::target); }
  void targetIs(Ip6Addr const& v) { set(&Icmp6NeighborSolicitationHdr::target, v); }
};

class Icmp6NeighborAdvertisementHdrWrapper : public HdrWrapper<Icmp6NeighborAdvertisementHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  bool router() const { return get(&Icmp6NeighborAdvertisementHdr::router); }
  void routerIs(bool v) { set(&Icmp6NeighborAdvertisementHdr::routerIs, v); }
  bool solicited() const { return get(&Icmp6NeighborAdvertisementHdr::solicited); }
  void solicitedIs(bool v) { set(&Icmp6NeighborAdvertisementHdr::solicitedIs, v); }
  bool override() const { return get(&Icmp6NeighborAdvertisementHdr::override); }
  void overrideIs(bool v) { set(&Icmp6NeighborAdvertisementHdr::overrideIs, v); }
  Ip6Addr target() const { return get(&Icmp6NeighborAdvertisementHdr::target); }
  void targetIs(Ip6Addr const& v) { set(&Icmp6NeighborAdvertisementHdr::target, v); }
};

class Icmp6PacketTooBigHdrWrapper : public HdrWrapper<Icmp6PacketTooBigHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U32 mtu() const { return get(&Icmp6PacketTooBigHdr::mtu); }
  void mtuIs(U32 v) { set(&Icmp6PacketTooBigHdr::mtu, v); }
};

class Icmp6EchoRequestHdrWrapper : public HdrWrapper<Icmp6EchoRequestHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 identifier() const { return get(&Icmp6EchoRequestHdr::identifier); }
  void identifierIs(U16 v) { set(&Icmp6EchoRequestHdr::identifier, v); }
  U16 sequence() const { return get(&Icmp6EchoRequestHdr::sequence); }
  void sequenceIs(U16 v) { set(&Icmp6EchoRequestHdr::sequence, v); }
};

// Type and length, shared by every neighbour discovery option wrapper.
template <class Opt>
class Icmp6OptionWrapper : public HdrWrapper<Opt> {
 public:
  using HdrWrapper<Opt>::HdrWrapper;
  U8 type() const { return this->get(&Opt::type); }
  void typeIs(U8 v) { this->set(&Opt::type, v); }
  // In units of 8 bytes, as on the wire.
  U8 length() const { return this->get(&Opt::length); }
  void lengthIs(U8 v) { this->set(&Opt::length, v); }

 protected:
  // The option's bytes past its first `skip`, within both its length and the front piece.
  U32 bodyBytesAfter(U32 skip) const {
    if (!this->header_) return 0;
    U64 const optionEnd = std::min<U64>(U64(length()) * 8, this->pkt_->frontBytes() - U64(this->offset_));
    return optionEnd > skip ? static_cast<U32>(optionEnd - skip) : 0;
  }
};

class Icmp6HdrLinkLayerAddrOptionWrapper : public Icmp6OptionWrapper<Icmp6HdrSrcTgtLinkLayerAddrOption> {
 public:
  using Icmp6OptionWrapper::Icmp6OptionWrapper;
  EthAddr linkLayerAddr() const { return get(&Icmp6HdrSrcTgtLinkLayerAddrOption::linkLayerAddr); }
  void linkLayerAddrIs(EthAddr const& v) { set(&Icmp6HdrSrcTgtLinkLayerAddrOption::linkLayerAddr, v); }
};
class Icmp6HdrSrcLinkLayerAddrOptionWrapper : public Icmp6HdrLinkLayerAddrOptionWrapper {
 public:
  using Icmp6HdrLinkLayerAddrOptionWrapper::Icmp6HdrLinkLayerAddrOptionWrapper;
};
class Icmp6HdrTgtLinkLayerAddrOptionWrapper : public Icmp6HdrLinkLayerAddrOptionWrapper {
 public:
  using Icmp6HdrLinkLayerAddrOptionWrapper::Icmp6HdrLinkLayerAddrOptionWrapper;
};

class Icmp6HdrPrefixInfoOptionWrapper : public Icmp6OptionWrapper<Icmp6HdrPrefixInfoOption> {
 public:
  using Icmp6OptionWrapper::Icmp6OptionWrapper;
  U8 prefixLength() const { return get(&Icmp6HdrPrefixInfoOption::prefixLength); }
  void prefixLengthIs(U8 v) { set(&Icmp6HdrPrefixInfoOption::prefixLength, v); }
  bool onLink() const { return get(&Icmp6HdrPrefixInfoOption::onLink); }
  void onLinkIs(bool v) { set(&Icmp6HdrPrefixInfoOption::onLinkIs, v); }
  bool autonomous() const { return get(&Icmp6HdrPrefixInfoOption::autonomous); }
  void autonomousIs(bool v) { set(&Icmp6HdrPrefixInfoOption::autonomousIs, v); }
  U32 validLifetime() const { return get(&Icmp6HdrPrefixInfoOption::validLifetime); }
  void validLifetimeIs(U32 v) { set(&Icmp6HdrPrefixInfoOption::validLifetime, v); }
  U32 preferredLifetime() const { return get(&Icmp6HdrPrefixInfoOption::preferredLifetime); }
  void preferredLifetimeIs(U32 v) { set(&Icmp6HdrPrefixInfoOption::preferredLifetime, v); }
  Ip6Addr prefix() const { return get(&Icmp6HdrPrefixInfoOption::prefix); }
  void prefixIs(Ip6Addr const& v) { set(&Icmp6HdrPrefixInfoOption::prefix, v); }
};

class Icmp6HdrMtuOptionWrapper : public Icmp6OptionWrapper<Icmp6HdrMtuOption> {
 public:
  using Icmp6OptionWrapper::Icmp6OptionWrapper;
  U32 mtu() const { return get(&Icmp6HdrMtuOption::mtu); }
  void mtuIs(U32 v) { set(&Icmp6HdrMtuOption::mtu, v); }
};

class Icmp6HdrRouteInformationOptionWrapper : public Icmp6OptionWrapper<Icmp6HdrRouteInformationOption> {
 public:
  using Icmp6OptionWrapper::Icmp6OptionWrapper;
  U8 prefixLength() const { return get(&Icmp6HdrRouteInformationOption::prefixLength); }
  void prefixLengthIs(U8 v) { set(&Icmp6HdrRouteInformationOption::prefixLength, v); }
  U8 routePreference() const { return get(&Icmp6HdrRouteInformationOption::routePreference); }
  void routePreferenceIs(U8 v) { set(&Icmp6HdrRouteInformationOption::routePreferenceIs, v); }
  U32 routeLifetime() const { return get(&Icmp6HdrRouteInformationOption::routeLifetime); }
  void routeLifetimeIs(U32 v) { set(&Icmp6HdrRouteInformationOption::routeLifetime, v); }
  // The prefix bytes the option carries (up to 16), zero-filled.
  Ip6Addr prefix() const;
  // Writes the first 8 or 16 bytes the option's length has room for.
  void prefixIs(Ip6Addr const& v);
};

// Lifetime, shared by the RDNSS, DNSSL and network boot options.
template <class Opt>
class Icmp6LifetimeOptionWrapper : public Icmp6OptionWrapper<Opt> {
 public:
  using Icmp6OptionWrapper<Opt>::Icmp6OptionWrapper;
  U32 lifetime() const { return this->get(&Opt::lifetime); }
  void lifetimeIs(U32 v) { this->set(&Opt::lifetime, v); }
};

class Icmp6HdrDnsServerInfoOptionWrapper : public Icmp6LifetimeOptionWrapper<Icmp6HdrDnsServerInfoOption> {
 public:
  using Icmp6LifetimeOptionWrapper::Icmp6LifetimeOptionWrapper;
  // Addresses the option's length announces, (length - 1) / 2.
  U32 addresses() const { return length() > 1 ? (length() - 1u) / 2 : 0; }
  // Address i, or :: when i is past the announced ones or past the packet.
  Ip6Addr address(U32 i) const;
  void addressIs(U32 i, Ip6Addr const& v);
};

class Icmp6HdrDnsSuffixInfoOptionWrapper : public Icmp6LifetimeOptionWrapper<Icmp6HdrDnsSuffixInfoOption> {
 public:
  using Icmp6LifetimeOptionWrapper::Icmp6LifetimeOptionWrapper;
  // The domain names (RFC 1035 label encoding, RFC 8106 section 5.2) as
  // dotted text, stopping at the zero padding, a malformed label or the
  // option's end.
  std::vector<Brio::String> domainNames() const;
  // Writes the names and zero padding into the option's body; names that do
  // not fit its length (or the front piece) are left out.
  void domainNamesIs(std::vector<Brio::String> const& names);
  // The option length, in units of 8 bytes, that carries these names.
  static U8 lengthFor(std::vector<Brio::String> const& names);
};

class Icmp6HdrNetworkBootOptionWrapper : public Icmp6LifetimeOptionWrapper<Icmp6HdrNetworkBootOption> {
 public:
  using Icmp6LifetimeOptionWrapper::Icmp6LifetimeOptionWrapper;
  // The boot URL after the fixed 8 bytes, up to its NUL padding.
  Brio::String bootUrl() const;
  // Writes the URL and NUL padding into the option's body, cut to fit.
  void bootUrlIs(Brio::String const& url);
  // The option length, in units of 8 bytes, that carries this URL.
  static U8 lengthFor(Brio::String const& url) { return static_cast<U8>((url.bytes() + 8 + 7) / 8); }
};

// Type, second byte and checksum of the IGMP family.
template <class Hdr>
class IgmpHdrWrapper : public HdrWrapper<Hdr> {
 public:
  using HdrWrapper<Hdr>::HdrWrapper;
  U8 type() const { return this->get(&Hdr::type); }
  void typeIs(U8 v) { this->set(&Hdr::type, v); }
  U16 checksum() const { return this->get(&Hdr::checksum); }
  void checksumIs(U16 v) { this->set(&Hdr::checksum, v); }
  // Over the len bytes of the message (bounded by the front piece), host order.
  U16 computedChecksum(U16 len) const {
    if (!this->header_) return 0;
    return this->header_->computedChecksumU16(static_cast<U16>(std::min<U32>(len, this->pkt_->frontBytes() - this->offset_)));
  }
};

class IgmpV12HdrWrapper : public IgmpHdrWrapper<IgmpV12Hdr> {
 public:
  using IgmpHdrWrapper::IgmpHdrWrapper;
  U8 maxRespTime() const { return get(&IgmpV12Hdr::code); }
  void maxRespTimeIs(U8 v) { set(&IgmpV12Hdr::code, v); }
  IpAddr group() const { return get(&IgmpV12Hdr::group); }
  void groupIs(IpAddr v) { set(&IgmpV12Hdr::group, v); }
};

class IgmpV3QueryHdrWrapper : public IgmpHdrWrapper<IgmpV3QueryHdr> {
 public:
  using IgmpHdrWrapper::IgmpHdrWrapper;
  U8 maxRespCode() const { return get(&IgmpV3QueryHdr::code); }
  void maxRespCodeIs(U8 v) { set(&IgmpV3QueryHdr::code, v); }
  IpAddr group() const { return get(&IgmpV3QueryHdr::group); }
  void groupIs(IpAddr v) { set(&IgmpV3QueryHdr::group, v); }
  bool suppressRouterProcessing() const { return get(&IgmpV3QueryHdr::suppressRouterProcessing); }
  void suppressRouterProcessingIs(bool v) { set(&IgmpV3QueryHdr::suppressRouterProcessingIs, v); }
  U8 robustness() const { return get(&IgmpV3QueryHdr::robustness); }
  void robustnessIs(U8 v) { set(&IgmpV3QueryHdr::robustnessIs, v); }
  U8 qqic() const { return get(&IgmpV3QueryHdr::qqic); }
  void qqicIs(U8 v) { set(&IgmpV3QueryHdr::qqic, v); }
  U16 numberOfSources() const { return get(&IgmpV3QueryHdr::numberOfSources); }
  void numberOfSourcesIs(U16 v) { set(&IgmpV3QueryHdr::numberOfSources, v); }
  // Source i, or 0.0.0.0 past the announced sources or the packet.
  IpAddr source(U32 i) const;
};

class IgmpV3ReportHdrWrapper : public IgmpHdrWrapper<IgmpV3ReportHdr> {
 public:
  using IgmpHdrWrapper::IgmpHdrWrapper;
  U16 numberOfGroupRecords() const { return get(&IgmpV3ReportHdr::numberOfGroupRecords); }
  void numberOfGroupRecordsIs(U16 v) { set(&IgmpV3ReportHdr::numberOfGroupRecords, v); }
};

class DvmrpHdrWrapper : public IgmpHdrWrapper<DvmrpHdr> {
 public:
  using IgmpHdrWrapper::IgmpHdrWrapper;
  U8 code() const { return get(&DvmrpHdr::code); }
  void codeIs(U8 v) { set(&DvmrpHdr::code, v); }
  U8 capabilities() const { return get(&DvmrpHdr::capabilities); }
  void capabilitiesIs(U8 v) { set(&DvmrpHdr::capabilities, v); }
  U8 minorVersion() const { return get(&DvmrpHdr::minorVersion); }
  void minorVersionIs(U8 v) { set(&DvmrpHdr::minorVersion, v); }
  U8 majorVersion() const { return get(&DvmrpHdr::majorVersion); }
  void majorVersionIs(U8 v) { set(&DvmrpHdr::majorVersion, v); }
};

class IgmpMrdHdrWrapper : public IgmpHdrWrapper<IgmpMrdHdr> {
 public:
  using IgmpHdrWrapper::IgmpHdrWrapper;
  U8 advertisementInterval() const { return get(&IgmpMrdHdr::code); }
  void advertisementIntervalIs(U8 v) { set(&IgmpMrdHdr::code, v); }
  U16 queryInterval() const { return get(&IgmpMrdHdr::queryInterval); }
  void queryIntervalIs(U16 v) { set(&IgmpMrdHdr::queryInterval, v); }
  U16 robustnessVariable() const { return get(&IgmpMrdHdr::robustnessVariable); }
  void robustnessVariableIs(U16 v) { set(&IgmpMrdHdr::robustnessVariable, v); }
};

class GreHdrWrapper : public HdrWrapper<GreHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  bool checksumPresent() const { return get(&GreHdr::checksumPresent); }
  void checksumPresentIs(bool v) { set(&GreHdr::checksumPresentIs, v); }
  bool keyPresent() const { return get(&GreHdr::keyPresent); }
  void keyPresentIs(bool v) { set(&GreHdr::keyPresentIs, v); }
  bool sequencePresent() const { return get(&GreHdr::sequencePresent); }
  void sequencePresentIs(bool v) { set(&GreHdr::sequencePresentIs, v); }
  U8 version() const { return get(&GreHdr::version); }
  U16 protocol() const { return get(&GreHdr::protocol); }
  void protocolIs(U16 v) { set(&GreHdr::protocol, v); }
  U32 headerBytes() const { return get(&GreHdr::headerBytes); }
  // The optional fields: 0 when absent or past the front piece.
  U16 checksum() const;
  void checksumIs(U16 v);
  U32 key() const;
  U32 sequence() const;
  // RFC 2784: over the len bytes of header and payload (bounded by the
  // front piece), host order; zero the checksum field first to verify.
  U16 computedChecksum(U16 len) const;
};

class PimCommonHdrWrapper : public HdrWrapper<PimCommonHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 version() const { return get(&PimCommonHdr::version); }
  void versionIs(U8 v) { set(&PimCommonHdr::versionIs, v); }
  U8 type() const { return get(&PimCommonHdr::type); }
  void typeIs(U8 v) { set(&PimCommonHdr::typeIs, v); }
  U8 reserved() const { return get(&PimCommonHdr::reserved); }
  void reservedIs(U8 v) { set(&PimCommonHdr::reserved, v); }
  U16 checksum() const { return get(&PimCommonHdr::checksum); }
  void checksumIs(U16 v) { set(&PimCommonHdr::checksum, v); }
};

// Ports, sequence numbers, flags and window, shared by both families.
class TcpHdrFieldsWrapper : public HdrWrapper<TcpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 srcPort() const { return get(&TcpHdr::srcPort); }
  void srcPortIs(U16 v) { set(&TcpHdr::srcPort, v); }
  U16 dstPort() const { return get(&TcpHdr::dstPort); }
  void dstPortIs(U16 v) { set(&TcpHdr::dstPort, v); }
  U32 seqNum() const { return get(&TcpHdr::seqNum); }
  void seqNumIs(U32 v) { set(&TcpHdr::seqNum, v); }
  U32 ackNum() const { return get(&TcpHdr::ackNum); }
  void ackNumIs(U32 v) { set(&TcpHdr::ackNum, v); }
  U8 dataOffset() const { return get(&TcpHdr::dataOffset); }
  void dataOffsetIs(U8 v) { set(&TcpHdr::dataOffsetIs, v); }
  U16 flags() const { return get(&TcpHdr::flags); }
  void flagsIs(U16 v) { set(&TcpHdr::flagsIs, v); }
  U16 window() const { return get(&TcpHdr::window); }
  void windowIs(U16 v) { set(&TcpHdr::window, v); }
  U16 checksum() const { return get(&TcpHdr::checksum); }
  void checksumIs(U16 v) { set(&TcpHdr::checksum, v); }
  U16 urgentPointer() const { return get(&TcpHdr::urgentPointer); }
  void urgentPointerIs(U16 v) { set(&TcpHdr::urgentPointer, v); }
};

// The checksum under the family's pseudo header (protocol 6), host order;
// bytes the length claims beyond the front piece count as absent.
class TcpHdrWrapper : public TcpHdrFieldsWrapper, public PseudoHdrFields<IpAddr> {
 public:
  using TcpHdrFieldsWrapper::TcpHdrFieldsWrapper;
  U16 computedChecksum() const;
};
class TcpHdrWrapperIpv6 : public TcpHdrFieldsWrapper, public PseudoHdrFields<Ip6Addr> {
 public:
  using TcpHdrFieldsWrapper::TcpHdrFieldsWrapper;
  U16 computedChecksum() const;
};

class UdpHdrFieldsWrapper : public HdrWrapper<UdpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 srcPort() const { return get(&UdpHdr::srcPort); }
  void srcPortIs(U16 v) { set(&UdpHdr::srcPort, v); }
  U16 dstPort() const { return get(&UdpHdr::dstPort); }
  void dstPortIs(U16 v) { set(&UdpHdr::dstPort, v); }
  U16 length() const { return get(&UdpHdr::length); }
  void lengthIs(U16 v) { set(&UdpHdr::length, v); }
  U16 checksum() const { return get(&UdpHdr::checksum); }
  void checksumIs(U16 v) { set(&UdpHdr::checksum, v); }
};

// As TCP with protocol 17. A computed 0 is returned as 0xFFFF, the value
// RFC 768 transmits (0 in the field means "no checksum" over IPv4).
class UdpHdrWrapper : public UdpHdrFieldsWrapper, public PseudoHdrFields<IpAddr> {
 public:
  using UdpHdrFieldsWrapper::UdpHdrFieldsWrapper;
  U16 computedChecksum() const;
};
class UdpHdrWrapperIpv6 : public UdpHdrFieldsWrapper, public PseudoHdrFields<Ip6Addr> {
 public:
  using UdpHdrFieldsWrapper::UdpHdrFieldsWrapper;
  U16 computedChecksum() const;
};

class SctpHdrWrapper : public HdrWrapper<SctpHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U16 srcPort() const { return get(&SctpHdr::srcPort); }
  void srcPortIs(U16 v) { set(&SctpHdr::srcPort, v); }
  U16 dstPort() const { return get(&SctpHdr::dstPort); }
  void dstPortIs(U16 v) { set(&SctpHdr::dstPort, v); }
  U32 verificationTag() const { return get(&SctpHdr::verificationTag); }
  void verificationTagIs(U32 v) { set(&SctpHdr::verificationTag, v); }
  U32 checksum() const { return get(&SctpHdr::checksum); }
  void checksumIs(U32 v) { set(&SctpHdr::checksum, v); }
};

class VxlanHdrWrapper : public HdrWrapper<VxlanHdr> {
 public:
  using HdrWrapper::HdrWrapper;
  U8 flags() const { return get(&VxlanHdr::flags); }
  void flagsIs(U8 v) { set(&VxlanHdr::flags, v); }
  bool vniValid() const { return get(&VxlanHdr::vniValid); }
  void vniValidIs(bool v) { set(&VxlanHdr::vniValidIs, v); }
  U32 vni() const { return get(&VxlanHdr::vni); }
  void vniIs(U32 v) { set(&VxlanHdr::vni, v); }
};

// --- factories: a new wrapper bound at `offset` of the packet --------------------

template <class Wrapper>
Brio::Ptr<Wrapper> hdrWrapperFactory(Brio::Ptr<Pkt> const& pkt, U32 offset) {
  return Brio::Ptr<Wrapper>(new Wrapper(pkt, offset));
}

#define CORVID_WRAPPER_FACTORY(factory, Wrapper)                                 \
  inline Brio::Ptr<Wrapper> factory(Brio::Ptr<Pkt> const& pkt, U32 offset) {    \
    return hdrWrapperFactory<Wrapper>(pkt, offset);                              \
  }

CORVID_WRAPPER_FACTORY(ethHdrWrapperFactory, EthHdrWrapper)
CORVID_WRAPPER_FACTORY(eth8021QHdrWrapperFactory, Eth8021QHdrWrapper)
CORVID_WRAPPER_FACTORY(eth8022LlcHdrWrapperFactory, Eth8022LlcHdrWrapper)
CORVID_WRAPPER_FACTORY(eth8022SnapHdrWrapperFactory, Eth8022SnapHdrWrapper)
CORVID_WRAPPER_FACTORY(ethArpIpHdrWrapperFactory, EthArpIpHdrWrapper)
CORVID_WRAPPER_FACTORY(mimHdrWrapperFactory, MimHdrWrapper)
CORVID_WRAPPER_FACTORY(mplsHdrWrapperFactory, MplsHdrWrapper)
CORVID_WRAPPER_FACTORY(pwAchHdrWrapperFactory, PwAchHdrWrapper)
CORVID_WRAPPER_FACTORY(ipHdrWrapperFactory, IpHdrWrapper)
CORVID_WRAPPER_FACTORY(ipHdrOptionCommonWrapperFactory, IpHdrOptionCommonWrapper)
CORVID_WRAPPER_FACTORY(ip6HdrWrapperFactory, Ip6HdrWrapper)
CORVID_WRAPPER_FACTORY(ip6HdrOptionCommonWrapperFactory, Ip6HdrOptionCommonWrapper)
CORVID_WRAPPER_FACTORY(ip6HdrPad1WrapperFactory, Ip6HdrPad1Wrapper)
CORVID_WRAPPER_FACTORY(ip6HdrPadNWrapperFactory, Ip6HdrPadNWrapper)
CORVID_WRAPPER_FACTORY(ip6HdrRouterAlertOptionWrapperFactory, Ip6HdrRouterAlertOptionWrapper)
CORVID_WRAPPER_FACTORY(icmpHdrWrapperFactory, IcmpHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrWrapperFactory, Icmp6HdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6RouterSolicitationHdrWrapperFactory, Icmp6RouterSolicitationHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6RouterAdvertisementHdrWrapperFactory, Icmp6RouterAdvertisementHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6NeighborSolicitationHdrWrapperFactory, Icmp6NeighborSolicitationHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6NeighborAdvertisementHdrWrapperFactory, Icmp6NeighborAdvertisementHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6PacketTooBigHdrWrapperFactory, Icmp6PacketTooBigHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6EchoRequestHdrWrapperFactory, Icmp6EchoRequestHdrWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrSrcLinkLayerAddrOptionWrapperFactory, Icmp6HdrSrcLinkLayerAddrOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrTgtLinkLayerAddrOptionWrapperFactory, Icmp6HdrTgtLinkLayerAddrOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrPrefixInfoOptionWrapperFactory, Icmp6HdrPrefixInfoOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrMtuOptionWrapperFactory, Icmp6HdrMtuOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrRouteInformationOptionWrapperFactory, Icmp6HdrRouteInformationOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrDnsServerInfoOptionWrapperFactory, Icmp6HdrDnsServerInfoOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrDnsSuffixInfoOptionWrapperFactory, Icmp6HdrDnsSuffixInfoOptionWrapper)
CORVID_WRAPPER_FACTORY(icmp6HdrNetworkBootOptionWrapperFactory, Icmp6HdrNetworkBootOptionWrapper)
CORVID_WRAPPER_FACTORY(igmpV12HdrWrapperFactory, IgmpV12HdrWrapper)
CORVID_WRAPPER_FACTORY(igmpV3QueryHdrWrapperFactory, IgmpV3QueryHdrWrapper)
CORVID_WRAPPER_FACTORY(igmpV3ReportHdrWrapperFactory, IgmpV3ReportHdrWrapper)
CORVID_WRAPPER_FACTORY(dvmrpHdrWrapperFactory, DvmrpHdrWrapper)
CORVID_WRAPPER_FACTORY(igmpMrdHdrWrapperFactory, IgmpMrdHdrWrapper)
CORVID_WRAPPER_FACTORY(greHdrWrapperFactory, GreHdrWrapper)
CORVID_WRAPPER_FACTORY(pimCommonHdrWrapperFactory, PimCommonHdrWrapper)
CORVID_WRAPPER_FACTORY(tcpHdrWrapperFactory, TcpHdrWrapper)
CORVID_WRAPPER_FACTORY(tcpHdrWrapperIpv6Factory, TcpHdrWrapperIpv6)
CORVID_WRAPPER_FACTORY(udpHdrWrapperFactory, UdpHdrWrapper)
CORVID_WRAPPER_FACTORY(udpHdrWrapperIpv6Factory, UdpHdrWrapperIpv6)
CORVID_WRAPPER_FACTORY(sctpHdrWrapperFactory, SctpHdrWrapper)
CORVID_WRAPPER_FACTORY(vxlanHdrWrapperFactory, VxlanHdrWrapper)

#undef CORVID_WRAPPER_FACTORY

// The checksum a sender stores in a wrapper's header: computedChecksum(len...)
// over the bytes with the checksum field zeroed. The field is zeroed while
// computing and then put back: unlike the sanity checks, this leaves the
// packet as it was.
template <class Wrapper, class... Len>
auto expectedChecksum(Wrapper& w, Len... len) {
  auto const wire = w.checksum();
  w.checksumIs(0);
  auto const expected = w.computedChecksum(len...);
  w.checksumIs(wire);
  return expected;
}

// Whether the wrapper's checksum field holds expectedChecksum(w, len...).
template <class Wrapper, class... Len>
bool checksumValid(Wrapper& w, Len... len) {
  return expectedChecksum(w, len...) == w.checksum();
}

// ===========================================================================
// Sanity checks
// ===========================================================================

enum PktErrors : S32 {
  noError = 0,
  pktTooShort = -1,
  // The frame's EtherType is not the one the check expects.
  nonIpEthType = -2,
  badIpHdrChecksum = -50,
  badIpPayloadLen = -51,
  nonIpHdr = -52,
  nonIp6Hdr = -101,
  badIp6PayloadLen = -102,
  nextHdrIsNotIcmp6 = -200,
  badIcmp6Checksum = -201,
  icmp6PayloadLenTooShortForHdr = -202,
  icmp6OptLenExceedPayloadLen = -206,
  icmp6OptLenZero = -207,
  icmp6TypeNotSupported = -208,
  icmp6McastDstIpAndNonZeroSolicitation = -209,
  icmp6NaTgtMcast = -210,
  icmp6NsTgtMcast = -211,
  noSrcLinkLayerOptInMcastNs = -212,
  nonOnLink = -213,
  notIcmp6NaType = -214,
  notIcmp6NsType = -215,
  unspecSrcAddrSrcLinkLayerAddr = -216,
  unspecifiedSrcAddrAndNotSolicitedNodeDst = -217,
  badAhLen = -300,
  nextHdrIsNotAh = -301,
  nonAhHmac96 = -302,
  badArpPkt = -400,
  badVrrpAuth = -500,
  badVrrpChecksum = -501,
  badVrrpLen = -502,
  badVrrpLinkLocal = -503,
  badVrrpVersion = -504,
  nonVrrpDstAddr = -505,
  nonVrrpMac = -506,
  nonVrrpProto = -507,
  vrrpVridMacMismatch = -508,
};

// The trace level of the checks' reasons.
inline constexpr int pktErrorTraceLevel = 1;

// An IPv4 frame: eth at the packet start, ip 14 bytes on. Verifies length,
// EtherType, version, that the header and payload fit the frame, and the
// header checksum (which stays zeroed when it does not match).
PktErrors checkEthIpHdr(Brio::Ptr<Pkt> const& pkt, EthHdr*& eth, IpHdr*& ip);
// An IPv6 frame: length, EtherType, version and payload length.
PktErrors checkEthIp6Hdr(Brio::Ptr<Pkt> const& pkt, EthHdr*& eth, Ip6Hdr*& ip6);
// The ICMPv6 checksum of the message right after a fixed IPv6 header whose
// payload length the caller has checked against the packet
// (checkEthIp6Hdr). The checksum field is left zero.
PktErrors checkIcmp6CheckSum(Ip6Hdr* ip6, Icmp6Hdr*& icmp6);
// Stores the ICMPv6 checksum under the pseudo header of ip6.
PktErrors setIcmp6CheckSum(Ip6Hdr* ip6, Icmp6Hdr* icmp6);
// The last option of the given type of a router solicitation, neighbour
// solicitation or advertisement, walking the options the IPv6 payload
// length covers (checked by the caller as above).
PktErrors getIcmp6Opt(Ip6Hdr* ip6, Icmp6Hdr* icmp6, Icmp6OptionCommonHdr*& opt, Icmp6OptionTypeNumber type);

}  // namespace Corvid
