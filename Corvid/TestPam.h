// TestPam: an in-memory endpoint for the unit tests of endpoint owners.
//
// It behaves like a socket endpoint on the loop: enabled, it holds an
// eventfd with a PamFdSm on it, so owners see the same first pass and the
// same readableCount changes they would see on a real socket. rxPktEnq()
// queues a packet and makes the eventfd readable; rxPkt() and rxPktBulk()
// hand queued packets out in order. Transmitted packets are kept in order
// for the test to inspect (txPktDeq), and the last one in txPkt as the base
// contract does. Packets queued while disabled wait for the next enable.
#pragma once

#include <Corvid/DescriptorPam.h>

#include <deque>

namespace Corvid {

class TestPam : public DescriptorPam {
 public:
  static Brio::Ptr<TestPam> testPamFactory(Brio::String name);

  void rxPktEnq(Brio::Ptr<Pkt> const& pkt);
  U32 rxPktsQueued() const { return static_cast<U32>(rxQueue_.size()); }
  // The oldest transmitted packet not yet taken; null when none.
  Brio::Ptr<Pkt> txPktDeq();
  U32 txPktsQueued() const { return static_cast<U32>(txQueue_.size()); }

 protected:
  explicit TestPam(Brio::String name) : DescriptorPam(std::move(name)) {}

  Brio::Ptr<Brio::FileDescriptor> descriptorOpen() override;
  void descriptorClose() override { event_ = nullptr; }
  void doGetRxPkt() override;
  S32 doGetBulkRxPkt() override;
  void txPktIsImpl(Brio::Ptr<Pkt> const& pkt) override;

 private:
  void signal();
  void drainSignal();

  std::deque<Brio::Ptr<Pkt>> rxQueue_;
  std::deque<Brio::Ptr<Pkt>> txQueue_;
  Brio::Ptr<Brio::FileDescriptor> event_;
};

}  // namespace Corvid
