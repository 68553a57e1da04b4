#include <Corvid/NetlinkDecode.h>
#include <Corvid/NetlinkUtils.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <cstring>
#include <ostream>
#include <string>

namespace Corvid {

namespace {

using Kind = RtnlMessage::Kind;

// The fixed header of a message, when it fits.
template <class T>
T const* fixedHeader(nlmsghdr const* msg) {
  if (msg->nlmsg_len < NLMSG_LENGTH(sizeof(T))) return nullptr;
  return static_cast<T const*>(NLMSG_DATA(msg));
}

bool readU32(rtattr const* a, U32* out) {
  if (rtaPayload(a) < sizeof(U32)) return false;
  std::memcpy(out, rtaData(a), sizeof(U32));
  return true;
}

// A NUL-terminated string attribute; false when the payload holds no NUL.
bool readString(rtattr const* a, Brio::String* out) {
  auto const* p = static_cast<char const*>(rtaData(a));
  std::size_t const n = rtaPayload(a);
  void const* nul = std::memchr(p, '\0', n);
  if (!nul) return false;
  *out = Brio::String(std::string(p, static_cast<char const*>(nul) - p));
  return true;
}

Kind decodeLink(nlmsghdr const* msg, RtnlLink* out) {
  auto const* ifi = fixedHeader<ifinfomsg>(msg);
  if (!ifi) return Kind::malformed;
  out->ifIndex = ifi->ifi_index;
  out->flags = ifi->ifi_flags;
  RtAttrWalk walk(msg, sizeof(ifinfomsg));
  bool ok = true;
  while (rtattr const* a = walk.next()) {
    switch (a->rta_type) {
      case IFLA_IFNAME: {
        Brio::String name;
        ok = ok && readString(a, &name);
        if (ok) out->name = IntfId(name);
        break;
      }
      case IFLA_ADDRESS:
        if (rtaPayload(a) == 6) getRtaAddr(a, &out->mac);
        break;
      case IFLA_MTU:
        ok = ok && readU32(a, &out->mtu);
        break;
      case IFLA_OPERSTATE:
        if (rtaPayload(a) >= 1) out->operState = *static_cast<U8 const*>(rtaData(a));
        break;
      case IFLA_MASTER: {
        U32 m = 0;
        ok = ok && readU32(a, &m);
        out->master = static_cast<S32>(m);
        break;
      }
      default:
        break;
    }
  }
  return ok && !walk.malformed() ? Kind::link : Kind::malformed;
}

Kind decodeAddr(nlmsghdr const* msg, RtnlAddr* out) {
  auto const* ifa = fixedHeader<ifaddrmsg>(msg);
  if (!ifa) return Kind::malformed;
  out->ifIndex = static_cast<S32>(ifa->ifa_index);
  out->scope = ifa->ifa_scope;
  out->flags = ifa->ifa_flags;
  IpGenAddr local, address;
  bool haveLocal = false, haveAddress = false, ok = true;
  RtAttrWalk walk(msg, sizeof(ifaddrmsg));
  while (rtattr const* a = walk.next()) {
    switch (a->rta_type) {
      case IFA_LOCAL:
        haveLocal = getGenAddr(a, ifa->ifa_family, &local);
        ok = ok && haveLocal;
        break;
      case IFA_ADDRESS:
        haveAddress = getGenAddr(a, ifa->ifa_family, &address);
        ok = ok && haveAddress;
        break;
      case IFA_LABEL:
        ok = ok && readString(a, &out->label);
        break;
      case IFA_FLAGS:
        ok = ok && readU32(a, &out->flags);
        break;
      default:
        break;
    }
  }
  if (!ok || walk.malformed() || !(haveLocal || haveAddress)) return Kind::malformed;
  unsigned const maxLen = ifa->ifa_family == AF_INET ? 32 : 128;
  if (ifa->ifa_prefixlen > maxLen) return Kind::malformed;
  // IFA_LOCAL is the interface's own address; IFA_ADDRESS is the peer's on
  // point-to-point links and equals IFA_LOCAL elsewhere (IPv6 sends only it).
  out->addr = IpGenAddrWithMask(haveLocal ? local : address, ifa->ifa_prefixlen);
  return Kind::addr;
}

Kind decodeNeigh(nlmsghdr const* msg, RtnlNeigh* out) {
  auto const* ndm = fixedHeader<ndmsg>(msg);
  if (!ndm) return Kind::malformed;
  out->ifIndex = ndm->ndm_ifindex;
  out->state = ndm->ndm_state;
  out->flags = ndm->ndm_flags;
  bool ok = true;
  RtAttrWalk walk(msg, sizeof(ndmsg));
  while (rtattr const* a = walk.next()) {
    switch (a->rta_type) {
      case NDA_DST:
        ok = ok && getGenAddr(a, ndm->ndm_family, &out->addr);
        break;
      case NDA_LLADDR:
        // Only Ethernet-sized link addresses are EthAddr values; tunnels
        // report other sizes, which are left out rather than misread.
        if (rtaPayload(a) == 6) out->hasMac = getRtaAddr(a, &out->mac);
        break;
      default:
        break;
    }
  }
  return ok && !walk.malformed() ? Kind::neigh : Kind::malformed;
}

}  // namespace

bool RtnlLink::up() const { return flags & IFF_UP; }

RtnlMessage decodeRtnl(nlmsghdr const* msg) {
  RtnlMessage m;
  switch (msg->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      m.kind = decodeLink(msg, &m.link);
      m.deleted = msg->nlmsg_type == RTM_DELLINK;
      break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
      m.kind = decodeAddr(msg, &m.addr);
      m.deleted = msg->nlmsg_type == RTM_DELADDR;
      break;
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      m.kind = decodeNeigh(msg, &m.neigh);
      m.deleted = msg->nlmsg_type == RTM_DELNEIGH;
      break;
    default:
      break;
  }
  return m;
}

Brio::String neighStateText(U16 state) {
  static constexpr struct {
    U16 bit;
    char const* name;
  } names[] = {{NUD_INCOMPLETE, "INCOMPLETE"}, {NUD_REACHABLE, "REACHABLE"}, {NUD_STALE, "STALE"},
               {NUD_DELAY, "DELAY"},           {NUD_PROBE, "PROBE"},         {NUD_FAILED, "FAILED"},
               {NUD_NOARP, "NOARP"},           {NUD_PERMANENT, "PERMANENT"}};
  std::string text;
  for (auto const& n : names) {
    if (!(state & n.bit)) continue;
    if (!text.empty()) text += '|';
    text += n.name;
  }
  return Brio::String(text.empty() ? std::string("NONE") : text);
}

std::ostream& operator<<(std::ostream& os, RtnlMessage const& m) {
  char const* verb = m.deleted ? "del" : "add";
  switch (m.kind) {
    case Kind::link:
      os << "link " << verb << ' ' << m.link.ifIndex << ' ' << m.link.name.name() << ' ' << m.link.mac << " mtu "
         << m.link.mtu << (m.link.up() ? " up" : " down");
      if (m.link.master) os << " master " << m.link.master;
      break;
    case Kind::addr:
      os << "addr " << verb << ' ' << m.addr.ifIndex << ' ' << m.addr.addr;
      break;
    case Kind::neigh:
      os << "neigh " << verb << ' ' << m.neigh.ifIndex << ' ' << m.neigh.addr;
      if (m.neigh.hasMac) os << " lladdr " << m.neigh.mac;
      os << ' ' << neighStateText(m.neigh.state);
      break;
    case Kind::malformed:
      os << "malformed";
      break;
    case Kind::other:
      os << "other";
      break;
  }
  return os;
}

}  // namespace Corvid
