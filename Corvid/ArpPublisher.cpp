#include <Corvid/ArpPublisher.h>
#include <linux/neighbour.h>

namespace Arp {

ArpPublisher::ArpPublisher(Brio::Ptr<Vrf::VrfIdMap::Writer> vrfs, Brio::Ptr<Table::Status> table, VrfOf vrfOf)
    : vrfs_(std::move(vrfs)), table_(std::move(table)), vrfOf_(std::move(vrfOf)) {}

void ArpPublisher::handleChange(Corvid::RtnlMessage const& m, bool) {
  if (m.kind != Corvid::RtnlMessage::Kind::neigh || !mirror_) return;
  if (!m.neigh.addr.isV4() && !m.neigh.addr.isV6()) return;
  Brio::String const intf = mirror_->intfName(m.neigh.ifIndex);
  if (intf.empty()) return;
  Brio::String const vrf = vrfOf_ ? vrfOf_(intf) : Brio::String("default");
  Table::ArpKey const key(vrfs_->vrfIs(vrf), m.neigh.addr, Corvid::IntfId(intf));
  bool const v4 = m.neigh.addr.isV4();
  // Entries without a link-layer address (being resolved, or failed) are
  // not neighbours anyone can forward to; NOARP ones (multicast, the
  // kernel's own mappings) are not resolved neighbours either, and `ip
  // neigh show` hides them too.
  if (m.deleted || !m.neigh.hasMac || (m.neigh.state & NUD_NOARP)) {
    v4 ? table_->arpEntryDel(key) : table_->neighborEntryDel(key);
    return;
  }
  Table::ArpEntry const entry(key, m.neigh.mac, (m.neigh.state & NUD_PERMANENT) != 0,
                              ArpSource(ArpSource::ArpSourceId::kernel));
  if (!(v4 ? table_->arpEntryIs(entry) : table_->neighborEntryIs(entry))) ++refused_;
}

}  // namespace Arp
