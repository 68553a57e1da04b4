// RtnlMirror: the links, interface addresses and neighbours of one network
// namespace, kept equal to the kernel's by a NetlinkNetNsSm.
//
// What most clients of the watcher write by hand, written once: decode each
// message (NetlinkDecode.h), apply it to typed tables, and after a resync
// sweep what the new dump did not refresh. Every entry carries the resync
// generation (the watcher's resyncAttempts) that last wrote it; the sweep
// drops the entries of older generations, then finishes the resync
// (resyncInProgress cleared, clearResync, resyncDone). A Listener hears each
// change as it is applied, sweeps included; synced() tells when the mirror
// is in step.
//
// Costs: one map update per message (O(log n)); a sweep walks every table.
#pragma once

#include <Brio/Ptr.h>
#include <Corvid/NetlinkDecode.h>
#include <Corvid/NetlinkNetNsSm.h>

#include <map>
#include <utility>

namespace Corvid {

class RtnlMirror : public Brio::PtrInterface {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // A change just applied; `swept` for a removal by the sweep after a
    // resync (the kernel's delete notification was lost).
    virtual void handleChange(RtnlMessage const& m, bool swept) {}
  };

  using AddrKey = std::pair<S32, IpGenAddrWithMask>;
  using NeighKey = std::pair<S32, IpGenAddr>;
  template <class V>
  struct Entry {
    V value;
    U32 generation;
  };

  // Watches `ns` for the rtnetlink groups `groups` (RTMGRP_* bits).
  RtnlMirror(NamespaceName const& ns, U32 groups, Listener* listener = nullptr);
  ~RtnlMirror() override;

  // Opens the sockets and dumps. Synchronously, the dump is complete on
  // return (it waits for the rest when the watcher's time budget cut the
  // first pass short), unless the namespace cannot be entered or the dump
  // failed and a resync is scheduled.
  void start(bool synchronous);
  NetlinkNetNsSm* sm() const { return sm_.ptr(); }

  std::map<S32, Entry<RtnlLink>> const& links() const { return links_; }
  std::map<AddrKey, Entry<RtnlAddr>> const& addrs() const { return addrs_; }
  std::map<NeighKey, Entry<RtnlNeigh>> const& neighs() const { return neighs_; }
  // The interface name of an index, empty when unknown (links not watched).
  Brio::String intfName(S32 ifIndex) const;
  // Dump complete, subscription switched in, no resync running.
  bool synced() const;
  // Messages the decoder refused, and entries removed by sweeps.
  U32 malformed() const { return malformed_; }
  U32 swept() const { return swept_; }

 private:
  struct OnMessage;
  struct OnCleanup;
  struct OnClear;
  void apply(nlmsghdr const* msg);
  void sweep();

  Listener* listener_;
  Brio::Ptr<NetlinkNetNsSm> sm_;
  std::map<S32, Entry<RtnlLink>> links_;
  std::map<AddrKey, Entry<RtnlAddr>> addrs_;
  std::map<NeighKey, Entry<RtnlNeigh>> neighs_;
  U32 malformed_ = 0;
  U32 swept_ = 0;
};

}  // namespace Corvid
