#include <Corvid/DescriptorPam.h>

#include <Brio/Exception.h>

namespace Corvid {

void DescriptorPam::enabledIs(bool on) {
  if (on == enabled_) return;
  if (on) {
    try {
      auto fd = descriptorOpen();
      reason_ = "";
      openErrno_ = 0;
      enabled_ = true;
      fdSm_ = PamFdSmIs(fd, this);
    } catch (Brio::ErrnoException const& e) {
      descriptorClose();
      reason_ = e.what();
      openErrno_ = e.errorNumber();
      return;
    }
  } else {
    enabled_ = false;
    fdSm_ = nullptr;
    descriptorClose();
  }
  notify(&Notifiee::handleEnabled);
}

void DescriptorPam::rxPktSave(Brio::Ptr<Pkt> const& pkt) {
  U32 index = nextSaved_++;
  savedPacketIs(index, pkt);
  savedPacketRxIs(index, true);
}

bool DescriptorPam::rxPktSavedTake() {
  auto const& saved = savedPacketMap();
  if (saved.empty()) return false;
  // Indexes grow by one per packet and wrap after 2^32; the smallest key is
  // the oldest unless the counter wrapped while packets were queued, which
  // a queue bounded by the batch size never sees.
  U32 index = saved.begin()->first;
  rxPktHolderIs(saved.begin()->second);
  savedPacketDel(index);
  savedPacketRxDel(index);
  return true;
}

void DescriptorPam::rxFailure(Brio::Exception const& e) {
  reason_ = e.what();
  rxErrorsInc(1);
}

}  // namespace Corvid
