// The kernel namespace list against the real /var/run/netns: namespaces made
// and removed with iproute2 (and by hand, with a bare file and a bind mount)
// must appear in and leave the tree on the activity loop. Other programs may
// make namespaces while these tests run, so every check is about this test's
// own uniquely named entries, each removed by its guard also on failure.
#include <Corvid/KernelNetNsInfo.h>
#include <Corvid/NetnsUtils.h>
#include <Glimmer/Glimmer.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/NetnsScope.h"

using namespace KernelNetNsInfo;
using Corvid::NamespaceName;
using CorvidTest::NamedNetns;
using CorvidTest::sh;

namespace {

// Slack over the one-second retry for a loaded machine.
constexpr F64 joinTimeout = 2.5;

std::string pathOf(std::string const& name) { return std::string(Corvid::NS_RUN_DIR) + "/" + name; }

U32 inodeOf(std::string const& name) {
  struct stat st;
  return stat(pathOf(name).c_str(), &st) == 0 ? static_cast<U32>(st.st_ino) : 0;
}

// Records which of the test's names were announced through Root's notifiees.
class RootRecorder : public Root::Notifiee {
 public:
  void handleNetNsByName(NamespaceName const& name) override {
    events.push_back((notifier()->netNsByName(name) ? "+" : "-") + name.value().str());
  }
  std::vector<std::string> events;
};

class KernelNetNsInfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
    ASSERT_TRUE(Corvid::mkNsRunDir());
  }
  void start() {
    root = rootFactory("root");
    recorder.notifierIs(root);
    manager = managerFactory("kni", root);
  }
  bool inTree(std::string const& name) const { return root->netNsByName(NamespaceName(name.c_str())) != nullptr; }
  bool parked(std::string const& name) const { return manager->crudFile(NamespaceName(name.c_str())); }
  bool runUntil(std::function<bool()> const& p, F64 timeout = joinTimeout) { return loop.runUntil(p, timeout); }
  // Both collections hold one node for `name`, under the inode of its file.
  void expectNode(std::string const& name) {
    auto node = root->netNsByName(NamespaceName(name.c_str()));
    ASSERT_NE(node, nullptr) << name;
    EXPECT_EQ(node->ifName().value().str(), name);
    EXPECT_EQ(node->inode(), inodeOf(name));
    EXPECT_EQ(root->netNs(inodeOf(name)), node);
  }

  Brio::ActivityManager loop;
  Brio::Ptr<Root> root;
  Brio::Ptr<Manager> manager;
  RootRecorder recorder;
};

}  // namespace

TEST_F(KernelNetNsInfoTest, EntriesThatCanNeverBeNamespacesAreDroppedWithoutBlocking) {
  // Their guards' `ip netns del` unlinks whatever is at the path.
  NamedNetns fifo("kni", false), tooLong("kni-" + std::string(180, 'x'), false);
  struct Case {
    std::string name;
    std::string make;
  } const cases[] = {
      // Opening a FIFO for reading would block the loop for good.
      {fifo.name(), "mkfifo " + pathOf(fifo.name())},
      // Longer than a NamespaceName may be.
      {tooLong.name(), "touch " + pathOf(tooLong.name())},
  };
  ASSERT_EQ(sh(cases[0].make), 0);  // one present at start-up, the rest seen through inotify
  // Should the manager open the FIFO after all, a writer frees it after 3 s:
  // the test then fails instead of hanging.
  std::atomic<bool> rescued{false};
  std::jthread watchdog([&](std::stop_token stop) {
    for (int i = 0; i < 60 && !stop.stop_requested(); ++i) usleep(50000);
    int fd = stop.stop_requested() ? -1 : open(pathOf(fifo.name()).c_str(), O_WRONLY | O_NONBLOCK);
    rescued = fd >= 0;
    if (fd >= 0) close(fd);
  });
  start();
  for (std::size_t i = 1; i < std::size(cases); ++i) ASSERT_EQ(sh(cases[i].make), 0) << cases[i].make;
  NamedNetns marker("kni");  // made after them: once it is in, they have all been handled
  ASSERT_TRUE(marker.ok());
  ASSERT_TRUE(runUntil([&] { return inTree(marker.name()); }));
  for (auto const& c : cases) {
    SCOPED_TRACE(c.make);
    if (c.name.size() <= NamespaceName::maxLength) {
      EXPECT_FALSE(inTree(c.name));
      EXPECT_FALSE(parked(c.name));
    }
    for (auto const& e : recorder.events) EXPECT_NE(e.substr(1), c.name);
  }
  watchdog.request_stop();
  watchdog.join();
  EXPECT_FALSE(rescued) << "the manager blocked opening a FIFO";
}

TEST_F(KernelNetNsInfoTest, FollowsIpNetnsAndKeepsANamespaceUntilItsLastNameGoes) {
  start();
  NamedNetns first("kni", false), second("kni", false);
  ASSERT_EQ(sh("ip netns add " + first.name()), 0);
  EXPECT_TRUE(runUntil([&] { return inTree(first.name()); })) << "not in the tree after " << joinTimeout << " s";
  expectNode(first.name());
  ASSERT_EQ(sh("touch " + pathOf(second.name()) + " && mount --bind " + pathOf(first.name()) + " " +
               pathOf(second.name())),
            0);
  ASSERT_TRUE(runUntil([&] { return inTree(second.name()); }));
  U32 const inode = inodeOf(first.name());
  ASSERT_EQ(inodeOf(second.name()), inode);
  EXPECT_EQ(root->netNsByName(NamespaceName(second.name().c_str())), root->netNs(inode));

  ASSERT_EQ(sh("ip netns del " + second.name()), 0);
  ASSERT_TRUE(runUntil([&] { return !inTree(second.name()); }, 1.0));
  ASSERT_NE(root->netNs(inode), nullptr) << "still mounted under " << first.name();
  EXPECT_EQ(root->netNs(inode)->ifName().value().str(), first.name());

  ASSERT_EQ(sh("ip netns del " + first.name()), 0);
  ASSERT_TRUE(runUntil([&] { return !inTree(first.name()); }, 1.0));
  EXPECT_EQ(root->netNs(inode), nullptr);
  std::vector<std::string> ours;
  for (auto const& e : recorder.events) {
    if (e.substr(1) == first.name() || e.substr(1) == second.name()) ours.push_back(e);
  }
  EXPECT_EQ(ours, (std::vector<std::string>{"+" + first.name(), "+" + second.name(), "-" + second.name(),
                                            "-" + first.name()}));
}

// Bare files (what a creator leaves before its bind mount) are parked and
// retried every second, whether listed at start-up or seen later: one joins
// once a namespace is mounted onto it, the other leaves the parked set when
// it is deleted. A namespace present at start-up is in the tree at once.
TEST_F(KernelNetNsInfoTest, StartupListingAndBareFilesParkedUntilMountedOrDeleted) {
  NamedNetns ns("kni"), mounted("kni", false), deleted("kni", false);
  ASSERT_TRUE(ns.ok());
  ASSERT_EQ(sh("touch " + pathOf(deleted.name())), 0);
  Glimmer::enable("Corvid", 5);
  Glimmer::Capture capture;
  int const descriptors = CorvidTest::openDescriptors();
  start();
  expectNode(ns.name());
  EXPECT_FALSE(parked(ns.name()));
  ASSERT_EQ(sh("touch " + pathOf(mounted.name())), 0);
  ASSERT_TRUE(runUntil([&] { return parked(mounted.name()) && parked(deleted.name()); }, 1.0));
  EXPECT_FALSE(inTree(mounted.name()));
  ASSERT_TRUE(runUntil([&] { return capture.contains("Manager::handleTimer Stopping timer"); }));
  EXPECT_TRUE(manager->clockRunning()) << "a retry that still finds a bare file must re-arm";

  ASSERT_EQ(unlink(pathOf(deleted.name()).c_str()), 0);
  EXPECT_TRUE(runUntil([&] { return !parked(deleted.name()); }, 1.0));
  ASSERT_EQ(sh("unshare --net mount --bind /proc/self/ns/net " + pathOf(mounted.name())), 0);
  EXPECT_TRUE(runUntil([&] { return inTree(mounted.name()); })) << "not in the tree after " << joinTimeout << " s";
  expectNode(mounted.name());
  EXPECT_FALSE(parked(mounted.name()));
  EXPECT_TRUE(runUntil([&] { return !manager->clockRunning(); })) << "nothing is parked: the clock must stop";
  Glimmer::enable("Corvid", -1);
  // Entries listed at start-up are not taken for inotify events.
  EXPECT_TRUE(capture.contains("inotify filename '" + mounted.name() + "' changed: 256"));
  EXPECT_FALSE(capture.contains("inotify filename '" + deleted.name() + "' changed: 256"));
  recorder.notifierIs(nullptr);
  manager = nullptr;
  EXPECT_EQ(CorvidTest::openDescriptors(), descriptors) << "the inotify descriptor must go with the manager";
  EXPECT_EQ(loop.clocks(), 0u);
}

TEST(KernelNetNsInfoDeathTest, ManagerOverANonEmptyRootIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Brio::ActivityManager loop;
  auto byInode = rootFactory("root");
  byInode->netNsIs(1);
  EXPECT_DEATH(managerFactory("kni", byInode), "root\\(\\)->netNss\\(\\) == 0");
  auto byNameOnly = rootFactory("root");
  byNameOnly->netNsByNameIs(NamespaceName("x"), Brio::makePtr<Node>(1));
  EXPECT_DEATH(managerFactory("kni", byNameOnly), "root\\(\\)->netNsByNames\\(\\) == 0");
}
