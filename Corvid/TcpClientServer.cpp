#include <Corvid/TcpClientServer.h>

#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace Corvid {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");

constexpr int levelError = 1;
constexpr int levelInfo = 5;
constexpr int levelDetail = 7;

// Reactor traces: function, line, then the reactor itself.
#define TCP_SM_TRACE(level, expr) GLIMMER_TRACE(tr, level, __func__ << ":" << __LINE__ << " " << this << expr)
#define TCP_FN_TRACE(level, expr) GLIMMER_TRACE(tr, level, __func__ << ":" << __LINE__ << " " << expr)

// Old kernels lack the prefix form of the MD5 option.
#ifndef TCP_MD5SIG_EXT
#define TCP_MD5SIG_EXT 32
#endif
#ifndef TCP_MD5SIG_FLAG_PREFIX
#define TCP_MD5SIG_FLAG_PREFIX 0x1
#endif
#ifndef IP_MINTTL
#define IP_MINTTL 21
#endif
#ifndef IPV6_MINHOPCOUNT
#define IPV6_MINHOPCOUNT 73
#endif

// The ECN bits of the TOS / traffic-class byte: on stream sockets the
// kernel keeps its own (RFC 3168) and ignores the caller's.
constexpr int ecnMask = 0x3;

// The "%*c" indent of the dump texts: `indent` spaces, nothing at 0.
std::string pad(int indent) { return indent > 0 ? std::string(static_cast<std::size_t>(indent), ' ') : ""; }

template <class... A>
std::string format(char const* fmt, A... a) {
  char buf[512];
  int n = std::snprintf(buf, sizeof buf, fmt, a...);
  if (n < 0) return "";
  if (static_cast<std::size_t>(n) < sizeof buf) return std::string(buf, static_cast<std::size_t>(n));
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), fmt, a...);
  big.resize(static_cast<std::size_t>(n));
  return big;
}

bool isV6(AddressFamily af) { return af == AddressFamily::ipv6; }
Brio::String errnoText(int e) { return Brio::String(std::strerror(e)); }

bool sockaddrToEnd(sockaddr_storage const& ss, IpGenAddr* addr, Port* port) {
  if (ss.ss_family == AF_INET) {
    auto const* sin = reinterpret_cast<sockaddr_in const*>(&ss);
    *addr = IpAddr::fromNetworkOrder(sin->sin_addr.s_addr);
    *port = Port(ntohs(sin->sin_port));
    return true;
  }
  if (ss.ss_family == AF_INET6) {
    auto const* sin6 = reinterpret_cast<sockaddr_in6 const*>(&ss);
    Ip6Addr a6;
    std::memcpy(const_cast<U8*>(a6.bytes()), &sin6->sin6_addr, 16);
    *addr = a6;
    *port = Port(ntohs(sin6->sin6_port));
    return true;
  }
  errno = EAFNOSUPPORT;
  return false;
}

// Local or peer end of a connected socket.
bool socketEnd(int sd, bool peer, IpGenAddr* addr, Port* port) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  int rc = peer ? ::getpeername(sd, reinterpret_cast<sockaddr*>(&ss), &len)
                : ::getsockname(sd, reinterpret_cast<sockaddr*>(&ss), &len);
  if (rc < 0) return false;
  return sockaddrToEnd(ss, addr, port);
}

// Both ends of a connected or accepted socket; empty when either is unknown.
TcpConnSocket connectedEnds(Brio::Ptr<TcpFileDescriptor const> const& fd, char const* what, U32 ifIndex) {
  int const sd = fd->descriptor();
  char const* afText = "af=ipv4";
  sockaddr_storage probe{};
  socklen_t probeLen = sizeof probe;
  if (::getsockname(sd, reinterpret_cast<sockaddr*>(&probe), &probeLen) == 0 && probe.ss_family == AF_INET6) {
    afText = "af=ipv6";
  }
  IpGenAddr src, dst;
  Port srcPort, dstPort;
  if (!socketEnd(sd, false, &src, &srcPort)) {
    int const e = errno;
    TCP_FN_TRACE(levelError, "getsockname error: " << afText << " errno=" << e);
    errno = e;
    return TcpConnSocket();
  }
  if (!socketEnd(sd, true, &dst, &dstPort)) {
    int const e = errno;
    TCP_FN_TRACE(levelError, "getpeername error: " << afText << " errno=" << e);
    errno = e;
    return TcpConnSocket();
  }
  TCP_FN_TRACE(levelInfo, what << ": fileDescriptor=" << sd << " addr=" << dst << " port=" << dstPort.value());
  return TcpConnSocket(fd, src, srcPort, dst, dstPort, ifIndex);
}

}  // namespace

// --- TcpSocketOptions ---------------------------------------------------------------------

namespace {
constexpr auto tcpSocketOptionsRecord = Brio::record<TcpSocketOptions>(
    "Corvid::TcpSocketOptions", Brio::field("optionTxTtl", &TcpSocketOptions::optionTxTtl),
    Brio::field("optionTxDs", &TcpSocketOptions::optionTxDs),
    Brio::field("optionRxMinTtl", &TcpSocketOptions::optionRxMinTtl),
    Brio::field("optionMd5Auth", &TcpSocketOptions::optionMd5Auth),
    Brio::field("optionSockMaxSegSize", &TcpSocketOptions::optionSockMaxSegSize),
    Brio::field("optionPathMtuDiscovery", &TcpSocketOptions::optionPathMtuDiscovery),
    Brio::field("optionDontRoute", &TcpSocketOptions::optionDontRoute));
}  // namespace

Brio::String valueToStrep(TcpSocketOptions const& v) { return tcpSocketOptionsRecord.strep(v); }

TcpSocketOptions sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TcpSocketOptions*) {
  return tcpSocketOptionsRecord.read(pos, end, [](bool a, bool b, bool c, bool d, bool e, bool f, bool g) {
    return TcpSocketOptions(static_cast<U8>(a | b << 1 | c << 2 | d << 3 | e << 4 | f << 5 | g << 6));
  });
}

std::ostream& operator<<(std::ostream& os, TcpSocketOptions const& v) { return os << valueToStrep(v).view(); }

Brio::String tcpOptionsToStrep(TcpSocketOptions options) {
  std::string out = "<";
  bool first = true;
  auto add = [&](bool set, char const* name) {
    if (!set) return;
    if (!first) out += ",";
    out += name;
    first = false;
  };
  add(options.optionTxTtl(), "optionTxTtl");
  add(options.optionTxDs(), "optionTxDs");
  add(options.optionRxMinTtl(), "optionRxMinTtl");
  add(options.optionMd5Auth(), "optionMd5Auth");
  out += ">";
  return Brio::String(std::move(out));
}

// --- TcpConnSocket ------------------------------------------------------------------------

namespace {
constexpr auto tcpConnSocketRecord = Brio::record<TcpConnSocket>(
    "Corvid::TcpConnSocket", Brio::field("fileDescriptor", [](TcpConnSocket const& s) { return S32(s.descriptor()); }),
    Brio::field("srcIpAddr", &TcpConnSocket::srcIpAddr), Brio::field("srcPort", &TcpConnSocket::srcPort),
    Brio::field("dstIpAddr", &TcpConnSocket::dstIpAddr), Brio::field("dstPort", &TcpConnSocket::dstPort),
    Brio::field("ifIndex", &TcpConnSocket::ifIndex));
}  // namespace

TcpConnSocket::TcpConnSocket(Brio::StringIter& pos, Brio::StringIter const& end) {
  *this = tcpConnSocketRecord.read(pos, end, [](S32, IpGenAddr src, Port sp, IpGenAddr dst, Port dp, U32 ifIndex) {
    return TcpConnSocket(nullptr, src, sp, dst, dp, ifIndex);
  });
}

Brio::String TcpConnSocket::toStrep() const {
  std::ostringstream os;
  os << srcIpAddr_ << " port " << srcPort_.value() << " -> " << dstIpAddr_ << " port " << dstPort_.value() << " fd "
     << descriptor();
  return Brio::String(os.str());
}

Brio::String valueToStrep(TcpConnSocket const& v) { return tcpConnSocketRecord.strep(v); }
TcpConnSocket sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TcpConnSocket*) {
  return TcpConnSocket(pos, end);
}
std::ostream& operator<<(std::ostream& os, TcpConnSocket const& v) { return os << valueToStrep(v).view(); }

// --- configuration and status -------------------------------------------------------------

Brio::String TcpConfigBase::md5Auth(IpGenAddrWithMask const& a) const {
  auto it = md5Auth_.find(a);
  return it == md5Auth_.end() ? Brio::String() : it->second;
}

void TcpConfigBase::dumpState(std::ostream& os, int indent) const {
  os << pad(indent)
     << format("retryInterval %u; timeout %f; options %s; txDs %s; txTtl %u; rxMinTtl %u\n", retryInterval_, timeout_,
               tcpOptionsToStrep(options_).c_str(), valueToStrep(txDs_).c_str(), unsigned(txTtl_.value()),
               unsigned(rxMinTtl_.value()));
  os << pad(indent) << format("md5Auth #%u\n", md5Auths());
  for (auto const& [addr, key] : md5Auth_) {
    os << pad(indent) << format("md5Auth( %s ) : %s\n", addr.stringValue().c_str(), key.c_str());
  }
}

void TcpServerConfig::dumpState(std::ostream& os, int indent) const {
  os << pad(indent)
     << format("networkNamespace %s listenIpAddr %s listenPort %u\n", networkNamespace().value().c_str(),
               listenIpAddr_.stringValue().c_str(), unsigned(listenPort_.value()));
  TcpConfigBase::dumpState(os, indent);
}

Brio::Ptr<TcpServerConfig> tcpServerConfigFactory(IpGenAddr const& listenIpAddr, Port listenPort) {
  return Brio::Ptr<TcpServerConfig>(new TcpServerConfig(listenIpAddr, listenPort));
}

Brio::Ptr<TcpClientConfig> tcpClientConfigFactory(IpGenAddr const& serverIpAddr, Port serverPort) {
  return Brio::Ptr<TcpClientConfig>(new TcpClientConfig(serverIpAddr, serverPort));
}

Brio::Ptr<TcpClientStatus> tcpClientStatusFactory() { return Brio::Ptr<TcpClientStatus>(new TcpClientStatus); }
Brio::Ptr<TcpServerStatus> tcpServerStatusFactory() { return Brio::Ptr<TcpServerStatus>(new TcpServerStatus); }

void TcpServerStatus::connSocketEnq(TcpConnSocket const& v) {
  U32 const index = nextIndex_++;
  collectionIs(connSocket_, index, v, &Notifiee::handleConnSocket);
}

void TcpServerStatus::connSocketDeq() {
  if (!connSocket_.empty()) connSocketDel(connSocket_.begin()->first);
}

TcpConnSocket TcpServerStatus::connSocketFront() const {
  return connSocket_.empty() ? TcpConnSocket() : connSocket_.begin()->second;
}

TcpConnSocket TcpServerStatus::connSocketBack() const {
  return connSocket_.empty() ? TcpConnSocket() : connSocket_.rbegin()->second;
}

TcpConnSocket TcpServerStatus::connSocket(U32 index) const {
  auto it = connSocket_.find(index);
  return it == connSocket_.end() ? TcpConnSocket() : it->second;
}

void TcpServerStatus::connSocketIs(U32 index, TcpConnSocket const& v) {
  collectionIs(connSocket_, index, v, &Notifiee::handleConnSocket);
  if (index >= nextIndex_) nextIndex_ = index + 1;
}

void TcpServerStatus::connSocketDel(U32 index) { collectionDel(connSocket_, index, &Notifiee::handleConnSocket); }
void TcpServerStatus::connSocketDelAll() { collectionDelAll(connSocket_, &Notifiee::handleConnSocket); }

TcpConnSocket TcpServerStatus::getConnSocket() {
  TcpConnSocket front = connSocketFront();
  connSocketDeq();
  return front;
}

void TcpServerStatus::dumpState(std::ostream& os, int indent) const {
  os << pad(indent) << "TcpServerStatus\n";
  os << pad(indent)
     << format("listening %s; reason %s; startTimes %u; timedOutTimes %u; connSocketCount %u; eagainEintrTimes %u\n",
               listening_ ? "yes" : "no", reason_.c_str(), serverStartTimes_, serverTimedOutTimes_, connSocketCount_,
               serverEagainEintrTimes_);
}

// --- free functions -------------------------------------------------------------------------

socklen_t constructSockAddr(sockaddr* sa, IpGenAddr const& addr) {
  if (addr.isV4()) {
    auto* sin = reinterpret_cast<sockaddr_in*>(sa);
    std::memset(sin, 0, sizeof *sin);
    sin->sin_family = AF_INET;
    sin->sin_addr.s_addr = addr.v4Addr().networkOrder();
    return sizeof *sin;
  }
  if (!addr.isV6()) FENNEL_ASSERT(0 && "Unexpected af");
  auto* sin6 = reinterpret_cast<sockaddr_in6*>(sa);
  std::memset(sin6, 0, sizeof *sin6);
  sin6->sin6_family = AF_INET6;
  std::memcpy(&sin6->sin6_addr, addr.bytes(), 16);
  return sizeof *sin6;
}

int setSocketOptionInteger(int sd, int level, int name, int value, bool verify) {
  int rc = ::setsockopt(sd, level, name, &value, sizeof value);
  TCP_FN_TRACE(levelDetail, "sd=" << sd << " level=" << level << " name=" << name << " value=" << value
                                  << " verify=" << verify << " rc=" << rc);
  if (rc != 0 || !verify) return rc;
  int verificationValue = 0;
  socklen_t valueLength = sizeof verificationValue;
  rc = ::getsockopt(sd, level, name, &verificationValue, &valueLength);
  if (rc != 0) return rc;
  FENNEL_ASSERT(valueLength == sizeof( verificationValue ));
  FENNEL_ASSERT(value == verificationValue);
  return rc;
}

namespace {
// Read-back of an option the kernel stores in another form than it was
// given; `same` says whether the stored form matches.
template <class Same>
int verifyInteger(int sd, int level, int name, int value, Same same) {
  int verificationValue = 0;
  socklen_t valueLength = sizeof verificationValue;
  int rc = ::getsockopt(sd, level, name, &verificationValue, &valueLength);
  if (rc != 0) return rc;
  FENNEL_ASSERT(valueLength == sizeof( verificationValue ));
  FENNEL_ASSERT(same(value, verificationValue));
  return 0;
}
}  // namespace

int setSockOptTxTtl(AddressFamily af, int sd, bool enabled, U8 txTtl) {
  int const value = enabled ? txTtl : -1;
  TCP_FN_TRACE(levelInfo, "Set TxTtl: af=" << af << " sd=" << sd << " enabled=" << enabled << " txTtl=" << value);
  return isV6(af) ? setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, value, enabled)
                  : setSocketOptionInteger(sd, IPPROTO_IP, IP_TTL, value, enabled);
}

int setSockOptTxDs(AddressFamily af, int sd, bool enabled, U8 txDs) {
  int const value = enabled ? txDs : 0;
  TCP_FN_TRACE(levelInfo, "Set TxDs: af=" << af << " sd=" << sd << " enabled=" << enabled << " txDs=" << value);
  int const level = isV6(af) ? IPPROTO_IPV6 : IPPROTO_IP;
  int const name = isV6(af) ? IPV6_TCLASS : IP_TOS;
  int rc = setSocketOptionInteger(sd, level, name, value, false);
  if (rc != 0 || !enabled) return rc;
  // The value goes in as given, but on a TCP socket the kernel replaces the
  // two ECN bits with its own, so only the other six are compared.
  return verifyInteger(sd, level, name, value,
                       [](int set, int got) { return (set & ~ecnMask) == (got & ~ecnMask); });
}

int setSockOptRxMinTtl(AddressFamily af, int sd, bool enabled, U8 rxMinTtl) {
  int const value = enabled ? rxMinTtl : 0;
  TCP_FN_TRACE(levelInfo, "Set RxMinTtl: af=" << af << " sd=" << sd << " enabled=" << enabled
                                              << " rxMinTtl=" << value);
  return isV6(af) ? setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_MINHOPCOUNT, value, enabled)
                  : setSocketOptionInteger(sd, IPPROTO_IP, IP_MINTTL, value, enabled);
}

int setSockMd5AuthOption(int sd, IpGenAddrWithMask const& addrWithMask, Brio::String const& md5AuthOptionKey) {
  FENNEL_ASSERT(!md5AuthOptionKey.empty());
  Brio::String const& key = md5AuthOptionKey;
  FENNEL_ASSERT(key.bytes() < 80);
  tcp_md5sig sig{};
  U32 const fullLength = addrWithMask.af() == AddressFamily::ipv6 ? 128 : 32;
  bool const prefix = addrWithMask.len() < fullLength;
  IpGenAddr peer = addrWithMask.address();
  // The kernel matches prefix keys on the masked address; masking here too
  // keeps an entry written with host bits set ("10.1.1.7/24") covering the
  // whole prefix whatever the kernel version.
  if (prefix) peer = addrWithMask.subnet().address();
  constructSockAddr(reinterpret_cast<sockaddr*>(&sig.tcpm_addr), peer);
  sig.tcpm_keylen = static_cast<U16>(key.bytes());
  std::memcpy(sig.tcpm_key, key.data(), key.bytes());
  int name = TCP_MD5SIG;
  if (prefix) {
    name = TCP_MD5SIG_EXT;
    sig.tcpm_flags = TCP_MD5SIG_FLAG_PREFIX;
    sig.tcpm_prefixlen = static_cast<U8>(addrWithMask.len());
  }
  TCP_FN_TRACE(levelInfo, "Set Md5Auth: sd=" << sd << " addr=" << addrWithMask << " key " << key.view());
  return ::setsockopt(sd, IPPROTO_TCP, name, &sig, sizeof sig);
}

int setSockOptMaxSegSize(AddressFamily af, int sd, U16 maxSegSize) {
  TCP_FN_TRACE(levelInfo, "Set Maximum Segment Size: af=" << af << " sd=" << sd << " maxSegSize=" << maxSegSize);
  return setSocketOptionInteger(sd, IPPROTO_TCP, TCP_MAXSEG, maxSegSize, false);
}

int setSockOptPathMtuDiscovery(AddressFamily af, int sd, bool enable) {
  TCP_FN_TRACE(levelInfo, "Set path MTU discovery af=" << af << " sd=" << sd << " enable=" << enable);
  int const value = enable ? IP_PMTUDISC_DO : IP_PMTUDISC_DONT;
  return isV6(af) ? setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_MTU_DISCOVER, value, false)
                  : setSocketOptionInteger(sd, IPPROTO_IP, IP_MTU_DISCOVER, value, false);
}

int setSockOptDontRoute(AddressFamily af, int sd, bool enabled, U32 ifIndex) {
  int const dontRoute = enabled ? static_cast<int>(htonl(ifIndex)) : 0;
  TCP_FN_TRACE(levelInfo, "set socket option dontRoute af=" << af << " sd=" << sd << " dontRoute=" << dontRoute
                                                            << " dstIntfIfIndex=" << ifIndex);
  if (isV6(af)) return setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_UNICAST_IF, dontRoute, true);
  // The pairing is kept: IPv4 sets SO_DONTROUTE to the network-order index
  // (any non-zero value switches it on). The kernel keeps only a flag and
  // reads back 1, so the read-back compares on/off, not the number.
  int rc = setSocketOptionInteger(sd, SOL_SOCKET, SO_DONTROUTE, dontRoute, false);
  if (rc != 0) return rc;
  return verifyInteger(sd, SOL_SOCKET, SO_DONTROUTE, dontRoute,
                       [](int set, int got) { return (set != 0) == (got != 0); });
}

int socketBind(int sd, IpGenAddr const& addr, Port port) {
  TCP_FN_TRACE(levelInfo, "Bind: sd=" << sd << " addr=" << addr << " port=" << port.value());
  sockaddr_storage ss{};
  socklen_t len = constructSockAddr(reinterpret_cast<sockaddr*>(&ss), addr);
  if (addr.isV4()) {
    reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons(port.value());
  } else {
    reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port = htons(port.value());
  }
  int rc = ::bind(sd, reinterpret_cast<sockaddr*>(&ss), len);
  TCP_FN_TRACE(levelDetail, "rc=" << rc);
  return rc;
}

int socketBindClient(int sd, AddressFamily af, IpGenAddr const& addr, U32 ifIndex) {
  if (af != AddressFamily::ipv4 && af != AddressFamily::ipv6) FENNEL_ASSERT(0 && "Unknown af");
  TCP_FN_TRACE(levelInfo, "Bind: sd=" << sd << " af=" << af << " addr=" << addr << " ifIndex=" << ifIndex);
  sockaddr_storage ss{};
  socklen_t len = constructSockAddr(reinterpret_cast<sockaddr*>(&ss), addr);
  if (af == AddressFamily::ipv6) reinterpret_cast<sockaddr_in6*>(&ss)->sin6_scope_id = ifIndex;
  return ::bind(sd, reinterpret_cast<sockaddr*>(&ss), len);
}

int socketConnect(int sd, IpGenAddr const& addr, Port port, U32 ifIndex) {
  TCP_FN_TRACE(levelInfo, "Connect: sd=" << sd << " addr=" << addr << " port=" << port.value()
                                         << " ifIndex=" << ifIndex);
  sockaddr_storage ss{};
  socklen_t len = constructSockAddr(reinterpret_cast<sockaddr*>(&ss), addr);
  if (addr.isV4()) {
    reinterpret_cast<sockaddr_in*>(&ss)->sin_port = htons(port.value());
  } else {
    auto* sin6 = reinterpret_cast<sockaddr_in6*>(&ss);
    sin6->sin6_port = htons(port.value());
    sin6->sin6_scope_id = ifIndex;
  }
  return ::connect(sd, reinterpret_cast<sockaddr*>(&ss), len);
}

TcpConnSocket socketConnected(Brio::Ptr<TcpFileDescriptor const> const& fd, IpGenAddr const& dstIpAddr,
                              Port dstPort) {
  (void)dstIpAddr;
  (void)dstPort;  // the kernel's view of the peer is what is reported
  return connectedEnds(fd, "Connected", 0);
}

// --- TcpSmBase ---------------------------------------------------------------------------

TcpSmBase::TcpSmBase(Brio::String name,
                     Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdEventRegistrationFactory,
                     Brio::Ptr<Quay::TimerWheel> const& timerWheel, Brio::Ptr<TcpConfigBase const> const& tcpConfig)
    : Entity(std::move(name)), tcpConfig_(tcpConfig), fdEventRegistrationFactory_(fdEventRegistrationFactory),
      retryTimer_(timerWheel, [this] { handleRetry(); }), timeoutTimer_(timerWheel, [this] { handleTimeout(); }),
      configReactor_(this) {
  configReactor_.notifierIs(tcpConfig_);
}

std::ostream& operator<<(std::ostream& os, TcpSmBase const* sm) {
  return os << (sm ? sm->formatDerivedType().view() : std::string_view("(null)"));
}

namespace {
// Defaults of a configuration, for reactors that have none.
struct ConfigDefaults : TcpConfigBase {
  ConfigDefaults() : TcpConfigBase("defaults") {}
};
TcpConfigBase const& configDefaults() {
  static Brio::Ptr<ConfigDefaults> const defaults(new ConfigDefaults);
  return *defaults;
}
}  // namespace

#define TCP_CONFIG_READ(Type, name) \
  Type TcpSmBase::name() const { return tcpConfig_ ? tcpConfig_->name() : configDefaults().name(); }
TCP_CONFIG_READ(NamespaceName, networkNamespace)
TCP_CONFIG_READ(U32, retryInterval)
TCP_CONFIG_READ(F64, timeout)
TCP_CONFIG_READ(TcpSocketOptions, options)
TCP_CONFIG_READ(IpTtl, txTtl)
TCP_CONFIG_READ(IpDscp, txDs)
TCP_CONFIG_READ(IpTtl, rxMinTtl)
TCP_CONFIG_READ(U16, sockMaxSegSize)
TCP_CONFIG_READ(bool, pathMtuDiscovery)
TCP_CONFIG_READ(U32, dstIntfIfIndex)
#undef TCP_CONFIG_READ

bool TcpSmBase::md5AuthHas(IpGenAddrWithMask const& a) const { return tcpConfig_ && tcpConfig_->md5AuthHas(a); }
Brio::String TcpSmBase::md5Auth(IpGenAddrWithMask const& a) const {
  return tcpConfig_ ? tcpConfig_->md5Auth(a) : Brio::String();
}

void TcpSmBase::handleInitialized() { FENNEL_ASSERT(0 && "Need to implement handleInitialized in derived class"); }
AddressFamily TcpSmBase::af() const {
  FENNEL_ASSERT(0 && "must be implemented by derived type");
  return AddressFamily::ipunknown;
}
void TcpSmBase::startTimeoutTimerImpl() { timeoutTimer_.expiryIs(Brio::now() + timeout()); }
void TcpSmBase::stopTimeoutTimerImpl() { timeoutTimer_.cancel(); }
void TcpSmBase::handleTimeout() { FENNEL_ASSERT(0 && "Need to implement handleTimeout in derived class"); }
void TcpSmBase::restartRetryTimerImpl(U32 seconds) { retryTimer_.expiryIs(Brio::now() + seconds); }
void TcpSmBase::stopRetryTimerImpl() { retryTimer_.cancel(); }
void TcpSmBase::handleRetry() { FENNEL_ASSERT(0 && "Need to implement handleRetry in derived class"); }
void TcpSmBase::handleSocketOptions() { FENNEL_ASSERT(0 && "Need to implement in derived class"); }
void TcpSmBase::handleSocketMd5AuthOption(IpGenAddrWithMask const&) {
  FENNEL_ASSERT(0 && "Need to implement in derived class");
}

int TcpSmBase::applySocketOptions(int sd, SdType sdType) {
  bool const modifyingSmFd = sdType != SdType::sdAccepted_;
  bool const md5AuthUpdateAllowed = sdType == SdType::sdListening_ || sdType == SdType::sdConnecting_;
  TCP_SM_TRACE(levelInfo, " sd=" << sd << " sdType=" << sdType << " modifyingSmFd=" << modifyingSmFd
                                 << " md5AuthUpdateAllowed=" << md5AuthUpdateAllowed);
  TcpSocketOptions const opts = options();
  TcpSocketOptions const last = lastOptionsApplied_;
  AddressFamily const family = af();
  auto wanted = [&](U8 bit) { return opts.has(bit) || (modifyingSmFd && last.has(bit)); };
  auto failed = [&](int rc, char const* what) {
    int const e = errno;
    TCP_SM_TRACE(levelError, what << family << " sd=" << sd << " " << std::strerror(e));
    errno = e;
    return rc;
  };
  int rc = 0;
  if (wanted(TcpSocketOptions::txTtlBit)) {
    rc = setSockOptTxTtl(family, sd, opts.optionTxTtl(), txTtl().value());
    if (rc) return failed(rc, "TxTtl error: af=");
  }
  if (wanted(TcpSocketOptions::txDsBit)) {
    rc = setSockOptTxDs(family, sd, opts.optionTxDs(), txDs().value());
    if (rc) return failed(rc, "TxDs error: af=");
  }
  if (wanted(TcpSocketOptions::rxMinTtlBit)) {
    rc = setSockOptRxMinTtl(family, sd, opts.optionRxMinTtl(), rxMinTtl().value());
    if (rc) return failed(rc, "RxMinTtl error: af=");
  }
  if (wanted(TcpSocketOptions::md5AuthBit) && md5AuthUpdateAllowed && tcpConfig_) {
    for (auto const& [addr, key] : tcpConfig_->md5AuthAll()) {
      rc = setSockMd5AuthOption(sd, addr, key);
      if (rc) return failed(rc, "Md5Auth error: ");
    }
  }
  if (wanted(TcpSocketOptions::sockMaxSegSizeBit) &&
      (sdType == SdType::sdListening_ || sdType == SdType::sdConnecting_)) {
    rc = setSockOptMaxSegSize(family, sd, sockMaxSegSize());
    if (rc) return failed(rc, "MSS error: af=");
  }
  if (wanted(TcpSocketOptions::pathMtuDiscoveryBit)) {
    rc = setSockOptPathMtuDiscovery(family, sd, pathMtuDiscovery());
    if (rc) return failed(rc, "Path MTU discovery error: af=");
  }
  if (wanted(TcpSocketOptions::dontRouteBit)) {
    rc = setSockOptDontRoute(family, sd, opts.optionDontRoute(), dstIntfIfIndex());
    if (rc) return failed(rc, "error: af=");
  }
  if (modifyingSmFd) lastOptionsApplied_ = opts;
  return 0;
}

// --- TcpClientSm --------------------------------------------------------------------------

TcpClientSm::TcpClientSm(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
                         Brio::Ptr<Quay::TimerWheel> const& timerWheel, U32 clientId,
                         Brio::Ptr<TcpClientConfig const> const& config, Brio::Ptr<TcpClientStatus> const& status)
    : TcpSmBase("TcpClientSm", factory, timerWheel, config), clientId_(clientId), tcpClientConfig_(config),
      tcpClientStatus_(status), fdReactor_(this) {}

TcpClientSm::~TcpClientSm() { cleanup(); }

Brio::Ptr<TcpClientSm> tcpClientSmFactory(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
                                          Brio::Ptr<Quay::TimerWheel> const& timerWheel, U32 clientId,
                                          Brio::Ptr<TcpClientConfig const> const& config,
                                          Brio::Ptr<TcpClientStatus> const& status) {
  Brio::Ptr<TcpClientSm> sm(new TcpClientSm(factory, timerWheel, clientId, config, status));
  sm->handleInitialized();
  return sm;
}

Brio::String TcpClientSm::formatDerivedType() const {
  std::ostringstream os;
  os << "TcpClientSm(" << clientId_;
  if (tcpClientConfig_) os << " " << tcpClientConfig_->serverIpAddr() << ":" << tcpClientConfig_->serverPort().value();
  os << ")";
  return Brio::String(os.str());
}

void TcpClientSm::handleInitialized() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  initializedIs(true);
  tcpClientStatus_->resetConnSocket();
  tcpClientStatus_->connectionStatusIs(TcpClientStatus::ConnectionStatus::idle_);
  lastOptionsAppliedIs(TcpSocketOptions());
}

void TcpClientSm::fdDisable() {
  fd_->enabledIs(false);
  fdReactor_.notifierIs(nullptr);
  fd_ = nullptr;
}

int TcpClientSm::getClientSocket() const { return tcpClientStatus_->connSocket().descriptor(); }

bool TcpClientSm::startConnection() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  using Status = TcpClientStatus::ConnectionStatus;
  if (fd_) {
    TCP_SM_TRACE(levelInfo, " Disabling fd from previous connection attempt");
    fdDisable();
    lastOptionsAppliedIs(TcpSocketOptions());
  }
  tcpClientStatus_->connectionAttemptCountInc();
  if (timeout() != 0 && timeoutTimerExpireTime() == Brio::never) startTimeoutTimer();

  auto const& config = *tcpClientConfig_;
  bool const edge = config.edgeTriggeredFileDescriptor();
  Brio::Ptr<TcpFileDescriptor> sock = TcpFileDescriptor::socket(af(), networkNamespace(), edge);
  if (!sock) {
    handleClientError("Socket", errnoText(errno));
    restartRetryTimer();
    return false;
  }
  int const sd = sock->descriptor();
  IpGenAddr const clientIpAddr = config.clientIpAddr();
  if (clientIpAddr.af() != AddressFamily::ipunknown && clientIpAddr != IpGenAddr(clientIpAddr.af())) {
    if (setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, true) != 0) {
      handleClientError("Setsockopt", errnoText(errno));
      restartRetryTimer();
      return false;
    }
    if (socketBindClient(sd, af(), clientIpAddr, config.ifIndex()) != 0) {
      handleClientError("Bind", errnoText(errno));
      restartRetryTimer();
      return false;
    }
  }
  if (applySocketOptions(sd, SdType::sdConnecting_) != 0) {
    handleClientError("Setsockopt", errnoText(errno));
    restartRetryTimer();
    return false;
  }
  fd_ = fdEventRegistrationFactory()->createEventRegistration(sock, false);
  fdReactor_.notifierIs(fd_);
  fd_->notifyOnWritableIs(true);
  fd_->enabledIs(true);

  if (socketConnect(sd, config.serverIpAddr(), config.serverPort(), config.ifIndex()) >= 0) return true;
  int const connError = errno;
  if (connError == EINPROGRESS) {
    FENNEL_ASSERT(connError == EINPROGRESS);
    TCP_SM_TRACE(levelInfo, " Connection is in progress");
    tcpClientStatus_->connectionStatusIs(Status::connecting_);
    restartRetryTimer();
    return true;
  }
  handleClientError("Connect", errnoText(connError));
  restartRetryTimer();
  return false;
}

void TcpClientSm::handleConnect() {
  if (!initialized() || !fd_) return;
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  int const sd = fd_->fileDescriptor()->descriptor();
  int error = 0;
  socklen_t len = sizeof error;
  if (::getsockopt(sd, SOL_SOCKET, SO_ERROR, &error, &len) != 0) {
    handleClientError("Getsockopt", errnoText(errno));
    restartRetryTimer();
    return;
  }
  if (error != 0) {
    handleClientError("Connect", errnoText(error));
    restartRetryTimer();
    return;
  }
  auto const& config = *tcpClientConfig_;
  TcpConnSocket conn = socketConnected(fd_->fileDescriptor(), config.serverIpAddr(), config.serverPort());
  if (!conn) {
    handleClientError("Getsockname", errnoText(errno));
    restartRetryTimer();
    return;
  }
  conn = TcpConnSocket(conn.fileDescriptor(), conn.srcIpAddr(), conn.srcPort(), conn.dstIpAddr(), conn.dstPort(),
                       config.ifIndex());
  stopRetryTimerImpl();
  stopTimeoutTimer();
  fdDisable();
  tcpClientStatus_->connSocketIs(conn);
  tcpClientStatus_->connectionSuccessCountInc();
  tcpClientStatus_->connectionStatusIs(TcpClientStatus::ConnectionStatus::connected_);
}

bool TcpClientSm::connectionConfirmed(Brio::Ptr<TcpFileDescriptor const> const& fd, IpGenAddr const& dstIpAddr,
                                      Port srcPort, Port dstPort) {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  stopConnection();
  auto const& config = *tcpClientConfig_;
  tcpClientStatus_->connSocketIs(
      TcpConnSocket(fd, config.clientIpAddr(), srcPort, dstIpAddr, dstPort, config.ifIndex()));
  tcpClientStatus_->connectionStatusIs(TcpClientStatus::ConnectionStatus::connected_);
  int const sd = fd ? fd->descriptor() : -1;
  if (applySocketOptions(sd, SdType::sdEstablished_) != 0) {
    handleClientError("Setsockopt", errnoText(errno));
    tcpClientStatus_->resetConnSocket();
    restartRetryTimer();
    return false;
  }
  if (af() == AddressFamily::ipv4 && options().optionDontRoute()) {
    // The interface binding goes in with the DSCP cleared and the DSCP is
    // put back afterwards, in that order.
    if (setSockOptTxDs(af(), sd, false, 0) != 0) {
      TCP_SM_TRACE(levelError, "TxDs error: af=" << af() << " sd=" << sd << " " << std::strerror(errno));
    }
    if (setSockOptDontRoute(af(), sd, true, dstIntfIfIndex()) != 0) {
      TCP_SM_TRACE(levelError, "error: af=" << af() << " sd=" << sd << " " << std::strerror(errno));
    }
    if (setSockOptTxDs(af(), sd, options().optionTxDs(), txDs().value()) != 0) {
      TCP_SM_TRACE(levelError, "TxDs error: af=" << af() << " sd=" << sd << " " << std::strerror(errno));
    }
  }
  return true;
}

void TcpClientSm::handleClientError(Brio::String const& functionName, Brio::String const& errorString) {
  Brio::String const reason = functionName + " (" + errorString + ")";
  TCP_SM_TRACE(levelError, " " << reason.view());
  tcpClientStatus_->reasonIs(reason);
  if (fd_) {
    TCP_SM_TRACE(levelInfo, " Disabling fd");
    fdDisable();
  }
  tcpClientStatus_->resetConnSocket();
  tcpClientStatus_->connectionErrorCountInc();
  tcpClientStatus_->connectionStatusIs(TcpClientStatus::ConnectionStatus::failed_);
  lastOptionsAppliedIs(TcpSocketOptions());
}

void TcpClientSm::restartRetryTimer() {
  using Status = TcpClientStatus::ConnectionStatus;
  U32 interval = retryInterval();
  switch (tcpClientStatus_->connectionStatus()) {
    case Status::idle_:
      break;
    case Status::failed_: {
      U32 const backoff = tcpClientConfig_->exponentialBackoffRetries();
      // Deliberate: the shift restarts after `backoff` retries (1, 2, 4, 8,
      // 1, 2, ... with 4), so a peer that was down long is retried often
      // again instead of at an ever longer interval.
      if (backoff != 0) interval = interval << ((retryTimes() % backoff) % 32);
      break;
    }
    case Status::connecting_:
      // The retry timer doubles as the connect timeout.
      interval = tcpClientConfig_->kernelTcpTimeout();
      break;
    default:
      FENNEL_ASSERT(tcpClientStatus()->connectionStatus() == TcpClientStatus::ConnectionStatus::connecting_);
  }
  restartRetryTimerImpl(interval);
  tcpClientStatus_->retryTimerIntervalIs(interval);
  tcpClientStatus_->retryTimerNextIs(retryTimerExpireTime());
  TCP_SM_TRACE(levelInfo, " interval=" << interval << " next=" << retryTimerExpireTime());
}

void TcpClientSm::handleRetry() {
  if (!initialized()) return;
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  retryTimesInc();
  startConnection();
}

void TcpClientSm::handleTimeout() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  stopConnection();
  tcpClientStatus_->connectionStatusIs(TcpClientStatus::ConnectionStatus::timedout_);
}

void TcpClientSm::stopConnection() {
  if (!initialized()) return;
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  stopRetryTimerImpl();
  stopTimeoutTimer();
  tcpClientStatus_->connectionStatusIs(TcpClientStatus::ConnectionStatus::idle_);
  tcpClientStatus_->resetConnSocket();
  if (fd_) {
    TCP_SM_TRACE(levelInfo, " Disabling fd");
    fdDisable();
  }
}

void TcpClientSm::handleSocketOptions() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  // Only a live connection has options to change: without one there is no
  // socket, and the next attempt applies the configuration anyway.
  if (!initialized() || getClientSocket() < 0) return;
  if (applySocketOptions(getClientSocket(), SdType::sdEstablished_) != 0) {
    handleClientError("Setsockopt", errnoText(errno));
    restartRetryTimer();
  }
}

void TcpClientSm::handleSocketMd5AuthOption(IpGenAddrWithMask const& a) {
  TCP_SM_TRACE(levelInfo, " " << a << " Ignoring MD5 change, will be applied at start of new connection");
}

// --- TcpServerSm --------------------------------------------------------------------------

TcpServerSm::TcpServerSm(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
                         Brio::Ptr<Quay::TimerWheel> const& timerWheel, Brio::Ptr<TcpServerConfig const> const& config,
                         Brio::Ptr<TcpServerStatus> const& status)
    : TcpSmBase("TcpServerSm", factory, timerWheel, config), tcpServerConfig_(config), tcpServerStatus_(status),
      fdReactor_(this) {}

TcpServerSm::~TcpServerSm() { cleanup(); }

Brio::Ptr<TcpServerSm> tcpServerSmFactory(Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& factory,
                                          Brio::Ptr<Quay::TimerWheel> const& timerWheel,
                                          Brio::Ptr<TcpServerConfig const> const& config,
                                          Brio::Ptr<TcpServerStatus> const& status) {
  Brio::Ptr<TcpServerSm> sm(new TcpServerSm(factory, timerWheel, config, status));
  sm->handleInitialized();
  return sm;
}

Brio::String TcpServerSm::formatDerivedType() const {
  std::ostringstream os;
  os << "TcpServerSm(";
  if (tcpServerConfig_) os << tcpServerConfig_->listenIpAddr() << ":" << tcpServerConfig_->listenPort().value();
  os << ")";
  return Brio::String(os.str());
}

void TcpServerSm::handleInitialized() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  initializedIs(true);
  tcpServerStatus_->reasonIs("Not started");
  tcpServerStatus_->listeningIs(false);
}

int TcpServerSm::applySocketOptions(int sd, SdType sdType) { return TcpSmBase::applySocketOptions(sd, sdType); }

void TcpServerSm::fdDisable() {
  fd_->enabledIs(false);
  fdReactor_.notifierIs(nullptr);
  fd_ = nullptr;
}

bool TcpServerSm::startListener() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  if (!tcpServerConfig_ || tcpServerConfig_->listenPort().value() == 0) {
    tcpServerStatus_->reasonIs("Listening port is 0");
    return false;
  }
  if (fd_) {
    TCP_SM_TRACE(levelInfo, " Already listening");
    tcpServerStatus_->reasonIs("Listening");
    return true;
  }
  tcpServerStatus_->serverStartTimesInc();
  if (timeout() != 0 && timeoutTimerExpireTime() == Brio::never) startTimeoutTimer();

  auto fail = [&](char const* functionName) {
    handleServerError(functionName, errnoText(errno));
    restartRetryTimer();
    return false;
  };
  Brio::Ptr<TcpFileDescriptor> sock = TcpFileDescriptor::socket(af(), networkNamespace(), false);
  if (!sock) return fail("Socket");
  int const sd = sock->descriptor();
  if (setSocketOptionInteger(sd, SOL_SOCKET, SO_REUSEADDR, 1, true) != 0) return fail("Setsockopt(REUSE)");
  if (applySocketOptions(sd, SdType::sdListening_) != 0) return fail("Setsockopt");
  if (af() == AddressFamily::ipv6 && setSocketOptionInteger(sd, IPPROTO_IPV6, IPV6_V6ONLY, v6Only_, true) != 0) {
    // "V6OONLY" is kept as it stands: monitoring matches this text.
    return fail("Setsockopt(V6OONLY)");
  }
  if (socketBind(sd, tcpServerConfig_->listenIpAddr(), tcpServerConfig_->listenPort()) != 0) return fail("Bind");

  fd_ = fdEventRegistrationFactory()->createEventRegistration(sock, false);
  fdReactor_.notifierIs(fd_);
  fd_->notifyOnReadableIs(true);
  fd_->enabledIs(true);
  TCP_SM_TRACE(levelInfo, " Listening");
  if (::listen(sd, static_cast<int>(backlog_)) != 0) {
    // Not expected after a successful bind; handled like the other calls so
    // that the listener is retried rather than left deaf.
    return fail("Listen");
  }
  tcpServerStatus_->listeningIs(true);
  tcpServerStatus_->reasonIs("Listening");
  return true;
}

void TcpServerSm::restartRetryTimer() {
  U32 const interval = tcpServerConfig_ ? retryInterval() : 0;
  restartRetryTimerImpl(interval);
}

void TcpServerSm::handleServerError(Brio::String const& functionName, Brio::String const& errorString) {
  Brio::String const reason = functionName + " (" + errorString + ")";
  TCP_SM_TRACE(levelError, " " << reason.view());
  tcpServerStatus_->reasonIs(reason);
  if (fd_) {
    TCP_SM_TRACE(levelInfo, " Disabling fd");
    fdDisable();
  }
}

void TcpServerSm::stopListener() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  stopRetryTimerImpl();
  stopTimeoutTimer();
  tcpServerStatus_->listeningIs(false);
  if (fd_) {
    TCP_SM_TRACE(levelInfo, " Disabling fd");
    fdDisable();
  }
}

bool TcpServerSm::restartListener() {
  stopListener();
  return startListener();
}

void TcpServerSm::restartListenerDeferred() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  stopListener();
  restartRetryTimerImpl(0);
}

void TcpServerSm::handleRetry() {
  if (!initialized()) return;
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  retryTimesInc();
  startListener();
}

void TcpServerSm::handleTimeout() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  stopListener();
  tcpServerStatus_->serverTimedOutTimesInc();
}

TcpConnSocket TcpServerSm::socketAccepted(TcpFileDescriptor const* serverFd) {
  sockaddr_storage peer{};
  Brio::Ptr<TcpFileDescriptor const> sock =
      TcpFileDescriptor::socketAccept(serverFd, af(), networkNamespace(),
                                      tcpServerConfig_ && tcpServerConfig_->edgeTriggeredFileDescriptor(), &peer);
  if (!sock) return TcpConnSocket();
  IpGenAddr dst;
  Port dstPort;
  if (!sockaddrToEnd(peer, &dst, &dstPort)) return TcpConnSocket(sock);
  // The local end is the listener's own address unless it listens on the
  // wildcard: one getsockname less per connection then.
  IpGenAddr src = tcpServerConfig_->listenIpAddr();
  Port srcPort = tcpServerConfig_->listenPort();
  if (src == IpGenAddr(src.af()) || dst.af() != src.af()) {
    if (!socketEnd(sock->descriptor(), false, &src, &srcPort)) {
      TCP_FN_TRACE(levelError, "getsockname error: af=" << af() << " errno=" << errno);
      return TcpConnSocket(sock);
    }
  }
  TCP_FN_TRACE(levelInfo, "Accepted: fileDescriptor=" << sock->descriptor() << " addr=" << dst
                                                      << " port=" << dstPort.value());
  // A connection reset between accept and the owner's first read still
  // counts as accepted: the owner sees the failure at that read.
  return TcpConnSocket(sock, src, srcPort, dst, dstPort, 0);
}

void TcpServerSm::handleAccept() {
  if (!initialized() || !tcpServerStatus_->listening() || !fd_) return;
  TCP_SM_TRACE(levelDetail, " " << __PRETTY_FUNCTION__);
  TcpConnSocket conn = socketAccepted(fd_->fileDescriptor().ptr());
  if (!conn) {
    int const e = errno;
    if (e == EAGAIN || e == EINTR) {
      tcpServerStatus_->serverEagainEintrTimesInc();
      return;
    }
    handleServerError("Accept", errnoText(e));
    // The listener was dropped with the error; bring it back on the next
    // turn rather than leave the server deaf (EMFILE, ENOBUFS and the like
    // pass).
    restartListenerDeferred();
    return;
  }
  TCP_SM_TRACE(levelInfo, " Accepted from " << conn.dstIpAddr() << " port " << conn.dstPort().value());
  bool failedInTest = failApplySocketOptionsInTest();
  if (failedInTest) failApplySocketOptionsInTestIs(false);
  if (applySocketOptions(conn.descriptor(), SdType::sdAccepted_) != 0 || failedInTest) {
    handleServerError("Setsockopt", errnoText(errno));
    restartListenerDeferred();
    return;
  }
  tcpServerStatus_->connSocketEnq(conn);
  tcpServerStatus_->connSocketCountInc();
}

void TcpServerSm::handleSocketOptions() {
  TCP_SM_TRACE(levelInfo, " " << __PRETTY_FUNCTION__);
  if (!fd_) return;
  if (!options().optionMd5Auth() && !lastOptionsApplied().optionMd5Auth()) {
    if (applySocketOptions(fd_->fileDescriptor()->descriptor(), SdType::sdListening_) == 0) return;
    handleServerError("Setsockopt", errnoText(errno));
  }
  // Keys are installed on a fresh listening socket.
  restartListenerDeferred();
}

void TcpServerSm::handleSocketMd5AuthOption(IpGenAddrWithMask const& a) {
  TCP_SM_TRACE(levelInfo, " " << a);
  restartListenerDeferred();
}

}  // namespace Corvid
