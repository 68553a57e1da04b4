// The neighbour status and input trees: children made once and announced
// once, values announced only when they change.
#include <gtest/gtest.h>
#include <neighbor/ArpStatus.h>

#include <vector>

using namespace Arp;

namespace {

struct ConfigEvents : ArpInputConfig::Notifiee, ArpInputVrfConfig::Notifiee {
  std::vector<std::string> seen;
  void handleVrfConfig(Brio::String const& vrf) override { seen.push_back("vrf " + vrf.str()); }
  void handleArpEntry(IpAddr const& a) override { seen.push_back("arp " + Brio::strep(a).str()); }
};

}  // namespace

TEST(ArpStatus, ChildrenAreMadeOnceAndValuesAnnouncedOnChange) {
  auto config = ArpInputConfig::arpInputConfigFactory("config");
  ConfigEvents events;
  events.ArpInputConfig::Notifiee::notifierIs(config);
  auto blue = config->vrfConfigIs("blue");
  EXPECT_EQ(config->vrfConfigIs("blue"), blue) << "the existing child is returned";
  EXPECT_EQ(config->vrfConfig("blue"), blue.ptr());
  EXPECT_EQ(config->vrfConfig("red"), nullptr);
  events.ArpInputVrfConfig::Notifiee::notifierIs(blue);

  IpAddr const a(10, 0, 0, 1);
  ArpEntryInput const in(a, EthAddr(), ArpSource(ArpSource::ArpSourceId::kernel), ArpType(ArpType::ArpTypeId::dynamic),
                         ArpEntryQuickRefreshTime(5), 1, IntfId("et1"));
  blue->arpEntryIs(a, in);
  blue->arpEntryIs(a, in);  // unchanged: no second announcement
  blue->arpEntryDel(a);
  blue->arpEntryDel(a);  // absent: nothing
  config->vrfConfigDel("blue");
  EXPECT_EQ(events.seen, (std::vector<std::string>{"vrf blue", "arp 10.0.0.1", "arp 10.0.0.1", "vrf blue"}));
}
