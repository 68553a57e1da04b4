#include <Brio/Hash.h>
#include <Brio/Exception.h>
#include <Brio/NboAttrLog.h>
#include <gtest/gtest.h>

namespace {

// Hashes key shared tables read by processes of other builds: these values
// must never change.
TEST(Hash, KnownValuesAreFixed) {
  EXPECT_EQ(Brio::Hash(0).result(), 0u);
  EXPECT_EQ(Brio::Hash(0).mix(U32{0}).result(), 0x2362f9deu);
  EXPECT_EQ(Brio::Hash(1).mix(U32{0x01020304}).result(), Brio::Hash(1).mixBytes("\x04\x03\x02\x01", 4).result());
}

TEST(NboAttrLog, TruncatedOrLyingLogRaisesSizeExceptionWithoutOverread) {
  Brio::NboAttrLog log;
  log.writeString("abcdef");
  std::string full = log.data().str();
  for (std::size_t n = 0; n < full.size(); ++n) {
    Brio::NboAttrLog in{Brio::Bytes(full.substr(0, n))};
    EXPECT_THROW(in.readString(), Brio::SizeException) << n;
  }
  Brio::NboAttrLog lying{Brio::Bytes(std::string("\xff\xff\xff\xff", 4))};
  EXPECT_THROW(lying.readBytes(), Brio::SizeException);
  Brio::NboAttrLog empty;
  EXPECT_THROW(empty.readU64(), Brio::SizeException);
}

}  // namespace
