// Small integer fields of IP and transport headers as value types.
//
// Port is a TCP/UDP/SCTP port number (the whole 16-bit range), IpTtl an
// IPv4 time-to-live or IPv6 hop limit (the whole 8-bit range), and IpDscp
// a differentiated-services code point (RFC 2474: the six high bits of the
// traffic-class byte, 0 to 63). Each is a trivially copyable host-order
// number with decimal text, order and hash (see BoundedInteger).
#pragma once

#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

#include <type_traits>

namespace Corvid {

class Port : public BoundedInteger<Port, U16, 0, 65535> {
 public:
  static constexpr char rangeMessage[] = "Port::value < Port::min or > Port::max not allowed";
  static constexpr char textMessage[] = "Invalid Port";
  using BoundedInteger::BoundedInteger;
};

class IpTtl : public BoundedInteger<IpTtl, U8, 0, 255, 64> {
 public:
  static constexpr char rangeMessage[] = "IpTtl::value < IpTtl::min or > IpTtl::max not allowed";
  static constexpr char textMessage[] = "Invalid IpTtl";
  // RFC 1700's recommended default, also the Linux default.
  static constexpr U8 defaultTtl = 64;
  using BoundedInteger::BoundedInteger;
};

class IpDscp : public BoundedInteger<IpDscp, U8, 0, 63> {
 public:
  static constexpr char rangeMessage[] = "IpDscp::value < IpDscp::min or > IpDscp::max not allowed";
  static constexpr char textMessage[] = "Invalid IpDscp";
  using BoundedInteger::BoundedInteger;
  // The traffic-class (former TOS) byte carrying this code point, ECN bits clear.
  constexpr U8 tosByte() const { return static_cast<U8>(value() << 2); }
};

static_assert(std::is_trivially_copyable_v<Port> && sizeof(Port) == 2);
static_assert(std::is_trivially_copyable_v<IpDscp> && sizeof(IpDscp) == 1);

}  // namespace Corvid

CORVID_STD_HASH(Corvid::Port);
CORVID_STD_HASH(Corvid::IpTtl);
CORVID_STD_HASH(Corvid::IpDscp);
