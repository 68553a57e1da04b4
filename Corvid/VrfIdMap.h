// The VRF id map: one small numeric id per VRF name, shared by every process.
//
// One process owns allocation (Writer): it keeps name -> id in its own
// NameToIdMap and publishes id -> entry in the shared table Status (a Shoal
// table of maxVrfs entries). Readers follow that table with a ReverseMapper,
// which keeps an id -> name cache and, optionally, a NameToIdMap current.
// The last id handed out lives in a 4-byte Shoal segment, so ids keep
// rising across writer restarts and a released id is not reused until the
// counter comes round to it again.
//
//   Writer --vrfIs/vrfDel--> Status (shared: VrfId -> VrfEntry) ==> ReverseMapper (each reader)
//      |                                                              |
//      +-- NameToIdMap (its own)          vrfIdToNameCache, NameToIdMap (optional)
//
// Overflow: the table holds maxVrfs entries, the default VRF included. When
// vrfIs must add a name while the table already holds maxVrfs entries, the
// writer raises VRF_MAP_OVERFLOW (with maxVrfs as the count), consumes no
// id and answers VrfId::null().
#pragma once

#include <Brio/Entity.h>
#include <Brio/Ptr.h>
#include <Brio/String.h>
#include <Corvid/ValueSupport.h>
#include <Shoal/Shoal.h>

#include <array>
#include <functional>
#include <map>
#include <string>

namespace Vrf {

class Constants {
 public:
  static Brio::String defaultVrfName() { return Brio::String("default"); }
  static constexpr U32 maxVrfs() { return 2048; }
};

namespace VrfIdMap {

// A VRF id. The default value is null (16777215); valid() is false only for
// null. The text form is the decimal number.
class VrfId {
 public:
  constexpr VrfId() = default;
  constexpr explicit VrfId(U32 v) : value_(v) {}
  // Reads the decimal text; raises Brio::RangeException "Invalid VrfId".
  explicit VrfId(Brio::String const& text);

  static constexpr VrfId defaultVrf() { return VrfId(0); }
  static constexpr VrfId null() { return VrfId(0xFFFFFF); }
  static constexpr VrfId globalVrfId() { return VrfId(0xFFFFFE); }
  static constexpr VrfId multiVrfId() { return VrfId(0xFFFFFD); }

  constexpr U32 value() const { return value_; }
  constexpr bool valid() const { return value_ != 0xFFFFFF; }
  U32 hash() const { return Corvid::wangHash32(value_); }

  friend constexpr bool operator==(VrfId a, VrfId b) { return a.value_ == b.value_; }
  friend constexpr std::strong_ordering operator<=>(VrfId a, VrfId b) { return a.value_ <=> b.value_; }
  friend constexpr VrfId operator+(VrfId a, VrfId b) { return VrfId(a.value_ + b.value_); }

 private:
  U32 value_ = 0xFFFFFF;
};
static_assert(std::is_trivially_copyable_v<VrfId>);

Brio::String valueToStrep(VrfId v);
VrfId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, VrfId*);
std::ostream& operator<<(std::ostream& os, VrfId v);
void attrLogWrite(Brio::NboAttrLog& log, VrfId v);
VrfId attrLogRead(Brio::NboAttrLog& log, VrfId*);

// The value stored per id in the shared table: the id and the VRF name in a
// fixed array. Writers store at most 100 bytes of the name; a stored length
// up to 101 reads back, a longer one is corrupt (Brio::SizeException
// "VrfEntry::vrfName::bytes > 101 not allowed"). The entry built from null
// is the empty entry, which converts to false: absence.
class VrfEntry {
 public:
  static constexpr U32 maxStoredName = 100;
  static constexpr U32 maxReadName = 101;
  // Encoded: id (4), name length (4), name bytes.
  static constexpr U32 encodedMax = 8 + maxReadName;

  VrfEntry() = default;
  explicit VrfEntry(VrfId id) : vrfId_(id) {}
  VrfEntry(VrfId id, Brio::String const& name);

  VrfId vrfId() const { return vrfId_; }
  Brio::String vrfName() const { return Brio::String(name_.data(), length_); }
  explicit operator bool() const { return !(*this == VrfEntry()); }

  friend bool operator==(VrfEntry const& a, VrfEntry const& b) {
    return a.vrfId_ == b.vrfId_ && a.length_ == b.length_ && std::memcmp(a.name_.data(), b.name_.data(), a.length_) == 0;
  }

 private:
  friend VrfEntry attrLogRead(Brio::NboAttrLog& log, VrfEntry*);
  VrfId vrfId_;
  U8 length_ = 0;
  std::array<char, maxReadName> name_{};
};
static_assert(std::is_trivially_copyable_v<VrfEntry>);

Brio::String valueToStrep(VrfEntry const& e);
std::ostream& operator<<(std::ostream& os, VrfEntry const& e);
void attrLogWrite(Brio::NboAttrLog& log, VrfEntry const& e);
VrfEntry attrLogRead(Brio::NboAttrLog& log, VrfEntry*);

}  // namespace VrfIdMap
}  // namespace Vrf

CORVID_STD_HASH(Vrf::VrfIdMap::VrfId);

namespace Vrf::VrfIdMap {

// The shared table vrfIdToName: VrfId -> VrfEntry, maxVrfs entries.
class Status : public Shoal::Table {
 public:
  class Notifiee : public Shoal::TableNotifiee<Status> {
   public:
    virtual void handleVrfIdToName(VrfId const& vrfId) {}

   protected:
    using Shoal::TableNotifiee<Status>::TableNotifiee;
  };

  static constexpr char typeNameText[] = "Vrf::VrfIdMap::Status";
  static Brio::Ptr<Status> statusFactory(Brio::String name);

  // The entry under `id`, or the empty entry.
  VrfEntry vrfIdToName(VrfId id) const { return vrfIdToName_.get(id); }
  U32 vrfIdToNames() const { return vrfIdToName_.size(); }
  // Stores `entry` under its own id; false when the table is full.
  bool vrfIdToNameIs(VrfEntry const& entry) { return vrfIdToName_.set(entry.vrfId(), entry); }
  bool vrfIdToNameDel(VrfId id) { return vrfIdToName_.del(id); }
  void vrfIdToNameDelAll() { vrfIdToName_.delAll(); }
  void vrfIdToNameCommit() { commit(); }
  void vrfIdToNameNotify(VrfId id) const { vrfIdToName_.announce(id); }
  std::map<VrfId, VrfEntry> vrfIdToNameSnapshot() const { return vrfIdToName_.snapshot(); }

 protected:
  explicit Status(Brio::String name) : Shoal::Table(std::move(name), typeNameText) {}

 private:
  Shoal::Collection<VrfId, VrfEntry, Notifiee, &Notifiee::handleVrfIdToName> vrfIdToName_{
      this, "vrfIdToName", 4, VrfEntry::encodedMax, Constants::maxVrfs()};
};

// A process-local name -> id collection.
class NameToIdMap : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<NameToIdMap> {
   public:
    virtual void handleVrfNameToId(Brio::String const& name) {}

   protected:
    using Brio::EntityNotifiee<NameToIdMap>::EntityNotifiee;
  };

  static Brio::Ptr<NameToIdMap> nameToIdMapFactory(Brio::String name);

  // The id of `name`, or null.
  VrfId vrfNameToId(Brio::String const& name) const;
  bool vrfNameToIdHas(Brio::String const& name) const { return vrfNameToId_.count(name) != 0; }
  std::map<Brio::String, VrfId> const& vrfNameToIdAll() const { return vrfNameToId_; }
  void vrfNameToIdIs(Brio::String const& name, VrfId id) {
    collectionIs(vrfNameToId_, name, id, &Notifiee::handleVrfNameToId);
  }
  void vrfNameToIdDel(Brio::String const& name) { collectionDel(vrfNameToId_, name, &Notifiee::handleVrfNameToId); }
  void vrfNameToIdDelAll() { collectionDelAll(vrfNameToId_, &Notifiee::handleVrfNameToId); }

 protected:
  explicit NameToIdMap(Brio::String name) : Entity(std::move(name)) {}

 private:
  std::map<Brio::String, VrfId> vrfNameToId_;
};

// A log message the system defines: its name, printf format and the action
// an operator should take.
struct LogMessage {
  char const* name;
  char const* format;
  char const* recommendedAction;
};

extern LogMessage const VRF_MAP_OVERFLOW;

// Where raised log messages go (name and formatted text); the default
// prints "%<NAME>: <text>" to stderr. An empty hook restores the default.
using LogHook = std::function<void(LogMessage const& message, std::string const& text)>;
void logHookIs(LogHook hook);

// The allocating side. Mount `status` as the table's writer before
// handleInitialized(); ids then go to the shared table on each commit.
class Writer : public Brio::PtrInterface {
 public:
  static Brio::Ptr<Writer> writerFactory(Brio::String writerName, Brio::Ptr<Status> status);
  ~Writer() override;

  Brio::String const& writerName() const { return writerName_; }
  Status* status() const { return status_.ptr(); }
  NameToIdMap* nameToIdMap() const { return nameToIdMap_.ptr(); }
  // The counter in the shared segment <writerName>.lastVrfId; null until
  // initialized and after doCleanup().
  U32* lastVrfIdPtr() const { return lastVrfIdPtr_; }
  bool initialized() const { return initialized_; }
  // Why handleInitialized could not attach the counter segment.
  Brio::String const& reason() const { return reason_; }
  U32 overflowCount() const { return overflowCount_; }

  // Attaches the counter, adds the default VRF and rebuilds the names from
  // the table. A second call does nothing.
  void handleInitialized();
  // The id of `name`, allocating one when it has none; null on overflow.
  VrfId vrfIs(Brio::String const& name);
  // Releases the id of `name` ("default" is never released).
  void vrfDel(Brio::String const& name);
  VrfId allocateVrfId();
  void addDefaultVrf();
  void prepareVrfIdWrapAround();
  void reset();
  void doCleanup();

  void vrfNameToIdIs(Brio::String const& name, VrfId id) { nameToIdMap_->vrfNameToIdIs(name, id); }
  void vrfNameToIdDel(Brio::String const& name) { nameToIdMap_->vrfNameToIdDel(name); }
  void vrfNameToIdDelAll() { nameToIdMap_->vrfNameToIdDelAll(); }

 private:
  Writer(Brio::String writerName, Brio::Ptr<Status> status);
  bool attachCounter();

  Brio::String writerName_;
  Brio::Ptr<Status> status_;
  Brio::Ptr<NameToIdMap> nameToIdMap_;
  Brio::Ptr<Shoal::Segment> counter_;
  U32* lastVrfIdPtr_ = nullptr;
  bool initialized_ = false;
  Brio::String reason_;
  U32 overflowCount_ = 0;
};

// Follows a Status table: keeps vrfIdToNameCache and, when given, a
// NameToIdMap current. Call handleInitialized() once the table is mounted
// (or when made over a table that already holds entries).
class ReverseMapper : public Status::Notifiee, public Brio::PtrInterface {
 public:
  static Brio::Ptr<ReverseMapper> reverseMapperFactory(Brio::Ptr<Status> status,
                                                       Brio::Ptr<NameToIdMap> nameToIdMap = nullptr);

  Status* status() const { return notifier(); }
  NameToIdMap* nameToIdMap() const { return nameToIdMap_.ptr(); }
  bool initialized() const { return initialized_; }

  // The cached name of `id`, empty when none.
  Brio::String vrfIdToNameCache(VrfId id) const;
  std::map<VrfId, Brio::String> const& vrfIdToNameCacheAll() const { return vrfIdToNameCache_; }
  void vrfIdToNameCacheIs(VrfId id, Brio::String const& name) { vrfIdToNameCache_[id] = name; }
  void vrfIdToNameCacheDel(VrfId id) { vrfIdToNameCache_.erase(id); }
  void vrfIdToNameCacheDelAll() { vrfIdToNameCache_.clear(); }

  void handleVrfIdToName(VrfId const& vrfId) override;
  void handleInitialized();

 private:
  ReverseMapper(Brio::Ptr<Status> const& status, Brio::Ptr<NameToIdMap> nameToIdMap);
  Brio::Ptr<NameToIdMap> nameToIdMap_;
  std::map<VrfId, Brio::String> vrfIdToNameCache_;
  bool initialized_ = false;
};

// An index into a table of maxVrfs entries.
class VrfNameIndex : public Corvid::BoundedInteger<VrfNameIndex, U32, 0, Constants::maxVrfs() - 1> {
 public:
  static constexpr char rangeMessage[] =
      "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed";
  static constexpr char textMessage[] = "Invalid VrfNameIndex";
  using BoundedInteger::BoundedInteger;
};

// Two ids side by side (for example a VRF and the VRF it leaks into).
class VrfIdPair {
 public:
  VrfIdPair() = default;
  VrfIdPair(VrfId first, VrfId second) : first_(first), second_(second) {}
  VrfId first() const { return first_; }
  VrfId second() const { return second_; }
  U32 hash() const { return Brio::Hash(first_.value()).mix(second_.value()).result(); }
  friend bool operator==(VrfIdPair const&, VrfIdPair const&) = default;
  friend auto operator<=>(VrfIdPair const&, VrfIdPair const&) = default;

 private:
  VrfId first_;
  VrfId second_;
};

Brio::String valueToStrep(VrfIdPair const& p);
std::ostream& operator<<(std::ostream& os, VrfIdPair const& p);

}  // namespace Vrf::VrfIdMap

CORVID_STD_HASH(Vrf::VrfIdMap::VrfNameIndex);
CORVID_STD_HASH(Vrf::VrfIdMap::VrfIdPair);
