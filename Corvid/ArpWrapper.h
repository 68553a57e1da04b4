// Installing and removing IPv6 neighbours in the kernel over routing netlink,
// for agents that resolve neighbours themselves (the kernel's own
// neighbour discovery then keeps the entry, or probes it, by state).
//
// Each call sends one request on the caller's netlink descriptor (a
// NETLINK_ROUTE socket, possibly opened in another namespace) and returns
// its sequence number; the kernel acknowledges it (NLM_F_ACK), and the
// caller reads that acknowledgement with getNetlinkResponse(fd, seq) or
// from its event loop. Raises Brio::ErrnoException when the send fails.
#pragma once

#include <Corvid/EthAddr.h>
#include <Corvid/Ip.h>

namespace Arp {

// The neighbour state to install: permanent (NUD_PERMANENT), stale
// (NUD_STALE: the kernel re-confirms before use), reachable (NUD_REACHABLE),
// or use (no state, NTF_USE: the kernel resolves the address itself).
enum class NeighState : U8 { permanent = 0, stale = 1, reachable = 2, use = 3 };

// RTM_NEWNEIGH with NLM_F_REQUEST | NLM_F_ACK | NLM_F_REPLACE | NLM_F_CREATE:
// 60 bytes, the address (NDA_DST) and the MAC (NDA_LLADDR).
U32 ip6NeighAdd(int fd, U32 ifIndex, Corvid::Ip6Addr addr, Corvid::EthAddr mac, NeighState state);
// RTM_DELNEIGH with NLM_F_REQUEST | NLM_F_ACK: 48 bytes, the address only.
U32 ip6NeighDel(int fd, U32 ifIndex, Corvid::Ip6Addr addr, NeighState state);

}  // namespace Arp
