#include <Corvid/Port.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include "support/ValueCases.h"

using namespace Corvid;
using namespace CorvidTest;

namespace {

TEST(SmallHeaderValues, RangesTextAndDefaults) {
  EXPECT_EQ(Brio::strepToValue<Port>("65535"), Port(65535));
  EXPECT_EQ(strepOutcome<Port>("65536"), "Port::value < Port::min or > Port::max not allowed");
  EXPECT_EQ(strepOutcome<Port>("http"), "Invalid Port");
  EXPECT_EQ(strepOutcome<Port>("-1"), "Invalid Port");
  EXPECT_EQ(IpTtl().value(), 64);
  EXPECT_EQ(strepOutcome<IpTtl>("256"), "IpTtl::value < IpTtl::min or > IpTtl::max not allowed");
  EXPECT_EQ(Brio::strepToValue<IpDscp>("46").tosByte(), 0xb8);
  EXPECT_EQ(strepOutcome<IpDscp>("64"), "IpDscp::value < IpDscp::min or > IpDscp::max not allowed");
  EXPECT_THROW(IpDscp(64), Brio::RangeException);
  EXPECT_LT(Port(80), Port(443));
  EXPECT_EQ(valueToStrep(Port(8080)), "8080");
  EXPECT_EQ(expectAttrLogRoundTrip(Port(0x1234), IpDscp(63)), Brio::Bytes(std::string("\x12\x34\x3f", 3)));
  EXPECT_THROW(attrLogReadOf<IpDscp>(U8(64)), Brio::RangeException);
}

}  // namespace
