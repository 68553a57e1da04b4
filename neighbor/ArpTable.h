// Arp::Table: the shared neighbour table. One agent writes every neighbour
// it learns (the kernel's, VXLAN's, EVPN's) into Status; any number of
// processes mount it as readers and hear each key change on their loop.
//
//   Status (Shoal table "Arp::Table::Status")
//     arpEntry       ArpKey -> ArpEntry   IPv4 neighbours
//     neighborEntry  ArpKey -> ArpEntry   IPv6 neighbours
//
// An absent key reads as the default ArpEntry, which converts to false.
// Slots: a key encodes in at most 104 bytes (4 VRF id, 20 address, an
// interface name of at most 76 bytes), an entry in at most 112. Capacity is
// fixed when the writer creates the table (defaultCapacity per collection
// unless the factory is told otherwise); a slot costs about 230 bytes of
// shared memory, so the default table takes some 7.5 MB.
#pragma once

#include <Corvid/VrfIdMap.h>
#include <Shoal/Shoal.h>
#include <neighbor/ArpTypes.h>

namespace Arp::Table {

using Vrf::VrfIdMap::VrfId;

// The key of both collections: VRF id, address, interface. The default key
// has the null VRF id (16777215), not the default VRF's 0.
class ArpKey {
 public:
  ArpKey() = default;
  ArpKey(VrfId vrfId, IpGenAddr addr, IntfId intfId) : vrfId_(vrfId), addr_(addr), intfId_(std::move(intfId)) {}
  BRIO_VALUE_FIELD(VrfId, vrfId, VrfId::null())
  BRIO_VALUE_FIELD(IpGenAddr, addr)
  BRIO_VALUE_FIELD(IntfId, intfId)

  // Brio::Hash over the VRF id, the address's 16-byte IPv6 hash (IPv4
  // addresses sit in its first word) and the interface id's hash.
  U32 hash(U32 seed = 0) const {
    return Brio::Hash(seed).mix(vrfId_.value()).mix(addr_.rawAddr().hash()).mix(intfId_.hash()).result();
  }
  friend bool operator==(ArpKey const&, ArpKey const&) = default;
  friend std::strong_ordering operator<=>(ArpKey const&, ArpKey const&) = default;
};

inline constexpr auto arpKeyRecord =
    Brio::record<ArpKey>("Arp::Table::ArpKey", Brio::field("vrfId", &ArpKey::vrfId), Brio::field("addr", &ArpKey::addr),
                         Brio::field("intfId", &ArpKey::intfId));
BRIO_RECORD_TEXT_FORMS(ArpKey, arpKeyRecord)
BRIO_RECORD_ATTR_LOG(ArpKey, arpKeyRecord)

// One neighbour: its key, link-layer address, whether it was configured
// statically, and who learnt it.
class ArpEntry {
 public:
  ArpEntry() = default;
  ArpEntry(ArpKey key, EthAddr ethAddr, bool isStatic, ArpSource source)
      : key_(std::move(key)), ethAddr_(ethAddr), isStatic_(isStatic), source_(source) {}
  BRIO_VALUE_FIELD(ArpKey, key)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(bool, isStatic)
  BRIO_VALUE_FIELD(ArpSource, source)

  // True for anything but the default entry (the value of an absent key).
  explicit operator bool() const { return !(*this == ArpEntry()); }
  // One line for table dumps: "<vrfId> <addr> <intf> <mac> static|dynamic <source>".
  Brio::String shoalString() const;

  U32 hash(U32 seed = 0) const;
  friend bool operator==(ArpEntry const&, ArpEntry const&) = default;
  friend std::strong_ordering operator<=>(ArpEntry const&, ArpEntry const&) = default;
};

inline constexpr auto arpEntryRecord = Brio::record<ArpEntry>(
    "Arp::Table::ArpEntry", Brio::field("key", &ArpEntry::key), Brio::field("ethAddr", &ArpEntry::ethAddr),
    Brio::field("isStatic", &ArpEntry::isStatic), Brio::field("source", &ArpEntry::source));
inline U32 ArpEntry::hash(U32 seed) const { return arpEntryRecord.hash(*this, seed); }
BRIO_RECORD_TEXT_FORMS(ArpEntry, arpEntryRecord)
BRIO_RECORD_ATTR_LOG(ArpEntry, arpEntryRecord)

}  // namespace Arp::Table

CORVID_STD_HASH(Arp::Table::ArpKey);
CORVID_STD_HASH(Arp::Table::ArpEntry);

namespace Arp::Table {

class Status : public Shoal::Table {
 public:
  class Notifiee : public Shoal::TableNotifiee<Status> {
   public:
    virtual void handleArpEntry(ArpKey const& key) {}
    virtual void handleNeighborEntry(ArpKey const& key) {}

   protected:
    using Shoal::TableNotifiee<Status>::TableNotifiee;
  };

  static constexpr char typeNameText[] = "Arp::Table::Status";
  static constexpr U32 keyMax = 104;
  static constexpr U32 entryMax = 112;
  // Per collection: the hardware's default table size, rounded up.
  static constexpr U32 defaultCapacity = 16384;
  static Brio::Ptr<Status> statusFactory(Brio::String name, U32 capacity = defaultCapacity);

  ArpEntry arpEntry(ArpKey const& key) const { return arpEntry_.get(key); }
  U32 arpEntries() const { return arpEntry_.size(); }
  // Stores the entry under its own key; false when the table is full.
  bool arpEntryIs(ArpEntry const& entry) { return arpEntry_.set(entry.key(), entry); }
  bool arpEntryDel(ArpKey const& key) { return arpEntry_.del(key); }
  void arpEntryDelAll() { arpEntry_.delAll(); }
  void arpEntryCommit() { commit(); }
  void arpEntryNotify(ArpKey const& key) const { arpEntry_.announce(key); }
  template <class F>
  void arpEntryForEach(F&& f) const {
    arpEntry_.forEach(std::forward<F>(f));
  }

  ArpEntry neighborEntry(ArpKey const& key) const { return neighborEntry_.get(key); }
  U32 neighborEntries() const { return neighborEntry_.size(); }
  bool neighborEntryIs(ArpEntry const& entry) { return neighborEntry_.set(entry.key(), entry); }
  bool neighborEntryDel(ArpKey const& key) { return neighborEntry_.del(key); }
  void neighborEntryDelAll() { neighborEntry_.delAll(); }
  void neighborEntryCommit() { commit(); }
  void neighborEntryNotify(ArpKey const& key) const { neighborEntry_.announce(key); }
  template <class F>
  void neighborEntryForEach(F&& f) const {
    neighborEntry_.forEach(std::forward<F>(f));
  }

 protected:
  Status(Brio::String name, U32 capacity)
      : Shoal::Table(std::move(name), typeNameText),
        arpEntry_(this, "arpEntry", keyMax, entryMax, capacity),
        neighborEntry_(this, "neighborEntry", keyMax, entryMax, capacity) {}

 private:
  Shoal::Collection<ArpKey, ArpEntry, Notifiee, &Notifiee::handleArpEntry> arpEntry_;
  Shoal::Collection<ArpKey, ArpEntry, Notifiee, &Notifiee::handleNeighborEntry> neighborEntry_;
};

}  // namespace Arp::Table
