// Either-family addresses, prefixes, masks, the tristate, the prefix set and
// its configuration entities.
#include <Corvid/Ip.h>
#include <Glimmer/Glimmer.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "support/ValueCases.h"

using namespace Corvid;
using namespace CorvidTest;
using Brio::String;

namespace {

IpGenAddr gen(char const* text) { return IpGenAddr(String(text)); }
IpGenPrefix genPrefix(char const* text) { return IpGenPrefix(String(text)); }

TEST(IpGenAddrText, FirstColonOrDotPicksTheFamily) {
  // "= <canonical> <bytes read> <family of the canonical text>"
  OutcomeRow const rows[] = {
      {"10.1.1.1", "= 10.1.1.1 8 ipv4"},        {"fe80::1", "= fe80::1 7 ipv6"},
      {"::ffff:1.2.3.4", "= ::ffff:1.2.3.4 14 ipv6"}, {"10.1.1.1/24", "= 10.1.1.1 8 ipv4"},
      {"FE80::1/64", "= fe80::1 7 ipv6"},       {"/1.2.3.4", "Invalid IpGenAddr"},
      {"abc", "Invalid IpGenAddr"},             {"", "Invalid IpGenAddr"},
      {"1.2.3", "Invalid IpAddr"},              {"1:2", "Ip6Addr: incomplete ipv6 address"},
      {"g.1:2", "Invalid IpAddr"},
  };
  expectOutcomes(rows, [](std::string const& t) {
    return outcomeOf([&] {
      ReadAt const r = readAt<IpGenAddr>(String(t));
      return r.strep + " " + std::to_string(r.consumed) + " " +
             valueToStrep(Brio::strepToValue<IpGenAddr>(String(r.strep)).af()).str();
    });
  });
}

TEST(IpGenAddrText, HandleInitializedReadsTheWholeTextOrKeepsTheValue) {
  IpGenAddr a = gen("10.0.0.1");
  for (auto const& [text, message] : {std::pair{"10.0.0.2x", "Invalid IpAddr"},
                                      {"fe80::1 ", "Ip6Addr: unexpected trailing characters"},
                                      {"nonsense", "Invalid IpGenAddr"}}) {
    EXPECT_EQ(errorOf([&] { unchangedOnThrow(a, [&] { a.handleInitialized(text); }); }), message);
  }
  a.handleInitialized("");
  EXPECT_EQ(a.af(), AddressFamily::ipunknown);
  EXPECT_EQ(a, IpGenAddr());
}

TEST(IpGenAddrText, TracesTheChosenFamilyAtLevelNine) {
  Glimmer::enable("Corvid", 9);
  Glimmer::Capture capture;
  IpGenAddr a;
  for (char const* text : {"10.0.0.1", "fe80::1", ""}) a.handleInitialized(text);
  Glimmer::enable("Corvid", -1);
  std::string const text = capture.text();
  for (char const* line : {"handleInitialized 10.0.0.1", "sequenceToValue af ipv4", "handleInitialized fe80::1",
                           "sequenceToValue af ipv6", "handleInitialized af unknown"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
  }
}

// Every cut of a good text, in a heap block of exactly its size, through
// every reader of the address texts of both families and of either: the
// answer may only depend on the bytes before the cut, and sequenceToValue
// never moves past it.
TEST(IpText, EveryCutOfAGoodTextIsReadWithinItsEnd) {
  forEachCut({"255.255.255.255", "192.168.100.200/24", "2001:db8:85a3::8a2e:370:7334/64", "::ffff:192.168.100.200",
              "fe80::1/ffff:ffff::", "1:2:3:4:5:6:7:8", "{10.0.0.0/8, 2001:db8::/32}", "unset",
              "Value('Corvid::IpGenAddrWithFullMask', ** {'address': 1.2.3.4, 'mask': 255.0.0.0})"},
             [](String const& cut) {
               auto const heap = exactCopy(cut.view());
               char const* p = heap.get();
               char const* const end = heap.get() + cut.bytes();
               auto const v = cut.view();
               U32 nbo, len;
               bool const quad = ipDetail::readIpv4(p, end, &nbo) != nullptr;
               if (v.find_first_not_of("0123456789./") == std::string_view::npos) {
                 EXPECT_EQ(quad, std::count(v.begin(), v.end(), '.') == 3 && v.rfind('.') + 1 < v.size()) << v;
               }
               Ip6Addr a;
               ipDetail::readIp6(p, end, &a);
               p = heap.get();
               ipDetail::readIp6AndLen(p, end, &a, &len);
               ipDetail::familyOfText(heap.get(), end);
               readWithinCut<IpAddr, Prefix, IpAddrWithMask, Ip6Addr, Ip6Prefix, Ip6AddrWithFullMask, IpGenAddr,
                             IpGenPrefix, IpGenAddrWithMask, IpGenAddrWithFullMask, TristateIpGenAddr, IpGenPrefixSet>(cut);
               errorOf([&] { Ip6Addr().stringValueExpandedIs(cut); });
               IpGenAddrWithFullMask m;
               errorOf([&] { m.handleInitialized(cut); });
             });
}

TEST(IpGenAddr, UnknownSortsFirstAndPrintsAsTheZeroIpv6Address) {
  expectAscending(std::vector<IpGenAddr>{IpGenAddr(), gen("10.0.0.2"), gen("10.0.0.10"), gen("::"), gen("::1")});
  EXPECT_EQ(IpGenAddr().stringValue(), "::");
  EXPECT_EQ(IpGenAddr(AddressFamily::ipv6), gen("::"));
  EXPECT_EQ(IpGenAddr(AddressFamily::ipv4), gen("0.0.0.0"));
}

TEST(IpGenAddr, MappedConversionsGoBetweenFamilies) {
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen("::ffff:1.2.3.4")), gen("1.2.3.4"));
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen("2001:db8::1")).af(), AddressFamily::ipunknown);
  EXPECT_EQ(IpGenAddr::getMappedV4Addr(gen("1.2.3.4")).af(), AddressFamily::ipunknown);
  EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(gen("1.2.3.4")), gen("::ffff:1.2.3.4"));
  EXPECT_EQ(IpGenAddr::getV4MappedV6Addr(gen("::1")).af(), AddressFamily::ipunknown);
}

TEST(IpGenAddr, LayoutAccessorsAndHash) {
  IpGenAddr const v4 = gen("10.1.2.3");
  EXPECT_EQ(v4.size(), 4u);
  unsigned char const expected[16] = {10, 1, 2, 3};
  EXPECT_EQ(std::memcmp(v4.bytes(), expected, 16), 0);  // the other twelve bytes are zero
  EXPECT_EQ(gen("::1").v4Addr(), IpAddr());
  EXPECT_EQ(v4.longestCommonPrefix(gen("10.1.2.0")), 30u);
  EXPECT_EQ(gen("::1").longestCommonPrefix(gen("::")), 127u);
  EXPECT_EQ(v4.longestCommonPrefix(gen("::a01:203")), 0u);
  EXPECT_EQ(gen("224.0.0.5").mcastEtherAddress(), EthAddr(1, 0, 0x5e, 0, 0, 5));
  EXPECT_EQ(gen("ff02::1").mcastEtherAddress(), EthAddr(0x33, 0x33, 0, 0, 0, 1));
  EXPECT_EQ(v4.hash(5), Brio::Hash(5).mix(U32(1)).mix(v4.rawAddr().hash()).result());
  EXPECT_NE(v4.hash(5), IpGenAddr(v4.rawAddr()).hash(5));  // same bytes, other tag
}

TEST(IpGenAddr, PredicatesDispatchOnTheTag) {
  IpGenAddr const unknown;
  EXPECT_EQ(flags({unknown.isUnicast(), unknown.isMulticast(), unknown.isAny(), unknown.isLoopback(),
                   unknown.isUnspecified(), unknown.isLinkLocal(), unknown.isLinkLocalMulticast()}),
            "1000000");
  EXPECT_EQ(answers<IpGenAddr>(&IpGenAddr::isAny, {"0.0.0.0", "::"}), "10");
  EXPECT_EQ(answers<IpGenAddr>(&IpGenAddr::isUnspecified, {"::", "0.0.0.0"}), "10");
  EXPECT_EQ(answers<IpGenAddr>(&IpGenAddr::isLinkLocalMulticast, {"224.0.0.9", "224.0.1.9", "ff02::9", "fe80::9"}),
            "1010");
  EXPECT_EQ(answers<IpGenAddr>(&IpGenAddr::isV6LinkLocal, {"169.254.0.1", "fe80::1"}), "01");
  EXPECT_EQ(answers<IpGenAddr>(&IpGenAddr::isRoutableMulticast, {"ff0e::1", "239.1.1.1"}), "10");
  EXPECT_EQ(answers<IpGenAddr>(&IpGenAddr::isPimRouters, {"224.0.0.13", "ff02::d"}), "11");
}

TEST(IpGenPrefixText, ReadsEitherFamilyWithItsOwnRules) {
  char const* const hostBits = "Invalid Prefix - non-zero after prefixlen";
  OutcomeRow const rows[] = {
      {"10.0.0.0/8", "= 10.0.0.0/8"}, {"2001:db8::/32", "= 2001:db8::/32"}, {"2001:db8::", "= 2001:db8::/128"},
      {"10.0.0.0", "premature end of Prefix type"}, {"10.0.0.1/8", hostBits}, {"/8", "Invalid IpGenAddr"},
  };
  expectOutcomes(rows, [](std::string const& t) { return outcomeOf([&] { return readAt<IpGenPrefix>(t).strep; }); });
  IpGenPrefix p = genPrefix("10.0.0.0/8");
  for (auto const& [text, message] :
       {std::pair{"10.0.0.0/8x", hostBits}, {"2001:db8::/32x", "unexpected text after value"}}) {
    EXPECT_EQ(errorOf([&] { unchangedOnThrow(p, [&] { p.handleInitialized(text); }); }), message);
  }
  p.handleInitialized("");
  EXPECT_EQ(p.af(), AddressFamily::ipunknown);
  EXPECT_EQ(p.stringValue().str(), "::/0");
}

TEST(IpGenPrefix, ConstructorsAgreeAndValidateIpv4) {
  IpGenPrefix const p = genPrefix("10.0.0.0/8");
  EXPECT_EQ(IpGenPrefix(gen("10.0.0.0"), 8), p);
  EXPECT_EQ(IpGenPrefix(AddressFamily::ipv4, 8, {IpAddr(10, 0, 0, 0).networkOrder(), 0, 0, 0}), p);
  EXPECT_EQ(static_cast<Prefix>(p), Prefix(IpAddr(10, 0, 0, 0), 8));
  EXPECT_EQ(p.v6Prefix(), Ip6Prefix());
  Ip6Addr const doc = Brio::strepToValue<Ip6Addr>("2001:db8::");
  std::array<U32, 4> words;
  std::memcpy(words.data(), doc.bytes(), 16);
  EXPECT_EQ(IpGenPrefix(AddressFamily::ipv6, 32, words), genPrefix("2001:db8::/32"));
  EXPECT_EQ(static_cast<Ip6Prefix>(genPrefix("2001:db8::/32")), Ip6Prefix(doc, 32));
  EXPECT_EQ(IpGenPrefix(gen("1.2.3.4")), genPrefix("1.2.3.4/32"));
  EXPECT_EQ(IpGenPrefix(gen("::1")), genPrefix("::1/128"));
  EXPECT_EQ(errorOf([] { IpGenPrefix(IpAddr(10, 0, 0, 1), 8); }), "Prefix::validAsPrefix != true not allowed");
  EXPECT_NO_THROW(IpGenPrefix(Brio::strepToValue<Ip6Addr>("2001:db8::1"), 32));
}

TEST(IpGenPrefix, ContainmentAndOverlapStayWithinAFamily) {
  auto contains = [](char const* p) { return [p](IpGenAddr const& a) { return genPrefix(p).contains(a); }; };
  auto overlaps = [](char const* p) { return [p](IpGenPrefix const& q) { return genPrefix(p).overlaps(q); }; };
  EXPECT_EQ(answers<IpGenAddr>(contains("0.0.0.0/0"), {"8.8.8.8", "::1"}), "10");
  EXPECT_EQ(answers<IpGenAddr>(contains("::/0"), {"8.8.8.8"}), "0");
  EXPECT_EQ(answers<IpGenAddr>(contains("10.0.0.0/8"), {"10.255.0.1", "11.0.0.1"}), "10");
  // The IPv4 sentinel length contains every IPv4 address, unlike Ip6Prefix.
  EXPECT_TRUE(IpGenPrefix(Prefix(IpAddr(10, 0, 0, 1), 0xffffffff)).contains(gen("192.0.2.1")));
  EXPECT_FALSE(IpGenPrefix(Ip6Prefix(Ip6Addr(), 0xffffffff)).contains(gen("::")));
  EXPECT_FALSE(IpGenPrefix().contains(IpGenAddr()));
  EXPECT_EQ(answers<IpGenPrefix>(overlaps("10.0.0.0/8"), {"10.1.0.0/16", "11.0.0.0/8"}), "10");
  EXPECT_EQ(answers<IpGenPrefix>(overlaps("10.1.0.0/16"), {"10.0.0.0/8"}), "1");
  EXPECT_EQ(answers<IpGenPrefix>(overlaps("0.0.0.0/0"), {"11.0.0.0/8", "::/0"}), "10");
  EXPECT_EQ(answers<IpGenPrefix>(overlaps("2001:db8::/32"), {"2001:db8:1::/48"}), "1");
}

TEST(IpGenPrefixOrder, TagFirstThenTheFamilysPrefixOrder) {
  expectAscending(std::vector<IpGenPrefix>{IpGenPrefix(), genPrefix("10.1.0.0/16"), genPrefix("10.0.0.0/8"),
                                           genPrefix("0.0.0.0/0"), genPrefix("2001:db8:1::/48"), genPrefix("2001:db8::/32")});
}

TEST(IpGenAddrWithMask, KeepsHostBitsAndGivesTheSubnet) {
  using M = IpGenAddrWithMask;
  M const v4(String("10.1.2.3/8"));
  EXPECT_EQ(v4.stringValue().str(), "10.1.2.3/8");
  EXPECT_EQ(v4.subnet(), genPrefix("10.0.0.0/8"));
  EXPECT_TRUE(v4.contains(gen("10.9.9.9")));
  EXPECT_FALSE(v4.contains(gen("::1")));
  EXPECT_EQ(v4.v4AddrWithMask(), IpAddrWithMask(IpAddr(10, 1, 2, 3), 8));
  M const v6(String("2001:db8::1/64"));
  EXPECT_EQ(v6.subnet(), genPrefix("2001:db8::/64"));
  EXPECT_EQ(M(gen("2001:db8::1"), 64), v6);
  expectStrepRoundTrip(v6);
  EXPECT_EQ(errorOf([] { M(String("10.1.2.3/8 ")); }), "unexpected text after value");
  EXPECT_EQ(errorOf([] { M(String("10.1.2.3/33")).subnet(); }), "Prefix::validAsPrefix != true not allowed");
  // IPv4 sorts shorter length first, IPv6 most specific first.
  expectAscending<M>({"10.1.2.3/8", "10.1.2.3/16", "::1/8", "2001:db8::1/64", "2001:db8::1/48"});
}

TEST(IpGenAddrWithFullMask, ConfigurationTextAndRecordStrepBothReadBack) {
  std::string const weird = "Value('Corvid::IpGenAddrWithFullMask', ** {'address': 1.2.3.4, 'mask': 255.0.255.0})";
  std::string const weirdRead = "= " + weird;
  OutcomeRow const rows[] = {
      {"10.0.0.0/24", "= 10.0.0.0/24"},       {"10.0.0.0/264", "= 10.0.0.0/8"},  // the length's low eight bits
      {"10.0.0.0/0", "= 10.0.0.0/0"},         {"10.0.0.0/32", "= 10.0.0.0/32"},       {"10.0.0.0/1", "= 10.0.0.0/1"},
      {"2001:db8::/32", "= 2001:db8::/32"},
      {"2001:db8::/ffff:ffff::", "= 2001:db8::/32"}, {weird.c_str(), weirdRead.c_str()},
      {"Value('Corvid::IpGenAddrWithFullMask', ** {'address': 1.2.3.4, 'mask': 255.255.0.0})", "= 1.2.3.4/16"},
      {"10.0.0.0/33", "Invalid IPv4 prefix length"}, {"10.0.0.0/24x", "Invalid IPv4 prefix"},
      {"10.0.0.0", "premature end of Prefix type"}, {"10.0.0.0/x", "premature end of Prefix type"},
      {"10.0.0.0/", "premature end of Prefix type"}, {"10.0.0.0/255.0.0.0", "Invalid IPv4 prefix"},
      {"2001:db8::", "Ip6AddrWithFullMask: mask expected"}, {"2001:db8::/32 ", "unexpected text after value"},
      {"Value('Corvid::IpGenAddrWithFullMask', ** {'address': 1.2.3.4})", "expected ', '"}, {"24", "Invalid IpGenAddr"},
  };
  expectOutcomes(rows, [](std::string const& t) {
    return outcomeOf([&] {
      IpGenAddrWithFullMask v(IpGenAddr(IpAddr(9, 9, 9, 9)), 32);
      unchangedOnThrow(v, [&] { v.handleInitialized(String(t)); });
      EXPECT_EQ(IpGenAddrWithFullMask(v.stringValue()), v);
      expectStrepRoundTrip(v);
      return v.stringValue().str();
    });
  });
  EXPECT_EQ(Brio::strep(IpGenAddrWithFullMask(String("10.0.0.0/24"))).str(),
            "Value('Corvid::IpGenAddrWithFullMask', ** {'address': 10.0.0.0, 'mask': 255.255.255.0})");
  EXPECT_EQ(errorOf([] { IpGenAddrWithFullMask(gen("10.0.0.0"), 33); }), "Invalid IPv4 prefix length");
  EXPECT_EQ(IpGenAddrWithFullMask(IpAddrWithFullMask(IpAddr(1, 2, 3, 4), 0xffffff00)).maskLength(), 24u);
  EXPECT_FALSE(IpGenAddrWithFullMask(gen("10.0.0.0"), gen("::")).hasPrefixRepr());  // mixed families
}

TEST(TristateIpGenAddr, UnsetNoneOrAnAddress) {
  // isSet, isNone
  for (auto const& [text, want] : {std::pair{"unset", "00"}, {"none", "11"}, {"10.0.0.1", "10"}, {"fe80::1", "10"}}) {
    TristateIpGenAddr const v = Brio::strepToValue<TristateIpGenAddr>(String(text));
    EXPECT_EQ(v.stringValue().str(), text);
    EXPECT_EQ(flags({v.isSet(), v.isNone()}), want) << text;
  }
  TristateIpGenAddr t;
  EXPECT_EQ(t.valueOr(gen("1.1.1.1")), gen("1.1.1.1"));
  t.valueIs(gen("2.2.2.2"));
  EXPECT_EQ(t.valueOr(gen("1.1.1.1")), gen("2.2.2.2"));
  for (auto const& [text, message] :
       {std::pair{"unsetx", "unexpected text after value"}, {"nothing", "Invalid IpGenAddr"}}) {
    EXPECT_EQ(errorOf([&] { unchangedOnThrow(t, [&] { t.handleInitialized(text); }); }), message);
  }
  t.valueDel();
  EXPECT_FALSE(t.isSet());
  EXPECT_LT(TristateIpGenAddr(), TristateIpGenAddr(IpGenAddr()));
  EXPECT_LT(TristateIpGenAddr(IpGenAddr()), TristateIpGenAddr(gen("0.0.0.0")));
}

TEST(IpGenPrefixSet, TextMembershipAndLongestMatch) {
  IpGenPrefixSet s;
  s.stringValueIs("{10.0.0.0/8, 2001:db8::/32, 10.1.0.0/16}");
  EXPECT_EQ(s.size(), 3u);
  EXPECT_EQ(s.stringValue().str(), "{10.0.0.0/8, 10.1.0.0/16, 2001:db8::/32}");
  EXPECT_EQ(Brio::strepToValue<IpGenPrefixSet>(s.stringValue()), s);
  EXPECT_EQ(answers<IpGenAddr>([&](IpGenAddr const& a) { return s.contains(a); }, {"10.200.0.1", "11.0.0.1"}), "10");
  EXPECT_EQ(s.longestMatch(gen("10.1.2.3")), genPrefix("10.1.0.0/16"));
  EXPECT_EQ(s.longestMatch(gen("10.2.2.3")), genPrefix("10.0.0.0/8"));
  EXPECT_EQ(s.longestMatch(gen("2001:db8::1")), genPrefix("2001:db8::/32"));
  EXPECT_EQ(s.longestMatch(gen("::1")).af(), AddressFamily::ipunknown);
  EXPECT_FALSE(s.prefixIs(genPrefix("10.0.0.0/8")));
  EXPECT_TRUE(s.prefixDel(genPrefix("10.0.0.0/8")));
  EXPECT_FALSE(s.prefix(genPrefix("10.0.0.0/8")));
  // Non-canonical IPv6 prefixes are distinct members.
  EXPECT_TRUE(s.prefixIs(genPrefix("2001:db8::1/32")));
  EXPECT_EQ(s.size(), 3u);
  IpGenPrefixSet const before = s;
  for (char const* bad : {"{10.0.0.0/8,10.1.0.0/16}", "{10.0.0.0/8", "10.0.0.0/8}", "{10.0.0.1/8}", "{} "}) {
    EXPECT_THROW(unchangedOnThrow(s, [&] { s.stringValueIs(bad); }), Brio::RangeException) << bad;
  }
  s.stringValueIs("{}");
  EXPECT_TRUE(s.empty());
  EXPECT_LT(s, before);
}

struct PrefixRecorder : IpGenPrefixSetConfig::Notifiee {
  void handlePrefix(IpGenPrefix const& p) override { heard.push_back(p.stringValue().str()); }
  std::vector<std::string> heard;
};

struct ConfigRecorder : IpGenPrefixSetConfigDir::Notifiee {
  void handleConfig(Brio::String const& name) override { heard.push_back(name.str()); }
  std::vector<std::string> heard;
};

TEST(IpGenPrefixSetConfig, NotifiesEachPrefixThatComesOrGoes) {
  auto config = ipGenPrefixSetConfigFactory("peers");
  PrefixRecorder r;
  r.notifierIs(config);
  config->prefixIs(genPrefix("10.0.0.0/8"));
  config->prefixIs(genPrefix("10.0.0.0/8"));  // no change, no notification
  config->prefixIs(genPrefix("2001:db8::/32"));
  config->prefixSetIs(IpGenPrefixSet{genPrefix("2001:db8::/32"), genPrefix("192.0.2.0/24")});
  config->prefixDel(genPrefix("1.0.0.0/8"));
  config->prefixDelAll();
  EXPECT_EQ(r.heard, (std::vector<std::string>{"10.0.0.0/8", "2001:db8::/32", "10.0.0.0/8", "192.0.2.0/24",
                                               "192.0.2.0/24", "2001:db8::/32"}));
  EXPECT_TRUE(config->prefixSet().empty());
}

TEST(IpGenPrefixSetConfigDir, MakesSetsOnFirstUseAndNotifiesByName) {
  auto dir = ipGenPrefixSetConfigDirFactory("prefixSets");
  ConfigRecorder r;
  r.notifierIs(dir);
  auto a = dir->configIs("a");
  EXPECT_EQ(dir->configIs("a"), a);
  dir->configIs("b");
  EXPECT_EQ(dir->configs(), 2u);
  EXPECT_EQ(dir->config("a"), a);
  EXPECT_FALSE(dir->config("c"));
  dir->configDel("a");
  dir->configDel("a");
  dir->configDelAll();
  EXPECT_EQ(r.heard, (std::vector<std::string>{"a", "b", "a", "b"}));
  EXPECT_EQ(a->name().str(), "a");  // a holder keeps a removed set alive
}

TEST(IpGenAttrLog, EveryTypeReadsBackAndBadTagsAreRefused) {
  Brio::Bytes const wire = expectAttrLogRoundTrip(
      gen("10.1.2.3"), gen("fe80::1"), IpGenAddr(), genPrefix("2001:db8::/32"), IpGenAddrWithMask(String("10.1.2.3/8")),
      IpGenAddrWithFullMask(String("10.0.0.0/24")), TristateIpGenAddr(IpGenAddr()), TristateIpGenAddr(),
      IpGenPrefixSet{genPrefix("10.0.0.0/8"), genPrefix("::/0")});
  EXPECT_EQ(wire.str().substr(0, 8), std::string("\0\0\0\1\x0a\x01\x02\x03", 8));
  EXPECT_EQ(errorOf([] { attrLogReadOf<IpGenAddr>(U32(3)); }), "Invalid AddressFamily");
}

TEST(AddressFamily, TextNames) {
  EXPECT_EQ(valueToStrep(AddressFamily::ipunknown).str(), "ipunknown");
  EXPECT_EQ(Brio::strepToValue<AddressFamily>("ipv6"), AddressFamily::ipv6);
  EXPECT_EQ(Brio::strepToValue<AddressFamily>("ipv4"), AddressFamily::ipv4);
  EXPECT_EQ(strepOutcome<AddressFamily>("ipv5"), "Invalid AddressFamily");
}

}  // namespace
