#include <routing/Vni.h>

#include <limits>
#include <ostream>

namespace Vxlan {

Vni VniOrNone::vni() const {
  if (isNone()) Brio::throwRangeException(textMessage);
  return Vni(value());
}

Brio::String valueToStrep(VniOrNone const& v) {
  if (v.isNone()) return "none";
  return Corvid::valueToStrep(v.vni());
}

VniOrNone sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, VniOrNone*) {
  if (pos != end && *pos == 'n') {
    Brio::StringIter p = pos;
    for (char c : std::string_view("none")) {
      if (p == end || *p != c) Brio::throwRangeException(VniOrNone::textMessage);
      ++p;
    }
    pos = p;
    return VniOrNone();
  }
  return Corvid::sequenceToValue(pos, end, static_cast<VniOrNone*>(nullptr));
}

std::ostream& operator<<(std::ostream& os, VniOrNone const& v) { return os << valueToStrep(v).view(); }

Brio::String valueToStrep(VniExt const& v) {
  Brio::String vni = Corvid::valueToStrep(v.vni());
  if (v.domain() == 0) return vni;
  return Brio::valueToStrep(U32(v.domain())) + ":" + vni;
}

VniExt sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, VniExt*) {
  auto number = [&](U64 limit) {
    U64 v = 0;
    if (!Corvid::readDecimalSaturating(pos, end, limit, &v)) Brio::throwRangeException(VniExt::textMessage);
    return v;
  };
  U64 const first = number(std::numeric_limits<U32>::max());
  if (pos == end || *pos != ':') {
    if (first > Vni::max) Brio::throwRangeException(Vni::rangeMessage);
    return VniExt(0, Vni(static_cast<U32>(first)));
  }
  ++pos;
  U64 const vni = number(std::numeric_limits<U32>::max());
  if (first > 0xff) Brio::throwRangeException(VniExt::textMessage);
  if (vni > Vni::max) Brio::throwRangeException(Vni::rangeMessage);
  return VniExt(static_cast<U32>(first) << 24 | static_cast<U32>(vni));
}

std::ostream& operator<<(std::ostream& os, VniExt const& v) { return os << valueToStrep(v).view(); }

}  // namespace Vxlan
