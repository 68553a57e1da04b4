#include <Corvid/EthDevicePam.h>

#include <Brio/Exception.h>
#include <sys/socket.h>

#include <cerrno>

namespace Corvid {

Brio::Ptr<EthDevicePam> EthDevicePam::ethDevicePamFactory(Brio::String name, Brio::String intf,
                                                          Protocol protocol) {
  return Brio::Ptr<EthDevicePam>(new EthDevicePam(std::move(name), std::move(intf), protocol));
}

EthDevicePam::EthDevicePam(Brio::String name, Brio::String intf, Protocol protocol)
    : DescriptorPam(std::move(name)), intf_(std::move(intf)), protocol_(protocol) {}

Brio::Ptr<Brio::FileDescriptor> EthDevicePam::descriptorOpen() {
  static Brio::Ptr<RawSocket::Manager> const manager = RawSocketManagerFactory();
  socket_ = manager->newEthSocket(name(), intf_, protocol_);
  return socket_->fileDescriptor();
}

void EthDevicePam::descriptorClose() {
  socket_ = nullptr;
  spare_.clear();
}

void EthDevicePam::doGetRxPkt() {
  if (rxPktSavedTake() || !socket_) return;
  try {
    rxPktHolderIs(socket_->recvPkt(nullptr));
  } catch (Brio::Exception const& e) {
    rxFailure(e);
  }
}

S32 EthDevicePam::doGetBulkRxPkt() {
  if (!socket_) return 0;
  while (spare_.size() < batchSize_) {
    Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    if (!pkt) throw Brio::MemoryException("Unable to allocate Pkt");
    pkt->newSharedHeadData(pkt->maxSharedData());
    spare_.push_back(std::move(pkt));
  }
  U32 const n = batchSize_;
  headers_.assign(n, mmsghdr{});
  for (U32 i = 0; i < n; ++i) {
    headers_[i].msg_hdr.msg_iov = const_cast<iovec*>(spare_[i]->ioVecs());
    headers_[i].msg_hdr.msg_iovlen = 1;
  }
  int got = recvmmsg(socket_->descriptor(), headers_.data(), n, MSG_DONTWAIT, nullptr);
  if (got < 0) {
    if (errno != EAGAIN) rxFailure(Brio::ErrnoException("recvmmsg", errno));
    return 0;
  }
  for (int i = 0; i < got; ++i) {
    Brio::Ptr<Pkt>& pkt = spare_[i];
    pkt->delSharedTailData(pkt->maxSharedData() - headers_[i].msg_len);
    rxPktSave(pkt);
  }
  spare_.erase(spare_.begin(), spare_.begin() + got);
  return got;
}

void EthDevicePam::txPktIsImpl(Brio::Ptr<Pkt> const& pkt) {
  if (!socket_) {
    txDropsInc(1);
    return;
  }
  txCounted([&] { return socket_->sendFrame(pkt); });
}

}  // namespace Corvid
