#include <Brio/Hash.h>
#include <Brio/Exception.h>
#include <Brio/NboAttrLog.h>
#include <gtest/gtest.h>

#include <set>

namespace {

// Hashes key shared tables read by processes of other builds: these values
// must never change.
TEST(Hash, KnownValuesAreFixed) {
  EXPECT_EQ(Brio::Hash(0).result(), 0u);
  EXPECT_EQ(Brio::Hash(0).mix(U32{0}).result(), 0x2362f9deu);
  EXPECT_EQ(Brio::Hash(1).mix(U32{0x01020304}).result(), Brio::Hash(1).mixBytes("\x04\x03\x02\x01", 4).result());
}

TEST(Hash, SeedOrderAndWidthAllMatter) {
  EXPECT_NE(Brio::Hash(1).mix(U32{5}).result(), Brio::Hash(2).mix(U32{5}).result());
  EXPECT_NE(Brio::Hash(0).mix(U32{1}).mix(U32{2}).result(), Brio::Hash(0).mix(U32{2}).mix(U32{1}).result());
  EXPECT_NE(Brio::Hash(0).mix(U32{7}).result(), Brio::Hash(0).mix(U64{7}).result());
  EXPECT_NE(Brio::Hash(0).mixBytes("a", 1).result(), Brio::Hash(0).mixBytes("a\0", 2).result());
}

TEST(Hash, SpreadsSequentialKeys) {
  std::set<U32> seen;
  std::set<U32> lowByte;
  for (U32 i = 0; i < 4096; ++i) {
    U32 h = Brio::Hash(0).mix(i).result();
    seen.insert(h);
    lowByte.insert(h & 0xff);
  }
  EXPECT_EQ(seen.size(), 4096u);
  EXPECT_EQ(lowByte.size(), 256u);
}

TEST(NboAttrLog, WritesNetworkOrderAndReadsBack) {
  Brio::NboAttrLog log;
  log.writeU8(0x12);
  log.writeU16(0x3456);
  log.writeU32(0x789abcde);
  log.writeU64(0x0102030405060708ULL);
  log.writeString("eth0");
  log.writeBytes(Brio::Bytes(std::string("\0\1", 2)));
  EXPECT_EQ(log.data(), Brio::Bytes(std::string("\x12\x34\x56\x78\x9a\xbc\xde\1\2\3\4\5\6\7\x8"
                                                "\0\0\0\4eth0\0\0\0\2\0\1",
                                                29)));
  Brio::NboAttrLog in(log.data());
  EXPECT_EQ(in.readU8(), 0x12);
  EXPECT_EQ(in.readU16(), 0x3456);
  EXPECT_EQ(in.readU32(), 0x789abcdeu);
  EXPECT_EQ(in.readU64(), 0x0102030405060708ULL);
  EXPECT_EQ(in.readString(), Brio::String("eth0"));
  EXPECT_EQ(in.readBytes(), Brio::Bytes(std::string("\0\1", 2)));
  EXPECT_TRUE(in.atEnd());
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
