// Test support: the checks every value-type test is made of (text tables,
// strep and attribute-log round trips, cuts of good texts read within their
// end). They report through EXPECT_*; callers name the case with
// SCOPED_TRACE or a streamed message.
#pragma once

#include <Brio/Exception.h>
#include <Brio/NboAttrLog.h>
#include <Brio/String.h>
#include <Brio/TextForm.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace CorvidTest {

// The message of the Brio::RangeException f raises, or "" when none.
template <class F>
std::string errorOf(F&& f) {
  try {
    f();
  } catch (Brio::RangeException const& e) {
    return e.what();
  }
  return "";
}

// A call and the RangeException message it must raise.
struct ErrorRow {
  std::function<void()> call;
  char const* message;
};

inline void expectErrors(std::initializer_list<ErrorRow> rows) {
  for (auto const& r : rows) EXPECT_EQ(errorOf(r.call), r.message);
}

// Predicate answers as one string, '1' for true: one table row per value.
inline std::string flags(std::initializer_list<bool> answers) {
  std::string s;
  for (bool b : answers) s += b ? '1' : '0';
  return s;
}

// What predicate p answers for the value read from each text, as flags.
template <class T, class P>
std::string answers(P p, std::initializer_list<char const*> texts) {
  std::string s;
  for (auto t : texts) s += std::invoke(p, Brio::strepToValue<T>(Brio::String(t))) ? '1' : '0';
  return s;
}

// Calls f with every cut of each text, from the empty one to the whole.
template <class F>
void forEachCut(std::initializer_list<std::string_view> texts, F f) {
  for (auto t : texts)
    for (std::size_t k = 0; k <= t.size(); ++k) f(Brio::String(std::string(t.substr(0, k))));
}

// Runs f, which may change v; if f throws, v must be as it was.
template <class T, class F>
void unchangedOnThrow(T& v, F f) {
  T const before = v;
  try {
    f();
  } catch (...) {
    EXPECT_EQ(v, before) << "a refused text changed the value";
    throw;
  }
}

// A whole-text reader for checkRows: T's stringValueIs over a value read
// from `start`, which a refusal must leave alone.
template <class T>
auto stringValueIsOver(char const* start) {
  return [start](Brio::String const& t) {
    T v = Brio::strepToValue<T>(Brio::String(start));
    unchangedOnThrow(v, [&] { v.stringValueIs(t); });
  };
}

// "= <text>" when f returns its text, else the RangeException's message.
template <class F>
std::string outcomeOf(F&& f) {
  try {
    return "= " + f();
  } catch (Brio::RangeException const& e) {
    return e.what();
  }
}

// Reading the whole text with the strep reader; the value as its strep.
template <class T>
std::string strepOutcome(std::string const& text) {
  return outcomeOf([&] { return Brio::strep(Brio::strepToValue<T>(Brio::String(text))).str(); });
}

// Reading the whole text with T's stringValueIs; the value as stringValue.
template <class T>
std::string stringValueOutcome(std::string const& text) {
  return outcomeOf([&] {
    T v;
    v.stringValueIs(Brio::String(text));
    return v.stringValue().str();
  });
}

struct OutcomeRow {
  char const* text;
  char const* outcome;  // "= canonical" or the message
};

inline void expectOutcomes(std::span<OutcomeRow const> rows, std::string (*outcome)(std::string const&)) {
  for (auto const& r : rows) EXPECT_EQ(outcome(r.text), r.outcome) << r.text;
}

// What sequenceToValue reads at the start of a text.
struct ReadAt {
  std::string strep;     // the value read
  std::size_t consumed;  // bytes the reader moved past
};

template <class T>
ReadAt readAt(Brio::String const& text) {
  Brio::StringIter pos = text.begin();
  T const v = sequenceToValue(pos, text.end(), static_cast<T*>(nullptr));
  return {Brio::strep(v).str(), static_cast<std::size_t>(pos - text.begin())};
}

// Reads each T at the start of a cut: accepted or refused, never past its end.
template <class... T>
void readWithinCut(Brio::String const& cut) {
  auto one = [&cut]<class V>(V* type) {
    Brio::StringIter pos = cut.begin();
    errorOf([&] { sequenceToValue(pos, cut.end(), type); });
    EXPECT_LE(pos - cut.begin(), static_cast<long>(cut.bytes())) << cut.str();
  };
  (one(static_cast<T*>(nullptr)), ...);
}

// Exactly text.size() heap bytes: a raw reader looking past the end shows
// under ASan.
inline std::unique_ptr<char[]> exactCopy(std::string_view text) {
  auto block = std::make_unique<char[]>(text.size());
  std::memcpy(block.get(), text.data(), text.size());
  return block;
}

// Up to two random edits of a text, as the reader cross-checks make bad
// texts from good ones: a character of `noise` inserted, one dropped, or a cut.
inline void mutate(std::string& t, std::mt19937& rng, std::string_view noise) {
  for (auto m = rng() % 3; m > 0; --m) {
    std::size_t const at = rng() % (t.size() + 1);
    switch (rng() % 3) {
      case 0: t.insert(at, 1, noise[rng() % noise.size()]); break;
      case 1: if (at < t.size()) t.erase(at, 1); break;
      default: t.resize(at);
    }
  }
}

// Whether a dotted quad has an octet the IPv4 reader takes on purpose and
// inet_pton refuses: one with a leading zero (decimal here), or a run longer
// than three digits (only its low 32 bits are tested).
inline bool hasOddOctet(std::string const& quad) {
  std::size_t start = 0;
  for (std::size_t dot; start <= quad.size(); start = dot + 1) {
    dot = std::min(quad.find('.', start), quad.size());
    std::size_t const n = dot - start;
    if ((n > 1 && quad[start] == '0') || n > 3) return true;
  }
  return false;
}

// v.printToBuffer at every size up to one past its text (a null buffer at
// size 0): the whole text's length back, the text cut as snprintf cuts it,
// nothing written past size.
template <class T>
void expectPrintToBufferLikeSnprintf(T const& v, std::string const& text) {
  char expected[160];
  ASSERT_LT(text.size() + 2, sizeof expected);
  for (unsigned size = 0; size <= text.size() + 1; ++size) {
    std::vector<char> buf(size + 1, '#');
    std::memset(expected, '#', size + 1);
    int const whole = std::snprintf(expected, size, "%s", text.c_str());  // writes nothing at size 0
    EXPECT_EQ(v.printToBuffer(size ? buf.data() : nullptr, size), static_cast<unsigned>(whole)) << size;
    EXPECT_EQ(std::string(buf.begin(), buf.end()), std::string(expected, size + 1)) << size;
  }
}

// v's strep reads back equal and printing the same strep (which catches
// state operator== ignores); returns the strep for tests that pin it.
template <class T>
std::string expectStrepRoundTrip(T const& v) {
  std::string const strep = Brio::strep(v).str();
  T const back = Brio::strepToValue<T>(Brio::String(strep));
  EXPECT_EQ(back, v) << strep;
  EXPECT_EQ(Brio::strep(back).str(), strep);
  return strep;
}

// One text of a reader table.
struct TextRow {
  char const* input;
  char const* canonical;  // the strep sequenceToValue reads; nullptr: it refuses with `error`
  char const* error;      // the whole-text reader's refusal; nullptr: it accepts the text
  std::size_t consumed;   // bytes sequenceToValue reads when it succeeds
};

// Each row through sequenceToValue and the whole-text reader `whole`: a
// refusal leaves the position alone; a value prints its canonical text,
// which reads back to the same value.
template <class T, class Whole>
void checkRows(std::vector<TextRow> const& rows, Whole whole) {
  for (auto const& r : rows) {
    SCOPED_TRACE(r.input);
    Brio::String const text(r.input);
    EXPECT_EQ(errorOf([&] { whole(text); }), r.error ? r.error : "");
    if (!r.canonical) {
      Brio::StringIter pos = text.begin();
      EXPECT_EQ(errorOf([&] { sequenceToValue(pos, text.end(), static_cast<T*>(nullptr)); }), r.error);
      EXPECT_EQ(pos, text.begin());
      continue;
    }
    Brio::StringIter pos = text.begin();
    T const v = sequenceToValue(pos, text.end(), static_cast<T*>(nullptr));
    EXPECT_EQ(expectStrepRoundTrip(v), r.canonical);
    EXPECT_EQ(static_cast<std::size_t>(pos - text.begin()), r.consumed);
  }
}

// Texts both readers refuse, each with its message.
template <class T, class Whole>
void checkRefusals(std::vector<OutcomeRow> const& refusals, Whole whole) {
  std::vector<TextRow> rows;
  for (auto const& r : refusals) rows.push_back({r.text, nullptr, r.outcome, 0});
  checkRows<T>(rows, whole);
}

// The values through one attribute log and back, in order, equal and with
// nothing left over; returns the bytes for tests that pin the wire form.
template <class... T>
Brio::Bytes expectAttrLogRoundTrip(T const&... values) {
  Brio::NboAttrLog log;
  (attrLogWrite(log, values), ...);
  Brio::NboAttrLog in(log.data());
  auto readBack = [&in](auto const& v) {
    using V = std::remove_cvref_t<decltype(v)>;
    V const back = attrLogRead(in, static_cast<V*>(nullptr));
    EXPECT_EQ(back, v);
    EXPECT_EQ(Brio::strep(back).str(), Brio::strep(v).str());
  };
  (readBack(values), ...);
  EXPECT_TRUE(in.atEnd());
  return log.data();
}

// A T read from an attribute log holding `written` (bytes from outside).
template <class T, class... W>
T attrLogReadOf(W const&... written) {
  Brio::NboAttrLog log;
  (attrLogWrite(log, written), ...);
  Brio::NboAttrLog in(log.data());
  return attrLogRead(in, static_cast<T*>(nullptr));
}

// Each value sorts strictly before every later one and not before itself
// or an earlier one: the order, its strictness and its transitivity at once.
template <class T>
void expectAscending(std::vector<T> const& values) {
  for (std::size_t i = 0; i < values.size(); ++i)
    for (std::size_t j = 0; j < values.size(); ++j)
      EXPECT_EQ(values[i] < values[j], i < j) << Brio::strep(values[i]).str() << " < " << Brio::strep(values[j]).str();
}

// The same, for values read from their strep texts.
template <class T>
void expectAscending(std::initializer_list<char const*> texts) {
  std::vector<T> values;
  for (auto t : texts) values.push_back(Brio::strepToValue<T>(Brio::String(t)));
  expectAscending(values);
}

}  // namespace CorvidTest
