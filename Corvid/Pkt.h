// Pkt: the library's one packet buffer.
//
// A packet is built from the back: its bytes live at the *end* of a
// reference-counted Pkt::SharedBuffer, so every free byte starts out as
// headroom and a protocol header is added by moving the start of the data
// backwards and writing into the space so freed. Nothing is copied while the
// headroom lasts; when it runs out the buffer is replaced by one exactly n
// bytes larger (no spare factor: most packets never grow, and those that do
// grow once) and the data copied once. A second, 64-byte buffer inside the
// Pkt object holds private head bytes in front of the shared data, so a
// packet is never more than two iovecs and goes to the kernel in one
// vectored send without being flattened.
//
//   Pkt::SharedBuffer (heap, shared by shallow copies)
//
//   buffer()           data()                   data() + dataBytes()   buffer() + size()
//   |<--- headroom() --->|<------- dataBytes() ------->|<--- tailroom() --->|
//                        ^ newSharedHeadData(n): n left ^ newSharedTailData(n): n right
//                          delSharedHeadData(n): n right  delSharedTailData(n): n left
//
//   Pkt (private head bytes, filled from the end backwards)
//
//   privateBuffer_    privateBufferData()                privateBuffer_ + 64
//   |<--- free --->|<------ privateBufferBytes() ------>|
//                  ^ newPrivateHeadData(n): n left, delPrivateHeadData(n): n right
//
//   What a consumer sees, ioVecs()[0 .. ioVecCount()):
//     iovec 0 = private head bytes (only once some were claimed), iovec 1 = shared data.
//
// Shallow copies share one SharedBuffer and there is no copy-on-write: a
// head or tail change through one packet moves the shared data in place and
// only that packet refreshes its iovec view. Callers that share a buffer
// change the head or tail through one of the sharing packets only.
//
// A packet is used by one thread at a time; its reference counts (and the
// shared buffer's) follow the framework's thread-safe-pointer mode.
#pragma once

#include <Brio/Entity.h>
#include <Brio/Ptr.h>
#include <Brio/String.h>
#include <Brio/Types.h>
#include <Fennel/Fennel.h>

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <set>

namespace Corvid {

// True when p lies in [base, base + size]: the end itself counts, because an
// empty run of data may sit exactly at the end of its buffer.
inline bool ptrWithinRegion(U8 const* p, U8 const* base, U32 size) {
  auto const a = reinterpret_cast<std::uintptr_t>(p);
  auto const b = reinterpret_cast<std::uintptr_t>(base);
  return a >= b && a - b <= size;
}

class Pkt : public Brio::PtrInterface {
 public:
  class SharedBuffer;
  class Manager;

  static constexpr U8 maxIovecs_ = 2;
  static constexpr U32 privateBufferSize_ = 64;
  static constexpr U32 magic_ = 0xBEEFCAFE;

  // An empty packet: no shared buffer (firstIoVec() 2), no private bytes and
  // no separate VLAN tag. Manager::newPkt() is the usual way to get one.
  Pkt();
  virtual char const* fwkType() const { return "Corvid::Pkt"; }

  // --- the iovec view -------------------------------------------------------
  // firstIoVec(): 2 = no data at all, 1 = shared data only, 0 = private head
  // bytes followed by shared data.
  U8 firstIoVec() const { return firstIoVec_; }
  // The valid entries, ready for sendmsg/writev.
  iovec const* ioVecs() const { return iovec_ + firstIoVec_; }
  U32 ioVecCount() const { return maxIovecs_ - firstIoVec_; }
  // Entry `index` of the two; throws Brio::RangeException "no such iovec" past the last.
  iovec const& ioVec(U32 index) const;
  // The first valid piece: headers are only ever bound inside it.
  U8* frontData() const {
    return firstIoVec_ == maxIovecs_ ? nullptr : static_cast<U8*>(iovec_[firstIoVec_].iov_base);
  }
  U32 frontBytes() const {
    return firstIoVec_ == maxIovecs_ ? 0 : static_cast<U32>(iovec_[firstIoVec_].iov_len);
  }

  Brio::Ptr<SharedBuffer> const& sharedBuffer() const { return sharedBuffer_; }
  // Binds a shared buffer to a packet that has none yet.
  void sharedBufferIs(Brio::Ptr<SharedBuffer> const& buffer);
  U8* privateBufferData() const { return privateBufferData_; }
  U32 privateBufferBytes() const { return privateBufferBytes_; }

  // --- content ----------------------------------------------------------------
  // Total length of the valid iovecs; 0 without any.
  U32 bytes() const {
    U32 n = 0;
    for (U8 i = firstIoVec_; i < maxIovecs_; ++i) n += static_cast<U32>(iovec_[i].iov_len);
    return n;
  }
  bool empty() const { return bytes() == 0; }
  // The iovecs concatenated in order (one copy of every byte).
  Brio::String stringValue() const;
  Brio::Bytes bytesValue() const;
  // As stringValue(), with the separate VLAN tag (TPID, TCI, network order)
  // inserted after the two MAC addresses when one is carried and the packet
  // holds them.
  Brio::String stringValueMaybeWithVlan() const;
  // append false: the bytes become head data in front of the shared data
  // (growing the buffer when the headroom is short); append true: tail data.
  void stringValueIs(Brio::String const& value, bool append = false);
  void bytesValueIs(Brio::Bytes const& value, bool append = false);

  // Byte i across the iovecs; i must be below bytes(). Walks at most two iovecs.
  U8 rawByte(U32 i) const { return *rawBytePtr(i); }
  // Const: it writes through the iovec view, not into the packet object.
  void rawByteIs(U32 i, U8 value) const { *rawBytePtr(i) = value; }
  // Not supported: bytes are removed with the head and tail operations.
  void rawByteDel(U32 i);

  // Allocated length of the shared buffer; 0 without one.
  U32 maxSharedData() const;

  // --- head and tail data of the shared buffer ---------------------------------
  // Claims n bytes in front of the shared data for the caller to fill. Free
  // while the headroom lasts; otherwise the buffer is replaced by one of
  // size + n bytes and the data copied once.
  void newSharedHeadData(U32 n);
  void delSharedHeadData(U32 n);
  // Appends n bytes; reallocates (size + n, data ending at the buffer end)
  // when the tailroom is short, which it always is on a fresh buffer.
  void newSharedTailData(U32 n);
  void delSharedTailData(U32 n);
  // Empties the shared buffer for reuse (all headroom again); receive loops
  // that keep one packet per read slot call it before each read.
  void resetSharedData();

  // --- private head bytes (at most privateBufferSize_ in all) --------------------
  void newPrivateHeadData(U32 n);
  void delPrivateHeadData(U32 n);

  // --- offsets a consumer skips at the front and back of the shared data ------
  S16 beginOffset() const { return beginOffset_; }
  void beginOffsetIs(S16 offset);
  void beginOffsetInc(S16 delta);
  U16 endOffset() const { return endOffset_; }
  void endOffsetIs(U16 offset);
  // Shared data length less both offsets.
  U32 offsetBytes() const;
  // beginOffset + endOffset fit in the shared data length taken as 16 bits.
  bool checkOffsetBounds() const;

  // --- the separate 802.1Q tag, kept beside the data ----------------------------
  bool tciPresent() const { return tciPresent_; }
  void tciPresentIs(bool present) { tciPresent_ = present; }
  U16 tciField() const { return tciField_; }
  void tciFieldIs(U16 tci) { tciField_ = tci; }
  U16 tciPriority() const { return static_cast<U16>(tciField_ >> 13); }
  void tciPriorityIs(U16 _tciPriority);
  bool tciCfi() const { return (tciField_ & 0x1000) != 0; }
  void tciCfiIs(bool cfi) { tciField_ = static_cast<U16>((tciField_ & ~0x1000) | (cfi ? 0x1000 : 0)); }
  U16 tciVlanId() const { return static_cast<U16>(tciField_ & 0x0fff); }
  void tciVlanIdIs(U16 _tciVlanId);
  // TPID in host order.
  U16 vlanTpid() const { return vlanTpid_; }
  void vlanTpidIs(U16 tpid) { vlanTpid_ = tpid; }
  void newSeparateVlanTag(U16 tci, U16 tpid);
  // Clears the TCI and the present flag; the TPID stays as it was.
  void delSeparateVlanTag();

  // Aborts when the guard words around the private head buffer were overwritten.
  void checkMagic() const;

  // Packets come from a per-thread cache of freed Pkt objects (see Pkt.cpp).
  static void* operator new(std::size_t bytes);
  static void operator delete(void* p, std::size_t bytes);

 protected:
  ~Pkt() override;

 private:
  U8* rawBytePtr(U32 i) const;
  void updateSharedIovec();
  void updatePrivateIovec();
  void growSharedHead(U32 n);
  void growSharedTail(U32 n);
  template <class Str>
  void valueIs(Str const& value, bool append);
  template <class Str>
  Str concatenated() const;

  iovec iovec_[maxIovecs_];
  U8 firstIoVec_;
  Brio::Ptr<SharedBuffer> sharedBuffer_;
  U8* privateBufferData_;
  U32 privateBufferBytes_;
  U32 magicBarrier0_;
  U8 privateBuffer_[privateBufferSize_];
  U32 magicBarrier1_;
  S16 beginOffset_ = 0;
  U16 endOffset_ = 0;
  U16 tciField_;
  U16 vlanTpid_;
  bool tciPresent_;
};

// The heap array behind one or more packets. The bytes are allocated with
// the object (one allocation per buffer) and freed with it.
class Pkt::SharedBuffer : public Brio::PtrInterface {
 public:
  // Makes an empty buffer of `size` bytes, all of them headroom.
  static Brio::Ptr<SharedBuffer> sharedBufferFactory(U32 size);

  U8* buffer() const { return buffer_; }
  U32 size() const { return size_; }
  U8* data() const { return data_; }
  U32 dataBytes() const { return dataBytes_; }
  U32 headroom() const { return static_cast<U32>(data_ - buffer_); }
  U32 tailroom() const { return static_cast<U32>(buffer_ + size_ - (data_ + dataBytes_)); }

  // Each checks the invariant afterwards: data() and data() + dataBytes()
  // stay inside [buffer(), buffer() + size()].
  void newHeadData(U32 n) {
    data_ -= n;
    dataBytes_ += n;
    checkInvariant();
  }
  void delHeadData(U32 n) {
    data_ += n;
    dataBytes_ -= n;
    checkInvariant();
  }
  void newTailData(U32 n) {
    dataBytes_ += n;
    checkInvariant();
  }
  void delTailData(U32 n) {
    dataBytes_ -= n;
    checkInvariant();
  }
  // Empty again, all headroom.
  void resetData() {
    data_ = buffer_ + size_;
    dataBytes_ = 0;
  }
  // Places `bytes` bytes of data so that they end `gap` bytes before the
  // buffer end; used when a grown buffer takes over old data.
  void dataAtEndIs(U32 bytes, U32 gap) {
    data_ = buffer_ + size_ - gap - bytes;
    dataBytes_ = bytes;
    checkInvariant();
  }

  // The invariant checks compare the holder with a literal 0; the framework's
  // Ptr cannot tell that 0 from a pointer on its own.
  friend bool operator==(Brio::Ptr<SharedBuffer> const& p, int zero) {
    return zero == 0 && p.ptr() == nullptr;
  }

  static void* operator new(std::size_t objectBytes, U32 dataSize);
  static void operator delete(void* p, U32 dataSize);
  static void operator delete(void* p);

 protected:
  ~SharedBuffer() override = default;

 private:
  explicit SharedBuffer(U32 size);
  void checkInvariant() const {
    FENNEL_ASSERT(ptrWithinRegion( data_, buffer_, size_ ));
    FENNEL_ASSERT(ptrWithinRegion( data_ + dataBytes_, buffer_, size_ ));
  }

  U8* buffer_;
  U32 size_;
  U8* data_;
  U32 dataBytes_;
};

// Makes packets and shared buffers. One per process (globalPktManager());
// its one setting is the size of the buffers newPkt() binds.
class Pkt::Manager : public Brio::Entity {
 public:
  static constexpr U32 initialBufferSize = 1536;

  class Notifiee : public Brio::EntityNotifiee<Manager> {
   public:
    virtual void handleDefaultBufferSize() {}
  };

  Manager();

  U32 defaultBufferSize() const { return defaultBufferSize_; }
  void defaultBufferSizeIs(U32 size) {
    attributeIs(defaultBufferSize_, size, &Notifiee::handleDefaultBufferSize);
  }

  // An empty buffer of `size` bytes, all headroom.
  Brio::Ptr<SharedBuffer> newSharedBuffer(U32 size) const { return SharedBuffer::sharedBufferFactory(size); }
  Brio::Ptr<SharedBuffer> newSharedBuffer() const { return newSharedBuffer(defaultBufferSize_); }
  // A packet bound to a new buffer of defaultBufferSize() bytes (one iovec, empty).
  Brio::Ptr<Pkt> newPkt() const;
  // A second packet over the same shared buffer (no bytes copied), carrying
  // the same separate tag. Throws Brio::RangeException "shallow copy of
  // packet with non-shared data" when the source has private head bytes.
  Brio::Ptr<Pkt> newShallowCopy(Brio::Ptr<Pkt> const& source) const;

 protected:
  ~Manager() override = default;

 private:
  U32 defaultBufferSize_ = initialBufferSize;
};

// The process-wide manager, made on first use.
Brio::Ptr<Pkt::Manager> const& globalPktManager();

// A packet with its own 10000-byte buffer: the maker used where frames of
// unknown size are built, so they rarely need to grow.
Brio::Ptr<Pkt> pktFactory();

// --- VLAN tags -------------------------------------------------------------------
// The frame is the Ethernet frame at the start of the packet's shared data
// (EtherType at bytes 12-13). Frames too short to hold what a function reads
// are left alone and read as untagged.

// The VLAN id of the outermost 0x8100 tag: the separate tag's, else the
// in-frame one's; 0 when there is none.
U16 vlanIdFromEthPkt(Brio::Ptr<Pkt> const& pkt);
// Inserts an in-frame tag after the MAC addresses (4 bytes of head data).
void addTagToSharedHeadData(Brio::Ptr<Pkt> const& pkt, U16 tci, U16 tpid);
// Adds a 0x8100 tag with TCI vlanId. A separate tag already carried is first
// pushed into the frame (VLAN id only) and the new tag becomes the separate one.
void addPktVlanTag(Brio::Ptr<Pkt> const& pkt, U16 vlanId);
// Removes the outermost tag when its TPID is in `tpids`; nothing otherwise.
void stripPktVlanTagSet(Brio::Ptr<Pkt> const& pkt, std::set<U16>& tpids);
void stripPktVlanTag(Brio::Ptr<Pkt> const& pkt);
// Moves an in-frame 0x8100 or 0x88A8 tag out of the frame into the separate
// tag, unless the packet already carries one.
void maybeOffloadAnyVlanTag(Brio::Ptr<Pkt> const& pkt);
// Makes the packet carry VLAN vlanId (tagged) or no 0x8100 tag (untagged).
void fixupPktVlanTag(Brio::Ptr<Pkt> const& pkt, U16 vlanId, bool tagged);

// --- inline fast paths -------------------------------------------------------------

inline void Pkt::updateSharedIovec() {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  FENNEL_ASSERT(firstIoVec_ != maxIovecs_);
  iovec_[1].iov_base = sharedBuffer_->data();
  iovec_[1].iov_len = sharedBuffer_->dataBytes();
}

inline void Pkt::newSharedHeadData(U32 n) {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  if (__builtin_expect(sharedBuffer_->headroom() < n, 0)) growSharedHead(n);
  sharedBuffer_->newHeadData(n);
  updateSharedIovec();
}

inline void Pkt::delSharedHeadData(U32 n) {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  sharedBuffer_->delHeadData(n);
  updateSharedIovec();
}

inline void Pkt::newSharedTailData(U32 n) {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  if (__builtin_expect(sharedBuffer_->tailroom() < n, 0)) growSharedTail(n);
  sharedBuffer_->newTailData(n);
  updateSharedIovec();
}

inline void Pkt::delSharedTailData(U32 n) {
  FENNEL_ASSERT(sharedBuffer_ != 0);
  sharedBuffer_->delTailData(n);
  updateSharedIovec();
}

}  // namespace Corvid
