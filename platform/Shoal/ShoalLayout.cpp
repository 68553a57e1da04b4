#include <Shoal/ShoalLayout.h>

#include <Brio/Hash.h>

#include <cstddef>

namespace Shoal::Layout {

namespace {

U32 layoutHash(FixedHeader const* h) {
  return Brio::Hash(0x5e0a1u).mixBytes(h, offsetof(FixedHeader, layoutCheck)).result();
}

bool terminated(char const* s, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    if (s[i] == '\0') return true;
  }
  return false;
}

bool powerOfTwo(U32 v) { return v && (v & (v - 1)) == 0; }

std::string describe(char const* what, U32 i) { return std::string(what) + " of collection " + std::to_string(i); }

}  // namespace

std::string layoutHeader(FixedHeader* h, std::string const& typeName, CollectionShape const* shapes, U32 n,
                         U32 logEntries) {
  std::memset(h, 0, sizeof(FixedHeader));
  if (n == 0 || n > maxCollections) return "a table holds 1 to 8 collections";
  if (!powerOfTwo(logEntries) || logEntries < minLogEntries || logEntries > maxLogEntries) {
    return "change log size must be a power of two from 16 to 2^24";
  }
  if (typeName.size() >= typeNameBytes) return "type name too long";
  h->magic = magic;
  h->version = version;
  h->headerBytes = headerBytes;
  h->collections = n;
  h->registrations = maxRegistrations;
  h->logEntries = logEntries;
  std::memcpy(h->typeName, typeName.data(), typeName.size());
  h->registrationOffset = headerBytes;
  h->logOffset = h->registrationOffset + U64(maxRegistrations) * sizeof(Registration);
  U64 offset = (h->logOffset + U64(logEntries) * 4 + 63) & ~U64(63);
  U64 slots = 0;
  for (U32 i = 0; i < n; ++i) {
    auto const& s = shapes[i];
    if (s.name.empty() || s.name.size() >= nameBytes) return "collection name must be 1 to 31 bytes";
    if (s.keyMax == 0 || s.keyMax > maxFieldBytes || s.valueMax > maxFieldBytes) {
      return "collection '" + s.name + "': key size 1 to 65535 bytes, value size at most 65535";
    }
    if (s.capacity == 0) return "collection '" + s.name + "': capacity 0";
    auto& d = h->desc[i];
    std::memcpy(d.name, s.name.data(), s.name.size());
    d.keyMax = s.keyMax;
    d.valueMax = s.valueMax;
    d.capacity = s.capacity;
    d.slotBytes = slotBytesFor(s.keyMax, s.valueMax);
    d.firstIndex = static_cast<U32>(slots);
    d.slotsOffset = offset;
    slots += s.capacity;
    if (slots > maxSlots) return "more than 2^24 slots in one table";
    offset += U64(d.capacity) * d.slotBytes;
  }
  h->fileBytes = (offset + 4095) & ~U64(4095);
  h->layoutCheck = layoutHash(h);
  return {};
}

std::string validateHeader(void const* fixed, std::size_t bytes, U64 fileBytes) {
  if (bytes < sizeof(FixedHeader)) return "file shorter than a table header";
  // Copy out first: the file may change under us, and every check below
  // must see the same bytes the hash covered.
  FixedHeader h;
  std::memcpy(&h, fixed, sizeof h);
  if (h.magic != magic) return "bad magic";
  if (h.version != version) return "unknown version " + std::to_string(h.version);
  if (h.layoutCheck != layoutHash(&h)) return "header check mismatch";
  if (h.headerBytes != headerBytes) return "bad header size";
  if (h.fileBytes != fileBytes) {
    return "header gives " + std::to_string(h.fileBytes) + " bytes, file has " + std::to_string(fileBytes);
  }
  if (h.collections == 0 || h.collections > maxCollections) return "bad collection count";
  if (h.registrations != maxRegistrations) return "bad registration count";
  if (!powerOfTwo(h.logEntries) || h.logEntries < minLogEntries || h.logEntries > maxLogEntries) {
    return "bad change log size";
  }
  if (!terminated(h.typeName, typeNameBytes)) return "type name not terminated";
  if (h.registrationOffset != headerBytes) return "bad registration offset";
  if (h.logOffset != h.registrationOffset + U64(maxRegistrations) * sizeof(Registration)) {
    return "bad change log offset";
  }
  U64 offset = (h.logOffset + U64(h.logEntries) * 4 + 63) & ~U64(63);
  U64 slots = 0;
  for (U32 i = 0; i < h.collections; ++i) {
    auto const& d = h.desc[i];
    if (!terminated(d.name, nameBytes) || d.name[0] == '\0') return describe("bad name", i);
    if (d.keyMax == 0 || d.keyMax > maxFieldBytes || d.valueMax > maxFieldBytes) return describe("bad sizes", i);
    if (d.capacity == 0 || d.capacity > maxSlots) return describe("bad capacity", i);
    if (d.slotBytes != slotBytesFor(d.keyMax, d.valueMax)) return describe("bad slot size", i);
    if (d.firstIndex != slots) return describe("bad first index", i);
    if (d.slotsOffset != offset) return describe("bad slot offset", i);
    slots += d.capacity;
    if (slots > maxSlots) return "too many slots";
    offset += U64(d.capacity) * d.slotBytes;
  }
  if (((offset + 4095) & ~U64(4095)) != h.fileBytes) return "slots do not fill the file";
  return {};
}

std::string matchShapes(FixedHeader const* h, std::string const& typeName, CollectionShape const* shapes,
                        U32 n) {
  if (typeName != h->typeName) return "table holds '" + std::string(h->typeName) + "', not '" + typeName + "'";
  if (h->collections != n) return "table has " + std::to_string(h->collections) + " collections, expected " +
                                 std::to_string(n);
  for (U32 i = 0; i < n; ++i) {
    auto const& d = h->desc[i];
    auto const& s = shapes[i];
    if (s.name != d.name || s.keyMax != d.keyMax || s.valueMax != d.valueMax ||
        (s.capacity && s.capacity != d.capacity)) {
      return "collection " + std::to_string(i) + " is '" + d.name + "' (" + std::to_string(d.keyMax) + "/" +
             std::to_string(d.valueMax) + "/" + std::to_string(d.capacity) + "), expected '" + s.name + "' (" +
             std::to_string(s.keyMax) + "/" + std::to_string(s.valueMax) + "/" + std::to_string(s.capacity) + ")";
    }
  }
  return {};
}

SlotRead readSlot(void const* slot, U32 keyMax, U32 valueMax, U8* keyOut, U16* keyLen, U8* valueOut,
                  U16* valueLen, U32 attempts, std::string* why) {
  auto const* head = static_cast<SlotHead const*>(slot);
  auto const* bytes = static_cast<U8 const*>(slot) + slotHeadBytes;
  for (U32 a = 0; a < attempts; ++a) {
    U32 const s1 = head->seq.load(std::memory_order_acquire);
    if (s1 & 1U) {
      __builtin_ia32_pause();
      continue;
    }
    U16 const kl = __atomic_load_n(&head->keyLen, __ATOMIC_RELAXED);
    U16 const vl = __atomic_load_n(&head->valueLen, __ATOMIC_RELAXED);
    bool const sane = kl <= keyMax && vl <= valueMax;
    if (sane && kl) {
      std::memcpy(keyOut, bytes, kl);
      std::memcpy(valueOut, bytes + keyMax, vl);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (head->seq.load(std::memory_order_relaxed) != s1) continue;
    if (!sane) {
      if (why) {
        *why = "stored length " + std::to_string(kl > keyMax ? kl : vl) + " above the limit " +
               std::to_string(kl > keyMax ? keyMax : valueMax);
      }
      return SlotRead::corrupt;
    }
    if (kl == 0) {
      if (vl != 0) {
        if (why) *why = "empty slot with a value length";
        return SlotRead::corrupt;
      }
      return SlotRead::empty;
    }
    *keyLen = kl;
    *valueLen = vl;
    return SlotRead::present;
  }
  return SlotRead::busy;
}

void writeSlot(void* slot, U32 keyMax, U8 const* key, U16 keyLen, U8 const* value, U16 valueLen) {
  auto* head = static_cast<SlotHead*>(slot);
  U32 const s = head->seq.load(std::memory_order_relaxed);
  U32 const odd = (s & 1U) ? s + 2 : s + 1;  // a slot left odd by a killed writer stays odd
  head->seq.store(odd, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  // The value lives after the whole key area, so both copies are fixed
  // offsets whatever the key's length.
  auto* bytes = static_cast<U8*>(slot) + slotHeadBytes;
  if (key && keyLen) {
    std::memcpy(bytes, key, keyLen);
    if (valueLen) std::memcpy(bytes + keyMax, value, valueLen);
    __atomic_store_n(&head->keyLen, keyLen, __ATOMIC_RELAXED);
    __atomic_store_n(&head->valueLen, valueLen, __ATOMIC_RELAXED);
  } else {
    __atomic_store_n(&head->keyLen, U16(0), __ATOMIC_RELAXED);
    __atomic_store_n(&head->valueLen, U16(0), __ATOMIC_RELAXED);
  }
  head->seq.store(odd + 1, std::memory_order_release);
}

}  // namespace Shoal::Layout
