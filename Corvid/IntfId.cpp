#include <Corvid/IntfId.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cctype>
#include <memory>
#include <ostream>
#include <string_view>

namespace Corvid {

namespace {

struct ShortName {
  std::string_view full;
  std::string_view abbreviation;
};

constexpr ShortName shortNames[] = {
    {"Ethernet", "Et"},   {"Port-Channel", "Po"}, {"Vlan", "Vl"},
    {"Loopback", "Lo"},   {"Management", "Ma"},   {"Tunnel", "Tu"},
    {"Vxlan", "Vx"},      {"Recirc-Channel", "Rc"}, {"Null", "Nu"},
};

bool startsWithNoCase(std::string_view s, std::string_view prefix) {
  if (s.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(s[i])) != std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

bool digitAt(std::string_view s, std::size_t i) { return i < s.size() && s[i] >= '0' && s[i] <= '9'; }

pcre2_code* digitRunPattern() {
  // Compiled once per process; the guard of the static makes it thread safe.
  static pcre2_code* const code = [] {
    int error = 0;
    PCRE2_SIZE offset = 0;
    return pcre2_compile(reinterpret_cast<PCRE2_SPTR>("[0-9]+"), PCRE2_ZERO_TERMINATED, 0, &error, &offset,
                         nullptr);
  }();
  return code;
}

// The collation key: text between digit runs as it is; each digit run as
// '0', its significant length in four big-endian bytes, then its
// significant digits. A marker byte '0' can only meet another marker (text
// never holds digits), and a longer number then sorts after a shorter one.
std::string collationKey(std::string_view name) {
  std::string key;
  pcre2_code* const code = digitRunPattern();
  std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> match(
      pcre2_match_data_create_from_pattern(code, nullptr), &pcre2_match_data_free);
  auto const* subject = reinterpret_cast<PCRE2_SPTR>(name.data());
  PCRE2_SIZE offset = 0;
  while (offset < name.size() &&
         pcre2_match(code, subject, name.size(), offset, 0, match.get(), nullptr) > 0) {
    PCRE2_SIZE const* ov = pcre2_get_ovector_pointer(match.get());
    key.append(name.substr(offset, ov[0] - offset));
    PCRE2_SIZE start = ov[0];
    while (start + 1 < ov[1] && name[start] == '0') ++start;
    auto const length = static_cast<U32>(ov[1] - start);
    key += '0';
    for (int shift = 24; shift >= 0; shift -= 8) key += static_cast<char>(length >> shift & 0xff);
    key.append(name.substr(start, length));
    offset = ov[1];
  }
  if (offset < name.size()) key.append(name.substr(offset));
  return key;
}

}  // namespace

IntfId::IntfId(Brio::String name) { nameIs(std::move(name)); }

void IntfId::nameIs(Brio::String name) {
  std::string key = collationKey(name.view());
  name_ = std::move(name);
  key_ = std::move(key);
}

Brio::String IntfId::shortName() const {
  std::string_view const n = name_.view();
  for (auto const& s : shortNames) {
    if (n.starts_with(s.full) && digitAt(n, s.full.size())) {
      return Brio::String(std::string(s.abbreviation) + std::string(n.substr(s.full.size())));
    }
  }
  return name_;
}

IntfId IntfId::fromShortName(Brio::String const& text) {
  std::string_view const t = text.view();
  for (auto const& s : shortNames) {
    for (std::string_view prefix : {s.abbreviation, s.full}) {
      if (startsWithNoCase(t, prefix) && digitAt(t, prefix.size())) {
        return IntfId(Brio::String(std::string(s.full) + std::string(t.substr(prefix.size()))));
      }
    }
  }
  return IntfId(text);
}

Brio::String valueToStrep(IntfId const& v) { return Brio::valueToStrep(v.name()); }

IntfId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, IntfId*) {
  return IntfId(Brio::sequenceToValue(pos, end, static_cast<Brio::String*>(nullptr)));
}

std::ostream& operator<<(std::ostream& os, IntfId const& v) { return os << valueToStrep(v).view(); }

void attrLogWrite(Brio::NboAttrLog& log, IntfId const& v) { log.writeString(v.name()); }

IntfId attrLogRead(Brio::NboAttrLog& log, IntfId*) { return IntfId(log.readString()); }

}  // namespace Corvid
