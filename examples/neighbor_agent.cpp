// A neighbour agent in two processes, the way the system's agents share
// neighbour state:
//
//   neighbor_agent publish NS [--vrf INTF=VRF]... [--capacity N] [--seconds S]
//       follows namespace NS's neighbours through the netlink watcher
//       (RtnlMirror), names each interface's VRF in the shared VRF id map
//       (its writer), and publishes every neighbour into the shared
//       neighbour table Arp::Table::Status. Interfaces not given a VRF are
//       in "default".
//   neighbor_agent mirror [--vrf VRF] [--seconds S]
//       mounts both tables as a reader and runs ArpShimSm over them; each
//       time the tables are quiet it prints the per-VRF, per-interface
//       status, one "VRF INTF ADDR MAC static|dynamic" line per neighbour,
//       then "end".
//
// Both use the tables "vrfIdMap/status" and "arp/status" under SHOAL_ROOT.
// Stop either with Ctrl-C (or --seconds).
#include <Brio/ActivityManager.h>
#include <Corvid/ArpPublisher.h>
#include <Corvid/ArpShim.h>
#include <Corvid/RtnlMirror.h>
#include <linux/rtnetlink.h>
#include <signal.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

namespace {

char const* const vrfTablePath = "vrfIdMap/status";
char const* const arpTablePath = "arp/status";

volatile sig_atomic_t stopping = 0;

bool runFor(Brio::ActivityManager& loop, double seconds) {
  signal(SIGINT, [](int) { stopping = 1; });
  signal(SIGTERM, [](int) { stopping = 1; });
  return loop.runUntil([] { return stopping != 0; }, seconds > 0 ? seconds : 1e12);
}

int publish(std::string const& ns, std::map<std::string, std::string> const& intfVrf, U32 capacity, double seconds) {
  Brio::ActivityManager loop;
  auto vrfTable = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  auto arpTable = Arp::Table::Status::statusFactory("arp", capacity);
  if (!vrfTable->mount(vrfTablePath, Shoal::MountMode::writer) ||
      !arpTable->mount(arpTablePath, Shoal::MountMode::writer)) {
    std::cerr << "neighbor_agent: cannot write the tables: " << vrfTable->reason() << arpTable->reason() << "\n";
    return 1;
  }
  auto writer = Vrf::VrfIdMap::Writer::writerFactory("neighbor-agent", vrfTable);
  writer->handleInitialized();
  Arp::ArpPublisher publisher(writer, arpTable, [&intfVrf](Brio::String const& intf) {
    auto it = intfVrf.find(intf.str());
    return Brio::String(it == intfVrf.end() ? "default" : it->second);
  });
  Corvid::RtnlMirror mirror(Corvid::NamespaceName(Brio::String(ns)), RTMGRP_LINK | RTMGRP_NEIGH, &publisher);
  publisher.mirrorIs(&mirror);
  mirror.start(true);
  vrfTable->commit();
  arpTable->commit();
  std::cout << "publishing " << arpTable->arpEntries() << " IPv4 and " << arpTable->neighborEntries()
            << " IPv6 neighbours of " << ns << std::endl;
  runFor(loop, seconds);
  auto* sm = mirror.sm();
  std::cout << "resyncs " << sm->resyncAttempts() << " enobufsCount " << sm->enobufsCount() << std::endl;
  return 0;
}

// Prints the shim's status tree once the tables are quiet after a change
// of either (a VRF named late adds its entries too): each change marks the
// tree dirty and asks for a print on the next turn of the loop.
class Printer : public Brio::Clock::Notifiee {
 public:
  Printer(Brio::Ptr<Vrf::VrfIdMap::Status> const& vrfs, Brio::Ptr<Arp::Table::Status> const& arp,
          Arp::ArpVrfStatusDir const* dir)
      : Notifiee(Brio::Clock::clockFactory("print")), vrfs_(vrfs, this), arp_(arp, this), dir_(dir) {
    dirty();
  }

  void dirty() { notifier()->timeMinIs(Brio::now()); }

  void handleWakeup() override {
    if (!vrfs_.notifier()->quiesced() || !arp_.notifier()->quiesced()) return;  // the next change re-arms
    for (auto const& [vrf, neighbors] : dir_->vrfStatuses()) {
      for (auto const& [intf, status] : neighbors->arpIntfStatuses()) {
        auto line = [&](auto const& addr, auto const& e) {
          std::cout << vrf << ' ' << intf.name() << ' ' << addr << ' ' << e.ethAddr() << ' '
                    << (e.isStatic() ? "static" : "dynamic") << '\n';
        };
        for (auto const& [addr, e] : status->arpEntries()) line(addr, e);
        for (auto const& [addr, e] : status->ip6NeighborEntries()) line(addr, e);
      }
    }
    std::cout << "end" << std::endl;
  }

 private:
  struct VrfChanges : Vrf::VrfIdMap::Status::Notifiee {
    VrfChanges(Brio::Ptr<Vrf::VrfIdMap::Status> const& t, Printer* p) : Notifiee(t), printer(p) {}
    void handleVrfIdToName(Vrf::VrfIdMap::VrfId const&) override { printer->dirty(); }
    void handleQuiesced() override { printer->dirty(); }
    Printer* printer;
  };
  struct ArpChanges : Arp::Table::Status::Notifiee {
    ArpChanges(Brio::Ptr<Arp::Table::Status> const& t, Printer* p) : Notifiee(t), printer(p) {}
    void handleArpEntry(Arp::Table::ArpKey const&) override { printer->dirty(); }
    void handleNeighborEntry(Arp::Table::ArpKey const&) override { printer->dirty(); }
    void handleQuiesced() override { printer->dirty(); }
    Printer* printer;
  };
  VrfChanges vrfs_;
  ArpChanges arp_;
  Arp::ArpVrfStatusDir const* dir_;
};

int mirrorTables(std::string const& vrf, double seconds) {
  Brio::ActivityManager loop;
  auto vrfTable = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  auto arpTable = Arp::Table::Status::statusFactory("arp");
  vrfTable->mount(vrfTablePath, Shoal::MountMode::reader);
  arpTable->mount(arpTablePath, Shoal::MountMode::reader);
  auto arpStatus = Arp::NeighborDir::neighborDirFactory("arpStatus");
  auto dir = Arp::ArpVrfStatusDir::arpVrfStatusDirFactory("arpVrfStatusDir");
  auto shim = Arp::arpShimSmFactory(arpTable, vrfTable, Brio::String(vrf), true, true, arpStatus, dir);
  Printer printer(vrfTable, arpTable, dir.ptr());
  runFor(loop, seconds);
  return 0;
}

int usage() {
  std::cerr << "usage: neighbor_agent publish NS [--vrf INTF=VRF]... [--capacity N] [--seconds S]\n"
               "       neighbor_agent mirror [--vrf VRF] [--seconds S]\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  std::string const mode = argv[1];
  std::string ns, vrf;
  std::map<std::string, std::string> intfVrf;
  double seconds = 0;
  U32 capacity = Arp::Table::Status::defaultCapacity;
  for (int i = 2; i < argc; ++i) {
    std::string const a = argv[i];
    if (a == "--seconds" && i + 1 < argc) {
      seconds = std::atof(argv[++i]);
    } else if (a == "--capacity" && i + 1 < argc) {
      capacity = static_cast<U32>(std::strtoul(argv[++i], nullptr, 10));
    } else if (a == "--vrf" && i + 1 < argc) {
      std::string const v = argv[++i];
      auto eq = v.find('=');
      if (mode == "publish" && eq != std::string::npos) {
        intfVrf[v.substr(0, eq)] = v.substr(eq + 1);
      } else if (mode == "mirror") {
        vrf = v;
      } else {
        return usage();
      }
    } else if (mode == "publish" && ns.empty()) {
      ns = a;
    } else {
      return usage();
    }
  }
  if (mode == "publish" && !ns.empty()) return publish(ns, intfVrf, capacity, seconds);
  if (mode == "mirror") return mirrorTables(vrf, seconds);
  return usage();
}
