#include <Brio/NboAttrLog.h>

#include <Brio/Exception.h>

namespace Brio {

namespace {
// One append per value: shared-table writers encode every update, and a
// byte-at-a-time append cost them more than the rest of the update.
template <class T>
void putBigEndian(std::string& out, T v) {
  char b[sizeof(T)];
  for (std::size_t i = 0; i < sizeof(T); ++i) b[i] = static_cast<char>(static_cast<U8>(v >> ((sizeof(T) - 1 - i) * 8)));
  out.append(b, sizeof b);
}

template <class T>
T getBigEndian(char const* p) {
  T v = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) v = static_cast<T>((v << 8) | static_cast<U8>(p[i]));
  return v;
}
}  // namespace

void NboAttrLog::writeU8(U8 v) { putBigEndian(data_, v); }
void NboAttrLog::writeU16(U16 v) { putBigEndian(data_, v); }
void NboAttrLog::writeU32(U32 v) { putBigEndian(data_, v); }
void NboAttrLog::writeU64(U64 v) { putBigEndian(data_, v); }

void NboAttrLog::writeBytes(Bytes const& v) {
  writeU32(v.bytes());
  data_.append(v.data(), v.bytes());
}

void NboAttrLog::writeString(String const& v) {
  writeU32(v.bytes());
  data_.append(v.data(), v.bytes());
}

char const* NboAttrLog::take(std::size_t n) {
  if (data_.size() - readPos_ < n) throw SizeException("attribute log: read past end");
  char const* p = data_.data() + readPos_;
  readPos_ += n;
  return p;
}

U8 NboAttrLog::readU8() { return getBigEndian<U8>(take(1)); }
U16 NboAttrLog::readU16() { return getBigEndian<U16>(take(2)); }
U32 NboAttrLog::readU32() { return getBigEndian<U32>(take(4)); }
U64 NboAttrLog::readU64() { return getBigEndian<U64>(take(8)); }

Bytes NboAttrLog::readBytes() {
  U32 n = readU32();
  char const* p = take(n);
  return Bytes(p, n);
}

String NboAttrLog::readString() {
  U32 n = readU32();
  char const* p = take(n);
  return String(p, n);
}

void NboAttrLog::readPositionIs(std::size_t p) {
  if (p > data_.size()) throw SizeException("attribute log: read past end");
  readPos_ = p;
}

}  // namespace Brio
