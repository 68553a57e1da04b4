#include <Corvid/NetlinkUtils.h>
#include <Corvid/NetnsUtils.h>
#include <Corvid/NsUtils.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/magic.h>
#include <linux/nsfs.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Corvid {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");

std::string nsPath(char const* name) { return std::string(NS_RUN_DIR) + "/" + name; }

bool isDefaultNs(char const* ns) { return ns == nullptr || *ns == '\0' || std::strcmp(ns, DEFAULT_NS) == 0; }

[[noreturn]] void fail(std::string what) { failWithErrno(std::move(what), errno); }

// Creates the entry file for a namespace: O_EXCL so that two creators of one
// name cannot both believe they made it; mode 0 because nothing ever reads
// the file itself, only the namespace mounted onto it.
void createEntryFile(std::string const& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
  if (fd < 0) fail("Cannot create " + path + ": ");
  int const rc = close(fd);
  FENNEL_ASSERT(rc == 0);
}

void bringLoopbackUp(char const* name) {
  int sd = socketAt(AF_INET, SOCK_STREAM, 0, name);
  if (sd < 0) fail("Cannot configure interface lo. : ");
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  if (ioctl(sd, SIOCGIFFLAGS, &ifr) != 0) {
    int const e = errno;
    close(sd);
    errno = e;
    fail("Error getting flags for kernel interface lo: ");
  }
  ifr.ifr_flags |= IFF_UP;
  if (ioctl(sd, SIOCSIFFLAGS, &ifr) != 0) {
    int const e = errno;
    close(sd);
    errno = e;
    fail(std::string("Error setting kernel interface ") + "lo" + "up: ");
  }
  close(sd);
}

void addNamespace(char const* name) {
  std::string const path = nsPath(name);
  mkNsRunDir();
  int current = open(ownNetNsPath(), O_RDONLY | O_CLOEXEC);
  if (current < 0) fail(std::string("Cannot open ") + ownNetNsPath() + ": ");
  try {
    createEntryFile(path);
  } catch (...) {
    close(current);
    throw;
  }
  // From here on a failure leaves a half-made entry, which is removed.
  try {
    if (unshare(CLONE_NEWNET) != 0) fail("Cannot unshare: ");
    // Bind the thread's own namespace file: once the thread has unshared,
    // that is the new namespace.
    if (mount(ownNetNsPath(), path.c_str(), "none", MS_BIND, nullptr) != 0) {
      fail(std::string("Cannot mount ") + "/proc/self/ns/net" + " - " + path + ": ");
    }
    bringLoopbackUp(name);
  } catch (...) {
    int const e = errno;
    setns(current, CLONE_NEWNET);
    close(current);
    netNsDelete(name);
    errno = e;
    throw;
  }
  if (setns(current, CLONE_NEWNET) != 0) {
    int const e = errno;
    close(current);
    errno = e;
    fail("Cannot setns ");
  }
  int const curr_netns_rc = close(current);
  FENNEL_ASSERT(curr_netns_rc == 0);
  GLIMMER_TRACE(tr, 5, "netNsAdd " << name);
}

}  // namespace

bool mkNsRunDir() {
  if (mkdir(NS_RUN_DIR, 0755) == 0 || errno == EEXIST) return true;
  GLIMMER_TRACE(tr, 1, "Failed to create ns dir " << NS_RUN_DIR << ": " << std::strerror(errno));
  return false;
}

bool remountNsRunDir() {
  if (mount("", NS_RUN_DIR, "none", MS_SHARED | MS_REC, nullptr) == 0) return true;
  // Not a mount point yet (EINVAL): make it one by binding it onto itself,
  // then share it. iproute2 does the same, so both tools agree on the mount.
  if (errno != EINVAL) {
    GLIMMER_TRACE(tr, 1, "Shared mount of" << " " << NS_RUN_DIR << " failed: " << std::strerror(errno));
    return false;
  }
  if (mount(NS_RUN_DIR, NS_RUN_DIR, "none", MS_BIND | MS_REC, nullptr) != 0) {
    GLIMMER_TRACE(tr, 1, "Bind mount " << NS_RUN_DIR << " failed: " << std::strerror(errno));
    return false;
  }
  if (mount("", NS_RUN_DIR, "none", MS_SHARED | MS_REC, nullptr) != 0) {
    GLIMMER_TRACE(tr, 1, "Shared mount of" << " " << NS_RUN_DIR << " failed: " << std::strerror(errno));
    return false;
  }
  return true;
}

int openNsRunDir() {
  int fd = open(NS_RUN_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) GLIMMER_TRACE(tr, 1, "Failed to open ns dir " << NS_RUN_DIR << ": " << std::strerror(errno));
  return fd;
}

bool netNsExists(char const* name) {
  struct stat st;
  if (stat(nsPath(name).c_str(), &st) == 0) return true;
  if (errno != ENOENT) GLIMMER_TRACE(tr, 1, "stat failed for " << nsPath(name) << ": " << std::strerror(errno));
  return false;
}

ino_t netNsInode(char const* name) {
  struct stat st;
  if (stat(nsPath(name).c_str(), &st) == 0) return st.st_ino;
  GLIMMER_TRACE(tr, 1, "stat failed for " << nsPath(name) << ": " << std::strerror(errno));
  return 0;
}

void netNsAdd(char const* name) { addNamespace(name); }

void netNsAddEvenIfPresent(char const* name) {
  bool usable = false;
  if (netNsExists(name)) {
    if (validateNetNs(name, &usable) && usable) return;
    netNsDelete(name);
  }
  addNamespace(name);
}

void netNsDelete(char const* name) {
  std::string const path = nsPath(name);
  if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
    GLIMMER_TRACE(tr, 1, "Tried to delete a ns that didn't exist: " << name);
    return;
  }
  // A bare entry (nothing mounted yet) fails with EINVAL; it is still
  // removed below.
  if (umount2(path.c_str(), MNT_DETACH) != 0) {
    GLIMMER_TRACE(tr, 1, "Cannot umount " << path << ": " << std::strerror(errno));
  }
  if (unlink(path.c_str()) != 0) fail("Cannot remove " + path + ": ");
  GLIMMER_TRACE(tr, 5, "netNsDelete " << name);
}

void setNsByName(char const* name) {
  std::string const path = nsPath(name);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
    int const e = errno;
    if (fd >= 0) close(fd);
    errno = e;
    fail("Cannot setns to " + path + ": ");
  }
  close(fd);
}

int socketAt(int domain, int type, int protocol, char const* ns) {
  int sd = -1;
  if (isDefaultNs(ns)) {
    sd = socket(domain, type | SOCK_CLOEXEC, protocol);
  } else {
    NetNsSwitch inside(nsPath(ns).c_str());
    if (!inside.ok()) {
      errno = inside.errorNumber();
    } else {
      sd = socket(domain, type | SOCK_CLOEXEC, protocol);
    }
  }
  if (sd < 0) {
    GLIMMER_TRACE(tr, 1, "netnsSocketAt failed : " << std::strerror(errno));
    return -1;
  }
  GLIMMER_TRACE(tr, 5, "ns " << (ns ? ns : "") << " opened socket " << sd << " in ns " << (ns ? ns : ""));
  return sd;
}

void mountDefaultNetNs() {
  std::string const path = nsPath(DEFAULT_NS);
  mkNsRunDir();
  if (netNsExists(DEFAULT_NS)) {
    GLIMMER_TRACE(tr, 5, path << " exists");
    netNsDelete(DEFAULT_NS);
  }
  int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
  if (fd < 0) fail("open failed for " + path + ": ");
  close(fd);
  if (mount(ownNetNsPath(), path.c_str(), "none", MS_BIND, nullptr) != 0) {
    int const e = errno;
    unlink(path.c_str());
    errno = e;
    fail(std::string("Bind ") + ownNetNsPath() + " -> " + path + ": ");
  }
  GLIMMER_TRACE(tr, 5, "Bind " << ownNetNsPath() << " -> " << path);
}

void moveIntfNetNs(char const* intf, char const* fromNs, char const* toNs) {
  std::string const target = isDefaultNs(toNs) ? ownNetNsPath() : nsPath(toNs);
  int targetFd = open(target.c_str(), O_RDONLY | O_CLOEXEC);
  if (targetFd < 0) fail("Cannot open " + target + ": ");
  netlinkHandle nl;
  try {
    createNetlinkSocket(&nl, 0, fromNs, NETLINK_ROUTE, false, 0);
  } catch (...) {
    close(targetFd);
    throw;
  }
  char buf[256];
  nlmsghdr* msg = mnl_nlmsg_put_header(buf);
  msg->nlmsg_type = RTM_NEWLINK;
  msg->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  msg->nlmsg_seq = ++nl.seq;
  auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(msg, sizeof(ifinfomsg)));
  ifi->ifi_family = AF_UNSPEC;
  mnl_attr_put_strz(msg, IFLA_IFNAME, intf);
  mnl_attr_put_u32(msg, IFLA_NET_NS_FD, static_cast<U32>(targetFd));
  int rc = -1;
  try {
    sendNetlinkMsg(&nl, msg);
    rc = getNetlinkResponse(nl.fd, nl.seq);
  } catch (...) {
    close(targetFd);
    closeNetlinkSocket(&nl);
    throw;
  }
  close(targetFd);
  closeNetlinkSocket(&nl);
  if (rc != 0) {
    errno = -rc;
    fail(std::string("Cannot move interface ") + intf + " to ns " + (toNs ? toNs : "") + ": ");
  }
}

bool validateNetNs(int fd, bool* usable) {
  struct statfs fs;
  if (fstatfs(fd, &fs) != 0) return false;
  // A namespace entry is the nsfs file mounted onto the run-directory file;
  // before the mount it is an ordinary empty file on the directory's own
  // file system. NS_GET_NSTYPE tells a network namespace from another kind.
  *usable = static_cast<unsigned long>(fs.f_type) == NSFS_MAGIC && ioctl(fd, NS_GET_NSTYPE) == CLONE_NEWNET;
  return true;
}

bool validateNetNs(char const* name, bool* usable) {
  int fd = open(nsPath(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool const ok = validateNetNs(fd, usable);
  int const e = errno;
  close(fd);
  errno = e;
  return ok;
}

}  // namespace Corvid
