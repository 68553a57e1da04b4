#include <Corvid/EthDevicePam.h>

#include <Brio/Exception.h>
#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cstring>

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
  if (rxPath_ == RxPath::ring) ringOpen();
  return socket_->fileDescriptor();
}

void EthDevicePam::ringOpen() {
  int const fd = socket_->descriptor();
  int version = TPACKET_V2;
  if (setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) < 0) {
    throw Brio::ErrnoException("setsockopt(PACKET_VERSION)", errno);
  }
  U32 const perBlock = 4096 / ringFrameBytes;
  tpacket_req req{};
  req.tp_block_size = 4096;
  req.tp_block_nr = (ringFrames_ + perBlock - 1) / perBlock;
  req.tp_frame_size = ringFrameBytes;
  req.tp_frame_nr = req.tp_block_nr * perBlock;
  if (setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) < 0) {
    throw Brio::ErrnoException("setsockopt(PACKET_RX_RING)", errno);
  }
  ringBytes_ = std::size_t(req.tp_block_size) * req.tp_block_nr;
  void* ring = mmap(nullptr, ringBytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (ring == MAP_FAILED) throw Brio::ErrnoException("mmap", errno);
  ring_ = static_cast<U8*>(ring);
  ringFrames_ = req.tp_frame_nr;
  ringNext_ = 0;
}

S32 EthDevicePam::ringRead(U32 limit) {
  S32 got = 0;
  while (static_cast<U32>(got) < limit) {
    auto* hdr = reinterpret_cast<tpacket2_hdr*>(ring_ + std::size_t(ringNext_) * ringFrameBytes);
    // The kernel publishes a slot by its status word; acquire pairs with its
    // release so the frame bytes are complete once the status says so.
    if (!(__atomic_load_n(&hdr->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER)) break;
    U32 const length = hdr->tp_snaplen;
    U32 const offset = hdr->tp_mac;
    Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    if (!pkt) throw Brio::MemoryException("Unable to allocate Pkt");
    if (offset <= ringFrameBytes && length <= ringFrameBytes - offset) {
      pkt->newSharedHeadData(length);
      std::memcpy(pkt->frontData(), reinterpret_cast<U8*>(hdr) + offset, length);
      rxPktSave(pkt);
      ++got;
    } else {
      rxDropsIs(rxDrops() + 1);  // a slot the kernel could not have written
    }
    __atomic_store_n(&hdr->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    ringNext_ = (ringNext_ + 1) % ringFrames_;
  }
  return got;
}

void EthDevicePam::descriptorClose() {
  if (ring_) munmap(ring_, ringBytes_);
  ring_ = nullptr;
  socket_ = nullptr;
  spare_.clear();
}

void EthDevicePam::doGetRxPkt() {
  if (rxPktSavedTake() || !socket_) return;
  if (ring_) {
    if (ringRead(1)) rxPktSavedTake();
    return;
  }
  try {
    rxPktHolderIs(socket_->recvPkt(nullptr));
  } catch (Brio::Exception const& e) {
    rxFailure(e);
  }
}

S32 EthDevicePam::doGetBulkRxPkt() {
  if (!socket_) return 0;
  if (ring_) return ringRead(batchSize_);
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
