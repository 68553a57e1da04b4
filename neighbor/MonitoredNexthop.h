// Arp::MonitoredNexthop: next hops that clients want the neighbour-resolution
// agent to keep resolved. Each client fills its own input; the agent merges
// every client's input into one aggregate per VRF, recording which clients
// asked for each next hop.
//
//   Input::VrfStatusDir --vrfStatus[vrf]--> Input::Status --nextHop[Entry]--> NexthopReqEntry
//   VrfStatusDir        --vrfStatus[vrf]--> Status        --nextHop[Entry]--> NexthopAggEntry
//                                                             client[name] -> bool
//
// A next hop is resolved when it appears and again each time its
// triggerResolution changes; writing the value it already has is no change
// and notifies nobody, so a client asks again with a new value. Collections
// of child entities are filled with xIs(key), which makes the child when
// absent and returns it; lookups answer null for an absent key. Everything
// here lives in one process.
#pragma once

#include <Brio/Entity.h>
#include <neighbor/ArpTypes.h>

#include <map>

namespace Arp::MonitoredNexthop {

struct EntryTag {
  static constexpr char typeName[] = "Arp::MonitoredNexthop::Entry";
};
using Entry = AddrOnIntf<EntryTag>;
inline constexpr auto const& entryRecord = addrOnIntfRecord<EntryTag>;
BRIO_RECORD_TEXT_FORMS(Entry, entryRecord)
BRIO_RECORD_ATTR_LOG(Entry, entryRecord)

// One client's request to watch a next hop.
class NexthopReqEntry : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<NexthopReqEntry> {
   public:
    virtual void handleTriggerResolution() {}

   protected:
    using Brio::EntityNotifiee<NexthopReqEntry>::EntityNotifiee;
  };
  static Brio::Ptr<NexthopReqEntry> nexthopReqEntryFactory(Entry const& entry);

  Entry const& entry() const { return entry_; }
  U64 triggerResolution() const { return triggerResolution_; }
  void triggerResolutionIs(U64 v) { attributeIs(triggerResolution_, v, &Notifiee::handleTriggerResolution); }

 protected:
  explicit NexthopReqEntry(Entry const& entry);

 private:
  Entry entry_;
  U64 triggerResolution_ = 0;
};

// The merged request: the next hop, its latest trigger, and every client
// that asks for it (the flag is the client's own, kept for the agent).
class NexthopAggEntry : public NexthopReqEntry {
 public:
  class Notifiee : public NexthopReqEntry::Notifiee {
   public:
    virtual void handleClient(Brio::String const& name) {}
    NexthopAggEntry* notifier() const { return static_cast<NexthopAggEntry*>(NexthopReqEntry::Notifiee::notifier()); }
    void notifierIs(Brio::Ptr<NexthopAggEntry> const& e) { NexthopReqEntry::Notifiee::notifierIs(e); }

   protected:
    Notifiee() = default;
    explicit Notifiee(Brio::Ptr<NexthopAggEntry> const& e) : NexthopReqEntry::Notifiee(e) {}
  };
  static Brio::Ptr<NexthopAggEntry> nexthopAggEntryFactory(Entry const& entry);

  std::map<Brio::String, bool> const& clients() const { return client_; }
  bool hasClient(Brio::String const& name) const { return client_.count(name) != 0; }
  // The client's flag; false for a client that is not listed.
  bool client(Brio::String const& name) const;
  // Adds the client or changes its flag; an unchanged flag notifies nobody.
  void clientIs(Brio::String const& name, bool flag) { collectionIs(client_, name, flag, &Notifiee::handleClient); }
  // Notifies only when the client was listed.
  void clientDel(Brio::String const& name) { collectionDel(client_, name, &Notifiee::handleClient); }
  void clientDelAll() { collectionDelAll(client_, &Notifiee::handleClient); }

 private:
  explicit NexthopAggEntry(Entry const& entry) : NexthopReqEntry(entry) {}
  std::map<Brio::String, bool> client_;
};

// The shape shared by Status and Input::Status: Entry -> child entity C,
// made by Make. Self is the concrete type.
template <class Self, class C, Brio::Ptr<C> (*Make)(Entry const&)>
class NextHopSet : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Self> {
   public:
    virtual void handleNextHop(Entry const& entry) {}

   protected:
    using Brio::EntityNotifiee<Self>::EntityNotifiee;
  };
  static Brio::Ptr<Self> statusFactory(Brio::String name) { return Brio::Ptr<Self>(new Self(std::move(name))); }

  std::map<Entry, Brio::Ptr<C>> const& nextHops() const { return nextHop_; }
  C* nextHop(Entry const& entry) const { return childAt(nextHop_, entry); }
  // The next hop's entry, made when absent.
  Brio::Ptr<C> nextHopIs(Entry const& entry) { return childIs(nextHop_, entry, &Notifiee::handleNextHop, Make); }
  void nextHopDel(Entry const& entry) { collectionDel(nextHop_, entry, &Notifiee::handleNextHop); }
  void nextHopDelAll() { collectionDelAll(nextHop_, &Notifiee::handleNextHop); }

 protected:
  explicit NextHopSet(Brio::String name) : Entity(std::move(name)) {}

 private:
  std::map<Entry, Brio::Ptr<C>> nextHop_;
};

// VRF name -> that VRF's set S. Self is the concrete type.
template <class Self, class S>
class VrfDir : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Self> {
   public:
    virtual void handleVrfStatus(Brio::String const& vrfName) {}

   protected:
    using Brio::EntityNotifiee<Self>::EntityNotifiee;
  };
  static Brio::Ptr<Self> vrfStatusDirFactory(Brio::String name) { return Brio::Ptr<Self>(new Self(std::move(name))); }

  std::map<Brio::String, Brio::Ptr<S>> const& vrfStatuses() const { return vrfStatus_; }
  S* vrfStatus(Brio::String const& vrfName) const { return childAt(vrfStatus_, vrfName); }
  // The VRF's set, made when absent.
  Brio::Ptr<S> vrfStatusIs(Brio::String const& vrfName) {
    return childIs(vrfStatus_, vrfName, &Notifiee::handleVrfStatus, &S::statusFactory);
  }
  void vrfStatusDel(Brio::String const& vrfName) { collectionDel(vrfStatus_, vrfName, &Notifiee::handleVrfStatus); }
  void vrfStatusDelAll() { collectionDelAll(vrfStatus_, &Notifiee::handleVrfStatus); }

 protected:
  explicit VrfDir(Brio::String name) : Entity(std::move(name)) {}

 private:
  std::map<Brio::String, Brio::Ptr<S>> vrfStatus_;
};

// The merged next hops of one VRF.
class Status final : public NextHopSet<Status, NexthopAggEntry, &NexthopAggEntry::nexthopAggEntryFactory> {
  friend NextHopSet;
  using NextHopSet::NextHopSet;
};

class VrfStatusDir final : public VrfDir<VrfStatusDir, Status> {
  friend VrfDir;
  using VrfDir::VrfDir;
};

namespace Input {

// One client's next hops in one VRF.
class Status final : public NextHopSet<Status, NexthopReqEntry, &NexthopReqEntry::nexthopReqEntryFactory> {
  friend NextHopSet;
  using NextHopSet::NextHopSet;
};

class VrfStatusDir final : public VrfDir<VrfStatusDir, Status> {
  friend VrfDir;
  using VrfDir::VrfDir;
};

}  // namespace Input

}  // namespace Arp::MonitoredNexthop

CORVID_STD_HASH(Arp::MonitoredNexthop::Entry);
