#include <Corvid/ArpShim.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>

namespace Arp {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");
constexpr int lvShim = 6;

}  // namespace

ArpShimSm::ArpShimSm(Brio::Ptr<Table::Status> const& arpShoal, Brio::Ptr<Vrf::VrfIdMap::Status> const& vrfIdMap,
                     Brio::String vrfOfInterest, bool v4, bool v6, Brio::Ptr<NeighborDir> const& arpStatus,
                     Brio::Ptr<ArpVrfStatusDir> const& arpVrfStatusDir)
    : arpShoal_(arpShoal),
      vrfIdMap_(vrfIdMap),
      vrfOfInterest_(std::move(vrfOfInterest)),
      v4_(v4),
      v6_(v6),
      arpStatus_(arpStatus),
      arpVrfStatusDir_(arpVrfStatusDir) {}

ArpShimSm::~ArpShimSm() = default;

Brio::Ptr<ArpShimSm> arpShimSmFactory(Brio::Ptr<Table::Status> const& arpShoal,
                                      Brio::Ptr<Vrf::VrfIdMap::Status> const& vrfIdMap, Brio::String vrfOfInterest,
                                      bool v4, bool v6, Brio::Ptr<NeighborDir> const& arpStatus,
                                      Brio::Ptr<ArpVrfStatusDir> const& arpVrfStatusDir) {
  Brio::Ptr<ArpShimSm> shim(
      new ArpShimSm(arpShoal, vrfIdMap, std::move(vrfOfInterest), v4, v6, arpStatus, arpVrfStatusDir));
  shim->handleInitialized();
  return shim;
}

bool ArpShimSm::isVrfOfInterest(Brio::String const& name) const {
  return vrfOfInterest_.empty() || name == vrfOfInterest_;
}

void ArpShimSm::handleInitialized() {
  FENNEL_ASSERT(v4() || v6());
  FENNEL_ASSERT(arpVrfStatusDir());
  FENNEL_ASSERT(arpStatus());
  GLIMMER_TRACE(tr, lvShim,
                __PRETTY_FUNCTION__ << " v4: " << v4_ << " v6: " << v6_ << " vrf(s) of interest: "
                                    << (vrfOfInterest_.empty() ? Brio::String("<ALL>") : vrfOfInterest_));
  vrfNameToIdMap_ = Vrf::VrfIdMap::NameToIdMap::nameToIdMapFactory("ArpShimSm:vrfNameToIdMap");
  nameReactor_ = std::make_unique<NameReactor>(vrfNameToIdMap_, this);
  vrfIdReverseMapper_ = Vrf::VrfIdMap::ReverseMapper::reverseMapperFactory(vrfIdMap_, vrfNameToIdMap_);
  // Attached after the mapper, so it runs once the mapper has both mapped
  // the name and cached it.
  flushReactor_ = std::make_unique<FlushReactor>(vrfIdMap_, this);
  vrfIdReverseMapper_->handleInitialized();
  // Names heard while the mapper read the table are covered by the full
  // pass below.
  pendingNames_.clear();
  initialized_ = true;
  arpReactor_ = std::make_unique<ArpReactor>(arpShoal_, this);
  arpShoal_->arpEntryForEach([this](Table::ArpKey const&, Table::ArpEntry const& e) { addArpOrNeighEntry(e, true); });
  arpShoal_->neighborEntryForEach(
      [this](Table::ArpKey const&, Table::ArpEntry const& e) { addArpOrNeighEntry(e, false); });
}

void ArpShimSm::flushPendingNames() {
  while (!pendingNames_.empty()) {
    Brio::String const name = *pendingNames_.begin();
    pendingNames_.erase(pendingNames_.begin());
    handleVrfName(name);
  }
}

void ArpShimSm::handleArpEntry(Table::ArpKey const& key) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " key: " << key);
  Table::ArpEntry const entry = arpShoal_->arpEntry(key);
  if (!entry) {
    delArpOrNeighEntry(key, true);
  } else {
    addArpOrNeighEntry(entry, true);
  }
}

void ArpShimSm::handleNeighEntry(Table::ArpKey const& key) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " key: " << key);
  Table::ArpEntry const entry = arpShoal_->neighborEntry(key);
  if (!entry) {
    delArpOrNeighEntry(key, false);
  } else {
    addArpOrNeighEntry(entry, false);
  }
}

NeighborDir* ArpShimSm::vrfDir(Brio::String const& name, bool create) {
  if (NeighborDir* dir = arpVrfStatusDir_->vrfStatus(name)) return dir;
  if (!create) return nullptr;
  GLIMMER_TRACE(tr, lvShim, "  creating vrfStatus for vrf " << name);
  if (!vrfOfInterest_.empty()) {
    arpVrfStatusDir_->vrfStatusIs(name, arpStatus_);
    return arpStatus_.ptr();
  }
  return arpVrfStatusDir_->vrfStatusIs(name).ptr();
}

bool ArpShimSm::mirrored(Table::ArpKey const& key, bool isArp, Brio::String* vrfName) const {
  if (!familyWanted(isArp)) {
    GLIMMER_TRACE(tr, lvShim, "  don't care about this IP version");
    return false;
  }
  *vrfName = vrfIdReverseMapper_->vrfIdToNameCache(key.vrfId());
  if (vrfName->empty()) {
    GLIMMER_TRACE(tr, lvShim, "  can't find vrf name for vrf id: " << key.vrfId());
    return false;
  }
  if (!isVrfOfInterest(*vrfName)) {
    GLIMMER_TRACE(tr, lvShim, " update not for vrf of interest: " << *vrfName);
    return false;
  }
  return true;
}

void ArpShimSm::addArpOrNeighEntry(Table::ArpEntry const& entry, bool isArp) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " arp entry: " << entry);
  Table::ArpKey const& key = entry.key();
  Brio::String vrfName;
  if (!mirrored(key, isArp, &vrfName)) return;
  NeighborDir* dir = vrfDir(vrfName, true);
  Brio::Ptr<ArpIntfStatus> intf(dir->arpIntfStatus(key.intfId()));
  if (!intf) {
    GLIMMER_TRACE(tr, lvShim, "  creating arpIntfStatus for " << key.intfId().name());
    intf = dir->arpIntfStatusIs(key.intfId());
  }
  if (isArp) {
    IpAddr const addr = key.addr().v4Addr();
    intf->arpEntryIs(addr, ArpEntryStatus(addr, entry.ethAddr(), entry.source(), entry.isStatic()));
  } else {
    Ip6Addr const addr = key.addr().v6Addr();
    intf->ip6NeighborEntryIs(addr, NeighborEntryStatus(addr, entry.ethAddr(), entry.isStatic(), entry.source()));
  }
}

void ArpShimSm::delArpOrNeighEntry(Table::ArpKey const& key, bool isArp) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " key: " << key);
  Brio::String vrfName;
  if (!mirrored(key, isArp, &vrfName)) return;
  NeighborDir* dir = vrfDir(vrfName, false);
  ArpIntfStatus* intf = dir ? dir->arpIntfStatus(key.intfId()) : nullptr;
  if (!intf) {
    GLIMMER_TRACE(tr, lvShim, "can't find arpIntfStatus entry for " << key.intfId().name());
    return;
  }
  if (isArp) {
    intf->arpEntryDel(key.addr().v4Addr());
  } else {
    intf->ip6NeighborEntryDel(key.addr().v6Addr());
  }
  if (intf->empty()) dir->arpIntfStatusDel(key.intfId());
}

void ArpShimSm::handleVrfName(Brio::String const& name) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " vrf: " << name);
  if (!isVrfOfInterest(name)) {
    GLIMMER_TRACE(tr, lvShim, " update not for vrf of interest: " << name);
    return;
  }
  if (vrfNameToIdMap_->vrfNameToIdHas(name)) {
    handleVrfCreate(name, vrfNameToIdMap_->vrfNameToId(name));
  } else {
    handleVrfDelete(name);
  }
}

void ArpShimSm::handleVrfCreate(Brio::String const& name, VrfId id) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " vrf: " << name << " id: " << id);
  if (!initialized_) {
    GLIMMER_TRACE(tr, lvShim, "  shim sm not initialized");
    return;
  }
  vrfDir(name, true);
  if (v4_) {
    arpShoal_->arpEntryForEach([&](Table::ArpKey const& key, Table::ArpEntry const& e) {
      if (key.vrfId() != id) return;
      GLIMMER_TRACE(tr, lvShim, "  adding arp entry on vrf " << name << ", " << key.intfId().name() << ": "
                                                                << key.addr());
      addArpOrNeighEntry(e, true);
    });
  }
  if (v6_) {
    arpShoal_->neighborEntryForEach([&](Table::ArpKey const& key, Table::ArpEntry const& e) {
      if (key.vrfId() != id) return;
      GLIMMER_TRACE(tr, lvShim, "  adding neighbor entry on vrf " << name << ", " << key.intfId().name() << ": "
                                                                     << key.addr());
      addArpOrNeighEntry(e, false);
    });
  }
}

void ArpShimSm::handleVrfDelete(Brio::String const& name) {
  GLIMMER_TRACE(tr, lvShim, __PRETTY_FUNCTION__ << " vrf: " << name);
  NeighborDir* dir = arpVrfStatusDir_->vrfStatus(name);
  if (!dir) {
    GLIMMER_TRACE(tr, lvShim, "  can't find vrfStatus entry for vrf " << name);
    return;
  }
  // The VRF's interfaces go with it, also from arpStatus, which outlives
  // its entry in the directory when it is the VRF of interest.
  dir->arpIntfStatusDelAll();
  arpVrfStatusDir_->vrfStatusDel(name);
}

}  // namespace Arp
