#include <Corvid/DynamicMplsLabelStack.h>

#include <Corvid/BoundedMplsLabelStack.h>

#include <algorithm>
#include <ostream>

namespace Corvid {

namespace {

constexpr char invalidMessage[] = "Invalid DynamicMplsLabelStack";

}  // namespace

DynamicMplsLabelStack::DynamicMplsLabelStack(BoundedMplsLabelStack const& other) {
  for (U32 p = 0; p < other.calculatedStackSize(); ++p) {
    switch (other.calculatedKind(p)) {
      case MplsStackEntryKind::label: labels_.push_back(other.calculatedLabel(p)); break;
      case MplsStackEntryKind::entropyLabel: pairs_.push_back(p); break;
      case MplsStackEntryKind::entropyLabelIndicator: break;
    }
  }
}

bool DynamicMplsLabelStack::pairsFit(U32 stackSize) const {
  U32 const calculated = stackSize + 2 * pairCount();
  return calculated <= maxCalculatedSize && (pairs_.empty() || pairs_.back() + 1 < calculated);
}

void DynamicMplsLabelStack::stackSizeIs(U32 n) {
  if (n > maxLabels) Brio::throwRangeException("DynamicMplsLabelStack::stackSize > 255 not allowed");
  if (!pairsFit(n)) Brio::throwRangeException(mplsEntropyBitMapMessage);
  labels_.resize(n, MplsLabel());
}

MplsLabel DynamicMplsLabelStack::label(unsigned i) const {
  if (i >= labels_.size()) Brio::throwRangeException("DynamicMplsLabelStack::label: index out of range");
  return labels_[i];
}

void DynamicMplsLabelStack::labelIs(unsigned i, MplsLabel label) {
  if (i >= labels_.size()) Brio::throwRangeException("DynamicMplsLabelStack::labelIs: index out of range");
  labels_[i] = label;
}

U32 DynamicMplsLabelStack::takenBelow(U32 p) const {
  // Pairs starting below p; the last one may have its ELI at p itself.
  auto const k = static_cast<U32>(std::lower_bound(pairs_.begin(), pairs_.end(), p) - pairs_.begin());
  if (k && pairs_[k - 1] + 1 >= p) return 2 * k - 1;
  return 2 * k;
}

MplsStackEntryKind DynamicMplsLabelStack::kindAt(U32 p) const {
  auto it = std::lower_bound(pairs_.begin(), pairs_.end(), p);
  if (it != pairs_.end() && *it == p) return MplsStackEntryKind::entropyLabel;
  if (it != pairs_.begin() && *(it - 1) + 1 == p) return MplsStackEntryKind::entropyLabelIndicator;
  return MplsStackEntryKind::label;
}

void DynamicMplsLabelStack::pairIs(U32 p) { pairs_.insert(std::lower_bound(pairs_.begin(), pairs_.end(), p), p); }

void DynamicMplsLabelStack::positionDel(U32 q) {
  for (auto& p : pairs_) {
    if (p > q) --p;
  }
}

void DynamicMplsLabelStack::stringValueIs(Brio::String const& text) {
  Brio::StringIter pos = text.begin();
  DynamicMplsLabelStack s = sequenceToValue(pos, text.end(), static_cast<DynamicMplsLabelStack*>(nullptr));
  if (pos != text.end()) Brio::throwRangeException(mplsStackTextMessage);
  *this = std::move(s);
}

Brio::Bytes DynamicMplsLabelStack::serialize() const {
  Brio::NboAttrLog log;
  attrLogWrite(log, *this);
  return log.data();
}

DynamicMplsLabelStack DynamicMplsLabelStack::deserialize(Brio::Bytes const& bytes) {
  Brio::NboAttrLog log(bytes);
  DynamicMplsLabelStack s = attrLogRead(log, static_cast<DynamicMplsLabelStack*>(nullptr));
  if (!log.atEnd()) Brio::throwRangeException(invalidMessage);
  return s;
}

Brio::String valueToStrep(DynamicMplsLabelStack const& v) { return v.stringValue(); }

DynamicMplsLabelStack sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, DynamicMplsLabelStack*) {
  auto entries = readMplsStackText(pos, end, DynamicMplsLabelStack::maxCalculatedSize);
  DynamicMplsLabelStack s;
  for (U32 p = 0; p < entries.size(); ++p) {
    if (entries[p].kind == MplsStackEntryKind::label) s.slotInsert(s.stackSize(), entries[p].label);
    if (entries[p].kind == MplsStackEntryKind::entropyLabel) s.pairIs(p);
  }
  return s;
}

std::ostream& operator<<(std::ostream& os, DynamicMplsLabelStack const& v) { return os << v.stringValue().view(); }

void attrLogWrite(Brio::NboAttrLog& log, DynamicMplsLabelStack const& v) {
  log.writeU8(static_cast<U8>(v.stackSize()));
  for (U32 i = 0; i < v.stackSize(); ++i) log.writeU32(v.label(i).value());
  log.writeU8(static_cast<U8>(v.entropyLabelPositions().size()));
  for (U32 p : v.entropyLabelPositions()) log.writeU8(static_cast<U8>(p));
}

DynamicMplsLabelStack attrLogRead(Brio::NboAttrLog& log, DynamicMplsLabelStack*) {
  DynamicMplsLabelStack s;
  U32 const n = log.readU8();
  for (U32 i = 0; i < n; ++i) s.labels_.push_back(MplsLabel(log.readU32()));
  U32 const m = log.readU8();
  for (U32 i = 0; i < m; ++i) {
    U32 const p = log.readU8();
    // Rising, and never overlapping the pair below.
    if (!s.pairs_.empty() && p < s.pairs_.back() + 2) Brio::throwRangeException(invalidMessage);
    s.pairs_.push_back(p);
  }
  if (!s.pairsFit(n)) Brio::throwRangeException(invalidMessage);
  return s;
}

}  // namespace Corvid
