#include <routing/Isis.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Routing::Isis;
using namespace CorvidTest;

namespace {

TEST(SystemId, TextTable) {
  OutcomeRow const cases[] = {
      {"0000.0000.0000", "= 0000.0000.0000"},
      {"1921.6800.1001", "= 1921.6800.1001"},
      {"ABCD.ef01.2345", "= abcd.ef01.2345"},
      {"1921.6800.100", "Two hex digits expected, but got only 1"},
      {"1921.6800.10", "Two hex digits expected, but got only 0"},
      {"1921-6800.1001", "'.' expected"},
      {"19216800.1001", "'.' expected"},
      {"1921.6800.1g01", "Two hex digits expected, but got only 1"},
      {"1921.6800.10g1", "Hex digit expected, but got: 'g'"},
      {"1921.6800.1001.", "Unexpected trailing characters"},
      {"", "Two hex digits expected, but got only 0"},
  };
  expectOutcomes(cases, stringValueOutcome<SystemId>);
  EXPECT_EQ(SystemId().stringValue(), "0000.0000.0000");
  EXPECT_TRUE(SystemId().isZero());
}

TEST(LspId, TextTable) {
  OutcomeRow const cases[] = {
      {"0000.0000.0000.00-00", "= 0000.0000.0000.00-00"},
      {"1921.6800.1001.01-0A", "= 1921.6800.1001.01-0a"},
      {"1921.6800.1001-01-0a", "'.' expected"},
      {"1921.6800.1001.01.0a", "'-' expected"},
      {"1921.6800.1001.01-", "Two hex digits expected, but got only 0"},
      {"1921.6800.1001.1-0a", "Two hex digits expected, but got only 1"},
      {"1921.6800.1001.01-0az", "Unexpected trailing characters"},
  };
  expectOutcomes(cases, stringValueOutcome<LspId>);
  LspId id("1921.6800.1001.01-0a");
  EXPECT_EQ(id.byte(LspIdIdx(0)), 0x19);
  EXPECT_EQ(id.byte(LspIdIdx(6)), 0x01);
  EXPECT_EQ(id.byte(LspIdIdx(7)), 0x0a);
  EXPECT_TRUE(id.isPseudonode());
  id.byteIs(LspIdIdx(7), 0xff);
  id.byteIs(LspIdIdx(5), 0x02);
  EXPECT_EQ(id.stringValue(), "1921.6800.1002.01-ff");
  EXPECT_EQ(errorOf([] { LspIdIdx(8); }), "LspIdIdx::value < 0 or > 7 not allowed");
}

TEST(LspId, OrderIsSystemThenPseudonodeThenFragment) {
  std::vector<std::string> const sorted = {"0000.0000.0001.00-00", "0000.0000.0001.00-01", "0000.0000.0001.01-00",
                                           "0000.0000.0002.00-00", "1000.0000.0000.00-00"};
  std::set<LspId> s;
  for (auto it = sorted.rbegin(); it != sorted.rend(); ++it) s.insert(LspId(Brio::String(*it)));
  std::vector<std::string> got;
  for (auto const& id : s) got.push_back(id.stringValue().str());
  EXPECT_EQ(got, sorted);
}

TEST(AreaId, TextTable) {
  OutcomeRow const cases[] = {
      {"49", "= 49"},
      {"49.0001", "= 49.0001"},
      {"49.00", "= 49.00"},
      {"49.0001.02", "= 49.0001.02"},
      {"39.0840.f000.0100.0001.0203.0405", "= 39.0840.f000.0100.0001.0203.0405"},
      {"39.0840.f000.0100.0001.0203.0405.06", "AreaIdLengthRange::value < AreaIdLengthRange::min or > "
                                              "AreaIdLengthRange::max not allowed"},
      {"4", "Two hex digits expected, but got only 1"},
      {"49.", "Two hex digits expected, but got only 0"},
      {"49.x", "Hex digit expected, but got: 'x'"},
      {"49.001", "Two hex digits expected, but got only 1"},
      {"49.00.0001", "Unexpected trailing characters"},
      {"490.1", "Unexpected trailing characters"},
  };
  expectOutcomes(cases, stringValueOutcome<AreaId>);
  EXPECT_EQ(AreaId().stringValue(), "00");
}

TEST(AreaId, BytesLengthOrderAndAttrLog) {
  AreaId a("49.0001");
  EXPECT_EQ(a.length().value(), 3);
  EXPECT_EQ(a.byte(AreaIdU8Index(2)), 0x01);
  EXPECT_THROW(a.byte(AreaIdU8Index(3)), Brio::RangeException);
  EXPECT_THROW(AreaIdU8Index(13), Brio::RangeException);
  EXPECT_THROW(AreaIdLengthRange(0), Brio::RangeException);
  a.lengthIs(AreaIdLengthRange(5));
  EXPECT_EQ(a.stringValue(), "49.0001.0000");
  a.lengthIs(AreaIdLengthRange(2));
  a.lengthIs(AreaIdLengthRange(3));
  EXPECT_EQ(a.stringValue(), "49.0000") << "shrinking clears the dropped bytes";
  EXPECT_LT(AreaId("49"), AreaId("49.0001"));
  EXPECT_LT(AreaId("49.0001.ff"), AreaId("49.0002"));
  EXPECT_EQ(AreaId("49.0001").hash(5), AreaId("49.0001").hash(5));
  EXPECT_NE(AreaId("49.0001"), AreaId("49.0001.00"));
  expectAttrLogRoundTrip(AreaId("49.0001"), LspId("1921.6800.1001.01-0a"));
  EXPECT_THROW(attrLogReadOf<AreaId>(U8(14)), Brio::RangeException);
}

TEST(IsisIndices, EachNamesItsOwnType) {
  struct {
    std::string (*make)();
    char const* message;
  } const cases[] = {
      {[] { return valueToStrep(SystemIdU8Index(6)).str(); },
       "SystemIdU8Index::value < SystemIdU8Index::min or > SystemIdU8Index::max not allowed"},
      {[] { return valueToStrep(AreaIdU8Index(13)).str(); },
       "AreaIdU8Index::value < AreaIdU8Index::min or > AreaIdU8Index::max not allowed"},
      {[] { return valueToStrep(AreaIdLengthRange(14)).str(); },
       "AreaIdLengthRange::value < AreaIdLengthRange::min or > AreaIdLengthRange::max not allowed"},
      {[] { return valueToStrep(InstanceNameIndex(64)).str(); },
       "InstanceNameIndex::value < InstanceNameIndex::min or > InstanceNameIndex::max not allowed"},
  };
  for (auto const& c : cases) EXPECT_EQ(errorOf(c.make), c.message);
  EXPECT_EQ(Brio::strepToValue<Level>("level1_2"), Level::level1_2);
  EXPECT_EQ(valueToStrep(Level::levelNone), "levelNone");
  EXPECT_THROW(Brio::strepToValue<Level>("level3"), Brio::RangeException);
}

TEST(IsisText, EveryCutOfAGoodTextIsReadOrRefusedWithinBounds) {
  // Heap copies of exactly n bytes, so an overread shows under ASan; a cut
  // that still reads prints back as itself (these texts are canonical).
  int accepted = 0;
  for (std::string full : {"1921.6800.1001.01-0a", "39.0840.f000.0100.0001.0203.0405"}) {
    for (std::size_t n = 0; n < full.size(); ++n) {
      Brio::String const cut(full.substr(0, n));
      std::string const outcomes[] = {stringValueOutcome<LspId>(cut.str()), stringValueOutcome<SystemId>(cut.str()),
                                      stringValueOutcome<AreaId>(cut.str())};
      for (auto const& o : outcomes) {
        if (o[0] == '=') {
          EXPECT_EQ(o, "= " + cut.str());
          ++accepted;
        }
      }
    }
  }
  // The system id alone, the area "19", and the area cut after each of its
  // first twelve bytes.
  EXPECT_EQ(accepted, 1 + 1 + 12);
}

}  // namespace
