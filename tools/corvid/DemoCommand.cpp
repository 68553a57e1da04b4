// `corvid demo`: a tour of every subsystem on this machine's real kernel, the
// README's main job. Each step prints what it shows in a few lines; the tour
// ends with one line per subsystem.
//
// Steps that need root (namespaces, raw sockets, netlink changes) say so and
// are skipped without it. Everything the tour makes is removed at the end,
// also when a step fails or the tour is interrupted (SIGINT, SIGTERM): its
// scratch namespaces, its shared-memory tables (under a private SHOAL_ROOT)
// and its child processes.
#include <Brio/ActivityManager.h>
#include <Corvid/ArpPublisher.h>
#include <Corvid/ArpShim.h>
#include <Corvid/CorvidUtils.h>
#include <Corvid/EthDevicePam.h>
#include <Corvid/KernelNetNsInfo.h>
#include <Corvid/NetnsUtils.h>
#include <Corvid/NsUtils.h>
#include <Corvid/RawSocket.h>
#include <Corvid/RtnlMirror.h>
#include <linux/rtnetlink.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <ostream>
#include <sstream>

#include "Command.h"
#include "PacketDecode.h"

namespace CorvidTool {

namespace {

volatile sig_atomic_t interrupted = 0;

// What the tour made, removed in reverse by the destructor whatever happens.
class Scratch {
 public:
  Scratch() : tag_("corvid-demo-" + std::to_string(getpid())) {}
  ~Scratch() { clear(); }
  Scratch(Scratch const&) = delete;
  Scratch& operator=(Scratch const&) = delete;

  std::string name(char const* what) const { return tag_ + "-" + what; }
  void namespaceIs(std::string const& ns) { namespaces_.push_back(ns); }
  void childIs(pid_t pid) { children_.push_back(pid); }
  // A private SHOAL_ROOT for the tour's tables.
  std::string const& shoalRoot() {
    if (shoalRoot_.empty()) {
      shoalRoot_ = "/dev/shm/" + tag_;
      std::filesystem::create_directories(shoalRoot_);
      setenv("SHOAL_ROOT", shoalRoot_.c_str(), 1);
    }
    return shoalRoot_;
  }

  void clear() {
    for (pid_t pid : children_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    children_.clear();
    for (auto it = namespaces_.rbegin(); it != namespaces_.rend(); ++it) {
      try {
        Corvid::netNsDelete(it->c_str());
      } catch (std::exception const&) {
      }
    }
    namespaces_.clear();
    if (!shoalRoot_.empty()) {
      std::error_code ec;
      std::filesystem::remove_all(shoalRoot_, ec);
      unsetenv("SHOAL_ROOT");
      shoalRoot_.clear();
    }
  }

 private:
  std::string tag_;
  std::vector<std::string> namespaces_;
  std::vector<pid_t> children_;
  std::string shoalRoot_;
};

enum class Outcome { ok, failed, needsRoot };

struct Context {
  std::ostream& out;
  Scratch scratch;
  std::string ns;  // the scratch namespace, once made
};

bool runLoopUntil(std::function<bool()> const& done, double seconds) {
  return Brio::ActivityManager::current()->runUntil([&] { return interrupted || done(); }, seconds) && !interrupted;
}

int runCommandLine(Args const& line, std::ostream& out, std::ostream& err) {
  for (auto const& c : commands()) {
    if (line[0] == c.name) return c.run(Args(line.begin() + 1, line.end()), out, err);
  }
  err << "corvid demo: no command '" << line[0] << "'\n";
  return 1;
}

Outcome commandSteps(Context& c, std::vector<Args> const& lines) {
  for (auto const& line : lines) {
    c.out << "$ corvid";
    for (auto const& w : line) c.out << " " << w;
    c.out << "\n";
    // A value that is refused prints its message and exits 1: that is the
    // point of the step that shows it.
    runCommandLine(line, c.out, c.out);
  }
  return Outcome::ok;
}

Outcome values(Context& c) {
  return commandSteps(c, {{"value", "ip", "10.1.2.3", "fe80::1:0:0:5"},
                          {"value", "ipv4-prefix", "10.1.2.3/8"},
                          {"value", "ipv4-with-mask", "10.1.2.3/8"},
                          {"value", "mpls-stack", "TOP ( 16 17 ) BOTTOM"},
                          {"value", "intf", "Ethernet1/2"}});
}

Outcome packets(Context& c) {
  return commandSteps(
      c, {{"packet", "ffffffffffff020000000001080045000022000100004011f6c6c0000201c00002020fa01388000e195c636f72766964"}});
}

// A scratch namespace made with our utilities while the kernel namespace list
// watches the run directory, then followed with the netlink watcher while
// an interface, an address and neighbours are added.
Outcome namespaces(Context& c) {
  if (geteuid() != 0) return Outcome::needsRoot;
  auto root = KernelNetNsInfo::rootFactory("demo");
  auto manager = KernelNetNsInfo::managerFactory("demo", root);
  c.out << "kernel namespace list at start: " << root->netNsByNames() << " named namespaces\n";
  c.ns = c.scratch.name("a");
  Corvid::netNsAdd(c.ns.c_str());
  c.scratch.namespaceIs(c.ns);
  bool const seen = runLoopUntil([&] { return root->netNsByName(Corvid::NamespaceName(Brio::String(c.ns))) != nullptr; }, 3);
  c.out << "netNsAdd " << c.ns << ": inode " << Corvid::netNsInode(c.ns.c_str()) << "; the kernel namespace list "
        << (seen ? "saw it appear" : "did NOT see it") << "\n";

  struct Lines : Corvid::RtnlMirror::Listener {
    explicit Lines(std::ostream& o) : out(o) {}
    // Each interface once (its first message), every address and neighbour.
    void handleChange(Corvid::RtnlMessage const& m, bool) override {
      if (m.kind == Corvid::RtnlMessage::Kind::link && !links.insert(m.link.ifIndex).second) return;
      if (shown++ < 10) out << "  watcher: " << m << "\n";
    }
    std::ostream& out;
    std::set<S32> links;
    int shown = 0;
  } lines(c.out);
  Corvid::RtnlMirror mirror(Corvid::NamespaceName(Brio::String(c.ns)),
                            RTMGRP_LINK | RTMGRP_NEIGH | RTMGRP_IPV4_IFADDR, &lines);
  mirror.start(true);
  c.out << "watching " << c.ns << " (dump done: " << mirror.links().size() << " link); now adding:\n";
  std::string const ip = "ip -n " + c.ns + " ";
  if (std::system((ip + "link add veth0 type veth peer name veth1 && " + ip + "link set veth0 up && " + ip +
                   "link set veth1 up && " + ip + "addr add 192.0.2.1/24 dev veth0 && " + ip +
                   "neigh add 192.0.2.7 lladdr 02:00:00:00:00:07 dev veth0 nud permanent && " + ip +
                   "neigh add 192.0.2.8 lladdr 02:00:00:00:00:08 dev veth1 nud permanent")
                      .c_str()) != 0) {
    return Outcome::failed;
  }
  bool const followed = runLoopUntil([&] { return mirror.neighs().size() >= 2 && mirror.addrs().size() >= 2; }, 3);
  c.out << "watcher now holds " << mirror.links().size() << " links, " << mirror.addrs().size() << " addresses, "
        << mirror.neighs().size() << " neighbours; resyncs " << mirror.sm()->resyncAttempts() << "\n";
  return seen && followed ? Outcome::ok : Outcome::failed;
}

// Frames through real sockets inside the scratch namespace: one end of its
// veth pair sends with an EthSocket, the other receives with the
// Ethernet-device endpoint on the activity loop.
Outcome endpoints(Context& c) {
  if (geteuid() != 0 || c.ns.empty()) return Outcome::needsRoot;
  Corvid::NetNsSwitch inside(("/var/run/netns/" + c.ns).c_str());
  if (!inside.ok()) return Outcome::failed;
  auto pam = Corvid::EthDevicePam::ethDevicePamFactory("demo", "veth0");
  pam->enabledIs(true);
  if (!pam->enabled()) {
    c.out << "enable failed: " << pam->reason() << "\n";
    return Outcome::failed;
  }
  auto sender = Corvid::RawSocketManagerFactory()->newEthSocket("demo-sender", "veth1", Corvid::protocolAll);
  // UDP 192.0.2.1:4000 -> 192.0.2.2:5000 carrying "corvid", checksums valid.
  std::string const frame = parseHex({"ffffffffffff 020000000001 0800",
                                      "4500 0022 0001 0000 4011 f6c6 c0000201 c0000202",
                                      "0fa0 1388 000e 195c 636f72766964"});
  for (int i = 0; i < 3; ++i) {
    auto pkt = Corvid::globalPktManager()->newPkt();
    pkt->stringValueIs(Brio::String(frame), false);
    sender->sendFrame(pkt);
  }
  int received = 0;
  runLoopUntil(
      [&] {
        for (S32 n = pam->rxPktBulk(); n > 0; --n) {
          auto pkt = pam->rxPkt();
          if (++received == 1) describeFrame(pkt->stringValue().str(), c.out);
        }
        return received >= 3;
      },
      2);
  c.out << "sent 3 frames on veth1, received " << received << " on veth0 in batches (readableCount "
        << pam->readableCount() << ", rxErrors " << pam->rxErrors() << ")\n";
  pam->enabledIs(false);
  return received == 3 ? Outcome::ok : Outcome::failed;
}

// An MD5-authenticated TCP session between two scratch namespaces joined
// by a veth pair, carrying SimpleTcpPduPam PDUs both ways: a child process
// serves (echoing each PDU), this one sends and checks the echoes.
Outcome tcp(Context& c) {
  if (geteuid() != 0) return Outcome::needsRoot;
  std::string const cli = c.scratch.name("cli"), srv = c.scratch.name("srv");
  for (auto const& ns : {cli, srv}) {
    Corvid::netNsAdd(ns.c_str());
    c.scratch.namespaceIs(ns);
  }
  if (std::system(("ip link add vcli netns " + cli + " type veth peer name vsrv netns " + srv + " && ip -n " + cli +
                   " addr add 10.77.0.1/24 dev vcli && ip -n " + srv + " addr add 10.77.0.2/24 dev vsrv && ip -n " +
                   cli + " link set vcli up && ip -n " + srv + " link set vsrv up")
                      .c_str()) != 0) {
    return Outcome::failed;
  }
  c.out.flush();
  pid_t const server = fork();
  if (server == 0) {
    std::ostringstream quiet;
    _exit(runCommandLine({"pdu", "serve", "--ns", srv, "--listen", "10.77.0.2:1790", "--md5", "10.77.0.0/24=demo",
                          "--count", "3", "--seconds", "10"},
                         quiet, quiet));
  }
  c.scratch.childIs(server);
  Args const send = {"pdu", "send", "--ns", cli, "--to", "10.77.0.2:1790", "--md5", "10.77.0.2=demo",
                     "--count", "3", "--size", "200", "--timeout", "10"};
  c.out << "$ corvid";
  for (auto const& w : send) c.out << " " << w;
  c.out << "\n";
  std::ostringstream text;
  int const rc = runCommandLine(send, text, text);
  c.out << text.str();
  return rc == 0 && text.str().find("echoed=3") != std::string::npos ? Outcome::ok : Outcome::failed;
}

// The mirror side of the neighbour step, in a child process: mounts the
// tables as a reader, runs the shim and prints its status tree once whole.
int shimChild(int out, std::size_t expected) {
  Brio::ActivityManager loop;
  auto vrfs = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  auto arp = Arp::Table::Status::statusFactory("arp", 64);
  vrfs->mount("vrfIdMap/status", Shoal::MountMode::reader);
  arp->mount("arp/status", Shoal::MountMode::reader);
  auto dir = Arp::ArpVrfStatusDir::arpVrfStatusDirFactory("dir");
  auto shim = Arp::arpShimSmFactory(arp, vrfs, "", true, true, Arp::NeighborDir::neighborDirFactory("s"), dir);
  auto entries = [&] {
    std::size_t n = 0;
    for (auto const& [vrf, d] : dir->vrfStatuses()) {
      for (auto const& [intf, s] : d->arpIntfStatuses()) n += s->arpEntries().size();
    }
    return n;
  };
  loop.runUntil([&] { return entries() >= expected; }, 5);
  std::ostringstream text;
  for (auto const& [vrf, d] : dir->vrfStatuses()) {
    for (auto const& [intf, s] : d->arpIntfStatuses()) {
      for (auto const& [addr, e] : s->arpEntries()) {
        text << "  shim (pid " << getpid() << "): vrf " << vrf << " " << intf.name() << " " << addr << " "
             << e.ethAddr() << (e.isStatic() ? " static" : " dynamic") << "\n";
      }
    }
  }
  std::string const s = text.str();
  return write(out, s.data(), s.size()) == static_cast<ssize_t>(s.size()) ? 0 : 1;
}

// The VRF id map and the neighbour table written by this process from the
// scratch namespace's neighbours, mirrored by the shim in another.
Outcome neighbours(Context& c) {
  if (geteuid() != 0 || c.ns.empty()) return Outcome::needsRoot;
  c.scratch.shoalRoot();
  auto vrfs = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  auto arp = Arp::Table::Status::statusFactory("arp", 64);
  if (!vrfs->mount("vrfIdMap/status", Shoal::MountMode::writer) ||
      !arp->mount("arp/status", Shoal::MountMode::writer)) {
    c.out << "cannot write the tables: " << vrfs->reason() << arp->reason() << "\n";
    return Outcome::failed;
  }
  auto writer = Vrf::VrfIdMap::Writer::writerFactory("demo", vrfs);
  writer->handleInitialized();
  Arp::ArpPublisher publisher(writer, arp, [](Brio::String const& intf) {
    return Brio::String(intf == "veth1" ? "blue" : "default");
  });
  Corvid::RtnlMirror mirror(Corvid::NamespaceName(Brio::String(c.ns)), RTMGRP_LINK | RTMGRP_NEIGH, &publisher);
  publisher.mirrorIs(&mirror);
  mirror.start(true);
  vrfs->commit();
  arp->commit();
  c.out << "VRF id map: ";
  for (auto const& [name, id] : writer->nameToIdMap()->vrfNameToIdAll()) c.out << name << "=" << id << " ";
  c.out << "\nneighbour table: " << arp->arpEntries() << " IPv4 entries published from " << c.ns << "\n";

  int pipeFds[2];
  if (pipe(pipeFds) != 0) return Outcome::failed;
  c.out.flush();
  pid_t const child = fork();
  if (child == 0) {
    close(pipeFds[0]);
    _exit(shimChild(pipeFds[1], arp->arpEntries()));
  }
  close(pipeFds[1]);
  c.scratch.childIs(child);
  std::string got;
  char buf[1024];
  for (ssize_t n; (n = read(pipeFds[0], buf, sizeof buf)) > 0;) got.append(buf, static_cast<std::size_t>(n));
  close(pipeFds[0]);
  c.out << got;
  return got.find("vrf blue veth1 192.0.2.8") != std::string::npos ? Outcome::ok : Outcome::failed;
}

struct Subsystem {
  char const* name;
  char const* title;
  Outcome (*run)(Context&);
};

}  // namespace

int demoCommand(Args const& args, std::ostream& out, std::ostream& err) {
  if (!args.empty()) throw UsageError("demo takes no arguments");
  out << "corvid " << Corvid::version() << ": a tour of the library\n";
  interrupted = 0;
  struct sigaction sa {}, oldInt{}, oldTerm{};
  sa.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &sa, &oldInt);
  sigaction(SIGTERM, &sa, &oldTerm);

  static Subsystem const subsystems[] = {
      {"values", "Values: canonical text, refusals with the exact message", values},
      {"packets", "Packets: a frame decoded through the header wrappers", packets},
      {"namespaces", "Namespaces and netlink: a scratch namespace, listed and watched", namespaces},
      {"endpoints", "Endpoints: frames over a veth pair inside the scratch namespace", endpoints},
      {"TCP and PDUs", "TCP: an MD5-authenticated session between two namespaces, PDUs echoed both ways", tcp},
      {"shared tables, neighbours", "Shared tables: VRF ids and neighbours, mirrored by the shim in another process",
       neighbours},
  };
  Brio::ActivityManager loop;
  Context c{out, {}, {}};
  std::vector<std::pair<char const*, Outcome>> results;
  for (auto const& s : subsystems) {
    if (interrupted) break;
    out << "\n== " << s.title << "\n";
    Outcome outcome;
    try {
      outcome = s.run(c);
    } catch (std::exception const& e) {
      out << "failed: " << e.what() << "\n";
      outcome = Outcome::failed;
    }
    if (outcome == Outcome::needsRoot) out << "(skipped: this step needs root)\n";
    results.emplace_back(s.name, outcome);
  }
  c.scratch.clear();
  sigaction(SIGINT, &oldInt, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);

  out << "\n== Summary\n";
  int failures = 0;
  for (auto const& [name, outcome] : results) {
    char const* verdict = outcome == Outcome::ok ? "ok" : outcome == Outcome::needsRoot ? "skipped (needs root)" : "FAILED";
    out << "  " << name << ": " << verdict << "\n";
    failures += outcome == Outcome::failed;
  }
  if (interrupted) {
    err << "corvid demo: interrupted; everything it made was removed\n";
    return 130;
  }
  return failures ? 1 : 0;
}

}  // namespace CorvidTool
