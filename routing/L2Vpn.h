// Layer-2 VPN identifiers.
//
// Routing::L2Vpn::PwId is the pseudowire id of a point-to-point service
// (RFC 4447 section 5.2): a non-zero 32-bit number; zero is refused, and
// the default is 1. A four-byte value with decimal text, order and hash
// (see BoundedInteger).
#pragma once

#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

namespace Routing::L2Vpn {

class PwId : public Corvid::BoundedInteger<PwId, U32, 1, 0xffffffff> {
 public:
  static constexpr char rangeMessage[] = "PwId::value < PwId::min or > PwId::max not allowed";
  static constexpr char textMessage[] = "Invalid PwId";
  using BoundedInteger::BoundedInteger;
};

}  // namespace Routing::L2Vpn

CORVID_STD_HASH(Routing::L2Vpn::PwId);
