// The VRF id map: one process (the Writer) gives each VRF name a small id and
// publishes id -> name in a shared-memory table; every other process mounts
// the same table as a reader and keeps an id -> name cache (ReverseMapper).
// Here both sides run in one process, each with its own table object, so the
// reader sees only what went through the file.
// Run it: SHOAL_ROOT=/tmp/vrf-demo vrf_ids [VRF...]   (default: red green blue)
#include <Brio/ActivityManager.h>
#include <Corvid/VrfIdMap.h>

#include <iostream>
#include <string>
#include <vector>

using namespace Vrf::VrfIdMap;

void print(char const* when, ReverseMapper const& mapper) {
  std::cout << when << ":";
  for (auto const& [id, name] : mapper.vrfIdToNameCacheAll()) std::cout << ' ' << id << " -> " << name;
  std::cout << std::endl;
}

int main(int argc, char** argv) {
  Brio::ActivityManager loop;
  char const* const path = "vrfIdMap/status";

  auto written = Status::statusFactory("vrfs-written");
  if (!written->mount(path, Shoal::MountMode::writer)) {
    std::cerr << "vrf_ids: " << written->reason() << "\n";  // e.g. another writer owns it
    return 1;
  }
  auto writer = Writer::writerFactory("vrf-ids-example", written);
  writer->handleInitialized();  // attaches the id counter, adds "default"
  std::vector<std::string> names(argv + 1, argv + argc);
  if (names.empty()) names = {"red", "green", "blue"};
  for (auto const& name : names) std::cout << "writer: " << name << " is " << writer->vrfIs(name) << "\n";
  written->commit();  // publishes and wakes the readers
  std::cout << "table file " << written->mountPath() << "\n";

  auto read = Status::statusFactory("vrfs-read");
  read->mount(path, Shoal::MountMode::reader);
  auto mapper = ReverseMapper::reverseMapperFactory(read);
  loop.runUntil([&] { return read->mountStatus() == Shoal::MountStatus::mounted && read->quiesced(); }, 5);
  mapper->handleInitialized();
  print("reader", *mapper);

  // A change on the writer reaches the reader on its next loop turn.
  writer->vrfDel(names.front());
  written->commit();
  loop.runUntil([&] { return read->vrfIdToNames() == names.size(); }, 5);  // "default" and the rest
  print(("reader after deleting " + names.front()).c_str(), *mapper);
  return 0;
}
