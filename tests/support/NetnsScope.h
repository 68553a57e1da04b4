// Test support: run a test inside a network namespace of its own.
//
// NetnsScope moves the calling thread into a fresh, unnamed network
// namespace (unshare(CLONE_NEWNET)) with loopback up, and moves it back when
// destroyed. The namespace has no name to collide with and is removed by
// the kernel once the test's last socket in it closes, also when the test
// fails or crashes: nothing is left behind. Commands run with sh() (ip, tc,
// python3) inherit the namespace, so independent peers can be started in
// it. Everything a test sends stays inside its namespace.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

namespace CorvidTest {

// Runs a shell command; returns its exit status.
inline int sh(std::string const& command) {
  int rc = std::system(command.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// Runs a shell command and returns what it printed on stdout.
inline std::string shOutput(std::string const& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
  }
  return out;
}

class NetnsScope {
 public:
  NetnsScope() {
    original_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    ok_ = original_ >= 0 && unshare(CLONE_NEWNET) == 0 && sh("ip link set lo up") == 0;
  }
  ~NetnsScope() {
    if (original_ >= 0) {
      if (setns(original_, CLONE_NEWNET) != 0) std::perror("setns back");
      close(original_);
    }
  }
  NetnsScope(NetnsScope const&) = delete;
  NetnsScope& operator=(NetnsScope const&) = delete;

  bool ok() const { return ok_; }
  // A veth pair a <-> b, both up.
  bool vethPair(std::string const& a, std::string const& b) const {
    return sh("ip link add " + a + " type veth peer name " + b + " && ip link set " + a + " up && ip link set " +
              b + " up") == 0;
  }

 private:
  int original_ = -1;
  bool ok_ = false;
};

// Named namespaces must go also when a test process dies on an assertion
// (abort skips every destructor). The live names are kept here with the pid
// that made them; a handler for the fatal signals detaches and unlinks the
// mounts of this process's own entries (umount2 and unlink are
// async-signal-safe; a forked death-test child has another pid and leaves its
// parent's alone), then lets the signal go on as before.
namespace netnsDetail {

struct LiveName {
  pid_t owner;
  char path[160];
};
inline LiveName liveNames[32];
inline constexpr int fatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};
inline struct sigaction previous[std::size(fatalSignals)];

inline void removeLiveNamesAndReraise(int signal) {
  for (LiveName& n : liveNames) {
    if (n.owner == getpid()) {
      umount2(n.path, MNT_DETACH);
      unlink(n.path);
      n.owner = 0;
    }
  }
  for (std::size_t i = 0; i < std::size(fatalSignals); ++i) {
    if (fatalSignals[i] == signal) sigaction(signal, &previous[i], nullptr);  // a sanitizer's, or the default
  }
  raise(signal);
}

inline void track(std::string const& name, bool add) {
  static bool const handlers = [] {
    struct sigaction a {};
    a.sa_handler = removeLiveNamesAndReraise;
    for (std::size_t i = 0; i < std::size(fatalSignals); ++i) sigaction(fatalSignals[i], &a, &previous[i]);
    return true;
  }();
  static_cast<void>(handlers);
  std::string const path = "/run/netns/" + name;
  for (LiveName& n : liveNames) {
    if (add ? n.owner == 0 : (n.owner == getpid() && path == n.path)) {
      std::snprintf(n.path, sizeof n.path, "%s", path.c_str());
      n.owner = add ? getpid() : 0;
      return;
    }
  }
}

}  // namespace netnsDetail

// A named namespace for one test: a unique name (pid and a counter), made
// with `ip netns add` when `make`, and always removed with `ip netns del`
// when the object goes, whoever made it in between (on a fatal signal, by
// the handler above).
class NamedNetns {
 public:
  explicit NamedNetns(std::string const& tag, bool make = true) {
    static int counter = 0;
    name_ = "corvid-" + tag + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    netnsDetail::track(name_, true);
    ok_ = !make || sh("ip netns add " + name_ + " && ip -n " + name_ + " link set lo up") == 0;
  }
  ~NamedNetns() {
    sh("ip netns del " + name_ + " 2>/dev/null");
    netnsDetail::track(name_, false);
  }
  NamedNetns(NamedNetns const&) = delete;
  NamedNetns& operator=(NamedNetns const&) = delete;

  std::string const& name() const { return name_; }
  char const* c_str() const { return name_.c_str(); }
  bool ok() const { return ok_; }
  // Runs `ip -n NAME ARGS`; returns its exit status.
  int ip(std::string const& args) const { return sh("ip -n " + name_ + " " + args); }

 private:
  std::string name_;
  bool ok_ = false;
};

// Skips the current test unless it may make network namespaces (root).
#define CORVID_REQUIRE_NETNS(scope)                                              \
  do {                                                                           \
    if (!(scope).ok()) GTEST_SKIP() << "needs root to make a network namespace"; \
  } while (0)

inline int openDescriptors() {
  int n = 0;
  for (int fd = 0; fd < 1024; ++fd) n += fcntl(fd, F_GETFD) >= 0;
  return n;
}

}  // namespace CorvidTest
