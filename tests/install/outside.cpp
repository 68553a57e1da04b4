// A program written as an outside user would: only the umbrella header, and
// one type of every module, so a header left out of it fails this build.
#include <Corvid/Corvid.h>

#include <iostream>
#include <sstream>

using Brio::strepToValue;

int main() {
  std::ostringstream out;
  Brio::Hash h(7);
  h.mix(42u);
  out << Corvid::version() << " " << h.result();
  // Values.
  out << " " << strepToValue<Corvid::IpAddr>("10.1.2.3") << " " << strepToValue<Corvid::Ip6Prefix>("2001:db8::/32")
      << " " << strepToValue<Corvid::IpGenAddr>("::1") << " " << strepToValue<Corvid::EthAddr>("00:11:22:33:44:55")
      << " " << Corvid::Port(179) << " " << Corvid::NamespaceName("ns1") << " " << Corvid::IntfId("Ethernet1")
      << " " << L3::VrfName("red") << " " << L3::VrfNameAndIp(L3::VrfName("red"), Corvid::IpAddr())
      << " " << Vxlan::Vni(5000) << " " << Routing::Isis::SystemId("0000.0000.0001") << " "
      << Routing::FlexAlgoId(128) << " " << Routing::L2Vpn::PwId(7) << " " << Evpn::Esid();
  Corvid::BoundedMplsLabelStack stack;
  stack.append(Corvid::MplsLabel(100));
  out << " " << stack.stringValue() << " " << Corvid::DynamicMplsLabelStack(stack).stackSize() << " "
      << Corvid::MplsLabelOperationKind::swap;
  // Packets, headers and the checksum.
  Brio::Ptr<Corvid::Pkt> pkt = Corvid::globalPktManager()->newPkt();
  pkt->newSharedHeadData(14);
  auto eth = Corvid::ethHdrWrapperFactory(pkt, 0);
  U8 const zeros[4] = {};
  out << " " << pkt->bytes() << " " << (eth->header() != nullptr) << " "
      << Corvid::ipChecksumCalc(reinterpret_cast<char const*>(zeros), 4, 0);
  // Endpoints: a test endpoint round trip, the other endpoint and socket
  // types by name.
  Brio::ActivityManager loop;
  auto pam = Corvid::TestPam::testPamFactory("outside");
  pam->enabledIs(true);
  pam->rxPktEnq(pkt);
  Brio::Ptr<Corvid::Pam> base(pam.ptr());
  if (base->rxPkt() != pkt || base->rxPkt()) return 1;
  Brio::Ptr<Corvid::DatagramPam> datagram;
  Brio::Ptr<Corvid::EthDevicePam> device;
  Brio::Ptr<Corvid::PktSocket> socket;
  Brio::Ptr<Corvid::RawSocket::Manager> raw = Corvid::RawSocketManagerFactory();
  out << " " << !datagram << !device << !socket << (raw->name().bytes() > 0);
  // Namespaces and netlink: the utilities, the watcher's types, decoding,
  // the mirror and the kernel namespace list, by name.
  Corvid::NetNsSwitch stay("/var/run/netns/corvid-outside-none");
  Corvid::netlinkHandle nl;
  nlmsghdr none{};
  Brio::Ptr<Corvid::RtnlMirror> mirror;
  Brio::Ptr<KernelNetNsInfo::Root> root = KernelNetNsInfo::rootFactory("outside");
  out << " " << Corvid::DEFAULT_NS << " " << !stay.ok() << nl.fd << " " << Corvid::RequestDumpState::rdsEnd << " "
      << (Corvid::decodeRtnl(&none).kind == Corvid::RtnlMessage::Kind::other) << !mirror << root->netNss();
  // Shared tables, VRFs and neighbours.
  auto vrfs = Vrf::VrfIdMap::Status::statusFactory("outside-vrfs");
  vrfs->vrfIdToNameIs(Vrf::VrfIdMap::VrfEntry(Vrf::VrfIdMap::VrfId(3), "blue"));
  auto arp = Arp::Table::Status::statusFactory("outside-arp", 4);
  arp->arpEntryIs(Arp::Table::ArpEntry(Arp::Table::ArpKey(Vrf::VrfIdMap::VrfId(3), Corvid::IpGenAddr(Corvid::IpAddr(10, 0, 0, 1)),
                                                          Corvid::IntfId("et1")),
                                       Corvid::EthAddr(), true, Arp::ArpSource()));
  auto dir = Arp::ArpVrfStatusDir::arpVrfStatusDirFactory("outside");
  auto shim = Arp::arpShimSmFactory(arp, vrfs, "", true, true, Arp::NeighborDir::neighborDirFactory("s"), dir);
  Arp::ArpPublisher const* noPublisher = nullptr;
  out << " " << dir->vrfStatuses().size() << " " << static_cast<int>(Arp::NeighState::permanent) << !noPublisher
      << Arp::MonitoredNexthop::Entry() << Arp::RibNextHop::Entry() << Arp::ProactiveArp::Entry();
  // TCP and the PDU endpoint.
  Brio::Ptr<Corvid::TcpFileDescriptor> tcpFd;
  Brio::Ptr<Corvid::SimpleTcpPduPam> pduPam;
  out << " " << Corvid::TcpSocketOptions(3) << !tcpFd << !pduPam;
  std::cout << "outside program ok " << out.str() << "\n";
  return 0;
}
