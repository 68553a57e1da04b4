#include <Corvid/NetlinkNetNsSm.h>
#include <Corvid/NetlinkUtils.h>
#include <Corvid/NetnsUtils.h>
#include <Corvid/NsUtils.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>

namespace Corvid {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");

// Trace levels: 2 resyncs and losses, 5 function entries and dump steps,
// 8 every datagram and message.
constexpr int lvLoss = 2;
constexpr int lvStep = 5;
constexpr int lvMsg = 8;

}  // namespace

void NetlinkMessageCallback::callback(nlmsghdr* const&) {
  FENNEL_ASSERT("NetlinkMessageCallback::callback not overwritten" && false);
}
void CleanupCallback::callback() { FENNEL_ASSERT("CleanupCallback::callback not overwritten" && false); }
void ClearResyncStateCallback::callback() {
  FENNEL_ASSERT("ClearResyncStateCallback::callback not overwritten" && false);
}

// ---------------------------------------------------------------------------
// NetlinkNetNsSm

NetlinkNetNsSm::NetlinkNetNsSm(NamespaceName const& netNs, U32 netlinkGroups, U32 netlinkProtocol, bool keepSynced,
                               Brio::Ptr<NetlinkMessageCallback> nlMsgCallback,
                               Brio::Ptr<CleanupCallback> cleanupCallback,
                               Brio::Ptr<ClearResyncStateCallback> clearResyncCallback)
    : Entity("NetlinkNetNsSm:" + std::string(netNs.value().view())),
      netNs_(netNs),
      netlinkGroups_(netlinkGroups),
      netlinkProtocol_(netlinkProtocol),
      keepSynced_(keepSynced),
      nlMsgCallback_(std::move(nlMsgCallback)),
      cleanupCallback_(std::move(cleanupCallback)),
      clearResyncCallback_(std::move(clearResyncCallback)) {}

NetlinkNetNsSm::~NetlinkNetNsSm() { handleDestruction(); }

Brio::Ptr<NetlinkNetNsSm> netlinkNetNsSmFactory(NamespaceName const& netNs, U32 netlinkGroups, U32 netlinkProtocol,
                                                bool keepSynced, Brio::Ptr<NetlinkMessageCallback> nlMsgCallback,
                                                Brio::Ptr<CleanupCallback> cleanupCallback,
                                                Brio::Ptr<ClearResyncStateCallback> clearResyncCallback) {
  Brio::Ptr<NetlinkNetNsSm> sm(new NetlinkNetNsSm(netNs, netlinkGroups, netlinkProtocol, keepSynced,
                                                  std::move(nlMsgCallback), std::move(cleanupCallback),
                                                  std::move(clearResyncCallback)));
  sm->handleInitialized();
  return sm;
}

void NetlinkNetNsSm::handleInitialized() {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__);
  if (keepSynced_) {
    resyncHelperSm_ = new ResyncHelperSm(Brio::Clock::clockFactory(name() + ":resync"),
                                         Brio::Clock::clockFactory(name() + ":cleanup"), this);
    resyncHelperSm_->handleInitialized();
  }
  attributeIs(initialized_, true, &Notifiee::handleInitialized);
}

void NetlinkNetNsSm::handleDestruction() {
  if (netlinkFd_) {
    fdReactor_.notifierIs(nullptr);
    netlinkFd_->descriptorIs(-1);
    netlinkFd_ = nullptr;
  }
  closeSubscriptionSocket();
  resyncHelperSm_ = nullptr;
}

void NetlinkNetNsSm::closeSubscriptionSocket() {
  if (netlinkSubscriptionSocket_ < 0) return;
  close(netlinkSubscriptionSocket_);
  netlinkSubscriptionSocket_ = -1;
}

void NetlinkNetNsSm::doInitializeNetlinkSocket(bool synchronous) {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__ << " synchronous=" << synchronous);
  if (netlinkFd_ && netlinkFd_->descriptor() >= 0) {
    GLIMMER_TRACE(tr, lvStep, "closing old netlink socket " << netlinkFd_->descriptor());
    netlinkFd_->descriptorIs(-1);
  }
  if (netlinkSubscriptionSocket_ >= 0) {
    GLIMMER_TRACE(tr, lvStep, "closing old netlink subscription socket " << netlinkSubscriptionSocket_);
    closeSubscriptionSocket();
  }

  std::string const ns(netNs_.value().view());
  int sd = socketAt(AF_NETLINK, SOCK_DGRAM, static_cast<int>(netlinkProtocol_), ns.c_str());
  int sd2 = sd < 0 ? -1 : socketAt(AF_NETLINK, SOCK_DGRAM, static_cast<int>(netlinkProtocol_), ns.c_str());
  if (sd < 0 || sd2 < 0) {
    int const e = errno;
    if (sd >= 0) close(sd);
    // Deliberately set, not incremented: the counters say "the namespace
    // was (not) there at the last attempt", and a resync loop retrying
    // every few seconds would otherwise count without bound.
    if (e == EINVAL) {
      einvalCountIs(1);
      return;
    }
    if (e == ENOENT) {
      enoentCountIs(1);
      return;
    }
    throw Brio::ErrnoException("socket", e);
  }

  sockaddr_nl addr{};
  addr.nl_family = AF_NETLINK;
  addr.nl_groups = netlinkGroups_;
  GLIMMER_TRACE(tr, lvStep, "Binding to groups 0x" << std::hex << netlinkGroups_ << std::dec);
  if (bind(sd2, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int const e = errno;
    close(sd);
    close(sd2);
    throw Brio::ErrnoException("bind", e);
  }
  adjustRecvBufSize(sd);
  adjustRecvBufSize(sd2);

  GLIMMER_TRACE(tr, lvStep, "Setting netlinkFd to socket descriptor " << sd);
  netlinkFdIs(sd);
  netlinkSubscriptionSocket_ = sd2;

  if (!keepSynced_) {
    doSwitchNetlinkSockets();
  } else {
    doRequestDump(synchronous);
  }
}

void NetlinkNetNsSm::netlinkFdIs(int descriptor) {
  if (!netlinkFd_) {
    netlinkFd_ = Brio::FileDescriptor::fileDescriptorFactory(name() + ":fd", descriptor);
    fdReactor_.notifierIs(netlinkFd_);
  } else {
    netlinkFd_->descriptorIs(descriptor);
  }
  netlinkFd_->nonBlockingIs(true);
  netlinkFd_->notifyOnReadableIs(true);
}

void NetlinkNetNsSm::adjustRecvBufSize(S32 socket) {
  int current = 0;
  socklen_t len = sizeof current;
  getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &current, &len);
  GLIMMER_TRACE(tr, lvStep, "SO_RCVBUF before change: size= " << current);
  U64 requested = recvBufferSize_;
  if (char const* env = std::getenv("NL_RCVBUFSIZE")) {
    errno = 0;
    char* end = nullptr;
    unsigned long long const v = std::strtoull(env, &end, 10);
    // A text without digits, or with anything after them, is as bad as one
    // strtoull flags: the default is safer than a guess.
    if (errno != 0 || end == env || *end != '\0') {
      GLIMMER_TRACE(tr, 1, "An error occured while converting env NL_RCVBUFSIZE");
    } else {
      requested = v;
    }
  }
  GLIMMER_TRACE(tr, lvStep, "requested size of SO_RCVBUFFORCE= " << requested);
  // An 8-byte option: the kernel reads the leading int, which on x86-64 is
  // the low half of the value.
  setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &requested, sizeof requested);
  len = sizeof current;
  getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &current, &len);
  GLIMMER_TRACE(tr, lvStep, "SO_RCVBUF after change: size= " << current);
}

void NetlinkNetNsSm::sendDumpRequest(U16 type) {
  sendNetlinkRequest(netlinkFd_->descriptor(), seq_, type);
  seqInc(1);
}

void NetlinkNetNsSm::doRunRequestDumpSm() {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__);
  switch (requestDumpState_) {
    case RequestDumpState::rdsStart:
      if (netlinkGroups_ & RTMGRP_LINK) {
        GLIMMER_TRACE(tr, lvStep, "Want link information");
        sendDumpRequest(RTM_GETLINK);
        requestDumpStateIs(RequestDumpState::rdsCouldSendIpRequest);
        break;
      }
      [[fallthrough]];
    case RequestDumpState::rdsCouldSendIpRequest:
      if (netlinkGroups_ & (RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR)) {
        GLIMMER_TRACE(tr, lvStep, "Want ip information");
        sendDumpRequest(RTM_GETADDR);
        requestDumpStateIs(RequestDumpState::rdsCouldSendNeighborRequest);
        break;
      }
      [[fallthrough]];
    case RequestDumpState::rdsCouldSendNeighborRequest:
      if (netlinkGroups_ & RTMGRP_NEIGH) {
        GLIMMER_TRACE(tr, lvStep, "Want neighbor information");
        sendDumpRequest(RTM_GETNEIGH);
        requestDumpStateIs(RequestDumpState::rdsCouldCleanup);
        break;
      }
      [[fallthrough]];
    case RequestDumpState::rdsCouldCleanup:
      if (resyncInProgress_) {
        requestDumpStateIs(RequestDumpState::rdsCouldCleanup);
        cleanupCallback_->callback();
      } else {
        requestDumpStateIs(RequestDumpState::rdsEnd);
      }
      break;
    case RequestDumpState::rdsEnd:
      FENNEL_ASSERT(false && "Unexpectedly arrived in end state");
  }
  GLIMMER_TRACE(tr, lvStep, " new requestDumpState_=" << requestDumpState_);
}

void NetlinkNetNsSm::doRequestDump(bool synchronous) {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__ << " synchronous=" << synchronous);
  FENNEL_ASSERT(keepSynced());
  FENNEL_ASSERT(resyncHelperSm());
  FENNEL_ASSERT(requestDumpState_ == rdsEnd_);
  requestDumpStateIs(RequestDumpState::rdsStart);
  doRunRequestDumpSm();
  if (!synchronous) {
    GLIMMER_TRACE(tr, lvStep, "letting activity loop finish request");
    return;
  }
  U32 emptyReads = 0;
  for (;;) {
    if (requestDumpState_ == RequestDumpState::rdsEnd) {
      if (!resyncInProgress_) doSwitchNetlinkSockets();
      return;
    }
    switch (doServiceNetlinkFd()) {
      case ServiceNetlinkFdState::nlSuccess:
        emptyReads = 0;
        break;
      case ServiceNetlinkFdState::nlFail:
        return;
      case ServiceNetlinkFdState::nlRetry:
        if (++emptyReads >= eagainMaxCount_) {
          GLIMMER_TRACE(tr, lvLoss, "recovering from too many EAGAIN errors");
          doTriggerResync();
          eagainCountInc(1);
          return;
        }
        break;
    }
  }
}

bool NetlinkNetNsSm::walkDatagram(U8* data, std::size_t len) {
  NetlinkMsgWalk walk(data, len);
  while (nlmsghdr const* m = walk.next()) {
    GLIMMER_TRACE(tr, lvMsg, "Netlink message:" << " seq: " << m->nlmsg_seq << " len: 0x" << std::hex << m->nlmsg_len
                                                << " type: 0x" << m->nlmsg_type << " flags: 0x" << m->nlmsg_flags
                                                << std::dec);
    if (m->nlmsg_flags & NLM_F_DUMP_INTR) {
      GLIMMER_TRACE(tr, lvLoss, "received NLM_F_DUMP_INTR");
      edumpintrsCountInc(1);
      if (keepSynced_) {
        doTriggerResync();
        clearResyncCallback_->callback();
      }
      closeSubscriptionSocket();
      return false;
    }
    switch (m->nlmsg_type) {
      case NLMSG_DONE:
        GLIMMER_TRACE(tr, lvStep, "NLMSG_DONE");
        doneCountInc(1);
        if (walk.leftover()) GLIMMER_TRACE(tr, 1, "Failed to parse " << walk.leftover() << " bytes of netlink message!");
        return true;
      case NLMSG_ERROR: {
        int code = 0;
        if (m->nlmsg_len >= NLMSG_LENGTH(sizeof code)) std::memcpy(&code, NLMSG_DATA(m), sizeof code);
        GLIMMER_TRACE(tr, 1, "NLMSG_ERROR (" << code << ")");
        break;
      }
      case NLMSG_NOOP:
        GLIMMER_TRACE(tr, lvMsg, "NLMSG_NOOP");
        break;
      default: {
        nlmsghdr* msg = const_cast<nlmsghdr*>(m);
        nlMsgCallback_->callback(msg);
      }
    }
  }
  if (walk.malformed()) {
    malformedCountInc(1);
    GLIMMER_TRACE(tr, 1, "Failed to parse " << walk.leftover() << " bytes of netlink message!");
  }
  return true;
}

ServiceNetlinkFdState NetlinkNetNsSm::doServiceNetlinkFd() {
  double const start = Brio::now();
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__ << " startTime=" << start << ", ns=" << netNs_);
  U32 const origDoneCount = doneCount_;
  double const deadline = start + maxProcessingTime_;
  ServiceNetlinkFdState result = ServiceNetlinkFdState::nlFail;
  // Cleared once per call rather than per datagram: every message is read
  // only within the length recv reported.
  std::memset(buffer_, 0, sizeof buffer_);
  while (Brio::now() < deadline) {
    if (!netlinkFdOpen()) {
      GLIMMER_TRACE(tr, 1, "netlink descriptor was unset");
      return ServiceNetlinkFdState::nlFail;
    }
    ssize_t len = recv(netlinkFd_->descriptor(), buffer_, sizeof buffer_, MSG_TRUNC);
    if (len < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        GLIMMER_TRACE(tr, lvMsg, "No more data to read");
        result = ServiceNetlinkFdState::nlRetry;
        break;
      }
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        GLIMMER_TRACE(tr, lvLoss, "recovering from ENOBUFS");
        enobufsCountInc(1);
        if (keepSynced_) doTriggerResync();
        return ServiceNetlinkFdState::nlFail;
      }
      throw Brio::ErrnoException("recv", errno);
    }
    FENNEL_ASSERT(len <= 16384 && "Got truncated message from recv -- aborting");
    GLIMMER_TRACE(tr, lvMsg, len << " bytes from netlink fd=" << netlinkFd_->descriptor());
    if (!walkDatagram(buffer_, static_cast<std::size_t>(len))) return ServiceNetlinkFdState::nlFail;
  }
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__ << " endTime=" << Brio::now());
  if (doneCount_ == origDoneCount) {
    return Brio::now() < deadline ? result : ServiceNetlinkFdState::nlFail;
  }
  FENNEL_ASSERT(doneCount() == ( origDoneCount + 1 ));
  FENNEL_ASSERT(keepSynced());
  doRunRequestDumpSm();
  return ServiceNetlinkFdState::nlSuccess;
}

void NetlinkNetNsSm::doSwitchNetlinkSockets() {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__);
  int const sd = netlinkFd_ ? netlinkFd_->descriptor() : -1;
  int const sd2 = netlinkSubscriptionSocket_;
  FENNEL_ASSERT(( sd != -1 ) && ( sd2 != -1 ));
  FENNEL_ASSERT(sd != sd2);
  GLIMMER_TRACE(tr, lvStep, "Switching netlinkFd to socket descriptor " << sd2);
  // descriptorIs closes the previous descriptor, sd, as it takes sd2.
  netlinkFd_->descriptorIs(sd2);
  netlinkFd_->nonBlockingIs(true);
  GLIMMER_TRACE(tr, lvStep, "Closing previous netlinkFd " << sd);
  netlinkSubscriptionSocket_ = -1;
}

void NetlinkNetNsSm::doTriggerResync() {
  GLIMMER_TRACE(tr, lvLoss, __PRETTY_FUNCTION__);
  FENNEL_ASSERT(keepSynced());
  FENNEL_ASSERT(resyncHelperSm());
  if (netlinkFdOpen()) {
    GLIMMER_TRACE(tr, lvLoss, "closing old netlink socket " << netlinkFd_->descriptor());
    netlinkFd_->descriptorIs(-1);
  }
  resyncHelperSm_->doScheduleResync();
}

void NetlinkNetNsSm::doResync(bool synchronous) {
  FENNEL_ASSERT(keepSynced());
  FENNEL_ASSERT(resyncHelperSm());
  GLIMMER_TRACE(tr, lvLoss, "doResync" << ": " << netNs_ << " synchronous=" << synchronous);
  if (resyncInProgress_) {
    GLIMMER_TRACE(tr, lvLoss, "resyncing when a resync is already in progress");
    clearResyncCallback_->callback();
  }
  resyncAttemptsInc(1);
  GLIMMER_TRACE(tr, lvLoss, "starting resync, resyncAttempts() " << resyncAttempts_);
  resyncInProgressIs(true);
  resyncHelperSm_->doCancelScheduledResync();
  resyncHelperSm_->doCancelScheduledCleanup();
  // The loss may have struck in the middle of a dump (ENOBUFS or a stall
  // while a link, address or neighbour request was outstanding): the socket
  // that carried that dump is closed by now, so whatever step the sequencer
  // had reached is moot. Back to rdsEnd here, before the new dump is
  // requested, or doRequestDump would find a dump "still running".
  clearResync();
  doInitializeNetlinkSocket(synchronous);
  if (!netlinkFdOpen()) doTriggerResync();
}

void NetlinkNetNsSm::handleNetlinkFdReadable() {
  GLIMMER_TRACE(tr, lvMsg, __PRETTY_FUNCTION__);
  // Keep the watcher alive across client callbacks that may drop it.
  Brio::Ptr<NetlinkNetNsSm> self(this);
  while (netlinkFdOpen()) {
    ServiceNetlinkFdState const r = doServiceNetlinkFd();
    if (r != ServiceNetlinkFdState::nlSuccess) break;
    // The last reply of a dump is in: switch to the subscription socket,
    // unless a resync's sweep still has to run (the client calls
    // resyncDone() when it is finished).
    if (requestDumpState_ == RequestDumpState::rdsEnd && netlinkSubscriptionSocket_ >= 0 && !resyncInProgress_) {
      doSwitchNetlinkSockets();
    }
  }
}

// ---------------------------------------------------------------------------
// ResyncHelperSm

ResyncHelperSm::ResyncHelperSm(Brio::Ptr<Brio::Clock> resyncClock, Brio::Ptr<Brio::Clock> cleanupClock,
                               NetlinkNetNsSm* netlinkSm)
    : resyncClock_(std::move(resyncClock)),
      cleanupClock_(std::move(cleanupClock)),
      netlinkSm_(netlinkSm),
      resyncReactor_(resyncClock_, this, &ResyncHelperSm::handleResyncTimeout),
      cleanupReactor_(cleanupClock_, this, &ResyncHelperSm::handleCleanupTimeout) {}

void ResyncHelperSm::handleInitialized() {
  initialized_ = true;
  resyncClock_->timeMinIs(Brio::never);
  cleanupClock_->timeMinIs(Brio::never);
}

void ResyncHelperSm::doScheduleResync() {
  GLIMMER_TRACE(tr, lvLoss, __PRETTY_FUNCTION__ << " in " << delayBeforeResync_ << "s");
  resyncClock_->timeMinIs(Brio::now() + delayBeforeResync_);
}
void ResyncHelperSm::doCancelScheduledResync() { resyncClock_->timeMinIs(Brio::never); }
void ResyncHelperSm::doScheduleCleanup() { cleanupClock_->timeMinIs(Brio::now() + delayBeforeCleanup_); }
void ResyncHelperSm::doCancelScheduledCleanup() { cleanupClock_->timeMinIs(Brio::never); }

void ResyncHelperSm::handleResyncTimeout() {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__);
  FENNEL_ASSERT(initialized());
  resyncClock_->timeMinIs(Brio::never);
  Brio::Ptr<NetlinkNetNsSm> keep(netlinkSm_);
  netlinkSm_->doResync(false);
}

void ResyncHelperSm::handleCleanupTimeout() {
  GLIMMER_TRACE(tr, lvStep, __PRETTY_FUNCTION__);
  FENNEL_ASSERT(initialized());
  netlinkSm_->cleanupCallback()->callback();
}

}  // namespace Corvid
