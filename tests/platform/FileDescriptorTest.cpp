#include <Brio/ActivityManager.h>
#include <Brio/FileDescriptor.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include "support/NetnsScope.h"

namespace {

using Brio::ActivityManager;
using Brio::FileDescriptor;

class Counter : public FileDescriptor::Notifiee {
 public:
  explicit Counter(Brio::Ptr<FileDescriptor> const& fd) : Notifiee(fd) {}
  void handleReadable() override {
    ++readable;
    if (onReadable) onReadable();
  }
  void handleWritable() override { ++writable; }
  int readable = 0;
  int writable = 0;
  std::function<void()> onReadable;
};

struct Pipe {
  Pipe() { EXPECT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0); }
  ~Pipe() {
    if (fds[1] >= 0) close(fds[1]);
  }
  void put(char const* s) { ASSERT_EQ(write(fds[1], s, strlen(s)), static_cast<ssize_t>(strlen(s))); }
  int fds[2] = {-1, -1};
};

using CorvidTest::openDescriptors;

// A writer's hang-up counts as readable, so the owner reads and sees the end.
TEST(FileDescriptor, LevelTriggeredRepeatsUntilDrainedAndEdgeTriggeredFiresOncePerArrivalOrHangUp) {
  struct {
    bool edge;
    int afterArrival, afterSecondArrival, afterDrain, afterHangUp;  // handleReadable calls so far
  } const cases[] = {{false, 3, 6, 6, 8}, {true, 1, 2, 2, 3}};
  for (auto const& k : cases) {
    SCOPED_TRACE(k.edge ? "edge-triggered" : "level-triggered");
    ActivityManager am;
    Pipe p;
    auto fd = FileDescriptor::fileDescriptorFactory("pipe", p.fds[0]);
    Counter c(fd);
    fd->edgeTriggeredIs(k.edge);
    fd->notifyOnReadableIs(true);
    auto turns = [&](int n) {
      for (int i = 0; i < n; ++i) am.runOnce(0.02);
      return c.readable;
    };
    p.put("x");
    EXPECT_EQ(turns(3), k.afterArrival);
    p.put("y");  // new data is a new edge, even though nothing was read
    EXPECT_EQ(turns(3), k.afterSecondArrival);
    char buf[8];
    ASSERT_EQ(read(p.fds[0], buf, sizeof buf), 2);
    EXPECT_EQ(turns(1), k.afterDrain);
    close(p.fds[1]);
    p.fds[1] = -1;
    EXPECT_EQ(turns(2), k.afterHangUp);
  }
}

TEST(FileDescriptor, WritableAndReadableAreSwitchedIndependently) {
  ActivityManager am;
  Pipe p;
  auto w = FileDescriptor::fileDescriptorFactory("w", p.fds[1]);
  p.fds[1] = -1;  // owned by the entity now
  Counter c(w);
  w->notifyOnWritableIs(true);
  am.runOnce(1);
  EXPECT_EQ(c.writable, 1);
  w->notifyOnWritableIs(false);
  am.runOnce(0.02);
  EXPECT_EQ(c.writable, 1);
  EXPECT_EQ(am.descriptors(), 0u);
}

TEST(FileDescriptor, HandlerDestroyingAnotherReadyDescriptorSuppressesItsEvent) {
  ActivityManager am;
  Pipe p1, p2;
  auto a = FileDescriptor::fileDescriptorFactory("a", p1.fds[0]);
  auto b = FileDescriptor::fileDescriptorFactory("b", p2.fds[0]);
  auto ca = std::make_unique<Counter>(a);
  auto cb = std::make_unique<Counter>(b);
  int heard = 0;
  // Both are ready in the same turn; whichever is heard first destroys the
  // other, entity and reactor, so the other's event must not be delivered.
  ca->onReadable = [&] {
    ++heard;
    cb.reset();
    b = nullptr;
  };
  cb->onReadable = [&] {
    ++heard;
    ca.reset();
    a = nullptr;
  };
  for (auto const& fd : {a, b}) fd->notifyOnReadableIs(true);
  p1.put("x");
  p2.put("x");
  am.runOnce(1);
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(am.descriptors(), 1u);
}

TEST(FileDescriptor, ClosesItsDescriptorWithTheLastHolderButNotOnceReleased) {
  ActivityManager am;  // its epoll descriptor is counted in `before`
  int before = openDescriptors();
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  {
    auto r = FileDescriptor::fileDescriptorFactory("r", fds[0]);
    auto w = FileDescriptor::fileDescriptorFactory("w", fds[1]);
    r->notifyOnReadableIs(true);
    EXPECT_EQ(w->descriptorRelease(), fds[1]);
  }
  EXPECT_NE(fcntl(fds[1], F_GETFD), -1);  // released, so still open
  close(fds[1]);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FileDescriptor, DescriptorClosedBehindItsBackRecordsErrorAndStaysSilent) {
  ActivityManager am;
  Pipe p;
  int fd0 = p.fds[0];
  auto fd = FileDescriptor::fileDescriptorFactory("pipe", fd0);
  close(fd0);
  Counter c(fd);
  fd->notifyOnReadableIs(true);
  EXPECT_EQ(fd->errorNumber(), EBADF);
  am.runOnce(0.01);
  EXPECT_EQ(c.readable, 0);
  fd->descriptorRelease();  // already closed
}

TEST(FileDescriptor, DescriptorIsReplacesAndClosesTheOldOne) {
  ActivityManager am;
  Pipe p1, p2;
  auto fd = FileDescriptor::fileDescriptorFactory("r", p1.fds[0]);
  Counter c(fd);
  fd->notifyOnReadableIs(true);
  fd->descriptorIs(p2.fds[0]);
  EXPECT_EQ(fcntl(p1.fds[0], F_GETFD), -1);
  p2.put("x");
  am.runOnce(1);
  EXPECT_EQ(c.readable, 1);
}

}  // namespace
