// DatagramPam: an endpoint for UDP datagrams over IPv4, on a PktSocket.
//
// Enabled, it binds a non-blocking UDP socket to (localAddr, localPort);
// port 0 lets the kernel choose, and boundPort() tells which it chose. Each
// rxPkt() returns one datagram (truncated to the 1536-byte default buffer
// by the kernel when longer) and records its sender in rxSource. A zero-
// length datagram or a failed read counts in rxErrors and reading goes on
// with the next datagram. txPktIs() sends to txDestination: EAGAIN and
// sending while disabled count as txDrops, other failures as txErrors with
// txErrno; none is thrown.
#pragma once

#include <Corvid/DescriptorPam.h>
#include <Corvid/Ip.h>
#include <Corvid/PktSocket.h>

namespace Corvid {

class DatagramPam : public DescriptorPam {
 public:
  static Brio::Ptr<DatagramPam> datagramPamFactory(Brio::String name, IpAddr localAddr, U16 localPort);

  IpAddr localAddr() const { return localAddr_; }
  U16 localPort() const { return localPort_; }
  // The port the socket is bound to while enabled; 0 otherwise.
  U16 boundPort() const;

  IpAddr txDestinationAddr() const { return txAddr_; }
  U16 txDestinationPort() const { return txPort_; }
  void txDestinationIs(IpAddr addr, U16 port) {
    txAddr_ = addr;
    txPort_ = port;
  }
  // Sender of the last packet rxPkt() returned.
  IpAddr rxSourceAddr() const { return rxAddr_; }
  U16 rxSourcePort() const { return rxPort_; }

  PktSocket* socket() const { return socket_.ptr(); }

 protected:
  DatagramPam(Brio::String name, IpAddr localAddr, U16 localPort);

  Brio::Ptr<Brio::FileDescriptor> descriptorOpen() override;
  void descriptorClose() override { socket_ = nullptr; }
  void doGetRxPkt() override;
  void txPktIsImpl(Brio::Ptr<Pkt> const& pkt) override;

 private:
  IpAddr localAddr_;
  U16 localPort_;
  IpAddr txAddr_;
  U16 txPort_ = 0;
  IpAddr rxAddr_;
  U16 rxPort_ = 0;
  Brio::Ptr<PktSocket> socket_;
};

}  // namespace Corvid
