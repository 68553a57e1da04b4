#include <Shoal/Shoal.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <fcntl.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

#include "support/ShoalScope.h"

namespace {

using Brio::String;
using CorvidTest::Child;
using CorvidTest::ShoalRoot;
using Shoal::MountMode;
using Shoal::MountStatus;

// Two keyed collections in one table entity: what a declaration costs.
class Pets : public Shoal::Table {
 public:
  class Notifiee : public Shoal::TableNotifiee<Pets> {
   public:
    virtual void handleCount(U32 const& key) {}
    virtual void handleOwner(String const& key) {}

   protected:
    using Shoal::TableNotifiee<Pets>::TableNotifiee;
  };
  static Brio::Ptr<Pets> petsFactory(String name, U32 capacity = 64) {
    return Brio::Ptr<Pets>(new Pets(std::move(name), capacity));
  }
  Shoal::Collection<U32, String, Notifiee, &Notifiee::handleCount> count;
  Shoal::Collection<String, U32, Notifiee, &Notifiee::handleOwner> owner;

 private:
  Pets(String name, U32 capacity)
      : Table(std::move(name), "Test::Pets"),
        count(this, "count", 8, 64, capacity),
        owner(this, "owner", 40, 8, capacity) {}
};

// Values written by the tests: "v<key>-<n>", or "v<key>-<n>-<check>" where
// a torn copy of two writes could not keep the check right.
std::string checkedValue(U32 key, int n) {
  return "v" + std::to_string(key) + "-" + std::to_string(n) + "-" + std::to_string((key * 31 + U32(n) * 7) % 9973);
}

bool wellFormed(U32 key, std::string const& v) {
  std::string want = "v" + std::to_string(key) + "-";
  if (v.compare(0, want.size(), want) != 0) return false;
  auto dash = v.find('-', want.size());
  if (dash == std::string::npos) return true;
  int n = std::atoi(v.c_str() + want.size());
  return v == checkedValue(key, n);
}

// Keeps its own copy of the table purely from notifications: a lost
// notification makes it differ from the table. `bad` counts values of
// `count` not of the form the multi-process writers write (a torn or mixed
// read there).
class Follower : public Pets::Notifiee {
 public:
  explicit Follower(Brio::Ptr<Pets> const& t) : Notifiee(t) {}
  void handleCount(U32 const& k) override {
    ++countCalls[k];
    follow(count, notifier()->count, k);
    bad += count.count(k) && !wellFormed(k, count[k].str());
  }
  void handleOwner(String const& k) override { follow(owner, notifier()->owner, k); }
  template <class M, class C, class K>
  static void follow(M& copy, C const& collection, K const& k) {
    if (collection.contains(k)) {
      copy[k] = collection.get(k);
    } else {
      copy.erase(k);
    }
  }
  std::map<U32, String> count;
  std::map<String, U32> owner;
  std::map<U32, int> countCalls;
  int bad = 0;
};

struct HookCapture {
  HookCapture() {
    Shoal::corruptionHookIs([this](String const& path, String const& what) {
      reports.push_back(path.str() + ": " + what.str());
    });
  }
  ~HookCapture() { Shoal::corruptionHookIs(nullptr); }
  bool saw(std::string const& s) const {
    return std::any_of(reports.begin(), reports.end(), [&](auto const& r) { return r.find(s) != std::string::npos; });
  }
  std::vector<std::string> reports;
};

// Contents as "count K V" and "owner K V" lines in key order: the form in
// which tables, followers, reader processes and the model are compared.
std::string describe(std::map<U32, String> const& count, std::map<String, U32> const& owner) {
  std::ostringstream os;
  for (auto const& [k, v] : count) os << "count " << k << " " << v.view() << "\n";
  for (auto const& [k, v] : owner) os << "owner " << k.view() << " " << v << "\n";
  return os.str();
}
std::string describe(Follower const& f) { return describe(f.count, f.owner); }
std::string describe(Pets const& t) { return describe(t.count.snapshot(), t.owner.snapshot()); }

// A reader process: follows `path`, and on "sync" answers with everything
// its notifications delivered, then "end". Values of `count` must always be
// "v<key>-<n>" with a matching key: anything else is a torn or mixed read.
int readerProcess(std::string const& path, int in, int out) {
  Brio::ActivityManager loop;
  auto t = Pets::petsFactory("reader");
  Follower f(t);
  t->mount(String(path), MountMode::reader);
  CorvidTest::writeLine(out, "ready");
  for (std::string rest;;) {
    loop.runOnce(0.002);
    pollfd p{in, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0) continue;
    if (CorvidTest::readLine(in, 1, rest) != "sync") return 0;
    t->poll();
    loop.runUntil([&] { return t->mountStatus() == MountStatus::mounted && t->quiesced(); }, 5);
    CorvidTest::writeLine(out, describe(f) + "bad " + std::to_string(f.bad) + "\nend");
  }
}

// A reader process started on `path`, past its mount.
std::unique_ptr<Child> startReader(char const* path) {
  auto c = std::make_unique<Child>([path](int in, int out) { return readerProcess(path, in, out); });
  EXPECT_EQ(c->line(10), "ready");
  return c;
}

std::string syncState(Child& c) {
  if (!c.send("sync")) return "send failed";
  std::string all;
  for (std::string l; (l = c.line(10)) != "end" && !c.ended();) all += l + "\n";
  return all;
}

class ShoalTest : public ::testing::Test {
 protected:
  ShoalRoot root;
  Brio::ActivityManager loop;
};

// --- unmounted ------------------------------------------------------------------

TEST_F(ShoalTest, UnmountedTableNotifiesOnlyRealChanges) {
  auto t = Pets::petsFactory("local", 3);
  Follower f(t);
  struct Step {
    char const* op;
    U32 key;
    char const* value;
    bool result;
    int calls;  // notifications of `key` so far
  } const steps[] = {
      {"set", 1, "a", true, 1},  {"set", 1, "a", true, 1},  // same value: no notification
      {"set", 1, "b", true, 2},  {"set", 2, "x", true, 1},  {"set", 3, "y", true, 1},
      {"set", 4, "z", false, 0},  // full: refused, nobody hears
      {"del", 4, "", false, 0},  {"del", 2, "", true, 2},   {"set", 4, "z", true, 1},
  };
  for (auto const& s : steps) {
    bool r = std::string(s.op) == "set" ? t->count.set(s.key, s.value) : t->count.del(s.key);
    EXPECT_EQ(r, s.result) << s.op << " " << s.key;
    EXPECT_EQ(f.countCalls[s.key], s.calls) << s.op << " " << s.key;
  }
  EXPECT_EQ(t->insertRefusedCount(), 1u);
  EXPECT_EQ(describe(*t), describe(f));
}

// --- one process, writer and reader ---------------------------------------------

TEST_F(ShoalTest, ReaderHearsCommittedChangesOnceCoalescedAndTheLoopCommitsTheRest) {
  auto w = Pets::petsFactory("w");
  ASSERT_TRUE(w->mount("pets", MountMode::writer)) << w->reason().view();
  auto r = Pets::petsFactory("r");
  Follower f(r);
  r->mount("pets", MountMode::reader);
  ASSERT_EQ(r->mountStatus(), MountStatus::mounted) << r->reason().view();

  w->count.set(1, "v1-a");
  EXPECT_FALSE(w->quiesced());
  r->poll();
  EXPECT_EQ(f.countCalls[1], 0) << "visible before commit";
  w->count.set(1, "v1-b");
  w->count.set(1, "v1-c");
  w->count.set(2, "v2-a");
  w->count.del(2);
  w->owner.set("ann", 7);
  w->commit();
  EXPECT_TRUE(w->quiesced());
  ASSERT_TRUE(loop.runUntil([&] { return r->quiesced() && f.countCalls[1] > 0; }, 5));
  EXPECT_EQ(f.countCalls[1], 1);
  EXPECT_EQ(f.countCalls.count(2), 0u) << "added and removed between reads: no change to announce";
  EXPECT_EQ(describe(*w), describe(f));
  // Left staged, a change is committed by the writer's loop at the end of
  // its turn.
  w->count.set(5, "v5-x");
  ASSERT_TRUE(loop.runUntil([&] { return f.count.count(5) != 0; }, 5));
  EXPECT_EQ(w->commitCount(), 2u);
}

// A second writer is refused while the first holds the table (the holder's
// pid in the refusal: TablesCommand.VrfCommandsAllocateReleaseAndList), and
// a reader declared with another shape waits.
TEST_F(ShoalTest, MountRefusesASecondWriterAndWaitsOutAnotherShape) {
  auto w = Pets::petsFactory("w");
  ASSERT_TRUE(w->mount("one", MountMode::writer));
  w->count.set(0x01020304, "ab");
  w->commit();
  auto w2 = Pets::petsFactory("w2");
  EXPECT_FALSE(w2->mount("one", MountMode::writer));
  EXPECT_EQ(w2->mountStatus(), MountStatus::unmounted);
  struct Other : Shoal::Table {
    struct Notifiee : Shoal::TableNotifiee<Other> {
      virtual void handleX(U32 const&) {}
    };
    Other() : Table("other", "Test::Other") {}
    Shoal::Collection<U32, U32, Notifiee, &Notifiee::handleX> x{this, "x", 4, 4, 8};
  };
  Brio::Ptr<Other> o(new Other);
  o->mount("one", MountMode::reader);
  EXPECT_EQ(o->mountStatus(), MountStatus::mounting);
  EXPECT_TRUE(o->x.snapshot().empty());
  // Once the first lets go, a new writer takes over.
  w->unmount();
  EXPECT_TRUE(w2->mount("one", MountMode::writer)) << w2->reason().view();
}

TEST_F(ShoalTest, ReaderThatFellBehindRescansAndNotifiesOnlyDifferences) {
  auto w = Pets::petsFactory("w");
  w->changeLogEntriesIs(16);
  ASSERT_TRUE(w->mount("small", MountMode::writer));
  for (U32 k = 0; k < 10; ++k) w->count.set(k, "v" + std::to_string(k) + "-0");
  w->commit();
  auto r = Pets::petsFactory("r");
  Follower f(r);
  r->mount("small", MountMode::reader);
  ASSERT_TRUE(r->quiesced());
  U64 rescans = r->rescanCount();
  f.countCalls.clear();
  // 40 commits the reader does not read: key 3 ends where it started, key 4
  // changes, key 5 goes, key 20 comes.
  for (int i = 0; i < 10; ++i) {
    for (auto const& [k, v] : std::vector<std::pair<U32, std::string>>{
             {3, "v3-tmp"}, {3, "v3-0"}, {4, "v4-" + std::to_string(i)}, {6, "v6-" + std::to_string(i % 2 ? 0 : 9)}}) {
      w->count.set(k, v);
      w->commit();
    }
  }
  w->count.del(5);
  w->count.set(20, "v20-0");
  w->commit();
  r->poll();
  EXPECT_EQ(r->rescanCount(), rescans + 1);
  EXPECT_TRUE(r->quiesced());
  EXPECT_EQ((std::map<U32, int>(f.countCalls)), (std::map<U32, int>{{4, 1}, {5, 1}, {20, 1}}));
  EXPECT_EQ(describe(*w), describe(*r));
}

// --- bad shared memory ----------------------------------------------------------

struct Mapped {
  explicit Mapped(std::string const& file) {
    fd = open(file.c_str(), O_RDWR);
    struct stat st {};
    fstat(fd, &st);
    bytes = st.st_size;
    base = static_cast<char*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  }
  ~Mapped() {
    munmap(base, bytes);
    close(fd);
  }
  Shoal::Layout::FixedHeader* h() const { return Shoal::Layout::fixedHeader(base); }
  char* slot(U32 c, U32 s) const { return base + h()->desc[c].slotsOffset + U64(s) * h()->desc[c].slotBytes; }
  Shoal::Layout::SlotHead* head(U32 s) const { return reinterpret_cast<Shoal::Layout::SlotHead*>(slot(0, s)); }
  int fd;
  std::size_t bytes;
  char* base;
};

// The keys of a count map in order, as "1 2".
std::string keysOf(std::map<U32, String> const& m) {
  std::string s;
  for (auto const& [k, v] : m) s += (s.empty() ? "" : " ") + std::to_string(k);
  return s;
}

TEST_F(ShoalTest, ScribbledMemoryReachesTheHookAndReadsAsAbsent) {
  // Keys 1 and 2 are committed (key 1 in slot 0) before the scribble. The
  // reader mounts before it (and follows the change log), after it (and
  // scans), or after it while the writer is gone and a new one takes over.
  enum When { readerBefore, readerAfter, writerRestarts };
  struct Case {
    char const* name;
    When when;
    std::function<void(Mapped&, Pets&)> scribble;
    char const* keysLeft;  // what the reader holds afterwards
  } const cases[] = {
      {"value length above the limit", readerAfter, [](Mapped& m, Pets&) { m.head(0)->valueLen = 500; }, "2"},
      {"key bytes that do not decode", readerAfter, [](Mapped& m, Pets&) { m.head(0)->keyLen = 3; }, "2"},
      {"key repeated in a second slot", readerAfter,
       [](Mapped& m, Pets&) { std::memcpy(m.slot(0, 5), m.slot(0, 0), m.h()->desc[0].slotBytes); }, "1 2"},
      {"change log entry out of range", readerBefore,
       [](Mapped& m, Pets& w) {
         w.count.set(2, "v2-poke");
         w.commit();
         auto* log = reinterpret_cast<U32*>(m.base + m.h()->logOffset);
         auto* lv = Shoal::Layout::liveHeader(m.base);
         log[(lv->commitHead.load() - 1) & (m.h()->logEntries - 1)] = 0xFFFFFF;
       },
       "1 2"},
      {"change log head moved back", readerBefore,
       [](Mapped& m, Pets&) { Shoal::Layout::liveHeader(m.base)->commitHead.store(0); }, "1 2"},
      {"fixed header bytes", readerBefore, [](Mapped& m, Pets&) { m.h()->desc[0].capacity ^= 1; }, ""},
      // The writer died inside the slot's write: its successor drops that
      // entry alone.
      {"slot left odd by a dead writer", writerRestarts, [](Mapped& m, Pets&) { m.head(0)->seq.fetch_add(1); }, "2"},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    ShoalRoot caseRoot;
    HookCapture hook;
    auto w = Pets::petsFactory("w");
    ASSERT_TRUE(w->mount("bad", MountMode::writer));
    w->count.set(1, "v1-a");
    w->count.set(2, "v2-a");
    w->commit();
    auto r = Pets::petsFactory("r");
    Follower f(r);
    if (c.when == readerBefore) {
      r->mount("bad", MountMode::reader);
      ASSERT_EQ(f.count[1], "v1-a");
    }
    if (c.when == writerRestarts) w->unmount();
    {
      Mapped m(caseRoot.path() + "/bad");
      c.scribble(m, *w);
    }
    if (c.when == readerBefore) {
      r->poll();
    } else {
      r->mount("bad", MountMode::reader);
    }
    if (c.when == writerRestarts) {
      w = Pets::petsFactory("w2");
      ASSERT_TRUE(w->mount("bad", MountMode::writer));
      EXPECT_EQ(keysOf(w->count.snapshot()), c.keysLeft);
      loop.runUntil([&] { return r->quiesced() && keysOf(r->count.snapshot()) == c.keysLeft; }, 5);
    }
    EXPECT_TRUE(hook.saw(caseRoot.path() + "/bad: ")) << "no report of the damage";
    EXPECT_EQ(keysOf(r->count.snapshot()), c.keysLeft);
    EXPECT_EQ(keysOf(f.count), c.keysLeft) << "notifications follow the table";
  }
}

TEST_F(ShoalTest, ReadersFollowAWriterThatMakesTheTableAgain) {
  auto r = Pets::petsFactory("r");
  Follower f(r);
  r->mount("again", MountMode::reader);  // before any writer: it waits
  loop.runUntil([] { return false; }, 0.05);
  EXPECT_EQ(r->mountStatus(), MountStatus::mounting);
  auto w = Pets::petsFactory("w", 64);
  ASSERT_TRUE(w->mount("again", MountMode::writer));
  w->count.set(1, "v1-a");
  w->count.set(2, "v2-a");
  w->commit();
  ASSERT_TRUE(loop.runUntil([&] { return r->quiesced() && f.count.size() == 2; }, 5));
  w->unmount();
  // Another capacity: the file is made again and the old one retired;
  // readers take the file's capacity, whatever their own declaration.
  auto w2 = Pets::petsFactory("w2", 32);
  w2->count.set(2, "v2-b");  // staged unmounted, published at mount
  ASSERT_TRUE(w2->mount("again", MountMode::writer));
  ASSERT_TRUE(loop.runUntil([&] { return r->mountStatus() == MountStatus::mounted && r->quiesced() &&
                                         f.count.size() == 1 && f.count[2] == "v2-b"; }, 5))
      << r->reason().view();
  EXPECT_EQ(r->count.capacity(), 32u);
}

TEST(ShoalLayout, HeaderChecksRejectEverySingleByteChange) {
  Shoal::Layout::FixedHeader h;
  std::vector<Shoal::Layout::CollectionShape> shapes = {{"a", 8, 16, 10}, {"b", 4, 4, 3}};
  ASSERT_EQ(Shoal::Layout::layoutHeader(&h, "T", shapes.data(), 2, 64), "");
  ASSERT_EQ(Shoal::Layout::validateHeader(&h, sizeof h, h.fileBytes), "");
  EXPECT_NE(Shoal::Layout::validateHeader(&h, sizeof h, h.fileBytes + 4096), "");
  EXPECT_NE(Shoal::Layout::validateHeader(&h, sizeof h - 1, h.fileBytes), "");
  auto* bytes = reinterpret_cast<U8*>(&h);
  for (std::size_t i = 0; i < offsetof(Shoal::Layout::FixedHeader, layoutCheck) + 4; ++i) {
    bytes[i] ^= 0x40;
    EXPECT_NE(Shoal::Layout::validateHeader(&h, sizeof h, h.fileBytes), "") << "byte " << i;
    bytes[i] ^= 0x40;
  }
}

// --- several processes ----------------------------------------------------------

// Reader processes follow random operations and must hold the model after
// every commit. Three are killed at round 20, waiting for a wake-up; later
// more die at random moments, some inside a pass, having asked for no
// wake-up. The writer never waits for the dead and takes every registration
// back.
TEST_F(ShoalTest, ReaderProcessesMatchTheModelAndKilledOnesCostTheWriterNothing) {
  auto w = Pets::petsFactory("w", 24);
  ASSERT_TRUE(w->mount("model", MountMode::writer));
  std::vector<std::unique_ptr<Child>> readers;
  for (int i = 0; i < 5; ++i) readers.push_back(startReader("model"));
  std::mt19937 rng(20261123);
  std::map<U32, String> count;
  std::map<String, U32> owner;
  for (int round = 0; round < 40; ++round) {
    if (round == 20) {
      for (int i : {4, 2, 0}) readers.erase(readers.begin() + i);  // killed and reaped by ~Child
    }
    int ops = 1 + rng() % 40;
    for (int i = 0; i < ops; ++i) {
      U32 k = rng() % 32;
      int what = rng() % 10;
      if (what < 6) {
        String v("v" + std::to_string(k) + "-" + std::to_string(rng() % 3));
        bool expect = count.count(k) || count.size() < 24;
        ASSERT_EQ(w->count.set(k, v), expect) << "round " << round << " set " << k;
        if (expect) count[k] = v;
      } else if (what < 8) {
        ASSERT_EQ(w->count.del(k), count.erase(k) == 1) << "round " << round << " del " << k;
      } else if (what < 9) {
        String name("o" + std::to_string(k));
        owner[name] = k + round;
        w->owner.set(name, k + round);
      } else {
        w->owner.del(String("o" + std::to_string(k)));
        owner.erase(String("o" + std::to_string(k)));
      }
    }
    if (rng() % 4 == 0) continue;  // let changes pile up over several rounds
    w->commit();
    // Each live reader asked for a wake-up when it finished its last read.
    EXPECT_EQ(w->readersWoken(), readers.size()) << "round " << round;
    EXPECT_EQ(w->reclaimedCount(), round < 20 ? 0u : 3u) << "round " << round;
    std::string const want = describe(count, owner) + "bad 0\n";
    for (std::size_t i = 0; i < readers.size(); ++i) {
      ASSERT_EQ(syncState(*readers[i]), want) << "round " << round << ", reader " << i;
    }
  }
  // The wake sockets of the dead are gone with their registrations.
  std::size_t sockets = 0;
  for (auto const& e : std::filesystem::directory_iterator(root.path() + "/.wake")) sockets += e.is_socket();
  EXPECT_EQ(sockets, 2u);

  for (auto const& [k, v] : count) w->count.del(k);  // room for the sixteen keys below
  std::vector<std::unique_ptr<Child>> doomed;
  for (int i = 0; i < 4; ++i) doomed.push_back(startReader("model"));
  std::size_t next = 0;
  for (int i = 0; i < 3000; ++i) {
    for (U32 k = 0; k < 16; ++k) w->count.set(k, checkedValue(k, i));
    w->commit();
    if (next < doomed.size() && rng() % 400 == 0) doomed[next++]->kill();
  }
  for (; next < doomed.size(); ++next) doomed[next]->kill();
  for (int i = 0; i < 600; ++i) {
    w->count.set(1, checkedValue(1, i));
    w->commit();
  }
  EXPECT_EQ(w->reclaimedCount(), 7u);
  EXPECT_EQ(w->readersWoken(), 2u);
  std::string last = syncState(*readers[1]);
  EXPECT_NE(last.find("count 1 " + checkedValue(1, 599) + "\n"), std::string::npos) << last;
  EXPECT_NE(last.find("bad 0\n"), std::string::npos) << last;
}

// A writer process that commits batches: batch b sets the eight keys of
// group b % 500 to checkedValue(key, b) and, after its commit, stores b+1 in
// the "progress" segment. No system call between batches (unless a reader
// asks for a wake-up), so a kill lands anywhere in the loop, slot writes
// included.
constexpr int groups = 500;

std::atomic<S64>* progress(Brio::Ptr<Shoal::Segment> const& seg) {
  return seg->attach() ? reinterpret_cast<std::atomic<S64>*>(seg->data()) : nullptr;
}

int writerProcess(int out, int firstBatch, int lastBatch) {
  Brio::ActivityManager loop;
  auto seg = Shoal::Segment::segmentFactory("progress", 8);
  auto* done = progress(seg);
  auto w = Pets::petsFactory("w", 8 * groups);
  if (!done || !w->mount("crash", MountMode::writer)) {
    CorvidTest::writeLine(out, "refused " + w->reason().str());
    return 1;
  }
  CorvidTest::writeLine(out, "count " + std::to_string(w->count.size()));
  for (int b = firstBatch; b <= lastBatch; ++b) {
    U32 g = b % groups;
    for (U32 k = 8 * g; k < 8 * g + 8; ++k) w->count.set(k, checkedValue(k, b));
    w->commit();
    done->store(b + 1, std::memory_order_release);
  }
  CorvidTest::writeLine(out, "done");
  return 0;
}

TEST_F(ShoalTest, WriterKilledAtRandomPointsRestartsWithEveryCommittedEntry) {
  HookCapture hook;
  std::mt19937 rng(7);
  auto reader = startReader("crash");
  int committed = -1;  // last batch known committed
  auto seg = Shoal::Segment::segmentFactory("progress", 8);
  auto* done = progress(seg);
  ASSERT_NE(done, nullptr);
  for (int run = 0; run < 40; ++run) {
    int first = committed + 1;
    Child writer([first](int, int out) { return writerProcess(out, first, 1 << 30); });
    std::string hello = writer.line(10);
    ASSERT_EQ(hello.rfind("count ", 0), 0u) << hello;
    // Whatever the previous writer committed is there at restart, but for
    // the one slot it may have been writing when killed.
    U32 present = static_cast<U32>(std::stoul(hello.substr(6)));
    U32 atLeast = std::min<U32>(8 * groups, 8 * (committed + 1));
    EXPECT_GE(present + 1, atLeast) << "run " << run;
    usleep(100 + rng() % 5000);
    writer.kill();
    committed = static_cast<int>(done->load()) - 1;
  }
  ASSERT_GT(committed, groups) << "writers too slow to cover every key";
  // One more writer runs to a known end; then the reader must hold exactly
  // the latest batch of every group.
  int const end = committed + 1000;
  Child last([&](int, int out) { return writerProcess(out, committed + 1, end); });
  std::string l;
  while ((l = last.line(20)) != "done") {
    if (l.empty() || l.rfind("refused", 0) == 0) {
      ADD_FAILURE() << "last writer: '" << l << "'";
      break;
    }
  }
  std::string got = syncState(*reader);
  std::ostringstream want;
  for (U32 k = 0; k < 8 * groups; ++k) {
    int g = static_cast<int>(k / 8);
    int b = end - ((end - g) % groups + groups) % groups;
    want << "count " << k << " " << checkedValue(k, b) << "\n";
  }
  // count lines sort numerically in the reader's map, as here.
  want << "bad 0\n";
  EXPECT_EQ(got, want.str());
}

}  // namespace
