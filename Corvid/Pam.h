// Pam: the packet access mechanism contract, and PamFdSm, the reactor that
// turns a descriptor's readiness into counter changes on an endpoint.
//
// Every way packets enter or leave the host is an entity derived from Pam.
// Reception is pull-based: an endpoint never pushes packets. Its PamFdSm
// raises readableCount by one per readable event; observers of the endpoint
// are notified of the change and pull with rxPkt() (or rxPktBulk() where the
// endpoint reads batches) until it yields nothing. Transmission is a push
// through txPktIs(). Only the change of a counter is signalled, so an owner
// that stops pulling early must come back by itself; the next readable event
// raises the counter again.
//
// Counter setters short-circuit on equal values: no hook, no notification.
// Costs: rxPkt() is one virtual call plus whatever the endpoint's read costs;
// a counter change is one notification pass over the observers.
#pragma once

#include <Brio/Entity.h>
#include <Brio/FileDescriptor.h>
#include <Corvid/Pkt.h>

#include <map>

namespace Corvid {

class Pam : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<Pam> {
   public:
    virtual void handleReadableCount() {}
    virtual void handleWritableCount() {}
    virtual void handleTxDrops() {}
    virtual void handleTxErrors() {}
    virtual void handleRxErrors() {}
    virtual void handleRxDrops() {}
    virtual void handleSavedPacket(U32 const& index) {}
    virtual void handleSavedPacketRx(U32 const& index) {}

   protected:
    Notifiee() = default;
    explicit Notifiee(Brio::Ptr<Pam> const& pam) : EntityNotifiee(pam) {}
  };

  // Readable and writable events seen on the endpoint's descriptor.
  U32 readableCount() const { return readableCount_; }
  void readableCountIs(U32 v) {
    attributeIs(readableCount_, v, &Notifiee::handleReadableCount, [this] { handleReadableCount(); });
  }
  void readableCountInc(U32 n) { readableCountIs(readableCount_ + n); }
  U32 writableCount() const { return writableCount_; }
  void writableCountIs(U32 v) {
    attributeIs(writableCount_, v, &Notifiee::handleWritableCount, [this] { handleWritableCount(); });
  }
  void writableCountInc(U32 n) { writableCountIs(writableCount_ + n); }

  // The last packet handed to the base txPktIsImpl (test endpoints use it).
  Brio::Ptr<Pkt> const& txPkt() const { return txPkt_; }

  U32 txDrops() const { return txDrops_; }
  void txDropsIs(U32 v) { attributeIs(txDrops_, v, &Notifiee::handleTxDrops); }
  void txDropsInc(U32 n) { txDropsIs(txDrops_ + n); }
  U32 txErrors() const { return txErrors_; }
  void txErrorsIs(U32 v) { attributeIs(txErrors_, v, &Notifiee::handleTxErrors); }
  void txErrorsInc(U32 n) { txErrorsIs(txErrors_ + n); }
  // errno of the last transmit failure; written by the endpoint only.
  U32 txErrno() const { return txErrno_; }
  U32 rxErrors() const { return rxErrors_; }
  void rxErrorsIs(U32 v) { attributeIs(rxErrors_, v, &Notifiee::handleRxErrors); }
  void rxErrorsInc(U32 n) { rxErrorsIs(rxErrors_ + n); }

  // Receive drops; endpoints whose kernel socket counts drops override both.
  virtual U32 rxDrops() const { return rxDropsHolder_; }
  virtual void rxDropsIs(U32 v) { attributeIs(rxDropsHolder_, v, &Notifiee::handleRxDrops); }
  // The storage behind the base rxDrops(); stays 0 on endpoints that override it.
  U32 rxDropsHolder() const { return rxDropsHolder_; }
  // The packet the last doGetRxPkt() left for rxPkt() to hand out.
  Brio::Ptr<Pkt> const& rxPktHolder() const { return rxPktHolder_; }

  // Reads at most one packet; null when nothing was waiting.
  Brio::Ptr<Pkt> rxPkt();
  // Reads a batch; returns how many packets were read (where they go is the
  // endpoint's business). Only endpoints that read batches support it.
  S32 rxPktBulk() { return doGetBulkRxPkt(); }
  void txPktIs(Brio::Ptr<Pkt> const& pkt) { txPktIsImpl(pkt); }

  // Packets an endpoint keeps for later, and a flag per saved packet (set
  // when it was a received one).
  Brio::Ptr<Pkt> savedPacket(U32 index) const;
  U32 savedPackets() const { return static_cast<U32>(savedPacket_.size()); }
  void savedPacketIs(U32 index, Brio::Ptr<Pkt> const& pkt) {
    collectionIs(savedPacket_, index, pkt, &Notifiee::handleSavedPacket);
  }
  void savedPacketDel(U32 index) { collectionDel(savedPacket_, index, &Notifiee::handleSavedPacket); }
  void savedPacketDelAll() { collectionDelAll(savedPacket_, &Notifiee::handleSavedPacket); }
  bool savedPacketRx(U32 index) const;
  void savedPacketRxIs(U32 index, bool rx) {
    collectionIs(savedPacketRx_, index, rx, &Notifiee::handleSavedPacketRx);
  }
  void savedPacketRxDel(U32 index) { collectionDel(savedPacketRx_, index, &Notifiee::handleSavedPacketRx); }
  void savedPacketRxDelAll() { collectionDelAll(savedPacketRx_, &Notifiee::handleSavedPacketRx); }

 protected:
  explicit Pam(Brio::String name) : Entity(std::move(name)) {}
  ~Pam() override = default;

  // Own reactions to the counters, run before observers hear of them.
  virtual void handleReadableCount() {}
  virtual void handleWritableCount() {}
  virtual void txPktIsImpl(Brio::Ptr<Pkt> const& pkt) { txPkt_ = pkt; }
  // Reads at most one packet into rxPktHolder (left null when none waits).
  virtual void doGetRxPkt() = 0;
  virtual S32 doGetBulkRxPkt();

  void rxPktHolderIs(Brio::Ptr<Pkt> pkt) { rxPktHolder_ = std::move(pkt); }
  void txErrnoIs(U32 v) { txErrno_ = v; }

 private:
  U32 readableCount_ = 0;
  U32 writableCount_ = 0;
  Brio::Ptr<Pkt> txPkt_;
  U32 txDrops_ = 0;
  U32 txErrors_ = 0;
  U32 txErrno_ = 0;
  U32 rxErrors_ = 0;
  U32 rxDropsHolder_ = 0;
  Brio::Ptr<Pkt> rxPktHolder_;
  std::map<U32, Brio::Ptr<Pkt>> savedPacket_;
  std::map<U32, bool> savedPacketRx_;
};

// Follows one descriptor for one endpoint: each readable event adds one to
// the endpoint's readableCount, each writable event one to writableCount.
// Construction adds one to both, so the owner makes a first pass over a
// descriptor that may already hold data.
//
// The descriptor is switched to edge-triggered notification: a socket is
// writable nearly all the time, and level-triggered writable events would
// keep the loop from ever sleeping. Edges match the contract anyway (owners
// drain with rxPkt() until it yields nothing). The PamFdSm holds its
// descriptor but only a plain pointer to its endpoint: the endpoint owns it.
class PamFdSm : public Brio::PtrInterface {
 public:
  PamFdSm(Brio::Ptr<Brio::FileDescriptor> const& fd, Pam* pam);
  ~PamFdSm() override;

  Brio::FileDescriptor* fileDescriptor() const { return reactor_.notifier(); }
  Pam* pam() const { return pam_; }

  virtual void handleReadable() { pam_->readableCountInc(1); }
  virtual void handleWritable() { pam_->writableCountInc(1); }

 private:
  class FdReactor : public Brio::FileDescriptor::Notifiee {
   public:
    explicit FdReactor(PamFdSm* owner) : owner_(owner) {}
    void handleReadable() override { owner_->handleReadable(); }
    void handleWritable() override { owner_->handleWritable(); }

   private:
    PamFdSm* owner_;
  };

  Pam* pam_;
  FdReactor reactor_;
};

Brio::Ptr<PamFdSm> PamFdSmIs(Brio::Ptr<Brio::FileDescriptor> const& fd, Pam* pam);

}  // namespace Corvid
