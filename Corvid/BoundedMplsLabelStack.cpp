#include <Corvid/BoundedMplsLabelStack.h>

#include <Corvid/DynamicMplsLabelStack.h>

namespace Corvid {

namespace {

constexpr char stackSizeMessage[] = "BoundedMplsLabelStack::stackSize > 7 not allowed";

constexpr U32 bit(U32 p) { return p < 32 ? U32(1) << p : 0; }
constexpr U32 bitsBelow(U32 p) { return p < 32 ? bit(p) - 1 : ~U32(0); }

// Removes position q from a map: bits above q move down one.
constexpr U32 removePosition(U32 map, U32 q) {
  return (map & bitsBelow(q)) | static_cast<U32>((U64(map) >> (q + 1)) << q);
}

// The maps must hold whole pairs (ELI directly above its EL) and nothing at
// or above the calculated size: every calculated position then names either
// a pair member or an ordinary slot below stackSize.
bool validBitMaps(U32 stackSize, U32 el, U32 eli) {
  if ((el & eli) != 0 || (el >> 31) != 0 || eli != el << 1) return false;
  U32 const calculated = stackSize + static_cast<U32>(std::popcount(el | eli));
  if (calculated > BoundedMplsLabelStack::maxCalculatedSize) return false;
  return ((el | eli) & ~bitsBelow(calculated)) == 0;
}

}  // namespace

BoundedMplsLabelStack::BoundedMplsLabelStack()
    : stackSize_(0), labels_{}, entropyLabelBitMap_(0), entropyLabelIndicatorBitMap_(0) {}

BoundedMplsLabelStack::BoundedMplsLabelStack(U8 stackSize, MplsLabel label0, MplsLabel label1, MplsLabel label2,
                                             MplsLabel label3, MplsLabel label4, MplsLabel label5,
                                             MplsLabel label6, U32 entropyLabelBitMap,
                                             U32 entropyLabelIndicatorBitMap)
    : stackSize_(stackSize),
      labels_{label0, label1, label2, label3, label4, label5, label6},
      entropyLabelBitMap_(entropyLabelBitMap),
      entropyLabelIndicatorBitMap_(entropyLabelIndicatorBitMap) {
  if (stackSize > maxLabels) Brio::throwRangeException(stackSizeMessage);
  if (!validBitMaps(stackSize, entropyLabelBitMap, entropyLabelIndicatorBitMap)) {
    Brio::throwRangeException(mplsEntropyBitMapMessage);
  }
}

BoundedMplsLabelStack::BoundedMplsLabelStack(DynamicMplsLabelStack const& other) : BoundedMplsLabelStack() {
  if (other.stackSize() > maxLabels || other.calculatedStackSize() > maxCalculatedSize) {
    Brio::throwRangeException("DynamicMplsLabelStack does not fit a BoundedMplsLabelStack");
  }
  for (U32 p = 0; p < other.calculatedStackSize(); ++p) {
    switch (other.calculatedKind(p)) {
      case MplsStackEntryKind::label: labels_[stackSize_++] = other.calculatedLabel(p); break;
      case MplsStackEntryKind::entropyLabel: entropyLabelBitMap_ |= bit(p); break;
      case MplsStackEntryKind::entropyLabelIndicator: entropyLabelIndicatorBitMap_ |= bit(p); break;
    }
  }
}

void BoundedMplsLabelStack::stackSizeIs(U8 n) {
  if (n > maxLabels) Brio::throwRangeException(stackSizeMessage);
  if (!validBitMaps(n, entropyLabelBitMap_, entropyLabelIndicatorBitMap_)) {
    Brio::throwRangeException(mplsEntropyBitMapMessage);
  }
  for (unsigned i = n; i < stackSize_; ++i) labels_[i] = MplsLabel();
  stackSize_ = n;
}

MplsLabel BoundedMplsLabelStack::label(unsigned i) const {
  // The operation's message: slots are read through MplsLabelOperation.
  if (i >= maxLabels) Brio::throwRangeException("MplsLabelOperation::labelStack: index out of range");
  return labels_[i];
}

void BoundedMplsLabelStack::labelIs(unsigned i, MplsLabel label) {
  if (i >= maxLabels) Brio::throwRangeException("BoundedMplsLabelStack::labelIs: index out of range");
  labels_[i] = label;
}

void BoundedMplsLabelStack::slotInsert(U32 i, MplsLabel l) {
  for (U32 j = stackSize_; j > i; --j) labels_[j] = labels_[j - 1];
  labels_[i] = l;
  ++stackSize_;
}

void BoundedMplsLabelStack::slotDel(U32 i) {
  for (U32 j = i; j + 1 < stackSize_; ++j) labels_[j] = labels_[j + 1];
  labels_[--stackSize_] = MplsLabel();
}

U32 BoundedMplsLabelStack::takenBelow(U32 p) const {
  return static_cast<U32>(std::popcount(combined() & bitsBelow(p)));
}

MplsStackEntryKind BoundedMplsLabelStack::kindAt(U32 p) const {
  if (entropyLabelBitMap_ & bit(p)) return MplsStackEntryKind::entropyLabel;
  if (entropyLabelIndicatorBitMap_ & bit(p)) return MplsStackEntryKind::entropyLabelIndicator;
  return MplsStackEntryKind::label;
}

void BoundedMplsLabelStack::pairIs(U32 p) {
  entropyLabelBitMap_ |= bit(p);
  entropyLabelIndicatorBitMap_ |= bit(p + 1);
}

void BoundedMplsLabelStack::positionDel(U32 q) {
  entropyLabelBitMap_ = removePosition(entropyLabelBitMap_, q);
  entropyLabelIndicatorBitMap_ = removePosition(entropyLabelIndicatorBitMap_, q);
}

void BoundedMplsLabelStack::stringValueIs(Brio::String const& text) {
  Brio::StringIter pos = text.begin();
  auto entries = readMplsStackText(pos, text.end(), maxCalculatedSize);
  if (pos != text.end()) Brio::throwRangeException(mplsStackTextMessage);
  BoundedMplsLabelStack s;
  for (U32 p = 0; p < entries.size(); ++p) {
    switch (entries[p].kind) {
      case MplsStackEntryKind::label:
        if (s.stackSize_ == maxLabels) Brio::throwRangeException(stackSizeMessage);
        s.labels_[s.stackSize_++] = entries[p].label;
        break;
      case MplsStackEntryKind::entropyLabel: s.entropyLabelBitMap_ |= bit(p); break;
      case MplsStackEntryKind::entropyLabelIndicator: s.entropyLabelIndicatorBitMap_ |= bit(p); break;
    }
  }
  *this = s;
}

void attrLogWrite(Brio::NboAttrLog& log, BoundedMplsLabelStack const& v) {
  log.writeU8(v.stackSize());
  for (unsigned i = 0; i < BoundedMplsLabelStack::maxLabels; ++i) log.writeU32(v.label(i).value());
  log.writeU32(v.entropyLabelBitMap());
  log.writeU32(v.entropyLabelIndicatorBitMap());
}

BoundedMplsLabelStack attrLogRead(Brio::NboAttrLog& log, BoundedMplsLabelStack*) {
  U8 const n = log.readU8();
  MplsLabel l[BoundedMplsLabelStack::maxLabels];
  for (auto& x : l) x = MplsLabel(log.readU32());
  U32 const el = log.readU32();
  U32 const eli = log.readU32();
  return BoundedMplsLabelStack(n, l[0], l[1], l[2], l[3], l[4], l[5], l[6], el, eli);
}

}  // namespace Corvid
