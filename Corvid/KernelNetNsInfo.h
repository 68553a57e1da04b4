// The kernel's named network namespaces as an entity tree.
//
// Manager keeps Root equal to the set of usable namespaces under
// /var/run/netns: one Node per namespace, keyed by the inode of its entry
// (which is the namespace's own nsfs inode, so it identifies the namespace)
// and, a second time, by its name. Agents follow Root's notifiees to hear
// namespaces come (handleNetNs / handleNetNsByName with the key, the entry
// present) and go (the same, the entry absent).
//
//   start-up: list the run directory, add every entry
//   inotify IN_CREATE  --> addNetNsToRoot(name)
//   inotify IN_DELETE  --> deleteNetNsFromRoot(name)
//   addNetNsToRoot: usable namespace -> Node in both collections
//                   bare file         -> parked in crudFile, clock at +1 s
//   clock fires       --> addNetNsToRoot again for every parked name
//
// A namespace is made in two steps (create the entry file, then bind-mount
// a namespace onto it) and inotify reports only the first: nothing tells us
// about the mount. Hence the parking and the one-second retry; a name joins
// the tree at most about a second after its mount. The clock is armed only
// while something is parked.
//
// Owner: the agent builds one Root and one Manager over it on its activity
// thread, with that thread's Brio::ActivityManager alive (the inotify
// descriptor and the clock attach to it). Cost: one inotify descriptor, one
// clock, two map entries per namespace.
#pragma once

#include <Brio/ActivityManager.h>
#include <Brio/Entity.h>
#include <Brio/FileDescriptor.h>
#include <Corvid/NamespaceName.h>

#include <map>
#include <memory>
#include <string_view>

namespace KernelNetNsInfo {

using Corvid::NamespaceName;

// One namespace: its inode (fixed at construction) and its name.
class Node : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Node> {
   public:
    virtual void handleIfName() {}
  };

  explicit Node(U32 inode);

  U32 inode() const { return inode_; }
  NamespaceName const& ifName() const { return ifName_; }
  void ifNameIs(NamespaceName const& v) { attributeIs(ifName_, v, &Notifiee::handleIfName); }

 protected:
  ~Node() override = default;

 private:
  U32 inode_;
  NamespaceName ifName_;
};

// The set of namespaces, by inode and by name; both collections hold the
// same Node objects.
class Root : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Root> {
   public:
    virtual void handleNetNs(U32 const& /*inode*/) {}
    virtual void handleNetNsByName(NamespaceName const& /*name*/) {}
  };

  explicit Root(Brio::String name) : Entity(std::move(name)) {}

  // The node of that inode, or null.
  Brio::Ptr<Node> netNs(U32 inode) const;
  U32 netNss() const { return static_cast<U32>(netNs_.size()); }
  // The node of that inode, made (with a default name) on first use.
  Brio::Ptr<Node> netNsIs(U32 inode);
  void netNsDel(U32 inode) { collectionDel(netNs_, inode, &Notifiee::handleNetNs); }
  void netNsDelAll() { collectionDelAll(netNs_, &Notifiee::handleNetNs); }
  std::map<U32, Brio::Ptr<Node>> const& netNsMap() const { return netNs_; }

  // The node of that name, or null.
  Brio::Ptr<Node> netNsByName(NamespaceName const& name) const;
  U32 netNsByNames() const { return static_cast<U32>(netNsByName_.size()); }
  void netNsByNameIs(NamespaceName const& name, Brio::Ptr<Node> const& node) {
    collectionIs(netNsByName_, name, node, &Notifiee::handleNetNsByName);
  }
  void netNsByNameDel(NamespaceName const& name) {
    collectionDel(netNsByName_, name, &Notifiee::handleNetNsByName);
  }
  void netNsByNameDelAll() { collectionDelAll(netNsByName_, &Notifiee::handleNetNsByName); }
  std::map<NamespaceName, Brio::Ptr<Node>> const& netNsByNameMap() const { return netNsByName_; }

 protected:
  ~Root() override = default;

 private:
  std::map<U32, Brio::Ptr<Node>> netNs_;
  std::map<NamespaceName, Brio::Ptr<Node>> netNsByName_;
};

Brio::Ptr<Root> rootFactory(Brio::String const& name);

// Follows /var/run/netns into a Root. managerFactory runs handleInitialized:
// the root must be empty then.
class Manager : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Manager> {
   public:
    virtual void handleClockRunning() {}
    virtual void handleCrudFile(NamespaceName const& /*name*/) {}
    virtual void handleInitialized() {}
  };

  Manager(Brio::String name, Brio::Ptr<Root> const& root);

  Brio::Ptr<Root> const& root() const { return root_; }
  // The inotify descriptor watching the run directory; null when it could
  // not be made (the tree then holds only the start-up listing).
  Brio::Ptr<Brio::FileDescriptor> const& inotifyWatcher() const { return inotifyWatcher_; }
  Brio::Ptr<Brio::Clock> const& clock() const { return clock_; }
  bool clockRunning() const { return clockRunning_; }

  // Names whose entry exists but is not (yet) a namespace.
  bool crudFile(NamespaceName const& name) const;
  U32 crudFiles() const { return static_cast<U32>(crudFile_.size()); }
  void crudFileIs(NamespaceName const& name, bool flag) {
    collectionIs(crudFile_, name, flag, &Notifiee::handleCrudFile);
  }
  void crudFileDel(NamespaceName const& name) { collectionDel(crudFile_, name, &Notifiee::handleCrudFile); }
  void crudFileDelAll() { collectionDelAll(crudFile_, &Notifiee::handleCrudFile); }

  bool initialized() const { return initialized_; }

  // Starts following: the root must be empty. Run once, by managerFactory.
  void handleInitialized();
  // Reads and handles every pending inotify event.
  void handleInotifyEvent();
  // The retry clock fired: every parked name is tried again.
  void handleTimer();

  void addNetNsToRoot(NamespaceName const& name);
  void deleteNetNsFromRoot(NamespaceName const& name);

 protected:
  ~Manager() override;

 private:
  class InotifyReactor;
  class ClockReactor;

  void doInitializeWatcher();
  void handleInotifyName(std::string_view name, U32 mask);
  void clockRunningIs(bool v) { attributeIs(clockRunning_, v, &Notifiee::handleClockRunning); }
  void initializedIs(bool v) { attributeIs(initialized_, v, &Notifiee::handleInitialized); }

  Brio::Ptr<Root> root_;
  Brio::Ptr<Brio::FileDescriptor> inotifyWatcher_;
  Brio::Ptr<Brio::Clock> clock_;
  bool clockRunning_ = false;
  std::map<NamespaceName, bool> crudFile_;
  bool initialized_ = false;
  std::unique_ptr<InotifyReactor> inotifyReactor_;
  std::unique_ptr<ClockReactor> clockReactor_;
};

// Builds a manager over `root` and starts it (handleInitialized).
Brio::Ptr<Manager> managerFactory(Brio::String const& name, Brio::Ptr<Root> const& root);

}  // namespace KernelNetNsInfo
