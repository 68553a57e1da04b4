// ArpPublisher: publishes a namespace's neighbours, as an RtnlMirror follows
// them, into the shared neighbour table (Arp::Table::Status), so that every
// other agent sees the kernel's neighbours through the table.
//
// Each resolved neighbour (one with a link-layer address, not NOARP) is
// written under (VRF id, address, interface); a neighbour that is deleted,
// swept after a resync, or loses its address is removed. The VRF of an
// interface comes from `vrfOf` (default: "default"), and its id from the
// VRF id map's writer. Writes are staged; the table's writer commits them at
// the end of the loop's turn (or the owner calls commit()).
// Cost per change: one VRF lookup, one table write.
#pragma once

#include <Corvid/RtnlMirror.h>
#include <Corvid/VrfIdMap.h>
#include <neighbor/ArpTable.h>

#include <functional>

namespace Arp {

class ArpPublisher : public Corvid::RtnlMirror::Listener {
 public:
  using VrfOf = std::function<Brio::String(Brio::String const& intfName)>;

  ArpPublisher(Brio::Ptr<Vrf::VrfIdMap::Writer> vrfs, Brio::Ptr<Table::Status> table, VrfOf vrfOf = nullptr);

  // The mirror whose interface names key the entries; set before it starts.
  void mirrorIs(Corvid::RtnlMirror const* mirror) { mirror_ = mirror; }
  Table::Status* table() const { return table_.ptr(); }
  // Changes refused because the table was full.
  U32 refused() const { return refused_; }

  void handleChange(Corvid::RtnlMessage const& m, bool swept) override;

 private:
  Brio::Ptr<Vrf::VrfIdMap::Writer> vrfs_;
  Brio::Ptr<Table::Status> table_;
  VrfOf vrfOf_;
  Corvid::RtnlMirror const* mirror_ = nullptr;
  U32 refused_ = 0;
};

}  // namespace Arp
