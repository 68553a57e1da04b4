#include <routing/VrfNameAndIp.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <set>

#include "support/ValueCases.h"

using namespace L3;
using namespace CorvidTest;
using Corvid::IpAddr;
using Corvid::IpGenAddr;

namespace {

IpAddr ip(char const* text) { return Brio::strepToValue<IpAddr>(text); }

TEST(VrfNameAndIp, RecordTextReadsBackAndOrdersByFields) {
  VrfNameAndIp const a(VrfName("blue"), ip("10.0.0.1"));
  EXPECT_EQ(expectStrepRoundTrip(a), "Value('L3::VrfNameAndIp', ** {'vrfName': 'blue', 'ipAddr': 10.0.0.1})");
  EXPECT_LT(VrfNameAndIp(VrfName("blue"), ip("10.0.0.9")),
            VrfNameAndIp(VrfName("red"), ip("10.0.0.1")));
  EXPECT_LT(VrfNameAndIp(VrfName("blue"), ip("10.0.0.2")),
            VrfNameAndIp(VrfName("blue"), ip("10.0.0.10")));
  EXPECT_NE(a.hash(1), VrfNameAndIp(VrfName("red"), a.ipAddr()).hash(1));
  EXPECT_EQ(strepOutcome<VrfNameAndIp>("Value('L3::VrfNameAndIp', ** {'vrfName': 'blue', 'ipAddr': 10.0.0})"),
            "Invalid IpAddr");
}

TEST(VrfNameAndIpGen, RecordTextAndAttrLogRoundTrip) {
  VrfNameAndIpGen const a(VrfName("default"), Brio::strepToValue<IpGenAddr>("fe80::1"));
  EXPECT_EQ(expectStrepRoundTrip(a), "Value('L3::VrfNameAndIpGen', ** {'vrfName': 'default', 'ipGenAddr': fe80::1})");
  expectAttrLogRoundTrip(a, VrfNameAndIp(VrfName("x"), ip("1.2.3.4")));
}

}  // namespace
