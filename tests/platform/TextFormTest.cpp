#include <Brio/Record.h>
#include <Brio/TextForm.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using Brio::String;
using Brio::StringIter;

namespace {

TEST(TextForm, DectolReadsDigitRunAndStopsAtFirstNonDigit) {
  struct Row {
    char const* text;
    S64 value;
    std::size_t consumed;
  };
  Row const rows[] = {
      {"0", 0, 1},
      {"010x", 10, 3},
      {"4294967296", 4294967296LL, 10},
      {"18446744073709551616", 0, 20},  // 2^64 wraps to 0
      {"x12", 0, 0},
      {"", 0, 0},
      {"12.3", 12, 2},
  };
  for (auto const& r : rows) {
    String s(r.text);
    StringIter pos = s.begin();
    EXPECT_EQ(Brio::dectol(pos, s.end()), r.value) << r.text;
    EXPECT_EQ(static_cast<std::size_t>(pos - s.begin()), r.consumed) << r.text;
  }
}

TEST(TextForm, BuiltInReadersRejectMalformedAndOutOfRange) {
  char const* const badU8[] = {"256", "", "-1", "x", "99999999999999999999999"};
  for (auto text : badU8) EXPECT_THROW(Brio::strepToValue<U8>(text), Brio::RangeException) << text;
  EXPECT_THROW(Brio::strepToValue<S8>("-129"), Brio::RangeException);
  EXPECT_THROW(Brio::strepToValue<bool>("true"), Brio::RangeException);
  EXPECT_THROW(Brio::strepToValue<String>("'open"), Brio::RangeException);
  EXPECT_THROW(Brio::strepToValue<String>("'bad\\q'"), Brio::RangeException);
  EXPECT_THROW(Brio::strepToValue<String>("'bad\\x4'"), Brio::RangeException);
  EXPECT_THAT([] { Brio::strepToValue<U32>("12 "); },
              testing::ThrowsMessage<Brio::RangeException>(testing::StrEq("unexpected text after value")));
}

TEST(TextForm, ReadersNeverReadPastEndOfAnyCut) {
  std::string const good[] = {"'a\\x41b'", "True", "False", "-12345", "1.5e10"};
  for (auto const& g : good) {
    for (std::size_t n = 0; n <= g.size(); ++n) {
      String cut(g.substr(0, n));  // own allocation: ASan sees any overread
      StringIter pos = cut.begin();
      try {
        if (g[0] == '\'') {
          Brio::sequenceToValue(pos, cut.end(), static_cast<String*>(nullptr));
        } else if (g[0] == 'T' || g[0] == 'F') {
          Brio::sequenceToValue(pos, cut.end(), static_cast<bool*>(nullptr));
        } else {
          Brio::sequenceToValue(pos, cut.end(), static_cast<F64*>(nullptr));
        }
      } catch (Brio::RangeException const&) {
      }
      EXPECT_LE(pos - cut.begin(), static_cast<long>(n));
    }
  }
}

// A record type with a field of every shape the record form must carry.
struct Sample {
  Sample() = default;
  Sample(U32 a, String n, bool f) : count(a), name(std::move(n)), flag(f) {}
  U32 count = 0;
  String name;
  bool flag = false;
  bool operator==(Sample const&) const = default;
};
inline constexpr auto sampleRecord =
    Brio::record<Sample>("Test::Sample", Brio::field("count", &Sample::count), Brio::field("name", &Sample::name),
                         Brio::field("flag", &Sample::flag));
BRIO_RECORD_TEXT_FORMS(Sample, sampleRecord)

TEST(Record, RejectsWrongTypeNameFieldNameOrMissingPieces) {
  char const* const bad[] = {
      "Value('Test::Other', ** {'count': 7, 'name': 'x', 'flag': True})",
      "Value('Test::Sample', ** {'cnt': 7, 'name': 'x', 'flag': True})",
      "Value('Test::Sample', ** {'count': 7, 'name': 'x'})",
      "Value('Test::Sample', ** {'count': 7, 'name': 'x', 'flag': True}",
      "Value('Test::Sample', ** {'count': , 'name': 'x', 'flag': True})",
      "Value('Test::Sample', ** {'count': 7,'name': 'x', 'flag': True})",
      "",
  };
  for (auto text : bad) EXPECT_THROW(Brio::strepToValue<Sample>(text), Brio::RangeException) << text;
}

}  // namespace
