#include <Corvid/EthAddr.h>

#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <set>
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
// count, each within its width.
bool referenceParse(std::string const& text, unsigned bytesWanted, std::string* canonical) {
  std::size_t firstSep = text.find_first_not_of("0123456789abcdefABCDEF");
  if (firstSep == 0 || firstSep == std::string::npos) return false;
  char sep = text[firstSep];
  if (sep != ':' && sep != '-' && sep != '.') return false;
  unsigned width = sep == '.' ? 2 : 1;
  std::vector<unsigned> bytes;
  std::size_t start = 0;
  while (bytes.size() < bytesWanted) {
    std::size_t stop = start;
    while (stop < text.size() && std::isxdigit(static_cast<unsigned char>(text[stop]))) ++stop;
    if (stop == start) return false;
    unsigned long v = 0;
    for (std::size_t i = start; i < stop; ++i) {
      v = v * 16 + std::stoul(std::string(1, text[i]), nullptr, 16);
      if (v > (width == 2 ? 0xffffUL : 0xffUL)) return false;
    }
    if (width == 2) bytes.push_back(static_cast<unsigned>(v >> 8));
    bytes.push_back(static_cast<unsigned>(v & 0xff));
    if (bytes.size() >= bytesWanted) {
      start = stop;
      break;
    }
    if (stop >= text.size() || text[stop] != sep) return false;
    start = stop + 1;
  }
  if (start != text.size()) return false;
  char buf[4];
  canonical->clear();
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(buf, sizeof buf, "%s%02x", i ? ":" : "", bytes[i]);
    *canonical += buf;
  }
  return true;
}

struct ParseCase {
  char const* text;
  char const* canonical;  // nullptr: the text is refused
};

ParseCase const ethCases[] = {
    {"00:1c:73:0a:0b:0c", "00:1c:73:0a:0b:0c"},
    {"00-1c-73-0a-0b-0c", "00:1c:73:0a:0b:0c"},
    {"001c.730a.0b0c", "00:1c:73:0a:0b:0c"},
    {"0:1c:73:a:b:c", "00:1c:73:0a:0b:0c"},
    {"00:1C:73:0A:0B:0C", "00:1c:73:0a:0b:0c"},
    {"1c.730a.b0c", "00:1c:73:0a:0b:0c"},
    {"ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"},
    {"FFFF.FFFF.FFFF", "ff:ff:ff:ff:ff:ff"},
    {"000000ff:1:2:3:4:5", "ff:01:02:03:04:05"},
    {"00:1c-73:0a:0b:0c", nullptr},
    {"00:1c:73:0a:0b", nullptr},
    {"100:1c:73:0a:0b:0c", nullptr},
    {"10000.0.0", nullptr},
    {"001c730a0b0c", nullptr},
    {"00 1c 73 0a 0b 0c", nullptr},
    {":00:1c:73:0a:0b:0c", nullptr},
    {"00::73:0a:0b:0c", nullptr},
    {"00:1c:73:0a:0b:", nullptr},
    {"001c.730a", nullptr},
    {"001c.730a.", nullptr},
    {"g0:1c:73:0a:0b:0c", nullptr},
    {"", nullptr},
    {"00:1c:73:0a:0b:0c:", nullptr},
    {"00:1c:73:0a:0b:0cx", nullptr},
};

TEST(EthAddrText, TableReadsAndPrintsCanonically) {
  for (auto const& c : ethCases) {
    SCOPED_TRACE(c.text);
    std::string ref;
    bool refOk = referenceParse(c.text, 6, &ref);
    EXPECT_EQ(refOk, c.canonical != nullptr);
    EthAddr a(0x1111, 0x2222, 0x3333);
    if (c.canonical) {
      a.stringValueIs(c.text);
      EXPECT_EQ(a.stringValue(), c.canonical);
      EXPECT_EQ(ref, c.canonical);
      expectStrepRoundTrip(a);
      std::ostringstream os;
      os << a;
      EXPECT_EQ(os.str(), c.canonical);
    } else {
      EXPECT_EQ(errorOf([&] { a.stringValueIs(c.text); }), "Invalid EthAddr");
      EXPECT_EQ(a, EthAddr(0x1111, 0x2222, 0x3333)) << "a failed stringValueIs changed the value";
    }
  }
}

TEST(EthAddrText, SequenceReaderStopsAfterLastGroup) {
  Brio::String text("00:1c:73:0a:0b:0c/rest");
  auto pos = text.begin();
  EthAddr a = sequenceToValue(pos, text.end(), static_cast<EthAddr*>(nullptr));
  EXPECT_EQ(a, EthAddr(0x001c, 0x730a, 0x0b0c));
  EXPECT_EQ(std::string(pos, text.end()), "/rest");
}

TEST(EthAddrText, EveryPrefixOfGoodTextIsReadOrRefusedWithinBounds) {
  for (auto const& c : ethCases) {
    if (!c.canonical) continue;
    std::string full = c.text;
    for (std::size_t n = 0; n < full.size(); ++n) {
      // A heap copy of exactly n bytes, so an overread shows under ASan.
      Brio::String cut(full.substr(0, n));
      std::string ref;
      bool refOk = referenceParse(cut.str(), 6, &ref);
      EXPECT_EQ(strepOutcome<EthAddr>(cut.str()), refOk ? "= " + ref : "Invalid EthAddr")
          << "prefix " << n << " of " << full;
    }
  }
}

TEST(EthAddrText, DisplayStringIsDottedWordsAndPrintToBufferCutsLikeSnprintf) {
  EthAddr a("00:1c:73:0a:0b:0c");
  EXPECT_EQ(a.displayString(), "001c.730a.0b0c");
  char buf[8];
  EXPECT_EQ(a.printToBuffer(buf, sizeof buf), 17u);
  EXPECT_STREQ(buf, "00:1c:7");
  char big[32];
  EXPECT_EQ(a.printToBuffer(big, sizeof big), 17u);
  EXPECT_STREQ(big, "00:1c:73:0a:0b:0c");
  EXPECT_EQ(a.printToBuffer(nullptr, 0), 17u);
}

struct PredicateCase {
  char const* text;
  bool unicast, broadcast, multicast, ip6Multicast, ip4LinkLocal, linkConstrained;
};

TEST(EthAddrPredicates, TableOfClasses) {
  PredicateCase const cases[] = {
      {"ff:ff:ff:ff:ff:ff", false, true, false, false, false, false},
      {"01:00:5e:00:00:01", false, false, true, false, true, false},
      {"01:00:5e:00:00:ff", false, false, true, false, true, false},
      {"01:00:5e:00:01:00", false, false, true, false, false, false},
      {"33:33:00:00:00:01", false, false, true, true, false, false},
      {"01:80:c2:00:00:00", false, false, true, false, false, true},
      {"01:80:c2:00:00:0e", false, false, true, false, false, true},
      {"01:80:c2:00:00:10", false, false, true, false, false, false},
      {"01:00:0c:cc:cc:cd", false, false, true, false, false, true},
      {"01:00:0c:cc:cc:cc", false, false, true, false, false, false},
      {"00:1c:73:0a:0b:0c", true, false, false, false, false, false},
      {"02:00:00:00:00:00", true, false, false, false, false, false},
      {"00:00:00:00:00:00", true, false, false, false, false, false},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    EthAddr a(c.text);
    EXPECT_EQ(a.isUnicast(), c.unicast);
    EXPECT_EQ(a.isBroadcast(), c.broadcast);
    EXPECT_EQ(a.isMulticast(), c.multicast);
    EXPECT_EQ(a.isIp6Multicast(), c.ip6Multicast);
    EXPECT_EQ(a.isIp4LinkLocalMulticast(), c.ip4LinkLocal);
    EXPECT_EQ(a.isIEEELinkConstrained(), c.linkConstrained);
  }
}

TEST(EthAddrParts, WordsAndBytesAreHostOrderOverWireOrderStorage) {
  EthAddr a(0x00, 0x1c, 0x73, 0x0a, 0x0b, 0x0c);
  EXPECT_EQ(a.word(0), 0x001c);
  EXPECT_EQ(a.word(2), 0x0b0c);
  EXPECT_EQ(a.byte(1), 0x1c);
  EXPECT_EQ(a.oui(), 0x001c73u);
  EXPECT_EQ(a.station(), 0x0a0b0cu);
  U8 wire[6];
  a.copyToBuffer(wire);
  U8 const expected[6] = {0x00, 0x1c, 0x73, 0x0a, 0x0b, 0x0c};
  EXPECT_EQ(0, std::memcmp(wire, expected, 6));
  EXPECT_EQ(EthAddr(expected), a);
  a.wordIs(1, 0xabcd);
  a.byteIs(5, 0xee);
  EXPECT_EQ(a.stringValue(), "00:1c:ab:cd:0b:ee");
  a.wordDel(0);
  a.byteDel(4);
  EXPECT_EQ(a.stringValue(), "00:00:ab:cd:00:ee");
}

TEST(EthAddrParts, IndexOutOfRangeRaisesNamedMessage) {
  EthAddr a;
  EXPECT_EQ(errorOf([&] { a.word(3); }), "EthAddr::word: index out of range");
  EXPECT_EQ(errorOf([&] { a.wordIs(3, 1); }), "EthAddr::wordIs: index out of range");
  EXPECT_EQ(errorOf([&] { a.byte(6); }), "EthAddr::byte: index out of range");
  EXPECT_EQ(errorOf([&] { a.byteIs(6, 1); }), "EthAddr::byteIs: index out of range");
  EXPECT_EQ(errorOf([&] { a.byteDel(6); }), "EthAddr::byteIs: index out of range");
  Eui64 e;
  EXPECT_EQ(errorOf([&] { e.word(4); }), "Eui64::word: index out of range");
  EXPECT_EQ(errorOf([&] { e.wordIs(4, 1); }), "Eui64::wordIs: index out of range");
  EXPECT_EQ(errorOf([&] { Eui64U8Key(8); }), "Eui64U8Key::value < 0 or > 7 not allowed");
}

TEST(EthAddrOrder, NumericByWordsAndHashesFollowTheirDefinitions) {
  std::set<EthAddr> s{EthAddr("00:00:00:00:01:00"), EthAddr("00:00:00:00:00:ff"),
                      EthAddr("01:00:00:00:00:00"), EthAddr("00:01:00:00:00:00")};
  std::vector<std::string> order;
  for (auto const& a : s) order.push_back(a.stringValue().str());
  EXPECT_EQ(order, (std::vector<std::string>{"00:00:00:00:00:ff", "00:00:00:00:01:00", "00:01:00:00:00:00",
                                             "01:00:00:00:00:00"}));
  EthAddr a("00:1c:73:0a:0b:0c");
  EXPECT_EQ(a.hash(), Corvid::wangHash32((0x001cu ^ 0x730au) << 16 | 0x0b0cu));
  // Values from the original formulation, key = ~key + (key << 15); ...
  EXPECT_EQ(Corvid::wangHash32(0), 0xcaa3caa3u);
  EXPECT_EQ(Corvid::wangHash32(0x12345678), 0xc7e424bau);
  EXPECT_NE(a.hash(7), a.hash(8));
  EXPECT_NE(a.hash(7), EthAddr("00:1c:73:0a:0b:0d").hash(7));
  std::unordered_set<EthAddr> u{a, a, EthAddr()};
  EXPECT_EQ(u.size(), 2u);
}

TEST(EthAddrAttrLog, WritesTheSixAddressBytesAndReadsThemBack) {
  EthAddr a("00:1c:73:0a:0b:0c");
  EXPECT_EQ(expectAttrLogRoundTrip(a), Brio::Bytes(std::string("\x00\x1c\x73\x0a\x0b\x0c", 6)));
  expectAttrLogRoundTrip(a, EthAddrWithMask(a, EthAddr::broadcast()), a.eui64());
}

TEST(EthAddrWithMaskText, RecordFormReadsBack) {
  EthAddrWithMask m(EthAddr("00:1c:73:0a:0b:0c"), EthAddr("ff:ff:ff:00:00:00"));
  EXPECT_EQ(expectStrepRoundTrip(m),
            "Value('Corvid::EthAddrWithMask', ** {'mac': 00:1c:73:0a:0b:0c, 'mask': ff:ff:ff:00:00:00})");
  EXPECT_LT(m, EthAddrWithMask(EthAddr("00:1c:73:0a:0b:0c"), EthAddr("ff:ff:ff:ff:00:00")));
  EXPECT_LT(m, EthAddrWithMask(EthAddr("00:1c:73:0a:0b:0d"), EthAddr()));
  EXPECT_NE(m.hash(1), EthAddrWithMask(m.mask(), m.mac()).hash(1));
}

ParseCase const eui64Cases[] = {
    {"02:1c:73:ff:fe:0a:0b:0c", "02:1c:73:ff:fe:0a:0b:0c"},
    {"02-1C-73-FF-FE-0A-0B-0C", "02:1c:73:ff:fe:0a:0b:0c"},
    {"021c.73ff.fe0a.0b0c", "02:1c:73:ff:fe:0a:0b:0c"},
    {"2:1c:73:ff:fe:a:b:c", "02:1c:73:ff:fe:0a:0b:0c"},
    {"02:1c:73:ff:fe:0a:0b", nullptr},
    {"021c.73ff.fe0a", nullptr},
    {"02:1c:73:ff:fe:0a:0b:100", nullptr},
    {"02:1c:73:ff-fe:0a:0b:0c", nullptr},
    {"02:1c:73:ff:fe:0a:0b:0c:", nullptr},
};

TEST(Eui64Text, TableReadsPrintsAndRefusesWithItsOwnMessage) {
  for (auto const& c : eui64Cases) {
    SCOPED_TRACE(c.text);
    std::string ref;
    EXPECT_EQ(referenceParse(c.text, 8, &ref), c.canonical != nullptr);
    Eui64 e(0x0102030405060708ULL);
    if (c.canonical) {
      e.stringValueIs(c.text);
      EXPECT_EQ(e.stringValue(), c.canonical);
      expectStrepRoundTrip(e);
      for (std::size_t n = 0; n < std::strlen(c.text); ++n) {
        std::string const cut(c.text, n);
        std::string ref;
        bool const refOk = referenceParse(cut, 8, &ref);
        EXPECT_EQ(strepOutcome<Eui64>(cut), refOk ? "= " + ref : "Invalid Eui64") << cut;
      }
    } else {
      EXPECT_EQ(errorOf([&] { e.stringValueIs(c.text); }), "Invalid Eui64");
      EXPECT_EQ(e, Eui64(0x0102030405060708ULL));
    }
  }
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
  char buf[6];
  EXPECT_EQ(Eui64(1).printToBuffer(buf, sizeof buf), 23u);
  EXPECT_STREQ(buf, "00:00");
}

}  // namespace
