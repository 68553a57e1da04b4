// MPLS label stacks that grow: the rules of BoundedMplsLabelStack without
// its seven-label limit.
//
// DynamicMplsLabelStack keeps its ordinary labels in a vector and its
// entropy pairs as a sorted vector of EL positions (each ELI directly
// above). It follows exactly the edit rules of the bounded stack (both
// share MplsLabelStackBase) with larger limits: up to 255 calculated
// positions, so an oversized edit reports entropyLabelBitMapFull (or
// stackFull once every position is an ordinary label). It owns heap
// memory; copies allocate. Its strep is its stringValue,
// "TOP ( 200 ELI EL 100 ) BOTTOM", which reads back exactly.
//
// Binary form (serialize, and the attribute log): U8 label count n, n U32
// label values, U8 pair count m, m U8 EL positions in rising order; all
// integers big-endian.
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/MplsLabel.h>
#include <Corvid/MplsLabelStackBase.h>

#include <iosfwd>
#include <vector>

namespace Corvid {

class BoundedMplsLabelStack;

class DynamicMplsLabelStack : public MplsLabelStackBase<DynamicMplsLabelStack> {
 public:
  static constexpr U32 maxLabels = 255;
  static constexpr U32 maxCalculatedSize = 255;

  DynamicMplsLabelStack() = default;
  explicit DynamicMplsLabelStack(BoundedMplsLabelStack const& other);

  U32 stackSize() const { return static_cast<U32>(labels_.size()); }
  // Growing adds noLabel slots on top; shrinking drops top labels and is
  // refused when an entropy pair would be left above the calculated stack.
  void stackSizeIs(U32 n);
  // Index at or above stackSize raises "DynamicMplsLabelStack::label: index
  // out of range" (resp. "...::labelIs: ..."): unlike the bounded stack
  // there are no spare slots.
  MplsLabel label(unsigned i) const;
  void labelIs(unsigned i, MplsLabel label);
  std::vector<U32> const& entropyLabelPositions() const { return pairs_; }

  friend bool operator==(DynamicMplsLabelStack const& a, DynamicMplsLabelStack const& b) {
    return a.compare(b) == 0;
  }
  friend std::strong_ordering operator<=>(DynamicMplsLabelStack const& a, DynamicMplsLabelStack const& b) {
    return a.compare(b);
  }

  // On failure raises Brio::RangeException and keeps the old value.
  void stringValueIs(Brio::String const& text);

  Brio::Bytes serialize() const;
  // Raises Brio::SizeException when the bytes end early and
  // "Invalid DynamicMplsLabelStack" when they do not describe a stack.
  static DynamicMplsLabelStack deserialize(Brio::Bytes const& bytes);

 private:
  friend class MplsLabelStackBase<DynamicMplsLabelStack>;
  friend DynamicMplsLabelStack attrLogRead(Brio::NboAttrLog& log, DynamicMplsLabelStack*);
  friend DynamicMplsLabelStack sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end,
                                               DynamicMplsLabelStack*);

  MplsLabel slot(U32 i) const { return labels_[i]; }
  void slotIs(U32 i, MplsLabel l) { labels_[i] = l; }
  void slotInsert(U32 i, MplsLabel l) { labels_.insert(labels_.begin() + i, l); }
  void slotDel(U32 i) { labels_.erase(labels_.begin() + i); }
  U32 pairCount() const { return static_cast<U32>(pairs_.size()); }
  U32 takenBelow(U32 p) const;
  bool taken(U32 p) const { return kindAt(p) != MplsStackEntryKind::label; }
  MplsStackEntryKind kindAt(U32 p) const;
  void pairIs(U32 p);
  void positionDel(U32 q);
  bool pairsFit(U32 stackSize) const;

  std::vector<MplsLabel> labels_;  // bottom first
  std::vector<U32> pairs_;         // EL positions, rising
};

Brio::String valueToStrep(DynamicMplsLabelStack const& v);
DynamicMplsLabelStack sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, DynamicMplsLabelStack*);
std::ostream& operator<<(std::ostream& os, DynamicMplsLabelStack const& v);

void attrLogWrite(Brio::NboAttrLog& log, DynamicMplsLabelStack const& v);
DynamicMplsLabelStack attrLogRead(Brio::NboAttrLog& log, DynamicMplsLabelStack*);

}  // namespace Corvid

CORVID_STD_HASH(Corvid::DynamicMplsLabelStack);
