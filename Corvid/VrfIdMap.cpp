#include <Corvid/VrfIdMap.h>

#include <Brio/TextForm.h>
#include <Fennel/Fennel.h>
#include <Glimmer/Glimmer.h>

#include <cstdio>
#include <iostream>
#include <mutex>
#include <ostream>
#include <vector>

namespace Vrf::VrfIdMap {

namespace {

Glimmer::Facility& tr() {
  static Glimmer::Facility& facility = Glimmer::facility("VrfIdMap");
  return facility;
}
constexpr int traceLevel = 5;

std::mutex logMutex;
LogHook& logHookStorage() {
  static LogHook hook;
  return hook;
}

void logRaise(LogMessage const& message, std::string const& text) {
  LogHook hook;
  {
    std::lock_guard<std::mutex> g(logMutex);
    hook = logHookStorage();
  }
  if (hook) {
    hook(message, text);
  } else {
    std::cerr << "%" << message.name << ": " << text << "\n";
  }
}

}  // namespace

LogMessage const VRF_MAP_OVERFLOW = {
    "VRF_MAP_OVERFLOW",
    "A VRF table used internally to map VRF names to VRF identifiers has overflowed at %u values.",
    "When this happens, the device may not be able to forward traffic in some VRFs. This is likely caused by "
    "configuring more VRFs that than the device can support, so a possible solution would be to unconfigure "
    "some VRFs.",
};

void logHookIs(LogHook hook) {
  std::lock_guard<std::mutex> g(logMutex);
  logHookStorage() = std::move(hook);
}

// --- VrfId ------------------------------------------------------------------------

VrfId::VrfId(Brio::String const& text) {
  try {
    value_ = Brio::strepToValue(text, static_cast<U32*>(nullptr));
  } catch (Brio::RangeException const&) {
    Brio::throwRangeException("Invalid VrfId");
  }
}

Brio::String valueToStrep(VrfId v) { return Brio::valueToStrep(v.value()); }

VrfId sequenceToValue(Brio::StringIter& pos, Brio::StringIter const& end, VrfId*) {
  try {
    return VrfId(Brio::sequenceToValue(pos, end, static_cast<U32*>(nullptr)));
  } catch (Brio::RangeException const&) {
    Brio::throwRangeException("Invalid VrfId");
  }
}

std::ostream& operator<<(std::ostream& os, VrfId v) { return os << v.value(); }

void attrLogWrite(Brio::NboAttrLog& log, VrfId v) { log.writeU32(v.value()); }
VrfId attrLogRead(Brio::NboAttrLog& log, VrfId*) { return VrfId(log.readU32()); }

// --- VrfEntry ---------------------------------------------------------------------

VrfEntry::VrfEntry(VrfId id, Brio::String const& name) : vrfId_(id) {
  length_ = static_cast<U8>(name.bytes() < maxStoredName ? name.bytes() : maxStoredName);
  std::memcpy(name_.data(), name.data(), length_);
}

Brio::String valueToStrep(VrfEntry const& e) {
  return Brio::String("Value('Vrf::VrfIdMap::VrfEntry', ** {'vrfId': ") + valueToStrep(e.vrfId()) +
         Brio::String(", 'vrfName': ") + Brio::valueToStrep(e.vrfName()) + Brio::String("})");
}

std::ostream& operator<<(std::ostream& os, VrfEntry const& e) { return os << valueToStrep(e).view(); }

void attrLogWrite(Brio::NboAttrLog& log, VrfEntry const& e) {
  log.writeU32(e.vrfId().value());
  log.writeString(e.vrfName());
}

VrfEntry attrLogRead(Brio::NboAttrLog& log, VrfEntry*) {
  VrfEntry e;
  e.vrfId_ = VrfId(log.readU32());
  U32 n = log.readU32();
  // The reader accepts one byte more than a writer stores; beyond that the
  // entry did not come from a writer.
  if (n > VrfEntry::maxReadName) throw Brio::SizeException("VrfEntry::vrfName::bytes > 101 not allowed");
  for (U32 i = 0; i < n; ++i) e.name_[i] = static_cast<char>(log.readU8());
  e.length_ = static_cast<U8>(n);
  return e;
}

// --- VrfIdPair --------------------------------------------------------------------

Brio::String valueToStrep(VrfIdPair const& p) {
  return Brio::String("Value('Vrf::VrfIdMap::VrfIdPair', ** {'first': ") + valueToStrep(p.first()) +
         Brio::String(", 'second': ") + valueToStrep(p.second()) + Brio::String("})");
}

std::ostream& operator<<(std::ostream& os, VrfIdPair const& p) { return os << valueToStrep(p).view(); }

// --- Status, NameToIdMap ----------------------------------------------------------

Brio::Ptr<Status> Status::statusFactory(Brio::String name) { return Brio::Ptr<Status>(new Status(std::move(name))); }

Brio::Ptr<NameToIdMap> NameToIdMap::nameToIdMapFactory(Brio::String name) {
  return Brio::Ptr<NameToIdMap>(new NameToIdMap(std::move(name)));
}

VrfId NameToIdMap::vrfNameToId(Brio::String const& name) const {
  auto it = vrfNameToId_.find(name);
  return it == vrfNameToId_.end() ? VrfId::null() : it->second;
}

// --- Writer -----------------------------------------------------------------------

Brio::Ptr<Writer> Writer::writerFactory(Brio::String writerName, Brio::Ptr<Status> status) {
  return Brio::Ptr<Writer>(new Writer(std::move(writerName), std::move(status)));
}

Writer::Writer(Brio::String writerName, Brio::Ptr<Status> status)
    : writerName_(std::move(writerName)),
      status_(std::move(status)),
      nameToIdMap_(NameToIdMap::nameToIdMapFactory(writerName_ + Brio::String(".nameToIdMap"))) {}

Writer::~Writer() { doCleanup(); }

bool Writer::attachCounter() {
  counter_ = Shoal::Segment::segmentFactory(Brio::String("vrfIdMap/") + writerName_ + Brio::String(".lastVrfId"), 4);
  if (!counter_->attach()) {
    reason_ = counter_->reason();
    return false;
  }
  lastVrfIdPtr_ = reinterpret_cast<U32*>(counter_->data());
  return true;
}

void Writer::handleInitialized() {
  if (initialized_) return;
  if (!attachCounter()) return;
  initialized_ = true;
  addDefaultVrf();
  std::vector<std::pair<Brio::String, VrfId>> names;
  for (auto const& [id, entry] : status_->vrfIdToNameSnapshot()) names.emplace_back(entry.vrfName(), id);
  for (auto const& [name, id] : names) vrfNameToIdIs(name, id);
}

VrfId Writer::allocateVrfId() {
  FENNEL_ASSERT(initialized());
  U32 const start = __atomic_load_n(lastVrfIdPtr_, __ATOMIC_RELAXED);
  VrfId const lastVrfId(start);
  VrfId vrfId;
  for (;;) {
    U32 const v = __atomic_load_n(lastVrfIdPtr_, __ATOMIC_RELAXED) + 1;
    __atomic_store_n(lastVrfIdPtr_, v, __ATOMIC_RELAXED);
    if (v == 0 || v == VrfId::null().value()) {
      if (v == start) {
        vrfId = VrfId(v);
        break;
      }
      continue;
    }
    if (!status_->vrfIdToName(VrfId(v))) {
      vrfId = VrfId(v);
      break;
    }
    if (v == start) {
      vrfId = VrfId(v);
      break;
    }
  }
  GLIMMER_TRACE(tr(), traceLevel, "Writer::allocateVrfId allocated vrfId " << vrfId);
  FENNEL_ASSERT(vrfId != lastVrfId);
  FENNEL_ASSERT(vrfId != Vrf::VrfIdMap::VrfId::defaultVrf());
  FENNEL_ASSERT(vrfId != Vrf::VrfIdMap::VrfId::null());
  return vrfId;
}

VrfId Writer::vrfIs(Brio::String const& name) {
  FENNEL_ASSERT(initialized());
  if (nameToIdMap_->vrfNameToIdHas(name)) return nameToIdMap_->vrfNameToId(name);
  bool const isDefault = name == Constants::defaultVrfName();
  if (!isDefault && status_->vrfIdToNames() >= Constants::maxVrfs()) {
    ++overflowCount_;
    char text[160];
    std::snprintf(text, sizeof text, VRF_MAP_OVERFLOW.format, Constants::maxVrfs());
    logRaise(VRF_MAP_OVERFLOW, text);
    return VrfId::null();
  }
  VrfId const vrfId = isDefault ? VrfId::defaultVrf() : allocateVrfId();
  GLIMMER_TRACE(tr(), traceLevel, "Writer::vrfIs vrfName: " << name << " vrfId: " << vrfId);
  if (!status_->vrfIdToNameIs(VrfEntry(vrfId, name))) {
    ++overflowCount_;
    char text[160];
    std::snprintf(text, sizeof text, VRF_MAP_OVERFLOW.format, status_->vrfIdToNames());
    logRaise(VRF_MAP_OVERFLOW, text);
    return VrfId::null();
  }
  vrfNameToIdIs(name, vrfId);
  return vrfId;
}

void Writer::vrfDel(Brio::String const& name) {
  FENNEL_ASSERT(initialized());
  if (name == Constants::defaultVrfName()) return;
  if (!nameToIdMap_->vrfNameToIdHas(name)) return;
  VrfId const vrfId = nameToIdMap_->vrfNameToId(name);
  if (vrfId == VrfId::null() || vrfId == VrfId::defaultVrf()) return;
  status_->vrfIdToNameDel(vrfId);
  vrfNameToIdDel(name);
}

void Writer::addDefaultVrf() { vrfIs(Constants::defaultVrfName()); }

void Writer::prepareVrfIdWrapAround() {
  FENNEL_ASSERT(initialized());
  __atomic_store_n(lastVrfIdPtr_, VrfId::null().value(), __ATOMIC_RELAXED);
}

void Writer::reset() {
  status_->vrfIdToNameDelAll();
  vrfNameToIdDelAll();
  if (counter_) counter_->remove();
  lastVrfIdPtr_ = nullptr;
  if (!attachCounter()) {
    initialized_ = false;
    return;
  }
  addDefaultVrf();
}

void Writer::doCleanup() {
  if (counter_) counter_->detach();
  lastVrfIdPtr_ = nullptr;
}

// --- ReverseMapper ----------------------------------------------------------------

Brio::Ptr<ReverseMapper> ReverseMapper::reverseMapperFactory(Brio::Ptr<Status> status,
                                                             Brio::Ptr<NameToIdMap> nameToIdMap) {
  return Brio::Ptr<ReverseMapper>(new ReverseMapper(status, std::move(nameToIdMap)));
}

ReverseMapper::ReverseMapper(Brio::Ptr<Status> const& status, Brio::Ptr<NameToIdMap> nameToIdMap)
    : nameToIdMap_(std::move(nameToIdMap)) {
  notifierIs(status);
}

Brio::String ReverseMapper::vrfIdToNameCache(VrfId id) const {
  auto it = vrfIdToNameCache_.find(id);
  return it == vrfIdToNameCache_.end() ? Brio::String() : it->second;
}

void ReverseMapper::handleVrfIdToName(VrfId const& vrfId) {
  VrfEntry const entry = status()->vrfIdToName(vrfId);
  if (entry) {
    Brio::String const vrfName = entry.vrfName();
    GLIMMER_TRACE(tr(), traceLevel, "ReverseMapper::" << __func__ << " add vrfId: " << vrfId << " vrfName: " << vrfName);
    Brio::String const old = vrfIdToNameCache(vrfId);
    if (nameToIdMap_ && !old.empty() && old != vrfName && nameToIdMap_->vrfNameToId(old) == vrfId) {
      // The id now carries another name: its old name goes with it, or the
      // old name would point at an id cached under a different name.
      nameToIdMap_->vrfNameToIdDel(old);
    }
    if (nameToIdMap_) {
      VrfId const vrfId2 = nameToIdMap_->vrfNameToId(vrfName);
      FENNEL_ASSERT(vrfId2 == VrfId() || vrfIdToNameCache( vrfId2 ) == vrfName);
      nameToIdMap_->vrfNameToIdIs(vrfName, vrfId);
    }
    vrfIdToNameCacheIs(vrfId, vrfName);
    return;
  }
  Brio::String const vrfName = vrfIdToNameCache(vrfId);
  GLIMMER_TRACE(tr(), traceLevel, "ReverseMapper::" << __func__ << " delete vrfId: " << vrfId << " vrfName: " << vrfName);
  if (nameToIdMap_ && nameToIdMap_->vrfNameToIdHas(vrfName)) {
    VrfId const mapped = nameToIdMap_->vrfNameToId(vrfName);
    if (mapped != vrfId) {
      // A late delete: the name was made again under a new id before this
      // reader saw the old id go. The new mapping stands.
      GLIMMER_TRACE(tr(), traceLevel,
                    "ReverseMapper::" << __func__ << " vrfId mismatch between" << " nameToIdMap vrfId " << mapped
                                      << " and vrfId getting deleted " << vrfId
                                      << ". Skipping deletion from nameToIdMap");
    } else {
      nameToIdMap_->vrfNameToIdDel(vrfName);
    }
  }
  vrfIdToNameCacheDel(vrfId);
}

void ReverseMapper::handleInitialized() {
  for (auto const& [id, entry] : status()->vrfIdToNameSnapshot()) handleVrfIdToName(id);
  if (nameToIdMap_) {
    std::vector<std::pair<Brio::String, VrfId>> gone;
    for (auto const& [name, id] : nameToIdMap_->vrfNameToIdAll()) {
      if (!status()->vrfIdToName(id)) gone.emplace_back(name, id);
    }
    for (auto const& [name, id] : gone) {
      GLIMMER_TRACE(tr(), traceLevel, "ReverseMapper::" << __func__ << " delete vrfId: " << id << " vrfName: " << name);
      nameToIdMap_->vrfNameToIdDel(name);
    }
  }
  initialized_ = true;
}

}  // namespace Vrf::VrfIdMap
