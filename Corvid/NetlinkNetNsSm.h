// NetlinkNetNsSm: keeps a client in step with the routing-netlink state
// (links, addresses, neighbours) of one network namespace.
//
// Two sockets, both opened inside the namespace: `sd` carries the dump,
// `sd2` is bound to the multicast groups from the start. The dump is read
// from `sd`; only when it is complete is `sd2` switched in as the socket the
// loop reads. Notifications that arrive during the dump wait on `sd2` and are
// delivered after it, so nothing falls between dump and subscription.
//
//   requestDumpState:  rdsEnd -> rdsStart -> rdsCouldSendIpRequest
//        -> rdsCouldSendNeighborRequest -> rdsCouldCleanup -> rdsEnd
//   (one request outstanding; each NLMSG_DONE moves one step; a step whose
//    group bit is clear is skipped; rdsCouldCleanup is held while a resync
//    is in progress, until the client's sweep calls clearResync/resyncDone)
//
// Resync: ENOBUFS (lost notifications), NLM_F_DUMP_INTR (a dump that raced
// with changes), a synchronous dump that stays empty `eagainMaxCount` times,
// or a namespace that cannot be entered: the reading socket is closed at
// once and ResyncHelperSm's resync clock reopens both sockets and dumps
// again `delayBeforeResync` seconds later (3 s). The client marks its state
// stale when `resyncInProgress` rises, refreshes it from the dump, sweeps
// what was not refreshed in `cleanupCallback`, then calls resyncDone().
//
// Costs: one recv per datagram (16 KiB buffer), one virtual call per
// message; a service call reads until the socket is empty or
// `maxProcessingTime` (1 s) has passed, then yields to the loop.
#pragma once

#include <Brio/ActivityManager.h>
#include <Brio/Entity.h>
#include <Brio/FileDescriptor.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/ValueSupport.h>
#include <linux/netlink.h>

#include <iosfwd>

namespace Corvid {

enum class RequestDumpState : U8 {
  rdsStart,
  rdsCouldSendIpRequest,
  rdsCouldSendNeighborRequest,
  rdsCouldCleanup,
  rdsEnd,
};

enum class ServiceNetlinkFdState : U8 { nlSuccess, nlFail, nlRetry };

// Text forms: the member names; anything else reads as "Invalid
// RequestDumpState" / "Invalid ServiceNetlinkFdState".
inline constexpr char const* requestDumpStateNames[] = {"rdsStart", "rdsCouldSendIpRequest",
                                                        "rdsCouldSendNeighborRequest", "rdsCouldCleanup", "rdsEnd"};
inline constexpr RequestDumpState requestDumpStateValues[] = {
    RequestDumpState::rdsStart, RequestDumpState::rdsCouldSendIpRequest, RequestDumpState::rdsCouldSendNeighborRequest,
    RequestDumpState::rdsCouldCleanup, RequestDumpState::rdsEnd};
inline constexpr EnumNames<RequestDumpState, 5> requestDumpStateText{requestDumpStateNames, requestDumpStateValues,
                                                                     "Invalid RequestDumpState"};
CORVID_ENUM_TEXT(RequestDumpState, requestDumpStateText)

inline constexpr char const* serviceNetlinkFdStateNames[] = {"nlSuccess", "nlFail", "nlRetry"};
inline constexpr ServiceNetlinkFdState serviceNetlinkFdStateValues[] = {
    ServiceNetlinkFdState::nlSuccess, ServiceNetlinkFdState::nlFail, ServiceNetlinkFdState::nlRetry};
inline constexpr EnumNames<ServiceNetlinkFdState, 3> serviceNetlinkFdStateText{
    serviceNetlinkFdStateNames, serviceNetlinkFdStateValues, "Invalid ServiceNetlinkFdState"};
CORVID_ENUM_TEXT(ServiceNetlinkFdState, serviceNetlinkFdStateText)

// The client's hooks. Each is a counted object with a name; the client
// derives and overrides callback(). The base versions abort: a watcher
// whose client forgot a hook would silently lose state.
class NetlinkMessageCallback : public Brio::PtrInterface {
 public:
  explicit NetlinkMessageCallback(Brio::String name) : name_(std::move(name)) {}
  Brio::String const& name() const { return name_; }
  // One data message, header first; valid only during the call.
  virtual void callback(nlmsghdr* const& msg);

 private:
  Brio::String name_;
};

class CleanupCallback : public Brio::PtrInterface {
 public:
  explicit CleanupCallback(Brio::String name) : name_(std::move(name)) {}
  Brio::String const& name() const { return name_; }
  virtual void callback();

 private:
  Brio::String name_;
};

class ClearResyncStateCallback : public Brio::PtrInterface {
 public:
  explicit ClearResyncStateCallback(Brio::String name) : name_(std::move(name)) {}
  Brio::String const& name() const { return name_; }
  virtual void callback();

 private:
  Brio::String name_;
};

class ResyncHelperSm;

class NetlinkNetNsSm : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<NetlinkNetNsSm> {
   public:
    virtual void handleInitialized() {}
    virtual void handleRequestDumpState() {}
    virtual void handleResyncInProgress() {}
    virtual void handleResyncAttempts() {}
    virtual void handleDoneCount() {}
    virtual void handleEnobufsCount() {}
    virtual void handleEdumpintrsCount() {}
    virtual void handleEnoentCount() {}
    virtual void handleEinvalCount() {}
    virtual void handleEagainCount() {}

   protected:
    Notifiee() = default;
    explicit Notifiee(Brio::Ptr<NetlinkNetNsSm> const& sm) : EntityNotifiee(sm) {}
  };

  static constexpr U64 recvBufferSizeDefault = 1048576;
  static constexpr U32 eagainMaxCountDefault = 5;
  static constexpr double maxProcessingTimeDefault = 1.0;
  static constexpr std::size_t recvBufferBytes = 16384;

  NamespaceName const& netNs() const { return netNs_; }
  U32 netlinkGroups() const { return netlinkGroups_; }
  U32 netlinkProtocol() const { return netlinkProtocol_; }
  bool keepSynced() const { return keepSynced_; }
  Brio::Ptr<NetlinkMessageCallback> const& nlMsgCallback() const { return nlMsgCallback_; }
  Brio::Ptr<CleanupCallback> const& cleanupCallback() const { return cleanupCallback_; }
  Brio::Ptr<ClearResyncStateCallback> const& clearResyncCallback() const { return clearResyncCallback_; }

  // The socket being read (null before the first doInitializeNetlinkSocket).
  Brio::Ptr<Brio::FileDescriptor> const& netlinkFd() const { return netlinkFd_; }
  // Makes the watcher read `descriptor` (closing the one it read so far),
  // non-blocking and followed on the loop. doInitializeNetlinkSocket uses
  // it; tests use it to feed the watcher datagrams of their own.
  void netlinkFdIs(int descriptor);
  S32 netlinkSubscriptionSocket() const { return netlinkSubscriptionSocket_; }
  void netlinkSubscriptionSocketIs(S32 v) { netlinkSubscriptionSocket_ = v; }

  U64 recvBufferSize() const { return recvBufferSize_; }
  void recvBufferSizeIs(U64 v) { recvBufferSize_ = v; }
  double maxProcessingTime() const { return maxProcessingTime_; }
  void maxProcessingTimeIs(double v) { maxProcessingTime_ = v; }
  U32 eagainMaxCount() const { return eagainMaxCount_; }
  void eagainMaxCountIs(U32 v) { eagainMaxCount_ = v; }

  // Event counters.
  U32 einvalCount() const { return einvalCount_; }
  void einvalCountIs(U32 v) { attributeIs(einvalCount_, v, &Notifiee::handleEinvalCount); }
  void einvalCountInc(U32 n) { einvalCountIs(einvalCount_ + n); }
  U32 enoentCount() const { return enoentCount_; }
  void enoentCountIs(U32 v) { attributeIs(enoentCount_, v, &Notifiee::handleEnoentCount); }
  void enoentCountInc(U32 n) { enoentCountIs(enoentCount_ + n); }
  U32 enobufsCount() const { return enobufsCount_; }
  void enobufsCountIs(U32 v) { attributeIs(enobufsCount_, v, &Notifiee::handleEnobufsCount); }
  void enobufsCountInc(U32 n) { enobufsCountIs(enobufsCount_ + n); }
  U32 edumpintrsCount() const { return edumpintrsCount_; }
  void edumpintrsCountIs(U32 v) { attributeIs(edumpintrsCount_, v, &Notifiee::handleEdumpintrsCount); }
  void edumpintrsCountInc(U32 n) { edumpintrsCountIs(edumpintrsCount_ + n); }
  U32 eagainCount() const { return eagainCount_; }
  void eagainCountIs(U32 v) { attributeIs(eagainCount_, v, &Notifiee::handleEagainCount); }
  void eagainCountInc(U32 n) { eagainCountIs(eagainCount_ + n); }
  U32 doneCount() const { return doneCount_; }
  void doneCountIs(U32 v) { attributeIs(doneCount_, v, &Notifiee::handleDoneCount); }
  void doneCountInc(U32 n) { doneCountIs(doneCount_ + n); }
  // Datagrams whose message walk ended on a malformed length (the kernel
  // never sends one; counted so a bad peer is visible, not silent).
  U32 malformedCount() const { return malformedCount_; }
  void malformedCountInc(U32 n) { malformedCount_ += n; }

  U32 seq() const { return seq_; }
  void seqIs(U32 v) { seq_ = v; }
  void seqInc(U32 n) { seq_ += n; }

  RequestDumpState requestDumpState() const { return requestDumpState_; }
  void requestDumpStateIs(RequestDumpState v) {
    attributeIs(requestDumpState_, v, &Notifiee::handleRequestDumpState);
  }
  bool resyncInProgress() const { return resyncInProgress_; }
  void resyncInProgressIs(bool v) { attributeIs(resyncInProgress_, v, &Notifiee::handleResyncInProgress); }
  U32 resyncAttempts() const { return resyncAttempts_; }
  void resyncAttemptsIs(U32 v) { attributeIs(resyncAttempts_, v, &Notifiee::handleResyncAttempts); }
  void resyncAttemptsInc(U32 n) { resyncAttemptsIs(resyncAttempts_ + n); }
  bool initialized() const { return initialized_; }
  Brio::Ptr<ResyncHelperSm> const& resyncHelperSm() const { return resyncHelperSm_; }

  // Creates the resync helper (when keepSynced) and sets initialized; the
  // factory calls it.
  void handleInitialized();
  // Opens both sockets and, when keepSynced, starts the dump. The owner
  // calls it once to start; doResync calls it again.
  void doInitializeNetlinkSocket(bool synchronous);
  void doRequestDump(bool synchronous);
  void doRunRequestDumpSm();
  ServiceNetlinkFdState doServiceNetlinkFd();
  void doSwitchNetlinkSockets();
  void doTriggerResync();
  void doResync(bool synchronous);
  void adjustRecvBufSize(S32 socket);
  // Reads what the socket holds, within the time budget per service call;
  // finishes the dump (switching sockets) when its last reply is in.
  void handleNetlinkFdReadable();
  // Closes every descriptor and drops the helper.
  void handleDestruction();

  // The client's sweep after a resync is done: switch to the subscription.
  void resyncDone() { doSwitchNetlinkSockets(); }
  void clearResync() { requestDumpStateIs(RequestDumpState::rdsEnd); }

 protected:
  NetlinkNetNsSm(NamespaceName const& netNs, U32 netlinkGroups, U32 netlinkProtocol, bool keepSynced,
                 Brio::Ptr<NetlinkMessageCallback> nlMsgCallback, Brio::Ptr<CleanupCallback> cleanupCallback,
                 Brio::Ptr<ClearResyncStateCallback> clearResyncCallback);
  ~NetlinkNetNsSm() override;

 private:
  friend Brio::Ptr<NetlinkNetNsSm> netlinkNetNsSmFactory(NamespaceName const&, U32, U32, bool,
                                                          Brio::Ptr<NetlinkMessageCallback>,
                                                          Brio::Ptr<CleanupCallback>,
                                                          Brio::Ptr<ClearResyncStateCallback>);
  class FdReactor : public Brio::FileDescriptor::Notifiee {
   public:
    explicit FdReactor(NetlinkNetNsSm* owner) : owner_(owner) {}
    void handleReadable() override { owner_->handleNetlinkFdReadable(); }

   private:
    NetlinkNetNsSm* owner_;
  };

  // Named so the dump-state assertion reads as the invariant it checks.
  static constexpr RequestDumpState rdsEnd_ = RequestDumpState::rdsEnd;

  bool netlinkFdOpen() const { return netlinkFd_ && netlinkFd_->descriptor() >= 0; }
  void sendDumpRequest(U16 type);
  void closeSubscriptionSocket();
  // Walks one datagram; returns false when it carried NLM_F_DUMP_INTR.
  bool walkDatagram(U8* data, std::size_t len);

  NamespaceName netNs_;
  U32 netlinkGroups_;
  U32 netlinkProtocol_;
  bool keepSynced_;
  Brio::Ptr<NetlinkMessageCallback> nlMsgCallback_;
  Brio::Ptr<CleanupCallback> cleanupCallback_;
  Brio::Ptr<ClearResyncStateCallback> clearResyncCallback_;
  Brio::Ptr<Brio::FileDescriptor> netlinkFd_;
  FdReactor fdReactor_{this};
  U64 recvBufferSize_ = recvBufferSizeDefault;
  U32 einvalCount_ = 0;
  U32 enoentCount_ = 0;
  U32 enobufsCount_ = 0;
  U32 edumpintrsCount_ = 0;
  U32 eagainCount_ = 0;
  U32 doneCount_ = 0;
  U32 malformedCount_ = 0;
  U32 eagainMaxCount_ = eagainMaxCountDefault;
  U32 seq_ = 0;
  RequestDumpState requestDumpState_ = RequestDumpState::rdsEnd;
  bool resyncInProgress_ = false;
  U32 resyncAttempts_ = 0;
  S32 netlinkSubscriptionSocket_ = -1;
  double maxProcessingTime_ = maxProcessingTimeDefault;
  bool initialized_ = false;
  Brio::Ptr<ResyncHelperSm> resyncHelperSm_;
  alignas(nlmsghdr) U8 buffer_[recvBufferBytes];
};

Brio::Ptr<NetlinkNetNsSm> netlinkNetNsSmFactory(NamespaceName const& netNs, U32 netlinkGroups, U32 netlinkProtocol,
                                                bool keepSynced, Brio::Ptr<NetlinkMessageCallback> nlMsgCallback,
                                                Brio::Ptr<CleanupCallback> cleanupCallback,
                                                Brio::Ptr<ClearResyncStateCallback> clearResyncCallback);

// Owns the two timers of a watcher: the resync clock (reopen and dump again
// `delayBeforeResync` seconds after a loss) and the cleanup clock (invoke
// the client's sweep `delayBeforeCleanup` seconds after it is scheduled).
// It follows the watcher by plain pointer: the watcher owns it.
class ResyncHelperSm : public Brio::PtrInterface {
 public:
  static constexpr double delayBeforeResyncDefault = 3.0;
  static constexpr double delayBeforeCleanupDefault = 0.0;

  ResyncHelperSm(Brio::Ptr<Brio::Clock> resyncClock, Brio::Ptr<Brio::Clock> cleanupClock, NetlinkNetNsSm* netlinkSm);

  NetlinkNetNsSm* netlinkSm() const { return netlinkSm_; }
  Brio::Ptr<Brio::Clock> const& resyncClock() const { return resyncClock_; }
  Brio::Ptr<Brio::Clock> const& cleanupClock() const { return cleanupClock_; }
  double delayBeforeResync() const { return delayBeforeResync_; }
  void delayBeforeResyncIs(double v) { delayBeforeResync_ = v; }
  double delayBeforeCleanup() const { return delayBeforeCleanup_; }
  void delayBeforeCleanupIs(double v) { delayBeforeCleanup_ = v; }
  bool initialized() const { return initialized_; }

  void doScheduleResync();
  void doCancelScheduledResync();
  void doScheduleCleanup();
  void doCancelScheduledCleanup();
  void handleResyncTimeout();
  void handleCleanupTimeout();
  void handleInitialized();

 private:
  class ClockReactor : public Brio::Clock::Notifiee {
   public:
    ClockReactor(Brio::Ptr<Brio::Clock> const& c, ResyncHelperSm* owner, void (ResyncHelperSm::*handler)())
        : Notifiee(c), owner_(owner), handler_(handler) {}
    void handleWakeup() override { (owner_->*handler_)(); }

   private:
    ResyncHelperSm* owner_;
    void (ResyncHelperSm::*handler_)();
  };

  Brio::Ptr<Brio::Clock> resyncClock_;
  Brio::Ptr<Brio::Clock> cleanupClock_;
  NetlinkNetNsSm* netlinkSm_;
  double delayBeforeResync_ = delayBeforeResyncDefault;
  double delayBeforeCleanup_ = delayBeforeCleanupDefault;
  bool initialized_ = false;
  ClockReactor resyncReactor_;
  ClockReactor cleanupReactor_;
};

}  // namespace Corvid
