// libFuzzer target for the PDU framing of SimpleTcpPduPam: arbitrary byte
// streams, cut into arbitrary pieces, read through the endpoint's real read
// path (recv on a stream socket pair) in the exact-read and read-ahead modes,
// checked against a plain reference framer.
//
// Input: [flags][n][n piece lengths][stream...]. flags bit 0 read-ahead,
// bit 1 one PDU per readable event, bit 2 close the writer at the end, bits
// 3-4 maxPduLength (9600, 200, 20, 9600). Any PDU delivered that the
// reference does not deliver, a missing one, or another error reason traps.
// Seeds: fuzz/corpus/TcpPduFuzz.
#include <Brio/ActivityManager.h>
#include <Corvid/SimpleTcpPduPam.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using namespace Corvid;

namespace {

struct Expected {
  std::vector<std::string> pdus;
  std::string error;
};

Expected reference(std::string const& s, U32 maxLength, bool closed) {
  Expected e;
  std::size_t pos = 0;
  for (;;) {
    if (s.size() - pos < 20) break;
    U32 const length = static_cast<U8>(s[pos + 2]) << 8 | static_cast<U8>(s[pos + 3]);
    if (length > maxLength) {
      e.error = "PDU length too big";
      return e;
    }
    if (length < 20) {
      e.error = "PDU length too small";
      return e;
    }
    if (s.size() - pos < length) break;
    e.pdus.push_back(s.substr(pos, length));
    pos += length;
  }
  if (closed) e.error = "Connection closed by peer";
  return e;
}

class Owner : public TcpPduPam::Notifiee {
 public:
  explicit Owner(Brio::Ptr<TcpPduPam> const& p) : Notifiee(p), pam_(p.ptr()) {}
  void handleReadableCount() override {
    while (auto pkt = pam_->rxPkt()) got.push_back(pkt->stringValue().str());
  }
  std::vector<std::string> got;

 private:
  TcpPduPam* pam_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 2 || size > 65536) return 0;
  U8 const flags = data[0];
  std::size_t const pieces = data[1];
  if (size < 2 + pieces) return 0;
  std::vector<std::size_t> cuts(data + 2, data + 2 + pieces);
  std::string const stream(reinterpret_cast<char const*>(data) + 2 + pieces, size - 2 - pieces);
  static U16 const maxLengths[] = {9600, 200, 20, 9600};
  U16 const maxLength = maxLengths[(flags >> 3) & 3];
  bool const closed = flags & 4;

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
  {
    auto pam = simpleTcpPduPamFactory(tcpFileDescriptorFactory(sv[0], false),
                                      tcpFileDescriptorEventRegistrationFactoryBrioc());
    pam->maxPduLengthIs(maxLength);
    pam->readAheadIs(flags & 1);
    pam->readOnePktOnlyIs(flags & 2);
    Owner owner(pam);
    pam->enabledIs(true);
    auto readAll = [&] {
      pam->handleReadable();
      for (int i = 0; i < 70000 && (flags & 2); ++i) {
        std::size_t const before = owner.got.size();
        pam->rxResume();
        if (owner.got.size() == before) break;
      }
    };
    std::size_t pos = 0;
    for (std::size_t i = 0; pos < stream.size(); ++i) {
      std::size_t n = i < cuts.size() && cuts[i] ? cuts[i] : stream.size() - pos;
      if (n > stream.size() - pos) n = stream.size() - pos;
      if (::send(sv[1], stream.data() + pos, n, MSG_NOSIGNAL) != static_cast<ssize_t>(n)) __builtin_trap();
      pos += n;
      readAll();
    }
    if (closed) ::shutdown(sv[1], SHUT_WR);
    readAll();
    Expected const want = reference(stream, maxLength, closed);
    if (owner.got != want.pdus) __builtin_trap();
    if (pam->rxErrorReason().str() != want.error) __builtin_trap();
    if (pam->rxErrors() != (want.error.empty() ? 0u : 1u)) __builtin_trap();
    pam->cleanup();
  }
  ::close(sv[1]);
  return 0;
}
