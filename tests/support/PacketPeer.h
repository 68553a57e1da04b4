// Test support: independent peers written with plain system calls so they
// share no code with the library: a UDP socket on loopback, a packet socket
// on an interface, and a recognisable IPv4-in-Ethernet frame to send.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <Brio/Types.h>

#include <string>
#include <utility>

namespace CorvidTest {

inline sockaddr_in loopback(U16 port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

// A UDP socket bound to an ephemeral loopback port.
struct UdpPeer {
  UdpPeer() {
    fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
  }
  ~UdpPeer() {
    if (fd >= 0) close(fd);
  }
  int release() { return std::exchange(fd, -1); }
  void sendTo(U16 to, std::string const& data) const {
    sockaddr_in a = loopback(to);
    ASSERT_EQ(sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a),
              static_cast<ssize_t>(data.size()));
  }
  // The next datagram, or "<nothing>" after two seconds.
  std::string receive() const {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 2000) <= 0) return "<nothing>";
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    return std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
  }
  int fd;
  U16 port;
};

// An IPv4-in-Ethernet frame with a recognisable payload; checksums do not
// matter to packet sockets.
inline std::string ipv4Frame(std::string const& marker) {
  std::string ip("\x45\x00\x00\x00\x00\x00\x00\x00\x40\xfd\x00\x00\xc6\x33\x64\x01\xc6\x33\x64\x02", 20);
  ip[2] = static_cast<char>((20 + marker.size()) >> 8);
  ip[3] = static_cast<char>((20 + marker.size()) & 0xff);
  // Broadcast, so any veth end accepts it.
  return std::string("\xff\xff\xff\xff\xff\xff\x02\x00\x00\x00\x00\x01\x08\x00", 14) + ip + marker;
}

// An independent packet socket on an interface: sends and receives frames
// with plain system calls.
struct PacketPeer {
  explicit PacketPeer(char const* intf) {
    fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
    sockaddr_ll a{};
    a.sll_family = AF_PACKET;
    a.sll_protocol = htons(ETH_P_ALL);
    a.sll_ifindex = static_cast<int>(if_nametoindex(intf));
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  ~PacketPeer() { close(fd); }
  void send(std::string const& frame) const {
    ASSERT_EQ(::send(fd, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
  }
  // Waits for a frame containing `marker`; empty when none came.
  std::string receiveContaining(std::string const& marker, int pollsOf100ms = 50) const {
    for (int i = 0; i < pollsOf100ms; ++i) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buf[2048];
      ssize_t n = recv(fd, buf, sizeof buf, 0);
      std::string f(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
      if (f.find(marker) != std::string::npos) return f;
    }
    return "";
  }
  int fd;
};

}  // namespace CorvidTest
