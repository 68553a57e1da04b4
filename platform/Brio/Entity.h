// Entities and their notifiees.
//
// An Entity is a named, reference-counted object with attributes. Observers
// derive from EntityNotifiee<E> (usually through E::Notifiee, which declares
// one virtual handleX() per attribute) and attach with notifierIs(). A
// notifiee holds a reference to its notifier, so an entity lives at least as
// long as anybody follows it.
//
// Setters store, then notify, and only when the value changed:
//
//   void readableCountIs(U32 v) {
//     attributeIs(readableCount_, v, &Notifiee::handleReadableCount,
//                 [this] { handleReadableCount(); });   // optional own hook
//   }
//
// Notification calls the attached notifiees in the order they attached. It
// tolerates changes made by the handlers themselves: a notifiee detached
// during a notification is not called afterwards (its slot is cleared and the
// list compacted when the outermost notification ends); one attached during a
// notification first hears the next one. The entity keeps itself alive while
// it notifies, so a handler may drop the last outside reference.
// Cost: one dynamic_cast and one virtual call per attached notifiee.
#pragma once

#include <Brio/Ptr.h>
#include <Brio/String.h>
#include <Brio/Types.h>

#include <map>
#include <utility>
#include <vector>

namespace Brio {

class Entity;

class EntityNotifieeBase {
 public:
  EntityNotifieeBase() = default;
  EntityNotifieeBase(EntityNotifieeBase const&) = delete;
  EntityNotifieeBase& operator=(EntityNotifieeBase const&) = delete;
  virtual ~EntityNotifieeBase() = default;
};

class Entity : public PtrInterface {
 public:
  explicit Entity(String name) : name_(std::move(name)) {}
  Entity(Entity const&) = delete;
  Entity& operator=(Entity const&) = delete;

  String const& name() const { return name_; }
  // Number of attached notifiees.
  U32 notifiees() const;

  // Used by EntityNotifiee; not for direct calls.
  void notifieeAdd(EntityNotifieeBase* n) const { notifiees_.push_back(n); }
  void notifieeDel(EntityNotifieeBase* n) const;

 protected:
  ~Entity() override = default;

  // Calls (notifiee->*handler)(args...) on every attached notifiee of type N.
  template <class N, class... P, class... A>
  void notify(void (N::*handler)(P...), A const&... args) const {
    if (notifiees_.empty()) return;
    Ptr<Entity const> keepAlive(references() ? this : nullptr);
    NotifyScope scope(this);
    std::size_t const n = notifiees_.size();
    for (std::size_t i = 0; i < n; ++i) {
      if (auto* target = dynamic_cast<N*>(notifiees_[i])) (target->*handler)(args...);
    }
  }

  // Stores `value` into `field` when it differs, then runs `hook` and
  // notifies `handler`. Returns whether the value changed.
  template <class V, class N, class Hook>
  bool attributeIs(V& field, V const& value, void (N::*handler)(), Hook&& hook) {
    if (field == value) return false;
    field = value;
    hook();
    notify(handler);
    return true;
  }
  template <class V, class N>
  bool attributeIs(V& field, V const& value, void (N::*handler)()) {
    return attributeIs(field, value, handler, [] {});
  }

  // Keyed collection attributes: handler(key) is notified for every key whose
  // value is added, changed or removed.
  template <class K, class V, class C, class N>
  bool collectionIs(std::map<K, V, C>& map, K const& key, V const& value, void (N::*handler)(K const&)) {
    auto [it, added] = map.try_emplace(key, value);
    if (!added) {
      if (it->second == value) return false;
      it->second = value;
    }
    notify(handler, key);
    return true;
  }
  template <class K, class V, class C, class N>
  bool collectionDel(std::map<K, V, C>& map, K const& key, void (N::*handler)(K const&)) {
    if (map.erase(key) == 0) return false;
    notify(handler, key);
    return true;
  }
  // Collections of child entities: the child under `key`, made with
  // make(key) and added (notifying handler) when absent.
  template <class K, class V, class C, class N, class Make>
  Ptr<V> childIs(std::map<K, Ptr<V>, C>& map, K const& key, void (N::*handler)(K const&), Make&& make) {
    auto it = map.find(key);
    if (it != map.end()) return it->second;
    Ptr<V> child = make(key);
    map.emplace(key, child);
    notify(handler, key);
    return child;
  }
  // The child under `key`, or null.
  template <class K, class V, class C>
  static V* childAt(std::map<K, Ptr<V>, C> const& map, K const& key) {
    auto it = map.find(key);
    return it == map.end() ? nullptr : it->second.ptr();
  }

  template <class K, class V, class C, class N>
  void collectionDelAll(std::map<K, V, C>& map, void (N::*handler)(K const&)) {
    while (!map.empty()) {
      K key = map.begin()->first;
      map.erase(map.begin());
      notify(handler, key);
    }
  }

 private:
  struct NotifyScope {
    explicit NotifyScope(Entity const* e) : e_(e) { ++e_->notifyDepth_; }
    ~NotifyScope() {
      if (--e_->notifyDepth_ == 0 && e_->compactPending_) e_->compact();
    }
    Entity const* e_;
  };
  void compact() const;

  String name_;
  mutable std::vector<EntityNotifieeBase*> notifiees_;
  mutable U32 notifyDepth_ = 0;
  mutable bool compactPending_ = false;
};

// Base of every observer of an entity of type E (E may be const).
template <class E>
class EntityNotifiee : public EntityNotifieeBase {
 public:
  E* notifier() const { return notifier_.ptr(); }

  // Follows `e` instead of the current notifier (null stops following).
  void notifierIs(Ptr<E> const& e) {
    if (e == notifier_) return;
    if (notifier_) notifier_->notifieeDel(this);
    notifier_ = e;
    if (notifier_) notifier_->notifieeAdd(this);
  }

 protected:
  EntityNotifiee() = default;
  explicit EntityNotifiee(Ptr<E> const& e) { notifierIs(e); }
  ~EntityNotifiee() override {
    if (notifier_) notifier_->notifieeDel(this);
  }

 private:
  Ptr<E> notifier_;
};

}  // namespace Brio
