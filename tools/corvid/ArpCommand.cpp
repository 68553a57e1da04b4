// `corvid arp`: the shared neighbour table and the kernel's IPv6 neighbours.
//
//   arp dump [--table PATH] [--json]            every entry, IPv4 then IPv6
//   arp watch [--table PATH] [--seconds S] [--json]
//                                               the entries, then each change
//   arp add6 [--ns NS] --dev DEV ADDR MAC [--state permanent|stale|reachable|use]
//   arp del6 [--ns NS] --dev DEV ADDR           install or remove one IPv6
//                                               neighbour in the kernel
//
// The table is "arp/status" under SHOAL_ROOT unless --table says otherwise;
// dump and watch mount it as a reader and never disturb its writer.
#include <Brio/ActivityManager.h>
#include <Corvid/ArpWrapper.h>
#include <Corvid/NetlinkUtils.h>
#include <Corvid/NetnsUtils.h>
#include <neighbor/ArpTable.h>
#include <net/if.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <ostream>

#include "Command.h"
#include "Options.h"

namespace CorvidTool {

namespace {

using Arp::Table::ArpEntry;
using Arp::Table::ArpKey;

char const* const defaultTable = "arp/status";

volatile sig_atomic_t interrupted = 0;

nlohmann::ordered_json toJson(ArpEntry const& e, char const* event) {
  nlohmann::ordered_json j;
  if (event) j["event"] = event;
  j["vrfId"] = e.key().vrfId().value();
  j["addr"] = Brio::strep(e.key().addr()).str();
  j["intf"] = e.key().intfId().name().str();
  j["mac"] = Brio::strep(e.ethAddr()).str();
  j["static"] = e.isStatic();
  j["source"] = Arp::toString(e.source().id());
  return j;
}

// Mounts the table as a reader and waits (bounded) for it to appear.
Brio::Ptr<Arp::Table::Status> mountReader(Options const& o, std::ostream& err) {
  auto table = Arp::Table::Status::statusFactory("arp");
  std::string const path = o.has("--table") ? o.get("--table") : defaultTable;
  table->mount(Brio::String(path), Shoal::MountMode::reader);
  Brio::ActivityManager::current()->runUntil(
      [&] { return table->mountStatus() == Shoal::MountStatus::mounted && table->quiesced(); }, 2);
  if (table->mountStatus() != Shoal::MountStatus::mounted) {
    err << "corvid arp: table " << Shoal::filePath(Brio::String(path)) << " is not there: " << table->reason()
        << "\n";
    return nullptr;
  }
  return table;
}

void printAll(Arp::Table::Status const& t, bool json, std::ostream& out) {
  auto one = [&](ArpKey const&, ArpEntry const& e) {
    if (json) {
      out << toJson(e, nullptr).dump() << '\n';
    } else {
      out << e.shoalString() << '\n';
    }
  };
  t.arpEntryForEach(one);
  t.neighborEntryForEach(one);
}

class ChangePrinter : public Arp::Table::Status::Notifiee {
 public:
  ChangePrinter(Brio::Ptr<Arp::Table::Status> const& t, bool json, std::ostream& out)
      : Notifiee(t), json_(json), out_(out) {}
  void handleArpEntry(ArpKey const& key) override { print(key, notifier()->arpEntry(key)); }
  void handleNeighborEntry(ArpKey const& key) override { print(key, notifier()->neighborEntry(key)); }

 private:
  void print(ArpKey const& key, ArpEntry const& e) {
    ArpEntry const shown = e ? e : ArpEntry(key, Corvid::EthAddr(), false, Arp::ArpSource());
    if (json_) {
      out_ << toJson(shown, e ? "set" : "del").dump() << '\n';
    } else {
      out_ << (e ? "set " : "del ") << shown.shoalString() << '\n';
    }
    out_.flush();
  }
  bool json_;
  std::ostream& out_;
};

int dumpOrWatch(Options const& o, bool watch, std::ostream& out, std::ostream& err) {
  Brio::ActivityManager loop;
  auto table = mountReader(o, err);
  if (!table) return 1;
  printAll(*table, o.has("--json"), out);
  if (!watch) return 0;
  out.flush();
  ChangePrinter printer(table, o.has("--json"), out);
  interrupted = 0;
  struct sigaction sa {};
  sa.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  double const seconds = o.seconds("--seconds", 0);
  loop.runUntil([] { return interrupted != 0; }, seconds > 0 ? seconds : 1e12);
  return 0;
}

// The interface index of `dev` inside namespace `ns`.
int ifIndexIn(std::string const& ns, std::string const& dev) {
  int sd = Corvid::socketAt(AF_INET, SOCK_DGRAM, 0, ns.c_str());
  if (sd < 0) return -1;
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, dev.c_str(), IFNAMSIZ - 1);
  int const rc = ioctl(sd, SIOCGIFINDEX, &ifr);
  int const e = errno;
  close(sd);
  errno = e;
  return rc == 0 ? ifr.ifr_ifindex : -1;
}

int neighbor6(Options const& o, bool add, std::ostream& out, std::ostream& err) {
  std::size_t const words = add ? 3 : 2;
  if (o.rest.size() != words) throw UsageError(add ? "add6 takes ADDR MAC" : "del6 takes ADDR");
  if (!o.has("--dev")) throw UsageError("missing --dev DEV");
  Corvid::Ip6Addr addr;
  Corvid::EthAddr mac;
  try {
    addr = Brio::strepToValue<Corvid::Ip6Addr>(Brio::String(o.rest[1]));
    if (add) mac = Brio::strepToValue<Corvid::EthAddr>(Brio::String(o.rest[2]));
  } catch (Brio::RangeException const& e) {
    throw UsageError(e.what());
  }
  static constexpr std::pair<char const*, Arp::NeighState> states[] = {{"permanent", Arp::NeighState::permanent},
                                                                       {"stale", Arp::NeighState::stale},
                                                                       {"reachable", Arp::NeighState::reachable},
                                                                       {"use", Arp::NeighState::use}};
  Arp::NeighState state = Arp::NeighState::permanent;
  if (o.has("--state")) {
    bool known = false;
    for (auto const& [name, s] : states) {
      if (o.get("--state") == name) {
        state = s;
        known = true;
      }
    }
    if (!known) throw UsageError("--state takes permanent, stale, reachable or use");
  }
  std::string const ns = o.has("--ns") ? o.get("--ns") : Corvid::DEFAULT_NS;
  int const ifIndex = ifIndexIn(ns, o.get("--dev"));
  if (ifIndex < 0) {
    err << "corvid arp: " << o.get("--dev") << " in namespace " << ns << ": " << std::strerror(errno) << "\n";
    return 1;
  }
  try {
    Corvid::netlinkHandle h;
    Corvid::createNetlinkSocket(&h, 0, ns.c_str(), NETLINK_ROUTE, false, 0);
    U32 const seq = add ? Arp::ip6NeighAdd(h.fd, static_cast<U32>(ifIndex), addr, mac, state)
                        : Arp::ip6NeighDel(h.fd, static_cast<U32>(ifIndex), addr, state);
    int const rc = Corvid::getNetlinkResponse(h.fd, seq);
    Corvid::closeNetlinkSocket(&h);
    if (rc != 0) {
      err << "corvid arp: the kernel refused: " << std::strerror(-rc) << "\n";
      return 1;
    }
  } catch (std::exception const& e) {
    err << "corvid arp: " << e.what() << "\n";
    return 1;
  }
  if (o.has("--json")) {
    out << nlohmann::ordered_json{{"op", add ? "add6" : "del6"}, {"addr", Brio::strep(addr).str()},
                                  {"dev", o.get("--dev")}, {"ok", true}}
               .dump()
        << '\n';
  }
  return 0;
}

}  // namespace

int arpCommand(Args const& args, std::ostream& out, std::ostream& err) {
  Options o(args, {"--table", "--seconds", "--ns", "--dev", "--state"}, {"--json"});
  if (o.rest.empty()) throw UsageError("missing dump, watch, add6 or del6");
  std::string const verb = o.rest[0];
  if (verb == "dump" || verb == "watch") {
    if (o.rest.size() != 1) throw UsageError("unexpected argument '" + o.rest[1] + "'");
    return dumpOrWatch(o, verb == "watch", out, err);
  }
  if (verb == "add6" || verb == "del6") return neighbor6(o, verb == "add6", out, err);
  throw UsageError("unknown arp command '" + verb + "'");
}

}  // namespace CorvidTool
