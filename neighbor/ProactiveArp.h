// Arp::ProactiveArp: agents that want an address resolved before traffic
// needs it publish requests for the neighbour-resolution agent, one shared
// table per client.
//
//   AllClientsConfig --clientConfig[name]--> ClientConfig (Shoal table, one per client)
//       request  Entry (address, interface) -> Request (that key, triggerResolution)
//   OpIntfIdClientsConfig --clientConfig[name]--> OpIntfIdClientConfig
//       request  OpIntfIdEntry (address, interface, VRF id) -> OpIntfIdRequest
//
// A client writes its table (mounted as the writer); the resolving agent
// mounts every client's table as a reader and hears each changed key. The
// agent resolves a key when it appears and again each time its
// triggerResolution changes; an equal value is no change, so a client asks
// again by writing a new value (a counter it increments).
//
// The directories do not own their tables: a table lives as long as somebody
// holds it (its client, the agent's reactors), and when the last reference
// goes the table tells its directory through its zero-references notifiee,
// which drops the name and notifies. So an agent that stops following a
// client loses no memory to it, and nobody has to remember to delete names.
//
// Slots: an Entry encodes in at most 96 bytes (20 address, an interface name
// of at most 76), a Request in 104; the OpIntfId forms add 4 for the VRF id.
// Capacity per client is fixed when its writer creates the table.
#pragma once

#include <Brio/Entity.h>
#include <Corvid/VrfIdMap.h>
#include <Shoal/Shoal.h>
#include <neighbor/ArpTypes.h>

#include <map>
#include <utility>

namespace Arp::ProactiveArp {

using Vrf::VrfIdMap::VrfId;

// ---- requests -------------------------------------------------------------------

struct EntryTag {
  static constexpr char typeName[] = "Arp::ProactiveArp::Entry";
};
using Entry = AddrOnIntf<EntryTag>;
inline constexpr auto const& entryRecord = addrOnIntfRecord<EntryTag>;
BRIO_RECORD_TEXT_FORMS(Entry, entryRecord)
BRIO_RECORD_ATTR_LOG(Entry, entryRecord)

// A request carries its own key; requests order by key, then value.
class Request {
 public:
  Request() = default;
  Request(Entry key, U64 triggerResolution) : key_(std::move(key)), triggerResolution_(triggerResolution) {}
  BRIO_VALUE_FIELD(Entry, key)
  BRIO_VALUE_FIELD(U64, triggerResolution)
  ARP_RECORD_OPS(Request)
};
inline constexpr auto requestRecord =
    Brio::record<Request>("Arp::ProactiveArp::Request", Brio::field("key", &Request::key),
                          Brio::field("triggerResolution", &Request::triggerResolution));
ARP_RECORD(Request, requestRecord)
BRIO_RECORD_ATTR_LOG(Request, requestRecord)

// An Entry that names its VRF, for clients whose interface alone does not.
class OpIntfIdEntry {
 public:
  OpIntfIdEntry() = default;
  OpIntfIdEntry(IpGenAddr ipGenAddr, IntfId intfId, VrfId vrfId)
      : ipGenAddr_(ipGenAddr), intfId_(std::move(intfId)), vrfId_(vrfId) {}
  BRIO_VALUE_FIELD(IpGenAddr, ipGenAddr)
  BRIO_VALUE_FIELD(IntfId, intfId)
  BRIO_VALUE_FIELD(VrfId, vrfId)
  ARP_RECORD_OPS(OpIntfIdEntry)
};
inline constexpr auto opIntfIdEntryRecord = Brio::record<OpIntfIdEntry>(
    "Arp::ProactiveArp::OpIntfIdEntry", Brio::field("ipGenAddr", &OpIntfIdEntry::ipGenAddr),
    Brio::field("intfId", &OpIntfIdEntry::intfId), Brio::field("vrfId", &OpIntfIdEntry::vrfId));
ARP_RECORD(OpIntfIdEntry, opIntfIdEntryRecord)
BRIO_RECORD_ATTR_LOG(OpIntfIdEntry, opIntfIdEntryRecord)

class OpIntfIdRequest {
 public:
  OpIntfIdRequest() = default;
  OpIntfIdRequest(OpIntfIdEntry key, U64 triggerResolution)
      : key_(std::move(key)), triggerResolution_(triggerResolution) {}
  BRIO_VALUE_FIELD(OpIntfIdEntry, key)
  BRIO_VALUE_FIELD(U64, triggerResolution)
  ARP_RECORD_OPS(OpIntfIdRequest)
};
inline constexpr auto opIntfIdRequestRecord = Brio::record<OpIntfIdRequest>(
    "Arp::ProactiveArp::OpIntfIdRequest", Brio::field("key", &OpIntfIdRequest::key),
    Brio::field("triggerResolution", &OpIntfIdRequest::triggerResolution));
ARP_RECORD(OpIntfIdRequest, opIntfIdRequestRecord)
BRIO_RECORD_ATTR_LOG(OpIntfIdRequest, opIntfIdRequestRecord)

}  // namespace Arp::ProactiveArp

CORVID_STD_HASH(Arp::ProactiveArp::Entry);
CORVID_STD_HASH(Arp::ProactiveArp::Request);
CORVID_STD_HASH(Arp::ProactiveArp::OpIntfIdEntry);
CORVID_STD_HASH(Arp::ProactiveArp::OpIntfIdRequest);

namespace Arp::ProactiveArp {

// ---- one client's table -----------------------------------------------------------

// Told when the last reference to table T goes, before T is deleted: the
// directory that lists T drops it. T is still whole during the call.
template <class T>
class ZeroReferencesNotifiee {
 public:
  virtual void handleZeroReferences(T* table) = 0;

 protected:
  ~ZeroReferencesNotifiee() = default;
};

// The shape both client tables share: Self is the table type, E its key,
// R its request. Write with requestIs/requestDel, publish with
// requestCommit (or at the end of the loop's turn); requestNotify(key)
// announces a key again whether or not it changed.
template <class Self, class E, class R>
class ClientTable : public Shoal::Table {
 public:
  class Notifiee : public Shoal::TableNotifiee<Self> {
   public:
    virtual void handleRequest(E const& key) {}

   protected:
    using Shoal::TableNotifiee<Self>::TableNotifiee;
  };

  static constexpr U32 defaultCapacity = 4096;

  // The request under `key`, or the default request when there is none.
  R request(E const& key) const { return request_.get(key); }
  bool hasRequest(E const& key) const { return request_.contains(key); }
  U32 requests() const { return request_.size(); }
  // Stores the request under its own key; false when the table is full.
  // Raises Brio::SizeException for a request that does not fit its slot
  // (an interface name over 72 bytes).
  bool requestIs(R const& request) { return request_.set(request.key(), request); }
  bool requestDel(E const& key) { return request_.del(key); }
  void requestDelAll() { request_.delAll(); }
  void requestCommit() { commit(); }
  void requestNotify(E const& key) const { request_.announce(key); }
  std::map<E, R> requestSnapshot() const { return request_.snapshot(); }

  ZeroReferencesNotifiee<Self>* zeroReferencesNotifiee() const { return zeroReferencesNotifiee_; }
  void zeroReferencesNotifieeIs(ZeroReferencesNotifiee<Self>* n) { zeroReferencesNotifiee_ = n; }

 protected:
  ClientTable(Brio::String name, char const* typeName, U32 capacity, U32 keyMax, U32 valueMax)
      : Shoal::Table(std::move(name), typeName), request_(this, "request", keyMax, valueMax, capacity) {}

  void zeroReferencesIs() override {
    auto* n = std::exchange(zeroReferencesNotifiee_, nullptr);
    if (!n) {
      delete this;
      return;
    }
    // Held across the call, so a handler may look at the table; dropping
    // this reference deletes it, unless a handler kept one of its own.
    Brio::Ptr<Self> keep(static_cast<Self*>(this));
    n->handleZeroReferences(keep.ptr());
  }

 private:
  Shoal::Collection<E, R, Notifiee, &Notifiee::handleRequest> request_;
  ZeroReferencesNotifiee<Self>* zeroReferencesNotifiee_ = nullptr;
};

class ClientConfig final : public ClientTable<ClientConfig, Entry, Request> {
 public:
  static constexpr char typeNameText[] = "Arp::ProactiveArp::ClientConfig";
  static constexpr U32 keyMax = 96;
  static constexpr U32 valueMax = 104;
  static Brio::Ptr<ClientConfig> clientConfigFactory(Brio::String name, U32 capacity = defaultCapacity);

 private:
  ClientConfig(Brio::String name, U32 capacity)
      : ClientTable(std::move(name), typeNameText, capacity, keyMax, valueMax) {}
};

class OpIntfIdClientConfig final : public ClientTable<OpIntfIdClientConfig, OpIntfIdEntry, OpIntfIdRequest> {
 public:
  static constexpr char typeNameText[] = "Arp::ProactiveArp::OpIntfIdClientConfig";
  static constexpr U32 keyMax = 100;
  static constexpr U32 valueMax = 108;
  static Brio::Ptr<OpIntfIdClientConfig> opIntfIdClientConfigFactory(Brio::String name,
                                                                     U32 capacity = defaultCapacity);

 private:
  OpIntfIdClientConfig(Brio::String name, U32 capacity)
      : ClientTable(std::move(name), typeNameText, capacity, keyMax, valueMax) {}
};

// ---- the clients' directory ---------------------------------------------------------

// Client name -> that client's table, listed while anybody holds it (see
// the top of this file). Self is the directory type, C its table type.
template <class Self, class C>
class ClientsDir : public Brio::Entity, private ZeroReferencesNotifiee<C> {
 public:
  class Notifiee : public Brio::EntityNotifiee<Self> {
   public:
    virtual void handleClientConfig(Brio::String const& name) {}

   protected:
    using Brio::EntityNotifiee<Self>::EntityNotifiee;
  };

  // The client's table, or null.
  C* clientConfig(Brio::String const& name) const {
    auto it = clientConfig_.find(name);
    return it == clientConfig_.end() ? nullptr : it->second;
  }
  std::map<Brio::String, C*> const& clientConfigs() const { return clientConfig_; }
  // The client's table, made (and notified) when absent. The directory
  // keeps no reference: drop the answer and the name goes again.
  Brio::Ptr<C> clientConfigIs(Brio::String const& name, U32 capacity = C::defaultCapacity) {
    if (C* c = clientConfig(name)) return Brio::Ptr<C>(c);
    Brio::Ptr<C> c = make(name, capacity);
    c->zeroReferencesNotifieeIs(this);
    clientConfig_.emplace(name, c.ptr());
    this->notify(&Notifiee::handleClientConfig, name);
    return c;
  }
  // Unlists the client; its table lives on for whoever holds it.
  void clientConfigDel(Brio::String const& name) {
    auto it = clientConfig_.find(name);
    if (it == clientConfig_.end()) return;
    it->second->zeroReferencesNotifieeIs(nullptr);
    clientConfig_.erase(it);
    this->notify(&Notifiee::handleClientConfig, name);
  }
  void clientConfigDelAll() {
    while (!clientConfig_.empty()) clientConfigDel(Brio::String(clientConfig_.begin()->first));
  }

 protected:
  explicit ClientsDir(Brio::String name) : Entity(std::move(name)) {}
  ~ClientsDir() override {
    for (auto& [name, c] : clientConfig_) c->zeroReferencesNotifieeIs(nullptr);
  }
  virtual Brio::Ptr<C> make(Brio::String const& name, U32 capacity) = 0;

 private:
  void handleZeroReferences(C* table) override {
    auto it = clientConfig_.find(table->name());
    if (it == clientConfig_.end() || it->second != table) return;
    Brio::String const name = it->first;
    clientConfig_.erase(it);
    this->notify(&Notifiee::handleClientConfig, name);
  }

  std::map<Brio::String, C*> clientConfig_;
};

class AllClientsConfig final : public ClientsDir<AllClientsConfig, ClientConfig> {
 private:
  friend Brio::Ptr<AllClientsConfig> allClientsConfigFactory(Brio::String name);
  explicit AllClientsConfig(Brio::String name) : ClientsDir(std::move(name)) {}
  Brio::Ptr<ClientConfig> make(Brio::String const& name, U32 capacity) override {
    return ClientConfig::clientConfigFactory(name, capacity);
  }
};

Brio::Ptr<AllClientsConfig> allClientsConfigFactory(Brio::String name);

class OpIntfIdClientsConfig final : public ClientsDir<OpIntfIdClientsConfig, OpIntfIdClientConfig> {
 private:
  friend Brio::Ptr<OpIntfIdClientsConfig> opIntfIdClientsConfigFactory(Brio::String name);
  explicit OpIntfIdClientsConfig(Brio::String name) : ClientsDir(std::move(name)) {}
  Brio::Ptr<OpIntfIdClientConfig> make(Brio::String const& name, U32 capacity) override {
    return OpIntfIdClientConfig::opIntfIdClientConfigFactory(name, capacity);
  }
};

Brio::Ptr<OpIntfIdClientsConfig> opIntfIdClientsConfigFactory(Brio::String name);

}  // namespace Arp::ProactiveArp
