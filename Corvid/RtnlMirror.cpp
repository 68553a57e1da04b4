#include <Corvid/RtnlMirror.h>
#include <poll.h>

namespace Corvid {

struct RtnlMirror::OnMessage : NetlinkMessageCallback {
  explicit OnMessage(RtnlMirror* m) : NetlinkMessageCallback("RtnlMirror"), mirror(m) {}
  void callback(nlmsghdr* const& msg) override { mirror->apply(msg); }
  RtnlMirror* mirror;
};

struct RtnlMirror::OnCleanup : CleanupCallback {
  explicit OnCleanup(RtnlMirror* m) : CleanupCallback("RtnlMirror"), mirror(m) {}
  void callback() override { mirror->sweep(); }
  RtnlMirror* mirror;
};

// Generations make a restarted resync harmless: entries refreshed by the
// abandoned dump carry the new generation already, the rest are swept by
// the dump that completes. Nothing to clear.
struct RtnlMirror::OnClear : ClearResyncStateCallback {
  explicit OnClear(RtnlMirror* m) : ClearResyncStateCallback("RtnlMirror"), mirror(m) {}
  void callback() override {}
  RtnlMirror* mirror;
};

RtnlMirror::RtnlMirror(NamespaceName const& ns, U32 groups, Listener* listener) : listener_(listener) {
  sm_ = netlinkNetNsSmFactory(ns, groups, NETLINK_ROUTE, true, new OnMessage(this), new OnCleanup(this),
                              new OnClear(this));
}

RtnlMirror::~RtnlMirror() { sm_->handleDestruction(); }

void RtnlMirror::start(bool synchronous) {
  sm_->doInitializeNetlinkSocket(synchronous);
  // A synchronous dump gives up when one service call runs past the
  // watcher's time budget (a large table on a loaded machine); the rest would
  // come with the loop's readable notifications. Finish it here instead, so
  // that a synchronous start means a complete dump, waiting for the socket
  // rather than spinning, and never longer than a minute.
  double const deadline = Brio::monotonicNow() + 60;
  auto open = [this] { return sm_->netlinkFd() && sm_->netlinkFd()->descriptor() >= 0; };
  while (synchronous && !synced() && open() && !sm_->resyncInProgress() && Brio::monotonicNow() < deadline) {
    pollfd p{sm_->netlinkFd()->descriptor(), POLLIN, 0};
    ::poll(&p, 1, 100);
    sm_->handleNetlinkFdReadable();
  }
}

bool RtnlMirror::synced() const {
  return sm_->requestDumpState() == RequestDumpState::rdsEnd && sm_->netlinkSubscriptionSocket() == -1 &&
         sm_->netlinkFd() && sm_->netlinkFd()->descriptor() >= 0 && !sm_->resyncInProgress();
}

Brio::String RtnlMirror::intfName(S32 ifIndex) const {
  auto it = links_.find(ifIndex);
  return it == links_.end() ? Brio::String() : it->second.value.name.name();
}

namespace {

template <class Map, class Key, class V>
void put(Map& table, Key const& key, V const& value, bool deleted, U32 generation) {
  if (deleted) {
    table.erase(key);
  } else {
    table.insert_or_assign(key, typename Map::mapped_type{value, generation});
  }
}

}  // namespace

void RtnlMirror::apply(nlmsghdr const* msg) {
  RtnlMessage const m = decodeRtnl(msg);
  U32 const gen = sm_->resyncAttempts();
  switch (m.kind) {
    case RtnlMessage::Kind::link:
      put(links_, m.link.ifIndex, m.link, m.deleted, gen);
      break;
    case RtnlMessage::Kind::addr:
      put(addrs_, AddrKey{m.addr.ifIndex, m.addr.addr}, m.addr, m.deleted, gen);
      break;
    case RtnlMessage::Kind::neigh:
      put(neighs_, NeighKey{m.neigh.ifIndex, m.neigh.addr}, m.neigh, m.deleted, gen);
      break;
    case RtnlMessage::Kind::malformed:
      ++malformed_;
      return;
    case RtnlMessage::Kind::other:
      return;
  }
  if (listener_) listener_->handleChange(m, false);
}

void RtnlMirror::sweep() {
  U32 const gen = sm_->resyncAttempts();
  auto sweepTable = [&](auto& table, auto fill) {
    for (auto it = table.begin(); it != table.end();) {
      if (it->second.generation == gen) {
        ++it;
        continue;
      }
      RtnlMessage m;
      m.deleted = true;
      fill(m, it->second.value);
      it = table.erase(it);
      ++swept_;
      if (listener_) listener_->handleChange(m, true);
    }
  };
  sweepTable(neighs_, [](RtnlMessage& m, RtnlNeigh const& v) {
    m.kind = RtnlMessage::Kind::neigh;
    m.neigh = v;
  });
  sweepTable(addrs_, [](RtnlMessage& m, RtnlAddr const& v) {
    m.kind = RtnlMessage::Kind::addr;
    m.addr = v;
  });
  sweepTable(links_, [](RtnlMessage& m, RtnlLink const& v) {
    m.kind = RtnlMessage::Kind::link;
    m.link = v;
  });
  sm_->resyncInProgressIs(false);
  sm_->clearResync();
  sm_->resyncDone();
}

}  // namespace Corvid
