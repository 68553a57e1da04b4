// Typed decoding of the routing-netlink messages a NetlinkNetNsSm delivers:
// links, interface addresses and neighbours, into the library's value types.
//
// The watcher hands its client raw messages; an agent's callback passes
// each to decodeRtnl() and switches on the kind, so no agent walks
// attributes by hand. Decoding is bounds-checked like every read of kernel
// bytes: a fixed header or attribute that does not fit its message gives
// `malformed`, never a read past the message. Attributes the decoder does
// not know are skipped, so newer kernels do not break older agents.
// Cost: one pass over the attributes, no allocation except a link's name.
#pragma once

#include <Brio/String.h>
#include <Corvid/EthAddr.h>
#include <Corvid/IntfId.h>
#include <Corvid/Ip.h>
#include <linux/netlink.h>

#include <iosfwd>

namespace Corvid {

// RTM_NEWLINK / RTM_DELLINK.
struct RtnlLink {
  S32 ifIndex = 0;
  IntfId name;
  EthAddr mac;        // zero for links without a hardware address (lo)
  U32 flags = 0;      // IFF_* bits
  U32 mtu = 0;
  U8 operState = 0;   // IF_OPER_* (RFC 2863)
  S32 master = 0;     // ifindex of the enslaving device (a VRF, a bridge), 0 if none
  bool up() const;
};

// RTM_NEWADDR / RTM_DELADDR: the interface address with its prefix length.
struct RtnlAddr {
  S32 ifIndex = 0;
  IpGenAddrWithMask addr;
  U8 scope = 0;       // RT_SCOPE_*
  U32 flags = 0;      // IFA_F_*
  Brio::String label; // IFA_LABEL, IPv4 only
};

// RTM_NEWNEIGH / RTM_DELNEIGH.
struct RtnlNeigh {
  S32 ifIndex = 0;
  IpGenAddr addr;     // ipunknown for bridge forwarding entries (AF_BRIDGE)
  EthAddr mac;
  bool hasMac = false;
  U16 state = 0;      // NUD_* bits
  U8 flags = 0;       // NTF_* bits
};

struct RtnlMessage {
  enum class Kind : U8 { other, link, addr, neigh, malformed };
  Kind kind = Kind::other;
  bool deleted = false;  // a DEL message
  RtnlLink link;
  RtnlAddr addr;
  RtnlNeigh neigh;
};

// Decodes one message. Types other than the six above give Kind::other.
RtnlMessage decodeRtnl(nlmsghdr const* msg);

// The neighbour state as `ip neigh` prints it ("REACHABLE", "PERMANENT",
// "STALE", ...; several bits joined by "|"; "NONE" for 0).
Brio::String neighStateText(U16 state);

// One line per message, in the spirit of `ip monitor`:
//   "link add 3 eth0 aa:bb:cc:00:00:01 mtu 1500 up"
//   "addr del 3 10.0.0.1/24"
//   "neigh add 3 10.0.0.2 lladdr aa:bb:cc:00:00:02 REACHABLE"
// Interface indices stay numbers: the decoder keeps no name table.
std::ostream& operator<<(std::ostream& os, RtnlMessage const& m);

}  // namespace Corvid
