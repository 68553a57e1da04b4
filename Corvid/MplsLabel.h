// MPLS label values and label-stack indices.
//
// MplsLabel is one label widened beyond the 20 bits of the wire, so that a
// few out-of-band sentinels (no label, any label, the entropy-label
// placeholder, the labelled-unicast withdraw marker) travel in the same
// type as real labels. It is a four-byte trivially copyable value; its
// strep is the decimal number, prettyString() names the reserved values.
#pragma once

#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <type_traits>

namespace Corvid {

class MplsLabel : public BoundedInteger<MplsLabel, U32, 0, 8388608, 1048576> {
 public:
  // RFC 3032 section 2.1 reserved values and RFC 6790 section 3.
  static constexpr U32 ipv4ExplicitNull = 0;
  static constexpr U32 routerAlert = 1;
  static constexpr U32 ipv6ExplicitNull = 2;
  static constexpr U32 implicitNull = 3;
  static constexpr U32 entropyLabelIndicator = 7;
  // Labels 0-15 are reserved by RFC 3032; the first one an allocator may
  // hand out is 16.
  static constexpr U32 unassignedMin = 16;
  // The largest value a 20-bit label field can carry.
  static constexpr U32 maxValue = 1048575;
  // Sentinels, all above maxValue so they can never be confused with a
  // label from the wire. noLabel is the empty stack slot and the default.
  static constexpr U32 noLabel = 1048576;
  static constexpr U32 anyLabel = 1048577;
  // Stands for the entropy label in a stack; the real value is chosen per
  // packet by the forwarding plane.
  static constexpr U32 entropyLabel = 1048578;
  static constexpr U32 luWithdraw = 8388608;

  static constexpr char rangeMessage[] =
      "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
  static constexpr char textMessage[] = "Invalid MplsLabel";

  using BoundedInteger::BoundedInteger;

  bool isExplicitNull() const { return value() == ipv4ExplicitNull || value() == ipv6ExplicitNull; }
  // True for a value that fits the 20-bit label field.
  bool isWireLabel() const { return value() <= maxValue; }

  // "exp-null-v4(0)", "imp-null(3)", "(entropy)", "N/A", or the number.
  Brio::String prettyString() const;
};

static_assert(std::is_trivially_copyable_v<MplsLabel> && sizeof(MplsLabel) == 4);

// Index of an ordinary label slot in a bounded stack; nullValue means "no
// slot".
class MplsStackEntryIndex : public BoundedInteger<MplsStackEntryIndex, U8, 0, 7, 7> {
 public:
  static constexpr U8 nullValue = 7;
  static constexpr char rangeMessage[] =
      "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::nullValue not allowed";
  static constexpr char textMessage[] = "Invalid MplsStackEntryIndex";

  using BoundedInteger::BoundedInteger;

  bool isNull() const { return value() == nullValue; }
};

}  // namespace Corvid

CORVID_STD_HASH(Corvid::MplsLabel);
CORVID_STD_HASH(Corvid::MplsStackEntryIndex);
