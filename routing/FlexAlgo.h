// Flexible-algorithm identifiers (RFC 9350).
//
// Routing::FlexAlgoId is the algorithm number of a flexible-algorithm
// definition: 128 to 255, the range RFC 9350 section 4 sets aside (0 is
// SPF, 1 strict SPF, the rest below 128 are IANA's). A one-byte value with
// decimal text, order and hash (see BoundedInteger).
#pragma once

#include <Brio/Types.h>
#include <Corvid/ValueSupport.h>

namespace Routing {

class FlexAlgoId : public Corvid::BoundedInteger<FlexAlgoId, U8, 128, 255> {
 public:
  static constexpr char rangeMessage[] = "FlexAlgoId::value < FlexAlgoId::min or > FlexAlgoId::max not allowed";
  static constexpr char textMessage[] = "Invalid FlexAlgoId";
  using BoundedInteger::BoundedInteger;
};

}  // namespace Routing

CORVID_STD_HASH(Routing::FlexAlgoId);
