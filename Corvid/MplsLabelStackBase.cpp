#include <Corvid/MplsLabelStackBase.h>

#include <ostream>
#include <string_view>

namespace Corvid {

char const* toString(BoundedMplsLabelStackError code) {
  using Error = BoundedMplsLabelStackError;
  switch (code) {
    case Error::success: return "success";
    case Error::noOp: return "noOp";
    case Error::labelIgnored: return "labelIgnored";
    case Error::tooFewLabels: return "tooFewLabels";
    case Error::entropyLabelBitMapFull: return "entropyLabelBitMapFull";
    case Error::stackFull: return "stackFull";
    case Error::largeIndex: return "largeIndex";
    case Error::invalidEntropyLabelPosition: return "invalidEntropyLabelPosition";
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& os, BoundedMplsLabelStackResult r) { return os << toString(r.code()); }

std::vector<MplsStackTextEntry> readMplsStackText(Brio::StringIter& pos, Brio::StringIter const& end,
                                                  std::size_t maxEntries) {
  auto fail = [] { Brio::throwRangeException(mplsStackTextMessage); };
  auto need = [&](std::string_view literal) {
    for (char c : literal) {
      if (pos == end || *pos != c) fail();
      ++pos;
    }
  };
  need("TOP ( ");
  std::vector<MplsStackTextEntry> topDown;
  while (pos != end && *pos != ')') {
    if (topDown.size() == maxEntries) fail();
    MplsStackTextEntry e{MplsStackEntryKind::label, MplsLabel()};
    if (*pos == 'E') {
      need("EL");
      e.kind = MplsStackEntryKind::entropyLabel;
      e.label = MplsLabel(MplsLabel::entropyLabel);
      if (pos != end && *pos == 'I') {
        ++pos;
        e.kind = MplsStackEntryKind::entropyLabelIndicator;
        e.label = MplsLabel(MplsLabel::entropyLabelIndicator);
      }
    } else {
      if (*pos < '0' || *pos > '9') fail();
      e.label = sequenceToValue(pos, end, static_cast<MplsLabel*>(nullptr));
    }
    need(" ");
    // Read top down, an ELI is always followed by its EL, and an EL always
    // follows an ELI.
    bool const afterIndicator =
        !topDown.empty() && topDown.back().kind == MplsStackEntryKind::entropyLabelIndicator;
    if (afterIndicator != (e.kind == MplsStackEntryKind::entropyLabel)) fail();
    topDown.push_back(e);
  }
  need(") BOTTOM");
  if (!topDown.empty() && topDown.back().kind == MplsStackEntryKind::entropyLabelIndicator) fail();
  return {topDown.rbegin(), topDown.rend()};
}

}  // namespace Corvid
