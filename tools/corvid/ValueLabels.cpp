// `corvid value` rows for Ethernet, MPLS, VRF, VXLAN, IS-IS and interface
// values.
#include <Corvid/BoundedMplsLabelStack.h>
#include <Corvid/EthAddr.h>
#include <Corvid/IntfId.h>
#include <Corvid/MplsLabel.h>
#include <Corvid/VrfName.h>
#include <routing/Evpn.h>
#include <routing/Isis.h>
#include <routing/Vni.h>

#include <cstdio>

#include "ValueCommand.h"

namespace CorvidTool {

namespace {

using namespace Corvid;

std::string hex(U32 v, int digits) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%0*x", digits, v);
  return buf;
}

void eth(EthAddr const& a, ValueReport& r) {
  r.line("displayString", a.displayString().str());
  r.flag("isUnicast", a.isUnicast());
  r.flag("isMulticast", a.isMulticast());
  r.flag("isBroadcast", a.isBroadcast());
  r.flag("isIp6Multicast", a.isIp6Multicast());
  r.flag("isIp4LinkLocalMulticast", a.isIp4LinkLocalMulticast());
  r.flag("isIEEELinkConstrained", a.isIEEELinkConstrained());
  r.line("oui", hex(a.oui(), 6));
  r.line("station", hex(a.station(), 6));
  r.line("eui64", a.eui64().stringValue().str());
  r.hash("hash", a.hash());
  r.hash("hash(0)", a.hash(0));
}

void eui64(Eui64 const& e, ValueReport& r) {
  r.hash("hash", e.hash());
  r.hash("hash(0)", e.hash(0));
}

void mplsLabel(MplsLabel const& l, ValueReport& r) {
  r.line("prettyString", l.prettyString().str());
  r.flag("isExplicitNull", l.isExplicitNull());
  r.flag("isWireLabel", l.isWireLabel());
  r.hash("hash", l.hash());
}

void mplsStack(BoundedMplsLabelStack const& s, ValueReport& r) {
  r.line("cliShowString", s.cliShowString().str());
  r.line("stackSize", std::to_string(s.stackSize()));
  r.line("calculatedStackSize", std::to_string(s.calculatedStackSize()));
  r.flag("hasEntropyLabel", s.hasEntropyLabel());
  r.line("top", s.top().prettyString().str());
  r.line("calculatedTop", s.calculatedTop().prettyString().str());
  r.hash("hash(0)", s.hash(0));
}

void vrf(L3::VrfName const& v, ValueReport& r) {
  r.flag("isDefault", v.isDefault());
  r.line("bytes", std::to_string(v.value().bytes()));
  r.hash("hash(0)", v.hash(0));
}

void vni(Vxlan::Vni const& v, ValueReport& r) {
  r.line("hex", hex(v.value(), 6));
  r.hash("hash", v.hash());
}

void vniExt(Vxlan::VniExt const& v, ValueReport& r) {
  r.line("domain", std::to_string(v.domain()));
  r.line("vni", Corvid::valueToStrep(v.vni()).str());
  r.hash("hash", v.hash());
}

void systemId(Routing::Isis::SystemId const& v, ValueReport& r) {
  r.flag("isZero", v.isZero());
  r.hash("hash(0)", v.hash(0));
}

void lspId(Routing::Isis::LspId const& v, ValueReport& r) {
  r.line("systemId", v.systemId().stringValue().str());
  r.line("pseudonodeId", std::to_string(v.pseudonodeId()));
  r.line("lspFragmentId", std::to_string(v.lspFragmentId()));
  r.flag("isPseudonode", v.isPseudonode());
  r.hash("hash(0)", v.hash(0));
}

void areaId(Routing::Isis::AreaId const& v, ValueReport& r) {
  r.line("length", std::to_string(v.length().value()));
  r.hash("hash(0)", v.hash(0));
}

void esid(Evpn::Esid const& v, ValueReport& r) {
  r.line("type", std::to_string(v.type()));
  r.flag("isZero", v.isZero());
  r.flag("isMax", v.isMax());
  r.hash("hash(0)", v.hash(0));
}

void intf(IntfId const& v, ValueReport& r) {
  r.line("shortName", v.shortName().str());
  r.line("fromShortName", IntfId::fromShortName(v.name()).name().str());
  r.hash("hash(0)", v.hash(0));
}

}  // namespace

void addLabelValueTypes(std::vector<ValueType>& types) {
  types.insert(types.end(), {
    {"eth", "Ethernet address (00:1c:73:0a:0b:0c, 00-1c-73-0a-0b-0c, 001c.730a.0b0c)", row<EthAddr, eth>},
    {"eui64", "EUI-64 identifier (02:1c:73:ff:fe:0a:0b:0c)", row<Eui64, eui64>},
    {"mpls-label", "MPLS label (0 to 8388608)", row<MplsLabel, mplsLabel>},
    {"mpls-stack", "MPLS label stack as printed (\"TOP ( 200 ELI EL 100 ) BOTTOM\")",
     row<BoundedMplsLabelStack, mplsStack>},
    {"vrf", "VRF name (up to 100 bytes)", row<L3::VrfName, vrf>},
    {"vni", "VXLAN network identifier (0 to 16777215)", row<Vxlan::Vni, vni>},
    {"vni-ext", "VNI qualified by a domain (10000, 2:10000)", row<Vxlan::VniExt, vniExt>},
    {"isis-system-id", "IS-IS system id (1921.6800.1001)", row<Routing::Isis::SystemId, systemId>},
    {"isis-lsp-id", "IS-IS LSP id (1921.6800.1001.00-01)", row<Routing::Isis::LspId, lspId>},
    {"isis-area", "IS-IS area address (49.0001)", row<Routing::Isis::AreaId, areaId>},
    {"esid", "EVPN Ethernet segment id (03:00:1c:73:0a:0b:0c:00:00:01)", row<Evpn::Esid, esid>},
    {"intf", "interface name (Ethernet1/2, Et1/2, Port-Channel10)", row<IntfId, intf>},
  });
}

}  // namespace CorvidTool
