#include <Corvid/PktSocket.h>

#include <Brio/Exception.h>
#include <Fennel/Fennel.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Corvid {

PktSocket::PktSocket(Brio::String const& name)
    : fileDescriptor_(Brio::FileDescriptor::fileDescriptorFactory(name)), pktManager_(globalPktManager()) {}

void PktSocket::descriptorIs(int fd) { fileDescriptor_->descriptorIs(fd); }

msghdr pktMsghdr(Pkt const& pkt, void* name, socklen_t nameLen) {
  msghdr msg{};
  msg.msg_name = name;
  msg.msg_namelen = name ? nameLen : 0;
  // sendmsg only reads the iovecs; the const_cast is the C interface's.
  msg.msg_iov = const_cast<iovec*>(pkt.ioVecs());
  msg.msg_iovlen = pkt.ioVecCount();
  return msg;
}

ssize_t PktSocket::recvfrom(int fd, void* buf, size_t len, int flags, sockaddr* from, socklen_t* fromLen) {
  return ::recvfrom(fd, buf, len, flags, from, fromLen);
}

ssize_t PktSocket::sendmsg(Brio::Ptr<Pkt> const& pkt, sockaddr_in const& to) {
  sockaddr_in dst = to;
  dst.sin_family = AF_INET;
  msghdr msg = pktMsghdr(*pkt, &dst, sizeof dst);
  return ::sendmsg(descriptor(), &msg, 0);
}

// Most owners drop each packet before the next read. The last packet is
// then referenced by this socket alone; when its buffer is not shared either
// and nothing but shared data was changed on it (no private head bytes,
// offsets or separate tag, the buffer not grown, the default size unchanged),
// emptying its buffer makes it exactly what newPkt() would return, without
// making and dropping a packet and its buffer per datagram (about half of
// a datagram's user-space instructions, measured with callgrind on PamBench).
Brio::Ptr<Pkt> PktSocket::unsharedLastPkt() {
  Pkt* const p = lastPkt_.ptr();
  if (!p || p->references() != 1 || p->firstIoVec() != 1 || p->sharedBuffer()->references() != 1 ||
      p->maxSharedData() != pktManager_->defaultBufferSize() || p->beginOffset() != 0 || p->endOffset() != 0 ||
      p->tciPresent() || p->tciField() != 0 || p->vlanTpid() != 0) {
    return nullptr;
  }
  p->resetSharedData();
  return lastPkt_;
}

Brio::Ptr<Pkt> PktSocket::recvPkt(sockaddr_in* from) {
  Brio::Ptr<Pkt> pkt = unsharedLastPkt();
  if (!pkt) {
    pkt = pktManager_->newPkt();
    if (!pkt) throw Brio::MemoryException("Unable to allocate Pkt");
    lastPkt_ = pkt;
  }
  U32 const size = pkt->maxSharedData();
  pkt->newSharedHeadData(size);
  FENNEL_ASSERT(fileDescriptor_->nonBlocking());
  socklen_t length = sizeof(sockaddr_in);
  ssize_t n = recvfrom(descriptor(), pkt->ioVecs()[0].iov_base, size, 0, reinterpret_cast<sockaddr*>(from),
                       from ? &length : nullptr);
  if (n < 0) {
    if (errno == EAGAIN) return nullptr;
    // Interrupted reads are not expected on a non-blocking socket.
    FENNEL_ASSERT(errno != EINTR);
    int error = errno;
    std::fprintf(stderr, " error is  %d %s\n", error, std::strerror(error));
    throw Brio::ErrnoException("recvfrom", error);
  }
  // Deliberately the same text for every PktSocket, tap or not.
  if (n == 0) throw Brio::InternalException("read from tap socket returned 0");
  pkt->delSharedTailData(size - static_cast<U32>(n));
  return pkt;
}

int PktSocket::sendPkt(Brio::Ptr<Pkt> const& pkt, sockaddr_in const& to) {
  ssize_t n = sendmsg(pkt, to);
  if (n >= 0 || errno == EAGAIN) return static_cast<int>(n);
  int error = errno;
  std::fprintf(stderr, "error sending pkt:%d %s\n", error, std::strerror(error));
  throw Brio::ErrnoException("sendmsg", error);
}

}  // namespace Corvid
