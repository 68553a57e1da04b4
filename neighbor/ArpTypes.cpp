#include <neighbor/ArpTypes.h>

namespace Arp {

namespace {

using SourceId = ArpSource::ArpSourceId;
using TypeId = ArpType::ArpTypeId;
using StatusId = ArpEntryQuickRefreshStatusType::StatusTypeId;

constexpr SourceId allSources[] = {SourceId::invalid, SourceId::kernel,    SourceId::vxlan,
                                   SourceId::evpn,    SourceId::evpnVxlan, SourceId::arpSuppression};
constexpr TypeId allTypes[] = {TypeId::invalid, TypeId::dynamic, TypeId::permanent};
constexpr StatusId allStatuses[] = {StatusId::noRefresh, StatusId::immediateRefresh, StatusId::refreshCompleted,
                                    StatusId::refreshInvalid};

}  // namespace

char const* toString(SourceId v) {
  switch (v) {
    case SourceId::invalid:
      return "invalid";
    case SourceId::kernel:
      return "kernel";
    case SourceId::vxlan:
      return "vxlan";
    case SourceId::evpn:
      return "evpn";
    case SourceId::evpnVxlan:
      return "evpnVxlan";
    case SourceId::arpSuppression:
      return "arpSuppression";
  }
  return "invalid";
}

char const* toString(TypeId v) {
  switch (v) {
    case TypeId::invalid:
      return "invalid";
    case TypeId::dynamic:
      return "dynamic";
    case TypeId::permanent:
      return "permanent";
  }
  return "invalid";
}

char const* toString(StatusId v) {
  switch (v) {
    case StatusId::noRefresh:
      return "noRefresh";
    case StatusId::immediateRefresh:
      return "immediateRefresh";
    case StatusId::refreshCompleted:
      return "refreshCompleted";
    case StatusId::refreshInvalid:
      return "refreshInvalid";
  }
  return "refreshInvalid";
}

Brio::String valueToStrep(SourceId v) { return toString(v); }
Brio::String valueToStrep(TypeId v) { return toString(v); }
Brio::String valueToStrep(StatusId v) { return toString(v); }

SourceId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, SourceId*) {
  return Corvid::readEnumWord(pos, end, allSources, "Invalid ArpSourceId");
}
TypeId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, TypeId*) {
  return Corvid::readEnumWord(pos, end, allTypes, "Invalid ArpTypeId");
}
StatusId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, StatusId*) {
  return Corvid::readEnumWord(pos, end, allStatuses, "Invalid StatusTypeId");
}

void attrLogWrite(Brio::NboAttrLog& log, SourceId v) { log.writeU8(static_cast<U8>(v)); }

// Shared memory is outside input: a source byte beyond the known members
// does not decode (the table reports the slot as corrupt).
SourceId attrLogRead(Brio::NboAttrLog& log, SourceId*) {
  U8 const v = log.readU8();
  if (v > static_cast<U8>(SourceId::arpSuppression)) throw Brio::SizeException("ArpSourceId out of range");
  return static_cast<SourceId>(v);
}

}  // namespace Arp
