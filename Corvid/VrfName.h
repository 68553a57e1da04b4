// The name of a VRF (virtual routing and forwarding instance).
//
// L3::VrfName owns its text, at most maxLength (100) bytes; a longer name
// raises Brio::RangeException. The default value is the default VRF,
// "default". VRFs live in network namespaces named "ns-<vrf>", and
// netNsVrf() maps a namespace back to its VRF. Order is byte order; the
// strep is the quoted name, stringValue the bare one.
#pragma once

#include <Brio/String.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/ValueSupport.h>

namespace L3 {

class VrfName : public Corvid::BoundedString<VrfName, 100> {
 public:
  static constexpr char lengthMessage[] = "VrfName::value::bytes > VrfName::maxLength not allowed";

  VrfName() : BoundedString(Brio::String("default")) {}
  using BoundedString::BoundedString;
  explicit VrfName(char const* name) : BoundedString(Brio::String(name)) {}

  static VrfName defaultVrf();
  // Stands for every VRF in a request or a show command.
  static VrfName allVrfs();
  // Marks state learned from more than one VRF.
  static VrfName multiSrcVrf();

  bool isDefault() const;

  // The VRF of a namespace: "default" for the default namespace, and for
  // any other the name after its "ns-" prefix. A namespace without the
  // prefix is a broken invariant (fatal assertion): only VRF namespaces
  // are handed here.
  static VrfName netNsVrf(Corvid::NamespaceName const& netNs);
};

}  // namespace L3

CORVID_STD_HASH(L3::VrfName);
