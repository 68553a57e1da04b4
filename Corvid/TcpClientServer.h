// TcpClientServer: TCP connections that keep themselves up.
//
// The owner describes a connection in a configuration entity
// (TcpClientConfig, TcpServerConfig), makes the reactor on it (TcpClientSm,
// TcpServerSm) and reads the outcome from a status entity the reactor alone
// writes (TcpClientStatus, TcpServerStatus). Sockets open in the configured
// namespace, get the configured options (TTL, DSCP, GTSM, TCP MD5, MSS,
// path-MTU discovery, interface binding) and are handed out as TcpConnSocket
// values whose TcpFileDescriptor closes the socket with its last holder.
//
// Client (connectionStatus), retry timer R, overall timeout timer T:
//
//   idle --startConnection--> connecting --writable, SO_ERROR 0--> connected
//     |                          | R (kernelTcpTimeout) fires: new attempt
//     +--any failure--> failed --R (retryInterval << backoff) fires--> new attempt
//   T (from the first attempt) fires in any state --> timedout (no retry)
//
// Server: not listening --startListener--> listening; a failed start arms R
// at retryInterval; an option or key change that needs a fresh socket stops
// the listener and arms R at 0 s, so the restart happens on the next loop
// turn, never inside the handler that asked for it. Each readable event of
// the listener accepts one connection into the status's queue.
//
// Failed system calls never throw: they become `reason` ("Connect
// (Connection refused)"), a counter and a retry.
#pragma once

#include <Brio/Record.h>
#include <Corvid/Ip.h>
#include <Corvid/NamespaceName.h>
#include <Corvid/Port.h>
#include <Corvid/TcpFd.h>
#include <Quay/TimerWheel.h>
#include <sys/socket.h>

#include <deque>
#include <map>
#include <ostream>

namespace Corvid {

// --- socket option mask ------------------------------------------------------------

class TcpSocketOptions {
 public:
  static constexpr U8 txTtlBit = 1, txDsBit = 2, rxMinTtlBit = 4, md5AuthBit = 8, sockMaxSegSizeBit = 16,
                      pathMtuDiscoveryBit = 32, dontRouteBit = 64;

  constexpr TcpSocketOptions() = default;
  constexpr explicit TcpSocketOptions(U8 mask)
      : optionTxTtl_(mask & 1), optionTxDs_((mask >> 1) & 1), optionRxMinTtl_((mask >> 2) & 1),
        optionMd5Auth_((mask >> 3) & 1), optionSockMaxSegSize_((mask >> 4) & 1),
        optionPathMtuDiscovery_((mask >> 5) & 1), optionDontRoute_((mask >> 6) & 1) {}

  bool optionTxTtl() const { return optionTxTtl_; }
  bool optionTxDs() const { return optionTxDs_; }
  bool optionRxMinTtl() const { return optionRxMinTtl_; }
  bool optionMd5Auth() const { return optionMd5Auth_; }
  bool optionSockMaxSegSize() const { return optionSockMaxSegSize_; }
  bool optionPathMtuDiscovery() const { return optionPathMtuDiscovery_; }
  bool optionDontRoute() const { return optionDontRoute_; }
  U8 value() const {
    return static_cast<U8>(optionTxTtl_ | optionTxDs_ << 1 | optionRxMinTtl_ << 2 | optionMd5Auth_ << 3 |
                           optionSockMaxSegSize_ << 4 | optionPathMtuDiscovery_ << 5 | optionDontRoute_ << 6);
  }
  bool has(U8 bit) const { return (value() & bit) != 0; }

  friend bool operator==(TcpSocketOptions const& a, TcpSocketOptions const& b) { return a.value() == b.value(); }

 private:
  U8 optionTxTtl_ : 1 = 0;
  U8 optionTxDs_ : 1 = 0;
  U8 optionRxMinTtl_ : 1 = 0;
  U8 optionMd5Auth_ : 1 = 0;
  U8 optionSockMaxSegSize_ : 1 = 0;
  U8 optionPathMtuDiscovery_ : 1 = 0;
  U8 optionDontRoute_ : 1 = 0;
};
static_assert(sizeof(TcpSocketOptions) == 1);

Brio::String valueToStrep(TcpSocketOptions const& v);
TcpSocketOptions sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TcpSocketOptions*);
std::ostream& operator<<(std::ostream& os, TcpSocketOptions const& v);
// "<optionTxTtl,optionMd5Auth>": the first four flags only, deliberately:
// dumps have always shown just these and log readers match on them.
Brio::String tcpOptionsToStrep(TcpSocketOptions options);

// --- one live connection -------------------------------------------------------------

class TcpConnSocket {
 public:
  TcpConnSocket() = default;
  explicit TcpConnSocket(Brio::Ptr<TcpFileDescriptor const> fd) : fileDescriptor_(std::move(fd)) {}
  TcpConnSocket(Brio::Ptr<TcpFileDescriptor const> fd, IpGenAddr srcIpAddr, Port srcPort, IpGenAddr dstIpAddr,
                Port dstPort, U32 ifIndex)
      : fileDescriptor_(std::move(fd)), srcIpAddr_(srcIpAddr), srcPort_(srcPort), dstIpAddr_(dstIpAddr),
        dstPort_(dstPort), ifIndex_(ifIndex) {}
  // Reads the strep at [pos, end). A descriptor cannot be taken over from
  // text (nothing would own it), so the value read has a null descriptor.
  TcpConnSocket(Brio::StringIter& pos, Brio::StringIter const& end);

  Brio::Ptr<TcpFileDescriptor const> const& fileDescriptor() const { return fileDescriptor_; }
  // The descriptor number, -1 without a descriptor.
  int descriptor() const { return fileDescriptor_ ? fileDescriptor_->descriptor() : -1; }
  IpGenAddr srcIpAddr() const { return srcIpAddr_; }
  Port srcPort() const { return srcPort_; }
  IpGenAddr dstIpAddr() const { return dstIpAddr_; }
  Port dstPort() const { return dstPort_; }
  U32 ifIndex() const { return ifIndex_; }

  explicit operator bool() const { return fileDescriptor_ != nullptr; }
  friend bool operator==(TcpConnSocket const& a, TcpConnSocket const& b) {
    return a.fileDescriptor_ == b.fileDescriptor_ && a.srcIpAddr_ == b.srcIpAddr_ && a.srcPort_ == b.srcPort_ &&
           a.dstIpAddr_ == b.dstIpAddr_ && a.dstPort_ == b.dstPort_ && a.ifIndex_ == b.ifIndex_;
  }
  // "10.0.0.1 port 4000 -> 10.0.0.2 port 179 fd 12"
  Brio::String toStrep() const;

 private:
  Brio::Ptr<TcpFileDescriptor const> fileDescriptor_;
  IpGenAddr srcIpAddr_;
  Port srcPort_;
  IpGenAddr dstIpAddr_;
  Port dstPort_;
  U32 ifIndex_ = 0;
};

Brio::String valueToStrep(TcpConnSocket const& v);
TcpConnSocket sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TcpConnSocket*);
std::ostream& operator<<(std::ostream& os, TcpConnSocket const& v);

// --- configuration -------------------------------------------------------------------

class TcpConfigBase : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<TcpConfigBase const> {
   public:
    virtual void handleNetworkNamespace() {}
    virtual void handleRetryInterval() {}
    virtual void handleTimeout() {}
    virtual void handleOptions() {}
    virtual void handleTxTtl() {}
    virtual void handleTxDs() {}
    virtual void handleRxMinTtl() {}
    virtual void handleMd5Auth(IpGenAddrWithMask const&) {}
    virtual void handleSockMaxSegSize() {}
    virtual void handlePathMtuDiscovery() {}
    virtual void handleEdgeTriggeredFileDescriptor() {}
    virtual void handleDstIntfIfIndex() {}
    // Client configuration only.
    virtual void handleClientIpAddr() {}
    virtual void handleIfIndex() {}
    virtual void handleExponentialBackoffRetries() {}
    virtual void handleKernelTcpTimeout() {}

   protected:
    using EntityNotifiee::EntityNotifiee;
  };

  NamespaceName const& networkNamespace() const { return networkNamespace_; }
  void networkNamespaceIs(NamespaceName const& v) {
    attributeIs(networkNamespace_, v, &Notifiee::handleNetworkNamespace);
  }
  U32 retryInterval() const { return retryInterval_; }
  void retryIntervalIs(U32 v) { attributeIs(retryInterval_, v, &Notifiee::handleRetryInterval); }
  F64 timeout() const { return timeout_; }
  void timeoutIs(F64 v) { attributeIs(timeout_, v, &Notifiee::handleTimeout); }
  TcpSocketOptions options() const { return options_; }
  void optionsIs(TcpSocketOptions v) { attributeIs(options_, v, &Notifiee::handleOptions); }
  IpTtl txTtl() const { return txTtl_; }
  void txTtlIs(IpTtl v) { attributeIs(txTtl_, v, &Notifiee::handleTxTtl); }
  IpDscp txDs() const { return txDs_; }
  void txDsIs(IpDscp v) { attributeIs(txDs_, v, &Notifiee::handleTxDs); }
  IpTtl rxMinTtl() const { return rxMinTtl_; }
  void rxMinTtlIs(IpTtl v) { attributeIs(rxMinTtl_, v, &Notifiee::handleRxMinTtl); }

  // TCP MD5 keys by peer address or prefix.
  Brio::String md5Auth(IpGenAddrWithMask const& a) const;
  bool md5AuthHas(IpGenAddrWithMask const& a) const { return md5Auth_.count(a) != 0; }
  std::map<IpGenAddrWithMask, Brio::String> const& md5AuthAll() const { return md5Auth_; }
  U32 md5Auths() const { return static_cast<U32>(md5Auth_.size()); }
  void md5AuthIs(IpGenAddrWithMask const& a, Brio::String const& key) {
    collectionIs(md5Auth_, a, key, &Notifiee::handleMd5Auth);
  }
  void md5AuthDel(IpGenAddrWithMask const& a) { collectionDel(md5Auth_, a, &Notifiee::handleMd5Auth); }
  void md5AuthDelAll() { collectionDelAll(md5Auth_, &Notifiee::handleMd5Auth); }

  U16 sockMaxSegSize() const { return sockMaxSegSize_; }
  void sockMaxSegSizeIs(U16 v) { attributeIs(sockMaxSegSize_, v, &Notifiee::handleSockMaxSegSize); }
  bool pathMtuDiscovery() const { return pathMtuDiscovery_; }
  void pathMtuDiscoveryIs(bool v) { attributeIs(pathMtuDiscovery_, v, &Notifiee::handlePathMtuDiscovery); }
  bool edgeTriggeredFileDescriptor() const { return edgeTriggeredFileDescriptor_; }
  void edgeTriggeredFileDescriptorIs(bool v) {
    attributeIs(edgeTriggeredFileDescriptor_, v, &Notifiee::handleEdgeTriggeredFileDescriptor);
  }
  U32 dstIntfIfIndex() const { return dstIntfIfIndex_; }
  void dstIntfIfIndexIs(U32 v) { attributeIs(dstIntfIfIndex_, v, &Notifiee::handleDstIntfIfIndex); }

  virtual void dumpState(std::ostream& os, int indent = 0) const;

 protected:
  explicit TcpConfigBase(Brio::String name) : Entity(std::move(name)) {}
  ~TcpConfigBase() override = default;

 private:
  NamespaceName networkNamespace_;
  U32 retryInterval_ = 1;
  F64 timeout_ = 0;
  TcpSocketOptions options_;
  IpTtl txTtl_{0};
  IpDscp txDs_{0};
  IpTtl rxMinTtl_{0};
  std::map<IpGenAddrWithMask, Brio::String> md5Auth_;
  U16 sockMaxSegSize_ = 0;
  bool pathMtuDiscovery_ = true;
  bool edgeTriggeredFileDescriptor_ = false;
  U32 dstIntfIfIndex_ = 0;
};

class TcpServerConfig : public TcpConfigBase {
 public:
  IpGenAddr listenIpAddr() const { return listenIpAddr_; }
  Port listenPort() const { return listenPort_; }
  void dumpState(std::ostream& os, int indent = 0) const override;

 private:
  friend Brio::Ptr<TcpServerConfig> tcpServerConfigFactory(IpGenAddr const&, Port);
  TcpServerConfig(IpGenAddr listenIpAddr, Port listenPort)
      : TcpConfigBase("TcpServerConfig"), listenIpAddr_(listenIpAddr), listenPort_(listenPort) {}
  IpGenAddr const listenIpAddr_;
  Port const listenPort_;
};

Brio::Ptr<TcpServerConfig> tcpServerConfigFactory(IpGenAddr const& listenIpAddr, Port listenPort);

class TcpClientConfig : public TcpConfigBase {
 public:
  static constexpr U32 kernelTcpTimeoutDefault = 20;

  IpGenAddr serverIpAddr() const { return serverIpAddr_; }
  Port serverPort() const { return serverPort_; }
  // The local address to bind; the zero address of the family leaves the
  // socket unbound.
  IpGenAddr clientIpAddr() const { return clientIpAddr_; }
  void clientIpAddrIs(IpGenAddr v) { attributeIs(clientIpAddr_, v, &Notifiee::handleClientIpAddr); }
  U32 ifIndex() const { return ifIndex_; }
  void ifIndexIs(U32 v) { attributeIs(ifIndex_, v, &Notifiee::handleIfIndex); }
  U32 exponentialBackoffRetries() const { return exponentialBackoffRetries_; }
  void exponentialBackoffRetriesIs(U32 v) {
    attributeIs(exponentialBackoffRetries_, v, &Notifiee::handleExponentialBackoffRetries);
  }
  U32 kernelTcpTimeout() const { return kernelTcpTimeout_; }
  void kernelTcpTimeoutIs(U32 v) { attributeIs(kernelTcpTimeout_, v, &Notifiee::handleKernelTcpTimeout); }

 private:
  friend Brio::Ptr<TcpClientConfig> tcpClientConfigFactory(IpGenAddr const&, Port);
  TcpClientConfig(IpGenAddr serverIpAddr, Port serverPort)
      : TcpConfigBase("TcpClientConfig"), serverIpAddr_(serverIpAddr), serverPort_(serverPort),
        clientIpAddr_(serverIpAddr.af()) {}
  IpGenAddr const serverIpAddr_;
  Port const serverPort_;
  IpGenAddr clientIpAddr_;
  U32 ifIndex_ = 0;
  U32 exponentialBackoffRetries_ = 0;
  U32 kernelTcpTimeout_ = kernelTcpTimeoutDefault;
};

Brio::Ptr<TcpClientConfig> tcpClientConfigFactory(IpGenAddr const& serverIpAddr, Port serverPort);

// --- status --------------------------------------------------------------------------

class TcpClientStatus : public Brio::Entity {
 public:
  enum class ConnectionStatus : U8 { idle_ = 0, failed_ = 1, connecting_ = 2, connected_ = 3, timedout_ = 4 };

  class Notifiee : public Brio::EntityNotifiee<TcpClientStatus> {
   public:
    virtual void handleConnectionStatus() {}
    virtual void handleReason() {}
    virtual void handleConnectionAttemptCount() {}
    virtual void handleConnectionErrorCount() {}
    virtual void handleConnectionSuccessCount() {}
    virtual void handleRetryTimerNext() {}
    virtual void handleConnSocket() {}

   protected:
    using EntityNotifiee::EntityNotifiee;
  };

  ConnectionStatus connectionStatus() const { return connectionStatus_; }
  void connectionStatusIs(ConnectionStatus v) { attributeIs(connectionStatus_, v, &Notifiee::handleConnectionStatus); }
  Brio::String const& reason() const { return reason_; }
  void reasonIs(Brio::String const& v) { attributeIs(reason_, v, &Notifiee::handleReason); }
  U32 connectionAttemptCount() const { return connectionAttemptCount_; }
  void connectionAttemptCountInc() {
    attributeIs(connectionAttemptCount_, connectionAttemptCount_ + 1, &Notifiee::handleConnectionAttemptCount);
  }
  U32 connectionErrorCount() const { return connectionErrorCount_; }
  void connectionErrorCountInc() {
    attributeIs(connectionErrorCount_, connectionErrorCount_ + 1, &Notifiee::handleConnectionErrorCount);
  }
  U32 connectionSuccessCount() const { return connectionSuccessCount_; }
  void connectionSuccessCountInc() {
    attributeIs(connectionSuccessCount_, connectionSuccessCount_ + 1, &Notifiee::handleConnectionSuccessCount);
  }
  F64 retryTimerNext() const { return retryTimerNext_; }
  void retryTimerNextIs(F64 v) { attributeIs(retryTimerNext_, v, &Notifiee::handleRetryTimerNext); }
  U32 retryTimerInterval() const { return retryTimerInterval_; }
  void retryTimerIntervalIs(U32 v) { retryTimerInterval_ = v; }
  TcpConnSocket const& connSocket() const { return connSocket_; }
  void connSocketIs(TcpConnSocket const& v) { attributeIs(connSocket_, v, &Notifiee::handleConnSocket); }
  void resetConnSocket() { connSocketIs(TcpConnSocket()); }

 private:
  friend Brio::Ptr<TcpClientStatus> tcpClientStatusFactory();
  TcpClientStatus() : Entity("TcpClientStatus") {}
  ConnectionStatus connectionStatus_ = ConnectionStatus::idle_;
  Brio::String reason_;
  U32 connectionAttemptCount_ = 0;
  U32 connectionErrorCount_ = 0;
  U32 connectionSuccessCount_ = 0;
  F64 retryTimerNext_ = 0;
  U32 retryTimerInterval_ = 0;
  TcpConnSocket connSocket_;
};

inline constexpr char const* connectionStatusNames[] = {"idle", "failed", "connecting", "connected", "timedout"};
inline constexpr TcpClientStatus::ConnectionStatus connectionStatusValues[] = {
    TcpClientStatus::ConnectionStatus::idle_, TcpClientStatus::ConnectionStatus::failed_,
    TcpClientStatus::ConnectionStatus::connecting_, TcpClientStatus::ConnectionStatus::connected_,
    TcpClientStatus::ConnectionStatus::timedout_};
inline constexpr EnumNames<TcpClientStatus::ConnectionStatus, 5> connectionStatusText{
    connectionStatusNames, connectionStatusValues, "Invalid ConnectionStatus"};
CORVID_ENUM_TEXT(TcpClientStatus::ConnectionStatus, connectionStatusText)

Brio::Ptr<TcpClientStatus> tcpClientStatusFactory();

class TcpServerStatus : public Brio::Entity {
 public:
  class Notifiee : public Brio::EntityNotifiee<TcpServerStatus> {
   public:
    virtual void handleListening() {}
    virtual void handleReason() {}
    virtual void handleConnSocket(U32 const& index) {}

   protected:
    using EntityNotifiee::EntityNotifiee;
  };

  bool listening() const { return listening_; }
  void listeningIs(bool v) { attributeIs(listening_, v, &Notifiee::handleListening); }
  Brio::String const& reason() const { return reason_; }
  void reasonIs(Brio::String const& v) { attributeIs(reason_, v, &Notifiee::handleReason); }
  U32 serverStartTimes() const { return serverStartTimes_; }
  void serverStartTimesInc() { ++serverStartTimes_; }
  U32 serverTimedOutTimes() const { return serverTimedOutTimes_; }
  void serverTimedOutTimesInc() { ++serverTimedOutTimes_; }
  U32 serverEagainEintrTimes() const { return serverEagainEintrTimes_; }
  void serverEagainEintrTimesInc() { ++serverEagainEintrTimes_; }

  // The accept queue, oldest first, indexed by a sequence number.
  void connSocketEnq(TcpConnSocket const& v);
  void connSocketDeq();
  TcpConnSocket connSocketFront() const;
  TcpConnSocket connSocketBack() const;
  TcpConnSocket connSocket(U32 index) const;
  void connSocketIs(U32 index, TcpConnSocket const& v);
  void connSocketDel(U32 index);
  void connSocketDelAll();
  U32 connSockets() const { return static_cast<U32>(connSocket_.size()); }
  // Removes and returns the oldest queued connection (empty when none).
  TcpConnSocket getConnSocket();
  // Connections ever queued; not lowered by removal.
  U32 connSocketCount() const { return connSocketCount_; }
  void connSocketCountInc() { ++connSocketCount_; }

  void dumpState(std::ostream& os, int indent = 0) const;

 private:
  friend Brio::Ptr<TcpServerStatus> tcpServerStatusFactory();
  TcpServerStatus() : Entity("TcpServerStatus") {}
  bool listening_ = false;
  Brio::String reason_;
  U32 serverStartTimes_ = 0;
  U32 serverTimedOutTimes_ = 0;
  U32 serverEagainEintrTimes_ = 0;
  std::map<U32, TcpConnSocket> connSocket_;
  U32 nextIndex_ = 0;
  U32 connSocketCount_ = 0;
};

Brio::Ptr<TcpServerStatus> tcpServerStatusFactory();

// --- the reactors --------------------------------------------------------------------

class TcpSmBase : public Brio::Entity {
 public:
  enum class SdType : U8 { sdListening_ = 0, sdAccepted_ = 1, sdConnecting_ = 2, sdEstablished_ = 3 };

  Brio::Ptr<TcpConfigBase const> const& tcpConfig() const { return tcpConfig_; }
  Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdEventRegistrationFactory() const {
    return fdEventRegistrationFactory_;
  }
  F64 retryTimerExpireTime() const { return retryTimer_.expiry(); }
  F64 timeoutTimerExpireTime() const { return timeoutTimer_.expiry(); }
  U32 retryTimes() const { return retryTimes_; }
  bool initialized() const { return initialized_; }
  bool failApplySocketOptionsInTest() const { return failApplySocketOptionsInTest_; }
  void failApplySocketOptionsInTestIs(bool v) { failApplySocketOptionsInTest_ = v; }
  TcpSocketOptions lastOptionsApplied() const { return lastOptionsApplied_; }

  // The configuration's values, or its defaults without a configuration.
  NamespaceName networkNamespace() const;
  U32 retryInterval() const;
  F64 timeout() const;
  TcpSocketOptions options() const;
  IpTtl txTtl() const;
  IpDscp txDs() const;
  IpTtl rxMinTtl() const;
  bool md5AuthHas(IpGenAddrWithMask const& a) const;
  Brio::String md5Auth(IpGenAddrWithMask const& a) const;
  U16 sockMaxSegSize() const;
  bool pathMtuDiscovery() const;
  U32 dstIntfIfIndex() const;

  virtual void handleInitialized();
  virtual AddressFamily af() const;
  virtual void startTimeoutTimerImpl();
  virtual void stopTimeoutTimerImpl();
  virtual void handleTimeout();
  virtual void restartRetryTimerImpl(U32 seconds);
  virtual void stopRetryTimerImpl();
  virtual void handleRetry();
  virtual Brio::String formatDerivedType() const { return "TcpSmBase"; }
  // 0, or the result of the first option call that failed.
  virtual int applySocketOptions(int sd, SdType sdType);
  virtual void handleSocketOptions();
  virtual void handleSocketMd5AuthOption(IpGenAddrWithMask const& a);

  void startTimeoutTimer() { startTimeoutTimerImpl(); }
  void stopTimeoutTimer() { stopTimeoutTimerImpl(); }

 protected:
  TcpSmBase(Brio::String name, Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdEventRegistrationFactory,
            Brio::Ptr<Quay::TimerWheel> const& timerWheel, Brio::Ptr<TcpConfigBase const> const& tcpConfig);
  ~TcpSmBase() override = default;

  void initializedIs(bool v) { initialized_ = v; }
  void retryTimesInc() { ++retryTimes_; }
  void lastOptionsAppliedIs(TcpSocketOptions v) { lastOptionsApplied_ = v; }

 private:
  class ConfigReactor : public TcpConfigBase::Notifiee {
   public:
    explicit ConfigReactor(TcpSmBase* owner) : owner_(owner) {}
    void handleOptions() override { owner_->handleSocketOptions(); }
    void handleTxTtl() override { owner_->handleSocketOptions(); }
    void handleTxDs() override { owner_->handleSocketOptions(); }
    void handleRxMinTtl() override { owner_->handleSocketOptions(); }
    void handleSockMaxSegSize() override { owner_->handleSocketOptions(); }
    void handlePathMtuDiscovery() override { owner_->handleSocketOptions(); }
    void handleDstIntfIfIndex() override { owner_->handleSocketOptions(); }
    void handleMd5Auth(IpGenAddrWithMask const& a) override { owner_->handleSocketMd5AuthOption(a); }

   private:
    TcpSmBase* owner_;
  };

  Brio::Ptr<TcpConfigBase const> tcpConfig_;
  Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> fdEventRegistrationFactory_;
  Quay::TimerWheel::Timer retryTimer_;
  Quay::TimerWheel::Timer timeoutTimer_;
  U32 retryTimes_ = 0;
  bool initialized_ = false;
  bool failApplySocketOptionsInTest_ = false;
  TcpSocketOptions lastOptionsApplied_;
  ConfigReactor configReactor_;
};

inline constexpr char const* sdTypeNames[] = {"sdListening", "sdAccepted", "sdConnecting", "sdEstablished"};
inline constexpr TcpSmBase::SdType sdTypeValues[] = {TcpSmBase::SdType::sdListening_, TcpSmBase::SdType::sdAccepted_,
                                                    TcpSmBase::SdType::sdConnecting_,
                                                    TcpSmBase::SdType::sdEstablished_};
inline constexpr EnumNames<TcpSmBase::SdType, 4> sdTypeText{sdTypeNames, sdTypeValues, "Invalid SdType"};
CORVID_ENUM_TEXT(TcpSmBase::SdType, sdTypeText)

// Every reactor trace line carries this after the function name.
std::ostream& operator<<(std::ostream& os, TcpSmBase const* sm);

class TcpClientSm : public TcpSmBase {
 public:
  U32 clientId() const { return clientId_; }
  Brio::Ptr<TcpClientConfig const> const& tcpClientConfig() const { return tcpClientConfig_; }
  Brio::Ptr<TcpClientStatus> const& tcpClientStatus() const { return tcpClientStatus_; }
  Brio::Ptr<TcpFileDescriptorEventRegistration> const& fd() const { return fd_; }
  U32 retryTimerJitterPercentage() const { return 0; }

  // Begins one attempt; true while the connect is in progress or done.
  bool startConnection();
  void stopConnection();
  bool connectionConfirmed(Brio::Ptr<TcpFileDescriptor const> const& fd, IpGenAddr const& dstIpAddr, Port srcPort,
                           Port dstPort);
  int getClientSocket() const;
  void cleanup() { stopConnection(); }

  void handleInitialized() override;
  AddressFamily af() const override { return tcpClientConfig_ ? tcpClientConfig_->serverIpAddr().af() : AddressFamily::ipv4; }
  void handleTimeout() override;
  void handleRetry() override;
  Brio::String formatDerivedType() const override;
  void handleSocketOptions() override;
  void handleSocketMd5AuthOption(IpGenAddrWithMask const& a) override;
  void handleConnect();

 protected:
  ~TcpClientSm() override;

 private:
  friend Brio::Ptr<TcpClientSm> tcpClientSmFactory(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const&,
                                                   Brio::Ptr<Quay::TimerWheel> const&, U32,
                                                   Brio::Ptr<TcpClientConfig const> const&,
                                                   Brio::Ptr<TcpClientStatus> const&);
  TcpClientSm(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
              Brio::Ptr<Quay::TimerWheel> const& timerWheel, U32 clientId,
              Brio::Ptr<TcpClientConfig const> const& config, Brio::Ptr<TcpClientStatus> const& status);

  class FdReactor : public TcpFileDescriptorEventRegistration::Notifiee {
   public:
    explicit FdReactor(TcpClientSm* owner) : owner_(owner) {}
    void handleWritableCount() override { owner_->handleConnect(); }

   private:
    TcpClientSm* owner_;
  };

  void handleClientError(Brio::String const& functionName, Brio::String const& errorString);
  void restartRetryTimer();
  void fdDisable();

  U32 clientId_;
  Brio::Ptr<TcpClientConfig const> tcpClientConfig_;
  Brio::Ptr<TcpClientStatus> tcpClientStatus_;
  Brio::Ptr<TcpFileDescriptorEventRegistration> fd_;
  FdReactor fdReactor_;
};

Brio::Ptr<TcpClientSm> tcpClientSmFactory(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
                                          Brio::Ptr<Quay::TimerWheel> const& timerWheel, U32 clientId,
                                          Brio::Ptr<TcpClientConfig const> const& config,
                                          Brio::Ptr<TcpClientStatus> const& status);

class TcpServerSm : public TcpSmBase {
 public:
  Brio::Ptr<TcpServerConfig const> const& tcpServerConfig() const { return tcpServerConfig_; }
  Brio::Ptr<TcpServerStatus> const& tcpServerStatus() const { return tcpServerStatus_; }
  Brio::Ptr<TcpFileDescriptorEventRegistration> const& fd() const { return fd_; }
  U32 backlog() const { return backlog_; }
  void backlogIs(U32 v) { backlog_ = v; }
  bool v6Only() const { return v6Only_; }
  void v6OnlyIs(bool v) { v6Only_ = v; }
  bool restartOnSetSockOptError() const { return restartOnSetSockOptError_; }
  void restartOnSetSockOptErrorIs(bool v) { restartOnSetSockOptError_ = v; }
  bool useBrioEventLoop() const { return useBrioEventLoop_; }
  void useBrioEventLoopIs(bool v) { useBrioEventLoop_ = v; }

  bool startListener();
  void stopListener();
  bool restartListener();
  void restartListenerDeferred();
  void cleanup() { stopListener(); }
  // One accepted connection with both ends; empty when accept failed.
  TcpConnSocket socketAccepted(TcpFileDescriptor const* serverFd);

  void handleInitialized() override;
  AddressFamily af() const override { return tcpServerConfig_ ? tcpServerConfig_->listenIpAddr().af() : AddressFamily::ipv4; }
  void handleTimeout() override;
  void handleRetry() override;
  Brio::String formatDerivedType() const override;
  int applySocketOptions(int sd, SdType sdType) override;
  void handleSocketOptions() override;
  void handleSocketMd5AuthOption(IpGenAddrWithMask const& a) override;
  void handleAccept();

 protected:
  ~TcpServerSm() override;

 private:
  friend Brio::Ptr<TcpServerSm> tcpServerSmFactory(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const&,
                                                   Brio::Ptr<Quay::TimerWheel> const&,
                                                   Brio::Ptr<TcpServerConfig const> const&,
                                                   Brio::Ptr<TcpServerStatus> const&);
  TcpServerSm(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
              Brio::Ptr<Quay::TimerWheel> const& timerWheel, Brio::Ptr<TcpServerConfig const> const& config,
              Brio::Ptr<TcpServerStatus> const& status);

  class FdReactor : public TcpFileDescriptorEventRegistration::Notifiee {
   public:
    explicit FdReactor(TcpServerSm* owner) : owner_(owner) {}
    void handleReadableCount() override { owner_->handleAccept(); }

   private:
    TcpServerSm* owner_;
  };

  void handleServerError(Brio::String const& functionName, Brio::String const& errorString);
  void restartRetryTimer();
  void fdDisable();

  Brio::Ptr<TcpServerConfig const> tcpServerConfig_;
  Brio::Ptr<TcpServerStatus> tcpServerStatus_;
  Brio::Ptr<TcpFileDescriptorEventRegistration> fd_;
  U32 backlog_ = 5;
  bool v6Only_ = true;
  bool restartOnSetSockOptError_ = true;
  bool useBrioEventLoop_ = false;
  FdReactor fdReactor_;
};

Brio::Ptr<TcpServerSm> tcpServerSmFactory(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
                                          Brio::Ptr<Quay::TimerWheel> const& timerWheel,
                                          Brio::Ptr<TcpServerConfig const> const& config,
                                          Brio::Ptr<TcpServerStatus> const& status);

// --- free functions --------------------------------------------------------------------

// Fills a sockaddr_in or sockaddr_in6 (port 0) and returns its length.
socklen_t constructSockAddr(sockaddr* sa, IpGenAddr const& addr);
// setsockopt with a 4-byte int; with `verify`, reads it back and asserts
// that the kernel kept it. Returns the setsockopt (or failed getsockopt) result.
int setSocketOptionInteger(int sd, int level, int name, int value, bool verify);
int setSockOptTxTtl(AddressFamily af, int sd, bool enabled, U8 txTtl);
int setSockOptTxDs(AddressFamily af, int sd, bool enabled, U8 txDs);
int setSockOptRxMinTtl(AddressFamily af, int sd, bool enabled, U8 rxMinTtl);
int setSockMd5AuthOption(int sd, IpGenAddrWithMask const& addrWithMask, Brio::String const& key);
int setSockOptMaxSegSize(AddressFamily af, int sd, U16 maxSegSize);
int setSockOptPathMtuDiscovery(AddressFamily af, int sd, bool enable);
int setSockOptDontRoute(AddressFamily af, int sd, bool enabled, U32 ifIndex);
int socketBind(int sd, IpGenAddr const& addr, Port port);
int socketBindClient(int sd, AddressFamily af, IpGenAddr const& addr, U32 ifIndex);
int socketConnect(int sd, IpGenAddr const& addr, Port port, U32 ifIndex);
TcpConnSocket socketConnected(Brio::Ptr<TcpFileDescriptor const> const& fd, IpGenAddr const& dstIpAddr, Port dstPort);

}  // namespace Corvid
