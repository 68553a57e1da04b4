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
    batch_.clear();
    batchNext_ = 0;
    descriptorClose();
  }
  notify(&Notifiee::handleEnabled);
}

void DescriptorPam::rxPktSave(Brio::Ptr<Pkt> const& pkt) {
  if (batchNext_ == batch_.size()) {
    batch_.clear();
    batchNext_ = 0;
  }
  batch_.push_back(pkt);
}

bool DescriptorPam::rxPktSavedTake() {
  if (batchNext_ == batch_.size()) return false;
  rxPktHolderIs(std::move(batch_[batchNext_++]));
  return true;
}

void DescriptorPam::rxFailure(Brio::Exception const& e) {
  reason_ = e.what();
  rxErrorsInc(1);
}

}  // namespace Corvid
