#include <Corvid/VrfName.h>

#include <Fennel/Fennel.h>

namespace L3 {

VrfName VrfName::defaultVrf() { return VrfName("default"); }

VrfName VrfName::allVrfs() { return VrfName("all"); }

VrfName VrfName::multiSrcVrf() { return VrfName("multiple source VRFs"); }

bool VrfName::isDefault() const { return value() == "default"; }

VrfName VrfName::netNsVrf(Corvid::NamespaceName const& netNs) {
  if (netNs.isDefault()) return defaultVrf();
  Brio::String const nsPrefix("ns-");
  FENNEL_ASSERT(netNs.value().charPos( nsPrefix ) == 0);
  return VrfName(Brio::String(netNs.value().view().substr(nsPrefix.bytes())));
}

}  // namespace L3
