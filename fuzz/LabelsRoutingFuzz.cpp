// VRF and namespace names, VNIs, IS-IS, EVPN, flex-algo and pseudowire
// identifiers, and interface ids.
#include <Corvid/IntfId.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/Port.h>
#include <Corvid/VrfName.h>
#include <routing/Evpn.h>
#include <routing/FlexAlgo.h>
#include <routing/Isis.h>
#include <routing/L2Vpn.h>
#include <routing/Vni.h>
#include <routing/VrfNameAndIp.h>

#include "LabelsFuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
  using namespace Routing::Isis;
  Brio::String const text(reinterpret_cast<char const*>(data), size);
  constexpr std::string_view vniRange = "Vni::value < Vni::min or > Vni::max not allowed";
  constexpr std::string_view vrfLength = "VrfName::value::bytes > VrfName::maxLength not allowed";
  LabelsFuzz::allTextForms<L3::VrfName>(text, {vrfLength});
  LabelsFuzz::allTextForms<Corvid::NamespaceName>(text, {"NamespaceName::value::bytes > 150 not allowed"});
  LabelsFuzz::allTextForms<Corvid::IntfId>(text, {});
  LabelsFuzz::allTextForms<Vxlan::Vni>(text, {vniRange, "Invalid Vni"});
  LabelsFuzz::allTextForms<Vxlan::VniOrNone>(
      text, {"VniOrNone::value < 0 or > 0x1000000 not allowed", "Invalid VniOrNone"});
  LabelsFuzz::allTextForms<Vxlan::VniExt>(
      text, {vniRange, "VniExt::value < VniExt::min or > VniExt::max not allowed", "Invalid VniExt String"});
  LabelsFuzz::allTextForms<Corvid::Port>(text, {"Port::value < Port::min or > Port::max not allowed", "Invalid Port"});
  std::initializer_list<std::string_view> const isis = {
      "'.' expected", "'-' expected", "Hex digit expected, but got: '*", "Two hex digits expected, but got only 0",
      "Two hex digits expected, but got only 1", "Unexpected trailing characters", "Invalid Level",
      "AreaIdLengthRange::value < AreaIdLengthRange::min or > AreaIdLengthRange::max not allowed"};
  LabelsFuzz::allTextForms<SystemId>(text, isis);
  LabelsFuzz::allTextForms<LspId>(text, isis);
  LabelsFuzz::allTextForms<AreaId>(text, isis);
  LabelsFuzz::allTextForms<Level>(text, isis);
  LabelsFuzz::allTextForms<Evpn::Esid>(text, {"Invalid Esid"});
  LabelsFuzz::allTextForms<Evpn::EncapTypeLabel>(
      text, {"Invalid EncapTypeLabel", "EncapTypeLabel::label too large for its encapsulation"});
  LabelsFuzz::allTextForms<Routing::FlexAlgoId>(
      text, {"Invalid FlexAlgoId", "FlexAlgoId::value < FlexAlgoId::min or > FlexAlgoId::max not allowed"});
  LabelsFuzz::allTextForms<Routing::L2Vpn::PwId>(
      text, {"Invalid PwId", "PwId::value < PwId::min or > PwId::max not allowed"});
  LabelsFuzz::allTextForms<L3::VrfNameAndIp>(text, {vrfLength, "Invalid IpAddr"});
  // Names from outside go through the short-name table both ways.
  Corvid::IntfId const id = Corvid::IntfId::fromShortName(text);
  if (!(Corvid::IntfId::fromShortName(id.shortName()) == id) && id.shortName() != id.name()) {
    LabelsFuzz::fail("short name", id.name().str());
  }
  return 0;
}
