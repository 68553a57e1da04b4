// Arp::RibNextHop: the next hops the routing information base needs
// resolved, per VRF, and the neighbour-resolution agent's answers.
//
//   RequestSet (one per VRF)   request[Entry]  -> U32   set by the routing side
//   ResponseDir --vrf[name]--> ResponseSet
//                              response[Entry] -> bool  true once resolved
//
// Each collection notifies its Notifiee per key when an entry is added,
// changed or removed; writing the value an entry already has notifies
// nobody. Everything here lives in one process.
#pragma once

#include <Brio/Entity.h>
#include <neighbor/ArpTypes.h>

#include <map>

namespace Arp::RibNextHop {

struct EntryTag {
  static constexpr char typeName[] = "Arp::RibNextHop::Entry";
};
using Entry = AddrOnIntf<EntryTag>;
inline constexpr auto const& entryRecord = addrOnIntfRecord<EntryTag>;
BRIO_RECORD_TEXT_FORMS(Entry, entryRecord)
BRIO_RECORD_ATTR_LOG(Entry, entryRecord)

// The next hops one VRF's routes use, each with a value of the routing
// side's choosing (0 for an absent entry).
class RequestSet : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<RequestSet> {
   public:
    virtual void handleRequest(Entry const& entry) {}

   protected:
    using Brio::EntityNotifiee<RequestSet>::EntityNotifiee;
  };

  std::map<Entry, U32> const& requests() const { return request_; }
  U32 request(Entry const& entry) const;
  bool hasRequest(Entry const& entry) const { return request_.count(entry) != 0; }
  void requestIs(Entry const& entry, U32 value) { collectionIs(request_, entry, value, &Notifiee::handleRequest); }
  void requestDel(Entry const& entry) { collectionDel(request_, entry, &Notifiee::handleRequest); }
  void requestDelAll() { collectionDelAll(request_, &Notifiee::handleRequest); }

 private:
  friend Brio::Ptr<RequestSet> requestSetFactory(Brio::String name);
  explicit RequestSet(Brio::String name) : Entity(std::move(name)) {}
  std::map<Entry, U32> request_;
};

Brio::Ptr<RequestSet> requestSetFactory(Brio::String name);

// One VRF's answers: true when the next hop is resolved. An absent entry
// reads false: not (yet) resolved.
class ResponseSet : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ResponseSet> {
   public:
    virtual void handleResponse(Entry const& entry) {}

   protected:
    using Brio::EntityNotifiee<ResponseSet>::EntityNotifiee;
  };

  std::map<Entry, bool> const& responses() const { return response_; }
  bool response(Entry const& entry) const;
  bool hasResponse(Entry const& entry) const { return response_.count(entry) != 0; }
  void responseIs(Entry const& entry, bool resolved) {
    collectionIs(response_, entry, resolved, &Notifiee::handleResponse);
  }
  void responseDel(Entry const& entry) { collectionDel(response_, entry, &Notifiee::handleResponse); }
  void responseDelAll() { collectionDelAll(response_, &Notifiee::handleResponse); }

 private:
  friend Brio::Ptr<ResponseSet> responseSetFactory(Brio::String name);
  explicit ResponseSet(Brio::String name) : Entity(std::move(name)) {}
  std::map<Entry, bool> response_;
};

Brio::Ptr<ResponseSet> responseSetFactory(Brio::String name);

// VRF name -> that VRF's answers.
class ResponseDir : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<ResponseDir> {
   public:
    virtual void handleVrf(Brio::String const& vrfName) {}

   protected:
    using Brio::EntityNotifiee<ResponseDir>::EntityNotifiee;
  };

  std::map<Brio::String, Brio::Ptr<ResponseSet>> const& vrfs() const { return vrf_; }
  ResponseSet* vrf(Brio::String const& vrfName) const { return childAt(vrf_, vrfName); }
  // The VRF's answers, made when absent.
  Brio::Ptr<ResponseSet> vrfIs(Brio::String const& vrfName) {
    return childIs(vrf_, vrfName, &Notifiee::handleVrf, &responseSetFactory);
  }
  void vrfDel(Brio::String const& vrfName) { collectionDel(vrf_, vrfName, &Notifiee::handleVrf); }
  void vrfDelAll() { collectionDelAll(vrf_, &Notifiee::handleVrf); }

  // The starting state: the default VRF's answers present and empty, no
  // other VRF. The factory runs it; an agent runs it again when the routing
  // side restarts, since every answer it gave before is then void. The
  // default VRF is always there so that its routes, the common case, find
  // their answers without waiting for a VRF to be announced.
  void doInit();

 private:
  friend Brio::Ptr<ResponseDir> responseDirFactory(Brio::String name);
  explicit ResponseDir(Brio::String name) : Entity(std::move(name)) {}
  std::map<Brio::String, Brio::Ptr<ResponseSet>> vrf_;
};

Brio::Ptr<ResponseDir> responseDirFactory(Brio::String name);

}  // namespace Arp::RibNextHop

CORVID_STD_HASH(Arp::RibNextHop::Entry);
