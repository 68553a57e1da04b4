// IPv6 addresses, prefixes and masks: the reader's messages, the printer
// against inet_ntop, the reader against inet_pton, predicates, masks, order
// and hashes.
#include <Corvid/Ip.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/ValueCases.h"

using namespace Corvid;
using namespace CorvidTest;
using Brio::String;

namespace {

Ip6Addr ip6(char const* text) { return Brio::strepToValue<Ip6Addr>(String(text)); }
Ip6Prefix p6(char const* text) { return Brio::strepToValue<Ip6Prefix>(String(text)); }

TEST(Ip6AddrText, ReadsAndPrintsTheTable) {
  char const* const trailing = "Ip6Addr: unexpected trailing characters";
  char const* const colons = "Ip6Addr: too many colons";
  char const* const incomplete = "Ip6Addr: incomplete ipv6 address";
  char const* const colon = "Ip6Addr: ':' expected";
  char const* const hex = "Ip6Addr: hex digit expected";
  auto const whole = stringValueIsOver<Ip6Addr>("fe80::1");
  // Good texts read alone are held against inet_pton and inet_ntop below; here
  // the dotted quad's own rules and what stops at trailing characters.
  checkRows<Ip6Addr>(
      {
          {"::", "::", nullptr, 2}, {"::ffff:010.0.0.1", "::ffff:10.0.0.1", nullptr, 16},
          {"1::2/64", "1::2", trailing, 4},                   {"1:2:3:4:5:6:7:8x", "1:2:3:4:5:6:7:8", trailing, 15},
          {"::1.2.3.4:5", "::102:304", trailing, 9},          {"fe80::1 ", "fe80::1", trailing, 7},
      },
      whole);
  checkRefusals<Ip6Addr>(
      {
          {"", incomplete}, {":", colon}, {":1::", colon}, {":::", colons}, {"1:::2", colons}, {"1:", hex},
          {"1:x", hex}, {"1::2::3", "Ip6Addr: only one '::' allowed"}, {"x::", "Ip6Addr: leading hex digit expected"},
          {"12345::", "Ip6Addr: hex value too large"}, {"00001::", "Ip6Addr: too many consecutive hex digits"},
          {"1:2:3", incomplete}, {"1:2:3:4:5:6:7", incomplete}, {"1:2:3x", colon}, {"1:2:3:4:5:6:7:8:9", colons},
          {"1::2:3:4:5:6:7:8", colons}, {"1:2:3:4:5:6:7::8", colons}, {"1:2:3:4:5:6:7:1.2.3.4", colons},
          {"1::2:3:4:5:6:1.2.3.4", colons}, {"1:2:1.2.3.4", incomplete}, {"::1.2.3", "Invalid IpAddr"},
          {"::256.1.1.1", "Invalid IpAddr"},
      },
      whole);
}

TEST(Ip6PrefixText, BareAddressIsAHostPrefix) {
  char const* const tooLong = "Ip6AddrWithMask: prefix too long";
  char const* const size = "Ip6AddrWithMask: prefix size expected";
  std::vector<TextRow> const rows = {
      {"2001:db8::/32", "2001:db8::/32", nullptr, 13},  {"2001:db8::", "2001:db8::/128", nullptr, 10},
      {"2001:db8::1/64", "2001:db8::1/64", nullptr, 14},  // host bits are kept
      {"::/0", "::/0", nullptr, 4},                     {"2001:db8::/032", "2001:db8::/32", nullptr, 14},
      {"2001:db8::/129", nullptr, tooLong, 0},          {"2001:db8::/99999999999999999999999", nullptr, tooLong, 0},
      {"2001:db8::/x", nullptr, size, 0},               {"2001:db8::/", nullptr, size, 0},
      {"2001:db8:/32", nullptr, "Ip6Addr: hex digit expected", 0},
  };
  checkRows<Ip6Prefix>(rows, [](String const& t) { Brio::strepToValue<Ip6Prefix>(t); });
  checkRows<Ip6AddrWithMask>(rows, [](String const& t) { Brio::strepToValue<Ip6AddrWithMask>(t); });
}

TEST(Ip6AddrWithFullMaskText, ContiguousMasksPrintAsLengthsAndBothFormsRead) {
  checkRows<Ip6AddrWithFullMask>(
      {
          {"2001:db8::/32", "2001:db8::/32", nullptr, 13}, {"2001:db8::/ffff:ffff::", "2001:db8::/32", nullptr, 22},
          {"2001:db8::/ffff:0:ffff::", "2001:db8::/ffff:0:ffff::", nullptr, 24},
          {"2001:db8::/64::", "2001:db8::/64::", nullptr, 15},  // "64::" is an address
          {"::/0", "::/0", nullptr, 4}, {"::/128", "::/128", nullptr, 6},
          {"2001:db8::", nullptr, "Ip6AddrWithFullMask: mask expected", 0},
          {"2001:db8::/129", nullptr, "Ip6AddrWithMask: prefix too long", 0},
          {"2001:db8::/1:2", nullptr, "Ip6Addr: incomplete ipv6 address", 0},
      },
      [](String const& t) { Brio::strepToValue<Ip6AddrWithFullMask>(t); });
}

TEST(Ip6AddrText, ExpandedFormIsEightFullGroups) {
  EXPECT_EQ(ip6("2001:db8::1").stringValueExpanded().str(), "2001:0db8:0000:0000:0000:0000:0000:0001");
  char const* const notExpanded = "Ip6Addr: address is not expanded";
  char const* const trailing = "Ip6Addr: unexpected trailing characters";
  OutcomeRow const rows[] = {
      {"2001:0DB8:0000:0000:0000:0000:0000:0001", "= 2001:db8::1"}, {"0:0:0:0:0:0:0:0", "= ::"},
      {"0000:0000:0000:0000:0000:0000:0000:0000", "= ::"},          {"2001:db8::1", notExpanded},
      {"2001:0db8:0000:0000:0000:0000:0000:001", notExpanded},      {"", notExpanded},
      {"2001:0db8:0000:0000:0000:0000:0000:0001x", trailing},       {"0:0:0:0:0:0:0:0:", trailing},
  };
  expectOutcomes(rows, [](std::string const& t) {
    return outcomeOf([&] {
      Ip6Addr a = ip6("fe80::99");
      unchangedOnThrow(a, [&] { a.stringValueExpandedIs(String(t)); });
      return a.stringValue().str();
    });
  });
}

// Random addresses rich in zero runs, printed by both. The one class that
// differs on purpose: IPv4-compatible addresses (first 96 bits zero, group 6
// non-zero), which inet_ntop writes as ::a.b.c.d. RFC 4291 deprecated them
// and RFC 5952 prints only mapped addresses in dotted form, so they print in
// hex here.
TEST(Ip6AddrText, PrintingAgreesWithInetNtopOnAMillionAddresses) {
  std::mt19937_64 rng(6);
  int compatible = 0, mapped = 0;
  for (int i = 0; i < 1000000; ++i) {
    U16 g[8];
    U64 const bits = rng();
    for (int k = 0; k < 8; ++k) {
      switch ((bits >> (4 * k)) & 7) {
        case 0: case 1: case 2: case 3: g[k] = 0; break;
        case 4: g[k] = static_cast<U16>(bits >> (32 + 2 * k) & 0xf); break;
        default: g[k] = static_cast<U16>(rng());
      }
    }
    if ((bits >> 60) == 0) std::fill(g, g + 5, 0), g[5] = 0xffff;  // mapped
    if ((bits >> 60) == 1) std::fill(g, g + 6, 0);                  // compatible candidates
    Ip6Addr const a(g[0], g[1], g[2], g[3], g[4], g[5], g[6], g[7]);
    char ours[48], theirs[INET6_ADDRSTRLEN];
    a.printToBuffer(ours, sizeof ours);
    ASSERT_TRUE(inet_ntop(AF_INET6, a.bytes(), theirs, sizeof theirs));
    bool const isCompatible = std::all_of(g, g + 6, [](U16 x) { return x == 0; }) && g[6] != 0;
    compatible += isCompatible;
    mapped += a.isV4MappedV6();
    if (isCompatible) {
      char hex[48];
      std::snprintf(hex, sizeof hex, "::%x:%x", g[6], g[7]);
      ASSERT_STREQ(ours, hex);
      ASSERT_NE(std::string(theirs).find('.'), std::string::npos) << theirs;
    } else {
      ASSERT_STREQ(ours, theirs);
    }
  }
  EXPECT_GT(compatible, 1000);
  EXPECT_GT(mapped, 1000);
}

// The reader against inet_pton on generated texts: groups of one to four
// digits in both cases (now and then five), "::" anywhere, dotted quads,
// one in three texts with random edits. The only difference kept: a
// trailing dotted quad is read by the IPv4 reader, so its octets may carry
// leading zeros (or be absurdly long runs read modulo 2^32), which inet_pton
// refuses. Each text inet_pton takes is also read followed by a short tail
// and by a long one (more than the reader classifies at once): the value
// and the characters taken must not depend on what follows, so every group
// end falls on every offset.
TEST(Ip6AddrText, ReadingAgreesWithInetPtonWhateverFollows) {
  std::mt19937 rng(613);
  auto pick = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
  auto octet = [&]() -> std::string {
    unsigned const r = pick(16);
    return (r == 0 ? "0" : "") + std::to_string(pick(r == 1 ? 400 : 256));
  };
  std::string const tails[] = {"", "/64", " ", std::string(1, '\0') + "ff", "/" + std::string(60, 'a'),
                               " " + std::string(50, ':'), "%eth0" + std::string(50, '.')};
  int deliberate = 0, taken = 0, quads = 0;
  for (int i = 0; i < 400000; ++i) {
    std::string t;
    unsigned const gapAt = pick(10);
    bool const quad = pick(4) == 0;
    unsigned const groups = (gapAt < 8 ? pick(quad ? 5 : 7) : (quad ? 6 : 8)) + (pick(16) == 0);
    for (unsigned k = 0; k < groups; ++k) {
      char buf[8];
      unsigned const digits = 1 + pick(pick(16) ? 4 : 5);
      std::snprintf(buf, sizeof buf, pick(2) ? "%0*x" : "%0*X", static_cast<int>(digits), pick(1u << (4 * digits)));
      t += (k == gapAt ? "::" : k ? ":" : "") + std::string(buf);
    }
    if (gapAt >= groups && gapAt < 8) t += "::";
    if (quad) t += (t.empty() || t.back() == ':' ? "" : ":") + octet() + "." + octet() + "." + octet() + "." + octet();
    if (pick(3) == 0) mutate(t, rng, "0123456789abcdefABCDEFg:./ x");
    in6_addr c;
    bool const cOk = inet_pton(AF_INET6, t.c_str(), &c) == 1;
    Ip6Addr ours;
    bool const ok = errorOf([&] { ours.stringValueIs(String(t)); }).empty();
    if (ok != cOk || (ok && std::memcmp(ours.bytes(), &c, 16) != 0)) {
      ASSERT_TRUE(ok && !cOk) << t;
      std::string const last = t.substr(t.rfind(':') + 1);  // the whole text when there is no colon
      ASSERT_TRUE(last.find('.') != std::string::npos && hasOddOctet(last)) << t;
      ++deliberate;
    }
    if (!cOk) continue;
    ++taken;
    quads += t.find('.') != std::string::npos;
    for (auto const& tail : tails) {
      String const text(t + tail);
      Brio::StringIter pos = text.begin();
      Ip6Addr a;
      std::string const err = errorOf([&] { a = sequenceToValue(pos, text.end(), static_cast<Ip6Addr*>(nullptr)); });
      ASSERT_EQ(err, "") << t << " then " << tail.substr(0, 4);
      ASSERT_EQ(pos - text.begin(), static_cast<std::ptrdiff_t>(t.size())) << t << " then " << tail.substr(0, 4);
      ASSERT_EQ(std::memcmp(a.bytes(), &c, 16), 0) << t << " then " << tail.substr(0, 4);
    }
  }
  EXPECT_GT(deliberate, 0);
  EXPECT_GT(taken, 200000);
  EXPECT_GT(quads, 10000);
}

TEST(Ip6Addr, PredicatesFollowTheirBlocks) {
  // loopback, multicast, linkLocalUnicast, linkLocalUnicast2, linkLocal, globalUnicast, siteLocal,
  // uniqueLocal, v4MappedV6, routableMulticast, validLlUnicastAddress
  std::pair<char const*, char const*> const rows[] = {
      {"::", "00000000000"},      {"::1", "10000000000"},      {"fe80::1", "00111000001"},
      {"fe80::", "00111000000"},  {"fe80:0:0:1::1", "00010000000"}, {"febf::1", "00010000000"},
      {"fec0::1", "00000110000"}, {"fd00::1", "00000101000"},  {"ff02::1", "01001000000"},
      {"ff01::1", "01000000000"}, {"ff05::1", "01000000010"},  {"ff0e::1", "01000000010"},
      {"::ffff:1.2.3.4", "00000100100"}, {"2001:db8::1", "00000100000"},
  };
  for (auto const& [text, want] : rows) {
    Ip6Addr const a = ip6(text);
    SCOPED_TRACE(text);
    EXPECT_EQ(flags({a.isLoopback(), a.isMulticast(), a.isLinkLocalUnicast(), a.isLinkLocalUnicast2(),
                     a.isLinkLocal(), a.isGlobalUnicast(), a.isSiteLocal(), a.isUniqueLocal(), a.isV4MappedV6(),
                     a.isRoutableMulticast(), a.validLlUnicastAddress()}),
              want);
    EXPECT_EQ(a.isUnicast(), !a.isMulticast());
    EXPECT_FALSE(a.isLoopbackBase());
    EXPECT_EQ(a.isZero(), std::string(text) == "::");
  }
  EXPECT_TRUE(ip6("ff02::d").isPimRouters());
  EXPECT_FALSE(ip6("ff05::d").isPimRouters());
}

TEST(Ip6Addr, DerivedAddressesAndLongestCommonPrefix) {
  EXPECT_EQ(ip6("2001:db8::1:2345:6789").solicitedNodeMulticastAddr(), ip6("ff02::1:ff45:6789"));
  EXPECT_EQ(ip6("ff02::1:ff45:6789").mcastEtherAddress(), EthAddr(0x33, 0x33, 0xff, 0x45, 0x67, 0x89));
  EXPECT_EQ(ip6("2001:db8:ffff::1").ip6AddrMaskedByLength(36), ip6("2001:db8:f000::"));
  EXPECT_EQ(ip6("2001:db8:ffff::1").ip6AddrMaskedByLength(128), ip6("2001:db8:ffff::1"));
  EXPECT_EQ(ip6("2001:db8:ffff::1").ip6AddrMaskedByLength(0), ip6("::"));
  for (auto [a, b, len] : {std::tuple{"2001:db8::1", "2001:db8::2", 126u}, {"::", "8000::", 0u},
                            {"2001:db8::", "2001:db9::", 31u}, {"fe80::1", "fe80::1", 128u}}) {
    EXPECT_EQ(ip6(a).longestCommonPrefix(ip6(b)), len) << a << " " << b;
  }
}

TEST(Ip6AddrDeathTest, MasksFromLengthsAbove128AreProgrammingErrors) {
  EXPECT_DEATH(Ip6Addr::maskOfLength(129), "Assertion failed: len <= 128");
  EXPECT_DEATH(ip6("::1").ip6AddrMaskedByLength(200), "Assertion failed: len <= 128");
  EXPECT_DEATH(Ip6AddrWithMask(ip6("::1"), 129).subnet(), "Assertion failed: len <= 128");
}

TEST(Ip6Addr, ElementAccessByIndexInHostOrder) {
  Ip6Addr a = ip6("2001:db8:1:2:3:4:5:6");
  EXPECT_EQ(a.u8(0), 0x20);
  EXPECT_EQ(a.u8(15), 0x06);
  EXPECT_EQ(a.u16(1), 0xdb8);
  EXPECT_EQ(a.u32(0), 0x20010db8u);
  EXPECT_EQ(a.u64(1), 0x0003000400050006ull);
  a.u16Is(7, 0xbeef);
  a.u8Is(0, 0x30);
  a.u32Del(1);
  EXPECT_EQ(a, ip6("3001:db8::3:4:5:beef"));
  a.u64Is(0, 0xfe80000000000000ull);
  a.u64Del(1);
  EXPECT_EQ(a, ip6("fe80::"));
  expectErrors({{[&] { a.u8Del(16); }, "Ip6Addr::u8Is: index out of range"},
                {[&] { a.u16(8); }, "Ip6Addr::u16: index out of range"},
                {[&] { a.u32Is(4, 1); }, "Ip6Addr::u32Is: index out of range"},
                {[&] { a.u64(2); }, "Ip6Addr::u64: index out of range"}});
  EXPECT_EQ(a, ip6("fe80::"));
}

TEST(Ip6Addr, OrderIsNumericAndHashesChainWang) {
  expectAscending<Ip6Addr>({"::1", "::2", "2001:db8::", "fe80::ffff", "fe80::1:0"});
  // Values computed independently from the published steps.
  EXPECT_EQ(ip6("::").hash(), 0xe0bda6d1u);
  EXPECT_EQ(ip6("2001:db8::1").hash(), 0x2739abbdu);
  EXPECT_EQ(p6("2001:db8::/32").hash(), 0xc0a55565u);
  EXPECT_EQ(Ip6AddrWithMask(ip6("2001:db8::"), 32).hash(), 0xc0a55565u);
  EXPECT_EQ(p6("2001:db8::/32").hash(9), Brio::Hash(9).mix(ip6("2001:db8::").hash()).mix(U32(32)).result());
  Ip6AddrWithFullMask const m(ip6("2001:db8::"), ip6("ffff::"));
  EXPECT_EQ(m.hash(9), Brio::Hash(9).mix(ip6("2001:db8::").hash()).mix(ip6("ffff::").hash()).result());
}

TEST(Ip6Prefix, ContainmentValidityAndSubnetHost) {
  Ip6Prefix const doc = p6("2001:db8::/32");
  EXPECT_EQ(answers<Ip6Addr>([&](Ip6Addr const& a) { return doc.contains(a); }, {"2001:db8:ffff::1", "2001:db9::"}),
            "10");
  EXPECT_TRUE(p6("::/0").contains(ip6("fe80::1")));
  for (char const* a : {"::", "2001:db8::", "ffff::"}) {
    EXPECT_FALSE(Ip6Prefix(ip6(a), 200).contains(ip6(a))) << a;
    EXPECT_FALSE(Ip6Prefix(ip6(a), Ip6Prefix::nullLen).contains(ip6(a))) << a;
  }
  EXPECT_EQ(answers<Ip6Prefix>([&](Ip6Prefix const& p) { return doc.overlaps(p); }, {"2001:db8:1::/48", "2001:db9::/32"}),
            "10");
  EXPECT_TRUE(p6("2001:db8:1::/48").overlaps(doc));
  EXPECT_EQ(answers<Ip6Prefix>(&Ip6Prefix::validAsPrefix,
                               {"2001:db8::/32", "2001:db8:8000::/33", "2001:db8:8000::/32", "2001:db8::1/127"}),
            "1100");
  Ip6Prefix const null(ip6("2001:db8::1"), Ip6Prefix::nullLen);
  EXPECT_TRUE(null.validAsPrefix());
  EXPECT_TRUE(null.isNullPrefix());
  EXPECT_EQ(answers<Ip6Prefix>(&Ip6Prefix::isDefaultRoutePrefix, {"::/0", "::1/0"}), "10");
  EXPECT_TRUE(p6("::1").isHostRoutePrefix());
  EXPECT_EQ(doc.subnetHost(ip6("::1")), ip6("2001:db8::1"));
  EXPECT_EQ(errorOf([&] { doc.subnetHost(ip6("2001::")); }), "Host address is too long");
  EXPECT_EQ(Ip6Prefix(ip6("2001:db8::"), Ip6Prefix::nullLen).subnetHost(ip6("2001::1")), ip6("2001:db8::1"));
}

TEST(Ip6PrefixOrder, MostSpecificFirstOtherwiseByAddress) {
  expectAscending<Ip6Prefix>({"2001:db7::/32", "2001:db8::/128", "2001:db8:1::/48", "2001:db8::/32", "::/0"});
  // Interface addresses use the prefix order too, unlike IPv4's shorter-first.
  EXPECT_LT(Ip6AddrWithMask(ip6("2001:db8::1"), 64), Ip6AddrWithMask(ip6("2001:db8::1"), 48));
}

TEST(Ip6AddrWithMask, SubnetMasksTheAddress) {
  Ip6AddrWithMask const a(ip6("2001:db8::1"), 64);
  EXPECT_EQ(a.subnet(), p6("2001:db8::/64"));
  EXPECT_FALSE(a.validAsPrefix());
  EXPECT_TRUE(a.contains(ip6("2001:db8::ffff")));
  EXPECT_TRUE(a.overlaps(Ip6AddrWithMask(ip6("2001:db8::5"), 128)));
  EXPECT_EQ(Ip6AddrWithFullMask(ip6("::"), ip6("ffff:ffff:ffff:fffe::")).maskLength(), 63u);
  EXPECT_FALSE(Ip6AddrWithFullMask(ip6("::"), ip6("ffff::1")).hasPrefixRepr());
}

TEST(Ip6AttrLog, AddressesAreTheirSixteenBytesInOrder) {
  Brio::Bytes const wire = expectAttrLogRoundTrip(ip6("2001:db8::1"), p6("2001:db8::/32"),
                                                   Ip6AddrWithMask(ip6("fe80::1"), 64),
                                                   Ip6AddrWithFullMask(ip6("fe80::1"), ip6("ffff::1")));
  EXPECT_EQ(std::memcmp(wire.data(), ip6("2001:db8::1").bytes(), 16), 0);
  EXPECT_THROW(attrLogReadOf<Ip6Addr>(), Brio::SizeException);
}

}  // namespace
