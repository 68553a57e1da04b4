// Brio::NboAttrLog: the binary attribute log in network byte order.
//
// Writers append fixed-width integers (big-endian on the wire), and
// length-prefixed byte strings (a U32 count, then the bytes). Readers consume
// from a cursor in the same order. The log is read from outside (shared
// memory, files), so every read checks the remaining length and raises
// Brio::SizeException "attribute log: read past end" instead of overreading.
//
// Value types give their binary form with two free functions found by
// argument-dependent lookup:
//   void attrLogWrite(Brio::NboAttrLog&, T const&);
//   T attrLogRead(Brio::NboAttrLog&, T*);
// Built-in overloads for the integer types, bool, String and Bytes are here.
#pragma once

#include <Brio/String.h>
#include <Brio/Types.h>

#include <cstddef>
#include <string>

namespace Brio {

class NboAttrLog {
 public:
  NboAttrLog() = default;
  // A log to read back: the bytes as they were written.
  explicit NboAttrLog(Bytes const& data) : data_(data.str()) {}

  void writeU8(U8 v);
  void writeU16(U16 v);
  void writeU32(U32 v);
  void writeU64(U64 v);
  void writeBytes(Bytes const& v);
  void writeString(String const& v);

  U8 readU8();
  U16 readU16();
  U32 readU32();
  U64 readU64();
  Bytes readBytes();
  String readString();

  // Empties the log for reuse; the buffer keeps its capacity, so a log
  // reused per entry allocates only while it grows.
  void clear() {
    data_.clear();
    readPos_ = 0;
  }
  // Replaces the contents with n bytes to read back (cursor at the start).
  void dataIs(char const* p, std::size_t n) {
    data_.assign(p, n);
    readPos_ = 0;
  }
  char const* rawData() const { return data_.data(); }

  Bytes data() const { return Bytes(data_); }
  std::size_t bytes() const { return data_.size(); }
  std::size_t readPosition() const { return readPos_; }
  bool atEnd() const { return readPos_ == data_.size(); }
  void readPositionIs(std::size_t p);

 private:
  char const* take(std::size_t n);
  std::string data_;
  std::size_t readPos_ = 0;
};

inline void attrLogWrite(NboAttrLog& log, U8 v) { log.writeU8(v); }
inline void attrLogWrite(NboAttrLog& log, U16 v) { log.writeU16(v); }
inline void attrLogWrite(NboAttrLog& log, U32 v) { log.writeU32(v); }
inline void attrLogWrite(NboAttrLog& log, U64 v) { log.writeU64(v); }
inline void attrLogWrite(NboAttrLog& log, bool v) { log.writeU8(v ? 1 : 0); }
inline void attrLogWrite(NboAttrLog& log, String const& v) { log.writeString(v); }
inline void attrLogWrite(NboAttrLog& log, Bytes const& v) { log.writeBytes(v); }
inline U8 attrLogRead(NboAttrLog& log, U8*) { return log.readU8(); }
inline U16 attrLogRead(NboAttrLog& log, U16*) { return log.readU16(); }
inline U32 attrLogRead(NboAttrLog& log, U32*) { return log.readU32(); }
inline U64 attrLogRead(NboAttrLog& log, U64*) { return log.readU64(); }
inline bool attrLogRead(NboAttrLog& log, bool*) { return log.readU8() != 0; }
inline String attrLogRead(NboAttrLog& log, String*) { return log.readString(); }
inline Bytes attrLogRead(NboAttrLog& log, Bytes*) { return log.readBytes(); }

}  // namespace Brio
