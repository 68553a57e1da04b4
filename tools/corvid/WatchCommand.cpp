// `corvid watch`: the links, addresses and neighbours of a namespace, dumped
// and then followed through the netlink watcher, one line per change, in the
// spirit of `ip monitor`. On exit (Ctrl-C, SIGTERM or --seconds) it prints
// the watcher's counters, so an operator sees whether notifications were
// lost (enobufsCount) and how often the watcher resynchronised.
#include <Brio/ActivityManager.h>
#include <Corvid/NetnsUtils.h>
#include <Corvid/RtnlMirror.h>
#include <linux/rtnetlink.h>
#include <signal.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "Command.h"
#include "Options.h"

namespace CorvidTool {

namespace {

volatile sig_atomic_t interrupted = 0;
void onSignal(int) { interrupted = 1; }

// Installs SIGINT and SIGTERM handlers without SA_RESTART, so the loop's
// wait returns at once, and restores the previous ones when done.
class SignalScope {
 public:
  SignalScope() {
    interrupted = 0;
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &oldInt_);
    sigaction(SIGTERM, &sa, &oldTerm_);
  }
  ~SignalScope() {
    sigaction(SIGINT, &oldInt_, nullptr);
    sigaction(SIGTERM, &oldTerm_, nullptr);
  }

 private:
  struct sigaction oldInt_ {};
  struct sigaction oldTerm_ {};
};

class Printer : public Corvid::RtnlMirror::Listener {
 public:
  Printer(std::ostream& out, bool json, bool links, bool addrs, bool neighs)
      : out_(out), json_(json), links_(links), addrs_(addrs), neighs_(neighs) {}
  void mirrorIs(Corvid::RtnlMirror const* m) { mirror_ = m; }

  void handleChange(Corvid::RtnlMessage const& m, bool swept) override {
    using Kind = Corvid::RtnlMessage::Kind;
    if ((m.kind == Kind::link && !links_) || (m.kind == Kind::addr && !addrs_) || (m.kind == Kind::neigh && !neighs_)) {
      return;
    }
    char const* op = m.deleted ? "del" : "add";
    nlohmann::ordered_json j;
    std::ostringstream line;
    switch (m.kind) {
      case Kind::link:
        j = {{"event", "link"}, {"op", op}, {"ifindex", m.link.ifIndex}, {"name", m.link.name.name().str()},
             {"mac", Brio::strep(m.link.mac).str()}, {"mtu", m.link.mtu}, {"up", m.link.up()}};
        line << "link " << op << ' ' << m.link.ifIndex << ' ' << m.link.name.name() << ' ' << m.link.mac << " mtu "
             << m.link.mtu << (m.link.up() ? " up" : " down");
        break;
      case Kind::addr:
        j = {{"event", "addr"}, {"op", op}, {"ifindex", m.addr.ifIndex}, {"dev", dev(m.addr.ifIndex)},
             {"addr", Brio::strep(m.addr.addr).str()}};
        line << "addr " << op << ' ' << m.addr.addr << " dev " << dev(m.addr.ifIndex);
        break;
      case Kind::neigh:
        j = {{"event", "neigh"},  {"op", op}, {"ifindex", m.neigh.ifIndex}, {"dev", dev(m.neigh.ifIndex)},
             {"dst", Brio::strep(m.neigh.addr).str()}};
        if (m.neigh.hasMac) j["lladdr"] = Brio::strep(m.neigh.mac).str();
        j["state"] = Corvid::neighStateText(m.neigh.state).str();
        line << "neigh " << op << ' ' << m.neigh.addr << " dev " << dev(m.neigh.ifIndex);
        if (m.neigh.hasMac) line << " lladdr " << m.neigh.mac;
        line << ' ' << Corvid::neighStateText(m.neigh.state);
        break;
      default:
        return;
    }
    if (swept) {
      j["swept"] = true;
      line << " (swept after resync)";
    }
    if (json_) {
      out_ << j.dump() << '\n';
    } else {
      out_ << line.str() << '\n';
    }
    out_.flush();
  }

 private:
  std::string dev(S32 ifIndex) const {
    Brio::String name = mirror_ ? mirror_->intfName(ifIndex) : Brio::String();
    return name.empty() ? std::to_string(ifIndex) : name.str();
  }

  std::ostream& out_;
  bool json_, links_, addrs_, neighs_;
  Corvid::RtnlMirror const* mirror_ = nullptr;
};

}  // namespace

int watchCommand(Args const& args, std::ostream& out, std::ostream& err) {
  Options o(args, {"--ns", "--seconds"}, {"--links", "--addrs", "--neigh", "--json"});
  if (!o.rest.empty()) throw UsageError("unexpected argument '" + o.rest[0] + "'");
  bool const all = !o.has("--links") && !o.has("--addrs") && !o.has("--neigh");
  bool const links = all || o.has("--links"), addrs = all || o.has("--addrs"), neighs = all || o.has("--neigh");
  bool const json = o.has("--json");
  double const seconds = o.seconds("--seconds", 0);
  std::string const ns = o.has("--ns") ? o.get("--ns") : Corvid::DEFAULT_NS;
  Corvid::NamespaceName name;
  try {
    name = Corvid::NamespaceName(Brio::String(ns));
  } catch (Brio::RangeException const& e) {
    throw UsageError(std::string("--ns: ") + e.what());
  }
  if (ns != Corvid::DEFAULT_NS && !Corvid::netNsExists(ns.c_str())) {
    err << "corvid watch: namespace '" << ns << "' does not exist (see 'corvid netns list')\n";
    return 1;
  }

  // Links are always watched: they name the interfaces of the other lines.
  U32 groups = RTMGRP_LINK;
  if (addrs) groups |= RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (neighs) groups |= RTMGRP_NEIGH;

  Brio::ActivityManager loop;
  SignalScope signals;
  Printer printer(out, json, links, addrs, neighs);
  Corvid::RtnlMirror mirror(name, groups, &printer);
  printer.mirrorIs(&mirror);
  try {
    mirror.start(true);
  } catch (Brio::ErrnoException const& e) {
    err << "corvid watch: " << e.what();
    if (e.errorNumber() == EPERM) err << " (entering a namespace needs root)";
    err << "\n";
    return 1;
  }
  auto* sm = mirror.sm();
  if (!sm->netlinkFd() || sm->netlinkFd()->descriptor() < 0) {
    err << "corvid watch: cannot open netlink sockets in namespace '" << ns << "'\n";
    return 1;
  }
  if (json) {
    out << nlohmann::ordered_json{{"event", "synced"},
                                  {"ns", ns},
                                  {"links", mirror.links().size()},
                                  {"addrs", mirror.addrs().size()},
                                  {"neighs", mirror.neighs().size()}}
               .dump()
        << '\n';
  } else {
    out << "synced ns " << ns << ": " << mirror.links().size() << " links, " << mirror.addrs().size()
        << " addresses, " << mirror.neighs().size() << " neighbours; following\n";
  }
  out.flush();

  loop.runUntil([] { return interrupted != 0; }, seconds > 0 ? seconds : 1e12);

  if (json) {
    out << nlohmann::ordered_json{{"event", "counters"},
                                  {"resyncs", sm->resyncAttempts()},
                                  {"enobufsCount", sm->enobufsCount()},
                                  {"edumpintrsCount", sm->edumpintrsCount()},
                                  {"doneCount", sm->doneCount()}}
               .dump()
        << '\n';
  } else {
    out << "resyncs " << sm->resyncAttempts() << " enobufsCount " << sm->enobufsCount() << " edumpintrsCount "
        << sm->edumpintrsCount() << " doneCount " << sm->doneCount() << '\n';
  }
  return 0;
}

}  // namespace CorvidTool
