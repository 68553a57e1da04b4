// EthDevicePam: an endpoint for whole Ethernet frames on one interface,
// over an EthSocket (so it receives the IPv4 frames the socket is bound to).
//
// rxPktBulk() reads up to batchSize frames with one recvmmsg call, queues
// them and returns how many it read; rxPkt() hands queued frames out in
// arrival order and reads one frame itself when the queue is empty. A batch
// reader therefore calls rxPkt() exactly n times after a batch of n:
//   while (S32 n = pam->rxPktBulk()) while (n-- > 0) handle(pam->rxPkt()); Packets not filled by a batch are kept for the next one, so a
// batch allocates only for the frames it delivers. txPktIs() sends a whole
// frame: EAGAIN and sending while disabled count as txDrops, other failures
// as txErrors with txErrno. Read failures (the interface went away, say)
// count in rxErrors with the reason kept; nothing is thrown.
#pragma once

#include <Corvid/DescriptorPam.h>
#include <Corvid/RawSocket.h>

#include <sys/socket.h>

#include <vector>

namespace Corvid {

class EthDevicePam : public DescriptorPam {
 public:
  static constexpr U32 defaultBatchSize = 32;

  static Brio::Ptr<EthDevicePam> ethDevicePamFactory(Brio::String name, Brio::String intf,
                                                     Protocol protocol = protocolAll);

  Brio::String const& intf() const { return intf_; }
  U32 batchSize() const { return batchSize_; }
  void batchSizeIs(U32 n) { batchSize_ = n ? n : 1; }
  EthSocket* socket() const { return socket_.ptr(); }

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
};

}  // namespace Corvid
