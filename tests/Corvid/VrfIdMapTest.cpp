#include <Corvid/VrfIdMap.h>
#include <Glimmer/Glimmer.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "support/ShoalScope.h"
#include "support/ValueCases.h"

namespace {

using Brio::String;
using CorvidTest::Child;
using CorvidTest::ShoalRoot;
using CorvidTest::errorOf;
using Shoal::MountMode;
using namespace Vrf::VrfIdMap;

struct TraceOn {
  TraceOn() { Glimmer::enable("VrfIdMap", 9); }
  ~TraceOn() { Glimmer::enable("VrfIdMap", -1); }
};

// --- values ---------------------------------------------------------------------

TEST(VrfId, DefaultIsTheInvalidNullAndTheReservedIdsAreValid) {
  EXPECT_EQ(VrfId(), VrfId::null());
  EXPECT_EQ(VrfId().value(), 16777215u);
  EXPECT_FALSE(VrfId().valid());
  for (VrfId v : {VrfId::defaultVrf(), VrfId::globalVrfId(), VrfId::multiVrfId(), VrfId(4294967295u)}) {
    EXPECT_TRUE(v.valid()) << v.value();
  }
  EXPECT_EQ(VrfId::defaultVrf().value(), 0u);
}

TEST(VrfId, TextFormIsTheDecimalNumber) {
  struct {
    char const* text;
    char const* outcome;  // "= <value's text>" or the message
  } const cases[] = {
      {"0", "= 0"},          {"16777215", "= 16777215"}, {"4294967295", "= 4294967295"},
      {"4294967296", "Invalid VrfId"}, {"", "Invalid VrfId"}, {"12a", "Invalid VrfId"}, {"-1", "Invalid VrfId"},
  };
  for (auto const& c : cases) {
    EXPECT_EQ(CorvidTest::outcomeOf([&] { return valueToStrep(VrfId{String(c.text)}).str(); }), c.outcome) << c.text;
  }
}

// An entry's truth (present or not) is what the reverse mapper acts on:
// ReverseMapperKeepsTheNewIdOfARecreatedName.
TEST(VrfEntry, NamesAreReadUpToOneHundredOneBytes) {
  struct {
    U32 storedLength;
    bool reads;
  } const cases[] = {{0, true}, {100, true}, {101, true}, {102, false}, {100000, false}};
  for (auto const& c : cases) {
    Brio::NboAttrLog log;
    log.writeU32(9);
    log.writeU32(c.storedLength);
    for (U32 i = 0; i < std::min<U32>(c.storedLength, 200); ++i) log.writeU8('x');
    Brio::NboAttrLog in(log.data());
    if (c.reads) {
      VrfEntry r = attrLogRead(in, static_cast<VrfEntry*>(nullptr));
      EXPECT_EQ(r.vrfName().bytes(), c.storedLength);
      EXPECT_EQ(r.vrfId(), VrfId(9));
    } else {
      EXPECT_THROW(attrLogRead(in, static_cast<VrfEntry*>(nullptr)), Brio::SizeException) << c.storedLength;
    }
  }
}

TEST(VrfNameIndex, RangeIsTheTableSize) {
  EXPECT_EQ(errorOf([] { VrfNameIndex(2047); }), "");
  EXPECT_EQ(errorOf([] { VrfNameIndex(2048); }),
            "VrfNameIndex::value < VrfNameIndex::min or > VrfNameIndex::max not allowed");
}

// --- writer ---------------------------------------------------------------------

class VrfIdMapTest : public ::testing::Test {
 protected:
  ShoalRoot root;
  Brio::ActivityManager loop;
  Brio::Ptr<Status> status = Status::statusFactory("status");
  Brio::Ptr<Writer> writer = Writer::writerFactory("test", status);
  U32 counter() const { return *writer->lastVrfIdPtr(); }
};

// Ids rising and a released id never handed out again, across writer
// restarts too: TablesCommand.VrfCommandsAllocateReleaseAndList.
TEST_F(VrfIdMapTest, TheDefaultIsZeroForGoodAndALongNameIsKeyedWhole) {
  TraceOn trace;
  Glimmer::Capture capture;
  writer->handleInitialized();
  ASSERT_TRUE(writer->initialized()) << writer->reason().view();
  EXPECT_EQ(writer->vrfIs("default"), VrfId::defaultVrf());
  writer->vrfDel("default");  // kept, and it consumed no id
  EXPECT_EQ(writer->nameToIdMap()->vrfNameToId("default"), VrfId::defaultVrf());
  EXPECT_EQ(status->vrfIdToName(VrfId::defaultVrf()).vrfName(), String("default"));
  EXPECT_EQ(writer->vrfIs("red"), VrfId(1));
  EXPECT_TRUE(capture.contains(" allocated vrfId 1"));
  // A long name is stored as its first hundred bytes but keyed by all of it.
  String const longName(std::string(150, 'q'));
  VrfId const id = writer->vrfIs(longName);
  EXPECT_EQ(status->vrfIdToName(id).vrfName(), String(std::string(100, 'q')));
  EXPECT_EQ(writer->vrfIs(longName), id);
}

TEST_F(VrfIdMapTest, AllocationSkipsIdsInUseAndTheReservedValues) {
  writer->handleInitialized();
  status->vrfIdToNameIs(VrfEntry(VrfId(1), "taken"));
  status->vrfIdToNameIs(VrfEntry(VrfId(2), "taken2"));
  EXPECT_EQ(writer->allocateVrfId(), VrfId(3));
  status->vrfIdToNameIs(VrfEntry(VrfId(3), "taken3"));
  *writer->lastVrfIdPtr() = 0xFFFFFFFFu;  // next is 0, the default: skipped
  EXPECT_EQ(writer->allocateVrfId(), VrfId(4)) << "1, 2 and 3 are in the table";
  *writer->lastVrfIdPtr() = 16777214;  // next is 16777215, null: skipped
  EXPECT_EQ(writer->allocateVrfId(), VrfId(16777216));
  writer->prepareVrfIdWrapAround();
  EXPECT_EQ(counter(), 16777215u);
}

TEST_F(VrfIdMapTest, OverflowAtCapacityRaisesTheLogMessageAndConsumesNoId) {
  writer->handleInitialized();
  for (U32 i = 1; i < Vrf::Constants::maxVrfs(); ++i) ASSERT_TRUE(writer->vrfIs("v" + std::to_string(i)).valid());
  EXPECT_EQ(status->vrfIdToNames(), 2048u);
  U32 before = counter();
  std::vector<std::string> logged;
  logHookIs([&](LogMessage const& m, std::string const& text) { logged.push_back(std::string(m.name) + ": " + text); });
  EXPECT_EQ(writer->vrfIs("one-too-many"), VrfId::null());
  logHookIs(nullptr);
  EXPECT_EQ(counter(), before);
  EXPECT_EQ(logged, std::vector<std::string>{"VRF_MAP_OVERFLOW: A VRF table used internally to map VRF names to VRF "
                                             "identifiers has overflowed at 2048 values."});
  writer->vrfDel("v7");
  EXPECT_TRUE(writer->vrfIs("one-too-many").valid());
}

TEST_F(VrfIdMapTest, ResetStartsOverWithOnlyTheDefault) {
  writer->handleInitialized();
  writer->vrfIs("red");
  writer->vrfIs("blue");
  writer->reset();
  EXPECT_EQ(status->vrfIdToNames(), 1u);
  EXPECT_EQ(counter(), 0u);
  EXPECT_EQ(writer->vrfIs("green"), VrfId(1));
}

TEST_F(VrfIdMapTest, NamingBeforeInitializedIsFatal) {
  EXPECT_DEATH(writer->vrfIs("red"), "initialized\\(\\)");
}

// --- readers --------------------------------------------------------------------

TEST_F(VrfIdMapTest, ReverseMapperKeepsTheNewIdOfARecreatedName) {
  TraceOn trace;
  Glimmer::Capture capture;
  auto names = NameToIdMap::nameToIdMapFactory("names");
  auto mapper = ReverseMapper::reverseMapperFactory(status, names);
  status->vrfIdToNameIs(VrfEntry(VrfId(5), "red"));
  EXPECT_EQ(names->vrfNameToId("red"), VrfId(5));
  status->vrfIdToNameIs(VrfEntry(VrfId(7), "red"));  // made again before the old delete arrives
  status->vrfIdToNameDel(VrfId(5));
  EXPECT_EQ(names->vrfNameToId("red"), VrfId(7));
  EXPECT_EQ(mapper->vrfIdToNameCache(VrfId(7)), "red");
  EXPECT_EQ(mapper->vrfIdToNameCache(VrfId(5)), "");
  EXPECT_TRUE(capture.contains(
      " vrfId mismatch between nameToIdMap vrfId 7 and vrfId getting deleted 5. Skipping deletion from nameToIdMap"))
      << capture.text();
  status->vrfIdToNameDel(VrfId(7));
  EXPECT_FALSE(names->vrfNameToIdHas("red"));
}

TEST_F(VrfIdMapTest, ReverseMapperRefusesANameMapElsewhereWithoutItsCachedId) {
  auto names = NameToIdMap::nameToIdMapFactory("names");
  names->vrfNameToIdIs("red", VrfId(9));  // filled by somebody else, not from the table
  auto mapper = ReverseMapper::reverseMapperFactory(status, names);
  EXPECT_DEATH(status->vrfIdToNameIs(VrfEntry(VrfId(4), "red")),
               "vrfId2 == VrfId\\(\\) \\|\\| vrfIdToNameCache\\( vrfId2 \\) == vrfName");
}

TEST_F(VrfIdMapTest, ReverseMapperInitializationDropsNamesNoLongerInTheTable) {
  auto names = NameToIdMap::nameToIdMapFactory("names");
  names->vrfNameToIdIs("stale", VrfId(9));
  status->vrfIdToNameIs(VrfEntry(VrfId(2), "blue"));
  auto mapper = ReverseMapper::reverseMapperFactory(status, names);
  mapper->handleInitialized();
  EXPECT_TRUE(mapper->initialized());
  EXPECT_EQ(names->vrfNameToIdAll(), (std::map<String, VrfId>{{"blue", VrfId(2)}}));
}

// A writer process naming vrf-<n> for rising n, committing each and
// reporting "n id" afterwards.
int namingWriter(int first, int out) {
  Brio::ActivityManager l;
  auto s = Status::statusFactory("w");
  if (!s->mount("vrf/kill", MountMode::writer)) return 1;
  auto w = Writer::writerFactory("kill", s);
  w->handleInitialized();
  for (int n = first;; ++n) {
    VrfId id = w->vrfIs("vrf-" + std::to_string(n));
    s->commit();
    CorvidTest::writeLine(out, std::to_string(n) + " " + std::to_string(id.value()));
    if (n % 50 == 49) {
      for (int d = n - 49; d < n - 40; ++d) w->vrfDel("vrf-" + std::to_string(d));
      s->commit();
    }
    if (s->vrfIdToNames() > 1500) return 0;
  }
}

TEST_F(VrfIdMapTest, KilledWriterNeverHandsOutAnIdTwice) {
  std::mt19937 rng(11);
  std::map<int, U32> idOf;  // committed name number -> id
  int next = 0;
  for (int run = 0; run < 15; ++run) {
    int first = next;
    Child w([first](int, int out) { return namingWriter(first, out); });
    usleep(500 + rng() % 4000);
    w.kill();
    for (std::string l; !(l = w.line(0.05)).empty();) {
      int n = 0;
      U32 id = 0;
      ASSERT_EQ(sscanf(l.c_str(), "%d %u", &n, &id), 2) << l;
      idOf[n] = id;
      next = n + 1;
    }
  }
  ASSERT_GT(idOf.size(), 20u);
  std::set<U32> ids;
  for (auto const& [n, id] : idOf) EXPECT_TRUE(ids.insert(id).second) << "id " << id << " handed out twice";
  // Every committed name still in the table has the id it was given.
  ASSERT_TRUE(status->mount("vrf/kill", MountMode::writer));
  auto table = status->vrfIdToNameSnapshot();
  for (auto const& [n, id] : idOf) {
    if (n % 50 < 9) continue;  // released on purpose (or about to be)
    EXPECT_EQ(table[VrfId(id)].vrfName(), String("vrf-" + std::to_string(n))) << n;
  }
}

}  // namespace
