#include <Corvid/Port.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include "routing/TextOutcome.h"

using namespace Corvid;

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
  Brio::NboAttrLog log;
  attrLogWrite(log, Port(0x1234));
  attrLogWrite(log, IpDscp(63));
  EXPECT_EQ(log.data(), Brio::Bytes(std::string("\x12\x34\x3f", 3)));
  Brio::NboAttrLog in(log.data());
  EXPECT_EQ(attrLogRead(in, static_cast<Port*>(nullptr)), Port(0x1234));
  EXPECT_EQ(attrLogRead(in, static_cast<IpDscp*>(nullptr)), IpDscp(63));
  Brio::NboAttrLog bad;
  bad.writeU8(64);
  Brio::NboAttrLog badIn(bad.data());
  EXPECT_THROW(attrLogRead(badIn, static_cast<IpDscp*>(nullptr)), Brio::RangeException);
}

}  // namespace
