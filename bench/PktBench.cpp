// A packet's life against the plainest buffer a program could use instead.
//
// Life: take a default-size packet from the manager, give it a 64-byte
// payload, prepend UDP, IPv4 and Ethernet headers into the headroom, bind
// the three wrappers, fill the headers, set the IPv4 and UDP checksums,
// release. Peer: malloc, memset and free of a buffer of the same 1536 bytes.
// Goal: at most 2x the peer's time, and not one allocation on the prepend
// path while the headroom lasts. Allocations are counted by the replaced
// global operator new of AllocationCounter.h; the ratio and the counts are
// printed after the table.
#include <Corvid/PktUtils.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AllocationCounter.h"
#include "BenchRatio.h"

namespace {

using namespace Corvid;

IpAddr const src(192, 0, 2, 1), dst(198, 51, 100, 7);
EthAddr const macA(0x02, 0, 0, 0, 0, 0x0a), macB(0x02, 0, 0, 0, 0, 0x0b);
char const payload[64] = "sixty-four bytes of application data, give or take some padding";

U64 prependAllocations = 0;
U64 lives = 0;

void packetLife() {
  Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
  U64 const before = CorvidBench::allocations;
  pkt->newSharedHeadData(sizeof payload);
  std::memcpy(pkt->frontData(), payload, sizeof payload);
  pkt->newSharedHeadData(sizeof(UdpHdr));
  pkt->newSharedHeadData(sizeof(IpHdr));
  pkt->newSharedHeadData(sizeof(EthHdr));
  prependAllocations += CorvidBench::allocations - before;
  ++lives;

  auto eth = ethHdrWrapperFactory(pkt, 0);
  auto ip = ipHdrWrapperFactory(pkt, sizeof(EthHdr));
  auto udp = udpHdrWrapperFactory(pkt, sizeof(EthHdr) + sizeof(IpHdr));
  eth->dstIs(macB);
  eth->srcIs(macA);
  eth->ethTypeIs(ethTypeIp);
  ip->versionIs(4);
  ip->headerLengthIs(5);
  ip->tosIs(0);
  ip->totalLengthIs(sizeof(IpHdr) + sizeof(UdpHdr) + sizeof payload);
  ip->identificationIs(1);
  ip->dontFragmentIs(true);
  ip->ttlIs(64);
  ip->protocolIs(ipProtoUdp);
  ip->checksumIs(0);
  ip->srcIs(src);
  ip->dstIs(dst);
  ip->checksumIs(ip->computedChecksum());
  udp->srcPortIs(4000);
  udp->dstPortIs(53);
  udp->lengthIs(sizeof(UdpHdr) + sizeof payload);
  udp->checksumIs(0);
  udp->srcAddrIs(src);
  udp->dstAddrIs(dst);
  udp->upperLayerLenIs(sizeof(UdpHdr) + sizeof payload);
  udp->checksumIs(udp->computedChecksum());
  benchmark::DoNotOptimize(pkt->frontData());
}

void BM_PacketLife(benchmark::State& state) {
  U64 const before = CorvidBench::allocations;
  for (auto _ : state) packetLife();
  state.counters["allocs"] =
      benchmark::Counter(double(CorvidBench::allocations - before), benchmark::Counter::kAvgIterations);
}

void BM_MallocMemsetFree(benchmark::State& state) {
  std::size_t const size = Pkt::Manager::initialBufferSize;
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::memset(p, 0, size);
    benchmark::ClobberMemory();
    std::free(p);
  }
}

// Prepending past the headroom: the one path that allocates (the buffer grows
// by exactly the shortfall and the data is copied once).
void BM_PrependBeyondHeadroom(benchmark::State& state) {
  for (auto _ : state) {
    Brio::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    pkt->newSharedHeadData(Pkt::Manager::initialBufferSize);
    pkt->newSharedHeadData(sizeof(EthHdr));
    benchmark::DoNotOptimize(pkt->frontData());
  }
}

BENCHMARK(BM_PacketLife);
BENCHMARK(BM_MallocMemsetFree);
BENCHMARK(BM_PrependBeyondHeadroom);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  CorvidBench::RecordingReporter reporter;  // CPU time: the machine may be shared
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double const life = reporter.cpu("BM_PacketLife");
  double const peer = reporter.cpu("BM_MallocMemsetFree");
  if (life > 0 && peer > 0) {
    std::printf("\npacket life %.1f ns, malloc/memset/free %.1f ns: %.2fx (goal <= 2x)\n", life, peer, life / peer);
    CorvidBench::printRatio("BM_PacketLife", "BM_MallocMemsetFree", life / peer, 2.0);
  }
  if (lives > 0) {
    std::printf("allocations on the prepend path: %llu in %llu lives (goal 0)\n",
                static_cast<unsigned long long>(prependAllocations), static_cast<unsigned long long>(lives));
  }
  CorvidBench::printMachine("packets, buffers and header wrappers from per-thread caches; the IPv4 and UDP "
                            "checksums (under 128 bytes each) by the 64-bit scalar path (vector kernels from 128 bytes)");
  benchmark::Shutdown();
  return 0;
}
