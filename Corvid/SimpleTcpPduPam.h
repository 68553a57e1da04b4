// SimpleTcpPduPam: the library's own PDU framing on a TcpPduPam.
//
// Every PDU starts with a fixed 20-byte header whose bytes 2 and 3 carry
// the length of the whole PDU, header included, big-endian. The other
// header bytes belong to the protocol above and are passed through.
//
//   0       2       4                                   20
//   +-------+-------+-----------------------------------+------------
//   | (any) | length|            (any)                  | body ...
//   +-------+-------+-----------------------------------+------------
//
// A length above maxPduLength is refused ("PDU length too big") and so is
// one below 20 ("PDU length too small"): the stream cannot be resynchronised
// after either, so the endpoint stops reading and the owner drops it.
#pragma once

#include <Corvid/TcpPduPam.h>

namespace Corvid {

class SimpleTcpPduPam : public TcpPduPam {
 public:
  static constexpr U16 headerLength = 20;

  // Writes the length field of a PDU header (bytes 2 and 3).
  static void pduLengthIs(U8* header, U16 length) {
    header[2] = static_cast<U8>(length >> 8);
    header[3] = static_cast<U8>(length);
  }

 protected:
  SimpleTcpPduPam(Brio::Ptr<TcpFileDescriptor const> const& fd,
                  Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdFactory)
      : TcpPduPam(fd, fdFactory, "SimpleTcpPduPam") {}
  ~SimpleTcpPduPam() override = default;

  U16 getPduSize() override;

 private:
  friend Brio::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
      Brio::Ptr<TcpFileDescriptor const> const&, Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const&);
};

Brio::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
    Brio::Ptr<TcpFileDescriptor const> const& fd,
    Brio::Ptr<TcpFileDescriptorEventRegistrationFactory> const& fdFactory);

}  // namespace Corvid
