#include <Corvid/MplsLabelOperation.h>

#include <ostream>

namespace Corvid {

namespace {

constexpr MplsLabelOperationKind allKinds[] = {MplsLabelOperationKind::push, MplsLabelOperationKind::pop,
                                               MplsLabelOperationKind::swap, MplsLabelOperationKind::forward};
constexpr char kindMessage[] = "Invalid MplsLabelOperationKind";

}  // namespace

char const* toString(MplsLabelOperationKind kind) {
  switch (kind) {
    case MplsLabelOperationKind::push: return "push";
    case MplsLabelOperationKind::pop: return "pop";
    case MplsLabelOperationKind::swap: return "swap";
    case MplsLabelOperationKind::forward: return "forward";
  }
  return "unknown";
}

Brio::String valueToStrep(MplsLabelOperationKind kind) { return toString(kind); }

MplsLabelOperationKind sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, MplsLabelOperationKind*) {
  return readEnumWord(pos, end, allKinds, kindMessage);
}

std::ostream& operator<<(std::ostream& os, MplsLabelOperationKind kind) { return os << toString(kind); }

void attrLogWrite(Brio::NboAttrLog& log, MplsLabelOperationKind kind) { log.writeU8(static_cast<U8>(kind)); }

MplsLabelOperationKind attrLogRead(Brio::NboAttrLog& log, MplsLabelOperationKind*) {
  U8 const v = log.readU8();
  if (v > static_cast<U8>(MplsLabelOperationKind::forward)) Brio::throwRangeException(kindMessage);
  return static_cast<MplsLabelOperationKind>(v);
}

}  // namespace Corvid
