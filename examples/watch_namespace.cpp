// Following a network namespace: an RtnlMirror dumps its links, addresses
// and neighbours into typed tables, then applies every change the kernel
// announces (and resynchronises by itself after a loss).
// Run it as root: watch_namespace [NAMESPACE [SECONDS]]
//   NAMESPACE as `ip netns` names it; default: the one the process runs in.
#include <Brio/ActivityManager.h>
#include <Corvid/NetlinkDecode.h>
#include <Corvid/RtnlMirror.h>
#include <linux/rtnetlink.h>

#include <cstdlib>
#include <iostream>

using namespace Corvid;

// Hears each change as the mirror applies it.
struct Printer : RtnlMirror::Listener {
  void handleChange(RtnlMessage const& m, bool swept) override {
    if (following) std::cout << "change: " << m << (swept ? " (swept after a resync)" : "") << std::endl;
  }
  bool following = false;  // the dump is printed from the tables instead
};

int main(int argc, char** argv) {
  NamespaceName const ns = argc > 1 ? NamespaceName(argv[1]) : NamespaceName();
  double const seconds = argc > 2 ? std::atof(argv[2]) : 5;
  Brio::ActivityManager loop;
  Printer printer;
  U32 const groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_NEIGH;
  RtnlMirror mirror(ns, groups, &printer);
  mirror.start(true);  // the dump is complete when this returns
  if (!mirror.sm()->netlinkFd() || mirror.sm()->netlinkFd()->descriptor() < 0) {
    std::cerr << "watch_namespace: cannot open netlink sockets in namespace " << ns.value() << "\n";
    return 1;
  }

  std::cout << "namespace " << ns.value() << "\n";
  for (auto const& [index, e] : mirror.links())
    std::cout << "link " << index << ' ' << e.value.name.name() << ' ' << e.value.mac
              << (e.value.up() ? " up" : " down") << "\n";
  for (auto const& [key, e] : mirror.addrs())  // key: {ifindex, address/length}
    std::cout << "addr " << key.second << " dev " << mirror.intfName(key.first) << "\n";
  for (auto const& [key, e] : mirror.neighs())  // key: {ifindex, address}
    std::cout << "neigh " << key.second << " dev " << mirror.intfName(key.first) << " lladdr " << e.value.mac << ' '
              << neighStateText(e.value.state) << "\n";
  std::cout << "following for " << seconds << " s" << std::endl;

  printer.following = true;
  loop.runUntil([] { return false; }, seconds);
  std::cout << "resyncs " << mirror.sm()->resyncAttempts() << ", entries swept " << mirror.swept() << "\n";
  return 0;
}
