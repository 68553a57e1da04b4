// The value types in which neighbour-resolution agents (ARP for IPv4,
// neighbour discovery for IPv6) describe entries: where an entry came from,
// how it was configured, and what the kernel holds.
//
// Every record prints in the library's record form with its fields in
// declaration order ("Value('Arp::ArpEntryStatus', ** {'ipAddr': ...})"),
// reads back, compares field by field and hashes its fields in order; one
// field list per type (Brio/Record.h) drives all of it. The three
// enumeration wrappers (ArpSource, ArpType, ArpEntryQuickRefreshStatusType)
// are records of one field, `id`, whose text is the member name; their
// member values are stable, since they are stored in shared tables.
// ArpEntryQuickRefreshTime is a checked integer and prints as its number,
// like the library's other bounded integers. Refresh times are seconds.
#pragma once

#include <Brio/Record.h>
#include <Corvid/EthAddr.h>
#include <Corvid/IntfId.h>
#include <Corvid/Ip.h>
#include <Corvid/ValueSupport.h>

#include <compare>

namespace Arp {

using Corvid::EthAddr;
using Corvid::IntfId;
using Corvid::Ip6Addr;
using Corvid::IpAddr;
using Corvid::IpGenAddr;

// ---- enumeration wrappers ------------------------------------------------------

class ArpSource {
 public:
  enum class ArpSourceId : U8 { invalid, kernel, vxlan, evpn, evpnVxlan, arpSuppression };
  ArpSource() = default;
  explicit ArpSource(ArpSourceId id) : id_(id) {}
  BRIO_VALUE_FIELD(ArpSourceId, id, ArpSourceId::invalid)
  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(static_cast<U8>(id_)).result(); }
  friend bool operator==(ArpSource const&, ArpSource const&) = default;
  friend auto operator<=>(ArpSource const&, ArpSource const&) = default;
};

class ArpType {
 public:
  enum class ArpTypeId : U8 { invalid, dynamic, permanent };
  ArpType() = default;
  explicit ArpType(ArpTypeId id) : id_(id) {}
  BRIO_VALUE_FIELD(ArpTypeId, id, ArpTypeId::invalid)
  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(static_cast<U8>(id_)).result(); }
  friend bool operator==(ArpType const&, ArpType const&) = default;
  friend auto operator<=>(ArpType const&, ArpType const&) = default;
};

class ArpEntryQuickRefreshStatusType {
 public:
  enum class StatusTypeId : U8 { noRefresh, immediateRefresh, refreshCompleted, refreshInvalid };
  ArpEntryQuickRefreshStatusType() = default;
  explicit ArpEntryQuickRefreshStatusType(StatusTypeId id) : id_(id) {}
  BRIO_VALUE_FIELD(StatusTypeId, id, StatusTypeId::noRefresh)
  U32 hash(U32 seed = 0) const { return Brio::Hash(seed).mix(static_cast<U8>(id_)).result(); }
  friend bool operator==(ArpEntryQuickRefreshStatusType const&, ArpEntryQuickRefreshStatusType const&) = default;
  friend auto operator<=>(ArpEntryQuickRefreshStatusType const&, ArpEntryQuickRefreshStatusType const&) = default;
};

char const* toString(ArpSource::ArpSourceId v);
char const* toString(ArpType::ArpTypeId v);
char const* toString(ArpEntryQuickRefreshStatusType::StatusTypeId v);
Brio::String valueToStrep(ArpSource::ArpSourceId v);
Brio::String valueToStrep(ArpType::ArpTypeId v);
Brio::String valueToStrep(ArpEntryQuickRefreshStatusType::StatusTypeId v);
ArpSource::ArpSourceId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, ArpSource::ArpSourceId*);
ArpType::ArpTypeId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, ArpType::ArpTypeId*);
ArpEntryQuickRefreshStatusType::StatusTypeId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end,
                                                             ArpEntryQuickRefreshStatusType::StatusTypeId*);
void attrLogWrite(Brio::NboAttrLog& log, ArpSource::ArpSourceId v);
ArpSource::ArpSourceId attrLogRead(Brio::NboAttrLog& log, ArpSource::ArpSourceId*);

// Seconds, 0 to 65535.
class ArpEntryQuickRefreshTime : public Corvid::BoundedInteger<ArpEntryQuickRefreshTime, U32, 0, 65535> {
 public:
  static constexpr char rangeMessage[] =
      "ArpEntryQuickRefreshTime::value < ArpEntryQuickRefreshTime::min or > ArpEntryQuickRefreshTime::max not "
      "allowed";
  static constexpr char textMessage[] = "Invalid ArpEntryQuickRefreshTime";
  using BoundedInteger::BoundedInteger;
};

// ---- records -----------------------------------------------------------------------

// Declares the comparisons and the hash every record below shares; the
// hash is defined with the record's field list (ARP_RECORD).
#define ARP_RECORD_OPS(Type)                                  \
  U32 hash(U32 seed = 0) const;                               \
  friend bool operator==(Type const&, Type const&) = default; \
  friend std::strong_ordering operator<=>(Type const&, Type const&) = default;

#define ARP_RECORD(Type, recordObject)                                               \
  inline U32 Type::hash(U32 seed) const { return (recordObject).hash(*this, seed); } \
  BRIO_RECORD_TEXT_FORMS(Type, recordObject)

inline constexpr auto arpSourceRecord = Brio::record<ArpSource>("Arp::ArpSource", Brio::field("id", &ArpSource::id));
BRIO_RECORD_TEXT_FORMS(ArpSource, arpSourceRecord)
BRIO_RECORD_ATTR_LOG(ArpSource, arpSourceRecord)
inline constexpr auto arpTypeRecord = Brio::record<ArpType>("Arp::ArpType", Brio::field("id", &ArpType::id));
BRIO_RECORD_TEXT_FORMS(ArpType, arpTypeRecord)
inline constexpr auto arpEntryQuickRefreshStatusTypeRecord = Brio::record<ArpEntryQuickRefreshStatusType>(
    "Arp::ArpEntryQuickRefreshStatusType", Brio::field("id", &ArpEntryQuickRefreshStatusType::id));
BRIO_RECORD_TEXT_FORMS(ArpEntryQuickRefreshStatusType, arpEntryQuickRefreshStatusTypeRecord)

class ArpEntry {
 public:
  ArpEntry() = default;
  ArpEntry(IpAddr ipAddr, EthAddr ethAddr, ArpSource source)
      : ipAddr_(std::move(ipAddr)), ethAddr_(std::move(ethAddr)), source_(std::move(source)) {}
  BRIO_VALUE_FIELD(IpAddr, ipAddr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  ARP_RECORD_OPS(ArpEntry)
};
inline constexpr auto arpEntryRecord =
    Brio::record<ArpEntry>("Arp::ArpEntry", Brio::field("ipAddr", &ArpEntry::ipAddr),
                           Brio::field("ethAddr", &ArpEntry::ethAddr), Brio::field("source", &ArpEntry::source));
ARP_RECORD(ArpEntry, arpEntryRecord)

class NeighborEntry {
 public:
  NeighborEntry() = default;
  NeighborEntry(Ip6Addr ip6Addr, EthAddr ethAddr, ArpSource source)
      : ip6Addr_(std::move(ip6Addr)), ethAddr_(std::move(ethAddr)), source_(std::move(source)) {}
  BRIO_VALUE_FIELD(Ip6Addr, ip6Addr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  ARP_RECORD_OPS(NeighborEntry)
};
inline constexpr auto neighborEntryRecord = Brio::record<NeighborEntry>(
    "Arp::NeighborEntry", Brio::field("ip6Addr", &NeighborEntry::ip6Addr),
    Brio::field("ethAddr", &NeighborEntry::ethAddr), Brio::field("source", &NeighborEntry::source));
ARP_RECORD(NeighborEntry, neighborEntryRecord)

class ArpGenEntry {
 public:
  ArpGenEntry() = default;
  ArpGenEntry(IpGenAddr ipGenAddr, EthAddr ethAddr) : ipGenAddr_(std::move(ipGenAddr)), ethAddr_(std::move(ethAddr)) {}
  BRIO_VALUE_FIELD(IpGenAddr, ipGenAddr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  ARP_RECORD_OPS(ArpGenEntry)
};
inline constexpr auto arpGenEntryRecord =
    Brio::record<ArpGenEntry>("Arp::ArpGenEntry", Brio::field("ipGenAddr", &ArpGenEntry::ipGenAddr),
                              Brio::field("ethAddr", &ArpGenEntry::ethAddr));
ARP_RECORD(ArpGenEntry, arpGenEntryRecord)

class ArpEntryStatus {
 public:
  ArpEntryStatus() = default;
  ArpEntryStatus(IpAddr ipAddr, EthAddr ethAddr, ArpSource source, bool isStatic)
      : ipAddr_(std::move(ipAddr)),
        ethAddr_(std::move(ethAddr)),
        source_(std::move(source)),
        isStatic_(std::move(isStatic)) {}
  BRIO_VALUE_FIELD(IpAddr, ipAddr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  BRIO_VALUE_FIELD(bool, isStatic)
  ARP_RECORD_OPS(ArpEntryStatus)
};
inline constexpr auto arpEntryStatusRecord = Brio::record<ArpEntryStatus>(
    "Arp::ArpEntryStatus", Brio::field("ipAddr", &ArpEntryStatus::ipAddr),
    Brio::field("ethAddr", &ArpEntryStatus::ethAddr), Brio::field("source", &ArpEntryStatus::source),
    Brio::field("isStatic", &ArpEntryStatus::isStatic));
ARP_RECORD(ArpEntryStatus, arpEntryStatusRecord)

class ArpGenEntryStatus {
 public:
  ArpGenEntryStatus() = default;
  ArpGenEntryStatus(IpGenAddr ipGenAddr, EthAddr ethAddr, bool isStatic)
      : ipGenAddr_(std::move(ipGenAddr)), ethAddr_(std::move(ethAddr)), isStatic_(std::move(isStatic)) {}
  BRIO_VALUE_FIELD(IpGenAddr, ipGenAddr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(bool, isStatic)
  ARP_RECORD_OPS(ArpGenEntryStatus)
};
inline constexpr auto arpGenEntryStatusRecord = Brio::record<ArpGenEntryStatus>(
    "Arp::ArpGenEntryStatus", Brio::field("ipGenAddr", &ArpGenEntryStatus::ipGenAddr),
    Brio::field("ethAddr", &ArpGenEntryStatus::ethAddr), Brio::field("isStatic", &ArpGenEntryStatus::isStatic));
ARP_RECORD(ArpGenEntryStatus, arpGenEntryStatusRecord)

class NeighborEntryKey {
 public:
  NeighborEntryKey() = default;
  NeighborEntryKey(Ip6Addr ip6Addr, IntfId intfId) : ip6Addr_(std::move(ip6Addr)), intfId_(std::move(intfId)) {}
  BRIO_VALUE_FIELD(Ip6Addr, ip6Addr)
  BRIO_VALUE_FIELD(IntfId, intfId)
  ARP_RECORD_OPS(NeighborEntryKey)
};
inline constexpr auto neighborEntryKeyRecord =
    Brio::record<NeighborEntryKey>("Arp::NeighborEntryKey", Brio::field("ip6Addr", &NeighborEntryKey::ip6Addr),
                                   Brio::field("intfId", &NeighborEntryKey::intfId));
ARP_RECORD(NeighborEntryKey, neighborEntryKeyRecord)

class NeighborEntryStatus {
 public:
  NeighborEntryStatus() = default;
  NeighborEntryStatus(Ip6Addr ip6Addr, EthAddr ethAddr, bool isStatic, ArpSource source)
      : ip6Addr_(std::move(ip6Addr)),
        ethAddr_(std::move(ethAddr)),
        isStatic_(std::move(isStatic)),
        source_(std::move(source)) {}
  BRIO_VALUE_FIELD(Ip6Addr, ip6Addr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(bool, isStatic)
  BRIO_VALUE_FIELD(ArpSource, source)
  ARP_RECORD_OPS(NeighborEntryStatus)
};
inline constexpr auto neighborEntryStatusRecord = Brio::record<NeighborEntryStatus>(
    "Arp::NeighborEntryStatus", Brio::field("ip6Addr", &NeighborEntryStatus::ip6Addr),
    Brio::field("ethAddr", &NeighborEntryStatus::ethAddr), Brio::field("isStatic", &NeighborEntryStatus::isStatic),
    Brio::field("source", &NeighborEntryStatus::source));
ARP_RECORD(NeighborEntryStatus, neighborEntryStatusRecord)

class ArpEntryInput {
 public:
  ArpEntryInput() = default;
  ArpEntryInput(IpAddr ipAddr, EthAddr ethAddr, ArpSource source, ArpType type, ArpEntryQuickRefreshTime refreshTime,
                U32 genId, IntfId intfId)
      : ipAddr_(std::move(ipAddr)),
        ethAddr_(std::move(ethAddr)),
        source_(std::move(source)),
        type_(std::move(type)),
        refreshTime_(std::move(refreshTime)),
        genId_(std::move(genId)),
        intfId_(std::move(intfId)) {}
  BRIO_VALUE_FIELD(IpAddr, ipAddr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  BRIO_VALUE_FIELD(ArpType, type)
  BRIO_VALUE_FIELD(ArpEntryQuickRefreshTime, refreshTime)
  BRIO_VALUE_FIELD(U32, genId)
  BRIO_VALUE_FIELD(IntfId, intfId)
  ARP_RECORD_OPS(ArpEntryInput)
};
inline constexpr auto arpEntryInputRecord = Brio::record<ArpEntryInput>(
    "Arp::ArpEntryInput", Brio::field("ipAddr", &ArpEntryInput::ipAddr),
    Brio::field("ethAddr", &ArpEntryInput::ethAddr), Brio::field("source", &ArpEntryInput::source),
    Brio::field("type", &ArpEntryInput::type), Brio::field("refreshTime", &ArpEntryInput::refreshTime),
    Brio::field("genId", &ArpEntryInput::genId), Brio::field("intfId", &ArpEntryInput::intfId));
ARP_RECORD(ArpEntryInput, arpEntryInputRecord)

class NeighborEntryConfigInput {
 public:
  NeighborEntryConfigInput() = default;
  NeighborEntryConfigInput(NeighborEntryKey key, EthAddr ethAddr, ArpSource source, ArpType type,
                           ArpEntryQuickRefreshTime refreshTime, U32 genId)
      : key_(std::move(key)),
        ethAddr_(std::move(ethAddr)),
        source_(std::move(source)),
        type_(std::move(type)),
        refreshTime_(std::move(refreshTime)),
        genId_(std::move(genId)) {}
  BRIO_VALUE_FIELD(NeighborEntryKey, key)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  BRIO_VALUE_FIELD(ArpType, type)
  BRIO_VALUE_FIELD(ArpEntryQuickRefreshTime, refreshTime)
  BRIO_VALUE_FIELD(U32, genId)
  ARP_RECORD_OPS(NeighborEntryConfigInput)
};
inline constexpr auto neighborEntryConfigInputRecord = Brio::record<NeighborEntryConfigInput>(
    "Arp::NeighborEntryConfigInput", Brio::field("key", &NeighborEntryConfigInput::key),
    Brio::field("ethAddr", &NeighborEntryConfigInput::ethAddr),
    Brio::field("source", &NeighborEntryConfigInput::source), Brio::field("type", &NeighborEntryConfigInput::type),
    Brio::field("refreshTime", &NeighborEntryConfigInput::refreshTime),
    Brio::field("genId", &NeighborEntryConfigInput::genId));
ARP_RECORD(NeighborEntryConfigInput, neighborEntryConfigInputRecord)

class ArpEntryInputStatus {
 public:
  ArpEntryInputStatus() = default;
  ArpEntryInputStatus(IpAddr ipAddr, EthAddr ethAddr, ArpSource source, ArpType type,
                      ArpEntryQuickRefreshTime refreshTime, IntfId intfId, U32 genId)
      : ipAddr_(std::move(ipAddr)),
        ethAddr_(std::move(ethAddr)),
        source_(std::move(source)),
        type_(std::move(type)),
        refreshTime_(std::move(refreshTime)),
        intfId_(std::move(intfId)),
        genId_(std::move(genId)) {}
  BRIO_VALUE_FIELD(IpAddr, ipAddr)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  BRIO_VALUE_FIELD(ArpType, type)
  BRIO_VALUE_FIELD(ArpEntryQuickRefreshTime, refreshTime)
  BRIO_VALUE_FIELD(IntfId, intfId)
  BRIO_VALUE_FIELD(U32, genId)
  ARP_RECORD_OPS(ArpEntryInputStatus)
};
inline constexpr auto arpEntryInputStatusRecord = Brio::record<ArpEntryInputStatus>(
    "Arp::ArpEntryInputStatus", Brio::field("ipAddr", &ArpEntryInputStatus::ipAddr),
    Brio::field("ethAddr", &ArpEntryInputStatus::ethAddr), Brio::field("source", &ArpEntryInputStatus::source),
    Brio::field("type", &ArpEntryInputStatus::type), Brio::field("refreshTime", &ArpEntryInputStatus::refreshTime),
    Brio::field("intfId", &ArpEntryInputStatus::intfId), Brio::field("genId", &ArpEntryInputStatus::genId));
ARP_RECORD(ArpEntryInputStatus, arpEntryInputStatusRecord)

class NeighborEntryInputStatus {
 public:
  NeighborEntryInputStatus() = default;
  NeighborEntryInputStatus(NeighborEntryKey key, EthAddr ethAddr, ArpSource source, ArpType type,
                           ArpEntryQuickRefreshTime refreshTime, U32 genId)
      : key_(std::move(key)),
        ethAddr_(std::move(ethAddr)),
        source_(std::move(source)),
        type_(std::move(type)),
        refreshTime_(std::move(refreshTime)),
        genId_(std::move(genId)) {}
  BRIO_VALUE_FIELD(NeighborEntryKey, key)
  BRIO_VALUE_FIELD(EthAddr, ethAddr)
  BRIO_VALUE_FIELD(ArpSource, source)
  BRIO_VALUE_FIELD(ArpType, type)
  BRIO_VALUE_FIELD(ArpEntryQuickRefreshTime, refreshTime)
  BRIO_VALUE_FIELD(U32, genId)
  ARP_RECORD_OPS(NeighborEntryInputStatus)
};
inline constexpr auto neighborEntryInputStatusRecord = Brio::record<NeighborEntryInputStatus>(
    "Arp::NeighborEntryInputStatus", Brio::field("key", &NeighborEntryInputStatus::key),
    Brio::field("ethAddr", &NeighborEntryInputStatus::ethAddr),
    Brio::field("source", &NeighborEntryInputStatus::source), Brio::field("type", &NeighborEntryInputStatus::type),
    Brio::field("refreshTime", &NeighborEntryInputStatus::refreshTime),
    Brio::field("genId", &NeighborEntryInputStatus::genId));
ARP_RECORD(NeighborEntryInputStatus, neighborEntryInputStatusRecord)

class ArpMacAddrPair {
 public:
  ArpMacAddrPair() = default;
  ArpMacAddrPair(EthAddr eth, EthAddr arp) : eth_(std::move(eth)), arp_(std::move(arp)) {}
  BRIO_VALUE_FIELD(EthAddr, eth)
  BRIO_VALUE_FIELD(EthAddr, arp)
  ARP_RECORD_OPS(ArpMacAddrPair)
};
inline constexpr auto arpMacAddrPairRecord = Brio::record<ArpMacAddrPair>(
    "Arp::ArpMacAddrPair", Brio::field("eth", &ArpMacAddrPair::eth), Brio::field("arp", &ArpMacAddrPair::arp));
ARP_RECORD(ArpMacAddrPair, arpMacAddrPairRecord)

// An address on an interface: the key shape the request tables of
// proactive resolution, monitored next hops and RIB next hops share. Each
// names its own type for its text form through Tag::typeName.
template <class Tag>
class AddrOnIntf {
 public:
  AddrOnIntf() = default;
  AddrOnIntf(IpGenAddr ipGenAddr, IntfId intfId) : ipGenAddr_(ipGenAddr), intfId_(std::move(intfId)) {}
  BRIO_VALUE_FIELD(IpGenAddr, ipGenAddr)
  BRIO_VALUE_FIELD(IntfId, intfId)
  U32 hash(U32 seed = 0) const;
  friend bool operator==(AddrOnIntf const&, AddrOnIntf const&) = default;
  friend std::strong_ordering operator<=>(AddrOnIntf const&, AddrOnIntf const&) = default;
};
template <class Tag>
inline constexpr auto addrOnIntfRecord =
    Brio::record<AddrOnIntf<Tag>>(Tag::typeName, Brio::field("ipGenAddr", &AddrOnIntf<Tag>::ipGenAddr),
                                  Brio::field("intfId", &AddrOnIntf<Tag>::intfId));
template <class Tag>
U32 AddrOnIntf<Tag>::hash(U32 seed) const {
  return addrOnIntfRecord<Tag>.hash(*this, seed);
}

// The all-zero pair.
inline ArpMacAddrPair const macAddrPairNull{};

}  // namespace Arp

CORVID_STD_HASH(Arp::ArpSource);
CORVID_STD_HASH(Arp::ArpType);
CORVID_STD_HASH(Arp::ArpEntryQuickRefreshStatusType);
CORVID_STD_HASH(Arp::ArpEntry);
CORVID_STD_HASH(Arp::NeighborEntry);
CORVID_STD_HASH(Arp::ArpGenEntry);
CORVID_STD_HASH(Arp::ArpEntryStatus);
CORVID_STD_HASH(Arp::ArpGenEntryStatus);
CORVID_STD_HASH(Arp::NeighborEntryKey);
CORVID_STD_HASH(Arp::NeighborEntryStatus);
CORVID_STD_HASH(Arp::ArpEntryInput);
CORVID_STD_HASH(Arp::NeighborEntryConfigInput);
CORVID_STD_HASH(Arp::ArpEntryInputStatus);
CORVID_STD_HASH(Arp::NeighborEntryInputStatus);
CORVID_STD_HASH(Arp::ArpMacAddrPair);
