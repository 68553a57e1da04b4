// A small responder agent: receives IPv4 frames on an interface and answers
// each one by sending it back to its sender with the Ethernet addresses
// swapped. Run it as root: responder INTERFACE [COUNT]
#include <Brio/ActivityManager.h>
#include <Corvid/EthDevicePam.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

// The agent's reactor: follows the endpoint and answers on every readable
// change, pulling until the endpoint has nothing left.
class Responder : public Corvid::DescriptorPam::Notifiee {
 public:
  Responder(Brio::Ptr<Corvid::EthDevicePam> const& pam, unsigned limit)
      : Notifiee(pam), pam_(pam.ptr()), limit_(limit) {}

  void handleReadableCount() override {
    while (Brio::Ptr<Corvid::Pkt> frame = pam_->rxPkt()) {
      if (frame->bytes() < 14) continue;
      U8* mac = frame->frontData();  // destination, then source address
      std::swap_ranges(mac, mac + 6, mac + 6);
      pam_->txPktIs(frame);
      ++answered_;
    }
  }
  bool done() const { return limit_ && answered_ >= limit_; }

 private:
  Corvid::EthDevicePam* pam_;
  unsigned limit_;
  unsigned answered_ = 0;
};

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: responder INTERFACE [COUNT]\n");
    return 2;
  }
  Brio::ActivityManager loop;
  auto pam = Corvid::EthDevicePam::ethDevicePamFactory("responder", argv[1]);
  Responder responder(pam, argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 0);
  pam->enabledIs(true);
  if (!pam->enabled()) {
    std::fprintf(stderr, "responder: %s\n", pam->reason().c_str());
    return 1;
  }
  loop.runUntil([&] { return responder.done(); }, 1e9);
  return 0;
}
