#include <routing/VrfNameAndIp.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <set>

using namespace L3;
using Corvid::IpAddr;
using Corvid::IpGenAddr;

namespace {

IpAddr ip(char const* text) { return Brio::strepToValue<IpAddr>(text); }

TEST(VrfNameAndIp, RecordTextReadsBackAndOrdersByFields) {
  VrfNameAndIp const a(VrfName("blue"), ip("10.0.0.1"));
  EXPECT_EQ(valueToStrep(a), "Value('L3::VrfNameAndIp', ** {'vrfName': 'blue', 'ipAddr': 10.0.0.1})");
  EXPECT_EQ(Brio::strepToValue<VrfNameAndIp>(valueToStrep(a)), a);
  EXPECT_LT(VrfNameAndIp(VrfName("blue"), ip("10.0.0.9")),
            VrfNameAndIp(VrfName("red"), ip("10.0.0.1")));
  EXPECT_LT(VrfNameAndIp(VrfName("blue"), ip("10.0.0.2")),
            VrfNameAndIp(VrfName("blue"), ip("10.0.0.10")));
  EXPECT_NE(a.hash(1), VrfNameAndIp(VrfName("red"), a.ipAddr()).hash(1));
  try {
    Brio::strepToValue<VrfNameAndIp>("Value('L3::VrfNameAndIp', ** {'vrfName': 'blue', 'ipAddr': 10.0.0})");
    ADD_FAILURE();
  } catch (Brio::RangeException const& e) {
    EXPECT_STREQ(e.what(), "Invalid IpAddr");
  }
}

TEST(VrfNameAndIpGen, RecordTextAndAttrLogRoundTrip) {
  VrfNameAndIpGen const a(VrfName("default"), Brio::strepToValue<IpGenAddr>("fe80::1"));
  EXPECT_EQ(valueToStrep(a), "Value('L3::VrfNameAndIpGen', ** {'vrfName': 'default', 'ipGenAddr': fe80::1})");
  EXPECT_EQ(Brio::strepToValue<VrfNameAndIpGen>(valueToStrep(a)), a);
  Brio::NboAttrLog log;
  attrLogWrite(log, a);
  attrLogWrite(log, VrfNameAndIp(VrfName("x"), ip("1.2.3.4")));
  Brio::NboAttrLog in(log.data());
  EXPECT_EQ(attrLogRead(in, static_cast<VrfNameAndIpGen*>(nullptr)), a);
  EXPECT_EQ(attrLogRead(in, static_cast<VrfNameAndIp*>(nullptr)),
            VrfNameAndIp(VrfName("x"), ip("1.2.3.4")));
  EXPECT_TRUE(in.atEnd());
}

}  // namespace
