#include <Corvid/EthAddr.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "support/ValueCases.h"

using namespace CorvidTest;
using Corvid::EthAddr;
using Corvid::EthAddrWithMask;
using Corvid::Eui64;
using Corvid::Eui64U8Key;

namespace {

// A slow reference: split on the first separator, every group hex, fixed
// count, each within its width. The canonical text, or "" when refused.
std::string referenceParse(std::string const& text, unsigned bytesWanted) {
  std::size_t const firstSep = text.find_first_not_of("0123456789abcdefABCDEF");
  if (firstSep == 0 || firstSep == std::string::npos) return "";
  char const sep = text[firstSep];
  if (sep != ':' && sep != '-' && sep != '.') return "";
  unsigned long const max = sep == '.' ? 0xffff : 0xff;
  std::vector<unsigned> bytes;
  std::size_t start = 0;
  while (true) {
    std::size_t stop = start;
    unsigned long v = 0;
    for (; stop < text.size() && std::isxdigit(static_cast<unsigned char>(text[stop])); ++stop) {
      v = v * 16 + std::stoul(std::string(1, text[stop]), nullptr, 16);
      if (v > max) return "";
    }
    if (stop == start) return "";
    if (max == 0xffff) bytes.push_back(static_cast<unsigned>(v >> 8));
    bytes.push_back(static_cast<unsigned>(v & 0xff));
    start = stop + 1;
    if (bytes.size() >= bytesWanted) break;
    if (stop >= text.size() || text[stop] != sep) return "";
  }
  if (start != text.size() + 1) return "";
  std::string canonical;
  char buf[4];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%s%02x", i ? ":" : "", bytes[i]);
    canonical += buf;
  }
  return canonical;
}

struct ParseCase {
  char const* text;
  char const* canonical;  // nullptr: the text is refused
};

// Each row read into a value holding `seed`: the canonical text or the
// refusal, agreeing with the reference; a good text round-trips, and every
// cut of it reads as the reference says without looking past the cut.
template <class T>
void checkParseTable(std::vector<ParseCase> const& cases, unsigned bytes, char const* refusal, T const& seed) {
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(referenceParse(c.text, bytes), c.canonical ? c.canonical : "");
    T v = seed;
    if (!c.canonical) {
      EXPECT_EQ(errorOf([&] { v.stringValueIs(c.text); }), refusal);
      EXPECT_EQ(v, seed) << "a failed stringValueIs changed the value";
      continue;
    }
    v.stringValueIs(c.text);
    EXPECT_EQ(v.stringValue(), c.canonical);
    EXPECT_EQ(expectStrepRoundTrip(v), c.canonical);
    std::ostringstream os;
    os << v;
    EXPECT_EQ(os.str(), c.canonical);
    forEachCut({c.text}, [&](Brio::String const& cut) {
      std::string const ref = referenceParse(cut.str(), bytes);
      EXPECT_EQ(strepOutcome<T>(cut.str()), ref.empty() ? refusal : "= " + ref) << cut.str();
    });
  }
}

TEST(EthAddrText, TableReadsPrintsCanonicallyAndCutsAgreeWithTheReference) {
  checkParseTable<EthAddr>({{"00:1c:73:0a:0b:0c", "00:1c:73:0a:0b:0c"}, {"00-1c-73-0a-0b-0c", "00:1c:73:0a:0b:0c"},
                            {"001c.730a.0b0c", "00:1c:73:0a:0b:0c"},    {"0:1c:73:a:b:c", "00:1c:73:0a:0b:0c"},
                            {"00:1C:73:0A:0B:0C", "00:1c:73:0a:0b:0c"}, {"1c.730a.b0c", "00:1c:73:0a:0b:0c"},
                            {"ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"}, {"FFFF.FFFF.FFFF", "ff:ff:ff:ff:ff:ff"},
                            {"000000ff:1:2:3:4:5", "ff:01:02:03:04:05"}, {"00:1c-73:0a:0b:0c", nullptr},
                            {"00:1c:73:0a:0b", nullptr},     {"100:1c:73:0a:0b:0c", nullptr}, {"10000.0.0", nullptr},
                            {"001c730a0b0c", nullptr},       {"00 1c 73 0a 0b 0c", nullptr},
                            {":00:1c:73:0a:0b:0c", nullptr}, {"00::73:0a:0b:0c", nullptr},
                            {"00:1c:73:0a:0b:", nullptr},    {"001c.730a", nullptr},  {"001c.730a.", nullptr},
                            {"g0:1c:73:0a:0b:0c", nullptr},  {"", nullptr},           {"00:1c:73:0a:0b:0c:", nullptr},
                            {"00:1c:73:0a:0b:0cx", nullptr}},
                           6, "Invalid EthAddr", EthAddr(0x1111, 0x2222, 0x3333));
}

TEST(Eui64Text, TableReadsPrintsAndRefusesWithItsOwnMessage) {
  checkParseTable<Eui64>({{"02:1c:73:ff:fe:0a:0b:0c", "02:1c:73:ff:fe:0a:0b:0c"},
                          {"02-1C-73-FF-FE-0A-0B-0C", "02:1c:73:ff:fe:0a:0b:0c"},
                          {"021c.73ff.fe0a.0b0c", "02:1c:73:ff:fe:0a:0b:0c"},
                          {"2:1c:73:ff:fe:a:b:c", "02:1c:73:ff:fe:0a:0b:0c"},
                          {"02:1c:73:ff:fe:0a:0b", nullptr}, {"021c.73ff.fe0a", nullptr},
                          {"02:1c:73:ff:fe:0a:0b:100", nullptr}, {"02:1c:73:ff-fe:0a:0b:0c", nullptr},
                          {"02:1c:73:ff:fe:0a:0b:0c:", nullptr}},
                         8, "Invalid Eui64", Eui64(0x0102030405060708ULL));
}

TEST(EthAddrText, DisplayStringIsDottedWordsAndPrintToBufferCutsLikeSnprintf) {
  EthAddr a("00:1c:73:0a:0b:0c");
  EXPECT_EQ(a.displayString(), "001c.730a.0b0c");
  expectPrintToBufferLikeSnprintf(a, "00:1c:73:0a:0b:0c");
  expectPrintToBufferLikeSnprintf(Eui64(1), "00:00:00:00:00:00:00:01");
}

TEST(EthAddrPredicates, TableOfClasses) {
  // unicast, broadcast, multicast, ip6Multicast, ip4LinkLocalMulticast, IEEELinkConstrained
  std::pair<char const*, char const*> const cases[] = {
      {"ff:ff:ff:ff:ff:ff", "010000"}, {"01:00:5e:00:00:01", "001010"}, {"01:00:5e:00:00:ff", "001010"},
      {"01:00:5e:00:01:00", "001000"}, {"33:33:00:00:00:01", "001100"}, {"01:80:c2:00:00:00", "001001"},
      {"01:80:c2:00:00:0e", "001001"}, {"01:80:c2:00:00:10", "001000"}, {"01:00:0c:cc:cc:cd", "001001"},
      {"01:00:0c:cc:cc:cc", "001000"}, {"00:1c:73:0a:0b:0c", "100000"}, {"02:00:00:00:00:00", "100000"},
      {"00:00:00:00:00:00", "100000"},
  };
  for (auto const& [text, want] : cases) {
    EthAddr const a(text);
    EXPECT_EQ(flags({a.isUnicast(), a.isBroadcast(), a.isMulticast(), a.isIp6Multicast(),
                     a.isIp4LinkLocalMulticast(), a.isIEEELinkConstrained()}),
              want)
        << text;
  }
}

TEST(EthAddrParts, WordsAndBytesAreHostOrderOverWireOrderStorage) {
  EthAddr a(0x00, 0x1c, 0x73, 0x0a, 0x0b, 0x0c);
  EXPECT_EQ(a.word(0), 0x001c);
  EXPECT_EQ(a.word(2), 0x0b0c);
  EXPECT_EQ(a.byte(1), 0x1c);
  EXPECT_EQ(a.oui(), 0x001c73u);
  EXPECT_EQ(a.station(), 0x0a0b0cu);
  a.wordIs(1, 0xabcd);
  a.byteIs(5, 0xee);
  EXPECT_EQ(a.stringValue(), "00:1c:ab:cd:0b:ee");
  a.wordDel(0);
  a.byteDel(4);
  EXPECT_EQ(a.stringValue(), "00:00:ab:cd:00:ee");
  Eui64 e;
  expectErrors({{[&] { a.word(3); }, "EthAddr::word: index out of range"},
                {[&] { a.wordIs(3, 1); }, "EthAddr::wordIs: index out of range"},
                {[&] { a.byte(6); }, "EthAddr::byte: index out of range"},
                {[&] { a.byteIs(6, 1); }, "EthAddr::byteIs: index out of range"},
                {[&] { a.byteDel(6); }, "EthAddr::byteIs: index out of range"},
                {[&] { e.word(4); }, "Eui64::word: index out of range"},
                {[&] { e.wordIs(4, 1); }, "Eui64::wordIs: index out of range"},
                {[] { Eui64U8Key(8); }, "Eui64U8Key::value < 0 or > 7 not allowed"}});
}

TEST(EthAddrOrder, NumericByWordsAndHashesFollowTheirDefinitions) {
  expectAscending<EthAddr>({"00:00:00:00:00:ff", "00:00:00:00:01:00", "00:01:00:00:00:00", "01:00:00:00:00:00"});
  EthAddr a("00:1c:73:0a:0b:0c");
  EXPECT_EQ(a.hash(), Corvid::wangHash32((0x001cu ^ 0x730au) << 16 | 0x0b0cu));
  // Values from the original formulation, key = ~key + (key << 15); ...
  EXPECT_EQ(Corvid::wangHash32(0x12345678), 0xc7e424bau);
  EXPECT_NE(a.hash(7), a.hash(8));
  EXPECT_NE(a.hash(7), EthAddr("00:1c:73:0a:0b:0d").hash(7));
  EXPECT_EQ((std::unordered_set<EthAddr>{a, a, EthAddr()}.size()), 2u);
}

TEST(EthAddrWithMask, RecordFormAttrLogAndOrder) {
  EthAddr a("00:1c:73:0a:0b:0c");
  EXPECT_EQ(expectAttrLogRoundTrip(a), Brio::Bytes(std::string("\x00\x1c\x73\x0a\x0b\x0c", 6)));
  expectAttrLogRoundTrip(a, EthAddrWithMask(a, EthAddr::broadcast()), a.eui64());
  EthAddrWithMask m(a, EthAddr("ff:ff:ff:00:00:00"));
  EXPECT_EQ(expectStrepRoundTrip(m),
            "Value('Corvid::EthAddrWithMask', ** {'mac': 00:1c:73:0a:0b:0c, 'mask': ff:ff:ff:00:00:00})");
  expectAscending(std::vector<EthAddrWithMask>{m, EthAddrWithMask(a, EthAddr("ff:ff:ff:ff:00:00")),
                                               EthAddrWithMask(EthAddr("00:1c:73:0a:0b:0d"), EthAddr())});
  EXPECT_NE(m.hash(1), EthAddrWithMask(m.mask(), m.mac()).hash(1));
}

TEST(Eui64Parts, FromEthAddrIsModifiedEui64WithUniversalBitInverted) {
  EXPECT_EQ(EthAddr("00:1c:73:0a:0b:0c").eui64().stringValue(), "02:1c:73:ff:fe:0a:0b:0c");
  EXPECT_EQ(EthAddr("02:00:00:00:00:01").eui64().stringValue(), "00:00:00:ff:fe:00:00:01");
  Eui64 e(0x0102030405060708ULL);
  EXPECT_EQ(e.word(3), 0x0708);
  e.wordIs(0, 0xaabb);
  e.byteIs(Eui64U8Key(7), 0xff);
  EXPECT_EQ(e.stringValue(), "aa:bb:03:04:05:06:07:ff");
  EXPECT_EQ(e.byte(Eui64U8Key(1)), 0xbb);
  e.byteDel(Eui64U8Key(0));
  EXPECT_EQ(e.value(), 0x00bb0304050607ffULL);
  e.byteDelAll();
  EXPECT_EQ(e, Eui64());
  EXPECT_LT(Eui64(1), Eui64(0x100));
}

}  // namespace
