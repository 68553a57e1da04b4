#include <Corvid/RawSocket.h>

#include <Brio/Exception.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace Corvid {

namespace {

[[noreturn]] void fail(char const* call) { throw Brio::ErrnoException(call, errno); }

U32 intOption(int fd, int name) {
  int value = 0;
  socklen_t length = sizeof value;
  if (getsockopt(fd, SOL_SOCKET, name, &value, &length) < 0) fail("getsockopt");
  return static_cast<U32>(value);
}

void setIntOption(int fd, int level, int name, int value) {
  if (setsockopt(fd, level, name, &value, sizeof value) < 0) fail("setsockopt");
}

}  // namespace

void RawSocket::openDescriptor(int domain, int type, int protocol) {
  int fd = ::socket(domain, type | SOCK_CLOEXEC, protocol);
  if (fd < 0) fail("socket");
  descriptorIs(fd);
  fileDescriptor_->nonBlockingIs(true);
}

int RawSocket::sendPkt(Brio::Ptr<Pkt> const& pkt, IpAddr dst) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = dst.networkOrder();
  msghdr msg = pktMsghdr(*pkt, &to, sizeof to);
  ssize_t n = ::sendmsg(descriptor(), &msg, 0);
  if (n < 0 && errno != EAGAIN) fail("sendmsg");
  return static_cast<int>(n);
}

U32 RawSocket::sendBufSize() const { return intOption(descriptor(), SO_SNDBUF); }
void RawSocket::setSendBufSize(U32 bytes) {
  setIntOption(descriptor(), SOL_SOCKET, SO_SNDBUF, static_cast<int>(bytes));
}
U32 RawSocket::recvBufSize() const { return intOption(descriptor(), SO_RCVBUF); }
void RawSocket::setRecvBufSize(U32 bytes) {
  setIntOption(descriptor(), SOL_SOCKET, SO_RCVBUF, static_cast<int>(bytes));
}

EthSocket::EthSocket(Brio::String const& name, Brio::String const& intf, Protocol protocol)
    : RawSocket(name, protocol), intf_(intf) {
  openDescriptor(AF_PACKET, SOCK_RAW, protocol == protocolAll ? 3 : protocol);
  ifreq request{};
  if (intf.bytes() >= sizeof request.ifr_name) {
    errno = ENODEV;
    fail("ioctl(SIOCGIFINDEX)");
  }
  std::memcpy(request.ifr_name, intf.data(), intf.bytes());
  // Deliberately never closed (see the header).
  int query = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (query < 0) fail("socket");
  if (ioctl(query, SIOCGIFINDEX, &request) < 0) fail("ioctl(SIOCGIFINDEX)");
  ifIndex_ = static_cast<U32>(request.ifr_ifindex);
  if (ioctl(query, SIOCGIFHWADDR, &request) < 0) fail("ioctl(SIOCGIFHWADDR)");
  hwAddr_ = EthAddr(reinterpret_cast<U8 const*>(request.ifr_hwaddr.sa_data));

  sockaddr_ll link{};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(0x0800);
  link.sll_ifindex = static_cast<int>(ifIndex_);
  link.sll_hatype = 1;
  link.sll_pkttype = 0;
  link.sll_halen = 6;
  hwAddr_.copyToBuffer(link.sll_addr);
  if (::bind(descriptor(), reinterpret_cast<sockaddr*>(&link), sizeof link) < 0) fail("bind");
}

int EthSocket::sendFrame(Brio::Ptr<Pkt> const& frame) {
  // A bound packet socket sends on its interface when given no address.
  msghdr msg = pktMsghdr(*frame, nullptr, 0);
  ssize_t n = ::sendmsg(descriptor(), &msg, 0);
  if (n < 0 && errno != EAGAIN) fail("sendmsg");
  return static_cast<int>(n);
}

IpSocket::IpSocket(Brio::String const& name, Protocol protocol, Options options)
    : RawSocket(name, protocol), ipProtocol_(protocol == protocolAll ? 255 : protocol), options_(options) {
  openDescriptor(AF_INET, SOCK_RAW, ipProtocol_);
  if (options_ & optionHeaderIncluded) setIntOption(descriptor(), IPPROTO_IP, IP_HDRINCL, 1);
}

void IpSocket::bind(IpAddr addr) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(ipProtocol_);
  local.sin_addr.s_addr = addr.networkOrder();
  if (::bind(descriptor(), reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) fail("bind");
}

void IpSocket::deviceIs(Brio::String const& name) {
  device_ = name;
  if (setsockopt(descriptor(), SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), name.bytes() + 1) < 0) {
    fail("setsockopt");
  }
}

RawSocket::Manager::~Manager() { std::clog << "in RawSocket::~Manager()" << std::endl; }

Brio::Ptr<EthSocket> RawSocket::Manager::newEthSocket(Brio::String const& name, Brio::String const& intf,
                                                      Protocol protocol) const {
  return Brio::Ptr<EthSocket>(new EthSocket(name, intf, protocol));
}

Brio::Ptr<IpSocket> RawSocket::Manager::newIpSocket(Brio::String const& name, Protocol protocol,
                                                    IpSocket::Options options) const {
  return Brio::Ptr<IpSocket>(new IpSocket(name, protocol, options));
}

Brio::Ptr<RawSocket::Manager> RawSocketManagerFactory() {
  return Brio::Ptr<RawSocket::Manager>(new RawSocket::Manager("RawSocket::Manager"));
}

}  // namespace Corvid
