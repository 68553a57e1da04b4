#include <neighbor/ArpStatus.h>

namespace Arp {

namespace {

template <class K, class V>
V valueAt(std::map<K, V> const& map, K const& key) {
  auto it = map.find(key);
  return it == map.end() ? V() : it->second;
}

}  // namespace

ArpIntfStatus::ArpIntfStatus(IntfId const& intfId) : Entity(intfId.name()), intfId_(intfId) {}
Brio::Ptr<ArpIntfStatus> ArpIntfStatus::arpIntfStatusFactory(IntfId const& intfId) {
  return Brio::Ptr<ArpIntfStatus>(new ArpIntfStatus(intfId));
}
ArpEntryStatus ArpIntfStatus::arpEntry(IpAddr addr) const { return valueAt(arpEntry_, addr); }
NeighborEntryStatus ArpIntfStatus::ip6NeighborEntry(Ip6Addr const& addr) const {
  return valueAt(ip6NeighborEntry_, addr);
}

Brio::Ptr<NeighborDir> NeighborDir::neighborDirFactory(Brio::String name) {
  return Brio::Ptr<NeighborDir>(new NeighborDir(std::move(name)));
}
ArpIntfStatus* NeighborDir::arpIntfStatus(IntfId const& intfId) const { return childAt(arpIntfStatus_, intfId); }
Brio::Ptr<ArpIntfStatus> NeighborDir::arpIntfStatusIs(IntfId const& intfId) {
  return childIs(arpIntfStatus_, intfId, &Notifiee::handleArpIntfStatus, &ArpIntfStatus::arpIntfStatusFactory);
}

Brio::Ptr<ArpVrfStatusDir> ArpVrfStatusDir::arpVrfStatusDirFactory(Brio::String name) {
  return Brio::Ptr<ArpVrfStatusDir>(new ArpVrfStatusDir(std::move(name)));
}
NeighborDir* ArpVrfStatusDir::vrfStatus(Brio::String const& vrfName) const { return childAt(vrfStatus_, vrfName); }
Brio::Ptr<NeighborDir> ArpVrfStatusDir::vrfStatusIs(Brio::String const& vrfName) {
  return childIs(vrfStatus_, vrfName, &Notifiee::handleVrfStatus, &NeighborDir::neighborDirFactory);
}

Brio::Ptr<ArpInputVrfConfig> ArpInputVrfConfig::arpInputVrfConfigFactory(Brio::String vrfName) {
  return Brio::Ptr<ArpInputVrfConfig>(new ArpInputVrfConfig(std::move(vrfName)));
}
Brio::Ptr<ArpInputConfig> ArpInputConfig::arpInputConfigFactory(Brio::String name) {
  return Brio::Ptr<ArpInputConfig>(new ArpInputConfig(std::move(name)));
}
ArpInputVrfConfig* ArpInputConfig::vrfConfig(Brio::String const& vrfName) const { return childAt(vrfConfig_, vrfName); }
Brio::Ptr<ArpInputVrfConfig> ArpInputConfig::vrfConfigIs(Brio::String const& vrfName) {
  return childIs(vrfConfig_, vrfName, &Notifiee::handleVrfConfig, &ArpInputVrfConfig::arpInputVrfConfigFactory);
}

Brio::Ptr<ArpEntryIntfStatus> ArpEntryIntfStatus::arpEntryIntfStatusFactory(IntfId const& intfId) {
  return Brio::Ptr<ArpEntryIntfStatus>(new ArpEntryIntfStatus(intfId));
}
Brio::Ptr<NeighborEntryIntfStatus> NeighborEntryIntfStatus::neighborEntryIntfStatusFactory(IntfId const& intfId) {
  return Brio::Ptr<NeighborEntryIntfStatus>(new NeighborEntryIntfStatus(intfId));
}

Brio::Ptr<ArpInputVrfStatus> ArpInputVrfStatus::arpInputVrfStatusFactory(Brio::String vrfName) {
  return Brio::Ptr<ArpInputVrfStatus>(new ArpInputVrfStatus(std::move(vrfName)));
}
ArpEntryIntfStatus* ArpInputVrfStatus::arpEntryIntfStatus(IntfId const& intfId) const {
  return childAt(arpEntryIntfStatus_, intfId);
}
Brio::Ptr<ArpEntryIntfStatus> ArpInputVrfStatus::arpEntryIntfStatusIs(IntfId const& intfId) {
  return childIs(arpEntryIntfStatus_, intfId, &Notifiee::handleArpEntryIntfStatus,
                 &ArpEntryIntfStatus::arpEntryIntfStatusFactory);
}
NeighborEntryIntfStatus* ArpInputVrfStatus::neighborEntryIntfStatus(IntfId const& intfId) const {
  return childAt(neighborEntryIntfStatus_, intfId);
}
Brio::Ptr<NeighborEntryIntfStatus> ArpInputVrfStatus::neighborEntryIntfStatusIs(IntfId const& intfId) {
  return childIs(neighborEntryIntfStatus_, intfId, &Notifiee::handleNeighborEntryIntfStatus,
                 &NeighborEntryIntfStatus::neighborEntryIntfStatusFactory);
}

Brio::Ptr<ArpInputStatus> ArpInputStatus::arpInputStatusFactory(Brio::String name) {
  return Brio::Ptr<ArpInputStatus>(new ArpInputStatus(std::move(name)));
}
ArpInputVrfStatus* ArpInputStatus::vrfStatus(Brio::String const& vrfName) const { return childAt(vrfStatus_, vrfName); }
Brio::Ptr<ArpInputVrfStatus> ArpInputStatus::vrfStatusIs(Brio::String const& vrfName) {
  return childIs(vrfStatus_, vrfName, &Notifiee::handleVrfStatus, &ArpInputVrfStatus::arpInputVrfStatusFactory);
}

VirtualSubnetStatus::VirtualSubnetStatus(Corvid::Prefix const& prefix)
    : Entity(Brio::strep(prefix)), prefix_(prefix) {}
Brio::Ptr<VirtualSubnetStatus> VirtualSubnetStatus::virtualSubnetStatusFactory(Corvid::Prefix const& prefix) {
  return Brio::Ptr<VirtualSubnetStatus>(new VirtualSubnetStatus(prefix));
}
Brio::Ptr<ArpVirtualSubnetIntfStatus> ArpVirtualSubnetIntfStatus::arpVirtualSubnetIntfStatusFactory(
    IntfId const& intfId) {
  return Brio::Ptr<ArpVirtualSubnetIntfStatus>(new ArpVirtualSubnetIntfStatus(intfId));
}
VirtualSubnetStatus* ArpVirtualSubnetIntfStatus::virtualSubnet(Corvid::Prefix const& prefix) const {
  return childAt(virtualSubnet_, prefix);
}
Brio::Ptr<VirtualSubnetStatus> ArpVirtualSubnetIntfStatus::virtualSubnetIs(Corvid::Prefix const& prefix) {
  return childIs(virtualSubnet_, prefix, &Notifiee::handleVirtualSubnet,
                 &VirtualSubnetStatus::virtualSubnetStatusFactory);
}
Brio::Ptr<ArpVirtualSubnetStatusDir> ArpVirtualSubnetStatusDir::arpVirtualSubnetStatusDirFactory(Brio::String name) {
  return Brio::Ptr<ArpVirtualSubnetStatusDir>(new ArpVirtualSubnetStatusDir(std::move(name)));
}
ArpVirtualSubnetIntfStatus* ArpVirtualSubnetStatusDir::virtualSubnetIntfStatus(IntfId const& intfId) const {
  return childAt(virtualSubnetIntfStatus_, intfId);
}
Brio::Ptr<ArpVirtualSubnetIntfStatus> ArpVirtualSubnetStatusDir::virtualSubnetIntfStatusIs(IntfId const& intfId) {
  return childIs(virtualSubnetIntfStatus_, intfId, &Notifiee::handleVirtualSubnetIntfStatus,
                 &ArpVirtualSubnetIntfStatus::arpVirtualSubnetIntfStatusFactory);
}

Brio::Ptr<VirtualIpAsReceiveRoute> virtualIpAsReceiveRouteFactory(Brio::String name) {
  return Brio::Ptr<VirtualIpAsReceiveRoute>(new VirtualIpAsReceiveRoute(std::move(name)));
}

Brio::Ptr<Hardware::Status> Hardware::Status::statusFactory(Brio::String name) {
  return Brio::Ptr<Status>(new Status(std::move(name)));
}

}  // namespace Arp
