#include <Corvid/VrfName.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ValueCases.h"

using namespace CorvidTest;
using Corvid::NamespaceName;
using L3::VrfName;

namespace {

std::string const vrfLengthMessage = "VrfName::value::bytes > VrfName::maxLength not allowed";

TEST(VrfName, NamedValuesAndDefault) {
  EXPECT_EQ(VrfName().value(), "default");
  EXPECT_TRUE(VrfName().isDefault());
  EXPECT_EQ(VrfName::defaultVrf(), VrfName());
  EXPECT_FALSE(VrfName("blue").isDefault());
  EXPECT_FALSE(VrfName("Default").isDefault());
}

TEST(VrfName, LengthLimitIs100BytesAndFailureKeepsTheValue) {
  EXPECT_EQ(VrfName(std::string(100, 'v')).value().bytes(), 100u);
  VrfName v("blue");
  EXPECT_EQ(errorOf([&] { v.stringValueIs(std::string(101, 'v')); }), vrfLengthMessage);
  EXPECT_EQ(v.stringValue(), "blue");
  EXPECT_THROW(VrfName(Brio::String(std::string(101, 'v'))), Brio::RangeException);
}

TEST(VrfName, StrepIsQuotedAndReadsBackAnyBytes) {
  struct {
    char const* name;
    char const* strep;
  } const cases[] = {{"blue", "'blue'"}, {"", "''"}, {"it's", "'it\\'s'"}, {"multiple source VRFs", "'multiple source VRFs'"}};
  for (auto const& c : cases) EXPECT_EQ(expectStrepRoundTrip(VrfName(c.name)), c.strep);
  EXPECT_EQ(strepOutcome<VrfName>("'" + std::string(101, 'x') + "'"), vrfLengthMessage);
}

TEST(VrfName, NetNsVrfStripsTheNamespacePrefix) {
  EXPECT_EQ(VrfName::netNsVrf(NamespaceName("ns-blue")), VrfName("blue"));
  EXPECT_EQ(VrfName::netNsVrf(NamespaceName("default")), VrfName("default"));
  EXPECT_EQ(VrfName::netNsVrf(NamespaceName()), VrfName::defaultVrf());
  EXPECT_EQ(VrfName::netNsVrf(NamespaceName("ns-")), VrfName(""));
  // A namespace name can be longer than any VRF name.
  EXPECT_THROW(VrfName::netNsVrf(NamespaceName(Brio::String("ns-" + std::string(101, 'x')))),
               Brio::RangeException);
}

TEST(VrfNameDeathTest, NetNsVrfOfANonVrfNamespaceAborts) {
  EXPECT_DEATH(VrfName::netNsVrf(NamespaceName("blue")), "netNs.value\\(\\).charPos\\( nsPrefix \\) == 0");
  EXPECT_DEATH(VrfName::netNsVrf(NamespaceName("xns-blue")), "netNs.value\\(\\).charPos\\( nsPrefix \\) == 0");
}

TEST(NamespaceName, DefaultLimitAndAttrLog) {
  EXPECT_EQ(NamespaceName().value(), "default");
  EXPECT_TRUE(NamespaceName().isDefault());
  EXPECT_EQ(NamespaceName(Brio::String(std::string(150, 'n'))).value().bytes(), 150u);
  NamespaceName n("ns-red");
  EXPECT_EQ(errorOf([&] { n.valueIs(Brio::String(std::string(151, 'n'))); }),
            "NamespaceName::value::bytes > 150 not allowed");
  EXPECT_EQ(n.value(), "ns-red");
  expectAttrLogRoundTrip(n, VrfName("blue"));
  EXPECT_THROW(attrLogReadOf<NamespaceName>(Brio::String(std::string(151, 'n'))), Brio::RangeException);
}

}  // namespace
