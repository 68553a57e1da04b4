// `corvid pdu serve` and `corvid pdu send`: a PDU echo over the TCP state
// machines and the PDU endpoint, with optional TCP MD5 keys and namespaces.
//
// serve listens (TcpServerSm), wraps every accepted connection in a
// SimpleTcpPduPam and sends each PDU straight back. send connects
// (TcpClientSm, retrying with the configured interval and backoff), sends
// --count PDUs of --size bytes one after the other and checks each echo.
// Both print the state machines' progress, one line per event; --json
// prints the same events as one JSON object per line.
#include <Brio/ActivityManager.h>
#include <Corvid/SimpleTcpPduPam.h>
#include <Corvid/TcpClientServer.h>

#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>

#include "Command.h"
#include "JsonLine.h"
#include "Options.h"

namespace CorvidTool {

namespace {

using namespace Corvid;

// Takes every "--md5 ENTRY" pair out of args (the option may repeat).
std::vector<std::string> md5Take(Args& args) {
  std::vector<std::string> entries;
  for (std::size_t i = 0; i < args.size();) {
    if (args[i] != "--md5") {
      ++i;
      continue;
    }
    if (i + 1 >= args.size()) throw UsageError("option '--md5' needs a value");
    entries.push_back(args[i + 1]);
    args.erase(args.begin() + static_cast<std::ptrdiff_t>(i), args.begin() + static_cast<std::ptrdiff_t>(i) + 2);
  }
  return entries;
}

unsigned long bounded(Options const& o, std::string const& k, unsigned long fallback, unsigned long max) {
  unsigned long const n = o.number(k, fallback);
  if (n > max) throw UsageError("option '" + k + "' takes a number up to " + std::to_string(max));
  return n;
}

// "10.0.0.1:179", "[fd00::1]:179" or "fd00::1:179" (the last colon splits).
std::pair<IpGenAddr, Port> addressAndPort(std::string const& option, std::string const& text) {
  std::size_t const colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) throw UsageError(option + " takes ADDR:PORT, not '" + text + "'");
  std::string addr = text.substr(0, colon);
  if (addr.size() > 2 && addr.front() == '[' && addr.back() == ']') addr = addr.substr(1, addr.size() - 2);
  std::string const port = text.substr(colon + 1);
  char* end = nullptr;
  unsigned long p = std::strtoul(port.c_str(), &end, 10);
  if (port.empty() || *end || p > 65535) throw UsageError(option + ": bad port '" + port + "'");
  try {
    return {Brio::strepToValue<IpGenAddr>(Brio::String(addr)), Port(static_cast<U16>(p))};
  } catch (Brio::RangeException const& e) {
    throw UsageError(option + ": " + e.what() + " '" + addr + "'");
  }
}

// Installs "PEER/LEN=KEY" entries (LEN optional: a host key).
void md5Keys(TcpConfigBase* config, std::vector<std::string> const& entries) {
  for (auto const& e : entries) {
    std::size_t const eq = e.find('=');
    if (eq == std::string::npos || eq + 1 == e.size()) throw UsageError("--md5 takes PEER/LEN=KEY, not '" + e + "'");
    std::string peer = e.substr(0, eq);
    std::string const key = e.substr(eq + 1);
    if (key.size() >= 80) throw UsageError("--md5: keys are at most 79 bytes");
    if (peer.find('/') == std::string::npos) peer += peer.find(':') == std::string::npos ? "/32" : "/128";
    try {
      config->md5AuthIs(Brio::strepToValue<IpGenAddrWithMask>(Brio::String(peer)), Brio::String(key));
    } catch (Brio::RangeException const& ex) {
      throw UsageError("--md5: " + std::string(ex.what()) + " '" + peer + "'");
    }
  }
  if (!entries.empty()) config->optionsIs(TcpSocketOptions(config->options().value() | TcpSocketOptions::md5AuthBit));
}

// One event: "event key=value ..." as text, or a JSON object per line.
class Printer {
 public:
  Printer(std::ostream& out, bool json) : out_(out), json_(json) {}
  using Fields = std::vector<std::pair<std::string, nlohmann::json>>;
  void event(std::string const& name, Fields const& fields) {
    if (json_) {
      nlohmann::json object;
      object["event"] = name;
      for (auto const& [k, v] : fields) object[k] = v;
      out_ << jsonLine(object) << "\n";
    } else {
      out_ << name;
      for (auto const& [k, v] : fields) out_ << " " << k << "=" << (v.is_string() ? v.get<std::string>() : v.dump());
      out_ << "\n";
    }
    out_.flush();
  }

 private:
  std::ostream& out_;
  bool json_;
};

// The PDU endpoint of one connection with its owner: echoes (serve) or
// checks echoes (send). Sends wait while the endpoint is not writable.
class Connection : public TcpPduPam::Notifiee {
 public:
  Connection(TcpConnSocket const& conn, Printer& printer, bool echo)
      : pam_(simpleTcpPduPamFactory(conn.fileDescriptor(), tcpFileDescriptorEventRegistrationFactoryBrioc())),
        conn_(conn), printer_(printer), echo_(echo) {
    notifierIs(pam_.ptr());
    pam_->enabledIs(true);
  }
  ~Connection() override {
    notifierIs(nullptr);
    pam_->cleanup();
  }
  void send(Brio::Ptr<Pkt> const& pkt) {
    queue_.push_back(pkt);
    flush();
  }
  void handleReadableCount() override {
    while (auto pkt = pam_->rxPkt()) {
      received.push_back(pkt->stringValue().str());
      if (echo_) {
        printer_.event("echoed", {{"bytes", pkt->bytes()}, {"from", conn_.toStrep().str()}});
        send(pkt);
      }
    }
  }
  void handleWritableCount() override { flush(); }
  void handleRxErrorReason() override {
    closed = true;
    reason = pam_->rxErrorReason().str();
  }
  void handleTxErrorReason() override {
    closed = true;
    reason = pam_->txErrorReason().str();
  }
  TcpConnSocket const& conn() const { return conn_; }
  std::vector<std::string> received;
  bool closed = false;
  std::string reason;

 private:
  void flush() {
    while (!queue_.empty() && pam_->writable()) {
      Brio::Ptr<Pkt> pkt = queue_.front();
      queue_.pop_front();
      pam_->txPktIs(pkt);
    }
  }
  Brio::Ptr<SimpleTcpPduPam> pam_;
  TcpConnSocket conn_;
  Printer& printer_;
  bool echo_;
  std::deque<Brio::Ptr<Pkt>> queue_;
};

class ServerReactor : public TcpServerStatus::Notifiee {
 public:
  ServerReactor(Brio::Ptr<TcpServerStatus> const& status, Printer& printer) : printer_(printer) {
    notifierIs(status);
  }
  void handleConnSocket(U32 const&) override {
    while (TcpConnSocket conn = notifier()->getConnSocket()) {
      printer_.event("accepted", {{"from", conn.dstIpAddr().stringValue().str() + ":" +
                                               std::to_string(conn.dstPort().value())},
                                  {"connection", conn.toStrep().str()}});
      connections.push_back(std::make_unique<Connection>(conn, printer_, true));
    }
  }
  void handleReason() override { printer_.event("server", {{"reason", notifier()->reason().str()}}); }
  // Drops connections whose peer went away.
  void sweep() {
    for (auto it = connections.begin(); it != connections.end();) {
      if ((*it)->closed) {
        printer_.event("closed", {{"connection", (*it)->conn().toStrep().str()}, {"reason", (*it)->reason}});
        echoed += (*it)->received.size();
        it = connections.erase(it);
      } else {
        ++it;
      }
    }
  }
  std::size_t echoedNow() const {
    std::size_t n = echoed;
    for (auto const& c : connections) n += c->received.size();
    return n;
  }
  std::vector<std::unique_ptr<Connection>> connections;
  std::size_t echoed = 0;

 private:
  Printer& printer_;
};

class ClientReactor : public TcpClientStatus::Notifiee {
 public:
  ClientReactor(Brio::Ptr<TcpClientStatus> const& status, Printer& printer) : printer_(printer) {
    notifierIs(status);
  }
  void handleConnectionStatus() override {
    TcpClientStatus* s = notifier();
    using Status = TcpClientStatus::ConnectionStatus;
    switch (s->connectionStatus()) {
      case Status::connecting_:
        printer_.event("connecting", {{"attempt", s->connectionAttemptCount()}});
        break;
      case Status::connected_:
        printer_.event("connected", {{"connection", s->connSocket().toStrep().str()}});
        break;
      case Status::failed_:
        pendingFailure_ = true;  // reported with its retry interval once armed
        break;
      case Status::timedout_:
        printer_.event("timedout", {{"reason", s->reason().str()}});
        break;
      case Status::idle_:
        break;
    }
  }
  void handleRetryTimerNext() override {
    if (!pendingFailure_) return;
    pendingFailure_ = false;
    TcpClientStatus* s = notifier();
    printer_.event("failed", {{"reason", s->reason().str()},
                              {"retryInterval", s->retryTimerInterval()},
                              {"errors", s->connectionErrorCount()}});
  }

 private:
  Printer& printer_;
  bool pendingFailure_ = false;
};

std::string pattern(std::size_t size, unsigned long seq) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>('a' + (i + seq) % 26);
  return s;
}

int serve(Options const& o, std::vector<std::string> const& md5, bool json, std::ostream& out, std::ostream& err) {
  if (!o.has("--listen")) throw UsageError("missing --listen ADDR:PORT");
  auto [addr, port] = addressAndPort("--listen", o.get("--listen"));
  unsigned long const count = o.number("--count", 0);
  F64 const seconds = o.seconds("--seconds", 0);
  Printer printer(out, json);
  Brio::ActivityManager loop;
  auto config = tcpServerConfigFactory(addr, port);
  if (o.has("--ns")) config->networkNamespaceIs(NamespaceName(Brio::String(o.get("--ns"))));
  md5Keys(config.ptr(), md5);
  auto status = tcpServerStatusFactory();
  ServerReactor reactor(status, printer);
  auto server = tcpServerSmFactory(tcpFileDescriptorEventRegistrationFactoryBrioc(),
                                   Quay::TimerWheel::timerWheelFactory(), config, status);
  if (!server->startListener() && port.value() == 0) {
    err << "corvid pdu serve: " << status->reason().view() << "\n";
    return 1;
  }
  printer.event("listening", {{"addr", o.get("--listen")},
                              {"ns", config->networkNamespace().value().str()},
                              {"md5Keys", config->md5Auths()}});
  F64 const deadline = seconds > 0 ? Brio::monotonicNow() + seconds : Brio::never;
  while (Brio::monotonicNow() < deadline) {
    loop.runOnce(0.2);
    reactor.sweep();
    if (count && reactor.echoedNow() >= count) break;
  }
  server->cleanup();
  return 0;
}

int send(Options const& o, std::vector<std::string> const& md5, bool json, std::ostream& out, std::ostream& err) {
  if (!o.has("--to")) throw UsageError("missing --to ADDR:PORT");
  auto [addr, port] = addressAndPort("--to", o.get("--to"));
  unsigned long const count = o.number("--count", 1);
  unsigned long const size = bounded(o, "--size", 200, TcpPduPam::maxPduLengthDefault);
  if (size < SimpleTcpPduPam::headerLength) throw UsageError("--size is at least 20 (the header)");
  Printer printer(out, json);
  Brio::ActivityManager loop;
  auto config = tcpClientConfigFactory(addr, port);
  if (o.has("--ns")) config->networkNamespaceIs(NamespaceName(Brio::String(o.get("--ns"))));
  config->retryIntervalIs(static_cast<U32>(bounded(o, "--retry", 1, 3600)));
  config->exponentialBackoffRetriesIs(static_cast<U32>(bounded(o, "--backoff", 0, 31)));
  config->timeoutIs(o.seconds("--timeout", 10));
  md5Keys(config.ptr(), md5);
  auto status = tcpClientStatusFactory();
  ClientReactor reactor(status, printer);
  auto client = tcpClientSmFactory(tcpFileDescriptorEventRegistrationFactoryBrioc(),
                                   Quay::TimerWheel::timerWheelFactory(), 1, config, status);
  client->startConnection();
  using Status = TcpClientStatus::ConnectionStatus;
  loop.runUntil([&] {
    return status->connectionStatus() == Status::connected_ || status->connectionStatus() == Status::timedout_;
  }, 1e9);
  if (status->connectionStatus() != Status::connected_) {
    err << "corvid pdu send: no connection: "
        << (status->reason().empty() ? std::string_view("timed out") : status->reason().view()) << "\n";
    return 1;
  }
  Connection conn(status->connSocket(), printer, false);
  unsigned long ok = 0;
  for (unsigned long i = 0; i < count && !conn.closed; ++i) {
    std::string bytes = pattern(size, i);
    SimpleTcpPduPam::pduLengthIs(reinterpret_cast<U8*>(bytes.data()), static_cast<U16>(size));
    Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(Brio::String(bytes));
    conn.send(pkt);
    if (!loop.runUntil([&] { return conn.received.size() > i || conn.closed; }, 10)) break;
    if (conn.received.size() <= i) break;
    bool const match = conn.received[i] == bytes;
    ok += match;
    printer.event("echo", {{"pdu", i + 1}, {"bytes", conn.received[i].size()}, {"match", match}});
  }
  if (conn.closed) printer.event("closed", {{"reason", conn.reason}});
  printer.event("done", {{"sent", count}, {"echoed", ok}});
  client->cleanup();
  return ok == count ? 0 : 1;
}

}  // namespace

int pduCommand(Args const& argsIn, std::ostream& out, std::ostream& err) {
  Args args = argsIn;
  bool const json = jsonFlagTake(args);
  if (args.empty()) throw UsageError("missing 'serve' or 'send'");
  std::string const what = args[0];
  args.erase(args.begin());
  std::vector<std::string> const md5 = md5Take(args);
  if (what != "serve" && what != "send") throw UsageError("unknown pdu command '" + what + "' (serve or send)");
  Options const o = what == "serve"
                        ? Options(args, {"--listen", "--ns", "--count", "--seconds"})
                        : Options(args, {"--to", "--ns", "--count", "--size", "--retry", "--backoff", "--timeout"});
  if (!o.rest.empty()) throw UsageError("unexpected argument '" + o.rest[0] + "'");
  return what == "serve" ? serve(o, md5, json, out, err) : send(o, md5, json, out, err);
}

}  // namespace CorvidTool
