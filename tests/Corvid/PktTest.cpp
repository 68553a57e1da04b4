#include <Corvid/Pkt.h>

#include <Brio/Exception.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/PktCases.h"

namespace Corvid {
namespace {

using namespace CorvidTest;

Brio::Ptr<Pkt> pktWith(std::string const& bytes, U32 bufferSize = Pkt::Manager::initialBufferSize) {
  Brio::Ptr<Pkt> pkt = Brio::makePtr<Pkt>();
  pkt->sharedBufferIs(globalPktManager()->newSharedBuffer(bufferSize));
  pkt->stringValueIs(Brio::String(bytes));
  return pkt;
}

TEST(PktManager, NewPktIsEmptyWithAllOfTheDefaultBufferAsHeadroom) {
  Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
  EXPECT_EQ(pkt->bytes(), 0u);
  EXPECT_EQ(pkt->sharedBuffer()->headroom(), 1536u);
  EXPECT_EQ(pkt->firstIoVec(), 1);
  EXPECT_EQ(pktFactory()->maxSharedData(), 10000u);
}

TEST(PktManager, BufferSizeSettingNotifiesAndSizesLaterPackets) {
  struct Watcher : Pkt::Manager::Notifiee {
    int calls = 0;
    void handleDefaultBufferSize() override { ++calls; }
  };
  Brio::Ptr<Pkt::Manager> manager = Brio::makePtr<Pkt::Manager>();
  Watcher watcher;
  watcher.notifierIs(manager);
  manager->defaultBufferSizeIs(9000);
  manager->defaultBufferSizeIs(9000);
  EXPECT_EQ(watcher.calls, 1);
  EXPECT_EQ(manager->newPkt()->maxSharedData(), 9000u);
  watcher.notifierIs(nullptr);
}

TEST(PktPrivateHead, PacketWithoutSharedBufferViewsPrivateBytesInItsOnlyIovec) {
  Brio::Ptr<Pkt> pkt = Brio::makePtr<Pkt>();
  EXPECT_EQ(pkt->firstIoVec(), 2);
  EXPECT_EQ(pkt->bytes(), 0u);
  EXPECT_EQ(pkt->frontData(), nullptr);
  pkt->newPrivateHeadData(64);
  std::memset(pkt->privateBufferData(), 'x', 64);
  EXPECT_EQ(pkt->firstIoVec(), 1);
  EXPECT_EQ(pkt->stringValue(), std::string(64, 'x'));
  pkt->delPrivateHeadData(60);
  EXPECT_EQ(pkt->stringValue(), "xxxx");
  EXPECT_THROW(pkt->ioVec(2), Brio::RangeException);
}

TEST(PktShallowCopy, SharesTheBufferAndCarriesTheSeparateTag) {
  Brio::Ptr<Pkt> pkt = pktWith("abcdef");
  pkt->newSeparateVlanTag(0xA00B, 0x88A8);
  Brio::Ptr<Pkt> copy = globalPktManager()->newShallowCopy(pkt);
  EXPECT_EQ(copy->sharedBuffer(), pkt->sharedBuffer());
  EXPECT_EQ(copy->stringValue(), "abcdef");
  EXPECT_TRUE(copy->tciPresent());
  EXPECT_EQ(copy->tciField(), 0xA00B);
  EXPECT_EQ(copy->vlanTpid(), 0x88A8);
  // No copy-on-write: the copy's cached view still covers the old six bytes.
  pkt->delSharedHeadData(2);
  EXPECT_EQ(pkt->stringValue(), "cdef");
  EXPECT_EQ(copy->stringValue(), "abcdef");

  Brio::Ptr<Pkt> bare = globalPktManager()->newShallowCopy(Brio::makePtr<Pkt>());
  EXPECT_EQ(bare->firstIoVec(), 2);
}

TEST(PktShallowCopy, RefusesAPacketWithPrivateHeadBytes) {
  Brio::Ptr<Pkt> pkt = pktWith("abc");
  pkt->newPrivateHeadData(1);
  EXPECT_THAT([&] { globalPktManager()->newShallowCopy(pkt); },
              testing::ThrowsMessage<Brio::RangeException>(testing::StrEq("shallow copy of packet with non-shared data")));
}

TEST(PktVlan, StringValueInsertsTheSeparateTagOnlyWhenBothMacsArePresent) {
  Brio::Ptr<Pkt> shortPkt = pktWith(std::string(11, 'm'));
  shortPkt->newSeparateVlanTag(0x2064, 0x8100);
  EXPECT_EQ(shortPkt->stringValueMaybeWithVlan(), std::string(11, 'm'));
  Brio::Ptr<Pkt> pkt = pktWith(std::string(12, 'm'));
  EXPECT_EQ(pkt->stringValueMaybeWithVlan(), std::string(12, 'm'));
  pkt->newSeparateVlanTag(0x2064, 0x8100);
  EXPECT_EQ(toHex(pkt->stringValueMaybeWithVlan().str()), toHex(std::string(12, 'm')) + "81002064");
  // The twelve bytes may straddle the private and shared pieces.
  Brio::Ptr<Pkt> split = pktWith("MMMMMMMMMMxxyy");
  split->delSharedHeadData(2);
  split->newPrivateHeadData(2);
  std::memcpy(split->privateBufferData(), "MM", 2);
  split->newSeparateVlanTag(0x0005, 0x88A8);
  EXPECT_EQ(toHex(split->stringValueMaybeWithVlan().str()), toHex("MMMMMMMMMMxx") + "88a80005" + toHex("yy"));
}

TEST(PktVlan, TciBitFieldsReadAndWriteIndependently) {
  Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
  pkt->newSeparateVlanTag(0, 0x8100);
  pkt->tciVlanIdIs(0xABC);
  pkt->tciPriorityIs(5);
  pkt->tciCfiIs(true);
  EXPECT_EQ(pkt->tciField(), 0xBABC);
  pkt->tciPriorityIs(0);
  EXPECT_EQ(pkt->tciField(), 0x1ABC);
  EXPECT_TRUE(pkt->tciCfi());
  EXPECT_EQ(pkt->tciVlanId(), 0xABC);
  pkt->delSeparateVlanTag();
  EXPECT_FALSE(pkt->tciPresent());
  EXPECT_EQ(pkt->tciField(), 0);
  EXPECT_EQ(pkt->vlanTpid(), 0x8100);  // left as it was
}

// Frames: destination and source MAC, then what follows.
std::string const macs = "\x01\x02\x03\x04\x05\x06\x11\x12\x13\x14\x15\x16";
std::string frameWith(std::string const& rest) { return macs + rest; }
// The frame with one tag of `tpid` and `tci` between the MACs and the EtherType.
std::string withTag(U16 tpid, U16 tci) {
  char const tag[] = {static_cast<char>(tpid >> 8), static_cast<char>(tpid), static_cast<char>(tci >> 8),
                      static_cast<char>(tci)};
  return frameWith(std::string(tag, 4) + std::string("\x08\x00" "IP", 4));
}

std::string const tagged100 = withTag(0x8100, 0xA064);
std::string const untagged = frameWith(std::string("\x08\x00" "IP", 4));
std::string const qinq = withTag(0x88A8, 0x2007);

// The separate tag as "tpid:tci" in hex, "" when there is none.
std::string separateTag(Brio::Ptr<Pkt> const& pkt) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%04x:%04x", pkt->vlanTpid(), pkt->tciField());
  return pkt->tciPresent() ? buf : "";
}

// The VLAN vlanIdFromEthPkt must find after an edit: a separate 0x8100
// tag's, else the frame's own tag's when it is a 0x8100 one, else none.
U16 vlanOf(std::string const& frame, std::string const& tag) {
  if (tag.starts_with("8100:")) return std::stoi(tag.substr(5), nullptr, 16) & 0xfff;
  if (frame.size() < 16 || frame.compare(12, 2, "\x81\x00", 2) != 0) return 0;
  return (static_cast<U8>(frame[14]) << 8 | static_cast<U8>(frame[15])) & 0xfff;
}

TEST(PktVlanFunctions, EachEditLeavesTheFrameTheSeparateTagAndTheVlanAsTabled) {
  std::set<U16> const both{0x8100, 0x88A8}, dot1q{0x8100};
  auto add = [](U16 vlan) { return [vlan](Brio::Ptr<Pkt> const& p) { addPktVlanTag(p, vlan); }; };
  auto strip = [](std::set<U16> tpids) {
    return [=](Brio::Ptr<Pkt> const& p) mutable { stripPktVlanTagSet(p, tpids); };
  };
  auto fixup = [](U16 vlan, bool on) { return [=](Brio::Ptr<Pkt> const& p) { fixupPktVlanTag(p, vlan, on); }; };
  auto const offload = [](Brio::Ptr<Pkt> const& p) { maybeOffloadAnyVlanTag(p); };
  struct Case {
    char const* name;
    std::string frame;
    char const* tag;  // the separate tag before, as "tpid:tci"; "" for none
    std::function<void(Brio::Ptr<Pkt> const&)> edit;
    std::string after;
    char const* tagAfter;
  } const cases[] = {
      {"add to an untagged frame", untagged, "", add(100), withTag(0x8100, 100), ""},
      {"add pushes the separate tag in without its priority", untagged, "88a8:b00a", add(20), withTag(0x88A8, 10),
       "8100:0014"},
      {"strip 0x8100", tagged100, "", strip(dot1q), untagged, ""},
      {"strip 0x8100 leaves 0x88a8", qinq, "", strip(dot1q), qinq, ""},
      {"strip either", qinq, "", strip(both), untagged, ""},
      {"strip untagged", untagged, "", strip(both), untagged, ""},
      {"strip a frame too short to carry a tag", frameWith("\x81\x00\x00"), "", strip(both), frameWith("\x81\x00\x00"),
       ""},
      {"strip a frame shorter than its MACs", macs.substr(0, 10), "", strip(both), macs.substr(0, 10), ""},
      {"plain strip: the outermost tag is the separate 0x88a8 one", tagged100, "88a8:0005",
       [](Brio::Ptr<Pkt> const& p) { stripPktVlanTag(p); }, tagged100, "88a8:0005"},
      {"strip takes the separate tag first", tagged100, "88a8:0005", strip(both), tagged100, ""},
      {"offload keeps priority and CFI", withTag(0x88A8, 0xB007), "", offload, untagged, "88a8:b007"},
      {"offload beside a separate tag", tagged100, "88a8:b007", offload, tagged100, "88a8:b007"},
      {"offload untagged", untagged, "", offload, untagged, ""},
      {"fixup keeps the frame's priority and CFI", withTag(0x8100, 0xB064), "", fixup(0x123, true), withTag(0x8100, 0xB123),
       ""},
      {"fixup strips", tagged100, "", fixup(0, false), untagged, ""},
      {"fixup adds", untagged, "", fixup(7, true), withTag(0x8100, 7), ""},
      {"fixup rewrites a separate 0x8100 tag", untagged, "8100:6005", fixup(9, true), untagged, "8100:6009"},
      {"fixup pushes a separate 0x88a8 tag in", untagged, "88a8:0005", fixup(9, true), withTag(0x88A8, 5), "8100:0009"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Brio::Ptr<Pkt> pkt = pktWith(c.frame);
    if (*c.tag) pkt->newSeparateVlanTag(std::stoi(c.tag + 5, nullptr, 16), std::stoi(c.tag, nullptr, 16));
    c.edit(pkt);
    EXPECT_EQ(toHex(pkt->stringValue().str()), toHex(c.after));
    EXPECT_EQ(separateTag(pkt), c.tagAfter);
    EXPECT_EQ(vlanIdFromEthPkt(pkt), vlanOf(c.after, c.tagAfter));
  }
}

TEST(PktOffsets, BoundsUseTheSharedLengthTruncatedToSixteenBits) {
  Brio::Ptr<Pkt> pkt = pktWith(std::string(100, 'p'));
  pkt->beginOffsetIs(10);
  pkt->endOffsetIs(20);
  EXPECT_EQ(pkt->offsetBytes(), 70u);
  pkt->beginOffsetInc(-15);
  EXPECT_EQ(pkt->offsetBytes(), 85u);

  Brio::Ptr<Pkt> jumbo = pktWith(std::string(65536 + 10, 'j'), 65536 + 10);
  jumbo->endOffsetIs(10);  // 65546 bytes read as 16 bits leave 10
  EXPECT_DEATH(jumbo->beginOffsetIs(1), assertion("checkOffsetBounds()"));
}

TEST(PktDeath, CallerVisibleAssertionsNameTheBrokenInvariant) {
  Brio::Ptr<Pkt> bare = Brio::makePtr<Pkt>();
  EXPECT_DEATH(bare->newSharedHeadData(1), assertion("sharedBuffer_ != 0"));
  EXPECT_DEATH(bare->stringValueIs("x"), assertion("sharedBuffer_ != 0"));
  EXPECT_DEATH(bare->bytesValueIs(Brio::Bytes("x"), true), assertion("sharedBuffer_ != 0"));
  // Operators grep for these two lines of Pkt.cpp in field reports.
  EXPECT_DEATH(bare->stringValueIs("x"), testing::HasSubstr("Pkt.cpp:110 in stringValueIs"));
  EXPECT_DEATH(bare->bytesValueIs(Brio::Bytes("x")), testing::HasSubstr("Pkt.cpp:117 in bytesValueIs"));
  EXPECT_DEATH(bare->resetSharedData(), assertion("sharedBuffer_ != 0"));

  Brio::Ptr<Pkt> pkt = pktWith("0123456789");
  EXPECT_DEATH(pkt->sharedBufferIs(globalPktManager()->newSharedBuffer()), assertion("firstIoVec_ == maxIovecs_"));
  EXPECT_DEATH(pkt->delSharedHeadData(11), assertion("ptrWithinRegion( data_, buffer_, size_ )"));
  EXPECT_DEATH(pkt->delSharedTailData(11), assertion("ptrWithinRegion( data_ + dataBytes_, buffer_, size_ )"));
  EXPECT_DEATH(pkt->rawByte(10), assertion("index < bytes()"));
  EXPECT_DEATH(pkt->rawByteDel(0), assertion("!\"rawByteDel is not supported\""));
  EXPECT_DEATH(pkt->tciPriorityIs(8), assertion("( _tciPriority & ~0x7) == 0"));
  EXPECT_DEATH(pkt->tciVlanIdIs(0x1000), assertion("( _tciVlanId & ~0x0fff) == 0"));
  EXPECT_DEATH(pkt->delPrivateHeadData(1), assertion("(firstIoVec_ == 0) || (sharedBuffer_ == 0)"));
  EXPECT_DEATH(pkt->endOffsetIs(11), assertion("checkOffsetBounds()"));

  pkt->newPrivateHeadData(60);
  EXPECT_DEATH(pkt->newPrivateHeadData(5),
               assertion("ptrWithinRegion( privateBufferData_, privateBuffer_, privateBufferSize_ )"));
  EXPECT_DEATH(pkt->delPrivateHeadData(61),
               assertion("ptrWithinRegion( privateBufferData_, privateBuffer_, privateBufferSize_ )"));
  pkt->delPrivateHeadData(60);
  EXPECT_DEATH(pkt->newPrivateHeadData(1), assertion("firstIoVec_ != 0"));

  Brio::Ptr<Pkt> shortFrame = pktWith("0123");
  EXPECT_DEATH(addPktVlanTag(shortFrame, 1), assertion("frameBytes(pkt) >= macBytes"));
  Brio::Ptr<Pkt> sep = pktWith(untagged);
  sep->newSeparateVlanTag(0, 0x8100);
  EXPECT_DEATH(fixupPktVlanTag(sep, 0x1000, true), assertion("( _tciVlanId & ~0x0fff) == 0"));
}

TEST(PktDeath, OverrunOfThePrivateHeadBufferIsCaughtByTheGuardWords) {
  EXPECT_DEATH(
      {
        Brio::Ptr<Pkt> pkt = pktWith("x");
        pkt->newPrivateHeadData(64);
        pkt->privateBufferData()[-1] = 0;  // one byte in front of the private buffer
        pkt = nullptr;
      },
      assertion("magicBarrier0_ == magic_"));
  EXPECT_DEATH(
      {
        Brio::Ptr<Pkt> pkt = pktWith("x");
        pkt->newPrivateHeadData(1);
        pkt->privateBufferData()[1] = 0;  // one byte past its end
        pkt->checkMagic();
      },
      assertion("magicBarrier1_ == magic_"));
}

// The packet against a plain byte vector mutated in step: random sequences
// of every head, tail and private operation, with the buffer geometry
// predicted by the exact-growth rule. The first divergence is reported with
// the operations that led to it.
class PktModel {
 public:
  explicit PktModel(U32 size) : size_(size), head_(size) {
    pkt_ = Brio::makePtr<Pkt>();
    pkt_->sharedBufferIs(globalPktManager()->newSharedBuffer(size));
  }

  void step(std::mt19937& rng) {
    U32 const len = static_cast<U32>(shared_.size());
    std::uniform_int_distribution<U32> upTo(0, 40);
    bool const atHead = rng() & 1;
    switch (std::uniform_int_distribution<U32>(0, 6)(rng)) {
      case 0: {
        std::string const fill = randomBytes(rng, upTo(rng));
        U32 const n = static_cast<U32>(fill.size());
        log(atHead ? "newSharedHeadData" : "newSharedTailData", n);
        atHead ? pkt_->newSharedHeadData(n) : pkt_->newSharedTailData(n);
        std::memcpy(pkt_->sharedBuffer()->data() + (atHead ? 0 : len), fill.data(), n);
        atHead ? prepended(fill) : appended(fill);
        break;
      }
      case 1: {
        U32 const n = std::min(upTo(rng), len);
        log(atHead ? "delSharedHeadData" : "delSharedTailData", n);
        if (atHead) {
          pkt_->delSharedHeadData(n);
          shared_.erase(0, n);
          head_ += n;
        } else {
          pkt_->delSharedTailData(n);
          shared_.resize(len - n);
        }
        break;
      }
      case 2: {
        // A first claim is possible only once: giving all bytes back keeps iovec 0.
        if (privateReleased_ && private_.empty()) return;
        U32 n = std::min(upTo(rng) % 9 + 1, 64 - static_cast<U32>(private_.size()));
        if (n == 0) return;
        log("newPrivateHeadData", n);
        pkt_->newPrivateHeadData(n);
        std::string fill = randomBytes(rng, n);
        std::memcpy(pkt_->privateBufferData(), fill.data(), n);
        private_.insert(0, fill);
        break;
      }
      case 3: {
        if (pkt_->firstIoVec() != 0) return;
        U32 n = std::min(upTo(rng) % 9, static_cast<U32>(private_.size()));
        log("delPrivateHeadData", n);
        pkt_->delPrivateHeadData(n);
        private_.erase(0, n);
        if (private_.empty()) privateReleased_ = true;
        break;
      }
      case 4: {
        log("resetSharedData", 0);
        pkt_->resetSharedData();
        shared_.clear();
        head_ = size_;
        break;
      }
      case 5: {
        std::string const s = randomBytes(rng, upTo(rng));
        log(atHead ? "stringValueIs" : "bytesValueIs(append)", s.size());
        atHead ? pkt_->stringValueIs(Brio::String(s)) : pkt_->bytesValueIs(Brio::Bytes(s), true);
        atHead ? prepended(s) : appended(s);
        break;
      }
      default: {
        std::string whole = private_ + shared_;
        if (whole.empty()) return;
        U32 i = static_cast<U32>(rng() % whole.size());
        U8 v = static_cast<U8>(rng());
        log("rawByteIs", i);
        pkt_->rawByteIs(i, v);
        (i < private_.size() ? private_[i] : shared_[i - private_.size()]) = static_cast<char>(v);
      }
    }
  }

  // Empty when packet and model agree.
  std::string divergence() const {
    std::string const expected = private_ + shared_;
    if (pkt_->stringValue().str() != expected) return "contents " + toHex(pkt_->stringValue().str()) + " vs " + toHex(expected);
    if (pkt_->bytesValue().str() != expected) return "bytesValue";
    if (pkt_->bytes() != expected.size()) return "bytes";
    if (pkt_->maxSharedData() != size_) return "size " + std::to_string(pkt_->maxSharedData()) + " vs " + std::to_string(size_);
    if (pkt_->sharedBuffer()->headroom() != head_) return "headroom";
    // Private bytes come first, in iovec 0, which stays once claimed.
    bool const claimed = privateReleased_ || !private_.empty();
    if (pkt_->firstIoVec() != (claimed ? 0 : 1)) return "firstIoVec";
    if (pkt_->frontBytes() != (claimed ? private_ : shared_).size()) return "frontBytes";
    if (pkt_->ioVecs()[0].iov_len != (claimed ? private_ : shared_).size()) return "first iovec";
    if (pkt_->ioVecs()[pkt_->ioVecCount() - 1].iov_len != shared_.size()) return "shared iovec";
    for (U32 i = 0; i < expected.size(); i += 7) {
      if (pkt_->rawByte(i) != static_cast<U8>(expected[i])) return "rawByte " + std::to_string(i);
    }
    return "";
  }
  std::string const& history() const { return history_; }

 private:
  static std::string randomBytes(std::mt19937& rng, U32 n) {
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(rng());
    return s;
  }
  void log(char const* op, std::size_t n) { history_ += std::string(op) + "(" + std::to_string(n) + ") "; }
  // The exact-growth rule: a buffer short of room grows by the bytes asked
  // for, and the data sits at the new buffer's far end.
  void prepended(std::string const& bytes) {
    U32 const n = static_cast<U32>(bytes.size()), len = static_cast<U32>(shared_.size());
    if (head_ < n) {
      size_ += n;
      head_ = size_ - len;
    }
    head_ -= n;
    shared_.insert(0, bytes);
  }
  void appended(std::string const& bytes) {
    U32 const n = static_cast<U32>(bytes.size()), len = static_cast<U32>(shared_.size());
    if (size_ - head_ - len < n) {
      size_ += n;
      head_ = size_ - len - n;
    }
    shared_ += bytes;
  }

  Brio::Ptr<Pkt> pkt_;
  std::string shared_;
  std::string private_;
  bool privateReleased_ = false;
  U32 size_;
  U32 head_;
  std::string history_;
};

TEST(PktModel, RandomOperationSequencesMatchAPlainByteVector) {
  for (U32 seed = 1; seed <= 200; ++seed) {
    std::mt19937 rng(seed);
    PktModel model(seed % 3 == 0 ? 0 : seed % 97);
    for (int i = 0; i < 300; ++i) {
      model.step(rng);
      std::string const d = model.divergence();
      ASSERT_EQ(d, "") << "seed " << seed << " after: " << model.history();
    }
  }
}

}  // namespace
}  // namespace Corvid
