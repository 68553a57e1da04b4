// Shoal: keyed tables in shared memory, written by one process and followed
// by many, and small named segments.
//
// A table entity (a class derived from Shoal::Table) declares its keyed
// collections as Shoal::Collection members, one line each plus its
// accessors. It works unmounted, as a plain in-process table whose
// notifiees hear every change at once. mount() attaches it to the file
// <SHOAL_ROOT>/<path> (SHOAL_ROOT defaults to /dev/shm/corvid):
//
//   writer   Is/Del stage changes; commit() (or the end of the loop's turn)
//            writes them into the file's slots, appends their slot numbers to
//            the change log and wakes each idle reader with one datagram
//            (a reader still busy re-checks the log before it sleeps). The
//            writer never waits for a reader. One writer per
//            table, enforced with a lock file; a killed writer's lock goes
//            with it, and the next writer reattaches to the same file.
//   reader   follows the file on its own activity loop: on each wake-up it
//            reads the change log up to the last commit, copies the changed
//            slots out under their sequence counters (never a torn entry),
//            and notifies each key whose value differs from what it last
//            delivered, once per pass (several changes coalesce; the handler
//            reads the latest value). A reader that fell behind the change
//            log rescans every slot and notifies exactly the differing keys.
//
// Layout of the file: ShoalLayout.h and docs/shoal.md. Costs: a write is a
// hash-map update, one encode (which checks the sizes) and a copy into the
// writer's staging area; a commit is one slot copy per staged key plus one
// sendto per idle reader; a reader wake-up is one recv, a change-log read
// and one slot copy and decode per changed slot, with the notifications.
//
// Everything read from the file is outside input: a slot or header that does
// not decode is reported through the process-wide corruption hook and reads
// as absent.
#pragma once

#include <Brio/ActivityManager.h>
#include <Brio/Entity.h>
#include <Brio/Exception.h>
#include <Brio/FileDescriptor.h>
#include <Brio/NboAttrLog.h>
#include <Brio/Ptr.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>
#include <Brio/Types.h>
#include <Fennel/Fennel.h>
#include <Shoal/ShoalLayout.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Shoal {

// The directory of every table and segment: $SHOAL_ROOT, else
// /dev/shm/corvid. Read at each mount or attach.
Brio::String root();
// The file of a table or segment: `path` under root(), or `path` itself
// when it is absolute.
Brio::String filePath(Brio::String const& path);

// Process-wide report of shared memory that does not decode: the file and
// what was wrong. The default prints one line to stderr. Handlers run on
// the thread that found the damage and must not throw.
using CorruptionHook = std::function<void(Brio::String const& path, Brio::String const& what)>;
void corruptionHookIs(CorruptionHook hook);  // an empty hook restores the default
void corruptionReport(Brio::String const& path, Brio::String const& what);
U64 corruptionCount();

enum class MountMode : U8 { writer, reader };
enum class MountStatus : U8 { unmounted, mounting, mounted };
char const* mountStatusText(MountStatus s);

// The table-wide reactions every table's Notifiee offers next to its
// per-key handlers.
class TableEvents {
 public:
  virtual ~TableEvents() = default;
  virtual void handleMountStatus() {}
  virtual void handleQuiesced() {}
};

template <class E>
class TableNotifiee : public Brio::EntityNotifiee<E>, public TableEvents {
 protected:
  using Brio::EntityNotifiee<E>::EntityNotifiee;
};

class Table;

inline constexpr U32 noSlot = ~0U;

// One slot's bytes as a reader copied them out.
struct SlotBytes {
  U32 slot;
  U16 keyLen;
  U16 valueLen;
  U8 const* key;
  U8 const* value;
};

// The untyped half of a collection: its shape and the writer's staging.
// Tables drive it; declare collections with Collection below.
class CollectionBase {
 public:
  CollectionBase(Table* table, char const* name, U32 keyMax, U32 valueMax, U32 capacity);
  CollectionBase(CollectionBase const&) = delete;
  CollectionBase& operator=(CollectionBase const&) = delete;
  virtual ~CollectionBase() = default;

  Brio::String const& name() const { return name_; }
  U32 keyMax() const { return keyMax_; }
  U32 valueMax() const { return valueMax_; }
  // Declared capacity; once mounted as a reader, the file's.
  U32 capacity() const { return capacity_; }
  U32 index() const { return index_; }
  virtual U32 size() const = 0;
  // Each present entry's key and value strep (or hex for raw bytes), in key
  // order where keys are ordered: for dumps.
  virtual std::vector<std::pair<Brio::String, Brio::String>> textEntries() const = 0;

 protected:
  friend class Table;
  // Writer mount: start from the file's entries; recoverSlot adds one (false
  // with `why` when it does not decode or repeats a key); recoverEnd merges
  // in what the entity held before mounting, stages it and notifies.
  virtual void recoverBegin() = 0;
  virtual bool recoverSlot(SlotBytes const& s, std::string* why) = 0;
  virtual void recoverEnd() = 0;
  // Reader: applies slots read from the file (`busy` marks slots whose
  // content could not be read this pass; their entries stay). With
  // `rescan`, every delivered key not found in `reads` goes.
  virtual void apply(std::vector<SlotBytes> const& reads, std::vector<U8> const& busy, bool rescan) = 0;
  // Drops every slot binding (unmount) and clears (reader loss).
  virtual void detach() = 0;
  virtual void clearDelivered() = 0;

  void stage(U32 slot);
  // Writer: keeps the encoded entry (keyLog_, valueLog_) or emptiness for
  // the next commit, so a commit copies bytes and encodes nothing.
  void stageEntry(U32 slot) {
    std::size_t at = std::size_t(slot) * (keyMax_ + valueMax_);
    std::memcpy(stageBytes_.data() + at, keyLog_.rawData(), keyLog_.bytes());
    if (valueLog_.bytes()) std::memcpy(stageBytes_.data() + at + keyMax_, valueLog_.rawData(), valueLog_.bytes());
    stageKeyLen_[slot] = static_cast<U16>(keyLog_.bytes());
    stageValueLen_[slot] = static_cast<U16>(valueLog_.bytes());
    stage(slot);
  }
  void stageEmpty(U32 slot) {
    stageKeyLen_[slot] = 0;
    stageValueLen_[slot] = 0;
    stage(slot);
  }
  inline bool writerMounted() const;
  inline bool readerMounted() const;
  void checkSizes(Brio::NboAttrLog const& key, Brio::NboAttrLog const& value) const;
  void insertRefused();
  void corrupt(U32 slot, std::string const& what) const;
  U32 takeSlot();
  void releaseSlot(U32 slot);

  Table* table_;
  Brio::String name_;
  U32 keyMax_;
  U32 valueMax_;
  U32 capacity_;
  U32 index_ = 0;
  // Slots in use are owned by the typed half; these are the writer's.
  std::vector<U32> staged_;
  std::vector<U8> stagedFlag_;
  std::vector<U32> freeSlots_;
  std::vector<U8> stageBytes_;
  std::vector<U16> stageKeyLen_;
  std::vector<U16> stageValueLen_;
  U32 mountedCapacity_ = 0;
  Brio::NboAttrLog keyLog_;
  Brio::NboAttrLog valueLog_;
};

// Hook for key types that want to know which collection decoded them (the
// raw collections of RawTable); a no-op for every other type.
template <class K>
void keyCollectionIs(K&, U32) {}

// A keyed collection of a table entity: K -> V, with Handler(key) notified on
// the entity's Notifiee N for every key whose value changed. K needs
// std::hash, equality and attrLogWrite/attrLogRead; V equality,
// default construction (the value of an absent key) and the same
// attribute-log pair. keyMax/valueMax bound the encoded sizes.
template <class K, class V, class N, void (N::*Handler)(K const&)>
class Collection final : public CollectionBase {
 public:
  using Key = K;
  using Value = V;

  Collection(Table* table, char const* name, U32 keyMax, U32 valueMax, U32 capacity)
      : CollectionBase(table, name, keyMax, valueMax, capacity) {}

  // The value under `key`, or V() when absent.
  V get(K const& key) const {
    auto it = items_.find(key);
    return it == items_.end() ? V() : it->second.value;
  }
  bool contains(K const& key) const { return items_.count(key) != 0; }
  U32 size() const override { return static_cast<U32>(items_.size()); }

  // Stores value under key and notifies when it changed. Refuses (returns
  // false, counts insertRefusedCount) a new key in a full collection; raises
  // Brio::SizeException when key or value encode larger than declared.
  // Writing through a reader mount is a programming error.
  bool set(K const& key, V const& value) {
    FENNEL_ASSERT(!readerMounted());
    using Brio::attrLogWrite;
    keyLog_.clear();
    valueLog_.clear();
    attrLogWrite(keyLog_, key);
    attrLogWrite(valueLog_, value);
    checkSizes(keyLog_, valueLog_);
    auto [it, added] = items_.try_emplace(key);
    if (!added && it->second.value == value) return true;
    if (added) {
      if (items_.size() > capacity_) {
        items_.erase(it);
        insertRefused();
        return false;
      }
      if (writerMounted()) {
        U32 slot = takeSlot();
        it->second.slot = slot;
        owner_[slot] = &*it;
      }
    }
    it->second.value = value;
    if (it->second.slot != noSlot) stageEntry(it->second.slot);
    announce(key);
    return true;
  }

  bool del(K const& key) {
    FENNEL_ASSERT(!readerMounted());
    auto it = items_.find(key);
    if (it == items_.end()) return false;
    U32 slot = it->second.slot;
    if (slot != noSlot) {
      owner_[slot] = nullptr;
      stageEmpty(slot);
      releaseSlot(slot);
    }
    K gone = key;
    items_.erase(it);
    announce(gone);
    return true;
  }

  void delAll() {
    while (!items_.empty()) {
      K key = items_.begin()->first;
      del(key);
    }
  }

  // Notifies `key` again whether or not it changed.
  void announce(K const& key) const;

  template <class F>
  void forEach(F&& f) const {
    for (auto const& [k, item] : items_) f(k, item.value);
  }
  // The entries in key order (needs K's operator<).
  std::map<K, V> snapshot() const {
    std::map<K, V> out;
    for (auto const& [k, item] : items_) out.emplace(k, item.value);
    return out;
  }

  std::vector<std::pair<Brio::String, Brio::String>> textEntries() const override;

 private:
  struct Item {
    V value{};
    U32 slot = noSlot;
    U64 seenPass = 0;  // reader: the pass that last found it in a slot
  };
  using Map = std::unordered_map<K, Item>;
  using Node = typename Map::value_type;

  // Decodes a slot; false (with why) when it does not decode exactly.
  bool decode(SlotBytes const& s, K* key, V* value, std::string* why) {
    using Brio::attrLogRead;
    try {
      keyLog_.dataIs(reinterpret_cast<char const*>(s.key), s.keyLen);
      *key = attrLogRead(keyLog_, static_cast<K*>(nullptr));
      if (!keyLog_.atEnd()) throw Brio::SizeException("key has trailing bytes");
      keyCollectionIs(*key, index_);
      valueLog_.dataIs(reinterpret_cast<char const*>(s.value), s.valueLen);
      *value = attrLogRead(valueLog_, static_cast<V*>(nullptr));
      if (!valueLog_.atEnd()) throw Brio::SizeException("value has trailing bytes");
      return true;
    } catch (std::exception const& e) {
      *why = e.what();
      return false;
    }
  }

  void recoverBegin() override {
    before_.swap(items_);
    items_.clear();
    owner_.assign(mountedCapacity_, nullptr);
  }
  bool recoverSlot(SlotBytes const& s, std::string* why) override {
    K key{};
    V value{};
    if (!decode(s, &key, &value, why)) return false;
    auto [it, added] = items_.try_emplace(key);
    if (!added) {
      *why = "key repeated in another slot";
      return false;
    }
    it->second.value = value;
    it->second.slot = s.slot;
    owner_[s.slot] = &*it;
    return true;
  }
  void recoverEnd() override {
    std::vector<K> changed;
    for (auto const& [k, item] : items_) {
      auto old = before_.find(k);
      if (old == before_.end() || !(old->second.value == item.value)) changed.push_back(k);
    }
    freeSlots_.clear();
    for (U32 s = mountedCapacity_; s-- > 0;) {
      if (!owner_[s]) freeSlots_.push_back(s);
    }
    Map before;
    before.swap(before_);
    for (auto const& k : changed) announce(k);
    // What the entity held unmounted wins over the file: it is newer.
    for (auto const& [k, item] : before) {
      if (!set(k, item.value)) break;
    }
  }

  void apply(std::vector<SlotBytes> const& reads, std::vector<U8> const& busy, bool rescan) override;

  void detach() override {
    for (auto& [k, item] : items_) item.slot = noSlot;
    owner_.clear();
  }
  void clearDelivered() override {
    std::vector<K> gone;
    for (auto const& [k, item] : items_) gone.push_back(k);
    items_.clear();
    owner_.assign(owner_.size(), nullptr);
    for (auto const& k : gone) announce(k);
  }

  struct Found {
    K key;
    V value;
    U32 slot;
  };

  Map items_;
  Map before_;
  std::vector<Node*> owner_;  // by slot, while mounted
  // Reader scratch, kept between passes.
  U64 pass_ = 0;
  std::vector<Node*> previous_;
  std::vector<Found> found_;
};

// The base of every table entity. A table is made by its type's factory,
// names its type (checked against the file at mount) and declares its
// collections as members constructed with `this`.
class Table : public Brio::Entity {
 public:
  using Notifiee = TableNotifiee<Table>;

  Brio::String const& typeName() const { return typeName_; }
  std::vector<CollectionBase*> const& collections() const { return collections_; }

  MountStatus mountStatus() const { return mountStatus_; }
  MountMode mountMode() const { return mountMode_; }
  // The table file while mounted or mounting.
  Brio::String const& mountPath() const { return mountPath_; }
  // Why the last mount failed or why a reader is still mounting; empty
  // when mounted.
  Brio::String const& reason() const { return reason_; }

  // Writer: nothing staged. Reader: every change up to the writer's last
  // commit delivered. Unmounted: true.
  bool quiesced() const { return quiesced_; }

  U64 insertRefusedCount() const { return insertRefusedCount_; }
  // Writer: commits made by this mount. Reader: passes that delivered.
  U64 commitCount() const { return commitCount_; }
  // Reader: full rescans (mount, fell behind, writer restart).
  U64 rescanCount() const { return rescanCount_; }
  // Writer: registrations of dead readers it reclaimed.
  U64 reclaimedCount() const { return reclaimedCount_; }
  // Writer: live readers after the last commit (woken by it, or still busy
  // with earlier ones).
  U32 readersWoken() const { return readersWoken_; }
  // Writer: wake-up datagrams sent by this mount.
  U64 wakeupsSent() const { return wakeupsSent_; }

  // Change-log entries of a table this writer creates (a power of two, at
  // least 16). Default: the total capacity rounded up, at least 1024.
  void changeLogEntriesIs(U32 n) { changeLogEntries_ = n; }

  // Attaches to <root>/<path>. A writer creates the file (or reattaches to
  // a sound one of the same shape) and returns false with reason() when it
  // cannot, e.g. when another process writes the table. A reader returns
  // true and stays mounting until the file appears and decodes, retrying on
  // its loop.
  bool mount(Brio::String const& path, MountMode mode);
  void unmount();
  // Writer: publishes every staged change and wakes the readers. No-op
  // elsewhere.
  void commit();

  // Reader: runs one pass at once instead of waiting for the wake-up (for
  // programs without a loop of their own).
  void poll();

  template <class N, class K>
  void notifyKey(void (N::*handler)(K const&), K const& key) const {
    notify(handler, key);
  }

 protected:
  Table(Brio::String name, Brio::String typeName);
  ~Table() override;

  // Reader tables that take any shape (RawTable) override this to build
  // their collections from the file's header; others must match it.
  virtual std::string adoptLayout(Layout::FixedHeader const& h);

  std::vector<CollectionBase*> collections_;

 private:
  friend class CollectionBase;
  class Impl;

  void mountStatusIs(MountStatus s);
  void quiescedIs(bool q);
  void staged();

  Brio::String typeName_;
  MountStatus mountStatus_ = MountStatus::unmounted;
  MountMode mountMode_ = MountMode::writer;
  Brio::String mountPath_;
  Brio::String reason_;
  bool quiesced_ = true;
  U64 insertRefusedCount_ = 0;
  U64 commitCount_ = 0;
  U64 rescanCount_ = 0;
  U64 reclaimedCount_ = 0;
  U32 readersWoken_ = 0;
  U64 wakeupsSent_ = 0;
  U32 changeLogEntries_ = 0;
  std::unique_ptr<Impl> impl_;
};

// Key and value of a raw collection: the attribute-log bytes as stored.
struct RawBytes {
  Brio::Bytes bytes;
  U32 collection = 0;
  friend bool operator==(RawBytes const& a, RawBytes const& b) {
    return a.collection == b.collection && a.bytes == b.bytes;
  }
  friend bool operator<(RawBytes const& a, RawBytes const& b) {
    return a.collection != b.collection ? a.collection < b.collection : a.bytes < b.bytes;
  }
};
void attrLogWrite(Brio::NboAttrLog& log, RawBytes const& v);
RawBytes attrLogRead(Brio::NboAttrLog& log, RawBytes*);
Brio::String valueToStrep(RawBytes const& v);
inline void keyCollectionIs(RawBytes& k, U32 index) { k.collection = index; }

}  // namespace Shoal

template <>
struct std::hash<Shoal::RawBytes> {
  std::size_t operator()(Shoal::RawBytes const& v) const noexcept {
    return std::hash<Brio::Bytes>()(v.bytes) ^ v.collection;
  }
};

namespace Shoal {

// A reader of any table, whatever its type: each collection's entries as
// raw attribute-log bytes. For tools that dump or watch tables.
class RawTable : public Table {
 public:
  class Notifiee : public TableNotifiee<RawTable> {
   public:
    // key.collection is the index into collections().
    virtual void handleEntry(RawBytes const& key) {}

   protected:
    using TableNotifiee<RawTable>::TableNotifiee;
  };
  using RawCollection = Collection<RawBytes, RawBytes, Notifiee, &Notifiee::handleEntry>;

  static Brio::Ptr<RawTable> rawTableFactory(Brio::String name);
  // The file's type name once mounted.
  Brio::String const& fileTypeName() const { return fileTypeName_; }
  RawCollection* collection(U32 i) const { return i < raw_.size() ? raw_[i].get() : nullptr; }

 protected:
  explicit RawTable(Brio::String name) : Table(std::move(name), "") {}
  std::string adoptLayout(Layout::FixedHeader const& h) override;

 private:
  std::vector<std::unique_ptr<RawCollection>> raw_;
  Brio::String fileTypeName_;
};

// A small named shared-memory file that outlives processes (counters, ids).
// attach() maps <root>/<name>, creating it zero-filled when missing or
// shorter than `bytes`; detach() unmaps; remove() detaches and deletes it.
class Segment : public Brio::PtrInterface {
 public:
  static Brio::Ptr<Segment> segmentFactory(Brio::String name, U32 bytes);
  ~Segment() override;

  Brio::String const& name() const { return name_; }
  U32 bytes() const { return bytes_; }
  bool attached() const { return data_ != nullptr; }
  // Null while detached.
  U8* data() const { return data_; }
  Brio::String const& reason() const { return reason_; }

  // False with reason() when the file cannot be made or mapped.
  bool attach();
  void detach();
  void remove();

 private:
  Segment(Brio::String name, U32 bytes) : name_(std::move(name)), bytes_(bytes) {}
  Brio::String name_;
  U32 bytes_;
  U8* data_ = nullptr;
  Brio::String path_;
  Brio::String reason_;
};

// ---------------------------------------------------------------------------

bool CollectionBase::writerMounted() const {
  return table_->mountMode() == MountMode::writer && table_->mountStatus() == MountStatus::mounted;
}

bool CollectionBase::readerMounted() const {
  return table_->mountMode() == MountMode::reader && table_->mountStatus() != MountStatus::unmounted;
}

template <class K, class V, class N, void (N::*Handler)(K const&)>
void Collection<K, V, N, Handler>::announce(K const& key) const {
  table_->notifyKey(Handler, key);
}

template <class K, class V, class N, void (N::*Handler)(K const&)>
std::vector<std::pair<Brio::String, Brio::String>> Collection<K, V, N, Handler>::textEntries() const {
  using Brio::valueToStrep;
  std::vector<std::pair<Brio::String, Brio::String>> out;
  for (auto const& [k, v] : snapshot()) out.emplace_back(valueToStrep(k), valueToStrep(v));
  return out;
}

// The reader's diff: every key whose slot was read, and every key now read,
// is compared with what was delivered; changed keys are notified after all
// state is updated, so a handler sees the pass's final contents. Items are
// stamped with the pass that found them, so no per-pass set is built.
template <class K, class V, class N, void (N::*Handler)(K const&)>
void Collection<K, V, N, Handler>::apply(std::vector<SlotBytes> const& reads, std::vector<U8> const& busy,
                                         bool rescan) {
  if (owner_.size() != mountedCapacity_) owner_.assign(mountedCapacity_, nullptr);
  ++pass_;
  previous_.clear();
  found_.clear();
  for (auto const& r : reads) {
    if (!rescan && owner_[r.slot]) previous_.push_back(owner_[r.slot]);
    owner_[r.slot] = nullptr;
    if (r.keyLen == 0) continue;
    Found f{K{}, V{}, r.slot};
    std::string why;
    if (!decode(r, &f.key, &f.value, &why)) {
      corrupt(r.slot, why);
      continue;
    }
    found_.push_back(std::move(f));
  }
  std::vector<K> changed;
  for (auto& f : found_) {
    auto [it, added] = items_.try_emplace(f.key);
    Item& item = it->second;
    if (!added && item.seenPass == pass_) {
      corrupt(f.slot, "key repeated in another slot");
      continue;
    }
    item.seenPass = pass_;
    bool const differs = added || !(item.value == f.value);
    U32 const old = item.slot;
    if (!added && old != noSlot && old != f.slot && old < owner_.size() && owner_[old] == &*it) {
      owner_[old] = nullptr;
    }
    item.value = std::move(f.value);
    item.slot = f.slot;
    owner_[f.slot] = &*it;
    if (differs) changed.push_back(it->first);
  }
  // An entry not found this pass stands while it is still bound to a slot
  // nobody read (or one that was busy): only read slots were unbound above.
  auto stands = [&](Node const* n) {
    U32 s = n->second.slot;
    return s != noSlot && s < owner_.size() && (owner_[s] == n || (s < busy.size() && busy[s]));
  };
  if (rescan) {
    for (auto it = items_.begin(); it != items_.end();) {
      if (it->second.seenPass == pass_ || stands(&*it)) {
        ++it;
        continue;
      }
      changed.push_back(it->first);
      it = items_.erase(it);
    }
  } else {
    for (Node* n : previous_) {
      if (n->second.seenPass == pass_ || stands(n)) continue;
      changed.push_back(n->first);
      items_.erase(n->first);
    }
  }
  for (auto const& key : changed) announce(key);
}

}  // namespace Shoal
