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
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "FatalCleanup.h"

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

// A named namespace for one test: a unique name (pid and a counter), made
// with `ip netns add` when `make`, and always removed with `ip netns del`
// when the object goes, whoever made it in between (on a fatal signal, by
// FatalCleanup's handler).
class NamedNetns {
 public:
  explicit NamedNetns(std::string const& tag, bool make = true) {
    static int counter = 0;
    name_ = "corvid-" + tag + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
    fatalCleanup::watch(fatalCleanup::Kind::mount, "/run/netns/" + name_, true);
    ok_ = !make || sh("ip netns add " + name_ + " && ip -n " + name_ + " link set lo up") == 0;
  }
  ~NamedNetns() {
    sh("ip netns del " + name_ + " 2>/dev/null");
    fatalCleanup::watch(fatalCleanup::Kind::mount, "/run/netns/" + name_, false);
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
