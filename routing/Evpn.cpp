#include <routing/Evpn.h>

#include <Corvid/EthAddr.h>

#include <algorithm>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>

namespace Evpn {

namespace {

constexpr char esidMessage[] = "Invalid Esid";

}  // namespace

Esid::Esid(Brio::String const& text) : Esid() { stringValueIs(text); }

bool Esid::isMax() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](U8 b) { return b == 0xff; });
}

Brio::String Esid::stringValue() const {
  std::string out;
  for (unsigned i = 0; i < bytes; ++i) {
    if (i) out += ':';
    out += Corvid::lowerHexDigits[bytes_[i] >> 4];
    out += Corvid::lowerHexDigits[bytes_[i] & 0xf];
  }
  return Brio::String(std::move(out));
}

void Esid::stringValueIs(Brio::String const& text) {
  Brio::StringIter pos = text.begin();
  Esid const v = sequenceToValue(pos, text.end(), static_cast<Esid*>(nullptr));
  if (pos != text.end()) Brio::throwRangeException(esidMessage);
  *this = v;
}

Brio::String valueToStrep(Esid const& v) { return v.stringValue(); }

Esid sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Esid*) {
  std::array<U8, Esid::bytes> b;
  Corvid::readHexGroups(pos, end, b.data(), Esid::bytes, esidMessage);
  return Esid(b);
}

std::ostream& operator<<(std::ostream& os, Esid const& v) { return os << v.stringValue().view(); }

void attrLogWrite(Brio::NboAttrLog& log, Esid const& v) { Corvid::attrLogWriteBytes(log, v.byteArray()); }

Esid attrLogRead(Brio::NboAttrLog& log, Esid*) { return Esid(Corvid::attrLogReadBytes<Esid::bytes>(log)); }

EncapTypeLabel::EncapTypeLabel(EncapType encapType, U32 label) : encapType_(encapType), label_(label) {
  U32 const max = encapType == EncapType::mpls ? 0xfffff : 0xffffff;
  if (label > max) Brio::throwRangeException(rangeMessage);
}

Brio::String valueToStrep(EncapTypeLabel const& v) {
  return Brio::String(v.encapType() == EncapType::mpls ? "mpls:" : "vxlan:") + Brio::valueToStrep(v.label());
}

EncapTypeLabel sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, EncapTypeLabel*) {
  auto take = [&](std::string_view word) {
    if (static_cast<std::size_t>(end - pos) < word.size() || std::string_view(pos, pos + word.size()) != word) {
      return false;
    }
    pos += word.size();
    return true;
  };
  EncapType type;
  if (take("mpls:")) {
    type = EncapType::mpls;
  } else if (take("vxlan:")) {
    type = EncapType::vxlan;
  } else {
    Brio::throwRangeException(EncapTypeLabel::textMessage);
  }
  U64 label = 0;
  if (!Corvid::readDecimalSaturating(pos, end, std::numeric_limits<U32>::max(), &label)) {
    Brio::throwRangeException(EncapTypeLabel::textMessage);
  }
  if (label > std::numeric_limits<U32>::max()) Brio::throwRangeException(EncapTypeLabel::rangeMessage);
  return EncapTypeLabel(type, static_cast<U32>(label));
}

std::ostream& operator<<(std::ostream& os, EncapTypeLabel const& v) { return os << valueToStrep(v).view(); }

void attrLogWrite(Brio::NboAttrLog& log, EncapTypeLabel const& v) {
  log.writeU8(static_cast<U8>(v.encapType()));
  log.writeU32(v.label());
}

EncapTypeLabel attrLogRead(Brio::NboAttrLog& log, EncapTypeLabel*) {
  U8 const type = log.readU8();
  U32 const label = log.readU32();
  if (type != static_cast<U8>(EncapType::mpls) && type != static_cast<U8>(EncapType::vxlan)) {
    Brio::throwRangeException(EncapTypeLabel::textMessage);
  }
  return EncapTypeLabel(static_cast<EncapType>(type), label);
}

}  // namespace Evpn
