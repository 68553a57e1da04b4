// Neighbour value types: text forms that read back, the shared table's key
// and entry (defaults, hash, truth, attribute-log form) and the refusals.
#include <gtest/gtest.h>
#include <neighbor/ArpTable.h>
#include <neighbor/ArpTypes.h>

#include "support/ValueCases.h"

using namespace Arp;
using Vrf::VrfIdMap::VrfId;

namespace {

EthAddr const mac = Brio::strepToValue<EthAddr>("02:00:00:00:00:05");
ArpSource const kernel(ArpSource::ArpSourceId::kernel);

template <class T>
void roundTrips(T const& v, std::string const& text) {
  EXPECT_EQ(CorvidTest::expectStrepRoundTrip(v), text);
}

}  // namespace

TEST(ArpTypes, RecordsPrintTheirFieldsInOrderAndReadBack) {
  IpAddr const a4 = Brio::strepToValue<IpAddr>("10.0.0.1");
  Ip6Addr const a6 = Brio::strepToValue<Ip6Addr>("2001:db8::1");
  ArpType const permanent(ArpType::ArpTypeId::permanent);
  roundTrips(ArpEntryQuickRefreshStatusType(ArpEntryQuickRefreshStatusType::StatusTypeId::refreshCompleted),
             "Value('Arp::ArpEntryQuickRefreshStatusType', ** {'id': refreshCompleted})");
  roundTrips(ArpEntry(a4, mac, kernel),
             "Value('Arp::ArpEntry', ** {'ipAddr': 10.0.0.1, 'ethAddr': 02:00:00:00:00:05, 'source': "
             "Value('Arp::ArpSource', ** {'id': kernel})})");
  roundTrips(NeighborEntryStatus(a6, mac, true, ArpSource(ArpSource::ArpSourceId::evpnVxlan)),
             "Value('Arp::NeighborEntryStatus', ** {'ip6Addr': 2001:db8::1, 'ethAddr': 02:00:00:00:00:05, "
             "'isStatic': True, 'source': Value('Arp::ArpSource', ** {'id': evpnVxlan})})");
  roundTrips(ArpEntryInput(a4, mac, kernel, permanent, ArpEntryQuickRefreshTime(30), 7, IntfId("Ethernet1")),
             "Value('Arp::ArpEntryInput', ** {'ipAddr': 10.0.0.1, 'ethAddr': 02:00:00:00:00:05, 'source': "
             "Value('Arp::ArpSource', ** {'id': kernel}), 'type': Value('Arp::ArpType', ** {'id': permanent}), "
             "'refreshTime': 30, 'genId': 7, 'intfId': 'Ethernet1'})");
  roundTrips(NeighborEntryKey(a6, IntfId("Ethernet2")),
             "Value('Arp::NeighborEntryKey', ** {'ip6Addr': 2001:db8::1, 'intfId': 'Ethernet2'})");
  roundTrips(macAddrPairNull,
             "Value('Arp::ArpMacAddrPair', ** {'eth': 00:00:00:00:00:00, 'arp': 00:00:00:00:00:00})");
  EXPECT_THROW(Brio::strepToValue<ArpSource>("Value('Arp::ArpSource', ** {'id': gossip})"), Brio::RangeException);
}

TEST(ArpTable, KeyDefaultsHashAndTextForm) {
  Table::ArpKey const none;
  EXPECT_EQ(none.vrfId().value(), 16777215u) << "the null VRF id, not the default VRF";
  Table::ArpKey const k(VrfId(3), Brio::strepToValue<IpGenAddr>("10.0.0.1"), IntfId("Ethernet1"));
  roundTrips(k, "Value('Arp::Table::ArpKey', ** {'vrfId': 3, 'addr': 10.0.0.1, 'intfId': 'Ethernet1'})");
  // The VRF id, the address's 16-byte hash, the interface id's hash.
  EXPECT_EQ(k.hash(), Brio::Hash(0).mix(3u).mix(k.addr().rawAddr().hash()).mix(IntfId("Ethernet1").hash()).result());
}

TEST(ArpTable, EntryIsTrueUnlessDefaultAndSurvivesTheAttributeLog) {
  Table::ArpEntry e;
  EXPECT_FALSE(e);
  e.isStaticIs(true);
  EXPECT_TRUE(e);
  Table::ArpEntry const full(Table::ArpKey(VrfId(0), Brio::strepToValue<IpGenAddr>("2001:db8::9"), IntfId("et9")),
                             mac, true, kernel);
  Brio::NboAttrLog log;
  attrLogWrite(log, full);
  EXPECT_LE(log.bytes(), Table::Status::entryMax);
  Brio::NboAttrLog in;
  in.dataIs(log.rawData(), log.bytes());
  EXPECT_EQ(attrLogRead(in, static_cast<Table::ArpEntry*>(nullptr)), full);

  // A source byte past the known members is refused, not cast.
  std::string bytes(log.rawData(), log.bytes());
  bytes.back() = 42;
  in.dataIs(bytes.data(), bytes.size());
  EXPECT_THROW(attrLogRead(in, static_cast<Table::ArpEntry*>(nullptr)), Brio::SizeException);
}
