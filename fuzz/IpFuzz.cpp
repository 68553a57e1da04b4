// Every text reader of Corvid/Ip.h on arbitrary bytes.
//
// A reader may only fail with Brio::RangeException carrying one of its own
// messages (or, for records and whole-text reads, the framework's text-form
// messages); anything else escapes and is reported as a crash. Whenever a
// read succeeds, the value's text must read back to the same value, and
// printToBuffer must agree with it. The character-pointer readers also run
// on the fuzzer's own buffer, which is exactly as long as the input, so the
// sanitizer sees any read past the end.
#include <Corvid/Ip.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

using namespace Corvid;
using Brio::String;

namespace {

constexpr std::string_view v4Messages[] = {
    "Invalid IpAddr", "premature end of Prefix type", "Invalid Prefix - non-zero after prefixlen",
    "Invalid IPv4 prefix", "Invalid IPv4 prefix length",
};
constexpr std::string_view v6Messages[] = {
    "Ip6Addr: too many colons",
    "Ip6Addr: hex digit expected",
    "Ip6Addr: hex value too large",
    "Ip6Addr: ':' expected",
    "Ip6Addr: only one '::' allowed",
    "Ip6Addr: leading hex digit expected",
    "Ip6Addr: too many consecutive hex digits",
    "Ip6Addr: incomplete ipv6 address",
    "Ip6Addr: unexpected trailing characters",
    "Ip6Addr: address is not expanded",
    "Ip6AddrWithMask: prefix size expected",
    "Ip6AddrWithMask: prefix too long",
    "Ip6AddrWithFullMask: mask expected",
    "Invalid IpAddr",  // a trailing dotted quad
};
constexpr std::string_view genMessages[] = {"Invalid IpGenAddr", "Invalid AddressFamily"};
// The framework's own text-form messages, by their fixed beginnings.
constexpr std::string_view frameworkPrefixes[] = {
    "unexpected text after value", "expected '", "missing value for field '", "value out of range for ", "invalid ",
};

enum Allowed : unsigned { v4 = 1, v6 = 2, gen = 4, framework = 8 };

[[noreturn]] void fail(char const* what, std::string const& text, std::string const& detail) {
  std::fprintf(stderr, "IpFuzz: %s\n  input: '%s'\n  %s\n", what, text.c_str(), detail.c_str());
  std::abort();
}

bool allowed(std::string_view m, unsigned sets) {
  auto in = [&](auto const& list) {
    for (std::string_view x : list) {
      if (m == x) return true;
    }
    return false;
  };
  if ((sets & v4) && in(v4Messages)) return true;
  if ((sets & v6) && in(v6Messages)) return true;
  if ((sets & gen) && in(genMessages)) return true;
  if (sets & framework) {
    for (std::string_view p : frameworkPrefixes) {
      if (m.starts_with(p)) return true;
    }
  }
  return false;
}

// Runs read(); a RangeException must carry an allowed message. Returns
// whether the read succeeded.
template <class F>
bool attempt(std::string const& text, unsigned sets, F&& read) {
  try {
    read();
    return true;
  } catch (Brio::RangeException const& e) {
    if (!allowed(e.what(), sets)) fail("unexpected message", text, e.what());
    return false;
  }
}

template <class T>
void expectSame(T const& a, T const& b, std::string const& text, char const* what) {
  if (!(a == b)) fail(what, text, Brio::strep(a).str() + " != " + Brio::strep(b).str());
}

// The strep reads back to the same value, and printToBuffer (where the type
// has it) writes a cut of the same text and returns its whole length.
template <class T>
void roundTrip(T const& v, std::string const& text) {
  String const strep = Brio::strep(v);
  T back;
  if (!attempt(text, ~0u, [&] { back = Brio::strepToValue<T>(strep); })) {
    fail("strep does not read back", text, strep.str());
  }
  expectSame(v, back, text, "strep reads back to another value");
  if constexpr (requires(char* b) { v.printToBuffer(b, 1u); }) {
    char buf[6];
    unsigned const n = v.printToBuffer(buf, sizeof buf);
    if (n != strep.bytes() || strep.view().substr(0, sizeof buf - 1) != std::string_view(buf)) {
      fail("printToBuffer disagrees with the strep", text, strep.str() + " vs " + buf);
    }
  }
}

// sequenceToValue at the start of the text, then the whole-text reader.
template <class T>
void readAndRoundTrip(String const& s, unsigned sets) {
  std::string const& text = s.str();
  Brio::StringIter pos = s.begin();
  T v;
  if (attempt(text, sets, [&] { v = sequenceToValue(pos, s.end(), static_cast<T*>(nullptr)); })) {
    if (pos < s.begin() || pos > s.end()) fail("reader left its range", text, "");
    roundTrip(v, text);
  }
  if (attempt(text, sets | framework, [&] { v = Brio::strepToValue<T>(s); })) roundTrip(v, text);
}

// A member setter of the whole text (stringValueIs, handleInitialized):
// keeps the value on failure; on success the value's text reads back.
template <class T, class Set>
void setAndRoundTrip(String const& s, unsigned sets, Set set) {
  std::string const& text = s.str();
  T v;
  T const before = v;
  if (!attempt(text, sets, [&] { set(v, s); })) {
    expectSame(v, before, text, "failed setter changed the value");
    return;
  }
  if (!text.empty()) roundTrip(v, text);
}

void pointerReaders(char const* data, std::size_t size, std::string const& text) {
  char const* const end = data + size;
  U32 nbo;
  char const* q = ipDetail::readIpv4(data, end, &nbo);
  if (q && (q < data || q > end)) fail("readIpv4 left its range", text, "");
  char const* p = data;
  Ip6Addr a;
  U32 len;
  if (ipDetail::readIp6(p, end, &a) == ipDetail::TextError::none && (p < data || p > end)) {
    fail("readIp6 left its range", text, "");
  }
  p = data;
  ipDetail::readIp6AndLen(p, end, &a, &len);
  ipDetail::familyOfText(data, end);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size) {
  char const* const chars = reinterpret_cast<char const*>(data);
  String const s(chars, size);
  std::string const& text = s.str();
  pointerReaders(chars, size, text);

  readAndRoundTrip<IpAddr>(s, v4);
  readAndRoundTrip<Prefix>(s, v4);
  readAndRoundTrip<IpAddrWithMask>(s, v4);
  readAndRoundTrip<IpAddrWithFullMask>(s, v4 | framework);
  readAndRoundTrip<Ip6Addr>(s, v6);
  readAndRoundTrip<Ip6Prefix>(s, v6);
  readAndRoundTrip<Ip6AddrWithMask>(s, v6);
  readAndRoundTrip<Ip6AddrWithFullMask>(s, v6);
  readAndRoundTrip<AddressFamily>(s, gen);
  readAndRoundTrip<IpGenAddr>(s, v4 | v6 | gen);
  readAndRoundTrip<IpGenPrefix>(s, v4 | v6 | gen);
  readAndRoundTrip<IpGenAddrWithMask>(s, v4 | v6 | gen);
  readAndRoundTrip<IpGenAddrWithFullMask>(s, v4 | v6 | gen | framework);
  readAndRoundTrip<TristateIpGenAddr>(s, v4 | v6 | gen);
  readAndRoundTrip<IpGenPrefixSet>(s, v4 | v6 | gen | framework);

  setAndRoundTrip<IpAddr>(s, v4, [](IpAddr& v, String const& t) { v.stringValueIs(t); });
  setAndRoundTrip<Prefix>(s, v4, [](Prefix& v, String const& t) { v.stringValueIs(t); });
  setAndRoundTrip<Ip6Addr>(s, v6, [](Ip6Addr& v, String const& t) { v.stringValueIs(t); });
  setAndRoundTrip<IpGenAddr>(s, v4 | v6 | gen, [](IpGenAddr& v, String const& t) { v.handleInitialized(t); });
  setAndRoundTrip<IpGenPrefix>(s, v4 | v6 | gen | framework,
                               [](IpGenPrefix& v, String const& t) { v.handleInitialized(t); });
  setAndRoundTrip<IpGenAddrWithMask>(s, v4 | v6 | gen | framework,
                                     [](IpGenAddrWithMask& v, String const& t) { v.handleInitialized(t); });
  setAndRoundTrip<TristateIpGenAddr>(s, v4 | v6 | gen | framework,
                                     [](TristateIpGenAddr& v, String const& t) { v.handleInitialized(t); });
  setAndRoundTrip<IpGenPrefixSet>(s, v4 | v6 | gen | framework,
                                  [](IpGenPrefixSet& v, String const& t) { v.stringValueIs(t); });

  // The configuration text of the either-family full mask reads back through
  // its stringValue, whichever form that takes.
  IpGenAddrWithFullMask full;
  if (attempt(text, v4 | v6 | gen | framework, [&] { full.handleInitialized(s); }) && !text.empty()) {
    IpGenAddrWithFullMask back;
    if (!attempt(text, ~0u, [&] { back.handleInitialized(full.stringValue()); })) {
      fail("stringValue does not read back", text, full.stringValue().str());
    }
    expectSame(full, back, text, "stringValue reads back to another value");
  }

  // The expanded IPv6 form reads back through stringValueExpanded.
  Ip6Addr expanded;
  if (attempt(text, v6, [&] { expanded.stringValueExpandedIs(s); })) {
    Ip6Addr back;
    back.stringValueExpandedIs(expanded.stringValueExpanded());
    expectSame(expanded, back, text, "expanded text reads back to another value");
  }

  // The full-mask length reader: its mask reads back from its length.
  Brio::StringIter pos = s.begin();
  U32 mask = 0;
  if (attempt(text, v4, [&] { mask = sequenceToPrefixFullMask(pos, s.end()); })) {
    String const lenText("/" + std::to_string(std::popcount(mask)));
    Brio::StringIter again = lenText.begin();
    if (sequenceToPrefixFullMask(again, lenText.end()) != mask) fail("mask length does not read back", text, "");
  }
  return 0;
}
