#include <Shoal/Shoal.h>

#include <Brio/TextForm.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>

namespace Shoal {

// --- root, corruption hook -----------------------------------------------------

Brio::String root() {
  char const* r = std::getenv("SHOAL_ROOT");
  return Brio::String(r && *r ? r : "/dev/shm/corvid");
}

Brio::String filePath(Brio::String const& path) {
  if (!path.empty() && path[0] == '/') return path;
  return root() + Brio::String("/") + path;
}

namespace {

std::mutex hookMutex;
CorruptionHook& hookStorage() {
  static CorruptionHook hook;
  return hook;
}
std::atomic<U64> corruptions{0};

// mkdir -p of every directory above `file`.
bool makeParents(std::string const& file) {
  for (std::size_t p = file.find('/', 1); p != std::string::npos; p = file.find('/', p + 1)) {
    std::string dir = file.substr(0, p);
    if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

std::string errnoText(char const* call) { return std::string(call) + ": " + std::strerror(errno); }

bool processAlive(U32 pid) { return pid != 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM); }

std::string wakePath(std::string const& rootDir, U64 token) {
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(token));
  return rootDir + "/.wake/" + hex;
}

bool wakeAddress(std::string const& path, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof addr->sun_path) return false;
  std::memcpy(addr->sun_path, path.data(), path.size());
  return true;
}

// Frees a registration whose reader is gone. The token goes first so a
// writer never sends to a half-reclaimed entry, and only the token seen is
// cleared so a new owner's registration is never touched.
bool reclaimRegistration(Layout::Registration& r, U32 pid, U64 token, std::string const& rootDir) {
  if (!r.token.compare_exchange_strong(token, 0)) return false;
  if (!r.pid.compare_exchange_strong(pid, 0)) return false;
  if (token) ::unlink(wakePath(rootDir, token).c_str());
  return true;
}

}  // namespace

void corruptionHookIs(CorruptionHook hook) {
  std::lock_guard<std::mutex> g(hookMutex);
  hookStorage() = std::move(hook);
}

void corruptionReport(Brio::String const& path, Brio::String const& what) {
  ++corruptions;
  CorruptionHook hook;
  {
    std::lock_guard<std::mutex> g(hookMutex);
    hook = hookStorage();
  }
  if (hook) {
    hook(path, what);
  } else {
    std::cerr << "shoal: corrupt shared table " << path.view() << ": " << what.view() << "\n";
  }
}

U64 corruptionCount() { return corruptions.load(); }

char const* mountStatusText(MountStatus s) {
  switch (s) {
    case MountStatus::unmounted: return "unmounted";
    case MountStatus::mounting: return "mounting";
    case MountStatus::mounted: return "mounted";
  }
  return "unknown";
}

// --- RawBytes --------------------------------------------------------------------

void attrLogWrite(Brio::NboAttrLog& log, RawBytes const& v) {
  for (char c : v.bytes) log.writeU8(static_cast<U8>(c));
}

RawBytes attrLogRead(Brio::NboAttrLog& log, RawBytes*) {
  RawBytes v;
  std::size_t pos = log.readPosition();
  v.bytes = Brio::Bytes(log.rawData() + pos, log.bytes() - pos);
  log.readPositionIs(log.bytes());
  return v;
}

Brio::String valueToStrep(RawBytes const& v) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (char c : v.bytes) {
    out += digits[(static_cast<U8>(c) >> 4) & 15];
    out += digits[static_cast<U8>(c) & 15];
  }
  return Brio::String(std::move(out));
}

// --- CollectionBase --------------------------------------------------------------

CollectionBase::CollectionBase(Table* table, char const* name, U32 keyMax, U32 valueMax, U32 capacity)
    : table_(table), name_(name), keyMax_(keyMax), valueMax_(valueMax), capacity_(capacity) {
  index_ = static_cast<U32>(table->collections_.size());
  table->collections_.push_back(this);
}

void CollectionBase::checkSizes(Brio::NboAttrLog const& key, Brio::NboAttrLog const& value) const {
  if (key.bytes() > keyMax_ || key.bytes() == 0 || value.bytes() > valueMax_) {
    throw Brio::SizeException("Shoal: " + name_.str() + " entry of " + std::to_string(key.bytes()) + "+" +
                              std::to_string(value.bytes()) + " bytes exceeds the declared " +
                              std::to_string(keyMax_) + "+" + std::to_string(valueMax_));
  }
}

void CollectionBase::stage(U32 slot) {
  if (stagedFlag_[slot]) return;
  stagedFlag_[slot] = 1;
  staged_.push_back(slot);
  table_->staged();
}

void CollectionBase::insertRefused() { ++table_->insertRefusedCount_; }

void CollectionBase::corrupt(U32 slot, std::string const& what) const {
  corruptionReport(table_->mountPath_, name_ + Brio::String(" slot " + std::to_string(slot) + ": " + what));
}

U32 CollectionBase::takeSlot() {
  FENNEL_ASSERT(!freeSlots_.empty());
  U32 s = freeSlots_.back();
  freeSlots_.pop_back();
  return s;
}

void CollectionBase::releaseSlot(U32 slot) { freeSlots_.push_back(slot); }

// --- Table::Impl -----------------------------------------------------------------

class Table::Impl {
 public:
  explicit Impl(Table* t) : t_(t), clockReactor_(this), wakeReactor_(this) {}
  ~Impl() { release(); }

  bool mountWriter();
  void mountReader() { attachReader(); }
  void unmount();
  void commit();
  void pass();
  void drainWake();
  void armClockAt(F64 delay);
  void release();

  class ClockReactor : public Brio::Clock::Notifiee {
   public:
    explicit ClockReactor(Impl* impl) : impl_(impl) {}
    void handleWakeup() override { impl_->clockFired(); }
    Impl* impl_;
  };
  class WakeReactor : public Brio::FileDescriptor::Notifiee {
   public:
    explicit WakeReactor(Impl* impl) : impl_(impl) {}
    void handleReadable() override {
      impl_->drainWake();
      impl_->pass();
    }
    Impl* impl_;
  };

 private:
  void clockFired();
  void attachReader();
  void readerLost(bool clear, std::string const& why);
  bool registerReader(std::string* why);
  void unregisterReader();
  bool mapFile(int fd, U64 bytes);
  void unmap();
  bool createFile(std::string* why);
  void recover();
  void wakeReaders(void* base);
  void readAll(std::vector<U32> const& slots, bool rescan);
  void* slotAddress(U32 collection, U32 slot) const {
    auto const& d = fixed_.desc[collection];
    return static_cast<char*>(base_) + d.slotsOffset + U64(slot) * d.slotBytes;
  }
  U32 totalSlots() const {
    U32 n = 0;
    for (U32 i = 0; i < fixed_.collections; ++i) n += fixed_.desc[i].capacity;
    return n;
  }
  Layout::LiveHeader* live() const { return Layout::liveHeader(base_); }
  Layout::Registration* registrations() const {
    return reinterpret_cast<Layout::Registration*>(static_cast<char*>(base_) + fixed_.registrationOffset);
  }
  std::atomic<U32>* log() const {
    return reinterpret_cast<std::atomic<U32>*>(static_cast<char*>(base_) + fixed_.logOffset);
  }
  std::vector<Layout::CollectionShape> shapes(bool withCapacity) const {
    std::vector<Layout::CollectionShape> out;
    for (auto* c : t_->collections_) {
      out.push_back({c->name().str(), c->keyMax(), c->valueMax(), withCapacity ? c->capacity() : 0});
    }
    return out;
  }

 public:
  Table* t_;
  std::string rootDir_;
  std::string file_;
  int fd_ = -1;
  int lockFd_ = -1;
  void* base_ = nullptr;
  U64 bytes_ = 0;
  Layout::FixedHeader fixed_{};
  Brio::Ptr<Brio::Clock> clock_;
  ClockReactor clockReactor_;
  F64 retryDelay_ = 0.01;
  bool clockArmed_ = false;
  // writer
  int sendFd_ = -1;
  U32 wakeRounds_ = 0;
  struct WakeTarget {
    U64 token = 0;
    sockaddr_un addr{};
    bool valid = false;
  };
  std::array<WakeTarget, Layout::maxRegistrations> targets_{};
  // reader
  Brio::Ptr<Brio::FileDescriptor> wake_;
  WakeReactor wakeReactor_;
  U64 token_ = 0;
  U32 regIndex_ = ~0U;
  U64 readPos_ = 0;
  U64 epoch_ = 0;
  bool epochKnown_ = false;
  std::vector<U8> mark_;
  std::vector<std::vector<U8>> busy_;
  std::vector<U32> busySlots_;
  U32 busyPasses_ = 0;
  std::vector<U8> arena_;
};

void Table::Impl::armClockAt(F64 delay) {
  if (!clock_) {
    clock_ = Brio::Clock::clockFactory(t_->name() + Brio::String(".shoal"));
    clockReactor_.notifierIs(clock_);
  }
  clock_->timeMinIs(Brio::now() + delay);
}

void Table::Impl::clockFired() {
  Brio::Ptr<Table> keep(t_);
  if (t_->mountMode_ == MountMode::writer) {
    t_->commit();
  } else if (t_->mountStatus_ == MountStatus::mounting) {
    attachReader();
  } else if (t_->mountStatus_ == MountStatus::mounted) {
    pass();
  }
}

bool Table::Impl::mapFile(int fd, U64 bytes) {
  void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) return false;
  base_ = p;
  bytes_ = bytes;
  return true;
}

void Table::Impl::unmap() {
  if (base_) ::munmap(base_, bytes_);
  base_ = nullptr;
  bytes_ = 0;
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void Table::Impl::release() {
  unregisterReader();
  wake_ = nullptr;
  wakeReactor_.notifierIs(nullptr);
  unmap();
  if (sendFd_ >= 0) ::close(sendFd_);
  sendFd_ = -1;
  if (lockFd_ >= 0) ::close(lockFd_);  // drops the writer lock
  lockFd_ = -1;
  if (clock_) clock_->timeMinIs(Brio::never);
}

// --- writer ---

bool Table::Impl::createFile(std::string* why) {
  auto sh = shapes(true);
  U32 total = 0;
  for (auto const& s : sh) total += s.capacity;
  U32 entries = t_->changeLogEntries_;
  if (!entries) {
    entries = 1024;
    while (entries < total && entries < Layout::maxLogEntries) entries <<= 1;
  }
  Layout::FixedHeader h;
  *why = Layout::layoutHeader(&h, t_->typeName_.str(), sh.data(), static_cast<U32>(sh.size()), entries);
  if (!why->empty()) return false;
  std::string tmp = file_ + ".new." + std::to_string(::getpid());
  int fd = ::open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    *why = errnoText("open");
    return false;
  }
  if (::ftruncate(fd, static_cast<off_t>(h.fileBytes)) != 0) {
    *why = errnoText("ftruncate");
    ::close(fd);
    ::unlink(tmp.c_str());
    return false;
  }
  void* oldBase = base_;
  U64 oldBytes = bytes_;
  int oldFd = fd_;
  base_ = nullptr;
  fd_ = -1;
  if (!mapFile(fd, h.fileBytes)) {
    *why = errnoText("mmap");
    ::close(fd);
    ::unlink(tmp.c_str());
    base_ = oldBase;
    fd_ = oldFd;
    return false;
  }
  fd_ = fd;
  std::memcpy(base_, &h, sizeof h);
  fixed_ = h;
  // Rename last: a reader never opens a file whose header is half written.
  if (::rename(tmp.c_str(), file_.c_str()) != 0) {
    *why = errnoText("rename");
    ::unlink(tmp.c_str());
    return false;
  }
  if (oldBase) {
    // Readers of the replaced file learn it went and remount.
    Layout::liveHeader(oldBase)->retired.store(1, std::memory_order_release);
    wakeReaders(oldBase);
    ::munmap(oldBase, oldBytes);
  }
  if (oldFd >= 0) ::close(oldFd);
  return true;
}

bool Table::Impl::mountWriter() {
  rootDir_ = root().str();
  if (!makeParents(file_)) {
    t_->reason_ = "cannot make the directories of " + file_ + ": " + std::strerror(errno);
    return false;
  }
  std::string lockPath = file_ + ".lock";
  lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lockFd_ < 0) {
    t_->reason_ = "cannot open " + lockPath + ": " + std::strerror(errno);
    return false;
  }
  if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    char buf[32] = {};
    ssize_t n = ::pread(lockFd_, buf, sizeof buf - 1, 0);
    std::string holder = n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "unknown";
    t_->reason_ = "table " + file_ + " already has a writer (pid " + holder + ")";
    ::close(lockFd_);
    lockFd_ = -1;
    return false;
  }
  std::string pid = std::to_string(::getpid());
  if (::ftruncate(lockFd_, 0) != 0 || ::pwrite(lockFd_, pid.data(), pid.size(), 0) < 0) {
    // The lock itself holds; the pid is only for the refusal text.
  }
  sendFd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (sendFd_ < 0) {
    t_->reason_ = errnoText("socket");
    release();
    return false;
  }

  bool reattach = false;
  fd_ = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ >= 0) {
    struct stat st {};
    if (::fstat(fd_, &st) == 0 && st.st_size >= Layout::headerBytes && mapFile(fd_, U64(st.st_size))) {
      std::string why = Layout::validateHeader(base_, bytes_, U64(st.st_size));
      if (why.empty()) {
        std::memcpy(&fixed_, base_, sizeof fixed_);
        auto sh = shapes(true);
        why = Layout::matchShapes(&fixed_, t_->typeName_.str(), sh.data(), static_cast<U32>(sh.size()));
        if (why.empty() && t_->changeLogEntries_ && t_->changeLogEntries_ != fixed_.logEntries) {
          why = "change log size differs";
        }
        reattach = why.empty();
      } else {
        corruptionReport(file_, "header: " + why + "; table made again");
      }
    } else if (st.st_size < Layout::headerBytes) {
      corruptionReport(file_, "file shorter than a table header; table made again");
    }
  }
  if (!reattach) {
    std::string why;
    if (!createFile(&why)) {
      t_->reason_ = "cannot create " + file_ + ": " + why;
      release();
      return false;
    }
  }
  t_->mountStatus_ = MountStatus::mounted;  // set() below must stage, not refuse
  recover();
  return true;
}

// Rebuilds the writer's entries from the file. A slot left odd was being
// written when the last writer died: its entry is dropped and reported.
void Table::Impl::recover() {
  auto* lv = live();
  for (U32 c = 0; c < fixed_.collections; ++c) {
    auto* col = t_->collections_[c];
    auto const& d = fixed_.desc[c];
    col->mountedCapacity_ = d.capacity;
    col->staged_.clear();
    col->stagedFlag_.assign(d.capacity, 0);
    col->stageBytes_.assign(std::size_t(d.capacity) * (d.keyMax + d.valueMax), 0);
    col->stageKeyLen_.assign(d.capacity, 0);
    col->stageValueLen_.assign(d.capacity, 0);
    col->recoverBegin();
    std::vector<U8> key(d.keyMax), value(d.valueMax ? d.valueMax : 1);
    for (U32 s = 0; s < d.capacity; ++s) {
      void* slot = slotAddress(c, s);
      auto* head = static_cast<Layout::SlotHead*>(slot);
      std::string why;
      U16 kl = 0, vl = 0;
      Layout::SlotRead r;
      if (head->seq.load(std::memory_order_relaxed) & 1U) {
        r = Layout::SlotRead::corrupt;
        why = "was being written when its writer stopped; entry dropped";
      } else {
        r = Layout::readSlot(slot, d.keyMax, d.valueMax, key.data(), &kl, value.data(), &vl, 1, &why);
      }
      if (r == Layout::SlotRead::present) {
        SlotBytes sb{s, kl, vl, key.data(), value.data()};
        if (col->recoverSlot(sb, &why)) continue;
        r = Layout::SlotRead::corrupt;
      }
      if (r != Layout::SlotRead::empty) {
        col->corrupt(s, why);
        Layout::writeSlot(slot, d.keyMax, nullptr, 0, nullptr, 0);
      }
    }
  }
  // Positions only move forward; a commit cut short by the kill published
  // nothing, so every reader rescans instead of trusting the log.
  U64 head = std::max(lv->commitHead.load(), lv->logWritten.load());
  lv->logWritten.store(head);
  lv->commitHead.store(head);
  lv->writerPid.store(static_cast<U32>(::getpid()));
  lv->writerStarts.fetch_add(1);
  lv->rescanEpoch.fetch_add(1, std::memory_order_release);
  for (auto* col : t_->collections_) col->recoverEnd();
  commit();
  wakeReaders(base_);
}

// One datagram per reader that asked for one since its last pass: a reader
// still busy with earlier commits finds this one's changes when it re-checks
// commitHead after re-arming, so it needs no second wake-up. The seq_cst
// exchange pairs with the reader's seq_cst store and re-check (the
// store-load order both sides need).
void Table::Impl::wakeReaders(void* base) {
  auto* regs = reinterpret_cast<Layout::Registration*>(static_cast<char*>(base) + Layout::headerBytes);
  U32 awake = 0;
  char const byte = 1;
  bool const sweep = (++wakeRounds_ & 255) == 0;
  std::atomic_thread_fence(std::memory_order_seq_cst);
  for (U32 i = 0; i < Layout::maxRegistrations; ++i) {
    U32 pid = regs[i].pid.load(std::memory_order_acquire);
    if (!pid) continue;
    U64 token = regs[i].token.load(std::memory_order_acquire);
    if (!token) continue;
    if (regs[i].wantWake.exchange(0, std::memory_order_seq_cst) == 0) {
      // Busy, or dead inside a pass: look now and then which.
      if (sweep && !processAlive(pid)) {
        if (reclaimRegistration(regs[i], pid, token, rootDir_)) ++t_->reclaimedCount_;
        continue;
      }
      ++awake;
      continue;
    }
    auto& target = targets_[i];
    if (target.token != token) {
      target.token = token;
      target.valid = wakeAddress(wakePath(rootDir_, token), &target.addr);
    }
    if (!target.valid) continue;
    ssize_t n = ::sendto(sendFd_, &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL,
                         reinterpret_cast<sockaddr const*>(&target.addr), sizeof target.addr);
    if (n >= 0 || errno == EAGAIN) {
      ++awake;  // a full queue already holds a wake-up
      t_->wakeupsSent_ += n >= 0;
      continue;
    }
    if (errno == ECONNREFUSED || errno == ENOENT) {
      // Nobody holds that socket any more: the reader died.
      if (reclaimRegistration(regs[i], pid, token, rootDir_)) ++t_->reclaimedCount_;
    }
  }
  t_->readersWoken_ = awake;
}

void Table::Impl::commit() {
  U32 total = 0;
  for (auto* c : t_->collections_) total += static_cast<U32>(c->staged_.size());
  if (!total) return;
  auto* lv = live();
  U64 const pos = lv->logWritten.load(std::memory_order_relaxed);
  bool const logged = total <= fixed_.logEntries;
  // Reserve before overwriting: a reader that copied log entries checks
  // logWritten afterwards to learn whether they were overwritten meanwhile.
  lv->logWritten.store(pos + total, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  U32 const mask = fixed_.logEntries - 1;
  auto* lg = log();
  U64 p = pos;
  for (auto* c : t_->collections_) {
    auto const& d = fixed_.desc[c->index_];
    for (U32 s : c->staged_) {
      if (logged) lg[p++ & mask].store(d.firstIndex + s, std::memory_order_relaxed);
      void* slot = slotAddress(c->index_, s);
      U8 const* bytes = c->stageBytes_.data() + std::size_t(s) * (d.keyMax + d.valueMax);
      if (c->stageKeyLen_[s]) {
        Layout::writeSlot(slot, d.keyMax, bytes, c->stageKeyLen_[s], bytes + d.keyMax, c->stageValueLen_[s]);
      } else {
        Layout::writeSlot(slot, d.keyMax, nullptr, 0, nullptr, 0);
      }
      c->stagedFlag_[s] = 0;
    }
    c->staged_.clear();
  }
  lv->commitCount.fetch_add(1, std::memory_order_relaxed);
  lv->commitHead.store(pos + total, std::memory_order_release);
  ++t_->commitCount_;
  wakeReaders(base_);
}

// --- reader ---

bool Table::Impl::registerReader(std::string* why) {
  rootDir_ = root().str();
  std::string dir = rootDir_ + "/.wake";
  if (!makeParents(dir + "/x")) {
    *why = "cannot make " + dir + ": " + std::strerror(errno);
    return false;
  }
  int sd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (sd < 0) {
    *why = errnoText("socket");
    return false;
  }
  U64 token = 0;
  while (!token) {
    if (::getrandom(&token, sizeof token, 0) != sizeof token) token = U64(::getpid()) << 32 | U64(std::rand());
  }
  std::string path = wakePath(rootDir_, token);
  sockaddr_un addr;
  if (!wakeAddress(path, &addr)) {
    *why = "wake socket path too long: " + path;
    ::close(sd);
    return false;
  }
  ::unlink(path.c_str());
  if (::bind(sd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    *why = errnoText("bind");
    ::close(sd);
    return false;
  }
  auto* regs = registrations();
  U32 const me = static_cast<U32>(::getpid());
  // Dead readers' entries are taken back here too, so a table without a
  // live writer does not run out of registrations.
  for (U32 i = 0; i < Layout::maxRegistrations; ++i) {
    U32 pid = regs[i].pid.load();
    if (pid && !processAlive(pid)) reclaimRegistration(regs[i], pid, regs[i].token.load(), rootDir_);
  }
  for (U32 i = 0; i < Layout::maxRegistrations; ++i) {
    U32 expected = 0;
    if (regs[i].pid.compare_exchange_strong(expected, me)) {
      regs[i].wantWake.store(1, std::memory_order_relaxed);
      regs[i].token.store(token, std::memory_order_release);
      regIndex_ = i;
      token_ = token;
      wake_ = Brio::FileDescriptor::fileDescriptorFactory(t_->name() + Brio::String(".wake"), sd);
      wakeReactor_.notifierIs(wake_);
      wake_->notifyOnReadableIs(true);
      return true;
    }
  }
  ::close(sd);
  ::unlink(path.c_str());
  *why = "all 64 reader registrations are taken";
  return false;
}

void Table::Impl::unregisterReader() {
  if (regIndex_ == ~0U) return;
  if (base_) {
    auto& r = registrations()[regIndex_];
    U64 tok = token_;
    U32 me = static_cast<U32>(::getpid());
    // With our token gone (taken back, or scribbled over) the entry is ours
    // only while it still carries our pid.
    if (r.token.compare_exchange_strong(tok, 0) || tok != 0) r.pid.compare_exchange_strong(me, 0);
  }
  ::unlink(wakePath(rootDir_, token_).c_str());
  regIndex_ = ~0U;
  token_ = 0;
  wakeReactor_.notifierIs(nullptr);
  wake_ = nullptr;
}

void Table::Impl::drainWake() {
  if (!wake_) return;
  char buf[64];
  while (::recv(wake_->descriptor(), buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
}

void Table::Impl::attachReader() {
  auto retry = [this](std::string const& why, F64 delay) {
    t_->reason_ = why;
    unregisterReader();
    unmap();
    armClockAt(delay);
  };
  fd_ = ::open(file_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) return retry("waiting for " + file_ + " to appear", 0.02);
  struct stat st {};
  if (::fstat(fd_, &st) != 0 || st.st_size < Layout::headerBytes) {
    return retry("waiting for a table header in " + file_, 0.02);
  }
  if (!mapFile(fd_, U64(st.st_size))) return retry(errnoText("mmap"), 0.1);
  std::string why = Layout::validateHeader(base_, bytes_, U64(st.st_size));
  if (!why.empty()) {
    corruptionReport(file_, "header: " + why);
    retryDelay_ = std::min(retryDelay_ * 2, 1.0);
    return retry("table header: " + why, retryDelay_);
  }
  std::memcpy(&fixed_, base_, sizeof fixed_);
  why = t_->adoptLayout(fixed_);
  if (!why.empty()) return retry(why, 0.2);
  if (live()->retired.load(std::memory_order_acquire)) return retry("table being replaced", 0.01);
  if (!registerReader(&why)) return retry(why, 0.1);
  U32 total = totalSlots();
  mark_.assign(total, 0);
  busy_.resize(fixed_.collections);
  for (U32 c = 0; c < fixed_.collections; ++c) {
    auto* col = t_->collections_[c];
    col->mountedCapacity_ = fixed_.desc[c].capacity;
    col->capacity_ = fixed_.desc[c].capacity;
    busy_[c].assign(col->mountedCapacity_, 0);
  }
  busySlots_.clear();
  epochKnown_ = false;
  retryDelay_ = 0.01;
  t_->reason_ = Brio::String();
  t_->mountStatusIs(MountStatus::mounted);
  pass();
}

void Table::Impl::readerLost(bool clear, std::string const& why) {
  unregisterReader();
  unmap();
  for (auto* c : t_->collections_) {
    if (clear) {
      c->clearDelivered();
    }
    c->detach();
  }
  t_->reason_ = why;
  t_->mountStatusIs(MountStatus::mounting);
  t_->quiescedIs(false);
  armClockAt(clear ? 0.1 : 0.0);
}

// Reads `slots` (global indices; all of them when rescanning) and hands each
// collection what it read.
void Table::Impl::readAll(std::vector<U32> const& slots, bool rescan) {
  U32 const n = fixed_.collections;
  std::vector<std::vector<SlotBytes>> reads(n);
  // Arena offsets first; pointers are fixed up once it stops growing.
  std::vector<std::vector<std::size_t>> at(n);
  std::size_t need = 0;
  auto sizeFor = [&](U32 c) { return std::size_t(fixed_.desc[c].keyMax) + fixed_.desc[c].valueMax; };
  if (rescan) {
    for (U32 c = 0; c < n; ++c) need += sizeFor(c) * fixed_.desc[c].capacity;
  } else {
    for (U32 g : slots) {
      U32 c = 0;
      while (c + 1 < n && g >= fixed_.desc[c + 1].firstIndex) ++c;
      need += sizeFor(c);
    }
  }
  if (arena_.size() < need) arena_.resize(need);
  std::size_t off = 0;
  std::vector<U32> stillBusy;
  auto one = [&](U32 c, U32 s) {
    auto const& d = fixed_.desc[c];
    U8* key = arena_.data() + off;
    U8* value = key + d.keyMax;
    U16 kl = 0, vl = 0;
    std::string why;
    auto r = Layout::readSlot(slotAddress(c, s), d.keyMax, d.valueMax, key, &kl, value, &vl, 256, &why);
    if (r == Layout::SlotRead::busy) {
      busy_[c][s] = 1;
      stillBusy.push_back(d.firstIndex + s);
      return;
    }
    busy_[c][s] = 0;
    if (r == Layout::SlotRead::corrupt) {
      t_->collections_[c]->corrupt(s, why);
      kl = vl = 0;
    }
    if (r != Layout::SlotRead::present) kl = vl = 0;
    reads[c].push_back(SlotBytes{s, kl, vl, key, value});
    off += sizeFor(c);
  };
  if (rescan) {
    for (U32 c = 0; c < n; ++c) {
      for (U32 s = 0; s < fixed_.desc[c].capacity; ++s) one(c, s);
    }
  } else {
    for (U32 g : slots) {
      U32 c = 0;
      while (c + 1 < n && g >= fixed_.desc[c + 1].firstIndex) ++c;
      one(c, g - fixed_.desc[c].firstIndex);
    }
  }
  busySlots_.swap(stillBusy);
  for (U32 c = 0; c < n && base_; ++c) {
    if (!reads[c].empty() || rescan) t_->collections_[c]->apply(reads[c], busy_[c], rescan);
  }
}

void Table::Impl::pass() {
  if (!base_ || t_->mountStatus_ != MountStatus::mounted) return;
  Brio::Ptr<Table> keep(t_);
  if (std::memcmp(base_, &fixed_, sizeof fixed_) != 0) {
    corruptionReport(file_, "header changed under a reader");
    return readerLost(true, "table header changed; waiting for its writer");
  }
  auto* lv = live();
  if (lv->retired.load(std::memory_order_acquire)) return readerLost(false, "table replaced; remounting");
  if (registrations()[regIndex_].token.load() != token_) {
    // Our registration was taken back (a writer that thought us dead):
    // register again, then read everything.
    unregisterReader();
    std::string why;
    if (!registerReader(&why)) return readerLost(false, why);
    epochKnown_ = false;
  }
  U64 const epoch = lv->rescanEpoch.load(std::memory_order_acquire);
  U64 const head = lv->commitHead.load(std::memory_order_acquire);
  bool rescan = !epochKnown_ || epoch != epoch_;
  std::vector<U32> changed;
  U32 const entries = fixed_.logEntries;
  U32 const total = static_cast<U32>(mark_.size());
  if (!rescan) {
    if (head < readPos_) {
      corruptionReport(file_, "change log head went backwards");
      rescan = true;
    } else if (head - readPos_ > entries) {
      rescan = true;  // fell behind: the log no longer holds what we missed
    } else {
      auto* lg = log();
      for (U64 p = readPos_; p < head; ++p) {
        U32 g = lg[p & (entries - 1)].load(std::memory_order_relaxed);
        if (g >= total) {
          corruptionReport(file_, "change log entry " + std::to_string(g) + " out of range");
          rescan = true;
          break;
        }
        if (!mark_[g]) {
          mark_[g] = 1;
          changed.push_back(g);
        }
      }
      std::atomic_thread_fence(std::memory_order_acquire);
      U64 written = lv->logWritten.load(std::memory_order_relaxed);
      if (written < head || written - readPos_ > entries) rescan = true;
    }
  }
  if (rescan) {
    epoch_ = epoch;
    epochKnown_ = true;
    ++t_->rescanCount_;
    for (U32 g : changed) mark_[g] = 0;
    changed.clear();
  } else {
    for (U32 g : busySlots_) {
      if (!mark_[g]) {
        mark_[g] = 1;
        changed.push_back(g);
      }
    }
    for (U32 g : changed) mark_[g] = 0;
  }
  readAll(changed, rescan);
  if (!base_) return;  // a handler unmounted us
  readPos_ = head;
  ++t_->commitCount_;
  if (!busySlots_.empty()) {
    // A slot stays odd only while its writer is inside a write, or forever
    // after the writer died there; retry gently until it restarts.
    if (++busyPasses_ == 200) corruptionReport(file_, "slot stays busy; is its writer dead?");
    armClockAt(busyPasses_ < 20 ? 0.001 : 0.05);
  } else {
    busyPasses_ = 0;
  }
  // Ask for the next wake-up, then look once more: a commit published
  // before the request was seen by the writer sends nothing.
  registrations()[regIndex_].wantWake.store(1, std::memory_order_seq_cst);
  bool const behind = lv->commitHead.load(std::memory_order_seq_cst) != readPos_;
  if (behind) armClockAt(0);
  t_->quiescedIs(busySlots_.empty() && !behind);
}

void Table::Impl::unmount() {
  if (t_->mountMode_ == MountMode::writer && base_) {
    commit();
    live()->writerPid.store(0);
  }
  release();
  for (auto* c : t_->collections_) {
    c->detach();
    c->staged_.clear();
    c->freeSlots_.clear();
    c->mountedCapacity_ = 0;
    c->stageBytes_ = {};
    c->stageKeyLen_ = {};
    c->stageValueLen_ = {};
  }
}

// --- Table -------------------------------------------------------------------------

Table::Table(Brio::String name, Brio::String typeName)
    : Entity(std::move(name)), typeName_(std::move(typeName)), impl_(std::make_unique<Impl>(this)) {}

// The collections, members of the derived class, are gone by now: only the
// mapping, the lock and the registration are released here. Changes still
// staged are dropped (unmount() commits them).
Table::~Table() { impl_->release(); }

std::string Table::adoptLayout(Layout::FixedHeader const& h) {
  std::vector<Layout::CollectionShape> sh;
  for (auto* c : collections_) sh.push_back({c->name().str(), c->keyMax(), c->valueMax(), 0});
  return Layout::matchShapes(&h, typeName_.str(), sh.data(), static_cast<U32>(sh.size()));
}

bool Table::mount(Brio::String const& path, MountMode mode) {
  if (mountStatus_ != MountStatus::unmounted) unmount();
  mountMode_ = mode;
  mountPath_ = filePath(path);
  impl_->file_ = mountPath_.str();
  reason_ = Brio::String();
  if (mode == MountMode::writer) {
    if (!impl_->mountWriter()) {
      mountStatus_ = MountStatus::unmounted;
      return false;
    }
    mountStatus_ = MountStatus::unmounted;
    mountStatusIs(MountStatus::mounted);
    return true;
  }
  quiescedIs(false);
  mountStatusIs(MountStatus::mounting);
  impl_->mountReader();
  return true;
}

void Table::unmount() {
  if (mountStatus_ == MountStatus::unmounted) return;
  impl_->unmount();
  mountStatusIs(MountStatus::unmounted);
  quiescedIs(true);
}

void Table::commit() {
  if (mountMode_ != MountMode::writer || mountStatus_ != MountStatus::mounted) return;
  impl_->commit();
  quiescedIs(true);
}

void Table::poll() {
  if (mountMode_ != MountMode::reader) return;
  if (mountStatus_ == MountStatus::mounting) {
    impl_->mountReader();
    return;
  }
  impl_->drainWake();
  impl_->pass();
}

void Table::staged() {
  if (!quiesced_) return;
  quiescedIs(false);
  // The loop commits whatever is still staged at the end of this turn.
  impl_->armClockAt(0);
}

void Table::mountStatusIs(MountStatus s) {
  if (s == mountStatus_) return;
  mountStatus_ = s;
  notify(&TableEvents::handleMountStatus);
}

void Table::quiescedIs(bool q) {
  if (q == quiesced_) return;
  quiesced_ = q;
  notify(&TableEvents::handleQuiesced);
}

// --- RawTable ---------------------------------------------------------------------

Brio::Ptr<RawTable> RawTable::rawTableFactory(Brio::String name) {
  return Brio::Ptr<RawTable>(new RawTable(std::move(name)));
}

std::string RawTable::adoptLayout(Layout::FixedHeader const& h) {
  bool same = raw_.size() == h.collections;
  for (U32 i = 0; same && i < h.collections; ++i) {
    same = raw_[i]->name() == Brio::String(h.desc[i].name) && raw_[i]->keyMax() == h.desc[i].keyMax &&
           raw_[i]->valueMax() == h.desc[i].valueMax;
  }
  fileTypeName_ = Brio::String(h.typeName);
  if (same) return {};
  raw_.clear();
  collections_.clear();
  for (U32 i = 0; i < h.collections; ++i) {
    raw_.push_back(std::make_unique<RawCollection>(this, h.desc[i].name, h.desc[i].keyMax, h.desc[i].valueMax,
                                                   h.desc[i].capacity));
  }
  return {};
}

// --- Segment -----------------------------------------------------------------------

Brio::Ptr<Segment> Segment::segmentFactory(Brio::String name, U32 bytes) {
  return Brio::Ptr<Segment>(new Segment(std::move(name), bytes));
}

Segment::~Segment() { detach(); }

bool Segment::attach() {
  if (data_) return true;
  path_ = filePath(name_);
  std::string file = path_.str();
  if (!makeParents(file)) {
    reason_ = "cannot make the directories of " + file + ": " + std::strerror(errno);
    return false;
  }
  int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    reason_ = errnoText("open");
    return false;
  }
  struct stat st {};
  // Growing with ftruncate zero-fills; a longer file keeps its bytes.
  if (::fstat(fd, &st) != 0 || (st.st_size < bytes_ && ::ftruncate(fd, bytes_) != 0)) {
    reason_ = errnoText("ftruncate");
    ::close(fd);
    return false;
  }
  void* p = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (p == MAP_FAILED) {
    reason_ = errnoText("mmap");
    return false;
  }
  data_ = static_cast<U8*>(p);
  reason_ = Brio::String();
  return true;
}

void Segment::detach() {
  if (data_) ::munmap(data_, bytes_);
  data_ = nullptr;
}

void Segment::remove() {
  detach();
  ::unlink(filePath(name_).c_str());
}

}  // namespace Shoal
