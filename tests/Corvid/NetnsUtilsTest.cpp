// Namespace utilities against the kernel and iproute2: what we make, `ip
// netns` sees, and the other way round. Every namespace has a unique name and
// is removed by its NamedNetns guard, also when a check fails.
#include <Corvid/NetnsUtils.h>
#include <Corvid/NsUtils.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "support/NetnsScope.h"

using namespace Corvid;
using CorvidTest::NamedNetns;
using CorvidTest::sh;
using CorvidTest::shOutput;

namespace {

ino_t inodeOf(char const* path) {
  struct stat st;
  return stat(path, &st) == 0 ? st.st_ino : 0;
}

// The namespace a socket lives in, by the inode of its nsfs file.
ino_t socketNetNs(int sd) {
  int nsFd = ioctl(sd, SIOCGSKNS);
  if (nsFd < 0) return 0;
  struct stat st;
  ino_t ino = fstat(nsFd, &st) == 0 ? st.st_ino : 0;
  close(nsFd);
  return ino;
}

bool ipNetnsLists(std::string const& name) {
  std::string const out = shOutput("ip netns list");
  return out.find(name + "\n") != std::string::npos || out.find(name + " ") != std::string::npos;
}

#define REQUIRE_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces"

}  // namespace

TEST(NetnsUtils, AddedNamespaceIsListedByIpWithLoopbackUpAndDeletedCleanly) {
  REQUIRE_ROOT();
  NamedNetns ns("add", false);
  netNsAdd(ns.c_str());
  EXPECT_TRUE(ipNetnsLists(ns.name()));
  EXPECT_TRUE(netNsExists(ns.c_str()));
  EXPECT_EQ(netNsInode(ns.c_str()), inodeOf(("/var/run/netns/" + ns.name()).c_str()));
  std::string const lo = shOutput("ip -n " + ns.name() + " -o link show lo");
  EXPECT_NE(lo.find("UP"), std::string::npos) << lo;
  bool usable = false;
  EXPECT_TRUE(validateNetNs(ns.c_str(), &usable));
  EXPECT_TRUE(usable);

  try {
    netNsAdd(ns.c_str());
    ADD_FAILURE() << "a second netNsAdd of one name must be refused";
  } catch (Brio::ErrnoException const& e) {
    EXPECT_EQ(e.errorNumber(), EEXIST);
  }
  EXPECT_TRUE(ipNetnsLists(ns.name())) << "the refused add must leave the namespace alone";

  netNsDelete(ns.c_str());
  EXPECT_FALSE(ipNetnsLists(ns.name()));
  EXPECT_FALSE(netNsExists(ns.c_str()));
  EXPECT_NO_THROW(netNsDelete(ns.c_str()));
}

TEST(NetnsUtils, SocketAtOpensInTheNamedNamespaceAndLeavesTheThreadWhereItWas) {
  REQUIRE_ROOT();
  NamedNetns ns("sock");
  ASSERT_TRUE(ns.ok());
  ino_t const before = inodeOf("/proc/thread-self/ns/net");
  int sd = socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
  ASSERT_GE(sd, 0);
  EXPECT_EQ(socketNetNs(sd), netNsInode(ns.c_str()));
  EXPECT_NE(socketNetNs(sd), before);
  EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), before);
  EXPECT_TRUE(fcntl(sd, F_GETFD) & FD_CLOEXEC);
  close(sd);

  for (char const* own : {DEFAULT_NS, ""}) {
    sd = socketAt(AF_INET6, SOCK_STREAM, 0, own);
    ASSERT_GE(sd, 0);
    EXPECT_EQ(socketNetNs(sd), before);
    close(sd);
  }
}

TEST(NetnsUtils, SocketAtReportsMissingAndNotYetMountedNamespacesByErrno) {
  REQUIRE_ROOT();
  NamedNetns missing("missing", false);
  errno = 0;
  EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, missing.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);

  // A bare entry: what a creator leaves between creating the file and the
  // bind mount.
  NamedNetns bare("bare", false);
  ASSERT_TRUE(mkNsRunDir());
  ASSERT_EQ(sh("touch /var/run/netns/" + bare.name()), 0);
  errno = 0;
  EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, bare.c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  bool usable = true;
  EXPECT_TRUE(validateNetNs(bare.c_str(), &usable));
  EXPECT_FALSE(usable);
  EXPECT_FALSE(validateNetNs(missing.c_str(), &usable));

  // Kept as it is when usable, replaced when stale.
  netNsAddEvenIfPresent(bare.c_str());
  EXPECT_TRUE(validateNetNs(bare.c_str(), &usable) && usable);
  ino_t const made = netNsInode(bare.c_str());
  netNsAddEvenIfPresent(bare.c_str());
  EXPECT_EQ(netNsInode(bare.c_str()), made);
}

TEST(NetnsUtils, SetNsByNameMovesOnlyTheCallingThread) {
  REQUIRE_ROOT();
  NamedNetns ns("setns");
  ASSERT_TRUE(ns.ok());
  ino_t const mine = inodeOf("/proc/thread-self/ns/net");
  ino_t seen = 0;
  std::thread([&] {
    setNsByName(ns.c_str());
    seen = inodeOf("/proc/thread-self/ns/net");
  }).join();
  EXPECT_EQ(seen, netNsInode(ns.c_str()));
  EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), mine);
  EXPECT_THROW(setNsByName("corvid-no-such-namespace"), Brio::ErrnoException);
}

TEST(NetnsUtils, MountDefaultNetNsPublishesTheProcessNamespace) {
  REQUIRE_ROOT();
  // Run in a namespace of our own so the published entry names it, not the
  // machine's, and remove the entry whatever happens.
  CorvidTest::NetnsScope scope;
  CORVID_REQUIRE_NETNS(scope);
  struct Cleanup {
    ~Cleanup() { netNsDelete(DEFAULT_NS); }
  } cleanup;
  mountDefaultNetNs();
  EXPECT_EQ(netNsInode(DEFAULT_NS), inodeOf("/proc/self/ns/net"));
  mountDefaultNetNs();  // a stale entry is replaced, not refused
  EXPECT_EQ(netNsInode(DEFAULT_NS), inodeOf("/proc/self/ns/net"));
}

TEST(NetnsUtils, MoveIntfNetNsMovesAnInterfaceBetweenNamespaces) {
  REQUIRE_ROOT();
  NamedNetns from("from"), to("to");
  ASSERT_TRUE(from.ok() && to.ok());
  ASSERT_EQ(from.ip("link add cvd0 type veth peer name cvd1"), 0);
  moveIntfNetNs("cvd0", from.c_str(), to.c_str());
  EXPECT_EQ(to.ip("link show cvd0 >/dev/null 2>&1"), 0);
  EXPECT_NE(from.ip("link show cvd0 >/dev/null 2>&1"), 0);
  EXPECT_THROW(moveIntfNetNs("cvd0", from.c_str(), to.c_str()), Brio::ErrnoException);
}

TEST(NsUtils, NetNsSwitchIntoAMissingNamespaceStaysPut) {
  ino_t const mine = inodeOf("/proc/thread-self/ns/net");
  {
    NetNsSwitch sw("/var/run/netns/corvid-no-such-namespace");
    EXPECT_FALSE(sw.ok());
    EXPECT_EQ(sw.errorNumber(), ENOENT);
  }
  EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), mine);
}
