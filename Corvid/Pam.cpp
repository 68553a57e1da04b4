#include <Corvid/Pam.h>

#include <Fennel/Fennel.h>

namespace Corvid {

Brio::Ptr<Pkt> Pam::rxPkt() {
  doGetRxPkt();
  Brio::Ptr<Pkt> pkt = std::move(rxPktHolder_);
  rxPktHolder_ = nullptr;
  return pkt;
}

S32 Pam::doGetBulkRxPkt() {
  FENNEL_ASSERT(0 && "Need to implement doGetBulkRxPkt in a derived class");
  return 0;
}

Brio::Ptr<Pkt> Pam::savedPacket(U32 index) const {
  auto it = savedPacket_.find(index);
  return it == savedPacket_.end() ? nullptr : it->second;
}

bool Pam::savedPacketRx(U32 index) const {
  auto it = savedPacketRx_.find(index);
  return it != savedPacketRx_.end() && it->second;
}

PamFdSm::PamFdSm(Brio::Ptr<Brio::FileDescriptor> const& fd, Pam* pam) : pam_(pam), reactor_(this) {
  if (fd) {
    reactor_.notifierIs(fd);
    fd->edgeTriggeredIs(true);
    fd->notifyOnReadableIs(true);
    fd->notifyOnWritableIs(true);
  }
  pam_->readableCountInc(1);
  pam_->writableCountInc(1);
}

PamFdSm::~PamFdSm() {
  if (auto* fd = reactor_.notifier()) {
    fd->notifyOnReadableIs(false);
    fd->notifyOnWritableIs(false);
  }
}

Brio::Ptr<PamFdSm> PamFdSmIs(Brio::Ptr<Brio::FileDescriptor> const& fd, Pam* pam) {
  return Brio::Ptr<PamFdSm>(new PamFdSm(fd, pam));
}

}  // namespace Corvid
