#include <routing/Evpn.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ValueCases.h"

using namespace Evpn;
using namespace CorvidTest;

namespace {

TEST(Esid, TextTableFollowsTheEthernetAddressRules) {
  OutcomeRow const cases[] = {
      {"00:11:22:33:44:55:66:77:88:99", "= 00:11:22:33:44:55:66:77:88:99"},
      {"03-00-1C-73-0a-0b-0c-00-00-01", "= 03:00:1c:73:0a:0b:0c:00:00:01"},
      {"0300.1c73.0a0b.0c00.0001", "= 03:00:1c:73:0a:0b:0c:00:00:01"},
      {"00:11:22:33:44:55:66:77:88", "Invalid Esid"},
      {"00:11:22:33:44:55:66:77:88:100", "Invalid Esid"},
      {"0300.1c73.0a0b.0c00", "Invalid Esid"},
      {"", "Invalid Esid"},
  };
  expectOutcomes(cases, strepOutcome<Esid>);
  Esid e("03:00:1c:73:0a:0b:0c:00:00:01");
  EXPECT_EQ(e.type(), 3);
  EXPECT_EQ(errorOf([&] { e.stringValueIs("00:11:22:33:44:55:66:77:88:99 "); }), "Invalid Esid");
  EXPECT_EQ(e.type(), 3) << "a failed stringValueIs keeps the value";
  EXPECT_TRUE(Esid().isZero());
  EXPECT_TRUE(Esid("ff:ff:ff:ff:ff:ff:ff:ff:ff:ff").isMax());
  EXPECT_FALSE(e.isMax());
  EXPECT_LT(Esid(), e);
}

TEST(EncapTypeLabel, LabelRangeFollowsTheEncapsulation) {
  OutcomeRow const cases[] = {
      {"mpls:100", "= mpls:100"},
      {"mpls:1048575", "= mpls:1048575"},
      {"mpls:1048576", "EncapTypeLabel::label too large for its encapsulation"},
      {"vxlan:16777215", "= vxlan:16777215"},
      {"vxlan:16777216", "EncapTypeLabel::label too large for its encapsulation"},
      {"vxlan:99999999999999999999", "EncapTypeLabel::label too large for its encapsulation"},
      {"gre:1", "Invalid EncapTypeLabel"},
      {"mpls:", "Invalid EncapTypeLabel"},
      {"mpls", "Invalid EncapTypeLabel"},
      {"", "Invalid EncapTypeLabel"},
  };
  expectOutcomes(cases, strepOutcome<EncapTypeLabel>);
  EXPECT_LT(EncapTypeLabel(EncapType::vxlan, 5), EncapTypeLabel(EncapType::mpls, 1));
}

TEST(Evpn, AttrLogRoundTripAndRefusesUnknownTunnelTypes) {
  expectAttrLogRoundTrip(Esid("03:00:1c:73:0a:0b:0c:00:00:01"), EncapTypeLabel(EncapType::vxlan, 10000));
  EXPECT_THROW(attrLogReadOf<EncapTypeLabel>(U8(9), U32(1)), Brio::RangeException);
}

}  // namespace
