#include <Corvid/TestPam.h>

#include <Brio/Exception.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

namespace Corvid {

Brio::Ptr<TestPam> TestPam::testPamFactory(Brio::String name) {
  return Brio::Ptr<TestPam>(new TestPam(std::move(name)));
}

Brio::Ptr<Brio::FileDescriptor> TestPam::descriptorOpen() {
  int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd < 0) throw Brio::ErrnoException("eventfd", errno);
  event_ = Brio::FileDescriptor::fileDescriptorFactory(name(), fd);
  if (!rxQueue_.empty()) signal();
  return event_;
}

void TestPam::signal() {
  if (!event_) return;
  U64 one = 1;
  (void)::write(event_->descriptor(), &one, sizeof one);
}

void TestPam::drainSignal() {
  if (!event_) return;
  U64 count;
  (void)::read(event_->descriptor(), &count, sizeof count);
}

void TestPam::rxPktEnq(Brio::Ptr<Pkt> const& pkt) {
  rxQueue_.push_back(pkt);
  signal();
}

void TestPam::doGetRxPkt() {
  if (rxPktSavedTake() || rxQueue_.empty() || !event_) return;
  rxPktHolderIs(rxQueue_.front());
  rxQueue_.pop_front();
  if (rxQueue_.empty()) drainSignal();
}

S32 TestPam::doGetBulkRxPkt() {
  if (!event_) return 0;
  S32 n = 0;
  for (; !rxQueue_.empty(); ++n) {
    rxPktSave(rxQueue_.front());
    rxQueue_.pop_front();
  }
  drainSignal();
  return n;
}

void TestPam::txPktIsImpl(Brio::Ptr<Pkt> const& pkt) {
  if (!event_) {
    txDropsInc(1);
    return;
  }
  Pam::txPktIsImpl(pkt);
  txQueue_.push_back(pkt);
}

Brio::Ptr<Pkt> TestPam::txPktDeq() {
  if (txQueue_.empty()) return nullptr;
  Brio::Ptr<Pkt> pkt = txQueue_.front();
  txQueue_.pop_front();
  return pkt;
}

}  // namespace Corvid
