#include <Corvid/ArpWrapper.h>
#include <Corvid/NetlinkUtils.h>
#include <linux/neighbour.h>
#include <sys/socket.h>

#include <cstring>

namespace Arp {

namespace {

U32 nextSeq() {
  static U32 seq = 0;
  return ++seq;
}

// The request up to and including NDA_DST; the add appends NDA_LLADDR.
struct Request {
  nlmsghdr hdr;
  ndmsg ndm;
  rtattr dstAttr;
  U8 dst[16];
  rtattr llAttr;
  U8 lladdr[6];
  U8 pad[2];
};
static_assert(offsetof(Request, llAttr) == 48 && sizeof(Request) == 60);

U32 send(int fd, U16 type, U16 flags, U32 ifIndex, Corvid::Ip6Addr const& addr, Corvid::EthAddr const* mac,
         NeighState state) {
  Request req{};
  req.hdr.nlmsg_len = mac ? 60 : 48;
  req.hdr.nlmsg_type = type;
  req.hdr.nlmsg_flags = flags;
  req.hdr.nlmsg_seq = nextSeq();
  req.ndm.ndm_family = AF_INET6;
  req.ndm.ndm_ifindex = static_cast<int>(ifIndex);
  switch (state) {
    case NeighState::permanent: req.ndm.ndm_state = NUD_PERMANENT; break;
    case NeighState::stale: req.ndm.ndm_state = NUD_STALE; break;
    case NeighState::reachable: req.ndm.ndm_state = NUD_REACHABLE; break;
    case NeighState::use:
      req.ndm.ndm_state = 0;
      req.ndm.ndm_flags = NTF_USE;
      break;
  }
  req.dstAttr.rta_len = RTA_LENGTH(16);
  req.dstAttr.rta_type = NDA_DST;
  std::memcpy(req.dst, addr.bytes(), 16);
  if (mac) {
    req.llAttr.rta_len = RTA_LENGTH(6);
    req.llAttr.rta_type = NDA_LLADDR;
    mac->copyToBuffer(req.lladdr);
  }
  Corvid::netlinkHandle h;
  h.fd = fd;
  Corvid::sendNetlinkMsg(&h, &req.hdr);
  return req.hdr.nlmsg_seq;
}

}  // namespace

U32 ip6NeighAdd(int fd, U32 ifIndex, Corvid::Ip6Addr addr, Corvid::EthAddr mac, NeighState state) {
  return send(fd, RTM_NEWNEIGH, NLM_F_REQUEST | NLM_F_ACK | NLM_F_REPLACE | NLM_F_CREATE, ifIndex, addr, &mac, state);
}

U32 ip6NeighDel(int fd, U32 ifIndex, Corvid::Ip6Addr addr, NeighState state) {
  return send(fd, RTM_DELNEIGH, NLM_F_REQUEST | NLM_F_ACK, ifIndex, addr, nullptr, state);
}

}  // namespace Arp
