// Namespace utilities against the kernel and iproute2: what we make, `ip
// netns` sees, and the other way round. Every namespace has a unique name and
// is removed by its NamedNetns guard, also when a check fails. Adding,
// listing and deleting as `ip netns` sees it is checked through the tool
// that wraps them (NetnsCommandTest); here what the tool does not show.
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

namespace {

ino_t inodeOf(char const* path) {
  struct stat st;
  return stat(path, &st) == 0 ? st.st_ino : 0;
}

ino_t threadNetNs() { return inodeOf("/proc/thread-self/ns/net"); }

// The namespace a socket lives in, by the inode of its nsfs file.
ino_t socketNetNs(int sd) {
  int nsFd = ioctl(sd, SIOCGSKNS);
  if (nsFd < 0) return 0;
  struct stat st;
  ino_t ino = fstat(nsFd, &st) == 0 ? st.st_ino : 0;
  close(nsFd);
  return ino;
}

}  // namespace

TEST(NetnsUtils, SocketAtOpensInTheNamedNamespaceAndLeavesTheThreadWhereItWas) {
  NamedNetns ns("sock");
  CORVID_REQUIRE_NETNS(ns);
  ino_t const before = threadNetNs();
  int sd = socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
  ASSERT_GE(sd, 0);
  EXPECT_EQ(socketNetNs(sd), netNsInode(ns.c_str()));
  EXPECT_NE(socketNetNs(sd), before);
  EXPECT_EQ(threadNetNs(), before);
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
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
  NamedNetns missing("missing", false);
  errno = 0;
  EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, missing.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_NO_THROW(netNsDelete(missing.c_str()));  // deleting an absent name is quiet

  // A bare entry: what a creator leaves between creating the file and the
  // bind mount.
  NamedNetns bare("bare", false);
  ASSERT_TRUE(mkNsRunDir());
  ASSERT_EQ(CorvidTest::sh("touch /var/run/netns/" + bare.name()), 0);
  errno = 0;
  EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, bare.c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  bool usable = true;
  EXPECT_FALSE(validateNetNs(missing.c_str(), &usable));

  // Kept as it is when usable, replaced when stale.
  netNsAddEvenIfPresent(bare.c_str());
  EXPECT_TRUE(validateNetNs(bare.c_str(), &usable) && usable);
  ino_t const made = netNsInode(bare.c_str());
  netNsAddEvenIfPresent(bare.c_str());
  EXPECT_EQ(netNsInode(bare.c_str()), made);
}

TEST(NetnsUtils, SetNsByNameMovesOnlyTheCallingThread) {
  NamedNetns ns("setns");
  CORVID_REQUIRE_NETNS(ns);
  ino_t const mine = threadNetNs();
  ino_t seen = 0;
  std::thread([&] {
    setNsByName(ns.c_str());
    seen = threadNetNs();
  }).join();
  EXPECT_EQ(seen, netNsInode(ns.c_str()));
  EXPECT_EQ(threadNetNs(), mine);
  EXPECT_THROW(setNsByName("corvid-no-such-namespace"), Brio::ErrnoException);
}

TEST(NetnsUtils, MountDefaultNetNsPublishesTheProcessNamespace) {
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
  NamedNetns from("from"), to("to");
  CORVID_REQUIRE_NETNS(from);
  ASSERT_TRUE(to.ok());
  ASSERT_EQ(from.ip("link add cvd0 type veth peer name cvd1"), 0);
  moveIntfNetNs("cvd0", from.c_str(), to.c_str());
  EXPECT_EQ(to.ip("link show cvd0 >/dev/null 2>&1"), 0);
  EXPECT_NE(from.ip("link show cvd0 >/dev/null 2>&1"), 0);
}
