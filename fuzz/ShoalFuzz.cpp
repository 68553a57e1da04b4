// Shared-table bytes from a hostile or broken process.
//
// Three readers get the input:
// 1. validateHeader on the raw bytes as a table header (and, when it passes,
//    the check that a sound header gives a consistent layout).
// 2. readSlot on the bytes as a slot with limits taken from the input.
// 3. A whole reader: a sound VRF table is made once; each input is a list of
//    (offset, byte) patches applied to a fresh copy of it (live header,
//    registrations, change log, slots; every fourth input the fixed header
//    too), and a Status reader with a ReverseMapper mounts it and reads it
//    twice. Damage may only reach the corruption hook and read as absent:
//    any crash, overread or hang is a finding.
#include <Corvid/VrfIdMap.h>
#include <Shoal/Shoal.h>
#include <Shoal/ShoalLayout.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace Vrf::VrfIdMap;

namespace {

struct Fixture {
  Fixture() {
    char tmpl[] = "/dev/shm/corvid-fuzz-XXXXXX";
    root = mkdtemp(tmpl);
    setenv("SHOAL_ROOT", root.c_str(), 1);
    Shoal::corruptionHookIs([](Brio::String const&, Brio::String const&) {});
    writer = Status::statusFactory("fuzz-writer");
    writer->changeLogEntriesIs(16);
    if (!writer->mount("fuzz/status", Shoal::MountMode::writer)) abort();
    for (U32 i = 0; i < 12; ++i) writer->vrfIdToNameIs(VrfEntry(VrfId(i), "vrf-" + std::to_string(i)));
    writer->commit();
    writer->vrfIdToNameDel(VrfId(3));
    writer->commit();
    file = root + "/fuzz/status";
    int fd = open(file.c_str(), O_RDWR);
    bytes = static_cast<std::size_t>(lseek(fd, 0, SEEK_END));
    map = static_cast<U8*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    pristine.assign(map, map + bytes);
  }
  ~Fixture() {
    writer = nullptr;
    std::string cmd = "rm -rf '" + root + "'";
    if (std::system(cmd.c_str()) != 0) {
    }
  }
  std::string root;
  std::string file;
  Brio::Ptr<Status> writer;
  U8* map = nullptr;
  std::size_t bytes = 0;
  std::vector<U8> pristine;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  // 1. header
  std::vector<U8> header(data, data + size);
  std::string why = Shoal::Layout::validateHeader(header.data(), header.size(), size >= 16 ? size : 0);
  if (why.empty()) {
    auto const* h = Shoal::Layout::fixedHeader(header.data());
    if (h->collections == 0 || h->collections > Shoal::Layout::maxCollections) abort();
  }

  // 2. one slot, limits from the first bytes
  if (size >= 4) {
    U32 keyMax = 1 + data[0] % 64, valueMax = data[1] % 128;
    std::vector<U8> slot(Shoal::Layout::slotBytesFor(keyMax, valueMax), 0);
    std::memcpy(slot.data(), data + 2, std::min(slot.size(), size - 2));
    std::vector<U8> key(keyMax), value(valueMax + 1);
    U16 kl = 0, vl = 0;
    auto r = Shoal::Layout::readSlot(slot.data(), keyMax, valueMax, key.data(), &kl, value.data(), &vl, 2, &why);
    if (r == Shoal::Layout::SlotRead::present && (kl > keyMax || vl > valueMax)) abort();
  }

  // 3. a whole reader over a patched table
  auto& f = fixture();
  std::memcpy(f.map, f.pristine.data(), f.bytes);
  bool const fixedToo = size && data[0] % 4 == 0;
  std::size_t const low = fixedToo ? 0 : Shoal::Layout::fixedBytes;
  for (std::size_t i = 1; i + 3 <= size; i += 3) {
    std::size_t off = low + ((std::size_t(data[i]) << 8 | data[i + 1]) * 7) % (f.bytes - low);
    f.map[off] = data[i + 2];
  }
  auto reader = Status::statusFactory("fuzz-reader");
  auto mapper = ReverseMapper::reverseMapperFactory(reader, NameToIdMap::nameToIdMapFactory("names"));
  reader->mount("fuzz/status", Shoal::MountMode::reader);
  reader->poll();
  for (auto const& [id, entry] : reader->vrfIdToNameSnapshot()) {
    if (entry.vrfName().bytes() > VrfEntry::maxReadName) abort();
  }
  reader->unmount();
  return 0;
}
