// The edit rules of MPLS label stacks with RFC 6790 entropy labels, written
// once for every storage.
//
// A stack has ordinary labels (index 0 is the bottom, nearest the payload)
// and entropy-label pairs placed at fixed positions of the *calculated*
// stack, the stack as it goes on the wire. An entropy label (EL) at
// position p always has its indicator (ELI, label 7) at p + 1; ordinary
// labels fill the remaining positions from the bottom up:
//
//   calculated position   4     3     2     1     0
//   entropy positions     -     ELI   EL    -     -
//   on the wire (top..)   L2    7     EL    L1    L0   (..bottom)
//
// MplsLabelStackBase<S> holds the rules (append, prepend, extend, entropy
// pairs), the calculated view, order, hash and text; S supplies storage
// through a handful of primitives (see "Storage contract" below) and its
// limits maxLabels and maxCalculatedSize. BoundedMplsLabelStack stores
// seven slots and two 32-bit maps; DynamicMplsLabelStack grows.
//
// Edits never throw for a refused label: they return a
// BoundedMplsLabelStackResult and leave the stack as it was.
#pragma once

#include <Brio/Exception.h>
#include <Brio/Hash.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/MplsLabel.h>

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <vector>

namespace Corvid {

// Outcomes of a stack edit, in rising severity.
enum class BoundedMplsLabelStackError : U8 {
  success = 0,
  noOp = 1,                    // already so
  labelIgnored = 2,            // not allowed there (stack unchanged), or an implicit null was replaced
  tooFewLabels = 3,            // an entropy pair would float above the ordinary labels
  entropyLabelBitMapFull = 4,  // the calculated stack would pass its limit
  stackFull = 5,               // no room for another ordinary label
  largeIndex = 6,
  invalidEntropyLabelPosition = 7,  // the position splits an existing pair
};

char const* toString(BoundedMplsLabelStackError code);

class BoundedMplsLabelStackResult {
 public:
  using Error = BoundedMplsLabelStackError;
  constexpr BoundedMplsLabelStackResult(Error code = Error::success) : code_(code) {}  // NOLINT

  constexpr Error code() const { return code_; }
  // noOp and labelIgnored count as success: the caller's intent holds.
  constexpr bool success() const { return code_ <= Error::labelIgnored; }
  // Keeps the more severe of the stored code and `other`.
  constexpr BoundedMplsLabelStackResult& combine(BoundedMplsLabelStackResult other) {
    if (other.code_ > code_) code_ = other.code_;
    return *this;
  }
  friend constexpr bool operator==(BoundedMplsLabelStackResult, BoundedMplsLabelStackResult) = default;

 private:
  Error code_;
};

std::ostream& operator<<(std::ostream& os, BoundedMplsLabelStackResult r);

// What a calculated stack position holds.
enum class MplsStackEntryKind : U8 { label, entropyLabel, entropyLabelIndicator };

// One position of a stack read from text, bottom first.
struct MplsStackTextEntry {
  MplsStackEntryKind kind;
  MplsLabel label;
};

// Reads "TOP ( ... ) BOTTOM" at pos and stops right after "BOTTOM". Tokens
// are "EL", "ELI" or a decimal label, each followed by one blank; every EL
// carries its ELI directly above and every ELI sits on an EL. Raises
// "Invalid MplsLabelStack" (or the label's own range message) and reads at
// most `maxEntries` tokens, so a huge text costs no more than a full stack.
std::vector<MplsStackTextEntry> readMplsStackText(Brio::StringIter& pos, Brio::StringIter const& end,
                                                  std::size_t maxEntries);

inline constexpr char mplsStackTextMessage[] = "Invalid MplsLabelStack";
inline constexpr char mplsEntropyPositionMessage[] = "Entropy label bit map position index out of range";
inline constexpr char mplsEntropyBitMapMessage[] = "Invalid entropy label bit maps";

template <class S>
class MplsLabelStackBase {
 public:
  using Result = BoundedMplsLabelStackResult;
  using Error = BoundedMplsLabelStackError;

  // The top ordinary label; noLabel when there is none.
  MplsLabel top() const {
    U32 const n = self().stackSize();
    return n ? self().slot(n - 1) : MplsLabel();
  }

  // Pushes on top. Label 7 throws Brio::Exception: an indicator only ever
  // comes with its entropy label (append entropyLabel for the pair).
  Result append(MplsLabel label);
  // Inserts at the bottom; the entropy pairs keep their positions.
  Result prepend(MplsLabel label);
  // Appends other's calculated labels bottom up (indicators come with their
  // entropy labels); all or nothing.
  template <class Other>
  Result extend(Other const& other);
  // Puts an EL at calculated position p and its ELI at p + 1.
  Result entropyLabelAndIndicatorIs(U32 p);
  // Removes every ordinary label equal to `label` together with its
  // calculated position (the entropy pairs above move down); returns how
  // many went.
  U32 labelsDel(MplsLabel label);

  bool hasEntropyLabel() const { return self().pairCount() != 0; }
  U32 numEntropyLabelsAndIndicators() const { return 2 * self().pairCount(); }
  // Ordinary label positions below calculated position p.
  U32 numNormalLabelsAtIndex(U32 p) const { return p - self().takenBelow(p); }
  U32 calculatedStackSize() const { return self().stackSize() + numEntropyLabelsAndIndicators(); }
  // Position p of the wire stack (0 is the bottom); p at or above the
  // calculated size raises "Entropy label bit map position index out of range".
  MplsStackEntryKind calculatedKind(U32 p) const {
    if (p >= calculatedStackSize()) Brio::throwRangeException(mplsEntropyPositionMessage);
    return self().kindAt(p);
  }
  MplsLabel calculatedLabel(U32 p) const {
    switch (calculatedKind(p)) {
      case MplsStackEntryKind::entropyLabel: return MplsLabel(MplsLabel::entropyLabel);
      case MplsStackEntryKind::entropyLabelIndicator: return MplsLabel(MplsLabel::entropyLabelIndicator);
      case MplsStackEntryKind::label: break;
    }
    return self().slot(numNormalLabelsAtIndex(p));
  }
  // noLabel for an empty stack.
  MplsLabel calculatedTop() const {
    U32 const n = calculatedStackSize();
    return n ? calculatedLabel(n - 1) : MplsLabel();
  }

  // Order: the shorter calculated stack first, then the calculated labels
  // compared from the top down. Equality and hash follow the same view, so
  // stacks of either storage that look alike on the wire are alike here.
  template <class Other>
  std::strong_ordering compare(Other const& other) const;
  U32 hash(U32 seed = 0) const;
  explicit operator bool() const { return calculatedStackSize() != 0; }

  // "TOP ( 200 ELI EL 100 ) BOTTOM"
  Brio::String stringValue() const { return Brio::String("TOP ( " + join(true, textToken) + ") BOTTOM"); }
  // "200 ELI EL 100": the labels top down, as typed on a command line.
  Brio::String cliString() const { return Brio::String(join(false, textToken)); }
  // "200 entropy-indicator(7) (entropy) imp-null(3)": pretty names top down.
  Brio::String cliShowString() const {
    return Brio::String(join(false, [](MplsStackEntryKind, MplsLabel l) { return l.prettyString().str(); }));
  }

  // Storage contract, provided by S:
  //   static constexpr U32 maxLabels, maxCalculatedSize
  //   U32 stackSize() const; MplsLabel slot(U32 i) const (i < stackSize)
  //   void slotInsert(U32 i, MplsLabel); void slotIs(U32 i, MplsLabel)
  //   void slotDel(U32 i) (the slots above move down)
  //   U32 pairCount() const; U32 takenBelow(U32 p) const (EL/ELI positions below p)
  //   MplsStackEntryKind kindAt(U32 p) const; bool taken(U32 p) const
  //   void pairIs(U32 p) (EL at p, ELI at p + 1); void positionDel(U32 q)
  //     (drop position q from the pair positions; those above move down)

 private:
  S& self() { return static_cast<S&>(*this); }
  S const& self() const { return static_cast<S const&>(*this); }

  static std::string textToken(MplsStackEntryKind kind, MplsLabel label) {
    if (kind == MplsStackEntryKind::entropyLabel) return "EL";
    if (kind == MplsStackEntryKind::entropyLabelIndicator) return "ELI";
    return valueToStrep(label).str();
  }

  template <class Token>
  std::string join(bool trailingBlank, Token token) const {
    std::string out;
    for (U32 p = calculatedStackSize(); p-- > 0;) {
      out += token(self().kindAt(p), calculatedLabel(p));
      if (trailingBlank || p) out += ' ';
    }
    return out;
  }
};

template <class S>
BoundedMplsLabelStackResult MplsLabelStackBase<S>::append(MplsLabel label) {
  U32 const v = label.value();
  U32 const n = self().stackSize();
  U32 const c = calculatedStackSize();
  if (v == MplsLabel::entropyLabelIndicator) throw Brio::Exception("Can't append the entropy label indicator");
  if (v == MplsLabel::entropyLabel) {
    if (c + 2 > S::maxCalculatedSize) return Error::entropyLabelBitMapFull;
    // Cannot fail: positions c and c + 1 are free and every ordinary label
    // lies below c.
    entropyLabelAndIndicatorIs(c);
    return Error::success;
  }
  if (n == 0) {
    // A router alert alone says nothing about where to forward.
    if (v == MplsLabel::routerAlert) return Error::labelIgnored;
    if (c == S::maxCalculatedSize) return Error::entropyLabelBitMapFull;
    self().slotInsert(0, label);
    return Error::success;
  }
  if (n == 1 && self().slot(0).value() == MplsLabel::implicitNull) {
    if (v == MplsLabel::routerAlert || v == MplsLabel::implicitNull) return Error::labelIgnored;
    // The implicit null only held the place of "nothing": the new label
    // takes it over and its position leaves the entropy maps. Reported as
    // labelIgnored on purpose; callers count it as a replaced null, not a
    // push.
    U32 q = 0;
    while (self().taken(q)) ++q;
    self().positionDel(q);
    self().slotIs(0, label);
    return Error::labelIgnored;
  }
  // RFC 3032 section 2.1: null labels mean something only at the bottom.
  if (v == MplsLabel::ipv4ExplicitNull || v == MplsLabel::ipv6ExplicitNull || v == MplsLabel::implicitNull) {
    return Error::labelIgnored;
  }
  if (n >= S::maxLabels) return Error::stackFull;
  if (c == S::maxCalculatedSize) return Error::entropyLabelBitMapFull;
  self().slotInsert(n, label);
  return Error::success;
}

template <class S>
BoundedMplsLabelStackResult MplsLabelStackBase<S>::prepend(MplsLabel label) {
  U32 const v = label.value();
  U32 const n = self().stackSize();
  if (v == MplsLabel::routerAlert || v == MplsLabel::entropyLabelIndicator || v == MplsLabel::entropyLabel) {
    return Error::labelIgnored;
  }
  if (n && v == MplsLabel::implicitNull) return Error::labelIgnored;
  if (n && label.isExplicitNull() && self().slot(0).isExplicitNull()) return Error::labelIgnored;
  if (n >= S::maxLabels) return Error::stackFull;
  if (calculatedStackSize() == S::maxCalculatedSize) return Error::entropyLabelBitMapFull;
  self().slotInsert(0, label);
  return Error::success;
}

template <class S>
template <class Other>
BoundedMplsLabelStackResult MplsLabelStackBase<S>::extend(Other const& other) {
  S const before = self();
  Result result;
  for (U32 p = 0, n = other.calculatedStackSize(); p < n; ++p) {
    MplsLabel const l = other.calculatedLabel(p);
    if (l.value() == MplsLabel::entropyLabelIndicator) continue;
    Result const r = append(l);
    result.combine(r);
    if (!r.success()) {
      self() = before;
      return result;
    }
  }
  return result;
}

template <class S>
BoundedMplsLabelStackResult MplsLabelStackBase<S>::entropyLabelAndIndicatorIs(U32 p) {
  if (p > S::maxCalculatedSize - 2) return Error::largeIndex;
  bool const low = self().taken(p);
  bool const high = self().taken(p + 1);
  if (low != high) return Error::invalidEntropyLabelPosition;
  if (low) return Error::noOp;
  if (self().stackSize() < numNormalLabelsAtIndex(p)) return Error::tooFewLabels;
  if (calculatedStackSize() + 2 > S::maxCalculatedSize) return Error::entropyLabelBitMapFull;
  self().pairIs(p);
  return Error::success;
}

template <class S>
U32 MplsLabelStackBase<S>::labelsDel(MplsLabel label) {
  U32 removed = 0;
  // Top down, so the positions and slots still to visit do not move.
  for (U32 p = calculatedStackSize(); p-- > 0;) {
    if (self().kindAt(p) != MplsStackEntryKind::label) continue;
    U32 const i = numNormalLabelsAtIndex(p);
    if (self().slot(i) != label) continue;
    self().positionDel(p);
    self().slotDel(i);
    ++removed;
  }
  return removed;
}

template <class S>
template <class Other>
std::strong_ordering MplsLabelStackBase<S>::compare(Other const& other) const {
  U32 const na = calculatedStackSize();
  U32 const nb = other.calculatedStackSize();
  if (na != nb) return na <=> nb;
  for (U32 p = na; p-- > 0;) {
    if (auto c = calculatedLabel(p) <=> other.calculatedLabel(p); c != 0) return c;
  }
  return std::strong_ordering::equal;
}

template <class S>
U32 MplsLabelStackBase<S>::hash(U32 seed) const {
  Brio::Hash h(seed);
  U32 const n = calculatedStackSize();
  h.mix(n);
  for (U32 p = 0; p < n; ++p) h.mix(calculatedLabel(p).value());
  return h.result();
}

}  // namespace Corvid
