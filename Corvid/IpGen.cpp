// Either-family values: the family dispatch, their text forms, the prefix
// set and its configuration entities.
#include <Corvid/Ip.h>

#include <Glimmer/Glimmer.h>

#include <algorithm>

namespace Corvid {

namespace {

using ipDetail::TextError;

Glimmer::Facility& tr = Glimmer::facility("Corvid");

constexpr AddressFamily ipv4 = AddressFamily::ipv4;
constexpr AddressFamily ipv6 = AddressFamily::ipv6;
constexpr AddressFamily ipunknown = AddressFamily::ipunknown;

// An IPv4 length of 0 or above 32 contains every address: callers store
// such lengths for "match any" and rely on it.
bool v4Contains(IpAddr prefix, U32 len, IpAddr a) {
  if (len == 0 || len > 32) return true;
  return ((prefix.hostOrder() ^ a.hostOrder()) >> (32 - len)) == 0;
}

AddressFamily familyAt(Brio::StringIter const& pos, Brio::StringIter const& end) {
  return ipDetail::familyOfText(ipDetail::at(pos), ipDetail::at(end));
}

// The either-family reader: the family's reader chosen by the text, the
// choice traced at level 9 under the name of the caller, sequenceToValue.
template <class T, class V4, class V6>
T readEitherFamily(Brio::StringIter& pos, Brio::StringIter const& end) {
  switch (familyAt(pos, end)) {
    case ipv4:
      GLIMMER_TRACE(tr, 9, "sequenceToValue af ipv4");
      return T(sequenceToValue(pos, end, static_cast<V4*>(nullptr)));
    case ipv6:
      GLIMMER_TRACE(tr, 9, "sequenceToValue af ipv6");
      return T(sequenceToValue(pos, end, static_cast<V6*>(nullptr)));
    default: ipDetail::throwTextError(TextError::invalidIpGenAddr);
  }
}

// Reads a whole text with sequenceToValue; empty text is the default value.
// `leftover` gives the message for text left over (the family's whole-text
// message), none meaning the framework's.
template <class T>
T readWhole(Brio::String const& text, TextError (*leftover)(T const&)) {
  if (text.empty()) return T();
  Brio::StringIter pos = text.begin();
  T v = sequenceToValue(pos, text.end(), static_cast<T*>(nullptr));
  if (pos != text.end()) {
    TextError err = leftover ? leftover(v) : TextError::none;
    if (err != TextError::none) ipDetail::throwTextError(err);
    Brio::strepToValueEnd(text, pos);
  }
  return v;
}

// Tag first, then the order of the family values v4() or v6() give.
template <class T, class V4, class V6>
bool lessByFamily(T const& a, T const& b, V4 (T::*v4)() const, V6 (T::*v6)() const) {
  if (a.af() != b.af()) return a.af() < b.af();
  if (a.af() == ipv4) return (a.*v4)() < (b.*v4)();
  if (a.af() == ipv6) return (a.*v6)() < (b.*v6)();
  return false;
}

}  // namespace

namespace ipDetail {

AddressFamily familyOfText(char const* p, char const* e) {
  for (; p != e; ++p) {
    if (*p == ':') return ipv6;
    if (*p == '.') return ipv4;
    if (*p == '/') break;
  }
  return ipunknown;
}

IpGenAddr IpGenAddrAndLen::address() const {
  if (af_ == ipv4) return IpGenAddr(v4());
  if (af_ == ipv6) return IpGenAddr(addr_);
  return IpGenAddr();
}

unsigned IpGenAddrAndLen::writeText(char* out) const {
  unsigned n = af_ == ipv4 ? v4().writeText(out) : addr_.writeText(out);
  out[n++] = '/';
  return n + writeDecimal(out + n, len_);
}

}  // namespace ipDetail

// ---------------------------------------------------------------------------
// AddressFamily

Brio::String valueToStrep(AddressFamily af) {
  switch (af) {
    case ipunknown: return "ipunknown";
    case ipv4: return "ipv4";
    case ipv6: return "ipv6";
  }
  return Brio::valueToStrep(static_cast<U32>(af));
}

AddressFamily sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, AddressFamily*) {
  std::string_view const rest(ipDetail::at(pos), static_cast<std::size_t>(end - pos));
  for (AddressFamily af : {ipunknown, ipv4, ipv6}) {
    Brio::String const name = valueToStrep(af);
    if (rest.starts_with(name.view())) {
      pos += name.bytes();
      return af;
    }
  }
  ipDetail::throwTextError(TextError::invalidAddressFamily);
}

std::ostream& operator<<(std::ostream& os, AddressFamily af) { return os << valueToStrep(af).view(); }

// ---------------------------------------------------------------------------
// IpGenAddr

IpGenAddr::IpGenAddr(Brio::String const& text) { handleInitialized(text); }

void IpGenAddr::handleInitialized(Brio::String const& text) {
  GLIMMER_TRACE(tr, 9, __func__ << " " << text);
  if (text.empty()) {
    GLIMMER_TRACE(tr, 9, __func__ << " af unknown");
    *this = IpGenAddr();
    return;
  }
  *this = readWhole<IpGenAddr>(text, [](IpGenAddr const& v) {
    return v.isV4() ? TextError::invalidIpAddr : TextError::ip6Trailing;
  });
}

U32 IpGenAddr::longestCommonPrefix(IpGenAddr const& other) const {
  if (af_ != other.af_) return 0;
  return isV4() ? v4Addr().longestCommonPrefix(other.v4Addr()) : addr_.longestCommonPrefix(other.addr_);
}

IpGenAddr IpGenAddr::getMappedV4Addr(IpGenAddr const& a) {
  if (!a.isV6() || !a.addr_.isV4MappedV6()) return IpGenAddr();
  return IpGenAddr(IpAddr::fromNetworkOrder(a.addr_.networkWord(3)));
}

IpGenAddr IpGenAddr::getV4MappedV6Addr(IpGenAddr const& a) {
  if (!a.isV4()) return IpGenAddr();
  return IpGenAddr(Ip6Addr::fromHostWords(0, 0, 0xffff, a.v4Addr().hostOrder()));
}

IpGenAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenAddr*) {
  return readEitherFamily<IpGenAddr, IpAddr, Ip6Addr>(pos, end);
}

// ---------------------------------------------------------------------------
// IpGenPrefix

IpGenPrefix::IpGenPrefix(Prefix const& p)
    : IpGenAddrAndLen(ipv4, Ip6Addr::fromHostWords(p.address().hostOrder(), 0, 0, 0), p.len()) {}

IpGenPrefix::IpGenPrefix(Ip6Prefix const& p) : IpGenAddrAndLen(ipv6, p.address(), p.len()) {}

IpGenPrefix::IpGenPrefix(IpGenAddr const& address, U32 len) {
  if (address.isV4()) {
    *this = IpGenPrefix(Prefix(address.v4Addr(), len));
  } else if (address.isV6()) {
    *this = IpGenPrefix(Ip6Prefix(address.v6Addr(), len));
  }
}

IpGenPrefix::IpGenPrefix(IpGenAddr const& address) : IpGenPrefix(address, address.isV4() ? 32 : 128) {}

IpGenPrefix::IpGenPrefix(AddressFamily af, U32 len, std::array<U32, 4> const& words) {
  if (af == ipv4) {
    *this = IpGenPrefix(Prefix(IpAddr::fromNetworkOrder(words[0]), len));
  } else if (af == ipv6) {
    Ip6Addr a;
    a.copyFromBuffer(reinterpret_cast<unsigned char const*>(words.data()));
    *this = IpGenPrefix(Ip6Prefix(a, len));
  }
}

IpGenPrefix::IpGenPrefix(Brio::String const& text) { handleInitialized(text); }

bool IpGenPrefix::contains(IpGenAddr const& a) const {
  if (af_ != a.af()) return false;
  if (af_ == ipv4) return v4Contains(v4(), len_, a.v4Addr());
  return af_ == ipv6 && v6Prefix().contains(a.v6Addr());
}

bool IpGenPrefix::overlaps(IpGenPrefix const& other) const {
  if (af_ != other.af_) return false;
  if (af_ == ipv4) {
    U32 const shorter = std::min(len_, other.len_);
    if (std::max(len_, other.len_) > 32 || shorter == 0) return true;
    return v4Contains(v4(), shorter, other.v4());
  }
  return af_ == ipv6 && v6Prefix().overlaps(other.v6Prefix());
}

bool operator<(IpGenPrefix const& a, IpGenPrefix const& b) {
  return lessByFamily(a, b, &IpGenPrefix::v4Prefix, &IpGenPrefix::v6Prefix);
}

void IpGenPrefix::handleInitialized(Brio::String const& text) {
  *this = readWhole<IpGenPrefix>(text, [](IpGenPrefix const& v) {
    return v.af() == ipv4 ? TextError::prefixNonZero : TextError::none;
  });
}

IpGenPrefix sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenPrefix*) {
  return readEitherFamily<IpGenPrefix, Prefix, Ip6Prefix>(pos, end);
}

// ---------------------------------------------------------------------------
// IpGenAddrWithMask

IpGenAddrWithMask::IpGenAddrWithMask(IpAddrWithMask const& v)
    : IpGenAddrAndLen(ipv4, Ip6Addr::fromHostWords(v.address().hostOrder(), 0, 0, 0), v.len()) {}

IpGenAddrWithMask::IpGenAddrWithMask(Ip6AddrWithMask const& v) : IpGenAddrAndLen(ipv6, v.address(), v.len()) {}

IpGenAddrWithMask::IpGenAddrWithMask(IpGenAddr const& address, U32 len) {
  if (address.af() == ipunknown) return;
  af_ = address.af();
  addr_ = address.rawAddr();
  len_ = len;
}

IpGenAddrWithMask::IpGenAddrWithMask(Brio::String const& text) { handleInitialized(text); }

IpGenPrefix IpGenAddrWithMask::subnet() const {
  if (af_ == ipv4) {
    U32 const h = v4().hostOrder();
    U32 const masked = len_ == 0 ? 0 : len_ < 32 ? h & (0xffffffffu << (32 - len_)) : h;
    return IpGenPrefix(Prefix(IpAddr::fromHostOrder(masked), len_));
  }
  if (af_ == ipv6) return IpGenPrefix(v6AddrWithMask().subnet());
  return IpGenPrefix();
}

bool IpGenAddrWithMask::contains(IpGenAddr const& a) const {
  if (af_ != a.af()) return false;
  if (af_ == ipv4) return v4Contains(v4(), len_, a.v4Addr());
  return af_ == ipv6 && v6AddrWithMask().contains(a.v6Addr());
}

bool operator<(IpGenAddrWithMask const& a, IpGenAddrWithMask const& b) {
  return lessByFamily(a, b, &IpGenAddrWithMask::v4AddrWithMask, &IpGenAddrWithMask::v6AddrWithMask);
}

void IpGenAddrWithMask::handleInitialized(Brio::String const& text) {
  *this = readWhole<IpGenAddrWithMask>(text, nullptr);
}

IpGenAddrWithMask sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenAddrWithMask*) {
  return readEitherFamily<IpGenAddrWithMask, IpAddrWithMask, Ip6AddrWithMask>(pos, end);
}

// ---------------------------------------------------------------------------
// IpGenAddrWithFullMask

IpGenAddrWithFullMask::IpGenAddrWithFullMask(IpGenAddr const& address, U32 len) : address_(address) {
  if (address.isV4()) {
    if (len > 32) throwPrefixToFullMask();
    mask_ = IpAddr::fromHostOrder(len ? 0xffffffffu << (32 - len) : 0);
  } else if (address.isV6()) {
    mask_ = Ip6Addr::maskOfLength(len);
  }
}

IpGenAddrWithFullMask::IpGenAddrWithFullMask(IpAddrWithFullMask const& v)
    : address_(v.address()), mask_(IpAddr::fromHostOrder(v.mask())) {}

IpGenAddrWithFullMask::IpGenAddrWithFullMask(Ip6AddrWithFullMask const& v)
    : address_(v.address()), mask_(v.mask()) {}

IpGenAddrWithFullMask::IpGenAddrWithFullMask(Brio::String const& text) { handleInitialized(text); }

U32 IpGenAddrWithFullMask::maskLength() const {
  if (mask_.af() != address_.af()) return 0xffffffffu;
  if (mask_.isV4()) {
    U32 const m = mask_.v4Addr().hostOrder();
    return (~m & (~m + 1)) == 0 ? static_cast<U32>(std::countl_one(m)) : 0xffffffffu;
  }
  if (mask_.isV6()) {
    U32 const len = Ip6AddrWithFullMask(address_.v6Addr(), mask_.v6Addr()).maskLength();
    return len <= 128 ? len : 0xffffffffu;
  }
  return 0xffffffffu;
}

bool IpGenAddrWithFullMask::hasPrefixRepr() const { return maskLength() != 0xffffffffu; }

Brio::String IpGenAddrWithFullMask::stringValue() const {
  U32 const len = maskLength();
  if (len == 0xffffffffu) return valueToStrep(*this);
  char text[IpGenAddr::textBufferBytes + 12];
  unsigned n = address_.writeText(text);
  text[n++] = '/';
  n += ipDetail::writeDecimal(text + n, len);
  return Brio::String(text, n);
}

void IpGenAddrWithFullMask::handleInitialized(Brio::String const& text) {
  if (text.empty()) {
    *this = IpGenAddrWithFullMask();
    return;
  }
  if (text.view().starts_with("Value('")) {
    *this = Brio::strepToValue<IpGenAddrWithFullMask>(text);
    return;
  }
  Brio::StringIter pos = text.begin();
  Brio::StringIter const end = text.end();
  switch (familyAt(pos, end)) {
    case ipv4: {
      IpAddr const address = sequenceToValue(pos, end, static_cast<IpAddr*>(nullptr));
      U32 const mask = sequenceToPrefixFullMask(pos, end);
      *this = IpGenAddrWithFullMask(address, IpAddr::fromNetworkOrder(mask));
      return;
    }
    case ipv6:
      *this = Brio::strepToValue<Ip6AddrWithFullMask>(text);
      return;
    default: ipDetail::throwTextError(TextError::invalidIpGenAddr);
  }
}

// ---------------------------------------------------------------------------
// TristateIpGenAddr

namespace {
constexpr std::string_view unsetText = "unset";
constexpr std::string_view noneText = "none";
}  // namespace

unsigned TristateIpGenAddr::writeText(char* out) const {
  if (!isSet_ || isNone()) {
    std::string_view const t = isSet_ ? noneText : unsetText;
    std::memcpy(out, t.data(), t.size());
    return static_cast<unsigned>(t.size());
  }
  return value_.writeText(out);
}

void TristateIpGenAddr::handleInitialized(Brio::String const& text) {
  *this = readWhole<TristateIpGenAddr>(text, nullptr);
}

TristateIpGenAddr sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TristateIpGenAddr*) {
  std::string_view const rest(ipDetail::at(pos), static_cast<std::size_t>(end - pos));
  if (rest.starts_with(unsetText)) {
    pos += unsetText.size();
    return TristateIpGenAddr();
  }
  if (rest.starts_with(noneText)) {
    pos += noneText.size();
    return TristateIpGenAddr(IpGenAddr());
  }
  return TristateIpGenAddr(sequenceToValue(pos, end, static_cast<IpGenAddr*>(nullptr)));
}

// ---------------------------------------------------------------------------
// IpGenPrefixSet

bool IpGenPrefixSet::contains(IpGenAddr const& a) const {
  return std::any_of(prefixes_.begin(), prefixes_.end(), [&](IpGenPrefix const& p) { return p.contains(a); });
}

IpGenPrefix IpGenPrefixSet::longestMatch(IpGenAddr const& a) const {
  IpGenPrefix best;
  bool found = false;
  for (IpGenPrefix const& p : prefixes_) {
    if (p.contains(a) && (!found || p.len() > best.len())) {
      best = p;
      found = true;
    }
  }
  return best;
}

U32 IpGenPrefixSet::hash(U32 seed) const {
  Brio::Hash h(seed);
  h.mix(size());
  for (IpGenPrefix const& p : prefixes_) h.mix(p.hash(seed));
  return h.result();
}

bool operator<(IpGenPrefixSet const& a, IpGenPrefixSet const& b) {
  return std::lexicographical_compare(a.prefixes_.begin(), a.prefixes_.end(), b.prefixes_.begin(),
                                      b.prefixes_.end(), IpGenPrefixSet::KeyLess());
}

Brio::String IpGenPrefixSet::stringValue() const {
  std::string out = "{";
  char text[IpGenPrefix::textBufferBytes];
  for (IpGenPrefix const& p : prefixes_) {
    if (out.size() > 1) out += ", ";
    out.append(text, p.writeText(text));
  }
  out += '}';
  return Brio::String(std::move(out));
}

void IpGenPrefixSet::stringValueIs(Brio::String const& text) { *this = Brio::strepToValue<IpGenPrefixSet>(text); }

std::ostream& operator<<(std::ostream& os, IpGenPrefixSet const& v) { return os << v.stringValue().view(); }

IpGenPrefixSet sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IpGenPrefixSet*) {
  Brio::needString(pos, end, "{");
  IpGenPrefixSet set;
  if (pos != end && *pos == '}') {
    ++pos;
    return set;
  }
  for (;;) {
    set.prefixIs(sequenceToValue(pos, end, static_cast<IpGenPrefix*>(nullptr)));
    if (pos != end && *pos == '}') {
      ++pos;
      return set;
    }
    Brio::needString(pos, end, ", ");
  }
}

// ---------------------------------------------------------------------------
// Configuration entities

void IpGenPrefixSetConfig::prefixIs(IpGenPrefix const& p) {
  if (prefixSet_.prefixIs(p)) notify(&Notifiee::handlePrefix, p);
}

void IpGenPrefixSetConfig::prefixDel(IpGenPrefix const& p) {
  // p may be the set's own element (prefixDelAll passes one): keep a copy
  // to notify with after the erase.
  IpGenPrefix const removed = p;
  if (prefixSet_.prefixDel(removed)) notify(&Notifiee::handlePrefix, removed);
}

void IpGenPrefixSetConfig::prefixDelAll() {
  while (!prefixSet_.empty()) prefixDel(*prefixSet_.prefixes().begin());
}

void IpGenPrefixSetConfig::prefixSetIs(IpGenPrefixSet const& s) {
  std::vector<IpGenPrefix> gone;
  for (IpGenPrefix const& p : prefixSet_.prefixes()) {
    if (!s.prefix(p)) gone.push_back(p);
  }
  for (IpGenPrefix const& p : gone) prefixDel(p);
  for (IpGenPrefix const& p : s.prefixes()) prefixIs(p);
}

Brio::Ptr<IpGenPrefixSetConfig> ipGenPrefixSetConfigFactory(Brio::String const& name) {
  return Brio::makePtr<IpGenPrefixSetConfig>(name);
}

Brio::Ptr<IpGenPrefixSetConfig> IpGenPrefixSetConfigDir::config(Brio::String const& name) const {
  auto it = configs_.find(name);
  return it == configs_.end() ? nullptr : it->second;
}

Brio::Ptr<IpGenPrefixSetConfig> IpGenPrefixSetConfigDir::configIs(Brio::String const& name) {
  if (auto existing = config(name)) return existing;
  auto made = ipGenPrefixSetConfigFactory(name);
  collectionIs(configs_, name, made, &Notifiee::handleConfig);
  return made;
}

void IpGenPrefixSetConfigDir::configDel(Brio::String const& name) {
  collectionDel(configs_, name, &Notifiee::handleConfig);
}

void IpGenPrefixSetConfigDir::configDelAll() { collectionDelAll(configs_, &Notifiee::handleConfig); }

Brio::Ptr<IpGenPrefixSetConfigDir> ipGenPrefixSetConfigDirFactory(Brio::String const& name) {
  return Brio::makePtr<IpGenPrefixSetConfigDir>(name);
}

// ---------------------------------------------------------------------------
// Attribute log

void attrLogWrite(Brio::NboAttrLog& log, AddressFamily af) { log.writeU32(static_cast<U32>(af)); }

AddressFamily attrLogRead(Brio::NboAttrLog& log, AddressFamily*) {
  U32 const v = log.readU32();
  if (v > static_cast<U32>(ipv6)) ipDetail::throwTextError(TextError::invalidAddressFamily);
  return static_cast<AddressFamily>(v);
}

void attrLogWrite(Brio::NboAttrLog& log, IpGenAddr const& v) {
  attrLogWrite(log, v.af());
  if (v.isV4()) attrLogWrite(log, v.v4Addr());
  if (v.isV6()) attrLogWrite(log, v.v6Addr());
}

IpGenAddr attrLogRead(Brio::NboAttrLog& log, IpGenAddr*) {
  switch (attrLogRead(log, static_cast<AddressFamily*>(nullptr))) {
    case ipv4: return attrLogRead(log, static_cast<IpAddr*>(nullptr));
    case ipv6: return attrLogRead(log, static_cast<Ip6Addr*>(nullptr));
    default: return IpGenAddr();
  }
}

void attrLogWrite(Brio::NboAttrLog& log, IpGenPrefix const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.len());
}
IpGenPrefix attrLogRead(Brio::NboAttrLog& log, IpGenPrefix*) {
  return ipDetail::attrLogReadFields<IpGenPrefix, IpGenAddr, U32>(log);
}
void attrLogWrite(Brio::NboAttrLog& log, IpGenAddrWithMask const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.len());
}
IpGenAddrWithMask attrLogRead(Brio::NboAttrLog& log, IpGenAddrWithMask*) {
  return ipDetail::attrLogReadFields<IpGenAddrWithMask, IpGenAddr, U32>(log);
}
void attrLogWrite(Brio::NboAttrLog& log, IpGenAddrWithFullMask const& v) {
  ipDetail::attrLogWriteFields(log, v.address(), v.mask());
}
IpGenAddrWithFullMask attrLogRead(Brio::NboAttrLog& log, IpGenAddrWithFullMask*) {
  return ipDetail::attrLogReadFields<IpGenAddrWithFullMask, IpGenAddr, IpGenAddr>(log);
}

void attrLogWrite(Brio::NboAttrLog& log, TristateIpGenAddr const& v) {
  ipDetail::attrLogWriteFields(log, v.isSet(), v.value());
}
TristateIpGenAddr attrLogRead(Brio::NboAttrLog& log, TristateIpGenAddr*) {
  bool const isSet = Brio::attrLogRead(log, static_cast<bool*>(nullptr));
  IpGenAddr const value = attrLogRead(log, static_cast<IpGenAddr*>(nullptr));
  return isSet ? TristateIpGenAddr(value) : TristateIpGenAddr();
}

void attrLogWrite(Brio::NboAttrLog& log, IpGenPrefixSet const& v) {
  log.writeU32(v.size());
  for (IpGenPrefix const& p : v.prefixes()) attrLogWrite(log, p);
}
IpGenPrefixSet attrLogRead(Brio::NboAttrLog& log, IpGenPrefixSet*) {
  IpGenPrefixSet set;
  for (U32 n = log.readU32(); n > 0; --n) set.prefixIs(attrLogRead(log, static_cast<IpGenPrefix*>(nullptr)));
  return set;
}

}  // namespace Corvid
