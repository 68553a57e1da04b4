// IPv4 addresses, prefixes and masks: text forms against tables and against
// inet_pton, order, hashes, binary forms and the class E toggle.
#include <Corvid/Ip.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "support/ValueCases.h"

using namespace Corvid;
using namespace CorvidTest;
using Brio::String;

namespace {

IpAddr ip(char const* text) { return Brio::strepToValue<IpAddr>(String(text)); }
Prefix prefix(char const* text) { return Brio::strepToValue<Prefix>(String(text)); }

TEST(IpAddrText, ReadsAndPrintsTheTable) {
  char const* const bad = "Invalid IpAddr";
  auto const whole = stringValueIsOver<IpAddr>("9.9.9.9");
  checkRows<IpAddr>({{"1.2.3.4", "1.2.3.4", nullptr, 7},
                     {"0.0.0.0", "0.0.0.0", nullptr, 7},
                     {"255.255.255.255", "255.255.255.255", nullptr, 15},
                     {"01.002.3.4", "1.2.3.4", nullptr, 10},          // leading zeros are decimal
                     {"4294967296.1.1.1", "0.1.1.1", nullptr, 16},    // octet keeps the low 32 bits
                     {"4294967551.0.0.1", "255.0.0.1", nullptr, 16},
                     {"1.2.3.4x", "1.2.3.4", bad, 7}, {"1.2.3.4.5", "1.2.3.4", bad, 7}, {"1.2.3.4/8", "1.2.3.4", bad, 7}},
                    whole);
  checkRefusals<IpAddr>({{"1.2.3", bad}, {"1.2.3.", bad}, {"1.2.3.256", bad}, {"1..2.3", bad}, {".1.2.3", bad}, {"", bad},
                         {" 1.2.3.4", bad}, {"1.2.3.-4", bad}, {"0x1.2.3.4", bad}, {"300.1.1.1", bad},
                         {"4294967040.1.1.1", bad}},
                        whole);
}

TEST(PrefixText, ReadsAndValidatesTheTable) {
  char const* const hostBits = "Invalid Prefix - non-zero after prefixlen";
  char const* const premature = "premature end of Prefix type";
  checkRows<Prefix>({{"10.0.0.0/8", "10.0.0.0/8", nullptr, 10},     {"0.0.0.0/0", "0.0.0.0/0", nullptr, 9},
                     {"10.1.2.3/32", "10.1.2.3/32", nullptr, 11},   {"10.0.0.0/08", "10.0.0.0/8", nullptr, 11},
                     {"10.0.0.0/8 rest", "10.0.0.0/8", hostBits, 10}, {"10.0.0.0/8x", "10.0.0.0/8", hostBits, 10},
                     {"10.0.0.1/8", nullptr, hostBits, 0},          {"10.0.0.0/33", nullptr, hostBits, 0},
                     {"0.0.0.0/4294967295", nullptr, hostBits, 0},
                     {"10.0.0.0/4294967304", "10.0.0.0/8", nullptr, 19},  // length keeps the low 32 bits
                     {"10.0.0.0", nullptr, premature, 0},           {"10.0.0.0/", nullptr, premature, 0},
                     {"10.0.0.0/x", nullptr, premature, 0},         {"10.0.0.0 /8", nullptr, premature, 0},
                     {"10.0.0/8", nullptr, "Invalid IpAddr", 0}},
                    stringValueIsOver<Prefix>("10.0.0.0/8"));
}

TEST(IpAddrWithMaskText, KeepsHostBitsAndAnyLength) {
  checkRows<IpAddrWithMask>({{"10.1.2.3/8", "10.1.2.3/8", nullptr, 10},
                             {"10.0.0.1/8", "10.0.0.1/8", nullptr, 10},
                             {"10.0.0.0/33", "10.0.0.0/33", nullptr, 11},
                             {"10.0.0.0/4294967295", "10.0.0.0/4294967295", nullptr, 19},
                             {"10.0.0.0", nullptr, "premature end of Prefix type", 0},
                             {"10.0.0/8", nullptr, "Invalid IpAddr", 0}},
                            [](String const& t) { Brio::strepToValue<IpAddrWithMask>(t); });
}

TEST(IpAddrWithFullMaskText, RecordStrepReadsBack) {
  IpAddrWithFullMask const v(ip("1.2.3.4"), 255);
  EXPECT_EQ(expectStrepRoundTrip(v), "Value('Corvid::IpAddrWithFullMask', ** {'address': 1.2.3.4, 'mask': 255})");
  EXPECT_EQ(strepOutcome<IpAddrWithFullMask>("Value('Corvid::IpAddrWithFullMask', ** {'address': 1.2.3, 'mask': 255})"),
            "Invalid IpAddr");
}

// The reader against inet_pton on generated good and bad texts. The only
// differences allowed are the ones kept on purpose:
//  - an octet with a leading zero: decimal here ("010" is 10), refused by
//    inet_pton;
//  - an octet of absurd length: only its low 32 bits are tested here, so a
//    run worth 2^32 + n reads as n; inet_pton refuses it.
TEST(IpAddrText, AgreesWithInetPtonExceptDeliberateDifferences) {
  std::mt19937 rng(4242);
  auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
  auto octet = [&]() -> std::string {
    switch (pick(10)) {
      case 0: return "0" + std::to_string(pick(256));
      case 1: return std::to_string(256 + pick(2000));
      case 2: return std::to_string(4294967296ULL + pick(300));
      default: return std::to_string(pick(256));
    }
  };
  int differences = 0;
  for (int i = 0; i < 200000; ++i) {
    std::string t = octet() + "." + octet() + "." + octet() + "." + octet();
    mutate(t, rng, "0123456789.:/x -");
    in_addr c;
    bool const cOk = inet_pton(AF_INET, t.c_str(), &c) == 1;
    IpAddr ours;
    bool const ok = errorOf([&] { ours.stringValueIs(String(t)); }).empty();
    if (ok == cOk && (!ok || ours.networkOrder() == c.s_addr)) continue;
    ++differences;
    // Only texts we accept and inet_pton refuses, for one of the two reasons.
    ASSERT_TRUE(ok && !cOk) << t;
    EXPECT_TRUE(hasOddOctet(t)) << t;
  }
  EXPECT_GT(differences, 0);
}

TEST(IpText, PrintToBufferCutsLikeSnprintf) {
  expectPrintToBufferLikeSnprintf(ip("192.168.1.1"), "192.168.1.1");
  expectPrintToBufferLikeSnprintf(prefix("10.0.0.0/8"), "10.0.0.0/8");
}

TEST(IpAddr, PredicatesFollowTheirBlocks) {
  // unicast, multicast, reservedMulticast, loopback, thisNetwork, linkLocal, private, broadcast
  std::pair<char const*, char const*> const rows[] = {
      {"0.0.0.0", "10001000"},     {"224.0.0.1", "01100000"},   {"224.0.1.1", "01000000"},
      {"239.255.255.255", "01000010"}, {"240.0.0.1", "10000000"}, {"255.255.255.255", "00000011"},
      {"127.0.0.1", "10010010"},  // 0x7f has 0x0a's bits
      {"169.254.1.1", "10000100"}, {"10.0.0.1", "10000010"},
      {"11.0.0.0", "10000010"},  // bit-subset test, kept
      {"14.1.1.1", "10000010"},    {"172.16.0.1", "10000010"},  {"192.168.0.1", "10000010"},
      {"9.255.255.255", "10000000"}, {"8.8.8.8", "10000000"},
  };
  for (auto const& [text, want] : rows) {
    IpAddr const a = ip(text);
    EXPECT_EQ(flags({a.isUnicast(), a.isMulticast(), a.isReservedMulticast(), a.isLoopback(), a.isThisNetwork(),
                     a.isLinkLocal(), a.isPrivate(), a.isBroadcast()}),
              want)
        << text;
    EXPECT_EQ(a.isLinkLocalUnicast(), a.isLinkLocal()) << text;
  }
  EXPECT_TRUE(ip("127.0.0.0").isLoopbackBase());
  EXPECT_FALSE(ip("127.0.0.1").isLoopbackBase());
  EXPECT_TRUE(ip("224.0.0.13").isPimRouters());
  EXPECT_FALSE(ip("224.0.0.14").isPimRouters());
}

TEST(IpAddr, OrderIsNumericAndHashIsWangOfTheNetworkWord) {
  expectAscending<IpAddr>({"9.255.255.255", "10.0.0.0", "10.0.0.2", "10.0.0.10"});
  // Values computed independently from the published hash32shift steps.
  EXPECT_EQ(ip("0.0.0.0").hash(), 0xcaa3caa3u);
  EXPECT_EQ(ip("10.1.2.3").hash(), 0xd3e0d276u);
  EXPECT_EQ(ip("192.168.1.1").hash(), 0x8f079ad1u);
  EXPECT_EQ(ip("255.255.255.255").hash(), 0xbd55fc18u);
}

TEST(IpAddr, LongestCommonPrefixAndMulticastEthernetAddress) {
  EXPECT_EQ(ip("10.0.0.0").longestCommonPrefix(ip("10.0.0.1")), 31u);
  EXPECT_EQ(ip("0.0.0.0").longestCommonPrefix(ip("128.0.0.0")), 0u);
  EXPECT_EQ(ip("1.2.3.4").longestCommonPrefix(ip("1.2.3.4")), 32u);
  EXPECT_EQ(ip("10.1.0.0").longestCommonPrefix(ip("10.3.0.0")), 14u);
  // The second octet's top bit is dropped.
  EXPECT_EQ(ip("224.0.0.5").mcastEtherAddress(), EthAddr(0x01, 0x00, 0x5e, 0x00, 0x00, 0x05));
  EXPECT_EQ(ip("239.129.2.3").mcastEtherAddress(), EthAddr(0x01, 0x00, 0x5e, 0x01, 0x02, 0x03));
  EXPECT_EQ(ipMcastMacAddr(ip("239.129.2.3")), ip("239.129.2.3").mcastEtherAddress());
  unsigned char out[4];
  ip("1.2.3.4").copyToBuffer(out);
  EXPECT_EQ(std::vector<int>(out, out + 4), (std::vector<int>{1, 2, 3, 4}));
}

TEST(Prefix, ConstructorAcceptsCleanPairsAndTheAllOnesSentinel) {
  EXPECT_NO_THROW(Prefix(ip("0.0.0.0"), 0));
  EXPECT_NO_THROW(Prefix(ip("10.1.2.3"), 32));
  EXPECT_NO_THROW(Prefix(ip("10.1.2.3"), 0xffffffff));
  for (auto [a, len] : {std::pair{"1.0.0.0", 0u}, {"10.0.0.1", 8u}, {"10.0.0.0", 33u}}) {
    EXPECT_EQ(errorOf([&] { Prefix(ip(a), len); }), "Prefix::validAsPrefix != true not allowed") << a;
  }
  EXPECT_TRUE(prefix("1.2.3.4/32").isHost());
  EXPECT_FALSE(prefix("224.0.0.0/4").isUnicast());
}

TEST(PrefixOrder, NestedMostSpecificFirstAndDefaultRouteLast) {
  // The all-ones sentinel length compares like a host route.
  expectAscending(std::vector<Prefix>{prefix("9.0.0.0/8"), Prefix(ip("10.0.0.1"), 0xffffffff), prefix("10.1.0.0/16"),
                                      prefix("10.0.0.0/8"), prefix("11.0.0.0/8"), prefix("0.0.0.0/0")});
  // Interface addresses go by address, then the shorter length first.
  expectAscending<IpAddrWithMask>({"9.0.0.0/32", "10.0.0.0/8", "10.0.0.0/16"});
  expectAscending(std::vector<IpAddrWithFullMask>{{ip("1.1.1.0"), 9}, {ip("1.1.1.1"), 5}, {ip("1.1.1.1"), 6}});
}

TEST(Prefix, SubnetHostRefusesHostBitsInTheNetworkPart) {
  EXPECT_EQ(prefix("10.0.0.0/24").subnetHost(ip("0.0.0.5")), ip("10.0.0.5"));
  EXPECT_EQ(errorOf([] { prefix("10.0.0.0/16").subnetHost(ip("0.1.0.0")); }), "Host address too long");
  EXPECT_EQ(prefix("0.0.0.0/0").subnetHost(ip("1.2.3.4")), ip("1.2.3.4"));
  EXPECT_EQ(Prefix(ip("10.0.0.0"), 0xffffffff).subnetHost(ip("1.0.0.0")), ip("11.0.0.0"));
}

TEST(IpPairs, SeededHashesMixAddressHashThenSecondField) {
  IpAddr const a = ip("10.1.2.3");
  U32 const expected = Brio::Hash(7).mix(a.hash()).mix(U32(32)).result();
  EXPECT_EQ(Prefix(a, 32).hash(7), expected);
  EXPECT_EQ(IpAddrWithMask(a, 32).hash(7), expected);
  EXPECT_EQ(IpAddrWithFullMask(a, 32).hash(7), expected);
  EXPECT_NE(Prefix(a, 32).hash(8), expected);
}

// The IPv4 configuration text of a full mask, read by
// sequenceToPrefixFullMask, is held in IpGenAddrWithFullMask's table.
TEST(PrefixFullMask, ThrowersRaiseTheReadersMessages) {
  EXPECT_EQ(errorOf(throwPrefixToFullMask), "Invalid IPv4 prefix length");
  EXPECT_EQ(errorOf(throwPrefixLen), "premature end of Prefix type");
}

TEST(IpAttrLog, WritesHostOrderWordsAndReadsThemBack) {
  Brio::Bytes const wire = expectAttrLogRoundTrip(ip("10.1.2.3"), prefix("10.0.0.0/8"),
                                                   IpAddrWithMask(ip("10.1.2.3"), 8),
                                                   IpAddrWithFullMask(ip("1.2.3.4"), 255));
  EXPECT_EQ(wire.str().substr(0, 8), std::string("\x0a\x01\x02\x03\x0a\x00\x00\x00", 8));
  // A prefix with host bits from outside is refused like any other.
  EXPECT_THROW(attrLogReadOf<Prefix>(IpAddrWithMask(ip("10.0.0.1"), 8)), Brio::RangeException);
}

TEST(GetRtaAddr, CopiesThePayloadUnchangedAndRefusesShortAttributes) {
  alignas(4) unsigned char buf[RTA_LENGTH(16)] = {};
  auto* rta = reinterpret_cast<rtattr*>(buf);
  unsigned char const payload[16] = {10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  std::memcpy(RTA_DATA(rta), payload, sizeof payload);
  rta->rta_len = RTA_LENGTH(16);
  IpAddr a;
  Ip6Addr b;
  EthAddr c;
  ASSERT_TRUE(getRtaAddr(rta, &a) && getRtaAddr(rta, &b) && getRtaAddr(rta, &c));
  EXPECT_EQ(a, ip("10.1.2.3"));
  EXPECT_EQ(std::memcmp(b.bytes(), payload, 16), 0);
  EXPECT_EQ(c, EthAddr(10, 1, 2, 3, 4, 5));
  rta->rta_len = RTA_LENGTH(4);
  Ip6Addr untouched;
  EXPECT_FALSE(getRtaAddr(rta, &untouched));
  EXPECT_TRUE(untouched.isZero());
}

// The toggle is read once per process, so each case runs in a fresh process
// (the threadsafe death-test style re-executes the binary) with its own
// FLAGSET_DIR; the exit code carries the answers: 1 class E reserved for
// ordinary callers, 2 for callers that ask, 4 broadcast, 8 a private address.
int reservedAnswers(char const* json) {
  std::filesystem::path const dir =
      std::filesystem::temp_directory_path() / ("corvid-toggle-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  if (json) std::ofstream(dir / "Corvid.json") << json;
  setenv("FLAGSET_DIR", dir.c_str(), 1);
  IpAddr const classE = ip("240.0.0.1");
  int const bits = (classE.isReserved(false) ? 1 : 0) | (classE.isReserved(true) ? 2 : 0) |
                   (ip("255.255.255.255").isReserved(false) ? 4 : 0) | (ip("10.0.0.1").isReserved(false) ? 8 : 0);
  std::filesystem::remove_all(dir);
  return bits;
}

TEST(ReservedToggle, ClassEIsRoutableUnlessTheToggleIsOff) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::pair<char const*, int> const cases[] = {
      {"{\"Ipv4Routable240ClassE\": true}", 1}, {"{\"Ipv4Routable240ClassE\": false}", 3},
      {nullptr, 1},  // a missing file means on
      {"{\"Ipv4Routable240ClassE\": 2}", 3},  // only the lowest bit of a number counts
  };
  for (auto const& [json, bits] : cases) {
    EXPECT_EXIT(std::exit(reservedAnswers(json)), testing::ExitedWithCode(bits), "") << (json ? json : "no file");
  }
}

}  // namespace
