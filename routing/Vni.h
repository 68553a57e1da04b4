// VXLAN network identifiers (RFC 7348 section 5: a 24-bit segment id).
//
// Vxlan::Vni is a VNI proper, 0 to 16777215. Vxlan::VniOrNone widens it by
// one value, 16777216 (0x1000000), meaning "no VNI" (and is that by
// default), printed and read as "none". Vxlan::VniExt qualifies a VNI with
// an 8-bit domain for gateways that join VXLAN domains whose VNI spaces
// overlap: value = domain << 24 | vni, domains 0 to 254 (255 is kept back
// as a marker), written "vni" for domain 0 and "domain:vni" otherwise. All
// three are four-byte trivially copyable values.
#pragma once

#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <iosfwd>
#include <type_traits>

namespace Vxlan {

class Vni : public Corvid::BoundedInteger<Vni, U32, 0, 0xffffff> {
 public:
  static constexpr char rangeMessage[] = "Vni::value < Vni::min or > Vni::max not allowed";
  static constexpr char textMessage[] = "Invalid Vni";
  using BoundedInteger::BoundedInteger;
};

class VniOrNone : public Corvid::BoundedInteger<VniOrNone, U32, 0, 0x1000000, 0x1000000> {
 public:
  static constexpr U32 none = 0x1000000;
  static constexpr char rangeMessage[] = "VniOrNone::value < 0 or > 0x1000000 not allowed";
  static constexpr char textMessage[] = "Invalid VniOrNone";
  using BoundedInteger::BoundedInteger;
  VniOrNone(Vni vni) : BoundedInteger(vni.value()) {}  // NOLINT: every VNI is one

  bool isNone() const { return value() == none; }
  // Raises "Invalid VniOrNone" when there is none.
  Vni vni() const;
};

// "none" or the decimal VNI.
Brio::String valueToStrep(VniOrNone const& v);
VniOrNone sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, VniOrNone*);
std::ostream& operator<<(std::ostream& os, VniOrNone const& v);

class VniExt : public Corvid::BoundedInteger<VniExt, U32, 0, 0xfeffffff> {
 public:
  static constexpr char rangeMessage[] = "VniExt::value < VniExt::min or > VniExt::max not allowed";
  static constexpr char textMessage[] = "Invalid VniExt String";
  static constexpr U32 maxDomain = 254;
  using BoundedInteger::BoundedInteger;
  VniExt(U8 domain, Vni vni) : BoundedInteger(U32(domain) << 24 | vni.value()) {}

  U8 domain() const { return static_cast<U8>(value() >> 24); }
  Vni vni() const { return Vni(value() & 0xffffff); }
};

// "10000" in domain 0, "2:10000" otherwise. The reader raises
// "Invalid VniExt String" for malformed text, the VNI's own message for a
// VNI above 16777215 and the VniExt range message for domain 255.
Brio::String valueToStrep(VniExt const& v);
VniExt sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, VniExt*);
std::ostream& operator<<(std::ostream& os, VniExt const& v);

static_assert(std::is_trivially_copyable_v<Vni> && sizeof(Vni) == 4);
static_assert(std::is_trivially_copyable_v<VniExt> && sizeof(VniExt) == 4);

}  // namespace Vxlan

CORVID_STD_HASH(Vxlan::Vni);
CORVID_STD_HASH(Vxlan::VniOrNone);
CORVID_STD_HASH(Vxlan::VniExt);
