#include <routing/FlexAlgo.h>
#include <routing/L2Vpn.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include "support/ValueCases.h"

using namespace CorvidTest;

namespace {

TEST(FlexAlgoId, OnlyTheFlexibleRangeIsAccepted) {
  EXPECT_EQ(strepOutcome<Routing::FlexAlgoId>("128"), "= 128");
  EXPECT_EQ(strepOutcome<Routing::FlexAlgoId>("255"), "= 255");
  EXPECT_EQ(strepOutcome<Routing::FlexAlgoId>("127"), "FlexAlgoId::value < FlexAlgoId::min or > FlexAlgoId::max not allowed");
  EXPECT_EQ(strepOutcome<Routing::FlexAlgoId>("256"), "FlexAlgoId::value < FlexAlgoId::min or > FlexAlgoId::max not allowed");
  EXPECT_EQ(strepOutcome<Routing::FlexAlgoId>("spf"), "Invalid FlexAlgoId");
  EXPECT_EQ(Routing::FlexAlgoId().value(), 128);
}

TEST(PwId, ZeroIsRefused) {
  EXPECT_EQ(strepOutcome<Routing::L2Vpn::PwId>("0"), "PwId::value < PwId::min or > PwId::max not allowed");
  EXPECT_EQ(strepOutcome<Routing::L2Vpn::PwId>("4294967295"), "= 4294967295");
  EXPECT_EQ(strepOutcome<Routing::L2Vpn::PwId>("4294967296"), "PwId::value < PwId::min or > PwId::max not allowed");
  EXPECT_THROW(Routing::L2Vpn::PwId(0), Brio::RangeException);
}

}  // namespace
