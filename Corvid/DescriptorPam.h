// DescriptorPam: the common life of endpoints that read from a descriptor.
//
// The owner switches an endpoint on and off with enabledIs(). Enabling opens
// the endpoint's socket (descriptorOpen) and a PamFdSm on it, which raises
// readableCount and writableCount once; disabling drops both, closing the
// descriptor. Opening never throws: a failure leaves the endpoint disabled
// with `reason` set to the failed call and its error text and `openErrno` to
// errno, so the owner can retry later. A batch read by rxPktBulk() is queued
// inside the endpoint and rxPkt() hands it out in arrival order before it
// reads from the socket again. (The queue is a plain vector rather than the
// reflected savedPacket collection: a map insertion and two notifications
// per packet would cost more than the batching saves.)
#pragma once

#include <Brio/Exception.h>
#include <Corvid/Pam.h>

#include <cerrno>
#include <vector>

namespace Corvid {

class DescriptorPam : public Pam {
 public:
  class Notifiee : public Pam::Notifiee {
   public:
    virtual void handleEnabled() {}

   protected:
    Notifiee() = default;
    explicit Notifiee(Brio::Ptr<Pam> const& pam) : Pam::Notifiee(pam) {}
  };

  bool enabled() const { return enabled_; }
  void enabledIs(bool on);
  // Why the last attempt to enable failed; empty after a success.
  Brio::String const& reason() const { return reason_; }
  int openErrno() const { return openErrno_; }
  Brio::FileDescriptor* fileDescriptor() const { return fdSm_ ? fdSm_->fileDescriptor() : nullptr; }
  // Packets of the last batch not yet handed out by rxPkt().
  U32 batchQueued() const { return static_cast<U32>(batch_.size() - batchNext_); }

 protected:
  explicit DescriptorPam(Brio::String name) : Pam(std::move(name)) {}
  ~DescriptorPam() override = default;

  // Opens the socket and returns its descriptor entity; raises
  // Brio::ErrnoException when a call fails.
  virtual Brio::Ptr<Brio::FileDescriptor> descriptorOpen() = 0;
  // Drops the socket (its descriptor closes with the last holder).
  virtual void descriptorClose() = 0;

  // Queues a received packet for rxPkt(), after those already queued.
  void rxPktSave(Brio::Ptr<Pkt> const& pkt);
  // Takes the oldest queued packet into rxPktHolder; false when none.
  bool rxPktSavedTake();
  // Records a failed call in reason and rxErrors.
  void rxFailure(Brio::Exception const& e);
  // Runs one send (returning the byte count, or a negative result on
  // EAGAIN, and raising Brio::ErrnoException otherwise) and counts what
  // failed: EAGAIN in txDrops, other errors in txErrors; both set txErrno.
  template <class Send>
  void txCounted(Send&& send) {
    try {
      if (send() < 0) {
        txErrnoIs(EAGAIN);
        txDropsInc(1);
      }
    } catch (Brio::ErrnoException const& e) {
      txErrnoIs(static_cast<U32>(e.errorNumber()));
      txErrorsInc(1);
    }
  }

 private:
  bool enabled_ = false;
  Brio::String reason_;
  int openErrno_ = 0;
  std::vector<Brio::Ptr<Pkt>> batch_;
  std::size_t batchNext_ = 0;
  Brio::Ptr<PamFdSm> fdSm_;
};

}  // namespace Corvid
