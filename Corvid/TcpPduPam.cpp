#include <Corvid/TcpPduPam.h>

#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace Corvid {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");
constexpr int levelError = 1;
constexpr int levelInfo = 5;
constexpr int levelDetail = 8;

#define PDU_TRACE(level, expr) GLIMMER_TRACE(tr, level, __func__ << ":" << __LINE__ << " " << expr)

// The shared bytes of a packet as one writable run at the start of its
// buffer: a fresh buffer keeps all its space as headroom, and growing the
// tail of such a buffer would reallocate it.
void tailroomForReading(Pkt* pkt) {
  U32 const size = pkt->maxSharedData();
  pkt->newSharedHeadData(size);
  pkt->delSharedTailData(size);
}

U8* sharedTail(Pkt const* pkt, U32 length) {
  auto const& sb = pkt->sharedBuffer();
  return sb->data() + sb->dataBytes() - length;
}

// The assertion texts of a shadow copy name its packet `pkt`, and a packet
// counts its iovecs with ioVecCount(); this view gives the copy both names.
struct ShadowPktView {
  Pkt* p;
  ShadowPktView const* operator->() const { return this; }
  U32 numIovecs() const { return p->ioVecCount(); }
  friend bool operator==(ShadowPktView const& v, Brio::Ptr<Pkt> const& q) { return v.p == q.ptr(); }
};

}  // namespace

Brio::Ptr<TcpPduFdSm> TcpPduFdSmIs(TcpPduPamBase* pam) { return Brio::Ptr<TcpPduFdSm>(new TcpPduFdSm(pam)); }

TcpPduPam::TcpPduPam(Brio::Ptr<TcpFileDescriptor const> const& fd,
                     Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdFactory, Brio::String name)
    : TcpPduPamBase(std::move(name)), fileDescriptor_(fd), fdFactory_(fdFactory) {
  handleInitialized();
}

TcpPduPam::~TcpPduPam() { cleanup(); }

Brio::Ptr<TcpPduPam> tcpPduPamFactory(Brio::Ptr<TcpFileDescriptor const> const& fd,
                                      Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdFactory) {
  return Brio::Ptr<TcpPduPam>(new TcpPduPam(fd, fdFactory));
}

void TcpPduPam::handleInitialized() {
  // Deliberately process-wide: every packet made from now on can hold a
  // whole PDU, whoever made it.
  globalPktManager()->defaultBufferSizeIs(maxPduLength_);
  initialized_ = true;
  enabledIs(false);
}

void TcpPduPam::maxPduLengthIs(U16 v) {
  maxPduLength_ = v;
  if (globalPktManager()->defaultBufferSize() < v) globalPktManager()->defaultBufferSizeIs(v);
}

void TcpPduPam::cleanup() {
  rxPktHolderShadow_ = nullptr;
  rxRemainingLength_ = 0;
  txPktHolderShadow_ = nullptr;
  txIovHolderShadow_ = nullptr;
  txIovLenHolderShadow_ = 0;
  txRemainingLength_ = 0;
  aheadPkt_ = nullptr;
  if (tcpPduFdSm_) tcpPduFdSm_->fdDel();
  tcpPduFdSm_ = nullptr;
}

// --- enabling ---------------------------------------------------------------------------

void TcpPduPam::enabledIs(bool on) {
  if (!on) {
    enableModeIs(TcpPduPamEnableMode::tcpEnableModeNone_);
  } else if (enableMode_ == TcpPduPamEnableMode::tcpEnableModeNone_) {
    enableModeIs(TcpPduPamEnableMode::tcpEnableModeReadWrite_);
  }
}

void TcpPduPam::enableModeIs(TcpPduPamEnableMode mode) {
  bool const oneDirection = mode == TcpPduPamEnableMode::tcpEnableModeReadOnly_ ||
                            mode == TcpPduPamEnableMode::tcpEnableModeWriteOnly_;
  if (oneDirection && rxPduInProgress()) {
    PDU_TRACE(levelInfo, "Waiting for rxPkt before setting enabled to " << mode);
    pendingEnableReadOnlyOrWriteOnlyMode_ = mode;
    return;
  }
  if (oneDirection && txPktHolderShadow_) {
    PDU_TRACE(levelInfo, "Waiting for txPkt before setting enabled to " << mode);
    pendingEnableReadOnlyOrWriteOnlyMode_ = mode;
    return;
  }
  PDU_TRACE(levelInfo, "Setting enabled to " << mode);
  pendingEnableReadOnlyOrWriteOnlyMode_ = TcpPduPamEnableMode::tcpEnableModeNone_;
  applyEnableMode(mode);
}

void TcpPduPam::applyEnableMode(TcpPduPamEnableMode mode) {
  bool const wasEnabled = enabled_;
  enableMode_ = mode;
  enabled_ = mode != TcpPduPamEnableMode::tcpEnableModeNone_;
  if (!enabled_) {
    if (tcpPduFdSm_) tcpPduFdSm_->fdDel();
    tcpPduFdSm_ = nullptr;
    readable_ = false;
    writable_ = false;
    if (wasEnabled) notify(&Notifiee::handleEnabled);
    return;
  }
  if (!tcpPduFdSm_ && fileDescriptor_ && fdFactory_) {
    tcpPduFdSm_ = TcpPduFdSmIs(this);
    tcpPduFdSm_->fdIs(fdFactory_->createEventRegistration(fileDescriptor_, false));
  }
  if (auto const& reg = tcpPduFdSm_ ? tcpPduFdSm_->fd() : nullptr) {
    reg->notifyOnReadableIs(readModeEnabled() && !readable_ && !rxFailed_);
    reg->notifyOnWritableIs(writeModeEnabled() && txIovHolderShadow_ != nullptr);
    reg->enabledIs(true);
  }
  writableIs(writeModeEnabled() && !txPktHolderShadow_);
  if (!wasEnabled) {
    notify(&Notifiee::handleEnabled);
    handleKeepaliveOptions();
  }
}

void TcpPduPam::applyPendingMode() {
  TcpPduPamEnableMode const pending = pendingEnableReadOnlyOrWriteOnlyMode_;
  if (pending == TcpPduPamEnableMode::tcpEnableModeNone_) return;
  if (txPktHolderShadow_ || rxPduInProgress()) return;
  pendingEnableReadOnlyOrWriteOnlyMode_ = TcpPduPamEnableMode::tcpEnableModeNone_;
  PDU_TRACE(levelInfo, "Setting enabled to " << pending);
  applyEnableMode(pending);
}

void TcpPduPam::readableIs(bool v) {
  if (v == readable_) return;
  readable_ = v;
  if (!inRxPkt_) notify(&Notifiee::handleReadable);
}

void TcpPduPam::writableIs(bool v) {
  if (v == writable_) return;
  writable_ = v;
  notify(&Notifiee::handleWritable);
}

void TcpPduPam::rxNotifyIs(bool on) {
  if (tcpPduFdSm_ && tcpPduFdSm_->fd()) tcpPduFdSm_->fd()->notifyOnReadableIs(on && readModeEnabled() && !rxFailed_);
}

void TcpPduPam::rxResume() {
  if (!enabled_ || !readModeEnabled() || readable_ || rxFailed_) return;
  if (socketReadable_ || readAheadBytes() != 0) {
    readNextPdu();
    if (readable_) readableCountInc(1);
  } else {
    rxNotifyIs(true);
  }
}

void TcpPduPam::readAheadIs(bool v) {
  if (v == readAhead_) return;
  // Bytes already buffered when it is switched off are still cut into PDUs
  // first; plain reads start once the buffer is empty.
  readAhead_ = v;
  if (!readAhead_ && readAheadBytes() == 0) aheadPkt_ = nullptr;
}

U32 TcpPduPam::readAheadBytes() const {
  return aheadPkt_ ? aheadPkt_->sharedBuffer()->dataBytes() : 0;
}

// --- reading ------------------------------------------------------------------------------

Brio::Ptr<Pkt> TcpPduPam::newRxPkt() const {
  auto const& manager = globalPktManager();
  Brio::Ptr<Pkt> pkt = manager->newPkt();
  // Another endpoint may have lowered the process-wide size since this one
  // was made; a PDU must still fit.
  if (pkt && pkt->maxSharedData() < maxPduLength_) {
    pkt = new Pkt;
    pkt->sharedBufferIs(manager->newSharedBuffer(maxPduLength_));
  }
  return pkt;
}

U16 TcpPduPam::getPduSize() {
  FENNEL_ASSERT(0 && "Need to implement getRemainingLength in a derived class");
  return 0;
}

int TcpPduPam::readPkt(Brio::Ptr<Pkt> const& pkt, U16 length) {
  return static_cast<int>(::recv(fileDescriptor_->descriptor(), sharedTail(pkt.ptr(), length), length, 0));
}

TcpPduPamReadReturn TcpPduPam::handleReadPktError(int errorNumber, int ret) {
  (void)ret;
  if (errorNumber == EAGAIN || errorNumber == EWOULDBLOCK) {
    socketReadable_ = false;
    return TcpPduPamReadResult::waitForMoreData_;
  }
  if (errorNumber == EINTR) return TcpPduPamReadResult::readMoreData_;
  return {TcpPduPamReadResult::error_, Brio::String("Recv failed with ") + std::strerror(errorNumber)};
}

int TcpPduPam::readInto(Brio::Ptr<Pkt> const& pkt, U16 length, TcpPduPamReadReturn* failure) {
  pkt->newSharedTailData(length);
  int n = 0;
  if (!readAhead_ && readAheadBytes() == 0) {
    aheadPkt_ = nullptr;
    n = readPkt(pkt, length);
    if (n > 0 && n < length) socketReadable_ = false;  // a short read drained the socket
  } else {
    if (readAheadBytes() == 0) {
      if (!aheadPkt_) {
        aheadPkt_ = new Pkt;
        aheadPkt_->sharedBufferIs(globalPktManager()->newSharedBuffer(readAheadBufferBytes));
      }
      aheadPkt_->resetSharedData();
      tailroomForReading(aheadPkt_.ptr());
      aheadPkt_->newSharedTailData(readAheadBufferBytes);
      int const got = readPkt(aheadPkt_, static_cast<U16>(readAheadBufferBytes));
      aheadPkt_->delSharedTailData(readAheadBufferBytes - (got > 0 ? static_cast<U32>(got) : 0));
      if (got <= 0) n = got;
      if (got > 0 && static_cast<U32>(got) < readAheadBufferBytes) socketReadable_ = false;
    }
    if (readAheadBytes() != 0) {
      U32 const take = std::min<U32>(length, readAheadBytes());
      std::memcpy(sharedTail(pkt.ptr(), length), aheadPkt_->sharedBuffer()->data(), take);
      aheadPkt_->delSharedHeadData(take);
      n = static_cast<int>(take);
      if (!readAhead_ && readAheadBytes() == 0) aheadPkt_ = nullptr;
    }
  }
  if (n < 0) {
    int const e = errno;
    pkt->delSharedTailData(length);
    *failure = handleReadPktError(e, n);
    return n;
  }
  pkt->delSharedTailData(length - static_cast<U32>(n));
  return n;
}

TcpPduPamReadReturn TcpPduPam::readFromSocket() {
  if (!rxPduInProgress()) {
    // Checked as each PDU starts, not at every step: a write-only mode
    // requested while a PDU was half read waits for that PDU, whose
    // remaining steps must still run.
    FENNEL_ASSERT(pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeWriteOnly_);
  }
  if (!rxPktHolderShadow_) {
    Brio::Ptr<Pkt> pkt = newRxPkt();
    if (!pkt) {
      PDU_TRACE(levelError, "Failed to obtain new packet object");
      return {TcpPduPamReadResult::error_, "Failed to allocate packet"};
    }
    FENNEL_ASSERT(pkt->maxSharedData() >= maxPduLength());
    tailroomForReading(pkt.ptr());
    rxPktHolderShadow_ = pkt;
    rxRemainingLength_ = getPduSize();
  }
  Brio::Ptr<Pkt> const pkt = rxPktHolderShadow_;
  FENNEL_ASSERT(pkt);
  FENNEL_ASSERT(rxRemainingLength());

  TcpPduPamReadReturn failure;
  int const n = readInto(pkt, rxRemainingLength_, &failure);
  if (n < 0) return failure;
  if (n == 0) return {TcpPduPamReadResult::error_, "Connection closed by peer"};
  PDU_TRACE(levelDetail, "Read " << n << " bytes");
  rxRemainingLength_ = static_cast<U16>(rxRemainingLength_ - n);
  // Bytes missing: wait for the next readable event, unless the socket may
  // still hold some (the read came from the read-ahead buffer's rest).
  if (rxRemainingLength_ != 0) {
    return socketReadable_ ? TcpPduPamReadResult::readMoreData_ : TcpPduPamReadResult::waitForMoreData_;
  }

  U32 const length = getPduSize();
  U32 const read = pkt->sharedBuffer()->dataBytes();
  if (length > maxPduLength_) return {TcpPduPamReadResult::error_, "PDU length too big"};
  // A length field shorter than what is already read (below the header)
  // would wrap the remaining count; the stream cannot be resynchronised.
  if (length < read) return {TcpPduPamReadResult::error_, "PDU length too small"};
  rxRemainingLength_ = static_cast<U16>(length - read);
  PDU_TRACE(levelDetail, "PDU size: " << length << " Remaining: " << rxRemainingLength_);
  return rxRemainingLength_ ? TcpPduPamReadResult::readMoreData_ : TcpPduPamReadResult::fullPduRead_;
}

TcpPduPamReadReturn TcpPduPam::cutBufferedPdu() {
  U32 const header = getPduSize();
  U32 const buffered = readAheadBytes();
  if (header == 0 || buffered < header) return TcpPduPamReadResult::readMoreData_;
  // The derived class reads the length from the buffered bytes themselves,
  // shown to it as the PDU read so far.
  rxPktHolderShadow_ = aheadPkt_;
  U32 const length = getPduSize();
  rxPktHolderShadow_ = nullptr;
  if (length > maxPduLength_) return {TcpPduPamReadResult::error_, "PDU length too big"};
  if (length < header) return {TcpPduPamReadResult::error_, "PDU length too small"};
  if (length > buffered) return TcpPduPamReadResult::readMoreData_;
  // A buffer of the PDU's own size: a small PDU costs a small allocation.
  Brio::Ptr<Pkt> pkt(new Pkt);
  pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(length));
  pkt->newSharedHeadData(length);
  std::memcpy(pkt->sharedBuffer()->data(), aheadPkt_->sharedBuffer()->data(), length);
  aheadPkt_->delSharedHeadData(length);
  rxPktHolderShadow_ = pkt;
  rxRemainingLength_ = 0;
  PDU_TRACE(levelDetail, "PDU size: " << length << " Remaining: 0");
  return TcpPduPamReadResult::fullPduRead_;
}

void TcpPduPam::readNextPdu() {
  if (!enabled_ || !readModeEnabled() || readable_ || rxFailed_) return;
  // Write-only is coming (it waits for a send to finish): no new PDU.
  if (!rxPduInProgress() &&
      pendingEnableReadOnlyOrWriteOnlyMode_ == TcpPduPamEnableMode::tcpEnableModeWriteOnly_) {
    rxNotifyIs(false);
    return;
  }
  TcpPduPamReadReturn r;
  // Read-ahead: a PDU already whole in the buffer is cut out in one step;
  // anything else goes the step-by-step way below.
  if (!rxPduInProgress() && readAheadBytes() != 0) {
    rxPktHolderShadow_ = nullptr;
    r = cutBufferedPdu();
  } else {
    r = TcpPduPamReadResult::readMoreData_;
  }
  while (r.result == TcpPduPamReadResult::readMoreData_) {
    r = readFromSocket();
    PDU_TRACE(levelDetail, "result=" << r.result << " reason=" << r.reason.view());
  }
  switch (r.result) {
    case TcpPduPamReadResult::fullPduRead_:
      if (levelTriggered()) rxNotifyIs(false);
      readableIs(true);
      break;
    case TcpPduPamReadResult::waitForMoreData_:
      rxNotifyIs(true);
      break;
    default:
      handleReadError(r.reason);
      break;
  }
}

void TcpPduPam::handleReadError(Brio::String const& reason) {
  PDU_TRACE(levelError, "reason=" << reason.view() << " rxRemainingLength=" << rxRemainingLength_);
  rxErrorReason_ = reason;
  // The stream is unusable after any of these: stop following it (a closed
  // socket stays readable for ever) and drop the half PDU.
  rxNotifyIs(false);
  rxFailed_ = true;
  rxPktHolderShadow_ = nullptr;
  rxRemainingLength_ = 0;
  socketReadable_ = false;
  aheadPkt_ = nullptr;
  readableIs(false);
  rxErrorsInc(1);
  notify(&Notifiee::handleRxErrorReason);
  applyPendingMode();
}

void TcpPduPam::handleReadable() {
  socketReadable_ = true;
  readNextPdu();
  readableCountInc(1);
}

void TcpPduPam::doGetRxPkt() {
  if (!enabled_ || !readable_) return;
  rxPktHolderIs(std::move(rxPktHolderShadow_));
  rxPktHolderShadow_ = nullptr;
  rxRemainingLength_ = 0;
  inRxPkt_ = true;
  readableIs(false);
  applyPendingMode();
  if (readOnePktOnly_) {
    rxNotifyIs(false);
  } else if (socketReadable_ || readAheadBytes() != 0) {
    readNextPdu();
  } else {
    rxNotifyIs(true);
  }
  inRxPkt_ = false;
}

// --- writing ------------------------------------------------------------------------------

void TcpPduPam::txPktIsImpl(Brio::Ptr<Pkt> const& pkt) {
  FENNEL_ASSERT(pkt->sharedBuffer()->dataBytes() <= maxPduLength());
  FENNEL_ASSERT(!txPktHolderShadow());
  FENNEL_ASSERT(!txIovHolderShadow());
  FENNEL_ASSERT(writable());
  FENNEL_ASSERT(pendingEnableReadOnlyOrWriteOnlyMode_ != TcpPduPamEnableMode::tcpEnableModeReadOnly_);
  sendPkt(pkt);
}

TcpPduPamWriteReturn TcpPduPam::sendPkt(Brio::Ptr<Pkt> const& pkt) {
  txPktHolderShadow_ = pkt;
  txRemainingLength_ = static_cast<U16>(pkt->bytes());
  U32 const count = pkt->ioVecCount();
  if (count == 1) {
    // One run of bytes: a plain send, through the socket hook.
    int n = sendPktToSocket(pkt);
    if (n < 0) {
      TcpPduPamWriteReturn r = handleSendPktToSocketError(errno, n);
      if (r.result != TcpPduPamWriteResult::waitForWriteSpace_) return r;
      n = 0;
    }
    writeLength_ = static_cast<U16>(n);
    if (static_cast<U32>(n) == txRemainingLength_) {
      PDU_TRACE(levelDetail, "Sent " << n << " bytes");
      txPktHolderShadow_ = nullptr;
      txRemainingLength_ = 0;
      return TcpPduPamWriteResult::fullWrite_;
    }
    PDU_TRACE(levelDetail, "Partial send " << n << " bytes. Curr iovec: " << 0);
    txRemainingLength_ = static_cast<U16>(txRemainingLength_ - n);
    iovec rest{static_cast<U8*>(pkt->ioVecs()[0].iov_base) + n, pkt->ioVecs()[0].iov_len - static_cast<U32>(n)};
    saveShadowPktCopy(&rest, 1);
    outOfWriteSpace();
    return TcpPduPamWriteResult::partialWrite_;
  }
  for (U32 i = 0; i < count; ++i) txIov_[i] = pkt->ioVecs()[i];
  return sendIov(txIov_.data(), static_cast<U16>(count));
}

TcpPduPamWriteReturn TcpPduPam::sendIov(iovec* iov, U16 count) {
  FENNEL_ASSERT(writeModeEnabled());
  return sendRemaining(iov, count);
}

TcpPduPamWriteReturn TcpPduPam::sendRemaining(iovec* iov, U16 iovLen) {
  ssize_t n;
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = iovLen;
  // sendmsg rather than writev: MSG_NOSIGNAL turns a peer's reset into
  // EPIPE here instead of a SIGPIPE that would end the agent.
  do {
    n = ::sendmsg(fileDescriptor_->descriptor(), &msg, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
    writeLength_ = 0;
    txErrorReason_ = Brio::String("Send failed with ") + std::strerror(errno);
    PDU_TRACE(levelError, txErrorReason_.view());
    handleWriteError();
    return {TcpPduPamWriteResult::error_, txErrorReason_};
  }
  // EAGAIN: the socket buffer is full; wait for space like a short send.
  if (n < 0) n = 0;
  writeLength_ = static_cast<U16>(n);
  txRemainingLength_ = static_cast<U16>(txRemainingLength_ - n);
  if (txRemainingLength_ == 0) {
    PDU_TRACE(levelDetail, "Sent " << n << " bytes");
    bool const resumed = txIovHolderShadow_ != nullptr;
    txPktHolderShadow_ = nullptr;
    txIovHolderShadow_ = nullptr;
    txIovLenHolderShadow_ = 0;
    if (resumed) writeCompleteAndSpaceAvailable();
    return TcpPduPamWriteResult::fullWrite_;
  }
  // Skip the iovecs written whole, then shorten the one written in part.
  U16 curr = 0;
  std::size_t left = static_cast<std::size_t>(n);
  while (curr < iovLen && left >= iov[curr].iov_len) left -= iov[curr++].iov_len;
  FENNEL_ASSERT(curr < iovLen);
  if (txIovHolderShadow_) {
    PDU_TRACE(levelDetail, "Sent " << n << " bytes. Remaining to send " << txRemainingLength_);
  } else {
    PDU_TRACE(levelDetail, "Partial send " << n << " bytes. Curr iovec: " << curr);
  }
  iov[curr].iov_base = static_cast<U8*>(iov[curr].iov_base) + left;
  iov[curr].iov_len -= left;
  saveShadowPktCopy(iov + curr, static_cast<U16>(iovLen - curr));
  outOfWriteSpace();
  return n ? TcpPduPamWriteResult::partialWrite_ : TcpPduPamWriteResult::waitForWriteSpace_;
}

void TcpPduPam::saveShadowPktCopy(iovec const* rest, U16 restCount) {
  // A private copy of the bytes still to send, in one run: the caller may
  // reuse its packet as soon as txPktIs returns.
  U32 bytes = 0;
  for (U16 i = 0; i < restCount; ++i) bytes += static_cast<U32>(rest[i].iov_len);
  Brio::Ptr<Pkt> copy(new Pkt);
  copy->sharedBufferIs(globalPktManager()->newSharedBuffer(bytes));
  copy->newSharedHeadData(bytes);
  U8* out = copy->sharedBuffer()->data();
  for (U16 i = 0; i < restCount; ++i) {
    std::memcpy(out, rest[i].iov_base, rest[i].iov_len);
    out += rest[i].iov_len;
  }
  txPktHolderShadow_ = copy;
  txIov_[0] = copy->ioVecs()[0];
  txIovHolderShadow_ = txIov_.data();
  txIovLenHolderShadow_ = 1;
  ShadowPktView pkt{copy.ptr()};
  FENNEL_ASSERT(pkt->numIovecs() == 1);
  FENNEL_ASSERT(pkt == txPktHolderShadow());
}

int TcpPduPam::sendPktToSocket(Brio::Ptr<Pkt> const& pkt) {
  iovec const& v = pkt->ioVecs()[0];
  int n;
  do {
    n = static_cast<int>(::send(fileDescriptor_->descriptor(), v.iov_base, v.iov_len, MSG_NOSIGNAL));
  } while (n < 0 && errno == EINTR);
  return n;
}

TcpPduPamWriteReturn TcpPduPam::handleSendPktToSocketError(int errorNumber, int ret) {
  (void)ret;
  if (errorNumber == EAGAIN || errorNumber == EWOULDBLOCK) return TcpPduPamWriteResult::waitForWriteSpace_;
  writeLength_ = 0;
  txErrorReason_ = Brio::String("Send failed with ") + std::strerror(errorNumber);
  PDU_TRACE(levelError, txErrorReason_.view());
  handleWriteError();
  return {TcpPduPamWriteResult::error_, txErrorReason_};
}

void TcpPduPam::handleWriteError() {
  txPktHolderShadow_ = nullptr;
  txIovHolderShadow_ = nullptr;
  txIovLenHolderShadow_ = 0;
  txRemainingLength_ = 0;
  txErrnoIs(static_cast<U32>(errno));
  // A broken socket stays writable (with an error) for ever: stop following it.
  if (tcpPduFdSm_ && tcpPduFdSm_->fd()) tcpPduFdSm_->fd()->notifyOnWritableIs(false);
  txErrorsInc(1);
  notify(&Notifiee::handleTxErrorReason);
}

void TcpPduPam::outOfWriteSpace() {
  writableIs(false);
  if (tcpPduFdSm_ && tcpPduFdSm_->fd()) tcpPduFdSm_->fd()->notifyOnWritableIs(true);
}

void TcpPduPam::handleWriteable() {
  if (txIovHolderShadow_ && writeModeEnabled()) {
    sendIov(txIovHolderShadow_, txIovLenHolderShadow_);
  }
  writableCountInc(1);
}

void TcpPduPam::writeCompleteAndSpaceAvailable() {
  txPktHolderShadow_ = nullptr;
  txIovHolderShadow_ = nullptr;
  txIovLenHolderShadow_ = 0;
  if (tcpPduFdSm_ && tcpPduFdSm_->fd() && levelTriggered()) tcpPduFdSm_->fd()->notifyOnWritableIs(false);
  writableIs(true);
  if (pendingEnableReadOnlyOrWriteOnlyMode_ == TcpPduPamEnableMode::tcpEnableModeReadOnly_) {
    PDU_TRACE(levelInfo, "pending txPkt complete, setting enabledMode to readOnly");
  }
  applyPendingMode();
}

// --- keepalive --------------------------------------------------------------------------

void TcpPduPam::keepaliveOptsIs(TcpKeepaliveOptions const& v) {
  keepaliveOpts_ = v;
  handleKeepaliveOptions();
}

void TcpPduPam::handleKeepaliveOptions() {
  if (!initialized_ || !enabled_) return;
  int const sd = fileDescriptor_ ? fileDescriptor_->descriptor() : -1;
  if (sd < 0) {
    FENNEL_ASSERT(keepaliveOpts().enabled() == false);
    return;
  }
  auto set = [&](int level, int name, int value, char const* text) {
    if (::setsockopt(sd, level, name, &value, sizeof value) == 0) return true;
    tcpOptErrorReason_ = Brio::String("setsockopt() error while setting ") + text + ": " + std::strerror(errno);
    ++tcpOptErrors_;
    PDU_TRACE(levelError, "Setsockopt failed with " << tcpOptErrorReason_.view());
    notify(&Notifiee::handleTcpOptErrors);
    return false;
  };
  TcpKeepaliveOptions const& k = keepaliveOpts_;
  if (k.enabled()) {
    if (set(SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE") &&
        set(IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(k.idleTime()), "TCP_KEEPIDLE") &&
        set(IPPROTO_TCP, TCP_KEEPINTVL, k.probeInterval(), "TCP_KEEPINTVL") &&
        set(IPPROTO_TCP, TCP_KEEPCNT, k.probeCount(), "TCP_KEEPCNT")) {
      PDU_TRACE(levelInfo, "Setsockopt(): TCP Keepalive enabled " << k);
    }
  } else if (set(SOL_SOCKET, SO_KEEPALIVE, 0, "SO_KEEPALIVE")) {
    PDU_TRACE(levelInfo, "Setsockopt(): TCP Keepalive disabled");
  }
}

// --- dump ---------------------------------------------------------------------------------

void TcpPduPam::dumpState(std::ostream& os) const {
  os << "fileDescriptor " << (fileDescriptor_ ? fileDescriptor_->descriptor() : -1) << "\n"
     << "fdFactory " << (fdFactory_ ? "set" : "null") << "\n"
     << "tcpPduFdSm " << (tcpPduFdSm_ ? "set" : "null") << "\n"
     << "enabled " << enabled_ << "\n"
     << "enableMode " << enableMode_ << "\n"
     << "pendingEnableReadOnlyOrWriteOnlyMode " << pendingEnableReadOnlyOrWriteOnlyMode_ << "\n"
     << "maxPduLength " << maxPduLength_ << "\n"
     << "readable " << readable_ << "\n"
     << "writable " << writable_ << "\n"
     << "readOnePktOnly " << readOnePktOnly_ << "\n"
     << "rxPktHolderShadow " << (rxPktHolderShadow_ ? rxPktHolderShadow_->bytes() : 0) << " bytes\n"
     << "rxRemainingLength " << rxRemainingLength_ << "\n"
     << "txPktHolderShadow " << (txPktHolderShadow_ ? txPktHolderShadow_->bytes() : 0) << " bytes\n"
     << "txIovHolderShadow " << (txIovHolderShadow_ ? "set" : "null") << "\n"
     << "txIovLenHolderShadow " << txIovLenHolderShadow_ << "\n"
     << "txRemainingLength " << txRemainingLength_ << "\n"
     << "writeLength " << writeLength_ << "\n"
     << "rxErrorReason " << rxErrorReason_.view() << "\n"
     << "txErrorReason " << txErrorReason_.view() << "\n"
     << "keepaliveOpts " << keepaliveOpts_ << "\n"
     << "tcpOptErrors " << tcpOptErrors_ << "\n"
     << "tcpOptErrorReason " << tcpOptErrorReason_.view() << "\n"
     << "initialized " << initialized_ << "\n"
     << "readAhead " << readAhead_ << "\n";
}

}  // namespace Corvid
