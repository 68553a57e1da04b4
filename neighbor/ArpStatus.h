// The neighbour agents' in-process status and input trees: per VRF, per
// interface, per address. Each is a Brio entity whose keyed collections
// notify their Notifiee per key (handleX(key)) when an entry is added,
// changed or removed.
//
//   ArpVrfStatusDir --vrfStatus[name]--> NeighborDir --arpIntfStatus[intf]--> ArpIntfStatus
//       arpEntry[IpAddr] -> ArpEntryStatus, ip6NeighborEntry[Ip6Addr] -> NeighborEntryStatus
//   ArpInputConfig --vrfConfig[name]--> ArpInputVrfConfig   (configured entries)
//   ArpInputStatus --vrfStatus[name]--> ArpInputVrfStatus --> ArpEntryIntfStatus,
//                                                           NeighborEntryIntfStatus
//   ArpVirtualSubnetStatusDir --> ArpVirtualSubnetIntfStatus --> VirtualSubnetStatus
//
// Collections of child entities are filled with `xIs(key)`, which makes the
// child when absent and returns it (the caller configures it in place);
// collections of values with `xIs(key, value)`. Lookups answer null (or the
// default value) for an absent key. Owners hold the tree; nothing here is
// shared between processes.
#pragma once

#include <Brio/Entity.h>
#include <Corvid/Ip.h>
#include <neighbor/ArpTypes.h>

#include <map>

namespace Arp {

// ---- per-interface and per-VRF status ---------------------------------------------

class ArpIntfStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpIntfStatus> {
   public:
    virtual void handleArpEntry(IpAddr const& addr) {}
    virtual void handleIp6NeighborEntry(Ip6Addr const& addr) {}

   protected:
    using Brio::EntityNotifiee<ArpIntfStatus>::EntityNotifiee;
  };
  static Brio::Ptr<ArpIntfStatus> arpIntfStatusFactory(IntfId const& intfId);

  IntfId const& intfId() const { return intfId_; }

  std::map<IpAddr, ArpEntryStatus> const& arpEntries() const { return arpEntry_; }
  ArpEntryStatus arpEntry(IpAddr addr) const;
  void arpEntryIs(IpAddr addr, ArpEntryStatus const& v) { collectionIs(arpEntry_, addr, v, &Notifiee::handleArpEntry); }
  void arpEntryDel(IpAddr addr) { collectionDel(arpEntry_, addr, &Notifiee::handleArpEntry); }
  void arpEntryDelAll() { collectionDelAll(arpEntry_, &Notifiee::handleArpEntry); }

  std::map<Ip6Addr, NeighborEntryStatus> const& ip6NeighborEntries() const { return ip6NeighborEntry_; }
  NeighborEntryStatus ip6NeighborEntry(Ip6Addr const& addr) const;
  void ip6NeighborEntryIs(Ip6Addr const& addr, NeighborEntryStatus const& v) {
    collectionIs(ip6NeighborEntry_, addr, v, &Notifiee::handleIp6NeighborEntry);
  }
  void ip6NeighborEntryDel(Ip6Addr const& addr) {
    collectionDel(ip6NeighborEntry_, addr, &Notifiee::handleIp6NeighborEntry);
  }
  void ip6NeighborEntryDelAll() { collectionDelAll(ip6NeighborEntry_, &Notifiee::handleIp6NeighborEntry); }

  bool empty() const { return arpEntry_.empty() && ip6NeighborEntry_.empty(); }

 private:
  explicit ArpIntfStatus(IntfId const& intfId);
  IntfId intfId_;
  std::map<IpAddr, ArpEntryStatus> arpEntry_;
  std::map<Ip6Addr, NeighborEntryStatus> ip6NeighborEntry_;
};

// The interface statuses of one VRF.
class NeighborDir : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<NeighborDir> {
   public:
    virtual void handleArpIntfStatus(IntfId const& intfId) {}

   protected:
    using Brio::EntityNotifiee<NeighborDir>::EntityNotifiee;
  };
  static Brio::Ptr<NeighborDir> neighborDirFactory(Brio::String name);

  std::map<IntfId, Brio::Ptr<ArpIntfStatus>> const& arpIntfStatuses() const { return arpIntfStatus_; }
  ArpIntfStatus* arpIntfStatus(IntfId const& intfId) const;
  // The interface's status, made when absent.
  Brio::Ptr<ArpIntfStatus> arpIntfStatusIs(IntfId const& intfId);
  void arpIntfStatusDel(IntfId const& intfId) {
    collectionDel(arpIntfStatus_, intfId, &Notifiee::handleArpIntfStatus);
  }
  void arpIntfStatusDelAll() { collectionDelAll(arpIntfStatus_, &Notifiee::handleArpIntfStatus); }

 private:
  explicit NeighborDir(Brio::String name) : Entity(std::move(name)) {}
  std::map<IntfId, Brio::Ptr<ArpIntfStatus>> arpIntfStatus_;
};

// VRF name -> that VRF's NeighborDir.
class ArpVrfStatusDir : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpVrfStatusDir> {
   public:
    virtual void handleVrfStatus(Brio::String const& vrfName) {}

   protected:
    using Brio::EntityNotifiee<ArpVrfStatusDir>::EntityNotifiee;
  };
  static Brio::Ptr<ArpVrfStatusDir> arpVrfStatusDirFactory(Brio::String name);

  std::map<Brio::String, Brio::Ptr<NeighborDir>> const& vrfStatuses() const { return vrfStatus_; }
  NeighborDir* vrfStatus(Brio::String const& vrfName) const;
  // The VRF's status, made when absent.
  Brio::Ptr<NeighborDir> vrfStatusIs(Brio::String const& vrfName);
  // Enters an existing directory under the VRF's name.
  void vrfStatusIs(Brio::String const& vrfName, Brio::Ptr<NeighborDir> const& dir) {
    collectionIs(vrfStatus_, vrfName, dir, &Notifiee::handleVrfStatus);
  }
  void vrfStatusDel(Brio::String const& vrfName) { collectionDel(vrfStatus_, vrfName, &Notifiee::handleVrfStatus); }
  void vrfStatusDelAll() { collectionDelAll(vrfStatus_, &Notifiee::handleVrfStatus); }

 private:
  explicit ArpVrfStatusDir(Brio::String name) : Entity(std::move(name)) {}
  std::map<Brio::String, Brio::Ptr<NeighborDir>> vrfStatus_;
};

// ---- configured input -------------------------------------------------------------------

class ArpInputVrfConfig : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpInputVrfConfig> {
   public:
    virtual void handleArpEntry(IpAddr const& addr) {}
    virtual void handleNeighborEntry(NeighborEntryKey const& key) {}

   protected:
    using Brio::EntityNotifiee<ArpInputVrfConfig>::EntityNotifiee;
  };
  static Brio::Ptr<ArpInputVrfConfig> arpInputVrfConfigFactory(Brio::String vrfName);

  std::map<IpAddr, ArpEntryInput> const& arpEntries() const { return arpEntry_; }
  void arpEntryIs(IpAddr addr, ArpEntryInput const& v) { collectionIs(arpEntry_, addr, v, &Notifiee::handleArpEntry); }
  void arpEntryDel(IpAddr addr) { collectionDel(arpEntry_, addr, &Notifiee::handleArpEntry); }
  void arpEntryDelAll() { collectionDelAll(arpEntry_, &Notifiee::handleArpEntry); }

  std::map<NeighborEntryKey, NeighborEntryConfigInput> const& neighborEntries() const { return neighborEntry_; }
  void neighborEntryIs(NeighborEntryKey const& key, NeighborEntryConfigInput const& v) {
    collectionIs(neighborEntry_, key, v, &Notifiee::handleNeighborEntry);
  }
  void neighborEntryDel(NeighborEntryKey const& key) {
    collectionDel(neighborEntry_, key, &Notifiee::handleNeighborEntry);
  }
  void neighborEntryDelAll() { collectionDelAll(neighborEntry_, &Notifiee::handleNeighborEntry); }

 private:
  explicit ArpInputVrfConfig(Brio::String name) : Entity(std::move(name)) {}
  std::map<IpAddr, ArpEntryInput> arpEntry_;
  std::map<NeighborEntryKey, NeighborEntryConfigInput> neighborEntry_;
};

class ArpInputConfig : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpInputConfig> {
   public:
    virtual void handleVrfConfig(Brio::String const& vrfName) {}

   protected:
    using Brio::EntityNotifiee<ArpInputConfig>::EntityNotifiee;
  };
  static Brio::Ptr<ArpInputConfig> arpInputConfigFactory(Brio::String name);

  ArpInputVrfConfig* vrfConfig(Brio::String const& vrfName) const;
  Brio::Ptr<ArpInputVrfConfig> vrfConfigIs(Brio::String const& vrfName);
  void vrfConfigDel(Brio::String const& vrfName) { collectionDel(vrfConfig_, vrfName, &Notifiee::handleVrfConfig); }
  void vrfConfigDelAll() { collectionDelAll(vrfConfig_, &Notifiee::handleVrfConfig); }

 private:
  explicit ArpInputConfig(Brio::String name) : Entity(std::move(name)) {}
  std::map<Brio::String, Brio::Ptr<ArpInputVrfConfig>> vrfConfig_;
};

// ---- input status ---------------------------------------------------------------------------

class ArpEntryIntfStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpEntryIntfStatus> {
   public:
    virtual void handleArpEntry(IpAddr const& addr) {}
    virtual void handleImmediateRefreshStatus(IpAddr const& addr) {}

   protected:
    using Brio::EntityNotifiee<ArpEntryIntfStatus>::EntityNotifiee;
  };
  static Brio::Ptr<ArpEntryIntfStatus> arpEntryIntfStatusFactory(IntfId const& intfId);

  std::map<IpAddr, ArpEntryInputStatus> const& arpEntries() const { return arpEntry_; }
  void arpEntryIs(IpAddr addr, ArpEntryInputStatus const& v) {
    collectionIs(arpEntry_, addr, v, &Notifiee::handleArpEntry);
  }
  void arpEntryDel(IpAddr addr) { collectionDel(arpEntry_, addr, &Notifiee::handleArpEntry); }
  void arpEntryDelAll() { collectionDelAll(arpEntry_, &Notifiee::handleArpEntry); }

  std::map<IpAddr, ArpEntryQuickRefreshStatusType> const& immediateRefreshStatuses() const {
    return immediateRefreshStatus_;
  }
  void immediateRefreshStatusIs(IpAddr addr, ArpEntryQuickRefreshStatusType const& v) {
    collectionIs(immediateRefreshStatus_, addr, v, &Notifiee::handleImmediateRefreshStatus);
  }
  void immediateRefreshStatusDel(IpAddr addr) {
    collectionDel(immediateRefreshStatus_, addr, &Notifiee::handleImmediateRefreshStatus);
  }
  void immediateRefreshStatusDelAll() {
    collectionDelAll(immediateRefreshStatus_, &Notifiee::handleImmediateRefreshStatus);
  }

 private:
  explicit ArpEntryIntfStatus(IntfId const& intfId) : Entity(intfId.name()) {}
  std::map<IpAddr, ArpEntryInputStatus> arpEntry_;
  std::map<IpAddr, ArpEntryQuickRefreshStatusType> immediateRefreshStatus_;
};

class NeighborEntryIntfStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<NeighborEntryIntfStatus> {
   public:
    virtual void handleNeighborEntry(Ip6Addr const& addr) {}
    virtual void handleImmediateRefreshStatus(Ip6Addr const& addr) {}

   protected:
    using Brio::EntityNotifiee<NeighborEntryIntfStatus>::EntityNotifiee;
  };
  static Brio::Ptr<NeighborEntryIntfStatus> neighborEntryIntfStatusFactory(IntfId const& intfId);

  std::map<Ip6Addr, NeighborEntryInputStatus> const& neighborEntries() const { return neighborEntry_; }
  void neighborEntryIs(Ip6Addr const& addr, NeighborEntryInputStatus const& v) {
    collectionIs(neighborEntry_, addr, v, &Notifiee::handleNeighborEntry);
  }
  void neighborEntryDel(Ip6Addr const& addr) { collectionDel(neighborEntry_, addr, &Notifiee::handleNeighborEntry); }
  void neighborEntryDelAll() { collectionDelAll(neighborEntry_, &Notifiee::handleNeighborEntry); }

  std::map<Ip6Addr, ArpEntryQuickRefreshStatusType> const& immediateRefreshStatuses() const {
    return immediateRefreshStatus_;
  }
  void immediateRefreshStatusIs(Ip6Addr const& addr, ArpEntryQuickRefreshStatusType const& v) {
    collectionIs(immediateRefreshStatus_, addr, v, &Notifiee::handleImmediateRefreshStatus);
  }
  void immediateRefreshStatusDel(Ip6Addr const& addr) {
    collectionDel(immediateRefreshStatus_, addr, &Notifiee::handleImmediateRefreshStatus);
  }
  void immediateRefreshStatusDelAll() {
    collectionDelAll(immediateRefreshStatus_, &Notifiee::handleImmediateRefreshStatus);
  }

 private:
  explicit NeighborEntryIntfStatus(IntfId const& intfId) : Entity(intfId.name()) {}
  std::map<Ip6Addr, NeighborEntryInputStatus> neighborEntry_;
  std::map<Ip6Addr, ArpEntryQuickRefreshStatusType> immediateRefreshStatus_;
};

class ArpInputVrfStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpInputVrfStatus> {
   public:
    virtual void handleArpEntryIntfStatus(IntfId const& intfId) {}
    virtual void handleNeighborEntryIntfStatus(IntfId const& intfId) {}

   protected:
    using Brio::EntityNotifiee<ArpInputVrfStatus>::EntityNotifiee;
  };
  static Brio::Ptr<ArpInputVrfStatus> arpInputVrfStatusFactory(Brio::String vrfName);

  ArpEntryIntfStatus* arpEntryIntfStatus(IntfId const& intfId) const;
  Brio::Ptr<ArpEntryIntfStatus> arpEntryIntfStatusIs(IntfId const& intfId);
  void arpEntryIntfStatusDel(IntfId const& intfId) {
    collectionDel(arpEntryIntfStatus_, intfId, &Notifiee::handleArpEntryIntfStatus);
  }
  NeighborEntryIntfStatus* neighborEntryIntfStatus(IntfId const& intfId) const;
  Brio::Ptr<NeighborEntryIntfStatus> neighborEntryIntfStatusIs(IntfId const& intfId);
  void neighborEntryIntfStatusDel(IntfId const& intfId) {
    collectionDel(neighborEntryIntfStatus_, intfId, &Notifiee::handleNeighborEntryIntfStatus);
  }

 private:
  explicit ArpInputVrfStatus(Brio::String name) : Entity(std::move(name)) {}
  std::map<IntfId, Brio::Ptr<ArpEntryIntfStatus>> arpEntryIntfStatus_;
  std::map<IntfId, Brio::Ptr<NeighborEntryIntfStatus>> neighborEntryIntfStatus_;
};

class ArpInputStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpInputStatus> {
   public:
    virtual void handleVrfStatus(Brio::String const& vrfName) {}

   protected:
    using Brio::EntityNotifiee<ArpInputStatus>::EntityNotifiee;
  };
  static Brio::Ptr<ArpInputStatus> arpInputStatusFactory(Brio::String name);

  ArpInputVrfStatus* vrfStatus(Brio::String const& vrfName) const;
  Brio::Ptr<ArpInputVrfStatus> vrfStatusIs(Brio::String const& vrfName);
  void vrfStatusDel(Brio::String const& vrfName) { collectionDel(vrfStatus_, vrfName, &Notifiee::handleVrfStatus); }
  void vrfStatusDelAll() { collectionDelAll(vrfStatus_, &Notifiee::handleVrfStatus); }

 private:
  explicit ArpInputStatus(Brio::String name) : Entity(std::move(name)) {}
  std::map<Brio::String, Brio::Ptr<ArpInputVrfStatus>> vrfStatus_;
};

// ---- virtual subnets and receive routes ---------------------------------------------

// One virtual subnet on an interface: its prefix, and whether it is active
// (the agent answers ARP for its virtual addresses while it is).
class VirtualSubnetStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<VirtualSubnetStatus> {
   public:
    virtual void handleActive() {}

   protected:
    using Brio::EntityNotifiee<VirtualSubnetStatus>::EntityNotifiee;
  };
  static Brio::Ptr<VirtualSubnetStatus> virtualSubnetStatusFactory(Corvid::Prefix const& prefix);

  Corvid::Prefix const& prefix() const { return prefix_; }
  bool active() const { return active_; }
  void activeIs(bool v) { attributeIs(active_, v, &Notifiee::handleActive); }

 private:
  explicit VirtualSubnetStatus(Corvid::Prefix const& prefix);
  Corvid::Prefix prefix_;
  bool active_ = false;
};

class ArpVirtualSubnetIntfStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpVirtualSubnetIntfStatus> {
   public:
    virtual void handleVirtualSubnet(Corvid::Prefix const& prefix) {}

   protected:
    using Brio::EntityNotifiee<ArpVirtualSubnetIntfStatus>::EntityNotifiee;
  };
  static Brio::Ptr<ArpVirtualSubnetIntfStatus> arpVirtualSubnetIntfStatusFactory(IntfId const& intfId);

  VirtualSubnetStatus* virtualSubnet(Corvid::Prefix const& prefix) const;
  Brio::Ptr<VirtualSubnetStatus> virtualSubnetIs(Corvid::Prefix const& prefix);
  void virtualSubnetDel(Corvid::Prefix const& prefix) {
    collectionDel(virtualSubnet_, prefix, &Notifiee::handleVirtualSubnet);
  }
  void virtualSubnetDelAll() { collectionDelAll(virtualSubnet_, &Notifiee::handleVirtualSubnet); }

 private:
  explicit ArpVirtualSubnetIntfStatus(IntfId const& intfId) : Entity(intfId.name()) {}
  std::map<Corvid::Prefix, Brio::Ptr<VirtualSubnetStatus>> virtualSubnet_;
};

class ArpVirtualSubnetStatusDir : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ArpVirtualSubnetStatusDir> {
   public:
    virtual void handleVirtualSubnetIntfStatus(IntfId const& intfId) {}

   protected:
    using Brio::EntityNotifiee<ArpVirtualSubnetStatusDir>::EntityNotifiee;
  };
  static Brio::Ptr<ArpVirtualSubnetStatusDir> arpVirtualSubnetStatusDirFactory(Brio::String name);

  ArpVirtualSubnetIntfStatus* virtualSubnetIntfStatus(IntfId const& intfId) const;
  Brio::Ptr<ArpVirtualSubnetIntfStatus> virtualSubnetIntfStatusIs(IntfId const& intfId);
  void virtualSubnetIntfStatusDel(IntfId const& intfId) {
    collectionDel(virtualSubnetIntfStatus_, intfId, &Notifiee::handleVirtualSubnetIntfStatus);
  }

 private:
  explicit ArpVirtualSubnetStatusDir(Brio::String name) : Entity(std::move(name)) {}
  std::map<IntfId, Brio::Ptr<ArpVirtualSubnetIntfStatus>> virtualSubnetIntfStatus_;
};

// Addresses and subnets the agent wants installed as receive routes.
class VirtualIpAsReceiveRoute : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<VirtualIpAsReceiveRoute> {
   public:
    virtual void handleIpAddrs(IpGenAddr const& addr) {}
    virtual void handleSubnetRoutes(Corvid::IpGenPrefix const& prefix) {}

   protected:
    using Brio::EntityNotifiee<VirtualIpAsReceiveRoute>::EntityNotifiee;
  };

  std::map<IpGenAddr, bool> const& ipAddrs() const { return ipAddrs_; }
  void ipAddrsIs(IpGenAddr const& addr) { collectionIs(ipAddrs_, addr, true, &Notifiee::handleIpAddrs); }
  void ipAddrsDel(IpGenAddr const& addr) { collectionDel(ipAddrs_, addr, &Notifiee::handleIpAddrs); }
  std::map<Corvid::IpGenPrefix, bool> const& subnetRoutes() const { return subnetRoutes_; }
  void subnetRoutesIs(Corvid::IpGenPrefix const& p) {
    collectionIs(subnetRoutes_, p, true, &Notifiee::handleSubnetRoutes);
  }
  void subnetRoutesDel(Corvid::IpGenPrefix const& p) { collectionDel(subnetRoutes_, p, &Notifiee::handleSubnetRoutes); }

 private:
  friend Brio::Ptr<VirtualIpAsReceiveRoute> virtualIpAsReceiveRouteFactory(Brio::String name);
  explicit VirtualIpAsReceiveRoute(Brio::String name) : Entity(std::move(name)) {}
  std::map<IpGenAddr, bool> ipAddrs_;
  std::map<Corvid::IpGenPrefix, bool> subnetRoutes_;
};

Brio::Ptr<VirtualIpAsReceiveRoute> virtualIpAsReceiveRouteFactory(Brio::String name);

// ---- hardware limits -----------------------------------------------------------------------

namespace Hardware {

// What the forwarding hardware can hold and how fast it may be asked to
// resolve (DoS rates in requests per second); 0 until the platform says.
class Status : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Status> {
   public:
    virtual void handleArpTableSize() {}
    virtual void handleNeighborTableSize() {}
    virtual void handleArpDosRate() {}
    virtual void handleNeighborDosRate() {}

   protected:
    using Brio::EntityNotifiee<Status>::EntityNotifiee;
  };
  static constexpr U32 defaultArpTableSize = 10240;
  static constexpr U32 defaultNeighborTableSize = 10240;
  static Brio::Ptr<Status> statusFactory(Brio::String name);

  U32 arpTableSize() const { return arpTableSize_; }
  void arpTableSizeIs(U32 v) { attributeIs(arpTableSize_, v, &Notifiee::handleArpTableSize); }
  U32 neighborTableSize() const { return neighborTableSize_; }
  void neighborTableSizeIs(U32 v) { attributeIs(neighborTableSize_, v, &Notifiee::handleNeighborTableSize); }
  U32 arpDosRate() const { return arpDosRate_; }
  void arpDosRateIs(U32 v) { attributeIs(arpDosRate_, v, &Notifiee::handleArpDosRate); }
  U32 neighborDosRate() const { return neighborDosRate_; }
  void neighborDosRateIs(U32 v) { attributeIs(neighborDosRate_, v, &Notifiee::handleNeighborDosRate); }

 private:
  explicit Status(Brio::String name) : Entity(std::move(name)) {}
  U32 arpTableSize_ = 0;
  U32 neighborTableSize_ = 0;
  U32 arpDosRate_ = 0;
  U32 neighborDosRate_ = 0;
};

}  // namespace Hardware

}  // namespace Arp
