// Netlink helpers: sockets inside a namespace, requests and their
// acknowledgements, the bounded message walk, and readers of the address
// attributes of routing-netlink messages.
//
// Everything read from a netlink socket is outside input. The walk below
// never trusts a length field: a message shorter than its header, one that
// runs past the datagram, or an attribute that runs past its message ends
// the walk and is reported, never read. Requests are built with libmnl.
#pragma once

#include <Brio/String.h>
#include <Brio/Types.h>
#include <Corvid/EthAddr.h>
#include <Corvid/Ip.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>

namespace Corvid {

// ---- sockets -----------------------------------------------------------

// An open netlink socket, its bound address and the next request sequence.
struct netlinkHandle {
  int fd = -1;
  sockaddr_nl local{};
  U32 seq = 0;
};

// Opens a netlink socket of `protocol` inside namespace `ns`, optionally
// non-blocking, with a receive buffer of `rcvbuf` bytes when positive
// (SO_RCVBUFFORCE, falling back to SO_RCVBUF without CAP_NET_ADMIN), bound to
// multicast `groups`, and reads its address back. Raises Brio::ErrnoException
// on any failure and leaves the handle closed.
void createNetlinkSocket(netlinkHandle* h, U32 groups, char const* ns, int protocol, bool nonBlocking,
                         int rcvbuf);
// Closes the handle's descriptor; the handle holds -1 after.
void closeNetlinkSocket(netlinkHandle* h);

// Sends one request to the kernel. Raises "Cannot send netlink msg ".
void sendNetlinkMsg(netlinkHandle* h, nlmsghdr* msg);
// Sends `count` requests laid out back to back from `msgs` (each at its
// aligned length) as one datagram.
void sendNetlinkVec(netlinkHandle* h, nlmsghdr* msgs, int count);

// Reads the acknowledgement of request `seq` (blocking) and returns its
// error code: 0 for success, a negative errno as the kernel reports it.
// A short, mismatched or unexpected reply raises Brio::InternalException
// with the reason; a receive error raises Brio::ErrnoException.
int getNetlinkResponse(int fd, U32 seq);

// Sends a 20-byte dump request of `type` (RTM_GETLINK, ...) for every
// family. Raises an errno exception naming "send".
void sendNetlinkRequest(int fd, U32 seq, U16 type);

// ---- the bounded walk ----------------------------------------------------

// Walks the messages of one datagram. next() yields each whole message in
// turn and null at the end; a message whose length is below the header or
// runs past the datagram stops the walk with malformed() set and
// leftover() holding the bytes not walked.
class NetlinkMsgWalk {
 public:
  NetlinkMsgWalk(void const* data, std::size_t len) : p_(static_cast<U8 const*>(data)), left_(len) {}
  nlmsghdr const* next();
  bool malformed() const { return malformed_; }
  std::size_t leftover() const { return left_; }

 private:
  U8 const* p_;
  std::size_t left_;
  bool malformed_ = false;
};

// Walks the attributes that follow a message's fixed header of `fixedLen`
// bytes (or the payload of a nested attribute, with the second form).
// Same rules as NetlinkMsgWalk: a truncated attribute or one whose length is
// below its own header ends the walk with malformed() set.
class RtAttrWalk {
 public:
  RtAttrWalk(nlmsghdr const* msg, std::size_t fixedLen);
  RtAttrWalk(rtattr const* nested);
  rtattr const* next();
  bool malformed() const { return malformed_; }

 private:
  U8 const* p_ = nullptr;
  std::size_t left_ = 0;
  bool malformed_ = false;
};

// The payload of an attribute, and its length.
inline void const* rtaData(rtattr const* a) { return reinterpret_cast<U8 const*>(a) + RTA_LENGTH(0); }
inline std::size_t rtaPayload(rtattr const* a) { return a->rta_len - RTA_LENGTH(0); }

// ---- attribute readers -----------------------------------------------------

// getRtaAddr() for IpAddr, Ip6Addr and EthAddr lives with the address types
// (Ip.h). getGenAddr reads either family by `family` (AF_INET or AF_INET6);
// false for any other family or a payload too short for the address.
bool getGenAddr(rtattr const* a, U8 family, IpGenAddr* out);
// "NDA_CACHEINFO:\nconfirmed=C used=U updated=UP refcnt=R"; empty for a
// payload of the wrong length.
Brio::String getCacheInfo(rtattr const* a);

// ---- link configuration ------------------------------------------------------

// Installs the "prio" queueing discipline (three bands, the kernel's default
// priority map) as the root qdisc of `ifname`, in the caller's namespace.
void addPrioQdisc(char const* ifname);
// Sets or clears (group 0) a link's device group.
void setDeviceGroup(netlinkHandle* h, int ifindex, U32 group);
void delDeviceGroup(netlinkHandle* h, int ifindex);

}  // namespace Corvid
