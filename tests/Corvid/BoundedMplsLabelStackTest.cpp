#include <Corvid/BoundedMplsLabelStack.h>
#include <Corvid/DynamicMplsLabelStack.h>
#include <Corvid/MplsLabelOperation.h>

#include <Brio/TextForm.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <string>
#include <vector>

#include "support/ValueCases.h"

using namespace Corvid;
using namespace CorvidTest;
using Error = BoundedMplsLabelStackError;
using Stack = BoundedMplsLabelStack;
using K = MplsLabelOperationKind;

namespace {

constexpr U32 EL = MplsLabel::entropyLabel;
char const* const invalidStack = "Invalid MplsLabelStack";
char const* const invalidMaps = "Invalid entropy label bit maps";
char const* const tooBig = "BoundedMplsLabelStack::stackSize > 7 not allowed";

// A stack built by appending `labels`, each of which must be taken.
Stack stack(std::initializer_list<U32> labels) {
  Stack s;
  for (U32 l : labels) EXPECT_TRUE(s.append(MplsLabel(l)).success()) << l;
  return s;
}

// A stack built by appending `labels`, whatever each append answers.
Stack appended(std::vector<U32> const& labels) {
  Stack s;
  for (U32 l : labels) s.append(MplsLabel(l));
  return s;
}

Stack fromText(std::string const& text) {
  Stack s;
  s.stringValueIs(text);
  return s;
}

// The text form of a stack holding `labels`, top first.
std::string topDown(std::string const& labels) { return "TOP ( " + labels + (labels.empty() ? "" : " ") + ") BOTTOM"; }

std::vector<U32> calculated(Stack const& s) {
  std::vector<U32> out;
  for (U32 p = 0; p < s.calculatedStackSize(); ++p) out.push_back(s.calculatedLabel(p).value());
  return out;
}

TEST(MplsLabel, RangeDefaultAndPrettyNames) {
  char const* const range = "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
  EXPECT_EQ(MplsLabel().value(), MplsLabel::noLabel);
  EXPECT_EQ(MplsLabel(8388608).value(), MplsLabel::luWithdraw);
  expectErrors({{[] { MplsLabel(8388609); }, range},
                {[] { Brio::strepToValue<MplsLabel>("8388609"); }, range},
                {[] { Brio::strepToValue<MplsLabel>("99999999999999999999999"); }, range},
                {[] { Brio::strepToValue<MplsLabel>("x"); }, "Invalid MplsLabel"},
                {[] { MplsStackEntryIndex(8); },
                 "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::nullValue not allowed"}});
  std::pair<U32, char const*> const pretty[] = {
      {0, "exp-null-v4(0)"}, {1, "router-alert(1)"}, {2, "exp-null-v6(2)"}, {3, "imp-null(3)"},
      {7, "entropy-indicator(7)"}, {1048576, "N/A"}, {1048577, "(any)"}, {1048578, "(entropy)"},
      {8388608, "(lu-withdraw)"}, {4, "4"}, {16, "16"}, {1048575, "1048575"}};
  for (auto const& [value, text] : pretty) EXPECT_EQ(MplsLabel(value).prettyString(), text);
  EXPECT_EQ(flags({MplsLabel(0).isExplicitNull(), MplsLabel(2).isExplicitNull(), MplsLabel(3).isExplicitNull()}), "110");
  expectStrepRoundTrip(MplsLabel(123456));
}

// One edit on a stack built by appending `start`.
struct EditCase {
  char const* name;
  std::vector<U32> start;
  U32 label;
  Error expected;
  char const* after;
};

template <class Edit>
void runEditTable(std::vector<EditCase> const& cases, Edit edit) {
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Stack s = appended(c.start);
    EXPECT_EQ(edit(s, MplsLabel(c.label)), c.expected);
    EXPECT_EQ(s.stringValue(), c.after);
  }
}

TEST(MplsStack, AppendRulesTable) {
  runEditTable({
      {"eighth label", {16, 17, 18, 19, 20, 21, 22}, 23, Error::stackFull, "TOP ( 22 21 20 19 18 17 16 ) BOTTOM"},
      {"null above a label", {100}, 3, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"explicit null above a label", {100}, 0, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"router alert alone", {}, 1, Error::labelIgnored, "TOP ( ) BOTTOM"},
      {"router alert above a label", {100}, 1, Error::success, "TOP ( 1 100 ) BOTTOM"},
      {"explicit null alone", {}, 2, Error::success, "TOP ( 2 ) BOTTOM"},
      {"label replaces implicit null", {3}, 100, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"implicit null over implicit null", {3}, 3, Error::labelIgnored, "TOP ( 3 ) BOTTOM"},
      {"router alert over implicit null", {3}, 1, Error::labelIgnored, "TOP ( 3 ) BOTTOM"},
      {"entropy label", {100}, EL, Error::success, "TOP ( ELI EL 100 ) BOTTOM"},
      {"entropy label on empty", {}, EL, Error::success, "TOP ( ELI EL ) BOTTOM"},
      {"label over an entropy pair", {100, EL}, 200, Error::success, "TOP ( 200 ELI EL 100 ) BOTTOM"},
      {"label replaces implicit null under a pair", {3, EL}, 100, Error::labelIgnored, "TOP ( 100 ELI EL ) BOTTOM"},
  }, [](Stack& s, MplsLabel l) { return s.append(l); });
}

TEST(MplsStack, PrependRulesTable) {
  runEditTable({
      {"under a label", {100}, 200, Error::success, "TOP ( 100 200 ) BOTTOM"},
      {"router alert", {100}, 1, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"indicator", {100}, 7, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"entropy label", {100}, EL, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"implicit null under a label", {100}, 3, Error::labelIgnored, "TOP ( 100 ) BOTTOM"},
      {"implicit null alone", {}, 3, Error::success, "TOP ( 3 ) BOTTOM"},
      {"explicit null under explicit null", {0}, 2, Error::labelIgnored, "TOP ( 0 ) BOTTOM"},
      {"explicit null under a label", {100}, 2, Error::success, "TOP ( 100 2 ) BOTTOM"},
      {"eighth", {16, 17, 18, 19, 20, 21, 22}, 23, Error::stackFull, "TOP ( 22 21 20 19 18 17 16 ) BOTTOM"},
      // The pair stays at its position; the labels move up past it.
      {"under a label below a pair", {100, EL}, 200, Error::success, "TOP ( 100 ELI EL 200 ) BOTTOM"},
  }, [](Stack& s, MplsLabel l) { return s.prepend(l); });
}

TEST(MplsStack, EntropyLabelAppendGivesLabelThenPairBottomUp) {
  auto s = stack({100});
  EXPECT_EQ(s.append(MplsLabel(EL)), Error::success);
  EXPECT_EQ(calculated(s), (std::vector<U32>{100, EL, 7}));
  EXPECT_EQ(s.calculatedTop(), MplsLabel(7));
  EXPECT_EQ(s.top(), MplsLabel(100));
  EXPECT_EQ(s.cliShowString(), "entropy-indicator(7) (entropy) 100");
  EXPECT_EQ(errorOf([&] { s.calculatedLabel(3); }), "Entropy label bit map position index out of range");
  // Not a range error: errorOf lets it through.
  EXPECT_THAT([&] { errorOf([&] { s.append(MplsLabel(7)); }); },
              testing::ThrowsMessage<Brio::Exception>(testing::StrEq("Can't append the entropy label indicator")));
}

TEST(MplsStack, EntropyPositionRulesTable) {
  struct { char const* name; std::vector<U32> start; U32 position; Error expected; } const cases[] = {
      {"above one label", {100}, 1, Error::success},
      {"below every label", {100, 200}, 0, Error::success},
      {"too high above the labels", {100}, 2, Error::tooFewLabels},
      {"index above 30", {}, 31, Error::largeIndex},
      {"same pair again", {100, EL}, 1, Error::noOp},
      {"straddling a pair", {100, EL}, 2, Error::invalidEntropyLabelPosition},
      {"overlapping a pair from below", {100, EL}, 0, Error::invalidEntropyLabelPosition},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Stack s = appended(c.start);
    auto const before = valueToStrep(s);
    EXPECT_EQ(s.entropyLabelAndIndicatorIs(c.position), c.expected);
    if (c.expected != Error::success) {
      EXPECT_EQ(valueToStrep(s), before);
    }
  }
}

TEST(MplsStack, CalculatedStackFullStopsAt32Positions) {
  Stack s;
  int pairs = 0;
  while (s.append(MplsLabel(EL)) == Error::success) ++pairs;
  EXPECT_EQ(pairs, 16);
  EXPECT_EQ(s.calculatedStackSize(), 32u);
  EXPECT_EQ(s.append(MplsLabel(100)), Error::entropyLabelBitMapFull);
  EXPECT_EQ(s.prepend(MplsLabel(100)), Error::entropyLabelBitMapFull);
  EXPECT_EQ(s.entropyLabelAndIndicatorIs(0), Error::noOp);
}

// A refused extend leaving the stack alone is checked on every step of the
// randomized test below.
TEST(MplsStack, ExtendKeepsTheOtherStacksPairAndCombinesIgnoredLabels) {
  auto t = stack({16});
  EXPECT_EQ(t.extend(stack({100, EL, 200})), Error::success);
  EXPECT_EQ(t.stringValue(), "TOP ( 200 ELI EL 100 16 ) BOTTOM");
  // A refused null inside the other stack is combined but not fatal.
  auto u = stack({16});
  EXPECT_EQ(u.extend(stack({3})), Error::labelIgnored);
  EXPECT_EQ(u.stringValue(), "TOP ( 16 ) BOTTOM");
}

TEST(MplsStack, OrderIsSizeThenLabelsFromTheTop) {
  expectAscending(std::vector<Stack>{Stack(), stack({500}), stack({200, 100}), stack({300, 100}), stack({100, 200})});
  EXPECT_EQ(stack({100, 200}).top(), MplsLabel(200));
  EXPECT_FALSE(Stack());
  EXPECT_TRUE(stack({EL}));
  // Equal on the wire means equal, whatever the spare slots hold.
  auto a = stack({100});
  auto b = a;
  b.labelIs(5, MplsLabel(999));
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_NE(a.hash(), stack({101}).hash());
}

TEST(MplsStack, SlotIndexErrorsUseTheirOwnMessages) {
  Stack s;
  auto withPair = stack({100, 200, EL});
  expectErrors({{[&] { s.label(7); }, "MplsLabelOperation::labelStack: index out of range"},
                {[&] { s.labelIs(7, MplsLabel(1)); }, "BoundedMplsLabelStack::labelIs: index out of range"},
                {[&] { s.stackSizeIs(8); }, tooBig},
                {[&] { withPair.stackSizeIs(1); }, invalidMaps}});
  withPair.stackSizeIs(2);
  EXPECT_EQ(withPair.stringValue(), "TOP ( ELI EL 200 100 ) BOTTOM");
}

TEST(MplsStack, RecordStrepReadsBackAndRefusesInconsistentMaps) {
  EXPECT_EQ(expectStrepRoundTrip(stack({100, EL, 200})),
            "Value('Corvid::BoundedMplsLabelStack', ** {'stackSize': 2, 'label0': 100, 'label1': 200, "
            "'label2': 1048576, 'label3': 1048576, 'label4': 1048576, 'label5': 1048576, 'label6': 1048576, "
            "'entropyLabelBitMap': 2, 'entropyLabelIndicatorBitMap': 4})");
  struct { U8 size; U32 el, eli; char const* message; } const bad[] = {
      {8, 0, 0, tooBig},
      {1, 2, 0, invalidMaps},                     // EL without ELI
      {1, 2, 2, invalidMaps},                     // both at one position
      {1, 4, 8, invalidMaps},                     // pair above the calculated stack
      {7, 0x80000000u, 0, invalidMaps},           // no room for the ELI
      {7, 0x1555555u, 0x2aaaaaau, invalidMaps},   // 7 + 26 > 32
  };
  MplsLabel const l(100);
  for (auto const& c : bad) EXPECT_EQ(errorOf([&] { Stack(c.size, l, l, l, l, l, l, l, c.el, c.eli); }), c.message);
}

TEST(MplsStack, StringValueReadsBackAndRefusesMalformedText) {
  for (char const* text : {"TOP ( ) BOTTOM", "TOP ( 200 100 ) BOTTOM", "TOP ( ELI EL 100 ) BOTTOM",
                           "TOP ( 7 1048578 ) BOTTOM", "TOP ( ELI EL ELI EL ) BOTTOM"}) {
    Stack s = fromText(text);
    EXPECT_EQ(s.stringValue(), text);
    DynamicMplsLabelStack d;
    d.stringValueIs(text);
    EXPECT_EQ(d.stringValue(), text);
    EXPECT_EQ(Brio::strepToValue<DynamicMplsLabelStack>(text), d);
    // Every cut of a good text is refused, and none reads past its end.
    std::string const full = text;
    for (std::size_t n = 0; n < full.size(); ++n) {
      Brio::String const cut(full.substr(0, n));
      EXPECT_EQ(errorOf([&] { s.stringValueIs(cut); }), invalidStack) << cut;
      EXPECT_EQ(errorOf([&] { d.stringValueIs(cut); }), invalidStack) << cut;
    }
    EXPECT_EQ(s.stringValue(), text) << "a failed stringValueIs changed the value";
  }
  std::string big = "TOP ( ";
  for (int i = 0; i < 17; ++i) big += "ELI EL ";
  big += ") BOTTOM";
  OutcomeRow const bad[] = {
      {"TOP ( EL ELI ) BOTTOM", invalidStack}, {"TOP ( ELI 100 EL ) BOTTOM", invalidStack},
      {"TOP ( EL ) BOTTOM", invalidStack},     {"TOP (  ) BOTTOM", invalidStack},  {"TOP ( 100  ) BOTTOM", invalidStack},
      {"TOP ( -1 ) BOTTOM", invalidStack},     {"TOP ( 100 ) BOTTOM ", invalidStack}, {"TOP ( ELX ) BOTTOM", invalidStack},
      {big.c_str(), invalidStack},             {"TOP ( 8 7 6 5 4 3 2 1 ) BOTTOM", tooBig},
      {"TOP ( 8388609 ) BOTTOM", "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed"}};
  expectOutcomes(bad, stringValueOutcome<Stack>);
  DynamicMplsLabelStack d;
  d.stringValueIs(big);
  EXPECT_EQ(d.calculatedStackSize(), 34u);
}

TEST(MplsStack, AttrLogAndSerializeRoundTrip) {
  auto s = stack({100, EL, 200});
  DynamicMplsLabelStack d(s);
  expectAttrLogRoundTrip(s, d);
  Brio::Bytes wire = d.serialize();
  EXPECT_EQ(wire, Brio::Bytes(std::string("\x02\x00\x00\x00\x64\x00\x00\x00\xc8\x01\x01", 11)));
  EXPECT_EQ(DynamicMplsLabelStack::deserialize(wire), d);
  // Overlapping pairs, a pair above the stack, trailing bytes, a cut.
  for (std::string bad : {std::string("\x00\x02\x00\x01", 4), std::string("\x00\x01\x05", 3),
                          std::string("\x00\x00\x00", 3)}) {
    EXPECT_EQ(errorOf([&] { DynamicMplsLabelStack::deserialize(Brio::Bytes(bad)); }), "Invalid DynamicMplsLabelStack");
  }
  EXPECT_THROW(DynamicMplsLabelStack::deserialize(Brio::Bytes(std::string("\x02\x00\x00", 3))), Brio::SizeException);
}

// Conversions both ways are checked on every step of the randomized test
// below; here only a dynamic stack too big for the bounded one.
TEST(MplsStack, DynamicStackOfEightLabelsDoesNotConvert) {
  DynamicMplsLabelStack d;
  for (U32 l = 16; l < 24; ++l) d.append(MplsLabel(l));
  EXPECT_EQ(errorOf([&] { Stack{d}; }), "DynamicMplsLabelStack does not fit a BoundedMplsLabelStack");
}

// The entropy-label rules every reachable bounded stack keeps.
void expectEntropyRules(Stack const& s) {
  U32 const el = s.entropyLabelBitMap();
  U32 const eli = s.entropyLabelIndicatorBitMap();
  ASSERT_EQ(el & eli, 0u);
  ASSERT_EQ(eli, el << 1) << "every EL has its ELI directly above";
  ASSERT_EQ(el >> 31, 0u);
  ASSERT_LE(s.stackSize(), 7u);
  U32 const c = s.calculatedStackSize();
  ASSERT_LE(c, 32u);
  ASSERT_EQ(c, s.stackSize() + static_cast<U32>(std::popcount(el | eli)));
  ASSERT_TRUE(c == 32 || ((el | eli) >> c) == 0) << "a pair above the calculated stack";
  U32 ordinary = 0;
  for (U32 p = 0; p < c; ++p) {
    U32 const v = s.calculatedLabel(p).value();
    if (el >> p & 1) {
      ASSERT_EQ(v, MplsLabel::entropyLabel);
      ASSERT_EQ(s.calculatedLabel(p + 1).value(), 7u);
    } else if (!(eli >> p & 1)) {
      ASSERT_EQ(v, s.label(ordinary++).value());
    }
  }
  ASSERT_EQ(ordinary, s.stackSize());
  for (U32 i = s.stackSize(); i < 7; ++i) ASSERT_EQ(s.label(i), MplsLabel()) << "spare slot " << i;
}

void expectSame(Stack const& b, DynamicMplsLabelStack const& d) {
  ASSERT_EQ(b.stackSize(), d.stackSize());
  ASSERT_EQ(b.calculatedStackSize(), d.calculatedStackSize());
  for (U32 p = 0; p < b.calculatedStackSize(); ++p) {
    ASSERT_EQ(b.calculatedKind(p), d.calculatedKind(p)) << p;
    ASSERT_EQ(b.calculatedLabel(p), d.calculatedLabel(p)) << p;
  }
  for (U32 p = 0; p <= 33; ++p) ASSERT_EQ(b.numNormalLabelsAtIndex(p), d.numNormalLabelsAtIndex(p)) << p;
  ASSERT_EQ(b.stringValue(), d.stringValue());
  ASSERT_EQ(b.hash(9), d.hash(9));
}

bool isCapacityCode(Error e) {
  return e == Error::stackFull || e == Error::entropyLabelBitMapFull || e == Error::largeIndex;
}

TEST(MplsStackRandomized, BoundedAndDynamicAgreeAndKeepEntropyRules) {
  std::mt19937 rng(20240611);
  U32 const labels[] = {0, 1, 2, 3, 7, 16, 100, 200, 1048575, EL, EL, 1048577, 8388608};
  auto pickLabel = [&] { return MplsLabel(labels[rng() % std::size(labels)]); };
  int capacityHits = 0, edits = 0;
  for (int run = 0; run < 3000; ++run) {
    Stack b;
    DynamicMplsLabelStack d;
    for (int step = 0; step < 30; ++step) {
      DynamicMplsLabelStack const dBefore = d;
      auto const bBefore = valueToStrep(b);
      Error rb{}, rd{};
      int const op = static_cast<int>(rng() % 10);
      if (op < 6) {
        MplsLabel const l = pickLabel();
        if (op < 4 && l.value() == 7) {
          EXPECT_THROW(b.append(l), Brio::Exception);
          EXPECT_THROW(d.append(l), Brio::Exception);
          continue;
        }
        rb = (op < 4 ? b.append(l) : b.prepend(l)).code();
        rd = (op < 4 ? d.append(l) : d.prepend(l)).code();
      } else if (op < 8) {
        U32 const p = rng() % 34;
        rb = b.entropyLabelAndIndicatorIs(p).code();
        rd = d.entropyLabelAndIndicatorIs(p).code();
      } else if (op == 8) {
        Stack other;
        for (int i = static_cast<int>(rng() % 4); i > 0; --i) {
          MplsLabel const l = pickLabel();
          if (l.value() != 7) other.append(l);
        }
        rb = b.extend(other).code();
        rd = d.extend(DynamicMplsLabelStack(other)).code();
      } else {
        MplsLabel const l = pickLabel();
        ASSERT_EQ(b.labelsDel(l), d.labelsDel(l));
      }
      ++edits;
      if (isCapacityCode(rb)) {
        // Only the bounded stack runs out of room this early.
        ++capacityHits;
        ASSERT_FALSE(isCapacityCode(rd)) << toString(rb) << " vs " << toString(rd);
        ASSERT_EQ(valueToStrep(b), bBefore) << "a refused edit changed the stack";
        d = dBefore;
      } else {
        ASSERT_EQ(rb, rd) << "run " << run << " step " << step << " op " << op;
        if (!BoundedMplsLabelStackResult(rb).success()) {
          ASSERT_EQ(valueToStrep(b), bBefore);
        }
      }
      ASSERT_NO_FATAL_FAILURE(expectEntropyRules(b));
      ASSERT_NO_FATAL_FAILURE(expectSame(b, d));
      ASSERT_EQ(valueToStrep(Stack(d)), valueToStrep(b));
      ASSERT_EQ(Brio::strepToValue<Stack>(valueToStrep(b)), b);
      ASSERT_EQ(Brio::strepToValue<DynamicMplsLabelStack>(valueToStrep(d)), d);
    }
  }
  EXPECT_GT(capacityHits, 100) << "the sequences should reach the bounded limits";
  EXPECT_GT(edits, 50000);
}

TEST(MplsLabelOperation, TopLabelOfEmptyStackRaises) {
  MplsLabelOperation op;
  UnboundedMplsLabelOperation uop;
  expectErrors({{[&] { op.topLabel(); }, "MplsLabelOperation::topLabel: label stack size 0"},
                {[&] { uop.topLabel(); }, "UnboundedMplsLabelOperation::topLabel: label stack size 0"},
                {[&] { op.labelStack(7); }, "MplsLabelOperation::labelStack: index out of range"}});
  op.label0Is(MplsLabel(100));
  op.label1Is(MplsLabel(200));
  op.stackSizeIs(2);
  EXPECT_EQ(op.topLabel(), MplsLabel(200));
}

TEST(MplsLabelOperation, ImplicitNullsAreRemovedOnlyForPushAndSwap) {
  for (auto kind : {K::push, K::swap, K::pop, K::forward}) {
    SCOPED_TRACE(toString(kind));
    Stack const s = fromText("TOP ( 200 ELI EL 3 100 3 ) BOTTOM");
    MplsLabelOperation op(kind, s);
    op.removeImplicitNullForPushOrSwap();
    bool const removes = kind == K::push || kind == K::swap;
    EXPECT_EQ(op.stack().stringValue(), removes ? "TOP ( 200 ELI EL 100 ) BOTTOM" : s.stringValue());
    if (removes) {
      EXPECT_EQ(op.stackSize(), 2u);
      EXPECT_EQ(op.label2(), MplsLabel()) << "freed slot holds noLabel";
    }
  }
}

TEST(MplsLabelOperation, SmushFoldsAnOuterPushTable) {
  U8 const added = mplsSmushLabelsAdded, changed = mplsSmushKindChanged, failed = mplsSmushFailed;
  struct { K inner; char const* innerStack; K outer; char const* outerStack; U8 flags; K kind; char const* result; } const
      cases[] = {
          {K::push, "100", K::push, "200", added, K::push, "200 100"},
          {K::swap, "100", K::push, "200", added, K::swap, "200 100"},
          {K::pop, "", K::push, "200", added | changed, K::swap, "200"},
          {K::forward, "", K::push, "ELI EL 200", added | changed, K::push, "ELI EL 200"},
          {K::push, "100", K::forward, "", 0, K::push, "100"},
          {K::push, "100", K::pop, "", failed, K::push, "100"},
          {K::push, "6 5 4 3 2 1", K::push, "200 100", failed, K::push, "6 5 4 3 2 1"},
      };
  for (auto const& c : cases) {
    MplsLabelOperation op(c.inner, fromText(topDown(c.innerStack)));
    EXPECT_EQ(op.smush(MplsLabelOperation(c.outer, fromText(topDown(c.outerStack)))), c.flags);
    EXPECT_EQ(op.operation(), c.kind);
    EXPECT_EQ(op.stack().stringValue(), topDown(c.result));
  }
}

TEST(MplsLabelOperation, RecordTextAndOrder) {
  Stack const s = stack({100});
  MplsLabelOperation op(K::swap, s);
  EXPECT_EQ(expectStrepRoundTrip(op),
            "Value('Corvid::MplsLabelOperation', ** {'operation': swap, 'labelStack': " + valueToStrep(s).str() + "})");
  EXPECT_EQ(expectStrepRoundTrip(UnboundedMplsLabelOperation(K::push, DynamicMplsLabelStack(s))),
            "Value('Corvid::UnboundedMplsLabelOperation', ** {'operation': push, 'labelStack': TOP ( 100 ) BOTTOM})");
  EXPECT_EQ(strepOutcome<MplsLabelOperation>(
                "Value('Corvid::MplsLabelOperation', ** {'operation': jump, 'labelStack': x})"),
            "Invalid MplsLabelOperationKind");
  EXPECT_LT(MplsLabelOperation(K::push, s), op);
  EXPECT_NE(op.hash(1), MplsLabelOperation(K::push, s).hash(1));
  expectAttrLogRoundTrip(op);
}

}  // namespace
