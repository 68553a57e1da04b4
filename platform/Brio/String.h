// Brio::String and Brio::Bytes: the framework's byte strings.
//
// A String is a thin class over std::string: it owns its bytes, exposes only
// const iterators (text readers walk it with a (pos, end) iterator pair) and
// adds the framework's few names (bytes(), charPos()). Bytes is the binary
// twin used for raw packet contents; the two differ only in type, so a text
// form can never be confused with a binary blob at a call site.
#pragma once

#include <Brio/Types.h>

#include <compare>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Brio {

template <class Tag>
class BasicByteString {
 public:
  using const_iterator = std::string::const_iterator;
  using iterator = const_iterator;
  using value_type = char;

  BasicByteString() = default;
  BasicByteString(char const* s) : s_(s) {}  // NOLINT: implicit by design
  BasicByteString(char const* s, std::size_t n) : s_(s, n) {}
  BasicByteString(std::string s) : s_(std::move(s)) {}  // NOLINT
  BasicByteString(std::string_view s) : s_(s) {}        // NOLINT
  BasicByteString(const_iterator b, const_iterator e) : s_(b, e) {}

  U32 bytes() const { return static_cast<U32>(s_.size()); }
  bool empty() const { return s_.empty(); }
  char const* data() const { return s_.data(); }
  char const* c_str() const { return s_.c_str(); }
  char operator[](std::size_t i) const { return s_[i]; }

  const_iterator begin() const { return s_.cbegin(); }
  const_iterator end() const { return s_.cend(); }

  // Index of the first occurrence of `needle` at or after `start`, or -1.
  S32 charPos(BasicByteString const& needle, U32 start = 0) const {
    auto p = s_.find(needle.s_, start);
    return p == std::string::npos ? -1 : static_cast<S32>(p);
  }

  std::string const& str() const { return s_; }
  std::string_view view() const { return s_; }
  operator std::string_view() const { return s_; }  // NOLINT

  BasicByteString& operator+=(BasicByteString const& o) {
    s_ += o.s_;
    return *this;
  }
  BasicByteString& operator+=(char c) {
    s_ += c;
    return *this;
  }
  friend BasicByteString operator+(BasicByteString a, BasicByteString const& b) {
    a += b;
    return a;
  }

  friend bool operator==(BasicByteString const&, BasicByteString const&) = default;
  friend std::strong_ordering operator<=>(BasicByteString const& a, BasicByteString const& b) {
    return a.s_.compare(b.s_) <=> 0;
  }

 private:
  std::string s_;
};

struct StringTag {};
struct BytesTag {};
using String = BasicByteString<StringTag>;
using Bytes = BasicByteString<BytesTag>;
using StringIter = String::const_iterator;

std::ostream& operator<<(std::ostream& os, String const& s);
// Bytes print as lower-case hex pairs: raw packet contents are rarely text.
std::ostream& operator<<(std::ostream& os, Bytes const& b);

}  // namespace Brio

template <class Tag>
struct std::hash<Brio::BasicByteString<Tag>> {
  std::size_t operator()(Brio::BasicByteString<Tag> const& s) const noexcept {
    return std::hash<std::string_view>()(s.view());
  }
};
