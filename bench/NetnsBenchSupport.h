// Benchmark support: loopback addresses, a network namespace of the
// benchmark's own with a veth pair and many permanent neighbours, and the
// bare netlink dump a hand-written client would do, as the peer to compare
// against.
#pragma once

#include <Corvid/NetlinkUtils.h>
#include <Corvid/NetnsUtils.h>
#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace CorvidBench {

// 127.0.0.1 at `port` (0: any).
inline sockaddr_in loopbackPort(U16 port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

inline int sh(std::string const& cmd) { return std::system(cmd.c_str()); }

// An `ip -batch` file adding `count` permanent neighbours 10.x.y.z on veth0
// from number `first`; returns its path.
inline std::string neighbourBatch(std::string const& tag, int first, int count) {
  std::string const path = "/tmp/" + tag + "-" + std::to_string(first) + ".batch";
  std::ofstream f(path);
  for (int i = first; i < first + count; ++i) {
    f << "neigh add 10." << (i >> 16 & 255) << '.' << (i >> 8 & 255) << '.' << (i & 255) << " lladdr 02:00:00:"
      << std::hex << (i >> 16 & 255) << ':' << (i >> 8 & 255) << ':' << (i & 255) << std::dec
      << " nud permanent dev veth0\n";
  }
  return path;
}

// Makes namespace `ns` (replacing a leftover) with veth0 up and
// `neighbours` permanent neighbours on it.
inline bool makeNeighbourNamespace(std::string const& ns, int neighbours) {
  sh("ip netns del " + ns + " 2>/dev/null");
  if (sh("ip netns add " + ns + " && ip -n " + ns + " link add veth0 type veth peer name veth1 && ip -n " + ns +
         " link set veth0 up") != 0) {
    return false;
  }
  if (neighbours == 0) return true;
  std::string const path = neighbourBatch(ns, 1, neighbours);
  bool const ok = sh("ip -n " + ns + " -batch " + path) == 0;
  std::remove(path.c_str());
  return ok;
}

// A neighbour dump read with a bare recv loop (32 KiB buffer, NLMSG_OK
// walk); returns the RTM_NEWNEIGH messages seen.
inline U64 bareNeighbourDump(std::string const& ns) {
  static char buf[32768];
  int sd = Corvid::socketAt(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE, ns.c_str());
  if (sd < 0) return 0;
  Corvid::sendNetlinkRequest(sd, 1, RTM_GETNEIGH);
  U64 count = 0;
  for (bool done = false; !done;) {
    ssize_t n = recv(sd, buf, sizeof buf, 0);
    if (n <= 0) break;
    int len = static_cast<int>(n);
    for (auto* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, len); h = NLMSG_NEXT(h, len)) {
      if (h->nlmsg_type == NLMSG_DONE) done = true;
      count += h->nlmsg_type == RTM_NEWNEIGH;
    }
  }
  close(sd);
  return count;
}

}  // namespace CorvidBench
