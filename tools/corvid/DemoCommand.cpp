// `corvid demo`: a short tour of what the library does on this machine, the
// README's main job. Each capability adds a step here as it lands.
#include <Brio/ActivityManager.h>
#include <Corvid/CorvidUtils.h>
#include <Corvid/EthDevicePam.h>
#include <Corvid/RawSocket.h>
#include <sched.h>

#include <cstdlib>
#include <ostream>

#include "Command.h"
#include "PacketDecode.h"

namespace CorvidTool {

namespace {

struct Step {
  char const* title;
  Args command;                           // a corvid command line, run through the same table
  int (*run)(std::ostream& out) = nullptr;  // or a step of its own
};

// Frames through real sockets, in a private network namespace so that
// nothing leaves this process's own veth pair: one end sends with an
// EthSocket, the other receives with the Ethernet-device endpoint on the
// activity loop and decodes what it got.
int endpointRoundTrip(std::ostream& out) {
  if (unshare(CLONE_NEWNET) != 0) {
    out << "(skipped: making a private network namespace needs root)\n";
    return 0;
  }
  if (std::system("ip link add demo0 type veth peer name demo1 && ip link set demo0 up && "
                  "ip link set demo1 up") != 0) {
    out << "(skipped: could not make a veth pair)\n";
    return 0;
  }
  Brio::ActivityManager loop;
  auto pam = Corvid::EthDevicePam::ethDevicePamFactory("demo", "demo0");
  pam->enabledIs(true);
  if (!pam->enabled()) {
    out << "enable failed: " << pam->reason() << "\n";
    return 1;
  }
  auto sender = Corvid::RawSocketManagerFactory()->newEthSocket("demo-sender", "demo1", Corvid::protocolAll);
  // UDP 192.0.2.1:4000 -> 192.0.2.2:5000 carrying "corvid", checksums valid.
  std::string const frame = parseHex({"ffffffffffff 020000000001 0800",
                                      "4500 0022 0001 0000 4011 f6c6 c0000201 c0000202",
                                      "0fa0 1388 000e 195c 636f72766964"});
  for (int i = 0; i < 3; ++i) {
    auto pkt = Corvid::globalPktManager()->newPkt();
    pkt->stringValueIs(Brio::String(frame), false);
    sender->sendFrame(pkt);
  }
  out << "sent 3 frames on demo1; receiving on demo0 in batches:\n";
  int received = 0;
  loop.runUntil(
      [&] {
        for (S32 n = pam->rxPktBulk(); n > 0; --n) {
          auto pkt = pam->rxPkt();
          if (++received == 1) describeFrame(pkt->stringValue().str(), out);
        }
        return received >= 3;
      },
      2);
  out << "received " << received << " frames, readableCount " << pam->readableCount() << ", rxErrors "
      << pam->rxErrors() << "\n";
  return received == 3 ? 0 : 1;
}

int runCommandLine(Args const& line, std::ostream& out, std::ostream& err) {
  for (auto const& c : commands()) {
    if (line[0] == c.name) return c.run(Args(line.begin() + 1, line.end()), out, err);
  }
  err << "corvid demo: no command '" << line[0] << "'\n";
  return 1;
}

}  // namespace

int demoCommand(Args const& args, std::ostream& out, std::ostream& err) {
  if (!args.empty()) throw UsageError("demo takes no arguments");
  out << "corvid " << Corvid::version() << ": a tour of the library\n";
  static std::vector<Step> const steps = {
      {"IPv4 and IPv6 addresses: canonical text, predicates, hash",
       {"value", "ip", "10.1.2.3", "fe80::1:0:0:5", "::ffff:192.0.2.1"}},
      {"A prefix with host bits is refused; the same text is a valid address with a mask",
       {"value", "ipv4-prefix", "10.1.2.3/8"}},
      {"", {"value", "ipv4-with-mask", "10.1.2.3/8"}},
      {"Ethernet address, MPLS label stack, interface name",
       {"value", "eth", "00:1c:73:aa:bb:cc"}},
      {"", {"value", "mpls-stack", "TOP ( 16 17 ) BOTTOM"}},
      {"", {"value", "intf", "Ethernet1/2"}},
      {"A malformed address gets the library's exact message", {"value", "ipv4", "1.2.3.256"}},
      {"A frame decoded through the header wrappers, with its checks",
       {"packet", "ffffffffffff020000000001080045000022000100004011f6c6c0000201c00002020fa01388000e195c636f72766964"}},
      {"Endpoints: frames over a veth pair in a private namespace", {}, endpointRoundTrip},
  };
  int failures = 0;
  for (auto const& s : steps) {
    if (*s.title) out << "\n== " << s.title << "\n";
    if (s.run) {
      failures += s.run(out) ? 1 : 0;
      continue;
    }
    out << "$ corvid";
    for (auto const& w : s.command) out << " " << w;
    out << "\n";
    bool known = false;
    for (auto const& c : commands()) known = known || s.command[0] == c.name;
    if (!known) {
      out << "(not available in this build)\n";
      continue;
    }
    try {
      runCommandLine(s.command, out, out);
    } catch (UsageError const& e) {
      out << "(usage: " << e.what() << ")\n";
      ++failures;
    }
  }
  return failures ? 1 : 0;
}

}  // namespace CorvidTool
