// `corvid capture` and `corvid send`: the endpoints from the command line.
//
// capture receives frames on an interface through the Ethernet-device
// endpoint on the activity loop, in batches, and prints each one decoded.
// send puts a frame built from hex on an interface, or sends an IPv4
// payload through a raw IP socket (the kernel builds the IP header).
#include <Brio/ActivityManager.h>
#include <Corvid/EthDevicePam.h>
#include <Corvid/RawSocket.h>

#include <cstdlib>
#include <map>
#include <ostream>
#include <stdexcept>

#include "Command.h"
#include "JsonLine.h"
#include "PacketDecode.h"

namespace CorvidTool {

namespace {

// Reads "--name value" options; the remaining words are returned in order.
struct Options {
  Options(Args const& args, std::vector<std::string> const& known) {
    for (std::size_t i = 0; i < args.size(); ++i) {
      std::string const& a = args[i];
      if (a.rfind("--", 0) != 0) {
        rest.push_back(a);
        continue;
      }
      bool ok = false;
      for (auto const& k : known) ok = ok || a == k;
      if (!ok) throw UsageError("unknown option '" + a + "'");
      if (i + 1 >= args.size()) throw UsageError("option '" + a + "' needs a value");
      values[a] = args[++i];
    }
  }
  bool has(std::string const& k) const { return values.count(k) != 0; }
  std::string get(std::string const& k) const { return has(k) ? values.at(k) : ""; }
  unsigned long number(std::string const& k, unsigned long fallback) const {
    if (!has(k)) return fallback;
    std::string const& v = values.at(k);
    char* end = nullptr;
    unsigned long n = std::strtoul(v.c_str(), &end, 10);
    if (v.empty() || *end) throw UsageError("option '" + k + "' takes a number, not '" + v + "'");
    return n;
  }
  std::map<std::string, std::string> values;
  std::vector<std::string> rest;
};

class CapturePrinter : public Corvid::DescriptorPam::Notifiee {
 public:
  CapturePrinter(Brio::Ptr<Corvid::EthDevicePam> const& pam, unsigned long limit, bool json, std::ostream& out)
      : Notifiee(pam), pam_(pam.ptr()), limit_(limit), json_(json), out_(out) {}
  void handleReadableCount() override {
    while (!done()) {
      S32 n = pam_->rxPktBulk();
      if (n <= 0) break;
      for (; n > 0; --n) {
        Brio::Ptr<Corvid::Pkt> pkt = pam_->rxPkt();
        if (done()) continue;  // past the count: drop the rest of the batch
        ++seen_;
        if (json_) {
          nlohmann::json event = {{"event", "frame"}, {"frame", seen_}};
          describeFrame(pkt->stringValue().str(), out_, &event);
          out_ << jsonLine(event) << std::endl;
          continue;
        }
        out_ << "frame " << seen_ << ": " << pkt->bytes() << " bytes\n";
        describeFrame(pkt->stringValue().str(), out_);
      }
    }
  }
  bool done() const { return limit_ && seen_ >= limit_; }
  unsigned long seen() const { return seen_; }

 private:
  Corvid::EthDevicePam* pam_;
  unsigned long limit_;
  unsigned long seen_ = 0;
  bool json_;
  std::ostream& out_;
};

}  // namespace

void captureHelp(std::ostream& out) {
  out << "\n  --intf NAME    the interface to receive on (an Ethernet device)\n"
         "  --count N      stop after N frames (default: no limit)\n"
         "  --seconds S    stop after S seconds (default: no limit)\n"
         "  --json         one JSON object per event: {\"event\": \"start\"}, one \"frame\" event per\n"
         "                 frame (as `corvid packet --json`, with its number), then \"end\"\n";
}

void sendHelp(std::ostream& out) {
  out << "\n  --intf NAME    send HEX as a whole Ethernet frame on the interface\n"
         "  --to IPV4      send HEX as the payload of an IPv4 datagram to the address\n"
         "  --protocol P   the IP protocol number with --to (default 253)\n"
         "  --device D     bind the raw IP socket to device D with --to\n";
}

int captureCommand(Args const& argsGiven, std::ostream& out, std::ostream& err) {
  Args args = argsGiven;
  bool const json = jsonFlagTake(args);
  Options o(args, {"--intf", "--count", "--seconds"});
  if (!o.has("--intf")) throw UsageError("missing --intf NAME");
  if (!o.rest.empty()) throw UsageError("unexpected argument '" + o.rest[0] + "'");
  unsigned long const count = o.number("--count", 0);
  unsigned long const seconds = o.number("--seconds", 0);
  Brio::ActivityManager loop;
  auto pam = Corvid::EthDevicePam::ethDevicePamFactory("capture", o.get("--intf"));
  CapturePrinter printer(pam, count, json, out);
  pam->enabledIs(true);
  if (!pam->enabled()) {
    err << "corvid capture: " << o.get("--intf") << ": " << pam->reason() << "\n";
    return 1;
  }
  if (json) {
    out << jsonLine({{"event", "start"}, {"intf", o.get("--intf")}}) << std::endl;
  } else {
    out << "capturing IPv4 frames on " << o.get("--intf") << "\n";
  }
  loop.runUntil([&] { return printer.done(); }, seconds ? static_cast<F64>(seconds) : 1e9);
  if (pam->rxErrors()) err << "corvid capture: " << pam->rxErrors() << " receive errors, last: " << pam->reason() << "\n";
  if (json) {
    out << jsonLine({{"event", "end"}, {"frames", printer.seen()}, {"rxErrors", pam->rxErrors()}}) << "\n";
  } else {
    out << printer.seen() << " frames\n";
  }
  return pam->rxErrors() ? 1 : 0;
}

int sendCommand(Args const& args, std::ostream& out, std::ostream& err) {
  Options o(args, {"--intf", "--to", "--protocol", "--device"});
  if (o.has("--intf") == o.has("--to")) throw UsageError("give exactly one of --intf NAME or --to IPV4");
  if (o.rest.empty()) throw UsageError("missing HEX bytes to send");
  std::string bytes;
  try {
    bytes = parseHex(o.rest);
  } catch (std::invalid_argument const& e) {
    throw UsageError(e.what());
  }
  auto pkt = Corvid::globalPktManager()->newPkt();
  pkt->stringValueIs(Brio::String(bytes), false);
  auto manager = Corvid::RawSocketManagerFactory();
  try {
    int sent;
    if (o.has("--intf")) {
      auto s = manager->newEthSocket("send", o.get("--intf"), Corvid::protocolAll);
      sent = s->sendFrame(pkt);
    } else {
      Corvid::IpAddr dst;
      try {
        dst = Brio::strepToValue<Corvid::IpAddr>(o.get("--to"));
      } catch (Brio::RangeException const& e) {
        throw UsageError(std::string("--to: ") + e.what());
      }
      unsigned long protocol = o.number("--protocol", 253);
      if (protocol > 255) throw UsageError("--protocol takes 0 to 255");
      auto s = manager->newIpSocket("send", static_cast<Corvid::Protocol>(protocol), 0);
      if (o.has("--device")) s->deviceIs(o.get("--device"));
      sent = s->sendPkt(pkt, dst);
    }
    if (sent < 0) {
      err << "corvid send: socket buffer full, nothing sent\n";
      return 1;
    }
    out << "sent " << sent << " bytes\n";
    return 0;
  } catch (Brio::ErrnoException const& e) {
    err << "corvid send: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace CorvidTool
