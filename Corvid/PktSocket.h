// PktSocket: the thin non-blocking datagram socket under several endpoints.
//
// It owns its descriptor through a Brio::FileDescriptor (made with the
// socket's name) and makes packets with the process-wide Pkt::Manager.
// recvPkt() reads one datagram into a fresh default-size packet with no copy;
// sendPkt() hands a packet's iovecs (one or two) to the kernel in one
// sendmsg. EAGAIN is silent on both paths; other failures write one line to
// standard error and raise Brio::ErrnoException. The raw system-call wrappers
// are virtual so a tap variant can replace them.
#pragma once

#include <Brio/Exception.h>
#include <Brio/FileDescriptor.h>
#include <Corvid/Pkt.h>

#include <netinet/in.h>
#include <sys/socket.h>

namespace Corvid {

class PktSocket : public Brio::PtrInterface {
 public:
  explicit PktSocket(Brio::String const& name);

  Brio::Ptr<Brio::FileDescriptor> const& fileDescriptor() const { return fileDescriptor_; }
  int descriptor() const { return fileDescriptor_->descriptor(); }
  // Closes the descriptor held so far (when valid), then takes fd.
  void descriptorIs(int fd);

  // One datagram into a new packet whose data starts at the buffer's front;
  // null when nothing waits (EAGAIN). `from` receives the sender. The packet
  // of the previous read is read into again when nothing else holds it or
  // its buffer and it is still as newPkt() makes it (see unsharedLastPkt).
  virtual Brio::Ptr<Pkt> recvPkt(sockaddr_in* from);
  // Sends one packet to `to`; returns the byte count, or the negative result
  // on EAGAIN (nothing reported).
  virtual int sendPkt(Brio::Ptr<Pkt> const& pkt, sockaddr_in const& to);

  virtual ssize_t recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from, socklen_t* fromLen);
  virtual ssize_t sendmsg(Brio::Ptr<Pkt> const& pkt, sockaddr_in const& to);

 protected:
  ~PktSocket() override = default;

  Brio::Ptr<Brio::FileDescriptor> fileDescriptor_;
  Brio::Ptr<Pkt::Manager> pktManager_;

 private:
  Brio::Ptr<Pkt> unsharedLastPkt();

  Brio::Ptr<Pkt> lastPkt_;
};

// A msghdr naming `name` (may be null) whose scatter list is the packet's
// valid iovecs; shared by every sender of whole packets.
msghdr pktMsghdr(Pkt const& pkt, void* name, socklen_t nameLen);

}  // namespace Corvid
