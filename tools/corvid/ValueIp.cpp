// `corvid value` rows for the address and prefix types of Corvid/Ip.h.
#include <Corvid/Ip.h>

#include "ValueCommand.h"

namespace CorvidTool {

namespace {

using namespace Corvid;

void showIpv4(IpAddr const& a, ValueReport& r) {
  r.flag("isZero", a.isZero());
  r.flag("isUnicast", a.isUnicast());
  r.flag("isMulticast", a.isMulticast());
  r.flag("isReservedMulticast", a.isReservedMulticast());
  r.flag("isPimRouters", a.isPimRouters());
  r.flag("isBroadcast", a.isBroadcast());
  r.flag("isLoopback", a.isLoopback());
  r.flag("isLoopbackBase", a.isLoopbackBase());
  r.flag("isThisNetwork", a.isThisNetwork());
  r.flag("isLinkLocal", a.isLinkLocal());
  r.flag("isPrivate", a.isPrivate());
  r.flag("isReserved(false)", a.isReserved(false));
  r.flag("isReserved(true)", a.isReserved(true));
  if (a.isMulticast()) r.line("mcastEtherAddress", a.mcastEtherAddress().stringValue().str());
}

void showIpv6(Ip6Addr const& a, ValueReport& r) {
  r.line("expanded", a.stringValueExpanded().str());
  r.flag("isZero", a.isZero());
  r.flag("isLoopback", a.isLoopback());
  r.flag("isUnicast", a.isUnicast());
  r.flag("isMulticast", a.isMulticast());
  r.flag("isLinkLocalUnicast", a.isLinkLocalUnicast());
  r.flag("isLinkLocalUnicast2", a.isLinkLocalUnicast2());
  r.flag("isLinkLocal", a.isLinkLocal());
  r.flag("validLlUnicastAddress", a.validLlUnicastAddress());
  r.flag("isGlobalUnicast", a.isGlobalUnicast());
  r.flag("isSiteLocal", a.isSiteLocal());
  r.flag("isUniqueLocal", a.isUniqueLocal());
  r.flag("isV4MappedV6", a.isV4MappedV6());
  r.flag("isPimRouters", a.isPimRouters());
  r.flag("isRoutableMulticast", a.isRoutableMulticast());
  r.line("solicitedNodeMulticastAddr", a.solicitedNodeMulticastAddr().stringValue().str());
  r.line("mcastEtherAddress", a.mcastEtherAddress().stringValue().str());
}

void showIpGen(IpGenAddr const& a, ValueReport& r) {
  r.line("af", streamed(a.af()));
  r.flag("isUnicast", a.isUnicast());
  r.flag("isMulticast", a.isMulticast());
  r.flag("isLinkLocalMulticast", a.isLinkLocalMulticast());
  r.flag("isLoopback", a.isLoopback());
  r.flag("isLinkLocal", a.isLinkLocal());
  r.flag("isV4LinkLocal", a.isV4LinkLocal());
  r.flag("isV6LinkLocal", a.isV6LinkLocal());
  r.flag("isUnspecified", a.isUnspecified());
  r.flag("isAny", a.isAny());
  r.flag("isBroadcast", a.isBroadcast());
  r.flag("isRoutableMulticast", a.isRoutableMulticast());
  IpGenAddr const mapped = a.isV4() ? IpGenAddr::getV4MappedV6Addr(a) : IpGenAddr::getMappedV4Addr(a);
  if (mapped.af() != AddressFamily::ipunknown) r.line("mapped", mapped.stringValue().str());
}

void ipv4(IpAddr const& a, ValueReport& r) {
  showIpv4(a, r);
  r.hash("hash", a.hash());
}
void ipv6(Ip6Addr const& a, ValueReport& r) {
  showIpv6(a, r);
  r.hash("hash", a.hash());
}
void ip(IpGenAddr const& a, ValueReport& r) {
  showIpGen(a, r);
  r.hash("hash(0)", a.hash(0));
}
void ipv4Prefix(Prefix const& p, ValueReport& r) {
  r.flag("isHost", p.isHost());
  r.flag("isUnicast", p.isUnicast());
  r.hash("hash(0)", p.hash(0));
}
void ipv6Prefix(Ip6Prefix const& p, ValueReport& r) {
  r.flag("validAsPrefix", p.validAsPrefix());
  r.flag("isDefaultRoutePrefix", p.isDefaultRoutePrefix());
  r.flag("isHostRoutePrefix", p.isHostRoutePrefix());
  r.flag("isNullPrefix", p.isNullPrefix());
  r.hash("hash", p.hash());
  r.hash("hash(0)", p.hash(0));
}
void ipPrefix(IpGenPrefix const& p, ValueReport& r) {
  r.line("af", streamed(p.af()));
  r.line("len", std::to_string(p.len()));
  r.hash("hash(0)", p.hash(0));
}
void ipv4WithMask(IpAddrWithMask const& v, ValueReport& r) {
  r.line("address", v.address().stringValue().str());
  r.line("len", std::to_string(v.len()));
  r.hash("hash(0)", v.hash(0));
}
void ipv6WithMask(Ip6AddrWithMask const& v, ValueReport& r) {
  r.flag("validAsPrefix", v.validAsPrefix());
  r.line("subnet", streamed(v.subnet()));
  r.hash("hash", v.hash());
  r.hash("hash(0)", v.hash(0));
}
void ipWithMask(IpGenAddrWithMask const& v, ValueReport& r) {
  r.line("af", streamed(v.af()));
  r.line("subnet", v.subnet().stringValue().str());
  r.hash("hash(0)", v.hash(0));
}
void ipv4FullMask(IpAddrWithFullMask const& v, ValueReport& r) {
  r.line("address", v.address().stringValue().str());
  r.line("mask", std::to_string(v.mask()));
  r.hash("hash(0)", v.hash(0));
}
void ipv6FullMask(Ip6AddrWithFullMask const& v, ValueReport& r) {
  r.flag("hasPrefixRepr", v.hasPrefixRepr());
  r.line("mask", v.mask().stringValue().str());
  r.hash("hash(0)", v.hash(0));
}
void ipFullMask(IpGenAddrWithFullMask const& v, ValueReport& r) {
  r.flag("hasPrefixRepr", v.hasPrefixRepr());
  r.line("mask", v.mask().stringValue().str());
  r.hash("hash(0)", v.hash(0));
}

}  // namespace

void addIpValueTypes(std::vector<ValueType>& types) {
  types.insert(types.end(), {
    {"ipv4", "IPv4 address (10.1.2.3)", row<IpAddr, ipv4>},
    {"ipv6", "IPv6 address (2001:db8::1, ::ffff:10.1.2.3)", row<Ip6Addr, ipv6>},
    {"ip", "IPv4 or IPv6 address", row<IpGenAddr, ip>},
    {"ipv4-prefix", "IPv4 route prefix (10.0.0.0/8)", row<Prefix, ipv4Prefix>},
    {"ipv6-prefix", "IPv6 route prefix (2001:db8::/32)", row<Ip6Prefix, ipv6Prefix>},
    {"ip-prefix", "IPv4 or IPv6 route prefix", row<IpGenPrefix, ipPrefix>},
    {"ipv4-with-mask", "IPv4 interface address (10.1.2.3/8)", row<IpAddrWithMask, ipv4WithMask>},
    {"ipv6-with-mask", "IPv6 interface address (2001:db8::1/64)", row<Ip6AddrWithMask, ipv6WithMask>},
    {"ip-with-mask", "IPv4 or IPv6 interface address", row<IpGenAddrWithMask, ipWithMask>},
    {"ipv4-full-mask", "IPv4 address and mask number, as its record strep",
     row<IpAddrWithFullMask, ipv4FullMask>},
    {"ipv6-full-mask", "IPv6 address and mask (2001:db8::/32, 2001:db8::/ffff::ff)",
     row<Ip6AddrWithFullMask, ipv6FullMask>},
    {"ip-full-mask", "IPv4 or IPv6 address and mask (10.0.0.0/24 or its record strep)",
     row<IpGenAddrWithFullMask, ipFullMask>},
  });
}

}  // namespace CorvidTool
