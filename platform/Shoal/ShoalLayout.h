// The bytes of a shared table file, and the checks that read them.
//
// One file per table, mapped whole by the writer and by every reader:
//
//   0        +--------------------------------------------+
//            | fixed header (written once at creation)     |  magic, version, sizes,
//            |   collection descriptors [maxCollections]   |  names, offsets,
//            |   layoutCheck (hash of everything above)    |  a hash over all of it
//   1024     +--------------------------------------------+
//            | live header (one cache line each)           |  commitHead, logWritten,
//            |                                             |  rescanEpoch, writerPid, ...
//   4096     +--------------------------------------------+
//            | reader registrations [maxRegistrations]     |  pid, wantWake, token
//            +--------------------------------------------+
//            | change log: U32 slot index [logEntries]     |  a ring, position % logEntries
//            +--------------------------------------------+
//            | collection 0 slots [capacity]               |  each: seq, keyLen, valueLen,
//            | collection 1 slots ...                      |  key bytes, value bytes
//            +--------------------------------------------+
//
// Everything in the file is outside input to a reader: the fixed header is
// checked whole at mount (validateHeader) and compared with the reader's own
// copy on every pass, slot lengths are checked against the declared limits
// before any copy, and change-log entries are range checked. None of these
// checks allocates or loops on a value read from the file.
#pragma once

#include <Brio/Types.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>

namespace Shoal {

namespace Layout {

inline constexpr U64 magic = 0x31627453616f6853ULL;  // "ShoaStb1" little-endian
inline constexpr U32 version = 1;
inline constexpr U32 headerBytes = 4096;
inline constexpr U32 fixedBytes = 1024;
inline constexpr U32 maxCollections = 8;
inline constexpr U32 maxRegistrations = 64;
inline constexpr U32 nameBytes = 32;
inline constexpr U32 typeNameBytes = 64;
inline constexpr U32 maxSlots = 1U << 24;   // over all collections: a slot index fits 24 bits
inline constexpr U32 maxLogEntries = 1U << 24;
inline constexpr U32 minLogEntries = 16;
inline constexpr U32 maxFieldBytes = 65535;  // keyMax and valueMax fit the slot's U16 lengths
inline constexpr U32 slotHeadBytes = 8;

struct CollectionDesc {
  char name[nameBytes];
  U32 keyMax;
  U32 valueMax;
  U32 capacity;
  U32 slotBytes;   // slotHeadBytes + keyMax + valueMax, rounded up to 8
  U32 firstIndex;  // global slot index of this collection's slot 0
  U32 reserved;
  U64 slotsOffset;
};
static_assert(sizeof(CollectionDesc) == 64);

// Fixed part: written by the creating writer before the file is renamed into
// place and never changed afterwards.
struct FixedHeader {
  U64 magic;
  U32 version;
  U32 headerBytes;
  U64 fileBytes;
  U32 collections;
  U32 registrations;
  U32 logEntries;
  U32 reserved;
  U64 registrationOffset;
  U64 logOffset;
  char typeName[typeNameBytes];
  CollectionDesc desc[maxCollections];
  U32 layoutCheck;  // Brio::Hash over every byte before this field
};
static_assert(sizeof(FixedHeader) <= fixedBytes);

// Live part: the writer's positions, each on its own cache line so readers
// polling one do not bounce the line the writer is updating.
struct LiveHeader {
  alignas(64) std::atomic<U64> commitHead;  // change-log position published by the last commit
  alignas(64) std::atomic<U64> logWritten;  // position reserved by the writer (>= commitHead)
  alignas(64) std::atomic<U64> rescanEpoch; // bumped when every reader must rescan
  std::atomic<U64> commitCount;
  std::atomic<U32> writerPid;     // informative: the lock file decides who writes
  std::atomic<U32> retired;       // set when the file was replaced by a new one
  std::atomic<U32> writerStarts;  // mounts as writer, the first included
};
static_assert(sizeof(LiveHeader) <= headerBytes - fixedBytes);

struct Registration {
  std::atomic<U32> pid;       // 0: free; claimed by compare-and-swap
  std::atomic<U32> wantWake;  // 1: the reader waits for a datagram; the writer takes it to 0 and sends
  std::atomic<U64> token;  // names the reader's wake socket; 0 until it is bound
  U8 pad[48];
};
static_assert(sizeof(Registration) == 64);

// A slot. seq is odd while the writer changes the slot; keyLen 0 is empty.
struct SlotHead {
  std::atomic<U32> seq;
  U16 keyLen;
  U16 valueLen;
};
static_assert(sizeof(SlotHead) == slotHeadBytes);

inline FixedHeader* fixedHeader(void* base) { return static_cast<FixedHeader*>(base); }
inline LiveHeader* liveHeader(void* base) {
  return reinterpret_cast<LiveHeader*>(static_cast<char*>(base) + fixedBytes);
}

inline U32 slotBytesFor(U32 keyMax, U32 valueMax) { return (slotHeadBytes + keyMax + valueMax + 7U) & ~7U; }

// The declared shape of one collection, as a writer creates it or a reader
// expects it (a reader takes capacity from the file: capacity 0 = any).
struct CollectionShape {
  std::string name;
  U32 keyMax = 0;
  U32 valueMax = 0;
  U32 capacity = 0;
};

// Fills a fixed header for the given shapes; returns an empty string or why
// the shapes cannot be laid out.
std::string layoutHeader(FixedHeader* h, std::string const& typeName, CollectionShape const* shapes, U32 n,
                         U32 logEntries);

// Checks a fixed header read from a file of fileBytes bytes: every size,
// offset and name, and the layout hash. Returns an empty string when it is
// sound, else what is wrong. Touches only the first fixedBytes bytes.
std::string validateHeader(void const* fixed, std::size_t bytes, U64 fileBytes);

// Checks that a sound header holds exactly the expected collections (names,
// key and value limits; capacity too when the shape gives one).
std::string matchShapes(FixedHeader const* h, std::string const& typeName, CollectionShape const* shapes,
                        U32 n);

enum class SlotRead { present, empty, busy, corrupt };

// Copies one slot's key and value bytes out of shared memory without
// tearing: the copy counts only when the slot's sequence was even and equal
// before and after. keyOut/valueOut must hold keyMax/valueMax bytes. Gives
// up after `attempts` tries with busy (a writer killed in the middle of a
// write leaves the sequence odd until it restarts).
SlotRead readSlot(void const* slot, U32 keyMax, U32 valueMax, U8* keyOut, U16* keyLen, U8* valueOut,
                  U16* valueLen, U32 attempts, std::string* why);

// Writes one slot (the writer's side of the sequence protocol). A null key
// empties it.
void writeSlot(void* slot, U32 keyMax, U8 const* key, U16 keyLen, U8 const* value, U16 valueLen);

}  // namespace Layout

}  // namespace Shoal
