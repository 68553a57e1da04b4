#include <routing/Vni.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ValueCases.h"

using namespace Vxlan;
using namespace CorvidTest;

namespace {

TEST(Vni, RangeAndTextTable) {
  OutcomeRow const cases[] = {
      {"0", "= 0"},
      {"16777215", "= 16777215"},
      {"00042", "= 42"},
      {"16777216", "Vni::value < Vni::min or > Vni::max not allowed"},
      {"99999999999999999999999", "Vni::value < Vni::min or > Vni::max not allowed"},
      {"", "Invalid Vni"},
      {"x1", "Invalid Vni"},
      {"+1", "Invalid Vni"},
  };
  expectOutcomes(cases, strepOutcome<Vni>);
  EXPECT_THROW(Vni(16777216), Brio::RangeException);
}

TEST(VniOrNone, NoneIsTheDefaultAndPrintsAsNone) {
  OutcomeRow const cases[] = {
      {"none", "= none"},
      {"16777216", "= none"},
      {"16777215", "= 16777215"},
      {"16777217", "VniOrNone::value < 0 or > 0x1000000 not allowed"},
      {"non", "Invalid VniOrNone"},
      {"n", "Invalid VniOrNone"},
      {"", "Invalid VniOrNone"},
  };
  expectOutcomes(cases, strepOutcome<VniOrNone>);
  EXPECT_TRUE(VniOrNone().isNone());
  EXPECT_EQ(VniOrNone(Vni(7)).vni(), Vni(7));
  EXPECT_THROW(VniOrNone().vni(), Brio::RangeException);
  EXPECT_LT(VniOrNone(Vni(7)), VniOrNone());
}

TEST(VniExt, DomainQualifiedTextTable) {
  OutcomeRow const cases[] = {
      {"10000", "= 10000"},
      {"0:10000", "= 10000"},
      {"2:10000", "= 2:10000"},
      {"254:16777215", "= 254:16777215"},
      {"255:1", "VniExt::value < VniExt::min or > VniExt::max not allowed"},
      {"256:1", "Invalid VniExt String"},
      {"2:16777216", "Vni::value < Vni::min or > Vni::max not allowed"},
      {"16777216", "Vni::value < Vni::min or > Vni::max not allowed"},
      {"2:", "Invalid VniExt String"},
      {":5", "Invalid VniExt String"},
      {"", "Invalid VniExt String"},
  };
  expectOutcomes(cases, strepOutcome<VniExt>);
  VniExt const v(3, Vni(500));
  EXPECT_EQ(v.domain(), 3);
  EXPECT_EQ(v.vni(), Vni(500));
  EXPECT_EQ(v.value(), 0x030001f4u);
  EXPECT_THROW(VniExt(0xff000000u), Brio::RangeException);
  // Every cut of a good text either reads a value or is refused.
  std::string const full = "254:16777215";
  for (std::size_t n = 0; n < full.size(); ++n) {
    std::string const outcome = strepOutcome<VniExt>(full.substr(0, n));
    EXPECT_TRUE(outcome[0] == '=' || outcome == "Invalid VniExt String") << outcome;
  }
}

TEST(Vni, AttrLogIsTheNumberAndIsCheckedOnReading) {
  expectAttrLogRoundTrip(Vni(0x123456));
  EXPECT_THROW(attrLogReadOf<Vni>(U32(0x1000000)), Brio::RangeException);
}

}  // namespace
