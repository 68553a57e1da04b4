#include <routing/Isis.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Routing::Isis;
using namespace CorvidTest;

namespace {

TEST(SystemId, TextTable) {
  char const* const two1 = "Two hex digits expected, but got only 1";
  char const* const two0 = "Two hex digits expected, but got only 0";
  OutcomeRow const cases[] = {
      {"0000.0000.0000", "= 0000.0000.0000"}, {"1921.6800.1001", "= 1921.6800.1001"},
      {"ABCD.ef01.2345", "= abcd.ef01.2345"}, {"1921.6800.100", two1},
      {"1921.6800.10", two0},                 {"1921-6800.1001", "'.' expected"},
      {"19216800.1001", "'.' expected"},      {"1921.6800.1g01", two1},
      {"1921.6800.10g1", "Hex digit expected, but got: 'g'"},
      {"1921.6800.1001.", "Unexpected trailing characters"}, {"", two0},
  };
  expectOutcomes(cases, stringValueOutcome<SystemId>);
  EXPECT_EQ(SystemId().stringValue(), "0000.0000.0000");
  EXPECT_TRUE(SystemId().isZero());
}

TEST(LspId, TextTableAndBytesBySevenBitIndex) {
  OutcomeRow const cases[] = {
      {"0000.0000.0000.00-00", "= 0000.0000.0000.00-00"}, {"1921.6800.1001.01-0A", "= 1921.6800.1001.01-0a"},
      {"1921.6800.1001-01-0a", "'.' expected"},           {"1921.6800.1001.01.0a", "'-' expected"},
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
}

TEST(LspId, OrderIsSystemThenPseudonodeThenFragment) {
  expectAscending<LspId>({"0000.0000.0001.00-00", "0000.0000.0001.00-01", "0000.0000.0001.01-00",
                          "0000.0000.0002.00-00", "1000.0000.0000.00-00"});
}

TEST(AreaId, TextTable) {
  char const* const two1 = "Two hex digits expected, but got only 1";
  OutcomeRow const cases[] = {
      {"49", "= 49"}, {"49.0001", "= 49.0001"}, {"49.00", "= 49.00"}, {"49.0001.02", "= 49.0001.02"},
      {"39.0840.f000.0100.0001.0203.0405", "= 39.0840.f000.0100.0001.0203.0405"},
      {"39.0840.f000.0100.0001.0203.0405.06",
       "AreaIdLengthRange::value < AreaIdLengthRange::min or > AreaIdLengthRange::max not allowed"},
      {"4", two1}, {"49.", "Two hex digits expected, but got only 0"}, {"49.x", "Hex digit expected, but got: 'x'"},
      {"49.001", two1}, {"49.00.0001", "Unexpected trailing characters"}, {"490.1", "Unexpected trailing characters"},
  };
  expectOutcomes(cases, stringValueOutcome<AreaId>);
  EXPECT_EQ(AreaId().stringValue(), "00");
}

TEST(AreaId, BytesLengthOrderAndAttrLog) {
  AreaId a("49.0001");
  EXPECT_EQ(a.length().value(), 3);
  EXPECT_EQ(a.byte(AreaIdU8Index(2)), 0x01);
  EXPECT_THROW(a.byte(AreaIdU8Index(3)), Brio::RangeException);
  EXPECT_THROW(AreaIdLengthRange(0), Brio::RangeException);
  a.lengthIs(AreaIdLengthRange(5));
  EXPECT_EQ(a.stringValue(), "49.0001.0000");
  a.lengthIs(AreaIdLengthRange(2));
  a.lengthIs(AreaIdLengthRange(3));
  EXPECT_EQ(a.stringValue(), "49.0000") << "shrinking clears the dropped bytes";
  expectAscending<AreaId>({"49", "49.0001", "49.0001.00", "49.0001.ff", "49.0002"});
  expectAttrLogRoundTrip(AreaId("49.0001"), LspId("1921.6800.1001.01-0a"));
  EXPECT_THROW(attrLogReadOf<AreaId>(U8(14)), Brio::RangeException);
}

TEST(IsisIndices, EachNamesItsOwnType) {
  expectErrors({
      {[] { SystemIdU8Index(6); }, "SystemIdU8Index::value < SystemIdU8Index::min or > SystemIdU8Index::max not allowed"},
      {[] { AreaIdU8Index(13); }, "AreaIdU8Index::value < AreaIdU8Index::min or > AreaIdU8Index::max not allowed"},
      {[] { AreaIdLengthRange(14); },
       "AreaIdLengthRange::value < AreaIdLengthRange::min or > AreaIdLengthRange::max not allowed"},
      {[] { InstanceNameIndex(64); },
       "InstanceNameIndex::value < InstanceNameIndex::min or > InstanceNameIndex::max not allowed"},
      {[] { LspIdIdx(8); }, "LspIdIdx::value < 0 or > 7 not allowed"},
  });
  EXPECT_EQ(Brio::strepToValue<Level>("level1_2"), Level::level1_2);
  EXPECT_EQ(valueToStrep(Level::levelNone), "levelNone");
  EXPECT_THROW(Brio::strepToValue<Level>("level3"), Brio::RangeException);
}

TEST(IsisText, EveryCutOfAGoodTextIsReadOrRefusedWithinBounds) {
  // A cut that still reads prints back as itself (these texts are canonical).
  int accepted = 0;
  forEachCut({"1921.6800.1001.01-0a", "39.0840.f000.0100.0001.0203.0405"}, [&](Brio::String const& cut) {
    for (auto const& o : {stringValueOutcome<LspId>(cut.str()), stringValueOutcome<SystemId>(cut.str()),
                          stringValueOutcome<AreaId>(cut.str())}) {
      if (o[0] != '=') continue;
      EXPECT_EQ(o, "= " + cut.str());
      ++accepted;
    }
  });
  // Both whole texts, the system id alone, the area "19", and the area cut
  // after each of its first twelve bytes.
  EXPECT_EQ(accepted, 2 + 1 + 1 + 12);
}

}  // namespace
