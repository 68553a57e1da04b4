// An address qualified by its VRF: the key of per-VRF address tables.
//
// L3::VrfNameAndIp holds a VRF name and an IPv4 address, L3::VrfNameAndIpGen
// a VRF name and an address of either family. Both order, compare and hash
// by their fields in declaration order and use the record strep, e.g.
// "Value('L3::VrfNameAndIp', ** {'vrfName': 'blue', 'ipAddr': 10.0.0.1})".
// They own the VRF name's String; copies allocate only for long names.
#pragma once

#include <Brio/NboAttrLog.h>
#include <Brio/Record.h>
#include <Corvid/Ip.h>
#include <Corvid/VrfName.h>

#include <compare>

namespace L3 {

class VrfNameAndIp {
 public:
  VrfNameAndIp() = default;
  VrfNameAndIp(VrfName vrfName, Corvid::IpAddr ipAddr) : vrfName_(std::move(vrfName)), ipAddr_(ipAddr) {}

  VrfName const& vrfName() const { return vrfName_; }
  void vrfNameIs(VrfName v) { vrfName_ = std::move(v); }
  Corvid::IpAddr ipAddr() const { return ipAddr_; }
  void ipAddrIs(Corvid::IpAddr v) { ipAddr_ = v; }

  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(vrfName_.hash(seed)).mix(ipAddr_.hash()).result(); }
  friend bool operator==(VrfNameAndIp const&, VrfNameAndIp const&) = default;
  friend std::strong_ordering operator<=>(VrfNameAndIp const&, VrfNameAndIp const&) = default;

 private:
  VrfName vrfName_;
  Corvid::IpAddr ipAddr_;
};

class VrfNameAndIpGen {
 public:
  VrfNameAndIpGen() = default;
  VrfNameAndIpGen(VrfName vrfName, Corvid::IpGenAddr ipGenAddr)
      : vrfName_(std::move(vrfName)), ipGenAddr_(ipGenAddr) {}

  VrfName const& vrfName() const { return vrfName_; }
  void vrfNameIs(VrfName v) { vrfName_ = std::move(v); }
  Corvid::IpGenAddr const& ipGenAddr() const { return ipGenAddr_; }
  void ipGenAddrIs(Corvid::IpGenAddr const& v) { ipGenAddr_ = v; }

  U32 hash(U32 seed = 0) const {
    return Brio::Hash(seed).mix(vrfName_.hash(seed)).mix(ipGenAddr_.hash(seed)).result();
  }
  friend bool operator==(VrfNameAndIpGen const&, VrfNameAndIpGen const&) = default;
  friend std::strong_ordering operator<=>(VrfNameAndIpGen const&, VrfNameAndIpGen const&) = default;

 private:
  VrfName vrfName_;
  Corvid::IpGenAddr ipGenAddr_;
};

inline constexpr auto vrfNameAndIpRecord =
    Brio::record<VrfNameAndIp>("L3::VrfNameAndIp", Brio::field("vrfName", &VrfNameAndIp::vrfName),
                               Brio::field("ipAddr", &VrfNameAndIp::ipAddr));
BRIO_RECORD_TEXT_FORMS(VrfNameAndIp, vrfNameAndIpRecord)

inline constexpr auto vrfNameAndIpGenRecord =
    Brio::record<VrfNameAndIpGen>("L3::VrfNameAndIpGen", Brio::field("vrfName", &VrfNameAndIpGen::vrfName),
                                  Brio::field("ipGenAddr", &VrfNameAndIpGen::ipGenAddr));
BRIO_RECORD_TEXT_FORMS(VrfNameAndIpGen, vrfNameAndIpGenRecord)

// Attribute-log forms: the name, then the address.
void attrLogWrite(Brio::NboAttrLog& log, VrfNameAndIp const& v);
VrfNameAndIp attrLogRead(Brio::NboAttrLog& log, VrfNameAndIp*);
void attrLogWrite(Brio::NboAttrLog& log, VrfNameAndIpGen const& v);
VrfNameAndIpGen attrLogRead(Brio::NboAttrLog& log, VrfNameAndIpGen*);

}  // namespace L3

CORVID_STD_HASH(L3::VrfNameAndIp);
CORVID_STD_HASH(L3::VrfNameAndIpGen);
