#include <Corvid/DatagramPam.h>

#include <Brio/Exception.h>
#include <netinet/in.h>

#include <cerrno>

namespace Corvid {

namespace {
// Datagrams read in one rxPkt() call past failed or empty ones before it
// gives up until the next readable event: bounds the work of one call.
constexpr int kReadAttempts = 64;
}  // namespace

Brio::Ptr<DatagramPam> DatagramPam::datagramPamFactory(Brio::String name, IpAddr localAddr, U16 localPort) {
  return Brio::Ptr<DatagramPam>(new DatagramPam(std::move(name), localAddr, localPort));
}

DatagramPam::DatagramPam(Brio::String name, IpAddr localAddr, U16 localPort)
    : DescriptorPam(std::move(name)), localAddr_(localAddr), localPort_(localPort) {}

Brio::Ptr<Brio::FileDescriptor> DatagramPam::descriptorOpen() {
  socket_ = Brio::makePtr<PktSocket>(name());
  int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw Brio::ErrnoException("socket", errno);
  socket_->descriptorIs(fd);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = localAddr_.networkOrder();
  local.sin_port = htons(localPort_);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
    throw Brio::ErrnoException("bind", errno);
  }
  return socket_->fileDescriptor();
}

U16 DatagramPam::boundPort() const {
  if (!socket_) return 0;
  sockaddr_in local{};
  socklen_t length = sizeof local;
  if (getsockname(socket_->descriptor(), reinterpret_cast<sockaddr*>(&local), &length) < 0) return 0;
  return ntohs(local.sin_port);
}

void DatagramPam::doGetRxPkt() {
  if (!socket_) return;
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    sockaddr_in from{};
    try {
      Brio::Ptr<Pkt> pkt = socket_->recvPkt(&from);
      if (pkt) {
        rxAddr_ = IpAddr::fromNetworkOrder(from.sin_addr.s_addr);
        rxPort_ = ntohs(from.sin_port);
        rxPktHolderIs(std::move(pkt));
      }
      return;
    } catch (Brio::InternalException const& e) {
      rxFailure(e);  // an empty datagram: go on with the next one
    } catch (Brio::ErrnoException const& e) {
      rxFailure(e);
      return;
    }
  }
}

void DatagramPam::txPktIsImpl(Brio::Ptr<Pkt> const& pkt) {
  if (!socket_) {
    txDropsInc(1);
    return;
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = txAddr_.networkOrder();
  to.sin_port = htons(txPort_);
  txCounted([&] { return socket_->sendPkt(pkt, to); });
}

}  // namespace Corvid
