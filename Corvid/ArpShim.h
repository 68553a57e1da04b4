// ArpShimSm: mirrors the flat shared neighbour table (Arp::Table::Status,
// keyed by VRF id, address and interface) into the per-VRF, per-interface
// status tree an agent reads:
//
//   arpShoal[ArpKey] --(VRF id -> name, family and VRF filters)-->
//     arpVrfStatusDir[vrf] -> NeighborDir[intf] -> ArpIntfStatus[addr]
//
// The VRF's NeighborDir is `arpStatus` itself when one VRF is of interest,
// and a directory made in `arpVrfStatusDir` per VRF otherwise. VRF ids are
// named through the VRF id table, followed with the shim's own reverse
// mapper. An entry whose id has no name yet is skipped; it is added when
// the VRF is named (handleVrfName -> handleVrfCreate walks the table).
//
// Ordering: the reverse mapper enters a new name in its name-to-id map
// (notifying this shim) before it caches the id's name, which is what
// addArpOrNeighEntry looks up. So the shim only notes the names it hears
// of, and acts on them once the mapper has finished with the table change
// that caused them (a second reactor on the VRF table, attached after the
// mapper's, flushes the noted names).
//
// Costs: one map lookup per entry change; a VRF appearing walks the table.
#pragma once

#include <Corvid/VrfIdMap.h>
#include <neighbor/ArpStatus.h>
#include <neighbor/ArpTable.h>

#include <set>

namespace Arp {

class ArpShimSm : public Brio::PtrInterface {
 public:
  using VrfId = Vrf::VrfIdMap::VrfId;

  Table::Status* arpShoal() const { return arpShoal_.ptr(); }
  Vrf::VrfIdMap::Status* vrfIdMap() const { return vrfIdMap_.ptr(); }
  Brio::String const& vrfOfInterest() const { return vrfOfInterest_; }
  bool v4() const { return v4_; }
  bool v6() const { return v6_; }
  NeighborDir* arpStatus() const { return arpStatus_.ptr(); }
  ArpVrfStatusDir* arpVrfStatusDir() const { return arpVrfStatusDir_.ptr(); }
  Vrf::VrfIdMap::ReverseMapper* vrfIdReverseMapper() const { return vrfIdReverseMapper_.ptr(); }
  Vrf::VrfIdMap::NameToIdMap* vrfNameToIdMap() const { return vrfNameToIdMap_.ptr(); }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleArpEntry(Table::ArpKey const& key);
  void handleNeighEntry(Table::ArpKey const& key);
  void handleVrfName(Brio::String const& name);
  void handleVrfCreate(Brio::String const& name, VrfId id);
  void handleVrfDelete(Brio::String const& name);
  void addArpOrNeighEntry(Table::ArpEntry const& entry, bool isArp);
  void delArpOrNeighEntry(Table::ArpKey const& key, bool isArp);
  bool isVrfOfInterest(Brio::String const& name) const;

  ~ArpShimSm() override;

 private:
  friend Brio::Ptr<ArpShimSm> arpShimSmFactory(Brio::Ptr<Table::Status> const&,
                                               Brio::Ptr<Vrf::VrfIdMap::Status> const&, Brio::String, bool, bool,
                                               Brio::Ptr<NeighborDir> const&, Brio::Ptr<ArpVrfStatusDir> const&);
  ArpShimSm(Brio::Ptr<Table::Status> const& arpShoal, Brio::Ptr<Vrf::VrfIdMap::Status> const& vrfIdMap,
            Brio::String vrfOfInterest, bool v4, bool v6, Brio::Ptr<NeighborDir> const& arpStatus,
            Brio::Ptr<ArpVrfStatusDir> const& arpVrfStatusDir);

  class ArpReactor : public Table::Status::Notifiee {
   public:
    ArpReactor(Brio::Ptr<Table::Status> const& t, ArpShimSm* shim) : Notifiee(t), shim_(shim) {}
    void handleArpEntry(Table::ArpKey const& key) override { shim_->handleArpEntry(key); }
    void handleNeighborEntry(Table::ArpKey const& key) override { shim_->handleNeighEntry(key); }

   private:
    ArpShimSm* shim_;
  };
  class NameReactor : public Vrf::VrfIdMap::NameToIdMap::Notifiee {
   public:
    NameReactor(Brio::Ptr<Vrf::VrfIdMap::NameToIdMap> const& m, ArpShimSm* shim) : Notifiee(m), shim_(shim) {}
    void handleVrfNameToId(Brio::String const& name) override { shim_->pendingNames_.insert(name); }

   private:
    ArpShimSm* shim_;
  };
  class FlushReactor : public Vrf::VrfIdMap::Status::Notifiee {
   public:
    FlushReactor(Brio::Ptr<Vrf::VrfIdMap::Status> const& s, ArpShimSm* shim) : Notifiee(s), shim_(shim) {}
    void handleVrfIdToName(VrfId const&) override { shim_->flushPendingNames(); }

   private:
    ArpShimSm* shim_;
  };

  void flushPendingNames();
  // The NeighborDir that holds a VRF's interfaces, made when `create`.
  NeighborDir* vrfDir(Brio::String const& name, bool create);
  bool familyWanted(bool isArp) const { return isArp ? v4_ : v6_; }
  // The family, naming and interest checks an entry passes to be mirrored
  // (each refusal traced); the VRF's name when it does.
  bool mirrored(Table::ArpKey const& key, bool isArp, Brio::String* vrfName) const;

  Brio::Ptr<Table::Status> arpShoal_;
  Brio::Ptr<Vrf::VrfIdMap::Status> vrfIdMap_;
  Brio::String vrfOfInterest_;
  bool v4_;
  bool v6_;
  Brio::Ptr<NeighborDir> arpStatus_;
  Brio::Ptr<ArpVrfStatusDir> arpVrfStatusDir_;
  Brio::Ptr<Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap_;
  Brio::Ptr<Vrf::VrfIdMap::ReverseMapper> vrfIdReverseMapper_;
  bool initialized_ = false;
  std::set<Brio::String> pendingNames_;
  std::unique_ptr<ArpReactor> arpReactor_;
  std::unique_ptr<NameReactor> nameReactor_;
  std::unique_ptr<FlushReactor> flushReactor_;
};

Brio::Ptr<ArpShimSm> arpShimSmFactory(Brio::Ptr<Table::Status> const& arpShoal,
                                      Brio::Ptr<Vrf::VrfIdMap::Status> const& vrfIdMap, Brio::String vrfOfInterest,
                                      bool v4, bool v6, Brio::Ptr<NeighborDir> const& arpStatus,
                                      Brio::Ptr<ArpVrfStatusDir> const& arpVrfStatusDir);

}  // namespace Arp
