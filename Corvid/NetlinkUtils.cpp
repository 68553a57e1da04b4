#include <Corvid/NetlinkUtils.h>
#include <Corvid/NetnsUtils.h>
#include <Corvid/NsUtils.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/pkt_sched.h>
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace Corvid {

namespace {

Glimmer::Facility& tr = Glimmer::facility("Corvid");

[[noreturn]] void failWith(std::string what, int e) { failWithErrno(std::move(what), e); }

void setNonblocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) {
    int const e = errno;
    GLIMMER_TRACE(tr, 1, "setNonblocking(" << fd << ") fcntl failed due to " << std::strerror(e));
    throw Brio::ErrnoException("fcntl(F_GETFL)", e);
  }
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    int const e = errno;
    GLIMMER_TRACE(tr, 1, "setNonblocking(" << fd << ") fcntl failed due to " << std::strerror(e));
    throw Brio::ErrnoException("fcntl(F_SETFL)", e);
  }
}

// Sends `msg` on a fresh route socket of the caller's namespace and returns
// the kernel's acknowledgement code.
int requestAck(nlmsghdr* msg) {
  netlinkHandle h;
  createNetlinkSocket(&h, 0, DEFAULT_NS, NETLINK_ROUTE, false, 0);
  msg->nlmsg_seq = ++h.seq;
  int rc;
  try {
    sendNetlinkMsg(&h, msg);
    rc = getNetlinkResponse(h.fd, h.seq);
  } catch (...) {
    closeNetlinkSocket(&h);
    throw;
  }
  closeNetlinkSocket(&h);
  return rc;
}

template <class T>
bool copyPayload(rtattr const* a, T* out, std::size_t size) {
  if (a->rta_len < RTA_LENGTH(0) || rtaPayload(a) != size) return false;
  std::memcpy(out, rtaData(a), size);
  return true;
}

}  // namespace

// ---- sockets -----------------------------------------------------------

void createNetlinkSocket(netlinkHandle* h, U32 groups, char const* ns, int protocol, bool nonBlocking,
                         int rcvbuf) {
  int fd = socketAt(AF_NETLINK, SOCK_RAW, protocol, ns);
  if (fd < 0) failWith("Cannot open netlink socket: ", errno);
  GLIMMER_TRACE(tr, 5, "ns " << ns << " opened netlink socket " << fd << " for ns " << ns);
  try {
    if (nonBlocking) setNonblocking(fd);
    if (rcvbuf > 0 && setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf) != 0 &&
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf) != 0) {
      failWith("setsockopt(SO_RCVBUF): ", errno);
    }
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = groups;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) failWith("bind: ", errno);
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) failWith("getsockname: ", errno);
    if (len != sizeof addr) {
      GLIMMER_TRACE(tr, 1, "Wrong address length " << len);
      throw Brio::ErrnoException("Wrong address length " + std::to_string(len), EINVAL);
    }
    if (addr.nl_family != AF_NETLINK) {
      GLIMMER_TRACE(tr, 1, "Wrong address family " << addr.nl_family);
      throw Brio::ErrnoException("Wrong address family " + std::to_string(addr.nl_family), EINVAL);
    }
    h->local = addr;
  } catch (...) {
    close(fd);
    throw;
  }
  h->fd = fd;
}

void closeNetlinkSocket(netlinkHandle* h) {
  if (h->fd < 0) return;
  int const rc = close(h->fd);
  FENNEL_ASSERT(rc == 0);
  h->fd = -1;
}

// A netlink socket that never connected sends to the kernel (port 0), so a
// plain send() serves; it also lets tests read requests off a socket pair.
void sendNetlinkMsg(netlinkHandle* h, nlmsghdr* msg) {
  if (send(h->fd, msg, msg->nlmsg_len, 0) < 0) failWith("Cannot send netlink msg ", errno);
}

void sendNetlinkVec(netlinkHandle* h, nlmsghdr* msgs, int count) {
  std::vector<iovec> iov;
  auto* p = reinterpret_cast<U8*>(msgs);
  for (int i = 0; i < count; ++i) {
    auto* m = reinterpret_cast<nlmsghdr*>(p);
    iov.push_back({m, m->nlmsg_len});
    p += NLMSG_ALIGN(m->nlmsg_len);
  }
  msghdr mh{};
  mh.msg_iov = iov.data();
  mh.msg_iovlen = iov.size();
  if (sendmsg(h->fd, &mh, 0) < 0) failWith("Cannot send netlink msg ", errno);
}

int getNetlinkResponse(int fd, U32 seq) {
  alignas(nlmsghdr) U8 buf[NLMSG_HDRLEN + sizeof(nlmsgerr)];
  ssize_t n;
  do {
    n = recv(fd, buf, sizeof buf, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0) failWith("recv returned error : ", errno);
  auto fmt = [](auto... parts) {
    std::ostringstream os;
    (os << ... << parts);
    GLIMMER_TRACE(tr, 1, os.str());
    return os.str();
  };
  if (static_cast<std::size_t>(n) < NLMSG_HDRLEN) {
    throw Brio::InternalException(
        fmt("incomplete netlink response, expecting at least ", NLMSG_HDRLEN, ", saw ", n));
  }
  auto const* hdr = reinterpret_cast<nlmsghdr const*>(buf);
  if (hdr->nlmsg_seq != seq) {
    throw Brio::InternalException(fmt("netlink sequence number mismatch, expecting ", seq, ", saw ", hdr->nlmsg_seq));
  }
  if (hdr->nlmsg_type != NLMSG_ERROR) {
    throw Brio::InternalException(fmt("got unexpected message type ", hdr->nlmsg_type));
  }
  if (static_cast<std::size_t>(n) < NLMSG_HDRLEN + sizeof(int)) {
    throw Brio::InternalException(
        fmt("incomplete NLMSG_ERROR response, expecting at least ", NLMSG_HDRLEN + sizeof(int), ", saw ", n));
  }
  int code;
  std::memcpy(&code, buf + NLMSG_HDRLEN, sizeof code);
  return code;
}

void sendNetlinkRequest(int fd, U32 seq, U16 type) {
  struct {
    nlmsghdr hdr;
    rtgenmsg gen;
    U8 pad[3];
  } req{};
  static_assert(sizeof req == 20);
  req.hdr.nlmsg_len = sizeof req;
  req.hdr.nlmsg_type = type;
  req.hdr.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  req.hdr.nlmsg_seq = seq;
  req.gen.rtgen_family = AF_UNSPEC;
  if (send(fd, &req, sizeof req, 0) < 0) throwErrnoException("send");
}

// ---- the bounded walk ----------------------------------------------------

nlmsghdr const* NetlinkMsgWalk::next() {
  if (left_ == 0 || malformed_) return nullptr;
  auto const* m = reinterpret_cast<nlmsghdr const*>(p_);
  if (left_ < sizeof(nlmsghdr) || m->nlmsg_len < sizeof(nlmsghdr) || m->nlmsg_len > left_) {
    malformed_ = true;
    return nullptr;
  }
  std::size_t const step = NLMSG_ALIGN(m->nlmsg_len);
  std::size_t const take = step < left_ ? step : left_;
  p_ += take;
  left_ -= take;
  return m;
}

RtAttrWalk::RtAttrWalk(nlmsghdr const* msg, std::size_t fixedLen) {
  std::size_t const start = NLMSG_HDRLEN + NLMSG_ALIGN(fixedLen);
  if (msg->nlmsg_len < start) {
    malformed_ = msg->nlmsg_len < NLMSG_HDRLEN + fixedLen;
    return;
  }
  p_ = reinterpret_cast<U8 const*>(msg) + start;
  left_ = msg->nlmsg_len - start;
}

RtAttrWalk::RtAttrWalk(rtattr const* nested) {
  p_ = static_cast<U8 const*>(rtaData(nested));
  left_ = rtaPayload(nested);
}

rtattr const* RtAttrWalk::next() {
  if (left_ == 0 || malformed_) return nullptr;
  auto const* a = reinterpret_cast<rtattr const*>(p_);
  if (left_ < sizeof(rtattr) || a->rta_len < sizeof(rtattr) || a->rta_len > left_) {
    malformed_ = true;
    return nullptr;
  }
  std::size_t const step = RTA_ALIGN(a->rta_len);
  std::size_t const take = step < left_ ? step : left_;
  p_ += take;
  left_ -= take;
  return a;
}

// ---- attribute readers -----------------------------------------------------

bool getGenAddr(rtattr const* a, U8 family, IpGenAddr* out) {
  if (family == AF_INET) {
    IpAddr v4;
    if (!getRtaAddr(a, &v4)) return false;
    *out = IpGenAddr(v4);
    return true;
  }
  if (family == AF_INET6) {
    Ip6Addr v6;
    if (!getRtaAddr(a, &v6)) return false;
    *out = IpGenAddr(v6);
    return true;
  }
  return false;
}

Brio::String getCacheInfo(rtattr const* a) {
  nda_cacheinfo ci;
  if (!copyPayload(a, &ci, sizeof ci)) return Brio::String();
  std::ostringstream os;
  os << "NDA_CACHEINFO:\nconfirmed=" << ci.ndm_confirmed << " used=" << ci.ndm_used << " updated=" << ci.ndm_updated
     << " refcnt=" << ci.ndm_refcnt;
  return Brio::String(os.str());
}

// ---- link configuration ------------------------------------------------------

void addPrioQdisc(char const* ifname) {
  int const ifIndex = static_cast<int>(if_nametoindex(ifname));
  FENNEL_ASSERT(ifIndex > 0);
  alignas(nlmsghdr) char buf[512];
  nlmsghdr* msg = mnl_nlmsg_put_header(buf);
  msg->nlmsg_type = RTM_NEWQDISC;
  msg->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE;
  auto* tc = static_cast<tcmsg*>(mnl_nlmsg_put_extra_header(msg, sizeof(tcmsg)));
  tc->tcm_family = AF_UNSPEC;
  tc->tcm_ifindex = ifIndex;
  tc->tcm_handle = TC_H_MAKE(1U << 16, 0);
  tc->tcm_parent = TC_H_ROOT;
  mnl_attr_put_strz(msg, TCA_KIND, "prio");
  tc_prio_qopt opt{};
  opt.bands = 3;
  static constexpr U8 defaultPriomap[TC_PRIO_MAX + 1] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
  std::memcpy(opt.priomap, defaultPriomap, sizeof opt.priomap);
  mnl_attr_put(msg, TCA_OPTIONS, sizeof opt, &opt);
  GLIMMER_TRACE(tr, 5, "Sending netlink request for" << " prio qdisc on " << ifname);
  int const rc = requestAck(msg);
  GLIMMER_TRACE(tr, 5, "Netlink request returned " << rc);
  if (rc != 0) failWith(std::string("addPrioQdisc ") + ifname + ": ", -rc);
}

void setDeviceGroup(netlinkHandle* h, int ifindex, U32 group) {
  alignas(nlmsghdr) char buf[256];
  nlmsghdr* msg = mnl_nlmsg_put_header(buf);
  msg->nlmsg_type = RTM_NEWLINK;
  msg->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  msg->nlmsg_seq = ++h->seq;
  auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(msg, sizeof(ifinfomsg)));
  ifi->ifi_family = AF_UNSPEC;
  ifi->ifi_index = ifindex;
  mnl_attr_put_u32(msg, IFLA_GROUP, group);
  sendNetlinkMsg(h, msg);
  int const rc = getNetlinkResponse(h->fd, h->seq);
  if (rc != 0) failWith("setDeviceGroup: ", -rc);
}

void delDeviceGroup(netlinkHandle* h, int ifindex) { setDeviceGroup(h, ifindex, 0); }

}  // namespace Corvid
