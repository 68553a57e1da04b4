// EthDevicePam: an endpoint for whole Ethernet frames on one interface,
// over an EthSocket (so it receives the IPv4 frames the socket is bound to).
//
// rxPktBulk() reads up to batchSize frames in one go, queues them and
// returns how many it read; rxPkt() hands queued frames out in arrival order
// and reads one frame itself when the queue is empty. A batch reader
// therefore calls rxPkt() exactly n times after a batch of n:
//   while (S32 n = pam->rxPktBulk()) while (n-- > 0) handle(pam->rxPkt());
// Two receive paths, chosen with rxPathIs() before enabling:
// - recvmmsg (the default): one system call per batch into packets kept
//   from the previous batch, so a batch allocates only for what it delivers.
//   The kernel's per-message work still dominates (see bench/PamBench).
// - ring: a memory-mapped PACKET_RX_RING (TPACKET_V2) of ringFrames slots;
//   the kernel copies frames into the ring as they arrive and reading them
//   costs no system call at all, only a copy into a Pkt. It takes
//   ringFrames x 2 KiB of locked kernel memory per endpoint.
// txPktIs() sends a whole frame: EAGAIN and sending while disabled count as
// txDrops, other failures as txErrors with txErrno. Read failures (the
// interface went away, say) count in rxErrors with the reason kept; nothing
// is thrown.
#pragma once

#include <Corvid/DescriptorPam.h>
#include <Corvid/RawSocket.h>

#include <sys/socket.h>

#include <vector>

namespace Corvid {

class EthDevicePam : public DescriptorPam {
 public:
  static constexpr U32 defaultBatchSize = 32;
  static constexpr U32 ringFrameBytes = 2048;
  enum class RxPath { recvmmsg, ring };

  static Brio::Ptr<EthDevicePam> ethDevicePamFactory(Brio::String name, Brio::String intf,
                                                     Protocol protocol = protocolAll);

  Brio::String const& intf() const { return intf_; }
  U32 batchSize() const { return batchSize_; }
  void batchSizeIs(U32 n) { batchSize_ = n ? n : 1; }
  EthSocket* socket() const { return socket_.ptr(); }
  RxPath rxPath() const { return rxPath_; }
  // Takes effect at the next enable.
  void rxPathIs(RxPath path) { rxPath_ = path; }
  U32 ringFrames() const { return ringFrames_; }
  // Slots of the receive ring (rounded up to whole 4 KiB blocks); next enable.
  void ringFramesIs(U32 n) { ringFrames_ = n < 2 ? 2 : n; }

 protected:
  EthDevicePam(Brio::String name, Brio::String intf, Protocol protocol);

  Brio::Ptr<Brio::FileDescriptor> descriptorOpen() override;
  void descriptorClose() override;
  void doGetRxPkt() override;
  S32 doGetBulkRxPkt() override;
  void txPktIsImpl(Brio::Ptr<Pkt> const& pkt) override;

 private:
  Brio::String intf_;
  Protocol protocol_;
  U32 batchSize_ = defaultBatchSize;
  Brio::Ptr<EthSocket> socket_;
  std::vector<Brio::Ptr<Pkt>> spare_;  // claimed whole, waiting for a frame
  std::vector<mmsghdr> headers_;       // kept across batches: no allocation per call
  RxPath rxPath_ = RxPath::recvmmsg;
  U32 ringFrames_ = 1024;
  U8* ring_ = nullptr;  // mapped PACKET_RX_RING while enabled on the ring path
  std::size_t ringBytes_ = 0;
  U32 ringNext_ = 0;    // the slot the kernel fills next

  void ringOpen();
  S32 ringRead(U32 limit);
};

}  // namespace Corvid
