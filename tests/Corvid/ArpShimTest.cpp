// The shim over the shared neighbour and VRF tables, in one process over
// unmounted tables. Across processes it runs in the neighbour agent example,
// whose test checks it against the kernel.
#include <Corvid/ArpShim.h>
#include <Glimmer/Glimmer.h>
#include <gtest/gtest.h>

#include <sstream>

using namespace Arp;
using Vrf::VrfIdMap::VrfEntry;
using Vrf::VrfIdMap::VrfId;

namespace {

Table::ArpEntry entry(U32 vrf, char const* addr, char const* intf, U8 macByte = 1, bool isStatic = false) {
  U8 const wire[6] = {2, 0, 0, 0, 0, macByte};
  return Table::ArpEntry(Table::ArpKey(VrfId(vrf), Brio::strepToValue<IpGenAddr>(addr), IntfId(intf)), EthAddr(wire),
                         isStatic, ArpSource(ArpSource::ArpSourceId::kernel));
}

// The status tree as text: "vrf intf addr mac" lines, sorted.
std::string tree(ArpVrfStatusDir const& dir) {
  std::ostringstream os;
  for (auto const& [vrf, neighbors] : dir.vrfStatuses()) {
    os << vrf << ':';
    for (auto const& [intf, status] : neighbors->arpIntfStatuses()) {
      for (auto const& [a, e] : status->arpEntries()) os << ' ' << intf.name() << ' ' << a << ' ' << e.ethAddr();
      for (auto const& [a, e] : status->ip6NeighborEntries()) os << ' ' << intf.name() << ' ' << a << ' ' << e.ethAddr();
    }
    os << ';';
  }
  return os.str();
}

struct Tables {
  Brio::Ptr<Vrf::VrfIdMap::Status> vrfs = Vrf::VrfIdMap::Status::statusFactory("vrfs");
  Brio::Ptr<Table::Status> arp = Table::Status::statusFactory("arp", 64);
  Brio::Ptr<NeighborDir> arpStatus = NeighborDir::neighborDirFactory("arpStatus");
  Brio::Ptr<ArpVrfStatusDir> dir = ArpVrfStatusDir::arpVrfStatusDirFactory("dir");
  Brio::Ptr<ArpShimSm> shim(char const* vrfOfInterest, bool v4, bool v6) {
    return arpShimSmFactory(arp, vrfs, vrfOfInterest, v4, v6, arpStatus, dir);
  }
};

}  // namespace

TEST(ArpShim, MirrorsByFamilyAndFollowsVrfsComingAndGoing) {
  Tables t;
  t.vrfs->vrfIdToNameIs(VrfEntry(VrfId(5), "blue"));
  t.arp->arpEntryIs(entry(5, "10.0.0.1", "et1"));
  t.arp->arpEntryIs(entry(5, "10.0.0.3", "et1", 3));
  t.arp->neighborEntryIs(entry(5, "2001:db8::1", "et1"));
  t.arp->arpEntryIs(entry(7, "10.0.0.2", "et2", 2));  // VRF 7 has no name yet
  Glimmer::enable("Corvid", 6);
  Glimmer::Capture trace;
  auto shim = t.shim("", true, false);
  EXPECT_EQ(tree(*t.dir), "blue: et1 10.0.0.1 02:00:00:00:00:01 et1 10.0.0.3 02:00:00:00:00:03;");
  EXPECT_TRUE(trace.contains("  can't find vrf name for vrf id: 7"));

  // Named later: the entry is added once the mapper has cached the name.
  t.vrfs->vrfIdToNameIs(VrfEntry(VrfId(7), "red"));
  EXPECT_EQ(tree(*t.dir),
            "blue: et1 10.0.0.1 02:00:00:00:00:01 et1 10.0.0.3 02:00:00:00:00:03;red: et2 10.0.0.2 02:00:00:00:00:02;");

  // The last address of an interface takes the interface with it.
  t.arp->arpEntryDel(entry(7, "10.0.0.2", "et2").key());
  t.arp->arpEntryDel(entry(5, "10.0.0.1", "et1").key());
  EXPECT_NE(t.dir->vrfStatus("blue")->arpIntfStatus(IntfId("et1")), nullptr) << "10.0.0.3 is left";
  t.arp->arpEntryIs(entry(5, "10.0.0.3", "et1", 9));
  EXPECT_EQ(tree(*t.dir), "blue: et1 10.0.0.3 02:00:00:00:00:09;red:;");

  t.vrfs->vrfIdToNameDel(VrfId(7));
  EXPECT_EQ(t.dir->vrfStatus("red"), nullptr);
  Glimmer::enable("Corvid", -1);
}

TEST(ArpShim, VrfOfInterestFillsArpStatusAndIgnoresOthers) {
  Tables t;
  t.vrfs->vrfIdToNameIs(VrfEntry(VrfId(0), "default"));
  t.vrfs->vrfIdToNameIs(VrfEntry(VrfId(5), "blue"));
  t.arp->neighborEntryIs(entry(0, "2001:db8::7", "et7"));
  t.arp->neighborEntryIs(entry(5, "2001:db8::5", "et5", 5, true));
  auto shim = t.shim("blue", false, true);
  EXPECT_EQ(tree(*t.dir), "blue: et5 2001:db8::5 02:00:00:00:00:05;");
  EXPECT_EQ(t.dir->vrfStatus("blue"), t.arpStatus.ptr());
  auto const stored = t.arpStatus->arpIntfStatus(IntfId("et5"))->ip6NeighborEntry(
      Brio::strepToValue<Ip6Addr>("2001:db8::5"));
  EXPECT_TRUE(stored.isStatic());
  EXPECT_EQ(stored.source().id(), ArpSource::ArpSourceId::kernel);
  t.arp->neighborEntryIs(entry(0, "2001:db8::8", "et8"));
  EXPECT_EQ(t.arpStatus->arpIntfStatuses().size(), 1u);

  t.vrfs->vrfIdToNameDel(VrfId(5));
  EXPECT_EQ(t.dir->vrfStatuses().size(), 0u);
  EXPECT_EQ(t.arpStatus->arpIntfStatuses().size(), 0u) << "the VRF's interfaces go with it";
}

TEST(ArpShimDeathTest, NeedsAFamilyAndItsOutputs) {
  Tables t;
  EXPECT_DEATH(t.shim("", false, false), "v4\\(\\) \\|\\| v6\\(\\)");
  EXPECT_DEATH(arpShimSmFactory(t.arp, t.vrfs, "", true, true, t.arpStatus, nullptr), "arpVrfStatusDir\\(\\)");
}
