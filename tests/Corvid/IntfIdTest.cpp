#include <Corvid/IntfId.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace CorvidTest;
using Corvid::IntfId;

namespace {

// A slow reference for the natural order: walk both names; where both
// hold a digit, compare the whole digit runs by value; otherwise compare
// the bytes. Ties (leading zeros) fall back to the plain names.
bool naturalLess(std::string const& a, std::string const& b) {
  auto digit = [](std::string const& s, std::size_t i) { return i < s.size() && s[i] >= '0' && s[i] <= '9'; };
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (digit(a, i) && digit(b, j)) {
      std::size_t ei = i, ej = j;
      while (digit(a, ei)) ++ei;
      while (digit(b, ej)) ++ej;
      std::string x = a.substr(i, ei - i), y = b.substr(j, ej - j);
      x.erase(0, std::min(x.find_first_not_of('0'), x.size() - 1));
      y.erase(0, std::min(y.find_first_not_of('0'), y.size() - 1));
      if (x.size() != y.size()) return x.size() < y.size();
      if (x != y) return x < y;
      i = ei;
      j = ej;
    } else {
      if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
      ++i;
      ++j;
    }
  }
  if ((i < a.size()) != (j < b.size())) return j < b.size();
  return a < b;
}

TEST(IntfIdOrder, DigitRunsCompareAsNumbers) {
  std::vector<IntfId> ids;
  for (char const* name : {"Ethernet1", "Ethernet1/2", "Ethernet1/10", "Ethernet2", "Ethernet10", "Ethernet10/1",
                           "Ethernet100", "Ethernet99999999999999999999", "Ethernet100000000000000000000",
                           "Port-Channel2", "Port-Channel10", "Vlan9", "Vlan010", "Vlan10"}) {
    ids.emplace_back(name);
  }
  expectAscending(ids);
}

TEST(IntfIdOrder, AgreesWithASlowReferenceOnRandomNames) {
  std::mt19937 rng(7);
  char const alphabet[] = "Et0123456789/.0-";
  std::vector<std::string> names;
  for (int i = 0; i < 400; ++i) {
    std::string s;
    for (int n = static_cast<int>(rng() % 8); n >= 0; --n) s += alphabet[rng() % (sizeof alphabet - 1)];
    names.push_back(s);
  }
  for (auto const& a : names) {
    for (std::size_t k = 0; k < 20; ++k) {
      auto const& b = names[rng() % names.size()];
      IntfId const x(a.c_str()), y(b.c_str());
      ASSERT_EQ(x < y, naturalLess(a, b)) << a << " vs " << b;
      ASSERT_EQ(x == y, a == b);
    }
  }
}

TEST(IntfIdShortName, TableMapsBothWays) {
  struct {
    char const* full;
    char const* shortName;
  } const cases[] = {
      {"Ethernet1/2", "Et1/2"},        {"Port-Channel10", "Po10"}, {"Vlan100", "Vl100"},
      {"Loopback0", "Lo0"},            {"Management1", "Ma1"},     {"Tunnel5", "Tu5"},
      {"Vxlan1", "Vx1"},               {"Recirc-Channel3", "Rc3"}, {"Null0", "Nu0"},
      {"EthernetX", "EthernetX"},      {"Ethernet", "Ethernet"},   {"Bridge1", "Bridge1"},
      {"", ""},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.full);
    EXPECT_EQ(IntfId(c.full).shortName(), c.shortName);
    EXPECT_EQ(IntfId::fromShortName(c.shortName), IntfId(c.full));
    EXPECT_EQ(IntfId::fromShortName(c.full), IntfId(c.full));
  }
  EXPECT_EQ(IntfId::fromShortName("et1/2"), IntfId("Ethernet1/2"));
  EXPECT_EQ(IntfId::fromShortName("port-channel7"), IntfId("Port-Channel7"));
  EXPECT_EQ(IntfId::fromShortName("vlan7"), IntfId("Vlan7"));
  EXPECT_EQ(IntfId::fromShortName("Eth1"), IntfId("Eth1"));
}

TEST(IntfIdText, QuotedStrepReadsBackAndHashFollowsEquality) {
  for (char const* name : {"Ethernet1/2", "", "weird 'name'\n", "Vlan10"}) {
    IntfId const id(name);
    expectStrepRoundTrip(id);
    EXPECT_EQ(id.stringValue(), name);
  }
  EXPECT_EQ(valueToStrep(IntfId("Ethernet1/2")), "'Ethernet1/2'");
  EXPECT_EQ(IntfId(), IntfId(""));
  EXPECT_TRUE(IntfId().empty());
  EXPECT_EQ(IntfId("Et1").hash(3), IntfId(Brio::String("Et1")).hash(3));
  EXPECT_NE(IntfId("Et1").hash(), IntfId("Et2").hash());
  EXPECT_THROW(Brio::strepToValue<IntfId>("Ethernet1"), Brio::RangeException);
  IntfId const back = attrLogReadOf<IntfId>(IntfId("Ethernet3"));
  EXPECT_EQ(back, IntfId("Ethernet3"));
  EXPECT_LT(back, IntfId("Ethernet10")) << "the key is rebuilt on reading";
}

}  // namespace
