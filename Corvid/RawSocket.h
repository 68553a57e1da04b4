// Raw sockets under the raw endpoints: RawSocket (sending to an IPv4
// destination, socket buffer sizes), EthSocket (a packet socket bound to one
// Ethernet interface) and IpSocket (a raw IPv4 socket), made by a
// RawSocket::Manager entity.
//
// Every failed system call raises Brio::ErrnoException carrying errno, except
// EAGAIN on send, which returns the negative result silently; nothing is
// retried. A socket whose constructor threw is not to be used. The quirks
// below are kept on purpose because existing agents and their captures
// depend on them:
// - EthSocket opens its packet socket with the protocol number unconverted
//   (3 for "all"); the bind that follows sets the protocol that matters,
//   IPv4 (0x0800), so an EthSocket receives IPv4 frames only.
// - EthSocket asks for the interface index on a second datagram socket that
//   it never closes: one extra descriptor per EthSocket for the process's
//   life.
// - IpSocket::bind puts the protocol number, in network order, in the port
//   field of the address.
#pragma once

#include <Corvid/Ip.h>
#include <Corvid/PktSocket.h>

namespace Corvid {

// An IP or Ethernet protocol number; 0xFFFF means all protocols.
using Protocol = U16;
constexpr Protocol protocolAll = 0xFFFF;

class RawSocket : public PktSocket {
 public:
  class Manager;

  RawSocket(Brio::String const& name, Protocol protocol) : PktSocket(name), protocol_(protocol) {}
  Protocol protocol() const { return protocol_; }

  using PktSocket::sendPkt;
  // One sendmsg to dst (port 0); the byte count, or the negative result on
  // EAGAIN.
  int sendPkt(Brio::Ptr<Pkt> const& pkt, IpAddr dst);

  U32 sendBufSize() const;
  void setSendBufSize(U32 bytes);
  U32 recvBufSize() const;
  void setRecvBufSize(U32 bytes);

 protected:
  void openDescriptor(int domain, int type, int protocol);

 private:
  Protocol protocol_;
};

class EthSocket : public RawSocket {
 public:
  EthSocket(Brio::String const& name, Brio::String const& intf, Protocol protocol);

  Brio::String const& intf() const { return intf_; }
  U32 ifIndex() const { return ifIndex_; }
  EthAddr const& hwAddr() const { return hwAddr_; }

  // Sends one whole frame on the bound interface; the byte count, or the
  // negative result on EAGAIN.
  int sendFrame(Brio::Ptr<Pkt> const& frame);

 private:
  Brio::String intf_;
  U32 ifIndex_ = 0;
  EthAddr hwAddr_;
};

class IpSocket : public RawSocket {
 public:
  // Bit 0: the caller builds the IP header itself (IP_HDRINCL).
  using Options = U32;
  static constexpr Options optionHeaderIncluded = 1;

  IpSocket(Brio::String const& name, Protocol protocol, Options options);

  U16 ipProtocol() const { return ipProtocol_; }
  Options options() const { return options_; }
  void bind(IpAddr addr);
  Brio::String const& device() const { return device_; }
  // Ties the socket to a device; an empty name unties it.
  void deviceIs(Brio::String const& name);

 private:
  U16 ipProtocol_;
  Options options_;
  Brio::String device_;
};

class RawSocket::Manager : public Brio::Entity {
 public:
  explicit Manager(Brio::String name) : Entity(std::move(name)) {}
  Brio::Ptr<EthSocket> newEthSocket(Brio::String const& name, Brio::String const& intf, Protocol protocol) const;
  Brio::Ptr<IpSocket> newIpSocket(Brio::String const& name, Protocol protocol, IpSocket::Options options) const;

 protected:
  ~Manager() override;
};

Brio::Ptr<RawSocket::Manager> RawSocketManagerFactory();

}  // namespace Corvid
