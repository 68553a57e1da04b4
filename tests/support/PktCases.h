// Test support for the packet suites: packets holding given bytes, hex texts
// both ways, and the matcher death tests pin assertion lines with.
#pragma once

#include <Corvid/Pkt.h>
#include <gmock/gmock.h>

#include <string>

namespace CorvidTest {

// Death tests match the whole assertion line, so a longer expression that
// merely contains the expected one does not pass.
inline testing::Matcher<std::string const&> assertion(std::string const& text) {
  return testing::HasSubstr("Assertion failed: " + text + "\n");
}

// A packet whose data fills its buffer exactly: the bytes end where the
// allocation ends, so a read past the packet is a read past the heap block.
inline Brio::Ptr<Corvid::Pkt> exactPkt(std::string const& bytes) {
  Brio::Ptr<Corvid::Pkt> pkt = Brio::makePtr<Corvid::Pkt>();
  pkt->sharedBufferIs(Corvid::globalPktManager()->newSharedBuffer(static_cast<U32>(bytes.size())));
  pkt->stringValueIs(Brio::String(bytes));
  return pkt;
}

// Hex digits in pairs; spaces between them are ignored.
inline std::string fromHex(std::string hex) {
  std::erase(hex, ' ');
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

inline std::string toHex(std::string const& bytes) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += {digits[c >> 4], digits[c & 15]};
  return out;
}

}  // namespace CorvidTest
