#include <routing/Evpn.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include "routing/TextOutcome.h"

#include <string>

using namespace Evpn;

namespace {

struct TextCase {
  char const* text;
  char const* outcome;
};

TEST(Esid, TextTableFollowsTheEthernetAddressRules) {
  TextCase const cases[] = {
      {"00:11:22:33:44:55:66:77:88:99", "= 00:11:22:33:44:55:66:77:88:99"},
      {"03-00-1C-73-0a-0b-0c-00-00-01", "= 03:00:1c:73:0a:0b:0c:00:00:01"},
      {"0300.1c73.0a0b.0c00.0001", "= 03:00:1c:73:0a:0b:0c:00:00:01"},
      {"00:11:22:33:44:55:66:77:88", "Invalid Esid"},
      {"00:11:22:33:44:55:66:77:88:100", "Invalid Esid"},
      {"0300.1c73.0a0b.0c00", "Invalid Esid"},
      {"", "Invalid Esid"},
  };
  for (auto const& c : cases) EXPECT_EQ(strepOutcome<Esid>(c.text), c.outcome) << c.text;
  Esid e("03:00:1c:73:0a:0b:0c:00:00:01");
  EXPECT_EQ(e.type(), 3);
  try {
    e.stringValueIs("00:11:22:33:44:55:66:77:88:99 ");
    ADD_FAILURE();
  } catch (Brio::RangeException const& ex) {
    EXPECT_STREQ(ex.what(), "Invalid Esid");
  }
  EXPECT_EQ(e.type(), 3) << "a failed stringValueIs keeps the value";
  EXPECT_TRUE(Esid().isZero());
  EXPECT_TRUE(Esid("ff:ff:ff:ff:ff:ff:ff:ff:ff:ff").isMax());
  EXPECT_FALSE(e.isMax());
  EXPECT_LT(Esid(), e);
}

TEST(EncapTypeLabel, LabelRangeFollowsTheEncapsulation) {
  TextCase const cases[] = {
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
  for (auto const& c : cases) EXPECT_EQ(strepOutcome<EncapTypeLabel>(c.text), c.outcome) << c.text;
  EXPECT_EQ(static_cast<int>(EncapType::vxlan), 8);
  EXPECT_EQ(static_cast<int>(EncapType::mpls), 10);
  EXPECT_LT(EncapTypeLabel(EncapType::vxlan, 5), EncapTypeLabel(EncapType::mpls, 1));
}

TEST(Evpn, AttrLogRoundTripAndRefusesUnknownTunnelTypes) {
  Brio::NboAttrLog log;
  attrLogWrite(log, Esid("03:00:1c:73:0a:0b:0c:00:00:01"));
  attrLogWrite(log, EncapTypeLabel(EncapType::vxlan, 10000));
  log.writeU8(9);
  log.writeU32(1);
  Brio::NboAttrLog in(log.data());
  EXPECT_EQ(attrLogRead(in, static_cast<Esid*>(nullptr)), Esid("03:00:1c:73:0a:0b:0c:00:00:01"));
  EXPECT_EQ(attrLogRead(in, static_cast<EncapTypeLabel*>(nullptr)), EncapTypeLabel(EncapType::vxlan, 10000));
  EXPECT_THROW(attrLogRead(in, static_cast<EncapTypeLabel*>(nullptr)), Brio::RangeException);
}

}  // namespace
