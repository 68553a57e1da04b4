#include <Brio/Exception.h>
#include <Corvid/KernelNetNsInfo.h>
#include <Corvid/NetnsUtils.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace KernelNetNsInfo {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");

constexpr F64 retryDelay = 1.0;

std::string entryPath(NamespaceName const& name) { return std::string(Corvid::NS_RUN_DIR) + "/" + name.value().str(); }

// The name of a run-directory entry; none for a name the tree cannot hold.
std::optional<NamespaceName> namespaceName(std::string_view name) {
  try {
    return NamespaceName(Brio::String(name));
  } catch (Brio::RangeException const& e) {
    // The kernel allows 255-byte file names; such an entry is nobody's
    // namespace name here, and is left alone.
    GLIMMER_TRACE(tr, 1, "Ignoring '" << name << "': " << e.what());
    return std::nullopt;
  }
}

}  // namespace

// ---- Node and Root -----------------------------------------------------------

Node::Node(U32 inode) : Entity(std::to_string(inode)), inode_(inode) {}

Brio::Ptr<Node> Root::netNs(U32 inode) const {
  auto it = netNs_.find(inode);
  return it == netNs_.end() ? nullptr : it->second;
}

Brio::Ptr<Node> Root::netNsIs(U32 inode) {
  if (auto existing = netNs(inode)) return existing;
  auto made = Brio::makePtr<Node>(inode);
  collectionIs(netNs_, inode, made, &Notifiee::handleNetNs);
  return made;
}

Brio::Ptr<Node> Root::netNsByName(NamespaceName const& name) const {
  auto it = netNsByName_.find(name);
  return it == netNsByName_.end() ? nullptr : it->second;
}

Brio::Ptr<Root> rootFactory(Brio::String const& name) { return Brio::makePtr<Root>(name); }

// ---- Manager's reactors --------------------------------------------------------

class Manager::InotifyReactor : public Brio::FileDescriptor::Notifiee {
 public:
  InotifyReactor(Brio::Ptr<Brio::FileDescriptor> const& fd, Manager* m) : Notifiee(fd), manager_(m) {}
  void handleReadable() override { manager_->handleInotifyEvent(); }

 private:
  Manager* manager_;
};

class Manager::ClockReactor : public Brio::Clock::Notifiee {
 public:
  ClockReactor(Brio::Ptr<Brio::Clock> const& c, Manager* m) : Notifiee(c), manager_(m) {}
  void handleWakeup() override { manager_->handleTimer(); }

 private:
  Manager* manager_;
};

// ---- Manager --------------------------------------------------------------------

Manager::Manager(Brio::String name, Brio::Ptr<Root> const& root) : Entity(std::move(name)), root_(root) {}

Manager::~Manager() = default;

bool Manager::crudFile(NamespaceName const& name) const {
  auto it = crudFile_.find(name);
  return it != crudFile_.end() && it->second;
}

void Manager::handleInitialized() {
  GLIMMER_TRACE(tr, 8, __PRETTY_FUNCTION__);
  FENNEL_ASSERT(root()->netNss() == 0);
  FENNEL_ASSERT(root()->netNsByNames() == 0);
  clock_ = Brio::Clock::clockFactory(name() + Brio::String(".clock"));
  clock_->timeMinIs(Brio::never);
  clockReactor_ = std::make_unique<ClockReactor>(clock_, this);
  doInitializeWatcher();
  initializedIs(true);
}

void Manager::doInitializeWatcher() {
  GLIMMER_TRACE(tr, 8, __PRETTY_FUNCTION__);
  Corvid::mkNsRunDir();
  Corvid::remountNsRunDir();
  // The watch goes in before the listing, so a namespace made in between is
  // seen at least once; adding a name twice is harmless.
  int ifd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (ifd < 0) {
    GLIMMER_TRACE(tr, 1, "inotify_init1 failed: " << std::strerror(errno));
  } else if (inotify_add_watch(ifd, Corvid::NS_RUN_DIR, IN_CREATE | IN_DELETE) < 0) {
    GLIMMER_TRACE(tr, 1, "inotify_add_watch on " << Corvid::NS_RUN_DIR << " failed: " << std::strerror(errno));
    close(ifd);
  } else {
    inotifyWatcher_ = Brio::FileDescriptor::fileDescriptorFactory(name() + Brio::String(".inotify"), ifd);
    inotifyReactor_ = std::make_unique<InotifyReactor>(inotifyWatcher_, this);
    inotifyWatcher_->notifyOnReadableIs(true);
  }

  int dfd = Corvid::openNsRunDir();
  if (dfd < 0) return;
  DIR* dir = fdopendir(dfd);
  if (dir == nullptr) {
    GLIMMER_TRACE(tr, 1, "Failed to open ns dir " << Corvid::NS_RUN_DIR << ": " << std::strerror(errno));
    close(dfd);
    return;
  }
  GLIMMER_TRACE(tr, 5, "Adding existing net namespaces");
  std::vector<std::string> names;
  while (dirent* e = readdir(dir)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    names.emplace_back(e->d_name);
  }
  closedir(dir);
  for (auto const& n : names) {
    if (auto nsName = namespaceName(n)) addNetNsToRoot(*nsName);
  }
}

void Manager::handleInotifyEvent() {
  GLIMMER_TRACE(tr, 8, __PRETTY_FUNCTION__);
  if (!inotifyWatcher_) return;
  // Aligned for inotify_event; room for several events with full names.
  alignas(inotify_event) char buf[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
  for (;;) {
    ssize_t n = read(inotifyWatcher_->descriptor(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) GLIMMER_TRACE(tr, 1, "inotify read failed: " << std::strerror(errno));
      return;
    }
    if (n == 0) return;
    std::size_t off = 0;
    auto const total = static_cast<std::size_t>(n);
    while (off + sizeof(inotify_event) <= total) {
      inotify_event ev;
      std::memcpy(&ev, buf + off, sizeof ev);
      std::size_t const next = off + sizeof(inotify_event) + ev.len;
      if (next > total) break;
      char const* namePtr = buf + off + sizeof(inotify_event);
      handleInotifyName(std::string_view(namePtr, strnlen(namePtr, ev.len)), ev.mask);
      off = next;
    }
  }
}

void Manager::handleInotifyName(std::string_view name, U32 mask) {
  GLIMMER_TRACE(tr, 5, "inotify filename '" << name << "' changed: " << mask);
  if (name.empty()) {
    GLIMMER_TRACE(tr, 5, "Ignoring blank notifications");
    return;
  }
  auto nsName = namespaceName(name);
  if (!nsName) return;
  if (mask & IN_CREATE) {
    addNetNsToRoot(*nsName);
  } else if (mask & IN_DELETE) {
    deleteNetNsFromRoot(*nsName);
  } else {
    GLIMMER_TRACE(tr, 5, "Notified on something that is neither create or delete");
  }
}

void Manager::addNetNsToRoot(NamespaceName const& name) {
  GLIMMER_TRACE(tr, 5, "Adding " << name.value() << " to root");
  std::string const path = entryPath(name);
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    GLIMMER_TRACE(tr, 1, "stat failed for " << path << " with error: " << std::strerror(errno));
    return;
  }
  // Only a regular file can carry a namespace (nsfs files are regular
  // too). Anything else is dropped before it is opened: opening a FIFO left
  // in the directory would block the activity thread.
  if (!S_ISREG(st.st_mode)) {
    GLIMMER_TRACE(tr, 1, "Manager::addNetNsToRoot validate failed on " << name.value() << " Error: not a regular file");
    crudFileDel(name);
    return;
  }
  bool usable = false;
  if (!Corvid::validateNetNs(name.value().c_str(), &usable)) {
    int const e = errno;
    GLIMMER_TRACE(tr, 1, "Manager::addNetNsToRoot validate failed on " << name.value() << " Error: " << e << " (" << std::strerror(e) << ")");
    crudFileDel(name);
    return;
  }
  if (!usable) {
    GLIMMER_TRACE(tr, 5, "Manager::addNetNsToRoot crud file add " << name.value());
    crudFileIs(name, true);
    if (!clockRunning()) {
      GLIMMER_TRACE(tr, 5, "Manager::addNetNsToRoot Starting timer for " << name.value());
      clock_->timeMinIs(Brio::now() + retryDelay);
      clockRunningIs(true);
    }
    return;
  }
  GLIMMER_TRACE(tr, 5, "Manager::addNetNsToRoot netns add " << name.value());
  // The mount may have landed between the stat above and the validation:
  // the inode that identifies the namespace is the one seen now.
  auto const inode = static_cast<U32>(Corvid::netNsInode(name.value().c_str()));
  if (inode == 0) return;
  // A name re-used for another namespace whose deletion went unseen: the
  // old node goes first, so no inode is reachable under a stale name.
  if (auto old = root_->netNsByName(name); old && old->inode() != inode) root_->netNsDel(old->inode());
  Brio::Ptr<Node> node = root_->netNsIs(inode);
  node->ifNameIs(name);
  root_->netNsByNameIs(name, node);
  // It is no longer waiting; the timer need not try it again.
  crudFileDel(name);
}

void Manager::handleTimer() {
  GLIMMER_TRACE(tr, 8, __PRETTY_FUNCTION__);
  GLIMMER_TRACE(tr, 5, "Manager::handleTimer Stopping timer");
  clock_->timeMinIs(Brio::never);
  clockRunningIs(false);
  std::vector<NamespaceName> parked;
  for (auto const& [n, flag] : crudFile_) parked.push_back(n);
  for (auto const& n : parked) addNetNsToRoot(n);
}

void Manager::deleteNetNsFromRoot(NamespaceName const& name) {
  GLIMMER_TRACE(tr, 5, "Deleting " << name.value() << " from root");
  GLIMMER_TRACE(tr, 5, "Manager::deleteNetNsFromRoot netns delete " << name.value());
  if (auto node = root_->netNsByName(name)) {
    root_->netNsByNameDel(name);
    // One namespace may be mounted under two names: it stays in the tree,
    // under the name that is left, while any name still refers to it.
    bool stillNamed = false;
    for (auto const& [n, candidate] : root_->netNsByNameMap()) {
      if (candidate != node) continue;
      node->ifNameIs(n);
      stillNamed = true;
      break;
    }
    if (!stillNamed) root_->netNsDel(node->inode());
  }
  GLIMMER_TRACE(tr, 5, "Manager::deleteNetNsFromRoot crud file delete " << name.value());
  crudFileDel(name);
}

Brio::Ptr<Manager> managerFactory(Brio::String const& name, Brio::Ptr<Root> const& root) {
  auto m = Brio::makePtr<Manager>(name, root);
  m->handleInitialized();
  return m;
}

}  // namespace KernelNetNsInfo
