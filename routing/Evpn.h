// EVPN identifiers: Ethernet segment identifiers and the label field of
// EVPN routes.
//
// Evpn::Esid is the 10-byte Ethernet Segment Identifier of RFC 7432
// section 5: a type byte (0 arbitrary, 1 LACP, 2 bridge protocol, 3 MAC,
// 4 router id, 5 AS) and nine value bytes. Its text is the ten bytes like
// an Ethernet address (colon, hyphen or dotted words on input, colons on
// output). Evpn::EncapTypeLabel is an EVPN route's label field read by its
// encapsulation (RFC 8365 section 5.1.3): a 20-bit MPLS label or a 24-bit
// VNI, tagged with the BGP tunnel type (RFC 9012: VXLAN 8, MPLS 10),
// written "mpls:100" or "vxlan:10000". Both are trivially copyable.
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <array>
#include <compare>
#include <iosfwd>
#include <type_traits>

namespace Evpn {

class Esid {
 public:
  static constexpr unsigned bytes = 10;
  constexpr Esid() : bytes_{} {}
  constexpr explicit Esid(std::array<U8, bytes> const& b) : bytes_(b) {}
  // Parses the whole text like stringValueIs.
  explicit Esid(Brio::String const& text);

  U8 type() const { return bytes_[0]; }
  std::array<U8, bytes> const& byteArray() const { return bytes_; }
  // RFC 7432 section 5: all zeros is a single-homed site, all ones MAX-ESI;
  // neither names a real multihomed segment.
  bool isZero() const { return *this == Esid(); }
  bool isMax() const;

  // "00:11:22:33:44:55:66:77:88:99"
  Brio::String stringValue() const;
  // On failure raises "Invalid Esid" and keeps the old value.
  void stringValueIs(Brio::String const& text);

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mixBytes(bytes_.data(), bytes).result(); }
  friend bool operator==(Esid const&, Esid const&) = default;
  friend std::strong_ordering operator<=>(Esid const&, Esid const&) = default;

 private:
  std::array<U8, bytes> bytes_;
};

enum class EncapType : U8 { vxlan = 8, mpls = 10 };

class EncapTypeLabel {
 public:
  static constexpr char rangeMessage[] = "EncapTypeLabel::label too large for its encapsulation";
  static constexpr char textMessage[] = "Invalid EncapTypeLabel";

  // mpls:0
  constexpr EncapTypeLabel() : encapType_(EncapType::mpls), label_(0) {}
  // Raises rangeMessage for a label above 1048575 (mpls) or 16777215 (vxlan).
  EncapTypeLabel(EncapType encapType, U32 label);

  EncapType encapType() const { return encapType_; }
  U32 label() const { return label_; }

  U32 hash(U32 seed = 0) const {
    return Brio::Hash(seed).mix(static_cast<U8>(encapType_)).mix(label_).result();
  }
  friend bool operator==(EncapTypeLabel const&, EncapTypeLabel const&) = default;
  friend std::strong_ordering operator<=>(EncapTypeLabel const&, EncapTypeLabel const&) = default;

 private:
  EncapType encapType_;
  U32 label_;
};

static_assert(std::is_trivially_copyable_v<Esid> && sizeof(Esid) == 10);
static_assert(std::is_trivially_copyable_v<EncapTypeLabel>);

Brio::String valueToStrep(Esid const& v);
Esid sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, Esid*);
std::ostream& operator<<(std::ostream& os, Esid const& v);
// "mpls:100", "vxlan:10000"
Brio::String valueToStrep(EncapTypeLabel const& v);
EncapTypeLabel sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, EncapTypeLabel*);
std::ostream& operator<<(std::ostream& os, EncapTypeLabel const& v);

// Attribute-log forms: the ten bytes; the tunnel type (U8) and label (U32).
void attrLogWrite(Brio::NboAttrLog& log, Esid const& v);
Esid attrLogRead(Brio::NboAttrLog& log, Esid*);
void attrLogWrite(Brio::NboAttrLog& log, EncapTypeLabel const& v);
EncapTypeLabel attrLogRead(Brio::NboAttrLog& log, EncapTypeLabel*);

}  // namespace Evpn

CORVID_STD_HASH(Evpn::Esid);
CORVID_STD_HASH(Evpn::EncapTypeLabel);
