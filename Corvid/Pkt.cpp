#include <Corvid/Pkt.h>

#include <Brio/Exception.h>

#include <cstring>
#include <string>

namespace Corvid {

// --- Pkt::SharedBuffer ----------------------------------------------------------
// The bytes share the object's heap block and start right after it (see
// "shared buffer memory" at the end of this file), so buffer_ is this + 1.
// A new buffer is empty with every byte headroom: the data starts at the
// end, because packets are built by prepending headers, and tail room only
// appears once head data has been removed. Growth replaces the buffer rather
// than resizing it in place: shallow copies keep the bytes they saw, and
// the packet that grew drops its reference to the old block.

Pkt::SharedBuffer::SharedBuffer(U32 size)
    : buffer_(reinterpret_cast<U8*>(this + 1)), size_(size), data_(buffer_ + size), dataBytes_(0) {}

Brio::Ptr<Pkt::SharedBuffer> Pkt::SharedBuffer::sharedBufferFactory(U32 size) {
  return Brio::Ptr<SharedBuffer>(new (size) SharedBuffer(size));
}

// --- Pkt::Manager -----------------------------------------------------------------

Pkt::Manager::Manager() : Brio::Entity("Pkt::Manager") {}
Brio::Ptr<Pkt> Pkt::Manager::newPkt() const {
  Brio::Ptr<Pkt> pkt(new Pkt());
  pkt->sharedBufferIs(newSharedBuffer());
  return pkt;
}

Brio::Ptr<Pkt> Pkt::Manager::newShallowCopy(Brio::Ptr<Pkt> const& source) const {
  if (source->privateBufferBytes_) Brio::throwRangeException("shallow copy of packet with non-shared data");
  Brio::Ptr<Pkt> copy(new Pkt());
  if (source->sharedBuffer_) copy->sharedBufferIs(source->sharedBuffer_);
  copy->newSeparateVlanTag(source->tciField_, source->vlanTpid_);
  copy->tciPresent_ = source->tciPresent_;
  return copy;
}

Brio::Ptr<Pkt::Manager> const& globalPktManager() {
  static Brio::Ptr<Pkt::Manager> const manager(new Pkt::Manager());  // made once, on first use
  return manager;
}

Brio::Ptr<Pkt> pktFactory() {
  Brio::Ptr<Pkt> pkt(new Pkt());
  pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(10000));
  return pkt;
}

// --- Pkt: life and the iovec view --------------------------------------------------

Pkt::Pkt()
    : firstIoVec_(maxIovecs_),
      privateBufferData_(privateBuffer_ + privateBufferSize_),
      privateBufferBytes_(0),
      magicBarrier0_(magic_),
      magicBarrier1_(magic_),
      tciField_(0),
      vlanTpid_(0),
      tciPresent_(false) {
  iovec_[0] = {privateBufferData_, 0};
  iovec_[1] = {nullptr, 0};
}

Pkt::~Pkt() { checkMagic(); }

void Pkt::checkMagic() const {
  FENNEL_ASSERT(magicBarrier0_ == magic_);
  FENNEL_ASSERT(magicBarrier1_ == magic_);
}

iovec const& Pkt::ioVec(U32 index) const {
  if (index >= maxIovecs_) Brio::throwRangeException("no such iovec");
  return iovec_[index];
}

void Pkt::sharedBufferIs(Brio::Ptr<SharedBuffer> const& buffer) {
  FENNEL_ASSERT(firstIoVec_ == maxIovecs_);
  sharedBuffer_ = buffer;
  firstIoVec_ = 1;
  updateSharedIovec();
}

U32 Pkt::maxSharedData() const { return sharedBuffer_ ? sharedBuffer_->size() : 0; }

// --- content ---------------------------------------------------------------------

template <class Str>
Str Pkt::concatenated() const {
  std::string out;
  out.reserve(bytes());
  for (U32 i = firstIoVec_; i < maxIovecs_; ++i) {
    iovec const& v = ioVec(i);
    out.append(static_cast<char const*>(v.iov_base), v.iov_len);
  }
  return Str(std::move(out));
}

Brio::String Pkt::stringValue() const { return concatenated<Brio::String>(); }

Brio::Bytes Pkt::bytesValue() const { return concatenated<Brio::Bytes>(); }

// Both setters check for a shared buffer themselves: the failure names the attribute's line.
void Pkt::stringValueIs(Brio::String const& value, bool append) {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  valueIs(value, append);
}

// Raw contents arrive as Bytes from the socket layer and as String from text
// forms; both land the same way.
void Pkt::bytesValueIs(Brio::Bytes const& value, bool append) {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  valueIs(value, append);
}

template <class Str>
void Pkt::valueIs(Str const& value, bool append) {
  U32 const n = value.bytes();
  if (append) {
    newSharedTailData(n);
    std::memcpy(sharedBuffer_->data() + sharedBuffer_->dataBytes() - n, value.data(), n);
  } else {
    newSharedHeadData(n);
    std::memcpy(sharedBuffer_->data(), value.data(), n);
  }
}

Brio::String Pkt::stringValueMaybeWithVlan() const {
  Brio::String whole = stringValue();
  if (!tciPresent_ || whole.bytes() < 12) return whole;
  char const tag[4] = {static_cast<char>(vlanTpid_ >> 8), static_cast<char>(vlanTpid_),
                       static_cast<char>(tciField_ >> 8), static_cast<char>(tciField_)};
  std::string out;
  out.reserve(whole.bytes() + 4);
  out.append(whole.data(), 12).append(tag, 4).append(whole.data() + 12, whole.bytes() - 12);
  return Brio::String(std::move(out));
}

U8* Pkt::rawBytePtr(U32 index) const {
  U32 rest = index;
  for (U8 i = firstIoVec_; i < maxIovecs_; ++i) {
    if (rest < iovec_[i].iov_len) return static_cast<U8*>(iovec_[i].iov_base) + rest;
    rest -= static_cast<U32>(iovec_[i].iov_len);
  }
  FENNEL_ASSERT(index < bytes());
  __builtin_unreachable();
}

void Pkt::rawByteDel(U32) { FENNEL_ASSERT(!"rawByteDel is not supported"); }

// --- head and tail data ------------------------------------------------------------

void Pkt::growSharedHead(U32 n) {
  Brio::Ptr<SharedBuffer> grown = SharedBuffer::sharedBufferFactory(sharedBuffer_->size() + n);
  grown->dataAtEndIs(sharedBuffer_->dataBytes(), 0);
  std::memcpy(grown->data(), sharedBuffer_->data(), sharedBuffer_->dataBytes());
  sharedBuffer_ = grown;
}

void Pkt::growSharedTail(U32 n) {
  Brio::Ptr<SharedBuffer> grown = SharedBuffer::sharedBufferFactory(sharedBuffer_->size() + n);
  grown->dataAtEndIs(sharedBuffer_->dataBytes(), n);
  std::memcpy(grown->data(), sharedBuffer_->data(), sharedBuffer_->dataBytes());
  sharedBuffer_ = grown;
}

void Pkt::resetSharedData() {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  sharedBuffer_->resetData();
  updateSharedIovec();
}

void Pkt::updatePrivateIovec() {
  FENNEL_ASSERT(firstIoVec_ != maxIovecs_);
  FENNEL_ASSERT((firstIoVec_ == 0) || (sharedBuffer_ == 0));
  iovec_[firstIoVec_] = {privateBufferData_, privateBufferBytes_};
}

// The first claim activates the private iovec. Giving every private byte back
// deliberately leaves it active with length 0 (the socket layer keeps
// handing two iovecs); a packet in that state cannot make a first claim again.
void Pkt::newPrivateHeadData(U32 n) {
  if (privateBufferBytes_ == 0) {
    FENNEL_ASSERT(firstIoVec_ != 0);
    --firstIoVec_;
  }
  privateBufferData_ -= n;
  privateBufferBytes_ += n;
  FENNEL_ASSERT(ptrWithinRegion( privateBufferData_, privateBuffer_, privateBufferSize_ ));
  FENNEL_ASSERT(ptrWithinRegion( privateBufferData_ + privateBufferBytes_, privateBuffer_, privateBufferSize_ ));
  updatePrivateIovec();
}

void Pkt::delPrivateHeadData(U32 n) {
  FENNEL_ASSERT((firstIoVec_ == 0) || (sharedBuffer_ == 0));
  privateBufferData_ += n;
  privateBufferBytes_ -= n;
  FENNEL_ASSERT(ptrWithinRegion( privateBufferData_, privateBuffer_, privateBufferSize_ ));
  FENNEL_ASSERT(ptrWithinRegion( privateBufferData_ + privateBufferBytes_, privateBuffer_, privateBufferSize_ ));
  updatePrivateIovec();
}

// --- offsets -----------------------------------------------------------------------

// The shared length is deliberately taken as 16 bits: offsets are S16/U16 and
// consumers of jumbo buffers rely on the wrapped comparison.
bool Pkt::checkOffsetBounds() const {
  U16 const shared = static_cast<U16>(sharedBuffer_ ? sharedBuffer_->dataBytes() : 0);
  return beginOffset_ + endOffset_ <= shared;
}

void Pkt::beginOffsetIs(S16 offset) {
  beginOffset_ = offset;
  FENNEL_ASSERT(checkOffsetBounds());
}

void Pkt::beginOffsetInc(S16 delta) { beginOffsetIs(static_cast<S16>(beginOffset_ + delta)); }

void Pkt::endOffsetIs(U16 offset) {
  endOffset_ = offset;
  FENNEL_ASSERT(checkOffsetBounds());
}

U32 Pkt::offsetBytes() const {
  FENNEL_ASSERT(checkOffsetBounds());
  U32 const shared = sharedBuffer_ ? sharedBuffer_->dataBytes() : 0;
  return shared - static_cast<U32>(beginOffset_ + endOffset_);
}

// --- the separate tag ----------------------------------------------------------------

void Pkt::tciPriorityIs(U16 _tciPriority) {
  FENNEL_ASSERT(( _tciPriority & ~0x7) == 0);
  tciField_ = static_cast<U16>((tciField_ & 0x1fff) | (_tciPriority << 13));
}

void Pkt::tciVlanIdIs(U16 _tciVlanId) {
  FENNEL_ASSERT(( _tciVlanId & ~0x0fff) == 0);
  tciField_ = static_cast<U16>((tciField_ & 0xf000) | _tciVlanId);
}

void Pkt::newSeparateVlanTag(U16 tci, U16 tpid) {
  tciField_ = tci;
  vlanTpid_ = tpid;
  tciPresent_ = true;
}

void Pkt::delSeparateVlanTag() {
  tciField_ = 0;
  tciPresent_ = false;
}

// --- VLAN tag functions ----------------------------------------------------------------

namespace {

constexpr U16 tpid8021Q = 0x8100;
constexpr U16 tpid8021AD = 0x88A8;
constexpr U32 macBytes = 12;
constexpr U32 ethBytes = 14;
constexpr U32 taggedEthBytes = 18;

U32 frameBytes(Brio::Ptr<Pkt> const& pkt) {
  return pkt->sharedBuffer() ? pkt->sharedBuffer()->dataBytes() : 0;
}

U8* frame(Brio::Ptr<Pkt> const& pkt) { return pkt->sharedBuffer()->data(); }

U16 readU16(U8 const* p) { return static_cast<U16>((p[0] << 8) | p[1]); }

void writeU16(U8* p, U16 v) {
  p[0] = static_cast<U8>(v >> 8);
  p[1] = static_cast<U8>(v);
}

// The frame's EtherType, or 0 when the frame cannot hold a tag behind it.
U16 taggedEthType(Brio::Ptr<Pkt> const& pkt) {
  return frameBytes(pkt) >= taggedEthBytes ? readU16(frame(pkt) + macBytes) : 0;
}

}  // namespace

U16 vlanIdFromEthPkt(Brio::Ptr<Pkt> const& pkt) {
  if (pkt->tciPresent() && pkt->vlanTpid() == tpid8021Q) return pkt->tciVlanId();
  if (frameBytes(pkt) < ethBytes + 2 || readU16(frame(pkt) + macBytes) != tpid8021Q) return 0;
  pkt->delSharedHeadData(ethBytes);
  U16 const tci = readU16(frame(pkt));
  pkt->newSharedHeadData(ethBytes);
  return static_cast<U16>(tci & 0x0fff);
}

void addTagToSharedHeadData(Brio::Ptr<Pkt> const& pkt, U16 tci, U16 tpid) {
  FENNEL_ASSERT(frameBytes(pkt) >= macBytes);
  pkt->newSharedHeadData(4);
  U8* d = frame(pkt);
  std::memmove(d, d + 4, macBytes);
  writeU16(d + macBytes, tpid);
  writeU16(d + macBytes + 2, tci);
}

// A separate tag pushed into the frame keeps its VLAN id only: its priority
// and CFI bits are deliberately dropped, as the forwarding path re-marks them.
void addPktVlanTag(Brio::Ptr<Pkt> const& pkt, U16 vlanId) {
  if (!pkt->tciPresent()) {
    addTagToSharedHeadData(pkt, vlanId, tpid8021Q);
    return;
  }
  addTagToSharedHeadData(pkt, static_cast<U16>(pkt->tciField() & 0x0fff), pkt->vlanTpid());
  pkt->newSeparateVlanTag(vlanId, tpid8021Q);
}

void stripPktVlanTagSet(Brio::Ptr<Pkt> const& pkt, std::set<U16>& tpids) {
  if (pkt->tciPresent()) {
    if (tpids.count(pkt->vlanTpid())) pkt->delSeparateVlanTag();
    return;
  }
  if (!tpids.count(taggedEthType(pkt))) return;
  U8 macs[macBytes];
  U8* d = frame(pkt);
  std::memcpy(macs, d, macBytes);
  U16 const innerType = readU16(d + ethBytes + 2);
  pkt->delSharedHeadData(ethBytes);
  pkt->newSharedHeadData(ethBytes - 4);
  d = frame(pkt);
  std::memcpy(d, macs, macBytes);
  writeU16(d + macBytes, innerType);
}

void stripPktVlanTag(Brio::Ptr<Pkt> const& pkt) {
  std::set<U16> tpids{tpid8021Q};
  stripPktVlanTagSet(pkt, tpids);
}

void maybeOffloadAnyVlanTag(Brio::Ptr<Pkt> const& pkt) {
  std::set<U16> tpids{tpid8021Q, tpid8021AD};
  if (pkt->tciPresent()) return;
  U16 const tpid = taggedEthType(pkt);
  if (!tpids.count(tpid)) return;
  U16 const tci = readU16(frame(pkt) + ethBytes);
  stripPktVlanTagSet(pkt, tpids);
  pkt->newSeparateVlanTag(static_cast<U16>(tci & 0x0fff), tpid);
  pkt->tciPriorityIs(static_cast<U16>(tci >> 13));
  pkt->tciCfiIs((tci & 0x1000) != 0);
}

void fixupPktVlanTag(Brio::Ptr<Pkt> const& pkt, U16 vlanId, bool tagged) {
  if (!tagged) {
    stripPktVlanTag(pkt);
  } else if (!pkt->tciPresent()) {
    if (frameBytes(pkt) >= ethBytes + 2 && readU16(frame(pkt) + macBytes) == tpid8021Q) {
      U8* tci = frame(pkt) + ethBytes;
      writeU16(tci, static_cast<U16>((readU16(tci) & 0xf000) | (vlanId & 0x0fff)));
    } else {
      addPktVlanTag(pkt, vlanId);
    }
  } else if (pkt->vlanTpid() == tpid8021Q) {
    pkt->tciVlanIdIs(vlanId);
  } else {
    addPktVlanTag(pkt, vlanId);
  }
}

// --- shared buffer memory --------------------------------------------------------------
// A buffer's bytes follow the object in one block, behind a 16-byte prefix
// holding the block's size. Freed blocks of the size most recently in use
// are kept per thread (up to blockCacheSlots): default-size packets are made
// and dropped at the packet rate, and blocks of 1.5 KB are past what malloc
// caches per thread, so this saves most of a packet's allocation cost
// (measured in bench/PktBench). Under AddressSanitizer every block goes back
// to the allocator, so stale use of a buffer is still caught.

namespace {

constexpr std::size_t blockPrefix = 16;
constexpr U32 blockCacheSlots = 64;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool blockCacheOn = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool blockCacheOn = false;
#else
constexpr bool blockCacheOn = true;
#endif
#else
constexpr bool blockCacheOn = true;
#endif

// Trivially destructible, so it can be used (closed) even after the
// thread's destructors ran; BlockCacheCloser empties it at thread exit.
struct BlockCache {
  std::size_t blockBytes;
  U32 count;
  void* blocks[blockCacheSlots];
};
// The buffers' blocks, and the Pkt objects themselves (made and dropped at
// the same rate). initial-exec: a plain %fs-relative access per packet
// instead of a __tls_get_addr call; the library is linked with its
// programs, not loaded late with dlopen.
// Header wrappers come in a few sizes per program (an Ethernet, an IPv4
// and a UDP wrapper per packet, say): one small cache per size in use.
constexpr U32 wrapperCacheSlots = 16;
constexpr U32 wrapperSizes = 4;
struct WrapperCache {
  std::size_t blockBytes;
  U32 count;
  void* blocks[wrapperCacheSlots];
};
struct ThreadBlocks {
  BlockCache buffers;
  BlockCache packets;
  WrapperCache wrappers[wrapperSizes];
  bool closerArmed;
  bool closed;
};
__attribute__((tls_model("initial-exec"))) thread_local ThreadBlocks threadBlocks;

struct BlockCacheCloser {
  ~BlockCacheCloser() {
    for (BlockCache* c : {&threadBlocks.buffers, &threadBlocks.packets}) {
      while (c->count) ::operator delete(c->blocks[--c->count]);
    }
    for (WrapperCache& c : threadBlocks.wrappers) {
      while (c.count) ::operator delete(c.blocks[--c.count]);
    }
    threadBlocks.closed = true;
  }
};
thread_local BlockCacheCloser blockCacheCloser;

void armCloser() {
  if (!threadBlocks.closerArmed) {
    threadBlocks.closerArmed = true;
    static_cast<void>(&blockCacheCloser);  // made once per thread, closes the caches at thread exit
  }
}

void* blockAllocate(BlockCache& c, std::size_t bytes) {
  if (c.count && c.blockBytes == bytes) return c.blocks[--c.count];
  return ::operator new(bytes);
}

void blockRelease(BlockCache& c, void* block, std::size_t bytes) {
  if (!blockCacheOn || threadBlocks.closed || c.count == blockCacheSlots || (c.count && c.blockBytes != bytes)) {
    ::operator delete(block);
    return;
  }
  armCloser();
  c.blockBytes = bytes;
  c.blocks[c.count++] = block;
}

}  // namespace

namespace pktDetail {

void* wrapperAllocate(std::size_t bytes) {
  for (WrapperCache& c : threadBlocks.wrappers) {
    if (c.blockBytes == bytes && c.count) return c.blocks[--c.count];
  }
  return ::operator new(bytes);
}

void wrapperRelease(void* p, std::size_t bytes) {
  if (blockCacheOn && !threadBlocks.closed) {
    // The cache of this size, else an empty one taken over for it.
    WrapperCache* slot = nullptr;
    for (WrapperCache& c : threadBlocks.wrappers) {
      if (c.blockBytes == bytes) {
        slot = &c;
        break;
      }
    }
    for (WrapperCache& c : threadBlocks.wrappers) {
      if (!slot && c.count == 0) slot = &c;
    }
    if (slot && slot->count < wrapperCacheSlots) {
      armCloser();
      slot->blockBytes = bytes;
      slot->blocks[slot->count++] = p;
      return;
    }
  }
  ::operator delete(p);
}

}  // namespace pktDetail

void* Pkt::SharedBuffer::operator new(std::size_t objectBytes, U32 dataSize) {
  std::size_t const bytes = blockPrefix + objectBytes + dataSize;
  auto* block = static_cast<U8*>(blockAllocate(threadBlocks.buffers, bytes));
  std::memcpy(block, &bytes, sizeof bytes);
  return block + blockPrefix;
}

void Pkt::SharedBuffer::operator delete(void* p) {
  U8* const block = static_cast<U8*>(p) - blockPrefix;
  std::size_t bytes;
  std::memcpy(&bytes, block, sizeof bytes);
  blockRelease(threadBlocks.buffers, block, bytes);
}

void Pkt::SharedBuffer::operator delete(void* p, U32) { operator delete(p); }

void* Pkt::operator new(std::size_t bytes) { return blockAllocate(threadBlocks.packets, bytes); }

void Pkt::operator delete(void* p, std::size_t bytes) { blockRelease(threadBlocks.packets, p, bytes); }

}  // namespace Corvid
