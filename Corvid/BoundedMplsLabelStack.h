// MPLS label stacks of at most seven labels, with RFC 6790 entropy labels.
//
// BoundedMplsLabelStack keeps the ordinary labels in seven fixed slots and
// the entropy-label (EL) and indicator (ELI) positions of the calculated
// stack in two 32-bit maps (bit p set: position p holds an EL, resp. an
// ELI), so the calculated stack has at most 32 positions. The edit rules
// and the calculated view come from MplsLabelStackBase. A stack is a
// 40-byte trivially copyable value; every operation is O(1) or walks at
// most 32 positions. Its strep is the record of its fields; stringValue is
// the wire view, "TOP ( 200 100 ) BOTTOM".
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/Record.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/MplsLabel.h>
#include <Corvid/MplsLabelStackBase.h>

#include <bit>
#include <type_traits>

namespace Corvid {

class DynamicMplsLabelStack;

class BoundedMplsLabelStack : public MplsLabelStackBase<BoundedMplsLabelStack> {
 public:
  static constexpr U32 maxLabels = 7;
  static constexpr U32 maxCalculatedSize = 32;

  BoundedMplsLabelStack();
  // Every field, as in the strep. Raises Brio::RangeException when the size
  // is above 7 or the maps are not whole EL/ELI pairs inside the calculated
  // stack; slots at and above stackSize are kept as given.
  BoundedMplsLabelStack(U8 stackSize, MplsLabel label0, MplsLabel label1, MplsLabel label2, MplsLabel label3,
                        MplsLabel label4, MplsLabel label5, MplsLabel label6, U32 entropyLabelBitMap,
                        U32 entropyLabelIndicatorBitMap);
  // Raises Brio::RangeException when `other` has more than seven labels or
  // more than 32 calculated positions.
  explicit BoundedMplsLabelStack(DynamicMplsLabelStack const& other);

  U8 stackSize() const { return stackSize_; }
  // Shrinking fills the freed slots with noLabel. A size that would leave
  // an entropy pair above the calculated stack is refused like a bad map.
  void stackSizeIs(U8 n);
  // Raw slot access, also above stackSize: a configured stack is set field
  // by field, labels first and the size last.
  MplsLabel label(unsigned i) const;
  void labelIs(unsigned i, MplsLabel label);
  MplsLabel label0() const { return labels_[0]; }
  MplsLabel label1() const { return labels_[1]; }
  MplsLabel label2() const { return labels_[2]; }
  MplsLabel label3() const { return labels_[3]; }
  MplsLabel label4() const { return labels_[4]; }
  MplsLabel label5() const { return labels_[5]; }
  MplsLabel label6() const { return labels_[6]; }
  U32 entropyLabelBitMap() const { return entropyLabelBitMap_; }
  U32 entropyLabelIndicatorBitMap() const { return entropyLabelIndicatorBitMap_; }

  friend bool operator==(BoundedMplsLabelStack const& a, BoundedMplsLabelStack const& b) {
    return a.compare(b) == 0;
  }
  friend std::strong_ordering operator<=>(BoundedMplsLabelStack const& a, BoundedMplsLabelStack const& b) {
    return a.compare(b);
  }

  // Reads the stringValue form exactly as written; on failure raises
  // Brio::RangeException and keeps the old value.
  void stringValueIs(Brio::String const& text);

 private:
  friend class MplsLabelStackBase<BoundedMplsLabelStack>;

  U32 combined() const { return entropyLabelBitMap_ | entropyLabelIndicatorBitMap_; }
  MplsLabel slot(U32 i) const { return labels_[i]; }
  void slotIs(U32 i, MplsLabel l) { labels_[i] = l; }
  void slotInsert(U32 i, MplsLabel l);
  void slotDel(U32 i);
  U32 pairCount() const { return static_cast<U32>(std::popcount(entropyLabelBitMap_)); }
  U32 takenBelow(U32 p) const;
  bool taken(U32 p) const { return p < 32 && (combined() >> p & 1); }
  MplsStackEntryKind kindAt(U32 p) const;
  void pairIs(U32 p);
  void positionDel(U32 q);

  U8 stackSize_;
  MplsLabel labels_[maxLabels];
  U32 entropyLabelBitMap_;
  U32 entropyLabelIndicatorBitMap_;
};

static_assert(std::is_trivially_copyable_v<BoundedMplsLabelStack> && sizeof(BoundedMplsLabelStack) == 40);

inline constexpr auto boundedMplsLabelStackRecord = Brio::record<BoundedMplsLabelStack>(
    "Corvid::BoundedMplsLabelStack", Brio::field("stackSize", &BoundedMplsLabelStack::stackSize),
    Brio::field("label0", &BoundedMplsLabelStack::label0),
    Brio::field("label1", &BoundedMplsLabelStack::label1),
    Brio::field("label2", &BoundedMplsLabelStack::label2),
    Brio::field("label3", &BoundedMplsLabelStack::label3),
    Brio::field("label4", &BoundedMplsLabelStack::label4),
    Brio::field("label5", &BoundedMplsLabelStack::label5),
    Brio::field("label6", &BoundedMplsLabelStack::label6),
    Brio::field("entropyLabelBitMap", &BoundedMplsLabelStack::entropyLabelBitMap),
    Brio::field("entropyLabelIndicatorBitMap", &BoundedMplsLabelStack::entropyLabelIndicatorBitMap));
BRIO_RECORD_TEXT_FORMS(BoundedMplsLabelStack, boundedMplsLabelStackRecord)

// Attribute-log form: stackSize (U8), the seven slots (U32 each), then the
// two maps (U32); reading checks it like the field constructor.
void attrLogWrite(Brio::NboAttrLog& log, BoundedMplsLabelStack const& v);
BoundedMplsLabelStack attrLogRead(Brio::NboAttrLog& log, BoundedMplsLabelStack*);

}  // namespace Corvid

CORVID_STD_HASH(Corvid::BoundedMplsLabelStack);
